// Row undo for tables written where SQLite gives no savepoint.
//
// A virtual table's methods run inside the connection's running statement,
// where SQLite refuses SAVEPOINT, so a write mini-transaction there has no
// undo of its own (see ptx.cc). For the tables a caller tracks, the default
// row callbacks report every write here first, and the row's image before
// the write (or its absence) is kept in memory; a restore puts every written
// row back as it was when tracking began. Nothing is recorded for untracked
// tables, so the cost is one failed map lookup per write.
//
// A restore keeps the images: SQLite's own ROLLBACK TO may later undo the
// restore's writes along with everything else since a savepoint, and only
// the first image of each row still says what the row was at the start.
//
// Call order: zqsess_undo_track(on) -> (row writes, zqsess_undo_restore)* ->
// zqsess_undo_track(off), which forgets the images.
#include <string>
#include <unordered_set>
#include <vector>

#include "host/internal.h"

namespace zqhost {

UndoLog::~UndoLog() {
  for (UndoRow& r : rows)
    for (sqlite3_value* v : r.vals) sqlite3_value_free(v);
  sqlite3_finalize(read);
  sqlite3_finalize(restore);
  sqlite3_finalize(remove);
}

namespace {

std::string undo_key(const std::string& schema, const std::string& table) {
  return schema + '\0' + table;
}

// The statements of a log, prepared on first use from the table's columns.
int prepare_log(UndoLog* log, const Table* t) {
  if (log->read != nullptr) return SQLITE_OK;
  std::string cols, params;
  for (size_t i = 0; i < t->cols.size(); ++i) {
    cols += ", " + quote_ident(t->cols[i].name);
    params += ", ?" + std::to_string(i + 2);
  }
  sqlite3* db = t->sess->db;
  const std::string sel = "SELECT " + (cols.empty() ? std::string("1") : cols.substr(2)) +
                          " FROM " + t->qname + " WHERE rowid = ?1";
  const std::string put =
      "INSERT OR REPLACE INTO " + t->qname + " (rowid" + cols + ") VALUES (?1" + params + ")";
  const std::string del = "DELETE FROM " + t->qname + " WHERE rowid = ?1";
  int rc = sqlite3_prepare_v2(db, sel.c_str(), -1, &log->read, nullptr);
  if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, put.c_str(), -1, &log->restore, nullptr);
  if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, del.c_str(), -1, &log->remove, nullptr);
  log->n_cols = static_cast<int>(t->cols.size());
  if (rc != SQLITE_OK)
    for (sqlite3_stmt** st : {&log->read, &log->restore, &log->remove}) {
      sqlite3_finalize(*st);
      *st = nullptr;
    }
  return rc;
}

}  // namespace

int remember_row(Table* t, int64_t rowid) {
  zq_session* s = t->sess;
  if (s->undo.empty()) return SQLITE_OK;
  auto it = s->undo.find(undo_key(t->schema, t->name));
  if (it == s->undo.end()) return SQLITE_OK;
  UndoLog* log = it->second.get();
  if (int rc = prepare_log(log, t); rc != SQLITE_OK) return rc;
  // Inserts are read too: a refused insert must not lose the row it met.
  UndoRow row{rowid, false, {}};
  sqlite3_bind_int64(log->read, 1, rowid);
  int rc = sqlite3_step(log->read);
  if (rc == SQLITE_ROW) {
    row.existed = true;
    for (int c = 0; c < log->n_cols; ++c) {
      sqlite3_value* v = sqlite3_value_dup(sqlite3_column_value(log->read, c));
      if (v == nullptr) rc = SQLITE_NOMEM;
      row.vals.push_back(v);
    }
  }
  const int reset = sqlite3_reset(log->read);
  if (rc == SQLITE_ROW || rc == SQLITE_DONE) rc = reset;
  if (rc == SQLITE_OK) log->rows.push_back(std::move(row));
  if (rc != SQLITE_OK)
    for (sqlite3_value* v : row.vals) sqlite3_value_free(v);
  return rc;
}

}  // namespace zqhost

using zqhost::UndoLog;

extern "C" {

int32_t zqsess_undo_track(zq_session* s, const char* schema, const char* table, int on) {
  const std::string key = zqhost::undo_key(schema, table);
  try {
    if (on == 0)
      s->undo.erase(key);
    else if (s->undo.count(key) == 0)
      s->undo.emplace(key, std::make_unique<UndoLog>());
  } catch (const std::bad_alloc&) {
    return zqhost::kErrNoMem;
  }
  return 0;
}

int32_t zqsess_undo_restore(zq_session* s, const char* schema, const char* table) {
  auto it = s->undo.find(zqhost::undo_key(schema, table));
  if (it == s->undo.end()) return 0;
  UndoLog* log = it->second.get();
  std::unordered_set<int64_t> done;
  try {
    for (const zqhost::UndoRow& r : log->rows) {
      if (!done.insert(r.rowid).second) continue;  // only a row's first image counts
      sqlite3_stmt* st = r.existed ? log->restore : log->remove;
      sqlite3_bind_int64(st, 1, r.rowid);
      for (size_t c = 0; c < r.vals.size(); ++c)
        sqlite3_bind_value(st, static_cast<int>(c) + 2, r.vals[c]);
      const int rc = zqhost::step_once(st);
      sqlite3_clear_bindings(st);
      if (rc != SQLITE_DONE) return zqhost::sqlite_fail(s->env, s->db, rc, "zqsess_undo_restore");
    }
  } catch (const std::bad_alloc&) {
    return zqhost::kErrNoMem;
  }
  return 0;
}

}  // extern "C"
