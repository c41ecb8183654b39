// The default callbacks the host installs in the library: row tags (slot 0),
// visibility (slots 1 and 2: SQLite's connection-level isolation, so every
// row a connection reads is its session's to see), row delete, insert and
// updates on the table through cached prepared statements (slots 3 to 6),
// and the insert-failure notice (slot 10).
//
// A row callback runs inside the caller's ptx: its raise point comes first,
// then injected callback faults, then the session's row observer (if any),
// then one statement step. A refused insertion
// (a constraint) is returned as -1509; any other SQLite failure raises.
#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "host/internal.h"

namespace zqhost {
namespace {

constexpr uint32_t kSlotDelete = 3;
constexpr uint32_t kSlotInsert = 4;
constexpr uint32_t kSlotFixed = 5;
constexpr uint32_t kSlotUnfixed = 6;

int64_t key_rowid(const zq_key* key) {
  return key->vals[key->n_vals - 1].u.i64;
}

zq_env* env_of(zq_ptx* ptx, zq_session* s) {
  return ptx != nullptr ? ptx->env : s->env;
}

// The column a row slot is stored in, or -1 for the virtual system column.
int stored_column(const Table* t, uint16_t slot) {
  if (slot < t->cols.size()) return slot;
  return -1;
}

void bind_value(sqlite3_stmt* st, int idx, const Table* t, int col, const zq_value* v,
                const zq_recdesc* desc) {
  if (col == t->sys_col) {
    // The system column is the host's: written as its value, zero when unset.
    int64_t sys = v->notnull == 0 ? 0 : (desc->sys_col_as_i64 != 0 ? v->u.i64 : v->u.i32);
    sqlite3_bind_int64(st, idx, sys);
    return;
  }
  if (v->notnull == 0) {
    sqlite3_bind_null(st, idx);
    return;
  }
  switch (t->cols[col].kind) {
    case Kind::kI32:
      sqlite3_bind_int(st, idx, v->u.i32);
      return;
    case Kind::kI64:
      sqlite3_bind_int64(st, idx, v->u.i64);
      return;
    case Kind::kF64:
      sqlite3_bind_double(st, idx, v->u.f64);
      return;
    case Kind::kBin:
      sqlite3_bind_blob(st, idx, value_bytes(v), static_cast<int>(v->len), SQLITE_STATIC);
      return;
    case Kind::kText:
      sqlite3_bind_text(st, idx, reinterpret_cast<const char*>(value_bytes(v)),
                        static_cast<int>(v->len), SQLITE_STATIC);
      return;
  }
}

sqlite3_stmt* insert_stmt(Table* t, int* rc) {
  if (t->ins != nullptr) return t->ins;
  std::string cols = "rowid";
  std::string vals = "?1";
  for (size_t i = 0; i < t->cols.size(); ++i) {
    cols += ", " + quote_ident(t->cols[i].name);
    vals += ", ?" + std::to_string(i + 2);
  }
  t->ins =
      table_prepare(t, "INSERT INTO " + t->qname + " (" + cols + ") VALUES (" + vals + ")", rc);
  return t->ins;
}

sqlite3_stmt* delete_stmt(Table* t, int* rc) {
  if (t->del == nullptr)
    t->del = table_prepare(t, "DELETE FROM " + t->qname + " WHERE rowid = ?1", rc);
  return t->del;
}

// UPDATE of the columns in `mask`, bound in ascending column order from ?2.
sqlite3_stmt* update_stmt(Table* t, uint64_t mask, int* rc) {
  for (auto& [m, st] : t->upd) {
    if (m == mask) return st;
  }
  std::string set;
  int idx = 2;
  for (size_t c = 0; c < t->cols.size(); ++c) {
    if ((mask >> c & 1) == 0) continue;
    if (!set.empty()) set += ", ";
    set += quote_ident(t->cols[c].name) + " = ?" + std::to_string(idx++);
  }
  sqlite3_stmt* st =
      table_prepare(t, "UPDATE " + t->qname + " SET " + set + " WHERE rowid = ?1", rc);
  if (st != nullptr) t->upd.emplace_back(mask, st);
  return st;
}

// Steps a write statement; 0, or the code of its failure (raised inside a
// ptx unless the insertion was refused).
int32_t finish_write(Table* t, zq_ptx* ptx, sqlite3_stmt* st, int64_t rowid, bool insert,
                     const char* func) {
  int rc = remember_row(t, rowid);
  if (rc == SQLITE_OK) rc = step_once(st);
  sqlite3_clear_bindings(st);
  zq_env* env = env_of(ptx, t->sess);
  if (rc == SQLITE_DONE) {
    ++t->dver;
    return sqlite3_changes(t->sess->db) == 0 ? kErrNoRow : 0;
  }
  if (insert && (rc & 0xff) == SQLITE_CONSTRAINT) return kErrInsertRefused;
  return fail_or_raise(env, ptx, t->sess->db, rc, func);
}

// Column values to write, by column number.
struct Update {
  uint64_t mask = 0;
  const zq_value* vals[kMaxFields] = {};
};

int32_t run_update(Table* t, zq_ptx* ptx, const zq_recdesc* desc, int64_t rowid, const Update& u,
                   const char* func) {
  if (u.mask == 0) return 0;
  int rc = SQLITE_OK;
  sqlite3_stmt* st = update_stmt(t, u.mask, &rc);
  if (st == nullptr) return fail_or_raise(env_of(ptx, t->sess), ptx, t->sess->db, rc, func);
  sqlite3_bind_int64(st, 1, rowid);
  int idx = 2;
  for (size_t c = 0; c < t->cols.size(); ++c) {
    if ((u.mask >> c & 1) != 0) bind_value(st, idx++, t, static_cast<int>(c), u.vals[c], desc);
  }
  return finish_write(t, ptx, st, rowid, false, func);
}

// Adds column `col` with `value` to `u`; false for a column the host cannot
// write (the rowid, or beyond the row).
bool add_column(const Table* t, Update* u, uint16_t col, const zq_value* value) {
  if (col >= t->desc.n_cols - 1) return false;
  int stored = stored_column(t, col);
  if (stored < 0) return true;  // the virtual system column: nothing stored
  u->mask |= uint64_t{1} << stored;
  u->vals[stored] = value;
  return true;
}

// Runs a callback body, turning an allocation failure into the host's code
// (raised inside a ptx).
template <class Body>
int32_t guarded(zq_ptx* ptx, Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    if (ptx != nullptr) throw zq_raised{kErrNoMem};
    return kErrNoMem;
  }
}

int32_t enter(zq_ptx* ptx, zq_session* s, uint32_t slot) {
  zq_env* env = env_of(ptx, s);
  raise_point(env, ptx);
  return callback_fault(env, slot);
}

// Tells the session's row observer of a write about to happen; 0, or the
// observer's refusal.
int32_t observe(const Table* t, zq_row_event ev, int64_t rowid, const zq_recdesc* desc) {
  zq_session* s = t->sess;
  if (s->observer == nullptr) return 0;
  ev.schema = t->schema.c_str();
  ev.table = t->name.c_str();
  ev.rowid = rowid;
  ev.desc = desc;
  return s->observer(s->observer_ctx, &ev);
}

// Fills one fill-info value from a record field.
int32_t value_from_field(zq_env* env, zq_memobj* mem, const Field& f, zq_value* v, uint32_t* len) {
  std::memset(static_cast<void*>(v), 0, sizeof *v);
  *len = f.len;
  if (f.null) return 0;
  switch (f.kind) {
    case Kind::kI32:
      v->notnull = 1;
      v->u.i32 = static_cast<int32_t>(f.v.i);
      return 0;
    case Kind::kI64:
      v->notnull = 1;
      v->u.i64 = f.v.i;
      return 0;
    case Kind::kF64:
      v->notnull = 1;
      v->u.f64 = f.v.d;
      return 0;
    default:
      return binary_assign_const_ex(env, mem, v, f.len, f.data);
  }
}

}  // namespace
}  // namespace zqhost

