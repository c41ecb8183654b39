// Rewriting a changed node's row: rtr_phy_modify_node and its update choice.
//
// Order: fast scratch -> key and the new row (the packed node) -> write
// mini-transaction -> nbtr_cur_search (4, 4) -> the stored row
// (tuple4_from_nrec) -> rtr_phy_update_node, which compares the columns and
// picks nothing (100), an in-place update of fixed-width columns (hook slot
// 5) or a rewrite of the row (hook slot 6) -> commit -> end the scratch.
#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;

constexpr const char* kOp = "rtr_phy_modify_node";

// The columns of a node row that a modify can change, in column order.
struct ChangedColumns {
  uint16_t cols[3] = {};
  uint16_t count = 0;
  bool level = false;
  bool parent = false;
  bool cells = false;
};

ChangedColumns compare_rows(zq_env* env, const zq_row* new_row, const zq_row* stored) {
  ChangedColumns c;
  c.level = new_row->cols[RTR_COL_LEVEL].u.i32 != stored->cols[RTR_COL_LEVEL].u.i32;
  c.parent = new_row->cols[RTR_COL_PARENT].u.i64 != stored->cols[RTR_COL_PARENT].u.i64;
  c.cells = nbin_cmp(env, &new_row->cols[RTR_COL_CELLS], &stored->cols[RTR_COL_CELLS]) != 0;
  if (c.level) c.cols[c.count++] = RTR_COL_LEVEL;
  if (c.parent) c.cols[c.count++] = RTR_COL_PARENT;
  if (c.cells) c.cols[c.count++] = RTR_COL_CELLS;
  return c;
}

// Fixed-width columns are updated in place unless the table forbids it:
// flag F for the parent column, flag G for the level column.
bool update_in_place(const zq_recdesc* desc, const ChangedColumns& c) {
  if (c.cells) return false;
  if (c.level && c.parent) return !desc->no_inplace_parent && !desc->no_inplace_level;
  if (c.parent) return !desc->no_inplace_parent;
  // Intended: a change of the level alone does not consult flag F.
  return !desc->no_inplace_level;
}

int32_t modify_row(zq_env* env, rtr_mem* rtr, zqrtree::MiniTx& tx, nbtr_cur* cur, zq_key* key,
                   zq_memobj* scratch, zq_row* new_row) {
  int32_t rc = nbtr_cur_search(tx.get(), cur, 4, 4, key, 0, scratch);
  if (rc >= 0 && cur->rec == nullptr) rc = RTR_ERR_NO_ROW;
  if (rc >= 0) {
    int32_t code = 0;
    zq_row* stored = tuple4_from_nrec(env, scratch, cur->rec, zqrtree::node_desc(rtr), &code);
    if (code < 0) {
      rc = code;
    } else if (stored == nullptr) {
      rc = RTR_ERR_NO_ROOM;
    } else {
      rc = rtr_phy_update_node(scratch, rtr, tx.get(), cur, key, new_row, stored);
    }
  }
  int32_t committed = tx.commit();
  return rc >= 0 && committed < 0 ? committed : rc;
}

uint64_t data_version(zq_env* env, rtr_mem* rtr, int32_t* rc) {
  uint64_t dver = 0;
  *rc = ndct_table_get_dver(env, rtr->node_table, &dver);
  return dver;
}

}  // namespace

extern "C" int32_t rtr_phy_modify_node(zq_env* env, rtr_mem* rtr, const rtr_node* node) {
  zqrtree::FastScratch scratch(env, __FILE__, __LINE__);
  if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  zq_key* key = tuple4_key_create(env, scratch.get(), desc, node->id, __FILE__, __LINE__);
  zq_row* new_row = key != nullptr ? tuple4_space_create(env, scratch.get(), desc) : nullptr;
  if (new_row == nullptr) {
    scratch.destroy();
    return fail(env, RTR_ERR_NO_ROOM, kOp);
  }
  int32_t rc = rtr_node_pack(env, scratch.get(), rtr, node, new_row);
  if (rc < 0) return fail(env, rc, kOp);

  nbtr_cur cur;
  nbtr_cur_init(&cur, rtr->btr);
  zqrtree::MiniTx tx(env, kOp);
  rc = tx.begin(rtr->session, 1, __FILE__, __LINE__);
  if (rc < 0) return fail(env, rc, kOp);
  rc = tx.run([&] { return modify_row(env, rtr, tx, &cur, key, scratch.get(), new_row); });
  if (tx.raised()) return rc;
  // RTR_NOTE_NOTHING (row already current) is a success and goes back as is.
  return rc < 0 ? fail(env, rc, kOp) : rc;
}

