// zbshr: entry point, subcommand dispatch, --help and the demo driver.
#include "cli.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <io.h>
#define zisatty _isatty
#define zfileno _fileno
#else
#include <unistd.h>
#define zisatty isatty
#define zfileno fileno
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
               "usage: zbshr <command> [arguments]\n"
               "\n"
               "The command-line companion of the zbshr shared services library.\n"
               "\n"
               "commands:\n"
               "  demo           run a short tour of the library on built-in sample data\n");
  auto cmds = commands();
  std::sort(cmds.begin(), cmds.end(),
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  for (const auto& c : cmds) std::fprintf(out, "  %-14s %s\n", c.name, c.summary);
  std::fprintf(out,
               "\n'zbshr <command> --help' describes a command.\n"
               "Exit status: 0 success, 1 the operation failed, 2 bad command line.\n");
}

int run_demo(int argc, char** argv) {
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::printf("usage: zbshr demo [--dir FOLDER]\n\n"
                  "Runs every family's demonstration on built-in sample data, writing any\n"
                  "files into FOLDER (default: a new folder under the temporary folder).\n");
      return kOk;
    } else if (a == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else {
      return usage_error("demo", "unexpected argument '" + a + "'");
    }
  }
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

}  // namespace
}  // namespace zcli

int main(int argc, char** argv) {
  using namespace zcli;
  if (argc < 2) {
    print_help(stderr);
    return kUsage;
  }
  std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    print_help(stdout);
    return kOk;
  }
  if (cmd == "--version") {
    std::printf("zbshr 5.0.0\n");
    return kOk;
  }
  if (cmd == "demo") return run_demo(argc - 1, argv + 1);
  for (const auto& c : commands())
    if (cmd == c.name) return c.fn(argc - 1, argv + 1);
  std::fprintf(stderr, "zbshr: unknown command '%s' (try 'zbshr --help')\n", cmd.c_str());
  return kUsage;
}
