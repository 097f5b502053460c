// Display formats: date and time masks (fields, names, 12-hour clock,
// fractions of a second, elapsed time, regional keywords) and their
// rendering.
#include <charconv>
#include <string>

#include "format/display_core.h"
#include "memory/intl.h"

namespace zbshr::fmt {
namespace {

// Date fields.
enum Field : uint8_t {
  dDay = 1, dMonth, dYear, dHour, dMinute, dSecond, dFraction,
  dElapsedHours, dElapsedMinutes, dElapsedSeconds
};

// AM/PM styles.
enum : uint8_t { apUpper = 0, apLower = 1, apA = 2, apa = 3 };

void add_time(Section& s) {
  const char* sep = intl::settings().time_sep;
  s.tok(tField, dHour, 2);
  s.lit(sep);
  s.tok(tField, dMinute, 2);
  s.lit(sep);
  s.tok(tField, dSecond, 2);
}

// "[h]", "[mm]", "[ss]"...: elapsed hours, minutes or seconds.
bool elapsed_keyword(std::string_view name, Section& s) {
  if (name.empty() || name.size() > 4) return false;
  const char u = ascii_upper(name[0]);
  for (char c : name)
    if (ascii_upper(c) != u) return false;
  const uint8_t n = static_cast<uint8_t>(name.size());
  if (u == 'H') s.tok(tField, dElapsedHours, n);
  else if (u == 'M') s.tok(tField, dElapsedMinutes, n);
  else if (u == 'S') s.tok(tField, dElapsedSeconds, n);
  else return false;
  return true;
}

int32_t date_letters(std::string_view m, size_t& i, Section& s) {
  const char u = ascii_upper(m[i]);
  size_t j = i;
  while (j < m.size() && ascii_upper(m[j]) == u) ++j;
  const size_t n = j - i;
  i = j;
  const uint8_t count = static_cast<uint8_t>(n);
  switch (u) {
    case 'D':
      if (n > 4) return SHFORMAT_E_DATETIME;
      s.tok(tField, dDay, count);
      break;
    case 'M':
      if (n > 5) return SHFORMAT_E_DATETIME;
      s.tok(tField, dMonth, count);
      break;
    case 'Y':
      if (n > 4) return SHFORMAT_E_DATETIME;
      s.tok(tField, dYear, static_cast<uint8_t>(n <= 2 ? 2 : 4));
      break;
    case 'H':
      if (n > 2) return SHFORMAT_E_DATETIME;
      s.tok(tField, dHour, count);
      break;
    case 'S': {
      if (n > 2) return SHFORMAT_E_DATETIME;
      s.tok(tField, dSecond, count);
      // "ss.000": fractions of a second after the seconds.
      if (i + 1 < m.size() && m[i] == '.' && m[i + 1] == '0') {
        size_t k = i + 1;
        while (k < m.size() && m[k] == '0') ++k;
        if (k - i - 1 > 6) return SHFORMAT_E_DATETIME;
        s.lit(std::string_view(&intl::settings().decimal_sep, 1));
        s.tok(tField, dFraction, static_cast<uint8_t>(k - i - 1));
        i = k;
      }
      break;
    }
    default:
      if (n > 6) return SHFORMAT_E_DATETIME;
      s.tok(tField, dFraction, count);
      break;
  }
  return SHFORMAT_OK;
}

int32_t date_items(std::string_view m, Section& s, int depth) {
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    const char u = ascii_upper(c);
    int32_t err = SHFORMAT_OK;
    if (read_common(m, i, s, err)) {
      if (err) return err;
      continue;
    }
    if (u == 'A') {
      if (m.size() - i >= 5 && iequals(m.substr(i, 5), "AM/PM")) {
        s.tok(tAmPm, c == 'A' ? apUpper : apLower);
        s.h.flags |= fTwelve;
        i += 5;
        continue;
      }
      if (m.size() - i >= 3 && iequals(m.substr(i, 3), "A/P")) {
        s.tok(tAmPm, c == 'A' ? apA : apa);
        s.h.flags |= fTwelve;
        i += 3;
        continue;
      }
    }
    if (u == 'G' && general_word_at(m, i)) {
      s.tok(tGeneral);
      i += 7;
    } else if (u == 'D' || u == 'M' || u == 'Y' || u == 'H' || u == 'S' || u == 'F') {
      if (int32_t e = date_letters(m, i, s)) return e;
    } else if (c == '[') {
      std::string_view name;
      if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
      if (depth > 0) return SHFORMAT_E_KEYWORD;
      if (iequals(name, "SHORTDATE")) {
        if (int32_t e = date_items(intl::settings().short_date, s, 1)) return e;
      } else if (iequals(name, "LONGDATE")) {
        if (int32_t e = date_items(intl::settings().long_date, s, 1)) return e;
      } else if (iequals(name, "TIME")) {
        add_time(s);
      } else if (iequals(name, "GENERAL")) {
        s.tok(tGeneral);
      } else if (const uint8_t colour = colour_index(name)) {
        s.h.colour = colour;
      } else if (!elapsed_keyword(name, s)) {
        return SHFORMAT_E_KEYWORD;
      }
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
  }
  return SHFORMAT_OK;
}

// "m" or "mm" is the minute when it follows an hour or precedes a second.
void settle_minutes(Section& s) {
  std::vector<size_t> fields;
  for (size_t at = 0; at < s.tokens.size(); at += static_cast<size_t>(token_size(&s.tokens[at])))
    if (s.tokens[at] == tField) fields.push_back(at);
  auto id = [&](size_t k) { return s.tokens[fields[k] + 1]; };
  for (size_t k = 0; k < fields.size(); ++k) {
    if (id(k) != dMonth || s.tokens[fields[k] + 2] > 2) continue;
    const bool after_hour = k > 0 && (id(k - 1) == dHour || id(k - 1) == dElapsedHours);
    const bool before_second =
        k + 1 < fields.size() && (id(k + 1) == dSecond || id(k + 1) == dElapsedSeconds);
    if (after_hour || before_second) s.tokens[fields[k] + 1] = dMinute;
  }
}

int32_t date_section(std::string_view m, Section& s) {
  if (int32_t e = date_items(m, s, 0)) return e;
  settle_minutes(s);
  s.h.flags |= fDigits;
  return SHFORMAT_OK;
}

// ------------------------------------------------------------------ rendering

// Days from 1 January of year 0 (proleptic Gregorian calendar).
int64_t civil_days(int64_t y, int m, int d) {  // m 1..12
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe;
}

int days_in_month(int year, int month) {  // month 0..11
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 1 && leap ? 29 : kDays[month];
}

bool date_ok(const SHDATETIME& v) {
  const int year = v.year + 1900;
  return year >= 0 && year <= 9999 && v.month <= 11 && v.day >= 1 &&
         v.day <= days_in_month(year, v.month);
}
bool time_ok(const SHDATETIME& v) {
  return (v.hour <= 23 || v.hour == SHDT_NO_TIME_HOUR) && v.minute <= 59 && v.second <= 59 &&
         v.microsecond <= 999999;
}

// The true day of the week, 0 = Sunday (1 January 2000 was a Saturday).
int weekday(const SHDATETIME& v) {
  const int64_t days = civil_days(v.year + 1900, v.month + 1, v.day) - civil_days(2000, 1, 1);
  return static_cast<int>(((days + 6) % 7 + 7) % 7);
}

const char* ampm_text(uint8_t style, bool pm, char* small) {
  const auto& st = intl::settings();
  const char* word = pm ? st.pm : st.am;
  switch (style) {
    case apUpper: return word;
    case apLower: {
      size_t i = 0;
      for (; word[i] && i < 7; ++i) small[i] = ascii_lower(word[i]);
      small[i] = '\0';
      return small;
    }
    case apA: small[0] = pm ? 'P' : 'A'; small[1] = '\0'; return small;
    default: small[0] = pm ? 'p' : 'a'; small[1] = '\0'; return small;
  }
}

void put_num(Out& o, int64_t v, int width) {
  char b[24];
  auto r = std::to_chars(b, b + sizeof b, v);
  for (int k = static_cast<int>(r.ptr - b); k < width; ++k) o.put('0');
  o.put(b, static_cast<size_t>(r.ptr - b));
}

// Elapsed seconds since 30 December 1899 (a time without a date: since
// midnight); -1 when the record cannot be counted that way.
int64_t elapsed_seconds(const SHDATETIME& v) {
  if (!time_ok(v)) return -1;
  int64_t days = 0;
  if (v.year != SHDT_NO_DATE_YEAR) {
    if (!date_ok(v)) return -1;
    days = civil_days(v.year + 1900, v.month + 1, v.day) - civil_days(1899, 12, 30);
    if (days < 0) return -1;
  }
  const int hour = v.hour == SHDT_NO_TIME_HOUR ? 0 : v.hour;
  return days * 86400 + hour * 3600 + v.minute * 60 + v.second;
}

int32_t render_field(const unsigned char* t, const SecView& s, const SHDATETIME& v, Out& o) {
  const int hour = v.hour == SHDT_NO_TIME_HOUR ? 0 : v.hour;
  const int count = t[2];
  const uint8_t id = t[1];
  if (id >= dDay && id <= dYear && !date_ok(v)) return SHFORMAT_E_VALUE;
  if (id >= dHour && !time_ok(v)) return SHFORMAT_E_VALUE;
  switch (id) {
    case dDay:
      if (count <= 2)
        put_num(o, v.day, count);
      else
        o.put(count == 3 ? intl::day_short(weekday(v)) : intl::day_long(weekday(v)));
      return SHFORMAT_OK;
    case dMonth:
      if (count <= 2)
        put_num(o, v.month + 1, count);
      else if (count == 5)
        o.put(intl::month_long(v.month)[0]);
      else
        o.put(count == 3 ? intl::month_short(v.month) : intl::month_long(v.month));
      return SHFORMAT_OK;
    case dYear:
      put_num(o, count == 2 ? (v.year + 1900) % 100 : v.year + 1900, count == 2 ? 2 : 4);
      return SHFORMAT_OK;
    case dHour: {
      int h = hour;
      if (s.h.flags & fTwelve) {
        h %= 12;
        if (h == 0) h = 12;
      }
      put_num(o, h, count);
      return SHFORMAT_OK;
    }
    case dMinute: put_num(o, v.minute, count); return SHFORMAT_OK;
    case dSecond: put_num(o, v.second, count); return SHFORMAT_OK;
    case dFraction: {
      char b[6];
      uint32_t us = v.microsecond;
      for (int k = 5; k >= 0; --k) {
        b[k] = static_cast<char>('0' + us % 10);
        us /= 10;
      }
      o.put(b, count <= 6 ? static_cast<size_t>(count) : 6);
      return SHFORMAT_OK;
    }
    case dElapsedHours: case dElapsedMinutes: case dElapsedSeconds: {
      const int64_t secs = elapsed_seconds(v);
      if (secs < 0) return SHFORMAT_E_VALUE;
      const int64_t unit = id == dElapsedHours ? 3600 : id == dElapsedMinutes ? 60 : 1;
      put_num(o, secs / unit, count);
      return SHFORMAT_OK;
    }
    default:
      return SHFORMAT_E_COMPILED;
  }
}

}  // namespace

int32_t compile_date(unsigned char* out, const char* mask, int32_t size) {
  return compile_value_and_null(out, mask, size, kKindDate, date_section);
}

int32_t render_date_section(const SecView& s, const SHDATETIME& v, Out& o) {
  for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t)) {
    switch (*t) {
      case tLit:
        o.put(reinterpret_cast<const char*>(t + 2), t[1]);
        break;
      case tField:
        if (int32_t e = render_field(t, s, v, o)) return e;
        break;
      case tAmPm: {
        if (!time_ok(v)) return SHFORMAT_E_VALUE;
        char small[8];
        const int hour = v.hour == SHDT_NO_TIME_HOUR ? 0 : v.hour;
        o.put(ampm_text(t[1], hour >= 12, small));
        break;
      }
      case tGeneral: {
        // The short date, then the time; a date without a time (hour 255)
        // shows only the date and a time without a date only the time.
        const bool has_date = v.year != SHDT_NO_DATE_YEAR;
        const bool has_time = v.hour != SHDT_NO_TIME_HOUR;
        Section g;
        if (has_date) {
          if (int32_t e = date_items(intl::settings().short_date, g, 1)) return e;
          settle_minutes(g);
          if (has_time) g.lit(" ");
        }
        if (!has_date || has_time) add_time(g);
        std::vector<unsigned char> buf(kSecHeader + g.tokens.size());
        g.h.len = static_cast<uint16_t>(buf.size());
        g.h.write(buf.data());
        std::copy(g.tokens.begin(), g.tokens.end(), buf.begin() + kSecHeader);
        SecView gv;
        gv.p = buf.data();
        gv.h = g.h;
        if (int32_t e = render_date_section(gv, v, o)) return e;
        break;
      }
      default:
        return SHFORMAT_E_COMPILED;
    }
  }
  return SHFORMAT_OK;
}

}  // namespace zbshr::fmt
