/** @file
 * zbshr: format family: date and time values, display formats and the
 * pattern matcher. */
#ifndef ZBSHR_FORMAT_H
#define ZBSHR_FORMAT_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ------------------------------------------------------------------ dates */

/** The date/time record: 12 bytes, no padding, fields in this order. */
typedef struct SHDATETIME {
  uint32_t microsecond; /**< 0..999999 */
  int16_t year;         /**< year minus 1900; -32767 marks a time without a date */
  uint8_t month;        /**< 0..11, January = 0 */
  uint8_t day;          /**< 1..31 */
  uint8_t hour;         /**< 0..23; 255 marks a date without a time */
  uint8_t minute;       /**< 0..59 */
  uint8_t second;       /**< 0..59 */
  uint8_t reserved;     /**< 0 for a parsed time, otherwise not interpreted */
} SHDATETIME;

/* shdtParse modes */
#define SHDT_DATETIME 1 /**< parse a date and a time */
#define SHDT_DATE 2 /**< parse a date */
#define SHDT_TIME 3 /**< parse a time */

/* shdtParse results */
#define SHDT_OK 0 /**< parsed */
#define SHDT_E_DAY 1 /**< bad day */
#define SHDT_E_MONTH 2 /**< bad month */
#define SHDT_E_SECOND 3 /**< bad second */
#define SHDT_E_MINUTE 4 /**< bad minute */
#define SHDT_E_HOUR 5 /**< bad hour */
#define SHDT_E_TEXT 6 /**< text not understood */
#define SHDT_E_YEAR 7 /**< bad year */
#define SHDT_E_FRACTION 8 /**< bad fraction of a second */

/* Marks written by shdtParse */
#define SHDT_NO_TIME_HOUR 255   /**< hour of a date parsed in mode 2 */
#define SHDT_NO_DATE_YEAR (-32767) /**< year of a time parsed in mode 3 */

/** Fills the record from the local clock (microsecond = milliseconds x 1000).
 * @param dt the record to fill; null is ignored */
ZBSHR_API(void) shdtNow(SHDATETIME* dt);
/** Stores year - 1900 and month - 1 and the other fields as given; no checks.
 * @param dt the record to fill; null is ignored
 * @param year the year (e.g. 2024)
 * @param month the month, 1..12
 * @param day the day of the month
 * @param hour the hour
 * @param minute the minute
 * @param second the second
 * @param microsecond the microseconds */
ZBSHR_API(void) shdtBuildTime(SHDATETIME* dt, int32_t year, int32_t month, int32_t day,
                              int32_t hour, int32_t minute, int32_t second,
                              uint32_t microsecond);
/** Days from b to a; time fields are ignored.
 * @param a the later date
 * @param b the earlier date
 * @return the day count (positive when a is later); 0 when either is null */
ZBSHR_API(int32_t) shdtDiffDate(const SHDATETIME* a, const SHDATETIME* b);
/** Seconds from b to a, from the hour, minute and second fields only.
 * @param a the later time
 * @param b the earlier time
 * @return the second count; 0 when either is null */
ZBSHR_API(int32_t) shdtDiffTime(const SHDATETIME* a, const SHDATETIME* b);
/** The day of the week of a date.
 * @param dt the date
 * @return 0 = Sunday .. 6 = Saturday; 0 for null */
ZBSHR_API(int32_t) shdtDayOfWeek(const SHDATETIME* dt);
/** result = source moved by `days` calendar days; time fields copied.
 * @param result the record to fill (nothing happens when it or source is null)
 * @param source the starting date
 * @param days days to add (negative goes back) */
ZBSHR_API(void) shdtRelativeDate(SHDATETIME* result, const SHDATETIME* source, int32_t days);
/** Copies the long name of a day of the week.
 * @param day 0..6, 0 = Sunday
 * @param buffer destination; 30 bytes hold any name
 * @return 1, or 0 for a day outside 0..6 or a null buffer */
ZBSHR_API(int32_t) shdtDayName(int32_t day, char* buffer);
/** Current local date with "[SHORTDATE]" and time with "hh:mm:ss".
 * @param date_buffer 11-byte destination of the date; null is skipped
 * @param time_buffer 11-byte destination of the time; null is skipped */
ZBSHR_API(void) shdtString(char* date_buffer, char* time_buffer);
/** Parses a date and/or time. A date parsed in mode 2 gets hour SHDT_NO_TIME_HOUR, a time
 * parsed in mode 3 year SHDT_NO_DATE_YEAR.
 * @param dt the record to fill
 * @param text the text
 * @param mode SHDT_DATETIME (1), SHDT_DATE (2) or SHDT_TIME (3)
 * @return SHDT_OK or an SHDT_E_* number (SHDT_E_TEXT also for a null argument or a bad mode) */
