// Forced reinsertion's order against a plain rendering of its rule: the mean
// of the entry centres, squared distances over the measured axes (two when
// the new entry's third maximum is +infinity), the merge sort nearest first
// with equal distances right half first, the nearest 49 kept in that order
// and the farthest 3 placed again nearest first. The library sorts NaN-free
// distances another way; equal distances (grid values, signed zeros,
// duplicates) and NaN (infinite extents) are where that could differ.
//
// The node under test is the only child of a root at level 1, so the three
// entries placed again come back to it and the node ends holding every entry
// in the order the rule gives. It holds at most 50 before the call, so that
// the last placement does not overflow it.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

double lo(const rtr_rect& r, uint32_t k) {
  return k == 0 ? r.min0 : k == 1 ? r.min1 : r.min2;
}
double hi(const rtr_rect& r, uint32_t k) {
  return k == 0 ? r.max0 : k == 1 ? r.max1 : r.max2;
}

// Entry indices in the order the rule reinserts: nearest first.
std::vector<uint32_t> reference_order(const std::vector<rtr_cell>& e, uint32_t n_dims) {
  const auto m = static_cast<uint32_t>(e.size());
  const uint32_t axes = e.back().rect.max2 == DBL_MAX + DBL_MAX ? 2 : std::min(n_dims, 3u);
  double centre[3] = {0, 0, 0};
  for (uint32_t k = 0; k < axes; ++k) {
    double sum = 0.0;
    for (const rtr_cell& c : e) sum += lo(c.rect, k) + hi(c.rect, k);
    centre[k] = sum / (2.0 * m);
  }
  std::vector<double> dist;
  for (const rtr_cell& c : e) {
    double d = 0.0;
    for (uint32_t k = 0; k < axes; ++k) {
      const double off = (lo(c.rect, k) + hi(c.rect, k)) * 0.5 - centre[k];
      d += off * off;
    }
    dist.push_back(d);
  }
  std::vector<uint32_t> idx(m);
  for (uint32_t i = 0; i < m; ++i) idx[i] = i;
  // Top-down merge sort; the left element only when the right one is farther.
  auto sort = [&](auto& self, uint32_t from, uint32_t n) -> void {
    if (n < 2) return;
    const uint32_t half = n / 2;
    self(self, from, half);
    self(self, from + half, n - half);
    std::vector<uint32_t> left(idx.begin() + from, idx.begin() + from + half);
    uint32_t l = 0, r = from + half, out = from;
    while (l < half) {
      const bool take_left = r == from + n || dist[idx[r]] > dist[left[l]];
      idx[out++] = take_left ? left[l++] : idx[r++];
    }
  };
  sort(sort, 0, m);
  return idx;
}

struct Shape {
  const char* name;
  double (*coord)(std::mt19937_64&);
};

double pick(std::mt19937_64& r, std::initializer_list<double> v) {
  return v.begin()[r() % v.size()];
}

const Shape kShapes[] = {
    {"uniform", [](std::mt19937_64& r) { return std::uniform_real_distribution<>(-50, 50)(r); }},
    {"grid", [](std::mt19937_64& r) { return static_cast<double>(r() % 3); }},
    {"signed_zeros",
     [](std::mt19937_64& r) {
       return pick(r, {-0.0, 0.0, 1.0, -1.0});
     }},
    {"infinities",
     [](std::mt19937_64& r) {
       return pick(r, {-kInf, kInf, 0.0, 2.0, DBL_MAX});
     }},
    // The centre becomes +infinity: finite entries measure infinity, infinite
    // ones NaN, so NaN and numbers meet in one sort.
    {"positive_infinity",
     [](std::mt19937_64& r) { return r() % 25 == 0 ? kInf : static_cast<double>(r() % 4); }},
    {"nan", [](std::mt19937_64& r) { return r() % 30 == 0 ? kNaN : static_cast<double>(r() % 4); }},
};

class ReinsertOrderTest : public zqtest::HostTest, public ::testing::WithParamInterface<uint16_t> {
 protected:
  // A root row at level 1; the handle then gives it one child leaf.
  void start(uint16_t dims) {
    write_empty_root(dims, 1);
    rtr_ = open_handle(dims);
    ASSERT_NE(rtr_, nullptr);
    ASSERT_EQ(rtr_node_acquire(env_, rtr_, RTR_ROOT_ID, &root_), 0);
    ASSERT_EQ(rtr_->root_level, 1u);
    ASSERT_EQ(rtr_node_new(env_, rtr_, RTR_ROOT_ID, 0, &leaf_), 0);
  }
  void TearDown() override {
    rtr_node_release(leaf_);
    rtr_node_release(root_);
    if (rtr_ != nullptr) rtr_mem_destroy(env_, rtr_);
    HostTest::TearDown();
  }

  // Fills the leaf with all entries but the last, reinserts with the last one
  // and returns the leaf's entry ids.
  std::vector<int64_t> reinsert(const std::vector<rtr_cell>& entries) {
    const auto held = static_cast<uint32_t>(entries.size() - 1);
    for (uint32_t i = 0; i < held; ++i) leaf_->cells[i] = entries[i];
    leaf_->n_cells = held;
    root_->cells[0] = rtr_cell{leaf_->id, entries[0].rect};
    root_->n_cells = 1;
    rtr_->reinsert_level = 0xFFFFFFFFu;
    EXPECT_GE(rtr_reinsert(env_, rtr_, leaf_, &entries.back(), 0), 0);
    std::vector<int64_t> ids;
    for (uint32_t i = 0; i < leaf_->n_cells; ++i) ids.push_back(leaf_->cells[i].id);
    return ids;
  }

  rtr_mem* rtr_ = nullptr;
  rtr_node* root_ = nullptr;
  rtr_node* leaf_ = nullptr;
};

TEST_P(ReinsertOrderTest, KeptAndPlacedEntriesFollowTheMergeSortByDistance) {
  const uint16_t dims = GetParam();
  start(dims);
  std::mt19937_64 rng(dims);
  {
    for (const Shape& shape : kShapes) {
      for (int round = 0; round < 40; ++round) {
        const int64_t m = round % 4 == 0 ? 12 : round % 4 == 1 ? 30 : 49 + round % 2 * 2;
        std::vector<rtr_cell> entries;
        for (int64_t id = 1; id <= m; ++id) {
          double c[6];
          for (double& v : c) v = shape.coord(rng);
          if (rng() % 6 == 0 && !entries.empty()) {
            entries.push_back(entries[rng() % entries.size()]);  // a duplicate box
            entries.back().id = id;
            continue;
          }
          entries.push_back(rtr_cell{id, {c[0], c[1], c[2], c[3], c[4], c[5]}});
        }
        // Now and then the new entry's third maximum is +infinity: two axes
        // are measured whatever the count.
        if (round % 5 == 4) entries.back().rect.max2 = kInf;
        std::vector<int64_t> want;
        for (uint32_t i : reference_order(entries, dims)) want.push_back(entries[i].id);
        ASSERT_EQ(reinsert(entries), want) << shape.name << ", round " << round;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Dims, ReinsertOrderTest, ::testing::Values(1, 2, 3));

}  // namespace
