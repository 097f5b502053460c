// Display formats: a number rendered through a compiled numeric section
// (digits, grouping, exponent, fraction or general form), and the choice of
// section by sign, zero or condition.
#include <charconv>
#include <cmath>
#include <string>

#include "format/display_number.h"
#include "memory/intl.h"

namespace zbshr::fmt {
namespace {

double pow10(int k) {
  double p = 1;
  for (int i = 0; i < (k < 0 ? -k : k); ++i) p *= 10;
  return p;
}

// The general form: at most 15 significant digits, no trailing zeros, an
// exponent below 1E-4 and from 1E+15 as "%.15g" would (decimals: always
// plain). The value is first multiplied by 10^shift (percent, scaling).
void put_general(NumValue& v, int shift, Out& o) {
  const char sep = intl::settings().decimal_sep;
  Digits g;
  if (v.kind == NumKind::Double && !v.zero) {
    double x = v.dv;
    if (shift > 0) x *= pow10(shift);
    if (shift < 0) x /= pow10(-shift);
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, x, std::chars_format::scientific, 14);
    Digits parsed;
    parsed.n = 0;
    int exp10 = 0;
    const char* p = buf;
    for (; p < r.ptr && *p != 'e'; ++p)
      if (*p != '.' && parsed.n < 47) parsed.d[parsed.n++] = *p;
    if (p < r.ptr) std::from_chars(p + 1 + (p[1] == '+' ? 1 : 0), r.ptr, exp10);
    parsed.point = exp10 + 1;
    parsed.trim();
    g = parsed;
  } else {
    g = exact_digits(v);
    if (g.n > 0) g.point += shift;
    if (v.kind == NumKind::Float) g.round_to(15);
  }
  if (g.n == 0) {
    o.put('0');
    return;
  }
  const int x = g.point - 1;
  if (v.kind != NumKind::Decimal && (x < -4 || x >= 15)) {
    o.put(g.d[0]);
    if (g.n > 1) {
      o.put(sep);
      o.put(g.d + 1, static_cast<size_t>(g.n - 1));
    }
    o.put('E');
    o.put(x < 0 ? '-' : '+');
    const int ax = x < 0 ? -x : x;
    char eb[8];
    auto r = std::to_chars(eb, eb + sizeof eb, ax);
    if (r.ptr - eb < 2) o.put('0');
    o.put(eb, static_cast<size_t>(r.ptr - eb));
    return;
  }
  if (g.point <= 0) {
    o.put('0');
    o.put(sep);
    for (int i = 0; i < -g.point; ++i) o.put('0');
    o.put(g.d, static_cast<size_t>(g.n));
    return;
  }
  for (int i = 0; i < g.point; ++i) o.put(i < g.n ? g.d[i] : '0');
  if (g.n > g.point) {
    o.put(sep);
    o.put(g.d + g.point, static_cast<size_t>(g.n - g.point));
  }
}

// Digits laid right-aligned over a run of `count` placeholders: the one at
// `index` (0 = leftmost) shows its digit, a '0' a zero, a '?' a space and a
// '#' nothing; the leftmost also shows the digits that do not fit.
struct RightAligned {
  const std::string& digits;
  int count;
  bool group;
  char sep;

