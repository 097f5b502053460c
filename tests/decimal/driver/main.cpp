// The `zbshr dec` subcommand linked with the decimal family alone, so that
// the differential test does not depend on the rest of the tree.
#include <cstdio>
#include <string>

#include "cli.h"

namespace zcli {
static Command g_cmd{};
bool register_command(const Command& c) { return g_cmd = c, true; }
bool register_demo(const DemoStep&) { return true; }
int fail(const char* cmd, const std::string& message) {
  std::fprintf(stderr, "zbshr %s: %s\n", cmd, message.c_str());
  return kFailed;
}
int usage_error(const char* cmd, const std::string& message) { return fail(cmd, message), kUsage; }
bool stderr_is_terminal() { return false; }
}  // namespace zcli

// Called as "driver dec ARGS...": the subcommand sees "dec" as argv[0].
int main(int argc, char** argv) { return zcli::g_cmd.fn && argc >= 2 ? zcli::g_cmd.fn(argc - 1, argv + 1) : 2; }
