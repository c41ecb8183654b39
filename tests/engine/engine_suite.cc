// The engine-interface cases (see engine_suite.h). Each case checks what the
// library relies on, never how a host does it.
#include "tests/engine/engine_suite.h"

#include <cstring>
#include <string>
#include <vector>

#include "zqhost/dict.h"
#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"
#include "zqhost/sort.h"
#include "zqrtree/errors.h"

namespace zqengine {
namespace {

#define EXPECT_ENGINE(report, cond)                        \
  do {                                                     \
    if (!(cond)) (report).fail(__FILE__, __LINE__, #cond); \
  } while (0)

constexpr uint16_t kLevel = 0;
constexpr uint16_t kParent = 1;
constexpr uint16_t kCells = 2;

// Scratch memory of one case, destroyed with it.
class Mem {
 public:
  explicit Mem(zq_env* env) : env_(env) {
    obj_ = rt_memobj_heap_create_fast_ex(env, &storage_, 4096, __FILE__, __LINE__);
  }
  ~Mem() {
    if (obj_ != nullptr) rt_memobj_destroy(env_, obj_);
  }
  zq_memobj* get() const { return obj_; }

 private:
  zq_env* env_;
  zq_memobj storage_{};
  zq_memobj* obj_ = nullptr;
};

// A node table of the case and its engine objects.
struct Table {
  zq_table* table = nullptr;
  zq_index* index = nullptr;
  zq_btr* btr = nullptr;
  const zq_recdesc* desc = nullptr;
};

bool open_table(EngineHost& h, Reporter& r, const char* name, Table* t) {
  if (!h.create_node_table(name)) {
    r.fail(__FILE__, __LINE__, std::string("cannot create node table for ") + name);
    return false;
  }
  const std::string full = std::string("MDRT$") + name;
  int32_t code = 0;
  t->table = ndct_find_table_by_name_with_code(h.env(), nullptr, h.scope(), full.c_str(), &code);
  if (t->table != nullptr)
    t->index = ndct_table_get_nth_valid_real_index(h.env(), nullptr, t->table, 0, &code);
  if (t->index == nullptr) {
    r.fail(__FILE__, __LINE__,
           "the new node table has no rowid index (code " + std::to_string(code) + ")");
    return false;
  }
  t->btr = ndct_phy_index_get_btr(t->index);
  t->desc = t->btr->desc;
  return true;
}

std::vector<uint8_t> cells_of(int64_t id, size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(id * 31 + i);
  return v;
}

zq_row* node_row(EngineHost& h, zq_memobj* mem, const Table& t, int64_t id, int32_t level,
                 int64_t parent, const std::vector<uint8_t>& cells) {
  zq_row* row = tuple4_space_create(h.env(), mem, t.desc);
  row->cols[kLevel].notnull = 1;
  row->cols[kLevel].u.i32 = level;
  row->cols[kParent].notnull = 1;
  row->cols[kParent].u.i64 = parent;
  binary_assign_const_ex(h.env(), mem, &row->cols[kCells], static_cast<uint32_t>(cells.size()),
                         cells.data());
  row->cols[row->n_cols - 2].notnull = 1;  // the system column, written as 0
  row->cols[row->n_cols - 1].notnull = 1;
  row->cols[row->n_cols - 1].u.i64 = id;
  return row;
}

// Slot 4 in a write ptx of its own; the callback's result.
int32_t insert(EngineHost& h, const Table& t, int64_t id, int32_t level, int64_t parent,
               const std::vector<uint8_t>& cells) {
  Mem mem(h.env());
  zq_row* row = node_row(h, mem.get(), t, id, level, parent, cells);
  zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, id, __FILE__, __LINE__);
  zq_ptx ptx;
  if (ptx3_begin_low_ex(h.env(), &ptx, 1, 0, __FILE__, __LINE__) < 0) return -1;
  int32_t rc = 0;
  try {
    rc = h.hooks().row_insert(&ptx, h.session(), t.table, t.index, t.desc, row, key, 0, 0);
  } catch (const zq_raised& raised) {
    rc = raised.code;
  }
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  return rc;
}

// What a read of one row saw.
struct Seen {
  bool found = false;  // the exact id
  bool max = false;    // the boundary record after the last row
  int64_t rowid = 0;
  int32_t level = 0;
  int64_t parent = 0;
  std::vector<uint8_t> cells;
};

void take(EngineHost& h, const Table& t, const zq_nrec* rec, Seen* s) {
  s->max = nrec_is_max_rec(rec) != 0;
  if (s->max || nrec_is_min_rec(rec) != 0) return;
  s->rowid = nrec_get_rowid(t.desc, rec);
  nrec_copy_nth_field_data_lint(h.env(), t.desc, rec, &s->level, kLevel, nullptr);
  nrec_copy_nth_field_data_lint64(h.env(), t.desc, rec, &s->parent, kParent, nullptr);
  s->cells.resize(ZQ_BINARY_MAX);
  const uint32_t len = nrec_copy_nth_field_data_with_length(h.env(), t.desc, rec, kCells,
                                                            s->cells.data(), ZQ_BINARY_MAX);
  s->cells.resize(len);
}

// The physical cursor opened at `id` in a read ptx; with `walk`, the rowids
// it then moves right through.
Seen open_at(EngineHost& h, const Table& t, int64_t id, std::vector<int64_t>* walk = nullptr) {
  Seen s;
  Mem mem(h.env());
  zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, id, __FILE__, __LINE__);
  zq_ptx ptx;
  ptx3_begin_low_ex(h.env(), &ptx, 0, 0, __FILE__, __LINE__);
  pbcur cur;
  pbcur_init_low(&cur, &ptx, t.btr, __FILE__, __LINE__);
  if (pbcur_open(&cur, key, 1, 4, mem.get()) == 0 && cur.rec != nullptr) {
    s.found = cur.found != 0;
    take(h, t, cur.rec, &s);
    while (walk != nullptr && !s.max && cur.rec != nullptr) {
      walk->push_back(nrec_get_rowid(t.desc, cur.rec));
      if (pbcur_move_to_right_user_rec(&cur) == 0) break;
    }
  }
  pbcur_close(&cur);
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  return s;
}

void rows_through_both_cursors(EngineHost& h, Reporter& r) {
  Table t;
  if (!open_table(h, r, "rows", &t)) return;
  for (int64_t id : {9, 2, 5})
    EXPECT_ENGINE(r, insert(h, t, id, int32_t(id % 3), id * 10, cells_of(id, 4 + 40 * id)) == 0);
  const Seen five = open_at(h, t, 5);
  EXPECT_ENGINE(r, five.found && five.rowid == 5 && five.level == 2 && five.parent == 50);
  EXPECT_ENGINE(r, five.cells == cells_of(5, 204));
  const Seen gap = open_at(h, t, 6);
  EXPECT_ENGINE(r, !gap.found && gap.rowid == 9);
  EXPECT_ENGINE(r, open_at(h, t, 10).max);
  std::vector<int64_t> walk;
  open_at(h, t, 1, &walk);
  EXPECT_ENGINE(r, (walk == std::vector<int64_t>{2, 5, 9}));

  Mem mem(h.env());
  zq_ptx ptx;
  ptx3_begin_low_ex(h.env(), &ptx, 0, 0, __FILE__, __LINE__);
  for (int64_t id : {5, 6}) {
    nbtr_cur cur;
    nbtr_cur_init(&cur, t.btr);
    zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, id, __FILE__, __LINE__);
    EXPECT_ENGINE(r, nbtr_cur_search(&ptx, &cur, 4, 4, key, 0, mem.get()) == 0);
    EXPECT_ENGINE(r, (cur.rec != nullptr) == (id == 5));
    if (cur.rec != nullptr) {
      int32_t code = 0;
      zq_row* row = tuple4_from_nrec(h.env(), mem.get(), cur.rec, t.desc, &code);
      EXPECT_ENGINE(r, code == 0 && row->cols[kParent].u.i64 == 50 && row->cols[kCells].len == 204);
      EXPECT_ENGINE(r, row->cols[row->n_cols - 1].u.i64 == 5);
    }
  }
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
}

