// The node row and its cells blob (layout drawn in zqrtree/phy.h).
//
// Write side: rtr_node_pack fills a row, calling rtr_cells_pack for column 2.
// Read side: rtr_node_unpack (or the visible-version read) yields id, level,
// parent and blob; rtr_node_create_ex turns them into a node through
// rtr_cells_unpack. Nothing here keeps state or touches the node table.
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rtr/frame.h"
#include "rtrphy/phy_frame.h"
#include "zqrtree/phy.h"

namespace {

using zqrtree::fail;

constexpr uint32_t kCountBytes = 4;
constexpr size_t kMinOffset = offsetof(rtr_rect, min0);
constexpr size_t kMaxOffset = offsetof(rtr_rect, max0);
static_assert(sizeof(rtr_rect) == 48 && kMinOffset == 0 && kMaxOffset == 24,
              "a rect is three minima then three maxima, back to back");
static_assert(sizeof(rtr_cell) == 56, "a cell is an id and a rect");

constexpr uint32_t entry_bytes(uint32_t d) {
  return (2 * d + 1) * 8;
}

const unsigned char* rect_bytes(const rtr_rect& r) {
  return reinterpret_cast<const unsigned char*>(&r);
}
unsigned char* rect_bytes(rtr_rect& r) {
  return reinterpret_cast<unsigned char*>(&r);
}

// Axis k's minimum (or maximum) for the generic layouts; axes beyond the
// three a rect holds are written as 0 and skipped when read.
double axis_value(const rtr_rect& r, uint32_t k, bool max) {
  if (k >= 3) return 0.0;
  double v;
  std::memcpy(&v, rect_bytes(r) + (max ? kMaxOffset : kMinOffset) + 8 * k, 8);
  return v;
}

template <uint32_t D>
void pack_entries(const rtr_node* node, uint8_t* out) {
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    const rtr_cell& c = node->cells[i];
    std::memcpy(out, &c.id, 8);
    std::memcpy(out + 8, rect_bytes(c.rect) + kMinOffset, 8 * D);
    std::memcpy(out + 8 + 8 * D, rect_bytes(c.rect) + kMaxOffset, 8 * D);
    out += entry_bytes(D);
  }
}

// Dimension counts a handle never has (0, above 3): the same layout, kept
// memory-safe.
void pack_entries_generic(uint32_t d, const rtr_node* node, uint8_t* out) {
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    const rtr_cell& c = node->cells[i];
    std::memcpy(out, &c.id, 8);
    out += 8;
    for (int side = 0; side < 2; ++side) {
      for (uint32_t k = 0; k < d; ++k, out += 8) {
        double v = axis_value(c.rect, k, side == 1);
        std::memcpy(out, &v, 8);
      }
    }
  }
}

template <uint32_t E>
void unpack_entries(rtr_node* node, uint32_t n, const uint8_t* in) {
  for (uint32_t i = 0; i < n; ++i) {
    rtr_cell& c = node->cells[i];
    std::memcpy(&c.id, in, 8);
    std::memcpy(rect_bytes(c.rect) + kMinOffset, in + 8, 8 * E);
    std::memcpy(rect_bytes(c.rect) + kMaxOffset, in + 8 + 8 * E, 8 * E);
    in += entry_bytes(E);
  }
}

void unpack_entries_generic(uint32_t d, rtr_node* node, uint32_t n, const uint8_t* in) {
  for (uint32_t i = 0; i < n; ++i) {
    rtr_cell& c = node->cells[i];
    std::memcpy(&c.id, in, 8);
    const uint32_t kept = d < 3 ? d : 3;
    std::memcpy(rect_bytes(c.rect) + kMinOffset, in + 8, 8 * kept);
    std::memcpy(rect_bytes(c.rect) + kMaxOffset, in + 8 + 8 * d, 8 * kept);
    in += entry_bytes(d);
  }
}

// Entries read as two-dimensional span the whole third axis. 2 * DBL_MAX
// overflows to the infinities on purpose: that is how the bounds are made.
void open_third_axis(rtr_node* node, uint32_t n) {
  const double high = 2.0 * DBL_MAX;
  const double low = -(2.0 * DBL_MAX);
  for (uint32_t i = 0; i < n; ++i) {
    node->cells[i].rect.min2 = low;
    node->cells[i].rect.max2 = high;
  }
}

void set_int_value(zq_value* slot, int32_t v) {
  slot->notnull = 1;
  slot->u.i32 = v;
}

void set_i64_value(zq_value* slot, int64_t v) {
  slot->notnull = 1;
  slot->u.i64 = v;
}

// The column before the rowid is zero in every row written; the descriptor
// decides which representation of zero the engine expects.
void clear_system_column(const zq_recdesc* desc, zq_value* slot) {
  if (desc->sys_col_as_i64) {
    slot->u.i64 = 0;
  } else {
    slot->notnull = 0;
    slot->u.i32 = 0;
  }
}

}  // namespace

