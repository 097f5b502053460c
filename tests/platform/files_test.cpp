// Files and paths of the platform layer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstring>
#include <fstream>
#include <filesystem>
#include <string>

#include "platform/platform.h"
#include "scratch.h"

using namespace zbshr::plat;
using zbshr_test::Scratch;

namespace {

constexpr DWORD RW = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD SHARE_RW = FILE_SHARE_READ | FILE_SHARE_WRITE;

TEST(Files, DispositionsAndLastError) {
  ZBTEST_POSIX_ONLY("Windows answers TRUNCATE_EXISTING without write access itself");
  Scratch s;
  std::string p = s.path("a.dat");
  EXPECT_EQ(CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  std::string deep = s.path("no/such/b.dat");
  EXPECT_EQ(CreateFileA(deep.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);

  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
  ASSERT_NE(f, INVALID_HANDLE);
  EXPECT_GE(f, 0);
  DWORD put = 0;
  ASSERT_TRUE(WriteFile(f, "hello world", 11, &put));
  EXPECT_EQ(put, 11u);
  CloseHandle(f);
  EXPECT_EQ(CreateFileA(p.c_str(), RW, 0, CREATE_NEW, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);

  f = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_ALWAYS, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(GetFileSize(f, nullptr), 11u);
  CloseHandle(f);

  f = CreateFileA(p.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(GetFileSize(f, nullptr), 0u);
  WriteFile(f, "xyz", 3, &put);
  CloseHandle(f);

  f = CreateFileA(p.c_str(), GENERIC_WRITE, 0, TRUNCATE_EXISTING, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  EXPECT_EQ(GetFileSize(f, nullptr), 0u);
  CloseHandle(f);
  EXPECT_EQ(CreateFileA(p.c_str(), GENERIC_READ, 0, TRUNCATE_EXISTING, 0), INVALID_HANDLE);
  EXPECT_EQ(CreateFileA(p.c_str(), GENERIC_READ, 0, 99, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CreateFileA(s.dir().c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(Files, ReadWriteSeekAndAccessChecks) {
  ZBTEST_POSIX_ONLY("Windows answers a 32-bit seek past 4 GiB itself");
  Scratch s;
  std::string p = s.path("rw.dat");
  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
  ASSERT_NE(f, INVALID_HANDLE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(f, "0123456789", 10, &n));
  EXPECT_EQ(SetFilePointer(f, 2, nullptr, FILE_BEGIN), 2u);
  char buf[16] = {};
  ASSERT_TRUE(ReadFile(f, buf, 3, &n));
  EXPECT_EQ(n, 3u);
  EXPECT_STREQ(buf, "234");
  EXPECT_EQ(SetFilePointer(f, -2, nullptr, FILE_END), 8u);
  EXPECT_EQ(SetFilePointer(f, -1, nullptr, FILE_CURRENT), 7u);
  // A seek before the start fails and leaves the position alone.
  EXPECT_EQ(SetFilePointer(f, -100, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
  EXPECT_EQ(SetFilePointer(f, 0, nullptr, FILE_CURRENT), 7u);
  // Reading at end of file succeeds with nothing read.
  SetFilePointer(f, 0, nullptr, FILE_END);
  ASSERT_TRUE(ReadFile(f, buf, 5, &n));
  EXPECT_EQ(n, 0u);
  // 64-bit positions through the high half.
  LONG high = 1;
  DWORD low = SetFilePointer(f, 5, &high, FILE_BEGIN);
  EXPECT_EQ(low, 5u);
  EXPECT_EQ(high, 1);
  int64_t pos = -1;
  ASSERT_TRUE(SetFilePointerEx(f, 0, &pos, FILE_CURRENT));
  EXPECT_EQ(pos, (int64_t{1} << 32) + 5);
  // Without the high half a position past 4 GiB cannot be told: refused,
  // and the position stays where it was.
  ASSERT_TRUE(SetFilePointerEx(f, 3, nullptr, FILE_BEGIN));
  EXPECT_EQ(SetFilePointer(f, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0x80000002u);
  // 0xFFFFFFFF is a valid position too: success says so by a zero last error.
  EXPECT_EQ(SetFilePointer(f, 0x7FFFFFFD, nullptr, FILE_CURRENT), 0xFFFFFFFFu);
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  EXPECT_EQ(SetFilePointer(f, 10, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  ASSERT_TRUE(SetFilePointerEx(f, 0, &pos, FILE_CURRENT));
  EXPECT_EQ(pos, 0xFFFFFFFFLL);
  // One injected seek failure fails exactly one call.
  InjectFault(Fault::Seek, 1, 1);
  EXPECT_EQ(SetFilePointer(f, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetLastError(), ERROR_SEEK);
  EXPECT_EQ(SetFilePointer(f, 0, nullptr, FILE_BEGIN), 0u);
  // Cutting the file at the position.
  ASSERT_TRUE(SetFilePointerEx(f, 4, nullptr, FILE_BEGIN));
  ASSERT_TRUE(SetEndOfFile(f));
  int64_t size = 0;
  ASSERT_TRUE(GetFileSizeEx(f, &size));
  EXPECT_EQ(size, 4);
  EXPECT_TRUE(FlushFileBuffers(f));
  int64_t mtime = 0;
  ASSERT_TRUE(GetFileTimeUnix(f, &mtime));
  EXPECT_LE(std::abs(mtime - static_cast<int64_t>(time(nullptr))), 300);
  EXPECT_TRUE(CloseHandle(f));
  EXPECT_FALSE(CloseHandle(f));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(s.read("rw.dat"), "0123");

  // A read-only handle refuses writes, a write-only one refuses reads.
  f = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  EXPECT_FALSE(WriteFile(f, "x", 1, &n));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_FALSE(SetEndOfFile(f));
  CloseHandle(f);
  f = CreateFileA(p.c_str(), GENERIC_WRITE, SHARE_RW, OPEN_EXISTING, 0);
  EXPECT_FALSE(ReadFile(f, buf, 1, &n));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  CloseHandle(f);
  EXPECT_FALSE(ReadFile(9999, buf, 1, &n));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(GetFileSize(-5, nullptr), INVALID_FILE_SIZE);
}

#if !defined(_WIN32)
// The open flags of a descriptor as the kernel reports them.
long KernelFlags(HFILE f) {
  std::ifstream in("/proc/self/fdinfo/" + std::to_string(f));
  std::string word;
  while (in >> word)
    if (word == "flags:") {
      std::string octal;
      in >> octal;
      return std::stol(octal, nullptr, 8);
    }
  return -1;
}
#endif

TEST(Files, WriteThroughOpensSynchronously) {
  ZBTEST_POSIX_ONLY("it reads the kernel's open flags under /proc");
#if !defined(_WIN32)
  Scratch s;
  HFILE plain = CreateFileA(s.path("p").c_str(), RW, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  HFILE sync = CreateFileA(s.path("s").c_str(), RW, 0, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
  ASSERT_NE(plain, INVALID_HANDLE);
  ASSERT_NE(sync, INVALID_HANDLE);
  ASSERT_NE(KernelFlags(plain), -1);
  EXPECT_EQ(KernelFlags(plain) & O_DSYNC, 0);
  EXPECT_EQ(KernelFlags(sync) & O_DSYNC, O_DSYNC);
  // Handles are not inherited by programs the host starts.
  EXPECT_NE(KernelFlags(sync) & O_CLOEXEC, 0);
  CloseHandle(plain);
  CloseHandle(sync);
#endif
}

TEST(Files, ClassicCallsOnTheSameHandles) {
  Scratch s;
  std::string p = s.path("classic.bin");
  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, 0);
  ASSERT_NE(f, HFILE_ERROR);
  EXPECT_EQ(_lwrite(f, "abcdef", 6), 6);
  EXPECT_EQ(_llseek(f, 1, 0), 1);
  char buf[8] = {};
  EXPECT_EQ(_lread(f, buf, 4), 4);
  EXPECT_STREQ(buf, "bcde");
  EXPECT_EQ(_llseek(f, 0, 2), 6);
  EXPECT_EQ(_llseek(f, -7, 1), HFILE_ERROR);
  EXPECT_EQ(_lread(f, buf, 4), 0);
  EXPECT_EQ(_lclose(f), 0);
  EXPECT_EQ(_lclose(f), HFILE_ERROR);
  EXPECT_EQ(_lread(f, buf, 1), HFILE_ERROR);
}

TEST(Files, InjectedFaults) {
  Scratch s;
  std::string p = s.path("fault.bin");
  InjectFault(Fault::Open, 1, 1);
  EXPECT_EQ(CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, 0), INVALID_HANDLE);
  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  InjectFault(Fault::Write, 2, 1);
  EXPECT_EQ(_lwrite(f, "12345678", 8), 8);
  EXPECT_EQ(_lwrite(f, "abcdefgh", 8), 4);  // short: half of it
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(_lwrite(f, "XY", 2), 2);
  InjectFault(Fault::Seek, 1, 1);
  EXPECT_EQ(_llseek(f, 0, 0), HFILE_ERROR);
  EXPECT_EQ(_llseek(f, 0, 0), 0);
  InjectFault(Fault::Read, 1, 2);
  char buf[32] = {};
  DWORD n = 77;
  EXPECT_FALSE(ReadFile(f, buf, 4, &n));
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(GetLastError(), ERROR_READ_FAULT);
  EXPECT_EQ(_lread(f, buf, 4), HFILE_ERROR);
  EXPECT_EQ(_lread(f, buf, 31), 14);
  EXPECT_STREQ(buf, "12345678abcdXY");
  CloseHandle(f);
  ClearFaults();
}

// Opens `p` with the given access and sharing; true when it succeeded.
bool Opens(const std::string& p, DWORD access, DWORD share, HFILE* out = nullptr) {
  HFILE f = CreateFileA(p.c_str(), access, share, OPEN_EXISTING, 0);
  if (f == INVALID_HANDLE) {
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    return false;
  }
  if (out) *out = f;
  else CloseHandle(f);
  return true;
}

TEST(Sharing, TheWindowsMatrixWithinOneProcess) {
  Scratch s;
  std::string p = s.path("shared.dat");
  s.write("shared.dat", "data");
  const DWORD accesses[] = {GENERIC_READ, GENERIC_WRITE, RW};
  const DWORD shares[] = {0, FILE_SHARE_READ, FILE_SHARE_WRITE, SHARE_RW};
  for (DWORD a1 : accesses)
    for (DWORD s1 : shares)
      for (DWORD a2 : accesses)
        for (DWORD s2 : shares) {
          HFILE first = INVALID_HANDLE;
          ASSERT_TRUE(Opens(p, a1, s1, &first));
          bool expect = true;
          if ((a2 & GENERIC_READ) && !(s1 & FILE_SHARE_READ)) expect = false;
          if ((a2 & GENERIC_WRITE) && !(s1 & FILE_SHARE_WRITE)) expect = false;
          if ((a1 & GENERIC_READ) && !(s2 & FILE_SHARE_READ)) expect = false;
          if ((a1 & GENERIC_WRITE) && !(s2 & FILE_SHARE_WRITE)) expect = false;
          EXPECT_EQ(Opens(p, a2, s2), expect) << a1 << " " << s1 << " " << a2 << " " << s2;
          CloseHandle(first);
        }
  // An open for neither reading nor writing takes part in no sharing check,
  // and needs no read permission.
  HFILE attrs = CreateFileA(p.c_str(), 0, 0, OPEN_EXISTING, 0);
  ASSERT_NE(attrs, INVALID_HANDLE);
  EXPECT_TRUE(Opens(p, RW, 0));
#if !defined(_WIN32)  // file modes are POSIX's
  chmod(p.c_str(), 0);
  HFILE noperm = CreateFileA(p.c_str(), 0, SHARE_RW, OPEN_EXISTING, 0);
  if (geteuid() != 0) {
    EXPECT_EQ(CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0), INVALID_HANDLE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  }
  ASSERT_NE(noperm, INVALID_HANDLE);
  EXPECT_EQ(GetFileSize(noperm, nullptr), 4u);
  CloseHandle(noperm);
  chmod(p.c_str(), 0644);
#endif
  CloseHandle(attrs);
  // Closing the first open lifts its restrictions.
  HFILE excl = INVALID_HANDLE;
  ASSERT_TRUE(Opens(p, RW, 0, &excl));
  EXPECT_FALSE(Opens(p, GENERIC_READ, SHARE_RW));
  CloseHandle(excl);
  EXPECT_TRUE(Opens(p, GENERIC_READ, SHARE_RW));
}

TEST(Sharing, CreateAlwaysDoesNotTruncateOnViolation) {
  Scratch s;
  std::string p = s.path("keep.dat");
  s.write("keep.dat", "precious");
  HFILE f = CreateFileA(p.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  EXPECT_EQ(CreateFileA(p.c_str(), GENERIC_WRITE, SHARE_RW, CREATE_ALWAYS, 0), INVALID_HANDLE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  EXPECT_EQ(s.read("keep.dat"), "precious");
  CloseHandle(f);
}

TEST(Sharing, DeleteNeedsShareDelete) {
  Scratch s;
  std::string p = s.path("del.dat");
  s.write("del.dat", "x");
  HFILE f = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  EXPECT_FALSE(DeleteFileA(p.c_str()));
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  CloseHandle(f);
  f = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW | FILE_SHARE_DELETE, OPEN_EXISTING, 0);
  EXPECT_TRUE(DeleteFileA(p.c_str()));
  CloseHandle(f);
  EXPECT_FALSE(DeleteFileA(p.c_str()));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(Sharing, AcrossProcesses) {
  ZBTEST_POSIX_ONLY("it forks a second process");
#if !defined(_WIN32)
  Scratch s;
  std::string p = s.path("proc.dat");
  s.write("proc.dat", "x");
  int to_child[2], to_parent[2];
  ASSERT_EQ(pipe(to_child), 0);
  ASSERT_EQ(pipe(to_parent), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    // The child holds the file for writing, denying writes to others.
    HFILE f = CreateFileA(p.c_str(), RW, FILE_SHARE_READ, OPEN_EXISTING, 0);
    char c = f == INVALID_HANDLE ? 'n' : 'y';
    (void)!write(to_parent[1], &c, 1);
    (void)!read(to_child[0], &c, 1);  // wait for the parent's checks
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(to_parent[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  EXPECT_FALSE(Opens(p, GENERIC_WRITE, SHARE_RW));
  EXPECT_FALSE(Opens(p, GENERIC_READ, FILE_SHARE_READ));  // would deny the child's write
  EXPECT_TRUE(Opens(p, GENERIC_READ, SHARE_RW));
  (void)!write(to_child[1], "g", 1);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  // The child's death released its locks.
  EXPECT_TRUE(Opens(p, RW, 0));
  close(to_child[0]); close(to_child[1]); close(to_parent[0]); close(to_parent[1]);
#endif
}

TEST(Paths, NativePathMatchesCaseAndBothSeparators) {
  ZBTEST_POSIX_ONLY("POSIX path spellings");
  Scratch s;
  std::filesystem::create_directories(s.path("Data/Sub"));
  s.write("Data/Sub/File.TXT", "1");
  EXPECT_EQ(NativePath((s.dir() + "/data/SUB/file.txt").c_str()), s.path("Data/Sub/File.TXT"));
  EXPECT_EQ(NativePath((s.dir() + "\\DATA\\sub\\FILE.txt").c_str()), s.path("Data/Sub/File.TXT"));
  // A missing final component keeps its own spelling.
  EXPECT_EQ(NativePath((s.dir() + "/data/sub/New.Txt").c_str()), s.path("Data/Sub/New.Txt"));
  // Exact spellings that exist are kept even when another case also exists.
  s.write("Data/Sub/file.txt", "2");
  EXPECT_EQ(NativePath(s.path("Data/Sub/file.txt").c_str()), s.path("Data/Sub/file.txt"));
  // Opening through a differently cased name reaches the file.
  HFILE f = CreateFileA((s.dir() + "\\DATA\\SUB\\FILE.TXT").c_str(), GENERIC_READ, SHARE_RW,
                        OPEN_EXISTING, 0);
  ASSERT_NE(f, INVALID_HANDLE);
  CloseHandle(f);
  EXPECT_EQ(GetFileAttributesA((s.dir() + "/DATA").c_str()), FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(GetFileAttributesA((s.dir() + "/DATA/sub/file.TXT").c_str()), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(GetFileAttributesA((s.dir() + "/none").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(Paths, GetFullPathNameNormalisesWithoutTouchingDisk) {
  ZBTEST_POSIX_ONLY("POSIX path spellings");
  char buf[512];
  char* part = nullptr;
  DWORD n = GetFullPathNameA("/a/b/../c/./d.txt", sizeof buf, buf, &part);
  EXPECT_STREQ(buf, "/a/c/d.txt");
  EXPECT_EQ(n, 10u);
  ASSERT_NE(part, nullptr);
  EXPECT_STREQ(part, "d.txt");
  EXPECT_EQ(GetFullPathNameA("\\x\\..\\..\\y\\", sizeof buf, buf, &part), 3u);
  EXPECT_STREQ(buf, "/y/");
  EXPECT_EQ(part, nullptr);
  EXPECT_EQ(GetFullPathNameA("/", sizeof buf, buf, nullptr), 1u);
  EXPECT_STREQ(buf, "/");
  // Relative names are taken against the current folder.
  std::string cwd = std::filesystem::current_path().string();
  n = GetFullPathNameA("nosuch/../f.ini", sizeof buf, buf, nullptr);
  EXPECT_EQ(std::string(buf), (cwd == "/" ? std::string() : cwd) + "/f.ini");
  EXPECT_EQ(n, std::strlen(buf));
  // Too small a buffer: the size needed, terminator included.
  EXPECT_EQ(GetFullPathNameA("/a/c/d.txt", 10, buf, nullptr), 11u);
  EXPECT_EQ(GetFullPathNameA("/a/c/d.txt", 11, buf, nullptr), 10u);
  EXPECT_EQ(GetFullPathNameA("", sizeof buf, buf, nullptr), 0u);
  EXPECT_EQ(GetFullPathNameA(nullptr, sizeof buf, buf, nullptr), 0u);
}

TEST(Paths, SearchPathOrderAndExtension) {
  ZBTEST_POSIX_ONLY("POSIX path spellings");
  Scratch s;
  std::filesystem::create_directories(s.path("one"));
  std::filesystem::create_directories(s.path("two"));
  s.write("two/Lib.ZBL", "x");
  s.write("one/lib.zbl", "y");
  std::string list = s.path("one") + ";" + s.path("two");
  char buf[512];
  char* part = nullptr;
  DWORD n = SearchPathA(list.c_str(), "LIB", ".zbl", sizeof buf, buf, &part);
  EXPECT_EQ(std::string(buf), s.path("one/lib.zbl"));
  EXPECT_EQ(n, std::strlen(buf));
  EXPECT_STREQ(part, "lib.zbl");
  // The extension is not added to a name that has one.
  EXPECT_EQ(SearchPathA(list.c_str(), "lib.zbl", ".txt", sizeof buf, buf, nullptr), n);
  EXPECT_EQ(SearchPathA(list.c_str(), "none", ".zbl", sizeof buf, buf, nullptr), 0u);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(SearchPathA(list.c_str(), "lib.zbl", nullptr, 5, buf, nullptr), n + 1);

  // Default order: the current folder comes before the configuration folder.
  std::filesystem::create_directories(s.path("home"));
  std::filesystem::create_directories(s.path("cwd"));
  s.write("home/only_home.ini", "h");
  s.write("home/both.ini", "h");
  s.write("cwd/both.ini", "c");
  std::string old_home = getenv("ZBSHR_HOME") ? getenv("ZBSHR_HOME") : "";
  auto old_cwd = std::filesystem::current_path();
  setenv("ZBSHR_HOME", s.path("home").c_str(), 1);
  std::filesystem::current_path(s.path("cwd"));
  EXPECT_GT(SearchPathA(nullptr, "BOTH.INI", nullptr, sizeof buf, buf, nullptr), 0u);
  EXPECT_EQ(std::string(buf), s.path("cwd/both.ini"));
  EXPECT_GT(SearchPathA(nullptr, "only_home.ini", nullptr, sizeof buf, buf, nullptr), 0u);
  EXPECT_EQ(std::string(buf), s.path("home/only_home.ini"));
  // PATH is searched last.
  EXPECT_GT(SearchPathA(nullptr, "sh", nullptr, sizeof buf, buf, nullptr), 0u);
  std::filesystem::current_path(old_cwd);
  setenv("ZBSHR_HOME", old_home.c_str(), 1);
  // Absolute names are only checked.
  EXPECT_GT(SearchPathA(nullptr, s.path("TWO/lib.zbl").c_str(), nullptr, sizeof buf, buf, nullptr), 0u);
  EXPECT_EQ(std::string(buf), s.path("two/Lib.ZBL"));
}

TEST(Paths, TempFileNames) {
  ZBTEST_POSIX_ONLY("POSIX spellings of temporary names");
  Scratch s;
  char name[260];
  UINT u = GetTempFileNameA(s.dir().c_str(), "zbfstore", 0, name);
  ASSERT_NE(u, 0u);
  char expect[64];
  std::snprintf(expect, sizeof expect, "zbf%X.TMP", u);
  EXPECT_EQ(std::string(name), s.path(expect));
  struct stat st {};
  ASSERT_EQ(stat(name, &st), 0);
  EXPECT_EQ(st.st_size, 0);
  char second[260];
  UINT u2 = GetTempFileNameA(s.dir().c_str(), "zbf", 0, second);
  EXPECT_NE(u2, 0u);
  EXPECT_STRNE(name, second);
  // A given number only builds the name.
  EXPECT_EQ(GetTempFileNameA(s.dir().c_str(), "ab", 0x1A2B, name), 0x1A2Bu);
  EXPECT_EQ(std::string(name), s.path("ab1A2B.TMP"));
  EXPECT_NE(stat(name, &st), 0);
  EXPECT_EQ(GetTempFileNameA(s.path("missing").c_str(), "x", 0, name), 0u);

  std::string old = getenv("TMPDIR") ? getenv("TMPDIR") : "";
  setenv("TMPDIR", s.dir().c_str(), 1);
  char tmp[512];
  DWORD n = GetTempPathA(sizeof tmp, tmp);
  EXPECT_EQ(std::string(tmp), s.dir() + "/");
  EXPECT_EQ(GetTempPathA(3, tmp), n + 1);
  if (old.empty()) unsetenv("TMPDIR");
  else setenv("TMPDIR", old.c_str(), 1);
}

TEST(Paths, CurrentFolderAndProgram) {
  ZBTEST_POSIX_ONLY("it reads /proc");
  char buf[4096];
  DWORD n = GetCurrentDirectoryA(sizeof buf, buf);
  EXPECT_EQ(std::string(buf), std::filesystem::current_path().string());
  EXPECT_EQ(GetCurrentDirectoryA(2, buf), n + 1);
  n = GetModuleFileNameA(nullptr, buf, sizeof buf);
  EXPECT_EQ(std::string(buf), std::filesystem::canonical("/proc/self/exe").string());
  EXPECT_EQ(n, std::strlen(buf));
  char small[4];
  EXPECT_EQ(GetModuleFileNameA(nullptr, small, sizeof small), 4u);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(std::strlen(small), 3u);
}

TEST(Files, MoveReplacesInOneStep) {
  Scratch s;
  s.write("new.txt", "new");
  s.write("old.txt", "old");
  EXPECT_FALSE(MoveFileExA(s.path("new.txt").c_str(), s.path("old.txt").c_str(), 0));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(MoveFileExA(s.path("NEW.TXT").c_str(), s.path("old.txt").c_str(),
                          MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
  EXPECT_EQ(s.read("old.txt"), "new");
  EXPECT_FALSE(std::filesystem::exists(s.path("new.txt")));
  EXPECT_TRUE(MoveFileExA(s.path("old.txt").c_str(), s.path("moved.txt").c_str(), 0));
  EXPECT_EQ(s.read("moved.txt"), "new");
  EXPECT_FALSE(MoveFileExA(s.path("gone.txt").c_str(), s.path("x.txt").c_str(), 0));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

}  // namespace
