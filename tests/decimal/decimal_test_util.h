// Helpers shared by the decimal tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decimal/hook.h"
#include "decimal/wide.h"
#include "zbshr/decimal.h"

namespace dectest {

using u128 = zbshr::dec::u128;

inline SHDEC raw(uint16_t sign, int16_t scale, u128 mag) {
  SHDEC d{sign, scale, {}};
  for (int i = 0; i < 5; ++i) d.mag[i] = static_cast<uint16_t>(mag >> (16 * i));
  return d;
}
inline u128 mag_of(const SHDEC& d) {
  u128 m = 0;
  for (int i = 4; i >= 0; --i) m = (m << 16) | d.mag[i];
  return m;
}
inline SHDEC dec(const char* text) {
  SHDEC d{};
  EXPECT_NE(ConvAsciiToDecimal(&d, text), nullptr) << text;
  return d;
}
inline std::string str(const SHDEC& d) {
  char t[SHDEC_TEXT_SIZE];
  const char* r = ConvDecimalToAscii(t, &d);
  return r ? std::string(r) : std::string("<error>");
}

// Records every code (and extra value) passed to the decimal error hook while alive.
struct HookRecorder {
  static inline std::vector<int> codes, extras;
  SHDEC_ERROR_HOOK previous = zbshr::dec::set_error_hook(&record);
  HookRecorder() { codes.clear(), extras.clear(); }
  ~HookRecorder() { zbshr::dec::set_error_hook(previous); }
  int last() const { return codes.empty() ? 0 : codes.back(); }
  static void ZBSHR_CALL record(int16_t code, int32_t extra) { codes.push_back(code), extras.push_back(extra); }
};

}  // namespace dectest
