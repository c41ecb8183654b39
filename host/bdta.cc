// Column batches: rows held column by column, each cell an 8-byte datum and a
// not-null flag.
//
// Call order: bdta3_create (the object and its column descriptors, no
// storage) -> bdta3_col_data_create_low for each column -> bdta3_put_fld_data
// and n_rows advanced by the user, or a sorter filling the batch ->
// bdta3_clear to reuse -> bdta3_free2 (object and storage). bdta3_free frees
// the object alone, for a batch whose column storage its maker gives back.
//
// Everything comes from the caller's memory object. One block per column
// holds the cap datums followed by the cap flags, so the column's storage is
// given back with a single free of `data`.
#include <cstddef>
#include <cstring>
#include <new>

#include "host/sort_pool.h"
#include "zqhost/sort.h"

namespace {

constexpr size_t round_up(size_t n, size_t to) {
  return (n + to - 1) / to * to;
}

constexpr size_t kColsOffset = round_up(sizeof(zq_bdta), alignof(zq_bdta_col));

void give_back(zq_env* env, zq_memobj* mem, void* ptr) {
  if (ptr != nullptr && mem != nullptr && mem->free != nullptr) mem->free(env, mem->heap, ptr);
}

}  // namespace

extern "C" zq_bdta* bdta3_create(zq_env* env, zq_memobj* mem, uint16_t n_cols,
                                 const uint16_t* types) {
  if (mem == nullptr || mem->alloc == nullptr || (n_cols > 0 && types == nullptr)) return nullptr;
  const size_t size = kColsOffset + n_cols * sizeof(zq_bdta_col);
  void* block = mem->alloc(env, mem->heap, size, __FILE__, __LINE__);
  if (block == nullptr) return nullptr;
  auto* bdta = new (block) zq_bdta{};
  bdta->n_cols = n_cols;
  bdta->cols = reinterpret_cast<zq_bdta_col*>(static_cast<char*>(block) + kColsOffset);
  for (uint16_t c = 0; c < n_cols; ++c) {
    new (&bdta->cols[c]) zq_bdta_col{};
    bdta->cols[c].type = types[c];
  }
  return bdta;
}

extern "C" int32_t bdta3_col_data_create_low(zq_env* env, zq_memobj* mem, zq_bdta_col* col,
                                             uint16_t type, uint32_t cap) {
  if (mem == nullptr || mem->alloc == nullptr || col == nullptr) return ZQHOST_SORT_NO_ROOM;
  const size_t size = static_cast<size_t>(cap) * (sizeof(zq_datum) + 1);
  void* block = mem->alloc(env, mem->heap, size == 0 ? 1 : size, __FILE__, __LINE__);
  if (block == nullptr) return ZQHOST_SORT_NO_ROOM;
  std::memset(block, 0, size);
  col->type = type;
  col->cap = cap;
  col->data = static_cast<zq_datum*>(block);
  col->notnull = reinterpret_cast<uint8_t*>(col->data + cap);
  return 0;
}

// Hot path of every batch fill: no checks, as for any engine cell write.
extern "C" void bdta3_put_fld_data(zq_env* /*env*/, zq_bdta* bdta, const zq_value* value,
                                   zq_memobj* /*mem*/, uint32_t row, uint16_t col) {
  zq_bdta_col& c = bdta->cols[col];
  std::memcpy(&c.data[row], &value->u, sizeof(zq_datum));
  c.notnull[row] = value->notnull != 0 ? 1 : 0;
}

extern "C" void bdta3_clear(zq_env* /*env*/, zq_memobj* /*mem*/, zq_bdta* bdta) {
  if (bdta != nullptr) bdta->n_rows = 0;
}

extern "C" void bdta3_free(zq_env* env, zq_memobj* mem, zq_bdta* bdta) {
  give_back(env, mem, bdta);
}

extern "C" void bdta3_free2(zq_env* env, zq_memobj* mem, zq_bdta* bdta) {
  if (bdta == nullptr) return;
  for (uint16_t c = 0; c < bdta->n_cols; ++c) give_back(env, mem, bdta->cols[c].data);
  give_back(env, mem, bdta);
}
