// Geometry: the leaf and branch operator tests against a brute-force model
// over every operator bit set in both modes, plus the measures and unions
// with their NaN, signed-zero, unused-axis and zero-dimension rules.
#include "zqrtree/geom.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>

#include "zqrtree/mem.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

rtr_rect box(double x0, double y0, double x1, double y1, double z0 = 0, double z1 = 0) {
  return rtr_rect{x0, y0, z0, x1, y1, z1};
}

// The model reads boxes as arrays of axes, independently of the library.
struct Axes {
  std::array<double, 3> mn, mx;
};
Axes axes(const rtr_rect& r) {
  return {{r.min0, r.min1, r.min2}, {r.max0, r.max1, r.max2}};
}
uint32_t used(uint32_t n) {
  return n > 3 ? 3 : n;
}

bool model_contains(const rtr_rect& ra, const rtr_rect& rb, uint32_t n) {
  Axes a = axes(ra), b = axes(rb);
  for (uint32_t k = 0; k < used(n); ++k) {
    if (a.mn[k] > b.mn[k]) return false;
    if (b.mx[k] > a.mx[k]) return false;
  }
  return true;
}
bool model_overlaps(const rtr_rect& ra, const rtr_rect& rb, uint32_t n) {
  Axes a = axes(ra), b = axes(rb);
  for (uint32_t k = 0; k < used(n); ++k) {
    if (a.mn[k] > b.mx[k]) return false;
    if (b.mn[k] > a.mx[k]) return false;
  }
  return true;
}
bool model_equal(const rtr_rect& ra, const rtr_rect& rb, uint32_t n) {
  Axes a = axes(ra), b = axes(rb);
  for (uint32_t k = 0; k < used(n); ++k) {
    if (a.mn[k] != b.mn[k] || a.mx[k] != b.mx[k]) return false;
  }
  return true;
}

// The operator rules, stated as sets of conditions. AND mode: every listed
// condition must hold, CONTAINS displaces INTERSECT and WITHIN, ANY is
// ignored. OR mode: ANY or any true shape bit accepts; otherwise EQUAL
// decides when set; otherwise only an operator without shape bits accepts.
struct Conds {
  bool ovl, cont, with, eq;
};

bool model_leaf(const Conds& c, uint32_t op) {
  const bool I = op & RTR_OP_INTERSECT, C = op & RTR_OP_CONTAINS, W = op & RTR_OP_WITHIN,
             E = op & RTR_OP_EQUAL, A = op & RTR_OP_ANY;
  if (!(op & RTR_OP_OR)) {
    bool ok = true;
    if (C) {
      ok = c.cont;
    } else {
      if (W) ok = ok && c.with;
      if (I) ok = ok && c.ovl;
    }
    if (E) ok = ok && c.eq;
    return ok;
  }
  if (A || (I && c.ovl) || (C && c.cont) || (W && c.with)) return true;
  if (E) return c.eq;
  return !(I || C || W);
}

// A subtree's box must overlap q for entries that overlap or lie within q,
// and contain q for entries that contain or equal q.
bool model_branch(const Conds& c, uint32_t op) {
  const bool need_ovl = op & (RTR_OP_INTERSECT | RTR_OP_WITHIN);
  const bool need_cont = op & (RTR_OP_CONTAINS | RTR_OP_EQUAL);
  if (!(op & RTR_OP_OR)) return (!need_ovl || c.ovl) && (!need_cont || c.cont);
  if ((op & RTR_OP_ANY) || (need_ovl && c.ovl)) return true;
  if (need_cont) return c.cont;
  return !need_ovl;
}

