// Display formats: masks compiled once into a caller buffer and applied to
// dates, numbers and strings. docs/FORMATS.md describes the mask language.
//
// Compiled layout (all multi-byte fields little-endian):
//   header, 8 bytes: 0x5A, kind (1 date/time, 2 numeric, 3 string),
//                    total length (16 bits), section count, 3 zero bytes
//   each section:    length (16 bits, header included), flags, then nine
//                    bytes of parameters, then tokens up to the length
//   tokens:          LIT n bytes... | number, date and string tokens below
// Keyword masks and regional patterns are expanded when the mask is
// compiled, so a compiled format keeps the regional settings of that moment.
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "memory/intl.h"
#include "zbshr/decimal.h"
#include "zbshr/format.h"

namespace zbshr::fmt {
namespace {

constexpr uint8_t kMagic = 0x5A;
constexpr int kHeader = 8;
constexpr int kSecHeader = 12;

enum Kind : uint8_t { kKindDate = 1, kKindNumber = 2, kKindString = 3 };

// Tokens.
enum Tok : uint8_t {
  tLit = 1,      // n, bytes
  tInt = 2,      // '0' or '#': an integer digit placeholder
  tDot = 3,      // the decimal point
  tFrac = 4,     // '0' or '#': a fraction digit placeholder
  tExp = 5,      // exponent: 'E' or 'e' as written
  tGeneral = 6,  // the general form of the value
  tField = 7,    // date field id, letter count
  tAmPm = 8,     // style
  tAt = 10,      // string: one character of the value
  tUpper = 11,   // string: following characters upper-cased
  tLower = 12,   // string: following characters lower-cased
};

// Section flags.
enum : uint8_t {
  fGroup = 1,      // thousands separators in the integer part
  fExp = 2,        // exponent form
  fExpPlus = 4,    // exponent always signed
  fDigits = 8,     // the section shows the value (placeholders or general)
  fTwelve = 16,    // date: 12-hour clock
  fEmpty = 32,     // the section is present but empty
  fGeneral = 64,   // number: the section shows the general form
};

// Section parameter bytes (after length and flags).
enum : int { pNInt = 3, pNFrac = 4, pFracMin = 5, pPercent = 6, pExpDigits = 7, pIntZeros = 8 };

// Date fields.
enum Field : uint8_t { dDay = 1, dMonth, dYear, dHour, dMinute, dSecond, dFraction };

// AM/PM styles.
enum : uint8_t { apUpper = 0, apLower = 1, apA = 2, apa = 3 };

// ------------------------------------------------------------------ helpers

inline char ascii_upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }
inline char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (ascii_upper(a[i]) != ascii_upper(b[i])) return false;
  return true;
}

void put16(unsigned char* p, int v) {
  p[0] = static_cast<unsigned char>(v & 0xFF);
  p[1] = static_cast<unsigned char>((v >> 8) & 0xFF);
}
int get16(const unsigned char* p) { return p[0] | (p[1] << 8); }

// A section under construction.
struct Section {
  std::vector<unsigned char> tokens;
  uint8_t flags = 0;
  uint8_t params[9] = {};
  size_t last_lit = SIZE_MAX;  // start of the last LIT token, to extend it

  void lit(std::string_view s) {
    for (char c : s) {
      if (last_lit != SIZE_MAX && tokens[last_lit + 1] < 255) {
        tokens.push_back(static_cast<unsigned char>(c));
        ++tokens[last_lit + 1];
      } else {
        last_lit = tokens.size();
        tokens.push_back(tLit);
        tokens.push_back(1);
        tokens.push_back(static_cast<unsigned char>(c));
      }
    }
  }
  void tok(uint8_t t) {
    tokens.push_back(t);
    last_lit = SIZE_MAX;
  }
  void tok(uint8_t t, uint8_t a) {
    tok(t);
    tokens.push_back(a);
  }
  void tok(uint8_t t, uint8_t a, uint8_t b) {
    tok(t, a);
    tokens.push_back(b);
  }
};

// Writes the compiled form; SHFORMAT_E_SMALL when it does not fit.
int32_t emit(unsigned char* out, int32_t size, Kind kind, const std::vector<Section>& secs) {
  size_t total = kHeader;
  for (const Section& s : secs) total += kSecHeader + s.tokens.size();
  if (total > 0xFFFF || total > static_cast<size_t>(size)) return SHFORMAT_E_SMALL;
  std::memset(out, 0, kHeader);
  out[0] = kMagic;
  out[1] = kind;
  put16(out + 2, static_cast<int>(total));
  out[4] = static_cast<unsigned char>(secs.size());
  size_t at = kHeader;
  for (const Section& s : secs) {
    put16(out + at, static_cast<int>(kSecHeader + s.tokens.size()));
    out[at + 2] = s.flags;
    std::memcpy(out + at + 3, s.params, 9);
    if (!s.tokens.empty()) std::memcpy(out + at + kSecHeader, s.tokens.data(), s.tokens.size());
    at += kSecHeader + s.tokens.size();
  }
  return SHFORMAT_OK;
}

// Splits a mask into sections at unquoted, unescaped ';'.
int32_t split_sections(std::string_view mask, std::vector<std::string_view>& out, size_t max) {
  size_t start = 0;
  char quote = 0;
  for (size_t i = 0; i < mask.size(); ++i) {
    const char c = mask[i];
    if (quote) {
      if (c == quote) quote = 0;
      continue;
    }
    if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '\\') {
      ++i;
    } else if (c == ';') {
      out.push_back(mask.substr(start, i - start));
      start = i + 1;
    }
  }
  if (quote) return SHFORMAT_E_QUOTE;
  out.push_back(mask.substr(start));
  return out.size() > max ? SHFORMAT_E_SECTIONS : SHFORMAT_OK;
}