  void put(int index, char ph, Out& o) const {
    const int len = static_cast<int>(digits.size());
    const int pos = count - 1 - index;  // 0 = units
    auto digit = [&](int p, char c) {
      o.put(c);
      if (group && p > 0 && p % 3 == 0) o.put(sep);
    };
    if (index == 0)
      for (int p = len - 1; p > pos; --p) digit(p, digits[static_cast<size_t>(len - 1 - p)]);
    if (pos < 0) return;
    if (pos < len)
      digit(pos, digits[static_cast<size_t>(len - 1 - pos)]);
    else if (ph == '0')
      digit(pos, '0');
    else if (ph == '?')
      o.put(' ');
  }
};

std::string to_text(uint64_t v) {
  char b[24];
  auto r = std::to_chars(b, b + sizeof b, v);
  return std::string(b, r.ptr);
}

// The fraction form: an integer part (when the mask has integer
// placeholders) and the nearest fraction whose denominator fits its
// placeholders, or has the fixed value.
int32_t render_fraction(const SecView& s, NumValue& v, bool minus, Out& o) {
  const SectionHeader& h = s.h;
  if (h.den_digits > 4 || (h.den_digits == 0 && h.den_fixed == 0)) return SHFORMAT_E_COMPILED;
  const auto& st = intl::settings();
  double x = v.dv * (h.percent > 0 ? 100 : 1) / pow10(3 * h.scale);
  if (!(x < 9e15)) return SHFORMAT_E_VALUE;  // beyond whole-number precision
  const bool has_int = h.n_int > 0;
  double ip = has_int ? std::floor(x) : 0;
  const double f = x - ip;
  uint64_t num = 0, den = 1;
  if (h.den_fixed > 0) {
    den = h.den_fixed;
    num = static_cast<uint64_t>(std::llround(f * static_cast<double>(den)));
  } else {
    uint64_t max_den = 1;
    for (int k = 0; k < h.den_digits; ++k) max_den *= 10;
    double best = 2;
    for (uint64_t q = 1; q < max_den; ++q) {
      const uint64_t p = static_cast<uint64_t>(std::llround(f * static_cast<double>(q)));
      const double err = std::fabs(f - static_cast<double>(p) / static_cast<double>(q));
      if (err < best - 1e-15) {
        best = err;
        num = p;
        den = q;
      }
    }
  }
  if (has_int && num == den) {
    ip += 1;
    num = 0;
  }
  const bool blank = has_int && num == 0;  // a whole number: no fraction shown
  if (minus && (ip != 0 || num != 0)) o.put('-');
  const std::string int_text = ip == 0 ? std::string(blank ? "0" : "") : to_text(static_cast<uint64_t>(ip));
  const std::string num_text = to_text(num), den_text = to_text(den);
  const RightAligned int_part{int_text, h.n_int, (h.flags & fGroup) != 0, st.thousand_sep};
  const RightAligned num_part{num_text, h.num_digits, false, ' '};
  int int_index = 0, num_index = 0, den_index = 0;
  for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t)) {
    switch (*t) {
      case tLit: o.put(reinterpret_cast<const char*>(t + 2), t[1]); break;
      case tInt: int_part.put(int_index++, static_cast<char>(t[1]), o); break;
      case tNum:
        if (blank)
          o.put(' ');
        else
          num_part.put(num_index, static_cast<char>(t[1]), o);
        ++num_index;
        break;
      case tSlash: o.put(blank ? ' ' : '/'); break;
      case tDenFixed:
        if (blank)
          o.put(std::string(den_text.size(), ' '));
        else
          o.put(den_text);
        break;
      case tDen: {
        // Denominator digits are left-aligned; the last placeholder takes
        // whatever does not fit.
        const int len = static_cast<int>(den_text.size());
        const bool last = den_index == h.den_digits - 1;
        if (blank)
          o.put(' ');
        else if (den_index < len)
          o.put(last ? std::string_view(den_text).substr(static_cast<size_t>(den_index))
                     : std::string_view(den_text).substr(static_cast<size_t>(den_index), 1));
        else if (t[1] == '?')
          o.put(' ');
        else if (t[1] == '0')
          o.put('0');
        ++den_index;
        break;
      }
      default: break;
    }
  }
  return SHFORMAT_OK;
}

bool condition_holds(uint8_t op, double bound, double x) {
  switch (op) {
    case cLess: return x < bound;
    case cLessEq: return x <= bound;
    case cGreater: return x > bound;
    case cGreaterEq: return x >= bound;
    case cEqual: return x == bound;
    case cNotEqual: return x != bound;
    default: return true;
  }
}

// Under conditions a negative value shows its '-' only in a section with a
// condition of its own that is not "[<0]" or "[<=0]" (those, like a
// negative section, supply their own signs).
bool shows_sign(uint8_t op, double bound) {
  return op != cNone && !((op == cLess || op == cLessEq) && bound == 0);
}

}  // namespace

const SecView* pick_section(const Compiled& c, const NumValue* v, bool& minus) {
  minus = false;
  if (v == nullptr) return c.count >= 4 ? &c.sec[3] : nullptr;
  const int value_secs = c.count < 3 ? c.count : 3;
  bool conditional = false;
  for (int k = 0; k < value_secs; ++k) conditional |= c.sec[k].h.cond_op != cNone;
  if (conditional) {
    // The first section whose condition holds; one without a condition
    // takes every value that reaches it.
    const double x = v->neg ? -v->dv : v->dv;
    for (int k = 0; k < value_secs; ++k) {
      const SectionHeader& h = c.sec[k].h;
      if (!condition_holds(h.cond_op, h.cond_value, x)) continue;
      minus = v->neg && shows_sign(h.cond_op, h.cond_value);
      return &c.sec[k];
    }
    return nullptr;
  }
  if (v->zero && c.count >= 3) return &c.sec[2];
  if (v->neg) {
    if (c.count >= 2) return &c.sec[1];
    minus = true;
  }
  return &c.sec[0];
}

