// Moving a node's row to the root's rowid and re-parenting its children.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

class RootTest : public PhyTest {
 protected:
  // A two-level tree built bottom-up: leaves 2, 3, 5 under top node 7,
  // whose own parent column holds 0.
  void build_tree() {
    handle(2);
    put_node(2, 7, 0, sample_cells(3, 100));
    put_node(3, 7, 0, sample_cells(2, 200));
    put_node(5, 7, 0, sample_cells(4, 300));
    put_node(7, 0, 1,
             {cell(2, 0, 0, 0, 1, 1, 0), cell(3, 1, 1, 0, 2, 2, 0), cell(5, 2, 2, 0, 3, 3, 0)});
    top_ = get_node(7);
    hooks().calls.clear();
  }
  NodeImage top_;
};

TEST_F(RootTest, TopNodeMovesToRowidOneAndItsChildrenFollow) {
  build_tree();
  ASSERT_EQ(rtr_phy_set_root(env_, rtr_, 7), 0);
  EXPECT_TRUE(errors().empty());

  int32_t rc = -1;
  NodeImage root = get_node(1, &rc);
  ASSERT_EQ(rc, 0);
  NodeImage want = top_;
  want.id = 1;
  expect_same(root, want);

  get_node(7, &rc);
  EXPECT_EQ(rc, RTR_ERR_NO_ROW);
  zqenv_err_clear(env_);
  for (int64_t child : {2, 3, 5}) {
    NodeImage c = get_node(child, &rc);
    ASSERT_EQ(rc, 0) << child;
    EXPECT_EQ(c.parent, 1) << child;
    EXPECT_EQ(c.level, 0u);
  }
  EXPECT_EQ(get_node(2).cells.size(), 3u);
  EXPECT_EQ(count_rows(), 4);
}

// Moving the root itself is a note and touches nothing; a missing row fails.
TEST_F(RootTest, MovingTheRootOrAMissingRowChangesNothing) {
  build_tree();
  put_node(1, 0, 1, {cell(7, 0, 0, 0, 3, 3, 0)});
  hooks().calls.clear();
  const std::string before = table_dump();
  EXPECT_EQ(rtr_phy_set_root(env_, rtr_, 1), RTR_NOTE_NOTHING);
  EXPECT_TRUE(hooks().calls.empty());
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(rtr_phy_set_root(env_, rtr_, 40), RTR_ERR_NO_ROW);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROW, "rtr_phy_set_root"}}));
  EXPECT_TRUE(row_slots().empty());
  EXPECT_EQ(table_dump(), before);
}

// The move is two mini-transactions, delete then insert: a failure of the
// insert (refused, with its notice, or raised) loses the insert only, and
// the children are not touched (intended).
TEST_F(RootTest, FailedRootInsertKeepsTheDeleteAndLeavesNoRoot) {
  struct Case {
    bool raise;
    int32_t code;
    std::vector<uint32_t> slots;
  } const cases[] = {{false, RTR_ERR_INSERT_FAILED, {3, 4, 10}}, {true, -2700, {3, 4}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    build_tree();
    zqenv_err_clear(env_);
    if (c.raise) {
      hooks().after_row_callback = [](zq_ptx* ptx, uint32_t slot, int32_t rc) {
        if (slot != 4) return rc;
        ptx->release_flag = 0;
        throw zq_raised{-2700};
      };
    } else {
      zqfault_callback_nth(env_, 4, 1, c.code);
    }
    EXPECT_EQ(rtr_phy_set_root(env_, rtr_, 7), c.code);
    hooks().after_row_callback = nullptr;
    zqfault_reset(env_);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{c.code, "rtr_phy_set_root"}}));
    EXPECT_EQ(row_slots(), c.slots);
    EXPECT_EQ(count_rows(), 3);
    int32_t rc = 0;
    get_node(1, &rc);
    EXPECT_EQ(rc, RTR_ERR_NOT_FOUND);
    EXPECT_EQ(get_node(2).parent, 7);
    exec("DELETE FROM \"MDRT$t\"");
  }
}

TEST_F(RootTest, ChildWithoutARowStopsTheReparentingButNotTheMove) {
  build_tree();
  int64_t id = 3;
  ASSERT_EQ(rtr_phy_delete_node(env_, rtr_, &id), 0);
  ASSERT_EQ(rtr_phy_set_root(env_, rtr_, 7), 0);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROW, "rtr_phy_read_node"},
                                           {RTR_ERR_NO_ROW, "rtr_phy_update_parent"}}));
  zqenv_err_clear(env_);
  EXPECT_EQ(get_node(2).parent, 1) << "children before the gap are re-parented";
  EXPECT_EQ(get_node(5).parent, 7) << "children after it keep their old parent";
  EXPECT_EQ(get_node(1).cells.size(), 3u);
}

TEST_F(RootTest, ReparentingSkipsLeavesAndChildrenAlreadyPointingThere) {
  build_tree();
  rtr_node* leaf = nullptr;
  ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 2, &leaf), 0);
  fill_node(leaf, sample_cells(3, 5));  // ids 5..7 exist as node rows
  EXPECT_EQ(rtr_phy_update_parent(env_, rtr_, leaf, 1), 0);
  EXPECT_TRUE(hooks().calls.empty()) << "a leaf's cells are not nodes: nothing read";
  rtr_node_destroy(rtr_, leaf);

  rtr_node* top = nullptr;
  ASSERT_EQ(rtr_phy_read_node(env_, rtr_, 7, &top), 0);
  hooks().calls.clear();
  EXPECT_EQ(rtr_phy_update_parent(env_, rtr_, top, 7), 0);
  EXPECT_TRUE(row_slots().empty()) << "every child already names 7";
  EXPECT_EQ(hooks().calls.size(), 3u) << "but every child was read";

  top->n_cells = 0;
  hooks().calls.clear();
  EXPECT_EQ(rtr_phy_update_parent(env_, rtr_, top, 1), 0);
  EXPECT_TRUE(hooks().calls.empty());
  rtr_node_destroy(rtr_, top);
  EXPECT_TRUE(errors().empty());
}

}  // namespace
}  // namespace phytest
