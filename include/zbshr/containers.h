/** @file
 * zbshr: containers family: ring lists with a current position, chained
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
  struct SHLISTNODE *prev; /**< previous node (the last node, from the first) */
  struct SHLISTNODE *next; /**< next node (the first node, from the last) */
  void *data;              /**< the caller's data */
} SHLISTNODE;

/** A list handle. The ends are recognised by comparison with `first` and
 * `last`, never by null links. */
typedef struct SHLIST {
  SHLISTNODE *first;   /**< null when empty */
  SHLISTNODE *last;    /**< null when empty */
  SHLISTNODE *current; /**< null when there is no current position */
  ZBSTG_HEAP heap;     /**< heap of the nodes */
  uint32_t pool;       /**< pool of the nodes and of the array a sort returns */
  int32_t count;       /**< number of nodes */
} SHLIST;

#pragma pack(pop)

/** Traversal callback: called with (data, param); 0 stops the walk. */
typedef int32_t (ZBSHR_CALLBACK *SHLIST_VISIT)(void *data, intptr_t param);
/** Comparison of two data pointers: negative, 0 or positive. */
typedef int32_t (ZBSHR_CALLBACK *SH_COMPARE)(void *a, void *b);
/** Comparison with a caller parameter handed first. */
typedef int32_t (ZBSHR_CALLBACK *SH_COMPARE_PARAM)(intptr_t param, void *a, void *b);

/* shlist_sort flags. */
#define SHLIST_SORT_REBUILD 1  /**< rebuild the list in sorted order */
#define SHLIST_SORT_NOARRAY 2  /**< free the sorted array and return null */
#define SHLIST_SORT_EMPTY 4    /**< empty the list; the data stay in the array */

/** A new empty list whose handle and nodes live in `heap` and `pool`.
 * @param heap heap of the handle and the nodes
 * @param pool pool of the handle, the nodes and of the arrays shlist_sort returns
 * @return the new list (free it with shlist_delete or shlist_deleteFree), or null when it
 *     cannot be allocated */
ZBSHR_API(SHLIST *) shlist_new(ZBSTG_HEAP heap, uint32_t pool);
/** Frees every node and the handle; the data are untouched.
 * @param list the list; null is ignored */
ZBSHR_API(void) shlist_delete(SHLIST *list);
/** Frees every node's data with zbstg_free in the list's heap, then the nodes and the handle.
 * @param list the list
 * @return 0 */
ZBSHR_API(int32_t) shlist_deleteFree(SHLIST *list);
/** Number of nodes.
 * @param list the list
 * @return the node count; 0 for a null handle */
ZBSHR_API(int32_t) shlist_get_count(SHLIST *list);
/* Moves to the first (last) node and returns its data; null and no move when
 * the list is empty. */
/** Moves to the first node and returns its data.
 * @param list the list
 * @return the first node's data; null (and no move) when the list is empty */
ZBSHR_API(void *) shlist_get_first(SHLIST *list);
/** Moves to the last node and returns its data.
 * @param list the list
 * @return the last node's data; null (and no move) when the list is empty */
ZBSHR_API(void *) shlist_get_last(SHLIST *list);
/* Moves to the next (previous) node and returns its data. Past either end,
 * or without a current node, the position is cleared and null returned. */
/** Moves to the next node and returns its data. Past the end, or without a current node, the
 * position is cleared.
 * @param list the list
 * @return the next node's data, or null */
ZBSHR_API(void *) shlist_get_next(SHLIST *list);
/** Moves to the previous node and returns its data. Before the start, or without a current
 * node, the position is cleared.
 * @param list the list
 * @return the previous node's data, or null */
ZBSHR_API(void *) shlist_get_prev(SHLIST *list);
/** Data of the current node.
 * @param list the list
 * @return the current node's data, or null when there is no current node */
ZBSHR_API(void *) shlist_get_curr(SHLIST *list);
/* The current node (the position token), or null. */
/** The current node, as a position token for shlist_set_current.
 * @param list the list
 * @return the current node, or null (also for a null handle) */
ZBSHR_API(SHLISTNODE *) shlist_get_handle(SHLIST *list);
/** The current node (same as shlist_get_handle).
 * @param list the list
 * @return the current node, or null (also for a null handle) */
ZBSHR_API(SHLISTNODE *) shlist_curr_node(SHLIST *list);
/** Makes `node` current (not checked).
 * @param list the list
 * @param node a node of this list, or null to clear the position
 * @return the list */
