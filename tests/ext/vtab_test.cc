// The zqrtree virtual table through plain SQL: declarations, changes against a
// mirror in an ordinary table, every search operator against a model, range
// constraints against SQLite's own answers, and the plans it reports.
#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

std::string create_sql(const std::string& name, int dims) {
  return "CREATE VIRTUAL TABLE " + name + " USING zqrtree(" + columns_sql(dims) + ")";
}

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
  void both(const std::string& sql_with_table) {
    for (const char* table : {"t", "m"}) {
      std::string sql = sql_with_table;
      sql.replace(sql.find("$T"), 2, table);
      db_.exec(sql);
    }
  }
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

TEST(ExtCreate, RejectsBadDeclarationsAndLeavesNoTables) {
  const struct {
    const char* args;
    const char* message;
  } cases[] = {
      {"id, lo", "1 to 3 pairs"},
      {"id, a, b, c", "1 to 3 pairs"},
      {"id, a, b, c, d, e, f, g, h", "1 to 3 pairs"},
      {"id, a, A", "named twice"},
      {"id, zq_op, b", "search arguments"},
      {"id, a REAL, b", "plain name"},
  };
  Db db;
  for (const auto& c : cases) {
    const std::string err =
        db.try_exec(std::string("CREATE VIRTUAL TABLE t USING zqrtree(") + c.args + ")");
    EXPECT_NE(err.find(c.message), std::string::npos) << c.args << ": " << err;
    EXPECT_EQ(db.one("SELECT count(*) FROM sqlite_schema WHERE name IN ('t', 'MDRT$t', 't_boxes')"),
              "0")
        << c.args;
  }
}

TEST(ExtCreate, MakesNodeBaseAndCatalogAndDropRemovesThem) {
  Db db;
  db.exec(create_sql("places", 2) + "; INSERT INTO places VALUES (1, 0, 1, 0, 1)");
  EXPECT_EQ(db.rows("SELECT name FROM sqlite_schema WHERE type = 'table' AND name NOT IN "
                    "('places') ORDER BY name"),
            (std::vector<std::string>{"MDRT$places", "places_boxes", "zqrtree_catalog"}));
  EXPECT_EQ(db.one("SELECT dims FROM zqrtree_catalog WHERE name = 'places'"), "2");
  EXPECT_NE(db.try_exec(create_sql("places", 2)), "");
  EXPECT_NE(db.try_exec("ALTER TABLE places RENAME TO elsewhere").find("cannot be renamed"),
            std::string::npos);
  db.exec("DROP TABLE places");
  EXPECT_EQ(db.one("SELECT count(*) FROM sqlite_schema WHERE name LIKE '%places%'"), "0");
  EXPECT_EQ(db.one("SELECT count(*) FROM zqrtree_catalog"), "0");
}

TEST(ExtCreate, ReconnectsInANewConnection) {
  const std::string path = temp_path("ext_reconnect.db");
  std::remove(path.c_str());
  {
    Db db(path);
    db.exec(create_sql("t", 3) + "; INSERT INTO t VALUES (7, 0, 1, 2, 3, 4, 5)");
  }
  Db db(path);
  db.exec("INSERT INTO t VALUES (8, 1, 2, 3, 4, 5, 6)");
  EXPECT_EQ(db.rows("SELECT id FROM t('intersect', 1, 1, 3, 3, 5, 5) ORDER BY id"),
            (std::vector<std::string>{"7", "8"}));
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
}

TEST(ExtChange, TwoConnectionsTakeTurnsOnOneTable) {
  const std::string path = temp_path("ext_two.db");
  std::remove(path.c_str());
  Db a(path), b(path);
  a.exec(create_sql("t", 2));
  std::mt19937 rng(2);
  // Turns long enough for the tree to split nodes in each connection.
  for (int id = 1; id <= 600; ++id) {
    Db& c = (id / 60) % 2 == 0 ? a : b;
    c.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + box_sql(random_box(rng, 2), 2) +
           ")");
    if (id % 97 == 0) c.exec("DELETE FROM t WHERE id = " + std::to_string(id - 50));
  }
  EXPECT_EQ(a.one("SELECT zqrtree_check('t')"), "ok");
  EXPECT_EQ(a.rows("SELECT id FROM t('any', 0, 0, 0, 0) ORDER BY id"),
            b.rows("SELECT id FROM t ORDER BY id"));
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

