// PowerDecimal: integral exponents by repeated squaring on the
// multiplication core, other exponents as exp(exponent x ln(base)) with
// series evaluated at 23 places.
#include "decimal/arith.h"
#include "decimal/core.h"
#include "decimal/power.h"

using namespace zbshr::dec;

namespace {

constexpr int kMaxSeriesTerms = 400;  // far beyond what any convergent series here needs

Num small(int v) {
  Num n;
  n.neg = v < 0;
  n.m = static_cast<u128>(v < 0 ? -v : v);
  return n;
}

Num negated(Num n) {
  n.neg = !n.neg;
  return n;
}

// Division inside the series: truncated to 23 places; a zero quotient is a
// result, not an error; a zero dividend comes back as it stands.
int series_div(const Num& a, const Num& b, Num& q) {
  if (b.m == 0) return kErrZeroDiv;
  if (a.m == 0) {
    q = a;
    return 0;
  }
  if (int c = div_core(a, b, kInternalScale, false, q)) return c;
  if (q.m >= kLim79) return kErrOverflow;
  return 0;
}

}  // namespace

namespace zbshr::dec {

int ln_num(const Num& x, Num& res) {
  if (x.m == 0 || x.neg) return kErrLog;
  const Num one = load(&shdecOne), seven = load(&shdecSevenTenths);
  const Num ln2 = load(&shdecLn2), ln10 = load(&shdecLn10);
  int digits = 0;
  for (u128 ip = div_pow10_trunc(x.m, x.scale); ip != 0; ip /= 10) ++digits;
  const int m = digits + 1;
  // y = x / 10^m, at most 23 places.
  Num y = x;
  y.scale += m;
  if (y.scale > kInternalScale) {
    y.m = div_pow10_round(y.m, y.scale - kInternalScale);
    y.scale = kInternalScale;
  }
  if (y.m == 0) return kErrLog;
  if (int c = mul_core(small(m), ln10, res)) return c;
  while (compare_nums(y, seven) <= 0) {
    if (int c = add_core(y, y, y)) return c;
    if (int c = add_core(res, negated(ln2), res)) return c;
  }
  Num num, den, z, z2, p;
  if (int c = add_core(y, negated(one), num)) return c;
  if (int c = add_core(y, one, den)) return c;
  if (int c = series_div(num, den, z)) return c;
  if (int c = mul_core(z, z, z2)) return c;
  if (int c = add_core(z, z, p)) return c;  // 2z, then 2z^3, 2z^5, ...
  for (int n = 1, i = 0; i < kMaxSeriesTerms; n += 2, ++i) {
    Num term;
    if (int c = series_div(p, small(n), term)) return c;
    if (term.m == 0) break;
    if (int c = add_core(res, term, res)) return c;
    if (int c = mul_core(p, z2, p)) return c;
  }
  return 0;
}

int exp_num(const Num& x, Num& res) {
  if (compare_nums(x, load(&shdecExpCeiling)) > 0) return kErrOverflow;
  if (compare_nums(x, load(&shdecExpFloor)) < 0) {
    res = zero_num();
    return kErrUnderflow;
  }
  const Num one = load(&shdecOne), ln2 = load(&shdecLn2);
  Num t;
  if (int c = mul_core(x, load(&shdecLog2E), t)) return c;
  set_scale(t, 0, true);
  const int n = t.neg ? -static_cast<int>(t.m) : static_cast<int>(t.m);
  Num r = x;
  if (n != 0) {
    Num nl;
    if (int c = mul_core(t, ln2, nl)) return c;
    if (int c = add_core(x, negated(nl), r)) return c;
  }
  res = one;
  Num term = one;
  for (int i = 1; i <= kMaxSeriesTerms; ++i) {
    Num tr;
    if (int c = mul_core(term, r, tr)) return c;
    if (int c = series_div(tr, small(i), term)) return c;
    if (term.m == 0) break;
    if (int c = add_core(res, term, res)) return c;
  }
  if (n != 0) {
    Num p2;
    p2.m = kOne << (n > 0 ? n : -n);
    if (n > 0) {
      if (int c = mul_core(res, p2, res)) return c;
    } else {
      if (int c = series_div(res, p2, res)) return c;
    }
  }
  return 0;
}

int int_power(const Num& base, unsigned n, Num& res) {
  res = load(&shdecOne);
  if (n == 0) return 0;
  int bit = 31 - __builtin_clz(n);
  for (; bit >= 0; --bit) {
    if (int c = mul_core(res, res, res)) return c;
    if (n & (1u << bit)) {
      if (int c = mul_core(res, base, res)) return c;
    }
  }
  return 0;
}

int power_nums(const Num& b, const Num& e, Num& r) {
  const bool integral = e.m % kPow10[e.scale] == 0;
  const u128 whole = div_pow10_trunc(e.m, e.scale);
  if (integral && whole <= (e.neg ? 32768u : 32767u)) {
    const int n = e.neg ? -static_cast<int>(whole) : static_cast<int>(whole);
    if (n == 0) {
      if (sign_of(b) <= 0) return kErrPower;
      r = load(&shdecOne);
    } else {
      Num p;
      if (int c = int_power(b, static_cast<unsigned>(n < 0 ? -n : n), p)) return c;
      if (n > 0) {
        r = p;
      } else {
        if (p.m == 0) return kErrZeroDiv;
        if (int c = div_core(load(&shdecOne), p, kPublishedScale, false, r)) return c;
        if (r.m >= kLim79) return kErrOverflow;
      }
    }
  } else {
    if (sign_of(b) <= 0) return kErrPower;
    Num l, y;
    if (int c = ln_num(b, l)) return c == kErrLog ? kErrPower : c;
    if (int c = mul_core(e, l, y)) return c;
    if (int c = exp_num(y, r)) return c;
  }
  return normalise(r);
}

}  // namespace zbshr::dec

ZBSHR_API(SHDEC*) PowerDecimal(SHDEC* result, const SHDEC* base, const SHDEC* exponent) {
  if (int c = check(base)) return report(c), nullptr;
  if (int c = check(exponent)) return report(c), nullptr;
  if (!result) return report(kErrNull), nullptr;
  const Num b = load(base), e = load(exponent);
  Num r;
  int c = power_nums(b, e, r);
  if (c == kErrUnderflow || (c == 0 && r.m == 0 && b.m != 0)) {
    // The result vanished: the zero result is still returned.
    store(result, zero_num());
    report(kErrUnderflow);
    return result;
  }
  if (c) return report(c), nullptr;
  store(result, r);
  return result;
}
