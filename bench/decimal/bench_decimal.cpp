// SHDEC arithmetic against std::decimal::decimal128 and a fixed-point
// unsigned __int128 at scale 18, on money-like values (12345.67 and 0.0825)
// and on 20-digit values with 10 fraction digits.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>

#include "zbshr/decimal.h"

#if ZBSHR_BENCH_DECIMAL128
#include <decimal/decimal>
#endif

namespace {

using u128 = unsigned __int128;

struct Pair {
  const char* a;
  const char* b;
  // The same values for the peers: coefficient and exponent.
  unsigned long long ca;
  int ea;
  unsigned long long cb;
  int eb;
};

const Pair kMoney{"12345.67", "0.0825", 1234567ULL, -2, 825ULL, -4};
const Pair kWide{"1234567890.1234567890", "1345678901.2345678901", 12345678901234567890ULL, -10,
                 13456789012345678901ULL, -10};

// ---- zbshr --------------------------------------------------------------------

enum Op { kAdd, kSub, kMul, kDiv, kCmp, kToText, kFromText };

void zb(benchmark::State& st, const Pair& p, Op op) {
  SHDEC a, b, r;
  ConvAsciiToDecimal(&a, p.a);
  ConvAsciiToDecimal(&b, p.b);
  char text[SHDEC_TEXT_SIZE];
  for (auto _ : st) {
    benchmark::DoNotOptimize(&a);
    benchmark::DoNotOptimize(&b);
    switch (op) {
      case kAdd: benchmark::DoNotOptimize(AddDecimal(&r, &a, &b)); break;
      case kSub: benchmark::DoNotOptimize(SubtractDecimal(&r, &a, &b)); break;
      case kMul: benchmark::DoNotOptimize(MultiplyDecimal(&r, &a, &b)); break;
      case kDiv: benchmark::DoNotOptimize(DivideDecimal(&r, &a, &b)); break;
      case kCmp: benchmark::DoNotOptimize(CompareDecimal(&a, &b)); break;
      case kToText: benchmark::DoNotOptimize(ConvDecimalToAscii(text, &a)); break;
      case kFromText: benchmark::DoNotOptimize(ConvAsciiToDecimal(&r, p.a)); break;
    }
    benchmark::ClobberMemory();
  }
}

// ---- the fixed-point floor: unsigned __int128 at scale 18 ---------------------

constexpr u128 kScale = 1000000000000000000ULL;  // 10^18

u128 fx_from(unsigned long long c, int e) {
  u128 v = c;
  for (int i = 0; i < 18 + e; ++i) v *= 10;
  return v;
}

inline u128 fx_mul(u128 a, u128 b) {
  // a*b/10^18 without a 256-bit product: split both at the point.
  const u128 a1 = a / kScale, a0 = a % kScale;
  const u128 b1 = b / kScale, b0 = b % kScale;
  return a1 * b + a0 * b1 + (a0 * b0) / kScale;
}

inline u128 fx_div(u128 a, u128 b) {
  // a*10^18/b in two steps of 10^9 when a*10^18 would not fit.
  if (a < (~u128{0}) / kScale) return a * kScale / b;
  u128 q = a / b, r = a % b;
  const u128 q1 = r * 1000000000ULL / b;
  r = r * 1000000000ULL % b;
  const u128 q2 = r * 1000000000ULL / b;
  return q * kScale + q1 * 1000000000ULL + q2;
}

size_t fx_to_text(u128 v, char* out) {
  char tmp[48];
  int n = 0;
  u128 ip = v / kScale;
  uint64_t fp = static_cast<uint64_t>(v % kScale);
  for (int i = 0; i < 18; ++i) {
    tmp[n++] = static_cast<char>('0' + fp % 10);
    fp /= 10;
  }
  tmp[n++] = '.';
  do {
    tmp[n++] = static_cast<char>('0' + static_cast<int>(ip % 10));
    ip /= 10;
  } while (ip);
  for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
  out[n] = 0;
  return static_cast<size_t>(n);
}

u128 fx_from_text(const char* s) {
  u128 ip = 0, fp = 0;
  int fd = 0;
  for (; *s >= '0' && *s <= '9'; ++s) ip = ip * 10 + static_cast<unsigned>(*s - '0');
  if (*s == '.')
    for (++s; *s >= '0' && *s <= '9' && fd < 18; ++s, ++fd) fp = fp * 10 + static_cast<unsigned>(*s - '0');
  for (; fd < 18; ++fd) fp *= 10;
  return ip * kScale + fp;
}

void fx(benchmark::State& st, const Pair& p, Op op) {
  u128 a = fx_from(p.ca, p.ea), b = fx_from(p.cb, p.eb);
  char text[64];
  for (auto _ : st) {
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(b);
    switch (op) {
      case kAdd: benchmark::DoNotOptimize(a + b); break;
      case kSub: benchmark::DoNotOptimize(a - b); break;
      case kMul: benchmark::DoNotOptimize(fx_mul(a, b)); break;
      case kDiv: benchmark::DoNotOptimize(fx_div(a, b)); break;
      case kCmp: benchmark::DoNotOptimize(a < b); break;
      case kToText: benchmark::DoNotOptimize(fx_to_text(a, text)); break;
      case kFromText: benchmark::DoNotOptimize(fx_from_text(p.a)); break;
    }
    benchmark::ClobberMemory();
  }
}

#if ZBSHR_BENCH_DECIMAL128
using std::decimal::decimal128;

void d128(benchmark::State& st, const Pair& p, Op op) {
  decimal128 a = std::decimal::make_decimal128(p.ca, p.ea);
  decimal128 b = std::decimal::make_decimal128(p.cb, p.eb);
  for (auto _ : st) {
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(b);
    switch (op) {
      case kAdd: benchmark::DoNotOptimize(a + b); break;
      case kSub: benchmark::DoNotOptimize(a - b); break;
      case kMul: benchmark::DoNotOptimize(a * b); break;
      case kDiv: benchmark::DoNotOptimize(a / b); break;
      case kCmp: benchmark::DoNotOptimize(a < b); break;
      default: break;
    }
    benchmark::ClobberMemory();
  }
}
#endif

void register_all() {
  struct Named {
    const char* name;
    Op op;
  } ops[] = {{"add", kAdd}, {"sub", kSub}, {"mul", kMul}, {"div", kDiv},
             {"cmp", kCmp}, {"to_text", kToText}, {"from_text", kFromText}};
  struct Data {
    const char* name;
    const Pair* p;
  } data[] = {{"money", &kMoney}, {"wide20", &kWide}};
  for (const auto& d : data) {
    for (const auto& o : ops) {
      const std::string base = std::string(o.name) + "/" + d.name + "/";
      const Pair* p = d.p;
      const Op op = o.op;
      benchmark::RegisterBenchmark((base + "zbshr").c_str(),
                                   [p, op](benchmark::State& st) { zb(st, *p, op); });
#if ZBSHR_BENCH_DECIMAL128
      // libstdc++ gives decimal128 no text conversion.
      if (op != kToText && op != kFromText)
        benchmark::RegisterBenchmark((base + "decimal128").c_str(),
                                     [p, op](benchmark::State& st) { d128(st, *p, op); });
#endif
      benchmark::RegisterBenchmark((base + "int128_fixed18").c_str(),
                                   [p, op](benchmark::State& st) { fx(st, *p, op); });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  register_all();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
