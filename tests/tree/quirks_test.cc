// The tree's required odd behaviours, one scenario each: the split's single
// scratch box, forced reinsertion keeping 49 and placing 3 nearest first, two
// axes for distances when the new entry reaches +infinity on the third, the
// cursor comparing two axes only, root split and root shortening.
#include <gtest/gtest.h>

#include <cfloat>
#include <set>
#include <vector>

#include "tests/tree/tree_util.h"

namespace {

using treetest::box2;
using treetest::TreeTest;
using zqtest::Pushed;

rtr_rect box3(double x0, double y0, double z0, double x1, double y1, double z1) {
  return rtr_rect{x0, y0, z0, x1, y1, z1};
}

std::set<int64_t> id_set(const rtr_node* n) {
  std::set<int64_t> out;
  for (uint32_t i = 0; i < n->n_cells; ++i) out.insert(n->cells[i].id);
  return out;
}

const std::vector<Pushed> kOneOverflow = {{RTR_ERR_NO_ROOM, "rtr_node_insert_cell"}};

class QuirkTest : public TreeTest {
 protected:
  // A tree of root level 1 whose leaves hold exactly `leaves`, in that order
  // in the root, built through the node API and written to the node table.
  void build(uint16_t dims, const std::vector<std::vector<rtr_cell>>& leaves) {
    create_root(dims);
    open(dims);
    rtr_node* root = nullptr;
    ASSERT_EQ(rtr_node_acquire(env_, rtr_, RTR_ROOT_ID, &root), 0);
    for (const auto& cells : leaves) {
      rtr_node* leaf = nullptr;
      ASSERT_EQ(rtr_node_new(env_, rtr_, RTR_ROOT_ID, 0, &leaf), 0);
      for (const rtr_cell& c : cells) ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, leaf, &c), 0);
      rtr_cell entry{leaf->id, {}};
      rtr_union_cells(dims, leaf->n_cells, leaf->cells, &entry.rect);
      ASSERT_EQ(rtr_node_insert_cell(env_, rtr_, root, &entry), 0);
      leaf_ids_.push_back(leaf->id);
      rtr_node_release(leaf);
    }
    root->level = 1;
    rtr_node_set_modify(env_, rtr_, root);
    rtr_node_release(root);
    commit();
    expect_sound();
    open(dims);
  }

  std::vector<int64_t> leaf_ids_;
};

// ---- split ----

struct SplitCase {
  const char* name;
  rtr_rect (*entry)(int i);  // entry i of 52, inserted in order as rowid i
  uint32_t left, right;      // expected entry counts of the two halves
  int64_t first_right;       // smallest rowid expected in the right half
};

// With the lower and upper group boxes built in one scratch box, every
// position measures the upper group's box: equal measures (degenerate boxes)
// keep the first position, 2, while shrinking ones push it to the last, 50.
const SplitCase kSplitCases[] = {
    {"IdenticalPoints", [](int) { return box2(5, 5, 5, 5); }, 2, 50, -1},
    {"PointsOnALine", [](int i) { return box2(i, 0, i, 0); }, 2, 50, 2},
    {"UnitBoxesOnALine", [](int i) { return box2(i, 0, i + 1, 1); }, 50, 2, 50},
};

class SplitTest : public QuirkTest, public testing::WithParamInterface<SplitCase> {};

TEST_P(SplitTest, RootSplitKeepsNodeOneAndDividesByTheScratchBoxRule) {
  const SplitCase& c = GetParam();
  create_root(2);
  open(2);
  for (int i = 0; i < RTR_MAX_CELLS; ++i) ASSERT_EQ(insert(i, c.entry(i)), 0);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(rtr_->root_level, 0u);
  ASSERT_EQ(insert(RTR_MAX_CELLS, c.entry(RTR_MAX_CELLS)), 0);
  // The root is never reinserted: its overflow splits at once.
  EXPECT_EQ(errors(), kOneOverflow);
  EXPECT_EQ(rtr_->root_level, 1u);
  rtr_node* root = peek(RTR_ROOT_ID);
  EXPECT_EQ(root->level, 1u);
  ASSERT_EQ(root->n_cells, 2u);
  rtr_node* left = peek(root->cells[0].id);
  rtr_node* right = peek(root->cells[1].id);
  EXPECT_NE(left->id, RTR_ROOT_ID);
  EXPECT_NE(right->id, RTR_ROOT_ID);
  EXPECT_EQ(left->n_cells, c.left);
  EXPECT_EQ(right->n_cells, c.right);
  for (rtr_node* half : {left, right}) {
    EXPECT_EQ(half->parent_id, RTR_ROOT_ID);
    EXPECT_EQ(half->level, 0u);
  }
  if (c.first_right >= 0) {
    EXPECT_EQ(*id_set(right).begin(), c.first_right);
  }
  commit();
  expect_sound();
  EXPECT_EQ(count_rows(), 3);
}

