// Hash table, heap sort and list against std::unordered_map, std::sort and
// std::list. Each case runs the same work on both sides: 1,000,000 items.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "zbshr/containers.h"
#include "zbshr/memory.h"

namespace {

constexpr int kItems = 1000000;
constexpr int32_t kBuckets = 1000003;

// 1,000,000 distinct keys of 12 to 31 letters and digits, in random order,
// and the same keys shuffled again for the lookups.
struct Keys {
  std::vector<std::string> text;
  std::vector<int> lookup_order;
  Keys() {
    std::mt19937_64 rng(12345);
    const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    std::unordered_map<std::string, int> seen;
    seen.reserve(kItems);
    while (static_cast<int>(text.size()) < kItems) {
      std::string k(12 + rng() % 20, ' ');
      for (char& c : k) c = alphabet[rng() % 63];
      if (seen.emplace(k, 0).second) text.push_back(std::move(k));
    }
    lookup_order.resize(kItems);
    for (int i = 0; i < kItems; ++i) lookup_order[i] = i;
    std::shuffle(lookup_order.begin(), lookup_order.end(), rng);
  }
};

const Keys& keys() {
  static const Keys k;
  return k;
}

void PerItem(benchmark::State& state) {
  state.counters["ns_per_item"] = benchmark::Counter(
      static_cast<double>(kItems), benchmark::Counter::kIsIterationInvariantRate |
                                             benchmark::Counter::kInvert);
}

// ---------------------------------------------------------------- hash insert
void BM_shhash_insert(benchmark::State& state) {
  const auto& k = keys();
  const int32_t unique = static_cast<int32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    ZBSTG_HEAP heap = zbstg_begin(0);
    state.ResumeTiming();
    SHHASH* t = shhash_new(kBuckets, nullptr, unique, 0, heap, 0);
    for (const auto& s : k.text) shhash_insert(t, const_cast<char*>(s.c_str()));
    benchmark::DoNotOptimize(t->item_count);
    state.PauseTiming();
    shhash_delete(t);
    zbstg_end(heap);
    state.ResumeTiming();
  }
  PerItem(state);
}
BENCHMARK(BM_shhash_insert)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_unordered_map_insert(benchmark::State& state) {
  const auto& k = keys();
  for (auto _ : state) {
    auto* m = new std::unordered_map<std::string, void*>;
    m->reserve(kBuckets);
    for (const auto& s : k.text) m->emplace(s, const_cast<char*>(s.c_str()));
    benchmark::DoNotOptimize(m->size());
    state.PauseTiming();
    delete m;
    state.ResumeTiming();
  }
  PerItem(state);
}
BENCHMARK(BM_unordered_map_insert)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---------------------------------------------------------------- hash search
void BM_shhash_search(benchmark::State& state) {
  const auto& k = keys();
  ZBSTG_HEAP heap = zbstg_begin(0);
  SHHASH* t = shhash_new(kBuckets, nullptr, 1, 0, heap, 0);
  for (const auto& s : k.text) shhash_insert(t, const_cast<char*>(s.c_str()));
  // Probe with copies, so that the comparisons read the text.
  std::vector<std::string> probes;
  for (int i : k.lookup_order) probes.push_back(k.text[i]);
  int64_t found = 0;
  for (auto _ : state) {
    for (const auto& p : probes) found += shhash_search(t, p.c_str()) != nullptr;
  }
  if (found != static_cast<int64_t>(state.iterations()) * kItems) state.SkipWithError("missed");
  SHHASH_STAT st{};
  shhash_statistics(t, &st);
  state.counters["chain"] = st.actual_chain;
  state.counters["longest"] = st.longest_chain;
  shhash_delete(t);
  zbstg_end(heap);
  PerItem(state);
}
BENCHMARK(BM_shhash_search)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_unordered_map_search(benchmark::State& state) {
  const auto& k = keys();
  std::unordered_map<std::string, void*> m;
  m.reserve(kBuckets);
  for (const auto& s : k.text) m.emplace(s, const_cast<char*>(s.c_str()));
  std::vector<std::string> probes;
  for (int i : k.lookup_order) probes.push_back(k.text[i]);
  int64_t found = 0;
  for (auto _ : state) {
    for (const auto& p : probes) found += m.find(p) != m.end();
  }
  if (found != static_cast<int64_t>(state.iterations()) * kItems) state.SkipWithError("missed");
  PerItem(state);
}
BENCHMARK(BM_unordered_map_search)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// ---------------------------------------------------------------- sorting
int32_t CompareText(void* a, void* b) {
  return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

std::vector<void*> Unsorted() {
  std::vector<void*> v;
  for (const auto& s : keys().text) v.push_back(const_cast<char*>(s.c_str()));
  return v;
}

void BM_sh_heapsort(benchmark::State& state) {
  const std::vector<void*> input = Unsorted();
  std::vector<void*> a;
  SH_COMPARE cmp = CompareText;
  benchmark::DoNotOptimize(cmp);
  for (auto _ : state) {
    state.PauseTiming();
    a = input;
    state.ResumeTiming();
    sh_heapsort(a.data(), kItems, cmp);
    benchmark::ClobberMemory();
  }
  if (!std::is_sorted(a.begin(), a.end(), [](void* x, void* y) { return CompareText(x, y) < 0; }))
    state.SkipWithError("not sorted");
  PerItem(state);
}
BENCHMARK(BM_sh_heapsort)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_std_sort(benchmark::State& state) {
  const std::vector<void*> input = Unsorted();
  std::vector<void*> a;
  SH_COMPARE cmp = CompareText;  // the same comparison, through a pointer too
  benchmark::DoNotOptimize(cmp);
  for (auto _ : state) {
    state.PauseTiming();
    a = input;
    state.ResumeTiming();
    std::sort(a.begin(), a.end(), [cmp](void* x, void* y) { return cmp(x, y) < 0; });
    benchmark::ClobberMemory();
  }
  PerItem(state);
}
BENCHMARK(BM_std_sort)->Unit(benchmark::kMillisecond)->Iterations(5);

// ---------------------------------------------------------------- lists
int32_t Sum(void* data, intptr_t param) {
  *reinterpret_cast<intptr_t*>(param) += reinterpret_cast<intptr_t>(data);
  return 1;
}

void BM_shlist_insert_traverse(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    ZBSTG_HEAP heap = zbstg_begin(0);
    state.ResumeTiming();
    SHLIST* l = shlist_new(heap, 0);
    for (intptr_t i = 0; i < kItems; ++i) shlist_insert(l, reinterpret_cast<void*>(i));
    intptr_t sum = 0;
    for (void* d = shlist_get_first(l); shlist_get_handle(l); d = shlist_get_next(l)) {
      sum += reinterpret_cast<intptr_t>(d);
    }
    benchmark::DoNotOptimize(sum);
    state.PauseTiming();
    shlist_delete(l);
    zbstg_end(heap);
    state.ResumeTiming();
  }
  PerItem(state);
}
BENCHMARK(BM_shlist_insert_traverse)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_shlist_insert_traversal_callback(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    ZBSTG_HEAP heap = zbstg_begin(0);
    state.ResumeTiming();
    SHLIST* l = shlist_new(heap, 0);
    for (intptr_t i = 0; i < kItems; ++i) shlist_insert(l, reinterpret_cast<void*>(i));
    intptr_t sum = 0;
    shlist_traversal(l, reinterpret_cast<intptr_t>(&sum), Sum);
    benchmark::DoNotOptimize(sum);
    state.PauseTiming();
    shlist_delete(l);
    zbstg_end(heap);
    state.ResumeTiming();
  }
  PerItem(state);
}
BENCHMARK(BM_shlist_insert_traversal_callback)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_std_list_insert_traverse(benchmark::State& state) {
  for (auto _ : state) {
    auto* l = new std::list<void*>;
    for (intptr_t i = 0; i < kItems; ++i) l->push_back(reinterpret_cast<void*>(i));
    intptr_t sum = 0;
    for (void* d : *l) sum += reinterpret_cast<intptr_t>(d);
    benchmark::DoNotOptimize(sum);
    state.PauseTiming();
    delete l;
    state.ResumeTiming();
  }
  PerItem(state);
}
BENCHMARK(BM_std_list_insert_traverse)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace

BENCHMARK_MAIN();
