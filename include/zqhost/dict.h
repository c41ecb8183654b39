/* Engine interface: sessions, the data dictionary and B-trees.
 *
 * A scope is where tables are looked up (in the SQLite host, one database of
 * the session's connection). A table has indexes; its first valid real index
 * owns the table's B-tree, whose rowids identify rows. A record descriptor
 * describes the rows of one B-tree. */
#ifndef ZQHOST_DICT_H
#define ZQHOST_DICT_H

#include <stdint.h>

#include "zqhost/env.h"
#include "zqhost/mem.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zq_scope zq_scope;         /* opaque */
typedef struct zq_sort_pool zq_sort_pool; /* opaque; see zqhost/sort.h */

/* Settings the engine keeps per session, in megabytes of node buffer. */
uint32_t zqsess_rtree_buf_total_mb(const zq_session* session);  /* all handles together */
uint32_t zqsess_rtree_buf_handle_mb(const zq_session* session); /* one handle */
zq_sort_pool* zqsess_sort_pool(zq_session* session);

/* Record descriptor of a B-tree's rows. */
typedef struct zq_recdesc {
  uint16_t n_cols;           /* row columns, the system column and rowid included */
  uint16_t n_key_vals;       /* values of a search key on the B-tree */
  uint8_t no_inplace_parent; /* flag F: the parent column may not be updated in place */
  uint8_t no_inplace_level;  /* flag G: the level column may not be updated in place */
  uint8_t sys_col_as_i64;    /* the system column is written as a 64-bit zero */
  uint8_t reserved;
  uint32_t fill_size1; /* the two sizes a fill-info record without data is made with */
  uint32_t fill_size2;
} zq_recdesc;

typedef struct zq_btr {
  zq_recdesc* desc; /* rows of this B-tree */
  void* impl;       /* engine private */
} zq_btr;

typedef struct zq_table {
  const char* name; /* as found in the dictionary */
  void* impl;       /* engine private */
} zq_table;

/* An index object. The engine's object for an R-tree index needs only `name`
 * filled in; the dictionary fills the rest for the indexes it hands out. */
typedef struct zq_index {
  const char* name;
  zq_table* table;
  zq_btr* btr;
  void* impl;
} zq_index;

/* Table `name` in `scope`; null with a negative `*code` when there is none. */
zq_table* ndct_find_table_by_name_with_code(zq_env* env, zq_memobj* pool, zq_scope* scope,
                                            const char* name, int32_t* code);
/* The table's `nth` valid real index; null with a negative `*code` if absent. */
zq_index* ndct_table_get_nth_valid_real_index(zq_env* env, zq_memobj* pool, zq_table* table,
                                              uint32_t nth, int32_t* code);
zq_btr* ndct_phy_index_get_btr(zq_index* index);
/* The table's data version, read right before a row change. May raise inside
 * a mini-transaction (see zqhost/ptx.h). */
int32_t ndct_table_get_dver(zq_env* env, zq_table* table, uint64_t* out);

/* The next unused rowid of the B-tree; `*code` gets 0 or a negative code. */
int64_t nbtr_get_next_rowid(zq_env* env, zq_btr* btr, int32_t* code);

#ifdef __cplusplus
}
#endif

#endif
