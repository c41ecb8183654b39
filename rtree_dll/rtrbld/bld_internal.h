// Internal to the bulk build: where each value sits in a sort row, box axis
// access, and guards that give a build's sorters, batches and slice buffer
// back on every path.
#ifndef ZQRTREE_RTRBLD_BLD_INTERNAL_H
#define ZQRTREE_RTRBLD_BLD_INTERNAL_H

#include <algorithm>
#include <cstdint>

#include "zqhost/mem.h"
#include "zqhost/sort.h"
#include "zqrtree/geom.h"

namespace zqrtree::bld {

// Sort row of d axes: id, then min and max of each axis, then the key.
inline constexpr uint16_t kColId = 0;
constexpr uint16_t col_min(uint32_t axis) {
  return static_cast<uint16_t>(2 * axis + 1);
}
constexpr uint16_t col_max(uint32_t axis) {
  return static_cast<uint16_t>(2 * axis + 2);
}
constexpr uint16_t col_key(uint16_t n_dims) {
  return static_cast<uint16_t>(2 * n_dims + 1);
}
constexpr uint16_t n_cols(uint16_t n_dims) {
  return static_cast<uint16_t>(2 * n_dims + 2);
}
inline constexpr uint16_t kMaxCols = 8;  // three axes

// Axes beyond three are taken as three, as everywhere in the geometry.
constexpr uint16_t clamp_dims(uint16_t n_dims) {
  return std::min<uint16_t>(n_dims, 3);
}

inline double rect_min(const rtr_rect& r, uint32_t axis) {
  return axis == 0 ? r.min0 : axis == 1 ? r.min1 : r.min2;
}
inline double rect_max(const rtr_rect& r, uint32_t axis) {
  return axis == 0 ? r.max0 : axis == 1 ? r.max1 : r.max2;
}
inline void set_axis(rtr_rect& r, uint32_t axis, double lo, double hi) {
  (axis == 0 ? r.min0 : axis == 1 ? r.min1 : r.min2) = lo;
  (axis == 0 ? r.max0 : axis == 1 ? r.max1 : r.max2) = hi;
}

// A sorter destroyed when the guard leaves scope.
class SorterGuard {
 public:
  explicit SorterGuard(zq_env* env) : env_(env) {}
  SorterGuard(const SorterGuard&) = delete;
  SorterGuard& operator=(const SorterGuard&) = delete;
  ~SorterGuard() {
    if (sorter_ != nullptr) nsort_destory(env_, sorter_);
  }
  zq_nsort** out() { return &sorter_; }
  zq_nsort* get() const { return sorter_; }

 private:
  zq_env* env_;
  zq_nsort* sorter_ = nullptr;
};

// A batch freed, storage and all, when the guard leaves scope.
class BdtaGuard {
 public:
  BdtaGuard(zq_env* env, zq_memobj* mem) : env_(env), mem_(mem) {}
  BdtaGuard(const BdtaGuard&) = delete;
  BdtaGuard& operator=(const BdtaGuard&) = delete;
  ~BdtaGuard() {
    if (bdta_ != nullptr) bdta3_free2(env_, mem_, bdta_);
  }
  zq_bdta** out() { return &bdta_; }
  zq_bdta* get() const { return bdta_; }

 private:
  zq_env* env_;
  zq_memobj* mem_;
  zq_bdta* bdta_ = nullptr;
};

// Gives a block back through the memory object's free routine, when it has
// one and a heap; a heap without one frees its blocks when it dies.
inline void give_back(zq_env* env, zq_memobj* mem, void* ptr) {
  if (ptr != nullptr && mem->heap != nullptr && mem->free != nullptr)
    mem->free(env, mem->heap, ptr);
}

}  // namespace zqrtree::bld

#endif
