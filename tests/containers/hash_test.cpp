#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "helpers.h"

namespace {

class ContainersHash : public HeapTest {
 protected:
  // The bucket a key falls into, as the table reports it.
  static int32_t BucketOf(SHHASH* t, const void* key) {
    shhash_searchSlot(t, key);
    return t->current;
  }
};

std::string FromHex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// Buckets computed by an independent model (hash_model.py).
TEST_F(ContainersHash, BucketsMatchTheModel) {
  std::ifstream in(std::string(ZBSHR_SOURCE_DIR) + "/tests/containers/hash_vectors.txt");
  ASSERT_TRUE(in) << "hash_vectors.txt missing";
  std::map<int32_t, SHHASH*> tables;
  std::string line;
  int checked = 0;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    int32_t buckets = 0, expected = 0;
    std::string hex;
    ls >> buckets >> expected >> hex;
    SHHASH*& t = tables[buckets];
    if (!t) t = shhash_new(buckets, nullptr, 0, 0, heap_, 0);
    const std::string key = FromHex(hex);
    EXPECT_EQ(BucketOf(t, key.c_str()), expected) << buckets << " " << hex;
    ++checked;
  }
  EXPECT_GT(checked, 1000);
  for (auto& [n, t] : tables) shhash_delete(t);
}

TEST_F(ContainersHash, ListKeysHashLikeTheConcatenatedString) {
  SHHASH* strings = shhash_new(1000003, nullptr, 0, 0, heap_, 0);
  SHHASH* lists = shhash_new(1000003, nullptr, 0, 1, heap_, 0);
  SHLIST* key = shlist_new(heap_, 0);
  shlist_insert(key, S("a"));
  shlist_insert(key, S("bc"));
  shlist_insert(key, S("\xe9z"));
  EXPECT_EQ(BucketOf(lists, key), BucketOf(strings, "abc\xe9z"));
  EXPECT_EQ(V(key->current), nullptr);  // hashing clears the key list's position
  EXPECT_NE(BucketOf(strings, "ab"), BucketOf(strings, "ba"));
  shlist_delete(key);
  shhash_delete(strings);
  shhash_delete(lists);
}

TEST_F(ContainersHash, UniqueTableRefusesADuplicate) {
  SHHASH* t = shhash_new(101, nullptr, 1, 0, heap_, 0);
  char copy[] = "key";
  EXPECT_EQ(shhash_insert(t, S("key")), 1);
  EXPECT_EQ(shhash_insert(t, copy), 2);  // equal text, another pointer
  EXPECT_EQ(shhash_insert(t, S("Key")), 1);  // case counts
  EXPECT_EQ(t->item_count, 2);
  shhash_delete(t);
}

struct Rec {
  const char* name;
  int id;
};
void* ZBSHR_CALLBACK RecName(void* data) { return const_cast<char*>(static_cast<Rec*>(data)->name); }
void* RecNameArg(intptr_t arg, void* data) {
  ++*reinterpret_cast<int*>(arg);
  return RecName(data);
}

TEST_F(ContainersHash, DuplicatesSearchNextAndRemove) {
  Rec recs[] = {{"x", 1}, {"y", 2}, {"x", 3}, {"x", 4}};
  // One bucket: every key collides, so the chain order is observable.
  SHHASH* t = shhash_new(1, RecName, 0, 0, heap_, 0);
  for (Rec& r : recs) EXPECT_EQ(shhash_insert(t, &r), 1);
  EXPECT_EQ(t->item_count, 4);

  EXPECT_EQ(shhash_search(t, "x"), &recs[0]);
  EXPECT_EQ(shhash_searchNext(t, "x"), &recs[2]);
  EXPECT_EQ(shhash_searchNext(t, "x"), &recs[3]);
  EXPECT_EQ(shhash_searchNext(t, "x"), nullptr);
  EXPECT_EQ(shhash_searchNext(t, "x"), nullptr);
  EXPECT_EQ(shhash_search_unique(t, "y"), &recs[1]);

  // Remove right after a failed search removes nothing.
  EXPECT_EQ(shhash_search(t, "nope"), nullptr);
  EXPECT_EQ(shhash_remove(t), nullptr);
  EXPECT_EQ(t->item_count, 4);

  // Remove the second "x": the current position is the match.
  shhash_search(t, "x");
  EXPECT_EQ(shhash_searchNext(t, "x"), &recs[2]);
  EXPECT_EQ(shhash_remove(t), &recs[2]);
  EXPECT_EQ(t->item_count, 3);
  EXPECT_EQ(shhash_search(t, "x"), &recs[0]);
  EXPECT_EQ(shhash_searchNext(t, "x"), &recs[3]);
  shhash_delete(t);
}

