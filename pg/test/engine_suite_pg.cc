// The engine-interface suite (tests/engine/engine_suite.h) against the
// PostgreSQL host, inside a server backend: zqrtree_engine_suite() runs
// every case and returns one line per case, "ok NAME" or "FAIL NAME: where:
// what". Built only for tests (the module zqrtree_engine_suite, never
// installed), and loaded by its path into a session that has not loaded the
// extension itself.
//
// Each case gets what a user operation gives the library: the operation's
// memory context, a snapshot that sees the operation's own rows, the write
// flag, and a node table made for it.
#include <string>

#include "pg/host/pghost.h"
#include "tests/engine/engine_suite.h"

extern "C" {
#include "access/xact.h"
#include "catalog/namespace.h"
#include "executor/spi.h"
#include "fmgr.h"
#include "lib/stringinfo.h"
#include "nodes/makefuncs.h"
#include "utils/builtins.h"
#include "utils/lsyscache.h"
#include "utils/snapmgr.h"
}

extern "C" {
PG_FUNCTION_INFO_V1(zqrtree_engine_suite);
}

namespace {

void spi(const char* sql) {
  SPI_connect();
  SPI_execute(sql, false, 0);
  SPI_finish();
}

class PgHost : public zqengine::EngineHost {
 public:
  PgHost() {
    s_ = zqpg::backend_session();
    s_->env->n_errs = 0;
    s_->env->active_ptx = nullptr;
    s_->failed = false;
    s_->tables = nullptr;
    s_->sort_pool = zq_sort_pool{};
    s_->sort_pool.session = s_;
    ctx_ = AllocSetContextCreate(CurrentMemoryContext, "engine suite case", ALLOCSET_DEFAULT_SIZES);
    s_->op_ctx = ctx_;
    s_->row_ctx = AllocSetContextCreate(ctx_, "engine suite row", ALLOCSET_DEFAULT_SIZES);
    base_ = RegisterSnapshot(GetTransactionSnapshot());
    snap_ = *base_;
    snap_.curcid = InvalidCommandId;
    s_->snap = &snap_;
    s_->write = true;
    scope_.nsp = InvalidOid;
    hooks_ = rtr_hook{zqpg_get_row_tag,
                      zqpg_rec_is_visible,
                      zqpg_rec_read_visible_version,
                      zqpg_row_delete,
                      zqpg_row_insert,
                      zqpg_row_update_fixed,
                      zqpg_row_update_unfixed,
                      nullptr,
                      nullptr,
                      nullptr,
                      zqpg_row_insert_failed,
                      nullptr};
  }
  ~PgHost() override {
    zqpg::close_tables(s_);
    UnregisterSnapshot(base_);
    s_->op_ctx = nullptr;
    s_->row_ctx = nullptr;
    s_->snap = nullptr;
    MemoryContextDelete(ctx_);
    spi("RESET work_mem");
    if (!dropped_.empty()) spi(dropped_.c_str());
  }

  zq_env* env() override { return s_->env; }
  zq_session* session() override { return s_; }
  zq_scope* scope() override { return &scope_; }
  bool create_node_table(const char* name) override {
    char node[NAMEDATALEN];
    snprintf(node, sizeof node, "MDRT$%s", name);
    // The same layout zqrtree_create makes.
    char sql[512];
    snprintf(sql, sizeof sql,
             "CREATE TABLE %s (id bigint PRIMARY KEY, level integer NOT NULL,"
             " parent_id bigint NOT NULL, cells bytea NOT NULL);"
             " ALTER TABLE %s ALTER COLUMN cells SET STORAGE PLAIN",
             quote_identifier(node), quote_identifier(node));
    spi(sql);
    dropped_ = std::string("DROP TABLE ") + quote_identifier(node);
    const Oid relid = RangeVarGetRelid(makeRangeVar(nullptr, pstrdup(node), -1), NoLock, true);
    scope_.nsp = get_rel_namespace(relid);
    return OidIsValid(relid);
  }
  const rtr_hook& hooks() override { return hooks_; }
  void set_sort_budget(uint64_t bytes) override {
    char sql[64];
    snprintf(sql, sizeof sql, "SET work_mem = '%llukB'",
             static_cast<unsigned long long>(bytes / 1024));
    spi(sql);
  }

 private:
  zq_session* s_;
  MemoryContext ctx_;
  Snapshot base_;
  SnapshotData snap_;
  zq_scope scope_{};
  rtr_hook hooks_{};
  std::string dropped_;  // the case's table goes when the case ends
};

class TextReporter : public zqengine::Reporter {
 public:
  void fail(const char* file, int line, const std::string& what) override {
    if (first_.empty()) first_ = std::string(file) + ":" + std::to_string(line) + ": " + what;
    ++failures_;
  }
  const std::string& first() const { return first_; }
  int failures() const { return failures_; }

 private:
  std::string first_;
  int failures_ = 0;
};

}  // namespace

extern "C" Datum zqrtree_engine_suite(PG_FUNCTION_ARGS) {
  static_cast<void>(fcinfo);  // the suite takes no arguments
  StringInfoData out;
  initStringInfo(&out);
  for (size_t i = 0; i < zqengine::kEngineCaseCount; ++i) {
    const zqengine::EngineCase& c = zqengine::kEngineCases[i];
    char line[1024];
    {
      TextReporter report;
      {
        PgHost host;
        try {
          c.run(host, report);
        } catch (...) {
          report.fail(__FILE__, __LINE__, "an exception left the case");
        }
      }
      if (report.failures() == 0)
        snprintf(line, sizeof line, "ok %s\n", c.name);
      else
        snprintf(line, sizeof line, "FAIL %s: %s (%d failures)\n", c.name, report.first().c_str(),
                 report.failures());
    }
    appendStringInfoString(&out, line);
  }
  PG_RETURN_TEXT_P(cstring_to_text(out.data));
}
