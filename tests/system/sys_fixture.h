// Shared helpers of the system-family tests: a scratch folder per test and
// whole-file reads that do not go through the library.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>
#include <string>

#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace systest {

namespace fs = std::filesystem;

inline std::string slurp(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline void spill(const fs::path& p, const std::string& bytes) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f << bytes;
}

// A fresh folder under the temporary folder, made the current folder for the
// test, and a heap.
class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    dir_ = fs::temp_directory_path() /
           ("zbshr-sys-" + std::to_string(rd()) + "-" + std::to_string(rd()));
    fs::create_directories(dir_);
    old_cwd_ = fs::current_path();
    fs::current_path(dir_);
    heap_ = zbstg_begin(0);
  }
  void TearDown() override {
    zbstg_end(heap_);
    fs::current_path(old_cwd_);
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  fs::path dir_;
  fs::path old_cwd_;
  ZBSTG_HEAP heap_ = nullptr;
};

}  // namespace systest
