// Display formats: the compiled layout shared by the number, date and string
// masks, the mask reader and the output writer. docs/FORMATS.md describes
// the mask language.
//
// Compiled layout (all multi-byte fields little-endian):
//   header, 8 bytes:  0x5A, kind (1 date/time, 2 numeric, 3 string),
//                     total length (16 bits), section count, 3 zero bytes
//   each section:     a SectionHeader (kSecHeader bytes), then tokens up to
//                     the section's length
//   tokens:           LIT n bytes... | number, date and string tokens below
// Keyword masks and regional patterns are expanded when the mask is
// compiled, so a compiled format keeps the regional settings of that moment.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "zbshr/format.h"

namespace zbshr::fmt {

constexpr uint8_t kMagic = 0x5A;
constexpr int kHeader = 8;
constexpr int kSecHeader = 26;

enum Kind : uint8_t { kKindDate = 1, kKindNumber = 2, kKindString = 3 };

// Tokens.
enum Tok : uint8_t {
  tLit = 1,      // n, bytes
  tInt = 2,      // '0', '#' or '?': an integer digit placeholder
  tDot = 3,      // the decimal point
  tFrac = 4,     // '0', '#' or '?': a fraction digit placeholder
  tExp = 5,      // exponent: 'E' or 'e' as written
  tGeneral = 6,  // the general form of the value
  tField = 7,    // date field id, letter count
  tAmPm = 8,     // style
  tAt = 10,      // string: one character of the value
  tUpper = 11,   // string: following characters upper-cased
  tLower = 12,   // string: following characters lower-cased
  tNum = 13,     // '0', '#' or '?': a numerator digit placeholder
  tSlash = 14,   // the fraction bar
  tDen = 15,     // '0', '#' or '?': a denominator digit placeholder
  tDenFixed = 16 // the fixed denominator (SectionHeader::den_fixed)
};

// Size in bytes of the token at t (LIT included), 0 for an unknown token.
int token_size(const unsigned char* t);

// Section flags.
enum : uint16_t {
  fGroup = 1,        // thousands separators in the integer part
  fExp = 2,          // exponent form
  fExpPlus = 4,      // exponent always signed
  fDigits = 8,       // the section shows the value (placeholders or general)
  fTwelve = 16,      // date: 12-hour clock
  fEmpty = 32,       // the section is present but empty
  fGeneral = 64,     // number: the section shows the general form
  fFraction = 128,   // number: fraction form (numerator / denominator)
  fFracSpace = 256,  // number: a '?' fraction placeholder keeps the point
};

// Condition operators.
enum : uint8_t { cNone = 0, cLess, cLessEq, cGreater, cGreaterEq, cEqual, cNotEqual };

// The fixed part of a section, written and read byte by byte.
struct SectionHeader {
  uint16_t len = 0;        // whole section, header included
  uint16_t flags = 0;
  uint8_t n_int = 0;       // integer placeholders
  uint8_t n_frac = 0;      // fraction placeholders
  uint8_t frac_min = 0;    // fraction digits always shown (last '0'/'?')
  uint8_t percent = 0;     // number of '%'
  uint8_t exp_digits = 0;  // minimum exponent digits
  uint8_t int_zeros = 0;   // '0' integer placeholders
  uint8_t scale = 0;       // scaling commas: divide by 1000 each
  uint8_t exp_step = 0;    // engineering exponent: multiple of this (0: none)
  uint8_t colour = 0;      // 0 none, 1..56 palette index
  uint8_t cond_op = cNone;
  uint8_t num_digits = 0;  // fraction form: numerator placeholders
  uint8_t den_digits = 0;  // fraction form: denominator placeholders
  uint16_t den_fixed = 0;  // fraction form: fixed denominator (0: none)
  double cond_value = 0;

  void write(unsigned char* p) const;
  static SectionHeader read(const unsigned char* p);
};

// A section under construction.
struct Section {
  SectionHeader h;
  std::vector<unsigned char> tokens;
  size_t last_lit = SIZE_MAX;  // start of the last LIT token, to extend it

  void lit(std::string_view s);
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
int32_t emit(unsigned char* out, int32_t size, Kind kind, const std::vector<Section>& secs);

// ------------------------------------------------------------------ mask reader

inline char ascii_upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }
inline char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
bool iequals(std::string_view a, std::string_view b);

// True when m[i] starts a double-byte character of the current code page
// (a lead byte with its trail byte present).
bool double_byte_at(std::string_view m, size_t i);

// Splits a mask into sections at unquoted, unescaped ';' (at most max).
int32_t split_sections(std::string_view mask, std::vector<std::string_view>& out, size_t max);

// Reads "[NAME]" at m[i]; false when there is no closing ']'.
bool read_keyword(std::string_view m, size_t& i, std::string_view& name);

// Reads what every kind of mask shares at m[i]: a double-byte character,
// quoted text, a backslash escape, "_x" (a space as wide as x) and "*x" (a
// fill, dropped: the output has no column width). Returns true when it
// consumed something; err is set on a malformed item.
bool read_common(std::string_view m, size_t& i, Section& s, int32_t& err);

// A colour keyword ("Red", "Color12", any case): its palette index 1..56,
// or 0 when name is not one.
uint8_t colour_index(std::string_view name);

// True when the word "General" (any case) stands at m[i].
bool general_word_at(std::string_view m, size_t i);

// A section compiled as literal text only (the null section). An unquoted
// '@' (a text placeholder elsewhere) is refused with `at_error`.
int32_t literal_section(std::string_view m, Section& s, int32_t at_error);

// Compiles a mask of a value section and a literal section for a null
// value; an empty value section shows the general form.
int32_t compile_value_and_null(unsigned char* out, const char* mask, int32_t size, Kind kind,
                               int32_t (*value_section)(std::string_view, Section&));

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
  int32_t finish();
  int32_t fail(int32_t code);
};

// A view of one compiled section.
struct SecView {
  const unsigned char* p = nullptr;  // section start
  SectionHeader h;
  const unsigned char* tokens() const { return p + kSecHeader; }
  const unsigned char* end() const { return p + h.len; }
  bool empty() const { return (h.flags & fEmpty) != 0; }
};

struct Compiled {
  SecView sec[4];
  int count = 0;
};

// Checks the header and every section's length and token stream.
int32_t open_compiled(const unsigned char* c, Kind kind, Compiled& out);

// Emits the literal tokens of a section, ignoring everything else.
void literal_only(const SecView& s, Out& o);

// Compilers and renderers of each kind.
int32_t compile_numeric(unsigned char* out, const char* mask, int32_t size);
int32_t compile_date(unsigned char* out, const char* mask, int32_t size);
int32_t compile_string(unsigned char* out, const char* mask, int32_t size);

int32_t render_date_section(const SecView& s, const SHDATETIME& v, Out& o);
int32_t render_string_section(const SecView& s, const char* v, Out& o);

}  // namespace zbshr::fmt
