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
#ifndef ZQ_TOOLS_MODEL_H
#define ZQ_TOOLS_MODEL_H

#include <cstdint>

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

}  // namespace zqtool

#endif
