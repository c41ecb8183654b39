/* Installs the SQLite host's default row callbacks in the library, the one
 * start-up step every program over library + host takes (slots 7, 8, 9 and
 * 11 are never called). Header-only so that programs that do not link the
 * driver (benchmark runners, fuzz targets) share it too. */
#ifndef ZQ_DRIVER_DEFAULT_HOOKS_H
#define ZQ_DRIVER_DEFAULT_HOOKS_H

#include "host/host.h"
#include "zqrtree/hook.h"

static inline void zq_install_default_hooks(void) {
  rtr_hook_init(zqhost_get_row_tag, zqhost_rec_is_visible, zqhost_rec_read_visible_version,
                zqhost_row_delete, zqhost_row_insert, zqhost_row_update_fixed,
                zqhost_row_update_unfixed, 0, 0, 0, zqhost_row_insert_failed, 0);
}

#endif
