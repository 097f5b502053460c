/* zbshr: containers family: ring lists with a current position, chained
 * hash tables, growable blocks, heap sort, binary search and byte-order
 * flipping.
 *
 * Lists and hash tables allocate their handles and nodes in the heap and pool
 * they were created with; they never free the caller's data (except
 * shlist_deleteFree). None of them is safe for use by two threads at once:
 * even a lookup moves the current position. */
#ifndef ZBSHR_CONTAINERS_H
#define ZBSHR_CONTAINERS_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* Heap blocks are only 4-byte aligned, so the records the containers keep in
 * heap blocks are packed to 4 bytes. */
#pragma pack(push, 4)

/* ---- Linked list --------------------------------------------------------- */

/** A list node. Nodes form a ring: the first node's `prev` is the last node
 * and the last node's `next` is the first; a lone node points to itself both
 * ways. A node passed to shlist_putafter must have been allocated with
 * zbstg_alloc in the list's heap, since the list frees it on removal. */
typedef struct SHLISTNODE {
  struct SHLISTNODE *prev;
  struct SHLISTNODE *next;
  void *data;
} SHLISTNODE;

/** A list handle. The ends are recognised by comparison with `first` and
 * `last`, never by null links. */
typedef struct SHLIST {
  SHLISTNODE *first;   /* null when empty */
  SHLISTNODE *last;    /* null when empty */
  SHLISTNODE *current; /* null when there is no current position */
  ZBSTG_HEAP heap;     /* heap of the nodes */
  uint32_t pool;       /* pool of the nodes and of the array a sort returns */
  int32_t count;       /* number of nodes */
} SHLIST;

#pragma pack(pop)

/** Traversal callback: called with (data, param); 0 stops the walk. */
typedef int32_t (ZBSHR_CALLBACK *SHLIST_VISIT)(void *data, intptr_t param);
/** Comparison of two data pointers: negative, 0 or positive. */
typedef int32_t (ZBSHR_CALLBACK *SH_COMPARE)(void *a, void *b);
/** Comparison with a caller parameter handed first. */
typedef int32_t (ZBSHR_CALLBACK *SH_COMPARE_PARAM)(intptr_t param, void *a, void *b);

/* shlist_sort flags. */
#define SHLIST_SORT_REBUILD 1  /* rebuild the list in sorted order */
#define SHLIST_SORT_NOARRAY 2  /* free the sorted array and return null */
#define SHLIST_SORT_EMPTY 4    /* empty the list; the data stay in the array */

/** A new empty list whose handle and nodes live in `heap` and `pool`. */
ZBSHR_API(SHLIST *) shlist_new(ZBSTG_HEAP heap, uint32_t pool);
/** Frees every node and the handle; the data are untouched. */
ZBSHR_API(void) shlist_delete(SHLIST *list);
/** Frees every node's data with zbstg_free in the list's heap, then the nodes
 * and the handle. Returns 0. */
ZBSHR_API(int32_t) shlist_deleteFree(SHLIST *list);
/** Number of nodes; 0 for a null handle. */
ZBSHR_API(int32_t) shlist_get_count(SHLIST *list);
/* Moves to the first (last) node and returns its data; null and no move when
 * the list is empty. */
ZBSHR_API(void *) shlist_get_first(SHLIST *list);
ZBSHR_API(void *) shlist_get_last(SHLIST *list);
/* Moves to the next (previous) node and returns its data. Past either end,
 * or without a current node, the position is cleared and null returned. */
ZBSHR_API(void *) shlist_get_next(SHLIST *list);
ZBSHR_API(void *) shlist_get_prev(SHLIST *list);
/** Data of the current node, or null. */
ZBSHR_API(void *) shlist_get_curr(SHLIST *list);
/* The current node (the position token), or null. */
ZBSHR_API(SHLISTNODE *) shlist_get_handle(SHLIST *list);
ZBSHR_API(SHLISTNODE *) shlist_curr_node(SHLIST *list);
/** Makes `node` current (not checked); returns the list. */
ZBSHR_API(SHLIST *) shlist_set_current(SHLIST *list, SHLISTNODE *node);
/** Replaces the current node's data; returns the previous data, or null when
 * there is no current node. */
