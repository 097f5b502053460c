// zbstg_realloc in all its cases.
#include <gtest/gtest.h>

#include <cstring>

#include "heap_testutil.h"

using namespace heaptest;
using FL = std::vector<std::pair<uint32_t, uint32_t>>;

static void Fill(void* p, uint32_t n, uint8_t seed) {
  auto* b = static_cast<uint8_t*>(p);
  for (uint32_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
}
static bool Check(const void* p, uint32_t n, uint8_t seed) {
  auto* b = static_cast<const uint8_t*>(p);
  for (uint32_t i = 0; i < n; ++i)
    if (b[i] != static_cast<uint8_t>(seed + i * 7)) return false;
  return true;
}

TEST(HeapRealloc, NullPointerAllocates) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* p = zbstg_realloc(h, nullptr, 5, 0);
  EXPECT_EQ(zbstg_size(h, p), 8u);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, p), 1u);
  void* q = zbstg_realloc(h, nullptr, 70000, 6);
  EXPECT_EQ(zbstg_size(h, q), 70000u);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, q), 6u);
  EXPECT_EQ(zbstg_new_pool(h), 7u);
  zbstg_end(h);
}

TEST(HeapRealloc, ShrinkInPlace) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* x = zbstg_alloc(h, 1000, 0);  // 1,004 at 8
  void* y = zbstg_alloc(h, 8, 0);     // at 1,012: nothing free touches x
  const uint8_t* sp = Subpool(x);
  Fill(x, 1000, 1);
  EXPECT_EQ(zbstg_realloc(h, x, 100, 0), x);
  EXPECT_EQ(zbstg_size(h, x), 100u);
  EXPECT_TRUE(Check(x, 100, 1));
  EXPECT_EQ(FreeList(sp), (FL{{112, 900}, {1024, 4086 - 1016}}));
  // A tail of 4 bytes that touches no free block stays inside the block.
  void* z = zbstg_alloc(h, 4, 0);  // 8 at 112
  EXPECT_EQ(Offset(z), 112u);
  EXPECT_EQ(zbstg_realloc(h, x, 96, 0), x);
  EXPECT_EQ(zbstg_size(h, x), 100u);
  EXPECT_EQ(zbstg_realloc(h, x, 97, 0), x);  // rounds to 100: no change
  EXPECT_EQ(zbstg_size(h, x), 100u);
  // A tail touching the following free block merges with it, even 4 bytes.
  zbstg_free(h, z);
  EXPECT_EQ(FreeList(sp), (FL{{112, 900}, {1024, 4086 - 1016}}));
  EXPECT_EQ(zbstg_realloc(h, x, 96, 0), x);
  EXPECT_EQ(zbstg_size(h, x), 96u);
  EXPECT_EQ(FreeList(sp), (FL{{108, 904}, {1024, 4086 - 1016}}));
  EXPECT_TRUE(Check(x, 96, 1));
  // The largest-free value is not lowered or raised by in-place changes.
  zbstg_free(h, y);
  zbstg_end(h);
}

TEST(HeapRealloc, GrowInPlace) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 100, 0);  // 104 at 8
  void* b = zbstg_alloc(h, 100, 0);  // 104 at 112
  void* c = zbstg_alloc(h, 100, 0);  // 104 at 216
  const uint8_t* sp = Subpool(a);
  zbstg_free(h, b);                  // 104 free at 112
  Fill(a, 100, 3);
  // 100 + 52: the free block gives 52 and keeps 52.
  EXPECT_EQ(zbstg_realloc(h, a, 152, 0), a);
  EXPECT_EQ(zbstg_size(h, a), 152u);
  EXPECT_EQ(FreeList(sp), (FL{{164, 52}, {320, 4086 - 312}}));
  void* d = zbstg_alloc(h, 46, 0);   // 52: the free block taken whole
  EXPECT_EQ(Offset(d), 164u);
  zbstg_free(h, d);
  zbstg_free(h, c);
  EXPECT_TRUE(Check(a, 100, 3));
  // A remainder under 4 is absorbed into the block's size: a fresh 4 KB
  // sub-pool's free block (4,086) is not a multiple of 4.
  ZBSTG_HEAP g = zbstg_begin(0);
  void* e = zbstg_alloc(g, 4, 0);  // 8 at 8, free 4,078 at 16
  const uint8_t* gsp = Subpool(e);
  EXPECT_EQ(zbstg_realloc(g, e, 4080, 0), e);  // needs 4,084 of 4,086: 2 left, absorbed
  EXPECT_EQ(BlockSize(e), 4086u);
  EXPECT_EQ(zbstg_size(g, e), 4082u);
  EXPECT_EQ(FirstFree(gsp), 0u);
  // No room: the block moves (to a new sub-pool) with its contents.
  Fill(e, 4082, 9);
  void* moved = zbstg_realloc(g, e, 4084, 0);
  EXPECT_NE(moved, e);
  EXPECT_EQ(zbstg_size(g, moved), 4084u);
  EXPECT_TRUE(Check(moved, 4082, 9));
  EXPECT_EQ(Stat(g).live_blocks, 1u);
  zbstg_end(g);
  zbstg_end(h);
}

