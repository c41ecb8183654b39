// The node-row guard: the engine side's rules for every row of a node table
// the host hands to the library, installed as the host's row check of that
// table when an index is opened or created. The library decodes rows
// without looking (intended), so a damaged row is refused here, before it
// becomes a node: the operation then fails through the normal error path
// with the host's refusal code, and the reason names the index and the node.
//
// Two kinds of rules:
//   - what a row keeps by itself (check/node_row.h), plus that its parent_id
//     is not its own id (and 0 for the root) and, for a branch, that no entry
//     names the root or the node itself;
//   - what the rows read since the table last changed must agree on: a node
//     is held by one branch entry only, its parent_id names that branch (a
//     parent read before must hold it), and its level is one below the
//     branch's and below the root's. Rows read to be overwritten (inside a
//     write mini-transaction) are left out: they may be older than the
//     copies the library holds.
// The second kind is what bounds every traversal: among the rows a handle
// reads, holders form a tree under the root with levels falling by one, so
// neither a cursor's descent nor a walk up the parent links can meet a node
// twice, and no level goes past what the cursor's stack holds. Reading the
// root row starts the record afresh, as every new handle does.
//
// Call order: guard_node_table (Index::open / create) -> the host calls
// check_row for every row it hands out -> the refusal's reason is read back
// by engine_failure through zqhost_last_refusal.
#include "driver/node_guard.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "check/node_row.h"
#include "host/host.h"
#include "zqrtree/errors.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

namespace zq {

namespace {

constexpr uint32_t kLevelCol = 0;
constexpr uint32_t kParentCol = 1;
constexpr uint32_t kCellsCol = 2;

// What the record knows of one node id since it last started afresh: its
// own row, if read, and the branch row naming it, if one was read.
struct NodeFacts {
  int64_t id;
  uint64_t generation;  // the record's generation when filled in; an older one is empty
  int64_t parent;       // read: its parent_id
  int64_t holder;       // held: the branch whose entry names it
  uint32_t level;       // read: its level
  uint32_t holder_level;
  uint64_t named_in;  // the row read that named it last, to see a repeat within one row
  bool read;
  bool held;
};

// Open addressing by node id, emptied in one step by moving to the next
// generation: every node read costs a few probes and no allocation.
class NodeTable {
 public:
  void clear() {
    ++generation_;
    size_ = 0;
  }
  // Room for `more` new ids, so the slots handed out stay put meanwhile.
  void reserve(size_t more) {
    if ((size_ + more) * 2 <= slots_.size()) return;
    // A power of two, so a probe can wrap with a mask.
    std::vector<NodeFacts> old(std::bit_ceil(std::max<size_t>(256, (size_ + more) * 4)));
    old.swap(slots_);
    size_ = 0;
    for (const NodeFacts& f : old)
      if (f.generation == generation_) *slot(f.id) = f;
  }
  // The facts of `id`, new and empty when it was not met yet.
  NodeFacts* slot(int64_t id) {
    NodeFacts* f = probe(id);
    if (f->generation != generation_) {
      *f = NodeFacts{id, generation_, 0, 0, 0, 0, 0, false, false};
      ++size_;
    }
    return f;
  }
  // The facts of `id`, or null when it was not met yet.
  const NodeFacts* find(int64_t id) {
    if (slots_.empty()) return nullptr;
    const NodeFacts* f = probe(id);
    return f->generation == generation_ ? f : nullptr;
  }

 private:
  // The slot of `id`, or the empty one where it would go.
  NodeFacts* probe(int64_t id) {
    const size_t mask = slots_.size() - 1;
    const uint64_t h = static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ull;
    for (size_t i = (h ^ (h >> 29)) & mask;; i = (i + 1) & mask) {
      NodeFacts& f = slots_[i];
      if (f.generation != generation_ || f.id == id) return &f;
    }
  }

  std::vector<NodeFacts> slots_;
  size_t size_ = 0;
  uint64_t generation_ = 1;
};

class NodeGuard {
 public:
  NodeGuard(std::string index, uint16_t dims) : index_(std::move(index)), dims_(dims) {}

  // "" when the row may be handed out, else what is wrong with it.
  std::string problem(const zq_row_view& row) {
    if (row.n_cols <= kCellsCol) return "the node table has too few columns";
    const zq_col_view& level = row.cols[kLevelCol];
    const zq_col_view& cells = row.cols[kCellsCol];
    const zqcheck::NodeRowImage image{level.type, level.i,     row.cols[kParentCol].type,
                                      cells.type, cells.bytes, cells.len};
    uint32_t n = 0;
    if (std::string p = zqcheck::node_row_problem(image, dims_, &n); !p.empty()) return p;
    children_.clear();
    if (level.i > 0) {
      // A 3-D index also reads rows written with 2-D entries.
      const uint32_t axes = dims_ == 3 && cells.len == 4 + n * 40 ? 2 : dims_;
      if (std::string p = collect_children(row.rowid, cells.bytes, n, axes); !p.empty()) return p;
    }
    // A walk up the parents from a node that names itself would not end.
    const int64_t parent = row.cols[kParentCol].i;
    if (row.rowid == RTR_ROOT_ID && parent != 0)
      return "the root's parent_id is " + std::to_string(parent) + ", not 0";
    if (parent == row.rowid) return "parent_id names the node itself";
    if (row.for_write) return {};
    std::string p =
        agrees(row.rowid, static_cast<uint32_t>(level.i), row.cols[kParentCol].i, row.epoch);
    // A refused row fails its operation; the next starts the record afresh.
    if (!p.empty()) epoch_ = 0;
    return p;
  }

