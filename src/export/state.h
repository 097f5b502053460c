// The export state shared by the ten formats, and the helpers every format
// uses: allocation and release of the state, the output channel (a buffered
// file, or a growing memory buffer for the clipboard), value rendering through
// the display formats compiled at Begin, and the column and item bookkeeping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zbshr/export.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

#if defined(__GNUC__)
#define ZBSHR_EXPORT_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define ZBSHR_EXPORT_PRINTF(f, a)
#endif

namespace zbshr::exp {

constexpr uint8_t kString = OSSAVE_STRING;
constexpr uint8_t kNumber = OSSAVE_NUMBER;
constexpr uint8_t kDateTime = OSSAVE_DATETIME;
constexpr uint8_t kDate = OSSAVE_DATE;
constexpr uint8_t kTime = OSSAVE_TIME;
constexpr uint8_t kDecimal = OSSAVE_DECIMAL;

constexpr int kTableNameMax = 260;
constexpr int kTimeSepMax = 10;

enum class Kind : uint8_t { Csv, Text, Clip, Sql, Dif, Sylk, Excel, Wk, Dbase2, Dbase3 };

struct ExportColumn {
  char* name;     // pool copy of the name given to Column
  int32_t width;  // after the format's clamp
  uint8_t type;   // type code as given (low byte)
};

}  // namespace zbshr::exp

struct ExportState {
  void* block;  // the heap block holding this record (heap blocks are only
                // 4-byte aligned; the record starts at the next multiple of 8)
  ZBSTG_HEAP heap;
  uint32_t pool;
  int32_t rows;         // row count given to Begin
  int32_t cur_row;      // 0-based
  int32_t total_width;  // sum of the clamped widths
  int32_t cols;         // column count given to Begin
  int32_t cur_col;      // 0-based
  int32_t declared;     // columns declared so far
  uint32_t options;     // bit 0: write column headings
  char table[zbshr::exp::kTableNameMax + 1];
  unsigned char fmt_number[SHFORMAT_BUFSIZE];    // "[GENERAL]"
  unsigned char fmt_date[SHFORMAT_BUFSIZE];      // "[SHORTDATE]"
  unsigned char fmt_time[SHFORMAT_BUFSIZE];      // "[TIME]"
  unsigned char fmt_datetime[SHFORMAT_BUFSIZE];  // "[SHORTDATE] [TIME]"
  OSFILE file;
  int32_t file_open;  // 1 while `file` is open
  char* clip;         // clipboard text (NUL-terminated), or null
  int32_t clip_cap;
  int32_t clip_used;
  zbshr::exp::Kind kind;
  int32_t time_sep_read;                         // 1 once time_sep holds the separator
  char time_sep[zbshr::exp::kTimeSepMax + 1];    // "sTime" of the regional profile
  char dec_sep;                                  // decimal separator of "[GENERAL]", or 0
  zbshr::exp::ExportColumn* columns;             // `cols` entries, right after the record
};

namespace zbshr::exp {

// Gathers the bytes of one call. While they fit in the free part of the file
// buffer they are built right there and handed over at flush() by advancing
// the buffer's position, exactly as osFileWrite does with bytes that fit in
// its room; anything more goes through a local buffer and osFileWrite. A write
// that moves fewer bytes than asked makes later puts no-ops and ok() false.
class Out {
 public:
  explicit Out(ExportState* s);
  ~Out() = default;
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;

