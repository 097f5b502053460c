// The portable 128-bit integer used where the compiler has none, checked
// against the compiler's own 128-bit integer on edge and pseudo-random values.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "decimal/u128.h"

#if defined(__SIZEOF_INT128__)

namespace {

using zbshr::dec::U128;
using Native = unsigned __int128;

U128 port(Native v) { return U128::make(static_cast<uint64_t>(v >> 64), static_cast<uint64_t>(v)); }
Native native(U128 v) { return (static_cast<Native>(v.hi()) << 64) | v.lo(); }

std::vector<Native> Samples() {
  std::vector<Native> out = {0, 1, 2, 3, 9, 10, 0xFFFFFFFFu, 0x100000000u, ~uint64_t{0},
                             static_cast<Native>(1) << 64, (static_cast<Native>(1) << 79) - 1,
                             static_cast<Native>(1) << 127, ~static_cast<Native>(0)};
  Native p = 1;
  for (int i = 0; i <= 38; ++i, p *= 10) {
    out.push_back(p);
    out.push_back(p - 1);
  }
  uint64_t s = 0x9E3779B97F4A7C15u;
  auto next = [&] {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  };
  for (int i = 0; i < 60; ++i) {
    const int bits = static_cast<int>(next() % 128) + 1;
    Native v = (static_cast<Native>(next()) << 64) | next();
    out.push_back(bits == 128 ? v : v & ((static_cast<Native>(1) << bits) - 1));
  }
  return out;
}

TEST(PortableU128, MatchesTheNativeIntegerOnEveryOperation) {
  const auto xs = Samples();
  for (Native a : xs) {
    const U128 pa = port(a);
    ASSERT_EQ(native(-pa), -a);
    ASSERT_EQ(native(~pa), ~a);
    ASSERT_EQ(static_cast<double>(pa), static_cast<double>(a));
    ASSERT_EQ(static_cast<float>(pa), static_cast<float>(a));
    for (int n : {0, 1, 31, 32, 63, 64, 65, 100, 127}) {
      ASSERT_EQ(native(pa << n), a << n);
      ASSERT_EQ(native(pa >> n), a >> n);
    }
    for (Native b : xs) {
      const U128 pb = port(b);
      ASSERT_EQ(native(pa + pb), a + b);
      ASSERT_EQ(native(pa - pb), a - b);
      ASSERT_EQ(native(pa * pb), a * b);
      ASSERT_EQ(pa < pb, a < b);
      ASSERT_EQ(pa == pb, a == b);
      if (b != 0) {
        ASSERT_EQ(native(pa / pb), a / b) << static_cast<double>(a) << " / " << static_cast<double>(b);
        ASSERT_EQ(native(pa % pb), a % b);
      }
    }
  }
  // Conversions from signed values sign-extend; to narrow ones keep the low bits.
  EXPECT_EQ(native(U128(-5)), static_cast<Native>(-5));
  EXPECT_EQ(static_cast<uint32_t>(port(~static_cast<Native>(0) - 1)), 0xFFFFFFFEu);
}

}  // namespace

#endif