// Reads quoted text at mask[i] (a quote character); appends its content.
int32_t read_quoted(std::string_view m, size_t& i, std::string& text) {
  const char q = m[i];
  size_t j = m.find(q, i + 1);
  if (j == std::string_view::npos) return SHFORMAT_E_QUOTE;
  text.append(m.substr(i + 1, j - i - 1));
  i = j + 1;
  return SHFORMAT_OK;
}

// Reads quoted text or a backslash escape at mask[i]; appends the text it
// stands for. A backslash at the very end stands for itself.
int32_t read_literal(std::string_view m, size_t& i, std::string& text) {
  if (m[i] != '\\') return read_quoted(m, i, text);
  text.append(i + 1 < m.size() ? m.substr(i + 1, 1) : std::string_view("\\"));
  i += 2;
  return SHFORMAT_OK;
}

// Reads "[NAME]" at mask[i]; false when there is no closing ']'.
bool read_keyword(std::string_view m, size_t& i, std::string_view& name) {
  size_t j = m.find(']', i + 1);
  if (j == std::string_view::npos) return false;
  name = m.substr(i + 1, j - i - 1);
  i = j + 1;
  return true;
}

// A section compiled as literal text only (the null section).
int32_t literal_section(std::string_view m, Section& s) {
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    if (c == '"' || c == '\'' || c == '\\') {
      std::string t;
      if (int32_t e = read_literal(m, i, t)) return e;
      s.lit(t);
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
  }
  if (m.empty()) s.flags |= fEmpty;
  return SHFORMAT_OK;
}

// ------------------------------------------------------------------ numeric masks

struct NumState {
  bool dot = false, in_exp = false, exp_done = false;
  int n_int = 0, int_zeros = 0, n_frac = 0, frac_min = 0, pct = 0, exp_digits = 0;
  bool group = false, general = false, exp_plus = false;
};

std::string currency_number() {
  const auto& st = intl::settings();
  int d = st.currency_digits;
  if (d < 0) d = 0;
  if (d > 9) d = 9;
  std::string n = "#,##0";
  if (d > 0) n += "." + std::string(static_cast<size_t>(d), '0');
  return n;
}

std::string currency_symbol() {
  std::string s;
  for (const char* p = intl::settings().currency; *p; ++p) {
    s += '\\';
    s += *p;
  }
  return s;
}

std::string currency_positive() {
  const std::string sym = currency_symbol(), num = currency_number();
  switch (intl::settings().currency_pos) {
    case 1: return num + sym;
    case 2: return sym + " " + num;
    case 3: return num + " " + sym;
    default: return sym + num;
  }
}

std::string currency_negative() {
  const std::string s = currency_symbol(), n = currency_number();
  switch (intl::settings().neg_currency) {
    case 1: return "-" + s + n;
    case 2: return s + "-" + n;
    case 3: return s + n + "-";
    case 4: return "(" + n + s + ")";
    case 5: return "-" + n + s;
    case 6: return n + "-" + s;
    case 7: return n + s + "-";
    case 8: return "-" + n + " " + s;
    case 9: return "-" + s + " " + n;
    case 10: return n + " " + s + "-";
    case 11: return s + " " + n + "-";
    case 12: return s + " -" + n;
    case 13: return n + "- " + s;
    case 14: return "(" + s + " " + n + ")";
    case 15: return "(" + n + " " + s + ")";
    default: return "(" + s + n + ")";
  }
}

int32_t numeric_section(std::string_view m, Section& s, NumState& st, int depth) {
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    if (c == '0' || c == '#') {
      if (st.general) return SHFORMAT_E_NUMERIC;
      if (st.in_exp) {
        if (st.exp_done) return SHFORMAT_E_NUMERIC;
        ++st.exp_digits;
      } else if (st.dot) {
        s.tok(tFrac, static_cast<uint8_t>(c));
        ++st.n_frac;
        if (c == '0') st.frac_min = st.n_frac;
      } else {
        s.tok(tInt, static_cast<uint8_t>(c));
        ++st.n_int;
        if (c == '0') ++st.int_zeros;
      }
      ++i;
      continue;
    }
    if (st.in_exp && st.exp_digits > 0) st.exp_done = true;
    if (c == '.') {
      if (st.dot || st.in_exp || st.general) return SHFORMAT_E_NUMERIC;
      st.dot = true;
      s.tok(tDot);
      ++i;
    } else if (c == ',' && !st.dot && !st.in_exp && st.n_int > 0) {
      st.group = true;
      ++i;
    } else if (c == '%') {
      ++st.pct;
      s.lit("%");
      ++i;
    } else if ((c == 'E' || c == 'e') && i + 2 < m.size() && (m[i + 1] == '+' || m[i + 1] == '-') &&
               (m[i + 2] == '0' || m[i + 2] == '#')) {
      if (st.in_exp || st.general || st.n_int + st.n_frac == 0) return SHFORMAT_E_NUMERIC;
      st.in_exp = true;
      st.exp_plus = m[i + 1] == '+';
      s.tok(tExp, static_cast<uint8_t>(c));
      i += 2;
    } else if (c == '"' || c == '\'' || c == '\\') {
      std::string t;
      if (int32_t e = read_literal(m, i, t)) return e;
      s.lit(t);
    } else if (c == '[') {
      std::string_view name;
      if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
      if (iequals(name, "GENERAL")) {
        if (st.general || st.n_int + st.n_frac > 0 || st.dot || st.in_exp)
          return SHFORMAT_E_NUMERIC;
        st.general = true;
        s.tok(tGeneral);
      } else if (iequals(name, "CURRENCY") && depth == 0) {
        const std::string cur = currency_positive();
        if (int32_t e = numeric_section(cur, s, st, depth + 1)) return e;
      } else {
        return SHFORMAT_E_KEYWORD;
      }
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
  }
  return SHFORMAT_OK;
}

