// The handle's four intrusive lists of node buffers: recency, dirty, deleted
// and free. Each list has a first (newest) and a last (oldest) end and a
// count in the handle; a node's `prev` link points toward the first end and
// its `next` link toward the last end. The recency, deleted and free lists
// share the lru_prev/lru_next links (a node is on at most one of them); the
// dirty list has its own. Used by the node object, the cache and the
// deletion, which takes nodes off the deleted list itself.
#ifndef ZQRTREE_RTR_NODE_LIST_H
#define ZQRTREE_RTR_NODE_LIST_H

#include <cstdint>

#include "zqrtree/mem.h"
#include "zqrtree/node.h"

namespace zqrtree {

struct NodeList {
  rtr_node* rtr_mem::*first;  // newest end
  rtr_node* rtr_mem::*last;   // oldest end
  uint32_t rtr_mem::*count;
  rtr_node* rtr_node::*prev;  // toward first
  rtr_node* rtr_node::*next;  // toward last

  void push_first(rtr_mem* rtr, rtr_node* node) const {
    node->*prev = nullptr;
    node->*next = rtr->*first;
    if (rtr->*first != nullptr) {
      (rtr->*first)->*prev = node;
    } else {
      rtr->*last = node;
    }
    rtr->*first = node;
    ++(rtr->*count);
  }

  // Unlinks by the node's own links and clears them. A node whose links are
  // both null is taken for the only member: its ends are reset.
  void unlink(rtr_mem* rtr, rtr_node* node) const {
    if (node->*next != nullptr) {
      (node->*next)->*prev = node->*prev;
    } else {
      rtr->*last = node->*prev;
    }
    if (node->*prev != nullptr) {
      (node->*prev)->*next = node->*next;
    } else {
      rtr->*first = node->*next;
    }
    node->*prev = nullptr;
    node->*next = nullptr;
    --(rtr->*count);
  }
};

inline constexpr NodeList kRecencyList{&rtr_mem::lru_first, &rtr_mem::lru_last, &rtr_mem::n_cached,
                                       &rtr_node::lru_prev, &rtr_node::lru_next};
inline constexpr NodeList kDirtyList{&rtr_mem::dirty_first, &rtr_mem::dirty_last, &rtr_mem::n_dirty,
                                     &rtr_node::dirty_prev, &rtr_node::dirty_next};
inline constexpr NodeList kDeletedList{&rtr_mem::deleted_first, &rtr_mem::deleted_last,
                                       &rtr_mem::n_deleted, &rtr_node::lru_prev,
                                       &rtr_node::lru_next};
// A stack: rtr_node_destroy pushes at free_first, rtr_node_create pops there.
inline constexpr NodeList kFreeList{&rtr_mem::free_first, &rtr_mem::free_last, &rtr_mem::n_free,
                                    &rtr_node::lru_prev, &rtr_node::lru_next};

}  // namespace zqrtree

#endif
