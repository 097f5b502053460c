// Internal records of the heap manager (see heap.cpp for the layout notes).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

#include "platform/platform.h"
#include "zbshr/memory.h"

namespace zbshr::mem {

using plat::HGLOBAL;

// ---------------------------------------------------------------- byte access
// Sub-pools are raw bytes with little-endian words and longs; blocks are only
// 4-byte aligned, so fields are copied byte-wise (one unaligned move on a
// little-endian host, explicit bytes elsewhere).
inline uint16_t ld16(const uint8_t* p) {
  if constexpr (std::endian::native == std::endian::little) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
  } else {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
  }
}
inline void st16(uint8_t* p, uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) {
    uint16_t x = static_cast<uint16_t>(v);
    std::memcpy(p, &x, 2);
  } else {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
  }
}
inline uint32_t ld32(const uint8_t* p) {
  if constexpr (std::endian::native == std::endian::little) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
  } else {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
  }
}
inline void st32(uint8_t* p, uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(p, &v, 4);
  } else {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
  }
}

// ---------------------------------------------------------------- lanes
// Searches over runs of 16 unsigned 16-bit values, with SSE2 where the
// compiler targets it and plain loops elsewhere. Both forms are kept callable
// so that they can be checked against each other.
constexpr uint32_t kLanes = 16;

namespace lanes_plain {
// Bit i set when p[i] >= v.
inline uint32_t at_least(const uint16_t* p, uint16_t v) {
  uint32_t m = 0;
  for (uint32_t i = 0; i < kLanes; ++i) m |= static_cast<uint32_t>(p[i] >= v) << i;
  return m;
}
inline uint16_t max(const uint16_t* p) {
  uint16_t m = 0;
  for (uint32_t i = 0; i < kLanes; ++i) m = p[i] > m ? p[i] : m;
  return m;
}
// Maximum of the lanes other than `skip` (< 16).
inline uint16_t max_except(const uint16_t* p, uint32_t skip) {
  uint16_t m = 0;
  for (uint32_t i = 0; i < kLanes; ++i) m = i != skip && p[i] > m ? p[i] : m;
  return m;
}
// In an array of `cap` words (a multiple of 16) whose words after n - 1 are
// all one padding value, moves words k..n-1 to k+1..n (n < cap); word k
// keeps its value and the words after n stay padding.
inline void shift_up(uint16_t* a, uint32_t k, uint32_t n, uint32_t /*cap*/) {
  std::memmove(a + k + 1, a + k, sizeof(uint16_t) * (n - k));
}
// In an array of `cap` words whose words after `last` are all one padding
// value, moves words k+1..last to k..last-1 (k <= last < cap); word `last`
// is left for the caller to set, the words after it stay padding.
inline void shift_down(uint16_t* a, uint32_t k, uint32_t last, uint32_t /*cap*/) {
  std::memmove(a + k, a + k + 1, sizeof(uint16_t) * (last - k));
}
}  // namespace lanes_plain

#if defined(__SSE2__) || defined(_M_X64)
namespace lanes_sse2 {
inline uint32_t at_least(const uint16_t* p, uint16_t v) {
  // x >= v exactly when the saturating difference v - x is zero.
  const __m128i vv = _mm_set1_epi16(static_cast<short>(v));
  const __m128i zero = _mm_setzero_si128();
  __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8));
  a = _mm_cmpeq_epi16(_mm_subs_epu16(vv, a), zero);
  b = _mm_cmpeq_epi16(_mm_subs_epu16(vv, b), zero);
  return static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(a, b)));
}
// Unsigned maximum of each lane pair: a + (b -sat a).
inline __m128i max_u16(__m128i a, __m128i b) { return _mm_add_epi16(a, _mm_subs_epu16(b, a)); }
inline uint16_t max_of(__m128i m) {
  m = max_u16(m, _mm_srli_si128(m, 8));
  m = max_u16(m, _mm_srli_si128(m, 4));
  m = max_u16(m, _mm_srli_si128(m, 2));
  return static_cast<uint16_t>(_mm_cvtsi128_si32(m));
}
inline uint16_t max(const uint16_t* p) {
  return max_of(max_u16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8))));
}
inline uint16_t max_except(const uint16_t* p, uint32_t skip) {
  const __m128i s = _mm_set1_epi16(static_cast<short>(skip));
  const __m128i lane_lo = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
  const __m128i lane_hi = _mm_setr_epi16(8, 9, 10, 11, 12, 13, 14, 15);
  __m128i lo = _mm_andnot_si128(_mm_cmpeq_epi16(lane_lo, s),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  __m128i hi = _mm_andnot_si128(_mm_cmpeq_epi16(lane_hi, s),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)));
  return max_of(max_u16(lo, hi));
}
// The shifts work on whole aligned runs of 16 words, so that they take the
// same few steps whatever k is; lanes are chosen with a comparison against
// the lane number.
inline __m128i blend(__m128i mask, __m128i yes, __m128i no) {
  return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}
