// Sessions: one SQLite connection with the engine settings the library reads,
// the user-level transaction state, the savepoints of write mini-transactions,
// the dictionary scopes and the lazily made sort pool.
//
// Call order: zqsess_open | zqsess_wrap -> zqsess_scope, settings,
// zqsess_create_node_table -> (zqsess_begin -> engine work ->
// zqsess_commit | zqsess_rollback)* -> zqsess_close. The latest session
// opened on an env is its current one: mini-transactions run on it.
#include <algorithm>
#include <cstring>

#include "host/internal.h"

namespace {

using zqhost::exec;

constexpr int kBusyTimeoutMs = 5000;

zq_session* make_session(zq_env* env, sqlite3* db, bool owns) {
  auto* s = new (std::nothrow) zq_session();
  if (s == nullptr) return nullptr;
  s->env = env;
  s->db = db;
  s->owns_db = owns;
  try {
    env->sessions.push_back(s);
  } catch (...) {
    delete s;
    return nullptr;
  }
  env->session = s;
  return s;
}

bool is_file_db(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  return file != nullptr && file[0] != '\0';
}

sqlite3_stmt* session_stmt(zq_session* s, sqlite3_stmt** slot, const char* sql, int* rc) {
  if (*slot == nullptr)
    *rc = sqlite3_prepare_v3(s->db, sql, -1, SQLITE_PREPARE_PERSISTENT, slot, nullptr);
  return *slot;
}

void finalize_scope(zq_scope* scope) {
  sqlite3_finalize(scope->version);
  sqlite3_finalize(scope->lookup);
  sqlite3_finalize(scope->columns);
}

int32_t begin_txn(zq_session* s, const char* sql, const char* func) {
  if (s->in_txn || s->sp_depth != 0 || sqlite3_get_autocommit(s->db) == 0) {
    return zqhost::kErrTxnState;
  }
  int rc = exec(s->db, sql);
  if (rc != SQLITE_OK) return zqhost::sqlite_fail(s->env, s->db, rc, func);
  s->in_txn = true;
  return 0;
}

}  // namespace

