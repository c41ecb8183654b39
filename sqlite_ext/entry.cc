// The extension's entry point and its virtual table module.
//
// SQLite calls sqlite3_zqrtreeext_init once per connection that loads the
// extension (".load zqrtree_ext" or load_extension()). It makes the
// connection's Conn (the driver's Database wrapping the connection, the
// undo journal), registers the module "zqrtree" owning that Conn, which
// SQLite frees when the connection closes, and the SQL functions. Loading
// twice into one connection keeps the first Conn.
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "sqlite_ext/ext.h"

SQLITE_EXTENSION_INIT1

namespace zqext {

bool same_sqlite_library(const void* loader_function);

namespace {

// The extension's sorter memory (ZQRTREE_SORT_MB overrides it).
constexpr uint64_t kSortMb = 16;

int x_begin(sqlite3_vtab*) {
  return SQLITE_OK;
}

// xBegin must be there for SQLite to call xSync, which writes the
// transaction's tree changes back (or applies deferred ones). The base table
// and the node table commit or roll back with SQLite; the savepoint and
// rollback methods keep each table's TreeTxn in step with them, and tell a
// deferred table that its host table of pending changes may have gone.
const sqlite3_module kModule = {
    .iVersion = 3,
    .xCreate = x_create,
    .xConnect = x_connect,
    .xBestIndex = x_best_index,
    .xDisconnect = x_disconnect,
    .xDestroy = x_destroy,
    .xOpen = x_open,
    .xClose = x_close,
    .xFilter = x_filter,
    .xNext = x_next,
    .xEof = x_eof,
    .xColumn = x_column,
    .xRowid = x_rowid,
    .xUpdate = x_update,
    .xBegin = x_begin,
    .xSync = x_sync,
    .xCommit = x_commit,
    .xRollback = x_rollback,
    .xFindFunction = nullptr,
    .xRename = x_rename,
    .xSavepoint = x_savepoint,
    .xRelease = x_release,
    .xRollbackTo = x_rollback_to,
    .xShadowName = x_shadow_name,
};

// The Conn of every connection the extension is loaded into.
std::mutex g_mutex;
std::map<sqlite3*, Conn*> g_conns;

void destroy_conn(void* p) {
  Conn* conn = static_cast<Conn*>(p);
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_conns.find(conn->db);
    if (it != g_conns.end() && it->second == conn) g_conns.erase(it);
  }
  delete conn;
}

int init(sqlite3* db, char** err) {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_conns.count(db) != 0) return SQLITE_OK;
  }
  Conn* raw = new Conn(db);
  // From here the module owns the Conn: SQLite calls destroy_conn even when
  // the registration itself fails.
  int rc = sqlite3_create_module_v2(db, kModuleName, &kModule, raw, destroy_conn);
  if (rc != SQLITE_OK) {
    *err = sqlite3_mprintf("zqrtree: registering the module: %s", sqlite3_errmsg(db));
    return rc;
  }
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_conns[db] = raw;
  }
  if ((rc = register_functions(raw)) != SQLITE_OK)
    *err = sqlite3_mprintf("zqrtree: registering its functions: %s", sqlite3_errmsg(db));
  return rc;
}

}  // namespace

std::string Conn::open() {
  if (database_ != nullptr) return "";
  // Inside a user's process the extension shares memory with the program
  // and SQLite's page cache, which already holds the node rows: it sorts in
  // chunks that stay in the processor's cache (a 1M-entry build is faster so,
  // not slower) unless told otherwise by the tool's settings variables.
  zq::Settings settings;
  settings.sort_mb = kSortMb;
  zq::Settings from_env;
  zq::Status s = zq::Settings::from_environment(&from_env);
  settings.merge(from_env);
  if (s) s = zq::Database::wrap(db, &database_);
  if (s) database_->apply(settings);
  return s ? "" : s.message();
}

void Conn::close_if_idle() {
  if (!tables.empty()) return;
  for (auto& [schema, st] : version_queries) sqlite3_finalize(st);
  version_queries.clear();
  database_.reset();
  data_versions.clear();
}

std::string Conn::refresh() {
  bool changed = false;
  for (const auto& [key, t] : tables) {
    const std::string schema = lower(t->schema);
    sqlite3_stmt*& st = version_queries[schema];
    if (st == nullptr &&
        sqlite3_prepare_v2(db, ("PRAGMA " + quote(t->schema) + ".data_version").c_str(), -1, &st,
                           nullptr) != SQLITE_OK)
      return sqlite3_errmsg(db);
    const int rc = sqlite3_step(st);
    const int64_t version = sqlite3_column_int64(st, 0);
    sqlite3_reset(st);
    if (rc != SQLITE_ROW) return sqlite3_errmsg(db);
    auto [it, fresh] = data_versions.try_emplace(schema, version);
    if (!fresh && it->second != version) changed = true;
    it->second = version;
  }
  if (!changed) return "";
  // No write of ours is open (another connection just committed), so the
  // host's pending-change tables are empty and may go with the session, and
  // so may every kept handle.
  for (const auto& [key, t] : tables) {
    t->pending = nullptr;
    t->txn.discard();
    t->reader.drop();
  }
  database_.reset();
  if (std::string err = open(); !err.empty()) return err;
  for (const auto& [key, t] : tables)
    if (zq::Status s = zq::Index::open(*database_, t->name, &t->index, t->schema); !s)
      return s.message();
  return "";
}

}  // namespace zqext

extern "C" __attribute__((visibility("default"))) int sqlite3_zqrtreeext_init(
    sqlite3* db, char** err, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  if (!zqext::same_sqlite_library(reinterpret_cast<const void*>(api->libversion_number))) {
    *err = sqlite3_mprintf(
        "zqrtree: this program's SQLite is not the shared libsqlite3 the extension is linked "
        "with; load it from a program that uses the system SQLite library");
    return SQLITE_ERROR;
  }
  try {
    return zqext::init(db, err);
  } catch (const std::bad_alloc&) {
    *err = sqlite3_mprintf("zqrtree: out of memory");
    return SQLITE_NOMEM;
  } catch (...) {
    *err = sqlite3_mprintf("zqrtree: unexpected failure while loading");
    return SQLITE_ERROR;
  }
}
