// Growable blocks: arrays of fixed-size items that grow in steps inside a
// heap pool. The data block is reallocated in the pool passed to each
// growing call.
#include <cstring>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

namespace {

bool usable(const SH_GRWBLK* b) { return b && b->step > 0 && b->item_size >= 0; }

// Reallocates the data to `capacity` items. On failure the block is left as
// it was.
bool resize(ZBSTG_HEAP heap, SH_GRWBLK* b, uint32_t capacity, uint32_t pool) {
  const uint64_t size = static_cast<uint64_t>(static_cast<uint32_t>(b->item_size)) * capacity;
  if (size > UINT32_MAX) return false;
  void* data = zbstg_realloc(heap, b->data, static_cast<uint32_t>(size), pool);
  if (!data) return false;
  b->data = data;
  b->capacity = static_cast<int32_t>(capacity);
  return true;
}

char* slot(SH_GRWBLK* b, uint32_t index) {
  return static_cast<char*>(b->data) + static_cast<size_t>(index) * static_cast<size_t>(b->item_size);
}

}  // namespace

ZBSHR_API(void) sh_grwblk_init(SH_GRWBLK* block, int32_t step, int32_t item_size) {
  if (!block) return;
  block->data = nullptr;
  block->step = step;
  block->capacity = 0;
  block->count = 0;
  block->item_size = item_size;
}

ZBSHR_API(SH_GRWBLK*) sh_new_grwblk(ZBSTG_HEAP heap, int32_t step, int32_t item_size, uint32_t pool) {
  auto* block = static_cast<SH_GRWBLK*>(zbstg_alloc(heap, sizeof(SH_GRWBLK), pool));
  sh_grwblk_init(block, step, item_size);
  return block;
}

ZBSHR_API(int32_t) sh_add_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK* block, const void* item, uint32_t pool) {
  if (!usable(block) || block->count < 0 || block->count == INT32_MAX) return -1;
  if (!item && block->item_size > 0) return -1;
  const auto count = static_cast<uint32_t>(block->count);
  const auto capacity = static_cast<uint32_t>(block->capacity);
  if (count >= capacity) {
    const uint64_t grown = static_cast<uint64_t>(capacity) + static_cast<uint32_t>(block->step);
    if (grown > UINT32_MAX || !resize(heap, block, static_cast<uint32_t>(grown), pool)) return -1;
  }
  if (block->item_size > 0) std::memcpy(slot(block, count), item, static_cast<size_t>(block->item_size));
  block->count = static_cast<int32_t>(count + 1);
  return static_cast<int32_t>(count);
}

ZBSHR_API(int32_t) sh_set_grwblk_item(ZBSTG_HEAP heap, SH_GRWBLK* block, int32_t index, const void* item,
                           uint32_t pool) {
  if (!usable(block) || index < 0 || block->count < 0) return 0;
  if (!item && block->item_size > 0) return 0;
  const auto at = static_cast<uint32_t>(index);
  if (at >= static_cast<uint32_t>(block->capacity)) {
    const uint64_t grown = static_cast<uint64_t>(at) + static_cast<uint32_t>(block->step);
    if (grown > UINT32_MAX || !resize(heap, block, static_cast<uint32_t>(grown), pool)) return 0;
  }
  if (block->item_size > 0) std::memcpy(slot(block, at), item, static_cast<size_t>(block->item_size));
  if (index >= block->count) block->count = index + 1;
  return block->item_size;
}

ZBSHR_API(int32_t) sh_append_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK* block, const void* items, int32_t n,
                            uint32_t pool) {
  if (!usable(block) || n < 0 || block->count < 0) return -1;
  if (static_cast<int64_t>(block->count) + n > INT32_MAX) return -1;
  if (!items && n > 0 && block->item_size > 0) return -1;
  const auto count = static_cast<uint32_t>(block->count);
  const auto capacity = static_cast<uint32_t>(block->capacity);
  const auto step = static_cast<uint32_t>(block->step);
  // Unsigned 32-bit on purpose: when the items already fit, d wraps and the
  // capacity still changes (capacity 10, count 2, 3 items, step 10 gives 14).
  // The result always exceeds count + n.
  const uint32_t d = count - capacity + static_cast<uint32_t>(n);
  if (d != 0) {
    const uint32_t grown = (d / step + 1) * step + capacity;
    if (!resize(heap, block, grown, pool)) return -1;
  }
  if (n > 0 && block->item_size > 0) {
    std::memcpy(slot(block, count), items,
                static_cast<size_t>(n) * static_cast<size_t>(block->item_size));
  }
  block->count = static_cast<int32_t>(count + static_cast<uint32_t>(n));
  return static_cast<int32_t>(count);
}

ZBSHR_API(void) sh_grwblk_delete(ZBSTG_HEAP heap, SH_GRWBLK* block) {
  if (!block) return;
  if (block->data) zbstg_free(heap, block->data);
  zbstg_free(heap, block);
}

ZBSHR_API(void*) sh_grwblk_close(ZBSTG_HEAP heap, SH_GRWBLK* block, int32_t* count) {
  if (!block) {
    if (count) *count = 0;
    return nullptr;
  }
  if (count) *count = block->count;
  void* data = block->data;
  zbstg_free(heap, block);
  return data;
}
