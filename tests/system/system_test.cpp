// The file services: osOpenFile and osFileExists (the open-file record, the OF_* modes, access and sharing, path
// search and the path-length limit), the buffered file object, the fixed-size block store and its temporary file;
// profile files and the start-up path, under a scratch configuration folder and a stand-in host program path.
#include <cstddef>
#include <cstdlib>

#include "platform/platform.h"
#include "sys_fixture.h"

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace {

namespace plat = zbshr::plat;
using namespace systest;

static_assert(sizeof(OSOFSTRUCT) == 268 && offsetof(OSOFSTRUCT, nErrCode) == 2 &&
              offsetof(OSOFSTRUCT, reserved) == 4 && offsetof(OSOFSTRUCT, szPathName) == 8);

using OpenFile = systest::ScratchTest;

// A path as '/'-separated lower case (Windows paths differ in neither).
std::string lower(const fs::path& p) {
  std::string s = systest::slashes(p.string());
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

TEST_F(OpenFile, RecordModesAccessAndPathLimit) {
  OSOFSTRUCT of;
  EXPECT_EQ((std::vector<int32_t>{osOpenFile("x.txt", nullptr, OF_READ), osFileExists(nullptr)}), (std::vector<int32_t>{-1, 0}));
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_EQ(osOpenFile(nullptr, &of, OF_READ), -1);
  EXPECT_TRUE(osOpenFile("", &of, OF_PARSE) == -1 && of.szPathName[0] == '\0');  // an empty name has no full form
  EXPECT_TRUE(of.cBytes == 268 && of.nErrCode != 0 && of.reserved == 0u);
  // Parse builds the absolute path only, and zeroes the rest of the record.
  std::memset(&of, 0xAB, sizeof of);
  EXPECT_TRUE(osOpenFile("sub/../notyet.txt", &of, OF_PARSE) == 1 && of.nErrCode == 0);
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "notyet.txt");
  EXPECT_EQ(std::string(of.szPathName, sizeof of.szPathName).find_first_not_of('\0', std::strlen(of.szPathName)), std::string::npos);
  EXPECT_FALSE(fs::exists("notyet.txt"));
  for (uint16_t mode : {uint16_t{OF_EXIST}, uint16_t{OF_READ}, uint16_t{OF_DELETE}})
    EXPECT_TRUE(osOpenFile("absent.txt", &of, mode) == -1 && of.nErrCode == plat::ERROR_FILE_NOT_FOUND) << mode;
  spill("f.txt", "abc");
  EXPECT_EQ((std::vector<int32_t>{osOpenFile("f.txt", &of, OF_EXIST), osFileExists("f.txt"), osFileExists("absent.txt")}),
            (std::vector<int32_t>{1, 1, 0}));
  EXPECT_EQ(fs::path(of.szPathName), fs::current_path() / "f.txt");
  // {mode, bytes a 1-byte read gets (-1: no read access), a 2-byte write, contents
  // after writing "ZZ"}: create empties the file and adds write access.
  const std::tuple<int, int, int, const char*> cases[] = {{OF_READ, 1, -1, "abc"}, {OF_WRITE, -1, 2, "ZZc"},
      {OF_READWRITE, 1, 2, "aZZ"}, {OF_CREATE, 0, 2, "ZZ"}, {OF_CREATE | OF_WRITE, -1, 2, "ZZ"}};
  for (auto [mode, read, write, after] : cases) {
    spill("f.txt", "abc");
    int32_t h = osOpenFile("f.txt", &of, uint16_t(mode));
    char b[4] = {};
    EXPECT_EQ(plat::_lread(h, b, 1), read) << mode;
    EXPECT_EQ(plat::_lwrite(h, "ZZ", 2), write) << mode;
    plat::_lclose(h);
    EXPECT_EQ(slurp("f.txt"), after) << mode;
  }
  EXPECT_TRUE(osOpenFile("f.txt", &of, OF_DELETE) == 1 && !fs::exists("f.txt"));
  // Full path = cwd + separator + name: 259 characters fit, 260 give error 111.
  const size_t room = 259 - fs::current_path().string().size() - 1;
  ASSERT_GT(room, 10u);
  EXPECT_TRUE(osOpenFile(std::string(room, 'a').c_str(), &of, OF_PARSE) == 1 && std::strlen(of.szPathName) == 259u);
  for (uint16_t mode : {uint16_t{OF_PARSE}, uint16_t{OF_CREATE}, uint16_t{OF_DELETE}})
    for (size_t n : {room + 1, size_t{1000}})
      EXPECT_TRUE(osOpenFile(std::string(n, 'b').c_str(), &of, mode) == -1 && of.nErrCode == 111 && of.cBytes == 268) << mode;
}

TEST_F(OpenFile, SharingModesConflict) {
  spill("s.txt", "s");
  OSOFSTRUCT a, b;
  // {first open, second open, second succeeds}; closing releases every share.
  const std::tuple<int, int, bool> cases[] = {
      {OF_READ | OF_SHARE_EXCLUSIVE, OF_READ | OF_SHARE_DENY_NONE, false},
      {OF_READ | OF_SHARE_DENY_WRITE, OF_READ | OF_SHARE_DENY_WRITE, true},
      {OF_READ | OF_SHARE_DENY_WRITE, OF_READWRITE, false},
      {OF_WRITE | OF_SHARE_EXCLUSIVE, OF_READ, false},  // a write-only handle shares too
      {OF_WRITE | OF_SHARE_DENY_NONE, OF_READ | OF_SHARE_DENY_WRITE, false},
      {OF_READ | OF_SHARE_DENY_NONE, OF_READ | OF_SHARE_DENY_NONE, true},
      {OF_READ | OF_SHARE_EXCLUSIVE, 0, false},  // alone: every share was released
  };
  for (auto [first, second, ok] : cases) {
    int32_t h1 = osOpenFile("s.txt", &a, uint16_t(first)), h2 = second ? osOpenFile("s.txt", &b, uint16_t(second)) : -1;
    EXPECT_TRUE(h1 != -1 && (h2 != -1) == ok && (h2 != -1 || !second || b.nErrCode == plat::ERROR_SHARING_VIOLATION))
        << first << " then " << second;
    for (int32_t h : {h2, h1})
      if (h != -1) plat::_lclose(h);
  }
}

TEST_F(OpenFile, BareNameFoundInTheSystemFolder) {
  const char* home = std::getenv("ZBSHR_HOME");
  if (home == nullptr || *home == '\0') GTEST_SKIP() << "ZBSHR_HOME is not set";
  fs::path sysdir = plat::config_dir();
  std::string name = "zbshr-sysfolder-" + std::to_string(std::random_device{}()) + ".dat";
  spill(sysdir / name, "from the system folder");
  ASSERT_FALSE(fs::exists(name));
  EXPECT_EQ(osFileExists(name.c_str()), 1);
  OSOFSTRUCT of;
  int32_t h = osOpenFile(name.c_str(), &of, OF_READ);
  ASSERT_NE(h, -1);
  // The full name found (on Windows with the drive the folder's name leaves out).
  const std::string found = lower(of.szPathName);
  const std::string want = lower(sysdir / name);
  EXPECT_TRUE(found.size() >= want.size() && found.compare(found.size() - want.size(), want.size(), want) == 0)
      << found << " vs " << want;
  char buf[32] = {};
  EXPECT_EQ(plat::_lread(h, buf, sizeof buf - 1), 22);
  EXPECT_STREQ(buf, "from the system folder");
  plat::_lclose(h);
  // Create and delete act on the current folder, not on the found file.
  EXPECT_EQ(osOpenFile(name.c_str(), &of, OF_DELETE), -1);
  EXPECT_TRUE(fs::exists(sysdir / name));
  fs::remove(sysdir / name);
  EXPECT_EQ(osFileExists(name.c_str()), 0);
}

class BufFile : public systest::ScratchTest {
 protected:
  // Position and room of the object, and the file's bytes so far.
  std::string at(const char* file) const {
    return std::to_string(f_.position) + "/" + std::to_string(f_.room) + " " + slurp(file);
  }
  uint32_t write(const char* s) { return osFileWrite(&f_, s, s ? uint32_t(std::strlen(s)) : 0); }
  OSFILE f_{};
};

TEST_F(BufFile, FlushingRulesAndFailures) {
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "full.txt", 8), 1);
  // {bytes written (null: a flush), length, result, position/room and file after}
  const std::tuple<const char*, uint32_t, uint32_t, const char*> steps[] = {
      {"12345678", 8, 8, "8/0 "},  // a full buffer waits for the next write
      {"9", 1, 1, "1/7 12345678"},
      {nullptr, 0, 1, "0/8 123456789"},
      {nullptr, 123, 1, "0/8 123456789"},  // nothing pending
      {"abc", 0, 0, "0/8 123456789"},
      {"ab", 2, 2, "2/6 123456789"},
      {"cdefghijklmnopq", 15, 15, "1/7 123456789abcdefghijklmnop"},  // whole buffers go out
  };
  for (auto [data, n, result, after] : steps) {
    EXPECT_EQ(osFileWrite(&f_, data, n), result) << after;
    EXPECT_EQ(at("full.txt"), after);
  }
  EXPECT_EQ(osFileClose(&f_, 7), 7);  // the keep flag comes back as given
  EXPECT_EQ(slurp("full.txt"), "123456789abcdefghijklmnopq");
  // The default buffer, from the caller's pool; closing without keep drops what is pending.
  ASSERT_EQ(osFileOpenNew(heap_, 5, &f_, "out.txt", 0), 1);
  EXPECT_EQ(at("out.txt"), "0/16284 ");
  EXPECT_EQ(std::to_string(f_.capacity) + "/" + std::to_string(f_.readMode), "16284/0");
  EXPECT_TRUE(zbstg_size(heap_, f_.buffer) == 16284u && zbstg_get_pointer_subpool(heap_, f_.buffer) == 5u);
  EXPECT_EQ(write("pending"), 7u);
  EXPECT_EQ(osFileSize(&f_), 0u);  // always 0 when writing
  EXPECT_EQ(osFileClose(&f_, 0), 0);
  EXPECT_TRUE(at("out.txt") == "0/0 " && f_.hFile == 0 && f_.buffer == nullptr);
  // Failures report the error and change nothing.
  EXPECT_TRUE(osFileOpenRead(heap_, 0, &f_, "missing.txt", 0) == 0 && f_.of.nErrCode == plat::ERROR_FILE_NOT_FOUND &&
              f_.buffer == nullptr);
  EXPECT_TRUE(osFileOpenNew(heap_, 0, &f_, "no-such-folder/x.txt", 0) == 0 && f_.of.nErrCode != 0);
  EXPECT_EQ((std::vector<int32_t>{osFileOpenNew(heap_, 0, nullptr, "x.txt", 0), osFileOpenNew(heap_, 0, &f_, nullptr, 0),
                                  osFileClose(nullptr, 1), int32_t(osFileSize(nullptr))}), std::vector<int32_t>(4, 0));
  EXPECT_TRUE(osFileOpenNew(heap_, 0, &f_, "big.txt", 0x80000000u) == 0 && !fs::exists("big.txt"));
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "short.txt", 8), 1);
  EXPECT_EQ(write("ABCDEFGH"), 8u);
  // A failed write or flush changes nothing; partway through a long write
  // the bytes taken so far stay in the full buffer.
  const OSFILE before = f_;
  for (const char* s : {"I", static_cast<const char*>(nullptr)}) {
    plat::inject_fault(plat::Fault::Write, 1, 1);
    EXPECT_TRUE(write(s) == 0u && std::memcmp(&before, &f_, sizeof f_) == 0 && std::string(f_.buffer, 8) == "ABCDEFGH");
  }
  EXPECT_EQ((std::vector<uint32_t>{write(nullptr), write("12345")}), (std::vector<uint32_t>{1, 5}));
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_EQ(write("6789xyz"), 0u);
  EXPECT_EQ(at("short.txt").substr(0, 4) + std::string(f_.buffer, 8), "8/0 12345678");
  // A failing final flush makes close answer 0, and the object is closed.
  plat::inject_fault(plat::Fault::Write, 1, 1);
  EXPECT_TRUE(osFileClose(&f_, 1) == 0 && f_.hFile == 0 && f_.buffer == nullptr);
}

