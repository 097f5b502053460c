// Profile files and the start-up path, under a scratch configuration folder
// and a stand-in host program path.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "zbshr/system.h"

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace {

namespace fs = std::filesystem;

std::string Slurp(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
void Spill(const fs::path& p, const std::string& s) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << s;
}

class ProfileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    root_ = fs::temp_directory_path() / ("zbshr-prof-" + std::to_string(rd()) + std::to_string(rd()));
    home_ = root_ / "home";
    hostdir_ = root_ / "Program Files" / "host";
    fs::create_directories(home_);
    fs::create_directories(hostdir_);
    old_home_ = getenv_or("ZBSHR_HOME");
    old_prog_ = getenv_or("ZBSHR_HOST_PROGRAM");
    setenv("ZBSHR_HOME", home_.string().c_str(), 1);
    SetHost("zb050.exe");
  }
  void TearDown() override {
    restore("ZBSHR_HOME", old_home_);
    restore("ZBSHR_HOST_PROGRAM", old_prog_);
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
  void SetHost(const std::string& program) {
    setenv("ZBSHR_HOST_PROGRAM", (hostdir_ / program).string().c_str(), 1);
  }
  static std::string getenv_or(const char* n) {
    const char* v = std::getenv(n);
    return v ? std::string(1, '\1') + v : std::string();
  }
  static void restore(const char* n, const std::string& v) {
    if (v.empty())
      unsetenv(n);
    else
      setenv(n, v.c_str() + 1, 1);
  }
  std::string InitPath(int size = 300, const char* file = nullptr) {
    std::string buf(static_cast<size_t>(size), 'x');
    char* r = OS_UtilGetInitPath(buf.data(), size, file);
    EXPECT_EQ(r, buf.data());
    return buf.c_str();
  }

  fs::path root_, home_, hostdir_;
  std::string old_home_, old_prog_;
};

TEST_F(ProfileTest, RecognisesHostsByProgramName) {
  char sn[8], prod[32], folder[300];
  struct Case {
    const char* program;
    const char* short_name;
    const char* product;
  } cases[] = {
      {"zb050.exe", "zb", "Quillbrander"},  {"ZB050.EXE", "zb", "Quillbrander"},
      {"zb050", "zb", "Quillbrander"},      {"kw050.exe", "kw", "Kestrel Reports"},
      {"KWRT050", "kw", "Kestrel Reports"}, {"dv050.exe", "dv", "DVBuilder"},
      {"other-tool", "zb", "Quillbrander"},
  };
  for (const auto& c : cases) {
    SetHost(c.program);
    OS_UtilGetHostInfo(sn, sizeof sn, prod, sizeof prod, folder, sizeof folder);
    EXPECT_STREQ(sn, c.short_name) << c.program;
    EXPECT_STREQ(prod, c.product) << c.program;
    EXPECT_EQ(std::string(folder), hostdir_.string()) << c.program;
  }
}

TEST_F(ProfileTest, DefaultsToHostFolderAndItsProfile) {
  EXPECT_EQ(InitPath(), hostdir_.string() + "/");
  char file[300];
  OS_UtilGetProfileFile(file, sizeof file, 0);
  EXPECT_EQ(std::string(file), (hostdir_ / "zb.ini").string());
  EXPECT_EQ(InitPath(300, "a.txt"), (hostdir_ / "a.txt").string());
}

TEST_F(ProfileTest, SystemProfileFallbacksInOrder) {
  // "InitPath" applies only while "InitPath050" is absent or empty.
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[Quillbrander]\nInitPath=/srv/old\n");
  EXPECT_EQ(InitPath(), "/srv/old/");
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[quillbrander]\nInitPath050 = /srv/new/ \nInitPath=/srv/old\n");
  EXPECT_EQ(InitPath(), "/srv/new/");
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[Quillbrander]\nInitPath050=\nInitPath=C:\n");
  EXPECT_EQ(InitPath(), "C:");  // no separator after a drive
  // Other hosts read their own product section.
  SetHost("dv050.exe");
  EXPECT_EQ(InitPath(), hostdir_.string() + "/");
}

