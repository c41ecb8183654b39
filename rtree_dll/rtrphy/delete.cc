// Deleting a node's row: rtr_phy_delete_node, used for nodes the deletion
// takes out of the tree.
//
// Order: stack scratch -> key of the node id -> write mini-transaction ->
// nbtr_cur_search (4, 4) -> data version -> hook slot 3 -> commit -> end the
// scratch.
#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;

constexpr const char* kOp = "rtr_phy_delete_node";

int32_t delete_row(zq_env* env, rtr_mem* rtr, zqrtree::MiniTx& tx, nbtr_cur* cur, zq_key* key,
                   zq_memobj* scratch) {
  int32_t rc = nbtr_cur_search(tx.get(), cur, 4, 4, key, 0, scratch);
  if (rc >= 0 && cur->rec == nullptr) rc = RTR_ERR_NO_ROW;
  uint64_t dver = 0;
  if (rc >= 0) rc = ndct_table_get_dver(env, rtr->node_table, &dver);
  if (rc >= 0) {
    rc = rtr_global_hook.row_delete(tx.get(), rtr->session, rtr->node_table, rtr->node_index,
                                    zqrtree::node_desc(rtr), key, rtr->row_tag, dver, cur->rec);
  }
  int32_t committed = tx.commit();
  return rc >= 0 && committed < 0 ? committed : rc;
}

}  // namespace

extern "C" int32_t rtr_phy_delete_node(zq_env* env, rtr_mem* rtr, const int64_t* node_id) {
  zqrtree::StackScratch scratch(env, __FILE__, __LINE__);
  if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
  zq_key* key =
      tuple4_key_create(env, scratch.get(), zqrtree::node_desc(rtr), *node_id, __FILE__, __LINE__);
  if (key == nullptr) return fail(env, RTR_ERR_NO_ROOM, kOp);

  nbtr_cur cur;
  nbtr_cur_init(&cur, rtr->btr);
  zqrtree::MiniTx tx(env, kOp);
  int32_t rc = tx.begin(rtr->session, 1, __FILE__, __LINE__);
  if (rc < 0) return fail(env, rc, kOp);
  rc = tx.run([&] { return delete_row(env, rtr, tx, &cur, key, scratch.get()); });
  if (tx.raised()) return rc;
  return rc < 0 ? fail(env, rc, kOp) : rc;
}