// Random pieces written and read back through buffers of several sizes, the
// object kept at a 4-byte aligned place inside a heap block (as the export
// state keeps it); a file is read or written, never both.
TEST_F(BufFile, ReadBackInRandomPieces) {
  std::mt19937 rng(99);
  std::string data(100000, '\0');
  for (auto& c : data) c = static_cast<char>(rng());
  auto* block = static_cast<unsigned char*>(zbstg_alloc(heap_, sizeof(OSFILE) + 8, 0));
  auto* f = reinterpret_cast<OSFILE*>(block + (reinterpret_cast<uintptr_t>(block) % 8 ? 0 : 4));
  for (uint32_t bufsize : {1u, 7u, 4096u, 0u}) {
    std::memset(static_cast<void*>(f), 0, sizeof(OSFILE));
    ASSERT_EQ(osFileOpenNew(heap_, 3, f, "rt.bin", bufsize), 1);
    for (size_t pos = 0, n; pos < data.size(); pos += n) {
      n = std::min<size_t>(rng() % 5000, data.size() - pos);
      ASSERT_EQ(osFileWrite(f, data.data() + pos, static_cast<uint32_t>(n)), n);
    }
    ASSERT_TRUE(osFileClose(f, 1) == 1 && slurp("rt.bin") == data) << bufsize;
    ASSERT_EQ(osFileOpenRead(heap_, 3, f, "rt.bin", bufsize), 1);
    EXPECT_EQ(osFileSize(f), data.size());
    std::string back, piece(6000, '\0');
    for (uint32_t want = 1, got = 1; got == want; back.append(piece.data(), got))
      got = osFileRead(f, piece.data(), want = static_cast<uint32_t>(rng() % 6000));
    EXPECT_EQ(back, data) << bufsize;
    EXPECT_EQ(osFileSize(f), data.size());  // the file offset is restored
    EXPECT_EQ(osFileWrite(f, "x", 1) + osFileWrite(f, nullptr, 0), 0u);  // reading only
    EXPECT_TRUE(osFileClose(f, 0) == 0 && osFileRead(f, piece.data(), 1) == 0u);  // reading a closed file gives nothing
  }
  zbstg_free(heap_, block);
  ASSERT_EQ(osFileOpenRead(heap_, 0, &f_, "rt.bin", 6), 1);
  char buf[8];
  EXPECT_EQ(osFileRead(&f_, buf, 4), 4u);
  EXPECT_EQ(at("rt.bin").substr(0, 4) + std::to_string(f_.readMode), "4/2 1");
  osFileClose(&f_, 0);
  ASSERT_EQ(osFileOpenNew(heap_, 0, &f_, "w.txt", 0), 1);
  EXPECT_EQ(osFileRead(&f_, buf, 4), 0u);  // writing only
  EXPECT_TRUE(osFileClose(&f_, 1) == 1 && write("x") == 0u);  // closed
}