TEST_F(ContainersHash, KeyFunctionWithArgument) {
  Rec recs[] = {{"alpha", 1}, {"beta", 2}};
  int calls = 0;
  SHHASH* t = shhash_new_arg(13, reinterpret_cast<SHHASH_KEYFN>(reinterpret_cast<void (*)()>(RecNameArg)), 1, 0, heap_, 0,
                             reinterpret_cast<intptr_t>(&calls));
  EXPECT_EQ(shhash_insert(t, &recs[0]), 1);
  EXPECT_EQ(shhash_insert(t, &recs[1]), 1);
  EXPECT_GE(calls, 2);
  EXPECT_EQ(shhash_search(t, "beta"), &recs[1]);
  EXPECT_EQ(shhash_search(t, "gamma"), nullptr);
  shhash_delete(t);
}

TEST_F(ContainersHash, ListKeyTable) {
  // Items are lists of strings; the key is the list itself.
  SHHASH* t = shhash_new(17, nullptr, 1, 1, heap_, 0);
  auto make = [&](std::initializer_list<const char*> parts) {
    SHLIST* l = shlist_new(heap_, 0);
    for (const char* p : parts) shlist_insert(l, S(p));
    return l;
  };
  SHLIST* ab = make({"a", "b"});
  SHLIST* abc = make({"ab", "c"});
  EXPECT_EQ(shhash_insert(t, ab), 1);
  EXPECT_EQ(shhash_insert(t, abc), 1);
  SHLIST* probe = make({"a", "b"});
  EXPECT_EQ(shhash_search(t, probe), ab);
  EXPECT_EQ(shhash_insert(t, probe), 2);
  SHLIST* joined = make({"ab"});  // same hash as a, b; not an equal key
  EXPECT_EQ(shhash_search(t, joined), nullptr);
  SHLIST* longer = make({"a", "b", ""});
  EXPECT_EQ(shhash_search(t, longer), nullptr);
  for (SHLIST* l : {ab, abc, probe, joined, longer}) shlist_delete(l);
  shhash_delete(t);
}

TEST_F(ContainersHash, IterationVisitsEveryItemOnceInBucketOrder) {
  SHHASH* t = shhash_new(7, nullptr, 0, 0, heap_, 0);
  SHHASH* probe = shhash_new(7, nullptr, 0, 0, heap_, 0);  // bucket look-ups only
  std::vector<std::string> keys;
  for (int i = 0; i < 50; ++i) keys.push_back("k" + std::to_string(i));
  for (auto& k : keys) shhash_insert(t, k.data());
  std::multiset<std::string> seen;
  int32_t last_bucket = -1;
  for (void* d = shhash_get_first(t); d; d = shhash_get_next(t)) {
    seen.insert(static_cast<char*>(d));
    EXPECT_GE(V(t->current), last_bucket);
    EXPECT_EQ(BucketOf(probe, d), V(t->current));
    last_bucket = t->current;
  }
  EXPECT_EQ(seen, std::multiset<std::string>(keys.begin(), keys.end()));
  EXPECT_EQ(shhash_get_next(t), nullptr);
  shhash_delete(t);
  shhash_delete(probe);
  EXPECT_EQ(shhash_get_first(nullptr), nullptr);
}

int32_t ZBSHR_CALLBACK CountUntil(void* data, intptr_t param) {
  auto* n = reinterpret_cast<int*>(param);
  return ++*n == 5 ? 0 : 42;
}

