// Lists: cursor rules against a model, walks that change the list, sorting.
#include <cstring>
#include <random>

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
};

// Random operations against a vector and the index of the current item.
TEST_F(ContainersList, OperationsFollowTheCursorRules) {
  std::mt19937 rng(2026);
  const uint32_t base = live();
  for (int round = 0; round < 40; ++round) {
    SHLIST* l = shlist_new(heap_, 0);
    std::vector<intptr_t> m;
    int cur = -1;
    for (int step = 0; step < 300; ++step) {
      const int op = static_cast<int>(rng() % 12), n = static_cast<int>(m.size());
      const intptr_t v = step + 1;
      intptr_t want = 0, got = 0;
      switch (op) {
        case 0: if (n) cur = 0, want = m[0];
          got = I(shlist_get_first(l)); break;
        case 1: if (n) cur = n - 1, want = m[cur];
          got = I(shlist_get_last(l)); break;
        case 2: if (cur < 0 || cur == n - 1) cur = -1; else want = m[++cur];
          got = I(shlist_get_next(l)); break;
        case 3: if (cur <= 0) cur = -1; else want = m[--cur];
          got = I(shlist_get_prev(l)); break;
        case 4: case 5: case 6: case 7: {  // addafter, insert_at_curr, insert, putafter
          if (op == 6) cur = n - 1;
          if ((want = !(n && cur < 0))) m.insert(m.begin() + ++cur, v);
          const uint32_t before = live();
          auto* node = op == 7 ? static_cast<SHLISTNODE*>(zbstg_alloc(heap_, sizeof(SHLISTNODE), 0)) : nullptr;
          if (node) node->data = P(v);
          got = op == 4 ? shlist_addafter(l, P(v)) : op == 5 ? shlist_insert_at_curr(l, P(v))
                : op == 6 ? shlist_insert(l, P(v)) : shlist_putafter(l, node);
          ASSERT_EQ(live(), before + static_cast<uint32_t>(want));  // a refused node is freed
          break;
        }
        case 8: if ((want = !(n && cur < 0))) m.insert(m.begin() + (cur < 0 ? cur = 0 : cur), v);
          got = shlist_addbefore(l, P(v)); break;
        case 9: if (cur >= 0) want = m[cur], m[cur] = v;
          got = I(shlist_update(l, P(v))); break;
        default:
          if (cur >= 0) want = m[cur], m.erase(m.begin() + cur), cur = cur == n - 1 ? -1 : cur;  // removing the last leaves no position
          got = I(shlist_remove(l));
      }
      ASSERT_EQ(got, want) << "round " << round << " step " << step << " op " << op;
      ASSERT_EQ(std::make_pair(shlist_get_count(l), I(shlist_get_curr(l))), std::make_pair(static_cast<int32_t>(m.size()), cur < 0 ? 0 : m[cur]));
      ASSERT_TRUE(shlist_get_handle(l) == shlist_curr_node(l) && shlist_get_handle(l) == V(l->current));
      const SHLISTNODE* node = l->last;  // the ring read backwards matches
      for (int i = static_cast<int>(m.size()) - 1; i >= 0; --i, node = node->prev)
        ASSERT_EQ(I(node->data), m[i]);
      ASSERT_TRUE(m.empty() || node == V(l->last));
      if (step % 50 == 0 && !m.empty()) {  // a saved position can be restored
        EXPECT_EQ(shlist_set_current(l, V(l->first)), l);
        cur = 0;
      }
    }
    shlist_delete(l);
  }
  EXPECT_EQ(live(), base);
  EXPECT_TRUE(!shlist_get_count(nullptr) && !shlist_get_first(nullptr) && !shlist_get_handle(nullptr) &&
              !shlist_insert(nullptr, S("a")) && !shlist_addbefore(nullptr, S("a")) && !shlist_sort(nullptr, nullptr, 0) &&
              shlist_traversal(nullptr, 0, nullptr) == 1);
  shlist_delete(nullptr);
}

// A callback that changes the list it walks: the walk never visits a node
// that is gone, and never touches a list that was deleted.
struct Changer {
  SHLIST* list;
  std::string action;
  Strings seen;
};

int32_t ZBSHR_CALLBACK Change(void* data, intptr_t param) {
  auto* c = reinterpret_cast<Changer*>(param);
  c->seen.emplace_back(static_cast<const char*>(data));
  const std::string& a = c->action;
  bool at_self = false;  // the remove actions move the list's position to the visited item
  for (void* d = a.rfind("remove-", 0) ? nullptr : shlist_get_first(c->list); d && !(at_self = c->seen.back() == static_cast<const char*>(d));)
    d = shlist_get_next(c->list);
  if (a == "remove-next" && at_self && shlist_get_next(c->list)) shlist_remove(c->list);
  if (a == "remove-self" && at_self) shlist_remove(c->list);
  if (a == "remove-last" && shlist_get_last(c->list)) shlist_remove(c->list);
  while (a == "empty" && shlist_get_first(c->list)) shlist_remove(c->list);
  if (a.rfind("sort-", 0) == 0)
    shlist_sort(c->list, nullptr, (a == "sort-empty" ? SHLIST_SORT_EMPTY : SHLIST_SORT_REBUILD) | SHLIST_SORT_NOARRAY);
  if (a == "delete") shlist_delete(c->list), c->list = nullptr;
  return a == c->seen.back() ? 0 : static_cast<int32_t>(c->seen.size()) + 10;  // action "c": stop at c
}

