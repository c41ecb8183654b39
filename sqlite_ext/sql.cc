// SQL helpers of the extension: lower case for identifiers and plain
// execution.
#include "sqlite_ext/sql.h"

namespace zqext {

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::string exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err) == SQLITE_OK) return "";
  std::string msg = err != nullptr ? err : sqlite3_errmsg(db);
  sqlite3_free(err);
  return msg;
}

}  // namespace zqext
