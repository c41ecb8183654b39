// Databases: one host environment and session per open database file (or
// per connection the SQLite extension hands over), the engine settings, the
// once-per-process callback installation, and the user-operation guard that
// turns every change into one host transaction.
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "driver/default_hooks.h"
#include "driver/index.h"
#include "driver/internal.h"
#include "driver/leaf_map.h"
#include "host/host.h"
#include "zqrtree/hook.h"

namespace zq {

void install_hooks() {
  static std::once_flag once;
  std::call_once(once, [] { zq_install_default_hooks(); });
}

// ---- settings ----

namespace {

Status env_number(const char* var, uint64_t max, std::optional<uint64_t>* out) {
  const char* text = std::getenv(var);
  if (text == nullptr || *text == '\0') return Status::ok();
  uint64_t v = 0;
  const char* end = text + std::strlen(text);
  auto [p, ec] = std::from_chars(text, end, v);
  if (ec != std::errc() || p != end || v > max)
    return Status::invalid(std::string("environment variable ") + var + "='" + text +
                           "' is not a whole number of megabytes up to " + std::to_string(max));
  *out = v;
  return Status::ok();
}

// Seconds: a number from 0 to a day.
Status env_seconds(const char* var, std::optional<double>* out) {
  const char* text = std::getenv(var);
  if (text == nullptr || *text == '\0') return Status::ok();
  double v = 0;
  const char* end = text + std::strlen(text);
  auto [p, ec] = std::from_chars(text, end, v);
  if (ec != std::errc() || p != end || !(v >= 0 && v <= 86400))
    return Status::invalid(std::string("environment variable ") + var + "='" + text +
                           "' is not a number of seconds from 0 to 86400");
  *out = v;
  return Status::ok();
}

}  // namespace

Status Settings::from_environment(Settings* out) {
  *out = Settings{};
  std::optional<uint64_t> total, handle, sort;
  for (auto [var, slot] :
       {std::pair{"ZQRTREE_BUF_TOTAL_MB", &total}, std::pair{"ZQRTREE_BUF_HANDLE_MB", &handle},
        std::pair{"ZQRTREE_SORT_MB", &sort}}) {
    Status s = env_number(var, UINT32_MAX, slot);
    if (!s) return s;
  }
  if (Status s = env_seconds("ZQRTREE_BUSY_TIMEOUT", &out->busy_timeout_s); !s) return s;
  if (total) out->buf_total_mb = static_cast<uint32_t>(*total);
  if (handle) out->buf_handle_mb = static_cast<uint32_t>(*handle);
  if (sort) out->sort_mb = *sort;
  return Status::ok();
}

void Settings::merge(const Settings& over) {
  if (over.buf_total_mb) buf_total_mb = over.buf_total_mb;
  if (over.buf_handle_mb) buf_handle_mb = over.buf_handle_mb;
  if (over.sort_mb) sort_mb = over.sort_mb;
  if (over.busy_timeout_s) busy_timeout_s = over.busy_timeout_s;
}

// ---- databases ----

Status Database::open(const std::string& path, bool create, std::unique_ptr<Database>* out) {
  struct stat st;
  if (!create && ::stat(path.c_str(), &st) != 0)
    return Status::not_found("database '" + path + "' does not exist");
  install_hooks();
  std::unique_ptr<Database> db(new Database());
  db->path_ = path;
  db->env_ = zqenv_create();
  if (db->env_ == nullptr) return Status::engine(RTR_ERR_NO_ROOM, "no memory for an environment");
  int32_t code = 0;
  db->session_ = zqsess_open(db->env_, path.c_str(), &code);
  if (db->session_ == nullptr) {
    Status s = detail::engine_failure(*db, code, "opening database '" + path + "'");
    return Status::io(s.message());
  }
  zqsess_set_row_observer(db->session_, detail::observe_rows, db.get());
  *out = std::move(db);
  return Status::ok();
}

Status Database::wrap(sqlite3* sqlite, std::unique_ptr<Database>* out) {
  install_hooks();
  std::unique_ptr<Database> db(new Database());
  const char* file = sqlite3_db_filename(sqlite, "main");
  db->path_ = file != nullptr ? file : "";
  db->env_ = zqenv_create();
  if (db->env_ == nullptr) return Status::engine(RTR_ERR_NO_ROOM, "no memory for an environment");
  db->session_ = zqsess_wrap(db->env_, sqlite);
  if (db->session_ == nullptr) return Status::engine(RTR_ERR_NO_ROOM, "no memory for a session");
  zqsess_set_row_observer(db->session_, detail::observe_rows, db.get());
  *out = std::move(db);
  return Status::ok();
}

Database::~Database() {
  leaf_maps_.clear();
  for (auto& [sql, st] : statements_) sqlite3_finalize(st);
  if (session_ != nullptr) zqsess_close(session_);
  if (env_ != nullptr) zqenv_destroy(env_);
}

sqlite3_stmt* Database::statement(const std::string& sql, int* rc) {
  auto it = statements_.find(sql);
  if (it != statements_.end()) {
    *rc = SQLITE_OK;
    return it->second;
  }
  sqlite3_stmt* st = nullptr;
  *rc = sqlite3_prepare_v3(db(), sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr);
  if (*rc != SQLITE_OK) {
    sqlite3_finalize(st);
    return nullptr;
  }
  statements_.emplace(sql, st);
  return st;
}

detail::LeafMap* Database::leaf_map(std::string_view schema, std::string_view node_table) {
  for (LeafMapSlot& slot : leaf_maps_)
    if (slot.node_table == node_table && slot.schema == schema) return slot.map.get();
  LeafMapSlot slot{std::string(schema), std::string(node_table), nullptr};
  const std::string_view prefix = RTR_NODE_TABLE_PREFIX;
  if (node_table.starts_with(prefix)) {
    const std::string name(node_table.substr(prefix.size()));
    if (detail::table_exists(db(), slot.schema, name + "_rowid"))
      slot.map = std::make_unique<detail::LeafMap>(*this, slot.schema, name);
  }
  leaf_maps_.push_back(std::move(slot));
  return leaf_maps_.back().map.get();
}

Status Database::apply_leaf_moves() {
  for (LeafMapSlot& slot : leaf_maps_)
    if (slot.map != nullptr && slot.map->has_moves())
      if (Status s = slot.map->apply(); !s) return s;
  return Status::ok();
}

void Database::forget_leaf_moves() {
  for (LeafMapSlot& slot : leaf_maps_)
    if (slot.map != nullptr) slot.map->forget();
}

void Database::reset_leaf_maps() {
  leaf_maps_.clear();
}

Status Database::begin() {
  zqenv_err_clear(env_);
  const int32_t rc = zqsess_begin(session_);
  return rc < 0 ? detail::engine_failure(*this, rc, "starting a transaction") : Status::ok();
}

Status Database::commit() {
  const int32_t rc = zqsess_commit(session_);
  return rc < 0 ? detail::engine_failure(*this, rc, "committing the transaction") : Status::ok();
}

void Database::rollback() {
  forget_leaf_moves();
  zqsess_rollback(session_);
}

sqlite3* Database::db() const {
  return zqsess_db(session_);
}

void Database::apply(const Settings& settings) {
  if (settings.buf_total_mb || settings.buf_handle_mb) {
    // The host takes both at once; keep the current value of the one not set.
    const uint32_t total = settings.buf_total_mb.value_or(zqsess_rtree_buf_total_mb(session_));
    const uint32_t handle = settings.buf_handle_mb.value_or(zqsess_rtree_buf_handle_mb(session_));
    zqsess_set_rtree_buf_mb(session_, total, handle);
  }
  if (settings.sort_mb) zqsess_set_sort_mem(session_, *settings.sort_mb * 1024 * 1024);
  if (settings.busy_timeout_s)
    sqlite3_busy_timeout(db(), static_cast<int>(*settings.busy_timeout_s * 1000));
}

// A handle reads the session's share when it is made, so the cap is the
// share for that moment.
BufferCap::BufferCap(Database& db, uint32_t mb)
    : session_(db.session()),
      total_mb_(zqsess_rtree_buf_total_mb(session_)),
      handle_mb_(zqsess_rtree_buf_handle_mb(session_)) {
  zqsess_set_rtree_buf_mb(session_, total_mb_, std::min(handle_mb_, mb));
}

BufferCap::~BufferCap() {
  zqsess_set_rtree_buf_mb(session_, total_mb_, handle_mb_);
}

#ifdef ZQ_TEST_HOOKS
void Database::fail_alloc_nth(uint64_t nth) {
  zqfault_fail_alloc_nth(env_, nth);
}

void Database::fail_engine_nth(uint64_t nth) {
  constexpr int32_t kHostIoError = -2200 - SQLITE_IOERR;  // as the host reports SQLite's
  zqfault_raise_nth(env_, nth, nth == 0 ? 0 : kHostIoError, 0);
}
#endif

Status Database::list(std::vector<std::pair<std::string, int>>* out, const std::string& schema) {
  out->clear();
  if (!detail::table_exists(db(), schema, "zqrtree_catalog")) return Status::ok();
  detail::Stmt st(db(), "SELECT name, dims FROM " + detail::qualified(schema, "zqrtree_catalog") +
                            " ORDER BY name");
  if (!st.ok()) return detail::sql_failure(db(), "reading the index catalog");
  while (st.step() == SQLITE_ROW) {
    const unsigned char* name = sqlite3_column_text(st.get(), 0);
    out->emplace_back(name != nullptr ? reinterpret_cast<const char*>(name) : "",
                      static_cast<int>(st.int64(1)));
  }
  return Status::ok();
}

Status Database::file_size(uint64_t* bytes) {
  detail::Stmt count(db(), "PRAGMA main.page_count");
  detail::Stmt size(db(), "PRAGMA main.page_size");
  if (!count.ok() || !size.ok() || count.step() != SQLITE_ROW || size.step() != SQLITE_ROW)
    return detail::sql_failure(db(), "reading the database size");
  *bytes = static_cast<uint64_t>(count.int64(0)) * static_cast<uint64_t>(size.int64(0));
  return Status::ok();
}

// ---- failures and user operations ----

namespace detail {

namespace {

constexpr int32_t kHostSqliteBase = -2200;

// The SQLite result code behind a host code: the host's record of its last
// SQLite failure when that is the one, else the primary code alone.
int sqlite_rc_of(const Database& db, int32_t code) {
  const int rc = zqhost_last_sqlite_code(db.env());
  return kHostSqliteBase - (rc & 0xff) == code ? rc : kHostSqliteBase - code;
}

}  // namespace

Status engine_failure(const Database& db, int32_t code, std::string_view what) {
  std::vector<char> buf(4096);
  const size_t need = zqenv_err_format(db.env(), buf.data(), buf.size());
  if (need >= buf.size()) {
    buf.resize(need + 1);
    zqenv_err_format(db.env(), buf.data(), buf.size());
  }
  std::string trace(buf.data());
  zqenv_err_clear(db.env());
  std::string msg = std::string(what) + " failed (code " + std::to_string(code);
  // The host reports SQLite's own failures as its base code minus SQLite's.
  if (code < kHostSqliteBase && code > kHostSqliteBase - 256)
    msg += std::string(": ") + sqlite3_errstr(kHostSqliteBase - code);
  msg += ")";
  if (trace.empty()) {
    msg += "; the error stack is empty";
  } else {
    msg += "; error stack, innermost first:\n" + trace;
    while (!msg.empty() && msg.back() == '\n') msg.pop_back();
  }
  // What is wrong, and what to do, first: a row the node guard refused, or
  // trouble with the file itself.
  if (const char* why = zqhost_last_refusal(db.env()); code == ZQHOST_ERR_ROW_REFUSED && *why)
    msg = std::string(why) + "; run `zqrtree check`, then `zqrtree repair`\n" + msg;
  else if (code < kHostSqliteBase && code > kHostSqliteBase - 256)
    msg = file_trouble(db.path(), sqlite_rc_of(db, code)) + msg;
  return Status::engine(code, msg);
}

UserOp::UserOp(Database& db, Mode mode) : db_(db) {
  zqenv_err_clear(db.env());
  // Inside a transaction of the program's own the operation is a savepoint:
  // its failure takes back its own work and nothing the program did before.
  if (sqlite3_get_autocommit(db.db()) == 0) {
    if (Status s = exec(db.db(), "SAVEPOINT zq_user_op", "starting the operation's savepoint");
        !s) {
      begun_ = s;
      return;
    }
    nested_ = true;
    open_ = true;
    return;
  }
  const int32_t rc =
      mode == Mode::kWrite ? zqsess_begin_write(db.session()) : zqsess_begin(db.session());
  if (rc < 0) {
    begun_ = engine_failure(db, rc, "starting a transaction");
    return;
  }
  open_ = true;
}

UserOp::~UserOp() {
  if (!open_) return;
  db_.forget_leaf_moves();
  if (nested_) {
    exec(db_.db(), "ROLLBACK TO zq_user_op; RELEASE zq_user_op", "");
    return;
  }
  // A rollback also drops the host's cached state, so no stale row counter
  // or dictionary object outlives the failed operation.
  zqsess_rollback(db_.session());
}

Status UserOp::commit() {
  if (Status s = db_.apply_leaf_moves(); !s) return s;
  if (nested_) {
    if (Status s = exec(db_.db(), "RELEASE zq_user_op", "ending the operation's savepoint"); !s)
      return s;
    open_ = false;
    return Status::ok();
  }
  const int32_t rc = zqsess_commit(db_.session());
  if (rc < 0) return engine_failure(db_, rc, "committing the transaction");
  open_ = false;
  return Status::ok();
}

}  // namespace detail

}  // namespace zq
