/* libzqrtree: scans of the engine's spatial temp table of pending changes.
 *
 * An index scan skips tree hits whose rowid has a pending delete
 * (rtr_find_spt_tmp_tab_del_data) and adds the pending inserts that match
 * its search (rtr_spt_tmp_tab_first_ins_data, then rtr_spt_tmp_tab_ins_data
 * until it returns 0 with `end` set). Rows whose record is delete-marked and
 * the boundary records are skipped. Like the tree cursor, the insert scan
 * compares the first two axes only. */
#ifndef ZQRTREE_SPT_H
#define ZQRTREE_SPT_H

#include <stdint.h>

#include "zqhost/ptx.h"
#include "zqhost/tmptab.h"
#include "zqrtree/geom.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The second B-tree of the owner's temp table `table_id`, or null. */
zq_btr* rtr_get_spt_tmp_tab_btr(zq_env* env, const zq_tmptab_owner* owner, uint32_t table_id);
/* 1 if `rowid` has a pending delete, 0 if not, or a negative code. */
int32_t rtr_find_spt_tmp_tab_del_data(zq_env* env, zq_session* session, zq_btr* btr,
                                      int64_t rowid);
/* Opens `cur` on the first live row at or after the "I" key and saves its
 * position; 0 or a negative code. The caller closes `cur`. */
int32_t rtr_spt_tmp_tab_first_ins_data(zq_env* env, zq_session* session, zq_btr* btr,
                                       pbcur* cur);
/* 1 with `*rowid` set for the next matching pending insert, else 0; `*end`
 * is 1 once the cursor ran off its last row. */
int32_t rtr_spt_tmp_tab_ins_data(pbcur* cur, const rtr_rect* query, uint16_t op, rtr_rect* rect,
                                 int64_t* rowid, uint32_t* end);
void rtr_rect_from_nrec(rtr_rect* rect, const double* data, uint32_t n_dims);

#ifdef __cplusplus
}
#endif

#endif
