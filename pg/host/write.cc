// The callbacks the PostgreSQL host installs in the library: row tags (slot
// 0), visibility against the operation's snapshot (slots 1 and 2), node-row
// delete, insert and updates on the heap and its primary key (slots 3 to 6),
// and the insert-failure notice (slot 10).
//
// Writes go straight to the heap (simple_heap_*) and to the primary key
// (index_insert), skipping the executor: a node write is one heap tuple and
// at most one index entry, and the executor's per-statement setup would cost
// more than the write. Each write is followed by a command-counter increment,
// because the library rewrites rows it wrote moments before, which PostgreSQL
// allows only from a later command. A refused insertion (the id is taken) is
// returned as -1509; any other PostgreSQL error raises inside the ptx.
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "access/heapam.h"
#include "access/htup_details.h"
#include "access/xact.h"
#include "catalog/index.h"
#include "storage/bufmgr.h"
#include "utils/errcodes.h"
#include "utils/snapmgr.h"
}

namespace zqpg {
namespace {

int64_t key_rowid(const zq_key* key) {
  return key->vals[key->n_vals - 1].u.i64;
}

const uint8_t* bytes_of(const zq_value* v) {
  return v->len <= ZQ_VALUE_INLINE_MAX ? v->u.inl : v->ptr;
}

// One node row's column values, as the heap takes them.
struct NodeRow {
  int64_t id;
  int32_t level;
  int64_t parent;
  const uint8_t* cells;
  uint32_t len;
};

// The heap tuple of a row; inside pg_call, in the row context.
HeapTuple form_tuple(Table* t, const NodeRow& r, Datum* id_datum) {
  Datum v[kHeapAtts];
  bool null[kHeapAtts] = {false, false, false, false};
  auto* blob = static_cast<bytea*>(palloc(VARHDRSZ + r.len));
  SET_VARSIZE(blob, VARHDRSZ + r.len);
  if (r.len != 0) memcpy(VARDATA(blob), r.cells, r.len);
  v[kAttId - 1] = Int64GetDatum(r.id);
  v[kAttLevel - 1] = Int32GetDatum(r.level);
  v[kAttParent - 1] = Int64GetDatum(r.parent);
  v[kAttCells - 1] = PointerGetDatum(blob);
  *id_datum = v[kAttId - 1];
  return heap_form_tuple(RelationGetDescr(t->rel), v, null);
}

void index_entry(Table* t, HeapTuple tup, Datum id, bool unchanged) {
  bool null = false;
  index_insert(t->pk, &id, &null, &tup->t_self, t->rel, UNIQUE_CHECK_YES, unchanged, t->pk_info);
}

// Runs one write in the row context; 0 or kErrPostgres.
template <class Fn>
int32_t write_row(zq_session* s, Table* t, const char* func, Fn&& fn) {
  const bool ok = pg_call(s, func, [&] {
    MemoryContext old = MemoryContextSwitchTo(s->row_ctx);
    fn();
    CommandCounterIncrement();
    MemoryContextSwitchTo(old);
    MemoryContextReset(s->row_ctx);
  });
  if (!ok) return kErrPostgres;
  ++t->dver;
  return 0;
}

// The current newest version of the row a callback is to change: the
// cursor's record, or a fresh lookup when there is none.
const PgRec* current(zq_session* s, Table* t, const nbtr_cur* cur, const zq_key* key, int32_t* rc) {
  *rc = 0;
  if (cur != nullptr && cur->rec != nullptr) return rec_of(cur->rec);
  CurState* st = new_state(s);
  if (st == nullptr) {
    *rc = kErrNoMem;
    return nullptr;
  }
  const int32_t found = fetch_newest(s, t, key_rowid(key), true, st);
  *rc = found < 0 ? found : (found == 0 ? kErrNoRow : 0);
  return *rc == 0 ? &st->rec : nullptr;
}

// A row version that the current subtransaction wrote and nobody has
// changed since is overwritten where it lies (WAL-logged) when the new row
// has the same length, as the engine interface's in-place update means: no
// other snapshot can see that version, and any rollback that would undo the
// overwrite takes the version with it. A bulk build writes every node and
// then points it at its parent; a long transaction rewrites the nodes near
// the root again and again: in place, neither leaves a trail of versions
// for every later lookup of the id to step over. Sets *done when it
// applied; runs inside pg_call.
void overwrite_own_row(Table* t, const PgRec* old, const NodeRow& r, bool* done) {
  HeapTupleData stored;
  stored.t_self = old->tid;
  Buffer buf = InvalidBuffer;
  if (!heap_fetch(t->rel, SnapshotAny, &stored, &buf, false)) return;
  const HeapTupleHeader h = stored.t_data;
  // The writer must be the current subtransaction itself, not an enclosing
  // one: a rollback to a savepoint must take the version with the overwrite.
  const TransactionId current = GetCurrentTransactionIdIfAny();
  const bool own = TransactionIdIsValid(current) &&
                   TransactionIdEquals(HeapTupleHeaderGetXmin(h), current) &&
                   (h->t_infomask & HEAP_XMAX_INVALID) != 0 &&
                   !TransactionIdIsValid(HeapTupleHeaderGetRawXmax(h));
  const uint32 len = stored.t_len;
  ReleaseBuffer(buf);
  if (!own) return;
  Datum id;
  HeapTuple tup = form_tuple(t, r, &id);
  if (tup->t_len != len) return;
  tup->t_self = old->tid;
  heap_inplace_update(t->rel, tup);
  *done = true;
}

int32_t rewrite(zq_ptx* ptx, zq_session* s, Table* t, const PgRec* old, const NodeRow& r,
                const char* func) {
  const int32_t rc = write_row(s, t, func, [&] {
    bool done = false;
    overwrite_own_row(t, old, r, &done);
    if (done) return;
    Datum id;
    HeapTuple tup = form_tuple(t, r, &id);
    ItemPointerData tid = old->tid;
    simple_heap_update(t->rel, &tid, tup);
    if (!HeapTupleIsHeapOnly(tup)) index_entry(t, tup, id, true);
  });
  return rc < 0 ? fail_or_raise(s->env, ptx, rc) : 0;
}

}  // namespace
}  // namespace zqpg