// Failures of the updates below are pushed by them; the choice itself adds
// no entry, its caller pushes what it returns.
extern "C" int32_t rtr_phy_update_node(zq_memobj* heap, rtr_mem* rtr, zq_ptx* ptx, nbtr_cur* cur,
                                       zq_key* key, zq_row* new_row, zq_row* stored_row) {
  zq_env* env = ptx->env;
  const ChangedColumns changed = compare_rows(env, new_row, stored_row);
  if (changed.count == 0) return RTR_NOTE_NOTHING;

  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  if (update_in_place(desc, changed)) {
    zq_fillinfo* new_values =
        rtr_phy_fillinfo_from_value(env, heap, desc, new_row, changed.count, changed.cols);
    if (new_values == nullptr) return RTR_ERR_NO_ROOM;
    zq_fillinfo* old_values =
        rtr_phy_fillinfo_from_value(env, heap, desc, stored_row, changed.count, changed.cols);
    if (old_values == nullptr) return RTR_ERR_NO_ROOM;
    return rtr_phy_update_node_fixed(heap, rtr, ptx, cur, key, new_values, old_values);
  }
  zq_fillinfo* old_values =
      rtr_phy_fillinfo_from_value(env, heap, desc, stored_row, changed.count, changed.cols);
  if (old_values == nullptr) return RTR_ERR_NO_ROOM;
  return rtr_phy_update_node_unfixed(heap, rtr, ptx, cur, key, new_row, old_values);
}

extern "C" int32_t rtr_phy_update_node_fixed(zq_memobj* /*heap*/, rtr_mem* rtr, zq_ptx* ptx,
                                             nbtr_cur* cur, zq_key* key, zq_fillinfo* new_values,
                                             zq_fillinfo* old_values) {
  zq_env* env = ptx->env;
  int32_t rc = 0;
  const uint64_t dver = data_version(env, rtr, &rc);
  if (rc >= 0) {
    rc = rtr_global_hook.row_update_fixed(ptx, rtr->session, rtr->node_table, rtr->node_index,
                                          zqrtree::node_desc(rtr), key, new_values, old_values,
                                          rtr->row_tag, dver, cur);
  }
  return rc < 0 ? fail(env, rc, "rtr_phy_update_node_fixed") : rc;
}

extern "C" int32_t rtr_phy_update_node_unfixed(zq_memobj* /*heap*/, rtr_mem* rtr, zq_ptx* ptx,
                                               nbtr_cur* cur, zq_key* key, zq_row* new_row,
                                               zq_fillinfo* old_values) {
  zq_env* env = ptx->env;
  int32_t rc = 0;
  const uint64_t dver = data_version(env, rtr, &rc);
  if (rc >= 0) {
    rc = rtr_global_hook.row_update_unfixed(ptx, rtr->session, rtr->node_table, rtr->node_index,
                                            zqrtree::node_desc(rtr), key, new_row, old_values,
                                            rtr->row_tag, dver, cur);
  }
  return rc < 0 ? fail(env, rc, "rtr_phy_update_node_unfixed") : rc;
}

extern "C" zq_fillinfo* rtr_phy_fillinfo_from_value(zq_env* env, zq_memobj* heap,
                                                    const zq_recdesc* table_desc, const zq_row* row,
                                                    uint16_t count, const uint16_t* columns) {
  zq_fillinfo* fill = tuple4_fillinfo_space_without_data_create(
      env, heap, count, table_desc->fill_size1, table_desc->fill_size2);
  if (fill == nullptr || fill->n_cols == 0) return fill;
  for (uint16_t i = 0; i < count; ++i) {
    const zq_value& value = row->cols[columns[i]];
    fill->col_nos[i] = columns[i];
    *tuple4_fillinfo_get_nth_fld(fill, i) = value;
    if (fill->lens != nullptr) fill->lens[i] = value.len;
  }
  return fill;
}
