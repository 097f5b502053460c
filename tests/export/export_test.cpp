// The export formats: exact bytes of every format for a sample result set and for the strings the quoting
// rules care about; what every format shares (table and field names, misuse of the calls, write failures, the
// release of what an export allocated, values at the edges of what a format can carry); and `zbshr export`
// from the command line (the typed CSV input, exit statuses and messages, pipes, and the promise that an
// output appears whole or not at all and is never the input). readers.py reads back what the program writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <variant>

#include "../format/regional.h"
#include "common/run_program.h"
#include "export/state.h"
#include "zbshr/decimal.h"
#include "zbshr/export.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace xt {
namespace {

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
    dir_ = std::filesystem::temp_directory_path() /
           ("zbshr_export_" + std::string(info->test_suite_name()) + "_" + info->name() + "_" + std::to_string(getpid()));
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

// The sample: every type, nulls of every type, fractions of a second with trailing zeros to strip, and none
// at all. Dates and times appear as the display formats render them with the default regional settings.
const std::vector<Col> kCols{{"NAME", 20, 1}, {"QTY", 10, 2}, {"PRICE", 8, 6},
                             {"DAY", 10, 4},  {"AT", 8, 5},   {"STAMP", 19, 3}};
const Rows kRows{
    {std::string("plain"), 1.0, Dec{"12.5"}, dt(1998, 7, 4), dt(1900, 1, 1, 12, 30, 45),
     dt(1998, 7, 4, 12, 30, 45, 120000)},
    {std::string("a,b \"q\""), -2.5, Cell{}, Cell{}, dt(1900, 1, 1, 23, 59, 59, 500000), Cell{}},
    {Cell{}, Cell{}, Dec{"-0.75"}, dt(2001, 1, 2), Cell{}, dt(2001, 1, 2, 0, 0, 1)}};
const std::string kD1 = "7/4/1998", kT1 = "12:30:45", kS1 = kD1 + " " + kT1 + ":12",
                  kAt2 = "23:59:59:5", kD3 = "1/2/2001", kS3 = kD3 + " 00:00:01";

// Tab-separated text and the clipboard differ only in what makes a cell quoted.
std::string tabbed(const std::string& q2) {
  return "NAME\tQTY\tPRICE\tDAY\tAT\tSTAMP\r\nplain\t1\t12.5\t" + kD1 + "\t" + kT1 + "\t" + kS1 +
         "\r\n" + q2 + "\t-2.5\t\t\t" + kAt2 + "\t\r\n\t\t-0.75\t" + kD3 + "\t\t" + kS3 + "\r\n";
}

using ExportBytes = ExportTest;

TEST_F(ExportBytes, SampleInEveryTextFormat) {
  const std::string sylk =
      "ID;PZB\r\nB;Y3;X6\r\nC;Y1;X1;K\"NAME\"\r\nC;X2;K\"QTY\"\r\nC;X3;K\"PRICE\"\r\nC;X4;K\"DAY\"\r\n"
      "C;X5;K\"AT\"\r\nC;X6;K\"STAMP\"\r\nC;Y2;X1;K\"plain\"\r\nC;X2;K1\r\nC;X3;K12.5\r\nC;X4;K\"" + kD1 +
      "\"\r\nC;X5;K\"" + kT1 + "\"\r\nC;X6;K\"" + kS1 + "\"\r\nC;Y3;X1;K\"a,b \"\"q\"\"\"\r\nC;X2;K-2.5\r\n"
      "C;X3;K0.0\r\nC;X4;K\"\"\r\nC;X5;K\"" + kAt2 + "\"\r\nC;X6;K\"\"\r\nC;Y4;X1;K\"\"\r\nC;X2;K0\r\n"
      "C;X3;K-0.75\r\nC;X4;K\"" + kD3 + "\"\r\nC;X5;K\"\"\r\nC;X6;K\"" + kS3 + "\"\r\nE\r\n";
  const struct {
    const Format* f;
    uint32_t options;
    std::string want;
  } cases[] = {
      {&kCsv, OSSAVE_HEADINGS, "NAME,QTY,PRICE,DAY,AT,STAMP\r\nplain,1,12.5," + kD1 + "," + kT1 + "," + kS1 +
                                   "\r\n\"a,b \"\"q\"\"\",-2.5,,," + kAt2 + ",\r\n,,-0.75," + kD3 + ",," + kS3 + "\r\n"},
      {&kText, OSSAVE_HEADINGS, tabbed("\"a,b \"\"q\"\"\"")},
      {&kClip, OSSAVE_HEADINGS, tabbed("a,b \"q\"")},
      {&kSylk, OSSAVE_HEADINGS, sylk},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, run(*c.f, kCols, kRows, c.options)) << c.f->name;
}

std::string xl_label(int row, int col, const std::string& t) {
  return u16(4) + u16(static_cast<uint32_t>(8 + t.size())) + u16(row) + u16(col) + zeros(3) +
         static_cast<char>(t.size() & 0xFF) + t;
}
std::string xl_num(int row, int col, double v) { return u16(3) + u16(15) + u16(row) + u16(col) + zeros(3) + f64(v); }
std::string xl_head(int rows, int cols) {
  return u16(9) + u16(4) + u16(2) + u16(0x10) + u16(0) + u16(8) + u16(0) + u16(rows) + u16(0) + u16(cols);
}
std::string wk_label(int row, int col, const std::string& t) {
  return u16(0x0F) + u16(static_cast<uint32_t>(7 + t.size())) + "\x71" + u16(col) + u16(row) + "'" + t + '\0';
}
std::string wk_head(int rows, int cols) {
  return u16(0) + u16(2) + u16(0x0406) + u16(6) + u16(8) + u16(0) + u16(0) + u16(cols) + u16(rows);
}
const std::string kXlEof = u16(0x0A) + u16(0), kWkEof = u16(1) + u16(0);
const std::string s300(300, 's');

TEST_F(ExportBytes, QuotingRecordsTypesNullsAndEmptyTables) {
  const std::vector<Col> cols{{"NAME", 10, 1}, {"QTY", 5, 2}, {"PRICE", 8, 6}, {"ODD", 3, 9}};
  const Rows rows{{std::string("Widget, \"big\""), 2.5, Dec{"-12.25"}, std::string("x")},
                  {Cell{}, Cell{}, Cell{}, Cell{}},  // nulls leave every cell out
                  {std::string(""), -0.0, Dec{"0.1"}, 1.0}};
  const std::string head(300, 'H');
  const std::string dif_head = "TABLE\r\n0,1\r\n\"" + path("OUT.DAT") + "\"\r\nVECTORS\r\n0,2\r\n\"\"\r\nTUPLES\r\n0,0"
                               "\r\n\"\"\r\nLABEL\r\n1,1\r\n\"U\"\r\nLABEL\r\n2,1\r\n\"N\"\r\nDATA\r\n0,0\r\n\"\"\r\n";
  const std::vector<Col> un{{"U", 1, 0}, {"N", 1, 2}};
  const Rows strs{{std::string("say \"hi\"")}, {std::string("\"lead")},  {std::string("tab\there")},
                  {std::string("two\r\nlines")}, {std::string("O'Hara; Jr")}, {std::string("a,b")},
                  {std::string("")}, {Cell{}}};
  const struct {
    const char* what;
    const Format* f;
    std::vector<Col> cols;
    Rows rows;
    uint32_t options;
    int32_t declared;
    std::string want;
  } cases[] = {
      {"csv quoting", &kCsv, {{"S", 30, 1}}, strs, 0, -1,
       "say \"hi\"\r\n\"lead\r\ntab\there\r\ntwo\r\nlines\r\nO'Hara; Jr\r\n\"a,b\"\r\n\r\n\r\n"},
      {"text quoting", &kText, {{"S", 30, 1}}, strs, 0, -1,
       "\"say \"\"hi\"\"\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n"},
      {"clip quoting", &kClip, {{"S", 30, 1}}, strs, 0, -1,
       "say \"hi\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n"},
      {"csv: an unknown type writes only its separator; headings are never quoted", &kCsv,
       {{"a,b", 1, 77}, {"X", 1, 2}}, {{std::string("gone"), 1.0}}, OSSAVE_HEADINGS, -1, "a,b,X\r\n,1\r\n"},
      {"sql: every type, widths, nulls, texts for dates", &kSql,
       {{"S", 5, 1}, {"N", 0, 2}, {"D", 2, 6}, {"DT", 0, 3}, {"DA", 0, 4}, {"TI", 0, 5}, {"ODD", 3, 0}},
       {{std::string("it's ''x''"), -2.5, Dec{"3.25"}, std::string("1998-07-04 12:30:45"),
         std::string("1998-07-04"), std::string("12:30:45"), std::string("dropped")},
        {Cell{}, Cell{}, Cell{}, Cell{}, Cell{}, Cell{}, Cell{}}},
       OSSAVE_HEADINGS, -1,
       "CREATE TABLE OUT (\r\n\tS char(5),\r\n\tN float,\r\n\tD decimal(16, 2),\r\n\tDT datetime,"
       "\r\n\tDA date,\r\n\tTI time,);\r\nINSERT INTO OUT VALUES (\r\n\t'it''s ''''x''''',\r\n\t-2.5,\r\n\t3.25,"
       "\r\n\t1998-07-04 12:30:45,\r\n\t1998-07-04,\r\n\t12:30:45,\r\n\t);\r\nINSERT INTO OUT VALUES (\r\n\t"
       "NULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL);\r\n"},
      {"sql: no rows", &kSql, {{"S", 30, 1}}, {}, 0, -1, "CREATE TABLE OUT (\r\n\tS char(30));\r\n"},
      {"dif: no rows", &kDif, un, {}, 0, -1, dif_head + "-1,0\r\nEOD\r\n"},
      {"dif: an unknown type keeps the row start", &kDif, un, {{std::string("x"), 7.0}}, 0, 0,
       dif_head + "-1,0\r\nBOT\r\n0,7\r\nV\r\n-1,0\r\nEOD\r\n"},
      {"sylk: no headings, data from row 1, unknown types write no record", &kSylk,
       {{"S", 1, 1}, {"U", 1, 9}, {"N", 1, 2}},
       {{std::string("semi;colon"), std::string("x"), 5.0}, {Cell{}, std::string("y"), 6.0}}, 0, -1,
       "ID;PZB\r\nB;Y2;X3\r\nC;Y1;X1;K\"semi;colon\"\r\nC;X3;K5\r\nC;Y2;X1;K\"\"\r\nC;X3;K6\r\nE\r\n"},
      {"sylk: no rows", &kSylk, {{"A", 1, 1}, {"B", 1, 2}}, {}, OSSAVE_HEADINGS, -1,
       "ID;PZB\r\nB;Y0;X2\r\nC;Y1;X1;K\"A\"\r\nC;X2;K\"B\"\r\nE\r\n"},
      {"clip: no rows empties the clipboard", &kClip, {{"S", 1, 1}}, {}, 0, -1, ""},
      {"excel sample", &kExcel, cols, rows, OSSAVE_HEADINGS, -1,
       xl_head(3, 4) + xl_label(0, 0, "NAME") + xl_label(0, 1, "QTY") + xl_label(0, 2, "PRICE") +
           xl_label(0, 3, "ODD") + xl_label(1, 0, "Widget, \"big\"") + xl_num(1, 1, 2.5) + xl_num(1, 2, -12.25) +
           xl_label(3, 0, "") + xl_num(3, 1, -0.0) + xl_num(3, 2, 0.1) + kXlEof},
      {"excel without headings", &kExcel, {{"A", 1, 2}}, {{7.0}, {8.0}}, 0, -1,
       xl_head(2, 1) + xl_num(0, 0, 7) + xl_num(1, 0, 8) + kXlEof},
      {"excel: the length byte of a long label counts modulo 256", &kExcel, {{"S", 300, 1}}, {{s300}}, 0, -1,
       xl_head(1, 1) + xl_label(0, 0, s300) + kXlEof},
      {"excel: no rows", &kExcel, {{"A", 1, 1}, {"B", 1, 2}}, {}, 0, -1, xl_head(0, 2) + kXlEof},
      {"wks: item labels are cut at 239, headings are not", &kWk, {{head, 0, 1}}, {{std::string(500, 'q')}},
       OSSAVE_HEADINGS, -1, wk_head(1, 1) + wk_label(0, 0, head) + wk_label(1, 0, std::string(239, 'q')) + kWkEof},
      {"wks: no rows", &kWk, {{"A", 1, 1}, {"B", 1, 2}, {"C", 1, 4}}, {}, 0, -1, wk_head(0, 3) + kWkEof},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, run(*c.f, c.cols, c.rows, c.options, "OUT.DAT", c.declared)) << c.what;
}

TEST_F(ExportBytes, LargeExportsCrossManyBufferBoundariesIntact) {
  // rows of every length from 0 to 600 bytes, some quoted, over ~20 buffers
  Rows rows, clip_rows;
  std::string want, clip;
  for (int i = 0; i < 1200; ++i) {
    std::string s(static_cast<size_t>(i * 37 % 601), static_cast<char>('a' + i % 26));
    if (i % 7 == 0 && !s.empty()) s[s.size() / 2] = ',';
    rows.push_back({s, i * 0.5, Cell{}});
    want += (s.find(',') != std::string::npos ? "\"" + s + "\"" : s) + "," + std::to_string(i / 2) +
            (i % 2 ? ".5" : "") + ",\r\n";
    clip_rows.push_back({s});
    clip += s + "\r\n";
  }
  std::string got = run(kCsv, {{"S", 600, 1}, {"N", 8, 2}, {"X", 1, 1}}, rows, 0);
  ASSERT_GT(got.size(), 16284u * 10);
  EXPECT_TRUE(got == want) << "first difference at byte "
                           << std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first - got.begin();
  EXPECT_TRUE(run(kClip, {{"S", 600, 1}}, clip_rows, 0) == clip);
}

// The date dBase headers carry: year - 1900 (its low byte), month, day.
std::string today(bool year_first) {
  const std::time_t now = std::time(nullptr);
  std::tm t{};
  localtime_r(&now, &t);
  const char y = static_cast<char>(t.tm_year & 0xFF), m = static_cast<char>(t.tm_mon + 1), d = static_cast<char>(t.tm_mday);
  return year_first ? std::string{y, m, d} : std::string{m, d, y};
}
std::string db2_desc(const std::string& name, char type, int width) {
  return name + zeros(11 - name.size()) + type + static_cast<char>(width) + zeros(3);
}

TEST_F(ExportBytes, DbaseTables) {
  // dBase II: a 521-byte header, field names upper-cased and cut to ten bytes.
  std::string got = run(kDbase2, {{"name_of_customer", 12, 1}, {"qty", 99, 2}, {"when", 3, 4}},
                        {{std::string("Smith"), 42.0, dt(1998, 7, 4)}, {Cell{}, Cell{}, Cell{}}}, 0);
  std::string head = std::string("\x02") + u16(2) + today(false) + u16(12 + 16 + 10 + 1) + db2_desc("NAME_OF_CU", 'C', 12) +
                     db2_desc("QTY", 'N', 16) + db2_desc("WHEN", 'C', 10) + "\x0D" + zeros(15 + 28 * 16 + 1);
  EXPECT_EQ(head + " Smith       " + std::string(14, ' ') + "421998/07/04 " + std::string(27, ' ') + "0" +
                   std::string(10, ' ') + "\x1A",
               got);
  // 31 and 32 columns: the header is 521 bytes either way; the 32nd descriptor is followed by a single terminator.
  for (int n : {31, 32}) {
    std::vector<Col> cs;
    for (int i = 0; i < n; ++i) cs.push_back({"C" + std::to_string(i), 1, 1});
    got = run(kDbase2, cs, {}, 0);
    ASSERT_EQ(got.size(), 522u) << n;
    EXPECT_TRUE(got[6] == n + 1 && got.substr(8 + (n - 1) * 16, 16) == db2_desc("C" + std::to_string(n - 1), 'C', 1) &&
                got.substr(8 + n * 16) == "\x0D" + zeros(512 - n * 16) + "\x1A") << n;
  }
  // Widths clamp to 1..255; the numeric, date and time types take fixed ones.
  got = run(kDbase2, {{"S0", 0, 1}, {"S300", 300, 1}, {"N", 3, 2}, {"D", 300, 6}, {"DT", 0, 3}, {"T", 2, 5}, {"X", 7, 42}}, {}, 0);
  const int widths[] = {255, 255, 16, 16, 10, 8, 7};
  int total = 1;
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(static_cast<uint8_t>(got[8 + 16 * i + 12]), widths[i]) << i;
    EXPECT_EQ(got[8 + 16 * i + 11], i < 2 || i > 3 ? 'C' : 'N') << i;
    total += widths[i];
  }
  EXPECT_EQ(at16(got, 6), static_cast<uint32_t>(total));

