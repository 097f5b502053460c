// Fuzz target: shdtParse of arbitrary text in every mode, under each date
// order. Byte 0 picks the regional settings (bits 0-1); the rest, up to the
// first NUL, is the text.
//
// Checked: the code is in range; an accepted record holds a real calendar
// date (checked against a Gregorian calendar of our own) and time, with the
// marks of its mode; a refused text leaves the record as it was (except for
// the year error, which comes after the other fields are stored); fields a
// mode does not set are left as they were; an
// accepted record printed as yyyy-mm-dd hh:mm:ss.ffffff reads back the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "fuzz_profiles.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

namespace {

#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

const char* const kProfiles[4] = {
    "",  // month-day-year
    "iDate=1\nsShortDate=dd.MM.yyyy\nsTime=.\n",
    "iDate=2\nsShortDate=yyyy-MM-dd\ns1159=vorm\ns2359=nachm\n",
    "iDate=9\nsShortDate=\nsTime=\n",  // an order out of range
};

void use_profile(int p) { fuzzprof::use_profile("dates", kProfiles, p); }

int days_in_month(int year, int month0) {
  static const int d[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month0 == 1 && leap ? 29 : d[month0];
}

void fill(SHDATETIME& r) { std::memset(&r, 0x77, sizeof r); }

bool same(const SHDATETIME& a, const SHDATETIME& b) {
  return a.microsecond == b.microsecond && a.year == b.year && a.month == b.month &&
         a.day == b.day && a.hour == b.hour && a.minute == b.minute && a.second == b.second &&
         a.reserved == b.reserved;
}

void check_time(const SHDATETIME& r) {
  FUZZ_CHECK(r.hour <= 23);
  FUZZ_CHECK(r.minute <= 59);
  FUZZ_CHECK(r.second <= 59);
  FUZZ_CHECK(r.microsecond <= 999999);
}

void check_date(const SHDATETIME& r) {
  const int year = r.year + 1900;
  FUZZ_CHECK(year >= 0 && year <= 9999);
  FUZZ_CHECK(r.month <= 11);
  FUZZ_CHECK(r.day >= 1 && r.day <= days_in_month(year, r.month));
}

// Parses `text` (a heap block of its exact size) and checks the result.
void parse_and_check(const char* text, int32_t mode) {
  SHDATETIME r, before;
  fill(r);
  fill(before);
  const int32_t rc = shdtParse(&r, text, mode);
  FUZZ_CHECK(rc >= SHDT_OK && rc <= SHDT_E_FRACTION);
  if (mode < 1 || mode > 3) {
    FUZZ_CHECK(rc == SHDT_E_TEXT);
    FUZZ_CHECK(same(r, before));
    return;
  }
  if (rc != SHDT_OK) {
    if (rc != SHDT_E_YEAR) FUZZ_CHECK(same(r, before));
    return;
  }
  // Each mode writes its own fields and leaves the others as they were.
  char again[64];
  if (mode == 3) {
    FUZZ_CHECK(r.year == SHDT_NO_DATE_YEAR && r.reserved == 0);
    FUZZ_CHECK(r.day == before.day && r.month == before.month);
    check_time(r);
    std::snprintf(again, sizeof again, "%02d:%02d:%02d.%06u", r.hour, r.minute, r.second,
                  unsigned(r.microsecond));
  } else {
    check_date(r);
    FUZZ_CHECK(r.reserved == before.reserved);
    if (mode == 2) {
      FUZZ_CHECK(r.hour == SHDT_NO_TIME_HOUR);
      FUZZ_CHECK(r.minute == before.minute && r.second == before.second &&
                 r.microsecond == before.microsecond);
    } else {
      check_time(r);
    }
    const int year = r.year + 1900;
    if (mode == 2)
      std::snprintf(again, sizeof again, "%04d-%02d-%02d", year, r.month + 1, r.day);
    else
      std::snprintf(again, sizeof again, "%04d-%02d-%02d %02d:%02d:%02d.%06u", year,
                    r.month + 1, r.day, r.hour, r.minute, r.second, unsigned(r.microsecond));
  }
  SHDATETIME back;
  fill(back);
  const int32_t rc2 = shdtParse(&back, again, mode);
  if (rc2 != SHDT_OK) std::fprintf(stderr, "\"%s\" gives %d\n", again, int(rc2));
  FUZZ_CHECK(rc2 == SHDT_OK);
  if (mode == 2) {
    // Only the date and the mark are promised for a date alone.
    FUZZ_CHECK(back.year == r.year && back.month == r.month && back.day == r.day &&
               back.hour == r.hour);
  } else {
    FUZZ_CHECK(same(back, r));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 1024) return 0;
  use_profile(data[0] & 3);
  const uint8_t* body = data + 1;
  const size_t n = size - 1;
  const uint8_t* nul = static_cast<const uint8_t*>(std::memchr(body, 0, n));
  const size_t len = nul ? size_t(nul - body) : n;
  std::unique_ptr<char[]> text(new char[len + 1]);
  std::memcpy(text.get(), body, len);
  text[len] = '\0';
  for (int32_t mode : {SHDT_DATETIME, SHDT_DATE, SHDT_TIME, 0, 4, -1}) parse_and_check(text.get(), mode);
  return 0;
}
