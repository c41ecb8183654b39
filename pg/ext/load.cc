// zqrtree_load: a bulk build from any query. The index's current entries and
// the query's rows (id, box) go through the sorter keyed on axis 0; once all
// are read and checked the node table is emptied and rtr_blkload packs the
// tree bottom-up into it. The query gives either (id, box double precision[])
// or (id, min0 .. min(d-1), max0 .. max(d-1)) as numbers.
//
// Order: sorter and batch -> current entries (a reading handle, every entry)
// -> the query through an SPI cursor, 1000 rows a fetch -> sort -> DELETE of
// every node row -> build handle -> rtr_blkload.
#include <algorithm>
#include <cstring>

#include "driver/index.h"
#include "pg/ext/args.h"
#include "pg/ext/op.h"
#include "zqrtree/bld.h"
#include "zqrtree/cursor.h"
#include "zqrtree/errors.h"

extern "C" {
#include "catalog/pg_type_d.h"
#include "executor/spi.h"
#include "utils/builtins.h"
#include "utils/lsyscache.h"
}

extern "C" {
PG_FUNCTION_INFO_V1(zqrtree_load);
}

namespace zqpg {
namespace {

constexpr long kFetchRows = 1000;

// One entry's id and where it came from: row n of the query, 0 the index.
struct IdRow {
  int64_t id;
  uint64_t row;
  bool operator<(const IdRow& o) const { return id != o.id ? id < o.id : row < o.row; }
};

struct Loader {
  Op* op;
  zq_memobj storage;
  zq_memobj* mem;
  zq_nsort* sorter;
  zq_bdta* batch;
  IdRow* ids;  // every entry's, in the operation's memory
  uint64_t n_ids;
  uint64_t cap_ids;
  uint64_t count;
};

void end_loader(void* arg) {
  auto* l = static_cast<Loader*>(arg);
  if (l->batch != nullptr) bdta3_free2(l->op->env, l->mem, l->batch);
  if (l->sorter != nullptr) nsort_destory(l->op->env, l->sorter);
  if (l->mem != nullptr) rt_memobj_destroy(l->op->env, l->mem);
  l->batch = nullptr;
  l->sorter = nullptr;
  l->mem = nullptr;
}

void hand_over(Loader* l) {
  op_check(l->op, nsort_put_bdta(l->op->env, l->sorter, l->batch), "sorting the entries");
  bdta3_clear(l->op->env, l->mem, l->batch);
}

// One entry into the sorter; `row` is its query row, 0 for the index's.
// Duplicates are looked for once all are read (find_duplicate): a set
// probed per entry cost a cache miss each, a quarter of a large load.
void put(Loader* l, int64_t id, const rtr_rect& box, uint64_t row) {
  if (l->n_ids == l->cap_ids) {
    l->cap_ids = l->cap_ids == 0 ? 4096 : 2 * l->cap_ids;
    const size_t bytes = l->cap_ids * sizeof(IdRow);
    l->ids = static_cast<IdRow*>(l->ids == nullptr ? MemoryContextAllocHuge(l->op->ctx, bytes)
                                                   : repalloc_huge(l->ids, bytes));
  }
  l->ids[l->n_ids++] = IdRow{id, row};
  const uint16_t dims = static_cast<uint16_t>(l->op->dims);
  rtr_fill_one_row_nsort_bdta(l->op->env, l->mem, dims, id, &box, 0, l->batch);
  ++l->count;
  if (l->batch->n_rows == RTR_BDTA_ROWS) hand_over(l);
}

// ERROR 23505 for the id met a second time first, as a reader going through
// the index's entries and then the query's rows would have met it.
void find_duplicate(Loader* l) {
  std::sort(l->ids, l->ids + l->n_ids);
  const IdRow* first = nullptr;
  const IdRow* again = nullptr;
  for (uint64_t i = 1; i < l->n_ids; ++i) {
    const IdRow& a = l->ids[i - 1];
    const IdRow& b = l->ids[i];
    if (a.id == b.id && (again == nullptr || b.row < again->row)) {
      first = &a;
      again = &b;
    }
  }
  if (again == nullptr) return;
  char where[48] = "the index";
  if (again->row != 0)
    snprintf(where, sizeof where, "query row %llu", static_cast<unsigned long long>(again->row));
  ereport(ERROR, (errcode(ERRCODE_UNIQUE_VIOLATION),
                  errmsg(first->row == 0 ? "%s: duplicate rowid %lld (already in index '%s')"
                                         : "%s: duplicate rowid %lld in the input",
                         where, static_cast<long long>(again->id), l->op->name)));
}

void put_current_entries(Loader* l) {
  Op* op = l->op;
  rtr_mem* rtr = op_handle(op, 0);
  rcur cur;
  rcur_init(&cur, rtr, RTR_OP_ANY | RTR_OP_OR);
  const rtr_rect everywhere{};
  op_check(op, rcur_open(op->env, &cur, &everywhere), "reading the current entries");
  while (rcur_is_end(&cur) == 0) {
    rtr_cell hit;
    op_check(op, rcur_column(op->env, &cur, &hit), "reading the current entries");
    put(l, hit.id, hit.rect, 0);
    op_check(op, rcur_next(op->env, &cur), "reading the current entries");
  }
  op_drop_handle(op, rtr);
}

double number(Datum d, Oid type, bool* ok) {
  double v = 0;
  *ok = number_arg(d, type, &v);
  return v;
}

// The query's row `n` as an entry.
void put_row(Loader* l, HeapTuple tup, TupleDesc desc, uint64_t n) {
  const int dims = l->op->dims;
  char where[48];
  snprintf(where, sizeof where, "query row %llu", static_cast<unsigned long long>(n));
  bool null = false;
  bool ok = false;
  const Datum id_datum = SPI_getbinval(tup, desc, 1, &null);
  const double id_number = null ? 0 : number(id_datum, SPI_gettypeid(desc, 1), &ok);
  if (null || !ok || SPI_gettypeid(desc, 1) == FLOAT8OID || SPI_gettypeid(desc, 1) == FLOAT4OID ||
      SPI_gettypeid(desc, 1) == NUMERICOID)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("%s: the id is %s", where, null ? "null" : "not a whole number column"),
                    errhint("the first column is the rowid: smallint, integer or bigint")));
  const int64_t id =
      SPI_gettypeid(desc, 1) == INT8OID ? DatumGetInt64(id_datum) : static_cast<int64_t>(id_number);
  double v[6] = {0, 0, 0, 0, 0, 0};
  if (desc->natts == 2) {
    const Datum box = SPI_getbinval(tup, desc, 2, &null);
    if (null)
      ereport(ERROR, (errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED), errmsg("%s: null box", where)));
    const rtr_rect r = box_arg(DatumGetArrayTypeP(box), dims);
    put(l, id, r, n);
    return;
  }
  for (int c = 0; c < 2 * dims; ++c) {
    const Datum d = SPI_getbinval(tup, desc, c + 2, &null);
    v[c] = null ? 0 : number(d, SPI_gettypeid(desc, c + 2), &ok);
    if (null || !ok)
      ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                      errmsg("%s: coordinate column %d is %s", where, c + 2,
                             null ? "null" : "not a number")));
  }
  put(l, id, box_of(v, v + dims, dims), n);
}

