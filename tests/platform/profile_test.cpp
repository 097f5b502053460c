// Profiles, registry and clipboard of the platform layer.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#ifndef _WIN32
#include <pwd.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "platform/platform.h"
#include "scratch.h"
#include "zbshr/system.h"

using namespace zbshr::plat;
using zbshr_test::Scratch;
using zbshr_test::WithError;

namespace {

// Points the configuration folder at a scratch folder for one test.
class HomeTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ZBSHR_HOME", s_.path("home").c_str(), 1); }
  void TearDown() override { had_ ? setenv("ZBSHR_HOME", saved_.c_str(), 1) : unsetenv("ZBSHR_HOME"); }
  // The buffer as far as the count returned, plus one byte.
  std::string Get(const char* sec, const char* key, const char* def, const std::string& file, DWORD size = 256) {
    std::vector<char> buf(size + 1, '#');
    DWORD n = GetPrivateProfileStringA(sec, key, def, buf.data(), size, file.c_str());
    return std::string(buf.data(), n + 1);
  }
  Scratch s_;
  const bool had_ = std::getenv("ZBSHR_HOME") != nullptr;
  const std::string saved_ = had_ ? std::getenv("ZBSHR_HOME") : "";
};

const char kIni[] =
    "; leading comment\r\n[General]\r\n  Name =  Alpha Beta  \r\nquoted=\"  padded  \"\r\nsingle='x'\r\n"
    "mismatched=\"x'\r\n;name=commented out\r\nempty=\r\nname=second wins never\r\n[Empty]\r\n[ Numbers ]\r\n"
    "dec=55zz\r\nneg=-12\r\nhex=0x1F\r\nplus=+7\r\nnone=abc\r\nbig=4294967295\r\n"
    "[general]\r\nname=other section\r\nextra=only here\r\n";

TEST_F(HomeTest, ReadingRules) {
  s_.write("a.ini", kIni);
  const std::string f = s_.path("a.ini");
  using namespace std::string_literals;
  const struct { const char *sec, *key, *def; DWORD size; std::string want; } cases[] = {  // want: the count's bytes and the terminator
      {"general", "NAME", "d", 256, "Alpha Beta\0"s}, {"GENERAL", "quoted", "d", 256, "  padded  \0"s},
      {"General", "single", "d", 256, "x\0"s}, {"General", "mismatched", "d", 256, "\"x'\0"s},
      {"General", "empty", "d", 256, "\0"s},
      {"General", "extra", "dflt  ", 256, "dflt\0"s},  // only the first section of a name counts
      {"numbers", "hex", "", 256, "0x1F\0"s}, {"nosuch", "x", nullptr, 256, "\0"s},
      {"General", "name", "", 6, "Alpha\0"s},  // cut to size - 1
      {"General", "nokey", "default", 4, "def\0"s}, {"General", "name", "", 1, "\0"s},
      {nullptr, nullptr, "", 256, "General\0Empty\0Numbers\0general\0\0"s},  // ends with an extra terminator
      {"empty", nullptr, "", 256, "\0"s},  // a section ends at the header right after its own
      {"NUMBERS", nullptr, "", 256, "dec\0neg\0hex\0plus\0none\0big\0\0"s},
      {"numbers", nullptr, "", 10, "dec\0neg\0\0"s},  // cut short: two terminators, size - 2
      {nullptr, nullptr, "", 5, "Gen\0"s}, {nullptr, nullptr, "", 2, "\0"s}, {"none", nullptr, "", 256, "\0"s},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Get(c.sec, c.key, c.def, f, c.size), c.want) << (c.sec ? c.sec : "-") << "/" << (c.key ? c.key : "-") << "/" << c.size;
  EXPECT_EQ(Get("General", "x", "def", s_.path("missing.ini")), std::string("def", 4));
  char none = '#';  // no room at all: nothing written, nothing counted
  EXPECT_TRUE(GetPrivateProfileStringA("General", "name", "d", &none, 0, f.c_str()) == 0 && none == '#');
  std::string back = f;  // a whole path spelled with backslashes, outside the configuration folder
  std::replace(back.begin(), back.end(), '/', '\\');
  EXPECT_EQ(Get("numbers", "hex", "", back), "0x1F\0"s);
  const struct { const char* key; int32_t def; UINT want; } ints[] = {{"dec", 9, 55}, {"neg", 9, static_cast<UINT>(-12)}, {"hex", 9, 31}, {"plus", 9, 7},
              {"none", 9, 0}, {"big", 9, 4294967295u}, {"missing", -3, static_cast<UINT>(-3)}};
  for (const auto& c : ints) EXPECT_EQ(GetPrivateProfileIntA("numbers", c.key, c.def, f.c_str()), c.want) << c.key;
  EXPECT_EQ(GetPrivateProfileIntA("general", "empty", 42, f.c_str()), 42u);
}

