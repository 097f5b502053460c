/** @file
 * zbshr: decimal family.
 *
 * SHDEC is an exact fixed-point decimal: (-1)^sign x magnitude / 10^scale.
 * It is a 14-byte record of seven 16-bit words: sign, scale, then the 80-bit
 * magnitude least significant word first. The words are little-endian in
 * every stored or exchanged image (shFlipSHDEC, containers.h, converts a
 * record between byte orders); in memory they are host words.
 *
 * Every function takes caller-owned records; nothing is allocated. Functions
 * that return a pointer return null on error, functions that return a number
 * return the (negative) error code. Every error is also passed to the
 * decimal error hook as hook(code, 0) just before the function returns.
 */
#ifndef ZBSHR_DECIMAL_H
#define ZBSHR_DECIMAL_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/** An exact fixed-point decimal: (-1)^sign x magnitude / 10^scale. */
typedef struct SHDEC {
  uint16_t sign;    /**< bit 0 set = negative; other bits zero */
  int16_t scale;    /**< digits after the point, valid 0..28 */
  uint16_t mag[5];  /**< 80-bit magnitude, least significant word first */
} SHDEC;

/* Error codes of the decimal family. */
#define SHDEC_ERR_NULL       (-301) /**< a required SHDEC argument is null */
#define SHDEC_ERR_TEXTBUF    (-302) /**< the text buffer is null */
#define SHDEC_ERR_SCALE      (-303) /**< an operand's scale lies outside 0..28 */
#define SHDEC_ERR_OVERFLOW   (-304) /**< the result does not fit */
#define SHDEC_ERR_UNDERFLOW  (-305) /**< a non-zero result became zero (reported only) */
#define SHDEC_ERR_SYNTAX     (-306) /**< text is not a valid number */
#define SHDEC_ERR_RANGE      (-307) /**< too many digits, or outside the integer type */
#define SHDEC_ERR_FRACTION   (-308) /**< an integer conversion dropped a fraction (reported only) */
#define SHDEC_ERR_ZERODIV    (-309) /**< division by zero */
#define SHDEC_ERR_POWER      (-310) /**< bad arguments to PowerDecimal */
#define SHDEC_ERR_LOG        (-311) /**< logarithm of a value that is not positive (internal) */
#define SHDEC_ERR_PLACES     (-313) /**< a number of places lies outside 0..18 */

#define SHDEC_MAX_SCALE      28 /**< largest scale of a record */
#define SHDEC_MAX_PLACES     18 /**< largest number of places of the rounding functions */
/** Largest text ConvDecimalToAscii writes, terminator included. */
#define SHDEC_TEXT_SIZE      32

/** The decimal error hook: called as hook(code, 0) before every error return.
 * It does nothing in the library; a debugging host may attach its own. */
typedef void (ZBSHR_CALLBACK *SHDEC_ERROR_HOOK)(int16_t code, int32_t extra);

/* Attaches a debugging host's hook (null restores the library's, which does
 * nothing) and returns the previous one. The library itself never calls it. */
ZBSHR_BEGIN_DECLS
/** Attaches a debugging host's error hook. The library itself never calls this.
 * @param hook the new hook; null restores the library's, which does nothing
 * @return the previous hook */
ZBSHR_API(SHDEC_ERROR_HOOK) zbshr_set_decimal_error_hook(SHDEC_ERROR_HOOK hook);
ZBSHR_END_DECLS

/* Read-only constants. */
ZBSHR_EXPORT extern const SHDEC shdecOne;          /**< 1 */
ZBSHR_EXPORT extern const SHDEC shdecSevenTenths;  /**< 0.7 */
ZBSHR_EXPORT extern const SHDEC shdecLog2E;        /**< 1.44269504088896340735992 */
ZBSHR_EXPORT extern const SHDEC shdecLog10E;       /**< 0.43429448190325182765113 */
ZBSHR_EXPORT extern const SHDEC shdecLn2;          /**< 0.69314718055994530941723 */
ZBSHR_EXPORT extern const SHDEC shdecLn10;         /**< 2.30258509299404568401799 */
ZBSHR_EXPORT extern const SHDEC shdecExpCeiling;   /**< 43 */
ZBSHR_EXPORT extern const SHDEC shdecExpFloor;     /**< -42 */

