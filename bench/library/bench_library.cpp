// Library files against SQLite (one table of name and blob) and one file per
// entry in a folder, in one run. Workload: 10,000 entries of 4 KB written,
// read back by name in random order, listed, half deleted and rewritten; one
// 40 MB entry written and read; lookups after ascending-order insertion.
//
// Durable variants (write-through on, one durable transaction per entry, an
// fsync per file) write fewer entries, since each costs a disk flush.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"

namespace fs = std::filesystem;

namespace {

constexpr int kEntries = 10000;
constexpr int kDurable = 300;
constexpr size_t kSize = 4096;
const fs::path kDir = fs::temp_directory_path() / "zbshr-bench-library";

std::string nameOf(int i) {
  char b[32];
  std::snprintf(b, sizeof b, "entry_%06d", (i * 7919) % 1000003);
  return b;
}
std::string ascName(int i) {
  char b[32];
  std::snprintf(b, sizeof b, "asc_%06d", i);
  return b;
}
const std::string& payload() {
  static std::string p = [] {
    std::string s(kSize, 0);
    std::mt19937 g(1);
    for (auto& c : s) c = char(g());
    return s;
  }();
  return p;
}
std::vector<int> shuffled(int n) {
  std::vector<int> v(n);
  for (int i = 0; i < n; ++i) v[i] = i;
  std::shuffle(v.begin(), v.end(), std::mt19937(7));
  return v;
}
struct Buf {
  std::vector<char> v;
  explicit Buf(const std::string& s) : v(s.begin(), s.end()) { v.resize(s.size() + 1, 0); }
  operator char*() { return v.data(); }
};

// A plain file write; durable ones are flushed to disk before closing.
void writeFile(const std::string& path, const void* d, size_t n, bool durable) {
  if (!durable) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::setvbuf(f, nullptr, _IONBF, 0);
    std::fwrite(d, 1, n, f);
    std::fclose(f);
    return;
  }
  namespace plat = zbshr::plat;
  plat::HFILE f = plat::CreateFileA(path.c_str(), plat::GENERIC_WRITE, 0, plat::CREATE_ALWAYS,
                                    plat::FILE_ATTRIBUTE_NORMAL);
  plat::DWORD put;
  plat::WriteFile(f, d, plat::DWORD(n), &put);
  plat::FlushFileBuffers(f);
  plat::CloseHandle(f);
}

// ------------------------------------------------------------------ zbshr library

struct Lib {
  ZBSTG_HEAP heap = zbstg_begin(0);
  std::string path = (kDir / "bench.zbl").string();
  LMI_HANDLE h = nullptr;
  void fresh() {
    fs::create_directories(kDir);
    fs::remove(path);
    Buf p(path);
    LMI_CreateLibrary(heap, p, "bench");
  }
  int readAhead = 0;  // 0: the default 16 KB
  void open(int mode = 2) {
    Buf p(path);
    h = LMI_OpenLibrary(heap, p, mode, readAhead);
  }
  void close() {
    if (h) LMI_CloseLibrary(h);
    h = nullptr;
  }
  ~Lib() {
    close();
    zbstg_end(heap);
  }
  bool put(const std::string& name, const void* d, size_t n) {
    Buf b(name);
    if (LMI_OpenEntry(h, b, 3, nullptr)) return false;
    bool ok = LMI_WriteEntry(h, d, int32_t(n)) == int32_t(n);
    return LMI_CloseEntry(h) == 0 && ok;
  }
  size_t get(const std::string& name, std::vector<char>& out) {
    Buf b(name);
    if (LMI_OpenEntry(h, b, 1, nullptr)) return 0;
    size_t total = 0;
    for (;;) {
      int32_t got = LMI_ReadEntry(h, out.data() + total, int32_t(std::min<size_t>(65536, out.size() - total)));
      if (got <= 0) break;
      total += size_t(got);
      if (total == out.size()) break;
    }
    LMI_CloseEntry(h);
    return total;
  }
};

void writeAll(Lib& l, int n, bool asc = false) {
  for (int i = 0; i < n; ++i) l.put(asc ? ascName(i) : nameOf(i), payload().data(), kSize);
}

void BM_Lib_Write(benchmark::State& st) {
  bool durable = st.range(0);
  zbshr_lib_write_through(durable ? 1 : 0);
  int n = durable ? kDurable : kEntries;
  for (auto _ : st) {
    st.PauseTiming();
    Lib l;
    l.fresh();
    l.open();
    st.ResumeTiming();
    writeAll(l, n);
    l.close();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * n);
  zbshr_lib_write_through(1);
}

void BM_Lib_ReadRandom(benchmark::State& st) {
  zbshr_lib_write_through(0);
  Lib l;
  l.fresh();
  l.open();
  writeAll(l, kEntries);
  l.close();
  l.open(1);
  auto order = shuffled(kEntries);
  std::vector<char> out(kSize);
  for (auto _ : st)
    for (int i : order) benchmark::DoNotOptimize(l.get(nameOf(i), out));
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
  zbshr_lib_write_through(1);
}

