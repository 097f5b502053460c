// Internal working form of SHDEC values and the scaling helpers every
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

#if defined(__GNUC__) && !defined(_WIN32)
#define ZBSHR_DEC_HIDDEN __attribute__((visibility("hidden")))
#else
#define ZBSHR_DEC_HIDDEN
#endif
extern const u128 kPow10[39] ZBSHR_DEC_HIDDEN;   // 10^0 .. 10^38
extern const u128 kMaxMul[25] ZBSHR_DEC_HIDDEN;  // largest m with m * 10^j below 2^79
extern const u128 kFit79[15] ZBSHR_DEC_HIDDEN;   // 2^79 x 10^k: below kFit79[k], k digits suffice
extern const u128 kFit63[8] ZBSHR_DEC_HIDDEN;    // 2^63 x 10^k


// Division by 10^n (n in 1..19) with a precomputed reciprocal: the divisor
// shifted until its top bit is set, and floor((2^128 - 1) / d) - 2^64.
struct Recip {
  uint64_t d;     // 10^n << shift
  uint64_t v;     // the reciprocal
  int shift;
};
extern const Recip kRecip10[20] ZBSHR_DEC_HIDDEN;

// (u1:u0) / d for a normalised d and u1 < d: two multiplications.
inline uint64_t div_2by1(uint64_t u1, uint64_t u0, const Recip& r, uint64_t& rem) {
  u128 q = static_cast<u128>(r.v) * u1;
  q += (static_cast<u128>(u1) << 64) | u0;
  uint64_t q1 = static_cast<uint64_t>(q >> 64) + 1;
  const uint64_t q0 = static_cast<uint64_t>(q);
  uint64_t rr = u0 - q1 * r.d;
  if (rr > q0) {
    --q1;
    rr += r.d;
  }
  if (rr >= r.d) [[unlikely]] {
    ++q1;
    rr -= r.d;
  }
  rem = rr;
  return q1;
}

// v / 10^n for n in 1..19, with the remainder.
inline u128 div_pow10_small(u128 v, int n, uint64_t& rem) {
  const Recip& r = kRecip10[n];
  const int s = r.shift;
  // v << s as three words n2:n1:n0 (s < 64).
  const uint64_t lo = static_cast<uint64_t>(v), hi = static_cast<uint64_t>(v >> 64);
  const uint64_t n0 = lo << s;
  const uint64_t n1 = s ? (hi << s) | (lo >> (64 - s)) : hi;
  const uint64_t n2 = s ? hi >> (64 - s) : 0;
  uint64_t r1 = n1, qh = 0;
  if (n2 != 0 || n1 >= r.d) qh = div_2by1(n2, n1, r, r1);
  uint64_t r0;
  const uint64_t ql = div_2by1(r1, n0, r, r0);
  rem = r0 >> s;
  return (static_cast<u128>(qh) << 64) | ql;
}

// m / 10^n truncated, and the remainder (n in 1..38).
inline u128 div_pow10_rem(u128 m, int n, u128& rem) {
  if (n == 1) {
    const u128 q = m / 10;  // a constant divisor the compiler turns into multiplications
    rem = m - q * 10;
    return q;
  }
  if (n <= 19) {
    uint64_t r;
    u128 q;
    if ((m >> 64) == 0) {
      const uint64_t mm = static_cast<uint64_t>(m), d = static_cast<uint64_t>(kPow10[n]);
      q = mm / d;
      r = mm - static_cast<uint64_t>(q) * d;
    } else {
      q = div_pow10_small(m, n, r);
    }
    rem = r;
    return q;
  }
  if (m < kPow10[n]) {
    rem = m;
    return 0;
  }
  const u128 q = m / kPow10[n];
  rem = m - q * kPow10[n];
  return q;
}

// m / 10^n, truncating.
inline u128 div_pow10_trunc(u128 m, int n) {
  if (n <= 0) return m;
  if (n > 38) return 0;
  u128 rem;
  return div_pow10_rem(m, n, rem);
}

// m / 10^n, rounding half up on the last digit dropped (so a negative
// value rounds away from zero: the rounding is on the magnitude).
inline u128 div_pow10_round(u128 m, int n) {
  if (n <= 0) return m;
  if (n > 38) return (n == 39 && m >= 5 * kPow10[38]) ? 1 : 0;
  u128 rem;
  const u128 q = div_pow10_rem(m, n, rem);
  return q + (rem >= kPow10[n] / 2 ? 1 : 0);
}

// m * 10^n for a product known to fit.
inline u128 times_pow10(u128 m, int n) {
  if ((m >> 64) == 0 && n <= 19)
    return static_cast<u128>(static_cast<uint64_t>(m)) * static_cast<uint64_t>(kPow10[n]);
  return m * kPow10[n];
}

// m * 10^n, failing (m unchanged) when a step reaches 2^79.
inline bool mul_pow10(u128& m, int n) {
  if (n <= 0 || m == 0) return true;
  if (n > 24 || m > kMaxMul[n]) return false;
  m = times_pow10(m, n);
  return true;
}

