// Random operation sequences checked against simple reference models.
#include <deque>
#include <map>
#include <memory>
#include <random>

#include "helpers.h"

namespace {

// A list model: a vector and the index of the current item (-1: none).
struct ListModel {
  std::vector<intptr_t> items;
  int cur = -1;
  int n() const { return static_cast<int>(items.size()); }
};

void* P(intptr_t v) { return reinterpret_cast<void*>(v); }
intptr_t I(void* p) { return reinterpret_cast<intptr_t>(p); }

class ContainersModel : public HeapTest {};

TEST_F(ContainersModel, ListOperationsFollowTheCursorRules) {
  std::mt19937 rng(2026);
  const uint32_t base = live();
  for (int round = 0; round < 40; ++round) {
    SHLIST* l = shlist_new(heap_, 0);
    ListModel m;
    intptr_t next_value = 1;
    for (int step = 0; step < 400; ++step) {
      const int op = static_cast<int>(rng() % 9);
      intptr_t want = 0, got = 0;
      switch (op) {
        case 0:  // get_first
          if (m.n()) m.cur = 0, want = m.items[0];
          got = I(shlist_get_first(l));
          break;
        case 1:  // get_last
          if (m.n()) m.cur = m.n() - 1, want = m.items[m.cur];
          got = I(shlist_get_last(l));
          break;
        case 2:  // get_next
          if (m.cur < 0 || m.cur == m.n() - 1) m.cur = -1;
          else want = m.items[++m.cur];
          got = I(shlist_get_next(l));
          break;
        case 3:  // get_prev
          if (m.cur <= 0) m.cur = -1;
          else want = m.items[--m.cur];
          got = I(shlist_get_prev(l));
          break;
        case 4:    // addafter
        case 5: {  // insert (append)
          const intptr_t v = next_value++;
          if (op == 5) m.cur = m.n() - 1;
          if (m.n() && m.cur < 0) {
            want = 0;
          } else {
            m.items.insert(m.items.begin() + (m.cur + 1), v);
            ++m.cur;
            want = 1;
          }
          got = op == 5 ? shlist_insert(l, P(v)) : shlist_addafter(l, P(v));
          break;
        }
        case 6: {  // addbefore
          const intptr_t v = next_value++;
          if (m.n() && m.cur < 0) {
            want = 0;
          } else {
            m.items.insert(m.items.begin() + (m.cur < 0 ? 0 : m.cur), v);
            if (m.cur < 0) m.cur = 0;
            want = 1;
          }
          got = shlist_addbefore(l, P(v));
          break;
        }
        case 7:  // remove
        case 8:
          if (m.cur >= 0) {
            want = m.items[m.cur];
            const bool was_last = m.cur == m.n() - 1;
            m.items.erase(m.items.begin() + m.cur);
            if (m.items.empty() || was_last) m.cur = -1;  // first: index 0 stays
          }
          got = I(shlist_remove(l));
          break;
      }
      ASSERT_EQ(got, want) << "round " << round << " step " << step << " op " << op;
      ASSERT_EQ(shlist_get_count(l), m.n());
      ASSERT_EQ(I(shlist_get_curr(l)), m.cur < 0 ? 0 : m.items[m.cur]);
      // The ring, read backwards from the last node, matches the model.
      const SHLISTNODE* node = l->last;
      for (int i = m.n() - 1; i >= 0; --i, node = node->prev) {
        ASSERT_EQ(I(node->data), m.items[i]);
      }
      if (m.n()) {
        ASSERT_EQ(node, V(l->last));  // and closes the ring
      }
    }
    shlist_delete(l);
  }
  EXPECT_EQ(live(), base);
}

TEST_F(ContainersModel, HashTableAgainstAMultimap) {
  std::mt19937 rng(99);
  const uint32_t base = live();
  std::vector<std::string> keys;
  for (int i = 0; i < 60; ++i) keys.push_back("k" + std::to_string(i * i % 37) + "\xc3" + char('a' + i % 5));
  for (int unique = 0; unique <= 1; ++unique) {
    for (int32_t buckets : {1, 3, 64}) {
      SHHASH* t = shhash_new(buckets, nullptr, unique, 0, heap_, 0);
      // Per key, the items in insertion order (the bucket list keeps it).
      std::map<std::string, std::deque<char*>> model;
      std::vector<std::unique_ptr<std::string>> owned;
      int items = 0;
      for (int step = 0; step < 3000; ++step) {
        const std::string& k = keys[rng() % keys.size()];
        if (rng() % 3) {
          owned.push_back(std::make_unique<std::string>(k));
          char* data = owned.back()->data();
          auto& q = model[k];
          const int32_t want = unique && !q.empty() ? 2 : 1;
          ASSERT_EQ(shhash_insert(t, data), want);
          if (want == 1) q.push_back(data), ++items;
        } else {
          auto& q = model[k];
          void* found = shhash_search(t, k.c_str());
          ASSERT_EQ(found, q.empty() ? nullptr : q.front());
          if (!q.empty() && rng() % 2) {
            // Walk to the last equal item with searchNext, then remove it.
            for (size_t i = 1; i < q.size(); ++i) ASSERT_EQ(shhash_searchNext(t, k.c_str()), q[i]);
            ASSERT_EQ(shhash_remove(t), q.back());
            q.pop_back();
            --items;
          } else if (!q.empty()) {
            ASSERT_EQ(shhash_remove(t), q.front());
            q.pop_front();
            --items;
          }
        }
        ASSERT_EQ(t->item_count, items);
      }
      int seen = 0;
      for (void* d = shhash_get_first(t); d; d = shhash_get_next(t)) ++seen;
      EXPECT_EQ(seen, items);
      shhash_delete(t);
    }
  }
  EXPECT_EQ(live(), base);
}

}  // namespace
