/* Which leaf holds each rowid: an index's rowid table.
 *
 * The library finds an entry by its box, but an engine is asked for rowids
 * ("DELETE ... WHERE id = ?"), so it must find a rowid's box first. Rather
 * than a second copy of every box, the driver keeps the table name + "_rowid":
 * the node id of the leaf row that holds each rowid, from which the box is
 * read. Rowids go in blocks of 64, one row a block, so that a dense index
 * costs about 4 bytes an entry (a copy of a 2-D box takes 45) and a bulk
 * build writes one row per 64 entries:
 *
 *   block  INTEGER PRIMARY KEY   rowid >> 6 (rowids 64*block .. 64*block+63)
 *   leaves BLOB NOT NULL         u8 w (4 or 8), u64 mask (bit i: rowid
 *                                64*block + i is indexed), then the leaf of
 *                                each indexed rowid in ascending order, w
 *                                bytes each; native byte order
 *
 * The table follows the node table by watching every row the host writes to
 * it (the session's row observer). For each entry the writes touch, it keeps
 * which stored leaf rows hold it: those last written with it, and the row
 * the table names unless that row was written without it. An entry can be
 * held by two rows for a while (it moved on before the row it left was
 * written again), and by none (the row it went to is not written yet; its
 * box is kept meanwhile). A row that ends up as it was stored is not written
 * at all, which is why "the row the table names" stays a holder until a
 * write says otherwise. After a full write-back every entry is held by one
 * row or, deleted, by none; the moves then reach the table in rowid order
 * when the user operation or transaction ends (apply()), or are forgotten
 * when it is rolled back (forget()). Between the two, the table and the
 * moves together still give the box of every rowid the operation has not
 * itself inserted or deleted.
 *
 * A bulk build writes every leaf once: its rows are only collected while
 * collect() is on, and refill() writes the table afresh from them. */
#ifndef ZQ_DRIVER_LEAF_MAP_H
#define ZQ_DRIVER_LEAF_MAP_H

#include <stdint.h>

#include <functional>
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
  // The CREATE TABLE of an index's rowid table, `table` quoted and qualified.
  static std::string create_sql(const std::string& table);

  // A row of the node table is about to be written; 0 or a negative code.
  int32_t observe(const zq_row_event& event);

  // The box of `id`, found false when the index does not hold it (as far as
  // the table and the moves tell: a caller's own uncommitted inserts and
  // deletes are the caller's to know).
  Status find(int64_t id, Box* box, bool* found);
  // Rows of the table, corrected by the moves not yet applied.
  Status count(uint64_t* n);
  // Every (rowid, leaf) the table holds, in rowid order; the largest rowid
  // it holds (0 when none).
  Status pairs(std::vector<std::pair<int64_t, int64_t>>* out);
  Status top(int64_t* id);
  // At least as many as the table lists, cheaply: 64 for each block row.
  Status bound(uint64_t* n);
  Status apply();
  void forget();
  bool has_moves() const { return !where_.empty(); }
  // Every rowid the writes touched, with the leaf the table should name for
  // it once they are applied: 0 none (deleted), kAsTable the one it names.
  static constexpr int64_t kAsTable = -1;
  std::vector<std::pair<int64_t, int64_t>> settled() const;

  // Bulk build: leaf rows are collected instead of observed as moves, and
  // refill() rewrites the whole table from them.
  void collect(bool on);
  Status refill();

 private:
  struct Cells;
  // The stored leaf rows holding one rowid the writes touched.
  struct Where {
    int64_t rows[2] = {0, 0};   // node ids; 0 marks a free slot
    std::vector<int64_t> more;  // beyond two, while an entry hops on and on
    bool table = true;          // the row the table names still holds it
    void hold(int64_t node);
    bool drop(int64_t node);  // false when `node` was not a holder
    int64_t any() const;      // a holder, or 0
  };
  Status table_leaf(int64_t id, int64_t* leaf, bool* found);
  // Statements kept by the Database, prepared on first use.
  struct Block {
    uint64_t mask = 0;
    int64_t leaf[64];  // by bit; valid where the mask is set
  };
  enum Kind { kReadLeaf, kReadBlock, kPutBlock, kDeleteBlock, kKinds };
  sqlite3_stmt* statement(Kind kind);
  Status read_block(int64_t block, Block* out);
  // Every block of the table in block order, decoded; a damaged one fails.
  Status each_block(const std::function<void(int64_t, const Block&)>& visit);
  Status write_block(int64_t block, const Block& b);
  // Writes the (rowid, leaf) rows, in rowid order, over what the table
  // holds; leaf 0 takes the rowid out.
  Status write(const std::vector<std::pair<int64_t, int64_t>>& rows);
  bool dense_refill(Status* s);
  Status sorted_refill();
  Status read_leaf(int64_t leaf, std::vector<uint8_t>* blob, int32_t* level);
  int32_t moves(int64_t node, const Cells& before, const Cells& after);

  Database& db_;
  std::string schema_;
  std::string node_table_;
  std::string rowid_table_;
  sqlite3_stmt* stmts_[kKinds] = {};
  std::unordered_map<int64_t, Where> where_;
  // A bit per hash of each rowid where_ has held since forget(): most
  // entries a write sees never moved, and this answers for them without a
  // look-up in where_.
  static constexpr int kTouchedBits = 20;
  std::vector<uint64_t> touched_;
  static size_t touched_bit(int64_t id) {
    return static_cast<size_t>(static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ull >>
                               (64 - kTouchedBits));
  }
  Where& touch(int64_t id);
  bool maybe_touched(int64_t id) const {
    const size_t b = touched_bit(id);
    return !touched_.empty() && (touched_[b / 64] >> (b % 64) & 1) != 0;
  }
  std::unordered_map<int64_t, Box> loose_;  // boxes of the rowids no stored row holds
  bool collecting_ = false;
  std::vector<std::pair<int64_t, int64_t>> built_;  // (rowid, leaf) of a bulk build
  std::vector<int64_t> dropped_;                    // leaf rows a bulk build deleted again
};

// Installed on every session the driver opens: routes node-table writes to
// their index's LeafMap.
int32_t observe_rows(void* database, const zq_row_event* event);

}  // namespace zq::detail

#endif
