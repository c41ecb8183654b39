// Scans of the engine's spatial temp table of pending changes, whose index
// orders rows by (flag, rowid): "D" rows are pending deletes, "I" rows
// pending inserts with their box.
//
// An index scan calls rtr_get_spt_tmp_tab_btr once, rtr_find_spt_tmp_tab_del_data
// per tree hit, and rtr_spt_tmp_tab_first_ins_data followed by
// rtr_spt_tmp_tab_ins_data until that returns 0 with `end` set. Every scan
// skips delete-marked records and the boundary records.
#include "zqrtree/spt.h"

#include <cstdint>
#include <cstring>

#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/geom.h"

namespace {

using zqrtree::fail;

constexpr uint16_t kFieldFlag = 0;
constexpr uint16_t kFieldRowid = 1;
constexpr uint16_t kFieldBox = 2;
constexpr uint32_t kFlagCap = 8;

bool is_delete_marked(const zq_nrec* rec) {
  return (rec[0] & ZQ_NREC_DELETED_BIT) != 0;
}
bool is_boundary(const zq_nrec* rec) {
  return nrec_is_min_rec(rec) || nrec_is_max_rec(rec);
}

// Moves right past delete-marked and boundary records; false when the
// cursor runs out of rows first.
bool skip_to_live_row(pbcur* cur) {
  while (cur->rec != nullptr && (is_delete_marked(cur->rec) || is_boundary(cur->rec))) {
    if (pbcur_move_to_right_user_rec(cur) == 0) return false;
  }
  return cur->rec != nullptr;
}

bool row_flag_is(zq_env* env, const pbcur* cur, char flag) {
  char text[kFlagCap + 1];
  uint32_t len = nrec_copy_nth_field_data_with_length(env, cur->btr->desc, cur->rec, kFieldFlag,
                                                      text, kFlagCap);
  text[len < kFlagCap ? len : kFlagCap] = '\0';
  return text[0] == flag && text[1] == '\0';
}

// A key on (flag, rowid) in `mem`; a failure is pushed under `op`.
int32_t flag_key(zq_env* env, zq_memobj* mem, const zq_btr* btr, const char* flag, int64_t rowid,
                 const char* op, zq_key** out) {
  *out = tuple4_key_create(env, mem, btr->desc, rowid, __FILE__, __LINE__);
  if (*out == nullptr) return fail(env, RTR_ERR_NO_ROOM, op);
  int32_t rc = nstr_assign_const_ex_no_clear(env, mem, &(*out)->vals[0], flag, 1);
  return rc < 0 ? fail(env, rc, op) : RTR_OK;
}

// Is the first live row at or after the cursor a pending delete of `rowid`?
// Only that one row is looked at.
bool first_row_deletes(zq_env* env, const pbcur* cur, int64_t rowid) {
  if (!row_flag_is(env, cur, 'D')) return false;
  int64_t pending = 0;
  nrec_copy_nth_field_data_lint64(env, cur->btr->desc, cur->rec, &pending, kFieldRowid, nullptr);
  return pending == rowid;
}

// The box of the current row against the search: the first two axes only,
// as in the tree's own search (intended).
bool row_matches(const pbcur* cur, const rtr_rect* query, uint16_t op, rtr_rect* rect) {
  double box[6];
  nrec_copy_nth_field_data_with_length(nullptr, cur->btr->desc, cur->rec, kFieldBox, box,
                                       sizeof box);
  rtr_rect_from_nrec(rect, box, 3);
  return rtr_leaf_rect_cmp(rect, query, 2, op) != 0;
}

}  // namespace

extern "C" zq_btr* rtr_get_spt_tmp_tab_btr(zq_env* /*env*/, const zq_tmptab_owner* owner,
                                           uint32_t table_id) {
  for (const zq_tmptab* t = owner->first; t != nullptr; t = t->next) {
    if (t->id == table_id) return t->btr2;
  }
  return nullptr;
}

