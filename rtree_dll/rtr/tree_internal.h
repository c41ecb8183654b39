// Private helpers shared by insertion, split, reinsertion, deletion and the
// cursor: coordinate access by axis number and the function names pushed on
// the error stack.
#ifndef ZQRTREE_RTR_TREE_INTERNAL_H
#define ZQRTREE_RTR_TREE_INTERNAL_H

#include <algorithm>
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

// The split's and the reinsertion's merge sorts take the right element
// whenever it is not strictly greater, so each merge puts equal elements of
// its right part before those of its left part, and over the whole recursion
// equal keys end up in descending order of their starting position. When the
// keys are totally ordered (no NaN) that order is fully determined, and any
// sort by (key ascending, starting position descending) yields the same
// permutation. `before` is the strict key order; items carry their starting
// position in `i`.
template <class Item, class Before>
void sort_like_merge(Item* items, uint32_t n, Before before) {
  std::sort(items, items + n, [&](const Item& a, const Item& b) {
    if (before(a, b)) return true;
    if (before(b, a)) return false;
    return a.i > b.i;
  });
}

}  // namespace zqrtree

#endif
