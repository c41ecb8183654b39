/* The driver's prepared statements, for the driver and the extension alike.
 *
 * A Stmt made from a connection prepares its text and finalizes it on every
 * path. A Stmt made from a Database borrows the statement the Database keeps
 * for that text (prepared once per connection), and resets and unbinds it on
 * every path, so per-row work costs no parse. step() resets a finished
 * statement at once, so it never holds up a COMMIT. */
#ifndef ZQ_DRIVER_STMT_H
#define ZQ_DRIVER_STMT_H

#include <sqlite3.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "driver/index.h"

namespace zq {

// "name" with embedded quotes doubled, for identifiers in SQL text.
std::string quote_ident(std::string_view ident);

// A prepared statement, finalized on every path; or one of the Database's
// kept statements, reset and unbound on every path instead.
class Stmt {
 public:
  Stmt() = default;
  Stmt(sqlite3* db, const std::string& sql) { prepare(db, sql); }
  Stmt(Database& db, const std::string& sql);
  // Borrows a kept statement the caller already has (null: not ok()).
  explicit Stmt(sqlite3_stmt* kept) : st_(kept), kept_(true) {}
  ~Stmt() { let_go(); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  // Replaces the statement with a new one of its own; SQLITE_OK or the
  // prepare error.
  int prepare(sqlite3* db, const std::string& sql);
  // Takes over a prepared statement, or gives it up unfinalized.
  void adopt(sqlite3_stmt* st);
  sqlite3_stmt* release();

  bool ok() const { return st_ != nullptr; }
  sqlite3_stmt* get() const { return st_; }
  Stmt& bind(int i, int64_t v);
  Stmt& bind(int i, double v);
  Stmt& bind(int i, std::string_view v);
  Stmt& bind_value(int i, sqlite3_value* v);
  int step();  // SQLITE_ROW, SQLITE_DONE or an error code
  void reset();
  // Out of line: the extension's files see SQLite's names as macros.
  int64_t int64(int col) const;
  double real(int col) const;

 private:
  void let_go();
  sqlite3_stmt* st_ = nullptr;
  bool kept_ = false;
};

}  // namespace zq

#endif
