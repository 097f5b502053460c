// Display formats: compiled masks applied to numbers, decimals, dates and strings, under several regional
// settings and code pages. Masks spreadsheets share are compared with LibreOffice (cli_test.cpp); the rows
// here are the library's own codes, rules and error numbers.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/run_program.h"
#include "regional.h"
#include "zbshr/decimal.h"
#include "zbshr/format.h"
#include "zbshr/system.h"

namespace {

int32_t compile(char kind, unsigned char* c, const char* mask, int32_t size = SHFORMAT_BUFSIZE) {
  if (kind == 's') return shformatCmplStringMask(c, mask, size);
  if (std::strchr("nfm", kind)) return shformatCmplNumericMask(c, mask, size);
  return shformatCmplDateTimeMask(c, mask, size);
}

// Applies mask to value (nullptr: a null) read as kind: n double, f float, m decimal, s string, d a date
// built from "Y-M-D h:m:s.f", 1/2/3 a text parsed as date and time, date or time. Returns text and code.
std::pair<std::string, int32_t> show(char kind, const char* mask, const char* value, int32_t size = 300) {
  unsigned char c[SHFORMAT_BUFSIZE];
  if (const int32_t e = compile(kind, c, mask)) return {"", e};
  std::string out(static_cast<size_t>(size) + 8, '\x7F');
  const std::string v = value ? value : "";  // "nan" and "inf" spelled out for every C runtime
  const double x = v == "nan" ? std::nan("") : v == "inf" ? HUGE_VAL : std::strtod(v.c_str(), nullptr);
  const float f = static_cast<float>(x);
  SHDEC m{};
  SHDATETIME d{};
  if (kind == 'm' && value) {
    EXPECT_NE(ConvAsciiToDecimal(&m, value), nullptr) << value;
  }
  if (kind == 'd' && value) {
    int y = 0, mo = 0, dd = 0, h = 0, mi = 0, s = 0;
    unsigned us = 0;
    std::sscanf(value, "%d-%d-%d %d:%d:%d.%u", &y, &mo, &dd, &h, &mi, &s, &us);
    shdtBuildTime(&d, y, mo, dd, h, mi, s, us);
  }
  if (kind >= '1' && kind <= '3') {
    EXPECT_EQ(shdtParse(&d, value, kind - '0'), 0) << value;
  }
  const int32_t e = kind == 'n' ? shformatDouble(out.data(), size, c, value ? &x : nullptr)
                    : kind == 'f' ? shformatReal(out.data(), size, c, &f)
                    : kind == 'm' ? shformatDecimal(out.data(), size, c, value ? &m : nullptr)
                    : kind == 's' ? shformatString(out.data(), size, c, value)
                                  : shformatDateTime(out.data(), size, c, value ? &d : nullptr);
  for (size_t i = static_cast<size_t>(size); i < out.size(); ++i) EXPECT_EQ(out[i], '\x7F') << "written past the size";
  return {size > 0 ? out.c_str() : "", e};
}

const char* const kSample = "2003-01-02 14:05:09.123456";  // a Thursday
const char* const kSettings[] = {
    "",
    "sDecimal=,\nsThousand=.\n",
    "sDecimal=,\nsThousand=.\nsCurrency=DM\niCurrency=3\niCurrDigits=1\niNegCurr=8\n",
    "sCurrency=\"\niCurrency=1\niCurrDigits=0\niNegCurr=5\n",
    "sShortDate=dd.MM.yyyy\nsLongDate=d. MMMM yyyy\nsTime=.\ns1159=vorm\ns2359=nachm\n",
    "sShortDate=yyyy'-'MM'-'dd\n",
    "cp932",
    "cp1252",
};

using FormatDisplay = Regional;

TEST_F(FormatDisplay, MasksOnValues) {
  const struct {
    int settings;  // kSettings
    char kind;
    const char *mask, *value, *text;
    int32_t code = 0;
    int32_t size = 300;
  } rows[] = {
      {0, 'n', "[GENERAL]", "0", "0"}, {0, 'n', "[GENERAL]", "-0.0", "0"},
      {0, 'n', "", "42.25", "42.25"},  // an empty mask is the general form
      {0, 'n', "[general] kg", "3", "3 kg"}, {0, 'n', "General", "1e15", "1E+15"},
      {0, 'n', "#,##0", "999.5", "1,000"},
      {0, 'n', "0", "1e20", "100000000000000000000"},
      {0, 'n', "#.##", "0.5", ".5"},
      {0, 'n', ".00", "0.5", ".50"}, {0, 'n', ".00", "12.5", "12.50"},  // integer digits are never dropped
      {0, 'n', "0.0#", "2", "2.0"}, {0, 'n', "\\#0", "7", "#7"},
      {0, 'n', "0.0e-0", "12345", "1.2e4"}, {0, 'n', "00.0E+0", "12345", "12.3E+3"},
      {0, 'n', ".00E+00", "123456", ".12E+06"}, {0, 'n', "0.00E+00", "500", "5.00E+02"},  // no integer placeholder: no integer digit
      {0, 'n', "0.00;(0.00);\"zero\";\"n/a\"", nullptr, "n/a"}, {0, 'n', "0.00", nullptr, ""},
      {0, 'n', "0;-0;", "0", ""}, {0, 'n', "[GENERAL];[GENERAL]-", "-2.5", "2.5-"},
      {0, 'n', "0.0;\\;0.0", "-1", ";1.0"},  // an escaped ';' is a literal
      {0, 'n', "0.00", "12345.678", "#####", SHFORMAT_E_OVERFLOW, 6},
      {0, 'n', "0.00", "12345.678", "12345.68", 0, 9},  // text and terminator fit exactly
      {0, 'n', "0.00", "12345.678", "#######", SHFORMAT_E_OVERFLOW, 8},
      {0, 'n', "0.00", "12345.678", "", SHFORMAT_E_OVERFLOW, 0},
      {0, 'n', "0.00", "nan", "", SHFORMAT_E_VALUE}, {0, 'n', "[GENERAL]", "inf", "", SHFORMAT_E_VALUE},
      {0, 'n', "[CURRENCY]", "1234.5", "$1,234.50"}, {0, 'n', "[CURRENCY]", "-1234.5", "($1,234.50)"},
      {0, 'n', "[CURRENCY] \"net\"", "3", "$3.00 net"},
      {0, 'n', "[>100]\"big\";\"small\"", "150", "big"}, {0, 'n', "[>100]\"big\";\"small\"", "-150", "small"},
      {0, 'n', "[>=10]0;[<=-10]0.0", "3", "3"},  // no section left: the general form
      {0, 'n', "[GENERAL]%", "0.5", "50%"},
      {0, 'f', "[GENERAL]", "0.1", "0.1"},  // the float's own shortest form, not the double's
      {0, 'f', "[GENERAL]", "-3.4028235e38", "-3.4028235E+38"}, {0, 'f', "0.000", "2.0005", "2.001"},
      {0, 'f', "0;-0;\"zero\"", "0", "zero"},
      {0, 'm', "[GENERAL]", "1234.5600", "1234.56"}, {0, 'm', "[GENERAL]", "0.000", "0"},
      {0, 'm', "[GENERAL]", "-0.0000000000000000000000000001", "-0.0000000000000000000000000001"},
      {0, 'm', "[GENERAL]", "12345678901234567890.5", "12345678901234567890.5"},
      {0, 'm', "#,##0.0", "1234.56", "1,234.6"}, {0, 'm', "0.0", "-0.05", "-0.1"}, {0, 'm', "0.0", "-0.04", "0.0"},
      {0, 'm', "0.00;(0.00);-", "0", "-"}, {0, 'm', "0;0;0;\"null\"", nullptr, "null"},
      {0, 'm', "#,##0,", "1234567", "1,235"}, {0, 'm', "0.0,,", "-987654321", "-987.7"},
      {0, 'm', "# ?/?", "1.25", "1 1/4"}, {0, 'm', "# ??" "/??", "-3.14159", "-3 14/99"},
      {0, 'm', "0/100", "0.237", "24/100"}, {0, 'n', "0/-", "5", "5/-"},  // no denominator: a literal
      {0, 'n', "0 ?/9", "1.3333", "1 3/9"},
      {0, 'm', "[GENERAL]%", "0.5", "50%"},
      {0, 'm', "##0.0E+0", "12345.6789", "12.3E+3"}, {0, 'm', "[<0]\"neg\";0", "-2", "neg"},
      {0, 'm', "0.0?", "2", "2.0 "}, {0, 'm', "[>=10]0;0.0", "9.99", "10.0"},
      {1, 'n', "[GENERAL]", "1.5", "1,5"}, {1, 'n', "[GENERAL]", "1.5e20", "1,5E+20"},
      {1, 'n', "#,##0.00", "1234.5", "1.234,50"}, {1, 'n', "0.00E+00", "12345", "1,23E+04"},
      {1, 'm', "[GENERAL]", "-1234.5600", "-1234,56"}, {1, 'n', "#,##0,", "1234567", "1.235"},
      {1, 'n', "# ?/?", "2.5", "2 1/2"}, {1, 'n', "?.??", "0.5", " ,5 "},
      {1, 'd', "ss.000", kSample, "09,123"},  // the regional decimal separator
      {2, 'n', "[CURRENCY]", "1234.56", "1.234,6 DM"}, {2, 'n', "[CURRENCY]", "-1234.56", "-1.234,6 DM"},
      {3, 'n', "[CURRENCY]", "-7", "-7\""},  // a symbol is always literal
      {0, 'd', "[SHORTDATE]", kSample, "1/2/2003"}, {0, 'd', "[LONGDATE]", kSample, "Thursday, January 02, 2003"},
      {0, 'd', "[SHORTDATE] [TIME]", kSample, "1/2/2003 14:05:09"}, {0, 'd', "[shortdate]", kSample, "1/2/2003"},
      {0, 'd', "h:mm am/pm", kSample, "2:05 pm"}, {0, 'd', "hh:mm AM/PM", kSample, "02:05 PM"},
      {0, 'd', "General!", kSample, "1/2/2003 14:05:09!"}, {0, 'd', "h A/P", kSample, "2 P"}, {0, 'd', "h a/p", kSample, "2 p"},
      {0, 'd', "hh:mm:ss.fff", kSample, "14:05:09.123"}, {0, 'd', "ss.ffffff", kSample, "09.123456"},
      {0, 'd', "s.f", kSample, "9.1"}, {0, 'd', "H:M:S", kSample, "14:5:9"},
      {0, 'd', "hh\\h mm", kSample, "14h 05"}, {0, 'd', "\"Day\" d", kSample, "Day 2"},
      {0, 'd', "yyyy;\"none\"", nullptr, "none"}, {0, 'd', "yyyy", nullptr, ""},
      {0, 'd', "yyyy yy y-yyy", "987-03-05 00:00:00.0", "0987 87 87-0987"},  // three letters show four digits
      {0, 'd', "mmm", "2003-13-02 14:05:09.0", "", SHFORMAT_E_VALUE},
      {0, 'd', "hh:mm", "2003-13-02 14:05:09.0", "14:05"},  // fields not shown are not checked
      {0, 'd', "hh:mm", "2003-01-02 14:60:09.0", "", SHFORMAT_E_VALUE},
      {0, 'd', "[h]", "1776-07-04 00:00:00.0", "", SHFORMAT_E_VALUE},  // elapsed time starts on 30 Dec 1899
      {0, '2', "[GENERAL]", "7/4/1998", "7/4/1998"}, {0, '2', "", "7/4/1998", "7/4/1998"},
      {0, '3', "[GENERAL]", "10:15:30", "10:15:30"}, {0, '3', "yyyy", "10:15:30", "", SHFORMAT_E_VALUE},
      {0, '3', "[mm]:ss", "10:15:30", "615:30"},  // a time alone counts from midnight
      {0, '1', "[GENERAL]", "7/4/1998 10:15", "7/4/1998 10:15:00"},
      {4, 'd', "[SHORTDATE] [TIME]", kSample, "02.01.2003 14.05.09"}, {4, 'd', "[LONGDATE]", kSample, "2. January 2003"},
      {4, 'd', "h AM/PM", kSample, "2 nachm"}, {5, 'd', "[SHORTDATE]", kSample, "2003-01-02"},
      {0, 's', "(@@@) @@@-@@@@", "5551234567", "(555) 123-4567"}, {0, 's', "(@@@) @@@-@@@@", "55512", "(555) 12-"},
      {0, 's', "@@-@@", "abcdefg", "ab-cdefg"},  // nothing is lost
      {0, 's', ">@@", "abc", "ABC"}, {0, 's', "@<@@", "XYZ", "Xyz"}, {0, 's', "[GENERAL]", "as is", "as is"},
      {0, 's', "", "as is", "as is"}, {0, 's', "\"<\"[GENERAL]\">\"", "x", "<x>"}, {0, 's', "\\@@", "x", "@x"},
      {0, 's', "@;\"(none)\"", nullptr, "(none)"}, {0, 's', "@;\"(none)\"", "abcdef", "###", SHFORMAT_E_OVERFLOW, 4},
      // In code page 932 a double-byte character is one literal whatever its
      // trail byte looks like, '@' takes it whole and case mapping leaves it.
      {6, 'd', "d\x93\x64", kSample, "2\x93\x64"}, {7, 'd', "d\x93\x64", kSample, "2\x93" "2"},
      {6, 'n', "0\x83\x5c" "0", "55", "5\x83\x5c" "5"}, {6, 'n', "0\"\x83\x5c\"\\\x83\x5c", "5", "5\x83\x5c\x83\x5c"},
      {6, 's', "@\x83\x5c@", "ab", "a\x83\x5c" "b"}, {6, 's', ">[GENERAL]", "\x8e\x64\x97\x6cx", "\x8e\x64\x97\x6cX"},
      {6, 's', "@-@", "\x8e\x64\x41", "\x8e\x64-A"},
      {6, 'n', "0;\x83\x3b", "-1", "\x83;"},  // not a lead-trail pair here: a ';' ends the section
      {6, 'n', "0\\\x88\x88;(0)", "-5", "(5)"},  // an escaped pair whose trail looks like a lead byte
  };
  for (const auto& r : rows) {
    const std::string set = kSettings[r.settings];
    const uint32_t old = zbshr_set_codepage(set.rfind("cp", 0) == 0 ? std::stoul(set.substr(2)) : 1252);
    use(set.rfind("cp", 0) == 0 ? "" : set);
    const auto [text, code] = show(r.kind, r.mask, r.value, r.size);
    zbshr_set_codepage(old);
    EXPECT_EQ(text, r.text) << r.kind << " " << r.mask << " " << (r.value ? r.value : "null") << " / " << set;
    EXPECT_EQ(code, r.code) << r.kind << " " << r.mask << " " << (r.value ? r.value : "null");
  }
  EXPECT_EQ(show('n', "#,##0", "1e100").first.substr(0, 14), "10,000,000,000");
  EXPECT_EQ(show('n', "#,##0", "1e100").first.size(), 101u + 33);
}

TEST_F(FormatDisplay, CompileErrorsAndUnsupportedCodes) {
  const struct {
    char kind;
    const char* mask;
    int32_t code;
  } cases[] = {
      {'n', "0.0.0", SHFORMAT_E_NUMERIC}, {'n', "\"abc", SHFORMAT_E_QUOTE}, {'n', "[FOO]", SHFORMAT_E_KEYWORD},
      {'n', "[GENERAL", SHFORMAT_E_KEYWORD}, {'n', "[SHORTDATE]", SHFORMAT_E_KEYWORD},
      {'n', "0;0;0;0;0", SHFORMAT_E_SECTIONS}, {'n', "[GENERAL]0", SHFORMAT_E_NUMERIC},
      {'n', "E+00", SHFORMAT_E_NUMERIC}, {'n', "0E+0E+0", SHFORMAT_E_NUMERIC},
      {'d', "fffffff", SHFORMAT_E_DATETIME}, {'d', "ddddd", SHFORMAT_E_DATETIME}, {'d', "hhh", SHFORMAT_E_DATETIME},
      {'d', "d;m;y", SHFORMAT_E_SECTIONS}, {'d', "[CURRENCY]", SHFORMAT_E_KEYWORD},
      {'s', "@[GENERAL]", SHFORMAT_E_STRING}, {'s', "'@", SHFORMAT_E_QUOTE},
      // familiar codes this language does not support are refused, never shown as something else
      {'n', "[$-409]0", SHFORMAT_E_KEYWORD}, {'n', "[DBNum1]0", SHFORMAT_E_KEYWORD},
      {'n', "[Color57]0", SHFORMAT_E_KEYWORD}, {'n', "[Color05]0", SHFORMAT_E_KEYWORD},
      {'n', "[<abc]0", SHFORMAT_E_KEYWORD}, {'n', "[>1][<2]0", SHFORMAT_E_KEYWORD},
      {'n', "0;-0;0;@", SHFORMAT_E_NUMERIC}, {'n', "# ?/?????", SHFORMAT_E_NUMERIC},
      {'n', "0.0 ?/?", SHFORMAT_E_NUMERIC}, {'n', "# ?/? 0", SHFORMAT_E_NUMERIC}, {'n', "General0", SHFORMAT_E_NUMERIC},
      {'d', "[hm]", SHFORMAT_E_KEYWORD}, {'d', "mmmmmm", SHFORMAT_E_DATETIME}, {'d', "ss.0000000", SHFORMAT_E_DATETIME},
      {'d', "yyyy;@", SHFORMAT_E_DATETIME}, {'s', "@;@", SHFORMAT_E_STRING}, {'s', "@General", SHFORMAT_E_STRING},
  };
  unsigned char c[SHFORMAT_BUFSIZE];
  for (const auto& t : cases) EXPECT_EQ(compile(t.kind, c, t.mask), t.code) << t.mask;
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
  // A format of another kind, no format, junk, a header claiming more sections than it holds.
  ASSERT_EQ(shformatCmplDateTimeMask(c, "yyyy", sizeof c), 0);
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), SHFORMAT_E_COMPILED);
  EXPECT_EQ(shformatString(out, sizeof out, c, "x"), SHFORMAT_E_COMPILED);
  EXPECT_EQ(shformatDouble(out, sizeof out, nullptr, &v), SHFORMAT_E_ARGUMENT);
  unsigned char junk[16] = {1, 2, 3};
  EXPECT_EQ(shformatDouble(out, sizeof out, junk, &v), SHFORMAT_E_COMPILED);
  ASSERT_EQ(shformatCmplNumericMask(c, "0", sizeof c), 0);
  c[4] = 4;
  EXPECT_EQ(shformatDouble(out, sizeof out, c, &v), SHFORMAT_E_COMPILED);
  // The longest masks fit the recommended buffer: every character a token of its own.
  std::string alt, dates;
  for (int i = 0; i < 100; ++i) alt += "0a", dates += "d-";
  const std::string keywords = "[LONGDATE] [TIME] [SHORTDATE] [GENERAL]" + dates.substr(39);
  for (const auto& [kind, mask] : std::vector<std::pair<char, std::string>>{
           {'n', std::string(200, '0')}, {'d', std::string(200, 'x')}, {'s', std::string(200, '@')},
           {'n', alt}, {'d', dates}, {'d', keywords}})
    EXPECT_EQ(compile(kind, c, mask.c_str()), 0) << mask;
  // The compiled form counts placeholders, percent signs and scaling commas up to a limit each.
  for (const auto& [head, ch, most] : {std::tuple{"", '0', 255}, {"0.", '0', 100}, {"0E+", '0', 9}, {"0", '%', 10}, {"0", ',', 10}}) {
    EXPECT_EQ(compile('n', c, (head + std::string(most, ch)).c_str()), 0) << head << ch;
    EXPECT_EQ(compile('n', c, (head + std::string(most + 1, ch)).c_str()), SHFORMAT_E_NUMERIC) << head << ch;
  }
  use("sLongDate=" + dates.substr(0, 63) + "\nsShortDate=" + dates.substr(0, 31) + "\n");
  EXPECT_EQ(shformatCmplDateTimeMask(c, keywords.c_str(), sizeof c), 0);
  use("sShortDate=d/M/yyyy [TIME]\n");  // no keyword inside a regional mask
  EXPECT_EQ(compile('d', c, "[SHORTDATE]"), SHFORMAT_E_KEYWORD);
  // Error texts: each code has its own, cut to the buffer.
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

