// Helpers of the tree tests: boxes with unused axes zeroed, a brute-force
// model of the index with its own predicates, and a fixture that drives the
// library the way the engine side does (one handle per batch of operations,
// flushed once and destroyed) and runs the tree checker on the node table.
#ifndef ZQ_TESTS_TREE_TREE_UTIL_H
#define ZQ_TESTS_TREE_TREE_UTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "check/check.h"
#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace treetest {

// A box of `dims` axes; the slots of unused axes are 0, as the engine side
// writes them.
inline rtr_rect make_box(int dims, const double lo[3], const double hi[3]) {
  rtr_rect r{0, 0, 0, 0, 0, 0};
  double* mins[3] = {&r.min0, &r.min1, &r.min2};
  double* maxs[3] = {&r.max0, &r.max1, &r.max2};
  for (int k = 0; k < dims; ++k) {
    *mins[k] = lo[k];
    *maxs[k] = hi[k];
  }
  return r;
}

inline rtr_rect box2(double x0, double y0, double x1, double y1) {
  return rtr_rect{x0, y0, 0, x1, y1, 0};
}

inline double lo(const rtr_rect& r, int k) {
  return k == 0 ? r.min0 : k == 1 ? r.min1 : r.min2;
}
inline double hi(const rtr_rect& r, int k) {
  return k == 0 ? r.max0 : k == 1 ? r.max1 : r.max2;
}

// The model's own predicates, written from their definitions over `axes`
// axes, independent of the library's geometry.
inline bool m_overlaps(const rtr_rect& e, const rtr_rect& q, int axes) {
  for (int k = 0; k < axes; ++k)
    if (lo(e, k) > hi(q, k) || lo(q, k) > hi(e, k)) return false;
  return true;
}
inline bool m_contains(const rtr_rect& a, const rtr_rect& b, int axes) {
  for (int k = 0; k < axes; ++k)
    if (lo(a, k) > lo(b, k) || hi(b, k) > hi(a, k)) return false;
  return true;
}
inline bool m_equal(const rtr_rect& a, const rtr_rect& b, int axes) {
  for (int k = 0; k < axes; ++k)
    if (lo(a, k) != lo(b, k) || hi(a, k) != hi(b, k)) return false;
  return true;
}

// The operators the randomized tests use, with their meaning at a leaf.
inline bool m_match(const rtr_rect& e, const rtr_rect& q, uint32_t op, int axes) {
  switch (op) {
    case 0:
      return true;
    case RTR_OP_INTERSECT:
      return m_overlaps(e, q, axes);
    case RTR_OP_CONTAINS:
      return m_contains(e, q, axes);
    case RTR_OP_WITHIN:
      return m_contains(q, e, axes);
    case RTR_OP_EQUAL:
      return m_equal(e, q, axes);
    case RTR_OP_OR | RTR_OP_ANY:
      return true;
    case RTR_OP_OR | RTR_OP_CONTAINS | RTR_OP_WITHIN:
      return m_contains(e, q, axes) || m_contains(q, e, axes);
    case RTR_OP_WITHIN | RTR_OP_INTERSECT:
      return m_contains(q, e, axes) && m_overlaps(e, q, axes);
  }
  ADD_FAILURE() << "operator " << op << " is not modelled";
  return false;
}

inline constexpr uint32_t kOps[] = {0,
                                    RTR_OP_INTERSECT,
                                    RTR_OP_CONTAINS,
                                    RTR_OP_WITHIN,
                                    RTR_OP_EQUAL,
                                    RTR_OP_OR | RTR_OP_ANY,
                                    RTR_OP_OR | RTR_OP_CONTAINS | RTR_OP_WITHIN,
                                    RTR_OP_WITHIN | RTR_OP_INTERSECT};

// Brute-force index: rowid -> box.
struct Model {
  int dims = 2;
  std::map<int64_t, rtr_rect> rows;

