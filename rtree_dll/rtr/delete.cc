// Deletion: removing one row's entry and condensing the tree.
//
// Call order: rtr_delete_by_rowid -> rtr_find_leaf_node (an EQUAL cursor) ->
// rtr_delete_cell, which takes a node left with fewer than 2 entries out of
// its parent (rtr_remove_node, recursively upward) or recomputes the boxes
// (rtr_fix_bounding_box) -> the root is shortened when it is left with one
// child -> rtr_reinsert_node_content for every node on the deleted list,
// placing its entries again at their own level.
#include "rtr/frame.h"
#include "rtr/node_list.h"
#include "rtr/tree_internal.h"
#include "zqrtree/cursor.h"
#include "zqrtree/tree.h"

namespace {

using zqrtree::fail;

constexpr uint32_t kMinEntries = 2;  // a non-root node with fewer is removed

// The root is left with a single child: that child's entries move up into
// the root (in the reinsertion that follows) and the tree becomes one level
// lower.
int32_t shorten_root(zq_env* env, rtr_mem* rtr, rtr_node* root) {
  rtr_node* child = nullptr;
  int32_t rc = rtr_node_acquire(env, rtr, root->cells[0].id, &child);
  if (rc < 0) return rc;
  rc = rtr_remove_node(env, rtr, root, child, rtr->root_level - 1);
  rtr_node_release(child);
  if (rc < 0) return rc;
  rtr->root_level -= 1;
  root->level = rtr->root_level;
  rtr_node_set_modify(env, rtr, root);
  return rc;
}

// Reinserts the content of every removed node, newest first; the node's
// buffer is freed even when its reinsertion failed.
int32_t drain_deleted(zq_env* env, rtr_mem* rtr, int32_t rc) {
  while (rtr->deleted_first != nullptr) {
    rtr_node* node = rtr->deleted_first;
    rc = rtr_reinsert_node_content(env, rtr, node);
    zqrtree::kDeletedList.unlink(rtr, node);
    rtr_node_destroy(rtr, node);
    if (rc < 0) break;
  }
  return rc;
}

}  // namespace

extern "C" int32_t rtr_find_leaf_node(zq_env* env, rtr_mem* rtr, const rtr_rect* rect,
                                      int64_t rowid, rtr_node** leaf, uint8_t* index) {
  *leaf = nullptr;
  rcur cur;
  rcur_init(&cur, rtr, RTR_OP_EQUAL);
  int32_t rc = rcur_open(env, &cur, rect);
  if (rc < 0) return fail(env, rc, "rtr_find_leaf_node");
  for (;;) {
    if (rcur_spnt_first(&cur) == nullptr) return fail(env, RTR_ERR_NOT_FOUND, "rtr_find_leaf_node");
    int64_t hit = 0;
    rtr_node* node = nullptr;
    uint8_t cell_no = 0;
    rc = rcur_rowid_ex(env, &cur, &hit, &node, &cell_no);
    if (rc < 0) return fail(env, rc, "rtr_find_leaf_node");
    if (hit == rowid) {
      *leaf = node;
      *index = cell_no;
      return 0;
    }
    rtr_node_release(node);
    rc = rcur_next(env, &cur);
    if (rc < 0) return fail(env, rc, "rtr_find_leaf_node");
    if (rcur_is_end(&cur)) return fail(env, RTR_ERR_NOT_FOUND, "rtr_find_leaf_node");
  }
}

extern "C" int32_t rtr_delete_by_rowid(zq_env* env, rtr_mem* rtr, int64_t rowid,
                                       const rtr_rect* rect) {
  rtr_node* leaf = nullptr;
  uint8_t index = 0;
  int32_t rc = rtr_find_leaf_node(env, rtr, rect, rowid, &leaf, &index);
  if (rc < 0) return fail(env, rc, "rtr_delete_by_rowid");
  rc = rtr_delete_cell(env, rtr, leaf, index, 0);
  rtr_node_release(leaf);
  if (rc < 0) return fail(env, rc, "rtr_delete_by_rowid");
  rtr_node* root = nullptr;
  rc = rtr_node_acquire(env, rtr, RTR_ROOT_ID, &root);
  if (rc < 0) return fail(env, rc, "rtr_delete_by_rowid");
  if (rtr->root_level != 0 && root->n_cells == 1) rc = shorten_root(env, rtr, root);
  if (rc >= 0) rc = drain_deleted(env, rtr, rc);
  rtr_node_release(root);
  if (rc < 0) return fail(env, rc, "rtr_delete_by_rowid");
  return rc;
}

extern "C" int32_t rtr_delete_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, uint32_t index,
                                   uint32_t level) {
  uint32_t left = rtr_node_delete_cell(env, rtr, node, index);
  // The root is never condensed here, whatever it holds.
  if (node->id == RTR_ROOT_ID) return 0;
  int32_t rc;
  if (left < kMinEntries) {
    rtr_node* parent = nullptr;
    rc = rtr_node_acquire(env, rtr, node->parent_id, &parent);
    if (rc < 0) return fail(env, rc, "rtr_delete_cell");
    rc = rtr_remove_node(env, rtr, parent, node, level);
    rtr_node_release(parent);
  } else {
    rc = rtr_fix_bounding_box(env, rtr, node);
  }
  if (rc < 0) return fail(env, rc, "rtr_delete_cell");
  return rc;
}

extern "C" int32_t rtr_remove_node(zq_env* env, rtr_mem* rtr, rtr_node* parent, rtr_node* node,
                                   uint32_t level) {
  uint32_t slot = zqrtree::kNoIndex;
  rtr_node_parent_index(rtr, parent, node, &slot);
  // A parent without an entry for the node means corrupt parent ids.
  if (slot >= parent->n_cells) return fail(env, RTR_ERR_NOT_FOUND, "rtr_remove_node");
  int32_t rc = rtr_delete_cell(env, rtr, parent, slot, level + 1);
  if (rc < 0) return fail(env, rc, "rtr_remove_node");
  // The node's row goes at once; its entries wait on the deleted list.
  rtr_node_set_delete(rtr, node);
  rc = rtr_node_flush(env, rtr, node);
  if (rc < 0) return fail(env, rc, "rtr_remove_node");
  return rc;
}

extern "C" int32_t rtr_reinsert_node_content(zq_env* env, rtr_mem* rtr, rtr_node* node) {
  // reinsert_level is not reset: the last insertion's mark decides between
  // reinsertion and split on overflow, as intended.
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    rtr_cell entry = node->cells[i];
    rtr_node* target = nullptr;
    int32_t rc = rtr_choose_leaf(env, rtr, &entry, node->level, &target);
    if (rc < 0) return fail(env, rc, "rtr_reinsert_node_content");
    rc = rtr_insert_cell(env, rtr, target, &entry, node->level);
    rtr_node_release(target);
    if (rc < 0) return fail(env, rc, "rtr_reinsert_node_content");
  }
  return 0;
}
