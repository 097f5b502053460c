// Helpers for the heap tests: reading the sub-pool bytes a block lives in.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "zbshr/memory.h"

namespace heaptest {

inline uint16_t W(const void* p, long off) {
  auto* b = static_cast<const uint8_t*>(p) + off;
  return static_cast<uint16_t>(b[0] | (b[1] << 8));
}
inline uint32_t L(const void* p, long off) {
  auto* b = static_cast<const uint8_t*>(p) + off;
  return b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
}
// Header words of a block.
inline uint16_t BlockSize(const void* p) { return W(p, -4); }
inline uint16_t BackOffset(const void* p) { return W(p, -2); }
// Start of the sub-pool that holds a block.
inline const uint8_t* Subpool(const void* p) {
  return static_cast<const uint8_t*>(p) - 4 - (BackOffset(p) & 0x7FFF);
}
inline uint32_t Offset(const void* p) { return BackOffset(p) & 0x7FFF; }
inline uint16_t FirstFree(const uint8_t* sp) { return W(sp, 4); }
inline uint16_t BlockCount(const uint8_t* sp) { return W(sp, 6); }
// The free list of a sub-pool as (offset, size) pairs.
inline std::vector<std::pair<uint32_t, uint32_t>> FreeList(const uint8_t* sp) {
  std::vector<std::pair<uint32_t, uint32_t>> out;
  for (uint32_t cur = W(sp, 4); cur && out.size() < 20000; cur = W(sp, cur + 2))
    out.emplace_back(cur, W(sp, cur));
  return out;
}
inline ZBSTG_STAT Stat(ZBSTG_HEAP h) {
  ZBSTG_STAT s{};
  zbstg_stat(h, &s);
  return s;
}

}  // namespace heaptest
