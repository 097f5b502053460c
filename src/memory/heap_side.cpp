// The heap manager's supporting pieces: taking locked memory from the system
// through the out-of-memory dialog, the side allocations and the address map
// of the speed-up structures, and the mirror of each small sub-pool's free
// list (see heap.cpp for how they are used).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "memory/heap_intl.h"

using namespace zbshr::plat;

namespace zbshr::mem {

// ---------------------------------------------------------------- failures

// The out-of-memory box: Retry and Cancel buttons, stop icon, task-modal.
constexpr UINT kOutOfMemoryStyle = 0x2015;

uint8_t* obtain_locked(ZBSTG_HEAP heap, HGLOBAL* handle, size_t bytes, uint32_t flags) {
  void* p = *handle ? GlobalLock(*handle) : nullptr;
  while (!p) {
    int answer = MessageBoxA(nullptr, "Out of Memory", nullptr, kOutOfMemoryStyle);
    if (answer != IDRETRY) {
      if (heap) zbstg_end(heap);
      FatalAppExitA(0, "Insufficient memory to continue.");
    }
    if (!*handle) *handle = GlobalAlloc(flags, bytes);
    if (*handle) p = GlobalLock(*handle);
  }
  return static_cast<uint8_t*>(p);
}

// GlobalReAlloc with the out-of-memory dialog; returns the new locked address
// and updates `*handle`.
uint8_t* realloc_locked(ZBSTG_HEAP heap, HGLOBAL* handle, size_t bytes, uint32_t flags) {
  HGLOBAL h = GlobalReAlloc(*handle, bytes, flags);
  void* p = h ? GlobalLock(h) : nullptr;
  while (!p) {
    int answer = MessageBoxA(nullptr, "Out of Memory", nullptr, kOutOfMemoryStyle);
    if (answer != IDRETRY) {
      if (heap) zbstg_end(heap);
      FatalAppExitA(0, "Insufficient memory to continue.");
    }
    if (!h) h = GlobalReAlloc(*handle, bytes, flags);
    if (h) p = GlobalLock(h);
  }
  *handle = h;
  return static_cast<uint8_t*>(p);
}

void* side_alloc(ZBSTG_HEAP heap, size_t bytes) {
  void* p = std::calloc(bytes ? bytes : 1, 1);
  while (!p) {
    int answer = MessageBoxA(nullptr, "Out of Memory", nullptr, kOutOfMemoryStyle);
    if (answer != IDRETRY) {
      if (heap) zbstg_end(heap);
      FatalAppExitA(0, "Insufficient memory to continue.");
    }
    p = std::calloc(bytes ? bytes : 1, 1);
  }
  return p;
}

// ---------------------------------------------------------------- U64Map

void U64Map::put(ZBSTG_HEAP heap, uint64_t key, uint64_t value) {
  // Kept at most half full, so that most keys sit in their home slot.
  if (!slots || (size + 1) * 2 > mask + 1) {
    uint32_t cap = slots ? (mask + 1) * 2 : 16;
    auto* fresh = static_cast<Slot*>(side_alloc(heap, sizeof(Slot) * cap));
    for (uint32_t i = 0; i < cap; ++i) fresh[i].key = kEmpty;
    Slot* old = slots;
    uint32_t old_cap = slots ? mask + 1 : 0;
    slots = fresh;
    mask = cap - 1;
    shift = 64 - static_cast<uint32_t>(std::countr_zero(cap));
    for (uint32_t i = 0; i < old_cap; ++i) {
      if (old[i].key == kEmpty) continue;
      uint32_t j = home_slot(old[i].key);
      while (slots[j].key != kEmpty) j = (j + 1) & mask;
      slots[j] = old[i];
    }
    std::free(old);
  }
  uint32_t i = home_slot(key);
  while (slots[i].key != kEmpty) {
    if (slots[i].key == key) {
      slots[i].value = value;
      return;
    }
    i = (i + 1) & mask;
  }
  slots[i] = {key, value};
  ++size;
}

void U64Map::erase(uint64_t key) {
  if (!slots) return;
  uint32_t i = home_slot(key);
  while (slots[i].key != key) {
    if (slots[i].key == kEmpty) return;
    i = (i + 1) & mask;
  }
  // Backward-shift deletion keeps every probe sequence unbroken.
  uint32_t j = i;
  for (;;) {
    j = (j + 1) & mask;
    if (slots[j].key == kEmpty) break;
    uint32_t home = home_slot(slots[j].key);
    // Move slot j into the hole at i unless its home lies cyclically in (i, j].
    bool stays = (i <= j) ? (home > i && home <= j) : (home > i || home <= j);
    if (!stays) {
      slots[i] = slots[j];
      i = j;
    }
  }
  slots[i].key = kEmpty;
  --size;
}

void U64Map::release() {
  std::free(slots);
  slots = nullptr;
  mask = shift = size = 0;
}

void* side_alloc_line(ZBSTG_HEAP heap, size_t bytes) {
  constexpr std::align_val_t kLine{64};
  void* p = ::operator new(bytes ? bytes : 1, kLine, std::nothrow);
  while (!p) {
    int answer = MessageBoxA(nullptr, "Out of Memory", nullptr, kOutOfMemoryStyle);
    if (answer != IDRETRY) {
      if (heap) zbstg_end(heap);
      FatalAppExitA(0, "Insufficient memory to continue.");
    }
    p = ::operator new(bytes ? bytes : 1, kLine, std::nothrow);
  }
  return p;
}

void side_free_line(void* p) {
  if (p) ::operator delete(p, std::align_val_t{64}, std::nothrow);
}

// ---------------------------------------------------------------- free-list mirror

// Arrays of `cap` offsets and `cap` sizes, entries from `n` on padded.
static uint16_t* mirror_arrays(ZBSTG_HEAP heap, const Mirror& from, uint32_t cap) {
  auto* a = static_cast<uint16_t*>(side_alloc_line(heap, sizeof(uint16_t) * 2 * cap));
  for (uint32_t i = 0; i < from.n; ++i) {
    a[i] = from.off[i];
    a[cap + i] = from.off[from.cap + i];
  }
  for (uint32_t i = from.n; i < cap; ++i) {
    a[i] = 0xFFFF;
    a[cap + i] = 0;
  }
  return a;
}

void mirror_init(ZBSTG_HEAP heap, Mirror* m, uint32_t off, uint32_t size) {
  Mirror empty;
  m->off = mirror_arrays(heap, empty, kLanes);  // 64 bytes: one cache line
  m->cap = kLanes;
  m->n = 0;
  m->set(0, off, size);
  m->n = 1;
}

void mirror_free(Mirror* m) {
  side_free_line(m->off);
  m->off = nullptr;
  m->n = m->cap = 0;
}

void mirror_grow(ZBSTG_HEAP heap, Mirror* m) {
  uint32_t cap = m->cap * 2;
  uint16_t* a = mirror_arrays(heap, *m, cap);
  side_free_line(m->off);
  m->off = a;
  m->cap = cap;
}

}  // namespace zbshr::mem
