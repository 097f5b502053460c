// The heap manager: heaps, pools, sub-pools and blocks.
//
// Memory comes from the system in sub-pools, chunks taken with GlobalAlloc and
// kept locked for their whole life. A sub-pool's bytes have one fixed layout on
// every host (little-endian, read and written byte by byte):
//
//   0  long  pool number that owns the sub-pool
//   4  word  offset of the first free block, 0 when none
//   6  word  number of blocks allocated in it
//   8  ...   blocks: word size (header included; 64001 marks a large block),
//            word back-offset to the sub-pool start (bit 15: string-length
//            flag) or, in a free block, the offset of the next free block.
//
// A large block (payload above 63,996 bytes) is a sub-pool of payload + 16
// bytes: pool, first free 0, count 1, payload size (long at 8), size word
// 64001 at 12, back-offset 12 at 14, payload from 16.
//
// The heap record, the pool directory and the sub-pool tables hold pointers
// and handles. They are native records here: every pointer and handle field
// is pointer-wide (8 bytes on 64-bit hosts), counters are 32-bit, and the
// records are taken with GlobalAlloc as in the 32-bit layout (heap record
// flags 2, directory and tables flags 66), in the same sequence of calls. The
// statistics report the sizes the tables and a grown directory have in the
// 32-bit layout (24 + 12 x capacity, 16 + 8 x capacity), so the figures a
// caller sees do not depend on the host's pointer width. Everything a caller
// can observe (block sizes, offsets inside sub-pools, GlobalSize of
// sub-pools, pool numbers, statistics) is the same on every host. Table and
// directory counts, capacities and the last-used index are 32-bit here, so
// they do not wrap at 65,535 entries. A directory replaced by a bigger one is
// kept (not reused) until zbstg_end, which frees it with the rest.
//
// Speed without changing results: the largest-free values of a table are kept
// as 16-bit words with upper bounds per 16 and per 256 entries, so "the first
// entry, in index order, whose largest free block fits" is found by comparing
// 16 words at a time and skipping whole groups; a bitmap finds the first empty
// entry; a map from sub-pool address to (directory entry, table entry) lets
// zbstg_free reach its table entry in constant time; a map from pool number to
// directory entry (and a one-entry cache) replaces the directory scan; each
// small sub-pool's free list is mirrored beside it in two arrays of 16-bit
// words (offsets in ascending order, then sizes, padded to runs of 16), so
// first fit, the ordered insertion point and the largest free block are each
// found with a few 16-word comparisons, and insertion and removal shift whole
// runs. The words in the sub-pool are always written as the layout requires
// (a free or an allocation stores only each word's final value); only the
// searches read the mirror.
//
// Robustness beyond the classic contract: a pointer whose sub-pool is not one
// of the heap's (a stale or foreign pointer, a double free after the sub-pool
// went away) is ignored by zbstg_free, and zbstg_realloc returns null for it;
// a block freed while it already lies on (or inside) a free block is ignored;
// the statistics stop walking a free list at any link that does not move
// forward, so a damaged list cannot make them loop; the heap, table and
// directory records go through the out-of-memory dialog like sub-pools.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>

#include "memory/heap_intl.h"

using namespace zbshr::plat;

