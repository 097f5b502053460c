// The statement cache against a fake driver: matching, hit removal,
// eviction order, capacity, release through the driver, statistics.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <random>

#include "fake_driver.h"

namespace {

const char kSel[] = "SELECT id, name FROM customer WHERE id = ?";

TEST_F(DbiTest, RegisterCopiesTextWithoutLeadingBlanks) {
  char text[] = " \t\r\n  SELECT 1 ";
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(conn(), text, H(7));
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(V(e->text), "SELECT 1 ");  // trailing blank kept
  EXPECT_NE(V(e->text), text + 6);        // an owned copy
  text[6] = 'X';
  EXPECT_STREQ(V(e->text), "SELECT 1 ");
  EXPECT_EQ(V(e->statement), H(7));
  EXPECT_EQ(V(e->columns), nullptr);
  EXPECT_EQ(e->use_count, 0u);
  EXPECT_EQ(e->reserved[0], 0u);  // not in a cache
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, e), pool_);
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, V(e->text)), pool_);
  DBI_SQLCacheDiscardEntry(conn(), e, 1);
  EXPECT_EQ(Live(), base_live_);

  EXPECT_EQ(DBI_SQLCacheRegisterSQLStatement(conn(), nullptr, H(1)), nullptr);
  EXPECT_EQ(DBI_SQLCacheRegisterSQLStatement(nullptr, "SELECT 1", H(1)), nullptr);
  // Blanks only: an entry with an empty text.
  e = DBI_SQLCacheRegisterSQLStatement(conn(), " \n", H(2));
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(V(e->text), "");
  DBI_SQLCacheDiscardEntry(conn(), e, 1);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, MatchingSkipsLeadingBlanksOnlyAndIsByteExact) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 10);
  Put(cache, kSel, 1);

  // Differences in case or trailing blanks miss and leave the entry there.
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache,
                                            "select id, name FROM customer WHERE id = ?"),
            nullptr);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache,
                                            "SELECT id, name FROM customer WHERE id = ? "),
            nullptr);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT id, name FROM customer"),
            nullptr);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache,
                                            "SELECT  id, name FROM customer WHERE id = ?"),
            nullptr);
  EXPECT_EQ(cache->misses, 4u);
  EXPECT_EQ(Available(cache), Strings{kSel});

  // Leading spaces, tabs and line breaks are skipped.
  std::string padded = std::string("\r\n\t  ") + kSel;
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRequestSqlStatement(conn(), cache, padded.c_str());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(V(e->statement), H(1));
  EXPECT_EQ(e->use_count, 1u);
  EXPECT_EQ(cache->hits, 1u);

  // A second request before the entry is returned misses: it is in use.
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, kSel), nullptr);
  EXPECT_EQ(cache->misses, 5u);
  EXPECT_EQ(cache->entries->count, 0);

  DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, kSel), e);
  EXPECT_EQ(e->use_count, 2u);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);

  EXPECT_TRUE(drv_->requests.empty());  // nothing dropped so far
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{1});
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, TextsOfEqualLengthDifferingInOneByte) {
  // 37 bytes: four whole words and a 5-byte tail. Each variant changes one
  // byte, at every position, including bytes with the high bit set.
  const std::string base = "SELECT a FROM t WHERE k = 1 AND v = 2";
  ASSERT_EQ(base.size(), 37u);
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 100);
  std::vector<std::string> texts;
  for (size_t pos = 0; pos < base.size(); ++pos) {
    std::string t = base;
    t[pos] = static_cast<char>(pos % 2 ? 0xE9 : '#');
    texts.push_back(t);
    Put(cache, t.c_str(), static_cast<intptr_t>(pos + 1));
  }
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, base.c_str()), nullptr);
  for (size_t pos = 0; pos < texts.size(); ++pos) {
    DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRequestSqlStatement(conn(), cache, texts[pos].c_str());
    ASSERT_NE(e, nullptr) << pos;
    EXPECT_EQ(V(e->statement), H(static_cast<intptr_t>(pos + 1)));
    DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
  }
  // A text that extends a cached one, or stops short of it, does not match.
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, (texts[3] + "x").c_str()), nullptr);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, texts[3].substr(0, 36).c_str()),
            nullptr);
  EXPECT_EQ(cache->hits, 37u);
  EXPECT_EQ(cache->misses, 3u);
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped.size(), 37u);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, FirstMatchFromTheHeadIsHandedOut) {
  // Two entries with the same text (two statements prepared while the first
  // was in use): the one released last is found first.
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 5);
  DBI_SQLCACHE_ENTRY* a = DBI_SQLCacheRegisterSQLStatement(conn(), kSel, H(1));
  DBI_SQLCACHE_ENTRY* b = DBI_SQLCacheRegisterSQLStatement(conn(), kSel, H(2));
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), a, &cache);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), b, &cache);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, kSel), b);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, kSel), a);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, kSel), nullptr);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), a, &cache);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), b, &cache);
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{2, 1}));
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, EvictsTheEntryReleasedLongestAgo) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 2);
  Put(cache, "SELECT a", 1);
  Put(cache, "SELECT b", 2);
  EXPECT_TRUE(drv_->dropped.empty());
  Put(cache, "SELECT c", 3);
  ASSERT_EQ(drv_->requests.size(), 1u);
  EXPECT_EQ(drv_->requests[0].code, 247);
  EXPECT_EQ(drv_->requests[0].text1, "SELECT a");
  EXPECT_EQ(drv_->requests[0].statement, H(1));
  EXPECT_EQ(drv_->requests[0].arg2, nullptr);
  EXPECT_EQ(Available(cache), (Strings{"SELECT c", "SELECT b"}));

  // Using b and returning it makes c the oldest.
  DBI_SQLCACHE_ENTRY* b = DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT b");
  ASSERT_NE(b, nullptr);
  Put(cache, "SELECT d", 4);  // room for it: one entry is in use
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{1});
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), b, &cache);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{1, 3}));
  EXPECT_EQ(Available(cache), (Strings{"SELECT b", "SELECT d"}));
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT a"), nullptr);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT c"), nullptr);

  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{1, 3, 2, 4}));
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, CapacityZeroKeepsTheNewestEntryOnly) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 0);
  Put(cache, "SELECT a", 1);
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});
  Put(cache, "SELECT b", 2);
  EXPECT_EQ(Available(cache), Strings{"SELECT b"});
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{1});
  DBI_SQLCACHE_ENTRY* b = DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT b");
  ASSERT_NE(b, nullptr);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), b, &cache);
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{1});  // list was empty
  // A negative capacity behaves like 0.
  cache->capacity = -3;
  Put(cache, "SELECT c", 3);
  EXPECT_EQ(Available(cache), Strings{"SELECT c"});
  cache->capacity = 1;
  Put(cache, "SELECT d", 4);
  EXPECT_EQ(Available(cache), Strings{"SELECT d"});
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{1, 2, 3, 4}));
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, ShrinkingCapacityEvictsDownOnTheNextReturn) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 5);
  for (int i = 1; i <= 5; ++i) Put(cache, ("SELECT " + std::to_string(i)).c_str(), i);
  cache->capacity = 2;
  Put(cache, "SELECT 6", 6);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{1, 2, 3, 4}));
  EXPECT_EQ(Available(cache), (Strings{"SELECT 6", "SELECT 5"}));
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, NullEntryIsReportedAndRequestFieldsRestored) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 2);
  Put(cache, "SELECT a", 1);
  int marker = 0;
  conn()->request = 12;
  conn()->arg1 = &marker;
  conn()->arg2 = H(0x55);
  conn()->arg3 = H(0x66);

  DBI_SQLCacheMakeSQLStatementAvailable(conn(), nullptr, &cache);
  ASSERT_EQ(drv_->requests.size(), 1u);
  const Request& r = drv_->requests[0];
  EXPECT_EQ(r.code, 241);
  EXPECT_EQ(r.text1, "assertion failed! pEntry && pList");
  EXPECT_EQ(r.text2, "zbdbi6");
  EXPECT_EQ(r.arg3, nullptr);
  EXPECT_EQ(V(conn()->request), 12);
  EXPECT_EQ(V(conn()->arg1), static_cast<void*>(&marker));
  EXPECT_EQ(V(conn()->arg2), H(0x55));
  EXPECT_EQ(V(conn()->arg3), H(0x66));
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});  // nothing evicted or added

  // No slot: nothing reported. No cache in the slot: the entry stays the
  // caller's.
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), nullptr, nullptr);
  DBI_SQLCACHE* none = nullptr;
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(conn(), "SELECT z", H(9));
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &none);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, nullptr);
  EXPECT_EQ(drv_->requests.size(), 1u);
  DBI_SQLCacheDiscardEntry(conn(), e, 1);
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{9});

  // DBI_AttrInfo on its own leaves the request fields as sent.
  EXPECT_EQ(DBI_AttrInfo(conn(), "src", "msg"), 1);
  EXPECT_EQ(V(conn()->request), 241);
  EXPECT_EQ(drv_->requests.back().text1, "msg");
  EXPECT_EQ(drv_->requests.back().text2, "src");
  EXPECT_EQ(DBI_AttrInfo(nullptr, "src", "msg"), 0);
  DBI_CONNECTION silent{};
  EXPECT_EQ(DBI_AttrInfo(&silent, "src", "msg"), 0);

  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, ReturningAnEntryTwiceLinksItOnce) {
  DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), 4);
  DBI_SQLCACHE_ENTRY* e = Put(cache, "SELECT a", 1);
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});
  // An entry in the list cannot be discarded behind the cache's back.
  DBI_SQLCacheDiscardEntry(conn(), e, 1);
  EXPECT_EQ(Available(cache), Strings{"SELECT a"});
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{1});
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, FlushAndEndReleaseEveryEntryOnce) {
  conn()->sql_cache = DBI_SQLCacheBegin(conn(), 10);
  DBI_SQLCACHE* cache = conn()->sql_cache;
  for (int i = 1; i <= 4; ++i) Put(cache, ("SELECT " + std::to_string(i)).c_str(), i);
  DBI_SQLCACHE_ENTRY* used = DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT 2");
  ASSERT_NE(used, nullptr);
  DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT 9");

  DBI_SQLCacheFlushEntries(conn(), &conn()->sql_cache);
  EXPECT_EQ(drv_->dropped, (std::vector<intptr_t>{4, 3, 1}));  // head first
  EXPECT_EQ(conn()->sql_cache, cache);
  EXPECT_EQ(cache->entries->count, 0);
  EXPECT_EQ(cache->hits, 1u);  // counters survive a flush
  EXPECT_EQ(cache->misses, 1u);
  DBI_SQLCacheFlushEntries(conn(), &conn()->sql_cache);  // empty: nothing
  EXPECT_EQ(drv_->dropped.size(), 3u);

  // The entry in use is still valid and can come back.
  EXPECT_STREQ(V(used->text), "SELECT 2");
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), used, &conn()->sql_cache);
  Put(cache, "SELECT 5", 5);

  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_EQ(conn()->sql_cache, nullptr);
  auto counts = drv_->DropCounts();
  EXPECT_EQ(counts.size(), 5u);
  for (auto& [h, n] : counts) EXPECT_EQ(n, 1) << "statement " << h;
  EXPECT_EQ(Live(), base_live_);

  // Null arguments are ignored.
  DBI_SQLCacheEnd(conn(), nullptr);
  DBI_SQLCacheFlushEntries(conn(), nullptr);
  DBI_SQLCACHE* none = nullptr;
  DBI_SQLCacheFlushEntries(conn(), &none);
  EXPECT_EQ(DBI_SQLCacheRequestSqlStatement(conn(), nullptr, "x"), nullptr);
  EXPECT_EQ(drv_->dropped.size(), 5u);
}