// Slot 5 or 6 on `id` in its own write ptx, found by an exact search first.
int32_t update(EngineHost& h, const Table& t, int64_t id, int64_t parent,
               const std::vector<uint8_t>* cells) {
  Mem mem(h.env());
  const Seen now = open_at(h, t, id);
  zq_row* row =
      node_row(h, mem.get(), t, id, now.level, parent, cells != nullptr ? *cells : now.cells);
  zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, id, __FILE__, __LINE__);
  const uint16_t fixed_cols[] = {kParent};
  const uint16_t all_cols[] = {kParent, kCells};
  const uint16_t* cols = cells != nullptr ? all_cols : fixed_cols;
  const uint16_t n = cells != nullptr ? 2 : 1;
  zq_fillinfo* news = tuple4_fillinfo_space_create_low(h.env(), mem.get(), t.desc, cols, n, 0);
  zq_fillinfo* olds = tuple4_fillinfo_space_create_low(h.env(), mem.get(), t.desc, cols, n, 0);
  for (uint16_t i = 0; i < n; ++i) news->values[i] = row->cols[cols[i]];
  zq_ptx ptx;
  ptx3_begin_low_ex(h.env(), &ptx, 1, 0, __FILE__, __LINE__);
  int32_t rc = 0;
  try {
    nbtr_cur cur;
    nbtr_cur_init(&cur, t.btr);
    nbtr_cur_search(&ptx, &cur, 4, 4, key, 0, mem.get());
    uint64_t dver = 0;
    ndct_table_get_dver(h.env(), t.table, &dver);
    rc = cells == nullptr ? h.hooks().row_update_fixed(&ptx, h.session(), t.table, t.index, t.desc,
                                                       key, news, olds, 0, dver, &cur)
                          : h.hooks().row_update_unfixed(&ptx, h.session(), t.table, t.index,
                                                         t.desc, key, row, olds, 0, dver, &cur);
  } catch (const zq_raised& raised) {
    rc = raised.code;
  }
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  return rc;
}

