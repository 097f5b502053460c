// Ring lists with a current position. Every operation at the current
// position is constant time; the handle keeps the last node so that
// appending is constant time too.
#include <cstring>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

#include "containers/walk.h"
#include "platform/platform.h"

namespace {

// The traversals running in this thread, innermost first. A traversal keeps
// the node it will visit next here, so that a callback may change the list:
// removing that node moves the walk on to the one after it, and emptying,
// sorting or deleting the list ends the walk.
struct Walk {
  SHLIST* list;
  SHLISTNODE* next;  // null: the visited node is the last one
  bool gone;         // the list was emptied or freed under the walk
  Walk* outer;
};
thread_local Walk* t_walks = nullptr;

// Called before `node` is unlinked from `list`.
void note_unlink(SHLIST* list, SHLISTNODE* node) {
  for (Walk* w = t_walks; w; w = w->outer) {
    if (w->list == list && w->next == node) w->next = node == list->last ? nullptr : node->next;
  }
}

// Called before every node of `list` is freed or taken out.
void note_emptied(SHLIST* list) {
  for (Walk* w = t_walks; w; w = w->outer) {
    if (w->list == list) {
      w->next = nullptr;
      w->gone = true;
    }
  }
}

SHLISTNODE* new_node(SHLIST* list, void* data) {
  auto* node = static_cast<SHLISTNODE*>(zbstg_alloc(list->heap, sizeof(SHLISTNODE), list->pool));
  if (node) {
    node->prev = node->next = node;
    node->data = data;
  }
  return node;
}

// Frees every node of the list, optionally with its data, and empties it.
void free_nodes(SHLIST* list, bool free_data) {
  note_emptied(list);
  SHLISTNODE* node = list->first;
  for (int32_t left = list->count; node && left > 0; --left) {
    SHLISTNODE* next = node->next;
    if (free_data) zbstg_free(list->heap, node->data);
    zbstg_free(list->heap, node);
    if (node == list->last) break;
    node = next;
  }
  list->first = list->last = list->current = nullptr;
  list->count = 0;
}

int32_t ZBSHR_CALLBACK compare_strings(void* a, void* b) {
  return zbshr::plat::lstrcmpA(static_cast<const char*>(a), static_cast<const char*>(b));
}

}  // namespace

ZBSHR_API(SHLIST*) shlist_new(ZBSTG_HEAP heap, uint32_t pool) {
  auto* list = static_cast<SHLIST*>(zbstg_alloc(heap, sizeof(SHLIST), pool));
  if (!list) return nullptr;
  list->first = list->last = list->current = nullptr;
  list->heap = heap;
  list->pool = pool;
  list->count = 0;
  return list;
}

ZBSHR_API(void) shlist_delete(SHLIST* list) {
  if (!list) return;
  free_nodes(list, false);
  zbstg_free(list->heap, list);
}

ZBSHR_API(int32_t) shlist_deleteFree(SHLIST* list) {
  if (!list) return 0;
  free_nodes(list, true);
  zbstg_free(list->heap, list);
  return 0;
}

ZBSHR_API(int32_t) shlist_get_count(SHLIST* list) { return list ? list->count : 0; }

ZBSHR_API(void*) shlist_get_first(SHLIST* list) {
  if (!list || !list->first) return nullptr;
  list->current = list->first;
  return list->current->data;
}

ZBSHR_API(void*) shlist_get_last(SHLIST* list) {
  if (!list || !list->last) return nullptr;
  list->current = list->last;
  return list->current->data;
}

ZBSHR_API(void*) shlist_get_next(SHLIST* list) {
  if (!list) return nullptr;
  if (!list->current || list->current == list->last) {
    list->current = nullptr;
    return nullptr;
  }
  list->current = list->current->next;
  return list->current->data;
}

ZBSHR_API(void*) shlist_get_prev(SHLIST* list) {
  if (!list) return nullptr;
  if (!list->current || list->current == list->first) {
    list->current = nullptr;
    return nullptr;
  }
  list->current = list->current->prev;
  return list->current->data;
}

ZBSHR_API(void*) shlist_get_curr(SHLIST* list) {
  return list && list->current ? list->current->data : nullptr;
}

ZBSHR_API(SHLISTNODE*) shlist_get_handle(SHLIST* list) { return list ? list->current : nullptr; }

ZBSHR_API(SHLISTNODE*) shlist_curr_node(SHLIST* list) { return list ? list->current : nullptr; }

ZBSHR_API(SHLIST*) shlist_set_current(SHLIST* list, SHLISTNODE* node) {
  if (list) list->current = node;
  return list;
}

ZBSHR_API(void*) shlist_update(SHLIST* list, void* data) {
  if (!list || !list->current) return nullptr;
  void* old = list->current->data;
  list->current->data = data;
  return old;
}

ZBSHR_API(int32_t) shlist_putafter(SHLIST* list, SHLISTNODE* node) {
  if (!list || !node) return 0;
  SHLISTNODE* cur = list->current;
  if (!cur && list->first) {
    // Nowhere to link it: a non-empty list without a current position.
    zbstg_free(list->heap, node);
    return 0;
  }
  if (!list->first) {
    node->prev = node->next = node;
    list->first = list->last = node;
  } else {
    node->prev = cur;
    node->next = cur->next;
    cur->next->prev = node;
    cur->next = node;
    if (cur == list->last) list->last = node;
  }
  list->current = node;
  ++list->count;
  return 1;
}

