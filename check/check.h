// The tree checker: verifies that a node table holds a sound R-tree.
//
// It reads the node table "MDRT$" + index name straight from SQLite through
// the host session and decodes each row with the library's record format; it
// never goes through a handle's node cache, so it sees exactly what was
// written. Rules checked, in this order:
//   1. every row decodes: level and parent are integers, the cells blob is
//      4 + n*E bytes (E = (2d + 1) * 8; a 3-D index also reads 2-D rows),
//      n is at most 51 and no coordinate is NaN (check/node_row.h);
//   2. the root row (node 1) exists;
//   3. walking from the root, depth first in cell order: the root's
//      parent_id is 0, each child's level is its parent's minus one (so every
//      leaf is at the same depth), its parent_id names the node holding its
//      entry, every branch box contains all of its child's entries, only the
//      root may be empty (a leaf root; a branch root holds at least two
//      entries, as every tree the library makes does), and no node is
//      reached twice;
//   4. the table holds no row the walk did not reach.
// The first violation is reported with the node it was found at. A minimum
// fill is deliberately not required: incremental trees may be sparse.
//
// check_search adds the rule that every leaf entry is found by an EQUAL
// search of its own box through a handle; run it on a handle whose view
// matches the table (a fresh handle, or right after rtr_flush_all).
#ifndef ZQ_CHECK_CHECK_H
#define ZQ_CHECK_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "zqhost/env.h"
#include "zqrtree/mem.h"

namespace zqcheck {

struct CheckResult {
  bool ok = true;
  int64_t node_id = 0;  // node at which the first violation was found
  std::string message;  // what was wrong there; empty when ok
};

struct TreeStats {
  uint32_t height = 0;                    // levels: the root's level + 1
  uint64_t nodes = 0;                     // nodes reachable from the root
  uint64_t entries = 0;                   // leaf entries (indexed rows)
  std::vector<uint64_t> nodes_per_level;  // index = level (0 = leaves)
  std::vector<uint64_t> cells_per_level;  // entries held by the nodes of each level
};

// Checks the node table of `index_name` in database `schema` of the session
// ("main", "temp" or an attached name) for an index of `n_dims` axes. Fills
// `stats` (when given) with what the walk saw, complete when the tree is sound.
CheckResult check_tree(zq_session* session, const char* schema, const char* index_name,
                       uint16_t n_dims, TreeStats* stats = nullptr);

// Every leaf entry of the table, searched with an EQUAL cursor on `rtr`,
// must come back with its rowid. Runs check_tree first and reports its
// violation if there is one.
CheckResult check_search(zq_env* env, rtr_mem* rtr, const char* schema, const char* index_name);

}  // namespace zqcheck

#endif
