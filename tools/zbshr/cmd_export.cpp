// zbshr export: writes a typed CSV file in any of the ten export formats, and
// the export step of zbshr demo.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cli.h"
#include "zbshr/decimal.h"
#include "zbshr/export.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

constexpr const char* kCmd = "export";

struct FormatFns {
  const char* name;
  const char* ext;
  const char* what;
  ExportState* (ZBSHR_CALL* begin)(ZBSTG_HEAP, uint32_t, const char*, int32_t, int32_t, uint32_t);
  int32_t (ZBSHR_CALL* column)(ExportState*, const char*, int32_t, int32_t);
  int32_t (ZBSHR_CALL* item)(ExportState*, const void*);
  int32_t (ZBSHR_CALL* end)(ExportState*);
};

#define FMT(n, f, ext, what) \
  FormatFns { n, ext, what, osSave##f##Begin, osSave##f##Column, osSave##f##Item, osSave##f##End }

const FormatFns kFormats[] = {
    FMT("csv", Csv, ".csv", "comma-separated text"),
    FMT("text", Text, ".txt", "tab-separated text"),
    FMT("clip", Clip, "", "tab-separated text on the clipboard"),
    FMT("sql", Sql, ".sql", "SQL script (CREATE TABLE and INSERTs)"),
    FMT("dif", Dif, ".dif", "Data Interchange Format"),
    FMT("sylk", Sylk, ".slk", "symbolic link format"),
    FMT("excel", Excel, ".xls", "version-2 BIFF workbook stream"),
    FMT("wk", Wk, ".wks", "WKS worksheet"),
    FMT("dbase2", Dbase2, ".dbf", "dBase II table"),
    FMT("dbase3", Dbase3, ".dbf", "dBase III table"),
};

const FormatFns* find_format(const std::string& name) {
  for (const auto& f : kFormats)
    if (name == f.name) return &f;
  return nullptr;
}

// ---------------------------------------------------------------- CSV input

// Reads CSV records: fields separated by commas, records by CR LF or LF,
// fields in double quotes may hold commas, quotes (doubled) and line breaks.
// An unquoted empty field is null; "" is an empty string.
class CsvReader {
 public:
  explicit CsvReader(FILE* f) : f_(f) {}
  struct Field {
    std::string text;
    bool quoted = false;
  };
  // False at the end of the input. `fields` is reused between calls.
  bool next(std::vector<Field>& fields, std::string& error) {
    fields.clear();
    int c = get();
    if (c == EOF) return false;
    ++line_;
    Field cur;
    for (;;) {
      if (c == '"' && cur.text.empty() && !cur.quoted) {
        cur.quoted = true;
        for (;;) {
          c = get();
          if (c == EOF) {
            error = "unterminated quoted field";
            return false;
          }
          if (c == '"') {
            c = get();
            if (c != '"') break;
          }
          if (c == '\n') ++line_;
          cur.text.push_back(static_cast<char>(c));
        }
        continue;  // c holds the character after the closing quote
      }
      if (c == ',' ) {
        fields.push_back(std::move(cur));
        cur = Field();
        c = get();
        continue;
      }
      if (c == '\r') {
        int d = get();
        if (d != '\n' && d != EOF) unget(d);
        c = '\n';
      }
      if (c == '\n' || c == EOF) {
        fields.push_back(std::move(cur));
        return true;
      }
      if (cur.quoted) {
        error = "text after a closing quote";
        return false;
      }
      cur.text.push_back(static_cast<char>(c));
      c = get();
    }
  }
  long line() const { return line_; }
  void rewind() {
    std::rewind(f_);
    pos_ = len_ = 0;
    line_ = 0;
    pushed_ = -2;
  }

 private:
  int get() {
    if (pushed_ != -2) {
      int c = pushed_;
      pushed_ = -2;
      return c;
    }
    if (pos_ == len_) {
      len_ = std::fread(buf_, 1, sizeof buf_, f_);
      pos_ = 0;
      if (len_ == 0) return EOF;
    }
    return static_cast<unsigned char>(buf_[pos_++]);
  }
  void unget(int c) { pushed_ = c; }
  FILE* f_;
  char buf_[1 << 16];
  size_t pos_ = 0, len_ = 0;
  int pushed_ = -2;
  long line_ = 0;
};

struct Column {
  std::string name;
  int32_t type = 0;
  int32_t width = -1;  // -1: not given
  int32_t longest = 0;
  int32_t scale = 0;
};

bool parse_header(const std::vector<CsvReader::Field>& fields, std::vector<Column>& cols,
                  std::string& error) {
  static const struct {
    const char* name;
    int32_t code;
  } types[] = {{"string", OSSAVE_STRING}, {"number", OSSAVE_NUMBER}, {"decimal", OSSAVE_DECIMAL},
               {"date", OSSAVE_DATE},     {"time", OSSAVE_TIME},     {"datetime", OSSAVE_DATETIME}};
  auto type_of = [&](const std::string& s) -> int32_t {
    for (const auto& ty : types)
      if (s == ty.name) return ty.code;
    return 0;
  };
  for (const auto& f : fields) {
    Column c;
    const std::string& t = f.text;
    // name:type or name:type:width; the name itself may hold colons
    const size_t a = t.rfind(':');
    const size_t b = (a == std::string::npos || a == 0) ? std::string::npos : t.rfind(':', a - 1);
    const std::string last = a == std::string::npos ? "" : t.substr(a + 1);
    if (b != std::string::npos && type_of(t.substr(b + 1, a - b - 1)) != 0 && !last.empty() &&
        last.find_first_not_of("0123456789") == std::string::npos) {
      if (last.size() > 5 || std::stol(last) > 65535) {
        error = "bad width in column heading '" + t + "'";
        return false;
      }
      c.name = t.substr(0, b);
      c.type = type_of(t.substr(b + 1, a - b - 1));
      c.width = static_cast<int32_t>(std::stol(last));
    } else if (a != std::string::npos && type_of(last) != 0) {
      c.name = t.substr(0, a);
      c.type = type_of(last);
    } else {
      error = "column heading '" + t +
              "' must be name:type[:width] with type string, number, decimal, date, time or "
              "datetime";
      return false;
    }
    cols.push_back(std::move(c));
  }
  return true;
}

// A parsed cell, ready for an Item call.
struct Value {
  bool null = true;
  double number = 0;
  SHDEC dec{};
  SHDATETIME dt{};
  std::string sql_text;  // date/time values of the SQL format
};

std::string sql_datetime_text(int32_t type, const SHDATETIME& d) {
  char b[64];
  std::string frac;
  if (d.microsecond != 0) {
    std::snprintf(b, sizeof b, ".%06u", static_cast<unsigned>(d.microsecond));
    frac = b;
    while (frac.back() == '0') frac.pop_back();
  }
  if (type == OSSAVE_DATE)
    std::snprintf(b, sizeof b, "'%04d-%02d-%02d'", d.year + 1900, d.month + 1, d.day);
  else if (type == OSSAVE_TIME)
    std::snprintf(b, sizeof b, "'%02d:%02d:%02d%s'", d.hour, d.minute, d.second, frac.c_str());
  else
    std::snprintf(b, sizeof b, "'%04d-%02d-%02d %02d:%02d:%02d%s'", d.year + 1900, d.month + 1,
                  d.day, d.hour, d.minute, d.second, frac.c_str());
  return b;
}

bool parse_value(const Column& c, const CsvReader::Field& f, bool sql, Value& v,
                 std::string& error) {
  v.null = f.text.empty() && !f.quoted;
  if (v.null || c.type == OSSAVE_STRING) return true;
  const char* s = f.text.c_str();
  switch (c.type) {
    case OSSAVE_NUMBER: {
      char* end = nullptr;
      v.number = std::strtod(s, &end);
      while (*end == ' ') ++end;
      if (end == s || *end != '\0') {
        error = "'" + f.text + "' is not a number";
        return false;
      }
      return true;
    }
    case OSSAVE_DECIMAL:
      if (ConvAsciiToDecimal(&v.dec, s) == nullptr) {
        error = "'" + f.text + "' is not a decimal number";
        return false;
      }
      return true;
    default: {
      const int32_t mode = c.type == OSSAVE_DATE ? SHDT_DATE
                           : c.type == OSSAVE_TIME ? SHDT_TIME
                                                   : SHDT_DATETIME;
      std::memset(&v.dt, 0, sizeof v.dt);
      int32_t rc = shdtParse(&v.dt, s, mode);
      if (rc != SHDT_OK) {
        error = "'" + f.text + "' is not a valid " +
                (mode == SHDT_DATE ? "date" : mode == SHDT_TIME ? "time" : "date and time") +
                " (error " + std::to_string(rc) + ")";
        return false;
      }
      if (sql) v.sql_text = sql_datetime_text(c.type, v.dt);
      return true;
    }
  }
}

const void* value_pointer(const Column& c, const CsvReader::Field& f, const Value& v, bool sql) {
  if (v.null) return nullptr;
  switch (c.type) {
    case OSSAVE_STRING: return f.text.c_str();
    case OSSAVE_NUMBER: return &v.number;
    case OSSAVE_DECIMAL: return &v.dec;
    default: return sql ? static_cast<const void*>(v.sql_text.c_str()) : &v.dt;
  }
}

int32_t default_width(const Column& c) {
  switch (c.type) {
    case OSSAVE_STRING: return c.longest > 0 ? c.longest : 1;
    case OSSAVE_DECIMAL: return c.scale;  // SQL writes decimal(16, width)
    case OSSAVE_NUMBER: return 16;
    case OSSAVE_DATE: return 10;
    case OSSAVE_TIME: return 8;
    default: return 19;
  }
}

void usage(FILE* out) {
  std::fprintf(out,
               "usage: zbshr export --format FORMAT [--headings] INPUT.csv [OUTPUT]\n"
               "\n"
               "Writes the rows of INPUT.csv in another format. The first row of the input\n"
               "names the columns as name:type[:width], type one of string, number,\n"
               "decimal, date, time, datetime. An empty cell is null (write \"\" for an\n"
               "empty string). Dates and times are read as 1998-07-04, 12:30:45.5 and\n"
               "1998-07-04 12:30:45; a width left out is the longest string seen.\n"
               "\n"
               "  --format FORMAT  one of:\n");
  for (const auto& f : kFormats) std::fprintf(out, "                     %-7s %s\n", f.name, f.what);
  std::fprintf(out,
               "  --headings       write the column names as a first row\n"
               "\n"
               "OUTPUT is required except for clip. On systems without a system clipboard\n"
               "the clip text goes to the program named by ZBSHR_CLIPBOARD_CMD, or to\n"
               "standard output when that is not set.\n");
}

struct Progress {
  bool on = false;
  long total = 0;
  int last = -1;
  void show(long done) {
    if (!on || total == 0) return;
    int pct = static_cast<int>(done * 100 / total);
    if (pct == last) return;
    last = pct;
    std::fprintf(stderr, "\rzbshr export: %3d%% (%ld of %ld rows)", pct, done, total);
  }
  void finish() {
    if (on && last >= 0) std::fprintf(stderr, "\n");
  }
};

int run_export(const FormatFns& fmt, bool headings, const std::string& input,
               const std::string& output, FILE* info, long* rows_written) {
  FILE* in = std::fopen(input.c_str(), "rb");
  if (in == nullptr) return zcli::fail(kCmd, "cannot open " + input + ": " + std::strerror(errno));
  CsvReader reader(in);
  std::vector<CsvReader::Field> fields;
  std::string error;
  std::vector<Column> cols;
  if (!reader.next(fields, error)) {
    std::fclose(in);
    return zcli::fail(kCmd, input + ": " + (error.empty() ? "no heading row" : error));
  }
  if (!parse_header(fields, cols, error)) {
    std::fclose(in);
    return zcli::fail(kCmd, input + ":1: " + error);
  }
  // First pass: count the rows, measure strings and decimal scales, check values.
  const bool sql = std::strcmp(fmt.name, "sql") == 0;
  std::vector<Value> vals(cols.size());
  long rows = 0;
  while (reader.next(fields, error)) {
    if (fields.size() == 1 && fields[0].text.empty() && !fields[0].quoted) continue;  // blank line
    if (fields.size() != cols.size()) {
      std::fclose(in);
      return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": " +
                                  std::to_string(fields.size()) + " cells, expected " +
                                  std::to_string(cols.size()));
    }
    for (size_t i = 0; i < cols.size(); ++i) {
      if (!parse_value(cols[i], fields[i], false, vals[i], error)) {
        std::fclose(in);
        return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": column " +
                                    cols[i].name + ": " + error);
      }
      if (cols[i].type == OSSAVE_STRING && fields[i].text.size() > static_cast<size_t>(cols[i].longest))
        cols[i].longest = static_cast<int32_t>(fields[i].text.size() > 65535 ? 65535 : fields[i].text.size());
      if (cols[i].type == OSSAVE_DECIMAL && !vals[i].null) {
        int32_t sc = DecimalPrecision(&vals[i].dec);
        if (sc > cols[i].scale) cols[i].scale = sc;
      }
    }
    ++rows;
  }
  if (!error.empty()) {
    std::fclose(in);
    return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": " + error);
  }
  if (rows > INT32_MAX) {
    std::fclose(in);
    return zcli::fail(kCmd, "too many rows");
  }

  ZBSTG_HEAP heap = zbstg_begin(0);
  ExportState* h = fmt.begin(heap, 0, output.empty() ? nullptr : output.c_str(),
                             static_cast<int32_t>(rows), static_cast<int32_t>(cols.size()),
                             headings ? OSSAVE_HEADINGS : 0);
  if (h == nullptr) {
    std::fclose(in);
    zbstg_end(heap);
    std::string why = "cannot create " + output;
    if (std::strncmp(fmt.name, "dbase", 5) == 0)
      why += std::string(" (or the table is too large: ") +
             (fmt.name[5] == '2' ? "at most 65,535 rows and 32 columns)"
                                 : "at most 1,000,000,000 rows and 128 columns)");
    return zcli::fail(kCmd, why);
  }
  for (const Column& c : cols) {
    const int32_t w = c.width >= 0 ? c.width : default_width(c);
    if (!fmt.column(h, c.name.c_str(), w, c.type)) {
      fmt.end(h);
      std::fclose(in);
      zbstg_end(heap);
      return zcli::fail(kCmd, "column " + c.name + " was refused (for dBase: the record is "
                                                   "limited to 1000 / 4000 bytes)");
    }
  }
  // Second pass: write.
  Progress progress;
  progress.on = zcli::stderr_is_terminal() && rows >= 100000;
  progress.total = rows;
  reader.rewind();
  reader.next(fields, error);  // headings
  long done = 0;
  int rc = zcli::kOk;
  while (rc == zcli::kOk && reader.next(fields, error)) {
    if (fields.size() == 1 && fields[0].text.empty() && !fields[0].quoted) continue;
    for (size_t i = 0; i < cols.size() && i < fields.size(); ++i) {
      if (!parse_value(cols[i], fields[i], sql, vals[i], error)) {
        rc = zcli::fail(kCmd, input + ": changed while it was read");
        break;
      }
      if (!fmt.item(h, value_pointer(cols[i], fields[i], vals[i], sql))) {
        rc = zcli::fail(kCmd, "writing " + output + " failed");
        break;
      }
    }
    ++done;
    if ((done & 0x3FFF) == 0) progress.show(done);
  }
  progress.show(done);
  progress.finish();
  std::fclose(in);
  if (!fmt.end(h) && rc == zcli::kOk) rc = zcli::fail(kCmd, "finishing " + output + " failed");
  zbstg_end(heap);
  if (rows_written) *rows_written = done;
  if (rc == zcli::kOk && info != nullptr && !output.empty())
    std::fprintf(info, "wrote %ld rows of %zu columns to %s (%s)\n", done, cols.size(),
                 output.c_str(), fmt.what);
  return rc;
}

