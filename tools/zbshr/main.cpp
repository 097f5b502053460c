// zbshr: entry point, subcommand dispatch, help, version and the demo driver.
// No exception leaves main: whatever a subcommand throws is reported as a
// failure (exit 1); SIGINT and SIGTERM make long work stop cleanly (fileio.h).
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "args.h"
#include "cli.h"
#include "fileio.h"
#include "zbshr/system.h"

#if defined(_WIN32)
#include <io.h>
#define zisatty _isatty
#define zfileno _fileno
#else
#include <unistd.h>
#define zisatty isatty
#define zfileno fileno
#endif

#ifndef ZBSHR_PROGRAM_VERSION
#define ZBSHR_PROGRAM_VERSION "unknown"
#endif

namespace zcli {
namespace {
std::vector<Command>& commands() {
  static std::vector<Command> v;
  return v;
}
std::vector<DemoStep>& demo_steps() {
  static std::vector<DemoStep> v;
  return v;
}
}  // namespace

bool register_command(const Command& c) {
  commands().push_back(c);
  return true;
}
bool register_demo(const DemoStep& d) {
  demo_steps().push_back(d);
  return true;
}
int fail(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s\n", cmd, message.c_str());
  return kFailed;
}
int usage_error(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s (try 'zbshr %s --help')\n", cmd, message.c_str(), cmd);
  return kUsage;
}
bool stderr_is_terminal() { return zisatty(zfileno(stderr)) != 0; }

namespace {

void print_help(FILE* out) {
  std::fprintf(out,
               "usage: zbshr [-q] [--version] <command> [arguments]\n"
               "\n"
               "The command-line companion of the zbshr shared services library.\n"
               "\n"
               "commands:\n"
               "  demo           run a short tour of the library on built-in sample data\n"
               "  help COMMAND   describe a command (the same as 'zbshr COMMAND --help')\n");
  auto cmds = commands();
  std::sort(cmds.begin(), cmds.end(),
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  for (const auto& c : cmds) std::fprintf(out, "  %-14s %s\n", c.name, c.summary);
  std::fprintf(out,
               "\noptions:\n"
               "  -h, --help     this help\n"
               "  -V, --version  the program's and the library's version\n"
               "  -q, --quiet    show no progress\n"
               "\nOptions may come anywhere after the command; '--' ends them, and '-' names\n"
               "standard input or output wherever a file is read or written.\n"
               "Exit status: 0 success, 1 the operation failed or found nothing,\n"
               "2 bad command line.\n");
}

int run_demo(int argc, char** argv) {
  CLI::App app{"Runs every family's demonstration on built-in sample data, writing any\n"
               "files into FOLDER (default: a new folder under the temporary folder).",
               "zbshr demo"};
  std::string dir;
  app.add_option("--dir", dir, "folder to write into");
  if (int rc = parse_args(app, "demo", argc, argv); rc >= 0) return rc;
  std::error_code ec;
  if (dir.empty()) {
    auto base = std::filesystem::temp_directory_path(ec);
    if (ec) base = ".";
    for (int n = 0; n < 1000; ++n) {
      auto cand = base / ("zbshr-demo-" + std::to_string(n));
      if (std::filesystem::create_directory(cand, ec)) {
        dir = cand.string();
        break;
      }
    }
    if (dir.empty()) return fail("demo", "cannot create a working folder");
  } else {
    std::filesystem::create_directories(dir, ec);
    if (ec) return fail("demo", "cannot create folder " + dir + ": " + ec.message());
  }
  auto steps = demo_steps();
  std::stable_sort(steps.begin(), steps.end(),
                   [](const DemoStep& a, const DemoStep& b) { return a.order < b.order; });
  std::printf("zbshr demo: working folder %s\n", dir.c_str());
  int failures = 0;
  DemoContext ctx{dir, stdout};
  for (const auto& s : steps) {
    std::printf("\n== %s ==\n", s.title);
    std::fflush(stdout);
    int rc = s.fn(ctx);
    std::fflush(stdout);
    if (rc != 0) {
      ++failures;
      std::fprintf(stderr, "zbshr demo: step '%s' failed\n", s.title);
    }
  }
  std::printf("\nzbshr demo: %zu steps, %d failed; files are in %s\n", steps.size(), failures,
              dir.c_str());
  return failures ? kFailed : kOk;
}

int dispatch(std::vector<std::string> args) {
  if (args.empty()) {
    print_help(stderr);
    return kUsage;
  }
  if (args[0] == "help") {
    if (args.size() == 1) {
      print_help(stdout);
      return kOk;
    }
    if (args.size() > 2) {
      std::fprintf(stderr, "zbshr: help takes one command (try 'zbshr --help')\n");
      return kUsage;
    }
    args = {args[1], "--help"};
  }
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(args.size());
  if (args[0] == "demo") return run_demo(argc, argv.data());
  for (const auto& c : commands())
    if (args[0] == c.name) return c.fn(argc, argv.data());
  std::fprintf(stderr, "zbshr: unknown command '%s' (try 'zbshr --help')\n", args[0].c_str());
  return kUsage;
}

int run_main(int argc, char** argv) {
  CLI::App app{"The command-line companion of the zbshr shared services library.", "zbshr"};
  app.prefix_command();
  bool quiet = false;
  app.add_flag("-q,--quiet", quiet, "show no progress");
  app.set_version_flag("-V,--version", std::string("zbshr ") + ZBSHR_PROGRAM_VERSION +
                                           " (library " + zbshr_version() + ")");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    print_help(stdout);
    return kOk;
  } catch (const CLI::CallForVersion& e) {
    std::printf("%s\n", e.what());
    return kOk;
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "zbshr: %s (try 'zbshr --help')\n", e.what());
    return kUsage;
  }
  set_quiet(quiet);
  return dispatch(app.remaining());
}

}  // namespace
}  // namespace zcli

int main(int argc, char** argv) {
  zcli::install_interrupt_handlers();
  int rc;
  try {
    rc = zcli::run_main(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "zbshr: out of memory\n");
    rc = zcli::kFailed;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zbshr: %s\n", e.what());
    rc = zcli::kFailed;
  } catch (...) {
    std::fprintf(stderr, "zbshr: unexpected failure\n");
    rc = zcli::kFailed;
  }
  if (zcli::interrupted()) {
    std::fprintf(stderr, "zbshr: interrupted\n");
    return 128 + zcli::interrupt_signal();
  }
  return rc;
}