// The store's temporary files, ZBT*.TMP in any case (some systems give temporary names in lower case).
std::vector<fs::path> temp_files() {
  char dir[300];
  zbshr::plat::GetTempPathA(sizeof dir, dir);
  std::vector<fs::path> out;
  for (auto& e : fs::directory_iterator(dir))
    if (std::string n = lower(e.path().filename()); n.rfind("zbt", 0) == 0 && n.ends_with(".tmp")) out.push_back(e.path());
  return out;
}
std::string le32(uint32_t v) { return {char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char(v >> 24)}; }

using BlockStore = systest::ScratchTest;

TEST_F(BlockStore, RecordsAtTheFileStartAndCopiesReadBack) {
  auto before = temp_files();
  ZBFSTG st = zbfstg_begin(heap_, 4);
  ASSERT_NE(st, nullptr);
  auto fresh = temp_files();
  std::erase_if(fresh, [&](const fs::path& p) { return std::count(before.begin(), before.end(), p) > 0; });
  ASSERT_EQ(fresh.size(), 1u);
  const fs::path file = fresh[0];
  // The n bytes of the copy read at `pos` (in the store's pool), or "<none>".
  auto copy = [&](int32_t pos, size_t n) -> std::string {
    void* p = zbfstg_get(st, pos);
    if (!p) return "<none>";
    EXPECT_TRUE(zbstg_size(heap_, p) >= n && zbstg_get_pointer_subpool(heap_, p) == 4u);
    std::string s(static_cast<char*>(p), n);
    zbstg_free(heap_, p);
    return s;
  };
  EXPECT_EQ(copy(0, 0), "<none>");  // the empty file
  // {record, its position, the file after, where to read, what is read}: each
  // record overwrites the start, the position counter runs on, and a read
  // trusts a length only while it stays within the file.
  const std::string big(70000, 'k');
  const std::tuple<std::string, int32_t, std::string, int32_t, std::string> steps[] = {
      {"hello", 0, le32(5) + "hello", 0, "hello"},
      {"xy", 9, le32(2) + "xyllo", 0, "xy"},
      {"", 15, le32(0) + "xyllo", 9, "<none>"},
      {le32(3) + "xyz", 19, le32(7) + le32(3) + "xyz", 4, "xyz"},
      {le32(4) + "xyz", 30, le32(7) + le32(4) + "xyz", 4, "<none>"},
      {big, 41, le32(70000) + big, 0, big},
      {"abcd", 70045, le32(4) + "abcd" + big.substr(4), 1, "<none>"},  // a length made of record bytes
  };
  for (const auto& [data, pos, bytes, at, read] : steps) {
    EXPECT_EQ(zbfstg_alloc(st, data.data(), int32_t(data.size())), pos);
    EXPECT_EQ(slurp(file), bytes) << pos;
    EXPECT_EQ(copy(at, read == "<none>" ? 0 : read.size()), read) << pos;
  }
  EXPECT_EQ(copy(1 << 30, 1) + copy(-4, 1) + copy(70004, 1), "<none><none><none>");
  zbshr::plat::inject_fault(zbshr::plat::Fault::Write, 2, 1);  // the data write
  EXPECT_EQ(zbfstg_alloc(st, "efgh", 4), 0);
  zbshr::plat::clear_faults();
  EXPECT_EQ(zbfstg_alloc(st, "ijkl", 4), 70053);  // the counter did not move
  EXPECT_EQ(copy(0, 4), "ijkl");
  std::string bytes = slurp(file);
  EXPECT_TRUE(zbfstg_free(st, 0) == 1 && slurp(file) == bytes);  // freeing changes nothing
  EXPECT_EQ((std::vector<int32_t>{zbfstg_alloc(st, nullptr, 3), zbfstg_alloc(st, "abc", -1), zbfstg_alloc(nullptr, "a", 1),
                                  zbfstg_end(nullptr)}), std::vector<int32_t>(4, 0));
  EXPECT_TRUE(zbfstg_end(st) == 1 && !fs::exists(file));
  EXPECT_TRUE(!zbfstg_get(nullptr, 0) && !zbfstg_begin(nullptr, 0));
}

class ProfileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(home_);
    fs::create_directories(hostdir_);
    setenv("ZBSHR_HOME", home_.string().c_str(), 1);
    SetHost("zb050.exe");
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) saved_[i].empty() ? unsetenv(kVars[i]) : setenv(kVars[i], saved_[i].c_str(), 1);
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
  void SetHost(const std::string& program) { setenv("ZBSHR_HOST_PROGRAM", (hostdir_ / program).string().c_str(), 1); }
  void SystemProfile(const std::string& text) { spill(home_ / ZBTEST_SYSTEM_PROFILE, text); }
  // The start-up path with separators shown as '/'.
  std::string InitPath(int size = 300, const char* file = nullptr) {
    std::string buf(static_cast<size_t>(size), 'x');
    EXPECT_EQ(OS_UtilGetInitPath(buf.data(), size, file), buf.data());
    return slashes(buf.c_str());
  }
  std::string S(const fs::path& p) const { return slashes(p.string()); }

  static constexpr const char* kVars[2] = {"ZBSHR_HOME", "ZBSHR_HOST_PROGRAM"};
  std::string saved_[2] = {std::getenv(kVars[0]) ? std::getenv(kVars[0]) : "", std::getenv(kVars[1]) ? std::getenv(kVars[1]) : ""};
  fs::path root_ = fs::temp_directory_path() / ("zbshr-prof-" + std::to_string(std::random_device{}()));
  fs::path home_ = root_ / "home", hostdir_ = root_ / "Program Files" / "host";
};

