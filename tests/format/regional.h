// Test fixture that runs a test under given regional settings: it writes the
// [intl] section of the system profile in the scratch configuration folder
// and makes the library read it again.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "zbshr/memory.h"

class Regional : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("ZBSHR_HOME");
    if (home == nullptr || *home == '\0') {
      auto dir = std::filesystem::temp_directory_path() / "zbshr_format_test_home";
      setenv("ZBSHR_HOME", dir.c_str(), 1);
      home = std::getenv("ZBSHR_HOME");
    }
    std::filesystem::create_directories(home);
    ini_ = std::string(home) + "/win.ini";
    use("");
  }
  void TearDown() override {
    std::remove(ini_.c_str());
    zbshr_intl();
  }
  // Replaces the [intl] section with the given "key=value" lines.
  void use(const std::string& lines) {
    {
      std::ofstream f(ini_, std::ios::binary | std::ios::trunc);
      f << "[intl]\n" << lines;
    }
    zbshr_intl();
  }
  std::string ini_;
};
