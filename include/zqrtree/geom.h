/* libzqrtree: boxes, entries, measures, unions and the search predicates.
 *
 * All functions here are pure, allocate nothing and cannot fail. A dimension
 * count of 0 is special in each function (see below); a count above 3 is
 * taken as 3. Axes beyond the count are carried along when a box is copied
 * whole and never compared, measured or unioned. */
#ifndef ZQRTREE_GEOM_H
#define ZQRTREE_GEOM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rtr_mem rtr_mem;

/* All minima first, then all maxima: axis k has min in slot k, max in 3 + k. */
typedef struct rtr_rect {
  double min0, min1, min2;
  double max0, max1, max2;
} rtr_rect;

/* One node entry: a child's node id in a branch node, a rowid in a leaf. */
typedef struct rtr_cell {
  int64_t id;
  rtr_rect rect;
} rtr_cell;

/* Search operator bits (low 16 bits of an operator). */
#define RTR_OP_INTERSECT 0x0001u
#define RTR_OP_CONTAINS 0x0002u
#define RTR_OP_WITHIN 0x0004u
#define RTR_OP_EQUAL 0x0008u
#define RTR_OP_ANY 0x0010u /* honoured in OR mode only */
#define RTR_OP_OR 0x8000u  /* the set bits are alternatives */

/* Measures, over the handle's n_dims axes. Count 0: area 1.0, margin 0.0,
 * overlap 1.0. Extents are not clamped. */
double rtr_get_rec_area(const rtr_mem* rtr, const rtr_rect* r);
double rtr_get_rect_margin(const rtr_mem* rtr, const rtr_rect* r); /* sum of extents */
double rtr_get_cell_overlap(const rtr_mem* rtr, const rtr_rect* a, const rtr_rect* b);

/* Unions; count 0 writes nothing. `out` may be `a` or `b`. Where the two
 * values are equal or one is NaN, b's value is taken. */
void rtr_union_rect(uint32_t n_dims, const rtr_rect* a, const rtr_rect* b, rtr_rect* out);
void rtr_union_rect_ex(uint32_t n_dims, rtr_rect* acc, const rtr_rect* b);
/* Copies the first cell's whole box, then grows it by every further cell;
 * the caller passes at least one cell. */
void rtr_union_cells(uint32_t n_dims, uint32_t count, const rtr_cell* cells, rtr_rect* out);

/* Predicates: 1 or 0; count 0 makes every predicate true. Containment and
 * overlap fail only on an ordered strict comparison (NaN never fails them);
 * equality is exact and NaN makes boxes unequal. */
int32_t rtr_rect_contains(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims);
int32_t rtr_rect_within(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims);
int32_t rtr_rect_overlaps(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims);
int32_t rtr_rect_equal(const rtr_rect* a, const rtr_rect* b, uint32_t n_dims);
int32_t rtr_rect_any(void);

/* Does a leaf entry e qualify for operator `op` against search box q? */
int32_t rtr_leaf_rect_cmp(const rtr_rect* e, const rtr_rect* q, uint32_t n_dims, uint32_t op);
/* May the subtree under bounding box e hold a qualifying entry? */
int32_t rtr_branch_rect_cmp(const rtr_rect* e, const rtr_rect* q, uint32_t n_dims, uint32_t op);

typedef int32_t (*rtr_rect_cmp_fn)(const rtr_rect* e, const rtr_rect* q, uint32_t n_dims,
                                   uint32_t op);

#ifdef __cplusplus
}
#endif

#endif
