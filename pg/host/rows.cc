// Node rows as cursors see them, and the cursors: the exact search
// (nbtr_cur) and the physical cursor (pbcur) over the primary key.
//
// A cursor hands out the newest version of a row: the one SnapshotSelf sees,
// committed by anyone or written by this transaction. As writers of an index
// are serialised by its lock, that is one version per id. Whether the
// operation's snapshot may see it is decided while its buffer is pinned, and
// the version that snapshot does see is read by a second scan on request
// (hook slot 2). A reader whose snapshot predates a writer's commit thus
// meets invisible rows and reads their visible versions; a writer never
// should, and the library halts if it does.
//
// Records are copied out of their buffers at once, so a cursor holds no pin
// and its position outlives its mini-transaction without further work.
//
// Call order: nbtr_cur_init -> nbtr_cur_search*; pbcur_init_low ->
// pbcur_open -> pbcur_move_to_right_user_rec* [-> pbcur_save_position_inner]
// -> pbcur_close.
#include <climits>
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "access/genam.h"
#include "access/skey.h"
#include "access/stratnum.h"
#include "access/tableam.h"
#include "executor/tuptable.h"
#include "utils/fmgroids.h"
#include "utils/snapmgr.h"
}

namespace zqpg {

const PgRec kMaxRec{kRecMaxBit, 0, 0, 0, 0, {}, 0, nullptr};

namespace {

// Copies the slot's row into the state; runs inside pg_call.
void copy_row(zq_session* s, Table* t, CurState* st) {
  TupleTableSlot* slot = t->slot;
  slot_getallattrs(slot);
  const Datum* v = slot->tts_values;
  const bool* null = slot->tts_isnull;
  PgRec& r = st->rec;
  r.flags = 0;
  r.rowid = null[kAttId - 1] ? 0 : DatumGetInt64(v[kAttId - 1]);
  r.level = null[kAttLevel - 1] ? 0 : DatumGetInt32(v[kAttLevel - 1]);
  r.parent = null[kAttParent - 1] ? 0 : DatumGetInt64(v[kAttParent - 1]);
  r.tid = slot->tts_tid;
  r.len = 0;
  if (null[kAttCells - 1]) return;
  MemoryContext old = MemoryContextSwitchTo(s->row_ctx);
  bytea* blob = DatumGetByteaPP(v[kAttCells - 1]);
  MemoryContextSwitchTo(old);
  const uint32_t len = VARSIZE_ANY_EXHDR(blob);
  if (len > st->cap) {
    const uint32_t cap = len < 4096 ? 4096 : len;
    st->rec.cells = static_cast<uint8_t*>(st->cap == 0 ? MemoryContextAlloc(s->op_ctx, cap)
                                                       : repalloc(st->rec.cells, cap));
    st->cap = cap;
  }
  memcpy(st->rec.cells, VARDATA_ANY(blob), len);
  r.len = len;
}

IndexScanDesc scan_of(Table* t, Snapshot snap, IndexScanDesc* kept, zq_session* s) {
  if (*kept == nullptr) {
    MemoryContext old = MemoryContextSwitchTo(s->op_ctx);
    *kept = index_beginscan(t->rel, t->pk, snap, 1, 0);
    MemoryContextSwitchTo(old);
  }
  return *kept;
}

// One lookup through `scan`: the first row at `id` (or above it) in
// `dir`, copied into `st`; `snap` given: its visibility recorded too.
int32_t lookup(zq_session* s, Table* t, IndexScanDesc* kept, Snapshot scan_snap, int64_t id,
               StrategyNumber strategy, RegProcedure proc, ScanDirection dir, CurState* st,
               const char* func) {
  if (t->pk == nullptr) return kErrNoIndex;
  bool found = false;
  const bool ok = pg_call(s, func, [&] {
    IndexScanDesc scan = scan_of(t, scan_snap, kept, s);
    ScanKeyData key;
    ScanKeyInit(&key, kAttId, strategy, proc, Int64GetDatum(id));
    index_rescan(scan, &key, 1, nullptr, 0);
    found = index_getnext_slot(scan, dir, t->slot);
    if (found) {
      if (st != nullptr) {
        copy_row(s, t, st);
        st->rec.visible =
            scan_snap == s->snap || table_tuple_satisfies_snapshot(t->rel, t->slot, s->snap);
      }
      ExecClearTuple(t->slot);
    }
    MemoryContextReset(s->row_ctx);
  });
  if (!ok) return kErrPostgres;
  return found ? 1 : 0;
}

int64_t key_rowid(const zq_key* key) {
  const zq_value& v = key->vals[key->n_vals - 1];
  return v.notnull != 0 ? v.u.i64 : INT64_MIN;
}

CurState* state_of(void** impl, zq_session* s) {
  if (impl[0] == nullptr) impl[0] = new_state(s);
  return static_cast<CurState*>(impl[0]);
}

}  // namespace

CurState* new_state(zq_session* s) {
  return static_cast<CurState*>(
      MemoryContextAllocExtended(s->op_ctx, sizeof(CurState), MCXT_ALLOC_NO_OOM | MCXT_ALLOC_ZERO));
}

int32_t fetch_newest(zq_session* s, Table* t, int64_t id, bool exact, CurState* st) {
  // The row at `id` itself is asked for first, by equality: a ">=" scan
  // checks every entry to the end of the index leaf page before it returns
  // the first, several microseconds a node read.
  const int32_t rc = lookup(s, t, &t->newest_scan, SnapshotSelf, id, BTEqualStrategyNumber,
                            F_INT8EQ, ForwardScanDirection, st, "pg_fetch_newest");
  if (rc != 0) return rc;
  // No newest version at `id`, yet the row may have been deleted by a
  // transaction the snapshot cannot see: then its record stands there,
  // delete-marked and invisible, and the snapshot's version is to be read.
  CurState found{};
  const int32_t seen = fetch_visible(s, t, id, &found);
  if (seen < 0) return seen;
  if (seen == 1) {
    st->rec = found.rec;
    st->cap = found.cap;
    st->rec.flags = ZQ_NREC_DELETED_BIT;
    st->rec.visible = 0;
    return 1;
  }
  if (exact) return 0;
  return lookup(s, t, &t->newest_scan, SnapshotSelf, id, BTGreaterEqualStrategyNumber, F_INT8GE,
                ForwardScanDirection, st, "pg_fetch_newest");
}

int32_t fetch_visible(zq_session* s, Table* t, int64_t id, CurState* st) {
  return lookup(s, t, &t->visible_scan, s->snap, id, BTEqualStrategyNumber, F_INT8EQ,
                ForwardScanDirection, st, "pg_fetch_visible");
}

int32_t newest_max_id(zq_session* s, Table* t, int64_t* out) {
  CurState* st = new_state(s);
  if (st == nullptr) return kErrNoMem;
  const int32_t rc =
      lookup(s, t, &t->newest_scan, SnapshotSelf, INT64_MIN, BTGreaterEqualStrategyNumber, F_INT8GE,
             BackwardScanDirection, st, "pg_newest_max_id");
  *out = rc == 1 ? st->rec.rowid : 0;
  pfree(st);
  return rc < 0 ? rc : 0;
}

}  // namespace zqpg

