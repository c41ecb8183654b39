// Cursors: the exact B-tree search (nbtr_cur) and the physical cursor (pbcur)
// that walks a B-tree in key order, with the boundary records and saved
// positions.
//
// A cursor borrows a seek statement of its table and keeps it stepped on the
// current row, so a record's binaries are read straight from SQLite's result
// without a copy. Its state is tied to the mini-transaction it was opened in:
// the ptx's end resets the statement and recycles the state. Saving a
// position detaches the state instead: the record's bytes and its key are
// copied into the state, the statement goes back, and each later step seeks
// past the saved key in a statement of its own, so nothing stays pending
// after the ptx and the caller's scratch memory are gone.
//
// Call order: nbtr_cur_init -> nbtr_cur_search* (ptx end releases);
// pbcur_init_low -> pbcur_open -> pbcur_move_to_right_user_rec* ->
// [pbcur_save_position_inner -> ptx end -> pbcur_move_to_right_user_rec*] ->
// pbcur_close.
#include <climits>
#include <cstring>
#include <new>

#include "host/internal.h"

namespace zqhost {
namespace {

// A step result beside SQLite's own (which are never negative): the row the
// statement stands on was refused by the table's row check.
constexpr int kRefused = -1;

std::string seek_sql(const Table* t, StmtKind kind) {
  static constexpr const char* kRowsWhere[kStmtKinds] = {
      " WHERE rowid = ?1", " WHERE rowid >= ?1 ORDER BY rowid", " WHERE rowid > ?1 ORDER BY rowid"};
  static constexpr const char* kSpatialWhere[kStmtKinds] = {
      " WHERE flag = ?1 AND rid = ?2", " WHERE (flag, rid) >= (?1, ?2) ORDER BY flag, rid",
      " WHERE (flag, rid) > (?1, ?2) ORDER BY flag, rid"};
  if (t->layout == Layout::kSpatial) {
    return std::string("SELECT ") + kSpatialSelect + " FROM " + t->qname + kSpatialWhere[kind];
  }
  std::string sql = "SELECT ";
  for (const Column& c : t->cols) sql += quote_ident(c.name) + ", ";
  return sql + "rowid FROM " + t->qname + kRowsWhere[kind];
}

sqlite3_stmt* borrow(Table* t, StmtKind kind, int* rc) {
  auto& idle = t->idle[kind];
  if (!idle.empty()) {
    sqlite3_stmt* st = idle.back();
    idle.pop_back();
    return st;
  }
  try {
    sqlite3_stmt* st = table_prepare(t, seek_sql(t, kind), rc);
    // Room to give it back later without allocating.
    if (st != nullptr) idle.reserve(t->owned.size());
    return st;
  } catch (const std::bad_alloc&) {
    *rc = SQLITE_NOMEM;
    return nullptr;
  }
}

void give_back(CurState* st) {
  if (st->stmt == nullptr) return;
  sqlite3_reset(st->stmt);
  auto& idle = st->tab->idle[st->stmt_kind];
  if (idle.size() < idle.capacity()) idle.push_back(st->stmt);
  st->stmt = nullptr;
}

void ptx_link(zq_ptx* ptx, CurState* st) {
  auto* head = static_cast<CurState*>(ptx->impl[1]);
  st->ptx = ptx;
  st->prev = nullptr;
  st->next = head;
  if (head != nullptr) head->prev = st;
  ptx->impl[1] = st;
}

void ptx_unlink(CurState* st) {
  if (st->ptx == nullptr) return;
  if (st->prev != nullptr) {
    st->prev->next = st->next;
  } else {
    st->ptx->impl[1] = st->next;
  }
  if (st->next != nullptr) st->next->prev = st->prev;
  st->ptx = nullptr;
  st->prev = st->next = nullptr;
}

int64_t key_rowid(const zq_key* key) {
  const zq_value& v = key->vals[key->n_vals - 1];
  return v.notnull != 0 ? v.u.i64 : INT64_MIN;
}

void bind_key(const Table* t, sqlite3_stmt* st, const zq_key* key) {
  if (t->layout == Layout::kSpatial) {
    const zq_value& flag = key->vals[0];
    const char* text = flag.notnull != 0 ? reinterpret_cast<const char*>(value_bytes(&flag)) : "";
    int len = flag.notnull != 0 ? static_cast<int>(flag.len) : 0;
    sqlite3_bind_text(st, 1, text, len, SQLITE_TRANSIENT);
    sqlite3_bind_int64(st, 2, key_rowid(key));
  } else {
    sqlite3_bind_int64(st, 1, key_rowid(key));
  }
}

bool matches_key(const Table* t, const HostRec& rec, const zq_key* key) {
  const zq_value& rid = key->vals[key->n_vals - 1];
  if (rid.notnull == 0 || rec.rowid != rid.u.i64) return false;
  if (t->layout != Layout::kSpatial) return true;
  const zq_value& flag = key->vals[0];
  return flag.notnull != 0 && flag.len == rec.f[0].len &&
         std::memcmp(value_bytes(&flag), rec.f[0].data, flag.len) == 0;
}

// Copies what the record still borrows from the statement, remembers its key
// and hands the statement back.
void detach_record(CurState* st) {
  HostRec& rec = st->rec;
  if (st->tab->layout == Layout::kRows) {
    size_t total = 0;
    for (int i = 0; i < rec.n_fields; ++i) {
      Kind k = rec.f[i].kind;
      if (k == Kind::kBin || k == Kind::kText) total += rec.f[i].len;
    }
    st->own.resize(total);
    size_t at = 0;
    for (int i = 0; i < rec.n_fields; ++i) {
      Field& f = rec.f[i];
      if ((f.kind != Kind::kBin && f.kind != Kind::kText) || f.len == 0) continue;
      std::memcpy(st->own.data() + at, f.data, f.len);
      f.data = st->own.data() + at;
      at += f.len;
    }
  } else {
    std::memcpy(st->key_text, rec.text, sizeof st->key_text);
    st->key_text_len = rec.f[0].len;
  }
  st->key_rowid = rec.rowid;
  give_back(st);
}

CurState* cursor_state(void* const* impl) {
  auto* st = static_cast<CurState*>(impl[0]);
  if (st == nullptr || !st->in_use) return nullptr;
  return st->gen == reinterpret_cast<uintptr_t>(impl[1]) ? st : nullptr;
}

void remember(void** impl, CurState* st) {
  impl[0] = st;
  impl[1] = reinterpret_cast<void*>(static_cast<uintptr_t>(st->gen));
}

// Steps the state's statement onto its next row and fills the record:
// SQLITE_ROW, SQLITE_DONE, kRefused or a failure.
int step_to_row(CurState* st, const zq_ptx* ptx) {
  int rc = sqlite3_step(st->stmt);
  if (rc != SQLITE_ROW) return rc;
  rec_fill(st->tab, st->stmt, &st->rec);
  return row_admitted(st->tab, st->rec, ptx) ? SQLITE_ROW : kRefused;
}

// Seeks `kind` at `key`; SQLITE_ROW with the state on the record, SQLITE_DONE,
// kRefused or a failure (the state's statement then handed back).
int seek(CurState* st, StmtKind kind, const zq_key* key, const zq_ptx* ptx) {
  int rc = SQLITE_OK;
  give_back(st);
  st->stmt = borrow(st->tab, kind, &rc);
  if (st->stmt == nullptr) return rc;
  st->stmt_kind = kind;
  bind_key(st->tab, st->stmt, key);
  rc = step_to_row(st, ptx);
  if (rc == SQLITE_ROW) {
    st->pos = CurState::kUser;
  } else {
    st->pos = CurState::kNone;
    give_back(st);
  }
  return rc;
}

// The next record of a detached state, found past its saved key.
int seek_past_saved(CurState* st) {
  int rc = SQLITE_OK;
  st->stmt = borrow(st->tab, kSeekGt, &rc);
  if (st->stmt == nullptr) return rc;
  st->stmt_kind = kSeekGt;
  if (st->tab->layout == Layout::kSpatial) {
    sqlite3_bind_text(st->stmt, 1, st->key_text, static_cast<int>(st->key_text_len),
                      SQLITE_TRANSIENT);
    sqlite3_bind_int64(st->stmt, 2, st->key_rowid);
  } else {
    sqlite3_bind_int64(st->stmt, 1, st->key_rowid);
  }
  rc = step_to_row(st, nullptr);
  if (rc == SQLITE_ROW) {
    detach_record(st);
  } else {
    st->pos = CurState::kNone;
    give_back(st);
  }
  return rc;
}

zq_env* env_of(const Table* t, const zq_ptx* ptx) {
  return ptx != nullptr ? ptx->env : t->sess->env;
}

// A new state for a cursor; inside a ptx a failure to get one raises.
CurState* new_state(Table* t, zq_ptx* ptx) {
  try {
    CurState* st = state_acquire(t->sess, t);
    if (ptx != nullptr) ptx_link(ptx, st);
    return st;
  } catch (const std::bad_alloc&) {
    if (ptx != nullptr) throw zq_raised{kErrNoMem};
    return nullptr;
  }
}

}  // namespace

CurState* state_acquire(zq_session* s, Table* t) {
  CurState* st = nullptr;
  if (!s->free_states.empty()) {
    st = s->free_states.back();
    s->free_states.pop_back();
  } else {
    auto fresh = std::make_unique<CurState>();
    st = fresh.get();
    s->states.push_back(std::move(fresh));
    // Room for every state on the free list, so a release never allocates.
    s->free_states.reserve(s->states.size());
  }
  st->tab = t;
  st->in_use = true;
  st->pos = CurState::kNone;
  st->stmt = nullptr;
  st->ptx = nullptr;
  st->prev = st->next = nullptr;
  return st;
}

void state_release(CurState* st) {
  if (!st->in_use) return;
  ptx_unlink(st);
  give_back(st);
  st->in_use = false;
  st->pos = CurState::kNone;
  ++st->gen;
  st->tab->sess->free_states.push_back(st);
}

void ptx_end_cursors(zq_ptx* ptx) {
  while (auto* st = static_cast<CurState*>(ptx->impl[1])) state_release(st);
}

}  // namespace zqhost

