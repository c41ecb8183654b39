/* The SQLite host: the engine side of libzqrtree, for the programs that
 * embed the library (tests, the zqrtree tool, the SQLite extension).
 *
 * The engine operations themselves are declared in include/zqhost/; this
 * header declares what a program needs around them: environments with their
 * error stack and fault injection, sessions over a SQLite connection, node
 * tables, the default row callbacks and temporary tables of pending changes.
 * The host knows nothing of R-trees: to it a node table is a table like any
 * other. */
#ifndef ZQ_HOST_HOST_H
#define ZQ_HOST_HOST_H

#include <sqlite3.h>
#include <stddef.h>
#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/hooks.h"
#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"
#include "zqhost/sort.h"
#include "zqhost/tmptab.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- environments and the error stack ---- */

typedef struct zq_err_entry {
  int32_t code;
  const char* func; /* the pushing function's name (a copy owned by the env) */
  int32_t level;
} zq_err_entry;

zq_env* zqenv_create(void);
/* Frees the environment and anything still allocated through it (heaps and
 * blocks a failure path left behind). */
void zqenv_destroy(zq_env* env);
size_t zqenv_err_count(const zq_env* env);
zq_err_entry zqenv_err_at(const zq_env* env, size_t i); /* 0 = first pushed */
void zqenv_err_clear(zq_env* env);
/* The error stack as readable lines ("  code -503 in rtr_node_insert_cell");
 * returns the length it needed, writes at most cap bytes with terminator. */
size_t zqenv_err_format(const zq_env* env, char* buf, size_t cap);

/* The SQLite result code (extended) of the last SQLite failure on env, 0 if none. */
int zqhost_last_sqlite_code(const zq_env* env);

/* Allocations made through this env and not yet freed (blocks, heaps, pools). */
uint64_t zqenv_live_allocs(const zq_env* env);

#ifdef ZQ_TEST_HOOKS
/* ---- fault injection (test builds only; all per env; 0 switches a fault off) ---- */

/* The nth allocation from now (1-based) fails: mem_malloc_ex, pool and heap
 * creation, memory-object allocations, key/row/fill-info creation. */
void zqfault_fail_alloc_nth(zq_env* env, uint64_t nth);
/* Allocations counted since the env was made or zqfault_reset. */
uint64_t zqfault_alloc_count(const zq_env* env);
/* Every creation of a pool with this name fails (null: off). */
void zqfault_fail_pool(zq_env* env, const char* name);
/* The nth raise-capable call inside a mini-transaction (see zqhost/ptx.h)
 * raises `code`, with the ptx's release flag set to `release_flag`. */
void zqfault_raise_nth(zq_env* env, uint64_t nth, int32_t code, uint8_t release_flag);
uint64_t zqfault_raise_count(const zq_env* env);
/* The nth call of default row callback `slot` (3, 4, 5 or 6) returns `code`
 * without touching the table. */
void zqfault_callback_nth(zq_env* env, uint32_t slot, uint64_t nth, int32_t code);
uint64_t zqfault_callback_count(const zq_env* env, uint32_t slot);
void zqfault_reset(zq_env* env);
#endif

/* zq_sys_halt writes its message to standard error and aborts, unless a
 * handler is set (tests set one). Returns the previous handler. */
typedef void (*zq_halt_handler)(const char* message, int32_t code);
zq_halt_handler zqhost_set_halt_handler(zq_halt_handler handler);

/* ---- sessions ---- */

/* Opens `path` (":memory:" allowed); files use WAL. Null with *code < 0. */
zq_session* zqsess_open(zq_env* env, const char* path, int32_t* code);
/* A session over a connection the caller owns (the SQLite extension). */
zq_session* zqsess_wrap(zq_env* env, sqlite3* db);
void zqsess_close(zq_session* session);
sqlite3* zqsess_db(zq_session* session);
zq_env* zqsess_env(zq_session* session);
void zqsess_set_rtree_buf_mb(zq_session* session, uint32_t total_mb, uint32_t per_handle_mb);
void zqsess_set_sort_mem(zq_session* session, uint64_t bytes);
uint64_t zqsess_sort_mem(const zq_session* session);
/* The scope of one database of the connection ("main", "temp", attached). */
zq_scope* zqsess_scope(zq_session* session, const char* schema);

