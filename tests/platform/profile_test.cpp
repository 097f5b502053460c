// Profiles, registry and clipboard of the platform layer.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "scratch.h"
#include "zbshr/system.h"

using namespace zbshr::plat;
using zbshr_test::Scratch;

namespace {

// Points the configuration folder at a scratch folder for one test.
class HomeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* v = std::getenv("ZBSHR_HOME");
    had_ = v != nullptr;
    saved_ = v ? v : "";
    setenv("ZBSHR_HOME", s_.path("home").c_str(), 1);
  }
  void TearDown() override {
    if (had_) setenv("ZBSHR_HOME", saved_.c_str(), 1);
    else unsetenv("ZBSHR_HOME");
  }
  std::string Get(const char* sec, const char* key, const char* def, const std::string& file,
                  DWORD size = 256, DWORD* count = nullptr) {
    std::vector<char> buf(size + 1, '#');
    DWORD n = GetPrivateProfileStringA(sec, key, def, buf.data(), size, file.c_str());
    if (count) *count = n;
    return std::string(buf.data(), n);
  }
  Scratch s_;
  bool had_ = false;
  std::string saved_;
};

const char kIni[] =
    "; leading comment\r\n"
    "[General]\r\n"
    "  Name =  Alpha Beta  \r\n"
    "quoted=\"  padded  \"\r\n"
    "single='x'\r\n"
    "mismatched=\"x'\r\n"
    ";name=commented out\r\n"
    "empty=\r\n"
    "name=second wins never\r\n"
    "[ Numbers ]\r\n"
    "dec=55zz\r\n"
    "neg=-12\r\n"
    "hex=0x1F\r\n"
    "plus=+7\r\n"
    "none=abc\r\n"
    "big=4294967295\r\n"
    "[general]\r\n"
    "name=other section\r\n"
    "extra=only here\r\n";

TEST_F(HomeTest, ReadingRules) {
  s_.write("a.ini", kIni);
  std::string f = s_.path("a.ini");
  EXPECT_EQ(Get("general", "NAME", "d", f), "Alpha Beta");
  EXPECT_EQ(Get("GENERAL", "quoted", "d", f), "  padded  ");
  EXPECT_EQ(Get("General", "single", "d", f), "x");
  EXPECT_EQ(Get("General", "mismatched", "d", f), "\"x'");
  EXPECT_EQ(Get("General", "empty", "d", f), "");
  // Only the first section of a name is looked at.
  EXPECT_EQ(Get("General", "extra", "dflt  ", f), "dflt");
  EXPECT_EQ(Get("numbers", "hex", "", f), "0x1F");
  EXPECT_EQ(Get("nosuch", "x", nullptr, f), "");
  EXPECT_EQ(Get("General", "x", "def", s_.path("missing.ini")), "def");

  // Truncation: size - 1 characters and the count copied.
  DWORD n = 0;
  EXPECT_EQ(Get("General", "name", "", f, 6, &n), "Alpha");
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(Get("General", "nokey", "default", f, 4, &n), "def");
  char one[1] = {'x'};
  EXPECT_EQ(GetPrivateProfileStringA("General", "name", "", one, 1, f.c_str()), 0u);
  EXPECT_EQ(one[0], '\0');
}

TEST_F(HomeTest, IntegerRules) {
  s_.write("a.ini", kIni);
  std::string f = s_.path("a.ini");
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "dec", 9, f.c_str()), 55u);
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "neg", 9, f.c_str()), static_cast<UINT>(-12));
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "hex", 9, f.c_str()), 31u);
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "plus", 9, f.c_str()), 7u);
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "none", 9, f.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "big", 9, f.c_str()), 4294967295u);
  EXPECT_EQ(GetPrivateProfileIntA("numbers", "missing", -3, f.c_str()), static_cast<UINT>(-3));
  EXPECT_EQ(GetPrivateProfileIntA("general", "empty", 42, f.c_str()), 42u);
}

