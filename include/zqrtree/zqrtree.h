/* libzqrtree: everything a database engine sees of the library.
 *
 * Conventions, once for all functions:
 *  - every function is extern "C" over standard-layout records;
 *  - the first argument `env` is the engine environment, passed on to every
 *    engine call and to zqerr_stk_push;
 *  - failures return a negative code pushed once per level (errors.h);
 *  - the library allocates only from engine memory objects and holds no
 *    state besides the callback table and g_rtr_buf_total_size. */
#ifndef ZQRTREE_ZQRTREE_H
#define ZQRTREE_ZQRTREE_H

#include "zqrtree/bld.h"
#include "zqrtree/cursor.h"
#include "zqrtree/errors.h"
#include "zqrtree/geom.h"
#include "zqrtree/hook.h"
#include "zqrtree/mem.h"
#include "zqrtree/nearest.h"
#include "zqrtree/node.h"
#include "zqrtree/phy.h"
#include "zqrtree/spt.h"
#include "zqrtree/tree.h"

#endif
