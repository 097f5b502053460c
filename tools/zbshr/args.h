// One argument layer for every subcommand: CLI11 (options anywhere, "--" ends
// them, --help), the same messages and exit statuses everywhere.
#pragma once

#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdio>
#include <string>

#include "cli.h"

namespace zcli {

// Parses a subcommand's arguments (argv[0] is its name). Returns -1 to go on,
// or the exit status to return: 0 after printing the help on standard output,
// 2 after printing the error and one hint on standard error. Adds -q/--quiet
// unless the command has an option of that name.
inline int parse_args(CLI::App& app, const char* cmd, int argc, char** argv) {
  bool quiet = false;
  app.get_formatter()->label("Usage", "usage");
  if (app.get_option_no_throw("-q") == nullptr && app.get_option_no_throw("--quiet") == nullptr)
    app.add_flag("-q,--quiet", quiet, "show no progress");
  // "/name" is a path, not an option, on every system (CLI11 takes it for an
  // option on Windows unless told otherwise).
  auto posix_style = [](CLI::App* a, auto& self) -> void {
    a->allow_windows_style_options(false);
    for (CLI::App* sub : a->get_subcommands({})) self(sub, self);
  };
  posix_style(&app, posix_style);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return kOk;
  } catch (const CLI::ParseError& e) {
    std::string what = e.what();
    // Messages are lower-case, but a name such as PATTERN keeps its case.
    if (what.size() > 1 && std::islower(static_cast<unsigned char>(what[1])))
      what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
    return usage_error(cmd, what);
  }
  set_quiet(quiet);
  return -1;
}

}  // namespace zcli
