// The zqrtree virtual table through plain SQL: the tables it makes, changes
// against a mirror in an ordinary table, every search operator against a
// model, range constraints against SQLite's own answers, and the plans it
// reports. Bad declarations, rows and arguments are the hostile suite's.
#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

// The same rows in the virtual table t and in the ordinary table m.
class Mirror {
 public:
  Mirror(Db& db, int dims) : db_(db), dims_(dims) {
    db_.exec(create_sql("t", dims));
    std::string cols = "id INTEGER PRIMARY KEY";
    for (int k = 0; k < dims; ++k)
      cols += ", lo" + std::to_string(k) + " REAL, hi" + std::to_string(k) + " REAL";
    db_.exec("CREATE TABLE m (" + cols + ")");
  }
  void both(const std::string& sql) { on_both(db_, sql, "t", "m"); }
  void expect_same(const std::string& where) {
    const std::string cols = columns_sql(dims_);
    EXPECT_EQ(db_.rows("SELECT " + cols + " FROM t " + where + " ORDER BY id"),
              db_.rows("SELECT " + cols + " FROM m " + where + " ORDER BY id"))
        << where;
  }

 private:
  Db& db_;
  int dims_;
};

TEST(ExtCreate, MakesNodeBaseAndCatalogAndDropRemovesThem) {
  Db db;
  db.exec(create_sql("places", 2) + "; INSERT INTO places VALUES (1, 0, 1, 0, 1)");
  EXPECT_EQ(db.rows("SELECT name FROM sqlite_schema WHERE type = 'table' AND name NOT IN "
                    "('places') ORDER BY name"),
            (std::vector<std::string>{"MDRT$places", "places_rowid", "zqrtree_catalog"}));
  EXPECT_EQ(db.one("SELECT dims FROM zqrtree_catalog WHERE name = 'places'"), "2");
  EXPECT_NE(db.try_exec(create_sql("places", 2)), "");
  db.exec("DROP TABLE places");
  EXPECT_EQ(db.one("SELECT count(*) FROM sqlite_schema WHERE name LIKE '%places%'"), "0");
  EXPECT_EQ(db.one("SELECT count(*) FROM zqrtree_catalog"), "0");
}

// The second connection finds the table (and its three axes) from the file,
// and neither may answer from a tree the other has changed since.
TEST(ExtChange, TwoConnectionsTakeTurnsOnOneTable) {
  const std::string path = temp_path("ext_two.db");
  std::remove(path.c_str());
  Db a(path), b(path);
  for (Db* c : {&a, &b}) c->exec("PRAGMA synchronous = OFF");  // 600 commits
  a.exec(create_sql("t", 3));
  std::mt19937 rng(2);
  // Turns long enough for the tree to split nodes in each connection.
  for (int id = 1; id <= 600; ++id) {
    Db& c = (id / 60) % 2 == 0 ? a : b;
    c.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + box_sql(random_box(rng, 3), 3) +
           ")");
    if (id % 97 == 0) c.exec("DELETE FROM t WHERE id = " + std::to_string(id - 50));
  }
  EXPECT_EQ(a.one("SELECT zqrtree_check('t')"), "ok");
  EXPECT_EQ(a.rows("SELECT id FROM t('any', 0, 0, 0, 0, 0, 0) ORDER BY id"),
            b.rows("SELECT id FROM t ORDER BY id"));
  EXPECT_EQ(b.rows("SELECT id FROM t('intersect', 2, 9, 2, 9, 2, 9) ORDER BY id"),
            a.rows("SELECT id FROM t WHERE lo0 <= 9 AND hi0 >= 2 AND lo1 <= 9 AND hi1 >= 2 AND "
                   "lo2 <= 9 AND hi2 >= 2 ORDER BY id"));
  std::remove(path.c_str());
}