ZBSHR_API(int32_t) shdtParse(SHDATETIME* dt, const char* text, int32_t mode);
/** shdtParse with the date order given by the caller instead of the regional one: a host
 * (or a command) that reads dates in a fixed order needs no change of the settings.
 * @param dt the record to fill
 * @param text the text
 * @param mode SHDT_DATETIME (1), SHDT_DATE (2) or SHDT_TIME (3)
 * @param order 0 month-day-year, 1 day-month-year, 2 year-month-day; -1 the regional
 *        order ([intl] iDate); any other value is treated as 0, as a bad iDate is
 * @return as shdtParse */
ZBSHR_API(int32_t) zbshr_shdt_parse_order(SHDATETIME* dt, const char* text, int32_t mode, int32_t order);

/* -------------------------------------------------------- display formats */

/* A mask is compiled once into a caller buffer and applied many times.
 * SHFORMAT_BUFSIZE bytes hold the compiled form of any mask of up to 200
 * characters in which each [KEYWORD] appears at most once. Every function returns SHFORMAT_OK or
 * one of the error codes below; shformatErrorString turns a code into text.
 * Output sizes count the terminator. When a result does not fit, the output
 * is filled with '#' (as many as fit) and SHFORMAT_E_OVERFLOW is returned. */
#define SHFORMAT_BUFSIZE 1024 /**< compiled-format buffer size that holds any mask of up to 200 characters */

#define SHFORMAT_OK 0 /**< success */
#define SHFORMAT_E_SMALL 1     /**< compiled-format buffer too small */
#define SHFORMAT_E_OVERFLOW 2  /**< result does not fit the output buffer */
#define SHFORMAT_E_QUOTE 3     /**< quoted text without its closing quote */
#define SHFORMAT_E_KEYWORD 4   /**< unknown [KEYWORD] or unclosed '[' */
#define SHFORMAT_E_SECTIONS 5  /**< too many ';' sections */
#define SHFORMAT_E_NUMERIC 6   /**< malformed numeric mask */
#define SHFORMAT_E_DATETIME 7  /**< malformed date/time mask */
#define SHFORMAT_E_STRING 8    /**< malformed string mask */
#define SHFORMAT_E_COMPILED 9  /**< buffer is not a compiled format of this kind */
#define SHFORMAT_E_ARGUMENT 10 /**< null pointer or negative size */
#define SHFORMAT_E_VALUE 11    /**< value cannot be shown (NaN, infinity, bad date fields) */

/** Compiles a date/time mask.
 * @param compiled destination of the compiled form (SHFORMAT_BUFSIZE bytes hold any mask of up
 *     to 200 characters)
 * @param mask the mask
 * @param size size of `compiled` in bytes
 * @return SHFORMAT_OK or an SHFORMAT_E_* code */
ZBSHR_API(int32_t) shformatCmplDateTimeMask(unsigned char* compiled, const char* mask,
                                            int32_t size);
/** Compiles a numeric mask.
 * @param compiled destination of the compiled form (SHFORMAT_BUFSIZE bytes hold any mask of up
 *     to 200 characters)
 * @param mask the mask
 * @param size size of `compiled` in bytes
 * @return SHFORMAT_OK or an SHFORMAT_E_* code */
ZBSHR_API(int32_t) shformatCmplNumericMask(unsigned char* compiled, const char* mask,
                                           int32_t size);
/** Compiles a string mask.
 * @param compiled destination of the compiled form (SHFORMAT_BUFSIZE bytes hold any mask of up
 *     to 200 characters)
 * @param mask the mask
 * @param size size of `compiled` in bytes
 * @return SHFORMAT_OK or an SHFORMAT_E_* code */
ZBSHR_API(int32_t) shformatCmplStringMask(unsigned char* compiled, const char* mask,
                                          int32_t size);
/** Copies the text of an error code (an unknown code gives "Unknown format error").
 * @param error an SHFORMAT_* code
 * @param buffer destination: at most size - 1 characters and a terminator
 * @param size size of buffer in bytes
 * @return the number of characters copied; 0 for a null buffer or size <= 0 */
ZBSHR_API(int32_t) shformatErrorString(int32_t error, char* buffer, int32_t size);

/* Apply a compiled format. A null value pointer is a null value (the mask's
 * null section, or an empty text when it has none). */
/** Formats a date/time with a compiled date/time format.
 * @param out destination
 * @param size size of out, terminator included
 * @param compiled a compiled date/time format
 * @param value the value; null is a null value (the mask's null section, or an empty text)
 * @return SHFORMAT_OK or an SHFORMAT_E_* code (SHFORMAT_E_OVERFLOW fills out with '#') */
ZBSHR_API(int32_t) shformatDateTime(char* out, int32_t size, const unsigned char* compiled,
                                    const SHDATETIME* value);
