// Global memory, message boxes, resources, code pages, string compare and
// fault injection of the platform layer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <sys/wait.h>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "scratch.h"
#include "zbshr/system.h"

using namespace zbshr::plat;

namespace {

class FaultGuard {
 public:
  ~FaultGuard() { ClearFaults(); }
};

TEST(GlobalMemory, SizeIsWhatWasAskedAndZeroFillWorks) {
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, 1000);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(GlobalSize(h), 1000u);
  auto* p = static_cast<unsigned char*>(GlobalLock(h));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(p[i], 0) << i;
  std::memset(p, 0xAB, 1000);
  // Growing with zero-fill keeps the old bytes and clears the new ones.
  HGLOBAL h2 = GlobalReAlloc(h, 5000, GMEM_MOVEABLE | GMEM_ZEROINIT);
  ASSERT_NE(h2, nullptr);
  EXPECT_EQ(GlobalSize(h2), 5000u);
  p = static_cast<unsigned char*>(GlobalLock(h2));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[0], 0xAB);
  EXPECT_EQ(p[999], 0xAB);
  EXPECT_EQ(p[1000], 0);
  EXPECT_EQ(p[4999], 0);
  // Changing the flags only keeps size and contents.
  ASSERT_EQ(GlobalReAlloc(h2, 0, GMEM_MODIFY | GMEM_MOVEABLE), h2);
  EXPECT_EQ(GlobalSize(h2), 5000u);
  EXPECT_EQ(static_cast<unsigned char*>(GlobalLock(h2))[999], 0xAB);
  // Shrinking reports the new size.
  ASSERT_NE(GlobalReAlloc(h2, 10, GMEM_MOVEABLE), nullptr);
  EXPECT_EQ(GlobalSize(h2), 10u);
  EXPECT_EQ(GlobalFree(h2), nullptr);
}

TEST(GlobalMemory, ZeroSizeAndStaleHandles) {
  ZBTEST_POSIX_ONLY("a 0-byte moveable block locks to null on Windows");
  HGLOBAL h = GlobalAlloc(GMEM_DDESHARE | GMEM_MOVEABLE, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(GlobalSize(h), 0u);
  EXPECT_NE(GlobalLock(h), nullptr);
  EXPECT_EQ(GlobalFree(h), nullptr);
  // The freed handle is refused, not followed.
  EXPECT_EQ(GlobalLock(h), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(GlobalSize(h), 0u);
  EXPECT_EQ(GlobalFree(h), h);
  int not_a_handle = 0;
  EXPECT_EQ(GlobalReAlloc(&not_a_handle, 10, 0), nullptr);
  EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

TEST(GlobalMemory, LockCountGovernsUnlockResult) {
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE, 16);
  ASSERT_NE(GlobalLock(h), nullptr);
  ASSERT_NE(GlobalLock(h), nullptr);
  EXPECT_EQ(GlobalUnlock(h), 1);  // still locked once
  EXPECT_EQ(GlobalUnlock(h), 0);  // now unlocked
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  GlobalFree(h);
}

TEST(FaultInjection, CountsCallsAndFailsARun) {
  FaultGuard guard;
  InjectFault(Fault::GlobalAlloc, 2, 2);
  HGLOBAL a = GlobalAlloc(0, 8);  // 1st: fine
  HGLOBAL b = GlobalAlloc(0, 8);  // 2nd: fails
  HGLOBAL c = GlobalReAlloc(a, 16, 0);  // 3rd (reallocation counts): fails
  HGLOBAL d = GlobalAlloc(0, 8);  // 4th: fine again
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_NE(d, nullptr);
  EXPECT_EQ(GlobalSize(a), 8u);  // the failed reallocation left the block alone
  GlobalFree(a);
  GlobalFree(d);

  HGLOBAL e = GlobalAlloc(0, 8);
  InjectFault(Fault::GlobalLock, 1, 1);
  EXPECT_EQ(GlobalLock(e), nullptr);
  EXPECT_NE(GlobalLock(e), nullptr);
  InjectFault(Fault::GlobalLock, 1, 5);
  InjectFault(Fault::GlobalLock, 1, 0);  // disarmed
  EXPECT_NE(GlobalLock(e), nullptr);
  GlobalFree(e);

  // The exported knob drives the same machinery.
  EXPECT_EQ(zbshr_inject_fault(0, 1, 1), 1);
  EXPECT_EQ(GlobalAlloc(0, 1), nullptr);
  EXPECT_EQ(zbshr_inject_fault(99, 1, 1), 0);
  EXPECT_EQ(zbshr_inject_fault(-1, 1, 1), 0);
}

TEST(LastError, IsPerThread) {
  SetLastError(1234);
  DWORD other = 0;
  std::thread t([&] { other = GetLastError(); SetLastError(77); });
  t.join();
  EXPECT_EQ(other, 0u);
  EXPECT_EQ(GetLastError(), 1234u);
}

struct Recorded {
  std::vector<std::string> texts;
  std::vector<uint32_t> styles;
  int32_t answer = IDRETRY;
};

int32_t ZBSHR_CALL Recorder(void* ctx, const char* text, const char* caption, uint32_t style) {
  auto* r = static_cast<Recorded*>(ctx);
  r->texts.push_back(std::string(caption) + "|" + text);
  r->styles.push_back(style);
  return r->answer;
}

class MessageBoxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* v = std::getenv("ZBSHR_MSGBOX");
    saved_ = v ? v : "";
    had_ = v != nullptr;
    ResetMessageBoxScript();
  }
  void TearDown() override {
    zbshr_set_msgbox_handler(nullptr, nullptr);
    if (had_) setenv("ZBSHR_MSGBOX", saved_.c_str(), 1);
    else unsetenv("ZBSHR_MSGBOX");
    ResetMessageBoxScript();
  }
  std::string saved_;
  bool had_ = false;
};

