// Shared test scaffolding: a real SQLite session with a node table, the
// default row callbacks installed, and readable access to the error stack.
#ifndef ZQ_TESTS_COMMON_FIXTURE_H
#define ZQ_TESTS_COMMON_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
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

  int64_t count_rows(const char* table = "MDRT$t") {
    std::string sql = std::string("SELECT count(*) FROM \"") + table + "\"";
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(zqsess_db(sess_), sql.c_str(), -1, &st, nullptr), SQLITE_OK);
    int64_t n = -1;
    if (sqlite3_step(st) == SQLITE_ROW) n = sqlite3_column_int64(st, 0);
    sqlite3_finalize(st);
    return n;
  }

  std::vector<Pushed> errors() const { return error_stack(env_); }

  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_index index_{"t", nullptr, nullptr, nullptr};
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
