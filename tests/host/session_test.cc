// Sessions and the dictionary: lookups by exact name, the cached
// engine objects and when they are replaced, user transactions, and opening
// and wrapping connections.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "host/internal.h"
#include "tests/common/fixture.h"

namespace {

using zqtest::pattern;

class SessionTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    find_table();
  }

  zq_table* lookup(const char* schema, const char* name, int32_t* code) {
    return ndct_find_table_by_name_with_code(env_, nullptr, zqsess_scope(sess_, schema), name,
                                             code);
  }
};

TEST_F(SessionTest, LookupsByExactName) {
  exec("CREATE VIEW \"MDRT$v\" AS SELECT 1");
  exec("CREATE TABLE \"MDRT$w\" (a INTEGER PRIMARY KEY, b) WITHOUT ROWID");
  exec(
      "CREATE TEMP TABLE \"MDRT$tmp\" (level INTEGER NOT NULL, parent_id INTEGER NOT NULL,"
      " cells BLOB NOT NULL, sys INTEGER NOT NULL DEFAULT 0)");
  exec("CREATE INDEX idx_t ON \"MDRT$t\" (parent_id)");
  struct Case {
    const char* schema;
    const char* name;
    int32_t table_code;
    int32_t index_code;
  };
  const Case cases[] = {
      {"main", "MDRT$t", 0, 0},
      {"main", "MDRT$T", zqhost::kErrNoTable, 0},  // names match exactly
      {"main", "MDRT$", zqhost::kErrNoTable, 0},
      {"main", "MDRT$v", zqhost::kErrNoTable, 0},  // a view is no table
      {"main", "MDRT$w", 0, zqhost::kErrNoIndex},  // no rowid B-tree to key by
      {"temp", "MDRT$tmp", 0, 0},
      {"main", "MDRT$tmp", zqhost::kErrNoTable, 0},
      {"nosuch", "MDRT$t", zqhost::kErrNoTable, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + "." + c.name);
    int32_t code = 1;
    zq_table* t = lookup(c.schema, c.name, &code);
    EXPECT_EQ(code, c.table_code);
    EXPECT_EQ(t == nullptr, c.table_code < 0);
    if (t == nullptr) continue;
    EXPECT_STREQ(t->name, c.name);
    zq_index* index = ndct_table_get_nth_valid_real_index(env_, nullptr, t, 0, &code);
    EXPECT_EQ(code, c.index_code);
    if (index == nullptr) continue;
    EXPECT_EQ(index->table, t);
    EXPECT_EQ(ndct_phy_index_get_btr(index)->desc->n_cols, 5);
    // The rowid B-tree is the only real index, secondary SQLite indexes or not.
    EXPECT_EQ(ndct_table_get_nth_valid_real_index(env_, nullptr, t, 1, &code), nullptr);
    EXPECT_EQ(code, zqhost::kErrNoIndex);
  }
}

TEST_F(SessionTest, ObjectsAreCachedUntilTheTableChanges) {
  int32_t code = 0;
  zq_table* first = lookup("main", "MDRT$t", &code);
  zq_recdesc* desc = zqsess_table_recdesc(sess_, "main", "MDRT$t");
  ASSERT_NE(desc, nullptr);
  desc->no_inplace_parent = 1;
  EXPECT_EQ(lookup("main", "MDRT$t", &code), first);

  // Another table's creation changes the schema but not this table.
  ASSERT_EQ(zqsess_create_node_table(sess_, "main", "other"), 0);
  EXPECT_EQ(lookup("main", "MDRT$t", &code), first);
  EXPECT_EQ(zqsess_table_recdesc(sess_, "main", "MDRT$t")->no_inplace_parent, 1);

  // Replaced by a table of other columns: a new object; the old one stays
  // readable for whoever still holds it.
  exec("DROP TABLE \"MDRT$t\"");
  exec("CREATE TABLE \"MDRT$t\" (x REAL, sys INTEGER)");
  zq_table* second = lookup("main", "MDRT$t", &code);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_STREQ(first->name, "MDRT$t");
  EXPECT_EQ(zqsess_table_recdesc(sess_, "main", "MDRT$t")->n_cols, 3) << "x, sys, rowid";

  exec("DROP TABLE \"MDRT$t\"");
  EXPECT_EQ(lookup("main", "MDRT$t", &code), nullptr);
  EXPECT_EQ(code, zqhost::kErrNoTable);
}

