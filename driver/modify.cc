// Insertion and deletion of entries, each call one user operation: input
// checked first, then one writing handle for the whole batch, one flush, the
// rowid table brought up to date, commit — or rollback of everything.
#include <sqlite3.h>

#include <string>
#include <unordered_set>

#include "driver/index.h"
#include "driver/internal.h"
#include "zqrtree/tree.h"

namespace zq {

namespace {

std::string entry_where(size_t i, size_t n, int64_t id) {
  if (n == 1) return "rowid " + std::to_string(id);
  return "entry " + std::to_string(i + 1) + " (rowid " + std::to_string(id) + ")";
}

// Everything that can be wrong with the entries themselves, before any write.
Status check_new_entries(const Index& index, std::span<const Entry> entries) {
  std::unordered_set<int64_t> seen;
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    const std::string where = entry_where(i, entries.size(), e.id);
    if (std::string p = box_problem(e.box, index.dims()); !p.empty())
      return Status::invalid(where + ": " + p);
    if (!seen.insert(e.id).second)
      return Status::invalid(where + ": duplicate rowid " + std::to_string(e.id) + " in the input");
    Box stored;
    Status found = index.lookup(e.id, &stored);
    if (found)
      return Status::invalid(where + ": duplicate rowid " + std::to_string(e.id) +
                             " (already in index '" + index.name() + "')");
    if (found.kind() != Status::Kind::kNotFound) return found;
  }
  return Status::ok();
}

}  // namespace

Status Index::insert(const Entry& entry) {
  return insert(std::span<const Entry>(&entry, 1));
}

Status Index::insert(std::span<const Entry> entries, const Progress& progress) {
  if (Status s = check_new_entries(*this, entries); !s) return s;
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  detail::Handle handle(*this, detail::Handle::Mode::kWrite);
  if (!handle.created()) return handle.created();
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    const std::string where = entry_where(i, entries.size(), e.id);
    const rtr_cell cell{e.id, to_rect(e.box)};
    const int32_t rc = rtr_insert(db_->env(), handle.get(), &cell);
    if (rc < 0) return detail::engine_failure(*db_, rc, "inserting " + where);
    if (progress && (i + 1) % 1000 == 0) progress("inserting", i + 1, entries.size());
  }
  if (Status s = handle.flush(); !s) return s;
  if (progress) progress("inserting", entries.size(), entries.size());
  return op.commit();
}

Status Index::remove(int64_t id, const Box& box) {
  if (std::string p = box_problem(box, dims_); !p.empty())
    return Status::invalid("rowid " + std::to_string(id) + ": " + p);
  Box stored;
  if (Status s = lookup(id, &stored); !s) return s;
  if (!(stored == box))
    return Status::invalid("rowid " + std::to_string(id) + ": box " +
                           detail::describe_box(box, dims_) + " is not its stored box " +
                           detail::describe_box(stored, dims_));
  return remove(id);
}

Status Index::remove(int64_t id) {
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  Box stored;
  if (Status s = lookup(id, &stored); !s) return s;
  detail::Handle handle(*this, detail::Handle::Mode::kWrite);
  if (!handle.created()) return handle.created();
  const rtr_rect rect = to_rect(stored);
  const int32_t rc = rtr_delete_by_rowid(db_->env(), handle.get(), id, &rect);
  if (rc < 0) return detail::engine_failure(*db_, rc, "deleting rowid " + std::to_string(id));
  if (Status s = handle.flush(); !s) return s;
  return op.commit();
}

}  // namespace zq
