// Forced reinsertion: the R* alternative to a split. A full non-root node
// keeps the entries nearest the mean of the entry centres and the three
// farthest are inserted again from the top, at the same level.
//
// Call order: rtr_insert_cell -> rtr_reinsert -> rtr_sort_by_distance ->
// the node is refilled -> rtr_fix_bounding_box -> rtr_choose_leaf and
// rtr_insert_cell for each entry taken out, nearest first.
#include <cfloat>
#include <cmath>
#include <cstring>

#include "rtr/frame.h"
#include "rtr/tree_internal.h"
#include "zqrtree/tree.h"

namespace {

using zqrtree::axis_max;
using zqrtree::axis_min;
using zqrtree::fail;

constexpr uint32_t kReinserted = 3;                  // entries taken out of the node
constexpr uint32_t kMaxEntries = RTR_MAX_CELLS + 1;  // a full node and the entry that did not fit

// The state of one rtr_reinsert call; the arrays live in one scratch block.
struct Reinsert {
  uint32_t m;       // entries: the node's, then the new one
  uint32_t axes;    // axes measured
  rtr_cell* cells;  // m entries
  double* dist;     // squared distance of each entry from the centre
  uint32_t* order;  // entry indices, nearest first
  uint32_t* merge;  // merge buffer of the sort
};

// One block of 72 bytes per entry: cell, distance, order index, merge index.
bool carve_block(Reinsert& r, const zqrtree::ScratchHeap& heap) {
  constexpr size_t kPerEntry = sizeof(rtr_cell) + sizeof(double) + 2 * sizeof(uint32_t);
  static_assert(kPerEntry == 72);
  auto* block = static_cast<unsigned char*>(heap.alloc(kPerEntry * r.m, __FILE__, __LINE__));
  if (block == nullptr) return false;
  r.cells = reinterpret_cast<rtr_cell*>(block);
  r.dist = reinterpret_cast<double*>(block + sizeof(rtr_cell) * r.m);
  r.order = reinterpret_cast<uint32_t*>(block + (sizeof(rtr_cell) + sizeof(double)) * r.m);
  r.merge = r.order + r.m;
  return true;
}

// The centre is the mean of the entries' centres, not the centre of the
// node's box.
void measure_distances(Reinsert& r) {
  double centre[3] = {0.0, 0.0, 0.0};
  for (uint32_t k = 0; k < r.axes; ++k) {
    double sum = 0.0;
    for (uint32_t i = 0; i < r.m; ++i) {
      sum += axis_min(r.cells[i].rect, k) + axis_max(r.cells[i].rect, k);
    }
    centre[k] = sum / (2.0 * r.m);
  }
  for (uint32_t i = 0; i < r.m; ++i) {
    double d = 0.0;
    for (uint32_t k = 0; k < r.axes; ++k) {
      double off = (axis_min(r.cells[i].rect, k) + axis_max(r.cells[i].rect, k)) * 0.5 - centre[k];
      d += off * off;
    }
    r.dist[i] = d;
    r.order[i] = i;
  }
}

// Nearest first. Without NaN among the distances the merge sort's order is
// that of (distance, descending index) (see zqrtree::sort_like_merge).
void sort_by_distance(Reinsert& r) {
  bool ordered = r.m <= kMaxEntries;
  for (uint32_t i = 0; ordered && i < r.m; ++i) ordered = !std::isnan(r.dist[i]);
  if (!ordered) {
    rtr_sort_by_distance(r.order, r.m, r.dist, r.merge);
    return;
  }
  struct Key {
    double dist;
    uint32_t i;
  };
  Key keys[kMaxEntries];
  for (uint32_t i = 0; i < r.m; ++i) keys[i] = Key{r.dist[i], i};
  zqrtree::sort_like_merge(keys, r.m, [](const Key& a, const Key& b) { return a.dist < b.dist; });
  for (uint32_t p = 0; p < r.m; ++p) r.order[p] = keys[p].i;
}

int32_t refill_node(zq_env* env, rtr_mem* rtr, rtr_node* node, const Reinsert& r) {
  rtr_node_zero(env, rtr, node);
  for (uint32_t p = 0; p + kReinserted < r.m; ++p) {
    int32_t rc = rtr_node_insert_cell(env, rtr, node, &r.cells[r.order[p]]);
    if (rc < 0) return rc;
  }
  return rtr_fix_bounding_box(env, rtr, node);
}

int32_t place_again(zq_env* env, rtr_mem* rtr, const rtr_cell* entry, uint32_t level) {
  rtr_node* target = nullptr;
  int32_t rc = rtr_choose_leaf(env, rtr, entry, level, &target);
  if (rc < 0) return rc;
  rc = rtr_insert_cell(env, rtr, target, entry, level);
  rtr_node_release(target);
  return rc;
}

}  // namespace

extern "C" int32_t rtr_reinsert(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                                uint32_t level) {
  zqrtree::ScratchHeap heap(env, __FILE__, __LINE__);
  Reinsert r{node->n_cells + 1, zqrtree::used_axes(rtr), nullptr, nullptr, nullptr, nullptr};
  // An engine out of memory here would have us write through null; stop instead.
  if (!carve_block(r, heap)) return fail(env, RTR_ERR_NO_ROOM, "rtr_reinsert");
  std::memcpy(r.cells, node->cells, sizeof(rtr_cell) * node->n_cells);
  r.cells[r.m - 1] = *cell;
  // A new entry whose third maximum is +infinity is measured on two axes
  // only, whatever the index's dimension count: intended.
  if (cell->rect.max2 == DBL_MAX + DBL_MAX) r.axes = 2;
  measure_distances(r);
  sort_by_distance(r);
  int32_t rc = refill_node(env, rtr, node, r);
  if (rc < 0) return fail(env, rc, "rtr_reinsert");
  // Entries not yet placed when a placement fails are lost: nothing is undone.
  for (uint32_t p = r.m - kReinserted; p < r.m; ++p) {
    rc = place_again(env, rtr, &r.cells[r.order[p]], level);
    if (rc < 0) return fail(env, rc, "rtr_reinsert");
  }
  return rc;
}

extern "C" void rtr_sort_by_distance(uint32_t* idx, uint32_t n, const double* dist, uint32_t* tmp) {
  if (n < 2) return;
  uint32_t half = n / 2;
  rtr_sort_by_distance(idx, half, dist, tmp);
  rtr_sort_by_distance(idx + half, n - half, dist, tmp);
  std::memcpy(tmp, idx, sizeof(uint32_t) * half);
  uint32_t l = 0, r = half, out = 0;
  while (l < half) {
    // Of equal distances the right element goes first: not stable, on purpose.
    bool take_left = r == n || dist[idx[r]] > dist[tmp[l]];
    idx[out++] = take_left ? tmp[l++] : idx[r++];
  }
}
