// Display formats: compiled masks applied to numbers, decimals, dates and
// strings, under the default and other regional settings.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "regional.h"
#include "zbshr/decimal.h"
#include "zbshr/format.h"
#include "zbshr/system.h"

namespace {

struct Result {
  int32_t code;
  std::string text;
};

Result num(const char* mask, const double* v, int32_t size = 300) {
  unsigned char c[SHFORMAT_BUFSIZE];
  int32_t e = shformatCmplNumericMask(c, mask, sizeof c);
  if (e != 0) return {100 + e, {}};
  std::string out(static_cast<size_t>(size) + 8, '\x7F');
  e = shformatDouble(out.data(), size, c, v);
  // Nothing is written past the size given.
  for (size_t i = static_cast<size_t>(size); i < out.size(); ++i) EXPECT_EQ(out[i], '\x7F');
  return {e, out.c_str()};
}
std::string num(const char* mask, double v) { return num(mask, &v).text; }

std::string dec(const char* mask, const char* value) {
  SHDEC d;
  EXPECT_NE(ConvAsciiToDecimal(&d, value), nullptr) << value;
  unsigned char c[SHFORMAT_BUFSIZE];
  EXPECT_EQ(shformatCmplNumericMask(c, mask, sizeof c), 0) << mask;
  char out[100];
  EXPECT_EQ(shformatDecimal(out, sizeof out, c, &d), 0);
  return out;
}

Result date(const char* mask, const SHDATETIME* v, int32_t size = 300) {
  unsigned char c[SHFORMAT_BUFSIZE];
  int32_t e = shformatCmplDateTimeMask(c, mask, sizeof c);
  if (e != 0) return {100 + e, {}};
  std::string out(static_cast<size_t>(size) + 1, '\0');
  e = shformatDateTime(out.data(), size, c, v);
  return {e, out.c_str()};
}

std::string str(const char* mask, const char* v) {
  unsigned char c[SHFORMAT_BUFSIZE];
  EXPECT_EQ(shformatCmplStringMask(c, mask, sizeof c), 0) << mask;
  char out[200];
  EXPECT_EQ(shformatString(out, sizeof out, c, v), 0);
  return out;
}

SHDATETIME sample() {  // Thursday 2 January 2003, 14:05:09.123456
  SHDATETIME d{};
  shdtBuildTime(&d, 2003, 1, 2, 14, 5, 9, 123456);
  return d;
}

using FormatDisplay = Regional;

// Random doubles through "[GENERAL]" and "#,##0.00" are compared with Python
// at the end of this file; these are the cases it does not draw.
TEST_F(FormatDisplay, GeneralNumbers) {
  EXPECT_EQ(num("[GENERAL]", 0.0), "0");
  EXPECT_EQ(num("[GENERAL]", -0.0), "0");
  EXPECT_EQ(num("", 42.25), "42.25");  // an empty mask is the general form
  EXPECT_EQ(num("[general] kg", 3.0), "3 kg");
}

// Masks spreadsheets share are also compared with LibreOffice
// (FormatDifferential); these rows are the library's own rules and codes.
TEST_F(FormatDisplay, NumericMasks) {
  EXPECT_EQ(num("#,##0.00", 0.0), "0.00");
  EXPECT_EQ(num("#,##0", 999.5), "1,000");
  EXPECT_EQ(num("0.00", 0.005), "0.01");   // halves round away from zero
  EXPECT_EQ(num("0.00", -0.004), "0.00");  // no minus on a value shown as zero
  EXPECT_EQ(num("0", 1e20), "100000000000000000000");
  EXPECT_EQ(num("0%", 0.256), "26%");
  EXPECT_EQ(num("0.0%", 0.0125), "1.3%");
  EXPECT_EQ(num("(###) ###-####", 5551234567.0), "(555) 123-4567");
  EXPECT_EQ(num("#.##", 0.5), ".5");
  EXPECT_EQ(num(".00", 0.5), ".50");
  EXPECT_EQ(num(".00", 12.5), "12.50");  // integer digits are never dropped
  EXPECT_EQ(num("0.##", 2.0), "2");
  EXPECT_EQ(num("0.##", 2.1), "2.1");
  EXPECT_EQ(num("0.0#", 2.0), "2.0");
  EXPECT_EQ(num("\\#0", 7.0), "#7");
  EXPECT_EQ(num("0.00E+00", 99999.0), "1.00E+05");
  EXPECT_EQ(num("0.00E+00", 0.0), "0.00E+00");
  EXPECT_EQ(num("0.0e-0", 12345.0), "1.2e4");
  EXPECT_EQ(num("00.0E+0", 12345.0), "12.3E+3");
  EXPECT_EQ(num(".00E+00", 123456.0), ".12E+06");  // no integer placeholder: no integer digit
  const std::string big = num("#,##0", 1e100);
  EXPECT_EQ(big.size(), 101u + 33);
  EXPECT_EQ(big.substr(0, 14), "10,000,000,000");
}

TEST_F(FormatDisplay, Sections) {
  const char* m = "0.00;(0.00);\"zero\";\"n/a\"";
  EXPECT_EQ(num(m, 2.5), "2.50");
  EXPECT_EQ(num(m, -3.14159), "(3.14)");
  EXPECT_EQ(num(m, 0.0), "zero");
  EXPECT_EQ(num(m, nullptr).text, "n/a");
  EXPECT_EQ(num("0.00", nullptr).text, "");
  EXPECT_EQ(num("0;", -5.0), "");  // an empty negative section shows nothing
  EXPECT_EQ(num("0;-0;", 0.0), "");
  EXPECT_EQ(num("[GENERAL];[GENERAL]-", -2.5), "2.5-");
  EXPECT_EQ(num("0.0;\\;0.0", -1.0), ";1.0");  // an escaped ';' is a literal
}

TEST_F(FormatDisplay, OverflowFillsWithHashes) {
  double v = 12345.678;
  Result r = num("0.00", &v, 6);
  EXPECT_EQ(r.code, SHFORMAT_E_OVERFLOW);
  EXPECT_EQ(r.text, "#####");
  r = num("0.00", &v, 9);  // "12345.68" and the terminator fit exactly
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.text, "12345.68");
  r = num("0.00", &v, 8);
  EXPECT_EQ(r.code, SHFORMAT_E_OVERFLOW);
  EXPECT_EQ(r.text, "#######");
  r = num("0.00", &v, 0);
  EXPECT_EQ(r.code, SHFORMAT_E_OVERFLOW);
}

