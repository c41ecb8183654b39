// The cells blob, byte for byte against an encoder written from the format
// drawing, for every dimension count; what decoding leaves in the slots of
// unused axes; the 2-D rows a 3-D index reads; and the entry-size limit.
#include <gtest/gtest.h>

#include <cmath>
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
std::unique_ptr<rtr_node> blank_node(double fill = kSentinel) {
  auto node = std::make_unique<rtr_node>();
  std::memset(node.get(), 0, sizeof(rtr_node));
  for (rtr_cell& c : node->cells) c = cell(-1, fill, fill, fill, fill, fill, fill);
  return node;
}

Bytes pack(zq_env* env, uint16_t d, const std::vector<rtr_cell>& cells, int32_t* rc = nullptr) {
  auto node = blank_node();
  fill_node(node.get(), cells);
  Bytes buf(RTR_BLOB_MAX, 0xEE);
  uint32_t len = 0xDEAD;
  int32_t code = rtr_cells_pack(env, d, node.get(), buf.data(), &len);
  if (rc != nullptr) *rc = code;
  if (code < 0) return Bytes(buf.begin(), buf.begin() + 4);
  buf.resize(len);
  return buf;
}

class RecordTest : public zqtest::HostTest {};

struct LayoutCase {
  uint16_t d;
  uint32_t n;
  size_t expected_len;
};

TEST_F(RecordTest, PackedBlobMatchesTheDrawnLayoutForEveryDimensionCount) {
  const LayoutCase cases[] = {
      {1, 0, 4},   {1, 1, 28},           {1, 51, 4 + 51 * 24}, {2, 3, 124}, {2, 51, 4 + 51 * 40},
      {3, 3, 172}, {3, 51, 4 + 51 * 56},
  };
  for (const LayoutCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "d=" << c.d << " n=" << c.n);
    std::vector<rtr_cell> cells = sample_cells(c.n);
    int32_t rc = -1;
    Bytes got = pack(env_, c.d, cells, &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(got.size(), c.expected_len);
    EXPECT_EQ(got, encode_blob(c.d, cells));
  }
  EXPECT_TRUE(errors().empty());
}

TEST_F(RecordTest, EmptyNodeIsTheFourZeroBytesAndDecodesWithoutTouchingCells) {
  Bytes blob = pack(env_, 2, {});
  EXPECT_EQ(blob, Bytes({0, 0, 0, 0}));

  // A count of 0 wins over whatever follows it.
  Bytes with_tail = encode_blob(2, {});
  Bytes tail = encode_blob(2, sample_cells(2));
  with_tail.insert(with_tail.end(), tail.begin() + 4, tail.end());
  for (const Bytes& b : {blob, with_tail}) {
    auto node = blank_node();
    node->n_cells = 7;
    EXPECT_EQ(rtr_cells_unpack(2, node.get(), b.data(), static_cast<uint32_t>(b.size())), 0);
    EXPECT_EQ(node->n_cells, 0u);
    EXPECT_EQ(node->cells[0].id, -1);
    EXPECT_EQ(node->cells[0].rect.min2, kSentinel);
  }
}

TEST_F(RecordTest, DecodingFillsExactlyTheAxesTheRowCarries) {
  const std::vector<rtr_cell> cells = sample_cells(4);
  for (uint16_t d = 1; d <= 3; ++d) {
    SCOPED_TRACE(testing::Message() << "d=" << d);
    Bytes blob = encode_blob(d, cells);
    auto node = blank_node();
    ASSERT_EQ(rtr_cells_unpack(d, node.get(), blob.data(), static_cast<uint32_t>(blob.size())), 0);
    ASSERT_EQ(node->n_cells, 4u);
    for (uint32_t i = 0; i < 4; ++i) {
      const rtr_rect& r = node->cells[i].rect;
      const rtr_rect& w = cells[i].rect;
      EXPECT_EQ(node->cells[i].id, cells[i].id);
      EXPECT_EQ(r.min0, w.min0);
      EXPECT_EQ(r.max0, w.max0);
      // Axis 1: decoded from 2 dimensions up; left as it was for d = 1.
      EXPECT_EQ(r.min1, d >= 2 ? w.min1 : kSentinel);
      EXPECT_EQ(r.max1, d >= 2 ? w.max1 : kSentinel);
      // Axis 2: decoded for d = 3, the whole axis for d = 2, untouched for d = 1.
      EXPECT_EQ(r.min2, d == 3 ? w.min2 : d == 2 ? -kInf : kSentinel);
      EXPECT_EQ(r.max2, d == 3 ? w.max2 : d == 2 ? kInf : kSentinel);
    }
    EXPECT_EQ(node->cells[4].id, -1) << "cells past the count stay as they were";
  }
}

