// libFuzzer target: the driver's operations on a tree whose node rows may be
// anything. An index is made through the driver, its node rows are then
// replaced by fuzzed ones (levels, parents, blobs that are well formed, raw,
// text or lying about their count, the root among them), and queries,
// inserts, deletes and the checker run on it. Nothing may crash, hang (run
// with -timeout) or trip a sanitizer; an operation that fails must leave the
// database as it was; and on a tree the checker calls sound, with tame
// coordinates, every operation must succeed and leave the tree sound.
//
// Input, front to back (fuzz/reader.h), one byte per item:
//   dims (1 + b % 3), rows (b % 9), then per row: id (1 + b % 12), level
//   (int8; 127 stands for INT32_MAX), parent (b % 13) and a kind (b % 5):
//     0 entries, 3 entries under a count that may lie (one more byte; 255
//     stands for INT32_MAX), 4 entries of two axes; each: count (b % 56),
//     then per entry an id (b % 15 - 1) and 2 * dims coordinates
//     (kValues[b % 16], all minima, then all maxima);
//     1 a raw blob (length, bytes); 2 text (length);
//   then operations until the input ends (b % 4): 0 query (operator, box),
//   1 insert (1 + b % 3 entries, each a box), 2 delete (which inserted
//   entry), 3 check.
#include <sqlite3.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "check/check.h"
#include "driver/index.h"
#include "fuzz/reader.h"
#include "zqrtree/geom.h"

namespace {

using zqfuzz::Reader;

constexpr double kInf = std::numeric_limits<double>::infinity();
// The first kTame values are tame: an index holding only them is one the
// library must handle without fault.
constexpr double kValues[16] = {
    0,  1,  2,   3,   5,     8,    10,    100,
    -1, -5, 0.5, 1e3, 1e300, kInf, -kInf, std::numeric_limits<double>::quiet_NaN()};
constexpr uint8_t kTame = 12;
constexpr uint32_t kOps[8] = {RTR_OP_INTERSECT,
                              RTR_OP_CONTAINS,
                              RTR_OP_WITHIN,
                              RTR_OP_EQUAL,
                              RTR_OP_INTERSECT | RTR_OP_CONTAINS,
                              RTR_OP_OR | RTR_OP_WITHIN | RTR_OP_EQUAL,
                              RTR_OP_OR | RTR_OP_ANY,
                              RTR_OP_OR | RTR_OP_ANY | RTR_OP_INTERSECT};

void expect(bool holds, const char* what, const std::string& detail = "") {
  if (holds) return;
  std::fprintf(stderr, "fuzz_tree_ops: %s\n%s\n", what, detail.c_str());
  std::abort();
}

// What the rows say about the oracle's preconditions, per node id.
struct NodeFacts {
  int64_t level = 0;
  int64_t parent = 0;
  uint32_t count = 0;
  bool tame = true;  // a blob of entries with tame, ordered coordinates
};

// Entries as the cells blob holds them: count, then id, minima, maxima.
std::string entries_blob(Reader& in, uint32_t axes, uint32_t written_count, uint32_t n,
                         bool* tame) {
  std::string blob(4, '\0');
  std::memcpy(blob.data(), &written_count, 4);
  for (uint32_t i = 0; i < n; ++i) {
    const int64_t id = static_cast<int64_t>(in.take(1) % 15) - 1;
    blob.append(reinterpret_cast<const char*>(&id), 8);
    double box[6];
    for (uint32_t k = 0; k < 2 * axes; ++k) {
      const uint8_t pick = static_cast<uint8_t>(in.take(1) % 16);
      *tame = *tame && pick < kTame;
      box[k] = kValues[pick];
      blob.append(reinterpret_cast<const char*>(&box[k]), 8);
    }
    for (uint32_t k = 0; k < axes; ++k) *tame = *tame && box[k] <= box[axes + k];
  }
  return blob;
}

void put_row(sqlite3* db, Reader& in, uint16_t dims, std::map<int64_t, NodeFacts>* facts) {
  const int64_t id = 1 + static_cast<int64_t>(in.take(1) % 12);
  const auto level8 = static_cast<int8_t>(in.take(1));
  NodeFacts f;
  f.level = level8 == 127 ? std::numeric_limits<int32_t>::max() : level8;
  f.parent = static_cast<int64_t>(in.take(1) % 13);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT OR REPLACE INTO \"MDRT$t\"(rowid, level, parent_id, cells) "
                     "VALUES (?1, ?2, ?3, ?4)",
                     -1, &st, nullptr);
  sqlite3_bind_int64(st, 1, id);
  sqlite3_bind_int64(st, 2, f.level);
  sqlite3_bind_int64(st, 3, f.parent);
  const uint8_t kind = static_cast<uint8_t>(in.take(1) % 5);
  std::string bytes;
  if (kind == 1 || kind == 2) {
    f.tame = false;
    bytes.resize(in.take(1));
    for (char& c : bytes) c = kind == 1 ? static_cast<char>(in.take(1)) : 'a';
    if (kind == 2) sqlite3_bind_text(st, 4, bytes.data(), static_cast<int>(bytes.size()), nullptr);
  } else {
    uint32_t count = static_cast<uint32_t>(in.take(1) % 56);
    uint32_t written = count;
    if (kind == 3) {
      const uint8_t c = static_cast<uint8_t>(in.take(1));
      written = c == 255 ? std::numeric_limits<int32_t>::max() : c % 64;
      f.tame = false;
    }
    const uint32_t axes = kind == 4 && dims == 3 ? 2 : dims;
    bytes = entries_blob(in, axes, written, count, &f.tame);
    f.count = count;
  }
  if (kind != 2) sqlite3_bind_blob(st, 4, bytes.data(), static_cast<int>(bytes.size()), nullptr);
  sqlite3_step(st);
  sqlite3_finalize(st);
  (*facts)[id] = f;
}

