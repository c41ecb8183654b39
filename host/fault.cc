// Fault injection at the engine boundary: failing allocations by countdown,
// failing pool creation by name, raising inside mini-transactions and failing
// default row callbacks, so every failure path of the library can be driven
// from a test. All settings live in the env and are one-shot except the pool
// name, which fails every creation until switched off. Built only with
// ZQ_TEST_HOOKS (test builds); a user's build has none of it.
//
// Call order: zqfault_* setters (any time) -> engine calls consult
// alloc_fails / raise_point / callback_fault -> zqfault_*_count to read what
// was counted -> zqfault_reset.
#include "host/internal.h"

namespace zqhost {

bool alloc_fails(zq_env* env) {
  if (env == nullptr) return false;
  Faults& f = env->faults;
  ++f.allocs;
  if (f.alloc_fail_at != 0 && f.allocs == f.alloc_fail_at) {
    f.alloc_fail_at = 0;
    return true;
  }
  return false;
}

bool pool_fails(zq_env* env, const char* name) {
  return env != nullptr && env->faults.pool_on && name != nullptr && env->faults.pool_name == name;
}

void raise_point(zq_env* env, zq_ptx* ptx) {
  if (env == nullptr || ptx == nullptr) return;
  Faults& f = env->faults;
  ++f.raises;
  if (f.raise_at != 0 && f.raises == f.raise_at) {
    f.raise_at = 0;
    ptx->release_flag = f.raise_release;
    throw zq_raised{f.raise_code};
  }
}

int32_t callback_fault(zq_env* env, uint32_t slot) {
  if (env == nullptr || slot >= 7) return 0;
  Faults& f = env->faults;
  ++f.callbacks[slot];
  if (f.callback_at[slot] != 0 && f.callbacks[slot] == f.callback_at[slot]) {
    f.callback_at[slot] = 0;
    return f.callback_code[slot];
  }
  return 0;
}

}  // namespace zqhost

extern "C" {

void zqfault_fail_alloc_nth(zq_env* env, uint64_t nth) {
  if (env == nullptr) return;
  env->faults.alloc_fail_at = nth == 0 ? 0 : env->faults.allocs + nth;
}

uint64_t zqfault_alloc_count(const zq_env* env) {
  return env != nullptr ? env->faults.allocs : 0;
}

void zqfault_fail_pool(zq_env* env, const char* name) {
  if (env == nullptr) return;
  env->faults.pool_on = name != nullptr;
  env->faults.pool_name = name != nullptr ? name : "";
}

void zqfault_raise_nth(zq_env* env, uint64_t nth, int32_t code, uint8_t release_flag) {
  if (env == nullptr) return;
  zqhost::Faults& f = env->faults;
  f.raise_at = nth == 0 ? 0 : f.raises + nth;
  f.raise_code = code;
  f.raise_release = release_flag;
}

uint64_t zqfault_raise_count(const zq_env* env) {
  return env != nullptr ? env->faults.raises : 0;
}

void zqfault_callback_nth(zq_env* env, uint32_t slot, uint64_t nth, int32_t code) {
  if (env == nullptr || slot < 3 || slot > 6) return;
  zqhost::Faults& f = env->faults;
  f.callback_at[slot] = nth == 0 ? 0 : f.callbacks[slot] + nth;
  f.callback_code[slot] = code;
}

uint64_t zqfault_callback_count(const zq_env* env, uint32_t slot) {
  if (env == nullptr || slot >= 7) return 0;
  return env->faults.callbacks[slot];
}

void zqfault_reset(zq_env* env) {
  if (env != nullptr) env->faults = zqhost::Faults{};
}

}  // extern "C"