/* User-level transactions. A rollback also drops the host's cached state
 * (rowid counters, dictionary objects) so nothing stale survives it. */
int32_t zqsess_begin(zq_session* session);
/* The same for work that will write: takes the write lock at once, waiting
 * for another writer up to the connection's busy timeout. */
int32_t zqsess_begin_write(zq_session* session);
int32_t zqsess_commit(zq_session* session);
int32_t zqsess_rollback(zq_session* session);

/* While held, write mini-transactions take no savepoint of their own: for
 * work whose failure rolls the whole transaction back anyway, and where a
 * savepoint would be wrong, such as a virtual table's commit (xSync), when
 * SQLite has left its transaction state but not yet committed. */
void zqsess_hold_savepoints(zq_session* session, int on);

/* Row undo where SQLite gives no savepoint (inside a running statement):
 * for a tracked table the default row callbacks keep each row's image
 * before they write it; zqsess_undo_restore puts every row written since
 * tracking began back as it was then, and keeps the images, so a later
 * restore still reaches the start whatever was rolled back in between.
 * Untracking forgets them. Call order: track(on) -> (writes, restore)* ->
 * track(off). */
int32_t zqsess_undo_track(zq_session* session, const char* schema, const char* table, int on);
int32_t zqsess_undo_restore(zq_session* session, const char* schema, const char* table);

/* Row observer: a function of the program's that the default row callbacks
 * call before each row they write to any table of the session, with what
 * they were given, so the program can keep structures of its own in step
 * with a table. It runs inside the caller's mini-transaction; a negative
 * return fails the write with that code before anything is written. What it
 * records is only as final as the mini-transaction and the transaction
 * around it: a program that rolls them back forgets what it recorded. */
typedef enum zq_row_change {
  ZQ_ROW_INSERT = 1,
  ZQ_ROW_UPDATE = 2, /* `row` set: a rewrite; else an in-place update of `new_values` */
  ZQ_ROW_DELETE = 3
} zq_row_change;
typedef struct zq_row_event {
  zq_row_change change;
  const char* schema; /* the table's database */
  const char* table;
  int64_t rowid;
  const zq_recdesc* desc;
  const zq_row* row;             /* insert: the row; rewrite: the new row */
  const zq_fillinfo* new_values; /* in-place update: the listed columns' new values */
  const zq_fillinfo* old_values; /* update: the changed columns' old values */
  const zq_nrec* rec;            /* delete: the row's record, or null */
} zq_row_event;
typedef int32_t (*zq_row_observer_fn)(void* ctx, const zq_row_event* event);
void zqsess_set_row_observer(zq_session* session, zq_row_observer_fn fn, void* ctx);

/* Creates the empty node table "MDRT$" + index_name in `schema`, with the
 * columns level, parent_id, cells, the system column and the rowid. */
int32_t zqsess_create_node_table(zq_session* session, const char* schema, const char* index_name);
/* The record descriptor of a table's B-tree, so tests can set its flags. */
zq_recdesc* zqsess_table_recdesc(zq_session* session, const char* schema, const char* table_name);

/* ---- row checks ----
 * A program may give a table a check that sees every row the host hands out
 * for it (an exact search, a cursor's open and steps) before the caller
 * does: rules about what a row may hold are the program's, the host knows
 * none. A refused row fails the call that would have handed it out with
 * ZQHOST_ERR_ROW_REFUSED, pushed under that call's name and raised inside a
 * mini-transaction like any engine failure, so the caller's normal error
 * path runs. Call order: zqsess_set_row_check -> (rows handed out, each
 * checked) -> zqsess_close frees the check's context. */

#define ZQHOST_ERR_ROW_REFUSED (-2116)

