// Date and time values: arithmetic checked against Python's datetime over every day from 1899 to 2100, the
// parser's results and error numbers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "regional.h"
#include "zbshr/format.h"

namespace {

SHDATETIME make(int y, int m, int d, int h = 0, int mi = 0, int s = 0, uint32_t us = 0) {
  SHDATETIME t{};
  shdtBuildTime(&t, y, m, d, h, mi, s, us);
  return t;
}
std::string ymd(const SHDATETIME& a) {
  return std::to_string(a.year + 1900) + "-" + std::to_string(a.month + 1) + "-" + std::to_string(a.day);
}

TEST(FormatDates, RecordLayout) {
  const SHDATETIME t = make(1998, 7, 4, 13, 14, 15, 999999);
  const unsigned char want[12] = {0x3F, 0x42, 0x0F, 0, 98, 0, 6, 4, 13, 14, 15, 0};
  ASSERT_EQ(sizeof t, 12u);
  EXPECT_EQ(std::memcmp(&t, want, 12), 0);
}

TEST(FormatDates, EveryDayAgreesWithPython) {
  FILE* p = popen("/usr/bin/python3 -c \"import datetime\nd = datetime.date(1899, 1, 1)\n"
                  "while d.year < 2101:\n    print(d.year, d.month, d.day, d.isoweekday() % 7)\n"
                  "    d += datetime.timedelta(days=1)\"", "r");
  if (p == nullptr) GTEST_SKIP() << "python3 is not available";
  const SHDATETIME base = make(1899, 1, 1);
  SHDATETIME prev{}, r{};
  int y, m, d, weekday;
  long n = 0;
  for (; std::fscanf(p, "%d %d %d %d", &y, &m, &d, &weekday) == 4; ++n) {
    const SHDATETIME t = make(y, m, d, 23, 59, 59);
    const std::string want = std::to_string(y) + "-" + std::to_string(m) + "-" + std::to_string(d);
    ASSERT_EQ(shdtDiffDate(&t, &base), n) << want;
    ASSERT_EQ(shdtDiffDate(&base, &t), -n);
    ASSERT_EQ(shdtDayOfWeek(&t), weekday) << want;
    shdtRelativeDate(&r, &base, static_cast<int32_t>(n));
    ASSERT_EQ(ymd(r), want);
    if (n > 0) {
      shdtRelativeDate(&r, &prev, 1);
      ASSERT_EQ(ymd(r), want);
      shdtRelativeDate(&r, &t, -1);
      ASSERT_EQ(ymd(r), ymd(prev));
    }
    prev = t;
  }
  pclose(p);
  if (n == 0) GTEST_SKIP() << "python3 is not available";
  EXPECT_EQ(n, 73779);
}

TEST(FormatDates, ArithmeticBeyondThePythonRange) {
  SHDATETIME a = make(1999, 12, 31, 5, 6, 7, 8), b{}, r{};
  shdtRelativeDate(&r, &a, 1);  // the time of day is kept
  EXPECT_TRUE(ymd(r) == "2000-1-1" && r.hour == 5 && r.minute == 6 && r.second == 7 && r.microsecond == 8u);
  // Before 1899 the distance is taken as it stands: 31 December 1898 (a Saturday) reads as Monday.
  a = make(1898, 12, 31);
  EXPECT_EQ(shdtDayOfWeek(&a), 1);
  a = make(1898, 12, 25);
  EXPECT_EQ(shdtDayOfWeek(&a), 0);
  // Long spans: 400 years are 146097 days; far moves stay exact.
  a = make(1600, 2, 29), b = make(2000, 2, 29);
  EXPECT_EQ(shdtDiffDate(&b, &a), 146097);
  shdtRelativeDate(&r, &a, 146097);
  EXPECT_EQ(ymd(r), "2000-2-29");
  a = make(1, 1, 1), b = make(9999, 12, 31);
  EXPECT_EQ(shdtDiffDate(&b, &a), 3652058);  // date(9999,12,31).toordinal() - 1
  shdtRelativeDate(&r, &a, 3652058);
  EXPECT_EQ(ymd(r), "9999-12-31");
  shdtRelativeDate(&r, &b, -3652058);
  EXPECT_EQ(ymd(r), "1-1-1");
  // Null pointers change nothing.
  r = make(2001, 2, 3);
  shdtRelativeDate(nullptr, &a, 1);
  shdtRelativeDate(&r, nullptr, 1);
  EXPECT_EQ(ymd(r), "2001-2-3");
  a = make(2000, 1, 1, 10, 0, 0, 999), b = make(1990, 5, 5, 9, 59, 30, 0);
  EXPECT_EQ(shdtDiffTime(&a, &b), 30);  // the time of day alone, whole seconds
  EXPECT_EQ(shdtDiffTime(&b, &a), -30);
  a = make(2000, 1, 1, 0, 0, 0), b = make(2000, 1, 1, 23, 59, 59);
  EXPECT_EQ(shdtDiffTime(&a, &b), -86399);
}

TEST(FormatDates, DayNamesNowAndString) {
  char buf[30];
  EXPECT_EQ(shdtDayName(0, buf), 1);
  EXPECT_STREQ(buf, "Sunday");
  EXPECT_EQ(shdtDayName(6, buf), 1);
  EXPECT_STREQ(buf, "Saturday");
  EXPECT_TRUE(shdtDayName(7, buf) == 0 && shdtDayName(-1, buf) == 0 && shdtDayName(1, nullptr) == 0);
  SHDATETIME now{};
  shdtNow(&now);
  EXPECT_TRUE(now.year >= 120 && now.month <= 11 && now.day >= 1 && now.hour <= 23 && now.microsecond % 1000 == 0);
  char d[11], t[11];
  shdtString(d, t);
  EXPECT_TRUE(std::regex_match(d, std::regex(R"(\d{1,2}/\d{1,2}/\d{4})"))) << d;
  EXPECT_TRUE(std::regex_match(t, std::regex(R"(\d\d:\d\d:\d\d)"))) << t;
  shdtString(nullptr, t);
  shdtString(d, nullptr);
}

using FormatParse = Regional;

// Every result as "Y-M-D h:m:s.us" (fields left as they were show as 0x77 bytes), or "!code".
std::string parse(const char* text, int32_t mode, int32_t order = -2) {
  SHDATETIME v;
  std::memset(&v, 0x77, sizeof v);
  const SHDATETIME before = v;
  const int32_t e = order == -2 ? shdtParse(&v, text, mode) : zbshr_shdt_parse_order(&v, text, mode, order);
  if (e != 0) return std::memcmp(&v, &before, sizeof v) == 0 ? "!" + std::to_string(e) : "!written";
  char b[80];
  std::snprintf(b, sizeof b, "%d-%d-%d %d:%d:%d.%u", v.year + 1900, v.month + 1, v.day, v.hour, v.minute, v.second,
                v.microsecond);
  return b;
}

TEST_F(FormatParse, ResultsAndErrorsInEveryOrder) {
  const struct {
    const char* settings;
    const char* text;
    int32_t mode;
    const char* want;
    int32_t order = -2;  // -2: shdtParse
  } rows[] = {
      // a date alone: hour 255, minute, second and microsecond untouched
      {"", "1/2/03", SHDT_DATE, "2003-1-2 255:119:119.2004318071"},
      {"", "1/2/50", SHDT_DATE, "1950-1-2 255:119:119.2004318071"},
      {"", "1/2/49", SHDT_DATE, "2049-1-2 255:119:119.2004318071"},
      // a time alone: year -32767, day and month untouched
      {"", "10:15:30.5", SHDT_TIME, "-30867-120-119 10:15:30.500000"},
      {"", "12-31-1999 23:59:58.25", SHDT_DATETIME, "1999-12-31 23:59:58.250000"},
      {"", " 7 . 4 , 1998 ", SHDT_DATETIME, "1998-7-4 0:0:0.0"},
      {"", "2/29/2000", SHDT_DATETIME, "2000-2-29 0:0:0.0"}, {"", "12/31/9999", SHDT_DATETIME, "9999-12-31 0:0:0.0"},
      {"", "2000-02-28 1:02:03", SHDT_DATETIME, "2000-2-28 1:2:3.0"},  // 4 digits first: year-month-day
      {"", "1998/7/4 3pm", SHDT_DATETIME, "1998-7-4 15:0:0.0"},
      {"", "Jan 2, 2003", SHDT_DATETIME, "2003-1-2 0:0:0.0"},  // names in the month's place, any case
      {"", "SEPTEMBER 30 1999", SHDT_DATETIME, "1999-9-30 0:0:0.0"},
      {"", "feb. 3 2004", SHDT_DATETIME, "2004-2-3 0:0:0.0"}, {"", "may 3 2004", SHDT_DATETIME, "2004-5-3 0:0:0.0"},
      {"", "may. 3 2004", SHDT_DATETIME, "2004-5-3 0:0:0.0"},  // after "May" the '.' is a separator
      {"", "may./3 2004", SHDT_DATETIME, "!6"}, {"", "jun./3 2004", SHDT_DATETIME, "2004-6-3 0:0:0.0"},
      {"", "2000-02-30", SHDT_DATE, "!1"}, {"", "1999-02-29", SHDT_DATE, "!1"}, {"", "1999-02-28", SHDT_DATE, "1999-2-28 255:119:119.2004318071"}, {"", "4/31/2001", SHDT_DATE, "!1"},
      {"", "1/32/2001", SHDT_DATE, "!1"}, {"", "1/0/2001", SHDT_DATE, "!1"}, {"", "1998-13-01", SHDT_DATE, "!2"},
      {"", "0/1/2001", SHDT_DATE, "!2"}, {"", "1/2/3", SHDT_DATE, "!7"}, {"", "1/2/003", SHDT_DATE, "!7"},
      {"", "1/2/20033", SHDT_DATE, "!7"}, {"", "1/2", SHDT_DATE, "!6"}, {"", "", SHDT_DATE, "!6"},
      {"", "/1/2/2003", SHDT_DATE, "!6"}, {"", "1//2/2003", SHDT_DATE, "!6"}, {"", "1/2/2003/", SHDT_DATE, "!6"},
      {"", "1;2;2003", SHDT_DATE, "!6"}, {"", "1/2/2003 10:00", SHDT_DATE, "!6"},  // no time in a date
      {"", "Jan/Feb/2003", SHDT_DATE, "!6"}, {"", "2 Jan 2003", SHDT_DATE, "!6"},  // a name in the day's place
      {"", "Janvier 2 2003", SHDT_DATE, "!6"}, {"", "1/2/2003 am", SHDT_DATE, "!6"},
      {"", "1234567890123456789/1/2003", SHDT_DATE, "!6"}, {"", "1/2/2003", 0, "!6"}, {"", "1/2/2003", 4, "!6"},
      {"", "12:30 am", SHDT_TIME, "-30867-120-119 0:30:0.0"}, {"", "12:30 PM", SHDT_TIME, "-30867-120-119 12:30:0.0"},
      {"", "1:30pm", SHDT_TIME, "-30867-120-119 13:30:0.0"}, {"", "13:00 am", SHDT_TIME, "-30867-120-119 13:0:0.0"},
      {"", "7", SHDT_TIME, "-30867-120-119 7:0:0.0"}, {"", "0:0:0.000001", SHDT_TIME, "-30867-120-119 0:0:0.1"},
      {"", "0:0:0.12", SHDT_TIME, "-30867-120-119 0:0:0.120000"},
      {"", "0:0:0.123456", SHDT_TIME, "-30867-120-119 0:0:0.123456"},
      {"", "0:0:0.1234567", SHDT_TIME, "!8"}, {"", "13:00 pm", SHDT_TIME, "!5"}, {"", "24:00", SHDT_TIME, "!5"},
      {"", "10:60", SHDT_TIME, "!4"}, {"", "10:59:60", SHDT_TIME, "!3"}, {"", "am", SHDT_TIME, "!6"},
      {"", "", SHDT_TIME, "!6"}, {"", "10:00 am x", SHDT_TIME, "!6"}, {"", "10:00 am 5", SHDT_TIME, "!6"},
      {"", "10::00", SHDT_TIME, "!6"}, {"", "10:00:00.5.5", SHDT_TIME, "!6"}, {"", "Jan", SHDT_TIME, "!6"},
      {"", "10h", SHDT_TIME, "!6"},
      {"iDate=1\n", "1/2/03", SHDT_DATETIME, "2003-2-1 0:0:0.0"},
      {"iDate=1\n", "15 Mar. 1998", SHDT_DATETIME, "1998-3-15 0:0:0.0"},
      {"iDate=1\n", "31.12.1999 8:05 pm", SHDT_DATETIME, "1999-12-31 20:5:0.0"},
      {"iDate=1\n", "12/31/1999", SHDT_DATE, "!2"}, {"iDate=1\n", "Mar 15 1998", SHDT_DATE, "!6"},
      {"iDate=1\n", "1999-12-31", SHDT_DATETIME, "1999-12-31 0:0:0.0"},  // 4 digits first still switch
      {"iDate=2\n", "03/1/2", SHDT_DATETIME, "2003-1-2 0:0:0.0"},
      {"iDate=2\n", "99 dec 31 23:59", SHDT_DATETIME, "1999-12-31 23:59:0.0"},
      {"iDate=2\n", "1/2/03", SHDT_DATE, "!7"},  // "1" is a 1-digit year
      // the order given per call wins; -1 follows the regional one, other values read month-day-year
      {"iDate=1\n", "01/02/03", SHDT_DATETIME, "2003-1-2 0:0:0.0", 0},
      {"iDate=1\n", "01/02/03", SHDT_DATETIME, "2003-2-1 0:0:0.0", 1},
      {"iDate=1\n", "01/02/03", SHDT_DATETIME, "2001-2-3 0:0:0.0", 2},
      {"iDate=1\n", "01/02/03", SHDT_DATETIME, "2003-2-1 0:0:0.0", -1},
      {"iDate=1\n", "01/02/03", SHDT_DATETIME, "2003-1-2 0:0:0.0", 7},
      {"", "12/31/1999", SHDT_DATE, "!2", 1}, {"", "1/2/03", SHDT_DATE, "!7", 2},
  };
  for (const auto& r : rows) {
    use(r.settings);
    EXPECT_EQ(parse(r.text, r.mode, r.order), r.want) << r.text << " " << r.mode << " " << r.order << " " << r.settings;
  }
  EXPECT_EQ(shdtParse(nullptr, "1/2/2003", 2), SHDT_E_TEXT);
  SHDATETIME v;
  EXPECT_EQ(zbshr_shdt_parse_order(nullptr, "1/2/03", SHDT_DATE, 0), SHDT_E_TEXT);
  ASSERT_EQ(shdtParse(&v, "10:15:30", SHDT_TIME), 0);
  EXPECT_EQ(v.reserved, 0);
}

}  // namespace
