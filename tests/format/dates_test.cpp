// Date and time values: arithmetic checked against Python's datetime over
// every day from 1899 to 2100, the parser's results and error numbers.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "regional.h"
#include "zbshr/format.h"

namespace {

struct PyDay {
  int y, m, d;
  long ordinal;
  int weekday;  // 0 = Sunday
};

// Every day from 1 January 1899 to 31 December 2100, as Python sees it.
const std::vector<PyDay>& python_days() {
  static std::vector<PyDay> days = [] {
    std::vector<PyDay> out;
    FILE* p = popen(
        "/usr/bin/python3 -c \""
        "import datetime\n"
        "d = datetime.date(1899, 1, 1)\n"
        "end = datetime.date(2100, 12, 31)\n"
        "one = datetime.timedelta(days=1)\n"
        "while d <= end:\n"
        "    print(d.year, d.month, d.day, d.toordinal(), d.isoweekday() % 7)\n"
        "    d += one\n"
        "\"",
        "r");
    if (p == nullptr) return out;
    PyDay x;
    while (std::fscanf(p, "%d %d %d %ld %d", &x.y, &x.m, &x.d, &x.ordinal, &x.weekday) == 5)
      out.push_back(x);
    pclose(p);
    return out;
  }();
  return days;
}

SHDATETIME make(int y, int m, int d, int h = 0, int mi = 0, int s = 0, uint32_t us = 0) {
  SHDATETIME t{};
  shdtBuildTime(&t, y, m, d, h, mi, s, us);
  return t;
}

::testing::AssertionResult same_date(const SHDATETIME& a, int y, int m, int d) {
  if (a.year + 1900 == y && a.month + 1 == m && a.day == d) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << (a.year + 1900) << "-" << (a.month + 1) << "-"
                                       << int(a.day) << " instead of " << y << "-" << m << "-"
                                       << d;
}

TEST(FormatDates, RecordLayout) {
  SHDATETIME t{};
  shdtBuildTime(&t, 1998, 7, 4, 13, 14, 15, 999999);
  EXPECT_EQ(t.year, 98);
  EXPECT_EQ(t.month, 6);
  EXPECT_EQ(t.day, 4);
  EXPECT_EQ(t.hour, 13);
  EXPECT_EQ(t.minute, 14);
  EXPECT_EQ(t.second, 15);
  EXPECT_EQ(t.microsecond, 999999u);
  EXPECT_EQ(offsetof(SHDATETIME, microsecond), 0u);
  EXPECT_EQ(offsetof(SHDATETIME, year), 4u);
  EXPECT_EQ(offsetof(SHDATETIME, month), 6u);
  EXPECT_EQ(offsetof(SHDATETIME, day), 7u);
  EXPECT_EQ(offsetof(SHDATETIME, hour), 8u);
  EXPECT_EQ(offsetof(SHDATETIME, minute), 9u);
  EXPECT_EQ(offsetof(SHDATETIME, second), 10u);
  EXPECT_EQ(offsetof(SHDATETIME, reserved), 11u);
}

TEST(FormatDates, EveryDayAgreesWithPython) {
  const auto& days = python_days();
  if (days.empty()) GTEST_SKIP() << "python3 is not available";
  ASSERT_EQ(days.size(), 73779u);
  const SHDATETIME base = make(1899, 1, 1);
  SHDATETIME prev{};
  for (size_t i = 0; i < days.size(); ++i) {
    const PyDay& p = days[i];
    const SHDATETIME t = make(p.y, p.m, p.d, 23, 59, 59);
    const long delta = p.ordinal - days[0].ordinal;
    ASSERT_EQ(shdtDiffDate(&t, &base), delta) << p.y << "-" << p.m << "-" << p.d;
    ASSERT_EQ(shdtDiffDate(&base, &t), -delta);
    ASSERT_EQ(shdtDayOfWeek(&t), p.weekday) << p.y << "-" << p.m << "-" << p.d;
    SHDATETIME r{};
    shdtRelativeDate(&r, &base, static_cast<int32_t>(delta));
    ASSERT_TRUE(same_date(r, p.y, p.m, p.d));
    if (i > 0) {
      shdtRelativeDate(&r, &prev, 1);
      ASSERT_TRUE(same_date(r, p.y, p.m, p.d));
      shdtRelativeDate(&r, &t, -1);
      ASSERT_TRUE(same_date(r, prev.year + 1900, prev.month + 1, prev.day));
    }
    prev = t;
  }
}

TEST(FormatDates, ArithmeticEdgeCases) {
  SHDATETIME a = make(2000, 1, 1), b = make(1999, 12, 31), r{};
  EXPECT_EQ(shdtDiffDate(&a, &b), 1);
  EXPECT_EQ(shdtDiffDate(&b, &a), -1);
  b = make(1999, 12, 31, 5, 6, 7, 8);
  shdtRelativeDate(&r, &b, 1);
  EXPECT_TRUE(same_date(r, 2000, 1, 1));
  EXPECT_TRUE(r.hour == 5 && r.minute == 6 && r.second == 7 && r.microsecond == 8u);
  a = make(2000, 3, 1);
  shdtRelativeDate(&r, &a, -1);
  EXPECT_TRUE(same_date(r, 2000, 2, 29));
  a = make(1899, 1, 1);
  EXPECT_EQ(shdtDayOfWeek(&a), 0);
  a = make(1899, 1, 2);
  EXPECT_EQ(shdtDayOfWeek(&a), 1);
  // Before 1899 the distance is taken as it stands: 31 December 1898 (a
  // Saturday) reads as Monday, 1 day away from the Sunday.
  a = make(1898, 12, 31);
  EXPECT_EQ(shdtDayOfWeek(&a), 1);
  a = make(1898, 12, 25);
  EXPECT_EQ(shdtDayOfWeek(&a), 0);
  // Long spans: 400 years are 146097 days; far moves stay exact.
  a = make(1600, 2, 29);
  b = make(2000, 2, 29);
  EXPECT_EQ(shdtDiffDate(&b, &a), 146097);
  shdtRelativeDate(&r, &a, 146097);
  EXPECT_TRUE(same_date(r, 2000, 2, 29));
  a = make(1, 1, 1);
  b = make(9999, 12, 31);
  EXPECT_EQ(shdtDiffDate(&b, &a), 3652058);  // date(9999,12,31).toordinal() - 1
  shdtRelativeDate(&r, &a, 3652058);
  EXPECT_TRUE(same_date(r, 9999, 12, 31));
  shdtRelativeDate(&r, &b, -3652058);
  EXPECT_TRUE(same_date(r, 1, 1, 1));
  // Null pointers change nothing.
  r = make(2001, 2, 3);
  shdtRelativeDate(nullptr, &a, 1);
  shdtRelativeDate(&r, nullptr, 1);
  EXPECT_TRUE(same_date(r, 2001, 2, 3));
}

TEST(FormatDates, DiffTime) {
  SHDATETIME a = make(2000, 1, 1, 10, 0, 0, 999), b = make(1990, 5, 5, 9, 59, 30, 0);
  EXPECT_EQ(shdtDiffTime(&a, &b), 30);
  EXPECT_EQ(shdtDiffTime(&b, &a), -30);
  a = make(2000, 1, 1, 0, 0, 0);
  b = make(2000, 1, 1, 23, 59, 59);
  EXPECT_EQ(shdtDiffTime(&a, &b), -86399);
}

TEST(FormatDates, DayNames) {
  char buf[30];
  EXPECT_EQ(shdtDayName(0, buf), 1);
  EXPECT_STREQ(buf, "Sunday");
  EXPECT_EQ(shdtDayName(6, buf), 1);
  EXPECT_STREQ(buf, "Saturday");
  EXPECT_EQ(shdtDayName(7, buf), 0);
  EXPECT_EQ(shdtDayName(-1, buf), 0);
  EXPECT_EQ(shdtDayName(1, nullptr), 0);
}

TEST(FormatDates, NowAndString) {
  SHDATETIME now{};
  shdtNow(&now);
  EXPECT_GE(now.year, 120);
  EXPECT_LE(now.month, 11);
  EXPECT_GE(now.day, 1);
  EXPECT_LE(now.hour, 23);
  EXPECT_EQ(now.microsecond % 1000, 0u);
  char d[11], t[11];
  std::memset(d, 'x', sizeof d);
  std::memset(t, 'x', sizeof t);
  shdtString(d, t);
  EXPECT_TRUE(std::regex_match(d, std::regex(R"(\d{1,2}/\d{1,2}/\d{4})"))) << d;
  EXPECT_TRUE(std::regex_match(t, std::regex(R"(\d\d:\d\d:\d\d)"))) << t;
  shdtString(nullptr, t);
  shdtString(d, nullptr);
}

// ------------------------------------------------------------------ parsing

using FormatParse = Regional;

struct Parsed {
  int32_t code;
  SHDATETIME v;
};

Parsed parse(const char* text, int32_t mode) {
  Parsed p{};
  std::memset(&p.v, 0x77, sizeof p.v);
  p.code = shdtParse(&p.v, text, mode);
  return p;
}

::testing::AssertionResult is(const Parsed& p, int y, int m, int d, int h, int mi, int s,
                              uint32_t us = 0) {
  if (p.code != 0) return ::testing::AssertionFailure() << "error " << p.code;
  const SHDATETIME& v = p.v;
  if (v.year + 1900 != y || v.month + 1 != m || v.day != d || v.hour != h || v.minute != mi ||
      v.second != s || v.microsecond != us)
    return ::testing::AssertionFailure()
           << (v.year + 1900) << "-" << (v.month + 1) << "-" << int(v.day) << " " << int(v.hour)
           << ":" << int(v.minute) << ":" << int(v.second) << "." << v.microsecond;
  return ::testing::AssertionSuccess();
}

TEST_F(FormatParse, DatesMonthDayYear) {
  Parsed p = parse("1/2/03", SHDT_DATE);
  ASSERT_EQ(p.code, 0);
  EXPECT_EQ(p.v.year, 103);
  EXPECT_EQ(p.v.month, 0);
  EXPECT_EQ(p.v.day, 2);
  EXPECT_EQ(p.v.hour, 255);  // a date without a time
  // Minute, second and microsecond are left as they were.
  EXPECT_EQ(p.v.minute, 0x77);
  EXPECT_EQ(p.v.second, 0x77);
  EXPECT_EQ(p.v.microsecond, 0x77777777u);
  EXPECT_EQ(parse("1/2/50", SHDT_DATE).v.year, 50);
  EXPECT_EQ(parse("1/2/49", SHDT_DATE).v.year, 149);
  EXPECT_EQ(parse("1/2/99", SHDT_DATE).v.year, 99);
  EXPECT_EQ(parse("1/2/00", SHDT_DATE).v.year, 100);
  EXPECT_TRUE(is(parse("12-31-1999 23:59:58.25", SHDT_DATETIME), 1999, 12, 31, 23, 59, 58, 250000));
  EXPECT_TRUE(is(parse(" 7 . 4 , 1998 ", SHDT_DATETIME), 1998, 7, 4, 0, 0, 0));
  EXPECT_TRUE(is(parse("2/29/2000", SHDT_DATETIME), 2000, 2, 29, 0, 0, 0));
  // A 4-digit first field makes the order year-month-day.
  EXPECT_TRUE(is(parse("2000-02-28 1:02:03", SHDT_DATETIME), 2000, 2, 28, 1, 2, 3));
  EXPECT_TRUE(is(parse("1998/7/4 3pm", SHDT_DATETIME), 1998, 7, 4, 15, 0, 0));
  // Month names in the month's position, any case; a '.' after a short name.
  EXPECT_TRUE(is(parse("Jan 2, 2003", SHDT_DATETIME), 2003, 1, 2, 0, 0, 0));
  EXPECT_TRUE(is(parse("SEPTEMBER 30 1999", SHDT_DATETIME), 1999, 9, 30, 0, 0, 0));
  EXPECT_TRUE(is(parse("feb. 3 2004", SHDT_DATETIME), 2004, 2, 3, 0, 0, 0));
  EXPECT_TRUE(is(parse("may 3 2004", SHDT_DATETIME), 2004, 5, 3, 0, 0, 0));
  // After "May" the '.' is not part of the name but a separator.
  EXPECT_TRUE(is(parse("may. 3 2004", SHDT_DATETIME), 2004, 5, 3, 0, 0, 0));
  EXPECT_EQ(parse("may./3 2004", SHDT_DATETIME).code, SHDT_E_TEXT);
  EXPECT_TRUE(is(parse("jun./3 2004", SHDT_DATETIME), 2004, 6, 3, 0, 0, 0));
}

TEST_F(FormatParse, DateErrors) {
  EXPECT_EQ(parse("2000-02-30", SHDT_DATE).code, SHDT_E_DAY);
  EXPECT_EQ(parse("1999-02-29", SHDT_DATE).code, SHDT_E_DAY);
  EXPECT_EQ(parse("4/31/2001", SHDT_DATE).code, SHDT_E_DAY);
  EXPECT_EQ(parse("1/32/2001", SHDT_DATE).code, SHDT_E_DAY);
  EXPECT_EQ(parse("1/0/2001", SHDT_DATE).code, SHDT_E_DAY);
  EXPECT_EQ(parse("1998-13-01", SHDT_DATE).code, SHDT_E_MONTH);
  EXPECT_EQ(parse("0/1/2001", SHDT_DATE).code, SHDT_E_MONTH);
  EXPECT_EQ(parse("1/2/3", SHDT_DATE).code, SHDT_E_YEAR);
  EXPECT_EQ(parse("1/2/003", SHDT_DATE).code, SHDT_E_YEAR);
  EXPECT_EQ(parse("1/2/20033", SHDT_DATE).code, SHDT_E_YEAR);
  EXPECT_EQ(parse("1/2", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("/1/2/2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1//2/2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1/2/2003/", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1;2;2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1/2/2003 10:00", SHDT_DATE).code, SHDT_E_TEXT);  // no time in a date
  EXPECT_EQ(parse("Jan/Feb/2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("2 Jan 2003", SHDT_DATE).code, SHDT_E_TEXT);  // a name in the day's place
  EXPECT_EQ(parse("Janvier 2 2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1/2/2003 am", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1234567890123456789/1/2003", SHDT_DATE).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1/2/2003", 0).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("1/2/2003", 4).code, SHDT_E_TEXT);
  EXPECT_EQ(shdtParse(nullptr, "1/2/2003", 2), SHDT_E_TEXT);
  // A failed parse writes nothing.
  Parsed p = parse("2/30/2000", SHDT_DATETIME);
  EXPECT_EQ(p.code, SHDT_E_DAY);
  const unsigned char* raw = reinterpret_cast<const unsigned char*>(&p.v);
  for (size_t i = 0; i < sizeof p.v; ++i) EXPECT_EQ(raw[i], 0x77);
}

TEST_F(FormatParse, Times) {
  Parsed p = parse("10:15:30.5", SHDT_TIME);
  ASSERT_EQ(p.code, 0);
  EXPECT_EQ(p.v.year, -32767);
  EXPECT_EQ(static_cast<uint16_t>(p.v.year), 0x8001);
  EXPECT_EQ(p.v.reserved, 0);
  EXPECT_EQ(p.v.hour, 10);
  EXPECT_EQ(p.v.minute, 15);
  EXPECT_EQ(p.v.second, 30);
  EXPECT_EQ(p.v.microsecond, 500000u);
  // Day and month are left as they were.
  EXPECT_EQ(p.v.day, 0x77);
  EXPECT_EQ(p.v.month, 0x77);
  EXPECT_EQ(parse("12:30 am", SHDT_TIME).v.hour, 0);
  EXPECT_EQ(parse("12:30 PM", SHDT_TIME).v.hour, 12);
  EXPECT_EQ(parse("1:30pm", SHDT_TIME).v.hour, 13);
  EXPECT_EQ(parse("13:00 am", SHDT_TIME).v.hour, 13);
  EXPECT_EQ(parse("13:00 pm", SHDT_TIME).code, SHDT_E_HOUR);
  EXPECT_EQ(parse("7", SHDT_TIME).v.hour, 7);
  EXPECT_EQ(parse("0:0:0.000001", SHDT_TIME).v.microsecond, 1u);
  EXPECT_EQ(parse("0:0:0.12", SHDT_TIME).v.microsecond, 120000u);
  EXPECT_EQ(parse("0:0:0.1234", SHDT_TIME).v.microsecond, 123400u);
  EXPECT_EQ(parse("0:0:0.12345", SHDT_TIME).v.microsecond, 123450u);
  EXPECT_EQ(parse("0:0:0.123456", SHDT_TIME).v.microsecond, 123456u);
  EXPECT_EQ(parse("0:0:0.1234567", SHDT_TIME).code, SHDT_E_FRACTION);
  EXPECT_EQ(parse("24:00", SHDT_TIME).code, SHDT_E_HOUR);
  EXPECT_EQ(parse("10:60", SHDT_TIME).code, SHDT_E_MINUTE);
  EXPECT_EQ(parse("10:59:60", SHDT_TIME).code, SHDT_E_SECOND);
  EXPECT_EQ(parse("am", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("10:00 am x", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("10:00 am 5", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("10::00", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("10:00:00.5.5", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("Jan", SHDT_TIME).code, SHDT_E_TEXT);
  EXPECT_EQ(parse("10h", SHDT_TIME).code, SHDT_E_TEXT);
}

TEST_F(FormatParse, DayMonthYearOrder) {
  use("iDate=1\n");
  EXPECT_TRUE(is(parse("1/2/03", SHDT_DATETIME), 2003, 2, 1, 0, 0, 0));
  EXPECT_TRUE(is(parse("15 Mar. 1998", SHDT_DATETIME), 1998, 3, 15, 0, 0, 0));
  EXPECT_TRUE(is(parse("31.12.1999 8:05 pm", SHDT_DATETIME), 1999, 12, 31, 20, 5, 0));
  EXPECT_EQ(parse("12/31/1999", SHDT_DATE).code, SHDT_E_MONTH);
  EXPECT_EQ(parse("Mar 15 1998", SHDT_DATE).code, SHDT_E_TEXT);
  // A 4-digit first field still switches to year-month-day.
  EXPECT_TRUE(is(parse("1999-12-31", SHDT_DATETIME), 1999, 12, 31, 0, 0, 0));
}

// The order given per call wins over the regional one; -1 follows it, and
// any other value reads as month-day-year.
TEST_F(FormatParse, OrderGivenPerCall) {
  use("iDate=1\n");
  const struct {
    int32_t order;
    int y, m, d;
  } rows[] = {{0, 2003, 1, 2}, {1, 2003, 2, 1}, {2, 2001, 2, 3}, {-1, 2003, 2, 1}, {7, 2003, 1, 2}};
  for (const auto& r : rows) {
    Parsed p{};
    std::memset(&p.v, 0x77, sizeof p.v);
    p.code = zbshr_shdt_parse_order(&p.v, "01/02/03", SHDT_DATETIME, r.order);
    EXPECT_TRUE(is(p, r.y, r.m, r.d, 0, 0, 0)) << r.order;
  }
  SHDATETIME v{};
  EXPECT_EQ(zbshr_shdt_parse_order(&v, "12/31/1999", SHDT_DATE, 1), SHDT_E_MONTH);
  EXPECT_EQ(zbshr_shdt_parse_order(&v, "1/2/03", SHDT_DATE, 2), SHDT_E_YEAR);
  EXPECT_EQ(zbshr_shdt_parse_order(nullptr, "1/2/03", SHDT_DATE, 0), SHDT_E_TEXT);
}

TEST_F(FormatParse, YearMonthDayOrder) {
  use("iDate=2\n");
  EXPECT_TRUE(is(parse("03/1/2", SHDT_DATETIME), 2003, 1, 2, 0, 0, 0));
  EXPECT_TRUE(is(parse("99 dec 31 23:59", SHDT_DATETIME), 1999, 12, 31, 23, 59, 0));
  EXPECT_EQ(parse("1/2/03", SHDT_DATE).code, SHDT_E_YEAR);  // "1" is a 1-digit year
}

}  // namespace
