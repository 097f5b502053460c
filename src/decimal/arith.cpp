// The exported SHDEC arithmetic: comparison, sign operations, the four
// operations and their rounding and truncating variants, remainder,
// rounding and truncation.
#include <bit>
#include <cstring>

#include "decimal/arith.h"
#include "decimal/core.h"

using namespace zbshr::dec;

namespace {

// Validates operands in order, then the result pointer. 0 when all is well.
inline int check_args(const SHDEC* a, const SHDEC* b, const SHDEC* result) {
  if (int c = check(a)) return c;
  if (int c = check(b)) return c;
  if (!result) return kErrNull;
  return 0;
}

inline int check_places(int32_t places) {
  return (places < 0 || places > kMaxPlaces) ? kErrPlaces : 0;
}

inline SHDEC* fail(int code) {
  report(code);
  return nullptr;
}

// The low 64 bits of a record's magnitude when its top word is zero.
inline bool small_mag(const SHDEC* d, uint64_t& m) {
  if constexpr (std::endian::native != std::endian::little) return false;
  if (d->mag[4] != 0) return false;
  std::memcpy(&m, d->mag, 8);
  return true;
}

[[gnu::noinline]] u128 div_round_outline(u128 r, int k) { return div_pow10_round(r, k); }

// r / 10 rounded half up, for 2^63 <= r < 2^80: r / 10 = (r >> 1) / 5 and
// 2^64 = 5 x 3689348814741910323 + 1, so only 64-bit steps are needed.
inline u128 div10_round(u128 r) {
  const u128 w = r >> 1;
  const uint64_t wh = static_cast<uint64_t>(w >> 64), wl = static_cast<uint64_t>(w);
  if (wh == 0) {  // r below 2^65: one 64-bit division by a constant
    const uint64_t q = wl / 5;
    const unsigned rem = static_cast<unsigned>(wl - q * 5) * 2 + static_cast<unsigned>(r & 1);
    return static_cast<u128>(q) + (rem >= 5 ? 1 : 0);
  }
  uint64_t t = wl + wh;
  if (t < wl) return div_round_outline(r, 1);  // the rare carry
  const uint64_t tq = t / 5;
  const unsigned rem = static_cast<unsigned>(t - tq * 5) * 2 + static_cast<unsigned>(r & 1);
  const u128 q = static_cast<u128>(wh) * 3689348814741910323ULL + tq;
  return q + (rem >= 5 ? 1 : 0);
}

// a + (b with its sign flipped when `flip`) for validated records whose
// magnitudes fit 64 bits and whose scales are at most 18: the same steps as
// add_core and normalise, with 64-bit operands. False sends the caller to
// the general path (which also reports any error).
inline bool add_fast(SHDEC* result, const SHDEC* a, const SHDEC* b, bool flip) {
  uint64_t am, bm;
  if (!small_mag(a, am) || !small_mag(b, bm)) return false;
  int s = a->scale;
  const int sb = b->scale;
  if (s > kPublishedScale || sb > kPublishedScale) return false;
  u128 x = am, y = bm;
  if (s < sb) {
    const int d = sb - s;
    if (x > kMaxMul[d]) return false;
    x = static_cast<u128>(am) * static_cast<uint64_t>(kPow10[d]);
    s = sb;
  } else if (sb < s) {
    const int d = s - sb;
    if (y > kMaxMul[d]) return false;
    y = static_cast<u128>(bm) * static_cast<uint64_t>(kPow10[d]);
  }
  const bool an = (a->sign & 1) != 0, bn = ((b->sign & 1) != 0) != flip;
  u128 r;
  bool neg = an;
  if (an == bn) {
    r = x + y;
  } else if (x >= y) {
    r = x - y;
  } else {
    r = y - x;
    neg = bn;
  }
  if (r >= kLim63) [[unlikely]] {
    int k = 1;
    while (k < 7 && r >= kFit63[k]) ++k;
    if (s < k) return false;
    r = k == 1 ? div10_round(r) : div_round_outline(r, k);
    s -= k;
  }
  result->sign = neg ? 1 : 0;
  result->scale = static_cast<int16_t>(s);
  store_mag(result, r);
  return true;
}

// CompareDecimal for validated records whose magnitudes fit 64 bits. When
// bringing one to the other's scale reaches 2^79 it is the larger one, which
// a plain comparison of the 128-bit products also says, since the other
// magnitude is below 2^64.
inline bool compare_fast(const SHDEC* a, const SHDEC* b, int& out) {
  uint64_t am, bm;
  if (!small_mag(a, am) || !small_mag(b, bm)) return false;
  if (am == 0 || bm == 0) return false;
  const int an = a->sign & 1, bn = b->sign & 1;
  if (an != bn) {
    out = an ? -1 : 1;
    return true;
  }
  const int d = a->scale - b->scale;
  if (d > 19 || d < -19) return false;
  const u128 x = d < 0 ? static_cast<u128>(am) * static_cast<uint64_t>(kPow10[-d]) : u128{am};
  const u128 y = d > 0 ? static_cast<u128>(bm) * static_cast<uint64_t>(kPow10[d]) : u128{bm};
  const int c = (x > y) - (x < y);
  out = an ? -c : c;
  return true;
}

}  // namespace