  // dBase III (its values, names and field layout are read back by readers.py): the declared row count.
  got = run(kDbase3, {{"A", 1, 1}, {"B", 2, 1}}, {}, 0, "OUT.DAT", 7);
  EXPECT_EQ(got.substr(0, 8), "\x03" + today(true) + u32(7));
  EXPECT_TRUE(at16(got, 8) == 97u && got.substr(96) == "\x0D\x1A");
}

TEST_F(ExportBytes, DbaseLimits) {
  // Refused counts create no file.
  const std::string a = path("A.DBF");
  EXPECT_TRUE(!osSaveDbase2Begin(heap_, 0, a.c_str(), 65536, 1, 0) && !osSaveDbase2Begin(heap_, 0, a.c_str(), 1, 33, 0));
  EXPECT_TRUE(!osSaveDbase3Begin(heap_, 0, a.c_str(), 1000000001, 1, 0) && !osSaveDbase3Begin(heap_, 0, a.c_str(), 1, 129, 0));
  for (const Format* f : {&kExcel, &kWk, &kDbase2, &kDbase3})
    EXPECT_EQ(f->begin(heap_, 0, a.c_str(), -1, 1, 0), nullptr) << f->name;
  EXPECT_FALSE(std::filesystem::exists(a));
  // dBase II records hold at most 1000 bytes; a header never completed is left as it stands, then the end byte.
  ExportState* h = osSaveDbase2Begin(heap_, 0, path("C.DBF").c_str(), 65535, 5, 0);
  ASSERT_NE(h, nullptr);
  for (int w : {255, 255, 255, 235}) EXPECT_EQ(osSaveDbase2Column(h, "A", w, 1), 1);  // exactly 1000
  EXPECT_TRUE(!osSaveDbase2Column(h, "E", 1, 1) && !osSaveDbase2Item(h, "x") && osSaveDbase2End(h) == 1);
  EXPECT_EQ(std::string("\x02") + u16(65535) + today(false) + "\x1A", read_file(path("C.DBF")));
  // dBase III: at most 4000; a refused width is not counted.
  EXPECT_EQ(osSaveDbase3End(osSaveDbase3Begin(heap_, 0, path("B.DBF").c_str(), 1, 128, 0)), 1);
  h = osSaveDbase3Begin(heap_, 0, path("Z.DBF").c_str(), 1000000000, 16, 0);
  ASSERT_NE(h, nullptr);
  for (int i = 0; i < 15; ++i) ASSERT_EQ(osSaveDbase3Column(h, "S", 255, 1), 1);  // 3825
  EXPECT_TRUE(!osSaveDbase3Column(h, "T", 176, 1) && osSaveDbase3Column(h, "T", 175, 1) == 1 && osSaveDbase3End(h) == 1);
  EXPECT_EQ(at16(read_file(path("Z.DBF")), 10), 4001u);
}

