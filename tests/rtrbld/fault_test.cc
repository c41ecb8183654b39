// Failure paths of the bulk build whose error stacks the fault sweep does
// not pin down: each allocation of the build's memory object failing (only
// the batch maker pushes; the build and its slicing pass the code up), and
// a refused row insert at each level, pushed by the flush and the level
// that made the node, with the rows before it kept; a refused root move is
// not reported by the build at all (intended).
#include <gtest/gtest.h>

#include "rtrbld/bld_util.h"

namespace {

using bldtest::Entry;
using zqtest::Pushed;

constexpr double kFillTen = 10.0 / 51 + 1e-12;

class BldAllocTest : public bldtest::BldTest {
 protected:
  struct Attempt {
    int32_t rc;
    std::vector<zqtest::TrackingMem::Call> calls;  // of the build alone
    std::vector<Pushed> stack;
  };

  // One build in a rolled-back transaction, with the `nth` allocation of
  // rtr_blkload itself failing (0: none).
  Attempt attempt(const std::vector<Entry>& entries, uint64_t nth) {
    Attempt a{};
    begin();
    zqtest::TrackingMem mem(env_);
    {
      bldtest::BulkLoad load(env_, sess_, scope_, &index_, 2, mem);
      EXPECT_EQ(load.prepare(entries), 0);
      zqenv_err_clear(env_);
      mem.mark();
      zqfault_fail_alloc_nth(env_, nth);
      a.rc = load.run(1.0);
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

TEST_F(BldAllocTest, EachAllocationOfTheBuildFailsWithNoRoom) {
  // 3000 entries at 51 per node: slices of 408 and, one level up, of 102
  // entries, both beyond one node, so both slice buffers (line 466) exist.
  const std::vector<Entry> entries = bldtest::uniform(3000, 2, 77);
  const Attempt dry = attempt(entries, 0);
  ASSERT_EQ(dry.rc, 0);
  std::vector<size_t> slices;
  for (const auto& c : dry.calls)
    if (c.line == 466) slices.push_back(c.size);
  EXPECT_EQ(slices, (std::vector<size_t>{408 * sizeof(rtr_cell), 102 * sizeof(rtr_cell)}));
  const uint64_t live = zqenv_live_allocs(env_);
  for (const auto& call : dry.calls) {
    SCOPED_TRACE("allocation " + std::to_string(call.nth) + " of " + std::to_string(call.size) +
                 " bytes, line " + std::to_string(call.line));
    const Attempt a = attempt(entries, call.nth);
    EXPECT_EQ(a.rc, RTR_ERR_NO_ROOM);
    ASSERT_FALSE(a.calls.empty());
    EXPECT_FALSE(a.calls.back().ok) << "the build stops at the failed allocation";
    const bool column = call.size == RTR_BDTA_ROWS * (sizeof(zq_datum) + 1);
    const std::vector<Pushed> want =
        column ? std::vector<Pushed>{{RTR_ERR_NO_ROOM, "rtr_sort_bdta_crt"}}
               : std::vector<Pushed>{};
    EXPECT_EQ(a.stack, want);
    EXPECT_EQ(zqenv_live_allocs(env_), live);
  }
}

using BldFaultTest = bldtest::BldTest;

TEST_F(BldFaultTest, RefusedRowInsertIsPushedByFlushAndLevel) {
  struct Case {
    size_t n;
    uint64_t kth;
    int32_t code, rc;
    std::vector<std::string> funcs;
    int64_t rows;
  };
  const std::vector<std::string> in_level{"rtr_phy_insert_node", "rtr_bld_flush_node",
                                          "rtr_crt_lvl"};
  const int32_t kRefused = RTR_ERR_INSERT_FAILED;
  const Case cases[] = {
      {0, 1, kRefused, kRefused, {"rtr_phy_insert_node", "rtr_bld_flush_node"}, 0},
      {100, 1, kRefused, kRefused, in_level, 0},    // the first leaf
      {100, 6, -2111, -2111, in_level, 5},          // a leaf of the second slice
      {100, 11, kRefused, kRefused, in_level, 10},  // the top node, one level up
      // The root move: 10 leaves and the top node written, its old row
      // deleted, the new one refused; the build succeeds without a root.
      {100, 12, kRefused, 0, {"rtr_phy_set_root"}, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("n " + std::to_string(c.n) + ", insert " + std::to_string(c.kth));
    begin();
    const uint64_t live = zqenv_live_allocs(env_);
    zqfault_callback_nth(env_, 4, c.kth, c.code);
    EXPECT_EQ(build(bldtest::uniform(c.n, 2, 3), 2, kFillTen), c.rc);
    zqfault_callback_nth(env_, 4, 0, 0);
    std::vector<Pushed> want;
    for (const std::string& f : c.funcs) want.push_back({c.code, f});
    EXPECT_EQ(errors(), want);
    EXPECT_EQ(count_rows(), c.rows);
    EXPECT_EQ(nodes().count(1), 0u);
    EXPECT_EQ(zqenv_live_allocs(env_), live);
    zqenv_err_clear(env_);
    rollback();
  }
}

}  // namespace
