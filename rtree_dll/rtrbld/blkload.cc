// Bulk load: a whole R-tree built bottom-up from sorted entries.
//
// Call order (engine side): rtr_sort_create -> rtr_sort_bdta_crt ->
// (rtr_fill_one_row_nsort_bdta keyed on axis 0, nsort_put_bdta)* ->
// nsort_sort_it -> rtr_mem_create_for_bld -> rtr_blkload. Inside, one
// rtr_crt_lvl pass per level, the caller's sorter and a second one taking
// turns as a level's input and the next level's output, until a level is a
// single node, which moves to the root's row.
#include <cstdint>
#include <utility>

#include "rtrbld/bld_internal.h"
#include "zqrtree/bld.h"
#include "zqrtree/errors.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"
#include "zqrtree/phy.h"

namespace {

using namespace zqrtree::bld;

// An empty tree is one empty leaf in the root's row.
int32_t build_empty(zq_env* env, rtr_mem* rtr) {
  rtr_node* node = nullptr;
  // A bulk-build handle's node comes from its free list or pool, so the
  // create's code is not looked at; intended.
  (void)rtr_node_create(env, rtr, 0, RTR_ROOT_ID, &node);
  const int32_t rc = rtr_bld_flush_node(env, rtr, node);
  rtr_node_destroy(rtr, node);
  return rc;
}

// The levels, from the leaves up. The top node's move to the root's row
// reports nothing: the build returns the last level's status; intended.
int32_t build_levels(zq_env* env, zq_memobj* mem, rtr_mem* rtr, zq_nsort* sorter, uint64_t n,
                     uint32_t nfill) {
  SorterGuard second(env);
  BdtaGuard a(env, mem);
  BdtaGuard b(env, mem);
  int32_t rc = rtr_sort_create(env, zqsess_sort_pool(rtr->session), mem, rtr->n_dims, second.out());
  if (rc >= 0) rc = rtr_sort_bdta_crt(env, mem, rtr->n_dims, a.out());
  if (rc >= 0) rc = rtr_sort_bdta_crt(env, mem, rtr->n_dims, b.out());
  if (rc < 0) return rc;

  zq_nsort* input = sorter;
  zq_nsort* output = second.get();
  auto count = static_cast<int64_t>(n);
  for (uint32_t level = 0;; ++level) {
    uint64_t n_nodes = 0;
    int64_t root_id = 0;
    rc = rtr_crt_lvl(env, mem, rtr, a.get(), b.get(), input, count, 0, nfill, level, output,
                     &n_nodes, &root_id);
    nsort_clear(env, input);
    if (rc < 0) return rc;
    if (n_nodes == 1) {
      (void)rtr_phy_set_root(env, rtr, root_id);
      return rc;
    }
    if ((rc = nsort_sort_it(env, output)) < 0) return rc;
    std::swap(input, output);
    count = static_cast<int64_t>(n_nodes);
  }
}

}  // namespace

extern "C" int32_t rtr_blkload(zq_env* env, zq_memobj* mem, rtr_mem* rtr, zq_nsort* sorter,
                               uint64_t n, double fill) {
  if (n == 0) return build_empty(env, rtr);
  // Truncation toward zero; fill outside (0, 1] is the caller's to prevent.
  const auto nfill = static_cast<uint32_t>(fill * static_cast<double>(RTR_MAX_CELLS));
  return build_levels(env, mem, rtr, sorter, n, nfill);
}
