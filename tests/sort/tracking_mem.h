// A memory object for tests that hands out accounted host blocks
// (mem_malloc_ex, so fault injection reaches them) and remembers every block
// still out, plus each allocation's place in the env's allocation count, so a
// test can aim zqfault_fail_alloc_nth at one chosen allocation.
#ifndef ZQ_TESTS_SORT_TRACKING_MEM_H
#define ZQ_TESTS_SORT_TRACKING_MEM_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/host.h"

namespace zqtest {

class TrackingMem {
 public:
  struct Call {
    uint64_t nth;  // 1-based place among the env's allocations since mark()
    size_t size;
    std::string src;
    int line;
    bool ok;
  };

  explicit TrackingMem(zq_env* env, bool with_free = true) : env_(env) {
    obj_.alloc = &TrackingMem::alloc;
    obj_.free = with_free ? &TrackingMem::release : nullptr;
    obj_.heap = reinterpret_cast<zq_heap*>(this);
  }
  TrackingMem(const TrackingMem&) = delete;
  TrackingMem& operator=(const TrackingMem&) = delete;
  ~TrackingMem() {
    for (auto& [p, size] : live_) mem_free(env_, p);
  }

  zq_memobj* get() { return &obj_; }
  size_t live() const { return live_.size(); }
  size_t bad_frees() const { return bad_frees_; }  // frees of blocks not out
  bool owns(const void* p) const { return live_.count(const_cast<void*>(p)) != 0; }
  const std::vector<Call>& calls() const { return calls_; }
  // Counts allocations from here on; zqfault_fail_alloc_nth set at the same
  // point takes the same numbers.
  void mark() {
    base_ = zqfault_alloc_count(env_);
    calls_.clear();
  }

 private:
  static void* alloc(zq_env* env, zq_heap* heap, size_t size, const char* src, int line) {
    auto* self = reinterpret_cast<TrackingMem*>(heap);
    const uint64_t nth = zqfault_alloc_count(env) - self->base_ + 1;
    void* p = mem_malloc_ex(env, size, src, line);
    self->calls_.push_back({nth, size, src != nullptr ? src : "", line, p != nullptr});
    if (p != nullptr) self->live_[p] = size;
    return p;
  }
  static void release(zq_env* env, zq_heap* heap, void* p) {
    auto* self = reinterpret_cast<TrackingMem*>(heap);
    if (self->live_.erase(p) != 0) {
      mem_free(env, p);
    } else {
      ++self->bad_frees_;
    }
  }

  zq_env* env_;
  zq_memobj obj_{};
  uint64_t base_ = 0;
  std::map<void*, size_t> live_;
  std::vector<Call> calls_;
  size_t bad_frees_ = 0;
};

}  // namespace zqtest

#endif
