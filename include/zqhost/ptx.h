/* Engine interface: mini-transactions, cursors and the exception frame.
 *
 * A mini-transaction scopes one row action. Inside one, an engine call that
 * fails may raise its code as a C++ exception of type `zq_raised` instead of
 * returning it; the caller's frame catches it and then either releases the
 * mini-transaction's resources (code -1513 with `release_flag` set) or rolls
 * it back, so a rollback leaves the table as before that action.
 *
 * Calls that may raise while a mini-transaction is open: nbtr_cur_search,
 * pbcur_open, pbcur_move_to_right_user_rec (only while the cursor has a
 * mini-transaction), tuple4_from_nrec, ndct_table_get_dver and the engine's
 * default row callbacks. None raises outside a mini-transaction.
 *
 * Cursor records and mini-transaction records live in the caller's frame;
 * their public fields are listed first, the rest is the engine's. */
#ifndef ZQHOST_PTX_H
#define ZQHOST_PTX_H

#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/mem.h"
#include "zqhost/rec.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZQ_PTX_KIND_PLAIN 106u
#define ZQ_PTX_KIND_STMT 107u
#define ZQ_PTX_COMMIT 103u

typedef struct zq_ptx {
  zq_env* env;          /* the environment the mini-transaction runs for */
  uint32_t kind;        /* ZQ_PTX_KIND_PLAIN or ZQ_PTX_KIND_STMT */
  uint8_t mark_txn;     /* the session has an open transaction */
  uint8_t mark_ctx;     /* the session has a second transaction context */
  uint8_t release_flag; /* on -1513, release resources instead of rolling back */
  uint8_t write;        /* begun for a write */
  uint32_t state;       /* engine private */
  uint32_t reserved;
  void* impl[4]; /* engine private */
} zq_ptx;

/* The kind and the two marks that the engine's own writers give a
 * mini-transaction in the session's current state. */
void ptx3_kind_for_session(zq_env* env, zq_session* session, uint32_t* kind, uint8_t* mark_txn,
                           uint8_t* mark_ctx);
int32_t ptx3_begin_low_ex(zq_env* env, zq_ptx* ptx, uint32_t write_flag, uint32_t zero,
                          const char* src, int line);
int32_t ptx3_commit_inner(zq_ptx* ptx, uint32_t how);
void ptx3_rollback(zq_ptx* ptx, int32_t code);
void ptx3_release_resource(zq_ptx* ptx);

/* B-tree cursor: exact search by key. */
typedef struct nbtr_cur {
  zq_btr* btr;
  const zq_nrec* rec; /* current record after a search, or null */
  void* impl[6];      /* engine private */
} nbtr_cur;

void nbtr_cur_init(nbtr_cur* cur, zq_btr* btr);
/* Positions on the record matching `key`; `cur->rec` is null when there is
 * none. Returns 0 or a negative code; may raise. */
int32_t nbtr_cur_search(zq_ptx* ptx, nbtr_cur* cur, uint32_t mode1, uint32_t mode2, zq_key* key,
                        uint32_t zero, zq_memobj* mem);

/* Physical cursor: walks the records of a B-tree in key order. Boundary
 * records stand before the first and after the last row. */
typedef struct pbcur {
  zq_ptx* ptx;        /* null once the position is saved and the ptx ended */
  zq_btr* btr;
  const zq_nrec* rec; /* current record (possibly a boundary record), or null */
  uint32_t found;     /* after pbcur_open: the record matches the key exactly */
  uint32_t positioned;
  void* impl[8]; /* engine private */
} pbcur;

void pbcur_init_low(pbcur* cur, zq_ptx* ptx, zq_btr* btr, const char* src, int line);
/* Opens on the first record at or after `key`. With mode (1, 4) a record
 * that does not match the key exactly leaves `found` 0. Returns 0 or a
 * negative code; may raise. */
int32_t pbcur_open(pbcur* cur, zq_key* key, uint32_t mode1, uint32_t mode2, zq_memobj* mem);
/* Moves to the next record: 1 when there is one, 0 when there is no further
 * row (rec then null). Never raises once the position was saved. */
int32_t pbcur_move_to_right_user_rec(pbcur* cur);
/* Keeps the position so the cursor can go on after its ptx has ended. */
void pbcur_save_position_inner(pbcur* cur);
void pbcur_close(pbcur* cur);

#ifdef __cplusplus
}

/* Raised by an engine call inside a mini-transaction. */
struct zq_raised {
  int32_t code;
};
#endif

#endif
