// Whole-file helpers of the POSIX backend: errno translation, folder
// creation, reading a file at once and replacing one atomically.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {

namespace posix {

DWORD error_from_errno(int err) {
  switch (err) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
    case ETXTBSY: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return ERROR_DISK_FULL;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case EIO: return ERROR_WRITE_FAULT;
    default: return ERROR_INVALID_PARAMETER;
  }
}

bool exists(const std::string& native) {
  struct stat st {};
  return stat(native.c_str(), &st) == 0;
}

bool create_dirs(const std::string& dir) {
  if (dir.empty()) return true;
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  std::string parent = dirname(dir);
  if (parent != dir && !create_dirs(parent)) return false;
  if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
    SetLastError(error_from_errno(errno));
    return false;
  }
  return true;
}

bool read_whole_file(const std::string& path, std::string* out) {
  out->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    SetLastError(error_from_errno(errno));
    return false;
  }
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      SetLastError(ERROR_READ_FAULT);
      close(fd);
      return false;
    }
    if (n == 0) break;
    out->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

bool replace_file_atomically(const std::string& path, const std::string& content, bool make_dirs) {
  std::string dir = dirname(path);
  if (make_dirs && !create_dirs(dir)) return false;
  std::string base = path.substr(path.find_last_of('/') == std::string::npos
                                     ? 0
                                     : path.find_last_of('/') + 1);
  std::string tmpl = (dir == "." && path.find('/') == std::string::npos ? std::string() : dir + "/") +
                     "." + base + ".XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  if (fd < 0) {
    SetLastError(error_from_errno(errno));
    return false;
  }
  // Keep the permissions of the file being replaced.
  struct stat st {};
  if (stat(path.c_str(), &st) == 0) fchmod(fd, st.st_mode & 07777);
  else fchmod(fd, 0666 & ~[] { mode_t m = umask(0); umask(m); return m; }());
  const char* p = content.data();
  size_t left = content.size();
  bool ok = true;
  while (left > 0) {
    ssize_t w = write(fd, p, left);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      SetLastError(error_from_errno(w < 0 ? errno : ENOSPC));
      ok = false;
      break;
    }
    p += w;
    left -= static_cast<size_t>(w);
  }
  if (ok && fsync(fd) != 0) {
    SetLastError(error_from_errno(errno));
    ok = false;
  }
  close(fd);
  if (ok && rename(name.data(), path.c_str()) != 0) {
    SetLastError(error_from_errno(errno));
    ok = false;
  }
  if (!ok) {
    unlink(name.data());
    return false;
  }
  int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  return true;
}

}  // namespace posix

}  // namespace zbshr::plat
