// `zbshr dec`, run through the decimal driver (the same subcommand code), and
// the quick form of the differential run against Python's decimal module.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"

TEST(DecimalCli, OperationsBatchesAndErrors) {
  const struct {
    const char* args;
    std::string input;
    int code;
    std::string out;  // standard error then standard output (or a text in them)
  } cases[] = {
      {"add 1.5 2.25", "", 0, "3.75\n"},
      {"div 1 3", "", 0, "0.333333333333333333\n"},
      {"divr -0.125 1 2", "", 0, "-0.13\n"},
      {"--raw mul -1.5 2", "", 0, "1 1 30\n"},
      {"cmp 1.50 1.5", "", 0, "0\n"},
      {"toint -2.5", "", 0, "zbshr dec: note -308: a non-zero fraction was dropped\n-3\n"},
      {"add @0:2:150 @1:0:1", "", 0, "0.50\n"},
      {"div 1 0", "", 1, "zbshr dec: error -309: division by zero\n"},
      {"add @0:29:1 1", "", 1, "error -303"},
      {"add 1", "", 2, ""}, {"frobnicate 1 2", "", 2, ""}, {"add 1x 2", "", 2, ""},
      {"--batch", "add 1 2\ndiv 1 0\nround 0.004 2\nparse  1.50 \nparse 1..2\nbogus\n", 0,
       "ok 3\nerr -309\nok 0.00 w-305\nok 1.50\nerr -306\nusage unknown operation 'bogus'\n"},
      // a blank line and CRLF line ends get their answer too, so a reader stays in step
      {"--batch", "add 1 2\r\n\r\n\nadd 2 2\r\n", 0, "ok 3\nusage empty line\nusage empty line\nok 4\n"},
      {"--batch --json", "add 1 2\n\ndiv 1 0\n", 0,
       "{\"line\":1,\"notes\":[],\"result\":\"3\",\"status\":\"ok\"}\n"
       "{\"line\":2,\"status\":\"usage\",\"text\":\"empty line\"}\n{\"code\":-309,\"line\":3,\"status\":\"err\"}\n"},
      {"--help", "", 0, "usage: zbshr dec"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {ZBSHR_DEC_DRIVER, "dec"};
    std::istringstream words(c.args);
    for (std::string w; words >> w;) argv.push_back(w);
    zbtest::RunOptions opt;
    opt.input = c.input;
    const zbtest::RunResult r = zbtest::run_program(argv, opt);
    EXPECT_EQ(r.code, c.code) << c.args;
    const std::string all = r.err + r.out;  // a text not ending a line: found anywhere in it
    if (c.out.empty() || c.out.back() != '\n') {
      EXPECT_NE(all.find(c.out), std::string::npos) << c.args << all;
    } else {
      EXPECT_EQ(all, c.out) << c.args;
    }
  }
}

// A few thousand random cases of every operation; the full run is the CTest
// test DecimalDifferential.
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
