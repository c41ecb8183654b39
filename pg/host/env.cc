// The backend's environment and session, the error stack, the halt, the
// atomic add, the engine's print, and the catching of PostgreSQL errors.
//
// Call order: backend_session() (first use makes both objects, for the
// backend's life) -> user operations, each pushing on the error stack and
// possibly failing the session -> the operation reads and clears both.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "miscadmin.h"
}

namespace zqpg {
namespace {

zq_env g_env;
zq_session g_session;
bool g_made = false;

void make_backend_objects() {
  std::memset(static_cast<void*>(&g_env), 0, sizeof g_env);
  std::memset(static_cast<void*>(&g_session), 0, sizeof g_session);
  g_env.session = &g_session;
  g_session.env = &g_env;
  g_session.sort_pool.session = &g_session;
  g_made = true;
}

}  // namespace

int g_buf_total_mb = 256;
int g_buf_handle_mb = 64;

zq_env* backend_env() {
  if (!g_made) make_backend_objects();
  return &g_env;
}

zq_session* backend_session() {
  if (!g_made) make_backend_objects();
  return &g_session;
}

void keep_error(zq_session* s, MemoryContext resume, const char* func) {
  // CopyErrorData must not run in ErrorContext, where the error was built.
  MemoryContextSwitchTo(resume);
  ErrorData* e = CopyErrorData();
  FlushErrorState();
  if (!s->failed) {
    s->failed = true;
    s->sqlerrcode = e->sqlerrcode;
    strlcpy(s->message, e->message != nullptr ? e->message : "", sizeof s->message);
  }
  FreeErrorData(e);
  zqerr_stk_push(s->env, kErrPostgres, func, 1);
}

void fail_session(zq_session* s, int sqlerrcode, const char* message) {
  if (s->failed) return;
  s->failed = true;
  s->sqlerrcode = sqlerrcode;
  strlcpy(s->message, message, sizeof s->message);
}

int32_t fail_or_raise(zq_env* env, zq_ptx* ptx, int32_t code) {
  if (ptx != nullptr && env->active_ptx != nullptr) throw zq_raised{code};
  return code;
}

}  // namespace zqpg

extern "C" {

void zqerr_stk_push(zq_env* env, int32_t code, const char* func, int32_t level) {
  if (env == nullptr) return;
  if (env->n_errs < zqpg::kMaxErrs) {
    zq_env::Err& e = env->errs[env->n_errs];
    e.code = code;
    e.level = level;
    strlcpy(e.func, func != nullptr ? func : "", sizeof e.func);
  }
  ++env->n_errs;
}

void zq_sys_halt(const char* message, int32_t) {
  // A halt means this transaction met a node row written by another one
  // that its snapshot cannot see: its view of the tree is out of date. The
  // operation fails as a serialization failure (the client retries); the
  // library goes on as a reader and the abort undoes what it writes.
  zqpg::fail_session(zqpg::backend_session(), ERRCODE_T_R_SERIALIZATION_FAILURE,
                     message != nullptr ? message : "the index changed under this transaction");
}

uint32_t os_interlock_add(volatile uint32_t* addr, int32_t delta) {
  auto* plain = const_cast<uint32_t*>(addr);
  return __atomic_add_fetch(plain, static_cast<uint32_t>(delta), __ATOMIC_SEQ_CST);
}

void aq_fprintf_inner(void* /*stream*/, const char* format, ...) {
  // The debug print goes to the server's log, never to a client: ereport
  // could raise inside the library.
  va_list ap;
  va_start(ap, format);
  vfprintf(stderr, format, ap);
  va_end(ap);
}

uint32_t zqsess_rtree_buf_total_mb(const zq_session*) {
  return static_cast<uint32_t>(zqpg::g_buf_total_mb);
}

uint32_t zqsess_rtree_buf_handle_mb(const zq_session*) {
  return static_cast<uint32_t>(zqpg::g_buf_handle_mb);
}

zq_sort_pool* zqsess_sort_pool(zq_session* s) {
  return &s->sort_pool;
}

}  // extern "C"

// The sorter (host/sort.cc, shared with the SQLite host) sorts within
// work_mem, as PostgreSQL's own sorts do, and spills sorted runs beyond it.
uint64_t zqhost_sort_pool_budget(const zq_sort_pool*) {
  const uint64_t bytes = static_cast<uint64_t>(work_mem) * 1024;
  return bytes > ZQHOST_SORT_MIN_BUDGET ? bytes : ZQHOST_SORT_MIN_BUDGET;
}

extern "C" {}  // extern "C"
