// Modules on Windows: the real module table of the process.
// platform.h comes first: the Windows headers define many of its names as macros.
#include "platform/platform.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

namespace zbshr::plat {

HINSTANCE GetModuleHandleA(const char* name) {
  return reinterpret_cast<HINSTANCE>(::GetModuleHandleA(name));
}

DWORD GetModuleFileNameOfA(HINSTANCE module, char* buf, DWORD size) {
  return ::GetModuleFileNameA(reinterpret_cast<HMODULE>(module), buf, size);
}

}  // namespace zbshr::plat