TEST(ExtChange, RandomChangesMatchAnOrdinaryTable) {
  for (int dims = 1; dims <= 3; ++dims) {
    SCOPED_TRACE("dims " + std::to_string(dims));
    Db db;
    Mirror mirror(db, dims);
    std::mt19937 rng(40 + dims);
    std::vector<int64_t> live;
    for (int step = 0; step < 600; ++step) {
      const int what = live.size() < 20 ? 0 : static_cast<int>(rng() % 4);
      const Box b = random_box(rng, dims, 1000);
      if (what <= 1) {
        const int64_t id = 1 + static_cast<int64_t>(rng() % 100000);
        if (std::find(live.begin(), live.end(), id) != live.end()) continue;
        mirror.both("INSERT INTO $T VALUES (" + std::to_string(id) + ", " + box_sql(b, dims) + ")");
        live.push_back(id);
        continue;
      }
      const size_t pick = rng() % live.size();
      const std::string id = std::to_string(live[pick]);
      if (what == 2) {
        mirror.both("DELETE FROM $T WHERE id = " + id);
        live.erase(live.begin() + static_cast<long>(pick));
      } else {
        mirror.both("UPDATE $T SET lo0 = " + std::to_string(b.min[0]) +
                    ", hi0 = " + std::to_string(b.max[0]) + " WHERE id = " + id);
      }
    }
    // A new rowid by UPDATE, and rows without an id take the next one.
    mirror.both("UPDATE $T SET id = 999999 WHERE id = " + std::to_string(live[0]));
    mirror.both("INSERT INTO $T (" + columns_sql(dims).substr(4) + ") VALUES (" +
                box_sql(Box{}, dims) + ")");
    mirror.expect_same("");
    EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
    EXPECT_EQ(db.one("SELECT count(*) FROM t WHERE id = 999999"), "1");
  }
}

// A transaction's changes live in one library handle until commit: searches
// inside it, savepoints, a statement that fails part way, rollbacks and
// commits must all leave the table as SQLite leaves an ordinary one. Run with
// the default node buffer and with none, where every change writes node rows
// at once and the rowid table sees entries move back and forth.
class ExtTxn : public ::testing::TestWithParam<const char*> {};

TEST_P(ExtTxn, TransactionsAndSavepointsMatchAnOrdinaryTable) {
  if (GetParam() != nullptr) setenv("ZQRTREE_BUF_HANDLE_MB", GetParam(), 1);
  Db db;
  unsetenv("ZQRTREE_BUF_HANDLE_MB");
  Mirror mirror(db, 2);
  std::mt19937 rng(3);
  auto change = [&](int n) {
    for (int i = 0; i < n; ++i) {
      const std::vector<int64_t> live = db.ids("SELECT id FROM m");
      const int what = live.size() < 10 ? 0 : static_cast<int>(rng() % 4);
      const Box b = random_box(rng, 2, 300);
      if (what <= 1) {
        mirror.both("INSERT OR REPLACE INTO $T VALUES (" + std::to_string(1 + rng() % 5000) + ", " +
                    box_sql(b, 2) + ")");
        continue;
      }
      const std::string id = std::to_string(live[rng() % live.size()]);
      if (what == 2)
        mirror.both("DELETE FROM $T WHERE id = " + id);
      else
        mirror.both("UPDATE $T SET lo0 = " + std::to_string(b.min[0]) +
                    ", hi0 = " + std::to_string(b.max[0]) + " WHERE id = " + id);
    }
  };
  // The last row the SELECT feeds takes a rowid that is there: the statement
  // stops after writing the others, and SQLite takes all of them back.
  const std::string collide =
      "INSERT INTO $T SELECT CASE WHEN id = (SELECT max(id) FROM m) THEN (SELECT min(id) FROM m) "
      "ELSE id + 100000 END, lo0, hi0, lo1, hi1 FROM m ORDER BY id";
  // "*" doubles the table in one statement: a few of them make a change
  // list of thousands, which savepoints and a failed statement then cut at
  // lengths of no particular roundness.
  int doubled = 0;
  const std::vector<std::string> script = {"+200",
                                           "BEGIN",
                                           "+60",
                                           "?",
                                           "SAVEPOINT a",
                                           "+40",
                                           "*",
                                           "*",
                                           "*",
                                           "?",
                                           "ROLLBACK TO a",
                                           "?",
                                           "+20",
                                           "ROLLBACK TO a",
                                           "+20",
                                           "RELEASE a",
                                           "*",
                                           "*",
                                           "!",
                                           "?",
                                           "COMMIT",
                                           "?",
                                           "BEGIN",
                                           "+50",
                                           "ROLLBACK",
                                           "?",
                                           "!",
                                           "+10",
                                           "BEGIN",
                                           "+10",
                                           "SAVEPOINT b",
                                           "+5",
                                           "SAVEPOINT c",
                                           "+10",
                                           "ROLLBACK TO b",
                                           "+5",
                                           "COMMIT",
                                           "?"};
  for (const std::string& step : script) {
    SCOPED_TRACE(step);
    if (step[0] == '+') {
      change(std::stoi(step.substr(1)));
    } else if (step == "*") {
      mirror.both("INSERT INTO $T SELECT id + " + std::to_string(int64_t{100000} << doubled++) +
                  ", lo0, hi0, lo1, hi1 FROM m");  // m holds what t holds
    } else if (step == "!") {
      for (const char* table : {"t", "m"}) {
        std::string sql = collide;
        sql.replace(sql.find("$T"), 2, table);
        EXPECT_NE(db.try_exec(sql), "") << table;
      }
    } else if (step == "?") {
      mirror.expect_same("");
      mirror.expect_same("WHERE hi0 >= 50 AND lo0 <= 120 AND hi1 >= 80 AND lo1 <= 200");
      EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
    } else {
      db.exec(step);
    }
  }
  // No undo journal of ours shows in the user's schema.
  EXPECT_EQ(db.one("SELECT count(*) FROM sqlite_temp_schema"), "0");
}

