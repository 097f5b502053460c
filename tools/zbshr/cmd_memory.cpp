// zbshr mem: runs a described allocation workload on a fresh heap and prints
// the heap's statistics; demo step: a heap before and after freeing a pool.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "args.h"
#include "cli.h"
#include "zbshr/memory.h"

namespace {

const char* kCmd = "mem";

const char* kHelp =
    "Allocates blocks on a fresh heap as described, optionally frees some of them,\n"
    "and prints the heap's statistics (zbstg_stat).\n"
    "\n"
    "options:\n"
    "  --count N          blocks to allocate (default 1000)\n"
    "  --size MIN[-MAX]   block sizes in bytes, drawn uniformly (default 8-256)\n"
    "  --pools K          spread the blocks over pools 2..K+1 (default 1 pool)\n"
    "  --free PERCENT     then free that share of the blocks, chosen at random\n"
    "  --free-pool P      then free every block of pool P at once\n"
    "  --subpool-size W   the sub-pool size given to zbstg_begin (default 0 = 4088)\n"
    "  --seed S           seed of the random choices (default 1)\n"
    "  --image FILE       write the debug image of all pools to FILE\n"
    "\n"
    "Sizes above 63,996 bytes make large blocks, each in a sub-pool of its own.";

// A small portable generator, so that a seed gives the same run everywhere.
struct Rng {
  uint64_t s;
  uint32_t next() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(s >> 33);
  }
  uint32_t in(uint32_t lo, uint32_t hi) { return lo + next() % (hi - lo + 1); }
};

bool parse_u32(const char* text, uint32_t* out) {
  if (!text || !*text) return false;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (*end || v > 0xFFFFFFFFull || text[0] == '-') return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

void print_stat(FILE* out, ZBSTG_HEAP heap) {
  ZBSTG_STAT st{};
  uint32_t total = zbstg_stat(heap, &st);
  std::fprintf(out, "  live blocks     %10" PRIu32 "\n", st.live_blocks);
  std::fprintf(out, "  sub-pool bytes  %10" PRIu32 "  (sub-pool size x peak sub-pools)\n",
               st.subpool_bytes);
  std::fprintf(out, "  total bytes     %10" PRIu32 "\n", total);
  std::fprintf(out, "  system bytes    %10" PRIu32 "\n", st.system_bytes);
  std::fprintf(out, "  used bytes      %10" PRIu32 "\n", st.used_bytes);
  std::fprintf(out, "  free bytes      %10" PRIu32 "\n", st.free_bytes);
}

int cmd_mem(int argc, char** argv) {
  uint32_t count = 1000, lo = 8, hi = 256, pools = 1, free_pct = 0, seed = 1, subpool = 0;
  uint32_t free_pool = 0;
  bool have_free_pool = false;
  std::string image;
  // Options are read as text and checked here, so that every mistake gets
  // the same kind of message.
  CLI::App app{kHelp, "zbshr mem"};
  std::vector<std::pair<std::string, std::string>> given;
  for (const char* name : {"--count", "--size", "--pools", "--free", "--free-pool", "--subpool-size",
                           "--seed", "--image"})
    app.add_option_function<std::string>(
        name, [&given, name](const std::string& v) { given.emplace_back(name, v); });
  if (int rc = zcli::parse_args(app, kCmd, argc, argv); rc >= 0) return rc;
  for (const auto& [a, value] : given) {
    const char* v = value.c_str();
    if (a == "--count") {
      if (!parse_u32(v, &count) || count > 10000000)
        return zcli::usage_error(kCmd, "--count wants 0..10000000");
    } else if (a == "--size") {
      std::string s = v;
      size_t dash = s.find('-');
      std::string first = s.substr(0, dash), second = dash == std::string::npos ? first : s.substr(dash + 1);
      if (!parse_u32(first.c_str(), &lo) || !parse_u32(second.c_str(), &hi) || lo > hi ||
          hi > 100000000)
        return zcli::usage_error(kCmd, "--size wants MIN or MIN-MAX, at most 100000000");
    } else if (a == "--pools") {
      if (!parse_u32(v, &pools) || pools == 0 || pools > 100000)
        return zcli::usage_error(kCmd, "--pools wants 1..100000");
    } else if (a == "--free") {
      if (!parse_u32(v, &free_pct) || free_pct > 100)
        return zcli::usage_error(kCmd, "--free wants 0..100");
    } else if (a == "--free-pool") {
      if (!parse_u32(v, &free_pool)) return zcli::usage_error(kCmd, "--free-pool wants a pool number");
      have_free_pool = true;
    } else if (a == "--subpool-size") {
      if (!parse_u32(v, &subpool) || subpool > 65535)
        return zcli::usage_error(kCmd, "--subpool-size wants 0..65535");
    } else if (a == "--seed") {
      if (!parse_u32(v, &seed)) return zcli::usage_error(kCmd, "--seed wants a number");
    } else {
      image = value;
    }
  }
  Rng rng{seed};
  ZBSTG_HEAP heap = zbstg_begin(static_cast<uint16_t>(subpool));
  if (!heap) return zcli::fail(kCmd, "cannot create a heap");
  std::vector<void*> blocks;
  blocks.reserve(count);
  uint32_t nulls = 0;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t pool = pools == 1 ? 0 : 2 + rng.in(0, pools - 1);
    void* p = zbstg_alloc(heap, rng.in(lo, hi), pool);
    if (p)
      blocks.push_back(p);
    else
      ++nulls;
  }
  std::printf("after allocating %" PRIu32 " blocks of %" PRIu32 "-%" PRIu32 " bytes in %" PRIu32
              " pool(s):\n",
              count, lo, hi, pools);
  print_stat(stdout, heap);
  if (nulls) std::printf("  (%" PRIu32 " allocations found no room)\n", nulls);
  if (free_pct) {
    uint32_t n = static_cast<uint32_t>(static_cast<uint64_t>(blocks.size()) * free_pct / 100);
    for (uint32_t i = 0; i < n; ++i) {
      uint32_t k = rng.in(0, static_cast<uint32_t>(blocks.size() - 1));
      zbstg_free(heap, blocks[k]);
      blocks[k] = blocks.back();
      blocks.pop_back();
    }
    std::printf("after freeing %" PRIu32 " of them:\n", n);
    print_stat(stdout, heap);
  }
  if (have_free_pool) {
    zbstg_free_pool(heap, free_pool);
    std::printf("after freeing pool %" PRIu32 ":\n", free_pool);
    print_stat(stdout, heap);
  }
  int rc = zcli::kOk;
  if (!image.empty() && zbstg_write_debug(heap, 0, image.c_str()) != 1)
    rc = zcli::fail(kCmd, "cannot create " + image);
  zbstg_end(heap);
  return rc;
}

