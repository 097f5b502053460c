// The heap against models: random workloads and exact placement (which also runs the vector searches).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include "heap_testutil.h"

using namespace heaptest;

// Every live block keeps its bytes, pool and predicted size; blocks never overlap.
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
  // Pools where a block grew in place: only there may a stale largest-free value give null.
  std::set<uint32_t> grown;
  auto any = [&] { return std::next(live.begin(), pick(0, static_cast<uint32_t>(live.size() - 1)))->first; };
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
      if (!p) {
        ASSERT_EQ(grown.count(pool ? pool : 1), 1u) << "step " << step;
        continue;
      }
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 4, 0u);
      ASSERT_EQ(live.count(p), 0u);
      check_size(p, n, true);
      live[p] = {n, pool ? pool : 1, static_cast<uint8_t>(pick(0, 255))};
      Fill(p, n, live[p].seed);
    } else if (op < 80) {
      uint8_t* p = any();
      ASSERT_TRUE(Intact(p, live[p].n, live[p].seed));
      zbstg_free(h, p);
      live.erase(p);
    } else if (op < 99) {
      uint8_t* p = any();
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
      live.erase(p);
      live[q] = {n, target, static_cast<uint8_t>(pick(0, 255))};
      Fill(q, n, live[q].seed);
    } else {
      uint32_t pool = pick(2, 4);
      zbstg_free_pool(h, pool);
      std::erase_if(live, [&](auto& b) { return b.second.pool == pool; });
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
      // Free lists read from the sub-pool bytes: ascending, clear of every live block.
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
  ZBSTG_STAT st = Stat(h);
  EXPECT_EQ(st.total_bytes, st.system_bytes);
  for (auto& [p, l] : live) zbstg_free(h, p);
  st = Stat(h);
  EXPECT_EQ(st.live_blocks, 0u);
  EXPECT_EQ(st.used_bytes, 0u);
  zbstg_end(h);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HeapModel, ::testing::Values(1u, 2u, 3u, 20261122u));

// The model keeps its own sub-pool table and predicts every block's sub-pool and
// offset; several hundred sub-pools make the table searches run past 256 entries.
namespace {

struct Entry {
  const uint8_t* sp = nullptr;
  uint32_t largest = 0;  // the heap's largest-free value for it
};

struct Model {
  std::vector<Entry> table;
  std::unordered_map<const uint8_t*, size_t> index;
  int64_t last_used = -1;
  uint32_t subpool_size = 4088;

  static uint32_t LargestFree(const uint8_t* sp) {
    uint32_t m = 0;
    for (auto& [off, size] : FreeList(sp)) m = std::max(m, size);
    return m;
  }
  // Offset and size of the first free block of at least b bytes; 0 when none.
  static std::pair<uint32_t, uint32_t> first_fit(const uint8_t* sp, uint32_t b) {
    for (auto& [off, size] : FreeList(sp))
      if (size >= b) return {off, size};
    return {0, 0};
  }
};

}  // namespace

TEST(HeapSelection, PlacementFollowsTheTableAndFreeListRules) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    std::mt19937 rng(seed);
    auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    ZBSTG_HEAP h = zbstg_begin(0);
    Model m;
    std::vector<uint8_t*> live;
    const uint32_t target = seed == 1 ? 9000 : 3000;
    for (int step = 0; step < 40000; ++step) {
      bool alloc = live.empty() || (live.size() < target ? pick(0, 9) < 7 : pick(0, 9) < 3);
      if (alloc) {
        uint32_t r = pick(0, 999);
        uint32_t n = r < 950 ? pick(0, 300) : r < 995 ? pick(301, 4077) : pick(4078, 5000);
        uint32_t b = ((n + 3) & ~3u) + 4;
        int64_t idx = -1;
        if (b < m.subpool_size - 10) {
          if (m.last_used >= 0 && m.table[m.last_used].largest >= b) idx = m.last_used;
          for (size_t i = 0; idx < 0 && i < m.table.size(); ++i)
            if (m.table[i].sp && m.table[i].largest >= b) idx = static_cast<int64_t>(i);
        }
        std::pair<uint32_t, uint32_t> fit{0, 0};
        if (idx >= 0) {
          fit = Model::first_fit(m.table[idx].sp, b);
          ASSERT_NE(fit.first, 0u) << "the largest-free value promised room";
        }
        auto* p = static_cast<uint8_t*>(zbstg_alloc(h, n, 0));
        ASSERT_NE(p, nullptr) << "seed " << seed << " step " << step;
        const uint8_t* sp = Subpool(p);
        ASSERT_EQ(BlockSize(p), b);
        if (idx >= 0) {
          ASSERT_EQ(sp, m.table[idx].sp) << "seed " << seed << " step " << step << " b " << b;
          ASSERT_EQ(Offset(p), fit.first) << "seed " << seed << " step " << step;
        } else {
          ASSERT_EQ(m.index.count(sp), 0u) << "expected a new sub-pool, step " << step;
          ASSERT_EQ(Offset(p), 8u);
          const uint32_t bytes = 4086 <= b ? b + 10 : 4096;
          m.subpool_size = 4096;
          size_t slot = 0;
          while (slot < m.table.size() && m.table[slot].sp) ++slot;
          if (slot == m.table.size()) m.table.emplace_back();
          m.table[slot] = {sp, bytes - 10};
          m.index[sp] = slot;
          idx = static_cast<int64_t>(slot);
          fit = {8, bytes - 10};
        }
        m.last_used = idx;
        // Taking the block that set the largest-free value makes the heap look again.
        if (fit.second >= m.table[idx].largest) m.table[idx].largest = Model::LargestFree(sp);
        live.push_back(p);
        continue;
      }
      size_t k = pick(0, static_cast<uint32_t>(live.size() - 1));
      uint8_t* p = live[k];
      live[k] = live.back();
      live.pop_back();
      const uint8_t* sp = Subpool(p);
      size_t i = m.index.at(sp);
      uint32_t off = Offset(p);
      bool last = BlockCount(sp) == 1;
      zbstg_free(h, p);
      Entry& e = m.table[i];
      if (last) {
        // The sub-pool was released (its bytes may be gone: read nothing).
        m.index.erase(sp);
        e = Entry{};
        continue;
      }
      for (auto& [foff, fsize] : FreeList(sp))
        if (foff <= off && off < foff + fsize && fsize > e.largest) e.largest = fsize;
    }
    EXPECT_TRUE(seed != 1 || m.table.size() > 300u) << "the large run must fill more than 256 entries";
    zbstg_end(h);
  }
}
