// Failure paths of the node-table operations that the fault sweep does not
// tell apart: a refused insert and its notice (slot 10) after the
// mini-transaction, and a code raised after the row action, which -1513
// with the release flag keeps and anything else rolls back; each pushed once
// under the operation's name. (Every raise point and allocation of these
// operations is failed by the sweep.)
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

class FaultTest : public PhyTest {
 protected:
  void SetUp() override {
    PhyTest::SetUp();
    handle(2);
    put_node(5, 1, 0, sample_cells(3));
    hooks().calls.clear();
  }

  int32_t insert_node() {
    rtr_node* node = nullptr;
    EXPECT_EQ(rtr_node_create(env_, rtr_, 0, 9, &node), 0);
    fill_node(node, sample_cells(4));
    const int32_t rc = rtr_phy_insert_node(env_, rtr_, node);
    rtr_node_destroy(rtr_, node);
    return rc;
  }
};

TEST_F(FaultTest, RefusedInsertCallsTheNoticeAfterItsMiniTransaction) {
  const std::string before = table_dump();
  zqfault_callback_nth(env_, 4, 1, RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(insert_node(), RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4, 10}));
  EXPECT_EQ(hooks().calls.back().code, RTR_ERR_INSERT_FAILED);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_INSERT_FAILED, "rtr_phy_insert_node"}}));
  EXPECT_EQ(table_dump(), before);

  // Any other refusal is only pushed.
  zqenv_err_clear(env_);
  hooks().calls.clear();
  zqfault_callback_nth(env_, 4, 1, -77);
  EXPECT_EQ(insert_node(), -77);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4}));
  EXPECT_EQ(errors(), (std::vector<Pushed>{{-77, "rtr_phy_insert_node"}}));
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
  struct Op {
    const char* name;
    uint32_t slot;
    std::function<int32_t()> run, undo;
  };
  const Op ops[] = {
      {"rtr_phy_insert_node", 4, [this] { return insert_node(); },
       [this] {
         int64_t id = 9;
         return rtr_phy_delete_node(env_, rtr_, &id);
       }},
      {"rtr_phy_modify_node", 6, [this] { return modify(5, 2, 0, sample_cells(6)); },
       [this] { return modify(5, 1, 0, sample_cells(3)); }},
      {"rtr_phy_delete_node", 3,
       [this] {
         int64_t id = 5;
         return rtr_phy_delete_node(env_, rtr_, &id);
       },
       [this] {
         put_node(5, 1, 0, sample_cells(3));
         return 0;
       }},
  };
  for (const Op& op : ops) {
    for (const Case& c : {Case{RTR_ERR_RELEASE, 1, true}, Case{RTR_ERR_RELEASE, 0, false},
                          Case{-2602, 1, false}, Case{-2602, 0, false}}) {
      SCOPED_TRACE(testing::Message()
                   << op.name << " code=" << c.code << " release=" << int(c.release_flag));
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
      const int32_t rc = op.run();
      hooks().after_row_callback = nullptr;
      EXPECT_EQ(seen, op.slot);
      EXPECT_EQ(rc, c.code);
      EXPECT_EQ(errors(), (std::vector<Pushed>{{c.code, op.name}}));
      EXPECT_EQ(table_dump() != before, c.kept);
      if (c.kept) {
        EXPECT_EQ(op.undo(), 0);
      }
      EXPECT_EQ(table_dump(), before);
    }
  }
}

}  // namespace
}  // namespace phytest
