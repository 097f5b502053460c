// The statement-cache subcommand ("driver sqlcache ARGS...") and demo step
// ("driver demo") linked with the dbi family alone.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.h"

namespace zcli {
namespace {
Command g_cmd{};
DemoStep g_demo{};
}  // namespace
bool register_command(const Command& c) { return g_cmd = c, true; }
bool register_demo(const DemoStep& d) { return g_demo = d, true; }
int fail(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s\n", cmd, message.c_str());
  return kFailed;
}
int usage_error(const char* cmd, const std::string& message) { return fail(cmd, message), kUsage; }
bool stderr_is_terminal() { return false; }
}  // namespace zcli

int main(int argc, char** argv) {
  zcli::DemoContext ctx{".", stdout};
  if (argc >= 2 && std::strcmp(argv[1], "demo") == 0 && zcli::g_demo.fn) return zcli::g_demo.fn(ctx);
  if (argc < 2 || !zcli::g_cmd.fn || std::strcmp(argv[1], zcli::g_cmd.name) != 0) return 2;
  return zcli::g_cmd.fn(argc - 1, argv + 1);
}
