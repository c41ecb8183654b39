// Failure paths of the bulk build, driven by the host's fault injection: every
// allocation the build takes from its memory object, the slice buffer among
// them, failed row inserts at each level, and the root move whose failure the
// build does not report. Each time: the code, the error stack, nothing left
// behind.
#include <gtest/gtest.h>

#include "rtrbld/bld_util.h"

namespace {

using bldtest::Entry;
using zqtest::Pushed;

constexpr double kFillTen = 10.0 / 51 + 1e-12;

class BldFaultTest : public bldtest::BldTest {
 protected:
  struct Attempt {
    int32_t rc;
    std::vector<zqtest::TrackingMem::Call> calls;  // of the build alone
    std::vector<Pushed> stack;
  };

  // One build in a rolled-back transaction, with the `nth` allocation of
  // rtr_blkload itself failing (0: none).
  Attempt attempt(const std::vector<Entry>& entries, double fill, uint64_t nth) {
    Attempt a{};
    begin();
    zqtest::TrackingMem mem(env_);
    {
      bldtest::BulkLoad load(env_, sess_, scope_, &index_, 2, mem);
      EXPECT_EQ(load.prepare(entries), 0);
      zqenv_err_clear(env_);
      mem.mark();
      zqfault_fail_alloc_nth(env_, nth);
      a.rc = load.run(fill);
      zqfault_fail_alloc_nth(env_, 0);
      a.calls = mem.calls();
      a.stack = errors();
    }
    EXPECT_EQ(mem.live(), 0u);
    EXPECT_EQ(mem.bad_frees(), 0u);
    rollback();
    return a;
  }
};

// 3000 entries at 51 per node: slices of 408 and, one level up, of 102
// entries, both beyond one node, so both slice buffers are allocated.
std::vector<Entry> two_slicing_levels() {
  return bldtest::uniform(3000, 2, 77);
}

// Sorters, batches, column storage and the slice buffers (tagged 466): each
// in turn fails with no room. Only column storage is pushed, once, by the
// batch maker; the build and the slicing pass the code up without pushing.
TEST_F(BldFaultTest, EveryAllocationFromTheMemoryObjectCanFail) {
  const std::vector<Entry> entries = two_slicing_levels();
  const Attempt dry = attempt(entries, 1.0, 0);
  ASSERT_EQ(dry.rc, 0);
  std::vector<size_t> slice_sizes;
  for (const auto& c : dry.calls)
    if (c.line == 466) slice_sizes.push_back(c.size);
  EXPECT_EQ(slice_sizes, (std::vector<size_t>{408 * sizeof(rtr_cell), 102 * sizeof(rtr_cell)}));

  const uint64_t live = zqenv_live_allocs(env_);
  for (const auto& call : dry.calls) {
    SCOPED_TRACE("allocation " + std::to_string(call.nth) + " of " + std::to_string(call.size) +
                 " bytes, line " + std::to_string(call.line));
    const Attempt a = attempt(entries, 1.0, call.nth);
    EXPECT_EQ(a.rc, RTR_ERR_NO_ROOM);
    ASSERT_FALSE(a.calls.empty());
    EXPECT_FALSE(a.calls.back().ok) << "the build stops at the failed allocation";
    if (call.size == RTR_BDTA_ROWS * (sizeof(zq_datum) + 1)) {
      EXPECT_EQ(a.stack, (std::vector<Pushed>{{RTR_ERR_NO_ROOM, "rtr_sort_bdta_crt"}}));
    } else {
      EXPECT_TRUE(a.stack.empty()) << a.stack.size() << " entries pushed";
    }
    EXPECT_EQ(zqenv_live_allocs(env_), live);
  }
}

// The kth row insert refused: the code comes back through the flush and the
// level that made the node; the rows written before it stay.
TEST_F(BldFaultTest, RefusedRowInsertIsPushedByFlushAndLevel) {
  struct Case {
    size_t n;
    uint64_t kth;
    int32_t code;
    std::vector<std::string> funcs;
  };
  const std::vector<std::string> in_level{"rtr_phy_insert_node", "rtr_bld_flush_node",
                                          "rtr_crt_lvl"};
  const Case cases[] = {
      {0, 1, RTR_ERR_INSERT_FAILED, {"rtr_phy_insert_node", "rtr_bld_flush_node"}},
      {100, 1, RTR_ERR_INSERT_FAILED, in_level},   // the first leaf
      {100, 6, -2111, in_level},                   // a leaf of the second slice
      {100, 11, RTR_ERR_INSERT_FAILED, in_level},  // the top node, one level up
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("n " + std::to_string(c.n) + ", insert " + std::to_string(c.kth));
    begin();
    const uint64_t live = zqenv_live_allocs(env_);
    zqfault_callback_nth(env_, 4, c.kth, c.code);
    EXPECT_EQ(build(bldtest::uniform(c.n, 2, 3), 2, kFillTen), c.code);
    zqfault_callback_nth(env_, 4, 0, 0);
    std::vector<Pushed> want;
    for (const std::string& f : c.funcs) want.push_back({c.code, f});
    EXPECT_EQ(errors(), want);
    EXPECT_EQ(count_rows(), static_cast<int64_t>(c.kth - 1));
    EXPECT_EQ(zqenv_live_allocs(env_), live);
    zqenv_err_clear(env_);
    rollback();
  }
}

// The move of the top node to the root's row reports nothing to the build:
// with its row insert refused the build still succeeds, and the table is
// left without a root.
TEST_F(BldFaultTest, FailedRootMoveIsNotReportedByTheBuild) {
  zqfault_callback_nth(env_, 4, 12, RTR_ERR_INSERT_FAILED);  // 10 leaves, the top node, then 1
  ASSERT_EQ(build(bldtest::uniform(100, 2, 3), 2, kFillTen), 0);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_INSERT_FAILED, "rtr_phy_set_root"}}));
  const auto rows = nodes();
  EXPECT_EQ(rows.size(), 10u);
  EXPECT_EQ(rows.count(1), 0u);
}

}  // namespace
