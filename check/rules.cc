// The checker's rules over decoded node rows: decoding and length checks,
// the depth-first walk from the root, unreached rows, and the EQUAL search of
// every leaf entry. Engine-free: the rows come from the engine's reader.
#include "check/rules.h"

#include <sqlite3.h>

#include <cstring>
#include <memory>

#include "zqrtree/cursor.h"
#include "zqrtree/phy.h"

namespace zqcheck {
namespace {

// Depth-first walk from the root in cell order; stops at the first violation.
class Walker {
 public:
  Walker(NodeRows& table, uint16_t d, TreeStats* stats) : table_(table), d_(d), stats_(stats) {}

  CheckResult walk() {
    auto root = table_.pos.find(RTR_ROOT_ID);
    if (root == table_.pos.end()) return violation(RTR_ROOT_ID, "the root row (node 1) is missing");
    Row& r = table_.rows[root->second];
    // A walk up the parents ends at the root only when its parent_id is 0.
    if (r.parent != 0)
      return violation(RTR_ROOT_ID,
                       "the root's parent_id is " + std::to_string(r.parent) + ", not 0");
    // Every tree the library makes has a branch root of two entries or more
    // (a root left with one is shortened); on one with fewer, a delete that
    // empties its child would leave it nothing to put that child's entries in.
    if (r.level > 0 && r.cells.size() < 2)
      return violation(RTR_ROOT_ID, "the root is a branch of level " + std::to_string(r.level) +
                                        " with " + std::to_string(r.cells.size()) +
                                        " entries; a branch root holds at least 2");
    stats_->height = r.level + 1;
    stats_->nodes_per_level.assign(r.level + 1, 0);
    stats_->cells_per_level.assign(r.level + 1, 0);
    visit(r, nullptr);
    return result_;
  }

 private:
  bool visit(Row& row, const Row* parent) {
    if (row.reached)
      return fail(row.id, "node is reached twice (again from node " +
                              std::to_string(parent ? parent->id : 0) + ")");
    row.reached = true;
    if (parent != nullptr && !fits_parent(row, *parent)) return false;
    stats_->nodes += 1;
    stats_->nodes_per_level[row.level] += 1;
    stats_->cells_per_level[row.level] += row.cells.size();
    if (row.level == 0) {
      stats_->entries += row.cells.size();
      return true;
    }
    for (size_t i = 0; i < row.cells.size(); ++i) {
      auto child = table_.pos.find(row.cells[i].id);
      if (child == table_.pos.end()) {
        return fail(row.id, "entry " + std::to_string(i) + " names node " +
                                std::to_string(row.cells[i].id) + ", which has no row");
      }
      Row& c = table_.rows[child->second];
      if (!contains_all(row, i, c) || !visit(c, &row)) return false;
    }
    return true;
  }

  bool fits_parent(const Row& row, const Row& parent) {
    if (row.level + 1 != parent.level) {
      return fail(row.id, "level " + std::to_string(row.level) + " under node " +
                              std::to_string(parent.id) + " of level " +
                              std::to_string(parent.level) + " (leaves at different depths)");
    }
    if (row.parent != parent.id) {
      return fail(row.id, "parent_id is " + std::to_string(row.parent) + " but node " +
                              std::to_string(parent.id) + " holds its entry");
    }
    if (row.cells.empty()) return fail(row.id, "non-root node has no entries");
    return true;
  }

  bool contains_all(const Row& row, size_t i, const Row& child) {
    const rtr_rect& box = row.cells[i].rect;
    for (size_t j = 0; j < child.cells.size(); ++j) {
      if (rtr_rect_contains(&box, &child.cells[j].rect, d_) == 0) {
        return fail(row.id, "box of entry " + std::to_string(i) + " does not contain entry " +
                                std::to_string(j) + " of its child node " +
                                std::to_string(child.id));
      }
    }
    return true;
  }

  bool fail(int64_t node_id, std::string message) {
    result_ = violation(node_id, std::move(message));
    return false;
  }

  NodeRows& table_;
  uint16_t d_;
  TreeStats* stats_;
  CheckResult result_;
};

CheckResult find_unreached(const NodeRows& table) {
  for (const Row& row : table.rows) {
    if (!row.reached) return violation(row.id, "node is not reachable from the root");
  }
  return {};
}

// The rowid comes back from an EQUAL search of its own box. A failing
// search is reported with the engine code.
CheckResult search_entry(zq_env* env, rtr_mem* rtr, int64_t leaf_id, const rtr_cell& entry) {
  rcur cur;
  rcur_init(&cur, rtr, RTR_OP_EQUAL);
  int32_t rc = rcur_open(env, &cur, &entry.rect);
  while (rc >= 0 && rcur_is_end(&cur) == 0) {
    rtr_cell hit;
    rc = rcur_column(env, &cur, &hit);
    if (rc >= 0 && hit.id == entry.id) return {};
    if (rc >= 0) rc = rcur_next(env, &cur);
  }
  std::string why = rc < 0 ? "the search failed with code " + std::to_string(rc) : "not found";
  return violation(leaf_id, "entry with rowid " + std::to_string(entry.id) +
                                " is not found by an EQUAL search of its box: " + why);
}

}  // namespace

CheckResult violation(int64_t node_id, std::string message) {
  return CheckResult{false, node_id, std::move(message)};
}

std::string NodeRows::add(uint16_t d, int64_t id, int64_t level, int64_t parent, const void* blob,
                          int len) {
  // Every rule a row keeps by itself, NaN included; the engine's reader has
  // made sure level and parent are integers.
  const NodeRowImage image{SQLITE_INTEGER,
                           level,
                           SQLITE_INTEGER,
                           blob != nullptr || len == 0 ? SQLITE_BLOB : SQLITE_NULL,
                           static_cast<const uint8_t*>(blob),
                           len > 0 ? static_cast<size_t>(len) : 0};
  if (std::string problem = node_row_problem(image, d, nullptr); !problem.empty()) return problem;
  Row row{id, static_cast<uint32_t>(level), parent, {}};
  // Decoded by the library's own record format into a zeroed node, so unused
  // coordinate slots read 0 as the engine side writes them.
  auto node = std::make_unique<rtr_node>();
  rtr_cells_unpack(d, node.get(), static_cast<const uint8_t*>(blob), static_cast<uint32_t>(len));
  row.cells.assign(node->cells, node->cells + node->n_cells);
  pos[id] = rows.size();
  rows.push_back(std::move(row));
  return {};
}

CheckResult check_rows(NodeRows& rows, uint16_t d, TreeStats* stats) {
  CheckResult res = Walker(rows, d, stats).walk();
  if (!res.ok) return res;
  return find_unreached(rows);
}

CheckResult search_rows(zq_env* env, rtr_mem* rtr, const NodeRows& rows) {
  for (const Row& row : rows.rows) {
    if (row.level != 0) continue;
    for (const rtr_cell& entry : row.cells) {
      CheckResult res = search_entry(env, rtr, row.id, entry);
      if (!res.ok) return res;
    }
  }
  return {};
}

}  // namespace zqcheck
