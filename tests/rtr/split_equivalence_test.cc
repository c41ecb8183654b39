// The split choice against a plain rendering of its rule: the merge sort per
// axis, every position's group box rebuilt from scratch in the one scratch
// box (so both groups measure as the upper one), the axis by margin sum and
// the position by overlap then area, and the distribution. The library
// scores positions in one suffix pass; these cases hold the values where a
// different union order could pick different bits: ties of -0.0 and +0.0,
// NaN, infinities, duplicates, degenerate and inverted boxes. Also the
// fused measures the descent and the box fixes use, against the exported
// functions they replace.
#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "rtree_dll/rtr/geom_inline.h"
#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A box as six slots: minima 0..2, maxima 3..5.
using Slots = std::array<double, 6>;

Slots slots(const rtr_rect& r) {
  Slots s;
  std::memcpy(s.data(), &r, sizeof r);
  return s;
}
rtr_rect rect(const Slots& s) {
  rtr_rect r;
  std::memcpy(&r, s.data(), sizeof r);
  return r;
}

// ---- the reference ----

struct Reference {
  uint32_t axes;  // used axes: the dimension count, 3 at most

  // Lesser minimum, greater maximum; on equality or NaN b's value.
  Slots join(const Slots& a, const Slots& b) const {
    Slots out = a;
    for (uint32_t k = 0; k < axes; ++k) {
      out[k] = a[k] < b[k] ? a[k] : b[k];
      out[3 + k] = a[3 + k] > b[3 + k] ? a[3 + k] : b[3 + k];
    }
    return out;
  }
  void grow(Slots& acc, const Slots& b) const {
    for (uint32_t k = 0; k < axes; ++k) {
      if (!(b[k] > acc[k])) acc[k] = b[k];
      if (!(acc[3 + k] > b[3 + k])) acc[3 + k] = b[3 + k];
    }
  }
  double margin(const Slots& b) const {
    double sum = 0.0;
    for (uint32_t k = 0; k < axes; ++k) sum = k == 0 ? b[3] - b[0] : sum + (b[3 + k] - b[k]);
    return sum;
  }
  double area(const Slots& b) const {
    double product = 1.0;
    for (uint32_t k = 0; k < axes; ++k)
      product = k == 0 ? b[3] - b[0] : product * (b[3 + k] - b[k]);
    return product;
  }
  double overlap(const Slots& a, const Slots& b) const {
    double product = 1.0;
    for (uint32_t k = 0; k < axes; ++k) {
      const double l = a[k] > b[k] ? a[k] : b[k];
      const double h = a[3 + k] < b[3 + k] ? a[3 + k] : b[3 + k];
      if (l > h) return 0.0;
      product = k == 0 ? h - l : product * (h - l);
    }
    return product;
  }

  // Top-down merge sort by minimum, then maximum; of equal entries the one
  // from the right half first.
  void sort(std::vector<uint32_t>& idx, uint32_t from, uint32_t n, uint32_t k,
            const std::vector<Slots>& e) const {
    if (n < 2) return;
    const uint32_t half = n / 2;
    sort(idx, from, half, k, e);
    sort(idx, from + half, n - half, k, e);
    std::vector<uint32_t> left(idx.begin() + from, idx.begin() + from + half);
    uint32_t l = 0, r = from + half, out = from;
    while (l < half) {
      bool take_left = r == from + n;
      if (!take_left) {
        const Slots& a = e[left[l]];
        const Slots& b = e[idx[r]];
        take_left = b[k] > a[k] || (b[k] == a[k] && b[3 + k] > a[3 + k]);
      }
      idx[out++] = take_left ? left[l++] : idx[r++];
    }
  }

  struct Result {
    std::vector<rtr_cell> left, right;
    rtr_cell left_cell, right_cell;
  };