/* One column as stored: its storage class and its value as the host read it. */
typedef struct zq_col_view {
  int type;             /* SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB or SQLITE_NULL */
  int64_t i;            /* the value as an integer (declared integer columns) */
  double d;             /* the value as a double (declared floating-point columns) */
  const uint8_t* bytes; /* text and blob columns: `len` bytes, valid during the call */
  uint32_t len;
} zq_col_view;

typedef struct zq_row_view {
  int64_t rowid;
  uint32_t n_cols; /* the table's declared columns, in order */
  const zq_col_view* cols;
  uint64_t epoch;    /* moves whenever the table's rows may have changed since the
                        last row handed out: a write through the host, a rollback,
                        a commit of another connection */
  uint8_t for_write; /* handed out inside a write mini-transaction: the row is about
                        to be changed, not read */
} zq_row_view;

/* 0 hands the row out; anything else refuses it, with a reason of at most
 * `cap` bytes (terminator included) written to `why`. */
typedef int (*zq_row_check_fn)(void* ctx, const zq_row_view* row, char* why, size_t cap);

/* Gives `table` in `schema` the check `fn` with `ctx` (fn null: no check).
 * The session owns ctx from then on and frees it with `free_ctx` (may be
 * null) when the check is replaced or the session closes. */
int32_t zqsess_set_row_check(zq_session* session, const char* schema, const char* table,
                             zq_row_check_fn fn, void* ctx, void (*free_ctx)(void*));
/* The context of the table's check when its function is `fn`, else null. */
void* zqsess_row_check_ctx(zq_session* session, const char* schema, const char* table,
                           zq_row_check_fn fn);
/* The reason of the last refusal of a row check on `env` ("" if none). */
const char* zqhost_last_refusal(const zq_env* env);

/* ---- default row callbacks (install with rtr_hook_init) ---- */

uint16_t zqhost_get_row_tag(const zq_recdesc* desc);
int32_t zqhost_rec_is_visible(zq_env* env, zq_session* session, const zq_nrec* rec);
int32_t zqhost_rec_read_visible_version(zq_env* env, zq_memobj* scratch, zq_session* session,
                                        const zq_recdesc* desc, const zq_nrec* rec,
                                        const zq_nrec* rec2, zq_fillinfo* out, int32_t* code);
int32_t zqhost_row_delete(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                          const zq_recdesc* desc, zq_key* key, uint16_t row_tag, uint64_t dver,
                          const zq_nrec* rec);
int32_t zqhost_row_insert(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                          const zq_recdesc* desc, zq_row* row, zq_key* key, uint16_t row_tag,
                          uint32_t options);
int32_t zqhost_row_update_fixed(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                                const zq_recdesc* desc, zq_key* key, zq_fillinfo* new_values,
                                zq_fillinfo* old_values, uint16_t row_tag, uint64_t dver,
                                nbtr_cur* cur);
int32_t zqhost_row_update_unfixed(zq_ptx* ptx, zq_session* session, zq_table* table,
                                  zq_index* index, const zq_recdesc* desc, zq_key* key,
                                  zq_row* new_row, zq_fillinfo* old_values, uint16_t row_tag,
                                  uint64_t dver, nbtr_cur* cur);
void zqhost_row_insert_failed(zq_env* env, int32_t code);

/* ---- temporary tables of pending spatial changes ---- */

zq_tmptab_owner* zqsess_tmptab_owner(zq_session* session);
/* A spatial temp table with id `id` on the owner's chain; null on failure. */
zq_tmptab* zqtmp_create_spatial(zq_session* session, uint32_t id);
/* Adds or replaces the pending change (flag 'D' or 'I', rowid, box as three
 * minima then three maxima). */
int32_t zqtmp_put(zq_session* session, zq_tmptab* tab, char flag, int64_t rowid,
                  const double box[6]);
/* Sets or clears the delete mark of the row (flag, rowid). */
int32_t zqtmp_mark_deleted(zq_session* session, zq_tmptab* tab, char flag, int64_t rowid,
                           int32_t marked);
int32_t zqtmp_clear(zq_session* session, zq_tmptab* tab);
void zqtmp_drop(zq_session* session, zq_tmptab* tab);

#ifdef __cplusplus
}
#endif

#endif
