// Global memory, message boxes, resources, code pages, collation and fault
// injection of the platform layer.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "scratch.h"
#include "zbshr/system.h"

using namespace zbshr::plat;
using Strings = std::vector<std::string>;

namespace {

TEST(GlobalMemory, SizesContentsLocksAndStaleHandles) {
  auto bytes = [](HGLOBAL h) { return std::string(static_cast<char*>(GlobalLock(h)), GlobalSize(h)); };
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, 1000);
  EXPECT_EQ(bytes(h), std::string(1000, '\0'));
  std::memset(GlobalLock(h), 0xAB, 1000);
  // Growing with zero-fill keeps the old bytes and clears the new ones; a
  // change of flags only keeps size and bytes.
  HGLOBAL h2 = GlobalReAlloc(h, 5000, GMEM_MOVEABLE | GMEM_ZEROINIT);
  EXPECT_EQ(bytes(h2), std::string(1000, '\xAB') + std::string(4000, '\0'));
  EXPECT_TRUE(GlobalReAlloc(h2, 0, GMEM_MODIFY | GMEM_MOVEABLE) == h2 && bytes(h2) == std::string(1000, '\xAB') + std::string(4000, '\0'));
  h2 = GlobalReAlloc(h2, 10, GMEM_MOVEABLE);
  EXPECT_TRUE(h2 && GlobalSize(h2) == 10 && !GlobalFree(h2));
  // The lock count decides what unlocking answers.
  h = GlobalAlloc(GMEM_MOVEABLE, 16);
  GlobalLock(h), GlobalLock(h);
  EXPECT_EQ(std::vector<int>({GlobalUnlock(h), GlobalUnlock(h), static_cast<int>(GetLastError())}), std::vector<int>({1, 0, 0}));
  GlobalFree(h);
  int not_a_handle = 0;
  EXPECT_TRUE(!GlobalReAlloc(&not_a_handle, 10, 0) && !GlobalFree(nullptr));
}

TEST(GlobalMemory, ZeroSizeAndFreedHandles) {
  ZBTEST_POSIX_ONLY("a 0-byte moveable block locks to null on Windows");
  HGLOBAL h = GlobalAlloc(GMEM_DDESHARE | GMEM_MOVEABLE, 0);
  EXPECT_TRUE(h && GlobalSize(h) == 0 && GlobalLock(h) && !GlobalFree(h));
  EXPECT_EQ(zbshr_test::WithError(GlobalLock(h)), std::make_pair(static_cast<void*>(nullptr), ERROR_INVALID_HANDLE));  // refused, not followed
  EXPECT_TRUE(GlobalSize(h) == 0 && GlobalFree(h) == h);
  h = GlobalAlloc(GMEM_MOVEABLE, 8);  // shrunk to nothing, the block lives on
  EXPECT_TRUE(GlobalReAlloc(h, 0, GMEM_MOVEABLE) == h && GlobalSize(h) == 0 && GlobalLock(h) && !GlobalFree(h));
}

TEST(FaultInjection, CountsCallsAndFailsARun) {
  inject_fault(Fault::GlobalAlloc, 2, 2);
  HGLOBAL a = GlobalAlloc(0, 8);        // 1st: fine
  HGLOBAL b = GlobalAlloc(0, 8);        // 2nd: fails
  HGLOBAL c = GlobalReAlloc(a, 16, 0);  // 3rd (reallocation counts): fails
  EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
  HGLOBAL d = GlobalAlloc(0, 8);        // 4th: fine again
  EXPECT_TRUE(a && !b && !c && d && GlobalSize(a) == 8);  // the failed reallocation left the block alone
  GlobalFree(d);
  inject_fault(Fault::GlobalLock, 1, 5);  // lock failures are the heap tests'
  inject_fault(Fault::GlobalLock, 1, 0);  // disarmed, as by a call number of 0
  inject_fault(Fault::GlobalAlloc, 0, 1);
  HGLOBAL z = GlobalAlloc(0, 1);
  EXPECT_TRUE(GlobalLock(a) && z && !GlobalFree(z));
  GlobalFree(a);
  EXPECT_TRUE(zbshr_inject_fault(0, 1, 1) == 1 && !GlobalAlloc(0, 1));  // the exported knob drives the same machinery
  EXPECT_EQ(zbshr_inject_fault(99, 1, 1) + zbshr_inject_fault(-1, 1, 1), 0);
  clear_faults();
}

