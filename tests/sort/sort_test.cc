// The host sorter against a model order written apart from it: every key
// kind and order, in memory and spilled to runs within small budgets, the
// memory bound, allocation faults, and calls the sorter must refuse.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "common/fixture.h"
#include "host/sort_pool.h"
#include "sort/tracking_mem.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();

// A test row: batch column 0 id (int64), 1 d (double), 2 i (int64).
struct Row {
  int64_t id;
  double d;
  int64_t i;
  bool d_null = false;
  bool i_null = false;
};

// A key as the test sees it; `foreign` sorts column 2 with the test's own
// compare function (by magnitude), which the sorter cannot map to a prefix.
struct Key {
  uint16_t col;
  char order;
  bool foreign = false;
};

int32_t cmp_magnitude(const zq_datum* a, const zq_datum* b) {
  const uint64_t x = a->i64 < 0 ? 0 - static_cast<uint64_t>(a->i64) : a->i64;
  const uint64_t y = b->i64 < 0 ? 0 - static_cast<uint64_t>(b->i64) : b->i64;
  return (x > y) - (x < y);
}

// The order the host promises: nulls first, -0 == +0, NaN after +inf.
int model_cmp(const Row& a, const Row& b, const Key& k) {
  const bool an = k.col == 1 ? !a.d_null : !a.i_null;
  const bool bn = k.col == 1 ? !b.d_null : !b.i_null;
  int c = 0;
  if (!an || !bn) {
    c = static_cast<int>(an) - static_cast<int>(bn);
  } else if (k.col == 1) {
    const bool x = std::isnan(a.d), y = std::isnan(b.d);
    c = x || y ? static_cast<int>(x) - static_cast<int>(y) : (a.d > b.d) - (a.d < b.d);
  } else if (k.foreign) {
    const zq_datum x{.i64 = a.i}, y{.i64 = b.i};
    c = cmp_magnitude(&x, &y);
  } else {
    c = (a.i > b.i) - (a.i < b.i);
  }
  return k.order == 'D' ? -c : c;
}

bool model_less(const Row& a, const Row& b, const std::vector<Key>& keys) {
  for (const Key& k : keys)
    if (int c = model_cmp(a, b, k); c != 0) return c < 0;
  return false;
}

int open_fds() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d) != nullptr) ++n;
    closedir(d);
  }
  return n;
}

// One sorter of the test layout, fed and read through real batches.
class Sorter {
 public:
  Sorter(zq_env* env, zq_session* sess, std::vector<Key> keys)
      : env_(env), mem_(env), keys_(std::move(keys)) {
    s_ = nsort_create(env, mem_.get(), 1, 0, 1000, zqsess_sort_pool(sess), 0);
    const uint16_t types[3] = {ZQ_TYPE_BIGINT, ZQ_TYPE_DOUBLE, ZQ_TYPE_BIGINT};
    batch_ = bdta3_create(env, mem_.get(), 3, types);
    for (uint16_t c = 0; batch_ != nullptr && c < 3; ++c)
      bdta3_col_data_create_low(env, mem_.get(), &batch_->cols[c], types[c], 1000);
  }
  ~Sorter() {
    if (s_ != nullptr) nsort_destory(env_, s_);
    if (batch_ != nullptr) bdta3_free2(env_, mem_.get(), batch_);
  }

  // Columns listed out of batch order, so the sorter's mapping is exercised.
  int32_t set_layout() {
    static const zq_sort_col cols[3] = {
        {2, ZQ_TYPE_BIGINT}, {0, ZQ_TYPE_BIGINT}, {1, ZQ_TYPE_DOUBLE}};
    std::vector<zq_sort_key> keys;
    for (const Key& k : keys_)
      keys.push_back(
          {k.col, k.order,
           k.foreign ? cmp_magnitude : sort2_simple_fun_search(env_, k.col == 1 ? 11 : 8)});
    const zq_sort_col_list cl{3, cols};
    const zq_sort_key_list kl{static_cast<uint16_t>(keys.size()), keys.data()};
    return nsort_set_bdta_info(env_, s_, &cl, 0, &kl, 1);
  }

