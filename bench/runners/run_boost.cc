// Boost.Geometry's in-memory rtree with rstar<51> through its public API:
// built by R* insertion one value at a time, or by the packing constructor
// over the whole range. Its node memory is counted by the allocator we hand
// it, which is the index size we report. Kept to one translation unit: the
// library is all templates and compiles slowly.
#include <boost/geometry.hpp>
#include <boost/geometry/index/rtree.hpp>
#include <boost/iterator/function_output_iterator.hpp>
#include <boost/version.hpp>
#include <cstddef>
#include <utility>

#include "bench/common/runner.h"

namespace zqbench {
namespace {

namespace bg = boost::geometry;
namespace bgi = boost::geometry::index;

// Live bytes held by the tree, through every rebound copy of the allocator.
size_t g_live_bytes = 0;

template <typename T>
struct CountingAllocator {
  using value_type = T;
  CountingAllocator() = default;
  template <typename U>
  CountingAllocator(const CountingAllocator<U>&) {}
  T* allocate(size_t n) {
    g_live_bytes += n * sizeof(T);
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, size_t n) {
    g_live_bytes -= n * sizeof(T);
    std::allocator<T>().deallocate(p, n);
  }
  template <typename U>
  bool operator==(const CountingAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const CountingAllocator<U>&) const {
    return false;
  }
};

template <size_t D>
struct Types {
  using Point = bg::model::point<double, D, bg::cs::cartesian>;
  using BBox = bg::model::box<Point>;
  using Value = std::pair<BBox, int64_t>;
  using Tree = bgi::rtree<Value, bgi::rstar<51>, bgi::indexable<Value>, bgi::equal_to<Value>,
                          CountingAllocator<Value>>;

  static BBox bbox(const Box& b) {
    Point lo, hi;
    set_axes<0>(lo, hi, b);
    return BBox(lo, hi);
  }

  static Point point(const Box& b) {
    Point lo, hi;
    set_axes<0>(lo, hi, b);
    return lo;
  }

  template <size_t K>
  static void set_axes(Point& lo, Point& hi, const Box& b) {
    if constexpr (K < D) {
      bg::set<K>(lo, b.lo[K]);
      bg::set<K>(hi, b.hi[K]);
      set_axes<K + 1>(lo, hi, b);
    }
  }

  template <size_t K = 0>
  static void unbox(const BBox& from, Box* to) {
    if constexpr (K < D) {
      to->lo[K] = bg::get<bg::min_corner, K>(from);
      to->hi[K] = bg::get<bg::max_corner, K>(from);
      unbox<K + 1>(from, to);
    }
  }
};

template <size_t D>
std::string run_dims(const Workload& w, Report& report, bool pack) {
  using T = Types<D>;
  std::vector<typename T::Value> values;
  values.reserve(w.entries.size());
  for (const Entry& e : w.entries) values.emplace_back(T::bbox(e.box), e.id);

  const size_t before = g_live_bytes;
  std::unique_ptr<typename T::Tree> tree;
  Stopwatch build;
  if (pack) {
    tree = std::make_unique<typename T::Tree>(values.begin(), values.end());
  } else {
    tree = std::make_unique<typename T::Tree>();
    for (const auto& v : values) tree->insert(v);
  }
  const double secs = build.seconds();
  if (pack) {
    report.value("build_bulk_s", secs);
  } else {
    report.value("build_incr_s", secs);
    report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
  }
  report.value("size_bytes", static_cast<double>(g_live_bytes - before));

  auto query = [&](const Box& q, Hits* hits) {
    tree->query(bgi::intersects(T::bbox(q)),
                boost::make_function_output_iterator(
                    [hits](const typename T::Value& v) { hits->add(v.second); }));
    return std::string();
  };
  std::string err = run_query_sets(w, report, query);
  // Boost hands the k nearest out in no particular order, and any of those
  // tied at the k-th distance.
  if (err.empty())
    err = run_nearest_sets(
        w, report, Ties::kAny, [&](const Box& p, uint32_t k, std::vector<Entry>* out) {
          tree->query(bgi::nearest(T::point(p), k),
                      boost::make_function_output_iterator([out](const typename T::Value& v) {
                        Entry e;
                        e.id = v.second;
                        T::unbox(v.first, &e.box);
                        out->push_back(e);
                      }));
          return std::string();
        });
  if (!err.empty()) return err;

  Stopwatch del;
  for (uint64_t pos : w.deletes)
    if (tree->remove(values[pos]) != 1)
      return "delete of id " + std::to_string(values[pos].second) + " removed nothing";
  const double del_secs = del.seconds();
  report.value("delete_per_s", del_secs > 0 ? w.deletes.size() / del_secs : 0);
  return run_verify_set(w, report, query);
}

std::string run(const Workload& w, Report& report, bool pack) {
  report.version("Boost " + std::to_string(BOOST_VERSION / 100000) + "." +
                 std::to_string(BOOST_VERSION / 100 % 1000));
  // A one-axis workload keeps its unused axis at 0, so the 2-D tree answers it.
  return w.dims == 3 ? run_dims<3>(w, report, pack) : run_dims<2>(w, report, pack);
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using zqbench::Options;
  using zqbench::Report;
  using zqbench::Workload;
  return zqbench::runner_main(
      argc, argv,
      {{"rstar", "Boost.Geometry rstar<51>, insert",
        [](const Workload& w, const Options&, Report& r) { return zqbench::run(w, r, false); }},
       {"pack", "Boost.Geometry rstar<51>, packing",
        [](const Workload& w, const Options&, Report& r) { return zqbench::run(w, r, true); }}});
}
