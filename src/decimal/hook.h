// Attaching to the decimal error hook. The library never changes the hook;
// a debugging host linked with the library (a test program, a tool, a
// debugger session) may install its own function to see every code the
// decimal family reports, including the reported-only -305 and -308.
#pragma once

#include "zbshr/decimal.h"

namespace zbshr::dec {

// Installs hook (null restores the default, which does nothing) and returns
// the previous one.
SHDEC_ERROR_HOOK set_error_hook(SHDEC_ERROR_HOOK hook);
SHDEC_ERROR_HOOK error_hook();

}  // namespace zbshr::dec

// The default hook: does nothing; a debugger may break on it.
extern "C" void ZBSHR_CALL zbshr_decimal_default_error_hook(int16_t code, int32_t extra);
