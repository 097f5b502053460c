// Unsigned integers wider than 128 bits for the decimal family's working
// magnitudes: products of two 80-bit magnitudes and dividends scaled by up to
// 10^51. Four 64-bit limbs, least significant first.
#pragma once

#include <cstdint>

#include "decimal/u128.h"

namespace zbshr::dec {

#if defined(__SIZEOF_INT128__) && !defined(ZBSHR_PORTABLE_U128)
using u128 = unsigned __int128;
#else
using u128 = U128;
#endif

struct Wide {
  uint64_t w[4] = {0, 0, 0, 0};

  static Wide from(u128 v) {
    Wide r;
    r.w[0] = static_cast<uint64_t>(v);
    r.w[1] = static_cast<uint64_t>(v >> 64);
    return r;
  }
  bool fits128() const { return (w[2] | w[3]) == 0; }
  u128 low128() const { return (static_cast<u128>(w[1]) << 64) | w[0]; }
};

// a * b for a, b below 2^128.
inline Wide wide_mul(u128 a, u128 b) {
  const uint64_t a0 = static_cast<uint64_t>(a), a1 = static_cast<uint64_t>(a >> 64);
  const uint64_t b0 = static_cast<uint64_t>(b), b1 = static_cast<uint64_t>(b >> 64);
  Wide r;
  u128 p00 = static_cast<u128>(a0) * b0;
  u128 p01 = static_cast<u128>(a0) * b1;
  u128 p10 = static_cast<u128>(a1) * b0;
  u128 p11 = static_cast<u128>(a1) * b1;
  r.w[0] = static_cast<uint64_t>(p00);
  u128 mid = (p00 >> 64) + static_cast<uint64_t>(p01) + static_cast<uint64_t>(p10);
  r.w[1] = static_cast<uint64_t>(mid);
  u128 hi = (mid >> 64) + (p01 >> 64) + (p10 >> 64) + static_cast<uint64_t>(p11);
  r.w[2] = static_cast<uint64_t>(hi);
  r.w[3] = static_cast<uint64_t>((hi >> 64) + (p11 >> 64));
  return r;
}

// x * m in place; returns false when the product does not fit 256 bits.
inline bool wide_mul_small(Wide& x, uint64_t m) {
  uint64_t carry = 0;
  for (int i = 0; i < 4; ++i) {
    u128 p = static_cast<u128>(x.w[i]) * m + carry;
    x.w[i] = static_cast<uint64_t>(p);
    carry = static_cast<uint64_t>(p >> 64);
  }
  return carry == 0;
}

// x / d in place, returning the remainder (d != 0).
inline uint64_t wide_div_small(Wide& x, uint64_t d) {
  u128 rem = 0;
  for (int i = 3; i >= 0; --i) {
    u128 cur = (rem << 64) | x.w[i];
    x.w[i] = static_cast<uint64_t>(cur / d);
    rem = cur % d;
  }
  return static_cast<uint64_t>(rem);
}

inline int wide_cmp(const Wide& a, const Wide& b) {
  for (int i = 3; i >= 0; --i) {
    if (a.w[i] != b.w[i]) return a.w[i] < b.w[i] ? -1 : 1;
  }
  return 0;
}

inline int wide_bits(const Wide& a) {
  for (int i = 3; i >= 0; --i) {
    if (a.w[i]) return 64 * i + 64 - __builtin_clzll(a.w[i]);
  }
  return 0;
}

// Long division: q = n / d, r = n % d (d != 0).
void wide_divmod(const Wide& n, const Wide& d, Wide& q, Wide& r);

}  // namespace zbshr::dec
