// The node object: obtaining node buffers, and the cell edits every tree
// algorithm makes.
//
// Call order: rtr_node_create (free buffer, evicted buffer, or a new one from
// the pool) or rtr_node_new (create + id + cache) -> cell edits, each of which
// records the change through rtr_node_set_modify -> the cache evicts it, or
// rtr_node_destroy returns the buffer to the handle's free list. Buffers go
// back to the engine only with the handle's pool.
#include "zqrtree/node.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "rtr/frame.h"
#include "rtr/node_list.h"

static_assert(sizeof(rtr_node) == RTR_NODE_BUF_SIZE, "one node buffer is the budget unit");
static_assert(offsetof(rtr_node, cells) + RTR_MAX_CELLS * sizeof(rtr_cell) == RTR_NODE_BUF_SIZE);
static_assert(std::is_standard_layout_v<rtr_node>);

namespace {

constexpr uint32_t kNoIndex = 0xFFFFFFFFu;

rtr_node* pool_buffer(zq_env* env, rtr_mem* rtr) {
  // No null test: intended.
  return static_cast<rtr_node*>(
      rtr->pool->alloc(env, rtr->pool->heap, RTR_NODE_BUF_SIZE, __FILE__, __LINE__));
}

// A buffer for a new node: the most recently freed one, else an evicted
// node's when the cache is at its budget, else a new one. 0 or the
// discard's negative code.
int32_t obtain_buffer(zq_env* env, rtr_mem* rtr, rtr_node** out) {
  if (rtr->free_first != nullptr) {
    *out = rtr->free_first;
    zqrtree::kFreeList.unlink(rtr, *out);
    return RTR_OK;
  }
  if (rtr->n_cached + rtr->n_deleted >= rtr->max_nodes) {
    const int32_t rc = rtr_node_discard(env, rtr, out);
    if (rc < 0) return rc;
    // Everything pinned: the budget is a soft limit, intended.
    if (rc == RTR_NOTE_NOTHING) *out = pool_buffer(env, rtr);
    return RTR_OK;
  }
  *out = pool_buffer(env, rtr);
  return RTR_OK;
}

}  // namespace

extern "C" {

int32_t rtr_node_create(zq_env* env, rtr_mem* rtr, uint32_t level, int64_t id, rtr_node** out) {
  rtr_node* node = nullptr;
  const int32_t rc = obtain_buffer(env, rtr, &node);
  if (rc < 0) return zqrtree::fail(env, rc, "rtr_node_create");
  // The header is cleared (marks and links return to 0 only here); the cells
  // keep whatever the buffer held, n_cells says how many count.
  std::memset(static_cast<void*>(node), 0, offsetof(rtr_node, cells));
  node->id = id;
  node->level = level;
  node->ref_count = 1;
  *out = node;
  return RTR_OK;
}

int32_t rtr_node_new(zq_env* env, rtr_mem* rtr, int64_t parent_id, uint32_t level, rtr_node** out) {
  rtr_node* node = nullptr;
  const int32_t rc = rtr_node_create(env, rtr, level, 0, &node);
  if (rc < 0) return zqrtree::fail(env, rc, "rtr_node_new");
  node->parent_id = parent_id;
  rtr_node_set_modify(env, rtr, node);  // id 0: takes the next node id, marks it new
  rtr_node_hash_insert(rtr, node, 0);
  *out = node;
  return RTR_OK;
}

void rtr_node_destroy(rtr_mem* rtr, rtr_node* node) {
  zqrtree::kFreeList.push_first(rtr, node);
}

void rtr_node_zero(zq_env* env, rtr_mem* rtr, rtr_node* node) {
  node->n_cells = 0;
  rtr_node_set_modify(env, rtr, node);
}

void rtr_node_overwrite_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                             uint32_t index) {
  node->cells[index] = *cell;
  rtr_node_set_modify(env, rtr, node);
}

int32_t rtr_node_insert_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell) {
  // Pushed although the insertion takes it as its cue to reinsert or split:
  // intended, the push happens before anyone knows.
  if (node->n_cells == RTR_MAX_CELLS)
    return zqrtree::fail(env, RTR_ERR_NO_ROOM, "rtr_node_insert_cell");
  node->cells[node->n_cells] = *cell;
  ++node->n_cells;
  rtr_node_set_modify(env, rtr, node);
  return RTR_OK;
}

uint32_t rtr_node_delete_cell(zq_env* env, rtr_mem* rtr, rtr_node* node, uint32_t index) {
  --node->n_cells;
  rtr_node_set_modify(env, rtr, node);
  // The last cell fills the hole: one copy, cell order not kept.
  if (node->n_cells != 0 && node->n_cells != index) node->cells[index] = node->cells[node->n_cells];
  return node->n_cells;
}

int32_t rtr_node_parent_index(rtr_mem* /*rtr*/, const rtr_node* parent, const rtr_node* child,
                              uint32_t* out_index) {
  *out_index = kNoIndex;
  for (uint32_t i = 0; i < parent->n_cells; ++i) {
    if (parent->cells[i].id == child->id) {
      *out_index = i;
      break;
    }
  }
  // Always 0, found or not: callers test the index.
  return RTR_OK;
}

void rtr_node_reference(rtr_node* node) {
  if (node != nullptr) ++node->ref_count;
}

}  // extern "C"
