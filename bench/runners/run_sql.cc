// The SQL path: SQLite's R*Tree virtual table and our extension driven
// through Debian's shared SQLite by the very same statements, as a user
// choosing between them runs them. Nothing here knows how the extension
// stores an index: it is reached only through its virtual table and its
// functions. One process times one measurement of one system in one
// configuration; bench_compare runs them in interleaved rounds.
//
//   bench_run_sql --workload FILE --variant CONFIG --measure M [--dir DIR]
//                 [--ext PATH] [--fill F]
//
// CONFIG is one of kConfigs. M, in the order a round runs them (later
// measurements open the files earlier ones of the same round built):
//   inserts         a fresh index filled by a prepared INSERT per row, all
//                   rows in one transaction
//   bulk            a fresh index built from the rows of a plain table `src`
//                   in an attached database (filled untimed): SQLite by
//                   INSERT INTO t SELECT * FROM src, ours by zqrtree_load
//                   (the configuration's fill, else the extension's default,
//                   unless --fill is given)
//   query-insert.S  window set S on the index `inserts` built: one
//                   autocommit execution of one prepared SELECT per window
//   query-bulk.S    the same on the index `bulk` built
//   deletes         DELETE FROM t WHERE id = ?1 for the workload's sample in
//                   one transaction, on the index `bulk` built; then the
//                   verify set, untimed, for its hits
// The timed phase is reported as wall_s, cpu_s and ops; builds add the
// index file's bytes in use (size_bytes; the bulk build also src_bytes).
// No query runs before the timed windows: the first ones meet the caches a
// freshly opened database has, as a user's program starting up does.
#include <sqlite3.h>

#include <cstdio>
#include <vector>

#include "bench/common/runner.h"
#include "bench/common/sql.h"

namespace zqbench {
namespace {

enum class System { kSqlite, kOurs };

struct Config {
  const char* name;   // --variant
  const char* label;  // the table's column
  System system;
  std::vector<const char*> pragmas;  // run on every connection right after it opens
  const char* fill = nullptr;        // ours: zqrtree_load's fill, when not its default
};

// Each system's best configuration, in one place, so that ours can follow
// the extension's documented advice (sqlite_ext/README.md, "Speed") as it
// changes. Default is SQLite's own defaults for both: rollback journal,
// 2 MB page cache, the default page size.
const Config kConfigs[] = {
    {"sqlite-default", "SQLite R*Tree, default", System::kSqlite, {}},
    {"sqlite-best", "SQLite R*Tree, best", System::kSqlite, {"PRAGMA cache_size=-262144"}},
    {"zq-default", "ours, default", System::kOurs, {}},
    {"zq-best",
     "ours, best",
     System::kOurs,
     {"PRAGMA journal_mode=WAL", "PRAGMA cache_size=-262144"},
     "0.98"},
};

#ifndef ZQ_BENCH_EXT_PATH
#define ZQ_BENCH_EXT_PATH "zqrtree_ext"
#endif

struct Run {
  const Workload& w;
  const Options& opt;
  Report& report;
  const Config& config;

  // This configuration's database files under --dir: "insert", "bulk", "src".
  std::string stem(const char* what) const {
    return std::string("sql-") + config.name + "-" + what + ".db";
  }

  // A connection as the configuration's user has it: our extension loaded
  // for our system only, then the configuration's pragmas. A database made
  // afresh replaces the previous round's.
  std::string open(const char* what, bool create, Db* db) const {
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    const std::string path = create ? scratch_path(opt, stem(what)) : opt.dir + "/" + stem(what);
    std::string err = open_db(path, flags, db);
    if (!err.empty()) return err;
    if (config.system == System::kOurs) {
      const auto it = opt.extra.find("ext");
      const std::string ext = it != opt.extra.end() ? it->second : ZQ_BENCH_EXT_PATH;
      char* msg = nullptr;
      sqlite3_enable_load_extension(db->get(), 1);
      if (sqlite3_load_extension(db->get(), ext.c_str(), nullptr, &msg) != SQLITE_OK) {
        err = "loading " + ext + ": " + (msg != nullptr ? msg : "?");
        sqlite3_free(msg);
        return err;
      }
      sqlite3_enable_load_extension(db->get(), 0);
    }
    for (const char* pragma : config.pragmas)
      if (!(err = exec(db->get(), pragma)).empty()) return err;
    return "";
  }

  std::string create_table(sqlite3* db) const {
    const char* module = config.system == System::kOurs ? "zqrtree" : "rtree";
    return exec(db, std::string("CREATE VIRTUAL TABLE t USING ") + module + "(" +
                        box_columns(w.dims) + ")");
  }

  std::string report_size(sqlite3* db, const std::string& schema, const char* key) const {
    uint64_t bytes = 0;
    std::string err = used_bytes(db, schema, &bytes);
    if (err.empty()) report.value(key, static_cast<double>(bytes));
    return err;
  }

  std::string inserts() const {
    Db db;
    Stmt ins;
    std::string err = open("insert", true, &db);
    if (err.empty()) err = create_table(db.get());
    if (err.empty()) err = prepare(db.get(), insert_sql("t", w.dims), &ins);
    if (!err.empty()) return err;
    PhaseTimer timer;
    if (!(err = insert_all(db.get(), ins.get(), w)).empty()) return err;
    timer.report(report, w.entries.size());
    return report_size(db.get(), "main", "size_bytes");
  }

