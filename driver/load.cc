// Bulk load: entries go through the host sorter in batches of 1000 rows
// keyed on axis 0, then rtr_blkload packs the tree bottom-up into an emptied
// node table. Call order per build: heap -> rtr_sort_create ->
// rtr_sort_bdta_crt -> (rtr_fill_one_row_nsort_bdta, nsort_put_bdta)* ->
// nsort_sort_it -> rtr_mem_create_for_bld -> rtr_blkload -> destroy all.
#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "driver/index.h"
#include "driver/internal.h"
#include "driver/leaf_map.h"
#include "host/host.h"
#include "zqrtree/bld.h"

namespace zq {

namespace {

// The memory object every build allocation comes from; destroyed with all
// its blocks.
class BuildMem {
 public:
  explicit BuildMem(zq_env* env) : env_(env) {
    obj_ = rt_memobj_heap_create_fast_ex(env, &storage_, 64 * 1024, __FILE__, __LINE__);
  }
  ~BuildMem() {
    if (obj_ != nullptr) rt_memobj_destroy(env_, obj_);
  }
  BuildMem(const BuildMem&) = delete;
  BuildMem& operator=(const BuildMem&) = delete;
  zq_memobj* get() const { return obj_; }

 private:
  zq_env* env_;
  zq_memobj storage_{};
  zq_memobj* obj_ = nullptr;
};

// The caller's side of a build: the sorter of data entries and the one
// batch reused to feed it.
class Feeder {
 public:
  Feeder(Database& db, zq_memobj* mem, uint16_t dims) : db_(db), mem_(mem), dims_(dims) {}
  ~Feeder() {
    if (batch_ != nullptr) bdta3_free2(db_.env(), mem_, batch_);
    if (sorter_ != nullptr) nsort_destory(db_.env(), sorter_);
  }
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  Status start() {
    int32_t rc = rtr_sort_create(db_.env(), zqsess_sort_pool(db_.session()), mem_, dims_, &sorter_);
    if (rc < 0) return detail::engine_failure(db_, rc, "creating the sorter");
    rc = rtr_sort_bdta_crt(db_.env(), mem_, dims_, &batch_);
    if (rc < 0) return detail::engine_failure(db_, rc, "creating a sort batch");
    return Status::ok();
  }

  Status put(const Entry& e) {
    const rtr_rect rect = to_rect(e.box);
    rtr_fill_one_row_nsort_bdta(db_.env(), mem_, dims_, e.id, &rect, 0, batch_);
    ++count_;
    return batch_->n_rows == RTR_BDTA_ROWS ? hand_over() : Status::ok();
  }

  // Hands the last partial batch over and sorts everything.
  Status finish() {
    if (batch_->n_rows > 0)
      if (Status s = hand_over(); !s) return s;
    if (count_ == 0) return Status::ok();
    const int32_t rc = nsort_sort_it(db_.env(), sorter_);
    if (rc < 0) return detail::engine_failure(db_, rc, "sorting the entries");
    return Status::ok();
  }

  zq_nsort* sorter() const { return sorter_; }
  uint64_t count() const { return count_; }

 private:
  Status hand_over() {
    const int32_t rc = nsort_put_bdta(db_.env(), sorter_, batch_);
    if (rc < 0) return detail::engine_failure(db_, rc, "sorting the entries");
    bdta3_clear(db_.env(), mem_, batch_);
    return Status::ok();
  }