using zqhost::Table;

extern "C" {

uint16_t zqhost_get_row_tag(const zq_recdesc* desc) {
  // The tag only has to come back unchanged; the descriptor's shape will do.
  return static_cast<uint16_t>(desc->n_cols << 8 | desc->n_key_vals);
}

int32_t zqhost_rec_is_visible(zq_env*, zq_session*, const zq_nrec*) {
  return 1;
}

int32_t zqhost_rec_read_visible_version(zq_env* env, zq_memobj* scratch, zq_session*,
                                        const zq_recdesc*, const zq_nrec* rec, const zq_nrec*,
                                        zq_fillinfo* out, int32_t* code) {
  *code = 0;
  const zqhost::HostRec* r = zqhost::rec_of(rec);
  for (uint16_t i = 0; i < out->n_cols; ++i) {
    uint16_t col = out->col_nos[i];
    if (col >= r->n_fields) {
      *code = zqhost::kErrBadArg;
      return 0;
    }
    uint32_t len = 0;
    int32_t rc = zqhost::value_from_field(env, scratch, r->f[col], &out->values[i], &len);
    if (rc < 0) {
      *code = rc;
      return 0;
    }
    if (out->lens != nullptr) out->lens[i] = len;
  }
  return 1;
}

int32_t zqhost_row_delete(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index*,
                          const zq_recdesc* desc, zq_key* key, uint16_t, uint64_t,
                          const zq_nrec* rec) {
  if (int32_t injected = zqhost::enter(ptx, session, zqhost::kSlotDelete)) return injected;
  Table* t = zqhost::table_of(table);
  int64_t rowid = rec != nullptr ? zqhost::rec_of(rec)->rowid : zqhost::key_rowid(key);
  return zqhost::guarded(ptx, [&] {
    zq_row_event ev{};
    ev.change = ZQ_ROW_DELETE;
    ev.rec = rec;
    if (int32_t refused = zqhost::observe(t, ev, rowid, desc)) return refused;
    int rc = SQLITE_OK;
    sqlite3_stmt* st = zqhost::delete_stmt(t, &rc);
    if (st == nullptr) {
      return zqhost::fail_or_raise(zqhost::env_of(ptx, session), ptx, t->sess->db, rc,
                                   "zqhost_row_delete");
    }
    sqlite3_bind_int64(st, 1, rowid);
    return zqhost::finish_write(t, ptx, st, rowid, false, "zqhost_row_delete");
  });
}

int32_t zqhost_row_insert(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index*,
                          const zq_recdesc* desc, zq_row* row, zq_key* key, uint16_t, uint32_t) {
  if (int32_t injected = zqhost::enter(ptx, session, zqhost::kSlotInsert)) return injected;
  Table* t = zqhost::table_of(table);
  int64_t rowid = key != nullptr ? zqhost::key_rowid(key) : row->cols[row->n_cols - 1].u.i64;
  return zqhost::guarded(ptx, [&] {
    zq_row_event ev{};
    ev.change = ZQ_ROW_INSERT;
    ev.row = row;
    if (int32_t refused = zqhost::observe(t, ev, rowid, desc)) return refused;
    int rc = SQLITE_OK;
    sqlite3_stmt* st = zqhost::insert_stmt(t, &rc);
    if (st == nullptr) {
      return zqhost::fail_or_raise(zqhost::env_of(ptx, session), ptx, t->sess->db, rc,
                                   "zqhost_row_insert");
    }
    sqlite3_bind_int64(st, 1, rowid);
    for (size_t c = 0; c < t->cols.size() && c < row->n_cols; ++c) {
      zqhost::bind_value(st, static_cast<int>(c) + 2, t, static_cast<int>(c), &row->cols[c], desc);
    }
    return zqhost::finish_write(t, ptx, st, rowid, true, "zqhost_row_insert");
  });
}

int32_t zqhost_row_update_fixed(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index*,
                                const zq_recdesc* desc, zq_key* key, zq_fillinfo* new_values,
                                zq_fillinfo* old_values, uint16_t, uint64_t, nbtr_cur*) {
  if (int32_t injected = zqhost::enter(ptx, session, zqhost::kSlotFixed)) return injected;
  Table* t = zqhost::table_of(table);
  zqhost::Update u;
  for (uint16_t i = 0; i < new_values->n_cols; ++i) {
    if (!zqhost::add_column(t, &u, new_values->col_nos[i], &new_values->values[i])) {
      return zqhost::kErrBadArg;
    }
  }
  return zqhost::guarded(ptx, [&] {
    zq_row_event ev{};
    ev.change = ZQ_ROW_UPDATE;
    ev.new_values = new_values;
    ev.old_values = old_values;
    if (int32_t refused = zqhost::observe(t, ev, zqhost::key_rowid(key), desc)) return refused;
    return zqhost::run_update(t, ptx, desc, zqhost::key_rowid(key), u, "zqhost_row_update_fixed");
  });
}

int32_t zqhost_row_update_unfixed(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index*,
                                  const zq_recdesc* desc, zq_key* key, zq_row* new_row,
                                  zq_fillinfo* old_values, uint16_t, uint64_t, nbtr_cur*) {
  if (int32_t injected = zqhost::enter(ptx, session, zqhost::kSlotUnfixed)) return injected;
  Table* t = zqhost::table_of(table);
  zqhost::Update u;
  for (uint16_t i = 0; i < old_values->n_cols; ++i) {
    uint16_t col = old_values->col_nos[i];
    if (col >= new_row->n_cols || !zqhost::add_column(t, &u, col, &new_row->cols[col])) {
      return zqhost::kErrBadArg;
    }
  }
  return zqhost::guarded(ptx, [&] {
    zq_row_event ev{};
    ev.change = ZQ_ROW_UPDATE;
    ev.row = new_row;
    ev.old_values = old_values;
    if (int32_t refused = zqhost::observe(t, ev, zqhost::key_rowid(key), desc)) return refused;
    return zqhost::run_update(t, ptx, desc, zqhost::key_rowid(key), u, "zqhost_row_update_unfixed");
  });
}

void zqsess_set_row_observer(zq_session* session, zq_row_observer_fn fn, void* ctx) {
  session->observer = fn;
  session->observer_ctx = ctx;
}

void zqhost_row_insert_failed(zq_env* env, int32_t code) {
  if (env == nullptr) return;
  ++env->insert_failed_notices;
  env->last_insert_failed = code;
}

}  // extern "C"