INSTANTIATE_TEST_SUITE_P(Quirk, SplitTest, testing::ValuesIn(kSplitCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(QuirkTest, WideningTheAncestorsLeavesTheRootPinned) {
  build(2, {{{1, box2(0, 0, 1, 1)}, {2, box2(2, 2, 3, 3)}}, {{3, box2(8, 8, 9, 9)}}});
  const uint32_t before = peek(RTR_ROOT_ID)->ref_count;
  ASSERT_EQ(insert(4, box2(0, 0, 4, 4)), 0);
  ASSERT_EQ(insert(5, box2(0, 0, 5, 5)), 0);
  // One pin more per insertion: the topmost node of the walk is not released.
  EXPECT_EQ(rtr_node_hash_lookup(rtr_, RTR_ROOT_ID)->ref_count, before + 2);
  EXPECT_EQ(peek(RTR_ROOT_ID)->cells[0].rect.max0, 5.0);
}

// ---- the unstable merge sorts ----

TEST(SortTest, EqualKeysComeRightPartFirst) {
  // Axis k's (min, max): 0 (1,5), 1 (1,3), 2 (0,9), 3 (1,3). A stable sort
  // would give 2 1 3 0; taking the right part first on a tie gives 2 3 1 0.
  const double mm[4][2] = {{1, 5}, {1, 3}, {0, 9}, {1, 3}};
  for (uint32_t axis = 0; axis < 3; ++axis) {
    rtr_cell cells[4] = {};
    for (int i = 0; i < 4; ++i) {
      double* mins[3] = {&cells[i].rect.min0, &cells[i].rect.min1, &cells[i].rect.min2};
      double* maxs[3] = {&cells[i].rect.max0, &cells[i].rect.max1, &cells[i].rect.max2};
      *mins[axis] = mm[i][0];
      *maxs[axis] = mm[i][1];
      *mins[(axis + 1) % 3] = 10 - i;  // another axis in the opposite order
    }
    uint32_t idx[4] = {0, 1, 2, 3}, tmp[4];
    rtr_sort_by_dimension(nullptr, idx, 4, axis, cells, tmp);
    EXPECT_EQ(std::vector<uint32_t>(idx, idx + 4), (std::vector<uint32_t>{2, 3, 1, 0})) << axis;
  }
  const double dist[4] = {1, 0, 1, 0};
  uint32_t idx[4] = {0, 1, 2, 3}, tmp[2];
  rtr_sort_by_distance(idx, 4, dist, tmp);
  EXPECT_EQ(std::vector<uint32_t>(idx, idx + 4), (std::vector<uint32_t>{3, 1, 2, 0}));
}

// ---- forced reinsertion ----

TEST_F(QuirkTest, ReinsertionKeeps49AndPlacesTheFarthest3NearestFirst) {
  // Leaf A: 48 unit boxes near the origin and three outliers near leaf B,
  // listed with rowids in the reverse of their distance order.
  std::vector<rtr_cell> a, b;
  for (int i = 0; i < 48; ++i) a.push_back({i + 1, box2(i, 0, i + 1, 1)});
  a.push_back({101, box2(902, 0, 903, 1)});
  a.push_back({102, box2(901, 0, 902, 1)});
  a.push_back({103, box2(900, 0, 901, 1)});
  b.push_back({201, box2(1000, 0, 1001, 1)});
  b.push_back({202, box2(1009, 0, 1010, 1)});
  build(2, {a, b});
  ASSERT_EQ(insert(999, box2(10, 0, 11, 1)), 0);
  EXPECT_EQ(errors(), kOneOverflow);
  rtr_node* leaf_a = peek(leaf_ids_[0]);
  rtr_node* leaf_b = peek(leaf_ids_[1]);
  EXPECT_EQ(leaf_a->n_cells, 49u);
  EXPECT_EQ(id_set(leaf_a).count(999), 1u);
  EXPECT_EQ(cell_ids(leaf_b), (std::vector<int64_t>{201, 202, 103, 102, 101}));
  // A's box in the root shrank back to its 49 entries.
  rtr_node* root = peek(RTR_ROOT_ID);
  EXPECT_EQ(root->cells[0].rect.max0, 48.0);
  commit();
  expect_sound();
}

struct InfinityCase {
  const char* name;
  double new_max2;            // third maximum of the entry that overflows leaf A
  std::vector<int64_t> to_b;  // rowids expected to move to leaf B, in order
};

const InfinityCase kInfinityCases[] = {
    // Three axes: the entries far out on z are the farthest.
    {"FiniteThirdAxis", 1.0, {53, 52, 51}},
    // +infinity: distances use x and y only, so the entries far out on x go.
    {"InfiniteThirdAxis", DBL_MAX + DBL_MAX, {61, 62, 63}},
};

class InfinityTest : public QuirkTest, public testing::WithParamInterface<InfinityCase> {};

TEST_P(InfinityTest, ThirdMaximumAtInfinityMeasuresDistancesOnTwoAxes) {
  std::vector<rtr_cell> a, b;
  for (int i = 0; i < 45; ++i) a.push_back({i + 1, box3(i, 0, 0, i + 1, 1, 1)});
  for (int k = 0; k < 3; ++k) a.push_back({51 + k, box3(20 + k, 0, 5000, 21 + k, 1, 5001)});
  for (int k = 0; k < 3; ++k) a.push_back({61 + k, box3(200 + k, 0, 0, 201 + k, 1, 1)});
  // B contains every outlier, so whichever three leave A land in B; it comes
  // first in the root and is larger than A.
  b.push_back({201, box3(0, 0, 0, 1, 1, 1)});
  b.push_back({202, box3(249, 0, 5999, 250, 1, 6000)});
  build(3, {b, a});
  ASSERT_EQ(insert(999, box3(10, 0, 0, 11, 1, GetParam().new_max2)), 0);
  EXPECT_EQ(errors(), kOneOverflow);
  rtr_node* leaf_a = peek(leaf_ids_[1]);
  rtr_node* leaf_b = peek(leaf_ids_[0]);
  EXPECT_EQ(leaf_a->n_cells, 49u);
  std::vector<int64_t> want = {201, 202};
  want.insert(want.end(), GetParam().to_b.begin(), GetParam().to_b.end());
  EXPECT_EQ(cell_ids(leaf_b), want);
  commit();
  expect_sound();
}

INSTANTIATE_TEST_SUITE_P(Quirk, InfinityTest, testing::ValuesIn(kInfinityCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- the cursor's two axes ----

struct TwoAxisCase {
  const char* name;
  rtr_rect asked;  // the box given with rowid 7, whose entry is (0,0,0)-(1,1,1)
  int32_t rc;
};

const TwoAxisCase kTwoAxisCases[] = {
    {"ThirdAxisDiffers", box3(0, 0, 50, 1, 1, 60), 0},
    {"FirstAxisDiffers", box3(0.5, 0, 0, 1, 1, 1), RTR_ERR_NOT_FOUND},
    {"SecondAxisDiffers", box3(0, 0, 0, 1, 1.5, 1), RTR_ERR_NOT_FOUND},
};

class TwoAxisTest : public QuirkTest, public testing::WithParamInterface<TwoAxisCase> {};

TEST_P(TwoAxisTest, EqualSearchAndDeletionCompareTheFirstTwoAxesOnly) {
  create_root(3);
  open(3);
  // Fillers make branch levels, so the branch test is on trial too; all of
  // them lie below z = 20, and rowid 8 differs from 7 on the third axis only.
  for (int i = 0; i < 400; ++i) {
    double x = 2 + (i % 40) * 3, y = 2 + (i / 40) * 3;
    ASSERT_EQ(insert(1000 + i, box3(x, y, i % 20, x + 1, y + 1, i % 20 + 1)), 0);
  }
  ASSERT_EQ(insert(7, box3(0, 0, 0, 1, 1, 1)), 0);
  ASSERT_EQ(insert(8, box3(0, 0, 10, 1, 1, 11)), 0);
  EXPECT_GE(rtr_->root_level, 1u);
  EXPECT_EQ(ids_of(search(GetParam().asked, RTR_OP_EQUAL)),
            (GetParam().rc == 0 ? std::vector<int64_t>{7, 8} : std::vector<int64_t>{}));
  zqenv_err_clear(env_);
  EXPECT_EQ(rtr_delete_by_rowid(env_, rtr_, 7, &GetParam().asked), GetParam().rc);
  if (GetParam().rc == 0) {
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(ids_of(search(box3(0, 0, 0, 1, 1, 1), RTR_OP_EQUAL)), std::vector<int64_t>{8});
  } else {
    EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_NOT_FOUND, "rtr_find_leaf_node"},
                                             {RTR_ERR_NOT_FOUND, "rtr_delete_by_rowid"}}));
    EXPECT_EQ(ids_of(search(box3(0, 0, 0, 1, 1, 1), RTR_OP_EQUAL)), (std::vector<int64_t>{7, 8}));
  }
  commit();
  expect_sound();
}