  Database& db_;
  zq_memobj* mem_;
  uint16_t dims_;
  zq_nsort* sorter_ = nullptr;
  zq_bdta* batch_ = nullptr;
  uint64_t count_ = 0;
};

std::string fill_problem(double fill) {
  if (fill >= kMinFill && fill <= 1.0) return "";
  char buf[160];
  std::snprintf(buf, sizeof buf,
                "fill factor %g is outside [%.3f, 1]: nodes get trunc(fill x 51) entries, at "
                "least 2",
                fill, kMinFill);
  return buf;
}

// The rowids a load has seen, to refuse a second one with the place it came
// from. Rowids are usually dense, so a bitmap over their range serves, a bit
// each and no cache miss to speak of; ids spread too thinly for that go to a
// hash set instead.
class RowidSet {
 public:
  // False when `id` was already there.
  bool insert(int64_t id) {
    ++count_;
    if (!hashed_) {
      if (words_.empty()) {
        base_ = id;
        words_.assign(16, 0);
      }
      uint64_t off = static_cast<uint64_t>(id) - static_cast<uint64_t>(base_);
      if (id < base_ || off >= 64 * words_.size()) {
        if (!widen(id)) return hash_all(), hash_.insert(id).second;
        off = static_cast<uint64_t>(id) - static_cast<uint64_t>(base_);
      }
      uint64_t& word = words_[off / 64];
      const uint64_t bit = uint64_t{1} << (off % 64);
      const bool fresh = (word & bit) == 0;
      word |= bit;
      return fresh;
    }
    return hash_.insert(id).second;
  }

 private:
  // A bitmap may span 64 ids per id seen, and always 64M. It doubles as it
  // widens, reaching down when ids come below its start.
  bool widen(int64_t id) {
    const int64_t old_base = base_;
    const __int128 lo = std::min<__int128>(old_base, id);
    const __int128 hi = std::max<__int128>(old_base + 64 * static_cast<__int128>(words_.size()),
                                           static_cast<__int128>(id) + 1);
    size_t words = std::max<size_t>(2 * words_.size(), 16);
    while (64 * static_cast<__int128>(words) < hi - lo) words *= 2;
    const __int128 span = 64 * static_cast<__int128>(words);
    if (span > std::max<__int128>(__int128{1} << 26, 64 * static_cast<__int128>(count_)))
      return false;
    const std::vector<uint64_t> old = std::exchange(words_, std::vector<uint64_t>(words, 0));
    base_ =
        id < old_base ? static_cast<int64_t>(std::max<__int128>(hi - span, INT64_MIN)) : old_base;
    for (size_t w = 0; w < old.size(); ++w)
      for (uint64_t bits = old[w]; bits != 0; bits &= bits - 1) {
        const uint64_t off = static_cast<uint64_t>(old_base) + 64 * w +
                             static_cast<uint64_t>(__builtin_ctzll(bits)) -
                             static_cast<uint64_t>(base_);
        words_[off / 64] |= uint64_t{1} << (off % 64);
      }
    return true;
  }
  void hash_all() {
    hashed_ = true;
    hash_.reserve(count_ * 2);
    for (size_t w = 0; w < words_.size(); ++w)
      for (uint64_t bits = words_[w]; bits != 0; bits &= bits - 1)
        hash_.insert(base_ + static_cast<int64_t>(64 * w) + __builtin_ctzll(bits));
    words_ = {};
  }