TEST_F(FormatDisplay, CompileErrors) {
  unsigned char c[SHFORMAT_BUFSIZE];
  EXPECT_EQ(shformatCmplNumericMask(c, "0.0.0", sizeof c), SHFORMAT_E_NUMERIC);
  EXPECT_EQ(shformatCmplNumericMask(c, "\"abc", sizeof c), SHFORMAT_E_QUOTE);
  EXPECT_EQ(shformatCmplNumericMask(c, "[FOO]", sizeof c), SHFORMAT_E_KEYWORD);
  EXPECT_EQ(shformatCmplNumericMask(c, "[GENERAL", sizeof c), SHFORMAT_E_KEYWORD);
  EXPECT_EQ(shformatCmplNumericMask(c, "[SHORTDATE]", sizeof c), SHFORMAT_E_KEYWORD);
  EXPECT_EQ(shformatCmplNumericMask(c, "0;0;0;0;0", sizeof c), SHFORMAT_E_SECTIONS);
  EXPECT_EQ(shformatCmplNumericMask(c, "[GENERAL]0", sizeof c), SHFORMAT_E_NUMERIC);
  EXPECT_EQ(shformatCmplNumericMask(c, "E+00", sizeof c), SHFORMAT_E_NUMERIC);
  EXPECT_EQ(shformatCmplNumericMask(c, "0E+0E+0", sizeof c), SHFORMAT_E_NUMERIC);
  EXPECT_EQ(shformatCmplDateTimeMask(c, "fffffff", sizeof c), SHFORMAT_E_DATETIME);
  EXPECT_EQ(shformatCmplDateTimeMask(c, "ddddd", sizeof c), SHFORMAT_E_DATETIME);
  EXPECT_EQ(shformatCmplDateTimeMask(c, "hhh", sizeof c), SHFORMAT_E_DATETIME);
  EXPECT_EQ(shformatCmplDateTimeMask(c, "d;m;y", sizeof c), SHFORMAT_E_SECTIONS);
  EXPECT_EQ(shformatCmplDateTimeMask(c, "[CURRENCY]", sizeof c), SHFORMAT_E_KEYWORD);
  EXPECT_EQ(shformatCmplStringMask(c, "@[GENERAL]", sizeof c), SHFORMAT_E_STRING);
  EXPECT_EQ(shformatCmplStringMask(c, "'@", sizeof c), SHFORMAT_E_QUOTE);
  EXPECT_EQ(shformatCmplNumericMask(nullptr, "0", 10), SHFORMAT_E_ARGUMENT);
  EXPECT_EQ(shformatCmplNumericMask(c, nullptr, 10), SHFORMAT_E_ARGUMENT);

  // Buffer too small: the compiled form is written whole or not at all.
  std::memset(c, 0xEE, sizeof c);
  EXPECT_EQ(shformatCmplNumericMask(c, "#,##0.00", 10), SHFORMAT_E_SMALL);
  for (unsigned char b : c) ASSERT_EQ(b, 0xEE);
  int32_t need = 8;
  while (shformatCmplNumericMask(c, "#,##0.00", need) == SHFORMAT_E_SMALL) ++need;
  EXPECT_LT(need, 64);
  double v = 1.0;
  char out[32];
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), 0);
  EXPECT_STREQ(out, "1.00");

  // Applying a format of another kind, or no format.
  ASSERT_EQ(shformatCmplDateTimeMask(c, "yyyy", sizeof c), 0);
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), SHFORMAT_E_COMPILED);
  EXPECT_EQ(shformatString(out, sizeof out, c, "x"), SHFORMAT_E_COMPILED);
  EXPECT_EQ(shformatDouble(out, sizeof out, nullptr, &v), SHFORMAT_E_ARGUMENT);
  unsigned char junk[16] = {1, 2, 3};
  EXPECT_EQ(shformatDouble(out, sizeof out, junk, &v), SHFORMAT_E_COMPILED);
  // A header that claims more sections than its length holds.
  ASSERT_EQ(shformatCmplNumericMask(c, "0", sizeof c), 0);
  c[4] = 4;
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), SHFORMAT_E_COMPILED);
}

