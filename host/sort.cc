// The host sorter: fixed-width rows in, rows ordered by their keys out.
//
// Call order: nsort_create -> nsort_set_bdta_info -> nsort_put_bdta (any
// number of batches) -> nsort_sort_it -> nsort_get_bdta until *end ->
// nsort_clear (back to putting, layout kept) ... -> nsort_destory.
//
// A row is packed as its column datums followed by their not-null flags,
// padded to 8 bytes. Rows are kept in chunks of working memory allocated as
// they fill, up to the budget (the session's sort memory, fixed when the
// sorter is made), which all sorters of one sort pool share. Sorting orders
// an array of (prefix, row) entries whose prefix is the first key mapped to
// an unsigned integer of the same order, so the usual sorter (one key of a
// built-in type) compares integers only, and sorts them by radix.
//
// When the next chunk would pass the budget, the rows so far are sorted and
// appended to a temporary file as one run: a u64 row count, then the rows.
// nsort_sort_it writes what is left as the last run, frees the chunks, and
// merges runs into a new file, as many at a time as the budget has room for
// read buffers, until one merge of all remaining runs can feed nsort_get_bdta.
//
// Working memory comes from mem_malloc_ex with the caller's env, so
// allocation accounting and fault injection see it; only the sorter object
// comes from the caller's memory object, which may give it back with its free
// routine before any row was put. Rows of equal keys come out in any order.
#include "zqhost/sort.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "host/host.h"
#include "host/sort_pool.h"

namespace {

constexpr int32_t kNoRoom = ZQHOST_SORT_NO_ROOM;
constexpr int32_t kBadLayout = ZQHOST_SORT_BAD_LAYOUT;
constexpr int32_t kBadState = ZQHOST_SORT_BAD_STATE;
constexpr uint16_t kMaxCols = 64;
constexpr uint16_t kMaxKeys = 8;
constexpr uint64_t kMaxChunkBytes = 256 * 1024;
constexpr uint64_t kMinReadBytes = 4096;
constexpr uint64_t kMaxReadBytes = 256 * 1024;
constexpr int kIovBatch = 256;
constexpr uint64_t kSignBit = 1ull << 63;
constexpr uint64_t kPrefetchRows = 16;  // how far ahead nsort_get_bdta fetches rows

// How the first key maps to an order-preserving unsigned prefix.
enum class Norm : uint8_t { kNone, kDouble, kInt64 };

struct KeyDesc {
  uint16_t slot;  // the key column's position in a packed row
  bool desc;      // order 'D'
  Norm norm;      // kNone: the compare function is foreign, prefixes are 0
  zq_cmp_fn cmp;  // the caller's compare function
};

struct Entry {
  uint64_t prefix;     // the first key, order-preserving
  const uint8_t* row;  // the packed row, in a chunk
};

// One run being merged.
struct Reader {
  uint64_t pos;     // file offset of the next row not yet in buf
  uint64_t left;    // rows of the run not yet read into buf
  uint8_t* buf;     // part of the merge's one buffer block
  uint32_t n;       // rows in buf
  uint32_t cur;     // head row of buf
  uint64_t prefix;  // prefix of the head row
};

// A merge of runs: the readers, a heap of reader indices (smallest head
// first) and the readers' buffers, all in one block of working memory.
struct Merge {
  uint8_t* block = nullptr;
  uint64_t bytes = 0;
  Reader* readers = nullptr;
  uint32_t* heap = nullptr;
  uint32_t heap_n = 0;
  uint32_t buf_rows = 0;  // rows each reader's buffer holds
};

// kFailed: a put or sort failed part-way; only clear or destroy make sense.
enum class State : uint8_t { kNoLayout, kPutting, kSorted, kFailed };

}  // namespace

struct zq_nsort {
  zq_memobj* mem;      // where this object came from
  zq_sort_pool* pool;  // statistics; may be null
  uint64_t budget;     // bytes of working memory this sorter may hold
  State state;
  bool key_null;    // a null was put into the first key column
  uint16_t n_cols;  // columns of a row
  uint16_t n_keys;
  uint16_t col_no[kMaxCols];  // batch column of each row column
  uint16_t col_type[kMaxCols];
  KeyDesc keys[kMaxKeys];
  uint32_t width;  // bytes of a packed row

  uint64_t used;       // working memory held now; its peak is kept by the pool
  uint64_t committed;  // what this sorter counts against the pool's shared budget

  uint8_t** chunks;     // table of max_chunks chunk pointers; null before the first put
  uint32_t max_chunks;  // chunks the budget has room for, entries included
  uint32_t n_chunks;    // chunks allocated (some may be kept empty across a clear)
  uint32_t chunk_rows;  // rows per chunk
  uint64_t n_mem;       // rows in the chunks

  Entry* entries;  // sorted in-memory rows
  uint64_t n_entries;
  uint64_t next;  // next entry nsort_get_bdta hands out

