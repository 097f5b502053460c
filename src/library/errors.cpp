// Library files: why the last library call on this thread failed.
//
// Every exported call that goes through the library's call guard starts with
// err_begin and ends with err_end. Code deep inside the call that knows the real
// reason (a system error, a file that is not a library, the format's size
// limit) notes it with err_note; err_end keeps that note when the call fails
// with the same code, and otherwise records the generic text of the code.
#include <algorithm>
#include <cstring>

#include "library/recovery.h"

namespace zbshr::lm {

namespace {

struct Reason {
  int32_t code = 0;
  std::string text;
  bool noted = false;
};

thread_local Reason t_call;  // reason noted by the call in progress
thread_local Reason t_last;  // outcome of the last call that ended
thread_local int t_depth = 0;

const char* system_reason(plat::DWORD e) {
  switch (e) {
    case plat::ERROR_FILE_NOT_FOUND: return "the file does not exist";
    case plat::ERROR_PATH_NOT_FOUND: return "the folder does not exist";
    case plat::ERROR_TOO_MANY_OPEN_FILES: return "too many open files";
    case plat::ERROR_ACCESS_DENIED: return "access denied";
    case plat::ERROR_SHARING_VIOLATION: return "in use by another program";
    case plat::ERROR_FILE_EXISTS:
    case plat::ERROR_ALREADY_EXISTS: return "the file already exists";
    case plat::ERROR_DISK_FULL: return "the disk is full";
    case plat::ERROR_WRITE_FAULT: return "the system could not write the file";
    case plat::ERROR_READ_FAULT: return "the system could not read the file";
    case plat::ERROR_INVALID_NAME:
    case plat::ERROR_FILENAME_EXCED_RANGE: return "the file name is not valid";
    case plat::ERROR_NOT_ENOUGH_MEMORY: return "not enough memory";
    default: return nullptr;
  }
}

}  // namespace

const char* err_text(int32_t code) {
  switch (code) {
    case LMI_E_CREATE: return "the new library could not be written";
    case LMI_E_EXISTS: return "the library file already exists";
    case LMI_E_IO: return "a file could not be opened, read or written";
    case LMI_E_NULL_BUFFER: return "no data buffer was given";
    case LMI_E_ZERO_LENGTH: return "the byte count is zero";
    case LMI_E_NULL_HANDLE: return "no library handle was given";
    case LMI_E_NULL_INFO: return "no information record was given";
    case LMI_E_PATTERN: return "the name pattern is missing or not valid";
    case LMI_E_MODE: return "the entry open mode is not valid";
    case LMI_E_ARGUMENT: return "a name or path is missing or not valid";
    case LMI_E_NO_SPACE: return "the free-space bitmaps do not cover the file";
    case LMI_E_NOT_FOUND: return "no entry of that name";
    case LMI_E_NOT_OPEN: return "no entry is open";
    case LMI_E_NOT_READABLE: return "the entry is not open for reading";
    case LMI_E_READ_ONLY: return "the library or entry is not open for writing";
    case LMI_E_BUSY: return "another entry is open on this handle";
    case LMI_E_DISK_FULL: return "the disk is full";
    case LMI_E_DAMAGED: return "the library is damaged";
    case LMI_E_NULL_HEAP: return "no heap was given";
    case LMI_E_CHECKED_OUT: return "the entry is checked out";
    case LMI_E_SESSION_ARGS: return "a run-time session argument is missing";
    case LMI_E_REGISTERED: return "the entry is registered";
    case LMI_E_EXECUTABLE: return "the executable carrying the library cannot be opened";
    default: return "the library call failed";
  }
}

void err_begin() {
  if (t_depth++ == 0) t_call = Reason{};
}

int32_t err_end(int32_t rc) {
  if (t_depth > 0 && --t_depth > 0) return rc;
  try {
    if (rc >= 0) {
      t_last = Reason{};
    } else if (t_call.noted && t_call.code == rc) {
      t_last = t_call;
    } else {
      t_last = Reason{rc, err_text(rc), true};
    }
  } catch (...) {
    t_last.code = rc;
  }
  return rc;
}

void err_note(int32_t code, const std::string& text) {
  if (t_call.noted) return;
  try {
    t_call = Reason{code, text, true};
  } catch (...) {
  }
}

void err_note_system(int32_t code, const char* what, const std::string& path) {
  plat::DWORD e = plat::GetLastError();
  const char* why = system_reason(e);
  std::string t = std::string(what) + " " + path + ": ";
  t += why ? why : ("system error " + std::to_string(e)).c_str();
  err_note(code, t);
}

}  // namespace zbshr::lm

using namespace zbshr::lm;

ZBSHR_API(int32_t) zbshr_lib_last_error(char* buf, int32_t size) {
  if (buf && size > 0) {
    size_t n = std::min<size_t>(t_last.text.size(), size_t(size) - 1);
    std::memcpy(buf, t_last.text.data(), n);
    buf[n] = 0;
  }
  return t_last.code;
}
