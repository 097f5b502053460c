/* zbshr: memory family. */
#ifndef ZBSHR_MEMORY_H
#define ZBSHR_MEMORY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
