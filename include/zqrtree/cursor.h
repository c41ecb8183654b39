/* libzqrtree: the depth-first search cursor.
 *
 * Calling order: rcur_init, rcur_open; then while !rcur_is_end read the hit
 * with rcur_rowid_ex or rcur_column and advance with rcur_next. The stack of
 * search points lives in the record, so a scan allocates nothing, and between
 * calls the cursor holds no pin (except the leaf rcur_rowid_ex hands out).
 * Every node test compares the first two axes only, whatever the index's
 * dimension count. */
#ifndef ZQRTREE_CURSOR_H
#define ZQRTREE_CURSOR_H

#include <stdint.h>

#include "zqhost/env.h"
#include "zqrtree/geom.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RCUR_STACK_SIZE 41
#define RCUR_EMPTY 0xFFFFFFFFu

typedef struct rcur_spnt {
  int64_t node_id;    /* node to scan, or the leaf of a result point */
  uint8_t level_mark; /* node level + 1; 0 marks a result point */
  uint8_t cell_no;    /* next cell to test; in a result point, the hit */
} rcur_spnt;

typedef struct rcur {
  rtr_mem* rtr;
  uint16_t op;          /* operator bits */
  rtr_rect rect;        /* search box */
  uint32_t is_end;      /* 1 once exhausted */
  uint32_t first_valid; /* `first` holds the top point */
  rcur_spnt first;
  uint32_t top; /* top entry of `stack`; RCUR_EMPTY when none */
  rcur_spnt stack[RCUR_STACK_SIZE];
} rcur;

int32_t rcur_init(rcur* cur, rtr_mem* rtr, uint32_t op);
int32_t rcur_open(zq_env* env, rcur* cur, const rtr_rect* rect);
uint32_t rcur_is_end(const rcur* cur);
int32_t rcur_next(zq_env* env, rcur* cur);
/* The hit's rowid, its leaf (pinned: the caller releases it) and cell index. */
int32_t rcur_rowid_ex(zq_env* env, rcur* cur, int64_t* rowid, rtr_node** node,
                      uint8_t* cell_no);
/* The hit's whole leaf cell. */
int32_t rcur_column(zq_env* env, rcur* cur, rtr_cell* cell);

rcur_spnt* rcur_spnt_first(rcur* cur);
rcur_spnt* rcur_spnt_new(rcur* cur, uint8_t level_mark);
rcur_spnt* rcur_enqueue(rcur* cur, uint8_t level_mark);
void rcur_spnt_pop(rcur* cur);
rtr_node* rtr_node_of_first_spnt(zq_env* env, rcur* cur, int32_t* status);
rtr_rect_cmp_fn rtr_get_rect_cmp_fun(uint32_t level);
int32_t rcur_step_to_leaf(zq_env* env, rcur* cur);

/* --- debug print --- */

/* Prints the subtree of `node_id` to standard output (`stream` is ignored);
 * every node visited stays pinned for the handle's life. Returns 0. */
int32_t rtr_print(zq_env* env, void* stream, int64_t node_id, uint32_t depth, rtr_mem* rtr);
/* 2 * depth spaces, at most 148. */
const char* rtr_get_space(uint32_t depth);

#ifdef __cplusplus
}
#endif

#endif