namespace zbshr::dec {

int compare_nums(const Num& a, const Num& b) {
  if (b.m == 0) return sign_of(a);
  if (a.m == 0) return -sign_of(b);
  if (a.neg != b.neg) return a.neg ? -1 : 1;
  const int c = cmp_magnitudes(a, b);
  return a.neg ? -c : c;
}

int multiply_nums(const Num& a, const Num& b, Num& r) {
  if (int c = mul_core(a, b, r)) return c;
  return normalise(r);
}

int divide_nums(const Num& a, const Num& b, Num& q) {
  if (b.m == 0) return kErrZeroDiv;
  if (a.m == 0) {
    q = a;
    return 0;
  }
  if (int c = div_core(a, b, kPublishedScale, false, q)) return c;
  if (q.m >= kLim79) return kErrOverflow;
  if (q.m == 0) return kErrUnderflow;
  return 0;
}

}  // namespace zbshr::dec


namespace {

[[gnu::noinline]] int16_t compare_general(const SHDEC* a, const SHDEC* b) {
  if (int c = check(a)) return static_cast<int16_t>(report(c));
  if (int c = check(b)) return static_cast<int16_t>(report(c));
  return static_cast<int16_t>(compare_nums(load(a), load(b)));
}

[[gnu::noinline]] SHDEC* add_general(SHDEC* result, const SHDEC* a, const SHDEC* b, bool flip) {
  if (int c = check_args(a, b, result)) return fail(c);
  Num y = load(b);
  if (flip) y.neg = !y.neg;
  Num r;
  if (int c = add_core(load(a), y, r)) return fail(c);
  if (int c = normalise(r)) return fail(c);
  store(result, r);
  return result;
}

// Valid operands (non-null, scale 0..28) and, for add, a result pointer.
inline bool valid(const SHDEC* a, const SHDEC* b) {
  return a && b && static_cast<uint16_t>(a->scale) <= kMaxScale &&
         static_cast<uint16_t>(b->scale) <= kMaxScale;
}

}  // namespace

ZBSHR_API(int16_t) CompareDecimal(const SHDEC* a, const SHDEC* b) {
  if (int out; valid(a, b) && compare_fast(a, b, out)) return static_cast<int16_t>(out);
  return compare_general(a, b);
}

ZBSHR_API(int16_t) MagnitudeOfDecimal(const SHDEC* a, const SHDEC* b) {
  if (int c = check(a)) return static_cast<int16_t>(report(c));
  if (int c = check(b)) return static_cast<int16_t>(report(c));
  return static_cast<int16_t>(cmp_magnitudes(load(a), load(b)));
}

ZBSHR_API(SHDEC*) AbsoluteDecimal(SHDEC* result, const SHDEC* a) {
  if (int c = check(a)) return fail(c);
  if (!result) return fail(kErrNull);
  const bool negative = sign_of(load(a)) < 0;
  *result = *a;
  if (negative) result->sign = static_cast<uint16_t>(result->sign & ~1u);
  return result;
}

ZBSHR_API(SHDEC*) ChangeSignDecimal(SHDEC* result, const SHDEC* a) {
  if (int c = check(a)) return fail(c);
  if (!result) return fail(kErrNull);
  *result = *a;
  result->sign = static_cast<uint16_t>(result->sign ^ 1u);
  return result;
}

ZBSHR_API(SHDEC*) AddDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (valid(a, b) && result && add_fast(result, a, b, false)) return result;
  return add_general(result, a, b, false);
}

ZBSHR_API(SHDEC*) SubtractDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (valid(a, b) && result && add_fast(result, a, b, true)) return result;
  return add_general(result, a, b, true);
}

namespace {

[[gnu::noinline]] SHDEC* multiply_general(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (int c = check_args(a, b, result)) return fail(c);
  const Num x = load(a), y = load(b);
  Num r;
  if (int c = multiply_nums(x, y, r)) return fail(c);
  store(result, r);
  if (r.m == 0 && x.m != 0 && y.m != 0) report(kErrUnderflow);
  return result;
}

}  // namespace