int32_t finish_numeric(Section& s, const NumState& st) {
  if (st.n_int > 255 || st.n_frac > 100 || st.exp_digits > 9 || st.pct > 10)
    return SHFORMAT_E_NUMERIC;
  if (st.group) s.flags |= fGroup;
  if (st.in_exp) s.flags |= fExp;
  if (st.exp_plus) s.flags |= fExpPlus;
  if (st.general || st.n_int + st.n_frac > 0 || st.dot) s.flags |= fDigits;
  if (st.general) s.flags |= fGeneral;
  s.params[pNInt - 3] = static_cast<uint8_t>(st.n_int);
  s.params[pNFrac - 3] = static_cast<uint8_t>(st.n_frac);
  s.params[pFracMin - 3] = static_cast<uint8_t>(st.frac_min);
  s.params[pPercent - 3] = static_cast<uint8_t>(st.pct);
  s.params[pExpDigits - 3] = static_cast<uint8_t>(st.exp_digits);
  s.params[pIntZeros - 3] = static_cast<uint8_t>(st.int_zeros > 255 ? 255 : st.int_zeros);
  return SHFORMAT_OK;
}

int32_t compile_numeric(unsigned char* out, const char* mask, int32_t size) {
  std::string text = mask;
  {
    // The whole mask "[CURRENCY]" brings its negative form as well.
    size_t a = text.find_first_not_of(' '), b = text.find_last_not_of(' ');
    if (a != std::string::npos && iequals(std::string_view(text).substr(a, b - a + 1), "[CURRENCY]"))
      text = currency_positive() + ";" + currency_negative();
  }
  std::vector<std::string_view> parts;
  if (int32_t e = split_sections(text, parts, 4)) return e;
  std::vector<Section> secs(parts.size());
  for (size_t k = 0; k < parts.size(); ++k) {
    Section& s = secs[k];
    if (k == 3) {
      if (int32_t e = literal_section(parts[k], s)) return e;
      continue;
    }
    std::string_view part = parts[k];
    if (part.empty()) {
      if (k == 0) {
        part = "[GENERAL]";  // an empty mask shows the general form
      } else {
        s.flags |= fEmpty;
        continue;
      }
    }
    NumState st;
    if (int32_t e = numeric_section(part, s, st, 0)) return e;
    if (int32_t e = finish_numeric(s, st)) return e;
  }
  return emit(out, size, kKindNumber, secs);
}

// ------------------------------------------------------------------ date masks

struct DateItem {
  uint8_t tok;
  uint8_t a = 0, b = 0;
  std::string text;
};

void add_time_items(std::vector<DateItem>& items) {
  const char* sep = intl::settings().time_sep;
  items.push_back({tField, dHour, 2, {}});
  items.push_back({tLit, 0, 0, sep});
  items.push_back({tField, dMinute, 2, {}});
  items.push_back({tLit, 0, 0, sep});
  items.push_back({tField, dSecond, 2, {}});
}

int32_t date_items(std::string_view m, std::vector<DateItem>& items, bool& twelve, int depth) {
  auto lit = [&](std::string_view t) { items.push_back({tLit, 0, 0, std::string(t)}); };
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    const char u = ascii_upper(c);
    if (u == 'A') {
      if (m.size() - i >= 5 && iequals(m.substr(i, 5), "AM/PM")) {
        items.push_back({tAmPm, static_cast<uint8_t>(c == 'A' ? apUpper : apLower), 0, {}});
        twelve = true;
        i += 5;
        continue;
      }
      if (m.size() - i >= 3 && iequals(m.substr(i, 3), "A/P")) {
        items.push_back({tAmPm, static_cast<uint8_t>(c == 'A' ? apA : apa), 0, {}});
        twelve = true;
        i += 3;
        continue;
      }
    }
    if (u == 'D' || u == 'M' || u == 'Y' || u == 'H' || u == 'S' || u == 'F') {
      size_t j = i;
      while (j < m.size() && ascii_upper(m[j]) == u) ++j;
      const size_t n = j - i;
      i = j;
      switch (u) {
        case 'D':
          if (n > 4) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dDay, static_cast<uint8_t>(n), {}});
          break;
        case 'M':
          if (n > 4) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dMonth, static_cast<uint8_t>(n), {}});
          break;
        case 'Y':
          if (n > 4) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dYear, static_cast<uint8_t>(n <= 2 ? 2 : 4), {}});
          break;
        case 'H':
          if (n > 2) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dHour, static_cast<uint8_t>(n), {}});
          break;
        case 'S':
          if (n > 2) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dSecond, static_cast<uint8_t>(n), {}});
          break;
        default:
          if (n > 6) return SHFORMAT_E_DATETIME;
          items.push_back({tField, dFraction, static_cast<uint8_t>(n), {}});
          break;
      }
      continue;
    }
    if (c == '"' || c == '\'' || c == '\\') {
      std::string t;
      if (int32_t e = read_literal(m, i, t)) return e;
      lit(t);
    } else if (c == '[') {
      std::string_view name;
      if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
      if (depth > 0) return SHFORMAT_E_KEYWORD;
      if (iequals(name, "SHORTDATE")) {
        if (int32_t e = date_items(intl::settings().short_date, items, twelve, 1)) return e;
      } else if (iequals(name, "LONGDATE")) {
        if (int32_t e = date_items(intl::settings().long_date, items, twelve, 1)) return e;
      } else if (iequals(name, "TIME")) {
        add_time_items(items);
      } else if (iequals(name, "GENERAL")) {
        items.push_back({tGeneral, 0, 0, {}});
      } else {
        return SHFORMAT_E_KEYWORD;
      }
    } else {
      lit(m.substr(i, 1));
      ++i;
    }
  }
  return SHFORMAT_OK;
}