/** Formats a double with a compiled numeric format.
 * @param out destination
 * @param size size of out, terminator included
 * @param compiled a compiled numeric format
 * @param value the value; null is a null value (the mask's null section, or an empty text)
 * @return SHFORMAT_OK or an SHFORMAT_E_* code (SHFORMAT_E_OVERFLOW fills out with '#') */
ZBSHR_API(int32_t) shformatDouble(char* out, int32_t size, const unsigned char* compiled,
                                  const double* value);
/** Formats a float with a compiled numeric format.
 * @param out destination
 * @param size size of out, terminator included
 * @param compiled a compiled numeric format
 * @param value the value; null is a null value (the mask's null section, or an empty text)
 * @return SHFORMAT_OK or an SHFORMAT_E_* code (SHFORMAT_E_OVERFLOW fills out with '#') */
ZBSHR_API(int32_t) shformatReal(char* out, int32_t size, const unsigned char* compiled,
                                const float* value);
/* value points to an SHDEC (decimal.h). */
/** Formats a decimal with a compiled numeric format.
 * @param out destination
 * @param size size of out, terminator included
 * @param compiled a compiled numeric format
 * @param value points to an SHDEC (decimal.h); null is a null value (the mask's null section,
 *     or an empty text)
 * @return SHFORMAT_OK or an SHFORMAT_E_* code (SHFORMAT_E_OVERFLOW fills out with '#') */
ZBSHR_API(int32_t) shformatDecimal(char* out, int32_t size, const unsigned char* compiled,
                                   const void* value);
/** Formats a string with a compiled string format.
 * @param out destination
 * @param size size of out, terminator included
 * @param compiled a compiled string format
 * @param value the text; null is a null value (the mask's null section, or an empty text)
 * @return SHFORMAT_OK or an SHFORMAT_E_* code (SHFORMAT_E_OVERFLOW fills out with '#') */
ZBSHR_API(int32_t) shformatString(char* out, int32_t size, const unsigned char* compiled,
                                  const char* value);

/** The colour a mask gives a value, for a host that paints it. The text formatted is the same
 * whatever the colour.
 * @param compiled a compiled format of any kind
 * @param value points to a double for a numeric format; date and string formats only test it
 *     for null
 * @param color receives the palette index of the section the value is shown with ([Black] 1,
 *     [White] 2, [Red] 3, [Green] 4, [Blue] 5, [Yellow] 6, [Magenta] 7, [Cyan] 8, or [ColorN]
 *     N, 1..56), 0 when that section names none
 * @return SHFORMAT_OK or an SHFORMAT_E_* code */
ZBSHR_API(int32_t) shformatColor(const unsigned char* compiled, const double* value,
                                 int32_t* color);

/* -------------------------------------------------------- pattern matcher */

/* Compile errors (0 on success) */
#define SHREGEXPR_E_SMALL 1     /**< buffer too small */
#define SHREGEXPR_E_SET 2       /**< '[' without ']' or '\' at the end of a set */
#define SHREGEXPR_E_SETLONG 3   /**< set longer than 255 units */
#define SHREGEXPR_E_EMPTYSET 4  /**< reserved, never returned */
#define SHREGEXPR_E_CLOSURE 5   /**< '*', '+' or '?' with nothing to repeat */

/** Compiles a pattern.
 * @param buffer destination of the compiled pattern
 * @param pattern the pattern
 * @param size size of buffer in bytes
 * @return 0 or an SHREGEXPR_E_* code */
ZBSHR_API(int32_t) shregExprCmpl(unsigned char* buffer, const char* pattern, int32_t size);
/** Counts the matches of a compiled pattern in a text.
 * @param text the text
 * @param compiled a pattern compiled by shregExprCmpl
 * @return the number of matches (0 for an empty text) */
ZBSHR_API(int32_t) shregExprMatch(const char* text, const unsigned char* compiled);
/* The same over 16-bit characters; size counts 16-bit units. */
/** Compiles a pattern of 16-bit characters.
 * @param buffer destination of the compiled pattern
 * @param pattern the pattern
 * @param size size of buffer in 16-bit units
 * @return 0 or an SHREGEXPR_E_* code */
ZBSHR_API(int32_t) shregExprCmplW(uint16_t* buffer, const uint16_t* pattern, int32_t size);
/** Counts the matches of a compiled 16-bit pattern in a 16-bit text.
 * @param text the text
 * @param compiled a pattern compiled by shregExprCmplW
 * @return the number of matches (0 for an empty text) */
ZBSHR_API(int32_t) shregExprMatchW(const uint16_t* text, const uint16_t* compiled);

ZBSHR_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(SHDATETIME) == 12, "SHDATETIME is a 12-byte record");
#endif

#endif
