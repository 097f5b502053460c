// The prepared-statement cache of a database connection.
//
// Available entries sit in a list, most recently released first. A lookup
// walks the list from the head and takes the first entry whose text is equal
// byte for byte; returning an entry evicts from the tail until there is room
// and puts the entry at the head. Every entry that leaves for good goes
// through the driver (request 247) so that its prepared statement is dropped.
#include <cstdio>
#include <cstring>
#include <new>

#include "dbi/params.h"
#include "zbshr/containers.h"
#include "zbshr/dbi.h"
#include "zbshr/memory.h"

namespace {

constexpr const char* kAssertText = "assertion failed! pEntry && pList";

// The statistics text, shared by every connection.
char g_statistics[128];

bool is_lead_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

const char* skip_blanks(const char* text) {
  while (is_lead_blank(*text)) ++text;
  return text;
}

// Bookkeeping in an entry's reserved words: [0] marks an entry that is in a
// cache's list, so that an entry returned twice is not linked twice (and
// later dropped twice); [1] and [2] hold the text's length and hash, which
// let a lookup pass over most entries without comparing their texts.
constexpr int kMarkSlot = 0;
constexpr int kLengthSlot = 1;
constexpr int kHashSlot = 2;
bool in_cache(const DBI_SQLCACHE_ENTRY* e) { return e->reserved[kMarkSlot] != 0; }
void set_in_cache(DBI_SQLCACHE_ENTRY* e, bool on) { e->reserved[kMarkSlot] = on ? 1u : 0u; }

// A quick 32-bit hash of n bytes, eight at a time. It only has to agree with
// itself within one process.
uint32_t text_hash(const char* s, size_t n) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ n;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, s + i, 8);
    h = (h ^ w) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 32;
  }
  uint64_t w = 0;
  std::memcpy(&w, s + i, n - i);
  h = (h ^ w) * 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 29;
  return static_cast<uint32_t>(h);
}

void free_cached_columns(SHLIST* columns) {
  if (columns == nullptr) return;
  ZBSTG_HEAP heap = columns->heap;
  SHLISTNODE* node = columns->first;
  for (int32_t i = 0; i < columns->count && node != nullptr; ++i, node = node->next) {
    auto* col = static_cast<DBI_SQLCACHE_COLUMN*>(node->data);
    if (col == nullptr) continue;
    zbstg_free(heap, col->name);
    zbstg_free(heap, col->name2);
    zbstg_free(heap, col);
  }
  shlist_delete(columns);
}

// Drops the statement through the driver and frees the entry's contents;
// `free_block` frees the entry itself too.
void discard(DBI_CONNECTION* conn, DBI_SQLCACHE_ENTRY* entry, bool free_block) {
  if (conn->dispatch != nullptr) {
    conn->request = DBI_REQ_DROP_STATEMENT;
    conn->arg1 = entry;
    conn->arg2 = nullptr;
    conn->arg3 = nullptr;
    conn->dispatch(conn);
  }
  zbstg_free(conn->heap, entry->text);
  free_cached_columns(entry->columns);
  std::memset(entry, 0, sizeof *entry);
  if (free_block) zbstg_free(conn->heap, entry);
}

// Discards every entry of the list, head first, leaving it empty.
void discard_all(DBI_CONNECTION* conn, SHLIST* list) {
  while (shlist_get_count(list) > 0) {
    auto* entry = static_cast<DBI_SQLCACHE_ENTRY*>(shlist_get_first(list));
    if (entry != nullptr) discard(conn, entry, true);
    shlist_remove(list);
  }
}

char* copy_string(ZBSTG_HEAP heap, const char* s, uint32_t pool) {
  return s == nullptr ? nullptr : zbstg_strdup(heap, s, pool);
}

}  // namespace

ZBSHR_API(int32_t) DBI_AttrInfo(DBI_CONNECTION* connection, const char* source,
                                const char* message) {
  if (connection == nullptr || connection->dispatch == nullptr) return 0;
  connection->request = DBI_REQ_ATTRINFO;
  connection->arg1 = const_cast<char*>(message);
  connection->arg2 = const_cast<char*>(source);
  connection->arg3 = nullptr;
  return connection->dispatch(connection);
}

ZBSHR_API(DBI_SQLCACHE*) DBI_SQLCacheBegin(DBI_CONNECTION* connection, int32_t capacity) {
  if (connection == nullptr) return nullptr;
  auto* cache = static_cast<DBI_SQLCACHE*>(
      zbstg_alloc(connection->heap, sizeof(DBI_SQLCACHE), connection->pool));
  if (cache == nullptr) return nullptr;
  std::memset(cache, 0, sizeof *cache);
  cache->entries = shlist_new(connection->heap, connection->pool);
  if (cache->entries == nullptr) {
    zbstg_free(connection->heap, cache);
    return nullptr;
  }
  cache->capacity = capacity;
  return cache;
}

