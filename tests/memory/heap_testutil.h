// Helpers for the heap tests: reading the sub-pool bytes a block lives in.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "zbshr/memory.h"

namespace heaptest {

using FL = std::vector<std::pair<uint32_t, uint32_t>>;  // free list: (offset, size)

inline uint32_t Le(const void* p, long off, int n) {
  auto* b = static_cast<const uint8_t*>(p) + off;
  uint32_t v = 0;
  for (int i = n - 1; i >= 0; --i) v = v << 8 | b[i];
  return v;
}
inline uint16_t W(const void* p, long off) { return static_cast<uint16_t>(Le(p, off, 2)); }
inline uint32_t L(const void* p, long off) { return Le(p, off, 4); }
inline uint16_t BlockSize(const void* p) { return W(p, -4); }
inline uint32_t Offset(const void* p) { return W(p, -2) & 0x7FFF; }
inline const uint8_t* Subpool(const void* p) { return static_cast<const uint8_t*>(p) - 4 - Offset(p); }
inline uint16_t FirstFree(const uint8_t* sp) { return W(sp, 4); }
inline uint16_t BlockCount(const uint8_t* sp) { return W(sp, 6); }
inline FL FreeList(const uint8_t* sp) {
  FL out;
  for (uint32_t cur = W(sp, 4); cur && out.size() < 20000; cur = W(sp, cur + 2)) out.emplace_back(cur, W(sp, cur));
  return out;
}
inline ZBSTG_STAT Stat(ZBSTG_HEAP h) {
  ZBSTG_STAT s{};
  zbstg_stat(h, &s);
  return s;
}
// A recognisable byte pattern for n bytes, and whether it is still there.
inline void Fill(void* p, uint32_t n, uint8_t seed) {
  for (uint32_t i = 0; i < n; ++i) static_cast<uint8_t*>(p)[i] = static_cast<uint8_t>(seed ^ (i * 131));
}
inline bool Intact(const void* p, uint32_t n, uint8_t seed) {
  for (uint32_t i = 0; i < n; ++i)
    if (static_cast<const uint8_t*>(p)[i] != static_cast<uint8_t>(seed ^ (i * 131))) return false;
  return true;
}

}  // namespace heaptest
