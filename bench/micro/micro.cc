// The micro-benchmarks' shared session, data and warm tree, and their main:
// Google Benchmark's own flags plus --zq_10m, which adds the 10M-entry
// builds (minutes and gigabytes, so never by default).
#include "bench/micro/micro.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "driver/default_hooks.h"

namespace zqmicro {

std::vector<rtr_cell> random_cells(size_t n, uint16_t dims, uint64_t seed) {
  std::mt19937_64 g(seed);
  auto unit = [&g] { return static_cast<double>(g() >> 11) * 0x1.0p-53; };
  const double extent = 1e6;
  const double side = 2 * extent * std::pow(static_cast<double>(n), -1.0 / dims);
  std::vector<rtr_cell> cells(n);
  for (size_t i = 0; i < n; ++i) {
    rtr_cell& c = cells[i];
    std::memset(&c, 0, sizeof c);
    c.id = static_cast<int64_t>(i + 1);
    double* lo = &c.rect.min0;
    double* hi = &c.rect.max0;
    for (uint16_t k = 0; k < dims; ++k) {
      lo[k] = unit() * extent;
      hi[k] = lo[k] + unit() * side;
    }
  }
  return cells;
}

rtr_rect random_window(double selectivity, uint16_t dims, uint64_t* state) {
  // splitmix64: cheap enough not to show up in what the search benchmarks time.
  auto unit = [state] {
    uint64_t z = (*state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return static_cast<double>((z ^ (z >> 31)) >> 11) * 0x1.0p-53;
  };
  const double half = 1e6 * std::pow(selectivity, 1.0 / dims) / 2;
  rtr_rect q;
  std::memset(&q, 0, sizeof q);
  double* lo = &q.min0;
  double* hi = &q.max0;
  for (uint16_t k = 0; k < dims; ++k) {
    const double centre = unit() * 1e6;
    lo[k] = centre - half;
    hi[k] = centre + half;
  }
  return q;
}

Session::Session(const std::string& path, uint16_t dims) : dims_(dims) {
  zq_install_default_hooks();
  env_ = zqenv_create();
  int32_t code = 0;
  sess_ = zqsess_open(env_, path.c_str(), &code);
  check(sess_ == nullptr ? (code < 0 ? code : -1) : 0, "zqsess_open");
  zqsess_set_rtree_buf_mb(sess_, 16384, 4096);
  zqsess_set_sort_mem(sess_, 512ull << 20);
  check(zqsess_create_node_table(sess_, "main", index_.name), "zqsess_create_node_table");
  scope_ = zqsess_scope(sess_, "main");
}

Session::~Session() {
  if (sess_ != nullptr) zqsess_close(sess_);
  zqenv_destroy(env_);
}

void Session::check(int32_t rc, const char* what) const {
  if (rc >= 0) return;
  char buf[2048] = "";
  if (env_ != nullptr) zqenv_err_format(env_, buf, sizeof buf);
  std::fprintf(stderr, "zq_micro: %s failed with code %d\n%s\n", what, rc, buf);
  std::abort();
}

rtr_mem* Session::handle(uint32_t read_mode) {
  rtr_mem* rtr = nullptr;
  check(rtr_mem_create(env_, sess_, dims_, scope_, &index_, read_mode, &rtr), "rtr_mem_create");
  return rtr;
}

void Session::bulk_load(const std::vector<rtr_cell>& cells, double fill) {
  zq_memobj storage;
  zq_memobj* mem = rt_memobj_heap_create_fast_ex(env_, &storage, 1 << 16, __FILE__, __LINE__);
  check(mem == nullptr ? RTR_ERR_NO_ROOM : 0, "scratch heap");
  zq_nsort* sorter = nullptr;
  zq_bdta* batch = nullptr;
  check(zqsess_begin(sess_), "zqsess_begin");
  check(rtr_sort_create(env_, zqsess_sort_pool(sess_), mem, dims_, &sorter), "rtr_sort_create");
  check(rtr_sort_bdta_crt(env_, mem, dims_, &batch), "rtr_sort_bdta_crt");
  for (size_t i = 0; i < cells.size(); ++i) {
    rtr_fill_one_row_nsort_bdta(env_, mem, dims_, cells[i].id, &cells[i].rect, 0, batch);
    if (batch->n_rows == RTR_BDTA_ROWS || i + 1 == cells.size()) {
      check(nsort_put_bdta(env_, sorter, batch), "nsort_put_bdta");
      bdta3_clear(env_, mem, batch);
    }
  }
  if (!cells.empty()) check(nsort_sort_it(env_, sorter), "nsort_sort_it");
  rtr_mem* rtr = nullptr;
  check(rtr_mem_create_for_bld(env_, sess_, dims_, scope_, &index_, &rtr),
        "rtr_mem_create_for_bld");
  check(rtr_blkload(env_, mem, rtr, cells.empty() ? nullptr : sorter, cells.size(), fill),
        "rtr_blkload");
  rtr_mem_destroy(env_, rtr);
  bdta3_free2(env_, mem, batch);
  nsort_destory(env_, sorter);
  rt_memobj_destroy(env_, mem);
  check(zqsess_commit(sess_), "zqsess_commit");
}

void Session::insert_all(const std::vector<rtr_cell>& cells) {
  bulk_load({}, 1.0);  // an empty index is one empty leaf at rowid 1
  check(zqsess_begin(sess_), "zqsess_begin");
  rtr_mem* rtr = handle(0);
  for (const rtr_cell& c : cells) check(rtr_insert(env_, rtr, &c), "rtr_insert");
  check(rtr_flush_all(env_, rtr), "rtr_flush_all");
  rtr_mem_destroy(env_, rtr);
  check(zqsess_commit(sess_), "zqsess_commit");
}

void Session::warm(rtr_mem* rtr) {
  rcur cur;
  rtr_rect all;
  std::memset(&all, 0, sizeof all);
  all.min0 = all.min1 = all.min2 = -1e300;
  all.max0 = all.max1 = all.max2 = 1e300;
  rcur_init(&cur, rtr, RTR_OP_INTERSECT);
  int32_t rc = rcur_open(env_, &cur, &all);
  while (rc >= 0 && rcur_is_end(&cur) == 0) rc = rcur_next(env_, &cur);
  check(rc, "warming the cache");
}

uint64_t Session::database_bytes() const {
  sqlite3_stmt* st = nullptr;
  uint64_t bytes = 0;
  if (sqlite3_prepare_v2(zqsess_db(sess_),
                         "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size",
                         -1, &st, nullptr) == SQLITE_OK &&
      sqlite3_step(st) == SQLITE_ROW)
    bytes = static_cast<uint64_t>(sqlite3_column_int64(st, 0));
  sqlite3_finalize(st);
  return bytes;
}

std::vector<int64_t> Session::node_ids() const {
  std::vector<int64_t> ids;
  sqlite3_stmt* st = nullptr;
  const std::string sql =
      std::string("SELECT rowid FROM \"") + RTR_NODE_TABLE_PREFIX + index_.name + "\"";
  if (sqlite3_prepare_v2(zqsess_db(sess_), sql.c_str(), -1, &st, nullptr) == SQLITE_OK)
    while (sqlite3_step(st) == SQLITE_ROW) ids.push_back(sqlite3_column_int64(st, 0));
  sqlite3_finalize(st);
  return ids;
}

std::string scratch_db(const char* tag) {
  const char* dir = std::getenv("ZQ_MICRO_DIR");
  std::string path = std::string(dir != nullptr ? dir : "/tmp") + "/zq_micro_" + tag + "_" +
                     std::to_string(getpid()) + ".db";
  remove_db(path);
  return path;
}

void remove_db(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
}

WarmTree& warm_tree() {
  static WarmTree* tree = [] {
    auto* t = new WarmTree;
    static const std::string path = t->path;
    std::atexit([] { remove_db(path); });
    t->cells = random_cells(1000000, 2, 7);
    t->session.bulk_load(t->cells, 0.7);
    t->reader = t->session.handle(1);
    t->session.warm(t->reader);
    t->node_ids = t->session.node_ids();
    return t;
  }();
  return *tree;
}

}  // namespace zqmicro

int main(int argc, char** argv) {
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--zq_10m") == 0)
      zqmicro::register_10m_builds();
    else
      argv[kept++] = argv[i];
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
