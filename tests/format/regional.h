// Test fixture that runs a test under given regional settings: it writes the
// [intl] section of the system profile in a configuration folder of its own
// (tests may run in parallel processes) and makes the library read it again.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "zbshr/memory.h"

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

class Regional : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("ZBSHR_HOME");
    if (home != nullptr) saved_home_ = home;
    had_home_ = home != nullptr;
    const std::filesystem::path base =
        (home != nullptr && *home != '\0') ? std::filesystem::path(home)
                                           : std::filesystem::temp_directory_path();
    dir_ = (base / ("format-regional-" + std::to_string(getpid()))).string();
    std::filesystem::create_directories(dir_);
    setenv("ZBSHR_HOME", dir_.c_str(), 1);
    use("");
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    if (had_home_)
      setenv("ZBSHR_HOME", saved_home_.c_str(), 1);
    else
      unsetenv("ZBSHR_HOME");
    zbshr_intl();
  }
  // Replaces the [intl] section with the given "key=value" lines.
  void use(const std::string& lines) {
    {
      std::ofstream f(dir_ + "/" ZBTEST_SYSTEM_PROFILE, std::ios::binary | std::ios::trunc);
      f << "[intl]\n" << lines;
    }
    zbshr_intl();
  }
  std::string dir_;
  std::string saved_home_;
  bool had_home_ = false;
};
