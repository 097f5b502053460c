// Exact bytes of the workbook stream, WKS and dBase exports.
#include <ctime>

#include "export_util.h"

namespace xt {
namespace {

std::string xl_label(int row, int col, const std::string& text) {
  return u16(4) + u16(static_cast<uint32_t>(8 + text.size())) + u16(row) + u16(col) + zeros(3) +
         std::string(1, static_cast<char>(text.size() & 0xFF)) + text;
}
std::string xl_number(int row, int col, double v) {
  return u16(3) + u16(15) + u16(row) + u16(col) + zeros(3) + f64(v);
}
std::string xl_head(int rows, int cols) {
  return u16(9) + u16(4) + u16(2) + u16(0x10) + u16(0) + u16(8) + u16(0) + u16(rows) + u16(0) +
         u16(cols);
}
const std::string kXlEof = u16(0x0A) + u16(0);

std::string wk_label(int row, int col, const std::string& text) {
  return u16(0x0F) + u16(static_cast<uint32_t>(7 + text.size())) + "\x71" + u16(col) + u16(row) +
         "'" + text + std::string(1, '\0');
}
std::string wk_number(int row, int col, double v) {
  return u16(0x0E) + u16(13) + "\x71" + u16(col) + u16(row) + f64(v);
}
std::string wk_head(int rows, int cols) {
  return u16(0) + u16(2) + u16(0x0406) + u16(6) + u16(8) + u16(0) + u16(0) + u16(cols) + u16(rows);
}
const std::string kWkEof = u16(1) + u16(0);

struct Today {
  int year, month, day;
};
Today today() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  return {tm.tm_year, tm.tm_mon + 1, tm.tm_mday};
}

std::string db2_desc(const std::string& name, char type, int width) {
  std::string d = name + zeros(11 - name.size());
  return d + type + static_cast<char>(width) + zeros(3);
}
std::string db3_desc(const std::string& name, char type, int width) {
  std::string d = name + zeros(11 - name.size());
  return d + type + zeros(4) + static_cast<char>(width) + zeros(15);
}

using ExcelExport = ExportTest;

TEST_F(ExcelExport, HeadingsNumbersStringsAndNullsGiveExactRecords) {
  std::vector<Col> cols{{"NAME", 10, 1}, {"QTY", 5, 2}, {"PRICE", 8, 6}, {"ODD", 3, 9}};
  std::string got = run(kExcel, cols,
                        {{std::string("Widget, \"big\""), 2.5, Dec{"-12.25"}, std::string("x")},
                         {Cell{}, Cell{}, Cell{}, Cell{}},
                         {std::string(""), -0.0, Dec{"0.1"}, 1.0}},
                        OSSAVE_HEADINGS);
  std::string want = xl_head(3, 4) + xl_label(0, 0, "NAME") + xl_label(0, 1, "QTY") +
                     xl_label(0, 2, "PRICE") + xl_label(0, 3, "ODD") +
                     xl_label(1, 0, "Widget, \"big\"") + xl_number(1, 1, 2.5) +
                     xl_number(1, 2, -12.25) +
                     // row 2: nulls leave every cell out
                     xl_label(3, 0, "") + xl_number(3, 1, -0.0) + xl_number(3, 2, 0.1) + kXlEof;
  EXPECT_BYTES(want, got);
}

TEST_F(ExcelExport, WithoutHeadingsDataStartsInRowZero) {
  std::string got = run(kExcel, {{"A", 1, 2}}, {{7.0}, {8.0}}, 0);
  EXPECT_BYTES(xl_head(2, 1) + xl_number(0, 0, 7) + xl_number(1, 0, 8) + kXlEof, got);
}

TEST_F(ExcelExport, LongLabelKeepsFullLengthAndCountsModulo256) {
  std::string s300(300, 'x');
  for (size_t i = 0; i < s300.size(); ++i) s300[i] = static_cast<char>('a' + i % 26);
  std::string got = run(kExcel, {{"S", 300, 1}}, {{s300}}, 0);
  ASSERT_EQ(got.size(), 8u + 12u + 12u + 300u + 4u);
  const std::string rec = got.substr(20, 12 + 300);
  EXPECT_EQ(static_cast<uint8_t>(rec[2]) | static_cast<uint8_t>(rec[3]) << 8, 308);
  EXPECT_EQ(static_cast<uint8_t>(rec[11]), 44);  // 300 mod 256
  EXPECT_EQ(rec.substr(12), s300);
}

TEST_F(ExcelExport, ZeroRowsStillWritesHeaderAndTrailer) {
  EXPECT_BYTES(xl_head(0, 2) + kXlEof, run(kExcel, {{"A", 1, 1}, {"B", 1, 2}}, {}, 0));
}

using WkExport = ExportTest;

TEST_F(WkExport, HeadingsLabelsNumbersAndNulls) {
  std::vector<Col> cols{{"NAME", 10, 1}, {"QTY", 5, 2}, {"PRICE", 8, 6}};
  std::string got = run(kWk, cols,
                        {{std::string("it's"), 3.0, Dec{"1.5"}}, {Cell{}, Cell{}, Cell{}}},
                        OSSAVE_HEADINGS);
  std::string want = wk_head(2, 3) + wk_label(0, 0, "NAME") + wk_label(0, 1, "QTY") +
                     wk_label(0, 2, "PRICE") + wk_label(1, 0, "it's") + wk_number(1, 1, 3.0) +
                     wk_number(1, 2, 1.5) + kWkEof;
  EXPECT_BYTES(want, got);
}

TEST_F(WkExport, ItemLabelsAreCutAt239ButHeadingsAreNot) {
  std::string s500(500, 'q');
  std::string head(300, 'H');
  std::string got = run(kWk, {{head, 0, 1}}, {{s500}}, OSSAVE_HEADINGS);
  std::string want = wk_head(1, 1) + wk_label(0, 0, head) + wk_label(1, 0, s500.substr(0, 239)) +
                     kWkEof;
  EXPECT_BYTES(want, got);
  // the item's record is 246 bytes long
  const size_t at = 18 + 4 + 7 + 300;
  EXPECT_EQ(static_cast<uint8_t>(got[at + 2]) | static_cast<uint8_t>(got[at + 3]) << 8, 246);
}

TEST_F(WkExport, ZeroRowsStillWritesHeaderAndTrailer) {
  EXPECT_BYTES(wk_head(0, 3) + kWkEof, run(kWk, {{"A", 1, 1}, {"B", 1, 2}, {"C", 1, 4}}, {}, 0));
}

using DbaseExport = ExportTest;

TEST_F(DbaseExport, Dbase2ThreeColumnsHeaderIs521BytesWithTerminatorDescriptor) {
  std::vector<Col> cols{{"name_of_customer", 12, 1}, {"qty", 99, 2}, {"when", 3, 4}};
  std::string got = run(kDbase2, cols,
                        {{std::string("Smith"), 42.0, dt(1998, 7, 4)},
                         {Cell{}, Cell{}, Cell{}}},
                        0);
  const Today t = today();
  std::string head = std::string("\x02") + u16(2) + static_cast<char>(t.month) +
                     static_cast<char>(t.day) + static_cast<char>(t.year & 0xFF) +
                     u16(12 + 16 + 10 + 1) + db2_desc("NAME_OF_CU", 'C', 12) +
                     db2_desc("QTY", 'N', 16) + db2_desc("WHEN", 'C', 10) + "\x0D" + zeros(15) +
                     zeros(28 * 16) + zeros(1);
  ASSERT_EQ(head.size(), 521u);
  std::string rec1 = " Smith       " + std::string(14, ' ') + "42" + "1998/07/04";
  std::string rec2 = " " + std::string(12, ' ') + std::string(15, ' ') + "0" + std::string(10, ' ');
  EXPECT_BYTES(head + rec1 + rec2 + "\x1A", got);
}

TEST_F(DbaseExport, Dbase2With32ColumnsEndsDescriptorsWithSingleTerminator) {
  std::vector<Col> cols;
  for (int i = 0; i < 32; ++i) cols.push_back({"C" + std::to_string(i), 1, 1});
  std::string got = run(kDbase2, cols, {}, 0);
  ASSERT_EQ(got.size(), 522u);
  EXPECT_EQ(got[6], static_cast<char>(33));
  EXPECT_EQ(got.substr(8 + 31 * 16, 16), db2_desc("C31", 'C', 1));
  EXPECT_EQ(got[520], '\x0D');
  EXPECT_EQ(got[521], '\x1A');
}

TEST_F(DbaseExport, Dbase2WidthsClampAndTypesTakeFixedWidths) {
  std::vector<Col> cols{{"S0", 0, 1},  {"S300", 300, 1}, {"N", 3, 2}, {"D", 300, 6},
                        {"DT", 0, 3}, {"T", 2, 5},      {"X", 7, 42}};
  ExportState* h = osSaveDbase2Begin(heap_, 0, path("W.DBF").c_str(), 0, 7, 0);
  ASSERT_NE(h, nullptr);
  for (const Col& c : cols) ASSERT_EQ(osSaveDbase2Column(h, c.name.c_str(), c.width, c.type), 1);
  ASSERT_EQ(osSaveDbase2End(h), 1);
  std::string got = read_file(path("W.DBF"));
  const int widths[] = {255, 255, 16, 16, 10, 8, 7};
  const char types[] = {'C', 'C', 'N', 'N', 'C', 'C', 'C'};
  int total = 0;
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(static_cast<uint8_t>(got[8 + 16 * i + 12]), widths[i]) << i;
    EXPECT_EQ(got[8 + 16 * i + 11], types[i]) << i;
    total += widths[i];
  }
  EXPECT_EQ(static_cast<uint8_t>(got[6]) | static_cast<uint8_t>(got[7]) << 8, total + 1);
}

