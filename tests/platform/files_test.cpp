// Files and paths of the platform layer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstring>
#include <functional>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/platform.h"
#include "scratch.h"

using namespace zbshr::plat;
using zbshr_test::Scratch;
using zbshr_test::WithError;
using Err = std::pair<DWORD, DWORD>;  // a result and the last error
std::pair<BOOL, DWORD> Fails(DWORD error) { return {0, error}; }

namespace {

constexpr DWORD RW = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD SHARE_RW = FILE_SHARE_READ | FILE_SHARE_WRITE;

TEST(Files, DispositionsAndLastError) {
  ZBTEST_POSIX_ONLY("Windows answers TRUNCATE_EXISTING without write access itself");
  Scratch s;
  const std::string p = s.path("a.dat");
  // error: the last error afterwards; size: the file's size through the handle, when it opens
  const struct { std::string path; DWORD access, disposition; bool opens; DWORD error; int64_t size; } steps[] = {
      {p, GENERIC_READ, OPEN_EXISTING, false, ERROR_FILE_NOT_FOUND, 0},
      {s.path("no/such/b.dat"), GENERIC_READ, OPEN_EXISTING, false, ERROR_PATH_NOT_FOUND, 0},
      {p, RW, CREATE_NEW, true, ERROR_SUCCESS, 0},  // writes "hello world"
      {p, RW, CREATE_NEW, false, ERROR_FILE_EXISTS, 0},
      {p, GENERIC_READ, OPEN_ALWAYS, true, ERROR_ALREADY_EXISTS, 11},
      {p, GENERIC_WRITE, CREATE_ALWAYS, true, ERROR_ALREADY_EXISTS, 0},  // writes "hello world"
      {p, GENERIC_WRITE, TRUNCATE_EXISTING, true, ERROR_SUCCESS, 0},
      {p, GENERIC_READ, TRUNCATE_EXISTING, false, ERROR_INVALID_PARAMETER, 0},
      {p, GENERIC_READ, 99, false, ERROR_INVALID_PARAMETER, 0},
      {s.dir(), GENERIC_READ, OPEN_EXISTING, false, ERROR_ACCESS_DENIED, 0},
      {s.path("new.dat"), GENERIC_READ, OPEN_ALWAYS, true, ERROR_SUCCESS, 0},
  };
  for (const auto& c : steps) {
    SetLastError(12345);
    HFILE f = CreateFileA(c.path.c_str(), c.access, c.disposition == CREATE_NEW ? 0 : SHARE_RW, c.disposition, 0);
    EXPECT_EQ(std::make_pair(f != INVALID_HANDLE, GetLastError()), std::make_pair(c.opens, c.error)) << c.path << " " << c.disposition;
    EXPECT_TRUE(f == INVALID_HANDLE || (GetFileSize(f, nullptr) == c.size && CloseHandle(f))) << c.path << " " << c.disposition;
    if (c.access & GENERIC_WRITE && c.disposition != TRUNCATE_EXISTING && f != INVALID_HANDLE)
      std::ofstream(c.path, std::ios::binary) << "hello world";
  }
}

TEST(Files, ReadWriteSeekAndHandles) {
  ZBTEST_POSIX_ONLY("Windows answers a 32-bit seek past 4 GiB itself");
  Scratch s;
  const std::string p = s.path("rw.dat");
  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
  ASSERT_NE(f, INVALID_HANDLE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(f, "0123456789", 10, &n));
  char buf[16] = {};
  EXPECT_TRUE(SetFilePointer(f, 2, nullptr, FILE_BEGIN) == 2 && ReadFile(f, buf, 3, &n) && std::string(buf, n) == "234");
  LONG high = 1;
  const struct { LONG distance; LONG* high; DWORD method, result, error; } seeks[] = {  // high: the high half, or none
      {-2, nullptr, FILE_END, 8, ERROR_SUCCESS}, {-1, nullptr, FILE_CURRENT, 7, ERROR_SUCCESS},
      {-100, nullptr, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_NEGATIVE_SEEK},  // position kept
      {0, nullptr, FILE_CURRENT, 7, ERROR_SUCCESS}, {-7, nullptr, FILE_CURRENT, 0, ERROR_SUCCESS},  // back to the start exactly
      {5, &high, FILE_BEGIN, 5, ERROR_SUCCESS},  // 4 GiB + 5
      {-5, nullptr, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
      {3, &high, FILE_BEGIN, 3, ERROR_SUCCESS}, {0x7FFFFFFF, nullptr, FILE_CURRENT, 0x80000002u, ERROR_SUCCESS},
      {0x7FFFFFFD, nullptr, FILE_CURRENT, 0xFFFFFFFFu, ERROR_SUCCESS},  // a position, not a failure
      {10, nullptr, FILE_CURRENT, INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
  };
  for (const auto& c : seeks) {
    SetLastError(777);
    if (c.high) *c.high = c.distance == 5 ? 1 : 0;
    EXPECT_EQ(WithError(SetFilePointer(f, c.distance, c.high, c.method)), Err(c.result, c.error)) << c.distance;
  }
  EXPECT_TRUE(ReadFile(f, buf, 5, &n) && n == 0);  // past the end: nothing, no failure
  inject_fault(Fault::Seek, 1, 1);  // fails exactly one call
  EXPECT_TRUE(WithError(SetFilePointer(f, 0, nullptr, FILE_BEGIN)) == Err(INVALID_SET_FILE_POINTER, ERROR_SEEK) &&
              SetFilePointer(f, 4, nullptr, FILE_BEGIN) == 4);
  int64_t size = 0, mtime = 0;
  EXPECT_TRUE(SetEndOfFile(f) && GetFileSizeEx(f, &size) && size == 4 && FlushFileBuffers(f));
  EXPECT_TRUE(get_file_time_unix(f, &mtime) && std::abs(mtime - static_cast<int64_t>(time(nullptr))) <= 300 && CloseHandle(f) &&
              s.read("rw.dat") == "0123");
  EXPECT_EQ(WithError(CloseHandle(f)), Fails(ERROR_INVALID_HANDLE));
  // Handles that are closed, never opened here, out of range or of the wrong
  // access are refused with the error Windows gives.
  HFILE ro = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  HFILE wo = CreateFileA(p.c_str(), GENERIC_WRITE, SHARE_RW, OPEN_EXISTING, 0);
  const struct { HFILE h; bool write; DWORD error; } refusals[] = {
      {ro + wo + 1, false, ERROR_INVALID_HANDLE}, {2, true, ERROR_INVALID_HANDLE}, {-5, false, ERROR_INVALID_HANDLE},
      {0x7FFFFFF0, false, ERROR_INVALID_HANDLE}, {ro, true, ERROR_ACCESS_DENIED}, {wo, false, ERROR_ACCESS_DENIED}};
  for (const auto& c : refusals)
    EXPECT_EQ(WithError(c.write ? WriteFile(c.h, "x", 1, &n) : ReadFile(c.h, buf, 1, &n)), Fails(c.error)) << c.h;
  for (HFILE h : {2, -5, 0x7FFFFFF0})  // never opened here (2 is standard error): left alone
    EXPECT_EQ(WithError(CloseHandle(h)), Fails(ERROR_INVALID_HANDLE)) << h;
  EXPECT_TRUE(!SetEndOfFile(ro) && GetFileSize(-5, nullptr) == INVALID_FILE_SIZE);
  CloseHandle(ro);
  CloseHandle(wo);
  // A size past 4 GiB comes in two halves (a sparse file: nothing is written).
  std::filesystem::resize_file(p, (5ull << 30) + 3);
  HFILE big = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  DWORD upper = 0;
  EXPECT_TRUE(GetFileSize(big, &upper) == (1u << 30) + 3 && upper == 1 && CloseHandle(big));
#if !defined(_WIN32)
  // With standard input closed a file may be given descriptor 0; it closes like any other.
  const int in = dup(0);
  close(0);
  const HFILE z = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  EXPECT_TRUE(CloseHandle(z) && !CloseHandle(z)) << z;
  dup2(in, 0);
  close(in);
#endif
}

TEST(Files, WriteThroughOpensSynchronouslyAndHandlesAreNotInherited) {
  ZBTEST_POSIX_ONLY("it reads the kernel's open flags under /proc");
#if !defined(_WIN32)
  Scratch s;
  auto flags = [](HFILE f) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(f));
    std::string word, octal;
    while (in >> word)
      if (word == "flags:" && in >> octal) return std::stol(octal, nullptr, 8);
    return -1L;
  };
  HFILE plain = CreateFileA(s.path("p").c_str(), RW, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  HFILE sync = CreateFileA(s.path("s").c_str(), RW, 0, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
  ASSERT_NE(flags(plain), -1);
  EXPECT_EQ(std::make_pair(flags(plain) & O_DSYNC, flags(sync) & (O_DSYNC | O_CLOEXEC)), std::make_pair(0L, long{O_DSYNC | O_CLOEXEC}));
  CloseHandle(plain);
  CloseHandle(sync);
#endif
}

// Each row: a fault armed before the call (kind, which call), the call and
// its answer; the file ends as "12345678abcdXY".
TEST(Files, ClassicCallsAndInjectedFaults) {
  Scratch s;
  const std::string p = s.path("classic.bin");
  inject_fault(Fault::Open, 1, 1);
  EXPECT_EQ(CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, 0), INVALID_HANDLE);
  HFILE f = CreateFileA(p.c_str(), RW, 0, CREATE_ALWAYS, 0);
  ASSERT_NE(f, HFILE_ERROR);
  char buf[32] = {};
  DWORD n = 77;
  const struct { Fault fault; int at, count; std::function<int()> call; int want; } rows[] = {
      {Fault::Open, 0, 0, [&] { return _lwrite(f, "abcdef", 6); }, 6},
      {Fault::Open, 0, 0, [&] { return _llseek(f, 1, 0); }, 1},
      {Fault::Open, 0, 0, [&] { return _lread(f, buf, 4) * (std::string(buf) == "bcde"); }, 4},
      {Fault::Open, 0, 0, [&] { return _llseek(f, 0, 2); }, 6},
      {Fault::Open, 0, 0, [&] { return _llseek(f, -7, 1); }, HFILE_ERROR},
      {Fault::Open, 0, 0, [&] { return _lread(f, buf, 4); }, 0},
      {Fault::Open, 0, 0, [&] { return _llseek(f, 0, 0); }, 0},
      {Fault::Write, 2, 1, [&] { return _lwrite(f, "12345678", 8); }, 8},
      {Fault::Open, 0, 0, [&] { return _lwrite(f, "abcdefgh", 8) * 1000 + static_cast<int>(GetLastError()); }, 4112},  // short: half, disk full
      {Fault::Open, 0, 0, [&] { return _lwrite(f, "XY", 2); }, 2},
      {Fault::Seek, 1, 1, [&] { return _llseek(f, 0, 0); }, HFILE_ERROR},
      {Fault::Open, 0, 0, [&] { return _llseek(f, 0, 0); }, 0},
      {Fault::Read, 1, 2, [&] { return ReadFile(f, buf, 4, &n) * 1000 + static_cast<int>(n * 100 + GetLastError()); }, 30},
      {Fault::Open, 0, 0, [&] { return _lread(f, buf, 4); }, HFILE_ERROR},
      {Fault::Open, 0, 0, [&] { return _lread(f, buf, 31) * (std::string(buf, 14) == "12345678abcdXY"); }, 14},
      {Fault::Open, 0, 0, [&] { return _lclose(f); }, 0},
      {Fault::Open, 0, 0, [&] { return _lclose(f); }, HFILE_ERROR},
      {Fault::Open, 0, 0, [&] { return _lread(f, buf, 1); }, HFILE_ERROR},
  };
  for (const auto& r : rows) {
    if (r.at) inject_fault(r.fault, r.at, r.count);
    EXPECT_EQ(r.call(), r.want) << &r - rows;
  }
  clear_faults();
}

TEST(Files, RefusedCallsChangeNothing) {
  ZBTEST_POSIX_ONLY("the emulation's answers to bad arguments");
  Scratch s;
  s.write("a.txt", "abc");
  s.write("b.txt", "b");
  s.write("c.txt", "c");
  std::filesystem::create_directory(s.path("dir"));
  const std::string a = s.path("a.txt"), b = s.path("b.txt"), dir = s.path("dir");
  HFILE f = CreateFileA(a.c_str(), RW, SHARE_RW, OPEN_EXISTING, 0), held = CreateFileA(b.c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  DWORD n = 0;
  const std::pair<int64_t, DWORD> got[] = {
      WithError<int64_t>(CreateFileA(nullptr, RW, 0, OPEN_ALWAYS, 0)), WithError<int64_t>(CreateFileA("", RW, 0, OPEN_ALWAYS, 0)),
      WithError<int64_t>(CreateFileA((dir + "/").c_str(), RW, 0, OPEN_ALWAYS, 0)),
      WithError<int64_t>(ReadFile(f, nullptr, 2, &n)), WithError<int64_t>(WriteFile(f, nullptr, 2, &n)),
      WithError<int64_t>(SetFilePointer(f, 0, nullptr, 3)),
      WithError<int64_t>(DeleteFileA(nullptr)), WithError<int64_t>(DeleteFileA(dir.c_str())),
      WithError<int64_t>(MoveFileExA(nullptr, b.c_str(), 0)), WithError<int64_t>(MoveFileExA(a.c_str(), "", 0)),
      WithError<int64_t>(MoveFileExA(s.path("c.txt").c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING)),  // b is open without delete sharing
      WithError<int64_t>(GetFileAttributesA(""))};
  const std::pair<int64_t, DWORD> want[] = {
      {-1, ERROR_INVALID_PARAMETER}, {-1, ERROR_PATH_NOT_FOUND}, {-1, ERROR_PATH_NOT_FOUND},
      {0, ERROR_INVALID_PARAMETER}, {0, ERROR_INVALID_PARAMETER}, {INVALID_SET_FILE_POINTER, ERROR_INVALID_PARAMETER},
      {0, ERROR_PATH_NOT_FOUND}, {0, ERROR_ACCESS_DENIED}, {0, ERROR_INVALID_PARAMETER}, {0, ERROR_INVALID_PARAMETER},
      {0, ERROR_ACCESS_DENIED}, {INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND}};
  for (size_t i = 0; i < std::size(want); ++i) EXPECT_EQ(got[i], want[i]) << "call " << i;
  EXPECT_TRUE(CloseHandle(f) && CloseHandle(held) && s.read("a.txt") == "abc" && s.read("b.txt") == "b" && s.read("c.txt") == "c" &&
              std::filesystem::is_directory(dir));
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

TEST(Sharing, TheWindowsMatrix) {
  Scratch s;
  const std::string p = s.path("shared.dat");
  s.write("shared.dat", "data");
  const DWORD accesses[] = {GENERIC_READ, GENERIC_WRITE, RW};
  const DWORD shares[] = {0, FILE_SHARE_READ, FILE_SHARE_WRITE, SHARE_RW};
  for (DWORD a1 : accesses)
    for (DWORD s1 : shares)
      for (DWORD a2 : accesses)
        for (DWORD s2 : shares) {
          HFILE first = INVALID_HANDLE;
          ASSERT_TRUE(Opens(p, a1, s1, &first));
          const bool expect = !((a2 & GENERIC_READ) && !(s1 & FILE_SHARE_READ)) &&
                              !((a2 & GENERIC_WRITE) && !(s1 & FILE_SHARE_WRITE)) &&
                              !((a1 & GENERIC_READ) && !(s2 & FILE_SHARE_READ)) &&
                              !((a1 & GENERIC_WRITE) && !(s2 & FILE_SHARE_WRITE));
          EXPECT_EQ(Opens(p, a2, s2), expect) << a1 << " " << s1 << " " << a2 << " " << s2;
          CloseHandle(first);
        }
  // An open for neither reading nor writing takes part in no sharing check,
  // and needs no read permission.
  HFILE attrs = CreateFileA(p.c_str(), 0, 0, OPEN_EXISTING, 0);
  EXPECT_TRUE(attrs != INVALID_HANDLE && Opens(p, RW, 0));
  CloseHandle(attrs);
  // A violation leaves the file untruncated; closing lifts the restriction.
  HFILE excl = INVALID_HANDLE;
  ASSERT_TRUE(Opens(p, GENERIC_READ, FILE_SHARE_READ, &excl));
  EXPECT_EQ(WithError(CreateFileA(p.c_str(), GENERIC_WRITE, SHARE_RW, CREATE_ALWAYS, 0)), std::make_pair(INVALID_HANDLE, ERROR_SHARING_VIOLATION));
  // Deleting needs FILE_SHARE_DELETE from every open.
  EXPECT_TRUE(s.read("shared.dat") == "data" && WithError(DeleteFileA(p.c_str())) == Fails(ERROR_SHARING_VIOLATION));
  CloseHandle(excl);
  HFILE f = CreateFileA(p.c_str(), GENERIC_READ, SHARE_RW | FILE_SHARE_DELETE, OPEN_EXISTING, 0);
  EXPECT_TRUE(DeleteFileA(p.c_str()));
  CloseHandle(f);
  EXPECT_EQ(WithError(DeleteFileA(p.c_str())), Fails(ERROR_FILE_NOT_FOUND));
}

TEST(Sharing, AcrossProcessesAndWithoutReadPermission) {
  ZBTEST_POSIX_ONLY("it forks a second process and changes file modes");
#if !defined(_WIN32)
  Scratch s;
  const std::string p = s.path("proc.dat");
  s.write("proc.dat", "x");
  int to_child[2], to_parent[2];
  ASSERT_TRUE(pipe(to_child) == 0 && pipe(to_parent) == 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {  // the child holds the file for writing, denying writes to others
    HFILE f = CreateFileA(p.c_str(), RW, FILE_SHARE_READ, OPEN_EXISTING, 0);
    char c = f == INVALID_HANDLE ? 'n' : 'y';
    (void)!write(to_parent[1], &c, 1);
    (void)!read(to_child[0], &c, 1);  // wait for the parent's checks
    _exit(0);
  }
  char c = 0;
  ASSERT_TRUE(read(to_parent[0], &c, 1) == 1 && c == 'y');
  // Reading is shared with the child; writing, or denying the child's write, is not.
  EXPECT_TRUE(!Opens(p, GENERIC_WRITE, SHARE_RW) && !Opens(p, GENERIC_READ, FILE_SHARE_READ) && Opens(p, GENERIC_READ, SHARE_RW));
  (void)!write(to_child[1], "g", 1);
  int status = 0;
  EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && Opens(p, RW, 0));  // the child's end released its locks
  for (int fd : {to_child[0], to_child[1], to_parent[0], to_parent[1]}) close(fd);
  // A write-only open without read permission still takes part in sharing.
  chmod(p.c_str(), 0200);
  HFILE w = CreateFileA(p.c_str(), GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING, 0);
  EXPECT_TRUE(w != INVALID_HANDLE && !Opens(p, GENERIC_WRITE, SHARE_RW));
  CloseHandle(w);
  chmod(p.c_str(), 0644);
#endif
}

TEST(Paths, SpellingsAndNormalisation) {
  ZBTEST_POSIX_ONLY("POSIX path spellings");
  Scratch s;
  std::filesystem::create_directories(s.path("Data/Sub"));
  s.write("Data/Sub/File.TXT", "1");
  const std::string d = s.dir(), want = s.path("Data/Sub/File.TXT");
  EXPECT_EQ(native_path((d + "/data/SUB/file.txt").c_str()) + "|" + native_path((d + "\\DATA\\sub\\FILE.txt").c_str()), want + "|" + want);
  EXPECT_EQ(native_path((d + "/data/sub/New.Txt").c_str()), s.path("Data/Sub/New.Txt"));  // missing: kept
  s.write("Data/Sub/file.txt", "2");  // an exact spelling wins over another case
  EXPECT_EQ(native_path(s.path("Data/Sub/file.txt").c_str()), s.path("Data/Sub/file.txt"));
  EXPECT_TRUE(CloseHandle(CreateFileA((d + "\\DATA\\SUB\\FILE.TXT").c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0)));
  EXPECT_EQ(std::vector<DWORD>({GetFileAttributesA((d + "/DATA").c_str()), GetFileAttributesA((d + "/DATA/sub/file.TXT").c_str()),
                                GetFileAttributesA((d + "/none").c_str())}),
            std::vector<DWORD>({FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_NORMAL, INVALID_FILE_ATTRIBUTES}));

  const std::string cwd = std::filesystem::current_path().string();
  const struct { const char* in; DWORD size; std::string out; DWORD result; const char* part; } full[] = {  // out: when it fits
      {"/a/b/../c/./d.txt", 512, "/a/c/d.txt", 10, "d.txt"}, {"\\x\\..\\..\\y\\", 512, "/y/", 3, nullptr},
      {"/", 512, "/", 1, nullptr},
      {"nosuch/../f.ini", 512, (cwd == "/" ? "" : cwd) + "/f.ini", static_cast<DWORD>(cwd.size() + 6 - (cwd == "/")), "f.ini"},
      {"/a/c/d.txt", 11, "/a/c/d.txt", 10, "d.txt"},
      {"/a/c/d.txt", 10, "", 11, nullptr},  // too small: the size needed, terminator included
      {"", 512, "", 0, nullptr}, {nullptr, 512, "", 0, nullptr},
  };
  for (const auto& c : full) {
    char buf[512];
    char* part = nullptr;
    const DWORD r = GetFullPathNameA(c.in, c.size, buf, &part);
    EXPECT_TRUE(r == c.result && (r == 0 || r >= c.size || std::string(buf) + "|" + (part ? part : "-") == c.out + "|" + (c.part ? c.part : "-")))
        << (c.in ? c.in : "(null)") << " " << r;
  }
}

TEST(Paths, SearchPathOrderAndExtension) {
  ZBTEST_POSIX_ONLY("POSIX path spellings");
  Scratch s;
  for (const char* d : {"one", "two", "home", "cwd"}) std::filesystem::create_directories(s.path(d));
  for (const char* f : {"two/Lib.ZBL", "one/lib.zbl", "home/only_home.ini", "home/both.ini", "cwd/both.ini"}) s.write(f, "x");
  const std::string list = s.path("one") + ";" + s.path("two");
  char buf[512];
  char* part = nullptr;
  const DWORD n = SearchPathA(list.c_str(), "LIB", ".zbl", sizeof buf, buf, &part);
  EXPECT_TRUE(std::string(buf) + "|" + part == s.path("one/lib.zbl") + "|lib.zbl" && n == std::strlen(buf));
  EXPECT_EQ(std::vector<DWORD>({SearchPathA(list.c_str(), "lib.zbl", ".txt", sizeof buf, buf, nullptr),  // has an extension
                                SearchPathA(list.c_str(), "lib.zbl", nullptr, n + 1, buf, nullptr),
                                SearchPathA(list.c_str(), "lib.zbl", nullptr, n, buf, nullptr)}),
            std::vector<DWORD>({n, n, n + 1}));
  EXPECT_TRUE(WithError(SearchPathA(list.c_str(), "none", ".zbl", sizeof buf, buf, nullptr)) == Err(0, ERROR_FILE_NOT_FOUND) &&
              WithError(SearchPathA(list.c_str(), "", ".zbl", sizeof buf, buf, nullptr)) == Err(0, ERROR_INVALID_PARAMETER));
  // Default order: the current folder, the configuration folder, then PATH.
  const std::string old_home = getenv("ZBSHR_HOME") ? getenv("ZBSHR_HOME") : "";
  const auto old_cwd = std::filesystem::current_path();
  setenv("ZBSHR_HOME", s.path("home").c_str(), 1);
  std::filesystem::current_path(s.path("cwd"));
  for (auto [name, where] : {std::pair{"BOTH.INI", "cwd/both.ini"}, {"only_home.ini", "home/only_home.ini"}})
    EXPECT_TRUE(SearchPathA(nullptr, name, nullptr, sizeof buf, buf, nullptr) > 0 && buf == s.path(where)) << name;
  EXPECT_GT(SearchPathA(nullptr, "sh", nullptr, sizeof buf, buf, nullptr), 0u);
  std::filesystem::current_path(old_cwd);
  setenv("ZBSHR_HOME", old_home.c_str(), 1);
  EXPECT_TRUE(SearchPathA(nullptr, s.path("TWO/lib.zbl").c_str(), nullptr, sizeof buf, buf, nullptr) > 0 &&
              buf == s.path("two/Lib.ZBL"));  // absolute names are only checked
}

TEST(Paths, TemporaryNamesCurrentFolderAndProgram) {
  ZBTEST_POSIX_ONLY("POSIX spellings of temporary names, /proc");
  Scratch s;
  char name[260];
  const UINT u = GetTempFileNameA(s.dir().c_str(), "zbfstore", 0, name);
  char expect[64];
  std::snprintf(expect, sizeof expect, "zbf%X.TMP", u);
  EXPECT_TRUE(u != 0 && u <= 0xFFFF && std::string(name) == s.path(expect) && std::filesystem::file_size(name) == 0);
  EXPECT_NE(GetTempFileNameA(s.dir().c_str(), "zbf", 0, name), u);  // the first name is taken
  EXPECT_TRUE(GetTempFileNameA(s.dir().c_str(), "ab", 0x1A2B, name) == 0x1A2B && std::string(name) == s.path("ab1A2B.TMP") &&
              !std::filesystem::exists(name));  // a given number only builds the name
  EXPECT_TRUE(GetTempFileNameA(s.path("missing").c_str(), "x", 0, name) == 0 &&
              WithError(GetTempFileNameA(s.dir().c_str(), "x", 0, nullptr)) == Err(0, ERROR_INVALID_PARAMETER));
  char long_name[300];  // the name with its terminator must fit 260 bytes
  const std::string deep = "/" + std::string(247, 'd');  // + "/ab1A2B.TMP": 259 characters
  EXPECT_TRUE(GetTempFileNameA(deep.c_str(), "ab", 0x1A2B, long_name) == 0x1A2B && std::strlen(long_name) == 259 &&
              WithError(GetTempFileNameA((deep + "d").c_str(), "ab", 0x1A2B, long_name)) == Err(0, ERROR_BUFFER_OVERFLOW));
  const std::string old = getenv("TMPDIR") ? getenv("TMPDIR") : "";
  setenv("TMPDIR", std::string(5000, 't').c_str(), 1);  // a temporary folder too long for any path: /tmp/ instead
  EXPECT_TRUE(GetTempFileNameA("", "zb", 0x12AB, name) == 0x12AB && std::string(name) == "/tmp/zb12AB.TMP");
  setenv("TMPDIR", s.dir().c_str(), 1);
  char buf[4096];
  // The whole text answers its length; a buffer one short, the size needed.
  for (auto [get, want] : {std::pair<std::function<DWORD(DWORD)>, std::string>{[&](DWORD size) { return GetTempPathA(size, buf); }, s.dir() + "/"},
                           {[&](DWORD size) { return GetCurrentDirectoryA(size, buf); }, std::filesystem::current_path().string()}}) {
    const DWORD n = get(sizeof buf);
    EXPECT_EQ(std::vector<DWORD>({n, get(n), get(n + 1), buf == want}), std::vector<DWORD>({static_cast<DWORD>(want.size()), n + 1, n, 1}));
  }
  if (old.empty()) unsetenv("TMPDIR");
  else setenv("TMPDIR", old.c_str(), 1);
  DWORD n = GetModuleFileNameA(nullptr, buf, sizeof buf);
  EXPECT_TRUE(buf == std::filesystem::canonical("/proc/self/exe").string() && n == std::strlen(buf) &&
              GetModuleFileNameA(nullptr, buf, n + 1) == n);
  const std::string full = buf;
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(WithError(GetModuleFileNameA(nullptr, buf, n)), Err(n, ERROR_INSUFFICIENT_BUFFER));  // cut: the whole buffer, terminated
  EXPECT_TRUE(buf == full.substr(0, n - 1) && buf[n] == 'x' && WithError(GetModuleFileNameA(nullptr, buf, 0)) == Err(0, ERROR_INSUFFICIENT_BUFFER));
  HINSTANCE self = GetModuleHandleA(nullptr);  // the program as a module, found by its name in any case too
  std::string me = std::filesystem::canonical("/proc/self/exe").filename().string();
  EXPECT_EQ(GetModuleHandleA(me.c_str()), self);
  for (char& c : me) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(GetModuleHandleA((me + ".EXE").c_str()), self);
}

TEST(Files, MoveReplacesInOneStep) {
  Scratch s;
  s.write("new.txt", "new");
  s.write("old.txt", "old");
  EXPECT_TRUE(WithError(MoveFileExA(s.path("new.txt").c_str(), s.path("old.txt").c_str(), 0)) == Fails(ERROR_ALREADY_EXISTS) &&
              MoveFileExA(s.path("NEW.TXT").c_str(), s.path("old.txt").c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) &&
              s.read("old.txt") == "new");
  EXPECT_FALSE(std::filesystem::exists(s.path("new.txt")));
  HFILE open = CreateFileA(s.path("old.txt").c_str(), GENERIC_READ, SHARE_RW, OPEN_EXISTING, 0);
  EXPECT_EQ(WithError(MoveFileExA(s.path("old.txt").c_str(), s.path("x.txt").c_str(), 0)),  // no FILE_SHARE_DELETE
            Fails(ERROR_SHARING_VIOLATION));
  CloseHandle(open);
  EXPECT_EQ(WithError(MoveFileExA(s.path("gone.txt").c_str(), s.path("x.txt").c_str(), 0)), Fails(ERROR_FILE_NOT_FOUND));
  std::filesystem::create_directory(s.path("dir"));  // a folder is never replaced
  EXPECT_TRUE(WithError(MoveFileExA(s.path("old.txt").c_str(), s.path("dir").c_str(), MOVEFILE_REPLACE_EXISTING)) == Fails(ERROR_ACCESS_DENIED) &&
              s.read("old.txt") == "new" && std::filesystem::is_directory(s.path("dir")));
}

}  // namespace
