// The update a modify chooses: for every combination of changed columns and
// the table's flags F (no in-place parent) and G (no in-place level), which
// callback runs with which columns and values, that the row ends up right,
// and how a failure is reported.
#include <gtest/gtest.h>

#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

struct UpdateCase {
  bool level, parent, cells;   // what the modify changes
  bool f, g;                   // table flags
  uint32_t slot;               // 5 in place, 6 rewrite, 0 nothing written
  std::vector<uint16_t> cols;  // columns handed to the callback
};

const UpdateCase kCases[] = {
    // nothing changed: nothing written, note 100, whatever the flags
    {false, false, false, false, false, 0, {}},
    {false, false, false, true, true, 0, {}},
    // cells changed: always a rewrite, whatever the flags
    {false, false, true, false, false, 6, {2}},
    {false, false, true, true, true, 6, {2}},
    {true, false, true, false, false, 6, {0, 2}},
    {false, true, true, false, false, 6, {1, 2}},
    {true, true, true, false, false, 6, {0, 1, 2}},
    {true, true, true, true, false, 6, {0, 1, 2}},
    // parent only: F decides, G does not
    {false, true, false, false, false, 5, {1}},
    {false, true, false, false, true, 5, {1}},
    {false, true, false, true, false, 6, {1}},
    {false, true, false, true, true, 6, {1}},
    // level only: G decides, F is not consulted
    {true, false, false, false, false, 5, {0}},
    {true, false, false, true, false, 5, {0}},
    {true, false, false, false, true, 6, {0}},
    {true, false, false, true, true, 6, {0}},
    // level and parent: in place only when neither flag is set
    {true, true, false, false, false, 5, {0, 1}},
    {true, true, false, true, false, 6, {0, 1}},
    {true, true, false, false, true, 6, {0, 1}},
    {true, true, false, true, true, 6, {0, 1}},
};

class UpdateTest : public PhyTest {
 protected:
  void set_flags(bool f, bool g) {
    node_recdesc()->no_inplace_parent = f;
    node_recdesc()->no_inplace_level = g;
  }
};

TEST_F(UpdateTest, ChangedColumnsAndFlagsPickTheCallback) {
  handle(2);
  const std::vector<rtr_cell> stored = sample_cells(3);
  std::vector<rtr_cell> other = stored;
  other[1].rect.max1 += 0.5;
  int64_t id = 10;
  for (const UpdateCase& c : kCases) {
    SCOPED_TRACE(testing::Message() << "level=" << c.level << " parent=" << c.parent
                                    << " cells=" << c.cells << " F=" << c.f << " G=" << c.g);
    ++id;
    set_flags(false, false);
    put_node(id, 4, 1, stored);
    set_flags(c.f, c.g);
    hooks().calls.clear();
    const uint32_t level = c.level ? 2 : 1;
    const int64_t parent = c.parent ? 9 : 4;
    const std::vector<rtr_cell>& cells = c.cells ? other : stored;
    ASSERT_EQ(modify(id, parent, level, cells), c.slot == 0 ? RTR_NOTE_NOTHING : 0);
    set_flags(false, false);
    if (c.slot == 0) {
      EXPECT_TRUE(row_slots().empty());
      continue;
    }
    ASSERT_EQ(row_slots(), (std::vector<uint32_t>{c.slot}));
    const HookCall& call = hooks().calls.back();
    EXPECT_EQ(call.old_cols, c.cols);
    if (c.slot == 5) {
      EXPECT_EQ(call.cols, c.cols);
    }
    const NodeImage got = get_node(id);
    EXPECT_EQ(got.level, level);
    EXPECT_EQ(got.parent, parent);
    ASSERT_EQ(got.cells.size(), 3u);
    EXPECT_EQ(got.cells[1].rect.max1, cells[1].rect.max1);
  }
  EXPECT_TRUE(errors().empty()) << "100 is a note, not a failure";
}

TEST_F(UpdateTest, UpdatesHandOverNewAndOldValuesOfTheChangedColumns) {
  handle(2);
  put_node(3, 1, 4, sample_cells(1));
  hooks().calls.clear();
  ASSERT_EQ(modify(3, 8, 5, sample_cells(1)), 0);
  ASSERT_EQ(row_slots(), (std::vector<uint32_t>{5}));
  const HookCall& fixed = hooks().calls.back();
  ASSERT_EQ(fixed.new_values.size(), 2u);
  ASSERT_EQ(fixed.old_values.size(), 2u);
  EXPECT_EQ(fixed.new_values[0].u.i32, 5);
  EXPECT_EQ(fixed.old_values[0].u.i32, 4);
  EXPECT_EQ(fixed.new_values[1].u.i64, 8);
  EXPECT_EQ(fixed.old_values[1].u.i64, 1);
  // A rewrite lists the old blob: one 2-D entry, 4 + 40 bytes.
  hooks().calls.clear();
  ASSERT_EQ(modify(3, 8, 5, sample_cells(2)), 0);
  ASSERT_EQ(row_slots(), (std::vector<uint32_t>{6}));
  ASSERT_EQ(hooks().calls.back().old_values.size(), 1u);
  EXPECT_EQ(hooks().calls.back().old_values[0].len, 44u);
}

// A missing row fails the modify alone; a failing update callback is pushed
// by the update function and by the modify, and the row stays as it was.
TEST_F(UpdateTest, FailuresArePushedByEveryLevel) {
  handle(2);
  EXPECT_EQ(modify(12, 1, 0, sample_cells(1)), RTR_ERR_NO_ROW);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROW, "rtr_phy_modify_node"}}));
  EXPECT_EQ(count_rows(), 0);
  put_node(3, 1, 0, sample_cells(2));
  for (const auto& [slot, pusher] :
       {std::pair<uint32_t, const char*>{5, "rtr_phy_update_node_fixed"},
        {6, "rtr_phy_update_node_unfixed"}}) {
    SCOPED_TRACE(pusher);
    zqenv_err_clear(env_);
    zqfault_reset(env_);
    zqfault_callback_nth(env_, slot, 1, -4242);
    EXPECT_EQ(modify(3, 6, 0, sample_cells(slot == 6 ? 3 : 2)), -4242);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{-4242, pusher}, {-4242, "rtr_phy_modify_node"}}));
    zqfault_reset(env_);
    const NodeImage got = get_node(3);
    EXPECT_EQ(got.parent, 1);
    EXPECT_EQ(got.cells.size(), 2u);
  }
}

}  // namespace
}  // namespace phytest
