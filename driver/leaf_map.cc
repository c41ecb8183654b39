// The rowid table of an index, kept in step with the node table's leaf rows.
#include "driver/leaf_map.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "driver/internal.h"
#include "zqrtree/errors.h"
#include "zqrtree/phy.h"

namespace zq::detail {

// The entries of one leaf row's cells blob, read without trusting it: a blob
// whose length does not fit its count holds none here (the checker reports
// such rows; what matters here is not to read past them).
struct LeafMap::Cells {
  const uint8_t* blob = nullptr;
  uint32_t n = 0;
  uint32_t axes = 0;  // axes per entry as stored

  static Cells of(const uint8_t* blob, uint32_t len) {
    Cells c;
    if (blob == nullptr || len < 4) return c;
    uint32_t n = 0;
    std::memcpy(&n, blob, 4);
    if (n == 0 || n > RTR_MAX_CELLS || (len - 4) % n != 0) return c;
    const uint32_t entry = (len - 4) / n;
    if (entry % 8 != 0 || entry < 24 || entry > 56 || (entry / 8) % 2 == 0) return c;
    c.blob = blob + 4;
    c.n = n;
    c.axes = (entry / 8 - 1) / 2;
    return c;
  }
  size_t stride() const { return 8 * (2 * axes + 1); }
  int64_t id(uint32_t i) const {
    int64_t v;
    std::memcpy(&v, blob + i * stride(), 8);
    return v;
  }
  Box box(uint32_t i) const {
    Box b;
    const uint8_t* p = blob + i * stride() + 8;
    for (uint32_t k = 0; k < axes && k < kMaxDims; ++k) {
      std::memcpy(&b.min[k], p + 8 * k, 8);
      std::memcpy(&b.max[k], p + 8 * (axes + k), 8);
    }
    return b;
  }
};

namespace {

const uint8_t* value_bytes(const zq_value& v) {
  return v.len <= ZQ_VALUE_INLINE_MAX ? v.u.inl : v.ptr;
}

// The old value of `col` among an update's changed columns, or null.
const zq_value* old_value(const zq_fillinfo* old_values, uint16_t col) {
  if (old_values == nullptr) return nullptr;
  for (uint16_t i = 0; i < old_values->n_cols; ++i)
    if (old_values->col_nos[i] == col) return &old_values->values[i];
  return nullptr;
}

}  // namespace

LeafMap::LeafMap(Database& db, std::string schema, std::string index_name)
    : db_(db),
      schema_(std::move(schema)),
      node_table_(RTR_NODE_TABLE_PREFIX + index_name),
      rowid_table_(index_name + "_rowid") {}

namespace {

int64_t block_of(int64_t id) {
  return id >> 6;  // arithmetic: negative rowids have blocks of their own
}
unsigned bit_of(int64_t id) {
  return static_cast<unsigned>(id & 63);
}

}  // namespace

std::string LeafMap::create_sql(const std::string& table) {
  return "CREATE TABLE " + table + " (block INTEGER PRIMARY KEY, leaves BLOB NOT NULL)";
}

sqlite3_stmt* LeafMap::statement(Kind kind) {
  sqlite3_stmt*& st = stmts_[kind];
  if (st != nullptr) return st;
  const std::string node = qualified(schema_, node_table_),
                    rowids = qualified(schema_, rowid_table_);
  std::string sql;
  switch (kind) {
    case kReadLeaf:
      sql = "SELECT level, cells FROM " + node + " WHERE rowid = ?1";
      break;
    case kReadBlock:
      sql = "SELECT leaves FROM " + rowids + " WHERE block = ?1";
      break;
    case kPutBlock:
      sql = "INSERT OR REPLACE INTO " + rowids + " (block, leaves) VALUES (?1, ?2)";
      break;
    case kDeleteBlock:
      sql = "DELETE FROM " + rowids + " WHERE block = ?1";
      break;
    case kKinds:
      break;
  }
  int rc = SQLITE_OK;
  st = db_.statement(sql, &rc);
  return st;
}

namespace {

// A block row's blob; false when it is not one (the checker says so).
bool decode_block(const uint8_t* p, size_t n, uint64_t* mask, int64_t leaf[64]) {
  if (n < 9 || (p[0] != 4 && p[0] != 8)) return false;
  const size_t w = p[0];
  std::memcpy(mask, p + 1, 8);
  if (n != 9 + w * static_cast<size_t>(__builtin_popcountll(*mask))) return false;
  const uint8_t* at = p + 9;
  for (uint64_t bits = *mask; bits != 0; bits &= bits - 1, at += w) {
    const unsigned i = static_cast<unsigned>(__builtin_ctzll(bits));
    if (w == 4) {
      uint32_t v;
      std::memcpy(&v, at, 4);
      leaf[i] = v;
    } else {
      std::memcpy(&leaf[i], at, 8);
    }
  }
  return true;
}

void encode_block(uint64_t mask, const int64_t leaf[64], std::string* out) {
  bool narrow = true;
  for (uint64_t bits = mask; bits != 0; bits &= bits - 1) {
    const int64_t v = leaf[__builtin_ctzll(bits)];
    narrow = narrow && v >= 0 && v <= INT32_MAX;
  }
  const uint8_t w = narrow ? 4 : 8;
  out->assign(1, static_cast<char>(w));
  out->append(reinterpret_cast<const char*>(&mask), 8);
  for (uint64_t bits = mask; bits != 0; bits &= bits - 1) {
    const int64_t v = leaf[__builtin_ctzll(bits)];
    if (narrow) {
      const uint32_t u = static_cast<uint32_t>(v);
      out->append(reinterpret_cast<const char*>(&u), 4);
    } else {
      out->append(reinterpret_cast<const char*>(&v), 8);
    }
  }
}

}  // namespace

Status LeafMap::read_block(int64_t block, Block* out) {
  Stmt st(statement(kReadBlock));
  const int rc = st.ok() ? st.bind(1, block).step() : SQLITE_ERROR;
  out->mask = 0;
  if (rc == SQLITE_ROW) {
    const auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(st.get(), 0));
    const size_t n = static_cast<size_t>(sqlite3_column_bytes(st.get(), 0));
    if (!decode_block(p, n, &out->mask, out->leaf))
      return Status::engine(RTR_ERR_NOT_FOUND, "block " + std::to_string(block) + " of " +
                                                   rowid_table_ +
                                                   " is damaged; run `zqrtree check`");
  } else if (rc != SQLITE_DONE) {
    return sql_failure(db_.db(), "reading " + rowid_table_);
  }
  return Status::ok();
}