TEST_F(ProfileTest, PutInitPathNeedsTheProfileFileAndWinsOverSystemProfile) {
  fs::path cfg = root_ / "cfg";
  fs::create_directories(cfg);
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[Quillbrander]\nInitPath050=/srv/new\n");
  EXPECT_EQ(OS_UtilPutInitPath(cfg.string().c_str()), 0);  // no zb.ini there yet
  EXPECT_EQ(InitPath(), "/srv/new/");
  Spill(cfg / "zb.ini", "[app]\ncolor=blue\n");
  std::string padded = "   " + cfg.string() + "   ";
  EXPECT_NE(OS_UtilPutInitPath(padded.c_str()), 0);
  EXPECT_EQ(InitPath(), cfg.string() + "/");
  // The registry value keeps the trimmed path with its terminator.
  std::string reg = Slurp(home_ / "registry.dat");
  EXPECT_NE(reg.find("Software\\Harrowvane\\Quillbrander\\5.0]"), std::string::npos) << reg;
  EXPECT_NE(reg.find("\\x00\""), std::string::npos) << reg;
  char buf[64];
  EXPECT_EQ(OS_UtilGetProfStr("APP", "COLOR", "none", buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "blue");
  // An empty path removes the stored value: the system profile applies again.
  EXPECT_NE(OS_UtilPutInitPath("  "), 0);
  EXPECT_EQ(InitPath(), "/srv/new/");
}

TEST_F(ProfileTest, GetInitPathReplacesWhatWouldNotFit) {
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[Quillbrander]\nInitPath050=/abcdefghij\n");  // 12 with separator
  // 12 + 8 + 4 = 24 reaches size - 1 = 24: the file name alone.
  EXPECT_EQ(InitPath(25, "file.ini"), "file.ini");
  EXPECT_EQ(InitPath(26, "file.ini"), "/abcdefghij/file.ini");
}

// The init path is read into the caller's size less one, so a stored value is
// cut or refused early enough for its separator to fit.
TEST_F(ProfileTest, InitPathKeepsRoomForItsSeparator) {
  const std::string value = "/0123456789abcdefghijklmnopqrstuvwxyz";
  Spill(home_ / ZBTEST_SYSTEM_PROFILE, "[Quillbrander]\nInitPath050=" + value + "\n");
  EXPECT_EQ(InitPath(20), value.substr(0, 18) + "/");
  EXPECT_EQ(InitPath(4), "/0/");
  EXPECT_EQ(InitPath(2), "");  // a one-byte buffer holds no character

  // A registry value that needs the whole buffer does not fit in it: the
  // system profile applies instead. One byte more and it is read.
  fs::path cfg = root_ / "cfg";
  Spill(cfg / "zb.ini", "");
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  const int n = static_cast<int>(cfg.string().size());
  EXPECT_EQ(InitPath(n + 1), value.substr(0, static_cast<size_t>(n) - 1) + "/");
  EXPECT_EQ(InitPath(n + 2), cfg.string() + "/");
}

TEST_F(ProfileTest, LocalProfileReadsAndWrites) {
  EXPECT_EQ(OS_UtilGetProfInt("s", "n", 42), 42);
  // No profile file anywhere: the write lands in the host folder.
  EXPECT_NE(OS_UtilPutProfStr("Settings", "Count", "17"), 0);
  EXPECT_EQ(Slurp(hostdir_ / "zb.ini"), "[Settings]\nCount=17\n");
  EXPECT_EQ(OS_UtilGetProfInt("settings", "count", 0), 17);
  char buf[8];
  EXPECT_EQ(OS_UtilGetProfStr("Settings", "missing", "default-text", buf, sizeof buf), 7);
  EXPECT_STREQ(buf, "default");
}

TEST_F(ProfileTest, WriteToMissingProfileDropsStoredInitPath) {
  fs::path cfg = root_ / "cfg";
  Spill(cfg / "zb.ini", "");
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  fs::remove(cfg / "zb.ini");
  EXPECT_NE(OS_UtilPutProfStr("a", "b", "c"), 0);
  EXPECT_TRUE(fs::exists(hostdir_ / "zb.ini"));
  EXPECT_EQ(InitPath(), hostdir_.string() + "/");  // the stored path is gone
}

// A host known by its bare program name has no folder: its profile is written
// where it is read (the configuration folder), not at the filesystem root.
TEST_F(ProfileTest, HostWithoutAFolderWritesWhereItReads) {
  setenv("ZBSHR_HOST_PROGRAM", "kw050", 1);
  char pf[300];
  EXPECT_EQ(OS_UtilGetProfileFile(pf, sizeof pf, 1), 6);
  EXPECT_STREQ(pf, "kw.ini");
  EXPECT_NE(OS_UtilPutProfStr("Run", "Mode", "fast"), 0);
  EXPECT_EQ(Slurp(home_ / "kw.ini"), "[Run]\nMode=fast\n");
  char buf[16];
  EXPECT_EQ(OS_UtilGetProfStr("run", "mode", "", buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "fast");
}

TEST_F(ProfileTest, SharedProfileAbsentAndPresent) {
  char buf[6];
  EXPECT_EQ(OS_NetworkSharedProfileAccessible(), 0);
  EXPECT_EQ(OS_NetworkGetProfInt("s", "k", -7), -7);
  EXPECT_EQ(OS_NetworkGetProfStr("s", "k", "longer-default", buf, sizeof buf), 5);
  EXPECT_STREQ(buf, "longe");
  EXPECT_EQ(OS_NetworkGetProfStr("s", "k", nullptr, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(OS_NetworkPutProfStr("s", "k", "v"), 0);

  fs::path shared = root_ / "net" / "shared.ini";
  Spill(shared, "[Team]\nSize=0x10\n");
  Spill(hostdir_ / "zb.ini", "[zb]\nsharedIni=" + shared.string() + "\n");
  EXPECT_EQ(OS_NetworkSharedProfileAccessible(), static_cast<int32_t>(shared.string().size()));
  EXPECT_EQ(OS_NetworkGetProfInt("team", "size", 0), 16);
  EXPECT_NE(OS_NetworkPutProfStr("Team", "Lead", "Ann"), 0);
  EXPECT_EQ(Slurp(shared), "[Team]\nSize=0x10\nLead=Ann\n");
  char big[16];
  EXPECT_EQ(OS_NetworkGetProfStr("Team", "Lead", "", big, sizeof big), 3);
  EXPECT_STREQ(big, "Ann");
}

}  // namespace
