// Internal working form of SHDEC values and the scaling primitives every
// decimal operation is built from. A Num holds the magnitude as one 128-bit
// integer (always below 2^80), the scale and the sign.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "decimal/wide.h"
#include "zbshr/decimal.h"

namespace zbshr::dec {

constexpr u128 kOne = 1;
constexpr u128 kLim63 = kOne << 63;
constexpr u128 kLim64 = kOne << 64;
constexpr u128 kLim79 = kOne << 79;
constexpr u128 kLim80 = kOne << 80;

constexpr int kMaxScale = 28;
constexpr int kMaxPlaces = 18;
constexpr int kInternalScale = 23;  // products and quotients inside the family
constexpr int kPublishedScale = 18;

// Error codes as plain ints for internal use.
constexpr int kErrNull = SHDEC_ERR_NULL;
constexpr int kErrTextBuf = SHDEC_ERR_TEXTBUF;
constexpr int kErrScale = SHDEC_ERR_SCALE;
constexpr int kErrOverflow = SHDEC_ERR_OVERFLOW;
constexpr int kErrUnderflow = SHDEC_ERR_UNDERFLOW;
constexpr int kErrSyntax = SHDEC_ERR_SYNTAX;
constexpr int kErrRange = SHDEC_ERR_RANGE;
constexpr int kErrFraction = SHDEC_ERR_FRACTION;
constexpr int kErrZeroDiv = SHDEC_ERR_ZERODIV;
constexpr int kErrPower = SHDEC_ERR_POWER;
constexpr int kErrLog = SHDEC_ERR_LOG;
constexpr int kErrPlaces = SHDEC_ERR_PLACES;

struct Num {
  u128 m = 0;      // magnitude, below 2^80
  int scale = 0;   // 0..28 for operands; may be outside while a result is formed
  bool neg = false;
};

// ---- the error hook -------------------------------------------------------

extern SHDEC_ERROR_HOOK g_error_hook;

// Passes code to the hook; returns code so that callers can write
// `return fail(code)` style code.
inline int report(int code) {
  g_error_hook(static_cast<int16_t>(code), 0);
  return code;
}

// ---- loading and storing records -------------------------------------------

inline u128 load_mag(const SHDEC* d) {
  if constexpr (std::endian::native == std::endian::little) {
    uint64_t lo;
    std::memcpy(&lo, d->mag, 8);
    return (static_cast<u128>(d->mag[4]) << 64) | lo;
  } else {
    u128 m = 0;
    for (int i = 4; i >= 0; --i) m = (m << 16) | d->mag[i];
    return m;
  }
}

inline void store_mag(SHDEC* d, u128 m) {
  if constexpr (std::endian::native == std::endian::little) {
    uint64_t lo = static_cast<uint64_t>(m);
    std::memcpy(d->mag, &lo, 8);
    d->mag[4] = static_cast<uint16_t>(m >> 64);
  } else {
    for (int i = 0; i < 5; ++i) {
      d->mag[i] = static_cast<uint16_t>(m);
      m >>= 16;
    }
  }
}

inline Num load(const SHDEC* d) {
  Num n;
  n.m = load_mag(d);
  n.scale = d->scale;
  n.neg = (d->sign & 1) != 0;
  return n;
}

inline void store(SHDEC* d, const Num& n) {
  d->sign = n.neg ? 1 : 0;
  d->scale = static_cast<int16_t>(n.scale);
  store_mag(d, n.m);
}

// 0 when the operand may be used, else -301 (null) or -303 (bad scale).
inline int check(const SHDEC* d) {
  if (!d) return kErrNull;
  if (d->scale < 0 || d->scale > kMaxScale) return kErrScale;
  return 0;
}

// The canonical zero: sign 0, scale 2.
inline Num zero_num(int scale = 2) {
  Num n;
  n.scale = scale;
  return n;
}

// ---- powers of ten ----------------------------------------------------------

extern const u128 kPow10[39];    // 10^0 .. 10^38
extern const u128 kMaxMul[25];   // largest m with m * 10^j below 2^79

inline u128 pow10(int n) { return kPow10[n]; }

// m / 10^n, truncating.
inline u128 div_pow10_trunc(u128 m, int n) {
  if (n <= 0) return m;
  if (n > 38) return 0;
  if (m < kLim64 && n <= 19) return static_cast<uint64_t>(m) / static_cast<uint64_t>(kPow10[n]);
  if (m < kPow10[n]) return 0;
  return m / kPow10[n];
}

// m / 10^n, rounding half up on the last digit dropped (primitive 3).
inline u128 div_pow10_round(u128 m, int n) {
  if (n <= 0) return m;
  if (n > 39) return 0;
  if (m < kLim64 && n <= 19) {
    const uint64_t mm = static_cast<uint64_t>(m), d = static_cast<uint64_t>(kPow10[n]);
    const uint64_t q = mm / d, r = mm - q * d;
    return q + (r >= d / 2 ? 1 : 0);
  }
  if (n == 39) return m >= 5 * kPow10[38] ? 1 : 0;
  if (m < kPow10[n] / 2) return 0;
  const u128 q = m / kPow10[n], r = m - q * kPow10[n];
  return q + (r >= kPow10[n] / 2 ? 1 : 0);
}

// Primitive 1: m * 10^n, failing (m unchanged) when a step reaches 2^79.
inline bool mul_pow10(u128& m, int n) {
  if (n <= 0 || m == 0) return true;
  if (n > 24 || m > kMaxMul[n]) return false;
  m *= kPow10[n];
  return true;
}

// Primitive 2: multiplies m by ten at most n times while it stays below 2^79;
// returns the number of steps taken.
inline int rescale_up(u128& m, int n) {
  if (n <= 0) return 0;
  if (m == 0) return n;
  int j = n > 24 ? 24 : n;
  while (j > 0 && m > kMaxMul[j]) --j;
  m *= kPow10[j];
  return j;
}

// Primitive 5: brings x to scale `target`, rounding (or truncating) when it
// shrinks; -304 when growing overflows. x is unchanged on failure.
inline int set_scale(Num& x, int target, bool round) {
  if (target < x.scale) {
    x.m = round ? div_pow10_round(x.m, x.scale - target) : div_pow10_trunc(x.m, x.scale - target);
  } else if (target > x.scale) {
    if (!mul_pow10(x.m, target - x.scale)) return kErrOverflow;
  }
  x.scale = target;
  return 0;
}

// Primitive 6: fits a working product below 2^79, rounding half up on the
// last digit dropped; returns the number of digits dropped.
int fit(const Wide& v, u128& out);

inline int fit128(u128 v, u128& out) {
  if (v < kLim79) {
    out = v;
    return 0;
  }
  return fit(Wide::from(v), out);
}

// The result normalisation: scale at most 18, magnitude below 2^63 (one
// pass, so a value may end at exactly 2^63). 0 or -304.
inline int normalise(Num& x) {
  if (x.scale > kPublishedScale) {
    x.m = div_pow10_round(x.m, x.scale - kPublishedScale);
    x.scale = kPublishedScale;
  }
  if (x.m >= kLim63) {
    int k = 0;
    unsigned digit = 0;
    u128 t = x.m;
    do {
      digit = static_cast<unsigned>(t % 10);
      t /= 10;
      ++k;
    } while (t >= kLim63);
    x.m = t + (digit >= 5 ? 1 : 0);
    x.scale -= k;
    if (x.scale < 0) return kErrOverflow;
  }
  return 0;
}

// ---- operation cores (results unnormalised) -----------------------------------

// a + b with scale alignment; 0 or -304.
int add_core(Num a, Num b, Num& r);

// a x b: fitted below 2^79 and at most 23 places; 0 or -304.
int mul_core(const Num& a, const Num& b, Num& r);

// Quotient of a / b at scale `target` (a, b non-zero): truncated, or rounded
// half up on the remainder. -304 when the quotient does not fit 80 bits.
int div_core(const Num& a, const Num& b, int target, bool round, Num& q);

// Steps 3 and 4 of the comparison on the magnitudes: -1, 0 or 1.
int cmp_magnitudes(const Num& a, const Num& b);

inline int sign_of(const Num& a) { return a.m == 0 ? 0 : (a.neg ? -1 : 1); }

}  // namespace zbshr::dec