TEST(ExportNames, TableAndFieldNames) {
  const struct {
    uint32_t codepage;
    const char* file;
    std::string table;
  } tables[] = {
      {1252, "C:\\DATA\\ORDERS.TXT", "ORDERS"}, {1252, "C:\\A.B\\FILE", "A"},  // from the last dot back
      {1252, "/tmp/x/orders.tar.gz", "orders"}, {1252, "D:ITEMS.DBF", "ITEMS"}, {1252, "plain", "plain"},
      {1252, "dir/", ""}, {1252, "", ""}, {1252, nullptr, ""},
      {932, "C:\\\x95\\X.TXT", "\x95\\X"},  // 0x95 0x5C is one character in code page 932
      {1252, "C:\\\x95\\X.TXT", "X"}, {1252, "\\ROOT.TXT", "ROOT"}, {932, "\x95\\X.TXT", "\x95\\X"},  // at the very start
  };
  for (const auto& c : tables) {
    const uint32_t old = zbshr_set_codepage(c.codepage);
    char out[300];
    std::memset(out, 'Z', sizeof out);
    zbshr::exp::derive_table_name(c.file, out);
    zbshr_set_codepage(old);
    EXPECT_EQ(std::string(out), c.table) << (c.file ? c.file : "(null)");
  }
  char out[300];
  zbshr::exp::derive_table_name(std::string(400, 'n').c_str(), out);
  EXPECT_EQ(std::string(out), std::string(260, 'n'));
  uint8_t field[11];
  zbshr::exp::dbase_field_name("a\xe9z", field);  // only ASCII letters change
  EXPECT_STREQ(reinterpret_cast<char*>(field), "A\xe9Z");
  const uint32_t old = zbshr_set_codepage(932);  // the second byte of a character is kept as it is
  zbshr::exp::dbase_field_name("ab\x82" "cdefgh\x82" "b", field);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(field), 11), std::string("AB\x82" "cDEFGH\x82") + '\0');
  zbshr::exp::dbase_field_name("ab\x82\0zz", field);  // a lead byte last: the name ends there
  zbshr_set_codepage(old);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(field), 11), std::string("AB\x82") + zeros(8));
}

