/* zbshr: decimal family. */
#ifndef ZBSHR_DECIMAL_H
#define ZBSHR_DECIMAL_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
