// SQLite's built-in R*Tree virtual table, used as an application would: one
// virtual table, inserts in one transaction through one prepared statement,
// window queries through one prepared SELECT reset per query, deletes by id
// in one transaction. Variants: a database file (WAL, like the host's files)
// and an in-memory database.
#include <sqlite3.h>

#include <cstring>
#include <memory>

#include "bench/common/runner.h"

namespace zqbench {
namespace {

struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtCloser {
  void operator()(sqlite3_stmt* st) const { sqlite3_finalize(st); }
};
using Db = std::unique_ptr<sqlite3, DbCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtCloser>;

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

const char* const kAxis[kMaxDims] = {"x", "y", "z"};

// Columns min0, max0, min1, max1 ... as the virtual table wants them.
std::string columns(int dims) {
  std::string cols = "id";
  for (int k = 0; k < dims; ++k) cols += std::string(", min") + kAxis[k] + ", max" + kAxis[k];
  return cols;
}

// Counts the node-table reads that go through SQL statements, so a second
// untimed pass can say how many nodes a query touches. Reads the R*Tree
// makes another way are invisible here; zero then means "cannot tell".
int count_node_reads(unsigned type, void* ctx, void*, void* x) {
  if (type == SQLITE_TRACE_STMT) {
    const char* sql = static_cast<const char*>(x);
    if (sql != nullptr && std::strstr(sql, "_node") != nullptr &&
        std::strstr(sql, "SELECT") != nullptr)
      ++*static_cast<uint64_t*>(ctx);
  }
  return 0;
}

std::string run(const Workload& w, const Options& opt, Report& report, bool in_memory) {
  const std::string path = in_memory ? ":memory:" : scratch_path(opt, "bench_sqlite_rtree.db");
  sqlite3* raw = nullptr;
  if (sqlite3_open(path.c_str(), &raw) != SQLITE_OK) {
    std::string err = "open " + path + ": " + (raw ? sqlite3_errmsg(raw) : "?");
    sqlite3_close(raw);
    return err;
  }
  Db db(raw);
  report.version(std::string("SQLite ") + sqlite3_libversion());
  std::string err;
  if (!in_memory && !(err = exec(db.get(), "PRAGMA journal_mode=WAL")).empty()) return err;
  if (!(err = exec(db.get(), "CREATE VIRTUAL TABLE rt USING rtree(" + columns(w.dims) + ")"))
           .empty())
    return err;

  const int dims = w.dims;
  {
    Stmt ins;
    std::string marks = "?";
    for (int k = 0; k < 2 * dims; ++k) marks += ", ?";
    if (!(err = prepare(db.get(), "INSERT INTO rt VALUES (" + marks + ")", &ins)).empty())
      return err;
    Stopwatch build;
    if (!(err = exec(db.get(), "BEGIN")).empty()) return err;
    for (const Entry& e : w.entries) {
      sqlite3_bind_int64(ins.get(), 1, e.id);
      for (int k = 0; k < dims; ++k) {
        sqlite3_bind_double(ins.get(), 2 + 2 * k, e.box.lo[k]);
        sqlite3_bind_double(ins.get(), 3 + 2 * k, e.box.hi[k]);
      }
      if (sqlite3_step(ins.get()) != SQLITE_DONE) return sql_error(db.get(), "insert");
      sqlite3_reset(ins.get());
    }
    if (!(err = exec(db.get(), "COMMIT")).empty()) return err;
    const double secs = build.seconds();
    report.value("build_incr_s", secs);
    report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
  }

  Stmt sel;
  std::string where;
  for (int k = 0; k < dims; ++k)
    where +=
        std::string(k ? " AND " : "") + "max" + kAxis[k] + " >= ? AND min" + kAxis[k] + " <= ?";
  if (!(err = prepare(db.get(), "SELECT id FROM rt WHERE " + where, &sel)).empty()) return err;
  auto query = [&](const Box& q, Hits* hits) {
    for (int k = 0; k < dims; ++k) {
      sqlite3_bind_double(sel.get(), 1 + 2 * k, q.lo[k]);
      sqlite3_bind_double(sel.get(), 2 + 2 * k, q.hi[k]);
    }
    int rc;
    while ((rc = sqlite3_step(sel.get())) == SQLITE_ROW)
      hits->add(sqlite3_column_int64(sel.get(), 0));
    sqlite3_reset(sel.get());
    return rc == SQLITE_DONE ? std::string() : sql_error(db.get(), "query");
  };
  if (!(err = run_query_sets(w, report, query)).empty()) return err;

  uint64_t reads = 0;
  sqlite3_trace_v2(db.get(), SQLITE_TRACE_STMT, count_node_reads, &reads);
  for (size_t s = 0; s < w.sets.size(); ++s) {
    const size_t n = std::min<size_t>(w.sets[s].boxes.size(), 1000);
    reads = 0;
    Hits ignored;
    for (size_t i = 0; i < n; ++i)
      if (!(err = query(w.sets[s].boxes[i], &ignored)).empty()) return err;
    if (reads > 0 && n > 0)
      report.value("nodes_per_q." + std::to_string(s), static_cast<double>(reads) / n);
  }
  sqlite3_trace_v2(db.get(), 0, nullptr, nullptr);

  sqlite3_stmt* raw_st = nullptr;
  if (sqlite3_prepare_v2(db.get(),
                         "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size",
                         -1, &raw_st, nullptr) == SQLITE_OK &&
      sqlite3_step(raw_st) == SQLITE_ROW)
    report.value("size_bytes", static_cast<double>(sqlite3_column_int64(raw_st, 0)));
  sqlite3_finalize(raw_st);

  {
    Stmt del;
    if (!(err = prepare(db.get(), "DELETE FROM rt WHERE id = ?", &del)).empty()) return err;
    Stopwatch clock;
    if (!(err = exec(db.get(), "BEGIN")).empty()) return err;
    for (uint64_t pos : w.deletes) {
      sqlite3_bind_int64(del.get(), 1, w.entries[pos].id);
      if (sqlite3_step(del.get()) != SQLITE_DONE) return sql_error(db.get(), "delete");
      if (sqlite3_changes(db.get()) != 1)
        return "delete of id " + std::to_string(w.entries[pos].id) + " removed nothing";
      sqlite3_reset(del.get());
    }
    if (!(err = exec(db.get(), "COMMIT")).empty()) return err;
    const double secs = clock.seconds();
    report.value("delete_per_s", secs > 0 ? w.deletes.size() / secs : 0);
  }
  return run_verify_set(w, report, query);
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using zqbench::Options;
  using zqbench::Report;
  using zqbench::Workload;
  return zqbench::runner_main(
      argc, argv,
      {{"file", "SQLite R*Tree (file)",
        [](const Workload& w, const Options& o, Report& r) {
          return zqbench::run(w, o, r, false);
        }},
       {"memory", "SQLite R*Tree (:memory:)", [](const Workload& w, const Options& o, Report& r) {
          return zqbench::run(w, o, r, true);
        }}});
}
