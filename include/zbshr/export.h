/* zbshr: export family. */
#ifndef ZBSHR_EXPORT_H
#define ZBSHR_EXPORT_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