TEST_F(MessageBoxTest, HandlerSeesEverythingAndIsReplaceable) {
  Recorded rec;
  EXPECT_EQ(zbshr_set_msgbox_handler(Recorder, &rec), nullptr);
  EXPECT_EQ(MessageBoxA(nullptr, "Out of Memory", nullptr, 0x2015), IDRETRY);
  ASSERT_EQ(rec.texts.size(), 1u);
  EXPECT_EQ(rec.texts[0], "|Out of Memory");
  EXPECT_EQ(rec.styles[0], 0x2015u);
  EXPECT_EQ(zbshr_set_msgbox_handler(nullptr, nullptr), &Recorder);
  // Back to the script once the handler is gone.
  setenv("ZBSHR_MSGBOX", "retry", 1);
  EXPECT_EQ(MessageBoxA(nullptr, "x", "y", MB_RETRYCANCEL), IDRETRY);
  EXPECT_EQ(rec.texts.size(), 1u);
}

TEST_F(MessageBoxTest, ScriptIsConsumedOneAnswerPerBox) {
  setenv("ZBSHR_MSGBOX", "retry, RETRY,cancel", 1);
  EXPECT_EQ(MessageBoxA(nullptr, "a", "", MB_RETRYCANCEL | MB_ICONSTOP), IDRETRY);
  EXPECT_EQ(MessageBoxA(nullptr, "b", "", MB_RETRYCANCEL | MB_ICONSTOP), IDRETRY);
  EXPECT_EQ(MessageBoxA(nullptr, "c", "", MB_RETRYCANCEL | MB_ICONSTOP), IDCANCEL);
  // Used up: the default answer, printed on standard error.
  testing::internal::CaptureStderr();
  EXPECT_EQ(MessageBoxA(nullptr, "disk full", "Library", MB_RETRYCANCEL), IDCANCEL);
  EXPECT_EQ(MessageBoxA(nullptr, "sure?", "Q", MB_YESNO), IDNO);
  EXPECT_EQ(MessageBoxA(nullptr, "note", "N", MB_OK), IDOK);
  EXPECT_EQ(MessageBoxA(nullptr, "abort?", "A", MB_ABORTRETRYIGNORE), IDABORT);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Library: disk full\n"), std::string::npos) << err;
  EXPECT_NE(err.find("Q: sure?\n"), std::string::npos) << err;
}

TEST_F(MessageBoxTest, ScriptedAnswerMustBeAButtonOfTheBox) {
  setenv("ZBSHR_MSGBOX", "cancel,cancel,yes,ignore,7", 1);
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_OK), IDOK);      // no Cancel button
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_YESNO), IDNO);   // nor here
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_YESNOCANCEL), IDYES);
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_ABORTRETRYIGNORE), IDIGNORE);
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_YESNO), IDNO);   // "7" is No
  // A changed script starts from its beginning.
  setenv("ZBSHR_MSGBOX", "ok", 1);
  EXPECT_EQ(MessageBoxA(nullptr, "t", "c", MB_OKCANCEL), IDOK);
}

