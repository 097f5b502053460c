// Heap statistics, the debug image, the disabled generation and alignment
// services and the debug variants of the allocation calls.
#include <algorithm>
#include <cstring>

#include "memory/heap_intl.h"
#include "zbshr/system.h"

using namespace zbshr::plat;
using namespace zbshr::mem;

ZBSHR_API(uint32_t) zbstg_stat(ZBSTG_HEAP heap, ZBSTG_STAT *stat) {
  if (!heap || !stat) return 0;
  uint32_t system = 0, used = 0, free_bytes = 0;
  Directory* dir = heap->directory;
  for (uint32_t s = 0; s < dir->count; ++s) {
    Table* t = dir->entries()[s].table;
    if (!t) continue;
    for (uint32_t i = 0; i < t->capacity; ++i) {
      const TableEntry& e = t->entries()[i];
      if (!e.subpool) continue;
      uint32_t gs = static_cast<uint32_t>(GlobalSize(e.handle));
      system += gs;
      const uint8_t* sp = e.subpool;
      if (gs < kLargeMark) {
        uint32_t sum = 0, prev = 0, cur = ld16(sp + 4);
        while (cur > prev && cur + 4 <= gs) {
          sum += ld16(sp + cur);
          prev = cur;
          cur = ld16(sp + cur + 2);
        }
        free_bytes += sum;
        used += gs - 8 - 4 * static_cast<uint32_t>(ld16(sp + 6)) - sum;
      } else {
        used += ld32(sp + 8);
      }
    }
    system += table_bytes32(t->capacity);
  }
  if (dir->handle) system += directory_bytes32(dir->capacity);
  stat->live_blocks = heap->live_blocks;
  stat->subpool_bytes = static_cast<uint32_t>(heap->subpool_size) * heap->peak_subpools;
  stat->total_bytes = system;
  stat->system_bytes = system;
  stat->used_bytes = used;
  stat->free_bytes = free_bytes;
  return system;
}

ZBSHR_API(uint32_t) zbstg_sos(ZBSTG_HEAP heap, uint32_t value) {
  if (!heap) return 0;
  uint32_t previous = heap->sos;
  heap->sos = value;
  return previous;
}

ZBSHR_API(int32_t) zbstg_validate(ZBSTG_HEAP /*heap*/) { return 1; }

// Each sub-pool contributes a record of its first 4,076 bytes; a sub-pool
// shorter than that (a small block regrown in place) is padded with zeros.
ZBSHR_API(int32_t) zbstg_write_debug(ZBSTG_HEAP heap, uint32_t pool, const char *file_name) {
  constexpr uint32_t kRecord = 4076;
  if (!heap || !file_name) return 0;
  OSOFSTRUCT of;
  std::memset(&of, 0, sizeof of);
  int32_t fh = osOpenFile(file_name, &of, OF_CREATE | OF_WRITE);
  if (fh == HFILE_ERROR) return 0;
  Directory* dir = heap->directory;
  uint8_t pad[kRecord];
  for (uint32_t s = 0; s < dir->count; ++s) {
    const DirEntry& d = dir->entries()[s];
    if (!d.table || (pool != 0 && d.pool != pool)) continue;
    Table* t = d.table;
    for (uint32_t i = 0; i < t->capacity; ++i) {
      const TableEntry& e = t->entries()[i];
      if (!e.subpool) continue;
      uint32_t gs = static_cast<uint32_t>(GlobalSize(e.handle));
      const uint8_t* src = e.subpool;
      if (gs < kRecord) {
        std::memset(pad, 0, sizeof pad);
        std::memcpy(pad, e.subpool, gs);
        src = pad;
      }
      if (zbshr::plat::_lwrite(fh, src, kRecord) != static_cast<int32_t>(kRecord)) break;
    }
  }
  zbshr::plat::_lclose(fh);
  return 1;
}

ZBSHR_API(int32_t) zbstg_nextGeneration(ZBSTG_HEAP /*heap*/) { return 0; }
ZBSHR_API(void) zbstg_dumpLeaks(ZBSTG_HEAP /*heap*/) {}
ZBSHR_API(void) zbstg_dumpHeap(ZBSTG_HEAP /*heap*/) {}

ZBSHR_API(void *) zbstg_alloc_align(ZBSTG_HEAP /*heap*/, uint32_t /*size*/, uint32_t /*alignment*/,
                                    uint32_t /*pool*/) {
  return nullptr;
}
ZBSHR_API(void *) zbstg_realloc_align(ZBSTG_HEAP /*heap*/, void */*block*/, uint32_t /*size*/,
                                      uint32_t /*alignment*/, uint32_t /*pool*/) {
  return nullptr;
}

ZBSHR_API(void *) zbstg_dballoc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool, const char */*file*/,
                                int32_t /*line*/) {
  return zbstg_alloc(heap, size, pool);
}
ZBSHR_API(void *) zbstg_dbrealloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool,
                                  const char */*file*/, int32_t /*line*/) {
  return zbstg_realloc(heap, block, size, pool);
}
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin(uint32_t subpool_size, const char */*file*/, int32_t /*line*/) {
  return zbstg_begin(static_cast<uint16_t>(subpool_size));
}
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin_allocflags(uint32_t subpool_size, uint32_t alloc_flags,
                                               const char */*file*/, int32_t /*line*/) {
  return zbstg_begin_allocflags(static_cast<uint16_t>(subpool_size), alloc_flags);
}
