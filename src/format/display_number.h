// Display formats: numbers as decimal digits and their rendering through a
// compiled numeric format.
#pragma once

#include <cstdint>

#include "format/display_core.h"
#include "zbshr/decimal.h"

namespace zbshr::fmt {

// A number as decimal digits: value = 0.d[0]d[1]...d[n-1] x 10^point;
// n == 0 is zero. No leading or trailing zero digits.
struct Digits {
  char d[48];
  int n = 0;
  int point = 0;

  void trim();
  // Keeps `keep` significant digits, rounding half away from zero.
  void round_to(int keep);
  char at_int(int pos) const {  // pos 0 = units
    const int idx = point - 1 - pos;
    return (idx >= 0 && idx < n) ? d[idx] : '0';
  }
  char at_frac(int j) const {  // j 0 = tenths
    const int idx = point + j;
    return (idx >= 0 && idx < n) ? d[idx] : '0';
  }
};

enum class NumKind { Double, Float, Decimal };

struct NumValue {
  NumKind kind = NumKind::Double;
  bool neg = false;
  bool zero = false;
  double dv = 0;  // |value| (decimals: the nearest double)
  Digits exact;   // shortest digits of |value| (decimals: all digits)
  bool have_exact = true;
};

bool load_double(double v, NumValue& nv);
bool load_float(float v, NumValue& nv);
bool load_decimal(const SHDEC* v, NumValue& nv);

// The shortest digits of the value, computed on first use.
const Digits& exact_digits(NumValue& nv);

// The section a value is shown with (null for a null value), whether a '-'
// goes in front, or null when the format has no section for the value.
const SecView* pick_section(const Compiled& c, const NumValue* v, bool& minus);

// Renders |value| through a numeric section; `minus` puts a '-' in front.
int32_t render_number_section(const SecView& s, NumValue& v, bool minus, Out& o);

}  // namespace zbshr::fmt
