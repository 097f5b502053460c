/* zbshr: memory family: heaps, pools and blocks; shareable global memory;
 * string and bulk-memory helpers; the fixed-size block store; start-up. */
#ifndef ZBSHR_MEMORY_H
#define ZBSHR_MEMORY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Heaps, pools and blocks ------------------------------------------- */

/** Statistics filled by zbstg_stat: six unsigned 32-bit counters. */
typedef struct ZBSTG_STAT {
  uint32_t live_blocks;    /* blocks currently allocated in the heap */
  uint32_t subpool_bytes;  /* sub-pool size x peak number of sub-pools */
  uint32_t total_bytes;    /* total system bytes (also the return value) */
  uint32_t system_bytes;   /* system bytes, accumulated (equals total_bytes) */
  uint32_t used_bytes;     /* bytes held by live blocks */
  uint32_t free_bytes;     /* bytes on the free lists of small sub-pools */
} ZBSTG_STAT;

/** A new heap. `subpool_size` 0 means 4088. Sub-pools are taken with
 * GlobalAlloc flags 2 (moveable). */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin(uint16_t subpool_size);
/** A new heap whose sub-pools and large blocks use `alloc_flags`. */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin_allocflags(uint16_t subpool_size, uint32_t alloc_flags);
/** Frees every sub-pool and table, the spare sub-pool, a grown directory and
 * the heap itself. */
ZBSHR_API(void) zbstg_end(ZBSTG_HEAP heap);

/** Returns the next pool number and advances it (the first call returns 2). */
ZBSHR_API(uint32_t) zbstg_new_pool(ZBSTG_HEAP heap);
/** Sets the next pool number; returns the heap. */
ZBSHR_API(ZBSTG_HEAP) zbstg_set_next_pool(ZBSTG_HEAP heap, uint32_t next_pool);
/** Sets the pool used when a caller passes pool 0; returns the previous one. */
ZBSHR_API(uint32_t) zbstg_default_pool(ZBSTG_HEAP heap, uint32_t pool);
/** Frees every block of the pool at once (pool 0 = the default pool). */
ZBSHR_API(void) zbstg_free_pool(ZBSTG_HEAP heap, uint32_t pool);

/** At least `size` bytes, 4-byte aligned, not cleared. Never null for lack of
 * memory (the out-of-memory dialog runs instead). */
ZBSHR_API(void *) zbstg_alloc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool);
/** Resizes a block; a different pool number moves it into that pool. */
ZBSHR_API(void *) zbstg_realloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool);
/** Frees a block; null is ignored. */
ZBSHR_API(void) zbstg_free(ZBSTG_HEAP heap, void *block);
/** Usable size of a block. */
ZBSHR_API(uint32_t) zbstg_size(ZBSTG_HEAP heap, const void *block);
/** The pool number that owns the block. */
ZBSHR_API(uint32_t) zbstg_get_pointer_subpool(ZBSTG_HEAP heap, const void *block);
/** Fills `stat` and returns the total system bytes. */
ZBSHR_API(uint32_t) zbstg_stat(ZBSTG_HEAP heap, ZBSTG_STAT *stat);
/** Stores a caller's value in the heap; returns the previous one. */
ZBSHR_API(uint32_t) zbstg_sos(ZBSTG_HEAP heap, uint32_t value);
/** Always 1. */
ZBSHR_API(int32_t) zbstg_validate(ZBSTG_HEAP heap);
/** Writes a raw image of the sub-pools of `pool` (0 = all pools) to a file;
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

/* Allocating helpers: heap first, pool last (pool 0 = the default pool). */
/** A copy of `s` in a new block of strlen + 1 bytes. */
ZBSHR_API(char *) zbstg_strdup(ZBSTG_HEAP heap, const char *s, uint32_t pool);
/** As zbstg_strdup; the caller's source position is accepted and ignored. */
ZBSHR_API(char *) zbstg_dbstrdup(ZBSTG_HEAP heap, const char *s, uint32_t pool,
                                 const char *file, int32_t line);
/** A block of n + 2 bytes that records n in its last two bytes and carries
 * the string-length flag; when n + 2 is 63,997 or more, a plain block of n. */
ZBSHR_API(void *) zbstg_allocstring(ZBSTG_HEAP heap, uint32_t n, uint32_t pool);
/** For a flagged block the recorded n - 1 (so -1 for n 0); otherwise strlen. */
ZBSHR_API(int32_t) zbstg_allocstringlen(const void *block);

/* The string builder: the caller keeps the buffer, its capacity and the used
 * length (terminator not counted); the buffer may move on every append. */
ZBSHR_API(void) zbstg_str_build(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                int32_t *capacity, int32_t *used, const char *s);
ZBSHR_API(void) zbstg_str_build_huge(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                     int32_t *capacity, int32_t *used, const char *s);
ZBSHR_API(void) zbstg_str_build_char(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                     int32_t *capacity, int32_t *used, char c);