TEST(ExtSearch, EveryOperatorAndOrCombinationMatchesTheModel) {
  const struct {
    int ops;
    bool or_mode;
  } ops[] = {
      {kIntersect, false},
      {kContains, false},
      {kWithin, false},
      {kEqual, false},
      {kAny, true},
      {kWithin | kIntersect, false},
      {kContains | kEqual, false},
      {kWithin | kEqual, false},
      {kWithin | kEqual, true},
      {kContains | kWithin, true},
      {kIntersect | kEqual, true},
      {kContains | kWithin | kEqual, true},
      {kEqual, true},
  };
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
      for (const auto& op : ops) {
        std::vector<int64_t> expected;
        for (const Row& r : rows)
          if (model_matches(op.ops, op.or_mode, r.box, q, dims)) expected.push_back(r.id);
        const std::string text = op_text(op.ops, op.or_mode);
        EXPECT_EQ(db.ids("SELECT id FROM t('" + text + "', " + box_sql(q, dims) + ") ORDER BY id"),
                  expected)
            << text << " " << box_sql(q, dims);
      }
  }
}

TEST(ExtSearch, ThirdAxisDecidesAnswersOfThreeDimensionalTables) {
  Db db;
  db.exec(create_sql("t", 3));
  db.exec(
      "INSERT INTO t VALUES (1, 0, 4, 0, 4, 0, 4), (2, 0, 4, 0, 4, 10, 14), "
      "(3, 0, 4, 0, 4, 3, 9)");
  EXPECT_EQ(db.ids("SELECT id FROM t('equal', 0, 4, 0, 4, 0, 4)"), std::vector<int64_t>{1});
  EXPECT_EQ(db.ids("SELECT id FROM t('intersect', 1, 2, 1, 2, 5, 6) ORDER BY id"),
            std::vector<int64_t>{3});
  EXPECT_EQ(db.ids("SELECT id FROM t WHERE lo2 >= 9.5 AND hi2 <= 20"), std::vector<int64_t>{2});
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
        const std::string value = i % 17 == 0   ? "'" + std::to_string(v) + "'"
                                  : i % 29 == 0 ? "'x'"
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

TEST(ExtSearch, BadSearchArgumentsAreClearErrors) {
  const struct {
    const char* query;
    const char* message;
  } cases[] = {
      {"SELECT * FROM t('near', 0, 1, 0, 1)", "unknown operator 'near'"},
      {"SELECT * FROM t('within', 0, 1)", "an operator and 4 coordinates"},
      {"SELECT * FROM t('within', 0, 1, 'a', 1)", "zq_min1 is not a number"},
      {"SELECT * FROM t('within', 2, 1, 0, 1)", "min0 2 is above max0 1"},
      {"SELECT * FROM t(x'00', 0, 1, 0, 1)", "the operator must be text"},
  };
  Db db;
  db.exec(create_sql("t", 2));
  for (const auto& c : cases) {
    const std::string err = db.try_exec(c.query);
    EXPECT_NE(err.find(c.message), std::string::npos) << c.query << ": " << err;
  }
}

TEST(ExtChange, BadRowsAreRefusedAndChangeNothing) {
  const struct {
    const char* sql;
    const char* message;
  } cases[] = {
      {"INSERT INTO t VALUES (9, 5, 1, 0, 1)", "lo0 5 is above hi0 1"},
      {"INSERT INTO t VALUES (9, 'a', 1, 0, 1)", "lo0 'a' is not a number"},
      {"INSERT INTO t VALUES (9, 0, 1, NULL, 1)", "lo1 NULL is not a number"},
      {"INSERT INTO t VALUES (9, 0, 1e999, 0, 1)", "hi0 is not a finite number"},
      {"INSERT INTO t VALUES (2.5, 0, 1, 0, 1)", "is not an integer"},
      {"INSERT INTO t (rowid, id, lo0, hi0, lo1, hi1) VALUES (3, 4, 0, 1, 0, 1)", "differ"},
      {"INSERT INTO t VALUES (1, 0, 1, 0, 1)", "rowid 1 is already indexed"},
      {"UPDATE t SET id = 2 WHERE id = 1", "rowid 2 is already indexed"},
      {"UPDATE t SET hi1 = -1 WHERE id = 1", "lo1 0 is above hi1 -1"},
      {"UPDATE t SET id = NULL WHERE id = 1", "id may not be NULL"},
  };
  Db db;
  db.exec(create_sql("t", 2) + "; INSERT INTO t VALUES (1, 0, 1, 0, 1), (2, 2, 3, 2, 3)");
  const std::vector<std::string> before = db.rows("SELECT * FROM t ORDER BY id");
  for (const auto& c : cases) {
    for (const char* txn : {"", "BEGIN; "}) {
      if (*txn != '\0') db.exec(txn);
      const std::string err = db.try_exec(c.sql);
      EXPECT_NE(err.find(c.message), std::string::npos) << c.sql << ": " << err;
      if (*txn != '\0') db.exec("COMMIT");
      EXPECT_EQ(db.rows("SELECT * FROM t ORDER BY id"), before) << c.sql;
    }
  }
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
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
