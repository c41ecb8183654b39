// Helpers of the bulk-build tests: entry sets (uniform, clustered, real data
// sets), the engine side of a bulk build, the node table read back with SQL,
// and a packing model written from the tiling rule, apart from the library.
#ifndef ZQ_TESTS_RTRBLD_BLD_UTIL_H
#define ZQ_TESTS_RTRBLD_BLD_UTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sort/tracking_mem.h"
#include "tree/tree_util.h"

namespace bldtest {

using treetest::hi;
using treetest::lo;

struct Entry {
  int64_t id;
  rtr_rect box;  // unused axes 0
};

inline void set_axis(rtr_rect& r, int k, double a, double b) {
  (k == 0 ? r.min0 : k == 1 ? r.min1 : r.min2) = a;
  (k == 0 ? r.max0 : k == 1 ? r.max1 : r.max2) = b;
}

// Boxes of up to 10 units on a 1000-unit space.
inline std::vector<Entry> uniform(size_t n, int dims, uint32_t seed, int64_t first_id = 1) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> pos(0, 1000), ext(0, 10);
  std::vector<Entry> out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i].id = first_id + static_cast<int64_t>(i);
    out[i].box = rtr_rect{0, 0, 0, 0, 0, 0};
    for (int k = 0; k < dims; ++k) {
      const double a = pos(rng);
      set_axis(out[i].box, k, a, a + ext(rng));
    }
  }
  return out;
}

// Tight clusters with points, exact duplicates and wide boxes mixed in.
inline std::vector<Entry> clustered(size_t n, int dims, uint32_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> centre(0, 1000), u(0, 1);
  std::normal_distribution<double> spread(0, 4);
  std::vector<double> centres(20 * 3);
  for (double& c : centres) c = centre(rng);
  std::vector<Entry> out(n);
  for (size_t i = 0; i < n; ++i) {
    Entry& e = out[i];
    e.id = static_cast<int64_t>(i) + 1;
    if (i > 0 && u(rng) < 0.05) {  // a duplicate box under another rowid
      e.box = out[rng() % i].box;
      continue;
    }
    e.box = rtr_rect{0, 0, 0, 0, 0, 0};
    const size_t c = rng() % 20;
    const double w = u(rng) < 0.3 ? 0 : u(rng) < 0.02 ? 300 * u(rng) : u(rng);
    for (int k = 0; k < dims; ++k) {
      const double a = centres[c * 3 + k] + spread(rng);
      set_axis(e.box, k, a, a + w);
    }
  }
  return out;
}

// A real data set: gzipped CSV "id,min..,max.." with `file_dims` axes.
inline std::vector<Entry> read_csv_gz(const std::string& path, int file_dims) {
  std::vector<Entry> out;
  FILE* f = popen(("gzip -dc '" + path + "'").c_str(), "r");
  if (f == nullptr) return out;
  char line[512];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    double v[6] = {0, 0, 0, 0, 0, 0};
    char* p = line;
    Entry e{std::strtoll(p, &p, 10), rtr_rect{0, 0, 0, 0, 0, 0}};
    for (int i = 0; i < 2 * file_dims; ++i) v[i] = std::strtod(p + 1, &p);
    for (int k = 0; k < file_dims; ++k) set_axis(e.box, k, v[k], v[file_dims + k]);
    out.push_back(e);
  }
  pclose(f);
  return out;
}

// The engine side of a build: prepare() sorts the entries on axis 0 through
// the library's sort stage and opens the bulk-build handle; run() is
// rtr_blkload alone, so a test can aim faults at the build itself.
class BulkLoad {
 public:
  BulkLoad(zq_env* env, zq_session* sess, zq_scope* scope, zq_index* index, uint16_t dims,
           zqtest::TrackingMem& mem)
      : env_(env), sess_(sess), scope_(scope), index_(index), dims_(dims), mem_(mem) {}
  BulkLoad(const BulkLoad&) = delete;
  BulkLoad& operator=(const BulkLoad&) = delete;
  ~BulkLoad() {
    if (rtr_ != nullptr) rtr_mem_destroy(env_, rtr_);
    if (batch_ != nullptr) bdta3_free2(env_, mem_.get(), batch_);
    if (sorter_ != nullptr) nsort_destory(env_, sorter_);
  }