TEST_F(HomeTest, WritingKeepsEverythingElse) {
  ZBTEST_POSIX_ONLY("the POSIX profile writer (Windows writes CRLF)");
  s_.write("w.ini", "; header comment\n[one]\na=1\n; about b\nb = 2\n\n[two]\nc=3\n");
  const std::string f = s_.path("w.ini");
  std::filesystem::permissions(f, std::filesystem::perms(0640));  // kept through the replace
  EXPECT_TRUE(WritePrivateProfileStringA("ONE", "B", "22", f.c_str()) && std::filesystem::status(f).permissions() == std::filesystem::perms(0640) &&
              WritePrivateProfileStringA("one", "new", "n", f.c_str()) && WritePrivateProfileStringA("three", "d", "4", f.c_str()));
  EXPECT_EQ(s_.read("w.ini"), "; header comment\n[one]\na=1\n; about b\nb=22\nnew=n\n\n[two]\nc=3\n[three]\nd=4\n");
  // A null value deletes the key, a null key the section.
  EXPECT_TRUE(WritePrivateProfileStringA("one", "a", nullptr, f.c_str()) && WritePrivateProfileStringA("TWO", nullptr, nullptr, f.c_str()) &&
              WritePrivateProfileStringA("two", "zz", nullptr, f.c_str()));  // the last: nothing to delete
  EXPECT_EQ(s_.read("w.ini"), "; header comment\n[one]\n; about b\nb=22\nnew=n\n\n[three]\nd=4\n");
  EXPECT_TRUE(!WritePrivateProfileStringA(nullptr, "k", "v", f.c_str()) && WritePrivateProfileStringA(nullptr, nullptr, nullptr, f.c_str()));
  // A new file; CRLF files keep CRLF, also after a last line without one.
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k", "v", s_.path("new.ini").c_str()) && s_.read("new.ini") == "[s]\nk=v\n");
  s_.write("crlf.ini", "[s]\r\nk=v");
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k2", "w", s_.path("crlf.ini").c_str()) &&
              WritePrivateProfileStringA("t", "x", "y", s_.path("crlf.ini").c_str()));
  EXPECT_EQ(s_.read("crlf.ini"), "[s]\r\nk=v\r\nk2=w\r\n[t]\r\nx=y\r\n");
  s_.write("one.ini", "\n[s]\nk=v\n");  // what is left is a single byte
  EXPECT_TRUE(WritePrivateProfileStringA("s", nullptr, nullptr, s_.path("one.ini").c_str()) && s_.read("one.ini") == "\n");
  // Deleting from a missing file creates nothing; a missing folder fails.
  EXPECT_TRUE(WritePrivateProfileStringA("s", "k", nullptr, s_.path("none.ini").c_str()) &&
              !WritePrivateProfileStringA("s", "k", "v", s_.path("no/dir/x.ini").c_str()));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(s_.dir()), {}), 4);  // no leftovers of the atomic replace
}

TEST(ConfigFolder, FallsBackToXdgThenHome) {
  ZBTEST_POSIX_ONLY("the XDG and HOME fallbacks are POSIX's");
  const char *v = std::getenv("ZBSHR_HOME"), *x = std::getenv("XDG_CONFIG_HOME");
  const std::string saved = v ? v : "", saved_xdg = x ? x : "";
  const struct { const char *home, *xdg; std::string want; } rows[] = {
      {"/tmp/zb-home///", "/tmp/xdg", "/tmp/zb-home"}, {"/", nullptr, "/"}, {nullptr, "/tmp/xdg", "/tmp/xdg/zbshr"},
      {nullptr, nullptr, std::string(std::getenv("HOME")) + "/.config/zbshr"}};
  for (const auto& r : rows) {
    r.home ? setenv("ZBSHR_HOME", r.home, 1) : unsetenv("ZBSHR_HOME");
    r.xdg ? setenv("XDG_CONFIG_HOME", r.xdg, 1) : unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(config_dir(), r.want);
  }
#ifndef _WIN32
  const std::string user_home = std::getenv("HOME");
  setenv("HOME", "", 1);  // no HOME: the account's home folder
  EXPECT_EQ(config_dir(), std::string(getpwuid(getuid())->pw_dir) + "/.config/zbshr");
  setenv("HOME", user_home.c_str(), 1);
#endif
  if (x) setenv("XDG_CONFIG_HOME", saved_xdg.c_str(), 1);
  if (v) setenv("ZBSHR_HOME", saved.c_str(), 1);
}

