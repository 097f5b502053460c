// Files on POSIX: Win32-style opens with sharing enforced across processes,
// reads, writes and seeks on plain descriptors, and path services.
//
// Sharing. Every open that reads or writes takes shared open-file-description
// locks on single bytes far beyond any real file size: one byte per access it
// has (read, write) and one per access it denies to others (read, write,
// delete). An open then conflicts with existing ones exactly when another
// description holds a "denies X" byte for an access X it wants, or holds an
// "has X" byte for an access X it denies. The locks belong to the open file
// description, so they work between descriptions in one process as well as
// between processes, and vanish when the descriptor is closed or the process
// dies. The new open takes its own locks first and then looks for conflicts,
// so two racing opens can both fail but never both succeed wrongly.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/internal.h"
#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {

using posix::dirname;
using posix::not_found_kind;

namespace {

// The reserved lock bytes.
constexpr off_t kLockBase = static_cast<off_t>(0x7FFFFFFF00000000LL);
constexpr off_t kHasRead = kLockBase + 0;
constexpr off_t kHasWrite = kLockBase + 1;
constexpr off_t kDeniesRead = kLockBase + 2;
constexpr off_t kDeniesWrite = kLockBase + 3;
constexpr off_t kDeniesDelete = kLockBase + 4;

struct HandleInfo {
  bool open = false;
  bool can_read = false;
  bool can_write = false;
  int lock_fd = -1;  // a second description carrying the sharing locks, or -1
};

std::mutex g_handles_mutex;
std::vector<HandleInfo> g_handles;

bool lookup(HFILE f, HandleInfo* out) {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  if (f < 0 || static_cast<size_t>(f) >= g_handles.size() || !g_handles[f].open) return false;
  *out = g_handles[f];
  return true;
}

void register_open(int fd, bool can_read, bool can_write, int lock_fd) {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  if (static_cast<size_t>(fd) >= g_handles.size()) g_handles.resize(fd + 16);
  g_handles[fd] = HandleInfo{true, can_read, can_write, lock_fd};
}

bool unregister_open(HFILE f, int* lock_fd) {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  if (f < 0 || static_cast<size_t>(f) >= g_handles.size() || !g_handles[f].open) return false;
  *lock_fd = g_handles[f].lock_fd;
  g_handles[f] = HandleInfo{};
  return true;
}

enum class Access { Any, Read, Write };

// Checks that f is open and, where asked, open for reading or writing; sets
// the last error as Windows does when it is not.
bool usable(HFILE f, Access need) {
  HandleInfo info;
  if (!lookup(f, &info)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  if ((need == Access::Read && !info.can_read) || (need == Access::Write && !info.can_write)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
  }
  return true;
}

// Reads the status of the open file f; a handle that is not open, or that
// cannot be looked at, is an invalid handle.
bool stat_open(HFILE f, struct stat* st) {
  HandleInfo info;
  if (!lookup(f, &info) || fstat(f, st) != 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  return true;
}

bool take_shared_byte(int fd, off_t where) {
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = where;
  fl.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

// True when another open file description holds a lock on the byte.
bool held_by_others(int fd, off_t where) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = where;
  fl.l_len = 1;
  if (fcntl(fd, F_OFD_GETLK, &fl) != 0) return false;
  return fl.l_type != F_UNLCK;
}

}  // namespace

HFILE CreateFileA(const char* name, DWORD access, DWORD share, DWORD disposition,
                  DWORD flags_and_attributes) {
  if (!name || !*name) {
    SetLastError(name ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE;
  }
  if (detail::fault_fires(Fault::Open)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE;
  }
  const bool want_read = (access & GENERIC_READ) != 0;
  const bool want_write = (access & GENERIC_WRITE) != 0;
  int flags = O_CLOEXEC;
  bool truncate_after = false;
  switch (disposition) {
    case CREATE_NEW: flags |= O_CREAT | O_EXCL; break;
    case CREATE_ALWAYS: flags |= O_CREAT; truncate_after = true; break;
    case OPEN_EXISTING: break;
    case OPEN_ALWAYS: flags |= O_CREAT; break;
    case TRUNCATE_EXISTING:
      if (!want_write) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE;
      }
      truncate_after = true;
      break;
    default:
      SetLastError(ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE;
  }
  if (flags_and_attributes & FILE_FLAG_WRITE_THROUGH) flags |= O_DSYNC;
  std::string path = native_path(name);
  if (!path.empty() && path.back() == '/') {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE;
  }
  struct stat st {};
  bool existed = stat(path.c_str(), &st) == 0;
  if (existed && S_ISDIR(st.st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE;
  }
  if (existed && disposition == CREATE_NEW) {
    SetLastError(ERROR_FILE_EXISTS);
    return INVALID_HANDLE;
  }
  // The descriptor has exactly the access asked for, so that a caller holding
  // it cannot read through a write-only handle, nor do either through one
  // opened for neither. A write-only descriptor cannot hold the shared
  // sharing locks: a read-only description of the same file carries them
  // for as long as the handle is open.
  int fd = -1;
  int lock_fd = -1;
  bool lockable = true;
  if (want_write) {
    fd = open(path.c_str(), flags | (want_read ? O_RDWR : O_WRONLY), 0666);
    if (fd >= 0 && !want_read) {
      lock_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (lock_fd < 0) lockable = false;  // no read permission: no sharing locks
    }
  } else if (want_read || (flags & O_CREAT)) {
    fd = open(path.c_str(), flags | O_RDONLY, 0666);
  } else {
    // Neither reading nor writing (attributes, size): needs no permission.
    fd = open(path.c_str(), O_PATH | O_CLOEXEC);
  }
  if (fd < 0) {
    int err = errno;
    if (err == ENOENT) SetLastError(not_found_kind(path));
    else SetLastError(posix::error_from_errno(err));
    return INVALID_HANDLE;
  }
  const int lk = lock_fd >= 0 ? lock_fd : fd;
  auto close_all = [&] {
    close(fd);
    if (lock_fd >= 0) close(lock_fd);
  };
  if ((want_read || want_write) && lockable) {
    const bool deny_read = !(share & FILE_SHARE_READ);
    const bool deny_write = !(share & FILE_SHARE_WRITE);
    const bool deny_delete = !(share & FILE_SHARE_DELETE);
    bool ok = (!want_read || take_shared_byte(lk, kHasRead)) &&
              (!want_write || take_shared_byte(lk, kHasWrite)) &&
              (!deny_read || take_shared_byte(lk, kDeniesRead)) &&
              (!deny_write || take_shared_byte(lk, kDeniesWrite)) &&
              (!deny_delete || take_shared_byte(lk, kDeniesDelete));
    if (ok) {
      bool conflict = (want_read && held_by_others(lk, kDeniesRead)) ||
                      (want_write && held_by_others(lk, kDeniesWrite)) ||
                      (deny_read && held_by_others(lk, kHasRead)) ||
                      (deny_write && held_by_others(lk, kHasWrite));
      if (conflict) {
        close_all();
        if (!existed) unlink(path.c_str());
        SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE;
      }
    }
  }
  if (truncate_after && existed && ftruncate(fd, 0) != 0) {
    int err = errno;
    close_all();
    SetLastError(posix::error_from_errno(err));
    return INVALID_HANDLE;
  }
  register_open(fd, want_read, want_write, lock_fd);
  // As on Windows, an open that found an existing file under CREATE_ALWAYS or
  // OPEN_ALWAYS says so in the last error.
  SetLastError((existed && (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS))
                   ? ERROR_ALREADY_EXISTS
                   : ERROR_SUCCESS);
  return fd;
}

BOOL ReadFile(HFILE f, void* buf, DWORD n, DWORD* got) {
  if (got) *got = 0;
  if (!usable(f, Access::Read)) return 0;
  if (detail::fault_fires(Fault::Read)) {
    SetLastError(ERROR_READ_FAULT);
    return 0;
  }
  if (n > 0 && !buf) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  auto* p = static_cast<char*>(buf);
  DWORD total = 0;
  while (total < n) {
    ssize_t r = read(f, p + total, n - total);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      if (got) *got = total;
      SetLastError(errno == EISDIR ? ERROR_ACCESS_DENIED : ERROR_READ_FAULT);
      return 0;
    }
    if (r == 0) break;
    total += static_cast<DWORD>(r);
  }
  if (got) *got = total;
  return 1;
}

static bool write_all_fd(int fd, const char* p, DWORD n, DWORD* done) {
  *done = 0;
  while (*done < n) {
    ssize_t w = write(fd, p + *done, n - *done);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) {
      SetLastError(errno == ENOSPC || errno == EDQUOT || errno == EFBIG ? ERROR_DISK_FULL
                                                                          : ERROR_WRITE_FAULT);
      return false;
    }
    if (w == 0) {
      SetLastError(ERROR_DISK_FULL);
      return false;
    }
    *done += static_cast<DWORD>(w);
  }
  return true;
}

BOOL WriteFile(HFILE f, const void* buf, DWORD n, DWORD* put) {
  if (put) *put = 0;
  if (!usable(f, Access::Write)) return 0;
  if (n > 0 && !buf) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  DWORD want = n;
  bool short_write = detail::fault_fires(Fault::Write);
  if (short_write) want = n / 2;
  DWORD done = 0;
  bool ok = write_all_fd(f, static_cast<const char*>(buf), want, &done);
  if (put) *put = done;
  if (!ok) {
    // Partial progress on a full disk is reported as a short write.
    return done > 0 ? 1 : 0;
  }
  if (short_write) SetLastError(ERROR_DISK_FULL);
  return 1;
}

// Moves the position; the callers below check for injected faults once.
static BOOL seek(HFILE f, int64_t distance, int64_t* new_pos, DWORD method) {
  if (!usable(f, Access::Any)) return 0;
  int whence;
  switch (method) {
    case FILE_BEGIN: whence = SEEK_SET; break;
    case FILE_CURRENT: whence = SEEK_CUR; break;
    case FILE_END: whence = SEEK_END; break;
    default:
      SetLastError(ERROR_INVALID_PARAMETER);
      return 0;
  }
  // Work out the target first, so that a negative result leaves the position alone.
  int64_t base = 0;
  if (whence == SEEK_CUR) {
    off_t cur = lseek(f, 0, SEEK_CUR);
    if (cur < 0) {
      SetLastError(posix::error_from_errno(errno));
      return 0;
    }
    base = cur;
  } else if (whence == SEEK_END) {
    struct stat st {};
    if (fstat(f, &st) != 0) {
      SetLastError(posix::error_from_errno(errno));
      return 0;
    }
    base = st.st_size;
  }
  if ((distance < 0 && base + distance < 0) || (distance > 0 && base > INT64_MAX - distance)) {
    SetLastError(ERROR_NEGATIVE_SEEK);
    return 0;
  }
  int64_t target = base + distance;
  off_t r = lseek(f, static_cast<off_t>(target), SEEK_SET);
  if (r < 0) {
    SetLastError(errno == EINVAL ? ERROR_NEGATIVE_SEEK : posix::error_from_errno(errno));
    return 0;
  }
  if (new_pos) *new_pos = r;
  return 1;
}

BOOL SetFilePointerEx(HFILE f, int64_t distance, int64_t* new_pos, DWORD method) {
  if (detail::fault_fires(Fault::Seek)) {
    SetLastError(ERROR_SEEK);
    return 0;
  }
  return seek(f, distance, new_pos, method);
}

DWORD SetFilePointer(HFILE f, LONG distance, LONG* high, DWORD method) {
  if (detail::fault_fires(Fault::Seek)) {
    SetLastError(ERROR_SEEK);
    return INVALID_SET_FILE_POINTER;
  }
  int64_t d = high ? static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(*high)) << 32) |
                                          static_cast<uint32_t>(distance))
                   : static_cast<int64_t>(distance);
  int64_t pos = 0, before = 0;
  if (!high && !seek(f, 0, &before, FILE_CURRENT)) return INVALID_SET_FILE_POINTER;
  if (!seek(f, d, &pos, method)) return INVALID_SET_FILE_POINTER;
  if (!high && pos > 0xFFFFFFFFLL) {
    // The position does not fit the 32-bit answer: Windows refuses the move.
    seek(f, before, nullptr, FILE_BEGIN);
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_SET_FILE_POINTER;
  }
  if (high) *high = static_cast<LONG>(static_cast<uint64_t>(pos) >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(pos & 0xFFFFFFFFu);
}