// Every table of the database, row by row, so a rolled-back operation can be
// told from one that left something behind.
std::string dump(sqlite3* db) {
  std::string out;
  std::vector<std::string> tables;
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT name FROM sqlite_schema WHERE type = 'table' ORDER BY name", -1,
                     &st, nullptr);
  while (sqlite3_step(st) == SQLITE_ROW)
    tables.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
  sqlite3_finalize(st);
  for (const std::string& t : tables) {
    sqlite3_prepare_v2(db, ("SELECT * FROM \"" + t + "\"").c_str(), -1, &st, nullptr);
    out += t + "\n";
    while (sqlite3_step(st) == SQLITE_ROW) {
      for (int c = 0; c < sqlite3_column_count(st); ++c) {
        out += std::to_string(sqlite3_column_type(st, c)) + ":";
        const void* v = sqlite3_column_blob(st, c);
        if (v != nullptr) out.append(static_cast<const char*>(v), sqlite3_column_bytes(st, c));
        out += '|';
      }
      out += '\n';
    }
    sqlite3_finalize(st);
  }
  return out;
}

zq::Box read_box(Reader& in, int dims, uint8_t choices) {
  zq::Box box;
  for (int k = 0; k < dims; ++k) {
    double a = kValues[in.take(1) % choices];
    double b = kValues[in.take(1) % choices];
    box.min[k] = a < b ? a : b;
    box.max[k] = a < b ? b : a;
  }
  return box;
}

class Run {
 public:
  Run(zq::Index& index, bool tame) : index_(index), db_(index.database()->db()), tame_(tame) {}

  void operation(Reader& in) {
    const bool sound = tame_ && checked_sound();
    const std::string before = dump(db_);
    zq::Status s;
    switch (in.take(1) % 4) {
      case 0: {
        const uint32_t op = kOps[in.take(1) % 8];
        uint64_t hits = 0;
        s = index_.query(op, read_box(in, index_.dims(), 16), [&](const zq::Entry&) {
          ++hits;
          return true;
        });
        break;
      }
      case 1: {
        std::vector<zq::Entry> entries(1 + in.take(1) % 3);
        for (zq::Entry& e : entries) e = zq::Entry{next_id_++, read_box(in, index_.dims(), kTame)};
        s = index_.insert(entries);
        if (s)
          for (const zq::Entry& e : entries) inserted_.push_back(e.id);
        break;
      }
      case 2: {
        if (inserted_.empty()) return;
        const size_t j = in.take(1) % inserted_.size();
        s = index_.remove(inserted_[j]);
        if (s) inserted_.erase(inserted_.begin() + static_cast<ptrdiff_t>(j));
        break;
      }
      default:
        s = check();
        break;
    }
    if (!s) expect(dump(db_) == before, "a failed operation changed the database", s.message());
    if (sound) {
      // Only the input may be refused (a query box that is not finite).
      expect(s.is_ok() || s.kind() == zq::Status::Kind::kInvalid,
             "an operation failed on a sound tree", s.message());
      expect(checked_sound(), "an operation left a sound tree unsound");
    }
  }

 private:
  bool checked_sound() {
    const zq::Database& db = *index_.database();
    return zqcheck::check_tree(db.session(), "main", "t", static_cast<uint16_t>(index_.dims())).ok;
  }

  // What `zqrtree check` runs: the checker, the search of every entry, the
  // tree against the base table.
  zq::Status check() {
    zq::Database& db = *index_.database();
    if (!checked_sound()) return zq::Status::ok();
    zq::Status s = index_.with_read_handle([&](rtr_mem* rtr) {
      const zqcheck::CheckResult r = zqcheck::check_search(db.env(), rtr, "main", "t");
      // A sound tree of tame boxes finds every entry by its own box.
      if (tame_) expect(r.ok, "an entry of a sound tree is not found", r.message);
      return zq::Status::ok();
    });
    std::string problem;
    if (s) s = index_.verify_rowids(&problem);
    return s;
  }

  zq::Index& index_;
  sqlite3* db_;
  bool tame_;
  int64_t next_id_ = 1000;
  std::vector<int64_t> inserted_;
};

// The oracle's preconditions: every row tame, the root's parent 0, and a
// root above the leaves holding something to descend into.
bool tame_tree(const std::map<int64_t, NodeFacts>& facts) {
  for (const auto& [id, f] : facts)
    if (!f.tame) return false;
  auto root = facts.find(1);
  return root != facts.end() && root->second.parent == 0 &&
         (root->second.level == 0 || root->second.count > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in{data, size};
  const int dims = 1 + static_cast<int>(in.take(1) % 3);
  std::unique_ptr<zq::Database> db;
  expect(zq::Database::open(":memory:", true, &db).is_ok(), "no database");
  zq::Index index;
  expect(zq::Index::create(*db, "t", dims, &index).is_ok(), "no index");
  sqlite3_exec(db->db(), "DELETE FROM \"MDRT$t\"", nullptr, nullptr, nullptr);
  std::map<int64_t, NodeFacts> facts;
  for (uint64_t rows = in.take(1) % 9; rows > 0; --rows)
    put_row(db->db(), in, static_cast<uint16_t>(dims), &facts);
  Run run(index, tame_tree(facts));
  while (in.left > 0) run.operation(in);
  return 0;
}
