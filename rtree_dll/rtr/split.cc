// Node split: dividing a full node's 51 entries and the one that did not fit
// between two nodes by the R* choice of axis and position, then telling the
// parent and the moved children.
//
// Call order: rtr_insert_cell -> rtr_split_node -> rtr_split_node_star_tree
// (-> rtr_sort_by_dimension per axis) -> the parent's entries are updated
// (rtr_adjust_tree, rtr_insert_cell, which may split the parent in turn) ->
// rtr_update_parent for every child that changed node. A root split keeps id
// 1 for the root and makes the tree one level taller.
#include <algorithm>
#include <cstring>

#include "rtr/frame.h"
#include "rtr/geom_inline.h"
#include "rtr/tree_internal.h"
#include "zqrtree/tree.h"

namespace {

using zqrtree::fail;
namespace geom = zqrtree::geom;

constexpr uint32_t kMinGroup = 2;  // each side of a split keeps at least this many entries
constexpr uint32_t kMaxEntries = RTR_MAX_CELLS + 1;  // a full node and the entry that did not fit

// The state of one rtr_split_node call.
struct Split {
  // The entry array is left for collect_entries to fill, not zeroed first.
  Split(zq_env* e, rtr_mem* r, rtr_node* nd, const rtr_cell* c, uint32_t lv)
      : env(e), rtr(r), node(nd), cell(c), level(lv), is_root(nd->id == RTR_ROOT_ID) {}