int32_t render_number_section(const SecView& s, NumValue& v, bool minus, Out& o) {
  const auto& st = intl::settings();
  const SectionHeader& h = s.h;
  const uint16_t flags = h.flags;
  const int shift = (h.percent > 0 ? 2 : 0) - 3 * h.scale;  // '%' multiplies once
  if (!(flags & fDigits)) {
    literal_only(s, o);
    return SHFORMAT_OK;
  }
  if (flags & fFraction) return render_fraction(s, v, minus, o);
  if (flags & fGeneral) {
    if (minus && !v.zero) o.put('-');
    bool general_seen = false;
    for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t)) {
      if (*t == tLit) o.put(reinterpret_cast<const char*>(t + 2), t[1]);
      if (*t == tGeneral && !general_seen) put_general(v, shift, o);
      general_seen |= *t == tGeneral;
    }
    return SHFORMAT_OK;
  }
  const int n_int = h.n_int, n_frac = h.n_frac, frac_min = h.frac_min;
  Digits d = exact_digits(v);
  if (d.n > 0) d.point += shift;
  int exp10 = 0;
  if (flags & fExp) {
    if (d.n > 0 && h.exp_step > 1) {
      // Engineering form: the exponent is a multiple of the step and the
      // mantissa keeps 1 to step integer digits.
      const int step = h.exp_step;
      auto floor_to_step = [&](int p) { return (p - 1 >= 0 ? (p - 1) / step : -((-(p - 1) + step - 1) / step)) * step; };
      exp10 = floor_to_step(d.point);
      d.round_to(d.point - exp10 + n_frac);
      exp10 = floor_to_step(d.point);
      d.point -= exp10;
    } else if (d.n > 0) {
      const int m = n_int == 0 ? 0 : (h.int_zeros > 0 ? h.int_zeros : 1);
      exp10 = d.point - m;
      d.point = m;
      d.round_to(m + n_frac);
      if (d.n > 0 && d.point > m) {  // rounding carried into a new digit
        d.point = m;
        ++exp10;
      }
    }
  } else {
    d.round_to(d.point + n_frac);
  }
  const bool zero = d.n == 0;
  // The sign goes first, and only when the shown value is not zero.
  if (minus && !zero) o.put('-');
  std::string int_text;
  for (int p = (!zero && d.point > 0) ? d.point - 1 : -1; p >= 0; --p) int_text += d.at_int(p);
  int sig_frac = zero ? 0 : d.n - d.point;
  if (sig_frac < 0) sig_frac = 0;
  if (sig_frac > n_frac) sig_frac = n_frac;
  const int shown_frac = sig_frac > frac_min ? sig_frac : frac_min;
  // An exponent form shows at least one mantissa digit ("#.##E+00" of 0).
  if (zero && (flags & fExp) && h.int_zeros == 0 && n_int > 0 && shown_frac == 0) int_text.assign(1, '0');
  const RightAligned int_part{int_text, n_int, (flags & fGroup) != 0, st.thousand_sep};
  int int_index = 0, frac_index = 0;
  for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t)) {
    switch (*t) {
      case tLit: o.put(reinterpret_cast<const char*>(t + 2), t[1]); break;
      case tInt: int_part.put(int_index++, static_cast<char>(t[1]), o); break;
      case tDot:
        // Without integer placeholders the integer digits stand before the point.
        if (n_int == 0) {
          const RightAligned all{int_text, 0, (flags & fGroup) != 0, st.thousand_sep};
          all.put(0, '#', o);
        }
        if (shown_frac > 0 || n_frac == 0 || (flags & fFracSpace)) o.put(st.decimal_sep);
        break;
      case tFrac:
        if (frac_index < shown_frac)
          o.put(d.at_frac(frac_index));
        else if (t[1] == '?')
          o.put(' ');
        ++frac_index;
        break;
      case tExp: {
        o.put(static_cast<char>(t[1]));
        if (exp10 < 0)
          o.put('-');
        else if (flags & fExpPlus)
          o.put('+');
        char eb[12];
        const int ax = exp10 < 0 ? -exp10 : exp10;
        auto r = std::to_chars(eb, eb + sizeof eb, ax);
        for (int k = static_cast<int>(r.ptr - eb); k < h.exp_digits; ++k) o.put('0');
        o.put(eb, static_cast<size_t>(r.ptr - eb));
        break;
      }
      default: break;
    }
  }
  return SHFORMAT_OK;
}

}  // namespace zbshr::fmt