extern "C" int32_t rtr_find_spt_tmp_tab_del_data(zq_env* env, zq_session* session, zq_btr* btr,
                                                 int64_t rowid) {
  static constexpr const char* kOp = "rtr_find_spt_tmp_tab_del_data";
  zqrtree::FastScratch scratch(env, __FILE__, __LINE__);
  if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
  zq_key* key = nullptr;
  int32_t code = flag_key(env, scratch.get(), btr, "D", rowid, kOp, &key);
  if (code < 0) return code;

  zqrtree::MiniTx tx(env, kOp);
  code = tx.begin(session, 0, __FILE__, __LINE__);
  if (code < 0) return fail(env, code, kOp);
  pbcur cur;
  pbcur_init_low(&cur, tx.get(), btr, __FILE__, __LINE__);
  int32_t found = 0;
  tx.run([&] {
    code = pbcur_open(&cur, key, 1, 0, scratch.get());
    if (code >= 0 && skip_to_live_row(&cur)) found = first_row_deletes(env, &cur, rowid) ? 1 : 0;
    pbcur_close(&cur);
    return tx.commit();
  });
  if (tx.raised()) {
    pbcur_close(&cur);
    // Intended: after a raise the scan answers with the code it had recorded
    // before it (the raised code is on the error stack).
    return code;
  }
  return code < 0 ? fail(env, code, kOp) : found;
}

extern "C" int32_t rtr_spt_tmp_tab_first_ins_data(zq_env* env, zq_session* session, zq_btr* btr,
                                                  pbcur* cur) {
  static constexpr const char* kOp = "rtr_spt_tmp_tab_first_ins_data";
  zqrtree::FastScratch scratch(env, __FILE__, __LINE__);
  if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
  zq_key* key = nullptr;
  // The smallest rowid, so that the key stands before every "I" row.
  int32_t code = flag_key(env, scratch.get(), btr, "I", INT64_MIN, kOp, &key);
  if (code < 0) return code;

  zqrtree::MiniTx tx(env, kOp);
  code = tx.begin(session, 0, __FILE__, __LINE__);
  if (code < 0) return fail(env, code, kOp);
  pbcur_init_low(cur, tx.get(), btr, __FILE__, __LINE__);
  tx.run([&] {
    code = pbcur_open(cur, key, 1, 0, scratch.get());
    // The caller goes on from a saved position after this mini-transaction.
    if (code >= 0 && skip_to_live_row(cur)) {
      pbcur_save_position_inner(cur);
    } else {
      pbcur_close(cur);
    }
    return tx.commit();
  });
  if (tx.raised()) {
    pbcur_close(cur);
    return code;  // intended, as in the delete lookup
  }
  return code < 0 ? fail(env, code, kOp) : code;
}

extern "C" int32_t rtr_spt_tmp_tab_ins_data(pbcur* cur, const rtr_rect* query, uint16_t op,
                                            rtr_rect* rect, int64_t* rowid, uint32_t* end) {
  *end = 0;
  if (cur->positioned == 0 || cur->rec == nullptr) return 0;
  for (;;) {
    if (!is_delete_marked(cur->rec)) {
      if (is_boundary(cur->rec)) return 0;
      if (row_matches(cur, query, op, rect)) break;
    }
    if (pbcur_move_to_right_user_rec(cur) == 0) {
      *end = 1;
      return 0;
    }
    if (cur->positioned == 0 || cur->rec == nullptr) return 0;
  }
  nrec_copy_nth_field_data_lint64(nullptr, cur->btr->desc, cur->rec, rowid, kFieldRowid, nullptr);
  if (pbcur_move_to_right_user_rec(cur) == 0) *end = 1;
  return 1;
}

extern "C" void rtr_rect_from_nrec(rtr_rect* rect, const double* data, uint32_t n_dims) {
  static constexpr double rtr_rect::*kMin[3] = {&rtr_rect::min0, &rtr_rect::min1, &rtr_rect::min2};
  static constexpr double rtr_rect::*kMax[3] = {&rtr_rect::max0, &rtr_rect::max1, &rtr_rect::max2};
  for (uint32_t k = 0; k < n_dims && k < 3; ++k) {
    rect->*kMin[k] = data[k];
    rect->*kMax[k] = data[n_dims + k];
  }
}