using zqpg::CurState;
using zqpg::Table;

extern "C" {

void nbtr_cur_init(nbtr_cur* cur, zq_btr* btr) {
  memset(static_cast<void*>(cur), 0, sizeof *cur);
  cur->btr = btr;
}

int32_t nbtr_cur_search(zq_ptx* ptx, nbtr_cur* cur, uint32_t, uint32_t, zq_key* key, uint32_t,
                        zq_memobj*) {
  cur->rec = nullptr;
  if (ptx == nullptr || key == nullptr) return zqpg::kErrBadArg;
  zq_session* s = ptx->env->session;
  CurState* st = zqpg::state_of(cur->impl, s);
  if (st == nullptr) return zqpg::fail_or_raise(ptx->env, ptx, zqpg::kErrNoMem);
  const int32_t rc =
      zqpg::fetch_newest(s, zqpg::table_of(cur->btr), zqpg::key_rowid(key), true, st);
  if (rc < 0) return zqpg::fail_or_raise(ptx->env, ptx, rc);
  if (rc == 1) cur->rec = &st->rec.flags;
  return 0;
}

void pbcur_init_low(pbcur* cur, zq_ptx* ptx, zq_btr* btr, const char*, int) {
  memset(static_cast<void*>(cur), 0, sizeof *cur);
  cur->ptx = ptx;
  cur->btr = btr;
}

int32_t pbcur_open(pbcur* cur, zq_key* key, uint32_t, uint32_t, zq_memobj*) {
  cur->rec = nullptr;
  cur->found = 0;
  cur->positioned = 0;
  if (key == nullptr) return zqpg::kErrBadArg;
  zq_session* s = zqpg::backend_session();
  zq_env* env = s->env;
  CurState* st = zqpg::state_of(cur->impl, s);
  if (st == nullptr) return zqpg::fail_or_raise(env, cur->ptx, zqpg::kErrNoMem);
  const int64_t id = zqpg::key_rowid(key);
  const int32_t rc = zqpg::fetch_newest(s, zqpg::table_of(cur->btr), id, false, st);
  if (rc < 0) return zqpg::fail_or_raise(env, cur->ptx, rc);
  if (rc == 1) {
    cur->rec = &st->rec.flags;
    cur->found = st->rec.rowid == id ? 1 : 0;
  } else {
    cur->rec = &zqpg::kMaxRec.flags;
  }
  cur->positioned = 1;
  return 0;
}

int32_t pbcur_move_to_right_user_rec(pbcur* cur) {
  auto* st = static_cast<CurState*>(cur->impl[0]);
  if (st == nullptr || cur->rec == nullptr || cur->rec != &st->rec.flags ||
      st->rec.rowid == INT64_MAX) {
    cur->rec = nullptr;
    return 0;
  }
  zq_session* s = zqpg::backend_session();
  const int32_t rc = zqpg::fetch_newest(s, zqpg::table_of(cur->btr), st->rec.rowid + 1, false, st);
  if (rc == 1) return 1;
  cur->rec = nullptr;
  if (rc < 0) {
    cur->positioned = 0;
    zqpg::fail_or_raise(s->env, cur->ptx, rc);
  }
  return 0;
}

void pbcur_save_position_inner(pbcur* cur) {
  // The record is a copy already: nothing ties the cursor to its ptx.
  cur->ptx = nullptr;
}

void pbcur_close(pbcur* cur) {
  cur->rec = nullptr;
  cur->positioned = 0;
}

}  // extern "C"
