// Mini-transactions. A write ptx is a SQLite savepoint taken at begin,
// released on commit and rolled back to on rollback, so a rollback leaves the
// tables as they were before that row action; a read ptx takes none. Either
// kind ties the cursor states opened in it, which its end resets and
// recycles. Open ptxs form a stack on the env (raise-capable calls without a
// ptx argument consult its top).
//
// zq_ptx engine fields: state (kOpen, kSavepoint), impl[0] the session,
// impl[1] the first cursor state tied to it, impl[2] the enclosing ptx.
//
// Call order: ptx3_begin_low_ex -> ptx3_kind_for_session -> (cursors, row
// callbacks; any may raise) -> ptx3_commit_inner | ptx3_rollback |
// ptx3_release_resource.
#include <cstring>

#include "host/internal.h"

namespace {

constexpr uint32_t kOpen = 1;
constexpr uint32_t kSavepoint = 2;

zq_session* session_of(const zq_ptx* ptx) {
  return static_cast<zq_session*>(ptx->impl[0]);
}

void pop_ptx(zq_ptx* ptx) {
  zq_env* env = ptx->env;
  auto* outer = static_cast<zq_ptx*>(ptx->impl[2]);
  if (env->active_ptx == ptx) {
    env->active_ptx = outer;
  } else {
    // Ended out of order: unlink it from wherever it stands in the stack.
    for (zq_ptx* p = env->active_ptx; p != nullptr; p = static_cast<zq_ptx*>(p->impl[2])) {
      if (p->impl[2] == ptx) {
        p->impl[2] = outer;
        break;
      }
    }
  }
  ptx->state = 0;
}

// Ends the ptx: its cursors first (no statement may be pending at the
// savepoint's end), then the savepoint. SQLite's result of ending it.
int end_ptx(zq_ptx* ptx, bool rollback) {
  if ((ptx->state & kOpen) == 0) return SQLITE_OK;
  zqhost::ptx_end_cursors(ptx);
  int rc = SQLITE_OK;
  if ((ptx->state & kSavepoint) != 0) rc = zqhost::savepoint_end(session_of(ptx), rollback);
  pop_ptx(ptx);
  return rc;
}

}  // namespace

extern "C" {

void ptx3_kind_for_session(zq_env*, zq_session* s, uint32_t* kind, uint8_t* mark_txn,
                           uint8_t* mark_ctx) {
  // The host's own savepoints do not make an explicit transaction: what
  // counts is whether the user's work is inside one.
  bool autocommit = sqlite3_get_autocommit(s->db) != 0;
  bool explicit_txn = s->in_txn || (s->sp_depth == 0 ? !autocommit : !s->sp_outer_auto);
  *kind = explicit_txn ? ZQ_PTX_KIND_STMT : ZQ_PTX_KIND_PLAIN;
  *mark_txn = explicit_txn ? 1 : 0;
  *mark_ctx = s->sp_depth > 0 ? 1 : 0;
}

int32_t ptx3_begin_low_ex(zq_env* env, zq_ptx* ptx, uint32_t write_flag, uint32_t, const char*,
                          int) {
  std::memset(static_cast<void*>(ptx), 0, sizeof *ptx);
  ptx->env = env;
  ptx->kind = ZQ_PTX_KIND_PLAIN;
  if (env == nullptr || env->session == nullptr) return zqhost::kErrTxnState;
  zq_session* s = env->session;
  ptx->write = write_flag != 0 ? 1 : 0;
  if (ptx->write && !s->sp_held) {
    int rc = zqhost::savepoint_begin(s);
    // SQLite refuses a savepoint while a write statement of the connection
    // is running (a virtual table's methods run inside one): the write then
    // goes without its own undo, and the statement's owner must undo it.
    if (rc == SQLITE_OK) {
      ptx->state |= kSavepoint;
    } else if (rc != SQLITE_BUSY) {
      return zqhost::sqlite_fail(env, s->db, rc, "ptx3_begin_low_ex");
    }
  }
  ptx->state |= kOpen;
  ptx->impl[0] = s;
  ptx->impl[2] = env->active_ptx;
  env->active_ptx = ptx;
  return 0;
}

int32_t ptx3_commit_inner(zq_ptx* ptx, uint32_t) {
  if ((ptx->state & kOpen) == 0) return 0;
  zq_session* s = session_of(ptx);
  int rc = end_ptx(ptx, false);
  return rc == SQLITE_OK ? 0 : zqhost::sqlite_fail(ptx->env, s->db, rc, "ptx3_commit_inner");
}

void ptx3_rollback(zq_ptx* ptx, int32_t) {
  if ((ptx->state & kOpen) == 0) return;
  zq_session* s = session_of(ptx);
  int rc = end_ptx(ptx, true);
  if (rc != SQLITE_OK) zqhost::sqlite_fail(ptx->env, s->db, rc, "ptx3_rollback");
}

void ptx3_release_resource(zq_ptx* ptx) {
  // The raiser has dealt with the work itself; the ptx only lets go of what
  // it holds, keeping the work in the enclosing transaction.
  if ((ptx->state & kOpen) == 0) return;
  zq_session* s = session_of(ptx);
  int rc = end_ptx(ptx, false);
  if (rc != SQLITE_OK) zqhost::sqlite_fail(ptx->env, s->db, rc, "ptx3_release_resource");
}

}  // extern "C"
