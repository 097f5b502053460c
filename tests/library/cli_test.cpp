// `zbshr lib` as a user runs it: exit codes, output, and verify's verdict on
// a damaged file.
#include <cstdio>
#include <cstdlib>

#include "helpers.h"

using namespace lmtest;

namespace {

class Cli : public LibTest {
 protected:
  std::string out;
  int run(const std::string& args) {
    std::string cmd = std::string(ZBSHR_CLI) + " lib " + args + " > " + path("out.txt") + " 2>&1";
    int rc = std::system(cmd.c_str());
    auto b = slurp(path("out.txt"));
    out.assign(b.begin(), b.end());
    return WEXITSTATUS(rc);
  }
};

TEST_F(Cli, StoreListReadAndVerify) {
  std::string lib = path("proj.zbl");
  std::string data = pattern(20000, 11);
  spit(path("in.bin"), std::vector<uint8_t>(data.begin(), data.end()));
  ASSERT_EQ(run("create " + lib + " --comment 'a project'"), 0) << out;
  ASSERT_EQ(run("put " + lib + " W_Main " + path("in.bin") + " --comment 'main window'"), 0) << out;
  ASSERT_EQ(run("put " + lib + " m_menu - < " + path("in.bin")), 0) << out;
  ASSERT_EQ(run("ls " + lib + " -l"), 0) << out;
  EXPECT_NE(out.find("w_main"), std::string::npos);
  EXPECT_NE(out.find("main window"), std::string::npos);
  EXPECT_NE(out.find("2 entries, 40000 bytes"), std::string::npos) << out;
  ASSERT_EQ(run("cat " + lib + " w_main"), 0);
  EXPECT_TRUE(out == data);
  ASSERT_EQ(run("cp " + lib + " w_main w_copy"), 0) << out;
  ASSERT_EQ(run("mv " + lib + " w_copy w_two"), 0) << out;
  ASSERT_EQ(run("create " + path("work.zbl")), 0) << out;
  ASSERT_EQ(run("checkout " + lib + " w_main " + path("work.zbl") + " alice"), 0) << out;
  ASSERT_EQ(run("checkouts " + lib), 0) << out;
  EXPECT_NE(out.find("alice"), std::string::npos);
  ASSERT_EQ(run("checkin " + path("work.zbl") + " w_main"), 0) << out;
  ASSERT_EQ(run("checkouts " + lib), 0) << out;
  EXPECT_EQ(out, "");
  ASSERT_EQ(run("rm " + lib + " m_menu"), 0) << out;
  ASSERT_EQ(run("verify " + lib), 0) << out;
  EXPECT_NE(out.find("no problems found"), std::string::npos);
  ASSERT_EQ(run("info " + lib), 0) << out;
  EXPECT_NE(out.find("a project"), std::string::npos);
  EXPECT_EQ(run("cat " + lib + " nothere"), 1);
  EXPECT_EQ(run("frobnicate " + lib), 2);
  EXPECT_EQ(run("--help"), 0);

  // A data block overwritten with junk: verify reports it and fails.
  auto b = slurp(lib);
  std::memset(b.data() + 4096 + 512, 'X', 16);
  spit(lib, b);
  EXPECT_EQ(run("verify " + lib), 1);
  EXPECT_NE(out.find("problem"), std::string::npos) << out;
}

}  // namespace
