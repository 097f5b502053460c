// Pools, the pool directory, sub-pool tables, the spare sub-pool and the
// statistics.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <functional>
#include <vector>

#include "heap_testutil.h"

using namespace heaptest;

TEST(HeapPools, PoolNumbers) {
  ZBSTG_HEAP h = zbstg_begin(0);
  EXPECT_EQ(zbstg_new_pool(h), 2u);
  EXPECT_EQ(zbstg_new_pool(h), 3u);
  zbstg_alloc(h, 4, 7);
  EXPECT_EQ(zbstg_new_pool(h), 8u);
  zbstg_alloc(h, 4, 5);  // below the next number: no change
  zbstg_alloc(h, 4, 0);
  EXPECT_EQ(zbstg_new_pool(h), 9u);
  EXPECT_EQ(zbstg_set_next_pool(h, 100), h);
  EXPECT_EQ(zbstg_new_pool(h), 100u);
  EXPECT_EQ(zbstg_default_pool(h, 42), 1u);
  void* p = zbstg_alloc(h, 4, 0);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, p), 42u);
  // The raise compares the pool as passed: 0 does not raise to the default.
  zbstg_set_next_pool(h, 10);
  zbstg_alloc(h, 4, 0);
  EXPECT_EQ(zbstg_new_pool(h), 10u);
  // realloc resolves 0 to the default before allocating.
  zbstg_realloc(h, nullptr, 4, 0);
  EXPECT_EQ(zbstg_new_pool(h), 43u);
  EXPECT_EQ(zbstg_default_pool(h, 1), 42u);
  // Pool numbers wrap.
  zbstg_alloc(h, 4, 0xFFFFFFFFu);
  EXPECT_EQ(zbstg_new_pool(h), 0u);
  EXPECT_EQ(zbstg_new_pool(h), 1u);
  zbstg_end(h);
}

TEST(HeapPools, FreePoolKeepsOtherPools) {
  ZBSTG_HEAP h = zbstg_begin(0);
  std::vector<uint8_t*> three;
  for (uint8_t i = 0; i < 250; ++i) {
    Fill(zbstg_alloc(h, 10 + i % 50, 2), 10, 0);
    Fill(three.emplace_back(static_cast<uint8_t*>(zbstg_alloc(h, 10 + i % 50, 3))), 10, i);
  }
  zbstg_free_pool(h, 2);
  EXPECT_EQ(Stat(h).live_blocks, 250u);
  for (uint8_t i = 0; i < 250; ++i)
    ASSERT_TRUE(Intact(three[i], 10, i) && zbstg_get_pointer_subpool(h, three[i]) == 3) << int(i);
  // The number can be used again; pools without a table are left alone; 0
  // means the default pool.
  void* again = zbstg_alloc(h, 8, 2);
  EXPECT_EQ(zbstg_get_pointer_subpool(h, again), 2u);
  zbstg_alloc(h, 8, 1);
  for (uint32_t pool : {55u, 3u, 3u, 0u}) zbstg_free_pool(h, pool);
  EXPECT_EQ(Stat(h).live_blocks, 1u);
  zbstg_free(h, again);
  EXPECT_EQ(Stat(h).live_blocks, 0u);
  zbstg_end(h);
}

// Each row changes the heap, then reads every statistic: (live, sub-pool,
// total = system = the answer, free, used bytes).
TEST(HeapPools, StatisticsOfASmallHeap) {
  ZBSTG_HEAP h = zbstg_begin(0);
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
  zbstg_end(h);
}

TEST(HeapPools, DirectoryGrowsPastOneHundredPools) {
  ZBSTG_HEAP h = zbstg_begin(0);
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
  zbstg_end(h);
}

// Placement in a table of many sub-pools is the selection model's; here the
// table's own bytes and what the spare does across pools.
TEST(HeapPools, TableGrowsPastTwoHundredSubpools) {
  ZBSTG_HEAP h = zbstg_begin(0);
  std::vector<uint8_t*> blocks;
  for (int i = 0; i < 201; ++i) Fill(blocks.emplace_back(static_cast<uint8_t*>(zbstg_alloc(h, 4000, 0))), 4000, i);
  EXPECT_EQ(std::make_pair(Stat(h).system_bytes, Stat(h).free_bytes), std::make_pair(201u * 4096 + (24 + 12 * 400), 201u * 82));
  for (int i = 0; i < 201; ++i) ASSERT_TRUE(Intact(blocks[i], 4000, i));
  zbstg_free_pool(h, 0);  // leaves only the spare, which statistics do not see
  EXPECT_EQ(std::make_pair(Stat(h).system_bytes, Stat(h).live_blocks), std::make_pair(0u, 0u));
  zbstg_end(h);
}

TEST(HeapPools, SpareSubpool) {
  ZBSTG_HEAP h = zbstg_begin(0);
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
  EXPECT_EQ(Subpool(d), oddsp);
  EXPECT_EQ(FreeList(oddsp).back().second, 4086u - 20);
  EXPECT_EQ(Stat(h).system_bytes, 4096u + 4114u + 4 * 2424u);  // pools 0, 4, 6 and 9 keep tables
  zbstg_end(h);
}

TEST(HeapPools, TableKeepsEveryEntryPastFourThousandSubpools) {
  ZBSTG_HEAP h = zbstg_begin(0);
  std::vector<uint32_t*> blocks;
  for (uint32_t i = 0; i < 4500; ++i) *blocks.emplace_back(static_cast<uint32_t*>(zbstg_alloc(h, 4000, 6))) = i;
  for (uint32_t i = 0; i < blocks.size(); ++i)
    ASSERT_EQ(std::make_pair(zbstg_get_pointer_subpool(h, blocks[i]), *blocks[i]), std::make_pair(6u, i)) << i;
  for (uint32_t* p : blocks) zbstg_free(h, p);
  EXPECT_EQ(Stat(h).live_blocks, 0u);
  zbstg_end(h);
}

// The size of a new sub-pool at exactly 100,000 and 200,000 live blocks: the
// heap is filled with small blocks, every other one of the last 400 freed (no
// sub-pool empties, no hole is large), then a block of 4,076 needs a new one.
TEST(HeapPools, SubpoolSizeAtTheLiveCountBoundaries) {
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