namespace zbshr::mem {

// ---------------------------------------------------------------- table index

// The run maxima are upper bounds: they rise with a value here and are
// lowered only when a search finds nothing below them.
static inline void set_largest(Table* t, uint32_t i, uint32_t value) {
  t->largest[i] = static_cast<uint16_t>(value);
  uint32_t g = i >> 4;
  if (value > t->max16[g]) {
    t->max16[g] = static_cast<uint16_t>(value);
    if (value > t->top[i >> 8]) t->top[i >> 8] = static_cast<uint16_t>(value);
  }
}

// First entry (in index order) whose largest-free value is at least b, or -1.
static int32_t first_fit(Table* t, uint32_t b) {
  const uint16_t v = static_cast<uint16_t>(b);
  for (uint32_t base = 0; base < t->top_words; base += kLanes) {
    for (uint32_t m2 = lanes::at_least(t->top + base, v); m2; m2 &= m2 - 1) {
      uint32_t g2 = base + static_cast<uint32_t>(std::countr_zero(m2));
      uint16_t* run16 = t->max16 + g2 * kLanes;
      for (uint32_t m1 = lanes::at_least(run16, v); m1; m1 &= m1 - 1) {
        uint32_t g = g2 * kLanes + static_cast<uint32_t>(std::countr_zero(m1));
        uint32_t m0 = lanes::at_least(t->largest + g * kLanes, v);
        if (m0) return static_cast<int32_t>(g * kLanes + static_cast<uint32_t>(std::countr_zero(m0)));
        t->max16[g] = lanes::max(t->largest + g * kLanes);  // the bound was stale
      }
      t->top[g2] = lanes::max(run16);
    }
  }
  return -1;
}

// Builds the largest-free levels of a table whose capacity just became
// t->capacity, keeping the values of the first `old_count` entries.
static void index_table(ZBSTG_HEAP heap, Table* t, uint32_t old_count) {
  uint32_t cap = t->capacity;
  uint32_t words0 = (cap + 255) / 256 * 256;
  uint32_t words1 = words0 / kLanes;
  uint32_t words2 = (words0 / 256 + kLanes - 1) / kLanes * kLanes;
  auto* levels = static_cast<uint16_t*>(
      side_alloc_line(heap, sizeof(uint16_t) * (words0 + words1 + words2)));
  std::memset(levels, 0, sizeof(uint16_t) * (words0 + words1 + words2));
  if (t->largest) std::memcpy(levels, t->largest, sizeof(uint16_t) * old_count);
  uint16_t* l1 = levels + words0;
  uint16_t* l2 = l1 + words1;
  for (uint32_t g = 0; g < words1; ++g) l1[g] = lanes::max(levels + g * kLanes);
  for (uint32_t g = 0; g < words0 / 256; ++g) l2[g] = lanes::max(l1 + g * kLanes);
  uint32_t words = (cap + 63) / 64;
  auto* occ = static_cast<uint64_t*>(side_alloc(heap, sizeof(uint64_t) * words));
  if (t->occupied) std::memcpy(occ, t->occupied, sizeof(uint64_t) * ((old_count + 63) / 64));
  std::free(t->occupied);
  side_free_line(t->largest);
  t->largest = levels;
  t->max16 = l1;
  t->top = l2;
  t->top_words = words2;
  t->occupied = occ;
}

static void free_table(Table* t) {
  side_free_line(t->largest);
  std::free(t->occupied);
  HGLOBAL h = t->handle;
  GlobalUnlock(h);
  GlobalFree(h);
}

static size_t table_native_bytes(uint32_t capacity) {
  return sizeof(Table) + sizeof(TableEntry) * capacity;
}

// ---------------------------------------------------------------- directory

static void mark_dir_slot(ZBSTG_HEAP heap, uint32_t slot, bool used) {
  uint32_t w = slot / 64;
  if (w >= heap->dir_occupied_words) {
    uint32_t words = std::max<uint32_t>(w + 1, heap->dir_occupied_words * 2);
    auto* fresh = static_cast<uint64_t*>(side_alloc(heap, sizeof(uint64_t) * words));
    if (heap->dir_occupied)
      std::memcpy(fresh, heap->dir_occupied, sizeof(uint64_t) * heap->dir_occupied_words);
    std::free(heap->dir_occupied);
    heap->dir_occupied = fresh;
    heap->dir_occupied_words = words;
  }
  if (used)
    heap->dir_occupied[w] |= 1ull << (slot % 64);
  else
    heap->dir_occupied[w] &= ~(1ull << (slot % 64));
}

// First directory entry below `count` without a table, or -1.
static int64_t first_free_dir_slot(ZBSTG_HEAP heap, uint32_t count) {
  for (uint32_t w = 0; w * 64 < count; ++w) {
    uint64_t bits = w < heap->dir_occupied_words ? heap->dir_occupied[w] : 0;
    if (~bits) {
      uint32_t i = w * 64 + static_cast<uint32_t>(std::countr_zero(~bits));
      return i < count ? static_cast<int64_t>(i) : -1;
    }
  }
  return -1;
}

static Table* make_table(ZBSTG_HEAP heap) {
  constexpr UINT kFlags = GMEM_MOVEABLE | GMEM_ZEROINIT;
  HGLOBAL h = GlobalAlloc(kFlags, table_native_bytes(kTableStep));
  uint8_t* mem = obtain_locked(heap, &h, table_native_bytes(kTableStep), kFlags);
  auto* t = new (mem) Table{h, 0, kTableStep, -1, 0, nullptr, nullptr, nullptr, nullptr};
  std::memset(static_cast<void*>(t->entries()), 0, sizeof(TableEntry) * kTableStep);
  index_table(heap, t, 0);
  return t;
}

// Finds the table of `pool`, creating it when `create`; sets *slot. Null when
// absent and not created.
static Table* find_table(ZBSTG_HEAP heap, uint32_t pool, bool create, uint32_t* slot) {
  if (heap->cached_valid && heap->cached_pool == pool) {
    *slot = heap->cached_slot;
    return table_at(heap, *slot);
  }
  uint64_t v;
  if (heap->pool_slot.find(pool, &v)) {
    *slot = static_cast<uint32_t>(v);
    heap->cached_pool = pool;
    heap->cached_slot = *slot;
    heap->cached_valid = true;
    return table_at(heap, *slot);
  }
  if (!create) return nullptr;
  Directory* dir = heap->directory;
  int64_t free_slot = first_free_dir_slot(heap, dir->count);
  uint32_t s;
  if (free_slot >= 0) {
    s = static_cast<uint32_t>(free_slot);
  } else if (dir->count < dir->capacity) {
    s = dir->count++;
  } else {
    // Grow the directory by 100 entries; the replaced block is kept until the
    // heap ends.
    uint32_t cap = dir->capacity + kDirectoryStep;
    constexpr UINT kFlags = GMEM_MOVEABLE | GMEM_ZEROINIT;
    size_t bytes = sizeof(Directory) + sizeof(DirEntry) * cap;
    HGLOBAL h = GlobalAlloc(kFlags, bytes);
    uint8_t* mem = obtain_locked(heap, &h, bytes, kFlags);
    auto* fresh = new (mem) Directory{h, cap, dir->count};
    std::memset(static_cast<void*>(fresh->entries()), 0, sizeof(DirEntry) * cap);
    std::memcpy(static_cast<void*>(fresh->entries()), dir->entries(),
                sizeof(DirEntry) * dir->capacity);
    if (dir->handle) {
      auto* list = static_cast<HGLOBAL*>(
          side_alloc(heap, sizeof(HGLOBAL) * (heap->old_directory_count + 1)));
      if (heap->old_directories)
        std::memcpy(list, heap->old_directories, sizeof(HGLOBAL) * heap->old_directory_count);
      std::free(heap->old_directories);
      list[heap->old_directory_count++] = dir->handle;
      heap->old_directories = list;
    }
    heap->directory = dir = fresh;
    s = dir->count++;
  }
  Table* t = make_table(heap);
  DirEntry& e = heap->directory->entries()[s];
  e.pool = pool;
  e.table = t;
  mark_dir_slot(heap, s, true);
  heap->pool_slot.put(heap, pool, s);
  *slot = s;
  return t;
}

// ---------------------------------------------------------------- sub-pools

static void count_subpool(ZBSTG_HEAP heap) {
  ++heap->subpools;
  if (heap->subpools > heap->peak_subpools) heap->peak_subpools = heap->subpools;
}

// Puts a sub-pool in the first empty entry of the table at `slot` (growing
// the table by 200 entries when full). Returns the entry index.
static uint32_t place_subpool(ZBSTG_HEAP heap, uint32_t slot, uint8_t* sp, HGLOBAL h,
                              uint32_t largest, const Mirror& mirror) {
  Table* t = table_at(heap, slot);
  uint32_t idx = t->capacity;
  uint32_t words = (t->capacity + 63) / 64;
  for (uint32_t w = 0; w < words; ++w) {
    uint64_t bits = ~t->occupied[w];
    if (bits) {
      uint32_t i = w * 64 + static_cast<uint32_t>(std::countr_zero(bits));
      if (i < t->capacity) idx = i;
      break;
    }
  }
  if (idx == t->capacity) {
    uint32_t old_cap = t->capacity;
    uint32_t cap = old_cap + kTableStep;
    // The table may move; its header (with the index pointers) moves with it.
    HGLOBAL th = t->handle;
    uint8_t* mem = realloc_locked(heap, &th, table_native_bytes(cap), GMEM_MOVEABLE | GMEM_ZEROINIT);
    t = reinterpret_cast<Table*>(mem);
    t->handle = th;
    t->capacity = cap;
    std::memset(static_cast<void*>(t->entries() + old_cap), 0, sizeof(TableEntry) * kTableStep);
    heap->directory->entries()[slot].table = t;
    index_table(heap, t, old_cap);
    idx = old_cap;
  }
  TableEntry& e = t->entries()[idx];
  e.subpool = sp;
  e.handle = h;
  e.mirror = mirror;
  e.count = ld16(sp + 6);
  set_largest(t, idx, largest);
  t->occupied[idx / 64] |= 1ull << (idx % 64);
  ++t->count;
  heap->subpool_home.put(heap, reinterpret_cast<uintptr_t>(sp),
                         (static_cast<uint64_t>(slot) << 32) | idx);
  return idx;
}

// Makes a new small sub-pool able to hold a block of b bytes; returns its
// table index.
static uint32_t new_small_subpool(ZBSTG_HEAP heap, uint32_t slot, uint32_t pool, uint32_t b) {
  uint8_t* sp;
  HGLOBAL h;
  uint32_t size;
  if (heap->spare && b < 4086) {
    sp = heap->spare;
    h = heap->spare_handle;
    heap->spare = nullptr;
    heap->spare_handle = nullptr;
    heap->subpool_size = kSmallSubpool;
    size = kSmallSubpool;
  } else {
    uint32_t live = heap->live_blocks;
    uint32_t choice = live >= 200000 ? 16384 : live >= 100000 ? 8192 : kSmallSubpool;
    heap->subpool_size = static_cast<uint16_t>(choice);
    size = (choice - 10 <= b) ? b + 10 : choice;
    h = GlobalAlloc(heap->alloc_flags, size);
    if (!h && size > kSmallSubpool && b < 4086) {
      size = kSmallSubpool;
      h = GlobalAlloc(heap->alloc_flags, size);
    }
    sp = obtain_locked(heap, &h, size, heap->alloc_flags);
  }
  count_subpool(heap);
  st32(sp, pool);
  st16(sp + 4, kSubpoolHeader);
  st16(sp + 6, 0);
  st16(sp + 8, size - 10);
  st16(sp + 10, 0);
  Mirror m;
  mirror_init(heap, &m, kSubpoolHeader, size - 10);
  return place_subpool(heap, slot, sp, h, size - 10, m);
}

// Releases the sub-pool of entry `idx` of the table at `slot` (keeping it as
// the spare when it is a 4 KB one and there is none yet).
static void release_subpool(ZBSTG_HEAP heap, uint32_t slot, uint32_t idx) {
  Table* t = table_at(heap, slot);
  TableEntry& e = t->entries()[idx];
  uint8_t* sp = e.subpool;
  HGLOBAL h = e.handle;
  heap->live_blocks -= ld16(sp + 6);
  if (--heap->subpools == 0) heap->live_blocks = 0;
  size_t gs = GlobalSize(h);
  if (!heap->spare && gs >= kSpareMin && gs <= kSpareMax) {
    heap->spare = sp;
    heap->spare_handle = h;
  } else {
    GlobalUnlock(h);
    GlobalFree(h);
  }
  heap->subpool_home.erase(reinterpret_cast<uintptr_t>(sp));
  mirror_free(&e.mirror);
  e.subpool = nullptr;
  e.handle = nullptr;
  set_largest(t, idx, 0);
  t->occupied[idx / 64] &= ~(1ull << (idx % 64));
  --t->count;
}

static inline void link(uint8_t* sp, uint32_t prev, uint32_t to) {
  st16(prev ? sp + prev + 2 : sp + 4, to);
}

// Carves a block of b bytes from the sub-pool of entry `idx`; null when no
// free block fits.
static void* carve_block(ZBSTG_HEAP heap, Table* t, uint32_t idx, uint32_t b) {
  TableEntry& te = t->entries()[idx];
  uint8_t* sp = te.subpool;
  Mirror& m = te.mirror;
  if (!m.off) return nullptr;
  uint32_t k = m.first_fit(b);
  if (k == m.n) return nullptr;
  uint32_t cur = m.off_at(k), size = m.size_at(k);
  uint32_t prev = k ? m.off_at(k - 1) : 0;
  uint32_t next = k + 1 < m.n ? m.off_at(k + 1) : 0;
  uint32_t rest = size - b;
  // Taking the block that set the largest-free value calls for the new
  // largest, worked out before the mirror changes.
  if (size >= t->largest_free(idx)) {
    uint32_t others = m.largest_except(k);
    set_largest(t, idx, rest >= 4 && rest > others ? rest : others);
  }
  if (rest >= 4) {
    uint32_t nf = cur + b;
    st16(sp + nf, rest);
    st16(sp + nf + 2, next);
    link(sp, prev, nf);
    m.set(k, nf, rest);
  } else {
    link(sp, prev, next);  // the 1-3 trailing bytes stay lost until release
    m.remove(k);
  }
  st16(sp + cur, b);
  st16(sp + cur + 2, cur);
  st16(sp + 6, ++te.count);
  ++heap->live_blocks;
  return sp + cur + 4;
}

static void* alloc_large(ZBSTG_HEAP heap, uint32_t slot, uint32_t pool, uint32_t n) {
  size_t bytes = static_cast<size_t>(n) + kLargeHeader;
  HGLOBAL h = GlobalAlloc(heap->alloc_flags, bytes);
  uint8_t* sp = obtain_locked(heap, &h, bytes, heap->alloc_flags);
  count_subpool(heap);
  st32(sp, pool);
  st16(sp + 4, 0);
  st16(sp + 6, 1);
  st32(sp + 8, n);
  st16(sp + 12, kLargeMark);
  st16(sp + 14, 12);
  place_subpool(heap, slot, sp, h, 0, Mirror{});
  ++heap->live_blocks;
  return sp + kLargeHeader;
}

static void* alloc_in(ZBSTG_HEAP heap, uint32_t n, uint32_t pool) {
  uint32_t slot;
  Table* t;
  if (heap->cached_valid && heap->cached_pool == pool) {
    slot = heap->cached_slot;
    t = table_at(heap, slot);
  } else {
    t = find_table(heap, pool, true, &slot);
  }
  if (n > kMaxSmallRequest) return alloc_large(heap, slot, pool, n);
  uint32_t b = ((n + 3) & ~3u) + 4;
  int32_t idx = -1;
  if (static_cast<int32_t>(b) < static_cast<int32_t>(heap->subpool_size) - 10) {
    int32_t last = t->last_used;
    if (last >= 0 && static_cast<uint32_t>(last) < t->capacity &&
        t->largest_free(static_cast<uint32_t>(last)) >= b)
      idx = last;
    else
      idx = first_fit(t, b);
  }
  if (idx < 0) {
    idx = static_cast<int32_t>(new_small_subpool(heap, slot, pool, b));
    t = table_at(heap, slot);
  }
  t->last_used = idx;
  return carve_block(heap, t, static_cast<uint32_t>(idx), b);
}

// Frees a block whose sub-pool is entry `idx` of the table at `slot`.
static void free_in(ZBSTG_HEAP heap, uint32_t slot, uint32_t idx, uint8_t* sp, uint8_t* hdr) {
  Table* t = table_at(heap, slot);
  TableEntry& te = t->entries()[idx];
  uint32_t off = static_cast<uint32_t>(hdr - sp);
  uint32_t bsz = ld16(hdr);
  uint32_t count = te.count;
  if (count == 0) return;
  if (!te.mirror.off) {
    // A large block: its sub-pool holds nothing else.
    if (off != 12) return;
    st16(hdr + 2, 0);
    st16(sp + 4, off);
    st16(sp + 6, 0);
    te.count = 0;
    --heap->live_blocks;
    release_subpool(heap, slot, idx);
    return;
  }
  Mirror& m = te.mirror;
  uint32_t k = m.lower_bound(off);
  uint32_t prev = 0, prev_size = 0, cur = 0, cur_size = 0;
  if (k) {
    prev = m.off_at(k - 1);
    prev_size = m.size_at(k - 1);
  }
  if (k < m.n) {
    cur = m.off_at(k);
    cur_size = m.size_at(k);
  }
  // Already free: on the list, or inside the free block before it.
  if (cur == off || (k && prev + prev_size > off)) return;
  st16(sp + 6, count - 1);
  te.count = count - 1;
  --heap->live_blocks;
  if (count - 1 == 0) {
    st16(hdr + 2, cur);
    link(sp, prev, off);
    release_subpool(heap, slot, idx);
    return;
  }
  // The block goes into the list between prev and cur (its link word takes
  // cur), then merges with prev when prev ends where it starts and with cur
  // when it ends where cur starts. Only the final value of each word is
  // stored; a merged block keeps the stale words of the blocks it absorbed.
  bool with_prev = k && prev + prev_size == off;
  bool with_next = cur && off + bsz == cur;
  uint32_t size = bsz;
  if (with_prev) {
    size += prev_size;
    if (with_next) {
      size += cur_size;
      uint32_t after = k + 1 < m.n ? m.off_at(k + 1) : 0;
      st16(hdr + 2, cur);
      st16(sp + prev, size);
      st16(sp + prev + 2, after);
      m.remove(k);
    } else {
      st16(hdr + 2, cur);
      st16(sp + prev, size);
      st16(sp + prev + 2, cur);
    }
    m.set(k - 1, prev, size);
  } else if (with_next) {
    size += cur_size;
    uint32_t after = k + 1 < m.n ? m.off_at(k + 1) : 0;
    link(sp, prev, off);
    st16(hdr, size);
    st16(hdr + 2, after);
    m.set(k, off, size);
  } else {
    st16(hdr + 2, cur);
    link(sp, prev, off);
    mirror_insert(heap, &m, k, off, bsz);
  }
  if (size > t->largest_free(idx)) set_largest(t, idx, size);
}

}  // namespace zbshr::mem

