// The portable 128-bit integer used where the compiler has none, checked
// against the compiler's own 128-bit integer on edge and pseudo-random values.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "decimal/u128.h"

#if defined(__SIZEOF_INT128__)

using zbshr::dec::U128;
using Native = unsigned __int128;

TEST(PortableU128, MatchesTheNativeIntegerOnEveryOperation) {
  auto port = [](Native v) { return U128::make(static_cast<uint64_t>(v >> 64), static_cast<uint64_t>(v)); };
  auto native = [](U128 v) { return (static_cast<Native>(v.hi()) << 64) | v.lo(); };
  const Native one = 1;
  std::vector<Native> xs = {0, 2, 3, 0xFFFFFFFFu, 0x100000000u, ~uint64_t{0}, one << 64, (one << 79) - 1,
                            one << 127, ~Native{0}};
  for (Native p = 1, i = 0; i <= 38; ++i, p *= 10) xs.insert(xs.end(), {p, p - 1});
  uint64_t s = 0x9E3779B97F4A7C15u;
  auto next = [&s] { return s ^= s << 13, s ^= s >> 7, s ^= s << 17; };
  for (int i = 0; i < 60; ++i) {
    const int bits = static_cast<int>(next() % 128) + 1;
    const Native v = (static_cast<Native>(next()) << 64) | next();
    xs.push_back(bits == 128 ? v : v & ((one << bits) - 1));
  }
  for (Native a : xs) {
    const U128 pa = port(a);
    ASSERT_TRUE(native(-pa) == -a && native(~pa) == ~a);
    ASSERT_EQ(static_cast<double>(pa), static_cast<double>(a));
    ASSERT_EQ(static_cast<float>(pa), static_cast<float>(a));
    for (int n : {0, 1, 31, 32, 63, 64, 65, 100, 127}) ASSERT_TRUE(native(pa << n) == a << n && native(pa >> n) == a >> n);
    for (Native b : xs) {
      const U128 pb = port(b);
      ASSERT_TRUE(native(pa + pb) == a + b && native(pa - pb) == a - b && native(pa * pb) == a * b);
      ASSERT_TRUE((pa < pb) == (a < b) && (pa == pb) == (a == b));
      if (b != 0) {
        ASSERT_TRUE(native(pa / pb) == a / b && native(pa % pb) == a % b) << double(a) << " / " << double(b);
      }
    }
  }
  // Conversions from signed values sign-extend; to narrow ones keep the low bits.
  EXPECT_TRUE(native(U128(-5)) == static_cast<Native>(-5));
  EXPECT_EQ(static_cast<uint32_t>(port(~Native{0} - 1)), 0xFFFFFFFEu);
}

#endif
