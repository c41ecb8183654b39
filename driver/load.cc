// Bulk load: entries go through the host sorter in batches of 1000 rows
// keyed on axis 0, then rtr_blkload packs the tree bottom-up into an emptied
// node table. Call order per build: heap -> rtr_sort_create ->
// rtr_sort_bdta_crt -> (rtr_fill_one_row_nsort_bdta, nsort_put_bdta)* ->
// nsort_sort_it -> rtr_mem_create_for_bld -> rtr_blkload -> destroy all.
#include <sqlite3.h>

#include <cmath>
#include <string>

#include "driver/index.h"
#include "driver/internal.h"
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
  Handle handle(index, Handle::Mode::kBuild);
  if (!handle.created()) return handle.created();
  const int32_t rc =
      rtr_blkload(db.env(), mem.get(), handle.get(), feeder.sorter(), feeder.count(), fill);
  if (rc < 0) return engine_failure(db, rc, "building the tree");
  // The build does not report a failed move of its top node to node 1; the
  // error stack does, and the root row must be there.
  if (zqenv_err_count(db.env()) > 0)
    return engine_failure(db, RTR_ERR_NOT_FOUND, "moving the new root to node 1");
  if (!root_row_exists(index))
    return Status::engine(RTR_ERR_NOT_FOUND,
                          "building the tree left no root row in " + index.node_table());
  if (progress) progress("building", feeder.count(), feeder.count());
  return Status::ok();
}

}  // namespace detail

Status Index::load(EntrySource& source, const LoadOptions& options) {
  if (std::string p = fill_problem(options.fill); !p.empty()) return Status::invalid(p);
  detail::UserOp op(*db_);
  if (!op.begun()) return op.begun();
  if (options.replace)
    if (Status s =
            detail::exec(db_->db(), "DELETE FROM " + detail::qualified(schema_, base_table()),
                         "emptying " + base_table());
        !s)
      return s;
  detail::Stmt ins(db_->db(), detail::insert_base_sql(*this));
  if (!ins.ok()) return detail::sql_failure(db_->db(), "preparing " + base_table());

  auto feed = [&](const std::function<Status(const Entry&)>& put) -> Status {
    // Entries already indexed go in first, before the base table grows.
    Status inner;
    Status s = scan_base([&](const Entry& e) { return (inner = put(e)).is_ok(); });
    if (!s) return s;
    if (!inner) return inner;
    const uint64_t total = source.size_hint();
    uint64_t n = 0;
    Entry e;
    Status bad;
    while (source.next(&e, &bad)) {
      if (std::string p = box_problem(e.box, dims_); !p.empty())
        return Status::invalid(source.where() + ": " + p);
      if (s = detail::insert_base_row(*this, ins, e, source.where()); !s) return s;
      if (s = put(e); !s) return s;
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
