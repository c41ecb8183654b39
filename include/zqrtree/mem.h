/* libzqrtree: the R-tree handle.
 *
 * One handle per use of an index: rtr_mem_create (reading or writing mode)
 * or rtr_mem_create_for_bld (bulk build) -> any number of operations ->
 * rtr_flush_all when the changes are to be kept -> rtr_mem_destroy, which
 * frees everything and writes nothing. */
#ifndef ZQRTREE_MEM_H
#define ZQRTREE_MEM_H

#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/mem.h"
#include "zqrtree/node.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RTR_NODE_TABLE_PREFIX "MDRT$"
#define RTR_POOL_NAME "RTREE_CREATE_POOL"
#define RTR_POOL_SIZE 0x100000u

struct rtr_mem {
  zq_memobj* pool;         /* "RTREE_CREATE_POOL": every node buffer */
  uint32_t buf_quota;      /* megabytes reserved from g_rtr_buf_total_size */
  uint32_t max_nodes;      /* cache budget in node buffers */
  uint16_t n_dims;         /* 1 .. 3 */
  uint32_t root_level;     /* level of node 1, refreshed whenever it is read */
  uint32_t reinsert_level; /* forced-reinsertion mark of the current insertion */
  zq_session* session;     /* not owned */
  zq_table* node_table;    /* "MDRT$" + index name; not owned */
  zq_index* node_index;    /* the node table's first valid real index */
  zq_btr* btr;             /* its B-tree: rowids are node ids */
  uint16_t row_tag;        /* from hook slot 0, handed back to the row hooks */
  uint32_t for_bld;        /* 1 for a bulk-build handle */
  uint32_t read_mode;      /* nonzero: invisible rows are read in their visible version */
  zq_hash* node_hash;      /* 10000 buckets; null for a bulk-build handle */
  uint32_t n_cached;       /* recency list: most recent at lru_first */
  rtr_node* lru_first;
  rtr_node* lru_last;
  uint32_t n_free; /* free buffers, a stack at free_first */
  rtr_node* free_last;
  rtr_node* free_first;
  uint32_t n_dirty; /* nodes to write back: newest at dirty_first */
  rtr_node* dirty_last;
  rtr_node* dirty_first;
  uint32_t n_deleted; /* nodes removed from the tree: newest at deleted_first */
  rtr_node* deleted_first;
  rtr_node* deleted_last;
};

int32_t rtr_mem_create(zq_env* env, zq_session* session, uint16_t n_dims, zq_scope* scope,
                       const zq_index* index, uint32_t read_mode, rtr_mem** out);
int32_t rtr_mem_create_for_bld(zq_env* env, zq_session* session, uint16_t n_dims,
                               zq_scope* scope, const zq_index* index, rtr_mem** out);
/* Pool failure: RTR_ERR_NO_ROOM, nothing pushed, handle memory not freed.
 * Dictionary failure: its code pushed, pool destroyed, `*out` untouched. */
int32_t rtr_mem_create_low(zq_env* env, zq_session* session, uint16_t n_dims, zq_scope* scope,
                           const zq_index* index, uint32_t for_bld, uint32_t read_mode,
                           rtr_mem** out);
void rtr_mem_destroy(zq_env* env, rtr_mem* rtr);

#ifdef __cplusplus
}
#endif

#endif
