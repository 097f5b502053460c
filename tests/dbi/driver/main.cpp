// A stand-alone program running the statement-cache subcommand and demo step
// linked with the dbi family alone, so that its tests do not depend on the
// rest of the tree. "driver sqlcache ARGS..." runs the subcommand,
// "driver demo" the demo step.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.h"

namespace zcli {
namespace {
Command g_cmd{};
DemoStep g_demo{};
}  // namespace
bool register_command(const Command& c) {
  g_cmd = c;
  return true;
}
bool register_demo(const DemoStep& d) {
  g_demo = d;
  return true;
}
int fail(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s\n", cmd, message.c_str());
  return kFailed;
}
int usage_error(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s\n", cmd, message.c_str());
  return kUsage;
}
bool stderr_is_terminal() { return false; }
}  // namespace zcli

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  if (std::strcmp(argv[1], "demo") == 0) {
    if (!zcli::g_demo.fn) return 2;
    zcli::DemoContext ctx{".", stdout};
    return zcli::g_demo.fn(ctx);
  }
  if (!zcli::g_cmd.fn || std::strcmp(argv[1], zcli::g_cmd.name) != 0) return 2;
  return zcli::g_cmd.fn(argc - 1, argv + 1);
}
