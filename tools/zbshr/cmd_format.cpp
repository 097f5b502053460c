// Dates, display formats and the pattern matcher from the command line:
// `zbshr date` and `zbshr match`, and the demo step for the family.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "cli.h"
#include "platform/platform.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

namespace {

const char* const kDateHelp =
    "usage: zbshr date [--order mdy|dmy|ymd] ACTION ARGS...\n"
    "\n"
    "Actions:\n"
    "  parse TEXT [datetime|date|time]   parse TEXT (default datetime) and print\n"
    "                                    the record, or the parser's error number\n"
    "  diff TEXT1 TEXT2                  days and seconds from TEXT2 to TEXT1\n"
    "  dow TEXT                          day of the week (0 = Sunday) and its name\n"
    "  add TEXT DAYS                     TEXT moved by DAYS calendar days\n"
    "  format MASK [TEXT]                TEXT (default: now) through a date/time mask\n"
    "  now                               the current local date and time\n"
    "\n"
    "Texts are read with the regional date order ([intl] iDate) unless --order\n"
    "is given. Example: zbshr date format \"dddd, mmmm d yyyy\" 7/4/1998\n";

const char* const kMatchHelp =
    "usage: zbshr match [--compiled] PATTERN [FILE]\n"
    "\n"
    "Prints the number of matches of PATTERN in the text of FILE (standard input\n"
    "when absent), counted as the library's matcher counts them. --compiled also\n"
    "prints the compiled pattern's bytes in hexadecimal.\n"
    "Pattern syntax: c literal, . any, ^ start, $ end, [set] [^set] [a-z], x* x+ x?,\n"
    "\\c escape.\n";

const char* const kDateErrors[] = {"ok",          "invalid day",    "invalid month",
                                   "invalid second", "invalid minute", "invalid hour",
                                   "invalid text",   "invalid year",   "invalid fraction"};

std::string describe(const SHDATETIME& v) {
  char b[160];
  std::snprintf(b, sizeof b,
                "%04d-%02d-%02d %02d:%02d:%02d.%06u  (year %d, month %d, day %d, hour %d, "
                "minute %d, second %d, microsecond %u)",
                v.year + 1900, v.month + 1, v.day, v.hour, v.minute, v.second, v.microsecond,
                v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond);
  return b;
}

// Parses a date or datetime argument; prints the error and returns false.
bool parse_arg(const char* cmd, const char* text, int32_t mode, SHDATETIME& v, int& status) {
  int32_t e = shdtParse(&v, text, mode);
  if (e != 0) {
    status = zcli::fail(cmd, std::string("cannot read '") + text + "': error " +
                                 std::to_string(e) + " (" + kDateErrors[e] + ")");
    return false;
  }
  if (mode == SHDT_DATE) v.hour = v.minute = v.second = 0, v.microsecond = 0;
  return true;
}

void set_env(const char* name, const char* value) {
#ifdef _WIN32
  _putenv_s(name, value ? value : "");
#else
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
#endif
}

// Makes the library read the date order from a private profile folder.
struct OrderOverride {
  std::string dir;
  std::string old_home;
  bool had_home = false;
  ~OrderOverride() {
    if (dir.empty()) return;
    set_env("ZBSHR_HOME", had_home ? old_home.c_str() : nullptr);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    zbshr_intl();
  }
  bool apply(int order) {
    std::error_code ec;
    auto base = std::filesystem::temp_directory_path(ec);
    if (ec) return false;
    for (int n = 0; n < 1000 && dir.empty(); ++n) {
      auto cand = base / ("zbshr-date-" + std::to_string(std::rand()) + "-" + std::to_string(n));
      if (std::filesystem::create_directory(cand, ec)) dir = cand.string();
    }
    if (dir.empty()) return false;
    // A copy of the user's system profile with the order changed, so that
    // the other regional settings stay as they are.
    const std::string ini = dir + "/win.ini";
    std::filesystem::copy_file(zbshr::plat::ConfigDir() + "/win.ini", ini, ec);
    const std::string value = std::to_string(order);
    zbshr::plat::WritePrivateProfileStringA("intl", "iDate", value.c_str(), ini.c_str());
    if (const char* h = std::getenv("ZBSHR_HOME")) {
      had_home = true;
      old_home = h;
    }
    set_env("ZBSHR_HOME", dir.c_str());
    zbshr_intl();
    return true;
  }
};

int cmd_date(int argc, char** argv) {
  const char* cmd = "date";
  std::vector<std::string> args;
  int order = -1;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kDateHelp, stdout);
      return zcli::kOk;
    }
    if (a == "--order") {
      if (i + 1 >= argc) return zcli::usage_error(cmd, "--order needs mdy, dmy or ymd");
      std::string o = argv[++i];
      order = o == "mdy" ? 0 : o == "dmy" ? 1 : o == "ymd" ? 2 : -1;
      if (order < 0) return zcli::usage_error(cmd, "unknown order '" + o + "'");
      continue;
    }
    args.push_back(a);
  }
  if (args.empty()) return zcli::usage_error(cmd, "an action is required");
  OrderOverride override_order;
  if (order >= 0 && !override_order.apply(order))
    return zcli::fail(cmd, "cannot set up the date order");

  const std::string act = args[0];
  auto need = [&](size_t lo, size_t hi) { return args.size() - 1 >= lo && args.size() - 1 <= hi; };
  int status = zcli::kOk;
  SHDATETIME a{}, b{};
  if (act == "parse") {
    if (!need(1, 2)) return zcli::usage_error(cmd, "parse takes TEXT [datetime|date|time]");
    int32_t mode = SHDT_DATETIME;
    if (args.size() == 3) {
      const std::string& m = args[2];
      mode = m == "datetime" ? 1 : m == "date" ? 2 : m == "time" ? 3 : 0;
      if (mode == 0) return zcli::usage_error(cmd, "unknown mode '" + m + "'");
    }
    std::memset(&a, 0, sizeof a);
    int32_t e = shdtParse(&a, args[1].c_str(), mode);
    if (e != 0) {
      std::printf("error %d (%s)\n", e, kDateErrors[e]);
      return zcli::kFailed;
    }
    std::printf("%s\n", describe(a).c_str());
  } else if (act == "diff") {
    if (!need(2, 2)) return zcli::usage_error(cmd, "diff takes two texts");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status) ||
        !parse_arg(cmd, args[2].c_str(), SHDT_DATETIME, b, status))
      return status;
    std::printf("%d days, %d seconds\n", shdtDiffDate(&a, &b), shdtDiffTime(&a, &b));
  } else if (act == "dow") {
    if (!need(1, 1)) return zcli::usage_error(cmd, "dow takes one text");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status)) return status;
    char name[32];
    int32_t d = shdtDayOfWeek(&a);
    shdtDayName(d, name);
    std::printf("%d %s\n", d, name);
  } else if (act == "add") {
    if (!need(2, 2)) return zcli::usage_error(cmd, "add takes TEXT DAYS");
    char* end = nullptr;
    long days = std::strtol(args[2].c_str(), &end, 10);
    if (*end != '\0' || days < INT32_MIN || days > INT32_MAX)
      return zcli::usage_error(cmd, "DAYS must be a whole number");
    if (!parse_arg(cmd, args[1].c_str(), SHDT_DATETIME, a, status)) return status;
    shdtRelativeDate(&b, &a, static_cast<int32_t>(days));
    std::printf("%s\n", describe(b).c_str());
  } else if (act == "format") {
    if (!need(1, 2)) return zcli::usage_error(cmd, "format takes MASK [TEXT]");
    if (args.size() == 3) {
      if (!parse_arg(cmd, args[2].c_str(), SHDT_DATETIME, a, status)) return status;
    } else {
      shdtNow(&a);
    }
    unsigned char compiled[SHFORMAT_BUFSIZE];
    char out[600], msg[100];
    int32_t e = shformatCmplDateTimeMask(compiled, args[1].c_str(), sizeof compiled);
    if (e == 0) e = shformatDateTime(out, sizeof out, compiled, &a);
    if (e != 0) {
      shformatErrorString(e, msg, sizeof msg);
      return zcli::fail(cmd, msg);
    }
    std::printf("%s\n", out);
  } else if (act == "now") {
    if (!need(0, 0)) return zcli::usage_error(cmd, "now takes no arguments");
    shdtNow(&a);
    char d[11], t[11];
    shdtString(d, t);
    std::printf("%s\n%s %s\n", describe(a).c_str(), d, t);
  } else {
    return zcli::usage_error(cmd, "unknown action '" + act + "'");
  }
  return status;
}