ZBSHR_API(void *) shlist_update(SHLIST *list, void *data);
/** Adds a node after the current one and makes it current. 0 when the list is
 * not empty but has no current position (nothing is added then). */
ZBSHR_API(int32_t) shlist_addafter(SHLIST *list, void *data);
/** Adds a node before the current one and makes it current; 0 as above. */
ZBSHR_API(int32_t) shlist_addbefore(SHLIST *list, void *data);
/** shlist_addafter, result 1 or 0. */
ZBSHR_API(int32_t) shlist_insert_at_curr(SHLIST *list, void *data);
/** Appends at the end; the new node becomes current. 0 for a null handle. */
ZBSHR_API(int32_t) shlist_insert(SHLIST *list, void *data);
/** Links a caller-allocated node (data in its `data` field) after the current
 * one, as shlist_addafter. When it cannot be linked, the node is freed and
 * the result is 0. */
ZBSHR_API(int32_t) shlist_putafter(SHLIST *list, SHLISTNODE *node);
/** Unlinks and frees the current node and returns its data (null when there
 * is no current node). Removing the first node makes the next one current;
 * removing the last node leaves no current position. */
ZBSHR_API(void *) shlist_remove(SHLIST *list);
/** Calls `visit(data, param)` on each node from first to last until it
 * returns 0. Returns the last result, 1 for an empty list. The current
 * position is neither used nor changed.
 * The callback may remove any node (shlist_remove), the visited one included:
 * the walk goes on with the node that followed the visited one, or with the
 * first node after it that is still in the list. Nodes added after the
 * visited one may or may not be visited. Deleting the list (shlist_delete,
 * shlist_deleteFree) or a sort that takes the nodes out
 * (SHLIST_SORT_REBUILD, SHLIST_SORT_EMPTY) ends the walk after that call.
 * The callback must return normally (no longjmp out of it). */
ZBSHR_API(int32_t) shlist_traversal(SHLIST *list, intptr_t param, SHLIST_VISIT visit);
/* Sorts the data into a new array of `count` pointers allocated in the
 * list's heap and pool (the caller frees it with zbstg_free). Heap blocks are
 * only sure to be 4-byte aligned: where the processor insists on aligned
 * pointers, read the elements with memcpy. A null comparison compares the
 * data as strings in the system's collation order.
 * See the SHLIST_SORT_* flags; flags 0 leave the list unchanged. Null for a
 * null handle or an empty list. */
ZBSHR_API(void **) shlist_sort(SHLIST *list, SH_COMPARE compare, int32_t flags);
ZBSHR_API(void **) shlist_sort_param(SHLIST *list, intptr_t param, SH_COMPARE_PARAM compare,
                                     int32_t flags);

/* ---- Hash table ---------------------------------------------------------- */

/* Key functions derive an item's key (a string, or a list of strings for a
 * list-key table) from its data. With a key argument of 0 the function is
 * called as key(data); otherwise as key(argument, data), and the caller
 * passes a SHHASH_KEYFN_ARG cast to SHHASH_KEYFN. */
typedef void *(ZBSHR_CALLBACK *SHHASH_KEYFN)(void *data);
typedef void *(ZBSHR_CALLBACK *SHHASH_KEYFN_ARG)(intptr_t arg, void *data);

#pragma pack(push, 4)

/** One bucket: its list, null until the bucket's first insertion. */
typedef struct SHHASH_SLOT {
  SHLIST *list;
} SHHASH_SLOT;

typedef struct SHHASH {
  ZBSTG_HEAP heap;       /* heap of the table, bucket array and bucket lists */
  uint32_t pool;         /* pool of all of them */
  SHHASH_SLOT *buckets;  /* bucket-count slots */
  SHHASH_KEYFN keyfn;    /* null: the data pointer is the key */
  intptr_t keyarg;       /* 0: keyfn takes only the data */
  int32_t bucket_count;  /* fixed at creation */
  int32_t current;       /* bucket of the last search, insertion or step */
  int32_t item_count;
  int32_t unique;        /* non-zero: shhash_insert refuses duplicate keys */
  int32_t list_keys;     /* non-zero: keys are lists of strings */
} SHHASH;

