// Library start-up and shut-down: what loading and unloading the library does.
//
// On Windows the loader calls DllMain; on POSIX a load-time constructor and an
// unload-time destructor of the shared library play its part. A program that
// links the static archive may not keep the constructor's object file, so the
// readers of the module state (settings and names) call ensure_started(),
// which runs the attach steps on first use.
#include <atomic>

#include "memory/intl.h"
#include "platform/platform.h"
#include "zbshr/memory.h"

namespace zbshr::intl {
namespace {

// Resource type and id of the executable stub written out when an
// executable is built.
constexpr plat::UINT kStubType = 256;
constexpr plat::UINT kStubId = 305;

std::atomic<bool> g_attached{false};
plat::HINSTANCE g_instance = nullptr;
uint32_t g_stub_size = 0;
bool g_new_shell = false;

bool process_attach(plat::HINSTANCE inst) {
  bool expected = false;
  if (!g_attached.compare_exchange_strong(expected, true)) return true;
  try {
    g_instance = inst;

    // The image-browser window class ("SHIMAGEBROWSER050") belongs to the
    // user-interface families, which have no window system to register with
    // here: registration is a no-op.

    zbshr_intl();

    plat::DWORD size = 0;
    plat::load_resource_data(inst, kStubType, kStubId, &size);
    g_stub_size = size;

    // The masked-edit ("ZBEDIT050") and spin ("spin") classes are likewise
    // not registered: there is nothing to fail.

    // Common-control layer: only the instance and the shell flag are kept.
    plat::DWORD version = plat::GetVersion();
    g_new_shell = (version & 0xFFu) >= 4;
    return true;
  } catch (...) {
    return false;
  }
}

void process_detach() {
  // Nothing was registered and no auxiliary library is loaded on demand in
  // this build, so there is nothing to undo.
}

}  // namespace

void ensure_started() {
  if (g_attached.load(std::memory_order_acquire)) return;
  process_attach(plat::module_instance());
}

// Entry points for the loader hooks below.
bool process_attach_entry(void* instance) {
  return process_attach(static_cast<plat::HINSTANCE>(instance));
}
void process_detach_entry() { process_detach(); }

void* module_instance() { return g_instance; }
uint32_t stub_size() {
  ensure_started();
  return g_stub_size;
}
bool new_shell() {
  ensure_started();
  return g_new_shell;
}

}  // namespace zbshr::intl

#if defined(_WIN32)
#if !defined(ZBSHR_STATIC)
// The loader's entry point of the dynamic library.
extern "C" int __stdcall DllMain(void* instance, uint32_t reason, void* reserved) {
  constexpr uint32_t kProcessDetach = 0, kProcessAttach = 1;
  if (reason == kProcessAttach) return zbshr::intl::process_attach_entry(instance) ? 1 : 0;
  if (reason == kProcessDetach) zbshr::intl::process_detach_entry();
  return 1;  // thread attach and detach need nothing
}
#endif
#else
namespace {
__attribute__((constructor)) void zbshr_on_load() {
  zbshr::intl::ensure_started();
}
__attribute__((destructor)) void zbshr_on_unload() {
  zbshr::intl::process_detach_entry();
}
}  // namespace
#endif
