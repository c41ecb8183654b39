// The sorter on PostgreSQL's tuplesort: rows of 8-byte columns (bigint or
// double precision) sorted by the library's keys within work_mem, spilling
// sorted runs to temporary files beyond it, as PostgreSQL's own sorts do.
//
// Call order: nsort_create -> nsort_set_bdta_info (begins the tuplesort) ->
// nsort_put_bdta* -> nsort_sort_it -> nsort_get_bdta until *end ->
// nsort_clear (tuplesort_reset, layout kept) ... -> nsort_destory.
//
// The keys' compare functions are the ones sort2_simple_fun_search hands
// out, and each maps to its type's "<" operator, whose order is the same
// (for doubles: -0 equals +0, NaN after +inf). The tuplesort and its slots
// live in the operation's memory context; the sorter object itself comes
// from the caller's memory object.
#include <algorithm>
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "catalog/pg_operator_d.h"
#include "catalog/pg_type_d.h"
#include "executor/tuptable.h"
#include "miscadmin.h"
#include "utils/tuplesort.h"
}

namespace {

constexpr uint16_t kMaxCols = 64;
constexpr uint16_t kMaxKeys = 8;

enum class State : uint8_t { kNoLayout, kPutting, kSorted, kFailed };

int32_t cmp_double(const zq_datum* a, const zq_datum* b) {
  // Only handed to the library as the double type's identity; the order
  // itself is float8's "<" inside the tuplesort.
  return (a->f64 > b->f64) - (a->f64 < b->f64);
}

int32_t cmp_int64(const zq_datum* a, const zq_datum* b) {
  return (a->i64 > b->i64) - (a->i64 < b->i64);
}

}  // namespace

struct zq_nsort {
  zq_memobj* mem;  // where this object came from
  State state;
  uint16_t n_cols;
  uint16_t col_no[kMaxCols];  // batch column of each sort column
  uint16_t col_type[kMaxCols];
  TupleDesc desc;
  Tuplesortstate* sort;
  TupleTableSlot* in;   // virtual: a batch row going in
  TupleTableSlot* out;  // minimal tuples coming out
  uint64_t n_put;       // rows put since the last clear
  uint64_t n_taken;     // rows handed back since the sort
};

namespace {

zq_session* session() {
  return zqpg::backend_session();
}

Oid type_oid(uint16_t type) {
  return type == ZQ_TYPE_BIGINT ? INT8OID : FLOAT8OID;
}

int32_t begin_sort(zq_nsort* s, const zq_sort_key_list* keys) {
  AttrNumber atts[kMaxKeys];
  Oid ops[kMaxKeys];
  Oid colls[kMaxKeys];
  bool nulls_first[kMaxKeys];
  for (uint16_t i = 0; i < keys->n; ++i) {
    const zq_sort_key& k = keys->keys[i];
    int slot = -1;
    for (uint16_t c = 0; c < s->n_cols; ++c)
      if (s->col_no[c] == k.col_no) slot = c;
    const bool known = (k.cmp == cmp_double && s->col_type[slot] == ZQ_TYPE_DOUBLE) ||
                       (k.cmp == cmp_int64 && s->col_type[slot] == ZQ_TYPE_BIGINT);
    // Descending keys are not needed by the library and not offered.
    if (slot < 0 || !known || k.order != 'A') return zqpg::kErrBadArg;
    atts[i] = static_cast<AttrNumber>(slot + 1);
    ops[i] = s->col_type[slot] == ZQ_TYPE_DOUBLE ? Float8LessOperator : Int8LessOperator;
    colls[i] = InvalidOid;
    nulls_first[i] = true;
  }
  zq_session* ses = session();
  const bool ok = zqpg::pg_call(ses, "nsort_set_bdta_info", [&] {
    MemoryContext old = MemoryContextSwitchTo(ses->op_ctx);
    s->desc = CreateTemplateTupleDesc(s->n_cols);
    for (uint16_t c = 0; c < s->n_cols; ++c)
      TupleDescInitEntry(s->desc, static_cast<AttrNumber>(c + 1), nullptr, type_oid(s->col_type[c]),
                         -1, 0);
    s->in = MakeSingleTupleTableSlot(s->desc, &TTSOpsVirtual);
    s->out = MakeSingleTupleTableSlot(s->desc, &TTSOpsMinimalTuple);
    s->sort = tuplesort_begin_heap(s->desc, keys->n, atts, ops, colls, nulls_first, work_mem,
                                   nullptr, TUPLESORT_NONE);
    MemoryContextSwitchTo(old);
  });
  return ok ? 0 : zqpg::kErrPostgres;
}

void end_sort(zq_nsort* s) {
  // Runs on failure paths too, where PostgreSQL's abort frees it all anyway.
  zq_session* ses = session();
  if (ses->failed) return;
  zqpg::pg_call(ses, "nsort_destory", [&] {
    if (s->sort != nullptr) tuplesort_end(s->sort);
    if (s->in != nullptr) ExecDropSingleTupleTableSlot(s->in);
    if (s->out != nullptr) ExecDropSingleTupleTableSlot(s->out);
  });
  s->sort = nullptr;
  s->in = s->out = nullptr;
}

}  // namespace

