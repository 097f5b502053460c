// osOpenFile: the library's single way of opening files, driven by the
// classic OF_* mode flags and carried out with the 32-bit file functions.
#include <cstring>

#include "platform/platform.h"
#include "zbshr/system.h"

namespace {

namespace plat = zbshr::plat;

constexpr uint16_t kRecordLength = 268;

void set_error(OSOFSTRUCT* of, plat::DWORD code) {
  of->nErrCode = static_cast<uint16_t>(code);
}

plat::DWORD last_error_or(plat::DWORD fallback) {
  plat::DWORD e = plat::GetLastError();
  return e != 0 ? e : fallback;
}

plat::DWORD access_rights(uint16_t mode) {
  switch (mode & 0x000F) {
    case OF_READ: return plat::GENERIC_READ;
    case OF_WRITE: return plat::GENERIC_WRITE;
    case OF_READWRITE: return plat::GENERIC_READ | plat::GENERIC_WRITE;
    default: return 0;  // no access rights
  }
}

plat::DWORD share_mode(uint16_t mode) {
  switch (mode & 0x00F0) {
    case OF_SHARE_COMPAT:
    case OF_SHARE_DENY_NONE: return plat::FILE_SHARE_READ | plat::FILE_SHARE_WRITE;
    case OF_SHARE_DENY_WRITE: return plat::FILE_SHARE_READ;
    case OF_SHARE_DENY_READ: return plat::FILE_SHARE_WRITE;
    default: return 0;  // exclusive, and every value above 0x40
  }
}

}  // namespace

extern "C" {

ZBSHR_API(int32_t) osOpenFile(const char* name, OSOFSTRUCT* of, uint16_t mode) {
  if (of == nullptr) return -1;
  std::memset(of, 0, sizeof *of);
  of->cBytes = kRecordLength;
  if (name == nullptr) {
    set_error(of, plat::ERROR_INVALID_PARAMETER);
    return -1;
  }
  try {
    // Plain opens and existence tests search for the file; create, delete and
    // parse act on the name made absolute against the current folder.
    plat::DWORD n;
    if ((mode & (OF_PARSE | OF_CREATE | OF_DELETE)) == 0) {
      plat::SetLastError(0);
      n = plat::SearchPathA(nullptr, name, nullptr, OS_OFS_MAXPATH, of->szPathName, nullptr);
      if (n == 0) {
        set_error(of, last_error_or(plat::ERROR_FILE_NOT_FOUND));
        of->szPathName[0] = '\0';
        return -1;
      }
    } else {
      plat::SetLastError(0);
      n = plat::GetFullPathNameA(name, OS_OFS_MAXPATH, of->szPathName, nullptr);
      if (n == 0) {
        set_error(of, last_error_or(plat::ERROR_INVALID_PARAMETER));
        of->szPathName[0] = '\0';
        return -1;
      }
    }
    if (n >= OS_OFS_MAXPATH) {
      set_error(of, plat::ERROR_BUFFER_OVERFLOW);  // 111: the full path does not fit
      of->szPathName[0] = '\0';
      return -1;
    }
    of->szPathName[OS_OFS_MAXPATH - 1] = '\0';

    if (mode & (OF_PARSE | OF_EXIST)) return 1;

    if (mode & OF_DELETE) {
      if (plat::DeleteFileA(of->szPathName)) return 1;
      set_error(of, last_error_or(plat::ERROR_FILE_NOT_FOUND));
      return -1;
    }

    plat::DWORD access = access_rights(mode);
    plat::DWORD disposition = plat::OPEN_EXISTING;
    if (mode & OF_CREATE) {
      access |= plat::GENERIC_WRITE;
      disposition = plat::CREATE_ALWAYS;
    }
    plat::SetLastError(0);
    plat::HFILE h = plat::CreateFileA(of->szPathName, access, share_mode(mode), disposition,
                                      plat::FILE_ATTRIBUTE_NORMAL);
    if (h == plat::INVALID_HANDLE) {
      set_error(of, last_error_or(plat::ERROR_ACCESS_DENIED));
      return -1;
    }
    return h;
  } catch (...) {
    set_error(of, plat::ERROR_NOT_ENOUGH_MEMORY);
    return -1;
  }
}

}  // extern "C"
