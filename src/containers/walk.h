// List walks that survive changes made by their own callbacks.
#pragma once

#include <cstdint>

#include "zbshr/containers.h"

namespace zbshr::containers {

// Calls visit on each node of `list` in order, as shlist_traversal does.
// Sets *list_gone when the callback emptied, sorted or deleted the list (the
// walk then stops at once, and `list` must not be touched again).
int32_t walk_list(SHLIST* list, intptr_t param, SHLIST_VISIT visit, bool* list_gone);

}  // namespace zbshr::containers
