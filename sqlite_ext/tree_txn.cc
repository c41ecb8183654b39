// Handles kept across rows and statements: the transaction's writing handle
// with its change list, and the connection's reading handle.
#include "sqlite_ext/tree_txn.h"

#include <algorithm>
#include <functional>
#include <new>
#include <optional>
#include <string>

#include "driver/leaf_map.h"
#include "host/host.h"
#include "sqlite_ext/handle.h"
#include "zqrtree/tree.h"

namespace zqext {

namespace {

// Decoded nodes a handle keeps, in MB. SQLite's page cache holds the node
// rows anyway, so a reading handle keeps few: windows on a 1M-entry tree ran
// a little faster with 4 MB than with 16 (less fresh memory to fault in),
// 0.01% windows on a 100k one a tenth slower. A writing handle keeps the
// session's share (64 MB by default) when the changes it takes are mostly
// inserts, which come back to the same leaves: 100k inserts spread over a
// 1M-entry tree took 1.67 s with 16 MB and 1.22 s with 64. Deletes seldom
// meet the same leaf twice, so a dirty leaf let go costs little more than
// its write, which the commit makes anyway: 20,000 deletes from 1M entries
// took 5% longer with 8 MB than with 64, in 38 MB less memory.
constexpr uint32_t kReadBufMb = 4;
constexpr uint32_t kDeleteBufMb = 8;

// `cap_mb` 0: the session's share.
HandleRef create_handle(const zq::Index& index, uint32_t read_mode, uint32_t cap_mb,
                        zq::Status* status) {
  zq::Database& db = *index.database();
  zq_scope* scope = zqsess_scope(db.session(), index.schema().c_str());
  // The library reads only the name, to find "MDRT$" + name.
  const zq_index object{index.name().c_str(), nullptr, nullptr, nullptr};
  rtr_mem* rtr = nullptr;
  std::optional<zq::BufferCap> cap;
  if (cap_mb != 0) cap.emplace(db, cap_mb);
  const int32_t rc = rtr_mem_create(db.env(), db.session(), static_cast<uint16_t>(index.dims()),
                                    scope, &object, read_mode, &rtr);
  if (rc < 0) {
    *status = engine_failure(db, rc, "opening index '" + index.name() + "'");
    return nullptr;
  }
  zq_env* env = db.env();
  return HandleRef(rtr, [env](rtr_mem* r) { rtr_mem_destroy(env, r); });
}

}  // namespace

// ---- TreeTxn ----

void TreeTxn::track(bool on) {
  if (tracking_ == on) return;
  const int32_t rc = zqsess_undo_track(db().session(), index_->schema().c_str(),
                                       index_->node_table().c_str(), on ? 1 : 0);
  tracking_ = on && rc == 0;
}

zq::Status TreeTxn::apply(const ListedChange& op) {
  const rtr_rect rect = zq::to_rect(op.entry.box);
  int32_t rc;
  if (op.insert) {
    const rtr_cell cell{op.entry.id, rect};
    rc = rtr_insert(db().env(), rtr_.get(), &cell);
  } else {
    rc = rtr_delete_by_rowid(db().env(), rtr_.get(), op.entry.id, &rect);
  }
  if (rc >= 0) return zq::Status::ok();
  return engine_failure(
      db(), rc, (op.insert ? "inserting rowid " : "deleting rowid ") + std::to_string(op.entry.id));
}

zq::Status TreeTxn::ready(bool undoable) {
  if (rtr_ != nullptr && applied_ == ops_.size()) return zq::Status::ok();
  track(undoable);
  if (rtr_ == nullptr) {
    if (undoable && !tracking_) return zq::Status::io("no memory to track the node table's rows");
    zq::Status s;
    size_t inserts = 0;
    for (size_t i = written_; i < ops_.size(); ++i) inserts += ops_.is_insert(i) ? 1 : 0;
    const bool mostly_deletes = 2 * inserts < ops_.size() - written_;
    rtr_ = create_handle(*index_, 0, mostly_deletes ? kDeleteBufMb : 0, &s);
    if (rtr_ == nullptr) return s;
    applied_ = written_;
  }
  // After a take-back the node table is as where the list starts, and the
  // list is what must be in the tree again.
  while (applied_ < ops_.size()) {
    if (zq::Status s = apply(ops_.at(applied_)); !s) {
      // The list stays whole: the next use tries again, and a commit that
      // cannot rebuild it fails and rolls everything back.
      revert(ops_.size());
      return s;
    }
    ++applied_;
  }
  return zq::Status::ok();
}

void TreeTxn::push(bool insert, const zq::Entry& entry) {
  if (ops_.empty()) ops_ = ChangeList(index_->dims());
  ops_.push(insert, entry);
  try {
    last_.put(entry.id, static_cast<uint32_t>(ops_.size() - 1), ops_);
  } catch (const std::bad_alloc&) {
    ops_.shorten(ops_.size() - 1);
    throw;
  }
  if (insert) top_ = std::max(top_, entry.id);
}

void TreeTxn::shorten(size_t length) {
  if (length >= ops_.size()) return;
  ops_.shorten(length);
  // A rowid whose last change went may have an earlier one that stays. The
  // index keeps its size, so putting fewer rowids back never allocates.
  last_.clear();
  top_ = INT64_MIN;
  for (size_t i = 0; i < ops_.size(); ++i) {
    const ListedChange op = ops_.at(i);
    last_.put(op.entry.id, static_cast<uint32_t>(i), ops_);
    if (op.insert) top_ = std::max(top_, op.entry.id);
  }
}

int TreeTxn::changed(int64_t id, zq::Entry* entry) const {
  const int64_t at = last_.find(id, ops_);
  if (at < 0) return -1;
  const ListedChange op = ops_.at(static_cast<size_t>(at));
  if (op.insert) *entry = op.entry;
  return op.insert ? 1 : 0;
}

void TreeTxn::forget_moves() {
  if (zq::detail::LeafMap* map = index_->leaf_map()) map->forget();
}

zq::Status TreeTxn::change(const zq::Entry* old_entry, const zq::Entry* new_entry) {
  const size_t before = ops_.size();
  try {
    if (old_entry != nullptr) push(false, *old_entry);
    if (new_entry != nullptr) push(true, *new_entry);
  } catch (const std::bad_alloc&) {
    shorten(before);
    return zq::Status::io("no memory to list the change");
  }
  return zq::Status::ok();
}

zq::Status TreeTxn::revert(size_t length) {
  // A handle that failed part way holds a half-made change: it goes, and the
  // rows it wrote go back, to where the list starts (the transaction's start,
  // or the last trim).
  int32_t rc = 0;
  if (tracking_)
    rc =
        zqsess_undo_restore(db().session(), index_->schema().c_str(), index_->node_table().c_str());
  rtr_.reset();
  applied_ = 0;
  written_ = 0;
  forget_moves();
  shorten(length);
  if (rc < 0) return engine_failure(db(), rc, "restoring the node table");
  return zq::Status::ok();
}

HandleRef TreeTxn::handle(zq::Status* status) {
  *status = zq::Status::ok();
  if (!active()) return nullptr;
  *status = ready();
  return status->is_ok() ? rtr_ : nullptr;
}

zq::Status TreeTxn::checkpoint() {
  if (rtr_ == nullptr && written_ == ops_.size()) return zq::Status::ok();
  if (zq::Status s = ready(); !s) return s;
  const int32_t rc = rtr_flush_all(db().env(), rtr_.get());
  rtr_.reset();
  if (rc < 0) {
    zq::Status s = engine_failure(db(), rc, "writing back the changed nodes");
    revert(ops_.size());  // the next use rebuilds from the transaction's start
    return s;
  }
  written_ = ops_.size();
  return zq::Status::ok();
}

zq::Status TreeTxn::trim() {
  if (ops_.size() < kTrimAt || !marks_.empty()) return zq::Status::ok();
  if (zq::Status s = checkpoint(); !s) return s;
  // No savepoint reaches back past this point and SQLite rolls a whole
  // transaction back itself, so what was written is the new starting point.
  if (zq::detail::LeafMap* map = index_->leaf_map())
    if (zq::Status s = map->apply(); !s) return s;
  track(false);
  ops_.clear();
  last_.release();
  top_ = INT64_MIN;
  written_ = 0;
  applied_ = 0;
  return zq::Status::ok();
}

// Rebuilding costs about what inserting an eighth as many entries does, and
// packs the tree: it pays once the changes reach a quarter of the index.
bool TreeTxn::worth_rebuilding(zq::Status* status) const {
  constexpr size_t kFewest = 64;
  const size_t waiting = ops_.size() - written_;
  if (waiting < kFewest) return false;
  zq::detail::LeafMap* map = index_->leaf_map();
  uint64_t entries = 0;
  if (map != nullptr) *status = map->bound(&entries);
  return map != nullptr && *status && waiting >= entries / 4;
}

// The tree as the transaction found it (as far as the handle has taken the
// changes, what it holds), less every rowid the transaction changed, plus
// their entries now.
zq::Status TreeTxn::rebuild() {
  zq::Status s;
  HandleRef reader = rtr_ != nullptr ? rtr_ : create_handle(*index_, 1, kReadBufMb, &s);
  if (reader == nullptr) return s;
  auto feed = [&](const std::function<zq::Status(const zq::Entry&)>& put) {
    zq::Status inner;
    zq::Status walked = index_->entries(
        [&](const zq::Entry& e) { return last_.find(e.id, ops_) >= 0 || (inner = put(e)).is_ok(); },
        reader.get());
    if (!walked) return walked;
    if (!inner) return inner;
    // Which changes are their rowid's last, as a bit each; then the index
    // goes, and the list is consumed as it is fed, so that neither is held
    // with the sorter's memory: a failed rebuild fails the commit, which
    // rolls the whole transaction back.
    std::vector<bool> last(ops_.size());
    last_.each([&](size_t at) { last[at] = true; });
    last_.release();
    for (size_t at = 0; !ops_.empty(); ++at, ops_.pop_front()) {
      const ListedChange op = ops_.at(0);
      if (op.insert && last[at])
        if (zq::Status fed = put(op.entry); !fed) return fed;
    }
    return zq::Status::ok();
  };
  s = index_->rebuild(zq::kDefaultFill, feed);
  rtr_.reset();
  return s;
}

zq::Status TreeTxn::flush() {
  if (!active()) return zq::Status::ok();
  // A failed flush fails the commit, and SQLite then rolls the whole
  // transaction back: its writes need no tracking.
  zq::Status s;
  if (worth_rebuilding(&s)) {
    track(false);
    s = rebuild();
  } else if (s) {
    // Evicted nodes are written as the changes go in: untracked too.
    s = ready(false);
    if (s && rtr_ != nullptr && applied_ > written_) {
      const int32_t rc = rtr_flush_all(db().env(), rtr_.get());
      if (rc < 0) s = engine_failure(db(), rc, "writing back the changed nodes");
    }
  }
  if (zq::detail::LeafMap* map = index_->leaf_map(); s && map != nullptr) s = map->apply();
  forget_moves();  // a rebuild may have consumed the list, which active() looks at
  discard();
  return s;
}

void TreeTxn::discard() {
  if (active()) forget_moves();
  rtr_.reset();
  applied_ = 0;
  written_ = 0;
  track(false);
  ops_.clear();
  last_.release();
  top_ = INT64_MIN;
  marks_.clear();
}

void TreeTxn::savepoint(int n) {
  release(n);
  marks_.push_back(Mark{n, ops_.size()});
}

void TreeTxn::release(int n) {
  while (!marks_.empty() && marks_.back().n >= n) marks_.pop_back();
}

zq::Status TreeTxn::rollback_to(int n) {
  auto it = std::find_if(marks_.begin(), marks_.end(), [n](const Mark& m) { return m.n == n; });
  // No mark: the savepoint came before the table's first change.
  const size_t length = it == marks_.end() ? 0 : it->length;
  if (it != marks_.end()) marks_.erase(it + 1, marks_.end());
  // SQLite has put back the rows written since the savepoint; putting every
  // tracked image back as well takes the node table to the transaction's
  // start, whatever was written when.
  return revert(length);
}

// ---- ReadHandle ----

uint64_t ReadHandle::stamp(zq::Status* status) const {
  sqlite3* db = index_->database()->db();
  unsigned int version = 0;
  if (sqlite3_file_control(db, index_->schema().c_str(), SQLITE_FCNTL_DATA_VERSION, &version) !=
      SQLITE_OK)
    *status = zq::Status::io(std::string("reading the data version: ") + sqlite3_errmsg(db));
  return static_cast<uint64_t>(sqlite3_total_changes64(db)) << 32 ^ version;
}

HandleRef ReadHandle::get(zq::Status* status) {
  *status = zq::Status::ok();
  const uint64_t now = stamp(status);
  if (!*status) return nullptr;
  if (rtr_ != nullptr && now == stamp_) return rtr_;
  drop();
  rtr_ = create_handle(*index_, 1, kReadBufMb, status);
  stamp_ = now;
  return rtr_;
}

}  // namespace zqext