using zqpg::NodeRow;
using zqpg::PgRec;
using zqpg::Table;

extern "C" {

uint16_t zqpg_get_row_tag(const zq_recdesc* desc) {
  // The tag only has to come back unchanged; the descriptor's shape will do.
  return static_cast<uint16_t>(desc->n_cols << 8 | desc->n_key_vals);
}

int32_t zqpg_rec_is_visible(zq_env*, zq_session*, const zq_nrec* rec) {
  return zqpg::rec_of(rec)->visible;
}

int32_t zqpg_rec_read_visible_version(zq_env* env, zq_memobj* scratch, zq_session* s,
                                      const zq_recdesc* desc, const zq_nrec* rec, const zq_nrec*,
                                      zq_fillinfo* out, int32_t* code) {
  *code = 0;
  Table* t = zqpg::table_of_desc(desc);
  zqpg::CurState* st = zqpg::new_state(s);
  if (st == nullptr) {
    *code = zqpg::kErrNoMem;
    return 0;
  }
  const int32_t found = zqpg::fetch_visible(s, t, zqpg::rec_of(rec)->rowid, st);
  if (found <= 0) {
    *code = found;
    return 0;
  }
  for (uint16_t i = 0; i < out->n_cols; ++i) {
    const uint16_t col = out->col_nos[i];
    if (col >= zqpg::kNodeCols) {
      *code = zqpg::kErrBadArg;
      return 0;
    }
    const int32_t rc = zqpg::value_from_rec(env, scratch, &st->rec, col, &out->values[i], nullptr);
    if (rc < 0) {
      *code = rc;
      return 0;
    }
    if (out->lens != nullptr) out->lens[i] = out->values[i].len;
  }
  return 1;
}

int32_t zqpg_row_delete(zq_ptx* ptx, zq_session* s, zq_table* table, zq_index*, const zq_recdesc*,
                        zq_key* key, uint16_t, uint64_t, const zq_nrec* rec) {
  Table* t = zqpg::table_of(table);
  nbtr_cur cur{};
  cur.rec = rec;
  int32_t rc = 0;
  const PgRec* old = zqpg::current(s, t, &cur, key, &rc);
  if (rc < 0) return rc == zqpg::kErrNoRow ? rc : zqpg::fail_or_raise(s->env, ptx, rc);
  rc = zqpg::write_row(s, t, "zqpg_row_delete", [&] {
    ItemPointerData tid = old->tid;
    simple_heap_delete(t->rel, &tid);
  });
  return rc < 0 ? zqpg::fail_or_raise(s->env, ptx, rc) : 0;
}

int32_t zqpg_row_insert(zq_ptx* ptx, zq_session* s, zq_table* table, zq_index*, const zq_recdesc*,
                        zq_row* row, zq_key* key, uint16_t, uint32_t) {
  Table* t = zqpg::table_of(table);
  const zq_value& cells = row->cols[zqpg::kColCells];
  const NodeRow r{key != nullptr ? zqpg::key_rowid(key) : row->cols[row->n_cols - 1].u.i64,
                  row->cols[zqpg::kColLevel].u.i32, row->cols[zqpg::kColParent].u.i64,
                  zqpg::bytes_of(&cells), cells.len};
  const int32_t rc = zqpg::write_row(s, t, "zqpg_row_insert", [&] {
    Datum id;
    HeapTuple tup = zqpg::form_tuple(t, r, &id);
    simple_heap_insert(t->rel, tup);
    zqpg::index_entry(t, tup, id, false);
  });
  if (rc < 0 && s->sqlerrcode == ERRCODE_UNIQUE_VIOLATION) return zqpg::kErrInsertRefused;
  return rc < 0 ? zqpg::fail_or_raise(s->env, ptx, rc) : 0;
}

int32_t zqpg_row_update_fixed(zq_ptx* ptx, zq_session* s, zq_table* table, zq_index*,
                              const zq_recdesc*, zq_key* key, zq_fillinfo* new_values, zq_fillinfo*,
                              uint16_t, uint64_t, nbtr_cur* cur) {
  Table* t = zqpg::table_of(table);
  int32_t rc = 0;
  const PgRec* old = zqpg::current(s, t, cur, key, &rc);
  if (rc < 0) return rc == zqpg::kErrNoRow ? rc : zqpg::fail_or_raise(s->env, ptx, rc);
  NodeRow r{old->rowid, old->level, old->parent, old->cells, old->len};
  for (uint16_t i = 0; i < new_values->n_cols; ++i) {
    const zq_value& v = new_values->values[i];
    switch (new_values->col_nos[i]) {
      case zqpg::kColLevel:
        r.level = v.u.i32;
        break;
      case zqpg::kColParent:
        r.parent = v.u.i64;
        break;
      case zqpg::kColSys:
        break;  // virtual: nothing stored
      default:
        return zqpg::kErrBadArg;  // only fixed-width columns are updated in place
    }
  }
  return zqpg::rewrite(ptx, s, t, old, r, "zqpg_row_update_fixed");
}

int32_t zqpg_row_update_unfixed(zq_ptx* ptx, zq_session* s, zq_table* table, zq_index*,
                                const zq_recdesc*, zq_key* key, zq_row* new_row, zq_fillinfo*,
                                uint16_t, uint64_t, nbtr_cur* cur) {
  Table* t = zqpg::table_of(table);
  int32_t rc = 0;
  const PgRec* old = zqpg::current(s, t, cur, key, &rc);
  if (rc < 0) return rc == zqpg::kErrNoRow ? rc : zqpg::fail_or_raise(s->env, ptx, rc);
  const zq_value& cells = new_row->cols[zqpg::kColCells];
  const NodeRow r{old->rowid, new_row->cols[zqpg::kColLevel].u.i32,
                  new_row->cols[zqpg::kColParent].u.i64, zqpg::bytes_of(&cells), cells.len};
  return zqpg::rewrite(ptx, s, t, old, r, "zqpg_row_update_unfixed");
}

void zqpg_row_insert_failed(zq_env*, int32_t) {
  // The refusal is already the session's failure: the operation reports it.
}

}  // extern "C"
