// Search and temporary paths on POSIX: SearchPath's folder list, the
// temporary folder and unique temporary file names.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {

using posix::copy_out;
using posix::current_dir;
using posix::normalise;
using posix::program_dir;
using posix::set_file_part;
using posix::slashes;

DWORD SearchPathA(const char* path, const char* file, const char* ext, DWORD size, char* buf,
                  char** file_part) {
  if (file_part) *file_part = nullptr;
  if (!file || !*file) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string name = slashes(file);
  // The extension is added only when the name has none of its own.
  if (ext && *ext) {
    size_t slash = name.find_last_of('/');
    std::string last = slash == std::string::npos ? name : name.substr(slash + 1);
    if (last.find('.') == std::string::npos) name += ext;
  }
  auto found = [&](const std::string& candidate) -> DWORD {
    std::string native = native_path(candidate.c_str());
    struct stat st {};
    if (stat(native.c_str(), &st) != 0) return 0;
    std::string full = normalise(native);
    DWORD r = copy_out(full, size, buf);
    set_file_part(buf, r, size, file_part);
    return r;
  };
  if (name[0] == '/') {
    if (DWORD r = found(name)) return r;
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
  }
  std::vector<std::string> dirs;
  auto add_list = [&](const std::string& list) {
    size_t i = 0;
    while (i <= list.size()) {
      size_t j = list.find_first_of(";:", i);
      if (j == std::string::npos) j = list.size();
      if (j > i) dirs.push_back(slashes(list.substr(i, j - i).c_str()));
      i = j + 1;
    }
  };
  if (path) {
    add_list(path);
  } else {
    std::string prog = program_dir();
    if (!prog.empty()) dirs.push_back(prog);
    dirs.push_back(current_dir());
    dirs.push_back(config_dir());
    if (const char* env = std::getenv("PATH")) add_list(env);
  }
  for (const auto& d : dirs) {
    std::string candidate = d;
    if (candidate.empty() || candidate.back() != '/') candidate += '/';
    candidate += name;
    if (DWORD r = found(candidate)) return r;
  }
  SetLastError(ERROR_FILE_NOT_FOUND);
  return 0;
}

DWORD GetTempPathA(DWORD size, char* buf) {
  const char* env = std::getenv("TMPDIR");
  std::string dir = env && *env ? env : "/tmp";
  if (dir.back() != '/') dir += '/';
  return copy_out(dir, size, buf);
}

UINT GetTempFileNameA(const char* dir, const char* prefix, UINT unique, char* out) {
  if (!out) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string folder;
  if (dir && *dir) {
    folder = slashes(dir);
  } else {
    char tmp[4096];
    DWORD n = GetTempPathA(sizeof tmp, tmp);
    folder = n > 0 && n < sizeof tmp ? std::string(tmp, n) : std::string("/tmp/");
  }
  if (folder.back() != '/') folder += '/';
  std::string pre = prefix ? std::string(prefix).substr(0, 3) : std::string();
  std::replace(pre.begin(), pre.end(), '\\', '/');
  auto make_name = [&](UINT n) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X", n);
    return folder + pre + hex + ".TMP";
  };
  constexpr size_t kMaxPath = 260;
  if (unique != 0) {
    std::string name = make_name(unique & 0xFFFFu);
    if (name.size() + 1 > kMaxPath) {
      SetLastError(ERROR_BUFFER_OVERFLOW);
      return 0;
    }
    std::memcpy(out, name.c_str(), name.size() + 1);
    return unique & 0xFFFFu;
  }
  std::string native_folder = native_path(folder.c_str());
  if (!native_folder.empty() && native_folder.back() != '/') native_folder += '/';
  struct stat st {};
  if (stat(native_folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
  }
  UINT start = (GetTickCount() ^ static_cast<UINT>(getpid())) & 0xFFFFu;
  if (start == 0) start = 1;
  UINT n = start;
  do {
    std::string name = make_name(n);
    if (name.size() + 1 > kMaxPath) {
      SetLastError(ERROR_BUFFER_OVERFLOW);
      return 0;
    }
    std::string native = native_folder + name.substr(folder.size());
    int fd = open(native.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
    if (fd >= 0) {
      close(fd);
      std::memcpy(out, name.c_str(), name.size() + 1);
      return n;
    }
    if (errno != EEXIST) {
      SetLastError(posix::error_from_errno(errno));
      return 0;
    }
    n = n == 0xFFFFu ? 1 : n + 1;
  } while (n != start);
  SetLastError(ERROR_FILE_EXISTS);
  return 0;
}

}  // namespace zbshr::plat