TEST_F(DbiTest, DiscardWithoutFreeZeroesTheEntry) {
  DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(conn(), "SELECT a", H(3));
  const uint32_t with_entry = Live();
  DBI_SQLCacheDiscardEntry(conn(), e, 0);
  EXPECT_EQ(drv_->dropped, std::vector<intptr_t>{3});
  EXPECT_EQ(Live(), with_entry - 1);  // the text is gone, the block stays
  EXPECT_EQ(V(e->text), nullptr);
  EXPECT_EQ(V(e->statement), nullptr);
  EXPECT_EQ(e->use_count, 0u);
  zbstg_free(heap_, e);
  EXPECT_EQ(Live(), base_live_);
}

TEST_F(DbiTest, StatisticsText) {
  EXPECT_EQ(DBI_SQLCacheStatistics(nullptr, 1), nullptr);
  const char* s = DBI_SQLCacheStatistics(conn(), 0);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "");  // no cache
  EXPECT_EQ(V(conn()->statistics), nullptr);

  conn()->sql_cache = DBI_SQLCacheBegin(conn(), 3);
  EXPECT_STREQ(DBI_SQLCacheStatistics(conn(), 1), "");  // no lookup yet
  EXPECT_EQ(V(conn()->statistics), s);

  DBI_SQLCACHE* cache = conn()->sql_cache;
  DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT a");  // empty cache: miss
  Put(cache, "SELECT a", 1);
  Put(cache, "SELECT b", 2);
  DBI_SQLCACHE_ENTRY* a = DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT a");
  DBI_SQLCacheRequestSqlStatement(conn(), cache, "SELECT c");
  EXPECT_STREQ(DBI_SQLCacheStatistics(conn(), 0), "1 Cache Hits,2 Cache Misses,1 entries in Cache");
  DBI_SQLCacheMakeSQLStatementAvailable(conn(), a, &cache);
  // One static buffer: the earlier pointer sees the new text.
  EXPECT_EQ(DBI_SQLCacheStatistics(conn(), 0), s);
  EXPECT_STREQ(s, "1 Cache Hits,2 Cache Misses,2 entries in Cache");

  // Counters print as unsigned 32-bit values.
  cache->hits = 4294967295u;
  cache->misses = 4000000000u;
  EXPECT_STREQ(DBI_SQLCacheStatistics(conn(), 0),
               "4294967295 Cache Hits,4000000000 Cache Misses,2 entries in Cache");
  DBI_SQLCacheEnd(conn(), cache);
  EXPECT_STREQ(DBI_SQLCacheStatistics(conn(), 0), "");
  EXPECT_EQ(Live(), base_live_);
}

