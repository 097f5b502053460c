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
    ASSERT_EQ(lanes_plain::AtLeast(p, v), want);
    ASSERT_EQ(lanes::AtLeast(p, v), want);
    uint16_t mx = 0;
    for (auto x : p) mx = x > mx ? x : mx;
    ASSERT_EQ(lanes_plain::Max(p), mx);
    ASSERT_EQ(lanes::Max(p), mx);
    uint32_t skip = rng() % 16;
    uint16_t mx_other = 0;
    for (uint32_t i = 0; i < 16; ++i)
      if (i != skip && p[i] > mx_other) mx_other = p[i];
    ASSERT_EQ(lanes_plain::MaxExcept(p, skip), mx_other);
    ASSERT_EQ(lanes::MaxExcept(p, skip), mx_other);
  }
}

TEST(HeapLanes, MirrorSearchesSkipPadding) {
  // A mirror of 20 free blocks spans two runs of 16; the padding after the
  // last entry must never be found by either search.
  ZBSTG_HEAP h = zbstg_begin(0);
  Mirror m;
  MirrorInit(h, &m, 8, 12);
  for (uint32_t i = 1; i < 20; ++i) MirrorInsert(h, &m, i, 8 + 40 * i, 12 + i);
  ASSERT_EQ(m.n, 20u);
  ASSERT_GE(m.cap, 32u);
  EXPECT_EQ(m.LowerBound(8), 0u);
  EXPECT_EQ(m.LowerBound(9), 1u);
  EXPECT_EQ(m.LowerBound(8 + 40 * 19), 19u);
  EXPECT_EQ(m.LowerBound(8 + 40 * 19 + 1), 20u);
  EXPECT_EQ(m.LowerBound(0xFFFE), 20u);
  EXPECT_EQ(m.FirstFit(12), 0u);
  EXPECT_EQ(m.FirstFit(13 + 17), 18u);
  EXPECT_EQ(m.FirstFit(12 + 19), 19u);
  EXPECT_EQ(m.FirstFit(12 + 20), 20u);
  EXPECT_EQ(m.Largest(), 31u);
  EXPECT_EQ(m.LargestExcept(19), 30u);
  EXPECT_EQ(m.LargestExcept(3), 31u);
  m.Remove(19);
  EXPECT_EQ(m.Largest(), 30u);
  EXPECT_EQ(m.FirstFit(31), 19u);
  EXPECT_EQ(m.LowerBound(0xFFFE), 19u);
  m.Remove(0);
  EXPECT_EQ(m.Off(0), 48u);
  EXPECT_EQ(m.Size(0), 13u);
  EXPECT_EQ(m.LowerBound(8), 0u);
  MirrorFree(&m);
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
          lanes_plain::ShiftUp(a.data(), k, n, cap);
          lanes::ShiftUp(b.data(), k, n, cap);
          ASSERT_EQ(a, b) << "up cap " << cap << " n " << n << " k " << k;
          for (uint32_t i = k; i < n; ++i) ASSERT_EQ(a[i + 1], base[i]);
          if (k == n) continue;
          // Removal: words after `last` = n - 1 are padding.
          uint32_t last = n - 1;
          a = base;
          b = base;
          lanes_plain::ShiftDown(a.data(), k, last, cap);
          lanes::ShiftDown(b.data(), k, last, cap);
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
