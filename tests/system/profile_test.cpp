// Profile files and the start-up path, under a scratch configuration folder and a stand-in host program path.
#include "platform/platform.h"
#include "sys_fixture.h"

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace {

class ProfileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(home_);
    fs::create_directories(hostdir_);
    setenv("ZBSHR_HOME", home_.string().c_str(), 1);
    SetHost("zb050.exe");
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) saved_[i].empty() ? unsetenv(kVars[i]) : setenv(kVars[i], saved_[i].c_str(), 1);
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
  void SetHost(const std::string& program) { setenv("ZBSHR_HOST_PROGRAM", (hostdir_ / program).string().c_str(), 1); }
  void SystemProfile(const std::string& text) { spill(home_ / ZBTEST_SYSTEM_PROFILE, text); }
  // The start-up path with separators shown as '/'.
  std::string InitPath(int size = 300, const char* file = nullptr) {
    std::string buf(static_cast<size_t>(size), 'x');
    EXPECT_EQ(OS_UtilGetInitPath(buf.data(), size, file), buf.data());
    return slashes(buf.c_str());
  }
  std::string S(const fs::path& p) const { return slashes(p.string()); }

  static constexpr const char* kVars[2] = {"ZBSHR_HOME", "ZBSHR_HOST_PROGRAM"};
  std::string saved_[2] = {std::getenv(kVars[0]) ? std::getenv(kVars[0]) : "", std::getenv(kVars[1]) ? std::getenv(kVars[1]) : ""};
  fs::path root_ = fs::temp_directory_path() / ("zbshr-prof-" + std::to_string(std::random_device{}()));
  fs::path home_ = root_ / "home", hostdir_ = root_ / "Program Files" / "host";
};

TEST_F(ProfileTest, RecognisesHostsByProgramName) {
  const std::tuple<const char*, const char*, const char*> cases[] = {  // {program, short name, product}
      {"zb050.exe", "zb", "Quillbrander"},  {"ZB050.EXE", "zb", "Quillbrander"},
      {"zb050", "zb", "Quillbrander"},      {"kw050.exe", "kw", "Kestrel Reports"},
      {"KWRT050", "kw", "Kestrel Reports"}, {"dv050.exe", "dv", "DVBuilder"},
      {"other-tool", "zb", "Quillbrander"},
  };
  for (auto [program, short_name, product] : cases) {
    char sn[8], prod[32], folder[300];
    SetHost(program);
    OS_UtilGetHostInfo(sn, sizeof sn, prod, sizeof prod, folder, sizeof folder);
    EXPECT_EQ(std::string(sn) + "|" + prod + "|" + slashes(folder), std::string(short_name) + "|" + product + "|" + S(hostdir_));
  }
}

TEST_F(ProfileTest, InitPathFromHostFolderOrSystemProfile) {
  EXPECT_EQ(InitPath() + "|" + InitPath(300, "a.txt"), S(hostdir_) + "/|" + S(hostdir_ / "a.txt"));
  char file[300];
  OS_UtilGetProfileFile(file, sizeof file, 0);
  EXPECT_EQ(slashes(file), S(hostdir_ / "zb.ini"));
  // {system profile, start-up path}: "InitPath" applies only while
  // "InitPath050" is absent or empty; no separator is added after a drive.
  for (auto [profile, want] : {std::pair<const char*, const char*>{"[Quillbrander]\nInitPath=/srv/old\n", "/srv/old/"},
                               {"[quillbrander]\nInitPath050 = /srv/new/ \nInitPath=/srv/old\n", "/srv/new/"},
                               {"[Quillbrander]\nInitPath050=\nInitPath=C:\n", "C:"}}) {
    SystemProfile(profile);
    EXPECT_EQ(InitPath(), want) << profile;
  }
  SetHost("dv050.exe");  // other hosts read their own product's section
  EXPECT_EQ(InitPath(), S(hostdir_) + "/");
}

// The path is read into the caller's size less one, so a stored value is cut
// or refused early enough for its separator (and the file name) to fit.
TEST_F(ProfileTest, InitPathBoundaries) {
  SystemProfile("[Quillbrander]\nInitPath050=/abcdefghij\n");  // 12 with separator
  EXPECT_EQ(InitPath(25, "file.ini"), "file.ini");  // 12 + 8 + 4 reaches size - 1
  EXPECT_EQ(InitPath(26, "file.ini"), "/abcdefghij/file.ini");
  const std::string value = "/0123456789abcdefghijklmnopqrstuvwxyz";
  SystemProfile("[Quillbrander]\nInitPath050=" + value + "\n");
  EXPECT_EQ(InitPath(20), value.substr(0, 18) + "/");
  EXPECT_EQ(InitPath(4) + "|" + InitPath(2), "/0/|");  // a one-byte buffer holds no character
  // A stored value that needs the whole buffer does not fit in it: the system
  // profile applies instead. One byte more and it is read.
  fs::path cfg = root_ / "cfg";
  spill(cfg / "zb.ini", "");
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  const int n = static_cast<int>(cfg.string().size());
  EXPECT_EQ(InitPath(n + 1), value.substr(0, static_cast<size_t>(n) - 1) + "/");
  EXPECT_EQ(InitPath(n + 2), S(cfg) + "/");
}

