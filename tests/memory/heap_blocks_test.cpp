// Exact block and sub-pool geometry, reallocation, pools and statistics.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>
#include <vector>

#include "heap_testutil.h"

using namespace heaptest;

class HeapCase : public ::testing::Test {
 protected:
  ~HeapCase() override { zbstg_end(h); }
  ZBSTG_HEAP h = zbstg_begin(0);
};
using HeapGeometry = HeapCase;
using HeapPools = HeapCase;
using HeapRealloc = HeapCase;

TEST_F(HeapGeometry, WholeFreeBlockTakenKeepsTrailingBytesLost) {
  // A block of 4,084 takes a fresh sub-pool's free block of 4,086 whole: 2 bytes are lost.
  void* a = zbstg_alloc(h, 4080, 0);
  EXPECT_TRUE(BlockSize(a) == 4084 && zbstg_size(h, a) == 4080 && FirstFree(Subpool(a)) == 0);
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
}

// Where a request lands: (offset, recorded size, size answered, first free, system bytes after).
TEST_F(HeapGeometry, SmallLargeAndOwnSubpoolBoundaries) {
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

// Whatever size zbstg_begin is given, the first sub-pool is of 4,096 bytes.
TEST_F(HeapGeometry, SubpoolSizeIsRechosenAtTheFirstSubpool) {
  for (uint32_t size : {6u, 30000u, 0x10000u}) {
    ZBSTG_HEAP h = size > 0xFFFF ? zbstg_dbbegin(size, __FILE__, __LINE__) : zbstg_begin(static_cast<uint16_t>(size));
    zbstg_alloc(h, 88, 0);
    void* b = zbstg_alloc(h, 88, 0);  // second block of the same sub-pool
    EXPECT_EQ(std::make_tuple(Offset(b), Stat(h).subpool_bytes, Stat(h).system_bytes), std::make_tuple(100u, 4096u, 4096u + 2424u))
        << size;
    zbstg_end(h);
  }
}

TEST_F(HeapGeometry, StaleAndForeignPointersAreIgnored) {
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
  EXPECT_TRUE(!zbstg_realloc(h, gone, 10, 3) && zbstg_get_pointer_subpool(h, gone) == 0);
  alignas(8) uint8_t fake[64] = {0, 0, 0, 0, 0, 0, 0, 0, 16, 0, 8};  // looks like a block: size word, back-offset
  zbstg_free(h, fake + 12);
  EXPECT_EQ(zbstg_realloc(h, fake + 12, 40, 0), nullptr);
  EXPECT_TRUE(Stat(h).live_blocks == 1 && zbstg_size(h, keep) == 16);
}

TEST_F(HeapRealloc, ShrinkInPlace) {
  void* x = zbstg_alloc(h, 1000, 0);  // 1,004 at 8
  void* y = zbstg_alloc(h, 8, 0);     // at 1,012: nothing free touches x
  const uint8_t* sp = Subpool(x);
  Fill(x, 1000, 1);
  EXPECT_EQ(zbstg_realloc(h, x, 100, 0), x);
  EXPECT_EQ(FreeList(sp), (FL{{112, 900}, {1024, 4086 - 1016}}));
  // A 4-byte tail touching no free block stays inside; 97 rounds to 100.
  void* z = zbstg_alloc(h, 4, 0);
  EXPECT_EQ(Offset(z), 112u);
  for (uint32_t n : {96u, 97u}) EXPECT_TRUE(zbstg_realloc(h, x, n, 0) == x && zbstg_size(h, x) == 100) << n;
  // A tail touching the following free block merges with it, even 4 bytes.
  zbstg_free(h, z);
  EXPECT_TRUE(zbstg_realloc(h, x, 96, 0) == x && zbstg_size(h, x) == 96);
  EXPECT_EQ(FreeList(sp), (FL{{108, 904}, {1024, 4086 - 1016}}));
  EXPECT_TRUE(Intact(x, 96, 1));
  zbstg_free(h, y);
}

TEST_F(HeapRealloc, GrowInPlace) {
  void* a = zbstg_alloc(h, 100, 0);  // 104 at 8, 112, 216
  void* b = zbstg_alloc(h, 100, 0);
  zbstg_alloc(h, 100, 0);
  zbstg_free(h, b);
  Fill(a, 100, 3);
  EXPECT_TRUE(zbstg_realloc(h, a, 152, 0) == a && zbstg_size(h, a) == 152);  // the free block gives 52 and keeps 52
  EXPECT_EQ(FreeList(Subpool(a)), (FL{{164, 52}, {320, 4086 - 312}}));
  EXPECT_EQ(Offset(zbstg_alloc(h, 46, 0)), 164u);  // 52: the free block taken whole
  EXPECT_TRUE(Intact(a, 100, 3));
  // A remainder under 4 is absorbed (a fresh free block of 4,086 is no multiple of 4).
  void* e = zbstg_alloc(h, 4, 3);  // 8 at 8, free 4,078 at 16
  EXPECT_TRUE(zbstg_realloc(h, e, 4080, 3) == e && BlockSize(e) == 4086 && zbstg_size(h, e) == 4082 && FirstFree(Subpool(e)) == 0);
  // No room: the block moves (to a new sub-pool) with its contents.
  Fill(e, 4082, 9);
  void* moved = zbstg_realloc(h, e, 4084, 3);
  EXPECT_TRUE(moved != e && zbstg_size(h, moved) == 4084 && Intact(moved, 4082, 9));
  EXPECT_EQ(Stat(h).live_blocks, 4u);
}

TEST_F(HeapRealloc, StaleLargestFreeGivesNull) {
  // In-place growth leaves the largest-free value stale: a later allocation may return null.
  void* x = zbstg_alloc(h, 8, 0);
  EXPECT_EQ(zbstg_realloc(h, x, 4000, 0), x);
  EXPECT_EQ(FreeList(Subpool(x)), (FL{{4012, 82}}));
  EXPECT_EQ(zbstg_alloc(h, 1000, 0), nullptr);
}

// Each row reallocates the block the previous row left.
TEST_F(HeapRealloc, SoleBlocksAndChangesOfClass) {
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
    kept = std::min(kept, r.n);
    EXPECT_EQ(std::make_pair(zbstg_size(h, q), Stat(h).system_bytes), std::make_pair(r.size, r.sys)) << r.n;
    EXPECT_TRUE((BlockSize(q) == 64001 || Offset(q) == 8) && (!r.moves || q != p) && Intact(q, kept, 4)) << r.n;
    p = q;
  }
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  // A sole block not above the sub-pool size - 8 moves instead.
  void* d = zbstg_alloc(h, 4080, 0);  // 4,084 whole in a 4 KB sub-pool
  void* e = zbstg_realloc(h, d, 4000, 0);
  EXPECT_TRUE(e != d && zbstg_size(h, e) == 4000);
}