TEST_F(HomeTest, RegistryRoundTrip) {
  ZBTEST_POSIX_ONLY("the registry file of the POSIX backend");
  HKEY k = nullptr;
  DWORD disp = 0;
  ASSERT_TRUE(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Example\\Tool", 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                              nullptr, &k, &disp) == ERROR_SUCCESS && disp == 1);  // created
  const char path[] = "/opt/my tool/";
  const uint8_t bin[] = {0, 1, 0xFF, '"', '\\', '\n'};
  ASSERT_EQ(std::vector<LONG>({RegSetValueExA(k, "InitPath", 0, REG_SZ, reinterpret_cast<const uint8_t*>(path), sizeof path),
                                RegSetValueExA(k, "Short", 0, REG_SZ, reinterpret_cast<const uint8_t*>("ab"), 2),
                                RegSetValueExA(k, ";Blob", 0, REG_BINARY, bin, sizeof bin), RegSetValueExA(k, "none", 0, REG_BINARY, nullptr, 0),
                                RegFlushKey(k), RegCloseKey(k)}),
            std::vector<LONG>(6, ERROR_SUCCESS));
  // Reopened with other case and the other separator.
  HKEY r = nullptr;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "software/EXAMPLE/tool", 0, KEY_READ, &r), ERROR_SUCCESS);
  // size: of the buffer; data: with the size returned
  const struct { const char* name; DWORD size; LONG result; DWORD type; std::string data; } reads[] = {
      {"initpath", 64, ERROR_SUCCESS, REG_SZ, std::string(path, sizeof path)},
      {"InitPath", 3, ERROR_MORE_DATA, REG_SZ, std::string(sizeof path, '?')},
      {"Short", 64, ERROR_SUCCESS, REG_SZ, std::string("ab", 3)},  // terminated though given without
      {";blob", 64, ERROR_SUCCESS, REG_BINARY, std::string(reinterpret_cast<const char*>(bin), sizeof bin)},  // not a comment
      {"absent", 64, ERROR_FILE_NOT_FOUND, 0, std::string(64, '?')},  // type and size untouched
  };
  for (const auto& c : reads) {
    uint8_t buf[64];
    DWORD type = 0, size = c.size;
    const LONG got = RegQueryValueExA(r, c.name, nullptr, &type, buf, &size);
    EXPECT_TRUE(got == c.result && type == c.type && size == c.data.size() &&
                (got != ERROR_SUCCESS || std::string(reinterpret_cast<char*>(buf), size) == c.data)) << c.name;
  }
  DWORD size = 0;  // no buffer: the size alone
  EXPECT_EQ(std::vector<LONG>({RegQueryValueExA(r, "InitPath", nullptr, nullptr, nullptr, &size), static_cast<LONG>(size),
                               RegSetValueExA(r, "x", 0, REG_SZ, bin, 1), RegCloseKey(r), RegCloseKey(r)}),  // opened for reading
            std::vector<LONG>({ERROR_SUCCESS, sizeof path, ERROR_ACCESS_DENIED, ERROR_SUCCESS, ERROR_INVALID_HANDLE}));
  // Parents exist implicitly; missing keys do not.
  EXPECT_EQ(std::vector<LONG>({RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &r), RegCloseKey(r),
                               RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\Other", 0, KEY_READ, &r),
                               RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Example", 0, KEY_READ, &r)}),
            std::vector<LONG>({ERROR_SUCCESS, ERROR_SUCCESS, ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND}));
  const uint8_t one = 1;  // a value set on a parent that so far existed only implicitly
  EXPECT_EQ(std::vector<LONG>({RegOpenKeyExA(HKEY_CURRENT_USER, "Software", 0, KEY_ALL_ACCESS, &r), RegSetValueExA(r, "p", 0, REG_BINARY, &one, 1),
                               RegQueryValueExA(r, "p", nullptr, nullptr, nullptr, &size), static_cast<LONG>(size), RegCloseKey(r)}),
            std::vector<LONG>({ERROR_SUCCESS, ERROR_SUCCESS, ERROR_SUCCESS, 1, ERROR_SUCCESS}));
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "SOFTWARE\\example\\TOOL", 0, nullptr, 0, KEY_WRITE, nullptr, &k, &disp),
            ERROR_SUCCESS);
  EXPECT_EQ(std::vector<LONG>({static_cast<LONG>(disp), RegDeleteValueA(k, "SHORT"), RegDeleteValueA(k, "Short")}),
            std::vector<LONG>({2, ERROR_SUCCESS, ERROR_FILE_NOT_FOUND}));  // opened existing
  RegCloseKey(k);
  for (const char* bad : {"Soft]ware", "Soft\nware", "Soft\rware"})  // would break the file's lines
    EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, bad, 0, nullptr, 0, KEY_WRITE, nullptr, &k, &disp), ERROR_INVALID_PARAMETER);
  int bogus = 0;
  EXPECT_EQ(RegQueryValueExA(&bogus, "x", nullptr, nullptr, nullptr, nullptr), ERROR_INVALID_HANDLE);
  // The file alone carries the data: a hand-edited file is read back.
  const std::string text = s_.read("home/registry.dat");
  EXPECT_TRUE(text.find("[HKEY_CURRENT_USER\\Software\\Example\\Tool]") != std::string::npos &&
              text.find("\"InitPath\"=1:\"/opt/my tool/\\x00\"") != std::string::npos) << text;
  s_.write("home/registry.dat",
           "[HKEY_LOCAL_MACHINE\\Software\\Hand]\ngarbage line\n\"a\"=:\"x\"\n\"b\"=4\n\"c\"=3:\"\\x4g\"\n\"\"=4:\"\\x2a\\x00\\x00\\x00\"\n"
           "[X]\n\"late\"=4:\"\\x01\\x00\\x00\\x00\"\n");  // a key of one letter holds what follows
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "software\\hand", 0, KEY_READ, &r), ERROR_SUCCESS);
  uint8_t buf[8];
  DWORD type = 0;
  size = sizeof buf;
  EXPECT_EQ(std::make_tuple(RegQueryValueExA(r, nullptr, nullptr, &type, buf, &size), type, size, buf[0]),
            std::make_tuple(LONG{ERROR_SUCCESS}, REG_DWORD, 4u, uint8_t{42}));
  for (const char* skipped : {"late", "c"})  // "c": a bad escape
    EXPECT_EQ(RegQueryValueExA(r, skipped, nullptr, nullptr, nullptr, nullptr), ERROR_FILE_NOT_FOUND) << skipped;
  RegCloseKey(r);
}

