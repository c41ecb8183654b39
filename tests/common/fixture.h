// Shared test scaffolding: a real SQLite session with a node table, the
// default row callbacks installed, readable access to the error stack, and
// for tests below the library the engine objects of a table, node rows put
// in place through the row callbacks and read back with plain SQL.
#ifndef ZQ_TESTS_COMMON_FIXTURE_H
#define ZQ_TESTS_COMMON_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "driver/default_hooks.h"
#include "host/host.h"
#include "zqrtree/zqrtree.h"

namespace zqtest {

inline void install_default_hooks() {
  zq_install_default_hooks();
}

struct Pushed {
  int32_t code;
  std::string func;
  bool operator==(const Pushed& o) const { return code == o.code && func == o.func; }
};

inline std::vector<Pushed> error_stack(const zq_env* env) {
  std::vector<Pushed> out;
  for (size_t i = 0; i < zqenv_err_count(env); ++i) {
    zq_err_entry e = zqenv_err_at(env, i);
    out.push_back({e.code, e.func});
  }
  return out;
}

inline void PrintTo(const Pushed& p, std::ostream* os) {
  *os << "{" << p.code << ", " << p.func << "}";
}

// The node table of index "t", one "rowid|level|parent_id|hex(cells)" line
// per row in rowid order: equal dumps mean the table is unchanged.
inline std::string node_table_dump(zq_session* sess) {
  std::string out;
  sqlite3_stmt* st = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(zqsess_db(sess),
                               "SELECT rowid, level, parent_id, hex(cells) FROM \"MDRT$t\" "
                               "ORDER BY rowid",
                               -1, &st, nullptr),
            SQLITE_OK);
  while (sqlite3_step(st) == SQLITE_ROW) {
    for (int c = 0; c < 4; ++c) {
      out += reinterpret_cast<const char*>(sqlite3_column_text(st, c));
      out += c < 3 ? '|' : '\n';
    }
  }
  sqlite3_finalize(st);
  return out;
}

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
  int64_t rowid, level, parent;
  std::vector<uint8_t> cells;
  int64_t sys;
  bool operator==(const SqlRow& o) const = default;
};

inline std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
  return v;
}

// The bytes of a record's binary field.
inline std::vector<uint8_t> field_bytes(zq_env* env, const zq_recdesc* desc, const zq_nrec* rec,
                                        uint16_t col) {
  uint16_t len = 32767;
  const uint8_t* p = nrec_get_nth_fld(env, desc, rec, col, nullptr, &len);
  return std::vector<uint8_t>(p, p + len);
}

