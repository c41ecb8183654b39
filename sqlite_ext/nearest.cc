// Nearest-neighbour searches of the table-valued form, t('nearest', box[, k]).
//
// Call order: open -> (current, next)* until at_end; a join opens one per
// outer row, on the same kept handle.
//
// Two ordered streams meet here: the tree's entries through the driver's
// NearestScan (on the transaction's handle or the kept reading handle), and,
// in deferred mode, the pending inserts, read whole and sorted by distance.
// A tree entry whose rowid has a pending change is stale and skipped, as the
// window searches skip it; so the merged rows are those a direct-mode table
// with the changes applied would give. Applying the changes first would give
// them too, but would write the tree inside a reading statement, which is
// what deferred mode exists to put off until commit.
#include <algorithm>
#include <cmath>

#include "sqlite_ext/ext.h"

namespace zqext {

namespace {

// The library's measure, for rows the tree does not hold yet: per axis the
// gap between the intervals (0 where they meet), squared, summed in axis
// order, then the root. The same operations in the same order give the same
// bits, so a pending row ties with a tree row exactly when it would in the
// tree (this file is built without contracting multiply-adds).
double distance(const zq::Box& e, const zq::Box& q, int dims) {
  double sum = 0.0;
  for (int k = 0; k < dims; ++k) {
    const double above = e.min[k] - q.max[k];
    const double below = q.min[k] - e.max[k];
    double gap = above > below ? above : below;
    gap = gap > 0.0 ? gap : 0.0;
    sum += gap * gap;
  }
  return std::sqrt(sum);
}

bool nearer(const zq::Neighbour& a, const zq::Neighbour& b) {
  return a.distance < b.distance || (a.distance == b.distance && a.entry.id < b.entry.id);
}

}  // namespace

zq::Status NearestRows::open(rtr_mem* handle, const zq::Box& query, uint64_t k, double max_distance,
                             bool merge) {
  merge_ = merge;
  k_ = k;
  delivered_ = 0;
  group_.clear();
  pos_ = 0;
  pending_.clear();
  tree_ready_ = false;
  // The count is kept here, not by the scan: stale tree hits do not count,
  // and a run of equal distances is read whole before it is cut.
  zq::NearestOptions options;
  options.k = 0;
  options.max_distance = max_distance;
  if (zq::Status s = scan_.open(query, options, handle); !s) return s;
  if (merge)
    if (zq::Status s = load_pending(query, max_distance); !s) return s;
  scan_taken_ = false;
  if (zq::Status s = pull_tree(); !s) return s;
  return fill();
}

zq::Status NearestRows::load_pending(const zq::Box& query, double max_distance) {
  PendingScan scan(t_);
  zq::Status s = scan.open(RTR_OP_ANY, zq::Box{});
  zq::Entry e;
  while (s && scan.next(&e, &s)) {
    const double d = distance(e.box, query, t_->dims());
    if (d <= max_distance) pending_.push_back(zq::Neighbour{e, d});
  }
  if (!s) return s;
  // Only the k nearest pending rows can be among the k nearest of all.
  if (k_ != 0 && pending_.size() > k_) {
    std::nth_element(pending_.begin(), pending_.begin() + static_cast<long>(k_), pending_.end(),
                     nearer);
    pending_.resize(k_);
  }
  std::sort(pending_.begin(), pending_.end(),
            [](const zq::Neighbour& a, const zq::Neighbour& b) { return nearer(b, a); });
  return zq::Status::ok();
}

// The tree's next row whose rowid has no pending change, into tree_head_.
zq::Status NearestRows::pull_tree() {
  tree_ready_ = false;
  for (;;) {
    if (scan_taken_)
      if (zq::Status s = scan_.next(); !s) return s;
    scan_taken_ = true;
    if (scan_.at_end()) return zq::Status::ok();
    if (merge_) {
      zq::Status s;
      const int stale = pending_deleted(t_, scan_.neighbour().entry.id, &s);
      if (!s) return s;
      if (stale == 1) continue;
    }
    tree_head_ = scan_.neighbour();
    tree_ready_ = true;
    return zq::Status::ok();
  }
}

const zq::Neighbour* NearestRows::head() const {
  const zq::Neighbour* pending = pending_.empty() ? nullptr : &pending_.back();
  if (!tree_ready_) return pending;
  return pending != nullptr && nearer(*pending, tree_head_) ? pending : &tree_head_;
}

zq::Status NearestRows::drop_head() {
  if (!pending_.empty() && head() == &pending_.back()) {
    pending_.pop_back();
    return zq::Status::ok();
  }
  return pull_tree();
}

// The next run of rows at one distance, in rowid order. The library orders
// by squared distance, and two squares may share a root: gathering the whole
// run (one row read ahead) and sorting it by rowid keeps the order that
// ORDER BY distance, id asks for, which the planner tells SQLite it gets.
zq::Status NearestRows::fill() {
  group_.clear();
  pos_ = 0;
  if (k_ != 0 && delivered_ >= k_) return zq::Status::ok();
  const zq::Neighbour* h = head();
  if (h == nullptr) return zq::Status::ok();
  const double d = h->distance;
  for (; h != nullptr && h->distance == d; h = head()) {
    group_.push_back(*h);
    if (zq::Status s = drop_head(); !s) return s;
  }
  if (group_.size() > 1)
    std::sort(group_.begin(), group_.end(), [](const zq::Neighbour& a, const zq::Neighbour& b) {
      return a.entry.id < b.entry.id;
    });
  if (k_ != 0 && group_.size() > k_ - delivered_) group_.resize(k_ - delivered_);
  delivered_ += group_.size();
  return zq::Status::ok();
}

zq::Status NearestRows::next() {
  if (at_end()) return zq::Status::ok();
  if (++pos_ < group_.size()) return zq::Status::ok();
  return fill();
}

}  // namespace zqext