TEST(FatalExit, PrintsTextAndEndsWithNonZeroStatus) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(FatalAppExitA(0, "Insufficient memory to continue."),
              [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; },
              "^Insufficient memory to continue\\.\n$");
}

TEST(Resources, MonthAndDayNames) {
  char buf[30];
  const char* upper[] = {"APR", "APRIL", "AUG", "AUGUST", "DEC", "DECEMBER", "FEB", "FEBRUARY",
                         "JAN", "JANUARY", "JUL", "JULY", "JUN", "JUNE", "MAR", "MARCH",
                         "MAY", "MAY", "NOV", "NOVEMBER", "OCT", "OCTOBER", "SEP", "SEPTEMBER"};
  for (int i = 0; i < 24; ++i) {
    UINT id = i < 10 ? 700 + i : 720 + (i - 10);
    int n = LoadStringA(ModuleInstance(), id, buf, sizeof buf);
    EXPECT_STREQ(buf, upper[i]) << id;
    EXPECT_EQ(n, static_cast<int>(std::strlen(upper[i])));
  }
  for (UINT id = 710; id < 720; ++id) EXPECT_EQ(LoadStringA(ModuleInstance(), id, buf, 30), 0);
  // Calendar-order names checked against the C library's own English names.
  for (int m = 0; m < 12; ++m) {
    std::tm tm{};
    tm.tm_mon = m;
    char full[32], abbr[8];
    std::strftime(full, sizeof full, "%B", &tm);
    std::strftime(abbr, sizeof abbr, "%b", &tm);
    LoadStringA(ModuleInstance(), 734 + m, buf, 30);
    EXPECT_STREQ(buf, abbr);
    LoadStringA(ModuleInstance(), 746 + m, buf, 30);
    EXPECT_STREQ(buf, full);
  }
  for (int d = 0; d < 7; ++d) {
    std::tm tm{};
    tm.tm_wday = d;
    char full[32], abbr[8];
    std::strftime(full, sizeof full, "%A", &tm);
    std::strftime(abbr, sizeof abbr, "%a", &tm);
    LoadStringA(ModuleInstance(), 758 + d, buf, 30);
    EXPECT_STREQ(buf, abbr);
    LoadStringA(ModuleInstance(), 765 + d, buf, 30);
    EXPECT_STREQ(buf, full);
  }
}

TEST(Resources, TruncationAndMissingStrings) {
  char buf[8];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(LoadStringA(ModuleInstance(), 754, buf, 5), 4);  // "September"
  EXPECT_STREQ(buf, "Sept");
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(LoadStringA(ModuleInstance(), 9999, buf, sizeof buf), 0);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(LoadStringA(ModuleInstance(), 754, buf, 0), 0);
  char caption[40];
  LoadStringA(ModuleInstance(), 107, caption, sizeof caption);
  char formatted[40];
  std::snprintf(formatted, sizeof formatted, caption, 5, 0);
  EXPECT_STREQ(formatted, "Release 5.0");
  char notice[300];
  EXPECT_GT(LoadStringA(ModuleInstance(), 108, notice, sizeof notice), 20);
}

TEST(Resources, StubImagesAreFixedSize) {
  DWORD n305 = 0, n306 = 0, none = 123;
  const auto* a = static_cast<const unsigned char*>(LoadResourceData(ModuleInstance(), 256, 305, &n305));
  const auto* b = static_cast<const unsigned char*>(LoadResourceData(ModuleInstance(), 256, 306, &n306));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(n305, 16384u);
  EXPECT_EQ(n306, 16384u);
  EXPECT_NE(std::memcmp(a, b, 16384), 0);
  EXPECT_EQ(LoadResourceData(ModuleInstance(), 256, 307, &none), nullptr);
  EXPECT_EQ(none, 0u);
  EXPECT_EQ(LoadResourceData(ModuleInstance(), 10, 305, &none), nullptr);
}

TEST(System, VersionClockAndWindow) {
  ZBTEST_POSIX_ONLY("GetVersion is the system's own on Windows");
  DWORD v = GetVersion();
  EXPECT_EQ(v & 0xFF, 4u);
  EXPECT_EQ((v >> 8) & 0xFF, 0u);
  EXPECT_EQ(GetActiveWindow(), nullptr);
  EXPECT_NE(ModuleInstance(), nullptr);
  SYSTEMTIME st{};
  GetLocalTime(&st);
  std::time_t now = std::time(nullptr);
  std::tm lt{};
  localtime_r(&now, &lt);
  EXPECT_EQ(st.wYear, lt.tm_year + 1900);
  EXPECT_GE(st.wMonth, 1);
  EXPECT_LE(st.wMonth, 12);
  EXPECT_LE(st.wDayOfWeek, 6);
  EXPECT_LT(st.wMilliseconds, 1000);
  DWORD t1 = GetTickCount();
  DWORD t2 = GetTickCount();
  EXPECT_LE(t2 - t1, 60000u);  // monotonic (wraps as a 32-bit count)
}