using ExportProtocol = ExportTest;

TEST_F(ExportProtocol, MisuseIsRefusedAndEndReleasesEverything) {
  const size_t before = live_blocks();
  for (const Format& f : kAll) {
    SCOPED_TRACE(f.name);
    EXPECT_TRUE(!f.column(nullptr, "A", 1, 1) && !f.item(nullptr, "x") && !f.end(nullptr));
    EXPECT_TRUE(!f.begin(nullptr, 0, path("n").c_str(), 1, 1, 0) && !f.begin(heap_, 0, path("n").c_str(), 1, -1, 0));
    EXPECT_TRUE(f.item == osSaveClipItem || !f.begin(heap_, 0, path("no/such/dir/x").c_str(), 1, 1, 0));
    const std::string file = path(std::string("m.") + f.name);
    const uint32_t pool = zbstg_new_pool(heap_);
    ExportState* h = f.begin(heap_, pool, file.c_str(), 1, 2, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(zbstg_get_pointer_subpool(heap_, h->block), pool);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(h) % alignof(ExportState), 0u);
    EXPECT_EQ(f.column(h, nullptr, 4, 1), 1);  // a null name is an empty name
    EXPECT_EQ(f.item(h, "early"), 0);          // not every column is declared yet
    EXPECT_TRUE(f.column(h, "B", 4, 1) == 1 && f.item(h, "v") == 1);
    EXPECT_EQ(f.column(h, "C", 4, 1), 0);  // columns come before the first cell
    EXPECT_TRUE(f.item(h, nullptr) == 1 && f.item(h, "w") == 1);  // more rows than announced are fine
    EXPECT_EQ(f.end(h), 1);
    // an ended handle is refused by every call, a second End included; so is what was never a handle
    EXPECT_TRUE(!f.end(h) && !f.item(h, "x") && !f.column(h, "D", 4, 1) && !f.end(reinterpret_cast<ExportState*>(&h)));
    EXPECT_EQ(read_file(file).find("early"), std::string::npos);
    // no columns: nowhere to put a cell; ended early, everything is freed
    for (int stop = 0; stop < 3; ++stop) {
      h = f.begin(heap_, 0, path(std::string("z.") + f.name).c_str(), 5, stop ? 3 : 0, OSSAVE_HEADINGS);
      ASSERT_NE(h, nullptr);
      EXPECT_TRUE(stop > 0 || f.item(h, "v") == 0);
      for (int i = 0; i < (stop == 2 ? 3 : stop); ++i) f.column(h, "FIRST", 10, 1 + i % 2);
      if (stop == 2) f.item(h, "a");
      EXPECT_EQ(f.end(h), 1);
    }
  }
  EXPECT_EQ(live_blocks(), before);
}

