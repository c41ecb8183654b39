// zqrtree_query: every entry that meets an operator (or an OR-combination)
// against a box, as rows (id, box), read through one reading handle with
// the library's cursor. The cursor compares the first two axes; a 3-axis
// index's hits are rechecked on all three before they are returned.
#include "pg/ext/args.h"
#include "pg/ext/op.h"
#include "zqrtree/cursor.h"

extern "C" {
#include "funcapi.h"
#include "utils/tuplestore.h"
}

extern "C" {
PG_FUNCTION_INFO_V1(zqrtree_query);
}

extern "C" Datum zqrtree_query(PG_FUNCTION_ARGS) {
  zqpg::Op op;
  zqpg::op_begin(&op, PG_GETARG_TEXT_PP(0), false);
  const uint32_t bits = zqpg::op_arg(PG_GETARG_TEXT_PP(1));
  const rtr_rect query = zqpg::box_arg(PG_GETARG_ARRAYTYPE_P(2), op.dims);
  InitMaterializedSRF(fcinfo, 0);
  auto* rsinfo = reinterpret_cast<ReturnSetInfo*>(fcinfo->resultinfo);
  ZQ_OP_TRY(&op) {
    rtr_mem* rtr = zqpg::op_handle(&op, 0);
    rcur cur;
    rcur_init(&cur, rtr, bits);
    int32_t rc = rcur_open(op.env, &cur, &query);
    zqpg::op_check(&op, rc, "searching the index");
    while (rcur_is_end(&cur) == 0) {
      rtr_cell hit;
      zqpg::op_check(&op, rcur_column(op.env, &cur, &hit), "reading a hit");
      if (op.dims < 3 || zqpg::matches(bits, hit.rect, query, op.dims)) {
        ArrayType* box = zqpg::box_array(hit.rect, op.dims);
        Datum values[2] = {Int64GetDatum(hit.id), PointerGetDatum(box)};
        bool nulls[2] = {false, false};
        tuplestore_putvalues(rsinfo->setResult, rsinfo->setDesc, values, nulls);
        pfree(box);
      }
      zqpg::op_check(&op, rcur_next(op.env, &cur), "searching the index");
    }
  }
  ZQ_OP_END(&op);
  return static_cast<Datum>(0);
}