inline void shift_up(uint16_t* a, uint32_t k, uint32_t n, uint32_t /*cap*/) {
  uint32_t r = k & ~(kLanes - 1);
  auto* p = reinterpret_cast<__m128i*>(a + r);
  __m128i lo = _mm_loadu_si128(p), hi = _mm_loadu_si128(p + 1);
  __m128i carry = _mm_srli_si128(hi, 14);
  const __m128i kk = _mm_set1_epi16(static_cast<short>(k - r));
  const __m128i lane_lo = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
  const __m128i lane_hi = _mm_setr_epi16(8, 9, 10, 11, 12, 13, 14, 15);
  __m128i up_lo = _mm_slli_si128(lo, 2);
  __m128i up_hi = _mm_or_si128(_mm_slli_si128(hi, 2), _mm_srli_si128(lo, 14));
  _mm_storeu_si128(p, blend(_mm_cmpgt_epi16(lane_lo, kk), up_lo, lo));
  _mm_storeu_si128(p + 1, blend(_mm_cmpgt_epi16(lane_hi, kk), up_hi, hi));
  for (r += kLanes; r <= n; r += kLanes) {
    p += 2;
    lo = _mm_loadu_si128(p);
    hi = _mm_loadu_si128(p + 1);
    _mm_storeu_si128(p, _mm_or_si128(_mm_slli_si128(lo, 2), carry));
    carry = _mm_srli_si128(hi, 14);
    _mm_storeu_si128(p + 1, _mm_or_si128(_mm_slli_si128(hi, 2), _mm_srli_si128(lo, 14)));
  }
}
inline void shift_down(uint16_t* a, uint32_t k, uint32_t last, uint32_t cap) {
  uint32_t r = k & ~(kLanes - 1);
  auto* p = reinterpret_cast<__m128i*>(a + r);
  __m128i lo = _mm_loadu_si128(p), hi = _mm_loadu_si128(p + 1);
  __m128i kk = _mm_set1_epi16(static_cast<short>(k - r - 1));
  const __m128i lane_lo = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
  const __m128i lane_hi = _mm_setr_epi16(8, 9, 10, 11, 12, 13, 14, 15);
  for (;;) {
    // Word 0 of the next run comes into lane 15; in the array's last run,
    // lane 15 keeps its own word.
    __m128i next_lo = r + kLanes < cap ? _mm_loadu_si128(p + 2) : _mm_srli_si128(hi, 14);
    __m128i down_lo = _mm_or_si128(_mm_srli_si128(lo, 2), _mm_slli_si128(hi, 14));
    __m128i down_hi = _mm_or_si128(_mm_srli_si128(hi, 2), _mm_slli_si128(next_lo, 14));
    _mm_storeu_si128(p, blend(_mm_cmpgt_epi16(lane_lo, kk), down_lo, lo));
    _mm_storeu_si128(p + 1, blend(_mm_cmpgt_epi16(lane_hi, kk), down_hi, hi));
    r += kLanes;
    if (r > last) break;
    p += 2;
    lo = next_lo;
    hi = _mm_loadu_si128(p + 1);
    kk = _mm_set1_epi16(-1);
  }
}
}  // namespace lanes_sse2
namespace lanes = lanes_sse2;
#else
namespace lanes = lanes_plain;
#endif

