// Modules on Windows: the real module table of the process.
#include <windows.h>

#include "platform/platform.h"

namespace zbshr::plat {

HINSTANCE GetModuleHandleA(const char* name) {
  return reinterpret_cast<HINSTANCE>(::GetModuleHandleA(name));
}

DWORD GetModuleFileNameOfA(HINSTANCE module, char* buf, DWORD size) {
  return ::GetModuleFileNameA(reinterpret_cast<HMODULE>(module), buf, size);
}

}  // namespace zbshr::plat
