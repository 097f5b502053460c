// Runs a test under given regional settings: the [intl] section of the system profile in a configuration
// folder of its own (tests may run in parallel processes), read again by the library after each change.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "zbshr/memory.h"

// Windows maps any file named win.ini onto the registry: the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

class Regional : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("ZBSHR_HOME");
    saved_home_ = home ? std::optional<std::string>(home) : std::nullopt;
    dir_ = (((home && *home) ? std::filesystem::path(home) : std::filesystem::temp_directory_path()) /
            ("format-regional-" + std::to_string(getpid()))).string();
    std::filesystem::create_directories(dir_);
    setenv("ZBSHR_HOME", dir_.c_str(), 1);
    use("");
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    saved_home_ ? setenv("ZBSHR_HOME", saved_home_->c_str(), 1) : unsetenv("ZBSHR_HOME");
    zbshr_intl();
  }
  void use(const std::string& lines) {
    std::ofstream(dir_ + "/" ZBTEST_SYSTEM_PROFILE, std::ios::binary | std::ios::trunc) << "[intl]\n" << lines;
    zbshr_intl();
  }
  std::string dir_;
  std::optional<std::string> saved_home_;
};
