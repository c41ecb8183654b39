// User operations (see op.h): resolution, lock, snapshot, memory, handles,
// failure reports, and the catalog of indexes.
#include "pg/ext/op.h"

#include <cstring>
#include <string>

#include "driver/index.h"
#include "zqrtree/errors.h"

extern "C" {
#include "access/xact.h"
#include "catalog/namespace.h"
#include "catalog/pg_type_d.h"
#include "commands/dbcommands.h"
#include "executor/spi.h"
#include "lib/stringinfo.h"
#include "miscadmin.h"
#include "nodes/makefuncs.h"
#include "storage/lmgr.h"
#include "utils/builtins.h"
#include "utils/lsyscache.h"
#include "utils/snapmgr.h"
}

namespace zqpg {
namespace {

constexpr int kCatalogCache = 64;

struct CatalogEntry {
  Oid relid;
  int dims;
};
CatalogEntry g_catalog[kCatalogCache];
int g_catalog_n = 0;
char g_ext_schema[2 * NAMEDATALEN + 3] = "";

int sqlstate_of(int32_t rc) {
  switch (rc) {
    case RTR_ERR_NO_ROOM:
      return ERRCODE_OUT_OF_MEMORY;
    case RTR_ERR_NOT_FOUND:
      return ERRCODE_NO_DATA_FOUND;
    case RTR_ERR_NO_ROW:
      return ERRCODE_DATA_CORRUPTED;
    case RTR_ERR_INSERT_FAILED:
      return ERRCODE_UNIQUE_VIOLATION;
    case RTR_ERR_ROW_TOO_BIG:
      return ERRCODE_PROGRAM_LIMIT_EXCEEDED;
    default:
      return ERRCODE_INTERNAL_ERROR;
  }
}

void reset_session(Op* op) {
  op->env->n_errs = 0;
  op->env->active_ptx = nullptr;
  op->s->failed = false;
  op->s->sqlerrcode = 0;
  op->s->message[0] = '\0';
  op->s->tables = nullptr;
  op->s->op_ctx = nullptr;
  op->s->row_ctx = nullptr;
  op->s->snap = nullptr;
  // No sorter outlives an operation: a failed one's share of the budget is
  // given back here.
  op->s->sort_pool = zq_sort_pool{};
  op->s->sort_pool.session = op->s;
}

void destroy_handles(Op* op) {
  for (rtr_mem*& h : op->handles) {
    if (h != nullptr) rtr_mem_destroy(op->env, h);
    h = nullptr;
  }
  if (op->cleanup != nullptr) op->cleanup(op->cleanup_arg);
  op->cleanup = nullptr;
}

void check_name(const char* name) {
  char problem[256] = "";
  strlcpy(problem, zq::name_problem(name).c_str(), sizeof problem);
  if (problem[0] != '\0') bad_input(problem);
  if (strlen(name) > kMaxPgNameLen)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("index name is %zu bytes long; at most %zu are allowed", strlen(name),
                           kMaxPgNameLen)));
}

}  // namespace

void bad_input(const char* message) {
  ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE), errmsg("%s", message)));
}

const char* ext_schema() {
  if (g_ext_schema[0] != '\0') return g_ext_schema;
  SPI_connect();
  const int rc = SPI_execute(
      "SELECT quote_ident(n.nspname) FROM pg_extension e JOIN pg_namespace n"
      " ON n.oid = e.extnamespace WHERE e.extname = 'zqrtree'",
      true, 1);
  if (rc == SPI_OK_SELECT && SPI_processed == 1) {
    char* s = SPI_getvalue(SPI_tuptable->vals[0], SPI_tuptable->tupdesc, 1);
    strlcpy(g_ext_schema, s, sizeof g_ext_schema);
  }
  SPI_finish();
  if (g_ext_schema[0] == '\0')
    ereport(ERROR, (errcode(ERRCODE_UNDEFINED_OBJECT),
                    errmsg("extension \"zqrtree\" is not installed in this database")));
  return g_ext_schema;
}

int catalog_dims(Oid relid) {
  for (int i = 0; i < g_catalog_n; ++i)
    if (g_catalog[i].relid == relid) return g_catalog[i].dims;
  char sql[512];
  snprintf(sql, sizeof sql, "SELECT dims FROM %s.zqrtree_catalog WHERE node = $1", ext_schema());
  Oid types[1] = {OIDOID};
  Datum args[1] = {ObjectIdGetDatum(relid)};
  SPI_connect();
  int dims = 0;
  // Not read-only: the catalog row may be this very statement's.
  if (SPI_execute_with_args(sql, 1, types, args, nullptr, false, 1) == SPI_OK_SELECT &&
      SPI_processed == 1) {
    bool null = false;
    const Datum d = SPI_getbinval(SPI_tuptable->vals[0], SPI_tuptable->tupdesc, 1, &null);
    dims = null ? 0 : DatumGetInt32(d);
  }
  SPI_finish();
  if (dims != 0) {
    if (g_catalog_n == kCatalogCache) g_catalog_n = 0;
    g_catalog[g_catalog_n++] = CatalogEntry{relid, dims};
  }
  return dims;
}

void catalog_forget(Oid relid) {
  for (int i = 0; i < g_catalog_n; ++i)
    if (g_catalog[i].relid == relid) g_catalog[i] = g_catalog[--g_catalog_n];
}