TEST_F(HomeTest, ListingSectionsAndKeys) {
  ZBTEST_POSIX_ONLY("the POSIX profile reader (Windows lists end differently)");
  s_.write("a.ini", kIni);
  std::string f = s_.path("a.ini");
  DWORD n = 0;
  std::string sections = Get(nullptr, nullptr, "", f, 256, &n);
  EXPECT_EQ(sections, std::string("General\0Numbers\0general\0", 24));
  EXPECT_EQ(n, 24u);
  std::string keys = Get("NUMBERS", nullptr, "", f, 256, &n);
  EXPECT_EQ(keys, std::string("dec\0neg\0hex\0plus\0none\0big\0", 26));
  // The list ends with an extra terminator.
  char buf[64];
  std::memset(buf, '#', sizeof buf);
  n = GetPrivateProfileStringA("numbers", nullptr, "", buf, sizeof buf, f.c_str());
  EXPECT_EQ(buf[n], '\0');
  // A list cut short still ends with two terminators and returns size - 2.
  std::memset(buf, '#', sizeof buf);
  n = GetPrivateProfileStringA("numbers", nullptr, "", buf, 10, f.c_str());
  EXPECT_EQ(n, 8u);
  EXPECT_EQ(std::string(buf, 10), std::string("dec\0neg\0\0\0", 10));
  std::memset(buf, '#', sizeof buf);
  n = GetPrivateProfileStringA(nullptr, nullptr, "", buf, 5, f.c_str());
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(std::string(buf, 5), std::string("Gen\0\0", 5));
  // Keys of a missing section: an empty list.
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(GetPrivateProfileStringA("none", nullptr, "", buf, sizeof buf, f.c_str()), 0u);
  EXPECT_EQ(buf[0], '\0');
}