  int fd;           // temporary file of runs, -1 before the first spill
  uint64_t n_runs;  // runs in fd, back to back
  Merge merge;      // the final merge nsort_get_bdta reads from, when there are runs
};

namespace {

// ---- working memory, charged to the sorter's budget accounting ----

void* work_alloc(zq_env* env, zq_nsort* s, uint64_t bytes) {
  void* p = mem_malloc_ex(env, bytes, __FILE__, __LINE__);
  if (p == nullptr) return nullptr;
  s->used += bytes;
  if (zq_sort_pool* pool = s->pool) {
    pool->peak_bytes = std::max(pool->peak_bytes, s->used);
    pool->held += bytes;
    pool->peak_held = std::max(pool->peak_held, pool->held);
  }
  return p;
}

template <class T>
void work_free(zq_env* env, zq_nsort* s, T*& p, uint64_t bytes) {
  if (p == nullptr) return;
  mem_free(env, p);
  s->used -= bytes;
  if (s->pool != nullptr) s->pool->held -= bytes;
  p = nullptr;
}

// ---- the shared budget ----
//
// Every sorter of a pool (all those of one session, such as the up to four a
// bulk build keeps) draws on one budget: a sorter commits memory before it
// takes it, and commits more only while the pool's total stays within the
// budget. Below its first chunk a sorter always may, so that it can make
// progress however full the pool is; it then spills small runs.

void commit(zq_nsort* s, uint64_t bytes) {
  s->committed += bytes;
  if (s->pool != nullptr) s->pool->committed += bytes;
}

void uncommit(zq_nsort* s, uint64_t bytes) {
  s->committed -= bytes;
  if (s->pool != nullptr) s->pool->committed -= bytes;
}

// What the other sorters of the pool have committed.
uint64_t others_committed(const zq_nsort* s) {
  return s->pool != nullptr ? s->pool->committed - s->committed : 0;
}

// Bytes this sorter may commit in all, given what the others hold.
uint64_t share_of(const zq_nsort* s) {
  const uint64_t others = others_committed(s);
  const uint64_t left = others < s->budget ? s->budget - others : 0;
  return std::max<uint64_t>(left, std::min<uint64_t>(s->budget, ZQHOST_SORT_MIN_BUDGET));
}

// ---- keys ----

int32_t sign_of(int32_t c) {
  return (c > 0) - (c < 0);
}

// One total order for doubles: -0 equals +0, every NaN equals every NaN and
// follows +inf. std::sort needs a strict weak order, which plain < is not
// once NaN is about.
int32_t cmp_double(const zq_datum* a, const zq_datum* b) {
  const double x = a->f64;
  const double y = b->f64;
  const bool nx = std::isnan(x);
  const bool ny = std::isnan(y);
  if (nx || ny) return static_cast<int32_t>(nx) - static_cast<int32_t>(ny);
  return (x > y) - (x < y);
}

int32_t cmp_int64(const zq_datum* a, const zq_datum* b) {
  return (a->i64 > b->i64) - (a->i64 < b->i64);
}

Norm norm_of(zq_cmp_fn cmp) {
  if (cmp == cmp_double) return Norm::kDouble;
  if (cmp == cmp_int64) return Norm::kInt64;
  return Norm::kNone;
}

uint64_t double_bits(double x) {
  if (x == 0.0) x = 0.0;  // -0 and +0 compare equal, so they share a prefix
  uint64_t u = 0x7ff8000000000000ull;
  if (!std::isnan(x)) std::memcpy(&u, &x, sizeof u);
  return (u & kSignBit) != 0 ? ~u : u | kSignBit;
}

const zq_datum* datum_at(const uint8_t* row, uint16_t slot) {
  return reinterpret_cast<const zq_datum*>(row) + slot;
}

uint8_t flag_at(const zq_nsort* s, const uint8_t* row, uint16_t slot) {
  return row[sizeof(zq_datum) * s->n_cols + slot];
}

// Nulls order before every value; a null prefix may tie with the smallest
// value, which is why a null in the key turns the full compare on.
uint64_t prefix_of(const zq_nsort* s, const uint8_t* row) {
  const KeyDesc& k = s->keys[0];
  uint64_t u = 0;
  if (flag_at(s, row, k.slot) != 0) {
    const zq_datum* d = datum_at(row, k.slot);
    if (k.norm == Norm::kDouble) u = double_bits(d->f64);
    if (k.norm == Norm::kInt64) u = static_cast<uint64_t>(d->i64) ^ kSignBit;
  }
  return k.desc ? ~u : u;
}

// The prefix alone orders two rows unless it can tie for unequal rows.
bool prefix_is_exact(const zq_nsort* s) {
  return s->n_keys == 1 && s->keys[0].norm != Norm::kNone && !s->key_null;
}

int32_t compare_rows(const zq_nsort* s, const uint8_t* a, const uint8_t* b) {
  for (uint16_t i = 0; i < s->n_keys; ++i) {
    const KeyDesc& k = s->keys[i];
    const uint8_t fa = flag_at(s, a, k.slot);
    const uint8_t fb = flag_at(s, b, k.slot);
    int32_t c = fa != 0 && fb != 0 ? sign_of(k.cmp(datum_at(a, k.slot), datum_at(b, k.slot)))
                                   : static_cast<int32_t>(fa != 0) - static_cast<int32_t>(fb != 0);
    if (k.desc) c = -c;
    if (c != 0) return c;
  }
  return 0;
}

bool row_less(const zq_nsort* s, uint64_t pa, const uint8_t* a, uint64_t pb, const uint8_t* b,
              bool exact) {
  if (pa != pb) return pa < pb;
  return !exact && compare_rows(s, a, b) < 0;
}

// ---- batches <-> packed rows ----

bool batch_fits(const zq_nsort* s, const zq_bdta* bdta, uint32_t rows) {
  if (bdta == nullptr) return false;
  for (uint16_t i = 0; i < s->n_cols; ++i) {
    if (s->col_no[i] >= bdta->n_cols) return false;
    const zq_bdta_col& c = bdta->cols[s->col_no[i]];
    if (c.data == nullptr || c.cap < rows || c.type != s->col_type[i]) return false;
  }
  return true;
}

uint32_t batch_room(const zq_nsort* s, const zq_bdta* bdta) {
  uint32_t room = UINT32_MAX;
  for (uint16_t i = 0; i < s->n_cols; ++i) room = std::min(room, bdta->cols[s->col_no[i]].cap);
  return room;
}

// The batch's cells of each row column, looked up once per batch rather than
// once per row.
struct ColPtrs {
  zq_datum* data[kMaxCols];
  uint8_t* flags[kMaxCols];
};

void col_ptrs(const zq_nsort* s, const zq_bdta* bdta, ColPtrs* p) {
  for (uint16_t i = 0; i < s->n_cols; ++i) {
    const zq_bdta_col& c = bdta->cols[s->col_no[i]];
    p->data[i] = c.data;
    p->flags[i] = c.notnull;
  }
}

// The row copies below are specialised for the column counts of the bulk
// build's rows (one to three axes: 4, 6 and 8 columns); N = 0 is any count.
template <uint16_t N>
uint16_t cols_of(const zq_nsort* s) {
  return N != 0 ? N : s->n_cols;
}

template <uint16_t N>
void pack_row(const zq_nsort* s, const ColPtrs& p, uint32_t r, uint8_t* row) {
  const uint16_t n = cols_of<N>(s);
  uint8_t* flags = row + sizeof(zq_datum) * n;
  auto* data = reinterpret_cast<zq_datum*>(row);
  for (uint16_t i = 0; i < n; ++i) {
    data[i] = p.data[i][r];
    flags[i] = p.flags[i][r];
  }
}

template <uint16_t N>
void unpack_row(const zq_nsort* s, const uint8_t* row, const ColPtrs& p, uint32_t r) {
  const uint16_t n = cols_of<N>(s);
  const uint8_t* flags = row + sizeof(zq_datum) * n;
  const auto* data = reinterpret_cast<const zq_datum*>(row);
  for (uint16_t i = 0; i < n; ++i) {
    p.data[i][r] = data[i];
    p.flags[i][r] = flags[i];
  }
}

// Batch rows [r, r + count) into consecutive packed rows from `row` on.
template <uint16_t N>
void pack_rows(const zq_nsort* s, const ColPtrs& p, uint32_t r, uint32_t count, uint8_t* row) {
  for (uint32_t k = 0; k < count; ++k, row += s->width) pack_row<N>(s, p, r + k, row);
}

// The rows of `count` sorted entries into batch rows from `r` on. The rows
// lie scattered over the chunks, so each is fetched a few entries ahead
// (`left` entries remain from `e` on) and the copy does not wait on memory.
template <uint16_t N>
void unpack_entries(const zq_nsort* s, const Entry* e, uint64_t count, uint64_t left,
                    const ColPtrs& p, uint32_t r) {
  for (uint64_t i = 0; i < count; ++i) {
    if (i + kPrefetchRows < left) {
      const uint8_t* ahead = e[i + kPrefetchRows].row;
      __builtin_prefetch(ahead);
      __builtin_prefetch(ahead + s->width - 1);
    }
    unpack_row<N>(s, e[i].row, p, r + static_cast<uint32_t>(i));
  }
}

// Calls fn(std::integral_constant<uint16_t, N>) with N the sorter's column
// count when a specialisation exists, else 0.
template <class Fn>
void by_cols(const zq_nsort* s, Fn&& fn) {
  switch (s->n_cols) {
    case 4:
      return fn(std::integral_constant<uint16_t, 4>{});
    case 6:
      return fn(std::integral_constant<uint16_t, 6>{});
    case 8:
      return fn(std::integral_constant<uint16_t, 8>{});
    default:
      return fn(std::integral_constant<uint16_t, 0>{});
  }
}

// ---- temporary files ----

int open_temp() {
  const char* dir = std::getenv("TMPDIR");
  char path[4096];
  if (dir == nullptr || *dir == '\0' ||
      std::snprintf(path, sizeof path, "%s/zqsort-XXXXXX", dir) >= static_cast<int>(sizeof path))
    std::snprintf(path, sizeof path, "/tmp/zqsort-XXXXXX");
  const int fd = mkostemp(path, O_CLOEXEC);
  if (fd >= 0) unlink(path);  // gone with the descriptor, even after a crash
  return fd;
}

bool write_all(int fd, iovec* v, int n) {
  while (n > 0) {
    const ssize_t w = writev(fd, v, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    size_t done = static_cast<size_t>(w);
    while (n > 0 && done >= v->iov_len) {
      done -= v->iov_len;
      ++v;
      --n;
    }
    if (n > 0) {
      v->iov_base = static_cast<char*>(v->iov_base) + done;
      v->iov_len -= done;
    }
  }
  return true;
}

bool read_all(int fd, void* buf, size_t len, uint64_t off) {
  auto* p = static_cast<char*>(buf);
  while (len > 0) {
    const ssize_t r = pread(fd, p, len, static_cast<off_t>(off));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    off += static_cast<uint64_t>(r);
    len -= static_cast<size_t>(r);
  }
  return true;
}

// Rows gathered by address and written in one system call per batch, so a
// run is written straight from the chunks or read buffers, with no copy.
class RowWriter {
 public:
  explicit RowWriter(int fd) : fd_(fd) {}
  void add(const void* p, size_t len) {
    v_[n_++] = {const_cast<void*>(p), len};
    if (n_ == kIovBatch) flush();
  }
  void flush() {
    if (n_ > 0 && ok_) ok_ = write_all(fd_, v_, n_);
    n_ = 0;
  }
  bool ok() const { return ok_; }

 private:
  int fd_;
  iovec v_[kIovBatch];
  int n_ = 0;
  bool ok_ = true;
};

// ---- rows in memory ----

// Chunk geometry for the budget: every chunk is charged with its table slot
// and the sort entries of its rows, so sorting never passes the budget.
void plan_chunks(zq_nsort* s) {
  const uint64_t chunk_bytes = std::min(kMaxChunkBytes, s->budget / 16);
  s->chunk_rows = static_cast<uint32_t>(std::max<uint64_t>(1, chunk_bytes / s->width));
  const uint64_t per_chunk =
      uint64_t{s->chunk_rows} * (s->width + sizeof(Entry)) + sizeof(uint8_t*);
  s->max_chunks = static_cast<uint32_t>(std::max<uint64_t>(1, s->budget / per_chunk));
}

uint64_t chunk_bytes(const zq_nsort* s) {
  return uint64_t{s->chunk_rows} * s->width;
}

// A chunk's charge: its rows, their sort entries and its table slot.
uint64_t chunk_charge(const zq_nsort* s) {
  return uint64_t{s->chunk_rows} * (s->width + sizeof(Entry)) + sizeof(uint8_t*);
}

uint64_t table_bytes(const zq_nsort* s) {
  return uint64_t{s->max_chunks} * sizeof(uint8_t*);
}

// Frees chunks from the last down to `keep` (the table goes with the last).
void free_chunks(zq_env* env, zq_nsort* s, uint32_t keep = 0) {
  if (s->chunks == nullptr) return;
  while (s->n_chunks > keep) {
    work_free(env, s, s->chunks[--s->n_chunks], chunk_bytes(s));
    uncommit(s, chunk_charge(s));
  }
  s->n_mem = 0;
  if (s->n_chunks > 0) return;
  work_free(env, s, s->chunks, table_bytes(s));
}

void free_entries(zq_env* env, zq_nsort* s) {
  work_free(env, s, s->entries, s->n_entries * sizeof(Entry));
  s->n_entries = 0;
  s->next = 0;
}

uint8_t* mem_row(const zq_nsort* s, uint64_t i) {
  return s->chunks[i / s->chunk_rows] + (i % s->chunk_rows) * s->width;
}

// Least-significant-digit radix sort of entries by prefix, a byte at a time,
// from `a` through `tmp`; bytes every entry shares are skipped (the high
// bytes of a level's keys often are). Returns where the result lies.
Entry* radix_sort(Entry* a, Entry* tmp, uint64_t n) {
  constexpr int kBytes = 8;
  uint32_t count[kBytes][256] = {};
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t p = a[i].prefix;
    for (int b = 0; b < kBytes; ++b) ++count[b][(p >> (8 * b)) & 0xff];
  }
  Entry* src = a;
  Entry* dst = tmp;
  for (int b = 0; b < kBytes; ++b) {
    const int shift = 8 * b;
    uint32_t* at = count[b];
    if (at[(src[0].prefix >> shift) & 0xff] == n) continue;
    uint32_t sum = 0;
    for (int v = 0; v < 256; ++v) {
      const uint32_t c = at[v];
      at[v] = sum;
      sum += c;
    }
    for (uint64_t i = 0; i < n; ++i) dst[at[(src[i].prefix >> shift) & 0xff]++] = src[i];
    std::swap(src, dst);
  }
  return src;
}

// Below this many rows a comparison sort is as quick as the radix passes.
constexpr uint64_t kRadixMinRows = 2048;

// Sorts by the prefix: by radix when the pool has room for a second
// entry array (and the counts fit), else in place.
int32_t sort_exact(zq_env* env, zq_nsort* s) {
  Entry* first = s->entries;
  Entry* last = s->entries + s->n_entries;
  const uint64_t n = s->n_entries;
  const uint64_t tmp_bytes = n * sizeof(Entry);
  const bool radix = n >= kRadixMinRows && n <= UINT32_MAX &&
                     others_committed(s) + s->committed + tmp_bytes <= s->budget;
  if (!radix) {
    std::sort(first, last, [](const Entry& a, const Entry& b) { return a.prefix < b.prefix; });
    return 0;
  }
  auto* tmp = static_cast<Entry*>(work_alloc(env, s, tmp_bytes));
  if (tmp == nullptr) return kNoRoom;
  commit(s, tmp_bytes);
  Entry* sorted = radix_sort(first, tmp, n);
  if (sorted == tmp) std::swap(s->entries, tmp);
  work_free(env, s, tmp, tmp_bytes);
  uncommit(s, tmp_bytes);
  return 0;
}

// Sorts the rows in the chunks into `entries`.
int32_t sort_memory(zq_env* env, zq_nsort* s) {
  free_entries(env, s);
  if (s->n_mem == 0) return 0;
  s->entries = static_cast<Entry*>(work_alloc(env, s, s->n_mem * sizeof(Entry)));
  if (s->entries == nullptr) return kNoRoom;
  s->n_entries = s->n_mem;
  for (uint64_t i = 0; i < s->n_mem; ++i) {
    const uint8_t* row = mem_row(s, i);
    s->entries[i] = {prefix_of(s, row), row};
  }
  Entry* first = s->entries;
  Entry* last = s->entries + s->n_entries;
  if (int32_t rc = sort_exact(env, s); rc < 0 || prefix_is_exact(s)) return rc;
  // Ordered by prefix, which the full compare puts first: only rows whose
  // prefixes tie need the rest of the key.
  first = s->entries;
  last = s->entries + s->n_entries;
  auto less = [s](const Entry& a, const Entry& b) {
    return row_less(s, a.prefix, a.row, b.prefix, b.row, false);
  };
  for (Entry* run = first; run != last;) {
    Entry* end = run + 1;
    while (end != last && end->prefix == run->prefix) ++end;
    if (end - run > 1) std::sort(run, end, less);
    run = end;
  }
  return 0;
}

// Sorts the rows in memory and appends them to the run file as one run.
int32_t spill_run(zq_env* env, zq_nsort* s) {
  if (s->fd < 0 && (s->fd = open_temp()) < 0) return kNoRoom;
  int32_t rc = sort_memory(env, s);
  if (rc < 0) return rc;
  uint64_t count = s->n_entries;
  RowWriter w(s->fd);
  w.add(&count, sizeof count);
  for (uint64_t i = 0; i < s->n_entries; ++i) w.add(s->entries[i].row, s->width);
  w.flush();
  free_entries(env, s);
  // A full disk is, to the caller, room that could not be had.
  if (!w.ok()) return kNoRoom;
  s->n_mem = 0;
  ++s->n_runs;
  if (s->pool != nullptr) ++s->pool->runs_written;
  return 0;
}

int32_t add_chunk(zq_env* env, zq_nsort* s) {
  if (s->chunks == nullptr) {
    s->chunks = static_cast<uint8_t**>(work_alloc(env, s, table_bytes(s)));
    if (s->chunks == nullptr) return kNoRoom;
  }
  uint8_t* chunk = static_cast<uint8_t*>(work_alloc(env, s, chunk_bytes(s)));
  if (chunk == nullptr) return kNoRoom;
  s->chunks[s->n_chunks++] = chunk;
  commit(s, chunk_charge(s));
  return 0;
}

// Whether one more chunk fits: within the sorter's own plan, and within the
// pool's shared budget unless it is the sorter's first.
bool chunk_fits(const zq_nsort* s) {
  if (s->n_chunks >= s->max_chunks) return false;
  if (s->n_chunks == 0) return true;
  return others_committed(s) + s->committed + chunk_charge(s) <= s->budget;
}

// Room for the rows to come: a free slot in the chunks, a new chunk, or, with
// the budget used up, the chunks emptied into a run. Returns the rows the
// current chunk has room for from the next slot on (at least 1).
int32_t make_room(zq_env* env, zq_nsort* s, uint32_t* rows) {
  const uint64_t cap = uint64_t{s->n_chunks} * s->chunk_rows;
  if (s->n_mem == cap) {
    const int32_t rc = chunk_fits(s) ? add_chunk(env, s) : spill_run(env, s);
    if (rc < 0) return rc;
  }
  *rows = s->chunk_rows - static_cast<uint32_t>(s->n_mem % s->chunk_rows);
  return 0;
}

// ---- merging runs ----

uint64_t reader_cost(const zq_nsort* s, uint64_t buf_rows) {
  return sizeof(Reader) + sizeof(uint32_t) + buf_rows * s->width;
}

// Most runs one merge can read at once within the budget.
uint64_t fan_in(const zq_nsort* s) {
  const uint64_t min_rows = std::max<uint64_t>(1, kMinReadBytes / s->width);
  return std::max<uint64_t>(2, share_of(s) / reader_cost(s, min_rows));
}

bool reader_fill(const zq_nsort* s, Reader& r, uint32_t buf_rows) {
  const uint64_t rows = std::min<uint64_t>(r.left, buf_rows);
  r.n = static_cast<uint32_t>(rows);
  r.cur = 0;
  if (rows == 0) return true;
  if (!read_all(s->fd, r.buf, rows * s->width, r.pos)) return false;
  r.pos += rows * s->width;
  r.left -= rows;
  r.prefix = prefix_of(s, r.buf);
  return true;
}

const uint8_t* head_row(const zq_nsort* s, const Reader& r) {
  return r.buf + uint64_t{r.cur} * s->width;
}

// std's heap keeps its greatest element first, so it is ordered by "after".
struct HeadAfter {
  const zq_nsort* s;
  const Reader* rd;
  bool exact;
  bool operator()(uint32_t a, uint32_t b) const {
    return row_less(s, rd[b].prefix, head_row(s, rd[b]), rd[a].prefix, head_row(s, rd[a]), exact);
  }
};

// Block layout: readers, then buffers (both 8-byte multiples), then the heap.
int32_t merge_alloc(zq_env* env, zq_nsort* s, uint64_t count, Merge* m) {
  const uint64_t share = share_of(s) / count;
  const uint64_t fixed = reader_cost(s, 0);
  const uint64_t rows = share > fixed ? (share - fixed) / s->width : 1;
  const uint64_t most = std::max<uint64_t>(1, kMaxReadBytes / s->width);
  m->buf_rows = static_cast<uint32_t>(std::clamp<uint64_t>(rows, 1, most));
  m->bytes = count * reader_cost(s, m->buf_rows);
  m->block = static_cast<uint8_t*>(work_alloc(env, s, m->bytes));
  if (m->block == nullptr) return kNoRoom;
  commit(s, m->bytes);
  m->readers = reinterpret_cast<Reader*>(m->block);
  uint8_t* bufs = m->block + count * sizeof(Reader);
  m->heap = reinterpret_cast<uint32_t*>(bufs + count * m->buf_rows * s->width);
  for (uint64_t i = 0; i < count; ++i) m->readers[i].buf = bufs + i * m->buf_rows * s->width;
  return 0;
}

// Opens `count` runs from file offset *off on and heaps their first rows.
int32_t merge_open(zq_env* env, zq_nsort* s, uint64_t count, uint64_t* off, Merge* m) {
  const int32_t rc = merge_alloc(env, s, count, m);
  if (rc < 0) return rc;
  const HeadAfter after{s, m->readers, prefix_is_exact(s)};
  for (uint64_t i = 0; i < count; ++i) {
    Reader& r = m->readers[i];
    if (!read_all(s->fd, &r.left, sizeof r.left, *off)) return kNoRoom;
    r.pos = *off + sizeof r.left;
    *off = r.pos + r.left * s->width;
    if (!reader_fill(s, r, m->buf_rows)) return kNoRoom;
    if (r.n == 0) continue;
    m->heap[m->heap_n++] = static_cast<uint32_t>(i);
    std::push_heap(m->heap, m->heap + m->heap_n, after);
  }
  return 0;
}

void merge_close(zq_env* env, zq_nsort* s, Merge* m) {
  if (m->block != nullptr) uncommit(s, m->bytes);
  work_free(env, s, m->block, m->bytes);
  *m = Merge{};
}

const uint8_t* merge_head(const zq_nsort* s, const Merge& m) {
  return head_row(s, m.readers[m.heap[0]]);
}

// Advances past the head row. A reader's used-up buffer is refilled; rows of
// the buffers waiting in `w` are written out first.
int32_t merge_pop(const zq_nsort* s, Merge* m, RowWriter* w) {
  const HeadAfter after{s, m->readers, prefix_is_exact(s)};
  std::pop_heap(m->heap, m->heap + m->heap_n, after);
  Reader& r = m->readers[m->heap[m->heap_n - 1]];
  if (++r.cur == r.n) {
    if (w != nullptr) w->flush();
    if (!reader_fill(s, r, m->buf_rows)) return kNoRoom;
    if (r.n == 0) {
      --m->heap_n;
      return 0;
    }
  } else {
    r.prefix = prefix_of(s, head_row(s, r));
  }
  std::push_heap(m->heap, m->heap + m->heap_n, after);
  return 0;
}

// Merges `count` runs from *off of the run file into one run of `out`.
int32_t merge_group(zq_env* env, zq_nsort* s, uint64_t count, uint64_t* off, int out) {
  Merge m;
  int32_t rc = merge_open(env, s, count, off, &m);
  RowWriter w(out);
  uint64_t total = 0;  // written by reference: must live until the last flush
  for (uint64_t i = 0; rc == 0 && i < count; ++i) total += m.readers[i].n + m.readers[i].left;
  if (rc == 0) w.add(&total, sizeof total);
  while (rc == 0 && w.ok() && m.heap_n > 0) {
    w.add(merge_head(s, m), s->width);
    rc = merge_pop(s, &m, &w);
  }
  w.flush();
  merge_close(env, s, &m);
  return rc == 0 && !w.ok() ? kNoRoom : rc;
}

// One pass: every `fan` consecutive runs become one run of a new file.
int32_t merge_pass(zq_env* env, zq_nsort* s, uint64_t fan) {
  const int out = open_temp();
  if (out < 0) return kNoRoom;
  uint64_t off = 0;
  uint64_t out_runs = 0;
  int32_t rc = 0;
  for (uint64_t left = s->n_runs; rc == 0 && left > 0; ++out_runs) {
    const uint64_t count = std::min(fan, left);
    rc = merge_group(env, s, count, &off, out);
    left -= count;
  }
  if (rc < 0) {
    close(out);
    return rc;
  }
  close(s->fd);
  s->fd = out;
  s->n_runs = out_runs;
  if (s->pool != nullptr) ++s->pool->merge_passes;
  return 0;
}

// Sorting with runs on disk: the rest goes out as the last run, the chunks
// are freed for read buffers, and passes run until one merge takes all runs.
int32_t sort_runs(zq_env* env, zq_nsort* s) {
  int32_t rc = s->n_mem > 0 ? spill_run(env, s) : 0;
  if (rc < 0) return rc;
  free_chunks(env, s);
  const uint64_t fan = fan_in(s);
  while (rc == 0 && s->n_runs > fan) rc = merge_pass(env, s, fan);
  if (rc < 0) return rc;
  uint64_t off = 0;
  return merge_open(env, s, s->n_runs, &off, &s->merge);
}

// ---- whole-sorter state ----

// Chunks a clear keeps for the rows to come: a sorter refilled slice after
// slice would otherwise hand its chunks back to malloc and fault fresh pages
// in for every slice.
constexpr uint32_t kKeptChunks = 4;

// Ends the sorter's rows; `keep` chunks stay allocated, empty.
void release_work(zq_env* env, zq_nsort* s, uint32_t keep = 0) {
  free_entries(env, s);
  free_chunks(env, s, keep);
  merge_close(env, s, &s->merge);
  if (s->fd >= 0) close(s->fd);
  s->fd = -1;
  s->n_runs = 0;
  s->key_null = false;
}

bool has_rows(const zq_nsort* s) {
  return s->n_mem > 0 || s->n_runs > 0 || s->state == State::kSorted || s->state == State::kFailed;
}

int32_t find_slot(const zq_nsort* s, uint16_t col_no) {
  for (uint16_t i = 0; i < s->n_cols; ++i)
    if (s->col_no[i] == col_no) return i;
  return -1;
}

int32_t set_columns(zq_nsort* s, const zq_sort_col_list* cols) {
  if (cols->n == 0 || cols->n > kMaxCols || cols->cols == nullptr) return kBadLayout;
  s->n_cols = 0;
  for (uint16_t i = 0; i < cols->n; ++i) {
    if (find_slot(s, cols->cols[i].col_no) >= 0) return kBadLayout;
    s->col_no[i] = cols->cols[i].col_no;
    s->col_type[i] = cols->cols[i].type;
    s->n_cols = i + 1;
  }
  const uint32_t raw = s->n_cols * (sizeof(zq_datum) + 1);
  s->width = (raw + 7) / 8 * 8;
  return 0;
}

int32_t set_keys(zq_nsort* s, const zq_sort_key_list* keys) {
  if (keys->n == 0 || keys->n > kMaxKeys || keys->keys == nullptr) return kBadLayout;
  for (uint16_t i = 0; i < keys->n; ++i) {
    const zq_sort_key& k = keys->keys[i];
    const int32_t slot = find_slot(s, k.col_no);
    if (slot < 0 || k.cmp == nullptr || (k.order != 'A' && k.order != 'D')) return kBadLayout;
    s->keys[i] = {static_cast<uint16_t>(slot), k.order == 'D', norm_of(k.cmp), k.cmp};
  }
  s->n_keys = keys->n;
  return 0;
}

// A failed put or sort leaves the sorter unusable until it is cleared.
int32_t fail_state(zq_nsort* s, int32_t rc) {
  if (rc < 0) s->state = State::kFailed;
  return rc;
}

}  // namespace

