// The 16-lane searches behind the free-list mirror and the sub-pool table
// index: the vector form must agree with the plain loops on every input,
// including values at the top of the unsigned range.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "memory/heap_intl.h"

using namespace zbshr::mem;

namespace {

uint32_t Reference(const uint16_t* p, uint16_t v) {
  uint32_t m = 0;
  for (uint32_t i = 0; i < 16; ++i)
    if (p[i] >= v) m |= 1u << i;
  return m;
}

}  // namespace

TEST(HeapLanes, AtLeastAndMaxAgreeWithPlainLoops) {
  std::mt19937 rng(7);
  const uint16_t edges[] = {0, 1, 3, 4, 0x7FFF, 0x8000, 0x8001, 0xFFFE, 0xFFFF, 64000, 4086};
  uint16_t p[16];
  for (int round = 0; round < 20000; ++round) {
    for (auto& x : p) {
      uint32_t r = rng();
      x = (r & 3) ? static_cast<uint16_t>(r >> 16) : edges[(r >> 8) % std::size(edges)];
    }
    uint16_t v = (round & 1) ? static_cast<uint16_t>(rng()) : edges[rng() % std::size(edges)];
    uint32_t want = Reference(p, v);
    ASSERT_EQ(lanes_plain::at_least(p, v), want);
    ASSERT_EQ(lanes::at_least(p, v), want);
    uint16_t mx = 0;
    for (auto x : p) mx = x > mx ? x : mx;
    ASSERT_EQ(lanes_plain::max(p), mx);
    ASSERT_EQ(lanes::max(p), mx);
    uint32_t skip = rng() % 16;
    uint16_t mx_other = 0;
    for (uint32_t i = 0; i < 16; ++i)
      if (i != skip && p[i] > mx_other) mx_other = p[i];
    ASSERT_EQ(lanes_plain::max_except(p, skip), mx_other);
    ASSERT_EQ(lanes::max_except(p, skip), mx_other);
  }
}

TEST(HeapLanes, MirrorSearchesSkipPadding) {
  // A mirror of 20 free blocks spans two runs of 16; the padding after the
  // last entry must never be found by either search.
  ZBSTG_HEAP h = zbstg_begin(0);
  Mirror m;
  mirror_init(h, &m, 8, 12);
  for (uint32_t i = 1; i < 20; ++i) mirror_insert(h, &m, i, 8 + 40 * i, 12 + i);
  ASSERT_EQ(m.n, 20u);
  ASSERT_GE(m.cap, 32u);
  EXPECT_EQ(m.lower_bound(8), 0u);
  EXPECT_EQ(m.lower_bound(9), 1u);
  EXPECT_EQ(m.lower_bound(8 + 40 * 19), 19u);
  EXPECT_EQ(m.lower_bound(8 + 40 * 19 + 1), 20u);
  EXPECT_EQ(m.lower_bound(0xFFFE), 20u);
  EXPECT_EQ(m.first_fit(12), 0u);
  EXPECT_EQ(m.first_fit(13 + 17), 18u);
  EXPECT_EQ(m.first_fit(12 + 19), 19u);
  EXPECT_EQ(m.first_fit(12 + 20), 20u);
  EXPECT_EQ(m.largest_free(), 31u);
  EXPECT_EQ(m.largest_except(19), 30u);
  EXPECT_EQ(m.largest_except(3), 31u);
  m.remove(19);
  EXPECT_EQ(m.largest_free(), 30u);
  EXPECT_EQ(m.first_fit(31), 19u);
  EXPECT_EQ(m.lower_bound(0xFFFE), 19u);
  m.remove(0);
  EXPECT_EQ(m.off_at(0), 48u);
  EXPECT_EQ(m.size_at(0), 13u);
  EXPECT_EQ(m.lower_bound(8), 0u);
  mirror_free(&m);
  zbstg_end(h);
}

TEST(HeapLanes, ShiftsAgreeWithPlainMoves) {
  // Every insertion and removal point in arrays of one to four runs, with the
  // words after the used ones holding the padding value.
  std::mt19937 rng(11);
  for (uint32_t cap : {16u, 32u, 64u}) {
    for (uint16_t pad : {uint16_t{0}, uint16_t{0xFFFF}}) {
      for (uint32_t n = 0; n < cap; ++n) {
        for (uint32_t k = 0; k <= n; ++k) {
          std::vector<uint16_t> base(cap, pad);
          for (uint32_t i = 0; i < n; ++i) base[i] = static_cast<uint16_t>(rng());
          auto a = base, b = base;
          lanes_plain::shift_up(a.data(), k, n, cap);
          lanes::shift_up(b.data(), k, n, cap);
          ASSERT_EQ(a, b) << "up cap " << cap << " n " << n << " k " << k;
          for (uint32_t i = k; i < n; ++i) ASSERT_EQ(a[i + 1], base[i]);
          if (k == n) continue;
          // Removal: words after `last` = n - 1 are padding.
          uint32_t last = n - 1;
          a = base;
          b = base;
          lanes_plain::shift_down(a.data(), k, last, cap);
          lanes::shift_down(b.data(), k, last, cap);
          for (uint32_t i = 0; i < cap; ++i) {
            if (i == last) continue;  // left for the caller
            ASSERT_EQ(a[i], b[i]) << "down cap " << cap << " n " << n << " k " << k << " i " << i;
          }
          for (uint32_t i = k; i < last; ++i) ASSERT_EQ(a[i], base[i + 1]);
        }
      }
    }
  }
}