// Small integer grid so that equal, touching and nested boxes are common;
// some NaNs and inverted boxes; unused axes hold junk.
rtr_rect random_box(std::mt19937_64& rng) {
  std::uniform_int_distribution<int> coord(-1, 3);
  std::uniform_int_distribution<int> pct(0, 99);
  auto v = [&]() { return pct(rng) < 4 ? kNaN : static_cast<double>(coord(rng)); };
  std::array<double, 6> s{};
  for (int k = 0; k < 3; ++k) {
    double a = v(), b = v();
    if (pct(rng) >= 10 && a > b) std::swap(a, b);  // 10% may stay inverted
    s[k] = a;
    s[3 + k] = b;
  }
  return rtr_rect{s[0], s[1], s[2], s[3], s[4], s[5]};
}

std::string show(const rtr_rect& r) {
  std::ostringstream os;
  os << "[" << r.min0 << "," << r.min1 << "," << r.min2 << " / " << r.max0 << "," << r.max1 << ","
     << r.max2 << "]";
  return os.str();
}

TEST(GeomOperators, LeafAndBranchMatchModelForEveryOperatorOnGeneratedPairs) {
  std::mt19937_64 rng(20240611);
  // Bits outside the low 16 and the unused bits 5..14 must change nothing.
  const uint32_t noise[] = {0, 0x0020, 0x4000, 0x10000, 0x80000000u};
  int failures = 0;
  for (int pair = 0; pair < 3000 && failures < 10; ++pair) {
    rtr_rect e = random_box(rng), q = pair % 7 == 0 ? e : random_box(rng);
    for (uint32_t n = 0; n <= 4; ++n) {
      const Conds c{model_overlaps(e, q, n), model_contains(e, q, n), model_contains(q, e, n),
                    model_equal(e, q, n)};
      for (uint32_t mode : {0u, RTR_OP_OR}) {
        for (uint32_t bits = 0; bits < 32; ++bits) {
          const uint32_t op = bits | mode | noise[(pair + bits) % 5];
          const int32_t leaf = rtr_leaf_rect_cmp(&e, &q, n, op);
          const int32_t branch = rtr_branch_rect_cmp(&e, &q, n, op);
          if (leaf != int32_t{model_leaf(c, op)} || branch != int32_t{model_branch(c, op)}) {
            ADD_FAILURE() << "op 0x" << std::hex << op << std::dec << " n " << n << " e " << show(e)
                          << " q " << show(q) << ": leaf " << leaf << " branch " << branch;
            ++failures;
          }
        }
      }
    }
  }
}

TEST(GeomOperators, PredicatesMatchModelOnGeneratedPairs) {
  std::mt19937_64 rng(7);
  for (int pair = 0; pair < 3000; ++pair) {
    rtr_rect a = random_box(rng), b = pair % 5 == 0 ? a : random_box(rng);
    for (uint32_t n = 0; n <= 4; ++n) {
      ASSERT_EQ(rtr_rect_contains(&a, &b, n), model_contains(a, b, n)) << show(a) << show(b) << n;
      ASSERT_EQ(rtr_rect_within(&a, &b, n), model_contains(b, a, n)) << show(a) << show(b) << n;
      ASSERT_EQ(rtr_rect_overlaps(&a, &b, n), model_overlaps(a, b, n)) << show(a) << show(b) << n;
      ASSERT_EQ(rtr_rect_equal(&a, &b, n), model_equal(a, b, n)) << show(a) << show(b) << n;
    }
  }
  EXPECT_EQ(rtr_rect_any(), 1);
}

struct PredicateCase {
  const char* name;
  rtr_rect a, b;
  int contains, within, overlaps, equal;
};