TEST_F(SessionTest, TableWithoutSystemColumnGetsAVirtualOne) {
  exec("CREATE TABLE plain (a INTEGER, b BLOB)");
  exec("INSERT INTO plain (rowid, a, b) VALUES (8, 1099511627776, x'616263')");
  ASSERT_NO_FATAL_FAILURE(find_table("plain"));
  EXPECT_EQ(desc_->n_cols, 4) << "a, b, the system column, rowid";
  zqtest::Scratch mem(env_);
  pbcur pc;
  pbcur_init_low(&pc, nullptr, btr_, __FILE__, __LINE__);
  ASSERT_EQ(pbcur_open(&pc, tuple4_key_create(env_, mem.get(), desc_, 8, "", 0), 1, 4, mem.get()),
            0);
  ASSERT_EQ(pc.found, 1u);
  int64_t v[4] = {};
  for (uint16_t col : {0, 2, 3})
    nrec_copy_nth_field_data_lint64(env_, desc_, pc.rec, &v[col], col, nullptr);
  EXPECT_EQ(v[0], 1LL << 40);
  EXPECT_EQ(v[2], 0);
  EXPECT_EQ(v[3], 8);
  EXPECT_EQ(zqtest::field_bytes(env_, desc_, pc.rec, 1), (std::vector<uint8_t>{'a', 'b', 'c'}));
  pbcur_close(&pc);
}

TEST_F(SessionTest, UserTransactions) {
  ASSERT_EQ(zqsess_begin(sess_), 0);
  EXPECT_EQ(zqsess_begin(sess_), zqhost::kErrTxnState);
  ASSERT_EQ(put_row(1, 0, 0, pattern(4, 1)), 0);
  ASSERT_EQ(zqsess_rollback(sess_), 0);
  EXPECT_TRUE(sql_rows().empty());

  ASSERT_NO_FATAL_FAILURE(find_table("MDRT$t"));  // the rollback dropped the old objects
  ASSERT_EQ(zqsess_begin(sess_), 0);
  ASSERT_EQ(put_row(1, 0, 0, pattern(4, 1)), 0);
  ASSERT_EQ(zqsess_commit(sess_), 0);
  EXPECT_EQ(sql_rows().size(), 1u);
  EXPECT_EQ(zqsess_commit(sess_), 0) << "nothing open: nothing to do";
  EXPECT_EQ(zqsess_rollback(sess_), 0);
  EXPECT_EQ(sql_rows().size(), 1u);
}

TEST(SessionOpen, FilesUseWalAndBadPathsFail) {
  zq_env* env = zqenv_create();
  int32_t code = 0;
  EXPECT_EQ(zqsess_open(env, "/nonexistent-dir/x/y.db", &code), nullptr);
  EXPECT_LT(code, 0);

  std::string path = testing::TempDir() + "zqhost_session_" + std::to_string(getpid()) + ".db";
  zq_session* s = zqsess_open(env, path.c_str(), &code);
  ASSERT_NE(s, nullptr) << code;
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(zqsess_db(s), "PRAGMA journal_mode", -1, &st, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)), "wal");
  sqlite3_finalize(st);
  ASSERT_EQ(zqsess_create_node_table(s, "main", "f"), 0);
  EXPECT_LT(zqsess_create_node_table(s, "main", "f"), 0) << "already there";
  zqenv_destroy(env);  // closes the session it still has
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

TEST(SessionWrap, LeavesTheCallersConnectionOpen) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  zq_env* env = zqenv_create();
  zq_session* s = zqsess_wrap(env, db);
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(zqsess_create_node_table(s, "main", "t"), 0);
  zq_tmptab* tab = zqtmp_create_spatial(s, 1);
  ASSERT_NE(tab, nullptr);
  zqsess_close(s);
  zqenv_destroy(env);
  // Still usable, with the host's temporary table gone and its own kept.
  EXPECT_EQ(sqlite3_exec(db, "SELECT count(*) FROM \"MDRT$t\"", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_NE(sqlite3_exec(db, "SELECT count(*) FROM temp.zq_spt_1", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(sqlite3_close(db), SQLITE_OK) << "no statement of the host left behind";
}

}  // namespace
