/** @file
 * zbshr: memory family: heaps, pools and blocks; shareable global memory;
 * string and bulk-memory helpers; the fixed-size block store; start-up. */
#ifndef ZBSHR_MEMORY_H
#define ZBSHR_MEMORY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Heaps, pools and blocks ------------------------------------------- */

/** Statistics filled by zbstg_stat: six unsigned 32-bit counters. */
typedef struct ZBSTG_STAT {
  uint32_t live_blocks;    /**< blocks currently allocated in the heap */
  uint32_t subpool_bytes;  /**< sub-pool size x peak number of sub-pools */
  uint32_t total_bytes;    /**< total system bytes (also the return value) */
  uint32_t system_bytes;   /**< system bytes, accumulated (equals total_bytes) */
  uint32_t used_bytes;     /**< bytes held by live blocks */
  uint32_t free_bytes;     /**< bytes on the free lists of small sub-pools */
} ZBSTG_STAT;

/** A new heap whose sub-pools are taken with GlobalAlloc flags 2 (moveable). Out of memory, the
 * out-of-memory dialog runs instead of a null result.
 * @param subpool_size size of a sub-pool in bytes; 0 means 4088
 * @return the heap; release it with zbstg_end */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin(uint16_t subpool_size);
/** A new heap whose sub-pools and large blocks use `alloc_flags`.
 * @param subpool_size size of a sub-pool in bytes; 0 means 4088
 * @param alloc_flags GlobalAlloc flags of the sub-pools and large blocks
 * @return the heap; release it with zbstg_end */
ZBSHR_API(ZBSTG_HEAP) zbstg_begin_allocflags(uint16_t subpool_size, uint32_t alloc_flags);
/** Frees every sub-pool and table, the spare sub-pool, a grown directory and the heap itself;
 * every block of the heap becomes invalid.
 * @param heap the heap; null is ignored */
ZBSHR_API(void) zbstg_end(ZBSTG_HEAP heap);

/** Returns the next pool number and advances it (the first call returns 2).
 * @param heap the heap
 * @return a new pool number; 0 for a null heap */
ZBSHR_API(uint32_t) zbstg_new_pool(ZBSTG_HEAP heap);
/** Sets the next pool number zbstg_new_pool hands out.
 * @param heap the heap (null is ignored)
 * @param next_pool the next pool number
 * @return `heap` */
ZBSHR_API(ZBSTG_HEAP) zbstg_set_next_pool(ZBSTG_HEAP heap, uint32_t next_pool);
/** Sets the pool used when a caller passes pool 0.
 * @param heap the heap
 * @param pool the new default pool (1 in a new heap)
 * @return the previous default pool; 0 for a null heap */
ZBSHR_API(uint32_t) zbstg_default_pool(ZBSTG_HEAP heap, uint32_t pool);
/** Frees every block of the pool at once.
 * @param heap the heap; null is ignored
 * @param pool the pool; 0 = the default pool */
ZBSHR_API(void) zbstg_free_pool(ZBSTG_HEAP heap, uint32_t pool);

/** A new block of at least `size` bytes, 4-byte aligned, not cleared. Never null for lack of
 * memory (the out-of-memory dialog runs instead).
 * @param heap the heap
 * @param size bytes wanted
 * @param pool owning pool; 0 = the default pool
 * @return the block (free it with zbstg_free or with its pool); null for a null heap */
ZBSHR_API(void *) zbstg_alloc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool);
/** Resizes a block; a different pool number moves it into that pool. The block may move.
 * @param heap the heap
 * @param block the block; null allocates a new one
 * @param size new size in bytes
 * @param pool owning pool; 0 = the default pool
 * @return the block's new address; null for a null heap or a size that cannot be represented */
ZBSHR_API(void *) zbstg_realloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool);
/** Frees a block.
 * @param heap the heap of the block
 * @param block the block; null is ignored */
ZBSHR_API(void) zbstg_free(ZBSTG_HEAP heap, void *block);
/** Usable size of a block.
 * @param heap the heap of the block
 * @param block the block
 * @return its size in bytes; 0 for a null block */
ZBSHR_API(uint32_t) zbstg_size(ZBSTG_HEAP heap, const void *block);
/** The pool number that owns the block.
 * @param heap the heap of the block
 * @param block the block
 * @return the pool number; 0 for a null argument or a block not in the heap */
ZBSHR_API(uint32_t) zbstg_get_pointer_subpool(ZBSTG_HEAP heap, const void *block);
/** Fills `stat` with the heap's statistics.
 * @param heap the heap
 * @param stat the record to fill
 * @return the total system bytes; 0 (record untouched) for a null argument */
