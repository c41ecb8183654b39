// Failure paths of the node-table operations: a refused insert and its
// notice (slot 10), codes raised inside the mini-transaction at every point
// where the engine can raise, and every allocation failing in turn. Each
// leaves the error stack saying where, the table as it was, and no memory.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

class FaultTest : public PhyTest {
 protected:
  // The node-table operations under test, each as (name, call).
  struct Op {
    const char* name;
    std::function<int32_t()> run;
  };

  std::vector<Op> ops() {
    return {
        {"rtr_phy_insert_node",
         [this] {
           rtr_node* node = nullptr;
           EXPECT_EQ(rtr_node_create(env_, rtr_, 0, 9, &node), 0);
           fill_node(node, sample_cells(4));
           int32_t rc = rtr_phy_insert_node(env_, rtr_, node);
           rtr_node_destroy(rtr_, node);
           return rc;
         }},
        {"rtr_phy_modify_node", [this] { return modify(5, 2, 0, sample_cells(6)); }},
        {"rtr_phy_delete_node",
         [this] {
           int64_t id = 5;
           return rtr_phy_delete_node(env_, rtr_, &id);
         }},
        {"rtr_phy_read_node",
         [this] {
           int32_t rc = 0;
           get_node(5, &rc);
           return rc;
         }},
    };
  }

  // Undoes a successful run of operation `name`.
  void restore(const std::string& name) {
    if (name == "rtr_phy_insert_node") {
      int64_t id = 9;
      ASSERT_EQ(rtr_phy_delete_node(env_, rtr_, &id), 0);
    } else if (name == "rtr_phy_delete_node") {
      put_node(5, 1, 0, sample_cells(3));
    } else if (name == "rtr_phy_modify_node") {
      ASSERT_EQ(modify(5, 1, 0, sample_cells(3)), 0);
    }
  }

  void SetUp() override {
    PhyTest::SetUp();
    handle(2);
    put_node(5, 1, 0, sample_cells(3));
    // A spare buffer on the free list, so that the node a read builds needs
    // no allocation of its own.
    rtr_node* spare = nullptr;
    ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 0, &spare), 0);
    rtr_node_destroy(rtr_, spare);
    hooks().calls.clear();
  }
};

TEST_F(FaultTest, RefusedInsertCallsTheNoticeAfterItsMiniTransaction) {
  const std::string before = table_dump();
  zqfault_callback_nth(env_, 4, 1, RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(ops()[0].run(), RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4, 10}));
  EXPECT_EQ(hooks().calls.back().code, RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_INSERT_FAILED, "rtr_phy_insert_node"}}));
  EXPECT_EQ(table_dump(), before);

  // Any other refusal is only pushed.
  zqenv_err_clear(env_);
  hooks().calls.clear();
  zqfault_callback_nth(env_, 4, 1, -77);
  EXPECT_EQ(ops()[0].run(), -77);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4}));
  EXPECT_EQ(errors(), (std::vector<Pushed>{{-77, "rtr_phy_insert_node"}}));
}

struct Raise {
  int32_t code;
  uint8_t release_flag;
};

// Every raise-capable engine call of every operation raises in turn: the
// code comes back, is pushed once under the operation's name, and the table
// is as it was.
TEST_F(FaultTest, RaisedCodesEndTheMiniTransactionAndArePushedOnce) {
  const Raise raises[] = {{RTR_ERR_RELEASE, 1}, {RTR_ERR_RELEASE, 0}, {-2601, 0}, {-2601, 1}};
  for (const Op& op : ops()) {
    for (const Raise& r : raises) {
      int points = 0;
      for (uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << op.name << " code=" << r.code
                                        << " release=" << int(r.release_flag) << " nth=" << nth);
        const std::string before = table_dump();
        zqenv_err_clear(env_);
        hooks().calls.clear();
        zqfault_reset(env_);
        zqfault_raise_nth(env_, nth, r.code, r.release_flag);
        int32_t rc = op.run();
        zqfault_reset(env_);
        if (rc != r.code) {
          EXPECT_GE(rc, 0) << "the operation ran past its last raise point";
          restore(op.name);  // the table as SetUp made it, for the next operation
          break;
        }
        ++points;
        EXPECT_EQ(errors(), (std::vector<Pushed>{{r.code, op.name}}));
        EXPECT_EQ(table_dump(), before);
        for (uint32_t slot : row_slots()) EXPECT_NE(slot, 10u);
      }
      EXPECT_GE(points, 1) << op.name << " never reached a raise point";
    }
  }
}

// A code raised after the row callback changed the row: -1513 with the
// release flag keeps the change (the raiser took care of it), anything else
// rolls it back.
TEST_F(FaultTest, ReleaseKeepsTheRowActionAndRollbackUndoesIt) {
  struct Case {
    int32_t code;
    uint8_t release_flag;
    bool kept;
  };
  const uint32_t slot_of[] = {4, 6, 3};  // insert, modify (cells change), delete
  const std::vector<Op> all = ops();
  for (size_t k = 0; k < 3; ++k) {
    for (const Case& c : {Case{RTR_ERR_RELEASE, 1, true}, Case{RTR_ERR_RELEASE, 0, false},
                          Case{-2602, 1, false}, Case{-2602, 0, false}}) {
      SCOPED_TRACE(testing::Message()
                   << all[k].name << " code=" << c.code << " release=" << int(c.release_flag));
      const std::string before = table_dump();
      zqenv_err_clear(env_);
      uint32_t seen = 0;
      hooks().after_row_callback = [&](zq_ptx* ptx, uint32_t slot, int32_t rc) {
        EXPECT_EQ(rc, 0);
        seen = slot;
        ptx->release_flag = c.release_flag;
        throw zq_raised{c.code};
        return rc;
      };
      int32_t rc = all[k].run();
      hooks().after_row_callback = nullptr;
      EXPECT_EQ(seen, slot_of[k]);
      EXPECT_EQ(rc, c.code);
      EXPECT_EQ(errors(), (std::vector<Pushed>{{c.code, all[k].name}}));
      EXPECT_EQ(table_dump() != before, c.kept);
      if (c.kept) restore(all[k].name);
      EXPECT_EQ(table_dump(), before);
    }
  }
}

// Every allocation of every operation fails in turn: a negative code with
// the operation's name last on the stack, the table unchanged, nothing
// leaked; and with enough memory the operation succeeds.
TEST_F(FaultTest, EachAllocationFailingInTurnLeavesNoTrace) {
  for (const Op& op : ops()) {
    int failures = 0;
    for (uint64_t nth = 1;; ++nth) {
      SCOPED_TRACE(testing::Message() << op.name << " nth=" << nth);
      const std::string before = table_dump();
      const uint64_t live = zqenv_live_allocs(env_);
      zqenv_err_clear(env_);
      zqfault_reset(env_);
      zqfault_fail_alloc_nth(env_, nth);
      int32_t rc = op.run();
      zqfault_reset(env_);
      if (rc >= 0) break;
      ++failures;
      ASSERT_FALSE(errors().empty());
      EXPECT_EQ(errors().back(), (Pushed{rc, op.name}));
      EXPECT_EQ(table_dump(), before);
      EXPECT_EQ(zqenv_live_allocs(env_), live);
      ASSERT_LT(nth, 100u);
    }
    EXPECT_GE(failures, 1) << op.name << " allocates nothing?";
    restore(op.name);
  }
}

}  // namespace
}  // namespace phytest
