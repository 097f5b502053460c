// Regional settings and name tables: module state filled at start-up by
// zbshr_intl and read by the date, decimal, format and export code. Readers
// call zbshr::intl::settings(), which runs start-up first if the library was
// linked statically and nothing has initialised it yet.
#pragma once

#include <cstdint>

namespace zbshr::intl {

struct Settings {
  char decimal_sep = '.';      // "sDecimal", first character (never NUL)
  char thousand_sep = ',';     // "sThousand", first character (never NUL)
  char currency[10] = "$";     // "sCurrency", at most 9 characters
  int32_t currency_pos = 0;    // "iCurrency"
  int32_t currency_digits = 2; // "iCurrDigits"
  int32_t neg_currency = 0;    // "iNegCurr"
  int32_t date_order = 0;      // "iDate": 0 M-D-Y, 1 D-M-Y, 2 Y-M-D
  // Texts: an empty value, or one longer than its field holds, gives the
  // default, so a text is never cut. The date patterns are expanded into
  // compiled display formats, whose fixed buffer size relies on these limits.
  char time_sep[4] = ":";      // "sTime", at most 3 characters
  char short_date[32] = "M/d/yyyy";              // "sShortDate", at most 31
  char long_date[64] = "dddd, MMMM dd, yyyy";    // "sLongDate", at most 63
  char am[8] = "AM";           // "s1159", at most 7
  char pm[8] = "PM";           // "s2359", at most 7
};

// The current settings (start-up is run first when needed).
const Settings& settings();

// Name tables, each entry at most 29 characters plus terminator.
// upper_month_names(): the 24 upper-case recognition names in resource order
//   (string ids 700-709 then 720-733), pairs of short and long forms.
// month_short(m), month_long(m): m 0..11, "Jan"/"January".
// day_short(d), day_long(d): d 0..6 from Sunday.
const char* upper_month_name(int index);  // index 0..23
const char* month_short(int month);
const char* month_long(int month);
const char* day_short(int day);
const char* day_long(int day);

// Module state kept by start-up (see startup.cpp).
// ensure_started(): runs the process-attach steps once if the loader has not
// run them yet (static archives may drop the load-time constructor).
void ensure_started();
// The library's module instance (null before start-up).
void* module_instance();
// Size of the executable stub resource (custom resource 305 of type 256).
uint32_t stub_size();
// True when the operating system reports major version 4 or later.
bool new_shell();

}  // namespace zbshr::intl