ZBSHR_API(SHLIST *) shlist_set_current(SHLIST *list, SHLISTNODE *node);
/** Replaces the current node's data.
 * @param list the list
 * @param data the new data
 * @return the previous data, or null when there is no current node */
ZBSHR_API(void *) shlist_update(SHLIST *list, void *data);
/** Adds a node after the current one and makes it current.
 * @param list the list
 * @param data the data of the new node (not copied)
 * @return 1 when added; 0 when the list is not empty but has no current position (nothing is
 *     added then) */
ZBSHR_API(int32_t) shlist_addafter(SHLIST *list, void *data);
/** Adds a node before the current one and makes it current.
 * @param list the list
 * @param data the data of the new node (not copied)
 * @return 1 when added; 0 when the list is not empty but has no current position (nothing is
 *     added then) */
ZBSHR_API(int32_t) shlist_addbefore(SHLIST *list, void *data);
/** Same as shlist_addafter.
 * @param list the list
 * @param data the data of the new node (not copied)
 * @return 1 when added, else 0 */
ZBSHR_API(int32_t) shlist_insert_at_curr(SHLIST *list, void *data);
/** Appends a node at the end; the new node becomes current.
 * @param list the list
 * @param data the data of the new node (not copied)
 * @return 1 when added; 0 for a null handle */
ZBSHR_API(int32_t) shlist_insert(SHLIST *list, void *data);
/** Links a caller-allocated node (data in its `data` field) after the current one, as
 * shlist_addafter. When it cannot be linked, the node is freed.
 * @param list the list
 * @param node a node allocated with zbstg_alloc in the list's heap; the list owns it from now
 *     on
 * @return 1 when linked, else 0 */
ZBSHR_API(int32_t) shlist_putafter(SHLIST *list, SHLISTNODE *node);
/** Unlinks and frees the current node. Removing the first node makes the next one current;
 * removing the last node leaves no current position.
 * @param list the list
 * @return the removed node's data (the caller's again), or null when there is no current node */
ZBSHR_API(void *) shlist_remove(SHLIST *list);
/** Calls `visit(data, param)` on each node from first to last until it returns 0. The current
 * position is neither used nor changed. The callback may remove any node (shlist_remove), the
 * visited one included: the walk goes on with the node that followed the visited one, or with
 * the first node after it that is still in the list. Nodes added after the visited one may or
 * may not be visited. Deleting the list (shlist_delete, shlist_deleteFree) or a sort that
 * takes the nodes out (SHLIST_SORT_REBUILD, SHLIST_SORT_EMPTY) ends the walk after that call.
 * The callback must return normally (no longjmp out of it).
 * @param list the list
 * @param param passed to every call of `visit`
 * @param visit the callback
 * @return the last result of `visit`, 1 for an empty list */
ZBSHR_API(int32_t) shlist_traversal(SHLIST *list, intptr_t param, SHLIST_VISIT visit);
/* Sorts the data into a new array of `count` pointers allocated in the
 * list's heap and pool (the caller frees it with zbstg_free). Heap blocks are
 * only sure to be 4-byte aligned: where the processor insists on aligned
 * pointers, read the elements with memcpy. A null comparison compares the
 * data as strings in the system's collation order.
 * See the SHLIST_SORT_* flags; flags 0 leave the list unchanged. Null for a
 * null handle or an empty list. */
/** Sorts the data into a new array of `count` pointers allocated in the list's heap and pool.
 * Heap blocks are only sure to be 4-byte aligned: where the processor insists on aligned
 * pointers, read the elements with memcpy.
 * @param list the list
 * @param compare comparison of two data pointers; null compares the data as strings in the
 *     system's collation order
 * @param flags SHLIST_SORT_* bits; 0 leaves the list unchanged
 * @return the sorted array (the caller frees it with zbstg_free); null with
 *     SHLIST_SORT_NOARRAY, for a null handle or an empty list */
ZBSHR_API(void **) shlist_sort(SHLIST *list, SH_COMPARE compare, int32_t flags);
/** As shlist_sort, with a caller parameter handed to the comparison.
 * @param list the list
 * @param param passed first to every call of `compare`
 * @param compare comparison; null compares the data as strings in the system's collation order
 * @param flags SHLIST_SORT_* bits; 0 leaves the list unchanged
 * @return the sorted array (the caller frees it with zbstg_free); null with
 *     SHLIST_SORT_NOARRAY, for a null handle or an empty list */