  int32_t prepare(const std::vector<Entry>& entries) {
    n_ = entries.size();
    int32_t rc = rtr_sort_create(env_, zqsess_sort_pool(sess_), mem_.get(), dims_, &sorter_);
    if (rc == 0) rc = rtr_sort_bdta_crt(env_, mem_.get(), dims_, &batch_);
    for (size_t i = 0; rc == 0 && i < entries.size(); ++i) {
      rtr_fill_one_row_nsort_bdta(env_, mem_.get(), dims_, entries[i].id, &entries[i].box, 0,
                                  batch_);
      if (batch_->n_rows == RTR_BDTA_ROWS || i + 1 == entries.size()) {
        rc = nsort_put_bdta(env_, sorter_, batch_);
        bdta3_clear(env_, mem_.get(), batch_);
      }
    }
    if (rc == 0) rc = nsort_sort_it(env_, sorter_);
    if (rc == 0) rc = rtr_mem_create_for_bld(env_, sess_, dims_, scope_, index_, &rtr_);
    return rc;
  }

  int32_t run(double fill) { return rtr_blkload(env_, mem_.get(), rtr_, sorter_, n_, fill); }

 private:
  zq_env* env_;
  zq_session* sess_;
  zq_scope* scope_;
  zq_index* index_;
  uint16_t dims_;
  zqtest::TrackingMem& mem_;
  uint64_t n_ = 0;
  zq_nsort* sorter_ = nullptr;
  zq_bdta* batch_ = nullptr;
  rtr_mem* rtr_ = nullptr;
};

// A node row as the table holds it.
struct NodeRow {
  int64_t id;
  uint32_t level;
  int64_t parent;
  std::vector<rtr_cell> cells;
};

// Every row of the node table, its cells blob decoded by hand: u32 count,
// then per entry the id, the minima and the maxima of `dims` axes.
inline std::map<int64_t, NodeRow> read_nodes(sqlite3* db, int dims) {
  std::map<int64_t, NodeRow> out;
  sqlite3_stmt* st = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT rowid, level, parent_id, cells FROM \"MDRT$t\"", -1, &st,
                               nullptr),
            SQLITE_OK);
  while (sqlite3_step(st) == SQLITE_ROW) {
    NodeRow row{sqlite3_column_int64(st, 0),
                static_cast<uint32_t>(sqlite3_column_int(st, 1)),
                sqlite3_column_int64(st, 2),
                {}};
    const auto* blob = static_cast<const uint8_t*>(sqlite3_column_blob(st, 3));
    const size_t len = static_cast<size_t>(sqlite3_column_bytes(st, 3));
    const size_t entry = (2 * dims + 1) * 8;
    uint32_t n = 0;
    std::memcpy(&n, blob, 4);
    EXPECT_EQ(len, 4 + n * entry) << "node " << row.id;
    for (uint32_t i = 0; i < n && 4 + (i + 1) * entry <= len; ++i) {
      const uint8_t* p = blob + 4 + i * entry;
      rtr_cell c{0, rtr_rect{0, 0, 0, 0, 0, 0}};
      std::memcpy(&c.id, p, 8);
      for (int k = 0; k < dims; ++k) {
        double a = 0, b = 0;
        std::memcpy(&a, p + 8 + 8 * k, 8);
        std::memcpy(&b, p + 8 + 8 * (dims + k), 8);
        set_axis(c.rect, k, a, b);
      }
      row.cells.push_back(c);
    }
    out[row.id] = std::move(row);
  }
  sqlite3_finalize(st);
  return out;
}

// The rowids under each node, level by level (index 0 = leaves): the tree's
// shape in terms that do not depend on node ids.
using Groups = std::set<std::vector<int64_t>>;

