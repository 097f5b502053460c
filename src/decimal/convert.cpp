// SHDEC constants and the conversions to and from text, integers and
// binary floating point.
#include <charconv>
#include <cmath>
#include <cstring>

#include "decimal/convert.h"
#include "decimal/core.h"

using namespace zbshr::dec;

namespace {

constexpr SHDEC make_const(bool neg, int scale, u128 m) {
  return SHDEC{static_cast<uint16_t>(neg ? 1 : 0), static_cast<int16_t>(scale),
               {static_cast<uint16_t>(m), static_cast<uint16_t>(m >> 16),
                static_cast<uint16_t>(m >> 32), static_cast<uint16_t>(m >> 48),
                static_cast<uint16_t>(m >> 64)}};
}

constexpr u128 dec_literal(const char* s) {
  u128 r = 0;
  for (; *s; ++s) r = r * 10 + static_cast<unsigned>(*s - '0');
  return r;
}

// Writes the decimal digits of m, most significant first, without a
// terminator; returns the count (0 for a zero magnitude).
int magnitude_digits(u128 m, char* out) {
  char tmp[48];
  int n = 0;
  while (m >= kLim64) {
    const u128 q = m / kPow10[19];
    uint64_t chunk = static_cast<uint64_t>(m - q * kPow10[19]);
    for (int i = 0; i < 19; ++i) {
      tmp[n++] = static_cast<char>('0' + chunk % 10);
      chunk /= 10;
    }
    m = q;
  }
  uint64_t v = static_cast<uint64_t>(m);
  while (v) {
    tmp[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
  return n;
}

}  // namespace

extern "C" {
const SHDEC shdecOne = make_const(false, 0, 1);
const SHDEC shdecSevenTenths = make_const(false, 1, 7);
const SHDEC shdecLog2E = make_const(false, 23, dec_literal("144269504088896340735992"));
const SHDEC shdecLog10E = make_const(false, 23, dec_literal("43429448190325182765113"));
const SHDEC shdecLn2 = make_const(false, 23, dec_literal("69314718055994530941723"));
const SHDEC shdecLn10 = make_const(false, 23, dec_literal("230258509299404568401799"));
const SHDEC shdecExpCeiling = make_const(false, 0, 43);
const SHDEC shdecExpFloor = make_const(true, 0, 42);
}

namespace zbshr::dec {

int format_num(const Num& n, char* text) {
  char digits[48];
  int nd = magnitude_digits(n.m, digits);
  char* p = text;
  if (n.neg && n.m != 0) *p++ = '-';
  const int scale = n.scale;
  if (scale >= nd) {
    // Zeros on the left so that a digit stands before the point.
    const int pad = scale + 1 - nd;
    std::memmove(digits + pad, digits, static_cast<size_t>(nd));
    std::memset(digits, '0', static_cast<size_t>(pad));
    nd = scale + 1;
  }
  const int whole = nd - scale;
  std::memcpy(p, digits, static_cast<size_t>(whole));
  p += whole;
  if (scale > 0) {
    *p++ = '.';
    std::memcpy(p, digits + whole, static_cast<size_t>(scale));
    p += scale;
  }
  *p = '\0';
  return static_cast<int>(p - text);
}

int parse_num(const char* s, Num& out) {
  while (*s == ' ') ++s;
  bool neg = false;
  if (*s == '-') {
    neg = true;
    ++s;
  }
  u128 m = 0;
  bool too_big = false, any_digit = false, point = false;
  int64_t frac = 0;  // digits after the point: bounded by the text's length
  for (;; ++s) {
    const char c = *s;
    if (c >= '0' && c <= '9') {
      any_digit = true;
      if (point) ++frac;
      if (!too_big) {
        m = m * 10 + static_cast<unsigned>(c - '0');
        if (m >= kLim80) too_big = true;
      }
    } else if (c == '.' && !point) {
      point = true;
    } else {
      break;
    }
  }
  if (!any_digit) return kErrSyntax;
  // The exponent saturates far beyond any text's length, which keeps the
  // sign of the resulting scale right.
  int64_t exp = 0;
  if (*s == 'e' || *s == 'E') {
    ++s;
    bool eneg = false;
    if (*s == '+' || *s == '-') {
      eneg = *s == '-';
      ++s;
    }
    if (*s < '0' || *s > '9') return kErrSyntax;
    for (; *s >= '0' && *s <= '9'; ++s) {
      if (exp < 100000000000000000) exp = exp * 10 + (*s - '0');
    }
    if (eneg) exp = -exp;
  }
  while (*s == ' ') ++s;
  if (*s != '\0') return kErrSyntax;
  if (too_big || m >= kLim79) return kErrRange;
  int64_t scale = frac - exp;
  if (scale > kMaxScale) return kErrRange;
  if (scale < 0) {
    if (scale < -100 || !mul_pow10(m, static_cast<int>(-scale))) {
      if (m != 0) return kErrRange;
    }
    scale = 0;
  }
  out.m = m;
  out.scale = static_cast<int>(scale);
  out.neg = neg;
  return 0;
}

int double_to_num(double d, Num& out) {
  if (std::isnan(d)) return kErrSyntax;
  if (std::isinf(d)) return kErrOverflow;
  out = Num{};
  if (d == 0) return 0;
  // The shortest digits that read back as d: d.ddddde[+-]XX.
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::scientific);
  *res.ptr = '\0';
  const char* p = buf;
  if (*p == '-') {
    out.neg = true;
    ++p;
  }
  u128 m = 0;
  int nd = 0;
  for (; *p && *p != 'e'; ++p) {
    if (*p == '.') continue;
    m = m * 10 + static_cast<unsigned>(*p - '0');
    ++nd;
  }
  int exp = 0;
  std::from_chars(p + 1 + (p[1] == '+' ? 1 : 0), res.ptr, exp);
  int scale = nd - 1 - exp;
  if (scale < 0) {
    if (!mul_pow10(m, -scale)) return kErrOverflow;
    scale = 0;
  } else if (scale > kMaxScale) {
    // Too many places: round the double's exact value, not its shortest
    // digits (rounding those again could land one unit too high). The fixed
    // form is exact and correctly rounded, and a double is never a tie there.
    res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed, kMaxScale);
    m = 0;
    for (p = buf; p < res.ptr; ++p) {
      if (*p >= '0' && *p <= '9') m = m * 10 + static_cast<unsigned>(*p - '0');
    }
    scale = kMaxScale;
  }
  out.m = m;
  out.scale = scale;
  if (m == 0) out.neg = false;  // a value that vanished is a plain zero
  return 0;
}

// The value of m / 10^scale read back from its digits, correctly rounded to F.
template <typename F>
F from_digits(u128 m, int scale) {
  char buf[64];
  int len = magnitude_digits(m, buf);
  if (len == 0) buf[len++] = '0';
  buf[len++] = 'e';
  buf[len++] = '-';
  len += static_cast<int>(std::to_chars(buf + len, buf + sizeof buf, scale).ptr - (buf + len));
  F r = 0;
  std::from_chars(buf, buf + len, r);
  return r;
}

double num_to_double(const Num& n) {
  static constexpr double kExact[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                      1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  double r;
  if (n.m < (kOne << 53) && n.scale <= 22) {
    // Both operands exact: one correctly rounded division.
    r = static_cast<double>(static_cast<uint64_t>(n.m)) / kExact[n.scale];
  } else {
    r = from_digits<double>(n.m, n.scale);
  }
  return n.neg && n.m != 0 ? -r : r;  // a negative zero is zero
}

float num_to_float(const Num& n) {
  static constexpr float kExact[] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f,
                                     1e6f, 1e7f, 1e8f, 1e9f, 1e10f};
  float r;
  if (n.m < (kOne << 24) && n.scale <= 10) {
    r = static_cast<float>(static_cast<uint32_t>(n.m)) / kExact[n.scale];
  } else {
    r = from_digits<float>(n.m, n.scale);
  }
  return n.neg && n.m != 0 ? -r : r;  // a negative zero is zero
}

}  // namespace zbshr::dec

