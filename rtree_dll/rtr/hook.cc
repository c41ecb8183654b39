// The engine's callback table and the process-wide node-buffer counter.
//
// Call order: the engine calls rtr_hook_init once, before the first handle is
// created; afterwards the table is only read (rtr_global_hook_get, and the
// node-table code through rtr_global_hook). g_rtr_buf_total_size is changed
// only by handle creation and destruction, through os_interlock_add.
#include "zqrtree/hook.h"

static_assert(sizeof(rtr_hook) == 96, "the engine fills twelve 8-byte slots");

extern "C" {

rtr_hook rtr_global_hook = {};
volatile uint32_t g_rtr_buf_total_size = 0;

rtr_hook* rtr_hook_init(zq_get_row_tag_fn h0, zq_rec_is_visible_fn h1,
                        zq_rec_read_visible_version_fn h2, zq_row_delete_fn h3, zq_row_insert_fn h4,
                        zq_row_update_fixed_fn h5, zq_row_update_unfixed_fn h6,
                        zq_unused_hook_fn h7, zq_unused_hook_fn h8, zq_unused_hook_fn h9,
                        zq_row_insert_failed_fn h10, zq_unused_hook_fn h11) {
  // Null pointers are stored as given: the engine owns the choice of slots.
  rtr_global_hook = rtr_hook{h0, h1, h2, h3, h4, h5, h6, h7, h8, h9, h10, h11};
  return &rtr_global_hook;
}

rtr_hook* rtr_global_hook_get(void) {
  return &rtr_global_hook;
}

}  // extern "C"