  int32_t put(const std::vector<Row>& rows) {
    for (size_t at = 0; at < rows.size();) {
      bdta3_clear(env_, mem_.get(), batch_);
      for (; at < rows.size() && batch_->n_rows < 1000; ++at) put_row(rows[at]);
      if (int32_t rc = nsort_put_bdta(env_, s_, batch_); rc < 0) return rc;
    }
    return 0;
  }

  int32_t get(std::vector<Row>* out) {
    for (uint32_t end = 0; end == 0;) {
      if (int32_t rc = nsort_get_bdta(env_, mem_.get(), batch_, 1000, s_, &end); rc < 0) return rc;
      for (uint32_t r = 0; r < batch_->n_rows; ++r) out->push_back(row_at(batch_, r));
    }
    return 0;
  }

  int32_t run(const std::vector<Row>& rows, std::vector<Row>* out) {
    int32_t rc = put(rows);
    if (rc == 0) rc = nsort_sort_it(env_, s_);
    if (rc == 0) rc = get(out);
    return rc;
  }

  zq_nsort* get() const { return s_; }
  zq_bdta* batch() const { return batch_; }
  zqtest::TrackingMem& mem() { return mem_; }
  const std::vector<Key>& keys() const { return keys_; }

 private:
  void put_row(const Row& row) {
    const uint32_t r = batch_->n_rows++;
    zq_value v{};
    v.notnull = 1;
    v.u.i64 = row.id;
    bdta3_put_fld_data(env_, batch_, &v, mem_.get(), r, 0);
    v.notnull = !row.d_null;
    v.u.f64 = row.d;
    bdta3_put_fld_data(env_, batch_, &v, mem_.get(), r, 1);
    v.notnull = !row.i_null;
    v.u.i64 = row.i;
    bdta3_put_fld_data(env_, batch_, &v, mem_.get(), r, 2);
  }
  static Row row_at(const zq_bdta* b, uint32_t r) {
    return {b->cols[0].data[r].i64, b->cols[1].data[r].f64, b->cols[2].data[r].i64,
            b->cols[1].notnull[r] == 0, b->cols[2].notnull[r] == 0};
  }

  zq_env* env_;
  zqtest::TrackingMem mem_;
  std::vector<Key> keys_;
  zq_nsort* s_ = nullptr;
  zq_bdta* batch_ = nullptr;
};

// Sorted by the keys, and the same rows (ids are unique) with the same values.
void expect_sorted_permutation(std::vector<Row> in, const std::vector<Row>& out,
                               const std::vector<Key>& keys) {
  ASSERT_EQ(out.size(), in.size());
  for (size_t k = 1; k < out.size(); ++k)
    ASSERT_FALSE(model_less(out[k], out[k - 1], keys)) << "rows " << k - 1 << ", " << k;
  std::vector<Row> got = out;
  auto by_id = [](const Row& a, const Row& b) { return a.id < b.id; };
  std::sort(in.begin(), in.end(), by_id);
  std::sort(got.begin(), got.end(), by_id);
  for (size_t k = 0; k < in.size(); ++k) {
    ASSERT_EQ(got[k].id, in[k].id);
    ASSERT_EQ(got[k].d_null, in[k].d_null);
    ASSERT_EQ(got[k].i_null, in[k].i_null);
    if (!in[k].d_null) {
      ASSERT_EQ(std::memcmp(&got[k].d, &in[k].d, 8), 0) << "id " << in[k].id;
    }
    if (!in[k].i_null) {
      ASSERT_EQ(got[k].i, in[k].i) << "id " << in[k].id;
    }
  }
}

// Values with the awkward ones overrepresented: ±0, infinities, NaN, the
// int64 extremes, negatives and many duplicates.
std::vector<Row> make_rows(size_t n, uint32_t seed, int null_every = 0) {
  std::mt19937_64 rng(seed);
  const double ds[] = {-0.0, 0.0, kInf, -kInf, kNaN, -1.5, 1.5, -1e308, 1e-308, -4.9e-324};
  const int64_t is[] = {kMin64, kMax64, 0, -1, 1, kMin64 + 1, -42, 42};
  std::vector<Row> rows(n);
  for (size_t k = 0; k < n; ++k) {
    Row& r = rows[k];
    r.id = static_cast<int64_t>(k) + 1;
    r.d = rng() % 4 == 0 ? ds[rng() % 10]
                         : std::ldexp(static_cast<double>(rng() % 2001) - 1000, rng() % 20 - 10);
    r.i = rng() % 4 == 0 ? is[rng() % 8] : static_cast<int64_t>(rng() % 4001) - 2000;
    r.d_null = null_every != 0 && k % null_every == 3;
    r.i_null = null_every != 0 && k % null_every == 5;
  }
  return rows;
}

