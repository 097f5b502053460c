// Allocator workloads, compiled once per allocator (each in a program of its
// own, since linking some allocators replaces malloc for the whole program):
//
//   Churn: about 10,000 live blocks of 8-256 bytes; each step frees one block
//          chosen at random and allocates one of a random size in its place.
//   Bulk:  1,000,000 blocks of 16-64 bytes allocated, then all released: by
//          one call where the allocator has one (a pool or heap), else block
//          by block.
//
// The random choices are drawn before timing starts and are the same for
// every allocator.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#if defined(BENCH_ZBSTG)
#include "zbshr/memory.h"
#elif defined(BENCH_MIMALLOC)
#include <mimalloc.h>
#elif defined(BENCH_APR)
#include <apr_general.h>
#include <apr_pools.h>
#endif

namespace {

constexpr uint32_t kLive = 10000;
constexpr uint32_t kSteps = 1 << 20;  // length of the pre-drawn step sequence
constexpr uint32_t kBulk = 1000000;

struct Script {
  std::vector<uint32_t> victim;  // churn: slot to replace at each step
  std::vector<uint32_t> size;    // churn: size of the new block
  std::vector<uint32_t> initial; // churn: sizes of the first 10,000 blocks
  std::vector<uint32_t> bulk;    // bulk: 1,000,000 sizes of 16-64 bytes
};

const Script& TheScript() {
  static const Script s = [] {
    Script r;
    std::mt19937 rng(12345);
    std::uniform_int_distribution<uint32_t> slot(0, kLive - 1), small(8, 256), bulk(16, 64);
    r.victim.resize(kSteps);
    r.size.resize(kSteps);
    for (uint32_t i = 0; i < kSteps; ++i) {
      r.victim[i] = slot(rng);
      r.size[i] = small(rng);
    }
    r.initial.resize(kLive);
    for (auto& v : r.initial) v = small(rng);
    r.bulk.resize(kBulk);
    for (auto& v : r.bulk) v = bulk(rng);
    return r;
  }();
  return s;
}

inline void Touch(void* p) { *static_cast<volatile char*>(p) = 1; }

#if defined(BENCH_ZBSTG)
constexpr const char* kName = "zbstg";
struct Churner {
  ZBSTG_HEAP h = zbstg_begin(0);
  ~Churner() { zbstg_end(h); }
  void* Alloc(uint32_t n) { return zbstg_alloc(h, n, 0); }
  void Free(void* p) { zbstg_free(h, p); }
};
struct Bulk {
  ZBSTG_HEAP h = zbstg_begin(0);
  ~Bulk() { zbstg_end(h); }
  void Begin() {}
  void* Alloc(uint32_t n) { return zbstg_alloc(h, n, 2); }
  void ReleaseAll(std::vector<void*>&) { zbstg_free_pool(h, 2); }
};
#elif defined(BENCH_MIMALLOC)
constexpr const char* kName = "mimalloc";
struct Churner {
  void* Alloc(uint32_t n) { return mi_malloc(n); }
  void Free(void* p) { mi_free(p); }
};
struct Bulk {
  mi_heap_t* heap = nullptr;
  void Begin() { heap = mi_heap_new(); }
  void* Alloc(uint32_t n) { return mi_heap_malloc(heap, n); }
  void ReleaseAll(std::vector<void*>&) { mi_heap_destroy(heap); }
};
#elif defined(BENCH_APR)
constexpr const char* kName = "apr";
struct AprInit {
  AprInit() { apr_initialize(); }
};
struct Bulk {
  AprInit init;
  apr_pool_t* pool = nullptr;
  void Begin() { apr_pool_create(&pool, nullptr); }
  void* Alloc(uint32_t n) { return apr_palloc(pool, n); }
  void ReleaseAll(std::vector<void*>&) { apr_pool_destroy(pool); }
};
#else
constexpr const char* kName = "glibc";
struct Churner {
  void* Alloc(uint32_t n) { return std::malloc(n); }
  void Free(void* p) { std::free(p); }
};
struct Bulk {
  void Begin() {}
  void* Alloc(uint32_t n) { return std::malloc(n); }
  void ReleaseAll(std::vector<void*>& blocks) {
    for (void* p : blocks) std::free(p);
  }
};
#endif

#if !defined(BENCH_APR)
// An APR pool cannot free single blocks, so it has no churn figure.
void BM_Churn(benchmark::State& state) {
  const Script& s = TheScript();
  Churner a;
  std::vector<void*> slots(kLive);
  for (uint32_t i = 0; i < kLive; ++i) Touch(slots[i] = a.Alloc(s.initial[i]));
  uint32_t i = 0;
  for (auto _ : state) {
    uint32_t v = s.victim[i];
    a.Free(slots[v]);
    void* p = a.Alloc(s.size[i]);
    Touch(p);
    slots[v] = p;
    i = (i + 1) & (kSteps - 1);
  }
  for (void* p : slots) a.Free(p);
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(kName);
}
BENCHMARK(BM_Churn);
#endif

void BM_Bulk(benchmark::State& state) {
  const Script& s = TheScript();
  Bulk a;
  std::vector<void*> blocks(kBulk);
  for (auto _ : state) {
    a.Begin();
    for (uint32_t i = 0; i < kBulk; ++i) {
      void* p = a.Alloc(s.bulk[i]);
      Touch(p);
      blocks[i] = p;
    }
    a.ReleaseAll(blocks);
  }
  state.SetItemsProcessed(state.iterations() * kBulk);
  state.SetLabel(kName);
}
BENCHMARK(BM_Bulk)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
