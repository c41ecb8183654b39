// Physical records (PgRec, drawn in pghost.h) read by column number, and the
// library's rows, keys and fill-info records. Rows, keys and fill-info
// records are each one allocation from the caller's memory object.
//
// Column numbers are the library's: 0 level, 1 parent_id, 2 cells, 3 the
// system column (always 0), 4 the rowid (the id column).
#include <algorithm>
#include <cstring>

#include "pg/host/pghost.h"

namespace zqpg {
namespace {

constexpr int64_t kZero = 0;

constexpr size_t round8(size_t n) {
  return (n + 7) & ~size_t{7};
}

// The bytes of column `col` of a record and their length; null past the row.
const uint8_t* field(const PgRec* r, uint16_t col, uint32_t* len) {
  switch (col) {
    case kColLevel:
      *len = sizeof r->level;
      return reinterpret_cast<const uint8_t*>(&r->level);
    case kColParent:
      *len = sizeof r->parent;
      return reinterpret_cast<const uint8_t*>(&r->parent);
    case kColCells:
      *len = r->len;
      return r->cells;
    case kColSys:
      *len = sizeof kZero;
      return reinterpret_cast<const uint8_t*>(&kZero);
    case kColRowid:
      *len = sizeof r->rowid;
      return reinterpret_cast<const uint8_t*>(&r->rowid);
    default:
      *len = 0;
      return nullptr;
  }
}

int64_t field_int(const PgRec* r, uint16_t col) {
  switch (col) {
    case kColLevel:
      return r->level;
    case kColParent:
      return r->parent;
    case kColRowid:
      return r->rowid;
    default:
      return 0;
  }
}

void* mem_alloc(zq_env* env, zq_memobj* mem, size_t size, const char* src, int line) {
  return mem->alloc(env, mem->heap, size, src, line);
}

void set_i64(zq_value* v, int64_t x) {
  v->notnull = 1;
  v->part_a = 0;
  v->part_b = 0;
  v->u.i64 = x;
}

int32_t assign_bytes(zq_env* env, zq_memobj* mem, zq_value* slot, uint32_t len, const void* bytes) {
  if (len > ZQ_BINARY_MAX) return kErrBadArg;
  if (len <= ZQ_VALUE_INLINE_MAX) {
    if (len != 0) memcpy(slot->u.inl, bytes, len);
    slot->ptr = nullptr;
  } else {
    auto* p = static_cast<uint8_t*>(mem_alloc(env, mem, len, __FILE__, __LINE__));
    if (p == nullptr) return kErrNoMem;
    memcpy(p, bytes, len);
    slot->ptr = p;
  }
  slot->notnull = 1;
  slot->len = len;
  return 0;
}

const uint8_t* value_bytes(const zq_value* v) {
  return v->len <= ZQ_VALUE_INLINE_MAX ? v->u.inl : v->ptr;
}

}  // namespace

// Fills one value slot from column `col` of a record; a long blob goes to
// `*spill` when given, else into memory from `mem`.
int32_t value_from_rec(zq_env* env, zq_memobj* mem, const PgRec* r, uint16_t col, zq_value* v,
                       uint8_t** spill) {
  memset(static_cast<void*>(v), 0, sizeof *v);
  v->notnull = 1;
  switch (col) {
    case kColLevel:
      v->u.i32 = r->level;
      return 0;
    case kColCells:
      if (spill == nullptr || r->len <= ZQ_VALUE_INLINE_MAX)
        return assign_bytes(env, mem, v, r->len, r->cells);
      memcpy(*spill, r->cells, r->len);
      v->len = r->len;
      v->ptr = *spill;
      *spill += round8(r->len);
      return 0;
    default:
      v->u.i64 = field_int(r, col);
      return 0;
  }
}

}  // namespace zqpg

using zqpg::PgRec;
using zqpg::rec_of;

extern "C" {

int64_t nrec_get_rowid(const zq_recdesc*, const zq_nrec* rec) {
  return rec_of(rec)->rowid;
}

void nrec_copy_nth_field_data_lint(zq_env*, const zq_recdesc*, const zq_nrec* rec, int32_t* out,
                                   uint16_t col, void*) {
  *out = static_cast<int32_t>(zqpg::field_int(rec_of(rec), col));
}

void nrec_copy_nth_field_data_lint64(zq_env*, const zq_recdesc*, const zq_nrec* rec, int64_t* out,
                                     uint16_t col, void*) {
  *out = zqpg::field_int(rec_of(rec), col);
}

const uint8_t* nrec_get_nth_fld(zq_env*, const zq_recdesc*, const zq_nrec* rec, uint16_t col, void*,
                                uint16_t* in_out_len) {
  uint32_t len = 0;
  const uint8_t* bytes = zqpg::field(rec_of(rec), col, &len);
  // Never more than the caller accepts: a damaged row cannot overrun it.
  *in_out_len = static_cast<uint16_t>(std::min<uint32_t>(len, *in_out_len));
  return bytes;
}

uint32_t nrec_copy_nth_field_data_with_length(zq_env*, const zq_recdesc*, const zq_nrec* rec,
                                              uint16_t col, void* out, uint32_t cap) {
  uint32_t len = 0;
  const uint8_t* bytes = zqpg::field(rec_of(rec), col, &len);
  const uint32_t n = std::min(len, cap);
  if (bytes != nullptr && n != 0) memcpy(out, bytes, n);
  return len;
}

int32_t nrec_is_min_rec(const zq_nrec* rec) {
  return (rec[0] & zqpg::kRecMinBit) != 0;
}

int32_t nrec_is_max_rec(const zq_nrec* rec) {
  return (rec[0] & zqpg::kRecMaxBit) != 0;
}

zq_key* tuple4_key_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc, int64_t rowid,
                          const char* src, int line) {
  const uint16_t n = std::max<uint16_t>(desc->n_key_vals, 1);
  const size_t head = zqpg::round8(sizeof(zq_key));
  const size_t size = head + n * sizeof(zq_value);
  auto* raw = static_cast<uint8_t*>(zqpg::mem_alloc(env, mem, size, src, line));
  if (raw == nullptr) return nullptr;
  memset(raw, 0, size);
  auto* key = reinterpret_cast<zq_key*>(raw);
  key->n_vals = n;
  key->vals = reinterpret_cast<zq_value*>(raw + head);
  zqpg::set_i64(&key->vals[n - 1], rowid);
  return key;
}