/* In-place editing; each returns `s`. */
/** Deletes every occurrence of `c`. */
ZBSHR_API(char *) zbstg_str_remove_char(char *s, char c);
/** Deletes `c` from the end only, repeatedly. */
ZBSHR_API(char *) zbstg_str_trim_char(char *s, char c);
/** Capitalises words: '-' and '_' become spaces; double-byte characters and
 * single-byte katakana (0xA1-0xDF) pass unchanged. */
ZBSHR_API(char *) zbstg_str_wordcap(char *s);

/* Characters in the current ANSI code page. */
ZBSHR_API(char) zbstg_ansitoupper(char c);
ZBSHR_API(char) zbstg_ansitolower(char c);
/* Collation of two one-character strings: negative, 0 or positive. */
ZBSHR_API(int32_t) zbstg_lchrcmp(char a, char b);
ZBSHR_API(int32_t) zbstg_lchrcmpi(char a, char b);

/* Number conversions with 32-bit results (out-of-range values saturate as
 * the 32-bit runtime does). */
ZBSHR_API(int32_t) zbstg_atoi(const char *s);
ZBSHR_API(int32_t) zbstg_atol(const char *s);
ZBSHR_API(double) zbstg_atof(const char *s);
ZBSHR_API(double) zbstg_strtod(const char *s, char **end);
/* `end` is ignored and never written. */
ZBSHR_API(int32_t) zbstg_strtol(const char *s, char **end, int32_t base);
ZBSHR_API(uint32_t) zbstg_strtoul(const char *s, char **end, int32_t base);
/* Unsigned decimal digits after leading white space, wrapping modulo 2^32;
 * 0 when no digit follows the white space. */
ZBSHR_API(uint32_t) zbstg_atou(const char *s);
ZBSHR_API(uint32_t) zbstg_atoul(const char *s);

/* Bulk memory and strings, byte by byte, no segment limits. */
/** 0 when equal or n is 0, else the first difference as signed chars (a - b). */
ZBSHR_API(int16_t) zbstg_huge_memcmp(const void *a, const void *b, uint32_t n);
/* Forward byte copy (an overlapping destination above the source repeats
 * the source's leading bytes). */
ZBSHR_API(void *) zbstg_huge_memcpy(void *dst, const void *src, uint32_t n);
ZBSHR_API(void *) zbstg_huge_memmove(void *dst, const void *src, uint32_t n);
ZBSHR_API(void *) zbstg_huge_memset(void *dst, int32_t byte, uint32_t n);
/* First `c` in `s`, or null; the terminator is never found. */
ZBSHR_API(char *) zbstg_huge_strchr(const char *s, int32_t c);
ZBSHR_API(char *) zbstg_huge_strcpy(char *dst, const char *src);
ZBSHR_API(uint32_t) zbstg_huge_strlen(const char *s);
/* Copies at most n bytes and always writes a terminator right after the
 * copied bytes: at dst[n] when n bytes were copied (dst needs n + 1 bytes). */
ZBSHR_API(char *) zbstg_huge_strncpy(char *dst, const char *src, uint32_t n);
ZBSHR_API(char *) zbstg_huge_strstr(const char *s, const char *t);
/** Deletes a file: 0 on success, -1 on failure. */
ZBSHR_API(int32_t) zbstg_remove(const char *file_name);

/* ---- Fixed-size block store: byte blocks parked in a temporary file ---- */
typedef struct zbfstg_s *ZBFSTG;
/** A new store in the heap and pool; its temporary file is created now
 * (null when no temporary file can be made). */
ZBSHR_API(ZBFSTG) zbfstg_begin(ZBSTG_HEAP heap, uint32_t pool);
/** Writes n bytes and returns the position recorded for them, or 0 on
 * failure. Every record is written at the start of the file, and the first
 * position handed out is 0. */
ZBSHR_API(int32_t) zbfstg_alloc(ZBFSTG store, const void *data, int32_t n);
/** A new block (store's heap and pool) with a copy of the record at `pos`,
 * or null. */
ZBSHR_API(void *) zbfstg_get(ZBFSTG store, int32_t pos);
/** Does nothing; returns 1. */
ZBSHR_API(int32_t) zbfstg_free(ZBFSTG store, int32_t pos);
/** Deletes the temporary file and frees the store; returns 1. */
ZBSHR_API(int32_t) zbfstg_end(ZBFSTG store);

/* ---- Library start-up and regional settings ---- */
/** Re-reads the regional settings from [intl]; the month and day names are
 * loaded once. */
ZBSHR_API(void) zbshr_intl(void);
/** The standard "not supported on this platform" notice; returns the
 * message box's answer. */
ZBSHR_API(int32_t) ZBSHR_FeatureUnsupported(void *owner);
/** Unload hook of the older platform; does nothing and returns 1. */
ZBSHR_API(int32_t) WEP(int32_t param);
/* ---- end of string helpers section ---- */

ZBSHR_END_DECLS

#endif
