/* zbshr: memory family: heaps, pools and blocks; shareable global memory;
 * string and bulk-memory helpers; the fixed-size block store; start-up. */
#ifndef ZBSHR_MEMORY_H
#define ZBSHR_MEMORY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Heaps, pools and blocks ------------------------------------------- */

/* Statistics filled by zbstg_stat: six unsigned 32-bit counters. */
typedef struct ZBSTG_STAT {
  uint32_t live_blocks;    /* blocks currently allocated in the heap */
  uint32_t subpool_bytes;  /* sub-pool size x peak number of sub-pools */
  uint32_t total_bytes;    /* total system bytes (also the return value) */
  uint32_t system_bytes;   /* system bytes, accumulated (equals total_bytes) */
  uint32_t used_bytes;     /* bytes held by live blocks */
  uint32_t free_bytes;     /* bytes on the free lists of small sub-pools */
} ZBSTG_STAT;

/* A new heap. `subpool_size` 0 means 4088. Sub-pools are taken with
 * GlobalAlloc flags 2 (moveable). */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin(uint16_t subpool_size);
/* A new heap whose sub-pools and large blocks use `alloc_flags`. */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin_allocflags(uint16_t subpool_size, uint32_t alloc_flags);
/* Frees every sub-pool and table, the spare sub-pool, a grown directory and
 * the heap itself. */
ZBSHR_API(void) zbstg_end(ZBSTG_HEAP heap);

/* Returns the next pool number and advances it (the first call returns 2). */
ZBSHR_API(uint32_t) zbstg_new_pool(ZBSTG_HEAP heap);
/* Sets the next pool number; returns the heap. */
ZBSHR_API(ZBSTG_HEAP) zbstg_set_next_pool(ZBSTG_HEAP heap, uint32_t next_pool);
/* Sets the pool used when a caller passes pool 0; returns the previous one. */
ZBSHR_API(uint32_t) zbstg_default_pool(ZBSTG_HEAP heap, uint32_t pool);
/* Frees every block of the pool at once (pool 0 = the default pool). */
ZBSHR_API(void) zbstg_free_pool(ZBSTG_HEAP heap, uint32_t pool);

/* At least `size` bytes, 4-byte aligned, not cleared. Never null for lack of
 * memory (the out-of-memory dialog runs instead). */
ZBSHR_API(void *) zbstg_alloc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool);
/* Resizes a block; a different pool number moves it into that pool. */
ZBSHR_API(void *) zbstg_realloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool);
/* Frees a block; null is ignored. */
ZBSHR_API(void) zbstg_free(ZBSTG_HEAP heap, void *block);
/* Usable size of a block. */
ZBSHR_API(uint32_t) zbstg_size(ZBSTG_HEAP heap, const void *block);
/* The pool number that owns the block. */
ZBSHR_API(uint32_t) zbstg_get_pointer_subpool(ZBSTG_HEAP heap, const void *block);
/* Fills `stat` and returns the total system bytes. */
ZBSHR_API(uint32_t) zbstg_stat(ZBSTG_HEAP heap, ZBSTG_STAT *stat);
/* Stores a caller's value in the heap; returns the previous one. */
ZBSHR_API(uint32_t) zbstg_sos(ZBSTG_HEAP heap, uint32_t value);
/* Always 1. */
ZBSHR_API(int32_t) zbstg_validate(ZBSTG_HEAP heap);
/* Writes a raw image of the sub-pools of `pool` (0 = all pools) to a file;
 * 1 on success, 0 when the file cannot be created. */
ZBSHR_API(int32_t) zbstg_write_debug(ZBSTG_HEAP heap, uint32_t pool, const char *file_name);

/* Generation and leak tracking are disabled: zbstg_nextGeneration returns 0,
 * the dump functions do nothing. */
ZBSHR_API(int32_t) zbstg_nextGeneration(ZBSTG_HEAP heap);
ZBSHR_API(void) zbstg_dumpLeaks(ZBSTG_HEAP heap);
ZBSHR_API(void) zbstg_dumpHeap(ZBSTG_HEAP heap);

/* Aligned allocation is not provided: both return null. */
ZBSHR_API(void *) zbstg_alloc_align(ZBSTG_HEAP heap, uint32_t size, uint32_t alignment,
                                    uint32_t pool);
ZBSHR_API(void *) zbstg_realloc_align(ZBSTG_HEAP heap, void *block, uint32_t size,
                                      uint32_t alignment, uint32_t pool);

/* Debug variants: the caller's source position is accepted and ignored.
 * (zbstg_dbstrdup is declared with the string helpers below.) */
ZBSHR_API(void *) zbstg_dballoc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool,
                                const char *file, int32_t line);
ZBSHR_API(void *) zbstg_dbrealloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool,
                                  const char *file, int32_t line);
/* Only the low 16 bits of `subpool_size` are used. */
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin(uint32_t subpool_size, const char *file, int32_t line);
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin_allocflags(uint32_t subpool_size, uint32_t alloc_flags,
                                               const char *file, int32_t line);

/* ---- Shareable (DDE) global memory ------------------------------------- */
/* Blocks outside any heap: a global block (flags 0x2002) whose first slot
 * holds its own handle; the caller gets the address just after that slot.
 * The slot is pointer-wide (4 bytes on 32-bit hosts, 8 on 64-bit hosts). */
ZBSHR_API(void *) zbstg_dde_alloc(uint16_t size);
ZBSHR_API(void) zbstg_dde_free(void *block);
ZBSHR_API(void *) zbstg_dde_get_handle(const void *block);
/* GlobalLock(handle) + slot width: a failed lock does not give null. */
ZBSHR_API(void *) zbstg_dde_lock(void *handle);
ZBSHR_API(int32_t) zbstg_dde_unlock(void *handle);

/* ---- String and bulk-memory helpers, block store, start-up (strings.cpp, blockstore, startup) ---- */
/* ---- end of string helpers section ---- */

ZBSHR_END_DECLS

#endif
