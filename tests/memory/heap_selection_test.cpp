// Block placement checked against a plain model of the allocation rules: the
// model keeps its own sub-pool table (largest-free values, last-used entry,
// first empty entry, the spare) and predicts, for every allocation, the
// sub-pool and the offset of the block, walking the free list in the
// sub-pool bytes itself. Enough blocks stay live to need several hundred
// sub-pools, so the table searches run over more than 256 entries.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <vector>

#include "heap_testutil.h"

using namespace heaptest;

namespace {

struct Entry {
  const uint8_t* sp = nullptr;
  uint32_t bytes = 0;    // size the sub-pool was made with
  uint32_t largest = 0;  // the heap's largest-free value for it
};

struct Model {
  std::vector<Entry> table;
  std::unordered_map<const uint8_t*, size_t> index;
  int64_t last_used = -1;
  uint32_t subpool_size = 4088;
  bool spare = false;

  static uint32_t LargestFree(const uint8_t* sp) {
    uint32_t m = 0;
    for (auto& [off, size] : FreeList(sp)) m = std::max(m, size);
    return m;
  }
  // Offset and size of the first free block of at least b bytes; 0 when none.
  static std::pair<uint32_t, uint32_t> FirstFit(const uint8_t* sp, uint32_t b) {
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
          fit = Model::FirstFit(m.table[idx].sp, b);
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
          const uint32_t bytes = 4086 <= b ? b + 10 : 4096;  // a spare is taken only when it fits
          if (b < 4086) m.spare = false;
          m.subpool_size = 4096;
          size_t slot = 0;
          while (slot < m.table.size() && m.table[slot].sp) ++slot;
          if (slot == m.table.size()) m.table.emplace_back();
          m.table[slot] = {sp, bytes, bytes - 10};
          m.index[sp] = slot;
          idx = static_cast<int64_t>(slot);
          fit = {8, bytes - 10};
        }
        m.last_used = idx;
        // Taking the block that set the largest-free value makes the heap
        // look for the new largest.
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
        if (!m.spare && e.bytes >= 4096 && e.bytes <= 4196) m.spare = true;
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
