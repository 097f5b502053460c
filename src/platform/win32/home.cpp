// Profiles, registry, message boxes and fatal exit on Windows.
//
// Normally these are the real services. When ZBSHR_HOME names a folder (tests,
// scripted hosts, the zbshr program's sandboxes), the process is kept off the
// machine's own settings:
//   - the system profile is "zbshr-system.ini" in that folder (never a file
//     named win.ini, which Windows maps onto the registry), and relative
//     private-profile names resolve in that folder;
//   - the predefined registry roots are volatile subkeys of one scratch key
//     under HKEY_CURRENT_USER\Software, private to that folder: they are never
//     written to disk and vanish with the session;
//   - ZBSHR_MSGBOX scripts the message-box answers (as on POSIX), and once a
//     script is set, an unanswered box and a fatal exit print on standard
//     error instead of opening a window.
//
// platform.h comes first: the Windows headers define many of its names as
// macros with the same values.
#include "platform/platform.h"
#include "platform/win32/win32.h"
#include "platform/internal.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace zbshr::plat {
namespace {

::HKEY to_hkey(HKEY k) { return static_cast<::HKEY>(k); }

// The private home folder, "" when the real services are used.
std::string home_dir() {
  const char* env = std::getenv("ZBSHR_HOME");
  std::string h = env ? env : "";
  while (h.size() > 3 && (h.back() == '\\' || h.back() == '/')) h.pop_back();
  return h;
}

bool is_relative(const std::string& p) {
  if (p.empty()) return true;
  if (p[0] == '\\' || p[0] == '/') return false;
  return !(p.size() >= 2 && p[1] == ':');
}

bool is_win_ini(const std::string& p) {
  size_t cut = p.find_last_of("\\/");
  std::string base = cut == std::string::npos ? p : p.substr(cut + 1);
  for (auto& c : base) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return base == "win.ini";
}

std::string system_profile(const std::string& home) { return home + "\\zbshr-system.ini"; }

// The file a private-profile call works on.
std::string profile_file(const char* file) {
  std::string name = file ? file : "";
  const std::string home = home_dir();
  if (home.empty()) return name;
  if (name.empty()) return system_profile(home);
  if (is_relative(name)) name = home + "\\" + name;
  if (is_win_ini(name)) {
    size_t cut = name.find_last_of("\\/");
    name = name.substr(0, cut) + "\\zbshr-system.ini";
  }
  return name;
}

// The scratch key standing for a predefined root, or the root itself.
::HKEY map_root(HKEY key, bool* opened) {
  *opened = false;
  const std::string home = home_dir();
  if (home.empty()) return to_hkey(key);
  const char* tag = key == HKEY_CURRENT_USER    ? "HKCU"
                    : key == HKEY_LOCAL_MACHINE ? "HKLM"
                    : key == HKEY_CLASSES_ROOT  ? "HKCR"
                                                : nullptr;
  if (!tag) return to_hkey(key);
  uint64_t h = 1469598103934665603ull;  // FNV-1a of the folder name, case folded
  for (char c : home) {
    h ^= static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(c == '/' ? '\\' : c)));
    h *= 1099511628211ull;
  }
  char path[96];
  std::snprintf(path, sizeof path, "Software\\zbshr-scratch\\%016llx\\%s",
                static_cast<unsigned long long>(h), tag);
  ::HKEY out = nullptr;
  if (::RegCreateKeyExA(to_hkey(HKEY_CURRENT_USER), path, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                        nullptr, &out, nullptr) != ERROR_SUCCESS)
    return to_hkey(key);
  *opened = true;
  return out;
}

// Scripted message-box answers, as the POSIX backend reads them.
std::mutex g_script_mutex;
std::string g_script_source;
size_t g_script_pos = 0;