class SortTest : public zqtest::HostTest {
 protected:
  zq_sort_pool* pool() { return zqsess_sort_pool(sess_); }
};

TEST_F(SortTest, OrdersEveryKeyKindLikeTheModelInMemoryAndSpilled) {
  struct Case {
    const char* name;
    std::vector<Key> keys;
    size_t n;
    int null_every;
  };
  const Case cases[] = {
      {"double asc", {{1, 'A'}}, 6000, 0},
      {"double desc", {{1, 'D'}}, 6000, 0},
      {"int64 asc", {{2, 'A'}}, 6000, 0},
      {"int64 desc", {{2, 'D'}}, 6000, 0},
      {"int64 asc, double desc", {{2, 'A'}, {1, 'D'}}, 6000, 0},
      {"double asc with nulls", {{1, 'A'}}, 6000, 7},
      {"int64 desc with nulls", {{2, 'D'}}, 6000, 7},
      {"foreign compare", {{2, 'A', true}}, 6000, 0},
      {"no rows", {{1, 'A'}}, 0, 0},
      {"one row", {{1, 'A'}}, 1, 0},
      {"one full batch", {{1, 'A'}}, 1000, 0},
      {"a batch and one", {{2, 'D'}}, 1001, 0},
  };
  for (uint64_t budget : {uint64_t{64} << 20, uint64_t{ZQHOST_SORT_MIN_BUDGET}}) {
    zqsess_set_sort_mem(sess_, budget);
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.name) + ", budget " + std::to_string(budget));
      const std::vector<Row> rows =
          make_rows(c.n, static_cast<uint32_t>(c.n + budget), c.null_every);
      Sorter s(env_, sess_, c.keys);
      ASSERT_EQ(s.set_layout(), 0);
      std::vector<Row> out;
      ASSERT_EQ(s.run(rows, &out), 0);
      expect_sorted_permutation(rows, out, c.keys);
    }
  }
}

TEST_F(SortTest, SpillsRunsWithinTheBudgetAndMergesInPasses) {
  struct Case {
    uint64_t budget;
    size_t n;
    bool spills;
    bool passes;  // more runs than one merge can read within the budget
  };
  const Case cases[] = {
      {64u << 20, 200000, false, false},
      {1u << 20, 200000, true, false},
      {ZQHOST_SORT_MIN_BUDGET, 200000, true, true},
  };
  const std::vector<Key> keys{{1, 'A'}};
  for (const Case& c : cases) {
    SCOPED_TRACE("budget " + std::to_string(c.budget));
    zqsess_set_sort_mem(sess_, c.budget);
    *pool() = zq_sort_pool{};  // statistics from zero; no sorter is alive
    pool()->session = sess_;
    const uint64_t allocs = zqenv_live_allocs(env_);
    const int fds = open_fds();
    const std::vector<Row> rows = make_rows(c.n, 7);
    {
      Sorter s(env_, sess_, keys);
      ASSERT_EQ(s.set_layout(), 0);
      std::vector<Row> out;
      ASSERT_EQ(s.run(rows, &out), 0);
      expect_sorted_permutation(rows, out, keys);
    }
    EXPECT_LE(pool()->peak_bytes, c.budget);
    EXPECT_GT(pool()->peak_bytes, 0u);
    EXPECT_EQ(pool()->runs_written > 1, c.spills) << pool()->runs_written << " runs";
    EXPECT_EQ(pool()->merge_passes > 0, c.passes) << pool()->merge_passes << " passes";
    EXPECT_EQ(zqenv_live_allocs(env_), allocs);
    EXPECT_EQ(open_fds(), fds);
  }
}

