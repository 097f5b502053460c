// A scratch folder per test, removed afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "platform/platform.h"

// Opens a test of the POSIX emulation itself: on Windows the real API answers.
#if defined(_WIN32)
#define ZBTEST_POSIX_ONLY(why) GTEST_SKIP() << "tests the POSIX emulation: " << why
#else
#define ZBTEST_POSIX_ONLY(why) static_cast<void>(0)
#endif

namespace zbshr_test {

// A call's result with the last error it left (the argument is evaluated first).
template <class T> std::pair<T, zbshr::plat::DWORD> WithError(T result) { return {result, zbshr::plat::GetLastError()}; }

class Scratch {
 public:
  Scratch() {
    std::string base = (std::filesystem::temp_directory_path() / "zbshr-plat-XXXXXX").string();
    dir_ = mkdtemp(base.data()) ? base : std::string();
  }
  ~Scratch() {
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }
  const std::string& dir() const { return dir_; }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  void write(const std::string& name, const std::string& content) const { std::ofstream(path(name), std::ios::binary) << content; }
  std::string read(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

 private:
  std::string dir_;
};

}  // namespace zbshr_test
