// zbshr_version: the version the library was built as, from the macros of
// api.h (which the build checks against the project's version).
#include "zbshr/system.h"

#define ZBSHR_STR2(x) #x
#define ZBSHR_STR(x) ZBSHR_STR2(x)

extern "C" ZBSHR_API(const char*) zbshr_version(void) {
  return ZBSHR_STR(ZBSHR_VERSION_MAJOR) "." ZBSHR_STR(ZBSHR_VERSION_MINOR) "." ZBSHR_STR(
      ZBSHR_VERSION_PATCH);
}
