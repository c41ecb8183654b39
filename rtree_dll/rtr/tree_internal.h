// Private helpers shared by insertion, split, reinsertion, deletion and the
// cursor: coordinate access by axis number and the function names pushed on
// the error stack.
#ifndef ZQRTREE_RTR_TREE_INTERNAL_H
#define ZQRTREE_RTR_TREE_INTERNAL_H

#include <cstdint>

#include "zqrtree/geom.h"
#include "zqrtree/mem.h"

namespace zqrtree {

// reinsert_level before any placement of the current insertion.
inline constexpr uint32_t kNoLevel = 0xFFFFFFFFu;
// rtr_node_parent_index's answer when the parent has no entry for the child.
inline constexpr uint32_t kNoIndex = 0xFFFFFFFFu;

// Geometry functions treat a count above 3 as 3; the tree code does the same
// wherever it indexes axes itself.
inline uint32_t used_axes(const rtr_mem* rtr) {
  return rtr->n_dims > 3 ? 3u : rtr->n_dims;
}

inline double axis_min(const rtr_rect& r, uint32_t k) {
  return k == 0 ? r.min0 : (k == 1 ? r.min1 : r.min2);
}
inline double axis_max(const rtr_rect& r, uint32_t k) {
  return k == 0 ? r.max0 : (k == 1 ? r.max1 : r.max2);
}

}  // namespace zqrtree

#endif
