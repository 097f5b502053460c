/* zbshr: export family: writes a result set to a foreign file format.
 *
 * Every format is driven through the same four calls, in a fixed order:
 *
 *   ExportState *h = osSaveCsvBegin(heap, pool, "orders.csv", rows, cols, options);
 *   osSaveCsvColumn(h, "ID", 10, OSSAVE_NUMBER);          once per column
 *   osSaveCsvItem(h, &value);                             once per cell, row by row
 *   osSaveCsvEnd(h);                                      always; frees the handle
 *
 * Begin returns the export handle or null; Column, Item and End return 1 on
 * success and 0 on failure (a short write fails the call). End always releases
 * the handle, even after a failure. The handle, its column names and (for the
 * clipboard) its text buffer are allocated in the heap and pool given to Begin.
 * Calls out of order (an Item before every column is declared, a Column after
 * the first Item) and any call on a handle End has released (a second End
 * included) are refused with 0 and write nothing.
 *
 * A number whose text is longer than the format's room for it (DIF 15
 * characters, a dBase field 16, the other text formats 29) is written with
 * fewer significant digits, never as '#'. The worksheets (Excel, Wk) have
 * 16-bit rows and columns: the Item of a cell past row or column 65,535 is
 * refused with 0 and writes nothing, an Excel text is cut at 65,527 bytes,
 * a Wk text at 239 (a heading at 65,528), and the binary formats refuse a
 * negative row count at Begin.
 *
 * Item takes a pointer to the value, by column type:
 *   OSSAVE_STRING    const char *     NUL-terminated 8-bit text
 *   OSSAVE_NUMBER    const double *
 *   OSSAVE_DATETIME, OSSAVE_DATE, OSSAVE_TIME
 *                    const SHDATETIME * (format.h); for the Sql format these
 *                    three take a const char * already formatted by the caller
 *   OSSAVE_DECIMAL   const SHDEC * (decimal.h)
 * A null value pointer is a null cell. A column of any other type code is
 * accepted; its cells write nothing of their own. Bit 0 of the options
 * (OSSAVE_HEADINGS) writes the column names as a headings row.
 *
 * The clipboard format (Clip) takes a file name argument like the others so
 * that the ten formats share one shape; it is ignored. On Windows End places
 * the text on the real clipboard; elsewhere it becomes the library's clipboard
 * contents, readable with zbshr_clipboard_text (system.h).
 */
#ifndef ZBSHR_EXPORT_H
#define ZBSHR_EXPORT_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* Column type codes (stored as one byte). */
#define OSSAVE_STRING   1
#define OSSAVE_NUMBER   2
#define OSSAVE_DATETIME 3
#define OSSAVE_DATE     4
#define OSSAVE_TIME     5
#define OSSAVE_DECIMAL  6

/* Options of Begin. */
#define OSSAVE_HEADINGS 0x1

/** The export handle: one per export, owned by the export from Begin to End. */
typedef struct ExportState ExportState;

#define ZBSHR_OSSAVE_DECLARE(fmt)                                                              \
  ZBSHR_API(ExportState *) osSave##fmt##Begin(ZBSTG_HEAP heap, uint32_t pool,                   \
                                              const char *file_name, int32_t rows,              \
                                              int32_t columns, uint32_t options);               \
  ZBSHR_API(int32_t) osSave##fmt##Column(ExportState *state, const char *name, int32_t width,   \
                                         int32_t type);                                         \
  ZBSHR_API(int32_t) osSave##fmt##Item(ExportState *state, const void *value);                  \
  ZBSHR_API(int32_t) osSave##fmt##End(ExportState *state);

/** Comma-separated text. */
ZBSHR_OSSAVE_DECLARE(Csv)
/** Tab-separated text (Begin and End are those of Csv). */
ZBSHR_OSSAVE_DECLARE(Text)
/** Tab-separated text collected in memory and placed on the clipboard at End.
 * The file name argument is ignored. */
ZBSHR_OSSAVE_DECLARE(Clip)
/** An SQL script: CREATE TABLE and one INSERT per row. */
ZBSHR_OSSAVE_DECLARE(Sql)
/** Data Interchange Format. */
ZBSHR_OSSAVE_DECLARE(Dif)
/** Symbolic link format. */
ZBSHR_OSSAVE_DECLARE(Sylk)
/** Version-2 spreadsheet workbook stream. */
ZBSHR_OSSAVE_DECLARE(Excel)
/** WKS worksheet. */
ZBSHR_OSSAVE_DECLARE(Wk)
/** dBase II table (at most 65,535 rows, 32 columns, 1000 bytes a record). */
ZBSHR_OSSAVE_DECLARE(Dbase2)
/** dBase III table (at most 1,000,000,000 rows, 128 columns, 4000 bytes a
 * record; End is that of Dbase2). */
ZBSHR_OSSAVE_DECLARE(Dbase3)

#undef ZBSHR_OSSAVE_DECLARE

ZBSHR_END_DECLS

#endif
