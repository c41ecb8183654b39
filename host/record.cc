// Physical records, rows, search keys and fill-info records.
//
// A host record (HostRec, drawn in internal.h) is built by a cursor from its
// statement's current row; the nrec_* accessors read it by field number.
// Binaries are not copied into the record: they stay in the statement's
// result until the cursor moves or detaches. Rows, keys and fill-info records
// are each one allocation from the caller's memory object, so a failed
// creation leaves nothing behind and counts as one allocation.
//
// Call order: cursor -> rec_fill -> nrec_* / tuple4_from_nrec; rows and keys
// from tuple4_* -> binary_assign_const_ex into their slots -> row callbacks.
#include <algorithm>
#include <cstring>

#include "host/internal.h"

namespace zqhost {

const HostRec kMinRec{kRecMinBit, 0, 0, {}, {}, {}};
const HostRec kMaxRec{kRecMaxBit, 0, 0, {}, {}, {}};

namespace {

constexpr uint8_t kEmpty[1] = {0};
constexpr size_t kSpatialFlagCap = sizeof(HostRec::text) - 1;

constexpr size_t round8(size_t n) {
  return (n + 7) & ~size_t{7};
}

void set_int(Field* f, Kind kind, int64_t v) {
  f->data = nullptr;
  f->len = kind == Kind::kI32 ? 4 : 8;
  f->kind = kind;
  f->null = 0;
  f->sql_type = SQLITE_INTEGER;
  f->v.i = v;
}

void fill_field(Field* f, sqlite3_stmt* st, int col, Kind kind) {
  // Read before any conversion: afterwards SQLite no longer says what was stored.
  const int type = sqlite3_column_type(st, col);
  if (kind == Kind::kI32 || kind == Kind::kI64) set_int(f, kind, sqlite3_column_int64(st, col));
  f->kind = kind;
  f->null = type == SQLITE_NULL;
  f->sql_type = static_cast<uint8_t>(type);
  switch (kind) {
    case Kind::kI32:
    case Kind::kI64:
      return;
    case Kind::kF64:
      f->data = nullptr;
      f->len = 8;
      f->v.d = sqlite3_column_double(st, col);
      return;
    case Kind::kBin:
    case Kind::kText: {
      const void* p = kind == Kind::kBin ? sqlite3_column_blob(st, col)
                                         : static_cast<const void*>(sqlite3_column_text(st, col));
      f->len = static_cast<uint32_t>(sqlite3_column_bytes(st, col));
      f->data = p != nullptr ? static_cast<const uint8_t*>(p) : kEmpty;
      f->v.i = 0;
      return;
    }
  }
}

void fill_rows(const Table* t, sqlite3_stmt* st, HostRec* rec) {
  int n = static_cast<int>(t->cols.size());
  for (int i = 0; i < n; ++i) fill_field(&rec->f[i], st, i, t->cols[i].kind);
  int last = t->n_cols() - 1;
  if (t->sys_col < 0) set_int(&rec->f[last - 1], Kind::kI64, 0);
  rec->rowid = sqlite3_column_int64(st, n);
  set_int(&rec->f[last], Kind::kI64, rec->rowid);
  rec->flags = 0;
  rec->n_fields = static_cast<uint8_t>(last + 1);
}

void fill_spatial(sqlite3_stmt* st, HostRec* rec) {
  const unsigned char* text = sqlite3_column_text(st, 0);
  size_t len = std::min<size_t>(static_cast<size_t>(sqlite3_column_bytes(st, 0)), kSpatialFlagCap);
  if (text != nullptr) std::memcpy(rec->text, text, len);
  rec->text[len] = '\0';
  rec->f[0] = Field{reinterpret_cast<const uint8_t*>(rec->text),
                    static_cast<uint32_t>(len),
                    Kind::kText,
                    0,
                    SQLITE_TEXT,
                    {0}};
  rec->rowid = sqlite3_column_int64(st, 1);
  set_int(&rec->f[1], Kind::kI64, rec->rowid);
  for (int k = 0; k < 6; ++k) rec->box[k] = sqlite3_column_double(st, 2 + k);
  rec->f[2] = Field{
      reinterpret_cast<const uint8_t*>(rec->box), sizeof rec->box, Kind::kBin, 0, SQLITE_BLOB, {0}};
  rec->flags = sqlite3_column_int(st, 8) != 0 ? ZQ_NREC_DELETED_BIT : 0;
  rec->n_fields = 3;
}

const Field* field(const zq_nrec* rec, uint16_t col) {
  const HostRec* r = rec_of(rec);
  return col < r->n_fields ? &r->f[col] : nullptr;
}

// The field's bytes: a binary's own, or a number's native representation.
const uint8_t* field_bytes(const Field* f) {
  if (f->kind == Kind::kBin || f->kind == Kind::kText) return f->data;
  return reinterpret_cast<const uint8_t*>(&f->v);
}

int64_t field_int(const Field* f) {
  switch (f->kind) {
    case Kind::kI32:
    case Kind::kI64:
      return f->v.i;
    case Kind::kF64:
      return static_cast<int64_t>(f->v.d);
    default: {
      int64_t v = 0;
      std::memcpy(&v, f->data, std::min<size_t>(f->len, sizeof v));
      return v;
    }
  }
}

void* mem_alloc(zq_env* env, zq_memobj* mem, size_t size, const char* src, int line) {
  return mem->alloc(env, mem->heap, size, src, line);
}

void set_rowid_value(zq_value* v, int64_t rowid) {
  v->notnull = 1;
  v->part_a = 0;
  v->part_b = 0;
  v->u.i64 = rowid;
}

// A row value from a record field; a long binary goes to *spill.
void value_from_field(zq_value* v, const Field* f, uint8_t** spill) {
  if (f->null) return;
  v->notnull = 1;
  switch (f->kind) {
    case Kind::kI32:
      v->u.i64 = 0;
      v->u.i32 = static_cast<int32_t>(f->v.i);
      return;
    case Kind::kI64:
      v->u.i64 = f->v.i;
      return;
    case Kind::kF64:
      v->u.f64 = f->v.d;
      return;
    case Kind::kBin:
    case Kind::kText:
      v->len = f->len;
      if (f->len <= ZQ_VALUE_INLINE_MAX) {
        if (f->len != 0) std::memcpy(v->u.inl, f->data, f->len);
      } else {
        std::memcpy(*spill, f->data, f->len);
        v->ptr = *spill;
        *spill += round8(f->len);
      }
      return;
  }
}

size_t spill_size(const HostRec* r, uint16_t n) {
  size_t total = 0;
  for (uint16_t i = 0; i < n && i < r->n_fields; ++i) {
    const Field& f = r->f[i];
    bool binary = f.kind == Kind::kBin || f.kind == Kind::kText;
    if (binary && !f.null && f.len > ZQ_VALUE_INLINE_MAX) total += round8(f.len);
  }
  return total;
}

int32_t assign_bytes(zq_env* env, zq_memobj* mem, zq_value* slot, uint32_t len, const void* bytes) {
  if (len > ZQ_BINARY_MAX) return kErrTooLong;
  if (len <= ZQ_VALUE_INLINE_MAX) {
    if (len != 0) std::memcpy(slot->u.inl, bytes, len);
    slot->ptr = nullptr;
  } else {
    auto* p = static_cast<uint8_t*>(mem_alloc(env, mem, len, __FILE__, __LINE__));
    if (p == nullptr) return kErrNoMem;
    std::memcpy(p, bytes, len);
    slot->ptr = p;
  }
  slot->notnull = 1;
  slot->len = len;
  return 0;
}

}  // namespace

void rec_fill(const Table* t, sqlite3_stmt* stmt, HostRec* rec) {
  if (t->layout == Layout::kSpatial) {
    fill_spatial(stmt, rec);
  } else {
    fill_rows(t, stmt, rec);
  }
}

}  // namespace zqhost