#ifndef _WIN32  // the library exports the classic file calls on POSIX only
TEST(ClassicFiles, CreationTakesTheAttributesZeroToSeven) {
  zbshr_test::Scratch s;
  const std::string p = s.path("c.bin");
  for (int32_t attribute : {-1, 8})  // normal, or read-only, hidden and system combined
    EXPECT_EQ(zbshr_test::WithError(_lcreat(p.c_str(), attribute)), std::make_pair(-1, ERROR_INVALID_PARAMETER)) << attribute;
  for (int32_t attribute : {0, 6}) EXPECT_EQ(::_lclose(_lcreat(p.c_str(), attribute)), 0) << attribute;
  const mode_t mask = umask(0);  // read-only: no one may write, whatever the mask allowed
  EXPECT_EQ(::_lclose(_lcreat(s.path("ro.bin").c_str(), 1)), 0);
  umask(mask);
  struct stat st {};
  EXPECT_TRUE(stat(s.path("ro.bin").c_str(), &st) == 0 && (st.st_mode & 0777) == 0444) << std::oct << st.st_mode;
}

TEST(ClassicFiles, OpenModesSharingAndTheHandleCalls) {
  using zbshr_test::WithError;
  zbshr_test::Scratch s;
  s.write("d.bin", "0123456789");
  const std::string p = s.path("d.bin");
  for (int32_t mode : {0x80, 0x100, 3, 0x43, 0x50, 0x60, 0x70})  // unknown bits, access 3, sharing past deny-none
    EXPECT_EQ(WithError(::_lopen(p.c_str(), mode)), std::make_pair(-1, ERROR_INVALID_PARAMETER)) << mode;
  EXPECT_EQ(WithError(::_lopen(s.path("none").c_str(), OF_READ)), std::make_pair(-1, ERROR_FILE_NOT_FOUND));
  const int32_t r = ::_lopen(p.c_str(), OF_READ | OF_SHARE_DENY_WRITE);
  char buf[8] = {};
  EXPECT_EQ(std::vector<int64_t>({::_llseek(r, 3, 0), ::_lread(r, buf, 4), buf[0], ::_llseek(r, -2, 1), ::_llseek(r, -1, 2)}),
            std::vector<int64_t>({3, 4, '3', 5, 9}));
  EXPECT_EQ(WithError(::_lwrite(r, "x", 1)), std::make_pair(0xFFFFFFFFu, ERROR_ACCESS_DENIED));  // opened for reading
  for (int32_t origin : {-1, 3}) EXPECT_EQ(WithError(::_llseek(r, 0, origin)), std::make_pair(-1, ERROR_INVALID_PARAMETER));
  // While it is open for reading and denies writing, which other opens succeed.
  const struct { int32_t mode; DWORD error; } others[] = {
      {OF_READ | OF_SHARE_DENY_NONE, 0}, {OF_READ | OF_SHARE_COMPAT, 0}, {OF_READ | OF_SHARE_DENY_WRITE, 0},
      {OF_READ | OF_SHARE_DENY_READ, ERROR_SHARING_VIOLATION}, {OF_READ | OF_SHARE_EXCLUSIVE, ERROR_SHARING_VIOLATION},
      {OF_WRITE | OF_SHARE_DENY_NONE, ERROR_SHARING_VIOLATION}, {OF_READWRITE, ERROR_SHARING_VIOLATION}};
  for (const auto& o : others) {
    SetLastError(0);
    const int32_t h = ::_lopen(p.c_str(), o.mode);
    EXPECT_TRUE(o.error ? h == -1 && GetLastError() == o.error : h != -1 && ::_lclose(h) == 0) << o.mode;
  }
  ::_lclose(r);
  const int32_t w = ::_lopen(p.c_str(), OF_READWRITE | OF_SHARE_EXCLUSIVE);
  EXPECT_EQ(std::vector<int64_t>({::_lwrite(w, "ab", 2), ::_llseek(w, 0, 2), ::_lread(w, buf, 4), ::_lclose(w)}),
            std::vector<int64_t>({2, 10, 0, 0}));
  EXPECT_EQ(s.read("d.bin"), "ab23456789");
}
#endif

