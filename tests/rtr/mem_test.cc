// The handle: its share of node-buffer memory across several handles, what
// creation stores, and every creation failure path with its error stack.
#include <gtest/gtest.h>

#include <string>

#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace {

using zqtest::Pushed;

class HandleTest : public zqtest::HostTest {
 protected:
  rtr_mem* create(uint32_t for_bld = 0, uint32_t read_mode = 0, const zq_index* index = nullptr) {
    rtr_mem* rtr = nullptr;
    const int32_t rc = rtr_mem_create_low(env_, sess_, 2, scope_, index ? index : &index_, for_bld,
                                          read_mode, &rtr);
    EXPECT_EQ(rc, 0);
    return rtr;
  }
};

struct BudgetCase {
  uint32_t counter, limit, per_handle;
  uint32_t quota, max_nodes;
};

TEST_F(HandleTest, ReservesTheSmallerOfPerHandleAndRoomUnderTheLimit) {
  const BudgetCase cases[] = {
      {0, 1000, 1, 1, 357},
      {0, 1000, 64, 64, 22857},
      {90, 100, 64, 10, 3571},
      {99, 100, 64, 1, 357},
      {100, 100, 64, 0, 1},
      {150, 100, 64, 0, 1},
      {0, 100, 0, 0, 0},                      // room, but nothing per handle: a budget of 0 nodes
      {0, 0xFFFFFFFFu, 4096, 4096, 1462863},  // 4096 MB would overflow 32 bits
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.counter << "/" << c.limit << "/" << c.per_handle);
    g_rtr_buf_total_size = c.counter;
    zqsess_set_rtree_buf_mb(sess_, c.limit, c.per_handle);
    rtr_mem* rtr = create();
    ASSERT_NE(rtr, nullptr);
    EXPECT_EQ(rtr->buf_quota, c.quota);
    EXPECT_EQ(rtr->max_nodes, c.max_nodes);
    EXPECT_EQ(g_rtr_buf_total_size, c.counter + c.quota);
    rtr_mem_destroy(env_, rtr);
    EXPECT_EQ(g_rtr_buf_total_size, c.counter);
  }
}

TEST_F(HandleTest, SeveralHandlesShareTheLimit) {
  g_rtr_buf_total_size = 90;
  zqsess_set_rtree_buf_mb(sess_, 100, 64);
  rtr_mem* first = create();
  rtr_mem* second = create();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->buf_quota, 10u);
  EXPECT_EQ(first->max_nodes, 3571u);
  EXPECT_EQ(second->buf_quota, 0u);
  EXPECT_EQ(second->max_nodes, 1u);
  EXPECT_EQ(g_rtr_buf_total_size, 100u);
  rtr_mem_destroy(env_, second);
  EXPECT_EQ(g_rtr_buf_total_size, 100u);
  rtr_mem_destroy(env_, first);
  EXPECT_EQ(g_rtr_buf_total_size, 90u);
  rtr_mem* third = create();
  EXPECT_EQ(third->buf_quota, 10u) << "a destroyed handle's share is free again";
  rtr_mem_destroy(env_, third);
}

const zq_recdesc* g_tagged_desc = nullptr;
uint16_t recording_tag(const zq_recdesc* desc) {
  g_tagged_desc = desc;
  return 0xBEEF;
}

TEST_F(HandleTest, StoresTheNodeTableAndTheRowTagOfItsBtree) {
  rtr_hook_init(recording_tag, zqhost_rec_is_visible, zqhost_rec_read_visible_version,
                zqhost_row_delete, zqhost_row_insert, zqhost_row_update_fixed,
                zqhost_row_update_unfixed, nullptr, nullptr, nullptr, zqhost_row_insert_failed,
                nullptr);
  rtr_mem* rtr = nullptr;
  ASSERT_EQ(rtr_mem_create(env_, sess_, 3, scope_, &index_, 7, &rtr), 0);
  EXPECT_STREQ(rtr->node_table->name, "MDRT$t");
  ASSERT_NE(rtr->node_index, nullptr);
  EXPECT_EQ(rtr->btr, ndct_phy_index_get_btr(rtr->node_index));
  EXPECT_EQ(g_tagged_desc, rtr->btr->desc);
  EXPECT_EQ(rtr->row_tag, 0xBEEF);
  EXPECT_EQ(rtr->session, sess_);
  EXPECT_EQ(rtr->n_dims, 3);
  EXPECT_EQ(rtr->read_mode, 7u);
  EXPECT_EQ(rtr->for_bld, 0u);
  EXPECT_EQ(rtr->root_level, 0u);
  EXPECT_EQ(rtr->reinsert_level, 0u);
  ASSERT_NE(rtr->node_hash, nullptr);
  EXPECT_EQ(rtr->node_hash->n_buckets, RTR_NODE_HASH_BUCKETS);
  rtr_mem_destroy(env_, rtr);
}

