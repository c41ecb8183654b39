/* Engine interface: the callback slots the engine installs in the library.
 *
 * Slots 3 to 6 run inside the caller's mini-transaction (`ptx`), receive the
 * handle's session, node table, index and row tag and the record descriptor
 * of the node table's B-tree, and return the caller's result code. */
#ifndef ZQHOST_HOOKS_H
#define ZQHOST_HOOKS_H

#include <stdint.h>

#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Slot 0: a tag for rows of `desc`, handed back unchanged to slots 3 to 6. */
typedef uint16_t (*zq_get_row_tag_fn)(const zq_recdesc* desc);
/* Slot 1: nonzero when `rec` is visible to `session`. */
typedef int32_t (*zq_rec_is_visible_fn)(zq_env* env, zq_session* session, const zq_nrec* rec);
/* Slot 2: fills `out` (columns already listed) with the version of `rec` the
 * session may see; nonzero when there is one; `*code` gets a failure. */
typedef int32_t (*zq_rec_read_visible_version_fn)(zq_env* env, zq_memobj* scratch,
                                                  zq_session* session, const zq_recdesc* desc,
                                                  const zq_nrec* rec, const zq_nrec* rec2,
                                                  zq_fillinfo* out, int32_t* code);
/* Slot 3: deletes the row of `rec`. */
typedef int32_t (*zq_row_delete_fn)(zq_ptx* ptx, zq_session* session, zq_table* table,
                                    zq_index* index, const zq_recdesc* desc, zq_key* key,
                                    uint16_t row_tag, uint64_t dver, const zq_nrec* rec);
/* Slot 4: inserts `row` whose rowid is in the key. */
typedef int32_t (*zq_row_insert_fn)(zq_ptx* ptx, zq_session* session, zq_table* table,
                                    zq_index* index, const zq_recdesc* desc, zq_row* row,
                                    zq_key* key, uint16_t row_tag, uint32_t options);
/* Slot 5: overwrites the listed columns in place (same lengths). */
typedef int32_t (*zq_row_update_fixed_fn)(zq_ptx* ptx, zq_session* session, zq_table* table,
                                          zq_index* index, const zq_recdesc* desc, zq_key* key,
                                          zq_fillinfo* new_values, zq_fillinfo* old_values,
                                          uint16_t row_tag, uint64_t dver, nbtr_cur* cur);
/* Slot 6: rewrites the row from `new_row`; `old_values` lists what changed. */
typedef int32_t (*zq_row_update_unfixed_fn)(zq_ptx* ptx, zq_session* session, zq_table* table,
                                            zq_index* index, const zq_recdesc* desc, zq_key* key,
                                            zq_row* new_row, zq_fillinfo* old_values,
                                            uint16_t row_tag, uint64_t dver, nbtr_cur* cur);
/* Slot 10: a node-table insert returned -1509; called after its ptx ended. */
typedef void (*zq_row_insert_failed_fn)(zq_env* env, int32_t code);
/* Slots 7, 8, 9, 11: stored, never called. */
typedef void (*zq_unused_hook_fn)(void);

#ifdef __cplusplus
}
#endif

#endif
