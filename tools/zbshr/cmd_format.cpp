// Dates, display formats and the pattern matcher from the command line:
// `zbshr date` and `zbshr match`, and the demo step for the family.
#include <cerrno>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "args.h"
#include "cli.h"
#include "fileio.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

namespace {



const char* const kDateErrors[] = {"ok",
                                   "the day is wrong",
                                   "the month is wrong",
                                   "the second is wrong",
                                   "the minute is wrong",
                                   "the hour is wrong",
                                   "it is not a date or time",
                                   "the year is wrong",
                                   "the fraction of a second is wrong"};


std::string describe(const SHDATETIME& v) {
  char b[160];
  std::snprintf(b, sizeof b,
                "%04d-%02d-%02d %02d:%02d:%02d.%06u  (year %d, month %d, day %d, hour %d, "
                "minute %d, second %d, microsecond %u)",
                v.year + 1900, v.month + 1, v.day, v.hour, v.minute, v.second, v.microsecond,
                v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond);
  return b;
}

nlohmann::json record_json(const SHDATETIME& v) {
  return {{"text", describe(v).substr(0, 26)}, {"year", v.year + 1900}, {"month", v.month + 1},
          {"day", v.day}, {"hour", v.hour}, {"minute", v.minute}, {"second", v.second},
          {"microsecond", v.microsecond}};
}

// Parses a date or datetime argument; prints the error and returns false.
bool parse_arg(const char* cmd, const char* text, int32_t mode, SHDATETIME& v, int& status, int order) {
  int32_t e = zbshr_shdt_parse_order(&v, text, mode, order);
  if (e != 0) {
    status = zcli::fail(cmd, std::string("cannot read '") + text + "': " + kDateErrors[e < 9 ? e : 6]);
    return false;
  }
  if (mode == SHDT_DATE) v.hour = v.minute = v.second = 0, v.microsecond = 0;
  return true;
}

int cmd_date(int argc, char** argv) {
  const char* cmd = "date";
  CLI::App app{"Parses, compares, shifts and formats dates and times. Texts are read with\n"
               "the regional date order ([intl] iDate) unless --order is given.",
               "zbshr date"};
  app.footer("actions:\n"
             "  parse TEXT [datetime|date|time]   parse TEXT (default datetime), print the record\n"
             "  diff TEXT1 TEXT2                  days and seconds from TEXT2 to TEXT1\n"
             "  dow TEXT                          day of the week (0 = Sunday) and its name\n"
             "  add TEXT DAYS                     TEXT moved by DAYS calendar days\n"
             "  format MASK [TEXT]                TEXT (default: now) through a date/time mask\n"
             "  now                               the current local date and time\n"
             "A negative DAYS needs '--' before the arguments: zbshr date add -- 3/1/2000 -1\n"
             "Example: zbshr date format \"dddd, mmmm d yyyy\" 7/4/1998");
  std::string act, order_name;
  std::vector<std::string> rest;
  bool as_json = false;
  app.add_option("ACTION", act, "parse, diff, dow, add, format or now")->required();
  app.add_option("ARGS", rest, "the action's arguments");
  app.add_option("--order", order_name, "the date order: mdy, dmy or ymd");
  app.add_flag("--json", as_json, "one JSON document on standard output");
  if (int rc = zcli::parse_args(app, cmd, argc, argv); rc >= 0) return rc;
  int order = -1;
  if (!order_name.empty()) {
    order = order_name == "mdy" ? 0 : order_name == "dmy" ? 1 : order_name == "ymd" ? 2 : -1;
    if (order < 0) return zcli::usage_error(cmd, "unknown order '" + order_name + "' (mdy, dmy or ymd)");
  }
  std::vector<std::string> args{act};
  args.insert(args.end(), rest.begin(), rest.end());
  auto need = [&](size_t lo, size_t hi) { return args.size() - 1 >= lo && args.size() - 1 <= hi; };
  int status = zcli::kOk;
  SHDATETIME a{}, b{};
  nlohmann::json j;
  std::string text;
  if (act == "parse") {
    if (!need(1, 2)) return zcli::usage_error(cmd, "parse takes TEXT [datetime|date|time]");
    int32_t mode = SHDT_DATETIME;
    if (args.size() == 3) {
      const std::string& m = args[2];
      mode = m == "datetime" ? 1 : m == "date" ? 2 : m == "time" ? 3 : 0;
      if (mode == 0) return zcli::usage_error(cmd, "unknown mode '" + m + "' (datetime, date or time)");
    }
    std::memset(&a, 0, sizeof a);
    int32_t e = zbshr_shdt_parse_order(&a, args[1].c_str(), mode, order);
    if (e != 0)
      return zcli::fail(cmd, "cannot read '" + args[1] + "': " + kDateErrors[e < 9 ? e : 6] +
                                 " (error " + std::to_string(e) + ")");
    j = record_json(a);
    text = describe(a);
  } else if (act == "diff") {
    if (!need(2, 2)) return zcli::usage_error(cmd, "diff takes two texts");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status, order) ||
        !parse_arg(cmd, args[2].c_str(), SHDT_DATETIME, b, status, order))
      return status;
    j = {{"days", shdtDiffDate(&a, &b)}, {"seconds", shdtDiffTime(&a, &b)}};
    text = std::to_string(shdtDiffDate(&a, &b)) + " days, " + std::to_string(shdtDiffTime(&a, &b)) + " seconds";
  } else if (act == "dow") {
    if (!need(1, 1)) return zcli::usage_error(cmd, "dow takes one text");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status, order)) return status;
    char name[32];
    int32_t d = shdtDayOfWeek(&a);
    shdtDayName(d, name);
    j = {{"day", d}, {"name", name}};
    text = std::to_string(d) + " " + name;
  } else if (act == "add") {
    if (!need(2, 2)) return zcli::usage_error(cmd, "add takes TEXT DAYS");
    const std::string& n = args[2];
    char* end = nullptr;
    errno = 0;
    long long days = std::strtoll(n.c_str(), &end, 10);
    if (n.empty() || *end != '\0' || errno == ERANGE || days < INT32_MIN || days > INT32_MAX)
      return zcli::usage_error(cmd, "DAYS must be a whole number, not '" + n + "'");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status, order)) return status;
    const long long year = a.year + 1900 + days / 365;
    if (year < 0 || year > 10000)
      return zcli::fail(cmd, "the result falls outside the years 1 to 9999");
    shdtRelativeDate(&b, &a, static_cast<int32_t>(days));
    if (b.year + 1900 < 1 || b.year + 1900 > 9999 || shdtDiffDate(&b, &a) != days)
      return zcli::fail(cmd, "the result falls outside the years 1 to 9999");
    j = record_json(b);
    text = describe(b);
  } else if (act == "format") {
    if (!need(1, 2)) return zcli::usage_error(cmd, "format takes MASK [TEXT]");
    if (args.size() == 3) {
      if (!parse_arg(cmd, args[2].c_str(), SHDT_DATETIME, a, status, order)) return status;
    } else {
      shdtNow(&a);
    }
    unsigned char compiled[SHFORMAT_BUFSIZE];
    char out[600], msg[100];
    int32_t e = shformatCmplDateTimeMask(compiled, args[1].c_str(), sizeof compiled);
    if (e == 0) e = shformatDateTime(out, sizeof out, compiled, &a);
    if (e != 0) {
      shformatErrorString(e, msg, sizeof msg);
      std::string m = msg;
      if (!m.empty()) m[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(m[0])));
      return zcli::fail(cmd, "mask '" + args[1] + "': " + m);
    }
    j = {{"text", out}};
    text = out;
  } else if (act == "now") {
    if (!need(0, 0)) return zcli::usage_error(cmd, "now takes no arguments");
    shdtNow(&a);
    char d[11], t[11];
    shdtString(d, t);
    j = record_json(a);
    text = describe(a) + "\n" + d + " " + t;
  } else {
    return zcli::usage_error(cmd, "unknown action '" + act + "'");
  }
  std::printf("%s\n", as_json ? j.dump().c_str() : text.c_str());
  return status;
}