TEST_F(FormatDisplay, ValuesThatCannotBeShown) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  Result r = num("0.00", &nan);
  EXPECT_EQ(r.code, SHFORMAT_E_VALUE);
  EXPECT_EQ(r.text, "");
  double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(num("[GENERAL]", &inf).code, SHFORMAT_E_VALUE);
  SHDATETIME d = sample();
  d.month = 12;
  EXPECT_EQ(date("mmm", &d).code, SHFORMAT_E_VALUE);
  EXPECT_EQ(date("hh:mm", &d).text, "14:05");  // fields not shown are not checked
  d = sample();
  d.minute = 60;
  EXPECT_EQ(date("hh:mm", &d).code, SHFORMAT_E_VALUE);
}

TEST_F(FormatDisplay, ErrorStrings) {
  char buf[80];
  EXPECT_GT(shformatErrorString(SHFORMAT_E_SMALL, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "The buffer for the compiled format is too small");
  for (int32_t e = 0; e <= SHFORMAT_E_VALUE; ++e) {
    EXPECT_GT(shformatErrorString(e, buf, sizeof buf), 0);
    EXPECT_STRNE(buf, "Unknown format error") << e;
  }
  EXPECT_EQ(shformatErrorString(99, buf, sizeof buf), 20);
  EXPECT_STREQ(buf, "Unknown format error");
  EXPECT_EQ(shformatErrorString(-1, buf, 8), 7);
  EXPECT_STREQ(buf, "Unknown");
  EXPECT_EQ(shformatErrorString(1, nullptr, 8), 0);
}

TEST_F(FormatDisplay, RegionalNumbers) {
  use("sDecimal=,\nsThousand=.\n");
  EXPECT_EQ(num("[GENERAL]", 1.5), "1,5");
  EXPECT_EQ(num("[GENERAL]", 1.5e20), "1,5E+20");
  EXPECT_EQ(num("#,##0.00", 1234.5), "1.234,50");
  EXPECT_EQ(num("0.00E+00", 12345.0), "1,23E+04");
  EXPECT_EQ(dec("[GENERAL]", "-1234.5600"), "-1234,56");
}

TEST_F(FormatDisplay, Currency) {
  EXPECT_EQ(num("[CURRENCY]", 1234.5), "$1,234.50");
  EXPECT_EQ(num("[CURRENCY]", -1234.5), "($1,234.50)");
  EXPECT_EQ(num("[CURRENCY] \"net\"", 3.0), "$3.00 net");
  use("sDecimal=,\nsThousand=.\nsCurrency=DM\niCurrency=3\niCurrDigits=1\niNegCurr=8\n");
  EXPECT_EQ(num("[CURRENCY]", 1234.56), "1.234,6 DM");
  EXPECT_EQ(num("[CURRENCY]", -1234.56), "-1.234,6 DM");
  use("sCurrency=\"\niCurrency=1\niCurrDigits=0\niNegCurr=5\n");
  EXPECT_EQ(num("[CURRENCY]", -7.0), "-7\"");  // a symbol is always literal
}

TEST_F(FormatDisplay, Decimals) {
  EXPECT_EQ(dec("[GENERAL]", "1234.5600"), "1234.56");
  EXPECT_EQ(dec("[GENERAL]", "-0.0000000000000000000000000001"),
            "-0.0000000000000000000000000001");
  EXPECT_EQ(dec("[GENERAL]", "12345678901234567890.5"), "12345678901234567890.5");
  EXPECT_EQ(dec("[GENERAL]", "0.000"), "0");
  EXPECT_EQ(dec("#,##0.0", "1234.56"), "1,234.6");
  EXPECT_EQ(dec("0.0", "-0.05"), "-0.1");
  EXPECT_EQ(dec("0.0", "-0.04"), "0.0");
  EXPECT_EQ(dec("0.00;(0.00);-", "0"), "-");
  unsigned char c[SHFORMAT_BUFSIZE];
  ASSERT_EQ(shformatCmplNumericMask(c, "0;0;0;\"null\"", sizeof c), 0);
  char out[16];
  EXPECT_EQ(shformatDecimal(out, sizeof out, c, nullptr), 0);
  EXPECT_STREQ(out, "null");
}

TEST_F(FormatDisplay, Reals) {
  unsigned char c[SHFORMAT_BUFSIZE];
  ASSERT_EQ(shformatCmplNumericMask(c, "[GENERAL]", sizeof c), 0);
  char out[40];
  float f = 0.1f;
  EXPECT_EQ(shformatReal(out, sizeof out, c, &f), 0);
  EXPECT_STREQ(out, "0.1");  // the float's own shortest form, not the double's
  f = -3.4028235e38f;
  EXPECT_EQ(shformatReal(out, sizeof out, c, &f), 0);
  EXPECT_STREQ(out, "-3.4028235E+38");
  ASSERT_EQ(shformatCmplNumericMask(c, "0.000", sizeof c), 0);
  f = 2.0005f;  // shortest form 2.0005
  EXPECT_EQ(shformatReal(out, sizeof out, c, &f), 0);
  EXPECT_STREQ(out, "2.001");
}

TEST_F(FormatDisplay, Dates) {
  SHDATETIME d = sample();
  EXPECT_EQ(date("[SHORTDATE]", &d).text, "1/2/2003");
  EXPECT_EQ(date("[LONGDATE]", &d).text, "Thursday, January 02, 2003");
  EXPECT_EQ(date("[TIME]", &d).text, "14:05:09");
  EXPECT_EQ(date("[SHORTDATE] [TIME]", &d).text, "1/2/2003 14:05:09");
  EXPECT_EQ(date("[shortdate]", &d).text, "1/2/2003");
  EXPECT_EQ(date("dd/mm/yy", &d).text, "02/01/03");
  EXPECT_EQ(date("ddd d mmm yyyy", &d).text, "Thu 2 Jan 2003");
  EXPECT_EQ(date("h:mm am/pm", &d).text, "2:05 pm");
  EXPECT_EQ(date("hh:mm AM/PM", &d).text, "02:05 PM");
  EXPECT_EQ(date("h A/P", &d).text, "2 P");
  EXPECT_EQ(date("h a/p", &d).text, "2 p");
  EXPECT_EQ(date("hh:mm:ss.fff", &d).text, "14:05:09.123");
  EXPECT_EQ(date("ss.ffffff", &d).text, "09.123456");
  EXPECT_EQ(date("s.f", &d).text, "9.1");
  EXPECT_EQ(date("H:M:S", &d).text, "14:5:9");
  EXPECT_EQ(date("m:ss", &d).text, "5:09");   // before seconds: minutes
  EXPECT_EQ(date("m/d", &d).text, "1/2");     // otherwise: the month
  EXPECT_EQ(date("hh\\h mm", &d).text, "14h 05");
  EXPECT_EQ(date("\"Day\" d", &d).text, "Day 2");
  EXPECT_EQ(date("yyyy;\"none\"", nullptr).text, "none");
  EXPECT_EQ(date("yyyy", nullptr).text, "");
  d.hour = 0;
  EXPECT_EQ(date("h:mm am/pm", &d).text, "12:05 am");
  d.hour = 12;
  EXPECT_EQ(date("h:mm am/pm", &d).text, "12:05 pm");
  shdtBuildTime(&d, 987, 3, 5, 0, 0, 0, 0);
  EXPECT_EQ(date("yyyy yy", &d).text, "0987 87");
}

TEST_F(FormatDisplay, DatesWithoutTimeOrDate) {
  SHDATETIME d{};
  ASSERT_EQ(shdtParse(&d, "7/4/1998", SHDT_DATE), 0);
  EXPECT_EQ(date("[GENERAL]", &d).text, "7/4/1998");
  EXPECT_EQ(date("", &d).text, "7/4/1998");
  ASSERT_EQ(shdtParse(&d, "10:15:30", SHDT_TIME), 0);
  EXPECT_EQ(date("[GENERAL]", &d).text, "10:15:30");
  EXPECT_EQ(date("yyyy", &d).code, SHFORMAT_E_VALUE);
  ASSERT_EQ(shdtParse(&d, "7/4/1998 10:15", SHDT_DATETIME), 0);
  EXPECT_EQ(date("[GENERAL]", &d).text, "7/4/1998 10:15:00");
}

TEST_F(FormatDisplay, RegionalDates) {
  use("sShortDate=dd.MM.yyyy\nsLongDate=d. MMMM yyyy\nsTime=.\ns1159=vorm\ns2359=nachm\n");
  SHDATETIME d = sample();
  EXPECT_EQ(date("[SHORTDATE] [TIME]", &d).text, "02.01.2003 14.05.09");
  EXPECT_EQ(date("[LONGDATE]", &d).text, "2. January 2003");
  EXPECT_EQ(date("h AM/PM", &d).text, "2 nachm");
  use("sShortDate=yyyy'-'MM'-'dd\n");
  EXPECT_EQ(date("[SHORTDATE]", &d).text, "2003-01-02");
}

TEST_F(FormatDisplay, Strings) {
  EXPECT_EQ(str("(@@@) @@@-@@@@", "5551234567"), "(555) 123-4567");
  EXPECT_EQ(str("(@@@) @@@-@@@@", "55512"), "(555) 12-");
  EXPECT_EQ(str("@@-@@", "abcdefg"), "ab-cdefg");  // nothing is lost
  EXPECT_EQ(str(">@@", "abc"), "ABC");
  EXPECT_EQ(str("@<@@", "XYZ"), "Xyz");
  EXPECT_EQ(str("[GENERAL]", "as is"), "as is");
  EXPECT_EQ(str("", "as is"), "as is");
  EXPECT_EQ(str("\"<\"[GENERAL]\">\"", "x"), "<x>");
  EXPECT_EQ(str("\\@@", "x"), "@x");
  unsigned char c[SHFORMAT_BUFSIZE];
  ASSERT_EQ(shformatCmplStringMask(c, "@;\"(none)\"", sizeof c), 0);
  char out[20];
  EXPECT_EQ(shformatString(out, sizeof out, c, nullptr), 0);
  EXPECT_STREQ(out, "(none)");
  EXPECT_EQ(shformatString(out, 4, c, "abcdef"), SHFORMAT_E_OVERFLOW);
  EXPECT_STREQ(out, "###");
}

// Spreadsheet codes on the value kinds and settings the differential test
// against LibreOffice does not reach (decimals, regional separators).
TEST_F(FormatDisplay, SpreadsheetCodesOnDecimalsAndRegionalSettings) {
  const struct {
    const char *mask, *value, *text;
  } cases[] = {
      {"#,##0,", "1234567", "1,235"},          {"0.0,,", "-987654321", "-987.7"},
      {"# ?/?", "1.25", "1 1/4"},              {"# ??" "/??", "-3.14159", "-3 14/99"},
      {"0/100", "0.237", "24/100"},            {"[GENERAL]%", "0.5", "50%"},
      {"##0.0E+0", "12345.6789", "12.3E+3"},   {"[<0]\"neg\";0", "-2", "neg"},
      {"0.0?", "2", "2.0 "},                   {"[>=10]0;0.0", "9.99", "10.0"},
  };
  for (const auto& c : cases) EXPECT_EQ(dec(c.mask, c.value), c.text) << c.mask << " " << c.value;
  EXPECT_EQ(num("[GENERAL]%", 0.5), "50%");
  EXPECT_EQ(num("General", 1e15), "1E+15");  // the general form keeps its switch-over
  EXPECT_EQ(num("#.##E+00", 0.0), "0E+00");
  use("sDecimal=,\nsThousand=.\n");
  EXPECT_EQ(num("#,##0,", 1234567.0), "1.235");
  EXPECT_EQ(num("# ?/?", 2.5), "2 1/2");
  EXPECT_EQ(num("?.??", 0.5), " ,5 ");
  SHDATETIME d = sample();
  EXPECT_EQ(date("ss.000", &d).text, "09,123");  // the regional decimal separator
}

TEST_F(FormatDisplay, ColoursAreReportedAndConditionsChooseSections) {
  unsigned char c[SHFORMAT_BUFSIZE];
  auto colour = [&](const double* v) {
    int32_t k = -1;
    EXPECT_EQ(shformatColor(c, v, &k), SHFORMAT_OK);
    return k;
  };
  const double pos = 2, neg = -2, zero = 0, big = 150;
  ASSERT_EQ(shformatCmplNumericMask(c, "[Red]0;[blue]-0;[Color12]0", sizeof c), 0);
  EXPECT_EQ(colour(&pos), 3);
  EXPECT_EQ(colour(&neg), 5);
  EXPECT_EQ(colour(&zero), 12);
  EXPECT_EQ(colour(nullptr), 0);  // no null section
  EXPECT_EQ(num("[Red]0.00;[Blue](0.00)", -1.5), "(1.50)");  // the text is unchanged
  ASSERT_EQ(shformatCmplNumericMask(c, "[>100][Green]0;[Magenta]0.0", sizeof c), 0);
  EXPECT_EQ(colour(&big), 4);
  EXPECT_EQ(colour(&pos), 7);
  // Conditions: the first section whose condition holds; one without a
  // condition takes the rest; none left: the general form.
  EXPECT_EQ(num("[>100]\"big\";\"small\"", 150.0), "big");
  EXPECT_EQ(num("[>100]\"big\";\"small\"", -150.0), "small");
  EXPECT_EQ(num("[<=-10]0.0;[>=10]0", -25.0), "-25.0");
  EXPECT_EQ(num("[>=10]0;[<=-10]0.0", 3.0), "3");
  EXPECT_EQ(num("[=1]0\" item\";0\" items\"", 1.0), "1 item");
  ASSERT_EQ(shformatCmplDateTimeMask(c, "[Cyan]yyyy;\"none\"", sizeof c), 0);
  SHDATETIME d = sample();
  EXPECT_EQ(colour(reinterpret_cast<const double*>(&d)), 8);  // date formats test for null only
  EXPECT_EQ(colour(nullptr), 0);
  int32_t k;
  EXPECT_EQ(shformatColor(c, nullptr, nullptr), SHFORMAT_E_ARGUMENT);
  EXPECT_EQ(shformatColor(nullptr, &pos, &k), SHFORMAT_E_ARGUMENT);
  unsigned char junk[16] = {0x5A, 9};
  EXPECT_EQ(shformatColor(junk, &pos, &k), SHFORMAT_E_COMPILED);
  ASSERT_EQ(shformatCmplNumericMask(c, "[Red]0", sizeof c), 0);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(shformatColor(c, &nan, &k), SHFORMAT_E_VALUE);
}

// Familiar codes this language does not support are refused, never shown
// as something else.
TEST_F(FormatDisplay, UnsupportedCodesAreRefused) {
  unsigned char c[SHFORMAT_BUFSIZE];
  const struct {
    int kind;  // 0 number, 1 date, 2 string
    const char* mask;
    int32_t code;
  } cases[] = {
      {0, "[$-409]0", SHFORMAT_E_KEYWORD},   {0, "[DBNum1]0", SHFORMAT_E_KEYWORD},
      {0, "[Color57]0", SHFORMAT_E_KEYWORD}, {0, "[Color05]0", SHFORMAT_E_KEYWORD},
      {0, "[<abc]0", SHFORMAT_E_KEYWORD},    {0, "[>1][<2]0", SHFORMAT_E_KEYWORD},
      {0, "0;-0;0;@", SHFORMAT_E_NUMERIC},   {0, "# ?/?????", SHFORMAT_E_NUMERIC},
      {0, "0.0 ?/?", SHFORMAT_E_NUMERIC},    {0, "# ?/? 0", SHFORMAT_E_NUMERIC},
      {0, "General0", SHFORMAT_E_NUMERIC},   {1, "[hm]", SHFORMAT_E_KEYWORD},
      {1, "mmmmmm", SHFORMAT_E_DATETIME},    {1, "ss.0000000", SHFORMAT_E_DATETIME},
      {1, "yyyy;@", SHFORMAT_E_DATETIME},    {2, "@;@", SHFORMAT_E_STRING},
      {2, "@General", SHFORMAT_E_STRING},
  };
  for (const auto& t : cases) {
    const int32_t e = t.kind == 0   ? shformatCmplNumericMask(c, t.mask, sizeof c)
                      : t.kind == 1 ? shformatCmplDateTimeMask(c, t.mask, sizeof c)
                                    : shformatCmplStringMask(c, t.mask, sizeof c);
    EXPECT_EQ(e, t.code) << t.mask;
  }
}

// Weekdays are the calendar's own before 1899 too, and a day the month
// does not have is refused; checked against the standard library calendar.
TEST_F(FormatDisplay, WeekdaysAndImpossibleDatesAgreeWithTheCalendar) {
  using namespace std::chrono;
  std::mt19937 rng(11);
  const char* names[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
  for (int i = 0; i < 3000; ++i) {
    const int y = 1 + static_cast<int>(rng() % 9999), m = 1 + static_cast<int>(rng() % 12);
    const int dd = 1 + static_cast<int>(rng() % 31);
    SHDATETIME d;
    shdtBuildTime(&d, y, m, dd, 0, 0, 0, 0);
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(m)}, day{static_cast<unsigned>(dd)}};
    const Result r = date("dddd d", &d);
    if (!ymd.ok()) {
      ASSERT_EQ(r.code, SHFORMAT_E_VALUE) << y << "-" << m << "-" << dd;
      continue;
    }
    ASSERT_EQ(r.text, std::string(names[weekday{sys_days{ymd}}.c_encoding()]) + " " +
                          std::to_string(dd)) << y << "-" << m;
  }
  SHDATETIME d;
  shdtBuildTime(&d, 1776, 7, 4, 0, 0, 0, 0);
  EXPECT_EQ(date("dddd", &d).text, "Thursday");
  EXPECT_EQ(date("[h]", &d).code, SHFORMAT_E_VALUE);  // elapsed time starts on 30 Dec 1899
  d = sample();
  const long long days = (sys_days{2003y / 1 / 2} - sys_days{1899y / 12 / 30}).count();
  EXPECT_EQ(date("[h]:mm [ss]", &d).text, std::to_string(days * 24 + 14) + ":05 " +
                                             std::to_string(days * 86400 + 14 * 3600 + 5 * 60 + 9));
  ASSERT_EQ(shdtParse(&d, "10:15:30", SHDT_TIME), 0);
  EXPECT_EQ(date("[mm]:ss", &d).text, "615:30");  // a time alone counts from midnight
}

