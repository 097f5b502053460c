// Shared by the Windows backend's source files.
#pragma once

#include "platform/platform.h"

namespace zbshr::plat::win32 {

// The last error as the library reports it. The C++ runtime and the thread
// library make system calls of their own between the library's calls (a
// thread join clears the system's value), so every wrapper copies the
// system's value right after its real call, and GetLastError reads the copy.
void keep_error();

template <class R>
R kept(R r) {
  keep_error();
  return r;
}

}  // namespace zbshr::plat::win32
