// Level construction of the bulk build: sort-tile-recursive packing of one
// level's sorted entries into nodes, each node written to the node table at
// once and entered, as one row, into the sorter of the level above.
//
// rtr_crt_lvl(axis 0) either packs its input directly into runs of nfill
// entries, or cuts it into slices of nfill * S entries (S = ceil(sqrt(P)),
// P = the nodes the input fills), re-sorts each slice on the next axis and
// recurses on it. rtr_build_cell_from_bdta turns batch rows into cells;
// rtr_bld_flush_node writes a node and points its children at it.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "rtr/frame.h"
#include "rtrbld/bld_internal.h"
#include "zqrtree/bld.h"
#include "zqrtree/errors.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"
#include "zqrtree/phy.h"

namespace {

using namespace zqrtree::bld;

// The slice buffer's allocation tag is this fixed line number, not __LINE__,
// wherever the code moves; intended.
constexpr int kSliceBufTag = 466;

// Everything one call of rtr_crt_lvl passes down unchanged.
struct Level {
  zq_env* env;
  zq_memobj* mem;
  rtr_mem* rtr;
  uint32_t nfill;     // entries per node
  uint32_t level;     // level of the nodes made
  zq_nsort* up;       // sorter of the level above
  uint64_t* n_nodes;  // nodes made on this level, over all slices
  int64_t* root_id;   // the last of them
};

// Reads the sorted input batch by batch into `buf`, calling on_full(cap)
// whenever it holds `cap` cells; what is left stays in `buf` (`*filled`).
template <class OnFull>
int32_t drain_input(const Level& lv, zq_bdta* in, zq_nsort* sorter, rtr_cell* buf, uint32_t cap,
                    uint32_t* filled, OnFull&& on_full) {
  const uint16_t d = lv.rtr->n_dims;
  for (;;) {
    bdta3_clear(lv.env, lv.mem, in);
    uint32_t end = 0;
    int32_t rc = nsort_get_bdta(lv.env, lv.mem, in, RTR_BDTA_ROWS, sorter, &end);
    if (rc < 0) return rc;
    const uint32_t rows = in->n_rows;
    if (rows == 0) return 0;  // a batch that comes back empty: the input is exhausted
    for (uint32_t pos = 0; pos < rows;) {
      const uint32_t take = std::min(rows - pos, cap - *filled);
      rtr_build_cell_from_bdta(d, in, pos, take, buf, filled);
      pos += take;
      if (*filled < cap) continue;
      if ((rc = on_full(cap)) < 0) return rc;
      *filled = 0;
    }
  }
}

// ---- direct packing ----

class NodeGuard {
 public:
  explicit NodeGuard(rtr_mem* rtr) : rtr_(rtr) {}
  NodeGuard(const NodeGuard&) = delete;
  NodeGuard& operator=(const NodeGuard&) = delete;
  ~NodeGuard() {
    if (node_ != nullptr) rtr_node_destroy(rtr_, node_);
  }
  rtr_node** out() { return &node_; }
  rtr_node* get() const { return node_; }

