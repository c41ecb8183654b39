// SQLite's built-in R*Tree virtual table, used as an application would: one
// virtual table, inserts in one transaction through one prepared statement,
// window queries through one prepared SELECT reset per query, deletes by id
// in one transaction. Variants: a database file (WAL, like the host's files)
// and an in-memory database.
#include <cstring>

#include "bench/common/runner.h"
#include "bench/common/sql.h"

namespace zqbench {
namespace {

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
  Db db;
  std::string err = open_db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &db);
  if (!err.empty()) return err;
  report.version(std::string("SQLite ") + sqlite3_libversion());
  if (!in_memory && !(err = exec(db.get(), "PRAGMA journal_mode=WAL")).empty()) return err;
  if (!(err = exec(db.get(), "CREATE VIRTUAL TABLE rt USING rtree(" + box_columns(w.dims) + ")"))
           .empty())
    return err;

  const int dims = w.dims;
  {
    Stmt ins;
    if (!(err = prepare(db.get(), insert_sql("rt", dims), &ins)).empty()) return err;
    Stopwatch build;
    if (!(err = insert_all(db.get(), ins.get(), w)).empty()) return err;
    const double secs = build.seconds();
    report.value("build_incr_s", secs);
    report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
  }

  Stmt sel;
  if (!(err = prepare(db.get(), "SELECT id FROM rt WHERE " + window_where(dims), &sel)).empty())
    return err;
  auto query = [&](const Box& q, Hits* hits) {
    return step_window(db.get(), sel.get(), q, dims, hits);
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

  uint64_t bytes = 0;
  if (!(err = used_bytes(db.get(), "main", &bytes)).empty()) return err;
  report.value("size_bytes", static_cast<double>(bytes));

  {
    Stmt del;
    if (!(err = prepare(db.get(), "DELETE FROM rt WHERE id = ?", &del)).empty()) return err;
    Stopwatch clock;
    if (!(err = delete_sample(db.get(), del.get(), w)).empty()) return err;
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