/* Representation and conversions. */
/** Sets a record to zero (scale 0).
 * @param result the record
 * @return `result`; null (SHDEC_ERR_NULL) when it is null */
ZBSHR_API(SHDEC *) ZeroDecimal(SHDEC *result);
/** The scale of a value: its digits after the point.
 * @param value the value
 * @return the scale (0..28), or SHDEC_ERR_NULL / SHDEC_ERR_SCALE */
ZBSHR_API(int16_t) DecimalPrecision(const SHDEC *value);
/** The sign of a value (a zero with its sign bit set counts as zero).
 * @param value the value
 * @return -1, 0 or 1, or SHDEC_ERR_NULL / SHDEC_ERR_SCALE */
ZBSHR_API(int16_t) TestSignDecimal(const SHDEC *value);
/** Writes a value as text.
 * @param text destination of at least SHDEC_TEXT_SIZE bytes
 * @param value the value
 * @return `text`; null for a null text (SHDEC_ERR_TEXTBUF) or a bad value (SHDEC_ERR_NULL,
 *     SHDEC_ERR_SCALE; "(null)" is then written) */
ZBSHR_API(char *) ConvDecimalToAscii(char *text, const SHDEC *value);
/** Reads a value from text: spaces at either end, an optional '-', digits with an optional '.'
 * and an optional exponent; the point is always '.'. Trailing zeros count in the scale.
 * @param result the record to fill
 * @param text the text
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_TEXTBUF, SHDEC_ERR_SYNTAX
 *     (malformed), SHDEC_ERR_RANGE (magnitude of 2^79 or more, or scale above 28) */
ZBSHR_API(SHDEC *) ConvAsciiToDecimal(SHDEC *result, const char *text);
/** Converts a 32-bit integer (scale 0).
 * @param result the record to fill
 * @param value the integer
 * @return `result`; null (SHDEC_ERR_NULL) when it is null */
ZBSHR_API(SHDEC *) ConvLongToDecimal(SHDEC *result, int32_t value);
/** Converts a 16-bit integer (scale 0).
 * @param result the record to fill
 * @param value the integer
 * @return `result`; null (SHDEC_ERR_NULL) when it is null */
ZBSHR_API(SHDEC *) ConvIntToDecimal(SHDEC *result, int16_t value);
/** Converts an unsigned 16-bit integer (scale 0).
 * @param result the record to fill
 * @param value the integer
 * @return `result`; null (SHDEC_ERR_NULL) when it is null */
ZBSHR_API(SHDEC *) ConvUnsToDecimal(SHDEC *result, uint16_t value);
/** Converts an unsigned 32-bit integer (scale 0).
 * @param result the record to fill
 * @param value the integer
 * @return `result`; null (SHDEC_ERR_NULL) when it is null */
ZBSHR_API(SHDEC *) ConvUnsLongToDecimal(SHDEC *result, uint32_t value);
/** Converts to a 16-bit integer, rounded half up to units; a dropped fraction is reported as
 * SHDEC_ERR_FRACTION only.
 * @param result receives the integer (0 on error)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_RANGE (out of
 *     range) */
ZBSHR_API(int16_t *) ConvDecToInt(int16_t *result, const SHDEC *value);
/** Converts to an unsigned 16-bit integer, rounded half up to units; a dropped fraction is
 * reported as SHDEC_ERR_FRACTION only.
 * @param result receives the integer (0 on error)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_RANGE (out of
 *     range) */
ZBSHR_API(uint16_t *) ConvDecToUns(uint16_t *result, const SHDEC *value);
/** Converts to a 32-bit integer, rounded half up to units; a dropped fraction is reported as
 * SHDEC_ERR_FRACTION only.
 * @param result receives the integer (0 on error)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_RANGE (out of
 *     range) */
