// Bad input through both ways in, the zqrtree tool and the SQLite extension,
// each kind once: non-finite coordinates, min above max, wrong axis counts,
// rowids that are not whole or beyond the int64 range, over-long names,
// missing databases, indexes and node tables, empty, garbage and broken
// files, bad arguments and declarations. Each is refused with a message
// naming the input, the tool exits 1 (2 for usage), and no byte of the
// database changes — inside an open transaction too.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/tool_run.h"
#include "ext/ext_harness.h"

namespace {

using zqtest::dump_database;
using zqtest::Outcome;

const std::string kLong(124, 'n');  // one byte over the longest index name
const char* const kPoint = "{\"type\": \"Point\", \"coordinates\": [1, 2]}";

std::string feature(const std::string& geometry, const std::string& id = "",
                    const std::string& properties = "{}") {
  return "{\"type\": \"Feature\", " + (id.empty() ? "" : "\"id\": " + id + ", ") +
         "\"properties\": " + properties + ", \"geometry\": " + geometry + "}";
}

std::string collection(const std::string& features) {
  return "{\"type\": \"FeatureCollection\", \"features\": [" + features + "]}";
}

std::string gzip(const std::string& text) {
  z_stream zs{};
  std::string out(text.size() + 64, '\0');
  deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY);
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  zs.avail_in = static_cast<uInt>(text.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  deflate(&zs, Z_FINISH);
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

class HostileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    const std::string path = dir_.file(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // Placeholders: {db}, {nodb} (absent), {junkdb} (not a database), {rodb}
  // (in the read-only directory {rodir}), {lockeddb} (another process holds
  // its write lock), {file} (the case's input file), {long} (an over-long
  // name), {versions} (the library's and SQLite's).
  std::string fill(std::string s, const std::string& file) const {
    const std::pair<std::string, std::string> subst[] = {
        {"{junkdb}", junk_db_},
        {"{nodb}", no_db_},
        {"{rodb}", ro_db_},
        {"{rodir}", ro_dir_},
        {"{lockeddb}", locked_db_},
        {"{db}", db_},
        {"{file}", file},
        {"{long}", kLong},
        {"{versions}",
         std::string("libzqrtree ") + ZQ_VERSION + ", SQLite " + sqlite3_libversion()}};
    for (const auto& [from, to] : subst)
      for (size_t p; (p = s.find(from)) != std::string::npos;) s.replace(p, from.size(), to);
    return s;
  }

  zqtest::TempDir dir_;
  const std::string db_ = dir_.file("h.db");
  const std::string no_db_ = dir_.file("absent.db");
  const std::string junk_db_ = dir_.file("junk.db");
  const std::string ro_dir_ = dir_.file("ro");
  const std::string ro_db_ = ro_dir_ + "/r.db";
  const std::string locked_db_ = dir_.file("locked.db");
};

struct ToolCase {
  const char* args;  // split at spaces, then placeholders filled
  int status;
  const char* message;
  const char* file = "";  // {file}: written with `text` unless it is absent.csv
  std::string text = "";
};

TEST_F(HostileTest, ToolRefusesBadInputAndChangesNothing) {
  const auto tool = [&](const std::vector<std::string>& args) {
    return zqtest::run_tool(dir_, args);
  };
  ASSERT_EQ(tool({"create", db_, "t"}).status, 0);
  ASSERT_EQ(tool({"create", db_, "cube", "--dims", "3"}).status, 0);
  ASSERT_EQ(tool({"create", db_, "u"}).status, 0);
  ASSERT_EQ(tool({"load", db_, "t", write("ok.csv", "1,0,0,1,1\n2,5,5,6,6\n3,2,2,3,3\n")}).status,
            0);
  {
    // An index whose node table has gone missing behind the tool's back.
    zqext_test::Db raw(db_);
    raw.exec("DROP TABLE \"MDRT$u\"");
  }
  const char junk_bytes[] = "\x7f\x01garbage\xff\xfe\n\x00\x02not, a, database";
  const std::string junk(junk_bytes, sizeof junk_bytes - 1);
  write("junk.db", junk);
  const std::string whole = collection(feature(kPoint, "5"));
  const std::string cut = whole.substr(0, whole.size() - 2);
  // A database whose directory is read-only to the user (root is not held
  // back by permissions, so as root the tool runs as nobody there), and one
  // whose write lock another connection holds.
  for (const std::string& db : {ro_db_, locked_db_}) {
    std::filesystem::create_directories(std::filesystem::path(db).parent_path());
    ASSERT_EQ(tool({"create", db, "t"}).status, 0);
  }
  using std::filesystem::perms;
  const uid_t nobody = geteuid() == 0 ? 65534 : 0;
  std::filesystem::permissions(dir_.file(""), perms::others_exec,
                               std::filesystem::perm_options::add);
  // A reading connection leaves the WAL files behind; they must not be there
  // for the tool to use.
  const std::string ro_before = dump_database(ro_db_);
  for (const char* suffix : {"-wal", "-shm"}) std::filesystem::remove(ro_db_ + suffix);
  std::filesystem::permissions(
      ro_db_, perms::owner_read | perms::owner_write | perms::others_read | perms::others_write);
  std::filesystem::permissions(
      ro_dir_, perms::owner_read | perms::owner_exec | perms::others_read | perms::others_exec);
  zqext_test::Db locker(locked_db_);
  locker.exec("BEGIN IMMEDIATE");

  const ToolCase cases[] = {
      // Coordinates that are not finite, or out of order, as arguments and in files.
      {"insert {db} t 5 0,0,nan,1", 1, "rowid 5: max0 is not a finite number"},
      {"insert {db} t 5 0,0,1e400,1", 2, "coordinate 3 '1e400' is not a number"},
      {"query {db} t 0,x,1,1", 2, "coordinate 2 'x' is not a number"},
      {"query {db} t 0,0,nan,1", 1, "search box: max0 is not a finite number"},
      {"query {db} cube 0,0,5,1,1,4", 1, "search box: min2 5 is above max2 4"},
      {"insert {db} cube 5 0,0,5,1,1,4", 1, "rowid 5: min2 5 is above max2 4"},
      {"nearest {db} t nan,1", 1, "query box: min0 is not a finite number"},
      {"nearest {db} t 1,1 --max-distance -1", 2, "--max-distance -1 is not a number of 0"},
      {"load {db} t {file}", 1, "inf.csv:1: max0 is not a finite number", "inf.csv",
       "5,0,0,inf,1\n"},
      {"insert {db} t --file {file}", 1, "order.csv:3: min0 4 is above max0 3", "order.csv",
       "7,0,0,1,1\n\n8,4,0,3,1\n"},
      {"load {db} t {file}", 1, "num.csv:3: field 3 (min1): 'abc' is not a number", "num.csv",
       "id,min0,min1,max0,max1\n7,0,0,1,1\n8,0,abc,1,1\n"},
      {"load {db} t {file}", 1, "inf.geojson: layer 'inf', feature 0: min0 is not a finite number",
       "inf.geojson", collection(feature("{\"type\": \"Point\", \"coordinates\": [1e999, 0]}"))},
      // Wrong axis counts.
      {"insert {db} cube 5 0,0,1,1", 2, "box '0,0,1,1' has 4 coordinates; a 3-axis index needs 6"},
      {"query {db} t 0,0,0,1,1,1", 2, "has 6 coordinates; a 2-axis index needs 4"},
      {"delete {db} t 1 0,0,1", 2, "box '0,0,1' has 3 coordinates"},
      {"nearest {db} cube 1,2,3,4", 2,
       "query '1,2,3,4' has 4 coordinates; a 3-axis index takes a point of 3 or a box of 6"},
      {"insert {db} t --file {file}", 1, "axes.csv:1: 7 fields found, 5 expected", "axes.csv",
       "5,0,0,0,1,1,1\n"},
      {"load {db} cube {file}", 1,
       "feature 0: its POINT geometry has no Z; a 3-axis index needs 3-D", "flat.geojson",
       collection(feature("{\"type\": \"Point\", \"coordinates\": [1, 2]}"))},
      // Rowids that are not whole numbers, beyond int64, or taken.
      {"insert {db} t 9223372036854775808 0,0,1,1", 2,
       "ID '9223372036854775808' is not a whole number"},
      {"load {db} t {file}", 1, "id.csv:1: field 1 (id): '7.5' is not a whole number", "id.csv",
       "7.5,0,0,1,1\n"},
      {"load {db} t {file}", 1,
       "big.csv:1: field 1 (id): '9223372036854775808' is not a whole number", "big.csv",
       "9223372036854775808,0,0,1,1\n"},
      // 1.0 is a whole number (the first feature passes), 1.5 is not.
      {"load {db} t {file}", 1, "ids.geojson: layer 'ids', feature 1: \"id\": 41.5 is not a 64-bit",
       "ids.geojson", collection(feature(kPoint, "41.0") + ", " + feature(kPoint, "41.5"))},
      {"load {db} t {file} --id-field name", 1, "feature 1: field 'name': 'abc' is not a 64-bit",
       "name.geojson", collection(feature(kPoint, "1", "{\"name\": \"abc\"}"))},
      {"insert {db} t 1 5,5,6,6", 1, "duplicate rowid 1 (already in index 't')"},
      {"load {db} t {file}", 1, "dup.csv:3: duplicate rowid 7", "dup.csv",
       "7,0,0,1,1\n8,0,0,1,1\n7,0,0,2,2\n"},
      {"load {db} t {file}", 1, "old.csv:2: duplicate rowid 2 (already in index 't')", "old.csv",
       "7,0,0,1,1\n2,0,0,1,1\n"},
      {"insert {db} t --file {file}", 1, "dup.csv:3: duplicate rowid 7 in the input", "dup.csv",
       "7,0,0,1,1\n8,0,0,1,1\n7,0,0,2,2\n"},
      {"insert {db} t --file {file}", 1, "old.csv:2: duplicate rowid 2 (already in index 't')",
       "old.csv", "7,0,0,1,1\n2,0,0,1,1\n"},
      {"delete {db} t 9", 1, "rowid 9 is not in index 't'"},
      {"delete {db} t 1 0,0,1,2", 1, "is not its stored box"},
      // Names, databases, indexes and node tables that are wrong or missing.
      {"create {db} {long}", 1, "index name is 124 bytes long; at most 123 are allowed"},
      {"query {db} {long} 0,0,1,1", 1, "index name is 124 bytes long"},
      {"drop {db} {long}", 1, "index name is 124 bytes long"},
      {"create {db} t", 1, "index 't' already exists"},
      {"insert {nodb} t 5 0,0,1,1", 1, "database '{nodb}' does not exist"},
      {"load {nodb} t {file}", 1, "database '{nodb}' does not exist", "one.csv", "5,0,0,1,1\n"},
      {"query {db} nope 0,0,1,1", 1, "no index 'nope' in '{db}'"},
      {"drop {db} nope", 1, "no index 'nope' in '{db}'"},
      {"insert {db} u 5 0,0,1,1", 1,
       "index 'u' is in the catalog of '{db}' but its table \"MDRT$u\" is missing"},
      {"check {db} u", 1, "its table \"MDRT$u\" is missing"},
      {"query {junkdb} t 0,0,1,1", 1,
       "opening database '{junkdb}' failed (code -2226: file is not a database)"},
      // The file and the tool itself.
      {"insert {rodb} t 5 0,0,1,1", 1,
       "the journal of '{rodb}' cannot be created: its directory '{rodir}' is read-only"},
      {"insert {lockeddb} t 5 0,0,1,1 --busy-timeout 0.5", 1,
       "database '{lockeddb}' is locked by another process; waited for it as long as "
       "--busy-timeout allows"},
      {"--version", 0, "({versions})"},
      {"version", 0, "({versions})"},
      // Usage.
      {"query {db} t --op overlap 0,0,1,1", 2, "unknown operator 'overlap'"},
      {"qurey {db} t 0,0,1,1", 2, "unknown command 'qurey'; did you mean 'query'?"},
      {"frobnicate", 2, "unknown command 'frobnicate'; the commands are create, load,"},
      {"create {db}", 2, "INDEX is required"},
      {"create {db} w --dims 4", 2, ""},
      {"insert {db} t 2 0,0,1,1 --file x.csv", 2, "either ID and BOX or --file"},
      {"load {db} t - --fill 0.01", 1, "fill factor 0.01 is outside"},
      {"nearest {db} t 0,0 -k 5 --max-queue 1", 1, "needs more than 1 nodes and entries queued"},
      // Missing, empty, garbage and broken files.
      {"load {db} t {file}", 1, "cannot open '", "absent.csv"},
      {"load {db} t {file} --replace", 1, "empty.csv: no entries found", "empty.csv"},
      {"insert {db} t --file {file}", 1, "blank.csv: no entries found", "blank.csv", "\n\n"},
      {"load {db} t {file}", 1, "junk.csv:1: ", "junk.csv", junk},
      {"load {db} t {file} --format geojson", 1, "cannot open '{file}' as vector data", "junk.csv",
       junk},
      {"load {db} t {file}", 1, "cannot open '{file}' as vector data", "junk.shp", junk},
      {"load {db} t {file}", 1, "none.geojson: no entries found", "none.geojson",
       "{\"type\": \"FeatureCollection\", \"features\": []}"},
      {"load {db} t {file}", 1, "Missing 'features' member", "nokey.geojson",
       "{\"type\": \"FeatureCollection\"}"},
      {"load {db} t {file}", 1, "At line 3, character 11: Unexpected state", "bad.geojson",
       "{\"type\": \"FeatureCollection\",\n \"features\": [\n {\"id\": 1 \"x\"}]}"},
      {"load {db} t {file}", 1, "Unterminated array", "cut.geojson", cut},
      {"insert {db} t --file {file}", 1, "At line 2, character 1: Unexpected character",
       "after.geojson", cut + "]}\n{}"},
      {"load {db} t {file}", 1,
       "nogeom.geojson: layer 'nogeom', feature 4: the feature has no "
       "geometry",
       "nogeom.geojson", collection(feature("null", "4"))},
      {"load {db} t {file}", 1, "feature 3: the feature's geometry is empty", "empty.geojson",
       collection(feature("{\"type\": \"LineString\", \"coordinates\": []}", "3"))},
      // Taken in stride: a byte-order mark and gzip (the later line is what is wrong).
      {"load {db} t {file}", 1, "bom.csv:2: field 4 (max0): 'x' is not a number", "bom.csv",
       "\xEF\xBB\xBF"
       "5,0,0,1,1\n6,0,0,x,1\n"},
      {"load {db} t {file}", 1, "bom.geojson: layer 'bom', feature 7: the feature has no geometry",
       "bom.geojson", "\xEF\xBB\xBF" + collection(feature("null", "7"))},
      {"load {db} t {file}", 1, "data.csv.gz:2: min0 2 is above max0 1", "data.csv.gz",
       gzip("5,0,0,1,1\n6,2,2,1,1\n")},
      {"load {db} t {file}", 1, "quoted.csv:2: field 3 (min1): 'a\"b' is not a number",
       "quoted.csv", "\"5\", \" 0\" ,0,\"1\",1\n6,0,\"a\"\"b\",\"c\"\"d\",1\n"},
      {"load {db} t {file} --layer x", 1, "--layer, --id-field and --where apply to GIS", "one.csv",
       "5,0,0,1,1\n"},
      {"load {db} t {file} --layer x", 1, "no layer 'x' (layers: one)", "one.geojson",
       collection(feature(kPoint, "1"))},
      {"load {db} t {file} --where nope", 1, "layer 'one': --where 'nope': ", "one.geojson",
       collection(feature(kPoint, "1"))},
  };
  const std::string before = dump_database(db_);
  for (const ToolCase& c : cases) {
    const std::string file = *c.file != '\0' ? dir_.file(c.file) : "";
    if (*c.file != '\0' && std::string(c.file) != "absent.csv") write(c.file, c.text);
    std::vector<std::string> args;
    std::istringstream words(c.args);
    for (std::string w; words >> w;) args.push_back(fill(w, file));
    const bool ro = std::string(c.args).find("{rodb}") != std::string::npos;
    const Outcome r = zqtest::run_tool(dir_, args, "", {}, 0, ro ? nobody : 0);
    EXPECT_EQ(r.status, c.status) << c.args << " " << c.file << ": " << r.err;
    EXPECT_NE((r.err + r.out).find(fill(c.message, file)), std::string::npos)
        << c.args << ": " << r.err;
    EXPECT_EQ(dump_database(db_), before) << c.args << " " << c.file;
  }
  EXPECT_EQ(dump_database(ro_db_), ro_before);
  std::filesystem::permissions(ro_dir_, perms::owner_all, std::filesystem::perm_options::add);
  // A lock let go within the busy timeout is waited for.
  const std::string in = dir_.file("stdin"), out = dir_.file("stdout"), err = dir_.file("stderr");
  std::ofstream(in) << "";
  const pid_t waiting = zqtest::spawn_tool({"insert", locked_db_, "t", "5", "0,0,1,1"}, in, out,
                                           err, {"ZQRTREE_BUSY_TIMEOUT=20"});
  usleep(300000);
  locker.exec("COMMIT");
  EXPECT_EQ(zqtest::reap(waiting), 0) << zqtest::slurp(err);
  const Outcome bad_env =
      zqtest::run_tool(dir_, {"query", db_, "t", "0,0,1,1"}, "", {"ZQRTREE_SORT_MB=lots"});
  EXPECT_EQ(bad_env.status, 1);
  EXPECT_NE(bad_env.err.find("ZQRTREE_SORT_MB='lots'"), std::string::npos) << bad_env.err;
  EXPECT_FALSE(std::filesystem::exists(no_db_)) << "a missing database was created";
  EXPECT_EQ(zqtest::slurp(junk_db_), junk);
  EXPECT_EQ(tool({"check", db_, "t"}).status, 0);
}

// A 2-D cells blob as an SQL literal: one entry per id, each spanning [0, 10]
// on both axes.
std::string cells(const std::vector<int64_t>& ids) {
  std::string bytes(4, '\0');
  const uint32_t n = static_cast<uint32_t>(ids.size());
  std::memcpy(bytes.data(), &n, 4);
  for (int64_t id : ids) {
    bytes.append(reinterpret_cast<const char*>(&id), 8);
    for (double v : {0.0, 0.0, 10.0, 10.0}) bytes.append(reinterpret_cast<const char*>(&v), 8);
  }
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string hex = "X'";
  for (unsigned char c : bytes) {
    hex += kDigits[c >> 4];
    hex += kDigits[c & 15];
  }
  return hex + "'";
}

// Node rows damaged behind the tool's back. Every operation that reads one
// fails at once, never hangs or crashes, says which node of which index is
// damaged and what to do, prints the error stack, and changes nothing.
TEST_F(HostileTest, DamagedNodeRowsFailAtOnceAndChangeNothing) {
  std::string csv;
  for (int id = 1; id <= 120; ++id) csv += std::to_string(id) + ",1,1,2,2\n";
  const std::string input = write("boxes.csv", csv);
  const auto node = [](int64_t id, int level, int64_t parent, const std::string& blob) {
    return "INSERT INTO \"MDRT$t\" (rowid, level, parent_id, cells) VALUES (" + std::to_string(id) +
           ", " + std::to_string(level) + ", " + std::to_string(parent) + ", " + blob + ");";
  };
  const struct {
    std::string damage;
    const char* says;
  } cases[] = {
      {"UPDATE \"MDRT$t\" SET cells = CAST(X'FFFFFF7F' || zeroblob(24) AS BLOB) WHERE rowid = 1",
       "node 1 of index 't' is damaged: entry count 2147483647 in a 28-byte blob exceeds 51"},
      {"UPDATE \"MDRT$t\" SET cells = 'abc' WHERE rowid = 1",
       "node 1 of index 't' is damaged: cells column holds text, not a blob"},
      {"UPDATE \"MDRT$t\" SET cells = CAST(substr(cells, 1, 12) || X'000000000000F87F' || "
       "substr(cells, 21) AS BLOB) WHERE rowid = 1",
       "node 1 of index 't' is damaged: entry 0 has a NaN coordinate"},
      {"UPDATE \"MDRT$t\" SET level = 300 WHERE rowid = 1",
       "node 1 of index 't' is damaged: level 300 is out of range (0 to 40)"},
      // A leaf that is its own parent, under the root and as the root: an
      // insert's walk up the parents would go round for ever.
      {"DELETE FROM \"MDRT$t\";" + node(1, 1, 0, cells({2})) + node(2, 0, 2, cells({2, 7})),
       "node 2 of index 't' is damaged: parent_id names the node itself"},
      {"DELETE FROM \"MDRT$t\";" + node(1, 0, 1, cells({1, 7})),
       "node 1 of index 't' is damaged: the root's parent_id is 1, not 0"},
      // Branches holding each other under a tall root: a search would walk
      // 2^40 paths.
      {"DELETE FROM \"MDRT$t\";" + node(1, 40, 0, cells({2, 3})) + node(2, 39, 1, cells({3, 4})) +
           node(3, 39, 1, cells({2, 4})) + node(4, 39, 1, cells({2, 3})),
       "node 2 of index 't' is damaged: entry 0 names node 3, which node 1 holds"},
  };
  const std::vector<std::vector<std::string>> ops = {{"query", db_, "t", "0,0,10,10"},
                                                     {"insert", db_, "t", "500", "1,1,2,2"},
                                                     {"delete", db_, "t", "7"}};
  for (const auto& c : cases) {
    std::filesystem::remove(db_);
    ASSERT_EQ(zqtest::run_tool(dir_, {"create", db_, "t"}).status, 0);
    ASSERT_EQ(zqtest::run_tool(dir_, {"load", db_, "t", input}).status, 0);
    zqext_test::Db(db_).exec(c.damage);
    const std::string before = dump_database(db_);
    // A tree written by hand holds entries the index's own record of its rows
    // knows nothing of: only searches and inserts, which need the node table
    // alone, run on it.
    const bool by_hand = c.damage.rfind("DELETE", 0) == 0;
    for (const auto& op : ops) {
      if (by_hand && op[0] == "delete") continue;
      const Outcome r = zqtest::run_tool(dir_, op, "", {}, 20);
      EXPECT_EQ(r.status, 1) << op[0] << " on " << c.says << ": " << r.err;
      for (const char* part :
           {c.says, "; run `zqrtree check`, then `zqrtree repair`", "error stack, innermost first"})
        EXPECT_NE(r.err.find(part), std::string::npos) << op[0] << ": " << r.err;
      EXPECT_EQ(dump_database(db_), before) << op[0] << " on " << c.says;
    }
  }
  // The extension reads through the same guard.
  zqext_test::Db db(dir_.file("e.db"));
  db.exec("CREATE VIRTUAL TABLE v USING zqrtree(id, lo0, hi0, lo1, hi1)");
  db.exec("INSERT INTO v VALUES (1, 0, 1, 0, 1)");
  db.exec("UPDATE \"MDRT$v\" SET cells = 'abc' WHERE rowid = 1");
  EXPECT_NE(db.try_exec("SELECT id FROM v WHERE hi0 >= 0 AND lo0 <= 1")
                .find("node 1 of index 'v' is damaged: cells column holds text"),
            std::string::npos);
}

// The ends of the rowid range are ordinary rowids, in both ways in.
TEST_F(HostileTest, ExtremeRowidsAreOrdinaryEntries) {
  ASSERT_EQ(zqtest::run_tool(dir_, {"create", db_, "t"}).status, 0);
  for (const char* id : {"9223372036854775807", "-9223372036854775808", "0"}) {
    const Outcome r = zqtest::run_tool(dir_, {"insert", db_, "t", id, "1,1,2,2"});
    ASSERT_EQ(r.status, 0) << id << ": " << r.err;
  }
  Outcome r = zqtest::run_tool(dir_, {"query", db_, "t", "--op", "equal", "1,1,2,2"});
  EXPECT_EQ(zqtest::sorted_lines(r.out), "-9223372036854775808\n0\n9223372036854775807\n");
  EXPECT_EQ(zqtest::run_tool(dir_, {"delete", db_, "t", "9223372036854775807"}).status, 0);
  EXPECT_EQ(zqtest::run_tool(dir_, {"delete", db_, "t", "-9223372036854775808", "1,1,2,2"}).status,
            0);
  r = zqtest::run_tool(dir_, {"query", db_, "t", "--op", "equal", "1,1,2,2"});
  EXPECT_EQ(r.out, "0\n");
  EXPECT_EQ(zqtest::run_tool(dir_, {"check", db_, "t"}).status, 0);

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

// Changes are refused in autocommit mode and inside BEGIN ... COMMIT, where
// SQLite does not undo a failed statement of a virtual table by itself.
TEST_F(HostileTest, ExtensionRefusesBadInputAndChangesNothing) {
  const std::string path = dir_.file("e.db");
  zqext_test::Db db(path);
  db.exec("CREATE VIRTUAL TABLE t USING zqrtree(id, lo0, hi0, lo1, hi1)");
  db.exec("CREATE VIRTUAL TABLE cube USING zqrtree(id, lo0, hi0, lo1, hi1, lo2, hi2)");
  db.exec("CREATE TABLE src (id INTEGER PRIMARY KEY, a REAL, b REAL, c REAL, d REAL)");
  db.exec("INSERT INTO src VALUES (1, 0, 1, 0, 1), (2, 1, 3, 1, 3), (3, 5, 6, 5, 6)");
  db.exec("INSERT INTO t VALUES (1, 0, 1, 0, 1), (2, 5, 6, 5, 6)");
  db.exec("INSERT INTO cube VALUES (1, 0, 1, 0, 1, 0, 1)");
  {
    // An index whose node table another connection lost.
    zqext_test::Db other(path);
    other.exec("CREATE VIRTUAL TABLE u USING zqrtree(id, lo, hi); INSERT INTO u VALUES (1, 0, 1)");
    other.exec("DROP TABLE \"MDRT$u\"");
  }
  const struct {
    std::string sql;
    std::string message;
  } cases[] = {
      // Rows.
      {"INSERT INTO t VALUES (5, 0, 1e999, 0, 1)", "\"t\": rowid 5: hi0 is not a finite number"},
      {"INSERT INTO t(id, lo0, hi0) VALUES (5, 0, 1)", "\"t\": rowid 5: lo1 NULL is not a number"},
      {"INSERT INTO t VALUES (5, 0, 1, 0, 'x')", "\"t\": rowid 5: hi1 'x' is not a number"},
      {"INSERT INTO t VALUES (5, 2, 1, 0, 1)", "\"t\": rowid 5: lo0 2 is above hi0 1"},
      {"INSERT INTO cube VALUES (5, 0, 1, 0, 1, 3, 2)", "\"cube\": rowid 5: lo2 3 is above hi2 2"},
      {"INSERT INTO t VALUES (9223372036854775808, 0, 1, 0, 1)",
       "\"t\": inserting: id '9.22337203685478e+18' is not an integer"},
      {"INSERT INTO t (rowid, id, lo0, hi0, lo1, hi1) VALUES (3, 4, 0, 1, 0, 1)", "differ"},
      {"INSERT INTO t VALUES (1, 0, 1, 0, 1)", "rowid 1 is already indexed"},
      {"UPDATE t SET hi1 = 1e999 WHERE id = 1", "\"t\": rowid 1: hi1 is not a finite number"},
      {"UPDATE t SET lo0 = 9 WHERE id = 2", "\"t\": rowid 2: lo0 9 is above hi0 6"},
      {"UPDATE t SET id = 9223372036854775808 WHERE id = 1",
       "\"t\": updating rowid 1: id '9.22337203685478e+18' is not an integer"},
      {"UPDATE t SET id = 2 WHERE id = 1", "rowid 2 is already indexed"},
      {"UPDATE t SET id = NULL WHERE id = 1", "id may not be NULL"},
      {"INSERT INTO u VALUES (2, 0, 1)", "but its table \"MDRT$u\" is missing"},
      {"DELETE FROM u WHERE id = 1", "but its table \"MDRT$u\" is missing"},
      // Searches.
      {"SELECT * FROM t('near', 0, 1, 0, 1)", "unknown operator 'near'"},
      {"SELECT * FROM t('within', 0, 1)", "an operator and 4 coordinates"},
      {"SELECT * FROM t('within', 0, 1, 'a', 1)", "zq_min1 is not a number"},
      {"SELECT * FROM t('within', 2, 1, 0, 1)", "min0 2 is above max0 1"},
      {"SELECT * FROM t(x'00', 0, 1, 0, 1)", "the operator must be text"},
      {"SELECT * FROM t('nearest', 0, 1, 0, 1, -2)", "zq_k -2 is not a whole number of 0 or more"},
      {"SELECT * FROM t('nearest', 0, 1, 0, 1, 2.5)", "zq_k 2.5 is not a whole number"},
      {"SELECT * FROM t('nearest', 2, 1, 0, 1)", "min0 2 is above max0 1"},
      {"SELECT * FROM t('within', 0, 1, 0, 1, 3)", "goes with the operator 'nearest' only"},
      // Functions.
      {"SELECT zqrtree_load('t', 'SELECT 9223372036854775808, 0, 1, 0, 1')",
       "\"t\": loading: row 1 of the query: the id is not an integer"},
      {"SELECT zqrtree_load('t', 'SELECT 5, 0, 1e999, 0, 1')",
       "\"t\": loading: row 1 of the query: max0 is not a finite number"},
      {"SELECT zqrtree_load('t', 'SELECT id, b, a, c, d FROM src WHERE id = 2')", "above"},
      {"SELECT zqrtree_load('t', 'SELECT id + 0, a, b, c, d FROM src WHERE id = 1')",
       "duplicate rowid 1"},
      {"SELECT zqrtree_load('t', 'SELECT 5, 0, 1, 0')",
       "\"t\": zqrtree_load query: the query gives 4 columns; expected 5"},
      {"SELECT zqrtree_load('t', 'garbage')", "\"t\": zqrtree_load query: near \"garbage\""},
      {"SELECT zqrtree_load('nope', 'SELECT 5, 0, 1, 0, 1')", "zqrtree_load: no table 'nope'"},
      {"SELECT zqrtree_load('src', 'SELECT * FROM src')", "not a zqrtree table"},
      {"SELECT zqrtree_load('t', 'SELECT * FROM src', 'x')",
       "zqrtree_load: fill factor 'x' is not a number"},
      {"SELECT zqrtree_load('t', 'SELECT * FROM src', 0.01)", "fill factor"},
      {"BEGIN; SELECT zqrtree_load('t', 'SELECT * FROM src WHERE id > 1')", "outside BEGIN"},
      {"SELECT zqrtree_defer('t', 2)", "zqrtree_defer: the mode is 0 or 1, not '2'"},
      {"SELECT zqrtree_check('nope')", "zqrtree_check: no table 'nope'"},
      // Declarations.
      {"CREATE VIRTUAL TABLE " + kLong + " USING zqrtree(id, lo, hi)",
       "index name is 124 bytes long; at most 123 are allowed"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a, b, c)", "1 to 3 pairs"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a, b, c, d, e, f, g, h)", "got 9 arguments"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a, A)", "named twice"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, zq_op, b)", "search arguments"},
      {"CREATE VIRTUAL TABLE w USING zqrtree(id, a REAL, b)", "plain name"},
      {"ALTER TABLE t RENAME TO elsewhere", "cannot be renamed"},
  };
  const std::string before = dump_database(path);
  for (const auto& c : cases) {
    const bool change = c.sql.rfind("INSERT", 0) == 0 || c.sql.rfind("UPDATE", 0) == 0 ||
                        c.sql.rfind("DELETE", 0) == 0;
    for (const char* txn : {"", "BEGIN; "}) {
      if (*txn != '\0' && !change) continue;
      if (*txn != '\0') db.exec(txn);
      const std::string err = db.try_exec(c.sql);
      EXPECT_NE(err.find(c.message), std::string::npos) << txn << c.sql << ": '" << err << "'";
      if (sqlite3_get_autocommit(db.get()) == 0) db.exec("COMMIT");
      EXPECT_EQ(dump_database(path), before) << txn << c.sql;
    }
  }
  EXPECT_EQ(db.one("SELECT zqrtree_check('t')"), "ok");
  EXPECT_EQ(db.one("SELECT zqrtree_check('cube')"), "ok");
}

}  // namespace
