// Column batches: storage layout, cell writes, who frees what, and
// allocation failures.
#include <gtest/gtest.h>

#include <cmath>

#include "common/fixture.h"
#include "host/sort_pool.h"
#include "sort/tracking_mem.h"

namespace {

using BdtaTest = zqtest::HostTest;

const uint16_t kTypes[3] = {ZQ_TYPE_BIGINT, ZQ_TYPE_DOUBLE, ZQ_TYPE_DOUBLE};

zq_bdta* make_batch(zq_env* env, zqtest::TrackingMem& mem, uint32_t cap) {
  zq_bdta* b = bdta3_create(env, mem.get(), 3, kTypes);
  for (uint16_t c = 0; b != nullptr && c < 3; ++c) {
    EXPECT_EQ(b->cols[c].type, kTypes[c]);
    EXPECT_EQ(bdta3_col_data_create_low(env, mem.get(), &b->cols[c], kTypes[c], cap), 0);
  }
  return b;
}

TEST_F(BdtaTest, ColumnBlocksHoldDataThenFlagsAndFree2GivesEverythingBack) {
  zqtest::TrackingMem mem(env_);
  zq_bdta* b = make_batch(env_, mem, 1000);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(mem.live(), 4u);  // the object with its descriptors, one block per column
  for (uint16_t c = 0; c < 3; ++c) {
    EXPECT_TRUE(mem.owns(b->cols[c].data));
    EXPECT_EQ(b->cols[c].notnull, reinterpret_cast<uint8_t*>(b->cols[c].data + 1000));
  }
  zq_value v{};
  v.notnull = 1;
  v.u.i64 = -7;
  bdta3_put_fld_data(env_, b, &v, mem.get(), 999, 0);
  v.u.f64 = -0.0;
  bdta3_put_fld_data(env_, b, &v, mem.get(), 4, 1);
  v.notnull = 0;
  bdta3_put_fld_data(env_, b, &v, mem.get(), 4, 2);
  EXPECT_EQ(b->cols[0].data[999].i64, -7);
  EXPECT_EQ(b->cols[0].notnull[999], 1u);
  EXPECT_TRUE(std::signbit(b->cols[1].data[4].f64));
  EXPECT_EQ(b->cols[2].notnull[4], 0u);
  // Rows are counted by the batch's user; clearing only forgets them.
  b->n_rows = 10;
  bdta3_clear(env_, mem.get(), b);
  EXPECT_EQ(b->n_rows, 0u);
  EXPECT_EQ(b->cols[0].data[999].i64, -7);
  bdta3_free2(env_, mem.get(), b);
  EXPECT_EQ(mem.live(), 0u);

  // bdta3_free gives back the object alone; its maker frees the columns.
  b = make_batch(env_, mem, 10);
  void* cols[3] = {b->cols[0].data, b->cols[1].data, b->cols[2].data};
  bdta3_free(env_, mem.get(), b);
  EXPECT_EQ(mem.live(), 3u);
  for (void* p : cols) mem.get()->free(env_, mem.get()->heap, p);
  EXPECT_EQ(mem.bad_frees(), 0u);

  // A heap-like object without a free routine keeps its blocks until it dies.
  zqtest::TrackingMem heap(env_, false);
  bdta3_free2(env_, heap.get(), make_batch(env_, heap, 10));
  EXPECT_EQ(heap.live(), 4u);
}

TEST_F(BdtaTest, AllocationFailuresReturnNothingAndLeaveNothing) {
  zqtest::TrackingMem mem(env_);
  zqfault_fail_alloc_nth(env_, 1);
  EXPECT_EQ(bdta3_create(env_, mem.get(), 3, kTypes), nullptr);
  EXPECT_EQ(mem.live(), 0u);

  zq_bdta* b = bdta3_create(env_, mem.get(), 3, kTypes);
  ASSERT_NE(b, nullptr);
  zqfault_fail_alloc_nth(env_, 1);
  EXPECT_EQ(bdta3_col_data_create_low(env_, mem.get(), &b->cols[1], ZQ_TYPE_DOUBLE, 1000),
            ZQHOST_SORT_NO_ROOM);
  EXPECT_EQ(b->cols[1].data, nullptr);
  bdta3_free2(env_, mem.get(), b);
  EXPECT_EQ(mem.live(), 0u);
}

}  // namespace