// A fresh in-memory database (or a file, when a test asks for one) holding
// the empty node table of index "t".
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    install_default_hooks();
    env_ = zqenv_create();
    ASSERT_NE(env_, nullptr);
    open_session(":memory:");
  }

  void TearDown() override {
    if (sess_ != nullptr) zqsess_close(sess_);
    if (env_ != nullptr) zqenv_destroy(env_);
    g_rtr_buf_total_size = 0;
  }

  void open_session(const char* path, bool create_table = true) {
    int32_t code = 0;
    sess_ = zqsess_open(env_, path, &code);
    ASSERT_NE(sess_, nullptr) << "code " << code;
    if (create_table) {
      ASSERT_EQ(zqsess_create_node_table(sess_, "main", "t"), 0);
    }
    scope_ = zqsess_scope(sess_, "main");
  }

  void reopen_session(const char* path) {
    zqsess_close(sess_);
    sess_ = nullptr;
    open_session(path, false);
  }

  rtr_mem* open_handle(uint16_t dims, uint32_t read_mode = 0) {
    rtr_mem* rtr = nullptr;
    int32_t rc = rtr_mem_create(env_, sess_, dims, scope_, &index_, read_mode, &rtr);
    EXPECT_EQ(rc, 0);
    return rtr;
  }

  // An empty root (rowid 1) at `level`, written through the node-table layer
  // as a new index starts (level 0) or under a test's own children.
  void write_empty_root(uint16_t dims, uint32_t level = 0) {
    rtr_mem* h = open_handle(dims);
    ASSERT_NE(h, nullptr);
    rtr_node* root = nullptr;
    ASSERT_EQ(rtr_node_create(env_, h, level, RTR_ROOT_ID, &root), 0);
    root->n_cells = 0;
    ASSERT_EQ(rtr_phy_insert_node(env_, h, root), 0);
    rtr_node_destroy(h, root);
    rtr_mem_destroy(env_, h);
  }

  // The first column of the first row of `sql`, or -1 when there is none.
  int64_t sql_int(const std::string& sql) {
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(zqsess_db(sess_), sql.c_str(), -1, &st, nullptr), SQLITE_OK);
    int64_t n = -1;
    if (sqlite3_step(st) == SQLITE_ROW) n = sqlite3_column_int64(st, 0);
    sqlite3_finalize(st);
    return n;
  }

  int64_t count_rows(const char* table = "MDRT$t") {
    return sql_int(std::string("SELECT count(*) FROM \"") + table + "\"");
  }

  std::vector<Pushed> errors() const { return error_stack(env_); }

  void exec(const char* sql) {
    char* err = nullptr;
    ASSERT_EQ(sqlite3_exec(zqsess_db(sess_), sql, nullptr, nullptr, &err), SQLITE_OK) << err;
  }

  // The engine objects of table `name`, as the library looks them up.
  void find_table(const char* name = "MDRT$t") {
    int32_t code = 0;
    table_ = ndct_find_table_by_name_with_code(env_, nullptr, scope_, name, &code);
    ASSERT_NE(table_, nullptr) << code;
    real_index_ = ndct_table_get_nth_valid_real_index(env_, nullptr, table_, 0, &code);
    ASSERT_NE(real_index_, nullptr) << code;
    btr_ = ndct_phy_index_get_btr(real_index_);
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

  // Inserts one row through the host's slot 4 in its own write ptx.
  int32_t put_row(int64_t rowid, int32_t level, int64_t parent, const std::vector<uint8_t>& cells) {
    Scratch mem(env_);
    zq_key* key = tuple4_key_create(env_, mem.get(), desc_, rowid, __FILE__, __LINE__);
    zq_row* row = make_row(mem.get(), rowid, level, parent, cells);
    if (key == nullptr || row == nullptr) return -503;
    zq_ptx ptx;
    int32_t rc = ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__);
    if (rc < 0) return rc;
    rc = zqhost_row_insert(&ptx, sess_, table_, real_index_, desc_, row, key, 0, 0);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return rc;
  }

  std::vector<SqlRow> sql_rows() {
    std::vector<SqlRow> out;
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(zqsess_db(sess_),
                                 "SELECT rowid, level, parent_id, cells, sys FROM \"MDRT$t\" "
                                 "ORDER BY rowid",
                                 -1, &st, nullptr),
              SQLITE_OK);
    while (sqlite3_step(st) == SQLITE_ROW) {
      auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(st, 3));
      out.push_back(
          {sqlite3_column_int64(st, 0), sqlite3_column_int64(st, 1), sqlite3_column_int64(st, 2),
           std::vector<uint8_t>(p, p + sqlite3_column_bytes(st, 3)), sqlite3_column_int64(st, 4)});
    }
    sqlite3_finalize(st);
    return out;
  }

  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_index index_{"t", nullptr, nullptr, nullptr};
  // Set by find_table.
  zq_table* table_ = nullptr;
  zq_index* real_index_ = nullptr;
  zq_btr* btr_ = nullptr;
  zq_recdesc* desc_ = nullptr;
};

// Real data sets live beside the repository; a user's clone has none.
inline std::string shared_data(const char* file) {
  return std::string(ZQ_SHARED_DATA_DIR) + "/" + file;
}
inline bool have_shared_data(const char* file) {
  FILE* f = std::fopen(shared_data(file).c_str(), "rb");
  if (f == nullptr) return false;
  std::fclose(f);
  return true;
}
#define ZQ_REQUIRE_SHARED_DATA(file)                                                       \
  do {                                                                                     \
    if (!::zqtest::have_shared_data(file))                                                 \
      GTEST_SKIP() << "real data set " << file << " not found in ../shared/data; skipped"; \
  } while (0)

}  // namespace zqtest

#endif
