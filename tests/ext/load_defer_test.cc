// Bulk loads from a query, and deferred mode: changes held back until commit
// must give the answers of a table that takes them at once.
#include <random>
#include <string>
#include <vector>

#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

TEST(ExtLoad, BuildsFromAQueryAndAddsToWhatIsThere) {
  Db db;
  db.exec("CREATE TABLE src (id INTEGER PRIMARY KEY, a REAL, b REAL, c REAL, d REAL)");
  db.exec(create_sql("t", 2));
  std::mt19937 rng(3);
  std::vector<Row> rows;
  for (int64_t id = 1; id <= 3500; ++id) {
    const Box b = random_box(rng, 2, 500);
    rows.push_back({id, b});
    db.exec("INSERT INTO src VALUES (" + std::to_string(id) + ", " + box_sql(b, 2) + ")");
  }
  EXPECT_EQ(db.one("SELECT zqrtree_load('t', 'SELECT * FROM src WHERE id <= 3000', 0.5)"), "3000");
  EXPECT_EQ(db.one("SELECT zqrtree_load('t', 'SELECT * FROM src WHERE id > 3000')"), "500");
  EXPECT_EQ(db.one("SELECT count(*) FROM t"), "3500");
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
  for (int i = 0; i < 20; ++i) {
    const Box q = random_box(rng, 2, 500);
    std::vector<int64_t> expected;
    for (const Row& r : rows)
      if (zqtool::model_overlaps(r.box, q, 2)) expected.push_back(r.id);
    EXPECT_EQ(db.ids("SELECT id FROM t('intersect', " + box_sql(q, 2) + ") ORDER BY id"), expected);
  }
}

// Tables d (direct) and f (deferred) take the same changes.
class DeferredPair {
 public:
  explicit DeferredPair(Db& db) : db_(db) {
    on_both(db_, create_sql("$T", 2), "f", "d");
    EXPECT_EQ(db_.one("SELECT zqrtree_defer('f', 1)"), "1");
  }
  void both(const std::string& sql) { on_both(db_, sql, "f", "d"); }
  void random_changes(std::mt19937& rng, int n) {
    for (int i = 0; i < n; ++i) {
      const int64_t id = 1 + static_cast<int64_t>(rng() % 150);
      const std::string box = box_sql(random_box(rng, 2), 2);
      const bool taken = db_.one("SELECT count(*) FROM d WHERE id = " + std::to_string(id)) == "1";
      if (!taken)
        both("INSERT INTO $T VALUES (" + std::to_string(id) + ", " + box + ")");
      else if (rng() % 3 == 0)
        both("DELETE FROM $T WHERE id = " + std::to_string(id));
      else if (rng() % 2 == 0)
        both("UPDATE $T SET lo1 = hi1 - 1 WHERE id = " + std::to_string(id));
      else  // out and back in with a new rowid and box
        both("UPDATE $T SET id = " + std::to_string(next_id_++) +
             ", lo0 = 1, hi0 = 2 WHERE id = " + std::to_string(id));
    }
  }
  void expect_same_answers(std::mt19937& rng) {
    const char* ops[] = {"intersect", "within", "contains", "or(within|equal)", "any"};
    for (int i = 0; i < 8; ++i) {
      const std::string q = box_sql(random_box(rng, 2), 2);
      for (const char* op : ops) {
        const std::string from = std::string("('") + op + "', " + q + ") ORDER BY id";
        EXPECT_EQ(db_.rows("SELECT * FROM f" + from), db_.rows("SELECT * FROM d" + from))
            << op << " " << q;
      }
      EXPECT_EQ(db_.rows("SELECT id FROM f WHERE lo0 < 9 AND hi1 >= 4 ORDER BY id"),
                db_.rows("SELECT id FROM d WHERE lo0 < 9 AND hi1 >= 4 ORDER BY id"));
    }
    EXPECT_EQ(db_.rows("SELECT * FROM f ORDER BY id"), db_.rows("SELECT * FROM d ORDER BY id"));
  }
  std::vector<std::string> f_nodes() { return db_.rows("SELECT * FROM \"MDRT$f\" ORDER BY rowid"); }

 private:
  Db& db_;
  int64_t next_id_ = 1000;
};

