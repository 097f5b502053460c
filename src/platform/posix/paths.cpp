// Path resolution on POSIX: Windows-style names (either separator, any
// letter case) mapped onto the file system, full path names, the current
// folder and the program's own file name.

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {
namespace {

// Case-insensitive lookup of one component in a folder: the first match in
// byte order, so that the choice does not depend on directory order.
bool find_in_folder(const std::string& folder, const std::string& comp, std::string* found) {
  DIR* d = opendir(folder.empty() ? "." : folder.c_str());
  if (!d) return false;
  bool ok = false;
  std::string best;
  while (dirent* e = readdir(d)) {
    if (strcasecmp(e->d_name, comp.c_str()) == 0) {
      if (!ok || best > e->d_name) best = e->d_name;
      ok = true;
    }
  }
  closedir(d);
  if (ok) *found = best;
  return ok;
}

}  // namespace

namespace posix {

std::string slashes(const char* name) {
  std::string s = name ? name : "";
  std::replace(s.begin(), s.end(), '\\', '/');
  return s;
}

std::string dirname(const std::string& p) {
  size_t slash = p.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return p.substr(0, slash);
}

DWORD copy_out(const std::string& s, DWORD size, char* buf) {
  if (s.size() + 1 > size || !buf) return static_cast<DWORD>(s.size() + 1);
  std::memcpy(buf, s.c_str(), s.size() + 1);
  return static_cast<DWORD>(s.size());
}

void set_file_part(char* buf, DWORD written, DWORD size, char** file_part) {
  if (!file_part) return;
  *file_part = nullptr;
  if (!buf || written == 0 || written >= size) return;
  char* slash = std::strrchr(buf, '/');
  char* part = slash ? slash + 1 : buf;
  if (*part) *file_part = part;
}

// A missing file in an existing folder is "file not found"; a missing folder
// on the way is "path not found".
DWORD not_found_kind(const std::string& native) {
  std::string dir = dirname(native);
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return ERROR_FILE_NOT_FOUND;
  return ERROR_PATH_NOT_FOUND;
}

std::string current_dir() {
  std::vector<char> buf(512);
  for (;;) {
    if (getcwd(buf.data(), buf.size())) return std::string(buf.data());
    if (errno != ERANGE || buf.size() > (1u << 20)) return std::string("/");
    buf.resize(buf.size() * 2);
  }
}

std::string normalise(const std::string& input) {
  std::string s = input;
  if (s.empty() || s[0] != '/') s = current_dir() + "/" + s;
  bool trailing = s.size() > 1 && s.back() == '/';
  std::vector<std::string> parts;
  size_t i = 0;
  while (i <= s.size()) {
    size_t j = s.find('/', i);
    if (j == std::string::npos) j = s.size();
    std::string comp = s.substr(i, j - i);
    if (comp.empty() || comp == ".") {
    } else if (comp == "..") {
      if (!parts.empty()) parts.pop_back();
    } else {
      parts.push_back(comp);
    }
    i = j + 1;
  }
  std::string out;
  for (const auto& p : parts) out += "/" + p;
  if (out.empty()) return "/";
  if (trailing) out += "/";
  return out;
}

std::string program_dir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return std::string();
  buf[n] = '\0';
  return dirname(buf);
}

}  // namespace posix

using posix::copy_out;
using posix::current_dir;
using posix::normalise;
using posix::set_file_part;
using posix::slashes;

std::string native_path(const char* name) {
  std::string s = slashes(name);
  if (s.empty()) return s;
  struct stat st {};
  if (lstat(s.c_str(), &st) == 0) return s;
  std::string out;
  size_t i = 0;
  if (s[0] == '/') {
    out = "/";
    i = 1;
  }
  bool missing = false;  // once a component is absent, the rest is kept as written
  while (i < s.size()) {
    size_t j = s.find('/', i);
    bool last = j == std::string::npos;
    if (last) j = s.size();
    std::string comp = s.substr(i, j - i);
    if (!comp.empty()) {
      std::string candidate = out + comp;
      if (!missing && comp != "." && comp != ".." && lstat(candidate.c_str(), &st) != 0) {
        std::string found;
        if (find_in_folder(out, comp, &found)) comp = found;
        else missing = true;
      }
      out += comp;
    }
    if (!last) {
      if (!out.empty() && out.back() != '/') out += '/';
    }
    i = j + 1;
  }
  return out;
}

DWORD GetFullPathNameA(const char* name, DWORD size, char* buf, char** file_part) {
  if (file_part) *file_part = nullptr;
  if (!name || !*name) {
    SetLastError(ERROR_INVALID_NAME);
    return 0;
  }
  std::string full = normalise(slashes(name));
  DWORD r = copy_out(full, size, buf);
  set_file_part(buf, r, size, file_part);
  return r;
}

DWORD GetCurrentDirectoryA(DWORD size, char* buf) { return copy_out(current_dir(), size, buf); }

DWORD GetModuleFileNameA(HINSTANCE, char* buf, DWORD size) {
  if (!buf || size == 0) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    buf[0] = '\0';
    return 0;
  }
  // As on Windows: a name that does not fit is cut, terminated, and the
  // full buffer size is returned with ERROR_INSUFFICIENT_BUFFER.
  if (static_cast<DWORD>(n) >= size) {
    std::memcpy(buf, path, size - 1);
    buf[size - 1] = '\0';
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return size;
  }
  std::memcpy(buf, path, static_cast<size_t>(n));
  buf[n] = '\0';
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(n);
}

}  // namespace zbshr::plat