TEST(GeomPredicates, NamedShapesInTwoDimensions) {
  const PredicateCase cases[] = {
      {"identical", box(0, 0, 2, 2), box(0, 0, 2, 2), 1, 1, 1, 1},
      {"strictly inside", box(0, 0, 4, 4), box(1, 1, 2, 2), 1, 0, 1, 0},
      {"inside sharing an edge", box(0, 0, 4, 4), box(0, 1, 2, 4), 1, 0, 1, 0},
      {"around", box(1, 1, 2, 2), box(0, 0, 4, 4), 0, 1, 1, 0},
      {"crossing", box(0, 0, 2, 2), box(1, 1, 3, 3), 0, 0, 1, 0},
      {"touching edge", box(0, 0, 1, 1), box(1, 0, 2, 1), 0, 0, 1, 0},
      {"touching corner", box(0, 0, 1, 1), box(1, 1, 2, 2), 0, 0, 1, 0},
      {"apart on axis 1 only", box(0, 0, 2, 1), box(0, 2, 2, 3), 0, 0, 0, 0},
      {"NaN corner never fails an ordered test", box(kNaN, 0, 2, 2), box(1, 1, 2, 2), 1, 0, 1, 0},
      {"NaN never equals", box(kNaN, 0, 2, 2), box(kNaN, 0, 2, 2), 1, 1, 1, 0},
      {"differs on axis 2 only", box(0, 0, 1, 1, 0, 1), box(0, 0, 1, 1, 5, 6), 1, 1, 1, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(rtr_rect_contains(&c.a, &c.b, 2), c.contains);
    EXPECT_EQ(rtr_rect_within(&c.a, &c.b, 2), c.within);
    EXPECT_EQ(rtr_rect_overlaps(&c.a, &c.b, 2), c.overlaps);
    EXPECT_EQ(rtr_rect_equal(&c.a, &c.b, 2), c.equal);
  }
}

TEST(GeomPredicates, UnusedAxesAreNeverCompared) {
  const rtr_rect a = box(0, kNaN, 1, kNaN, kNaN, kNaN);
  rtr_rect b = box(0, 50, 1, -50, 9, -9);
  EXPECT_EQ(rtr_rect_equal(&a, &b, 1), 1);
  EXPECT_EQ(rtr_rect_contains(&b, &a, 1), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&a, &b, 1, RTR_OP_EQUAL), 1);

  // The smallest step matters on a used axis only.
  const rtr_rect c = box(0, 0, 1, 1, 0, 1);
  rtr_rect d = c;
  d.max2 = std::nextafter(1.0, 2.0);
  EXPECT_EQ(rtr_rect_equal(&c, &d, 2), 1);
  EXPECT_EQ(rtr_rect_equal(&c, &d, 3), 0);
  EXPECT_EQ(rtr_rect_equal(&c, &d, 7), 0) << "counts above 3 act as 3";
}

TEST(GeomOperators, AndModeContainsIgnoresIntersectAndWithinNeedsBoth) {
  // An inverted search box is contained without overlapping: only the
  // skipped overlap test could reject it.
  const rtr_rect e = box(2, 2, 10, 10), q = box(3, 3, 1, 1);
  ASSERT_EQ(rtr_rect_contains(&e, &q, 2), 1);
  ASSERT_EQ(rtr_rect_overlaps(&e, &q, 2), 0);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &q, 2, RTR_OP_CONTAINS | RTR_OP_INTERSECT), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &q, 2, RTR_OP_INTERSECT), 0);

  const rtr_rect inside = box(3, 3, 1, 1), around = box(2, 2, 10, 10);
  ASSERT_EQ(rtr_rect_within(&inside, &around, 2), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&inside, &around, 2, RTR_OP_WITHIN), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&inside, &around, 2, RTR_OP_WITHIN | RTR_OP_INTERSECT), 0);
}

TEST(GeomOperators, OrModeEqualAloneAndEmptyOperators) {
  const rtr_rect e = box(0, 0, 1, 1), same = e, other = box(0, 0, 1, 2);
  for (const rtr_rect* q : {&same, &other}) {
    EXPECT_EQ(rtr_leaf_rect_cmp(&e, q, 2, RTR_OP_OR | RTR_OP_EQUAL), rtr_rect_equal(&e, q, 2));
  }
  const rtr_rect far = box(50, 50, 60, 60);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &far, 2, RTR_OP_OR), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &far, 2, 0), 1);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &far, 2, RTR_OP_ANY), 1) << "ANY is ignored in AND mode";
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &far, 2, RTR_OP_ANY | RTR_OP_INTERSECT), 0);
  EXPECT_EQ(rtr_leaf_rect_cmp(&e, &far, 2, RTR_OP_OR | RTR_OP_ANY | RTR_OP_INTERSECT), 1);
  EXPECT_EQ(rtr_branch_rect_cmp(&e, &far, 2, RTR_OP_OR | RTR_OP_WITHIN), 0);
  EXPECT_EQ(rtr_branch_rect_cmp(&e, &far, 2, RTR_OP_OR), 1);
}