ZBSHR_API(uint32_t) zbstg_stat(ZBSTG_HEAP heap, ZBSTG_STAT *stat);
/** Stores a caller's value in the heap.
 * @param heap the heap
 * @param value the value to keep
 * @return the previous value; 0 for a null heap */
ZBSHR_API(uint32_t) zbstg_sos(ZBSTG_HEAP heap, uint32_t value);
/** Heap validation hook.
 * @param heap the heap (not examined)
 * @return 1 */
ZBSHR_API(int32_t) zbstg_validate(ZBSTG_HEAP heap);
/** Writes a raw image of the sub-pools of `pool` to a file.
 * @param heap the heap
 * @param pool the pool; 0 = all pools
 * @param file_name the file to create
 * @return 1 on success, 0 when the file cannot be created or an argument is null */
ZBSHR_API(int32_t) zbstg_write_debug(ZBSTG_HEAP heap, uint32_t pool, const char *file_name);

/* Generation and leak tracking are disabled: zbstg_nextGeneration returns 0,
 * the dump functions do nothing. */
/** Generation tracking; disabled.
 * @param heap the heap (not used)
 * @return 0 */
ZBSHR_API(int32_t) zbstg_nextGeneration(ZBSTG_HEAP heap);
/** Leak report; disabled, does nothing.
 * @param heap the heap (not used) */
ZBSHR_API(void) zbstg_dumpLeaks(ZBSTG_HEAP heap);
/** Heap dump; disabled, does nothing.
 * @param heap the heap (not used) */
ZBSHR_API(void) zbstg_dumpHeap(ZBSTG_HEAP heap);

/* Aligned allocation is not provided: both return null. */
/** Aligned allocation; not provided.
 * @param heap not used
 * @param size not used
 * @param alignment not used
 * @param pool not used
 * @return null */
ZBSHR_API(void *) zbstg_alloc_align(ZBSTG_HEAP heap, uint32_t size, uint32_t alignment,
                                    uint32_t pool);
/** Aligned reallocation; not provided (the block is left as it is).
 * @param heap not used
 * @param block not used
 * @param size not used
 * @param alignment not used
 * @param pool not used
 * @return null */
ZBSHR_API(void *) zbstg_realloc_align(ZBSTG_HEAP heap, void *block, uint32_t size,
                                      uint32_t alignment, uint32_t pool);

/* Debug variants: the caller's source position is accepted and ignored.
 * (zbstg_dbstrdup is declared with the string helpers below.) */
/** Debug variant of zbstg_alloc.
 * @param heap the heap
 * @param size bytes wanted
 * @param pool owning pool; 0 = the default pool
 * @param file caller's source file; ignored
 * @param line caller's source line; ignored
 * @return as zbstg_alloc */
ZBSHR_API(void *) zbstg_dballoc(ZBSTG_HEAP heap, uint32_t size, uint32_t pool,
                                const char *file, int32_t line);
/** Debug variant of zbstg_realloc.
 * @param heap the heap
 * @param block the block; null allocates a new one
 * @param size new size in bytes
 * @param pool owning pool; 0 = the default pool
 * @param file caller's source file; ignored
 * @param line caller's source line; ignored
 * @return as zbstg_realloc */
ZBSHR_API(void *) zbstg_dbrealloc(ZBSTG_HEAP heap, void *block, uint32_t size, uint32_t pool,
                                  const char *file, int32_t line);
/* Only the low 16 bits of `subpool_size` are used. */
/** Debug variant of zbstg_begin.
 * @param subpool_size size of a sub-pool; only the low 16 bits are used (0 means 4088)
 * @param file caller's source file; ignored
 * @param line caller's source line; ignored
 * @return the heap, as zbstg_begin */
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin(uint32_t subpool_size, const char *file, int32_t line);
/** Debug variant of zbstg_begin_allocflags.
 * @param subpool_size size of a sub-pool; only the low 16 bits are used (0 means 4088)
 * @param alloc_flags GlobalAlloc flags of the sub-pools and large blocks
 * @param file caller's source file; ignored
 * @param line caller's source line; ignored
 * @return the heap, as zbstg_begin_allocflags */
ZBSHR_API(ZBSTG_HEAP) zbstg_dbbegin_allocflags(uint32_t subpool_size, uint32_t alloc_flags,
                                               const char *file, int32_t line);

/* ---- Shareable (DDE) global memory ------------------------------------- */
/* Blocks outside any heap: a global block (flags 0x2002) whose first slot
 * holds its own handle; the caller gets the address just after that slot.
 * The slot is pointer-wide (4 bytes on 32-bit hosts, 8 on 64-bit hosts). */