TEST_F(ExportProtocol, OfTwoEndsRacingOnOneHandleOnlyOneRuns) {
  for (int round = 0; round < 50; ++round) {
    ExportState* h = osSaveCsvBegin(heap_, 0, path("race.csv").c_str(), 1, 1, 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(osSaveCsvColumn(h, "A", 1, 1), 1);
    std::atomic<int> go{0};
    int32_t r1 = -1, r2 = -1;
    std::thread t1([&] { while (go.load() == 0) {} r1 = osSaveCsvEnd(h); });
    std::thread t2([&] { go.store(1), r2 = osSaveCsvEnd(h); });
    t1.join(), t2.join();
    ASSERT_EQ(r1 + r2, 1) << round;
  }
}

TEST_F(ExportProtocol, WriteFailuresAreReported) {
  const std::string text(200, 't');
  for (const Format& f : kAll) {
    if (f.item == osSaveClipItem) continue;  // no file
    SCOPED_TRACE(f.name);
    ExportState* h = f.begin(heap_, 0, path(std::string("short.") + f.name).c_str(), 1000, 1, 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(f.column(h, "S", 255, OSSAVE_STRING), 1);
    zbshr_inject_fault(2, 1, 1);  // the first write to the disk moves half its bytes
    int32_t written = 0;
    while (written < 1000 && f.item(h, text.c_str()) == 1) ++written;
    zbshr_clear_faults();
    EXPECT_TRUE(written > 0 && written < 1000) << written;  // the cell whose bytes met the short write said so
    f.end(h);
  }
  const size_t before = live_blocks();
  // A failed flush before the trailer: no trailer, nothing more, all freed.
  const std::string file = path("trailer.sql");
  ExportState* h = osSaveSqlBegin(heap_, 0, file.c_str(), 1, 1, 0);
  ASSERT_TRUE(h && osSaveSqlColumn(h, "S", 10, 1) == 1);
  const size_t used = std::string("CREATE TABLE trailer (\r\n\tS char(10));\r\nINSERT INTO trailer VALUES (\r\n\t'").size();
  ASSERT_EQ(osSaveSqlItem(h, std::string(16284 - used - 3, 'y').c_str()), 1);  // the buffer exactly full
  ASSERT_EQ(std::filesystem::file_size(file), 0u);
  zbshr_inject_fault(2, 1, 1);
  EXPECT_EQ(osSaveSqlEnd(h), 0);
  EXPECT_EQ(std::filesystem::file_size(file), 16284u / 2);
  // A failed final flush fails End; a failed open fails Begin.
  h = osSaveCsvBegin(heap_, 0, path("flush.csv").c_str(), 1, 1, 0);
  ASSERT_TRUE(h && osSaveCsvColumn(h, "S", 10, 1) == 1 && osSaveCsvItem(h, "abc") == 1);
  zbshr_inject_fault(2, 1, 1);
  EXPECT_EQ(osSaveCsvEnd(h), 0);
  zbshr_inject_fault(5, 1, 1);
  EXPECT_EQ(osSaveDifBegin(heap_, 0, path("x.dif").c_str(), 1, 1, 0), nullptr);
  zbshr_clear_faults();
  EXPECT_EQ(live_blocks(), before);
}

TEST_F(ExportProtocol, NumbersTooLongForTheirRoomLoseDigitsNotTheValue) {
  // readers.py checks the other formats; these it does not read: a decimal in CSV (29 characters), dBase II (16).
  EXPECT_EQ(run(kCsv, {{"N", 10, OSSAVE_DECIMAL}}, {{Dec{"-0.0000000000000000000000012345"}}}, 0),
            "-0.00000000000000000000000123\r\n");
  EXPECT_NE(run(kDbase2, {{"N", 10, OSSAVE_DECIMAL}}, {{Dec{"123456789.123456789"}}}, 0).find(" 123456789.123457\x1A"),
            std::string::npos);
  EXPECT_NE(run(kDbase2, {{"N", 10, OSSAVE_NUMBER}}, {{2.0 / 3}}, 0).find(" 0.66666666666667\x1A"), std::string::npos);
}

class ExportRegional : public Regional {};

TEST_F(ExportRegional, SeparatorsAreTheRegionalOnes) {
  use("sDecimal=,\nsTime=.\n");
  ZBSTG_HEAP heap = zbstg_begin(0);
  const std::string file = dir_ + "/sep.dif";
  ExportState* h = osSaveDifBegin(heap, 0, file.c_str(), 2, 3, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_TRUE(osSaveDifColumn(h, "N", 10, OSSAVE_NUMBER) && osSaveDifColumn(h, "D", 10, OSSAVE_DECIMAL) &&
              osSaveDifColumn(h, "T", 8, OSSAVE_TIME));
  // the fraction of a second follows the time separator
  for (const Cell& c : {Cell{1.0 / 3}, Cell{Dec{"-0.0000000000000000000000012345"}}, Cell{dt(1900, 1, 1, 12, 30, 45, 1)}})
    EXPECT_EQ(put(kDif, h, c), 1);
  EXPECT_EQ(osSaveDifEnd(h), 1);
  zbstg_end(heap);
  const std::string got = read_file(file);
  EXPECT_NE(got.find("0,0,3333333333333\r\nV\r\n0,-1,2345E-24\r\nV\r\n1,0\r\n\"12.30.45.000001\"\r\n"), std::string::npos);
}

TEST_F(ExportProtocol, SixteenBitFieldsAreHeldNotWrapped) {
  // A text is cut to what a LABEL's length field carries; the next record follows intact.
  const std::string big(70000, 'z');
  std::string got = run(kExcel, {{"S", 10, 1}}, {{big}, {std::string("after")}}, 0, "big.xls");
  ASSERT_GE(got.size(), 20u + 4 + 65535);
  EXPECT_EQ(at16(got, 22), 65535u);
  EXPECT_EQ(static_cast<uint8_t>(got[31]), 65527u & 0xFF);
  EXPECT_EQ(u16(4) + u16(13) + u16(1) + u16(0) + zeros(3) + "\x05" "after" + u16(0x0A) + u16(0), got.substr(20 + 4 + 65535));
  got = run(kWk, {{big, 10, 1}}, {{std::string("x")}}, OSSAVE_HEADINGS, "big.wks");
  EXPECT_EQ(at16(got, 18 + 2), 65535u);
  EXPECT_EQ(got.substr(18 + 4 + 6, 65529), std::string(65528, 'z') + '\0');
  EXPECT_EQ(at16(got, 18 + 4 + 65535 + 2), 7u + 1);
  for (const Format* f : {&kExcel, &kWk}) {
    SCOPED_TRACE(f->name);
    const bool xl = f == &kExcel;
    // Columns past the last nameable one are refused (rows: see ExportCli); the next row starts at column 0.
    const int32_t cols = 65537;
    ExportState* h = f->begin(heap_, 0, path("cols.dat").c_str(), 1, cols, OSSAVE_HEADINGS);
    ASSERT_NE(h, nullptr);
    int32_t ok = 0;
    for (int32_t i = 0; i < cols; ++i) ok += f->column(h, "", 1, OSSAVE_NUMBER);
    EXPECT_EQ(ok, cols - 1);
    const double v = 1;
    ok = 0;
    for (int32_t i = 0; i < cols; ++i) ok += f->item(h, &v);
    EXPECT_EQ(ok, cols - 1);
    EXPECT_EQ(f->item(h, &v), 1);
    EXPECT_EQ(f->end(h), 1);
    EXPECT_EQ(at16(read_file(path("cols.dat")), xl ? 18 : 14), 65535u);
  }
}

std::string lf(std::string s) { return std::erase(s, '\r'), s; }  // Windows programs end lines with CRLF

class ExportCli : public ExportTest {
 protected:
  void SetUp() override {
    ExportTest::SetUp();
    if (!std::filesystem::exists(ZBSHR_CLI)) GTEST_SKIP() << "zbshr program not built";
  }
  // Runs `zbshr export ARGS...`; "@x" in an argument stands for path("x").
  zbtest::RunResult zbshr(std::vector<std::string> args, const std::string& input = "",
                          std::vector<std::string> env = {}) {
    std::vector<std::string> argv{ZBSHR_CLI, "export"};
    for (auto& a : args) argv.push_back(a.size() > 1 && a[0] == '@' ? path(a.substr(1)) : a);
    zbtest::RunOptions o;
    o.input = input;
    o.env = std::move(env);
    return zbtest::run_program(argv, o);
  }
  void write(const std::string& leaf, const std::string& text) { std::ofstream(path(leaf), std::ios::binary) << text; }
  // The folder holds exactly these names (no temporary file left behind); names sorted.
  void expect_files(const std::vector<std::string>& names) {
    std::vector<std::string> got;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) got.push_back(e.path().filename().string());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, names);
  }
};

const std::string kInput =
    "id:number,name:string:12,amount:decimal,day:date,at:time\r\n"
    "1,\"Smith, J\",12.50,1998-07-04,12:30:45.5\r\n"
    "2,\"\",-3,2001-01-02,00:00:00\r\n"
    "3,,,,\r\n";

TEST_F(ExportCli, WritesWhatItIsGiven) {
  write("-dash.csv", "n:number\n0.3333333333333333\n");
  const struct {
    std::vector<std::string> args;
    std::string input, out_file, want;  // want: the output's bytes (standard output when no file)
    std::string env = "ZBSHR_CLIPBOARD_CMD=";
  } cases[] = {
      // pipes, options after the operands, a byte-order mark, type names in any case, ISO 'T' date-times
      {{"-", "-", "--format", "csv"}, "\xEF\xBB\xBFid:NUMBER,at:DateTime\r\n1,1998-07-04T12:30:45\r\n", "",
       "1,7/4/1998 12:30:45\r\n"},
      // "--" ends the options; a number that fits the format's room
      {{"-f", "csv", "--", "@-dash.csv", "@dash.out"}, "", "dash.out", "0.333333333333333\r\n"},
#if !defined(_WIN32)  // there the clipboard is the system's
      {{"--format", "clip", "--headings", "-"}, "s:string\r\nsay \"hi\"\r\n\"a\tb\"\r\n", "",
       "s\r\nsay \"hi\"\r\n\"a\tb\"\r\n"},
      // a clipboard program takes the text; nothing on standard output
      {{"--format", "clip", "-"}, "s:string\r\nsay \"hi\"\r\n", "clip.txt", "say \"hi\"\r\n",
       "ZBSHR_CLIPBOARD_CMD=cat > '" + path("clip.txt") + "'"},
#endif
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    auto r = zbshr(c.args, c.input, {c.env});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(lf(c.out_file.empty() ? c.want : ""), lf(r.out));
    if (!c.out_file.empty()) {
      EXPECT_EQ(c.want, read_file(path(c.out_file)));
    }
  }
}

TEST_F(ExportCli, RefusalsLeaveEveryFileAsItWas) {
  write("in.csv", kInput);
  write("old.csv", "old contents");
  write("long.csv", "x:number\n1\n0.3333333333333333\n");
  std::filesystem::create_directories(path("adir"));
  std::filesystem::create_hard_link(path("in.csv"), path("link.csv"));
  std::string big = "n:number\n";
  for (int i = 0; i < 65537; ++i) big += std::to_string(i % 10) + "\n";
  write("big.csv", big);
  const struct {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string err;
  } cases[] = {
      {{"-f", "csv", "@in.csv", "@in.csv"}, "", 1, "is the input file"},
      {{"-f", "csv", "@in.csv", "@link.csv"}, "", 1, "is the input file"},
      {{"-f", "csv", "@adir", "@old.csv"}, "", 1, "Is a directory"},
      {{"-f", "csv", "@in.csv", "@adir"}, "", 1, "Is a directory"},
      {{"-f", "csv", "@nosuch.csv", "@old.csv"}, "", 1, "No such file or directory"},
      {{"-f", "csv", "-", "@old.csv"}, "a:number,b:date\r\n1,1998-07-04\r\nx,1998-07-04\r\n", 1, ":3: column a: 'x' is not a number"},
      {{"-f", "csv", "-", "@old.csv"}, "a:number\r\ninf\r\n", 1, ":2: column a: 'inf' is not a finite"},
      {{"-f", "csv", "-", "@old.csv"}, "a:date\r\n1998-13-01\r\n", 1, "the month is wrong"},
      {{"-f", "csv", "-", "@old.csv"}, "a:nothing\r\n1\r\n", 1, "name:type[:width]"},
      {{"-f", "csv", "-", "@old.csv"}, "a:string,b:number\r\nx\r\n", 1, "1 cells, expected 2"},
      {{"-f", "csv", "-", "@old.csv"}, "a:string\r\n\"open\r\n", 1, "unterminated"},
      {{"-f", "excel", "@big.csv", "@new.xls"}, "", 1, "65536 rows"},
      {{"-f", "wk", "@big.csv", "@new.wks"}, "", 1, "65536 rows"},
      {{"-f", "dif", "@long.csv", "@new.dif"}, "", 1, "long.csv:3, column x: 0.3333333333333333)"},
      {{"@in.csv", "@old.csv"}, "", 2, "--format"},
      {{"-f", "xls", "@in.csv", "@old.csv"}, "", 2, "unknown format 'xls'"},
      {{"-f", "csv", "@in.csv"}, "", 2, "OUTPUT is required"},
      {{"-f", "clip", "@in.csv", "@old.csv"}, "", 2, "clip takes no OUTPUT"},
      {{"-f", "csv", "--nope", "@in.csv", "@old.csv"}, "", 2, "--nope"},
      {{"-f", "csv", "@in.csv", "@old.csv", "extra"}, "", 2, "extra"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    auto r = zbshr(c.args, c.input);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(read_file(path("in.csv")), kInput);
  EXPECT_EQ(read_file(path("old.csv")), "old contents");
  expect_files({"adir", "big.csv", "in.csv", "link.csv", "long.csv", "old.csv"});
  // --force writes what fits, with a warning.
  for (const char* fmt : {"excel", "wk"}) {
    const auto r = zbshr({"-f", fmt, "--force", "@big.csv", "@big.out"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("warning"), std::string::npos) << r.err;
    EXPECT_EQ(std::filesystem::file_size(path("big.out")), fmt[0] == 'e' ? 24u + 65536 * 19 : 22u + 65536 * 17);
  }
}

TEST_F(ExportCli, InterruptedExportLeavesNoOutput) {
#if defined(_WIN32)
  GTEST_SKIP() << "sends a POSIX signal";
#endif
  std::string big = "n:number,s:string\n";
  for (int i = 0; i < 200000; ++i) big += std::to_string(i) + ",row\n";
  write("big.csv", big);
  zbtest::RunOptions o;
  o.signal_on_err_text = SIGINT;
  o.err_text_trigger = "warning";  // printed just before the writing starts
  auto r = zbtest::run_program({ZBSHR_CLI, "export", "-f", "wk", "--force", path("big.csv"), path("out.wks")}, o);
  // Wherever the signal lands, the output is whole or absent, never partial.
  EXPECT_TRUE(r.code == 0 || (r.code == 128 + SIGINT && r.err.find("interrupted") != std::string::npos)) << r.err;
  expect_files(r.code == 0 ? std::vector<std::string>{"big.csv", "out.wks"} : std::vector<std::string>{"big.csv"});
  if (r.code == 0) {
    EXPECT_EQ(std::filesystem::file_size(path("out.wks")), 22u + 65536 * 17);
  }
}

// Every format of the sample and the tricky values read back by xlrd, dbfread, sqlite3, LibreOffice, Gnumeric.
TEST_F(ExportCli, RealReadersSeeWhatWasExported) {
#if defined(_WIN32)
  GTEST_SKIP() << "the readers run on the build machine";
#endif
  if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
  auto r = zbtest::run_program({"/usr/bin/python3", ZBSHR_SOURCE_DIR "/tests/export/readers.py", ZBSHR_CLI, path("readers")});
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.find("FAIL"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace xt
