// The sqlcache subcommand and the demo step, run as a program.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/run_program.h"

#if defined(ZBSHR_CLI)
namespace {

TEST(DbiCli, RunsStatementsAndRejectsBadArguments) {
  const std::string demo = (std::filesystem::temp_directory_path() / "zbshr_dbi_demo").string();
  // out: the whole standard output, or a part of it when `part`.
  const struct { std::vector<std::string> args; std::string input; int code; std::string out; bool part; } cases[] = {
      {{"sqlcache", "--params", "Log=1, SQLCache=1", "SELECT 1", " SELECT 1", "SELECT 2", "SELECT 1"},
       "", 0, "capacity 1\nmiss #1 SELECT 1\nhit  #1 SELECT 1\nmiss #2 SELECT 2\n"
       "  driver: drop statement #1 \"SELECT 1\"\nmiss #3 SELECT 1\n"
       "  driver: drop statement #2 \"SELECT 2\"\n1 Cache Hits,3 Cache Misses,1 entries in Cache\n"
       "  driver: drop statement #3 \"SELECT 1\"\n", false},
      {{"sqlcache", "-q", "--", "-"}, "SELECT a\r\nSELECT b\n  SELECT a\n", 0, "1 Cache Hits,2 Cache Misses,2 entries in Cache\n", false},
      {{"sqlcache", "-q", "-"}, "", 2, "", false},
      {{"sqlcache"}, "", 2, "", false},
      {{"demo", "--dir", demo}, "", 0, "after flush: 3 Cache Hits,5 Cache Misses,0 entries in Cache; 5 prepared, 5 dropped", true},
  };
  for (const auto& c : cases) {
#if defined(_WIN32)
    if (c.args[0] == "demo") continue;  // its export step would replace the user's clipboard text
#endif
    std::vector<std::string> argv = {ZBSHR_CLI};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    // A configuration folder of its own: the demo's formats follow the regional settings found there.
    const zbtest::RunResult r = zbtest::run_program(argv, {c.input, {"ZBSHR_HOME=" + demo + "-home"}, 0, ""});
    EXPECT_EQ(r.code, c.code) << c.args.back() << " / " << r.err;
    EXPECT_TRUE(c.part ? r.out.find(c.out) != std::string::npos : c.code ? r.err.find("zbshr sqlcache: ") == 0 : r.out == c.out)
        << r.out;
  }
  std::filesystem::remove_all(demo);
  std::filesystem::remove_all(demo + "-home");
}

}  // namespace
#endif
