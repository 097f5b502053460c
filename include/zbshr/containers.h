/* zbshr: containers family. */
#ifndef ZBSHR_CONTAINERS_H
#define ZBSHR_CONTAINERS_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

ZBSHR_END_DECLS

#endif