  Result split(const std::vector<rtr_cell>& cells) const {
    const auto n = static_cast<uint32_t>(cells.size());
    std::vector<Slots> e;
    for (const rtr_cell& c : cells) e.push_back(slots(c.rect));
    const uint32_t sorted_axes = axes == 0 ? 1 : axes;  // a count of 0 still sorts axis 0
    std::vector<std::vector<uint32_t>> order(sorted_axes);
    uint32_t best_axis = 0, best_j[3] = {2, 2, 2};
    double best_margin = 0.0;
    for (uint32_t k = 0; k < sorted_axes; ++k) {
      for (uint32_t i = 0; i < n; ++i) order[k].push_back(i);
      sort(order[k], 0, n, k, e);
      double margin_sum = 0.0, best_overlap = 0.0, best_area = 0.0;
      for (uint32_t j = 2; j + 2 <= n; ++j) {
        Slots box = e[order[k][0]];
        for (uint32_t i = 1; i + 1 < n; ++i) {
          if (i == j) box = e[order[k][n - 1]];
          box = join(box, e[order[k][i]]);
        }
        margin_sum += margin(box) + margin(box);
        const double ov = overlap(box, box);
        const double ar = area(box) + area(box);
        if (j == 2 || ov < best_overlap || (ov == best_overlap && ar < best_area)) {
          best_j[k] = j;
          best_overlap = ov;
          best_area = ar;
        }
      }
      if (k == 0 || margin_sum < best_margin) {
        best_axis = k;
        best_margin = margin_sum;
      }
    }
    const std::vector<uint32_t>& idx = order[best_axis];
    const uint32_t j = best_j[best_axis];
    Result res;
    res.left_cell = cells[idx[0]];
    res.right_cell = cells[idx[j]];
    Slots lbox = e[idx[0]], rbox = e[idx[j]];
    for (uint32_t p = 0; p < n; ++p) {
      (p < j ? res.left : res.right).push_back(cells[idx[p]]);
      grow(p < j ? lbox : rbox, e[idx[p]]);
    }
    res.left_cell.rect = rect(lbox);
    res.right_cell.rect = rect(rbox);
    return res;
  }
};

// ---- entry generators ----

using Coord = std::function<double(std::mt19937_64&)>;

double pick(std::mt19937_64& rng, std::initializer_list<double> values) {
  return values.begin()[rng() % values.size()];
}

struct Shape {
  const char* name;
  Coord coord;
  bool ordered;  // min <= max on every axis (NaN aside)
};

const Shape kShapes[] = {
    {"uniform", [](std::mt19937_64& r) { return std::uniform_real_distribution<>(0, 1e3)(r); },
     true},
    {"grid", [](std::mt19937_64& r) { return static_cast<double>(r() % 4); }, true},
    {"signed_zeros",
     [](std::mt19937_64& r) {
       return pick(r, {-0.0, 0.0, 0.0, -0.0, 1.0, -1.0});
     },
     true},
    {"infinities",
     [](std::mt19937_64& r) {
       return pick(r, {-kInf, kInf, -DBL_MAX, DBL_MAX, 0.0, -0.0, DBL_TRUE_MIN, 3.0});
     },
     true},
    {"nan_sparse",
     [](std::mt19937_64& r) { return r() % 40 == 0 ? kNaN : static_cast<double>(r() % 5); }, true},
    {"nan_dense",
     [](std::mt19937_64& r) {
       return pick(r, {kNaN, -0.0, 0.0, 2.0, kInf});
     },
     true},
    {"inverted",
     [](std::mt19937_64& r) {
       return pick(r, {-0.0, 0.0, 1.0, 2.0, -kInf, 5.0});
     },
     false},
};

// n entries; some are points or repeats of an earlier entry.
std::vector<rtr_cell> make_entries(std::mt19937_64& rng, const Shape& shape, uint32_t n) {
  std::vector<rtr_cell> cells;
  for (uint32_t i = 0; i < n; ++i) {
    Slots s{};
    const uint64_t kind = rng() % 10;
    if (kind == 0 && !cells.empty()) {
      s = slots(cells[rng() % cells.size()].rect);
    } else {
      for (uint32_t k = 0; k < 3; ++k) {
        double a = shape.coord(rng), b = kind == 1 ? a : shape.coord(rng);
        if (shape.ordered && a > b) std::swap(a, b);
        s[k] = a;
        s[3 + k] = b;
      }
    }
    cells.push_back(rtr_cell{static_cast<int64_t>(1000 + i), rect(s)});
  }
  return cells;
}

