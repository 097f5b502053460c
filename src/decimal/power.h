// Internal pieces of PowerDecimal, exposed for the decimal tools.
#pragma once

#include "decimal/core.h"

namespace zbshr::dec {

// Natural logarithm of x > 0 at 23 places: 0, -304 or -311.
int ln_num(const Num& x, Num& res);
// e^x at 23 places before normalisation: 0, -304 or -305 (res is then zero).
int exp_num(const Num& x, Num& res);
// base^n for n >= 0 on the multiplication core (unnormalised).
int int_power(const Num& base, unsigned n, Num& res);
// PowerDecimal on working values, normalised: 0, -304, -305, -309 or -310.
int power_nums(const Num& base, const Num& exponent, Num& r);

}  // namespace zbshr::dec
