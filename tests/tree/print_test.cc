// rtr_print's text, byte for byte, on standard output: a two-level tree,
// single leaves of each dimension count, and the indentation limit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tree/tree_util.h"

namespace {

using treetest::box2;
using treetest::TreeTest;

class PrintTest : public TreeTest {
 protected:
  std::string print(int64_t node_id, uint32_t depth) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(rtr_print(env_, nullptr, node_id, depth, rtr_), 0);
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(PrintTest, TwoLevelTreePrintsEachChildBelowItsCell) {
  create_root(2);
  open(2);
  // Unit boxes 0..51 on a line: the root splits into 50 and 2; delete down
  // to a small tree whose every line is known.
  for (int i = 0; i <= RTR_MAX_CELLS; ++i) ASSERT_EQ(insert(100 + i, box2(i, 0, i + 1.5, 1)), 0);
  for (int i = 2; i < 50; ++i) {
    const rtr_rect r = box2(i, 0, i + 1.5, 1);
    ASSERT_EQ(rtr_delete_by_rowid(env_, rtr_, 100 + i, &r), 0);
  }
  commit();
  open(2);
  rtr_node* root = peek(RTR_ROOT_ID);
  ASSERT_EQ(root->n_cells, 2u);
  const std::string a = std::to_string(root->cells[0].id);
  const std::string b = std::to_string(root->cells[1].id);
  const std::string want =
      "\nid:1, level:1, n_cells:2:\n"
      "no:0, id(rowid):" +
      a +
      ", (0.000000, 0.000000), (2.500000, 1.000000)\n"
      "\n  id:" +
      a +
      ", level:0, n_cells:2:\n"
      "  no:0, id(rowid):100, (0.000000, 0.000000), (1.500000, 1.000000)\n"
      "  no:1, id(rowid):101, (1.000000, 0.000000), (2.500000, 1.000000)\n"
      "no:1, id(rowid):" +
      b +
      ", (50.000000, 0.000000), (52.500000, 1.000000)\n"
      "\n  id:" +
      b +
      ", level:0, n_cells:2:\n"
      "  no:0, id(rowid):150, (50.000000, 0.000000), (51.500000, 1.000000)\n"
      "  no:1, id(rowid):151, (51.000000, 0.000000), (52.500000, 1.000000)\n";
  EXPECT_EQ(print(RTR_ROOT_ID, 0), want);
  // Every node printed stays pinned for the handle's life: intended.
  EXPECT_EQ(rtr_node_hash_lookup(rtr_, RTR_ROOT_ID)->ref_count, 1u);
  EXPECT_EQ(rtr_node_hash_lookup(rtr_, root->cells[1].id)->ref_count, 1u);
}

struct LeafCase {
  uint16_t dims;
  const char* want;
};

// One leaf of 3 cells at depth 0: a header after an empty line, no
// indentation, always four numbers (min0, min1, max0, max1).
const LeafCase kLeafCases[] = {
    {1,
     "\nid:1, level:0, n_cells:3:\n"
     "no:0, id(rowid):7, (-1.250000, 0.000000), (2.000000, 0.000000)\n"
     "no:1, id(rowid):8, (3.000000, 0.000000), (3.000000, 0.000000)\n"
     "no:2, id(rowid):-9, (1000000.500000, 0.000000), (1000001.000000, 0.000000)\n"},
    {2,
     "\nid:1, level:0, n_cells:3:\n"
     "no:0, id(rowid):7, (-1.250000, 0.500000), (2.000000, 4.000000)\n"
     "no:1, id(rowid):8, (3.000000, 3.000000), (3.000000, 3.000000)\n"
     "no:2, id(rowid):-9, (1000000.500000, 0.000000), (1000001.000000, 0.125000)\n"},
    {3,
     "\nid:1, level:0, n_cells:3:\n"
     "no:0, id(rowid):7, (-1.250000, 0.500000), (2.000000, 4.000000)\n"
     "no:1, id(rowid):8, (3.000000, 3.000000), (3.000000, 3.000000)\n"
     "no:2, id(rowid):-9, (1000000.500000, 0.000000), (1000001.000000, 0.125000)\n"},
};

class PrintLeafTest : public PrintTest, public testing::WithParamInterface<LeafCase> {};

TEST_P(PrintLeafTest, SingleLeafPrintsFourNumbersPerCell) {
  const uint16_t d = GetParam().dims;
  create_root(d);
  open(d);
  const double lo[3][3] = {{-1.25, 0.5, 9}, {3, 3, 9}, {1000000.5, 0, 9}};
  const double hi[3][3] = {{2, 4, 10}, {3, 3, 10}, {1000001, 0.125, 10}};
  const int64_t ids[3] = {7, 8, -9};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(insert(ids[i], treetest::make_box(d, lo[i], hi[i])), 0);
  commit();
  open(d);
  EXPECT_EQ(print(RTR_ROOT_ID, 0), GetParam().want);
}

INSTANTIATE_TEST_SUITE_P(Print, PrintLeafTest, testing::ValuesIn(kLeafCases),
                         [](const auto& info) { return std::to_string(info.param.dims) + "D"; });

TEST(PrintSpaceTest, TwoSpacesPerLevelUpTo148) {
  const struct {
    uint32_t depth;
    size_t spaces;
  } cases[] = {{0, 0}, {1, 2}, {73, 146}, {74, 148}, {80, 148}, {0xFFFFFFFFu, 148}};
  for (const auto& c : cases) {
    EXPECT_EQ(std::string(rtr_get_space(c.depth)), std::string(c.spaces, ' ')) << c.depth;
  }
}

}  // namespace
