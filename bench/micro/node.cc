// Node-level hot paths: the cells blob written and read for every node-table
// write and cache miss, the R* split choice run on every overflow that is not
// a reinsertion, and a cache hit (acquire + release) that every visit of a
// node pays.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "bench/micro/micro.h"

namespace {

std::unique_ptr<rtr_node> full_node(uint16_t dims) {
  auto node = std::make_unique<rtr_node>();
  const std::vector<rtr_cell> cells = zqmicro::random_cells(RTR_MAX_CELLS, dims, 3);
  for (uint32_t i = 0; i < RTR_MAX_CELLS; ++i) node->cells[i] = cells[i];
  node->n_cells = RTR_MAX_CELLS;
  return node;
}

void BM_CellsPack(benchmark::State& state) {
  const auto dims = static_cast<uint16_t>(state.range(0));
  zqmicro::Session s(":memory:", dims);
  const auto node = full_node(dims);
  std::vector<uint8_t> blob(RTR_BLOB_MAX);
  uint32_t len = 0;
  for (auto _ : state) {
    s.check(rtr_cells_pack(s.env(), dims, node.get(), blob.data(), &len), "rtr_cells_pack");
    benchmark::DoNotOptimize(blob.data());
  }
  state.SetBytesProcessed(state.iterations() * len);
}
BENCHMARK(BM_CellsPack)->Name("node/cells_pack")->ArgName("dims")->Arg(2)->Arg(3);

void BM_CellsUnpack(benchmark::State& state) {
  const auto dims = static_cast<uint16_t>(state.range(0));
  zqmicro::Session s(":memory:", dims);
  const auto node = full_node(dims);
  std::vector<uint8_t> blob(RTR_BLOB_MAX);
  uint32_t len = 0;
  s.check(rtr_cells_pack(s.env(), dims, node.get(), blob.data(), &len), "rtr_cells_pack");
  auto out = std::make_unique<rtr_node>();
  for (auto _ : state) {
    s.check(rtr_cells_unpack(dims, out.get(), blob.data(), len), "rtr_cells_unpack");
    benchmark::DoNotOptimize(out->cells);
  }
  state.SetBytesProcessed(state.iterations() * len);
}
BENCHMARK(BM_CellsUnpack)->Name("node/cells_unpack")->ArgName("dims")->Arg(2)->Arg(3);

// The choice of axis and position over 52 entries, and the distribution
// into two nodes. The nodes are emptied between rounds; they carry ids so
// marking them changed needs no new node id.
void BM_SplitChoice(benchmark::State& state) {
  const auto dims = static_cast<uint16_t>(state.range(0));
  zqmicro::Session s(":memory:", dims);
  rtr_mem* rtr = s.handle(0);
  const std::vector<rtr_cell> cells = zqmicro::random_cells(RTR_MAX_CELLS + 1, dims, 9);
  rtr_node* left = nullptr;
  rtr_node* right = nullptr;
  s.check(rtr_node_create(s.env(), rtr, 0, 1000001, &left), "rtr_node_create");
  s.check(rtr_node_create(s.env(), rtr, 0, 1000002, &right), "rtr_node_create");
  rtr_cell left_cell, right_cell;
  for (auto _ : state) {
    left->n_cells = 0;
    right->n_cells = 0;
    s.check(rtr_split_node_star_tree(s.env(), rtr, cells.data(), RTR_MAX_CELLS + 1, left, right,
                                     &left_cell, &right_cell),
            "rtr_split_node_star_tree");
    benchmark::DoNotOptimize(left_cell);
  }
  state.SetItemsProcessed(state.iterations());
  rtr_mem_destroy(s.env(), rtr);
}
BENCHMARK(BM_SplitChoice)->Name("node/split_choice")->ArgName("dims")->Arg(2)->Arg(3);

// Cache hits in a random order over every node of the warm 1M tree: the
// hash chain walk and the move to the young end of the recency list.
void BM_CacheAcquireRelease(benchmark::State& state) {
  zqmicro::WarmTree& t = zqmicro::warm_tree();
  std::vector<int64_t> ids = t.node_ids;
  uint64_t x = 88172645463325252ull;
  for (size_t i = ids.size(); i > 1; --i) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    std::swap(ids[i - 1], ids[x % i]);
  }
  size_t i = 0;
  for (auto _ : state) {
    rtr_node* node = nullptr;
    t.session.check(rtr_node_acquire(t.session.env(), t.reader, ids[i], &node), "rtr_node_acquire");
    rtr_node_release(node);
    if (++i == ids.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["nodes"] = static_cast<double>(ids.size());
}
BENCHMARK(BM_CacheAcquireRelease)->Name("cache/acquire_release_hit");

}  // namespace