TEST_F(ContainersHash, TraversalStatisticsClearAndLeaks) {
  const uint32_t base = live();
  SHHASH* t = shhash_new(10, nullptr, 0, 0, heap_, 4);
  int n = 0;
  EXPECT_EQ(shhash_traversal(t, reinterpret_cast<intptr_t>(&n), CountUntil), 1);
  const char* keys[] = {"a", "b", "c", "d", "e"};
  for (const char* k : keys) shhash_insert(t, S(k));
  SHHASH_STAT st{};
  EXPECT_EQ(shhash_statistics(t, &st), &st);
  EXPECT_DOUBLE_EQ(st.expected_chain, 1.0);  // 5 / 10, raised to 1.0
  // a..e are single bytes 0x61..0x65: buckets 7, 8, 9, 0, 1 of 10.
  EXPECT_DOUBLE_EQ(st.actual_chain, 1.0);
  EXPECT_EQ(st.longest_chain, 1);
  EXPECT_EQ(shhash_traversal(t, reinterpret_cast<intptr_t>(&n), CountUntil), 0);
  EXPECT_EQ(n, 5);
  n = 0;
  shhash_insert(t, S("e"));  // a second "e" makes a chain of two
  EXPECT_EQ(shhash_traversal(t, reinterpret_cast<intptr_t>(&n), CountUntil), 0);
  shhash_statistics(t, &st);
  EXPECT_EQ(st.longest_chain, 2);
  EXPECT_DOUBLE_EQ(st.actual_chain, 6.0 / 5.0);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, t->buckets), 4u);

  shhash_clear(t);
  EXPECT_EQ(t->item_count, 0);
  EXPECT_EQ(shhash_search(t, "a"), nullptr);
  EXPECT_EQ(shhash_get_first(t), nullptr);
  shhash_statistics(t, &st);
  EXPECT_DOUBLE_EQ(st.actual_chain, 0.0);
  EXPECT_EQ(st.longest_chain, 0);
  EXPECT_EQ(shhash_insert(t, S("a")), 1);  // still usable
  EXPECT_EQ(shhash_search(t, "a"), S("a"));
  shhash_delete(t);
  EXPECT_EQ(live(), base);

  // Many items, fewer buckets: the expected chain is items / buckets.
  t = shhash_new(8, nullptr, 0, 0, heap_, 0);
  std::vector<std::string> ks;
  for (int i = 0; i < 100; ++i) ks.push_back(std::to_string(i * 7919));
  for (auto& k : ks) shhash_insert(t, k.data());
  shhash_statistics(t, &st);
  EXPECT_DOUBLE_EQ(st.expected_chain, 12.5);
  shhash_delete(t);
  EXPECT_EQ(live(), base);
}

// Clearing or deleting the table inside the walk ends it; removing items
// does not disturb it.
struct TableChanger {
  SHHASH* table;
  int action;  // 0 remove the visited item, 1 clear and insert, 2 delete
  int calls;
};

int32_t ZBSHR_CALLBACK ChangeTable(void* data, intptr_t param) {
  auto* c = reinterpret_cast<TableChanger*>(param);
  ++c->calls;
  if (c->action == 0) {
    if (shhash_search(c->table, data)) shhash_remove(c->table);
  } else if (c->action == 1) {
    shhash_clear(c->table);
    shhash_insert(c->table, S("z"));  // bucket 2 of 3, after the walked bucket 0
  } else {
    shhash_delete(c->table);
    c->table = nullptr;
  }
  return 1;
}

TEST_F(ContainersHash, TraversalSurvivesClearAndDeleteInTheCallback) {
  const uint32_t base = live();
  for (int action = 0; action < 3; ++action) {
    SHHASH* t = shhash_new(3, nullptr, 0, 0, heap_, 0);
    for (const char* k : {"a", "b", "c", "d", "e", "f", "g"}) shhash_insert(t, S(k));
    TableChanger c{t, action, 0};
    EXPECT_EQ(shhash_traversal(t, reinterpret_cast<intptr_t>(&c), ChangeTable), 1);
    EXPECT_EQ(c.calls, action == 0 ? 7 : 1) << action;
    if (c.table) {
      EXPECT_EQ(c.table->item_count, action == 1 ? 1 : 0);
      EXPECT_EQ(shhash_insert(c.table, S("z")), 1);  // still usable
      shhash_delete(c.table);
    }
    EXPECT_EQ(live(), base) << action;
  }
}

TEST_F(ContainersHash, DegenerateTables) {
  SHHASH* t = shhash_new(0, nullptr, 0, 0, heap_, 0);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(shhash_insert(t, S("a")), 0);
  EXPECT_EQ(shhash_search(t, "a"), nullptr);
  EXPECT_EQ(shhash_searchSlot(t, "a"), nullptr);
  EXPECT_EQ(shhash_remove(t), nullptr);
  SHHASH_STAT st{};
  shhash_statistics(t, &st);
  EXPECT_DOUBLE_EQ(st.expected_chain, 1.0);
  shhash_delete(t);
  EXPECT_EQ(shhash_insert(nullptr, S("a")), 0);
  EXPECT_EQ(shhash_search(nullptr, "a"), nullptr);
  shhash_delete(nullptr);
}

}  // namespace
