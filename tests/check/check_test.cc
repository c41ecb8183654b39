// The tree checker: a sound tree of three levels passes with exact
// statistics; each kind of damage, made by editing node rows with SQL, is
// reported at the node where it is.
#include "check/check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/common/fixture.h"

namespace {

constexpr int kEntries = 3000;

class CheckTest : public zqtest::HostTest {
 public:
  void SetUp() override {
    HostTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 4096, 64);
    write_empty_root(2);
    rtr_mem* h = open_handle(2);
    ASSERT_NE(h, nullptr);
    std::mt19937_64 rng(42);
    std::uniform_real_distribution<double> u(0, 1000);
    for (int i = 0; i < kEntries; ++i) {
      double x = u(rng), y = u(rng);
      rtr_cell c{i + 1, {x, y, 0, x + 3, y + 2, 0}};
      ASSERT_EQ(rtr_insert(env_, h, &c), 0);
    }
    ASSERT_EQ(rtr_flush_all(env_, h), 0);
    rtr_mem_destroy(env_, h);
  }

  using HostTest::exec;
  using HostTest::sql_int;

  std::vector<uint8_t> blob(int64_t id) {
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(zqsess_db(sess_), "SELECT cells FROM \"MDRT$t\" WHERE rowid = ?1", -1, &st,
                       nullptr);
    sqlite3_bind_int64(st, 1, id);
    std::vector<uint8_t> out;
    if (sqlite3_step(st) == SQLITE_ROW) {
      auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(st, 0));
      out.assign(p, p + sqlite3_column_bytes(st, 0));
    }
    sqlite3_finalize(st);
    return out;
  }

  void set_blob(int64_t id, const std::vector<uint8_t>& b) {
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(zqsess_db(sess_), "UPDATE \"MDRT$t\" SET cells = ?1 WHERE rowid = ?2", -1,
                       &st, nullptr);
    sqlite3_bind_blob(st, 1, b.data(), static_cast<int>(b.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(st, 2, id);
    EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
    sqlite3_finalize(st);
  }

  int64_t first_leaf() {
    return sql_int("SELECT rowid FROM \"MDRT$t\" WHERE level = 0 AND rowid <> 1 ORDER BY rowid");
  }

  // Runs `sql` with {leaf} standing for the first leaf; returns the leaf.
  int64_t on_leaf(std::string sql) {
    const int64_t leaf = first_leaf();
    sql.replace(sql.find("{leaf}"), 6, std::to_string(leaf));
    exec(sql.c_str());
    return leaf;
  }

  zqcheck::CheckResult check() { return zqcheck::check_tree(sess_, "main", "t", 2); }
};

// 2-D entries are 40 bytes: id, min0, min1, max0, max1.
constexpr size_t kEntry = 40;
constexpr size_t kMax0 = 4 + 8 + 16;  // offset of entry 0's max0

TEST_F(CheckTest, SoundTreePassesWithExactStatistics) {
  zqcheck::TreeStats stats;
  zqcheck::CheckResult res = zqcheck::check_tree(sess_, "main", "t", 2, &stats);
  ASSERT_TRUE(res.ok) << res.node_id << ": " << res.message;
  EXPECT_EQ(stats.entries, static_cast<uint64_t>(kEntries));
  EXPECT_EQ(stats.nodes, static_cast<uint64_t>(count_rows()));
  const int64_t root_level = sql_int("SELECT level FROM \"MDRT$t\" WHERE rowid = 1");
  ASSERT_GE(root_level, 2) << "the fixture should build three levels";
  EXPECT_EQ(stats.height, root_level + 1);
  ASSERT_EQ(stats.nodes_per_level.size(), stats.height);
  for (uint32_t level = 0; level < stats.height; ++level) {
    EXPECT_EQ(static_cast<int64_t>(stats.nodes_per_level[level]),
              sql_int("SELECT count(*) FROM \"MDRT$t\" WHERE level = " + std::to_string(level)));
  }
  EXPECT_EQ(stats.nodes_per_level.back(), 1u);
  EXPECT_EQ(stats.cells_per_level[0], static_cast<uint64_t>(kEntries));
  // Every branch level holds one entry per node of the level below.
  for (uint32_t level = 1; level < stats.height; ++level)
    EXPECT_EQ(stats.cells_per_level[level], stats.nodes_per_level[level - 1]);

  rtr_mem* h = open_handle(2);
  res = zqcheck::check_search(env_, h, "main", "t");
  EXPECT_TRUE(res.ok) << res.node_id << ": " << res.message;
  rtr_mem_destroy(env_, h);
}

// One kind of damage: `damage` edits the table and returns the node at which
// the checker must report it; the message must mention `says`.
struct Damage {
  const char* name;
  int64_t (*damage)(CheckTest& t);
  const char* says;
};

class DamageTest : public CheckTest, public testing::WithParamInterface<Damage> {};

const Damage kDamages[] = {
    {"WrongParentId",
     [](CheckTest& t) {
       return t.on_leaf("UPDATE \"MDRT$t\" SET parent_id = parent_id + 1000 WHERE rowid = {leaf}");
     },
     "parent_id"},
    {"RootWithAParent",
     [](CheckTest& t) {
       t.exec("UPDATE \"MDRT$t\" SET parent_id = 7 WHERE rowid = 1");
       return int64_t{RTR_ROOT_ID};
     },
     "the root's parent_id is 7"},
    {"LevelMismatch",
     [](CheckTest& t) { return t.on_leaf("UPDATE \"MDRT$t\" SET level = 1 WHERE rowid = {leaf}"); },
     "level"},
    {"BlobShorterThanItsCount",
     [](CheckTest& t) {
       return t.on_leaf(
           "UPDATE \"MDRT$t\" SET cells = substr(cells, 1, length(cells) - 3) WHERE rowid = "
           "{leaf}");
     },
     "corrupt"},
    {"CellsNotABlob",
     [](CheckTest& t) {
       return t.on_leaf("UPDATE \"MDRT$t\" SET cells = 'text' WHERE rowid = {leaf}");
     },
     "corrupt"},
    {"EmptyNonRootNode",
     [](CheckTest& t) {
       return t.on_leaf("UPDATE \"MDRT$t\" SET cells = X'00000000' WHERE rowid = {leaf}");
     },
     "no entries"},
    {"CountOver51",  // a length that matches the count, but the count is too large
     [](CheckTest& t) {
       return t.on_leaf(
           "UPDATE \"MDRT$t\" SET cells = CAST(X'34000000' || zeroblob(2080) AS BLOB) WHERE rowid "
           "= {leaf}");
     },
     "exceeds 51"},
    {"UnreachableNode",
     [](CheckTest& t) {
       t.on_leaf(
           "INSERT INTO \"MDRT$t\" (rowid, level, parent_id, cells) SELECT 999999, level, "
           "parent_id, cells FROM \"MDRT$t\" WHERE rowid = {leaf}");
       return int64_t{999999};
     },
     "not reachable"},
    {"EntryNamingNoRow",
     [](CheckTest& t) {
       const int64_t leaf = t.first_leaf();
       const int64_t parent =
           t.sql_int("SELECT parent_id FROM \"MDRT$t\" WHERE rowid = " + std::to_string(leaf));
       t.on_leaf("DELETE FROM \"MDRT$t\" WHERE rowid = {leaf}");
       return parent;
     },
     "no row"},
    {"MissingRoot",
     [](CheckTest& t) {
       t.exec("DELETE FROM \"MDRT$t\" WHERE rowid = 1");
       return int64_t{RTR_ROOT_ID};
     },
     "root"},
    {"BoxNotContainingChild",
     [](CheckTest& t) {
       std::vector<uint8_t> b = t.blob(RTR_ROOT_ID);
       std::memcpy(b.data() + kMax0, b.data() + 12, 8);  // entry 0 shrinks to its left edge
       t.set_blob(RTR_ROOT_ID, b);
       return int64_t{RTR_ROOT_ID};
     },
     "does not contain"},
    {"NanInBranchBox",
     [](CheckTest& t) {
       std::vector<uint8_t> b = t.blob(RTR_ROOT_ID);
       const double nan = std::numeric_limits<double>::quiet_NaN();
       std::memcpy(b.data() + kMax0, &nan, 8);
       t.set_blob(RTR_ROOT_ID, b);
       return int64_t{RTR_ROOT_ID};
     },
     "NaN"},
    {"SubtreeCutOff",
     [](CheckTest& t) {
       std::vector<uint8_t> b = t.blob(RTR_ROOT_ID);
       uint32_t n;
       std::memcpy(&n, b.data(), 4);
       n -= 1;  // drop the last entry: its subtree is no longer reachable
       int64_t last;
       std::memcpy(&last, b.data() + 4 + n * kEntry, 8);
       std::memcpy(b.data(), &n, 4);
       b.resize(4 + n * kEntry);
       t.set_blob(RTR_ROOT_ID, b);
       // The first row the walk missed, in rowid order, is reported.
       const std::string l = std::to_string(last);
       return t.sql_int(
           "SELECT min(rowid) FROM \"MDRT$t\" WHERE rowid = " + l + " OR parent_id = " + l +
           " OR parent_id IN (SELECT rowid FROM \"MDRT$t\" WHERE parent_id = " + l + ")");
     },
     "not reachable"},
    {"BranchRootWithOneEntry",  // a delete emptying its child would find no leaf
     [](CheckTest& t) {
       std::vector<uint8_t> b = t.blob(RTR_ROOT_ID);
       const uint32_t one = 1;
       std::memcpy(b.data(), &one, 4);
       b.resize(4 + kEntry);
       t.set_blob(RTR_ROOT_ID, b);
       return int64_t{RTR_ROOT_ID};
     },
     "at least 2"},
    {"NodeReachedTwice",
     [](CheckTest& t) {
       std::vector<uint8_t> b = t.blob(RTR_ROOT_ID);
       b.insert(b.end(), b.begin() + 4, b.begin() + 4 + kEntry);  // entry 0 twice
       b[0] += 1;
       t.set_blob(RTR_ROOT_ID, b);
       int64_t child;
       std::memcpy(&child, b.data() + 4, 8);
       return child;
     },
     "twice"},
};

TEST_P(DamageTest, IsReportedAtItsNode) {
  const int64_t at = GetParam().damage(*this);
  if (HasFatalFailure()) return;
  zqcheck::CheckResult res = check();
  EXPECT_FALSE(res.ok);
  EXPECT_EQ(res.node_id, at) << res.message;
  EXPECT_NE(res.message.find(GetParam().says), std::string::npos) << res.message;
}

INSTANTIATE_TEST_SUITE_P(Check, DamageTest, testing::ValuesIn(kDamages),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
