// The data dictionary: tables found by exact name in a scope's sqlite_schema,
// their engine objects (table, index, B-tree, record descriptor), node-table
// creation, data versions and the per-table rowid counters.
//
// A Table is built once per session and name and handed out again while the
// schema version of its database is unchanged; after a schema change it is
// checked again and kept when its columns are the same, so its counter and
// prepared statements survive. A Table that stops matching (or a user-level
// rollback) retires it: old holders keep a valid object, new lookups get a
// fresh one.
//
// Call order: ndct_find_table_by_name_with_code ->
// ndct_table_get_nth_valid_real_index -> ndct_phy_index_get_btr ->
// (nbtr_get_next_rowid, ndct_table_get_dver)*.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "host/internal.h"

namespace zqhost {
namespace {

constexpr const char* kNodeTablePrefix = "MDRT$";

// The node table the host creates. Its level is a 32-bit value in rows and
// records; the other integers are 64-bit.
struct NodeColumn {
  const char* name;
  const char* decl;
  Kind kind;
};
constexpr NodeColumn kNodeColumns[] = {
    {"level", "INTEGER", Kind::kI32},
    {"parent_id", "INTEGER", Kind::kI64},
    {"cells", "BLOB", Kind::kBin},
    {"sys", "INTEGER", Kind::kI64},
};
constexpr const char* kNodeColumnSql =
    "level INTEGER NOT NULL, parent_id INTEGER NOT NULL, cells BLOB NOT NULL, "
    "sys INTEGER NOT NULL DEFAULT 0";
constexpr const char* kSysColumn = "sys";

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// SQLite's affinity rules, mapped to the host's value kinds.
Kind kind_of_decl(const std::string& decl) {
  std::string u = upper(decl);
  auto has = [&u](const char* part) { return u.find(part) != std::string::npos; };
  if (has("INT")) return Kind::kI64;
  if (has("CHAR") || has("CLOB") || has("TEXT")) return Kind::kText;
  if (has("BLOB") || u.empty()) return Kind::kBin;
  if (has("REAL") || has("FLOA") || has("DOUB")) return Kind::kF64;
  return Kind::kI64;
}

bool is_node_layout(const std::vector<Column>& cols) {
  if (cols.size() != std::size(kNodeColumns)) return false;
  for (size_t i = 0; i < cols.size(); ++i) {
    if (cols[i].name != kNodeColumns[i].name || upper(cols[i].decl) != kNodeColumns[i].decl) {
      return false;
    }
  }
  return true;
}

void assign_kinds(std::vector<Column>& cols) {
  bool node = is_node_layout(cols);
  for (size_t i = 0; i < cols.size(); ++i) {
    cols[i].kind = node ? kNodeColumns[i].kind : kind_of_decl(cols[i].decl);
  }
}

// What sqlite_schema and table_info say about a table.
struct TableDesc {
  bool has_rowid = true;
  std::vector<Column> cols;
};

sqlite3_stmt* scope_stmt(zq_scope* scope, sqlite3_stmt** slot, const std::string& sql, int* rc) {
  if (*slot == nullptr) {
    *rc = sqlite3_prepare_v3(scope->sess->db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, slot,
                             nullptr);
  }
  return *slot;
}

int read_schema_version(zq_scope* scope, int64_t* out) {
  int rc = SQLITE_OK;
  std::string sql = "PRAGMA " + quote_ident(scope->schema) + ".schema_version";
  sqlite3_stmt* st = scope_stmt(scope, &scope->version, sql, &rc);
  if (st == nullptr) return rc;
  rc = sqlite3_step(st);
  if (rc == SQLITE_ROW) *out = sqlite3_column_int64(st, 0);
  int reset = sqlite3_reset(st);
  return rc == SQLITE_ROW ? SQLITE_OK : (reset != SQLITE_OK ? reset : rc);
}

bool without_rowid(const char* sql) {
  if (sql == nullptr) return false;
  std::string u = upper(sql);
  size_t close = u.rfind(')');
  return close != std::string::npos && u.find("WITHOUT ROWID", close) != std::string::npos;
}

// SQLITE_OK with the description, SQLITE_NOTFOUND when there is no such
// table, or a SQLite failure.
int load_desc(zq_scope* scope, const std::string& name, TableDesc* out) {
  int rc = SQLITE_OK;
  std::string sql = "SELECT sql FROM " + quote_ident(scope->schema) +
                    ".sqlite_schema WHERE type = 'table' AND name = ?1";
  sqlite3_stmt* st = scope_stmt(scope, &scope->lookup, sql, &rc);
  if (st == nullptr) return rc;
  sqlite3_bind_text(st, 1, name.c_str(), -1, SQLITE_TRANSIENT);
  rc = sqlite3_step(st);
  if (rc == SQLITE_ROW) {
    out->has_rowid = !without_rowid(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
  }
  sqlite3_reset(st);
  if (rc == SQLITE_DONE) return SQLITE_NOTFOUND;
  if (rc != SQLITE_ROW) return rc;

  st = scope_stmt(scope, &scope->columns,
                  "SELECT name, type FROM pragma_table_info(?1, ?2) ORDER BY cid", &rc);
  if (st == nullptr) return rc;
  sqlite3_bind_text(st, 1, name.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(st, 2, scope->schema.c_str(), -1, SQLITE_TRANSIENT);
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    auto text = [st](int i) {
      const unsigned char* t = sqlite3_column_text(st, i);
      return std::string(t != nullptr ? reinterpret_cast<const char*>(t) : "");
    };
    out->cols.push_back({text(0), text(1), Kind::kI64});
  }
  sqlite3_reset(st);
  if (rc != SQLITE_DONE) return rc;
  assign_kinds(out->cols);
  return SQLITE_OK;
}

bool same_desc(const Table& t, const TableDesc& d) {
  if (t.has_rowid != d.has_rowid || t.cols.size() != d.cols.size()) return false;
  for (size_t i = 0; i < d.cols.size(); ++i) {
    if (t.cols[i].name != d.cols[i].name || t.cols[i].kind != d.cols[i].kind) return false;
  }
  return true;
}

std::unique_ptr<Table> build_table(zq_scope* scope, const std::string& name, TableDesc&& d) {
  auto t = std::make_unique<Table>();
  zq_session* s = scope->sess;
  t->sess = s;
  t->schema = scope->schema;
  t->name = name;
  t->qname = quote_ident(scope->schema) + "." + quote_ident(name);
  t->layout = Layout::kRows;
  t->has_rowid = d.has_rowid;
  t->cols = std::move(d.cols);
  if (!t->cols.empty() && t->cols.back().name == kSysColumn) {
    t->sys_col = static_cast<int>(t->cols.size()) - 1;
  }
  t->serial = s->next_serial++;
  t->check = row_check_of(s, t->schema, name);
  table_init_objects(t.get());
  return t;
}

Table* lookup(zq_scope* scope, const std::string& name, int32_t* code) {
  zq_session* s = scope->sess;
  int64_t version = 0;
  int rc = read_schema_version(scope, &version);
  if (rc != SQLITE_OK) {
    *code = rc == SQLITE_ERROR ? kErrNoTable : sqlite_fail(s->env, s->db, rc, "ndct_lookup");
    return nullptr;
  }
  std::string key = scope->schema + '\0' + name;
  auto it = s->tables.find(key);
  if (it != s->tables.end() && it->second->checked_version == static_cast<uint64_t>(version)) {
    return it->second.get();
  }
  TableDesc d;
  rc = load_desc(scope, name, &d);
  if (rc == SQLITE_OK && d.cols.size() + 2 > static_cast<size_t>(kMaxFields)) rc = SQLITE_TOOBIG;
  if (rc == SQLITE_OK && it != s->tables.end() && same_desc(*it->second, d)) {
    it->second->checked_version = static_cast<uint64_t>(version);
    return it->second.get();
  }
  if (it != s->tables.end()) {
    s->retired.push_back(std::move(it->second));
    s->tables.erase(it);
  }
  if (rc != SQLITE_OK) {
    if (rc == SQLITE_NOTFOUND)
      *code = kErrNoTable;
    else if (rc == SQLITE_TOOBIG)
      *code = kErrTooWide;
    else
      *code = sqlite_fail(s->env, s->db, rc, "ndct_lookup");
    return nullptr;
  }
  auto t = build_table(scope, name, std::move(d));
  t->checked_version = static_cast<uint64_t>(version);
  Table* raw = t.get();
  s->tables.emplace(std::move(key), std::move(t));
  return raw;
}

int64_t seed_rowid(Table* t, int32_t* code) {
  int rc = SQLITE_OK;
  if (t->max_rowid == nullptr) {
    t->max_rowid = table_prepare(t, "SELECT max(rowid) FROM " + t->qname, &rc);
    if (t->max_rowid == nullptr) {
      *code = sqlite_fail(t->sess->env, t->sess->db, rc, "nbtr_get_next_rowid");
      return 0;
    }
  }
  rc = sqlite3_step(t->max_rowid);
  int64_t next = 1;
  if (rc == SQLITE_ROW && sqlite3_column_type(t->max_rowid, 0) != SQLITE_NULL) {
    next = sqlite3_column_int64(t->max_rowid, 0) + 1;
  }
  int reset = sqlite3_reset(t->max_rowid);
  if (rc != SQLITE_ROW) {
    *code = sqlite_fail(t->sess->env, t->sess->db, reset != SQLITE_OK ? reset : rc,
                        "nbtr_get_next_rowid");
    return 0;
  }
  return next;
}

}  // namespace

// When the file cannot tell (an in-memory database), the last seed's version
// comes back: then only the first use seeds.
uint32_t file_data_version(Table* t) {
  unsigned int v = 0;
  if (sqlite3_file_control(t->sess->db, t->schema.c_str(), SQLITE_FCNTL_DATA_VERSION, &v) !=
      SQLITE_OK) {
    return t->seed_version;
  }
  return v;
}

Table::~Table() {
  for (sqlite3_stmt* st : owned) sqlite3_finalize(st);
}

sqlite3_stmt* table_prepare(Table* t, const std::string& sql, int* rc) {
  sqlite3_stmt* st = nullptr;
  *rc = sqlite3_prepare_v3(t->sess->db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr);
  if (*rc != SQLITE_OK) {
    sqlite3_finalize(st);
    return nullptr;
  }
  try {
    t->owned.push_back(st);
  } catch (...) {
    sqlite3_finalize(st);
    *rc = SQLITE_NOMEM;
    return nullptr;
  }
  return st;
}

void table_init_objects(Table* t) {
  t->table = zq_table{t->name.c_str(), t};
  t->index = zq_index{t->name.c_str(), &t->table, &t->btr, t};
  t->btr = zq_btr{&t->desc, t};
  t->btr2 = zq_btr{&t->desc, t};
  zq_recdesc& d = t->desc;
  d = zq_recdesc{};
  if (t->layout == Layout::kSpatial) {
    d.n_cols = 3;
    d.n_key_vals = 2;
  } else {
    d.n_cols = static_cast<uint16_t>(t->cols.size() + (t->sys_col < 0 ? 1 : 0) + 1);
    d.n_key_vals = 1;
  }
  d.sys_col_as_i64 = 1;
  d.fill_size1 = sizeof(zq_value);
  d.fill_size2 = sizeof(uint32_t);
}

Table* dict_lookup(zq_scope* scope, const std::string& name, int32_t* code) {
  try {
    return lookup(scope, name, code);
  } catch (...) {
    *code = kErrNoMem;
    return nullptr;
  }
}

void dict_retire_all(zq_session* s) {
  try {
    for (auto& [key, t] : s->tables) s->retired.push_back(std::move(t));
  } catch (...) {
    // Could not keep them for old holders; they go now.
  }
  s->tables.clear();
}

}  // namespace zqhost

using zqhost::Table;

extern "C" {

zq_table* ndct_find_table_by_name_with_code(zq_env*, zq_memobj*, zq_scope* scope, const char* name,
                                            int32_t* code) {
  *code = 0;
  if (scope == nullptr || name == nullptr) {
    *code = zqhost::kErrBadArg;
    return nullptr;
  }
  Table* t = zqhost::dict_lookup(scope, name, code);
  return t != nullptr ? &t->table : nullptr;
}

zq_index* ndct_table_get_nth_valid_real_index(zq_env*, zq_memobj*, zq_table* table, uint32_t nth,
                                              int32_t* code) {
  Table* t = table != nullptr ? zqhost::table_of(table) : nullptr;
  // The rowid B-tree is a rowid table's one real index; a table without
  // rowids has none the host can key by rowid.
  if (t == nullptr || nth != 0 || !t->has_rowid) {
    *code = zqhost::kErrNoIndex;
    return nullptr;
  }
  *code = 0;
  return &t->index;
}

zq_btr* ndct_phy_index_get_btr(zq_index* index) {
  return index->btr;
}

int32_t ndct_table_get_dver(zq_env* env, zq_table* table, uint64_t* out) {
  zqhost::raise_point(env, env != nullptr ? env->active_ptx : nullptr);
  *out = zqhost::table_of(table)->dver;
  return 0;
}

int64_t nbtr_get_next_rowid(zq_env*, zq_btr* btr, int32_t* code) {
  *code = 0;
  Table* t = zqhost::table_of(btr);
  if (!t->has_rowid || t->layout != zqhost::Layout::kRows) {
    *code = zqhost::kErrBadArg;
    return 0;
  }
  // Another connection may have written the table since the counter was
  // seeded; the file's data version says so, and then the seed is stale.
  uint32_t version = zqhost::file_data_version(t);
  if (t->next_rowid == 0 || version != t->seed_version) {
    int64_t seed = zqhost::seed_rowid(t, code);
    if (*code < 0) return 0;
    t->next_rowid = std::max(seed, t->next_rowid);
    t->seed_version = zqhost::file_data_version(t);
  }
  return t->next_rowid++;
}

int32_t zqsess_create_node_table(zq_session* s, const char* schema, const char* index_name) {
  if (s == nullptr || schema == nullptr || index_name == nullptr) return zqhost::kErrBadArg;
  try {
    std::string sql = "CREATE TABLE " + zqhost::quote_ident(schema) + "." +
                      zqhost::quote_ident(std::string(zqhost::kNodeTablePrefix) + index_name) +
                      " (" + zqhost::kNodeColumnSql + ")";
    int rc = zqhost::exec(s->db, sql.c_str());
    return rc == SQLITE_OK ? 0 : zqhost::sqlite_fail(s->env, s->db, rc, "zqsess_create_node_table");
  } catch (...) {
    return zqhost::kErrNoMem;
  }
}

zq_recdesc* zqsess_table_recdesc(zq_session* s, const char* schema, const char* table_name) {
  zq_scope* scope = zqsess_scope(s, schema);
  if (scope == nullptr || table_name == nullptr) return nullptr;
  int32_t code = 0;
  Table* t = zqhost::dict_lookup(scope, table_name, &code);
  return t != nullptr ? &t->desc : nullptr;
}

}  // extern "C"