ZBSHR_API(void) DBI_SQLCacheEnd(DBI_CONNECTION* connection, DBI_SQLCACHE* cache) {
  if (connection == nullptr || cache == nullptr) return;
  if (cache->entries != nullptr) {
    discard_all(connection, cache->entries);
    shlist_delete(cache->entries);
  }
  std::memset(cache, 0, sizeof *cache);
  zbstg_free(connection->heap, cache);
  if (connection->sql_cache == cache) connection->sql_cache = nullptr;
}

ZBSHR_API(void) DBI_SQLCacheFlushEntries(DBI_CONNECTION* connection, DBI_SQLCACHE** cacheSlot) {
  if (connection == nullptr || cacheSlot == nullptr || *cacheSlot == nullptr) return;
  if ((*cacheSlot)->entries != nullptr) discard_all(connection, (*cacheSlot)->entries);
}

ZBSHR_API(DBI_SQLCACHE_ENTRY*) DBI_SQLCacheRegisterSQLStatement(DBI_CONNECTION* connection,
                                                                const char* text,
                                                                void* statementHandle) {
  if (connection == nullptr || text == nullptr) return nullptr;
  auto* entry = static_cast<DBI_SQLCACHE_ENTRY*>(
      zbstg_alloc(connection->heap, sizeof(DBI_SQLCACHE_ENTRY), connection->pool));
  if (entry == nullptr) return nullptr;
  std::memset(entry, 0, sizeof *entry);
  entry->text = zbstg_strdup(connection->heap, skip_blanks(text), connection->pool);
  if (entry->text == nullptr) {
    zbstg_free(connection->heap, entry);
    return nullptr;
  }
  const size_t len = std::strlen(entry->text);
  entry->reserved[kLengthSlot] = static_cast<uint32_t>(len);
  entry->reserved[kHashSlot] = text_hash(entry->text, len);
  entry->statement = statementHandle;
  return entry;
}

ZBSHR_API(void) DBI_SQLCacheRegisterDescribe(DBI_CONNECTION* connection,
                                             DBI_SQLCACHE_ENTRY* entry, SHLIST* descriptions) {
  if (connection == nullptr || entry == nullptr || shlist_get_count(descriptions) == 0) return;
  ZBSTG_HEAP heap = connection->heap;
  const uint32_t pool = connection->pool;
  SHLIST* cached = shlist_new(heap, pool);
  if (cached == nullptr) return;
  // Walk the nodes directly so that the caller's current position stays.
  SHLISTNODE* node = descriptions->first;
  for (int32_t i = 0; i < descriptions->count && node != nullptr; ++i, node = node->next) {
    const auto* col = static_cast<const DBI_COLUMN*>(node->data);
    auto* c = static_cast<DBI_SQLCACHE_COLUMN*>(zbstg_alloc(heap, sizeof(DBI_SQLCACHE_COLUMN), pool));
    if (c == nullptr) break;
    std::memset(c, 0, sizeof *c);
    if (col != nullptr) {
      c->name = copy_string(heap, col->name, pool);
      c->name2 = copy_string(heap, col->name2, pool);
      c->type = col->type;
      c->length = col->length;
      c->precision = col->precision;
      c->scale = col->scale;
      c->flags = (col->nullable ? DBI_SQLCACHE_COL_NULLABLE : 0u) |
                 (col->updatable ? DBI_SQLCACHE_COL_UPDATABLE : 0u);
      c->bind_type = col->bind_type;
      c->bind_length = col->bind_length;
      c->display_width = col->display_width;
      c->position = col->position;
    }
    shlist_insert(cached, c);
  }
  free_cached_columns(entry->columns);
  entry->columns = cached;
}

ZBSHR_API(DBI_SQLCACHE_ENTRY*) DBI_SQLCacheRequestSqlStatement(DBI_CONNECTION* connection,
                                                                DBI_SQLCACHE* cache,
                                                                const char* text) {
  if (connection == nullptr || cache == nullptr || text == nullptr || cache->entries == nullptr) {
    return nullptr;
  }
  text = skip_blanks(text);
  const size_t len = std::strlen(text);
  const uint32_t hash = text_hash(text, len);
  SHLIST* list = cache->entries;
  SHLISTNODE* node = list->first;
  for (int32_t i = 0; i < list->count && node != nullptr; ++i, node = node->next) {
    auto* entry = static_cast<DBI_SQLCACHE_ENTRY*>(node->data);
    if (entry == nullptr || entry->text == nullptr) continue;
    // Equal texts have equal lengths and hashes; only then compare bytes.
    if (entry->reserved[kHashSlot] != hash || entry->reserved[kLengthSlot] != len ||
        std::memcmp(entry->text, text, len) != 0) {
      continue;
    }
    shlist_set_current(list, node);
    shlist_remove(list);
    set_in_cache(entry, false);
    ++entry->use_count;
    ++cache->hits;
    return entry;
  }
  ++cache->misses;
  return nullptr;
}

