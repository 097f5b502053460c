// Date and time values: the shdt functions. Proleptic Gregorian calendar, no
// time zones. Years are stored less 1900, months from 0.
#include <cstdint>
#include <cstring>

#include "memory/intl.h"
#include "platform/platform.h"
#include "zbshr/format.h"

namespace {

constexpr int kCum[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};
constexpr int kMonthDays[2][12] = {
    {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
    {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
};
// Month numbers of the 24 recognition names (short and long of April,
// August, December, February, January, July, June, March, May, November,
// October, September).
constexpr int kNameMonth[24] = {4, 4, 8, 8, 12, 12, 2, 2, 1, 1, 7, 7,
                                6, 6, 3, 3, 5, 5, 11, 11, 10, 10, 9, 9};

inline int is_leap(int64_t y) { return ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0) ? 1 : 0; }
inline int year_len(int64_t y) { return 365 + is_leap(y); }

// Cumulative days before the month; months past December count as December's end.
inline int cum(int leap, int month) { return kCum[leap][month < 13 ? month : 12]; }

int64_t full_year(const SHDATETIME& d) { return static_cast<int64_t>(d.year) + 1900; }

int64_t day_of_year(const SHDATETIME& d) {  // 1-based
  return cum(is_leap(full_year(d)), d.month) + static_cast<int64_t>(d.day);
}

// Day within its century: the day of the year plus the years from the
// century's first year up to the year before; the first year of a century
// is a leap year only when the century number is divisible by 4.
int64_t day_in_century(const SHDATETIME& d) {
  const int64_t y = full_year(d);
  const int64_t n = y % 100;
  int64_t days = day_of_year(d);
  if (n != 0) {
    const int64_t century = y / 100;
    days += n * 365 + (n - 1) / 4 + (century % 4 == 0 ? 1 : 0);
  }
  return days;
}

bool later_than(const SHDATETIME& a, const SHDATETIME& b) {
  if (a.year != b.year) return a.year > b.year;
  if (a.month != b.month) return a.month > b.month;
  return a.day > b.day;
}

int64_t diff_days(const SHDATETIME& a, const SHDATETIME& b) {
  const SHDATETIME* late = &a;
  const SHDATETIME* early = &b;
  int64_t sign = 1;
  if (later_than(b, a)) {
    late = &b;
    early = &a;
    sign = -1;
  }
  // Each century crossed adds the days of the century being left.
  int64_t days = 0;
  const int64_t c_late = full_year(*late) / 100;
  int64_t c = full_year(*early) / 100;
  const int64_t cycles = (c_late - c) / 4;  // four centuries: 146097 days
  days += cycles * 146097;
  c += cycles * 4;
  for (; c < c_late; ++c) days += (c % 4 == 0) ? 36525 : 36524;
  return sign * (days + day_in_century(*late) - day_in_century(*early));
}

bool is_letter(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c >= 0x80; }
bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
bool is_sep(unsigned char c) { return c == '-' || c == '/' || c == ',' || c == '.' || c == ':'; }

enum FieldType { kDay, kMonth, kYear, kHour, kMinute, kSecond, kFraction };

constexpr FieldType kOrders[3][3] = {
    {kMonth, kDay, kYear},
    {kDay, kMonth, kYear},
    {kYear, kMonth, kDay},
};

constexpr int kWordAm = -1;
constexpr int kWordPm = -2;

// A word of a date text: am or pm (kWordAm, kWordPm), a month name (its
// number 1..12), or 0 for anything else. Kept out of line so that the
// number-only path of the parser stays small.
[[gnu::noinline]] int read_word(const unsigned char* s, size_t len) {
  char word[32];
  if (len >= sizeof word) return 0;
  std::memcpy(word, s, len);
  word[len] = '\0';
  if (zbshr::plat::lstrcmpiA(word, "am") == 0) return kWordAm;
  if (zbshr::plat::lstrcmpiA(word, "pm") == 0) return kWordPm;
  for (int i = 0; i < 24; ++i)
    if (zbshr::plat::lstrcmpiA(word, zbshr::intl::upper_month_name(i)) == 0) return kNameMonth[i];
  return 0;
}

}  // namespace

ZBSHR_API(void) shdtNow(SHDATETIME* dt) {
  if (dt == nullptr) return;
  zbshr::plat::SYSTEMTIME t{};
  zbshr::plat::GetLocalTime(&t);
  dt->microsecond = static_cast<uint32_t>(t.wMilliseconds) * 1000u;
  dt->year = static_cast<int16_t>(t.wYear - 1900);
  dt->month = static_cast<uint8_t>(t.wMonth - 1);
  dt->day = static_cast<uint8_t>(t.wDay);
  dt->hour = static_cast<uint8_t>(t.wHour);
  dt->minute = static_cast<uint8_t>(t.wMinute);
  dt->second = static_cast<uint8_t>(t.wSecond);
  dt->reserved = 0;
}

ZBSHR_API(void) shdtBuildTime(SHDATETIME* dt, int32_t year, int32_t month, int32_t day,
                              int32_t hour, int32_t minute, int32_t second,
                              uint32_t microsecond) {
  if (dt == nullptr) return;
  dt->year = static_cast<int16_t>(year - 1900);
  dt->month = static_cast<uint8_t>(month - 1);
  dt->day = static_cast<uint8_t>(day);
  dt->hour = static_cast<uint8_t>(hour);
  dt->minute = static_cast<uint8_t>(minute);
  dt->second = static_cast<uint8_t>(second);
  dt->microsecond = microsecond;
}

ZBSHR_API(int32_t) shdtDiffDate(const SHDATETIME* a, const SHDATETIME* b) {
  if (a == nullptr || b == nullptr) return 0;
  return static_cast<int32_t>(diff_days(*a, *b));
}

ZBSHR_API(int32_t) shdtDiffTime(const SHDATETIME* a, const SHDATETIME* b) {
  if (a == nullptr || b == nullptr) return 0;
  return ((static_cast<int32_t>(a->hour) - b->hour) * 60 + a->minute - b->minute) * 60 +
         a->second - b->second;
}

ZBSHR_API(int32_t) shdtDayOfWeek(const SHDATETIME* dt) {
  if (dt == nullptr) return 0;
  // Days from Sunday 1 January 1899; before that date the absolute value is
  // taken as it stands, so earlier dates do not get their true weekday.
  SHDATETIME base{};
  base.year = -1;
  base.month = 0;
  base.day = 1;
  int64_t d = diff_days(*dt, base);
  if (d < 0) d = -d;
  return static_cast<int32_t>(d % 7);
}

ZBSHR_API(void) shdtRelativeDate(SHDATETIME* result, const SHDATETIME* source, int32_t days) {
  if (result == nullptr || source == nullptr) return;
  const SHDATETIME src = *source;
  int64_t year = full_year(src);
  int64_t n = static_cast<int64_t>(days) + day_of_year(src) - 1;
  // Whole 400-year cycles first (146097 days each), then year by year.
  if (n >= 146097 || n < -146097) {
    const int64_t cycles = n / 146097;
    n -= cycles * 146097;
    year += cycles * 400;
  }
  while (n >= year_len(year)) {
    n -= year_len(year);
    ++year;
  }
  while (n < 0) {
    --year;
    n += year_len(year);
  }
  const int leap = is_leap(year);
  int month = 11;
  while (month > 0 && kCum[leap][month] > n) --month;
  *result = src;
  result->year = static_cast<int16_t>(year - 1900);
  result->month = static_cast<uint8_t>(month);
  result->day = static_cast<uint8_t>(n - kCum[leap][month] + 1);
}

ZBSHR_API(int32_t) shdtDayName(int32_t day, char* buffer) {
  if (buffer == nullptr || day < 0 || day > 6) return 0;
  const char* name = zbshr::intl::day_long(day);
  size_t n = std::strlen(name);
  if (n > 29) n = 29;
  std::memcpy(buffer, name, n);
  buffer[n] = '\0';
  return 1;
}

ZBSHR_API(void) shdtString(char* date_buffer, char* time_buffer) {
  SHDATETIME now{};
  shdtNow(&now);
  unsigned char compiled[SHFORMAT_BUFSIZE];
  if (date_buffer != nullptr) {
    date_buffer[0] = '\0';
    if (shformatCmplDateTimeMask(compiled, "[SHORTDATE]", sizeof compiled) == SHFORMAT_OK)
      shformatDateTime(date_buffer, 11, compiled, &now);
  }
  if (time_buffer != nullptr) {
    time_buffer[0] = '\0';
    if (shformatCmplDateTimeMask(compiled, "hh:mm:ss", sizeof compiled) == SHFORMAT_OK)
      shformatDateTime(time_buffer, 11, compiled, &now);
  }
}

ZBSHR_API(int32_t) shdtParse(SHDATETIME* dt, const char* text, int32_t mode) {
  return zbshr_shdt_parse_order(dt, text, mode, -1);
}

ZBSHR_API(int32_t) zbshr_shdt_parse_order(SHDATETIME* dt, const char* text, int32_t mode, int32_t given) {
  if (dt == nullptr || text == nullptr || mode < 1 || mode > 3) return SHDT_E_TEXT;
  // The regional date order is read only when a date field is met.
  int order = given < 0 ? -1 : given > 2 ? 0 : static_cast<int>(given);
  auto date_type = [&](int f) -> FieldType {
    if (order < 0) {
      order = zbshr::intl::settings().date_order;
      if (order < 0 || order > 2) order = 0;
    }
    return kOrders[order][f];
  };

  // Working fields by type (day, month, year, hour, minute, second,
  // fraction), -1 while unset. `cur` walks the positions: three date fields
  // in the regional order, then hour, minute, second and fraction.
  int64_t val[7] = {-1, -1, -1, -1, -1, -1, -1};
  int cur = mode == 3 ? 3 : 0;
  const int last = mode == 2 ? 2 : 6;

  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  bool ended = false;  // after am/pm nothing may follow
  for (;;) {
    while (*p == ' ') ++p;
    if (*p == 0) break;
    if (ended) return SHDT_E_TEXT;
    if (is_digit(*p)) {
      const unsigned char* s = p;
      int64_t v = 0;
      while (is_digit(*p)) {
        if (p - s >= 18) return SHDT_E_TEXT;
        v = v * 10 + (*p - '0');
        ++p;
      }
      const int nd = static_cast<int>(p - s);
      if (cur > last) return SHDT_E_TEXT;
      FieldType type;
      if (cur < 3) {
        if (cur == 0 && nd == 4) order = 2;  // a 4-digit first field is a year
        type = date_type(cur);
      } else {
        type = static_cast<FieldType>(cur);
      }
      switch (type) {
        case kDay:
          if (v < 1 || v > 31) return SHDT_E_DAY;
          break;
        case kMonth:
          if (v < 1 || v > 12) return SHDT_E_MONTH;
          break;
        case kYear:
          if (nd == 2)
            v += v >= 50 ? 1900 : 2000;
          else if (nd != 4)
            return SHDT_E_YEAR;
          break;
        case kHour:
          if (v > 23) return SHDT_E_HOUR;
          break;
        case kMinute:
          if (v > 59) return SHDT_E_MINUTE;
          break;
        case kSecond:
          if (v > 59) return SHDT_E_SECOND;
          break;
        case kFraction: {
          if (nd > 6) return SHDT_E_FRACTION;
          static constexpr int64_t kScale[7] = {1, 100000, 10000, 1000, 100, 10, 1};
          v *= kScale[nd];
          break;
        }
      }
      val[type] = v;
      ++cur;
    } else if (is_letter(*p)) {
      const unsigned char* s = p;
      while (is_letter(*p)) ++p;
      const int month = read_word(s, static_cast<size_t>(p - s));
      if (month == kWordAm || month == kWordPm) {
        int64_t& hour = val[kHour];
        if (hour < 0) return SHDT_E_TEXT;
        if (month == kWordAm && hour == 12) hour = 0;
        if (month == kWordPm && hour != 12) hour += 12;
        if (hour >= 24) return SHDT_E_HOUR;
        ended = true;
        continue;
      }
      const size_t len = static_cast<size_t>(p - s);
      if (month == 0 || cur > last || cur >= 3 || date_type(cur) != kMonth) return SHDT_E_TEXT;
      val[kMonth] = month;
      ++cur;
      if (len == 3 && month != 5 && *p == '.') ++p;
    } else {
      return SHDT_E_TEXT;  // a separator before the first field, or a stray character
    }
    // One separator may stand between fields.
    while (*p == ' ') ++p;
    if (is_sep(*p)) {
      ++p;
      while (*p == ' ') ++p;
      if (*p == 0 || is_sep(*p)) return SHDT_E_TEXT;
    }
  }

  const int64_t day = val[kDay], month = val[kMonth], year = val[kYear];
  if (mode == 3) {
    if (val[kHour] < 0) return SHDT_E_TEXT;
  } else {
    if (year < 0 || month < 0 || day < 0) return SHDT_E_TEXT;
  }
  for (int f = kHour; f <= kFraction; ++f)
    if (val[f] < 0) val[f] = 0;
  if (mode != 3 && day > kMonthDays[is_leap(year)][month - 1]) return SHDT_E_DAY;

  switch (mode) {
    case 1:
      dt->microsecond = static_cast<uint32_t>(val[kFraction]);
      dt->second = static_cast<uint8_t>(val[kSecond]);
      dt->minute = static_cast<uint8_t>(val[kMinute]);
      dt->hour = static_cast<uint8_t>(val[kHour]);
      dt->day = static_cast<uint8_t>(day);
      dt->month = static_cast<uint8_t>(month - 1);
      if (year > 9999) return SHDT_E_YEAR;
      dt->year = static_cast<int16_t>(year - 1900);
      break;
    case 2:
      dt->day = static_cast<uint8_t>(day);
      dt->month = static_cast<uint8_t>(month - 1);
      dt->hour = SHDT_NO_TIME_HOUR;
      if (year > 9999) return SHDT_E_YEAR;
      dt->year = static_cast<int16_t>(year - 1900);
      break;
    default:
      dt->year = SHDT_NO_DATE_YEAR;
      dt->reserved = 0;
      dt->second = static_cast<uint8_t>(val[kSecond]);
      dt->minute = static_cast<uint8_t>(val[kMinute]);
      dt->hour = static_cast<uint8_t>(val[kHour]);
      dt->microsecond = static_cast<uint32_t>(val[kFraction]);
      break;
  }
  return SHDT_OK;
}
