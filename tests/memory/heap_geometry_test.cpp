// Block and sub-pool geometry: sizes, offsets, lost bytes, large blocks.
#include <gtest/gtest.h>

#include <cstring>

#include "heap_testutil.h"

using namespace heaptest;

TEST(HeapGeometry, WholeFreeBlockTakenKeepsTrailingBytesLost) {
  ZBSTG_HEAP h = zbstg_begin(0);
  // A fresh 4 KB sub-pool has one free block of 4,086 bytes; a block of 4,084
  // takes it whole and the 2 bytes left over are lost.
  void* a = zbstg_alloc(h, 4080, 0);
  EXPECT_EQ(BlockSize(a), 4084u);
  EXPECT_EQ(zbstg_size(h, a), 4080u);
  EXPECT_EQ(FirstFree(Subpool(a)), 0u);
  void* b = zbstg_alloc(h, 0, 0);  // cannot come from there
  EXPECT_NE(Subpool(b), Subpool(a));
  // Freed, the block keeps its recorded size: the lost bytes stay lost.
  void* c = zbstg_alloc(h, 2000, 0);
  void* d = zbstg_alloc(h, 2072, 0);  // 2,076 of the 2,078 left: whole block again
  EXPECT_EQ(FirstFree(Subpool(b)), 0u);
  zbstg_free(h, d);
  EXPECT_EQ(FreeList(Subpool(b)), (FL{{8 + 4 + 2004, 2076}}));
  zbstg_free(h, c);  // merges with the block after it
  EXPECT_EQ(FreeList(Subpool(b)), (FL{{12, 2004 + 2076}}));
  zbstg_end(h);
}

// Where a request lands, by size: (offset, recorded size, size answered,
// first free, system bytes of the heap afterwards).
TEST(HeapGeometry, SmallLargeAndOwnSubpoolBoundaries) {
  const struct { uint32_t n, off, block, size, first_free, sys; } rows[] = {
      {63996, 8, 64000, 63996, 0, 64010 + 2424},   // the largest small block: a sub-pool of b + 10
      {63997, 16, 64001, 63997, 0, 64013 + 2424},  // large: its own record of 16 bytes
      {4088, 8, 4092, 4088, 0, 4102 + 2424},       // b = 4,092 not below 4,096 - 10: own sub-pool
      {4076, 8, 4080, 4076, 8 + 4080, 4096 + 2424}, // b = 4,080: an ordinary 4 KB sub-pool
  };
  for (const auto& r : rows) {
    ZBSTG_HEAP h = zbstg_begin(0);
    void* p = zbstg_alloc(h, r.n, 3);
    const uint8_t* base = static_cast<const uint8_t*>(p) - r.off - 4 * (r.off == 8);
    EXPECT_EQ(std::vector<uint32_t>({W(p, -2) & 0x7FFFu, BlockSize(p), zbstg_size(h, p), L(base, 0),
                                     r.block == 64001 ? r.first_free : FirstFree(base), Stat(h).system_bytes}),
              std::vector<uint32_t>({r.block == 64001 ? 12 : r.off, r.block, r.size, 3, r.first_free, r.sys}))
        << r.n;
    if (r.block == 64001) {  // large record: pool, 0, 1 block, the size, 64,001, 12
      EXPECT_EQ(std::vector<uint32_t>({W(base, 4), W(base, 6), L(base, 8)}), std::vector<uint32_t>({0, 1, r.n}));
      std::memset(p, 0xAB, r.n);
      zbstg_free(h, p);
      EXPECT_EQ(Stat(h).system_bytes, 2424u);  // the pool keeps its empty table
      EXPECT_EQ(Stat(h).live_blocks, 0u);
    }
    zbstg_end(h);
  }
}

TEST(HeapGeometry, SubpoolSizeIsRechosenAtTheFirstSubpool) {
  // The size given to zbstg_begin (only its low 16 bits for the debug form)
  // is replaced by 4,096 when the first sub-pool is made, whatever it was.
  for (uint32_t size : {6u, 100u, 0u, 30000u, 0x10000u}) {
    ZBSTG_HEAP h = size > 0xFFFF ? zbstg_dbbegin(size, __FILE__, __LINE__) : zbstg_begin(static_cast<uint16_t>(size));
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

// Services kept for their callers: fixed answers, the debug forms as the plain ones.
TEST(HeapGeometry, SmallStatusServices) {
  ZBSTG_HEAP h = zbstg_dbbegin_allocflags(0, 0x42, __FILE__, __LINE__);
  zbstg_dumpLeaks(h);
  zbstg_dumpHeap(h);
  void* p = zbstg_alloc(h, 16, 0);
  void* q = zbstg_dballoc(h, 5, 0, __FILE__, __LINE__);
  const uint32_t small = zbstg_size(h, q);
  q = zbstg_dbrealloc(h, q, 100, 0, __FILE__, __LINE__);
  EXPECT_EQ(std::vector<uint64_t>({static_cast<uint64_t>(zbstg_validate(h)), zbstg_sos(h, 77), zbstg_sos(h, 5),
                                   static_cast<uint64_t>(zbstg_nextGeneration(h)), reinterpret_cast<uintptr_t>(zbstg_alloc_align(h, 16, 16, 0)),
                                   reinterpret_cast<uintptr_t>(zbstg_realloc_align(h, p, 32, 16, 0)), zbstg_size(h, p), small,
                                   zbstg_size(h, q), Stat(h).live_blocks}),
            std::vector<uint64_t>({1, 0, 77, 0, 0, 0, 16, 8, 100, 2}));
  zbstg_end(h);
}

TEST(HeapGeometry, StaleAndForeignPointersAreIgnored) {
  ZBSTG_HEAP h = zbstg_begin(0);
  void* a = zbstg_alloc(h, 16, 9);
  void* b = zbstg_alloc(h, 16, 9);
  void* c = zbstg_alloc(h, 16, 9);
  zbstg_free(h, a);
  for (void* again : {b, b, a, static_cast<void*>(nullptr)}) {  // b merges with a; the rest are ignored
    zbstg_free(h, again);
    EXPECT_EQ(FreeList(Subpool(c)), (FL{{8, 40}, {68, 4086 - 60}}));
  }
  EXPECT_EQ(BlockCount(Subpool(c)), 1u);
  zbstg_free(h, c);
  void* keep = zbstg_alloc(h, 16, 2);
  void* gone = zbstg_alloc(h, 16, 3);  // alone in its sub-pool, which becomes the spare
  zbstg_free(h, gone);
  zbstg_free(h, gone);  // the spare is no longer one of the heap's sub-pools
  EXPECT_EQ(zbstg_realloc(h, gone, 10, 3), nullptr);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, gone), 0u);
  alignas(8) uint8_t fake[64] = {};  // a buffer that merely looks like a block
  fake[8] = 16;   // size word
  fake[10] = 8;   // back-offset
  zbstg_free(h, fake + 12);
  EXPECT_EQ(zbstg_realloc(h, fake + 12, 40, 0), nullptr);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  EXPECT_EQ(zbstg_size(h, keep), 16u);
  zbstg_end(h);
}
