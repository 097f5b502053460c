// POSIX emulation of the Win32 odds and ends the library uses: last error,
// message boxes, fatal exit, version, clock, code page and string compare.
#include <strings.h>
#include <pwd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
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

void write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w <= 0) return;
    p += w;
    n -= static_cast<size_t>(w);
  }
}

int word_to_answer(std::string word) {
  for (auto& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kWords[] = {"ok", "cancel", "abort", "retry", "ignore", "yes", "no"};
  for (int i = 0; i < 7; ++i)
    if (word == kWords[i]) return i + 1;
  if (word.size() == 1 && word[0] >= '1' && word[0] <= '7') return word[0] - '0';
  return 0;
}

std::vector<std::string> split_script(const std::string& s) {
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
int next_scripted_answer() {
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
  auto words = split_script(g_script_source);
  if (g_script_pos >= words.size()) return 0;
  return word_to_answer(words[g_script_pos++]);
}

// Collation of code page 1252 text in the manner of a Western locale, in
// levels: first the base characters (control characters, then punctuation
// and symbols, then digits, then letters without regard to case or accent,
// accented letters with their base letter), then the accents, then the case
// (lower case first), and last the hyphen and apostrophe, which are skipped
// by the other levels ("coop" < "co-op" < "cop").
struct CharKey {
  int primary;    // 0: ignored at the first three levels
  int secondary;  // accent
  int tertiary;   // 0 lower / 1 upper
};

CharKey key_of(unsigned char c) {
  // Base letter and accent of the letters of the upper half.
  static const char kBase[64 + 1] =
      "AAAAAAACEEEEIIIIDNOOOOO*OUUUUYTS"   // 0xC0-0xDF
      "aaaaaaaceeeeiiiidnooooo/ouuuuyty";  // 0xE0-0xFF
  if (c == '-' || c == '\'') return {0, 0, 0};
  if (c < 0x20) return {1 + c, 0, 0};
  if (c >= '0' && c <= '9') return {0x200 + c, 0, 0};
  if (c >= 'A' && c <= 'Z') return {0x300 + (c - 'A') * 4, 0, 1};
  if (c >= 'a' && c <= 'z') return {0x300 + (c - 'a') * 4, 0, 0};
  auto letter = [](char base, int accent, bool upper) {
    int b = std::tolower(static_cast<unsigned char>(base)) - 'a';
    return CharKey{0x300 + b * 4, accent, upper ? 1 : 0};
  };
  switch (c) {
    case 0x8A: return letter('s', 1, true);   // S caron
    case 0x9A: return letter('s', 1, false);
    case 0x8C: return letter('o', 9, true);   // OE
    case 0x9C: return letter('o', 9, false);
    case 0x8E: return letter('z', 1, true);   // Z caron
    case 0x9E: return letter('z', 1, false);
    case 0x9F: return letter('y', 8, true);   // Y diaeresis
    case 0x83: return letter('f', 1, false);  // f hook
    case 0xDF: return letter('s', 8, false);  // sharp s
    case 0xDE: return {0x300 + 26 * 4, 0, 1};  // thorn sorts after z
    case 0xFE: return {0x300 + 26 * 4, 0, 0};
    default: break;
  }
  if (c >= 0xC0 && c != 0xD7 && c != 0xF7) {
    char base = kBase[c - 0xC0];
    int accent = 1 + (c & 0x07);
    return letter(base, accent, c < 0xE0);
  }
  if (c < 0x80) return {0x100 + c, 0, 0};  // punctuation and symbols
  return {0x100 + c, 0, 0};                // other symbols of the upper half
}

int collate(const char* a, const char* b, bool ignore_case) {
  if (!a) a = "";
  if (!b) b = "";
  const auto* pa = reinterpret_cast<const unsigned char*>(a);
  const auto* pb = reinterpret_cast<const unsigned char*>(b);
  // First level without allocating: most comparisons end here.
  for (const unsigned char *x = pa, *y = pb;; ++x, ++y) {
    while (*x && key_of(*x).primary == 0) ++x;
    while (*y && key_of(*y).primary == 0) ++y;
    if (*x == 0 || *y == 0) {
      if (*x != *y) return *x == 0 ? -1 : 1;
      break;
    }
    int kx = key_of(*x).primary, ky = key_of(*y).primary;
    if (kx != ky) return kx < ky ? -1 : 1;
  }
  auto keys = [](const unsigned char* s) {
    std::vector<CharKey> out;
    for (; *s; ++s)
      if (key_of(*s).primary != 0) out.push_back(key_of(*s));
    return out;
  };
  std::vector<CharKey> ka = keys(pa), kb = keys(pb);
  size_t n = std::min(ka.size(), kb.size());
  for (size_t i = 0; i < n; ++i)
    if (ka[i].primary != kb[i].primary) return ka[i].primary < kb[i].primary ? -1 : 1;
  if (ka.size() != kb.size()) return ka.size() < kb.size() ? -1 : 1;
  for (size_t i = 0; i < n; ++i)
    if (ka[i].secondary != kb[i].secondary) return ka[i].secondary < kb[i].secondary ? -1 : 1;
  if (!ignore_case)
    for (size_t i = 0; i < n; ++i)
      if (ka[i].tertiary != kb[i].tertiary) return ka[i].tertiary < kb[i].tertiary ? -1 : 1;
  // Equal but for hyphens and apostrophes: fewer of them first, then the
  // one whose first difference stands earlier.
  auto ignorables = [](const unsigned char* s) {
    std::vector<std::pair<int, int>> out;  // (letters before it, character)
    int seen = 0;
    for (; *s; ++s) {
      if (key_of(*s).primary == 0) out.emplace_back(seen, *s);
      else ++seen;
    }
    return out;
  };
  auto ia = ignorables(pa), ib = ignorables(pb);
  if (ia == ib) return 0;
  if (ia.size() != ib.size()) return ia.size() < ib.size() ? -1 : 1;
  return ia < ib ? -1 : 1;
}

}  // namespace

DWORD GetLastError() { return t_last_error; }
void SetLastError(DWORD code) { t_last_error = code; }

void reset_message_box_script() {
  std::lock_guard<std::mutex> lock(g_script_mutex);
  g_script_source.clear();
  g_script_pos = 0;
}

int MessageBoxA(HWND /*owner*/, const char* text, const char* caption, UINT style) {
  int answer = 0;
  if (detail::call_message_box_handler(text, caption, style, &answer)) return answer;
  answer = next_scripted_answer();
  if (answer != 0) return detail::box_has_button(style, answer) ? answer : detail::default_answer(style);
  std::string msg;
  if (caption && *caption) {
    msg += caption;
    msg += ": ";
  }
  msg += text ? text : "";
  msg += '\n';
  write_all(2, msg.data(), msg.size());
  return detail::default_answer(style);
}

BOOL MessageBeep(UINT) { return 1; }

HWND GetActiveWindow() { return nullptr; }

void FatalAppExitA(UINT, const char* text) {
  const char* t = text ? text : "";
  write_all(2, t, std::strlen(t));
  write_all(2, "\n", 1);
  ::_exit(3);
}

HINSTANCE module_instance() { return &g_module_anchor; }

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

BOOL IsDBCSLeadByte(uint8_t c) { return detail::is_lead_byte_in(GetACP(), c) ? 1 : 0; }
UINT GetACP() { return g_codepage.load(std::memory_order_relaxed); }
void set_acp(UINT codepage) { g_codepage.store(codepage, std::memory_order_relaxed); }

int lstrcmpA(const char* a, const char* b) { return collate(a, b, false); }
int lstrcmpiA(const char* a, const char* b) { return collate(a, b, true); }

std::string config_dir() {
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