int32_t date_section(std::string_view m, Section& s) {
  std::vector<DateItem> items;
  bool twelve = false;
  if (int32_t e = date_items(m, items, twelve, 0)) return e;
  // "m" or "mm" is the minute when it follows an hour or precedes a second.
  for (size_t k = 0; k < items.size(); ++k) {
    DateItem& it = items[k];
    if (it.tok != tField || it.a != dMonth || it.b > 2) continue;
    bool minute = false;
    for (size_t b = k; b-- > 0;)
      if (items[b].tok == tField) {
        minute = items[b].a == dHour;
        break;
      }
    if (!minute)
      for (size_t f = k + 1; f < items.size(); ++f)
        if (items[f].tok == tField) {
          minute = items[f].a == dSecond;
          break;
        }
    if (minute) it.a = dMinute;
  }
  for (const DateItem& it : items) {
    if (it.tok == tLit)
      s.lit(it.text);
    else if (it.tok == tField)
      s.tok(tField, it.a, it.b);
    else if (it.tok == tAmPm)
      s.tok(tAmPm, it.a);
    else
      s.tok(it.tok);
  }
  if (twelve) s.flags |= fTwelve;
  s.flags |= fDigits;
  return SHFORMAT_OK;
}

// Compiles a mask of a value section and a literal section for a null
// value; an empty value section shows the general form.
int32_t compile_value_and_null(unsigned char* out, const char* mask, int32_t size, Kind kind,
                               int32_t (*value_section)(std::string_view, Section&)) {
  std::vector<std::string_view> parts;
  if (int32_t e = split_sections(mask, parts, 2)) return e;
  std::vector<Section> secs(parts.size());
  for (size_t k = 0; k < parts.size(); ++k) {
    std::string_view part = parts[k];
    if (k == 1) {
      if (int32_t e = literal_section(part, secs[k])) return e;
      continue;
    }
    if (part.empty()) part = "[GENERAL]";
    if (int32_t e = value_section(part, secs[k])) return e;
  }
  return emit(out, size, kind, secs);
}

int32_t compile_date(unsigned char* out, const char* mask, int32_t size) {
  return compile_value_and_null(out, mask, size, kKindDate, date_section);
}

// ------------------------------------------------------------------ string masks

int32_t string_section(std::string_view m, Section& s) {
  bool general = false, any = false;
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    if (c == '@') {
      if (general) return SHFORMAT_E_STRING;
      s.tok(tAt);
      any = true;
      ++i;
    } else if (c == '>') {
      s.tok(tUpper);
      ++i;
    } else if (c == '<') {
      s.tok(tLower);
      ++i;
    } else if (c == '"' || c == '\'' || c == '\\') {
      std::string t;
      if (int32_t e = read_literal(m, i, t)) return e;
      s.lit(t);
    } else if (c == '[') {
      std::string_view name;
      if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
      if (!iequals(name, "GENERAL")) return SHFORMAT_E_KEYWORD;
      if (general || any) return SHFORMAT_E_STRING;
      general = true;
      s.tok(tGeneral);
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
  }
  if (general || any) s.flags |= fDigits;
  return SHFORMAT_OK;
}

int32_t compile_string(unsigned char* out, const char* mask, int32_t size) {
  return compile_value_and_null(out, mask, size, kKindString, string_section);
}

// ------------------------------------------------------------------ output

// Writes at most size - 1 characters and a terminator. On overflow the
// output becomes '#' characters, as many as fit.
struct Out {
  char* buf;
  int32_t cap;  // characters that fit before the terminator
  int32_t n = 0;
  bool over = false;

  Out(char* b, int32_t size) : buf(b), cap(size - 1) {}
  void put(char c) {
    if (n < cap)
      buf[n++] = c;
    else
      over = true;
  }
  void put(const char* s, size_t len) {
    for (size_t i = 0; i < len; ++i) put(s[i]);
  }
  void put(std::string_view s) { put(s.data(), s.size()); }
  int32_t finish() {
    if (cap < 0) return SHFORMAT_E_OVERFLOW;
    if (over) {
      std::memset(buf, '#', static_cast<size_t>(cap));
      buf[cap] = '\0';
      return SHFORMAT_E_OVERFLOW;
    }
    buf[n] = '\0';
    return SHFORMAT_OK;
  }
  int32_t fail(int32_t code) {
    if (cap >= 0) buf[0] = '\0';
    return code;
  }
};

// A view of one compiled section.
struct SecView {
  const unsigned char* p = nullptr;  // section start
  int len = 0;
  uint8_t flags() const { return p[2]; }
  uint8_t param(int k) const { return p[k]; }
  const unsigned char* tokens() const { return p + kSecHeader; }
  const unsigned char* end() const { return p + len; }
  bool empty() const { return (flags() & fEmpty) != 0; }
};

struct Compiled {
  SecView sec[4];
  int count = 0;
};

int32_t open_compiled(const unsigned char* c, Kind kind, Compiled& out) {
  if (c == nullptr) return SHFORMAT_E_ARGUMENT;
  if (c[0] != kMagic || c[1] != kind) return SHFORMAT_E_COMPILED;
  const int total = get16(c + 2);
  if (total < kHeader) return SHFORMAT_E_COMPILED;
  const int count = c[4];
  if (count < 1 || count > 4) return SHFORMAT_E_COMPILED;
  int at = kHeader;
  for (int k = 0; k < count; ++k) {
    if (at + kSecHeader > total) return SHFORMAT_E_COMPILED;
    const int len = get16(c + at);
    if (len < kSecHeader || at + len > total) return SHFORMAT_E_COMPILED;
    out.sec[k].p = c + at;
    out.sec[k].len = len;
    at += len;
  }
  out.count = count;
  return SHFORMAT_OK;
}

