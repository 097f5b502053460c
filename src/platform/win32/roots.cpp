// The predefined registry roots, with the values Windows gives them (32-bit
// constants sign-extended to pointer width). Kept apart from the rest of the
// backend because the Windows headers define these names as macros.
#include <cstdint>

#include "platform/platform.h"

namespace zbshr::plat {
namespace {
HKEY root(uint32_t v) {
  return reinterpret_cast<HKEY>(static_cast<intptr_t>(static_cast<int32_t>(v)));
}
}  // namespace

HKEY const HKEY_CLASSES_ROOT = root(0x80000000u);
HKEY const HKEY_CURRENT_USER = root(0x80000001u);
HKEY const HKEY_LOCAL_MACHINE = root(0x80000002u);

}  // namespace zbshr::plat
