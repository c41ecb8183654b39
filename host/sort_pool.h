// The session's sort pool: where every sorter of a session finds its memory
// budget, and the running statistics the host's tests read back. Private to
// the host; the library sees zq_sort_pool only as an opaque pointer.
//
// Lifecycle: zqhost_sort_pool_new (declared in host/internal.h) when the
// session first needs it, zqhost_sort_pool_free when it closes; sorters made
// on the pool must be destroyed before that.
#ifndef ZQ_HOST_SORT_POOL_H
#define ZQ_HOST_SORT_POOL_H

#include <stdint.h>

#include "zqhost/env.h"
#include "zqhost/sort.h"

// Codes of the sorter and batches besides success: no memory or temporary
// file space (the host's kErrNoMem); a column or key list refused, or a batch
// that does not fit the layout (the host's kErrBadArg); a call out of order,
// such as rows put after sorting or taken before.
#define ZQHOST_SORT_NO_ROOM (-503)
#define ZQHOST_SORT_BAD_LAYOUT (-2113)
#define ZQHOST_SORT_BAD_STATE (-2190)

// Smallest budget a sorter works with, whatever the session says: room for a
// few chunks of rows and a two-way merge of runs.
#define ZQHOST_SORT_MIN_BUDGET (64u * 1024u)

// The pool's sorters share one budget: `committed` is what they have claimed
// of it together (see host/sort.cc).
struct zq_sort_pool {
  zq_session* session;    // whose sort budget applies; not owned
  uint64_t peak_bytes;    // most working memory one sorter of the pool held at once
  uint64_t runs_written;  // sorted runs spilled to temporary files
  uint64_t merge_passes;  // intermediate passes that merged runs into fewer runs
  uint64_t held;          // working memory all sorters of the pool hold now
  uint64_t peak_held;     // the most they held at once
  uint64_t committed;     // the part of the shared budget they have claimed
};

// The budget in bytes a sorter created now on `pool` gets: the session's
// setting, raised to ZQHOST_SORT_MIN_BUDGET.
uint64_t zqhost_sort_pool_budget(const zq_sort_pool* pool);

#endif
