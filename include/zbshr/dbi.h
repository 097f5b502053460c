/* zbshr: dbi family. */
#ifndef ZBSHR_DBI_H
#define ZBSHR_DBI_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