TEST_F(HomeTest, WritingKeepsEverythingElse) {
  ZBTEST_POSIX_ONLY("the POSIX profile writer (Windows writes CRLF)");
  s_.write("w.ini",
           "; header comment\n"
           "[one]\n"
           "a=1\n"
           "; about b\n"
           "b = 2\n"
           "\n"
           "[two]\n"
           "c=3\n");
  std::string f = s_.path("w.ini");
  EXPECT_TRUE(WritePrivateProfileStringA("ONE", "B", "22", f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("one", "new", "n", f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("three", "d", "4", f.c_str()));
  EXPECT_EQ(s_.read("w.ini"),
            "; header comment\n"
            "[one]\n"
            "a=1\n"
            "; about b\n"
            "b=22\n"
            "new=n\n"
            "\n"
            "[two]\n"
            "c=3\n"
            "[three]\n"
            "d=4\n");
  // A null value deletes the key, a null key the section.
  EXPECT_TRUE(WritePrivateProfileStringA("one", "a", nullptr, f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("TWO", nullptr, nullptr, f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("two", "zz", nullptr, f.c_str()));  // nothing to delete
  EXPECT_EQ(s_.read("w.ini"),
            "; header comment\n"
            "[one]\n"
            "; about b\n"
            "b=22\n"
            "new=n\n"
            "\n"
            "[three]\n"
            "d=4\n");
  EXPECT_EQ(Get("one", "b", "", f), "22");
  EXPECT_FALSE(WritePrivateProfileStringA(nullptr, "k", "v", f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA(nullptr, nullptr, nullptr, f.c_str()));
  // No leftovers of the atomic replace beside the file.
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(s_.dir())) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

TEST_F(HomeTest, WritingCreatesFilesAndKeepsLineEnds) {
  ZBTEST_POSIX_ONLY("the POSIX profile writer (Windows writes CRLF)");
  std::string f = s_.path("new.ini");
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k", "v", f.c_str()));
  EXPECT_EQ(s_.read("new.ini"), "[s]\nk=v\n");
  s_.write("crlf.ini", "[s]\r\nk=v");  // no line end after the last line
  f = s_.path("crlf.ini");
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k2", "w", f.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("t", "x", "y", f.c_str()));
  EXPECT_EQ(s_.read("crlf.ini"), "[s]\r\nk=v\r\nk2=w\r\n[t]\r\nx=y\r\n");
  // Deleting from a missing file creates nothing.
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k", nullptr, s_.path("none.ini").c_str()));
  EXPECT_FALSE(std::filesystem::exists(s_.path("none.ini")));
  // A folder that does not exist cannot take an absolute profile.
  EXPECT_FALSE(WritePrivateProfileStringA("s", "k", "v", s_.path("no/dir/x.ini").c_str()));
}

TEST_F(HomeTest, RelativeNamesAndWinIniLiveInTheConfigurationFolder) {
  ZBTEST_POSIX_ONLY("win.ini in the configuration folder");
  // Reading never creates the folder.
  char buf[32];
  EXPECT_EQ(GetProfileStringA("intl", "sDecimal", ".", buf, sizeof buf), 1u);
  EXPECT_EQ(GetPrivateProfileIntA("x", "y", 5, "app.ini"), 5u);
  HKEY k = nullptr;
  EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &k), ERROR_FILE_NOT_FOUND);
  EXPECT_TRUE(WritePrivateProfileStringA("x", "y", nullptr, "app.ini"));  // deletes nothing
  EXPECT_FALSE(std::filesystem::exists(s_.path("home")));
  EXPECT_EQ(ConfigDir(), s_.path("home"));

  EXPECT_TRUE(WriteProfileStringA("intl", "sDecimal", ",,"));
  EXPECT_EQ(s_.read("home/win.ini"), "[intl]\nsDecimal=,,\n");
  EXPECT_EQ(GetProfileStringA("INTL", "sdecimal", ".", buf, sizeof buf), 2u);
  EXPECT_STREQ(buf, ",,");
  EXPECT_EQ(GetProfileIntA("intl", "iCurrDigits", 2), 2u);
  EXPECT_TRUE(WritePrivateProfileStringA("a", "b", "c", "App.INI"));
  EXPECT_EQ(s_.read("home/App.INI"), "[a]\nb=c\n");
  // Later names in another case reach the same file.
  EXPECT_EQ(GetPrivateProfileIntA("a", "b", 5, "app.ini"), 0u);
  EXPECT_EQ(GetPrivateProfileStringA("a", "b", "", buf, sizeof buf, "APP.ini"), 1u);
}

TEST(ConfigFolder, FallsBackToXdgThenHome) {
  ZBTEST_POSIX_ONLY("the XDG and HOME fallbacks");
  const char* v = std::getenv("ZBSHR_HOME");
  std::string saved = v ? v : "";
  const char* x = std::getenv("XDG_CONFIG_HOME");
  std::string saved_xdg = x ? x : "";
  setenv("ZBSHR_HOME", "/tmp/zb-home///", 1);
  EXPECT_EQ(ConfigDir(), "/tmp/zb-home");
  unsetenv("ZBSHR_HOME");
  setenv("XDG_CONFIG_HOME", "/tmp/xdg", 1);
  EXPECT_EQ(ConfigDir(), "/tmp/xdg/zbshr");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(ConfigDir(), std::string(std::getenv("HOME")) + "/.config/zbshr");
  if (!saved_xdg.empty()) setenv("XDG_CONFIG_HOME", saved_xdg.c_str(), 1);
  if (v) setenv("ZBSHR_HOME", saved.c_str(), 1);
}

TEST_F(HomeTest, RegistryRoundTrip) {
  ZBTEST_POSIX_ONLY("the registry file of the POSIX backend");
  HKEY k = nullptr;
  DWORD disp = 0;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Example\\Tool", 0, nullptr,
                            REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &k, &disp),
            ERROR_SUCCESS);
  EXPECT_EQ(disp, 1u);  // created
  const char path[] = "/opt/tool/";
  ASSERT_EQ(RegSetValueExA(k, "InitPath", 0, REG_SZ, reinterpret_cast<const uint8_t*>(path),
                           sizeof path),
            ERROR_SUCCESS);
  // Without the terminator the string still gets one.
  ASSERT_EQ(RegSetValueExA(k, "Short", 0, REG_SZ, reinterpret_cast<const uint8_t*>("ab"), 2),
            ERROR_SUCCESS);
  const uint8_t bin[] = {0, 1, 0xFF, '"', '\\', '\n'};
  ASSERT_EQ(RegSetValueExA(k, "Blob", 0, REG_BINARY, bin, sizeof bin), ERROR_SUCCESS);
  ASSERT_EQ(RegFlushKey(k), ERROR_SUCCESS);
  EXPECT_EQ(RegCloseKey(k), ERROR_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(s_.path("home/registry.dat")));

  // Reopened with other case and the other separator.
  HKEY r = nullptr;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "software/EXAMPLE/tool", 0, KEY_READ, &r),
            ERROR_SUCCESS);
  DWORD type = 0, size = 0;
  ASSERT_EQ(RegQueryValueExA(r, "initpath", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(size, sizeof path);  // terminator included
  uint8_t buf[64];
  size = 3;
  EXPECT_EQ(RegQueryValueExA(r, "InitPath", nullptr, &type, buf, &size), ERROR_MORE_DATA);
  EXPECT_EQ(size, sizeof path);
  size = sizeof buf;
  ASSERT_EQ(RegQueryValueExA(r, "InitPath", nullptr, &type, buf, &size), ERROR_SUCCESS);
  EXPECT_STREQ(reinterpret_cast<char*>(buf), path);
  size = sizeof buf;
  ASSERT_EQ(RegQueryValueExA(r, "Short", nullptr, &type, buf, &size), ERROR_SUCCESS);
  EXPECT_EQ(size, 3u);
  size = sizeof buf;
  ASSERT_EQ(RegQueryValueExA(r, "blob", nullptr, &type, buf, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_BINARY);
  ASSERT_EQ(size, sizeof bin);
  EXPECT_EQ(std::memcmp(buf, bin, sizeof bin), 0);
  EXPECT_EQ(RegQueryValueExA(r, "absent", nullptr, &type, buf, &size), ERROR_FILE_NOT_FOUND);
  // A key opened for reading refuses writes.
  EXPECT_EQ(RegSetValueExA(r, "x", 0, REG_SZ, buf, 1), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegCloseKey(r), ERROR_SUCCESS);
  EXPECT_EQ(RegCloseKey(r), ERROR_INVALID_HANDLE);

  // Parents exist implicitly; missing keys do not.
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &r), ERROR_SUCCESS);
  RegCloseKey(r);
  EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Other", 0, KEY_READ, &r),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Example", 0, KEY_READ, &r),
            ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "SOFTWARE\\example\\TOOL", 0, nullptr, 0,
                            KEY_WRITE, nullptr, &k, &disp),
            ERROR_SUCCESS);
  EXPECT_EQ(disp, 2u);  // opened existing
  EXPECT_EQ(RegDeleteValueA(k, "SHORT"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(k, "Short"), ERROR_FILE_NOT_FOUND);
  RegCloseKey(k);
  int bogus = 0;
  EXPECT_EQ(RegQueryValueExA(&bogus, "x", nullptr, nullptr, nullptr, nullptr),
            ERROR_INVALID_HANDLE);

  // The file alone carries the data: a hand-edited file is read back.
  std::string text = s_.read("home/registry.dat");
  EXPECT_NE(text.find("[HKEY_CURRENT_USER\\Software\\Example\\Tool]"), std::string::npos) << text;
  EXPECT_NE(text.find("\"InitPath\"=1:\"/opt/tool/\\x00\""), std::string::npos) << text;
  EXPECT_EQ(text.find("Short"), std::string::npos);
  s_.write("home/registry.dat",
           "[HKEY_LOCAL_MACHINE\\Software\\Hand]\ngarbage line\n\"\"=4:\"\\x2a\\x00\\x00\\x00\"\n");
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "software\\hand", 0, KEY_READ, &r), ERROR_SUCCESS);
  size = sizeof buf;
  ASSERT_EQ(RegQueryValueExA(r, nullptr, nullptr, &type, buf, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(buf[0], 42);
  RegCloseKey(r);
}

TEST(Clipboard, KeepsTheTextAndPipesItToACommand) {
  ZBTEST_POSIX_ONLY("ZBSHR_CLIPBOARD_CMD is a POSIX knob");
  Scratch s;
  std::string out = s.path("clip.txt");
  std::string cmd = "cat > '" + out + "'";
  setenv("ZBSHR_CLIPBOARD_CMD", cmd.c_str(), 1);
  EXPECT_FALSE(EmptyClipboard());  // not open
  ASSERT_TRUE(OpenClipboard(nullptr));
  EXPECT_FALSE(OpenClipboard(nullptr));
  EXPECT_TRUE(EmptyClipboard());
  const char text[] = "a\tb\r\n1\t2\r\n";
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE | GMEM_DDESHARE, sizeof text);
  std::memcpy(GlobalLock(h), text, sizeof text);
  GlobalUnlock(h);
  EXPECT_EQ(SetClipboardData(CF_TEXT, h), h);
  EXPECT_TRUE(CloseClipboard());
  EXPECT_FALSE(CloseClipboard());
  unsetenv("ZBSHR_CLIPBOARD_CMD");
  EXPECT_EQ(s.read("clip.txt"), text);
  char buf[64];
  EXPECT_EQ(zbshr_clipboard_text(buf, sizeof buf), static_cast<int32_t>(sizeof text - 1));
  EXPECT_STREQ(buf, text);
  EXPECT_EQ(zbshr_clipboard_text(buf, 4), static_cast<int32_t>(sizeof text - 1));
  EXPECT_STREQ(buf, "a\tb");
  EXPECT_EQ(zbshr_clipboard_text(nullptr, 0), static_cast<int32_t>(sizeof text - 1));

  // A command that reads nothing must not kill the process.
  std::string big(1 << 20, 'x');
  setenv("ZBSHR_CLIPBOARD_CMD", "exit 0", 1);
  ASSERT_TRUE(OpenClipboard(nullptr));
  EmptyClipboard();
  h = GlobalAlloc(GMEM_MOVEABLE, big.size() + 1);
  std::memcpy(GlobalLock(h), big.c_str(), big.size() + 1);
  EXPECT_NE(SetClipboardData(CF_TEXT, h), nullptr);
  EXPECT_TRUE(CloseClipboard());
  unsetenv("ZBSHR_CLIPBOARD_CMD");
  EXPECT_EQ(zbshr_clipboard_text(nullptr, 0), static_cast<int32_t>(big.size()));
  ASSERT_TRUE(OpenClipboard(nullptr));
  EmptyClipboard();
  CloseClipboard();
  EXPECT_EQ(zbshr_clipboard_text(buf, sizeof buf), 0);
}

}  // namespace

