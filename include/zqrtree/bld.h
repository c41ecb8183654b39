/* libzqrtree: bulk build by sort-tile-recursive packing.
 *
 * The engine creates a sorter with rtr_sort_create, fills batches made by
 * rtr_sort_bdta_crt with rtr_fill_one_row_nsort_bdta (key axis 0), puts them
 * into the sorter, sorts it, and calls rtr_blkload with a handle made by
 * rtr_mem_create_for_bld. The sorter is handed back cleared.
 *
 * Sort row, 2d + 2 columns: 0 id (type 8), 2k+1 min of axis k and 2k+2 max of
 * axis k (type 11), 2d+1 the key min + max of the key axis (type 11). */
#ifndef ZQRTREE_BLD_H
#define ZQRTREE_BLD_H

#include <stdint.h>

#include "zqhost/sort.h"
#include "zqrtree/geom.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RTR_BDTA_ROWS 1000u

int32_t rtr_sort_create(zq_env* env, zq_sort_pool* pool, zq_memobj* mem, uint16_t n_dims,
                        zq_nsort** sorter);
int32_t rtr_sort_bdta_crt(zq_env* env, zq_memobj* mem, uint16_t n_dims, zq_bdta** bdta);
void rtr_fill_one_row_nsort_bdta(zq_env* env, zq_memobj* mem, uint16_t n_dims, int64_t id,
                                 const rtr_rect* rect, uint32_t axis, zq_bdta* bdta);

/* `fill` in (0, 1]: nodes get trunc(fill * 51) entries. */
int32_t rtr_blkload(zq_env* env, zq_memobj* mem, rtr_mem* rtr, zq_nsort* sorter, uint64_t n,
                    double fill);
int32_t rtr_crt_lvl(zq_env* env, zq_memobj* mem, rtr_mem* rtr, zq_bdta* bdta_in,
                    zq_bdta* bdta_out, zq_nsort* sorter_in, int64_t n, uint32_t axis,
                    uint32_t nfill, uint32_t level, zq_nsort* sorter_up, uint64_t* n_nodes,
                    int64_t* root_id);
void rtr_build_cell_from_bdta(uint16_t n_dims, const zq_bdta* bdta, uint32_t start_row,
                              uint32_t count, rtr_cell* cells, uint32_t* filled);
int32_t rtr_bld_flush_node(zq_env* env, rtr_mem* rtr, const rtr_node* node);

#ifdef __cplusplus
}
#endif

#endif
