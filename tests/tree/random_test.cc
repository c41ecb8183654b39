// Randomized sequences of insert, delete and search in 1, 2 and 3
// dimensions over several data shapes, each step compared with a
// brute-force model, and the node table checked after every batch (one
// transaction and one handle per batch: flushed and committed, or discarded
// and rolled back). Some runs use a cache too
// small to hold anything unpinned, so nodes are written and read back in the
// middle of every operation; one runs on a database file that is closed and
// reopened along the way. The engine side's node-row guard reads along: no
// row of a sound tree, met in the middle of any operation, may be refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "driver/node_guard.h"
#include "tests/tree/tree_util.h"

namespace {

using treetest::Model;
using treetest::TreeTest;

enum class Shape { Points, Boxes, Lines, Large, Duplicates, Clustered, Mixed };

const char* const kShapeNames[] = {"Points",     "Boxes",     "Lines", "Large",
                                   "Duplicates", "Clustered", "Mixed"};

// Operations per round, scaled down under ASan.
int scaled(int ops) {
#if defined(__SANITIZE_ADDRESS__)
  ops /= 4;
#endif
  return ops;
}

// A soak run (ZQ_SOAK=1) repeats each sequence with 20 seeds: more shapes of
// history at the same tree sizes, so the brute-force model stays cheap.
int rounds() {
  const char* soak = std::getenv("ZQ_SOAK");
  return soak != nullptr && std::string(soak) == "1" ? 20 : 1;
}

// Entries and search boxes of one shape; coordinates in [0, 1000), often on
// a coarse grid so that equal coordinates (ties in every sort) are common.
class Gen {
 public:
  Gen(int dims, Shape shape, uint64_t seed) : dims_(dims), shape_(shape), rng_(seed) {
    for (int i = 0; i < 25; ++i) pool_.push_back(random_box(0, 40));
    for (int i = 0; i < 6; ++i)
      for (int k = 0; k < 3; ++k) centres_[i][k] = uniform(100, 900);
  }

  rtr_rect entry() {
    Shape s = shape_;
    if (s == Shape::Mixed) s = static_cast<Shape>(pick(6));
    switch (s) {
      case Shape::Points: {
        double p[3];
        for (double& v : p) v = std::floor(uniform(0, 1000));
        return treetest::make_box(dims_, p, p);
      }
      case Shape::Boxes:
        return random_box(0, 30);
      case Shape::Lines: {
        double l[3], h[3];
        int along = pick(dims_);
        for (int k = 0; k < 3; ++k) l[k] = h[k] = std::floor(uniform(0, 1000));
        h[along] = l[along] + std::floor(uniform(0, 200));
        return treetest::make_box(dims_, l, h);
      }
      case Shape::Large:
        return random_box(100, 600);
      case Shape::Duplicates:
        return pool_[pick(static_cast<int>(pool_.size()))];
      case Shape::Clustered:
      case Shape::Mixed:
        break;
    }
    const double* c = centres_[pick(6)];
    std::normal_distribution<double> spread(0.0, 8.0);
    double l[3], h[3];
    for (int k = 0; k < 3; ++k) {
      l[k] = std::round(2 * (c[k] + spread(rng_))) / 2;
      h[k] = l[k] + std::round(4 * uniform(0, 1)) / 2;
    }
    return treetest::make_box(dims_, l, h);
  }

  // A search box: an entry's own box, a random box, a point or everything.
  rtr_rect query(const Model& m, const std::vector<int64_t>& live) {
    int kind = pick(10);
    if (kind < 4 && !live.empty()) return m.rows.at(live[pick(static_cast<int>(live.size()))]);
    if (kind < 7) return random_box(0, 250);
    if (kind < 9) return random_box(0, 0);
    double l[3] = {-1, -1, -1}, h[3] = {2000, 2000, 2000};
    return treetest::make_box(dims_, l, h);
  }

  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
  double uniform(double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng_); }

 private:
  rtr_rect random_box(double min_extent, double max_extent) {
    double l[3], h[3];
    for (int k = 0; k < 3; ++k) {
      l[k] = std::round(uniform(0, 1000) * 4) / 4;
      h[k] = l[k] + std::round(uniform(min_extent, max_extent) * 4) / 4;
    }
    return treetest::make_box(dims_, l, h);
  }

  int dims_;
  Shape shape_;
  std::mt19937_64 rng_;
  std::vector<rtr_rect> pool_;
  double centres_[6][3];
};

struct RandomCase {
  int dims;
  Shape shape;
  int ops;          // operations before the final drain
  bool tiny_cache;  // no room for unpinned nodes: constant write-back and re-reads
  bool file;        // a database file, closed and reopened along the way
  uint64_t seed;
};