Status LeafMap::write_block(int64_t block, const Block& b) {
  if (b.mask == 0) {
    Stmt del(statement(kDeleteBlock));
    if (!del.ok() || del.bind(1, block).step() != SQLITE_DONE)
      return sql_failure(db_.db(), "writing " + rowid_table_);
    return Status::ok();
  }
  std::string blob;
  encode_block(b.mask, b.leaf, &blob);
  Stmt put(statement(kPutBlock));
  if (put.ok()) {
    put.bind(1, block);
    sqlite3_bind_blob(put.get(), 2, blob.data(), static_cast<int>(blob.size()), SQLITE_STATIC);
  }
  if (!put.ok() || put.step() != SQLITE_DONE)
    return sql_failure(db_.db(), "writing " + rowid_table_);
  return Status::ok();
}

Status LeafMap::write(const std::vector<std::pair<int64_t, int64_t>>& rows) {
  for (size_t i = 0; i < rows.size();) {
    const int64_t block = block_of(rows[i].first);
    Block b;
    if (Status s = read_block(block, &b); !s) return s;
    for (; i < rows.size() && block_of(rows[i].first) == block; ++i) {
      const uint64_t bit = uint64_t{1} << bit_of(rows[i].first);
      if (rows[i].second == 0) {
        b.mask &= ~bit;
      } else {
        b.mask |= bit;
        b.leaf[bit_of(rows[i].first)] = rows[i].second;
      }
    }
    if (Status s = write_block(block, b); !s) return s;
  }
  return Status::ok();
}

