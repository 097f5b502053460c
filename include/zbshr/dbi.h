/** @file
 * zbshr: dbi family: services shared by the database drivers.
 *
 * This header holds the prepared-statement cache (DBI_SQLCache*) and the
 * small part of the driver interface that the cache needs: the connection
 * context and the column description record. A driver is written against
 * these records as follows.
 *
 * The connection context
 * ----------------------
 * One DBI_CONNECTION per database connection, owned by the driver. The cache
 * allocates everything (the cache, its entries, their texts and cached column
 * descriptions, the lists holding them) in the connection's `heap` and `pool`.
 *
 * The library talks to the driver through one dispatch entry: it stores a
 * request code in `request` and the request's arguments in `arg1` .. `arg3`,
 * then calls `dispatch(connection)`. The driver reads the fields, does the
 * work and returns a status (the cache does not look at it). Requests the
 * library sends:
 *
 *   DBI_REQ_ATTRINFO (241)   a report from the library (DBI_AttrInfo):
 *                            arg1 = message text (const char *),
 *                            arg2 = source name (const char *), arg3 = null.
 *                            The strings are valid during the call only.
 *                            The statement cache restores the connection's
 *                            request fields after such a report.
 *   DBI_REQ_DROP_STATEMENT   release a cached prepared statement:
 *   (247)                    arg1 = the DBI_SQLCACHE_ENTRY being discarded
 *                            (its `statement` field is the driver's handle),
 *                            arg2 = arg3 = null. The entry is freed right
 *                            after the call returns. The request fields are
 *                            left as sent.
 *
 * A null `dispatch` is allowed: the requests are then simply not delivered.
 *
 * Life of a cached statement
 * --------------------------
 *   entry = DBI_SQLCacheRequestSqlStatement(conn, conn->sql_cache, text);
 *   if (!entry) {                      prepare the statement, then:
 *     entry = DBI_SQLCacheRegisterSQLStatement(conn, text, handle);
 *     DBI_SQLCacheRegisterDescribe(conn, entry, describedColumns);
 *   } else {
 *     columns = DBI_SQLCacheRequestDescribe(conn, entry);  (no describe)
 *   }
 *   ... execute and fetch with entry->statement ...
 *   DBI_SQLCacheMakeSQLStatementAvailable(conn, entry, &conn->sql_cache);
 *
 * An entry handed out is the caller's until it is made available again; an
 * entry in the cache's list is never handed out twice. Entries are destroyed
 * only by eviction, DBI_SQLCacheFlushEntries, DBI_SQLCacheEnd or an explicit
 * DBI_SQLCacheDiscardEntry, and always through DBI_REQ_DROP_STATEMENT.
 *
 * The records are used by one thread at a time. The statistics text lives in
 * one static buffer shared by every connection.
 */
#ifndef ZBSHR_DBI_H
#define ZBSHR_DBI_H

#include "zbshr/api.h"
#include "zbshr/containers.h"

ZBSHR_BEGIN_DECLS

/* Request codes of the driver dispatch entry used by this family. */
#define DBI_REQ_ATTRINFO 241       /**< a report from the library (DBI_AttrInfo) */
#define DBI_REQ_DROP_STATEMENT 247 /**< release a cached prepared statement */

/** Source name the statement cache gives its reports. */
#define DBI_SQLCACHE_SOURCE "zbdbi6"

/* Heap blocks are only 4-byte aligned, so records kept in heap blocks are
 * packed to 4 bytes. */
#pragma pack(push, 4)

struct DBI_CONNECTION;
struct DBI_SQLCACHE;

/** The driver dispatch entry: reads `request` and `arg1`..`arg3` from the
 * connection and returns a status. */
typedef int32_t (ZBSHR_CALLBACK *DBI_DISPATCH)(struct DBI_CONNECTION *connection);

/** The connection context (see above). Fields not listed are the driver's. */
typedef struct DBI_CONNECTION {
  ZBSTG_HEAP heap;                 /**< heap of everything the cache allocates */
  uint32_t pool;                   /**< pool in that heap (0 = default pool) */
  DBI_DISPATCH dispatch;           /**< the driver's dispatch entry, or null */
  int32_t request;                 /**< request code of the call in progress */
  void *arg1;                      /**< first request argument */
  void *arg2;                      /**< second request argument */
  void *arg3;                      /**< third request argument */
  const char *params;              /**< parameter string, "Name=value, ..." */
  struct DBI_SQLCACHE *sql_cache;  /**< the statement cache, or null */
  const char *statistics;          /**< last text stored by DBI_SQLCacheStatistics */
  void *driver;                    /**< free for the driver's own use */
} DBI_CONNECTION;

/** A column description as the driver's describe step fills it. Strings are
 * NUL-terminated and allocated in the connection's heap. The two flags are
 * 0 or 1. */