ZBSHR_API(void **) shlist_sort_param(SHLIST *list, intptr_t param, SH_COMPARE_PARAM compare,
                                     int32_t flags);

/* ---- Hash table ---------------------------------------------------------- */

/* Key functions derive an item's key (a string, or a list of strings for a
 * list-key table) from its data. With a key argument of 0 the function is
 * called as key(data); otherwise as key(argument, data), and the caller
 * passes a SHHASH_KEYFN_ARG cast to SHHASH_KEYFN. */
/** Key function called as key(data). */
typedef void *(ZBSHR_CALLBACK *SHHASH_KEYFN)(void *data);
/** Key function called as key(argument, data). */
typedef void *(ZBSHR_CALLBACK *SHHASH_KEYFN_ARG)(intptr_t arg, void *data);

#pragma pack(push, 4)

/** One bucket: its list, null until the bucket's first insertion. */
typedef struct SHHASH_SLOT {
  SHLIST *list; /**< the bucket's items; null until the first insertion */
} SHHASH_SLOT;

/** A hash table handle: chained buckets, each a list of the caller's data. */
typedef struct SHHASH {
  ZBSTG_HEAP heap;       /**< heap of the table, bucket array and bucket lists */
  uint32_t pool;         /**< pool of all of them */
  SHHASH_SLOT *buckets;  /**< bucket-count slots */
  SHHASH_KEYFN keyfn;    /**< null: the data pointer is the key */
  intptr_t keyarg;       /**< 0: keyfn takes only the data */
  int32_t bucket_count;  /**< fixed at creation */
  int32_t current;       /**< bucket of the last search, insertion or step */
  int32_t item_count;    /**< number of items */
  int32_t unique;        /**< non-zero: shhash_insert refuses duplicate keys */
  int32_t list_keys;     /**< non-zero: keys are lists of strings */
} SHHASH;

#pragma pack(pop)

/** Chain statistics filled by shhash_statistics. */
typedef struct SHHASH_STAT {
  double expected_chain; /**< items / buckets, never below 1.0 */
  double actual_chain;   /**< items / buckets in use, 0.0 when none is */
  int32_t longest_chain; /**< the longest bucket list */
} SHHASH_STAT;

/** A new hash table whose handle, bucket array and bucket lists live in `heap` and `pool`. The
 * key function is called as key(data).
 * @param buckets number of buckets, fixed for the table's life (a negative count counts as 0;
 *     a table without buckets accepts no items)
 * @param keyfn derives an item's key from its data; null makes the data pointer the key
 * @param unique non-zero: shhash_insert refuses an item whose key is present
 * @param list_keys non-zero: keys are lists of strings rather than strings
 * @param heap heap of the table
 * @param pool pool of the table
 * @return the new table (free it with shhash_delete), or null when it cannot be allocated */
ZBSHR_API(SHHASH *) shhash_new(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique,
                               int32_t list_keys, ZBSTG_HEAP heap, uint32_t pool);
/** As shhash_new, with an argument for the key function: a non-zero `keyarg` has it called as
 * key(keyarg, data) (pass a SHHASH_KEYFN_ARG cast to SHHASH_KEYFN).
 * @param buckets number of buckets, fixed for the table's life (a negative count counts as 0)
 * @param keyfn derives an item's key from its data; null makes the data pointer the key
 * @param unique non-zero: shhash_insert refuses an item whose key is present
 * @param list_keys non-zero: keys are lists of strings rather than strings
 * @param heap heap of the table
 * @param pool pool of the table
 * @param keyarg first argument of the key function; 0: the function takes only the data
 * @return the new table (free it with shhash_delete), or null when it cannot be allocated */
ZBSHR_API(SHHASH *) shhash_new_arg(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique,
                                   int32_t list_keys, ZBSTG_HEAP heap, uint32_t pool,
                                   intptr_t keyarg);
/** Frees the bucket lists, the bucket array and the handle (not the data).
 * @param table the table; null is ignored */
ZBSHR_API(void) shhash_delete(SHHASH *table);
/** Frees the bucket lists and sets the item count to 0 (nothing happens when the count is
 * already 0). The data are not freed.
 * @param table the table; null is ignored */
