/* Engine interface: physical records, rows, search keys and fill-info records.
 *
 * A physical record (`zq_nrec`) is the engine's stored form of one row, as a
 * cursor hands it out. Its first byte is a flag byte whose top bit marks the
 * record deleted; the rest is private to the engine and read through the
 * nrec_* accessors.
 *
 * A row (`zq_row`) is a set of numbered value slots, one per column, the last
 * two being the system column and the rowid. A value slot holds an integer,
 * a 64-bit integer, a double or a binary of at most 32767 bytes; a binary of
 * at most ZQ_VALUE_INLINE_MAX bytes lies inside the slot, a longer one behind
 * `ptr`. */
#ifndef ZQHOST_REC_H
#define ZQHOST_REC_H

#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/mem.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t zq_nrec; /* points at a record's flag byte */

#define ZQ_NREC_DELETED_BIT 0x80u
#define ZQ_VALUE_INLINE_MAX 48u
#define ZQ_BINARY_MAX 32767u

typedef struct zq_value {
  uint8_t notnull; /* 1 when the slot holds a value */
  uint8_t part_a;  /* rowid form: zero */
  uint16_t part_b; /* rowid form: zero */
  uint32_t len;    /* byte length of a binary value */
  union {
    int32_t i32;
    int64_t i64;
    double f64;
    uint8_t inl[ZQ_VALUE_INLINE_MAX]; /* binary of at most 48 bytes */
  } u;
  uint8_t* ptr; /* binary longer than 48 bytes */
} zq_value;

typedef struct zq_row {
  uint16_t n_cols;        /* == desc->n_cols */
  zq_value* cols;         /* n_cols slots; [n_cols-2] system column, [n_cols-1] rowid */
  const zq_recdesc* desc; /* the B-tree the row belongs to */
} zq_row;

typedef struct zq_key {
  uint16_t n_vals; /* == desc->n_key_vals; the last value is the rowid */
  zq_value* vals;
} zq_key;

/* Values of a list of columns, as update hooks take them. */
typedef struct zq_fillinfo {
  uint16_t n_cols;
  uint16_t* col_nos; /* column numbers */
  zq_value* values;  /* one value per listed column */
  uint32_t* lens;    /* optional: the values' lengths, or null */
} zq_fillinfo;

/* Physical records. `scratch` is engine scratch the accessor may use (may be
 * null). */
int64_t nrec_get_rowid(const zq_recdesc* desc, const zq_nrec* rec);
void nrec_copy_nth_field_data_lint(zq_env* env, const zq_recdesc* desc, const zq_nrec* rec,
                                   int32_t* out, uint16_t col, void* scratch);
void nrec_copy_nth_field_data_lint64(zq_env* env, const zq_recdesc* desc, const zq_nrec* rec,
                                     int64_t* out, uint16_t col, void* scratch);
/* Pointer to column `col`'s bytes; `*in_out_len` goes in as the largest
 * length accepted and comes back as the column's length. */
const uint8_t* nrec_get_nth_fld(zq_env* env, const zq_recdesc* desc, const zq_nrec* rec,
                                uint16_t col, void* scratch, uint16_t* in_out_len);
/* Copies at most `cap` bytes of column `col` into `out`; returns the
 * column's length. */
uint32_t nrec_copy_nth_field_data_with_length(zq_env* env, const zq_recdesc* desc,
                                              const zq_nrec* rec, uint16_t col, void* out,
                                              uint32_t cap);
/* Boundary records stand before the first and after the last row. */
int32_t nrec_is_min_rec(const zq_nrec* rec);
int32_t nrec_is_max_rec(const zq_nrec* rec);

/* Keys and rows, allocated from `mem`; null when out of memory. */
zq_key* tuple4_key_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc, int64_t rowid,
                          const char* src, int line);
void tuple4_key_free(zq_env* env, zq_memobj* mem, zq_key* key);
zq_row* tuple4_space_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc);
/* The record as a row (values referring into `mem`). May raise inside a
 * mini-transaction; also reports failures through `*code`. */
zq_row* tuple4_from_nrec(zq_env* env, zq_memobj* mem, const zq_nrec* rec, const zq_recdesc* desc,
                         int32_t* code);
/* Fill-info record for `count` listed columns with room for their values. */
zq_fillinfo* tuple4_fillinfo_space_create_low(zq_env* env, zq_memobj* mem, const zq_recdesc* desc,
                                              const uint16_t* cols, uint16_t count,
                                              uint32_t flags);
/* Fill-info record for `count` columns with no column numbers or values set;
 * `lens` is allocated when `size2` is nonzero. */
zq_fillinfo* tuple4_fillinfo_space_without_data_create(zq_env* env, zq_memobj* mem,
                                                       uint16_t count, uint32_t size1,
                                                       uint32_t size2);
zq_value* tuple4_fillinfo_get_nth_fld(zq_fillinfo* fill, uint16_t nth);

/* Copies `len` bytes into a binary slot, allocating from `mem` when longer
 * than ZQ_VALUE_INLINE_MAX; a negative code on failure. */
int32_t binary_assign_const_ex(zq_env* env, zq_memobj* mem, zq_value* slot, uint32_t len,
                               const void* bytes);
/* Puts a string into a value slot without clearing the slot first. */
int32_t nstr_assign_const_ex_no_clear(zq_env* env, zq_memobj* mem, zq_value* slot,
                                      const char* str, uint32_t len);
/* 0 when the two binary values are equal. */
int32_t nbin_cmp(zq_env* env, const zq_value* a, const zq_value* b);

#ifdef __cplusplus
}
#endif

#endif