int32_t remove(EngineHost& h, const Table& t, int64_t id) {
  Mem mem(h.env());
  zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, id, __FILE__, __LINE__);
  zq_ptx ptx;
  ptx3_begin_low_ex(h.env(), &ptx, 1, 0, __FILE__, __LINE__);
  int32_t rc = 0;
  try {
    nbtr_cur cur;
    nbtr_cur_init(&cur, t.btr);
    nbtr_cur_search(&ptx, &cur, 4, 4, key, 0, mem.get());
    rc = h.hooks().row_delete(&ptx, h.session(), t.table, t.index, t.desc, key, 0, 0, cur.rec);
  } catch (const zq_raised& raised) {
    rc = raised.code;
  }
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  return rc;
}

void updates_deletes_and_a_refused_insert(EngineHost& h, Reporter& r) {
  Table t;
  if (!open_table(h, r, "changes", &t)) return;
  for (int64_t id : {3, 4, 7}) EXPECT_ENGINE(r, insert(h, t, id, 1, 0, cells_of(id, 100)) == 0);
  uint64_t before = 0;
  uint64_t after = 0;
  ndct_table_get_dver(h.env(), t.table, &before);
  EXPECT_ENGINE(r, update(h, t, 4, 77, nullptr) == 0);
  ndct_table_get_dver(h.env(), t.table, &after);
  EXPECT_ENGINE(r, after != before);
  Seen four = open_at(h, t, 4);
  EXPECT_ENGINE(r, four.parent == 77 && four.cells == cells_of(4, 100));
  const std::vector<uint8_t> longer = cells_of(44, 3000);
  EXPECT_ENGINE(r, update(h, t, 4, 78, &longer) == 0);
  four = open_at(h, t, 4);
  EXPECT_ENGINE(r, four.parent == 78 && four.cells == longer);
  // The same row written twice within one user operation, as the library's
  // write-back does.
  EXPECT_ENGINE(r, update(h, t, 4, 79, nullptr) == 0 && open_at(h, t, 4).parent == 79);
  EXPECT_ENGINE(r, remove(h, t, 7) == 0);
  EXPECT_ENGINE(r, open_at(h, t, 7).max);
  int32_t code = 0;
  const int64_t next = nbtr_get_next_rowid(h.env(), t.btr, &code);
  EXPECT_ENGINE(r, code == 0 && next > 4 && nbtr_get_next_rowid(h.env(), t.btr, &code) > next);
  // Last: a host may refuse everything after a refused insertion.
  EXPECT_ENGINE(r, insert(h, t, 3, 0, 0, cells_of(3, 8)) == RTR_ERR_INSERT_FAILED);
}

