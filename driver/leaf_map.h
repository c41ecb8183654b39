/* Which leaf holds each rowid: an index's rowid table.
 *
 * The library finds an entry by its box, but an engine is asked for rowids
 * ("DELETE ... WHERE id = ?"), so it must find a rowid's box first. Rather
 * than a second copy of every box, the driver keeps the table name + "_rowid"
 * (id INTEGER PRIMARY KEY, leaf INTEGER NOT NULL): the node id of the leaf
 * row that holds each rowid, 12 to 14 bytes an entry where a copy of a 2-D
 * box takes 45. The box itself is read from that leaf row.
 *
 * The table follows the node table by watching every row the host writes to
 * it (the session's row observer): an entry that appears in a leaf row has
 * moved there, one that disappears has moved out (its box is kept, because
 * the row it is going to may not be written yet). The moves wait in memory
 * and reach the table in rowid order when a user operation or transaction
 * ends (apply()), or are forgotten when it is rolled back (forget()).
 * Between the two, the table and the moves together still give the box of
 * every rowid the operation has not itself inserted or deleted.
 *
 * A bulk build writes every leaf once: its rows are only collected while
 * collect() is on, and refill() writes the table afresh from them. */
#ifndef ZQ_DRIVER_LEAF_MAP_H
#define ZQ_DRIVER_LEAF_MAP_H

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "driver/index.h"
#include "host/host.h"

namespace zq::detail {

class LeafMap {
 public:
  LeafMap(Database& db, std::string schema, std::string index_name);
  LeafMap(const LeafMap&) = delete;
  LeafMap& operator=(const LeafMap&) = delete;

  const std::string& schema() const { return schema_; }
  const std::string& node_table() const { return node_table_; }
  const std::string& rowid_table() const { return rowid_table_; }

  // A row of the node table is about to be written; 0 or a negative code.
  int32_t observe(const zq_row_event& event);

  // The box of `id`, found false when the index does not hold it (as far as
  // the table and the moves tell: a caller's own uncommitted inserts and
  // deletes are the caller's to know).
  Status find(int64_t id, Box* box, bool* found);
  // Rows of the table, corrected by the moves not yet applied.
  Status count(uint64_t* n);
  Status apply();
  void forget();
  bool has_moves() const { return !moved_.empty(); }
  // Rowid -> leaf of every move not yet applied (0: moved out, in no leaf row).
  const std::unordered_map<int64_t, int64_t>& moves() const { return moved_; }

  // Bulk build: leaf rows are collected instead of observed as moves, and
  // refill() rewrites the whole table from them.
  void collect(bool on);
  Status refill();

 private:
  struct Cells;
  Status leaf_of(int64_t id, int64_t* leaf, bool* found);
  Status read_leaf(int64_t leaf, std::vector<uint8_t>* blob, int32_t* level);
  int32_t moves(int64_t node, const Cells& before, const Cells& after);

  Database& db_;
  std::string schema_;
  std::string node_table_;
  std::string rowid_table_;
  // Rowid -> the leaf row last written with it; 0: moved out, in none yet.
  std::unordered_map<int64_t, int64_t> moved_;
  std::unordered_map<int64_t, Box> loose_;  // the boxes of the rowids moved out
  bool collecting_ = false;
  std::vector<std::pair<int64_t, int64_t>> built_;  // (rowid, leaf) of a bulk build
  std::vector<int64_t> dropped_;                    // leaf rows a bulk build deleted again
};

// Installed on every session the driver opens: routes node-table writes to
// their index's LeafMap.
int32_t observe_rows(void* database, const zq_row_event* event);

}  // namespace zq::detail

#endif
