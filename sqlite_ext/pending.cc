// Deferred mode: changes wait outside the tree until the transaction commits
// (xSync) or zqrtree_apply is called.
//
// Two records of a waiting change, both TEMP tables inside the caller's
// transaction, so a rollback undoes them together:
//  - the host's table of pending changes, which scans read through the
//    library: 'D' rowid -> the tree's entry of that rowid is stale,
//    'I' rowid -> the row's current box, not in the tree yet;
//  - temp.zqrtree_touched, one row per rowid changed since the tree last
//    took changes, with the tree's box of it if the tree holds one and its
//    current box if it still exists: the work list of the apply, which the
//    host's table cannot be walked for.
// A rowid never touched is as the tree holds it; a touched rowid that exists
// has a live 'I' row.
//
// Call order: set_deferred(on) -> (defer_insert | defer_remove)* and scans
// (pending_deleted, PendingScan) -> apply_pending -> set_deferred(off).
#include <string>

#include "driver/leaf_map.h"
#include "sqlite_ext/ext.h"
#include "sqlite_ext/handle.h"
#include "zqrtree/errors.h"
#include "zqrtree/spt.h"
#include "zqrtree/tree.h"

namespace zqext {

namespace {

constexpr const char* kTouched = "zqrtree_touched";

std::string create_touched(sqlite3* db) {
  return exec(db, std::string("CREATE TEMP TABLE IF NOT EXISTS ") + kTouched +
                      " (tab TEXT NOT NULL, rid INTEGER NOT NULL, in_tree INTEGER NOT NULL, "
                      "min0 REAL, min1 REAL, min2 REAL, max0 REAL, max1 REAL, max2 REAL, "
                      "live INTEGER NOT NULL, cmin0 REAL, cmin1 REAL, cmin2 REAL, "
                      "cmax0 REAL, cmax1 REAL, cmax2 REAL, UNIQUE (tab, rid))");
}

struct Touched {
  bool found = false;
  bool in_tree = false;
  zq::Box tree_box;
  bool live = false;
  zq::Box box;  // the current box, when live
};

zq::Status read_touched(Table* t, int64_t id, Touched* out) {
  sqlite3* db = t->conn->db;
  Stmt st(db, std::string("SELECT in_tree, min0, min1, min2, max0, max1, max2, live, cmin0, "
                          "cmin1, cmin2, cmax0, cmax1, cmax2 FROM temp.") +
                  kTouched + " WHERE tab = ?1 AND rid = ?2");
  if (!st.ok())
    return zq::Status::io(std::string("reading the pending changes: ") + sqlite3_errmsg(db));
  st.bind(1, t->key()).bind(2, id);
  const int rc = st.step();
  *out = Touched{};
  if (rc != SQLITE_ROW) return zq::Status::ok();
  out->found = true;
  out->in_tree = st.int64(0) != 0;
  out->live = st.int64(7) != 0;
  for (int k = 0; k < 3; ++k) {
    out->tree_box.min[k] = st.real(1 + k);
    out->tree_box.max[k] = st.real(4 + k);
    out->box.min[k] = st.real(8 + k);
    out->box.max[k] = st.real(11 + k);
  }
  return zq::Status::ok();
}

// Records the rowid's current state; the tree's box is kept from the first
// change since the tree last took changes.
zq::Status write_touched(Table* t, int64_t id, bool in_tree, const zq::Box& tree_box, bool live,
                         const zq::Box& box) {
  sqlite3* db = t->conn->db;
  Stmt st(db, std::string("INSERT INTO temp.") + kTouched +
                  " (tab, rid, in_tree, min0, min1, min2, max0, max1, max2, live, cmin0, cmin1, "
                  "cmin2, cmax0, cmax1, cmax2) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, "
                  "?11, ?12, ?13, ?14, ?15, ?16) ON CONFLICT (tab, rid) DO UPDATE SET live = "
                  "excluded.live, cmin0 = excluded.cmin0, cmin1 = excluded.cmin1, cmin2 = "
                  "excluded.cmin2, cmax0 = excluded.cmax0, cmax1 = excluded.cmax1, cmax2 = "
                  "excluded.cmax2");
  if (st.ok()) {
    st.bind(1, t->key()).bind(2, id).bind(3, static_cast<int64_t>(in_tree ? 1 : 0));
    st.bind(10, static_cast<int64_t>(live ? 1 : 0));
    for (int k = 0; k < 3; ++k) {
      st.bind(4 + k, tree_box.min[k]).bind(7 + k, tree_box.max[k]);
      st.bind(11 + k, box.min[k]).bind(14 + k, box.max[k]);
    }
  }
  if (!st.ok() || st.step() != SQLITE_DONE)
    return zq::Status::io(std::string("recording a pending change: ") + sqlite3_errmsg(db));
  return zq::Status::ok();
}

zq::Status put(Table* t, char flag, int64_t id, const zq::Box& box) {
  const double six[6] = {box.min[0], box.min[1], box.min[2], box.max[0], box.max[1], box.max[2]};
  zq::Database& db = t->conn->database();
  const int32_t rc = zqtmp_put(db.session(), t->pending, flag, id, six);
  if (rc < 0)
    return engine_failure(db, rc,
                          std::string("recording pending ") + (flag == 'D' ? "delete" : "insert") +
                              " of rowid " + std::to_string(id));
  return zq::Status::ok();
}

zq::Status mark_deleted(Table* t, char flag, int64_t id) {
  zq::Database& db = t->conn->database();
  const int32_t rc = zqtmp_mark_deleted(db.session(), t->pending, flag, id, 1);
  if (rc < 0)
    return engine_failure(db, rc,
                          std::string("withdrawing pending ") +
                              (flag == 'D' ? "delete" : "insert") + " of rowid " +
                              std::to_string(id));
  return zq::Status::ok();
}

// Makes (flag, id) absent for scans whether or not it was there.
zq::Status withdraw(Table* t, char flag, int64_t id) {
  if (zq::Status s = put(t, flag, id, zq::Box{}); !s) return s;
  return mark_deleted(t, flag, id);
}

zq_btr* pending_btr(Table* t) {
  zq::Database& db = t->conn->database();
  return rtr_get_spt_tmp_tab_btr(db.env(), zqsess_tmptab_owner(db.session()), t->pending->id);
}

}  // namespace

zq::Status defer_remove(Table* t, int64_t id, const zq::Box& box) {
  Touched w;
  if (zq::Status s = read_touched(t, id, &w); !s) return s;
  if (zq::Status s = write_touched(t, id, !w.found, box, false, zq::Box{}); !s) return s;
  if (w.found) return mark_deleted(t, 'I', id);  // it came from a pending insert
  // First change of a row the tree holds with exactly this box.
  return put(t, 'D', id, box);
}

zq::Status defer_insert(Table* t, const zq::Entry& entry) {
  if (zq::Status s = write_touched(t, entry.id, false, zq::Box{}, true, entry.box); !s) return s;
  return put(t, 'I', entry.id, entry.box);
}

int pending_row(Table* t, int64_t id, zq::Box* box, zq::Status* status) {
  Touched w;
  if (*status = read_touched(t, id, &w); !*status || !w.found) return -1;
  *box = w.box;
  return w.live ? 1 : 0;
}

zq::Status resync_pending(Table* t, int64_t id) {
  Touched w;
  if (zq::Status s = read_touched(t, id, &w); !s) return s;
  zq::Status s = w.found && w.in_tree ? put(t, 'D', id, w.tree_box) : withdraw(t, 'D', id);
  if (!s) return s;
  return w.found && w.live ? put(t, 'I', id, w.box) : withdraw(t, 'I', id);
}

std::string watch_pending(Table* t) {
  if (std::string err = create_touched(t->conn->db); !err.empty()) return err;
  return t->conn->journal.watch("temp", kTouched);
}

bool has_pending(const Table& t) {
  if (!t.deferred()) return false;
  Stmt st(t.conn->db, std::string("SELECT 1 FROM temp.") + kTouched + " WHERE tab = ?1 LIMIT 1");
  return st.ok() && st.bind(1, t.key()).step() == SQLITE_ROW;
}

namespace {

// Every touched rowid's tree entry out, every one that still exists back in
// with its current box, through one writing handle flushed once.
zq::Status move_into_tree(Table* t, uint64_t* applied) {
  zq::Database& db = t->conn->database();
  sqlite3* sql = t->conn->db;
  Handle h(t->index, Handle::Mode::kWrite);
  if (!h.status()) return h.status();
  Stmt gone(sql, std::string("SELECT rid, min0, min1, min2, max0, max1, max2 FROM temp.") +
                     kTouched + " WHERE tab = ?1 AND in_tree = 1");
  if (!gone.ok()) return sql_failure(sql, "reading the pending deletes");
  gone.bind(1, t->key());
  int rc;
  while ((rc = gone.step()) == SQLITE_ROW) {
    const rtr_rect rect{gone.real(1), gone.real(2), gone.real(3),
                        gone.real(4), gone.real(5), gone.real(6)};
    const int32_t code = rtr_delete_by_rowid(db.env(), h.get(), gone.int64(0), &rect);
    if (code < 0)
      return engine_failure(db, code,
                            "applying the delete of rowid " + std::to_string(gone.int64(0)));
  }
  if (rc != SQLITE_DONE) return sql_failure(sql, "reading the pending deletes");
  Stmt come(sql, std::string("SELECT rid, cmin0, cmin1, cmin2, cmax0, cmax1, cmax2 FROM temp.") +
                     kTouched + " WHERE tab = ?1 AND live = 1");
  if (!come.ok()) return sql_failure(sql, "reading the pending inserts");
  come.bind(1, t->key());
  *applied = 0;
  while ((rc = come.step()) == SQLITE_ROW) {
    const rtr_rect rect{come.real(1), come.real(2), come.real(3),
                        come.real(4), come.real(5), come.real(6)};
    const rtr_cell cell{come.int64(0), rect};
    const int32_t code = rtr_insert(db.env(), h.get(), &cell);
    if (code < 0)
      return engine_failure(db, code, "applying the insert of rowid " + std::to_string(cell.id));
  }
  if (rc != SQLITE_DONE) return sql_failure(sql, "reading the pending inserts");
  if (zq::Status s = h.flush(); !s) return s;
  if (zq::detail::LeafMap* map = t->index.leaf_map())
    if (zq::Status s = map->apply(); !s) return s;
  Stmt done(sql, std::string("DELETE FROM temp.") + kTouched + " WHERE tab = ?1");
  if (!done.ok() || done.bind(1, t->key()).step() != SQLITE_DONE)
    return sql_failure(sql, "clearing the applied changes");
  *applied = static_cast<uint64_t>(sqlite3_changes(sql));
  const int32_t code = zqtmp_clear(db.session(), t->pending);
  if (code < 0) return engine_failure(db, code, "clearing the pending changes");
  return zq::Status::ok();
}

}  // namespace

zq::Status apply_pending(Table* t, uint64_t* applied, bool journaled) {
  *applied = 0;
  if (!has_pending(*t)) return zq::Status::ok();
  if (zq::Status s = ensure_pending(t); !s) return s;
  if (!journaled) {
    // A failure fails the commit, which takes the rows back; the moves the
    // rowid table was told of go with them.
    zq::Status s = move_into_tree(t, applied);
    if (zq::detail::LeafMap* map = t->index.leaf_map(); !s && map != nullptr) map->forget();
    return s;
  }
  Journal& journal = t->conn->journal;
  for (const std::string& table : {t->index.node_table(), t->index.rowid_table()})
    if (std::string err = journal.watch(t->index.schema(), table); !err.empty())
      return zq::Status::io(err);
  if (std::string err = watch_pending(t); !err.empty()) return zq::Status::io(err);
  Journal::Op op(journal);
  if (!op.begun().empty()) return zq::Status::io(op.begun());
  zq::Status s = move_into_tree(t, applied);
  if (!s) {
    if (zq::detail::LeafMap* map = t->index.leaf_map()) map->forget();
    // The host's table is cleared last, so a failure leaves it as it was.
    if (std::string err = op.rollback(); !err.empty())
      return zq::Status::io(s.message() + "; restoring the tables failed as well: " + err);
    return s;
  }
  op.commit();
  return s;
}

zq::Status ensure_pending(Table* t) {
  if (!t->deferred() || (t->pending != nullptr && !t->pending_stale)) return zq::Status::ok();
  zq::Database& db = t->conn->database();
  if (t->pending != nullptr) zqtmp_drop(db.session(), t->pending);
  t->pending = nullptr;
  if (std::string err = watch_pending(t); !err.empty())
    return zq::Status::io("preparing deferred mode: " + err);
  zqenv_err_clear(db.env());
  zq_tmptab* tab = zqtmp_create_spatial(db.session(), t->conn->next_pending_id++);
  if (tab == nullptr)
    return engine_failure(db, RTR_ERR_NO_ROOM, "creating the table of pending changes");
  t->pending = tab;
  t->pending_stale = false;
  t->pending_made_in_txn = sqlite3_get_autocommit(t->conn->db) == 0;
  // Changes may be waiting from before the table was last connected.
  Stmt touched(t->conn->db, std::string("SELECT rid FROM temp.") + kTouched + " WHERE tab = ?1");
  if (!touched.ok()) return sql_failure(t->conn->db, "reading the pending changes");
  touched.bind(1, t->key());
  while (touched.step() == SQLITE_ROW)
    if (zq::Status s = resync_pending(t, touched.int64(0)); !s) return s;
  return zq::Status::ok();
}

zq::Status set_deferred(Table* t, bool on) {
  if (on == t->deferred()) return zq::Status::ok();
  // The host's table is made outside any transaction, so no rollback can
  // take it away while it is in use.
  if (sqlite3_get_autocommit(t->conn->db) == 0)
    return zq::Status::invalid("deferred mode can only be switched outside a transaction");
  if (on) {
    t->conn->deferred.insert(t->key());
    zq::Status s = ensure_pending(t);
    if (!s) t->conn->deferred.erase(t->key());
    return s;
  }
  uint64_t applied = 0;
  if (zq::Status s = apply_pending(t, &applied, true); !s) return s;
  if (t->pending != nullptr) zqtmp_drop(t->conn->database().session(), t->pending);
  t->pending = nullptr;
  t->conn->deferred.erase(t->key());
  return zq::Status::ok();
}

int pending_deleted(Table* t, int64_t id, zq::Status* status) {
  zq::Database& db = t->conn->database();
  const int32_t rc = rtr_find_spt_tmp_tab_del_data(db.env(), db.session(), pending_btr(t), id);
  if (rc < 0) *status = engine_failure(db, rc, "looking up pending deletes");
  return rc;
}

zq::Status PendingScan::open(uint32_t op, const zq::Box& query) {
  close();
  zq::Database& db = t_->conn->database();
  const int32_t rc = rtr_spt_tmp_tab_first_ins_data(db.env(), db.session(), pending_btr(t_), &cur_);
  if (rc < 0) return engine_failure(db, rc, "reading pending inserts");
  open_ = true;
  end_ = 0;
  op_ = op;
  query_ = query;
  return zq::Status::ok();
}

bool PendingScan::next(zq::Entry* entry, zq::Status*) {
  const rtr_rect query = zq::to_rect(query_);
  while (open_ && end_ == 0) {
    rtr_rect rect;
    int64_t rowid = 0;
    const int32_t hit =
        rtr_spt_tmp_tab_ins_data(&cur_, &query, static_cast<uint16_t>(op_), &rect, &rowid, &end_);
    if (hit != 1) break;
    // Like the tree cursor, the pending scan compares the first two axes.
    const zq::Box box = zq::from_rect(rect, t_->dims());
    if (!zq::op_matches(op_, box, query_, t_->dims())) continue;
    *entry = zq::Entry{rowid, box};
    return true;
  }
  close();
  return false;
}

void PendingScan::close() {
  if (open_) pbcur_close(&cur_);
  open_ = false;
  end_ = 1;
}

int x_commit(sqlite3_vtab* vtab) {
  Table* t = static_cast<Table*>(vtab);
  t->pending_made_in_txn = false;
  t->txn.discard();  // flushed by xSync; nothing is left unless it was never called
  return SQLITE_OK;
}

// A host table made inside the transaction (or savepoint) being rolled back
// is gone with it; the next use makes a new one from the work list.
int x_rollback(sqlite3_vtab* vtab) {
  Table* t = static_cast<Table*>(vtab);
  if (t->pending != nullptr && t->pending_made_in_txn) t->pending_stale = true;
  t->pending_made_in_txn = false;
  t->txn.discard();
  return SQLITE_OK;
}

int x_savepoint(sqlite3_vtab* vtab, int savepoint) {
  static_cast<Table*>(vtab)->txn.savepoint(savepoint);
  return SQLITE_OK;
}

int x_release(sqlite3_vtab* vtab, int savepoint) {
  static_cast<Table*>(vtab)->txn.release(savepoint);
  return SQLITE_OK;
}

int x_rollback_to(sqlite3_vtab* vtab, int savepoint) {
  Table* t = static_cast<Table*>(vtab);
  if (t->pending != nullptr && t->pending_made_in_txn) t->pending_stale = true;
  if (zq::Status s = t->txn.rollback_to(savepoint); !s)
    return fail(vtab, failure(*t, "rolling back to a savepoint: " + s.message()));
  return SQLITE_OK;
}

int x_sync(sqlite3_vtab* vtab) {
  Table* t = static_cast<Table*>(vtab);
  // A failed xSync makes SQLite roll the whole transaction back, so neither
  // the write-back nor the commit-time apply needs a journal or savepoint of
  // its own; and here SQLite has already left its transaction state, so a
  // savepoint would open a new transaction that the commit leaves open.
  zq_session* session = t->conn->database().session();
  zqsess_hold_savepoints(session, 1);
  std::string what = "writing the tree's changes at commit: ";
  zq::Status s = t->txn.flush();
  if (s) {
    what = "applying the pending changes at commit: ";
    uint64_t applied = 0;
    s = apply_pending(t, &applied, false);
  }
  zqsess_hold_savepoints(session, 0);
  return s ? SQLITE_OK : fail(vtab, failure(*t, what + s.message()));
}

}  // namespace zqext
