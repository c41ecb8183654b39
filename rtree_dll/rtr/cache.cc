// The per-handle node cache: hash by node id, recency list, dirty and
// deleted lists, eviction and write-back.
//
// Call order: rtr_node_acquire / rtr_node_new pin a node -> the caller edits
// it (rtr_node_set_modify / rtr_node_set_delete record the change) ->
// rtr_node_release. Rows are written by rtr_node_discard when a dirty node is
// evicted, by rtr_flush_all, or by rtr_node_flush called directly for a node
// the deletion took out of the tree. Marks are never cleared on write-back
// (intended): a handle is flushed once, then destroyed.
#include "rtr/frame.h"
#include "rtr/node_hash.h"
#include "rtr/node_list.h"
#include "zqrtree/node.h"
#include "zqrtree/phy.h"

using zqrtree::bucket_of;
using zqrtree::kDeletedList;
using zqrtree::kDirtyList;
using zqrtree::kRecencyList;

namespace {

void unchain(rtr_mem* rtr, rtr_node* node) {
  rtr_node** link = bucket_of(rtr, node->id);
  while (*link != node) link = &(*link)->hash_next;
  *link = node->hash_next;
  node->hash_next = nullptr;
}

// The link in the chain from `head` that points at the node with `id` (the
// head itself or the hash_next of the node before it), or null.
rtr_node** link_to(rtr_node** head, int64_t id) {
  for (rtr_node** link = head; *link != nullptr; link = &(*link)->hash_next)
    if ((*link)->id == id) return link;
  return nullptr;
}

// rtr_node_hash_lookup for the acquire: a node found behind the chain's head
// moves to the head. Chains are unordered apart from where a new node goes,
// and insert-built trees give ~13 nodes per bucket, so the nodes a descent
// keeps coming back to (the upper levels, the path just walked) stay one
// miss away instead of a walk of misses. Id 0 is left where it is, as a
// failed id draw can leave several new nodes with it.
rtr_node* lookup_to_front(rtr_mem* rtr, int64_t id) {
  if (rtr->n_cached == 0) return nullptr;
  rtr_node** head = bucket_of(rtr, id);
  rtr_node** link = link_to(head, id);
  if (link == nullptr) return nullptr;
  rtr_node* node = *link;
  if (link != head && id != 0) {
    *link = node->hash_next;
    node->hash_next = *head;
    *head = node;
  }
  return node;
}

// The least recently used node nobody pins, or null.
rtr_node* eviction_candidate(const rtr_mem* rtr) {
  rtr_node* node = rtr->lru_last;
  while (node != nullptr && node->ref_count != 0) node = node->lru_prev;
  return node;
}

}  // namespace