// ---------------------------------------------------------------- geometry
constexpr uint32_t kMaxSmallRequest = 63996;  // larger requests get a sub-pool of their own
constexpr uint16_t kLargeMark = 64001;        // size word of a large block
constexpr uint32_t kLargeHeader = 16;         // large block: payload offset in its sub-pool
constexpr uint32_t kSubpoolHeader = 8;        // owner pool, first free, block count
constexpr uint32_t kDefaultSubpoolSize = 4088;
constexpr uint32_t kSmallSubpool = 4096;
constexpr uint32_t kSpareMin = 4096, kSpareMax = 4196;
constexpr uint32_t kTableStep = 200;     // sub-pool table entries added at each growth
constexpr uint32_t kDirectoryStep = 100; // directory entries added at each growth
constexpr uint16_t kStringFlag = 0x8000;

// Sizes the heap records have in their 32-bit form; statistics report these.
constexpr uint32_t table_bytes32(uint32_t capacity) { return 24 + 12 * capacity; }
constexpr uint32_t directory_bytes32(uint32_t capacity) { return 16 + 8 * capacity; }

// ---------------------------------------------------------------- side maps
// Open-addressing map from a 64-bit key to a 64-bit value (linear probing,
// deletion by backward shift). Keys must not be ~0.
struct U64Map {
  struct Slot {
    uint64_t key;
    uint64_t value;
  };
  Slot* slots = nullptr;
  uint32_t mask = 0;   // capacity - 1 (capacity a power of two), 0 when empty
  uint32_t shift = 0;  // 64 - log2(capacity)
  uint32_t size = 0;

  static constexpr uint64_t kEmpty = ~0ull;

  uint32_t home_slot(uint64_t key) const {
    return static_cast<uint32_t>((key * 0x9E3779B97F4A7C15ull) >> shift);
  }
  bool find(uint64_t key, uint64_t* value) const {
    if (!slots) return false;
    for (uint32_t i = home_slot(key);; i = (i + 1) & mask) {
      const Slot& s = slots[i];
      if (s.key == key) {
        *value = s.value;
        return true;
      }
      if (s.key == kEmpty) return false;
    }
  }
  void put(ZBSTG_HEAP heap, uint64_t key, uint64_t value);
  void erase(uint64_t key);
  void release();
};

// ---------------------------------------------------------------- free-list mirror
// A compact copy of a small sub-pool's free list, kept beside it: the offsets
// of the free blocks in ascending order, then their sizes, in one block of
// 2 x `cap` words (`cap` a multiple of 16). Entries from `n` to `cap` are
// padding: offset 0xFFFF and size 0, so that whole runs of 16 can be searched
// without a bound check. Searches run over these arrays instead of following
// the links through the sub-pool; every change is made to both.
struct Mirror {
  static constexpr uint32_t kShort = 4;
  uint16_t* off = nullptr;  // null for a large block's sub-pool
  uint32_t n = 0;
  uint32_t cap = 0;

  uint16_t* sizes() const { return off + cap; }
  uint32_t off_at(uint32_t i) const { return off[i]; }
  uint32_t size_at(uint32_t i) const { return off[cap + i]; }
  void set(uint32_t i, uint32_t o, uint32_t size) {
    off[i] = static_cast<uint16_t>(o);
    off[cap + i] = static_cast<uint16_t>(size);
  }

