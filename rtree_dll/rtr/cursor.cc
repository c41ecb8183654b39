// The depth-first search cursor and its stack of search points.
//
// Call order: rcur_init -> rcur_open -> (rcur_rowid_ex | rcur_column ->
// rcur_next)* until rcur_is_end. rcur_open and rcur_next both end in
// rcur_step_to_leaf, which scans the node of the top search point and pushes
// either the matching child's point or a result point. The stack lives in the
// cursor record (the top point in `first`, the rest in `stack`), so a scan
// allocates nothing, and every node is released before a call returns.
#include "zqrtree/cursor.h"

#include <cstring>

#include "rtr/frame.h"
#include "rtr/geom_inline.h"
#include "rtr/node_hash.h"

namespace {

using zqrtree::fail;

// Every node test compares the first two axes, whatever the index's
// dimension count: intended. The engine side zeroes unused axes and rechecks
// three-dimensional hits itself.
constexpr uint32_t kCursorAxes = 2;

struct Hit {
  int64_t node_id;     // child to descend into, or the leaf of a result point
  uint8_t level_mark;  // 0 for a result point
  uint8_t cell_no;     // 0 for a child, the hit cell in a leaf
};

// Tests the cells of the top point's node from its cell_no on with
// `matches`; returns the index of the first match or n_cells. The point's
// cell_no already names the next cell to test when the compare runs.
template <class Matches>
uint32_t scan_with(rcur_spnt* point, const rtr_node* node, Matches matches) {
  const uint32_t n = node->n_cells;
  uint32_t i = point->cell_no;
  if (i >= n) return n;
  for (; i < n; ++i) {
    if (matches(node->cells[i].rect)) {
      point->cell_no = static_cast<uint8_t>(i + 1);
      return i;
    }
  }
  point->cell_no = static_cast<uint8_t>(n);
  return n;
}

// The tests are the ones rtr_get_rect_cmp_fun hands out, inlined for two
// axes. For the plain window query leaf and branch tests both reduce to
// overlap, evaluated without short-circuit so that a node's cells cost no
// mispredicted branches (an unordered compare is false either way).
uint32_t scan_node(const rcur* cur, rcur_spnt* point, const rtr_node* node) {
  const rtr_rect& q = cur->rect;
  const uint32_t op = cur->op;
  if (op == RTR_OP_INTERSECT)
    return scan_with(point, node, [&q](const rtr_rect& e) {
      return !((e.min0 > q.max0) | (q.min0 > e.max0) | (e.min1 > q.max1) | (q.min1 > e.max1));
    });
  if (node->level == 0)
    return scan_with(point, node, [&q, op](const rtr_rect& e) {
      return zqrtree::geom::leaf_test<kCursorAxes>(&e, &q, op);
    });
  return scan_with(point, node, [&q, op](const rtr_rect& e) {
    return zqrtree::geom::branch_test<kCursorAxes>(&e, &q, op);
  });
}

// A node is scanned from its first cell only once per visit; asking for all
// its lines up front overlaps their memory latency instead of paying it a
// line at a time as the scan walks in.
void prefetch_cells(const rtr_node* node) {
  const char* p = reinterpret_cast<const char*>(node->cells);
  const char* end = reinterpret_cast<const char*>(node->cells + node->n_cells);
  for (; p < end; p += 64) __builtin_prefetch(p);
}

// The child the branch scan will descend into after the one at `from - 1`:
// its node is fetched from memory while the current child's subtree is
// walked. Only a hint: the node is found the usual way when its turn comes,
// and the head of its hash chain is most often the node itself.
void prefetch_next_child(const rcur* cur, const rtr_node* node, uint32_t from) {
  const rtr_mem* rtr = cur->rtr;
  if (rtr->n_cached == 0) return;
  for (uint32_t j = from; j < node->n_cells; ++j) {
    const rtr_rect* e = &node->cells[j].rect;
    if (!zqrtree::geom::branch_test<kCursorAxes>(e, &cur->rect, cur->op)) continue;
    const rtr_node* head = *zqrtree::bucket_of(rtr, node->cells[j].id);
    if (head == nullptr) return;
    const char* p = reinterpret_cast<const char*>(head);
    for (size_t off = 0; off < sizeof(rtr_node); off += 64) __builtin_prefetch(p + off);
    return;
  }
}

uint32_t scan(const rcur* cur, rcur_spnt* point, const rtr_node* node) {
  if (point->cell_no == 0) prefetch_cells(node);
  return scan_node(cur, point, node);
}

}  // namespace

extern "C" int32_t rcur_init(rcur* cur, rtr_mem* rtr, uint32_t op) {
  std::memset(cur, 0, sizeof(*cur));
  cur->rtr = rtr;
  cur->op = static_cast<uint16_t>(op);
  cur->top = RCUR_EMPTY;
  return 0;
}

extern "C" int32_t rcur_open(zq_env* env, rcur* cur, const rtr_rect* rect) {
  // Acquiring the root brings root_level up to date when it is read.
  rtr_node* root = nullptr;
  int32_t rc = rtr_node_acquire(env, cur->rtr, RTR_ROOT_ID, &root);
  if (rc < 0) return fail(env, rc, "rcur_open");
  rtr_node_release(root);
  cur->rect = *rect;
  rcur_spnt* point = rcur_spnt_new(cur, static_cast<uint8_t>(cur->rtr->root_level + 1));
  if (point == nullptr) return RTR_ERR_NO_ROOM;
  point->node_id = RTR_ROOT_ID;
  point->cell_no = 0;
  rc = rcur_step_to_leaf(env, cur);
  // A full stack of search points is returned without a push.
  if (rc < 0 && rc != RTR_ERR_NO_ROOM) return fail(env, rc, "rcur_open");
  return rc;
}