typedef struct DBI_COLUMN {
  char *name;             /**< column name as the server reports it */
  char *name2;            /**< second name: the qualified name or label */
  int32_t type;           /**< the server's type code */
  int32_t length;         /**< size in bytes */
  int32_t precision;      /**< digits of a numeric column, else 0 */
  int32_t scale;          /**< decimal places of a numeric column, else 0 */
  int32_t nullable;       /**< flag: the column accepts nulls */
  int32_t updatable;      /**< flag: the column can be updated */
  int32_t bind_type;      /**< host type the driver fetches the value as */
  int32_t bind_length;    /**< bytes of the fetch buffer for one value */
  int32_t display_width;  /**< characters needed to display a value */
  int32_t position;       /**< 1-based column position in the result set */
  /* Fetch state: never cached; a rebuilt record has these zero. */
  void *buffer;           /**< fetch buffer */
  int32_t indicator;      /**< null or truncation indicator of the last fetch */
  void *driver_data;      /**< the driver's own per-column data */
} DBI_COLUMN;

/** A cached column description: the describe attributes of a DBI_COLUMN.
 * Bit 0 of `flags` is `nullable`, bit 1 `updatable`. */
typedef struct DBI_SQLCACHE_COLUMN {
  char *name;            /**< as in DBI_COLUMN (owned by the cache) */
  char *name2;           /**< as in DBI_COLUMN (owned by the cache) */
  int32_t type;          /**< as in DBI_COLUMN */
  int32_t length;        /**< as in DBI_COLUMN */
  int32_t precision;     /**< as in DBI_COLUMN */
  int32_t scale;         /**< as in DBI_COLUMN */
  uint32_t flags;        /**< DBI_SQLCACHE_COL_* bits */
  int32_t bind_type;     /**< as in DBI_COLUMN */
  int32_t bind_length;   /**< as in DBI_COLUMN */
  int32_t display_width; /**< as in DBI_COLUMN */
  int32_t position;      /**< as in DBI_COLUMN */
} DBI_SQLCACHE_COLUMN;

#define DBI_SQLCACHE_COL_NULLABLE 0x1u  /**< the column accepts nulls */
#define DBI_SQLCACHE_COL_UPDATABLE 0x2u /**< the column can be updated */

/** A cache entry: one prepared statement. A driver reads its fields and
 * changes none of them. */
typedef struct DBI_SQLCACHE_ENTRY {
  char *text;           /**< statement text, leading blanks removed (owned) */
  SHLIST *columns;      /**< DBI_SQLCACHE_COLUMN records, null until registered */
  void *statement;      /**< the driver's statement handle */
  uint32_t use_count;   /**< times the entry was handed out by a lookup */
  uint32_t reserved[4]; /**< the cache's bookkeeping (in-list mark, text length
                           and hash; zero after a discard) */
} DBI_SQLCACHE_ENTRY;

/** The statement cache of one connection. */
typedef struct DBI_SQLCACHE {
  SHLIST *entries;   /**< available entries, most recently released first */
  int32_t capacity;  /**< at most this many available entries (0 keeps one) */
  uint32_t hits;     /**< lookups that found an entry */
  uint32_t misses;   /**< lookups that did not */
} DBI_SQLCACHE;

#pragma pack(pop)

/** Reports `message` from `source` to the driver: request DBI_REQ_ATTRINFO with arg1 = message,
 * arg2 = source, arg3 = null, through the connection's dispatch entry. The request fields are
 * left as sent.
 * @param connection the connection
 * @param source the source name (valid during the call only)
 * @param message the message text (valid during the call only)
 * @return the driver's status; 0 for a null connection or dispatch entry */
ZBSHR_API(int32_t) DBI_AttrInfo(DBI_CONNECTION *connection, const char *source,
                                const char *message);

/** A new empty cache in the connection's heap and pool. The connection's `sql_cache` is not
 * changed.
 * @param connection the connection
 * @param capacity at most this many available entries are kept (0 keeps one)
 * @return the cache (release it with DBI_SQLCacheEnd); null for a null connection */
ZBSHR_API(DBI_SQLCACHE *) DBI_SQLCacheBegin(DBI_CONNECTION *connection, int32_t capacity);
/** Discards every entry (most recently released first), deletes the list and clears and frees
 * the cache. If the connection's `sql_cache` is this cache, it is set to null.
 * @param connection the connection
 * @param cache the cache; null is ignored */
ZBSHR_API(void) DBI_SQLCacheEnd(DBI_CONNECTION *connection, DBI_SQLCACHE *cache);
/** Discards every entry of *cacheSlot (most recently released first); the cache stays, with its
 * counters.
 * @param connection the connection
 * @param cacheSlot address of the cache pointer; a null slot or a null cache is ignored */
ZBSHR_API(void) DBI_SQLCacheFlushEntries(DBI_CONNECTION *connection, DBI_SQLCACHE **cacheSlot);
/** A new entry, not in any list, holding a copy of `text` without its leading spaces, tabs,
 * carriage returns and line feeds, and the driver's handle.
 * @param connection the connection (its heap and pool hold the entry)
 * @param text the statement text
 * @param statementHandle the driver's prepared statement
 * @return the entry, the caller's until made available; null for a null connection or text */
