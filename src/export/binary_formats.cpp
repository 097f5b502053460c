// The formats made of binary records: the version-2 workbook stream, the WKS
// worksheet, and dBase II and dBase III tables. Every integer is written byte
// by byte, little-endian.
#include <cstdio>
#include <cstring>

#include "export/state.h"

using zbshr::exp::ExportColumn;
using zbshr::exp::Kind;
using zbshr::exp::Out;
namespace ex = zbshr::exp;

namespace {

constexpr int32_t kExcelDtBuf = 299;
constexpr int32_t kWkDtBuf = 99;
constexpr size_t kWkItemTextMax = 239;

// Rows, columns and record lengths of the two worksheet formats are 16-bit.
// Nothing is allowed to wrap: a text is cut to what its record's length field
// can carry, and a cell whose row or column cannot be named is not written.
constexpr int32_t kMax16 = 0xFFFF;
constexpr size_t kExcelLabelMax = kMax16 - 8;  // LABEL length = 8 + text
constexpr size_t kWkLabelMax = kMax16 - 7;     // LABEL length = 7 + text

bool nameable(int32_t row, int32_t col) {
  return row >= 0 && row <= kMax16 && col >= 0 && col <= kMax16;
}

// A count of a header, held at the largest value the field can carry.
uint32_t count16(int32_t v) { return v > kMax16 ? kMax16 : static_cast<uint32_t>(v); }

// The length of z, but at most `max`; never reads past either.
size_t bounded_length(const char* z, size_t max) {
  size_t n = 0;
  while (n < max && z[n] != '\0') ++n;
  return n;
}

// ---------------------------------------------------------------- workbook stream

void excel_label(Out& out, int32_t row, int32_t col, const char* text, size_t n) {
  // The length field carries 8 + the full length and the count byte only its
  // low 8 bits: texts longer than 255 bytes are not cut, unless the length
  // field itself could not carry them.
  if (n > kExcelLabelMax) n = kExcelLabelMax;
  out.put_u16(0x0004);
  out.put_u16(static_cast<uint32_t>(8 + n));
  out.put_u16(static_cast<uint32_t>(row));
  out.put_u16(static_cast<uint32_t>(col));
  out.put('\0');
  out.put('\0');
  out.put('\0');
  out.put(static_cast<char>(n & 0xFF));
  out.put(text, n);
}

void excel_number(Out& out, int32_t row, int32_t col, double v) {
  out.put_u16(0x0003);
  out.put_u16(15);
  out.put_u16(static_cast<uint32_t>(row));
  out.put_u16(static_cast<uint32_t>(col));
  out.put('\0');
  out.put('\0');
  out.put('\0');
  out.put_f64(v);
}

// ---------------------------------------------------------------- worksheet

void wk_label(Out& out, int32_t row, int32_t col, const char* text, size_t n) {
  if (n > kWkLabelMax) n = kWkLabelMax;
  out.put_u16(0x000F);
  out.put_u16(static_cast<uint32_t>(7 + n));
  out.put('\x71');
  out.put_u16(static_cast<uint32_t>(col));
  out.put_u16(static_cast<uint32_t>(row));
  out.put('\'');
  out.put(text, n);
  out.put('\0');
}

void wk_number(Out& out, int32_t row, int32_t col, double v) {
  out.put_u16(0x000E);
  out.put_u16(13);
  out.put('\x71');
  out.put_u16(static_cast<uint32_t>(col));
  out.put_u16(static_cast<uint32_t>(row));
  out.put_f64(v);
}

// ---------------------------------------------------------------- dBase

struct DbaseRules {
  int32_t number_width, datetime_width, date_width, time_width;
  int32_t width_limit;
};
constexpr DbaseRules kDbase2{16, 10, 10, 8, 1000};
constexpr DbaseRules kDbase3{16, 8, 8, 8, 4000};

int32_t dbase_width(const DbaseRules& r, int32_t width, uint8_t type) {
  if (width > 255) width = 255;
  if (width == 0) width = 255;
  switch (type) {
    case ex::kNumber:
    case ex::kDecimal: return r.number_width;
    case ex::kDateTime: return r.datetime_width;
    case ex::kDate: return r.date_width;
    case ex::kTime: return r.time_width;
    default: return width;
  }
}

void dbase2_header_rest(ExportState* s, Out& out) {
  out.put_u16(static_cast<uint32_t>(s->total_width + 1));
  for (int32_t i = 0; i < s->cols; ++i) {
    const ExportColumn& c = s->columns[i];
    uint8_t name[11];
    ex::dbase_field_name(c.name, name);
    out.put(reinterpret_cast<const char*>(name), 11);
    out.put(c.type == ex::kNumber || c.type == ex::kDecimal ? 'N' : 'C');
    out.put(static_cast<char>(c.width & 0xFF));
    out.fill('\0', 3);
  }
  if (s->cols >= 32) {
    out.put('\x0D');
    return;
  }
  out.put('\x0D');
  out.fill('\0', 15);
  out.fill('\0', static_cast<size_t>(32 - s->cols - 1) * 16);
  out.put('\0');
}

void dbase3_header_rest(ExportState* s, Out& out) {
  out.put_u16(static_cast<uint32_t>(s->total_width + 1));
  out.fill('\0', 20);
  for (int32_t i = 0; i < s->cols; ++i) {
    const ExportColumn& c = s->columns[i];
    uint8_t name[11];
    ex::dbase_field_name(c.name, name);
    out.put(reinterpret_cast<const char*>(name), 11);
    char t = 'C';
    if (c.type == ex::kNumber || c.type == ex::kDecimal)
      t = 'N';
    else if (c.type == ex::kDate || c.type == ex::kDateTime)
      t = 'D';
    out.put(t);
    out.fill('\0', 4);
    out.put(static_cast<char>(c.width & 0xFF));
    out.fill('\0', 15);
  }
  out.put('\x0D');
}

int32_t dbase_column(ExportState* s, const char* name, int32_t width, int32_t type,
                     const DbaseRules& r, bool dbase3) {
  if (s == nullptr) return 0;
  const int32_t w = dbase_width(r, width, static_cast<uint8_t>(type));
  if (w < 0) return 0;  // a field cannot be narrower than nothing
  if (ex::column_store(s, name, w, type) == nullptr) return 0;
  if (s->total_width > r.width_limit) {
    s->total_width -= w;  // not declared: a narrower column may still follow
    return 0;
  }
  if (ex::column_is_last(s)) {
    Out out(s);
    if (dbase3)
      dbase3_header_rest(s, out);
    else
      dbase2_header_rest(s, out);
    if (!out.flush()) return 0;
  }
  ex::column_advance(s);
  return 1;
}

int32_t dbase_item(ExportState* s, const void* value, bool dbase3) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  const size_t width = col->width < 0 ? 0 : col->width > 299 ? 299 : static_cast<size_t>(col->width);
  char number[320];
  size_t number_len = 0;
  if (col->type == ex::kNumber || col->type == ex::kDecimal) {
    const int32_t size = static_cast<int32_t>(width) + 1;
    if (col->type == ex::kNumber) {
      const double v = value ? *static_cast<const double*>(value) : 0.0;
      number_len = ex::render_double(s, v, number, size);
    } else if (value != nullptr) {
      number_len = ex::render_decimal(s, value, number, size);
    } else {
      std::memcpy(number, "0.0", 4);
      number_len = 3;
    }
    if (number_len == ex::kNoFit) return 0;
    if (number_len > width) number_len = width;
  }
  Out out(s);
  if (s->cur_col == 0) out.put(' ');  // the record is not deleted
  char* field = out.reserve(width);     // the field is built in place
  std::memset(field, ' ', width);
  char text[320];
  switch (col->type) {
    case ex::kString:
      if (value != nullptr) {
        const char* z = static_cast<const char*>(value);
        const size_t n = bounded_length(z, width);
        std::memcpy(field, z, n);
      }
      break;
    case ex::kNumber:
    case ex::kDecimal:
      std::memcpy(field + (width - number_len), number, number_len);  // right-aligned
      break;
    case ex::kDate:
    case ex::kDateTime:
      if (value != nullptr) {
        // "%.4d%.2d%.2d" (dBase III) or "%.4d/%.2d/%.2d" (dBase II)
        const SHDATETIME* dt = static_cast<const SHDATETIME*>(value);
        char* p = Out::format_int(text, dt->year + 1900, 4);
        if (!dbase3) *p++ = '/';
        p = Out::format_int(p, dt->month + 1, 2);
        if (!dbase3) *p++ = '/';
        p = Out::format_int(p, dt->day, 2);
        const size_t n = static_cast<size_t>(p - text);
        std::memcpy(field, text, n < width ? n : width);
      }
      break;
    case ex::kTime:
      if (value != nullptr) {
        // "%.2d:%.2d:%.2d"
        const SHDATETIME* dt = static_cast<const SHDATETIME*>(value);
        char* p = Out::format_int(text, dt->hour, 2);
        *p++ = ':';
        p = Out::format_int(p, dt->minute, 2);
        *p++ = ':';
        p = Out::format_int(p, dt->second, 2);
        const size_t n = static_cast<size_t>(p - text);
        std::memcpy(field, text, n < width ? n : width);
      }
      break;
    default: break;
  }
  out.commit(width);
  if (!out.flush()) return 0;
  ex::item_advance(s);
  return 1;
}

}  // namespace