std::string case_name(const testing::TestParamInfo<RandomCase>& info) {
  const RandomCase& c = info.param;
  return std::string(kShapeNames[static_cast<int>(c.shape)]) + std::to_string(c.dims) + "D" +
         (c.tiny_cache ? "TinyCache" : "") + (c.file ? "File" : "");
}

class RandomTreeTest : public TreeTest, public testing::WithParamInterface<RandomCase> {
 protected:
  void SetUp() override {
    TreeTest::SetUp();
    const RandomCase& c = GetParam();
    if (c.file) {
      path_ = testing::TempDir() + "zq_tree_random_" + std::to_string(::getpid()) + ".db";
      remove_file();
      zqsess_close(sess_);
      sess_ = nullptr;
      open_session(path_.c_str());
    }
    // Per-handle 0 MB gives a budget of 0 nodes: every new buffer evicts.
    zqsess_set_rtree_buf_mb(sess_, 4096, c.tiny_cache ? 0 : 64);
    ASSERT_EQ(zq::guard_node_table(sess_, "main", "t", c.dims), 0);
    create_root(static_cast<uint16_t>(c.dims));
    model_.dims = c.dims;
    filter_axes_ = c.dims == 1 ? 1 : 2;
  }

  void TearDown() override {
    TreeTest::TearDown();
    if (!path_.empty()) remove_file();
  }

  void remove_file() {
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path_ + suffix).c_str());
  }

  void reopen() {
    reopen_session(path_.c_str());
    zqsess_set_rtree_buf_mb(sess_, 4096, GetParam().tiny_cache ? 0 : 64);
    ASSERT_EQ(zq::guard_node_table(sess_, "main", "t", GetParam().dims), 0);
  }

  // Hits of (box, EQUAL) on the filter axes agree with the model: the entry
  // just inserted is there, the one just deleted is gone.
  void verify_box(const rtr_rect& r) {
    auto got = ids_of(search(r, RTR_OP_EQUAL));
    EXPECT_EQ(got, model_.matching(r, RTR_OP_EQUAL, filter_axes_));
  }

  void do_insert() {
    rtr_rect r = gen_->entry();
    int64_t rowid = next_rowid_++;
    ASSERT_EQ(insert(rowid, r), 0) << stack_text();
    expect_only_overflow_pushes();
    model_.rows[rowid] = r;
    live_.push_back(rowid);
    verify_box(r);
  }

  void do_delete() {
    if (live_.empty()) return do_insert();
    size_t at = static_cast<size_t>(gen_->pick(static_cast<int>(live_.size())));
    int64_t rowid = live_[at];
    rtr_rect r = model_.rows.at(rowid);
    int roll = gen_->pick(20);
    if (roll == 0) return do_bad_delete(rowid, r);
    rtr_rect asked = r;
    // The search compares two axes: a third-axis difference still deletes.
    if (GetParam().dims == 3 && roll < 4) asked.max2 += 7.5;
    ASSERT_EQ(rtr_delete_by_rowid(env_, rtr_, rowid, &asked), 0) << stack_text();
    expect_only_overflow_pushes();
    model_.rows.erase(rowid);
    live_[at] = live_.back();
    live_.pop_back();
    verify_box(r);
  }

  // A box off on one of the compared axes finds nothing and changes nothing.
  void do_bad_delete(int64_t rowid, const rtr_rect& r) {
    rtr_rect asked = r;
    if (filter_axes_ == 2 && gen_->pick(2) == 1) {
      asked.min1 -= 0.125;
    } else {
      asked.max0 += 0.125;
    }
    EXPECT_EQ(rtr_delete_by_rowid(env_, rtr_, rowid, &asked), RTR_ERR_NOT_FOUND);
    EXPECT_EQ(errors(), (std::vector<zqtest::Pushed>{{RTR_ERR_NOT_FOUND, "rtr_find_leaf_node"},
                                                     {RTR_ERR_NOT_FOUND, "rtr_delete_by_rowid"}}));
    verify_box(r);
  }

  void do_search() {
    rtr_rect q = gen_->query(model_, live_);
    uint32_t op = treetest::kOps[gen_->pick(static_cast<int>(std::size(treetest::kOps)))];
    std::vector<rtr_cell> hits = search(q, op);
    ASSERT_EQ(ids_of(hits), model_.matching(q, op, filter_axes_)) << "operator " << op;
    std::vector<int64_t> rechecked;
    for (const rtr_cell& c : hits) {
      const rtr_rect& want = model_.rows.at(c.id);
      EXPECT_TRUE(treetest::m_equal(c.rect, want, GetParam().dims)) << "rowid " << c.id;
      // The engine side rechecks each hit on every axis with the same operator.
      if (treetest::m_match(c.rect, q, op, GetParam().dims)) rechecked.push_back(c.id);
    }
    std::sort(rechecked.begin(), rechecked.end());
    EXPECT_EQ(rechecked, model_.matching(q, op, GetParam().dims));
  }

  // Grow, churn, shrink: inserts dominate at first, deletes at the end.
  void step(int done, int total) {
    double f = static_cast<double>(done) / total;
    int insert_pct = f < 0.55 ? 80 : (f < 0.75 ? 40 : 15);
    int roll = gen_->pick(100);
    if (roll < insert_pct) {
      do_insert();
    } else if (roll < 85) {
      do_delete();
    } else {
      do_search();
    }
  }

  // Kept: flushed and committed. Undone (one batch in ten): the handle is
  // discarded and the user transaction rolled back, so the table and the
  // model both return to where the batch began.
  void finish_batch(bool undo, const Model& saved, const std::vector<int64_t>& saved_live) {
    if (undo) {
      discard();
      ASSERT_EQ(zqsess_rollback(sess_), 0);
      model_ = saved;
      live_ = saved_live;
      return;
    }
    commit();
    ASSERT_EQ(zqsess_commit(sess_), 0);
  }

  void end_batch(int batch) {
    zqcheck::TreeStats stats;
    zqcheck::CheckResult res = check(&stats);
    ASSERT_TRUE(res.ok) << "batch " << batch << ", node " << res.node_id << ": " << res.message;
    ASSERT_EQ(stats.entries, model_.rows.size());
    max_height_ = std::max(max_height_, stats.height);
    EXPECT_EQ(zqenv_live_allocs(env_), allocs_before_) << "a handle left memory behind";
    if (GetParam().file && batch % 7 == 6) reopen();
    if (batch % 8 == 7) {
      open(static_cast<uint16_t>(GetParam().dims));
      res = zqcheck::check_search(env_, rtr_, "main", "t");
      EXPECT_TRUE(res.ok) << "node " << res.node_id << ": " << res.message;
      discard();
    }
  }

  // One user operation of many steps: one transaction, one handle.
  void run_batch(int batch, int* done, int total, bool drain) {
    allocs_before_ = zqenv_live_allocs(env_);
    const Model saved = model_;
    const std::vector<int64_t> saved_live = live_;
    ASSERT_EQ(zqsess_begin(sess_), 0);
    open(static_cast<uint16_t>(GetParam().dims));
    int size = 1 + gen_->pick(250);
    for (int i = 0; i < size && (drain ? !live_.empty() : *done < total); ++i, ++*done) {
      if (drain) {
        do_delete();
      } else {
        step(*done, total);
      }
      zqenv_err_clear(env_);
      if (HasFatalFailure()) return;
    }
    finish_batch(!drain && gen_->pick(10) == 0, saved, saved_live);
    if (!HasFatalFailure()) end_batch(batch);
  }

  std::unique_ptr<Gen> gen_;
  Model model_;
  std::vector<int64_t> live_;
  int64_t next_rowid_ = 1;
  int filter_axes_ = 2;
  uint32_t max_height_ = 0;
  uint64_t allocs_before_ = 0;
  std::string path_;
};

