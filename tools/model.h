// A brute-force model of the search operators, written from their meaning
// rather than from the library's code, to verify searches against:
//   intersect  the entry and the box share at least a point
//   contains   the entry contains the box
//   within     the entry lies within the box
//   equal      the entry is the box
//   any        every entry
// AND mode: all named conditions hold, except that contains, when named,
// decides alone with equal (intersect and within are then not consulted),
// and any is ignored. OR mode (--or): any named condition holds; no name at
// all accepts everything.
//
// And of nearest-neighbour search: per axis how far apart the entry's and
// the query's intervals are (0 when they meet), squared, summed over the
// axes in order, the root taken; nearest first, equal distances by rowid.
#ifndef ZQ_TOOLS_MODEL_H
#define ZQ_TOOLS_MODEL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "driver/index.h"

namespace zqtool {

inline bool model_overlaps(const zq::Box& a, const zq::Box& b, int dims) {
  for (int k = 0; k < dims; ++k)
    if (a.min[k] > b.max[k] || b.min[k] > a.max[k]) return false;
  return true;
}

inline bool model_contains(const zq::Box& outer, const zq::Box& inner, int dims) {
  for (int k = 0; k < dims; ++k)
    if (outer.min[k] > inner.min[k] || inner.max[k] > outer.max[k]) return false;
  return true;
}

inline bool model_equal(const zq::Box& a, const zq::Box& b, int dims) {
  for (int k = 0; k < dims; ++k)
    if (a.min[k] != b.min[k] || a.max[k] != b.max[k]) return false;
  return true;
}

inline bool model_matches(uint32_t op, const zq::Box& e, const zq::Box& q, int dims) {
  const bool inter = (op & RTR_OP_INTERSECT) != 0, cont = (op & RTR_OP_CONTAINS) != 0,
             within = (op & RTR_OP_WITHIN) != 0, equal = (op & RTR_OP_EQUAL) != 0;
  if ((op & RTR_OP_OR) != 0) {
    if ((op & RTR_OP_ANY) != 0) return true;
    if (inter && model_overlaps(e, q, dims)) return true;
    if (cont && model_contains(e, q, dims)) return true;
    if (within && model_contains(q, e, dims)) return true;
    if (equal) return model_equal(e, q, dims);
    return !(inter || cont || within);
  }
  if (cont) {
    if (!model_contains(e, q, dims)) return false;
  } else {
    if (within && !model_contains(q, e, dims)) return false;
    if (inter && !model_overlaps(e, q, dims)) return false;
  }
  return !equal || model_equal(e, q, dims);
}

// (rowid, distance) of the entries nearest to `q` out of `entries`, a range
// of (rowid, box) pairs: at most k (0: no limit), none beyond max_distance.
template <class Entries>
std::vector<std::pair<int64_t, double>> model_nearest(const Entries& entries, const zq::Box& q,
                                                      int dims, uint64_t k, double max_distance) {
  std::vector<std::pair<double, int64_t>> all;
  for (const auto& [id, b] : entries) {
    double d2 = 0;
    for (int i = 0; i < dims; ++i) {
      const double gap = std::max({0.0, b.min[i] - q.max[i], q.min[i] - b.max[i]});
      d2 += gap * gap;
    }
    if (std::sqrt(d2) <= max_distance) all.push_back({d2, id});
  }
  std::sort(all.begin(), all.end());
  if (k != 0 && all.size() > k) all.resize(k);
  std::vector<std::pair<int64_t, double>> out;
  for (const auto& [d2, id] : all) out.push_back({id, std::sqrt(d2)});
  return out;
}

}  // namespace zqtool

#endif