using zqhost::Field;

extern "C" {

int64_t nrec_get_rowid(const zq_recdesc*, const zq_nrec* rec) {
  return zqhost::rec_of(rec)->rowid;
}

void nrec_copy_nth_field_data_lint(zq_env*, const zq_recdesc*, const zq_nrec* rec, int32_t* out,
                                   uint16_t col, void*) {
  const Field* f = zqhost::field(rec, col);
  *out = f != nullptr ? static_cast<int32_t>(zqhost::field_int(f)) : 0;
}

void nrec_copy_nth_field_data_lint64(zq_env*, const zq_recdesc*, const zq_nrec* rec, int64_t* out,
                                     uint16_t col, void*) {
  const Field* f = zqhost::field(rec, col);
  *out = f != nullptr ? zqhost::field_int(f) : 0;
}

const uint8_t* nrec_get_nth_fld(zq_env*, const zq_recdesc*, const zq_nrec* rec, uint16_t col, void*,
                                uint16_t* in_out_len) {
  const Field* f = zqhost::field(rec, col);
  if (f == nullptr) {
    *in_out_len = 0;
    return nullptr;
  }
  // Never report more than the caller accepts, so a damaged row cannot make
  // it copy past its buffer.
  *in_out_len = static_cast<uint16_t>(std::min<uint32_t>(f->len, *in_out_len));
  return zqhost::field_bytes(f);
}

uint32_t nrec_copy_nth_field_data_with_length(zq_env*, const zq_recdesc*, const zq_nrec* rec,
                                              uint16_t col, void* out, uint32_t cap) {
  const Field* f = zqhost::field(rec, col);
  if (f == nullptr) return 0;
  uint32_t n = std::min(f->len, cap);
  if (n != 0) std::memcpy(out, zqhost::field_bytes(f), n);
  return f->len;
}

int32_t nrec_is_min_rec(const zq_nrec* rec) {
  return (rec[0] & zqhost::kRecMinBit) != 0;
}
int32_t nrec_is_max_rec(const zq_nrec* rec) {
  return (rec[0] & zqhost::kRecMaxBit) != 0;
}

zq_key* tuple4_key_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc, int64_t rowid,
                          const char* src, int line) {
  uint16_t n = std::max<uint16_t>(desc->n_key_vals, 1);
  size_t head = zqhost::round8(sizeof(zq_key));
  size_t size = head + n * sizeof(zq_value);
  auto* raw = static_cast<uint8_t*>(zqhost::mem_alloc(env, mem, size, src, line));
  if (raw == nullptr) return nullptr;
  std::memset(raw, 0, size);
  auto* key = reinterpret_cast<zq_key*>(raw);
  key->n_vals = n;
  key->vals = reinterpret_cast<zq_value*>(raw + head);
  zqhost::set_rowid_value(&key->vals[n - 1], rowid);
  return key;
}

