// The extension's SQL functions:
//   zqrtree_load(table, query[, fill])  bulk build from a query's rows
//   zqrtree_defer(table, on)            switch deferred mode; returns it
//   zqrtree_apply(table)                move pending changes into the tree now
//   zqrtree_check(table)                'ok' or the tree's first violation
//   zqrtree_repack(table[, fill])       rebuild the tree from its entries
//   zqrtree_repair(table)               rebuild a damaged tree from its leaf rows
//   zqrtree_fault_alloc(n)              test builds: the nth host allocation fails
//   zqrtree_fault_engine(n)             test builds: the nth node-table engine call fails
//   zqrtree_undo_armed()                internal: read by the journal's triggers
// Each takes the connection's Conn as its user data.
#include <string>

#include "driver/tree_stats.h"
#include "sqlite_ext/ext.h"

#ifdef ZQ_HAVE_CHECK
#include "check/check.h"
#endif

namespace zqext {

namespace {

Conn* conn_of(sqlite3_context* ctx) {
  return static_cast<Conn*>(sqlite3_user_data(ctx));
}

void result_error(sqlite3_context* ctx, const std::string& message) {
  sqlite3_result_error(ctx, message.c_str(), static_cast<int>(message.size()));
}

std::string text_arg(sqlite3_value* v) {
  const unsigned char* text = sqlite3_value_text(v);
  return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

// The table named by the first argument, or null with the error reported.
Table* table_arg(sqlite3_context* ctx, sqlite3_value** argv, const char* function) {
  std::string error;
  Conn* conn = conn_of(ctx);
  Table* t = find_table(conn, text_arg(argv[0]), &error);
  if (t != nullptr) error = conn->refresh();
  // The functions read the node table itself: the open transaction's
  // changes must be there.
  if (t != nullptr && error.empty())
    if (zq::Status s = t->txn.checkpoint(); !s) error = s.message();
  if (!error.empty()) {
    result_error(ctx, std::string(function) + ": " + error);
    return nullptr;
  }
  return t;
}

// A statement of the caller that writes is running: the driver's own
// transaction cannot be opened under it.
bool writer_running(sqlite3* db) {
  for (sqlite3_stmt* st = sqlite3_next_stmt(db, nullptr); st != nullptr;
       st = sqlite3_next_stmt(db, st))
    if (sqlite3_stmt_busy(st) && !sqlite3_stmt_readonly(st)) return true;
  return false;
}

// Rows of the caller's query as entries: id, then min and max of each axis.
class QuerySource : public zq::EntrySource {
 public:
  QuerySource(sqlite3* db, const std::string& sql, int dims) : dims_(dims) {
    if (stmt_.prepare(db, sql) != SQLITE_OK)
      error_ = sqlite3_errmsg(db);
    else if (sqlite3_column_count(stmt_.get()) != 1 + 2 * dims)
      error_ = "the query gives " + std::to_string(sqlite3_column_count(stmt_.get())) +
               " columns; expected " + std::to_string(1 + 2 * dims) +
               " (id, then min and max of each axis)";
  }
  const std::string& error() const { return error_; }

  bool next(zq::Entry* entry, zq::Status* status) override {
    const int rc = stmt_.step();
    if (rc != SQLITE_ROW) {
      if (rc != SQLITE_DONE)
        *status = zq::Status::io(where() + ": " + sqlite3_errmsg(sqlite3_db_handle(stmt_.get())));
      return false;
    }
    ++row_;
    sqlite3_stmt* st = stmt_.get();
    if (sqlite3_column_type(st, 0) != SQLITE_INTEGER) {
      *status = zq::Status::invalid(where() + ": the id is not an integer");
      return false;
    }
    *entry = zq::Entry{sqlite3_column_int64(st, 0), zq::Box{}};
    for (int c = 1; c <= 2 * dims_; ++c) {
      const int type = sqlite3_column_type(st, c);
      if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) {
        *status =
            zq::Status::invalid(where() + ": column " + std::to_string(c + 1) + " is not a number");
        return false;
      }
      set_side(&entry->box, c - 1, sqlite3_column_double(st, c));
    }
    return true;
  }
  std::string where() const override { return "row " + std::to_string(row_) + " of the query"; }

 private:
  Stmt stmt_;
  int dims_;
  uint64_t row_ = 0;
  std::string error_;
};

bool is_number(sqlite3_value* v) {
  const int type = sqlite3_value_numeric_type(v);
  return type == SQLITE_INTEGER || type == SQLITE_FLOAT;
}

// A load or rebuild runs as a transaction of its own, with nothing waiting.
bool own_transaction(sqlite3_context* ctx, Table* t, const char* function) {
  sqlite3* db = t->conn->db;
  if (sqlite3_get_autocommit(db) == 0 || writer_running(db)) {
    result_error(ctx, std::string(function) +
                          ": runs as a transaction of its own; call it from a plain SELECT "
                          "outside BEGIN ... COMMIT");
    return false;
  }
  uint64_t applied = 0;
  if (zq::Status s = apply_pending(t, &applied, true); !s) {
    result_error(ctx, failure(*t, s.message()));
    return false;
  }
  return true;
}

void fn_load(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_load");
  // Pending changes go in first: the build starts from the tree, which then
  // holds every row, so nothing may stay pending.
  if (t == nullptr || !own_transaction(ctx, t, "zqrtree_load")) return;
  sqlite3* db = t->conn->db;
  zq::LoadOptions options;
  if (argc > 2) {
    if (!is_number(argv[2]))
      return result_error(ctx,
                          "zqrtree_load: fill factor '" + text_arg(argv[2]) + "' is not a number");
    options.fill = sqlite3_value_double(argv[2]);
  }
  QuerySource source(db, text_arg(argv[1]), t->dims());
  if (!source.error().empty())
    return result_error(ctx, failure(*t, "zqrtree_load query: " + source.error()));
  uint64_t before = 0, after = 0;
  zq::Status s = t->index.count(&before);
  if (s) s = t->index.load(source, options);
  if (s) s = t->index.count(&after);
  if (!s) return result_error(ctx, failure(*t, "loading: " + s.message()));
  sqlite3_result_int64(ctx, static_cast<sqlite3_int64>(after - before));
}

void fn_repack(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_repack");
  if (t == nullptr || !own_transaction(ctx, t, "zqrtree_repack")) return;
  double fill = zq::kDefaultFill;
  if (argc > 1) {
    if (!is_number(argv[1]))
      return result_error(
          ctx, "zqrtree_repack: fill factor '" + text_arg(argv[1]) + "' is not a number");
    fill = sqlite3_value_double(argv[1]);
  }
  zq::RebuildReport r;
  if (zq::Status s = t->index.repack(fill, &r); !s)
    return result_error(ctx, failure(*t, "repacking: " + s.message()));
  t->reader.drop();
  sqlite3_result_int64(ctx, static_cast<sqlite3_int64>(r.kept));
}

void fn_repair(sqlite3_context* ctx, int, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_repair");
  if (t == nullptr || !own_transaction(ctx, t, "zqrtree_repair")) return;
  zq::RebuildReport r;
  if (zq::Status s = t->index.repair(&r); !s)
    return result_error(ctx, failure(*t, "repairing: " + s.message()));
  t->reader.drop();
  const std::string json =
      "{\"entries\":" + std::to_string(r.kept) + ",\"leaf_rows\":" + std::to_string(r.leaf_rows) +
      ",\"damaged_rows\":" + std::to_string(r.damaged_rows) +
      ",\"duplicates\":" + std::to_string(r.duplicates) +
      ",\"unlisted\":" + std::to_string(r.unlisted) +
      ",\"bad_boxes\":" + std::to_string(r.bad_boxes) + ",\"lost\":" + std::to_string(r.lost) + "}";
  sqlite3_result_text(ctx, json.c_str(), static_cast<int>(json.size()), SQLITE_TRANSIENT);
}

void fn_defer(sqlite3_context* ctx, int, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_defer");
  if (t == nullptr) return;
  const int type = sqlite3_value_numeric_type(argv[1]);
  const int64_t value = sqlite3_value_int64(argv[1]);
  if (type != SQLITE_INTEGER || (value != 0 && value != 1))
    return result_error(ctx, "zqrtree_defer: the mode is 0 or 1, not '" + text_arg(argv[1]) + "'");
  const bool on = value != 0;
  if (zq::Status s = set_deferred(t, on); !s) return result_error(ctx, failure(*t, s.message()));
  sqlite3_result_int(ctx, on ? 1 : 0);
}

void fn_apply(sqlite3_context* ctx, int, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_apply");
  if (t == nullptr) return;
  uint64_t applied = 0;
  if (zq::Status s = apply_pending(t, &applied, true); !s)
    return result_error(ctx, failure(*t, s.message()));
  sqlite3_result_int64(ctx, static_cast<sqlite3_int64>(applied));
}

void fn_stats(sqlite3_context* ctx, int, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_stats");
  if (t == nullptr) return;
  zq::TreeStats st;
  if (zq::Status s = zq::collect_stats(t->index, &st); !s)
    return result_error(ctx, failure(*t, s.message()));
  const std::string json = zq::stats_json(st);
  sqlite3_result_text(ctx, json.c_str(), static_cast<int>(json.size()), SQLITE_TRANSIENT);
}

void fn_check(sqlite3_context* ctx, int, sqlite3_value** argv) {
  Table* t = table_arg(ctx, argv, "zqrtree_check");
  if (t == nullptr) return;
#ifdef ZQ_HAVE_CHECK
  zqcheck::TreeStats stats;
  const zqcheck::CheckResult r =
      zqcheck::check_tree(t->conn->database().session(), t->index.schema().c_str(),
                          t->index.name().c_str(), static_cast<uint16_t>(t->dims()), &stats);
  if (!r.ok) {
    const std::string msg = "node " + std::to_string(r.node_id) + ": " + r.message;
    return sqlite3_result_text(ctx, msg.c_str(), -1, SQLITE_TRANSIENT);
  }
  // The rowid table must place every entry where the tree holds it.
  zq::Status s;
  HandleRef h = t->txn.active() ? t->txn.handle(&s) : t->reader.get(&s);
  std::string problem;
  if (s) s = t->index.verify_rowids(&problem, h.get());
  if (!s) return result_error(ctx, failure(*t, s.message()));
  const std::string msg = problem.empty() ? "ok" : problem;
  sqlite3_result_text(ctx, msg.c_str(), -1, SQLITE_TRANSIENT);
#else
  result_error(ctx, failure(*t, "this build has no tree checker"));
#endif
}

#ifdef ZQ_TEST_HOOKS
// The diagnostics take n >= 0 (0 switches the fault off) and return it.
template <void (zq::Database::*arm)(uint64_t)>
void fn_fault(sqlite3_context* ctx, int, sqlite3_value** argv) {
  const sqlite3_int64 n = sqlite3_value_int64(argv[0]);
  if (n < 0) return result_error(ctx, "zqrtree fault: n must be 0 (off) or positive");
  Conn* conn = conn_of(ctx);
  if (std::string e = conn->open(); !e.empty()) return result_error(ctx, "zqrtree fault: " + e);
  (conn->database().*arm)(static_cast<uint64_t>(n));
  sqlite3_result_int64(ctx, n);
}
#endif

void fn_undo_armed(sqlite3_context* ctx, int, sqlite3_value**) {
  sqlite3_result_int(ctx, conn_of(ctx)->journal.armed() ? 1 : 0);
}

struct Function {
  const char* name;
  int n_args;
  int flags;
  void (*fn)(sqlite3_context*, int, sqlite3_value**);
};

}  // namespace

int register_functions(Conn* conn) {
  // Functions with effects may only be called directly, never from a view or
  // trigger; the journal's triggers need theirs.
  const int direct = SQLITE_UTF8 | SQLITE_DIRECTONLY;
  const Function functions[] = {
      {"zqrtree_load", 2, direct, fn_load},
      {"zqrtree_load", 3, direct, fn_load},
      {"zqrtree_defer", 2, direct, fn_defer},
      {"zqrtree_apply", 1, direct, fn_apply},
      {"zqrtree_check", 1, direct, fn_check},
      {"zqrtree_stats", 1, direct, fn_stats},
      {"zqrtree_repack", 1, direct, fn_repack},
      {"zqrtree_repack", 2, direct, fn_repack},
      {"zqrtree_repair", 1, direct, fn_repair},
#ifdef ZQ_TEST_HOOKS
      {"zqrtree_fault_alloc", 1, direct, fn_fault<&zq::Database::fail_alloc_nth>},
      {"zqrtree_fault_engine", 1, direct, fn_fault<&zq::Database::fail_engine_nth>},
#endif
      {Journal::kArmedFunction, 0, SQLITE_UTF8 | SQLITE_INNOCUOUS, fn_undo_armed},
  };
  for (const Function& f : functions) {
    const int rc = sqlite3_create_function_v2(conn->db, f.name, f.n_args, f.flags, conn, f.fn,
                                              nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return rc;
  }
  return SQLITE_OK;
}

}  // namespace zqext
