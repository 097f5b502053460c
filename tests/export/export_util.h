// The ten formats as one table of calls, typed cells, a scratch folder, and little-endian byte builders.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <variant>

#include "zbshr/decimal.h"
#include "zbshr/export.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace xt {

struct Format {
  const char* name;
  ExportState* (ZBSHR_CALL* begin)(ZBSTG_HEAP, uint32_t, const char*, int32_t, int32_t, uint32_t);
  int32_t (ZBSHR_CALL* column)(ExportState*, const char*, int32_t, int32_t);
  int32_t (ZBSHR_CALL* item)(ExportState*, const void*);
  int32_t (ZBSHR_CALL* end)(ExportState*);
};
#define XT_FORMAT(f) ::xt::Format{#f, osSave##f##Begin, osSave##f##Column, osSave##f##Item, osSave##f##End}
inline const Format kCsv = XT_FORMAT(Csv), kText = XT_FORMAT(Text), kClip = XT_FORMAT(Clip),
                    kSql = XT_FORMAT(Sql), kDif = XT_FORMAT(Dif), kSylk = XT_FORMAT(Sylk),
                    kExcel = XT_FORMAT(Excel), kWk = XT_FORMAT(Wk), kDbase2 = XT_FORMAT(Dbase2),
                    kDbase3 = XT_FORMAT(Dbase3);
inline const Format kAll[] = {kCsv, kText, kClip, kSql, kDif, kSylk, kExcel, kWk, kDbase2, kDbase3};

struct Col {
  std::string name;
  int32_t width, type;
};
struct Dec {  // a decimal cell, given by its text
  std::string text;
};
using Cell = std::variant<std::monostate, std::string, double, Dec, SHDATETIME>;
using Rows = std::vector<std::vector<Cell>>;

inline SHDATETIME dt(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, uint32_t us = 0) {
  SHDATETIME r{};
  shdtBuildTime(&r, y, mo, d, h, mi, s, us);
  return r;
}

inline std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
inline std::string u16(uint32_t v) { return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)}; }
inline std::string u32(uint32_t v) { return u16(v & 0xFFFF) + u16(v >> 16); }
inline std::string f64(double d) {
  uint64_t b;
  std::memcpy(&b, &d, 8);
  return u32(static_cast<uint32_t>(b)) + u32(static_cast<uint32_t>(b >> 32));
}
inline std::string zeros(size_t n) { return std::string(n, '\0'); }
inline uint32_t at16(const std::string& s, size_t at) { return uint8_t(s[at]) | uint32_t(uint8_t(s[at + 1])) << 8; }


inline int32_t put(const Format& f, ExportState* h, const Cell& cell) {
  if (std::holds_alternative<std::monostate>(cell)) return f.item(h, nullptr);
  if (const auto* s = std::get_if<std::string>(&cell)) return f.item(h, s->c_str());
  if (const auto* d = std::get_if<double>(&cell)) return f.item(h, d);
  if (const auto* d = std::get_if<Dec>(&cell)) {
    SHDEC v{};
    EXPECT_NE(ConvAsciiToDecimal(&v, d->text.c_str()), nullptr) << d->text;
    return f.item(h, &v);
  }
  return f.item(h, &std::get<SHDATETIME>(cell));
}

class ExportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    heap_ = zbstg_begin(0);
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::filesystem::temp_directory_path() / ("zbshr_export_" + std::string(info->test_suite_name()) + "_" + info->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    zbshr_clear_faults();
    zbstg_end(heap_);
    std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& leaf) const { return (dir_ / leaf).string(); }

  // A whole export whose every call must succeed: the file's bytes (the clipboard's text for Clip).
  std::string run(const Format& f, const std::vector<Col>& cols, const Rows& rows, uint32_t options,
                  const std::string& leaf = "OUT.DAT", int32_t declared_rows = -1) {
    const std::string file = path(leaf);
    ExportState* h = f.begin(heap_, 0, file.c_str(), declared_rows >= 0 ? declared_rows : int32_t(rows.size()),
                             int32_t(cols.size()), options);
    EXPECT_NE(h, nullptr) << f.name;
    if (h == nullptr) return {};
    for (const Col& c : cols) EXPECT_EQ(f.column(h, c.name.c_str(), c.width, c.type), 1) << f.name;
    for (const auto& row : rows)
      for (const Cell& cell : row) EXPECT_EQ(put(f, h, cell), 1) << f.name;
    EXPECT_EQ(f.end(h), 1) << f.name;
    return f.item == osSaveClipItem ? clipboard() : read_file(file);
  }
  static std::string clipboard() {
    std::string s(static_cast<size_t>(zbshr_clipboard_text(nullptr, 0)) + 1, '\0');
    s.resize(static_cast<size_t>(zbshr_clipboard_text(s.data(), static_cast<uint32_t>(s.size()))));
    return s;
  }
  size_t live_blocks() const {
    ZBSTG_STAT st{};
    return zbstg_stat(heap_, &st), st.live_blocks;
  }

  ZBSTG_HEAP heap_ = nullptr;
  std::filesystem::path dir_;
};

}  // namespace xt
