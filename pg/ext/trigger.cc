// zqrtree_trigger: keeps an index in step with a user table. An AFTER ROW
// trigger whose arguments name the index, the id column and the box: one
// double precision[] column, or 2d number columns (all minima, then all
// maxima):
//
//   CREATE TRIGGER parks_zq AFTER INSERT OR UPDATE OR DELETE ON parks
//     FOR EACH ROW EXECUTE FUNCTION zqrtree_trigger('parks', 'id', 'box');
//
// A row with a null box is not indexed. A delete finds its entry by the old
// row's own box, so the index needs no copy of the boxes: the user table is
// where they are kept, as for any PostgreSQL index.
#include "pg/ext/args.h"
#include "pg/ext/op.h"
#include "zqrtree/errors.h"
#include "zqrtree/tree.h"

extern "C" {
#include "catalog/pg_type_d.h"
#include "commands/trigger.h"
#include "executor/spi.h"
#include "utils/builtins.h"
}

extern "C" {
PG_FUNCTION_INFO_V1(zqrtree_trigger);
}

namespace zqpg {
namespace {

struct RowEntry {
  bool present;  // the row has a box
  int64_t id;
  rtr_rect box;
};

int column(TupleDesc desc, const char* name) {
  const int att = SPI_fnumber(desc, name);
  if (att <= 0)
    ereport(ERROR, (errcode(ERRCODE_UNDEFINED_COLUMN),
                    errmsg("zqrtree_trigger: the table has no column \"%s\"", name)));
  return att;
}

double coordinate(HeapTuple tup, TupleDesc desc, int att, bool* null) {
  const Datum d = SPI_getbinval(tup, desc, att, null);
  if (*null) return 0;
  double v = 0;
  if (!number_arg(d, SPI_gettypeid(desc, att), &v))
    ereport(ERROR, (errcode(ERRCODE_DATATYPE_MISMATCH),
                    errmsg("zqrtree_trigger: column %d is not a number", att)));
  return v;
}

RowEntry entry_of(const Op& op, HeapTuple tup, TupleDesc desc, char** args, int nargs) {
  RowEntry e{false, 0, {}};
  bool null = false;
  const Datum id = SPI_getbinval(tup, desc, column(desc, args[1]), &null);
  if (null)
    ereport(ERROR, (errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED),
                    errmsg("zqrtree_trigger: the id column \"%s\" is null", args[1])));
  e.id =
      SPI_gettypeid(desc, column(desc, args[1])) == INT4OID ? DatumGetInt32(id) : DatumGetInt64(id);
  if (nargs == 3) {
    const Datum box = SPI_getbinval(tup, desc, column(desc, args[2]), &null);
    if (null) return e;
    e.box = box_arg(DatumGetArrayTypeP(box), op.dims);
  } else {
    double v[6] = {0, 0, 0, 0, 0, 0};
    for (int c = 0; c < 2 * op.dims; ++c) {
      v[c] = coordinate(tup, desc, column(desc, args[2 + c]), &null);
      if (null) return e;
    }
    e.box = box_of(v, v + op.dims, op.dims);
  }
  e.present = true;
  return e;
}

bool same(const RowEntry& a, const RowEntry& b) {
  return a.present == b.present && a.id == b.id && memcmp(&a.box, &b.box, sizeof a.box) == 0;
}

void apply(Op* op, rtr_mem* rtr, const RowEntry& e, bool insert) {
  if (!e.present) return;
  const rtr_cell cell{e.id, e.box};
  const int32_t rc =
      insert ? rtr_insert(op->env, rtr, &cell) : rtr_delete_by_rowid(op->env, rtr, e.id, &e.box);
  if (!insert && rc == RTR_ERR_NOT_FOUND && !op->s->failed)
    ereport(ERROR, (errcode(ERRCODE_NO_DATA_FOUND),
                    errmsg("rowid %lld with box %s is not in index '%s'",
                           static_cast<long long>(e.id), box_text(e.box, op->dims), op->name),
                    errhint("the index was changed apart from its table")));
  op_check(op, rc, insert ? "inserting the new row's entry" : "deleting the old row's entry");
}

}  // namespace
}  // namespace zqpg

extern "C" Datum zqrtree_trigger(PG_FUNCTION_ARGS) {
  if (!CALLED_AS_TRIGGER(fcinfo))
    ereport(ERROR, (errcode(ERRCODE_E_R_I_E_TRIGGER_PROTOCOL_VIOLATED),
                    errmsg("zqrtree_trigger: not called as a trigger")));
  auto* td = reinterpret_cast<TriggerData*>(fcinfo->context);
  if (!TRIGGER_FIRED_FOR_ROW(td->tg_event) || !TRIGGER_FIRED_AFTER(td->tg_event))
    ereport(ERROR, (errcode(ERRCODE_E_R_I_E_TRIGGER_PROTOCOL_VIOLATED),
                    errmsg("zqrtree_trigger: use it as an AFTER ... FOR EACH ROW trigger")));
  char** args = td->tg_trigger->tgargs;
  const int nargs = td->tg_trigger->tgnargs;
  if (nargs < 3)
    ereport(ERROR,
            (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
             errmsg("zqrtree_trigger: give the index, the id column and the box column(s)")));
  zqpg::Op op;
  zqpg::op_begin(&op, cstring_to_text(args[0]), true);
  if (nargs != 3 && nargs != 2 + 2 * op.dims)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("zqrtree_trigger: a %d-axis index takes one box column or %d"
                           " coordinate columns",
                           op.dims, 2 * op.dims)));
  TupleDesc desc = td->tg_relation->rd_att;
  const bool del = TRIGGER_FIRED_BY_DELETE(td->tg_event) || TRIGGER_FIRED_BY_UPDATE(td->tg_event);
  const bool ins = TRIGGER_FIRED_BY_INSERT(td->tg_event) || TRIGGER_FIRED_BY_UPDATE(td->tg_event);
  const zqpg::RowEntry old_entry =
      del ? zqpg::entry_of(op, td->tg_trigtuple, desc, args, nargs) : zqpg::RowEntry{};
  const zqpg::RowEntry new_entry =
      ins ? zqpg::entry_of(
                op, TRIGGER_FIRED_BY_UPDATE(td->tg_event) ? td->tg_newtuple : td->tg_trigtuple,
                desc, args, nargs)
          : zqpg::RowEntry{};
  if (del && ins && zqpg::same(old_entry, new_entry)) {
    zqpg::op_end(&op);
    return PointerGetDatum(nullptr);
  }
  ZQ_OP_TRY(&op) {
    rtr_mem* rtr = zqpg::op_handle(&op, 1);
    if (del) zqpg::apply(&op, rtr, old_entry, false);
    if (ins) zqpg::apply(&op, rtr, new_entry, true);
    zqpg::op_check(&op, rtr_flush_all(op.env, rtr), "writing back the changed nodes");
  }
  ZQ_OP_END(&op);
  return PointerGetDatum(nullptr);
}
