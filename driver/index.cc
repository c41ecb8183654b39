// An index's life outside the tree itself: creation of its three tables
// (node table, rowid table, catalog row) with an empty root, opening by name
// through the catalog, dropping, and reads of single rows and counts.
#include "driver/index.h"

#include <sqlite3.h>

#include <string>

#include "driver/internal.h"
#include "driver/leaf_map.h"
#include "driver/node_guard.h"
#include "host/host.h"

namespace zq {

namespace {

constexpr const char* kCatalog = "zqrtree_catalog";

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
  s = detail::exec(db.db(),
                   detail::LeafMap::create_sql(detail::qualified(schema, idx.rowid_table())),
                   "creating table " + detail::quote_ident(idx.rowid_table()));
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
std::string Index::rowid_table() const {
  return name_ + "_rowid";
}

detail::LeafMap* Index::leaf_map() const {
  return db_->leaf_map(schema_, node_table());
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
  for (const std::string& t : {idx.node_table(), idx.rowid_table()})
    if (detail::table_exists(db.db(), schema, t))
      return Status::exists("table " + detail::quote_ident(t) + " already exists in " +
                            where_db(db) + "; choose another index name");

  detail::UserOp op(db);
  if (!op.begun()) return op.begun();
  if (Status s = create_tables(db, idx); !s) return s;
  db.reset_leaf_maps();
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
  if (!detail::table_exists(db.db(), schema, idx.rowid_table()) &&
      detail::table_exists(db.db(), schema, name + "_boxes"))
    return Status::invalid("index '" + name +
                           "' was made by an earlier zqrtree, which kept a copy "
                           "of every box in table " +
                           detail::quote_ident(name + "_boxes") +
                           "; make it again from its entries (zqrtree create, then load)");
  for (const std::string& t : {idx.node_table(), idx.rowid_table()})
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
  db.reset_leaf_maps();
  for (const std::string& t : {idx.node_table(), idx.rowid_table()})
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

namespace {

detail::LeafMap* leaf_map_of(const Index& index, Status* status) {
  detail::LeafMap* map = index.leaf_map();
  if (map == nullptr)
    *status = Status::not_found("index '" + index.name() + "' has lost its table " +
                                detail::quote_ident(index.rowid_table()));
  return map;
}

}  // namespace

Status Index::count(uint64_t* n) const {
  Status s;
  detail::LeafMap* map = leaf_map_of(*this, &s);
  return map != nullptr ? map->count(n) : s;
}

Status Index::lookup(int64_t id, Box* box) const {
  Status s;
  detail::LeafMap* map = leaf_map_of(*this, &s);
  if (map == nullptr) return s;
  bool found = false;
  if (s = map->find(id, box, &found); !s) return s;
  if (!found)
    return Status::not_found("rowid " + std::to_string(id) + " is not in index '" + name_ + "'");
  return Status::ok();
}

}  // namespace zq
