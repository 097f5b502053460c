// Display formats: numbers (doubles, floats, decimals) read into decimal
// digits, rounded half away from zero on their shortest decimal form.
#include <charconv>
#include <cmath>
#include <cstring>

#include "format/display_number.h"

namespace zbshr::fmt {

void Digits::trim() {
  int lead = 0;
  while (lead < n && d[lead] == '0') ++lead;
  if (lead > 0) {
    std::memmove(d, d + lead, static_cast<size_t>(n - lead));
    n -= lead;
    point -= lead;
  }
  while (n > 0 && d[n - 1] == '0') --n;
  if (n == 0) point = 0;
}

void Digits::round_to(int keep) {
  if (keep >= n) return;
  if (keep < 0) {
    n = 0;
    point = 0;
    return;
  }
  const bool up = d[keep] >= '5';
  n = keep;
  if (up) {
    int i = n - 1;
    while (i >= 0 && d[i] == '9') d[i--] = '0';
    if (i >= 0) {
      ++d[i];
    } else {
      d[0] = '1';
      n = 1;
      ++point;
    }
  }
  trim();
}

namespace {

// Parses "d.ddde[+-]x" (the form of to_chars scientific) into digits.
bool parse_scientific(const char* s, const char* e, Digits& out) {
  out.n = 0;
  const char* p = s;
  int exp10 = 0;
  for (; p < e && *p != 'e'; ++p) {
    if (*p == '.') continue;
    if (out.n >= 47) return false;
    out.d[out.n++] = *p;
  }
  if (p < e && *p == 'e') {
    ++p;
    auto r = std::from_chars(p + (*p == '+' ? 1 : 0), e, exp10);
    if (r.ec != std::errc()) return false;
  }
  out.point = exp10 + 1;
  out.trim();
  return true;
}

}  // namespace

bool load_double(double v, NumValue& nv) {
  nv.kind = NumKind::Double;
  if (!std::isfinite(v)) return false;
  nv.neg = std::signbit(v) && v != 0;
  nv.zero = v == 0;
  nv.dv = std::fabs(v);
  nv.have_exact = false;  // the general form does not need them
  return true;
}

const Digits& exact_digits(NumValue& nv) {
  if (!nv.have_exact) {
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, nv.dv, std::chars_format::scientific);
    if (r.ec != std::errc() || !parse_scientific(buf, r.ptr, nv.exact)) nv.exact = Digits{};
    nv.have_exact = true;
  }
  return nv.exact;
}

bool load_float(float v, NumValue& nv) {
  nv.kind = NumKind::Float;
  if (!std::isfinite(v)) return false;
  nv.neg = std::signbit(v) && v != 0;
  nv.zero = v == 0;
  const float f = std::fabs(v);
  nv.dv = f;
  char buf[40];
  auto r = std::to_chars(buf, buf + sizeof buf, f, std::chars_format::scientific);
  return r.ec == std::errc() && parse_scientific(buf, r.ptr, nv.exact);
}

bool load_decimal(const SHDEC* v, NumValue& nv) {
  nv.kind = NumKind::Decimal;
  char text[SHDEC_TEXT_SIZE + 8];
  if (ConvDecimalToAscii(text, v) == nullptr) return false;
  const char* p = text;
  if (*p == '-') {
    nv.neg = true;
    ++p;
  }
  const char* const digits_start = p;
  Digits& d = nv.exact;
  d.n = 0;
  int int_digits = 0;
  bool point = false;
  for (; *p; ++p) {
    if (*p == '.') {
      if (point) return false;
      point = true;
      continue;
    }
    if (*p < '0' || *p > '9' || d.n >= 47) return false;
    d.d[d.n++] = *p;
    if (!point) ++int_digits;
  }
  if (d.n == 0) return false;
  d.point = int_digits;
  d.trim();
  nv.zero = d.n == 0;
  if (nv.zero) nv.neg = false;
  // The nearest double, for conditions and fractions.
  double x = 0;
  std::from_chars(digits_start, p, x);
  nv.dv = x;
  return true;
}

}  // namespace zbshr::fmt