void put_query(Loader* l, const char* sql) {
  const int dims = l->op->dims;
  SPI_connect();
  SPIParseOpenOptions options{};
  options.read_only = true;
  Portal portal = SPI_cursor_parse_open(nullptr, sql, &options);
  const int natts = portal->tupDesc != nullptr ? portal->tupDesc->natts : 0;
  if (natts != 2 && natts != 1 + 2 * dims)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("the query gives %d columns; a %d-axis index takes (id, box) or"
                           " (id, %d coordinates)",
                           natts, dims, 2 * dims)));
  uint64_t n = 0;
  for (;;) {
    SPI_cursor_fetch(portal, true, kFetchRows);
    if (SPI_processed == 0) break;
    for (uint64 i = 0; i < SPI_processed; ++i)
      put_row(l, SPI_tuptable->vals[i], SPI_tuptable->tupdesc, ++n);
    SPI_freetuptable(SPI_tuptable);
  }
  SPI_cursor_close(portal);
  SPI_finish();
}

void empty_node_table(Op* op) {
  char sql[3 * NAMEDATALEN + 32];
  snprintf(sql, sizeof sql, "DELETE FROM %s.%s",
           quote_identifier(get_namespace_name(op->scope.nsp)), quote_identifier(op->node));
  SPI_connect();
  if (SPI_execute(sql, false, 0) != SPI_OK_DELETE)
    elog(ERROR, "zqrtree: cannot empty %s", op->node);
  SPI_finish();
}

}  // namespace
}  // namespace zqpg

extern "C" Datum zqrtree_load(PG_FUNCTION_ARGS) {
  zqpg::Op op;
  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), true);
  const char* sql = text_to_cstring(PG_GETARG_TEXT_PP(1));
  const double fill = PG_GETARG_FLOAT8(2);
  if (!(fill >= zq::kMinFill && fill <= 1.0))
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("fill factor %g is outside [%.3f, 1]: nodes get trunc(fill x 51) "
                           "entries, at least 2",
                           fill, zq::kMinFill)));
  zqpg::Loader l{};
  l.op = &op;
  // A failed load's sorter may hold a temporary file: closed either way.
  op.cleanup = zqpg::end_loader;
  op.cleanup_arg = &l;
  ZQ_OP_TRY(&op) {
    const uint16_t dims = static_cast<uint16_t>(op.dims);
    l.mem = rt_memobj_heap_create_fast_ex(op.env, &l.storage, 64 * 1024, __FILE__, __LINE__);
    if (l.mem == nullptr) zqpg::op_fail(&op, RTR_ERR_NO_ROOM, "creating the bulk-load memory");
    zqpg::op_check(&op, rtr_sort_create(op.env, zqsess_sort_pool(op.s), l.mem, dims, &l.sorter),
                   "creating the sorter");
    zqpg::op_check(&op, rtr_sort_bdta_crt(op.env, l.mem, dims, &l.batch), "creating a sort batch");

    zqpg::put_current_entries(&l);
    zqpg::put_query(&l, sql);
    zqpg::find_duplicate(&l);
    if (l.batch->n_rows > 0) zqpg::hand_over(&l);
    if (l.count > 0) zqpg::op_check(&op, nsort_sort_it(op.env, l.sorter), "sorting the entries");

    // Only now, with the input read and checked, does the node table change.
    zqpg::empty_node_table(&op);
    rtr_mem* rtr = zqpg::op_handle(&op, 2);
    zqpg::op_check(&op, rtr_blkload(op.env, l.mem, rtr, l.sorter, l.count, fill),
                   "building the tree");
    // The build does not report a failed move of its top node to node 1;
    // the error stack does.
    if (op.env->n_errs > 0) zqpg::op_fail(&op, RTR_ERR_NOT_FOUND, "moving the new root to node 1");
  }
  ZQ_OP_END(&op);
  PG_RETURN_INT64(static_cast<int64>(l.count));
}