extern "C" zq_cmp_fn sort2_simple_fun_search(zq_env* /*env*/, uint16_t type) {
  if (type == ZQ_TYPE_DOUBLE) return cmp_double;
  if (type == ZQ_TYPE_BIGINT) return cmp_int64;
  return nullptr;
}

extern "C" zq_nsort* nsort_create(zq_env* env, zq_memobj* mem, uint32_t /*one*/, uint32_t /*zero*/,
                                  uint32_t /*batch_rows*/, zq_sort_pool* pool, uint32_t /*zero2*/) {
  if (mem == nullptr || mem->alloc == nullptr) return nullptr;
  void* block = mem->alloc(env, mem->heap, sizeof(zq_nsort), __FILE__, __LINE__);
  if (block == nullptr) return nullptr;
  auto* s = new (block) zq_nsort{};
  s->mem = mem;
  s->pool = pool;
  s->budget = zqhost_sort_pool_budget(pool);
  s->fd = -1;
  return s;
}

extern "C" int32_t nsort_set_bdta_info(zq_env* env, zq_nsort* s, const zq_sort_col_list* cols,
                                       uint32_t /*zero*/, const zq_sort_key_list* keys,
                                       uint32_t /*one*/) {
  if (s == nullptr || cols == nullptr || keys == nullptr) return kBadLayout;
  if (has_rows(s)) return kBadState;
  release_work(env, s);  // chunks kept by a clear have the old row width
  s->state = State::kNoLayout;
  int32_t rc = set_columns(s, cols);
  if (rc == 0) rc = set_keys(s, keys);
  if (rc < 0) return rc;
  plan_chunks(s);
  s->state = State::kPutting;
  return 0;
}

