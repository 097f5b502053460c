// osOpenFile and osFileExists: the open-file record, the OF_* modes and the
// access and sharing they give, path search and the path-length limit.
#include <cstddef>
#include <cstdlib>

#include "platform/platform.h"
#include "sys_fixture.h"

namespace {

namespace plat = zbshr::plat;

static_assert(sizeof(OSOFSTRUCT) == 268 && offsetof(OSOFSTRUCT, nErrCode) == 2 &&
              offsetof(OSOFSTRUCT, reserved) == 4 && offsetof(OSOFSTRUCT, szPathName) == 8);

using OpenFile = systest::ScratchTest;

// A path as '/'-separated lower case (Windows paths differ in neither).
std::string lower(const fs::path& p) {
  std::string s = systest::slashes(p.string());
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

TEST_F(OpenFile, RecordModesAndAccess) {
  OSOFSTRUCT of;
  EXPECT_EQ((std::vector<int32_t>{osOpenFile("x.txt", nullptr, OF_READ), osFileExists(nullptr)}), (std::vector<int32_t>{-1, 0}));
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_EQ(osOpenFile(nullptr, &of, OF_READ), -1);
  EXPECT_TRUE(of.cBytes == 268 && of.nErrCode != 0 && of.reserved == 0u);
  // Parse builds the absolute path only, and zeroes the rest of the record.
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_TRUE(osOpenFile("sub/../notyet.txt", &of, OF_PARSE) == 1 && of.nErrCode == 0);
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "notyet.txt");
  EXPECT_EQ(std::string(of.szPathName, sizeof of.szPathName).find_first_not_of('\0', std::strlen(of.szPathName)), std::string::npos);
  EXPECT_FALSE(fs::exists("notyet.txt"));
  for (uint16_t mode : {uint16_t{OF_EXIST}, uint16_t{OF_READ}, uint16_t{OF_DELETE}})
    EXPECT_TRUE(osOpenFile("absent.txt", &of, mode) == -1 && of.nErrCode == plat::ERROR_FILE_NOT_FOUND) << mode;
  spill("f.txt", "abc");
  EXPECT_EQ((std::vector<int32_t>{osOpenFile("f.txt", &of, OF_EXIST), osFileExists("f.txt"), osFileExists("absent.txt")}),
            (std::vector<int32_t>{1, 1, 0}));
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "f.txt");
  // {mode, bytes a 1-byte read gets (-1: no read access), a 2-byte write, contents
  // after writing "ZZ"}: create empties the file and adds write access.
  const std::tuple<int, int, int, const char*> cases[] = {{OF_READ, 1, -1, "abc"}, {OF_WRITE, -1, 2, "ZZc"},
      {OF_READWRITE, 1, 2, "aZZ"}, {OF_CREATE, 0, 2, "ZZ"}, {OF_CREATE | OF_WRITE, -1, 2, "ZZ"}};
  for (auto [mode, read, write, after] : cases) {
    spill("f.txt", "abc");
    int32_t h = osOpenFile("f.txt", &of, uint16_t(mode));
    char b[4] = {};
    EXPECT_EQ(plat::_lread(h, b, 1), read) << mode;
    EXPECT_EQ(plat::_lwrite(h, "ZZ", 2), write) << mode;
    plat::_lclose(h);
    EXPECT_EQ(slurp("f.txt"), after) << mode;
  }
  EXPECT_TRUE(osOpenFile("f.txt", &of, OF_DELETE) == 1 && !fs::exists("f.txt"));
}

TEST_F(OpenFile, SharingModesConflict) {
  spill("s.txt", "s");
  OSOFSTRUCT a, b;
  // {first open, second open, second succeeds}; closing releases every share.
  const std::tuple<int, int, bool> cases[] = {
      {OF_READ | OF_SHARE_EXCLUSIVE, OF_READ | OF_SHARE_DENY_NONE, false},
      {OF_READ | OF_SHARE_DENY_WRITE, OF_READ | OF_SHARE_DENY_WRITE, true},
      {OF_READ | OF_SHARE_DENY_WRITE, OF_READWRITE, false},
      {OF_WRITE | OF_SHARE_EXCLUSIVE, OF_READ, false},  // a write-only handle shares too
      {OF_WRITE | OF_SHARE_DENY_NONE, OF_READ | OF_SHARE_DENY_WRITE, false},
      {OF_READ | OF_SHARE_DENY_NONE, OF_READ | OF_SHARE_DENY_NONE, true},
      {OF_READ | OF_SHARE_EXCLUSIVE, 0, false},  // alone: every share was released
  };
  for (auto [first, second, ok] : cases) {
    int32_t h1 = osOpenFile("s.txt", &a, uint16_t(first)), h2 = second ? osOpenFile("s.txt", &b, uint16_t(second)) : -1;
    EXPECT_NE(h1, -1) << first;
    EXPECT_EQ(h2 != -1, ok) << first << " then " << second;
    EXPECT_TRUE(h2 != -1 || !second || b.nErrCode == plat::ERROR_SHARING_VIOLATION);
    for (int32_t h : {h2, h1})
      if (h != -1) plat::_lclose(h);
  }
}

TEST_F(OpenFile, FullPathOf260OrMoreGivesError111) {
  // Full path = cwd + separator + name: 259 characters fit, 260 do not.
  const size_t room = 259 - fs::current_path().string().size() - 1;
  ASSERT_GT(room, 10u);
  OSOFSTRUCT of;
  EXPECT_TRUE(osOpenFile(std::string(room, 'a').c_str(), &of, OF_PARSE) == 1 && std::strlen(of.szPathName) == 259u);
  for (uint16_t mode : {uint16_t{OF_PARSE}, uint16_t{OF_CREATE}, uint16_t{OF_DELETE}})
    for (size_t n : {room + 1, size_t{1000}})
      EXPECT_TRUE(osOpenFile(std::string(n, 'b').c_str(), &of, mode) == -1 && of.nErrCode == 111 && of.cBytes == 268) << mode;
}

TEST_F(OpenFile, BareNameFoundInTheSystemFolder) {
  const char* home = std::getenv("ZBSHR_HOME");
  if (home == nullptr || *home == '\0') GTEST_SKIP() << "ZBSHR_HOME is not set";
  fs::path sysdir = plat::config_dir();
  std::string name = "zbshr-sysfolder-" + std::to_string(std::random_device{}()) + ".dat";
  spill(sysdir / name, "from the system folder");
  ASSERT_FALSE(fs::exists(name));
  EXPECT_EQ(osFileExists(name.c_str()), 1);
  OSOFSTRUCT of;
  int32_t h = osOpenFile(name.c_str(), &of, OF_READ);
  ASSERT_NE(h, -1);
  // The full name found (on Windows with the drive the folder's name leaves out).
  const std::string found = lower(of.szPathName);
  const std::string want = lower(sysdir / name);
  EXPECT_TRUE(found.size() >= want.size() && found.compare(found.size() - want.size(), want.size(), want) == 0)
      << found << " vs " << want;
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
