// The `zbshr mem` subcommand, run as a separate program.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"

namespace {

// Runs the program with the blank-separated words of args; *out gets standard
// error, then standard output.
int RunCli(const std::string& args, std::string* out) {
  std::vector<std::string> argv = {ZBSHR_CLI};
  std::istringstream words(args);
  for (std::string w; words >> w;) argv.push_back(w);
  zbtest::RunResult r = zbtest::run_program(argv);
  *out = r.err + r.out;
  return r.code;
}

}  // namespace

TEST(HeapCli, PrintsStatistics) {
  std::string out;
  ASSERT_EQ(RunCli("mem --count 2 --size 5", &out), 0) << out;
  // Two blocks of 12 bytes in one 4 KB sub-pool plus its table of 2,424.
  EXPECT_NE(out.find("live blocks              2"), std::string::npos) << out;
  EXPECT_NE(out.find("total bytes           6520"), std::string::npos) << out;
  EXPECT_NE(out.find("free bytes            4062"), std::string::npos) << out;
  ASSERT_EQ(RunCli("mem --count 3 --size 70000 --free 100", &out), 0) << out;
  EXPECT_NE(out.find("total bytes         212472"), std::string::npos) << out;  // 3 x 70,016 + 2,424
  // No small sub-pool was made, so the sub-pool size is still 4,088.
  EXPECT_NE(out.find("sub-pool bytes       12264"), std::string::npos) << out;
  EXPECT_NE(out.find("after freeing 3 of them"), std::string::npos) << out;
}

TEST(HeapCli, RejectsBadArguments) {
  std::string out;
  EXPECT_EQ(RunCli("mem --size 9-3", &out), 2);
  EXPECT_EQ(RunCli("mem --count", &out), 2);
  EXPECT_EQ(RunCli("mem --bogus 1", &out), 2);
  EXPECT_EQ(RunCli("mem --help", &out), 0);
  EXPECT_NE(out.find("usage: zbshr mem"), std::string::npos);
  EXPECT_EQ(RunCli("mem --count 1 --image /nonexistent-dir/x/y.img", &out), 1);
}