void tuple4_key_free(zq_env* env, zq_memobj* mem, zq_key* key) {
  if (key != nullptr && mem->free != nullptr) mem->free(env, mem->heap, key);
}

zq_row* tuple4_space_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc) {
  const size_t head = zqpg::round8(sizeof(zq_row));
  const size_t size = head + desc->n_cols * sizeof(zq_value);
  auto* raw = static_cast<uint8_t*>(zqpg::mem_alloc(env, mem, size, __FILE__, __LINE__));
  if (raw == nullptr) return nullptr;
  memset(raw, 0, size);
  auto* row = reinterpret_cast<zq_row*>(raw);
  row->n_cols = desc->n_cols;
  row->cols = reinterpret_cast<zq_value*>(raw + head);
  row->desc = desc;
  return row;
}

zq_row* tuple4_from_nrec(zq_env* env, zq_memobj* mem, const zq_nrec* rec, const zq_recdesc* desc,
                         int32_t* code) {
  *code = 0;
  const PgRec* r = rec_of(rec);
  const uint16_t n = desc->n_cols;
  const size_t head = zqpg::round8(sizeof(zq_row));
  const size_t values = n * sizeof(zq_value);
  const size_t spill = r->len > ZQ_VALUE_INLINE_MAX ? zqpg::round8(r->len) : 0;
  auto* raw =
      static_cast<uint8_t*>(zqpg::mem_alloc(env, mem, head + values + spill, __FILE__, __LINE__));
  if (raw == nullptr) {
    *code = zqpg::kErrNoMem;
    return nullptr;
  }
  auto* row = reinterpret_cast<zq_row*>(raw);
  row->n_cols = n;
  row->cols = reinterpret_cast<zq_value*>(raw + head);
  row->desc = desc;
  uint8_t* at = raw + head + values;
  for (uint16_t i = 0; i < n; ++i) zqpg::value_from_rec(env, mem, r, i, &row->cols[i], &at);
  return row;
}

zq_fillinfo* tuple4_fillinfo_space_create_low(zq_env* env, zq_memobj* mem, const zq_recdesc*,
                                              const uint16_t* cols, uint16_t count, uint32_t) {
  zq_fillinfo* fill = tuple4_fillinfo_space_without_data_create(env, mem, count, sizeof(zq_value),
                                                                sizeof(uint32_t));
  if (fill != nullptr && count != 0) memcpy(fill->col_nos, cols, count * sizeof(uint16_t));
  return fill;
}

zq_fillinfo* tuple4_fillinfo_space_without_data_create(zq_env* env, zq_memobj* mem, uint16_t count,
                                                       uint32_t size1, uint32_t size2) {
  using zqpg::round8;
  const size_t head = round8(sizeof(zq_fillinfo));
  const size_t nos = round8(count * sizeof(uint16_t));
  // The slots are zq_value whatever size the descriptor asks for.
  const size_t vals = count * std::max<size_t>(size1, sizeof(zq_value));
  const size_t lens = size2 != 0 ? round8(count * std::max<size_t>(size2, sizeof(uint32_t))) : 0;
  const size_t size = head + nos + vals + lens;
  auto* raw = static_cast<uint8_t*>(zqpg::mem_alloc(env, mem, size, __FILE__, __LINE__));
  if (raw == nullptr) return nullptr;
  memset(raw, 0, size);
  auto* fill = reinterpret_cast<zq_fillinfo*>(raw);
  fill->n_cols = count;
  fill->col_nos = reinterpret_cast<uint16_t*>(raw + head);
  fill->values = reinterpret_cast<zq_value*>(raw + head + nos);
  fill->lens = size2 != 0 ? reinterpret_cast<uint32_t*>(raw + head + nos + vals) : nullptr;
  return fill;
}

zq_value* tuple4_fillinfo_get_nth_fld(zq_fillinfo* fill, uint16_t nth) {
  return nth < fill->n_cols ? &fill->values[nth] : nullptr;
}

int32_t binary_assign_const_ex(zq_env* env, zq_memobj* mem, zq_value* slot, uint32_t len,
                               const void* bytes) {
  slot->part_a = 0;
  slot->part_b = 0;
  return zqpg::assign_bytes(env, mem, slot, len, bytes);
}

int32_t nstr_assign_const_ex_no_clear(zq_env* env, zq_memobj* mem, zq_value* slot, const char* str,
                                      uint32_t len) {
  return zqpg::assign_bytes(env, mem, slot, len, str);
}

int32_t nbin_cmp(zq_env*, const zq_value* a, const zq_value* b) {
  if (a->notnull == 0 || b->notnull == 0) return static_cast<int32_t>(a->notnull) - b->notnull;
  const uint32_t n = std::min(a->len, b->len);
  const int c = n != 0 ? memcmp(zqpg::value_bytes(a), zqpg::value_bytes(b), n) : 0;
  if (c != 0) return c < 0 ? -1 : 1;
  return a->len == b->len ? 0 : (a->len < b->len ? -1 : 1);
}

}  // extern "C"
