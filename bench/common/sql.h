// What the runners that speak SQL to SQLite share: owning handles, a
// statement run for its effect or for one integer, the R*Tree user's column
// list and window statement, and the bytes a database's pages hold.
#ifndef ZQ_BENCH_COMMON_SQL_H
#define ZQ_BENCH_COMMON_SQL_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

#include "bench/common/workload.h"

namespace zqbench {

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtCloser {
  void operator()(sqlite3_stmt* st) const { sqlite3_finalize(st); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtCloser>;

// Every function returns "" or a message naming the statement or file.
std::string open_db(const std::string& path, int flags, Db* out);
std::string sql_error(sqlite3* db, const std::string& what);
std::string exec(sqlite3* db, const std::string& sql);
// Prepared to be stepped many times (SQLITE_PREPARE_PERSISTENT).
std::string prepare(sqlite3* db, const std::string& sql, Stmt* out);
// The integer in the first column of the statement's first row.
std::string query_int(sqlite3* db, const std::string& sql, int64_t* out);

// "id, minx, maxx, miny, maxy[, minz, maxz]", the R*Tree's column order.
std::string box_columns(int dims);
// "maxx >= ?1 AND minx <= ?2 AND maxy >= ?3 AND miny <= ?4 ...": the
// window an R*Tree user writes, bound by step_window.
std::string window_where(int dims);
// "INSERT INTO <table> VALUES (?1, ..., ?(1 + 2 * dims))", in box_columns order.
std::string insert_sql(const std::string& table, int dims);

// The statement steps below are what both R*Tree runners time.
// Every entry through `ins` (insert_sql) inside one BEGIN ... COMMIT.
std::string insert_all(sqlite3* db, sqlite3_stmt* ins, const Workload& w);
// One window through `sel` (a SELECT of the id under window_where), stepped
// to its end; its ids go into `hits`.
std::string step_window(sqlite3* db, sqlite3_stmt* sel, const Box& q, int dims, Hits* hits);
// The workload's delete sample through `del` ("... WHERE id = ?1") inside
// one BEGIN ... COMMIT; a delete that removes nothing is a failure.
std::string delete_sample(sqlite3* db, sqlite3_stmt* del, const Workload& w);

// Bytes in use in one schema of the database (page count less free pages,
// times page size), after a WAL checkpoint so the main file holds them all.
std::string used_bytes(sqlite3* db, const std::string& schema, uint64_t* out);

}  // namespace zqbench

#endif