namespace zqhost {

int savepoint_begin(zq_session* s) {
  int rc = SQLITE_OK;
  sqlite3_stmt* st = session_stmt(s, &s->sp_begin, "SAVEPOINT zq_ptx", &rc);
  if (st == nullptr) return rc;
  bool autocommit = sqlite3_get_autocommit(s->db) != 0;
  rc = step_once(st);
  if (rc != SQLITE_DONE) return rc;
  if (s->sp_depth == 0) s->sp_outer_auto = autocommit;
  ++s->sp_depth;
  return SQLITE_OK;
}

int savepoint_end(zq_session* s, bool rollback) {
  int rc = SQLITE_OK;
  if (rollback) {
    sqlite3_stmt* st = session_stmt(s, &s->sp_rollback, "ROLLBACK TO zq_ptx", &rc);
    if (st == nullptr) return rc;
    rc = step_once(st);
    if (rc != SQLITE_DONE) return rc;
  }
  sqlite3_stmt* st = session_stmt(s, &s->sp_release, "RELEASE zq_ptx", &rc);
  if (st == nullptr) return rc;
  rc = step_once(st);
  if (rc != SQLITE_DONE && !rollback) {
    // The release could not commit (a busy database in autocommit mode): undo
    // the work so the savepoint does not outlive its ptx.
    int undo = SQLITE_OK;
    if (sqlite3_stmt* rb = session_stmt(s, &s->sp_rollback, "ROLLBACK TO zq_ptx", &undo)) {
      step_once(rb);
      step_once(st);
    }
  }
  if (s->sp_depth > 0) --s->sp_depth;
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace zqhost

extern "C" {

void zqsess_hold_savepoints(zq_session* session, int on) {
  session->sp_held = on != 0;
}

zq_session* zqsess_open(zq_env* env, const char* path, int32_t* code) {
  *code = 0;
  if (env == nullptr || path == nullptr) {
    *code = zqhost::kErrBadArg;
    return nullptr;
  }
  sqlite3* db = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
  int rc = sqlite3_open_v2(path, &db, flags, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    // A full two-axis node row is just over half a 4 KB page, so a new file
    // gets 8 KB pages (the setting only takes on a file with no content yet,
    // and must precede WAL). Node reads are small random reads of a file
    // that usually outgrows SQLite's 2 MB default cache: give it a larger
    // cache and map the file.
    if (is_file_db(db)) {
      rc = exec(db, "PRAGMA page_size=8192");
      if (rc == SQLITE_OK) rc = exec(db, "PRAGMA journal_mode=WAL");
      if (rc == SQLITE_OK) rc = exec(db, "PRAGMA mmap_size=1073741824");
    }
    if (rc == SQLITE_OK) rc = exec(db, "PRAGMA cache_size=-65536");
  }
  if (rc != SQLITE_OK) {
    *code = zqhost::sqlite_fail(env, db, rc, "zqsess_open");
    sqlite3_close_v2(db);
    return nullptr;
  }
  zq_session* s = make_session(env, db, true);
  if (s == nullptr) {
    sqlite3_close_v2(db);
    *code = zqhost::kErrNoMem;
  }
  return s;
}

zq_session* zqsess_wrap(zq_env* env, sqlite3* db) {
  if (env == nullptr || db == nullptr) return nullptr;
  return make_session(env, db, false);
}

void zqsess_close(zq_session* s) {
  if (s == nullptr) return;
  zq_env* env = s->env;
  for (auto& st : s->states) {
    if (st->in_use) zqhost::state_release(st.get());
  }
  zqhost::tmptab_free_all(s);
  s->tables.clear();
  s->retired.clear();
  s->row_checks.clear();
  for (auto& [name, scope] : s->scopes) finalize_scope(scope.get());
  sqlite3_finalize(s->sp_begin);
  sqlite3_finalize(s->sp_release);
  sqlite3_finalize(s->sp_rollback);
  s->undo.clear();
  if (s->sort_pool != nullptr) zqhost_sort_pool_free(s->sort_pool);
  if (s->owns_db) sqlite3_close_v2(s->db);
  auto& list = env->sessions;
  list.erase(std::remove(list.begin(), list.end(), s), list.end());
  if (env->session == s) env->session = list.empty() ? nullptr : list.back();
  delete s;
}

sqlite3* zqsess_db(zq_session* s) {
  return s->db;
}
zq_env* zqsess_env(zq_session* s) {
  return s->env;
}

void zqsess_set_rtree_buf_mb(zq_session* s, uint32_t total_mb, uint32_t per_handle_mb) {
  s->total_mb = total_mb;
  s->handle_mb = per_handle_mb;
}

uint32_t zqsess_rtree_buf_total_mb(const zq_session* s) {
  return s->total_mb;
}
uint32_t zqsess_rtree_buf_handle_mb(const zq_session* s) {
  return s->handle_mb;
}

void zqsess_set_sort_mem(zq_session* s, uint64_t bytes) {
  s->sort_mem = bytes;
}
uint64_t zqsess_sort_mem(const zq_session* s) {
  return s->sort_mem;
}

zq_sort_pool* zqsess_sort_pool(zq_session* s) {
  if (s->sort_pool == nullptr) s->sort_pool = zqhost_sort_pool_new(s);
  return s->sort_pool;
}

zq_scope* zqsess_scope(zq_session* s, const char* schema) {
  if (s == nullptr || schema == nullptr) return nullptr;
  try {
    auto& slot = s->scopes[schema];
    if (!slot) {
      slot = std::make_unique<zq_scope>();
      slot->sess = s;
      slot->schema = schema;
    }
    return slot.get();
  } catch (...) {
    return nullptr;
  }
}

int32_t zqsess_begin(zq_session* s) {
  return begin_txn(s, "BEGIN", "zqsess_begin");
}

int32_t zqsess_begin_write(zq_session* s) {
  // The write lock is taken here, where SQLite still waits out another
  // writer (the busy timeout); a reading transaction that later wants to
  // write is refused at once instead.
  return begin_txn(s, "BEGIN IMMEDIATE", "zqsess_begin_write");
}

int32_t zqsess_commit(zq_session* s) {
  if (s->sp_depth != 0) return zqhost::kErrTxnState;
  s->in_txn = false;
  if (sqlite3_get_autocommit(s->db) != 0) return 0;
  int rc = exec(s->db, "COMMIT");
  if (rc != SQLITE_OK) {
    s->in_txn = sqlite3_get_autocommit(s->db) == 0;
    return zqhost::sqlite_fail(s->env, s->db, rc, "zqsess_commit");
  }
  return 0;
}

int32_t zqsess_rollback(zq_session* s) {
  int rc = SQLITE_OK;
  if (sqlite3_get_autocommit(s->db) == 0) rc = exec(s->db, "ROLLBACK");
  // Nothing cached may outlive the rollback: counters, dictionary objects and
  // savepoints are gone with the work they described.
  s->in_txn = false;
  s->sp_depth = 0;
  zqhost::dict_retire_all(s);
  zqhost::tmptab_recreate_all(s);
  return rc == SQLITE_OK ? 0 : zqhost::sqlite_fail(s->env, s->db, rc, "zqsess_rollback");
}

}  // extern "C"
