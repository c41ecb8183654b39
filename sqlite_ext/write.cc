// Changes made inside SQLite's running statement: xUpdate (INSERT, UPDATE,
// DELETE) and the index tables of xCreate and xDestroy.
//
// The driver's user operations open a host transaction of their own, which a
// running statement does not allow, so changes go through the table's
// TreeTxn instead: input checked first, then TreeTxn::change (the
// transaction's one writing handle). The tree reaches the node table, and
// the rowid table learns where its entries went, when the transaction
// commits (xSync). In deferred mode the tree is left alone, the change is
// recorded as pending, and the undo journal keeps the work list whole.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "driver/leaf_map.h"
#include "driver/stmt.h"
#include "sqlite_ext/ext.h"
#include "sqlite_ext/handle.h"
#include "zqrtree/bld.h"
#include "zqrtree/errors.h"
#include "zqrtree/tree.h"

namespace zqext {

namespace {

constexpr const char* kCatalog = "zqrtree_catalog";

// One row's change: the old row goes (if any), the new one comes (if any).
struct Change {
  bool has_old = false;
  zq::Entry old_entry;
  bool has_new = false;
  zq::Entry new_entry;
};

// The whole change or none of it, in the transaction's handle.
zq::Status apply_direct(Table* t, const Change& ch) {
  if (zq::Status s = t->txn.trim(); !s) return s;
  return t->txn.change(ch.has_old ? &ch.old_entry : nullptr, ch.has_new ? &ch.new_entry : nullptr);
}

zq::Status change_pending(Table* t, const Change& ch) {
  if (ch.has_old)
    if (zq::Status s = defer_remove(t, ch.old_entry.id, ch.old_entry.box); !s) return s;
  if (ch.has_new) return defer_insert(t, ch.new_entry);
  return zq::Status::ok();
}

// The host's pending rows cannot be journaled (they have no rowid), so after
// the journal's replay they are brought back in line with what it restored.
zq::Status undo(Table* t, Journal::Op* op, const Change& ch, zq::Status failed) {
  std::string err = op->rollback();
  if (err.empty()) {
    for (const zq::Entry* e :
         {ch.has_old ? &ch.old_entry : nullptr, ch.has_new ? &ch.new_entry : nullptr}) {
      if (e == nullptr) continue;
      if (zq::Status s = resync_pending(t, e->id); !s) err = s.message();
    }
  }
  if (err.empty()) return failed;
  return zq::Status::io(failed.message() + "; restoring the tables failed as well: " + err);
}

// The whole change or none of it.
zq::Status apply_change(Table* t, const Change& ch) {
  if (!t->deferred()) return apply_direct(t, ch);
  Journal& journal = t->conn->journal;
  if (zq::Status s = ensure_pending(t); !s) return s;
  if (std::string err = watch_pending(t); !err.empty()) return zq::Status::io(err);
  Journal::Op op(journal);
  if (!op.begun().empty()) return zq::Status::io(op.begun());
  zq::Status s = change_pending(t, ch);
  if (!s) return undo(t, &op, ch, s);
  op.commit();
  return s;
}

// ---- reading the new row out of xUpdate's arguments ----

bool integer_value(sqlite3_value* v, int64_t* out) {
  const int type = sqlite3_value_numeric_type(v);
  if (type == SQLITE_INTEGER) {
    *out = sqlite3_value_int64(v);
    return true;
  }
  if (type != SQLITE_FLOAT) return false;
  const double d = sqlite3_value_double(v);
  if (d != std::floor(d) || std::fabs(d) >= 9.2e18) return false;
  *out = static_cast<int64_t>(d);
  return true;
}

std::string value_text(sqlite3_value* v) {
  if (sqlite3_value_type(v) == SQLITE_NULL) return "NULL";
  const unsigned char* text = sqlite3_value_text(v);
  if (text == nullptr) return "?";
  // Appended: GCC 12 warns (-Wrestrict) on `"'" + std::string(...)` at -O3.
  std::string quoted = "'";
  quoted += reinterpret_cast<const char*>(text);
  return quoted + "'";
}

// The new row's id: the id column or the rowid, whichever the statement set
// (on an UPDATE, whichever differs from the old rowid); an INSERT without
// either takes the rowid after the largest.
zq::Status new_id(Table* t, sqlite3_value** argv, const int64_t* old_id, int64_t* out) {
  const std::string& id_col = t->columns[0];
  std::vector<int64_t> given;
  for (sqlite3_value* v : {argv[2], argv[1]}) {
    if (sqlite3_value_type(v) == SQLITE_NULL) {
      if (old_id != nullptr && v == argv[2])
        return zq::Status::invalid(id_col + " may not be NULL");
      continue;
    }
    int64_t id = 0;
    if (!integer_value(v, &id))
      return zq::Status::invalid(id_col + " " + value_text(v) + " is not an integer");
    if (old_id == nullptr || id != *old_id) given.push_back(id);
  }
  if (given.size() == 2 && given[0] != given[1])
    return zq::Status::invalid("rowid " + std::to_string(given[1]) + " and " + id_col + " " +
                               std::to_string(given[0]) + " differ");
  if (!given.empty() || old_id != nullptr) {
    *out = given.empty() ? *old_id : given[0];
    return zq::Status::ok();
  }
  int64_t top = 0;
  if (zq::Status s = top_rowid(t, &top); !s) return s;
  if (top == INT64_MAX) return zq::Status::invalid("no rowid is left above " + std::to_string(top));
  *out = top + 1;
  return zq::Status::ok();
}

zq::Status new_box(Table* t, sqlite3_value** argv, zq::Box* box) {
  for (int k = 0; k < t->dims(); ++k) {
    const std::string& lo = t->columns[1 + 2 * k];
    const std::string& hi = t->columns[2 + 2 * k];
    for (int side = 0; side < 2; ++side) {
      sqlite3_value* v = argv[3 + 2 * k + side];
      const int type = sqlite3_value_numeric_type(v);
      const std::string& col = side == 0 ? lo : hi;
      if (type != SQLITE_INTEGER && type != SQLITE_FLOAT)
        return zq::Status::invalid(col + " " + value_text(v) + " is not a number");
      const double d = sqlite3_value_double(v);
      if (!std::isfinite(d)) return zq::Status::invalid(col + " is not a finite number");
      set_side(box, 2 * k + side, d);
    }
    if (box->min[k] > box->max[k]) {
      char buf[160];
      std::snprintf(buf, sizeof buf, " %.17g is above %s %.17g", box->min[k], hi.c_str(),
                    box->max[k]);
      return zq::Status::invalid(lo + buf);
    }
  }
  if (std::string p = zq::box_problem(*box, t->dims()); !p.empty()) return zq::Status::invalid(p);
  return zq::Status::ok();
}

int update_failed(Table* t, const std::string& what, const zq::Status& s) {
  const int rc = s.kind() == zq::Status::Kind::kInvalid ? SQLITE_MISMATCH : SQLITE_ERROR;
  return fail(t, failure(*t, what + ": " + s.message()), rc);
}

// The row that already holds the new rowid: refused, or removed first under
// OR REPLACE. SQLITE_OK when the change may go ahead.
int resolve_conflict(Table* t, Change* ch) {
  zq::Entry existing;
  bool found = false;
  if (zq::Status s = find_row(t, ch->new_entry.id, &existing, &found); !s)
    return update_failed(t, "reading rowid " + std::to_string(ch->new_entry.id), s);
  if (!found) return SQLITE_OK;
  if (sqlite3_vtab_on_conflict(t->conn->db) != SQLITE_REPLACE)
    return fail(t, failure(*t, "rowid " + std::to_string(ch->new_entry.id) + " is already indexed"),
                SQLITE_CONSTRAINT);
  Change displaced;
  displaced.has_old = true;
  displaced.old_entry = existing;
  if (zq::Status s = apply_change(t, displaced); !s)
    return update_failed(t, "replacing rowid " + std::to_string(existing.id), s);
  return SQLITE_OK;
}

}  // namespace

int x_update(sqlite3_vtab* vtab, int argc, sqlite3_value** argv, sqlite3_int64* rowid) {
  Table* t = static_cast<Table*>(vtab);
  if (std::string err = t->conn->refresh(); !err.empty()) return fail(t, failure(*t, err));
  zqenv_err_clear(t->conn->database().env());
  Change ch;
  const Table::RowMemo memo = t->row_memo;
  t->row_memo.valid = false;
  const bool has_old = sqlite3_value_type(argv[0]) != SQLITE_NULL;
  if (has_old) {
    const int64_t old_id = sqlite3_value_int64(argv[0]);
    if (memo.valid && memo.entry.id == old_id) {
      ch.old_entry = memo.entry;
      ch.has_old = memo.found;
    } else if (zq::Status s = find_row(t, old_id, &ch.old_entry, &ch.has_old); !s) {
      return update_failed(t, "reading rowid " + std::to_string(old_id), s);
    }
  }
  if (argc > 1) {
    ch.has_new = true;
    const int64_t old_id = ch.old_entry.id;
    if (zq::Status s = new_id(t, argv, has_old ? &old_id : nullptr, &ch.new_entry.id); !s)
      return update_failed(t, has_old ? "updating rowid " + std::to_string(old_id) : "inserting",
                           s);
    const std::string what = "rowid " + std::to_string(ch.new_entry.id);
    if (zq::Status s = new_box(t, argv, &ch.new_entry.box); !s) return update_failed(t, what, s);
    if (!(ch.has_old && ch.old_entry.id == ch.new_entry.id))
      if (int rc = resolve_conflict(t, &ch); rc != SQLITE_OK) return rc;
    if (ch.has_old && ch.old_entry == ch.new_entry) return SQLITE_OK;
  }
  if (!ch.has_old && !ch.has_new) return SQLITE_OK;
  if (zq::Status s = apply_change(t, ch); !s) {
    const std::string what = !ch.has_new  ? "deleting rowid " + std::to_string(ch.old_entry.id)
                             : ch.has_old ? "updating rowid " + std::to_string(ch.old_entry.id)
                                          : "inserting rowid " + std::to_string(ch.new_entry.id);
    return update_failed(t, what, s);
  }
  if (ch.has_new) *rowid = ch.new_entry.id;
  return SQLITE_OK;
}

// ---- the index's tables ----

namespace {

zq::Status create_tables(Conn* conn, const std::string& schema, const std::string& name, int dims) {
  const std::string catalog = quote(schema) + "." + quote(kCatalog);
  std::string err = exec(
      conn->db, "CREATE TABLE IF NOT EXISTS " + catalog + " (name TEXT PRIMARY KEY, dims INTEGER)");
  if (!err.empty()) return zq::Status::io("creating the index catalog: " + err);
  err =
      exec(conn->db, zq::detail::LeafMap::create_sql(quote(schema) + "." + quote(name + "_rowid")));
  if (!err.empty()) return zq::Status::io("creating the rowid table: " + err);
  conn->database().reset_leaf_maps();
  const int32_t rc =
      zqsess_create_node_table(conn->database().session(), schema.c_str(), name.c_str());
  if (rc < 0) return engine_failure(conn->database(), rc, "creating the node table");
  Stmt ins(conn->db, "INSERT INTO " + catalog + " (name, dims) VALUES (?1, ?2)");
  if (!ins.ok() || ins.bind(1, name).bind(2, static_cast<int64_t>(dims)).step() != SQLITE_DONE)
    return sql_failure(conn->db, "recording the index in the catalog");
  return zq::Status::ok();
}

// An index starts as one empty leaf at node 1: the bulk build of nothing.
zq::Status empty_tree(const zq::Index& index) {
  zq::Database& db = *index.database();
  zq_memobj storage{};
  zq_memobj* mem = rt_memobj_heap_create_fast_ex(db.env(), &storage, 4096, __FILE__, __LINE__);
  if (mem == nullptr) return engine_failure(db, RTR_ERR_NO_ROOM, "making build memory");
  zq_nsort* sorter = nullptr;
  int32_t rc = rtr_sort_create(db.env(), zqsess_sort_pool(db.session()), mem,
                               static_cast<uint16_t>(index.dims()), &sorter);
  zq::Status s;
  if (rc < 0) {
    s = engine_failure(db, rc, "creating the sorter");
  } else {
    Handle h(index, Handle::Mode::kBuild);
    s = h.status();
    if (s && (rc = rtr_blkload(db.env(), mem, h.get(), sorter, 0, 1.0)) < 0)
      s = engine_failure(db, rc, "building the empty tree");
  }
  if (sorter != nullptr) nsort_destory(db.env(), sorter);
  rt_memobj_destroy(db.env(), mem);
  return s;
}

zq::Status remove_tables(Conn* conn, const std::string& schema, const std::string& name) {
  std::string errors;
  conn->database().reset_leaf_maps();
  for (const std::string& table : {RTR_NODE_TABLE_PREFIX + name, name + "_rowid"})
    if (std::string err =
            exec(conn->db, "DROP TABLE IF EXISTS " + quote(schema) + "." + quote(table));
        !err.empty())
      errors += "; dropping " + quote(table) + ": " + err;
  Stmt del(conn->db, "DELETE FROM " + quote(schema) + "." + quote(kCatalog) + " WHERE name = ?1");
  if (del.ok() && del.bind(1, name).step() != SQLITE_DONE)
    errors += std::string("; removing it from the catalog: ") + sqlite3_errmsg(conn->db);
  return errors.empty() ? zq::Status::ok() : zq::Status::io(errors.substr(2));
}

}  // namespace

zq::Status create_index(Conn* conn, const std::string& schema, const std::string& name, int dims,
                        zq::Index* out) {
  zq::Index existing;
  if (zq::Index::open(conn->database(), name, &existing, schema))
    return zq::Status::exists("an index named '" + name + "' already exists; drop it first");
  for (const std::string& table : {RTR_NODE_TABLE_PREFIX + name, name + "_rowid"}) {
    Stmt st(conn->db, "SELECT 1 FROM " + quote(schema) + ".sqlite_schema WHERE name = ?1");
    if (st.ok() && st.bind(1, table).step() == SQLITE_ROW)
      return zq::Status::exists("table " + quote(table) + " already exists; choose another name");
  }
  zqenv_err_clear(conn->database().env());
  zq::Status s = create_tables(conn, schema, name, dims);
  if (s) s = zq::Index::open(conn->database(), name, out, schema);
  if (s) s = empty_tree(*out);
  // No savepoint can be had inside CREATE VIRTUAL TABLE: undo by hand.
  if (!s) remove_tables(conn, schema, name);
  return s;
}

zq::Status drop_index(Conn* conn, const zq::Index& index) {
  return remove_tables(conn, index.schema(), index.name());
}

}  // namespace zqext
