// The SQL functions that make, drop, change and check one index: each call
// is one user operation (op.h) with one library handle, flushed once.
#include <cstring>
#include <new>

#include "check/rules.h"
#include "pg/ext/args.h"
#include "pg/ext/op.h"
#include "zqrtree/bld.h"
#include "zqrtree/errors.h"
#include "zqrtree/tree.h"

extern "C" {
#include "catalog/pg_type_d.h"
#include "executor/spi.h"
#include "fmgr.h"
#include "utils/builtins.h"
#include "utils/lsyscache.h"
}

extern "C" {
PG_FUNCTION_INFO_V1(zqrtree_create);
PG_FUNCTION_INFO_V1(zqrtree_drop);
PG_FUNCTION_INFO_V1(zqrtree_insert);
PG_FUNCTION_INFO_V1(zqrtree_delete);
PG_FUNCTION_INFO_V1(zqrtree_update);
PG_FUNCTION_INFO_V1(zqrtree_check);
}

namespace zqpg {
namespace {

void spi_exec(const char* sql, int nargs, Oid* types, Datum* args, int expect) {
  const int rc = SPI_execute_with_args(sql, nargs, types, args, nullptr, false, 0);
  if (rc != expect) elog(ERROR, "zqrtree: \"%s\" returned %s", sql, SPI_result_code_string(rc));
}

// An empty index is one empty leaf in the root's row: the bulk build of
// nothing.
void build_empty(Op* op) {
  rtr_mem* rtr = op_handle(op, 2);
  zq_memobj storage{};
  zq_memobj* mem = rt_memobj_heap_create_fast_ex(op->env, &storage, 1024, __FILE__, __LINE__);
  if (mem == nullptr) op_fail(op, RTR_ERR_NO_ROOM, "creating the build memory");
  const int32_t rc = rtr_blkload(op->env, mem, rtr, nullptr, 0, 1.0);
  rt_memobj_destroy(op->env, mem);
  op_check(op, rc, "building the empty tree");
}

void write_entry(Op* op, rtr_mem* rtr, int64_t id, const rtr_rect& box, bool insert) {
  const rtr_cell cell{id, box};
  const int32_t rc =
      insert ? rtr_insert(op->env, rtr, &cell) : rtr_delete_by_rowid(op->env, rtr, id, &box);
  if (!insert && rc == RTR_ERR_NOT_FOUND && !op->s->failed)
    ereport(ERROR, (errcode(ERRCODE_NO_DATA_FOUND),
                    errmsg("rowid %lld with box %s is not in index '%s'",
                           static_cast<long long>(id), box_text(box, op->dims), op->name)));
  char what[96];
  snprintf(what, sizeof what, "%s rowid %lld", insert ? "inserting" : "deleting",
           static_cast<long long>(id));
  op_check(op, rc, what);
}

void flush(Op* op, rtr_mem* rtr) {
  op_check(op, rtr_flush_all(op->env, rtr), "writing back the changed nodes");
}

// One id's entry deleted by its stored box (argument `old_arg`) and/or
// inserted with a new one (`new_arg`); -1 leaves that half out. Arguments 0
// and 1 are the index's name and the id.
void change_entry(FunctionCallInfo fcinfo, int old_arg, int new_arg) {
  Op op;
  op_begin(&op, PG_GETARG_TEXT_PP(0), true);
  const int64 id = PG_GETARG_INT64(1);
  const rtr_rect old_box =
      old_arg < 0 ? rtr_rect{} : box_arg(PG_GETARG_ARRAYTYPE_P(old_arg), op.dims);
  const rtr_rect new_box =
      new_arg < 0 ? rtr_rect{} : box_arg(PG_GETARG_ARRAYTYPE_P(new_arg), op.dims);
  ZQ_OP_TRY(&op) {
    rtr_mem* rtr = op_handle(&op, 1);
    if (old_arg >= 0) write_entry(&op, rtr, id, old_box, false);
    if (new_arg >= 0) write_entry(&op, rtr, id, new_box, true);
    flush(&op, rtr);
  }
  ZQ_OP_END(&op);
}

void free_rows(void* rows) {
  delete static_cast<zqcheck::NodeRows*>(rows);
}

// Reads every node row through SPI into `rows`; "" or the first row's problem.
void read_rows(Op* op, zqcheck::NodeRows* rows, char* problem, size_t cap, int64_t* bad_id) {
  char sql[3 * NAMEDATALEN + 96];
  snprintf(sql, sizeof sql, "SELECT id, level, parent_id, cells FROM %s.%s ORDER BY id",
           quote_identifier(get_namespace_name(op->scope.nsp)), quote_identifier(op->node));
  SPI_connect();
  if (SPI_execute(sql, true, 0) != SPI_OK_SELECT) elog(ERROR, "zqrtree: cannot read %s", op->node);
  for (uint64 i = 0; i < SPI_processed && problem[0] == '\0'; ++i) {
    HeapTuple tup = SPI_tuptable->vals[i];
    TupleDesc desc = SPI_tuptable->tupdesc;
    bool null[4];
    const Datum id = SPI_getbinval(tup, desc, 1, &null[0]);
    const Datum level = SPI_getbinval(tup, desc, 2, &null[1]);
    const Datum parent = SPI_getbinval(tup, desc, 3, &null[2]);
    const Datum cells = SPI_getbinval(tup, desc, 4, &null[3]);
    bytea* blob = null[3] ? nullptr : DatumGetByteaPP(cells);
    *bad_id = DatumGetInt64(id);
    try {
      strlcpy(problem,
              rows->add(static_cast<uint16_t>(op->dims), *bad_id,
                        null[1] ? -1 : DatumGetInt32(level), null[2] ? 0 : DatumGetInt64(parent),
                        blob != nullptr ? VARDATA_ANY(blob) : nullptr,
                        blob != nullptr ? static_cast<int>(VARSIZE_ANY_EXHDR(blob)) : -1)
                  .c_str(),
              cap);
    } catch (const std::bad_alloc&) {
      strlcpy(problem, "out of memory while checking", cap);
    }
  }
  SPI_finish();
}

}  // namespace
}  // namespace zqpg

