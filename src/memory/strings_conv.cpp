// Character case, one-character collation and number conversions.
#include <cctype>
#include <cerrno>
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
  return std::strtod(s, nullptr);
}

ZBSHR_API(double) zbstg_strtod(const char* s, char** end) {
  if (s == nullptr) {
    if (end) *end = nullptr;
    return 0.0;
  }
  return std::strtod(s, end);
}

ZBSHR_API(int32_t) zbstg_strtol(const char* s, char** end, int32_t base) {
  return parse_long(s, base);
}

ZBSHR_API(uint32_t) zbstg_strtoul(const char* s, char** end, int32_t base) {
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
