// Power-of-ten tables, wide division, fitting products and the divide core.
#include "decimal/core.h"
#include "decimal/hook.h"

namespace zbshr::dec {

namespace {

constexpr u128 p10(int n) {
  u128 r = 1;
  for (int i = 0; i < n; ++i) r *= 10;
  return r;
}

}  // namespace

const u128 kPow10[39] = {
    p10(0),  p10(1),  p10(2),  p10(3),  p10(4),  p10(5),  p10(6),  p10(7),  p10(8),  p10(9),
    p10(10), p10(11), p10(12), p10(13), p10(14), p10(15), p10(16), p10(17), p10(18), p10(19),
    p10(20), p10(21), p10(22), p10(23), p10(24), p10(25), p10(26), p10(27), p10(28), p10(29),
    p10(30), p10(31), p10(32), p10(33), p10(34), p10(35), p10(36), p10(37), p10(38)};

const u128 kMaxMul[25] = {
    (kLim79 - 1) / p10(0),  (kLim79 - 1) / p10(1),  (kLim79 - 1) / p10(2),
    (kLim79 - 1) / p10(3),  (kLim79 - 1) / p10(4),  (kLim79 - 1) / p10(5),
    (kLim79 - 1) / p10(6),  (kLim79 - 1) / p10(7),  (kLim79 - 1) / p10(8),
    (kLim79 - 1) / p10(9),  (kLim79 - 1) / p10(10), (kLim79 - 1) / p10(11),
    (kLim79 - 1) / p10(12), (kLim79 - 1) / p10(13), (kLim79 - 1) / p10(14),
    (kLim79 - 1) / p10(15), (kLim79 - 1) / p10(16), (kLim79 - 1) / p10(17),
    (kLim79 - 1) / p10(18), (kLim79 - 1) / p10(19), (kLim79 - 1) / p10(20),
    (kLim79 - 1) / p10(21), (kLim79 - 1) / p10(22), (kLim79 - 1) / p10(23),
    (kLim79 - 1) / p10(24)};

const u128 kFit79[15] = {
    kLim79 * p10(0),  kLim79 * p10(1),  kLim79 * p10(2),  kLim79 * p10(3),  kLim79 * p10(4),
    kLim79 * p10(5),  kLim79 * p10(6),  kLim79 * p10(7),  kLim79 * p10(8),  kLim79 * p10(9),
    kLim79 * p10(10), kLim79 * p10(11), kLim79 * p10(12), kLim79 * p10(13), kLim79 * p10(14)};

namespace {
constexpr Recip make_recip(int n) {
  uint64_t d = static_cast<uint64_t>(p10(n));
  int shift = 0;
  while (!(d & (uint64_t{1} << 63))) {
    d <<= 1;
    ++shift;
  }
  const u128 v = (~u128{0}) / d - (u128{1} << 64);
  return Recip{d, static_cast<uint64_t>(v), shift};
}
}  // namespace

const Recip kRecip10[20] = {
    make_recip(1),  make_recip(1),  make_recip(2),  make_recip(3),  make_recip(4),
    make_recip(5),  make_recip(6),  make_recip(7),  make_recip(8),  make_recip(9),
    make_recip(10), make_recip(11), make_recip(12), make_recip(13), make_recip(14),
    make_recip(15), make_recip(16), make_recip(17), make_recip(18), make_recip(19)};

const u128 kFit63[8] = {kLim63 * p10(0), kLim63 * p10(1), kLim63 * p10(2), kLim63 * p10(3),
                        kLim63 * p10(4), kLim63 * p10(5), kLim63 * p10(6), kLim63 * p10(7)};

// ---- the error hook -------------------------------------------------------------

// The hook the library installs: it does nothing. It is a named, out-of-line
// function so that a debugger can break on every decimal error.
extern "C" void ZBSHR_CALL zbshr_decimal_default_error_hook(int16_t code, int32_t extra) {
  (void)code;
  (void)extra;
  asm volatile("");
}

SHDEC_ERROR_HOOK g_error_hook = &zbshr_decimal_default_error_hook;

SHDEC_ERROR_HOOK set_error_hook(SHDEC_ERROR_HOOK hook) {
  SHDEC_ERROR_HOOK old = g_error_hook;
  g_error_hook = hook ? hook : &zbshr_decimal_default_error_hook;
  return old;
}

SHDEC_ERROR_HOOK error_hook() { return g_error_hook; }

// ---- wide arithmetic ----------------------------------------------------------------

namespace {

// Knuth's long division on 32-bit digits. u has m digits, v has n digits
// with v[n-1] != 0 and m >= n; q receives m - n + 1 digits, r receives n.
void divide_digits(uint32_t* q, uint32_t* r, const uint32_t* u, const uint32_t* v, int m, int n) {
  constexpr uint64_t b = uint64_t{1} << 32;
  if (n == 1) {
    uint64_t k = 0;
    for (int j = m - 1; j >= 0; --j) {
      const uint64_t cur = (k << 32) | u[j];
      q[j] = static_cast<uint32_t>(cur / v[0]);
      k = cur - static_cast<uint64_t>(q[j]) * v[0];
    }
    r[0] = static_cast<uint32_t>(k);
    return;
  }
  const int s = __builtin_clz(v[n - 1]);
  uint32_t vn[8], un[9];
  for (int i = n - 1; i > 0; --i)
    vn[i] = (v[i] << s) | (s ? static_cast<uint32_t>(static_cast<uint64_t>(v[i - 1]) >> (32 - s)) : 0);
  vn[0] = v[0] << s;
  un[m] = s ? static_cast<uint32_t>(static_cast<uint64_t>(u[m - 1]) >> (32 - s)) : 0;
  for (int i = m - 1; i > 0; --i)
    un[i] = (u[i] << s) | (s ? static_cast<uint32_t>(static_cast<uint64_t>(u[i - 1]) >> (32 - s)) : 0);
  un[0] = u[0] << s;

  for (int j = m - n; j >= 0; --j) {
    const uint64_t num = (static_cast<uint64_t>(un[j + n]) << 32) | un[j + n - 1];
    uint64_t qhat = num / vn[n - 1];
    uint64_t rhat = num - qhat * vn[n - 1];
    while (qhat >= b || qhat * vn[n - 2] > ((rhat << 32) | un[j + n - 2])) {
      --qhat;
      rhat += vn[n - 1];
      if (rhat >= b) break;
    }
    int64_t t;
    uint64_t k = 0;
    for (int i = 0; i < n; ++i) {
      const uint64_t p = qhat * vn[i];
      t = static_cast<int64_t>(un[i + j]) - static_cast<int64_t>(k) -
          static_cast<int64_t>(p & 0xFFFFFFFFu);
      un[i + j] = static_cast<uint32_t>(t);
      k = (p >> 32) - static_cast<uint64_t>(t >> 32);
    }
    t = static_cast<int64_t>(un[j + n]) - static_cast<int64_t>(k);
    un[j + n] = static_cast<uint32_t>(t);
    q[j] = static_cast<uint32_t>(qhat);
    if (t < 0) {
      --q[j];
      uint64_t c = 0;
      for (int i = 0; i < n; ++i) {
        const uint64_t sum = static_cast<uint64_t>(un[i + j]) + vn[i] + c;
        un[i + j] = static_cast<uint32_t>(sum);
        c = sum >> 32;
      }
      un[j + n] = static_cast<uint32_t>(un[j + n] + c);
    }
  }
  for (int i = 0; i < n; ++i)
    r[i] = (un[i] >> s) | (s ? static_cast<uint32_t>(static_cast<uint64_t>(un[i + 1]) << (32 - s)) : 0);
}

int to_digits(const Wide& x, uint32_t* d) {
  int n = 0;
  for (int i = 0; i < 4; ++i) {
    d[2 * i] = static_cast<uint32_t>(x.w[i]);
    d[2 * i + 1] = static_cast<uint32_t>(x.w[i] >> 32);
  }
  for (int i = 7; i >= 0; --i) {
    if (d[i]) {
      n = i + 1;
      break;
    }
  }
  return n;
}

Wide from_digits(const uint32_t* d, int n) {
  Wide x;
  for (int i = 0; i < n; ++i) x.w[i / 2] |= static_cast<uint64_t>(d[i]) << (32 * (i % 2));
  return x;
}

}  // namespace

void wide_divmod(const Wide& n, const Wide& d, Wide& q, Wide& r) {
  uint32_t u[8], v[8], qd[8] = {0}, rd[8] = {0};
  const int m = to_digits(n, u);
  const int k = to_digits(d, v);
  if (m < k || wide_cmp(n, d) < 0) {
    q = Wide{};
    r = n;
    return;
  }
  divide_digits(qd, rd, u, v, m, k);
  q = from_digits(qd, m - k + 1);
  r = from_digits(rd, k);
}

// ---- fitting a product below 2^79 ----------------------------------------------------------------------

int fit(const Wide& v, u128& out) {
  if (v.fits128()) return fit128(v.low128(), out);
  const int bits = wide_bits(v);
  int k = bits > 80 ? ((bits - 80) * 30103) / 100000 : 0;
  Wide t = v;
  int left = k;
  while (left > 0) {
    const int step = left > 19 ? 19 : left;
    wide_div_small(t, static_cast<uint64_t>(kPow10[step]));
    left -= step;
  }
  unsigned digit;
  for (;;) {
    digit = static_cast<unsigned>(wide_div_small(t, 10));
    ++k;
    if (t.fits128() && t.low128() < kLim79) break;
  }
  out = t.low128() + (digit >= 5 ? 1 : 0);
  return k;
}

// ---- division ---------------------------------------------------------------------------

int div_core(const Num& a, const Num& b, int target, bool round, Num& q) {
  const int k = b.scale - a.scale + target;
  q.scale = target;
  q.neg = a.neg != b.neg;
  // Fast path: dividend and divisor fit 128 bits.
  if (k >= 0 && k <= 38) {
    if (k == 0 || a.m <= (~u128{0}) / kPow10[k]) {
      const u128 n = a.m * kPow10[k];
      u128 quot, rem;
      if (b.m < kLim64 && n < kLim64) {
        const uint64_t nn = static_cast<uint64_t>(n), dd = static_cast<uint64_t>(b.m);
        quot = nn / dd;
        rem = nn - static_cast<uint64_t>(quot) * dd;
      } else {
        quot = n / b.m;
        rem = n - quot * b.m;
      }
      if (round && rem >= b.m - rem) ++quot;
      if (quot >= kLim80) return kErrOverflow;
      q.m = quot;
      return 0;
    }
  }
  // General case: scale the dividend (or, for k < 0, the divisor).
  Wide n = Wide::from(a.m), d = Wide::from(b.m);
  for (int left = k; left > 0;) {
    const int step = left > 19 ? 19 : left;
    wide_mul_small(n, static_cast<uint64_t>(kPow10[step]));
    left -= step;
  }
  for (int left = -k; left > 0;) {
    const int step = left > 19 ? 19 : left;
    wide_mul_small(d, static_cast<uint64_t>(kPow10[step]));
    left -= step;
  }
  Wide quot, rem;
  wide_divmod(n, d, quot, rem);
  if (round) {
    // rem >= d - rem
    Wide twice = rem;
    wide_mul_small(twice, 2);
    if (wide_cmp(twice, d) >= 0) {
      for (int i = 0; i < 4; ++i) {
        if (++quot.w[i] != 0) break;
      }
    }
  }
  if (!quot.fits128() || quot.low128() >= kLim80) return kErrOverflow;
  q.m = quot.low128();
  return 0;
}

}  // namespace zbshr::dec

extern "C" ZBSHR_API(SHDEC_ERROR_HOOK) zbshr_set_decimal_error_hook(SHDEC_ERROR_HOOK hook) {
  return zbshr::dec::set_error_hook(hook);
}