#pragma pack(pop)

typedef struct SHHASH_STAT {
  double expected_chain; /* items / buckets, never below 1.0 */
  double actual_chain;   /* items / buckets in use, 0.0 when none is */
  int32_t longest_chain; /* the longest bucket list */
} SHHASH_STAT;

ZBSHR_API(SHHASH *) shhash_new(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique,
                               int32_t list_keys, ZBSTG_HEAP heap, uint32_t pool);
ZBSHR_API(SHHASH *) shhash_new_arg(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique,
                                   int32_t list_keys, ZBSTG_HEAP heap, uint32_t pool,
                                   intptr_t keyarg);
/** Frees the bucket lists, the bucket array and the handle (not the data). */
ZBSHR_API(void) shhash_delete(SHHASH *table);
/** Frees the bucket lists and sets the item count to 0 (nothing happens when
 * the count is already 0). */
ZBSHR_API(void) shhash_clear(SHHASH *table);
/** 1 when inserted; 2 when the table is unique and the key is present; 0 when
 * the table is null or has no buckets. */
ZBSHR_API(int32_t) shhash_insert(SHHASH *table, void *data);
/** The first item whose key equals `key`, or null. The key's bucket becomes
 * current and its list is positioned on the match (cleared when none). */
ZBSHR_API(void *) shhash_search(SHHASH *table, const void *key);
/* The next item of the current bucket after the previous match whose key
 * equals `key`, or null. */
ZBSHR_API(void *) shhash_searchNext(SHHASH *table, const void *key);
ZBSHR_API(void *) shhash_search_unique(SHHASH *table, const void *key);
/** Makes the key's bucket current and returns its list (null while empty). */
ZBSHR_API(SHLIST *) shhash_searchSlot(SHHASH *table, const void *key);
/** Removes the item at the current position of the current bucket and returns
 * its data (null when there is none). */
ZBSHR_API(void *) shhash_remove(SHHASH *table);
/* Iteration: bucket by bucket, each bucket in insertion order. */
ZBSHR_API(void *) shhash_get_first(SHHASH *table);
ZBSHR_API(void *) shhash_get_next(SHHASH *table);
/* shlist_traversal over each non-empty bucket until a callback returns 0;
 * the last result, or 1 when the table is empty. The callback may remove and
 * insert items; shhash_clear or shhash_delete inside it ends the walk after
 * that call. */
ZBSHR_API(int32_t) shhash_traversal(SHHASH *table, intptr_t param, SHLIST_VISIT visit);
ZBSHR_API(SHHASH_STAT *) shhash_statistics(SHHASH *table, SHHASH_STAT *stat);

/* ---- Growable blocks ----------------------------------------------------- */

#pragma pack(push, 4)
typedef struct SH_GRWBLK {
  void *data;         /* null until the first growth */
  int32_t step;       /* grow step, in items (never 0) */
  int32_t capacity;   /* items */
  int32_t count;      /* items in use */
  int32_t item_size;  /* bytes */
} SH_GRWBLK;
#pragma pack(pop)

ZBSHR_API(void) sh_grwblk_init(SH_GRWBLK *block, int32_t step, int32_t item_size);
ZBSHR_API(SH_GRWBLK *) sh_new_grwblk(ZBSTG_HEAP heap, int32_t step, int32_t item_size,
                                     uint32_t pool);
/** Copies one item to the end; returns its index, -1 on bad input. */
ZBSHR_API(int32_t) sh_add_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK *block, const void *item,
                                    uint32_t pool);
/** Copies one item to `index` (growing to index + step items when needed);
 * returns the item size, 0 on bad input. */
ZBSHR_API(int32_t) sh_set_grwblk_item(ZBSTG_HEAP heap, SH_GRWBLK *block, int32_t index,
                                      const void *item, uint32_t pool);
/** Copies `n` items to the end; returns the index of the first, -1 on bad
 * input. */
ZBSHR_API(int32_t) sh_append_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK *block, const void *items,
                                       int32_t n, uint32_t pool);
