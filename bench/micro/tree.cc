// Tree operations on the shared 1M-entry 2-D tree with every node cached:
// the least-enlargement descent alone, one cursor step, whole window
// searches, and inserts and deletes through a warm write handle. Changes are
// rolled back afterwards (the handle is never flushed), so every benchmark
// sees the same tree.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/micro/micro.h"

namespace {

void BM_ChooseLeaf(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  const std::vector<rtr_cell> cells = zqmicro::random_cells(1 << 16, 2, 21);
  size_t i = 0;
  for (auto _ : state) {
    rtr_node* leaf = nullptr;
    t.session.check(rtr_choose_leaf(t.session.env(), t.reader, &cells[i], 0, &leaf),
                    "rtr_choose_leaf");
    rtr_node_release(leaf);
    i = (i + 1) & ((1 << 16) - 1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ChooseLeaf)->Name("tree_1M/choose_leaf");

// One rcur_next in large (1%) windows; a new window is opened when one ends,
// so the opening descent is spread over its ~10k hits.
void BM_CursorStep(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  zq_env* env = t.session.env();
  uint64_t seed = 17;
  rcur cur;
  bool open = false;
  for (auto _ : state) {
    if (!open || rcur_is_end(&cur) != 0) {
      const rtr_rect q = zqmicro::random_window(0.01, 2, &seed);
      rcur_init(&cur, t.reader, RTR_OP_INTERSECT);
      t.session.check(rcur_open(env, &cur, &q), "rcur_open");
      open = true;
    } else {
      t.session.check(rcur_next(env, &cur), "rcur_next");
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CursorStep)->Name("tree_1M/cursor_step");

// Whole searches as an engine runs them: open, read every hit's cell, step.
void BM_Search(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  zq_env* env = t.session.env();
  const double selectivity = static_cast<double>(state.range(0)) / 1e6;
  uint64_t seed = 23;
  int64_t hits = 0;
  for (auto _ : state) {
    const rtr_rect q = zqmicro::random_window(selectivity, 2, &seed);
    rcur cur;
    rcur_init(&cur, t.reader, RTR_OP_INTERSECT);
    int32_t rc = rcur_open(env, &cur, &q);
    while (rc >= 0 && rcur_is_end(&cur) == 0) {
      rtr_cell cell;
      rc = rcur_column(env, &cur, &cell);
      if (rc >= 0) rc = rcur_next(env, &cur);
      ++hits;
    }
    t.session.check(rc, "search");
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["hits_per_query"] =
      benchmark::Counter(static_cast<double>(hits) / static_cast<double>(state.iterations()));
}
// Selectivity in millionths of the space: 0.001%, 0.01%, 1%.
BENCHMARK(BM_Search)->Name("tree_1M/search_ppm")->Arg(10)->Arg(100)->Arg(10000);

// What a user's single search costs: a transaction, a fresh reading-mode
// handle whose cache starts empty, the search, and the handle's teardown.
void BM_SearchFreshHandle(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  zq_env* env = t.session.env();
  const double selectivity = static_cast<double>(state.range(0)) / 1e6;
  uint64_t seed = 29;
  for (auto _ : state) {
    const rtr_rect q = zqmicro::random_window(selectivity, 2, &seed);
    t.session.check(zqsess_begin(t.session.session()), "zqsess_begin");
    rtr_mem* rtr = t.session.handle(1);
    rcur cur;
    rcur_init(&cur, rtr, RTR_OP_INTERSECT);
    int32_t rc = rcur_open(env, &cur, &q);
    while (rc >= 0 && rcur_is_end(&cur) == 0) {
      rtr_cell cell;
      rc = rcur_column(env, &cur, &cell);
      if (rc >= 0) rc = rcur_next(env, &cur);
    }
    t.session.check(rc, "search");
    rtr_mem_destroy(env, rtr);
    t.session.check(zqsess_commit(t.session.session()), "zqsess_commit");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SearchFreshHandle)->Name("tree_1M/search_fresh_handle_ppm")->Arg(10)->Arg(100);

// A write handle with the whole tree cached, inside a transaction that is
// rolled back at the end so the shared tree is left as it was.
template <typename Op>
void with_warm_writer(benchmark::State& state, Op op) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  t.session.check(zqsess_begin(t.session.session()), "zqsess_begin");
  rtr_mem* writer = t.session.handle(0);
  t.session.warm(writer);
  op(t, writer);
  rtr_mem_destroy(t.session.env(), writer);
  t.session.check(zqsess_rollback(t.session.session()), "zqsess_rollback");
  state.SetItemsProcessed(state.iterations());
}

constexpr int64_t kChanges = 100000;

void BM_Insert(benchmark::State& state) {
  std::vector<rtr_cell> cells = zqmicro::random_cells(kChanges, 2, 31);
  for (rtr_cell& c : cells) c.id += 1000000;  // new rowids beside the tree's 1..1M
  with_warm_writer(state, [&](zqmicro::WarmTree& t, rtr_mem* writer) {
    size_t i = 0;
    for (auto _ : state)
      t.session.check(rtr_insert(t.session.env(), writer, &cells[i++]), "rtr_insert");
  });
}
BENCHMARK(BM_Insert)->Name("tree_1M/insert")->Iterations(kChanges)->Unit(benchmark::kMicrosecond);

void BM_Delete(benchmark::State& state) {
  with_warm_writer(state, [&](zqmicro::WarmTree& t, rtr_mem* writer) {
    // Every tenth entry: spread over the whole tree, each deleted once.
    size_t i = 0;
    for (auto _ : state) {
      const rtr_cell& c = t.cells[(i++ * 10) % t.cells.size()];
      t.session.check(rtr_delete_by_rowid(t.session.env(), writer, c.id, &c.rect),
                      "rtr_delete_by_rowid");
    }
  });
}
BENCHMARK(BM_Delete)->Name("tree_1M/delete")->Iterations(kChanges)->Unit(benchmark::kMicrosecond);

}  // namespace
