// zbshr export: writes a typed CSV file in any of the ten export formats, and
// the export step of zbshr demo.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "args.h"
#include "cli.h"
#include "fileio.h"
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
    if (line_ == 0 && c == 0xEF) {  // a UTF-8 byte-order mark
      if (get() != 0xBB || get() != 0xBF) {
        error = "the input starts with a broken byte-order mark";
        return false;
      }
      c = get();
    }
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
  auto type_of = [&](std::string s) -> int32_t {
    for (auto& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
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
      errno = 0;
      v.number = std::strtod(s, &end);
      // Underflow to a subnormal keeps a value (5e-324 is a double); to zero, it does not.
      const bool range = errno == ERANGE && v.number == 0;
      while (*end == ' ') ++end;
      if (end == s || *end != '\0') {
        error = "'" + f.text + "' is not a number";
        return false;
      }
      if (!std::isfinite(v.number) || range) {
        error = "'" + f.text + "' is not a finite number in the range of a double";
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
      // ISO 8601 date-times may separate the date and the time with 'T'.
      std::string text = f.text;
      if (text.size() > 10 && (text[10] == 'T' || text[10] == 't') && text[4] == '-') text[10] = ' ';
      int32_t rc = shdtParse(&v.dt, text.c_str(), mode);
      if (rc != SHDT_OK) {
        static const char* const kWhy[] = {"",      "the day",  "the month",  "the second", "the minute",
                                           "the hour", "the text", "the year", "the fraction"};
        error = "'" + f.text + "' is not a valid " +
                (mode == SHDT_DATE ? "date" : mode == SHDT_TIME ? "time" : "date and time") + ": " +
                (rc > 0 && rc < 9 ? kWhy[rc] : "its form") + " is wrong";
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

// How many characters a format gives a number's text (0: binary numbers).
int number_room(const FormatFns& fmt) {
  const std::string n = fmt.name;
  if (n == "dif") return 15;
  if (n == "dbase2" || n == "dbase3") return 16;
  if (n == "excel" || n == "wk") return 0;
  return 29;
}

// Whether the "[GENERAL]" text of a value is longer than `room`: the format
// then writes it with fewer significant digits.
bool number_shortened(const unsigned char* general, const Column& c, const Value& v, int room) {
  if (room <= 0 || v.null) return false;
  if (c.type == OSSAVE_NUMBER) {
    char t[64];
    return shformatDouble(t, room + 1, general, &v.number) == SHFORMAT_E_OVERFLOW;
  }
  if (c.type == OSSAVE_DECIMAL) {
    char t[SHDEC_TEXT_SIZE + 8];
    if (ConvDecimalToAscii(t, &v.dec) == nullptr) return false;
    size_t n = std::strlen(t);
    if (std::strchr(t, '.') != nullptr) {
      while (n > 0 && t[n - 1] == '0') --n;
      if (n > 0 && t[n - 1] == '.') --n;
    }
    return n > static_cast<size_t>(room);
  }
  return false;
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

// What the format can hold: rows past its last row number, columns past its
// last column, texts longer than a record. Empty when everything fits.
std::string limit_problem(const FormatFns& fmt, bool headings, long rows, size_t ncols,
                          size_t longest_text) {
  const std::string name = fmt.name;
  const long last_rows = headings ? 65535 : 65536;
  if (name == "excel" || name == "wk") {
    const char* what = name == "excel" ? "BIFF" : "WKS";
    if (rows > last_rows)
      return std::string(what) + " files hold " + std::to_string(last_rows) + " rows" +
             (headings ? " below the headings" : "") + "; the rows past them (" +
             std::to_string(rows - last_rows) + ") would be left out";
    if (ncols > 256)
      return std::string(what) + " files hold 256 columns; " + std::to_string(ncols - 256) +
             " would be left out";
    if (name == "excel" && longest_text > 65527)
      return "BIFF text records hold 65,527 bytes; a longer text would be cut";
  }
  if (name == "dbase2" && (rows > 65535 || ncols > 32))
    return "dBase II tables hold at most 65,535 rows and 32 columns";
  if (name == "dbase3" && (rows > 1000000000L || ncols > 128))
    return "dBase III tables hold at most 1,000,000,000 rows and 128 columns";
  return "";
}

int run_export(const FormatFns& fmt, bool headings, const std::string& input,
               const std::string& output, FILE* info, long* rows_written, bool force = false) {
  std::string error;
  FILE* in = zcli::open_input(input, true, error);
  if (in == nullptr) return zcli::fail(kCmd, error);
  struct Closer {
    FILE* f;
    ~Closer() { zcli::close_input(f); }
  } closer{in};
  CsvReader reader(in);
  std::vector<CsvReader::Field> fields;
  std::vector<Column> cols;
  if (!reader.next(fields, error)) {
    return zcli::fail(kCmd, input + ": " + (error.empty() ? "no heading row" : error));
  }
  if (!parse_header(fields, cols, error)) {
    return zcli::fail(kCmd, input + ":1: " + error);
  }
  // First pass: count the rows, measure strings and decimal scales, check values.
  const bool sql = std::strcmp(fmt.name, "sql") == 0;
  std::vector<Value> vals(cols.size());
  long rows = 0;
  size_t longest_text = 0;
  const int room = number_room(fmt);
  unsigned char general[SHFORMAT_BUFSIZE];
  shformatCmplNumericMask(general, "[GENERAL]", sizeof general);
  long shortened = 0;
  std::string first_shortened;
  while (reader.next(fields, error)) {
    if (zcli::interrupted()) return zcli::fail(kCmd, "interrupted; nothing written");
    if (fields.size() == 1 && fields[0].text.empty() && !fields[0].quoted) continue;  // blank line
    if (fields.size() != cols.size()) {
      return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": " +
                                  std::to_string(fields.size()) + " cells, expected " +
                                  std::to_string(cols.size()));
    }
    for (size_t i = 0; i < cols.size(); ++i) {
      if (!parse_value(cols[i], fields[i], false, vals[i], error)) {
        return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": column " +
                                    cols[i].name + ": " + error);
      }
      if (cols[i].type == OSSAVE_STRING && fields[i].text.size() > longest_text)
        longest_text = fields[i].text.size();
      if (cols[i].type == OSSAVE_STRING && fields[i].text.size() > static_cast<size_t>(cols[i].longest))
        cols[i].longest = static_cast<int32_t>(fields[i].text.size() > 65535 ? 65535 : fields[i].text.size());
      if (cols[i].type == OSSAVE_DECIMAL && !vals[i].null) {
        int32_t sc = DecimalPrecision(&vals[i].dec);
        if (sc > cols[i].scale) cols[i].scale = sc;
      }
      if (number_shortened(general, cols[i], vals[i], room) && shortened++ == 0)
        first_shortened = input + ":" + std::to_string(reader.line()) + ", column " + cols[i].name +
                          ": " + fields[i].text;
    }
    ++rows;
  }
  if (!error.empty()) {
    return zcli::fail(kCmd, input + ":" + std::to_string(reader.line()) + ": " + error);
  }
  if (rows > INT32_MAX) return zcli::fail(kCmd, "too many rows");
  if (std::ferror(in)) return zcli::fail(kCmd, "cannot read " + input + ": " + zcli::os_reason(errno));
  const std::string limit = limit_problem(fmt, headings, rows, cols.size(), longest_text);
  if (!limit.empty()) {
    const bool hard = std::strncmp(fmt.name, "dbase", 5) == 0;
    if (hard || !force)
      return zcli::fail(kCmd, limit + (hard ? "; nothing written" : "; nothing written (--force writes what fits)"));
    std::fprintf(stderr, "zbshr export: warning: %s\n", limit.c_str());
  }
  if (shortened > 0) {
    const std::string why = std::to_string(shortened) + (shortened == 1 ? " number is" : " numbers are") +
                            " longer than the " + std::to_string(room) + " characters " + fmt.name +
                            " gives a number and would be written with fewer digits (first: " +
                            first_shortened + ")";
    if (!force) return zcli::fail(kCmd, why + "; nothing written (--force writes them shortened)");
    std::fprintf(stderr, "zbshr export: warning: %s\n", why.c_str());
  }
  zcli::AtomicOutput target;
  if (!output.empty() && !target.prepare(output, error)) return zcli::fail(kCmd, error);
  const std::string write_to = output.empty() ? std::string() : target.temp_path();

  ZBSTG_HEAP heap = zbstg_begin(0);
  ExportState* h = fmt.begin(heap, 0, write_to.empty() ? nullptr : write_to.c_str(),
                             static_cast<int32_t>(rows), static_cast<int32_t>(cols.size()),
                             headings ? OSSAVE_HEADINGS : 0);
  if (h == nullptr) {
    zbstg_end(heap);
    return zcli::fail(kCmd, "cannot create " + output + ": " + zcli::os_reason(errno));
  }
  for (const Column& c : cols) {
    const int32_t w = c.width >= 0 ? c.width : default_width(c);
    if (!fmt.column(h, c.name.c_str(), w, c.type)) {
      fmt.end(h);
      zbstg_end(heap);
      return zcli::fail(kCmd, "column " + c.name + " was refused" +
                                  (std::strncmp(fmt.name, "dbase", 5) == 0
                                       ? std::string(": a dBase record holds at most ") +
                                             (fmt.name[5] == '2' ? "1000" : "4000") + " bytes"
                                       : std::string()) + "; nothing written");
    }
  }
  // Second pass: write.
  Progress progress;
  progress.on = zcli::show_progress() && rows >= 100000;
  progress.total = rows;
  reader.rewind();
  reader.next(fields, error);  // headings
  long done = 0;
  int rc = zcli::kOk;
  while (rc == zcli::kOk && reader.next(fields, error)) {
    if (fields.size() == 1 && fields[0].text.empty() && !fields[0].quoted) continue;
    if (zcli::interrupted()) {
      rc = zcli::fail(kCmd, "interrupted; nothing written");
      break;
    }
    for (size_t i = 0; i < cols.size() && i < fields.size(); ++i) {
      if (!parse_value(cols[i], fields[i], sql, vals[i], error)) {
        rc = zcli::fail(kCmd, input + ": changed while it was read");
        break;
      }
      if (!fmt.item(h, value_pointer(cols[i], fields[i], vals[i], sql)) && !(force && !limit.empty())) {
        rc = zcli::fail(kCmd, "writing " + output + " failed at row " + std::to_string(done + 1) +
                                  ", column " + cols[i].name + "; nothing written");
        break;
      }
    }
    ++done;
    if ((done & 0x3FFF) == 0) progress.show(done);
  }
  progress.show(done);
  progress.finish();
  if (!fmt.end(h) && rc == zcli::kOk) rc = zcli::fail(kCmd, "finishing " + output + " failed; nothing written");
  zbstg_end(heap);
  if (rc == zcli::kOk && !output.empty() && !target.commit(error)) rc = zcli::fail(kCmd, error);
  if (rows_written) *rows_written = done;
  if (rc == zcli::kOk && info != nullptr && !output.empty())
    std::fprintf(info, "wrote %ld rows of %zu columns to %s (%s)\n", done, cols.size(),
                 output.c_str(), fmt.what);
  return rc;
}

int cmd_export(int argc, char** argv) {
  std::string formats;
  for (const auto& f : kFormats) formats += std::string("\n  ") + f.name + std::string(8 - std::strlen(f.name), ' ') + f.what;
  CLI::App app{"Writes the rows of INPUT.csv in another format. The first row of the input\n"
               "names the columns as name:type[:width], type one of string, number,\n"
               "decimal, date, time, datetime (any case). An empty cell is null (write \"\"\n"
               "for an empty string). Dates and times are read as 1998-07-04, 12:30:45.5,\n"
               "1998-07-04 12:30:45 and 1998-07-04T12:30:45; a width left out is the\n"
               "longest string seen. INPUT or OUTPUT '-' is standard input or output.\n"
               "OUTPUT appears only when the whole file was written, and is never INPUT.",
               "zbshr export"};
  app.footer("formats:" + formats +
             "\n\nOUTPUT is required except for clip. On systems without a system clipboard\n"
             "the clip text goes to the program named by ZBSHR_CLIPBOARD_CMD, or to\n"
             "standard output when that is not set.");
  std::string format, input, output;
  bool headings = false, force = false;
  app.add_option("-f,--format", format, "the output format (below)")->required();
  app.add_flag("--headings", headings, "write the column names as a first row");
  app.add_flag("--force", force, "write what fits when the data pass the format's limits, and numbers too long for the format with fewer digits");
  app.add_option("INPUT", input, "typed CSV input ('-': standard input)")->required();
  app.add_option("OUTPUT", output, "the file to write ('-': standard output)");
  if (int rc = zcli::parse_args(app, kCmd, argc, argv); rc >= 0) return rc;
  const FormatFns* fmt = find_format(format);
  if (fmt == nullptr) return zcli::usage_error(kCmd, "unknown format '" + format + "'");
  const bool clip = std::strcmp(fmt->name, "clip") == 0;
  if (clip && !output.empty()) return zcli::usage_error(kCmd, "clip takes no OUTPUT");
  if (!clip && output.empty()) return zcli::usage_error(kCmd, "OUTPUT is required for " + format);
  if (!clip && zcli::same_file(input, output))
    return zcli::fail(kCmd, output + " is the input file; choose another OUTPUT");
  int rc = run_export(*fmt, headings, input, output, nullptr, nullptr, force);
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
