// Insertion: descent by least enlargement, placing an entry, and keeping the
// ancestors' boxes up to date.
//
// Call order: rtr_insert -> rtr_choose_leaf -> rtr_insert_cell, which either
// places the entry and widens the ancestors (rtr_adjust_tree) or hands a full
// node to rtr_reinsert (first overflow of a non-root node at a level) or to
// rtr_split_node. Reinsertion, split and deletion call back into
// rtr_choose_leaf, rtr_insert_cell, rtr_adjust_tree, rtr_fix_bounding_box and
// rtr_update_parent. Nothing here writes the node table: changed nodes are
// marked modified and written back by the cache.
#include "rtr/frame.h"
#include "rtr/geom_inline.h"
#include "rtr/tree_internal.h"
#include "zqrtree/tree.h"

namespace {

using zqrtree::fail;
namespace geom = zqrtree::geom;

// The child of `node` whose box grows least by taking `rect`; ties go to the
// smaller box, then to the lower index. An empty node yields 0, which the
// cache refuses as a node id.
template <unsigned N>
int64_t least_enlargement_child(const rtr_node* node, const rtr_rect* rect) {
  int64_t best_id = 0;
  double best_enl = 0.0;
  double best_area = 0.0;
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    const rtr_rect* r = &node->cells[i].rect;
    const double area = geom::area<N>(r);
    const double enl = geom::union_area<N>(r, rect) - area;
    if (i == 0 || enl < best_enl || (enl == best_enl && area < best_area)) {
      best_id = node->cells[i].id;
      best_enl = enl;
      best_area = area;
    }
  }
  return best_id;
}

int64_t least_enlargement_child(const rtr_mem* rtr, const rtr_node* node, const rtr_cell* cell) {
  return geom::by_dims(rtr->n_dims,
                       [&](auto d) { return least_enlargement_child<d()>(node, &cell->rect); });
}

// The slot of `child`'s entry in `parent`. A parent without such an entry
// means the parent ids are corrupt; stop there instead of writing outside the
// node's cells.
int32_t entry_slot(rtr_mem* rtr, rtr_node* parent, rtr_node* child, uint32_t* slot) {
  int32_t rc = rtr_node_parent_index(rtr, parent, child, slot);
  if (rc < 0) return rc;
  return *slot < parent->n_cells ? 0 : RTR_ERR_NOT_FOUND;
}

// The R* rule of one forced reinsertion per level and insertion, kept as a
// single mark: reinsert unless something was already placed at this level or
// above since the insertion began. The root is only ever split.
bool may_reinsert(const rtr_mem* rtr, const rtr_node* node, uint32_t level) {
  if (node->id == RTR_ROOT_ID) return false;
  return rtr->reinsert_level < level || rtr->reinsert_level == zqrtree::kNoLevel;
}

}  // namespace

extern "C" int32_t rtr_insert(zq_env* env, rtr_mem* rtr, const rtr_cell* cell) {
  rtr_node* leaf = nullptr;
  int32_t rc = rtr_choose_leaf(env, rtr, cell, 0, &leaf);
  if (rc < 0) return fail(env, rc, "rtr_insert");
  rtr->reinsert_level = zqrtree::kNoLevel;
  rc = rtr_insert_cell(env, rtr, leaf, cell, 0);
  // On failure the leaf stays pinned: intended, nothing is undone on the way up.
  if (rc < 0) return fail(env, rc, "rtr_insert");
  rtr_node_release(leaf);
  return 0;
}

extern "C" int32_t rtr_choose_leaf(zq_env* env, rtr_mem* rtr, const rtr_cell* cell, uint32_t level,
                                   rtr_node** out) {
  *out = nullptr;
  rtr_node* node = nullptr;
  int32_t rc = rtr_node_acquire(env, rtr, RTR_ROOT_ID, &node);
  if (rc < 0) return fail(env, rc, "rtr_choose_leaf");
  // root_level is read after the root is acquired: reading node 1 refreshes it.
  if (rtr->root_level != level) {
    for (uint32_t steps = rtr->root_level - level; steps > 0; --steps) {
      rtr_node* child = nullptr;
      rc = rtr_node_acquire(env, rtr, least_enlargement_child(rtr, node, cell), &child);
      rtr_node_release(node);
      if (rc < 0) return fail(env, rc, "rtr_choose_leaf");
      node = child;
    }
  }
  *out = node;
  return 0;
}

