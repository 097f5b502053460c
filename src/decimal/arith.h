// Internal forms of the published operations, shared by the power series
// and the decimal tools.
#pragma once

#include "decimal/core.h"

namespace zbshr::dec {

// CompareDecimal on working values: -1, 0 or 1.
int compare_nums(const Num& a, const Num& b);

// MultiplyDecimal: the product, normalised. 0 or -304.
int multiply_nums(const Num& a, const Num& b, Num& r);

// DivideDecimal: a / b truncated to 18 places (a zero dividend is returned
// as it stands). 0, -304, -305 or -309.
int divide_nums(const Num& a, const Num& b, Num& q);

}  // namespace zbshr::dec