int word_to_answer(std::string word) {
  size_t b = word.find_first_not_of(" \t");
  size_t e = word.find_last_not_of(" \t");
  word = b == std::string::npos ? std::string() : word.substr(b, e - b + 1);
  for (auto& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kWords[] = {"ok", "cancel", "abort", "retry", "ignore", "yes", "no"};
  for (int i = 0; i < 7; ++i)
    if (word == kWords[i]) return i + 1;
  if (word.size() == 1 && word[0] >= '1' && word[0] <= '7') return word[0] - '0';
  return 0;
}

// The next scripted answer; 0 when the script is used up; -1 with no script.
int next_scripted_answer() {
  const char* env = std::getenv("ZBSHR_MSGBOX");
  std::lock_guard<std::mutex> lock(g_script_mutex);
  if (!env || !*env) {
    g_script_source.clear();
    g_script_pos = 0;
    return -1;
  }
  if (g_script_source != env) {
    g_script_source = env;
    g_script_pos = 0;
  }
  std::vector<std::string> words(1);
  for (char c : g_script_source) {
    if (c == ',' || c == ';') words.emplace_back();
    else words.back() += c;
  }
  if (g_script_pos >= words.size()) return 0;
  return word_to_answer(words[g_script_pos++]);
}

void write_stderr(const std::string& s) {
  ::DWORD done = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), s.data(), static_cast<::DWORD>(s.size()), &done,
              nullptr);
}

}  // namespace

// ---------------------------------------------------------------- profiles
DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* def, char* buf,
                               DWORD size, const char* file) {
  const std::string f = profile_file(file);
  return win32::kept(static_cast<DWORD>(::GetPrivateProfileStringA(section, key, def, buf, size, f.c_str())));
}

UINT GetPrivateProfileIntA(const char* section, const char* key, int32_t def, const char* file) {
  const std::string f = profile_file(file);
  return win32::kept(::GetPrivateProfileIntA(section, key, def, f.c_str()));
}

BOOL WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                const char* file) {
  const std::string f = profile_file(file);
  return win32::kept(::WritePrivateProfileStringA(section, key, value, f.c_str()));
}

DWORD GetProfileStringA(const char* section, const char* key, const char* def, char* buf,
                        DWORD size) {
  if (home_dir().empty()) return win32::kept(static_cast<DWORD>(::GetProfileStringA(section, key, def, buf, size)));
  return GetPrivateProfileStringA(section, key, def, buf, size, nullptr);
}

UINT GetProfileIntA(const char* section, const char* key, int32_t def) {
  if (home_dir().empty()) return win32::kept(::GetProfileIntA(section, key, def));
  return GetPrivateProfileIntA(section, key, def, nullptr);
}

BOOL WriteProfileStringA(const char* section, const char* key, const char* value) {
  if (home_dir().empty()) return win32::kept(::WriteProfileStringA(section, key, value));
  return WritePrivateProfileStringA(section, key, value, nullptr);
}

// The default search ends in the private folder when there is one: it stands
// for the Windows folder there, as it does for the system profile.
DWORD SearchPathA(const char* path, const char* file, const char* ext, DWORD size, char* buf,
                  char** file_part) {
  DWORD r = win32::kept(static_cast<DWORD>(::SearchPathA(path, file, ext, size, buf, file_part)));
  const std::string home = home_dir();
  if (r != 0 || path != nullptr || home.empty() || !file || !*file) return r;
  const DWORD error = GetLastError();
  DWORD in_home = static_cast<DWORD>(::SearchPathA(home.c_str(), file, ext, size, buf, file_part));
  if (in_home != 0) return win32::kept(in_home);
  SetLastError(error);
  return 0;
}

std::string config_dir() {
  std::string home = home_dir();
  if (!home.empty()) return home;
  char buf[MAX_PATH + 1];
  UINT n = ::GetWindowsDirectoryA(buf, sizeof buf);
  win32::keep_error();
  if (n == 0 || n >= sizeof buf) return std::string("C:\\Windows");
  std::string dir(buf, n);
  while (dir.size() > 3 && (dir.back() == '\\' || dir.back() == '/')) dir.pop_back();
  return dir;
}