TEST_F(ContainersList, TraversalVisitsInOrderAndSurvivesChanges) {
  const Strings all = {"a", "b", "c", "d", "e", "f", "g", "h"};
  const struct { const char* action; Strings seen, left; int32_t result; } cases[] = {
      {"none", all, all, 18}, {"c", {"a", "b", "c"}, all, 0}, {"remove-next", {"a", "c", "e", "g"}, {"a", "c", "e", "g"}, 14},
      {"remove-self", all, {}, 18}, {"remove-last", {"a", "b", "c", "d"}, {"a", "b", "c", "d"}, 14}, {"empty", {"a"}, {}, 11},
      {"sort-empty", {"a"}, {}, 11}, {"sort-rebuild", {"a"}, all, 11}, {"delete", {"a"}, {}, 11},
  };
  const uint32_t base = live();
  for (const auto& tc : cases) {
    SHLIST* l = Make({"e", "f", "g", "h"});
    for (const char* s : {"d", "c", "b", "a"}) shlist_get_first(l), shlist_addbefore(l, S(s));
    shlist_get_next(l);
    SHLISTNODE* pos = shlist_get_handle(l);
    Changer c{l, tc.action, {}};
    EXPECT_EQ(std::make_pair(shlist_traversal(l, reinterpret_cast<intptr_t>(&c), Change), c.seen), std::make_pair(tc.result, tc.seen))
        << tc.action;
    if (c.list) {
      EXPECT_EQ(Contents(c.list), tc.left) << tc.action;
      EXPECT_TRUE(std::string("none c").find(tc.action) == std::string::npos || shlist_get_handle(l) == pos);  // untouched
      shlist_delete(c.list);
    }
    EXPECT_EQ(live(), base) << tc.action;
  }
  SHLIST* empty = shlist_new(heap_, 0);
  EXPECT_EQ(shlist_traversal(empty, 0, Change), 1);  // the callback would dereference the null parameter
  shlist_delete(empty);
}

int32_t ZBSHR_CALLBACK ByLength(void* a, void* b) {
  return static_cast<int32_t>(std::strlen(static_cast<char*>(a))) - static_cast<int32_t>(std::strlen(static_cast<char*>(b)));
}
int32_t ZBSHR_CALLBACK Descending(intptr_t param, void* a, void* b) {
  ++*reinterpret_cast<int*>(param);
  return std::strcmp(static_cast<char*>(b), static_cast<char*>(a));
}
Strings ArrayStrings(void** a, int n) {  // heap blocks are 4-byte aligned: copy out
  std::vector<const char*> p(n);
  std::memcpy(p.data(), a, n * sizeof(void*));
  return Strings(p.begin(), p.end());
}

TEST_F(ContainersList, SortFlagsAndPools) {
  const uint32_t base = live();
  const Strings input = {"ccc", "a", "bb", "dddd"}, sorted = {"a", "bb", "ccc", "dddd"};
  const struct { int32_t flags; Strings left; bool array; } cases[] = {{0, input, true}, {SHLIST_SORT_REBUILD, sorted, true},
               {SHLIST_SORT_REBUILD | SHLIST_SORT_NOARRAY, sorted, false},
               {SHLIST_SORT_EMPTY, {}, true}, {SHLIST_SORT_NOARRAY, input, false}};
  for (const auto& c : cases) {
    SHLIST* l = Make({"ccc", "a", "bb", "dddd"}, 9);
    void** arr = shlist_sort(l, ByLength, c.flags);
    EXPECT_TRUE(c.array ? ArrayStrings(arr, 4) == sorted && zbstg_get_pointer_subpool(heap_, arr) == 9 : !arr) << c.flags;
    zbstg_free(heap_, arr);  // in the list's pool
    EXPECT_TRUE(Contents(l) == c.left && (c.left.empty() || shlist_get_curr(l) == V(l->last)->data)) << c.flags;  // at "dddd"
    arr = shlist_sort(l, ByLength, SHLIST_SORT_EMPTY);
    EXPECT_EQ(arr == nullptr, c.left.empty());
    zbstg_free(heap_, arr);
    shlist_delete(l);
  }
  SHLIST* l = Make({"m", "z", "a", "q"}, 7);
  int calls = 0;
  void** arr = shlist_sort_param(l, reinterpret_cast<intptr_t>(&calls), Descending, SHLIST_SORT_REBUILD);
  EXPECT_TRUE(calls > 0 && ArrayStrings(arr, 4) == Strings({"z", "q", "m", "a"}) && Contents(l) == ArrayStrings(arr, 4) &&
              zbstg_get_pointer_subpool(heap_, V(l->first)) == 7);
  zbstg_free(heap_, arr);
  shlist_delete(l);
  // A null comparison sorts in the system's collation order.
  l = Make({"beta", "Alpha", "alpha", "Beta", "gamma", "10", "9", "", "_x"});
  arr = shlist_sort(l, nullptr, 0);
  const Strings got = ArrayStrings(arr, 9);
  for (int i = 0; i + 1 < 9; ++i) EXPECT_LE(zbshr::plat::lstrcmpA(got[i].c_str(), got[i + 1].c_str()), 0) << i;
  zbstg_free(heap_, arr);
  shlist_delete(l);
  // deleteFree frees the data too, in the list's heap.
  l = shlist_new(heap_, 3);
  for (int i = 0; i < 10; ++i) shlist_insert(l, zbstg_alloc(heap_, 8, 3));
  EXPECT_TRUE(live() == base + 21 && shlist_deleteFree(l) == 0 && live() == base);
}

}  // namespace
