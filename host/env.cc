// Environments and process services: the error stack, the halt, the atomic
// add and the engine's formatted print.
//
// Call order: zqenv_create -> (sessions, engine calls; zqerr_stk_push on
// failures; zqenv_err_* to read and clear the stack) -> zqenv_destroy, which
// closes the env's sessions and frees every block, heap and pool still
// accounted to it.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "host/internal.h"

zq_env::zq_env() {
  zqhost::list_init(&blocks);
  zqhost::list_init(&heaps);
  spare_heaps.reserve(zqhost::kMaxSpareHeaps);
}

namespace {

std::atomic<zq_halt_handler> g_halt_handler{nullptr};

// Frees what a failure path left behind: heaps and pools (with their
// chunks), then plain blocks.
void free_leftovers(zq_env* env) {
  while (env->heaps.next != &env->heaps) {
    zqhost::heap_destroy(reinterpret_cast<zq_heap*>(env->heaps.next));
  }
  while (env->blocks.next != &env->blocks) {
    auto* hdr = reinterpret_cast<zqhost::BlockHdr*>(env->blocks.next);
    zqhost::free_block(hdr + 1);
  }
  zqhost::free_spare_heaps(env);
}

}  // namespace

extern "C" {

zq_env* zqenv_create(void) {
  return new (std::nothrow) zq_env();
}

void zqenv_destroy(zq_env* env) {
  if (env == nullptr) return;
  while (!env->sessions.empty()) zqsess_close(env->sessions.back());
  free_leftovers(env);
  delete env;
}

void zqerr_stk_push(zq_env* env, int32_t code, const char* func, int32_t level) {
  if (env == nullptr) return;
  try {
    env->errs.push_back({code, func != nullptr ? func : "", level});
  } catch (...) {
    // Out of memory while reporting: the entry is lost, the caller's code is not.
  }
}

size_t zqenv_err_count(const zq_env* env) {
  return env != nullptr ? env->errs.size() : 0;
}

zq_err_entry zqenv_err_at(const zq_env* env, size_t i) {
  if (env == nullptr || i >= env->errs.size()) return {0, "", 0};
  const auto& e = env->errs[i];
  return {e.code, e.func.c_str(), e.level};
}

void zqenv_err_clear(zq_env* env) {
  if (env != nullptr) env->errs.clear();
}

size_t zqenv_err_format(const zq_env* env, char* buf, size_t cap) {
  size_t need = 0;
  if (buf != nullptr && cap > 0) buf[0] = '\0';
  if (env == nullptr) return 0;
  for (const auto& e : env->errs) {
    size_t room = (buf != nullptr && need < cap) ? cap - need : 0;
    int n = std::snprintf(room > 0 ? buf + need : nullptr, room, "  code %d in %s\n",
                          static_cast<int>(e.code), e.func.c_str());
    if (n > 0) need += static_cast<size_t>(n);
  }
  return need;
}

zq_halt_handler zqhost_set_halt_handler(zq_halt_handler handler) {
  return g_halt_handler.exchange(handler);
}

void zq_sys_halt(const char* message, int32_t code) {
  zq_halt_handler handler = g_halt_handler.load();
  if (handler != nullptr) {
    handler(message, code);
    return;
  }
  std::fprintf(stderr, "zqhost halt (code %d): %s", static_cast<int>(code),
               message != nullptr ? message : "");
  std::fflush(stderr);
  std::abort();
}

uint32_t os_interlock_add(volatile uint32_t* addr, int32_t delta) {
  // The counter is declared volatile by the library; the add itself must be
  // atomic, which a volatile access is not.
  auto* plain = const_cast<uint32_t*>(addr);
  return __atomic_add_fetch(plain, static_cast<uint32_t>(delta), __ATOMIC_SEQ_CST);
}

void aq_fprintf_inner(void* /*stream*/, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::vprintf(format, ap);
  va_end(ap);
}

uint64_t zqhost_insert_failed_count(const zq_env* env) {
  return env != nullptr ? env->insert_failed_notices : 0;
}

int32_t zqhost_insert_failed_last(const zq_env* env) {
  return env != nullptr ? env->last_insert_failed : 0;
}

int zqhost_last_sqlite_code(const zq_env* env) {
  return env != nullptr ? env->last_sqlite_rc : 0;
}

const char* zqhost_last_sqlite_error(const zq_env* env) {
  return env != nullptr ? env->last_sqlite_error.c_str() : "";
}

}  // extern "C"
