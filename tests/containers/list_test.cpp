#include <cstring>

#include "helpers.h"
#include "platform/platform.h"

namespace {

class ContainersList : public HeapTest {
 protected:
  SHLIST* Make(std::initializer_list<const char*> items, uint32_t pool = 0) {
    SHLIST* l = shlist_new(heap_, pool);
    for (const char* s : items) EXPECT_EQ(shlist_insert(l, S(s)), 1);
    return l;
  }
  static std::string Cur(SHLIST* l) {
    void* d = shlist_get_curr(l);
    return d ? static_cast<const char*>(d) : "<none>";
  }
};

TEST_F(ContainersList, AddAfterAndBeforeOnANewList) {
  SHLIST* l = shlist_new(heap_, 0);
  EXPECT_EQ(shlist_get_count(l), 0);
  EXPECT_EQ(shlist_get_first(l), nullptr);
  EXPECT_EQ(shlist_addafter(l, S("a")), 1);
  EXPECT_EQ(V(l->first), V(l->last));
  EXPECT_EQ(V(l->current), V(l->first));
  EXPECT_EQ(V(l->first->next), V(l->first));
  EXPECT_EQ(V(l->first->prev), V(l->first));
  shlist_delete(l);

  l = shlist_new(heap_, 0);
  EXPECT_EQ(shlist_addbefore(l, S("b")), 1);
  EXPECT_EQ(Contents(l), Strings({"b"}));
  EXPECT_EQ(Cur(l), "b");
  EXPECT_EQ(shlist_addbefore(l, S("a")), 1);  // before the first: becomes first
  EXPECT_EQ(Contents(l), Strings({"a", "b"}));
  EXPECT_EQ(V(l->first), V(l->current));
  shlist_delete(l);
}

TEST_F(ContainersList, CursorWalkAndEnds) {
  SHLIST* l = Make({"a", "b", "c"});
  EXPECT_EQ(Cur(l), "c");  // an append leaves the new node current
  EXPECT_STREQ(static_cast<char*>(shlist_get_first(l)), "a");
  EXPECT_STREQ(static_cast<char*>(shlist_get_next(l)), "b");
  EXPECT_STREQ(static_cast<char*>(shlist_get_next(l)), "c");
  EXPECT_EQ(shlist_get_next(l), nullptr);  // past the end: position cleared
  EXPECT_EQ(shlist_get_handle(l), nullptr);
  EXPECT_EQ(shlist_get_next(l), nullptr);  // and no wrap-around afterwards
  EXPECT_EQ(shlist_get_prev(l), nullptr);

  EXPECT_STREQ(static_cast<char*>(shlist_get_last(l)), "c");
  EXPECT_STREQ(static_cast<char*>(shlist_get_prev(l)), "b");
  EXPECT_STREQ(static_cast<char*>(shlist_get_prev(l)), "a");
  EXPECT_EQ(shlist_get_prev(l), nullptr);
  EXPECT_EQ(shlist_curr_node(l), nullptr);

  // With no current position in a non-empty list nothing can be added.
  const uint32_t before = live();
  EXPECT_EQ(shlist_addafter(l, S("x")), 0);
  EXPECT_EQ(shlist_insert_at_curr(l, S("x")), 0);
  EXPECT_EQ(shlist_addbefore(l, S("x")), 0);
  EXPECT_EQ(live(), before);  // the node made for addafter was freed again
  EXPECT_EQ(Contents(l), Strings({"a", "b", "c"}));
  EXPECT_EQ(shlist_update(l, S("x")), nullptr);
  EXPECT_EQ(shlist_remove(l), nullptr);
  EXPECT_EQ(shlist_get_count(l), 3);
  shlist_delete(l);
}

TEST_F(ContainersList, InsertInTheMiddleMovesCurrentButNotTheEnds) {
  SHLIST* l = Make({"a", "c"});
  shlist_get_first(l);
  EXPECT_EQ(shlist_addafter(l, S("b")), 1);
  EXPECT_EQ(Cur(l), "b");
  EXPECT_EQ(Contents(l), Strings({"a", "b", "c"}));
  EXPECT_STREQ(static_cast<char*>(l->last->data), "c");

  shlist_get_last(l);
  EXPECT_EQ(shlist_addafter(l, S("d")), 1);  // after the last: becomes last
  EXPECT_EQ(V(l->last), V(l->current));
  shlist_get_last(l);
  EXPECT_EQ(shlist_addbefore(l, S("c2")), 1);
  EXPECT_EQ(Contents(l), Strings({"a", "b", "c", "c2", "d"}));
  EXPECT_EQ(Cur(l), "c2");
  EXPECT_EQ(shlist_get_count(l), 5);
  shlist_delete(l);
}

TEST_F(ContainersList, RemoveChoosesTheNewPositionAsymmetrically) {
  SHLIST* l = Make({"a", "b", "c", "d"});
  // Middle: the next node becomes current.
  shlist_get_first(l);
  shlist_get_next(l);
  EXPECT_STREQ(static_cast<char*>(shlist_remove(l)), "b");
  EXPECT_EQ(Cur(l), "c");
  EXPECT_EQ(Contents(l), Strings({"a", "c", "d"}));
  // First: the next node becomes first and current.
  shlist_get_first(l);
  EXPECT_STREQ(static_cast<char*>(shlist_remove(l)), "a");
  EXPECT_EQ(Cur(l), "c");
  EXPECT_EQ(V(l->first), V(l->current));
  // Last: the previous node becomes last and there is no current node.
  shlist_get_last(l);
  EXPECT_STREQ(static_cast<char*>(shlist_remove(l)), "d");
  EXPECT_EQ(V(l->current), nullptr);
  EXPECT_EQ(shlist_get_next(l), nullptr);
  EXPECT_EQ(Contents(l), Strings({"c"}));
  // Only node: the list is empty.
  shlist_get_first(l);
  EXPECT_STREQ(static_cast<char*>(shlist_remove(l)), "c");
  EXPECT_EQ(Contents(l), Strings{});
  // An empty list accepts a new node again.
  EXPECT_EQ(shlist_addafter(l, S("z")), 1);
  EXPECT_EQ(Contents(l), Strings({"z"}));
  shlist_delete(l);
}

TEST_F(ContainersList, UpdateSetCurrentAndPutAfter) {
  SHLIST* l = Make({"a", "b", "c"});
  shlist_get_first(l);
  SHLISTNODE* first = shlist_get_handle(l);
  shlist_get_last(l);
  EXPECT_EQ(shlist_set_current(l, first), l);
  EXPECT_STREQ(static_cast<char*>(shlist_update(l, S("A"))), "a");
  EXPECT_EQ(Contents(l), Strings({"A", "b", "c"}));

  auto* node = static_cast<SHLISTNODE*>(zbstg_alloc(heap_, sizeof(SHLISTNODE), 0));
  node->data = S("a2");
  EXPECT_EQ(shlist_putafter(l, node), 1);
  EXPECT_EQ(shlist_get_handle(l), node);
  EXPECT_EQ(Contents(l), Strings({"A", "a2", "b", "c"}));

  // A node that cannot be linked is freed by the list.
  shlist_set_current(l, nullptr);
  const uint32_t before = live();
  node = static_cast<SHLISTNODE*>(zbstg_alloc(heap_, sizeof(SHLISTNODE), 0));
  node->data = S("lost");
  EXPECT_EQ(shlist_putafter(l, node), 0);
  EXPECT_EQ(live(), before);
  EXPECT_EQ(shlist_get_count(l), 4);
  shlist_delete(l);
}

TEST_F(ContainersList, NullHandleIsTolerated) {
  EXPECT_EQ(shlist_get_count(nullptr), 0);
  EXPECT_EQ(shlist_get_first(nullptr), nullptr);
  EXPECT_EQ(shlist_get_last(nullptr), nullptr);
  EXPECT_EQ(shlist_get_next(nullptr), nullptr);
  EXPECT_EQ(shlist_insert(nullptr, S("a")), 0);
  EXPECT_EQ(shlist_addafter(nullptr, S("a")), 0);
  EXPECT_EQ(shlist_addbefore(nullptr, S("a")), 0);
  EXPECT_EQ(shlist_remove(nullptr), nullptr);
  EXPECT_EQ(shlist_sort(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(shlist_traversal(nullptr, 0, nullptr), 1);
  shlist_delete(nullptr);
}

struct Visit {
  std::vector<std::string> seen;
  std::string stop_at;
};

int32_t ZBSHR_CALLBACK Visitor(void* data, intptr_t param) {
  auto* v = reinterpret_cast<Visit*>(param);
  v->seen.emplace_back(static_cast<const char*>(data));
  return v->seen.back() == v->stop_at ? 0 : static_cast<int32_t>(v->seen.size()) + 10;
}

TEST_F(ContainersList, TraversalStopsAtZeroAndKeepsThePosition) {
  SHLIST* l = Make({"a", "b", "c"});
  shlist_get_first(l);
  shlist_get_next(l);
  SHLISTNODE* pos = shlist_get_handle(l);

  Visit all;
  EXPECT_EQ(shlist_traversal(l, reinterpret_cast<intptr_t>(&all), Visitor), 13);
  EXPECT_EQ(all.seen, Strings({"a", "b", "c"}));
  Visit some{{}, "b"};
  EXPECT_EQ(shlist_traversal(l, reinterpret_cast<intptr_t>(&some), Visitor), 0);
  EXPECT_EQ(some.seen, Strings({"a", "b"}));
  EXPECT_EQ(shlist_get_handle(l), pos);

  SHLIST* empty = shlist_new(heap_, 0);
  Visit none;
  EXPECT_EQ(shlist_traversal(empty, reinterpret_cast<intptr_t>(&none), Visitor), 1);
  EXPECT_TRUE(none.seen.empty());
  shlist_delete(empty);
  shlist_delete(l);
}

// A callback that changes the list it is walking: the walk never visits a
// node that is gone, and never touches a list that was deleted.
struct Changer {
  SHLIST* list;
  std::string action;
  Strings seen;
};

bool MoveTo(SHLIST* l, const std::string& item) {
  for (void* d = shlist_get_first(l); d; d = shlist_get_next(l))
    if (item == static_cast<const char*>(d)) return true;
  return false;
}

int32_t ZBSHR_CALLBACK Change(void* data, intptr_t param) {
  auto* c = reinterpret_cast<Changer*>(param);
  c->seen.emplace_back(static_cast<const char*>(data));
  const std::string& a = c->action;
  if (a == "remove-next") {
    if (MoveTo(c->list, c->seen.back()) && shlist_get_next(c->list)) shlist_remove(c->list);
  } else if (a == "remove-self") {
    if (MoveTo(c->list, c->seen.back())) shlist_remove(c->list);
  } else if (a == "remove-last") {
    shlist_get_last(c->list);
    shlist_remove(c->list);
  } else if (a == "empty") {
    while (shlist_get_first(c->list)) shlist_remove(c->list);
  } else if (a == "sort-empty") {
    shlist_sort(c->list, nullptr, SHLIST_SORT_EMPTY | SHLIST_SORT_NOARRAY);
  } else if (a == "sort-rebuild") {
    shlist_sort(c->list, nullptr, SHLIST_SORT_REBUILD | SHLIST_SORT_NOARRAY);
  } else if (a == "delete") {
    shlist_delete(c->list);
    c->list = nullptr;
  }
  return 7;
}

TEST_F(ContainersList, TraversalSurvivesChangesMadeByTheCallback) {
  const struct {
    const char* action;
    Strings seen, left;
  } cases[] = {
      {"remove-next", {"a", "c", "e", "g"}, {"a", "c", "e", "g"}},
      {"remove-self", {"a", "b", "c", "d", "e", "f", "g", "h"}, {}},
      {"remove-last", {"a", "b", "c", "d"}, {"a", "b", "c", "d"}},
      {"empty", {"a"}, {}},
      {"sort-empty", {"a"}, {}},
      {"sort-rebuild", {"a"}, {"a", "b", "c", "d", "e", "f", "g", "h"}},
      {"delete", {"a"}, {}},
  };
  const uint32_t base = live();
  for (const auto& tc : cases) {
    SHLIST* l = Make({"e", "f", "g", "h"});
    for (const char* s : {"d", "c", "b", "a"}) {
      shlist_get_first(l);
      shlist_addbefore(l, S(s));
    }
    Changer c{l, tc.action, {}};
    EXPECT_EQ(shlist_traversal(l, reinterpret_cast<intptr_t>(&c), Change), 7) << tc.action;
    EXPECT_EQ(c.seen, tc.seen) << tc.action;
    if (c.list) {
      EXPECT_EQ(Contents(c.list), tc.left) << tc.action;
      shlist_delete(c.list);
    }
    EXPECT_EQ(live(), base) << tc.action;
  }
}

int32_t ZBSHR_CALLBACK ByLength(void* a, void* b) {
  return static_cast<int32_t>(std::strlen(static_cast<char*>(a))) -
         static_cast<int32_t>(std::strlen(static_cast<char*>(b)));
}

int32_t ZBSHR_CALLBACK Descending(intptr_t param, void* a, void* b) {
  ++*reinterpret_cast<int*>(param);
  return std::strcmp(static_cast<char*>(b), static_cast<char*>(a));
}

// Heap blocks are 4-byte aligned: read the returned array by copy.
const char* At(void** a, int i) {
  void* p;
  std::memcpy(&p, reinterpret_cast<char*>(a) + i * sizeof(void*), sizeof p);
  return static_cast<const char*>(p);
}

Strings ArrayStrings(void** a, int n) {
  Strings out;
  for (int i = 0; i < n; ++i) out.emplace_back(At(a, i));
  return out;
}

TEST_F(ContainersList, SortFlags) {
  const uint32_t base = live();
  // 1 | 2: the list is rebuilt in order and no array comes back.
  SHLIST* l = Make({"b", "a", "c"});
  EXPECT_EQ(shlist_sort(l, nullptr, SHLIST_SORT_REBUILD | SHLIST_SORT_NOARRAY), nullptr);
  EXPECT_EQ(Contents(l), Strings({"a", "b", "c"}));
  EXPECT_EQ(Cur(l), "c");
  shlist_delete(l);

  // 0: the list is unchanged; the sorted array belongs to the caller.
  l = Make({"ccc", "a", "bb"}, 9);
  void** arr = shlist_sort(l, ByLength, 0);
  ASSERT_NE(arr, nullptr);
  EXPECT_EQ(ArrayStrings(arr, 3), Strings({"a", "bb", "ccc"}));
  EXPECT_EQ(Contents(l), Strings({"ccc", "a", "bb"}));
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, arr), 9u);  // the list's pool
  zbstg_free(heap_, arr);

  // 4: the list is emptied, the data are only in the array.
  arr = shlist_sort(l, ByLength, SHLIST_SORT_EMPTY);
  ASSERT_NE(arr, nullptr);
  EXPECT_EQ(ArrayStrings(arr, 3), Strings({"a", "bb", "ccc"}));
  EXPECT_EQ(Contents(l), Strings{});
  zbstg_free(heap_, arr);
  EXPECT_EQ(shlist_sort(l, ByLength, 0), nullptr);  // empty list
  shlist_delete(l);

  // 1 with a parameter: list rebuilt and array returned.
  l = Make({"m", "z", "a", "q"});
  int calls = 0;
  arr = shlist_sort_param(l, reinterpret_cast<intptr_t>(&calls), Descending, SHLIST_SORT_REBUILD);
  ASSERT_NE(arr, nullptr);
  EXPECT_GT(calls, 0);
  EXPECT_EQ(ArrayStrings(arr, 4), Strings({"z", "q", "m", "a"}));
  EXPECT_EQ(Contents(l), Strings({"z", "q", "m", "a"}));
  zbstg_free(heap_, arr);
  shlist_delete(l);
  EXPECT_EQ(live(), base);
}

TEST_F(ContainersList, NullComparisonUsesTheSystemCollation) {
  SHLIST* l = Make({"beta", "Alpha", "alpha", "Beta", "gamma", "10", "9", "", "_x"});
  void** arr = shlist_sort(l, nullptr, 0);
  ASSERT_NE(arr, nullptr);
  for (int i = 0; i + 1 < 9; ++i) {
    EXPECT_LE(zbshr::plat::lstrcmpA(At(arr, i), At(arr, i + 1)), 0) << i;
  }
  zbstg_free(heap_, arr);
  shlist_delete(l);
}

TEST_F(ContainersList, NodesLiveInTheListsPoolAndAreAllFreed) {
  const uint32_t base = live();
  SHLIST* l = Make({"a", "b"}, 7);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, l), 7u);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, l->first), 7u);
  for (int i = 0; i < 1000; ++i) shlist_insert(l, S("x"));
  EXPECT_EQ(live(), base + 1003);
  shlist_delete(l);
  EXPECT_EQ(live(), base);

  // deleteFree also frees the data, in the list's heap.
  l = shlist_new(heap_, 3);
  for (int i = 0; i < 10; ++i) {
    char* s = static_cast<char*>(zbstg_alloc(heap_, 8, 3));
    std::strcpy(s, "data");
    shlist_insert(l, s);
  }
  EXPECT_EQ(live(), base + 21);
  EXPECT_EQ(shlist_deleteFree(l), 0);
  EXPECT_EQ(live(), base);
}

}  // namespace
