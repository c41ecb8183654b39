// Bulk load: entries go through the host sorter in batches of 1000 rows
// keyed on axis 0, then rtr_blkload packs the tree bottom-up into an emptied
// node table. Call order per build: heap -> rtr_sort_create ->
// rtr_sort_bdta_crt -> (rtr_fill_one_row_nsort_bdta, nsort_put_bdta)* ->
// nsort_sort_it -> rtr_mem_create_for_bld -> rtr_blkload -> destroy all.
#include <sqlite3.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
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
// from. Open addressing over a power-of-two table kept at most half full;
// INT64_MIN marks an empty slot and is remembered apart.
class RowidSet {
 public:
  explicit RowidSet(uint64_t expected) { grow(expected); }
  // False when `id` was already there.
  bool insert(int64_t id) {
    if (id == kEmpty) return !std::exchange(has_empty_, true);
    if (2 * (size_ + 1) > slots_.size()) grow(slots_.size());
    for (size_t i = slot(id);; i = (i + 1) & (slots_.size() - 1)) {
      if (slots_[i] == id) return false;
      if (slots_[i] == kEmpty) {
        slots_[i] = id;
        ++size_;
        return true;
      }
    }
  }

 private:
  static constexpr int64_t kEmpty = INT64_MIN;
  size_t slot(int64_t id) const {
    // Rowids are often dense: a multiplicative hash spreads them.
    return static_cast<size_t>((static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ull) >> shift_);
  }
  void grow(uint64_t expected) {
    size_t n = 1024;
    int bits = 10;
    while (n < 2 * expected) {
      n *= 2;
      ++bits;
    }
    std::vector<int64_t> old = std::exchange(slots_, std::vector<int64_t>(n, kEmpty));
    shift_ = 64 - bits;
    size_ = 0;
    for (int64_t id : old)
      if (id != kEmpty) insert(id);
  }
  std::vector<int64_t> slots_;
  int shift_ = 54;
  size_t size_ = 0;
  bool has_empty_ = false;
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
  RowidSet seen(existing + source.size_hint());

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
