// Shared fixtures for the containers tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

// A fresh heap per test; the live-block count tells whether a container freed everything.
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

template <class T> T V(T x) { return x; }  // records are packed to 4 bytes: take pointer fields by value
inline void* S(const char* s) { return const_cast<char*>(s); }
inline void* P(intptr_t v) { return reinterpret_cast<void*>(v); }
inline intptr_t I(const void* p) { return reinterpret_cast<intptr_t>(p); }
using Strings = std::vector<std::string>;

// The data of a list from first to last, after checking every link of the ring.
inline Strings Contents(const SHLIST* list) {
  Strings out;
  const SHLISTNODE* n = list->first;
  for (int32_t i = 0; i < list->count; ++i, n = n->next) {
    EXPECT_EQ(V(n->next->prev), n);
    out.emplace_back(static_cast<const char*>(n->data));
  }
  EXPECT_TRUE(list->count ? n == V(list->first) && V(list->first->prev) == V(list->last)  // the ring closes after count nodes
                          : !V(list->first) && !V(list->last) && !V(list->current));
  return out;
}