// The text reaching the command is the export tests'; here the open/close rules and a
// command that reads nothing, which must not kill the process.
TEST(Clipboard, OpenCloseRulesAndACommandThatReadsNothing) {
  ZBTEST_POSIX_ONLY("ZBSHR_CLIPBOARD_CMD is a POSIX knob");
  const std::string big(1 << 20, 'x');
  setenv("ZBSHR_CLIPBOARD_CMD", "exit 0", 1);
  EXPECT_TRUE(WithError(SetClipboardData(CF_TEXT, nullptr)) == std::make_pair(HGLOBAL{}, ERROR_ACCESS_DENIED));  // closed
  EXPECT_EQ(std::vector<BOOL>({EmptyClipboard(), OpenClipboard(nullptr), OpenClipboard(nullptr), EmptyClipboard()}),
            std::vector<BOOL>({0, 1, 0, 1}));  // emptying needs it open
  EXPECT_TRUE(WithError(SetClipboardData(CF_TEXT, nullptr)) == std::make_pair(HGLOBAL{}, ERROR_INVALID_PARAMETER));
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE | GMEM_DDESHARE, big.size() + 1);
  std::memcpy(GlobalLock(h), big.c_str(), big.size() + 1);
  GlobalUnlock(h);
  EXPECT_EQ(std::vector<intptr_t>({SetClipboardData(CF_TEXT, h) == h, CloseClipboard(), CloseClipboard()}), std::vector<intptr_t>({1, 1, 0}));
  unsetenv("ZBSHR_CLIPBOARD_CMD");
  char cut[8];
  EXPECT_TRUE(zbshr_clipboard_text(nullptr, 0) == static_cast<int32_t>(big.size()) && zbshr_clipboard_text(cut, sizeof cut) == static_cast<int32_t>(big.size()) && cut == big.substr(0, 7));
  EXPECT_TRUE(OpenClipboard(nullptr) && EmptyClipboard() && CloseClipboard());
  char buf[64] = "zz";
  EXPECT_TRUE(zbshr_clipboard_text(buf, sizeof buf) == 0 && !*buf);
}

