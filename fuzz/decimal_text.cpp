// Fuzz target: ConvAsciiToDecimal of arbitrary text (up to the first NUL),
// compared with a reader of our own written from the text rules (blanks at
// either end, optional '-', digits with at most one '.', optional exponent;
// -306 for malformed text before -307 for what the record cannot hold).
// An accepted value is then printed, read back, converted to double and
// put through arithmetic with fixed second operands, checking what must
// hold whatever the value:
//   - the printed text fits SHDEC_TEXT_SIZE and reads back as the same record
//     (a negative zero prints as zero);
//   - the double is the one strtod gives for the printed text;
//   - results of add, subtract, multiply and modulo are normalised records;
//   - for values small enough to stay exact: (a + b) - b = a, a x 1 = a,
//     (a x 4) / 4 = a at a's scale, a^2 = a x a, and a mod b lies between 0 and b with the
//     sign of a and leaves a multiple of b;
//   - rounding and truncation land within one unit of the last place kept.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "decimal/hook.h"
#include "decimal/wide.h"
#include "zbshr/decimal.h"

namespace {

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

using u128 = zbshr::dec::u128;
const u128 kLimit = u128(1) << 79;

int16_t g_last = 0;
void ZBSHR_CALL hook(int16_t code, int32_t) { g_last = code; }

u128 mag(const SHDEC& d) {
  u128 m = 0;
  for (int i = 4; i >= 0; --i) m = (m << 16) | d.mag[i];
  return m;
}

SHDEC make(bool neg, int scale, u128 m) {
  SHDEC d{};
  d.sign = neg ? 1 : 0;
  d.scale = int16_t(scale);
  for (int i = 0; i < 5; ++i) d.mag[i] = uint16_t(m >> (16 * i));
  return d;
}

struct Model {
  int code = 0;  // 0, -306 or -307
  bool neg = false;
  int scale = 0;
  u128 m = 0;
};

// The reader, written from the rules alone.
Model model_parse(const char* s) {
  Model r;
  size_t n = std::strlen(s);
  size_t i = 0;
  while (i < n && s[i] == ' ') ++i;
  while (n > i && s[n - 1] == ' ') --n;
  if (i < n && s[i] == '-') {
    r.neg = true;
    ++i;
  }
  bool too_big = false;
  int digits = 0, frac = 0;
  bool point = false;
  for (; i < n; ++i) {
    const char c = s[i];
    if (c == '.') {
      if (point) break;
      point = true;
      continue;
    }
    if (c < '0' || c > '9') break;
    ++digits;
    if (point) ++frac;
    if (r.m >= kLimit) {
      too_big = true;
    } else {
      r.m = r.m * 10 + u128(c - '0');
    }
  }
  if (digits == 0) {
    r.code = -306;
    return r;
  }
  long long exp = 0;
  if (i < n && (s[i] == 'e' || s[i] == 'E')) {
    ++i;
    bool eneg = false;
    if (i < n && (s[i] == '+' || s[i] == '-')) eneg = s[i++] == '-';
    int ed = 0;
    for (; i < n && s[i] >= '0' && s[i] <= '9'; ++i, ++ed)
      if (exp < 1000000000) exp = exp * 10 + (s[i] - '0');
    if (ed == 0) {
      r.code = -306;
      return r;
    }
    if (eneg) exp = -exp;
  }
  if (i != n) {
    r.code = -306;
    return r;
  }
  if (too_big || r.m >= kLimit) {
    r.code = -307;
    return r;
  }
  long long scale = frac - exp;
  if (scale > 28) {
    r.code = -307;
    return r;
  }
  for (; scale < 0; ++scale) {
    r.m *= 10;
    if (r.m >= kLimit) {
      r.code = -307;
      return r;
    }
    if (r.m == 0) scale = -1;  // zero stays zero however far the point moves
  }
  r.scale = int(scale);
  return r;
}

bool is_zero(const SHDEC& d) { return mag(d) == 0; }

// A normalised arithmetic result: at most 18 places, magnitude up to 2^63.
void check_normalised(const SHDEC* r) {
  if (r == nullptr) return;
  FUZZ_CHECK(r->sign <= 1);
  FUZZ_CHECK(r->scale >= 0 && r->scale <= 18);
  FUZZ_CHECK(mag(*r) <= (u128(1) << 63));
}

u128 pow10(int n) {
  u128 p = 1;
  while (n-- > 0) p *= 10;
  return p;
}

// True when a + b and a - b need no rounding: both fit 2^63 at the larger
// scale.
bool exact_sum(const SHDEC& a, const SHDEC& b) {
  const int s = a.scale > b.scale ? a.scale : b.scale;
  if (s > 18) return false;
  return mag(a) * pow10(s - a.scale) + mag(b) * pow10(s - b.scale) < (u128(1) << 63);
}

int16_t cmp(const SHDEC& a, const SHDEC& b) { return CompareDecimal(&a, &b); }

SHDEC parse_ok(const char* t) {
  SHDEC d;
  FUZZ_CHECK(ConvAsciiToDecimal(&d, t) == &d);
  return d;
}

void arithmetic(const SHDEC& a) {
  const SHDEC bs[] = {parse_ok("7.25"), parse_ok("-0.001"), parse_ok("3")};
  const SHDEC one = shdecOne;
  const SHDEC four = parse_ok("4");
  const u128 am = mag(a);
  SHDEC r, t;

  FUZZ_CHECK(cmp(a, a) == 0);
  FUZZ_CHECK(ChangeSignDecimal(&r, &a) == &r);
  FUZZ_CHECK(ChangeSignDecimal(&r, &r) == &r && cmp(r, a) == 0);
  FUZZ_CHECK(AbsoluteDecimal(&r, &a) == &r && TestSignDecimal(&r) >= 0);
  FUZZ_CHECK(TestSignDecimal(&a) == (am == 0 ? 0 : (a.sign & 1) ? -1 : 1));

  // Exact region: at most 16 places and 17 digits.
  const bool small = a.scale <= 16 && am < u128(100000000000000000ull);
  for (const SHDEC& b : bs) {
    SHDEC* s = AddDecimal(&r, &a, &b);
    check_normalised(s);
    if (s && small && exact_sum(a, b)) {
      FUZZ_CHECK(SubtractDecimal(&t, &r, &b) == &t);
      FUZZ_CHECK(cmp(t, a) == 0);
    }
    check_normalised(SubtractDecimal(&r, &a, &b));
    check_normalised(MultiplyDecimal(&r, &a, &b));
    SHDEC* m = ModuloDecimal(&r, &a, &b);
    check_normalised(m);
    if (m && small) {
      SHDEC ab, rb;
      AbsoluteDecimal(&ab, &b);
      AbsoluteDecimal(&rb, &r);
      FUZZ_CHECK(cmp(rb, ab) < 0);
      FUZZ_CHECK(is_zero(r) || TestSignDecimal(&r) == TestSignDecimal(&a));
      // a - r is a whole multiple of b (unless that multiple is too big).
      SHDEC diff, q, back;
      FUZZ_CHECK(SubtractDecimal(&diff, &a, &r) == &diff);
      g_last = 0;
      if (DivideDecimalAndTruncate(&q, &diff, &b, 0) == &q) {
        FUZZ_CHECK(MultiplyDecimal(&back, &q, &b) == &back);
        FUZZ_CHECK(cmp(back, diff) == 0);
      } else {
        FUZZ_CHECK(g_last == SHDEC_ERR_OVERFLOW);
      }
    }
    // Dividing by a value: zero is -309, anything else a result.
    g_last = 0;
    SHDEC* d = DivideDecimal(&r, &b, &a);
    if (am == 0) FUZZ_CHECK(d == nullptr && g_last == SHDEC_ERR_ZERODIV);
  }
  if (small) {
    FUZZ_CHECK(MultiplyDecimal(&r, &a, &one) == &r && cmp(r, a) == 0);
    FUZZ_CHECK(MultiplyDecimal(&t, &a, &four) == &t);
    FUZZ_CHECK(DivideDecimalAndTruncate(&r, &t, &four, a.scale) == &r && cmp(r, a) == 0);
  }
  if (a.scale <= 9 && am < 1000000000u) {
    const SHDEC two = parse_ok("2");
    SHDEC sq, p;
    FUZZ_CHECK(MultiplyDecimal(&sq, &a, &a) == &sq || is_zero(a));
    if (!is_zero(a)) {
      FUZZ_CHECK(PowerDecimal(&p, &a, &two) == &p);
      FUZZ_CHECK(cmp(p, sq) == 0);
    }
  }

  // Rounding and truncation to each number of places.
  for (int32_t places = 0; places <= 18; ++places) {
    SHDEC ro, tr;
    SHDEC* rp = RoundDecimal(&ro, &a, places);
    SHDEC* tp = TruncateDecimal(&tr, &a, places);
    if (tp == nullptr) continue;
    FUZZ_CHECK(tr.scale >= 0 && tr.scale <= places);
    if (a.scale <= places) FUZZ_CHECK(cmp(tr, a) == 0);
    SHDEC at, aa, d;
    AbsoluteDecimal(&at, &tr);
    AbsoluteDecimal(&aa, &a);
    FUZZ_CHECK(cmp(at, aa) <= 0);
    // 0 <= |a| - |trunc| <= one unit of the last place kept (the
    // difference itself is rounded to 18 places), and the rounded value is
    // the truncated one or one unit further from zero.
    const SHDEC unit = make(false, places, 1);
    SHDEC zero;
    ZeroDecimal(&zero);
    FUZZ_CHECK(SubtractDecimal(&d, &aa, &at) == &d);
    FUZZ_CHECK(cmp(d, zero) >= 0 && cmp(d, unit) <= 0);
    if (rp != nullptr) {
      FUZZ_CHECK(ro.scale >= 0 && ro.scale <= places);
      if (a.scale <= places) FUZZ_CHECK(cmp(ro, a) == 0);
      SHDEC ar;
      AbsoluteDecimal(&ar, &ro);
      FUZZ_CHECK(SubtractDecimal(&d, &ar, &at) == &d);
      FUZZ_CHECK(cmp(d, zero) == 0 || cmp(d, unit) == 0);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool hooked = (zbshr::dec::set_error_hook(hook), true);
  (void)hooked;
  if (size > 4096) return 0;
  const uint8_t* nul = static_cast<const uint8_t*>(std::memchr(data, 0, size));
  const size_t len = nul ? size_t(nul - data) : size;
  std::unique_ptr<char[]> text(new char[len + 1]);
  std::memcpy(text.get(), data, len);
  text[len] = '\0';

  SHDEC a;
  std::memset(&a, 0x5A, sizeof a);
  const SHDEC before = a;
  g_last = 0;
  SHDEC* got = ConvAsciiToDecimal(&a, text.get());
  const Model m = model_parse(text.get());
  if (got == nullptr) {
    if (m.code != g_last)
      std::fprintf(stderr, "\"%s\": library %d, model %d\n", text.get(), g_last, m.code);
    FUZZ_CHECK(g_last == m.code);
    FUZZ_CHECK(std::memcmp(&a, &before, sizeof a) == 0);
    return 0;
  }
  if (m.code != 0) std::fprintf(stderr, "\"%s\": accepted, model %d\n", text.get(), m.code);
  FUZZ_CHECK(got == &a && m.code == 0);
  FUZZ_CHECK(a.sign == (m.neg ? 1 : 0) && a.scale == m.scale && mag(a) == m.m);

  // Print, read back.
  char out[SHDEC_TEXT_SIZE + 16];
  std::memset(out, 0x7E, sizeof out);
  FUZZ_CHECK(ConvDecimalToAscii(out, &a) == out);
  const size_t olen = std::strlen(out);
  FUZZ_CHECK(olen < SHDEC_TEXT_SIZE);
  for (size_t i = SHDEC_TEXT_SIZE; i < sizeof out; ++i) FUZZ_CHECK(out[i] == 0x7E);
  SHDEC back;
  FUZZ_CHECK(ConvAsciiToDecimal(&back, out) == &back);
  FUZZ_CHECK(back.scale == a.scale && mag(back) == mag(a));
  FUZZ_CHECK(back.sign == (mag(a) == 0 ? 0 : a.sign));

  // The double nearest to the exact value, as strtod reads the printed text.
  double dv = 0;
  FUZZ_CHECK(ConvDecToDouble(&dv, &a) == &dv);
  const double want = std::strtod(out, nullptr);
  if (!(dv == want && std::signbit(dv) == std::signbit(want)) && !(dv == 0 && want == 0))
    std::fprintf(stderr, "%s: double %.17g, strtod %.17g\n", out, dv, want);
  FUZZ_CHECK(dv == want);

  arithmetic(a);
  return 0;
}