extern "C" uint32_t rcur_is_end(const rcur* cur) {
  return cur->is_end;
}

extern "C" int32_t rcur_next(zq_env* env, rcur* cur) {
  rcur_spnt_pop(cur);
  int32_t rc = rcur_step_to_leaf(env, cur);
  if (rc < 0 && rc != RTR_ERR_NO_ROOM) return fail(env, rc, "rcur_next");
  return rc;
}

extern "C" int32_t rcur_rowid_ex(zq_env* env, rcur* cur, int64_t* rowid, rtr_node** node,
                                 uint8_t* cell_no) {
  *node = nullptr;
  const rcur_spnt* point = rcur_spnt_first(cur);
  // Reading at the end is the caller's error; say so instead of reading nothing.
  if (point == nullptr) return fail(env, RTR_ERR_NOT_FOUND, "rcur_rowid_ex");
  rtr_node* leaf = nullptr;
  int32_t rc = rtr_node_acquire(env, cur->rtr, point->node_id, &leaf);
  if (rc < 0) return fail(env, rc, "rcur_rowid_ex");
  *rowid = leaf->cells[point->cell_no].id;
  *cell_no = point->cell_no;
  *node = leaf;  // pinned: the caller releases it
  return 0;
}

extern "C" int32_t rcur_column(zq_env* env, rcur* cur, rtr_cell* cell) {
  const rcur_spnt* point = rcur_spnt_first(cur);
  if (point == nullptr) return fail(env, RTR_ERR_NOT_FOUND, "rcur_column");
  rtr_node* leaf = nullptr;
  int32_t rc = rtr_node_acquire(env, cur->rtr, point->node_id, &leaf);
  if (rc < 0) return fail(env, rc, "rcur_column");
  *cell = leaf->cells[point->cell_no];
  rtr_node_release(leaf);
  return 0;
}

extern "C" rcur_spnt* rcur_spnt_first(rcur* cur) {
  if (cur->first_valid == 1) return &cur->first;
  if (cur->top == RCUR_EMPTY) return nullptr;
  return &cur->stack[cur->top];
}

extern "C" rcur_spnt* rcur_enqueue(rcur* cur, uint8_t level_mark) {
  uint32_t next = cur->top == RCUR_EMPTY ? 0 : cur->top + 1;
  // One point per tree level: no tree that fits a node table is this deep.
  // The guard only keeps the cursor from writing past its own record.
  if (next >= RCUR_STACK_SIZE) return nullptr;
  cur->top = next;
  cur->stack[next].level_mark = level_mark;
  return &cur->stack[next];
}

extern "C" rcur_spnt* rcur_spnt_new(rcur* cur, uint8_t level_mark) {
  if (cur->first_valid == 1) {
    rcur_spnt* below = rcur_enqueue(cur, level_mark);
    if (below == nullptr) return nullptr;
    *below = cur->first;
  }
  cur->first.level_mark = level_mark;
  cur->first_valid = 1;
  return &cur->first;
}

extern "C" void rcur_spnt_pop(rcur* cur) {
  if (cur->first_valid == 1) {
    cur->first_valid = 0;
  } else if (cur->top != RCUR_EMPTY) {
    cur->top = cur->top == 0 ? RCUR_EMPTY : cur->top - 1;
  }
}

extern "C" rtr_node* rtr_node_of_first_spnt(zq_env* env, rcur* cur, int32_t* status) {
  rtr_node* node = nullptr;
  *status = rtr_node_acquire(env, cur->rtr, rcur_spnt_first(cur)->node_id, &node);
  return *status < 0 ? nullptr : node;
}

extern "C" rtr_rect_cmp_fn rtr_get_rect_cmp_fun(uint32_t level) {
  return level == 0 ? rtr_leaf_rect_cmp : rtr_branch_rect_cmp;
}

extern "C" int32_t rcur_step_to_leaf(zq_env* env, rcur* cur) {
  for (;;) {
    rcur_spnt* point = rcur_spnt_first(cur);
    if (point == nullptr) {
      cur->is_end = 1;
      return 0;
    }
    if (point->level_mark == 0) return 0;  // standing on a hit
    int32_t rc = 0;
    rtr_node* node = rtr_node_of_first_spnt(env, cur, &rc);
    if (node == nullptr) return fail(env, rc, "rcur_step_to_leaf");
    uint32_t i = scan(cur, point, node);
    if (i == node->n_cells) {
      rcur_spnt_pop(cur);
      rtr_node_release(node);
      continue;
    }
    if (node->level != 0) prefetch_next_child(cur, node, i + 1);
    Hit hit = point->level_mark > 1
                  ? Hit{node->cells[i].id, static_cast<uint8_t>(point->level_mark - 1), 0}
                  : Hit{node->id, 0, static_cast<uint8_t>(i)};
    // An exhausted node never stays on the stack under its last child.
    if (i + 1 >= node->n_cells) rcur_spnt_pop(cur);
    rcur_spnt* next = rcur_spnt_new(cur, hit.level_mark);
    // The node stays pinned on this path: intended (a full stack is not
    // reached by any real tree).
    if (next == nullptr) return RTR_ERR_NO_ROOM;
    next->node_id = hit.node_id;
    next->cell_no = hit.cell_no;
    if (next->cell_no >= node->n_cells) rcur_spnt_pop(cur);
    rtr_node_release(node);
  }
}