inline std::vector<Groups> shape_of(const std::map<int64_t, NodeRow>& nodes) {
  std::map<int64_t, std::vector<int64_t>> under;
  std::vector<Groups> levels;
  for (uint32_t level = 0;; ++level) {
    bool any = false;
    for (const auto& [id, row] : nodes) {
      if (row.level != level) continue;
      any = true;
      std::vector<int64_t>& ids = under[id];
      for (const rtr_cell& c : row.cells) {
        if (level == 0) ids.push_back(c.id);
        if (level > 0) ids.insert(ids.end(), under[c.id].begin(), under[c.id].end());
      }
      std::sort(ids.begin(), ids.end());
      if (levels.size() <= level) levels.resize(level + 1);
      levels[level].insert(ids);
    }
    if (!any) return levels;
  }
}

// The packing rule, written from its description: order a level's entries
// by min + max along the axis; if the level fills P = ceil(n / nfill) nodes,
// cut it into slices of nfill * ceil(sqrt(P)) entries and do the same to each
// slice along the next axis, unless there is one slice, the axis is the last
// or one slice would take everything: then cut runs of nfill.
struct ModelEntry {
  rtr_rect box;
  std::vector<int64_t> ids;  // the rowids under it
};

inline void model_pack(std::vector<ModelEntry> in, int axis, int dims, uint64_t nfill,
                       std::vector<std::vector<ModelEntry>>* nodes) {
  std::sort(in.begin(), in.end(), [axis](const ModelEntry& a, const ModelEntry& b) {
    return lo(a.box, axis) + hi(a.box, axis) < lo(b.box, axis) + hi(b.box, axis);
  });
  const uint64_t n = in.size();
  const uint64_t p = (n + nfill - 1) / nfill;
  const auto s = static_cast<uint64_t>(std::ceil(std::sqrt(static_cast<double>(p))));
  const bool direct = s == 1 || axis == dims - 1 || nfill * s == n;
  const uint64_t step = direct ? nfill : nfill * s;
  for (uint64_t at = 0; at < n; at += step) {
    std::vector<ModelEntry> part(in.begin() + at, in.begin() + std::min(n, at + step));
    if (direct) {
      nodes->push_back(std::move(part));
    } else {
      model_pack(std::move(part), axis + 1, dims, nfill, nodes);
    }
  }
}

inline std::vector<Groups> model_shape(const std::vector<Entry>& entries, int dims,
                                       uint64_t nfill) {
  std::vector<ModelEntry> level;
  for (const Entry& e : entries) level.push_back({e.box, {e.id}});
  std::vector<Groups> shape;
  do {
    std::vector<std::vector<ModelEntry>> nodes;
    model_pack(std::move(level), 0, dims, nfill, &nodes);
    level.clear();
    shape.emplace_back();
    for (const auto& node : nodes) {
      ModelEntry up{node[0].box, {}};
      for (const ModelEntry& e : node) {
        for (int k = 0; k < dims; ++k)
          set_axis(up.box, k, std::min(lo(up.box, k), lo(e.box, k)),
                   std::max(hi(up.box, k), hi(e.box, k)));
        up.ids.insert(up.ids.end(), e.ids.begin(), e.ids.end());
      }
      std::sort(up.ids.begin(), up.ids.end());
      shape.back().insert(up.ids);
      level.push_back(std::move(up));
    }
  } while (level.size() > 1);
  return shape;
}

// Builds in the fixture's node table, each inside a user transaction that
// the test can roll back to start the next build from an empty table.
class BldTest : public treetest::TreeTest {
 protected:
  // A whole build as the engine runs it; everything the caller's memory
  // object lent must be back afterwards.
  int32_t build(const std::vector<Entry>& entries, uint16_t dims, double fill) {
    dims_ = dims;
    zqtest::TrackingMem mem(env_);
    int32_t rc = 0;
    {
      BulkLoad load(env_, sess_, scope_, &index_, dims, mem);
      rc = load.prepare(entries);
      if (rc == 0) rc = load.run(fill);
    }
    EXPECT_EQ(mem.live(), 0u);
    EXPECT_EQ(mem.bad_frees(), 0u);
    return rc;
  }

  std::map<int64_t, NodeRow> nodes() const { return read_nodes(zqsess_db(sess_), dims_); }

  void begin() { ASSERT_EQ(zqsess_begin(sess_), 0); }
  void rollback() { ASSERT_EQ(zqsess_rollback(sess_), 0); }
};

}  // namespace bldtest

#endif
