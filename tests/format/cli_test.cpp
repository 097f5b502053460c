// The zbshr date and zbshr match subcommands, run as a user would.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#ifdef ZBSHR_CLI

namespace {

struct Outcome {
  int status;
  std::string out;
};

Outcome run(const std::string& args, const std::string& input = "") {
  std::string in_file;
  std::string cmd = std::string("'") + ZBSHR_CLI + "' " + args + " 2>/dev/null";
  if (!input.empty()) {
    in_file = (std::filesystem::temp_directory_path() /
               ("zbshr_format_cli_input_" + std::to_string(getpid()) + ".txt"))
                  .string();
    std::ofstream(in_file, std::ios::binary) << input;
    cmd += " < '" + in_file + "'";
  }
  Outcome r{-1, {}};
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }
  if (!in_file.empty()) std::remove(in_file.c_str());
  return r;
}

class FormatCli : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(ZBSHR_CLI)) GTEST_SKIP() << "the zbshr program is not built";
  }
};

TEST_F(FormatCli, Match) {
  Outcome r = run("match --compiled '[a-c]+'", "xabcx abx");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "08 05 04 0a 61 63 0b 0b 00\n2\n");
  r = run("match ab", "abab");
  EXPECT_EQ(r.out, "2\n");
  EXPECT_EQ(run("match '*a'", "x").status, 1);
  EXPECT_EQ(run("match").status, 2);
  EXPECT_EQ(run("match --help").status, 0);
}

TEST_F(FormatCli, Date) {
  Outcome r = run("date --order dmy parse '15 Mar. 1998'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.substr(0, 26), "1998-03-15 00:00:00.000000");
  r = run("date parse 2000-02-30 date");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "error 1 (invalid day)\n");
  EXPECT_EQ(run("date diff 1/1/2000 12/31/1999").out, "1 days, 0 seconds\n");
  EXPECT_EQ(run("date dow 1/2/1899").out, "1 Monday\n");
  EXPECT_EQ(run("date add 3/1/2000 -1").out.substr(0, 10), "2000-02-29");
  EXPECT_EQ(run("date format 'dddd d mmmm yyyy' 7/4/1998").out, "Saturday 4 July 1998\n");
  EXPECT_EQ(run("date bogus").status, 2);
  EXPECT_EQ(run("date --help").status, 0);
}

}  // namespace

#endif  // ZBSHR_CLI
