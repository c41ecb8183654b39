// Hostile input through both ways in, the zqrtree tool and the SQLite
// extension: non-finite coordinates, min above max, wrong axis counts,
// rowids at and beyond the int64 range, over-long names, missing databases,
// indexes and node tables, empty and garbage files, broken GeoJSON. Each is
// refused with a message naming the input, the tool exits 1 (2 for usage),
// and no byte of the database changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/tool_run.h"
#include "ext/ext_harness.h"

namespace {

using zqtest::dump_database;
using zqtest::Outcome;

const std::string kLong(124, 'n');  // one byte over the longest index name

class HostileTest : public ::testing::Test {
 protected:
  Outcome run(std::vector<std::string> args) { return zqtest::run_tool(dir_, args); }

  std::string write(const std::string& name, const std::string& text) {
    const std::string path = dir_.file(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // Placeholders of the table: {db}, {nodb} (absent), {junkdb} (not a
  // database), {file} (the case's input file), {long} (an over-long name).
  std::string fill(std::string s, const std::string& file) const {
    const std::pair<std::string, std::string> subst[] = {{"{junkdb}", junk_db_},
                                                         {"{nodb}", no_db_},
                                                         {"{db}", db_},
                                                         {"{file}", file},
                                                         {"{long}", kLong}};
    for (const auto& [from, to] : subst)
      for (size_t p; (p = s.find(from)) != std::string::npos;) s.replace(p, from.size(), to);
    return s;
  }

  zqtest::TempDir dir_;
  const std::string db_ = dir_.file("h.db");
  const std::string no_db_ = dir_.file("absent.db");
  const std::string junk_db_ = dir_.file("junk.db");
};

TEST_F(HostileTest, ToolRefusesHostileInputAndChangesNothing) {
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  ASSERT_EQ(run({"create", db_, "cube", "--dims", "3"}).status, 0);
  ASSERT_EQ(run({"create", db_, "u"}).status, 0);
  ASSERT_EQ(run({"load", db_, "t", write("ok.csv", "1,0,0,1,1\n2,5,5,6,6\n3,2,2,3,3\n")}).status,
            0);
  {
    // An index whose node table has gone missing behind the tool's back.
    zqext_test::Db raw(db_);
    raw.exec("DROP TABLE \"MDRT$u\"");
  }
  const char junk_bytes[] = "\x7f\x01garbage\xff\xfe\n\x00\x02not, a, database";
  const std::string junk(junk_bytes, sizeof junk_bytes - 1);
  write("junk.db", junk);

  struct Case {
    std::vector<std::string> args;
    std::string file_name, file_text;  // {file}, when the case reads one
    int status;
    std::string message;
  };
  const std::string cut = "{\"features\": [{\"id\": 5, \"bbox\": [0, 0, 1, 1]}";
  const Case cases[] = {
      // Coordinates that are not finite, or out of order.
      {{"insert", "{db}", "t", "5", "0,0,nan,1"},
       "",
       "",
       1,
       "rowid 5: max0 is not a finite number"},
      {{"insert", "{db}", "t", "5", "0,inf,1,1"},
       "",
       "",
       1,
       "rowid 5: min1 is not a finite number"},
      {{"insert", "{db}", "t", "5", "0,0,1e400,1"},
       "",
       "",
       2,
       "coordinate 3 '1e400' is not a number"},
      {{"query", "{db}", "t", "0,0,nan,1"}, "", "", 1, "search box: max0 is not a finite number"},
      {{"query", "{db}", "t", "0,0,1,inf"}, "", "", 1, "search box: max1 is not a finite number"},
      {{"query", "{db}", "cube", "0,0,5,1,1,4"}, "", "", 1, "search box: min2 5 is above max2 4"},
      {{"insert", "{db}", "cube", "5", "0,0,5,1,1,4"},
       "",
       "",
       1,
       "rowid 5: min2 5 is above max2 4"},
      {{"load", "{db}", "t", "{file}"},
       "inf.csv",
       "5,0,0,inf,1\n",
       1,
       "inf.csv:1: max0 is not a finite number"},
      {{"load", "{db}", "t", "{file}"},
       "order.csv",
       "5,0,0,1,1\n6,0,9,1,8\n",
       1,
       "order.csv:2: min1 9 is above max1 8"},
      {{"load", "{db}", "t", "{file}"},
       "inf.geojson",
       "{\"features\": [{\"bbox\": [0, 0, 1e999, 1]}]}",
       1,
       "inf.geojson: line 1: '1e999' is not a number"},
      // Wrong axis counts.
      {{"insert", "{db}", "cube", "5", "0,0,1,1"},
       "",
       "",
       2,
       "box '0,0,1,1' has 4 coordinates; a 3-axis index needs 6"},
      {{"query", "{db}", "t", "0,0,0,1,1,1"},
       "",
       "",
       2,
       "has 6 coordinates; a 2-axis index needs 4"},
      {{"delete", "{db}", "t", "1", "0,0,1"}, "", "", 2, "box '0,0,1' has 3 coordinates"},
      {{"insert", "{db}", "t", "--file", "{file}"},
       "axes.csv",
       "5,0,0,0,1,1,1\n",
       1,
       "axes.csv:1: 7 fields found, 5 expected"},
      // Rowids beyond int64, as arguments and in files.
      {{"insert", "{db}", "t", "9223372036854775808", "0,0,1,1"},
       "",
       "",
       2,
       "ID '9223372036854775808' is not a whole number"},
      {{"delete", "{db}", "t", "-9223372036854775809"},
       "",
       "",
       2,
       "ID '-9223372036854775809' is not a whole number"},
      {{"delete", "{db}", "t", "99999999999999999999"},
       "",
       "",
       2,
       "ID '99999999999999999999' is not a whole number"},
      {{"load", "{db}", "t", "{file}"},
       "big.csv",
       "9223372036854775808,0,0,1,1\n",
       1,
       "big.csv:1: field 1 (id): '9223372036854775808' is not a whole number"},
      {{"load", "{db}", "t", "{file}"},
       "big.geojson",
       "{\"features\": [{\"id\": -9223372036854775809, \"bbox\": [0, 0, 1, 1]}]}",
       1,
       "big.geojson:1 (feature 1): field \"id\": '-9223372036854775809' is not a whole number"},
      // Over-long names, for every command that takes one.
      {{"create", "{db}", "{long}"},
       "",
       "",
       1,
       "index name is 124 bytes long; at most 123 are allowed"},
      {{"insert", "{db}", "{long}", "5", "0,0,1,1"}, "", "", 1, "index name is 124 bytes long"},
      {{"load", "{db}", "{long}", "{file}"},
       "one.csv",
       "5,0,0,1,1\n",
       1,
       "index name is 124 bytes long"},
      {{"query", "{db}", "{long}", "0,0,1,1"}, "", "", 1, "index name is 124 bytes long"},
      {{"drop", "{db}", "{long}"}, "", "", 1, "index name is 124 bytes long"},
      // Missing databases, indexes and node tables; a file that is no database.
      {{"insert", "{nodb}", "t", "5", "0,0,1,1"}, "", "", 1, "database '{nodb}' does not exist"},
      {{"load", "{nodb}", "t", "{file}"},
       "one.csv",
       "5,0,0,1,1\n",
       1,
       "database '{nodb}' does not exist"},
      {{"query", "{db}", "nope", "0,0,1,1"}, "", "", 1, "no index 'nope' in '{db}'"},
      {{"drop", "{db}", "nope"}, "", "", 1, "no index 'nope' in '{db}'"},
      {{"insert", "{db}", "u", "5", "0,0,1,1"},
       "",
       "",
       1,
       "index 'u' is in the catalog of '{db}' but its table \"MDRT$u\" is missing"},
      {{"check", "{db}", "u"}, "", "", 1, "its table \"MDRT$u\" is missing"},
      {{"query", "{junkdb}", "t", "0,0,1,1"},
       "",
       "",
       1,
       "opening database '{junkdb}' failed (code -2226: file is not a database)"},
      {{"load", "{db}", "t", "{file}"}, "absent.csv", "", 1, "cannot open '"},
      // Empty and garbage files.
      {{"load", "{db}", "t", "{file}"}, "empty.csv", "", 1, "empty.csv: no entries found"},
      {{"load", "{db}", "t", "{file}", "--replace"},
       "empty.csv",
       "",
       1,
       "empty.csv: no entries found"},
      {{"insert", "{db}", "t", "--file", "{file}"},
       "blank.csv",
       "\n\n",
       1,
       "blank.csv: no entries found"},
      {{"load", "{db}", "t", "{file}"}, "junk.csv", junk, 1, "junk.csv:1: "},
      {{"load", "{db}", "t", "{file}", "--format", "geojson"},
       "junk.csv",
       junk,
       1,
       "junk.csv: line 1: expected '{'"},
      // GeoJSON with no features, or not well formed.
      {{"load", "{db}", "t", "{file}"},
       "none.geojson",
       "{\"type\": \"FeatureCollection\", \"features\": []}",
       1,
       "none.geojson: no entries found"},
      {{"load", "{db}", "t", "{file}"},
       "nokey.geojson",
       "{\"type\": \"FeatureCollection\"}",
       1,
       "nokey.geojson: no \"features\" array"},
      {{"load", "{db}", "t", "{file}"},
       "cut.geojson",
       cut,
       1,
       "cut.geojson: line 1: expected ']' but the input ended"},
      {{"load", "{db}", "t", "{file}"},
       "tail.geojson",
       cut + "], \"x\": ",
       1,
       "tail.geojson: line 1: a value was expected but the input ended"},
      {{"load", "{db}", "t", "{file}"},
       "after.geojson",
       cut + "]}\n{}",
       1,
       "after.geojson: line 2: unexpected text after the GeoJSON object"},
      {{"load", "{db}", "t", "{file}"},
       "quote.geojson",
       "{'features': []}",
       1,
       "quote.geojson: line 1: expected '\"' but found '''"},
      {{"load", "{db}", "t", "{file}"},
       "array.geojson",
       "[{\"id\": 5}]",
       1,
       "array.geojson: line 1: expected '{' but found '['"},
      {{"insert", "{db}", "t", "--file", "{file}"},
       "comma.geojson",
       "{\"features\": [{\"id\": 5, \"bbox\": [0, 0, 1, 1]},]}",
       1,
       "comma.geojson: line 1: "},
  };
  const std::string before = dump_database(db_);
  for (const Case& c : cases) {
    const std::string file = c.file_name.empty() ? "" : dir_.file(c.file_name);
    if (!c.file_name.empty() && c.file_name != "absent.csv") write(c.file_name, c.file_text);
    std::vector<std::string> args;
    for (const std::string& a : c.args) args.push_back(fill(a, file));
    const std::string what =
        c.args[0] + " " + (c.args.size() > 2 ? fill(c.args[2], file) : "") + " " + c.file_name;
    const Outcome r = run(args);
    EXPECT_EQ(r.status, c.status) << what << ": " << r.err;
    EXPECT_NE(r.err.find(fill(c.message, file)), std::string::npos) << what << ": " << r.err;
    EXPECT_EQ(dump_database(db_), before) << what;
  }
  EXPECT_FALSE(std::filesystem::exists(no_db_)) << "a missing database was created";
  EXPECT_EQ(zqtest::slurp(junk_db_), junk);
  EXPECT_EQ(run({"check", db_, "t"}).status, 0);
}

// The ends of the rowid range are ordinary rowids.
TEST_F(HostileTest, ExtremeRowidsAreOrdinaryEntries) {
  ASSERT_EQ(run({"create", db_, "t"}).status, 0);
  for (const char* id : {"9223372036854775807", "-9223372036854775808", "0"}) {
    Outcome r = run({"insert", db_, "t", id, "1,1,2,2"});
    ASSERT_EQ(r.status, 0) << id << ": " << r.err;
  }
  Outcome r = run({"query", db_, "t", "--op", "equal", "1,1,2,2"});
  std::vector<std::string> hits;
  for (size_t p = 0, e; (e = r.out.find('\n', p)) != std::string::npos; p = e + 1)
    hits.push_back(r.out.substr(p, e - p));
  std::sort(hits.begin(), hits.end());
  EXPECT_EQ(hits, (std::vector<std::string>{"-9223372036854775808", "0", "9223372036854775807"}));
  EXPECT_EQ(run({"delete", db_, "t", "9223372036854775807"}).status, 0);
  EXPECT_EQ(run({"delete", db_, "t", "-9223372036854775808", "1,1,2,2"}).status, 0);
  r = run({"query", db_, "t", "--op", "equal", "1,1,2,2"});
  EXPECT_EQ(r.out, "0\n");
  EXPECT_EQ(run({"check", db_, "t"}).status, 0);

  zqext_test::Db db(dir_.file("e.db"));
  db.exec("CREATE VIRTUAL TABLE v USING zqrtree(id, lo0, hi0, lo1, hi1)");
  db.exec("INSERT INTO v VALUES (9223372036854775807, 1, 2, 1, 2)");
  db.exec("INSERT INTO v VALUES (-9223372036854775808, 1, 2, 1, 2)");
  EXPECT_EQ(db.ids("SELECT id FROM v WHERE lo0 <= 1.5 AND hi0 >= 1.5 ORDER BY id"),
            (std::vector<int64_t>{INT64_MIN, INT64_MAX}));
  EXPECT_EQ(db.ids("SELECT id FROM v WHERE id = 9223372036854775807"),
            (std::vector<int64_t>{INT64_MAX}));
  db.exec("DELETE FROM v WHERE id = 9223372036854775807");
  EXPECT_EQ(db.ids("SELECT id FROM v"), (std::vector<int64_t>{INT64_MIN}));
  EXPECT_EQ(db.one("SELECT zqrtree_check('v')"), "ok");
}

TEST_F(HostileTest, ExtensionRefusesHostileInputAndChangesNothing) {
  const std::string path = dir_.file("e.db");
  zqext_test::Db db(path);
  db.exec("CREATE VIRTUAL TABLE t USING zqrtree(id, lo0, hi0, lo1, hi1)");
  db.exec("CREATE VIRTUAL TABLE cube USING zqrtree(id, lo0, hi0, lo1, hi1, lo2, hi2)");
  db.exec("CREATE VIRTUAL TABLE u USING zqrtree(id, lo, hi)");
  db.exec("INSERT INTO t VALUES (1, 0, 1, 0, 1), (2, 5, 6, 5, 6)");
  db.exec("INSERT INTO cube VALUES (1, 0, 1, 0, 1, 0, 1)");
  db.exec("INSERT INTO u VALUES (1, 0, 1)");
  db.exec("DROP TABLE \"MDRT$u\"");
  struct Case {
    std::string sql;
    std::string message;
  };
  const Case cases[] = {
      {"INSERT INTO t VALUES (5, 0, 1e999, 0, 1)", "\"t\": rowid 5: hi0 is not a finite number"},
      {"INSERT INTO t VALUES (5, -1e999, 1, 0, 1)", "\"t\": rowid 5: lo0 is not a finite number"},
      // SQLite turns a NaN into NULL before the table sees it.
      {"INSERT INTO t VALUES (5, 0, 1, 0, 0.0 / 0)", "\"t\": rowid 5: hi1 NULL is not a number"},
      {"INSERT INTO t VALUES (5, 0, 1, 0, 'x')", "\"t\": rowid 5: hi1 'x' is not a number"},
      {"INSERT INTO t VALUES (5, 2, 1, 0, 1)", "\"t\": rowid 5: lo0 2 is above hi0 1"},
      {"INSERT INTO cube VALUES (5, 0, 1, 0, 1, 3, 2)", "\"cube\": rowid 5: lo2 3 is above hi2 2"},
      {"UPDATE t SET hi1 = 1e999 WHERE id = 1", "\"t\": rowid 1: hi1 is not a finite number"},
      {"UPDATE t SET lo0 = 9 WHERE id = 2", "\"t\": rowid 2: lo0 9 is above hi0 6"},
      {"INSERT INTO t(id, lo0, hi0) VALUES (5, 0, 1)", "\"t\": rowid 5: lo1 NULL is not a number"},
      {"INSERT INTO t VALUES (5, 0, 1, 0, 1, 9)",
       "table t has 5 columns but 6 values were supplied"},
      {"INSERT INTO t VALUES (9223372036854775808, 0, 1, 0, 1)",
       "\"t\": inserting: id '9.22337203685478e+18' is not an integer"},
      {"INSERT INTO t VALUES ('99999999999999999999', 0, 1, 0, 1)",
       "\"t\": inserting: id '1.0e+20' is not an integer"},
      {"UPDATE t SET id = 9223372036854775808 WHERE id = 1",
       "\"t\": updating rowid 1: id '9.22337203685478e+18' is not an integer"},
      {"SELECT zqrtree_load('t', 'SELECT 9223372036854775808, 0, 1, 0, 1')",
       "\"t\": loading: row 1 of the query: the id is not an integer"},
      {"SELECT zqrtree_load('t', 'SELECT 5, 0, 1e999, 0, 1')",
       "\"t\": loading: row 1 of the query: max0 is not a finite number"},
      {"SELECT zqrtree_load('t', 'SELECT 5, 0, 1, 0')",
       "\"t\": zqrtree_load query: the query gives 4 columns; expected 5"},
      {"SELECT zqrtree_load('t', 'garbage')", "\"t\": zqrtree_load query: near \"garbage\""},
      {"SELECT zqrtree_load('nope', 'SELECT 5, 0, 1, 0, 1')", "zqrtree_load: no table 'nope'"},
      {"SELECT zqrtree_load('t', 'SELECT 5, 0, 1, 0, 1', 'x')",
       "zqrtree_load: fill factor 'x' is not a number"},
      {"SELECT zqrtree_defer('t', 'x')", "zqrtree_defer: the mode is 0 or 1, not 'x'"},
      {"SELECT zqrtree_defer('t', 2)", "zqrtree_defer: the mode is 0 or 1, not '2'"},
      {"SELECT zqrtree_check('nope')", "zqrtree_check: no table 'nope'"},
      {"CREATE VIRTUAL TABLE " + kLong + " USING zqrtree(id, lo, hi)",
       "index name is 124 bytes long; at most 123 are allowed"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a, b, c)", "\"w\": expected USING zqrtree("},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a, b, c, d, e, f, g, h)", "got 9 arguments"},
      {"CREATE VIRTUAL TABLE nodb.w USING zqrtree(id, lo, hi)", "unknown database nodb"},
      {"INSERT INTO u VALUES (2, 0, 1)", "but its table \"MDRT$u\" is missing"},
      {"DELETE FROM u WHERE id = 1", "but its table \"MDRT$u\" is missing"},
  };
  const std::string before = dump_database(path);
  for (const Case& c : cases) {
    const std::string err = db.try_exec(c.sql);
    EXPECT_NE(err.find(c.message), std::string::npos) << c.sql << ": '" << err << "'";
    EXPECT_EQ(dump_database(path), before) << c.sql;
  }
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
  EXPECT_EQ(db.one("SELECT zqrtree_check('cube')"), "ok");
}

}  // namespace
