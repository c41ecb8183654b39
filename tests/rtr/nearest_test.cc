// The nearest-neighbour cursor against brute force: for every data set (1 to
// 3 axes, bulk-built and insert-built, exact duplicates, the real sets) and
// queries inside and far outside the data, the first k entries must be the
// model's, rowid for rowid and distance for distance, with no node pinned
// between calls. Then the limits: an empty index, the distance limit, the
// queue cap, and the memory a record gives back.
#include "zqrtree/nearest.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "rtrbld/bld_util.h"

namespace {

using bldtest::Entry;
using treetest::hi;
using treetest::lo;

struct Near {
  int64_t id;
  double d2;
  bool operator==(const Near&) const = default;
};

void PrintTo(const Near& n, std::ostream* os) {
  *os << n.id << "@" << n.d2;
}

// Squared distance from its definition: per axis, how far apart the two
// intervals are (0 when they meet), squared, summed over the axes in order.
double model_d2(const rtr_rect& e, const rtr_rect& q, int dims) {
  double sum = 0;
  for (int k = 0; k < dims; ++k) {
    const double gap = lo(e, k) > hi(q, k)   ? lo(e, k) - hi(q, k)
                       : lo(q, k) > hi(e, k) ? lo(q, k) - hi(e, k)
                                             : 0.0;
    sum += gap * gap;
  }
  return sum;
}

std::vector<Near> brute(const std::vector<Entry>& es, const rtr_rect& q, int dims, size_t k,
                        double limit = RNN_NO_LIMIT) {
  std::vector<Near> all;
  for (const Entry& e : es)
    if (const double d = model_d2(e.box, q, dims); d <= limit) all.push_back({e.id, d});
  k = std::min(k, all.size());
  std::partial_sort(all.begin(), all.begin() + k, all.end(), [](const Near& a, const Near& b) {
    return a.d2 != b.d2 ? a.d2 < b.d2 : a.id < b.id;
  });
  all.resize(k);
  return all;
}

// Points on a small integer grid: many exact duplicates and many equal
// distances, under rowids shuffled against the order of insertion.
std::vector<Entry> grid_duplicates(size_t n, int dims, uint32_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<Entry> out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i] = {static_cast<int64_t>(i) * 7 + 3, rtr_rect{0, 0, 0, 0, 0, 0}};
    for (int k = 0; k < dims; ++k) {
      const double v = static_cast<double>(rng() % 8);
      bldtest::set_axis(out[i].box, k, v, v);
    }
  }
  std::shuffle(out.begin(), out.end(), rng);
  return out;
}

struct Case {
  const char* name;
  int dims;
  std::function<std::vector<Entry>()> make;
  bool bulk = true;
  const char* file = nullptr;  // a real data set: `make` reads it
  bool tiny_cache = false;     // one node of cache: every step reads the table
};

void PrintTo(const Case& c, std::ostream* os) {
  *os << c.name;
}

std::vector<Entry> real(const char* file, int dims) {
  return bldtest::read_csv_gz(zqtest::shared_data(file), dims);
}

const Case kCases[] = {
    {"uniform1d", 1, [] { return bldtest::uniform(3000, 1, 1); }},
    {"uniform2d", 2, [] { return bldtest::uniform(12000, 2, 2); }},
    {"uniform3d_inserted", 3, [] { return bldtest::uniform(4000, 3, 3); }, false},
    {"clustered2d_inserted", 2, [] { return bldtest::clustered(5000, 2, 4); }, false},
    {"clustered3d", 3, [] { return bldtest::clustered(12000, 3, 5); }},
    {"duplicates1d_inserted", 1, [] { return grid_duplicates(700, 1, 6); }, false},
    {.name = "duplicates2d_tiny_cache",
     .dims = 2,
     .make = [] { return grid_duplicates(2000, 2, 7); },
     .tiny_cache = true},
    {"tiger2d", 2, [] { return real("tiger-zcta2010-mbr.csv.gz", 2); }, true,
     "tiger-zcta2010-mbr.csv.gz"},
    {"turin2d", 2, [] { return real("osm-turin-roads-mbr.csv.gz", 2); }, true,
     "osm-turin-roads-mbr.csv.gz"},
    {"moscow2d", 2, [] { return real("osm-moscow-road-segments.csv.gz", 2); }, true,
     "osm-moscow-road-segments.csv.gz"},
    {"quakes2d", 2, [] { return real("greek-earthquakes-points.csv.gz", 2); }, true,
     "greek-earthquakes-points.csv.gz"},
    {"autzen3d", 3, [] { return real("autzen-lidar-points-3d.csv.gz", 3); }, true,
     "autzen-lidar-points-3d.csv.gz"},
};