// A random workload checked against a plain model of the cache: a deque of
// available statements, most recently released first.
TEST_F(DbiTest, RandomWorkloadMatchesModel) {
  struct Item {
    std::string text;
    intptr_t handle;
  };
  std::mt19937 rng(2024);
  for (int capacity : {0, 1, 3, 8}) {
    drv_->dropped.clear();
    DBI_SQLCACHE* cache = DBI_SQLCacheBegin(conn(), capacity);
    std::deque<Item> model;  // available, head first
    std::vector<intptr_t> model_dropped;
    std::vector<DBI_SQLCACHE_ENTRY*> in_use;
    uint32_t hits = 0, misses = 0;
    intptr_t next_handle = 1;
    for (int step = 0; step < 3000; ++step) {
      const bool take = in_use.empty() || (rng() % 3 != 0 && in_use.size() < 4);
      if (take) {
        std::string text = "SELECT * FROM t" + std::to_string(rng() % 12);
        std::string sent = std::string(rng() % 3, ' ') + text;
        DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRequestSqlStatement(conn(), cache, sent.c_str());
        auto it = std::find_if(model.begin(), model.end(),
                               [&](const Item& m) { return m.text == text; });
        if (it != model.end()) {
          ++hits;
          ASSERT_NE(e, nullptr) << "step " << step;
          ASSERT_EQ(V(e->statement), H(it->handle)) << "step " << step;
          model.erase(it);
        } else {
          ++misses;
          ASSERT_EQ(e, nullptr) << "step " << step;
          e = DBI_SQLCacheRegisterSQLStatement(conn(), sent.c_str(), H(next_handle++));
        }
        in_use.push_back(e);
      } else {
        const size_t i = rng() % in_use.size();
        DBI_SQLCACHE_ENTRY* e = in_use[i];
        in_use.erase(in_use.begin() + static_cast<std::ptrdiff_t>(i));
        while (!model.empty() && static_cast<int>(model.size()) >= capacity) {
          model_dropped.push_back(model.back().handle);
          model.pop_back();
        }
        model.push_front({V(e->text), reinterpret_cast<intptr_t>(V(e->statement))});
        DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
        ASSERT_EQ(drv_->dropped, model_dropped) << "step " << step;
      }
      std::vector<std::string> texts;
      for (const Item& m : model) texts.push_back(m.text);
      ASSERT_EQ(Available(cache), texts) << "step " << step;
      ASSERT_EQ(cache->hits, hits);
      ASSERT_EQ(cache->misses, misses);
    }
    for (DBI_SQLCACHE_ENTRY* e : in_use) DBI_SQLCacheMakeSQLStatementAvailable(conn(), e, &cache);
    DBI_SQLCacheEnd(conn(), cache);
    // Every statement ever prepared was dropped exactly once.
    auto counts = drv_->DropCounts();
    EXPECT_EQ(static_cast<intptr_t>(counts.size()), next_handle - 1) << "capacity " << capacity;
    for (auto& [h, n] : counts) EXPECT_EQ(n, 1) << "statement " << h;
    EXPECT_EQ(Live(), base_live_);
  }
}

}  // namespace
