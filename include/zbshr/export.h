/** @file
 * zbshr: export family: writes a result set to a foreign file format.
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
#define OSSAVE_STRING   1 /**< a NUL-terminated 8-bit text (const char *) */
#define OSSAVE_NUMBER   2 /**< a double (const double *) */
#define OSSAVE_DATETIME 3 /**< a date and time (const SHDATETIME *) */
#define OSSAVE_DATE     4 /**< a date (const SHDATETIME *) */
#define OSSAVE_TIME     5 /**< a time (const SHDATETIME *) */
#define OSSAVE_DECIMAL  6 /**< an exact decimal (const SHDEC *) */

/* Options of Begin. */
#define OSSAVE_HEADINGS 0x1 /**< write the column names as a headings row */

/** The export handle: one per export, owned by the export from Begin to End. */
typedef struct ExportState ExportState;

/** Declares the four functions of a format: Begin, Column, Item and End. */
#define ZBSHR_OSSAVE_DECLARE(fmt)                                                              \
  ZBSHR_API(ExportState *) osSave##fmt##Begin(ZBSTG_HEAP heap, uint32_t pool,                   \
                                              const char *file_name, int32_t rows,              \
                                              int32_t columns, uint32_t options);               \
  ZBSHR_API(int32_t) osSave##fmt##Column(ExportState *state, const char *name, int32_t width,   \
                                         int32_t type);                                         \
  ZBSHR_API(int32_t) osSave##fmt##Item(ExportState *state, const void *value);                  \
  ZBSHR_API(int32_t) osSave##fmt##End(ExportState *state);

/* ---- Comma-separated text. */
/** @fn ExportState *osSaveCsvBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a comma-separated text.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveCsvColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (comma-separated text); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveCsvItem(ExportState *state, const void *value)
 * Writes the next cell (comma-separated text), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveCsvEnd(ExportState *state)
 * Finishes the comma-separated text and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Csv)
/* ---- Tab-separated text (Begin and End are those of Csv). */
/** @fn ExportState *osSaveTextBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a tab-separated text.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveTextColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (tab-separated text); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveTextItem(ExportState *state, const void *value)
 * Writes the next cell (tab-separated text), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveTextEnd(ExportState *state)
 * Finishes the tab-separated text and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Text)
/* ---- Tab-separated text collected in memory and placed on the clipboard at End.
 * The file name argument is ignored. */
/** @fn ExportState *osSaveClipBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a clipboard text.
 * @param heap heap of the handle, its column names and its text buffer
 * @param pool pool in that heap
 * @param file_name the file to create (ignored: pass any value, null included)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveClipColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (clipboard text); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveClipItem(ExportState *state, const void *value)
 * Writes the next cell (clipboard text), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveClipEnd(ExportState *state)
 * Finishes the clipboard text and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Clip)
/* ---- An SQL script: CREATE TABLE and one INSERT per row. */
/** @fn ExportState *osSaveSqlBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a SQL script.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveSqlColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (SQL script); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveSqlItem(ExportState *state, const void *value)
 * Writes the next cell (SQL script), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveSqlEnd(ExportState *state)
 * Finishes the SQL script and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Sql)
/* ---- Data Interchange Format. */
/** @fn ExportState *osSaveDifBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a DIF file.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveDifColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (DIF file); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDifItem(ExportState *state, const void *value)
 * Writes the next cell (DIF file), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDifEnd(ExportState *state)
 * Finishes the DIF file and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Dif)
/* ---- Symbolic link format. */
/** @fn ExportState *osSaveSylkBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a SYLK file.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveSylkColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (SYLK file); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveSylkItem(ExportState *state, const void *value)
 * Writes the next cell (SYLK file), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveSylkEnd(ExportState *state)
 * Finishes the SYLK file and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Sylk)
/* ---- Version-2 spreadsheet workbook stream. */
/** @fn ExportState *osSaveExcelBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a workbook stream.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveExcelColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (workbook stream); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveExcelItem(ExportState *state, const void *value)
 * Writes the next cell (workbook stream), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveExcelEnd(ExportState *state)
 * Finishes the workbook stream and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Excel)
/* ---- WKS worksheet. */
/** @fn ExportState *osSaveWkBegin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a WKS worksheet.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveWkColumn(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (WKS worksheet); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveWkItem(ExportState *state, const void *value)
 * Writes the next cell (WKS worksheet), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveWkEnd(ExportState *state)
 * Finishes the WKS worksheet and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Wk)
/* ---- dBase II table (at most 65,535 rows, 32 columns, 1000 bytes a record). */
/** @fn ExportState *osSaveDbase2Begin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a dBase II table.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveDbase2Column(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (dBase II table); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDbase2Item(ExportState *state, const void *value)
 * Writes the next cell (dBase II table), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDbase2End(ExportState *state)
 * Finishes the dBase II table and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Dbase2)
/* ---- dBase III table (at most 1,000,000,000 rows, 128 columns, 4000 bytes a
 * record; End is that of Dbase2). */
/** @fn ExportState *osSaveDbase3Begin(ZBSTG_HEAP heap, uint32_t pool, const char *file_name, int32_t rows, int32_t columns, uint32_t options)
 * Starts writing a dBase III table.
 * @param heap heap of the handle, its column names
 * @param pool pool in that heap
 * @param file_name the file to create (truncated when it exists)
 * @param rows number of rows that will follow
 * @param columns number of columns (>= 0)
 * @param options OSSAVE_HEADINGS writes the column names as a headings row
 * @return the export handle, owned by the export until End; null when the
 *     handle cannot be allocated or the file cannot be created, or the
 *     arguments are refused
 */
/** @fn int32_t osSaveDbase3Column(ExportState *state, const char *name, int32_t width, int32_t type)
 * Declares the next column (dBase III table); once per column, in order, before the first Item.
 * @param state the export handle
 * @param name the column name (copied; null counts as empty)
 * @param width the column width, as the format records it
 * @param type an OSSAVE_* type code
 * @return 1 on success; 0 on a short write, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDbase3Item(ExportState *state, const void *value)
 * Writes the next cell (dBase III table), row by row.
 * @param state the export handle
 * @param value address of the value, by column type (see the top of this file); null is a null cell
 * @return 1 on success; 0 on a short write, a cell past the format's limits, or for a call out of order or on a released handle
 */
/** @fn int32_t osSaveDbase3End(ExportState *state)
 * Finishes the dBase III table and releases the handle, even after a failure.
 * @param state the export handle; not to be used afterwards
 * @return 1 on success; 0 when the last bytes could not be written, or for a released handle
 */
ZBSHR_OSSAVE_DECLARE(Dbase3)

#undef ZBSHR_OSSAVE_DECLARE

ZBSHR_END_DECLS

#endif