  void put(const char* p, size_t n) {
    if (n <= cap_ - n_) {
      std::memcpy(dst_ + n_, p, n);
      n_ += n;
    } else {
      put_slow(p, n);
    }
  }
  void put(const char* z) { put(z, std::strlen(z)); }
  void put(char c) {
    if (n_ == cap_) spill();
    dst_[n_++] = c;
  }
  void put_u16(uint32_t v) {
    put(static_cast<char>(v & 0xFF));
    put(static_cast<char>((v >> 8) & 0xFF));
  }
  void put_u32(uint32_t v) {
    put_u16(v & 0xFFFF);
    put_u16(v >> 16);
  }
  void put_f64(double d);
  void fill(char c, size_t n) {
    while (n--) put(c);
  }
  // Room for k bytes (k at most 1024) to be written in place; commit(m)
  // then keeps the first m of them.
  char* reserve(size_t k) {
    if (cap_ - n_ < k) spill();
    return dst_ + n_;
  }
  void commit(size_t m) { n_ += m; }
  // A decimal integer as printf's "%.<digits>d" writes it: a minus sign,
  // then at least `digits` digits, zero-padded.
  void put_int(int64_t v, int digits = 1) {
    char* p = reserve(24);
    commit(static_cast<size_t>(format_int(p, v, digits) - p));
  }
  static char* format_int(char* p, int64_t v, int digits) {
    uint64_t u = static_cast<uint64_t>(v);
    if (v < 0) {
      *p++ = '-';
      u = 0 - u;
    }
    char tmp[24];
    int n = 0;
    do {
      tmp[n++] = static_cast<char>('0' + u % 10);
      u /= 10;
    } while (u != 0);
    while (n < digits && n < 20) tmp[n++] = '0';
    while (n > 0) *p++ = tmp[--n];
    return p;
  }
  // printf-style append (short texts only).
  void putf(const char* fmt, ...) ZBSHR_EXPORT_PRINTF(2, 3);
  // The quoted string rule: "..." with every double quote written twice.
  void put_quoted(const char* z);
  // Sends the staged bytes; true when every write so far moved all its bytes.
  bool flush() {
    if (in_file_) {  // the common case: all of it was built in the file buffer
      commit_in_file();
      return ok_;
    }
    spill();
    return ok_;
  }

