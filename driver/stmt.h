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

#include "driver/index.h"

namespace zq {

// A prepared statement, finalized on every path; or one of the Database's
// kept statements, reset and unbound on every path instead.
class Stmt {
 public:
  Stmt(sqlite3* db, const std::string& sql);
  Stmt(Database& db, const std::string& sql);
  // Borrows a kept statement the caller already has (null: not ok()).
  explicit Stmt(sqlite3_stmt* kept)
      : st_(kept), rc_(kept ? SQLITE_OK : SQLITE_ERROR), kept_(true) {}
  ~Stmt();
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  bool ok() const { return rc_ == SQLITE_OK; }
  sqlite3_stmt* get() const { return st_; }
  Stmt& bind(int i, int64_t v);
  Stmt& bind(int i, double v);
  Stmt& bind(int i, const std::string& v);
  int step();  // SQLITE_ROW, SQLITE_DONE or an error code
  void reset();
  int64_t int64(int col) const { return sqlite3_column_int64(st_, col); }
  double real(int col) const { return sqlite3_column_double(st_, col); }

 private:
  sqlite3_stmt* st_ = nullptr;
  int rc_ = SQLITE_OK;
  bool kept_ = false;
};

}  // namespace zq

#endif
