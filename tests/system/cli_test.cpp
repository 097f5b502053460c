// `zbshr profile` run as a user would: where the profile is written, and `get` exiting with 1 for a missing key.
#include <nlohmann/json.hpp>

#include "common/run_program.h"
#include "sys_fixture.h"

#ifdef ZBSHR_CLI

namespace {

TEST(ProfileCli, WritesUnderTheConfigurationFolderAndReportsMissingKeys) {
  if (!fs::exists(ZBSHR_CLI)) GTEST_SKIP() << "the zbshr program is not built";
  const fs::path home = fs::temp_directory_path() / "zbshr-profile-cli";
  fs::remove_all(home);
  zbtest::RunOptions o;
  o.env = {"ZBSHR_HOME=" + home.string(), "ZBSHR_HOST_PROGRAM="};
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {ZBSHR_CLI, "profile"});
    return zbtest::run_program(args, o);
  };
  // {arguments, exit status, standard output}
  const struct {
    std::vector<std::string> args;
    int code;
    std::string out;
  } cases[] = {
      {{"set", "zb", "colour", "blue"}, 0, ""},
      {{"get", "zb", "colour"}, 0, "blue\n"},
      {{"get", "zb", "size"}, 1, ""},                  // missing: nothing, exit 1
      {{"get", "zb", "size", "12"}, 0, "12\n"},        // unless a default is given
      {{"set", "zb", "empty", ""}, 0, ""},
      {{"get", "zb", "empty"}, 0, "\n"},               // empty is not missing
      {{"delete", "zb", "colour"}, 0, ""},
      {{"get", "zb", "colour"}, 1, ""},
      {{"--json", "get", "zb", "empty"}, 0, "{\"found\":true,\"key\":\"empty\",\"section\":\"zb\",\"value\":\"\"}\n"},
      {{"get", "zb"}, 2, ""},
      {{"frob"}, 2, ""},
  };
  for (const auto& c : cases) {
    auto r = run(c.args);
    EXPECT_EQ(r.code, c.code) << testing::PrintToString(c.args) << r.err;
    EXPECT_EQ(systest::lf(r.out), c.out) << testing::PrintToString(c.args);
  }
  // The profile lives in the configuration folder, never beside the program.
  EXPECT_TRUE(fs::exists(home / "zb.ini"));
  EXPECT_FALSE(fs::exists(fs::path(ZBSHR_CLI).parent_path() / "zb.ini"));
  auto r = run({"--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  auto j = nlohmann::json::parse(r.out, nullptr, false);
  ASSERT_TRUE(j.is_object()) << r.out;
  EXPECT_EQ(systest::slashes(j.value("profile_file", "")), systest::slashes((home / "zb.ini").string()));
  fs::remove_all(home);
}

}  // namespace

#endif  // ZBSHR_CLI