using zqhost::CurState;
using zqhost::Table;

extern "C" {

void nbtr_cur_init(nbtr_cur* cur, zq_btr* btr) {
  std::memset(static_cast<void*>(cur), 0, sizeof *cur);
  cur->btr = btr;
}

int32_t nbtr_cur_search(zq_ptx* ptx, nbtr_cur* cur, uint32_t, uint32_t, zq_key* key, uint32_t,
                        zq_memobj*) {
  cur->rec = nullptr;
  Table* t = zqhost::table_of(cur->btr);
  if (ptx == nullptr || key == nullptr) return zqhost::kErrBadArg;
  zqhost::raise_point(ptx->env, ptx);
  CurState* st = zqhost::cursor_state(cur->impl);
  if (st == nullptr) {
    st = zqhost::new_state(t, ptx);
    zqhost::remember(cur->impl, st);
  }
  int rc = zqhost::seek(st, zqhost::kSeekEq, key, ptx);
  if (rc == SQLITE_ROW) {
    cur->rec = zqhost::nrec_of(&st->rec);
    return 0;
  }
  if (rc == SQLITE_DONE) return 0;
  zqhost::state_release(st);
  if (rc == zqhost::kRefused) return zqhost::refuse_or_raise(ptx->env, ptx, "nbtr_cur_search");
  return zqhost::fail_or_raise(ptx->env, ptx, t->sess->db, rc, "nbtr_cur_search");
}

void pbcur_init_low(pbcur* cur, zq_ptx* ptx, zq_btr* btr, const char*, int) {
  std::memset(static_cast<void*>(cur), 0, sizeof *cur);
  cur->ptx = ptx;
  cur->btr = btr;
}

int32_t pbcur_open(pbcur* cur, zq_key* key, uint32_t, uint32_t, zq_memobj*) {
  cur->rec = nullptr;
  cur->found = 0;
  cur->positioned = 0;
  Table* t = zqhost::table_of(cur->btr);
  zq_env* env = zqhost::env_of(t, cur->ptx);
  if (key == nullptr) return zqhost::kErrBadArg;
  zqhost::raise_point(env, cur->ptx);
  if (CurState* old = zqhost::cursor_state(cur->impl)) zqhost::state_release(old);
  CurState* st = zqhost::new_state(t, cur->ptx);
  if (st == nullptr) return zqhost::kErrNoMem;
  zqhost::remember(cur->impl, st);

  int rc = zqhost::seek(st, zqhost::kSeekGe, key, cur->ptx);
  if (rc == SQLITE_ROW) {
    cur->rec = zqhost::nrec_of(&st->rec);
    cur->found = zqhost::matches_key(t, st->rec, key) ? 1 : 0;
  } else if (rc == SQLITE_DONE) {
    st->pos = CurState::kMax;
    cur->rec = zqhost::nrec_of(&zqhost::kMaxRec);
  } else {
    zqhost::state_release(st);
    if (rc == zqhost::kRefused) return zqhost::refuse_or_raise(env, cur->ptx, "pbcur_open");
    return zqhost::fail_or_raise(env, cur->ptx, t->sess->db, rc, "pbcur_open");
  }
  cur->positioned = 1;
  if (cur->ptx == nullptr && st->pos == CurState::kUser) {
    // Without a ptx nothing may stay pending on the connection.
    try {
      zqhost::detach_record(st);
    } catch (const std::bad_alloc&) {
      zqhost::state_release(st);
      cur->rec = nullptr;
      cur->positioned = 0;
      return zqhost::kErrNoMem;
    }
  }
  return 0;
}

int32_t pbcur_move_to_right_user_rec(pbcur* cur) {
  CurState* st = zqhost::cursor_state(cur->impl);
  if (st == nullptr || st->pos != CurState::kUser) {
    if (st != nullptr) st->pos = CurState::kNone;
    cur->rec = nullptr;
    return 0;
  }
  Table* t = st->tab;
  zq_env* env = zqhost::env_of(t, cur->ptx);
  int rc = SQLITE_OK;
  if (st->stmt != nullptr) {
    zqhost::raise_point(env, cur->ptx);
    rc = zqhost::step_to_row(st, cur->ptx);
  } else {
    try {
      rc = zqhost::seek_past_saved(st);
    } catch (const std::bad_alloc&) {
      rc = SQLITE_NOMEM;
    }
  }
  if (rc == SQLITE_ROW) {
    cur->rec = zqhost::nrec_of(&st->rec);
    return 1;
  }
  st->pos = CurState::kNone;
  zqhost::give_back(st);
  cur->rec = nullptr;
  if (rc == zqhost::kRefused) {
    cur->positioned = 0;
    zqhost::refuse_or_raise(env, cur->ptx, "pbcur_move_to_right_user_rec");
  } else if (rc != SQLITE_DONE) {
    cur->positioned = 0;
    zqhost::fail_or_raise(env, cur->ptx, t->sess->db, rc, "pbcur_move_to_right_user_rec");
  }
  return 0;
}

void pbcur_save_position_inner(pbcur* cur) {
  CurState* st = zqhost::cursor_state(cur->impl);
  cur->ptx = nullptr;
  if (st == nullptr) return;
  zqhost::ptx_unlink(st);
  if (st->pos != CurState::kUser) {
    zqhost::give_back(st);
    return;
  }
  try {
    zqhost::detach_record(st);
  } catch (const std::bad_alloc&) {
    // The position is lost: the cursor ends here.
    zqhost::give_back(st);
    st->pos = CurState::kNone;
    cur->rec = nullptr;
    cur->positioned = 0;
  }
}

void pbcur_close(pbcur* cur) {
  if (CurState* st = zqhost::cursor_state(cur->impl)) zqhost::state_release(st);
  cur->rec = nullptr;
  cur->positioned = 0;
  cur->impl[0] = cur->impl[1] = nullptr;
}

}  // extern "C"
