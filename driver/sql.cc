// Small SQLite helpers for the driver's own tables (base tables and the
// catalog): quoting, prepared statements and failure messages.
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "driver/internal.h"

namespace zq {

std::string quote_ident(std::string_view ident) {
  std::string out = "\"";
  for (char c : ident) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

Stmt::Stmt(Database& db, const std::string& sql) : kept_(true) {
  int rc = SQLITE_OK;
  st_ = db.statement(sql, &rc);
}

void Stmt::let_go() {
  if (!kept_) {
    sqlite3_finalize(st_);
  } else if (st_ != nullptr) {
    sqlite3_reset(st_);
    sqlite3_clear_bindings(st_);
  }
  st_ = nullptr;
  kept_ = false;
}

int Stmt::prepare(sqlite3* db, const std::string& sql) {
  let_go();
  return sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &st_, nullptr);
}

void Stmt::adopt(sqlite3_stmt* st) {
  let_go();
  st_ = st;
}

sqlite3_stmt* Stmt::release() {
  sqlite3_stmt* st = st_;
  st_ = nullptr;
  return st;
}

Stmt& Stmt::bind(int i, int64_t v) {
  sqlite3_bind_int64(st_, i, v);
  return *this;
}

Stmt& Stmt::bind(int i, double v) {
  sqlite3_bind_double(st_, i, v);
  return *this;
}

Stmt& Stmt::bind(int i, std::string_view v) {
  sqlite3_bind_text(st_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
  return *this;
}

Stmt& Stmt::bind_value(int i, sqlite3_value* v) {
  sqlite3_bind_value(st_, i, v);
  return *this;
}

int Stmt::step() {
  const int rc = sqlite3_step(st_);
  // A finished statement is reset at once so it never holds up a COMMIT.
  if (rc != SQLITE_ROW) sqlite3_reset(st_);
  return rc;
}

void Stmt::reset() {
  sqlite3_reset(st_);
  sqlite3_clear_bindings(st_);
}

int64_t Stmt::int64(int col) const {
  return sqlite3_column_int64(st_, col);
}

double Stmt::real(int col) const {
  return sqlite3_column_double(st_, col);
}

}  // namespace zq

namespace zq::detail {

std::string qualified(const std::string& schema, const std::string& table) {
  return quote_ident(schema) + "." + quote_ident(table);
}

std::string file_trouble(const std::string& path, int rc) {
  const std::string dir = std::filesystem::path(path).parent_path().string();
  const std::string shown = dir.empty() ? "." : dir;
  const bool dir_read_only = !path.empty() && ::access(shown.c_str(), W_OK) != 0;
  if (rc == SQLITE_READONLY_DIRECTORY || ((rc & 0xff) == SQLITE_CANTOPEN && dir_read_only))
    return "the journal of '" + path + "' cannot be created: its directory '" + shown +
           "' is read-only, and SQLite keeps the database's -wal and -shm files beside it; "
           "make the directory writable or move the database\n";
  if ((rc & 0xff) == SQLITE_BUSY)
    return "database '" + path +
           "' is locked by another process; waited for it as long as --busy-timeout allows (5 s "
           "unless set, also ZQRTREE_BUSY_TIMEOUT)\n";
  return {};
}

Status sql_failure(sqlite3* db, std::string_view what) {
  const char* file = sqlite3_db_filename(db, "main");
  return Status::io(file_trouble(file != nullptr ? file : "", sqlite3_extended_errcode(db)) +
                    std::string(what) + ": " + sqlite3_errmsg(db));
}

Status exec(sqlite3* db, const std::string& sql, std::string_view what) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) == SQLITE_OK) return Status::ok();
  const char* file = sqlite3_db_filename(db, "main");
  std::string msg = file_trouble(file != nullptr ? file : "", sqlite3_extended_errcode(db)) +
                    std::string(what) + ": " + (err != nullptr ? err : "unknown SQLite error");
  sqlite3_free(err);
  return Status::io(msg);
}

bool table_exists(sqlite3* db, const std::string& schema, const std::string& table) {
  Stmt st(db, "SELECT 1 FROM " + quote_ident(schema) +
                  ".sqlite_schema WHERE type = 'table' AND name = ?1");
  if (!st.ok()) return false;
  st.bind(1, table);
  return st.step() == SQLITE_ROW;
}

}  // namespace zq::detail