// Rescaling up: multiplies m by ten at most n times while it stays below 2^79;
// returns the number of steps taken.
inline int rescale_up(u128& m, int n) {
  if (n <= 0) return 0;
  if (m == 0) return n;
  int j = n > 24 ? 24 : n;
  while (j > 0 && m > kMaxMul[j]) --j;
  m = times_pow10(m, j);
  return j;
}

// Brings x to scale `target`, rounding (or truncating) when it
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

// Fits a working product below 2^79, rounding half up on the
// last digit dropped; returns the number of digits dropped.
int fit(const Wide& v, u128& out);

inline int fit128(u128 v, u128& out) {
  if (v < kLim79) {
    out = v;
    return 0;
  }
  // The fewest digits whose removal brings v below 2^79.
  const int bits = 128 - __builtin_clzll(static_cast<uint64_t>(v >> 64));
  int k = ((bits - 80) * 1233) >> 12;
  if (k < 1) k = 1;
  while (k < 15 && v >= kFit79[k]) ++k;
  out = div_pow10_round(v, k);
  return k;
}

// The result normalisation: scale at most 18, magnitude below 2^63 (one
// pass, so a value may end at exactly 2^63). 0 or -304.
inline int normalise(Num& x) {
  if (x.scale > kPublishedScale) {
    x.m = div_pow10_round(x.m, x.scale - kPublishedScale);
    x.scale = kPublishedScale;
  }
  if (x.m >= kLim63) {
    int k = 1;
    while (k < 7 && x.m >= kFit63[k]) ++k;
    x.m = div_pow10_round(x.m, k);
    x.scale -= k;
    if (x.scale < 0) return kErrOverflow;
  }
  return 0;
}

// ---- operation cores (results unnormalised) -----------------------------------

// a + b with scale alignment; 0 or -304.
inline int add_core(Num a, Num b, Num& r) {
  if (b.scale > a.scale) {
    a.scale += rescale_up(a.m, b.scale - a.scale);
    if (a.scale < b.scale) {
      b.m = div_pow10_round(b.m, b.scale - a.scale);
      b.scale = a.scale;
    }
  } else if (a.scale > b.scale) {
    b.scale += rescale_up(b.m, a.scale - b.scale);
    if (b.scale < a.scale) {
      a.m = div_pow10_round(a.m, a.scale - b.scale);
      a.scale = b.scale;
    }
  }
  r.scale = a.scale;
  if (a.neg != b.neg) {
    if (a.m > b.m) {
      r.m = a.m - b.m;
      r.neg = a.neg;
    } else if (b.m > a.m) {
      r.m = b.m - a.m;
      r.neg = b.neg;
    } else {
      r.m = 0;
      r.neg = a.neg;
    }
    return 0;
  }
  u128 s = a.m + b.m;
  if (s >= kLim80) [[unlikely]] {
    // Only hand-made records above 2^79 get here.
    if (r.scale == 0) return kErrOverflow;
    s = div_pow10_round(a.m, 1) + div_pow10_round(b.m, 1);
    r.scale -= 1;
  }
  r.m = s;
  r.neg = a.neg;
  return 0;
}

// a x b: fitted below 2^79 and at most 23 places; 0 or -304.
inline int mul_core(const Num& a, const Num& b, Num& r) {
  int scale = a.scale + b.scale;
  if (a.m == 0 || b.m == 0) {
    r.m = 0;
    r.neg = false;
    r.scale = scale < kInternalScale ? scale : kInternalScale;
    return 0;
  }
  u128 m;
  int k;
  if (((a.m | b.m) >> 64) == 0) [[likely]] {
    k = fit128(a.m * b.m, m);
  } else {
    k = fit(wide_mul(a.m, b.m), m);
  }
  scale -= k;
  if (scale < 0) return kErrOverflow;
  if (scale > kInternalScale) {
    m = div_pow10_round(m, scale - kInternalScale);
    scale = kInternalScale;
  }
  r.m = m;
  r.scale = scale;
  r.neg = a.neg != b.neg;
  return 0;
}

// Quotient of a / b at scale `target` (a, b non-zero): truncated, or rounded
// half up on the remainder. -304 when the quotient does not fit 80 bits.
int div_core(const Num& a, const Num& b, int target, bool round, Num& q);

// Compares magnitudes, bringing the one with fewer places to the other
// scale; if that reaches 2^79 it is taken as the larger. -1, 0 or 1.
inline int cmp_magnitudes(const Num& a, const Num& b) {
  u128 am = a.m, bm = b.m;
  if (a.scale < b.scale) {
    if (!mul_pow10(am, b.scale - a.scale)) return 1;
  } else if (b.scale < a.scale) {
    if (!mul_pow10(bm, a.scale - b.scale)) return -1;
  }
  return am < bm ? -1 : (am > bm ? 1 : 0);
}

inline int sign_of(const Num& a) { return a.m == 0 ? 0 : (a.neg ? -1 : 1); }

}  // namespace zbshr::dec
