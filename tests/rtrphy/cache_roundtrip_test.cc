// Nodes made through the node cache and written back by rtr_flush_all are,
// after the database file is closed and reopened, read back as they were,
// both through the node-table layer and through the cache of a new handle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

class CacheRoundTripTest : public PhyTest {};

TEST_F(CacheRoundTripTest, FlushedNodesSurviveAReopen) {
  const std::string path = testing::TempDir() + "zq_phy_cache_" + std::to_string(getpid()) + ".db";
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
    for (const rtr_cell& c : sample_cells(k * 10, 1000 * (k + 1))) {
      ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, node, &c), 0);
    }
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

}  // namespace
}  // namespace phytest
