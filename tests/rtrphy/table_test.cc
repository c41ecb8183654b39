// Node rows in a real node table: written and read back (also across a
// reopen of the database file), missing rows, deletion, and node ids.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// What a handle of d dimensions reads back of `cells`: the first d axes, and
// for d = 2 the whole third axis. Axes a 1-D row does not carry are skipped.
void expect_persisted(uint16_t d, const NodeImage& got, const NodeImage& want) {
  EXPECT_EQ(got.id, want.id);
  EXPECT_EQ(got.parent, want.parent);
  EXPECT_EQ(got.level, want.level);
  ASSERT_EQ(got.cells.size(), want.cells.size());
  for (size_t i = 0; i < got.cells.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "cell " << i);
    const rtr_cell& g = got.cells[i];
    const rtr_cell& w = want.cells[i];
    EXPECT_EQ(g.id, w.id);
    EXPECT_EQ(g.rect.min0, w.rect.min0);
    EXPECT_EQ(g.rect.max0, w.rect.max0);
    if (d >= 2) {
      EXPECT_EQ(g.rect.min1, w.rect.min1);
      EXPECT_EQ(g.rect.max1, w.rect.max1);
      EXPECT_EQ(g.rect.min2, d == 3 ? w.rect.min2 : -kInf);
      EXPECT_EQ(g.rect.max2, d == 3 ? w.rect.max2 : kInf);
    }
  }
}

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
      NodeImage got = get_node(n.id, &rc);
      ASSERT_EQ(rc, 0);
      expect_persisted(d, got, n);
    }
  }
  EXPECT_EQ(count_rows(), 9);
  EXPECT_TRUE(errors().empty());
}

TEST_F(TableTest, NodesSurviveClosingAndReopeningTheDatabaseFile) {
  const std::string path = testing::TempDir() + "zq_phy_reopen_" + std::to_string(getpid()) + ".db";
  std::remove(path.c_str());
  zqsess_close(sess_);
  sess_ = nullptr;
  open_session(path.c_str());

  handle(3);
  const NodeImage root{1, 0, 1, {cell(2, 0, 0, 0, 5, 5, 5), cell(3, 5, 5, 5, 9, 9, 9)}};
  const NodeImage leaf{2, 1, 0, sample_cells(40)};
  const NodeImage other{3, 1, 0, sample_cells(2, 900)};
  for (const NodeImage* n : {&root, &leaf, &other}) put_node(n->id, n->parent, n->level, n->cells);
  rtr_mem_destroy(env_, rtr_);
  rtr_ = nullptr;

  reopen_session(path.c_str());
  handle(3);
  for (const NodeImage* n : {&root, &leaf, &other}) {
    int32_t rc = -1;
    expect_same(get_node(n->id, &rc), *n);
    EXPECT_EQ(rc, 0);
  }
  rtr_mem_destroy(env_, rtr_);
  rtr_ = nullptr;
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

TEST_F(TableTest, MissingRootRowAndMissingNodeRowAreDifferentFailures) {
  handle(2);
  struct Case {
    int64_t id;
    int32_t code;
  };
  for (const Case& c :
       {Case{1, RTR_ERR_NOT_FOUND}, Case{2, RTR_ERR_NO_ROW}, Case{77, RTR_ERR_NO_ROW}}) {
    zqenv_err_clear(env_);
    rtr_node* node = reinterpret_cast<rtr_node*>(0x1);
    EXPECT_EQ(rtr_phy_read_node(env_, rtr_, c.id, &node), c.code) << c.id;
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{c.code, "rtr_phy_read_node"}}));
  }
  // A present root does not make other ids readable, nor the reverse.
  put_node(5, 1, 0, sample_cells(1));
  int32_t rc = 0;
  get_node(1, &rc);
  EXPECT_EQ(rc, RTR_ERR_NOT_FOUND);
}

TEST_F(TableTest, DeleteRemovesOnlyItsRowAndReportsAMissingOne) {
  handle(2);
  put_node(4, 1, 0, sample_cells(2));
  put_node(5, 1, 0, sample_cells(3));
  int64_t id = 4;
  EXPECT_EQ(rtr_phy_delete_node(env_, rtr_, &id), 0);
  EXPECT_EQ(count_rows(), 1);
  int32_t rc = 0;
  get_node(5, &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4, 4, 3}));

  zqenv_err_clear(env_);
  EXPECT_EQ(rtr_phy_delete_node(env_, rtr_, &id), RTR_ERR_NO_ROW);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NO_ROW, "rtr_phy_delete_node"}}));
  EXPECT_EQ(count_rows(), 1);
}

TEST_F(TableTest, NodeIdsNeverHandOutTheRootsId) {
  handle(2);
  // A fresh table's counter would start at 1.
  int32_t code = -1;
  int64_t first = rtr_phy_get_next_node_id(env_, rtr_, &code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(first, 2);
  put_node(first, 1, 0, {});
  int64_t prev = first;
  for (int i = 0; i < 5; ++i) {
    int64_t id = rtr_phy_get_next_node_id(env_, rtr_, &code);
    EXPECT_GT(id, prev);
    prev = id;
  }
  EXPECT_TRUE(errors().empty());
}

}  // namespace
}  // namespace phytest