ZBSHR_API(int32_t *) ConvDecToLong(int32_t *result, const SHDEC *value);
/** Converts to an unsigned 32-bit integer, rounded half up to units; a dropped fraction is
 * reported as SHDEC_ERR_FRACTION only.
 * @param result receives the integer (0 on error)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_RANGE (out of
 *     range) */
ZBSHR_API(uint32_t *) ConvDecToUnsLong(uint32_t *result, const SHDEC *value);
/** Converts to the nearest float (ties to even).
 * @param result receives the value (0 for a bad value)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE */
ZBSHR_API(float *) ConvDecToFloat(float *result, const SHDEC *value);
/** Converts to the nearest double (ties to even).
 * @param result receives the value (0 for a bad value)
 * @param value the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE */
ZBSHR_API(double *) ConvDecToDouble(double *result, const SHDEC *value);
/** Converts a float, widened to double first, as ConvDoubleToDecimal.
 * @param result the record to fill
 * @param value the float
 * @return `result`; null on error as ConvDoubleToDecimal */
ZBSHR_API(SHDEC *) ConvFloatToDecimal(SHDEC *result, float value);
/** Converts a double to the shortest decimal that reads back as the same double, rounded half
 * up to 28 places when it needs more (a value that vanishes is reported as SHDEC_ERR_UNDERFLOW
 * and the zero returned).
 * @param result the record to fill
 * @param value the double
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_OVERFLOW (2^79 or more,
 *     infinity), SHDEC_ERR_SYNTAX (NaN) */
ZBSHR_API(SHDEC *) ConvDoubleToDecimal(SHDEC *result, double value);
/** Converts as ConvDoubleToDecimal, then rounds half up to `places` as RoundDecimal.
 * @param result the record to fill
 * @param value the double
 * @param places places to keep, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_PLACES, or those of the
 *     conversion and the rounding */
ZBSHR_API(SHDEC *) ConvDoubleToDecimalRound(SHDEC *result, double value, int32_t places);

/* Arithmetic. The result may be the same record as an operand. */
/** Compares two values.
 * @param a first value
 * @param b second value
 * @return -1, 0 or 1 as a is below, equal to or above b; or SHDEC_ERR_NULL / SHDEC_ERR_SCALE */
ZBSHR_API(int16_t) CompareDecimal(const SHDEC *a, const SHDEC *b);
/** Compares the absolute values of two values.
 * @param a first value
 * @param b second value
 * @return -1, 0 or 1 as |a| is below, equal to or above |b|; or SHDEC_ERR_NULL /
 *     SHDEC_ERR_SCALE */
ZBSHR_API(int16_t) MagnitudeOfDecimal(const SHDEC *a, const SHDEC *b);
/** result = |a|.
 * @param result the record to fill (may be `a`)
 * @param a the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE */
ZBSHR_API(SHDEC *) AbsoluteDecimal(SHDEC *result, const SHDEC *a);
/** result = -a (the sign bit is flipped).
 * @param result the record to fill (may be `a`)
 * @param a the value
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE */
ZBSHR_API(SHDEC *) ChangeSignDecimal(SHDEC *result, const SHDEC *a);
/** result = a + b, normalised to at most 18 places and a magnitude below 2^63.
 * @param result the record to fill (may be an operand)
 * @param a first operand
 * @param b second operand
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_OVERFLOW */
ZBSHR_API(SHDEC *) AddDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
/** result = a - b, normalised to at most 18 places and a magnitude below 2^63.
 * @param result the record to fill (may be an operand)
 * @param a first operand
 * @param b second operand
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_OVERFLOW */
ZBSHR_API(SHDEC *) SubtractDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
/** result = a x b, normalised to at most 18 places and a magnitude below 2^63 (a product of
 * non-zero operands that vanishes is reported as SHDEC_ERR_UNDERFLOW and the zero returned).
 * @param result the record to fill (may be an operand)
 * @param a first operand
 * @param b second operand
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_OVERFLOW */
ZBSHR_API(SHDEC *) MultiplyDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
/** result = a x b rounded half up to `places` (a vanished product is reported as
 * SHDEC_ERR_UNDERFLOW and the zero returned).
 * @param result the record to fill (may be an operand)
 * @param a first operand
 * @param b second operand
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_OVERFLOW (2^63 or more) */
ZBSHR_API(SHDEC *) MultiplyDecimalAndRound(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                           int32_t places);
/** result = a x b truncated to `places` (a vanished product is reported as SHDEC_ERR_UNDERFLOW
 * and the zero returned).
 * @param result the record to fill (may be an operand)
 * @param a first operand
 * @param b second operand
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_OVERFLOW (2^63 or more) */
ZBSHR_API(SHDEC *) MultiplyDecimalAndTruncate(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                              int32_t places);
/** result = a / b with 18 places, the 18th truncated (not normalised: up to 24 digits).
 * @param result the record to fill (may be an operand)
 * @param a dividend
 * @param b divisor
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_ZERODIV,
 *     SHDEC_ERR_OVERFLOW, SHDEC_ERR_UNDERFLOW */