// Two processes writing registry values and profile keys at once lose none of each other's changes.
TEST_F(HomeTest, ConcurrentWritesLoseNothing) {
  ZBTEST_POSIX_ONLY("it forks a second process");
#if !defined(_WIN32)
  auto name = [](int who, int i) { return "v" + std::to_string(who) + "_" + std::to_string(i); };
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  bool ok = true;
  for (int i = 0, who = pid == 0; i < 40; ++i) {
    HKEY k = nullptr;
    const uint8_t bytes[4] = {static_cast<uint8_t>(who * 100 + i), 0, 0, 0};
    ok &= RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Race", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr) == ERROR_SUCCESS &&
          RegSetValueExA(k, name(who, i).c_str(), 0, REG_DWORD, bytes, 4) == ERROR_SUCCESS && RegCloseKey(k) == ERROR_SUCCESS &&
          WritePrivateProfileStringA("s", name(who, i).c_str(), "v", "shared.ini");
  }
  if (pid == 0) _exit(ok ? 0 : 1);
  int status = 0;
  ASSERT_TRUE(ok && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  char buf[4096];
  const DWORD n = GetPrivateProfileStringA("s", nullptr, "", buf, sizeof buf, "shared.ini");
  EXPECT_EQ(std::count(buf, buf + n, '\0'), 80);
  HKEY k = nullptr;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "software\\race", 0, KEY_READ, &k), ERROR_SUCCESS);
  for (int i = 0; i < 80; ++i) {
    uint8_t data[4] = {};
    DWORD size = sizeof data;
    EXPECT_TRUE(RegQueryValueExA(k, name(i / 40, i % 40).c_str(), nullptr, nullptr, data, &size) == ERROR_SUCCESS &&
                data[0] == i / 40 * 100 + i % 40) << i;
  }
  RegCloseKey(k);
#endif
}

// Random bytes as profile or registry file: every read stays in its buffer and keeps its documented shape.
TEST_F(HomeTest, GarbageFilesAreReadSafely) {
  ZBTEST_POSIX_ONLY("the POSIX profile reader (Windows lists end differently)");
  std::mt19937 rng(12345);
  const char alphabet[] = "[]=;\"'\\ \t\r\nabcAB01x:\x00\x01\xff";
  const std::string f = s_.path("g.ini");
  for (int round = 0; round < 300; ++round) {
    std::string content;
    for (int i = 0, len = static_cast<int>(rng() % 400); i < len; ++i) content += alphabet[rng() % (sizeof alphabet - 1)];
    s_.write("g.ini", content);
    std::filesystem::create_directories(s_.path("home"));
    s_.write("home/registry.dat", content);
    for (DWORD size : {1u, 2u, 3u, 7u, 64u}) {
      std::vector<char> buf(size + 8, '#');
      DWORD n = GetPrivateProfileStringA(nullptr, nullptr, "", buf.data(), size, f.c_str());
      ASSERT_LE(n, size - (size >= 2 ? 1 : 0));
      // The list ends with two terminators: the name's and the list's.
      ASSERT_TRUE(size < 2 || (buf[n] == '\0' && (n == 0 || buf[n - 1] == '\0' || (n == size - 2 && buf[n + 1] == '\0'))))
          << n << " of " << size;
      for (const char* key : {static_cast<const char*>(nullptr), "b"}) {
        n = GetPrivateProfileStringA("a", key, "dd", buf.data(), size, f.c_str());
        ASSERT_TRUE(n < size && buf[n] == '\0');
      }
      ASSERT_EQ(std::string(buf.end() - 8, buf.end()), "########");  // nothing past the buffer
    }
    HKEY k = nullptr;
    uint8_t data[16];
    DWORD size = sizeof data;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, "a", 0, KEY_READ, &k) == ERROR_SUCCESS) RegQueryValueExA(k, "", nullptr, nullptr, data, &size), RegCloseKey(k);
    ASSERT_LE(size, 1u << 20);
  }
  EXPECT_TRUE(WritePrivateProfileStringA("new", "k", "v", f.c_str()));  // still writable
  EXPECT_EQ(Get("new", "k", "", f), std::string("v", 2));
}

}  // namespace
