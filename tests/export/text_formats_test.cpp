// Exact bytes of the text formats: CSV, tab-separated text, the clipboard,
// SQL, DIF and SYLK.
#include <algorithm>
#include <cstdlib>

#include "export_util.h"

namespace xt {
namespace {

// How the display formats render the sample values with the default regional
// settings ("[GENERAL]", "[SHORTDATE]", "[TIME]").
const std::string kDay1 = "7/4/1998";
const std::string kDay3 = "1/2/2001";
const std::string kTime1 = "12:30:45";
const std::string kTime2 = "23:59:59";
const std::string kTime3 = "00:00:01";

// The sample result set: every type, nulls of every type, fractions of a
// second with trailing zeros to strip, and none at all.
const std::vector<Col> kCols{{"NAME", 20, 1}, {"QTY", 10, 2}, {"PRICE", 8, 6},
                             {"DAY", 10, 4},  {"AT", 8, 5},   {"STAMP", 19, 3}};
std::vector<std::vector<Cell>> sample_rows() {
  return {
      {std::string("plain"), 1.0, Dec{"12.5"}, dt(1998, 7, 4), dt(1900, 1, 1, 12, 30, 45),
       dt(1998, 7, 4, 12, 30, 45, 120000)},
      {std::string("a,b \"q\""), -2.5, Cell{}, Cell{}, dt(1900, 1, 1, 23, 59, 59, 500000),
       Cell{}},
      {Cell{}, Cell{}, Dec{"-0.75"}, dt(2001, 1, 2), Cell{}, dt(2001, 1, 2, 0, 0, 1)},
  };
}
// Rendered texts of the sample's date and time cells.
const std::string kAt2 = kTime2 + ":5";
const std::string kStamp1 = kDay1 + " " + kTime1 + ":12";
const std::string kStamp3 = kDay3 + " " + kTime3;

// One string column with every character the quoting rules care about.
const std::vector<Col> kStrCol{{"S", 30, 1}};
const std::vector<std::vector<Cell>> kStrRows{
    {std::string("say \"hi\"")}, {std::string("\"lead")},     {std::string("tab\there")},
    {std::string("two\r\nlines")}, {std::string("O'Hara; Jr")}, {std::string("a,b")},
    {std::string("")},           {Cell{}}};

using CsvExport = ExportTest;

TEST_F(CsvExport, SampleWithHeadings) {
  std::string want = "NAME,QTY,PRICE,DAY,AT,STAMP\r\n"
                     "plain,1,12.5," + kDay1 + "," + kTime1 + "," + kStamp1 + "\r\n"
                     "\"a,b \"\"q\"\"\",-2.5,,," + kAt2 + ",\r\n"
                     ",,-0.75," + kDay3 + ",," + kStamp3 + "\r\n";
  EXPECT_BYTES(want, run(kCsv, kCols, sample_rows(), OSSAVE_HEADINGS));
}

TEST_F(CsvExport, OnlyACommaCausesQuoting) {
  std::string want = "say \"hi\"\r\n\"lead\r\ntab\there\r\ntwo\r\nlines\r\nO'Hara; Jr\r\n"
                     "\"a,b\"\r\n\r\n\r\n";
  EXPECT_BYTES(want, run(kCsv, kStrCol, kStrRows, 0));
}

TEST_F(CsvExport, UnknownTypeWritesOnlySeparatorsAndHeadingsAreNeverQuoted) {
  std::string want = "a,b,X\r\n,1\r\n";
  EXPECT_BYTES(want, run(kCsv, {{"a,b", 1, 77}, {"X", 1, 2}}, {{std::string("gone"), 1.0}},
                         OSSAVE_HEADINGS));
}

TEST_F(CsvExport, LargeExportCrossesManyBufferBoundariesIntact) {
  // rows of every length from 0 to 600 bytes, some quoted, over ~20 buffers
  std::vector<std::vector<Cell>> rows;
  std::string want;
  for (int i = 0; i < 1200; ++i) {
    std::string s(static_cast<size_t>(i * 37 % 601), static_cast<char>('a' + i % 26));
    if (i % 7 == 0 && !s.empty()) s[s.size() / 2] = ',';
    const double v = i * 0.5;
    rows.push_back({s, v, Cell{}});
    want += (s.find(',') != std::string::npos ? "\"" + s + "\"" : s) + "," +
            std::to_string(i / 2) + (i % 2 ? ".5" : "") + ",\r\n";
  }
  std::string got = run(kCsv, {{"S", 600, 1}, {"N", 8, 2}, {"X", 1, 1}}, rows, 0);
  ASSERT_GT(got.size(), 16284u * 10);
  EXPECT_TRUE(got == want) << "first difference at byte "
                           << std::mismatch(got.begin(), got.end(), want.begin(), want.end())
                                      .first - got.begin();
}

using TextExport = ExportTest;

TEST_F(TextExport, SampleWithHeadings) {
  std::string want = "NAME\tQTY\tPRICE\tDAY\tAT\tSTAMP\r\n"
                     "plain\t1\t12.5\t" + kDay1 + "\t" + kTime1 + "\t" + kStamp1 + "\r\n"
                     "\"a,b \"\"q\"\"\"\t-2.5\t\t\t" + kAt2 + "\t\r\n"
                     "\t\t-0.75\t" + kDay3 + "\t\t" + kStamp3 + "\r\n";
  EXPECT_BYTES(want, run(kText, kCols, sample_rows(), OSSAVE_HEADINGS));
}

TEST_F(TextExport, QuotesOnTabLineBreakOrDoubleQuote) {
  std::string want = "\"say \"\"hi\"\"\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n"
                     "\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n";
  EXPECT_BYTES(want, run(kText, kStrCol, kStrRows, 0));
}

using ClipExport = ExportTest;

TEST_F(ClipExport, QuotesOnTabOrLineBreakOrLeadingQuoteOnly) {
  std::string want = "say \"hi\"\r\n\"\"\"lead\"\r\n\"tab\there\"\r\n"
                     "\"two\r\nlines\"\r\nO'Hara; Jr\r\na,b\r\n\r\n\r\n";
  EXPECT_BYTES(want, run(kClip, kStrCol, kStrRows, 0));
}

TEST_F(ClipExport, SampleWithHeadingsAndLargeTextGrowsTheBuffer) {
  std::string want = "NAME\tQTY\tPRICE\tDAY\tAT\tSTAMP\r\n"
                     "plain\t1\t12.5\t" + kDay1 + "\t" + kTime1 + "\t" + kStamp1 + "\r\n"
                     "a,b \"q\"\t-2.5\t\t\t" + kAt2 + "\t\r\n"
                     "\t\t-0.75\t" + kDay3 + "\t\t" + kStamp3 + "\r\n";
  EXPECT_BYTES(want, run(kClip, kCols, sample_rows(), OSSAVE_HEADINGS));
  std::vector<std::vector<Cell>> rows;
  std::string big;
  for (int i = 0; i < 3000; ++i) {
    std::string s(i % 97, static_cast<char>('a' + i % 26));
    rows.push_back({s});
    big += s + "\r\n";
  }
  EXPECT_EQ(big, run(kClip, kStrCol, rows, 0));
}

TEST_F(ClipExport, EmptyExportEmptiesTheClipboard) {
  run(kClip, kStrCol, {{std::string("something")}}, 0);
  ASSERT_EQ(clipboard(), "something\r\n");
  EXPECT_EQ(run(kClip, kStrCol, {}, 0), "");
}

using SqlExport = ExportTest;

TEST_F(SqlExport, TwoColumnExample) {
  std::string want = "CREATE TABLE ORDERS (\r\n\tID float,\r\n\tNAME char(20));\r\n"
                     "INSERT INTO ORDERS VALUES (\r\n\t1,\r\n\t'O''Hara');\r\n";
  EXPECT_BYTES(want, run(kSql, {{"ID", 8, 2}, {"NAME", 20, 1}}, {{1.0, std::string("O'Hara")}},
                         OSSAVE_HEADINGS, "ORDERS.TXT"));
}

TEST_F(SqlExport, EveryTypeNullsAndCallerFormattedDates) {
  std::vector<Col> cols{{"S", 5, 1},   {"N", 0, 2},  {"D", 2, 6},   {"DT", 0, 3},
                        {"DA", 0, 4}, {"TI", 0, 5}, {"ODD", 3, 0}};
  std::vector<std::vector<Cell>> rows{
      {std::string("it's ''x''"), -2.5, Dec{"3.25"}, std::string("1998-07-04 12:30:45"),
       std::string("1998-07-04"), std::string("12:30:45"), std::string("dropped")},
      {Cell{}, Cell{}, Cell{}, Cell{}, Cell{}, Cell{}, Cell{}}};
  std::string want =
      "CREATE TABLE t (\r\n\tS char(5),\r\n\tN float,\r\n\tD decimal(16, 2),\r\n\tDT datetime,"
      "\r\n\tDA date,\r\n\tTI time,);\r\n"
      "INSERT INTO t VALUES (\r\n\t'it''s ''''x''''',\r\n\t-2.5,\r\n\t3.25,\r\n\t"
      "1998-07-04 12:30:45,\r\n\t1998-07-04,\r\n\t12:30:45,\r\n\t);\r\n"
      "INSERT INTO t VALUES (\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,\r\n\tNULL,"
      "\r\n\tNULL);\r\n";
  EXPECT_BYTES(want, run(kSql, cols, rows, 0, "t.sql"));
}

TEST_F(SqlExport, ZeroRowsAndStringQuoting) {
  EXPECT_BYTES("CREATE TABLE x (\r\n\tS char(30));\r\n", run(kSql, kStrCol, {}, 0, "x"));
  std::string want = "CREATE TABLE q (\r\n\tS char(30));";
  const char* lits[] = {"'say \"hi\"'", "'\"lead'", "'tab\there'", "'two\r\nlines'",
                        "'O''Hara; Jr'", "'a,b'", "''", "NULL"};
  for (const char* l : lits) want += std::string("\r\nINSERT INTO q VALUES (\r\n\t") + l + ");";
  EXPECT_BYTES(want + "\r\n", run(kSql, kStrCol, kStrRows, 0, "q.sql"));
}

using DifExport = ExportTest;

TEST_F(DifExport, SampleCarriesFullFileNameLabelsAndTypedValues) {
  const std::string file = path("SAMPLE.DIF");
  std::string want = "TABLE\r\n0,1\r\n\"" + file + "\"\r\nVECTORS\r\n0,6\r\n\"\"\r\n"
                     "TUPLES\r\n0,3\r\n\"\"\r\n";
  for (int i = 0; i < 6; ++i)
    want += "LABEL\r\n" + std::to_string(i + 1) + ",1\r\n\"" + kCols[i].name + "\"\r\n";
  want += "DATA\r\n0,0\r\n\"\"\r\n";
  want += "-1,0\r\nBOT\r\n1,0\r\n\"plain\"\r\n0,1\r\nV\r\n0,12.5\r\nV\r\n1,0\r\n\"" + kDay1 +
          "\"\r\n1,0\r\n\"" + kTime1 + "\"\r\n1,0\r\n\"" + kStamp1 + "\"\r\n";
  want += "-1,0\r\nBOT\r\n1,0\r\n\"a,b \"\"q\"\"\"\r\n0,-2.5\r\nV\r\n0,0.0\r\nV\r\n1,0\r\n\"\"\r\n"
          "1,0\r\n\"" + kAt2 + "\"\r\n1,0\r\n\"\"\r\n";
  want += "-1,0\r\nBOT\r\n1,0\r\n\"\"\r\n0,0\r\nV\r\n0,-0.75\r\nV\r\n1,0\r\n\"" + kDay3 +
          "\"\r\n1,0\r\n\"\"\r\n1,0\r\n\"" + kStamp3 + "\"\r\n";
  want += "-1,0\r\nEOD\r\n";
  // the labels are written whatever the options
  EXPECT_BYTES(want, run(kDif, kCols, sample_rows(), 0, "SAMPLE.DIF"));
}

TEST_F(DifExport, ZeroRowsAndUnknownTypeKeepsRowStart) {
  const std::string file = path("Z.DIF");
  std::string head = "TABLE\r\n0,1\r\n\"" + file + "\"\r\nVECTORS\r\n0,2\r\n\"\"\r\nTUPLES\r\n0,0"
                     "\r\n\"\"\r\nLABEL\r\n1,1\r\n\"U\"\r\nLABEL\r\n2,1\r\n\"N\"\r\nDATA\r\n0,0\r\n"
                     "\"\"\r\n";
  EXPECT_BYTES(head + "-1,0\r\nEOD\r\n", run(kDif, {{"U", 1, 0}, {"N", 1, 2}}, {}, 0, "Z.DIF"));
  EXPECT_BYTES(head + "-1,0\r\nBOT\r\n0,7\r\nV\r\n-1,0\r\nEOD\r\n",
               run(kDif, {{"U", 1, 0}, {"N", 1, 2}}, {{std::string("x"), 7.0}}, 0, "Z.DIF", 0));
}

using SylkExport = ExportTest;

TEST_F(SylkExport, SampleWithHeadingsStartsDataInRowTwo) {
  std::string want = "ID;PZB\r\nB;Y3;X6\r\n"
                     "C;Y1;X1;K\"NAME\"\r\nC;X2;K\"QTY\"\r\nC;X3;K\"PRICE\"\r\nC;X4;K\"DAY\"\r\n"
                     "C;X5;K\"AT\"\r\nC;X6;K\"STAMP\"\r\n"
                     "C;Y2;X1;K\"plain\"\r\nC;X2;K1\r\nC;X3;K12.5\r\nC;X4;K\"" + kDay1 +
                     "\"\r\nC;X5;K\"" + kTime1 + "\"\r\nC;X6;K\"" + kStamp1 + "\"\r\n"
                     "C;Y3;X1;K\"a,b \"\"q\"\"\"\r\nC;X2;K-2.5\r\nC;X3;K0.0\r\nC;X4;K\"\"\r\n"
                     "C;X5;K\"" + kAt2 + "\"\r\nC;X6;K\"\"\r\n"
                     "C;Y4;X1;K\"\"\r\nC;X2;K0\r\nC;X3;K-0.75\r\nC;X4;K\"" + kDay3 +
                     "\"\r\nC;X5;K\"\"\r\nC;X6;K\"" + kStamp3 + "\"\r\nE\r\n";
  EXPECT_BYTES(want, run(kSylk, kCols, sample_rows(), OSSAVE_HEADINGS));
}

TEST_F(SylkExport, WithoutHeadingsDataStartsInRowOneAndUnknownTypesWriteNoRecord) {
  std::string want = "ID;PZB\r\nB;Y2;X3\r\nC;Y1;X1;K\"semi;colon\"\r\nC;X3;K5\r\n"
                     "C;Y2;X1;K\"\"\r\nC;X3;K6\r\nE\r\n";
  EXPECT_BYTES(want, run(kSylk, {{"S", 1, 1}, {"U", 1, 9}, {"N", 1, 2}},
                         {{std::string("semi;colon"), std::string("x"), 5.0},
                          {Cell{}, std::string("y"), 6.0}},
                         0));
}

TEST_F(SylkExport, ZeroRowsWithHeadingsStillWritesHeaderAndTrailer) {
  EXPECT_BYTES("ID;PZB\r\nB;Y0;X2\r\nC;Y1;X1;K\"A\"\r\nC;X2;K\"B\"\r\nE\r\n",
               run(kSylk, {{"A", 1, 1}, {"B", 1, 2}}, {}, OSSAVE_HEADINGS));
}

}  // namespace
}  // namespace xt