/** A new shareable block outside any heap (global block, flags 0x2002, left locked) whose
 * hidden first slot holds its handle.
 * @param size bytes wanted after the handle slot
 * @return the address after the slot (free it with zbstg_dde_free), or null when the block
 *     cannot be allocated or locked */
ZBSHR_API(void *) zbstg_dde_alloc(uint16_t size);
/** Unlocks and frees a block from zbstg_dde_alloc.
 * @param block the address zbstg_dde_alloc returned; null is ignored */
ZBSHR_API(void) zbstg_dde_free(void *block);
/** The global handle stored in a block's slot.
 * @param block the address zbstg_dde_alloc returned
 * @return the handle; null for a null block */
ZBSHR_API(void *) zbstg_dde_get_handle(const void *block);
/* GlobalLock(handle) + slot width: a failed lock does not give null. */
/** Locks a global handle and steps over its handle slot.
 * @param handle a handle from zbstg_dde_get_handle
 * @return the locked address plus the slot width (a failed lock gives the slot width, not
 *     null) */
ZBSHR_API(void *) zbstg_dde_lock(void *handle);
/** Unlocks a global handle (GlobalUnlock).
 * @param handle the handle
 * @return non-zero while the block stays locked, else 0 */
ZBSHR_API(int32_t) zbstg_dde_unlock(void *handle);

/* ---- String and bulk-memory helpers, block store, start-up (strings.cpp, blockstore, startup) ---- */

/* Allocating helpers: heap first, pool last (pool 0 = the default pool). */
/** A copy of `s` in a new block of strlen + 1 bytes.
 * @param heap the heap
 * @param s the string
 * @param pool owning pool; 0 = the default pool
 * @return the copy (free it with zbstg_free); null for a null string or heap */
ZBSHR_API(char *) zbstg_strdup(ZBSTG_HEAP heap, const char *s, uint32_t pool);
/** As zbstg_strdup; the caller's source position is accepted and ignored.
 * @param heap the heap
 * @param s the string
 * @param pool owning pool; 0 = the default pool
 * @param file caller's source file; ignored
 * @param line caller's source line; ignored
 * @return the copy (free it with zbstg_free); null for a null string or heap */
ZBSHR_API(char *) zbstg_dbstrdup(ZBSTG_HEAP heap, const char *s, uint32_t pool,
                                 const char *file, int32_t line);
/** A block of n + 2 bytes that records n in its last two bytes and carries the string-length
 * flag; when n + 2 is 63,997 or more, a plain block of n.
 * @param heap the heap
 * @param n string length to record
 * @param pool owning pool; 0 = the default pool
 * @return the block (free it with zbstg_free); null when n exceeds 2,147,483,647 or for a null
 *     heap */
ZBSHR_API(void *) zbstg_allocstring(ZBSTG_HEAP heap, uint32_t n, uint32_t pool);
/** The length recorded by zbstg_allocstring.
 * @param block a heap block
 * @return for a flagged block the recorded n - 1 (so -1 for n 0); otherwise strlen of the
 *     block; 0 for null */
ZBSHR_API(int32_t) zbstg_allocstringlen(const void *block);

/* The string builder: the caller keeps the buffer, its capacity and the used
 * length (terminator not counted); the buffer may move on every append. */
/** Appends a string to a growing buffer (growth: a quarter of the capacity, at least 512 bytes,
 * plus the text). A null buffer with capacity and used length 0 starts a new one. Nothing
 * happens on bad arguments or when the buffer cannot grow.
 * @param heap heap of the buffer
 * @param pool pool of the buffer
 * @param buffer the buffer; may move on every append
 * @param capacity the buffer's capacity in bytes; updated
 * @param used used length, terminator not counted; updated
 * @param s the text to append; null does nothing */
ZBSHR_API(void) zbstg_str_build(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                int32_t *capacity, int32_t *used, const char *s);
/** As zbstg_str_build.
 * @param heap heap of the buffer
 * @param pool pool of the buffer
 * @param buffer the buffer; may move on every append
 * @param capacity the buffer's capacity in bytes; updated
 * @param used used length, terminator not counted; updated
 * @param s the text to append; null does nothing */
ZBSHR_API(void) zbstg_str_build_huge(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                     int32_t *capacity, int32_t *used, const char *s);
/** Appends one character to a growing buffer (growth: 501 bytes at a time), keeping it
 * terminated.
 * @param heap heap of the buffer
 * @param pool pool of the buffer
 * @param buffer the buffer; may move on every append
 * @param capacity the buffer's capacity in bytes; updated
 * @param used used length, terminator not counted; updated
 * @param c the character */
