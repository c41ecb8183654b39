// Test helpers shared by the driver and tool tests: a scratch directory and a
// complete, ordered dump of a database file, so "nothing changed" can be
// asserted byte for byte.
#ifndef ZQ_TESTS_DRIVER_DB_DUMP_H
#define ZQ_TESTS_DRIVER_DB_DUMP_H

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

namespace zqtest {

// A fresh directory under the system's temporary directory, removed with it.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "zqtest-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    path_ = mkdtemp(buf.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string dump_value(sqlite3_stmt* st, int col) {
  switch (sqlite3_column_type(st, col)) {
    case SQLITE_NULL:
      return "NULL";
    case SQLITE_INTEGER:
      return std::to_string(sqlite3_column_int64(st, col));
    case SQLITE_FLOAT: {
      char buf[40];
      snprintf(buf, sizeof buf, "%.17g", sqlite3_column_double(st, col));
      return buf;
    }
    default: {
      const auto* p = static_cast<const unsigned char*>(sqlite3_column_blob(st, col));
      std::string hex = "x'";
      static const char* digits = "0123456789abcdef";
      for (int i = 0; i < sqlite3_column_bytes(st, col); ++i) {
        hex += digits[p[i] >> 4];
        hex += digits[p[i] & 15];
      }
      return hex + "'";
    }
  }
}

// Every table's definition and rows (in rowid order), as `db` sees them:
// inside its open transaction, that transaction's state.
inline std::string dump_connection(sqlite3* db) {
  std::vector<std::pair<std::string, std::string>> tables;
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT name, sql FROM sqlite_schema WHERE type = 'table' ORDER BY name",
                     -1, &st, nullptr);
  while (sqlite3_step(st) == SQLITE_ROW)
    tables.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)),
                        reinterpret_cast<const char*>(sqlite3_column_text(st, 1)));
  sqlite3_finalize(st);
  std::string out;
  for (const auto& [name, sql] : tables) {
    out += sql + "\n";
    std::string quoted = "\"";
    for (char c : name) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    quoted += "\"";
    // Virtual tables are read through their shadow tables, which are listed too.
    if (sql.rfind("CREATE VIRTUAL", 0) == 0) continue;
    sqlite3_prepare_v2(db, ("SELECT * FROM " + quoted + " ORDER BY rowid").c_str(), -1, &st,
                       nullptr);
    while (sqlite3_step(st) == SQLITE_ROW) {
      for (int c = 0; c < sqlite3_column_count(st); ++c) out += dump_value(st, c) + "|";
      out += "\n";
    }
    sqlite3_finalize(st);
  }
  return out;
}

// The same for a database file; "" when it cannot be opened.
inline std::string dump_database(const std::string& path) {
  sqlite3* db = nullptr;
  std::string out;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
    out = dump_connection(db);
  sqlite3_close(db);
  return out;
}

}  // namespace zqtest

#endif