extern "C" {

zq_cmp_fn sort2_simple_fun_search(zq_env*, uint16_t type) {
  if (type == ZQ_TYPE_DOUBLE) return cmp_double;
  if (type == ZQ_TYPE_BIGINT) return cmp_int64;
  return nullptr;
}

zq_nsort* nsort_create(zq_env* env, zq_memobj* mem, uint32_t, uint32_t, uint32_t, zq_sort_pool*,
                       uint32_t) {
  if (mem == nullptr || mem->alloc == nullptr) return nullptr;
  void* block = mem->alloc(env, mem->heap, sizeof(zq_nsort), __FILE__, __LINE__);
  if (block == nullptr) return nullptr;
  memset(block, 0, sizeof(zq_nsort));
  auto* s = static_cast<zq_nsort*>(block);
  s->mem = mem;
  s->state = State::kNoLayout;
  return s;
}

int32_t nsort_set_bdta_info(zq_env*, zq_nsort* s, const zq_sort_col_list* cols, uint32_t,
                            const zq_sort_key_list* keys, uint32_t) {
  if (s == nullptr || cols == nullptr || keys == nullptr) return zqpg::kErrBadArg;
  if (s->state != State::kNoLayout) return zqpg::kErrBadState;
  if (cols->n == 0 || cols->n > kMaxCols || keys->n == 0 || keys->n > kMaxKeys)
    return zqpg::kErrBadArg;
  for (uint16_t i = 0; i < cols->n; ++i) {
    const uint16_t type = cols->cols[i].type;
    if (type != ZQ_TYPE_BIGINT && type != ZQ_TYPE_DOUBLE) return zqpg::kErrBadArg;
    s->col_no[i] = cols->cols[i].col_no;
    s->col_type[i] = type;
  }
  s->n_cols = cols->n;
  const int32_t rc = begin_sort(s, keys);
  if (rc < 0) return rc;
  s->state = State::kPutting;
  return 0;
}

int32_t nsort_put_bdta(zq_env*, zq_nsort* s, zq_bdta* bdta) {
  if (s == nullptr || s->state != State::kPutting) return zqpg::kErrBadState;
  for (uint16_t c = 0; c < s->n_cols; ++c)
    if (s->col_no[c] >= bdta->n_cols || bdta->cols[s->col_no[c]].cap < bdta->n_rows)
      return zqpg::kErrBadArg;
  const bool ok = zqpg::pg_call(session(), "nsort_put_bdta", [&] {
    TupleTableSlot* slot = s->in;
    for (uint32_t r = 0; r < bdta->n_rows; ++r) {
      ExecClearTuple(slot);
      for (uint16_t c = 0; c < s->n_cols; ++c) {
        const zq_bdta_col& col = bdta->cols[s->col_no[c]];
        slot->tts_isnull[c] = col.notnull[r] == 0;
        slot->tts_values[c] = s->col_type[c] == ZQ_TYPE_BIGINT ? Int64GetDatum(col.data[r].i64)
                                                               : Float8GetDatum(col.data[r].f64);
      }
      ExecStoreVirtualTuple(slot);
      tuplesort_puttupleslot(s->sort, slot);
    }
  });
  if (ok) s->n_put += bdta->n_rows;
  if (!ok) s->state = State::kFailed;
  return ok ? 0 : zqpg::kErrPostgres;
}

int32_t nsort_sort_it(zq_env*, zq_nsort* s) {
  if (s == nullptr || s->state == State::kNoLayout || s->state == State::kFailed)
    return zqpg::kErrBadState;
  if (s->state == State::kSorted) return 0;
  s->state = State::kSorted;
  const bool ok =
      zqpg::pg_call(session(), "nsort_sort_it", [&] { tuplesort_performsort(s->sort); });
  if (!ok) s->state = State::kFailed;
  return ok ? 0 : zqpg::kErrPostgres;
}

int32_t nsort_get_bdta(zq_env*, zq_memobj*, zq_bdta* bdta, uint32_t max_rows, zq_nsort* s,
                       uint32_t* end) {
  if (s == nullptr || s->state != State::kSorted) return zqpg::kErrBadState;
  uint32_t room = max_rows;
  for (uint16_t c = 0; c < s->n_cols; ++c) {
    if (s->col_no[c] >= bdta->n_cols) return zqpg::kErrBadArg;
    room = std::min(room, bdta->cols[s->col_no[c]].cap);
  }
  // Counted rather than detected by a failed fetch, so the call that takes
  // the last row already reports the end.
  const uint64_t left = s->n_put - s->n_taken;
  if (room > left) room = static_cast<uint32_t>(left);
  uint32_t r = 0;
  const bool ok = zqpg::pg_call(session(), "nsort_get_bdta", [&] {
    for (; r < room; ++r) {
      if (!tuplesort_gettupleslot(s->sort, true, false, s->out, nullptr)) break;
      slot_getallattrs(s->out);
      for (uint16_t c = 0; c < s->n_cols; ++c) {
        zq_bdta_col& col = bdta->cols[s->col_no[c]];
        const Datum d = s->out->tts_values[c];
        col.notnull[r] = s->out->tts_isnull[c] ? 0 : 1;
        if (s->col_type[c] == ZQ_TYPE_BIGINT)
          col.data[r].i64 = DatumGetInt64(d);
        else
          col.data[r].f64 = DatumGetFloat8(d);
      }
    }
  });
  if (!ok) {
    s->state = State::kFailed;
    return zqpg::kErrPostgres;
  }
  bdta->n_rows = r;
  s->n_taken += r;
  if (end != nullptr) *end = s->n_taken == s->n_put ? 1 : 0;
  return 0;
}

void nsort_clear(zq_env*, zq_nsort* s) {
  if (s == nullptr || s->sort == nullptr) return;
  const bool ok = zqpg::pg_call(session(), "nsort_clear", [&] { tuplesort_reset(s->sort); });
  s->state = ok ? State::kPutting : State::kFailed;
  s->n_put = s->n_taken = 0;
}

void nsort_destory(zq_env* env, zq_nsort* s) {
  if (s == nullptr) return;
  end_sort(s);
  zq_memobj* mem = s->mem;
  if (mem != nullptr && mem->free != nullptr) mem->free(env, mem->heap, s);
}

}  // extern "C"
