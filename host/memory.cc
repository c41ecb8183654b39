// Memory: accounted blocks, scratch heaps (arenas), pools and the memory
// objects that front them.
//
// Every block, heap and pool is linked into its env's accounting lists, so
// zqenv_live_allocs can tell what is still held and zqenv_destroy can free
// what a failure path left behind. A heap is a bump arena of malloc'ed chunks
// whose first chunk may be the caller's stack area; only its latest block can
// be given back early. A scratch heap made on a stack area big enough keeps
// its header there as well, and the env keeps a few freed heap blocks for
// the next scratch heap, so the library's per-operation heaps cost no malloc
// once warm. A pool is a heap whose blocks carry their size, so a
// freed block is reused by the next allocation of the same size; its blocks
// are handed out zero-filled.
//
// Call order: mem_heap_create_low2 | rt_memobj_heap_create_fast_ex |
// rt_memobj_mem2_pool_create_low -> obj->alloc / obj->free ->
// rt_memobj_destroy. mem_malloc_ex / mem_free stand alone.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "host/internal.h"

namespace {

using zqhost::BlockHdr;
using zqhost::Chunk;

constexpr size_t kAlign = 16;
constexpr size_t kScratchMaxChunk = 64 * 1024;
constexpr size_t kPoolFirstChunk = 64 * 1024;
constexpr size_t kMinChunk = 1024;
constexpr size_t kMinStackRegion = 256;  // a stack area must leave this much after the header

constexpr size_t round_up(size_t n) {
  return (n + kAlign - 1) & ~(kAlign - 1);
}
constexpr size_t kChunkHdr = round_up(sizeof(Chunk));
constexpr size_t kHeapHdr = round_up(sizeof(zq_heap));
constexpr size_t kPoolBlockHdr = kAlign;  // a pool block's size, before its bytes

struct PoolBlock {  // a pool: its memory object and heap in one allocation
  zq_memobj obj;
  zq_heap heap;
};

void* block_alloc(zq_env* env, size_t size) {
  auto* hdr = static_cast<BlockHdr*>(std::malloc(sizeof(BlockHdr) + size));
  if (hdr == nullptr) return nullptr;
  hdr->env = env;
  hdr->size = size;
  if (env != nullptr) {
    zqhost::list_push(&env->blocks, &hdr->link);
    ++env->n_live;
  } else {
    zqhost::list_init(&hdr->link);
  }
  return hdr + 1;
}

void heap_set_region(zq_heap* heap, uint8_t* start, size_t size) {
  uint8_t* aligned = reinterpret_cast<uint8_t*>(round_up(reinterpret_cast<uintptr_t>(start)));
  size_t skip = static_cast<size_t>(aligned - start);
  heap->cur = aligned;
  heap->left = size > skip ? size - skip : 0;
  heap->last = nullptr;
}

void heap_init(zq_heap* heap, zq_env* env, size_t next_chunk, size_t max_chunk) {
  std::memset(static_cast<void*>(heap), 0, sizeof *heap);
  heap->env = env;
  heap->next_chunk = next_chunk;
  heap->max_chunk = max_chunk;
  zqhost::list_push(&env->heaps, &heap->link);
  ++env->n_live;
}

// A new chunk of at least `need` bytes becomes the heap's current region.
bool heap_grow(zq_heap* heap, size_t need) {
  size_t size = std::max(heap->next_chunk, need);
  auto* chunk = static_cast<Chunk*>(std::malloc(kChunkHdr + size));
  if (chunk == nullptr) return false;
  chunk->size = size;
  chunk->next = heap->chunks;
  heap->chunks = chunk;
  heap_set_region(heap, reinterpret_cast<uint8_t*>(chunk) + kChunkHdr, size);
  heap->next_chunk = std::min(heap->next_chunk * 2, heap->max_chunk);
  return true;
}

void* heap_take(zq_heap* heap, size_t size) {
  if (size > heap->left && !heap_grow(heap, size)) return nullptr;
  uint8_t* p = heap->cur;
  heap->cur += size;
  heap->left -= size;
  heap->last = p;
  return p;
}

void* scratch_alloc(zq_env* env, zq_heap* heap, size_t size, const char*, int) {
  if (zqhost::alloc_fails(env != nullptr ? env : heap->env)) return nullptr;
  return heap_take(heap, round_up(size == 0 ? 1 : size));
}

void scratch_free(zq_env*, zq_heap* heap, void* ptr) {
  // Blocks live until the heap dies; only the latest one can be taken back.
  if (ptr == nullptr || ptr != heap->last) return;
  heap->left += static_cast<size_t>(heap->cur - heap->last);
  heap->cur = heap->last;
  heap->last = nullptr;
}

void* pool_alloc(zq_env* env, zq_heap* heap, size_t size, const char*, int) {
  if (zqhost::alloc_fails(env != nullptr ? env : heap->env)) return nullptr;
  size_t rounded = round_up(size == 0 ? 1 : size);
  // Pool blocks come zero-filled: the library relies on unused coordinate
  // slots of a fresh node buffer reading 0.
  for (auto& fc : heap->free_classes) {
    if (fc.size == rounded && fc.head != nullptr) {
      void* p = fc.head;
      fc.head = *static_cast<void**>(p);
      return std::memset(p, 0, rounded);
    }
  }
  auto* raw = static_cast<uint8_t*>(heap_take(heap, kPoolBlockHdr + rounded));
  if (raw == nullptr) return nullptr;
  *reinterpret_cast<size_t*>(raw) = rounded;
  return std::memset(raw + kPoolBlockHdr, 0, rounded);
}

void pool_free(zq_env*, zq_heap* heap, void* ptr) {
  if (ptr == nullptr) return;
  uint8_t* raw = static_cast<uint8_t*>(ptr) - kPoolBlockHdr;
  size_t size = *reinterpret_cast<size_t*>(raw);
  if (raw == heap->last) {
    heap->left += static_cast<size_t>(heap->cur - raw);
    heap->cur = raw;
    heap->last = nullptr;
    return;
  }
  for (auto& fc : heap->free_classes) {
    if (fc.size == size || fc.size == 0) {
      fc.size = size;
      *static_cast<void**>(ptr) = fc.head;
      fc.head = ptr;
      return;
    }
  }
  // More distinct sizes than classes: the block waits for the pool's end.
}

}  // namespace

