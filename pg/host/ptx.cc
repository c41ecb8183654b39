// Mini-transactions. Every library call runs inside one user operation, and
// the operation is all or nothing: any negative code (or PostgreSQL error)
// fails the statement, and PostgreSQL's abort undoes every row written since
// it began. Nothing in the library goes on past a mini-transaction's
// rollback, so a mini-transaction needs no undo of its own, and taking a
// subtransaction per row write would give every node write its own
// subtransaction id for nothing. A ptx is therefore only the record of what
// is open: a stack on the environment, which tells the host's calls whether
// a failure may be raised.
//
// zq_ptx engine fields: state (kOpen), impl[2] the enclosing ptx.
//
// Call order: ptx3_begin_low_ex -> ptx3_kind_for_session -> (cursors, row
// callbacks; any may raise) -> ptx3_commit_inner | ptx3_rollback |
// ptx3_release_resource.
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "access/xact.h"
}

namespace {

constexpr uint32_t kOpen = 1;

void end_ptx(zq_ptx* ptx) {
  if ((ptx->state & kOpen) == 0) return;
  zq_env* env = ptx->env;
  auto* outer = static_cast<zq_ptx*>(ptx->impl[2]);
  if (env->active_ptx == ptx) {
    env->active_ptx = outer;
  } else {
    for (zq_ptx* p = env->active_ptx; p != nullptr; p = static_cast<zq_ptx*>(p->impl[2])) {
      if (p->impl[2] == ptx) {
        p->impl[2] = outer;
        break;
      }
    }
  }
  ptx->state = 0;
}

}  // namespace

extern "C" {

void ptx3_kind_for_session(zq_env*, zq_session*, uint32_t* kind, uint8_t* mark_txn,
                           uint8_t* mark_ctx) {
  const bool block = IsTransactionBlock();
  *kind = block ? ZQ_PTX_KIND_STMT : ZQ_PTX_KIND_PLAIN;
  *mark_txn = block ? 1 : 0;
  *mark_ctx = 0;
}

int32_t ptx3_begin_low_ex(zq_env* env, zq_ptx* ptx, uint32_t write_flag, uint32_t, const char*,
                          int) {
  memset(static_cast<void*>(ptx), 0, sizeof *ptx);
  ptx->env = env;
  ptx->kind = ZQ_PTX_KIND_PLAIN;
  ptx->write = write_flag != 0 ? 1 : 0;
  ptx->state = kOpen;
  ptx->impl[0] = env->session;
  ptx->impl[2] = env->active_ptx;
  env->active_ptx = ptx;
  return 0;
}

int32_t ptx3_commit_inner(zq_ptx* ptx, uint32_t) {
  end_ptx(ptx);
  return 0;
}

void ptx3_rollback(zq_ptx* ptx, int32_t) {
  end_ptx(ptx);
}

void ptx3_release_resource(zq_ptx* ptx) {
  end_ptx(ptx);
}

}  // extern "C"