ZBSHR_API(void) zbstg_str_build_char(ZBSTG_HEAP heap, uint32_t pool, char **buffer,
                                     int32_t *capacity, int32_t *used, char c);

/* In-place editing; each returns `s`. */
/** Deletes every occurrence of `c`, in place.
 * @param s the string (null is returned as is)
 * @param c the character to delete
 * @return `s` */
ZBSHR_API(char *) zbstg_str_remove_char(char *s, char c);
/** Deletes `c` from the end only, repeatedly, in place.
 * @param s the string (null is returned as is)
 * @param c the character to trim
 * @return `s` */
ZBSHR_API(char *) zbstg_str_trim_char(char *s, char c);
/** Capitalises words in place: '-' and '_' become spaces; double-byte characters and
 * single-byte katakana (0xA1-0xDF) pass unchanged.
 * @param s the string
 * @return `s` */
ZBSHR_API(char *) zbstg_str_wordcap(char *s);

/* Characters in the current ANSI code page. */
/** Upper case of a character in the current ANSI code page.
 * @param c the character
 * @return its upper-case form */
ZBSHR_API(char) zbstg_ansitoupper(char c);
/** Lower case of a character in the current ANSI code page.
 * @param c the character
 * @return its lower-case form */
ZBSHR_API(char) zbstg_ansitolower(char c);
/* Collation of two one-character strings: negative, 0 or positive. */
/** Compares two characters as one-character strings in the system's collation order.
 * @param a first character
 * @param b second character
 * @return negative, 0 or positive */
ZBSHR_API(int32_t) zbstg_lchrcmp(char a, char b);
/** As zbstg_lchrcmp, ignoring case.
 * @param a first character
 * @param b second character
 * @return negative, 0 or positive */
ZBSHR_API(int32_t) zbstg_lchrcmpi(char a, char b);

/* Number conversions with 32-bit results (out-of-range values saturate as
 * the 32-bit runtime does). */
/** Decimal text to a 32-bit integer (out-of-range values saturate).
 * @param s the text
 * @return the value; 0 for null or no number */
ZBSHR_API(int32_t) zbstg_atoi(const char *s);
/** Same as zbstg_atoi.
 * @param s the text
 * @return the value; 0 for null or no number */
ZBSHR_API(int32_t) zbstg_atol(const char *s);
/** Text to double as the C run-time's strtod reads it in the "C" locale.
 * @param s the text
 * @return the value; 0 for null or no number */
ZBSHR_API(double) zbstg_atof(const char *s);
/** Text to double as the C run-time's strtod reads it in the "C" locale (out of range: HUGE_VAL
 * or 0 with errno ERANGE).
 * @param s the text
 * @param end receives the address after the number (the start of the text when there is none;
 *     null for a null text); may be null
 * @return the value; 0 when there is no number */
ZBSHR_API(double) zbstg_strtod(const char *s, char **end);
/* `end` is ignored and never written. */
/** Text to a 32-bit integer in the given base (out-of-range values saturate).
 * @param s the text
 * @param end ignored and never written
 * @param base 0 or 2..36
 * @return the value; 0 for null, no number or a bad base */
ZBSHR_API(int32_t) zbstg_strtol(const char *s, char **end, int32_t base);
/** Text to an unsigned 32-bit integer in the given base: the magnitude saturates at
 * 4,294,967,295, a leading minus negates it modulo 2^32.
 * @param s the text
 * @param end ignored and never written
 * @param base 0 or 2..36
 * @return the value; 0 for a null text, a bad base or a doubled sign */
ZBSHR_API(uint32_t) zbstg_strtoul(const char *s, char **end, int32_t base);
/* Unsigned decimal digits after leading white space, wrapping modulo 2^32;
 * 0 when no digit follows the white space. */
/** Unsigned decimal digits after leading white space, wrapping modulo 2^32.
 * @param s the text
 * @return the value; 0 when no digit follows the white space */
ZBSHR_API(uint32_t) zbstg_atou(const char *s);
/** Same as zbstg_atou.
 * @param s the text
 * @return the value; 0 when no digit follows the white space */
ZBSHR_API(uint32_t) zbstg_atoul(const char *s);

/* Bulk memory and strings, byte by byte, no segment limits. */
/** Compares two byte ranges.
 * @param a first range
 * @param b second range
 * @param n number of bytes
 * @return 0 when equal or n is 0, else the first difference as signed chars (a - b) */
ZBSHR_API(int16_t) zbstg_huge_memcmp(const void *a, const void *b, uint32_t n);
/* Forward byte copy (an overlapping destination above the source repeats
 * the source's leading bytes). */