Status LeafMap::each_block(const std::function<void(int64_t, const Block&)>& visit) {
  Stmt st(db_.db(),
          "SELECT block, leaves FROM " + qualified(schema_, rowid_table_) + " ORDER BY block");
  if (!st.ok()) return sql_failure(db_.db(), "reading " + rowid_table_);
  int rc;
  Block b;
  while ((rc = st.step()) == SQLITE_ROW) {
    const int64_t block = st.int64(0);
    const auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(st.get(), 1));
    if (!decode_block(p, static_cast<size_t>(sqlite3_column_bytes(st.get(), 1)), &b.mask, b.leaf))
      return Status::invalid("block " + std::to_string(block) + " of " + rowid_table_ +
                             " is damaged");
    visit(block, b);
  }
  if (rc != SQLITE_DONE) return sql_failure(db_.db(), "reading " + rowid_table_);
  return Status::ok();
}

Status LeafMap::pairs(std::vector<std::pair<int64_t, int64_t>>* out) {
  out->clear();
  return each_block([out](int64_t block, const Block& b) {
    for (uint64_t bits = b.mask; bits != 0; bits &= bits - 1) {
      const unsigned i = static_cast<unsigned>(__builtin_ctzll(bits));
      out->emplace_back(block * 64 + i, b.leaf[i]);
    }
  });
}

Status LeafMap::bound(uint64_t* n) {
  Stmt st(db_.db(), "SELECT count(*) FROM " + qualified(schema_, rowid_table_));
  if (!st.ok() || st.step() != SQLITE_ROW) return sql_failure(db_.db(), "reading " + rowid_table_);
  *n = 64 * static_cast<uint64_t>(st.int64(0));
  return Status::ok();
}

Status LeafMap::top(int64_t* id) {
  *id = 0;
  Stmt st(db_.db(), "SELECT max(block) FROM " + qualified(schema_, rowid_table_));
  if (!st.ok() || st.step() != SQLITE_ROW) return sql_failure(db_.db(), "reading " + rowid_table_);
  if (sqlite3_column_type(st.get(), 0) == SQLITE_NULL) return Status::ok();
  const int64_t block = st.int64(0);
  Block b;
  if (Status s = read_block(block, &b); !s) return s;
  if (b.mask != 0) *id = block * 64 + (63 - __builtin_clzll(b.mask));
  return Status::ok();
}

Status LeafMap::read_leaf(int64_t leaf, std::vector<uint8_t>* blob, int32_t* level) {
  Stmt st(statement(kReadLeaf));
  if (!st.ok()) return sql_failure(db_.db(), "reading node " + std::to_string(leaf));
  const int rc = st.bind(1, leaf).step();
  blob->clear();
  *level = -1;
  if (rc == SQLITE_ROW) {
    *level = static_cast<int32_t>(st.int64(0));
    const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(st.get(), 1));
    blob->assign(bytes, bytes + sqlite3_column_bytes(st.get(), 1));
  } else if (rc != SQLITE_DONE) {
    return sql_failure(db_.db(), "reading node " + std::to_string(leaf));
  }
  return Status::ok();
}

