/* libzqrtree: the engine's callback table and the node-buffer counter.
 *
 * The engine calls rtr_hook_init once, before it creates the first handle,
 * with its twelve callbacks; the table is only read afterwards. */
#ifndef ZQRTREE_HOOK_H
#define ZQRTREE_HOOK_H

#include <stdint.h>

#include "zqhost/hooks.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rtr_hook {
  zq_get_row_tag_fn get_row_tag;                           /* 0 */
  zq_rec_is_visible_fn rec_is_visible;                     /* 1 */
  zq_rec_read_visible_version_fn rec_read_visible_version; /* 2 */
  zq_row_delete_fn row_delete;                             /* 3 */
  zq_row_insert_fn row_insert;                             /* 4 */
  zq_row_update_fixed_fn row_update_fixed;                 /* 5 */
  zq_row_update_unfixed_fn row_update_unfixed;             /* 6 */
  zq_unused_hook_fn slot7;                                 /* stored, never called */
  zq_unused_hook_fn slot8;                                 /* stored, never called */
  zq_unused_hook_fn slot9;                                 /* stored, never called */
  zq_row_insert_failed_fn row_insert_failed;               /* 10 */
  zq_unused_hook_fn slot11;                                /* stored, never called */
} rtr_hook;

/* Zero until rtr_hook_init fills it. */
extern rtr_hook rtr_global_hook;
/* Megabytes of node buffer reserved by all open handles; changed only through
 * os_interlock_add. */
extern volatile uint32_t g_rtr_buf_total_size;

/* Stores the twelve pointers in slot order, checking nothing; returns the
 * table. */
rtr_hook* rtr_hook_init(zq_get_row_tag_fn h0, zq_rec_is_visible_fn h1,
                        zq_rec_read_visible_version_fn h2, zq_row_delete_fn h3,
                        zq_row_insert_fn h4, zq_row_update_fixed_fn h5,
                        zq_row_update_unfixed_fn h6, zq_unused_hook_fn h7, zq_unused_hook_fn h8,
                        zq_unused_hook_fn h9, zq_row_insert_failed_fn h10,
                        zq_unused_hook_fn h11);
rtr_hook* rtr_global_hook_get(void);

#ifdef __cplusplus
}
#endif

#endif