// The quality estimate tells an insert-built tree, sparse by the split rule,
// from a packed one, and predicts the tree a repack makes. Rows come one
// statement at a time: a transaction of many would be packed at commit.
TEST(ExtStats, SaysWhenARepackPays) {
  Db db;
  db.exec(create_sql("t", 2));
  std::mt19937 rng(12);
  std::uniform_int_distribution<int> pos(0, 5000), len(0, 20);
  for (int id = 1; id <= 20000; ++id) {
    Box b;
    for (int k = 0; k < 2; ++k) b.max[k] = (b.min[k] = pos(rng)) + len(rng);
    const std::string values = std::to_string(id) + ", " + box_sql(b, 2);
    db.exec("INSERT INTO t VALUES (" + values + ")");
  }
  auto field = [&](const char* name) {
    return std::stod(
        db.one(std::string("SELECT json_extract(zqrtree_stats('t'), '$.") + name + "')"));
  };
  EXPECT_EQ(field("entries"), 20000);
  EXPECT_EQ(field("repack_pays"), 1);
  const double predicted = field("packed_nodes_per_query");
  EXPECT_EQ(db.one("SELECT zqrtree_repack('t')"), "20000");
  EXPECT_EQ(field("repack_pays"), 0);
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
  EXPECT_NEAR(field("nodes_per_query"), predicted, 0.25 * predicted);
}

TEST(ExtDefer, GivesTheDirectAnswersBeforeAndAfterCommit) {
  Db db;
  DeferredPair pair(db);
  std::mt19937 rng(11);
  pair.random_changes(rng, 120);  // each statement commits, so f applies at once
  EXPECT_EQ(db.one("SELECT zqrtree_check('f')"), "ok");
  for (int round = 0; round < 3; ++round) {
    const std::vector<std::string> tree_before = pair.f_nodes();
    db.exec("BEGIN");
    for (int part = 0; part < 4; ++part) {
      pair.random_changes(rng, 40);
      pair.expect_same_answers(rng);
    }
    // Nothing reached the tree of f yet: the answers came from the merge.
    EXPECT_EQ(pair.f_nodes(), tree_before);
    db.exec("COMMIT");
    EXPECT_NE(pair.f_nodes(), tree_before);
    pair.expect_same_answers(rng);
    EXPECT_EQ(db.one("SELECT zqrtree_check('f')"), "ok");
    EXPECT_EQ(db.one("SELECT zqrtree_apply('f')"), "0");
  }
}

TEST(ExtDefer, RollbackDropsPendingChangesAndApplyIsUndoneWithIt) {
  Db db;
  DeferredPair pair(db);
  std::mt19937 rng(5);
  pair.random_changes(rng, 100);
  const std::vector<std::string> before = db.rows("SELECT * FROM f ORDER BY id");
  const std::vector<std::string> tree_before = pair.f_nodes();
  for (bool apply_first : {false, true}) {
    db.exec("BEGIN");
    pair.random_changes(rng, 60);
    if (apply_first) {
      EXPECT_NE(db.one("SELECT zqrtree_apply('f')"), "0");
    }
    db.exec("ROLLBACK");
    EXPECT_EQ(db.rows("SELECT * FROM f ORDER BY id"), before);
    EXPECT_EQ(pair.f_nodes(), tree_before);
    pair.expect_same_answers(rng);
  }
  EXPECT_EQ(db.one("SELECT zqrtree_check('f')"), "ok");
}

TEST(ExtDefer, SwitchingIsRefusedInsideATransactionAndOffAppliesFirst) {
  Db db;
  DeferredPair pair(db);
  db.exec("BEGIN");
  pair.both("INSERT INTO $T VALUES (1, 0, 1, 0, 1)");
  EXPECT_NE(db.try_exec("SELECT zqrtree_defer('f', 0)").find("outside a transaction"),
            std::string::npos);
  EXPECT_EQ(db.one("SELECT zqrtree_apply('f')"), "1");
  db.exec("COMMIT");
  EXPECT_EQ(db.one("SELECT zqrtree_defer('f', 0)"), "0");
  db.exec("INSERT INTO f VALUES (2, 0, 1, 0, 1)");
  EXPECT_EQ(db.ids("SELECT id FROM f('equal', 0, 1, 0, 1) ORDER BY id"),
            (std::vector<int64_t>{1, 2}));
  EXPECT_EQ(db.one("SELECT zqrtree_check('f')"), "ok");
}

}  // namespace
}  // namespace zqext_test