using namespace zbshr::mem;

// ---------------------------------------------------------------- exported

ZBSHR_API(ZBSTG_HEAP) zbstg_begin_allocflags(uint16_t subpool_size, uint32_t alloc_flags) {
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE, sizeof(zbstg_heap_s));
  uint8_t* mem = obtain_locked(nullptr, &h, sizeof(zbstg_heap_s), GMEM_MOVEABLE);
  std::memset(mem, 0, sizeof(zbstg_heap_s));
  auto* heap = new (mem) zbstg_heap_s{};
  heap->directory = &heap->inline_directory;
  heap->sos = 0;
  heap->default_pool = 1;
  heap->next_pool = 2;
  heap->subpool_size = static_cast<uint16_t>(subpool_size ? subpool_size : kDefaultSubpoolSize);
  heap->own_handle = h;
  heap->alloc_flags = alloc_flags;
  heap->inline_directory.handle = nullptr;
  heap->inline_directory.capacity = kInitialDirectory;
  heap->inline_directory.count = 0;
  return heap;
}

ZBSHR_API(ZBSTG_HEAP) zbstg_begin(uint16_t subpool_size) {
  return zbstg_begin_allocflags(subpool_size, GMEM_MOVEABLE);
}

ZBSHR_API(void) zbstg_end(ZBSTG_HEAP heap) {
  if (!heap) return;
  Directory* dir = heap->directory;
  for (uint32_t s = 0; s < dir->count; ++s) {
    Table* t = dir->entries()[s].table;
    if (!t) continue;
    for (uint32_t i = 0; i < t->capacity; ++i) {
      TableEntry& e = t->entries()[i];
      if (!e.subpool) continue;
      mirror_free(&e.mirror);
      GlobalUnlock(e.handle);
      GlobalFree(e.handle);
    }
    free_table(t);
  }
  if (heap->spare) {
    GlobalUnlock(heap->spare_handle);
    GlobalFree(heap->spare_handle);
  }
  if (dir->handle) {
    GlobalUnlock(dir->handle);
    GlobalFree(dir->handle);
  }
  for (uint32_t i = 0; i < heap->old_directory_count; ++i) {
    GlobalUnlock(heap->old_directories[i]);
    GlobalFree(heap->old_directories[i]);
  }
  std::free(heap->old_directories);
  std::free(heap->dir_occupied);
  heap->pool_slot.release();
  heap->subpool_home.release();
  HGLOBAL own = heap->own_handle;
  GlobalUnlock(own);
  GlobalFree(own);
}