bool same_bits(const rtr_cell& a, const rtr_cell& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

std::string describe(const std::vector<rtr_cell>& cells) {
  std::string out;
  for (const rtr_cell& c : cells) {
    const Slots s = slots(c.rect);
    out += std::to_string(c.id) + ":";
    for (double v : s) {
      out += ' ';
      out += std::to_string(v);
      if (std::signbit(v) && v == 0) out += "(-)";
    }
    out += "\n";
  }
  return out;
}

class SplitEquivalenceTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    rtr_ = open_handle(2);
    ASSERT_NE(rtr_, nullptr);
    // Nodes with ids of their own and outside the cache: filling them needs
    // no node-table call.
    ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 900001, &left_), 0);
    ASSERT_EQ(rtr_node_create(env_, rtr_, 0, 900002, &right_), 0);
  }
  void TearDown() override {
    rtr_mem_destroy(env_, rtr_);
    HostTest::TearDown();
  }

  // Splits with the library and with the reference; true when they agree in
  // every bit of both nodes and both output entries.
  ::testing::AssertionResult agree(uint16_t n_dims, const std::vector<rtr_cell>& cells) {
    rtr_->n_dims = n_dims;  // the choice reads only the count: 0 and above 3 included
    left_->n_cells = 0;
    right_->n_cells = 0;
    rtr_cell left_cell, right_cell;
    const int32_t rc =
        rtr_split_node_star_tree(env_, rtr_, cells.data(), static_cast<uint32_t>(cells.size()),
                                 left_, right_, &left_cell, &right_cell);
    if (rc != 0) return ::testing::AssertionFailure() << "code " << rc;
    const Reference::Result want = Reference{n_dims > 3 ? 3u : n_dims}.split(cells);
    bool same = left_->n_cells == want.left.size() && right_->n_cells == want.right.size() &&
                same_bits(left_cell, want.left_cell) && same_bits(right_cell, want.right_cell);
    for (uint32_t i = 0; same && i < left_->n_cells; ++i)
      same = same_bits(left_->cells[i], want.left[i]);
    for (uint32_t i = 0; same && i < right_->n_cells; ++i)
      same = same_bits(right_->cells[i], want.right[i]);
    if (same) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << n_dims << " axes, " << cells.size() << " entries; library left " << left_->n_cells
           << ", reference left " << want.left.size() << "\n"
           << describe(cells);
  }

  rtr_mem* rtr_ = nullptr;
  rtr_node* left_ = nullptr;
  rtr_node* right_ = nullptr;
};

TEST_F(SplitEquivalenceTest, RandomNodesOfEveryShapeAndDimensionCount) {
  std::mt19937_64 rng(20261122);
  for (const Shape& shape : kShapes) {
    for (uint16_t n_dims : {0, 1, 2, 3, 4}) {
      // 52 is every split the insertion makes; 53 is beyond what the one-pass
      // scoring takes; the small counts leave one or a few positions.
      for (uint32_t n : {52u, 52u, 52u, 53u, 4u, 5u, 9u, 30u}) {
        for (int round = 0; round < 12; ++round) {
          ASSERT_TRUE(agree(n_dims, make_entries(rng, shape, n))) << shape.name;
        }
      }
    }
  }
}