int cmd_export(int argc, char** argv) {
  std::string format, input, output;
  bool headings = false;
  std::vector<std::string> pos;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      usage(stdout);
      return zcli::kOk;
    } else if (a == "--format" && i + 1 < argc) {
      format = argv[++i];
    } else if (a.rfind("--format=", 0) == 0) {
      format = a.substr(9);
    } else if (a == "--headings") {
      headings = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return zcli::usage_error(kCmd, "unknown option " + a);
    } else {
      pos.push_back(a);
    }
  }
  if (format.empty()) return zcli::usage_error(kCmd, "--format is required");
  const FormatFns* fmt = find_format(format);
  if (fmt == nullptr) return zcli::usage_error(kCmd, "unknown format " + format);
  const bool clip = std::strcmp(fmt->name, "clip") == 0;
  if (pos.empty()) return zcli::usage_error(kCmd, "INPUT.csv is required");
  if (clip ? pos.size() != 1 : pos.size() != 2)
    return zcli::usage_error(kCmd, clip ? "clip takes no OUTPUT" : "INPUT.csv and OUTPUT are required");
  input = pos[0];
  if (!clip) output = pos[1];
  int rc = run_export(*fmt, headings, input, output, nullptr, nullptr);
  if (rc == zcli::kOk && clip) {
    const char* cmd = std::getenv("ZBSHR_CLIPBOARD_CMD");
    if (cmd == nullptr || *cmd == '\0') {
      int32_t n = zbshr_clipboard_text(nullptr, 0);
      std::string text(static_cast<size_t>(n) + 1, '\0');
      zbshr_clipboard_text(text.data(), static_cast<uint32_t>(text.size()));
      std::fwrite(text.data(), 1, static_cast<size_t>(n), stdout);
    }
  }
  return rc;
}

