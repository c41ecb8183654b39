// Geometry kernels with the dimension count as a template argument, so hot
// loops (cursor scan, choose-leaf, split choice) inline them with constant
// axis bounds. geom.cc wraps each one in an exported function.
//
// Sums and products run in axis order 0, 1, 2 and the library is built
// without FMA contraction, so every result is reproducible bit for bit.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "zqrtree/geom.h"

// Forced: at -O2 the compiler keeps some of these out of line, and a call per
// cell test costs more than the test.
#define ZQ_GEOM_INLINE [[gnu::always_inline]] inline

namespace zqrtree::geom {

// Every axis loop below is unrolled (at most three turns): the member-pointer
// tables then fold into plain field offsets instead of table loads.

inline constexpr double rtr_rect::*kMin[3] = {&rtr_rect::min0, &rtr_rect::min1, &rtr_rect::min2};
inline constexpr double rtr_rect::*kMax[3] = {&rtr_rect::max0, &rtr_rect::max1, &rtr_rect::max2};

ZQ_GEOM_INLINE double lo(const rtr_rect* r, unsigned k) {
  return r->*kMin[k];
}
ZQ_GEOM_INLINE double hi(const rtr_rect* r, unsigned k) {
  return r->*kMax[k];
}
ZQ_GEOM_INLINE double extent(const rtr_rect* r, unsigned k) {
  return hi(r, k) - lo(r, k);
}

template <unsigned N>
using Dims = std::integral_constant<unsigned, N>;

// Calls body(Dims<n>) with the count clamped to 3.
template <class Body>
inline auto by_dims(uint32_t n, Body body) {
  switch (n) {
    case 0:
      return body(Dims<0>{});
    case 1:
      return body(Dims<1>{});
    case 2:
      return body(Dims<2>{});
    default:
      return body(Dims<3>{});
  }
}

template <unsigned N>
ZQ_GEOM_INLINE double area(const rtr_rect* r) {
  if constexpr (N == 0) {
    return 1.0;
  } else {
    double product = extent(r, 0);
#pragma GCC unroll 3
    for (unsigned k = 1; k < N; ++k) product = product * extent(r, k);
    return product;
  }
}

template <unsigned N>
ZQ_GEOM_INLINE double margin(const rtr_rect* r) {
  if constexpr (N == 0) {
    return 0.0;
  } else {
    double sum = extent(r, 0);
#pragma GCC unroll 3
    for (unsigned k = 1; k < N; ++k) sum = sum + extent(r, k);
    return sum;
  }
}

template <unsigned N>
ZQ_GEOM_INLINE double overlap(const rtr_rect* a, const rtr_rect* b) {
  double product = 1.0;
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    const double l = lo(a, k) > lo(b, k) ? lo(a, k) : lo(b, k);
    const double h = hi(a, k) < hi(b, k) ? hi(a, k) : hi(b, k);
    if (l > h) return 0.0;
    product = k == 0 ? h - l : product * (h - l);
  }
  return product;
}

template <unsigned N>
ZQ_GEOM_INLINE void union_into(const rtr_rect* a, const rtr_rect* b, rtr_rect* out) {
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    // Both inputs are read before out is written, so out may alias either.
    // Ties and NaN take b's value.
    const double mn = lo(a, k) < lo(b, k) ? lo(a, k) : lo(b, k);
    const double mx = hi(a, k) > hi(b, k) ? hi(a, k) : hi(b, k);
    out->*kMin[k] = mn;
    out->*kMax[k] = mx;
  }
}

template <unsigned N>
ZQ_GEOM_INLINE void grow(rtr_rect* acc, const rtr_rect* b) {
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    if (!(lo(b, k) > lo(acc, k))) acc->*kMin[k] = lo(b, k);
    if (!(hi(acc, k) > hi(b, k))) acc->*kMax[k] = hi(b, k);
  }
}

// area<N> of the union_into<N> of a and b, without building the box: the
// same extents (ties and NaN take b's value) multiplied in the same order.
// Spelled out per axis: the descent runs it for every child of every level,
// and the compiler does not unroll the generic loop over member pointers.
template <unsigned N>
double union_area(const rtr_rect* a, const rtr_rect* b) {
  if constexpr (N == 0) {
    return 1.0;
  } else {
    auto extent_of_union = [&](auto k) {
      const double mn = lo(a, k()) < lo(b, k()) ? lo(a, k()) : lo(b, k());
      const double mx = hi(a, k()) > hi(b, k()) ? hi(a, k()) : hi(b, k());
      return mx - mn;
    };
    double product = extent_of_union(Dims<0>{});
    if constexpr (N > 1) product = product * extent_of_union(Dims<1>{});
    if constexpr (N > 2) product = product * extent_of_union(Dims<2>{});
    return product;
  }
}

