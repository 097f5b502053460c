/* zbshr: library family. */
#ifndef ZBSHR_LIBRARY_H
#define ZBSHR_LIBRARY_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