  // Index of the first entry whose offset is not below `o` (n when none).
  // Short lists are searched one entry at a time: a vector load right after
  // a 16-bit store to the same words would wait for the store to complete.
  uint32_t lower_bound(uint32_t o) const {
    if (n <= kShort) {
      uint32_t i = 0;
      while (i < n && off[i] < o) ++i;
      return i;
    }
    for (uint32_t base = 0; base < n; base += kLanes) {
      uint32_t m = lanes::at_least(off + base, static_cast<uint16_t>(o));
      if (m) return base + static_cast<uint32_t>(std::countr_zero(m));
    }
    return n;
  }
  // Index of the first entry of at least `b` bytes (b > 0), or n.
  uint32_t first_fit(uint32_t b) const {
    const uint16_t* sz = sizes();
    if (n <= kShort) {
      uint32_t i = 0;
      while (i < n && sz[i] < b) ++i;
      return i;
    }
    for (uint32_t base = 0; base < n; base += kLanes) {
      uint32_t m = lanes::at_least(sz + base, static_cast<uint16_t>(b));
      if (m) return base + static_cast<uint32_t>(std::countr_zero(m));
    }
    return n;
  }
  uint32_t largest_free() const {
    const uint16_t* sz = sizes();
    uint32_t m = 0;
    if (n <= kShort) {
      for (uint32_t i = 0; i < n; ++i) m = sz[i] > m ? sz[i] : m;
      return m;
    }
    for (uint32_t base = 0; base < n; base += kLanes) {
      uint32_t l = lanes::max(sz + base);
      m = l > m ? l : m;
    }
    return m;
  }
  // Largest size among the entries other than k.
  uint32_t largest_except(uint32_t k) const {
    const uint16_t* sz = sizes();
    uint32_t m = 0;
    if (n <= kShort) {
      for (uint32_t i = 0; i < n; ++i) m = i != k && sz[i] > m ? sz[i] : m;
      return m;
    }
    for (uint32_t base = 0; base < n; base += kLanes) {
      uint32_t l = k - base < kLanes ? lanes::max_except(sz + base, k - base) : lanes::max(sz + base);
      m = l > m ? l : m;
    }
    return m;
  }
  void remove(uint32_t i) {
    lanes::shift_down(off, i, n - 1, cap);
    lanes::shift_down(sizes(), i, n - 1, cap);
    --n;
    off[n] = 0xFFFF;
    off[cap + n] = 0;
  }
  // Inserts at index i; the arrays must have room (n < cap).
  void insert_room(uint32_t i, uint32_t o, uint32_t size) {
    lanes::shift_up(off, i, n, cap);
    lanes::shift_up(sizes(), i, n, cap);
    set(i, o, size);
    ++n;
  }
};

// Makes `*m` a mirror holding one free block; frees a mirror.
void mirror_init(ZBSTG_HEAP heap, Mirror* m, uint32_t off, uint32_t size);
void mirror_free(Mirror* m);
// Doubles the capacity of a full mirror.
void mirror_grow(ZBSTG_HEAP heap, Mirror* m);
// Inserts a free block at index i (growing the arrays when full).
inline void mirror_insert(ZBSTG_HEAP heap, Mirror* m, uint32_t i, uint32_t off, uint32_t size) {
  if (m->n == m->cap) mirror_grow(heap, m);
  m->insert_room(i, off, size);
}

// ---------------------------------------------------------------- heap records
// A sub-pool table: header, then `capacity` entries. The largest-free values
// live beside the table in three levels of 16-bit words: each entry's value,
// an upper bound of each run of 16 entries and of each run of 256, so that the
// first entry whose largest free block fits is found by searches of 16 values
// at a time; a bitmap of occupied entries finds the first empty entry.
struct TableEntry {
  uint8_t* subpool;  // null for an empty entry
  HGLOBAL handle;
  Mirror mirror;     // free-list mirror of a small sub-pool (off null otherwise)
  uint32_t count;    // copy of the sub-pool's block count (read here, written to both)
};

struct Table {
  HGLOBAL handle;      // this table's own global block
  uint32_t count;      // sub-pools in use
  uint32_t capacity;   // entries
  int32_t last_used;   // -1 until a small block was placed
  uint32_t top_words;  // words in `top` (a multiple of 16)
  uint16_t* largest;   // largest-free value of each entry (padded with zeros)
  uint16_t* max16;     // at least the largest value of each run of 16 entries
  uint16_t* top;       // at least the largest value of each run of 256 entries
  uint64_t* occupied;  // bit i set when entry i holds a sub-pool
  TableEntry* entries() { return reinterpret_cast<TableEntry*>(this + 1); }

