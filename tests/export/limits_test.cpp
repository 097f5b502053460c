// Values at the edges of what a format can carry: numbers whose text is
// longer than the buffer they are rendered into, texts longer than a record
// can hold, and rows and columns that a 16-bit field cannot name.
#include <cfloat>

#include "../format/regional.h"
#include "export_util.h"

namespace xt {
namespace {

// How a one-column export with no headings carries the text of a number.
std::string wrapped(const Format& f, const std::string& text) {
  if (f.item == osSaveDifItem) return "\r\n0," + text + "\r\nV\r\n";
  if (f.item == osSaveSqlItem) return "\r\n\t" + text + ");";
  if (f.item == osSaveSylkItem) return ";K" + text + "\r\n";
  if (f.item == osSaveDbase3Item || f.item == osSaveDbase2Item)
    return " " + std::string(16 - text.size(), ' ') + text + "\x1A";  // right-aligned, width 16
  return text + "\r\n";
}

struct Fit {
  const Format* format;
  Cell value;
  const char* text;  // what a narrow cell shows: the general form with fewer digits
};

// The expected texts come from Python's "%.<k>G" (doubles) and decimal
// module (decimals, rounded half away from zero) with the largest k that fits:
// 15 characters for DIF, 16 for a dBase field, 29 for the other formats.
const Fit kFits[] = {
    {&kDif, 1.0 / 3, "0.3333333333333"},
    {&kDif, -3.141592653589793, "-3.14159265359"},
    {&kDif, 9007199254740992.0, "9.007199255E+15"},
    {&kDif, DBL_MAX, "1.79769313E+308"},
    {&kDif, 5e-324, "4.94065646E-324"},
    {&kDif, -123456789012345.0, "-1.23456789E+14"},
    {&kDif, 123456789012345.0, "123456789012345"},  // fits: unchanged
    {&kDif, Dec{"-0.0000000000000000000000012345"}, "-1.2345E-24"},
    {&kDif, Dec{"123456789012345678901234"}, "1.23456789E+23"},
    {&kDif, Dec{"-1234.5678901234"}, "-1234.567890123"},
    {&kDif, Dec{"0.9999999999999999999"}, "1"},
    {&kDif, Dec{"-99999999999999.95"}, "-1E+14"},
    {&kDbase3, 1.0 / 3, "0.33333333333333"},
    {&kDbase3, -3.141592653589793, "-3.1415926535898"},
    {&kDbase2, 2.0 / 3, "0.66666666666667"},
    {&kDbase3, DBL_MAX, "1.79769313E+308"},  // 1.797693135E+308 would read as infinity
    {&kDbase3, Dec{"-99999999999999.95"}, "-100000000000000"},
    {&kDbase3, Dec{"123456789012345678901234"}, "1.2345678901E+23"},
    {&kCsv, Dec{"-0.0000000000000000000000012345"}, "-0.00000000000000000000000123"},
    {&kSql, Dec{"-0.0000000000000000000000000001"}, "-1E-28"},
    {&kSylk, Dec{"-0.0000000000000000000000012345"}, "-0.00000000000000000000000123"},
    {&kSql, 3.141592653589793, "3.14159265358979"},
};

using ExportNumberFit = ExportTest;

TEST_F(ExportNumberFit, NumbersTooLongForTheBufferLoseDigitsNotTheValue) {
  for (const Fit& c : kFits) {
    const int32_t type = std::holds_alternative<Dec>(c.value) ? OSSAVE_DECIMAL : OSSAVE_NUMBER;
    const std::string got = run(*c.format, {{"N", 10, type}}, {{c.value}}, 0, "fit.dat");
    SCOPED_TRACE(std::string(c.format->name) + " " + c.text);
    EXPECT_NE(got.find(wrapped(*c.format, c.text)), std::string::npos) << visible(got);
    EXPECT_EQ(got.find('#'), std::string::npos);
  }
}

class ExportRegional : public Regional {};

TEST_F(ExportRegional, ShortenedNumbersKeepTheRegionalDecimalSeparator) {
  use("sDecimal=,\n");
  ZBSTG_HEAP heap = zbstg_begin(0);
  const std::string file = dir_ + "/sep.dif";
  ExportState* h = osSaveDifBegin(heap, 0, file.c_str(), 2, 2, 0);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(osSaveDifColumn(h, "N", 10, OSSAVE_NUMBER), 1);
  ASSERT_EQ(osSaveDifColumn(h, "D", 10, OSSAVE_DECIMAL), 1);
  const double third = 1.0 / 3;
  SHDEC d;
  ASSERT_NE(ConvAsciiToDecimal(&d, "-0.0000000000000000000000012345"), nullptr);
  EXPECT_EQ(osSaveDifItem(h, &third), 1);
  EXPECT_EQ(osSaveDifItem(h, &d), 1);
  EXPECT_EQ(osSaveDifEnd(h), 1);
  zbstg_end(heap);
  const std::string got = read_file(file);
  EXPECT_NE(got.find("0,0,3333333333333\r\n"), std::string::npos) << visible(got);
  EXPECT_NE(got.find("0,-1,2345E-24\r\n"), std::string::npos) << visible(got);
}

// The fraction of a second is set off with the regional time separator, not
// with a decimal point.
TEST_F(ExportRegional, FractionSuffixUsesTheTimeSeparator) {
  use("sTime=.\n");
  ZBSTG_HEAP heap = zbstg_begin(0);
  const std::string file = dir_ + "/t.csv";
  ExportState* h = osSaveCsvBegin(heap, 0, file.c_str(), 2, 1, 0);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(osSaveCsvColumn(h, "T", 8, OSSAVE_TIME), 1);
  const SHDATETIME a = dt(1900, 1, 1, 12, 30, 45, 1), b = dt(1900, 1, 1, 12, 30, 45, 999999);
  EXPECT_EQ(osSaveCsvItem(h, &a), 1);
  EXPECT_EQ(osSaveCsvItem(h, &b), 1);
  EXPECT_EQ(osSaveCsvEnd(h), 1);
  zbstg_end(heap);
  EXPECT_BYTES("12.30.45.000001\r\n12.30.45.999999\r\n", read_file(file));
}

// ---------------------------------------------------------------- 16-bit fields

using ExportSixteenBits = ExportTest;

uint32_t at16(const std::string& s, size_t at) {
  return static_cast<uint8_t>(s[at]) | static_cast<uint32_t>(static_cast<uint8_t>(s[at + 1])) << 8;
}

TEST_F(ExportSixteenBits, TextsAreCutToWhatTheLengthFieldCarries) {
  const std::string big(70000, 'z');
  // BIFF: LABEL length 8 + text; the next record must follow intact.
  std::string got = run(kExcel, {{"S", 10, 1}}, {{big}, {std::string("after")}}, 0, "big.xls");
  ASSERT_GE(got.size(), 20u + 4 + 65535);
  EXPECT_EQ(at16(got, 22), 65535u);
  EXPECT_EQ(static_cast<uint8_t>(got[31]), 65527u & 0xFF);
  const std::string after = got.substr(20 + 4 + 65535);
  EXPECT_BYTES(u16(4) + u16(13) + u16(1) + u16(0) + zeros(3) + "\x05" "after" + u16(0x0A) + u16(0),
               after);
  // WKS: headings are not cut to 239, but to the 65,528 bytes a LABEL carries.
  got = run(kWk, {{big, 10, 1}}, {{std::string("x")}}, OSSAVE_HEADINGS, "big.wks");
  EXPECT_EQ(at16(got, 18 + 2), 65535u);
  EXPECT_EQ(got.substr(18 + 4 + 6, 65529), std::string(65528, 'z') + '\0');
  EXPECT_EQ(at16(got, 18 + 4 + 65535 + 2), 7u + 1);  // the item's record follows
}

TEST_F(ExportSixteenBits, RowsPastTheLastNameableRowAreRefusedNotWrapped) {
  for (const Format* f : {&kExcel, &kWk}) {
    SCOPED_TRACE(f->name);
    const std::string file = path(std::string("rows.") + f->name);
    ExportState* h = f->begin(heap_, 0, file.c_str(), 70000, 1, OSSAVE_HEADINGS);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(f->column(h, "N", 8, OSSAVE_NUMBER), 1);
    int32_t ok = 0;
    for (int i = 1; i <= 65537; ++i) {
      const double v = i;
      ok += f->item(h, &v);
    }
    EXPECT_EQ(ok, 65535);  // data rows 1 to 65,535; the heading holds row 0
    EXPECT_EQ(f->end(h), 1);
    const std::string got = read_file(file);
    const bool xl = f == &kExcel;
    EXPECT_EQ(at16(got, xl ? 14 : 16), 65535u);  // the row count is held, not wrapped
    const size_t header = xl ? 20 : 18, heading = xl ? 4 + 8 + 1 : 4 + 7 + 1;
    const size_t cell = xl ? 19 : 17;
    EXPECT_EQ(got.size(), header + heading + 65535 * cell + 4);
    // the last record before the end is row 65,535 with the value 65,535
    const std::string last = got.substr(got.size() - 4 - cell, cell);
    EXPECT_BYTES(xl ? u16(3) + u16(15) + u16(65535) + u16(0) + zeros(3) + f64(65535)
                    : u16(0x0E) + u16(13) + "\x71" + u16(0) + u16(65535) + f64(65535),
                 last);
  }
}

TEST_F(ExportSixteenBits, ColumnsPastTheLastNameableColumnAreRefused) {
  const int32_t cols = 65537;
  for (const Format* f : {&kExcel, &kWk}) {
    SCOPED_TRACE(f->name);
    ExportState* h = f->begin(heap_, 0, path("cols.dat").c_str(), 1, cols, OSSAVE_HEADINGS);
    ASSERT_NE(h, nullptr);
    int32_t ok = 0;
    for (int32_t i = 0; i < cols; ++i) ok += f->column(h, "", 1, OSSAVE_NUMBER);
    EXPECT_EQ(ok, cols - 1);  // the heading of column 65,536 has no column number
    const double v = 1;
    ok = 0;
    for (int32_t i = 0; i < cols; ++i) ok += f->item(h, &v);
    EXPECT_EQ(ok, cols - 1);
    EXPECT_EQ(f->item(h, &v), 1);  // the next row starts again at column 0
    EXPECT_EQ(f->end(h), 1);
    const std::string got = read_file(path("cols.dat"));
    const bool xl = f == &kExcel;
    EXPECT_EQ(at16(got, xl ? 18 : 14), 65535u);  // the column count is held
  }
}

TEST_F(ExportSixteenBits, NegativeRowCountsAreRefusedByTheBinaryFormats) {
  for (const Format* f : {&kExcel, &kWk, &kDbase2, &kDbase3}) {
    EXPECT_EQ(f->begin(heap_, 0, path("neg.dat").c_str(), -1, 1, 0), nullptr) << f->name;
  }
  EXPECT_FALSE(std::filesystem::exists(path("neg.dat")));
}

}  // namespace
}  // namespace xt