TEST_F(ProfileTest, RecognisesHostsByProgramName) {
  const std::tuple<const char*, const char*, const char*> cases[] = {  // {program, short name, product}
      {"zb050.exe", "zb", "Quillbrander"},  {"ZB050.EXE", "zb", "Quillbrander"},
      {"zb050", "zb", "Quillbrander"},      {"kw050.exe", "kw", "Kestrel Reports"},
      {"KWRT050", "kw", "Kestrel Reports"}, {"dv050.exe", "dv", "DVBuilder"},
      {"other-tool", "zb", "Quillbrander"},
  };
  for (auto [program, short_name, product] : cases) {
    char sn[8], prod[32], folder[300];
    SetHost(program);
    EXPECT_EQ(OS_UtilGetHostInfo(sn, sizeof sn, prod, sizeof prod, folder, sizeof folder), 1);
    EXPECT_EQ(std::string(sn) + "|" + prod + "|" + slashes(folder), std::string(short_name) + "|" + product + "|" + S(hostdir_));
  }
  char cut[2];  // a name cut to the buffer
  EXPECT_TRUE(OS_UtilGetHostInfo(cut, sizeof cut, nullptr, 0, nullptr, 0) == 1 && std::string(cut) == "z");
}

TEST_F(ProfileTest, InitPathFromHostFolderOrSystemProfileAndItsBoundaries) {
  EXPECT_EQ(InitPath() + "|" + InitPath(300, "a.txt"), S(hostdir_) + "/|" + S(hostdir_ / "a.txt"));
  char file[300];
  OS_UtilGetProfileFile(file, sizeof file, 0);
  EXPECT_EQ(slashes(file), S(hostdir_ / "zb.ini"));
  // {system profile, start-up path}: "InitPath" applies only while
  // "InitPath050" is absent or empty; no separator is added after a drive.
  for (auto [profile, want] : {std::pair<const char*, const char*>{"[Quillbrander]\nInitPath=/srv/old\n", "/srv/old/"},
                               {"[quillbrander]\nInitPath050 = /srv/new/ \nInitPath=/srv/old\n", "/srv/new/"},
                               {"[Quillbrander]\nInitPath050=\nInitPath=C:\n", "C:"}}) {
    SystemProfile(profile);
    EXPECT_EQ(InitPath(), want) << profile;
  }
  SetHost("dv050.exe");  // other hosts read their own product's section
  EXPECT_EQ(InitPath(), S(hostdir_) + "/");
  SetHost("zb050.exe");
  // The path is read into the caller's size less one, so a stored value is cut or refused early enough for its
  // separator (and the file name) to fit.
  SystemProfile("[Quillbrander]\nInitPath050=/abcdefghij\n");  // 12 with separator
  EXPECT_EQ(InitPath(25, "file.ini"), "file.ini");  // 12 + 8 + 4 reaches size - 1
  EXPECT_EQ(InitPath(26, "file.ini"), "/abcdefghij/file.ini");
  const std::string value = "/0123456789abcdefghijklmnopqrstuvwxyz";
  SystemProfile("[Quillbrander]\nInitPath050=" + value + "\n");
  EXPECT_EQ(InitPath(20), value.substr(0, 18) + "/");
  EXPECT_EQ(InitPath(4) + "|" + InitPath(2), "/0/|");  // a one-byte buffer holds no character
  // A stored value that needs the whole buffer does not fit in it: the system
  // profile applies instead. One byte more and it is read.
  fs::path cfg = root_ / "cfg";
  spill(cfg / "zb.ini", "");
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  const int n = static_cast<int>(cfg.string().size());
  EXPECT_EQ(InitPath(n + 1), value.substr(0, static_cast<size_t>(n) - 1) + "/");
  EXPECT_EQ(InitPath(n + 2), S(cfg) + "/");
  // The profile file reads 259 bytes: a stored path of 258 is read, and leaves no room for the file name.
  plat::HKEY key = nullptr;
  ASSERT_EQ(plat::RegCreateKeyExA(plat::HKEY_CURRENT_USER, "Software\\Harrowvane\\Quillbrander\\5.0", 0, nullptr, 0,
                                  plat::KEY_WRITE, nullptr, &key, nullptr), plat::ERROR_SUCCESS);
  const std::string long_path = "/" + std::string(257, 'p');
  plat::RegSetValueExA(key, "InitPath", 0, plat::REG_SZ, reinterpret_cast<const uint8_t*>(long_path.c_str()), 259);
  plat::RegCloseKey(key);
  OS_UtilGetProfileFile(file, sizeof file, 0);
  EXPECT_STREQ(file, "zb.ini");
}

