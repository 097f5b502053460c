// The statement cache against a recording driver and a model (available statements, latest first).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "zbshr/dbi.h"
#include "zbshr/memory.h"

namespace {

template <class T> T V(T x) { return x; }  // records are packed: take their fields by value
void* H(intptr_t n) { return reinterpret_cast<void*>(n); }
using Strings = std::vector<std::string>;

// A fresh heap and a connection whose driver records every request.
class Dbi : public ::testing::Test {
 protected:
  void SetUp() override {
    heap_ = zbstg_begin(0);
    pool_ = zbstg_new_pool(heap_);
    base_ = Live();
    conn_ = DBI_CONNECTION{heap_, pool_, &Dispatch, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, this};
  }
  void TearDown() override { zbstg_end(heap_); }
  // Drops are kept apart; any other request as "code|text1|text2|arg3".
  static int32_t ZBSHR_CALLBACK Dispatch(DBI_CONNECTION* c) {
    auto* self = static_cast<Dbi*>(c->driver);
    auto text = [](void* p) { return std::string(static_cast<const char*>(p)); };
    if (c->request == DBI_REQ_DROP_STATEMENT)
      self->dropped.push_back(reinterpret_cast<intptr_t>(V(static_cast<DBI_SQLCACHE_ENTRY*>(c->arg1)->statement)));
    else
      self->requests.push_back(std::to_string(c->request) + "|" + text(c->arg1) + "|" + text(c->arg2) + "|" + (c->arg3 ? "arg3" : "-"));
    return 1;
  }
  uint32_t Live() {
    ZBSTG_STAT st{};
    return zbstg_stat(heap_, &st), st.live_blocks;
  }
  static Strings Available(const DBI_SQLCACHE* cache) {
    Strings out;
    const SHLISTNODE* n = cache->entries->first;
    for (int32_t i = 0; i < cache->entries->count; ++i, n = n->next)
      out.emplace_back(V(static_cast<const DBI_SQLCACHE_ENTRY*>(n->data)->text));
    return out;
  }
  ZBSTG_HEAP heap_ = nullptr;
  uint32_t pool_ = 0, base_ = 0;
  DBI_CONNECTION conn_{};
  Strings requests;
  std::vector<intptr_t> dropped;  // statement handles, in the order dropped
};

// Leading blanks are the random workload's; here the copy, the discard forms and null arguments.
TEST_F(Dbi, RegisterCopiesTheText) {
  char text[] = "SELECT 1 ";
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(&conn_, text, H(7));
  text[0] = 'X';  // an owned copy, trailing blank kept
  EXPECT_EQ(std::make_tuple(std::string(V(e->text)), V(e->columns), e->use_count, zbstg_get_pointer_subpool(heap_, V(e->text))),
            std::make_tuple(std::string("SELECT 1 "), nullptr, 0u, pool_));
  DBI_SQLCacheDiscardEntry(&conn_, e, 0);  // the block stays, zeroed
  EXPECT_TRUE(!V(e->text) && !V(e->statement) && Live() == base_ + 1);
  zbstg_free(heap_, e);
  DBI_SQLCacheDiscardEntry(&conn_, DBI_SQLCacheRegisterSQLStatement(&conn_, " \n", H(2)), 1);
  EXPECT_EQ(dropped, (std::vector<intptr_t>{7, 2}));
  EXPECT_TRUE(!DBI_SQLCacheRegisterSQLStatement(&conn_, nullptr, H(1)) && !DBI_SQLCacheRegisterSQLStatement(nullptr, "SELECT 1", H(1)));
  EXPECT_EQ(Live(), base_);
}

// Random take/return sequences over texts that differ in a byte, length, case or blanks:
// the model predicts every hit, eviction, drop and counter.
TEST_F(Dbi, RandomWorkloadMatchesTheModel) {
  const std::string base = "SELECT a FROM t WHERE k = 1 AND v = 2";  // 37 bytes
  Strings texts = {base, base + " ", base.substr(0, 36), "select a FROM t WHERE k = 1 AND v = 2",
                   "SELECT  a FROM t WHERE k = 1 AND v = 2", "", "S"};
  for (size_t pos = 0; pos < base.size(); pos += 3)
    texts.push_back(base.substr(0, pos) + static_cast<char>(pos % 2 ? 0xE9 : '#') + base.substr(pos + 1));
  std::mt19937 rng(2024);
  for (int capacity : {-3, 0, 1, 3, 8, 40}) {
    dropped.clear();
    DBI_SQLCACHE* cache = DBI_SQLCacheBegin(&conn_, capacity);
    std::deque<std::pair<std::string, intptr_t>> model;  // available, head first
    std::vector<intptr_t> model_dropped;
    std::vector<DBI_SQLCACHE_ENTRY*> in_use;
    uint32_t hits = 0, misses = 0;
    intptr_t next = 1;
    for (int step = 0; step < 2500; ++step) {
      if (in_use.empty() || (rng() % 3 != 0 && in_use.size() < 5)) {
        const std::string& text = texts[rng() % texts.size()];
        const std::string sent = std::string("  \t\r\n").substr(0, rng() % 6) + text;
        DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRequestSqlStatement(&conn_, cache, sent.c_str());
        auto it = std::find_if(model.begin(), model.end(), [&](auto& m) { return m.first == text; });
        if (it != model.end()) {
          ++hits;
          ASSERT_TRUE(e && V(e->statement) == H(it->second)) << step;
          model.erase(it);
        } else {
          ++misses;
          ASSERT_EQ(e, nullptr) << step;
          e = DBI_SQLCacheRegisterSQLStatement(&conn_, sent.c_str(), H(next++));
        }
        in_use.push_back(e);
      } else {
        const size_t i = rng() % in_use.size();
        DBI_SQLCACHE_ENTRY* e = in_use[i];
        in_use.erase(in_use.begin() + static_cast<std::ptrdiff_t>(i));
        while (!model.empty() && static_cast<int>(model.size()) >= capacity) {
          model_dropped.push_back(model.back().second);
          model.pop_back();
        }
        model.emplace_front(V(e->text), reinterpret_cast<intptr_t>(V(e->statement)));
        DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &cache);
        if (rng() % 8 == 0) DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &cache);  // linked once
        ASSERT_EQ(dropped, model_dropped) << step;
      }
      Strings want;
      for (auto& m : model) want.push_back(m.first);
      ASSERT_EQ(Available(cache), want) << step;
      ASSERT_EQ(std::make_pair(cache->hits, cache->misses), std::make_pair(hits, misses));
    }
    conn_.sql_cache = cache;
    EXPECT_EQ(DBI_SQLCacheStatistics(&conn_, 0), std::to_string(hits) + " Cache Hits," + std::to_string(misses) +
                                                     " Cache Misses," + std::to_string(model.size()) + " entries in Cache");
    // Flush drops the available entries head first; those in use come back later.
    for (auto& m : model) model_dropped.push_back(m.second);
    DBI_SQLCacheFlushEntries(&conn_, &conn_.sql_cache);
    EXPECT_EQ(dropped, model_dropped);
    EXPECT_EQ(std::make_pair(cache->entries->count, cache->hits), std::make_pair(0, hits));
    for (DBI_SQLCACHE_ENTRY* e : in_use) DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &cache);
    DBI_SQLCacheEnd(&conn_, cache);
    EXPECT_EQ(conn_.sql_cache, nullptr);
    std::sort(dropped.begin(), dropped.end());  // every statement dropped once
    EXPECT_EQ(std::unique(dropped.begin(), dropped.end()) - dropped.begin(), next - 1);
    EXPECT_EQ(static_cast<intptr_t>(dropped.size()), next - 1);
    EXPECT_EQ(Live(), base_);
  }
}