extern "C" int32_t rtr_insert_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                                   uint32_t level) {
  if (level != 0) {
    rtr_node* child = nullptr;
    int32_t rc = rtr_node_acquire(env, rtr, cell->id, &child);
    if (rc < 0) return fail(env, rc, "rtr_insert_cell");
    child->parent_id = node->id;
    rtr_node_set_modify(env, rtr, child);
    rtr_node_release(child);
  }
  int32_t rc;
  // A full node pushes -503 even when the overflow is then handled: intended.
  if (rtr_node_insert_cell(env, rtr, node, cell) == 0) {
    rtr->reinsert_level = level;
    rc = rtr_adjust_tree(env, rtr, node, cell);
  } else if (may_reinsert(rtr, node, level)) {
    rc = rtr_reinsert(env, rtr, node, cell, level);
  } else {
    rc = rtr_split_node(env, rtr, node, cell, level);
  }
  if (rc < 0) return fail(env, rc, "rtr_insert_cell");
  return rc;
}

extern "C" int32_t rtr_adjust_tree(zq_env* env, rtr_mem* rtr, rtr_node* node,
                                   const rtr_cell* cell) {
  rtr_node* cur = node;
  while (cur->parent_id != 0) {
    rtr_node* parent = nullptr;
    int32_t rc = rtr_node_acquire(env, rtr, cur->parent_id, &parent);
    if (rc < 0) {
      if (cur != node) rtr_node_release(cur);
      return fail(env, rc, "rtr_adjust_tree");
    }
    uint32_t slot = zqrtree::kNoIndex;
    rc = entry_slot(rtr, parent, cur, &slot);
    if (rc < 0) {
      rtr_node_release(parent);
      if (cur != node) rtr_node_release(cur);
      return fail(env, rc, "rtr_adjust_tree");
    }
    rtr_rect* box = &parent->cells[slot].rect;
    // Boxes only grow here, and the walk goes on to the root even when a box
    // already holds the entry.
    const bool grown = geom::by_dims(rtr->n_dims, [&](auto d) {
      if (geom::contains<d()>(box, &cell->rect)) return false;
      geom::grow<d()>(box, &cell->rect);
      return true;
    });
    if (grown) rtr_node_set_modify(env, rtr, parent);
    if (cur != node) rtr_node_release(cur);
    cur = parent;
  }
  // The topmost node keeps the pin taken on the way up: intended.
  return 0;
}

extern "C" int32_t rtr_fix_bounding_box(zq_env* env, rtr_mem* rtr, rtr_node* node) {
  if (node->parent_id == 0) return 0;
  rtr_cell entry;
  entry.id = node->id;
  geom::by_dims(rtr->n_dims,
                [&](auto d) { geom::union_cells<d()>(node->n_cells, node->cells, &entry.rect); });
  rtr_node* parent = nullptr;
  int32_t rc = rtr_node_acquire(env, rtr, node->parent_id, &parent);
  if (rc < 0) return fail(env, rc, "rtr_fix_bounding_box");
  uint32_t slot = zqrtree::kNoIndex;
  rc = entry_slot(rtr, parent, node, &slot);
  if (rc == 0) {
    rtr_node_overwrite_cell(env, rtr, parent, &entry, slot);
    rc = rtr_fix_bounding_box(env, rtr, parent);
  }
  rtr_node_release(parent);
  if (rc < 0) return fail(env, rc, "rtr_fix_bounding_box");
  return 0;
}

extern "C" int32_t rtr_update_parent(zq_env* env, rtr_mem* rtr, int64_t child_id, rtr_node* parent,
                                     uint32_t level) {
  if (level == 0) return 0;  // leaf entries name rows, not nodes
  rtr_node* child = nullptr;
  int32_t rc = rtr_node_acquire(env, rtr, child_id, &child);
  if (rc < 0) return fail(env, rc, "rtr_update_parent");
  child->parent_id = parent->id;
  rtr_node_set_modify(env, rtr, child);
  rtr_node_release(child);
  return 0;
}