  zq_env* env;                        // the caller's environment
  rtr_mem* rtr;                       // the handle
  rtr_node* node;                     // the full node (pinned by the caller)
  const rtr_cell* cell;               // the entry that did not fit
  uint32_t level;                     // the node's level
  bool is_root;                       // node is node 1
  uint32_t n = 0;                     // entries to divide
  rtr_cell cells[RTR_MAX_CELLS + 1];  // node's entries, then `cell`
  rtr_node* left = nullptr;           // node itself (extra pin) or, at the root, a new node
  rtr_node* right = nullptr;          // always a new node
  rtr_cell left_cell{};               // entry for the left node in its parent
  rtr_cell right_cell{};              // entry for the right node in its parent
};

void collect_entries(Split& s) {
  s.n = s.node->n_cells + 1;
  std::memcpy(s.cells, s.node->cells, sizeof(rtr_cell) * s.node->n_cells);
  s.cells[s.n - 1] = *s.cell;
  rtr_node_zero(s.env, s.rtr, s.node);
}

int32_t make_targets(Split& s) {
  if (!s.is_root) {
    s.left = s.node;
    rtr_node_reference(s.left);
    return rtr_node_new(s.env, s.rtr, s.node->parent_id, s.node->level, &s.right);
  }
  int32_t rc = rtr_node_new(s.env, s.rtr, RTR_ROOT_ID, s.node->level, &s.left);
  if (rc < 0) return rc;
  rc = rtr_node_new(s.env, s.rtr, RTR_ROOT_ID, s.node->level, &s.right);
  if (rc < 0) return rc;
  s.rtr->root_level += 1;
  s.node->level = s.rtr->root_level;
  rtr_node_set_modify(s.env, s.rtr, s.node);
  return 0;
}

// The left entry replaces the node's entry in its parent (its box may
// shrink); at the root it becomes the root's first entry.
int32_t place_left(Split& s) {
  if (s.is_root) return rtr_insert_cell(s.env, s.rtr, s.node, &s.left_cell, s.level + 1);
  rtr_node* parent = nullptr;
  int32_t rc = rtr_node_acquire(s.env, s.rtr, s.node->parent_id, &parent);
  if (rc < 0) return rc;
  uint32_t slot = zqrtree::kNoIndex;
  rtr_node_parent_index(s.rtr, parent, s.node, &slot);
  if (slot >= parent->n_cells) {
    rc = RTR_ERR_NOT_FOUND;  // parent ids are corrupt; never write outside the cells
  } else {
    rtr_node_overwrite_cell(s.env, s.rtr, parent, &s.left_cell, slot);
    rc = rtr_adjust_tree(s.env, s.rtr, parent, &s.left_cell);
  }
  rtr_node_release(parent);
  return rc;
}

// May overflow the parent and reinsert or split one level up.
int32_t place_right(Split& s) {
  int64_t parent_id = s.is_root ? RTR_ROOT_ID : s.node->parent_id;
  rtr_node* parent = nullptr;
  int32_t rc = rtr_node_acquire(s.env, s.rtr, parent_id, &parent);
  if (rc < 0) return rc;
  rc = rtr_insert_cell(s.env, s.rtr, parent, &s.right_cell, s.level + 1);
  rtr_node_release(parent);
  return rc;
}

int32_t reparent_all(Split& s, rtr_node* target, bool* saw_cell) {
  for (uint32_t i = 0; i < target->n_cells; ++i) {
    if (target->cells[i].id == s.cell->id) *saw_cell = true;
    int32_t rc = rtr_update_parent(s.env, s.rtr, target->cells[i].id, target, s.level);
    if (rc < 0) return rc;
  }
  return 0;
}

int32_t reparent_children(Split& s) {
  if (s.level == 0) return 0;
  bool cell_in_right = false;
  int32_t rc = reparent_all(s, s.right, &cell_in_right);
  if (rc < 0) return rc;
  if (!s.is_root && !cell_in_right) {
    rc = rtr_update_parent(s.env, s.rtr, s.cell->id, s.left, s.level);
    if (rc < 0) return rc;
  }
  bool unused = false;
  return s.is_root ? reparent_all(s, s.left, &unused) : 0;
}

int32_t finish(Split& s, int32_t rc) {
  rtr_node_release(s.right);
  rtr_node_release(s.left);
  if (rc < 0) return fail(s.env, rc, "rtr_split_node");
  return rc;
}

// ---- the choice of axis and position ----

// The state of one rtr_split_node_star_tree call.
struct Choice {
  rtr_mem* rtr;            // the handle: dimension count and node edits
  const rtr_cell* cells;   // the entries to divide
  uint32_t n;              // their number
  uint32_t axes;           // axes with an order of their own
  uint32_t** order;        // per axis: entry indices sorted on that axis
  uint32_t* merge;         // one merge buffer for every sort
  uint32_t best_axis = 0;  // the chosen axis
  uint32_t best_j[3] = {kMinGroup, kMinGroup, kMinGroup};  // per axis: its best position
  bool ordered = false;                                    // no NaN on a sorted or measured axis
  bool by_suffix = false;                                  // positions scored in one pass
};

// Carves the one scratch block of (n_dims + 1) * (n + 2) words: the table of
// per-axis orders (two words per pointer), the orders, the merge buffer.
bool carve_block(Choice& c, const zqrtree::ScratchHeap& heap) {
  size_t words = (static_cast<size_t>(c.rtr->n_dims) + 1) * (c.n + 2);
  words = std::max(words, (static_cast<size_t>(c.axes) + 1) * (c.n + 2));  // count 0 still sorts
  auto* block = static_cast<uint32_t*>(heap.alloc(words * sizeof(uint32_t), __FILE__, __LINE__));
  if (block == nullptr) return false;
  c.order = reinterpret_cast<uint32_t**>(block);
  uint32_t* arrays = block + 2 * c.axes;
  for (uint32_t k = 0; k < c.axes; ++k) c.order[k] = arrays + k * c.n;
  c.merge = arrays + c.axes * c.n;
  return true;
}

// The merge sort of rtr_sort_by_dimension with the axis fixed.
template <unsigned K>
void sort_on_axis(uint32_t* idx, uint32_t n, const rtr_cell* cells, uint32_t* tmp) {
  if (n < 2) return;
  const uint32_t half = n / 2;
  sort_on_axis<K>(idx, half, cells, tmp);
  sort_on_axis<K>(idx + half, n - half, cells, tmp);
  std::memcpy(tmp, idx, sizeof(uint32_t) * half);
  uint32_t l = 0, r = half, out = 0;
  while (l < half) {
    // Of two entries equal in min and max the right one goes first: this
    // merge is deliberately not stable.
    bool take_left = r == n;
    if (!take_left) {
      const rtr_rect* a = &cells[tmp[l]].rect;
      const rtr_rect* b = &cells[idx[r]].rect;
      const double amin = geom::lo(a, K), bmin = geom::lo(b, K);
      take_left = bmin > amin || (bmin == amin && geom::hi(b, K) > geom::hi(a, K));
    }
    idx[out++] = take_left ? tmp[l++] : idx[r++];
  }
}

void sort_by_axis(uint32_t* idx, uint32_t n, uint32_t axis, const rtr_cell* cells, uint32_t* tmp) {
  switch (axis) {
    case 0:
      return sort_on_axis<0>(idx, n, cells, tmp);
    case 1:
      return sort_on_axis<1>(idx, n, cells, tmp);
    default:
      return sort_on_axis<2>(idx, n, cells, tmp);
  }
}

// Entry indices by (minimum, maximum) on axis K and, between entries equal in
// both, the higher index first: the permutation sort_on_axis produces when
// no coordinate of the axis is NaN (see zqrtree::sort_like_merge).
template <unsigned K>
void sort_ordered_axis(uint32_t* idx, uint32_t n, const rtr_cell* cells) {
  struct Key {
    double lo, hi;
    uint32_t i;
  };
  Key keys[kMaxEntries];
  for (uint32_t i = 0; i < n; ++i)
    keys[i] = Key{geom::lo(&cells[i].rect, K), geom::hi(&cells[i].rect, K), i};
  zqrtree::sort_like_merge(keys, n, [](const Key& a, const Key& b) {
    return a.lo < b.lo || (a.lo == b.lo && a.hi < b.hi);
  });
  for (uint32_t p = 0; p < n; ++p) idx[p] = keys[p].i;
}

void sort_axes(Choice& c) {
  for (uint32_t k = 0; k < c.axes; ++k) {
    uint32_t* idx = c.order[k];
    if (c.ordered && c.n <= kMaxEntries) {
      if (k == 0) sort_ordered_axis<0>(idx, c.n, c.cells);
      if (k == 1) sort_ordered_axis<1>(idx, c.n, c.cells);
      if (k >= 2) sort_ordered_axis<2>(idx, c.n, c.cells);
      continue;
    }
    for (uint32_t i = 0; i < c.n; ++i) idx[i] = i;
    sort_by_axis(idx, c.n, k, c.cells, c.merge);
  }
}

// What one split position measures. Lower and upper group boxes are built in
// the same scratch box, so both measure as the upper group's box: intended.
struct Score {
  double margin;   // margins of lower and upper box
  double overlap;  // overlap of the two
  double area;     // areas of both
};

template <unsigned N>
Score measure(const rtr_rect* box) {
  const rtr_rect* lower = box;
  const rtr_rect* upper = box;
  return Score{geom::margin<N>(lower) + geom::margin<N>(upper), geom::overlap<N>(lower, upper),
               geom::area<N>(lower) + geom::area<N>(upper)};
}

// The measured box of position j, built the long way: the lower group from
// the first entry over positions 1 .. j - 1, then the same box restarted at
// the last entry and grown by positions j .. n - 2. Quadratic in n.
template <unsigned N>
Score score_by_rebuild(const Choice& c, const uint32_t* idx, uint32_t j) {
  rtr_rect box = c.cells[idx[0]].rect;  // the lower box starts here...
  for (uint32_t i = 1; i + 1 < c.n; ++i) {
    if (i == j) box = c.cells[idx[c.n - 1]].rect;  // ...and the upper box here
    geom::union_into<N>(&box, &c.cells[idx[i]].rect, &box);
  }
  return measure<N>(&box);
}

// The same boxes for every position at once, from one suffix pass. A union
// keeps the smaller minimum and the larger maximum and, between values that
// compare equal, the later one (b's). Folding "last entry, then positions
// j .. n - 2" left to right therefore yields, per coordinate, the last
// position whose value compares equal to the extreme, and so does folding
// positions j .. n - 2 right to left and then taking the last entry in front
// of that: the same entry's bits, -0.0 against +0.0 included. A NaN breaks
// the ordering the argument needs (any union with it takes b's value), so
// nodes holding one are scored by score_by_rebuild.
template <unsigned N>
void score_by_suffix(const Choice& c, const uint32_t* idx, Score* scores) {
  const rtr_rect* last = &c.cells[idx[c.n - 1]].rect;
  rtr_rect suffix = c.cells[idx[c.n - 2]].rect;  // positions j .. n - 2
  for (uint32_t j = c.n - 2;; --j) {
    if (j + 2 < c.n) geom::union_into<N>(&c.cells[idx[j]].rect, &suffix, &suffix);
    rtr_rect box = *last;
    geom::union_into<N>(last, &suffix, &box);
    scores[j] = measure<N>(&box);
    if (j == kMinGroup) break;
  }
}

// Scores every position of axis k, records its best one and returns the
// axis's margin sum (summed in position order).
template <unsigned N>
double score_axis(Choice& c, uint32_t k) {
  const uint32_t* idx = c.order[k];
  Score scores[kMaxEntries];
  if (c.by_suffix) score_by_suffix<N>(c, idx, scores);
  double margin_sum = 0.0;
  double best_overlap = 0.0;
  double best_area = 0.0;
  for (uint32_t j = kMinGroup; j + kMinGroup <= c.n; ++j) {
    const Score s = c.by_suffix ? scores[j] : score_by_rebuild<N>(c, idx, j);
    margin_sum += s.margin;
    if (j == kMinGroup || s.overlap < best_overlap ||
        (s.overlap == best_overlap && s.area < best_area)) {
      c.best_j[k] = j;
      best_overlap = s.overlap;
      best_area = s.area;
    }
  }
  return margin_sum;
}

template <unsigned N>
void choose_axis(Choice& c) {
  c.by_suffix = c.ordered && c.n >= 2 * kMinGroup && c.n <= kMaxEntries;
  double best_margin = 0.0;
  for (uint32_t k = 0; k < c.axes; ++k) {
    double margin = score_axis<N>(c, k);
    if (k == 0 || margin < best_margin) {
      c.best_axis = k;
      best_margin = margin;
    }
  }
}

int32_t distribute(Choice& c, zq_env* env, rtr_node* left, rtr_node* right, rtr_cell* left_cell,
                   rtr_cell* right_cell) {
  const uint32_t* idx = c.order[c.best_axis];
  uint32_t j = c.best_j[c.best_axis];
  *left_cell = c.cells[idx[0]];
  *right_cell = c.cells[idx[j]];
  for (uint32_t p = 0; p < c.n; ++p) {
    const rtr_cell& e = c.cells[idx[p]];
    rtr_node* side = p < j ? left : right;
    rtr_cell* out = p < j ? left_cell : right_cell;
    int32_t rc = rtr_node_insert_cell(env, c.rtr, side, &e);
    if (rc < 0) return rc;
    geom::by_dims(c.rtr->n_dims, [&](auto d) { geom::grow<d()>(&out->rect, &e.rect); });
  }
  return 0;
}

}  // namespace

