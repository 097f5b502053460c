// Export throughput. Every benchmark writes the same result set: 1,000,000
// rows of five columns (number, decimal, string, date, time). The CSV export
// runs side by side with two peers that write exactly the same text (checked
// before timing): a plain fprintf loop, and std::to_chars into a 16 KB buffer
// flushed with fwrite (the practical ceiling). The other nine formats run the
// same workload for comparison.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "zbshr/decimal.h"
#include "zbshr/export.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

constexpr int kRows = 1000000;
constexpr int kPatterns = 4096;  // distinct rows, cycled

struct Row {
  double number;
  int64_t cents;  // the decimal, in hundredths
  SHDEC dec;
  char name[24];
  SHDATETIME date;
  SHDATETIME time;
};

std::vector<Row>& rows() {
  static std::vector<Row> v = [] {
    std::vector<Row> r(kPatterns);
    for (int i = 0; i < kPatterns; ++i) {
      Row& x = r[i];
      x.number = (i * 7919 % 200000) * 0.25 - 10000.0;
      x.cents = (static_cast<int64_t>(i) * 104729) % 100000000 - 50000000;
      char t[40];
      const int64_t a = x.cents < 0 ? -x.cents : x.cents;
      std::snprintf(t, sizeof t, "%s%lld.%02lld", x.cents < 0 ? "-" : "",
                    static_cast<long long>(a / 100), static_cast<long long>(a % 100));
      std::memset(&x.dec, 0, sizeof x.dec);
      ConvAsciiToDecimal(&x.dec, t);
      std::snprintf(x.name, sizeof x.name, "customer-%05d", i * 31 % 100000);
      std::memset(&x.date, 0, sizeof x.date);
      shdtBuildTime(&x.date, 1990 + i % 35, 1 + i % 12, 1 + i % 28, 0, 0, 0, 0);
      std::memset(&x.time, 0, sizeof x.time);
      shdtBuildTime(&x.time, 1900, 1, 1, i % 24, i * 7 % 60, i * 13 % 60, 0);
    }
    return r;
  }();
  return v;
}

std::string tmp_file(const char* leaf) {
  return (std::filesystem::temp_directory_path() / (std::string("zbshr_bench_") + leaf)).string();
}

// ---------------------------------------------------------------- the peers

// The peers print what the display formats give with the default regional
// settings: "[GENERAL]" shows at most 15 significant digits without trailing
// zeros (decimals too), "[SHORTDATE]" is M/d/yyyy, "[TIME]" is HH:mm:ss.
void write_fprintf(const char* path, int n) {
  FILE* f = std::fopen(path, "wb");
  const auto& r = rows();
  for (int i = 0; i < n; ++i) {
    const Row& x = r[i % kPatterns];
    std::fprintf(f, "%.15g,%.15g,%s,%d/%d/%d,%02d:%02d:%02d\r\n", x.number,
                 static_cast<double>(x.cents) / 100.0, x.name, x.date.month + 1, x.date.day,
                 x.date.year + 1900, x.time.hour, x.time.minute, x.time.second);
  }
  std::fclose(f);
}

template <class T>
char* put_int(char* p, T v) {
  return std::to_chars(p, p + 24, v).ptr;
}
char* put2(char* p, int v) {
  *p++ = static_cast<char>('0' + v / 10);
  *p++ = static_cast<char>('0' + v % 10);
  return p;
}

void write_to_chars(const char* path, int n) {
  FILE* f = std::fopen(path, "wb");
  const auto& r = rows();
  char buf[16384];
  size_t used = 0;
  for (int i = 0; i < n; ++i) {
    const Row& x = r[i % kPatterns];
    if (sizeof buf - used < 200) {
      std::fwrite(buf, 1, used, f);
      used = 0;
    }
    char* p = buf + used;
    p = std::to_chars(p, p + 32, x.number, std::chars_format::fixed).ptr;
    *p++ = ',';
    p = std::to_chars(p, p + 32, static_cast<double>(x.cents) / 100.0, std::chars_format::fixed).ptr;
    *p++ = ',';
    const size_t nl = std::strlen(x.name);
    std::memcpy(p, x.name, nl);
    p += nl;
    *p++ = ',';
    p = put_int(p, x.date.month + 1);
    *p++ = '/';
    p = put_int(p, static_cast<int>(x.date.day));
    *p++ = '/';
    p = put_int(p, x.date.year + 1900);
    *p++ = ',';
    p = put2(p, x.time.hour);
    *p++ = ':';
    p = put2(p, x.time.minute);
    *p++ = ':';
    p = put2(p, x.time.second);
    *p++ = '\r';
    *p++ = '\n';
    used = static_cast<size_t>(p - buf);
  }
  std::fwrite(buf, 1, used, f);
  std::fclose(f);
}

// ---------------------------------------------------------------- zbshr

struct Fmt {
  const char* name;
  ExportState* (ZBSHR_CALL* begin)(ZBSTG_HEAP, uint32_t, const char*, int32_t, int32_t, uint32_t);
  int32_t (ZBSHR_CALL* column)(ExportState*, const char*, int32_t, int32_t);
  int32_t (ZBSHR_CALL* item)(ExportState*, const void*);
  int32_t (ZBSHR_CALL* end)(ExportState*);
};
#define FMT(f) Fmt{#f, osSave##f##Begin, osSave##f##Column, osSave##f##Item, osSave##f##End}

