// Helpers shared by the POSIX backend's source files.
#pragma once

#include <string>

#include "platform/platform.h"

namespace zbshr::plat::posix {

// The Win32 error code that corresponds to an errno value.
DWORD error_from_errno(int err);

// Reads a whole file; false (and the last error set) when it cannot be read.
// A missing file gives false with ERROR_FILE_NOT_FOUND.
bool read_whole_file(const std::string& path, std::string* out);

// Replaces `path` with `content` in one step: writes a sibling temporary file,
// flushes it and renames it over the original. The folder is created when
// `make_dirs` is set. False (and the last error set) on failure; the original
// is then untouched.
bool replace_file_atomically(const std::string& path, const std::string& content, bool make_dirs);

// Creates a folder and its missing parents.
bool create_dirs(const std::string& dir);

// True when a file or folder exists at the native path.
bool exists(const std::string& native);

// Path helpers shared by the file, path and search sources.

// The name with every '\\' turned into '/'; a null name gives "".
std::string slashes(const char* name);

// The folder part of a '/'-separated path ("." when there is none).
std::string dirname(const std::string& p);

// Copies s and its terminator into buf when it fits and returns its length;
// otherwise returns the size needed, terminator included, and writes nothing.
DWORD copy_out(const std::string& s, DWORD size, char* buf);

// Points *file_part at the last component of what copy_out wrote (or null).
void set_file_part(char* buf, DWORD written, DWORD size, char** file_part);

// ERROR_FILE_NOT_FOUND when the folder of `native` exists, else
// ERROR_PATH_NOT_FOUND.
DWORD not_found_kind(const std::string& native);

// The current folder, "/" when it cannot be read.
std::string current_dir();

// The absolute form of a '/'-separated path, with "." and ".." resolved.
std::string normalise(const std::string& input);

// The running program's folder, "" when unknown.
std::string program_dir();

}  // namespace zbshr::plat::posix
