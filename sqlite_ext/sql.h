/* The zqrtree SQLite extension: the few SQL helpers its own statements need
 * (the index's tables belong to the driver; these run the extension's
 * bookkeeping, journal and cursor statements on the caller's connection).
 *
 * Every file of the extension includes <sqlite3ext.h> through this header, so
 * all SQLite calls go through the routine table the entry point received. */
#ifndef ZQ_SQLITE_EXT_SQL_H
#define ZQ_SQLITE_EXT_SQL_H

#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT3

#include <cstdint>
#include <string>
#include <string_view>

namespace zqext {

// "name" with embedded quotes doubled.
std::string quote(std::string_view ident);
// ASCII lower case: SQLite compares identifiers without case.
std::string lower(std::string_view text);

// A prepared statement, finalized on every path.
class Stmt {
 public:
  Stmt() = default;
  Stmt(sqlite3* db, const std::string& sql) { prepare(db, sql); }
  ~Stmt() { sqlite3_finalize(st_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  // Replaces the statement; SQLITE_OK or the prepare error.
  int prepare(sqlite3* db, const std::string& sql);
  // Takes over a prepared statement, or gives it up unfinalized.
  void adopt(sqlite3_stmt* st) {
    sqlite3_finalize(st_);
    st_ = st;
  }
  sqlite3_stmt* release() {
    sqlite3_stmt* st = st_;
    st_ = nullptr;
    return st;
  }
  bool ok() const { return st_ != nullptr; }
  sqlite3_stmt* get() const { return st_; }
  Stmt& bind(int i, int64_t v);
  Stmt& bind(int i, double v);
  Stmt& bind(int i, std::string_view v);
  Stmt& bind_value(int i, sqlite3_value* v);
  int step() { return sqlite3_step(st_); }
  void reset();
  int64_t int64(int col) const { return sqlite3_column_int64(st_, col); }
  double real(int col) const { return sqlite3_column_double(st_, col); }

 private:
  sqlite3_stmt* st_ = nullptr;
};

// Runs SQL text without result rows; "" or SQLite's message.
std::string exec(sqlite3* db, const std::string& sql);

}  // namespace zqext

#endif