TEST_F(Dbi, NullEntryIsReportedAndTheRequestFieldsRestored) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(&conn_, 2);
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(&conn_, "SELECT a", H(1));
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &cache);
  conn_.request = 12, conn_.arg1 = H(0x44), conn_.arg2 = H(0x55), conn_.arg3 = H(0x66);
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, nullptr, &cache);
  EXPECT_EQ(requests, Strings{"241|assertion failed! pEntry && pList|zbdbi6|-"});
  EXPECT_EQ(std::make_tuple(V(conn_.request), V(conn_.arg1), V(conn_.arg2), V(conn_.arg3)),
            std::make_tuple(12, H(0x44), H(0x55), H(0x66)));
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});
  // No slot: nothing reported; no cache in the slot: the entry stays the caller's.
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, nullptr, nullptr);
  DBI_SQLCACHE* none = nullptr;
  e = DBI_SQLCacheRegisterSQLStatement(&conn_, "SELECT z", H(9));
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &none);
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, nullptr);
  EXPECT_EQ(requests.size(), 1u);
  DBI_SQLCacheDiscardEntry(&conn_, e, 1);
  // An entry in the list cannot be discarded behind the cache's back.
  e = DBI_SQLCacheRequestSqlStatement(&conn_, cache, "SELECT a");
  DBI_SQLCacheMakeSQLStatementAvailable(&conn_, e, &cache);
  DBI_SQLCacheDiscardEntry(&conn_, e, 1);
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});
  EXPECT_EQ(dropped, std::vector<intptr_t>{9});
  // DBI_AttrInfo alone leaves the request fields as sent.
  EXPECT_EQ(DBI_AttrInfo(&conn_, "src", "msg"), 1);
  EXPECT_EQ(V(conn_.request), 241);
  EXPECT_EQ(requests.back().substr(0, 12), "241|msg|src|");
  DBI_CONNECTION silent{};
  EXPECT_EQ(DBI_AttrInfo(nullptr, "src", "msg") + DBI_AttrInfo(&silent, "src", "msg"), 0);
  DBI_SQLCacheEnd(&conn_, cache);
  EXPECT_EQ(Live(), base_);
  DBI_SQLCacheEnd(&conn_, nullptr);  // null arguments are ignored
  DBI_SQLCacheFlushEntries(&conn_, &none);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(&conn_, nullptr, "x"), nullptr);
}