int demo_memory(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  ZBSTG_HEAP heap = zbstg_begin(0);
  uint32_t names = zbstg_new_pool(heap);
  uint32_t rows = zbstg_new_pool(heap);
  std::fprintf(out, "A heap with two pools (%" PRIu32 " for names, %" PRIu32 " for rows).\n", names,
               rows);
  Rng rng{2026};
  std::vector<void*> row_blocks;
  for (int i = 0; i < 400; ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "customer %d", i);
    auto* s = static_cast<char*>(zbstg_alloc(heap, static_cast<uint32_t>(std::strlen(text) + 1), names));
    std::memcpy(s, text, std::strlen(text) + 1);
    row_blocks.push_back(zbstg_alloc(heap, rng.in(16, 200), rows));
  }
  void* big = zbstg_alloc(heap, 100000, rows);
  std::fprintf(out, "After 400 names, 400 rows and one 100,000-byte block (zbstg_size %" PRIu32 "):\n",
               zbstg_size(heap, big));
  print_stat(out, heap);
  for (size_t i = 0; i < row_blocks.size(); i += 2) zbstg_free(heap, row_blocks[i]);
  std::fprintf(out, "After freeing every other row:\n");
  print_stat(out, heap);
  zbstg_free_pool(heap, rows);
  std::fprintf(out, "After freeing the rows' pool in one call:\n");
  print_stat(out, heap);
  zbstg_end(heap);
  return zcli::kOk;
}

}  // namespace

ZBSHR_SUBCOMMAND(mem, "mem", "run an allocation workload and print the heap's statistics", cmd_mem);
ZBSHR_DEMO_STEP(memory, 10, "heaps and pools", demo_memory);