class NearestTest : public bldtest::BldTest {
 protected:
  void load(const std::vector<Entry>& es, int dims, bool bulk) {
    dims_ = static_cast<uint16_t>(dims);
    if (bulk) {
      ASSERT_EQ(build(es, dims_, 0.7), 0) << stack_text();
    } else {
      create_root(dims_);
      open(dims_);
      for (const Entry& e : es) ASSERT_EQ(insert(e.id, e.box), 0) << stack_text();
      commit();
    }
    rtr_ = open_handle(dims_, 1);
    rnn_init(&nn_, rtr_, 0);
  }

  void TearDown() override {
    rnn_close(env_, &nn_);
    BldTest::TearDown();
  }

  // Between calls the cursor holds no node of the cache.
  uint32_t pins() const {
    uint32_t n = 0;
    for (const rtr_node* p = rtr_->lru_first; p != nullptr; p = p->lru_next) n += p->ref_count;
    return n;
  }

  // The first k entries the cursor delivers; a failure goes to `rc_out`,
  // without it it fails the test.
  std::vector<Near> nearest(const rtr_rect& q, size_t k, double limit = RNN_NO_LIMIT,
                            int32_t* rc_out = nullptr) {
    std::vector<Near> got;
    int32_t rc = rnn_open(env_, &nn_, &q, limit);
    while (rc == 0 && !rnn_is_end(&nn_) && got.size() < k) {
      if ((got.size() & (got.size() - 1)) == 0) {
        EXPECT_EQ(pins(), 0u);
      }
      rtr_cell c;
      double d2 = -1;
      EXPECT_EQ(rnn_column(env_, &nn_, &c, &d2), 0);
      EXPECT_EQ(rnn_distance(&nn_), std::sqrt(d2));
      EXPECT_TRUE(rtr_rect_equal(&c.rect, &boxes_[c.id], 3)) << "rowid " << c.id;
      got.push_back({c.id, d2});
      rc = rnn_next(env_, &nn_);
    }
    if (rc_out != nullptr) {
      *rc_out = rc;
    } else {
      EXPECT_EQ(rc, 0) << stack_text();
    }
    return got;
  }

  std::vector<Entry> prepare(const Case& c) {
    if (c.tiny_cache) zqsess_set_rtree_buf_mb(sess_, 4096, 0);
    std::vector<Entry> es = c.make();
    for (const Entry& e : es) boxes_[e.id] = e.box;
    load(es, c.dims, c.bulk);
    return es;
  }

  rnn nn_{};
  std::map<int64_t, rtr_rect> boxes_;
};

class NearestCases : public NearestTest, public ::testing::WithParamInterface<Case> {};