namespace {

// Two processes writing at once must not lose each other's changes.
template <typename WriteFn>
void WriteFromTwoProcesses(WriteFn write_one) {
#if defined(_WIN32)
  GTEST_SKIP() << "tests the POSIX emulation: it forks a second process";
#else
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  const bool child = pid == 0;
  bool ok = true;
  for (int i = 0; i < 40; ++i) ok = write_one(child ? 1 : 0, i) && ok;
  if (child) _exit(ok ? 0 : 1);
  EXPECT_TRUE(ok);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#endif
}

TEST_F(HomeTest, ConcurrentProfileWritesLoseNothing) {
  WriteFromTwoProcesses([](int who, int i) {
    std::string key = "k" + std::to_string(who) + "_" + std::to_string(i);
    return WritePrivateProfileStringA("s", key.c_str(), "v", "shared.ini") != 0;
  });
  if (IsSkipped()) return;
  char buf[4096];
  DWORD n = GetPrivateProfileStringA("s", nullptr, "", buf, sizeof buf, "shared.ini");
  int keys = 0;
  for (DWORD i = 0; i < n; ++i) keys += buf[i] == '\0';
  EXPECT_EQ(keys, 80);
}

TEST_F(HomeTest, ConcurrentRegistryWritesLoseNothing) {
  WriteFromTwoProcesses([](int who, int i) {
    HKEY k = nullptr;
    if (RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Race", 0, nullptr, 0, KEY_ALL_ACCESS,
                        nullptr, &k, nullptr) != ERROR_SUCCESS)
      return false;
    std::string name = "v" + std::to_string(who) + "_" + std::to_string(i);
    uint32_t data = static_cast<uint32_t>(who * 1000 + i);
    uint8_t bytes[4] = {static_cast<uint8_t>(data), static_cast<uint8_t>(data >> 8), 0, 0};
    bool ok = RegSetValueExA(k, name.c_str(), 0, REG_DWORD, bytes, 4) == ERROR_SUCCESS;
    return RegCloseKey(k) == ERROR_SUCCESS && ok;
  });
  if (IsSkipped()) return;
  HKEY k = nullptr;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "software\\race", 0, KEY_READ, &k), ERROR_SUCCESS);
  for (int who = 0; who < 2; ++who)
    for (int i = 0; i < 40; ++i) {
      std::string name = "v" + std::to_string(who) + "_" + std::to_string(i);
      uint8_t buf[4] = {};
      DWORD size = sizeof buf, type = 0;
      ASSERT_EQ(RegQueryValueExA(k, name.c_str(), nullptr, &type, buf, &size), ERROR_SUCCESS) << name;
      EXPECT_EQ(buf[0] | (buf[1] << 8), who * 1000 + i);
    }
  RegCloseKey(k);
}

}  // namespace

