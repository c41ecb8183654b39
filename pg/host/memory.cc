// Memory from PostgreSQL memory contexts: plain blocks, scratch heaps, pools
// and hash tables, all under the current operation's context, so whatever a
// failed operation leaves behind goes with the statement's memory. Only the
// handles' hash tables live in the backend's top context: every operation
// destroys its handles, failed or not, and the last one freed is kept.
//
// A heap (zq_heap) is an AllocSet context of its own; a pool is one too, its
// memory object allocated inside it and its blocks zero-filled (the library
// relies on a fresh node buffer's unused coordinate slots reading 0). Every
// allocation asks for MCXT_ALLOC_NO_OOM: the library expects null, never an
// ERROR, when memory runs out.
//
// Call order: mem_heap_create_low2 | rt_memobj_heap_create_fast_ex |
// rt_memobj_mem2_pool_create_low -> obj->alloc / obj->free ->
// rt_memobj_destroy. mem_malloc_ex / mem_free stand alone.
#include <cstring>

#include "pg/host/pghost.h"

namespace {

zq_hash* g_spare_hash = nullptr;  // a freed bucket array kept for the next handle

MemoryContext context_of(zq_heap* heap) {
  return reinterpret_cast<MemoryContext>(heap);
}

zq_heap* heap_of(MemoryContext ctx) {
  return reinterpret_cast<zq_heap*>(ctx);
}

MemoryContext op_context(zq_env* env) {
  zq_session* s = env != nullptr ? env->session : zqpg::backend_session();
  return s->op_ctx != nullptr ? s->op_ctx : CurrentMemoryContext;
}

void* heap_alloc(zq_env*, zq_heap* heap, size_t size, const char*, int) {
  return MemoryContextAllocExtended(context_of(heap), size == 0 ? 1 : size, MCXT_ALLOC_NO_OOM);
}

void* pool_alloc(zq_env*, zq_heap* heap, size_t size, const char*, int) {
  return MemoryContextAllocExtended(context_of(heap), size == 0 ? 1 : size,
                                    MCXT_ALLOC_NO_OOM | MCXT_ALLOC_ZERO);
}

void block_free(zq_env*, zq_heap*, void* ptr) {
  if (ptr != nullptr) pfree(ptr);
}

// A context under the operation's; null when PostgreSQL cannot make one.
// `name` is a string literal: the context keeps the pointer.
MemoryContext new_context(zq_env* env, const char* name, size_t init_size) {
  MemoryContext made = nullptr;
  zq_session* s = env != nullptr ? env->session : zqpg::backend_session();
  // Creation fails only by ERROR (out of memory), which must not reach the
  // library; this runs outside the failed-session check on purpose, as
  // memory is still to be had after an unrelated failure.
  PG_TRY();
  {
    // Default sizes keep the context on PostgreSQL's free list of contexts.
    const size_t first =
        init_size > ALLOCSET_DEFAULT_INITSIZE ? init_size : ALLOCSET_DEFAULT_INITSIZE;
    made = AllocSetContextCreateInternal(op_context(env), name, ALLOCSET_DEFAULT_MINSIZE, first,
                                         ALLOCSET_DEFAULT_MAXSIZE);
  }
  PG_CATCH();
  {
    zqpg::keep_error(s, op_context(env), "mem_heap_create");
    made = nullptr;
  }
  PG_END_TRY();
  return made;
}

}  // namespace

extern "C" {

void* mem_malloc_ex(zq_env* env, size_t size, const char*, int) {
  return MemoryContextAllocExtended(op_context(env), size == 0 ? 1 : size, MCXT_ALLOC_NO_OOM);
}

void mem_free(zq_env*, void* ptr) {
  if (ptr != nullptr) pfree(ptr);
}

zq_heap* mem_heap_create_low2(zq_env* env, void* /*stack_area*/, uint32_t init_size, const char*,
                              int) {
  // The caller's stack area is not used: a context's first block is cheap
  // once PostgreSQL's context free list is warm.
  MemoryContext ctx = new_context(env, "zqrtree heap", init_size);
  return ctx != nullptr ? heap_of(ctx) : nullptr;
}

zq_memobj* rt_memobj_create_ex(zq_env*, zq_memobj* storage, zq_heap* heap) {
  *storage = zq_memobj{heap_alloc, block_free, heap, 1, 0};
  return storage;
}

zq_memobj* rt_memobj_heap_create_fast_ex(zq_env* env, zq_memobj* storage, uint32_t init_size,
                                         const char* src, int line) {
  zq_heap* heap = mem_heap_create_low2(env, nullptr, init_size, src, line);
  return heap != nullptr ? rt_memobj_create_ex(env, storage, heap) : nullptr;
}

zq_memobj* rt_memobj_mem2_pool_create_low(zq_env* env, uint32_t, const char*, size_t, uint32_t,
                                          uint32_t, uint32_t, uint32_t, uint32_t, const char*,
                                          int) {
  MemoryContext ctx = new_context(env, "zqrtree pool", 0);
  if (ctx == nullptr) return nullptr;
  auto* obj = static_cast<zq_memobj*>(
      MemoryContextAllocExtended(ctx, sizeof(zq_memobj), MCXT_ALLOC_NO_OOM));
  if (obj == nullptr) {
    MemoryContextDelete(ctx);
    return nullptr;
  }
  // owned == 2 marks a pool: its object lives inside its own context.
  *obj = zq_memobj{pool_alloc, block_free, heap_of(ctx), 2, 0};
  return obj;
}

void rt_memobj_destroy(zq_env*, zq_memobj* obj) {
  if (obj == nullptr || obj->heap == nullptr || obj->owned == 0) return;
  MemoryContext ctx = context_of(obj->heap);
  if (obj->owned == 1) {
    obj->heap = nullptr;
    obj->owned = 0;
  }
  MemoryContextDelete(ctx);  // a pool's object goes with it
}

zq_hash* zq_hash_create(zq_env*, uint32_t n_buckets, const char*, int) {
  // Every handle asks for the same large bucket array: the backend keeps one
  // for the next handle instead of allocating and faulting it in each time.
  zq_hash* hash = g_spare_hash;
  if (hash != nullptr && hash->n_buckets == n_buckets) {
    g_spare_hash = nullptr;
  } else {
    const size_t size = sizeof(zq_hash) + sizeof(void*) * static_cast<size_t>(n_buckets);
    hash = static_cast<zq_hash*>(
        MemoryContextAllocExtended(TopMemoryContext, size, MCXT_ALLOC_NO_OOM));
    if (hash == nullptr) return nullptr;
    hash->n_buckets = n_buckets;
    hash->buckets = reinterpret_cast<void**>(hash + 1);
  }
  memset(static_cast<void*>(hash->buckets), 0, sizeof(void*) * static_cast<size_t>(n_buckets));
  return hash;
}

void zq_hash_table_free(zq_env*, zq_hash* hash) {
  if (hash == nullptr) return;
  if (g_spare_hash == nullptr) {
    g_spare_hash = hash;
  } else {
    pfree(hash);
  }
}

}  // extern "C"
