// Bulk-built trees in use: for 1, 2 and 3 axes, uniform, clustered and real
// data, every operator answers through the search cursor exactly as a
// brute-force model does, and the tree takes inserts and deletes through the
// ordinary path and stays sound.
#include <gtest/gtest.h>

#include <random>

#include "rtrbld/bld_util.h"

namespace {

using bldtest::Entry;

class BulkUseTest : public bldtest::BldTest {
 protected:
  // Builds the tree, then checks it, queries it, changes it and does both
  // again.
  void exercise(const std::vector<Entry>& entries, uint16_t dims, double fill, uint32_t seed) {
    ASSERT_EQ(build(entries, dims, fill), 0) << stack_text();
    treetest::Model model;
    model.dims = dims;
    for (const Entry& e : entries) model.rows[e.id] = e.box;
    expect_answers(model, seed);
    change(&model, seed);
    expect_answers(model, seed + 1);
  }

 private:
  void expect_answers(const treetest::Model& model, uint32_t seed) {
    zqcheck::TreeStats stats;
    expect_sound(&stats);
    EXPECT_EQ(stats.entries, model.rows.size());
    open(static_cast<uint16_t>(model.dims));
    const zqcheck::CheckResult found = zqcheck::check_search(env_, rtr_, "main", "t");
    EXPECT_TRUE(found.ok) << "node " << found.node_id << ": " << found.message;
    for (const rtr_rect& q : queries(model, seed)) {
      for (uint32_t op : treetest::kOps) {
        std::vector<int64_t> got;
        for (const rtr_cell& c : search(q, op)) {
          // The cursor filters on two axes; an engine rechecks all of them.
          if (treetest::m_match(c.rect, q, op, model.dims)) got.push_back(c.id);
        }
        std::sort(got.begin(), got.end());
        ASSERT_EQ(got, model.matching(q, op, model.dims)) << "operator " << op;
      }
    }
    discard();
  }

  // Boxes of entries as they are, slightly grown, and windows of a few
  // percent of the data's extent: every operator gets hits and misses.
  static std::vector<rtr_rect> queries(const treetest::Model& model, uint32_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<const rtr_rect*> boxes;
    rtr_rect extent = model.rows.begin()->second;
    for (const auto& [id, r] : model.rows) {
      boxes.push_back(&r);
      rtr_union_rect(model.dims, &extent, &r, &extent);
    }
    std::vector<rtr_rect> out;
    for (int i = 0; i < 24; ++i) {
      rtr_rect q = *boxes[rng() % boxes.size()];
      const double grow = i % 3 == 0 ? 0.0 : i % 3 == 1 ? 0.001 : 0.03;
      for (int k = 0; k < model.dims; ++k) {
        const double margin = grow * (treetest::hi(extent, k) - treetest::lo(extent, k));
        bldtest::set_axis(q, k, treetest::lo(q, k) - margin, treetest::hi(q, k) + margin);
      }
      out.push_back(q);
    }
    return out;
  }