TEST_F(HandleTest, BulkBuildHandleHasNoCacheAndReservesNothing) {
  zqsess_set_rtree_buf_mb(sess_, 100, 64);
  rtr_mem* rtr = nullptr;
  ASSERT_EQ(rtr_mem_create_for_bld(env_, sess_, 2, scope_, &index_, &rtr), 0);
  EXPECT_EQ(rtr->for_bld, 1u);
  EXPECT_EQ(rtr->read_mode, 0u);
  EXPECT_EQ(rtr->buf_quota, 0u);
  EXPECT_EQ(rtr->max_nodes, 1u);
  EXPECT_EQ(rtr->node_hash, nullptr);
  EXPECT_EQ(g_rtr_buf_total_size, 0u);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 1), nullptr) << "an empty cache needs no table";
  rtr_mem_destroy(env_, rtr);
}

TEST_F(HandleTest, LongestIndexNameFitsTheNameBuffer) {
  const std::string name(123, 'n');
  ASSERT_EQ(zqsess_create_node_table(sess_, "main", name.c_str()), 0);
  const zq_index index{name.c_str(), nullptr, nullptr, nullptr};
  rtr_mem* rtr = create(0, 0, &index);
  ASSERT_NE(rtr, nullptr);
  EXPECT_EQ(std::string(rtr->node_table->name), "MDRT$" + name);
  rtr_mem_destroy(env_, rtr);
}

TEST_F(HandleTest, DestroyReleasesThePoolWithEveryNodeBufferAndTheHash) {
  const uint64_t before = zqenv_live_allocs(env_);
  rtr_mem* rtr = create();
  rtr_node* node = nullptr;
  for (int64_t id = 10; id < 14; ++id) ASSERT_EQ(rtr_node_create(env_, rtr, 0, id, &node), 0);
  rtr_node_destroy(rtr, node);
  rtr_mem_destroy(env_, rtr);
  EXPECT_EQ(zqenv_live_allocs(env_), before);
}

// ---- failure paths ----

class HandleFailureTest : public HandleTest {
 protected:
  rtr_mem* const sentinel_ = reinterpret_cast<rtr_mem*>(0x1);
};

TEST_F(HandleFailureTest, PoolFailureReturnsNoRoomPushesNothingAndLeaksTheHandle) {
  zqsess_set_rtree_buf_mb(sess_, 100, 64);
  zqfault_fail_pool(env_, RTR_POOL_NAME);
  for (uint32_t for_bld : {0u, 1u}) {
    const uint64_t before = zqenv_live_allocs(env_);
    rtr_mem* out = sentinel_;
    EXPECT_EQ(rtr_mem_create_low(env_, sess_, 2, scope_, &index_, for_bld, 0, &out),
              RTR_ERR_NO_ROOM);
    EXPECT_EQ(out, sentinel_);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(zqenv_live_allocs(env_), before + 1) << "the handle's memory stays allocated";
    EXPECT_EQ(g_rtr_buf_total_size, 0u);
  }
}

TEST_F(HandleFailureTest, MissingNodeTablePushesOnceAndDestroysThePool) {
  zqsess_set_rtree_buf_mb(sess_, 100, 64);
  const zq_index absent{"absent", nullptr, nullptr, nullptr};
  const uint64_t before = zqenv_live_allocs(env_);
  rtr_mem* out = sentinel_;
  const int32_t rc = rtr_mem_create(env_, sess_, 2, scope_, &absent, 0, &out);
  ASSERT_LT(rc, 0);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{rc, "rtr_mem_create_low"}}));
  EXPECT_EQ(out, sentinel_);
  EXPECT_EQ(zqenv_live_allocs(env_), before + 1) << "only the handle's memory is left";
  EXPECT_EQ(g_rtr_buf_total_size, 0u);
}

}  // namespace
