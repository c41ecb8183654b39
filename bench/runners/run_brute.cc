// The oracle: every window query answered by scanning all entries. Its hits
// are the answers every index must reproduce; its times show what an index
// is worth. Coordinates are kept axis by axis so the scan stays a flat loop.
//
// Nearest-neighbour queries are answered by a sweep instead: measuring every
// entry for each of thousands of queries would take minutes per 1M entries.
// The sweep is exact by a bound anyone can check: an entry is no nearer than
// its gap on the first axis alone.
#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "bench/common/runner.h"

namespace zqbench {
namespace {

class Scan {
 public:
  explicit Scan(int dims) : dims_(dims) {}

  void insert(const Entry& e) {
    pos_[e.id] = ids_.size();
    ids_.push_back(e.id);
    for (int k = 0; k < dims_; ++k) {
      lo_[k].push_back(e.box.lo[k]);
      hi_[k].push_back(e.box.hi[k]);
    }
  }

  // Moves the last entry into the hole, as any unordered array would.
  bool remove(int64_t id) {
    auto it = pos_.find(id);
    if (it == pos_.end()) return false;
    const size_t at = it->second, last = ids_.size() - 1;
    pos_.erase(it);
    if (at != last) {
      ids_[at] = ids_[last];
      pos_[ids_[at]] = at;
      for (int k = 0; k < dims_; ++k) {
        lo_[k][at] = lo_[k][last];
        hi_[k][at] = hi_[k][last];
      }
    }
    ids_.pop_back();
    for (int k = 0; k < dims_; ++k) {
      lo_[k].pop_back();
      hi_[k].pop_back();
    }
    return true;
  }

  void query(const Box& q, Hits* hits) const {
    const size_t n = ids_.size();
    for (size_t i = 0; i < n; ++i) {
      // Every comparison is made, without a branch; as unsigned values, since
      // `&` between booleans reads as a mistaken `&&`.
      unsigned in = 1;
      for (int k = 0; k < dims_; ++k)
        in &= unsigned{lo_[k][i] <= q.hi[k]} & unsigned{hi_[k][i] >= q.lo[k]};
      if (in != 0) hits->add(ids_[i]);
    }
  }

  uint64_t bytes() const { return ids_.size() * (8 + 16ull * dims_); }

 private:
  int dims_;
  std::vector<int64_t> ids_;
  std::vector<double> lo_[kMaxDims], hi_[kMaxDims];
  std::unordered_map<int64_t, size_t> pos_;
};

// The entries in order of their low side on the first axis, swept outward
// from the query. To the right an entry's gap on that axis is its low side
// less the query's, so the first one whose gap alone is past the k-th
// distance ends that side; to the left the gap is at least the query's side
// less the entry's low side less the widest entry, which ends the other
// (with a margin far beyond any rounding). Every entry no farther than the
// k-th distance is measured; the answer is the k nearest by (distance,
// rowid) and every further entry at the k-th distance.
class Sweep {
 public:
  explicit Sweep(const Workload& w) : dims_(w.dims), sorted_(w.entries) {
    std::sort(sorted_.begin(), sorted_.end(),
              [](const Entry& a, const Entry& b) { return a.box.lo[0] < b.box.lo[0]; });
    for (const Entry& e : sorted_) {
      lo0_.push_back(e.box.lo[0]);
      widest_ = std::max(widest_, e.box.hi[0] - e.box.lo[0]);
    }
  }

  void nearest(const Box& p, uint32_t k, std::vector<Entry>* out) {
    seen_.clear();
    heap_.clear();
    auto kth = [&] { return heap_.size() < k ? HUGE_VAL : heap_.front().d2; };
    auto visit = [&](size_t at) {
      const Found f{dist2(sorted_[at].box, p, dims_), sorted_[at].id, at};
      if (f.d2 > kth()) return;  // the k-th distance only shrinks
      seen_.push_back(f);
      if (heap_.size() < k || f < heap_.front()) {
        if (heap_.size() == k) {
          std::pop_heap(heap_.begin(), heap_.end());
          heap_.pop_back();
        }
        heap_.push_back(f);
        std::push_heap(heap_.begin(), heap_.end());
      }
    };
    const size_t n = sorted_.size();
    size_t right =
        static_cast<size_t>(std::lower_bound(lo0_.begin(), lo0_.end(), p.hi[0]) - lo0_.begin());
    size_t left = right;  // the next to the left is left - 1
    bool go_right = right<n, go_left = left> 0;
    while (go_right || go_left) {
      if (go_right) {
        const double gap = lo0_[right] - p.hi[0];
        go_right = gap * gap <= kth();
        if (go_right) visit(right++);
        go_right = go_right && right < n;
      }
      if (go_left) {
        const double gap = p.lo[0] - lo0_[left - 1];
        go_left = gap <= (widest_ + std::sqrt(kth())) * 1.001;
        if (go_left) visit(--left);
        go_left = go_left && left > 0;
      }
    }
    const double last = kth();
    std::sort(seen_.begin(), seen_.end());
    for (const Found& f : seen_)
      if (f.d2 <= last) out->push_back(sorted_[f.pos]);
  }

 private:
  struct Found {
    double d2;
    int64_t id;
    size_t pos;  // in sorted_
    bool operator<(const Found& o) const { return d2 < o.d2 || (d2 == o.d2 && id < o.id); }
  };
  int dims_;
  std::vector<Entry> sorted_;  // by low side on the first axis, read in order
  std::vector<double> lo0_;    // those low sides
  double widest_ = 0;          // the largest extent on the first axis
  std::vector<Found> seen_;
  std::vector<Found> heap_;  // the k nearest so far, farthest on top
};

std::string run_scan(const Workload& w, const Options&, Report& report) {
  Scan scan(w.dims);
  Stopwatch build;
  for (const Entry& e : w.entries) scan.insert(e);
  const double secs = build.seconds();
  report.value("build_incr_s", secs);
  report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
  report.value("size_bytes", static_cast<double>(scan.bytes()));

  auto query = [&](const Box& q, Hits* hits) {
    scan.query(q, hits);
    return std::string();
  };
  std::string err = run_query_sets(w, report, query);
  if (err.empty() && !w.nearest.empty()) {
    Sweep sweep(w);
    err = run_nearest_sets(w, report, Ties::kAll,
                           [&](const Box& p, uint32_t k, std::vector<Entry>* out) {
                             sweep.nearest(p, k, out);
                             return std::string();
                           });
  }
  if (!err.empty()) return err;

  Stopwatch del;
  for (uint64_t pos : w.deletes)
    if (!scan.remove(w.entries[pos].id)) return "delete of a missing id";
  const double del_secs = del.seconds();
  report.value("delete_per_s", del_secs > 0 ? w.deletes.size() / del_secs : 0);
  return run_verify_set(w, report, query);
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  return zqbench::runner_main(argc, argv, {{"scan", "brute-force scan", zqbench::run_scan}});
}
