// Node rows in a real node table: written and read back for every dimension
// count, written back by the cache's flush and read after the database file
// is reopened, missing rows, deletion, and node ids.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

class TableTest : public PhyTest {};

TEST_F(TableTest, NodesReadBackAsWrittenForEveryDimensionCount) {
  for (uint16_t d = 1; d <= 3; ++d) {
    SCOPED_TRACE(testing::Message() << "d=" << d);
    handle(d);
    // Empty, small (inline blob for d = 1), and full nodes, leaf and branch.
    const NodeImage nodes[] = {
        {10 * d + 2, 1, 0, {}},
        {10 * d + 3, 1, 0, sample_cells(1)},
        {10 * d + 4, 7, 2, sample_cells(RTR_MAX_CELLS, 5000)},
    };
    for (const NodeImage& n : nodes) put_node(n.id, n.parent, n.level, n.cells);
    for (const NodeImage& n : nodes) {
      int32_t rc = -1;
      NodeImage want = n;
      // What d axes carry; for d = 2 the third axis reads as the whole axis.
      for (rtr_cell& c : want.cells) {
        if (d == 1) c.rect.min1 = c.rect.max1 = c.rect.min2 = c.rect.max2 = 0;
        if (d == 2) c.rect.min2 = -kInf, c.rect.max2 = kInf;
      }
      NodeImage got = get_node(n.id, &rc);
      ASSERT_EQ(rc, 0);
      if (d == 1)
        for (rtr_cell& c : got.cells) c.rect.min1 = c.rect.max1 = c.rect.min2 = c.rect.max2 = 0;
      expect_same(got, want);
    }
  }
  EXPECT_EQ(count_rows(), 9);
  EXPECT_TRUE(errors().empty());
}

// Nodes made through the cache and written back by the flush read back, after
// the file is closed and reopened, through the node-table layer and through
// a new handle's cache.
TEST_F(TableTest, FlushedNodesSurviveReopeningTheDatabaseFile) {
  const std::string path = testing::TempDir() + "zq_phy_reopen_" + std::to_string(getpid()) + ".db";
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  zqsess_close(sess_);
  sess_ = nullptr;
  open_session(path.c_str());
  handle(3);
  std::vector<NodeImage> made;
  for (uint32_t k = 0; k < 6; ++k) {
    rtr_node* node = nullptr;
    ASSERT_EQ(rtr_node_new(env_, rtr_, 1, k % 2, &node), 0);
    ASSERT_NE(node->id, RTR_ROOT_ID);
    for (const rtr_cell& c : sample_cells(k * 10, 1000 * (k + 1)))
      ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, node, &c), 0);
    made.push_back(image(node));
    rtr_node_release(node);
  }
  ASSERT_EQ(rtr_flush_all(env_, rtr_), 0);
  EXPECT_EQ(row_slots(), std::vector<uint32_t>(6, 4)) << "one insert per new node";
  rtr_mem_destroy(env_, rtr_);
  rtr_ = nullptr;

  reopen_session(path.c_str());
  handle(3);
  for (const NodeImage& want : made) {
    int32_t rc = -1;
    expect_same(get_node(want.id, &rc), want);
    ASSERT_EQ(rc, 0);
    rtr_node* cached = nullptr;
    ASSERT_EQ(rtr_node_acquire(env_, rtr_, want.id, &cached), 0);
    expect_same(image(cached), want);
    rtr_node_release(cached);
  }
  EXPECT_EQ(count_rows(), 6);
  EXPECT_TRUE(errors().empty());
  rtr_mem_destroy(env_, rtr_);
  rtr_ = nullptr;
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

// A missing root is "not found", any other missing node "no row"; deleting
// removes only its row and reports a missing one.
TEST_F(TableTest, MissingRowsAndDeletion) {
  handle(2);
  put_node(4, 1, 0, sample_cells(2));
  put_node(5, 1, 0, sample_cells(3));
  for (const auto& [id, code] : {std::pair<int64_t, int32_t>{1, RTR_ERR_NOT_FOUND},
                                 {2, RTR_ERR_NO_ROW},
                                 {77, RTR_ERR_NO_ROW}}) {
    zqenv_err_clear(env_);
    rtr_node* node = reinterpret_cast<rtr_node*>(0x1);
    EXPECT_EQ(rtr_phy_read_node(env_, rtr_, id, &node), code) << id;
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{code, "rtr_phy_read_node"}}));
  }
  zqenv_err_clear(env_);
  hooks().calls.clear();
  int64_t id = 4;
  EXPECT_EQ(rtr_phy_delete_node(env_, rtr_, &id), 0);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{3}));
  EXPECT_EQ(count_rows(), 1);
  EXPECT_EQ(get_node(5).cells.size(), 3u);
  EXPECT_EQ(rtr_phy_delete_node(env_, rtr_, &id), RTR_ERR_NO_ROW);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROW, "rtr_phy_delete_node"}}));
  EXPECT_EQ(count_rows(), 1);
}

TEST_F(TableTest, NodeIdsNeverHandOutTheRootsId) {
  handle(2);
  // A fresh table's counter would start at 1.
  int32_t code = -1;
  int64_t prev = rtr_phy_get_next_node_id(env_, rtr_, &code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(prev, 2);
  put_node(prev, 1, 0, {});
  for (int i = 0; i < 5; ++i) {
    const int64_t id = rtr_phy_get_next_node_id(env_, rtr_, &code);
    EXPECT_GT(id, prev);
    prev = id;
  }
  EXPECT_TRUE(errors().empty());
}

}  // namespace
}  // namespace phytest
