// Nearest-neighbour queries on the shared 1M-entry 2-D tree with every node
// cached: the k entries nearest to a random point, read one by one as an
// engine reads them. One cursor record serves every query, so its queue
// memory is allocated once, as a program asking many such queries keeps it.
#include <benchmark/benchmark.h>

#include "bench/micro/micro.h"

namespace {

void BM_Nearest(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  zq_env* env = t.session.env();
  const int64_t k = state.range(0);
  uint64_t seed = 37;
  rnn nn;
  rnn_init(&nn, t.reader, 0);
  for (auto _ : state) {
    const rtr_rect q = zqmicro::random_window(0, 2, &seed);  // a point
    int32_t rc = rnn_open(env, &nn, &q, RNN_NO_LIMIT);
    for (int64_t i = 0; rc >= 0 && i < k && rnn_is_end(&nn) == 0; ++i) {
      rtr_cell cell;
      double dist2 = 0;
      rc = rnn_column(env, &nn, &cell, &dist2);
      benchmark::DoNotOptimize(cell);
      benchmark::DoNotOptimize(dist2);
      if (i + 1 < k && rc >= 0) rc = rnn_next(env, &nn);
    }
    t.session.check(rc, "nearest");
  }
  rnn_close(env, &nn);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Nearest)->Name("tree_1M/nearest_k")->Arg(1)->Arg(10)->Arg(100);

}  // namespace