ZBSHR_BEGIN_DECLS

// ---------------------------------------------------------------- Excel

ZBSHR_API(ExportState*) osSaveExcelBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                         int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr || rows < 0) return nullptr;
  ExportState* s = ex::begin_state(Kind::Excel, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);
  out.put_u16(0x0009);  // BOF
  out.put_u16(4);
  out.put_u16(2);
  out.put_u16(0x0010);
  out.put_u16(0x0000);  // DIMENSIONS
  out.put_u16(8);
  out.put_u16(0);
  out.put_u16(count16(rows));
  out.put_u16(0);
  out.put_u16(count16(columns));
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveExcelColumn(ExportState* s, const char* name, int32_t width,
                                     int32_t type) {
  if (ex::column_store(s, name, width, type) == nullptr) return 0;
  return ex::heading_column(
      s,
      [&](Out& out) {
        const char* z = name ? name : "";
        excel_label(out, s->cur_row, s->cur_col, z, std::strlen(z));
      },
      nameable(s->cur_row, s->cur_col));
}

ZBSHR_API(int32_t) osSaveExcelItem(ExportState* s, const void* value) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  if (!nameable(s->cur_row, s->cur_col)) {  // past the last row (or column) there is
    ex::item_advance(s);                    // no record that could hold the cell
    return 0;
  }
  if (value != nullptr) {
    Out out(s);
    char buf[kExcelDtBuf + ex::kSuffixRoom];
    switch (col->type) {
      case ex::kString: {
        const char* z = static_cast<const char*>(value);
        excel_label(out, s->cur_row, s->cur_col, z, std::strlen(z));
        break;
      }
      case ex::kNumber:
        excel_number(out, s->cur_row, s->cur_col, *static_cast<const double*>(value));
        break;
      case ex::kDecimal:
        excel_number(out, s->cur_row, s->cur_col, ex::decimal_to_double(value));
        break;
      case ex::kDate:
      case ex::kTime:
      case ex::kDateTime: {
        size_t n = ex::render_dt_type(s, col->type, static_cast<const SHDATETIME*>(value), buf,
                                      kExcelDtBuf);
        excel_label(out, s->cur_row, s->cur_col, buf, n);
        break;
      }
      default: break;
    }
    if (!out.flush()) return 0;
  }
  ex::item_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveExcelEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put_u16(0x000A);  // EOF
  out.put_u16(0);
  return ex::end_file(s, out);
}