TEST_F(ProfileTest, PutInitPathNeedsTheProfileFileAndWinsOverSystemProfile) {
  fs::path cfg = root_ / "cfg";
  fs::create_directories(cfg);
  SystemProfile("[Quillbrander]\nInitPath050=/srv/new\n");
  EXPECT_EQ(OS_UtilPutInitPath(cfg.string().c_str()), 0);  // no zb.ini there yet
  EXPECT_EQ(InitPath(), "/srv/new/");
  spill(cfg / "zb.ini", "[app]\ncolor=blue\n");
  EXPECT_NE(OS_UtilPutInitPath(("   " + cfg.string() + "   ").c_str()), 0);
  EXPECT_EQ(InitPath(), S(cfg) + "/");
  // The stored value is the trimmed path with its terminator, under the
  // product's key of the user's registry.
  plat::HKEY key = nullptr;
  ASSERT_EQ(plat::RegOpenKeyExA(plat::HKEY_CURRENT_USER, "Software\\Harrowvane\\Quillbrander\\5.0", 0,
                                plat::KEY_READ, &key), plat::ERROR_SUCCESS);
  char stored[300] = {};
  plat::DWORD type = 0, size = sizeof stored;
  EXPECT_EQ(plat::RegQueryValueExA(key, "InitPath", nullptr, &type, reinterpret_cast<uint8_t*>(stored), &size),
            plat::ERROR_SUCCESS);
  plat::RegCloseKey(key);
  EXPECT_EQ(type, plat::REG_SZ);
  EXPECT_EQ(slashes(stored), slashes(cfg.string()));
  EXPECT_EQ(size, std::strlen(stored) + 1);
  char buf[64];
  EXPECT_EQ(OS_UtilGetProfStr("APP", "COLOR", "none", buf, sizeof buf), 4);
  EXPECT_STREQ(buf, "blue");
  EXPECT_NE(OS_UtilPutInitPath("  "), 0);  // empty: the system profile applies again
  EXPECT_EQ(InitPath(), "/srv/new/");
  fs::remove(home_ / ZBTEST_SYSTEM_PROFILE);
  // A write while the stored folder has lost its profile drops the stored path.
  ASSERT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  fs::remove(cfg / "zb.ini");
  EXPECT_NE(OS_UtilPutProfStr("a", "b", "c"), 0);
  EXPECT_TRUE(fs::exists(hostdir_ / "zb.ini"));
  EXPECT_EQ(InitPath(), S(hostdir_) + "/");
}