// ---- measures ----

bool same_bits(double a, double b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

rtr_mem handle_of(uint16_t n) {
  rtr_mem m{};
  m.n_dims = n;
  return m;
}

TEST(GeomMeasures, ZeroDimensionsAndUnusedAxes) {
  const rtr_mem m0 = handle_of(0), m1 = handle_of(1);
  const rtr_rect r = box(kNaN, kNaN, kNaN, kNaN, kNaN, kNaN);
  EXPECT_EQ(rtr_get_rec_area(&m0, &r), 1.0);
  EXPECT_TRUE(same_bits(rtr_get_rect_margin(&m0, &r), 0.0));
  EXPECT_EQ(rtr_get_cell_overlap(&m0, &r, &r), 1.0);

  const rtr_rect a = box(1, kNaN, 4, kNaN, kNaN, kNaN), b = box(2, 7, 9, -7);
  EXPECT_EQ(rtr_get_rec_area(&m1, &a), 3.0);
  EXPECT_EQ(rtr_get_rect_margin(&m1, &a), 3.0);
  EXPECT_EQ(rtr_get_cell_overlap(&m1, &a, &b), 2.0);
}

TEST(GeomMeasures, AreaAndMarginAreUnclampedProductsAndSumsInAxisOrder) {
  const rtr_mem m2 = handle_of(2), m3 = handle_of(3), m9 = handle_of(9);
  const rtr_rect inverted = box(3, 0, 1, 5);  // extents -2 and 5
  EXPECT_EQ(rtr_get_rec_area(&m2, &inverted), -10.0);
  EXPECT_EQ(rtr_get_rect_margin(&m2, &inverted), 3.0) << "plain sum, not doubled";

  // Extents whose products and sums round differently when regrouped.
  std::mt19937_64 rng(99);
  std::uniform_real_distribution<double> u(-1e3, 1e3);
  int regrouping_differs = 0;
  for (int i = 0; i < 2000; ++i) {
    const rtr_rect r{u(rng), u(rng), u(rng), u(rng), u(rng), u(rng)};
    const double e0 = r.max0 - r.min0, e1 = r.max1 - r.min1, e2 = r.max2 - r.min2;
    volatile double p01 = e0 * e1, s01 = e0 + e1;  // no contraction in the model
    ASSERT_TRUE(same_bits(rtr_get_rec_area(&m3, &r), p01 * e2));
    ASSERT_TRUE(same_bits(rtr_get_rect_margin(&m3, &r), s01 + e2));
    ASSERT_TRUE(same_bits(rtr_get_rec_area(&m9, &r), p01 * e2));
    ASSERT_TRUE(same_bits(rtr_get_rec_area(&m2, &r), e0 * e1));
    volatile double p12 = e1 * e2;
    if (!same_bits(p01 * e2, e0 * p12)) ++regrouping_differs;
  }
  EXPECT_GT(regrouping_differs, 0) << "the data must be able to tell the order apart";
}

TEST(GeomMeasures, OverlapIsTheIntersectionAreaOrZero) {
  const rtr_mem m2 = handle_of(2);
  struct {
    rtr_rect a, b;
    double expect;
  } cases[] = {
      {box(0, 0, 4, 4), box(1, 2, 6, 3), 3.0},     // 3 x 1
      {box(0, 0, 1, 1), box(1, 0, 2, 1), 0.0},     // shared edge
      {box(0, 0, 1, 1), box(2, 0, 3, 1), 0.0},     // apart on axis 0
      {box(kNaN, 0, 1, 1), box(0, 5, 1, 6), 0.0},  // NaN axis 0 does not stop axis 1
  };
  for (const auto& c : cases) {
    EXPECT_EQ(rtr_get_cell_overlap(&m2, &c.a, &c.b), c.expect);
    EXPECT_EQ(rtr_get_cell_overlap(&m2, &c.b, &c.a), c.expect);
  }
  const rtr_rect edge_a = box(0, 0, 1, 1), edge_b = box(1, 0, 2, 1);
  EXPECT_EQ(rtr_rect_overlaps(&edge_a, &edge_b, 2), 1) << "touching overlaps with area 0";
}

// ---- unions ----

TEST(GeomUnions, LesserMinGreaterMaxWithSecondArgumentOnTiesAndNaN) {
  const rtr_rect a = box(kNaN, 0.0, 5, 2), b = box(1, -0.0, kNaN, 2);
  rtr_rect out = box(9, 9, 9, 9, 7, 8);
  rtr_union_rect(2, &a, &b, &out);
  EXPECT_EQ(out.min0, 1.0) << "NaN in the first argument is replaced";
  EXPECT_TRUE(std::signbit(out.min1)) << "tie takes the second argument's -0.0";
  EXPECT_TRUE(std::isnan(out.max0)) << "NaN in the second argument wins";
  EXPECT_EQ(out.max1, 2.0);
  EXPECT_EQ(out.min2, 7.0);
  EXPECT_EQ(out.max2, 8.0) << "axis beyond the count untouched";

  rtr_rect acc = a;
  rtr_union_rect_ex(2, &acc, &b);
  EXPECT_TRUE(same_bits(acc.min0, out.min0) && same_bits(acc.min1, out.min1));
  EXPECT_TRUE(std::isnan(acc.max0));
  EXPECT_EQ(acc.max1, 2.0);
}

TEST(GeomUnions, OutputMayAliasEitherInputAndCountZeroWritesNothing) {
  const rtr_rect a = box(0, 5, 3, 6, 0, 1), b = box(1, 2, 4, 9, -3, 3);
  const rtr_rect expect = box(0, 2, 4, 9, -3, 3);
  rtr_rect x = a;
  rtr_union_rect(3, &x, &b, &x);
  EXPECT_EQ(std::memcmp(&x, &expect, sizeof x), 0);
  rtr_rect y = b;
  rtr_union_rect(3, &a, &y, &y);
  EXPECT_EQ(std::memcmp(&y, &expect, sizeof y), 0);

  rtr_rect untouched = a;
  rtr_union_rect(0, &b, &b, &untouched);
  rtr_union_rect_ex(0, &untouched, &b);
  EXPECT_EQ(std::memcmp(&untouched, &a, sizeof a), 0);
}

TEST(GeomUnions, CellsCopyTheFirstBoxWholeThenGrowInOrder) {
  rtr_cell cells[3] = {{10, box(0, 0, 1, 1, 40, 41)},
                       {11, box(-1, 0.5, 0.5, 3, kNaN, kNaN)},
                       {12, box(kNaN, 0, 2, 1)}};
  rtr_rect out{};
  rtr_union_cells(2, 0, cells, &out);
  EXPECT_EQ(std::memcmp(&out, &cells[0].rect, sizeof out), 0) << "count 0 still copies";
  rtr_union_cells(0, 3, cells, &out);
  EXPECT_EQ(std::memcmp(&out, &cells[0].rect, sizeof out), 0) << "no axes: the copy only";

  rtr_union_cells(2, 3, cells, &out);
  EXPECT_TRUE(std::isnan(out.min0)) << "the last cell's NaN min wins";
  EXPECT_EQ(out.min1, 0.0);
  EXPECT_EQ(out.max0, 2.0);
  EXPECT_EQ(out.max1, 3.0);
  EXPECT_EQ(out.min2, 40.0);
  EXPECT_EQ(out.max2, 41.0) << "unused axis comes from the first cell only";
}

}  // namespace
