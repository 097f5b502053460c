// Shared helpers of the library-file tests.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "library/lm.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"

namespace lmtest {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

inline Bytes slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(f), {});
}
inline void spit(const std::string& path, const Bytes& b) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}
inline uint16_t le16(const Bytes& b, size_t o) { return uint16_t(b[o] | b[o + 1] << 8); }
inline uint32_t le32(const Bytes& b, size_t o) { return le16(b, o) | uint32_t(le16(b, o + 2)) << 16; }
inline void set32(Bytes& b, size_t o, uint32_t v, int width = 4) {
  for (int i = 0; i < width; ++i) b[o + size_t(i)] = uint8_t(v >> (8 * i));
}
inline std::string str(const Bytes& b, size_t o, size_t n) { return std::string(reinterpret_cast<const char*>(&b[o]), n); }
inline std::string pattern(size_t n, uint32_t seed) {
  std::string s(n, 0);
  std::mt19937 g(seed);
  for (auto& c : s) c = char(g());
  return s;
}
// An executable of `stub` bytes with a library appended and the trailer naming it.
inline Bytes exeWith(const Bytes& lib, uint32_t stub = 1536) {
  Bytes exe(stub + lib.size() + 512, 0x90);
  std::copy(lib.begin(), lib.end(), exe.begin() + stub);
  std::fill(exe.end() - 512, exe.end(), 0);
  std::memcpy(&exe[exe.size() - 512], "TRL*", 4);
  set32(exe, exe.size() - 508, stub);
  return exe;
}

// A writable copy of a string for the functions that fold names in place.
struct S {
  std::vector<char> v;
  S(const std::string& s) : v(s.begin(), s.end()) { v.resize(s.size() + 300, 0); }
  operator char*() { return v.data(); }
  std::string get() const { return std::string(v.data()); }
};

struct Entry {
  std::string data, comment;
  int32_t time = 0;
  bool operator==(const Entry&) const = default;
};
// Everything a host can read from a library through the C interface.
struct LibState {
  bool exists = false, opens = false;
  std::map<std::string, Entry> entries;
  std::vector<std::string> checkouts;
  std::string comment;
  bool operator==(const LibState&) const = default;
};

inline int32_t ZBSHR_CALL collectName(LMI_ENTRYINFO* info, void* ctx) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(info->name);
  return 0;
}
inline int32_t ZBSHR_CALL collectCheckout(LMI_CHECKOUTINFO* i, void* ctx) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(std::string(i->otherLibrary) + "|" + i->entryName +
                                                         "|" + i->user + "|" + i->status);
  return 0;
}

// Reads a whole entry of an open library; the error code goes to *rc.
inline std::string readEntry(LMI_HANDLE h, const std::string& name, int32_t* rc = nullptr) {
  int32_t r = LMI_OpenEntry(h, S(name), 1, nullptr), got = 0;
  std::string out;
  char buf[8192];
  while (r == 0 && (got = LMI_ReadEntry(h, buf, sizeof buf)) > 0) out.append(buf, size_t(got));
  if (r == 0) {
    LMI_CloseEntry(h);
    r = got;
  }
  if (rc) *rc = r;
  return out;
}

// `times`: entry times too (a change of one library gives its entries new ones).
inline LibState snapshot(ZBSTG_HEAP heap, const std::string& file, bool times = false) {
  LibState st;
  st.exists = fs::exists(file);
  S p(file);
  LMI_HANDLE h = st.exists ? LMI_OpenLibrary(heap, p, 1, 0) : nullptr;
  if (!h) return st;
  st.opens = true;
  LMI_LIBRARYINFO li;
  if (LMI_LibraryInformation(h, &li) == 0) st.comment = li.comment;
  std::vector<std::string> names;
  if (LMI_ListEntries(h, S(".*"), collectName, &names) != 0) st.comment += "<list failed>";
  for (const std::string& n : names) {
    LMI_ENTRYINFOEX ex{};
    int32_t rc = LMI_EntryInfoExtended(h, S(n), &ex);
    Entry& e = st.entries[n];
    e.data = rc ? "<info failed>" : readEntry(h, n, &rc);
    if (rc) e.data += "<read failed>";
    e.comment = ex.comment;
    if (times) e.time = ex.time;
  }
  LMI_CloseLibrary(h);
  if (LMI_ListCheckOutEntries(heap, p, collectCheckout, &st.checkouts) != 0) st.checkouts.push_back("<unreadable>");
  return st;
}

// Libraries live in memory where possible (changes end with syncs); ZBSHR_TEST_ON_DISK=1 keeps them on disk.
inline fs::path scratchRoot() {
#ifndef _WIN32
  if (!std::getenv("ZBSHR_TEST_ON_DISK") && fs::is_directory("/dev/shm")) return "/dev/shm";
#endif
  return fs::temp_directory_path();
}

class LibTest : public ::testing::Test {
 public:
  ZBSTG_HEAP heap = zbstg_begin(0);
  std::string dir;

  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir = (scratchRoot() / "zbshr-lib-tests" / (std::string(info->name()) + std::to_string(std::random_device{}()))).string();
    // Library paths are folded to lower case; keep the folder lower case too.
    for (auto& c : dir) c = char(std::tolower(static_cast<unsigned char>(c)));
    fs::create_directories(dir);
  }
  void TearDown() override {
    zbstg_end(heap);
    fs::remove_all(dir);
  }
  std::string path(const std::string& name) const { return dir + "/" + name; }

  std::string create(const std::string& name, const char* comment = nullptr) {
    S p(path(name));
    EXPECT_EQ(LMI_CreateLibrary(heap, p, comment), 0);
    return p.get();
  }
  LMI_HANDLE open(const std::string& p, int mode, int ra = 0) { return LMI_OpenLibrary(heap, S(p), mode, ra); }
  int32_t put(LMI_HANDLE h, const std::string& name, const std::string& data, const char* comment = nullptr) {
    int32_t rc = LMI_OpenEntry(h, S(name), 3, comment);
    if (rc) return rc;
    if (!data.empty() && (rc = LMI_WriteEntry(h, data.data(), int32_t(data.size()))) != int32_t(data.size())) {
      LMI_CloseEntry(h);
      return rc < 0 ? rc : -100;
    }
    return LMI_CloseEntry(h);
  }
  // Runs f on the library opened in `mode` and closes it; f's result.
  template <class F>
  int32_t with(const std::string& p, F f, int mode = 2, int readAhead = 0) {
    LMI_HANDLE h = open(p, mode, readAhead);
    if (!h) return -1000;
    int32_t rc = f(h);
    LMI_CloseLibrary(h);
    return rc;
  }
  LibState state(const std::string& p, bool times = false) { return snapshot(heap, p, times); }
  std::vector<std::string> problems(LMI_HANDLE h) { return zbshr::lm::verify(zbshr::lm::library_of(h)).problems; }
  std::vector<std::string> verifyFile(const std::string& p) {
    std::vector<std::string> r{"cannot open"};
    with(p, [&](LMI_HANDLE h) { return (r = problems(h)), 0; }, 1);
    return r;
  }
};

}  // namespace lmtest
