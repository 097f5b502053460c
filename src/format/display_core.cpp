// Display formats: the compiled layout, the mask reader every kind of mask
// shares, and the output writer.
#include "format/display_core.h"

#include <bit>
#include <charconv>

#include "platform/platform.h"

namespace zbshr::fmt {

namespace {

void put16(unsigned char* p, unsigned v) {
  p[0] = static_cast<unsigned char>(v & 0xFF);
  p[1] = static_cast<unsigned char>((v >> 8) & 0xFF);
}
unsigned get16(const unsigned char* p) { return p[0] | (p[1] << 8u); }

}  // namespace

void SectionHeader::write(unsigned char* p) const {
  put16(p, len);
  put16(p + 2, flags);
  const uint8_t small[12] = {n_int, n_frac,  frac_min, percent, exp_digits, int_zeros,
                             scale, exp_step, colour,  cond_op, num_digits, den_digits};
  std::memcpy(p + 4, small, sizeof small);
  put16(p + 16, den_fixed);
  const uint64_t bits = std::bit_cast<uint64_t>(cond_value);
  for (int k = 0; k < 8; ++k) p[18 + k] = static_cast<unsigned char>(bits >> (8 * k));
}

SectionHeader SectionHeader::read(const unsigned char* p) {
  SectionHeader h;
  h.len = static_cast<uint16_t>(get16(p));
  h.flags = static_cast<uint16_t>(get16(p + 2));
  uint8_t* small[12] = {&h.n_int, &h.n_frac,   &h.frac_min, &h.percent, &h.exp_digits, &h.int_zeros,
                        &h.scale, &h.exp_step, &h.colour,   &h.cond_op, &h.num_digits, &h.den_digits};
  for (int k = 0; k < 12; ++k) *small[k] = p[4 + k];
  h.den_fixed = static_cast<uint16_t>(get16(p + 16));
  uint64_t bits = 0;
  for (int k = 0; k < 8; ++k) bits |= static_cast<uint64_t>(p[18 + k]) << (8 * k);
  h.cond_value = std::bit_cast<double>(bits);
  return h;
}

int token_size(const unsigned char* t) {
  switch (*t) {
    case tLit: return 2 + t[1];
    case tInt: case tFrac: case tExp: case tAmPm: case tNum: case tDen: return 2;
    case tField: return 3;
    case tDot: case tGeneral: case tAt: case tUpper: case tLower: case tSlash: case tDenFixed:
      return 1;
    default: return 0;
  }
}

void Section::lit(std::string_view s) {
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

int32_t emit(unsigned char* out, int32_t size, Kind kind, const std::vector<Section>& secs) {
  size_t total = kHeader;
  for (const Section& s : secs) total += kSecHeader + s.tokens.size();
  if (total > 0xFFFF || total > static_cast<size_t>(size)) return SHFORMAT_E_SMALL;
  for (const Section& s : secs)
    if (kSecHeader + s.tokens.size() > 0xFFFF) return SHFORMAT_E_SMALL;
  std::memset(out, 0, kHeader);
  out[0] = kMagic;
  out[1] = kind;
  put16(out + 2, static_cast<unsigned>(total));
  out[4] = static_cast<unsigned char>(secs.size());
  size_t at = kHeader;
  for (const Section& s : secs) {
    SectionHeader h = s.h;
    h.len = static_cast<uint16_t>(kSecHeader + s.tokens.size());
    h.write(out + at);
    if (!s.tokens.empty()) std::memcpy(out + at + kSecHeader, s.tokens.data(), s.tokens.size());
    at += h.len;
  }
  return SHFORMAT_OK;
}

// ------------------------------------------------------------------ mask reader

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (ascii_upper(a[i]) != ascii_upper(b[i])) return false;
  return true;
}

bool double_byte_at(std::string_view m, size_t i) {
  return i + 1 < m.size() && plat::IsDBCSLeadByte(static_cast<uint8_t>(m[i]));
}

namespace {

// Finds the closing character c from m[from], stepping over double-byte
// characters; npos when there is none.
size_t find_closing(std::string_view m, size_t from, char c) {
  for (size_t j = from; j < m.size(); ++j) {
    if (double_byte_at(m, j)) {
      ++j;
      continue;
    }
    if (m[j] == c) return j;
  }
  return std::string_view::npos;
}

// Length of the character at m[i]: 2 for a double-byte one, else 1.
size_t char_len(std::string_view m, size_t i) { return double_byte_at(m, i) ? 2 : 1; }

}  // namespace

int32_t split_sections(std::string_view mask, std::vector<std::string_view>& out, size_t max) {
  size_t start = 0;
  for (size_t i = 0; i < mask.size();) {
    const char c = mask[i];
    size_t next = i + char_len(mask, i);
    if (double_byte_at(mask, i)) {
      // a double-byte character is never a code
    } else if (c == '"' || c == '\'') {
      const size_t j = find_closing(mask, i + 1, c);
      if (j == std::string_view::npos) return SHFORMAT_E_QUOTE;
      next = j + 1;
    } else if (c == '\\' || c == '_' || c == '*') {
      if (i + 1 < mask.size()) next = i + 1 + char_len(mask, i + 1);
    } else if (c == '[') {
      const size_t j = find_closing(mask, i + 1, ']');
      if (j != std::string_view::npos) next = j + 1;  // "[<0]": the ';' test stays out
    } else if (c == ';') {
      out.push_back(mask.substr(start, i - start));
      start = i + 1;
    }
    i = next;
  }
  out.push_back(mask.substr(start));
  return out.size() > max ? SHFORMAT_E_SECTIONS : SHFORMAT_OK;
}

bool read_keyword(std::string_view m, size_t& i, std::string_view& name) {
  const size_t j = find_closing(m, i + 1, ']');
  if (j == std::string_view::npos) return false;
  name = m.substr(i + 1, j - i - 1);
  i = j + 1;
  return true;
}

bool read_common(std::string_view m, size_t& i, Section& s, int32_t& err) {
  err = SHFORMAT_OK;
  const char c = m[i];
  if (double_byte_at(m, i)) {
    s.lit(m.substr(i, 2));
    i += 2;
    return true;
  }
  if (c == '"' || c == '\'') {
    const size_t j = find_closing(m, i + 1, c);
    if (j == std::string_view::npos) {
      err = SHFORMAT_E_QUOTE;
      return true;
    }
    s.lit(m.substr(i + 1, j - i - 1));
    i = j + 1;
    return true;
  }
  if (c == '\\') {
    if (i + 1 >= m.size()) {  // a backslash at the very end stands for itself
      s.lit("\\");
      i += 1;
    } else {
      const size_t n = char_len(m, i + 1);
      s.lit(m.substr(i + 1, n));
      i += 1 + n;
    }
    return true;
  }
  if ((c == '_' || c == '*') && i + 1 < m.size()) {
    if (c == '_') s.lit(" ");
    i += 1 + char_len(m, i + 1);
    return true;
  }
  return false;
}

uint8_t colour_index(std::string_view name) {
  static const char* const kNames[8] = {"BLACK", "WHITE", "RED",     "GREEN",
                                        "BLUE",  "YELLOW", "MAGENTA", "CYAN"};
  for (int k = 0; k < 8; ++k)
    if (iequals(name, kNames[k])) return static_cast<uint8_t>(k + 1);
  if (name.size() > 5 && name.size() <= 7 && iequals(name.substr(0, 5), "COLOR")) {
    int n = 0;
    const auto r = std::from_chars(name.data() + 5, name.data() + name.size(), n);
    if (r.ec == std::errc() && r.ptr == name.data() + name.size() && name[5] != '0' && n >= 1 &&
        n <= 56)
      return static_cast<uint8_t>(n);
  }
  return 0;
}

bool general_word_at(std::string_view m, size_t i) {
  return m.size() - i >= 7 && iequals(m.substr(i, 7), "GENERAL");
}

int32_t literal_section(std::string_view m, Section& s, int32_t at_error) {
  for (size_t i = 0; i < m.size();) {
    int32_t e;
    if (read_common(m, i, s, e)) {
      if (e) return e;
      continue;
    }
    if (m[i] == '@') return at_error;
    s.lit(m.substr(i, 1));
    ++i;
  }
  if (m.empty()) s.h.flags |= fEmpty;
  return SHFORMAT_OK;
}

int32_t compile_value_and_null(unsigned char* out, const char* mask, int32_t size, Kind kind,
                               int32_t (*value_section)(std::string_view, Section&)) {
  std::vector<std::string_view> parts;
  if (int32_t e = split_sections(mask, parts, 2)) return e;
  std::vector<Section> secs(parts.size());
  for (size_t k = 0; k < parts.size(); ++k) {
    std::string_view part = parts[k];
    if (k == 1) {
      const int32_t at_error = kind == kKindDate ? SHFORMAT_E_DATETIME : SHFORMAT_E_STRING;
      if (int32_t e = literal_section(part, secs[k], at_error)) return e;
      continue;
    }
    if (part.empty()) part = "[GENERAL]";
    if (int32_t e = value_section(part, secs[k])) return e;
  }
  return emit(out, size, kind, secs);
}

// ------------------------------------------------------------------ output

int32_t Out::finish() {
  if (cap < 0) return SHFORMAT_E_OVERFLOW;
  if (over) {
    std::memset(buf, '#', static_cast<size_t>(cap));
    buf[cap] = '\0';
    return SHFORMAT_E_OVERFLOW;
  }
  buf[n] = '\0';
  return SHFORMAT_OK;
}

int32_t Out::fail(int32_t code) {
  if (cap >= 0) buf[0] = '\0';
  return code;
}

int32_t open_compiled(const unsigned char* c, Kind kind, Compiled& out) {
  if (c == nullptr) return SHFORMAT_E_ARGUMENT;
  if (c[0] != kMagic || c[1] != kind) return SHFORMAT_E_COMPILED;
  const int total = static_cast<int>(get16(c + 2));
  if (total < kHeader) return SHFORMAT_E_COMPILED;
  const int count = c[4];
  if (count < 1 || count > 4) return SHFORMAT_E_COMPILED;
  int at = kHeader;
  for (int k = 0; k < count; ++k) {
    if (at + kSecHeader > total) return SHFORMAT_E_COMPILED;
    SecView& s = out.sec[k];
    s.p = c + at;
    s.h = SectionHeader::read(s.p);
    if (s.h.len < kSecHeader || at + s.h.len > total) return SHFORMAT_E_COMPILED;
    // Every token must lie whole inside its section.
    for (const unsigned char* t = s.tokens(); t < s.end();) {
      if (*t == tLit && t + 2 > s.end()) return SHFORMAT_E_COMPILED;
      const int n = token_size(t);
      if (n == 0 || t + n > s.end()) return SHFORMAT_E_COMPILED;
      t += n;
    }
    at += s.h.len;
  }
  out.count = count;
  return SHFORMAT_OK;
}

void literal_only(const SecView& s, Out& o) {
  for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t))
    if (*t == tLit) o.put(reinterpret_cast<const char*>(t + 2), t[1]);
}

}  // namespace zbshr::fmt
