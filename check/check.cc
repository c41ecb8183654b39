// The tree checker: load and decode every row of a node table, then walk the
// tree from the root and report the first broken rule (see check.h).
//
// Call order: check_tree -> load_table (one SELECT, decode_row per row) ->
// Walker::visit from node 1 -> find_unreached. check_search runs the same
// steps, keeps the decoded table and then searches every leaf entry through
// the handle's cursor.
#include "check/check.h"

#include <sqlite3.h>

#include <cstring>
#include <memory>
#include <unordered_map>

#include "check/node_row.h"
#include "host/host.h"
#include "zqrtree/cursor.h"
#include "zqrtree/phy.h"

namespace zqcheck {
namespace {

struct Row {
  int64_t id;                   // rowid = node id
  uint32_t level;               // 0 = leaf
  int64_t parent;               // parent_id column as stored
  std::vector<rtr_cell> cells;  // decoded entries
  bool reached = false;         // the walk from the root got here
};

struct Table {
  std::vector<Row> rows;                    // in rowid order
  std::unordered_map<int64_t, size_t> pos;  // node id -> index in rows
};

CheckResult violation(int64_t node_id, std::string message) {
  return CheckResult{false, node_id, std::move(message)};
}

std::string quoted(const char* name) {
  std::string out = "\"";
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p == '"') out += '"';
    out += *p;
  }
  return out + "\"";
}

std::string decode_row(sqlite3_stmt* st, uint16_t d, Row* row) {
  const NodeRowImage image{sqlite3_column_type(st, 1),
                           sqlite3_column_int64(st, 1),
                           sqlite3_column_type(st, 2),
                           sqlite3_column_type(st, 3),
                           static_cast<const uint8_t*>(sqlite3_column_blob(st, 3)),
                           static_cast<size_t>(sqlite3_column_bytes(st, 3))};
  std::string problem = node_row_problem(image, d, nullptr);
  if (!problem.empty()) return problem;
  row->level = static_cast<uint32_t>(image.level);
  row->parent = sqlite3_column_int64(st, 2);
  // Decoded by the library's own record format into a zeroed node, so unused
  // coordinate slots read 0 as the engine side writes them.
  auto node = std::make_unique<rtr_node>();
  rtr_cells_unpack(d, node.get(), image.cells, static_cast<uint32_t>(image.cells_len));
  row->cells.assign(node->cells, node->cells + node->n_cells);
  return {};
}

CheckResult load_table(zq_session* session, const char* schema, const char* index_name, uint16_t d,
                       Table* table) {
  std::string name = std::string(RTR_NODE_TABLE_PREFIX) + index_name;
  std::string sql = "SELECT rowid, level, parent_id, cells FROM " + quoted(schema) + "." +
                    quoted(name.c_str()) + " ORDER BY rowid";
  sqlite3* db = zqsess_db(session);
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    return violation(0, "cannot read node table " + name + ": " + sqlite3_errmsg(db));
  }
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> guard(st, sqlite3_finalize);
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    Row row{sqlite3_column_int64(st, 0), 0, 0, {}};
    std::string problem = decode_row(st, d, &row);
    if (!problem.empty()) return violation(row.id, "corrupt row: " + problem);
    table->pos[row.id] = table->rows.size();
    table->rows.push_back(std::move(row));
  }
  if (rc != SQLITE_DONE) {
    return violation(0, "reading node table " + name + " failed: " + sqlite3_errmsg(db));
  }
  return {};
}

// Depth-first walk from the root in cell order; stops at the first violation.
class Walker {
 public:
  Walker(Table& table, uint16_t d, TreeStats* stats) : table_(table), d_(d), stats_(stats) {}

  CheckResult walk() {
    auto root = table_.pos.find(RTR_ROOT_ID);
    if (root == table_.pos.end()) return violation(RTR_ROOT_ID, "the root row (node 1) is missing");
    Row& r = table_.rows[root->second];
    // A walk up the parents ends at the root only when its parent_id is 0.
    if (r.parent != 0)
      return violation(RTR_ROOT_ID,
                       "the root's parent_id is " + std::to_string(r.parent) + ", not 0");
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

  Table& table_;
  uint16_t d_;
  TreeStats* stats_;
  CheckResult result_;
};

CheckResult find_unreached(const Table& table) {
  for (const Row& row : table.rows) {
    if (!row.reached) return violation(row.id, "node is not reachable from the root");
  }
  return {};
}

CheckResult check_loaded(zq_session* session, const char* schema, const char* index_name,
                         uint16_t n_dims, TreeStats* stats, Table* table) {
  if (n_dims < 1 || n_dims > 3) {
    return violation(0, "dimension count " + std::to_string(n_dims) + " is not 1, 2 or 3");
  }
  CheckResult res = load_table(session, schema, index_name, n_dims, table);
  if (!res.ok) return res;
  res = Walker(*table, n_dims, stats).walk();
  if (!res.ok) return res;
  return find_unreached(*table);
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

CheckResult check_tree(zq_session* session, const char* schema, const char* index_name,
                       uint16_t n_dims, TreeStats* stats) {
  TreeStats local;
  Table table;
  return check_loaded(session, schema, index_name, n_dims, stats ? stats : &local, &table);
}

CheckResult check_search(zq_env* env, rtr_mem* rtr, const char* schema, const char* index_name) {
  TreeStats stats;
  Table table;
  CheckResult res = check_loaded(rtr->session, schema, index_name, rtr->n_dims, &stats, &table);
  if (!res.ok) return res;
  for (const Row& row : table.rows) {
    if (row.level != 0) continue;
    for (const rtr_cell& entry : row.cells) {
      res = search_entry(env, rtr, row.id, entry);
      if (!res.ok) return res;
    }
  }
  return {};
}

}  // namespace zqcheck