  const std::string& index() const { return index_; }
  uint16_t dims() const { return dims_; }

 private:
  // A branch's child ids, refusing those no sound tree has.
  std::string collect_children(int64_t id, const uint8_t* cells, uint32_t n, uint32_t axes) {
    const size_t entry = (size_t{axes} * 2 + 1) * 8;
    for (uint32_t i = 0; i < n; ++i) {
      int64_t child;
      std::memcpy(&child, cells + 4 + i * entry, sizeof child);
      if (child == RTR_ROOT_ID || child == id)
        return "entry " + std::to_string(i) + " names node " + std::to_string(child) +
               (child == id ? ", the node itself" : ", the root");
      children_.push_back(child);
    }
    return {};
  }

  std::string agrees(int64_t id, uint32_t level, int64_t parent, uint64_t epoch) {
    if (epoch != epoch_ || id == RTR_ROOT_ID) {
      epoch_ = epoch;
      root_level_ = -1;
      nodes_.clear();
    }
    if (id == RTR_ROOT_ID) {
      root_level_ = level;
    } else if (root_level_ >= 0 && int64_t{level} >= root_level_) {
      return "level " + std::to_string(level) + " is not below the root's level " +
             std::to_string(root_level_);
    }
    nodes_.reserve(children_.size() + 1);
    NodeFacts* self = nodes_.slot(id);
    if (self->held && parent != self->holder)
      return "parent_id is " + std::to_string(parent) + " but node " +
             std::to_string(self->holder) + " holds its entry";
    if (self->held && level + 1 != self->holder_level)
      return "level " + std::to_string(level) + " under node " + std::to_string(self->holder) +
             " of level " + std::to_string(self->holder_level);
    // Reached up from below, a parent read before must hold the node too.
    if (const NodeFacts* above = nodes_.find(parent);
        id != RTR_ROOT_ID && above != nullptr && above->read && !self->held)
      return "parent_id names node " + std::to_string(parent) + ", which does not hold it";
    self->read = true;
    self->level = level;
    self->parent = parent;
    ++rows_read_;
    for (size_t i = 0; i < children_.size(); ++i) {
      NodeFacts* child = nodes_.slot(children_[i]);
      if (child->held && child->named_in == rows_read_)
        return "entry " + std::to_string(i) + " names node " + std::to_string(child->id) +
               " a second time";
      if (child->held && child->holder != id)
        return "entry " + std::to_string(i) + " names node " + std::to_string(child->id) +
               ", which node " + std::to_string(child->holder) + " holds";
      if (child->read && (child->parent != id || child->level + 1 != level))
        return "entry " + std::to_string(i) + " names node " + std::to_string(child->id) +
               " of level " + std::to_string(child->level) + " whose parent_id is " +
               std::to_string(child->parent);
      child->held = true;
      child->holder = id;
      child->holder_level = level;
      child->named_in = rows_read_;
    }
    return {};
  }

  std::string index_;
  uint16_t dims_;
  uint64_t epoch_ = 0;
  int64_t root_level_ = -1;        // node 1's, once read in this epoch
  uint64_t rows_read_ = 0;         // rows read so far: each row's own mark
  NodeTable nodes_;                // what the rows read in this epoch say
  std::vector<int64_t> children_;  // the row at hand's entries, when a branch
};

int check_row(void* ctx, const zq_row_view* row, char* why, size_t cap) {
  auto* guard = static_cast<NodeGuard*>(ctx);
  std::string problem;
  try {
    problem = guard->problem(*row);
  } catch (const std::bad_alloc&) {
    problem = "no memory to check it";
  }
  if (problem.empty()) return 0;
  std::snprintf(why, cap, "node %" PRId64 " of index '%s' is damaged: %s", row->rowid,
                guard->index().c_str(), problem.c_str());
  return 1;
}

void free_guard(void* ctx) {
  delete static_cast<NodeGuard*>(ctx);
}

}  // namespace

int32_t guard_node_table(zq_session* session, const std::string& schema,
                         const std::string& index_name, int dims) {
  const std::string table = RTR_NODE_TABLE_PREFIX + index_name;
  // An index dropped and made again under its name may have other axes.
  const auto* installed = static_cast<const NodeGuard*>(
      zqsess_row_check_ctx(session, schema.c_str(), table.c_str(), check_row));
  if (installed != nullptr && installed->dims() == dims) return 0;
  auto* guard = new (std::nothrow) NodeGuard(index_name, static_cast<uint16_t>(dims));
  if (guard == nullptr) return RTR_ERR_NO_ROOM;
  return zqsess_set_row_check(session, schema.c_str(), table.c_str(), check_row, guard, free_guard);
}

}  // namespace zq
