// Root and parent maintenance: rtr_phy_set_root moves a node's row to rowid
// 1 (the root's), rtr_phy_update_parent points a node's children at a new
// parent.
//
// set_root order: fast scratch -> key of the node id -> first write
// mini-transaction: search, keep level/parent/blob and the row, delete it
// through hook slot 3, commit -> rowid 1 into row and key -> second write
// mini-transaction: insert through hook slot 4, commit -> end the scratch ->
// slot 10 on -1509 -> the new root in memory -> re-parent its children.
// Between the two mini-transactions the table holds neither row.
#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;
using zqrtree::MiniTx;

constexpr const char* kOp = "rtr_phy_set_root";
constexpr uint32_t kInsertOptions = 0;

// What the move carries from the old row to the new one.
struct MovedRow {
  uint32_t level;
  int64_t parent;
  uint32_t len;
  uint8_t* blob;  // RTR_BLOB_MAX bytes on the mover's stack
  zq_row* row;    // the whole row, re-inserted under rowid 1
};

int32_t end_tx(MiniTx& tx, int32_t rc) {
  int32_t committed = tx.commit();
  return rc >= 0 && committed < 0 ? committed : rc;
}

int32_t take_row(zq_env* env, rtr_mem* rtr, MiniTx& tx, nbtr_cur* cur, zq_key* key,
                 zq_memobj* scratch, MovedRow* out) {
  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  int32_t rc = nbtr_cur_search(tx.get(), cur, 4, 4, key, 0, scratch);
  if (rc >= 0 && cur->rec == nullptr) rc = RTR_ERR_NO_ROW;
  if (rc < 0) return end_tx(tx, rc);

  int64_t old_id = 0;
  rtr_node_unpack(env, rtr, cur->rec, &old_id, &out->level, &out->parent, out->blob, &out->len);
  int32_t code = 0;
  out->row = tuple4_from_nrec(env, scratch, cur->rec, desc, &code);
  if (code < 0) return end_tx(tx, code);
  if (out->row == nullptr) return end_tx(tx, RTR_ERR_NO_ROOM);
  uint64_t dver = 0;
  rc = ndct_table_get_dver(env, rtr->node_table, &dver);
  if (rc < 0) return end_tx(tx, rc);
  rc = rtr_global_hook.row_delete(tx.get(), rtr->session, rtr->node_table, rtr->node_index, desc,
                                  key, rtr->row_tag, dver, cur->rec);
  return end_tx(tx, rc);
}

int32_t put_row_as_root(rtr_mem* rtr, MiniTx& tx, zq_row* row, zq_key* key) {
  int32_t rc =
      rtr_global_hook.row_insert(tx.get(), rtr->session, rtr->node_table, rtr->node_index,
                                 zqrtree::node_desc(rtr), row, key, rtr->row_tag, kInsertOptions);
  return end_tx(tx, rc);
}

// Runs one of the two mini-transactions of the move; `raised` tells the
// caller that the code is already pushed.
template <class Body>
int32_t in_write_tx(zq_env* env, rtr_mem* rtr, bool* raised, Body&& body) {
  MiniTx tx(env, kOp);
  int32_t rc = tx.begin(rtr->session, 1, __FILE__, __LINE__);
  if (rc < 0) return rc;
  rc = tx.run([&] { return body(tx); });
  *raised = tx.raised();
  return rc;
}

}  // namespace

extern "C" int32_t rtr_phy_set_root(zq_env* env, rtr_mem* rtr, int64_t node_id) {
  if (node_id == RTR_ROOT_ID) return RTR_NOTE_NOTHING;
  uint8_t blob[RTR_BLOB_MAX];
  MovedRow moved{0, 0, 0, blob, nullptr};
  int32_t result = 0;
  {
    zqrtree::FastScratch scratch(env, __FILE__, __LINE__);
    if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
    zq_key* key =
        tuple4_key_create(env, scratch.get(), zqrtree::node_desc(rtr), node_id, __FILE__, __LINE__);
    if (key == nullptr) return fail(env, RTR_ERR_NO_ROOM, kOp);

    nbtr_cur cur;
    nbtr_cur_init(&cur, rtr->btr);
    bool raised = false;
    result = in_write_tx(env, rtr, &raised, [&](MiniTx& tx) {
      return take_row(env, rtr, tx, &cur, key, scratch.get(), &moved);
    });
    if (raised) return result;
    if (result >= 0) {
      zqrtree::set_rowid_value(&moved.row->cols[moved.row->n_cols - 1], RTR_ROOT_ID);
      zqrtree::set_rowid_value(&key->vals[key->n_vals - 1], RTR_ROOT_ID);
      nbtr_cur_init(&cur, rtr->btr);
      result = in_write_tx(env, rtr, &raised,
                           [&](MiniTx& tx) { return put_row_as_root(rtr, tx, moved.row, key); });
      if (raised) return result;
    }
  }
  if (result == RTR_ERR_INSERT_FAILED) rtr_global_hook.row_insert_failed(env, result);
  if (result < 0) return fail(env, result, kOp);

  rtr_node* root = nullptr;
  int32_t rc = rtr_node_create_ex(env, rtr, RTR_ROOT_ID, moved.level, moved.parent, moved.blob,
                                  moved.len, &root);
  if (rc < 0) return fail(env, rc, kOp);
  // Intended: a child left with its old parent does not fail the move; the
  // re-parenting has pushed its own failure.
  rtr_phy_update_parent(env, rtr, root, RTR_ROOT_ID);
  rtr_node_destroy(rtr, root);
  return rc;
}

extern "C" int32_t rtr_phy_update_parent(zq_env* env, rtr_mem* rtr, const rtr_node* node,
                                         int64_t new_parent_id) {
  // A leaf's cells name indexed rows, not nodes.
  if (node->level == 0) return RTR_OK;
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    rtr_node* child = nullptr;
    int32_t rc = rtr_phy_read_node(env, rtr, node->cells[i].id, &child);
    // Without its row there is no child to point anywhere: stop with the
    // read's code rather than write a node that was never read.
    if (rc < 0) return fail(env, rc, "rtr_phy_update_parent");
    child->parent_id = new_parent_id;
    rc = rtr_phy_modify_node(env, rtr, child);
    rtr_node_destroy(rtr, child);
    // RTR_NOTE_NOTHING: the child already named this parent.
    if (rc < 0) return fail(env, rc, "rtr_phy_update_parent");
  }
  return RTR_OK;
}