TEST_F(DbaseExport, Dbase2RefusesCountsAndFailsWhenWidthsPass1000) {
  EXPECT_EQ(osSaveDbase2Begin(heap_, 0, path("A.DBF").c_str(), 65536, 1, 0), nullptr);
  EXPECT_EQ(osSaveDbase2Begin(heap_, 0, path("B.DBF").c_str(), 1, 33, 0), nullptr);
  EXPECT_FALSE(std::filesystem::exists(path("A.DBF")));
  EXPECT_FALSE(std::filesystem::exists(path("B.DBF")));
  ExportState* h = osSaveDbase2Begin(heap_, 0, path("C.DBF").c_str(), 65535, 5, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(osSaveDbase2Column(h, "A", 255, 1), 1);
  EXPECT_EQ(osSaveDbase2Column(h, "B", 255, 1), 1);
  EXPECT_EQ(osSaveDbase2Column(h, "C", 255, 1), 1);
  EXPECT_EQ(osSaveDbase2Column(h, "D", 235, 1), 1);  // exactly 1000
  EXPECT_EQ(osSaveDbase2Column(h, "E", 1, 1), 0);    // 1001
  EXPECT_EQ(osSaveDbase2Item(h, "x"), 0);            // the header is incomplete
  EXPECT_EQ(osSaveDbase2End(h), 1);
  std::string got = read_file(path("C.DBF"));
  EXPECT_EQ(got.size(), 7u);  // header never completed, then the end byte
  EXPECT_EQ(got.substr(1, 2), u16(65535));
}

TEST_F(DbaseExport, Dbase3HeaderDescriptorsAndRecords) {
  std::vector<Col> cols{{"Customer_Name_Long", 6, 1}, {"amount", 4, 6}, {"day", 0, 4},
                        {"stamp", 0, 3},              {"at", 0, 5}};
  std::string got = run(kDbase3, cols,
                        {{std::string("Zoë's shop"), Dec{"-3.5"},
                          dt(1998, 7, 4), dt(2001, 12, 31, 23, 59, 58, 5),
                          dt(1900, 1, 1, 9, 8, 7, 120000)},
                         {Cell{}, Cell{}, Cell{}, Cell{}, Cell{}}},
                        OSSAVE_HEADINGS, "T.DBF", 7);
  const Today t = today();
  const int reclen = 6 + 16 + 8 + 8 + 8 + 1;
  std::string head = std::string("\x03") + static_cast<char>(t.year & 0xFF) +
                     static_cast<char>(t.month) + static_cast<char>(t.day) + u32(7) +
                     u16(32 * 5 + 33) + u16(reclen) + zeros(20) +
                     db3_desc("CUSTOMER_N", 'C', 6) + db3_desc("AMOUNT", 'N', 16) +
                     db3_desc("DAY", 'D', 8) + db3_desc("STAMP", 'D', 8) + db3_desc("AT", 'C', 8) +
                     "\x0D";
  ASSERT_EQ(head.size(), 32u * 5 + 33);
  std::string rec1 = std::string(" ") + "Zo\xC3\xAB's" + std::string(12, ' ') + "-3.5" +
                     "19980704" + "20011231" + "09:08:07";
  // "Zoë's shop" is UTF-8 here: the first six bytes are Z o 0xC3 0xAB ' s
  std::string rec2 = " " + std::string(6, ' ') + std::string(13, ' ') + "0.0" +
                     std::string(24, ' ');
  EXPECT_BYTES(head + rec1 + rec2 + "\x1A", got);
}

TEST_F(DbaseExport, Dbase3TwoColumnsHeaderLength97AndLimits) {
  std::string got = run(kDbase3, {{"A", 1, 1}, {"B", 2, 1}}, {}, 0);
  EXPECT_EQ(static_cast<uint8_t>(got[8]) | static_cast<uint8_t>(got[9]) << 8, 97);
  EXPECT_EQ(got.size(), 97u + 1);
  EXPECT_EQ(got[96], '\x0D');
  EXPECT_EQ(osSaveDbase3Begin(heap_, 0, path("X.DBF").c_str(), 1000000001, 1, 0), nullptr);
  EXPECT_EQ(osSaveDbase3Begin(heap_, 0, path("X.DBF").c_str(), 1, 129, 0), nullptr);
  ExportState* h = osSaveDbase3Begin(heap_, 0, path("Y.DBF").c_str(), 1000000000, 128, 0);
  ASSERT_NE(h, nullptr);
  int ok = 0;
  for (int i = 0; i < 16; ++i) ok += osSaveDbase3Column(h, "S", 255, 1);
  EXPECT_EQ(ok, 15);  // the 16th takes the total to 4080
  EXPECT_EQ(osSaveDbase3End(h), 1);
  // a refused width is not counted: a narrower column may take its place
  h = osSaveDbase3Begin(heap_, 0, path("Z.DBF").c_str(), 1, 16, 0);
  ASSERT_NE(h, nullptr);
  for (int i = 0; i < 15; ++i) ASSERT_EQ(osSaveDbase3Column(h, "S", 255, 1), 1);  // 3825
  EXPECT_EQ(osSaveDbase3Column(h, "T", 176, 1), 0);                             // 4001
  EXPECT_EQ(osSaveDbase3Column(h, "T", 175, 1), 1);                             // 4000
  EXPECT_EQ(osSaveDbase3End(h), 1);
  got = read_file(path("Z.DBF"));
  EXPECT_EQ(static_cast<uint8_t>(got[10]) | static_cast<uint8_t>(got[11]) << 8, 4001);
}

}  // namespace
}  // namespace xt
