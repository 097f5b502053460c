#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "zbshr/containers.h"

namespace {

using Bytes = std::vector<unsigned char>;

TEST(ContainersFlip, SingleValues) {
  unsigned char b[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(shFlipLong(b), b + 4);
  EXPECT_EQ(Bytes(b, b + 4), Bytes({4, 3, 2, 1}));
  EXPECT_EQ(shFlipShort(b + 4), b + 6);
  EXPECT_EQ(Bytes(b + 4, b + 8), Bytes({6, 5, 7, 8}));
  EXPECT_EQ(shFlipTimeT(b + 8, 1234), b + 12);
  EXPECT_EQ(Bytes(b + 8, b + 16), Bytes({12, 11, 10, 9, 13, 14, 15, 16}));
}

TEST(ContainersFlip, DoubleAgainstItsBigEndianEncoding) {
  // 1.5 is 3F F8 00 00 00 00 00 00 in big-endian order.
  unsigned char be[8] = {0x3F, 0xF8, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(shFlipDouble(be), be + 8);
  double d;
  std::memcpy(&d, be, 8);
  EXPECT_EQ(d, 1.5);
  EXPECT_EQ(shFlipDouble(be), be + 8);
  EXPECT_EQ(Bytes(be, be + 8), Bytes({0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));
}

TEST(ContainersFlip, DecimalSwapsSevenWordsAndLeavesTheLastTwoBytes) {
  unsigned char v[18];
  for (int i = 0; i < 18; ++i) v[i] = static_cast<unsigned char>(0xA0 + i);
  EXPECT_EQ(shFlipSHDEC(v), v + 16);
  EXPECT_EQ(Bytes(v, v + 18), Bytes({0xA1, 0xA0, 0xA3, 0xA2, 0xA5, 0xA4, 0xA7, 0xA6, 0xA9, 0xA8,
                                     0xAB, 0xAA, 0xAD, 0xAC, 0xAE, 0xAF, 0xB0, 0xB1}));
}

void* g_calls[8];
int32_t g_extras[8];
int g_n = 0;
void* ZBSHR_CALLBACK Flip3(void* p, int32_t extra) {
  g_calls[g_n] = p;
  g_extras[g_n++] = extra;
  auto* b = static_cast<unsigned char*>(p);
  std::swap(b[0], b[2]);
  return b + 3;
}

TEST(ContainersFlip, DataLoop) {
  uint16_t words[4] = {0x0102, 0x0304, 0x0506, 0x0708};
  auto* end = shFlipDataLoop(words, reinterpret_cast<SHFLIPFN>(reinterpret_cast<void (*)()>(
                                        &shFlipShort)),
                             4, 0);
  EXPECT_EQ(end, words + 4);
  EXPECT_EQ(words[0], 0x0201);
  EXPECT_EQ(words[3], 0x0807);

  unsigned char b[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  g_n = 0;
  EXPECT_EQ(shFlipDataLoop(b, Flip3, 3, 77), b + 9);
  EXPECT_EQ(g_n, 3);
  EXPECT_EQ(g_calls[1], b + 3);
  EXPECT_EQ(g_extras[2], 77);
  EXPECT_EQ(Bytes(b, b + 9), Bytes({3, 2, 1, 6, 5, 4, 9, 8, 7}));

  g_n = 0;
  EXPECT_EQ(shFlipDataLoop(nullptr, Flip3, 3, 0), nullptr);
  EXPECT_EQ(shFlipDataLoop(b, Flip3, 0, 0), b);
  EXPECT_EQ(shFlipDataLoop(b, Flip3, -2, 0), b);
  EXPECT_EQ(shFlipDataLoopNative(b, Flip3, 3, 0), b);
  EXPECT_EQ(g_n, 0);
  EXPECT_EQ(Bytes(b, b + 9), Bytes({3, 2, 1, 6, 5, 4, 9, 8, 7}));
}

TEST(ContainersFlip, NativeFlagIsOnlyStored) {
  EXPECT_EQ(shGetFlipDataNative(), 0);
  EXPECT_EQ(shSetFlipDataNative(5), 5);
  EXPECT_EQ(shGetFlipDataNative(), 5);
  unsigned char b[4] = {1, 2, 3, 4};
  shFlipLong(b);  // flips regardless of the flag
  EXPECT_EQ(b[0], 4);
  EXPECT_EQ(shSetFlipDataNative(0), 0);
}

}  // namespace
