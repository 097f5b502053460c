// Regional settings for the fuzz targets: four win.ini files written once
// into a scratch configuration folder (removed at exit), one of which is made
// current per input.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "zbshr/memory.h"

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace fuzzprof {

// Makes profiles[p] (an [intl] section body) the current regional settings.
inline void use_profile(const char* tag, const char* const (&profiles)[4], int p) {
  static std::string base;
  static int current = -1;
  if (base.empty()) {
    auto d = std::filesystem::temp_directory_path() /
             (std::string("zbshr-fuzz-") + tag + "-" + std::to_string(std::random_device{}()));
    for (int i = 0; i < 4; ++i) {
      std::filesystem::create_directories(d / std::to_string(i));
      std::ofstream f(d / std::to_string(i) / ZBTEST_SYSTEM_PROFILE, std::ios::binary | std::ios::trunc);
      f << "[intl]\n" << profiles[i];
    }
    base = d.string();
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(base, ec);
    });
  }
  if (p == current) return;
  setenv("ZBSHR_HOME", (base + "/" + std::to_string(p)).c_str(), 1);
  zbshr_intl();
  current = p;
}

}  // namespace fuzzprof