TEST_F(HeapRealloc, StringFlag) {
  void* a = zbstg_alloc(h, 20, 0);
  void* other = zbstg_alloc(h, 20, 0);
  static_cast<uint8_t*>(a)[-1] |= 0x80;  // the string-length flag
  // realloc does not clear the flag: the sub-pool is not found.
  EXPECT_EQ(zbstg_realloc(h, a, 40, 0), nullptr);
  EXPECT_TRUE(zbstg_size(h, a) == 20 && zbstg_get_pointer_subpool(h, a) == 1);  // which, like free, clears it
  zbstg_free(h, a);
  EXPECT_TRUE(Stat(h).live_blocks == 1 && FreeList(Subpool(other)).front() == (std::pair<uint32_t, uint32_t>(8, 24)));
}

TEST_F(HeapPools, PoolNumbers) {
  EXPECT_TRUE(zbstg_new_pool(h) == 2 && zbstg_new_pool(h) == 3);
  zbstg_alloc(h, 4, 7);
  EXPECT_EQ(zbstg_new_pool(h), 8u);
  zbstg_alloc(h, 4, 5);  // below the next number: no change
  zbstg_alloc(h, 4, 0);
  EXPECT_EQ(zbstg_new_pool(h), 9u);
  EXPECT_TRUE(zbstg_set_next_pool(h, 100) == h && zbstg_new_pool(h) == 100 && zbstg_default_pool(h, 42) == 1);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, zbstg_alloc(h, 4, 0)), 42u);
  // The raise compares the pool as passed: 0 does not raise to the default.
  zbstg_set_next_pool(h, 10);
  zbstg_alloc(h, 4, 0);
  EXPECT_EQ(zbstg_new_pool(h), 10u);
  // realloc resolves 0 to the default before allocating.
  zbstg_realloc(h, nullptr, 4, 0);
  EXPECT_TRUE(zbstg_new_pool(h) == 43 && zbstg_default_pool(h, 1) == 42);
  // Pool numbers wrap.
  zbstg_alloc(h, 4, 0xFFFFFFFFu);
  EXPECT_TRUE(zbstg_new_pool(h) == 0 && zbstg_new_pool(h) == 1);
}

