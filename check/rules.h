// The tree rules of the checker (see check.h) over node rows that an engine
// has read itself: the SQLite host's reader (check.cc) and the PostgreSQL
// host's both hand their rows to NodeRows and run the same walk.
//
// Call order: NodeRows::add for each stored row (any order) -> check_rows ->
// search_rows on a handle whose view matches the rows.
#ifndef ZQ_CHECK_RULES_H
#define ZQ_CHECK_RULES_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "check/check.h"
#include "check/node_row.h"
#include "zqrtree/geom.h"

namespace zqcheck {

struct Row {
  int64_t id;                   // rowid = node id
  uint32_t level;               // 0 = leaf
  int64_t parent;               // parent_id column as stored
  std::vector<rtr_cell> cells;  // decoded entries
  bool reached = false;         // the walk from the root got here
};

class NodeRows {
 public:
  // Decodes one stored row of an index of `d` axes; "" or what is wrong with
  // it. `blob` is null when the cells value is not binary.
  std::string add(uint16_t d, int64_t id, int64_t level, int64_t parent, const void* blob, int len);

  std::vector<Row> rows;                    // in the order added
  std::unordered_map<int64_t, size_t> pos;  // node id -> index in rows
};

CheckResult violation(int64_t node_id, std::string message);
// Rules 2 to 4 of check.h over the rows; fills `stats`.
CheckResult check_rows(NodeRows& rows, uint16_t d, TreeStats* stats);
// Every leaf entry of the rows, searched with an EQUAL cursor on `rtr`.
CheckResult search_rows(zq_env* env, rtr_mem* rtr, const NodeRows& rows);

}  // namespace zqcheck

#endif