INSTANTIATE_TEST_SUITE_P(NodeBuffer, ExtTxn, ::testing::Values(nullptr, "0"));

// A scan still open when its transaction commits keeps reading what it read.
TEST(ExtTxn, AScanOutlivesTheCommitUnderIt) {
  Db db;
  db.exec(create_sql("t", 1) + "; BEGIN");
  for (int id = 1; id <= 200; ++id)
    db.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + std::to_string(id) + ", " +
            std::to_string(id + 1) + ")");
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db.get(), "SELECT id FROM t WHERE hi0 >= 0 AND lo0 <= 1000", -1, &st,
                               nullptr),
            SQLITE_OK);
  int seen = 0;
  while (sqlite3_step(st) == SQLITE_ROW)
    if (++seen == 100) db.exec("DELETE FROM t WHERE id > 190; COMMIT");
  EXPECT_EQ(sqlite3_finalize(st), SQLITE_OK);
  EXPECT_GE(seen, 190);
  EXPECT_EQ(db.one("SELECT count(*) FROM t WHERE hi0 >= 0 AND lo0 <= 1000"), "190");
}

TEST(ExtSearch, EveryOperatorAndOrCombinationMatchesTheModel) {
  // The AND combinations with contains follow the library's reading, which
  // the model writes out (intended).
  const uint32_t ops[] = {RTR_OP_INTERSECT,
                          RTR_OP_CONTAINS,
                          RTR_OP_WITHIN,
                          RTR_OP_EQUAL,
                          RTR_OP_OR | RTR_OP_ANY,
                          RTR_OP_WITHIN | RTR_OP_INTERSECT,
                          RTR_OP_CONTAINS | RTR_OP_EQUAL,
                          RTR_OP_CONTAINS | RTR_OP_WITHIN,
                          RTR_OP_WITHIN | RTR_OP_EQUAL,
                          RTR_OP_OR | RTR_OP_WITHIN | RTR_OP_EQUAL,
                          RTR_OP_OR | RTR_OP_CONTAINS | RTR_OP_WITHIN,
                          RTR_OP_OR | RTR_OP_INTERSECT | RTR_OP_EQUAL,
                          RTR_OP_OR | RTR_OP_CONTAINS | RTR_OP_WITHIN | RTR_OP_EQUAL,
                          RTR_OP_OR | RTR_OP_EQUAL};
  for (int dims = 1; dims <= 3; ++dims) {
    SCOPED_TRACE("dims " + std::to_string(dims));
    Db db;
    db.exec(create_sql("t", dims));
    std::mt19937 rng(7 * dims);
    std::vector<Row> rows;
    std::vector<Box> queries;
    for (int i = 0; i < 12; ++i) queries.push_back(random_box(rng, dims));
    for (int64_t id = 1; id <= 400; ++id) {
      // Some entries equal a query box, so EQUAL and the edges get hits.
      const Box b = id % 25 == 0 ? queries[id % queries.size()] : random_box(rng, dims);
      rows.push_back({id, b});
      db.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + box_sql(b, dims) + ")");
    }
    for (const Box& q : queries)
      for (const uint32_t op : ops) {
        std::vector<int64_t> expected;
        for (const Row& r : rows)
          if (zqtool::model_matches(op, r.box, q, dims)) expected.push_back(r.id);
        const std::string text = op_text(op);
        EXPECT_EQ(db.ids("SELECT id FROM t('" + text + "', " + box_sql(q, dims) + ") ORDER BY id"),
                  expected)
            << text << " " << box_sql(q, dims);
      }
  }
}

