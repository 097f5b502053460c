// zbstg_realloc in all its cases.
#include <gtest/gtest.h>

#include "heap_testutil.h"

using namespace heaptest;

TEST(HeapRealloc, NullPointerAllocates) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* p = zbstg_realloc(h, nullptr, 5, 0);
  void* q = zbstg_realloc(h, nullptr, 70000, 6);
  EXPECT_EQ(FL({{zbstg_size(h, p), zbstg_get_pointer_subpool(h, p)}, {zbstg_size(h, q), zbstg_get_pointer_subpool(h, q)}}),
            FL({{8, 1}, {70000, 6}}));
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
  EXPECT_EQ(FreeList(sp), (FL{{112, 900}, {1024, 4086 - 1016}}));
  // A tail of 4 bytes that touches no free block stays inside the block;
  // 97 rounds to 100: no change.
  void* z = zbstg_alloc(h, 4, 0);
  EXPECT_EQ(Offset(z), 112u);
  for (uint32_t n : {96u, 97u}) {
    EXPECT_EQ(zbstg_realloc(h, x, n, 0), x);
    EXPECT_EQ(zbstg_size(h, x), 100u);
  }
  // A tail touching the following free block merges with it, even 4 bytes.
  zbstg_free(h, z);
  EXPECT_EQ(zbstg_realloc(h, x, 96, 0), x);
  EXPECT_EQ(zbstg_size(h, x), 96u);
  EXPECT_EQ(FreeList(sp), (FL{{108, 904}, {1024, 4086 - 1016}}));
  EXPECT_TRUE(Intact(x, 96, 1));
  zbstg_free(h, y);
  zbstg_end(h);
}

TEST(HeapRealloc, GrowInPlace) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 100, 0);  // 104 at 8, 112, 216
  void* b = zbstg_alloc(h, 100, 0);
  zbstg_alloc(h, 100, 0);
  zbstg_free(h, b);
  Fill(a, 100, 3);
  EXPECT_EQ(zbstg_realloc(h, a, 152, 0), a);  // the free block gives 52 and keeps 52
  EXPECT_EQ(zbstg_size(h, a), 152u);
  EXPECT_EQ(FreeList(Subpool(a)), (FL{{164, 52}, {320, 4086 - 312}}));
  EXPECT_EQ(Offset(zbstg_alloc(h, 46, 0)), 164u);  // 52: the free block taken whole
  EXPECT_TRUE(Intact(a, 100, 3));
  // A remainder under 4 is absorbed: a fresh sub-pool's free block (4,086)
  // is not a multiple of 4.
  void* e = zbstg_alloc(h, 4, 3);  // 8 at 8, free 4,078 at 16
  EXPECT_EQ(zbstg_realloc(h, e, 4080, 3), e);
  EXPECT_EQ(BlockSize(e), 4086u);
  EXPECT_EQ(zbstg_size(h, e), 4082u);
  EXPECT_EQ(FirstFree(Subpool(e)), 0u);
  // No room: the block moves (to a new sub-pool) with its contents.
  Fill(e, 4082, 9);
  void* moved = zbstg_realloc(h, e, 4084, 3);
  EXPECT_NE(moved, e);
  EXPECT_EQ(zbstg_size(h, moved), 4084u);
  EXPECT_TRUE(Intact(moved, 4082, 9));
  EXPECT_EQ(Stat(h).live_blocks, 4u);
  zbstg_end(h);
}

TEST(HeapRealloc, StaleLargestFreeGivesNull) {
  // In-place growth does not lower the entry's largest-free value, so a later
  // allocation may pick the sub-pool, find no fitting block and return null.
  ZBSTG_HEAP h = zbstg_begin(0);
  void* x = zbstg_alloc(h, 8, 0);
  EXPECT_EQ(zbstg_realloc(h, x, 4000, 0), x);
  EXPECT_EQ(FreeList(Subpool(x)), (FL{{4012, 82}}));
  EXPECT_EQ(zbstg_alloc(h, 1000, 0), nullptr);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  EXPECT_NE(zbstg_alloc(h, 1000, 2), nullptr);  // another pool works
  zbstg_end(h);
}

// Each row reallocates the block the previous row left: expected offset (0:
// not checked), size asked for, recorded block size, system bytes after.
TEST(HeapRealloc, SoleBlocksAndChangesOfClass) {
  ZBSTG_HEAP h = zbstg_begin(0);
  const struct { uint32_t n, size, sys; bool moves; } rows[] = {
      {6000, 6000, 6012 + 2424, false},       // a sole block regrows its sub-pool
      {4997, 5000, 5012 + 2424, false},       // and shrinks it
      {63997, 64000, 64016 + 2424, true},     // rounded to 64,000 before classifying: large
      {100001, 100001, 100017 + 2424, false}, // large to large: resized, never rounded
      {70000, 70000, 70016 + 2424, false},
      {50, 52, 4096 + 2424, true},            // large to small: moved
  };
  void* p = zbstg_alloc(h, 5000, 0);  // alone in a sub-pool of 5,014
  uint32_t kept = 5000;
  Fill(p, kept, 4);
  for (const auto& r : rows) {
    void* q = zbstg_realloc(h, p, r.n, 0);
    ASSERT_NE(q, nullptr) << r.n;
    EXPECT_EQ(zbstg_size(h, q), r.size) << r.n;
    EXPECT_EQ(Stat(h).system_bytes, r.sys) << r.n;
    EXPECT_EQ(BlockSize(q) == 64001 || Offset(q) == 8, true) << r.n;
    EXPECT_TRUE(!r.moves || q != p) << r.n;
    kept = std::min(kept, r.n);
    EXPECT_TRUE(Intact(q, kept, 4)) << r.n;
    p = q;
  }
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  // A sole block not above the sub-pool size - 8 moves instead.
  void* d = zbstg_alloc(h, 4080, 0);  // 4,084 whole in a 4 KB sub-pool
  void* e = zbstg_realloc(h, d, 4000, 0);
  EXPECT_NE(e, d);
  EXPECT_EQ(zbstg_size(h, e), 4000u);
  zbstg_end(h);
}

TEST(HeapRealloc, AnotherPoolMovesTheBlock) {
  ZBSTG_HEAP h = zbstg_begin(0);
  for (uint32_t n : {40u, 80000u}) {  // small, then large
    void* a = zbstg_alloc(h, n, 2);
    zbstg_alloc(h, 40, 2);
    Fill(a, n, 8);
    void* b = zbstg_realloc(h, a, n + 10000 * (n > 40), 3);
    EXPECT_NE(a, b);
    EXPECT_EQ(zbstg_get_pointer_subpool(h, b), 3u);
    EXPECT_EQ(zbstg_size(h, b), n > 40 ? 90000u : 40u);
    zbstg_free_pool(h, 2);
    EXPECT_TRUE(Intact(b, n, 8));
  }
  EXPECT_EQ(zbstg_new_pool(h), 4u);
  EXPECT_EQ(Stat(h).live_blocks, 2u);
  zbstg_end(h);
}

TEST(HeapRealloc, StringFlag) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 20, 0);
  void* other = zbstg_alloc(h, 20, 0);
  static_cast<uint8_t*>(a)[-1] |= 0x80;  // the string-length flag
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