namespace zqhost {

void* alloc_block(zq_env* env, size_t size) {
  return block_alloc(env, size);
}

void free_block(void* ptr) {
  if (ptr == nullptr) return;
  BlockHdr* hdr = static_cast<BlockHdr*>(ptr) - 1;
  if (hdr->env != nullptr) --hdr->env->n_live;
  list_remove(&hdr->link);
  std::free(hdr);
}

void heap_destroy(zq_heap* heap) {
  for (Chunk* c = heap->chunks; c != nullptr;) {
    Chunk* next = c->next;
    std::free(c);
    c = next;
  }
  list_remove(&heap->link);
  zq_env* env = heap->env;
  --env->n_live;
  switch (heap->origin) {
    case kHeapPool:
      std::free(reinterpret_cast<uint8_t*>(heap) - offsetof(PoolBlock, heap));
      return;
    case kHeapStack:
      return;
    case kHeapSpare:
      if (env->spare_heaps.size() < env->spare_heaps.capacity()) {
        env->spare_heaps.push_back(heap);
        return;
      }
      std::free(heap);
      return;
    default:
      std::free(heap);
      return;
  }
}

void free_spare_heaps(zq_env* env) {
  for (void* p : env->spare_heaps) std::free(p);
  env->spare_heaps.clear();
}

}  // namespace zqhost