void dictionary_and_visibility(EngineHost& h, Reporter& r) {
  Table t;
  if (!open_table(h, r, "dict", &t)) return;
  int32_t code = 0;
  EXPECT_ENGINE(r, ndct_find_table_by_name_with_code(h.env(), nullptr, h.scope(), "MDRT$none",
                                                     &code) == nullptr &&
                       code < 0);
  code = 0;
  EXPECT_ENGINE(
      r, ndct_table_get_nth_valid_real_index(h.env(), nullptr, t.table, 1, &code) == nullptr &&
             code < 0);
  EXPECT_ENGINE(r, insert(h, t, 12, 3, 6, cells_of(12, 60)) == 0);
  Mem mem(h.env());
  zq_key* key = tuple4_key_create(h.env(), mem.get(), t.desc, 12, __FILE__, __LINE__);
  zq_ptx ptx;
  ptx3_begin_low_ex(h.env(), &ptx, 0, 0, __FILE__, __LINE__);
  pbcur cur;
  pbcur_init_low(&cur, &ptx, t.btr, __FILE__, __LINE__);
  EXPECT_ENGINE(r, pbcur_open(&cur, key, 1, 4, mem.get()) == 0 && cur.found == 1);
  // A session sees what it wrote, and its visible version is that row.
  EXPECT_ENGINE(r, h.hooks().rec_is_visible(h.env(), h.session(), cur.rec) != 0);
  const uint16_t cols[] = {kLevel, kParent, kCells};
  zq_fillinfo* fill = tuple4_fillinfo_space_create_low(h.env(), mem.get(), t.desc, cols, 3, 0);
  code = 0;
  EXPECT_ENGINE(r, h.hooks().rec_read_visible_version(h.env(), mem.get(), h.session(), t.desc,
                                                      cur.rec, cur.rec, fill, &code) == 1);
  EXPECT_ENGINE(r, code == 0 && fill->values[0].u.i32 == 3 && fill->values[1].u.i64 == 6);
  const zq_value& cells = fill->values[2];
  const uint8_t* bytes = cells.len <= ZQ_VALUE_INLINE_MAX ? cells.u.inl : cells.ptr;
  EXPECT_ENGINE(r, cells.len == 60 && std::memcmp(bytes, cells_of(12, 60).data(), 60) == 0);
  pbcur_close(&cur);
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
}