#ifndef _WIN32
TEST(FatalExit, SaysWhyOnStandardErrorAndEndsWithCode3) {
  EXPECT_EXIT(FatalAppExitA(0, "Insufficient memory to continue."), testing::ExitedWithCode(3), "^Insufficient memory to continue.\n$");
}
#endif

TEST(LastError, IsPerThread) {
  SetLastError(1234);
  DWORD other = 0;
  std::thread t([&] {
    other = GetLastError();
    SetLastError(77);
  });
  t.join();
  EXPECT_TRUE(other == 0 && GetLastError() == 1234);
}

int32_t ZBSHR_CALL Recorder(void* ctx, const char* text, const char* caption, uint32_t style) {
  *static_cast<std::string*>(ctx) += std::string(caption ? caption : "(null)") + "|" + text + "|" + std::to_string(style);
  return IDRETRY;
}

class MessageBoxTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_message_box_script(); }
  void TearDown() override {
    zbshr_set_msgbox_handler(nullptr, nullptr);
    if (had_) setenv("ZBSHR_MSGBOX", saved_.c_str(), 1);
    else unsetenv("ZBSHR_MSGBOX");
    reset_message_box_script();
  }
  const bool had_ = std::getenv("ZBSHR_MSGBOX") != nullptr;
  const std::string saved_ = had_ ? std::getenv("ZBSHR_MSGBOX") : "";
};

TEST_F(MessageBoxTest, HandlerThenScriptThenDefaultAnswers) {
  std::string seen;
  EXPECT_EQ(zbshr_set_msgbox_handler(Recorder, &seen), nullptr);
  EXPECT_EQ(MessageBoxA(nullptr, "Out of Memory", nullptr, 0x2015), IDRETRY);
  EXPECT_EQ(seen, "|Out of Memory|8213");
  EXPECT_EQ(zbshr_set_msgbox_handler(nullptr, nullptr), &Recorder);
  // A scripted answer that is no button of the box gives the default one.
  setenv("ZBSHR_MSGBOX", " retry, RETRY;cancel,cancel,cancel, no\t,ignore,7,,1,8,,no,8", 1);
  const struct {
    UINT style;
    int32_t want;
  } boxes[] = {
      {MB_RETRYCANCEL | MB_ICONSTOP, IDRETRY}, {MB_RETRYCANCEL, IDRETRY}, {MB_RETRYCANCEL, IDCANCEL},
      {MB_OK, IDOK}, {MB_YESNO, IDNO}, {MB_YESNOCANCEL, IDNO}, {MB_ABORTRETRYIGNORE, IDIGNORE},
      {MB_YESNO, IDNO} /* 7 */, {MB_OKCANCEL, IDCANCEL} /* empty */, {MB_OKCANCEL, IDOK} /* 1 */,
      {MB_ABORTRETRYIGNORE, IDABORT} /* 8 */, {MB_YESNOCANCEL, IDCANCEL} /* empty */,
      {0x6, IDNO}, {0x6, IDOK} /* 8: a box of unknown buttons takes any of 1..7 */,
  };
  for (const auto& b : boxes) EXPECT_EQ(MessageBoxA(nullptr, "t", "c", b.style), b.want) << b.style;
  // Used up: the default answer, the text printed on standard error.
  testing::internal::CaptureStderr();
  EXPECT_EQ(MessageBoxA(nullptr, "disk full", "Library", MB_RETRYCANCEL), IDCANCEL);
  EXPECT_EQ(MessageBoxA(nullptr, "sure?", "", MB_YESNO), IDNO);
  EXPECT_EQ(MessageBoxA(nullptr, "note", "N", MB_OK), IDOK);
  EXPECT_EQ(MessageBoxA(nullptr, "abort?", "A", MB_ABORTRETRYIGNORE), IDABORT);
  EXPECT_EQ(MessageBoxA(nullptr, "", nullptr, MB_OK), IDOK);  // an empty box still ends its line
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Library: disk full\nsure?\nN: note\nA: abort?\n\n");
  // A new script starts again from its first answer (on Windows an emptied
  // variable is a removed one, and no script there means a real window).
#if defined(_WIN32)
  setenv("ZBSHR_MSGBOX", "none", 1);
#else
  setenv("ZBSHR_MSGBOX", "", 1);
#endif
  EXPECT_EQ(MessageBoxA(nullptr, "", "", MB_OK | 0x10), IDOK);
  setenv("ZBSHR_MSGBOX", "ok", 1);
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_OKCANCEL), IDOK);
}