int32_t LeafMap::observe(const zq_row_event& ev) {
  // The leaf entries of the row before and after the write; a branch row
  // holds none.
  Cells before, after;
  std::vector<uint8_t> stored;
  const int64_t node = ev.rowid;
  int32_t new_level = -1;
  const zq_value* cells = nullptr;
  if (ev.row != nullptr) {
    new_level = ev.row->cols[RTR_COL_LEVEL].u.i32;
    cells = &ev.row->cols[RTR_COL_CELLS];
    if (new_level == 0) after = Cells::of(value_bytes(*cells), cells->len);
  }
  switch (ev.change) {
    case ZQ_ROW_INSERT:
      break;
    case ZQ_ROW_UPDATE: {
      const zq_value* old_level = old_value(ev.old_values, RTR_COL_LEVEL);
      const zq_value* old_cells = old_value(ev.old_values, RTR_COL_CELLS);
      if (ev.row != nullptr) {
        const int32_t level = old_level != nullptr ? old_level->u.i32 : new_level;
        if (level == 0)
          before =
              old_cells != nullptr ? Cells::of(value_bytes(*old_cells), old_cells->len) : after;
        break;
      }
      // In place: only the level or the parent changed, and only a level
      // crossing to or from 0 changes which rows the leaves hold.
      if (old_level == nullptr) return 0;
      const zq_value* level = nullptr;
      for (uint16_t i = 0; i < ev.new_values->n_cols; ++i)
        if (ev.new_values->col_nos[i] == RTR_COL_LEVEL) level = &ev.new_values->values[i];
      if (level == nullptr || (level->u.i32 == 0) == (old_level->u.i32 == 0)) return 0;
      int32_t ignored = 0;
      if (!read_leaf(node, &stored, &ignored)) return RTR_ERR_NO_ROOM;
      const Cells held = Cells::of(stored.data(), static_cast<uint32_t>(stored.size()));
      (old_level->u.i32 == 0 ? before : after) = held;
      break;
    }
    case ZQ_ROW_DELETE: {
      int32_t level = -1;
      if (ev.rec != nullptr) {
        nrec_copy_nth_field_data_lint(db_.env(), ev.desc, ev.rec, &level, RTR_COL_LEVEL, nullptr);
        if (level != 0) return 0;
        uint16_t len = RTR_BLOB_MAX;
        const uint8_t* bytes =
            nrec_get_nth_fld(db_.env(), ev.desc, ev.rec, RTR_COL_CELLS, nullptr, &len);
        stored.assign(bytes, bytes + (bytes != nullptr ? len : 0));
      } else if (!read_leaf(node, &stored, &level)) {
        return RTR_ERR_NO_ROOM;
      }
      if (level == 0) before = Cells::of(stored.data(), static_cast<uint32_t>(stored.size()));
      break;
    }
  }
  if (before.n == 0 && after.n == 0) return 0;
  try {
    if (collecting_) {
      if (before.n > 0) dropped_.push_back(node);
      for (uint32_t i = 0; i < after.n; ++i) built_.emplace_back(after.id(i), node);
      return 0;
    }
    return moves(node, before, after);
  } catch (const std::bad_alloc&) {
    return RTR_ERR_NO_ROOM;
  }
}

void LeafMap::Where::hold(int64_t node) {
  if (rows[0] == node || rows[1] == node || std::find(more.begin(), more.end(), node) != more.end())
    return;
  if (rows[0] == 0)
    rows[0] = node;
  else if (rows[1] == 0)
    rows[1] = node;
  else
    more.push_back(node);
}

bool LeafMap::Where::drop(int64_t node) {
  for (int64_t& r : rows)
    if (r == node) {
      r = 0;
      return true;
    }
  auto it = std::find(more.begin(), more.end(), node);
  if (it == more.end()) return false;
  more.erase(it);
  return true;
}

int64_t LeafMap::Where::any() const {
  if (!more.empty()) return more.back();
  return rows[1] != 0 ? rows[1] : rows[0];
}

namespace {

// The ids of one leaf row, for membership tests: open addressing in a table
// four times the largest row, so a probe seldom goes past its first slot.
class RowIds {
 public:
  template <class Cells>
  explicit RowIds(const Cells& cells) {
    std::memset(used_, 0, sizeof used_);
    for (uint32_t i = 0; i < cells.n; ++i) {
      const int64_t id = cells.id(i);
      uint32_t s = slot_of(id);
      while (used_[s] && ids_[s] != id) s = (s + 1) & (kSlots - 1);
      used_[s] = true;
      ids_[s] = id;
    }
  }
  bool has(int64_t id) const {
    for (uint32_t s = slot_of(id); used_[s]; s = (s + 1) & (kSlots - 1))
      if (ids_[s] == id) return true;
    return false;
  }

 private:
  static constexpr uint32_t kSlots = 256;
  static_assert(kSlots >= 4 * RTR_MAX_CELLS);
  static uint32_t slot_of(int64_t id) {
    return static_cast<uint32_t>((static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ull) >> 56);
  }
  int64_t ids_[kSlots];
  bool used_[kSlots];
};

}  // namespace

