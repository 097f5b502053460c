// Display formats: numeric masks compiled into sections (placeholders,
// grouping and scaling commas, percent, exponents, fractions, the general
// form, the regional currency form, colours and conditions).
#include <charconv>
#include <string>

#include "format/display_core.h"
#include "memory/intl.h"

namespace zbshr::fmt {
namespace {

std::string currency_number() {
  const auto& st = intl::settings();
  int d = st.currency_digits;
  if (d < 0) d = 0;
  if (d > 9) d = 9;
  std::string n = "#,##0";
  if (d > 0) {
    n += '.';
    n.append(static_cast<size_t>(d), '0');
  }
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

bool placeholder(char c) { return c == '0' || c == '#' || c == '?'; }

// Reads a condition "<100", ">=-5", "<>0"...; false when name is not one.
bool read_condition(std::string_view name, SectionHeader& h) {
  static const struct {
    const char* text;
    uint8_t op;
  } kOps[] = {{"<=", cLessEq}, {">=", cGreaterEq}, {"<>", cNotEqual},
              {"<", cLess},    {">", cGreater},    {"=", cEqual}};
  for (const auto& op : kOps) {
    const std::string_view t = op.text;
    if (name.substr(0, t.size()) != t) continue;
    std::string_view num = name.substr(t.size());
    while (!num.empty() && num.front() == ' ') num.remove_prefix(1);
    while (!num.empty() && num.back() == ' ') num.remove_suffix(1);
    if (!num.empty() && num.front() == '+') num.remove_prefix(1);
    double v = 0;
    const auto r = std::from_chars(num.data(), num.data() + num.size(), v);
    if (num.empty() || r.ec != std::errc() || r.ptr != num.data() + num.size()) return false;
    h.cond_op = op.op;
    h.cond_value = v;
    return true;
  }
  return false;
}

struct NumState {
  bool dot = false, in_exp = false, exp_done = false, general = false, exp_plus = false;
  bool group = false, frac_space = false, fraction = false, in_den = false;
  int n_int = 0, int_zeros = 0, n_frac = 0, frac_min = 0, pct = 0, exp_digits = 0, scale = 0;
  int num_digits = 0, den_digits = 0;
  long den_fixed = 0;
  int last = 0;  // the item before: 0 other, 1 integer placeholder, 2 fraction placeholder
  size_t run_start = 0;  // first token of the current run of integer placeholders
  int run_len = 0, run_zeros = 0;
};

int32_t numeric_section(std::string_view m, Section& s, NumState& st, int depth);

// A run of placeholders just before '/' becomes the numerator.
int32_t start_fraction(std::string_view m, size_t& i, Section& s, NumState& st) {
  if (st.dot || st.in_exp || st.general || st.fraction) return SHFORMAT_E_NUMERIC;
  for (int k = 0; k < st.run_len; ++k) s.tokens[st.run_start + 2 * static_cast<size_t>(k)] = tNum;
  st.num_digits = st.run_len;
  st.n_int -= st.run_len;
  st.int_zeros -= st.run_zeros;
  st.fraction = true;
  s.tok(tSlash);
  ++i;
  if (m[i] >= '1' && m[i] <= '9') {
    while (i < m.size() && m[i] >= '0' && m[i] <= '9') {
      st.den_fixed = st.den_fixed * 10 + (m[i] - '0');
      if (st.den_fixed > 65535) return SHFORMAT_E_NUMERIC;
      ++i;
    }
    s.tok(tDenFixed);
  } else {
    st.in_den = true;
  }
  st.last = 0;
  return SHFORMAT_OK;
}

int32_t read_placeholder(char c, Section& s, NumState& st) {
  if (st.general) return SHFORMAT_E_NUMERIC;
  if (st.in_exp) {
    if (st.exp_done) return SHFORMAT_E_NUMERIC;
    ++st.exp_digits;
  } else if (st.fraction) {
    if (!st.in_den) return SHFORMAT_E_NUMERIC;
    s.tok(tDen, static_cast<uint8_t>(c));
    ++st.den_digits;
  } else if (st.dot) {
    s.tok(tFrac, static_cast<uint8_t>(c));
    ++st.n_frac;
    if (c == '0') st.frac_min = st.n_frac;
    if (c == '?') st.frac_space = true;
    st.last = 2;
    return SHFORMAT_OK;
  } else {
    if (st.last != 1) {
      st.run_start = s.tokens.size();
      st.run_len = st.run_zeros = 0;
    }
    s.tok(tInt, static_cast<uint8_t>(c));
    ++st.n_int;
    ++st.run_len;
    if (c == '0') ++st.int_zeros, ++st.run_zeros;
    st.last = 1;
    return SHFORMAT_OK;
  }
  st.last = 0;
  return SHFORMAT_OK;
}

// Commas: between integer placeholders they group by thousands; right after
// the last placeholder each one divides the value by 1000.
void read_commas(std::string_view m, size_t& i, Section& s, NumState& st) {
  size_t j = i;
  while (j < m.size() && m[j] == ',') ++j;
  const int n = static_cast<int>(j - i);
  const bool next_ph = j < m.size() && placeholder(m[j]);
  if (st.last == 1 && next_ph && !st.in_exp) {
    st.group = true;  // the run of placeholders goes on
  } else if (st.last != 0 && !st.in_exp && !st.fraction) {
    st.scale += n;
    st.last = 0;
  } else {
    s.lit(m.substr(i, j - i));
    st.last = 0;
  }
  i = j;
}

int32_t read_bracket(std::string_view m, size_t& i, Section& s, NumState& st, int depth) {
  std::string_view name;
  if (!read_keyword(m, i, name)) return SHFORMAT_E_KEYWORD;
  st.last = 0;
  if (iequals(name, "GENERAL")) {
    if (st.general || st.n_int + st.n_frac > 0 || st.dot || st.in_exp || st.fraction)
      return SHFORMAT_E_NUMERIC;
    st.general = true;
    s.tok(tGeneral);
  } else if (iequals(name, "CURRENCY") && depth == 0) {
    const std::string cur = currency_positive();
    return numeric_section(cur, s, st, depth + 1);
  } else if (const uint8_t colour = colour_index(name)) {
    s.h.colour = colour;
  } else if (depth > 0 || s.h.cond_op != cNone || !read_condition(name, s.h)) {
    return SHFORMAT_E_KEYWORD;  // one condition per section, none in [CURRENCY]
  }
  return SHFORMAT_OK;
}

int32_t numeric_section(std::string_view m, Section& s, NumState& st, int depth) {
  for (size_t i = 0; i < m.size();) {
    const char c = m[i];
    if (placeholder(c)) {
      if (int32_t e = read_placeholder(c, s, st)) return e;
      ++i;
      continue;
    }
    if (st.in_exp && st.exp_digits > 0) st.exp_done = true;
    st.in_den = false;  // the denominator's placeholders end here
    int32_t err = SHFORMAT_OK;
    if (c == ',') {
      read_commas(m, i, s, st);
      continue;
    }
    if (c == '/' && st.last != 0 && i + 1 < m.size() &&
        (placeholder(m[i + 1]) || (m[i + 1] >= '1' && m[i + 1] <= '9'))) {
      if (int32_t e = start_fraction(m, i, s, st)) return e;
      continue;
    }
    st.last = 0;
    if (read_common(m, i, s, err)) {
      if (err) return err;
    } else if (c == '.') {
      if (st.dot || st.in_exp || st.general || st.fraction) return SHFORMAT_E_NUMERIC;
      st.dot = true;
      s.tok(tDot);
      ++i;
    } else if (c == '%') {
      ++st.pct;
      s.lit("%");
      ++i;
    } else if ((c == 'E' || c == 'e') && i + 2 < m.size() && (m[i + 1] == '+' || m[i + 1] == '-') &&
               placeholder(m[i + 2])) {
      if (st.in_exp || st.general || st.fraction || st.n_int + st.n_frac == 0)
        return SHFORMAT_E_NUMERIC;
      st.in_exp = true;
      st.exp_plus = m[i + 1] == '+';
      s.tok(tExp, static_cast<uint8_t>(c));
      i += 2;
    } else if (c == '[') {
      if (int32_t e = read_bracket(m, i, s, st, depth)) return e;
    } else if ((c == 'G' || c == 'g') && general_word_at(m, i)) {
      // The word General without brackets is the general form too.
      if (st.general || st.n_int + st.n_frac > 0 || st.dot || st.in_exp || st.fraction)
        return SHFORMAT_E_NUMERIC;
      st.general = true;
      s.tok(tGeneral);
      i += 7;
    } else {
      s.lit(m.substr(i, 1));
      ++i;
    }
  }
  return SHFORMAT_OK;
}

int32_t finish_numeric(Section& s, const NumState& st) {
  if (st.n_int > 255 || st.n_frac > 100 || st.exp_digits > 9 || st.pct > 10 || st.scale > 10)
    return SHFORMAT_E_NUMERIC;
  if (st.fraction && (st.num_digits > 30 || st.den_digits > 4 ||
                      (st.den_digits == 0 && st.den_fixed == 0)))
    return SHFORMAT_E_NUMERIC;
  SectionHeader& h = s.h;
  if (st.group) h.flags |= fGroup;
  if (st.in_exp) h.flags |= fExp;
  if (st.exp_plus) h.flags |= fExpPlus;
  if (st.general || st.n_int + st.n_frac > 0 || st.dot || st.fraction) h.flags |= fDigits;
  if (st.general) h.flags |= fGeneral;
  if (st.fraction) h.flags |= fFraction;
  if (st.frac_space) h.flags |= fFracSpace;
  h.n_int = static_cast<uint8_t>(st.n_int);
  h.n_frac = static_cast<uint8_t>(st.n_frac);
  h.frac_min = static_cast<uint8_t>(st.frac_min);
  h.percent = static_cast<uint8_t>(st.pct);
  h.exp_digits = static_cast<uint8_t>(st.exp_digits);
  h.int_zeros = static_cast<uint8_t>(st.int_zeros);
  h.scale = static_cast<uint8_t>(st.scale);
  // "##0.0E+0": an exponent that is a multiple of the integer placeholders.
  if (st.in_exp && st.n_int > 1 && st.int_zeros < st.n_int) h.exp_step = static_cast<uint8_t>(st.n_int);
  h.num_digits = static_cast<uint8_t>(st.num_digits);
  h.den_digits = static_cast<uint8_t>(st.den_digits);
  h.den_fixed = static_cast<uint16_t>(st.den_fixed);
  return SHFORMAT_OK;
}

}  // namespace

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
      if (int32_t e = literal_section(parts[k], s, SHFORMAT_E_NUMERIC)) return e;
      continue;
    }
    std::string_view part = parts[k];
    if (part.empty()) {
      if (k == 0) {
        part = "[GENERAL]";  // an empty mask shows the general form
      } else {
        s.h.flags |= fEmpty;
        continue;
      }
    }
    NumState st;
    if (int32_t e = numeric_section(part, s, st, 0)) return e;
    if (int32_t e = finish_numeric(s, st)) return e;
  }
  return emit(out, size, kKindNumber, secs);
}

}  // namespace zbshr::fmt
