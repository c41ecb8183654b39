// Test scaffolding for the SQLite extension: a plain SQLite connection with
// zqrtree_ext loaded from the build tree, small SQL helpers and random boxes;
// answers are checked against the brute-force model of tools/model.h.
#ifndef ZQ_TESTS_EXT_EXT_HARNESS_H
#define ZQ_TESTS_EXT_EXT_HARNESS_H

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tools/model.h"

namespace zqext_test {

// A file in the test temporary directory, unique to this process: several
// builds may run their suites at once.
inline std::string temp_path(const std::string& name) {
  return ::testing::TempDir() + std::to_string(getpid()) + "_" + name;
}

inline std::string extension_path() {
  return std::string(ZQ_BUILD_DIR) + "/sqlite_ext/zqrtree_ext.so";
}

// A connection with the extension loaded; closed with sqlite3_close so a
// statement the extension forgot to finalize fails the test.
class Db {
 public:
  explicit Db(const std::string& path = ":memory:") {
    EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK);
    sqlite3_enable_load_extension(db_, 1);
    char* err = nullptr;
    const int rc = sqlite3_load_extension(db_, extension_path().c_str(), nullptr, &err);
    EXPECT_EQ(rc, SQLITE_OK) << (err != nullptr ? err : "") << " loading " << extension_path();
    sqlite3_free(err);
  }
  ~Db() { EXPECT_EQ(sqlite3_close(db_), SQLITE_OK) << sqlite3_errmsg(db_); }
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  sqlite3* get() const { return db_; }

  // Runs SQL; "" on success, else SQLite's message.
  std::string try_exec(const std::string& sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
    std::string msg = rc == SQLITE_OK ? "" : (err != nullptr ? err : sqlite3_errmsg(db_));
    sqlite3_free(err);
    return msg;
  }
  void exec(const std::string& sql) { ASSERT_EQ(try_exec(sql), "") << sql; }

  // Every row of a query, columns joined with '|'.
  std::vector<std::string> rows(const std::string& sql) {
    std::vector<std::string> out;
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db_) << "\n"
        << sql;
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
      std::string row;
      for (int c = 0; c < sqlite3_column_count(st); ++c) {
        if (c > 0) row += "|";
        const unsigned char* text = sqlite3_column_text(st, c);
        row += text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
      }
      out.push_back(row);
    }
    EXPECT_EQ(rc, SQLITE_DONE) << sqlite3_errmsg(db_) << "\n" << sql;
    sqlite3_finalize(st);
    return out;
  }
  std::string one(const std::string& sql) {
    std::vector<std::string> r = rows(sql);
    return r.empty() ? "<no row>" : r[0];
  }
  std::vector<int64_t> ids(const std::string& sql) {
    std::vector<int64_t> out;
    for (const std::string& r : rows(sql)) out.push_back(std::stoll(r));
    return out;
  }

 private:
  sqlite3* db_ = nullptr;
};

using zq::Box;

struct Row {
  int64_t id;
  Box box;
};

// Small integer coordinates, so edges touch and boxes repeat often.
inline Box random_box(std::mt19937& rng, int dims, int span = 20) {
  Box b;
  std::uniform_int_distribution<int> pos(0, span), len(0, span / 4);
  for (int k = 0; k < dims; ++k) {
    b.min[k] = pos(rng);
    b.max[k] = b.min[k] + len(rng);
  }
  return b;
}

// "min0, max0, min1, max1" values of a box as SQL text.
inline std::string box_sql(const Box& b, int dims) {
  std::string out;
  for (int k = 0; k < dims; ++k) {
    if (k > 0) out += ", ";
    out += std::to_string(b.min[k]) + ", " + std::to_string(b.max[k]);
  }
  return out;
}

inline std::string columns_sql(int dims) {
  std::string out = "id";
  for (int k = 0; k < dims; ++k) out += ", lo" + std::to_string(k) + ", hi" + std::to_string(k);
  return out;
}

inline std::string create_sql(const std::string& name, int dims) {
  return "CREATE VIRTUAL TABLE " + name + " USING zqrtree(" + columns_sql(dims) + ")";
}

// Runs `sql` once for each table, with "$T" standing for its name: the table
// under test and the one whose answers it must give.
inline void on_both(Db& db, const std::string& sql, const char* a, const char* b) {
  for (const char* table : {a, b}) {
    std::string s = sql;
    s.replace(s.find("$T"), 2, table);
    db.exec(s);
  }
}

// The search operators' text written out here, not by the library: a name
// table shared by its parser and printer could be wrong in both.
inline std::string op_text(uint32_t op) {
  std::string names;
  const std::pair<uint32_t, const char*> n[] = {{RTR_OP_INTERSECT, "intersect"},
                                                {RTR_OP_CONTAINS, "contains"},
                                                {RTR_OP_WITHIN, "within"},
                                                {RTR_OP_EQUAL, "equal"},
                                                {RTR_OP_ANY, "any"}};
  for (const auto& [bit, name] : n) {
    if ((op & bit) == 0) continue;
    if (!names.empty()) names += '|';
    names += name;
  }
  return (op & RTR_OP_OR) != 0 ? "or(" + names + ")" : names;
}

}  // namespace zqext_test

#endif