namespace {

// Checks the operand of a conversion out of a decimal and the place for its
// answer; a bad operand still clears the answer.
template <typename T>
bool convertible(T* out, const SHDEC* value) {
  if (int c = check(value)) {
    if (out) *out = 0;
    report(c);
    return false;
  }
  if (!out) {
    report(kErrNull);
    return false;
  }
  return true;
}

template <typename T>
T* to_integer(T* out, const SHDEC* value, u128 pos_max, u128 neg_max) {
  if (!convertible(out, value)) return nullptr;
  const Num n = load(value);
  const u128 r = div_pow10_round(n.m, n.scale);
  if (r > (n.neg ? neg_max : pos_max)) {
    *out = 0;
    report(kErrRange);
    return nullptr;
  }
  const int64_t v = n.neg ? -static_cast<int64_t>(r) : static_cast<int64_t>(r);
  *out = static_cast<T>(v);
  if (n.m % kPow10[n.scale] != 0) report(kErrFraction);
  return out;
}

}  // namespace

extern "C" {

ZBSHR_API(SHDEC*) ZeroDecimal(SHDEC* result) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  store(result, zero_num());
  return result;
}

ZBSHR_API(int16_t) DecimalPrecision(const SHDEC* value) {
  if (int c = check(value)) return static_cast<int16_t>(report(c));
  return value->scale;
}

