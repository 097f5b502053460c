// Block and sub-pool geometry: sizes, offsets, lost bytes, large blocks.
#include <gtest/gtest.h>

#include <cstring>

#include "heap_testutil.h"

using namespace heaptest;
using FL = std::vector<std::pair<uint32_t, uint32_t>>;

TEST(HeapGeometry, WholeFreeBlockTakenKeepsTrailingBytesLost) {
  ZBSTG_HEAP h = zbstg_begin(0);
  // A fresh 4 KB sub-pool has one free block of 4,086 bytes; a block of 4,084
  // takes it whole and the 2 bytes left over are lost.
  void* a = zbstg_alloc(h, 4080, 0);
  const uint8_t* sp = Subpool(a);
  EXPECT_EQ(BlockSize(a), 4084u);
  EXPECT_EQ(zbstg_size(h, a), 4080u);
  EXPECT_EQ(FirstFree(sp), 0u);
  // The next block cannot come from there.
  void* b = zbstg_alloc(h, 0, 0);
  EXPECT_NE(Subpool(b), sp);
  // Freed, the block keeps its recorded size: the lost bytes stay lost.
  void* c = zbstg_alloc(h, 2000, 0);
  void* d = zbstg_alloc(h, 2072, 0);  // 2,076 of the 2,078 left: whole block again
  EXPECT_EQ(Subpool(c), Subpool(b));
  EXPECT_EQ(Subpool(d), Subpool(b));
  EXPECT_EQ(FirstFree(Subpool(b)), 0u);
  zbstg_free(h, d);
  EXPECT_EQ(FreeList(Subpool(b)), (FL{{8 + 4 + 2004, 2076}}));
  zbstg_free(h, c);  // merges with the block after it
  EXPECT_EQ(FreeList(Subpool(b)), (FL{{12, 2004 + 2076}}));
  zbstg_end(h);
}

TEST(HeapGeometry, SmallAndLargeBoundary) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* s = zbstg_alloc(h, 63996, 3);
  const uint8_t* sp = Subpool(s);
  EXPECT_EQ(Offset(s), 8u);
  EXPECT_EQ(BlockSize(s), 64000u);
  EXPECT_EQ(zbstg_size(h, s), 63996u);
  EXPECT_EQ(FirstFree(sp), 0u);
  EXPECT_EQ(L(sp, 0), 3u);
  ZBSTG_STAT st = Stat(h);
  EXPECT_EQ(st.system_bytes, 64010u + 2424u);  // a sub-pool of b + 10 bytes and its table

  void* l = zbstg_alloc(h, 63997, 4);
  const uint8_t* lp = static_cast<const uint8_t*>(l) - 16;
  EXPECT_EQ(L(lp, 0), 4u);
  EXPECT_EQ(W(lp, 4), 0u);
  EXPECT_EQ(W(lp, 6), 1u);
  EXPECT_EQ(L(lp, 8), 63997u);
  EXPECT_EQ(W(lp, 12), 64001u);
  EXPECT_EQ(W(lp, 14), 12u);
  EXPECT_EQ(zbstg_size(h, l), 63997u);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, l), 4u);
  std::memset(l, 0xAB, 63997);
  st = Stat(h);
  EXPECT_EQ(st.live_blocks, 2u);
  EXPECT_EQ(st.system_bytes, 64010u + 2424u + 64013u + 2424u);
  zbstg_free(h, l);
  st = Stat(h);
  EXPECT_EQ(st.live_blocks, 1u);
  EXPECT_EQ(st.system_bytes, 64010u + 2424u + 2424u);  // pool 4 keeps its empty table

  void* big = zbstg_alloc(h, 1000000, 0);
  EXPECT_EQ(zbstg_size(h, big), 1000000u);
  std::memset(big, 1, 1000000);
  zbstg_free(h, big);
  zbstg_end(h);
}

TEST(HeapGeometry, BlocksLargerThanTheSubpoolSizeGetTheirOwnSubpool) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 4088, 0);  // b = 4,092: not below 4,096 - 10
  EXPECT_EQ(Offset(a), 8u);
  EXPECT_EQ(BlockSize(a), 4092u);
  EXPECT_EQ(FirstFree(Subpool(a)), 0u);
  EXPECT_EQ(Stat(h).system_bytes, 4102u + 2424u);
  void* b = zbstg_alloc(h, 4076, 0);  // b = 4,080 < 4,086: an ordinary 4 KB sub-pool
  EXPECT_EQ(FreeList(Subpool(b)), (FL{{8 + 4080, 6}}));
  EXPECT_EQ(Stat(h).system_bytes, 4102u + 4096u + 2424u);
  zbstg_end(h);
}