  uint32_t largest_free(uint32_t i) const { return largest[i]; }
};

struct DirEntry {
  uint32_t pool;
  Table* table;  // null for a free entry
};

struct Directory {
  HGLOBAL handle;  // null while the directory lives inside the heap record
  uint32_t capacity;
  uint32_t count;  // entries ever used (a high-water mark)
  DirEntry* entries() { return reinterpret_cast<DirEntry*>(this + 1); }
};

constexpr uint32_t kInitialDirectory = 100;

}  // namespace zbshr::mem

struct zbstg_heap_s {
  zbshr::mem::Directory* directory;
  uint32_t sos;
  uint32_t default_pool;
  uint32_t next_pool;
  uint32_t live_blocks;
  uint32_t peak_subpools;
  uint32_t subpools;
  uint16_t subpool_size;
  zbshr::mem::HGLOBAL own_handle;
  uint32_t alloc_flags;
  uint8_t* spare;
  zbshr::mem::HGLOBAL spare_handle;

  // Indexes kept beside the records.
  zbshr::mem::U64Map pool_slot;     // pool number -> directory entry index
  zbshr::mem::U64Map subpool_home;  // sub-pool address -> (entry index << 32) | table index
  uint64_t* dir_occupied;           // bit i set when directory entry i holds a table
  uint32_t dir_occupied_words;
  zbshr::mem::HGLOBAL* old_directories;  // replaced directory blocks, freed by zbstg_end
  uint32_t old_directory_count;
  uint32_t cached_pool;   // the pool last looked up, valid when cached_valid
  uint32_t cached_slot;
  bool cached_valid;

  zbshr::mem::Directory inline_directory;
  zbshr::mem::DirEntry inline_entries[zbshr::mem::kInitialDirectory];
};

namespace zbshr::mem {

// Locks `*handle` (the result of a GlobalAlloc, null when it failed); when no
// memory was obtained, runs the out-of-memory dialog: Retry allocates again
// (`bytes` with `flags`, if there is still no handle) and locks, Cancel ends
// `heap` (if any) and the process. Returns the locked address.
uint8_t* obtain_locked(ZBSTG_HEAP heap, HGLOBAL* handle, size_t bytes, uint32_t flags);
// Resizes locked memory taken with obtain_locked, through the same dialog.
uint8_t* realloc_locked(ZBSTG_HEAP heap, HGLOBAL* handle, size_t bytes, uint32_t flags);
// calloc that runs the same dialog on failure.
void* side_alloc(ZBSTG_HEAP heap, size_t bytes);
// Uninitialised memory aligned to a cache line, with the same dialog; freed
// with side_free_line.
void* side_alloc_line(ZBSTG_HEAP heap, size_t bytes);
void side_free_line(void* p);

// The table of directory entry `slot`.
inline Table* table_at(ZBSTG_HEAP heap, uint32_t slot) {
  return heap->directory->entries()[slot].table;
}

// Finds the sub-pool that starts at `start`; false when it is not one of the
// heap's sub-pools.
inline bool locate_subpool(ZBSTG_HEAP heap, const uint8_t* start, uint32_t* slot,
                           uint32_t* index) {
  uint64_t v;
  if (!heap->subpool_home.find(reinterpret_cast<uintptr_t>(start), &v)) return false;
  *slot = static_cast<uint32_t>(v >> 32);
  *index = static_cast<uint32_t>(v);
  return true;
}

// Sub-pool address from a block's header, the string flag cleared.
inline uint8_t* subpool_of(const void* block, bool keep_flag = false) {
  auto hdr = reinterpret_cast<uintptr_t>(block) - 4;
  uint16_t off = ld16(reinterpret_cast<const uint8_t*>(hdr) + 2);
  if (!keep_flag) off &= 0x7FFF;
  return reinterpret_cast<uint8_t*>(hdr - off);
}

}  // namespace zbshr::mem