// In code page 932 a double-byte character is one literal whatever its
// trail byte looks like, '@' takes it whole and case mapping leaves it.
TEST_F(FormatDisplay, DoubleByteMasks) {
  const uint32_t old = zbshr_set_codepage(932);
  SHDATETIME d = sample();
  EXPECT_EQ(date("d\x93\x64", &d).text, "2\x93\x64");
  EXPECT_EQ(num("0\x83\x5c" "0", 55.0), "5\x83\x5c" "5");
  EXPECT_EQ(num("0\"\x83\x5c\"\\\x83\x5c", 5.0), "5\x83\x5c\x83\x5c");
  EXPECT_EQ(str("@\x83\x5c@", "ab"), "a\x83\x5c" "b");
  EXPECT_EQ(str(">[GENERAL]", "\x8e\x64\x97\x6cx"), "\x8e\x64\x97\x6cX");
  EXPECT_EQ(str("@-@", "\x8e\x64\x41"), "\x8e\x64-A");
  EXPECT_EQ(num("0;\x83\x3b", -1.0), "\x83;");  // not a lead-trail pair here: a ';' ends the section
  EXPECT_EQ(num("0\\\x88\x88;(0)", -5.0), "(5)");  // an escaped pair whose trail looks like a lead byte
  zbshr_set_codepage(1252);
  EXPECT_EQ(date("d\x93\x64", &d).text, "2\x93" "2");  // single-byte: the 'd' is a day
  zbshr_set_codepage(old);
}