  std::string fill_src(sqlite3* db) const {
    Stmt attach, ins;
    std::string err = prepare(db, "ATTACH ?1 AS src", &attach);
    if (!err.empty()) return err;
    const std::string src = scratch_path(opt, stem("src"));
    sqlite3_bind_text(attach.get(), 1, src.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(attach.get()) != SQLITE_DONE) return sql_error(db, "attaching " + src);
    // "id, minx, ..." less its "id": the coordinates keep the doubles they are bound.
    const std::string coords = box_columns(w.dims).substr(2);
    if (!(err = exec(db, "CREATE TABLE src.src(id INTEGER PRIMARY KEY" + coords + ")")).empty())
      return err;
    if (!(err = prepare(db, insert_sql("src.src", w.dims), &ins)).empty()) return err;
    return insert_all(db, ins.get(), w);
  }

  std::string bulk() const {
    Db db;
    std::string err = open("bulk", true, &db);
    if (err.empty()) err = fill_src(db.get());
    if (err.empty()) err = create_table(db.get());
    if (!err.empty()) return err;
    int64_t loaded = 0;
    std::string sql = "INSERT INTO t SELECT * FROM src";
    if (config.system == System::kOurs) {
      sql = "SELECT zqrtree_load('t', 'SELECT * FROM src'";
      if (opt.extra.count("fill") != 0)
        sql += ", " + std::to_string(opt.number("fill", 0));
      else if (config.fill != nullptr)
        sql += std::string(", ") + config.fill;
      sql += ")";
    }
    PhaseTimer timer;
    if (config.system == System::kOurs) {
      err = query_int(db.get(), sql, &loaded);
    } else {
      err = exec(db.get(), sql);
      loaded = sqlite3_changes64(db.get());
    }
    if (!err.empty()) return err;
    timer.report(report, w.entries.size());
    if (loaded != static_cast<int64_t>(w.entries.size()))
      return sql + " added " + std::to_string(loaded) + " rows of " +
             std::to_string(w.entries.size());
    err = report_size(db.get(), "main", "size_bytes");
    if (err.empty()) err = report_size(db.get(), "src", "src_bytes");
    return err.empty() && config.system == System::kOurs ? report_leaf_fill(db.get()) : err;
  }

  // How full the bulk build left the leaves (the last level zqrtree_stats
  // lists), so the report can say which fill the default is.
  std::string report_leaf_fill(sqlite3* db) const {
    Stmt st;
    const char* sql = "SELECT json_extract(zqrtree_stats('t'), '$.levels[#-1].fill')";
    std::string err = prepare(db, sql, &st);
    if (!err.empty()) return err;
    if (sqlite3_step(st.get()) != SQLITE_ROW) return sql_error(db, sql);
    report.value("leaf_fill", sqlite3_column_double(st.get(), 0));
    return "";
  }

  std::string open_window_query(const char* built, Db* db, Stmt* sel) const {
    std::string err = open(built, false, db);
    if (err.empty())
      err = prepare(db->get(), "SELECT id FROM t WHERE " + window_where(w.dims), sel);
    return err;
  }

  std::string windows(const char* built, size_t set) const {
    if (set >= w.sets.size()) return "the workload has no query set " + std::to_string(set);
    Db db;
    Stmt sel;
    std::string err = open_window_query(built, &db, &sel);
    if (!err.empty()) return err;
    Hits hits;
    PhaseTimer timer;
    err = run_query_set(w, set, &hits, [&](const Box& q, Hits* h) {
      return step_window(db.get(), sel.get(), q, w.dims, h);
    });
    if (!err.empty()) return err;
    timer.report(report, w.sets[set].boxes.size());
    report.hits("hits." + std::to_string(set), hits);
    return "";
  }

  std::string deletes() const {
    Db db;
    Stmt sel, del;
    std::string err = open_window_query("bulk", &db, &sel);
    if (err.empty()) err = prepare(db.get(), "DELETE FROM t WHERE id = ?1", &del);
    if (!err.empty()) return err;
    PhaseTimer timer;
    if (!(err = delete_sample(db.get(), del.get(), w)).empty()) return err;
    timer.report(report, w.deletes.size());
    return run_verify_set(w, report, [&](const Box& q, Hits* h) {
      return step_window(db.get(), sel.get(), q, w.dims, h);
    });
  }

  std::string measure(const std::string& m) const {
    report.version(std::string("SQLite ") + sqlite3_libversion());
    if (m == "inserts") return inserts();
    if (m == "bulk") return bulk();
    if (m == "deletes") return deletes();
    for (const char* built : {"insert", "bulk"}) {
      const std::string prefix = std::string("query-") + built + ".";
      if (m.rfind(prefix, 0) == 0 && m.size() > prefix.size())
        return windows(built, std::stoul(m.substr(prefix.size())));
    }
    return "--measure " + m + ": want inserts, bulk, query-insert.SET, query-bulk.SET or deletes";
  }
};

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using namespace zqbench;
  std::vector<Variant> variants;
  for (const Config& c : kConfigs)
    variants.push_back({c.name, c.label, [&c](const Workload& w, const Options& o, Report& r) {
                          const auto it = o.extra.find("measure");
                          if (it == o.extra.end()) return std::string("--measure is missing");
                          return Run{w, o, r, c}.measure(it->second);
                        }});
  return runner_main(argc, argv, variants);
}