int cmd_match(int argc, char** argv) {
  const char* cmd = "match";
  CLI::App app{"Prints the number of matches of PATTERN in the text of FILE (standard input\n"
               "when absent or '-'), counted as the library's matcher counts them; NUL bytes\n"
               "separate texts that are each searched. Exit status 1 when there is none.\n"
               "Pattern syntax: c literal, . any, ^ start, $ end, [set] [^set] [a-z], x* x+ x?,\n"
               "\\c escape.",
               "zbshr match"};
  std::string pattern, file = "-";
  bool dump = false, count = false, as_json = false;
  app.add_option("PATTERN", pattern, "the pattern")->required();
  app.add_option("FILE", file, "the text ('-': standard input)");
  app.add_flag("--compiled", dump, "also print the compiled pattern's bytes in hexadecimal");
  app.add_flag("-c,--count", count, "print the count only (the default)");
  app.add_flag("--json", as_json, "one JSON document on standard output");
  if (int rc = zcli::parse_args(app, cmd, argc, argv); rc >= 0) return rc;
  // Three bytes per pattern character always suffice.
  std::vector<unsigned char> buf(pattern.size() * 3 + 8);
  int32_t e = shregExprCmpl(buf.data(), pattern.c_str(), static_cast<int32_t>(buf.size()));
  if (e != 0) {
    static const char* const kErr[] = {"it does not compile", "it is too long",
                                       "a '[' set is unterminated", "a set is longer than 255",
                                       "a set is empty", "'*', '+' or '?' has nothing to repeat"};
    return zcli::usage_error(cmd, "bad pattern '" + pattern + "': " + kErr[e > 0 && e < 6 ? e : 0]);
  }
  std::string text, error;
  if (!zcli::read_input(file, text, error)) return zcli::fail(cmd, error);
  std::string hex;
  if (dump) {
    size_t n = 0;
    while (buf[n] != 0) ++n;  // the compiled pattern ends at its only zero byte
    char b[4];
    for (size_t i = 0; i <= n; ++i) {
      std::snprintf(b, sizeof b, "%02x", buf[i]);
      hex += (i ? " " : "") + std::string(b);
    }
  }
  int64_t matches = 0;
  for (size_t pos = 0; pos <= text.size();) {
    size_t nul = text.find('\0', pos);
    if (nul == std::string::npos) nul = text.size();
    matches += shregExprMatch(text.substr(pos, nul - pos).c_str(), buf.data());
    pos = nul + 1;
  }
  if (as_json) {
    nlohmann::json j{{"pattern", pattern}, {"matches", matches}};
    if (dump) j["compiled"] = hex;
    std::printf("%s\n", j.dump().c_str());
  } else {
    if (dump) std::printf("%s\n", hex.c_str());
    std::printf("%lld\n", static_cast<long long>(matches));
  }
  return matches > 0 ? zcli::kOk : zcli::kFailed;
}

