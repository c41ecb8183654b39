/* The zqrtree SQLite extension: what its files share.
 *
 * One Conn per connection (made by the entry point, freed when SQLite drops
 * the module as the connection closes) holds the driver's Database wrapping
 * the connection, the undo journal and the tables connected on it. One Table
 * per connected virtual table; one Cursor per open scan.
 *
 * Columns of a table with d axes, as SQLite numbers them:
 *   0                  id (the rowid)
 *   1 + 2k, 2 + 2k     min and max of axis k, under the user's names
 *   1 + 2d             zq_op     hidden: the operator of a table-valued search
 *   2 + 2d + j         zq_min0, zq_max0, ... hidden: its search box
 *   2 + 4d             zq_k      hidden: how many neighbours a nearest search gives
 *   3 + 4d             distance  hidden: a nearest search's distance (zq_distance
 *                                when a user column takes the name) */
#ifndef ZQ_SQLITE_EXT_EXT_H
#define ZQ_SQLITE_EXT_EXT_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "driver/index.h"
#include "host/host.h"
#include "sqlite_ext/journal.h"
#include "sqlite_ext/sql.h"
#include "sqlite_ext/tree_txn.h"

namespace zqext {

inline constexpr const char* kModuleName = "zqrtree";

struct Table;

struct Conn {
  explicit Conn(sqlite3* connection) : db(connection), journal(connection) {}
  // Wraps the connection in the driver's Database when first needed; "" or
  // why it could not.
  std::string open();
  zq::Database& database() { return *database_; }  // after open()
  // Closes the session once no table is connected: the host keeps prepared
  // statements, and sqlite3_close() refuses to close a connection that still
  // has any (it disconnects every table first). The host's tables of pending
  // changes go with it; the work list keeps what they held.
  void close_if_idle();
  // Starts a new session when another connection has committed to a database
  // holding a connected table since this one last looked: the host keeps
  // rowid counters and dictionary objects per session and would not see
  // those rows. Call at the start of every scan, change and function.
  std::string refresh();

  sqlite3* db;
  Journal journal;
  std::map<std::string, Table*> tables;                  // by lower-case "schema.name"
  std::set<std::string> deferred;                        // keys of the tables in deferred mode
  uint32_t next_pending_id = 1;                          // ids of the host's pending-change tables
  std::map<std::string, int64_t> data_versions;          // PRAGMA data_version last seen, by schema
  std::map<std::string, sqlite3_stmt*> version_queries;  // PRAGMA data_version, by schema

 private:
  std::unique_ptr<zq::Database> database_;
};

struct Table : sqlite3_vtab {
  Conn* conn = nullptr;
  std::string schema;
  std::string name;
  zq::Index index;
  std::vector<std::string> columns;  // the user's names, id first
  zq_tmptab* pending = nullptr;      // the host's table of pending changes, once needed
  bool pending_made_in_txn = false;  // made inside the open transaction
  bool pending_stale = false;        // a rollback took that transaction's DDL away
  TreeTxn txn{&index};               // the open transaction's changes to the tree
  ReadHandle reader{&index};         // searches outside a write transaction
  // What the last rowid search found, for the xUpdate that follows it in a
  // DELETE or UPDATE ... WHERE id = ?: it spares that row a second lookup
  // (the rowid table, then the leaf). Every change to the table goes through
  // an xUpdate after an xFilter of its own statement, so the next xFilter,
  // the next xUpdate, or a function naming the table ends it.
  struct RowMemo {
    bool valid = false;
    bool found = false;
    zq::Entry entry;
  } row_memo;

  bool deferred() const { return conn->deferred.count(key()) != 0; }

