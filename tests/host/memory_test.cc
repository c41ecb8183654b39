// Memory: the allocation countdown every fault test relies on, accounting
// of live blocks, scratch heaps and node pools, and the env freeing whatever
// a failure path left behind (the ASan build checks that nothing leaks).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "host/host.h"

namespace {

bool aligned16(const void* p) {
  return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override { env_ = zqenv_create(); }
  void TearDown() override { zqenv_destroy(env_); }
  zq_env* env_ = nullptr;
};

// One allocation of each counted kind, in this order; each returns whether
// it got its memory. A kind the countdown missed would never be failed by
// the fault sweeps.
TEST_F(MemoryTest, CountdownFailsExactlyTheNthAllocation) {
  zq_recdesc desc{5, 1, 0, 0, 1, 0, sizeof(zq_value), 4};
  zq_memobj scratch_storage{};
  zq_memobj* scratch = nullptr;
  std::vector<std::function<bool()>> steps = {
      [&] { return mem_malloc_ex(env_, 64, __FILE__, __LINE__) != nullptr; },
      [&] {
        scratch = rt_memobj_heap_create_fast_ex(env_, &scratch_storage, 2048, __FILE__, __LINE__);
        return scratch != nullptr;
      },
      [&] {
        return rt_memobj_mem2_pool_create_low(env_, 0, "P", 4096, 0, 0, 0, 0, 0, __FILE__,
                                              __LINE__) != nullptr;
      },
      [&] { return tuple4_key_create(env_, scratch, &desc, 3, __FILE__, __LINE__) != nullptr; },
      [&] { return tuple4_space_create(env_, scratch, &desc) != nullptr; },
      [&] { return tuple4_fillinfo_space_without_data_create(env_, scratch, 3, 56, 4) != nullptr; },
      [&] { return scratch->alloc(env_, scratch->heap, 10, __FILE__, __LINE__) != nullptr; },
  };
  for (size_t nth = 0; nth <= steps.size(); ++nth) {
    SCOPED_TRACE(nth);
    zqfault_reset(env_);
    zqfault_fail_alloc_nth(env_, nth);
    for (size_t i = 0; i < steps.size(); ++i) {
      // A failed scratch heap leaves the later steps without memory to use.
      if (i >= 3 && scratch == nullptr) break;
      EXPECT_EQ(steps[i](), i + 1 != nth) << "step " << i + 1;
    }
    EXPECT_EQ(zqfault_alloc_count(env_), nth == 2 ? 3u : steps.size());
    if (scratch != nullptr) rt_memobj_destroy(env_, scratch);
    scratch = nullptr;
  }
  // The failure is one-shot and counting starts from the setting.
  zqfault_reset(env_);
  mem_free(env_, mem_malloc_ex(env_, 8, __FILE__, __LINE__));
  zqfault_fail_alloc_nth(env_, 1);
  EXPECT_EQ(mem_malloc_ex(env_, 8, __FILE__, __LINE__), nullptr);
  void* ok = mem_malloc_ex(env_, 8, __FILE__, __LINE__);
  EXPECT_NE(ok, nullptr);
  mem_free(env_, ok);
  EXPECT_EQ(zqfault_alloc_count(env_), 3u);
}

TEST(MemoryLeaks, EnvCountsLiveAllocationsAndFreesWhatFailurePathsLeft) {
  zq_env* env = zqenv_create();
  for (int i = 0; i < 5; ++i) {
    std::memset(mem_malloc_ex(env, 1000, __FILE__, __LINE__), 1, 1000);
    zq_memobj storage;
    zq_memobj* heap = rt_memobj_heap_create_fast_ex(env, &storage, 2048, __FILE__, __LINE__);
    for (int k = 0; k < 50; ++k) heap->alloc(env, heap->heap, 700, __FILE__, __LINE__);
    zq_memobj* pool =
        rt_memobj_mem2_pool_create_low(env, 0, "P", 0x100000, 0, 0, 0, 0, 0, __FILE__, __LINE__);
    pool->alloc(env, pool->heap, 2936, __FILE__, __LINE__);  // blocks inside do not count
    zq_hash* hash = zq_hash_create(env, 10000, __FILE__, __LINE__);
    ASSERT_EQ(hash->buckets[9999], nullptr);
  }
  uint8_t area[256];
  zq_heap* small = mem_heap_create_low2(env, area, sizeof area, __FILE__, __LINE__);
  EXPECT_EQ(zqenv_live_allocs(env), 21u);
  void* block = mem_malloc_ex(env, 8, __FILE__, __LINE__);
  zq_memobj obj;
  rt_memobj_destroy(env, rt_memobj_create_ex(env, &obj, small));
  mem_free(env, block);
  EXPECT_EQ(zqenv_live_allocs(env), 20u);
  zqenv_destroy(env);  // the leak checker of the sanitizer build verifies the rest
}

// A scratch heap takes the caller's stack area first, then grows; blocks do
// not overlap, only the latest can be given back, and a recycled fast heap
// starts in its inline chunk again.
TEST_F(MemoryTest, ScratchHeapsUseTheAreaFirstGrowAndAreRecycledClean) {
  alignas(16) uint8_t area[2048];
  zq_heap* heap = mem_heap_create_low2(env_, area, sizeof area, __FILE__, __LINE__);
  auto* at = reinterpret_cast<uint8_t*>(heap);
  EXPECT_TRUE(at >= area && at < area + sizeof area) << "a big enough area holds the heap itself";
  zq_memobj storage;
  zq_memobj* obj = rt_memobj_create_ex(env_, &storage, heap);
  auto alloc = [&](zq_memobj* o, size_t n) {
    return static_cast<uint8_t*>(o->alloc(env_, o->heap, n, "", 0));
  };
  uint8_t* a = alloc(obj, 100);
  uint8_t* b = alloc(obj, 1);
  EXPECT_TRUE(a >= area && a + 100 <= area + sizeof area);
  EXPECT_TRUE(aligned16(a) && aligned16(b));
  EXPECT_GE(b, a + 100);
  uint8_t* big = alloc(obj, 40000);  // beyond the area and any default chunk
  ASSERT_NE(big, nullptr);
  EXPECT_TRUE(big < area || big >= area + sizeof area);
  std::memset(big, 7, 40000);
  uint8_t* c = alloc(obj, 64);
  obj->free(env_, obj->heap, c);
  EXPECT_EQ(alloc(obj, 64), c);
  obj->free(env_, obj->heap, a);
  EXPECT_NE(alloc(obj, 100), a);
  rt_memobj_destroy(env_, obj);
  EXPECT_EQ(obj->heap, nullptr);

  zq_memobj* first = rt_memobj_heap_create_fast_ex(env_, &storage, 2048, __FILE__, __LINE__);
  zq_heap* fast = first->heap;
  ASSERT_NE(alloc(first, 3000), nullptr);  // grows past the first chunk
  rt_memobj_destroy(env_, first);
  zq_memobj* again = rt_memobj_heap_create_fast_ex(env_, &storage, 2048, __FILE__, __LINE__);
  EXPECT_EQ(again->heap, fast) << "the env kept the freed heap for the next one";
  EXPECT_EQ(zqenv_live_allocs(env_), 1u);
  uint8_t* q = alloc(again, 1500);
  auto* h = reinterpret_cast<uint8_t*>(fast);
  EXPECT_TRUE(q > h && q < h + 2048 + 512) << "allocations start in the inline chunk again";
  rt_memobj_destroy(env_, again);
  EXPECT_EQ(zqenv_live_allocs(env_), 0u);
}

TEST_F(MemoryTest, PoolBlocksAreZeroedAndReusedBySize) {
  zq_memobj* pool = rt_memobj_mem2_pool_create_low(env_, 0, "RTREE_CREATE_POOL", 0x100000, 0, 0, 0,
                                                   0, 0, __FILE__, __LINE__);
  ASSERT_NE(pool, nullptr);
  std::vector<uint8_t*> nodes;
  for (int i = 0; i < 1000; ++i) {  // ~3 MB: several chunks
    auto* p = static_cast<uint8_t*>(pool->alloc(env_, pool->heap, 2936, "", 0));
    ASSERT_NE(p, nullptr);
    ASSERT_TRUE(aligned16(p));
    for (int k = 0; k < 2936; ++k) ASSERT_EQ(p[k], 0);
    std::memset(p, 0xAB, 2936);
    nodes.push_back(p);
  }
  pool->free(env_, pool->heap, nodes[10]);
  auto* again = static_cast<uint8_t*>(pool->alloc(env_, pool->heap, 2936, "", 0));
  EXPECT_EQ(again, nodes[10]);
  for (int k = 0; k < 2936; ++k) ASSERT_EQ(again[k], 0) << "a recycled block is zeroed too";
  EXPECT_NE(pool->alloc(env_, pool->heap, 100, "", 0), nodes[10]) << "other sizes do not reuse it";
  rt_memobj_destroy(env_, pool);
  EXPECT_EQ(zqenv_live_allocs(env_), 0u);
}

}  // namespace