 private:
  rtr_mem* rtr_;
  rtr_node* node_ = nullptr;
};

// The node's entry in the level above: one row keyed on axis 0.
int32_t put_up(const Level& lv, zq_bdta* out, int64_t id, const rtr_rect& box) {
  bdta3_clear(lv.env, lv.mem, out);
  rtr_fill_one_row_nsort_bdta(lv.env, lv.mem, lv.rtr->n_dims, id, &box, 0, out);
  const int32_t rc = nsort_put_bdta(lv.env, lv.up, out);
  bdta3_clear(lv.env, lv.mem, out);
  return rc;
}

// One node of `count` cells: id, row, parent links, entry above.
int32_t emit_node(const Level& lv, zq_bdta* out, const rtr_cell* cells, uint32_t count) {
  int32_t rc = 0;
  const int64_t id = rtr_phy_get_next_node_id(lv.env, lv.rtr, &rc);
  if (rc < 0) return rc;
  NodeGuard node(lv.rtr);
  if ((rc = rtr_node_create(lv.env, lv.rtr, lv.level, id, node.out())) < 0) return rc;
  std::copy(cells, cells + count, node.get()->cells);
  node.get()->n_cells = count;
  rtr_rect box;
  rtr_union_cells(lv.rtr->n_dims, count, cells, &box);
  if ((rc = rtr_bld_flush_node(lv.env, lv.rtr, node.get())) < 0) return rc;
  if ((rc = put_up(lv, out, id, box)) < 0) return rc;
  *lv.root_id = id;
  ++*lv.n_nodes;
  return 0;
}

int32_t pack_direct(const Level& lv, zq_bdta* in, zq_bdta* out, zq_nsort* sorter) {
  rtr_cell buf[RTR_MAX_CELLS]{};  // unused axes stay 0 in the written nodes
  uint32_t filled = 0;
  int32_t rc = drain_input(lv, in, sorter, buf, lv.nfill, &filled,
                           [&](uint32_t count) { return emit_node(lv, out, buf, count); });
  if (rc == 0 && filled > 0) rc = emit_node(lv, out, buf, filled);
  return rc < 0 ? zqrtree::fail(lv.env, rc, "rtr_crt_lvl") : rc;
}

// ---- slicing ----

// The slice buffer: in the frame up to one node's worth of cells, else
// allocated from the build's memory object and given back with the guard.
class SliceBuffer {
 public:
  SliceBuffer(zq_env* env, zq_memobj* mem, uint64_t cells) : env_(env), mem_(mem) {
    if (cells <= RTR_MAX_CELLS) {
      cells_ = frame_;
    } else if (mem->alloc != nullptr) {
      void* p = mem->alloc(env, mem->heap, cells * sizeof(rtr_cell), __FILE__, kSliceBufTag);
      cells_ = owned_ = static_cast<rtr_cell*>(p);
    }
  }
  SliceBuffer(const SliceBuffer&) = delete;
  SliceBuffer& operator=(const SliceBuffer&) = delete;
  ~SliceBuffer() { give_back(env_, mem_, owned_); }
  rtr_cell* get() const { return cells_; }

 private:
  zq_env* env_;
  zq_memobj* mem_;
  rtr_cell frame_[RTR_MAX_CELLS];
  rtr_cell* owned_ = nullptr;
  rtr_cell* cells_ = nullptr;
};

// The sub-sorter and batch one slicing call re-sorts its slices with.
struct SliceSort {
  SorterGuard sorter;
  BdtaGuard own;
  SliceSort(zq_env* env, zq_memobj* mem) : sorter(env), own(env, mem) {}
};

// Re-keys a full or last slice on the next axis and packs it.
int32_t finish_slice(const Level& lv, uint32_t axis, const rtr_cell* cells, uint32_t count,
                     zq_bdta* out, SliceSort& ss) {
  const uint16_t d = lv.rtr->n_dims;
  int32_t rc = 0;
  for (uint32_t i = 0; i < count && rc >= 0; ++i) {
    rtr_fill_one_row_nsort_bdta(lv.env, lv.mem, d, cells[i].id, &cells[i].rect, axis + 1, out);
    if (out->n_rows < RTR_BDTA_ROWS) continue;
    rc = nsort_put_bdta(lv.env, ss.sorter.get(), out);
    bdta3_clear(lv.env, lv.mem, out);
  }
  if (rc >= 0 && out->n_rows > 0) rc = nsort_put_bdta(lv.env, ss.sorter.get(), out);
  bdta3_clear(lv.env, lv.mem, out);
  if (rc >= 0) rc = nsort_sort_it(lv.env, ss.sorter.get());
  if (rc >= 0)
    rc = rtr_crt_lvl(lv.env, lv.mem, lv.rtr, ss.own.get(), out, ss.sorter.get(), count, axis + 1,
                     lv.nfill, lv.level, lv.up, lv.n_nodes, lv.root_id);
  nsort_clear(lv.env, ss.sorter.get());
  return rc;
}

// Failures here are returned as they came: the direct packing below or the
// flush has already reported them, and a missing buffer is for the caller.
int32_t pack_slices(const Level& lv, zq_bdta* in, zq_bdta* out, zq_nsort* sorter, uint32_t axis,
                    uint64_t slice) {
  SliceBuffer buf(lv.env, lv.mem, slice);
  if (buf.get() == nullptr) return RTR_ERR_NO_ROOM;
  SliceSort ss(lv.env, lv.mem);
  int32_t rc = rtr_sort_bdta_crt(lv.env, lv.mem, lv.rtr->n_dims, ss.own.out());
  if (rc < 0) return rc;
  rc = rtr_sort_create(lv.env, zqsess_sort_pool(lv.rtr->session), lv.mem, lv.rtr->n_dims,
                       ss.sorter.out());
  if (rc < 0) return rc;
  const auto cap = static_cast<uint32_t>(slice);
  uint32_t filled = 0;
  rc = drain_input(lv, in, sorter, buf.get(), cap, &filled, [&](uint32_t count) {
    return finish_slice(lv, axis, buf.get(), count, out, ss);
  });
  if (rc == 0 && filled > 0) rc = finish_slice(lv, axis, buf.get(), filled, out, ss);
  return rc;
}

}  // namespace

