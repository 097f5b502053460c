// Exact bytes of every format for one sample result set and for the strings the quoting rules care about.
#include <algorithm>
#include <ctime>

#include "export_util.h"

namespace xt {
namespace {

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

std::string dif_sample(const std::string& file) {
  std::string w = "TABLE\r\n0,1\r\n\"" + file + "\"\r\nVECTORS\r\n0,6\r\n\"\"\r\nTUPLES\r\n0,3\r\n\"\"\r\n";
  for (int i = 0; i < 6; ++i) w += "LABEL\r\n" + std::to_string(i + 1) + ",1\r\n\"" + kCols[i].name + "\"\r\n";
  return w + "DATA\r\n0,0\r\n\"\"\r\n"
         "-1,0\r\nBOT\r\n1,0\r\n\"plain\"\r\n0,1\r\nV\r\n0,12.5\r\nV\r\n1,0\r\n\"" + kD1 + "\"\r\n1,0\r\n\"" +
         kT1 + "\"\r\n1,0\r\n\"" + kS1 + "\"\r\n"
         "-1,0\r\nBOT\r\n1,0\r\n\"a,b \"\"q\"\"\"\r\n0,-2.5\r\nV\r\n0,0.0\r\nV\r\n1,0\r\n\"\"\r\n1,0\r\n\"" +
         kAt2 + "\"\r\n1,0\r\n\"\"\r\n"
         "-1,0\r\nBOT\r\n1,0\r\n\"\"\r\n0,0\r\nV\r\n0,-0.75\r\nV\r\n1,0\r\n\"" + kD3 + "\"\r\n1,0\r\n\"\"\r\n1,0\r\n\"" +
         kS3 + "\"\r\n-1,0\r\nEOD\r\n";
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
      {&kDif, 0, dif_sample(path("OUT.DAT"))},  // the labels are written whatever the options
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, run(*c.f, kCols, kRows, c.options)) << c.f->name;
}

TEST_F(ExportBytes, QuotingOfStrings) {
  const Rows strs{{std::string("say \"hi\"")}, {std::string("\"lead")},  {std::string("tab\there")},
                  {std::string("two\r\nlines")}, {std::string("O'Hara; Jr")}, {std::string("a,b")},
                  {std::string("")}, {Cell{}}};
  const struct {
    const Format* f;
    std::string want;
  } cases[] = {
      {&kCsv, "say \"hi\"\r\n\"lead\r\ntab\there\r\ntwo\r\nlines\r\nO'Hara; Jr\r\n\"a,b\"\r\n\r\n\r\n"},
      {&kText, "\"say \"\"hi\"\"\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n"},
      {&kClip, "say \"hi\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, run(*c.f, {{"S", 30, 1}}, strs, 0)) << c.f->name;
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

TEST_F(ExportBytes, RecordsTypesNullsAndEmptyTables) {
  const std::vector<Col> cols{{"NAME", 10, 1}, {"QTY", 5, 2}, {"PRICE", 8, 6}, {"ODD", 3, 9}};
  const Rows rows{{std::string("Widget, \"big\""), 2.5, Dec{"-12.25"}, std::string("x")},
                  {Cell{}, Cell{}, Cell{}, Cell{}},  // nulls leave every cell out
                  {std::string(""), -0.0, Dec{"0.1"}, 1.0}};
  const std::string head(300, 'H');
  const std::string dif_head = "TABLE\r\n0,1\r\n\"" + path("OUT.DAT") + "\"\r\nVECTORS\r\n0,2\r\n\"\"\r\nTUPLES\r\n0,0"
                               "\r\n\"\"\r\nLABEL\r\n1,1\r\n\"U\"\r\nLABEL\r\n2,1\r\n\"N\"\r\nDATA\r\n0,0\r\n\"\"\r\n";
  const std::vector<Col> un{{"U", 1, 0}, {"N", 1, 2}};
  const struct {
    const char* what;
    const Format* f;
    std::vector<Col> cols;
    Rows rows;
    uint32_t options;
    int32_t declared;
    std::string want;
  } cases[] = {
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
  // 32 columns: the last descriptor is followed by a single terminator.
  std::vector<Col> c32;
  for (int i = 0; i < 32; ++i) c32.push_back({"C" + std::to_string(i), 1, 1});
  got = run(kDbase2, c32, {}, 0);
  ASSERT_EQ(got.size(), 522u);
  EXPECT_TRUE(got[6] == 33 && got.substr(8 + 31 * 16, 16) == db2_desc("C31", 'C', 1) && got.substr(520) == "\x0D\x1A");
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

}  // namespace
}  // namespace xt
