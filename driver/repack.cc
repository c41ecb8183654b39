// An index rebuilt from its own entries by bulk load, each as one user
// operation: repack (from the tree, for a tree grown sparse by inserts) and
// repair (from whatever leaf rows still decode, for a damaged one).
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "driver/index.h"
#include "driver/internal.h"
#include "driver/leaf_map.h"
#include "zqrtree/node.h"
#include "zqrtree/phy.h"

namespace zq {

Status Index::repack(double fill, RebuildReport* report) const {
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  RebuildReport r;
  auto feed = [&](const std::function<Status(const Entry&)>& put) {
    Status inner;
    Status s = entries([&](const Entry& e) {
      ++r.kept;
      return (inner = put(e)).is_ok();
    });
    return s ? inner : s;
  };
  if (Status s = rebuild(fill, feed); !s) return s;
  if (Status s = op.commit(); !s) return s;
  if (report != nullptr) *report = r;
  return Status::ok();
}

namespace {

// One leaf entry found in a node row, and the row.
struct Found {
  Entry entry;
  int64_t leaf;
};

// The entries of a leaf row's cells blob, if it is one a `dims`-axis index
// wrote: the length must fit the count and the count a node.
bool leaf_entries(const uint8_t* blob, size_t len, int dims, int64_t leaf,
                  std::vector<Found>* out) {
  uint32_t n = 0;
  if (len < 4) return false;
  std::memcpy(&n, blob, 4);
  const size_t stride = 8 * (2 * static_cast<size_t>(dims) + 1);
  if (n > RTR_MAX_CELLS || len != 4 + n * stride) return false;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t* p = blob + 4 + i * stride;
    Found f{Entry{}, leaf};
    std::memcpy(&f.entry.id, p, 8);
    for (int k = 0; k < dims; ++k) {
      std::memcpy(&f.entry.box.min[k], p + 8 + 8 * k, 8);
      std::memcpy(&f.entry.box.max[k], p + 8 + 8 * (dims + k), 8);
    }
    out->push_back(f);
  }
  return true;
}

}  // namespace

Status Index::repair(RebuildReport* report) const {
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  RebuildReport r;
  // Every row that says it is a leaf, reachable from the root or not: the
  // tree above the leaves may be what is damaged.
  std::vector<Found> found;
  detail::Stmt rows(db_->db(), "SELECT rowid, level, cells FROM " +
                                   detail::qualified(schema_, node_table()) + " ORDER BY rowid");
  if (!rows.ok()) return detail::sql_failure(db_->db(), "reading " + node_table());
  int rc;
  while ((rc = rows.step()) == SQLITE_ROW) {
    sqlite3_stmt* st = rows.get();
    if (sqlite3_column_type(st, 1) != SQLITE_INTEGER || sqlite3_column_int64(st, 1) != 0) continue;
    const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(st, 2));
    const size_t len = static_cast<size_t>(sqlite3_column_bytes(st, 2));
    if (sqlite3_column_type(st, 2) != SQLITE_BLOB ||
        !leaf_entries(blob, len, dims_, rows.int64(0), &found))
      ++r.damaged_rows;
    else
      ++r.leaf_rows;
  }
  if (rc != SQLITE_DONE) return detail::sql_failure(db_->db(), "reading " + node_table());
  // A rowid in two leaves keeps the one the rowid table names, else the first.
  std::vector<std::pair<int64_t, int64_t>> named;
  detail::LeafMap* map = leaf_map();
  const bool listed = map != nullptr && map->pairs(&named).is_ok();
  std::unordered_map<int64_t, int64_t> named_leaf(named.begin(), named.end());
  std::stable_sort(found.begin(), found.end(),
                   [](const Found& a, const Found& b) { return a.entry.id < b.entry.id; });
  std::vector<Entry> keep;
  for (size_t i = 0; i < found.size();) {
    size_t j = i, pick = i;
    for (; j < found.size() && found[j].entry.id == found[i].entry.id; ++j) {
      auto it = named_leaf.find(found[j].entry.id);
      if (it != named_leaf.end() && it->second == found[j].leaf) pick = j;
    }
    r.duplicates += j - i - 1;
    if (listed && named_leaf.erase(found[i].entry.id) == 0)
      ++r.unlisted;
    else if (box_problem(found[pick].entry.box, dims_).empty())
      keep.push_back(found[pick].entry);
    else
      ++r.bad_boxes;
    i = j;
  }
  r.kept = keep.size();
  r.lost = named_leaf.size();
  auto feed = [&](const std::function<Status(const Entry&)>& put) {
    for (const Entry& e : keep)
      if (Status s = put(e); !s) return s;
    return Status::ok();
  };
  if (Status s = rebuild(kDefaultFill, feed); !s) return s;
  if (Status s = op.commit(); !s) return s;
  if (report != nullptr) *report = r;
  return Status::ok();
}

}  // namespace zq
