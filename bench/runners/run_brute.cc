// The oracle: every window query answered by scanning all entries. Its hits
// are the answers every index must reproduce; its times show what an index
// is worth. Coordinates are kept axis by axis so the scan stays a flat loop.
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
