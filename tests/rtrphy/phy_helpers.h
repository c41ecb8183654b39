// Helpers of the node-table tests: an encoder of the cells blob written from
// the format drawing (independent of the library's), node builders, and
// recording callbacks that log which slot ran with which columns and then
// forward to the host's defaults.
#ifndef ZQ_TESTS_RTRPHY_PHY_HELPERS_H
#define ZQ_TESTS_RTRPHY_PHY_HELPERS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/fixture.h"

namespace phytest {

using Bytes = std::vector<uint8_t>;

template <class T>
void put(Bytes& out, T v) {
  // Grown, then copied into: GCC 12 takes a ranged insert into a fresh vector
  // for an overflow at -O3 (-Wstringop-overflow).
  const size_t at = out.size();
  out.resize(at + sizeof(T));
  std::memcpy(out.data() + at, &v, sizeof(T));
}

// The blob as drawn: count, then per entry id, d minima, d maxima.
inline Bytes encode_blob(uint32_t d, const std::vector<rtr_cell>& cells) {
  Bytes out;
  put<uint32_t>(out, static_cast<uint32_t>(cells.size()));
  for (const rtr_cell& c : cells) {
    const double mins[3] = {c.rect.min0, c.rect.min1, c.rect.min2};
    const double maxs[3] = {c.rect.max0, c.rect.max1, c.rect.max2};
    put<int64_t>(out, c.id);
    for (uint32_t k = 0; k < d; ++k) put<double>(out, mins[k]);
    for (uint32_t k = 0; k < d; ++k) put<double>(out, maxs[k]);
  }
  return out;
}

inline rtr_cell cell(int64_t id, double x0, double y0, double z0, double x1, double y1, double z1) {
  return rtr_cell{id, rtr_rect{x0, y0, z0, x1, y1, z1}};
}

// n distinct cells with every coordinate different, so a swapped or shifted
// field shows.
inline std::vector<rtr_cell> sample_cells(uint32_t n, int64_t first_id = 100) {
  std::vector<rtr_cell> out;
  for (uint32_t i = 0; i < n; ++i) {
    double b = 10.0 * i + 0.25;
    out.push_back(cell(first_id + i, b, b + 1.5, b + 2.75, b + 4.5, b + 5.125, b + 6.0625));
  }
  return out;
}

inline void fill_node(rtr_node* node, const std::vector<rtr_cell>& cells) {
  node->n_cells = static_cast<uint32_t>(cells.size());
  for (size_t i = 0; i < cells.size(); ++i) node->cells[i] = cells[i];
}

// The parts of a node that its row persists.
struct NodeImage {
  int64_t id;
  int64_t parent;
  uint32_t level;
  std::vector<rtr_cell> cells;
};

inline NodeImage image(const rtr_node* n) {
  return {n->id, n->parent_id, n->level, std::vector<rtr_cell>(n->cells, n->cells + n->n_cells)};
}

inline bool same_cell(const rtr_cell& a, const rtr_cell& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

inline void expect_same(const NodeImage& got, const NodeImage& want) {
  EXPECT_EQ(got.id, want.id);
  EXPECT_EQ(got.parent, want.parent);
  EXPECT_EQ(got.level, want.level);
  ASSERT_EQ(got.cells.size(), want.cells.size());
  for (size_t i = 0; i < got.cells.size(); ++i) {
    EXPECT_TRUE(same_cell(got.cells[i], want.cells[i])) << "cell " << i;
  }
}

// ---- recording callbacks ----

struct HookCall {
  uint32_t slot;
  std::vector<uint16_t> cols;        // listed columns of the new values (slot 5)
  std::vector<uint16_t> old_cols;    // listed columns of the old values (slots 5, 6)
  int32_t code = 0;                  // slot 10: the code it was given
  std::vector<zq_value> new_values;  // slot 5
  std::vector<zq_value> old_values;  // slots 5, 6
};

inline std::vector<zq_value> values_of(zq_fillinfo* f) {
  std::vector<zq_value> out;
  for (uint16_t i = 0; f != nullptr && i < f->n_cols; ++i) {
    out.push_back(*tuple4_fillinfo_get_nth_fld(f, i));
  }
  return out;
}

inline std::vector<uint16_t> columns_of(const zq_fillinfo* f) {
  return f == nullptr ? std::vector<uint16_t>{}
                      : std::vector<uint16_t>(f->col_nos, f->col_nos + f->n_cols);
}

// Per-test switches of the recording callbacks.
struct HookState {
  std::vector<HookCall> calls;
  int32_t visible = 1;  // what slot 1 answers
  // Runs after slot 2's default fill; may change what the session "sees".
  std::function<int32_t(zq_fillinfo*, int32_t*, int32_t)> after_visible_version;
  // Runs after a row callback's default (slots 3..6) with its result.
  std::function<int32_t(zq_ptx*, uint32_t, int32_t)> after_row_callback;
};

inline HookState& hooks() {
  static HookState state;
  return state;
}

inline int32_t after_row(zq_ptx* ptx, uint32_t slot, int32_t rc) {
  return hooks().after_row_callback ? hooks().after_row_callback(ptx, slot, rc) : rc;
}

inline int32_t rec_is_visible(zq_env* env, zq_session* s, const zq_nrec* rec) {
  hooks().calls.push_back({1, {}, {}, 0, {}, {}});
  return hooks().visible != 0 ? zqhost_rec_is_visible(env, s, rec) : 0;
}
inline int32_t rec_read_visible_version(zq_env* env, zq_memobj* m, zq_session* s,
                                        const zq_recdesc* d, const zq_nrec* r, const zq_nrec* r2,
                                        zq_fillinfo* out, int32_t* code) {
  hooks().calls.push_back({2, columns_of(out), {}, 0, {}, {}});
  int32_t rc = zqhost_rec_read_visible_version(env, m, s, d, r, r2, out, code);
  return hooks().after_visible_version ? hooks().after_visible_version(out, code, rc) : rc;
}
inline int32_t row_delete(zq_ptx* ptx, zq_session* s, zq_table* t, zq_index* i, const zq_recdesc* d,
                          zq_key* k, uint16_t tag, uint64_t dver, const zq_nrec* rec) {
  hooks().calls.push_back({3, {}, {}, 0, {}, {}});
  return after_row(ptx, 3, zqhost_row_delete(ptx, s, t, i, d, k, tag, dver, rec));
}
inline int32_t row_insert(zq_ptx* ptx, zq_session* s, zq_table* t, zq_index* i, const zq_recdesc* d,
                          zq_row* row, zq_key* k, uint16_t tag, uint32_t options) {
  hooks().calls.push_back({4, {}, {}, 0, {}, {}});
  return after_row(ptx, 4, zqhost_row_insert(ptx, s, t, i, d, row, k, tag, options));
}
inline int32_t row_update_fixed(zq_ptx* ptx, zq_session* s, zq_table* t, zq_index* i,
                                const zq_recdesc* d, zq_key* k, zq_fillinfo* nv, zq_fillinfo* ov,
                                uint16_t tag, uint64_t dver, nbtr_cur* cur) {
  hooks().calls.push_back({5, columns_of(nv), columns_of(ov), 0, values_of(nv), values_of(ov)});
  return after_row(ptx, 5, zqhost_row_update_fixed(ptx, s, t, i, d, k, nv, ov, tag, dver, cur));
}
inline int32_t row_update_unfixed(zq_ptx* ptx, zq_session* s, zq_table* t, zq_index* i,
                                  const zq_recdesc* d, zq_key* k, zq_row* row, zq_fillinfo* ov,
                                  uint16_t tag, uint64_t dver, nbtr_cur* cur) {
  hooks().calls.push_back({6, {}, columns_of(ov), 0, {}, values_of(ov)});
  return after_row(ptx, 6, zqhost_row_update_unfixed(ptx, s, t, i, d, k, row, ov, tag, dver, cur));
}
inline void row_insert_failed(zq_env* env, int32_t code) {
  hooks().calls.push_back({10, {}, {}, code, {}, {}});
  zqhost_row_insert_failed(env, code);
}

inline void install_recording_hooks() {
  hooks() = HookState{};
  rtr_hook_init(zqhost_get_row_tag, rec_is_visible, rec_read_visible_version, row_delete,
                row_insert, row_update_fixed, row_update_unfixed, nullptr, nullptr, nullptr,
                row_insert_failed, nullptr);
}

// Slots among the recorded calls, in order, leaving out the visibility
// checks every read makes.
inline std::vector<uint32_t> row_slots() {
  std::vector<uint32_t> out;
  for (const HookCall& c : hooks().calls) {
    if (c.slot != 1) out.push_back(c.slot);
  }
  return out;
}

// The shared HostTest with recording callbacks and helpers to put node rows
// in place.
class PhyTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    zqtest::HostTest::SetUp();
    install_recording_hooks();
  }
  void TearDown() override {
    if (rtr_ != nullptr) rtr_mem_destroy(env_, rtr_);
    rtr_ = nullptr;
    zqtest::install_default_hooks();
    zqtest::HostTest::TearDown();
  }