ZBSHR_API(void) shhash_clear(SHHASH *table);
/** Adds an item to its key's bucket, which becomes current.
 * @param table the table
 * @param data the item (not copied)
 * @return 1 when inserted; 2 when the table is unique and the key is present; 0 when the table
 *     is null or has no buckets, or memory runs out */
ZBSHR_API(int32_t) shhash_insert(SHHASH *table, void *data);
/** The first item whose key equals `key`. The key's bucket becomes current and its list is
 * positioned on the match (cleared when none).
 * @param table the table
 * @param key the key sought
 * @return the item, or null */
ZBSHR_API(void *) shhash_search(SHHASH *table, const void *key);
/* The next item of the current bucket after the previous match whose key
 * equals `key`, or null. */
/** The next item of the current bucket, after the previous match, whose key equals `key`.
 * @param table the table
 * @param key the key sought (as given to shhash_search)
 * @return the item, or null when there is no further match */
ZBSHR_API(void *) shhash_searchNext(SHHASH *table, const void *key);
/** Same as shhash_search.
 * @param table the table
 * @param key the key sought
 * @return the first matching item, or null */
ZBSHR_API(void *) shhash_search_unique(SHHASH *table, const void *key);
/** Makes the key's bucket current and returns its list.
 * @param table the table
 * @param key the key
 * @return the bucket's list (owned by the table), or null while the bucket is empty or the
 *     table has no buckets */
ZBSHR_API(SHLIST *) shhash_searchSlot(SHHASH *table, const void *key);
/** Removes the item at the current position of the current bucket.
 * @param table the table
 * @return the removed item's data, or null when there is none */
ZBSHR_API(void *) shhash_remove(SHHASH *table);
/* Iteration: bucket by bucket, each bucket in insertion order. */
/** Starts an iteration: bucket by bucket, each bucket in insertion order.
 * @param table the table
 * @return the first item, or null when the table is empty */
ZBSHR_API(void *) shhash_get_first(SHHASH *table);
/** Continues the iteration started by shhash_get_first.
 * @param table the table
 * @return the next item, or null past the last one */
ZBSHR_API(void *) shhash_get_next(SHHASH *table);
/* shlist_traversal over each non-empty bucket until a callback returns 0;
 * the last result, or 1 when the table is empty. The callback may remove and
 * insert items; shhash_clear or shhash_delete inside it ends the walk after
 * that call. */
/** shlist_traversal over each non-empty bucket until a callback returns 0. The callback may
 * remove and insert items; shhash_clear or shhash_delete inside it ends the walk after that
 * call.
 * @param table the table
 * @param param passed to every call of `visit`
 * @param visit the callback
 * @return the last result of `visit`, or 1 when the table is empty */
ZBSHR_API(int32_t) shhash_traversal(SHHASH *table, intptr_t param, SHLIST_VISIT visit);
/** Fills `stat` with the table's chain statistics (expected chain 1.0, actual 0.0 and longest 0
 * for a null table).
 * @param table the table
 * @param stat the record to fill
 * @return `stat`; null when `stat` is null */
ZBSHR_API(SHHASH_STAT *) shhash_statistics(SHHASH *table, SHHASH_STAT *stat);

/* ---- Growable blocks ----------------------------------------------------- */

#pragma pack(push, 4)
/** A growable block: an array of fixed-size items that grows by `step` items. */
typedef struct SH_GRWBLK {
  void *data;         /**< null until the first growth */
  int32_t step;       /**< grow step, in items (never 0) */
  int32_t capacity;   /**< items */
  int32_t count;      /**< items in use */
  int32_t item_size;  /**< bytes */
} SH_GRWBLK;
#pragma pack(pop)

/** Initialises a caller-owned descriptor: no data, no items.
 * @param block the descriptor; null is ignored
 * @param step grow step, in items (must not be 0)
 * @param item_size size of an item, in bytes */
ZBSHR_API(void) sh_grwblk_init(SH_GRWBLK *block, int32_t step, int32_t item_size);
/** A new descriptor allocated in the heap and pool, initialised as by sh_grwblk_init.
 * @param heap heap of the descriptor
 * @param step grow step, in items (must not be 0)
 * @param item_size size of an item, in bytes
 * @param pool pool of the descriptor
 * @return the descriptor (free it with sh_grwblk_delete or sh_grwblk_close), or null when it
 *     cannot be allocated */
ZBSHR_API(SH_GRWBLK *) sh_new_grwblk(ZBSTG_HEAP heap, int32_t step, int32_t item_size,
                                     uint32_t pool);
