// zbshr dec: evaluates SHDEC operations from the command line, one at a time
// or in a batch read from standard input (one operation per line).
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "args.h"
#include "cli.h"
#include "zbshr/decimal.h"

namespace {

const char* kCmd = "dec";

const char* kHelp =
    "Evaluates one operation on SHDEC decimals and prints the result. A decimal\n"
    "argument is text (1.50, -2e-3) or a raw record @SIGN:SCALE:MAGNITUDE (for\n"
    "example @1:29:5). PLACES is 0..18.\n"
    "\n"
    "operations:\n"
    "  add A B, sub A B, mul A B, div A B (18 places, truncated), mod A B, pow A B\n"
    "  mulr A B PLACES, mult A B PLACES   product rounded / truncated to PLACES\n"
    "  divr A B PLACES, divt A B PLACES   quotient rounded / truncated to PLACES\n"
    "  round A PLACES, trunc A PLACES\n"
    "  cmp A B, mag A B                   -1, 0 or 1 (values / magnitudes)\n"
    "  sign A, prec A, abs A, neg A, parse A\n"
    "  toint A, touns A, tolong A, toulong A, todouble A, tofloat A\n"
    "  fromint N, fromuns N, fromlong N, fromulong N\n"
    "  fromdouble X, fromfloat X, fromdoubler X PLACES\n"
    "\n"
    "--raw prints a decimal result as SIGN SCALE MAGNITUDE instead of text.\n"
    "--batch reads lines 'OPERATION ARGUMENTS...' and answers each with a line\n"
    "'ok RESULT' (followed by ' wCODE' for each reported-only code such as -305)\n"
    "or 'err CODE', or 'usage TEXT' for a line that is no operation (a blank line\n"
    "too, so that every line gets one answer); after 'parse ' the rest of the line\n"
    "is the text, blanks included. --batch --json answers with one JSON object a\n"
    "line: {\"line\":N,\"status\":\"ok\"|\"err\"|\"usage\",\"result\"|\"code\"|\"text\":...}.\n"
    "\n"
    "An error prints its code and meaning on standard error and exits with 1;\n"
    "a reported-only code (-305 underflow, -308 fraction dropped) is noted on\n"
    "standard error and the result is still printed. Arguments that start with\n"
    "'-' and are not numbers follow '--'.";

std::vector<int> g_codes;

void ZBSHR_CALL collect(int16_t code, int32_t) { g_codes.push_back(code); }

const char* meaning(int code) {
  switch (code) {
    case SHDEC_ERR_NULL: return "a required decimal argument is null";
    case SHDEC_ERR_TEXTBUF: return "the text buffer is null";
    case SHDEC_ERR_SCALE: return "scale outside 0..28";
    case SHDEC_ERR_OVERFLOW: return "overflow";
    case SHDEC_ERR_UNDERFLOW: return "underflow: a non-zero result became zero";
    case SHDEC_ERR_SYNTAX: return "not a valid number";
    case SHDEC_ERR_RANGE: return "the value does not fit the target";
    case SHDEC_ERR_FRACTION: return "a non-zero fraction was dropped";
    case SHDEC_ERR_ZERODIV: return "division by zero";
    case SHDEC_ERR_POWER: return "bad power arguments";
    case SHDEC_ERR_LOG: return "logarithm of a value that is not positive";
    case SHDEC_ERR_PLACES: return "places outside 0..18";
    default: return "unknown error";
  }
}

// A raw record's 80-bit magnitude as five 16-bit limbs, least significant
// first (the SHDEC layout), in decimal digits and back: plain long arithmetic
// on the limbs, which every compiler has.
std::string magnitude_text(const uint16_t (&mag)[5]) {
  uint16_t m[5];
  std::copy(mag, mag + 5, m);
  std::string s;
  for (;;) {
    uint32_t rem = 0;
    bool zero = true;
    for (int i = 4; i >= 0; --i) {
      const uint32_t cur = (rem << 16) | m[i];
      m[i] = static_cast<uint16_t>(cur / 10);
      rem = cur % 10;
      zero = zero && m[i] == 0;
    }
    s.insert(s.begin(), static_cast<char>('0' + rem));
    if (zero) return s;
  }
}
// mag = mag * 10 + digit; false when the result needs more than 80 bits.
bool magnitude_push_digit(uint16_t (&mag)[5], unsigned digit) {
  uint32_t carry = digit;
  for (auto& limb : mag) {
    const uint32_t cur = limb * 10u + carry;
    limb = static_cast<uint16_t>(cur);
    carry = cur >> 16;
  }
  return carry == 0;
}

// "@sign:scale:magnitude" builds a raw record; anything else is text.
bool read_decimal(const std::string& arg, SHDEC& d, std::string& why) {
  if (!arg.empty() && arg[0] == '@') {
    long long sign = 0, scale = 0;
    uint16_t m[5] = {0, 0, 0, 0, 0};
    const char* p = arg.c_str() + 1;
    char* end;
    sign = std::strtoll(p, &end, 10);
    if (*end != ':') return why = "bad raw record '" + arg + "'", false;
    scale = std::strtoll(end + 1, &end, 10);
    if (*end != ':' || !end[1]) return why = "bad raw record '" + arg + "'", false;
    for (p = end + 1; *p; ++p) {
      if (*p < '0' || *p > '9') return why = "bad raw record '" + arg + "'", false;
      if (!magnitude_push_digit(m, static_cast<unsigned>(*p - '0')))
        return why = "raw magnitude exceeds 80 bits", false;
    }
    if (sign < 0 || sign > 0xFFFF || scale < -32768 || scale > 32767)
      return why = "bad raw record '" + arg + "'", false;
    d.sign = static_cast<uint16_t>(sign);
    d.scale = static_cast<int16_t>(scale);
    for (int i = 0; i < 5; ++i) d.mag[i] = m[i];
    return true;
  }
  g_codes.clear();
  if (!ConvAsciiToDecimal(&d, arg.c_str())) {
    const int code = g_codes.empty() ? 0 : g_codes.back();
    why = "cannot read '" + arg + "': error " + std::to_string(code) + ": " + meaning(code);
    return false;
  }
  return true;
}

bool read_int(const std::string& arg, long long lo, long long hi, long long& out) {
  const char* b = arg.c_str();
  auto r = std::from_chars(b, b + arg.size(), out);
  return r.ec == std::errc() && r.ptr == b + arg.size() && out >= lo && out <= hi;
}

bool read_double(const std::string& arg, double& out) {
  const char* b = arg.c_str();
  if (arg == "nan") return out = __builtin_nan(""), true;
  if (arg == "inf") return out = __builtin_inf(), true;
  if (arg == "-inf") return out = -__builtin_inf(), true;
  auto r = std::from_chars(b, b + arg.size(), out);
  return r.ec == std::errc() && r.ptr == b + arg.size();
}

std::string decimal_text(const SHDEC& d, bool raw) {
  if (raw) {
    uint16_t m[5];
    for (int i = 0; i < 5; ++i) m[i] = d.mag[i];
    return std::to_string(d.sign) + " " + std::to_string(d.scale) + " " + magnitude_text(m);
  }
  char t[SHDEC_TEXT_SIZE];
  return ConvDecimalToAscii(t, &d) ? std::string(t) : std::string("(null)");
}

std::string double_text(double v) {
  char b[64];
  auto r = std::to_chars(b, b + sizeof b, v);
  return std::string(b, r.ptr);
}

struct Outcome {
  bool usage = false;   // the arguments were wrong
  bool failed = false;  // the library reported an error
  int code = 0;
  std::string text;     // result, or the usage message
  std::vector<int> notes;
};

// Evaluates one operation given as words.
Outcome evaluate(const std::vector<std::string>& w, bool raw) {
  Outcome o;
  auto usage = [&](const std::string& msg) {
    o.usage = true;
    o.text = msg;
    return o;
  };
  if (w.empty()) return usage("missing operation");
  const std::string& op = w[0];
  struct Shape {
    const char* name;
    int decimals;  // leading decimal arguments
    int extra;     // 0 none, 1 places, 2 integer, 3 double
  };
  static const Shape shapes[] = {
      {"add", 2, 0},      {"sub", 2, 0},      {"mul", 2, 0},        {"div", 2, 0},
      {"mod", 2, 0},      {"pow", 2, 0},      {"mulr", 2, 1},       {"mult", 2, 1},
      {"divr", 2, 1},     {"divt", 2, 1},     {"round", 1, 1},      {"trunc", 1, 1},
      {"cmp", 2, 0},      {"mag", 2, 0},      {"sign", 1, 0},       {"prec", 1, 0},
      {"abs", 1, 0},      {"neg", 1, 0},      {"parse", 1, 0},      {"toint", 1, 0},
      {"touns", 1, 0},    {"tolong", 1, 0},   {"toulong", 1, 0},    {"todouble", 1, 0},
      {"tofloat", 1, 0},  {"fromint", 0, 2},  {"fromuns", 0, 2},    {"fromlong", 0, 2},
      {"fromulong", 0, 2}, {"fromdouble", 0, 3}, {"fromfloat", 0, 3}, {"fromdoubler", 0, 4},
  };
  const Shape* shape = nullptr;
  for (const auto& s : shapes)
    if (op == s.name) shape = &s;
  if (!shape) return usage("unknown operation '" + op + "'");
  const size_t want = 1 + shape->decimals + (shape->extra == 0 ? 0 : shape->extra == 4 ? 2 : 1);
  if (w.size() != want)
    return usage(op + " takes " + std::to_string(want - 1) + " argument(s)");

  if (op == "parse") {
    // Parse errors are results here, not usage errors.
    SHDEC d;
    g_codes.clear();
    if (!ConvAsciiToDecimal(&d, w[1].c_str())) {
      o.failed = true;
      o.code = g_codes.empty() ? 0 : g_codes.back();
      return o;
    }
    o.text = decimal_text(d, raw);
    return o;
  }

  SHDEC a{}, b{}, r{};
  std::string why;
  if (shape->decimals >= 1 && !read_decimal(w[1], a, why)) return usage(why);
  if (shape->decimals >= 2 && !read_decimal(w[2], b, why)) return usage(why);
  long long places = 0, n = 0;
  double x = 0;
  const std::string& last = w.back();
  if (shape->extra == 1 && !read_int(last, INT32_MIN, INT32_MAX, places))
    return usage("bad places '" + last + "'");
  if (shape->extra == 3 && !read_double(w[1], x)) return usage("bad number '" + w[1] + "'");
  if (shape->extra == 4) {
    if (!read_double(w[1], x)) return usage("bad number '" + w[1] + "'");
    if (!read_int(w[2], INT32_MIN, INT32_MAX, places)) return usage("bad places '" + w[2] + "'");
  }
  if (shape->extra == 2) {
    long long lo = 0, hi = 0;
    if (op == "fromint") lo = INT16_MIN, hi = INT16_MAX;
    if (op == "fromuns") lo = 0, hi = UINT16_MAX;
    if (op == "fromlong") lo = INT32_MIN, hi = INT32_MAX;
    if (op == "fromulong") lo = 0, hi = UINT32_MAX;
    if (!read_int(w[1], lo, hi, n)) return usage("bad integer '" + w[1] + "'");
  }

  g_codes.clear();
  const SHDEC* res = nullptr;
  bool number = false, ok = true;
  long long num = 0;
  const int32_t pl = static_cast<int32_t>(places);
  if (op == "add") res = AddDecimal(&r, &a, &b);
  else if (op == "sub") res = SubtractDecimal(&r, &a, &b);
  else if (op == "mul") res = MultiplyDecimal(&r, &a, &b);
  else if (op == "div") res = DivideDecimal(&r, &a, &b);
  else if (op == "mod") res = ModuloDecimal(&r, &a, &b);
  else if (op == "pow") res = PowerDecimal(&r, &a, &b);
  else if (op == "mulr") res = MultiplyDecimalAndRound(&r, &a, &b, pl);
  else if (op == "mult") res = MultiplyDecimalAndTruncate(&r, &a, &b, pl);
  else if (op == "divr") res = DivideDecimalAndRound(&r, &a, &b, pl);
  else if (op == "divt") res = DivideDecimalAndTruncate(&r, &a, &b, pl);
  else if (op == "round") res = RoundDecimal(&r, &a, pl);
  else if (op == "trunc") res = TruncateDecimal(&r, &a, pl);
  else if (op == "abs") res = AbsoluteDecimal(&r, &a);
  else if (op == "neg") res = ChangeSignDecimal(&r, &a);
  else if (op == "fromint") res = ConvIntToDecimal(&r, static_cast<int16_t>(n));
  else if (op == "fromuns") res = ConvUnsToDecimal(&r, static_cast<uint16_t>(n));
  else if (op == "fromlong") res = ConvLongToDecimal(&r, static_cast<int32_t>(n));
  else if (op == "fromulong") res = ConvUnsLongToDecimal(&r, static_cast<uint32_t>(n));
  else if (op == "fromdouble") res = ConvDoubleToDecimal(&r, x);
  else if (op == "fromfloat") res = ConvFloatToDecimal(&r, static_cast<float>(x));
  else if (op == "fromdoubler") res = ConvDoubleToDecimalRound(&r, x, pl);
  else if (op == "cmp" || op == "mag" || op == "sign" || op == "prec") {
    int16_t v = op == "cmp"    ? CompareDecimal(&a, &b)
                : op == "mag"  ? MagnitudeOfDecimal(&a, &b)
                : op == "sign" ? TestSignDecimal(&a)
                               : DecimalPrecision(&a);
    number = true;
    num = v;
    ok = v > -300;
  } else if (op == "toint") {
    int16_t v;
    ok = ConvDecToInt(&v, &a) != nullptr;
    number = true, num = v;
  } else if (op == "touns") {
    uint16_t v;
    ok = ConvDecToUns(&v, &a) != nullptr;
    number = true, num = v;
  } else if (op == "tolong") {
    int32_t v;
    ok = ConvDecToLong(&v, &a) != nullptr;
    number = true, num = v;
  } else if (op == "toulong") {
    uint32_t v;
    ok = ConvDecToUnsLong(&v, &a) != nullptr;
    number = true, num = v;
  } else if (op == "todouble") {
    double v;
    ok = ConvDecToDouble(&v, &a) != nullptr;
    o.text = double_text(v);
  } else if (op == "tofloat") {
    float v;
    ok = ConvDecToFloat(&v, &a) != nullptr;
    char buf[64];
    auto rr = std::to_chars(buf, buf + sizeof buf, v);
    o.text.assign(buf, rr.ptr);
  }
  if (!number && o.text.empty()) ok = res != nullptr;
  if (!ok) {
    o.failed = true;
    o.code = g_codes.empty() ? 0 : g_codes.back();
    return o;
  }
  o.notes = g_codes;
  if (number) o.text = std::to_string(num);
  else if (res) o.text = decimal_text(r, raw);
  return o;
}

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> w;
  std::istringstream in(line);
  std::string s;
  while (in >> s) w.push_back(s);
  return w;
}