// Emits the literal tokens of a section, ignoring everything else.
void literal_only(const SecView& s, Out& o) {
  for (const unsigned char* t = s.tokens(); t < s.end();) {
    if (*t == tLit) {
      if (t + 2 > s.end() || t + 2 + t[1] > s.end()) return;
      o.put(reinterpret_cast<const char*>(t + 2), t[1]);
      t += 2 + t[1];
    } else if (*t == tInt || *t == tFrac || *t == tExp || *t == tAmPm) {
      t += 2;
    } else if (*t == tField) {
      t += 3;
    } else {
      t += 1;
    }
  }
}

// ------------------------------------------------------------------ numbers

// A number as decimal digits: value = 0.d[0]d[1]...d[n-1] x 10^point;
// n == 0 is zero. No leading or trailing zero digits.
struct Digits {
  char d[48];
  int n = 0;
  int point = 0;

  void trim() {
    int lead = 0;
    while (lead < n && d[lead] == '0') ++lead;
    if (lead > 0) {
      std::memmove(d, d + lead, static_cast<size_t>(n - lead));
      n -= lead;
      point -= lead;
    }
    while (n > 0 && d[n - 1] == '0') --n;
    if (n == 0) point = 0;
  }
  // Keeps `keep` significant digits, rounding half away from zero.
  void round_to(int keep) {
    if (keep >= n) return;
    if (keep < 0) {
      n = 0;
      point = 0;
      return;
    }
    const bool up = d[keep] >= '5';
    n = keep;
    if (up) {
      int i = n - 1;
      while (i >= 0 && d[i] == '9') d[i--] = '0';
      if (i >= 0) {
        ++d[i];
      } else {
        d[0] = '1';
        n = 1;
        ++point;
      }
    }
    trim();
  }
  char at_int(int pos) const {  // pos 0 = units
    const int idx = point - 1 - pos;
    return (idx >= 0 && idx < n) ? d[idx] : '0';
  }
  char at_frac(int j) const {  // j 0 = tenths
    const int idx = point + j;
    return (idx >= 0 && idx < n) ? d[idx] : '0';
  }
};

// Parses "d.ddde[+-]x" (the form of to_chars scientific) into digits.
bool parse_scientific(const char* s, const char* e, Digits& out) {
  out.n = 0;
  const char* p = s;
  int exp10 = 0;
  for (; p < e && *p != 'e'; ++p) {
    if (*p == '.') continue;
    if (out.n >= 47) return false;
    out.d[out.n++] = *p;
  }
  if (p < e && *p == 'e') {
    ++p;
    auto r = std::from_chars(p + (*p == '+' ? 1 : 0), e, exp10);
    if (r.ec != std::errc()) return false;
  }
  out.point = exp10 + 1;
  out.trim();
  return true;
}

enum class NumKind { Double, Float, Decimal };

struct NumValue {
  NumKind kind;
  bool neg = false;
  bool zero = false;
  double dv = 0;
  float fv = 0;
  Digits exact;  // shortest digits of |value| (decimals: all digits)
  bool have_exact = true;
};

bool load_double(double v, NumValue& nv) {
  nv.kind = NumKind::Double;
  if (!std::isfinite(v)) return false;
  nv.neg = std::signbit(v) && v != 0;
  nv.zero = v == 0;
  nv.dv = std::fabs(v);
  nv.have_exact = false;  // the general form does not need them
  return true;
}

// The shortest digits of a double, computed on first use.
const Digits& exact_digits(NumValue& nv) {
  if (!nv.have_exact) {
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, nv.dv, std::chars_format::scientific);
    if (r.ec != std::errc() || !parse_scientific(buf, r.ptr, nv.exact)) nv.exact = Digits{};
    nv.have_exact = true;
  }
  return nv.exact;
}

bool load_float(float v, NumValue& nv) {
  nv.kind = NumKind::Float;
  if (!std::isfinite(v)) return false;
  nv.neg = std::signbit(v) && v != 0;
  nv.zero = v == 0;
  nv.fv = std::fabs(v);
  nv.dv = nv.fv;
  char buf[40];
  auto r = std::to_chars(buf, buf + sizeof buf, nv.fv, std::chars_format::scientific);
  return r.ec == std::errc() && parse_scientific(buf, r.ptr, nv.exact);
}

bool load_decimal(const SHDEC* v, NumValue& nv) {
  nv.kind = NumKind::Decimal;
  char text[SHDEC_TEXT_SIZE + 8];
  if (ConvDecimalToAscii(text, v) == nullptr) return false;
  const char* p = text;
  if (*p == '-') {
    nv.neg = true;
    ++p;
  }
  Digits& d = nv.exact;
  d.n = 0;
  int int_digits = 0;
  bool point = false;
  for (; *p; ++p) {
    if (*p == '.') {
      if (point) return false;
      point = true;
      continue;
    }
    if (*p < '0' || *p > '9' || d.n >= 47) return false;
    d.d[d.n++] = *p;
    if (!point) ++int_digits;
  }
  if (d.n == 0) return false;
  d.point = int_digits;
  d.trim();
  nv.zero = d.n == 0;
  if (nv.zero) nv.neg = false;
  return true;
}