TEST_F(RecordTest, ThreeDimensionalIndexReadsTwoDimensionalRows) {
  const std::vector<rtr_cell> cells = sample_cells(3);
  Bytes two_d = encode_blob(2, cells);
  ASSERT_EQ(two_d.size(), 124u);
  auto node = blank_node();
  ASSERT_EQ(rtr_cells_unpack(3, node.get(), two_d.data(), 124), 0);
  ASSERT_EQ(node->n_cells, 3u);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(node->cells[i].id, cells[i].id);
    EXPECT_EQ(node->cells[i].rect.min1, cells[i].rect.min1);
    EXPECT_EQ(node->cells[i].rect.max1, cells[i].rect.max1);
    EXPECT_EQ(node->cells[i].rect.min2, -kInf);
    EXPECT_EQ(node->cells[i].rect.max2, kInf);
  }

  // The same count with 3-D entries (172 bytes) is read as 3-D.
  Bytes three_d = encode_blob(3, cells);
  ASSERT_EQ(three_d.size(), 172u);
  ASSERT_EQ(rtr_cells_unpack(3, node.get(), three_d.data(), 172), 0);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_TRUE(same_cell(node->cells[i], cells[i])) << i;

  // An empty 3-D node is 4 bytes = 0 * 40 + 4: the fallback applies, with
  // nothing to decode.
  Bytes empty = encode_blob(3, {});
  ASSERT_EQ(rtr_cells_unpack(3, node.get(), empty.data(), 4), 0);
  EXPECT_EQ(node->n_cells, 0u);
}

TEST_F(RecordTest, OnlyOneEntrysSizeIsChecked) {
  // (2 * 2047 + 1) * 8 = 32760 fits; (2 * 2048 + 1) * 8 = 32776 does not.
  int32_t rc = -1;
  Bytes ok = pack(env_, 2047, {}, &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(ok.size(), 4u);
  EXPECT_TRUE(errors().empty());

  Bytes failed = pack(env_, 2048, sample_cells(2), &rc);
  EXPECT_EQ(rc, RTR_ERR_ROW_TOO_BIG);
  // The count is written before the check.
  EXPECT_EQ(failed, Bytes({2, 0, 0, 0}));
  EXPECT_EQ(errors(), (std::vector<Pushed>{{RTR_ERR_ROW_TOO_BIG, "rtr_cells_pack"}}));
}

TEST_F(RecordTest, OversizedEntryFailsEveryLevelOfAWrite) {
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

TEST_F(RecordTest, NodeFromRowKeepsIdentityAndUsesTheHandlesDimensions) {
  rtr_mem* rtr = open_handle(3);
  ASSERT_NE(rtr, nullptr);
  const std::vector<rtr_cell> cells = sample_cells(3);
  Bytes blob = encode_blob(2, cells);
  rtr_node* node = reinterpret_cast<rtr_node*>(0x1);
  ASSERT_EQ(rtr_node_create_ex(env_, rtr, 42, 3, 17, blob.data(),
                               static_cast<uint32_t>(blob.size()), &node),
            0);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->id, 42);
  EXPECT_EQ(node->level, 3u);
  EXPECT_EQ(node->parent_id, 17);
  EXPECT_EQ(node->ref_count, 1u);
  ASSERT_EQ(node->n_cells, 3u);
  EXPECT_EQ(node->cells[2].rect.max2, kInf) << "2-D row under a 3-D handle";
  EXPECT_EQ(node->cells[2].rect.max1, cells[2].rect.max1);
  rtr_node_destroy(rtr, node);
  rtr_mem_destroy(env_, rtr);
}

}  // namespace
}  // namespace phytest