BOOL SetEndOfFile(HFILE f) {
  if (!usable(f, Access::Write)) return 0;
  off_t cur = lseek(f, 0, SEEK_CUR);
  if (cur < 0 || ftruncate(f, cur) != 0) {
    SetLastError(posix::error_from_errno(errno));
    return 0;
  }
  return 1;
}

BOOL GetFileSizeEx(HFILE f, int64_t* size) {
  struct stat st {};
  if (!stat_open(f, &st)) return 0;
  if (size) *size = st.st_size;
  return 1;
}

DWORD GetFileSize(HFILE f, DWORD* high) {
  int64_t size = 0;
  if (!GetFileSizeEx(f, &size)) return INVALID_FILE_SIZE;
  if (high) *high = static_cast<DWORD>(static_cast<uint64_t>(size) >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(size & 0xFFFFFFFFu);
}

BOOL FlushFileBuffers(HFILE f) {
  if (!usable(f, Access::Write)) return 0;
  if (fsync(f) != 0) {
    SetLastError(ERROR_WRITE_FAULT);
    return 0;
  }
  return 1;
}

BOOL CloseHandle(HFILE f) {
  int lock_fd = -1;
  if (!unregister_open(f, &lock_fd)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  close(f);
  if (lock_fd >= 0) close(lock_fd);
  return 1;
}

BOOL get_file_time_unix(HFILE f, int64_t* seconds) {
  struct stat st {};
  if (!stat_open(f, &st)) return 0;
  if (seconds) *seconds = st.st_mtime;
  return 1;
}

// Refuses deleting or renaming a file that an open holds without allowing it.
static bool delete_denied(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  bool denied = held_by_others(fd, kDeniesDelete);
  close(fd);
  return denied;
}

BOOL DeleteFileA(const char* name) {
  if (!name || !*name) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
  }
  std::string path = native_path(name);
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    SetLastError(errno == ENOENT ? not_found_kind(path) : posix::error_from_errno(errno));
    return 0;
  }
  if (S_ISDIR(st.st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  if (S_ISREG(st.st_mode) && delete_denied(path)) {
    SetLastError(ERROR_SHARING_VIOLATION);
    return 0;
  }
  if (unlink(path.c_str()) != 0) {
    SetLastError(posix::error_from_errno(errno));
    return 0;
  }
  return 1;
}

BOOL MoveFileExA(const char* from, const char* to, DWORD flags) {
  if (!from || !to || !*from || !*to) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string src = native_path(from);
  std::string dst = native_path(to);
  struct stat st {};
  if (lstat(src.c_str(), &st) != 0) {
    SetLastError(errno == ENOENT ? not_found_kind(src) : posix::error_from_errno(errno));
    return 0;
  }
  if (S_ISREG(st.st_mode) && delete_denied(src)) {
    SetLastError(ERROR_SHARING_VIOLATION);
    return 0;
  }
  struct stat dst_st {};
  bool dst_exists = lstat(dst.c_str(), &dst_st) == 0;
  if (dst_exists && !(flags & MOVEFILE_REPLACE_EXISTING)) {
    SetLastError(ERROR_ALREADY_EXISTS);
    return 0;
  }
  if (dst_exists && S_ISDIR(dst_st.st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  if (dst_exists && S_ISREG(dst_st.st_mode) && delete_denied(dst)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  if (flags & MOVEFILE_REPLACE_EXISTING) {
    if (rename(src.c_str(), dst.c_str()) != 0) {
      SetLastError(errno == ENOENT ? not_found_kind(dst) : posix::error_from_errno(errno));
      return 0;
    }
  } else {
    // Without replace, the move must not clobber a file created meanwhile.
    if (renameat2(AT_FDCWD, src.c_str(), AT_FDCWD, dst.c_str(), RENAME_NOREPLACE) != 0) {
      if (errno == EEXIST) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return 0;
      }
      if (errno != EINVAL && errno != ENOSYS) {
        SetLastError(errno == ENOENT ? not_found_kind(dst) : posix::error_from_errno(errno));
        return 0;
      }
      if (rename(src.c_str(), dst.c_str()) != 0) {
        SetLastError(posix::error_from_errno(errno));
        return 0;
      }
    }
  }
  if (flags & MOVEFILE_WRITE_THROUGH) {
    int dfd = open(dirname(dst).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      fsync(dfd);
      close(dfd);
    }
  }
  return 1;
}

DWORD GetFileAttributesA(const char* name) {
  if (!name || !*name) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return INVALID_FILE_ATTRIBUTES;
  }
  std::string path = native_path(name);
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    SetLastError(errno == ENOENT ? not_found_kind(path) : posix::error_from_errno(errno));
    return INVALID_FILE_ATTRIBUTES;
  }
  DWORD attrs = 0;
  if (S_ISDIR(st.st_mode)) attrs |= FILE_ATTRIBUTE_DIRECTORY;
  if (access(path.c_str(), W_OK) != 0) attrs |= FILE_ATTRIBUTE_READONLY;
  return attrs ? attrs : FILE_ATTRIBUTE_NORMAL;
}

int32_t _lread(HFILE f, void* buf, UINT n) {
  DWORD got = 0;
  if (!ReadFile(f, buf, n, &got)) return HFILE_ERROR;
  return static_cast<int32_t>(got);
}

int32_t _lwrite(HFILE f, const void* buf, UINT n) {
  DWORD put = 0;
  if (!WriteFile(f, buf, n, &put)) return HFILE_ERROR;
  return static_cast<int32_t>(put);
}

LONG _llseek(HFILE f, LONG offset, int origin) {
  int64_t pos = 0;
  if (!SetFilePointerEx(f, offset, &pos, static_cast<DWORD>(origin))) return HFILE_ERROR;
  return static_cast<LONG>(pos);
}

HFILE _lclose(HFILE f) { return CloseHandle(f) ? 0 : HFILE_ERROR; }

}  // namespace zbshr::plat
