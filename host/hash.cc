// Hash tables: the engine owns only the bucket array; users chain their own
// items from each bucket's head. The table is accounted to its env but not
// subject to allocation fault injection: the library uses it untested.
//
// Call order: zq_hash_create -> (the user's chains) -> zq_hash_table_free.
#include <cstring>

#include "host/internal.h"

extern "C" {

zq_hash* zq_hash_create(zq_env* env, uint32_t n_buckets, const char*, int) {
  size_t size = sizeof(zq_hash) + sizeof(void*) * static_cast<size_t>(n_buckets);
  auto* hash = static_cast<zq_hash*>(zqhost::alloc_block(env, size));
  if (hash == nullptr) return nullptr;
  hash->n_buckets = n_buckets;
  hash->buckets = reinterpret_cast<void**>(hash + 1);
  std::memset(static_cast<void*>(hash->buckets), 0, sizeof(void*) * n_buckets);
  return hash;
}

void zq_hash_table_free(zq_env*, zq_hash* hash) {
  zqhost::free_block(hash);
}

}  // extern "C"
