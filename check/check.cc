// The tree checker's SQLite reader: load every row of a node table through
// the host session and hand it to the rules (check/rules.h).
//
// Call order: check_tree -> load_table (one SELECT, decode_row per row) ->
// check_rows. check_search runs the same steps, keeps the decoded rows and
// then searches every leaf entry through the handle's cursor.
#include "check/check.h"

#include <sqlite3.h>

#include <memory>

#include "check/node_row.h"
#include "check/rules.h"
#include "host/host.h"
#include "zqrtree/mem.h"

namespace zqcheck {
namespace {

std::string quoted(const char* name) {
  std::string out = "\"";
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p == '"') out += '"';
    out += *p;
  }
  return out + "\"";
}

std::string decode_row(sqlite3_stmt* st, uint16_t d, NodeRows* rows) {
  // The storage classes first, named in the message as SQLite has them.
  const NodeRowImage image{sqlite3_column_type(st, 1),
                           sqlite3_column_int64(st, 1),
                           sqlite3_column_type(st, 2),
                           sqlite3_column_type(st, 3),
                           static_cast<const uint8_t*>(sqlite3_column_blob(st, 3)),
                           static_cast<size_t>(sqlite3_column_bytes(st, 3))};
  if (std::string problem = node_row_problem(image, d, nullptr); !problem.empty()) return problem;
  return rows->add(d, sqlite3_column_int64(st, 0), image.level, sqlite3_column_int64(st, 2),
                   image.cells, static_cast<int>(image.cells_len));
}

CheckResult load_table(zq_session* session, const char* schema, const char* index_name, uint16_t d,
                       NodeRows* table) {
  std::string name = std::string(RTR_NODE_TABLE_PREFIX) + index_name;
  std::string sql = "SELECT rowid, level, parent_id, cells FROM " + quoted(schema) + "." +
                    quoted(name.c_str()) + " ORDER BY rowid";
  sqlite3* db = zqsess_db(session);
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    return violation(0, "cannot read node table " + name + ": " + sqlite3_errmsg(db));
  }
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> guard(st, sqlite3_finalize);
  int rc;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    std::string problem = decode_row(st, d, table);
    if (!problem.empty()) return violation(sqlite3_column_int64(st, 0), "corrupt row: " + problem);
  }
  if (rc != SQLITE_DONE) {
    return violation(0, "reading node table " + name + " failed: " + sqlite3_errmsg(db));
  }
  return {};
}

CheckResult check_loaded(zq_session* session, const char* schema, const char* index_name,
                         uint16_t n_dims, TreeStats* stats, NodeRows* table) {
  if (n_dims < 1 || n_dims > 3) {
    return violation(0, "dimension count " + std::to_string(n_dims) + " is not 1, 2 or 3");
  }
  CheckResult res = load_table(session, schema, index_name, n_dims, table);
  if (!res.ok) return res;
  return check_rows(*table, n_dims, stats);
}

}  // namespace

CheckResult check_tree(zq_session* session, const char* schema, const char* index_name,
                       uint16_t n_dims, TreeStats* stats) {
  TreeStats local;
  NodeRows table;
  return check_loaded(session, schema, index_name, n_dims, stats ? stats : &local, &table);
}

CheckResult check_search(zq_env* env, rtr_mem* rtr, const char* schema, const char* index_name) {
  TreeStats stats;
  NodeRows table;
  CheckResult res = check_loaded(rtr->session, schema, index_name, rtr->n_dims, &stats, &table);
  if (!res.ok) return res;
  return search_rows(env, rtr, table);
}

}  // namespace zqcheck
