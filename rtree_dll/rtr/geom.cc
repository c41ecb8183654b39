// Geometry: measures, unions, predicates and the search operator tests.
//
// Pure functions over rtr_rect / rtr_cell: nothing is allocated and nothing
// fails. Each exported function dispatches once on the dimension count (0, 1,
// 2, or 3 and above) to a body specialised for that count, so the per-axis
// loops have constant bounds and stop at the first failing axis. Sums and
// products run in axis order 0, 1, 2 and the library is built without FMA
// contraction, so every result is reproducible bit for bit.
#include "zqrtree/geom.h"

#include <cstddef>
#include <type_traits>

#include "rtr/geom_inline.h"
#include "zqrtree/mem.h"

static_assert(sizeof(rtr_rect) == 48, "six doubles");
static_assert(sizeof(rtr_cell) == 56, "id followed by its box");
static_assert(offsetof(rtr_cell, rect) == 8, "the box lies right behind the id");
static_assert(std::is_standard_layout_v<rtr_rect> && std::is_standard_layout_v<rtr_cell>);

namespace {

using namespace zqrtree::geom;

inline int32_t as_int(bool b) {
  return b ? 1 : 0;
}

}  // namespace

extern "C" {

double rtr_get_rec_area(const rtr_mem* rtr, const rtr_rect* r) {
  return by_dims(rtr->n_dims, [&](auto d) { return area<d()>(r); });
}

double rtr_get_rect_margin(const rtr_mem* rtr, const rtr_rect* r) {
  return by_dims(rtr->n_dims, [&](auto d) { return margin<d()>(r); });
}

double rtr_get_cell_overlap(const rtr_mem* rtr, const rtr_rect* a, const rtr_rect* b) {
  return by_dims(rtr->n_dims, [&](auto d) { return overlap<d()>(a, b); });
}

void rtr_union_rect(uint32_t n_dims, const rtr_rect* a, const rtr_rect* b, rtr_rect* out) {
  by_dims(n_dims, [&](auto d) { union_into<d()>(a, b, out); });
}

void rtr_union_rect_ex(uint32_t n_dims, rtr_rect* acc, const rtr_rect* b) {
  by_dims(n_dims, [&](auto d) { grow<d()>(acc, b); });
}

void rtr_union_cells(uint32_t n_dims, uint32_t count, const rtr_cell* cells, rtr_rect* out) {
  // The first box is copied whole, unused axes included, whatever the count.
  *out = cells[0].rect;
  by_dims(n_dims, [&](auto d) {
    for (uint32_t i = 1; i < count; ++i) grow<d()>(out, &cells[i].rect);
  });
}

int32_t rtr_rect_contains(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims) {
  return by_dims(n_dims, [&](auto d) { return as_int(contains<d()>(a, b)); });
}

int32_t rtr_rect_within(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims) {
  return rtr_rect_contains(b, a, n_dims);
}

int32_t rtr_rect_overlaps(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims) {
  return by_dims(n_dims, [&](auto d) { return as_int(overlaps<d()>(a, b)); });
}

int32_t rtr_rect_equal(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims) {
  return by_dims(n_dims, [&](auto d) { return as_int(equal<d()>(a, b)); });
}

int32_t rtr_rect_any(void) {
  return 1;
}

int32_t rtr_leaf_rect_cmp(const rtr_rect* e, const rtr_rect* q, uint32_t n_dims, uint32_t op) {
  return by_dims(n_dims, [&](auto d) { return as_int(leaf_test<d()>(e, q, op)); });
}

int32_t rtr_branch_rect_cmp(const rtr_rect* e, const rtr_rect* q, uint32_t n_dims, uint32_t op) {
  return by_dims(n_dims, [&](auto d) { return as_int(branch_test<d()>(e, q, op)); });
}

}  // extern "C"