// 20,000 rows (id, key) through a sorter whose budget holds a fraction of
// them: every row comes back once, in key order.
void sorter_orders_and_spills(EngineHost& h, Reporter& r) {
  h.set_sort_budget(64 * 1024);
  Mem mem(h.env());
  zq_env* env = h.env();
  const uint16_t types[] = {ZQ_TYPE_BIGINT, ZQ_TYPE_DOUBLE};
  const zq_sort_col cols[] = {{0, ZQ_TYPE_BIGINT}, {1, ZQ_TYPE_DOUBLE}};
  const zq_sort_key key{1, 'A', sort2_simple_fun_search(env, ZQ_TYPE_DOUBLE)};
  const zq_sort_col_list col_list{2, cols};
  const zq_sort_key_list key_list{1, &key};
  zq_nsort* s = nsort_create(env, mem.get(), 1, 0, 1000, zqsess_sort_pool(h.session()), 0);
  EXPECT_ENGINE(r, s != nullptr && nsort_set_bdta_info(env, s, &col_list, 0, &key_list, 1) == 0);
  zq_bdta* b = bdta3_create(env, mem.get(), 2, types);
  for (uint16_t c = 0; c < 2; ++c)
    EXPECT_ENGINE(r, bdta3_col_data_create_low(env, mem.get(), &b->cols[c], types[c], 1000) == 0);
  constexpr int64_t kRows = 20000;
  int64_t id_sum = 0;
  for (int64_t id = 0; id < kRows; ++id) {
    zq_value v{};
    v.notnull = 1;
    v.u.i64 = id;
    bdta3_put_fld_data(env, b, &v, mem.get(), b->n_rows, 0);
    v.u.f64 = static_cast<double>((id * 7919) % 10007) - 5000.5;
    bdta3_put_fld_data(env, b, &v, mem.get(), b->n_rows, 1);
    id_sum += id;
    if (++b->n_rows == 1000) {
      EXPECT_ENGINE(r, nsort_put_bdta(env, s, b) == 0);
      bdta3_clear(env, mem.get(), b);
    }
  }
  EXPECT_ENGINE(r, nsort_sort_it(env, s) == 0);
  int64_t seen = 0;
  int64_t sum = 0;
  double last = -1e300;
  bool ordered = true;
  for (uint32_t end = 0; end == 0;) {
    if (nsort_get_bdta(env, mem.get(), b, 1000, s, &end) != 0) break;
    for (uint32_t i = 0; i < b->n_rows; ++i) {
      ordered = ordered && b->cols[1].data[i].f64 >= last;
      last = b->cols[1].data[i].f64;
      sum += b->cols[0].data[i].i64;
    }
    seen += b->n_rows;
  }
  EXPECT_ENGINE(r, ordered && seen == kRows && sum == id_sum);
  nsort_destory(env, s);
  bdta3_free2(env, mem.get(), b);
}

void memory_objects(EngineHost& h, Reporter& r) {
  zq_env* env = h.env();
  zq_memobj* pool = rt_memobj_mem2_pool_create_low(env, 0, "RTREE_CREATE_POOL", 1 << 20, 0, 0, 0, 0,
                                                   0, __FILE__, __LINE__);
  EXPECT_ENGINE(r, pool != nullptr);
  if (pool == nullptr) return;
  // Pool blocks come zero-filled, a reused one too: the library counts on
  // a fresh node buffer's unused slots reading 0.
  for (int round = 0; round < 2; ++round) {
    auto* p = static_cast<uint8_t*>(pool->alloc(env, pool->heap, 2936, __FILE__, __LINE__));
    bool zero = p != nullptr;
    for (int i = 0; zero && i < 2936; ++i) zero = p[i] == 0;
    EXPECT_ENGINE(r, zero);
    if (p != nullptr) std::memset(p, 0xab, 2936);
    if (pool->free != nullptr) pool->free(env, pool->heap, p);
  }
  rt_memobj_destroy(env, pool);
  zq_hash* hash = zq_hash_create(env, 10000, __FILE__, __LINE__);
  bool empty = hash != nullptr && hash->n_buckets == 10000;
  for (uint32_t i = 0; empty && i < hash->n_buckets; ++i) empty = hash->buckets[i] == nullptr;
  EXPECT_ENGINE(r, empty);
  if (hash != nullptr) {
    hash->buckets[17] = hash;  // a user chains its own items: the next table starts empty anyway
    zq_hash_table_free(env, hash);
    zq_hash* again = zq_hash_create(env, 10000, __FILE__, __LINE__);
    EXPECT_ENGINE(r, again != nullptr && again->buckets[17] == nullptr);
    zq_hash_table_free(env, again);
  }
  void* block = mem_malloc_ex(env, 100000, __FILE__, __LINE__);
  EXPECT_ENGINE(r, block != nullptr);
  mem_free(env, block);
}

}  // namespace

const EngineCase kEngineCases[] = {
    {"RowsThroughBothCursors", rows_through_both_cursors},
    {"UpdatesDeletesAndARefusedInsert", updates_deletes_and_a_refused_insert},
    {"DictionaryAndVisibility", dictionary_and_visibility},
    {"SorterOrdersAndSpills", sorter_orders_and_spills},
    {"MemoryObjects", memory_objects},
};
const size_t kEngineCaseCount = sizeof kEngineCases / sizeof kEngineCases[0];

}  // namespace zqengine