ZBSHR_API(uint32_t) zbstg_new_pool(ZBSTG_HEAP heap) {
  if (!heap) return 0;
  return heap->next_pool++;
}

ZBSHR_API(ZBSTG_HEAP) zbstg_set_next_pool(ZBSTG_HEAP heap, uint32_t next_pool) {
  if (heap) heap->next_pool = next_pool;
  return heap;
}

ZBSHR_API(uint32_t) zbstg_default_pool(ZBSTG_HEAP heap, uint32_t pool) {
  if (!heap) return 0;
  uint32_t previous = heap->default_pool;
  heap->default_pool = pool;
  return previous;
}

ZBSHR_API(void) zbstg_free_pool(ZBSTG_HEAP heap, uint32_t pool) {
  if (!heap) return;
  if (pool == 0) pool = heap->default_pool;
  uint32_t slot;
  Table* t = find_table(heap, pool, false, &slot);
  if (!t) return;
  for (uint32_t i = 0; i < t->capacity; ++i) {
    if (t->entries()[i].subpool) release_subpool(heap, slot, i);
  }
  free_table(t);
  DirEntry& e = heap->directory->entries()[slot];
  e.pool = 0;
  e.table = nullptr;
  mark_dir_slot(heap, slot, false);
  heap->pool_slot.erase(pool);
  heap->cached_valid = false;
}

