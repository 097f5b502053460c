// Character case, one-character collation and number conversions.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"

namespace {

namespace plat = zbshr::plat;

// Case mapping of one byte in the current ANSI code page, as the multibyte-
// aware upper/lower functions apply it to a one-character string: in the
// double-byte page only ASCII letters change (a lead byte stands for an
// incomplete character and is left alone); in the Western single-byte page
// the accented letters and the few letters in 0x80-0x9F change as well.
unsigned char to_upper(unsigned char c) {
  if (c >= 'a' && c <= 'z') return static_cast<unsigned char>(c - 0x20);
  if (plat::GetACP() == 932) return c;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<unsigned char>(c - 0x20);
  switch (c) {
    case 0x9A: return 0x8A;  // s caron
    case 0x9C: return 0x8C;  // oe ligature
    case 0x9E: return 0x8E;  // z caron
    case 0xFF: return 0x9F;  // y diaeresis
    default: return c;
  }
}

unsigned char to_lower(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<unsigned char>(c + 0x20);
  if (plat::GetACP() == 932) return c;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<unsigned char>(c + 0x20);
  switch (c) {
    case 0x8A: return 0x9A;
    case 0x8C: return 0x9C;
    case 0x8E: return 0x9E;
    case 0x9F: return 0xFF;
    default: return c;
  }
}

// Parses like the 32-bit runtime's strtol: out-of-range values saturate.
int32_t parse_long(const char* s, int base) {
  if (s == nullptr) return 0;
  if (base < 0 || base == 1 || base > 36) return 0;
  errno = 0;
  long long v = std::strtoll(s, nullptr, base);
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

uint32_t parse_unsigned_wrapping(const char* s) {
  if (s == nullptr) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  while (is_space(*p)) ++p;
  uint32_t v = 0;
  while (*p >= '0' && *p <= '9') {
    v = v * 10u + static_cast<uint32_t>(*p - '0');
    ++p;
  }
  return v;
}

bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The decimal exponent of the first significant digit of a decimal number
// text that from_chars found out of range: above 0 it overflowed, otherwise
// it underflowed.
int64_t leading_exponent(const char* p, const char* last) {
  int64_t pos = 0;  // digits seen before the point, minus leading zeros after it
  bool seen = false, point = false;
  for (; p < last; ++p) {
    if (*p == '.' && !point) {
      point = true;
    } else if (*p >= '0' && *p <= '9') {
      if (!seen && *p != '0') seen = true;
      if (seen && !point) ++pos;
      if (!seen && point) --pos;
    } else {
      break;
    }
  }
  int64_t exp = 0;
  if (p < last && (*p == 'e' || *p == 'E')) {
    ++p;
    bool neg = false;
    if (p < last && (*p == '+' || *p == '-')) neg = (*p++ == '-');
    for (; p < last && *p >= '0' && *p <= '9'; ++p)
      if (exp < 100000) exp = exp * 10 + (*p - '0');
    if (neg) exp = -exp;
  }
  return pos + exp;
}

// Text to double as the C run-time's strtod reads it in the "C" locale:
// leading blanks, a sign, decimal digits with '.' and an exponent, hex digits
// after "0x", "inf", "infinity" and "nan". The host's locale never changes
// the decimal point. Out of range: HUGE_VAL or 0 with errno ERANGE. No
// number: 0 with the end at the start of the text.
double parse_double(const char* s, char** end) {
  const char* p = s;
  while (is_c_space(*p)) ++p;
  bool neg = false;
  if (*p == '+' || *p == '-') neg = (*p++ == '-');
  // from_chars takes a minus sign of its own; the text may carry one only.
  const bool hex = p[0] == '0' && (p[1] == 'x' || p[1] == 'X');
  const char* digits = hex ? p + 2 : p;
  const char* last = p + std::strlen(p);
  double v = 0.0;
  std::from_chars_result r{digits, std::errc::invalid_argument};
  if (*digits != '-' && *digits != '+') {
    r = std::from_chars(digits, last, v, hex ? std::chars_format::hex : std::chars_format::general);
  }
  if (r.ec == std::errc::invalid_argument) {
    if (!hex) {
      if (end) *end = const_cast<char*>(s);
      return 0.0;
    }
    // "0x" with no hex digit after it reads as the number 0.
    v = 0.0;
    r = {p + 1, std::errc{}};
  }
  if (r.ec == std::errc::result_out_of_range) {
    errno = ERANGE;
    bool over;
    if (hex) {
      const char* e = std::find_if(digits, r.ptr, [](char c) { return c == 'p' || c == 'P'; });
      over = !(e + 1 < r.ptr && e[1] == '-');
    } else {
      over = leading_exponent(p, r.ptr) > 0;
    }
    v = over ? HUGE_VAL : 0.0;
  }
  if (end) *end = const_cast<char*>(r.ptr);
  return neg ? -v : v;
}

}  // namespace

extern "C" {

ZBSHR_API(char) zbstg_ansitoupper(char c) {
  return static_cast<char>(to_upper(static_cast<unsigned char>(c)));
}

ZBSHR_API(char) zbstg_ansitolower(char c) {
  return static_cast<char>(to_lower(static_cast<unsigned char>(c)));
}

ZBSHR_API(int32_t) zbstg_lchrcmp(char a, char b) {
  const char sa[2] = {a, '\0'}, sb[2] = {b, '\0'};
  return plat::lstrcmpA(sa, sb);
}

ZBSHR_API(int32_t) zbstg_lchrcmpi(char a, char b) {
  const char sa[2] = {a, '\0'}, sb[2] = {b, '\0'};
  return plat::lstrcmpiA(sa, sb);
}

ZBSHR_API(int32_t) zbstg_atoi(const char* s) { return parse_long(s, 10); }

ZBSHR_API(int32_t) zbstg_atol(const char* s) { return parse_long(s, 10); }

ZBSHR_API(double) zbstg_atof(const char* s) {
  if (s == nullptr) return 0.0;
  return parse_double(s, nullptr);
}

ZBSHR_API(double) zbstg_strtod(const char* s, char** end) {
  if (s == nullptr) {
    if (end) *end = nullptr;
    return 0.0;
  }
  return parse_double(s, end);
}

ZBSHR_API(int32_t) zbstg_strtol(const char* s, char** /*end*/, int32_t base) {
  return parse_long(s, base);
}

ZBSHR_API(uint32_t) zbstg_strtoul(const char* s, char** /*end*/, int32_t base) {
  if (s == nullptr || base < 0 || base == 1 || base > 36) return 0;
  // The magnitude saturates at 2^32 - 1; a leading minus negates it modulo
  // 2^32, as the 32-bit runtime does.
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  while (is_space(*p)) ++p;
  bool negative = (*p == '-');
  if (*p == '-' || *p == '+') ++p;
  // The magnitude alone (a second sign is not accepted).
  if (*p == '-' || *p == '+') return 0;
  errno = 0;
  unsigned long long m = std::strtoull(reinterpret_cast<const char*>(p), nullptr, base);
  if (errno == ERANGE || m > UINT32_MAX) return UINT32_MAX;
  uint32_t v = static_cast<uint32_t>(m);
  return negative ? 0u - v : v;
}

ZBSHR_API(uint32_t) zbstg_atou(const char* s) { return parse_unsigned_wrapping(s); }

ZBSHR_API(uint32_t) zbstg_atoul(const char* s) { return parse_unsigned_wrapping(s); }

}  // extern "C"