// ---------------------------------------------------------------- registry
LONG RegCreateKeyExA(HKEY key, const char* subkey, DWORD reserved, char* cls, DWORD options,
                     DWORD sam, void* security, HKEY* result, DWORD* disposition) {
  bool opened = false;
  ::HKEY base = map_root(key, &opened);
  // Under the scratch key every key is volatile, as its parent must be.
  if (!home_dir().empty()) options |= REG_OPTION_VOLATILE;
  ::HKEY out = nullptr;
  ::DWORD disp = 0;
  LONG r = ::RegCreateKeyExA(base, subkey, reserved, cls, options, sam,
                             static_cast<LPSECURITY_ATTRIBUTES>(security), &out, &disp);
  win32::keep_error();
  if (opened) ::RegCloseKey(base);
  if (result) *result = out;
  if (disposition) *disposition = static_cast<DWORD>(disp);
  return r;
}

LONG RegOpenKeyExA(HKEY key, const char* subkey, DWORD options, DWORD sam, HKEY* result) {
  bool opened = false;
  ::HKEY base = map_root(key, &opened);
  ::HKEY out = nullptr;
  LONG r = ::RegOpenKeyExA(base, subkey, options, sam, &out);
  win32::keep_error();
  if (opened) ::RegCloseKey(base);
  if (result) *result = out;
  return r;
}

LONG RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, uint8_t* data, DWORD* size) {
  bool opened = false;
  ::HKEY k = map_root(key, &opened);
  ::DWORD t = 0, s = size ? *size : 0;
  LONG r = ::RegQueryValueExA(k, name, nullptr, type ? &t : nullptr, data, size ? &s : nullptr);
  win32::keep_error();
  if (opened) ::RegCloseKey(k);
  if (type) *type = static_cast<DWORD>(t);
  if (size) *size = static_cast<DWORD>(s);
  return r;
}

LONG RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const uint8_t* data,
                    DWORD size) {
  bool opened = false;
  ::HKEY k = map_root(key, &opened);
  LONG r = ::RegSetValueExA(k, name, reserved, type, data, size);
  win32::keep_error();
  if (opened) ::RegCloseKey(k);
  return r;
}

LONG RegDeleteValueA(HKEY key, const char* name) {
  bool opened = false;
  ::HKEY k = map_root(key, &opened);
  LONG r = ::RegDeleteValueA(k, name);
  win32::keep_error();
  if (opened) ::RegCloseKey(k);
  return r;
}

LONG RegFlushKey(HKEY key) {
  if (!home_dir().empty()) return ERROR_SUCCESS;  // volatile keys have nothing to flush
  return win32::kept(::RegFlushKey(to_hkey(key)));
}

LONG RegCloseKey(HKEY key) { return win32::kept(::RegCloseKey(to_hkey(key))); }

// ---------------------------------------------------------------- message boxes
void reset_message_box_script() {
  std::lock_guard<std::mutex> lock(g_script_mutex);
  g_script_source.clear();
  g_script_pos = 0;
}

int MessageBoxA(HWND owner, const char* text, const char* caption, UINT style) {
  int answer = 0;
  if (detail::call_message_box_handler(text, caption, style, &answer)) return answer;
  answer = next_scripted_answer();
  if (answer > 0) return detail::box_has_button(style, answer) ? answer : detail::default_answer(style);
  if (answer < 0) return win32::kept(::MessageBoxA(static_cast<::HWND>(owner), text, caption, style));
  // The script is used up: never leave an unattended run waiting on a window.
  std::string msg;
  if (caption && *caption) msg = std::string(caption) + ": ";
  msg += text ? text : "";
  msg += '\n';
  write_stderr(msg);
  return detail::default_answer(style);
}

void FatalAppExitA(UINT action, const char* text) {
  const char* script = std::getenv("ZBSHR_MSGBOX");
  if (script && *script) {
    write_stderr(std::string(text ? text : "") + "\n");
  } else {
    ::FatalAppExitA(action, text);
  }
  ::ExitProcess(3);
}

}  // namespace zbshr::plat