// Keys whose bytes vary in one place only, or not at all, so the radix
// passes that are skipped and the ones that run both meet the model.
TEST_F(SortTest, OrdersKeysDifferingInAnyOneByteOrNone) {
  struct Case {
    const char* name;
    Key key;
    std::function<void(size_t, Row*)> make;
  };
  const size_t n = 6000;
  const Case cases[] = {
      {"all keys equal", {1, 'A'}, [](size_t, Row* r) { r->d = 3.25; }},
      {"low byte only", {2, 'A'}, [](size_t k, Row* r) { r->i = static_cast<int64_t>(k % 256); }},
      {"top byte only, both signs",
       {2, 'D'},
       [](size_t k, Row* r) { r->i = static_cast<int64_t>((k % 256) << 56); }},
      {"ties between -0 and +0",
       {1, 'A'},
       [](size_t k, Row* r) { r->d = k % 3 == 0 ? -0.0 : (k % 3 == 1 ? 0.0 : -1e-300); }},
      {"descending input",
       {1, 'A'},
       [](size_t k, Row* r) { r->d = static_cast<double>(n - k) * 1e10; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Row> rows(n);
    for (size_t k = 0; k < n; ++k) {
      rows[k] = Row{static_cast<int64_t>(k) + 1, 0.0, 0};
      c.make(k, &rows[k]);
    }
    Sorter s(env_, sess_, {c.key});
    ASSERT_EQ(s.set_layout(), 0);
    std::vector<Row> out;
    ASSERT_EQ(s.run(rows, &out), 0);
    expect_sorted_permutation(rows, out, s.keys());
  }
}

// Sorters of one session draw on one budget: while one holds most of it, a
// second spills where it alone would not, and together they never hold more
// than the budget and the second's first chunk.
TEST_F(SortTest, SortersOfOneSessionShareItsBudget) {
  const uint64_t budget = 4u << 20;
  zqsess_set_sort_mem(sess_, budget);
  *pool() = zq_sort_pool{};
  pool()->session = sess_;
  const uint64_t allocs = zqenv_live_allocs(env_);
  const std::vector<Key> keys{{1, 'A'}};
  const std::vector<Row> big = make_rows(80000, 21);    // most of the budget, in memory
  const std::vector<Row> small = make_rows(20000, 22);  // fits the budget alone
  {
    Sorter alone(env_, sess_, keys);
    ASSERT_EQ(alone.set_layout(), 0);
    std::vector<Row> out;
    ASSERT_EQ(alone.run(small, &out), 0);
    expect_sorted_permutation(small, out, keys);
  }
  EXPECT_EQ(pool()->runs_written, 0u) << "the small set fits the budget alone";
  {
    Sorter first(env_, sess_, keys);
    Sorter second(env_, sess_, keys);
    ASSERT_EQ(first.set_layout(), 0);
    ASSERT_EQ(second.set_layout(), 0);
    ASSERT_EQ(first.put(big), 0);
    ASSERT_EQ(nsort_sort_it(env_, first.get()), 0);
    EXPECT_EQ(pool()->runs_written, 0u) << "the big set fits the budget alone too";
    std::vector<Row> out;
    ASSERT_EQ(second.run(small, &out), 0);
    expect_sorted_permutation(small, out, keys);
    EXPECT_GT(pool()->runs_written, 1u) << "the second sorter had to spill";
    out.clear();
    ASSERT_EQ(first.get(&out), 0);
    expect_sorted_permutation(big, out, keys);
  }
  EXPECT_LE(pool()->peak_held, budget + 256 * 1024);
  EXPECT_EQ(pool()->held, 0u);
  EXPECT_EQ(pool()->committed, 0u);
  EXPECT_EQ(zqenv_live_allocs(env_), allocs);
}

// A cleared sorter keeps a few chunks for the next rows; they go with a new
// layout (rows of another width) and with the sorter.
TEST_F(SortTest, ChunksKeptByAClearServeTheNextRowsAndGoWithTheSorter) {
  zqsess_set_sort_mem(sess_, 64u << 20);
  const uint64_t allocs = zqenv_live_allocs(env_);
  {
    Sorter s(env_, sess_, {{2, 'D'}});
    ASSERT_EQ(s.set_layout(), 0);
    for (uint32_t round = 0; round < 3; ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      const std::vector<Row> rows = make_rows(5000 + round * 3000, 30 + round);
      std::vector<Row> out;
      ASSERT_EQ(s.run(rows, &out), 0);
      expect_sorted_permutation(rows, out, s.keys());
      nsort_clear(env_, s.get());
      EXPECT_GT(zqenv_live_allocs(env_), allocs + 1) << "chunks kept after the clear";
    }
    // Two columns instead of three: the kept chunks were cut for wider rows.
    const zq_sort_col cols[2] = {{1, ZQ_TYPE_DOUBLE}, {0, ZQ_TYPE_BIGINT}};
    const zq_sort_key key{1, 'A', sort2_simple_fun_search(env_, ZQ_TYPE_DOUBLE)};
    const zq_sort_col_list cl{2, cols};
    const zq_sort_key_list kl{1, &key};
    ASSERT_EQ(nsort_set_bdta_info(env_, s.get(), &cl, 0, &kl, 1), 0);
    const std::vector<Row> rows = make_rows(7000, 40);
    std::vector<Row> out;
    ASSERT_EQ(s.put(rows), 0);
    ASSERT_EQ(nsort_sort_it(env_, s.get()), 0);
    ASSERT_EQ(s.get(&out), 0);
    ASSERT_EQ(out.size(), rows.size());
    for (size_t k = 1; k < out.size(); ++k)
      ASSERT_FALSE(model_less(out[k], out[k - 1], {{1, 'A'}})) << "rows " << k - 1 << ", " << k;
  }
  EXPECT_EQ(zqenv_live_allocs(env_), allocs);
}

TEST_F(SortTest, TakesNoWorkingMemoryBeforeTheFirstRow) {
  const uint64_t allocs = zqenv_live_allocs(env_);
  zqtest::TrackingMem mem(env_);
  zq_nsort* s = nsort_create(env_, mem.get(), 1, 0, 1000, pool(), 0);
  ASSERT_NE(s, nullptr);
  const zq_sort_col cols[1] = {{0, ZQ_TYPE_DOUBLE}};
  const zq_sort_key key{0, 'A', sort2_simple_fun_search(env_, ZQ_TYPE_DOUBLE)};
  const zq_sort_col_list cl{1, cols};
  const zq_sort_key_list kl{1, &key};
  ASSERT_EQ(nsort_set_bdta_info(env_, s, &cl, 0, &kl, 1), 0);
  EXPECT_EQ(mem.live(), 1u);
  EXPECT_EQ(zqenv_live_allocs(env_), allocs + 1);
  // A caller may give an unused sorter back with its memory object alone.
  mem.get()->free(env_, mem.get()->heap, s);
  EXPECT_EQ(zqenv_live_allocs(env_), allocs);
}

TEST_F(SortTest, AllocationFaultsGiveNoRoomThenClearingRecovers) {
  zqsess_set_sort_mem(sess_, ZQHOST_SORT_MIN_BUDGET);
  const std::vector<Key> keys{{2, 'A'}};
  const std::vector<Row> rows = make_rows(30000, 11);
  const uint64_t allocs = zqenv_live_allocs(env_);
  const int fds = open_fds();
  uint64_t failures = 0;
  for (uint64_t nth = 1;; ++nth) {
    SCOPED_TRACE("failing allocation " + std::to_string(nth));
    Sorter s(env_, sess_, keys);
    ASSERT_EQ(s.set_layout(), 0);
    zqfault_fail_alloc_nth(env_, nth);
    std::vector<Row> out;
    const int32_t rc = s.run(rows, &out);
    zqfault_fail_alloc_nth(env_, 0);
    if (rc == 0) {
      expect_sorted_permutation(rows, out, keys);
      break;
    }
    ++failures;
    ASSERT_EQ(rc, ZQHOST_SORT_NO_ROOM);
    EXPECT_EQ(nsort_put_bdta(env_, s.get(), s.batch()), ZQHOST_SORT_BAD_STATE);
    EXPECT_EQ(nsort_sort_it(env_, s.get()), ZQHOST_SORT_BAD_STATE);
    nsort_clear(env_, s.get());
    out.clear();
    ASSERT_EQ(s.run(rows, &out), 0);
    expect_sorted_permutation(rows, out, keys);
  }
  EXPECT_GT(failures, 10u);  // chunks, run sorts and merges all allocate
  EXPECT_EQ(zqenv_live_allocs(env_), allocs);
  EXPECT_EQ(open_fds(), fds);
}

TEST_F(SortTest, RefusesBadLayoutsBatchesAndCallsOutOfOrder) {
  const zq_cmp_fn dbl = sort2_simple_fun_search(env_, ZQ_TYPE_DOUBLE);
  const zq_sort_col two[2] = {{0, ZQ_TYPE_BIGINT}, {1, ZQ_TYPE_DOUBLE}};
  const zq_sort_col dup[2] = {{1, ZQ_TYPE_BIGINT}, {1, ZQ_TYPE_DOUBLE}};
  const zq_sort_key keys[] = {{5, 'A', dbl}, {1, 'X', dbl}, {1, 'A', nullptr}, {1, 'A', dbl}};
  const zq_sort_col_list lists[] = {{2, two}, {2, two}, {2, two}, {2, dup}};
  Sorter s(env_, sess_, {{1, 'A'}});
  for (size_t i = 0; i < std::size(keys); ++i) {
    const zq_sort_key_list kl{1, &keys[i]};
    EXPECT_EQ(nsort_set_bdta_info(env_, s.get(), &lists[i], 0, &kl, 1), ZQHOST_SORT_BAD_LAYOUT)
        << "layout " << i;
  }
  EXPECT_EQ(nsort_sort_it(env_, s.get()), ZQHOST_SORT_BAD_STATE) << "no layout yet";
  ASSERT_EQ(s.set_layout(), 0);
  uint32_t end = 0;
  EXPECT_EQ(nsort_get_bdta(env_, s.mem().get(), s.batch(), 1000, s.get(), &end),
            ZQHOST_SORT_BAD_STATE);
  s.batch()->cols[1].type = ZQ_TYPE_BIGINT;  // column 1 no longer fits the layout
  s.batch()->n_rows = 1;
  EXPECT_EQ(nsort_put_bdta(env_, s.get(), s.batch()), ZQHOST_SORT_BAD_LAYOUT);
  s.batch()->cols[1].type = ZQ_TYPE_DOUBLE;
  const std::vector<Row> rows = make_rows(50, 3);
  ASSERT_EQ(s.put(rows), 0);
  EXPECT_EQ(s.set_layout(), ZQHOST_SORT_BAD_STATE);
  ASSERT_EQ(nsort_sort_it(env_, s.get()), 0);
  EXPECT_EQ(nsort_put_bdta(env_, s.get(), s.batch()), ZQHOST_SORT_BAD_STATE);
  // Cleared, the sorter keeps its layout and sorts anew.
  nsort_clear(env_, s.get());
  std::vector<Row> out;
  ASSERT_EQ(s.run(rows, &out), 0);
  expect_sorted_permutation(rows, out, s.keys());
}

// Runs go to TMPDIR; a sort that has to spill where no file can be made
// fails with no room, while one that fits in memory never needs a file.
TEST_F(SortTest, SpillsIntoTmpdir) {
  const char* old = std::getenv("TMPDIR");
  const std::string saved = old != nullptr ? old : "";
  char dir[] = "/tmp/zqsort-test-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::vector<Row> rows = make_rows(20000, 9);
  struct Case {
    std::string tmpdir;
    uint64_t budget;
    int32_t rc;
  };
  const Case cases[] = {
      {dir, ZQHOST_SORT_MIN_BUDGET, 0},
      {std::string(dir) + "/missing", ZQHOST_SORT_MIN_BUDGET, ZQHOST_SORT_NO_ROOM},
      {std::string(dir) + "/missing", 64u << 20, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tmpdir + ", budget " + std::to_string(c.budget));
    setenv("TMPDIR", c.tmpdir.c_str(), 1);
    zqsess_set_sort_mem(sess_, c.budget);
    Sorter s(env_, sess_, {{1, 'A'}});
    ASSERT_EQ(s.set_layout(), 0);
    std::vector<Row> out;
    EXPECT_EQ(s.run(rows, &out), c.rc);
    if (c.rc == 0) expect_sorted_permutation(rows, out, s.keys());
  }
  if (old != nullptr) {
    setenv("TMPDIR", saved.c_str(), 1);
  } else {
    unsetenv("TMPDIR");
  }
  EXPECT_EQ(rmdir(dir), 0) << "run files must not outlive their sorter";
}

}  // namespace
