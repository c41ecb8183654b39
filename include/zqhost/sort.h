/* Engine interface: the sorter and column batches.
 *
 * A batch (`zq_bdta`) holds up to its columns' capacity of rows, column by
 * column; each cell is a not-null flag and an 8-byte datum. A sorter takes
 * batches, sorts their rows by its keys and hands them back in batches. The
 * sorter keeps rows in memory within the session's sort budget and spills
 * sorted runs to temporary files beyond it. */
#ifndef ZQHOST_SORT_H
#define ZQHOST_SORT_H

#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/mem.h"
#include "zqhost/rec.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZQ_TYPE_BIGINT 8u  /* 64-bit signed integer */
#define ZQ_TYPE_DOUBLE 11u /* IEEE 754 binary64 */

typedef struct zq_nsort zq_nsort; /* opaque */

typedef union zq_datum {
  int64_t i64;
  double f64;
} zq_datum;

typedef struct zq_bdta_col {
  uint16_t type;
  uint16_t reserved;
  uint32_t cap;      /* rows the column has room for */
  zq_datum* data;    /* cap data; the single block the column's storage owns */
  uint8_t* notnull;  /* cap flags, inside the block of `data` */
} zq_bdta_col;

typedef struct zq_bdta {
  uint32_t n_rows; /* rows in use; read and advanced by the batch's user */
  uint16_t n_cols;
  uint16_t reserved;
  zq_bdta_col* cols;
} zq_bdta;

/* Orders two values of one type: negative, 0 or positive. */
typedef int32_t (*zq_cmp_fn)(const zq_datum* a, const zq_datum* b);

typedef struct zq_sort_col {
  uint16_t col_no;
  uint16_t type;
} zq_sort_col;

typedef struct zq_sort_col_list {
  uint16_t n;
  const zq_sort_col* cols;
} zq_sort_col_list;

typedef struct zq_sort_key {
  uint16_t col_no;
  char order; /* 'A' ascending, 'D' descending */
  zq_cmp_fn cmp;
} zq_sort_key;

typedef struct zq_sort_key_list {
  uint16_t n;
  const zq_sort_key* keys;
} zq_sort_key_list;

/* A sorter whose object is taken from `mem` (it can be given back with
 * mem->free while no row was put); working memory comes from `pool`. */
zq_nsort* nsort_create(zq_env* env, zq_memobj* mem, uint32_t one, uint32_t zero,
                       uint32_t batch_rows, zq_sort_pool* pool, uint32_t zero2);
zq_cmp_fn sort2_simple_fun_search(zq_env* env, uint16_t type);
int32_t nsort_set_bdta_info(zq_env* env, zq_nsort* sorter, const zq_sort_col_list* cols,
                            uint32_t zero, const zq_sort_key_list* keys, uint32_t one);
int32_t nsort_put_bdta(zq_env* env, zq_nsort* sorter, zq_bdta* bdta);
int32_t nsort_sort_it(zq_env* env, zq_nsort* sorter);
/* Up to `max_rows` sorted rows into `bdta` (its n_rows says how many);
 * `*end` becomes nonzero once no rows remain. */
int32_t nsort_get_bdta(zq_env* env, zq_memobj* mem, zq_bdta* bdta, uint32_t max_rows,
                       zq_nsort* sorter, uint32_t* end);
/* Empties the sorter for reuse; keeps its layout. */
void nsort_clear(zq_env* env, zq_nsort* sorter);
void nsort_destory(zq_env* env, zq_nsort* sorter);

/* A batch object with `n_cols` columns of the given types and no storage. */
zq_bdta* bdta3_create(zq_env* env, zq_memobj* mem, uint16_t n_cols, const uint16_t* types);
/* Storage for one column: one block from `mem` (col->data). */
int32_t bdta3_col_data_create_low(zq_env* env, zq_memobj* mem, zq_bdta_col* col, uint16_t type,
                                  uint32_t cap);
/* Puts `value` (its notnull flag and 8-byte datum) into cell (row, col). */
void bdta3_put_fld_data(zq_env* env, zq_bdta* bdta, const zq_value* value, zq_memobj* mem,
                        uint32_t row, uint16_t col);
void bdta3_clear(zq_env* env, zq_memobj* mem, zq_bdta* bdta);
/* Frees the batch object only (its column storage is freed by whoever made it). */
void bdta3_free(zq_env* env, zq_memobj* mem, zq_bdta* bdta);
/* Frees the batch and all its column storage. */
void bdta3_free2(zq_env* env, zq_memobj* mem, zq_bdta* bdta);

#ifdef __cplusplus
}
#endif

#endif