// ---------------------------------------------------------------- Wk

ZBSHR_API(ExportState*) osSaveWkBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                      int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr || rows < 0) return nullptr;
  ExportState* s = ex::begin_state(Kind::Wk, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);
  out.put_u16(0x0000);  // BOF
  out.put_u16(2);
  out.put_u16(0x0406);
  out.put_u16(0x0006);  // RANGE: the counts as they are, not less one
  out.put_u16(8);
  out.put_u16(0);
  out.put_u16(0);
  out.put_u16(count16(columns));
  out.put_u16(count16(rows));
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveWkColumn(ExportState* s, const char* name, int32_t width, int32_t type) {
  if (s == nullptr) return 0;
  int32_t w = width;
  if (w >= 240 || (w == 0 && static_cast<uint8_t>(type) == ex::kString)) w = 239;
  if (ex::column_store(s, name, w, type) == nullptr) return 0;
  return ex::heading_column(
      s,
      [&](Out& out) {
        const char* z = name ? name : "";
        wk_label(out, 0, s->cur_col, z, std::strlen(z));  // headings are cut only to 65,528
      },
      nameable(0, s->cur_col));
}

ZBSHR_API(int32_t) osSaveWkItem(ExportState* s, const void* value) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  if (!nameable(s->cur_row, s->cur_col)) {
    ex::item_advance(s);
    return 0;
  }
  if (value != nullptr) {
    Out out(s);
    char buf[kWkDtBuf + ex::kSuffixRoom];
    switch (col->type) {
      case ex::kString: {
        const char* z = static_cast<const char*>(value);
        wk_label(out, s->cur_row, s->cur_col, z, bounded_length(z, kWkItemTextMax));
        break;
      }
      case ex::kNumber:
        wk_number(out, s->cur_row, s->cur_col, *static_cast<const double*>(value));
        break;
      case ex::kDecimal:
        wk_number(out, s->cur_row, s->cur_col, ex::decimal_to_double(value));
        break;
      case ex::kDate:
      case ex::kTime:
      case ex::kDateTime: {
        size_t n = ex::render_dt_type(s, col->type, static_cast<const SHDATETIME*>(value), buf,
                                      kWkDtBuf);
        if (n > kWkItemTextMax) n = kWkItemTextMax;
        wk_label(out, s->cur_row, s->cur_col, buf, n);
        break;
      }
      default: break;
    }
    if (!out.flush()) return 0;
  }
  ex::item_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveWkEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put_u16(0x0001);  // end of file
  out.put_u16(0);
  return ex::end_file(s, out);
}

