// The loader's entry point of the Windows DLL. It is compiled into the DLL
// only: the static archives and the programs that link them carry no
// DllMain, and start the library on first use instead.
#include <cstdint>

namespace zbshr::intl {
bool process_attach_entry(void* instance);
void process_detach_entry();
}  // namespace zbshr::intl

extern "C" int __stdcall DllMain(void* instance, uint32_t reason, void* /*reserved*/) {
  constexpr uint32_t kProcessDetach = 0, kProcessAttach = 1;
  if (reason == kProcessAttach) return zbshr::intl::process_attach_entry(instance) ? 1 : 0;
  if (reason == kProcessDetach) zbshr::intl::process_detach_entry();
  return 1;  // thread attach and detach need nothing
}
