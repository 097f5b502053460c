// Display formats: string masks ('@' one character of the value, '>' and
// '<' case, the whole value) and their rendering. A double-byte character
// of the current code page counts as one character and keeps its case.
#include <cstring>

#include "format/display_core.h"
#include "platform/platform.h"

namespace zbshr::fmt {
namespace {

int32_t string_section(std::string_view m, Section& s) {
  bool general = false, any = false;
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    int32_t err = SHFORMAT_OK;
    if (read_common(m, i, s, err)) {
      if (err) return err;
      continue;
    }
    bool is_general = false;
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
    } else if (c == '[') {
      std::string_view name;
      if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
      if (const uint8_t colour = colour_index(name)) {
        s.h.colour = colour;
        continue;
      }
      if (!iequals(name, "GENERAL")) return SHFORMAT_E_KEYWORD;
      is_general = true;
    } else if ((c == 'G' || c == 'g') && general_word_at(m, i)) {
      i += 7;
      is_general = true;
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
    if (is_general) {
      if (general || any) return SHFORMAT_E_STRING;
      general = true;
      s.tok(tGeneral);
    }
  }
  if (general || any) s.h.flags |= fDigits;
  return SHFORMAT_OK;
}

}  // namespace

int32_t compile_string(unsigned char* out, const char* mask, int32_t size) {
  return compile_value_and_null(out, mask, size, kKindString, string_section);
}

int32_t render_string_section(const SecView& s, const char* v, Out& o) {
  const size_t len = std::strlen(v);
  size_t next = 0;
  int mode = 0;  // 0 as is, 1 upper, 2 lower
  // Copies one character of the value; a double-byte one whole and as is.
  auto put_next = [&] {
    if (next + 1 < len && plat::IsDBCSLeadByte(static_cast<uint8_t>(v[next]))) {
      o.put(v + next, 2);
      next += 2;
      return;
    }
    const char c = v[next++];
    o.put(mode == 1 ? ascii_upper(c) : mode == 2 ? ascii_lower(c) : c);
  };
  for (const unsigned char* t = s.tokens(); t < s.end(); t += token_size(t)) {
    switch (*t) {
      case tLit: o.put(reinterpret_cast<const char*>(t + 2), t[1]); break;
      case tAt:
        if (next < len) put_next();
        break;
      case tUpper: mode = 1; break;
      case tLower: mode = 2; break;
      case tGeneral:
        while (next < len) put_next();
        break;
      default: return SHFORMAT_E_COMPILED;
    }
  }
  // Characters left over after the last placeholder are kept.
  if (s.h.flags & fDigits)
    while (next < len) put_next();
  return SHFORMAT_OK;
}

}  // namespace zbshr::fmt
