// A fake database driver for the statement-cache tests: a connection context
// whose dispatch entry records every request it receives.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "zbshr/dbi.h"
#include "zbshr/memory.h"

// Records are packed to 4 bytes; assertions take their fields by value.
template <class T>
T V(T x) {
  return x;
}

struct Request {
  int32_t code;
  void* arg1;
  void* arg2;
  void* arg3;
  std::string text1;  // arg1 as text (241) or the entry's text (247)
  std::string text2;  // arg2 as text (241)
  void* statement;    // the entry's statement handle (247)
};

class FakeDriver {
 public:
  explicit FakeDriver(ZBSTG_HEAP heap, uint32_t pool) {
    conn_ = DBI_CONNECTION{};
    conn_.heap = heap;
    conn_.pool = pool;
    conn_.dispatch = &FakeDriver::Dispatch;
    conn_.driver = this;
  }
  DBI_CONNECTION* conn() { return &conn_; }

  std::vector<Request> requests;
  // Statement handles dropped (request 247), in order.
  std::vector<intptr_t> dropped;

  // How many times each statement handle was dropped.
  std::map<intptr_t, int> DropCounts() const {
    std::map<intptr_t, int> m;
    for (intptr_t h : dropped) ++m[h];
    return m;
  }

 private:
  static int32_t ZBSHR_CALLBACK Dispatch(DBI_CONNECTION* c) {
    auto* self = static_cast<FakeDriver*>(c->driver);
    Request r{c->request, c->arg1, c->arg2, c->arg3, "", "", nullptr};
    if (c->request == DBI_REQ_ATTRINFO) {
      if (c->arg1) r.text1 = static_cast<const char*>(c->arg1);
      if (c->arg2) r.text2 = static_cast<const char*>(c->arg2);
    } else if (c->request == DBI_REQ_DROP_STATEMENT && c->arg1 != nullptr) {
      auto* e = static_cast<DBI_SQLCACHE_ENTRY*>(c->arg1);
      if (e->text) r.text1 = e->text;
      r.statement = e->statement;
      self->dropped.push_back(reinterpret_cast<intptr_t>(r.statement));
    }
    self->requests.push_back(r);
    return 1;
  }
  DBI_CONNECTION conn_;
};

inline void* H(intptr_t n) { return reinterpret_cast<void*>(n); }

// A fresh heap and pool per test, a fake driver on it, and the live-block
// count to prove that the cache freed what it allocated.
class DbiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    heap_ = zbstg_begin(0);
    pool_ = zbstg_new_pool(heap_);
    base_live_ = Live();
    drv_ = new FakeDriver(heap_, pool_);
  }
  void TearDown() override {
    delete drv_;
    zbstg_end(heap_);
  }
  uint32_t Live() {
    ZBSTG_STAT st{};
    zbstg_stat(heap_, &st);
    return st.live_blocks;
  }
  DBI_CONNECTION* conn() { return drv_->conn(); }

  // Texts of the available entries, head first.
  static std::vector<std::string> Available(const DBI_SQLCACHE* cache) {
    std::vector<std::string> out;
    const SHLIST* list = cache->entries;
    const SHLISTNODE* n = list->first;
    for (int32_t i = 0; i < list->count; ++i, n = n->next) {
      const char* text = static_cast<const DBI_SQLCACHE_ENTRY*>(n->data)->text;
      out.emplace_back(text);
    }
    return out;
  }

  // Registers `text` with handle `h` and returns it to the cache.
  DBI_SQLCACHE_ENTRY* Put(DBI_SQLCACHE* cache, const char* text, intptr_t h) {
    DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(conn(), text, H(h));
    DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
    return e;
  }

  ZBSTG_HEAP heap_ = nullptr;
  uint32_t pool_ = 0;
  uint32_t base_live_ = 0;
  FakeDriver* drv_ = nullptr;
};

using Strings = std::vector<std::string>;