TEST(CodePage, LeadBytesFollowTheSelectedPage) {
  EXPECT_EQ(GetACP(), 1252u);
  for (int c = 0; c < 256; ++c) ASSERT_FALSE(IsDBCSLeadByte(static_cast<uint8_t>(c))) << c;
  EXPECT_EQ(zbshr_set_codepage(932), 1252u);
  int leads = 0;
  for (int c = 0; c < 256; ++c) {
    bool expect = (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
    EXPECT_EQ(IsDBCSLeadByte(static_cast<uint8_t>(c)) != 0, expect) << c;
    leads += expect;
  }
  EXPECT_EQ(leads, 60);
  EXPECT_EQ(zbshr_set_codepage(1252), 932u);
  EXPECT_FALSE(IsDBCSLeadByte(0x82));
}

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(Collation, CaseRulesOfBothComparisons) {
  ZBTEST_POSIX_ONLY("Windows collates with the user locale, POSIX with a fixed table");
  EXPECT_EQ(lstrcmpA("abc", "abc"), 0);
  EXPECT_EQ(Sign(lstrcmpA("abc", "abd")), -1);
  EXPECT_EQ(Sign(lstrcmpA("ab", "abc")), -1);
  EXPECT_EQ(Sign(lstrcmpA("", "a")), -1);
  // Letters compare without regard to case first; lower case first on a tie.
  EXPECT_EQ(Sign(lstrcmpA("apple", "Banana")), -1);
  EXPECT_EQ(Sign(lstrcmpA("a", "A")), -1);
  EXPECT_EQ(Sign(lstrcmpA("B", "a")), 1);
  EXPECT_EQ(lstrcmpiA("HeLLo", "hello"), 0);
  EXPECT_EQ(Sign(lstrcmpiA("a", "B")), -1);
  // Punctuation before digits before letters.
  EXPECT_EQ(Sign(lstrcmpA("_", "0")), -1);
  EXPECT_EQ(Sign(lstrcmpA("9", "a")), -1);
  EXPECT_EQ(Sign(lstrcmpA("[", "a")), -1);
  EXPECT_EQ(lstrcmpA(nullptr, ""), 0);
  // Accented letters sort with their base letter; the accent counts only
  // when the letters are otherwise equal, the case after that.
  EXPECT_EQ(Sign(lstrcmpA("\xE9t\xE9", "etz")), -1);   // ete' < etz
  EXPECT_EQ(Sign(lstrcmpA("ete", "\xE9t\xE9")), -1);
  EXPECT_EQ(Sign(lstrcmpA("\xE9", "F")), -1);
  EXPECT_EQ(Sign(lstrcmpA("\xC9", "\xE9")), 1);        // upper after lower
  EXPECT_EQ(lstrcmpiA("\xC9T\xC9", "\xE9t\xE9"), 0);
  EXPECT_NE(lstrcmpiA("\xE9", "e"), 0);
  EXPECT_EQ(Sign(lstrcmpA("\xFEorn", "zz")), 1);        // thorn after z
  // Hyphen and apostrophe are passed over, then break ties.
  EXPECT_EQ(Sign(lstrcmpA("co-op", "coop")), 1);
  EXPECT_EQ(Sign(lstrcmpA("co-op", "cop")), -1);
  EXPECT_EQ(Sign(lstrcmpA("it's", "its")), 1);
  EXPECT_EQ(Sign(lstrcmpiA("CO-OP", "coop")), 1);
  // A total order: antisymmetric on a mixed sample.
  const char* sample[] = {"a", "A", "\xE1", "\xC1", "-a", "a-", "b", "1", "!", "", "ab", "a'b"};
  for (const char* x : sample)
    for (const char* y : sample) {
      EXPECT_EQ(Sign(lstrcmpA(x, y)), -Sign(lstrcmpA(y, x))) << x << " " << y;
      EXPECT_EQ(lstrcmpA(x, y) == 0, std::strcmp(x, y) == 0) << x << " " << y;
    }
}

}  // namespace