ZBSHR_API(SHLIST*) DBI_SQLCacheRequestDescribe(DBI_CONNECTION* connection,
                                               DBI_SQLCACHE_ENTRY* entry) {
  if (connection == nullptr || entry == nullptr || entry->columns == nullptr) return nullptr;
  ZBSTG_HEAP heap = connection->heap;
  const uint32_t pool = connection->pool;
  SHLIST* out = shlist_new(heap, pool);
  if (out == nullptr) return nullptr;
  SHLISTNODE* node = entry->columns->first;
  for (int32_t i = 0; i < entry->columns->count && node != nullptr; ++i, node = node->next) {
    const auto* c = static_cast<const DBI_SQLCACHE_COLUMN*>(node->data);
    auto* col = static_cast<DBI_COLUMN*>(zbstg_alloc(heap, sizeof(DBI_COLUMN), pool));
    if (col == nullptr) break;
    std::memset(col, 0, sizeof *col);
    if (c != nullptr) {
      col->name = copy_string(heap, c->name, pool);
      col->name2 = copy_string(heap, c->name2, pool);
      col->type = c->type;
      col->length = c->length;
      col->precision = c->precision;
      col->scale = c->scale;
      col->nullable = (c->flags & DBI_SQLCACHE_COL_NULLABLE) ? 1 : 0;
      col->updatable = (c->flags & DBI_SQLCACHE_COL_UPDATABLE) ? 1 : 0;
      col->bind_type = c->bind_type;
      col->bind_length = c->bind_length;
      col->display_width = c->display_width;
      col->position = c->position;
    }
    shlist_insert(out, col);
  }
  return out;
}

ZBSHR_API(void) DBI_SQLCacheMakeSQLStatementAvailable(DBI_CONNECTION* connection,
                                                      DBI_SQLCACHE_ENTRY* entry,
                                                      DBI_SQLCACHE** cacheSlot) {
  if (connection == nullptr) return;
  if (entry == nullptr) {
    if (cacheSlot != nullptr) {
      const int32_t request = connection->request;
      void* const a1 = connection->arg1;
      void* const a2 = connection->arg2;
      void* const a3 = connection->arg3;
      DBI_AttrInfo(connection, DBI_SQLCACHE_SOURCE, kAssertText);
      connection->request = request;
      connection->arg1 = a1;
      connection->arg2 = a2;
      connection->arg3 = a3;
    }
    return;
  }
  if (cacheSlot == nullptr || *cacheSlot == nullptr) return;
  DBI_SQLCACHE* cache = *cacheSlot;
  SHLIST* list = cache->entries;
  if (list == nullptr || in_cache(entry)) return;
  // Least recently released first: the tail goes until there is room. A
  // capacity of 0 (or less) empties the list, so it keeps the newest entry.
  while (list->count > 0 && list->count >= cache->capacity) {
    auto* victim = static_cast<DBI_SQLCACHE_ENTRY*>(shlist_get_last(list));
    if (victim != nullptr) discard(connection, victim, true);
    shlist_remove(list);
  }
  shlist_get_first(list);
  if (shlist_addbefore(list, entry)) set_in_cache(entry, true);
}

ZBSHR_API(void) DBI_SQLCacheDiscardEntry(DBI_CONNECTION* connection, DBI_SQLCACHE_ENTRY* entry,
                                         int32_t freeIt) {
  if (connection == nullptr || entry == nullptr) return;
  // An entry still linked in a cache would leave a dangling node behind.
  if (in_cache(entry)) return;
  discard(connection, entry, freeIt != 0);
}

ZBSHR_API(int32_t) DBI_SQLCacheSetSelectCacheSize(DBI_CONNECTION* connection) {
  if (connection == nullptr || connection->sql_cache == nullptr || connection->params == nullptr) {
    return 0;
  }
  try {
    auto value = zbshr::dbi::find_parameter(connection->params, "SQLCache");
    if (!value) return 0;
    auto n = zbshr::dbi::parse_count(*value);
    if (!n) return 0;
    connection->sql_cache->capacity = *n;
    return 1;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

ZBSHR_API(DBI_SQLCACHE*) DBI_SQLCacheSetup(DBI_CONNECTION* connection) {
  if (connection == nullptr) return nullptr;
  if (connection->sql_cache == nullptr) connection->sql_cache = DBI_SQLCacheBegin(connection, 0);
  DBI_SQLCacheSetSelectCacheSize(connection);
  return connection->sql_cache;
}

ZBSHR_API(const char*) DBI_SQLCacheStatistics(DBI_CONNECTION* connection, int32_t store) {
  if (connection == nullptr) return nullptr;
  const DBI_SQLCACHE* cache = connection->sql_cache;
  g_statistics[0] = '\0';
  if (cache != nullptr && (cache->hits != 0 || cache->misses != 0)) {
    std::snprintf(g_statistics, sizeof g_statistics,
                  "%lu Cache Hits,%lu Cache Misses,%lu entries in Cache",
                  static_cast<unsigned long>(cache->hits),
                  static_cast<unsigned long>(cache->misses),
                  static_cast<unsigned long>(static_cast<uint32_t>(shlist_get_count(cache->entries))));
  }
  if (store) connection->statistics = g_statistics;
  return g_statistics;
}