int32_t LeafMap::moves(int64_t node, const Cells& before, const Cells& after) {
  // Each id is settled on its own, so the rows are compared by membership,
  // not by sorting them (which cost more than all the rest of a delete's
  // bookkeeping here).
  const RowIds in_before(before), in_after(after);
  for (uint32_t i = 0; i < before.n; ++i) {
    const int64_t id = before.id(i);
    if (in_after.has(id)) {
      // Still here; if the entry was seen elsewhere since, this row holds
      // it again (it came back without this row ever being written).
      if (maybe_touched(id))
        if (auto it = where_.find(id); it != where_.end()) it->second.hold(node);
      continue;
    }
    // Not recorded as held here: then this is the row the table names.
    Where& w = touch(id);
    if (!w.drop(node)) w.table = false;
    if (w.any() == 0 && !w.table) loose_[id] = before.box(i);
  }
  for (uint32_t j = 0; j < after.n; ++j) {
    const int64_t id = after.id(j);
    if (in_before.has(id)) continue;
    touch(id).hold(node);
    loose_.erase(id);
  }
  return 0;
}

Status LeafMap::table_leaf(int64_t id, int64_t* leaf, bool* found) {
  Block b;
  if (Status s = read_block(block_of(id), &b); !s) return s;
  *found = (b.mask >> bit_of(id) & 1) != 0;
  if (*found) *leaf = b.leaf[bit_of(id)];
  return Status::ok();
}

Status LeafMap::find(int64_t id, Box* box, bool* found) {
  int64_t leaf = 0;
  *found = false;
  if (auto it = maybe_touched(id) ? where_.find(id) : where_.end(); it != where_.end()) {
    leaf = it->second.any();
    if (leaf == 0 && !it->second.table) {
      auto loose = loose_.find(id);
      if (loose == loose_.end()) return Status::ok();
      *box = loose->second;
      *found = true;
      return Status::ok();
    }
  }
  if (leaf == 0)
    if (Status s = table_leaf(id, &leaf, found); !s || !*found) return s;
  *found = true;
  std::vector<uint8_t> blob;
  int32_t level = 0;
  if (Status s = read_leaf(leaf, &blob, &level); !s) return s;
  const Cells cells = Cells::of(blob.data(), static_cast<uint32_t>(blob.size()));
  if (level == 0)
    for (uint32_t i = 0; i < cells.n; ++i)
      if (cells.id(i) == id) {
        *box = cells.box(i);
        return Status::ok();
      }
  return Status::engine(RTR_ERR_NOT_FOUND, rowid_table_ + " places rowid " + std::to_string(id) +
                                               " in node " + std::to_string(leaf) +
                                               ", which does not hold it; run `zqrtree check`");
}

std::vector<std::pair<int64_t, int64_t>> LeafMap::settled() const {
  std::vector<std::pair<int64_t, int64_t>> out;
  out.reserve(where_.size());
  for (const auto& [id, w] : where_) {
    const int64_t leaf = w.any();
    out.emplace_back(id, leaf != 0 ? leaf : w.table ? kAsTable : 0);
  }
  // In rowid order the table's pages are visited once each.
  std::sort(out.begin(), out.end());
  return out;
}

Status LeafMap::count(uint64_t* n) {
  // Bits block by block: listing the pairs to count them would take 16 bytes
  // a rowid (zqrtree_load counts before and after a build).
  int64_t total = 0;
  if (Status s = each_block([&total](int64_t, const Block& b) { total += std::popcount(b.mask); });
      !s)
    return s;
  // Moves not written yet: a rowid now held counts unless the table lists it
  // already, one now gone stops counting if it does.
  std::vector<std::pair<int64_t, int64_t>> moved = settled();
  std::sort(moved.begin(), moved.end());
  Block b;
  int64_t read = 0;
  bool any = false;
  for (const auto& [id, leaf] : moved) {
    if (leaf == kAsTable) continue;
    if (!any || block_of(id) != read) {
      if (Status s = read_block(block_of(id), &b); !s) return s;
      read = block_of(id);
      any = true;
    }
    const bool listed = (b.mask >> bit_of(id) & 1) != 0;
    total += (leaf != 0) - listed;
  }
  *n = static_cast<uint64_t>(total);
  return Status::ok();
}

