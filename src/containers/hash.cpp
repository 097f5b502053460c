// Chained hash tables: a fixed number of buckets, each a list, indexed by a
// text key (one string, or a list of strings taken together). The table never
// grows or rehashes.
#include <cstring>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

#include "containers/walk.h"

namespace {

// Rolling hash: rotate left by one, then XOR with the byte taken as a signed
// character (bytes from 0x80 up flip the upper 24 bits too).
uint32_t roll(uint32_t h, const char* s) {
  if (!s) return h;
  for (; *s; ++s) {
    h = (h << 1) | (h >> 31);
    h ^= static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*s)));
  }
  return h;
}

uint32_t hash_of(const SHHASH* t, const void* key) {
  if (!t->list_keys) return roll(0, static_cast<const char*>(key));
  // The strings of a list key hash like one concatenated string; the list's
  // position ends cleared.
  auto* list = static_cast<SHLIST*>(const_cast<void*>(key));
  if (!list) return 0;
  uint32_t h = 0;
  SHLISTNODE* node = list->first;
  for (int32_t i = 0; node && i < list->count; ++i) {
    h = roll(h, static_cast<const char*>(node->data));
    if (node == list->last) break;
    node = node->next;
  }
  list->current = nullptr;
  return h;
}

int32_t bucket_of(const SHHASH* t, const void* key) {
  const uint32_t h = hash_of(t, key);
  // The bucket comes from the magnitude of the signed hash.
  const uint32_t magnitude = static_cast<int32_t>(h) >= 0 ? h : 0u - h;
  return static_cast<int32_t>(magnitude % static_cast<uint32_t>(t->bucket_count));
}

bool strings_equal(const char* a, const char* b) {
  return std::strcmp(a ? a : "", b ? b : "") == 0;
}

bool keys_equal(const SHHASH* t, const void* a, const void* b) {
  if (!t->list_keys) return strings_equal(static_cast<const char*>(a), static_cast<const char*>(b));
  const auto* la = static_cast<const SHLIST*>(a);
  const auto* lb = static_cast<const SHLIST*>(b);
  const int32_t na = la ? la->count : 0, nb = lb ? lb->count : 0;
  if (na != nb) return false;
  const SHLISTNODE* p = na ? la->first : nullptr;
  const SHLISTNODE* q = nb ? lb->first : nullptr;
  for (int32_t i = 0; i < na; ++i, p = p->next, q = q->next) {
    if (!strings_equal(static_cast<const char*>(p->data), static_cast<const char*>(q->data))) {
      return false;
    }
  }
  return true;
}

void* key_of(const SHHASH* t, void* data) {
  if (!t->keyfn) return data;
  if (t->keyarg == 0) return t->keyfn(data);
  // Stored as SHHASH_KEYFN; the caller gave a two-argument function.
  auto fn = reinterpret_cast<SHHASH_KEYFN_ARG>(reinterpret_cast<void (*)()>(t->keyfn));
  return fn(t->keyarg, data);
}

bool has_buckets(const SHHASH* t) { return t && t->buckets && t->bucket_count > 0; }

// Walks `list` from `node` to its last node for an item whose key equals
// `key`. On a match the list is positioned on it; otherwise its position is
// cleared.
bool find_from(SHHASH* t, SHLIST* list, SHLISTNODE* node, const void* key, void** data) {
  *data = nullptr;
  if (!list) return false;
  while (node) {
    if (keys_equal(t, key_of(t, node->data), key)) {
      list->current = node;
      *data = node->data;
      return true;
    }
    node = node == list->last ? nullptr : node->next;
  }
  list->current = nullptr;
  return false;
}

bool find(SHHASH* t, const void* key, void** data) {
  *data = nullptr;
  if (!has_buckets(t)) return false;
  t->current = bucket_of(t, key);
  SHLIST* list = t->buckets[t->current].list;
  return find_from(t, list, list ? list->first : nullptr, key, data);
}

void delete_lists(SHHASH* t) {
  if (!t->buckets) return;
  for (int32_t i = 0; i < t->bucket_count; ++i) {
    if (t->buckets[i].list) {
      shlist_delete(t->buckets[i].list);
      t->buckets[i].list = nullptr;
    }
  }
}

bool non_empty(const SHLIST* list) { return list && list->count > 0; }

}  // namespace

ZBSHR_API(SHHASH*) shhash_new(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique, int32_t list_keys,
                   ZBSTG_HEAP heap, uint32_t pool) {
  return shhash_new_arg(buckets, keyfn, unique, list_keys, heap, pool, 0);
}

ZBSHR_API(SHHASH*) shhash_new_arg(int32_t buckets, SHHASH_KEYFN keyfn, int32_t unique, int32_t list_keys,
                       ZBSTG_HEAP heap, uint32_t pool, intptr_t keyarg) {
  if (buckets < 0) buckets = 0;
  const uint64_t bytes = static_cast<uint64_t>(buckets) * sizeof(SHHASH_SLOT);
  if (bytes > UINT32_MAX) return nullptr;
  auto* t = static_cast<SHHASH*>(zbstg_alloc(heap, sizeof(SHHASH), pool));
  if (!t) return nullptr;
  t->heap = heap;
  t->pool = pool;
  t->buckets = nullptr;
  t->keyfn = keyfn;
  t->keyarg = keyarg;
  t->bucket_count = buckets;
  t->current = 0;
  t->item_count = 0;
  t->unique = unique;
  t->list_keys = list_keys;
  if (buckets > 0) {
    t->buckets = static_cast<SHHASH_SLOT*>(zbstg_alloc(heap, static_cast<uint32_t>(bytes), pool));
    if (!t->buckets) {
      zbstg_free(heap, t);
      return nullptr;
    }
    std::memset(t->buckets, 0, static_cast<size_t>(bytes));
  }
  return t;
}

