// Internal conversions between the working form and text or floating point,
// shared by the exported conversions and the decimal tools.
#pragma once

#include "decimal/core.h"

namespace zbshr::dec {

// Writes n as ConvDecimalToAscii does (at most SHDEC_TEXT_SIZE bytes with
// the terminator); returns the length.
int format_num(const Num& n, char* text);

// Parses text as ConvAsciiToDecimal does: 0, -306 or -307.
int parse_num(const char* text, Num& out);

// The shortest decimal that reads back as d, at most 28 places: 0, -304
// (infinite or too large) or -306 (not a number).
int double_to_num(double d, Num& out);

// The nearest double (float) to n.
double num_to_double(const Num& n);
float num_to_float(const Num& n);

}  // namespace zbshr::dec
