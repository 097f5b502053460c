// osOpenFile and osFileExists: the open-file record, the OF_* modes, path
// search and the path-length limit.
#include <cstddef>
#include <cstdlib>

#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

using systest::ScratchTest;
using systest::slurp;
using systest::spill;
namespace fs = std::filesystem;
namespace plat = zbshr::plat;

static_assert(sizeof(OSOFSTRUCT) == 268);
static_assert(offsetof(OSOFSTRUCT, nErrCode) == 2);
static_assert(offsetof(OSOFSTRUCT, reserved) == 4);
static_assert(offsetof(OSOFSTRUCT, szPathName) == 8);

using OpenFile = ScratchTest;

TEST_F(OpenFile, NullRecordAndNullName) {
  EXPECT_EQ(osOpenFile("x.txt", nullptr, OF_READ), -1);
  OSOFSTRUCT of;
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_EQ(osOpenFile(nullptr, &of, OF_READ), -1);
  EXPECT_EQ(of.cBytes, 268);
  EXPECT_NE(of.nErrCode, 0);
  EXPECT_EQ(of.reserved, 0u);
  EXPECT_EQ(osFileExists(nullptr), 0);
}

TEST_F(OpenFile, ParseBuildsTheAbsolutePathOnly) {
  OSOFSTRUCT of;
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_EQ(osOpenFile("sub/../notyet.txt", &of, OF_PARSE), 1);
  EXPECT_EQ(of.cBytes, 268);
  EXPECT_EQ(of.nErrCode, 0);
  EXPECT_EQ(of.reserved, 0u);
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "notyet.txt");
  // The rest of the record was zeroed.
  size_t len = std::strlen(of.szPathName);
  for (size_t i = len; i < sizeof of.szPathName; ++i) ASSERT_EQ(of.szPathName[i], 0) << i;
  EXPECT_FALSE(fs::exists("notyet.txt"));
}

TEST_F(OpenFile, CreateTruncatesAndDeleteRemoves) {
  spill("f.bin", "old contents");
  OSOFSTRUCT of;
  int32_t h = osOpenFile("f.bin", &of, OF_CREATE);
  ASSERT_NE(h, -1);
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "f.bin");
  EXPECT_EQ(plat::_lwrite(h, "new", 3), 3);  // create adds write access
  plat::_lclose(h);
  EXPECT_EQ(slurp("f.bin"), "new");

  EXPECT_EQ(osOpenFile("f.bin", &of, OF_DELETE), 1);
  EXPECT_FALSE(fs::exists("f.bin"));
  EXPECT_EQ(osOpenFile("f.bin", &of, OF_DELETE), -1);
  EXPECT_EQ(of.nErrCode, plat::ERROR_FILE_NOT_FOUND);
}

TEST_F(OpenFile, ExistAndPlainOpens) {
  OSOFSTRUCT of;
  EXPECT_EQ(osOpenFile("absent.txt", &of, OF_EXIST), -1);
  EXPECT_EQ(of.nErrCode, plat::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(osOpenFile("absent.txt", &of, OF_READ), -1);
  EXPECT_EQ(osFileExists("absent.txt"), 0);

  spill("data.txt", "abcdef");
  EXPECT_EQ(osOpenFile("data.txt", &of, OF_EXIST), 1);
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "data.txt");
  EXPECT_EQ(osFileExists("data.txt"), 1);

  int32_t h = osOpenFile("data.txt", &of, OF_READ);
  ASSERT_NE(h, -1);
  char buf[8] = {};
  EXPECT_EQ(plat::_lread(h, buf, 8), 6);
  EXPECT_STREQ(buf, "abcdef");
  EXPECT_EQ(plat::_lwrite(h, "x", 1), -1);  // read access only
  plat::_lclose(h);

  h = osOpenFile("data.txt", &of, OF_READWRITE);
  ASSERT_NE(h, -1);
  EXPECT_EQ(plat::_lwrite(h, "XY", 2), 2);  // an existing file is not truncated
  plat::_lclose(h);
  EXPECT_EQ(slurp("data.txt"), "XYcdef");

  h = osOpenFile("data.txt", &of, OF_WRITE);
  ASSERT_NE(h, -1);
  EXPECT_EQ(plat::_lread(h, buf, 1), -1);  // write access only
  plat::_lclose(h);
}

