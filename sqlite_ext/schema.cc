// The virtual table's life: CREATE VIRTUAL TABLE arguments, the declared
// schema, xCreate (new index tables) and xConnect (the existing ones),
// xDisconnect, xDestroy (drops them), the refused rename, the shadow table
// name, and lookup of a connected table by name for the SQL functions.
//
// Call order as SQLite drives it: xCreate once per table, or xConnect once
// per connection that uses it; then any scans and changes; xDisconnect when
// the connection closes, or xDestroy on DROP TABLE.
#include <cstring>
#include <string>
#include <vector>

#include "sqlite_ext/ext.h"

namespace zqext {

namespace {

std::string trim(std::string_view s) {
  const char* ws = " \t\r\n";
  const size_t b = s.find_first_not_of(ws);
  if (b == std::string_view::npos) return "";
  return std::string(s.substr(b, s.find_last_not_of(ws) - b + 1));
}

// A column argument as a bare name: quotes removed, no type or constraint.
bool column_name(std::string_view arg, std::string* out, std::string* error) {
  std::string a = trim(arg);
  const char open = a.empty() ? '\0' : a.front();
  const char close = open == '[' ? ']' : open;
  if ((open == '"' || open == '\'' || open == '`' || open == '[') && a.size() >= 2 &&
      a.back() == close) {
    out->clear();
    for (size_t i = 1; i + 1 < a.size(); ++i) {
      *out += a[i];
      if (a[i] == close && close != ']' && a[i + 1] == close) ++i;
    }
  } else {
    *out = a;
    if (a.find_first_of(" \t\r\n(),") != std::string::npos) {
      *error = "column '" + a + "' is not a plain name (give names only, no types)";
      return false;
    }
  }
  if (out->empty()) {
    *error = "a column name is empty";
    return false;
  }
  return true;
}

struct Declaration {
  std::vector<std::string> columns;
  int dims = 0;
};

bool parse_arguments(int argc, const char* const* argv, Declaration* d, std::string* error) {
  const int n = argc - 3;
  if (n != 3 && n != 5 && n != 7) {
    *error =
        "expected USING zqrtree(id, min0, max0[, min1, max1[, min2, max2]]): an id and 1 "
        "to 3 pairs of min and max columns, got " +
        std::to_string(n) + " argument" + (n == 1 ? "" : "s");
    return false;
  }
  d->dims = (n - 1) / 2;
  for (int i = 3; i < argc; ++i) {
    std::string name;
    if (!column_name(argv[i], &name, error)) return false;
    if (lower(name).rfind("zq_", 0) == 0) {
      *error = "column '" + name + "': names starting with zq_ are the search arguments";
      return false;
    }
    for (const std::string& seen : d->columns)
      if (lower(seen) == lower(name)) {
        *error = "column '" + name + "' is named twice";
        return false;
      }
    d->columns.push_back(name);
  }
  return true;
}

std::string declared_schema(const Declaration& d) {
  std::string sql = "CREATE TABLE x(" + quote(d.columns[0]) + " INTEGER";
  for (size_t i = 1; i < d.columns.size(); ++i) sql += ", " + quote(d.columns[i]) + " REAL";
  sql += ", zq_op HIDDEN";
  for (int k = 0; k < d.dims; ++k)
    sql += ", zq_min" + std::to_string(k) + " HIDDEN, zq_max" + std::to_string(k) + " HIDDEN";
  // Coordinates may be named freely; a user's own `distance` keeps its name.
  bool taken = false;
  for (const std::string& c : d.columns) taken |= lower(c) == "distance";
  return sql + ", zq_k HIDDEN, " + (taken ? "zq_distance" : "distance") + " HIDDEN)";
}

int refuse(char** err, const std::string& name, const std::string& why) {
  *err = sqlite3_mprintf("zqrtree table %s: %s", quote(name).c_str(), why.c_str());
  return SQLITE_ERROR;
}

// Opens (or, for xCreate, makes) the index and declares the table to SQLite.
int init_index(bool create, sqlite3* db, Conn* conn, const std::string& schema,
               const std::string& name, const Declaration& d, sqlite3_vtab** out, char** err) {
  zq::Index index;
  zq::Status s = create ? create_index(conn, schema, name, d.dims, &index)
                        : zq::Index::open(conn->database(), name, &index, schema);
  if (!s) return refuse(err, name, s.message());
  std::string problem;
  if (index.dims() != d.dims)
    problem = "the index has " + std::to_string(index.dims()) + " axes but the declaration names " +
              std::to_string(d.dims);
  else if (sqlite3_declare_vtab(db, declared_schema(d).c_str()) != SQLITE_OK)
    problem = std::string("declaring the columns: ") + sqlite3_errmsg(db);
  if (!problem.empty()) {
    if (create) drop_index(conn, index);
    return refuse(err, name, problem);
  }
  // Duplicate rowids are refused before anything is written, so SQLite may
  // honour OR IGNORE, OR FAIL and OR ROLLBACK itself.
  sqlite3_vtab_config(db, SQLITE_VTAB_CONSTRAINT_SUPPORT, 1);

  auto t = std::make_unique<Table>();
  t->conn = conn;
  t->schema = schema;
  t->name = name;
  t->index = index;
  t->columns = d.columns;
  conn->tables[t->key()] = t.get();
  *out = t.release();
  return SQLITE_OK;
}

int init_table(bool create, sqlite3* db, void* aux, int argc, const char* const* argv,
               sqlite3_vtab** out, char** err) {
  Conn* conn = static_cast<Conn*>(aux);
  const std::string name = argv[2];
  Declaration d;
  std::string problem;
  if (!parse_arguments(argc, argv, &d, &problem)) return refuse(err, name, problem);
  if (std::string p = zq::name_problem(name); !p.empty()) return refuse(err, name, p);
  if (std::string e = conn->open(); !e.empty()) return refuse(err, name, e);
  const int rc = init_index(create, db, conn, argv[1], name, d, out, err);
  if (rc != SQLITE_OK) conn->close_if_idle();
  return rc;
}

void release_table(Table* t) {
  Conn* conn = t->conn;
  if (t->pending != nullptr) zqtmp_drop(conn->database().session(), t->pending);
  auto it = conn->tables.find(t->key());
  if (it != conn->tables.end() && it->second == t) conn->tables.erase(it);
  delete t;
  conn->close_if_idle();
}

// temp, then main, then attached databases: SQLite's own search order.
Table* lookup(Conn* conn, const std::string& schema, const std::string& name) {
  if (!schema.empty()) {
    auto it = conn->tables.find(lower(schema) + "." + lower(name));
    return it == conn->tables.end() ? nullptr : it->second;
  }
  Table* found = nullptr;
  for (const auto& [key, t] : conn->tables) {
    if (lower(t->name) != lower(name)) continue;
    if (lower(t->schema) == "temp") return t;
    if (found == nullptr || lower(t->schema) == "main") found = t;
  }
  return found;
}

}  // namespace

int x_create(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** out,
             char** err) {
  return init_table(true, db, aux, argc, argv, out, err);
}

int x_connect(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** out,
              char** err) {
  return init_table(false, db, aux, argc, argv, out, err);
}

int x_disconnect(sqlite3_vtab* vtab) {
  release_table(static_cast<Table*>(vtab));
  return SQLITE_OK;
}

int x_destroy(sqlite3_vtab* vtab) {
  Table* t = static_cast<Table*>(vtab);
  if (zq::Status s = drop_index(t->conn, t->index); !s) return fail(vtab, failure(*t, s.message()));
  t->conn->deferred.erase(t->key());
  release_table(t);
  return SQLITE_OK;
}

int x_rename(sqlite3_vtab* vtab, const char*) {
  Table* t = static_cast<Table*>(vtab);
  return fail(vtab,
              failure(*t, "cannot be renamed: its node table " + quote(t->index.node_table()) +
                              " and rowid table " + quote(t->index.rowid_table()) +
                              " carry its name; create a new table and load it instead"));
}

int x_shadow_name(const char* suffix) {
  return std::strcmp(suffix, "rowid") == 0 ? 1 : 0;
}

Table* find_table(Conn* conn, const std::string& qualified_name, std::string* error) {
  std::string schema, name = qualified_name;
  if (size_t dot = qualified_name.find('.'); dot != std::string::npos) {
    schema = qualified_name.substr(0, dot);
    name = qualified_name.substr(dot + 1);
  }
  // A function that names the table may change it under a statement's
  // rowid search: the search's memo is not to be trusted after it.
  if (Table* t = lookup(conn, schema, name)) {
    t->row_memo.valid = false;
    return t;
  }
  // Not used on this connection yet: naming it in a statement connects it.
  const std::string from = schema.empty() ? quote(name) : quote(schema) + "." + quote(name);
  Stmt probe(conn->db, "SELECT 0 FROM " + from + " LIMIT 0");
  if (!probe.ok()) {
    *error = "no table '" + qualified_name + "': " + sqlite3_errmsg(conn->db);
    return nullptr;
  }
  if (Table* t = lookup(conn, schema, name)) return t;
  *error = "table '" + qualified_name + "' is not a zqrtree table";
  return nullptr;
}

int fail(sqlite3_vtab* vtab, const std::string& message, int rc) {
  sqlite3_free(vtab->zErrMsg);
  vtab->zErrMsg = sqlite3_mprintf("%s", message.c_str());
  return rc;
}

std::string failure(const Table& t, const std::string& what) {
  return t.label() + ": " + what;
}

}  // namespace zqext