using zqpg::Op;

extern "C" {

Datum zqrtree_create(PG_FUNCTION_ARGS) {
  const int32 dims = PG_GETARG_INT32(1);
  Op op;
  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), true, true);
  if (OidIsValid(op.relid))
    ereport(ERROR,
            (errcode(ERRCODE_DUPLICATE_TABLE),
             errmsg(op.dims != 0 ? "index '%s' already exists"
                                 : "table \"MDRT$%s\" already exists; choose another index name",
                    op.name)));
  if (dims < 1 || dims > 3)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("dimension count %d is not 1, 2 or 3", dims)));
  char sql[NAMEDATALEN * 4 + 256];
  const char* node = quote_identifier(op.node);
  SPI_connect();
  // The cells are stored inline and uncompressed: a node row is read whole
  // on every visit, and its doubles do not compress.
  snprintf(sql, sizeof sql,
           "CREATE TABLE %s (id bigint PRIMARY KEY, level integer NOT NULL,"
           " parent_id bigint NOT NULL, cells bytea NOT NULL);"
           " ALTER TABLE %s ALTER COLUMN cells SET STORAGE PLAIN",
           node, node);
  zqpg::spi_exec(sql, 0, nullptr, nullptr, SPI_OK_UTILITY);
  snprintf(sql, sizeof sql, "INSERT INTO %s.zqrtree_catalog (node, dims) VALUES (%s::regclass, $1)",
           zqpg::ext_schema(), quote_literal_cstr(node));
  Oid types[1] = {INT4OID};
  Datum args[1] = {Int32GetDatum(dims)};
  zqpg::spi_exec(sql, 1, types, args, SPI_OK_INSERT);
  SPI_finish();

  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), true);
  ZQ_OP_TRY(&op) {
    zqpg::build_empty(&op);
  }
  ZQ_OP_END(&op);
  PG_RETURN_VOID();
}

Datum zqrtree_drop(PG_FUNCTION_ARGS) {
  Op op;
  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), true);
  const Oid relid = op.relid;
  char sql[NAMEDATALEN * 4 + 128];
  SPI_connect();
  snprintf(sql, sizeof sql, "DELETE FROM %s.zqrtree_catalog WHERE node = $1", zqpg::ext_schema());
  Oid types[1] = {OIDOID};
  Datum args[1] = {ObjectIdGetDatum(relid)};
  zqpg::spi_exec(sql, 1, types, args, SPI_OK_DELETE);
  snprintf(sql, sizeof sql, "DROP TABLE %s.%s", quote_identifier(get_namespace_name(op.scope.nsp)),
           quote_identifier(op.node));
  zqpg::spi_exec(sql, 0, nullptr, nullptr, SPI_OK_UTILITY);
  SPI_finish();
  zqpg::op_end(&op);
  zqpg::catalog_forget(relid);
  PG_RETURN_VOID();
}

Datum zqrtree_insert(PG_FUNCTION_ARGS) {
  zqpg::change_entry(fcinfo, -1, 2);
  PG_RETURN_VOID();
}

Datum zqrtree_delete(PG_FUNCTION_ARGS) {
  zqpg::change_entry(fcinfo, 2, -1);
  PG_RETURN_VOID();
}

Datum zqrtree_update(PG_FUNCTION_ARGS) {
  zqpg::change_entry(fcinfo, 2, 3);
  PG_RETURN_VOID();
}

Datum zqrtree_check(PG_FUNCTION_ARGS) {
  Op op;
  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), false);
  auto* rows = new (std::nothrow) zqcheck::NodeRows();
  if (rows == nullptr) ereport(ERROR, (errcode(ERRCODE_OUT_OF_MEMORY), errmsg("out of memory")));
  op.cleanup = zqpg::free_rows;
  op.cleanup_arg = rows;
  int64 entries = 0;
  ZQ_OP_TRY(&op) {
    char problem[512] = "";
    int64_t node = 0;
    rtr_mem* rtr = zqpg::op_handle(&op, 0);
    zqpg::read_rows(&op, rows, problem, sizeof problem, &node);
    if (problem[0] == '\0') {
      zqcheck::TreeStats stats;
      zqcheck::CheckResult res = zqcheck::check_rows(*rows, static_cast<uint16_t>(op.dims), &stats);
      if (res.ok) res = zqcheck::search_rows(op.env, rtr, *rows);
      if (!res.ok) {
        node = res.node_id;
        strlcpy(problem, res.message.c_str(), sizeof problem);
      }
      entries = static_cast<int64>(stats.entries);
    } else {
      char corrupt[512];
      snprintf(corrupt, sizeof corrupt, "corrupt row: %s", problem);
      strlcpy(problem, corrupt, sizeof problem);
    }
    if (problem[0] != '\0')
      ereport(ERROR, (errcode(ERRCODE_DATA_CORRUPTED),
                      errmsg("index '%s' is not sound: node %lld: %s", op.name,
                             static_cast<long long>(node), problem)));
  }
  ZQ_OP_END(&op);
  PG_RETURN_INT64(entries);
}

}  // extern "C"
