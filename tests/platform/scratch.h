// A scratch folder per test, removed afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Opens a test of the POSIX emulation itself (its spellings, its knobs, its
// use of POSIX processes): on Windows the real API answers, and the test is
// skipped with the reason given.
#if defined(_WIN32)
#define ZBTEST_POSIX_ONLY(why) GTEST_SKIP() << "tests the POSIX emulation: " << why
#else
#define ZBTEST_POSIX_ONLY(why) static_cast<void>(0)
#endif

namespace zbshr_test {

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

  void write(const std::string& name, const std::string& content) const {
    std::ofstream out(path(name), std::ios::binary);
    out << content;
  }
  std::string read(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

 private:
  std::string dir_;
};

}  // namespace zbshr_test
