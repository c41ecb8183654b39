// Nearest-neighbour searches through SQL, t('nearest', box[, k]), against
// the brute-force model: every query form, one to three axes, joins, the
// plans that let SQLite skip its sort, and inside transactions in direct and
// deferred mode. Small integer coordinates make equal distances common, so
// the order of ties (by rowid) is tested throughout. Bad arguments are the
// hostile suite's.
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

using Answer = std::vector<std::pair<int64_t, double>>;

// The rowid and distance of every row of a query, as SQLite hands them out.
Answer answer(Db& db, const std::string& sql) {
  Answer out;
  sqlite3_stmt* st = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &st, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db.get()) << "\n"
      << sql;
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW)
    out.emplace_back(sqlite3_column_int64(st, 0), sqlite3_column_double(st, 1));
  EXPECT_EQ(rc, SQLITE_DONE) << sqlite3_errmsg(db.get()) << "\n" << sql;
  sqlite3_finalize(st);
  return out;
}

std::vector<std::pair<int64_t, Box>> model_rows(const std::vector<Row>& rows) {
  std::vector<std::pair<int64_t, Box>> out;
  for (const Row& r : rows) out.emplace_back(r.id, r.box);
  return out;
}

// The rows of table `m`, an ordinary table of t's columns.
std::vector<Row> rows_of(Db& db, const std::string& m, int dims) {
  std::vector<Row> out;
  sqlite3_stmt* st = nullptr;
  const std::string sql = "SELECT " + columns_sql(dims) + " FROM " + m;
  EXPECT_EQ(sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &st, nullptr), SQLITE_OK);
  while (sqlite3_step(st) == SQLITE_ROW) {
    Row r{sqlite3_column_int64(st, 0), Box{}};
    for (int k = 0; k < dims; ++k) {
      r.box.min[k] = sqlite3_column_double(st, 1 + 2 * k);
      r.box.max[k] = sqlite3_column_double(st, 2 + 2 * k);
    }
    out.push_back(r);
  }
  sqlite3_finalize(st);
  return out;
}

// Every form of the search on table t, for one query box, against the model.
void expect_model(Db& db, const std::vector<Row>& rows, const Box& q, int dims) {
  const auto model = model_rows(rows);
  const double inf = HUGE_VAL;
  const std::string from = "FROM t('nearest', " + box_sql(q, dims);
  const struct {
    std::string sql;
    uint64_t k;
    double max_distance;
  } forms[] = {
      {"SELECT id, distance " + from + ", 1)", 1, inf},
      {"SELECT id, distance " + from + ", 10)", 10, inf},
      {"SELECT id, distance " + from + ", 100)", 100, inf},
      {"SELECT id, distance " + from + ", 100000)", 0, inf},  // beyond the table
      {"SELECT id, distance " + from + ")", 0, inf},          // every row, nearest first
      {"SELECT id, distance " + from + ") LIMIT 7", 7, inf},
      {"SELECT id, distance " + from + ") ORDER BY distance, id LIMIT 12", 12, inf},
      {"SELECT id, distance " + from + ") WHERE distance <= 6.5", 0, 6.5},
      {"SELECT id, distance " + from + ", 30) WHERE distance < 4", 30, std::nextafter(4.0, 0.0)},
      {"SELECT id, distance " + from + ", 0)", 0, -1},
  };
  for (const auto& f : forms)
    EXPECT_EQ(answer(db, f.sql), zqtool::model_nearest(model, q, dims, f.k, f.max_distance))
        << f.sql;
}

// Points and boxes inside the data, and one far outside it.
std::vector<Box> queries(std::mt19937& rng, int dims) {
  std::vector<Box> out;
  for (int i = 0; i < 4; ++i) {
    Box q = random_box(rng, dims);
    if (i % 2 == 0)
      for (int k = 0; k < dims; ++k) q.max[k] = q.min[k];
    out.push_back(q);
  }
  Box far;
  for (int k = 0; k < dims; ++k) far.min[k] = far.max[k] = -500.0 - 7 * k;
  out.push_back(far);
  return out;
}

TEST(ExtNearest, EveryFormMatchesTheModelOnOneToThreeAxes) {
  for (int dims = 1; dims <= 3; ++dims) {
    SCOPED_TRACE("dims " + std::to_string(dims));
    Db db;
    db.exec(create_sql("t", dims));
    std::mt19937 rng(60 + dims);
    std::vector<Row> rows;
    expect_model(db, rows, random_box(rng, dims), dims);  // empty
    for (int64_t id = 1; id <= 400; ++id) {
      // Exact duplicates tie at every distance.
      const Box b = id % 10 == 0 ? rows[rng() % rows.size()].box : random_box(rng, dims);
      rows.push_back({id, b});
      db.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + box_sql(b, dims) + ")");
    }
    for (const Box& q : queries(rng, dims)) expect_model(db, rows, q, dims);
  }
}

// Two squared distances a rounding step apart can share a root; the rows
// still come in rowid order at that distance, as ORDER BY distance, id (which
// SQLite then leaves to the search) requires, and a count cuts them so.
TEST(ExtNearest, EqualDistancesComeByRowidEvenWhereTheirSquaresDiffer) {
  double y = 1.0;
  do y = std::nextafter(y, 2.0);
  while (1.0 + y * y == 2.0 || std::sqrt(1.0 + y * y) != std::sqrt(2.0));
  Db db;
  char sql[160];
  std::snprintf(sql, sizeof sql, "INSERT INTO t VALUES (1, 1, 1, %.17g, %.17g), (2, 1, 1, 1, 1)", y,
                y);
  db.exec(create_sql("t", 2) + "; " + sql);
  EXPECT_EQ(db.ids("SELECT id FROM t('nearest', 0, 0, 0, 0)"), (std::vector<int64_t>{1, 2}));
  EXPECT_EQ(db.ids("SELECT id FROM t('nearest', 0, 0, 0, 0, 1)"), (std::vector<int64_t>{1}));
}

