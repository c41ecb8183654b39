// Small SQLite helpers for the driver's own tables (base tables and the
// catalog): quoting, prepared statements and failure messages.
#include <sqlite3.h>

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

Status sql_failure(sqlite3* db, std::string_view what) {
  return Status::io(std::string(what) + ": " + sqlite3_errmsg(db));
}

Status exec(sqlite3* db, const std::string& sql, std::string_view what) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) == SQLITE_OK) return Status::ok();
  std::string msg = std::string(what) + ": " + (err != nullptr ? err : "unknown SQLite error");
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