ZBSHR_API(int16_t) TestSignDecimal(const SHDEC* value) {
  if (int c = check(value)) return static_cast<int16_t>(report(c));
  return static_cast<int16_t>(sign_of(load(value)));
}

ZBSHR_API(char*) ConvDecimalToAscii(char* text, const SHDEC* value) {
  if (!text) {
    report(kErrTextBuf);
    return nullptr;
  }
  if (int c = check(value)) {
    std::memcpy(text, "(null)", 7);
    report(c);
    return nullptr;
  }
  format_num(load(value), text);
  return text;
}

ZBSHR_API(SHDEC*) ConvAsciiToDecimal(SHDEC* result, const char* text) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  if (!text) {
    report(kErrTextBuf);
    return nullptr;
  }
  Num n;
  if (int c = parse_num(text, n)) {
    report(c);
    return nullptr;
  }
  store(result, n);
  return result;
}

ZBSHR_API(SHDEC*) ConvLongToDecimal(SHDEC* result, int32_t value) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  Num n;
  n.neg = value < 0;
  n.m = n.neg ? static_cast<u128>(-static_cast<int64_t>(value)) : static_cast<u128>(value);
  store(result, n);
  return result;
}

ZBSHR_API(SHDEC*) ConvIntToDecimal(SHDEC* result, int16_t value) {
  return ConvLongToDecimal(result, value);
}

ZBSHR_API(SHDEC*) ConvUnsToDecimal(SHDEC* result, uint16_t value) {
  return ConvLongToDecimal(result, value);
}

ZBSHR_API(SHDEC*) ConvUnsLongToDecimal(SHDEC* result, uint32_t value) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  Num n;
  n.m = value;
  store(result, n);
  return result;
}

ZBSHR_API(int16_t*) ConvDecToInt(int16_t* result, const SHDEC* value) {
  return to_integer(result, value, 32767, 32768);
}

ZBSHR_API(uint16_t*) ConvDecToUns(uint16_t* result, const SHDEC* value) {
  return to_integer(result, value, 65535, 0);
}

ZBSHR_API(int32_t*) ConvDecToLong(int32_t* result, const SHDEC* value) {
  return to_integer(result, value, 2147483647u, 2147483648u);
}

ZBSHR_API(uint32_t*) ConvDecToUnsLong(uint32_t* result, const SHDEC* value) {
  return to_integer(result, value, 4294967295u, 0);
}

ZBSHR_API(float*) ConvDecToFloat(float* result, const SHDEC* value) {
  if (!convertible(result, value)) return nullptr;
  *result = num_to_float(load(value));
  return result;
}

ZBSHR_API(double*) ConvDecToDouble(double* result, const SHDEC* value) {
  if (!convertible(result, value)) return nullptr;
  *result = num_to_double(load(value));
  return result;
}

ZBSHR_API(SHDEC*) ConvDoubleToDecimal(SHDEC* result, double value) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  Num n;
  if (int c = double_to_num(value, n)) {
    report(c);
    return nullptr;
  }
  store(result, n);
  if (n.m == 0 && value != 0) report(kErrUnderflow);
  return result;
}

ZBSHR_API(SHDEC*) ConvFloatToDecimal(SHDEC* result, float value) {
  return ConvDoubleToDecimal(result, static_cast<double>(value));
}

ZBSHR_API(SHDEC*) ConvDoubleToDecimalRound(SHDEC* result, double value, int32_t places) {
  if (!result) {
    report(kErrNull);
    return nullptr;
  }
  if (places < 0 || places > kMaxPlaces) {
    report(kErrPlaces);
    return nullptr;
  }
  Num n;
  if (int c = double_to_num(value, n)) {
    report(c);
    return nullptr;
  }
  if (n.m == 0) {
    store(result, zero_num(places));
    if (value != 0) report(kErrUnderflow);
    return result;
  }
  if (int c = set_scale(n, places, true)) {
    report(c);
    return nullptr;
  }
  store(result, n);
  if (n.m >= kLim63) {
    report(kErrOverflow);
    return nullptr;
  }
  if (n.m == 0) report(kErrUnderflow);
  return result;
}

}  // extern "C"