extern "C" int32_t nsort_put_bdta(zq_env* env, zq_nsort* s, zq_bdta* bdta) {
  if (s == nullptr || s->state != State::kPutting) return kBadState;
  if (!batch_fits(s, bdta, bdta == nullptr ? 0 : bdta->n_rows)) return kBadLayout;
  ColPtrs p;
  col_ptrs(s, bdta, &p);
  const uint16_t key_slot = s->keys[0].slot;
  for (uint32_t r = 0; r < bdta->n_rows;) {
    uint32_t room = 0;
    const int32_t rc = make_room(env, s, &room);
    if (rc < 0) return fail_state(s, rc);
    const uint32_t take = std::min(room, bdta->n_rows - r);
    uint8_t* row = mem_row(s, s->n_mem);
    by_cols(s, [&](auto n) { pack_rows<n()>(s, p, r, take, row); });
    for (uint32_t i = 0; i < take; ++i) s->key_null |= p.flags[key_slot][r + i] == 0;
    s->n_mem += take;
    r += take;
  }
  return 0;
}

extern "C" int32_t nsort_sort_it(zq_env* env, zq_nsort* s) {
  if (s == nullptr || s->state == State::kNoLayout || s->state == State::kFailed) return kBadState;
  if (s->state == State::kSorted) return 0;
  s->state = State::kSorted;
  return fail_state(s, s->n_runs > 0 ? sort_runs(env, s) : sort_memory(env, s));
}

