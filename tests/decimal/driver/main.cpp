// A stand-alone program running the `zbshr dec` subcommand linked with the
// decimal family alone, so that the differential test does not depend on
// the rest of the tree.
#include <cstdio>
#include <string>

#include "cli.h"

namespace zcli {
namespace {
Command g_cmd{};
}
bool register_command(const Command& c) {
  g_cmd = c;
  return true;
}
bool register_demo(const DemoStep&) { return true; }
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
  if (!zcli::g_cmd.fn) return 2;
  // Called as "driver dec ARGS...": the subcommand sees "dec" as argv[0].
  if (argc < 2) return 2;
  return zcli::g_cmd.fn(argc - 1, argv + 1);
}