/** Forward byte copy (an overlapping destination above the source repeats the source's leading
 * bytes).
 * @param dst destination
 * @param src source
 * @param n number of bytes
 * @return `dst` */
ZBSHR_API(void *) zbstg_huge_memcpy(void *dst, const void *src, uint32_t n);
/** Copies bytes; the ranges may overlap.
 * @param dst destination
 * @param src source
 * @param n number of bytes
 * @return `dst` */
ZBSHR_API(void *) zbstg_huge_memmove(void *dst, const void *src, uint32_t n);
/** Fills bytes.
 * @param dst destination
 * @param byte the value (its low byte is used)
 * @param n number of bytes
 * @return `dst` */
ZBSHR_API(void *) zbstg_huge_memset(void *dst, int32_t byte, uint32_t n);
/* First `c` in `s`, or null; the terminator is never found. */
/** Finds a character in a string; the terminator is never found.
 * @param s the string
 * @param c the character
 * @return the first `c` in `s`, or null */
ZBSHR_API(char *) zbstg_huge_strchr(const char *s, int32_t c);
/** Copies a string with its terminator (nothing is done when either pointer is null).
 * @param dst destination
 * @param src source
 * @return `dst` */
ZBSHR_API(char *) zbstg_huge_strcpy(char *dst, const char *src);
/** Length of a string.
 * @param s the string
 * @return its length; 0 for null */
ZBSHR_API(uint32_t) zbstg_huge_strlen(const char *s);
/* Copies at most n bytes and always writes a terminator right after the
 * copied bytes: at dst[n] when n bytes were copied (dst needs n + 1 bytes). */
/** Copies at most n bytes and always writes a terminator right after the copied bytes: at
 * dst[n] when n bytes were copied (dst needs n + 1 bytes). A shorter source leaves zeros up to
 * dst[n - 1].
 * @param dst destination
 * @param src source; null counts as empty
 * @param n most bytes to copy
 * @return `dst` */
ZBSHR_API(char *) zbstg_huge_strncpy(char *dst, const char *src, uint32_t n);
/** Finds a string in another.
 * @param s the string searched
 * @param t the string sought
 * @return the first occurrence of `t` in `s`, or null (also for a null argument) */
ZBSHR_API(char *) zbstg_huge_strstr(const char *s, const char *t);
/** Deletes a file.
 * @param file_name the file
 * @return 0 on success, -1 on failure */
ZBSHR_API(int32_t) zbstg_remove(const char *file_name);

/* ---- Fixed-size block store: byte blocks parked in a temporary file ---- */
/** A fixed-size block store handle. */
typedef struct zbfstg_s *ZBFSTG;
/** A new store in the heap and pool; its temporary file is created now.
 * @param heap heap of the store
 * @param pool pool of the store and of the blocks zbfstg_get returns
 * @return the store (release it with zbfstg_end), or null when no temporary file can be made */
ZBSHR_API(ZBFSTG) zbfstg_begin(ZBSTG_HEAP heap, uint32_t pool);
/** Writes n bytes to the store. Every record is written at the start of the file, and the first
 * position handed out is 0.
 * @param store the store
 * @param data the bytes
 * @param n number of bytes
 * @return the position recorded for them, or 0 on failure */
ZBSHR_API(int32_t) zbfstg_alloc(ZBFSTG store, const void *data, int32_t n);
/** A copy of the record at `pos`.
 * @param store the store
 * @param pos a position from zbfstg_alloc
 * @return a new block in the store's heap and pool (the caller frees it), or null */
ZBSHR_API(void *) zbfstg_get(ZBFSTG store, int32_t pos);
/** Does nothing.
 * @param store not used
 * @param pos not used
 * @return 1 */
ZBSHR_API(int32_t) zbfstg_free(ZBFSTG store, int32_t pos);
/** Deletes the temporary file and frees the store.
 * @param store the store
 * @return 1 */
ZBSHR_API(int32_t) zbfstg_end(ZBFSTG store);

/* ---- Library start-up and regional settings ---- */
/** Re-reads the regional settings from [intl]; the month and day names are loaded once. */
ZBSHR_API(void) zbshr_intl(void);
/** Shows the standard "not supported on this platform" notice.
 * @param owner owner window of the message box
 * @return the message box's answer */
ZBSHR_API(int32_t) ZBSHR_FeatureUnsupported(void *owner);
/** Unload hook of the older platform; does nothing.
 * @param param not used
 * @return 1 */
ZBSHR_API(int32_t) WEP(int32_t param);
/* ---- end of string helpers section ---- */

ZBSHR_END_DECLS

#endif
