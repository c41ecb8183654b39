/* The zqrtree SQLite extension: library handles that live as long as
 * SQLite's rules allow.
 *
 * Writes. SQLite calls xUpdate once per row; a handle per row would read,
 * decode, encode and write the upper levels of the tree again for every row.
 * A TreeTxn lists a transaction's changes as they come and keeps one
 * writing-mode handle that takes them when something needs the tree (a
 * search inside the transaction) or at commit, where xSync flushes it once.
 * A commit with at least a quarter as many changes as the index held builds
 * the tree afresh instead, by bulk load of the old entries and the new: far
 * quicker than inserting them one by one, and a packed tree besides. The
 * list is kept also because a failure or a rollback to a savepoint must be
 * taken back where SQLite allows no SAVEPOINT of ours (inside a running
 * statement):
 *   - node rows the handle writes before commit (an evicted dirty node, the
 *     row of a node a deletion removes) are tracked by the host's row undo;
 *   - taking back puts every tracked row back (the node table is then as at
 *     the transaction's start), drops the handle, shortens the change list,
 *     and the next use replays the list into a new handle.
 * Savepoints (SQLite's statement savepoints and the user's) mark a length of
 * the change list; a long list with no savepoint open is written out and
 * started afresh (trim()). The list also answers, for the rowids the
 * transaction changed, what they hold now; the index's rowid table (with the
 * leaf moves its handle's writes recorded) answers for all others, and gets
 * those moves when the handle is flushed at commit.
 *
 * Call order: change()* and handle() for reads, with savepoint(n),
 * release(n), rollback_to(n), checkpoint() in between -> flush() at xSync, or
 * discard() at xRollback. checkpoint() writes the changes so far into the
 * node table for code that reads it directly (the checker); the rows it
 * writes are tracked like any others, so a later take-back still works.
 *
 * Reads. A ReadHandle keeps one reading-mode handle, and the nodes in its
 * cache, across statements for as long as nothing may have changed the
 * database: it is dropped when the connection's change count or the
 * database's data version moves. */
#ifndef ZQ_SQLITE_EXT_TREE_TXN_H
#define ZQ_SQLITE_EXT_TREE_TXN_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "driver/index.h"
#include "sqlite_ext/change_list.h"

namespace zqext {

// A library handle shared by its keeper and the scans reading through it: a
// scan still open when the keeper lets go (a commit, a rollback) keeps it
// alive until the scan closes.
using HandleRef = std::shared_ptr<rtr_mem>;

class TreeTxn {
 public:
  explicit TreeTxn(const zq::Index* index) : index_(index) {}
  ~TreeTxn() { discard(); }
  TreeTxn(const TreeTxn&) = delete;
  TreeTxn& operator=(const TreeTxn&) = delete;

  // Lists the deletion of `old_entry` (when given) and the insertion of
  // `new_entry` (when given); the tree takes them when next needed.
  zq::Status change(const zq::Entry* old_entry, const zq::Entry* new_entry);
  // Takes back the changes after the first `length` of the list.
  zq::Status revert(size_t length);
  size_t length() const { return ops_.size(); }
  // What the transaction did last to `id`: 1 inserted (*entry gets it), 0
  // deleted, -1 nothing.
  int changed(int64_t id, zq::Entry* entry) const;
  // The largest rowid the transaction inserted (INT64_MIN: none).
  int64_t top_inserted() const { return top_; }
  bool active() const { return rtr_ != nullptr || !ops_.empty(); }
  // The handle holding the transaction's changes, for searches inside it;
  // null (with status ok) when the transaction has changed nothing.
  HandleRef handle(zq::Status* status);

  zq::Status flush();
  zq::Status checkpoint();
  // Bounds the list's memory in long transactions: past kTrimAt changes, and
  // with no savepoint open, the changes go to the node table and the list
  // starts afresh. Call between changes, before taking length().
  zq::Status trim();
  static constexpr size_t kTrimAt = size_t{1} << 20;
  void discard();
  void savepoint(int n);
  void release(int n);
  zq::Status rollback_to(int n);

 private:
  struct Mark {
    int n;
    size_t length;
  };
  // A handle holding every listed change; `undoable` keeps the images of the
  // rows it writes on the way, for a take-back to restore.
  zq::Status ready(bool undoable = true);
  bool worth_rebuilding(zq::Status* status) const;
  zq::Status rebuild();
  void push(bool insert, const zq::Entry& entry);
  void shorten(size_t length);
  void forget_moves();
  zq::Status apply(const ListedChange& op);
  void track(bool on);
  zq::Database& db() const { return *index_->database(); }

  const zq::Index* index_;  // the table's, refreshed in place
  HandleRef rtr_;
  bool tracking_ = false;
  size_t applied_ = 0;  // how many listed changes the node table and handle hold
  size_t written_ = 0;  // how many listed changes the node table holds
  ChangeList ops_{0};
  LastChange last_;
  int64_t top_ = INT64_MIN;
  std::vector<Mark> marks_;
};

class ReadHandle {
 public:
  explicit ReadHandle(const zq::Index* index) : index_(index) {}
  ReadHandle(const ReadHandle&) = delete;
  ReadHandle& operator=(const ReadHandle&) = delete;

  // The kept handle when still valid, else a new one.
  HandleRef get(zq::Status* status);
  void drop() { rtr_.reset(); }

 private:
  uint64_t stamp(zq::Status* status) const;
  const zq::Index* index_;
  HandleRef rtr_;
  uint64_t stamp_ = 0;
};

}  // namespace zqext

#endif
