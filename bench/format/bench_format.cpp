// Benchmarks of the format family against their peers, in the same run:
//   shdtParse        vs glibc strptime           (date, time, datetime texts)
//   shregExprMatch   vs std::regex and RE2       (counting matches in 10 MB)
//   shformatDouble   vs snprintf("%.15g")        (the general number form)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "zbshr/format.h"

#ifdef ZBSHR_BENCH_RE2
#include <re2/re2.h>
#endif

namespace {

// ------------------------------------------------------------------ parsing

const char* const kTexts[] = {"7/4/1998", "13:45:30", "7/4/1998 13:45:30"};
const char* const kStrptime[] = {"%m/%d/%Y", "%H:%M:%S", "%m/%d/%Y %H:%M:%S"};
const int32_t kModes[] = {SHDT_DATE, SHDT_TIME, SHDT_DATETIME};
const char* const kKinds[] = {"date", "time", "datetime"};

void BM_Parse_zbshr(benchmark::State& st) {
  const int k = static_cast<int>(st.range(0));
  SHDATETIME v{};
  for (auto _ : st) {
    int32_t e = shdtParse(&v, kTexts[k], kModes[k]);
    benchmark::DoNotOptimize(e);
    benchmark::DoNotOptimize(v);
  }
  st.SetLabel(kKinds[k]);
}
BENCHMARK(BM_Parse_zbshr)->DenseRange(0, 2);

void BM_Parse_strptime(benchmark::State& st) {
  const int k = static_cast<int>(st.range(0));
  struct tm t {};
  for (auto _ : st) {
    const char* r = strptime(kTexts[k], kStrptime[k], &t);
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(t);
  }
  st.SetLabel(kKinds[k]);
}
BENCHMARK(BM_Parse_strptime)->DenseRange(0, 2);

// ------------------------------------------------------------------ matching

const char* const kPatterns[] = {"ab", "[a-c]+", "^a", "x.*y"};

// 10 MB of lower-case words: letters, a space now and then, a line feed
// every 64 characters on average.
const std::string& text() {
  static const std::string t = [] {
    std::string s(10u << 20, ' ');
    std::mt19937 rng(42);
    for (char& c : s) {
      uint32_t r = rng() % 64;
      c = r == 0 ? '\n' : r < 8 ? ' ' : static_cast<char>('a' + rng() % 26);
    }
    s[0] = 'a';
    return s;
  }();
  return t;
}

void BM_Match_zbshr(benchmark::State& st) {
  const char* p = kPatterns[st.range(0)];
  unsigned char c[64];
  shregExprCmpl(c, p, sizeof c);
  const std::string& t = text();
  int32_t n = 0;
  for (auto _ : st) {
    n = shregExprMatch(t.c_str(), c);
    benchmark::DoNotOptimize(n);
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(t.size()));
  st.SetLabel(std::string(p) + " matches=" + std::to_string(n));
}
BENCHMARK(BM_Match_zbshr)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

void BM_Match_stdregex(benchmark::State& st) {
  const char* p = kPatterns[st.range(0)];
  const std::regex re(p);
  const std::string& t = text();
  long n = 0;
  for (auto _ : st) {
    n = std::distance(std::sregex_iterator(t.begin(), t.end(), re), std::sregex_iterator());
    benchmark::DoNotOptimize(n);
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(t.size()));
  st.SetLabel(std::string(p) + " matches=" + std::to_string(n));
}
BENCHMARK(BM_Match_stdregex)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

#ifdef ZBSHR_BENCH_RE2
void BM_Match_re2(benchmark::State& st) {
  const char* p = kPatterns[st.range(0)];
  const RE2 re(p);
  const std::string& t = text();
  long n = 0;
  for (auto _ : st) {
    n = 0;
    re2::StringPiece in(t);
    while (RE2::FindAndConsume(&in, re)) ++n;
    benchmark::DoNotOptimize(n);
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(t.size()));
  st.SetLabel(std::string(p) + " matches=" + std::to_string(n));
}
BENCHMARK(BM_Match_re2)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
#endif

// ------------------------------------------------------------------ number form

const std::vector<double>& numbers() {
  static const std::vector<double> v = [] {
    std::vector<double> out;
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> u(-1e6, 1e6);
    for (int i = 0; i < 4096; ++i) {
      double x = u(rng);
      if (i % 4 == 1) x = static_cast<double>(static_cast<int64_t>(x));      // integers
      if (i % 4 == 2) x = static_cast<double>(static_cast<int64_t>(x)) / 100;  // cents
      if (i % 16 == 3) x *= 1e-12;
      out.push_back(x);
    }
    return out;
  }();
  return v;
}

void BM_General_zbshr(benchmark::State& st) {
  unsigned char c[SHFORMAT_BUFSIZE];
  shformatCmplNumericMask(c, "[GENERAL]", sizeof c);
  const auto& v = numbers();
  char out[40];
  size_t i = 0;
  for (auto _ : st) {
    shformatDouble(out, sizeof out, c, &v[i++ & 4095]);
    benchmark::DoNotOptimize(out);
  }
  st.SetItemsProcessed(static_cast<int64_t>(st.iterations()));
}
BENCHMARK(BM_General_zbshr);

void BM_General_snprintf(benchmark::State& st) {
  const auto& v = numbers();
  char out[40];
  size_t i = 0;
  for (auto _ : st) {
    std::snprintf(out, sizeof out, "%.15g", v[i++ & 4095]);
    benchmark::DoNotOptimize(out);
  }
  st.SetItemsProcessed(static_cast<int64_t>(st.iterations()));
}
BENCHMARK(BM_General_snprintf);

}  // namespace

BENCHMARK_MAIN();
