// Failures in the middle of a tree operation: with a cache budget of zero
// nodes every step reads and writes the node table, and the host raises an
// engine code at the nth node-table call. Each failure must come back as
// that code with one error-stack entry per function level, and the user
// operation's rollback must leave the node table exactly as it was.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/tree/tree_util.h"

namespace {

using treetest::box2;
using treetest::TreeTest;
using zqtest::Pushed;

constexpr int32_t kRaised = -4711;  // an engine code, passed through unchanged

class FaultTest : public TreeTest {
 protected:
  // A tree of root level 2 from points (splits of points are 2 / 50, so the
  // tree grows tall quickly), kept in the node table.
  void SetUp() override {
    TreeTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 4096, 64);
    create_root(2);
    open(2);
    for (int64_t i = 0; rtr_->root_level < 2; ++i) {
      ASSERT_EQ(insert(i, point(i)), 0);
      ++n_;
    }
    commit();
    expect_sound();
    // From here on no unpinned node stays cached.
    zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  }

  static rtr_rect point(int64_t i) {
    double x = static_cast<double>((i * 7919) % 1000), y = static_cast<double>((i * 104729) % 997);
    return box2(x, y, x, y);
  }

  std::string snapshot() { return zqtest::node_table_dump(sess_); }

  // The functions that pushed the raised code, innermost first.
  std::vector<std::string> chain() const {
    std::vector<std::string> out;
    for (const Pushed& p : errors()) {
      if (p.code == kRaised) {
        out.push_back(p.func);
      } else {
        EXPECT_EQ(p, (Pushed{RTR_ERR_NO_ROOM, "rtr_node_insert_cell"}));
      }
    }
    return out;
  }

  // Runs `op` inside a user transaction with the nth node-table call raising,
  // for n = 1, 2, ... until it succeeds; collects the chains seen.
  template <class Op>
  void fault_loop(Op op, const char* outer, std::set<std::vector<std::string>>* chains) {
    const std::string before = snapshot();
    for (uint64_t nth = 1; nth < 500; ++nth) {
      ASSERT_EQ(zqsess_begin(sess_), 0) << nth;
      open(2);
      zqenv_err_clear(env_);
      zqfault_raise_nth(env_, nth, kRaised, 0);
      const int32_t rc = op();
      zqfault_reset(env_);
      if (rc >= 0) {
        discard();
        EXPECT_EQ(zqsess_rollback(sess_), 0);
        EXPECT_GT(nth, 1u) << "the operation never reached the node table";
        return;
      }
      EXPECT_EQ(rc, kRaised) << "fault " << nth << "\n" << stack_text();
      std::vector<std::string> c = chain();
      EXPECT_FALSE(c.empty());
      if (!c.empty()) {
        EXPECT_EQ(c.back(), outer) << "fault " << nth;
        EXPECT_EQ(c.front().rfind("rtr_phy_", 0), 0u) << "fault " << nth << ": " << c.front();
      }
      chains->insert(c);
      // The engine side discards the handle and rolls the user operation back.
      discard();
      ASSERT_EQ(zqsess_rollback(sess_), 0);
      ASSERT_EQ(snapshot(), before) << "fault " << nth << " left the node table changed";
    }
    ADD_FAILURE() << "the operation kept failing";
  }

  int64_t n_ = 0;
};

TEST_F(FaultTest, InsertionFailsWithOneStackEntryPerLevel) {
  const rtr_rect r = box2(500.5, 500.5, 501, 501);
  std::set<std::vector<std::string>> chains;
  fault_loop([&] { return insert(999999, r); }, "rtr_insert", &chains);
  // A read failing in the descent, one entry per level from the node table
  // up to the operation.
  EXPECT_EQ(
      chains.count({"rtr_phy_read_node", "rtr_node_acquire", "rtr_choose_leaf", "rtr_insert"}), 1u);
  EXPECT_GE(chains.size(), 2u) << "failures after the descent were never reached";
  expect_sound();
}

TEST_F(FaultTest, SplittingInsertionFailsCleanlyAtEveryStep) {
  // Add copies of a point until the next copy would overflow its leaf (found
  // by a trial insertion that is rolled back): reinsertion and splits then
  // read and write nodes at every step.
  for (int i = 0;; ++i) {
    ASSERT_LT(i, 200);
    ASSERT_EQ(zqsess_begin(sess_), 0);
    open(2);
    zqenv_err_clear(env_);
    ASSERT_EQ(insert(500000 + i, point(3)), 0);
    if (!errors().empty()) {
      discard();
      ASSERT_EQ(zqsess_rollback(sess_), 0);
      break;
    }
    commit();
    ASSERT_EQ(zqsess_commit(sess_), 0);
  }
  expect_sound();
  std::set<std::vector<std::string>> chains;
  fault_loop([&] { return insert(999999, point(3)); }, "rtr_insert", &chains);
  bool through_split = false;
  for (const auto& c : chains)
    for (const std::string& f : c) through_split |= f == "rtr_split_node" || f == "rtr_reinsert";
  EXPECT_TRUE(through_split) << "no failure inside the overflow handling";
  expect_sound();
}

TEST_F(FaultTest, DeletionFailsWithOneStackEntryPerLevel) {
  std::set<std::vector<std::string>> chains;
  fault_loop(
      [&] {
        const rtr_rect r = point(5);
        return rtr_delete_by_rowid(env_, rtr_, 5, &r);
      },
      "rtr_delete_by_rowid", &chains);
  // A read failing while the cursor descends.
  EXPECT_EQ(chains.count({"rtr_phy_read_node", "rtr_node_acquire", "rcur_step_to_leaf", "rcur_open",
                          "rtr_find_leaf_node", "rtr_delete_by_rowid"}),
            1u);
  expect_sound();
}

}  // namespace