INSTANTIATE_TEST_SUITE_P(Quirk, TwoAxisTest, testing::ValuesIn(kTwoAxisCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- root shortening ----

TEST_F(QuirkTest, RootWithOneChildLeftTakesItsEntriesAndTheTreeShrinks) {
  // 52 identical points split the root 2 / 50.
  create_root(2);
  open(2);
  for (int i = 0; i <= RTR_MAX_CELLS; ++i) ASSERT_EQ(insert(i, box2(5, 5, 5, 5)), 0);
  commit();
  EXPECT_EQ(count_rows(), 3);
  open(2);
  rtr_node* root = peek(RTR_ROOT_ID);
  rtr_node* small = peek(root->cells[0].id);
  ASSERT_EQ(small->n_cells, 2u);
  const int64_t gone = small->cells[0].id;
  const int64_t kept = small->cells[1].id;
  zqenv_err_clear(env_);
  const rtr_rect p = box2(5, 5, 5, 5);
  // The small leaf drops below 2 entries and leaves the root; the root, left
  // with one child, takes that child's 50 entries and the one reinserted.
  ASSERT_EQ(rtr_delete_by_rowid(env_, rtr_, gone, &p), 0);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(rtr_->root_level, 0u);
  root = peek(RTR_ROOT_ID);
  EXPECT_EQ(root->level, 0u);
  EXPECT_EQ(root->n_cells, 51u);
  std::set<int64_t> ids = id_set(root);
  EXPECT_EQ(ids.count(gone), 0u);
  EXPECT_EQ(ids.count(kept), 1u);
  commit();
  EXPECT_EQ(count_rows(), 1) << "the two leaves' rows are deleted";
  expect_sound();
}

TEST_F(QuirkTest, DeletingFromARootLeafNeverCondensesIt) {
  create_root(1);
  open(1);
  const double lo[3] = {3, 0, 0}, hi[3] = {4, 0, 0};
  const rtr_rect r = treetest::make_box(1, lo, hi);
  ASSERT_EQ(insert(1, r), 0);
  ASSERT_EQ(rtr_delete_by_rowid(env_, rtr_, 1, &r), 0);
  EXPECT_EQ(peek(RTR_ROOT_ID)->n_cells, 0u);
  EXPECT_EQ(rtr_delete_by_rowid(env_, rtr_, 1, &r), RTR_ERR_NOT_FOUND);
  commit();
  EXPECT_EQ(count_rows(), 1);
  expect_sound();
}

}  // namespace