// Pools without a table are left alone; 0 means the default pool.
TEST_F(HeapPools, FreePoolOfNoTableOrTheDefault) {
  zbstg_alloc(h, 8, 3);
  void* kept = zbstg_alloc(h, 8, 2);
  zbstg_alloc(h, 8, 1);
  for (uint32_t pool : {55u, 3u, 3u, 0u}) zbstg_free_pool(h, pool);
  EXPECT_EQ(std::make_pair(Stat(h).live_blocks, zbstg_get_pointer_subpool(h, kept)), std::make_pair(1u, 2u));
}

// Each row changes the heap, then reads every statistic (total = system = the answer).
TEST_F(HeapPools, StatisticsOfASmallHeap) {
  void* l = nullptr;
  const struct {
    std::function<void()> step;
    uint32_t live, subpool, sys, free, used;
  } rows[] = {
      {[] {}, 0, 0, 0, 0, 0},
      // used = GlobalSize - header - 4 per block - free: 4096 - 8 - 8 - 4066.
      {[&] { zbstg_alloc(h, 5, 0), zbstg_alloc(h, 1, 0); }, 2, 4096, 4096 + 2424, 4086 - 12 - 8, 14},
      {[&] { l = zbstg_alloc(h, 70000, 2); }, 3, 8192, 4096 + 2424 + 70016 + 2424, 4066, 14 + 70000},
      {[&] { zbstg_free(h, l); }, 2, 8192, 4096 + 2424 + 2424, 4066, 14},  // the peak stays
      // A sub-pool of 64,001 bytes or more is counted as a large block: the
      // long at offset 8 (here the first block's header words) is its payload.
      {[&] { zbstg_alloc(h, 63996, 3); }, 3, 8192, 4096 + 2424 * 3 + 64010, 4066, 14 + 64000 + (8u << 16)},
  };
  for (const auto& r : rows) {
    r.step();
    ZBSTG_STAT st{};
    const uint32_t answer = zbstg_stat(h, &st);
    EXPECT_EQ(std::vector<uint32_t>({st.live_blocks, st.subpool_bytes, st.total_bytes, st.system_bytes, answer,
                                     st.free_bytes, st.used_bytes}),
              std::vector<uint32_t>({r.live, r.subpool, r.sys, r.sys, r.sys, r.free, r.used}))
        << &r - rows;
  }
}

TEST_F(HeapPools, DirectoryGrowsPastOneHundredPools) {
  std::vector<uint32_t*> blocks;
  // 150 sub-pools and tables and a directory of 200 entries, then 210 and 300.
  for (uint32_t pool = 10; pool < 220; ++pool) {
    *blocks.emplace_back(static_cast<uint32_t*>(zbstg_alloc(h, 4, pool))) = pool;
    EXPECT_TRUE(pool != 159 || Stat(h).system_bytes == 150u * (4096 + 2424) + (16 + 8 * 200));
  }
  EXPECT_EQ(Stat(h).system_bytes, 210u * (4096 + 2424) + (16 + 8 * 300));
  for (uint32_t* p : blocks) ASSERT_EQ(std::make_pair(zbstg_get_pointer_subpool(h, p), *p), std::make_pair(*p, *p));
  for (uint32_t pool = 10; pool < 220; ++pool) zbstg_free_pool(h, pool);
  EXPECT_EQ(Stat(h).live_blocks, 0u);
  EXPECT_EQ(Stat(h).system_bytes, 16u + 8 * 300);
}

TEST_F(HeapPools, TableGrowsPastTwoHundredSubpools) {
  std::vector<uint8_t*> blocks;
  for (int i = 0; i < 201; ++i) Fill(blocks.emplace_back(static_cast<uint8_t*>(zbstg_alloc(h, 4000, 0))), 4000, i);
  EXPECT_EQ(std::make_pair(Stat(h).system_bytes, Stat(h).free_bytes), std::make_pair(201u * 4096 + (24 + 12 * 400), 201u * 82));
  for (int i = 0; i < 201; ++i) ASSERT_TRUE(Intact(blocks[i], 4000, i));
  zbstg_free_pool(h, 0);  // leaves only the spare, which statistics do not see
  EXPECT_EQ(std::make_pair(Stat(h).system_bytes, Stat(h).live_blocks), std::make_pair(0u, 0u));
}