ZBSHR_API(void *) zbstg_alloc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool) {
  if (!heap) return nullptr;
  if (heap->next_pool <= pool) heap->next_pool = pool + 1;
  if (pool == 0) pool = heap->default_pool;
  return alloc_in(heap, size, pool);
}

ZBSHR_API(void) zbstg_free(ZBSTG_HEAP heap, void *block) {
  if (!block || !heap) return;
  uint8_t* hdr = static_cast<uint8_t*>(block) - 4;
  uint8_t* sp = subpool_of(block);
  uint32_t slot, idx;
  // (Blocks never lie at offset 32,768 or more: a sub-pool larger than 16 KB
  // only ever holds the one block it was made for, at offset 8.)
  if (!locate_subpool(heap, sp, &slot, &idx)) return;
  free_in(heap, slot, idx, sp, hdr);
}

ZBSHR_API(uint32_t) zbstg_size(ZBSTG_HEAP /*heap*/, const void *block) {
  if (!block) return 0;
  const uint8_t* hdr = static_cast<const uint8_t*>(block) - 4;
  uint16_t bsz = ld16(hdr);
  if (bsz == kLargeMark) return ld32(hdr - 4);
  return bsz - 4u;
}

ZBSHR_API(uint32_t) zbstg_get_pointer_subpool(ZBSTG_HEAP heap, const void *block) {
  if (!heap || !block) return 0;
  uint8_t* sp = subpool_of(block);
  uint32_t slot, idx;
  if (!locate_subpool(heap, sp, &slot, &idx)) return 0;
  return ld32(sp);
}

