// `zbshr dec`, run through the decimal driver (the same subcommand code).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"

namespace {

struct CliRun {
  int status;
  std::string out;
};

// Runs the driver with the blank-separated words of args; "\\n" in input
// stands for a line end. Standard error comes before standard output.
CliRun run(const std::string& args, const std::string& input = "") {
  std::vector<std::string> argv = {ZBSHR_DEC_DRIVER, "dec"};
  std::istringstream words(args);
  for (std::string w; words >> w;) argv.push_back(w);
  zbtest::RunOptions opt;
  for (size_t i = 0; i < input.size(); ++i) {
    if (input.compare(i, 2, "\\n") == 0) {
      opt.input += '\n';
      ++i;
    } else {
      opt.input += input[i];
    }
  }
  zbtest::RunResult r = zbtest::run_program(argv, opt);
  return CliRun{r.code, r.err + r.out};
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
  // A blank line and CRLF line ends get their answer too, so a reader stays in step.
  r = run("--batch", "add 1 2\r\n\r\n\nadd 2 2\r\n");
  EXPECT_EQ(r.out, "ok 3\nusage empty line\nusage empty line\nok 4\n");
  r = run("--batch --json", "add 1 2\n\ndiv 1 0\n");
  EXPECT_EQ(r.out,
            "{\"line\":1,\"notes\":[],\"result\":\"3\",\"status\":\"ok\"}\n"
            "{\"line\":2,\"status\":\"usage\",\"text\":\"empty line\"}\n"
            "{\"code\":-309,\"line\":3,\"status\":\"err\"}\n");
}

// A quick run of the differential model (Python's decimal module against the
// driver's batch mode): a few thousand random cases of every operation. The
// full run is the DecimalDifferential test.
TEST(DecimalDifferential, QuickRunAgreesWithPythonDecimal) {
#ifndef ZBSHR_TEST_PYTHON3
  GTEST_SKIP() << "no python3 in this build";
#else
  const std::string script = std::string(ZBSHR_SOURCE_DIR) + "/tests/decimal/diff_decimal.py";
  zbtest::RunResult r = zbtest::run_program({ZBSHR_TEST_PYTHON3, script, ZBSHR_DEC_DRIVER, "2000", "7"});
  if (r.code == -1) GTEST_SKIP() << "python3 cannot be started";
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find(" 0 mismatches"), std::string::npos) << r.out;
#endif
}
