// Hash tables: bucket choice against an independent model (hash_model.py
// wrote hash_vectors.txt), a multimap model, list keys, walks, statistics.
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "helpers.h"

namespace {

class ContainersHash : public HeapTest {
 protected:
  static int32_t BucketOf(SHHASH* t, const void* key) { return shhash_searchSlot(t, key), t->current; }
};

TEST_F(ContainersHash, BucketsMatchTheModel) {
  std::ifstream in(std::string(ZBSHR_SOURCE_DIR) + "/tests/containers/hash_vectors.txt");
  std::map<int32_t, SHHASH*> tables;
  for (std::string line; std::getline(in, line);) {
    std::istringstream ls(line);
    int32_t buckets = 0, expected = 0;
    std::string hex, key;
    ls >> buckets >> expected >> hex;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
      key.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    SHHASH*& t = tables[buckets];
    if (!t) t = shhash_new(buckets, nullptr, 0, 0, heap_, 0);
    EXPECT_EQ(BucketOf(t, key.c_str()), expected) << buckets << " " << hex;
  }
  EXPECT_EQ(tables.size(), 6u);  // the file was read
  for (auto& [n, t] : tables) shhash_delete(t);
}

struct Rec { const char* name; };
void* ZBSHR_CALLBACK RecName(void* data) { return S(static_cast<Rec*>(data)->name); }
void* ZBSHR_CALLBACK RecNameArg(intptr_t arg, void* data) {
  ++*reinterpret_cast<int*>(arg);
  return RecName(data);
}
// Random inserts, searches, searchNext walks and removals against a multimap
// (per key, the items in insertion order), through the three kinds of key.
TEST_F(ContainersHash, OperationsAgainstAMultimap) {
  std::mt19937 rng(99);
  const uint32_t base = live();
  std::vector<std::string> keys;
  for (int i = 0; i < 60; ++i) keys.push_back("k" + std::to_string(i * i % 37) + "\xc3" + char('a' + i % 5));
  int calls = 0;
  for (int kind = 0; kind < 6; ++kind) {
    const int unique = kind % 2;
    const int32_t buckets = kind < 2 ? 1 : kind < 4 ? 3 : 64;
    SHHASH* t = kind < 4 ? shhash_new(buckets, kind < 2 ? nullptr : RecName, unique, 0, heap_, 0)
                         : shhash_new_arg(buckets, reinterpret_cast<SHHASH_KEYFN>(reinterpret_cast<void (*)()>(RecNameArg)), unique,
                                          0, heap_, 0, reinterpret_cast<intptr_t>(&calls));
    std::map<std::string, std::deque<void*>> model;
    std::deque<Rec> recs;
    int items = 0;
    for (int step = 0; step < 2500; ++step) {
      const std::string& k = keys[rng() % keys.size()];
      auto& q = model[k];
      if (rng() % 3) {
        void* data = kind < 2 ? S(k.c_str()) : &recs.emplace_back(Rec{k.c_str()});
        const int32_t want = unique && !q.empty() ? 2 : 1;
        ASSERT_EQ(shhash_insert(t, data), want) << step;
        if (want == 1) q.push_back(data), ++items;
        continue;
      }
      ASSERT_EQ(shhash_search(t, k.c_str()), q.empty() ? nullptr : q.front()) << step;
      for (size_t i = 1; i < q.size(); ++i) ASSERT_EQ(shhash_searchNext(t, k.c_str()), q[i]);
      const bool remove = !q.empty() && rng() % 2;  // the last equal item, or nothing after a failed search
      ASSERT_TRUE(remove || !shhash_searchNext(t, k.c_str()));
      ASSERT_EQ(shhash_remove(t), remove ? q.back() : nullptr);
      if (remove) q.pop_back(), --items;
      ASSERT_EQ(t->item_count, items);
    }
    std::multiset<std::string> seen, want;
    for (void* d = shhash_get_first(t); d; d = shhash_get_next(t))
      seen.insert(kind < 2 ? static_cast<char*>(d) : static_cast<Rec*>(d)->name);
    for (auto& [k, q] : model)
      for (size_t i = 0; i < q.size(); ++i) want.insert(k);
    EXPECT_EQ(seen, want);
    EXPECT_EQ(shhash_search_unique(t, keys[0].c_str()), model[keys[0]].empty() ? nullptr : model[keys[0]].front());
    shhash_delete(t);
  }
  EXPECT_TRUE(calls > 1000 && live() == base);
}

TEST_F(ContainersHash, ListKeys) {
  auto make = [&](std::initializer_list<const char*> parts) {
    SHLIST* l = shlist_new(heap_, 0);
    for (const char* p : parts) shlist_insert(l, S(p));
    return l;
  };
  SHHASH* strings = shhash_new(1000003, nullptr, 0, 0, heap_, 0);
  SHHASH* t = shhash_new(1000003, nullptr, 1, 1, heap_, 0);
  SHLIST* ab = make({"a", "b"});
  SHLIST* key = make({"a", "bc", "\xe9z"});
  EXPECT_TRUE(BucketOf(t, key) == BucketOf(strings, "abc\xe9z") && !V(key->current));  // hashed as the concatenation
  EXPECT_EQ(shhash_insert(t, ab), 1);
  SHLIST *probe = make({"a", "b"}), *joined = make({"ab"}), *longer = make({"a", "b", ""}), *shorter = make({"a"});
  EXPECT_TRUE(shhash_search(t, probe) == ab && shhash_insert(t, probe) == 2);
  for (SHLIST* other : {joined, longer, shorter}) EXPECT_EQ(shhash_search(t, other), nullptr);  // same hash as ab or not
  for (SHLIST* l : {ab, key, probe, joined, longer, shorter}) shlist_delete(l);
  shhash_delete(t);
  shhash_delete(strings);
}

struct TableChanger {  // action: 0 count to 5, 1 remove the visited item, 2 clear and insert, 3 delete
  SHHASH* table;
  int action, calls;
};
int32_t ZBSHR_CALLBACK ChangeTable(void* data, intptr_t param) {
  auto* c = reinterpret_cast<TableChanger*>(param);
  ++c->calls;
  if (c->action == 0) return c->calls == 5 ? 0 : 42;
  if (c->action == 1 && shhash_search(c->table, data)) shhash_remove(c->table);
  if (c->action == 2) shhash_clear(c->table), shhash_insert(c->table, S("z"));  // a later bucket than the one walked
  if (c->action == 3) shhash_delete(c->table), c->table = nullptr;
  return 1;
}

TEST_F(ContainersHash, TraversalStatisticsClear) {
  const uint32_t base = live();
  const struct { int action, calls, result, left; } cases[] = {{0, 5, 0, 7}, {1, 7, 1, 0}, {2, 1, 1, 1}, {3, 1, 1, -1}};
  for (const auto& c : cases) {
    SHHASH* t = shhash_new(3, nullptr, 0, 0, heap_, 4);
    TableChanger ch{t, c.action, 0};
    EXPECT_EQ(shhash_traversal(t, reinterpret_cast<intptr_t>(&ch), ChangeTable), 1);  // empty
    for (const char* k : {"a", "b", "c", "d", "e", "f", "g"}) shhash_insert(t, S(k));
    EXPECT_EQ(std::make_pair(shhash_traversal(t, reinterpret_cast<intptr_t>(&ch), ChangeTable), ch.calls),
              std::make_pair(c.result, c.calls)) << c.action;
    if (ch.table) {
      EXPECT_EQ(std::make_pair(ch.table->item_count, zbstg_get_pointer_subpool(heap_, V(ch.table->buckets))), std::make_pair(c.left, 4u));
      shhash_delete(ch.table);
    }
    EXPECT_EQ(live(), base) << c.action;
  }
  // a..e are single bytes 0x61..0x65: buckets 7, 8, 9, 0, 1 of 10.
  const struct { int32_t buckets; const char* keys; double expected, actual; int32_t longest; } stats[] = {{10, "", 1.0, 0.0, 0}, {10, "abcde", 1.0, 1.0, 1}, {10, "abcdee", 1.0, 1.2, 2},
               {2, "abcde", 2.5, 2.5, 3}, {4, "abcdefgh", 2.0, 2.0, 2}, {0, "ab", 1.0, 0.0, 0}};
  for (const auto& s : stats) {
    SHHASH* t = shhash_new(s.buckets, nullptr, 0, 0, heap_, 0);
    for (const char* k = s.keys; *k; ++k)  // one-letter keys that outlive the table
      EXPECT_EQ(shhash_insert(t, S(&"a\0b\0c\0d\0e\0f\0g\0h"[2 * (*k - 'a')])), s.buckets ? 1 : 0);
    SHHASH_STAT st{};
    EXPECT_EQ(std::make_tuple(shhash_statistics(t, &st), st.expected_chain, st.actual_chain, st.longest_chain),
              std::make_tuple(&st, s.expected, s.actual, s.longest)) << s.keys;  // all exact in binary
    shhash_clear(t);
    shhash_statistics(t, &st);
    EXPECT_TRUE(t->item_count == 0 && !shhash_get_first(t) && st.longest_chain == 0);
    EXPECT_TRUE(shhash_insert(t, S("a")) == (s.buckets ? 1 : 0) && shhash_search(t, "a") == (s.buckets ? S("a") : nullptr));  // still usable
    shhash_delete(t);
  }
  SHHASH_STAT st{};
  EXPECT_TRUE(shhash_statistics(nullptr, &st) == &st && st.expected_chain == 1.0 && !shhash_statistics(nullptr, nullptr) && !shhash_insert(nullptr, S("a")) && !shhash_search(nullptr, "a") &&
              !shhash_get_first(nullptr));
  shhash_delete(nullptr);
  EXPECT_EQ(live(), base);
}

}  // namespace
