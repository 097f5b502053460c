// The C entry points of the fault-injection switch. They are compiled into the
// platform family's archive that the test programs link (CMake option
// ZBSHR_FAULT_INJECTION), never into the shared library or libzbshr.a that are
// installed, so the switch is not part of the production interface.
#include "platform/platform.h"
#include "zbshr/system.h"

extern "C" {

ZBSHR_API(int32_t) zbshr_inject_fault(int32_t service, int32_t nth, int32_t count) {
  using zbshr::plat::Fault;
  if (service < 0 || service > static_cast<int32_t>(Fault::Open)) return 0;
  zbshr::plat::inject_fault(static_cast<Fault>(service), nth, count);
  return 1;
}

ZBSHR_API(void) zbshr_clear_faults(void) { zbshr::plat::clear_faults(); }

}  // extern "C"
