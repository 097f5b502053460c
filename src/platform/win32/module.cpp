// Modules on Windows: the real module table of the process. ZBSHR_HOST_PROGRAM,
// when set, names the host program in place of the running one (tests and
// scripted hosts), as on POSIX.
// platform.h comes first: the Windows headers define many of its names as macros.
#include "platform/platform.h"
#include "platform/win32/win32.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace zbshr::plat {
namespace {

const char* host_program() {
  const char* over = std::getenv("ZBSHR_HOST_PROGRAM");
  return over && *over ? over : nullptr;
}

// The base name, lower case, without ".exe".
std::string stem(const char* path) {
  std::string p = path ? path : "";
  size_t cut = p.find_last_of("/\\");
  if (cut != std::string::npos) p = p.substr(cut + 1);
  for (char& c : p)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (p.size() > 4 && p.compare(p.size() - 4, 4, ".exe") == 0) p.resize(p.size() - 4);
  return p;
}

}  // namespace

HINSTANCE GetModuleHandleA(const char* name) {
  if (const char* host = host_program(); host && name && stem(name) == stem(host))
    return reinterpret_cast<HINSTANCE>(::GetModuleHandleA(nullptr));
  return win32::kept(reinterpret_cast<HINSTANCE>(::GetModuleHandleA(name)));
}

DWORD module_file_name_of(HINSTANCE module, char* buf, DWORD size) {
  const char* host = host_program();
  if (host && (module == nullptr || reinterpret_cast<HMODULE>(module) == ::GetModuleHandleA(nullptr))) {
    if (!buf || size == 0) return 0;
    size_t n = std::strlen(host);
    if (n >= size) n = size - 1;
    std::memcpy(buf, host, n);
    buf[n] = '\0';
    return static_cast<DWORD>(n);
  }
  return win32::kept(::GetModuleFileNameA(reinterpret_cast<HMODULE>(module), buf, size));
}

}  // namespace zbshr::plat