// ---------------------------------------------------------------- Dbase2

ZBSHR_API(ExportState*) osSaveDbase2Begin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                          int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr || rows < 0 || rows >= 65536 || columns >= 33) return nullptr;
  ExportState* s = ex::begin_state(Kind::Dbase2, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  SHDATETIME now;
  std::memset(&now, 0, sizeof now);
  shdtNow(&now);
  Out out(s);
  out.put('\x02');
  out.put_u16(static_cast<uint32_t>(rows));
  out.put(static_cast<char>(now.month + 1));
  out.put(static_cast<char>(now.day));
  out.put(static_cast<char>(now.year & 0xFF));
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveDbase2Column(ExportState* s, const char* name, int32_t width,
                                      int32_t type) {
  return dbase_column(s, name, width, type, kDbase2, false);
}

ZBSHR_API(int32_t) osSaveDbase2Item(ExportState* s, const void* value) {
  return dbase_item(s, value, false);
}

ZBSHR_API(int32_t) osSaveDbase2End(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put('\x1A');
  return ex::end_file(s, out);
}

// ---------------------------------------------------------------- Dbase3

ZBSHR_API(ExportState*) osSaveDbase3Begin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                          int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr || rows < 0 || rows > 1000000000 || columns >= 129) return nullptr;
  ExportState* s = ex::begin_state(Kind::Dbase3, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  SHDATETIME now;
  std::memset(&now, 0, sizeof now);
  shdtNow(&now);
  Out out(s);
  out.put('\x03');
  out.put(static_cast<char>(now.year & 0xFF));
  out.put(static_cast<char>(now.month + 1));
  out.put(static_cast<char>(now.day));
  out.put_u32(static_cast<uint32_t>(rows));
  out.put_u16(static_cast<uint32_t>(32 * columns + 33));
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveDbase3Column(ExportState* s, const char* name, int32_t width,
                                      int32_t type) {
  return dbase_column(s, name, width, type, kDbase3, true);
}

ZBSHR_API(int32_t) osSaveDbase3Item(ExportState* s, const void* value) {
  return dbase_item(s, value, true);
}

ZBSHR_API(int32_t) osSaveDbase3End(ExportState* s) { return osSaveDbase2End(s); }

ZBSHR_END_DECLS