// Hand-made nodes where only the order of equal values decides: the same
// boxes except for the sign of a zero, and NaN at the ends of the order.
TEST_F(SplitEquivalenceTest, SignedZeroAndNaNTiesAtTheEndsOfTheOrder) {
  const double zeros[] = {0.0, -0.0};
  const std::vector<std::function<Slots(uint32_t)>> layouts = {
      // every minimum a zero of alternating sign, maxima rising
      [&](uint32_t i) { return Slots{zeros[i % 2], zeros[(i / 2) % 2], 0, 1.0 + i, 1.0 + i, 0}; },
      // every maximum a zero, minima falling
      [&](uint32_t i) { return Slots{-1.0 - i, -1.0 - i, 0, zeros[i % 3 == 0], zeros[i % 2], 0}; },
      // identical boxes but for the sign of the zeros
      [&](uint32_t i) {
        return Slots{zeros[i % 2], zeros[i % 3 == 0], 0, zeros[i % 5 == 0], 0.0, 0};
      },
      // NaN in the last entry only, and in the first
      [&](uint32_t i) {
        return Slots{i == 51 ? kNaN : 1.0 * i, 0.0, 0, 2.0 * i, i == 0 ? kNaN : 1, 0};
      },
      // degenerate: every box the same point
      [&](uint32_t) { return Slots{3.0, 3.0, 3.0, 3.0, 3.0, 3.0}; },
  };
  for (size_t l = 0; l < layouts.size(); ++l) {
    std::vector<rtr_cell> cells;
    for (uint32_t i = 0; i < RTR_MAX_CELLS + 1; ++i)
      cells.push_back(rtr_cell{static_cast<int64_t>(i + 1), rect(layouts[l](i))});
    for (uint16_t n_dims : {1, 2, 3}) EXPECT_TRUE(agree(n_dims, cells)) << "layout " << l;
  }
}

// All-equal areas pick position 2: left 2 entries, right 50.
TEST_F(SplitEquivalenceTest, DegenerateBoxesSplitAtTheFirstPosition) {
  std::vector<rtr_cell> cells;
  for (uint32_t i = 0; i < RTR_MAX_CELLS + 1; ++i)
    cells.push_back(rtr_cell{i + 1, {1.0 * i, 0, 0, 1.0 * i, 0, 0}});
  ASSERT_TRUE(agree(2, cells));
  EXPECT_EQ(left_->n_cells, 2u);
  EXPECT_EQ(right_->n_cells, 50u);
}

// ---- the fused measures of the descent and the box fixes ----

// Measures are only ever compared, and a NaN compares false whatever its
// sign or payload (which the hardware picks by operand order); any other
// value must match in every bit, the sign of a zero included.
bool same_measure(double a, double b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(FusedMeasures, AreaOfTheUnionAndUnionOfCellsMatchTheExportedFunctions) {
  const double values[] = {0.0, -0.0, 1.0, -1.0, 2.5, kInf, -kInf, kNaN, DBL_MAX, DBL_TRUE_MIN};
  constexpr size_t kValues = sizeof values / sizeof values[0];
  std::mt19937_64 rng(7);
  auto any_box = [&] {
    Slots s;
    for (double& v : s) v = values[rng() % kValues];
    return rect(s);
  };
  for (uint16_t n_dims : {0, 1, 2, 3, 4}) {
    rtr_mem rtr{};
    rtr.n_dims = n_dims;
    for (int round = 0; round < 4000; ++round) {
      const rtr_rect a = any_box(), b = any_box();
      rtr_rect joined = a;
      rtr_union_rect(n_dims, &a, &b, &joined);
      const double want = rtr_get_rec_area(&rtr, &joined);
      const double got = zqrtree::geom::by_dims(
          n_dims, [&](auto d) { return zqrtree::geom::union_area<d()>(&a, &b); });
      ASSERT_TRUE(same_measure(got, want)) << n_dims << " axes: " << got << " vs " << want;

      rtr_cell cells[5];
      const uint32_t count = 1 + static_cast<uint32_t>(rng() % 5);
      for (uint32_t i = 0; i < count; ++i) cells[i] = rtr_cell{i, any_box()};
      rtr_rect want_box, got_box;
      rtr_union_cells(n_dims, count, cells, &want_box);
      zqrtree::geom::by_dims(
          n_dims, [&](auto d) { zqrtree::geom::union_cells<d()>(count, cells, &got_box); });
      ASSERT_EQ(std::memcmp(&want_box, &got_box, sizeof got_box), 0) << n_dims << " axes";
    }
  }
}

}  // namespace
