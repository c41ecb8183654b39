// SQL helpers of the extension: identifier quoting and prepared statements.
#include "sqlite_ext/sql.h"

namespace zqext {

std::string quote(std::string_view ident) {
  std::string out = "\"";
  for (char c : ident) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

int Stmt::prepare(sqlite3* db, const std::string& sql) {
  sqlite3_finalize(st_);
  st_ = nullptr;
  return sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &st_, nullptr);
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

void Stmt::reset() {
  sqlite3_reset(st_);
  sqlite3_clear_bindings(st_);
}

std::string exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) == SQLITE_OK) return "";
  std::string msg = err != nullptr ? err : sqlite3_errmsg(db);
  sqlite3_free(err);
  return msg;
}

}  // namespace zqext