  bool hashed_ = false;
  int64_t base_ = 0;
  uint64_t count_ = 0;
  std::vector<uint64_t> words_;
  std::unordered_set<int64_t> hash_;
};

bool root_row_exists(const Index& index) {
  detail::Stmt st(index.database()->db(),
                  "SELECT 1 FROM " + detail::qualified(index.schema(), index.node_table()) +
                      " WHERE rowid = 1");
  return st.ok() && st.step() == SQLITE_ROW;
}

}  // namespace

namespace detail {

Status rebuild_tree(
    const Index& index, double fill, const Progress& progress,
    const std::function<Status(const std::function<Status(const Entry&)>& put)>& feed) {
  Database& db = *index.database();
  BuildMem mem(db.env());
  if (mem.get() == nullptr)
    return engine_failure(db, RTR_ERR_NO_ROOM, "creating the bulk-load memory");
  Feeder feeder(db, mem.get(), static_cast<uint16_t>(index.dims()));
  if (Status s = feeder.start(); !s) return s;
  if (Status s = feed([&feeder](const Entry& e) { return feeder.put(e); }); !s) return s;
  if (progress) progress("sorting", 0, feeder.count());
  if (Status s = feeder.finish(); !s) return s;
  if (progress) progress("sorting", feeder.count(), feeder.count());

  // Only now, with the input read and checked, does the node table change:
  // a bulk build starts from an empty node table.
  if (Status s = exec(db.db(), "DELETE FROM " + qualified(index.schema(), index.node_table()),
                      "emptying " + index.node_table());
      !s)
    return s;
  if (progress) progress("building", 0, feeder.count());
  LeafMap* map = index.leaf_map();
  if (map == nullptr)
    return Status::not_found("index '" + index.name() + "' has lost its table " +
                             quote_ident(index.rowid_table()));
  map->forget();
  map->collect(true);
  Handle handle(index, Handle::Mode::kBuild);
  if (!handle.created()) return handle.created();
  // The stack is read below for what the build alone pushed; inserts run
  // earlier in the caller's transaction push ordinary full-node notes.
  zqenv_err_clear(db.env());
  const int32_t rc =
      rtr_blkload(db.env(), mem.get(), handle.get(), feeder.sorter(), feeder.count(), fill);
  map->collect(false);
  if (rc < 0) return engine_failure(db, rc, "building the tree");
  // The build does not report a failed move of its top node to node 1; the
  // error stack does, and the root row must be there.
  if (zqenv_err_count(db.env()) > 0)
    return engine_failure(db, RTR_ERR_NOT_FOUND, "moving the new root to node 1");
  if (!root_row_exists(index))
    return Status::engine(RTR_ERR_NOT_FOUND,
                          "building the tree left no root row in " + index.node_table());
  if (Status s = map->refill(); !s) return s;
  if (progress) progress("building", feeder.count(), feeder.count());
  return Status::ok();
}

}  // namespace detail

Status Index::load(EntrySource& source, const LoadOptions& options) {
  if (std::string p = fill_problem(options.fill); !p.empty()) return Status::invalid(p);
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  uint64_t existing = 0;
  if (!options.replace)
    if (Status s = count(&existing); !s) return s;
  RowidSet seen;

  auto feed = [&](const std::function<Status(const Entry&)>& put) -> Status {
    // Entries already indexed go in first, while the tree still holds them.
    Status inner;
    if (!options.replace) {
      Status s = entries([&](const Entry& e) {
        seen.insert(e.id);
        return (inner = put(e)).is_ok();
      });
      if (!s) return s;
      if (!inner) return inner;
    }
    const uint64_t total = source.size_hint();
    uint64_t n = 0;
    Entry e;
    Status bad;
    while (source.next(&e, &bad)) {
      if (std::string p = box_problem(e.box, dims_); !p.empty())
        return Status::invalid(source.where() + ": " + p);
      if (!seen.insert(e.id)) {
        Box stored;
        const bool indexed = !options.replace && lookup(e.id, &stored).is_ok();
        return Status::invalid(source.where() + ": duplicate rowid " + std::to_string(e.id) +
                               (indexed ? " (already in index '" + name_ + "')" : " in the input"));
      }
      if (Status s = put(e); !s) return s;
      if (options.progress && ++n % 4096 == 0) options.progress("reading", n, total);
    }
    return bad;
  };
  if (Status s = detail::rebuild_tree(*this, options.fill, options.progress, feed); !s) return s;
  return op.commit();
}

Status Index::rebuild(double fill, const Feed& feed) const {
  if (std::string p = fill_problem(fill); !p.empty()) return Status::invalid(p);
  return detail::rebuild_tree(*this, fill, {}, feed);
}

bool VectorSource::next(Entry* entry, Status* /*status*/) {
  if (pos_ >= entries_.size()) return false;
  *entry = entries_[pos_++];
  return true;
}

std::string VectorSource::where() const {
  if (pos_ == 0) return "entry 0";
  return "entry " + std::to_string(pos_) + " (rowid " + std::to_string(entries_[pos_ - 1].id) + ")";
}

}  // namespace zq
