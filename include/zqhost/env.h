/* Engine interface: environment, error stack and process services.
 *
 * Every engine operation that can fail takes the caller's environment first.
 * The library reports a failure by pushing (code, function name, level) onto
 * the environment's error stack; the engine decides what to do with it. */
#ifndef ZQHOST_ENV_H
#define ZQHOST_ENV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zq_env zq_env;         /* one per thread; opaque to the library */
typedef struct zq_session zq_session; /* one connection and its settings; opaque */

/* Records one failure on the error stack of `env`, in push order. `func` is
 * the pushing function's own name; `level` is the caller's severity. */
void zqerr_stk_push(zq_env* env, int32_t code, const char* func, int32_t level);

/* Stops the engine with `message`. An engine may let it return (tests do). */
void zq_sys_halt(const char* message, int32_t code);

/* Atomically adds `delta` to `*addr` and returns the new value. */
uint32_t os_interlock_add(volatile uint32_t* addr, int32_t delta);

/* The engine's formatted print. The SQLite host ignores `stream` and writes
 * to standard output. */
void aq_fprintf_inner(void* stream, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif
