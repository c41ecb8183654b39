// An index's life outside the tree itself: creation of its three tables
// (node table, base table of boxes, catalog row) with an empty root, opening
// by name through the catalog, dropping, and reads of the base table.
#include "driver/index.h"

#include <sqlite3.h>

#include <string>

#include "driver/internal.h"
#include "driver/node_guard.h"
#include "host/host.h"

namespace zq {

namespace {

constexpr const char* kCatalog = "zqrtree_catalog";

// "min0, max0, min1, max1" for the base table's coordinate columns.
std::string box_columns(int dims) {
  std::string cols;
  for (int k = 0; k < dims; ++k) {
    if (k > 0) cols += ", ";
    cols += "min" + std::to_string(k) + ", max" + std::to_string(k);
  }
  return cols;
}

Box box_from_row(const detail::Stmt& st, int first_col, int dims) {
  Box box;
  for (int k = 0; k < dims; ++k) {
    box.min[k] = st.real(first_col + 2 * k);
    box.max[k] = st.real(first_col + 2 * k + 1);
  }
  return box;
}

std::string where_db(const Database& db) {
  return db.path().empty() ? std::string("the database") : "'" + db.path() + "'";
}

// Reads the catalog row of `name`; dims stays 0 when there is none.
Status catalog_dims(Database& db, const std::string& schema, const std::string& name, int* dims) {
  *dims = 0;
  if (!detail::table_exists(db.db(), schema, kCatalog)) return Status::ok();
  detail::Stmt st(db.db(),
                  "SELECT dims FROM " + detail::qualified(schema, kCatalog) + " WHERE name = ?1");
  if (!st.ok()) return detail::sql_failure(db.db(), "reading the index catalog");
  st.bind(1, name);
  if (st.step() == SQLITE_ROW) *dims = static_cast<int>(st.int64(0));
  return Status::ok();
}

Status create_tables(Database& db, const Index& idx) {
  const std::string& schema = idx.schema();
  Status s = detail::exec(db.db(),
                          "CREATE TABLE IF NOT EXISTS " + detail::qualified(schema, kCatalog) +
                              " (name TEXT PRIMARY KEY, dims INTEGER)",
                          "creating the index catalog");
  if (!s) return s;
  std::string cols;
  for (int k = 0; k < idx.dims(); ++k)
    cols +=
        ", min" + std::to_string(k) + " REAL NOT NULL, max" + std::to_string(k) + " REAL NOT NULL";
  s = detail::exec(db.db(),
                   "CREATE TABLE " + detail::qualified(schema, idx.base_table()) +
                       " (id INTEGER PRIMARY KEY" + cols + ")",
                   "creating table " + detail::quote_ident(idx.base_table()));
  if (!s) return s;
  const int32_t rc = zqsess_create_node_table(db.session(), schema.c_str(), idx.name().c_str());
  if (rc < 0) return detail::engine_failure(db, rc, "creating node table " + idx.node_table());
  detail::Stmt ins(db.db(), "INSERT INTO " + detail::qualified(schema, kCatalog) +
                                " (name, dims) VALUES (?1, ?2)");
  if (!ins.ok()) return detail::sql_failure(db.db(), "recording the index in the catalog");
  ins.bind(1, idx.name()).bind(2, static_cast<int64_t>(idx.dims()));
  if (ins.step() != SQLITE_DONE)
    return detail::sql_failure(db.db(), "recording the index in the catalog");
  return Status::ok();
}

}  // namespace

std::string Index::node_table() const {
  return RTR_NODE_TABLE_PREFIX + name_;
}
std::string Index::base_table() const {
  return name_ + "_boxes";
}

Status Index::create(Database& db, const std::string& name, int dims, Index* out,
                     const std::string& schema) {
  if (std::string p = name_problem(name); !p.empty()) return Status::invalid(p);
  if (dims < 1 || dims > kMaxDims)
    return Status::invalid("dimension count " + std::to_string(dims) + " is not 1, 2 or 3");
  Index idx;
  idx.db_ = &db;
  idx.name_ = name;
  idx.schema_ = schema;
  idx.dims_ = dims;
  int existing = 0;
  if (Status s = catalog_dims(db, schema, name, &existing); !s) return s;
  if (existing != 0)
    return Status::exists("index '" + name + "' already exists in " + where_db(db));
  for (const std::string& t : {idx.node_table(), idx.base_table()})
    if (detail::table_exists(db.db(), schema, t))
      return Status::exists("table " + detail::quote_ident(t) + " already exists in " +
                            where_db(db) + "; choose another index name");

  detail::UserOp op(db);
  if (!op.begun()) return op.begun();
  if (Status s = create_tables(db, idx); !s) return s;
  // An index starts as one empty leaf at node 1: the bulk build of nothing.
  Status s = detail::rebuild_tree(idx, 1.0, {}, [](const auto&) { return Status::ok(); });
  if (!s) return s;
  if (s = op.commit(); !s) return s;
  if (const int32_t rc = guard_node_table(db.session(), schema, name, dims); rc < 0)
    return detail::engine_failure(db, rc, "guarding index '" + name + "'");
  *out = idx;
  return Status::ok();
}

Status Index::open(Database& db, const std::string& name, Index* out, const std::string& schema) {
  if (std::string p = name_problem(name); !p.empty()) return Status::invalid(p);
  int dims = 0;
  if (Status s = catalog_dims(db, schema, name, &dims); !s) return s;
  if (dims == 0) return Status::not_found("no index '" + name + "' in " + where_db(db));
  if (dims < 1 || dims > kMaxDims)
    return Status::invalid("the catalog gives index '" + name + "' " + std::to_string(dims) +
                           " dimensions");
  Index idx;
  idx.db_ = &db;
  idx.name_ = name;
  idx.schema_ = schema;
  idx.dims_ = dims;
  for (const std::string& t : {idx.node_table(), idx.base_table()})
    if (!detail::table_exists(db.db(), schema, t))
      return Status::not_found("index '" + name + "' is in the catalog of " + where_db(db) +
                               " but its table " + detail::quote_ident(t) + " is missing");
  if (const int32_t rc = guard_node_table(db.session(), schema, name, dims); rc < 0)
    return detail::engine_failure(db, rc, "guarding index '" + name + "'");
  *out = idx;
  return Status::ok();
}

Status Index::drop(Database& db, const std::string& name, const std::string& schema) {
  Index idx;
  if (Status s = open(db, name, &idx, schema); !s) return s;
  detail::UserOp op(db);
  if (!op.begun()) return op.begun();
  for (const std::string& t : {idx.node_table(), idx.base_table()})
    if (Status s = detail::exec(db.db(), "DROP TABLE " + detail::qualified(schema, t),
                                "dropping table " + detail::quote_ident(t));
        !s)
      return s;
  detail::Stmt del(db.db(),
                   "DELETE FROM " + detail::qualified(schema, kCatalog) + " WHERE name = ?1");
  if (!del.ok()) return detail::sql_failure(db.db(), "removing the index from the catalog");
  del.bind(1, name);
  if (del.step() != SQLITE_DONE)
    return detail::sql_failure(db.db(), "removing the index from the catalog");
  return op.commit();
}

Status Index::count(uint64_t* n) const {
  detail::Stmt st(db_->db(), "SELECT count(*) FROM " + detail::qualified(schema_, base_table()));
  if (!st.ok() || st.step() != SQLITE_ROW) return detail::sql_failure(db_->db(), "counting rows");
  *n = static_cast<uint64_t>(st.int64(0));
  return Status::ok();
}

Status Index::lookup(int64_t id, Box* box) const {
  bool found = false;
  if (Status s = detail::read_base_box(*this, id, box, &found); !s) return s;
  if (!found)
    return Status::not_found("rowid " + std::to_string(id) + " is not in index '" + name_ + "'");
  return Status::ok();
}

Status Index::scan_base(const std::function<bool(const Entry&)>& visit) const {
  detail::Stmt st(db_->db(), "SELECT id, " + box_columns(dims_) + " FROM " +
                                 detail::qualified(schema_, base_table()) + " ORDER BY id");
  if (!st.ok()) return detail::sql_failure(db_->db(), "reading " + base_table());
  int rc;
  while ((rc = st.step()) == SQLITE_ROW) {
    const Entry e{st.int64(0), box_from_row(st, 1, dims_)};
    if (!visit(e)) return Status::ok();
  }
  if (rc != SQLITE_DONE) return detail::sql_failure(db_->db(), "reading " + base_table());
  return Status::ok();
}

namespace detail {

Status read_base_box(const Index& index, int64_t id, Box* box, bool* found) {
  sqlite3* db = index.database()->db();
  Stmt st(*index.database(), "SELECT " + box_columns(index.dims()) + " FROM " +
                                 qualified(index.schema(), index.base_table()) + " WHERE id = ?1");
  if (!st.ok()) return sql_failure(db, "reading " + index.base_table());
  st.bind(1, id);
  const int rc = st.step();
  *found = rc == SQLITE_ROW;
  if (*found) *box = box_from_row(st, 0, index.dims());
  if (rc != SQLITE_ROW && rc != SQLITE_DONE)
    return sql_failure(db, "reading " + index.base_table());
  return Status::ok();
}

std::string insert_base_sql(const Index& index) {
  std::string params = "?1";
  for (int i = 0; i < 2 * index.dims(); ++i) params += ", ?" + std::to_string(i + 2);
  return "INSERT INTO " + qualified(index.schema(), index.base_table()) + " (id, " +
         box_columns(index.dims()) + ") VALUES (" + params + ")";
}

Status insert_base_row(const Index& index, Stmt& insert, const Entry& entry,
                       std::string_view where) {
  insert.reset();
  insert.bind(1, entry.id);
  for (int k = 0; k < index.dims(); ++k) {
    insert.bind(2 + 2 * k, entry.box.min[k]);
    insert.bind(3 + 2 * k, entry.box.max[k]);
  }
  const int rc = insert.step();
  if (rc == SQLITE_DONE) return Status::ok();
  sqlite3* db = index.database()->db();
  if (sqlite3_extended_errcode(db) == SQLITE_CONSTRAINT_PRIMARYKEY)
    return Status::invalid(std::string(where) + ": duplicate rowid " + std::to_string(entry.id) +
                           " (already in index '" + index.name() + "')");
  return sql_failure(db, std::string(where) + ": storing the row");
}

}  // namespace detail

}  // namespace zq