int demo_format(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  SHDATETIME d{};
  if (shdtParse(&d, "July 4, 1998 1:30 pm", SHDT_DATETIME) != 0) return 1;
  std::fprintf(out, "parsed \"July 4, 1998 1:30 pm\": %s\n", describe(d).c_str());
  SHDATETIME later{};
  shdtRelativeDate(&later, &d, 10000);
  std::fprintf(out, "10000 days later: %04d-%02d-%02d, %d days apart, weekday %d\n",
               later.year + 1900, later.month + 1, later.day, shdtDiffDate(&later, &d),
               shdtDayOfWeek(&later));

  unsigned char c[SHFORMAT_BUFSIZE];
  char text[200];
  const char* date_masks[] = {"[SHORTDATE]", "[LONGDATE]", "[SHORTDATE] [TIME]",
                              "ddd d mmm yy, h:mm am/pm"};
  for (const char* m : date_masks) {
    if (shformatCmplDateTimeMask(c, m, sizeof c) != 0) return 1;
    shformatDateTime(text, sizeof text, c, &d);
    std::fprintf(out, "  %-28s %s\n", m, text);
  }
  const double values[] = {1234567.891, -0.5, 0.0};
  const char* num_masks[] = {"[GENERAL]", "#,##0.00;(#,##0.00);\"zero\"", "0.00E+00", "[CURRENCY]"};
  for (const char* m : num_masks) {
    if (shformatCmplNumericMask(c, m, sizeof c) != 0) return 1;
    std::fprintf(out, "  %-28s", m);
    for (double v : values) {
      shformatDouble(text, sizeof text, c, &v);
      std::fprintf(out, " %-16s", text);
    }
    std::fprintf(out, "\n");
  }
  if (shformatCmplStringMask(c, "(@@@) @@@-@@@@", sizeof c) != 0) return 1;
  shformatString(text, sizeof text, c, "5551234567");
  std::fprintf(out, "  %-28s %s\n", "(@@@) @@@-@@@@", text);

  const char* patterns[] = {"ab", "[a-c]+", "^a", "x.*y"};
  const char* sample = "abcab xaby cabbage";
  for (const char* p : patterns) {
    unsigned char buf[64];
    if (shregExprCmpl(buf, p, sizeof buf) != 0) return 1;
    std::fprintf(out, "  pattern %-8s in \"%s\": %d matches\n", p, sample,
                 shregExprMatch(sample, buf));
  }
  return 0;
}

}  // namespace

ZBSHR_SUBCOMMAND(date, "date", "parse, compare, shift and format dates and times", cmd_date);
ZBSHR_SUBCOMMAND(match, "match", "count the matches of a pattern in a text", cmd_match);
ZBSHR_DEMO_STEP(format, 50, "dates, display formats and patterns", demo_format);
