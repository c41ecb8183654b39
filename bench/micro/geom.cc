// Geometry hot paths: the leaf and branch tests a search applies to every
// entry of every node it visits, for each single operator, in 2-D and 3-D.
// Entries are a fixed random array so the branch predictor sees a realistic
// mix of hits and misses (about one in ten overlaps).
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/micro/micro.h"

namespace {

constexpr size_t kEntries = 4096;

template <rtr_rect_cmp_fn Cmp>
void BM_RectCmp(benchmark::State& state) {
  const auto op = static_cast<uint32_t>(state.range(0));
  const auto dims = static_cast<uint16_t>(state.range(1));
  const std::vector<rtr_cell> cells = zqmicro::random_cells(kEntries, dims, 11);
  uint64_t seed = 5;
  // A window about ten entries' spacing wide: some entries overlap it,
  // a few contain or lie within it.
  const rtr_rect q = zqmicro::random_window(10.0 / kEntries, dims, &seed);
  size_t i = 0;
  int64_t matches = 0;
  for (auto _ : state) {
    matches += Cmp(&cells[i].rect, &q, dims, op);
    i = (i + 1) & (kEntries - 1);
  }
  benchmark::DoNotOptimize(matches);
  state.SetItemsProcessed(state.iterations());
}

void ops(benchmark::internal::Benchmark* b) {
  for (int64_t dims : {2, 3})
    for (int64_t op : {RTR_OP_INTERSECT, RTR_OP_CONTAINS, RTR_OP_WITHIN, RTR_OP_EQUAL})
      b->Args({op, dims});
  b->ArgNames({"op", "dims"});
}

BENCHMARK(BM_RectCmp<rtr_leaf_rect_cmp>)->Name("geom/leaf_rect_cmp")->Apply(ops);
BENCHMARK(BM_RectCmp<rtr_branch_rect_cmp>)->Name("geom/branch_rect_cmp")->Apply(ops);

}  // namespace
