// The benchmark workload: the data every system indexes, the window queries
// it answers and the entries it deletes, written once to a binary file by
// bench_gen and read by every runner, so all systems see the same doubles.
//
// File layout (native byte order, no padding):
//   char[8]  magic "ZQBWL02\0"
//   u32      dims (1 .. 3)
//   u32      name length, then that many bytes (the data set's label)
//   u64      n entries, then per entry: i64 id, dims doubles min, dims doubles max
//   u32      query sets, then per set: f64 selectivity, u64 count, count boxes
//            (dims doubles min, dims doubles max)
//   u64      deletes, then that many u64 positions into the entries
//   u32      the query set run again after the deletes
//   u32      nearest-neighbour sets, then per set: u32 k, u64 count, count
//            points (dims doubles)
//
// Every coordinate is a float32 value held in a double: SQLite's R*Tree
// stores float32, and only boxes it can hold exactly give the same answers
// in every system.
#ifndef ZQ_BENCH_COMMON_WORKLOAD_H
#define ZQ_BENCH_COMMON_WORKLOAD_H

#include <cstdint>
#include <string>
#include <vector>

namespace zqbench {

inline constexpr int kMaxDims = 3;

// Axis k spans [lo[k], hi[k]]; axes at or beyond the workload's dims hold 0.
struct Box {
  double lo[kMaxDims] = {0, 0, 0};
  double hi[kMaxDims] = {0, 0, 0};
};

struct Entry {
  int64_t id = 0;
  Box box;
};

struct QuerySet {
  double selectivity = 0;  // window area (volume) as a fraction of the data's extent
  std::vector<Box> boxes;
};

// Nearest-neighbour queries: the k entries nearest to each point.
struct NearestSet {
  uint32_t k = 0;
  std::vector<Box> points;  // lo == hi
};

struct Workload {
  std::string name;
  int dims = 2;
  std::vector<Entry> entries;
  std::vector<QuerySet> sets;
  std::vector<uint64_t> deletes;  // positions into `entries`
  uint32_t verify_set = 0;        // query set rerun after the deletes
  std::vector<NearestSet> nearest;
};

// Both return "" on success, else a message naming the file.
std::string write_workload(const std::string& path, const Workload& w);
std::string read_workload(const std::string& path, Workload* w);

// Closed-interval overlap on the first `dims` axes: the answer every system
// must give to a window query.
inline bool overlaps(const Box& a, const Box& b, int dims) {
  for (int k = 0; k < dims; ++k)
    if (a.lo[k] > b.hi[k] || b.lo[k] > a.hi[k]) return false;
  return true;
}

// Squared distance between an entry and a query over the first `dims` axes,
// computed as the library computes it (per axis the gap between the
// intervals, 0 where they meet, squared and summed in axis order), so that
// every system's answers are measured alike.
inline double dist2(const Box& e, const Box& q, int dims) {
  double sum = 0.0;
  for (int k = 0; k < dims; ++k) {
    const double above = e.lo[k] - q.hi[k], below = q.lo[k] - e.hi[k];
    double gap = above > below ? above : below;
    gap = gap > 0.0 ? gap : 0.0;
    sum += gap * gap;
  }
  return sum;
}

// Order-independent digest of a set of hits: the count and a sum of mixed
// ids, so two systems agree only when they return the same rowids.
struct Hits {
  uint64_t count = 0;
  uint64_t digest = 0;
  void add(int64_t id) {
    uint64_t z = static_cast<uint64_t>(id) + 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    digest += z ^ (z >> 31);
    ++count;
  }
  bool operator==(const Hits&) const = default;
};

}  // namespace zqbench

#endif
