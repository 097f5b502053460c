// The sqlcache subcommand and the demo step, run as a program.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/run_program.h"

#if defined(ZBSHR_DBI_DRIVER)
namespace {

std::string NoCr(std::string s) {
  s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
  return s;
}

TEST(DbiCli, RunsStatementsAndRejectsBadArguments) {
  const struct {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string out;  // whole standard output, or a part of it when `part`
    bool part;
  } cases[] = {
      {{"sqlcache", "--params", "Log=1, SQLCache=1", "SELECT 1", " SELECT 1", "SELECT 2", "SELECT 1"},
       "", 0,
       "capacity 1\nmiss #1 SELECT 1\nhit  #1 SELECT 1\nmiss #2 SELECT 2\n"
       "  driver: drop statement #1 \"SELECT 1\"\nmiss #3 SELECT 1\n"
       "  driver: drop statement #2 \"SELECT 2\"\n1 Cache Hits,3 Cache Misses,1 entries in Cache\n"
       "  driver: drop statement #3 \"SELECT 1\"\n", false},
      {{"sqlcache", "--quiet", "-"}, "SELECT a\nSELECT b\n  SELECT a\n", 0,
       "1 Cache Hits,2 Cache Misses,2 entries in Cache\n", false},
      {{"sqlcache", "-q", "--", "-"}, "SELECT a\r\n", 0, "0 Cache Hits,1 Cache Misses,1 entries in Cache\n", false},
      {{"sqlcache", "-q", "--", "--params"}, "", 0, "0 Cache Hits,1 Cache Misses,1 entries in Cache\n", false},
      {{"sqlcache", "-q", "-"}, "", 2, "", false},
      {{"sqlcache"}, "", 2, "", false},
      {{"sqlcache", "--params"}, "", 2, "", false},
      {{"sqlcache", "--bogus", "SELECT 1"}, "", 2, "", false},
      {{"sqlcache", "--help"}, "", 0, "usage: zbshr sqlcache", true},
      {{"demo"}, "", 0, "statistics: 3 Cache Hits,5 Cache Misses,3 entries in Cache", true},
      {{"demo"}, "", 0, "5 prepared, 5 dropped", true},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {ZBSHR_DBI_DRIVER};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    zbtest::RunOptions opt;
    opt.input = c.input;
    const zbtest::RunResult r = zbtest::run_program(argv, opt);
    const std::string out = NoCr(r.out);
    SCOPED_TRACE(c.args[c.args.size() - 1] + " / " + r.err);
    EXPECT_EQ(r.code, c.code);
    if (c.part) {
      EXPECT_NE(out.find(c.out), std::string::npos) << out;
    } else if (c.code == 0) {
      EXPECT_EQ(out, c.out);
    } else {
      EXPECT_NE(r.err.find("zbshr sqlcache: "), std::string::npos);
    }
  }
}

}  // namespace
#endif