  // Deletes one entry in twenty and inserts as many new ones, through
  // ordinary handles, flushed as the engine does.
  void change(treetest::Model* model, uint32_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<int64_t> ids;
    for (const auto& [id, r] : model->rows) ids.push_back(id);
    std::shuffle(ids.begin(), ids.end(), rng);
    ids.resize(ids.size() / 20 + 1);
    open(static_cast<uint16_t>(model->dims));
    for (int64_t id : ids) {
      ASSERT_EQ(rtr_delete_by_rowid(env_, rtr_, id, &model->rows.at(id)), 0) << stack_text();
      model->rows.erase(id);
    }
    std::vector<int64_t> ids_left;
    for (const auto& [id, r] : model->rows) ids_left.push_back(id);
    const int64_t next = model->rows.rbegin()->first + 1;
    for (size_t i = 0; i < ids.size(); ++i) {
      // A remaining box moved a little: new entries land among the old.
      const rtr_rect& like = model->rows.at(ids_left[rng() % ids_left.size()]);
      rtr_rect box = like;
      for (int k = 0; k < model->dims; ++k) {
        const double shift = (treetest::hi(like, k) - treetest::lo(like, k) + 1) *
                             (static_cast<double>(rng() % 200) / 100 - 1);
        bldtest::set_axis(box, k, treetest::lo(like, k) + shift, treetest::hi(like, k) + shift);
      }
      ASSERT_EQ(insert(next + static_cast<int64_t>(i), box), 0) << stack_text();
      model->rows[next + static_cast<int64_t>(i)] = box;
    }
    commit();
    expect_only_overflow_pushes();
    zqenv_err_clear(env_);
  }
};

struct Synthetic {
  const char* name;
  uint16_t dims;
  double fill;
};

class SyntheticUseTest : public BulkUseTest, public ::testing::WithParamInterface<Synthetic> {};

TEST_P(SyntheticUseTest, AnswersLikeTheModelBeforeAndAfterChanges) {
  const Synthetic& c = GetParam();
  const uint32_t seed = c.dims * 10 + (c.name[0] == 'u');
  const std::vector<Entry> entries = c.name[0] == 'u' ? bldtest::uniform(12000, c.dims, seed)
                                                      : bldtest::clustered(12000, c.dims, seed);
  exercise(entries, c.dims, c.fill, seed);
}

INSTANTIATE_TEST_SUITE_P(
    Bulk, SyntheticUseTest,
    ::testing::Values(Synthetic{"uniform", 1, 1.0}, Synthetic{"uniform", 2, 0.7},
                      Synthetic{"uniform", 3, 1.0}, Synthetic{"clustered", 1, 0.7},
                      Synthetic{"clustered", 2, 1.0}, Synthetic{"clustered", 3, 0.7}),
    [](const ::testing::TestParamInfo<Synthetic>& info) {
      return std::string(info.param.name) + std::to_string(info.param.dims) + "d";
    });

TEST_F(BulkUseTest, TigerZipAreas2D) {
  ZQ_REQUIRE_SHARED_DATA("tiger-zcta2010-mbr.csv.gz");
  const auto entries = bldtest::read_csv_gz(zqtest::shared_data("tiger-zcta2010-mbr.csv.gz"), 2);
  ASSERT_EQ(entries.size(), 33155u);
  exercise(entries, 2, 1.0, 101);
}

TEST_F(BulkUseTest, TurinRoads2D) {
  ZQ_REQUIRE_SHARED_DATA("osm-turin-roads-mbr.csv.gz");
  const auto entries = bldtest::read_csv_gz(zqtest::shared_data("osm-turin-roads-mbr.csv.gz"), 2);
  ASSERT_EQ(entries.size(), 22530u);
  exercise(entries, 2, 0.7, 202);
}

TEST_F(BulkUseTest, AutzenLidarPoints3D) {
  ZQ_REQUIRE_SHARED_DATA("autzen-lidar-points-3d.csv.gz");
  const auto entries =
      bldtest::read_csv_gz(zqtest::shared_data("autzen-lidar-points-3d.csv.gz"), 3);
  ASSERT_EQ(entries.size(), 110000u);
  exercise(entries, 3, 1.0, 303);
}

// Sorting the entries beyond the session's sort memory does not change the
// tree: the build spills and merges and packs the same nodes.
TEST_F(BulkUseTest, BuildsTheSameTreeWhenSortingSpills) {
  const std::vector<Entry> entries = bldtest::uniform(30000, 2, 9);
  std::vector<bldtest::Groups> shapes;
  for (uint64_t budget : {uint64_t{64} << 20, uint64_t{64} << 10}) {
    zqsess_set_sort_mem(sess_, budget);
    begin();
    ASSERT_EQ(build(entries, 2, 1.0), 0) << stack_text();
    shapes.push_back(bldtest::shape_of(nodes()).at(0));
    expect_sound();
    rollback();
  }
  EXPECT_TRUE(shapes[0] == shapes[1]);
}

}  // namespace