void op_begin(Op* op, text* name, bool write, bool may_be_missing) {
  memset(static_cast<void*>(op), 0, sizeof *op);
  op->env = backend_env();
  op->s = backend_session();
  reset_session(op);
  op->write = write;
  op->caller = CurrentMemoryContext;
  const char* full = text_to_cstring(name);
  check_name(full);
  strlcpy(op->name, full, sizeof op->name);
  strlcpy(op->node, RTR_NODE_TABLE_PREFIX, sizeof op->node);
  strlcat(op->node, op->name, sizeof op->node);

  op->relid = RangeVarGetRelid(makeRangeVar(nullptr, pstrdup(op->node), -1), NoLock, true);
  if (!OidIsValid(op->relid)) {
    if (may_be_missing) return;
    ereport(ERROR,
            (errcode(ERRCODE_UNDEFINED_OBJECT),
             errmsg("no index '%s' in database \"%s\"", op->name, get_database_name(MyDatabaseId)),
             errhint("zqrtree_create makes one; the search path decides the schema")));
  }
  op->dims = catalog_dims(op->relid);
  if (may_be_missing) return;
  if (op->dims == 0)
    ereport(ERROR, (errcode(ERRCODE_UNDEFINED_OBJECT),
                    errmsg("table \"%s\" is not the node table of a zqrtree index", op->node)));
  op->scope.nsp = get_rel_namespace(op->relid);
  if (write) LockRelationOid(op->relid, ExclusiveLock);

  // Taken after the lock: under READ COMMITTED a fresh snapshot that sees
  // the previous writer's commit; otherwise the transaction's own.
  op->base = RegisterSnapshot(write ? GetTransactionSnapshot() : GetActiveSnapshot());
  op->snap = *op->base;
  // The operation's own rows are visible from the command after their
  // write; the library reads them back within the same statement.
  op->snap.curcid = InvalidCommandId;

  op->ctx = AllocSetContextCreate(op->caller, "zqrtree operation", ALLOCSET_DEFAULT_SIZES);
  op->s->op_ctx = op->ctx;
  op->s->row_ctx = AllocSetContextCreate(op->ctx, "zqrtree row", ALLOCSET_DEFAULT_SIZES);
  op->s->snap = &op->snap;
  op->s->write = write;
}

rtr_mem* op_handle(Op* op, int mode) {
  int slot = 0;
  while (slot < kMaxHandles && op->handles[slot] != nullptr) ++slot;
  if (slot == kMaxHandles) op_fail(op, zqpg::kErrBadArg, "opening a third handle");
  const zq_index object{op->name, nullptr, nullptr, nullptr};
  rtr_mem* rtr = nullptr;
  const auto dims = static_cast<uint16_t>(op->dims);
  const int32_t rc =
      mode == 2
          ? rtr_mem_create_for_bld(op->env, op->s, dims, &op->scope, &object, &rtr)
          : rtr_mem_create(op->env, op->s, dims, &op->scope, &object, mode == 0 ? 1 : 0, &rtr);
  if (rc < 0) {
    char what[NAMEDATALEN + 32];
    snprintf(what, sizeof what, "opening index '%s'", op->name);
    op_fail(op, rc, what);
  }
  op->handles[slot] = rtr;
  return rtr;
}

void op_drop_handle(Op* op, rtr_mem* rtr) {
  for (rtr_mem*& h : op->handles) {
    if (h == rtr) {
      rtr_mem_destroy(op->env, h);
      h = nullptr;
    }
  }
}

void op_check(Op* op, int32_t rc, const char* what) {
  if (rc < 0 || op->s->failed) op_fail(op, rc < 0 ? rc : kErrPostgres, what);
}

void op_fail(Op* op, int32_t rc, const char* what) {
  MemoryContextSwitchTo(op->caller);
  zq_session* s = op->s;
  StringInfoData msg;
  initStringInfo(&msg);
  appendStringInfo(&msg, "%s failed (code %d", what, rc);
  if (s->failed) appendStringInfo(&msg, ": %s", s->message);
  appendStringInfoChar(&msg, ')');
  StringInfoData stack;
  initStringInfo(&stack);
  const uint32_t n = op->env->n_errs < kMaxErrs ? op->env->n_errs : kMaxErrs;
  if (n == 0) appendStringInfoString(&stack, "the error stack is empty");
  if (n > 0) appendStringInfoString(&stack, "error stack, innermost first:");
  for (uint32_t i = 0; i < n; ++i)
    appendStringInfo(&stack, "\n  code %d in %s", op->env->errs[i].code, op->env->errs[i].func);
  if (op->env->n_errs > n)
    appendStringInfo(&stack, "\n  (%u more)", static_cast<unsigned>(op->env->n_errs - n));
  const int code = s->failed ? s->sqlerrcode : sqlstate_of(rc);
  ereport(ERROR, (errcode(code), errmsg("%s", msg.data), errdetail_internal("%s", stack.data)));
  pg_unreachable();
}

void op_end(Op* op) {
  destroy_handles(op);
  close_tables(op->s);
  UnregisterSnapshot(op->base);
  MemoryContextSwitchTo(op->caller);
  MemoryContextDelete(op->ctx);
  reset_session(op);
}

void op_abort(Op* op) {
  // Only the library's memory and budget are given back here; tables,
  // snapshot and contexts go with the aborting statement.
  destroy_handles(op);
  reset_session(op);
}

}  // namespace zqpg
