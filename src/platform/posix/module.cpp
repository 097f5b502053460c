// Modules on POSIX: the running program is the only module a name can find.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace zbshr::plat {
namespace {

char g_process_module;  // the address stands for the running program

std::string program_path() {
  if (const char* over = std::getenv("ZBSHR_HOST_PROGRAM"); over && *over) return over;
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return {};
  return std::string(path, static_cast<size_t>(n));
}

std::string base_name(const std::string& p) {
  size_t cut = p.find_last_of("/\\");
  return cut == std::string::npos ? p : p.substr(cut + 1);
}

std::string lower(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

std::string without_exe(std::string s) {
  if (s.size() > 4 && s.compare(s.size() - 4, 4, ".exe") == 0) s.resize(s.size() - 4);
  return s;
}

}  // namespace

HINSTANCE GetModuleHandleA(const char* name) {
  if (!name) return &g_process_module;
  std::string want = without_exe(lower(base_name(name)));
  std::string have = without_exe(lower(base_name(program_path())));
  if (!want.empty() && want == have) return &g_process_module;
  SetLastError(ERROR_FILE_NOT_FOUND);  // ERROR_MOD_NOT_FOUND has no counterpart here
  return nullptr;
}

DWORD module_file_name_of(HINSTANCE module, char* buf, DWORD size) {
  if (!buf || size == 0) return 0;
  std::string p = (module == &g_process_module || module == nullptr) ? program_path() : std::string();
  if (p.empty()) {
    buf[0] = '\0';
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
  }
  size_t n = p.size() < size ? p.size() : size - 1;
  std::memcpy(buf, p.data(), n);
  buf[n] = '\0';
  return static_cast<DWORD>(n);
}

}  // namespace zbshr::plat