TEST(Resources, NamesCaptionsAndImages) {
  char buf[30];
  auto load = [&](UINT id, int size = 30) { return std::to_string(LoadStringA(module_instance(), id, buf, size)) + ":" + buf; };
  // Sorted upper-case names at 700-709 and 720-733 (no strings between); then in calendar
  // order short and long months from 734, short and long days from 758 (the table ends here,
  // the names between are the date formatting tests').
  EXPECT_EQ(Strings({load(700), load(709), load(710), load(719), load(720), load(733), load(734), load(745), load(746),
                     load(757), load(758), load(764), load(765), load(771)}),
            Strings({"3:APR", "7:JANUARY", "0:", "0:", "3:JUL", "9:SEPTEMBER", "3:Jan", "3:Dec", "7:January", "8:December",
                     "3:Sun", "3:Sat", "6:Sunday", "8:Saturday"}));
  std::memset(buf, 'x', sizeof buf);
  // "September" cut; a missing string or no room leaves an empty text (braced lists run in order).
  EXPECT_EQ(Strings({load(754, 5), load(9999), load(754, 0)}), Strings({"4:Sept", "0:", "0:"}));
  char caption[40], formatted[40];  // the notice (108) is the start-up tests'
  LoadStringA(module_instance(), 107, caption, sizeof caption);
  std::snprintf(formatted, sizeof formatted, caption, 5, 0);
  EXPECT_STREQ(formatted, "Release 5.0");
  DWORD n305 = 0, n306 = 0, none = 123;
  const void* a = load_resource_data(module_instance(), 256, 305, &n305);
  const void* b = load_resource_data(module_instance(), 256, 306, &n306);
  EXPECT_TRUE(a && b && n305 == 16384 && n306 == 16384 && std::memcmp(a, b, 16384) != 0 &&
              !load_resource_data(module_instance(), 256, 307, &none) && none == 0 && !load_resource_data(module_instance(), 10, 305, &none));
}