TEST_F(FormatDisplay, ColoursAreReportedAndConditionsChooseSections) {
  unsigned char c[SHFORMAT_BUFSIZE];
  SHDATETIME d{};
  shdtBuildTime(&d, 2003, 1, 2, 0, 0, 0, 0);
  const double pos = 2, neg = -2, zero = 0, big = 150;
  const struct {
    char kind;
    const char* mask;
    const void* value;
    int32_t colour;
  } rows[] = {
      {'n', "[Red]0;[blue]-0;[Color12]0", &pos, 3}, {'n', "[Red]0;[blue]-0;[Color12]0", &neg, 5},
      {'n', "[Red]0;[blue]-0;[Color12]0", &zero, 12}, {'n', "[Red]0;[blue]-0;[Color12]0", nullptr, 0},
      {'n', "[>100][Green]0;[Magenta]0.0", &big, 4}, {'n', "[>100][Green]0;[Magenta]0.0", &pos, 7},
      {'d', "[Cyan]yyyy;\"none\"", &d, 8},  // date formats test for null only
      {'d', "[Cyan]yyyy;\"none\"", nullptr, 0},
  };
  for (const auto& r : rows) {
    ASSERT_EQ(compile(r.kind, c, r.mask), 0);
    int32_t k = -1;
    EXPECT_EQ(shformatColor(c, static_cast<const double*>(r.value), &k), SHFORMAT_OK);
    EXPECT_EQ(k, r.colour) << r.mask;
  }
  int32_t k;
  EXPECT_EQ(shformatColor(c, nullptr, nullptr), SHFORMAT_E_ARGUMENT);
  EXPECT_EQ(shformatColor(nullptr, &pos, &k), SHFORMAT_E_ARGUMENT);
  unsigned char junk[16] = {0x5A, 9};
  EXPECT_EQ(shformatColor(junk, &pos, &k), SHFORMAT_E_COMPILED);
  ASSERT_EQ(shformatCmplNumericMask(c, "[Red]0", sizeof c), 0);
  const double nan = std::nan("");
  EXPECT_EQ(shformatColor(c, &nan, &k), SHFORMAT_E_VALUE);
}