namespace {

// Random bytes in place of a profile or registry file: every read must stay
// inside its buffer and keep the documented shape of its result.
TEST_F(HomeTest, GarbageFilesAreReadSafely) {
  ZBTEST_POSIX_ONLY("the POSIX profile reader (Windows lists end differently)");
  std::mt19937 rng(12345);
  const char alphabet[] = "[]=;\"'\\ \t\r\nabcAB01x:\x00\x01\xff";
  for (int round = 0; round < 300; ++round) {
    std::string content;
    int len = static_cast<int>(rng() % 400);
    for (int i = 0; i < len; ++i) content += alphabet[rng() % (sizeof alphabet - 1)];
    s_.write("g.ini", content);
    std::filesystem::create_directories(s_.path("home"));
    s_.write("home/registry.dat", content);
    std::string f = s_.path("g.ini");
    for (DWORD size : {1u, 2u, 3u, 7u, 64u}) {
      std::vector<char> buf(size + 8, '#');
      DWORD n = GetPrivateProfileStringA(nullptr, nullptr, "", buf.data(), size, f.c_str());
      ASSERT_LE(n, size - (size >= 2 ? 1 : 0));
      if (size >= 2) {
        ASSERT_EQ(buf[n], '\0');
        // The list ends with two terminators: the name's and the list's.
        bool cut = n == size - 2 && buf[n + 1] == '\0';
        ASSERT_TRUE(n == 0 || buf[n - 1] == '\0' || cut) << n << " of " << size;
      }
      for (int i = 0; i < 8; ++i) ASSERT_EQ(buf[size + i], '#');  // nothing past the buffer
      n = GetPrivateProfileStringA("a", nullptr, "", buf.data(), size, f.c_str());
      ASSERT_LT(n, size);
      n = GetPrivateProfileStringA("a", "b", "dd", buf.data(), size, f.c_str());
      ASSERT_LT(n, size);
      ASSERT_EQ(buf[n], '\0');
      for (int i = 0; i < 8; ++i) ASSERT_EQ(buf[size + i], '#');
    }
    GetPrivateProfileIntA("A", "x", 3, f.c_str());
    HKEY k = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, "a", 0, KEY_READ, &k) == ERROR_SUCCESS) {
      uint8_t data[16];
      DWORD size = sizeof data;
      RegQueryValueExA(k, "", nullptr, nullptr, data, &size);
      ASSERT_LE(size, 1u << 20);
      RegCloseKey(k);
    }
  }
  // Still writable afterwards: the garbage is kept around the new entry.
  EXPECT_TRUE(WritePrivateProfileStringA("new", "k", "v", s_.path("g.ini").c_str()));
  char buf[8];
  EXPECT_EQ(GetPrivateProfileStringA("new", "k", "", buf, sizeof buf, s_.path("g.ini").c_str()), 1u);
}

}  // namespace
