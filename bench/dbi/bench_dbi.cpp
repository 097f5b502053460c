// DBI_SQLCacheRequestSqlStatement hit and miss costs with 100 cached
// statements of typical length, side by side with a lookup in a
// std::unordered_map<std::string, void*> holding the same statements.
//
// A zbshr hit is measured together with the return of the entry
// (DBI_SQLCacheMakeSQLStatementAvailable), since a driver always does both
// and the entry must be back for the next round. Requests come in a random
// order, so a hit finds its entry half-way down the list on average.
// Misses compare against every entry: "late" misses share a long prefix
// with a cached statement (only the WHERE clause differs), "early" ones
// differ in the first word.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "zbshr/dbi.h"
#include "zbshr/memory.h"

namespace {

constexpr int kStatements = 100;
constexpr int kRequests = 4096;  // requests per benchmark iteration

std::string Statement(int i) {
  static const char* tables[] = {"customer", "orders", "order_line", "product", "invoice",
                                 "payment",  "supplier", "warehouse", "stock",  "employee"};
  const std::string t = tables[i % 10];
  const int v = i / 10;
  return "SELECT " + t + ".id, " + t + ".name, " + t + ".status, " + t +
         ".updated_at FROM " + t + " WHERE " + t + ".region_id = ? AND " + t +
         ".kind = " + std::to_string(v) + " ORDER BY " + t + ".id";
}

struct Workload {
  std::vector<std::string> cached;
  std::vector<std::string> late_miss;
  std::vector<std::string> early_miss;
  std::vector<int> order;
  Workload() {
    for (int i = 0; i < kStatements; ++i) {
      cached.push_back(Statement(i));
      std::string late = cached.back();
      late.replace(late.find(" ORDER BY"), 0, " AND 1 = 1");
      late_miss.push_back(late);
      early_miss.push_back("UPDATE" + cached.back().substr(6));
    }
    std::mt19937 rng(99);
    for (int i = 0; i < kRequests; ++i) order.push_back(static_cast<int>(rng() % kStatements));
  }
};

const Workload& W() {
  static const Workload w;
  return w;
}

int32_t Dispatch(DBI_CONNECTION*) { return 1; }

struct Cache {
  ZBSTG_HEAP heap = zbstg_begin(0);
  DBI_CONNECTION conn{};
  Cache() {
    conn.heap = heap;
    conn.pool = zbstg_new_pool(heap);
    conn.dispatch = &Dispatch;
    conn.sql_cache = DBI_SQLCacheBegin(&conn, kStatements);
    for (int i = 0; i < kStatements; ++i) {
      DBI_SQLCACHE_ENTRY* e = DBI_SQLCacheRegisterSQLStatement(
          &conn, W().cached[i].c_str(), reinterpret_cast<void*>(static_cast<intptr_t>(i + 1)));
      DBI_SQLCacheMakeSQLStatementAvailable(&conn, e, &conn.sql_cache);
    }
  }
  ~Cache() {
    DBI_SQLCacheEnd(&conn, conn.sql_cache);
    zbstg_end(heap);
  }
};

std::unordered_map<std::string, void*> Map() {
  std::unordered_map<std::string, void*> m;
  for (int i = 0; i < kStatements; ++i) {
    m.emplace(W().cached[i], reinterpret_cast<void*>(static_cast<intptr_t>(i + 1)));
  }
  return m;
}

void PerRequest(benchmark::State& state) {
  state.counters["ns_per_request"] = benchmark::Counter(
      static_cast<double>(kRequests) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Zbshr_Hit(benchmark::State& state) {
  Cache c;
  const Workload& w = W();
  for (auto _ : state) {
    for (int i : w.order) {
      DBI_SQLCACHE_ENTRY* e =
          DBI_SQLCacheRequestSqlStatement(&c.conn, c.conn.sql_cache, w.cached[i].c_str());
      benchmark::DoNotOptimize(e);
      DBI_SQLCacheMakeSQLStatementAvailable(&c.conn, e, &c.conn.sql_cache);
    }
  }
  if (c.conn.sql_cache->misses != 0) state.SkipWithError("a hit was missed");
  PerRequest(state);
}

void BM_Map_Hit(benchmark::State& state) {
  const auto m = Map();
  const Workload& w = W();
  for (auto _ : state) {
    for (int i : w.order) {
      auto it = m.find(w.cached[i]);
      benchmark::DoNotOptimize(it->second);
    }
  }
  PerRequest(state);
}

template <bool Late>
void BM_Zbshr_Miss(benchmark::State& state) {
  Cache c;
  const Workload& w = W();
  const auto& texts = Late ? w.late_miss : w.early_miss;
  for (auto _ : state) {
    for (int i : w.order) {
      benchmark::DoNotOptimize(
          DBI_SQLCacheRequestSqlStatement(&c.conn, c.conn.sql_cache, texts[i].c_str()));
    }
  }
  if (c.conn.sql_cache->hits != 0) state.SkipWithError("a miss was found");
  PerRequest(state);
}

template <bool Late>
void BM_Map_Miss(benchmark::State& state) {
  const auto m = Map();
  const Workload& w = W();
  const auto& texts = Late ? w.late_miss : w.early_miss;
  for (auto _ : state) {
    for (int i : w.order) benchmark::DoNotOptimize(m.find(texts[i]) == m.end());
  }
  PerRequest(state);
}

BENCHMARK(BM_Zbshr_Hit);
BENCHMARK(BM_Map_Hit);
BENCHMARK(BM_Zbshr_Miss<true>)->Name("BM_Zbshr_Miss_late");
BENCHMARK(BM_Map_Miss<true>)->Name("BM_Map_Miss_late");
BENCHMARK(BM_Zbshr_Miss<false>)->Name("BM_Zbshr_Miss_early");
BENCHMARK(BM_Map_Miss<false>)->Name("BM_Map_Miss_early");

}  // namespace

BENCHMARK_MAIN();
