// The node cache's hash buckets: where the chain for a node id starts. The
// cache owns the chains; the cursor only peeks at a chain's head to warm the
// memory of a node it will visit next.
#ifndef ZQRTREE_RTR_NODE_HASH_H
#define ZQRTREE_RTR_NODE_HASH_H

#include <cstdint>

#include "zqhost/mem.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

namespace zqrtree {

inline rtr_node** bucket_of(const rtr_mem* rtr, int64_t id) {
  zq_hash* hash = rtr->node_hash;
  const uint32_t index = (rtr_node_hash(id) ^ RTR_NODE_HASH_SALT) % hash->n_buckets;
  return reinterpret_cast<rtr_node**>(&hash->buckets[index]);
}

}  // namespace zqrtree

#endif