int run_batch(bool raw, bool as_json) {
  std::string line;
  std::string out;
  long number = 0;
  while (std::getline(std::cin, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();  // CRLF input
    // "parse TEXT" takes the rest of the line as it stands, blanks included.
    auto w = line.rfind("parse ", 0) == 0 ? std::vector<std::string>{"parse", line.substr(6)}
                                          : split(line);
    Outcome o;
    if (w.empty()) {
      o.usage = true;
      o.text = "empty line";
    } else {
      o = evaluate(w, raw);
    }
    if (as_json) {
      nlohmann::json j{{"line", number}};
      if (o.usage) j["status"] = "usage", j["text"] = o.text;
      else if (o.failed) j["status"] = "err", j["code"] = o.code;
      else j["status"] = "ok", j["result"] = o.text, j["notes"] = o.notes;
      out += j.dump() + "\n";
    } else if (o.usage) {
      out += "usage " + o.text + "\n";
    } else if (o.failed) {
      out += "err " + std::to_string(o.code) + "\n";
    } else {
      out += "ok " + o.text;
      for (int c : o.notes) out += " w" + std::to_string(c);
      out += "\n";
    }
    if (out.size() > 1 << 16) {
      std::fwrite(out.data(), 1, out.size(), stdout);
      out.clear();
    }
    if (zcli::interrupted()) break;
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
  if (std::ferror(stdout)) return zcli::fail(kCmd, "cannot write standard output");
  return zcli::kOk;
}

int cmd_dec(int argc, char** argv) {
  zbshr_set_decimal_error_hook(&collect);
  CLI::App app{kHelp, "zbshr dec"};
  bool raw = false, batch = false, as_json = false;
  std::vector<std::string> w;
  app.add_flag("--raw", raw, "print decimals as SIGN SCALE MAGNITUDE");
  app.add_flag("--batch", batch, "read one operation a line from standard input");
  app.add_flag("--json", as_json, "with --batch: JSON lines");
  app.add_option("OPERATION", w, "the operation and its arguments");
  if (int rc = zcli::parse_args(app, kCmd, argc, argv); rc >= 0) return rc;
  if (batch) {
    if (!w.empty()) return zcli::usage_error(kCmd, "--batch takes no operation");
    return run_batch(raw, as_json);
  }
  if (as_json) return zcli::usage_error(kCmd, "--json goes with --batch");
  if (w.empty()) return zcli::usage_error(kCmd, "an operation is required");
  Outcome o = evaluate(w, raw);
  if (o.usage) return zcli::usage_error(kCmd, o.text);
  if (o.failed) {
    return zcli::fail(kCmd, "error " + std::to_string(o.code) + ": " + meaning(o.code));
  }
  for (int c : o.notes)
    std::fprintf(stderr, "zbshr dec: note %d: %s\n", c, meaning(c));
  std::printf("%s\n", o.text.c_str());
  return zcli::kOk;
}

int demo_decimal(const zcli::DemoContext& ctx) {
  zbshr_set_decimal_error_hook(&collect);
  const char* lines[][3] = {
      {"add", "1.5", "2.25"},       {"mul", "12345.67", "0.0825"}, {"div", "1", "3"},
      {"divr", "0.125", "1"},       {"mod", "10", "3"},            {"pow", "2", "0.5"},
      {"round", "-2.5", "0"},       {"div", "1", "0"},
  };
  for (auto& l : lines) {
    std::vector<std::string> w{l[0], l[1], l[2]};
    if (w[0] == "divr") w.push_back("2");
    Outcome o = evaluate(w, false);
    std::string shown = o.failed ? "error " + std::to_string(o.code) + " (" + meaning(o.code) + ")"
                                 : o.text;
    std::fprintf(ctx.out, "  %-5s %-9s %-7s%s = %s\n", l[0], l[1], l[2],
                 w.size() > 3 ? " 2" : "", shown.c_str());
  }
  return 0;
}

}  // namespace

ZBSHR_SUBCOMMAND(dec, "dec", "evaluate decimal operations", cmd_dec);
ZBSHR_DEMO_STEP(decimal, 30, "exact decimals", demo_decimal);
