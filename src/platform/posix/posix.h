// Helpers shared by the POSIX backend's source files.
#pragma once

#include <string>

#include "platform/platform.h"

namespace zbshr::plat::posix {

// The Win32 error code that corresponds to an errno value.
DWORD ErrorFromErrno(int err);

// Reads a whole file; false (and the last error set) when it cannot be read.
// A missing file gives false with ERROR_FILE_NOT_FOUND.
bool ReadWholeFile(const std::string& path, std::string* out);

// Replaces `path` with `content` in one step: writes a sibling temporary file,
// flushes it and renames it over the original. The folder is created when
// `make_dirs` is set. False (and the last error set) on failure; the original
// is then untouched.
bool ReplaceFileAtomically(const std::string& path, const std::string& content, bool make_dirs);

// Creates a folder and its missing parents.
bool MakeDirs(const std::string& dir);

// True when a file or folder exists at the native path.
bool Exists(const std::string& native);

}  // namespace zbshr::plat::posix
