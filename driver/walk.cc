// Whole-tree reads for diagnosis: a walk over every node reachable from the
// root (through the library's node cache, pins dropped at once), and the
// library's debug print, which is only safe on a tree whose nodes can all be
// read — so it walks first.
#include <algorithm>
#include <cstdio>
#include <unordered_set>
#include <vector>

#include "driver/index.h"
#include "driver/internal.h"
#include "zqrtree/cursor.h"
#include "zqrtree/node.h"

namespace zq {

namespace {

struct Pending {
  int64_t id;
  uint32_t depth;
};

Status walk_with(const Index& index, rtr_mem* rtr,
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

}  // namespace

Status Index::walk(const std::function<void(const NodeView&)>& visit) const {
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  detail::Handle handle(*this, detail::Handle::Mode::kRead);
  if (!handle.created()) return handle.created();
  if (Status s = walk_with(*this, handle.get(), visit); !s) return s;
  return txn.commit();
}

Status Index::print() const {
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  detail::Handle handle(*this, detail::Handle::Mode::kRead);
  if (!handle.created()) return handle.created();
  if (Status s = walk_with(*this, handle.get(), [](const NodeView&) {}); !s) return s;
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

namespace {

std::string first_difference(std::vector<Entry>& tree, const std::vector<Entry>& base, int dims) {
  std::sort(tree.begin(), tree.end(), [](const Entry& a, const Entry& b) { return a.id < b.id; });
  size_t i = 0, j = 0;
  while (i < tree.size() || j < base.size()) {
    if (i + 1 < tree.size() && tree[i].id == tree[i + 1].id)
      return "rowid " + std::to_string(tree[i].id) + " is in the tree more than once";
    if (j == base.size() || (i < tree.size() && tree[i].id < base[j].id))
      return "rowid " + std::to_string(tree[i].id) + " is in the tree but not in the base table";
    if (i == tree.size() || base[j].id < tree[i].id)
      return "rowid " + std::to_string(base[j].id) + " is in the base table but not in the tree";
    if (!(tree[i].box == base[j].box))
      return "rowid " + std::to_string(base[j].id) + " has box " +
             detail::describe_box(tree[i].box, dims) + " in the tree but " +
             detail::describe_box(base[j].box, dims) + " in the base table";
    ++i;
    ++j;
  }
  return "";
}

}  // namespace

Status Index::verify_base(std::string* problem) const {
  std::vector<Entry> tree, base;
  Status s = walk([&](const NodeView& node) {
    if (node.level != 0) return;
    for (const rtr_cell& c : node.cells) tree.push_back(Entry{c.id, from_rect(c.rect, dims_)});
  });
  if (!s) return s;
  s = scan_base([&](const Entry& e) {
    base.push_back(e);
    return true;
  });
  if (!s) return s;
  *problem = first_difference(tree, base, dims_);
  return Status::ok();
}

}  // namespace zq