extern "C" int32_t rtr_crt_lvl(zq_env* env, zq_memobj* mem, rtr_mem* rtr, zq_bdta* bdta_in,
                               zq_bdta* bdta_out, zq_nsort* sorter_in, int64_t n, uint32_t axis,
                               uint32_t nfill, uint32_t level, zq_nsort* sorter_up,
                               uint64_t* n_nodes, int64_t* root_id) {
  const Level lv{env, mem, rtr, nfill, level, sorter_up, n_nodes, root_id};
  const auto nodes =
      static_cast<uint64_t>(std::ceil(static_cast<double>(n) / static_cast<double>(nfill)));
  const auto slices = static_cast<uint64_t>(std::ceil(std::sqrt(static_cast<double>(nodes))));
  const bool last_axis = axis == static_cast<uint32_t>(rtr->n_dims - 1);
  if (slices == 1 || last_axis || uint64_t{nfill} * slices == static_cast<uint64_t>(n))
    return pack_direct(lv, bdta_in, bdta_out, sorter_in);
  return pack_slices(lv, bdta_in, bdta_out, sorter_in, axis, uint64_t{nfill} * slices);
}

extern "C" void rtr_build_cell_from_bdta(uint16_t n_dims, const zq_bdta* bdta, uint32_t start_row,
                                         uint32_t count, rtr_cell* cells, uint32_t* filled) {
  const uint16_t d = clamp_dims(n_dims);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t r = start_row + i;
    rtr_cell& c = cells[*filled + i];
    c.id = bdta->cols[kColId].data[r].i64;
    for (uint32_t k = 0; k < d; ++k)
      set_axis(c.rect, k, bdta->cols[col_min(k)].data[r].f64, bdta->cols[col_max(k)].data[r].f64);
  }
  *filled += count;
}

extern "C" int32_t rtr_bld_flush_node(zq_env* env, rtr_mem* rtr, const rtr_node* node) {
  int32_t rc = rtr_phy_insert_node(env, rtr, node);
  if (rc < 0) return zqrtree::fail(env, rc, "rtr_bld_flush_node");
  // A leaf's cells name data rows: rtr_phy_update_parent leaves them alone.
  rc = rtr_phy_update_parent(env, rtr, node, node->id);
  if (rc < 0) return zqrtree::fail(env, rc, "rtr_bld_flush_node");
  return 0;
}