// Weekdays are the calendar's own before 1899 too, and a day the month does not have is refused; checked
// against the standard library calendar.
TEST_F(FormatDisplay, WeekdaysAndImpossibleDatesAgreeWithTheCalendar) {
  using namespace std::chrono;
  std::mt19937 rng(11);
  const char* names[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
  for (int i = 0; i < 3000; ++i) {
    const bool first = i == 0;  // first the leap day of year 0
    const int y = first ? 0 : 1 + static_cast<int>(rng() % 9999), m = first ? 2 : 1 + static_cast<int>(rng() % 12);
    const int dd = first ? 29 : 1 + static_cast<int>(rng() % 32);
    const std::string v = std::to_string(y) + "-" + std::to_string(m) + "-" + std::to_string(dd) + " 0:0:0.0";
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(m)}, day{static_cast<unsigned>(dd)}};
    const auto [text, code] = show('d', "dddd d", v.c_str());
    const std::string want = ymd.ok() ? names[weekday{sys_days{ymd}}.c_encoding()] + (" " + std::to_string(dd)) : "";
    ASSERT_EQ(text, want) << v;
    ASSERT_EQ(code, ymd.ok() ? 0 : SHFORMAT_E_VALUE) << v;
  }
  const long long days = (sys_days{2003y / 1 / 2} - sys_days{1899y / 12 / 30}).count();
  EXPECT_EQ(show('d', "[h]:mm [ss]", kSample).first,
            std::to_string(days * 24 + 14) + ":05 " + std::to_string(days * 86400 + 14 * 3600 + 5 * 60 + 9));
}