  int dims() const { return index.dims(); }
  int op_column() const { return 1 + 2 * dims(); }
  int first_arg_column() const { return 2 + 2 * dims(); }
  int k_column() const { return 2 + 4 * dims(); }
  int distance_column() const { return 3 + 4 * dims(); }
  std::string key() const { return lower(schema) + "." + lower(name); }
  std::string label() const { return "zqrtree table " + quote(name); }
};

// Side `slot` of a box in column order: 2k is axis k's min, 2k + 1 its max.
inline void set_side(zq::Box* box, int slot, double v) {
  double* sides = slot % 2 == 0 ? box->min : box->max;
  sides[slot / 2] = v;
}

// ---- messages ----

// Sets the table's error message (freed by SQLite) and returns rc.
int fail(sqlite3_vtab* vtab, const std::string& message, int rc = SQLITE_ERROR);
// "zqrtree table "t": " + what.
std::string failure(const Table& t, const std::string& what);

// ---- schema.cc: arguments, creation, connection, lookup by name ----

int x_create(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** out,
             char** err);
int x_connect(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** out,
              char** err);
int x_disconnect(sqlite3_vtab* vtab);
int x_destroy(sqlite3_vtab* vtab);
int x_rename(sqlite3_vtab* vtab, const char* new_name);
int x_shadow_name(const char* suffix);
// The connected table named "name" or "schema.name", connecting it first if
// it exists but no statement has used it yet; null with *error set.
Table* find_table(Conn* conn, const std::string& qualified_name, std::string* error);

// ---- plan.cc: query planning ----

int x_best_index(sqlite3_vtab* vtab, sqlite3_index_info* info);

// How xFilter reads its arguments, decoded from idxNum.
struct Plan {
  enum Kind { kScan = 0, kRowid = 1, kQuery = 2, kRange = 3 };
  Kind kind = kScan;
  uint32_t slots = 0;      // kRange: bit 2k bounds axis k from below, 2k+1 from above
  uint32_t eq_copies = 0;  // kRange: bit k copies axis k's lower bound into its upper
  uint32_t exact = 0;      // kRange: the sides whose constraint SQLite leaves to us
  bool has_k = false;      // kQuery: zq_k follows the box among the arguments
  bool has_limit = false;  // kQuery: then a bound `distance <= v` (or `<`)
};
Plan decode_plan(int idx_num);
// The operator of a table-valued search: an integer of operator bits, or names
// such as "intersect", "within|intersect" (all must hold) or
// "or(within|equal)" (any may hold). false with *error set.
bool parse_op_value(sqlite3_value* value, uint32_t* op, std::string* error);
// Whether a table-valued search's operator is 'nearest' (any case, spaces
// ignored): a nearest-neighbour search rather than a window search.
bool is_nearest_op(sqlite3_value* value);

// ---- cursor.cc ----

int x_open(sqlite3_vtab* vtab, sqlite3_vtab_cursor** out);
int x_close(sqlite3_vtab_cursor* cur);
int x_filter(sqlite3_vtab_cursor* cur, int idx_num, const char* idx_str, int argc,
             sqlite3_value** argv);
int x_next(sqlite3_vtab_cursor* cur);
int x_eof(sqlite3_vtab_cursor* cur);
int x_column(sqlite3_vtab_cursor* cur, sqlite3_context* ctx, int col);
int x_rowid(sqlite3_vtab_cursor* cur, sqlite3_int64* rowid);

// ---- nearest.cc: nearest-neighbour searches ----

// The rows of a nearest-neighbour search in order of distance, then rowid:
// the tree's entries through the driver's NearestScan and, in deferred mode,
// the pending inserts merged in by distance with stale tree hits skipped, so
// the answers are those of direct mode.
class NearestRows {
 public:
  explicit NearestRows(Table* t) : t_(t), scan_(t->index) {}
  NearestRows(const NearestRows&) = delete;
  NearestRows& operator=(const NearestRows&) = delete;

  // Starts a search of at most `k` rows (0: as many as are read) no farther
  // than `max_distance`, on the tree of `handle` (kept alive by the caller);
  // `merge` when deferred changes wait.
  zq::Status open(rtr_mem* handle, const zq::Box& query, uint64_t k, double max_distance,
                  bool merge);
  bool at_end() const { return pos_ >= group_.size(); }
  zq::Status next();
  const zq::Neighbour& current() const { return group_[pos_]; }  // while !at_end()

 private:
  zq::Status load_pending(const zq::Box& query, double max_distance);
  zq::Status pull_tree();
  const zq::Neighbour* head() const;  // the nearer of the two streams' next rows
  zq::Status drop_head();
  zq::Status fill();

