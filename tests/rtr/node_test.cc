// The node object: the cell edits and their limits, and where node buffers
// come from.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace {

using zqtest::Pushed;

rtr_cell cell(int64_t id) {
  const double v = static_cast<double>(id);
  return rtr_cell{id, {v, v, 0, v + 1, v + 1, 0}};
}

std::vector<int64_t> ids(const rtr_node* node) {
  std::vector<int64_t> out;
  for (uint32_t i = 0; i < node->n_cells; ++i) out.push_back(node->cells[i].id);
  return out;
}

class NodeTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 100, 1);
    rtr_ = open_handle(2);
    ASSERT_NE(rtr_, nullptr);
  }
  void TearDown() override {
    rtr_mem_destroy(env_, rtr_);
    HostTest::TearDown();
  }
  // An uncached node with an id, so edits need no node-table call.
  rtr_node* node_with(int64_t id, uint32_t n_cells) {
    rtr_node* node = nullptr;
    EXPECT_EQ(rtr_node_create(env_, rtr_, 0, id, &node), 0);
    for (uint32_t i = 0; i < n_cells; ++i) node->cells[i] = cell(100 + i);
    node->n_cells = n_cells;
    return node;
  }
  rtr_mem* rtr_ = nullptr;
};

TEST_F(NodeTest, FiftySecondCellIsRefusedAndLeavesTheNodeAsItWas) {
  rtr_node* node = node_with(7, 0);
  for (int64_t i = 0; i < RTR_MAX_CELLS; ++i) {
    const rtr_cell c = cell(i);
    ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, node, &c), 0);
  }
  EXPECT_TRUE(errors().empty());
  std::vector<unsigned char> before(RTR_NODE_BUF_SIZE);
  std::memcpy(before.data(), node, RTR_NODE_BUF_SIZE);
  const rtr_cell extra = cell(999);
  EXPECT_EQ(rtr_node_insert_cell(env_, rtr_, node, &extra), RTR_ERR_NO_ROOM);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROOM, "rtr_node_insert_cell"}}));
  EXPECT_EQ(std::memcmp(before.data(), node, RTR_NODE_BUF_SIZE), 0);
  EXPECT_EQ(node->n_cells, 51u);
}

TEST_F(NodeTest, EveryEditRecordsTheChangeOnce) {
  rtr_node* node = node_with(7, 3);
  const rtr_cell c = cell(5);
  const uint32_t dirty_before = rtr_->n_dirty;
  rtr_node_overwrite_cell(env_, rtr_, node, &c, 1);
  EXPECT_EQ(ids(node), (std::vector<int64_t>{100, 5, 102}));
  EXPECT_EQ(std::memcmp(&node->cells[1], &c, sizeof c), 0);
  EXPECT_TRUE(node->is_modified && node->in_dirty);
  EXPECT_FALSE(node->is_new);
  EXPECT_EQ(rtr_->dirty_first, node);
  ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, node, &c), 0);
  rtr_node_delete_cell(env_, rtr_, node, 0);
  rtr_node_zero(env_, rtr_, node);
  EXPECT_EQ(node->n_cells, 0u);
  EXPECT_EQ(rtr_->n_dirty, dirty_before + 1) << "a dirty node is listed once";
}

struct DeleteCase {
  uint32_t n_cells, index;
  std::vector<int64_t> after;
};

TEST_F(NodeTest, DeleteMovesTheLastCellIntoTheHole) {
  const DeleteCase cases[] = {
      {1, 0, {}},
      {2, 0, {101}},
      {2, 1, {100}},
      {10, 3, {100, 101, 102, 109, 104, 105, 106, 107, 108}},
      {10, 9, {100, 101, 102, 103, 104, 105, 106, 107, 108}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.n_cells << " cells, delete " << c.index);
    rtr_node* node = node_with(7, c.n_cells);
    const rtr_cell stale = node->cells[c.n_cells - 1];
    EXPECT_EQ(rtr_node_delete_cell(env_, rtr_, node, c.index), c.n_cells - 1);
    EXPECT_EQ(ids(node), c.after);
    // The vacated last slot is not cleared.
    EXPECT_EQ(std::memcmp(&node->cells[c.n_cells - 1], &stale, sizeof stale), 0);
    rtr_node_destroy(rtr_, node);
  }
}

TEST_F(NodeTest, ParentIndexFindsTheFirstCellNamingTheChild) {
  rtr_node* parent = node_with(2, 4);
  parent->cells[1].id = 42;
  parent->cells[3].id = 42;
  rtr_node* child = node_with(42, 0);
  rtr_node* stranger = node_with(43, 0);
  uint32_t index = 7;
  EXPECT_EQ(rtr_node_parent_index(rtr_, parent, child, &index), 0);
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(rtr_node_parent_index(rtr_, parent, stranger, &index), 0) << "a miss is not an error";
  EXPECT_EQ(index, 0xFFFFFFFFu);
  parent->n_cells = 1;  // the matching cells lie beyond the count
  index = 0;
  rtr_node_parent_index(rtr_, parent, child, &index);
  EXPECT_EQ(index, 0xFFFFFFFFu);
}

TEST_F(NodeTest, DestroyedBuffersAreReusedNewestFirstWithAFreshHeader) {
  rtr_node* a = node_with(7, 3);
  rtr_node* b = node_with(8, 2);
  rtr_node_reference(a);
  const rtr_cell c = cell(1);
  rtr_node_insert_cell(env_, rtr_, a, &c);  // marks and dirty links set
  rtr_node_release(a);
  rtr_node_release(a);
  rtr_node_reference(nullptr);
  rtr_node_release(nullptr);
  // Taken off the dirty list first, as every caller of destroy must.
  rtr_->dirty_first = rtr_->dirty_last = nullptr;
  rtr_->n_dirty = 0;
  rtr_node_destroy(rtr_, a);
  rtr_node_destroy(rtr_, b);
  EXPECT_EQ(rtr_->n_free, 2u);

  rtr_node* first = nullptr;
  rtr_node* second = nullptr;
  rtr_node* third = nullptr;
  ASSERT_EQ(rtr_node_create(env_, rtr_, 3, 20, &first), 0);
  ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 21, &second), 0);
  EXPECT_EQ(first, b);
  EXPECT_EQ(second, a);
  EXPECT_EQ(rtr_->n_free, 0u);
  EXPECT_EQ(second->id, 21);
  EXPECT_EQ(second->level, 0u);
  EXPECT_EQ(second->parent_id, 0);
  EXPECT_EQ(second->ref_count, 1u);
  EXPECT_EQ(second->n_cells, 0u);
  EXPECT_FALSE(second->is_new || second->is_deleted || second->is_modified || second->in_dirty);
  EXPECT_EQ(second->dirty_next, nullptr);
  EXPECT_EQ(second->cells[3].id, c.id) << "cells keep the previous node's bytes";
  ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 22, &third), 0);
  EXPECT_TRUE(third != a && third != b);
}

}  // namespace
