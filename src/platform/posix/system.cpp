// POSIX emulation of the Win32 odds and ends the library uses: last error,
// message boxes, fatal exit, version, clock, code page and string compare.
#include <strings.h>
#include <pwd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"

namespace zbshr::plat {
namespace {

thread_local DWORD t_last_error = 0;
std::atomic<UINT> g_codepage{1252};
int g_module_anchor = 0;

std::mutex g_script_mutex;
std::string g_script_source;  // the ZBSHR_MSGBOX value the position refers to
size_t g_script_pos = 0;      // index of the next answer to consume

void WriteAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w <= 0) return;
    p += w;
    n -= static_cast<size_t>(w);
  }
}

int WordToAnswer(std::string word) {
  for (auto& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kWords[] = {"ok", "cancel", "abort", "retry", "ignore", "yes", "no"};
  for (int i = 0; i < 7; ++i)
    if (word == kWords[i]) return i + 1;
  if (word.size() == 1 && word[0] >= '1' && word[0] <= '7') return word[0] - '0';
  return 0;
}

std::vector<std::string> SplitScript(const std::string& s) {
  std::vector<std::string> out;
  std::string cur;
  auto flush = [&] {
    size_t b = cur.find_first_not_of(" \t");
    size_t e = cur.find_last_not_of(" \t");
    out.push_back(b == std::string::npos ? std::string() : cur.substr(b, e - b + 1));
    cur.clear();
  };
  for (char c : s) {
    if (c == ',' || c == ';') flush();
    else cur += c;
  }
  flush();
  return out;
}

// The next scripted answer, or 0 when there is no script or it is used up.
int NextScriptedAnswer() {
  const char* env = std::getenv("ZBSHR_MSGBOX");
  std::lock_guard<std::mutex> lock(g_script_mutex);
  if (!env || !*env) {
    g_script_source.clear();
    g_script_pos = 0;
    return 0;
  }
  if (g_script_source != env) {
    g_script_source = env;
    g_script_pos = 0;
  }
  auto words = SplitScript(g_script_source);
  if (g_script_pos >= words.size()) return 0;
  return WordToAnswer(words[g_script_pos++]);
}

// A collation weight that orders like a Western locale: control characters,
// then punctuation and symbols, then digits, then letters (case folded), then
// the upper half of the code page.
int Weight(unsigned char c) {
  if (c < 0x20) return c;
  if (c >= '0' && c <= '9') return 0x100 + c;
  if (c >= 'A' && c <= 'Z') return 0x200 + (c - 'A' + 'a');
  if (c >= 'a' && c <= 'z') return 0x200 + c;
  if (c < 0x80) return 0x80 + c;
  return 0x300 + c;
}

int Collate(const char* a, const char* b, bool ignore_case) {
  if (!a) a = "";
  if (!b) b = "";
  const auto* p = reinterpret_cast<const unsigned char*>(a);
  const auto* q = reinterpret_cast<const unsigned char*>(b);
  int case_diff = 0;  // first difference of case only: lower before upper
  for (;; ++p, ++q) {
    if (*p == 0 || *q == 0) {
      if (*p != *q) return *p == 0 ? -1 : 1;
      break;
    }
    int wp = Weight(*p), wq = Weight(*q);
    if (wp != wq) return wp < wq ? -1 : 1;
    if (case_diff == 0 && *p != *q) case_diff = std::islower(*p) ? -1 : 1;
  }
  return ignore_case ? 0 : case_diff;
}

}  // namespace

DWORD GetLastError() { return t_last_error; }
void SetLastError(DWORD code) { t_last_error = code; }

void ResetMessageBoxScript() {
  std::lock_guard<std::mutex> lock(g_script_mutex);
  g_script_source.clear();
  g_script_pos = 0;
}

int MessageBoxA(HWND owner, const char* text, const char* caption, UINT style) {
  int answer = 0;
  if (detail::CallMessageBoxHandler(text, caption, style, &answer)) return answer;
  answer = NextScriptedAnswer();
  if (answer != 0) return detail::BoxHasButton(style, answer) ? answer : detail::DefaultAnswer(style);
  std::string msg;
  if (caption && *caption) {
    msg += caption;
    msg += ": ";
  }
  msg += text ? text : "";
  msg += '\n';
  WriteAll(2, msg.data(), msg.size());
  return detail::DefaultAnswer(style);
}

BOOL MessageBeep(UINT) { return 1; }

HWND GetActiveWindow() { return nullptr; }

void FatalAppExitA(UINT, const char* text) {
  const char* t = text ? text : "";
  WriteAll(2, t, std::strlen(t));
  WriteAll(2, "\n", 1);
  ::_exit(3);
}

HINSTANCE ModuleInstance() { return &g_module_anchor; }

DWORD GetVersion() { return 4; }  // major 4, minor 0

void GetLocalTime(SYSTEMTIME* t) {
  if (!t) return;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  time_t secs = ts.tv_sec;
  struct tm lt {};
  localtime_r(&secs, &lt);
  t->wYear = static_cast<WORD>(lt.tm_year + 1900);
  t->wMonth = static_cast<WORD>(lt.tm_mon + 1);
  t->wDayOfWeek = static_cast<WORD>(lt.tm_wday);
  t->wDay = static_cast<WORD>(lt.tm_mday);
  t->wHour = static_cast<WORD>(lt.tm_hour);
  t->wMinute = static_cast<WORD>(lt.tm_min);
  t->wSecond = static_cast<WORD>(lt.tm_sec > 59 ? 59 : lt.tm_sec);
  t->wMilliseconds = static_cast<WORD>(ts.tv_nsec / 1000000);
}

DWORD GetTickCount() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<DWORD>(ms);
}

BOOL IsDBCSLeadByte(uint8_t c) { return detail::IsLeadByteIn(GetACP(), c) ? 1 : 0; }
UINT GetACP() { return g_codepage.load(std::memory_order_relaxed); }
void SetACP(UINT codepage) { g_codepage.store(codepage, std::memory_order_relaxed); }

int lstrcmpA(const char* a, const char* b) { return Collate(a, b, false); }
int lstrcmpiA(const char* a, const char* b) { return Collate(a, b, true); }

std::string ConfigDir() {
  std::string dir;
  const char* home = std::getenv("ZBSHR_HOME");
  if (home && *home) {
    dir = home;
  } else {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg && *xdg) {
      dir = std::string(xdg) + "/zbshr";
    } else {
      const char* h = std::getenv("HOME");
      std::string user_home = h && *h ? h : "";
      if (user_home.empty()) {
        if (passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) user_home = pw->pw_dir;
      }
      dir = (user_home.empty() ? std::string(".") : user_home) + "/.config/zbshr";
    }
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

}  // namespace zbshr::plat
