/* Engine interface: memory, memory objects, scratch heaps and hash tables.
 *
 * A memory object (`zq_memobj`) is the engine's allocator handle: an allocate
 * routine, a free routine and the heap they work on. Pools and scratch heaps
 * are both reached through one. Freeing an individual block is optional for a
 * heap (its `free` may be null); destroying the object releases everything. */
#ifndef ZQHOST_MEM_H
#define ZQHOST_MEM_H

#include <stddef.h>
#include <stdint.h>

#include "zqhost/env.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zq_heap zq_heap; /* opaque arena */

typedef void* (*zq_alloc_fn)(zq_env* env, zq_heap* heap, size_t size, const char* src, int line);
typedef void (*zq_free_fn)(zq_env* env, zq_heap* heap, void* ptr);

typedef struct zq_memobj {
  zq_alloc_fn alloc; /* returns null when the engine is out of memory */
  zq_free_fn free;   /* may be null: blocks then live until the object dies */
  zq_heap* heap;     /* what `alloc` and `free` work on */
  uint32_t owned;    /* engine bookkeeping: nonzero when destroy frees the heap */
  uint32_t reserved;
} zq_memobj;

/* Plain allocation accounted to `env`; null when out of memory. */
void* mem_malloc_ex(zq_env* env, size_t size, const char* src, int line);
void mem_free(zq_env* env, void* ptr);

/* A named pool of `size`-byte chunks; the five zero arguments are the
 * engine's options, passed as given. Null on failure. */
zq_memobj* rt_memobj_mem2_pool_create_low(zq_env* env, uint32_t zero0, const char* name,
                                          size_t size, uint32_t zero1, uint32_t zero2,
                                          uint32_t zero3, uint32_t zero4, uint32_t zero5,
                                          const char* src, int line);

/* A scratch heap whose first `init_size` bytes may come from `stack_area`
 * (the caller's frame, at least `init_size` bytes, or null). Null on failure. */
zq_heap* mem_heap_create_low2(zq_env* env, void* stack_area, uint32_t init_size, const char* src,
                              int line);

/* Wraps `heap` in the caller's `storage`; returns `storage`. Destroying the
 * object destroys the heap. */
zq_memobj* rt_memobj_create_ex(zq_env* env, zq_memobj* storage, zq_heap* heap);

/* Creates a heap of `init_size` and wraps it in `storage`; null on failure. */
zq_memobj* rt_memobj_heap_create_fast_ex(zq_env* env, zq_memobj* storage, uint32_t init_size,
                                         const char* src, int line);

/* Releases the object's heap or pool and every block taken from it. A pool
 * object made by rt_memobj_mem2_pool_create_low is freed as well. */
void rt_memobj_destroy(zq_env* env, zq_memobj* obj);

/* Hash table: the engine owns the bucket array; a user chains its own items
 * from each bucket's head pointer. */
typedef struct zq_hash {
  uint32_t n_buckets;
  void** buckets; /* n_buckets heads, all null at creation */
} zq_hash;

zq_hash* zq_hash_create(zq_env* env, uint32_t n_buckets, const char* src, int line);
void zq_hash_table_free(zq_env* env, zq_hash* hash);

#ifdef __cplusplus
}
#endif

#endif