  std::vector<int64_t> matching(const rtr_rect& q, uint32_t op, int axes) const {
    std::vector<int64_t> out;
    for (const auto& [id, r] : rows)
      if (m_match(r, q, op, axes)) out.push_back(id);
    return out;
  }
};

// One handle per batch, as the engine side works: writing mode, flushed once
// when kept, then destroyed.
class TreeTest : public zqtest::HostTest {
 protected:
  void TearDown() override {
    if (rtr_ != nullptr) rtr_mem_destroy(env_, rtr_);
    rtr_ = nullptr;
    HostTest::TearDown();
  }

  // The empty root leaf at node 1, as a new index starts.
  void create_root(uint16_t dims) { write_empty_root(dims); }

  void open(uint16_t dims) {
    ASSERT_EQ(rtr_, nullptr);
    dims_ = dims;
    rtr_ = open_handle(dims);
    ASSERT_NE(rtr_, nullptr);
  }

  // Flush and destroy: the changes are now rows of the node table.
  void commit() {
    ASSERT_NE(rtr_, nullptr);
    ASSERT_EQ(rtr_flush_all(env_, rtr_), 0) << stack_text();
    rtr_mem_destroy(env_, rtr_);
    rtr_ = nullptr;
  }

  void discard() {
    rtr_mem_destroy(env_, rtr_);
    rtr_ = nullptr;
  }

  int32_t insert(int64_t rowid, const rtr_rect& r) {
    rtr_cell c{rowid, r};
    return rtr_insert(env_, rtr_, &c);
  }

  // Every hit of a cursor search, as whole cells.
  std::vector<rtr_cell> search(const rtr_rect& q, uint32_t op) {
    std::vector<rtr_cell> out;
    rcur cur;
    rcur_init(&cur, rtr_, op);
    int32_t rc = rcur_open(env_, &cur, &q);
    while (rc >= 0 && !rcur_is_end(&cur)) {
      rtr_cell c;
      rc = rcur_column(env_, &cur, &c);
      if (rc >= 0) out.push_back(c);
      if (rc >= 0) rc = rcur_next(env_, &cur);
    }
    EXPECT_GE(rc, 0) << stack_text();
    return out;
  }

  static std::vector<int64_t> ids_of(const std::vector<rtr_cell>& cells) {
    std::vector<int64_t> out;
    for (const rtr_cell& c : cells) out.push_back(c.id);
    std::sort(out.begin(), out.end());
    return out;
  }

  // A node as the cache has it, unpinned again at once.
  rtr_node* peek(int64_t id) {
    rtr_node* n = nullptr;
    EXPECT_EQ(rtr_node_acquire(env_, rtr_, id, &n), 0) << stack_text();
    rtr_node_release(n);
    return n;
  }

  static std::vector<int64_t> cell_ids(const rtr_node* n) {
    std::vector<int64_t> out;
    for (uint32_t i = 0; i < n->n_cells; ++i) out.push_back(n->cells[i].id);
    return out;
  }

  zqcheck::CheckResult check(zqcheck::TreeStats* stats = nullptr) {
    return zqcheck::check_tree(sess_, "main", "t", dims_, stats);
  }

  void expect_sound(zqcheck::TreeStats* stats = nullptr) {
    zqcheck::CheckResult res = check(stats);
    EXPECT_TRUE(res.ok) << "node " << res.node_id << ": " << res.message;
  }

  std::string stack_text() const {
    char buf[4096];
    zqenv_err_format(env_, buf, sizeof buf);
    return buf;
  }

  // Entries a successful operation may leave: the node-full push of every
  // overflow that was then handled by reinsertion or split.
  void expect_only_overflow_pushes() {
    for (const zqtest::Pushed& p : errors()) {
      EXPECT_EQ(p, (zqtest::Pushed{RTR_ERR_NO_ROOM, "rtr_node_insert_cell"}));
    }
  }

  rtr_mem* rtr_ = nullptr;
  uint16_t dims_ = 2;
};

}  // namespace treetest

#endif