TEST(System, VersionClockCodePages) {
  ZBTEST_POSIX_ONLY("GetVersion is the system's own on Windows");
  EXPECT_TRUE((GetVersion() & 0xFFFF) == 4 && !GetActiveWindow());  // 4.0
  SYSTEMTIME st{};
  GetLocalTime(&st);
  EXPECT_TRUE(st.wYear >= 2024 && st.wMonth >= 1 && st.wMonth <= 12 && st.wDayOfWeek <= 6 && st.wMilliseconds < 1000);
  for (UINT cp : {1252u, 932u, 936u}) {
    EXPECT_TRUE(zbshr_set_codepage(cp) == 1252 && GetACP() == cp);
    for (int c = 0; c < 256; ++c)
      EXPECT_EQ(IsDBCSLeadByte(static_cast<uint8_t>(c)) != 0,
                cp == 932 ? (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC) : cp == 936 && c >= 0x81 && c <= 0xFE)
          << cp << " " << c;
    zbshr_set_codepage(1252);
  }
}

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(Collation, AStrictOrderInLevels) {
  ZBTEST_POSIX_ONLY("Windows collates with the user locale, POSIX with a fixed table");
  // Ascending: controls, punctuation, symbols, digits, letters (case and accent aside, then the
  // accent, then lower before upper), hyphen and apostrophe last (fewer first, then the earlier).
  const char* const order[] = {"", "\x01", "\x02", "\x1F", "!", "[", "_", "\xA9", "\xF7", "0", "9", "a", "A", "\xE1", "\xC1", "\xE4",
                               "ab", "-ab", "a'b", "a-b", "ab-", "a--b", "aB", "Ab", "\xE1" "b", "abc", "b",
                               "co-op", "cop", "e", "ete", "\xE9t\xE9", "\xC9t\xE9", "etz", "F", "its", "it's", "\xF8",
                               "z", "\xFE", "\xDE" "orn"};
  const int n = sizeof order / sizeof *order;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) EXPECT_EQ(Sign(lstrcmpA(order[i], order[j])), Sign(i - j)) << i << " " << j;
  EXPECT_EQ(lstrcmpA(nullptr, ""), 0);
  const struct { const char *a, *b; int sign; } nocase[] = {{"HeLLo", "hello", 0}, {"\xC9T\xC9", "\xE9t\xE9", 0}, {"\xE9", "e", 1},
                {"\x8A", "\x9A", 0}, {"\x8C", "\x9C", 0}, {"\x8E", "\x9E", 0}, {"\x9F", "\xFF", 0}, {"\xDE", "\xFE", 0},
                {"\xDF", "\x9A", 1}, {"\x83", "f", 1}, {"\x9C", "\xF6", 1}, {"a", "B", -1}, {"CO-OP", "coop", 1}, {"ab", "A'B", -1}};
  for (const auto& c : nocase) EXPECT_EQ(Sign(lstrcmpiA(c.a, c.b)), c.sign) << c.a << " " << c.b;
}

// Hosts read these last errors: they are the documented Win32 values (message box
// styles and answers are pinned by the message box tests).
TEST(Constants, AreTheWin32Values) {
  const int64_t pairs[][2] = {
      {HFILE_ERROR, -1}, {INVALID_HANDLE, -1}, {ERROR_SUCCESS, 0}, {ERROR_FILE_NOT_FOUND, 2}, {ERROR_PATH_NOT_FOUND, 3},
      {ERROR_TOO_MANY_OPEN_FILES, 4}, {ERROR_ACCESS_DENIED, 5}, {ERROR_INVALID_HANDLE, 6}, {ERROR_NOT_ENOUGH_MEMORY, 8},
      {ERROR_SEEK, 25}, {ERROR_WRITE_FAULT, 29}, {ERROR_READ_FAULT, 30}, {ERROR_SHARING_VIOLATION, 32},
      {ERROR_HANDLE_EOF, 38}, {ERROR_FILE_EXISTS, 80}, {ERROR_INVALID_PARAMETER, 87}, {ERROR_BUFFER_OVERFLOW, 111},
      {ERROR_DISK_FULL, 112}, {ERROR_INSUFFICIENT_BUFFER, 122}, {ERROR_INVALID_NAME, 123}, {ERROR_NEGATIVE_SEEK, 131},
      {ERROR_DIR_NOT_EMPTY, 145}, {ERROR_ALREADY_EXISTS, 183}, {ERROR_FILENAME_EXCED_RANGE, 206},
      {ERROR_MORE_DATA, 234}, {GMEM_MOVEABLE, 2}, {GMEM_ZEROINIT, 0x40}, {GMEM_MODIFY, 0x80}, {GMEM_DDESHARE, 0x2000},
  };
  for (size_t i = 0; i < sizeof pairs / sizeof *pairs; ++i) EXPECT_EQ(pairs[i][0], pairs[i][1]) << "entry " << i;
}

}  // namespace
