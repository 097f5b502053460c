// The zbshr command-line program: subcommands and demo steps register
// themselves from their own source files, one file per family.
//
//   static int cmd_dec(int argc, char** argv);   // argv[0] is the subcommand name
//   ZBSHR_SUBCOMMAND(dec, "dec", "evaluate decimal operations", cmd_dec);
//
//   static int demo_memory(const DemoContext& ctx);
//   ZBSHR_DEMO_STEP(memory, 10, "heaps and pools", demo_memory);
//
// Exit status: 0 success, 1 the operation failed (bad data, error from the
// library) or found nothing, 2 the command line was wrong; 130/143 after
// SIGINT/SIGTERM. A subcommand parses its arguments with parse_args() (CLI11:
// options anywhere, "--" ends them, --help), so every command behaves alike.
#pragma once

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

namespace zcli {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

using CommandFn = int (*)(int argc, char** argv);

struct DemoContext {
  std::string workdir;  // a fresh folder the demo may write into
  FILE* out;            // where to print
};
using DemoFn = int (*)(const DemoContext& ctx);

struct Command {
  const char* name;
  const char* summary;
  CommandFn fn;
};
struct DemoStep {
  int order;
  const char* title;
  DemoFn fn;
};

bool register_command(const Command& c);
bool register_demo(const DemoStep& d);

// Prints "zbshr <cmd>: <message>" on standard error and returns kFailed/kUsage.
int fail(const char* cmd, const std::string& message);
int usage_error(const char* cmd, const std::string& message);

// True when standard error is a terminal (progress may be shown there).
bool stderr_is_terminal();

// -q (to the program or the subcommand) silences progress.
inline bool g_quiet = false;
inline void set_quiet(bool quiet) { g_quiet = g_quiet || quiet; }
// True when progress may be shown: standard error is a terminal and no -q.
inline bool show_progress() { return !g_quiet && stderr_is_terminal(); }

// The signal (SIGINT, SIGTERM) that asked the program to stop, 0 if none;
// set by the handlers fileio.cpp installs. Long loops poll interrupted() and stop
// without leaving partial output.
inline volatile std::sig_atomic_t g_interrupt_signal = 0;
inline bool interrupted() { return g_interrupt_signal != 0; }
inline int interrupt_signal() { return g_interrupt_signal; }

}  // namespace zcli

#define ZBSHR_SUBCOMMAND(id, name, summary, fn) \
  static const bool zcli_cmd_registered_##id = ::zcli::register_command({name, summary, fn})
#define ZBSHR_DEMO_STEP(id, order, title, fn) \
  static const bool zcli_demo_registered_##id = ::zcli::register_demo({order, title, fn})
