// Writing a new node's row (rtr_phy_insert_node) and handing out node ids
// (rtr_phy_get_next_node_id).
//
// Insert order: fast scratch -> key of the node id and an empty row -> pack
// the node -> write mini-transaction -> hook slot 4 -> commit -> end the
// scratch -> on -1509, hook slot 10 once the mini-transaction is over.
#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;

constexpr const char* kOp = "rtr_phy_insert_node";
constexpr uint32_t kInsertOptions = 0;

int32_t insert_row(rtr_mem* rtr, zqrtree::MiniTx& tx, zq_row* row, zq_key* key) {
  int32_t rc =
      rtr_global_hook.row_insert(tx.get(), rtr->session, rtr->node_table, rtr->node_index,
                                 zqrtree::node_desc(rtr), row, key, rtr->row_tag, kInsertOptions);
  int32_t committed = tx.commit();
  return rc >= 0 && committed < 0 ? committed : rc;
}

}  // namespace

extern "C" int32_t rtr_phy_insert_node(zq_env* env, rtr_mem* rtr, const rtr_node* node) {
  zqrtree::FastScratch scratch(env, __FILE__, __LINE__);
  if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  zq_key* key = tuple4_key_create(env, scratch.get(), desc, node->id, __FILE__, __LINE__);
  zq_row* row = key != nullptr ? tuple4_space_create(env, scratch.get(), desc) : nullptr;
  if (row == nullptr) {
    scratch.destroy();
    return fail(env, RTR_ERR_NO_ROOM, kOp);
  }
  int32_t rc = rtr_node_pack(env, scratch.get(), rtr, node, row);
  if (rc < 0) return fail(env, rc, kOp);

  int32_t result = 0;
  {
    zqrtree::MiniTx tx(env, kOp);
    rc = tx.begin(rtr->session, 1, __FILE__, __LINE__);
    if (rc < 0) return fail(env, rc, kOp);
    result = tx.run([&] { return insert_row(rtr, tx, row, key); });
    if (tx.raised()) return result;
  }
  scratch.destroy();
  if (result == RTR_ERR_INSERT_FAILED) rtr_global_hook.row_insert_failed(env, result);
  return result < 0 ? fail(env, result, kOp) : result;
}

extern "C" int64_t rtr_phy_get_next_node_id(zq_env* env, rtr_mem* rtr, int32_t* code) {
  int32_t local = 0;
  int32_t* out = code != nullptr ? code : &local;
  int64_t id = nbtr_get_next_rowid(env, rtr->btr, out);
  // Rowid 1 belongs to the root, which only the root move and the bulk build
  // create; one more draw is enough because the counter only grows.
  if (id == RTR_ROOT_ID) id = nbtr_get_next_rowid(env, rtr->btr, out);
  if (*out < 0) fail(env, *out, "rtr_phy_get_next_node_id");
  return id;
}