TEST_F(ProfileTest, PutInitPathNeedsTheProfileFileAndWinsOverSystemProfile) {
  fs::path cfg = root_ / "cfg";
  fs::create_directories(cfg);
  SystemProfile("[Quillbrander]\nInitPath050=/srv/new\n");
  EXPECT_EQ(OS_UtilPutInitPath(cfg.string().c_str()), 0);  // no zb.ini there yet
  EXPECT_EQ(InitPath(), "/srv/new/");
  spill(cfg / "zb.ini", "[app]\ncolor=blue\n");
  EXPECT_NE(OS_UtilPutInitPath(("   " + cfg.string() + "   ").c_str()), 0);
  EXPECT_EQ(InitPath(), S(cfg) + "/");
  // The stored value is the trimmed path with its terminator, under the
  // product's key of the user's registry.
  namespace plat = zbshr::plat;
  plat::HKEY key = nullptr;
  ASSERT_EQ(plat::RegOpenKeyExA(plat::HKEY_CURRENT_USER, "Software\\Harrowvane\\Quillbrander\\5.0", 0,
                                plat::KEY_READ, &key), plat::ERROR_SUCCESS);
  char stored[300] = {};
  plat::DWORD type = 0, size = sizeof stored;
  EXPECT_EQ(plat::RegQueryValueExA(key, "InitPath", nullptr, &type, reinterpret_cast<uint8_t*>(stored), &size),
            plat::ERROR_SUCCESS);
  plat::RegCloseKey(key);
  EXPECT_EQ(type, plat::REG_SZ);
  EXPECT_EQ(slashes(stored), slashes(cfg.string()));
  EXPECT_EQ(size, std::strlen(stored) + 1);
  char buf[64];
  EXPECT_EQ(OS_UtilGetProfStr("APP", "COLOR", "none", buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "blue");
  EXPECT_NE(OS_UtilPutInitPath("  "), 0);  // empty: the system profile applies again
  EXPECT_EQ(InitPath(), "/srv/new/");
  fs::remove(home_ / ZBTEST_SYSTEM_PROFILE);
  // A write while the stored folder has lost its profile drops the stored path.
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  fs::remove(cfg / "zb.ini");
  EXPECT_NE(OS_UtilPutProfStr("a", "b", "c"), 0);
  EXPECT_TRUE(fs::exists(hostdir_ / "zb.ini"));
  EXPECT_EQ(InitPath(), S(hostdir_) + "/");
}

// A string read through a profile getter into a buffer of `size`: "length:text".
template <class Get>
std::string Read(Get get, const char* section, const char* key, const char* def, int size = 64) {
  std::vector<char> buf(static_cast<size_t>(size), 'x');
  return std::to_string(get(section, key, def, buf.data(), size)) + ":" + buf.data();
}

// Writes land in the host folder's profile, or for a host known by its bare
// program name (no folder) in the configuration folder, where it is read.
TEST_F(ProfileTest, LocalAndSharedProfileReadsAndWrites) {
  EXPECT_TRUE(OS_UtilGetProfInt("s", "n", 42) == 42 && OS_UtilPutProfStr("Settings", "Count", "17") != 0);
  EXPECT_EQ(lf(slurp(hostdir_ / "zb.ini")), "[Settings]\nCount=17\n");
  EXPECT_EQ(OS_UtilGetProfInt("settings", "count", 0), 17);
  EXPECT_EQ(Read(OS_UtilGetProfStr, "Settings", "missing", "default-text", 8), "7:default");
  setenv("ZBSHR_HOST_PROGRAM", "kw050", 1);
  EXPECT_EQ(Read([](const char*, const char*, const char*, char* b, int n) { return OS_UtilGetProfileFile(b, n, 1); },
                 "", "", ""), "6:kw.ini");
  EXPECT_TRUE(OS_UtilPutProfStr("Run", "Mode", "fast") != 0 && lf(slurp(home_ / "kw.ini")) == "[Run]\nMode=fast\n");
  EXPECT_EQ(Read(OS_UtilGetProfStr, "run", "mode", ""), "4:fast");
  // The shared profile is absent until the host folder's profile names one.
  SetHost("zb050.exe");
  EXPECT_EQ((std::vector<int32_t>{OS_NetworkSharedProfileAccessible(), OS_NetworkGetProfInt("s", "k", -7),
                                  OS_NetworkPutProfStr("s", "k", "v")}), (std::vector<int32_t>{0, -7, 0}));
  EXPECT_EQ(Read(OS_NetworkGetProfStr, "s", "k", "longer-default", 6) + Read(OS_NetworkGetProfStr, "s", "k", nullptr, 6), "5:longe0:");
  fs::path shared = root_ / "net" / "shared.ini";
  spill(shared, "[Team]\nSize=0x10\n");
  spill(hostdir_ / "zb.ini", "[zb]\nsharedIni=" + shared.string() + "\n");
  EXPECT_EQ(OS_NetworkSharedProfileAccessible(), static_cast<int32_t>(shared.string().size()));
  EXPECT_TRUE(OS_NetworkGetProfInt("team", "size", 0) == 16 && OS_NetworkPutProfStr("Team", "Lead", "Ann") != 0);
  EXPECT_EQ(lf(slurp(shared)), "[Team]\nSize=0x10\nLead=Ann\n");
  EXPECT_EQ(Read(OS_NetworkGetProfStr, "Team", "Lead", "", 16), "3:Ann");
}

// Where the registry cannot be written, the start-up path goes to the system profile.
TEST_F(ProfileTest, PutInitPathFallsBackToTheSystemProfile) {
#if defined(_WIN32)
  GTEST_SKIP() << "the registry of the POSIX emulation is a file in the configuration folder";
#endif
  fs::create_directories(home_ / "registry.dat");  // cannot be written
  fs::path cfg = root_ / "cfg";
  spill(cfg / "zb.ini", "");
  EXPECT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  EXPECT_NE(lf(slurp(home_ / ZBTEST_SYSTEM_PROFILE)).find("InitPath050=" + cfg.string()), std::string::npos);
  EXPECT_EQ(InitPath(), S(cfg) + "/");
}

}  // namespace
