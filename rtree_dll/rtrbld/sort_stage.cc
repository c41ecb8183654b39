// Bulk-build sort stage: the one row layout every level of a bulk build goes
// through the host sorter with, the sorter and batches for it, and the
// packing of one entry into one row.
//
// Call order: rtr_sort_create and rtr_sort_bdta_crt once per sorter and
// batch; rtr_fill_one_row_nsort_bdta per entry, the caller handing the batch
// to nsort_put_bdta and clearing it whenever it holds RTR_BDTA_ROWS rows.
#include <cstdint>

#include "rtr/frame.h"
#include "rtrbld/bld_internal.h"
#include "zqrtree/bld.h"
#include "zqrtree/errors.h"

namespace {

using namespace zqrtree::bld;

// Column 0 holds the id; every other column is a double.
void layout_types(uint16_t n_dims, uint16_t* types) {
  types[kColId] = ZQ_TYPE_BIGINT;
  for (uint16_t c = 1; c < n_cols(n_dims); ++c) types[c] = ZQ_TYPE_DOUBLE;
}

// One value slot reused for every put of a row: a put reads the not-null
// flag and the 8-byte datum, so only the datum changes between puts.
struct RowPutter {
  zq_env* env;
  zq_memobj* mem;
  zq_bdta* bdta;
  uint32_t row;
  zq_value v{};

  RowPutter(zq_env* e, zq_memobj* m, zq_bdta* b) : env(e), mem(m), bdta(b), row(b->n_rows) {
    v.notnull = 1;
  }
  void put_int(uint16_t col, int64_t x) {
    v.u.i64 = x;
    bdta3_put_fld_data(env, bdta, &v, mem, row, col);
  }
  void put_double(uint16_t col, double x) {
    v.u.f64 = x;
    bdta3_put_fld_data(env, bdta, &v, mem, row, col);
  }
};

}  // namespace

extern "C" int32_t rtr_sort_create(zq_env* env, zq_sort_pool* pool, zq_memobj* mem, uint16_t n_dims,
                                   zq_nsort** sorter) {
  *sorter = nullptr;
  zq_nsort* s = nsort_create(env, mem, 1, 0, RTR_BDTA_ROWS, pool, 0);
  if (s == nullptr) return RTR_ERR_NO_ROOM;

  const uint16_t d = clamp_dims(n_dims);
  uint16_t types[kMaxCols];
  layout_types(d, types);
  zq_sort_col cols[kMaxCols];
  for (uint16_t c = 0; c < n_cols(d); ++c) cols[c] = {c, types[c]};
  const zq_sort_key key{col_key(d), 'A', sort2_simple_fun_search(env, ZQ_TYPE_DOUBLE)};
  const zq_sort_col_list col_list{n_cols(d), cols};
  const zq_sort_key_list key_list{1, &key};

  const int32_t rc = nsort_set_bdta_info(env, s, &col_list, 0, &key_list, 1);
  if (rc < 0) {
    zqrtree::fail(env, rc, "rtr_sort_create");
    give_back(env, mem, s);  // no row was put: the object is all there is
    return rc;
  }
  *sorter = s;
  return 0;
}

extern "C" int32_t rtr_sort_bdta_crt(zq_env* env, zq_memobj* mem, uint16_t n_dims, zq_bdta** bdta) {
  const uint16_t d = clamp_dims(n_dims);
  uint16_t types[kMaxCols];
  layout_types(d, types);
  zq_bdta* b = bdta3_create(env, mem, n_cols(d), types);
  if (b == nullptr) return RTR_ERR_NO_ROOM;
  for (uint16_t c = 0; c < n_cols(d); ++c) {
    if (bdta3_col_data_create_low(env, mem, &b->cols[c], types[c], RTR_BDTA_ROWS) >= 0) continue;
    for (uint16_t made = 0; made < c; ++made) give_back(env, mem, b->cols[made].data);
    bdta3_free(env, mem, b);
    return zqrtree::fail(env, RTR_ERR_NO_ROOM, "rtr_sort_bdta_crt");
  }
  *bdta = b;
  return 0;
}

extern "C" void rtr_fill_one_row_nsort_bdta(zq_env* env, zq_memobj* mem, uint16_t n_dims,
                                            int64_t id, const rtr_rect* rect, uint32_t axis,
                                            zq_bdta* bdta) {
  const uint16_t d = clamp_dims(n_dims);
  RowPutter put(env, mem, bdta);
  put.put_int(kColId, id);
  for (uint32_t k = 0; k < d; ++k) {
    put.put_double(col_min(k), rect_min(*rect, k));
    put.put_double(col_max(k), rect_max(*rect, k));
  }
  // min + max orders entries exactly as their centres do; never halved, on purpose.
  put.put_double(col_key(d), rect_min(*rect, axis) + rect_max(*rect, axis));
  bdta->n_rows = put.row + 1;
}