int cmd_match(int argc, char** argv) {
  const char* cmd = "match";
  bool dump = false;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kMatchHelp, stdout);
      return zcli::kOk;
    }
    if (a == "--compiled") {
      dump = true;
      continue;
    }
    args.push_back(a);
  }
  if (args.empty() || args.size() > 2) return zcli::usage_error(cmd, "PATTERN [FILE] expected");
  // Three bytes per pattern character always suffice.
  std::vector<unsigned char> buf(args[0].size() * 3 + 8);
  int32_t e = shregExprCmpl(buf.data(), args[0].c_str(), static_cast<int32_t>(buf.size()));
  if (e != 0) {
    static const char* const kErr[] = {"", "buffer too small", "'[' without ']'",
                                       "set longer than 255", "empty set",
                                       "'*', '+' or '?' with nothing to repeat"};
    return zcli::fail(cmd, "cannot compile '" + args[0] + "': error " + std::to_string(e) + " (" +
                               kErr[e < 6 ? e : 0] + ")");
  }
  if (dump) {
    size_t n = 0;
    while (buf[n] != 0) ++n;  // the compiled pattern ends at its only zero byte
    for (size_t i = 0; i <= n; ++i) std::printf("%s%02x", i ? " " : "", buf[i]);
    std::printf("\n");
  }
  std::string text;
  if (args.size() == 2) {
    std::ifstream f(args[1], std::ios::binary);
    if (!f) return zcli::fail(cmd, "cannot open " + args[1]);
    text.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  } else {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::printf("%d\n", shregExprMatch(text.c_str(), buf.data()));
  return zcli::kOk;
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
