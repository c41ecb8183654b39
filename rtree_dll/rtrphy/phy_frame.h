// The frame every node-table operation (and every pending-change scan) runs
// in: scratch memory that is destroyed on every path, and a mini-transaction
// that is committed on the normal path and released or rolled back when an
// engine call inside it raises.
//
// Call order inside an operation:
//   Scratch -> keys and rows from it -> MiniTx::begin -> MiniTx::run(body)
//   where body positions, does one row action and calls MiniTx::commit ->
//   if MiniTx::raised(), return the code as it stands (already pushed) ->
//   otherwise push a negative result under the operation's name.
#ifndef ZQRTREE_RTRPHY_PHY_FRAME_H
#define ZQRTREE_RTRPHY_PHY_FRAME_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "rtr/frame.h"
#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"
#include "zqrtree/errors.h"
#include "zqrtree/hook.h"
#include "zqrtree/mem.h"

namespace zqrtree {

// Scratch memory of one operation. kOnStack: a heap whose first kScratchInit
// bytes are this object's own stack area (mem_heap_create_low2 wrapped by
// rt_memobj_create_ex), used by the read and delete paths that run for every
// cache miss; otherwise rt_memobj_heap_create_fast_ex.
template <bool kOnStack>
class Scratch {
 public:
  Scratch(zq_env* env, const char* src, int line) : env_(env) {
    if constexpr (kOnStack) {
      zq_heap* heap = mem_heap_create_low2(env, area_, kScratchInit, src, line);
      if (heap != nullptr) obj_ = rt_memobj_create_ex(env, &storage_, heap);
    } else {
      obj_ = rt_memobj_heap_create_fast_ex(env, &storage_, kScratchInit, src, line);
    }
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() { destroy(); }

  zq_memobj* get() const { return obj_; }
  explicit operator bool() const { return obj_ != nullptr; }
  void* alloc(size_t size, const char* src, int line) const {
    return obj_ != nullptr ? obj_->alloc(env_, obj_->heap, size, src, line) : nullptr;
  }
  // Ends the memory early where a callback must run after it is gone.
  void destroy() {
    if (obj_ != nullptr) rt_memobj_destroy(env_, obj_);
    obj_ = nullptr;
  }

 private:
  struct Empty {};
  using Area = std::conditional_t<kOnStack, unsigned char[kScratchInit], Empty>;

  zq_env* env_;
  zq_memobj storage_{};
  zq_memobj* obj_ = nullptr;
  alignas(std::max_align_t) Area area_;  // left uninitialised: the heap's to fill
};

using StackScratch = Scratch<true>;
using FastScratch = Scratch<false>;

// One mini-transaction of an operation named `op` (the name failures are
// pushed under).
class MiniTx {
 public:
  MiniTx(zq_env* env, const char* op) : env_(env), op_(op) {}
  MiniTx(const MiniTx&) = delete;
  MiniTx& operator=(const MiniTx&) = delete;
  // Never left open: a body that returned without committing is committed
  // here so that no latch outlives the operation.
  ~MiniTx() { commit(); }

  // Begins and gives the mini-transaction the kind and marks the engine's own
  // writers would give it in the session's current state.
  int32_t begin(zq_session* session, uint32_t write, const char* src, int line) {
    int32_t rc = ptx3_begin_low_ex(env_, &ptx_, write, 0, src, line);
    if (rc < 0) return rc;
    ptx3_kind_for_session(env_, session, &ptx_.kind, &ptx_.mark_txn, &ptx_.mark_ctx);
    open_ = true;
    return 0;
  }

  int32_t commit() {
    if (!open_) return 0;
    open_ = false;
    return ptx3_commit_inner(&ptx_, ZQ_PTX_COMMIT);
  }

  // Runs `body` (which returns an int32_t code) inside the mini-transaction.
  // A raised code ends it: -1513 with the release flag set releases its
  // resources, anything else rolls it back; a negative raised code is pushed
  // under the operation's name. Returns the body's or the raised code.
  template <class Body>
  int32_t run(Body&& body) {
    try {
      return body();
    } catch (const zq_raised& raised) {
      return on_raise(raised.code);
    }
  }

  bool raised() const { return raised_; }
  zq_ptx* get() { return &ptx_; }

 private:
  int32_t on_raise(int32_t code) {
    raised_ = true;
    open_ = false;
    if (code == RTR_ERR_RELEASE && ptx_.release_flag == 1) {
      ptx3_release_resource(&ptx_);
    } else {
      ptx3_rollback(&ptx_, code);
    }
    return code < 0 ? fail(env_, code, op_) : code;
  }

  zq_env* env_;
  const char* op_;
  zq_ptx ptx_{};
  bool open_ = false;
  bool raised_ = false;
};

// A rowid value as the engine writes one: not null, the other parts zero.
inline void set_rowid_value(zq_value* slot, int64_t rowid) {
  slot->notnull = 1;
  slot->part_a = 0;
  slot->part_b = 0;
  slot->u.i64 = rowid;
}

inline const zq_recdesc* node_desc(const rtr_mem* rtr) {
  return rtr->btr->desc;
}

}  // namespace zqrtree

#endif
