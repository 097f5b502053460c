// Shared helpers of the library-file tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "library/lm.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"

namespace lmtest {

namespace fs = std::filesystem;

inline std::vector<uint8_t> slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}
inline void spit(const std::string& path, const std::vector<uint8_t>& b) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}
inline uint32_t le32(const std::vector<uint8_t>& b, size_t o) {
  return uint32_t(b[o]) | uint32_t(b[o + 1]) << 8 | uint32_t(b[o + 2]) << 16 |
         uint32_t(b[o + 3]) << 24;
}
inline uint16_t le16(const std::vector<uint8_t>& b, size_t o) {
  return uint16_t(b[o] | b[o + 1] << 8);
}
inline std::string str(const std::vector<uint8_t>& b, size_t o, size_t n) {
  return std::string(reinterpret_cast<const char*>(b.data() + o), n);
}

// A writable copy of a string for the functions that fold names in place.
struct S {
  std::vector<char> v;
  S(const std::string& s) : v(s.begin(), s.end()) { v.resize(s.size() + 300, 0); }
  operator char*() { return v.data(); }
  std::string get() const { return std::string(v.data()); }
};

// Tells this run's folders from those of other test runs on the machine.
inline const std::string& runTag() {
  static const std::string tag = std::to_string(std::random_device{}() % 1000000000u);
  return tag;
}

// Where the tests make their libraries: a memory file system when there is
// one, since every change ends with syncs that a disk makes slow (the crash
// tests end processes instead of relying on the disk). ZBSHR_TEST_ON_DISK=1
// keeps them in the temporary folder.
inline fs::path scratchRoot() {
#ifndef _WIN32
  std::error_code ec;
  if (!std::getenv("ZBSHR_TEST_ON_DISK") && fs::is_directory("/dev/shm", ec)) return "/dev/shm";
#endif
  return fs::temp_directory_path();
}

class LibTest : public ::testing::Test {
 protected:
  ZBSTG_HEAP heap = nullptr;
  std::string dir;

  void SetUp() override {
    heap = zbstg_begin(0);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir = (scratchRoot() / "zbshr-lib-tests" /
           (std::string(info->test_suite_name()) + "." + info->name() + "-" + runTag()))
              .string();
    // Library paths are folded to lower case; keep the folder lower case too.
    for (auto& c : dir) c = char(std::tolower(static_cast<unsigned char>(c)));
    fs::remove_all(dir);
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
  LMI_HANDLE open(const std::string& p, int mode, int ra = 0) {
    S s(p);
    return LMI_OpenLibrary(heap, s, mode, ra);
  }
  int32_t put(LMI_HANDLE h, const std::string& name, const std::string& data,
              const char* comment = nullptr) {
    S n(name);
    int32_t rc = LMI_OpenEntry(h, n, 3, comment);
    if (rc) return rc;
    if (!data.empty()) {
      rc = LMI_WriteEntry(h, data.data(), int32_t(data.size()));
      if (rc != int32_t(data.size())) {
        LMI_CloseEntry(h);
        return rc < 0 ? rc : -100;
      }
    }
    return LMI_CloseEntry(h);
  }
  // Reads a whole entry; returns the error code in *rc.
  std::string get(LMI_HANDLE h, const std::string& name, int32_t* rc = nullptr) {
    S n(name);
    int32_t r = LMI_OpenEntry(h, n, 1, nullptr);
    std::string out;
    if (r == 0) {
      char buf[4096];
      for (;;) {
        int32_t got = LMI_ReadEntry(h, buf, sizeof buf);
        if (got < 0) {
          r = got;
          break;
        }
        out.append(buf, size_t(got));
        if (got < int32_t(sizeof buf)) break;
      }
      LMI_CloseEntry(h);
    }
    if (rc) *rc = r;
    return out;
  }
  std::vector<std::string> problems(LMI_HANDLE h) {
    return zbshr::lm::verify(zbshr::lm::library_of(h)).problems;
  }
  std::vector<std::string> verifyFile(const std::string& p) {
    LMI_HANDLE h = open(p, 1);
    if (!h) return {"cannot open"};
    auto r = problems(h);
    LMI_CloseLibrary(h);
    return r;
  }
};

inline std::string pattern(size_t n, uint32_t seed) {
  std::string s(n, 0);
  std::mt19937 g(seed);
  for (auto& c : s) c = char(g());
  return s;
}

}  // namespace lmtest