TEST_F(FormatDisplay, LongMasksFitTheRecommendedBuffer) {
  const std::string m(200, '0');
  unsigned char c[SHFORMAT_BUFSIZE];
  EXPECT_EQ(shformatCmplNumericMask(c, m.c_str(), sizeof c), 0);
  std::string lits(200, 'x');
  EXPECT_EQ(shformatCmplDateTimeMask(c, lits.c_str(), sizeof c), 0);
  EXPECT_EQ(shformatCmplStringMask(c, std::string(200, '@').c_str(), sizeof c), 0);
  // The worst cases: every character a token of its own.
  std::string alt, dates;
  for (int i = 0; i < 100; ++i) alt += "0a", dates += "d-";
  EXPECT_EQ(shformatCmplNumericMask(c, alt.c_str(), sizeof c), 0);
  EXPECT_EQ(shformatCmplDateTimeMask(c, dates.c_str(), sizeof c), 0);
  const std::string keywords = "[LONGDATE] [TIME] [SHORTDATE] [GENERAL]" + dates.substr(39);
  EXPECT_EQ(shformatCmplDateTimeMask(c, keywords.c_str(), sizeof c), 0);
  // Regional patterns at their longest.
  use("sLongDate=" + dates.substr(0, 63) + "\nsShortDate=" + dates.substr(0, 31) + "\n");
  EXPECT_EQ(shformatCmplDateTimeMask(c, keywords.c_str(), sizeof c), 0);
}

}  // namespace

