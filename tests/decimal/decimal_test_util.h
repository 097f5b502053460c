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
  SHDEC d;
  d.sign = sign;
  d.scale = scale;
  for (int i = 0; i < 5; ++i) d.mag[i] = static_cast<uint16_t>(mag >> (16 * i));
  return d;
}

inline u128 mag_of(const SHDEC& d) {
  u128 m = 0;
  for (int i = 4; i >= 0; --i) m = (m << 16) | d.mag[i];
  return m;
}

inline u128 big(const char* digits) {
  u128 m = 0;
  for (; *digits; ++digits) m = m * 10 + static_cast<unsigned>(*digits - '0');
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

// Records every code passed to the decimal error hook while alive.
class HookRecorder {
 public:
  HookRecorder() {
    codes().clear();
    extras().clear();
    previous_ = zbshr::dec::set_error_hook(&record);
  }
  ~HookRecorder() { zbshr::dec::set_error_hook(previous_); }
  const std::vector<int>& seen() const { return codes(); }
  int last() const { return codes().empty() ? 0 : codes().back(); }
  void clear() { codes().clear(); }
  static std::vector<int>& extras() {
    static std::vector<int> v;
    return v;
  }

 private:
  static std::vector<int>& codes() {
    static std::vector<int> v;
    return v;
  }
  static void ZBSHR_CALL record(int16_t code, int32_t extra) {
    codes().push_back(code);
    extras().push_back(extra);
  }
  SHDEC_ERROR_HOOK previous_;
};

}  // namespace dectest
