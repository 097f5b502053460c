/* zbshr: every public family header. */
#ifndef ZBSHR_ZBSHR_H
#define ZBSHR_ZBSHR_H

#include "zbshr/api.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"
#include "zbshr/containers.h"
#include "zbshr/decimal.h"
#include "zbshr/format.h"
#include "zbshr/library.h"
#include "zbshr/dbi.h"
#include "zbshr/export.h"

#endif