TEST_P(NearestCases, MatchesBruteForce) {
  const Case& c = GetParam();
  if (c.file != nullptr) ZQ_REQUIRE_SHARED_DATA(c.file);
  const std::vector<Entry> es = prepare(c);
  ASSERT_FALSE(es.empty());
  // The data's extent, for queries inside it and far outside it.
  rtr_rect ext = es[0].box;
  for (const Entry& e : es) rtr_union_rect(3, &ext, &e.box, &ext);
  std::mt19937_64 rng(11);
  std::vector<rtr_rect> queries;
  for (int i = 0; i < 4; ++i) {
    rtr_rect q = es[rng() % es.size()].box;  // on an entry: distance 0 at least once
    if (i % 2 == 1) {
      for (int k = 0; k < c.dims; ++k) {  // a point, then a box, anywhere in the extent
        const double v = lo(ext, k) + (hi(ext, k) - lo(ext, k)) * (rng() % 1000) / 1000.0;
        bldtest::set_axis(q, k, v, i == 3 ? v + (hi(ext, k) - lo(ext, k)) / 50 : v);
      }
    }
    queries.push_back(q);
  }
  rtr_rect far{0, 0, 0, 0, 0, 0};
  for (int k = 0; k < c.dims; ++k) {
    const double v = hi(ext, k) + 1000 * (hi(ext, k) - lo(ext, k) + 1);
    bldtest::set_axis(far, k, v, v);
  }
  queries.push_back(far);
  std::vector<size_t> ks = {1, 10, 100, 10000};
  if (es.size() < 40000) ks.push_back(es.size() + 7);  // more than the index holds
  for (const rtr_rect& q : queries) {
    for (size_t k : ks) {
      SCOPED_TRACE("k " + std::to_string(k));
      ASSERT_EQ(nearest(q, k), brute(es, q, c.dims, k));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Nearest, NearestCases, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(NearestTest, EmptyIndexEndsAtOnce) {
  load({}, 2, false);
  const rtr_rect q = treetest::box2(1, 1, 1, 1);
  ASSERT_EQ(rnn_open(env_, &nn_, &q, RNN_NO_LIMIT), 0);
  EXPECT_TRUE(rnn_is_end(&nn_));
  rtr_cell cell;
  EXPECT_EQ(rnn_column(env_, &nn_, &cell, nullptr), RTR_ERR_NOT_FOUND);
  EXPECT_EQ(errors(), (std::vector<zqtest::Pushed>{{RTR_ERR_NOT_FOUND, "rnn_column"}}));
  EXPECT_EQ(rnn_next(env_, &nn_), 0);
  EXPECT_TRUE(rnn_is_end(&nn_));
}

// The limit keeps exactly the entries within it, one at the limit included,
// and the cursor ends by itself after the last of them.
TEST_F(NearestTest, DistanceLimitEndsTheSearch) {
  const std::vector<Entry> es =
      prepare({"uniform", 2, [] { return bldtest::uniform(5000, 2, 8); }});
  const rtr_rect q = treetest::box2(400, 600, 400, 600);
  const double limit = brute(es, q, 2, 50).back().d2;
  const std::vector<Near> want = brute(es, q, 2, es.size(), limit);
  ASSERT_GE(want.size(), 50u);
  EXPECT_EQ(nearest(q, es.size(), limit), want);
  EXPECT_TRUE(rnn_is_end(&nn_));
}

// A queue too small for the query fails with no room and says the cap was
// the cause, after delivering only correct entries; a bigger cap succeeds
// on the same record, and closing gives back every block.
TEST_F(NearestTest, QueueCapIsAnErrorNotATruncation) {
  const uint64_t live = zqenv_live_allocs(env_);
  const std::vector<Entry> es =
      prepare({"uniform", 2, [] { return bldtest::uniform(20000, 2, 9); }});
  const rtr_rect q = treetest::box2(500, 500, 500, 500);
  for (uint32_t cap : {1u, 60u, 400u}) {
    SCOPED_TRACE("cap " + std::to_string(cap));
    zqenv_err_clear(env_);
    nn_.max_queue = cap;
    int32_t rc = 0;
    const std::vector<Near> got = nearest(q, es.size(), RNN_NO_LIMIT, &rc);
    EXPECT_EQ(rc, RTR_ERR_NO_ROOM);
    EXPECT_EQ(nn_.cap_hit, 1u);
    ASSERT_EQ(errors().size(), 1u);
    EXPECT_EQ(errors()[0].func, got.empty() ? "rnn_open" : "rnn_next");
    EXPECT_EQ(got, brute(es, q, 2, got.size()));
  }
  nn_.max_queue = RNN_DEFAULT_MAX_QUEUE;
  EXPECT_EQ(nearest(q, es.size()), brute(es, q, 2, es.size()));
  EXPECT_EQ(nn_.cap_hit, 0u);
  rnn_close(env_, &nn_);
  rtr_mem_destroy(env_, rtr_);
  rtr_ = nullptr;
  EXPECT_EQ(zqenv_live_allocs(env_), live);
}

}  // namespace
