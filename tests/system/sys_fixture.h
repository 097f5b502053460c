// Shared helpers of the system-family tests: a scratch current folder, whole
// file reads and writes that bypass the library, text compared alike on every system.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace fs = std::filesystem;

namespace systest {

inline std::string slurp(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}
inline void spill(const fs::path& p, const std::string& bytes) {
  if (p.has_parent_path()) fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
}
inline std::string slashes(std::string s) { return std::replace(s.begin(), s.end(), '\\', '/'), s; }
inline std::string lf(std::string s) { return s.erase(std::remove(s.begin(), s.end(), '\r'), s.end()), s; }

class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_);
    fs::current_path(dir_);
  }
  void TearDown() override {
    zbstg_end(heap_);
    fs::current_path(old_cwd_);
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  fs::path dir_ = fs::temp_directory_path() / ("zbshr-sys-" + std::to_string(std::random_device{}()));
  fs::path old_cwd_ = fs::current_path();
  ZBSTG_HEAP heap_ = zbstg_begin(0);
};

}  // namespace systest