extern "C" {

uint32_t rtr_node_hash(int64_t id) {
  return static_cast<uint32_t>(static_cast<uint64_t>(id));
}

rtr_node* rtr_node_hash_lookup(rtr_mem* rtr, int64_t id) {
  // An empty cache answers without its table: a bulk-build handle has none.
  if (rtr->n_cached == 0) return nullptr;
  rtr_node** link = link_to(bucket_of(rtr, id), id);
  return link != nullptr ? *link : nullptr;
}

void rtr_node_hash_insert(rtr_mem* rtr, rtr_node* node, uint32_t hash_only) {
  rtr_node** head = bucket_of(rtr, node->id);
  node->hash_next = *head;
  *head = node;
  if (hash_only == 0) kRecencyList.push_first(rtr, node);
}

void rtr_node_hash_delete(rtr_mem* rtr, rtr_node* node) {
  unchain(rtr, node);
  kRecencyList.unlink(rtr, node);
  // in_dirty outlives write-back, so a node already written by rtr_flush_all
  // is unlinked here by its cleared links: intended, a handle is not reused
  // after its flush.
  if (node->in_dirty != 0) kDirtyList.unlink(rtr, node);
}

void rtr_make_young(rtr_mem* rtr, rtr_node* node) {
  kRecencyList.unlink(rtr, node);
  kRecencyList.push_first(rtr, node);
}

int32_t rtr_node_acquire(zq_env* env, rtr_mem* rtr, int64_t node_id, rtr_node** out) {
  *out = nullptr;
  // A cursor acquires the node it released last, which is already the
  // youngest: answer without walking the hash chain. Cached ids are unique
  // except 0, which a failed id draw leaves on new nodes, so 0 takes the walk.
  rtr_node* youngest = rtr->lru_first;
  if (youngest != nullptr && youngest->id == node_id && node_id != 0) {
    ++youngest->ref_count;
    *out = youngest;
    return RTR_OK;
  }
  rtr_node* node = lookup_to_front(rtr, node_id);
  if (node != nullptr) {
    ++node->ref_count;
    rtr_make_young(rtr, node);
    *out = node;
    return RTR_OK;
  }
  const int32_t rc = rtr_phy_read_node(env, rtr, node_id, &node);
  if (rc < 0) return zqrtree::fail(env, rc, "rtr_node_acquire");
  if (node_id == RTR_ROOT_ID) rtr->root_level = node->level;
  rtr_node_hash_insert(rtr, node, 0);
  *out = node;
  return RTR_OK;
}

void rtr_node_release(rtr_node* node) {
  // A node left unpinned stays cached until evicted.
  if (node != nullptr) --node->ref_count;
}

void rtr_node_set_modify(zq_env* env, rtr_mem* rtr, rtr_node* node) {
  if (node->is_deleted != 0) return;
  if (node->id == 0) {
    int32_t code = 0;
    // The code is not examined: intended, a failed id surfaces at write-back.
    node->id = rtr_phy_get_next_node_id(env, rtr, &code);
    node->is_new = 1;
  } else {
    node->is_modified = 1;
  }
  if (node->in_dirty == 0) {
    node->in_dirty = 1;
    kDirtyList.push_first(rtr, node);
  }
}

void rtr_node_set_delete(rtr_mem* rtr, rtr_node* node) {
  if (node->is_deleted != 0) return;
  node->is_deleted = 1;
  rtr_node_hash_delete(rtr, node);
  node->in_dirty = 1;
  kDeletedList.push_first(rtr, node);
}

int32_t rtr_node_flush(zq_env* env, rtr_mem* rtr, rtr_node* node) {
  // The callers push: this level only chooses the row operation.
  if (node->is_new != 0) {
    // Created and removed before ever being written: no row to touch.
    return node->is_deleted != 0 ? RTR_OK : rtr_phy_insert_node(env, rtr, node);
  }
  if (node->is_deleted != 0) return rtr_phy_delete_node(env, rtr, &node->id);
  return rtr_phy_modify_node(env, rtr, node);
}

int32_t rtr_flush_all(zq_env* env, rtr_mem* rtr) {
  // Oldest first: rows are written in the order of the nodes' first change.
  while (rtr->dirty_last != nullptr) {
    rtr_node* node = rtr->dirty_last;
    kDirtyList.unlink(rtr, node);
    // in_dirty stays set (intended): a later change does not requeue the node.
    const int32_t rc = rtr_node_flush(env, rtr, node);
    if (rc < 0) return zqrtree::fail(env, rc, "rtr_flush_all");
  }
  return RTR_OK;
}

int32_t rtr_node_discard(zq_env* env, rtr_mem* rtr, rtr_node** out) {
  *out = nullptr;
  rtr_node* node = eviction_candidate(rtr);
  if (node == nullptr) return RTR_NOTE_NOTHING;
  if (node->in_dirty != 0) {
    const int32_t rc = rtr_node_flush(env, rtr, node);
    // The node stays cached and dirty, so nothing is lost.
    if (rc < 0) return zqrtree::fail(env, rc, "rtr_node_discard");
  }
  rtr_node_hash_delete(rtr, node);
  *out = node;
  return RTR_OK;
}

}  // extern "C"