// The text itself is the random workload's; here its buffer and edges.
TEST_F(Dbi, StatisticsText) {
  EXPECT_EQ(DBI_SQLCacheStatistics(nullptr, 1), nullptr);
  const char* s = DBI_SQLCacheStatistics(&conn_, 0);
  EXPECT_TRUE(!*s && !V(conn_.statistics));  // no cache, nothing stored
  conn_.sql_cache = DBI_SQLCacheBegin(&conn_, 3);
  EXPECT_STREQ(DBI_SQLCacheStatistics(&conn_, 1), "");  // no lookup yet
  EXPECT_EQ(V(conn_.statistics), s);                   // one static buffer
  for (auto [hits, misses] : {std::pair{1u, 0u}, {0u, 1u}, {4294967295u, 4000000000u}}) {
    conn_.sql_cache->hits = hits, conn_.sql_cache->misses = misses;
    EXPECT_EQ(std::string(DBI_SQLCacheStatistics(&conn_, 0)),
              std::to_string(hits) + " Cache Hits," + std::to_string(misses) + " Cache Misses,0 entries in Cache");
  }
  DBI_SQLCacheEnd(&conn_, conn_.sql_cache);
}

// A null description comes back as an empty column.
TEST_F(Dbi, DescribeIsCachedAndRebuilt) {
  char n1[] = "id", q1[] = "customer.id", n2[] = "name";
  DBI_COLUMN cols[3] = {};
  char* names[4][2] = {{n1, q1}, {n2, nullptr}, {n2, n2}, {nullptr, nullptr}};
  for (int i = 0; i < 3; ++i)
    cols[i] = DBI_COLUMN{names[i][0], names[i][1], i + 1, 4 + i, 10 + i, 20 + i, i & 1, i != 1, 30 + i, 40 + i, 50 + i, 60 + i, &cols[i], -1, &cols[i]};
  cols[2].nullable = 7;  // any non-zero flag comes back as 1
  SHLIST* described = shlist_new(heap_, pool_);
  for (DBI_COLUMN* c : {&cols[0], &cols[1], &cols[2], static_cast<DBI_COLUMN*>(nullptr)}) shlist_insert(described, c);
  shlist_get_first(described);
  shlist_get_next(described);
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(&conn_, "SELECT x", H(1));
  DBI_SQLCacheRegisterDescribe(&conn_, e, described);
  DBI_SQLCacheRegisterDescribe(&conn_, e, described);  // replaces the first copy
  EXPECT_EQ(shlist_get_curr(described), static_cast<void*>(&cols[1]));  // position kept
  n1[0] = 'X';  // the cache has its own copies
  SHLIST* rebuilt = DBI_SQLCacheRequestDescribe(&conn_, e);
  ASSERT_EQ(shlist_get_count(rebuilt), 4);
  n1[0] = 'i';
  int i = 0;
  for (void* d = shlist_get_first(rebuilt); d; d = shlist_get_next(rebuilt), ++i) {
    const auto* r = static_cast<DBI_COLUMN*>(d);
    auto text = [](const char* p) { return std::string(p ? p : "(null)"); };
    EXPECT_EQ(text(V(r->name)) + "|" + text(V(r->name2)), text(names[i][0]) + "|" + text(names[i][1]));
    EXPECT_TRUE(!V(r->name) || V(r->name) != names[i][0]);
    const int32_t got[] = {r->type, r->length, r->precision, r->scale, r->nullable, r->updatable,
                           r->bind_type, r->bind_length, r->display_width, r->position, r->indicator};
    const int32_t k = i < 3;  // the null column: all zero
    const int32_t want[] = {k * (i + 1), k * (4 + i), k * (10 + i), k * (20 + i), k && i != 0, k && i != 1,
                            k * (30 + i), k * (40 + i), k * (50 + i), k * (60 + i), 0};
    EXPECT_EQ(std::vector<int32_t>(got, got + 11), std::vector<int32_t>(want, want + 11)) << i;
    EXPECT_TRUE(!V(r->buffer) && !V(r->driver_data) && zbstg_get_pointer_subpool(heap_, d) == pool_);  // no fetch state
  }
  DBI_SQLCACHE_ENTRY* bare = DBI_SQLCacheRegisterSQLStatement(&conn_, "SELECT y", H(2));
  DBI_SQLCacheRegisterDescribe(&conn_, bare, shlist_new(heap_, pool_));  // empty: nothing
  EXPECT_EQ(DBI_SQLCacheRequestDescribe(&conn_, bare), nullptr);
  const uint32_t before = Live();
  DBI_SQLCacheDiscardEntry(&conn_, e, 1);  // list and 4 nodes, 4 records, 5 names, text, entry
  EXPECT_EQ(Live(), before - (1 + 4 + 4 + 5 + 1 + 1));
  DBI_SQLCacheDiscardEntry(&conn_, bare, 1);
}

