/* libzqrtree: tree maintenance — insertion, split, forced reinsertion and
 * deletion. All nodes are reached through the node cache; nothing is written
 * to the node table here except the row of a node removed by deletion. */
#ifndef ZQRTREE_TREE_H
#define ZQRTREE_TREE_H

#include <stdint.h>

#include "zqhost/env.h"
#include "zqrtree/geom.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- insertion --- */
int32_t rtr_insert(zq_env* env, rtr_mem* rtr, const rtr_cell* cell);
/* Descends by least enlargement to `level`; the result stays pinned. */
int32_t rtr_choose_leaf(zq_env* env, rtr_mem* rtr, const rtr_cell* cell, uint32_t level,
                        rtr_node** out);
int32_t rtr_insert_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                        uint32_t level);
/* Widens the ancestors' boxes; leaves the root pinned on purpose. */
int32_t rtr_adjust_tree(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell);
int32_t rtr_fix_bounding_box(zq_env* env, rtr_mem* rtr, rtr_node* node);
int32_t rtr_update_parent(zq_env* env, rtr_mem* rtr, int64_t child_id, rtr_node* parent,
                          uint32_t level);

/* --- split --- */
int32_t rtr_split_node(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                       uint32_t level);
int32_t rtr_split_node_star_tree(zq_env* env, rtr_mem* rtr, const rtr_cell* cells, uint32_t n,
                                 rtr_node* left, rtr_node* right, rtr_cell* left_cell,
                                 rtr_cell* right_cell);
/* Top-down merge sort of entry indices by min then max on `axis`; `tmp`
 * holds at least n / 2 indices. Not stable, on purpose. */
void rtr_sort_by_dimension(const rtr_mem* rtr, uint32_t* idx, uint32_t n, uint32_t axis,
                           const rtr_cell* cells, uint32_t* tmp);

/* --- forced reinsertion --- */
int32_t rtr_reinsert(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                     uint32_t level);
void rtr_sort_by_distance(uint32_t* idx, uint32_t n, const double* dist, uint32_t* tmp);

/* --- deletion --- */
int32_t rtr_delete_by_rowid(zq_env* env, rtr_mem* rtr, int64_t rowid, const rtr_rect* rect);
/* The leaf holding (rect, rowid), pinned, and the entry's index; -3269 when
 * there is none. Only the first two axes of `rect` are compared. */
int32_t rtr_find_leaf_node(zq_env* env, rtr_mem* rtr, const rtr_rect* rect, int64_t rowid,
                           rtr_node** leaf, uint8_t* index);
int32_t rtr_delete_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, uint32_t index,
                        uint32_t level);
int32_t rtr_remove_node(zq_env* env, rtr_mem* rtr, rtr_node* parent, rtr_node* node,
                        uint32_t level);
int32_t rtr_reinsert_node_content(zq_env* env, rtr_mem* rtr, rtr_node* node);

#ifdef __cplusplus
}
#endif

#endif
