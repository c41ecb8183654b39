// The R-tree handle: creation, node-buffer budget, destruction.
//
// Call order: rtr_mem_create (ordinary work) or rtr_mem_create_for_bld (bulk
// build), both through rtr_mem_create_low -> any number of tree operations ->
// rtr_flush_all when the changes are kept -> rtr_mem_destroy, which frees the
// pool with every node buffer and writes nothing.
#include "zqrtree/mem.h"

#include <cstdio>
#include <cstring>

#include "rtr/frame.h"
#include "zqrtree/hook.h"

namespace {

constexpr uint32_t kNameBufSize = 129;  // "MDRT$" + index name + terminator
constexpr uint64_t kBytesPerMb = 1048576;

// Reserves this handle's share of node-buffer megabytes. The counter is read
// plainly and added to afterwards: concurrent creations may overshoot the
// limit slightly, which is accepted (intended: no retry loop).
void reserve_buffers(rtr_mem* rtr) {
  const uint32_t used = g_rtr_buf_total_size;
  const uint32_t limit = zqsess_rtree_buf_total_mb(rtr->session);
  const uint32_t per_handle = zqsess_rtree_buf_handle_mb(rtr->session);
  if (used < limit) {
    const uint32_t room = limit - used;
    rtr->buf_quota = per_handle < room ? per_handle : room;
    os_interlock_add(&g_rtr_buf_total_size, static_cast<int32_t>(rtr->buf_quota));
    rtr->max_nodes =
        static_cast<uint32_t>(uint64_t{rtr->buf_quota} * kBytesPerMb / RTR_NODE_BUF_SIZE);
  } else {
    rtr->buf_quota = 0;
    rtr->max_nodes = 1;
  }
}

// Finds the node table and its B-tree; fills the dictionary fields. Returns
// the dictionary's negative code when the table or its index is missing.
int32_t bind_node_table(zq_env* env, rtr_mem* rtr, zq_scope* scope, const zq_index* index) {
  char name[kNameBufSize];
  std::snprintf(name, sizeof name, "%s%s", RTR_NODE_TABLE_PREFIX, index->name);
  int32_t code = 0;
  zq_table* table = ndct_find_table_by_name_with_code(env, rtr->pool, scope, name, &code);
  if (code < 0) return code;
  zq_index* node_index = ndct_table_get_nth_valid_real_index(env, rtr->pool, table, 0, &code);
  if (code < 0) return code;
  rtr->node_table = table;
  rtr->node_index = node_index;
  rtr->btr = ndct_phy_index_get_btr(node_index);
  rtr->row_tag = rtr_global_hook.get_row_tag(rtr->btr->desc);
  return 0;
}

}  // namespace

extern "C" {

int32_t rtr_mem_create_low(zq_env* env, zq_session* session, uint16_t n_dims, zq_scope* scope,
                           const zq_index* index, uint32_t for_bld, uint32_t read_mode,
                           rtr_mem** out) {
  // Used without a null test: intended.
  auto* rtr = static_cast<rtr_mem*>(mem_malloc_ex(env, sizeof(rtr_mem), __FILE__, __LINE__));
  std::memset(rtr, 0, sizeof(rtr_mem));
  rtr->pool = rt_memobj_mem2_pool_create_low(env, 0, RTR_POOL_NAME, RTR_POOL_SIZE, 0, 0, 0, 0, 0,
                                             __FILE__, __LINE__);
  // Intended: no push, and the handle's own memory stays allocated.
  if (rtr->pool == nullptr) return RTR_ERR_NO_ROOM;

  rtr->session = session;
  const int32_t code = bind_node_table(env, rtr, scope, index);
  if (code < 0) {
    rt_memobj_destroy(env, rtr->pool);
    // Intended: the handle's own memory is not freed on this path either.
    return zqrtree::fail(env, code, "rtr_mem_create_low");
  }
  rtr->n_dims = n_dims;
  rtr->for_bld = for_bld;
  rtr->read_mode = read_mode;

  if (for_bld != 0) {
    // A bulk build bypasses the cache: no hash table, no reservation.
    rtr->max_nodes = 1;
  } else {
    // Not tested either: intended, as for the handle itself.
    rtr->node_hash = zq_hash_create(env, RTR_NODE_HASH_BUCKETS, __FILE__, __LINE__);
    reserve_buffers(rtr);
  }
  *out = rtr;
  return RTR_OK;
}

int32_t rtr_mem_create(zq_env* env, zq_session* session, uint16_t n_dims, zq_scope* scope,
                       const zq_index* index, uint32_t read_mode, rtr_mem** out) {
  return rtr_mem_create_low(env, session, n_dims, scope, index, 0, read_mode, out);
}

int32_t rtr_mem_create_for_bld(zq_env* env, zq_session* session, uint16_t n_dims, zq_scope* scope,
                               const zq_index* index, rtr_mem** out) {
  return rtr_mem_create_low(env, session, n_dims, scope, index, 1, 0, out);
}

void rtr_mem_destroy(zq_env* env, rtr_mem* rtr) {
  if (rtr == nullptr) return;
  if (rtr->node_hash != nullptr) zq_hash_table_free(env, rtr->node_hash);
  // Every node buffer, dirty or not, goes with the pool; nothing is written.
  rt_memobj_destroy(env, rtr->pool);
  os_interlock_add(&g_rtr_buf_total_size, -static_cast<int32_t>(rtr->buf_quota));
  mem_free(env, rtr);
}

}  // extern "C"
