/* zbshr: decimal family.
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

typedef struct SHDEC {
  uint16_t sign;    /* bit 0 set = negative; other bits zero */
  int16_t scale;    /* digits after the point, valid 0..28 */
  uint16_t mag[5];  /* 80-bit magnitude, least significant word first */
} SHDEC;

/* Error codes of the decimal family. */
#define SHDEC_ERR_NULL       (-301) /* a required SHDEC argument is null */
#define SHDEC_ERR_TEXTBUF    (-302) /* the text buffer is null */
#define SHDEC_ERR_SCALE      (-303) /* an operand's scale lies outside 0..28 */
#define SHDEC_ERR_OVERFLOW   (-304) /* the result does not fit */
#define SHDEC_ERR_UNDERFLOW  (-305) /* a non-zero result became zero (reported only) */
#define SHDEC_ERR_SYNTAX     (-306) /* text is not a valid number */
#define SHDEC_ERR_RANGE      (-307) /* too many digits, or outside the integer type */
#define SHDEC_ERR_FRACTION   (-308) /* an integer conversion dropped a fraction (reported only) */
#define SHDEC_ERR_ZERODIV    (-309) /* division by zero */
#define SHDEC_ERR_POWER      (-310) /* bad arguments to PowerDecimal */
#define SHDEC_ERR_LOG        (-311) /* logarithm of a value that is not positive (internal) */
#define SHDEC_ERR_PLACES     (-313) /* a number of places lies outside 0..18 */

#define SHDEC_MAX_SCALE      28
#define SHDEC_MAX_PLACES     18
/* Largest text ConvDecimalToAscii writes, terminator included. */
#define SHDEC_TEXT_SIZE      32

/** The decimal error hook: called as hook(code, 0) before every error return.
 * It does nothing in the library; a debugging host may attach its own. */
typedef void (ZBSHR_CALLBACK *SHDEC_ERROR_HOOK)(int16_t code, int32_t extra);

/* Attaches a debugging host's hook (null restores the library's, which does
 * nothing) and returns the previous one. The library itself never calls it. */
ZBSHR_BEGIN_DECLS
ZBSHR_API(SHDEC_ERROR_HOOK) zbshr_set_decimal_error_hook(SHDEC_ERROR_HOOK hook);
ZBSHR_END_DECLS

/* Read-only constants. */
ZBSHR_EXPORT extern const SHDEC shdecOne;          /* 1 */
ZBSHR_EXPORT extern const SHDEC shdecSevenTenths;  /* 0.7 */
ZBSHR_EXPORT extern const SHDEC shdecLog2E;        /* 1.44269504088896340735992 */
ZBSHR_EXPORT extern const SHDEC shdecLog10E;       /* 0.43429448190325182765113 */
ZBSHR_EXPORT extern const SHDEC shdecLn2;          /* 0.69314718055994530941723 */
ZBSHR_EXPORT extern const SHDEC shdecLn10;         /* 2.30258509299404568401799 */
ZBSHR_EXPORT extern const SHDEC shdecExpCeiling;   /* 43 */
ZBSHR_EXPORT extern const SHDEC shdecExpFloor;     /* -42 */

/* Representation and conversions. */
ZBSHR_API(SHDEC *) ZeroDecimal(SHDEC *result);
ZBSHR_API(int16_t) DecimalPrecision(const SHDEC *value);
ZBSHR_API(int16_t) TestSignDecimal(const SHDEC *value);
ZBSHR_API(char *) ConvDecimalToAscii(char *text, const SHDEC *value);
ZBSHR_API(SHDEC *) ConvAsciiToDecimal(SHDEC *result, const char *text);
ZBSHR_API(SHDEC *) ConvLongToDecimal(SHDEC *result, int32_t value);
ZBSHR_API(SHDEC *) ConvIntToDecimal(SHDEC *result, int16_t value);
ZBSHR_API(SHDEC *) ConvUnsToDecimal(SHDEC *result, uint16_t value);
ZBSHR_API(SHDEC *) ConvUnsLongToDecimal(SHDEC *result, uint32_t value);
ZBSHR_API(int16_t *) ConvDecToInt(int16_t *result, const SHDEC *value);
ZBSHR_API(uint16_t *) ConvDecToUns(uint16_t *result, const SHDEC *value);
ZBSHR_API(int32_t *) ConvDecToLong(int32_t *result, const SHDEC *value);
ZBSHR_API(uint32_t *) ConvDecToUnsLong(uint32_t *result, const SHDEC *value);
ZBSHR_API(float *) ConvDecToFloat(float *result, const SHDEC *value);
ZBSHR_API(double *) ConvDecToDouble(double *result, const SHDEC *value);
ZBSHR_API(SHDEC *) ConvFloatToDecimal(SHDEC *result, float value);
ZBSHR_API(SHDEC *) ConvDoubleToDecimal(SHDEC *result, double value);
ZBSHR_API(SHDEC *) ConvDoubleToDecimalRound(SHDEC *result, double value, int32_t places);

/* Arithmetic. The result may be the same record as an operand. */
ZBSHR_API(int16_t) CompareDecimal(const SHDEC *a, const SHDEC *b);
ZBSHR_API(int16_t) MagnitudeOfDecimal(const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) AbsoluteDecimal(SHDEC *result, const SHDEC *a);
ZBSHR_API(SHDEC *) ChangeSignDecimal(SHDEC *result, const SHDEC *a);
ZBSHR_API(SHDEC *) AddDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) SubtractDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) MultiplyDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) MultiplyDecimalAndRound(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                           int32_t places);
ZBSHR_API(SHDEC *) MultiplyDecimalAndTruncate(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                              int32_t places);
ZBSHR_API(SHDEC *) DivideDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) DivideDecimalAndRound(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                         int32_t places);
ZBSHR_API(SHDEC *) DivideDecimalAndTruncate(SHDEC *result, const SHDEC *a, const SHDEC *b,
                                            int32_t places);
ZBSHR_API(SHDEC *) ModuloDecimal(SHDEC *result, const SHDEC *a, const SHDEC *b);
ZBSHR_API(SHDEC *) RoundDecimal(SHDEC *result, const SHDEC *a, int32_t places);
ZBSHR_API(SHDEC *) TruncateDecimal(SHDEC *result, const SHDEC *a, int32_t places);
ZBSHR_API(SHDEC *) PowerDecimal(SHDEC *result, const SHDEC *base, const SHDEC *exponent);

ZBSHR_END_DECLS

#endif
