// The cells blob, byte for byte against an encoder written from the format
// drawing, for every dimension count; what decoding leaves in the slots of
// unused axes (including the 2-D rows a 3-D index reads); and the
// entry-size limit.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kSentinel = -12345.5;

// A node in test memory; the record routines do not care where it lives.
std::unique_ptr<rtr_node> blank_node() {
  auto node = std::make_unique<rtr_node>();
  std::memset(node.get(), 0, sizeof(rtr_node));
  for (rtr_cell& c : node->cells)
    c = cell(-1, kSentinel, kSentinel, kSentinel, kSentinel, kSentinel, kSentinel);
  return node;
}

Bytes pack(zq_env* env, uint16_t d, const std::vector<rtr_cell>& cells, int32_t* rc) {
  auto node = blank_node();
  fill_node(node.get(), cells);
  Bytes buf(RTR_BLOB_MAX, 0xEE);
  uint32_t len = 0xDEAD;
  *rc = rtr_cells_pack(env, d, node.get(), buf.data(), &len);
  buf.resize(*rc < 0 ? 4 : len);
  return buf;
}

class RecordTest : public zqtest::HostTest {};

TEST_F(RecordTest, PackedBlobMatchesTheDrawnLayoutForEveryDimensionCount) {
  const struct {
    uint16_t d;
    uint32_t n;
    size_t len;
  } cases[] = {{1, 0, 4},           {1, 1, 28},           {1, 51, 4 + 51 * 24},
               {2, 3, 124},         {2, 51, 4 + 51 * 40}, {3, 3, 172},
               {3, 51, 4 + 51 * 56}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "d=" << c.d << " n=" << c.n);
    const std::vector<rtr_cell> cells = sample_cells(c.n);
    int32_t rc = -1;
    const Bytes got = pack(env_, c.d, cells, &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(got.size(), c.len);
    EXPECT_EQ(got, encode_blob(c.d, cells));
  }
  EXPECT_TRUE(errors().empty());
}

// Decoding under a handle of `d` axes a blob written with `row_d` axes: axis
// 1 only from two axes up; axis 2 decoded for three, the whole axis for two,
// untouched for one; cells past the count untouched. A 3-D handle reads a
// blob as 2-D when its length says so (intended: old 2-D rows stay readable).
TEST_F(RecordTest, DecodingFillsExactlyTheAxesTheRowCarries) {
  const struct {
    uint16_t d, row_d;
    uint32_t n;
    bool tail;  // bytes of entries after a count of 0: the count wins
  } cases[] = {{1, 1, 4, false}, {2, 2, 4, false}, {3, 3, 4, false}, {3, 2, 3, false},
               {3, 3, 3, false}, {3, 3, 0, false}, {2, 2, 0, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "d=" << c.d << " row d=" << c.row_d << " n=" << c.n);
    const std::vector<rtr_cell> cells = sample_cells(c.n);
    Bytes blob = encode_blob(c.row_d, cells);
    if (c.tail) {
      const Bytes more = encode_blob(c.row_d, sample_cells(2));
      blob.insert(blob.end(), more.begin() + 4, more.end());
    }
    auto node = blank_node();
    node->n_cells = 7;
    ASSERT_EQ(rtr_cells_unpack(c.d, node.get(), blob.data(), static_cast<uint32_t>(blob.size())),
              0);
    ASSERT_EQ(node->n_cells, c.n);
    for (uint32_t i = 0; i < c.n; ++i) {
      const rtr_rect& r = node->cells[i].rect;
      const rtr_rect& w = cells[i].rect;
      EXPECT_EQ(node->cells[i].id, cells[i].id);
      EXPECT_EQ(r.min0, w.min0);
      EXPECT_EQ(r.max0, w.max0);
      EXPECT_EQ(r.min1, c.row_d >= 2 ? w.min1 : kSentinel);
      EXPECT_EQ(r.max1, c.row_d >= 2 ? w.max1 : kSentinel);
      EXPECT_EQ(r.min2, c.row_d == 3 ? w.min2 : c.row_d == 2 ? -kInf : kSentinel);
      EXPECT_EQ(r.max2, c.row_d == 3 ? w.max2 : c.row_d == 2 ? kInf : kSentinel);
    }
    EXPECT_EQ(node->cells[c.n].id, -1) << "cells past the count stay as they were";
    EXPECT_EQ(node->cells[c.n].rect.min2, kSentinel);
  }
}

// Only one entry's size is checked, after the count is written (intended):
// (2 * 2047 + 1) * 8 = 32760 fits, (2 * 2048 + 1) * 8 = 32776 does not, and
// a write fails at every level of its chain.
TEST_F(RecordTest, OversizedEntryFailsThePackAndEveryLevelOfAWrite) {
  int32_t rc = -1;
  EXPECT_EQ(pack(env_, 2047, {}, &rc), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(pack(env_, 2048, sample_cells(2), &rc), Bytes({2, 0, 0, 0}));
  EXPECT_EQ(rc, RTR_ERR_ROW_TOO_BIG);
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_ROW_TOO_BIG, "rtr_cells_pack"}}));

  zqenv_err_clear(env_);
  rtr_mem* rtr = open_handle(2);
  ASSERT_NE(rtr, nullptr);
  rtr_node* node = nullptr;
  ASSERT_EQ(rtr_node_create(env_, rtr, 0, 5, &node), 0);
  fill_node(node, sample_cells(1));
  rtr->n_dims = 2048;
  EXPECT_EQ(rtr_phy_insert_node(env_, rtr, node), RTR_ERR_ROW_TOO_BIG);
  rtr->n_dims = 2;
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_ROW_TOO_BIG, "rtr_cells_pack"},
                                           {RTR_ERR_ROW_TOO_BIG, "rtr_node_pack"},
                                           {RTR_ERR_ROW_TOO_BIG, "rtr_phy_insert_node"}}));
  EXPECT_EQ(count_rows(), 0);
  rtr_node_destroy(rtr, node);
  rtr_mem_destroy(env_, rtr);
}

}  // namespace
}  // namespace phytest