extern "C" int32_t nsort_get_bdta(zq_env* /*env*/, zq_memobj* /*mem*/, zq_bdta* bdta,
                                  uint32_t max_rows, zq_nsort* s, uint32_t* end) {
  if (s == nullptr || s->state != State::kSorted) return kBadState;
  if (!batch_fits(s, bdta, 0)) return kBadLayout;
  const uint32_t room = std::min(max_rows, batch_room(s, bdta));
  ColPtrs p;
  col_ptrs(s, bdta, &p);
  Merge& m = s->merge;
  const bool merging = m.block != nullptr;
  uint32_t r = 0;
  for (; r < room && merging && m.heap_n > 0; ++r) {
    unpack_row<0>(s, merge_head(s, m), p, r);
    const int32_t rc = merge_pop(s, &m, nullptr);
    if (rc < 0) return fail_state(s, rc);
  }
  if (!merging) {
    const uint64_t left = s->n_entries - s->next;
    const uint64_t take = std::min<uint64_t>(room, left);
    const Entry* e = s->entries + s->next;
    by_cols(s, [&](auto n) { unpack_entries<n()>(s, e, take, left, p, r); });
    s->next += take;
    r += static_cast<uint32_t>(take);
  }
  bdta->n_rows = r;
  if (end != nullptr) *end = merging ? m.heap_n == 0 : s->next == s->n_entries;
  return 0;
}

extern "C" void nsort_clear(zq_env* env, zq_nsort* s) {
  if (s == nullptr) return;
  release_work(env, s, kKeptChunks);
  s->state = s->n_cols > 0 ? State::kPutting : State::kNoLayout;
}

extern "C" void nsort_destory(zq_env* env, zq_nsort* s) {
  if (s == nullptr) return;
  release_work(env, s);
  zq_memobj* mem = s->mem;
  if (mem != nullptr && mem->free != nullptr) mem->free(env, mem->heap, s);
}