extern "C" int32_t rtr_cells_pack(zq_env* env, uint16_t d, const rtr_node* node, uint8_t* buf,
                                  uint32_t* out_len) {
  const uint32_t n = node->n_cells;
  std::memcpy(buf, &n, kCountBytes);
  // Intended: only one entry's size is checked; the node capacity the handle
  // derives keeps the whole blob in bounds.
  if (entry_bytes(d) > RTR_BLOB_MAX) return fail(env, RTR_ERR_ROW_TOO_BIG, "rtr_cells_pack");
  if (n == 0) {
    *out_len = kCountBytes;
    return RTR_OK;
  }
  uint8_t* entries = buf + kCountBytes;
  switch (d) {
    case 1:
      pack_entries<1>(node, entries);
      break;
    case 2:
      pack_entries<2>(node, entries);
      break;
    case 3:
      pack_entries<3>(node, entries);
      break;
    default:
      pack_entries_generic(d, node, entries);
      break;
  }
  *out_len = kCountBytes + n * entry_bytes(d);
  return RTR_OK;
}

extern "C" int32_t rtr_node_pack(zq_env* env, zq_memobj* heap, rtr_mem* rtr, const rtr_node* node,
                                 zq_row* row) {
  set_int_value(&row->cols[RTR_COL_LEVEL], static_cast<int32_t>(node->level));
  set_i64_value(&row->cols[RTR_COL_PARENT], node->parent_id);

  uint8_t blob[RTR_BLOB_MAX];
  uint32_t len = 0;
  int32_t rc = rtr_cells_pack(env, rtr->n_dims, node, blob, &len);
  if (rc < 0) return fail(env, rc, "rtr_node_pack");
  rc = binary_assign_const_ex(env, heap, &row->cols[RTR_COL_CELLS], len, blob);
  if (rc < 0) return fail(env, rc, "rtr_node_pack");

  clear_system_column(zqrtree::node_desc(rtr), &row->cols[row->n_cols - 2]);
  zqrtree::set_rowid_value(&row->cols[row->n_cols - 1], node->id);
  return RTR_OK;
}

extern "C" int32_t rtr_node_unpack(zq_env* env, rtr_mem* rtr, const zq_nrec* rec, int64_t* out_id,
                                   uint32_t* out_level, int64_t* out_parent, uint8_t* buf,
                                   uint32_t* out_len) {
  const zq_recdesc* desc = zqrtree::node_desc(rtr);
  *out_id = nrec_get_rowid(desc, rec);
  int32_t level = 0;
  nrec_copy_nth_field_data_lint(env, desc, rec, &level, RTR_COL_LEVEL, nullptr);
  *out_level = static_cast<uint32_t>(level);
  nrec_copy_nth_field_data_lint64(env, desc, rec, out_parent, RTR_COL_PARENT, nullptr);
  uint16_t len = RTR_BLOB_MAX;
  const uint8_t* bytes = nrec_get_nth_fld(env, desc, rec, RTR_COL_CELLS, nullptr, &len);
  if (bytes != nullptr && len != 0) std::memcpy(buf, bytes, len);
  *out_len = len;
  return RTR_OK;
}

extern "C" int32_t rtr_cells_unpack(uint16_t d, rtr_node* node, const uint8_t* blob,
                                    uint32_t blob_len) {
  uint32_t n = 0;
  std::memcpy(&n, blob, kCountBytes);
  node->n_cells = n;
  // A 3-D index also reads rows whose entries were written with two axes;
  // for any other dimension count the length is not looked at.
  uint32_t e = d;
  if (d == 3 && blob_len == n * entry_bytes(2) + kCountBytes) e = 2;
  if (n == 0) return RTR_OK;

  // The row is trusted; decoding stops at the node's capacity only so that a
  // damaged count cannot write past the node buffer.
  const uint32_t decoded = n < RTR_MAX_CELLS ? n : RTR_MAX_CELLS;
  const uint8_t* entries = blob + kCountBytes;
  switch (e) {
    case 1:
      unpack_entries<1>(node, decoded, entries);
      break;
    case 2:
      unpack_entries<2>(node, decoded, entries);
      break;
    case 3:
      unpack_entries<3>(node, decoded, entries);
      break;
    default:
      unpack_entries_generic(e, node, decoded, entries);
      break;
  }
  if (e == 2) open_third_axis(node, decoded);
  return RTR_OK;
}

extern "C" int32_t rtr_node_create_ex(zq_env* env, rtr_mem* rtr, int64_t id, uint32_t level,
                                      int64_t parent, const uint8_t* blob, uint32_t blob_len,
                                      rtr_node** out_node) {
  *out_node = nullptr;
  rtr_node* node = nullptr;
  int32_t rc = rtr_node_create(env, rtr, level, id, &node);
  if (rc < 0) return fail(env, rc, "rtr_node_create_ex");
  node->parent_id = parent;
  rtr_cells_unpack(rtr->n_dims, node, blob, blob_len);
  *out_node = node;
  return RTR_OK;
}
