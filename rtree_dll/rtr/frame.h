// Internal helpers shared by the library's three units: the failure push and
// guards that make "released on every path" hold by construction.
#ifndef ZQRTREE_RTR_FRAME_H
#define ZQRTREE_RTR_FRAME_H

#include <cstdint>

#include "zqhost/env.h"
#include "zqhost/mem.h"
#include "zqrtree/errors.h"

namespace zqrtree {

// The one failure convention: push with the function's own name, return the
// code unchanged.
inline int32_t fail(zq_env* env, int32_t code, const char* func) {
  zqerr_stk_push(env, code, func, RTR_ERR_LEVEL);
  return code;
}

inline constexpr uint32_t kScratchInit = 2048;

// A scratch heap (mem_heap_create_low2 + rt_memobj_create_ex) destroyed when
// the guard leaves scope, unless release() hands it over.
class ScratchHeap {
 public:
  ScratchHeap(zq_env* env, const char* src, int line) : env_(env) {
    zq_heap* heap = mem_heap_create_low2(env, nullptr, kScratchInit, src, line);
    if (heap != nullptr) obj_ = rt_memobj_create_ex(env, &storage_, heap);
  }
  ScratchHeap(const ScratchHeap&) = delete;
  ScratchHeap& operator=(const ScratchHeap&) = delete;
  ~ScratchHeap() {
    if (obj_ != nullptr) rt_memobj_destroy(env_, obj_);
  }
  zq_memobj* get() const { return obj_; }
  void* alloc(size_t size, const char* src, int line) const {
    return obj_ != nullptr ? obj_->alloc(env_, obj_->heap, size, src, line) : nullptr;
  }
  // Leaves the heap alive on purpose (a required leak on one failure path).
  void release() { obj_ = nullptr; }

 private:
  zq_env* env_;
  zq_memobj storage_{};
  zq_memobj* obj_ = nullptr;
};

}  // namespace zqrtree

#endif
