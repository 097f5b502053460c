// Shared fixtures for the containers tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

// A fresh heap per test; the live-block count tells whether a container
// freed everything it allocated.
class HeapTest : public ::testing::Test {
 protected:
  void SetUp() override { heap_ = zbstg_begin(0); }
  void TearDown() override { zbstg_end(heap_); }
  uint32_t live() {
    ZBSTG_STAT st{};
    zbstg_stat(heap_, &st);
    return st.live_blocks;
  }
  ZBSTG_HEAP heap_ = nullptr;
};

// The list and table records are packed to 4 bytes; assertions take their
// pointer fields by value.
template <class T>
T V(T x) {
  return x;
}

inline void* S(const char* s) { return const_cast<char*>(s); }

// Walks the ring from `first`, checking every link and the ends, and returns
// the data as strings. Fails the test when the ring is inconsistent.
inline std::vector<std::string> Contents(const SHLIST* list) {
  std::vector<std::string> out;
  if (list->count == 0) {
    EXPECT_EQ(V(list->first), nullptr);
    EXPECT_EQ(V(list->last), nullptr);
    EXPECT_EQ(V(list->current), nullptr);
    return out;
  }
  EXPECT_EQ(V(list->first->prev), V(list->last));
  EXPECT_EQ(V(list->last->next), V(list->first));
  const SHLISTNODE* n = list->first;
  for (int32_t i = 0; i < list->count; ++i) {
    EXPECT_EQ(V(n->next->prev), n);
    EXPECT_EQ(V(n->prev->next), n);
    out.emplace_back(n->data ? static_cast<const char*>(n->data) : "<null>");
    if (i + 1 == list->count) {
      EXPECT_EQ(n, V(list->last));
    }
    n = n->next;
  }
  return out;
}

using Strings = std::vector<std::string>;