/** Copies one item to the end, growing the data by `step` items when full.
 * @param heap heap of the data
 * @param block the descriptor
 * @param item the item to copy
 * @param pool pool of the data
 * @return the item's index; -1 on bad input or when the data cannot grow */
ZBSHR_API(int32_t) sh_add_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK *block, const void *item,
                                    uint32_t pool);
/** Copies one item to `index` (growing to index + step items when needed); the count becomes
 * index + 1 when it was smaller.
 * @param heap heap of the data
 * @param block the descriptor
 * @param index index of the item, >= 0
 * @param item the item to copy
 * @param pool pool of the data
 * @return the item size; 0 on bad input or when the data cannot grow */
ZBSHR_API(int32_t) sh_set_grwblk_item(ZBSTG_HEAP heap, SH_GRWBLK *block, int32_t index,
                                      const void *item, uint32_t pool);
/** Copies `n` items to the end.
 * @param heap heap of the data
 * @param block the descriptor
 * @param items the items to copy
 * @param n number of items, >= 0
 * @param pool pool of the data
 * @return the index of the first item copied; -1 on bad input or when the data cannot grow */
ZBSHR_API(int32_t) sh_append_to_grwblk(ZBSTG_HEAP heap, SH_GRWBLK *block, const void *items,
                                       int32_t n, uint32_t pool);
/** Frees the data and the descriptor (from sh_new_grwblk).
 * @param heap heap of the data and the descriptor
 * @param block the descriptor; null is ignored */
ZBSHR_API(void) sh_grwblk_delete(ZBSTG_HEAP heap, SH_GRWBLK *block);
/** Stores the count, frees the descriptor and hands the data to the caller.
 * @param heap heap of the descriptor
 * @param block the descriptor (from sh_new_grwblk)
 * @param count receives the number of items (0 for a null descriptor); may be null
 * @return the data, now the caller's (free with zbstg_free); null when there are none */
ZBSHR_API(void *) sh_grwblk_close(ZBSTG_HEAP heap, SH_GRWBLK *block, int32_t *count);

/* ---- Sorting and searching ----------------------------------------------- */

/* In-place heap sort of `count` pointers into ascending order (not stable).
 * The array needs only 4-byte alignment (a heap block will do). */
/** In-place heap sort of `count` pointers into ascending order (not stable). The array needs
 * only 4-byte alignment (a heap block will do).
 * @param array the pointers
 * @param count number of pointers
 * @param compare comparison of two pointers; null leaves the array as it is */
ZBSHR_API(void) sh_heapsort(void **array, int32_t count, SH_COMPARE compare);
/** Same as sh_heapsort.
 * @param array the pointers
 * @param count number of pointers
 * @param compare comparison of two pointers; null leaves the array as it is */
ZBSHR_API(void) sh_hugeheapsort(void **array, int32_t count, SH_COMPARE compare);
/** As sh_heapsort, with a caller parameter handed to the comparison.
 * @param param passed first to every call of `compare`
 * @param array the pointers
 * @param count number of pointers
 * @param compare comparison; null leaves the array as it is */
ZBSHR_API(void) sh_heapsort_param(intptr_t param, void **array, int32_t count,
                                  SH_COMPARE_PARAM compare);
/** Same as sh_heapsort_param.
 * @param param passed first to every call of `compare`
 * @param array the pointers
 * @param count number of pointers
 * @param compare comparison; null leaves the array as it is */
ZBSHR_API(void) sh_hugeheapsort_param(intptr_t param, void **array, int32_t count,
                                      SH_COMPARE_PARAM compare);

/** Comparison of the searched key with the address of an item. */
typedef int32_t (ZBSHR_CALLBACK *SH_SEARCH_COMPARE)(const void *key, const void *item);

/** Binary search of a sorted array for an item that compares equal to `key`.
 * @param key the key, handed first to `compare`
 * @param base the array
 * @param item_size size of an item, in bytes
 * @param count number of items
 * @param compare comparison of the key with an item's address
 * @return the index of a matching item, or -1 */
ZBSHR_API(int32_t) sh_binary_search(const void *key, const void *base, int32_t item_size,
                                    int32_t count, SH_SEARCH_COMPARE compare);