// Random doubles against Python: "[GENERAL]" reads as "%.15g" does (with an upper-case E and no sign on
// zero), and a fixed mask as the shortest decimal form of the double rounded half away from zero.
TEST_F(FormatDisplay, GeneralAndFixedMasksAgreeWithPython) {
  std::vector<double> v;
  std::mt19937_64 rng(77);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int i = 0; i < 3000; ++i) {
    double x = unit(rng) * std::pow(10.0, static_cast<int>(rng() % 61) - 30);
    if (i % 3 == 0) x = -x;
    v.push_back(i % 7 == 0 ? std::round(x * 1000) / 1000 : x);  // short decimals, ties
  }
  v.insert(v.end(), {0.5, 1.5, 2.5, 0.125, 0.375, 1e15, 999999999999999.0, 1e-5, 1e-4, 123456.5, 0.1, 0.7,
                     1e21, 5e-324, 1.7976931348623157e308, 1.005, 2.675});
  zbtest::RunOptions o;
  for (double x : v) {
    char hex[40];
    std::snprintf(hex, sizeof hex, "%a\n", x);
    o.input += hex;
  }
  const auto r = zbtest::run_program({"/usr/bin/python3", "-c", "import sys\nfrom decimal import *\n"
      "for l in sys.stdin:\n    x = float.fromhex(l)\n    g = ('%.15g' % x).replace('e', 'E')\n"
      "    q = Decimal(repr(x)).quantize(Decimal('0.01'), rounding=ROUND_HALF_UP) if abs(x) < 1e15 else 0\n"
      "    print(g.replace('-0', '0') if x == 0 else g, ('-' if q < 0 else '') + '{:,}'.format(abs(q)))"}, o);
  std::istringstream lines(r.out);
  std::vector<std::pair<std::string, std::string>> py;
  for (std::string g, fixed; lines >> g >> fixed;) py.emplace_back(g, fixed);
  if (py.size() != v.size()) GTEST_SKIP() << "python3 is not available";
  for (size_t i = 0; i < v.size(); ++i) {
    char x[32];
    std::snprintf(x, sizeof x, "%.17g", v[i]);
    ASSERT_EQ(show('n', "[GENERAL]", x).first, py[i].first) << x;
    if (std::fabs(v[i]) < 1e15) {
      ASSERT_EQ(show('n', "#,##0.00", x).first, py[i].second) << x;
    }
  }
}

}  // namespace
