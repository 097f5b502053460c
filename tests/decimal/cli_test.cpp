// `zbshr dec`, run through the decimal driver (the same subcommand code).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace {

struct CliRun {
  int status;
  std::string out;
};

// Runs the driver with args; standard error is folded into the output.
CliRun run(const std::string& args, const std::string& input = "") {
  std::string cmd = std::string(ZBSHR_DEC_DRIVER) + " dec " + args + " 2>&1";
  if (!input.empty()) cmd = "printf '" + input + "' | " + cmd;
  FILE* p = popen(cmd.c_str(), "r");
  CliRun r{-1, ""};
  if (!p) return r;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

}  // namespace

TEST(DecimalCli, EvaluatesOperations) {
  EXPECT_EQ(run("add 1.5 2.25").out, "3.75\n");
  EXPECT_EQ(run("div 1 3").out, "0.333333333333333333\n");
  EXPECT_EQ(run("divr -0.125 1 2").out, "-0.13\n");
  EXPECT_EQ(run("--raw mul -1.5 2").out, "1 1 30\n");
  EXPECT_EQ(run("cmp 1.50 1.5").out, "0\n");
  EXPECT_EQ(run("toint -2.5").out, "zbshr dec: note -308: a non-zero fraction was dropped\n-3\n");
  EXPECT_EQ(run("add @0:2:150 @1:0:1").out, "0.50\n");
}

TEST(DecimalCli, ErrorsAndUsage) {
  CliRun r = run("div 1 0");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "zbshr dec: error -309: division by zero\n");
  r = run("add @0:29:1 1");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("-303"), std::string::npos);
  EXPECT_EQ(run("add 1").status, 2);
  EXPECT_EQ(run("frobnicate 1 2").status, 2);
  EXPECT_EQ(run("add 1x 2").status, 2);
  r = run("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("usage: zbshr dec"), std::string::npos);
}

TEST(DecimalCli, BatchAnswersEveryLine) {
  CliRun r = run("--batch", "add 1 2\\ndiv 1 0\\nround 0.004 2\\nparse  1.50 \\nparse 1..2\\nbogus\\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ok 3\nerr -309\nok 0.00 w-305\nok 1.50\nerr -306\nusage unknown operation 'bogus'\n");
}