ZBSHR_API(void *) zbstg_realloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool) {
  if (!heap) return nullptr;
  uint32_t target = pool ? pool : heap->default_pool;
  if (!block) return zbstg_alloc(heap, size, target);

  uint8_t* hdr = static_cast<uint8_t*>(block) - 4;
  uint32_t bsz = ld16(hdr);
  bool large_block = bsz == kLargeMark;
  uint32_t n = size;
  if (!large_block) {
    if (n > 0xFFFFFFFCu) return nullptr;  // cannot be rounded to a 32-bit size
    n = (n + 3) & ~3u;
  }
  uint8_t* sp = subpool_of(block, true);  // the string flag is not cleared here
  uint32_t slot, idx;
  if (!locate_subpool(heap, sp, &slot, &idx)) return nullptr;
  bool same_pool = ld32(sp) == target;
  bool large_req = n > kMaxSmallRequest;
  uint32_t count = ld16(sp + 6);
  bool sole = !large_req && count == 1 && ld16(sp + 4) == 0;
  bool shared = !large_req && !sole;
  int32_t heap_size = heap->subpool_size;

  if (large_block && large_req && same_pool) {
    Table* t = table_at(heap, slot);
    HGLOBAL h = t->entries()[idx].handle;
    uint8_t* moved = realloc_locked(heap, &h, static_cast<size_t>(n) + kLargeHeader,
                                    heap->alloc_flags);
    t = table_at(heap, slot);
    heap->subpool_home.erase(reinterpret_cast<uintptr_t>(sp));
    t->entries()[idx].subpool = moved;
    t->entries()[idx].handle = h;
    set_largest(t, idx, 0);
    heap->subpool_home.put(heap, reinterpret_cast<uintptr_t>(moved),
                           (static_cast<uint64_t>(slot) << 32) | idx);
    st32(moved + 8, n);
    return moved + kLargeHeader;
  }

  uint32_t off = static_cast<uint32_t>(hdr - sp);
  if (sole && !large_block && same_pool && static_cast<int32_t>(bsz) > heap_size - 8) {
    Table* t = table_at(heap, slot);
    HGLOBAL h = t->entries()[idx].handle;
    uint8_t* moved = realloc_locked(heap, &h, static_cast<size_t>(off) + n + 4, heap->alloc_flags);
    t = table_at(heap, slot);
    heap->subpool_home.erase(reinterpret_cast<uintptr_t>(sp));
    t->entries()[idx].subpool = moved;
    t->entries()[idx].handle = h;
    heap->subpool_home.put(heap, reinterpret_cast<uintptr_t>(moved),
                           (static_cast<uint64_t>(slot) << 32) | idx);
    st16(moved + off, n + 4);
    return moved + off + 4;
  }

  if (shared && same_pool && !large_block && static_cast<int32_t>(bsz) < heap_size + 4) {
    uint32_t need = n + 4;
    if (need == bsz) return block;
    TableEntry& te = table_at(heap, slot)->entries()[idx];
    Mirror& m = te.mirror;
    uint32_t k = m.lower_bound(off);
    uint32_t prev = k ? m.off_at(k - 1) : 0;
    uint32_t nxt = k < m.n ? m.off_at(k) : 0;
    uint32_t fsz = k < m.n ? m.size_at(k) : 0;
    bool touching = nxt != 0 && nxt == off + bsz;
    if (need < bsz) {
      uint32_t tail = bsz - need, tail_off = off + need;
      if (touching) {
        uint32_t merged = tail + fsz;
        uint32_t after = ld16(sp + nxt + 2);
        st16(sp + tail_off, merged);
        st16(sp + tail_off + 2, after);
        link(sp, prev, tail_off);
        st16(hdr, need);
        m.set(k, tail_off, merged);
      } else if (tail > 4) {
        st16(sp + tail_off, tail);
        st16(sp + tail_off + 2, nxt);
        link(sp, prev, tail_off);
        st16(hdr, need);
        mirror_insert(heap, &m, k, tail_off, tail);
      }
      return block;
    }
    if (touching && bsz + fsz >= need) {
      uint32_t after = ld16(sp + nxt + 2);
      uint32_t rest = bsz + fsz - need;
      if (rest >= 4) {
        uint32_t nf = off + need;
        st16(sp + nf, rest);
        st16(sp + nf + 2, after);
        link(sp, prev, nf);
        st16(hdr, need);
        m.set(k, nf, rest);
      } else {
        link(sp, prev, after);
        st16(hdr, bsz + fsz);
        m.remove(k);
      }
      return block;
    }
  }

  // Move: a new block in the target pool, the contents copied, the old freed.
  void* fresh = zbstg_alloc(heap, n, target);
  if (!fresh) return nullptr;
  uint32_t old_usable = zbstg_size(heap, block);
  std::memcpy(fresh, block, std::min(old_usable, n));
  zbstg_free(heap, block);
  return fresh;
}