extern "C" {

void* mem_malloc_ex(zq_env* env, size_t size, const char*, int) {
  if (zqhost::alloc_fails(env)) return nullptr;
  return block_alloc(env, size);
}

void mem_free(zq_env*, void* ptr) {
  zqhost::free_block(ptr);
}

zq_heap* mem_heap_create_low2(zq_env* env, void* stack_area, uint32_t init_size, const char*, int) {
  if (env == nullptr || zqhost::alloc_fails(env)) return nullptr;
  uint8_t* raw = nullptr;
  size_t inline_size = 0;
  uint8_t origin = zqhost::kHeapMalloc;
  if (stack_area != nullptr && init_size >= kHeapHdr + kMinStackRegion) {
    // The header lives in the caller's area too: such a heap costs no malloc.
    raw = reinterpret_cast<uint8_t*>(round_up(reinterpret_cast<uintptr_t>(stack_area)));
    origin = zqhost::kHeapStack;
  } else if (stack_area == nullptr && init_size <= zqhost::kSpareHeapInline) {
    inline_size = zqhost::kSpareHeapInline;
    origin = zqhost::kHeapSpare;
    if (!env->spare_heaps.empty()) {
      raw = static_cast<uint8_t*>(env->spare_heaps.back());
      env->spare_heaps.pop_back();
    }
  } else if (stack_area == nullptr) {
    inline_size = init_size;
  }
  if (raw == nullptr) raw = static_cast<uint8_t*>(std::malloc(kHeapHdr + inline_size));
  if (raw == nullptr) return nullptr;
  auto* heap = reinterpret_cast<zq_heap*>(raw);
  size_t first = std::max<size_t>(init_size, kMinChunk);
  heap_init(heap, env, std::min(first * 2, kScratchMaxChunk), kScratchMaxChunk);
  heap->origin = origin;
  if (origin == zqhost::kHeapStack) {
    size_t used = static_cast<size_t>(raw - static_cast<uint8_t*>(stack_area)) + kHeapHdr;
    heap_set_region(heap, raw + kHeapHdr, init_size - used);
  } else if (stack_area != nullptr) {
    heap_set_region(heap, static_cast<uint8_t*>(stack_area), init_size);
  } else {
    heap_set_region(heap, raw + kHeapHdr, inline_size);
  }
  return heap;
}

zq_memobj* rt_memobj_create_ex(zq_env*, zq_memobj* storage, zq_heap* heap) {
  storage->alloc = scratch_alloc;
  storage->free = scratch_free;
  storage->heap = heap;
  storage->owned = 1;
  storage->reserved = 0;
  return storage;
}

zq_memobj* rt_memobj_heap_create_fast_ex(zq_env* env, zq_memobj* storage, uint32_t init_size,
                                         const char* src, int line) {
  zq_heap* heap = mem_heap_create_low2(env, nullptr, init_size, src, line);
  if (heap == nullptr) return nullptr;
  return rt_memobj_create_ex(env, storage, heap);
}

zq_memobj* rt_memobj_mem2_pool_create_low(zq_env* env, uint32_t, const char* name, size_t size,
                                          uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                          const char*, int) {
  if (env == nullptr || zqhost::alloc_fails(env) || zqhost::pool_fails(env, name)) return nullptr;
  auto* pb = static_cast<PoolBlock*>(std::malloc(sizeof(PoolBlock)));
  if (pb == nullptr) return nullptr;
  size_t max_chunk = std::max<size_t>(size, kMinChunk);
  heap_init(&pb->heap, env, std::min(max_chunk, kPoolFirstChunk), max_chunk);
  heap_set_region(&pb->heap, nullptr, 0);
  pb->heap.pool_obj = &pb->obj;
  pb->heap.origin = zqhost::kHeapPool;
  if (name != nullptr) {
    std::strncpy(pb->heap.name, name, sizeof pb->heap.name - 1);
  }
  pb->obj = zq_memobj{pool_alloc, pool_free, &pb->heap, 1, 0};
  return &pb->obj;
}

void rt_memobj_destroy(zq_env*, zq_memobj* obj) {
  if (obj == nullptr || obj->heap == nullptr) return;
  zq_heap* heap = obj->heap;
  if (heap->pool_obj == obj) {
    zqhost::heap_destroy(heap);  // frees `obj` too: it lives beside its heap
    return;
  }
  if (obj->owned != 0) {
    zqhost::heap_destroy(heap);
    obj->heap = nullptr;
    obj->owned = 0;
  }
}

uint64_t zqenv_live_allocs(const zq_env* env) {
  return env != nullptr ? env->n_live : 0;
}

}  // extern "C"
