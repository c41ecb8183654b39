// The extension's module: its magic block, and at load the library's
// callbacks and the extension's settings.
//
// Settings: zqrtree.buf_total_mb, the node buffer all handles of one
// backend may reserve together (256 MB); zqrtree.buf_handle_mb, one
// handle's share (64 MB). The bulk load's sorter spills beyond work_mem.
#include "pg/host/pghost.h"
#include "zqrtree/hook.h"

extern "C" {
#include "fmgr.h"
#include "utils/guc.h"
}

extern "C" {
PG_MODULE_MAGIC;

void _PG_init(void) {
  rtr_hook_init(zqpg_get_row_tag, zqpg_rec_is_visible, zqpg_rec_read_visible_version,
                zqpg_row_delete, zqpg_row_insert, zqpg_row_update_fixed, zqpg_row_update_unfixed,
                nullptr, nullptr, nullptr, zqpg_row_insert_failed, nullptr);
  DefineCustomIntVariable("zqrtree.buf_total_mb",
                          "Node buffer all zqrtree handles of a session may reserve together.",
                          nullptr, &zqpg::g_buf_total_mb, 256, 0, 1 << 20, PGC_USERSET, GUC_UNIT_MB,
                          nullptr, nullptr, nullptr);
  DefineCustomIntVariable("zqrtree.buf_handle_mb", "Node buffer of one zqrtree handle.", nullptr,
                          &zqpg::g_buf_handle_mb, 64, 1, 1 << 20, PGC_USERSET, GUC_UNIT_MB, nullptr,
                          nullptr, nullptr);
  MarkGUCPrefixReserved("zqrtree");
}

}  // extern "C"