TEST(ExtSearch, RangeConstraintsMatchAnOrdinaryTable) {
  const char* cmp[] = {"<", "<=", ">", ">=", "="};
  for (int dims = 1; dims <= 3; ++dims) {
    SCOPED_TRACE("dims " + std::to_string(dims));
    Db db;
    Mirror mirror(db, dims);
    std::mt19937 rng(100 + dims);
    for (int id = 1; id <= 300; ++id)
      mirror.both("INSERT INTO $T VALUES (" + std::to_string(id) + ", " +
                  box_sql(random_box(rng, dims), dims) + ")");
    for (int i = 0; i < 150; ++i) {
      std::string where;
      const int n = 1 + static_cast<int>(rng() % 4);
      for (int c = 0; c < n; ++c) {
        const int axis = static_cast<int>(rng() % dims);
        const std::string col = std::string(rng() % 2 ? "lo" : "hi") + std::to_string(axis);
        // Text that reads as a number is compared as one; other text never is.
        const int v = static_cast<int>(rng() % 24) - 2;
        // NULL matches nothing, and a bound beyond the doubles rules out every
        // row from one side only.
        const std::string value = i % 17 == 0   ? std::string("'").append(std::to_string(v)) + "'"
                                  : i % 29 == 0 ? "'x'"
                                  : i % 31 == 0 ? "NULL"
                                  : i % 37 == 0 ? (v % 2 ? "1e999" : "-1e999")
                                                : std::to_string(v) + (v % 3 ? ".5" : "");
        where += (c == 0 ? "WHERE " : " AND ") + col + " " + cmp[rng() % 5] + " " + value;
      }
      mirror.expect_same(where);
    }
  }
}

TEST(ExtSearch, ExplainQueryPlanNamesThePlan) {
  const struct {
    const char* query;
    const char* plan;
  } cases[] = {
      {"SELECT * FROM t WHERE id = 5", "zqrtree:ROWID"},
      {"SELECT * FROM t WHERE rowid = 5", "zqrtree:ROWID"},
      {"SELECT * FROM t WHERE lo0 <= 3 AND hi1 > 2", "zqrtree:INTERSECT"},
      {"SELECT * FROM t('or(within|equal)', 0, 1, 0, 1)", "zqrtree:or(within|equal)"},
      {"SELECT * FROM t('contains', 0, 1, 0, 1)", "zqrtree:contains"},
      {"SELECT * FROM t", "zqrtree:FULLSCAN"},
  };
  Db db;
  db.exec(create_sql("t", 2));
  for (const auto& c : cases) {
    const std::vector<std::string> plan = db.rows(std::string("EXPLAIN QUERY PLAN ") + c.query);
    ASSERT_FALSE(plan.empty());
    EXPECT_NE(plan[0].find(c.plan), std::string::npos) << c.query << ": " << plan[0];
  }
}

TEST(ExtChange, ConflictClausesDecideWhatHappensToATakenRowid) {
  Db db;
  db.exec(create_sql("t", 1) + "; INSERT INTO t VALUES (1, 0, 1), (2, 5, 6)");
  db.exec("INSERT OR IGNORE INTO t VALUES (1, 7, 8), (3, 9, 9)");
  EXPECT_EQ(db.rows("SELECT * FROM t ORDER BY id"),
            (std::vector<std::string>{"1|0.0|1.0", "2|5.0|6.0", "3|9.0|9.0"}));
  db.exec("INSERT OR REPLACE INTO t VALUES (1, 7, 8)");
  db.exec("UPDATE OR REPLACE t SET id = 3 WHERE id = 2");
  EXPECT_EQ(db.rows("SELECT * FROM t ORDER BY id"),
            (std::vector<std::string>{"1|7.0|8.0", "3|5.0|6.0"}));
  EXPECT_EQ(db.ids("SELECT id FROM t('intersect', 0, 10) ORDER BY id"),
            (std::vector<int64_t>{1, 3}));
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
}

}  // namespace
}  // namespace zqext_test
