// Reading a node's row: rtr_phy_read_node, the node cache's miss path.
//
// Order: stack scratch -> key of the node id -> read mini-transaction ->
// pbcur_open (1, 4) -> visible row: rtr_node_unpack; invisible row: halt in
// write mode, then the session's visible version through hook slot 2 ->
// close, commit, free the key, end the scratch -> rtr_node_create_ex. The
// node returned is in no list; the caller decides whether it is cached.
#include <cstdio>
#include <cstring>

#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;
using zqrtree::MiniTx;
using zqrtree::StackScratch;

constexpr const char* kOp = "rtr_phy_read_node";
constexpr const char* kUnvisibleOp = "rtr_read_unvisible_node";
constexpr size_t kHaltMessageSize = 1024;
constexpr uint16_t kAllColumns[] = {RTR_COL_LEVEL, RTR_COL_PARENT, RTR_COL_CELLS};

// What a read takes from a row before the node is built.
struct RowImage {
  int64_t id;
  uint32_t level;
  int64_t parent;
  uint32_t len;   // bytes of the cells blob
  uint8_t* blob;  // RTR_BLOB_MAX bytes, on the reader's stack
};

// A writer must never meet a row it cannot see, so the engine is stopped.
[[gnu::noinline, gnu::cold]] void halt_unvisible_in_write_mode(const StackScratch& scratch,
                                                               const rtr_mem* rtr) {
  char fallback[kHaltMessageSize];
  char* msg = static_cast<char*>(scratch.alloc(kHaltMessageSize, __FILE__, __LINE__));
  if (msg == nullptr) msg = fallback;
  std::snprintf(msg, kHaltMessageSize,
                "Rtree read unvisible rec in WRITE mode. Node table is [%s].\n",
                rtr->node_table->name);
  zq_sys_halt(msg, -1);
}

// The version of an invisible row that the handle's session may see.
int32_t read_unvisible_node(zq_env* env, const StackScratch& scratch, rtr_mem* rtr,
                            const zq_nrec* rec, RowImage* out) {
  // Intended: should the halt return, the read goes on as a reader's would.
  if (rtr->read_mode == 0) halt_unvisible_in_write_mode(scratch, rtr);

  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  zq_fillinfo* fill = tuple4_fillinfo_space_create_low(env, scratch.get(), desc, kAllColumns, 3, 0);
  if (fill == nullptr) return RTR_ERR_NO_ROOM;

  int32_t code = 0;
  int32_t seen = rtr_global_hook.rec_read_visible_version(env, scratch.get(), rtr->session, desc,
                                                          rec, rec, fill, &code);
  if (code < 0) return fail(env, code, kUnvisibleOp);
  if (seen == 0) return fail(env, RTR_ERR_NO_ROW, kUnvisibleOp);

  out->id = nrec_get_rowid(desc, rec);
  out->level = static_cast<uint32_t>(tuple4_fillinfo_get_nth_fld(fill, 0)->u.i32);
  out->parent = tuple4_fillinfo_get_nth_fld(fill, 1)->u.i64;
  const zq_value* cells = tuple4_fillinfo_get_nth_fld(fill, 2);
  // The engine caps a binary at RTR_BLOB_MAX bytes; the clamp only keeps a
  // damaged value from running past the blob buffer.
  out->len = cells->len <= RTR_BLOB_MAX ? cells->len : RTR_BLOB_MAX;
  const uint8_t* bytes = cells->len <= ZQ_VALUE_INLINE_MAX ? cells->u.inl : cells->ptr;
  if (out->len != 0) std::memcpy(out->blob, bytes, out->len);
  return RTR_OK;
}

// The positioned part of the read, inside the mini-transaction.
int32_t read_row(zq_env* env, rtr_mem* rtr, MiniTx& tx, pbcur* cur, zq_key* key,
                 const StackScratch& scratch, int64_t node_id, RowImage* out) {
  int32_t rc = pbcur_open(cur, key, 1, 4, scratch.get());
  if (rc >= 0 && (cur->found == 0 || cur->rec == nullptr)) {
    rc = node_id == RTR_ROOT_ID ? RTR_ERR_NOT_FOUND : RTR_ERR_NO_ROW;
  } else if (rc >= 0 && rtr_global_hook.rec_is_visible(env, rtr->session, cur->rec) != 0) {
    rc = rtr_node_unpack(env, rtr, cur->rec, &out->id, &out->level, &out->parent, out->blob,
                         &out->len);
  } else if (rc >= 0) {
    rc = read_unvisible_node(env, scratch, rtr, cur->rec, out);
  }
  pbcur_close(cur);
  tx.commit();
  return rc;
}

}  // namespace

extern "C" int32_t rtr_phy_read_node(zq_env* env, rtr_mem* rtr, int64_t node_id,
                                     rtr_node** out_node) {
  *out_node = nullptr;
  uint8_t blob[RTR_BLOB_MAX];
  RowImage row{0, 0, 0, 0, blob};
  {
    StackScratch scratch(env, __FILE__, __LINE__);
    if (!scratch) return fail(env, RTR_ERR_NO_ROOM, kOp);
    zq_key* key =
        tuple4_key_create(env, scratch.get(), zqrtree::node_desc(rtr), node_id, __FILE__, __LINE__);
    if (key == nullptr) return fail(env, RTR_ERR_NO_ROOM, kOp);

    MiniTx tx(env, kOp);
    int32_t rc = tx.begin(rtr->session, 0, __FILE__, __LINE__);
    if (rc < 0) return fail(env, rc, kOp);
    pbcur cur;
    pbcur_init_low(&cur, tx.get(), rtr->btr, __FILE__, __LINE__);
    rc = tx.run([&] { return read_row(env, rtr, tx, &cur, key, scratch, node_id, &row); });
    if (tx.raised()) {
      pbcur_close(&cur);
      return rc;
    }
    tuple4_key_free(env, scratch.get(), key);
    if (rc < 0) return fail(env, rc, kOp);
  }
  int32_t rc =
      rtr_node_create_ex(env, rtr, row.id, row.level, row.parent, row.blob, row.len, out_node);
  return rc < 0 ? fail(env, rc, kOp) : rc;
}