TEST_F(Dbi, CacheSizeParameterAndSetup) {
  const struct { const char* params; int32_t stored; } cases[] = {  // stored -1: not stored
      {"SQLCache=20", 20}, {"sqlcache=5", 5}, {"  SQLCACHE  =  7  ", 7},
      {"Database='sales',SQLCache='12',DisableBind=1", 12}, {"SQLCache=\"3\"", 3},
      {"Host='a,SQLCache=9', SQLCache=4", 4}, {"SQLCache=1, SQLCache=2", 2}, {"'SQLCache'=6", 6}, {"SQLCache=+8", 8},
      {"SQLCache=0", 0}, {"SQLCache=007", 7}, {"SQLCache=2147483647", 2147483647},
      {"\tA='No',\r\n SQLCache=11\r\n", 11}, {"SQLCache='12", 12}, {"", -1}, {"SQLCache", -1}, {"SQLCacheSize=5", -1},
      {"MySQLCache=5", -1}, {"XQLCache=5", -1}, {"X='a''',SQLCache=4", 4}, {"SQLCachX=5", -1}, {"SQLCache=", -1},
      {"SQLCache=+", -1}, {"SQLCache=-1", -1}, {"SQLCache=2147483648", -1}, {"SQLCache=99999999999999999999", -1},
      {"SQLCache=1 0", -1}, {"SQLCache=1.5", -1}, {"SQLCache=ten", -1}, {"SQLCache=9:", -1}, {"SQLCache=/", -1},
      {"SQLCache='1'2", 12}, {"SQLCache=' 5'", -1}, {"SQLCache='1''2'", -1}, {"=5, SQLCache=3", 3},
      {"SQLCache=5=6", -1}, {"X='a''b,SQLCache=4'", -1}, {"SQLCache=\"4\"\"\"", -1},
  };
  conn_.sql_cache = DBI_SQLCacheBegin(&conn_, 99);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params);
    conn_.sql_cache->capacity = 99;
    conn_.params = c.params;
    EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(&conn_), c.stored >= 0 ? 1 : 0);
    EXPECT_EQ(conn_.sql_cache->capacity, c.stored >= 0 ? c.stored : 99);
  }
  conn_.params = nullptr;
  EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(&conn_) + DBI_SQLCacheSetSelectCacheSize(nullptr), 0);
  DBI_SQLCacheEnd(&conn_, conn_.sql_cache);
  conn_.params = "SQLCache=4";
  EXPECT_EQ(DBI_SQLCacheSetSelectCacheSize(&conn_), 0);  // no cache to store into
  DBI_SQLCACHE* cache = DBI_SQLCacheSetup(&conn_);
  EXPECT_EQ(std::make_tuple(conn_.sql_cache, cache->capacity, zbstg_get_pointer_subpool(heap_, cache)), std::make_tuple(cache, 4, pool_));
  conn_.params = "SQLCache=6";
  EXPECT_EQ(std::make_pair(DBI_SQLCacheSetup(&conn_), cache->capacity), std::make_pair(cache, 6));  // created once
  DBI_SQLCacheEnd(&conn_, cache);
  conn_.params = nullptr;
  EXPECT_EQ(DBI_SQLCacheSetup(&conn_)->capacity, 0);
  DBI_SQLCacheEnd(&conn_, conn_.sql_cache);
  EXPECT_EQ(DBI_SQLCacheSetup(nullptr), nullptr);
  EXPECT_EQ(Live(), base_);
}

}  // namespace
