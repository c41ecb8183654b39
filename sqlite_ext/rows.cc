// What a rowid holds now. Changes of the open transaction live in three
// places until it commits: the work list of a deferred table, the change list
// of the transaction's writing handle, and the moves of the index's rowid
// table; each answers for the rowids it knows, in that order, and the rowid
// table with the leaf rows for all others.
#include <algorithm>
#include <climits>
#include <string>

#include "driver/leaf_map.h"
#include "driver/stmt.h"
#include "sqlite_ext/ext.h"
#include "sqlite_ext/handle.h"

namespace zqext {

zq::Status find_row(Table* t, int64_t id, zq::Entry* entry, bool* found) {
  entry->id = id;
  if (t->deferred()) {
    zq::Status s;
    const int live = pending_row(t, id, &entry->box, &s);
    if (!s) return s;
    if (live >= 0) {
      *found = live == 1;
      return s;
    }
  }
  zq::Entry mine;
  if (const int changed = t->txn.changed(id, &mine); changed >= 0) {
    *found = changed == 1;
    if (*found) *entry = mine;
    return zq::Status::ok();
  }
  zq::Status s = t->index.lookup(id, &entry->box);
  *found = s.is_ok();
  return *found || s.kind() == zq::Status::Kind::kNotFound ? zq::Status::ok() : s;
}

zq::Status top_rowid(Table* t, int64_t* top) {
  sqlite3* db = t->conn->db;
  zq::detail::LeafMap* map = t->index.leaf_map();
  if (map == nullptr) return zq::Status::not_found("the rowid table is missing");
  if (zq::Status s = map->top(top); !s) return s;
  *top = std::max(*top, t->txn.top_inserted());
  if (t->deferred()) {
    Stmt live(db, "SELECT max(rid) FROM temp.zqrtree_touched WHERE tab = ?1 AND live = 1");
    if (!live.ok() || live.bind(1, t->key()).step() != SQLITE_ROW)
      return sql_failure(db, "choosing a rowid");
    *top = std::max(*top, live.int64(0));
  }
  return zq::Status::ok();
}

}  // namespace zqext
