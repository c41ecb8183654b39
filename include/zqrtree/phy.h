/* libzqrtree: the node row, its cells blob, and node-table access.
 *
 * Node row (one per node; the node id is the row's rowid):
 *
 *   column 0       32-bit int   level (0 = leaf)
 *   column 1       64-bit int   parent_id
 *   column 2       binary       cells blob, at most 32767 bytes
 *   3 .. n-3       (engine)     neither written nor read
 *   column n-2     system       written as zero
 *   column n-1     rowid        the node id
 *
 * Cells blob, native byte order (little-endian on x86-64), no padding, with
 * d = the index's dimension count and E = (2d + 1) * 8 bytes per entry:
 *
 *   offset 0              u32         n, the number of entries
 *   offset 4 + i*E        i64         entry i: id (child node id / rowid)
 *   offset 12 + i*E       d doubles   entry i: min of axis 0 .. d-1
 *   offset 12 + i*E + 8d  d doubles   entry i: max of axis 0 .. d-1
 *
 * The blob is exactly 4 + n*E bytes. A 3-D index reads 2-D rows (length
 * 4 + n*40) as well; whenever entries are read as 2-D their third axis
 * becomes (-inf, +inf).
 *
 * Node-table operations each run in their own mini-transaction with their own
 * scratch memory, and end it on every path. */
#ifndef ZQRTREE_PHY_H
#define ZQRTREE_PHY_H

#include <stdint.h>

#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RTR_BLOB_MAX 32767u
#define RTR_COL_LEVEL 0u
#define RTR_COL_PARENT 1u
#define RTR_COL_CELLS 2u

/* --- record format --- */
int32_t rtr_cells_pack(zq_env* env, uint16_t d, const rtr_node* node, uint8_t* buf,
                       uint32_t* out_len);
int32_t rtr_node_pack(zq_env* env, zq_memobj* heap, rtr_mem* rtr, const rtr_node* node,
                      zq_row* row);
int32_t rtr_node_unpack(zq_env* env, rtr_mem* rtr, const zq_nrec* rec, int64_t* out_id,
                        uint32_t* out_level, int64_t* out_parent, uint8_t* buf,
                        uint32_t* out_len);
int32_t rtr_cells_unpack(uint16_t d, rtr_node* node, const uint8_t* blob, uint32_t blob_len);
int32_t rtr_node_create_ex(zq_env* env, rtr_mem* rtr, int64_t id, uint32_t level,
                           int64_t parent, const uint8_t* blob, uint32_t blob_len,
                           rtr_node** out_node);

/* --- node table access --- */
/* A new, uncached node from the row of `node_id`: -3269 when node 1's row is
 * missing, -7065 for any other missing or invisible row. */
int32_t rtr_phy_read_node(zq_env* env, rtr_mem* rtr, int64_t node_id, rtr_node** out_node);
int32_t rtr_phy_insert_node(zq_env* env, rtr_mem* rtr, const rtr_node* node);
int32_t rtr_phy_delete_node(zq_env* env, rtr_mem* rtr, const int64_t* node_id);
/* RTR_NOTE_NOTHING when the row already holds these values. */
int32_t rtr_phy_modify_node(zq_env* env, rtr_mem* rtr, const rtr_node* node);
int32_t rtr_phy_update_node(zq_memobj* heap, rtr_mem* rtr, zq_ptx* ptx, nbtr_cur* cur,
                            zq_key* key, zq_row* new_row, zq_row* stored_row);
int32_t rtr_phy_update_node_fixed(zq_memobj* heap, rtr_mem* rtr, zq_ptx* ptx, nbtr_cur* cur,
                                  zq_key* key, zq_fillinfo* new_values,
                                  zq_fillinfo* old_values);
int32_t rtr_phy_update_node_unfixed(zq_memobj* heap, rtr_mem* rtr, zq_ptx* ptx, nbtr_cur* cur,
                                    zq_key* key, zq_row* new_row, zq_fillinfo* old_values);
zq_fillinfo* rtr_phy_fillinfo_from_value(zq_env* env, zq_memobj* heap,
                                         const zq_recdesc* table_desc, const zq_row* row,
                                         uint16_t count, const uint16_t* columns);
/* Never 1. */
int64_t rtr_phy_get_next_node_id(zq_env* env, rtr_mem* rtr, int32_t* code);

/* --- root and parent maintenance --- */
/* Moves the row of `node_id` to rowid 1 and points its children at 1;
 * RTR_NOTE_NOTHING when node_id is already 1. */
int32_t rtr_phy_set_root(zq_env* env, rtr_mem* rtr, int64_t node_id);
int32_t rtr_phy_update_parent(zq_env* env, rtr_mem* rtr, const rtr_node* node,
                              int64_t new_parent_id);

#ifdef __cplusplus
}
#endif

#endif