TEST(HeapRealloc, StaleLargestFreeGivesNull) {
  // In-place growth does not lower the entry's largest-free value, so a later
  // allocation may pick the sub-pool, find no fitting block and return null.
  ZBSTG_HEAP h = zbstg_begin(0);
  void* x = zbstg_alloc(h, 8, 0);  // 12 at 8, free 4,074 at 20
  EXPECT_EQ(zbstg_realloc(h, x, 4000, 0), x);
  EXPECT_EQ(FreeList(Subpool(x)), (FL{{4012, 82}}));
  EXPECT_EQ(zbstg_alloc(h, 1000, 0), nullptr);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  // The same request in another pool works.
  EXPECT_NE(zbstg_alloc(h, 1000, 2), nullptr);
  zbstg_end(h);
}

TEST(HeapRealloc, SoleBlockRegrowsItsSubpool) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 5000, 0);  // alone in a sub-pool of 5,014
  Fill(a, 5000, 4);
  void* b = zbstg_realloc(h, a, 6000, 0);
  EXPECT_EQ(Offset(b), 8u);
  EXPECT_EQ(BlockSize(b), 6004u);
  EXPECT_EQ(zbstg_size(h, b), 6000u);
  EXPECT_TRUE(Check(b, 5000, 4));
  EXPECT_EQ(Stat(h).system_bytes, 6012u + 2424u);
  // Shrinking a sole block shrinks its sub-pool too.
  void* c = zbstg_realloc(h, b, 4997, 0);
  EXPECT_EQ(zbstg_size(h, c), 5000u);
  EXPECT_EQ(Stat(h).system_bytes, 5012u + 2424u);
  EXPECT_TRUE(Check(c, 4997, 4));
  zbstg_free(h, c);
  EXPECT_EQ(Stat(h).live_blocks, 0u);
  // A sole block not above the sub-pool size - 8 moves instead.
  void* d = zbstg_alloc(h, 4080, 0);  // 4,084 whole in a 4 KB sub-pool
  void* e = zbstg_realloc(h, d, 4000, 0);
  EXPECT_NE(e, d);
  EXPECT_EQ(zbstg_size(h, e), 4000u);
  zbstg_end(h);
}

TEST(HeapRealloc, ChangesOfClass) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 100, 0);
  Fill(a, 100, 5);
  // Rounded to 64,000 before classifying: a large block.
  void* b = zbstg_realloc(h, a, 63997, 0);
  EXPECT_EQ(BlockSize(b), 64001u);
  EXPECT_EQ(zbstg_size(h, b), 64000u);
  EXPECT_TRUE(Check(b, 100, 5));
  Fill(b, 64000, 6);
  // Large to large in the same pool: resized, never rounded.
  void* c = zbstg_realloc(h, b, 100001, 0);
  EXPECT_EQ(zbstg_size(h, c), 100001u);
  EXPECT_TRUE(Check(c, 64000, 6));
  EXPECT_EQ(Stat(h).system_bytes, 100017u + 2424u);
  void* c2 = zbstg_realloc(h, c, 70000, 0);
  EXPECT_EQ(zbstg_size(h, c2), 70000u);
  EXPECT_TRUE(Check(c2, 64000, 6));
  // Large to small: moved.
  void* d = zbstg_realloc(h, c2, 50, 0);
  EXPECT_EQ(zbstg_size(h, d), 52u);
  EXPECT_TRUE(Check(d, 50, 6));
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  EXPECT_EQ(Stat(h).system_bytes, 4096u + 2424u);
  zbstg_end(h);
}

TEST(HeapRealloc, AnotherPoolMovesTheBlock) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 40, 2);
  void* keep = zbstg_alloc(h, 40, 2);
  Fill(a, 40, 8);
  void* b = zbstg_realloc(h, a, 40, 3);
  EXPECT_NE(a, b);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, b), 3u);
  EXPECT_TRUE(Check(b, 40, 8));
  EXPECT_EQ(zbstg_new_pool(h), 4u);
  // A large block too.
  void* l = zbstg_alloc(h, 80000, 2);
  Fill(l, 80000, 1);
  void* m = zbstg_realloc(h, l, 90000, 5);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, m), 5u);
  EXPECT_EQ(zbstg_size(h, m), 90000u);
  EXPECT_TRUE(Check(m, 80000, 1));
  zbstg_free_pool(h, 2);
  EXPECT_TRUE(Check(b, 40, 8));
  EXPECT_EQ(Stat(h).live_blocks, 2u);
  (void)keep;
  zbstg_end(h);
}

TEST(HeapRealloc, StringFlag) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 20, 0);
  void* other = zbstg_alloc(h, 20, 0);
  auto* hdr = static_cast<uint8_t*>(a) - 4;
  hdr[3] |= 0x80;  // the string-length flag
  // realloc does not clear the flag: the sub-pool is not found.
  EXPECT_EQ(zbstg_realloc(h, a, 40, 0), nullptr);
  EXPECT_EQ(zbstg_size(h, a), 20u);
  // get_pointer_subpool and free do clear it.
  EXPECT_EQ(zbstg_get_pointer_subpool(h, a), 1u);
  zbstg_free(h, a);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  EXPECT_EQ(FreeList(Subpool(other)).front(), (std::pair<uint32_t, uint32_t>(8, 24)));
  zbstg_end(h);
}
