// Regional settings and the month and day name tables.
//
// zbshr_intl reads the [intl] section of the user's profile every time it is
// called; the name tables come from the library's string table and are loaded
// only once per process, on the first call made after the module instance is
// known. Readers go through settings() and the name accessors, which run
// start-up first when nothing has done so yet.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "memory/intl.h"
#include "platform/platform.h"
#include "zbshr/memory.h"

namespace zbshr::intl {
namespace {

constexpr int kNameSize = 30;  // 29 characters and the terminator

Settings g_settings;

// One-shot flag: true until the names have been loaded.
bool g_names_pending = true;

char g_upper_months[24][kNameSize];
char g_month_short[12][kNameSize];
char g_month_long[12][kNameSize];
char g_day_short[7][kNameSize];
char g_day_long[7][kNameSize];

// Reads a profile string into a buffer of `size` bytes.
void read_string(const char* key, const char* def, char* out, plat::DWORD size) {
  plat::GetProfileStringA("intl", key, def, out, size);
  out[size - 1] = '\0';
}

// Reads a regional text into a field. A value that is empty or does not fit
// whole in the field gives the default instead: a date pattern or an AM/PM
// word cut short would change the meaning of every date shown with it.
template <size_t N>
void read_field(const char* key, const char* def, char (&field)[N]) {
  char buf[256];
  plat::DWORD n = plat::GetProfileStringA("intl", key, def, buf, sizeof buf);
  buf[sizeof buf - 1] = '\0';
  const size_t len = std::strlen(buf);
  const char* use = (len == 0 || len >= N || n >= sizeof buf - 1) ? def : buf;
  const size_t m = std::min(std::strlen(use), N - 1);
  std::memset(field, 0, N);
  std::memcpy(field, use, m);
}

// Reads a one-character separator: the first character of the value, or the
// default's when the value is empty (a NUL separator would end every number
// formatted with it).
char read_separator(const char* key, char def) {
  const char defs[2] = {def, '\0'};
  char buf[10];
  read_string(key, defs, buf, sizeof buf);
  return buf[0] != '\0' ? buf[0] : def;
}

int32_t read_int(const char* key, int32_t def) {
  return static_cast<int32_t>(plat::GetProfileIntA("intl", key, def));
}

void load_names(plat::HINSTANCE inst) {
  // 700-709 then 720-733: the upper-case recognition names.
  for (int i = 0; i < 24; ++i) {
    plat::UINT id = static_cast<plat::UINT>(i < 10 ? 700 + i : 720 + (i - 10));
    plat::LoadStringA(inst, id, g_upper_months[i], kNameSize);
  }
  for (int m = 0; m < 12; ++m) {
    plat::LoadStringA(inst, static_cast<plat::UINT>(734 + m), g_month_short[m], kNameSize);
    plat::LoadStringA(inst, static_cast<plat::UINT>(746 + m), g_month_long[m], kNameSize);
  }
  for (int d = 0; d < 7; ++d) {
    plat::LoadStringA(inst, static_cast<plat::UINT>(758 + d), g_day_short[d], kNameSize);
    plat::LoadStringA(inst, static_cast<plat::UINT>(765 + d), g_day_long[d], kNameSize);
  }
}

void read_settings() {
  Settings s;
  char buf[10];

  // Separators keep only the first character of what is stored; an empty
  // value keeps the default.
  s.decimal_sep = read_separator("sDecimal", '.');
  s.thousand_sep = read_separator("sThousand", ',');

  // The currency symbol: at most 9 characters.
  read_string("sCurrency", "$", buf, sizeof buf);
  std::memcpy(s.currency, buf, sizeof s.currency);
  s.currency[sizeof s.currency - 1] = '\0';

  s.currency_pos = read_int("iCurrency", 0);
  s.currency_digits = read_int("iCurrDigits", 2);
  s.neg_currency = read_int("iNegCurr", 0);

  // Date and time conventions used by the date and format code.
  s.date_order = read_int("iDate", 0);
  read_field("sTime", ":", s.time_sep);
  read_field("sShortDate", "M/d/yyyy", s.short_date);
  read_field("sLongDate", "dddd, MMMM dd, yyyy", s.long_date);
  read_field("s1159", "AM", s.am);
  read_field("s2359", "PM", s.pm);

  g_settings = s;
}

const char* entry(const char (*table)[kNameSize], int count, int index) {
  ensure_started();
  if (index < 0 || index >= count) return "";
  return table[index];
}

}  // namespace

const Settings& settings() {
  ensure_started();
  return g_settings;
}

const char* upper_month_name(int index) { return entry(g_upper_months, 24, index); }
const char* month_short(int month) { return entry(g_month_short, 12, month); }
const char* month_long(int month) { return entry(g_month_long, 12, month); }
const char* day_short(int day) { return entry(g_day_short, 7, day); }
const char* day_long(int day) { return entry(g_day_long, 7, day); }

// Called by zbshr_intl (and so by start-up): the settings every time, the
// names once the module instance is known.
void reload() {
  read_settings();
  plat::HINSTANCE inst = module_instance();
  if (inst != nullptr && g_names_pending) {
    g_names_pending = false;
    load_names(inst);
  }
}

}  // namespace zbshr::intl

extern "C" {

ZBSHR_API(void) zbshr_intl(void) {
  try {
    zbshr::intl::reload();
  } catch (...) {
    // Settings keep their previous values when the profile cannot be read.
  }
}

ZBSHR_API(int32_t) ZBSHR_FeatureUnsupported(void* owner) {
  namespace plat = zbshr::plat;
  try {
    zbshr::intl::ensure_started();
    plat::HINSTANCE inst = zbshr::intl::module_instance();
    char format[40];
    char text[300];
    plat::LoadStringA(inst, 107, format, sizeof format);
    plat::LoadStringA(inst, 108, text, sizeof text);

    // The caption is "Release %d.%d" filled with the release 5.0. Only %d and
    // %% are expanded, so a translated string can never misuse the argument
    // list.
    char caption[64];
    const int args[2] = {5, 0};
    int next_arg = 0;
    size_t out = 0;
    for (const char* p = format; *p && out + 1 < sizeof caption; ++p) {
      if (p[0] == '%' && p[1] == 'd') {
        char num[12];
        int n = std::snprintf(num, sizeof num, "%d", next_arg < 2 ? args[next_arg] : 0);
        ++next_arg;
        for (int i = 0; i < n && out + 1 < sizeof caption; ++i) caption[out++] = num[i];
        ++p;
      } else if (p[0] == '%' && p[1] == '%') {
        caption[out++] = '%';
        ++p;
      } else {
        caption[out++] = *p;
      }
    }
    caption[out] = '\0';

    plat::MessageBeep(0);
    return plat::MessageBoxA(static_cast<plat::HWND>(owner), text, caption, plat::MB_ICONSTOP);
  } catch (...) {
    return 0;
  }
}

ZBSHR_API(int32_t) WEP(int32_t /*param*/) { return 1; }

}  // extern "C"