  Table* t_;
  zq::NearestScan scan_;
  bool merge_ = false;
  bool scan_taken_ = false;             // the scan's current row went to tree_head_
  bool tree_ready_ = false;             // tree_head_ holds the tree's next row
  zq::Neighbour tree_head_;             // read ahead of the merge
  std::vector<zq::Neighbour> pending_;  // pending inserts in reach, nearest last
  std::vector<zq::Neighbour> group_;    // rows of one distance, in rowid order
  size_t pos_ = 0;                      // the current row in group_
  uint64_t k_ = 0;                      // rows wanted; 0: no count
  uint64_t delivered_ = 0;              // rows put in groups so far
};

// ---- write.cc: changes inside the running statement ----

int x_update(sqlite3_vtab* vtab, int argc, sqlite3_value** argv, sqlite3_int64* rowid);
// The index's tables with an empty tree, for xCreate; cleans up after itself.
zq::Status create_index(Conn* conn, const std::string& schema, const std::string& name, int dims,
                        zq::Index* out);
// Removes the index's tables, for xDestroy.
zq::Status drop_index(Conn* conn, const zq::Index& index);

// ---- rows.cc: what a rowid holds now ----

// The current row of `id`, whichever of the work list of deferred changes,
// the open transaction or the index holds it; found false when none does.
zq::Status find_row(Table* t, int64_t id, zq::Entry* entry, bool* found);
// The largest rowid in use (0 when none), for an INSERT without one.
zq::Status top_rowid(Table* t, int64_t* top);

// ---- pending.cc: deferred mode ----

zq::Status set_deferred(Table* t, bool on);
// The host's table of pending changes of a deferred table, made (and filled
// from the work list) when missing or stale.
zq::Status ensure_pending(Table* t);
// What the work list says of `id`: -1 untouched, 0 deleted, 1 live with its
// box in *box; -1 with *status failed on a failure.
int pending_row(Table* t, int64_t id, zq::Box* box, zq::Status* status);
// 1 when a tree hit of `id` is stale (the row was deleted or changed since the
// tree last took changes), 0 when not, or a failure in *status.
int pending_deleted(Table* t, int64_t id, zq::Status* status);

// The pending inserts that match a search, through the library's scan of the
// host's pending-change table, rechecked on every axis.
class PendingScan {
 public:
  explicit PendingScan(Table* t) : t_(t) {}
  ~PendingScan() { close(); }
  PendingScan(const PendingScan&) = delete;
  PendingScan& operator=(const PendingScan&) = delete;
  zq::Status open(uint32_t op, const zq::Box& query);
  // The next match into *entry; false at the end or with *status failed.
  bool next(zq::Entry* entry, zq::Status* status);
  void close();

 private:
  Table* t_;
  pbcur cur_{};
  bool open_ = false;
  uint32_t end_ = 1;
  uint32_t op_ = 0;
  zq::Box query_;
};
// Puts every pending change into the tree, all or nothing: under the undo
// journal, or (`journaled` false) where a failure rolls the transaction back
// anyway. *applied counts the rowids whose entries changed.
zq::Status apply_pending(Table* t, uint64_t* applied, bool journaled);
bool has_pending(const Table& t);
zq::Status defer_insert(Table* t, const zq::Entry& entry);
zq::Status defer_remove(Table* t, int64_t id, const zq::Box& box);
// Makes sure the work list exists and is journaled; "" or why not.
std::string watch_pending(Table* t);
// After a failed change was undone: makes the host's pending rows of `id`
// agree with the (restored) work list and base table again.
zq::Status resync_pending(Table* t, int64_t id);
int x_sync(sqlite3_vtab* vtab);
int x_commit(sqlite3_vtab* vtab);
int x_rollback(sqlite3_vtab* vtab);
int x_rollback_to(sqlite3_vtab* vtab, int savepoint);
int x_savepoint(sqlite3_vtab* vtab, int savepoint);
int x_release(sqlite3_vtab* vtab, int savepoint);

// ---- functions.cc: SQL functions ----

// Registers zqrtree_load, zqrtree_defer, zqrtree_apply, zqrtree_check and the
// diagnostics; SQLITE_OK or the failing registration's code.
int register_functions(Conn* conn);

}  // namespace zqext

#endif