ZBSHR_SUBCOMMAND(export, "export", "write a typed CSV file in one of ten export formats",
                 cmd_export);

// ---------------------------------------------------------------- demo

int demo_export(const zcli::DemoContext& ctx) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::path(ctx.workdir) / "export";
  std::error_code ec;
  fs::create_directories(dir, ec);
  const fs::path input = dir / "orders.csv";
  {
    FILE* f = std::fopen(input.string().c_str(), "wb");
    if (f == nullptr) return zcli::fail("demo", "cannot write " + input.string());
    std::fputs("id:number,customer:string:20,amount:decimal:2,ordered:date,at:time\r\n"
               "1,\"O'Hara, Scarlett\",1250.50,1998-07-04,09:15:00\r\n"
               "2,\"Say \"\"hi\"\"\",-12.25,2001-01-02,23:59:59.5\r\n"
               "3,,,,\r\n",
               f);
    std::fclose(f);
  }
  std::fprintf(ctx.out, "export: the result set in %s written in ten formats:\n",
               input.string().c_str());
  for (const auto& fmt : kFormats) {
    const bool clip = std::strcmp(fmt.name, "clip") == 0;
    const std::string out =
        clip ? std::string() : (dir / (std::string("orders_") + fmt.name + fmt.ext)).string();
    long rows = 0;
    int rc = run_export(fmt, true, input.string(), out, nullptr, &rows);
    if (rc != zcli::kOk) return rc;
    if (clip) {
      std::fprintf(ctx.out, "  %-7s %ld rows, %d bytes of text on the clipboard\n", fmt.name, rows,
                   zbshr_clipboard_text(nullptr, 0));
    } else {
      std::fprintf(ctx.out, "  %-7s %s (%ju bytes)\n", fmt.name, out.c_str(),
                   static_cast<uintmax_t>(fs::file_size(out, ec)));
    }
  }
  return zcli::kOk;
}

ZBSHR_DEMO_STEP(export, 70, "data export in ten formats", demo_export);

}  // namespace