extern "C" int32_t rtr_split_node(zq_env* env, rtr_mem* rtr, rtr_node* node, const rtr_cell* cell,
                                  uint32_t level) {
  Split s(env, rtr, node, cell, level);
  collect_entries(s);
  int32_t rc = make_targets(s);
  // The node stays emptied and no pin is dropped: intended, nothing is undone.
  if (rc < 0) return fail(env, rc, "rtr_split_node");
  rc = rtr_split_node_star_tree(env, rtr, s.cells, s.n, s.left, s.right, &s.left_cell,
                                &s.right_cell);
  if (rc < 0) return finish(s, rc);
  s.left_cell.id = s.left->id;
  s.right_cell.id = s.right->id;
  rc = place_left(s);
  if (rc < 0) return finish(s, rc);
  int32_t placed = place_right(s);
  if (placed < 0) return finish(s, placed);
  rc = reparent_children(s);
  return finish(s, rc < 0 ? rc : placed);
}

extern "C" int32_t rtr_split_node_star_tree(zq_env* env, rtr_mem* rtr, const rtr_cell* cells,
                                            uint32_t n, rtr_node* left, rtr_node* right,
                                            rtr_cell* left_cell, rtr_cell* right_cell) {
  zqrtree::ScratchHeap heap(env, __FILE__, __LINE__);
  Choice c{rtr, cells, n, std::max(zqrtree::used_axes(rtr), 1u), nullptr, nullptr};
  if (!carve_block(c, heap)) {
    heap.release();  // a failed allocation leaves the heap alive: intended
    return fail(env, RTR_ERR_NO_ROOM, "rtr_split_node_star_tree");
  }
  // Axis 0 is sorted even with a count of 0.
  c.ordered = !geom::by_dims(c.axes, [&](auto d) { return geom::any_nan<d()>(cells, n); });
  sort_axes(c);
  geom::by_dims(rtr->n_dims, [&](auto d) { choose_axis<d()>(c); });
  int32_t rc = distribute(c, env, left, right, left_cell, right_cell);
  if (rc < 0) return fail(env, rc, "rtr_split_node_star_tree");
  return 0;
}

extern "C" void rtr_sort_by_dimension(const rtr_mem* /*rtr*/, uint32_t* idx, uint32_t n,
                                      uint32_t axis, const rtr_cell* cells, uint32_t* tmp) {
  sort_by_axis(idx, n, axis, cells, tmp);
}
