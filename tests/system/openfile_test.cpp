// osOpenFile and osFileExists: the open-file record, the OF_* modes, path
// search and the path-length limit.
#include <cstddef>
#include <cstdlib>
#ifndef _WIN32
#include <unistd.h>
#endif

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
}

#ifndef _WIN32
// A handle has exactly the access asked for, through the exported classic
// calls and through the descriptor itself; a write-only handle still takes
// part in sharing, and closing it releases its share.
TEST_F(OpenFile, HandlesHaveExactlyTheAccessAsked) {
  const struct {
    uint16_t mode;
    bool read, write;
    const char* after;
  } cases[] = {{OF_READ, true, false, "abc"},
               {OF_WRITE, false, true, "ZZc"},
               {OF_READWRITE, true, true, "abZZ"},
               {3, false, false, "abc"}};  // no access rights at all
  for (const auto& c : cases) {
    spill("acc.txt", "abc");
    OSOFSTRUCT of;
    int32_t h = osOpenFile("acc.txt", &of, c.mode);
    ASSERT_NE(h, -1) << c.mode;
    char b[4] = {};
    EXPECT_EQ(_lread(h, b, 1), c.read ? 1u : 0xFFFFFFFFu) << c.mode;
    EXPECT_EQ(read(h, b, 1) == 1, c.read) << c.mode;
    EXPECT_EQ(_lwrite(h, "Z", 1), c.write ? 1u : 0xFFFFFFFFu) << c.mode;
    EXPECT_EQ(write(h, "Z", 1) == 1, c.write) << c.mode;
    EXPECT_EQ(_lclose(h), 0);
    EXPECT_EQ(_lclose(h), -1);  // no longer open
    EXPECT_EQ(slurp("acc.txt"), c.after) << c.mode;
  }

  OSOFSTRUCT a, b;
  int32_t w = osOpenFile("acc.txt", &a, OF_WRITE | OF_SHARE_EXCLUSIVE);
  ASSERT_NE(w, -1);
  EXPECT_EQ(osOpenFile("acc.txt", &b, OF_READ), -1);
  EXPECT_EQ(b.nErrCode, plat::ERROR_SHARING_VIOLATION);
  _lclose(w);
  w = osOpenFile("acc.txt", &a, OF_WRITE | OF_SHARE_DENY_NONE);
  ASSERT_NE(w, -1);
  EXPECT_EQ(osOpenFile("acc.txt", &b, OF_READ | OF_SHARE_DENY_WRITE), -1);  // w writes
  _lclose(w);
  int32_t r = osOpenFile("acc.txt", &b, OF_READ | OF_SHARE_EXCLUSIVE);
  EXPECT_NE(r, -1);  // nothing of w is left
  _lclose(r);
}

TEST_F(OpenFile, ClassicCallsCreateOpenSeekAndClose) {
  spill("new.txt", "old contents");
  int32_t h = _lcreat("new.txt", 0);  // empties an existing file
  ASSERT_NE(h, -1);
  EXPECT_EQ(_lwrite(h, "hello world", 11), 11u);
  EXPECT_EQ(_llseek(h, 6, 0), 6);
  char buf[8] = {};
  EXPECT_EQ(_lread(h, buf, 7), 5u);
  EXPECT_STREQ(buf, "world");
  EXPECT_EQ(_llseek(h, -5, 2), 6);
  EXPECT_EQ(_llseek(h, 2, 1), 8);
  EXPECT_EQ(_llseek(h, -100, 0), -1);  // before the start: the position stays
  EXPECT_EQ(_llseek(h, 0, 3), -1);     // no such origin
  EXPECT_EQ(_llseek(h, 0, 1), 8);
  EXPECT_EQ(_lclose(h), 0);
  EXPECT_EQ(slurp("new.txt"), "hello world");

  h = _lopen("NEW.TXT", OF_READ | OF_SHARE_DENY_WRITE);  // found without regard to case
  ASSERT_NE(h, -1);
  EXPECT_EQ(_lread(h, buf, 5), 5u);
  EXPECT_EQ(_lopen("new.txt", OF_READWRITE), -1);  // denied by h
  EXPECT_EQ(_lwrite(h, "x", 1), 0xFFFFFFFFu);
  EXPECT_EQ(_lclose(h), 0);
  for (int32_t bad : {3, 0x50, 0x100}) EXPECT_EQ(_lopen("new.txt", bad), -1) << bad;
  EXPECT_EQ(_lopen("absent.txt", OF_READ), -1);
  EXPECT_EQ(_lcreat("new.txt", 8), -1);
  EXPECT_EQ(_lread(-5, buf, 1), 0xFFFFFFFFu);

  // Read-only: the creating handle writes, the file itself is not writable.
  h = _lcreat("ro.txt", 1);
  ASSERT_NE(h, -1);
  EXPECT_EQ(_lwrite(h, "ro", 2), 2u);
  EXPECT_EQ(_lclose(h), 0);
  const auto perms = fs::status("ro.txt").permissions();
  EXPECT_EQ(perms & (fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write),
            fs::perms::none);
}
#endif

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
