/* zbshr: format family. */
#ifndef ZBSHR_FORMAT_H
#define ZBSHR_FORMAT_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
