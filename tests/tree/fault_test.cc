// Failures in the middle of a tree operation, with a cache budget of zero
// nodes so that every step reads and writes the node table and the host
// raises an engine code at the nth node-table call. The fault sweep checks
// codes, stack membership and rollback at every point; here are the exact
// stacks of a read failing in the descent, and failures inside forced
// reinsertion and the split of a non-root leaf, which the sweep's
// operations do not reach.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/tree/tree_util.h"

namespace {

using treetest::box2;
using zqtest::Pushed;
using Chain = std::vector<std::string>;

constexpr int32_t kRaised = -4711;  // an engine code, passed through unchanged

class FaultTest : public treetest::TreeTest {
 protected:
  // A tree of root level 2 from points (splits of points are 2 / 50, so the
  // tree grows tall quickly), kept in the node table.
  void SetUp() override {
    TreeTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 4096, 64);
    create_root(2);
    open(2);
    for (int64_t i = 0; rtr_->root_level < 2; ++i) ASSERT_EQ(insert(i, point(i)), 0);
    commit();
    // From here on no unpinned node stays cached.
    zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  }

  static rtr_rect point(int64_t i) {
    const double x = static_cast<double>((i * 7919) % 1000);
    const double y = static_cast<double>((i * 104729) % 997);
    return box2(x, y, x, y);
  }

  // Runs `op` in a user transaction with the nth node-table call raising,
  // n = 1, 2, ... until it succeeds; each failure returns the code and its
  // rollback restores the table. The functions that pushed the code,
  // innermost first, of every failure.
  std::set<Chain> fault_loop(const std::function<int32_t()>& op) {
    std::set<Chain> chains;
    const std::string before = zqtest::node_table_dump(sess_);
    for (uint64_t nth = 1; nth < 500; ++nth) {
      EXPECT_EQ(zqsess_begin(sess_), 0);
      open(2);
      zqenv_err_clear(env_);
      zqfault_raise_nth(env_, nth, kRaised, 0);
      const int32_t rc = op();
      zqfault_reset(env_);
      discard();
      EXPECT_EQ(zqsess_rollback(sess_), 0);
      if (rc >= 0) return chains;
      EXPECT_EQ(rc, kRaised) << "fault " << nth << "\n" << stack_text();
      EXPECT_EQ(zqtest::node_table_dump(sess_), before) << "fault " << nth;
      Chain c;
      for (const Pushed& p : errors())
        if (p.code == kRaised) c.push_back(p.func);
      chains.insert(c);
    }
    ADD_FAILURE() << "the operation kept failing";
    return chains;
  }
};

TEST_F(FaultTest, ReadFailingInTheDescentIsPushedByEveryLevel) {
  const std::set<Chain> ins =
      fault_loop([&] { return insert(999999, box2(500.5, 500.5, 501, 501)); });
  EXPECT_EQ(ins.count({"rtr_phy_read_node", "rtr_node_acquire", "rtr_choose_leaf", "rtr_insert"}),
            1u);
  const std::set<Chain> del = fault_loop([&] {
    const rtr_rect r = point(5);
    return rtr_delete_by_rowid(env_, rtr_, 5, &r);
  });
  EXPECT_EQ(del.count({"rtr_phy_read_node", "rtr_node_acquire", "rcur_step_to_leaf", "rcur_open",
                       "rtr_find_leaf_node", "rtr_delete_by_rowid"}),
            1u);
}

TEST_F(FaultTest, FailuresInsideReinsertionAndSplitReturnTheCode) {
  // Copies of a point until the next copy would overflow its leaf (found by
  // a trial insertion that is rolled back).
  for (int i = 0;; ++i) {
    ASSERT_LT(i, 200);
    ASSERT_EQ(zqsess_begin(sess_), 0);
    open(2);
    zqenv_err_clear(env_);
    ASSERT_EQ(insert(500000 + i, point(3)), 0);
    const bool overflowed = !errors().empty();
    if (overflowed) discard();
    if (!overflowed) commit();
    ASSERT_EQ(overflowed ? zqsess_rollback(sess_) : zqsess_commit(sess_), 0);
    if (overflowed) break;
  }
  std::set<std::string> reached;
  for (const Chain& c : fault_loop([&] { return insert(999999, point(3)); }))
    reached.insert(c.begin(), c.end());
  EXPECT_EQ(reached.count("rtr_reinsert"), 1u);
  EXPECT_EQ(reached.count("rtr_split_node"), 1u);
  expect_sound();
}

}  // namespace