// The first cell's whole box grown by every further one, in array order; the
// first box is copied even when count is 0. grow(acc, b) keeps acc's value
// only where it is strictly beyond b's, which is union_into(acc, b) exactly;
// the running box lives in locals so the loop need not store and reload it
// for fear that out aliases a cell.
template <unsigned N>
void union_cells(uint32_t count, const rtr_cell* cells, rtr_rect* out) {
  rtr_rect acc = cells[0].rect;
  double mn[3], mx[3];
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    mn[k] = lo(&acc, k);
    mx[k] = hi(&acc, k);
  }
  for (uint32_t i = 1; i < count; ++i) {
    const rtr_rect* b = &cells[i].rect;
#pragma GCC unroll 3
    for (unsigned k = 0; k < N; ++k) {
      mn[k] = mn[k] < lo(b, k) ? mn[k] : lo(b, k);
      mx[k] = mx[k] > hi(b, k) ? mx[k] : hi(b, k);
    }
  }
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    acc.*kMin[k] = mn[k];
    acc.*kMax[k] = mx[k];
  }
  *out = acc;
}

// True when a used axis of one of the boxes holds a NaN.
template <unsigned N>
bool any_nan(const rtr_cell* cells, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
#pragma GCC unroll 3
    for (unsigned k = 0; k < N; ++k) {
      if (std::isnan(lo(&cells[i].rect, k)) || std::isnan(hi(&cells[i].rect, k))) return true;
    }
  }
  return false;
}

// Containment and overlap fail only on an ordered strict comparison, so a
// NaN coordinate never makes them fail.
template <unsigned N>
ZQ_GEOM_INLINE bool contains(const rtr_rect* a, const rtr_rect* b) {
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    if (lo(a, k) > lo(b, k) || hi(b, k) > hi(a, k)) return false;
  }
  return true;
}

template <unsigned N>
ZQ_GEOM_INLINE bool overlaps(const rtr_rect* a, const rtr_rect* b) {
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    if (lo(a, k) > hi(b, k) || lo(b, k) > hi(a, k)) return false;
  }
  return true;
}

template <unsigned N>
ZQ_GEOM_INLINE bool equal(const rtr_rect* a, const rtr_rect* b) {
#pragma GCC unroll 3
  for (unsigned k = 0; k < N; ++k) {
    if (!(lo(a, k) == lo(b, k)) || !(hi(a, k) == hi(b, k))) return false;
  }
  return true;
}

constexpr uint32_t kOverlapBits = RTR_OP_INTERSECT | RTR_OP_WITHIN;
constexpr uint32_t kContainBits = RTR_OP_CONTAINS | RTR_OP_EQUAL;
constexpr uint32_t kShapeBits = RTR_OP_INTERSECT | RTR_OP_CONTAINS | RTR_OP_WITHIN;

// AND mode: CONTAINS makes INTERSECT and WITHIN go untested.
template <unsigned N>
ZQ_GEOM_INLINE bool leaf_and(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  if ((op & RTR_OP_CONTAINS) != 0) {
    if (!contains<N>(e, q)) return false;
  } else if ((op & RTR_OP_WITHIN) != 0) {
    if (!contains<N>(q, e)) return false;
    if ((op & RTR_OP_INTERSECT) != 0 && !overlaps<N>(e, q)) return false;
  } else if ((op & RTR_OP_INTERSECT) != 0) {
    if (!overlaps<N>(e, q)) return false;
  }
  // ANY is ignored in AND mode: an operator without bits accepts everything.
  return (op & RTR_OP_EQUAL) == 0 || equal<N>(e, q);
}

template <unsigned N>
ZQ_GEOM_INLINE bool leaf_or(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  if ((op & RTR_OP_ANY) != 0) return true;
  if ((op & RTR_OP_INTERSECT) != 0 && overlaps<N>(e, q)) return true;
  if ((op & RTR_OP_CONTAINS) != 0 && contains<N>(e, q)) return true;
  if ((op & RTR_OP_WITHIN) != 0 && contains<N>(q, e)) return true;
  if ((op & RTR_OP_EQUAL) != 0) return equal<N>(e, q);
  return (op & kShapeBits) == 0;
}

// A subtree can hold an entry overlapping or within q only if its box
// overlaps q, and one containing or equal to q only if its box contains q.
template <unsigned N>
ZQ_GEOM_INLINE bool branch_and(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  if ((op & kOverlapBits) != 0 && !overlaps<N>(e, q)) return false;
  return (op & kContainBits) == 0 || contains<N>(e, q);
}

template <unsigned N>
ZQ_GEOM_INLINE bool branch_or(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  if ((op & RTR_OP_ANY) != 0) return true;
  if ((op & kOverlapBits) != 0 && overlaps<N>(e, q)) return true;
  if ((op & kContainBits) != 0) return contains<N>(e, q);
  return (op & kOverlapBits) == 0;
}

template <unsigned N>
ZQ_GEOM_INLINE bool leaf_test(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  return (op & RTR_OP_OR) != 0 ? leaf_or<N>(e, q, op) : leaf_and<N>(e, q, op);
}

template <unsigned N>
ZQ_GEOM_INLINE bool branch_test(const rtr_rect* e, const rtr_rect* q, uint32_t op) {
  return (op & RTR_OP_OR) != 0 ? branch_or<N>(e, q, op) : branch_and<N>(e, q, op);
}

}  // namespace zqrtree::geom
