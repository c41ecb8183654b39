// SQLite plumbing shared by the host's facilities: result-code mapping,
// failure reporting (returned outside a mini-transaction, raised inside one),
// one-shot execution and identifier quoting.
#include "host/internal.h"

namespace zqhost {

int32_t sqlite_code(int rc) {
  if ((rc & 0xff) == SQLITE_NOMEM) return kErrNoMem;
  return kErrSqliteBase - (rc & 0xff);
}

int32_t sqlite_fail(zq_env* env, sqlite3* db, int rc, const char* func) {
  int32_t code = sqlite_code(rc);
  if (env != nullptr) {
    env->last_sqlite_rc = rc;
    try {
      env->last_sqlite_error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    } catch (...) {
    }
    zqerr_stk_push(env, code, func, 1);
  }
  return code;
}

int32_t fail_or_raise(zq_env* env, zq_ptx* ptx, sqlite3* db, int rc, const char* func) {
  int32_t code = sqlite_fail(env, db, rc, func);
  if (ptx != nullptr) throw zq_raised{code};
  return code;
}

int exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

int step_once(sqlite3_stmt* st) {
  int rc = sqlite3_step(st);
  int reset_rc = sqlite3_reset(st);
  if (rc == SQLITE_ROW || rc == SQLITE_DONE) return rc;
  // A failed step reports its code through reset with the extended detail.
  return reset_rc != SQLITE_OK ? reset_rc : rc;
}

std::string quote_ident(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    out += c;
    if (c == '"') out += '"';
  }
  out += '"';
  return out;
}

}  // namespace zqhost
