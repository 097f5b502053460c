// The sqlcache subcommand and the demo step, run as programs.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#if defined(ZBSHR_DBI_DRIVER) && !defined(_WIN32)
#include <sys/wait.h>

namespace {

struct Outcome {
  int status;
  std::string out;
};

Outcome Exec(const std::string& args, const std::string& input = "") {
  std::string cmd = std::string("'") + ZBSHR_DBI_DRIVER + "' " + args;
  if (!input.empty()) cmd = "printf '" + input + "' | " + cmd;
  cmd += " 2>&1";
  Outcome r{-1, ""};
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

TEST(DbiCli, SqlcacheRunsTheStatements) {
  Outcome r = Exec("sqlcache --params \"Log=1, SQLCache=1\" 'SELECT 1' ' SELECT 1' 'SELECT 2' "
               "'SELECT 1'");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out,
            "capacity 1\n"
            "miss #1 SELECT 1\n"
            "hit  #1 SELECT 1\n"
            "miss #2 SELECT 2\n"
            "  driver: drop statement #1 \"SELECT 1\"\n"
            "miss #3 SELECT 1\n"
            "  driver: drop statement #2 \"SELECT 2\"\n"
            "1 Cache Hits,3 Cache Misses,1 entries in Cache\n"
            "  driver: drop statement #3 \"SELECT 1\"\n");

  r = Exec("sqlcache --quiet -", "SELECT a\\nSELECT b\\n  SELECT a\\n");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "1 Cache Hits,2 Cache Misses,2 entries in Cache\n");
}

TEST(DbiCli, UsageErrors) {
  EXPECT_EQ(Exec("sqlcache").status, 2);
  EXPECT_EQ(Exec("sqlcache --params").status, 2);
  EXPECT_EQ(Exec("sqlcache --bogus 'SELECT 1'").status, 2);
  Outcome help = Exec("sqlcache --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: zbshr sqlcache"), std::string::npos);
}

TEST(DbiCli, DemoStepSucceeds) {
  Outcome r = Exec("demo");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("statistics: 3 Cache Hits,5 Cache Misses,3 entries in Cache"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("5 prepared, 5 dropped"), std::string::npos) << r.out;
}

}  // namespace

#endif
