/* Engine interface: temporary tables of pending spatial changes.
 *
 * An owner (a statement or transaction of the engine) keeps a chain of its
 * temporary tables. The spatial temp table's second B-tree is its index on
 * (flag, rowid), whose records hold field 0 the flag "D" or "I", field 1 the
 * rowid and field 2 the box as six doubles (three minima, three maxima). */
#ifndef ZQHOST_TMPTAB_H
#define ZQHOST_TMPTAB_H

#include <stdint.h>

#include "zqhost/dict.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zq_tmptab {
  uint32_t id;             /* the table's id within its owner */
  zq_btr* btr;             /* the table's rows */
  zq_btr* btr2;            /* its index on (flag, rowid) */
  struct zq_tmptab* next;  /* next entry of the owner's chain */
} zq_tmptab;

typedef struct zq_tmptab_owner {
  zq_tmptab* first; /* head of the chain */
} zq_tmptab_owner;

#ifdef __cplusplus
}
#endif

#endif