void tuple4_key_free(zq_env* env, zq_memobj* mem, zq_key* key) {
  if (key != nullptr && mem->free != nullptr) mem->free(env, mem->heap, key);
}

zq_row* tuple4_space_create(zq_env* env, zq_memobj* mem, const zq_recdesc* desc) {
  size_t head = zqhost::round8(sizeof(zq_row));
  size_t size = head + desc->n_cols * sizeof(zq_value);
  auto* raw = static_cast<uint8_t*>(zqhost::mem_alloc(env, mem, size, __FILE__, __LINE__));
  if (raw == nullptr) return nullptr;
  std::memset(raw, 0, size);
  auto* row = reinterpret_cast<zq_row*>(raw);
  row->n_cols = desc->n_cols;
  row->cols = reinterpret_cast<zq_value*>(raw + head);
  row->desc = desc;
  return row;
}

zq_row* tuple4_from_nrec(zq_env* env, zq_memobj* mem, const zq_nrec* rec, const zq_recdesc* desc,
                         int32_t* code) {
  zqhost::raise_point(env, env != nullptr ? env->active_ptx : nullptr);
  *code = 0;
  const zqhost::HostRec* r = zqhost::rec_of(rec);
  uint16_t n = desc->n_cols;
  size_t head = zqhost::round8(sizeof(zq_row));
  size_t values = n * sizeof(zq_value);
  size_t size = head + values + zqhost::spill_size(r, n);
  auto* raw = static_cast<uint8_t*>(zqhost::mem_alloc(env, mem, size, __FILE__, __LINE__));
  if (raw == nullptr) {
    *code = zqhost::kErrNoMem;
    return nullptr;
  }
  std::memset(raw, 0, head + values);
  auto* row = reinterpret_cast<zq_row*>(raw);
  row->n_cols = n;
  row->cols = reinterpret_cast<zq_value*>(raw + head);
  row->desc = desc;
  uint8_t* spill = raw + head + values;
  for (uint16_t i = 0; i < n && i < r->n_fields; ++i) {
    zqhost::value_from_field(&row->cols[i], &r->f[i], &spill);
  }
  if (n > 0) zqhost::set_rowid_value(&row->cols[n - 1], r->rowid);
  return row;
}

zq_fillinfo* tuple4_fillinfo_space_create_low(zq_env* env, zq_memobj* mem, const zq_recdesc*,
                                              const uint16_t* cols, uint16_t count, uint32_t) {
  zq_fillinfo* fill = tuple4_fillinfo_space_without_data_create(env, mem, count, sizeof(zq_value),
                                                                sizeof(uint32_t));
  if (fill != nullptr && count != 0) std::memcpy(fill->col_nos, cols, count * sizeof(uint16_t));
  return fill;
}

zq_fillinfo* tuple4_fillinfo_space_without_data_create(zq_env* env, zq_memobj* mem, uint16_t count,
                                                       uint32_t size1, uint32_t size2) {
  using zqhost::round8;
  size_t head = round8(sizeof(zq_fillinfo));
  size_t nos = round8(count * sizeof(uint16_t));
  // The slots are zq_value whatever size the descriptor asks for; a larger
  // size only leaves room behind them.
  size_t vals = count * std::max<size_t>(size1, sizeof(zq_value));
  size_t lens = size2 != 0 ? round8(count * std::max<size_t>(size2, sizeof(uint32_t))) : 0;
  size_t size = head + nos + vals + lens;
  auto* raw = static_cast<uint8_t*>(zqhost::mem_alloc(env, mem, size, __FILE__, __LINE__));
  if (raw == nullptr) return nullptr;
  std::memset(raw, 0, size);
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
  return zqhost::assign_bytes(env, mem, slot, len, bytes);
}

int32_t nstr_assign_const_ex_no_clear(zq_env* env, zq_memobj* mem, zq_value* slot, const char* str,
                                      uint32_t len) {
  return zqhost::assign_bytes(env, mem, slot, len, str);
}

int32_t nbin_cmp(zq_env*, const zq_value* a, const zq_value* b) {
  if (a->notnull == 0 || b->notnull == 0) return static_cast<int32_t>(a->notnull) - b->notnull;
  uint32_t n = std::min(a->len, b->len);
  int c = n != 0 ? std::memcmp(zqhost::value_bytes(a), zqhost::value_bytes(b), n) : 0;
  if (c != 0) return c < 0 ? -1 : 1;
  return a->len == b->len ? 0 : (a->len < b->len ? -1 : 1);
}

}  // extern "C"