// "For each school, the 3 nearest parks": k travels with each outer row, and
// SQLite must put the schools outside whichever order the FROM lists them in.
TEST(ExtNearest, AJoinGivesEachOuterRowItsOwnNearest) {
  Db db;
  db.exec(create_sql("t", 2) + "; CREATE TABLE s (id INTEGER PRIMARY KEY, x, y, k)");
  std::mt19937 rng(9);
  std::vector<Row> parks;
  for (int64_t id = 1; id <= 300; ++id) {
    parks.push_back({id, random_box(rng, 2, 60)});
    db.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " + box_sql(parks.back().box, 2) +
            ")");
  }
  Answer expected;
  for (int school = 1; school <= 25; ++school) {
    Box at;
    at.min[0] = at.max[0] = static_cast<double>(rng() % 70);
    at.min[1] = at.max[1] = static_cast<double>(rng() % 70);
    const uint64_t k = 1 + school % 4;
    db.exec("INSERT INTO s VALUES (" + std::to_string(school) + ", " + std::to_string(at.min[0]) +
            ", " + std::to_string(at.min[1]) + ", " + std::to_string(k) + ")");
    for (const auto& hit : zqtool::model_nearest(model_rows(parks), at, 2, k, HUGE_VAL))
      expected.push_back(hit);
  }
  const std::string p = "t('nearest', s.x, s.x, s.y, s.y, s.k) p";
  for (const std::string& from : {"s, " + p, p + ", s"}) {
    const std::string sql =
        "SELECT p.id, p.distance FROM " + from + " ORDER BY s.id, p.distance, p.id";
    EXPECT_EQ(answer(db, sql), expected) << sql;
    const std::vector<std::string> plan = db.rows("EXPLAIN QUERY PLAN " + sql);
    ASSERT_GE(plan.size(), 2u);
    EXPECT_NE(plan[0].find("SCAN s"), std::string::npos) << from << ": " << plan[0];
  }
}

// A constant 'nearest' hands rows out in distance order, then rowid order;
// SQLite sorts only what asks for another order or where the operator is
// not known when the query is planned.
TEST(ExtNearest, SQLiteSortsOnlyWhatTheSearchDoesNotOrder) {
  const struct {
    const char* order_by;
    bool sorts;
  } cases[] = {
      {"ORDER BY distance", false},
      {"ORDER BY distance, id", false},
      {"ORDER BY distance, rowid", false},
      {"ORDER BY distance ASC, id ASC", false},
      {"ORDER BY distance DESC", true},
      {"ORDER BY distance, id DESC", true},
      {"ORDER BY id", true},
      {"ORDER BY distance, lo0", true},
  };
  Db db;
  db.exec(create_sql("t", 2));
  for (const auto& c : cases)
    for (const char* op : {"'nearest'", "?1"}) {
      const std::string sql = std::string("EXPLAIN QUERY PLAN SELECT id FROM t(") + op +
                              ", 1, 1, 2, 2) " + c.order_by + " LIMIT 3";
      bool sorted = false;
      for (const std::string& line : db.rows(sql))
        sorted |= line.find("TEMP B-TREE") != std::string::npos;
      EXPECT_EQ(sorted, c.sorts || op[0] == '?') << sql;
    }
}

// Inside a transaction the rows come from the changes not yet committed:
// through the transaction's handle in direct mode, merged from the pending
// changes in deferred mode; both must be the model of the rows as they are.
class ExtNearestTxn : public ::testing::TestWithParam<bool> {};

TEST_P(ExtNearestTxn, SeesUncommittedChanges) {
  Db db;
  db.exec(create_sql("t", 2) + "; CREATE TABLE m (id INTEGER PRIMARY KEY, lo0, hi0, lo1, hi1)");
  if (GetParam()) {
    EXPECT_EQ(db.one("SELECT zqrtree_defer('t', 1)"), "1");
  }
  std::mt19937 rng(GetParam() ? 21 : 22);
  auto change = [&](int n) {
    for (int i = 0; i < n; ++i) {
      const std::string id = std::to_string(1 + rng() % 200);
      const std::string box = box_sql(random_box(rng, 2), 2);
      const char* sql = rng() % 3 == 0 ? "DELETE FROM $T WHERE id = $I"
                        : rng() % 2    ? "INSERT OR REPLACE INTO $T VALUES ($I, $B)"
                                       : "UPDATE $T SET lo0 = lo0 - 3, hi1 = hi1 + 2 WHERE id = $I";
      std::string s = sql;
      s.replace(s.find("$I"), 2, id);
      if (s.find("$B") != std::string::npos) s.replace(s.find("$B"), 2, box);
      on_both(db, s, "t", "m");
    }
  };
  auto check = [&] {
    const std::vector<Row> rows = rows_of(db, "m", 2);
    for (const Box& q : queries(rng, 2)) expect_model(db, rows, q, 2);
  };
  change(150);  // each statement commits by itself
  for (const char* step :
       {"BEGIN", "+", "?", "SAVEPOINT a", "+", "?", "ROLLBACK TO a", "?", "+", "COMMIT", "?"}) {
    SCOPED_TRACE(step);
    if (step[0] == '+')
      change(60);
    else if (step[0] == '?')
      check();
    else
      db.exec(step);
  }
}

INSTANTIATE_TEST_SUITE_P(Mode, ExtNearestTxn, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "deferred" : "direct"; });

}  // namespace
}  // namespace zqext_test