TEST_F(OpenFile, SharingModesConflict) {
  spill("shared.txt", "s");
  OSOFSTRUCT a, b;
  int32_t h1 = osOpenFile("shared.txt", &a, OF_READ | OF_SHARE_EXCLUSIVE);
  ASSERT_NE(h1, -1);
  EXPECT_EQ(osOpenFile("shared.txt", &b, OF_READ | OF_SHARE_DENY_NONE), -1);
  EXPECT_EQ(b.nErrCode, plat::ERROR_SHARING_VIOLATION);
  plat::_lclose(h1);

  h1 = osOpenFile("shared.txt", &a, OF_READ | OF_SHARE_DENY_WRITE);
  ASSERT_NE(h1, -1);
  int32_t h2 = osOpenFile("shared.txt", &b, OF_READ | OF_SHARE_DENY_WRITE);
  EXPECT_NE(h2, -1);  // two readers that deny writing
  EXPECT_EQ(osOpenFile("shared.txt", &b, OF_READWRITE), -1);
  EXPECT_EQ(b.nErrCode, plat::ERROR_SHARING_VIOLATION);
  plat::_lclose(h2);
  plat::_lclose(h1);
}

TEST_F(OpenFile, FullPathOf260OrMoreGivesError111) {
  std::string cwd = fs::current_path().string();
  // Full path = cwd + '/' + name: 259 characters fit, 260 do not.
  size_t room = 259 - cwd.size() - 1;
  ASSERT_GT(room, 10u);
  std::string fits(room, 'a');
  std::string too_long(room + 1, 'b');
  OSOFSTRUCT of;
  EXPECT_EQ(osOpenFile(fits.c_str(), &of, OF_PARSE), 1);
  EXPECT_EQ(std::strlen(of.szPathName), 259u);
  for (uint16_t mode : {uint16_t{OF_PARSE}, uint16_t{OF_CREATE}, uint16_t{OF_DELETE}}) {
    EXPECT_EQ(osOpenFile(too_long.c_str(), &of, mode), -1) << mode;
    EXPECT_EQ(of.nErrCode, 111) << mode;
    EXPECT_EQ(of.cBytes, 268);
  }
  std::string way_too_long(1000, 'c');
  EXPECT_EQ(osOpenFile(way_too_long.c_str(), &of, OF_CREATE), -1);
  EXPECT_EQ(of.nErrCode, 111);
}

TEST_F(OpenFile, BareNameFoundInTheSystemFolder) {
  const char* home = std::getenv("ZBSHR_HOME");
  if (home == nullptr || *home == '\0') GTEST_SKIP() << "ZBSHR_HOME is not set";
  fs::path sysdir = plat::ConfigDir();
  fs::create_directories(sysdir);
  std::string name = "zbshr-sysfolder-" + std::to_string(std::random_device{}()) + ".dat";
  spill(sysdir / name, "from the system folder");
  ASSERT_FALSE(fs::exists(name));

  EXPECT_EQ(osFileExists(name.c_str()), 1);
  OSOFSTRUCT of;
  int32_t h = osOpenFile(name.c_str(), &of, OF_READ);
  ASSERT_NE(h, -1);
  EXPECT_EQ(fs::weakly_canonical(of.szPathName), fs::weakly_canonical(sysdir / name));
  char buf[32] = {};
  EXPECT_EQ(plat::_lread(h, buf, sizeof buf - 1), 22);
  EXPECT_STREQ(buf, "from the system folder");
  plat::_lclose(h);

  // Create and delete act on the current folder, not on the found file.
  EXPECT_EQ(osOpenFile(name.c_str(), &of, OF_DELETE), -1);
  EXPECT_TRUE(fs::exists(sysdir / name));
  fs::remove(sysdir / name);
  EXPECT_EQ(osFileExists(name.c_str()), 0);
}

}  // namespace
