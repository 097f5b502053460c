// The text formats: comma- and tab-separated text, the clipboard, an SQL
// script, DIF and SYLK. Each one's quoting rule differs on purpose.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "export/state.h"
#include "platform/platform.h"

using zbshr::exp::ExportColumn;
using zbshr::exp::Kind;
using zbshr::exp::Out;
namespace ex = zbshr::exp;

namespace {

constexpr const char* kCrLf = "\r\n";
constexpr int32_t kDtBuf = 299;     // date and time rendering buffer
constexpr int32_t kNumBuf = 30;     // number rendering buffer of most formats
constexpr int32_t kDifNumBuf = 16;  // DIF renders numbers into 16 bytes

// Writes the rendered text of a number, decimal, date, time or date-time
// value (non-null) into `out`, returns its length; 0 for other types, and
// ex::kNoFit for a number that cannot be shown in `num_buf` bytes.
size_t render_value(ExportState* s, uint8_t type, const void* v, char* out, int32_t num_buf) {
  switch (type) {
    case ex::kNumber: return ex::render_double(s, *static_cast<const double*>(v), out, num_buf);
    case ex::kDecimal: return ex::render_decimal(s, v, out, num_buf);
    case ex::kDate:
    case ex::kTime:
    case ex::kDateTime:
      return ex::render_dt_type(s, type, static_cast<const SHDATETIME*>(v), out, kDtBuf);
    default: out[0] = '\0'; return 0;
  }
}

// ---------------------------------------------------------------- delimited text

enum class Quote { Comma, Tab, Clip };

// The length of a string that needs no quotes, or -1 when it needs them.
ptrdiff_t plain_length(Quote q, const char* z) {
  size_t k;
  switch (q) {
    case Quote::Comma:
      k = std::strcspn(z, ",");
      break;
    case Quote::Tab:
      k = std::strcspn(z, "\t\r\n\"");
      break;
    default:
      if (z[0] == '"') return -1;
      k = std::strcspn(z, "\t\r\n");
      break;
  }
  return z[k] == '\0' ? static_cast<ptrdiff_t>(k) : -1;
}

int32_t delimited_column(ExportState* s, const char* name, int32_t width, int32_t type,
                         char sep) {
  if (ex::column_store(s, name, width, type) == nullptr) return 0;
  if (s->options & OSSAVE_HEADINGS) {
    Out out(s);
    out.put(name ? name : "");
    if (ex::column_is_last(s))
      out.put(kCrLf, 2);
    else
      out.put(sep);
    if (!out.flush()) return 0;
  }
  ex::column_advance(s);
  return 1;
}

int32_t delimited_item(ExportState* s, const void* value, char sep, Quote q) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  Out out(s);
  if (value != nullptr) {
    if (col->type == ex::kString) {
      const char* z = static_cast<const char*>(value);
      const ptrdiff_t n = plain_length(q, z);
      if (n < 0)
        out.put_quoted(z);
      else
        out.put(z, static_cast<size_t>(n));
    } else {
      // rendered straight into the output
      char* at = out.reserve(kDtBuf + ex::kSuffixRoom);
      const size_t n = render_value(s, col->type, value, at, kNumBuf);
      if (n == ex::kNoFit) return 0;  // nothing of the cell was sent
      out.commit(n);
    }
  }
  if (ex::item_is_last(s))
    out.put(kCrLf, 2);
  else
    out.put(sep);
  if (!out.flush()) return 0;
  ex::item_advance(s);
  return 1;
}

// ---------------------------------------------------------------- SYLK

void sylk_prefix(ExportState* s, Out& out) {
  if (s->cur_col == 0) {
    out.put("C;Y", 3);
    out.put_int(static_cast<int64_t>(s->cur_row) + 1);
    out.put(";X1;K", 5);
  } else {
    out.put("C;X", 3);
    out.put_int(static_cast<int64_t>(s->cur_col) + 1);
    out.put(";K", 2);
  }
}

}  // namespace

