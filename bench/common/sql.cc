// SQLite helpers of the SQL-speaking runners (see sql.h).
#include "bench/common/sql.h"

namespace zqbench {

namespace {
const char* const kAxis[kMaxDims] = {"x", "y", "z"};
}  // namespace

std::string open_db(const std::string& path, int flags, Db* out) {
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  out->reset(raw);
  if (rc == SQLITE_OK) return "";
  return "open " + path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : "out of memory");
}

std::string sql_error(sqlite3* db, const std::string& what) {
  return what + ": " + sqlite3_errmsg(db);
}

std::string exec(sqlite3* db, const std::string& sql) {
  char* msg = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &msg) == SQLITE_OK) return "";
  std::string err = sql + ": " + (msg ? msg : "?");
  sqlite3_free(msg);
  return err;
}

std::string prepare(sqlite3* db, const std::string& sql, Stmt* out) {
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr) != SQLITE_OK)
    return sql_error(db, sql);
  out->reset(st);
  return "";
}

std::string query_int(sqlite3* db, const std::string& sql, int64_t* out) {
  Stmt st;
  std::string err = prepare(db, sql, &st);
  if (!err.empty()) return err;
  const int rc = sqlite3_step(st.get());
  if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? sql + ": no row" : sql_error(db, sql);
  *out = sqlite3_column_int64(st.get(), 0);
  return "";
}

std::string box_columns(int dims) {
  std::string cols = "id";
  for (int k = 0; k < dims; ++k) cols += std::string(", min") + kAxis[k] + ", max" + kAxis[k];
  return cols;
}

std::string window_where(int dims) {
  std::string where;
  for (int k = 0; k < dims; ++k)
    where += std::string(k ? " AND " : "") + "max" + kAxis[k] + " >= ?" +
             std::to_string(2 * k + 1) + " AND min" + kAxis[k] + " <= ?" +
             std::to_string(2 * k + 2);
  return where;
}

std::string insert_sql(const std::string& table, int dims) {
  std::string marks = "?1";
  for (int k = 0; k < 2 * dims; ++k) marks += ", ?" + std::to_string(k + 2);
  return "INSERT INTO " + table + " VALUES (" + marks + ")";
}

std::string insert_all(sqlite3* db, sqlite3_stmt* ins, const Workload& w) {
  std::string err = exec(db, "BEGIN");
  for (size_t i = 0; err.empty() && i < w.entries.size(); ++i) {
    const Entry& e = w.entries[i];
    sqlite3_bind_int64(ins, 1, e.id);
    for (int k = 0; k < w.dims; ++k) {
      sqlite3_bind_double(ins, 2 + 2 * k, e.box.lo[k]);
      sqlite3_bind_double(ins, 3 + 2 * k, e.box.hi[k]);
    }
    if (sqlite3_step(ins) != SQLITE_DONE)
      err = sql_error(db, "insert of id " + std::to_string(e.id));
    sqlite3_reset(ins);
  }
  if (err.empty()) return exec(db, "COMMIT");
  exec(db, "ROLLBACK");
  return err;
}

std::string step_window(sqlite3* db, sqlite3_stmt* sel, const Box& q, int dims, Hits* hits) {
  for (int k = 0; k < dims; ++k) {
    sqlite3_bind_double(sel, 1 + 2 * k, q.lo[k]);
    sqlite3_bind_double(sel, 2 + 2 * k, q.hi[k]);
  }
  int rc;
  while ((rc = sqlite3_step(sel)) == SQLITE_ROW) hits->add(sqlite3_column_int64(sel, 0));
  sqlite3_reset(sel);
  return rc == SQLITE_DONE ? "" : sql_error(db, "window query");
}

std::string delete_sample(sqlite3* db, sqlite3_stmt* del, const Workload& w) {
  std::string err = exec(db, "BEGIN");
  for (size_t i = 0; err.empty() && i < w.deletes.size(); ++i) {
    const int64_t id = w.entries[w.deletes[i]].id;
    sqlite3_bind_int64(del, 1, id);
    if (sqlite3_step(del) != SQLITE_DONE)
      err = sql_error(db, "delete of id " + std::to_string(id));
    else if (sqlite3_changes(db) != 1)
      err = "delete of id " + std::to_string(id) + " removed nothing";
    sqlite3_reset(del);
  }
  if (err.empty()) return exec(db, "COMMIT");
  exec(db, "ROLLBACK");
  return err;
}

std::string used_bytes(sqlite3* db, const std::string& schema, uint64_t* out) {
  // A database in rollback-journal mode answers the checkpoint with an
  // ordinary row and changes nothing.
  std::string err = exec(db, "PRAGMA " + schema + ".wal_checkpoint(TRUNCATE)");
  int64_t pages = 0, free_pages = 0, page_size = 0;
  if (err.empty()) err = query_int(db, "PRAGMA " + schema + ".page_count", &pages);
  if (err.empty()) err = query_int(db, "PRAGMA " + schema + ".freelist_count", &free_pages);
  if (err.empty()) err = query_int(db, "PRAGMA " + schema + ".page_size", &page_size);
  if (err.empty()) *out = static_cast<uint64_t>((pages - free_pages) * page_size);
  return err;
}

}  // namespace zqbench
