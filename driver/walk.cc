// Whole-tree reads: a walk over every node reachable from the root (through
// the library's node cache, pins dropped at once), every entry, the rowid
// table held against the leaves, and the library's debug print, which is
// only safe on a tree whose nodes can all be read — so it walks first.
#include <algorithm>
#include <cstdio>
#include <unordered_set>
#include <vector>

#include "driver/index.h"
#include "driver/internal.h"
#include "driver/leaf_map.h"
#include "zqrtree/cursor.h"
#include "zqrtree/node.h"

namespace zq {

namespace {

struct Pending {
  int64_t id;
  uint32_t depth;
};

}  // namespace

Status detail::walk_tree(const Index& index, rtr_mem* rtr,
                         const std::function<void(const NodeView&)>& visit) {
  Database& db = *index.database();
  std::vector<Pending> todo{{RTR_ROOT_ID, 0}};
  std::unordered_set<int64_t> seen;
  std::vector<rtr_cell> cells;
  while (!todo.empty()) {
    const Pending p = todo.back();
    todo.pop_back();
    // A damaged tree could name a node twice; stop rather than loop.
    if (!seen.insert(p.id).second)
      return Status::engine(RTR_ERR_NOT_FOUND,
                            "node " + std::to_string(p.id) + " is reached twice from the root");
    rtr_node* node = nullptr;
    const int32_t rc = rtr_node_acquire(db.env(), rtr, p.id, &node);
    if (rc < 0) return detail::engine_failure(db, rc, "reading node " + std::to_string(p.id));
    cells.assign(node->cells, node->cells + node->n_cells);
    const NodeView view{node->id, node->parent_id, node->level, p.depth, cells};
    rtr_node_release(node);
    visit(view);
    if (view.level == 0) continue;
    for (size_t i = cells.size(); i-- > 0;) todo.push_back({cells[i].id, p.depth + 1});
  }
  return Status::ok();
}

Status Index::walk(const std::function<void(const NodeView&)>& visit) const {
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  // A walk reads every node once: a buffer of them would only hold memory.
  const BufferCap cap(*db_, 1);
  detail::Handle handle(*this, detail::Handle::Mode::kRead);
  if (!handle.created()) return handle.created();
  if (Status s = detail::walk_tree(*this, handle.get(), visit); !s) return s;
  return txn.commit();
}

Status Index::print() const {
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  detail::Handle handle(*this, detail::Handle::Mode::kRead);
  if (!handle.created()) return handle.created();
  if (Status s = detail::walk_tree(*this, handle.get(), [](const NodeView&) {}); !s) return s;
  std::fflush(stdout);
  // Every node the print visits stays pinned until the handle is destroyed.
  rtr_print(db_->env(), nullptr, RTR_ROOT_ID, 0, handle.get());
  std::fflush(stdout);
  return txn.commit();
}

Status Index::with_read_handle(const std::function<Status(rtr_mem*)>& fn) const {
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  detail::Handle handle(*this, detail::Handle::Mode::kRead);
  if (!handle.created()) return handle.created();
  if (Status s = fn(handle.get()); !s) return s;
  return txn.commit();
}

Status Index::entries(const std::function<bool(const Entry&)>& visit, rtr_mem* borrowed) const {
  bool more = true;
  auto leaves = [&](const NodeView& node) {
    if (node.level != 0) return;
    for (size_t i = 0; more && i < node.cells.size(); ++i)
      more = visit(Entry{node.cells[i].id, from_rect(node.cells[i].rect, dims_)});
  };
  return borrowed != nullptr ? detail::walk_tree(*this, borrowed, leaves) : walk(leaves);
}

namespace {

struct Placed {
  int64_t id;
  int64_t leaf;
  bool operator<(const Placed& o) const { return id < o.id || (id == o.id && leaf < o.leaf); }
};

std::string first_difference(std::vector<Placed>& tree, std::vector<Placed>& table) {
  std::sort(tree.begin(), tree.end());
  size_t i = 0, j = 0;
  while (i < tree.size() || j < table.size()) {
    if (i + 1 < tree.size() && tree[i].id == tree[i + 1].id)
      return "rowid " + std::to_string(tree[i].id) + " is in the tree more than once";
    if (j == table.size() || (i < tree.size() && tree[i].id < table[j].id))
      return "rowid " + std::to_string(tree[i].id) + " is in the tree but not in the rowid table";
    if (i == tree.size() || table[j].id < tree[i].id)
      return "rowid " + std::to_string(table[j].id) + " is in the rowid table but not in the tree";
    if (tree[i].leaf != table[j].leaf)
      return "rowid " + std::to_string(table[j].id) + " is in node " +
             std::to_string(tree[i].leaf) + " but the rowid table says node " +
             std::to_string(table[j].leaf);
    ++i;
    ++j;
  }
  return "";
}

}  // namespace

Status Index::verify_rowids(std::string* problem, rtr_mem* borrowed) const {
  std::vector<Placed> tree, table;
  auto leaves = [&](const NodeView& node) {
    if (node.level != 0) return;
    for (const rtr_cell& c : node.cells) tree.push_back(Placed{c.id, node.id});
  };
  Status s = borrowed != nullptr ? detail::walk_tree(*this, borrowed, leaves) : walk(leaves);
  if (!s) return s;
  detail::LeafMap* map = leaf_map();
  if (map == nullptr) return Status::not_found("index '" + name_ + "' has no rowid table");
  std::vector<std::pair<int64_t, int64_t>> held;
  if (s = map->pairs(&held); !s) return s;
  for (const auto& [id, leaf] : held) table.push_back(Placed{id, leaf});
  if (map->has_moves()) {
    // The table as it will be once the moves are applied.
    std::vector<Placed> moved;
    for (const auto& [id, leaf] : map->settled())
      if (leaf != detail::LeafMap::kAsTable) moved.push_back(Placed{id, leaf});
    std::erase_if(table, [&](const Placed& p) {
      return std::binary_search(moved.begin(), moved.end(), p,
                                [](const Placed& a, const Placed& b) { return a.id < b.id; });
    });
    for (const Placed& p : moved)
      if (p.leaf != 0) table.push_back(p);
    std::sort(table.begin(), table.end());
  }
  *problem = first_difference(tree, table);
  return Status::ok();
}

}  // namespace zq