ZBSHR_BEGIN_DECLS

// ---------------------------------------------------------------- Csv / Text

ZBSHR_API(ExportState*) osSaveCsvBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                       int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr) return nullptr;
  ExportState* s = ex::begin_state(Kind::Csv, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);  // no header
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveCsvColumn(ExportState* s, const char* name, int32_t width,
                                   int32_t type) {
  return delimited_column(s, name, width, type, ',');
}

ZBSHR_API(int32_t) osSaveCsvItem(ExportState* s, const void* value) {
  return delimited_item(s, value, ',', Quote::Comma);
}

ZBSHR_API(int32_t) osSaveCsvEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;  // never begun, or already ended
  Out out(s);
  return ex::end_file(s, out);
}

ZBSHR_API(ExportState*) osSaveTextBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                        int32_t rows, int32_t columns, uint32_t options) {
  return osSaveCsvBegin(heap, pool, file_name, rows, columns, options);
}

ZBSHR_API(int32_t) osSaveTextColumn(ExportState* s, const char* name, int32_t width,
                                    int32_t type) {
  return delimited_column(s, name, width, type, '\t');
}

ZBSHR_API(int32_t) osSaveTextItem(ExportState* s, const void* value) {
  return delimited_item(s, value, '\t', Quote::Tab);
}

ZBSHR_API(int32_t) osSaveTextEnd(ExportState* s) { return osSaveCsvEnd(s); }

// ---------------------------------------------------------------- Clip

ZBSHR_API(ExportState*) osSaveClipBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                        int32_t rows, int32_t columns, uint32_t options) {
  (void)file_name;  // the clipboard has no file; the table name stays empty
  return ex::begin_state(Kind::Clip, heap, pool, nullptr, rows, columns, options);
}

ZBSHR_API(int32_t) osSaveClipColumn(ExportState* s, const char* name, int32_t width,
                                    int32_t type) {
  return delimited_column(s, name, width, type, '\t');
}

ZBSHR_API(int32_t) osSaveClipItem(ExportState* s, const void* value) {
  return delimited_item(s, value, '\t', Quote::Clip);
}

ZBSHR_API(int32_t) osSaveClipEnd(ExportState* s) {
  namespace plat = zbshr::plat;
  if (!ex::claim(s)) return 0;
  plat::HGLOBAL h = nullptr;
  if (s->clip != nullptr && s->clip_used > 0) {
    h = plat::GlobalAlloc(plat::GMEM_MOVEABLE | plat::GMEM_ZEROINIT,
                          static_cast<size_t>(s->clip_used) + 1);
    if (h != nullptr) {
      void* p = plat::GlobalLock(h);
      if (p != nullptr) {
        std::memcpy(p, s->clip, static_cast<size_t>(s->clip_used) + 1);
        plat::GlobalUnlock(h);
      } else {
        plat::GlobalFree(h);
        h = nullptr;
      }
    }
  }
  if (plat::OpenClipboard(plat::GetActiveWindow())) {
    plat::EmptyClipboard();
    if (h != nullptr && plat::SetClipboardData(plat::CF_TEXT, h) != nullptr) h = nullptr;
    plat::CloseClipboard();
  }
  if (h != nullptr) plat::GlobalFree(h);  // not handed over to the clipboard
  ex::free_state(s);
  return 1;
}

// ---------------------------------------------------------------- Sql

