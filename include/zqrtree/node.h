/* libzqrtree: the in-memory node and the per-handle node cache.
 *
 * A node lives in one buffer of RTR_NODE_BUF_SIZE bytes taken from its
 * handle's pool. Tree algorithms reach nodes only through rtr_node_acquire /
 * rtr_node_new, pin them while they work, release them, and record every
 * change with rtr_node_set_modify or rtr_node_set_delete. Rows are written
 * when a dirty node is evicted, by rtr_flush_all, or at once for a node the
 * deletion takes out of the tree.
 *
 * Marks (is_new, is_deleted, is_modified, in_dirty) are only ever set while a
 * buffer holds a node; they return to 0 only when the buffer is reused. A
 * node written by rtr_flush_all and changed again is therefore not written by
 * a second flush: a handle is not reused after its flush. */
#ifndef ZQRTREE_NODE_H
#define ZQRTREE_NODE_H

#include <stdint.h>

#include "zqhost/env.h"
#include "zqrtree/geom.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RTR_ROOT_ID 1
#define RTR_MAX_CELLS 51
#define RTR_NODE_BUF_SIZE 2936
#define RTR_NODE_HASH_BUCKETS 10000u
#define RTR_NODE_HASH_SALT 0x62946a4fu

typedef struct rtr_node {
  int64_t id;                 /* rowid of the node's row; 0 until assigned; 1 = root */
  int64_t parent_id;          /* 0 for the root and for a fresh node */
  uint32_t level;             /* 0 for a leaf */
  uint32_t ref_count;         /* pins; the cache never evicts a pinned node */
  uint8_t is_new;             /* no row in the node table yet */
  uint8_t is_deleted;         /* removed from the tree */
  uint8_t is_modified;        /* changed since read (recorded, not consulted) */
  struct rtr_node* hash_next; /* next node of the same hash bucket */
  struct rtr_node* lru_prev;  /* links of the recency, deleted or free list */
  struct rtr_node* lru_next;
  struct rtr_node* dirty_next; /* links of the dirty list */
  struct rtr_node* dirty_prev;
  uint32_t in_dirty; /* 1 once put on the dirty or deleted list */
  uint32_t n_cells;  /* 0 .. RTR_MAX_CELLS */
  rtr_cell cells[RTR_MAX_CELLS];
} rtr_node;

/* --- node object --- */

/* A node from the free list, an evicted node's buffer or the pool; pinned
 * once, in no list. 0 or the discard's negative code. */
int32_t rtr_node_create(zq_env* env, rtr_mem* rtr, uint32_t level, int64_t id, rtr_node** out);
/* A new tree node: id assigned at once (never 1), cached, dirty, pinned once. */
int32_t rtr_node_new(zq_env* env, rtr_mem* rtr, int64_t parent_id, uint32_t level,
                     rtr_node** out);
/* Puts the buffer on the free list; the node must be in no other list. */
void rtr_node_destroy(rtr_mem* rtr, rtr_node* node);
void rtr_node_zero(zq_env* env, rtr_mem* rtr, rtr_node* node);
/* No bounds check. */
void rtr_node_overwrite_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                             uint32_t index);
/* 0, or RTR_ERR_NO_ROOM (pushed) when the node already holds 51 cells. */
int32_t rtr_node_insert_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell);
/* Moves the last cell into the hole; returns the new count. No checks. */
uint32_t rtr_node_delete_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, uint32_t index);
/* `*out_index` = first cell of parent naming child, else 0xFFFFFFFF; returns 0. */
int32_t rtr_node_parent_index(rtr_mem* rtr, const rtr_node* parent, const rtr_node* child,
                              uint32_t* out_index);
void rtr_node_reference(rtr_node* node);

/* --- node cache --- */

/* 0 with the node pinned once more in `*out`, or a negative code (pushed)
 * with `*out` null. Reading node 1 refreshes the handle's root_level. */
int32_t rtr_node_acquire(zq_env* env, rtr_mem* rtr, int64_t node_id, rtr_node** out);
void rtr_node_release(rtr_node* node);
void rtr_node_set_modify(zq_env* env, rtr_mem* rtr, rtr_node* node);
void rtr_node_set_delete(rtr_mem* rtr, rtr_node* node);
/* Writes one node according to its marks; the node-table layer's code. */
int32_t rtr_node_flush(zq_env* env, rtr_mem* rtr, rtr_node* node);
/* Writes back every dirty node, oldest first; 0 or the first negative code. */
int32_t rtr_flush_all(zq_env* env, rtr_mem* rtr);
/* Evicts the least recently used unpinned node: 0 with its buffer in `*out`,
 * RTR_NOTE_NOTHING when none can be evicted, or a negative code. */
int32_t rtr_node_discard(zq_env* env, rtr_mem* rtr, rtr_node** out);

uint32_t rtr_node_hash(int64_t id);
rtr_node* rtr_node_hash_lookup(rtr_mem* rtr, int64_t id);
void rtr_node_hash_insert(rtr_mem* rtr, rtr_node* node, uint32_t hash_only);
void rtr_node_hash_delete(rtr_mem* rtr, rtr_node* node);
void rtr_make_young(rtr_mem* rtr, rtr_node* node);

#ifdef __cplusplus
}
#endif

#endif