ZBSHR_API(SHDEC *) DivideDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
/** result = a / b rounded half up to `places`.
 * @param result the record to fill (may be an operand)
 * @param a dividend
 * @param b divisor
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_ZERODIV, SHDEC_ERR_OVERFLOW (2^63 or more), SHDEC_ERR_UNDERFLOW (a non-zero
 *     quotient that vanished) */
ZBSHR_API(SHDEC *) DivideDecimalAndRound(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                         int32_t places);
/** result = a / b truncated to `places`.
 * @param result the record to fill (may be an operand)
 * @param a dividend
 * @param b divisor
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_ZERODIV, SHDEC_ERR_OVERFLOW (2^63 or more), SHDEC_ERR_UNDERFLOW (a non-zero
 *     quotient that vanished) */
ZBSHR_API(SHDEC *) DivideDecimalAndTruncate(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                            int32_t places);
/** result = a - q x b with q the quotient truncated to units; the result has the dividend's
 * sign (-7 mod 2 is -1) and is normalised.
 * @param result the record to fill (may be an operand)
 * @param a dividend
 * @param b divisor
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_ZERODIV,
 *     SHDEC_ERR_OVERFLOW */
ZBSHR_API(SHDEC *) ModuloDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
/** Rounds half up on the magnitude to `places` (-2.5 rounds to -3); a non-zero value that
 * vanishes is reported as SHDEC_ERR_UNDERFLOW and the zero returned.
 * @param result the record to fill (may be `a`)
 * @param a the value
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_OVERFLOW (2^63 or more) */
ZBSHR_API(SHDEC *) RoundDecimal(SHDEC *result, const SHDEC *a, int32_t places);
/** Truncates to `places`; a non-zero value that vanishes is reported as SHDEC_ERR_UNDERFLOW and
 * the zero returned.
 * @param result the record to fill (may be `a`)
 * @param a the value
 * @param places places of the result, 0..18
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_PLACES,
 *     SHDEC_ERR_OVERFLOW (2^63 or more) */
ZBSHR_API(SHDEC *) TruncateDecimal(SHDEC *result, const SHDEC *a, int32_t places);
/** result = base ^ exponent. An integral exponent that fits 16 bits uses repeated squaring (a
 * negative one gives 1 / base^|n| as DivideDecimal); other exponents are computed as
 * exp(exponent x ln(base)). The result is normalised; a result that vanishes is reported as
 * SHDEC_ERR_UNDERFLOW and the zero returned.
 * @param result the record to fill (may be an operand)
 * @param base the base
 * @param exponent the exponent
 * @return `result`; null on error: SHDEC_ERR_NULL, SHDEC_ERR_SCALE, SHDEC_ERR_POWER (exponent
 *     0 with a base that is not positive; a non-integral exponent with a base that is not
 *     positive or below 5e-23), SHDEC_ERR_ZERODIV (negative integral exponent of a zero base),
 *     SHDEC_ERR_OVERFLOW */
ZBSHR_API(SHDEC *) PowerDecimal(SHDEC *result, const SHDEC *base, const SHDEC *exponent);

ZBSHR_END_DECLS

#endif