  rtr_mem* handle(uint16_t dims, uint32_t read_mode = 0) {
    if (rtr_ != nullptr) rtr_mem_destroy(env_, rtr_);
    rtr_ = open_handle(dims, read_mode);
    return rtr_;
  }

  // A node of the handle's pool holding `cells`, written (insert) or
  // rewritten (modify) through the node-table layer; the layer's code.
  int32_t write_node(bool insert, int64_t id, int64_t parent, uint32_t level,
                     const std::vector<rtr_cell>& cells) {
    rtr_node* node = nullptr;
    EXPECT_EQ(rtr_node_create(env_, rtr_, level, id, &node), 0);
    node->parent_id = parent;
    fill_node(node, cells);
    const int32_t rc =
        insert ? rtr_phy_insert_node(env_, rtr_, node) : rtr_phy_modify_node(env_, rtr_, node);
    rtr_node_destroy(rtr_, node);
    return rc;
  }
  void put_node(int64_t id, int64_t parent, uint32_t level, const std::vector<rtr_cell>& cells) {
    ASSERT_EQ(write_node(true, id, parent, level, cells), 0);
  }
  int32_t modify(int64_t id, int64_t parent, uint32_t level, const std::vector<rtr_cell>& cells) {
    return write_node(false, id, parent, level, cells);
  }

  // Reads a node row back as an image; the read's code goes to *rc.
  NodeImage get_node(int64_t id, int32_t* rc = nullptr) {
    rtr_node* node = nullptr;
    int32_t code = rtr_phy_read_node(env_, rtr_, id, &node);
    if (rc != nullptr) *rc = code;
    if (code < 0 || node == nullptr) return NodeImage{0, 0, 0, {}};
    NodeImage out = image(node);
    rtr_node_destroy(rtr_, node);
    return out;
  }

  std::string table_dump() { return zqtest::node_table_dump(sess_); }

  zq_recdesc* node_recdesc() { return zqsess_table_recdesc(sess_, "main", "MDRT$t"); }

  rtr_mem* rtr_ = nullptr;
};

using zqtest::Pushed;

}  // namespace phytest

#endif