// The general form: at most 15 significant digits, no trailing zeros, an
// exponent below 1E-4 and from 1E+15 as "%.15g" would (decimals: always
// plain).
void put_general(NumValue& v, bool with_sign, Out& o) {
  const char sep = intl::settings().decimal_sep;
  Digits g;
  if (v.kind == NumKind::Double && !v.zero) {
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, v.dv, std::chars_format::scientific, 14);
    if (r.ec != std::errc() || !parse_scientific(buf, r.ptr, g)) g = exact_digits(v);
  } else {
    g = exact_digits(v);
    if (v.kind == NumKind::Float) g.round_to(15);
  }
  if (g.n == 0) {
    o.put('0');
    return;
  }
  if (with_sign && v.neg) o.put('-');
  const int x = g.point - 1;
  if (v.kind != NumKind::Decimal && (x < -4 || x >= 15)) {
    o.put(g.d[0]);
    if (g.n > 1) {
      o.put(sep);
      o.put(g.d + 1, static_cast<size_t>(g.n - 1));
    }
    o.put('E');
    o.put(x < 0 ? '-' : '+');
    const int ax = x < 0 ? -x : x;
    char eb[8];
    auto r = std::to_chars(eb, eb + sizeof eb, ax);
    if (r.ptr - eb < 2) o.put('0');
    o.put(eb, static_cast<size_t>(r.ptr - eb));
    return;
  }
  if (g.point <= 0) {
    o.put('0');
    o.put(sep);
    for (int i = 0; i < -g.point; ++i) o.put('0');
    o.put(g.d, static_cast<size_t>(g.n));
    return;
  }
  for (int i = 0; i < g.point; ++i) o.put(i < g.n ? g.d[i] : '0');
  if (g.n > g.point) {
    o.put(sep);
    o.put(g.d + g.point, static_cast<size_t>(g.n - g.point));
  }
}

// Renders |value| through a numeric section; `minus` puts a '-' in front.
void render_number_section(const SecView& s, NumValue& v, bool minus, Out& o) {
  const auto& st = intl::settings();
  const uint8_t flags = s.flags();
  if (!(flags & fDigits)) {
    literal_only(s, o);
    return;
  }
  const int n_int = s.param(pNInt), n_frac = s.param(pNFrac), frac_min = s.param(pFracMin);
  Digits d;
  if (!(flags & fGeneral)) {
    d = exact_digits(v);
    if (d.n > 0) d.point += 2 * s.param(pPercent);
  }
  int exp10 = 0;
  if (flags & fExp) {
    const int m = n_int == 0 ? 0 : (s.param(pIntZeros) > 0 ? s.param(pIntZeros) : 1);
    if (d.n > 0) {
      exp10 = d.point - m;
      d.point = m;
      d.round_to(m + n_frac);
      if (d.n > 0 && d.point > m) {  // rounding carried into a new digit
        d.point = m;
        ++exp10;
      }
    }
  } else if (!(flags & fGeneral)) {
    d.round_to(d.point + n_frac);
  }
  const bool zero = (flags & fGeneral) ? v.zero : d.n == 0;
  bool general_seen = false;
  // The sign goes first, and only when the shown value is not zero.
  if (minus && !zero) o.put('-');
  const int int_len = (!zero && d.point > 0) ? d.point : 0;
  int sig_frac = zero ? 0 : d.n - d.point;
  if (sig_frac < 0) sig_frac = 0;
  if (sig_frac > n_frac) sig_frac = n_frac;
  const int shown_frac = sig_frac > frac_min ? sig_frac : frac_min;
  int int_index = 0, frac_index = 0;
  for (const unsigned char* t = s.tokens(); t < s.end();) {
    switch (*t) {
      case tLit:
        if (t + 2 > s.end() || t + 2 + t[1] > s.end()) return;
        o.put(reinterpret_cast<const char*>(t + 2), t[1]);
        t += 2 + t[1];
        continue;
      case tInt: {
        if (t + 2 > s.end()) return;
        const int pos = n_int - 1 - int_index;
        auto digit = [&](int p, char c) {
          o.put(c);
          if ((flags & fGroup) && p > 0 && p % 3 == 0) o.put(st.thousand_sep);
        };
        if (int_index == 0)
          for (int p = int_len - 1; p > pos; --p) digit(p, d.at_int(p));
        if (pos < int_len)
          digit(pos, d.at_int(pos));
        else if (t[1] == '0')
          digit(pos, '0');
        ++int_index;
        t += 2;
        continue;
      }
      case tDot:
        // Without integer placeholders the integer digits stand before the point.
        if (n_int == 0)
          for (int p = int_len - 1; p >= 0; --p) {
            o.put(d.at_int(p));
            if ((flags & fGroup) && p > 0 && p % 3 == 0) o.put(st.thousand_sep);
          }
        if (shown_frac > 0 || n_frac == 0) o.put(st.decimal_sep);
        t += 1;
        continue;
      case tFrac:
        if (t + 2 > s.end()) return;
        if (frac_index < shown_frac) o.put(d.at_frac(frac_index));
        ++frac_index;
        t += 2;
        continue;
      case tExp: {
        if (t + 2 > s.end()) return;
        o.put(static_cast<char>(t[1]));
        if (exp10 < 0)
          o.put('-');
        else if (flags & fExpPlus)
          o.put('+');
        char eb[12];
        const int ax = exp10 < 0 ? -exp10 : exp10;
        auto r = std::to_chars(eb, eb + sizeof eb, ax);
        for (int k = static_cast<int>(r.ptr - eb); k < s.param(pExpDigits); ++k) o.put('0');
        o.put(eb, static_cast<size_t>(r.ptr - eb));
        t += 2;
        continue;
      }
      case tGeneral:
        if (!general_seen) put_general(v, false, o);
        general_seen = true;
        t += 1;
        continue;
      default:
        return;
    }
  }
}

int32_t format_number(char* out, int32_t size, const unsigned char* compiled, NumValue* v) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  Out o(out, size);
  Compiled c;
  if (int32_t e = open_compiled(compiled, kKindNumber, c)) return o.fail(e);
  if (v == nullptr) {
    if (c.count >= 4) literal_only(c.sec[3], o);
    return o.finish();
  }
  const SecView* s = &c.sec[0];
  bool minus = false;
  if (v->zero && c.count >= 3) {
    s = &c.sec[2];
  } else if (v->neg) {
    if (c.count >= 2)
      s = &c.sec[1];
    else
      minus = true;
  }
  if (s->empty()) return o.finish();
  render_number_section(*s, *v, minus, o);
  return o.finish();
}

