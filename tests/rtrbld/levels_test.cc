// The shape of bulk-built trees, read back from the node table with SQL: the
// worked example of ten entries per node, the packing model across
// dimensions and fill factors, and the empty and single-node builds.
#include <gtest/gtest.h>

#include "rtrbld/bld_util.h"

namespace {

using bldtest::BldTest;
using bldtest::Entry;

// Just above 10/51, so that trunc(fill * 51) is 10 whatever the rounding.
constexpr double kFillTen = 10.0 / 51 + 1e-12;

TEST_F(BldTest, TenPerNodeAndHundredEntriesMakeSlicesOf40_40_20) {
  ASSERT_EQ(static_cast<uint32_t>(kFillTen * 51.0), 10u);
  const std::vector<Entry> entries = bldtest::uniform(100, 2, 17);
  ASSERT_EQ(build(entries, 2, kFillTen), 0) << stack_text();
  const auto rows = nodes();
  ASSERT_EQ(rows.size(), 11u);

  const bldtest::NodeRow& root = rows.at(1);
  EXPECT_EQ(root.level, 1u);
  ASSERT_EQ(root.cells.size(), 10u);
  // Each entry's slice: its rank by the centre on axis 0, in forties.
  std::vector<const Entry*> by_x;
  for (const Entry& e : entries) by_x.push_back(&e);
  std::sort(by_x.begin(), by_x.end(), [](const Entry* a, const Entry* b) {
    return a->box.min0 + a->box.max0 < b->box.min0 + b->box.max0;
  });
  std::map<int64_t, size_t> slice_of;
  for (size_t rank = 0; rank < by_x.size(); ++rank) slice_of[by_x[rank]->id] = rank / 40;

  std::vector<int> leaves_per_slice(3, 0);
  for (const rtr_cell& c : root.cells) {
    const bldtest::NodeRow& leaf = rows.at(c.id);
    EXPECT_EQ(leaf.level, 0u);
    EXPECT_EQ(leaf.parent, 1);
    ASSERT_EQ(leaf.cells.size(), 10u);
    rtr_rect box;
    rtr_union_cells(2, 10, leaf.cells.data(), &box);
    EXPECT_TRUE(treetest::m_equal(box, c.rect, 2)) << "leaf " << c.id;
    const size_t slice = slice_of.at(leaf.cells[0].id);
    for (const rtr_cell& e : leaf.cells) EXPECT_EQ(slice_of.at(e.id), slice) << "leaf " << c.id;
    ++leaves_per_slice[slice];
  }
  EXPECT_EQ(leaves_per_slice, (std::vector<int>{4, 4, 2}));
}

// Every level's nodes hold exactly the entries the packing model gives them.
TEST_F(BldTest, LevelsFollowThePackingModel) {
  struct Case {
    uint16_t dims;
    size_t n;
    double fill;
    uint32_t nfill;
    const char* why;
  };
  const Case cases[] = {
      {2, 100, kFillTen, 10, "slices of 40, 40, 20"},
      {2, 20, kFillTen, 10, "nfill * S == n: packed along axis 0 alone"},
      {1, 1000, 0.7, 35, "one axis: always packed directly"},
      {2, 1000, 0.7, 35, "fill 0.7"},
      {2, 5000, 1.0, 51, "fill 1.0, three levels"},
      {3, 1000, 7.0 / 51 + 1e-12, 7, "3-D: square root again inside each slice"},
      {3, 20000, 1.0, 51, "3-D, full nodes"},
      {3, 52, 1.0, 51, "two leaves"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.dims) + "-D, n " + std::to_string(c.n) + ": " + c.why);
    ASSERT_EQ(static_cast<uint32_t>(c.fill * 51.0), c.nfill);
    const std::vector<Entry> entries = bldtest::uniform(c.n, c.dims, static_cast<uint32_t>(c.n));
    begin();
    ASSERT_EQ(build(entries, c.dims, c.fill), 0) << stack_text();
    const auto rows = nodes();
    const std::vector<bldtest::Groups> want = bldtest::model_shape(entries, c.dims, c.nfill);
    const std::vector<bldtest::Groups> got = bldtest::shape_of(rows);
    ASSERT_EQ(got.size(), want.size());
    for (size_t level = 0; level < want.size(); ++level)
      EXPECT_TRUE(got[level] == want[level]) << "level " << level << " differs";
    EXPECT_EQ(rows.at(1).level, want.size() - 1) << "the top node is the root";
    size_t widest = 0;
    for (const auto& [id, row] : rows) widest = std::max(widest, row.cells.size());
    EXPECT_EQ(widest, std::min<size_t>(c.nfill, c.n)) << "entries per node";
    zqcheck::TreeStats stats;
    expect_sound(&stats);
    EXPECT_EQ(stats.entries, c.n);
    rollback();
  }
}

// Input that fits one node becomes a leaf moved to the root's row (one
// delete); empty input writes one empty leaf as the root, with no move.
TEST_F(BldTest, InputThatFitsOneNodeBecomesTheRootLeaf) {
  struct Case {
    size_t n;
    double fill;
  };
  for (const Case& c : {Case{0, 1.0}, Case{1, 1.0}, Case{10, kFillTen}, Case{51, 1.0}}) {
    SCOPED_TRACE("n " + std::to_string(c.n));
    const std::vector<Entry> entries = bldtest::uniform(c.n, 3, 5);
    begin();
    const uint64_t deletes = zqfault_callback_count(env_, 3);
    ASSERT_EQ(build(entries, 3, c.fill), 0) << stack_text();
    EXPECT_EQ(zqfault_callback_count(env_, 3), deletes + (c.n > 0 ? 1 : 0));
    const auto rows = nodes();
    ASSERT_EQ(rows.size(), 1u);
    const bldtest::NodeRow& root = rows.at(1);
    EXPECT_EQ(root.level, 0u);
    std::vector<int64_t> ids, want;
    for (const rtr_cell& e : root.cells) ids.push_back(e.id);
    for (const Entry& e : entries) want.push_back(e.id);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, want);
    expect_sound();
    rollback();
  }
}

}  // namespace