// A string read through a profile getter into a buffer of `size`: "length:text".
template <class Get>
std::string Read(Get get, const char* section, const char* key, const char* def, int size = 64) {
  std::vector<char> buf(static_cast<size_t>(size), 'x');
  return std::to_string(get(section, key, def, buf.data(), size)) + ":" + buf.data();
}

// Writes land in the host folder's profile, or for a host known by its bare
// program name (no folder) in the configuration folder, where it is read.
TEST_F(ProfileTest, LocalAndSharedProfileReadsAndWrites) {
  EXPECT_TRUE(OS_UtilGetProfInt("s", "n", 42) == 42 && OS_UtilPutProfStr("Settings", "Count", "17") != 0);
  EXPECT_EQ(lf(slurp(hostdir_ / "zb.ini")), "[Settings]\nCount=17\n");
  EXPECT_EQ(OS_UtilGetProfInt("settings", "count", 0), 17);
  EXPECT_EQ(Read(OS_UtilGetProfStr, "Settings", "missing", "default-text", 8), "7:default");
  setenv("ZBSHR_HOST_PROGRAM", "kw050", 1);
  EXPECT_EQ(Read([](const char*, const char*, const char*, char* b, int n) { return OS_UtilGetProfileFile(b, n, 1); },
                 "", "", ""), "6:kw.ini");
  EXPECT_EQ(Read([](const char*, const char*, const char*, char* b, int n) { return OS_UtilGetProfileFile(b, n, 1); },
                 "", "", "", 4), "6:kw.");
  EXPECT_TRUE(OS_UtilPutProfStr("Run", "Mode", "fast") != 0 && lf(slurp(home_ / "kw.ini")) == "[Run]\nMode=fast\n");
  EXPECT_EQ(Read(OS_UtilGetProfStr, "run", "mode", ""), "4:fast");
  // The shared profile is absent until the host folder's profile names one.
  SetHost("zb050.exe");
  EXPECT_EQ((std::vector<int32_t>{OS_NetworkSharedProfileAccessible(), OS_NetworkGetProfInt("s", "k", -7),
                                  OS_NetworkPutProfStr("s", "k", "v")}), (std::vector<int32_t>{0, -7, 0}));
  EXPECT_EQ(Read(OS_NetworkGetProfStr, "s", "k", "longer-default", 6) + Read(OS_NetworkGetProfStr, "s", "k", nullptr, 6),
            "5:longe0:");
  fs::path shared = root_ / "net" / "shared.ini";
  spill(shared, "[Team]\nSize=0x10\n");
  spill(hostdir_ / "zb.ini", "[zb]\nsharedIni=" + shared.string() + "\n");
  EXPECT_EQ(OS_NetworkSharedProfileAccessible(), static_cast<int32_t>(shared.string().size()));
  EXPECT_TRUE(OS_NetworkGetProfInt("team", "size", 0) == 16 && OS_NetworkPutProfStr("Team", "Lead", "Ann") != 0);
  EXPECT_EQ(lf(slurp(shared)), "[Team]\nSize=0x10\nLead=Ann\n");
  EXPECT_EQ(Read(OS_NetworkGetProfStr, "Team", "Lead", "", 16), "3:Ann");
}

// Where the registry cannot be written, the start-up path goes to the system profile.
TEST_F(ProfileTest, PutInitPathFallsBackToTheSystemProfile) {
#if defined(_WIN32)
  GTEST_SKIP() << "the registry of the POSIX emulation is a file in the configuration folder";
#endif
  fs::create_directories(home_ / "registry.dat");  // cannot be written
  fs::path cfg = root_ / "cfg";
  spill(cfg / "zb.ini", "");
  EXPECT_NE(OS_UtilPutInitPath(cfg.string().c_str()), 0);
  EXPECT_NE(lf(slurp(home_ / ZBTEST_SYSTEM_PROFILE)).find("InitPath050=" + cfg.string()), std::string::npos);
  EXPECT_EQ(InitPath(), S(cfg) + "/");
  fs::remove(home_ / ZBTEST_SYSTEM_PROFILE);
  fs::create_directories(home_ / ZBTEST_SYSTEM_PROFILE);  // nowhere left to store it
  EXPECT_EQ(OS_UtilPutInitPath(cfg.string().c_str()), 0);
}


}  // namespace
