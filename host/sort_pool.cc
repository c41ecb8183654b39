// The session's sort pool: the budget lookup every sorter of a session
// shares, and its statistics. Made when the session opens and freed when it
// closes; it holds no memory of the sorters themselves.
#include "host/sort_pool.h"

#include <algorithm>
#include <new>

#include "host/host.h"
#include "host/internal.h"

namespace {
// A pool without a session (a sorter made with no pool at all) sorts within
// this many bytes.
constexpr uint64_t kDefaultBudget = 64ull << 20;
}  // namespace

extern "C" zq_sort_pool* zqhost_sort_pool_new(zq_session* session) {
  // Session infrastructure like the connection itself: not an allocation of
  // any one operation, so not charged to the environment.
  zq_sort_pool* pool = new (std::nothrow) zq_sort_pool{};
  if (pool != nullptr) pool->session = session;
  return pool;
}

extern "C" void zqhost_sort_pool_free(zq_sort_pool* pool) {
  delete pool;
}

uint64_t zqhost_sort_pool_budget(const zq_sort_pool* pool) {
  uint64_t bytes = kDefaultBudget;
  if (pool != nullptr && pool->session != nullptr) bytes = zqsess_sort_mem(pool->session);
  return std::max<uint64_t>(bytes, ZQHOST_SORT_MIN_BUDGET);
}

static_assert(ZQHOST_SORT_NO_ROOM == zqhost::kErrNoMem, "the sorter's no-room code is the host's");
static_assert(ZQHOST_SORT_BAD_LAYOUT == zqhost::kErrBadArg, "a refused layout is a bad argument");