Status LeafMap::apply() {
  if (where_.empty()) return Status::ok();
  std::vector<std::pair<int64_t, int64_t>> rows = settled();
  std::erase_if(rows, [](const auto& row) { return row.second == kAsTable; });
  if (Status s = write(rows); !s) return s;
  forget();
  return Status::ok();
}

LeafMap::Where& LeafMap::touch(int64_t id) {
  if (touched_.empty()) touched_.assign((size_t{1} << kTouchedBits) / 64, 0);
  const size_t b = touched_bit(id);
  touched_[b / 64] |= uint64_t{1} << (b % 64);
  return where_[id];
}

void LeafMap::forget() {
  if (!where_.empty()) std::fill(touched_.begin(), touched_.end(), 0);
  where_.clear();
  loose_.clear();
  built_.clear();
  dropped_.clear();
}

void LeafMap::collect(bool on) {
  collecting_ = on;
}

// Rowids mostly come dense, and then a slot per rowid of the range puts the
// pairs in order without a sort; false when they are too spread for that.
bool LeafMap::dense_refill(Status* s) {
  if (built_.empty()) return true;
  int64_t lo = INT64_MAX, hi = INT64_MIN;
  for (const auto& [id, leaf] : built_) {
    lo = std::min(lo, id);
    hi = std::max(hi, id);
  }
  const uint64_t span = static_cast<uint64_t>(hi) - static_cast<uint64_t>(lo) + 1;
  if (span == 0 || span > 4 * built_.size() + 4096) return false;
  // Whole blocks, so that the slots of one block lie together.
  const int64_t first = block_of(lo) * 64;
  std::vector<int64_t> slot(static_cast<size_t>(block_of(hi) * 64 + 64 - first), 0);
  for (const auto& [id, leaf] : built_) {
    int64_t& at = slot[static_cast<size_t>(id - first)];
    if (at != 0) {
      *s = Status::invalid("rowid " + std::to_string(id) + " is in the tree twice");
      return true;
    }
    at = leaf;
  }
  Block b;
  for (size_t base = 0; *s && base < slot.size(); base += 64) {
    b.mask = 0;
    for (unsigned i = 0; i < 64; ++i)
      if (slot[base + i] != 0) {
        b.mask |= uint64_t{1} << i;
        b.leaf[i] = slot[base + i];
      }
    if (b.mask != 0) *s = write_block(block_of(first) + static_cast<int64_t>(base / 64), b);
  }
  return true;
}

Status LeafMap::sorted_refill() {
  std::sort(built_.begin(), built_.end());
  for (size_t i = 1; i < built_.size(); ++i)
    if (built_[i].first == built_[i - 1].first)
      return Status::invalid("rowid " + std::to_string(built_[i].first) + " is in the tree twice");
  // Straight into empty blocks, each written once.
  Block b;
  for (size_t i = 0; i < built_.size();) {
    const int64_t block = block_of(built_[i].first);
    b.mask = 0;
    for (; i < built_.size() && block_of(built_[i].first) == block; ++i) {
      b.mask |= uint64_t{1} << bit_of(built_[i].first);
      b.leaf[bit_of(built_[i].first)] = built_[i].second;
    }
    if (Status s = write_block(block, b); !s) return s;
  }
  return Status::ok();
}

Status LeafMap::refill() {
  std::sort(dropped_.begin(), dropped_.end());
  std::erase_if(built_, [&](const auto& p) {
    return std::binary_search(dropped_.begin(), dropped_.end(), p.second);
  });
  Status s =
      exec(db_.db(), "DELETE FROM " + qualified(schema_, rowid_table_), "emptying " + rowid_table_);
  if (s && !dense_refill(&s)) s = sorted_refill();
  forget();
  return s;
}

int32_t observe_rows(void* database, const zq_row_event* event) {
  if (std::strncmp(event->table, RTR_NODE_TABLE_PREFIX, sizeof RTR_NODE_TABLE_PREFIX - 1) != 0)
    return 0;
  LeafMap* map = static_cast<Database*>(database)->leaf_map(event->schema, event->table);
  return map != nullptr ? map->observe(*event) : 0;
}

}  // namespace zq::detail