 private:
  void put_slow(const char* p, size_t n);
  void spill();
  inline void commit_in_file();
  ExportState* s_;
  bool ok_ = true;
  bool in_file_ = false;  // dst_ is the free part of the file buffer
  char* dst_;
  size_t cap_;
  size_t n_ = 0;
  char local_[2048];
};

// The file buffer may be written in place while it is in the state
// osFileOpenNew leaves it in and osFileWrite keeps it in.
inline bool file_buffer_usable(const ExportState* s) {
  const OSFILE& f = s->file;
  return s->kind != Kind::Clip && s->file_open && f.buffer != nullptr && f.readMode == 0 &&
         f.room > 0 && f.position >= 0 && f.position + f.room <= f.capacity;
}

inline Out::Out(ExportState* s) : s_(s), dst_(local_), cap_(sizeof local_) {
  if (file_buffer_usable(s)) {
    in_file_ = true;
    dst_ = s->file.buffer + s->file.position;
    cap_ = static_cast<size_t>(s->file.room);
  }
}

// The bytes built in the free part of the file buffer fit in its room:
// taking them is what osFileWrite would do.
inline void Out::commit_in_file() {
  s_->file.position += static_cast<int32_t>(n_);
  s_->file.room -= static_cast<int32_t>(n_);
  in_file_ = false;
  dst_ = local_;
  cap_ = sizeof local_;
  n_ = 0;
}

// Writes n bytes to the export's output; true only when all n were taken.
// Zero bytes always succeed.
bool write_out(ExportState* s, const void* p, size_t n);

// The registry of live export states. begin_state enters a state, free_state
// removes it; every call checks its handle here first, so a handle that was
// never returned by Begin, or that End has already released, is refused
// instead of being used. Safe to call from any thread.
bool is_live(const ExportState* s);
// Removes the state from the registry; true when it was there. End claims its
// handle this way, so that of two End calls on one handle only one goes on.
bool claim(const ExportState* s);

// Allocates and prepares the state (steps 1 to 5 of every Begin): null when
// the file cannot be created. `file_name` null opens no file.
ExportState* begin_state(Kind kind, ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                         int32_t rows, int32_t cols, uint32_t options);
// Writes the header staged in `out`; on a short write closes the file with the
// discard flag, frees the state and returns null.
ExportState* finish_begin(ExportState* s, Out& out);
// Releases the column names and the record (and a clipboard buffer).
void free_state(ExportState* s);
// End of the file formats: writes the trailer in `out` (may be empty), closes
// the file (discard flag after a failed trailer) and frees the state.
int32_t end_file(ExportState* s, Out& out);

// Column bookkeeping: stores name, clamped width and type in the current
// entry and adds the width to the total. Null when the handle is not live or
// every column is already declared (so once the first Item is in).
ExportColumn* column_store(ExportState* s, const char* name, int32_t width, int32_t type);
inline bool column_is_last(const ExportState* s) { return s->cur_col + 1 >= s->cols; }
// Advances the current column; true when that was the last one (the current
// column is then back at 0).
bool column_advance(ExportState* s);
// The rest of a column call of the spreadsheet formats, after column_store:
// with headings on, `heading(out)` writes the column's name and, once the
// last column is in, the data starts one row down. A heading whose column a
// 16-bit field cannot name (`nameable` false) is left out: the column still
// counts as declared and the call answers 0.
template <class F>
int32_t heading_column(ExportState* s, F&& heading, bool nameable = true) {
  const bool headings = (s->options & OSSAVE_HEADINGS) != 0;
  if (headings && !nameable) {
    if (column_advance(s)) ++s->cur_row;
    return 0;
  }
  if (headings) {
    Out out(s);
    heading(out);
    if (!out.flush()) return 0;
  }
  if (column_advance(s) && headings) ++s->cur_row;
  return 1;
}

// The column of the next cell, or null when the handle is not live, has no
// columns, or not every column has been declared yet.
inline ExportColumn* item_column(ExportState* s) {
  if (!is_live(s) || s->cols <= 0 || s->declared < s->cols || s->cur_col < 0 ||
      s->cur_col >= s->cols)
    return nullptr;
  return &s->columns[s->cur_col];
}
inline bool item_is_last(const ExportState* s) { return s->cur_col + 1 >= s->cols; }
// Advances to the next cell (and the next row after the last column).
inline void item_advance(ExportState* s) {
  if (++s->cur_col >= s->cols) {
    s->cur_col = 0;
    ++s->cur_row;
  }
}

// Rendering through the compiled display formats into a buffer of `size`
// bytes (terminator included). Each returns the text length.
//
// A number whose general text does not fit is rendered again with fewer
// significant digits (rounded, as a narrow spreadsheet cell shows it) until it
// fits; a decimal keeps its plain form as long as one fits, then takes the
// exponent form. kNoFit when not even one digit in exponent form fits: the
// caller fails the cell rather than write a text that is not the value.
constexpr size_t kNoFit = static_cast<size_t>(-1);
size_t render_double(ExportState* s, double v, char* out, int32_t size);
size_t render_decimal(ExportState* s, const void* dec, char* out, int32_t size);
// Date: "[SHORTDATE]"; time and date-time also get the fraction suffix, which
// needs up to kSuffixRoom more bytes after `size`.
constexpr int32_t kSuffixRoom = kTimeSepMax + 16;
size_t render_date(ExportState* s, const SHDATETIME* dt, char* out, int32_t size);
size_t render_time(ExportState* s, const SHDATETIME* dt, char* out, int32_t size);
size_t render_datetime(ExportState* s, const SHDATETIME* dt, char* out, int32_t size);
// Renders a date, time or date-time value by type code (others: empty).
size_t render_dt_type(ExportState* s, uint8_t type, const SHDATETIME* dt, char* out,
                      int32_t size);
// The decimal converted to a double (0 when it cannot be converted).
double decimal_to_double(const void* dec);

// The table name derived from a file name (at most 260 characters).
void derive_table_name(const char* file_name, char* out);

// dBase field names: upper-cased, at most 10 bytes.
void dbase_field_name(const char* name, uint8_t out[11]);

}  // namespace zbshr::exp