// Writes n rows; returns false if any call failed. For Sql the date and time
// cells are text formatted by the caller, as that format expects.
bool write_zbshr(const Fmt& f, const char* path, int n) {
  ZBSTG_HEAP heap = zbstg_begin(0);
  const bool sql = std::strcmp(f.name, "Sql") == 0;
  // dBase II takes at most 65,535 rows in its header; the rows written are
  // whatever the caller sends.
  const int32_t declared = std::strcmp(f.name, "Dbase2") == 0 ? 65535 : n;
  ExportState* h = f.begin(heap, 0, path, declared, 5, 0);
  bool ok = h != nullptr;
  if (ok) {
    ok &= f.column(h, "num", 16, OSSAVE_NUMBER) == 1;
    ok &= f.column(h, "dec", 2, OSSAVE_DECIMAL) == 1;
    ok &= f.column(h, "name", 20, OSSAVE_STRING) == 1;
    ok &= f.column(h, "day", 10, OSSAVE_DATE) == 1;
    ok &= f.column(h, "at", 8, OSSAVE_TIME) == 1;
    const auto& r = rows();
    for (int i = 0; ok && i < n; ++i) {
      const Row& x = r[i % kPatterns];
      ok &= f.item(h, &x.number) == 1;
      ok &= f.item(h, &x.dec) == 1;
      ok &= f.item(h, x.name) == 1;
      ok &= f.item(h, sql ? static_cast<const void*>("'1998-07-04'") : &x.date) == 1;
      ok &= f.item(h, sql ? static_cast<const void*>("'12:30:45'") : &x.time) == 1;
    }
    ok &= f.end(h) == 1;
  }
  zbstg_end(heap);
  return ok;
}

std::string slurp(const std::string& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// The peers must write the very text the CSV export writes.
bool peers_agree(std::string& why) {
  const int n = kPatterns;
  const std::string a = tmp_file("check_zbshr.csv"), b = tmp_file("check_fprintf.csv"),
                    c = tmp_file("check_tochars.csv");
  const Fmt csv = FMT(Csv);
  if (!write_zbshr(csv, a.c_str(), n)) {
    why = "the CSV export failed";
    return false;
  }
  write_fprintf(b.c_str(), n);
  write_to_chars(c.c_str(), n);
  const std::string ta = slurp(a), tb = slurp(b), tc = slurp(c);
  std::remove(a.c_str());
  std::remove(b.c_str());
  std::remove(c.c_str());
  auto first_diff = [](const std::string& x, const std::string& y) {
    size_t i = 0;
    while (i < x.size() && i < y.size() && x[i] == y[i]) ++i;
    size_t from = i > 40 ? i - 40 : 0;
    return "zbshr '" + x.substr(from, 80) + "' vs peer '" + y.substr(from, 80) + "'";
  };
  if (ta != tb) {
    why = "fprintf text differs: " + first_diff(ta, tb);
    return false;
  }
  if (ta != tc) {
    why = "to_chars text differs: " + first_diff(ta, tc);
    return false;
  }
  return true;
}

void report(benchmark::State& state, const std::string& path, int n) {
  std::error_code ec;
  const auto bytes = std::filesystem::file_size(path, ec);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(ec ? 0 : bytes));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
  std::remove(path.c_str());
}

void BM_Peer_fprintf(benchmark::State& state) {
  const std::string p = tmp_file("fprintf.csv");
  for (auto _ : state) write_fprintf(p.c_str(), kRows);
  report(state, p, kRows);
}

void BM_Peer_to_chars(benchmark::State& state) {
  const std::string p = tmp_file("tochars.csv");
  for (auto _ : state) write_to_chars(p.c_str(), kRows);
  report(state, p, kRows);
}

void BM_Zbshr(benchmark::State& state, Fmt f) {
  static bool checked = false;
  static std::string why;
  if (!checked) {
    checked = true;
    if (!peers_agree(why)) why = "peers do not write the same text: " + why;
  }
  if (!why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  const int n = std::strcmp(f.name, "Clip") == 0 ? kRows / 10 : kRows;
  const std::string p = tmp_file((std::string("out.") + f.name).c_str());
  for (auto _ : state) {
    if (!write_zbshr(f, p.c_str(), n)) {
      state.SkipWithError("export failed");
      break;
    }
  }
  if (std::strcmp(f.name, "Clip") == 0) {
    const int32_t len = zbshr_clipboard_text(nullptr, 0);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
  } else {
    report(state, p, n);
  }
}

#define ZB(f) BENCHMARK_CAPTURE(BM_Zbshr, f, FMT(f))->Unit(benchmark::kMillisecond)->MinTime(2.0)

BENCHMARK(BM_Peer_fprintf)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_Peer_to_chars)->Unit(benchmark::kMillisecond)->MinTime(2.0);
ZB(Csv);
ZB(Text);
ZB(Clip);
ZB(Sql);
ZB(Dif);
ZB(Sylk);
ZB(Excel);
ZB(Wk);
ZB(Dbase2);
ZB(Dbase3);

}  // namespace

BENCHMARK_MAIN();
