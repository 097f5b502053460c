// The family's internal division helpers against the compiler's own 128-bit
// division, on random and edge values.
#include <gtest/gtest.h>

#include <random>

#include "decimal/core.h"

using namespace zbshr::dec;

TEST(DecimalInternal, DivisionByPowersOfTenMatchesCompiler) {
  std::mt19937_64 rng(12345);
  auto check = [](u128 v, int n) {
    uint64_t rem;
    const u128 q = div_pow10_small(v, n, rem);
    const u128 d = kPow10[n];
    ASSERT_TRUE(q == v / d && rem == static_cast<uint64_t>(v % d))
        << "n=" << n << " hi=" << static_cast<uint64_t>(v >> 64)
        << " lo=" << static_cast<uint64_t>(v);
  };
  for (int n = 1; n <= 19; ++n) {
    const u128 d = kPow10[n];
    const u128 edges[] = {0, 1, d - 1, d, d + 1, ~u128{0}, ~u128{0} - 1, u128{1} << 64,
                          (u128{1} << 64) - 1, d << 64, (d << 64) - 1, kLim79, kLim80 - 1};
    for (u128 e : edges) check(e, n);
    for (int i = 0; i < 20000; ++i) {
      u128 v = (static_cast<u128>(rng()) << 64) | rng();
      v >>= rng() % 128;
      check(v, n);
    }
  }
}

TEST(DecimalInternal, FitAndNormaliseDropTheFewestDigits) {
  std::mt19937_64 rng(99);
  for (int i = 0; i < 20000; ++i) {
    u128 v = (static_cast<u128>(rng()) << 64) | rng();
    v >>= rng() % 60;
    u128 out;
    const int k = fit128(v, out);
    // v / 10^k below 2^79 and v / 10^(k-1) not.
    ASSERT_TRUE(v / kPow10[k] < kLim79);
    if (k > 0) {
      ASSERT_TRUE(v / kPow10[k - 1] >= kLim79);
    }
    const u128 q = v / kPow10[k], r = v % kPow10[k];
    ASSERT_TRUE(out == q + (k > 0 && r >= kPow10[k] / 2 ? 1 : 0));
  }
}
