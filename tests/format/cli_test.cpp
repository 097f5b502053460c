// zbshr date and zbshr match run as a user would: results, JSON, exit statuses and one-line messages.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

#include "common/run_program.h"

#ifdef ZBSHR_CLI

namespace {

TEST(FormatCli, MatchAndDate) {
  if (!std::filesystem::exists(ZBSHR_CLI)) GTEST_SKIP() << "the zbshr program is not built";
  const std::string dir = std::filesystem::temp_directory_path().string();
  const struct {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string out;  // standard output, exactly (or its start when it ends in "...")
    std::string err;  // a text standard error must hold ("" : it is empty)
  } cases[] = {
      {{"match", "--compiled", "[a-c]+"}, "xabcx abx", 0, "08 05 04 0a 61 63 0b 0b 00\n2\n", ""},
      {{"match", "ab", "-"}, "abab", 0, "2\n", ""},
      {{"match", "ab"}, std::string("ab\0ab\0xab", 9), 0, "3\n", ""},  // past NUL bytes
      {{"match", "--json", "b"}, "abab", 0, "{\"matches\":2,\"pattern\":\"b\"}\n", ""},
      {{"match", "zz"}, "abab", 1, "0\n", ""},  // nothing found, like grep
      // The system's reason follows "cannot open": its wording is the platform's.
      {{"match", "a", dir}, "", 1, "", "cannot open "},
      {{"match", "a", "/nonexistent/file"}, "", 1, "", "cannot open /nonexistent/file"},
      {{"match", "a", "--", "-x"}, "", 1, "", "cannot open -x"},  // after "--", a name
      {{"match", "a", "--", "-"}, "ab", 0, "1\n", ""},             // "-" is standard input
      {{"match", "a", "f1", "f2"}, "", 2, "", "not expected: f2"},
      {{"match", "--bogus", "a"}, "", 2, "", "not expected: --bogus"},
      {{"match", "*a"}, "x", 2, "", "nothing to repeat"},
      {{"match", "[abc"}, "x", 2, "", "unterminated"},
      {{"match"}, "", 2, "", "PATTERN"},
      {{"match", "--help"}, "", 0, "Prints the number of matches...", ""},
      {{"date", "--order", "dmy", "parse", "15 Mar. 1998"}, "", 0, "1998-03-15 00:00:00.000000...", ""},
      {{"date", "parse", "5/1/2024", "--order", "dmy"}, "", 0, "2024-01-05...", ""},
      {{"date", "--order", "ymd", "parse", "01/02/03"}, "", 0, "2001-02-03 00:00:00...", ""},
      {{"date"}, "", 2, "", "ACTION is required"},
      {{"date", "diff", "1/1/2000"}, "", 2, "", "diff takes two texts"},
      {{"date", "parse", "2000-02-30", "date"}, "", 1, "", "the day is wrong"},
      {{"date", "parse", "not a date"}, "", 1, "", "not a date or time"},
      {{"date", "diff", "1/1/2000", "12/31/1999"}, "", 0, "1 days, 0 seconds\n", ""},
      {{"date", "--json", "diff", "1/1/2000", "12/31/1999"}, "", 0, "{\"days\":1,\"seconds\":0}\n", ""},
      {{"date", "dow", "1/2/1899"}, "", 0, "1 Monday\n", ""},
      {{"date", "add", "--", "3/1/2000", "-1"}, "", 0, "2000-02-29...", ""},
      {{"date", "add", "3/1/2000", ""}, "", 2, "", "DAYS must be a whole number"},
      {{"date", "add", "3/1/2000", "99999999"}, "", 1, "", "outside the years"},
      {{"date", "format", "dddd d mmmm yyyy", "7/4/1998"}, "", 0, "Saturday 4 July 1998\n", ""},
      {{"date", "--order", "xyz", "now"}, "", 2, "", "unknown order"},
      {{"date", "bogus"}, "", 2, "", "unknown action 'bogus'"},
      {{"date", "--help"}, "", 0, "Parses, compares...", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<std::string> argv{ZBSHR_CLI};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    zbtest::RunOptions o;
    o.input = c.input;
    auto r = zbtest::run_program(argv, o);
    EXPECT_EQ(r.code, c.code) << r.err;
    const size_t n = c.out.ends_with("...") ? c.out.size() - 3 : std::string::npos;
    EXPECT_EQ(r.out.substr(0, n), c.out.substr(0, n));
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), c.err.empty() ? 0 : 1) << r.err;
  }
  // Every --json answer is one JSON document.
  for (const char* act : {"parse", "dow"}) {
    auto r = zbtest::run_program({ZBSHR_CLI, "date", "--json", act, "7/4/1998"});
    ASSERT_EQ(r.code, 0);
    EXPECT_TRUE(nlohmann::json::parse(r.out, nullptr, false).is_object()) << r.out;
  }
}

}  // namespace

#endif  // ZBSHR_CLI

// Masks both share, rendered by the library (format_table) and by LibreOffice headless, compared cell by cell.
TEST(FormatDifferential, LibreOfficeShowsTheSameText) {
#if !defined(ZBSHR_TEST_PYTHON3) || !defined(ZBSHR_FORMAT_TABLE)
  GTEST_SKIP() << "no python3 or format_table in this build";
#else
  const std::filesystem::path work =
      std::filesystem::temp_directory_path() / ("zbshr-lo-" + std::to_string(::getpid()));
  const std::string script = std::string(ZBSHR_SOURCE_DIR) + "/tests/format/differential/libreoffice_diff.py";
  zbtest::RunOptions o;
  o.env = {"HOME=" + (work / "home").string()};
  auto r = zbtest::run_program({ZBSHR_TEST_PYTHON3, script, ZBSHR_FORMAT_TABLE, work.string()}, o);
  std::error_code ec;
  std::filesystem::remove_all(work, ec);
  if (r.code == 77 || r.code == -1) GTEST_SKIP() << "LibreOffice or python3 is not available";
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(" 0 failed"), std::string::npos) << r.out;
#endif
}
