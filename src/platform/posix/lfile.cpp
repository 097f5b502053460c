// The classic handle calls, exported on POSIX so that a host can use the
// handles osOpenFile returns: open, create, read, write, seek and close, with
// the meanings of the Win32 functions of the same names (-1 on failure). On
// Windows the system's own functions serve the same handles.
#include <sys/stat.h>

#include <cstdint>

#include "platform/platform.h"
#include "zbshr/system.h"

namespace {

namespace plat = zbshr::plat;

constexpr int32_t kError = -1;  // HFILE_ERROR

// Sharing of a classic open mode (bits 4 to 6); false for an unknown value.
bool share_of(int32_t mode, plat::DWORD* share) {
  switch (mode & 0x70) {
    case 0x00:  // compatibility
    case 0x40:  // deny none
      *share = plat::FILE_SHARE_READ | plat::FILE_SHARE_WRITE;
      return true;
    case 0x10: *share = 0; return true;                        // exclusive
    case 0x20: *share = plat::FILE_SHARE_READ; return true;    // deny write
    case 0x30: *share = plat::FILE_SHARE_WRITE; return true;   // deny read
    default: return false;
  }
}

}  // namespace


ZBSHR_API(int32_t) _lopen(const char* path, int32_t mode) {
  try {
    static constexpr plat::DWORD kAccess[] = {plat::GENERIC_READ, plat::GENERIC_WRITE,
                                               plat::GENERIC_READ | plat::GENERIC_WRITE};
    plat::DWORD share = 0;
    if ((mode & ~0x73) != 0 || (mode & 3) == 3 || !share_of(mode, &share)) {
      plat::SetLastError(plat::ERROR_INVALID_PARAMETER);
      return kError;
    }
    plat::HFILE h = plat::CreateFileA(path, kAccess[mode & 3], share, plat::OPEN_EXISTING,
                                      plat::FILE_ATTRIBUTE_NORMAL);
    return h == plat::INVALID_HANDLE ? kError : h;
  } catch (...) {
    return kError;
  }
}

ZBSHR_API(int32_t) _lcreat(const char* path, int32_t attribute) {
  try {
    // 0 normal, or any of 1 read-only, 2 hidden, 4 system. POSIX has no
    // hidden or system files; a read-only file keeps a writable handle, as
    // on Windows, and only later opens are refused writing.
    if (attribute < 0 || attribute > 7) {
      plat::SetLastError(plat::ERROR_INVALID_PARAMETER);
      return kError;
    }
    plat::HFILE h = plat::CreateFileA(path, plat::GENERIC_READ | plat::GENERIC_WRITE,
                                      plat::FILE_SHARE_READ | plat::FILE_SHARE_WRITE,
                                      plat::CREATE_ALWAYS, plat::FILE_ATTRIBUTE_NORMAL);
    if (h == plat::INVALID_HANDLE) return kError;
    struct stat st {};
    if ((attribute & 1) && fstat(h, &st) == 0) fchmod(h, st.st_mode & ~0222);
    return h;
  } catch (...) {
    return kError;
  }
}

ZBSHR_API(uint32_t) _lread(int32_t file, void* buf, uint32_t n) {
  plat::DWORD got = 0;
  if (!plat::ReadFile(file, buf, n, &got)) return static_cast<uint32_t>(kError);
  return got;
}

ZBSHR_API(uint32_t) _lwrite(int32_t file, const char* buf, uint32_t n) {
  plat::DWORD put = 0;
  if (!plat::WriteFile(file, buf, n, &put)) return static_cast<uint32_t>(kError);
  return put;
}

ZBSHR_API(int32_t) _llseek(int32_t file, int32_t offset, int32_t origin) {
  if (origin < 0 || origin > 2) {
    plat::SetLastError(plat::ERROR_INVALID_PARAMETER);
    return kError;
  }
  return plat::_llseek(file, offset, origin);
}

ZBSHR_API(int32_t) _lclose(int32_t file) { return plat::CloseHandle(file) ? 0 : kError; }