TEST_P(RandomTreeTest, OperationsMatchTheModelAndTheTreeStaysSound) {
  const int total = scaled(GetParam().ops);
  int batch = 0;
  int64_t operations = 0;
  for (int round = 0; round < rounds() && !HasFatalFailure(); ++round) {
    gen_ = std::make_unique<Gen>(GetParam().dims, GetParam().shape, GetParam().seed + 1000 * round);
    int done = 0;
    while (done < total && !HasFatalFailure()) run_batch(batch++, &done, total, false);
    // Then delete everything: the tree shrinks level by level to an empty root.
    int drained = 0;
    while (!live_.empty() && !HasFatalFailure()) run_batch(batch++, &drained, 0, true);
    if (HasFatalFailure()) return;
    zqcheck::TreeStats stats;
    ASSERT_TRUE(check(&stats).ok);
    EXPECT_EQ(stats.height, 1u);
    EXPECT_EQ(stats.nodes, 1u);
    EXPECT_EQ(count_rows(), 1);
    operations += done + drained;
  }
  if (total >= 4000) {
    EXPECT_GE(max_height_, 3u) << "the runs never grew a tree of three levels";
  }
  RecordProperty("operations", std::to_string(operations));
}

std::vector<RandomCase> all_cases() {
  std::vector<RandomCase> out;
  uint64_t seed = 20250101;
  for (int dims = 1; dims <= 3; ++dims) {
    for (Shape s : {Shape::Points, Shape::Boxes, Shape::Lines, Shape::Large, Shape::Duplicates,
                    Shape::Clustered}) {
      out.push_back({dims, s, 6000, false, false, seed++});
    }
    out.push_back({dims, Shape::Mixed, 1500, true, false, seed++});
  }
  out.push_back({2, Shape::Mixed, 3000, false, true, seed++});
  return out;
}

INSTANTIATE_TEST_SUITE_P(Random, RandomTreeTest, testing::ValuesIn(all_cases()), case_name);

}  // namespace
