// Internal records of the heap manager (see heap.cpp for the layout notes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"

namespace zbshr::mem {

using plat::HGLOBAL;

// ---------------------------------------------------------------- byte access
// Sub-pools are raw bytes with little-endian words and longs; blocks are only
// 4-byte aligned, so every field is read and written byte by byte.
inline uint16_t Ld16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline void St16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline uint32_t Ld32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline void St32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

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
constexpr uint32_t TableBytes32(uint32_t capacity) { return 24 + 12 * capacity; }
constexpr uint32_t DirectoryBytes32(uint32_t capacity) { return 16 + 8 * capacity; }

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

  uint32_t Home(uint64_t key) const {
    return static_cast<uint32_t>((key * 0x9E3779B97F4A7C15ull) >> shift);
  }
  bool Find(uint64_t key, uint64_t* value) const {
    if (!slots) return false;
    for (uint32_t i = Home(key);; i = (i + 1) & mask) {
      const Slot& s = slots[i];
      if (s.key == key) {
        *value = s.value;
        return true;
      }
      if (s.key == kEmpty) return false;
    }
  }
  void Put(ZBSTG_HEAP heap, uint64_t key, uint64_t value);
  void Erase(uint64_t key);
  void Release();
};

// ---------------------------------------------------------------- free-list mirror
// A compact copy of a small sub-pool's free list, kept beside it: entries
// (offset << 16 | size) in ascending offset order, so ascending as numbers.
// Searches run over this contiguous array instead of following the links
// through the sub-pool; every change is made to both.
struct Mirror {
  uint32_t n;
  uint32_t cap;
  uint32_t e[1];  // `cap` entries

  static uint32_t Off(uint32_t v) { return v >> 16; }
  static uint32_t Size(uint32_t v) { return v & 0xFFFF; }
  static uint32_t Pack(uint32_t off, uint32_t size) { return (off << 16) | size; }

  // Index of the first entry whose offset is not below `off`.
  uint32_t LowerBound(uint32_t off) const {
    uint32_t key = off << 16, lo = 0, hi = n;
    if (n <= 32) {
      // Short lists: count the smaller entries without branching.
      uint32_t c = 0;
      for (uint32_t i = 0; i < n; ++i) c += e[i] < key;
      return c;
    }
    while (hi - lo > 8) {
      uint32_t mid = (lo + hi) / 2;
      if (e[mid] < key) lo = mid + 1; else hi = mid;
    }
    while (lo < hi && e[lo] < key) ++lo;
    return lo;
  }
  // Index of the first entry of at least `b` bytes, or n.
  uint32_t FirstFit(uint32_t b) const {
    uint32_t i = 0;
    while (i < n && Size(e[i]) < b) ++i;
    return i;
  }
  uint32_t Largest() const {
    uint32_t m = 0;
    for (uint32_t i = 0; i < n; ++i) m = Size(e[i]) > m ? Size(e[i]) : m;
    return m;
  }
  void Remove(uint32_t i) {
    for (uint32_t j = i + 1; j < n; ++j) e[j - 1] = e[j];
    --n;
  }
};

// Makes a mirror holding one free block; Insert may reallocate it.
Mirror* NewMirror(ZBSTG_HEAP heap, uint32_t off, uint32_t size);
void MirrorInsert(ZBSTG_HEAP heap, Mirror** m, uint32_t i, uint32_t value);

// ---------------------------------------------------------------- heap records
// A sub-pool table: header, then `capacity` entries. The largest-free values
// live in an array beside the table with upper bounds for each group of 16
// entries and each group of 256, so that the first entry whose largest free
// block fits is found by skipping whole groups; a bitmap of occupied entries
// finds the first empty entry.
struct TableEntry {
  uint8_t* subpool;  // null for an empty entry
  HGLOBAL handle;
  Mirror* mirror;    // free-list mirror of a small sub-pool, else null
  uint32_t count;    // copy of the sub-pool's block count (read here, written to both)
};

struct Table {
  HGLOBAL handle;      // this table's own global block
  uint32_t count;      // sub-pools in use
  uint32_t capacity;   // entries
  int32_t last_used;   // -1 until a small block was placed
  uint32_t* largest;   // largest-free value of each entry (capacity values)
  uint32_t* bound16;   // per 16 entries: at least the largest of their values
  uint32_t* bound256;  // per 256 entries: at least the largest of their values
  uint64_t* occupied;  // bit i set when entry i holds a sub-pool
  TableEntry* Entries() { return reinterpret_cast<TableEntry*>(this + 1); }

  uint32_t Largest(uint32_t i) const { return largest[i]; }
};

struct DirEntry {
  uint32_t pool;
  Table* table;  // null for a free entry
};

struct Directory {
  HGLOBAL handle;  // null while the directory lives inside the heap record
  uint32_t capacity;
  uint32_t count;  // entries ever used (a high-water mark)
  DirEntry* Entries() { return reinterpret_cast<DirEntry*>(this + 1); }
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
uint8_t* ObtainLocked(ZBSTG_HEAP heap, HGLOBAL* handle, size_t bytes, uint32_t flags);
// calloc that runs the same dialog on failure.
void* SideAlloc(ZBSTG_HEAP heap, size_t bytes);

// The table of directory entry `slot`.
inline Table* TableAt(ZBSTG_HEAP heap, uint32_t slot) {
  return heap->directory->Entries()[slot].table;
}

// Finds the sub-pool that starts at `start`; false when it is not one of the
// heap's sub-pools.
inline bool LocateSubpool(ZBSTG_HEAP heap, const uint8_t* start, uint32_t* slot,
                          uint32_t* index) {
  uint64_t v;
  if (!heap->subpool_home.Find(reinterpret_cast<uintptr_t>(start), &v)) return false;
  *slot = static_cast<uint32_t>(v >> 32);
  *index = static_cast<uint32_t>(v);
  return true;
}

// Sub-pool address from a block's header, the string flag cleared.
inline uint8_t* SubpoolOf(const void* block, bool keep_flag = false) {
  auto hdr = reinterpret_cast<uintptr_t>(block) - 4;
  uint16_t off = Ld16(reinterpret_cast<const uint8_t*>(hdr) + 2);
  if (!keep_flag) off &= 0x7FFF;
  return reinterpret_cast<uint8_t*>(hdr - off);
}

}  // namespace zbshr::mem