ZBSHR_API(int32_t) shlist_addafter(SHLIST* list, void* data) {
  if (!list) return 0;
  SHLISTNODE* node = new_node(list, data);
  if (!node) return 0;
  return shlist_putafter(list, node);
}

ZBSHR_API(int32_t) shlist_insert_at_curr(SHLIST* list, void* data) {
  return shlist_addafter(list, data) ? 1 : 0;
}

ZBSHR_API(int32_t) shlist_addbefore(SHLIST* list, void* data) {
  if (!list) return 0;
  SHLISTNODE* cur = list->current;
  if (!cur && list->first) return 0;
  SHLISTNODE* node = new_node(list, data);
  if (!node) return 0;
  if (!list->first) {
    list->first = list->last = node;
  } else {
    node->next = cur;
    node->prev = cur->prev;
    cur->prev->next = node;
    cur->prev = node;
    if (cur == list->first) list->first = node;
  }
  list->current = node;
  ++list->count;
  return 1;
}

ZBSHR_API(int32_t) shlist_insert(SHLIST* list, void* data) {
  if (!list) return 0;
  list->current = list->last;
  return shlist_addafter(list, data);
}

ZBSHR_API(void*) shlist_remove(SHLIST* list) {
  if (!list || !list->current) return nullptr;
  SHLISTNODE* node = list->current;
  void* data = node->data;
  if (t_walks) note_unlink(list, node);
  if (list->first == list->last) {
    list->first = list->last = list->current = nullptr;
  } else if (node == list->first) {
    list->first = node->next;
    list->current = node->next;
  } else if (node == list->last) {
    // Removing the last node leaves no current position (unlike the first).
    list->last = node->prev;
    list->current = nullptr;
  } else {
    list->current = node->next;
  }
  node->prev->next = node->next;
  node->next->prev = node->prev;
  zbstg_free(list->heap, node);
  --list->count;
  return data;
}

namespace zbshr::containers {

int32_t walk_list(SHLIST* list, intptr_t param, SHLIST_VISIT visit, bool* list_gone) {
  *list_gone = false;
  if (!list || !list->first || !visit) return 1;
  Walk walk{list, nullptr, false, t_walks};
  t_walks = &walk;
  int32_t result = 1;
  SHLISTNODE* node = list->first;
  for (;;) {
    walk.next = node == list->last ? nullptr : node->next;
    result = visit(node->data, param);
    if (result == 0 || walk.gone || !walk.next) break;
    node = walk.next;
  }
  t_walks = walk.outer;
  *list_gone = walk.gone;
  return result;
}

}  // namespace zbshr::containers

ZBSHR_API(int32_t) shlist_traversal(SHLIST* list, intptr_t param, SHLIST_VISIT visit) {
  bool gone;
  return zbshr::containers::walk_list(list, param, visit, &gone);
}

namespace {

template <class Sort>
void** sort_list(SHLIST* list, int32_t flags, Sort sort) {
  if (!list || list->count <= 0 || !list->first) return nullptr;
  const int32_t n = list->count;
  if (static_cast<uint64_t>(n) * sizeof(void*) > UINT32_MAX) return nullptr;
  auto* array = static_cast<void**>(
      zbstg_alloc(list->heap, static_cast<uint32_t>(sizeof(void*) * static_cast<uint32_t>(n)),
                  list->pool));
  if (!array) return nullptr;
  const bool take = (flags & (SHLIST_SORT_REBUILD | SHLIST_SORT_EMPTY)) != 0;
  SHLISTNODE* node = list->first;
  auto* bytes = reinterpret_cast<unsigned char*>(array);  // only 4-byte aligned
  for (int32_t i = 0; i < n; ++i) {
    std::memcpy(bytes + i * sizeof(void*), &node->data, sizeof(void*));
    SHLISTNODE* next = node->next;
    if (take) zbstg_free(list->heap, node);
    node = next;
  }
  if (take) {
    note_emptied(list);
    list->first = list->last = list->current = nullptr;
    list->count = 0;
  }
  sort(array, n);
  if (flags & SHLIST_SORT_REBUILD) {
    for (int32_t i = 0; i < n; ++i) {
      void* data;
      std::memcpy(&data, bytes + i * sizeof(void*), sizeof data);
      shlist_insert(list, data);
    }
  }
  if (flags & SHLIST_SORT_NOARRAY) {
    zbstg_free(list->heap, array);
    return nullptr;
  }
  return array;
}

}  // namespace

ZBSHR_API(void**) shlist_sort(SHLIST* list, SH_COMPARE compare, int32_t flags) {
  if (!compare) compare = compare_strings;
  return sort_list(list, flags, [compare](void** a, int32_t n) { sh_heapsort(a, n, compare); });
}

ZBSHR_API(void**) shlist_sort_param(SHLIST* list, intptr_t param, SH_COMPARE_PARAM compare, int32_t flags) {
  if (!compare) {
    return sort_list(list, flags,
                     [](void** a, int32_t n) { sh_heapsort(a, n, compare_strings); });
  }
  return sort_list(list, flags, [param, compare](void** a, int32_t n) {
    sh_heapsort_param(param, a, n, compare);
  });
}
