// Randomised run against a simple model: every live block keeps its bytes,
// blocks never overlap, sizes and pools are as predicted, the live count is
// right.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "heap_testutil.h"

using namespace heaptest;

namespace {

struct Live {
  uint32_t n, pool;  // bytes asked for (and filled), pool
  uint8_t seed;
};
uint32_t Round4(uint32_t n) { return (n + 3) & ~3u; }
class HeapModel : public ::testing::TestWithParam<uint32_t> {};

}  // namespace

TEST_P(HeapModel, RandomOperations) {
  std::mt19937 rng(GetParam());
  auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
  auto size = [&]() -> uint32_t {
    uint32_t r = pick(0, 999);
    return r < 850 ? pick(0, 300) : r < 980 ? pick(301, 6000) : r < 990 ? pick(63990, 64004) : pick(64005, 150000);
  };
  ZBSTG_HEAP h = zbstg_begin(0);
  std::map<uint8_t*, Live> live;
  std::vector<uint8_t*> order;  // for random picks
  // Pools in which a block grew in place: only there can a stale largest-free
  // value make an allocation find no room and return null.
  std::set<uint32_t> grown;
  int allocs = 0;
  auto forget = [&](uint8_t* p) {
    live.erase(p);
    order.erase(std::find(order.begin(), order.end(), p));
  };
  auto check_size = [&](uint8_t* p, uint32_t n, bool exact) {  // large blocks keep n exactly
    uint32_t s = zbstg_size(h, p), want = BlockSize(p) == 64001 ? n : Round4(n);
    ASSERT_TRUE(s == want || (!exact && BlockSize(p) != 64001 && s > want && s <= want + 4)) << s << " for " << n;
  };

  for (int step = 0; step < 20000; ++step) {
    uint32_t op = pick(0, 99);
    if (op < 45 || live.empty()) {
      uint32_t n = size();
      uint32_t pool = pick(0, 4);
      auto* p = static_cast<uint8_t*>(zbstg_alloc(h, n, pool));
      ++allocs;
      if (!p) {
        ASSERT_EQ(grown.count(pool ? pool : 1), 1u) << "step " << step;
        continue;
      }
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 4, 0u);
      ASSERT_EQ(live.count(p), 0u);
      check_size(p, n, true);
      live[p] = {n, pool ? pool : 1, static_cast<uint8_t>(pick(0, 255))};
      Fill(p, n, live[p].seed);
      order.push_back(p);
    } else if (op < 80) {
      uint8_t* p = order[pick(0, static_cast<uint32_t>(order.size() - 1))];
      ASSERT_TRUE(Intact(p, live[p].n, live[p].seed));
      zbstg_free(h, p);
      forget(p);
    } else if (op < 99) {
      uint8_t* p = order[pick(0, static_cast<uint32_t>(order.size() - 1))];
      Live old = live[p];
      bool old_large = BlockSize(p) == 64001;
      // Mostly small changes around the old size, sometimes anything.
      uint32_t n = pick(0, 3) == 0 ? size() : old.n + pick(0, 80) - std::min<uint32_t>(old.n, 40);
      uint32_t pool = pick(0, 9) == 0 ? pick(1, 4) : 0;
      uint32_t target = pool ? pool : 1;
      uint32_t old_size = zbstg_size(h, p);
      auto* q = static_cast<uint8_t*>(zbstg_realloc(h, p, n, pool));
      if (!q) {
        ASSERT_EQ(grown.count(target), 1u) << "step " << step;
        continue;  // the old block is kept
      }
      if (q == p && zbstg_size(h, q) > old_size) grown.insert(target);
      ASSERT_TRUE(Intact(q, std::min(old.n, n), old.seed));
      if (!old_large && Round4(n) <= 63996 && BlockSize(q) != 64001) {
        ASSERT_EQ(target == old.pool || q != p, true);
        check_size(q, n, false);
      } else {
        check_size(q, old_large ? n : Round4(n), true);
      }
      forget(p);
      live[q] = {n, target, static_cast<uint8_t>(pick(0, 255))};
      Fill(q, n, live[q].seed);
      order.push_back(q);
    } else {
      uint32_t pool = pick(2, 4);
      zbstg_free_pool(h, pool);
      for (auto it = live.begin(); it != live.end();) {
        auto next = std::next(it);
        if (it->second.pool == pool) forget(it->first);
        it = next;
      }
    }
    ASSERT_EQ(Stat(h).live_blocks, live.size()) << "step " << step;
    if (step % 1000 == 999) {
      const uint8_t* end = nullptr;
      std::map<const uint8_t*, std::vector<std::pair<uint32_t, uint32_t>>> used;  // sub-pool -> blocks
      for (auto& [p, l] : live) {
        ASSERT_TRUE(Intact(p, l.n, l.seed)) << "step " << step;
        ASSERT_EQ(zbstg_get_pointer_subpool(h, p), l.pool);
        ASSERT_TRUE(end == nullptr || p - 4 >= end) << "overlap at step " << step;
        end = p + zbstg_size(h, p);
        if (BlockSize(p) != 64001) used[Subpool(p)].emplace_back(Offset(p), BlockSize(p));
      }
      // Each sub-pool's free list, read from its bytes: ascending, inside the
      // sub-pool, clear of every live block, and the block count is right.
      for (auto& [sp, blocks] : used) {
        ASSERT_EQ(BlockCount(sp), blocks.size()) << "step " << step;
        auto fl = FreeList(sp);
        uint32_t last_end = 8;
        for (auto [off, sz] : fl) {
          ASSERT_GE(off, last_end) << "step " << step;
          ASSERT_GE(sz, 4u);
          last_end = off + sz;
          for (auto [boff, bsz] : blocks)
            ASSERT_TRUE(boff + bsz <= off || off + sz <= boff) << "free block over a live one";
        }
      }
    }
  }
  EXPECT_GT(allocs, 5000);
  ZBSTG_STAT st = Stat(h);
  EXPECT_EQ(st.total_bytes, st.system_bytes);
  for (uint8_t* p : std::vector<uint8_t*>(order)) zbstg_free(h, p);
  st = Stat(h);
  EXPECT_EQ(st.live_blocks, 0u);
  EXPECT_EQ(st.used_bytes, 0u);
  zbstg_end(h);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HeapModel, ::testing::Values(1u, 2u, 3u, 20261122u));