/** Frees the data and the descriptor (from sh_new_grwblk). */
ZBSHR_API(void) sh_grwblk_delete(ZBSTG_HEAP heap, SH_GRWBLK *block);
/** Stores the count, frees the descriptor and hands the data to the caller. */
ZBSHR_API(void *) sh_grwblk_close(ZBSTG_HEAP heap, SH_GRWBLK *block, int32_t *count);

/* ---- Sorting and searching ----------------------------------------------- */

/* In-place heap sort of `count` pointers into ascending order (not stable).
 * The array needs only 4-byte alignment (a heap block will do). */
ZBSHR_API(void) sh_heapsort(void **array, int32_t count, SH_COMPARE compare);
ZBSHR_API(void) sh_hugeheapsort(void **array, int32_t count, SH_COMPARE compare);
ZBSHR_API(void) sh_heapsort_param(intptr_t param, void **array, int32_t count,
                                  SH_COMPARE_PARAM compare);
ZBSHR_API(void) sh_hugeheapsort_param(intptr_t param, void **array, int32_t count,
                                      SH_COMPARE_PARAM compare);

/** Comparison of the searched key with the address of an item. */
typedef int32_t (ZBSHR_CALLBACK *SH_SEARCH_COMPARE)(const void *key, const void *item);

/** Index of an item that compares equal to `key`, or -1. */
ZBSHR_API(int32_t) sh_binary_search(const void *key, const void *base, int32_t item_size,
                                    int32_t count, SH_SEARCH_COMPARE compare);
/** As sh_binary_search, but sets *found to 1 on a match (0 otherwise), and on
 * a miss returns the index of the last item that sorts before the key (-1
 * when none does). */
ZBSHR_API(int32_t) sh_bin_search(const void *key, const void *base, int32_t item_size,
                                 int32_t count, SH_SEARCH_COMPARE compare, int32_t *found);

/** A keyword table entry for shBinSrch / shBinSrchi. */
typedef struct SHKEYWORD {
  const char *key;
  int32_t value;
} SHKEYWORD;

/* Value of the entry whose key equals `key` (case-sensitive, resp. ignoring
 * ASCII case), or -1. The table is sorted by key in that comparison's order
 * (bytes compared as unsigned). */
ZBSHR_API(int32_t) shBinSrch(const char *key, const SHKEYWORD *table, int32_t count);
ZBSHR_API(int32_t) shBinSrchi(const char *key, const SHKEYWORD *table, int32_t count);

/* ---- Byte-order flipping ------------------------------------------------- */

/** A flip function as shFlipDataLoop calls it: (address, extra argument). */
typedef void *(ZBSHR_CALLBACK *SHFLIPFN)(void *value, int32_t extra);

/* Each reverses one value in place and returns the address just past it. */
ZBSHR_API(void *) shFlipShort(void *value);                 /* 2 bytes */
ZBSHR_API(void *) shFlipLong(void *value);                  /* 4 bytes */
ZBSHR_API(void *) shFlipTimeT(void *value, int32_t unused); /* 4 bytes */
ZBSHR_API(void *) shFlipDouble(void *value);                /* 8 bytes */
/** A decimal in its 16-byte slot: the seven 16-bit words at offsets 0..12 are
 * swapped; bytes 14 and 15 are left alone. Advances 16. */
ZBSHR_API(void *) shFlipSHDEC(void *value);
/** Applies `flip` `count` times from `value` on, chaining the addresses it
 * returns; returns the final address (`value` when count <= 0, null for a
 * null address). The one-argument flip functions above may be passed cast to
 * SHFLIPFN. */
ZBSHR_API(void *) shFlipDataLoop(void *value, SHFLIPFN flip, int32_t count, int32_t extra);
/** The variant for data already in native order: does nothing and returns
 * `value`. */
ZBSHR_API(void *) shFlipDataLoopNative(void *value, SHFLIPFN flip, int32_t count,
                                       int32_t extra);
/* The module's "data is native" flag (0 at load): stored and returned only. */
ZBSHR_API(int32_t) shSetFlipDataNative(int32_t native);
ZBSHR_API(int32_t) shGetFlipDataNative(void);

ZBSHR_END_DECLS

#endif
