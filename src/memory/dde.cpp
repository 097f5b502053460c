// Shareable global memory for data exchange between programs. Such a block
// belongs to no heap: its first pointer-wide slot holds its own global handle
// and the caller gets the address just after it.
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"

using namespace zbshr::plat;

namespace {
constexpr size_t kSlot = sizeof(HGLOBAL);
constexpr UINT kDdeFlags = GMEM_DDESHARE | GMEM_MOVEABLE;
}  // namespace

ZBSHR_API(void *) zbstg_dde_alloc(uint16_t size) {
  HGLOBAL h = GlobalAlloc(kDdeFlags, static_cast<size_t>(size) + kSlot);
  if (!h) return nullptr;
  auto* p = static_cast<uint8_t*>(GlobalLock(h));
  if (!p) {
    GlobalFree(h);
    return nullptr;
  }
  std::memcpy(p, &h, kSlot);
  return p + kSlot;
}

ZBSHR_API(void *) zbstg_dde_get_handle(const void *block) {
  if (!block) return nullptr;
  HGLOBAL h;
  std::memcpy(&h, static_cast<const uint8_t*>(block) - kSlot, kSlot);
  return h;
}

ZBSHR_API(void) zbstg_dde_free(void *block) {
  if (!block) return;
  HGLOBAL h = zbstg_dde_get_handle(block);
  GlobalUnlock(h);
  GlobalFree(h);
}

ZBSHR_API(void *) zbstg_dde_lock(void *handle) {
  // Integer arithmetic: a failed lock gives the slot width, not null.
  return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(GlobalLock(handle)) + kSlot);
}

ZBSHR_API(int32_t) zbstg_dde_unlock(void *handle) { return GlobalUnlock(handle); }