TEST(HeapGeometry, SubpoolSizeIsRechosenAtTheFirstSubpool) {
  // The size given to zbstg_begin is replaced by 4,096 when the first
  // sub-pool is made, whatever it was.
  for (uint16_t size : {uint16_t(6), uint16_t(100), uint16_t(0), uint16_t(30000)}) {
    ZBSTG_HEAP h = zbstg_begin(size);
    EXPECT_EQ(Stat(h).subpool_bytes, 0u);
    void* a = zbstg_alloc(h, 88, 0);
    void* b = zbstg_alloc(h, 88, 0);
    EXPECT_EQ(Subpool(a), Subpool(b)) << size;
    EXPECT_EQ(Offset(b), 8u + 92) << size;
    EXPECT_EQ(Stat(h).subpool_bytes, 4096u) << size;
    EXPECT_EQ(Stat(h).system_bytes, 4096u + 2424u) << size;
    zbstg_end(h);
  }
}

TEST(HeapGeometry, SmallStatusServices) {
  ZBSTG_HEAP h = zbstg_begin(0);
  EXPECT_EQ(zbstg_validate(h), 1);
  EXPECT_EQ(zbstg_sos(h, 77), 0u);
  EXPECT_EQ(zbstg_sos(h, 5), 77u);
  EXPECT_EQ(zbstg_nextGeneration(h), 0);
  zbstg_dumpLeaks(h);
  zbstg_dumpHeap(h);
  EXPECT_EQ(zbstg_alloc_align(h, 16, 16, 0), nullptr);
  void* p = zbstg_alloc(h, 16, 0);
  EXPECT_EQ(zbstg_realloc_align(h, p, 32, 16, 0), nullptr);
  EXPECT_EQ(zbstg_size(h, p), 16u);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  void* q = zbstg_dballoc(h, 5, 0, __FILE__, __LINE__);
  EXPECT_EQ(zbstg_size(h, q), 8u);
  q = zbstg_dbrealloc(h, q, 100, 0, __FILE__, __LINE__);
  EXPECT_EQ(zbstg_size(h, q), 100u);
  zbstg_end(h);
  // Only the low 16 bits of the debug begin's size are used: 0x10000 is 0,
  // which means 4,088.
  h = zbstg_dbbegin(0x10000, __FILE__, __LINE__);
  EXPECT_EQ(Stat(h).subpool_bytes, 0u);
  zbstg_alloc(h, 1, 0);
  EXPECT_EQ(Stat(h).subpool_bytes, 4096u);
  zbstg_end(h);
  h = zbstg_dbbegin_allocflags(0, 0x42, __FILE__, __LINE__);
  void* z = zbstg_alloc(h, 8, 0);
  EXPECT_NE(z, nullptr);
  zbstg_end(h);
}

TEST(HeapGeometry, StaleAndForeignPointersAreIgnored) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 16, 9);
  void* b = zbstg_alloc(h, 16, 9);
  void* c = zbstg_alloc(h, 16, 9);
  zbstg_free(h, a);
  zbstg_free(h, b);  // merges with a
  EXPECT_EQ(FreeList(Subpool(c)), (FL{{8, 40}, {68, 4086 - 60}}));
  zbstg_free(h, b);  // a second free of a merged block is ignored
  zbstg_free(h, a);
  zbstg_free(h, nullptr);
  EXPECT_EQ(FreeList(Subpool(c)), (FL{{8, 40}, {68, 4086 - 60}}));
  EXPECT_EQ(BlockCount(Subpool(c)), 1u);
  EXPECT_EQ(Offset(c), 48u);
  zbstg_free(h, c);
  EXPECT_EQ(Stat(h).live_blocks, 0u);
  void* keep = zbstg_alloc(h, 16, 2);
  void* gone = zbstg_alloc(h, 16, 3);  // alone in its sub-pool, which becomes the spare
  zbstg_free(h, gone);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  zbstg_free(h, gone);  // the spare is no longer one of the heap's sub-pools
  EXPECT_EQ(zbstg_realloc(h, gone, 10, 3), nullptr);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, gone), 0u);
  // A buffer that merely looks like a block.
  alignas(8) uint8_t fake[64] = {};
  fake[8] = 16;   // size word
  fake[10] = 8;   // back-offset
  zbstg_free(h, fake + 12);
  EXPECT_EQ(zbstg_realloc(h, fake + 12, 40, 0), nullptr);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  EXPECT_EQ(zbstg_size(h, keep), 16u);
  zbstg_end(h);
}