// ---------------------------------------------------------------------------
// Numbers against Python: "[GENERAL]" must read as "%.15g" does (with an
// upper-case E and no sign on zero), and a fixed mask as the shortest decimal
// form of the double rounded half away from zero.
namespace {

std::vector<double> sample_doubles() {
  std::vector<double> v;
  std::mt19937_64 rng(77);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::uniform_int_distribution<int> e10(-30, 30);
  for (int i = 0; i < 3000; ++i) {
    double x = unit(rng) * std::pow(10.0, e10(rng));
    if (i % 3 == 0) x = -x;
    if (i % 7 == 0) x = std::round(x * 1000) / 1000;  // short decimals, ties
    v.push_back(x);
  }
  for (double x : {0.5, 1.5, 2.5, 0.125, 0.375, 1e15, 999999999999999.0, 1e-5, 1e-4, 123456.5,
                   0.1, 0.7, 1e21, 5e-324, 1.7976931348623157e308, 1.005, 2.675})
    v.push_back(x);
  return v;
}

std::vector<std::string> python_lines(const std::vector<double>& values, const char* expr) {
  char path[] = "/tmp/zbshr_fmt_XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return {};
  FILE* f = fdopen(fd, "w");
  for (double x : values) std::fprintf(f, "%a\n", x);
  std::fclose(f);
  std::string cmd = std::string("/usr/bin/python3 -c \"import sys\nfrom decimal import *\n"
                                "for l in open(sys.argv[1]):\n    x = float.fromhex(l)\n    print(") +
                    expr + ")\" " + path;
  std::vector<std::string> out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char line[512];
    while (std::fgets(line, sizeof line, p)) {
      std::string s = line;
      while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
      out.push_back(s);
    }
    pclose(p);
  }
  std::remove(path);
  return out;
}

TEST_F(FormatDisplay, GeneralAgreesWithPython) {
  const auto values = sample_doubles();
  const auto py = python_lines(values, "('%.15g' % x).replace('e', 'E').replace('-0', '0') "
                                       "if x == 0 else ('%.15g' % x).replace('e', 'E')");
  if (py.size() != values.size()) GTEST_SKIP() << "python3 is not available";
  for (size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(num("[GENERAL]", values[i]), py[i]) << std::hexfloat << values[i];
}

TEST_F(FormatDisplay, FixedMasksAgreeWithPythonDecimal) {
  std::vector<double> values;
  for (double x : sample_doubles())
    if (std::fabs(x) < 1e15) values.push_back(x);
  const auto py = python_lines(
      values,
      "(lambda q: ('-' if q < 0 and q != 0 else '') + '{:,}'.format(abs(q)))"
      "(Decimal(repr(x)).quantize(Decimal('0.01'), rounding=ROUND_HALF_UP))");
  if (py.size() != values.size()) GTEST_SKIP() << "python3 is not available";
  for (size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(num("#,##0.00", values[i]), py[i]) << std::hexfloat << values[i];
}

}  // namespace