ZBSHR_API(DBI_SQLCACHE_ENTRY *) DBI_SQLCacheRegisterSQLStatement(DBI_CONNECTION *connection,
                                                                 const char *text,
                                                                 void *statementHandle);
/** When `descriptions` is not empty, gives the entry a list of cached descriptions, one per
 * column in order (replacing any it had). The caller's records are not changed.
 * @param connection the connection (its heap and pool hold the copies)
 * @param entry the entry
 * @param descriptions a list of DBI_COLUMN pointers */
ZBSHR_API(void) DBI_SQLCacheRegisterDescribe(DBI_CONNECTION *connection,
                                             DBI_SQLCACHE_ENTRY *entry, SHLIST *descriptions);
/** Looks up the available entry whose text equals `text` after its leading blanks, byte for
 * byte; it leaves the list and its use count and the hits go up.
 * @param connection the connection
 * @param cache the cache
 * @param text the statement text
 * @return the entry, now the caller's until made available; null (and a miss counted) when
 *     none matches; null without counting for null arguments */
ZBSHR_API(DBI_SQLCACHE_ENTRY *) DBI_SQLCacheRequestSqlStatement(DBI_CONNECTION *connection,
                                                                DBI_SQLCACHE *cache,
                                                                const char *text);
/** A new list of DBI_COLUMN records rebuilt from the entry's cached ones (fetch state zero).
 * @param connection the connection
 * @param entry the entry
 * @return the list; it, the records and their name strings are new blocks in the connection's
 *     heap and pool, which the caller frees (or the pool); null when the entry has no cached
 *     descriptions */
ZBSHR_API(SHLIST *) DBI_SQLCacheRequestDescribe(DBI_CONNECTION *connection,
                                                DBI_SQLCACHE_ENTRY *entry);
/** Returns an entry to the cache after use: while the cache holds `capacity` entries or more,
 * the one released longest ago is discarded; then the entry goes to the head. A null entry
 * with a slot given is reported ("assertion failed! pEntry && pList" from DBI_SQLCACHE_SOURCE)
 * through DBI_AttrInfo, the request fields being restored afterwards, and nothing else
 * happens.
 * @param connection the connection
 * @param entry the entry handed out by a lookup or a registration
 * @param cacheSlot address of the cache pointer; a null slot or cache leaves the entry with
 *     the caller */
ZBSHR_API(void) DBI_SQLCacheMakeSQLStatementAvailable(DBI_CONNECTION *connection,
                                                      DBI_SQLCACHE_ENTRY *entry,
                                                      DBI_SQLCACHE **cacheSlot);
/** Sends DBI_REQ_DROP_STATEMENT with the entry, then frees its text and cached descriptions and
 * zeroes it. The entry must not be in a cache's list.
 * @param connection the connection
 * @param entry the entry
 * @param freeIt non-zero frees the entry block too */
ZBSHR_API(void) DBI_SQLCacheDiscardEntry(DBI_CONNECTION *connection, DBI_SQLCACHE_ENTRY *entry,
                                         int32_t freeIt);
/** Reads "SQLCache" from the connection's parameter string and stores it as the capacity of the
 * connection's cache. Parameter strings: entries separated by commas, each `Name=value`.
 * Blanks around names and values are ignored; names compare without regard to ASCII case; a
 * name or value may be enclosed in single or double quotes, inside which commas and '=' are
 * plain text and a doubled quote stands for one; an unterminated quote runs to the end.
 * Entries without '=' are skipped. When a name occurs twice, the last one counts.
 * @param connection the connection
 * @return 1 when a value was stored; 0 when there is no cache, no parameter string, no such
 *     parameter or its value is not a whole number from 0 to 2147483647 (the capacity is then
 *     unchanged) */
ZBSHR_API(int32_t) DBI_SQLCacheSetSelectCacheSize(DBI_CONNECTION *connection);
/** The companion of DBI_SQLCacheSetSelectCacheSize used when a connection is opened: creates
 * the connection's cache with capacity 0 if it has none, then reads "SQLCache" the same way.
 * @param connection the connection
 * @return the connection's cache; null for a null connection */
ZBSHR_API(DBI_SQLCACHE *) DBI_SQLCacheSetup(DBI_CONNECTION *connection);
/** The cache statistics: empty when the connection has no cache or no lookup happened, else
 * "<hits> Cache Hits,<misses> Cache Misses,<n> entries in Cache".
 * @param connection the connection
 * @param store non-zero also keeps the pointer in the connection's `statistics`
 * @return the text in a static buffer shared by every connection, overwritten by the next
 *     call; null for a null connection */
ZBSHR_API(const char *) DBI_SQLCacheStatistics(DBI_CONNECTION *connection, int32_t store);

ZBSHR_END_DECLS

#endif
