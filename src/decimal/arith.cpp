// The exported SHDEC arithmetic: comparison, sign operations, the four
// operations and their rounding and truncating variants, remainder,
// rounding and truncation.
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

extern "C" {

ZBSHR_API(int16_t) CompareDecimal(const SHDEC* a, const SHDEC* b) {
  if (int c = check(a)) return static_cast<int16_t>(report(c));
  if (int c = check(b)) return static_cast<int16_t>(report(c));
  return static_cast<int16_t>(compare_nums(load(a), load(b)));
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
  if (int c = check_args(a, b, result)) return fail(c);
  Num r;
  if (int c = add_core(load(a), load(b), r)) return fail(c);
  if (int c = normalise(r)) return fail(c);
  store(result, r);
  return result;
}

ZBSHR_API(SHDEC*) SubtractDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (int c = check_args(a, b, result)) return fail(c);
  Num y = load(b);
  y.neg = !y.neg;
  Num r;
  if (int c = add_core(load(a), y, r)) return fail(c);
  if (int c = normalise(r)) return fail(c);
  store(result, r);
  return result;
}

ZBSHR_API(SHDEC*) MultiplyDecimal(SHDEC* result, const SHDEC* a, const SHDEC* b) {
  if (int c = check_args(a, b, result)) return fail(c);
  const Num x = load(a), y = load(b);
  Num r;
  if (int c = multiply_nums(x, y, r)) return fail(c);
  store(result, r);
  if (r.m == 0 && x.m != 0 && y.m != 0) report(kErrUnderflow);
  return result;
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

}  // extern "C"