ZBSHR_API(ExportState*) osSaveSqlBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                       int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr) return nullptr;
  ExportState* s = ex::begin_state(Kind::Sql, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);
  out.put("CREATE TABLE ");
  out.put(s->table);
  out.put(" (");
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveSqlColumn(ExportState* s, const char* name, int32_t width,
                                   int32_t type) {
  ExportColumn* col = ex::column_store(s, name, width, type);
  if (col == nullptr) return 0;
  Out out(s);
  const char* n = name ? name : "";
  const char* kind = nullptr;
  switch (col->type) {
    case ex::kNumber: kind = " float"; break;
    case ex::kDateTime: kind = " datetime"; break;
    case ex::kDate: kind = " date"; break;
    case ex::kTime: kind = " time"; break;
    default: break;
  }
  if (kind != nullptr) {
    out.put("\r\n\t");
    out.put(n);
    out.put(kind);
  } else if (col->type == ex::kDecimal) {
    out.put("\r\n\t");
    out.put(n);
    out.putf(" decimal(16, %d)", width);
  } else if (col->type == ex::kString) {
    out.put("\r\n\t");
    out.put(n);
    out.putf(" char(%d)", width);
  }
  out.put(ex::column_is_last(s) ? ");" : ",");
  if (!out.flush()) return 0;
  ex::column_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveSqlItem(ExportState* s, const void* value) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  char num[kNumBuf];
  size_t num_len = 0;
  if (value != nullptr && (col->type == ex::kNumber || col->type == ex::kDecimal)) {
    num_len = render_value(s, col->type, value, num, kNumBuf);
    if (num_len == ex::kNoFit) return 0;
  }
  Out out(s);
  if (s->cur_col == 0) {
    out.put("\r\nINSERT INTO ");
    out.put(s->table);
    out.put(" VALUES (\r\n\t");
  } else {
    out.put(",\r\n\t");
  }
  if (value == nullptr) {
    out.put("NULL");
  } else {
    switch (col->type) {
      case ex::kString: {
        const char* z = static_cast<const char*>(value);
        out.put('\'');
        const char* run = z;
        for (const char* p = z; *p; ++p) {
          if (*p == '\'') {
            out.put(run, static_cast<size_t>(p - run) + 1);
            run = p;
          }
        }
        out.put(run);
        out.put('\'');
        break;
      }
      case ex::kNumber:
      case ex::kDecimal:
        out.put(num, num_len);
        break;
      case ex::kDate:
      case ex::kTime:
      case ex::kDateTime:
        out.put(static_cast<const char*>(value));  // formatted by the caller
        break;
      default: break;
    }
  }
  if (ex::item_is_last(s)) out.put(");");
  if (!out.flush()) return 0;
  ex::item_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveSqlEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put(kCrLf, 2);
  return ex::end_file(s, out);
}

// ---------------------------------------------------------------- Dif

ZBSHR_API(ExportState*) osSaveDifBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                       int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr) return nullptr;
  ExportState* s = ex::begin_state(Kind::Dif, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);
  out.put("TABLE\r\n0,1\r\n\"");
  out.put(file_name);  // the name as given, not the table name
  out.put("\"\r\n");
  out.putf("VECTORS\r\n0,%d\r\n\"\"\r\n", columns);
  out.putf("TUPLES\r\n0,%d\r\n\"\"\r\n", rows);
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveDifColumn(ExportState* s, const char* name, int32_t width,
                                   int32_t type) {
  if (ex::column_store(s, name, width, type) == nullptr) return 0;
  Out out(s);
  out.putf("LABEL\r\n%d,1\r\n\"", s->cur_col + 1);
  out.put(name ? name : "");
  out.put("\"\r\n");
  if (ex::column_is_last(s)) out.put("DATA\r\n0,0\r\n\"\"\r\n");
  if (!out.flush()) return 0;
  ex::column_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveDifItem(ExportState* s, const void* value) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  char buf[kDtBuf + ex::kSuffixRoom];
  size_t num_len = 0;
  if (col->type == ex::kNumber) {
    const double v = value ? *static_cast<const double*>(value) : 0.0;
    num_len = ex::render_double(s, v, buf, kDifNumBuf);
  } else if (col->type == ex::kDecimal) {
    num_len = value ? ex::render_decimal(s, value, buf, kDifNumBuf) : 3;
    if (value == nullptr) std::memcpy(buf, "0.0", 4);
  }
  if (num_len == ex::kNoFit) return 0;
  Out out(s);
  if (s->cur_col == 0) out.put("-1,0\r\nBOT\r\n");
  switch (col->type) {
    case ex::kString:
      out.put("1,0\r\n");
      out.put_quoted(value ? static_cast<const char*>(value) : "");
      out.put(kCrLf, 2);
      break;
    case ex::kNumber:
    case ex::kDecimal:
      out.put("0,");
      out.put(buf, num_len);
      out.put("\r\nV\r\n");
      break;
    case ex::kDate:
    case ex::kTime:
    case ex::kDateTime:
      out.put("1,0\r\n\"");
      if (value != nullptr)
        out.put(buf, ex::render_dt_type(s, col->type, static_cast<const SHDATETIME*>(value), buf,
                                        kDtBuf));
      out.put("\"\r\n");
      break;
    default: break;
  }
  if (!out.flush()) return 0;
  ex::item_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveDifEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put("-1,0\r\nEOD\r\n");
  return ex::end_file(s, out);
}