/** As sh_binary_search, but also reports where a missing key would go.
 * @param key the key, handed first to `compare`
 * @param base the array
 * @param item_size size of an item, in bytes
 * @param count number of items
 * @param compare comparison of the key with an item's address
 * @param found set to 1 on a match, 0 otherwise
 * @return the index of the match; on a miss the index of the last item that sorts before the
 *     key (-1 when none does) */
ZBSHR_API(int32_t) sh_bin_search(const void *key, const void *base, int32_t item_size,
                                 int32_t count, SH_SEARCH_COMPARE compare, int32_t *found);

/** A keyword table entry for shBinSrch / shBinSrchi. */
typedef struct SHKEYWORD {
  const char *key; /**< the keyword */
  int32_t value;   /**< the value returned for it */
} SHKEYWORD;

/* Value of the entry whose key equals `key` (case-sensitive, resp. ignoring
 * ASCII case), or -1. The table is sorted by key in that comparison's order
 * (bytes compared as unsigned). */
/** Looks a keyword up in a table sorted by key (case-sensitive, bytes compared as unsigned).
 * @param key the keyword
 * @param table the table
 * @param count number of entries
 * @return the value of the entry whose key equals `key`, or -1 */
ZBSHR_API(int32_t) shBinSrch(const char *key, const SHKEYWORD *table, int32_t count);
/** Looks a keyword up in a table sorted by key ignoring ASCII case (bytes compared as
 * unsigned).
 * @param key the keyword
 * @param table the table
 * @param count number of entries
 * @return the value of the entry whose key equals `key` ignoring ASCII case, or -1 */
ZBSHR_API(int32_t) shBinSrchi(const char *key, const SHKEYWORD *table, int32_t count);

/* ---- Byte-order flipping ------------------------------------------------- */

/** A flip function as shFlipDataLoop calls it: (address, extra argument). */
typedef void *(ZBSHR_CALLBACK *SHFLIPFN)(void *value, int32_t extra);

/* Each reverses one value in place and returns the address just past it. */
/** Reverses the byte order of a 2-byte value in place.
 * @param value address of the value
 * @return the address just past it (null for a null address) */
ZBSHR_API(void *) shFlipShort(void *value);                 /* 2 bytes */
/** Reverses the byte order of a 4-byte value in place.
 * @param value address of the value
 * @return the address just past it (null for a null address) */
ZBSHR_API(void *) shFlipLong(void *value);                  /* 4 bytes */
/** Reverses the byte order of a 4-byte time value in place (as shFlipLong).
 * @param value address of the value
 * @param unused ignored
 * @return the address just past it (null for a null address) */
ZBSHR_API(void *) shFlipTimeT(void *value, int32_t unused); /* 4 bytes */
/** Reverses the byte order of an 8-byte value in place.
 * @param value address of the value
 * @return the address just past it (null for a null address) */
ZBSHR_API(void *) shFlipDouble(void *value);                /* 8 bytes */
/** Flips a decimal in its 16-byte slot: the seven 16-bit words at offsets 0..12 are swapped;
 * bytes 14 and 15 are left alone.
 * @param value address of the slot
 * @return the address 16 bytes further (null for a null address) */
ZBSHR_API(void *) shFlipSHDEC(void *value);
/** Applies `flip` `count` times from `value` on, chaining the addresses it returns. The
 * one-argument flip functions above may be passed cast to SHFLIPFN.
 * @param value address of the first value
 * @param flip the flip function; null does nothing
 * @param count number of values
 * @param extra second argument of each call
 * @return the final address (`value` when count <= 0 or `flip` is null; null for a null
 *     address) */
ZBSHR_API(void *) shFlipDataLoop(void *value, SHFLIPFN flip, int32_t count, int32_t extra);
/** The variant for data already in native order: does nothing.
 * @param value returned as is
 * @param flip ignored
 * @param count ignored
 * @param extra ignored
 * @return `value` */
ZBSHR_API(void *) shFlipDataLoopNative(void *value, SHFLIPFN flip, int32_t count,
                                       int32_t extra);
/* The module's "data is native" flag (0 at load): stored and returned only. */
/** Stores the module's "data is native" flag (0 at load); the library does not otherwise use
 * it.
 * @param native the new flag
 * @return `native` */
ZBSHR_API(int32_t) shSetFlipDataNative(int32_t native);
/** The module's "data is native" flag.
 * @return the flag last stored by shSetFlipDataNative (0 at load) */
ZBSHR_API(int32_t) shGetFlipDataNative(void);

ZBSHR_END_DECLS

#endif
