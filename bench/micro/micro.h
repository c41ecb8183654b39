// Shared pieces of the micro-benchmarks: a host session with one index,
// seeded random boxes, the bulk load as an engine runs it, and the warm
// 1M-entry tree that the tree-level benchmarks share (built once per
// process, on first use).
#ifndef ZQ_BENCH_MICRO_MICRO_H
#define ZQ_BENCH_MICRO_MICRO_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/host.h"
#include "zqrtree/zqrtree.h"

namespace zqmicro {

// Uniform boxes in [0, 1e6]^dims with sides up to twice the mean spacing,
// ids 1..n; unused axes are 0, as the engine side keeps them.
std::vector<rtr_cell> random_cells(size_t n, uint16_t dims, uint64_t seed);
// A square (cube) window of `selectivity` of the space, centred on a random
// point; the third axis is left unconstrained in 2-D.
rtr_rect random_window(double selectivity, uint16_t dims, uint64_t* state);

class Session {
 public:
  // Opens `path` (":memory:" or a file) with a node table for index "m".
  // The node-buffer budget is large enough to keep a 10M-entry tree cached.
  explicit Session(const std::string& path, uint16_t dims = 2);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Aborts with the engine's error stack on a negative code: a benchmark
  // whose setup failed must not report figures.
  void check(int32_t rc, const char* what) const;
  rtr_mem* handle(uint32_t read_mode);
  void bulk_load(const std::vector<rtr_cell>& cells, double fill);
  // Every entry by rtr_insert through one write handle, flushed once.
  void insert_all(const std::vector<rtr_cell>& cells);
  // Caches every node of the tree in `rtr` (one search over everything).
  void warm(rtr_mem* rtr);
  uint64_t database_bytes() const;
  std::vector<int64_t> node_ids() const;

  zq_env* env() const { return env_; }
  zq_session* session() const { return sess_; }
  uint16_t dims() const { return dims_; }

 private:
  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_index index_{"m", nullptr, nullptr, nullptr};
  uint16_t dims_;
};

// Where database files go: $ZQ_MICRO_DIR, else /tmp; `tag` and the process
// id make the name, and any old file of that name is removed.
std::string scratch_db(const char* tag);
void remove_db(const std::string& path);

// The shared 1M-entry 2-D tree in a database file, bulk-loaded at the
// driver's default fill, with one reading-mode handle whose cache holds
// every node. The file is removed when the process exits.
struct WarmTree {
  std::string path = scratch_db("tree");
  Session session{path};
  std::vector<rtr_cell> cells;
  rtr_mem* reader = nullptr;
  std::vector<int64_t> node_ids;
};
WarmTree& warm_tree();

// Registers the 10M-entry builds; main calls it for --zq_10m.
void register_10m_builds();

}  // namespace zqmicro

#endif