// ------------------------------------------------------------------ dates

const char* ampm_text(uint8_t style, bool pm, char* small) {
  const auto& st = intl::settings();
  const char* word = pm ? st.pm : st.am;
  switch (style) {
    case apUpper:
      return word;
    case apLower: {
      size_t i = 0;
      for (; word[i] && i < 7; ++i) small[i] = ascii_lower(word[i]);
      small[i] = '\0';
      return small;
    }
    case apA:
      small[0] = pm ? 'P' : 'A';
      small[1] = '\0';
      return small;
    default:
      small[0] = pm ? 'p' : 'a';
      small[1] = '\0';
      return small;
  }
}

void put_num(Out& o, int v, int width) {
  char b[12];
  auto r = std::to_chars(b, b + sizeof b, v);
  for (int k = static_cast<int>(r.ptr - b); k < width; ++k) o.put('0');
  o.put(b, static_cast<size_t>(r.ptr - b));
}

bool date_ok(const SHDATETIME& v) {
  const int year = v.year + 1900;
  return year >= 0 && year <= 9999 && v.month <= 11 && v.day >= 1 && v.day <= 31;
}
bool time_ok(const SHDATETIME& v) {
  return (v.hour <= 23 || v.hour == SHDT_NO_TIME_HOUR) && v.minute <= 59 && v.second <= 59 &&
         v.microsecond <= 999999;
}

int32_t render_date_section(const SecView& s, const SHDATETIME& v, Out& o);

int32_t render_date_token(const unsigned char* t, const SecView& s, const SHDATETIME& v, Out& o) {
  const int hour = v.hour == SHDT_NO_TIME_HOUR ? 0 : v.hour;
  switch (t[1]) {
    case dDay:
      if (!date_ok(v)) return SHFORMAT_E_VALUE;
      if (t[2] <= 2) {
        put_num(o, v.day, t[2]);
      } else {
        const int dow = static_cast<int>(shdtDayOfWeek(&v));
        o.put(t[2] == 3 ? intl::day_short(dow) : intl::day_long(dow));
      }
      return SHFORMAT_OK;
    case dMonth:
      if (!date_ok(v)) return SHFORMAT_E_VALUE;
      if (t[2] <= 2)
        put_num(o, v.month + 1, t[2]);
      else
        o.put(t[2] == 3 ? intl::month_short(v.month) : intl::month_long(v.month));
      return SHFORMAT_OK;
    case dYear:
      if (!date_ok(v)) return SHFORMAT_E_VALUE;
      if (t[2] == 2)
        put_num(o, (v.year + 1900) % 100, 2);
      else
        put_num(o, v.year + 1900, 4);
      return SHFORMAT_OK;
    case dHour: {
      if (!time_ok(v)) return SHFORMAT_E_VALUE;
      int h = hour;
      if (s.flags() & fTwelve) {
        h %= 12;
        if (h == 0) h = 12;
      }
      put_num(o, h, t[2]);
      return SHFORMAT_OK;
    }
    case dMinute:
      if (!time_ok(v)) return SHFORMAT_E_VALUE;
      put_num(o, v.minute, t[2]);
      return SHFORMAT_OK;
    case dSecond:
      if (!time_ok(v)) return SHFORMAT_E_VALUE;
      put_num(o, v.second, t[2]);
      return SHFORMAT_OK;
    case dFraction: {
      if (!time_ok(v)) return SHFORMAT_E_VALUE;
      char b[8];
      uint32_t us = v.microsecond;
      for (int k = 5; k >= 0; --k) {
        b[k] = static_cast<char>('0' + us % 10);
        us /= 10;
      }
      o.put(b, t[2] <= 6 ? t[2] : 6);
      return SHFORMAT_OK;
    }
    default:
      return SHFORMAT_E_COMPILED;
  }
}

int32_t render_date_section(const SecView& s, const SHDATETIME& v, Out& o) {
  for (const unsigned char* t = s.tokens(); t < s.end();) {
    switch (*t) {
      case tLit:
        if (t + 2 > s.end() || t + 2 + t[1] > s.end()) return SHFORMAT_E_COMPILED;
        o.put(reinterpret_cast<const char*>(t + 2), t[1]);
        t += 2 + t[1];
        break;
      case tField:
        if (t + 3 > s.end()) return SHFORMAT_E_COMPILED;
        if (int32_t e = render_date_token(t, s, v, o)) return e;
        t += 3;
        break;
      case tAmPm: {
        if (t + 2 > s.end()) return SHFORMAT_E_COMPILED;
        if (!time_ok(v)) return SHFORMAT_E_VALUE;
        char small[8];
        const int hour = v.hour == SHDT_NO_TIME_HOUR ? 0 : v.hour;
        o.put(ampm_text(t[1], hour >= 12, small));
        t += 2;
        break;
      }
      case tGeneral: {
        // The short date, then the time; a date without a time (hour 255)
        // shows only the date and a time without a date only the time.
        const bool has_date = v.year != SHDT_NO_DATE_YEAR;
        const bool has_time = v.hour != SHDT_NO_TIME_HOUR;
        unsigned char tmp[SHFORMAT_BUFSIZE];
        std::string mask = has_date ? (has_time ? "[SHORTDATE] [TIME]" : "[SHORTDATE]") : "[TIME]";
        if (int32_t e = compile_date(tmp, mask.c_str(), sizeof tmp)) return e;
        Compiled c;
        if (int32_t e = open_compiled(tmp, kKindDate, c)) return e;
        if (int32_t e = render_date_section(c.sec[0], v, o)) return e;
        t += 1;
        break;
      }
      default:
        return SHFORMAT_E_COMPILED;
    }
  }
  return SHFORMAT_OK;
}