int32_t ZBSHR_CALL countCb(LMI_ENTRYINFO*, void* ud) {
  ++*static_cast<int*>(ud);
  return 0;
}
void BM_Lib_List(benchmark::State& st) {
  zbshr_lib_write_through(0);
  Lib l;
  l.fresh();
  l.open();
  writeAll(l, kEntries);
  for (auto _ : st) {
    int n = 0;
    Buf all(".*");
    LMI_ListEntries(l.h, all, countCb, &n);
    benchmark::DoNotOptimize(n);
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
  zbshr_lib_write_through(1);
}

void BM_Lib_DeleteHalfRewrite(benchmark::State& st) {
  zbshr_lib_write_through(0);
  for (auto _ : st) {
    st.PauseTiming();
    Lib l;
    l.fresh();
    l.open();
    writeAll(l, kEntries);
    st.ResumeTiming();
    for (int i = 0; i < kEntries; i += 2) {
      Buf b(nameOf(i));
      LMI_DeleteEntry(l.h, b);
    }
    for (int i = 0; i < kEntries; i += 2) l.put(nameOf(i), payload().data(), kSize);
    l.close();
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
  zbshr_lib_write_through(1);
}

void BM_Lib_Big(benchmark::State& st) {
  bool durable = st.range(0), read = st.range(1);
  zbshr_lib_write_through(durable ? 1 : 0);
  std::string big(40u << 20, 'b');
  Lib l;
  l.readAhead = 64000;  // the largest buffer, as a program handling big entries would ask
  std::vector<char> out(big.size());
  if (read) {
    l.fresh();
    l.open();
    l.put("big", big.data(), big.size());
  }
  for (auto _ : st) {
    if (!read) {
      st.PauseTiming();
      l.close();
      l.fresh();
      l.open();
      st.ResumeTiming();
      l.put("big", big.data(), big.size());
    } else {
      benchmark::DoNotOptimize(l.get("big", out));
    }
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(big.size()));
  zbshr_lib_write_through(1);
}

void BM_Lib_Lookup(benchmark::State& st) {
  bool ascending = st.range(0);
  zbshr_lib_write_through(0);
  Lib l;
  l.fresh();
  l.open();
  std::vector<int> order = shuffled(kEntries);
  if (ascending) {
    for (int i = 0; i < kEntries; ++i) l.put(ascName(i), "x", 1);
  } else {
    for (int i : order) l.put(ascName(i), "x", 1);
  }
  std::vector<Buf> names;
  for (int i : order) names.emplace_back(ascName(i));
  for (auto _ : st)
    for (auto& n : names) benchmark::DoNotOptimize(LMI_EntryExists(l.h, n));
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
  zbshr_lib_write_through(1);
}

// ------------------------------------------------------------------ SQLite

struct Sql {
  sqlite3* db = nullptr;
  std::string path = (kDir / "bench.sqlite").string();
  void fresh(bool durable) {
    fs::create_directories(kDir);
    fs::remove(path);
    fs::remove(path + "-journal");
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, "CREATE TABLE e(name TEXT PRIMARY KEY, data BLOB)", nullptr, nullptr, nullptr);
    sqlite3_exec(db, durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF", nullptr,
                 nullptr, nullptr);
  }
  ~Sql() {
    if (db) sqlite3_close(db);
  }
  void exec(const char* s) { sqlite3_exec(db, s, nullptr, nullptr, nullptr); }
  void putAll(int n, bool perEntry) {
    sqlite3_stmt* s;
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO e VALUES(?,?)", -1, &s, nullptr);
    if (!perEntry) exec("BEGIN");
    for (int i = 0; i < n; ++i) {
      std::string name = nameOf(i);
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_blob(s, 2, payload().data(), int(kSize), SQLITE_STATIC);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    if (!perEntry) exec("COMMIT");
    sqlite3_finalize(s);
  }
};

// 0: one transaction, no sync; 1: a durable transaction per entry; 2: one
// durable transaction (synced at its commit, as the library is at its close
// with write-through off).
void BM_Sqlite_Write(benchmark::State& st) {
  bool perEntry = st.range(0) == 1;
  int n = perEntry ? kDurable : kEntries;
  for (auto _ : st) {
    st.PauseTiming();
    Sql q;
    q.fresh(st.range(0) != 0);
    st.ResumeTiming();
    q.putAll(n, perEntry);
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * n);
}

void BM_Sqlite_ReadRandom(benchmark::State& st) {
  Sql q;
  q.fresh(false);
  q.putAll(kEntries, false);
  sqlite3_stmt* s;
  sqlite3_prepare_v2(q.db, "SELECT data FROM e WHERE name=?", -1, &s, nullptr);
  auto order = shuffled(kEntries);
  std::vector<char> out(kSize);
  for (auto _ : st)
    for (int i : order) {
      std::string name = nameOf(i);
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(s) == SQLITE_ROW)
        std::memcpy(out.data(), sqlite3_column_blob(s, 0), size_t(sqlite3_column_bytes(s, 0)));
      sqlite3_reset(s);
    }
  sqlite3_finalize(s);
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
}

void BM_Sqlite_List(benchmark::State& st) {
  Sql q;
  q.fresh(false);
  q.putAll(kEntries, false);
  sqlite3_stmt* s;
  sqlite3_prepare_v2(q.db, "SELECT name, length(data) FROM e", -1, &s, nullptr);
  for (auto _ : st) {
    int n = 0;
    while (sqlite3_step(s) == SQLITE_ROW) ++n;
    sqlite3_reset(s);
    benchmark::DoNotOptimize(n);
  }
  sqlite3_finalize(s);
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
}

void BM_Sqlite_DeleteHalfRewrite(benchmark::State& st) {
  for (auto _ : st) {
    st.PauseTiming();
    Sql q;
    q.fresh(false);
    q.putAll(kEntries, false);
    st.ResumeTiming();
    q.exec("BEGIN");
    sqlite3_stmt* s;
    sqlite3_prepare_v2(q.db, "DELETE FROM e WHERE name=?", -1, &s, nullptr);
    for (int i = 0; i < kEntries; i += 2) {
      std::string name = nameOf(i);
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    sqlite3_prepare_v2(q.db, "INSERT INTO e VALUES(?,?)", -1, &s, nullptr);
    for (int i = 0; i < kEntries; i += 2) {
      std::string name = nameOf(i);
      sqlite3_bind_text(s, 1, name.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_blob(s, 2, payload().data(), int(kSize), SQLITE_STATIC);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    q.exec("COMMIT");
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
}

// ------------------------------------------------------------------ one file per entry

void BM_Files_Write(benchmark::State& st) {
  bool durable = st.range(0);
  int n = durable ? kDurable : kEntries;
  fs::path d = kDir / "files";
  for (auto _ : st) {
    st.PauseTiming();
    fs::remove_all(d);
    fs::create_directories(d);
    st.ResumeTiming();
    for (int i = 0; i < n; ++i) writeFile((d / nameOf(i)).string(), payload().data(), kSize, durable);
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * n);
}

void BM_Files_ReadRandom(benchmark::State& st) {
  fs::path d = kDir / "files";
  fs::remove_all(d);
  fs::create_directories(d);
  for (int i = 0; i < kEntries; ++i) {
    std::ofstream f(d / nameOf(i), std::ios::binary);
    f.write(payload().data(), kSize);
  }
  auto order = shuffled(kEntries);
  std::vector<char> out(kSize);
  for (auto _ : st)
    for (int i : order) {
      std::FILE* f = std::fopen((d / nameOf(i)).c_str(), "rb");
      benchmark::DoNotOptimize(std::fread(out.data(), 1, kSize, f));
      std::fclose(f);
    }
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
}

void BM_Files_List(benchmark::State& st) {
  fs::path d = kDir / "files";
  for (auto _ : st) {
    int n = 0;
    for (auto& e : fs::directory_iterator(d)) {
      benchmark::DoNotOptimize(e.file_size());
      ++n;
    }
    benchmark::DoNotOptimize(n);
  }
  st.SetItemsProcessed(int64_t(st.iterations()) * kEntries);
}

// ------------------------------------------------------------------ raw file

void BM_Raw_Big(benchmark::State& st) {
  bool durable = st.range(0), read = st.range(1);
  std::string big(40u << 20, 'b');
  std::string p = (kDir / "raw.bin").string();
  fs::create_directories(kDir);
  if (read) {
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(big.data(), std::streamsize(big.size()));
  }
  for (auto _ : st) {
    if (read) {
      std::FILE* f = std::fopen(p.c_str(), "rb");
      std::setvbuf(f, nullptr, _IONBF, 0);
      size_t got = 0;
      while (got < big.size()) {
        size_t r = std::fread(big.data() + got, 1, std::min<size_t>(1 << 20, big.size() - got), f);
        if (r == 0) break;
        got += r;
      }
      std::fclose(f);
    } else {
      writeFile(p, big.data(), big.size(), durable);
    }
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(big.size()));
}

}  // namespace

BENCHMARK(BM_Lib_Write)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Sqlite_Write)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Files_Write)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Lib_ReadRandom)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Sqlite_ReadRandom)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Files_ReadRandom)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lib_List)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Sqlite_List)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Files_List)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Lib_DeleteHalfRewrite)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Sqlite_DeleteHalfRewrite)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Lib_Big)->Args({0, 0})->Args({1, 0})->Args({0, 1})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_Raw_Big)->Args({0, 0})->Args({1, 0})->Args({0, 1})->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_Lib_Lookup)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