ZBSHR_API(SHDEC*) MultiplyDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  // Fast path: non-zero magnitudes of 64 bits, the same steps as mul_core and
  // normalise; anything unusual (including every error) takes the general path.
  uint64_t am, bm;
  if (valid(a, b) && result && small_mag(a, am) && small_mag(b, bm) && am && bm) {
    Num r;
    r.neg = ((a->sign ^ b->sign) & 1) != 0;
    r.scale = a->scale + b->scale;
    const u128 p = static_cast<u128>(am) * bm;
    if (p >= kLim79) {
      r.scale -= fit128(p, r.m);
    } else {
      r.m = p;
    }
    if (r.scale >= 0) {
      if (r.scale > kInternalScale) {
        r.m = div_pow10_round(r.m, r.scale - kInternalScale);
        r.scale = kInternalScale;
      }
      if (normalise(r) == 0 && r.m != 0) {
        store(result, r);
        return result;
      }
    }
  }
  return multiply_general(result, a, b);
}

namespace {

SHDEC* multiply_to_places(SHDEC* result, const SHDEC* a, const SHDEC* b, int32_t places,
                          bool round) {
  if (int c = check_args(a, b, result)) return fail(c);
  if (int c = check_places(places)) return fail(c);
  const Num x = load(a), y = load(b);
  Num r;
  if (int c = mul_core(x, y, r)) return fail(c);
  if (int c = set_scale(r, places, round)) return fail(c);
  store(result, r);
  if (r.m >= kLim63) return fail(kErrOverflow);
  if (r.m == 0 && x.m != 0 && y.m != 0) report(kErrUnderflow);
  return result;
}

SHDEC* divide_to_places(SHDEC* result, const SHDEC* a, const SHDEC* b, int32_t places,
                        bool round) {
  if (int c = check_args(a, b, result)) return fail(c);
  if (int c = check_places(places)) return fail(c);
  const Num x = load(a), y = load(b);
  if (y.m == 0) return fail(kErrZeroDiv);
  if (x.m == 0) {
    store(result, zero_num(places));
    return result;
  }
  Num q;
  if (int c = div_core(x, y, places, round, q)) return fail(c);
  if (q.m >= kLim63) return fail(kErrOverflow);
  if (q.m == 0) return fail(kErrUnderflow);
  store(result, q);
  return result;
}

SHDEC* set_places(SHDEC* result, const SHDEC* a, int32_t places, bool round) {
  if (int c = check(a)) return fail(c);
  if (!result) return fail(kErrNull);
  if (int c = check_places(places)) return fail(c);
  Num x = load(a);
  if (x.m == 0) {
    store(result, zero_num(places));
    return result;
  }
  if (int c = set_scale(x, places, round)) return fail(c);
  store(result, x);
  if (x.m >= kLim63) return fail(kErrOverflow);
  if (x.m == 0) report(kErrUnderflow);
  return result;
}

}  // namespace

ZBSHR_API(SHDEC*) MultiplyDecimalAndRound(SHDEC* result, const SHDEC* a, const SHDEC* b,
                                          int32_t places) {
  return multiply_to_places(result, a, b, places, true);
}

ZBSHR_API(SHDEC*) MultiplyDecimalAndTruncate(SHDEC* result, const SHDEC* a, const SHDEC* b,
                                             int32_t places) {
  return multiply_to_places(result, a, b, places, false);
}

ZBSHR_API(SHDEC*) DivideDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (int c = check_args(a, b, result)) return fail(c);
  Num q;
  if (int c = divide_nums(load(a), load(b), q)) return fail(c);
  store(result, q);
  return result;
}

ZBSHR_API(SHDEC*) DivideDecimalAndRound(SHDEC* result, const SHDEC* a, const SHDEC* b,
                                        int32_t places) {
  return divide_to_places(result, a, b, places, true);
}

ZBSHR_API(SHDEC*) DivideDecimalAndTruncate(SHDEC* result, const SHDEC* a, const SHDEC* b,
                                           int32_t places) {
  return divide_to_places(result, a, b, places, false);
}

ZBSHR_API(SHDEC*) ModuloDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (int c = check_args(a, b, result)) return fail(c);
  const Num x = load(a), y = load(b);
  if (y.m == 0) return fail(kErrZeroDiv);
  // q: the whole quotient, truncated; zero is fine here.
  Num q;
  if (x.m != 0) {
    if (int c = div_core(x, y, 0, false, q)) return fail(c);
    if (q.m >= kLim79) return fail(kErrOverflow);
  }
  Num p;
  if (int c = mul_core(q, y, p)) return fail(c);
  p.neg = !p.neg;
  Num r;
  if (int c = add_core(x, p, r)) return fail(c);
  if (int c = normalise(r)) return fail(c);
  store(result, r);
  return result;
}

ZBSHR_API(SHDEC*) RoundDecimal(SHDEC* result, const SHDEC* a, int32_t places) {
  return set_places(result, a, places, true);
}

ZBSHR_API(SHDEC*) TruncateDecimal(SHDEC* result, const SHDEC* a, int32_t places) {
  return set_places(result, a, places, false);
}