// ---------------------------------------------------------------- Sylk

ZBSHR_API(ExportState*) osSaveSylkBegin(ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                                        int32_t rows, int32_t columns, uint32_t options) {
  if (file_name == nullptr) return nullptr;
  ExportState* s = ex::begin_state(Kind::Sylk, heap, pool, file_name, rows, columns, options);
  if (s == nullptr) return nullptr;
  Out out(s);
  out.putf("ID;PZB\r\nB;Y%d;X%d\r\n", rows, columns);
  return ex::finish_begin(s, out);
}

ZBSHR_API(int32_t) osSaveSylkColumn(ExportState* s, const char* name, int32_t width,
                                    int32_t type) {
  if (ex::column_store(s, name, width, type) == nullptr) return 0;
  return ex::heading_column(s, [&](Out& out) {  // data starts in row 2
    sylk_prefix(s, out);
    out.put('"');
    out.put(name ? name : "");
    out.put("\"\r\n");
  });
}

ZBSHR_API(int32_t) osSaveSylkItem(ExportState* s, const void* value) {
  ExportColumn* col = ex::item_column(s);
  if (col == nullptr) return 0;
  char buf[kDtBuf + ex::kSuffixRoom];
  size_t num_len = 0;
  if (col->type == ex::kNumber) {
    const double v = value ? *static_cast<const double*>(value) : 0.0;
    num_len = ex::render_double(s, v, buf, kNumBuf);
  } else if (col->type == ex::kDecimal) {
    num_len = value ? ex::render_decimal(s, value, buf, kNumBuf) : 3;
    if (value == nullptr) std::memcpy(buf, "0.0", 4);
  }
  if (num_len == ex::kNoFit) return 0;
  Out out(s);
  switch (col->type) {
    case ex::kString:
      sylk_prefix(s, out);
      out.put_quoted(value ? static_cast<const char*>(value) : "");
      out.put(kCrLf, 2);
      break;
    case ex::kNumber:
    case ex::kDecimal:
      sylk_prefix(s, out);
      out.put(buf, num_len);
      out.put(kCrLf, 2);
      break;
    case ex::kDate:
    case ex::kTime:
    case ex::kDateTime:
      sylk_prefix(s, out);
      out.put('"');
      if (value != nullptr)
        out.put(buf, ex::render_dt_type(s, col->type, static_cast<const SHDATETIME*>(value), buf,
                                        kDtBuf));
      out.put("\"\r\n");
      break;
    default: break;  // no record at all
  }
  if (!out.flush()) return 0;
  ex::item_advance(s);
  return 1;
}

ZBSHR_API(int32_t) osSaveSylkEnd(ExportState* s) {
  if (!ex::claim(s)) return 0;
  Out out(s);
  out.put("E\r\n");
  return ex::end_file(s, out);
}

ZBSHR_END_DECLS