// ------------------------------------------------------------------ strings

void render_string_section(const SecView& s, const char* v, Out& o) {
  const size_t len = std::strlen(v);
  size_t next = 0;
  int mode = 0;  // 0 as is, 1 upper, 2 lower
  auto put_value = [&](char c) { o.put(mode == 1 ? ascii_upper(c) : mode == 2 ? ascii_lower(c) : c); };
  for (const unsigned char* t = s.tokens(); t < s.end();) {
    switch (*t) {
      case tLit:
        if (t + 2 > s.end() || t + 2 + t[1] > s.end()) return;
        o.put(reinterpret_cast<const char*>(t + 2), t[1]);
        t += 2 + t[1];
        break;
      case tAt:
        if (next < len) put_value(v[next++]);
        ++t;
        break;
      case tUpper:
        mode = 1;
        ++t;
        break;
      case tLower:
        mode = 2;
        ++t;
        break;
      case tGeneral:
        while (next < len) put_value(v[next++]);
        ++t;
        break;
      default:
        return;
    }
  }
  // Characters left over after the last placeholder are kept.
  if (s.flags() & fDigits)
    while (next < len) put_value(v[next++]);
}

const char* const kMessages[] = {
    "No error",
    "The buffer for the compiled format is too small",
    "The formatted value does not fit in the output buffer",
    "Quoted text in the mask has no closing quote",
    "Unknown keyword or missing ']' in the mask",
    "The mask has too many sections",
    "Invalid numeric mask",
    "Invalid date or time mask",
    "Invalid string mask",
    "The buffer does not hold a compiled format of the right kind",
    "Missing buffer or negative size",
    "The value cannot be formatted",
};

}  // namespace

}  // namespace zbshr::fmt

using namespace zbshr::fmt;

namespace {

template <typename F>
int32_t guarded(F f) {
  try {
    return f();
  } catch (...) {
    return SHFORMAT_E_SMALL;  // only allocation can throw
  }
}

int32_t compile_checked(unsigned char* out, const char* mask, int32_t size,
                        int32_t (*fn)(unsigned char*, const char*, int32_t)) {
  if (out == nullptr || mask == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  return guarded([&] { return fn(out, mask, size); });
}

// Formats a number through a compiled numeric format; `load(value, v)`
// reads a non-null value, and one it refuses leaves an empty output.
template <typename T, typename Load>
int32_t format_loaded(char* out, int32_t size, const unsigned char* compiled, const T* value,
                      Load load) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  NumValue v;
  if (value != nullptr && !load(value, v)) {
    if (size > 0) out[0] = '\0';
    return SHFORMAT_E_VALUE;
  }
  return format_number(out, size, compiled, value ? &v : nullptr);
}

}  // namespace

ZBSHR_API(int32_t) shformatCmplDateTimeMask(unsigned char* compiled, const char* mask,
                                            int32_t size) {
  return compile_checked(compiled, mask, size, compile_date);
}

ZBSHR_API(int32_t) shformatCmplNumericMask(unsigned char* compiled, const char* mask,
                                           int32_t size) {
  return compile_checked(compiled, mask, size, compile_numeric);
}

ZBSHR_API(int32_t) shformatCmplStringMask(unsigned char* compiled, const char* mask,
                                          int32_t size) {
  return compile_checked(compiled, mask, size, compile_string);
}

ZBSHR_API(int32_t) shformatErrorString(int32_t error, char* buffer, int32_t size) {
  if (buffer == nullptr || size <= 0) return 0;
  const int32_t count = static_cast<int32_t>(sizeof kMessages / sizeof kMessages[0]);
  const char* text = (error >= 0 && error < count) ? kMessages[error] : "Unknown format error";
  int32_t n = 0;
  while (text[n] && n < size - 1) {
    buffer[n] = text[n];
    ++n;
  }
  buffer[n] = '\0';
  return n;
}

ZBSHR_API(int32_t) shformatDateTime(char* out, int32_t size, const unsigned char* compiled,
                                    const SHDATETIME* value) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  return guarded([&]() -> int32_t {
    Out o(out, size);
    Compiled c;
    if (int32_t e = open_compiled(compiled, kKindDate, c)) return o.fail(e);
    if (value == nullptr) {
      if (c.count >= 2) literal_only(c.sec[1], o);
      return o.finish();
    }
    if (int32_t e = render_date_section(c.sec[0], *value, o)) return o.fail(e);
    return o.finish();
  });
}

ZBSHR_API(int32_t) shformatDouble(char* out, int32_t size, const unsigned char* compiled,
                                  const double* value) {
  return format_loaded(out, size, compiled, value,
                       [](const double* p, NumValue& v) { return load_double(*p, v); });
}

ZBSHR_API(int32_t) shformatReal(char* out, int32_t size, const unsigned char* compiled,
                                const float* value) {
  return format_loaded(out, size, compiled, value,
                       [](const float* p, NumValue& v) { return load_float(*p, v); });
}

ZBSHR_API(int32_t) shformatDecimal(char* out, int32_t size, const unsigned char* compiled,
                                   const void* value) {
  return format_loaded(out, size, compiled, value, [](const void* p, NumValue& v) {
    return load_decimal(static_cast<const SHDEC*>(p), v);
  });
}

ZBSHR_API(int32_t) shformatString(char* out, int32_t size, const unsigned char* compiled,
                                  const char* value) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  Out o(out, size);
  Compiled c;
  if (int32_t e = open_compiled(compiled, kKindString, c)) return o.fail(e);
  if (value == nullptr) {
    if (c.count >= 2) literal_only(c.sec[1], o);
    return o.finish();
  }
  render_string_section(c.sec[0], value, o);
  return o.finish();
}
