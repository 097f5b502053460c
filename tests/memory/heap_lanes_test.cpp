// The 16-lane searches behind the free-list mirror and the sub-pool table
// index: the vector form must agree with the plain loops on every input,
// including values at the top of the unsigned range.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "memory/heap_intl.h"

using namespace zbshr::mem;

TEST(HeapLanes, AtLeastAndMaxAgreeWithPlainLoops) {
  std::mt19937 rng(7);
  const uint16_t edges[] = {0, 1, 3, 4, 0x7FFF, 0x8000, 0x8001, 0xFFFE, 0xFFFF, 64000, 4086};
  uint16_t p[16];
  for (int round = 0; round < 20000; ++round) {
    for (auto& x : p) x = (rng() & 3) ? static_cast<uint16_t>(rng()) : edges[rng() % std::size(edges)];
    const uint16_t v = (round & 1) ? static_cast<uint16_t>(rng()) : edges[rng() % std::size(edges)];
    const uint32_t skip = rng() % 16;
    uint32_t want = 0;
    uint16_t mx = 0, mx_other = 0;
    for (uint32_t i = 0; i < 16; ++i) {
      want |= (p[i] >= v) << i;
      mx = std::max(mx, p[i]);
      if (i != skip) mx_other = std::max(mx_other, p[i]);
    }
    ASSERT_EQ(std::vector<uint32_t>({lanes_plain::AtLeast(p, v), lanes::AtLeast(p, v), lanes_plain::Max(p), lanes::Max(p),
                                     lanes_plain::MaxExcept(p, skip), lanes::MaxExcept(p, skip)}),
              std::vector<uint32_t>({want, want, mx, mx, mx_other, mx_other}));
  }
}

TEST(HeapLanes, MirrorSearchesSkipPadding) {
  // A mirror of 20 free blocks (offset 8 + 40 i, size 12 + i) spans two runs
  // of 16; the padding after the last entry must never be found.
  ZBSTG_HEAP h = zbstg_begin(0);
  Mirror m;
  MirrorInit(h, &m, 8, 12);
  for (uint32_t i = 1; i < 20; ++i) MirrorInsert(h, &m, i, 8 + 40 * i, 12 + i);
  ASSERT_EQ(m.n, 20u);
  ASSERT_GE(m.cap, 32u);
  auto answers = [&] {
    return std::vector<uint32_t>({m.LowerBound(8), m.LowerBound(9), m.LowerBound(8 + 40 * 19), m.LowerBound(8 + 40 * 19 + 1),
                                  m.LowerBound(0xFFFE), m.FirstFit(12), m.FirstFit(30), m.FirstFit(31), m.FirstFit(32),
                                  m.Largest(), m.LargestExcept(19), m.LargestExcept(3)});
  };
  EXPECT_EQ(answers(), std::vector<uint32_t>({0, 1, 19, 20, 20, 0, 18, 19, 20, 31, 30, 31}));
  m.Remove(19);
  EXPECT_EQ(answers(), std::vector<uint32_t>({0, 1, 19, 19, 19, 0, 18, 19, 19, 30, 30, 30}));
  m.Remove(0);
  EXPECT_EQ(std::vector<uint32_t>({m.Off(0), m.Size(0), m.LowerBound(8)}), std::vector<uint32_t>({48, 13, 0}));
  MirrorFree(&m);
  zbstg_end(h);
}

TEST(HeapLanes, ShiftsAgreeWithPlainMoves) {
  // Every insertion and removal point in arrays of one to four runs, with the
  // words after the used ones holding the padding value.
  std::mt19937 rng(11);
  for (uint32_t cap : {16u, 32u, 64u})
    for (uint16_t pad : {uint16_t{0}, uint16_t{0xFFFF}})
      for (uint32_t n = 0; n < cap; ++n)
        for (uint32_t k = 0; k <= n; ++k) {
          std::vector<uint16_t> base(cap, pad);
          for (uint32_t i = 0; i < n; ++i) base[i] = static_cast<uint16_t>(rng());
          auto a = base, b = base;
          lanes_plain::ShiftUp(a.data(), k, n, cap);
          lanes::ShiftUp(b.data(), k, n, cap);
          ASSERT_EQ(a, b) << "up cap " << cap << " n " << n << " k " << k;
          for (uint32_t i = k; i < n; ++i) ASSERT_EQ(a[i + 1], base[i]);
          if (k == n) continue;
          // Removal: words after the last (n - 1) are padding; the last is left for the caller.
          a = b = base;
          lanes_plain::ShiftDown(a.data(), k, n - 1, cap);
          lanes::ShiftDown(b.data(), k, n - 1, cap);
          a[n - 1] = b[n - 1] = 0;
          ASSERT_EQ(a, b) << "down cap " << cap << " n " << n << " k " << k;
          for (uint32_t i = k; i + 1 < n; ++i) ASSERT_EQ(a[i], base[i + 1]);
        }
}