TEST_F(HeapPools, SpareSubpool) {
  void* a = zbstg_alloc(h, 16, 0);
  const uint8_t* sp = Subpool(a);
  zbstg_free(h, a);
  EXPECT_EQ(Stat(h).system_bytes, 2424u);
  // Reused for the next small sub-pool, of another pool too, freshly set up.
  void* c = zbstg_alloc(h, 16, 9);
  EXPECT_EQ(std::make_tuple(Subpool(c), Offset(c), L(sp, 0)), std::make_tuple(sp, 8u, 9u));
  // A sub-pool of 4,098..4,196 bytes is kept as the spare when there is none;
  // reused, it is set up as a 4,096-byte sub-pool though it keeps its size.
  void* odd = zbstg_alloc(h, 4100, 4);  // b = 4,104: a sub-pool of 4,114
  const uint8_t* oddsp = Subpool(odd);
  zbstg_free(h, odd);
  void* d = zbstg_alloc(h, 16, 6);
  EXPECT_TRUE(Subpool(d) == oddsp && FreeList(oddsp).back().second == 4086 - 20);
  EXPECT_EQ(Stat(h).system_bytes, 4096u + 4114u + 4 * 2424u);  // pools 0, 4, 6 and 9 keep tables
}

TEST_F(HeapPools, TableKeepsEveryEntryPastFourThousandSubpools) {
  std::vector<uint32_t*> blocks;
  for (uint32_t i = 0; i < 4500; ++i) *blocks.emplace_back(static_cast<uint32_t*>(zbstg_alloc(h, 4000, 6))) = i;
  for (uint32_t i = 0; i < blocks.size(); ++i)
    ASSERT_EQ(std::make_pair(zbstg_get_pointer_subpool(h, blocks[i]), *blocks[i]), std::make_pair(6u, i)) << i;
}

// The size of a new sub-pool at 100,000 and 200,000 live blocks (every other one
// of the last 400 freed: no sub-pool empties), when a block of 4,076 needs one.
TEST_F(HeapPools, SubpoolSizeAtTheLiveCountBoundaries) {
  const uint32_t cases[][2] = {{99999, 4096}, {100000, 8192}, {199999, 8192}, {200000, 16384}};
  for (const auto& c : cases) {
    ZBSTG_HEAP h = zbstg_begin(0);
    std::vector<void*> blocks(c[0] + 200);
    for (void*& p : blocks) p = zbstg_alloc(h, 4, 0);
    for (uint32_t i = 0; i < 400; i += 2) zbstg_free(h, blocks[c[0] - 200 + i]);
    ASSERT_EQ(Stat(h).live_blocks, c[0]);
    void* p = zbstg_alloc(h, 4076, 0);
    EXPECT_EQ(Offset(p), 8u);
    EXPECT_EQ(FreeList(Subpool(p)).back().second + 4090, c[1]) << c[0];
    zbstg_end(h);
  }
}

// Statistics read the free lists from the sub-pool bytes: a damaged list (a
// link back to itself, or past the sub-pool) is followed no further; a link
// to the last 4 bytes is still read (a "block" of 5 there, linking back).
TEST_F(HeapPools, StatisticsStopAtADamagedFreeList) {
  auto* sp = const_cast<uint8_t*>(Subpool(zbstg_alloc(h, 16, 0)));  // free: 4,066 at 28
  ASSERT_EQ(FreeList(sp), (FL{{28, 4066}}));
  sp[4092] = 5, sp[4093] = 0, sp[4094] = 3, sp[4095] = 0;
  for (uint16_t next : {28, 4093, 4094, 4092}) {
    sp[30] = static_cast<uint8_t>(next), sp[31] = static_cast<uint8_t>(next >> 8);
    EXPECT_EQ(Stat(h).free_bytes, 4066u + 5 * (next == 4092)) << next;
  }
  sp[30] = sp[31] = sp[4092] = sp[4094] = 0;
}
