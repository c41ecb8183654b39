/* The zqrtree SQLite extension: the few SQL helpers its own statements need
 * (the index's tables belong to the driver; these run the extension's
 * bookkeeping, journal and cursor statements on the caller's connection,
 * through the driver's statement wrapper).
 *
 * Every file of the extension includes <sqlite3ext.h> through this header, so
 * all SQLite calls go through the routine table the entry point received. */
#ifndef ZQ_SQLITE_EXT_SQL_H
#define ZQ_SQLITE_EXT_SQL_H

#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT3

#include <cstdint>
#include <string>
#include <string_view>

#include "driver/stmt.h"

namespace zqext {

// "name" with embedded quotes doubled.
inline std::string quote(std::string_view ident) {
  return zq::quote_ident(ident);
}
// ASCII lower case: SQLite compares identifiers without case.
std::string lower(std::string_view text);

// The driver's statement wrapper serves the extension too.
using Stmt = zq::Stmt;

// Runs SQL text without result rows; "" or SQLite's message.
std::string exec(sqlite3* db, const std::string& sql);

}  // namespace zqext

#endif