ZBSHR_API(void) shhash_delete(SHHASH* table) {
  if (!table) return;
  delete_lists(table);
  if (table->buckets) zbstg_free(table->heap, table->buckets);
  zbstg_free(table->heap, table);
}

ZBSHR_API(void) shhash_clear(SHHASH* table) {
  if (!table || table->item_count == 0) return;
  delete_lists(table);
  table->item_count = 0;
}

ZBSHR_API(int32_t) shhash_insert(SHHASH* table, void* data) {
  if (!has_buckets(table)) return 0;
  void* key = key_of(table, data);
  void* found;
  if (table->unique && find(table, key, &found)) return 2;
  table->current = bucket_of(table, key);
  SHHASH_SLOT& slot = table->buckets[table->current];
  if (!slot.list) {
    slot.list = shlist_new(table->heap, table->pool);
    if (!slot.list) return 0;
  }
  SHLIST* list = slot.list;
  const int32_t r = shlist_insert(list, data);
  if (r == 1) ++table->item_count;
  return r;
}

ZBSHR_API(void*) shhash_search(SHHASH* table, const void* key) {
  void* data;
  find(table, key, &data);
  return data;
}

ZBSHR_API(void*) shhash_search_unique(SHHASH* table, const void* key) { return shhash_search(table, key); }

ZBSHR_API(void*) shhash_searchNext(SHHASH* table, const void* key) {
  if (!has_buckets(table)) return nullptr;
  SHLIST* list = table->buckets[table->current].list;
  if (!list || !list->current) return nullptr;
  SHLISTNODE* start = list->current == list->last ? nullptr : list->current->next;
  void* data;
  find_from(table, list, start, key, &data);
  return data;
}

ZBSHR_API(SHLIST*) shhash_searchSlot(SHHASH* table, const void* key) {
  if (!has_buckets(table)) return nullptr;
  table->current = bucket_of(table, key);
  return table->buckets[table->current].list;
}

ZBSHR_API(void*) shhash_remove(SHHASH* table) {
  if (!has_buckets(table)) return nullptr;
  SHLIST* list = table->buckets[table->current].list;
  if (!list) return nullptr;
  void* data = shlist_remove(list);
  if (data) --table->item_count;
  return data;
}

ZBSHR_API(void*) shhash_get_first(SHHASH* table) {
  if (!has_buckets(table)) return nullptr;
  for (int32_t i = 0; i < table->bucket_count; ++i) {
    if (non_empty(table->buckets[i].list)) {
      table->current = i;
      return shlist_get_first(table->buckets[i].list);
    }
  }
  return nullptr;
}

ZBSHR_API(void*) shhash_get_next(SHHASH* table) {
  if (!has_buckets(table)) return nullptr;
  SHLIST* list = table->buckets[table->current].list;
  if (list) {
    void* data = shlist_get_next(list);
    if (list->current) return data;
  }
  for (int32_t i = table->current + 1; i < table->bucket_count; ++i) {
    if (non_empty(table->buckets[i].list)) {
      table->current = i;
      return shlist_get_first(table->buckets[i].list);
    }
  }
  return nullptr;
}

ZBSHR_API(int32_t) shhash_traversal(SHHASH* table, intptr_t param, SHLIST_VISIT visit) {
  if (!has_buckets(table)) return 1;
  int32_t result = 1;
  for (int32_t i = 0; i < table->bucket_count; ++i) {
    if (!non_empty(table->buckets[i].list)) continue;
    // A bucket list goes away only when the whole table is cleared or
    // deleted: the table may then be gone as well, so the walk ends.
    bool gone;
    result = zbshr::containers::walk_list(table->buckets[i].list, param, visit, &gone);
    if (result == 0 || gone) break;
  }
  return result;
}

ZBSHR_API(SHHASH_STAT*) shhash_statistics(SHHASH* table, SHHASH_STAT* stat) {
  if (!stat) return nullptr;
  stat->expected_chain = 1.0;
  stat->actual_chain = 0.0;
  stat->longest_chain = 0;
  if (!table) return stat;
  if (table->bucket_count > 0) {
    const double expected = static_cast<double>(table->item_count) / table->bucket_count;
    if (expected > 1.0) stat->expected_chain = expected;
  }
  int32_t used = 0;
  for (int32_t i = 0; table->buckets && i < table->bucket_count; ++i) {
    const SHLIST* list = table->buckets[i].list;
    if (!non_empty(list)) continue;
    ++used;
    if (list->count > stat->longest_chain) stat->longest_chain = list->count;
  }
  if (used > 0) stat->actual_chain = static_cast<double>(table->item_count) / used;
  return stat;
}
