// Scaffolding for the host's own tests: a session on an in-memory database
// with the node table "MDRT$t", scratch memory, and helpers that drive row
// actions the way the library does (key, ptx, callback, commit) and read the
// table back through plain SQL. The R-tree library is not used.
#ifndef ZQ_TESTS_HOST_HOST_FIXTURE_H
#define ZQ_TESTS_HOST_HOST_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/host.h"

namespace zqhosttest {

// A scratch heap wrapped in a memory object, destroyed with the guard.
class Scratch {
 public:
  explicit Scratch(zq_env* env) : env_(env) {
    obj_ = rt_memobj_heap_create_fast_ex(env, &storage_, 2048, __FILE__, __LINE__);
  }
  ~Scratch() {
    if (obj_ != nullptr) rt_memobj_destroy(env_, obj_);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  zq_memobj* get() const { return obj_; }

 private:
  zq_env* env_;
  zq_memobj storage_{};
  zq_memobj* obj_ = nullptr;
};

// One stored node-table row as SQL sees it.
struct SqlRow {
  int64_t rowid;
  int64_t level;
  int64_t parent;
  std::vector<uint8_t> cells;
  int64_t sys;
  bool operator==(const SqlRow& o) const {
    return rowid == o.rowid && level == o.level && parent == o.parent && cells == o.cells &&
           sys == o.sys;
  }
};

inline std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
  return v;
}

class HostFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = zqenv_create();
    ASSERT_NE(env_, nullptr);
    int32_t code = 0;
    sess_ = zqsess_open(env_, ":memory:", &code);
    ASSERT_NE(sess_, nullptr) << code;
    ASSERT_EQ(zqsess_create_node_table(sess_, "main", "t"), 0);
    scope_ = zqsess_scope(sess_, "main");
    ASSERT_NO_FATAL_FAILURE(find_table("MDRT$t"));
  }

  void TearDown() override {
    if (sess_ != nullptr) zqsess_close(sess_);
    zqenv_destroy(env_);
  }

  void find_table(const char* name) {
    int32_t code = 0;
    table_ = ndct_find_table_by_name_with_code(env_, nullptr, scope_, name, &code);
    ASSERT_NE(table_, nullptr) << code;
    index_ = ndct_table_get_nth_valid_real_index(env_, nullptr, table_, 0, &code);
    ASSERT_NE(index_, nullptr) << code;
    btr_ = ndct_phy_index_get_btr(index_);
    desc_ = btr_->desc;
  }

  // A node row as the library packs one: level, parent, cells, sys 0, rowid.
  zq_row* make_row(zq_memobj* mem, int64_t rowid, int32_t level, int64_t parent,
                   const std::vector<uint8_t>& cells) {
    zq_row* row = tuple4_space_create(env_, mem, desc_);
    if (row == nullptr) return nullptr;
    row->cols[0].notnull = 1;
    row->cols[0].u.i32 = level;
    row->cols[1].notnull = 1;
    row->cols[1].u.i64 = parent;
    EXPECT_EQ(binary_assign_const_ex(env_, mem, &row->cols[2], static_cast<uint32_t>(cells.size()),
                                     cells.data()),
              0);
    row->cols[3].u.i64 = 0;
    row->cols[4].notnull = 1;
    row->cols[4].u.i64 = rowid;
    return row;
  }

  // Inserts one row through slot 4 in its own write ptx; the callback's code.
  int32_t insert(int64_t rowid, int32_t level, int64_t parent, const std::vector<uint8_t>& cells) {
    Scratch mem(env_);
    zq_key* key = tuple4_key_create(env_, mem.get(), desc_, rowid, __FILE__, __LINE__);
    zq_row* row = make_row(mem.get(), rowid, level, parent, cells);
    if (key == nullptr || row == nullptr) return -503;
    zq_ptx ptx;
    int32_t rc = ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__);
    if (rc < 0) return rc;
    rc = zqhost_row_insert(&ptx, sess_, table_, index_, desc_, row, key, 0, 0);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return rc;
  }

  std::vector<SqlRow> rows() {
    std::vector<SqlRow> out;
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(zqsess_db(sess_),
                                 "SELECT rowid, level, parent_id, cells, sys FROM \"MDRT$t\" "
                                 "ORDER BY rowid",
                                 -1, &st, nullptr),
              SQLITE_OK);
    while (sqlite3_step(st) == SQLITE_ROW) {
      auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(st, 3));
      std::vector<uint8_t> cells(p, p + sqlite3_column_bytes(st, 3));
      out.push_back({sqlite3_column_int64(st, 0), sqlite3_column_int64(st, 1),
                     sqlite3_column_int64(st, 2), cells, sqlite3_column_int64(st, 4)});
    }
    sqlite3_finalize(st);
    return out;
  }

  void exec(const char* sql) {
    char* err = nullptr;
    ASSERT_EQ(sqlite3_exec(zqsess_db(sess_), sql, nullptr, nullptr, &err), SQLITE_OK) << err;
  }

  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_table* table_ = nullptr;
  zq_index* index_ = nullptr;
  zq_btr* btr_ = nullptr;
  zq_recdesc* desc_ = nullptr;
};

// The bytes of a record's binary field.
inline std::vector<uint8_t> field_bytes(zq_env* env, const zq_recdesc* desc, const zq_nrec* rec,
                                        uint16_t col) {
  uint16_t len = 32767;
  const uint8_t* p = nrec_get_nth_fld(env, desc, rec, col, nullptr, &len);
  return std::vector<uint8_t>(p, p + len);
}

}  // namespace zqhosttest

#endif
