// libzqrtree through the SQLite host, driven the way an engine drives it:
// the default callbacks installed once, one handle per user operation inside
// a host transaction, rtr_flush_all once before a change is committed. It
// goes to the exported rtr_* functions directly rather than through the
// driver, whose indexes also keep a base table: the peers here are bare
// indexes, and so is what we measure.
//
// Variants: bulk-file / bulk-memory (sort stage + rtr_blkload) and
// incr-file / incr-memory (every entry by rtr_insert, one transaction).
// Each reports two rows: window queries with one handle for a whole batch
// (in one read transaction; nothing is read before the first timed query),
// and with a fresh handle and transaction per query. Nodes read per query
// come from the second mode, counted as the host's SELECTs on the node table.
// Nearest-neighbour queries follow the windows on the batch handle, warm
// from them, through one cursor record whose queue memory serves them all.
//
// Options: --fill F (bulk fill, default 0.7), --cache-mb M (node
// buffer per handle, all handles together 4 M; the rows then say so),
// --sort-mb M (sorter memory). Without them the host's defaults hold.
#include <sqlite3.h>

#include <cstring>
#include <memory>

#include "bench/common/runner.h"
#include "bench/common/sql.h"
#include "driver/default_hooks.h"
#include "host/host.h"
#include "zqrtree/zqrtree.h"

namespace zqbench {
namespace {

constexpr const char* kIndex = "bench";
constexpr const char* kNodeTable = "MDRT$bench";

rtr_rect to_rect(const Box& b) {
  rtr_rect r;
  r.min0 = b.lo[0];
  r.min1 = b.lo[1];
  r.min2 = b.lo[2];
  r.max0 = b.hi[0];
  r.max1 = b.hi[1];
  r.max2 = b.hi[2];
  return r;
}

Box from_rect(const rtr_rect& r) {
  Box b;
  b.lo[0] = r.min0;
  b.lo[1] = r.min1;
  b.lo[2] = r.min2;
  b.hi[0] = r.max0;
  b.hi[1] = r.max1;
  b.hi[2] = r.max2;
  return b;
}

class Engine {
 public:
  ~Engine() {
    if (sess_ != nullptr) zqsess_close(sess_);
    if (env_ != nullptr) zqenv_destroy(env_);
  }

  std::string open(const std::string& path, const Options& opt, int dims) {
    zq_install_default_hooks();
    env_ = zqenv_create();
    if (env_ == nullptr) return "no environment";
    int32_t code = 0;
    sess_ = zqsess_open(env_, path.c_str(), &code);
    if (sess_ == nullptr) return failure("opening " + path, code);
    if (opt.extra.count("cache-mb") != 0) {
      const auto cache_mb = static_cast<uint32_t>(opt.number("cache-mb", 0));
      zqsess_set_rtree_buf_mb(sess_, 4 * cache_mb, cache_mb);
    }
    if (opt.extra.count("sort-mb") != 0)
      zqsess_set_sort_mem(sess_, static_cast<uint64_t>(opt.number("sort-mb", 0)) << 20);
    code = zqsess_create_node_table(sess_, "main", kIndex);
    if (code < 0) return failure("creating the node table", code);
    scope_ = zqsess_scope(sess_, "main");
    dims_ = static_cast<uint16_t>(dims);
    return "";
  }

  // The engine's error stack, innermost first, as the message.
  std::string failure(const std::string& what, int32_t code) const {
    std::string msg = what + ": code " + std::to_string(code);
    if (env_ != nullptr) {
      char buf[2048];
      zqenv_err_format(env_, buf, sizeof buf);
      msg += '\n';
      msg += buf;
    }
    return msg;
  }

  std::string begin() {
    const int32_t rc = zqsess_begin(sess_);
    return rc < 0 ? failure("begin", rc) : "";
  }
  std::string commit() {
    const int32_t rc = zqsess_commit(sess_);
    return rc < 0 ? failure("commit", rc) : "";
  }

  std::string handle(uint32_t read_mode, rtr_mem** out) {
    const int32_t rc = rtr_mem_create(env_, sess_, dims_, scope_, &index_, read_mode, out);
    return rc < 0 ? failure("rtr_mem_create", rc) : "";
  }

  // Bulk build: entries into the sorter in batches, sort, pack bottom-up.
  std::string bulk_load(const std::vector<Entry>& entries, double fill) {
    zq_memobj storage;
    zq_memobj* mem = rt_memobj_heap_create_fast_ex(env_, &storage, 1 << 16, __FILE__, __LINE__);
    if (mem == nullptr) return failure("scratch heap", RTR_ERR_NO_ROOM);
    zq_nsort* sorter = nullptr;
    zq_bdta* batch = nullptr;
    rtr_mem* rtr = nullptr;
    std::string err;
    int32_t rc = rtr_sort_create(env_, zqsess_sort_pool(sess_), mem, dims_, &sorter);
    if (rc >= 0) rc = rtr_sort_bdta_crt(env_, mem, dims_, &batch);
    for (size_t i = 0; rc >= 0 && i < entries.size(); ++i) {
      const rtr_rect r = to_rect(entries[i].box);
      rtr_fill_one_row_nsort_bdta(env_, mem, dims_, entries[i].id, &r, 0, batch);
      if (batch->n_rows == RTR_BDTA_ROWS || i + 1 == entries.size()) {
        rc = nsort_put_bdta(env_, sorter, batch);
        bdta3_clear(env_, mem, batch);
      }
    }
    if (rc >= 0 && !entries.empty()) rc = nsort_sort_it(env_, sorter);
    if (rc >= 0) rc = rtr_mem_create_for_bld(env_, sess_, dims_, scope_, &index_, &rtr);
    if (rc >= 0)
      rc = rtr_blkload(env_, mem, rtr, entries.empty() ? nullptr : sorter, entries.size(), fill);
    if (rc < 0) err = failure("bulk load", rc);
    if (rtr != nullptr) rtr_mem_destroy(env_, rtr);
    if (batch != nullptr) bdta3_free2(env_, mem, batch);
    if (sorter != nullptr) nsort_destory(env_, sorter);
    rt_memobj_destroy(env_, mem);
    return err;
  }

  // One write handle for the whole batch, flushed once.
  template <typename Step>
  std::string write_batch(const char* what, size_t n, Step step) {
    rtr_mem* rtr = nullptr;
    std::string err = handle(0, &rtr);
    if (!err.empty()) return err;
    int32_t rc = 0;
    for (size_t i = 0; rc >= 0 && i < n; ++i) rc = step(rtr, i);
    if (rc >= 0) rc = rtr_flush_all(env_, rtr);
    rtr_mem_destroy(env_, rtr);
    return rc < 0 ? failure(what, rc) : "";
  }

  // One window query on an open handle; three-dimensional hits are
  // rechecked on the third axis, as the engine does for the cursor.
  std::string query(rtr_mem* rtr, const Box& q, int dims, Hits* hits) {
    rcur cur;
    rcur_init(&cur, rtr, RTR_OP_INTERSECT);
    const rtr_rect rect = to_rect(q);
    int32_t rc = rcur_open(env_, &cur, &rect);
    while (rc >= 0 && rcur_is_end(&cur) == 0) {
      rtr_cell cell;
      rc = rcur_column(env_, &cur, &cell);
      if (rc < 0) break;
      if (dims < 3 || overlaps(from_rect(cell.rect), q, dims)) hits->add(cell.id);
      rc = rcur_next(env_, &cur);
    }
    return rc < 0 ? failure("search", rc) : "";
  }

  // The k entries nearest to a point, as the cursor gives them: stepping
  // no further than the k-th.
  std::string nearest(rnn* nn, const Box& p, uint32_t k, std::vector<Entry>* out) {
    const rtr_rect rect = to_rect(p);
    int32_t rc = rnn_open(env_, nn, &rect, RNN_NO_LIMIT);
    for (uint32_t i = 0; rc >= 0 && i < k && rnn_is_end(nn) == 0; ++i) {
      rtr_cell cell;
      rc = rnn_column(env_, nn, &cell, nullptr);
      if (rc < 0) break;
      out->push_back(Entry{cell.id, from_rect(cell.rect)});
      if (i + 1 < k) rc = rnn_next(env_, nn);
    }
    return rc < 0 ? failure("nearest", rc) : "";
  }

  sqlite3* db() const { return zqsess_db(sess_); }
  zq_env* env() const { return env_; }

 private:
  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_index index_{kIndex, nullptr, nullptr, nullptr};
  uint16_t dims_ = 2;
};

// Counts the host's reads of the node table (its SELECTs naming it, other
// than the rowid counter's max(rowid)).
int count_node_reads(unsigned type, void* ctx, void*, void* x) {
  const char* sql = static_cast<const char*>(x);
  if (type == SQLITE_TRACE_STMT && sql != nullptr && std::strstr(sql, kNodeTable) != nullptr &&
      strncasecmp(sql, "SELECT", 6) == 0 && strcasestr(sql, "max(rowid)") == nullptr)
    ++*static_cast<uint64_t*>(ctx);
  return 0;
}

std::string run(const Workload& w, const Options& opt, Report& report, bool bulk, bool in_memory) {
  const std::string path = in_memory ? ":memory:" : scratch_path(opt, "bench_zqrtree.db");
  Engine eng;
  std::string err = eng.open(path, opt, w.dims);
  if (!err.empty()) return err;
  report.version(std::string("SQLite ") + sqlite3_libversion() + " (host)");
  const size_t batch_row = 0;
  std::string label = std::string("zqrtree ") + (bulk ? "bulk" : "insert") + ", " +
                      (in_memory ? ":memory:" : "file");
  if (opt.extra.count("cache-mb") != 0) label += ", cache " + opt.extra.at("cache-mb") + " MB";
  report.rename(label);
  const size_t cold_row = report.row(label + ", handle/query");
  report.value("base_rss_kb", static_cast<double>(peak_rss_kb()));
  report.use(batch_row);

  {
    Stopwatch build;
    if (!(err = eng.begin()).empty()) return err;
    if (bulk) {
      err = eng.bulk_load(w.entries, opt.number("fill", 0.7));
    } else {
      // An empty index is one empty leaf at rowid 1: a bulk load of nothing.
      err = eng.bulk_load({}, 1.0);
      if (err.empty())
        err = eng.write_batch("insert", w.entries.size(), [&](rtr_mem* rtr, size_t i) {
          rtr_cell cell{w.entries[i].id, to_rect(w.entries[i].box)};
          return rtr_insert(eng.env(), rtr, &cell);
        });
    }
    if (!err.empty() || !(err = eng.commit()).empty()) return err;
    const double secs = build.seconds();
    if (bulk) {
      report.value("build_bulk_s", secs);
    } else {
      report.value("build_incr_s", secs);
      report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
    }
    uint64_t bytes = 0;
    if (!(err = used_bytes(eng.db(), "main", &bytes)).empty()) return err;
    report.value("size_bytes", static_cast<double>(bytes));
  }

  // One handle for a whole batch: its cache fills as the batch reads nodes.
  rtr_mem* batch_handle = nullptr;
  auto batch_query = [&](const Box& q, Hits* hits) {
    return eng.query(batch_handle, q, w.dims, hits);
  };
  if (!(err = eng.begin()).empty() || !(err = eng.handle(1, &batch_handle)).empty()) return err;
  err = run_query_sets(w, report, batch_query);
  if (err.empty()) {
    rnn nn;
    rnn_init(&nn, batch_handle, 0);
    err = run_nearest_sets(w, report, Ties::kOrdered,
                           [&](const Box& p, uint32_t k, std::vector<Entry>* out) {
                             return eng.nearest(&nn, p, k, out);
                           });
    rnn_close(eng.env(), &nn);
  }
  rtr_mem_destroy(eng.env(), batch_handle);
  if (!err.empty() || !(err = eng.commit()).empty()) return err;

  // A handle and a transaction per query, as a user's single search gets.
  auto cold_query = [&](const Box& q, Hits* hits) {
    rtr_mem* rtr = nullptr;
    std::string e = eng.begin();
    if (e.empty()) e = eng.handle(1, &rtr);
    if (e.empty()) e = eng.query(rtr, q, w.dims, hits);
    if (rtr != nullptr) rtr_mem_destroy(eng.env(), rtr);
    if (e.empty()) e = eng.commit();
    return e;
  };
  report.use(cold_row);
  if (!(err = run_query_sets(w, report, cold_query)).empty()) return err;
  uint64_t reads = 0;
  sqlite3_trace_v2(eng.db(), SQLITE_TRACE_STMT, count_node_reads, &reads);
  for (size_t s = 0; s < w.sets.size(); ++s) {
    const size_t n = std::min<size_t>(w.sets[s].boxes.size(), 1000);
    if (n == 0) continue;
    reads = 0;
    Hits ignored;
    for (size_t i = 0; i < n; ++i)
      if (!(err = cold_query(w.sets[s].boxes[i], &ignored)).empty()) return err;
    report.value("nodes_per_q." + std::to_string(s), static_cast<double>(reads) / n);
  }
  sqlite3_trace_v2(eng.db(), 0, nullptr, nullptr);
  report.use(batch_row);

  {
    Stopwatch del;
    if (!(err = eng.begin()).empty()) return err;
    err = eng.write_batch("delete", w.deletes.size(), [&](rtr_mem* rtr, size_t i) {
      const Entry& e = w.entries[w.deletes[i]];
      const rtr_rect r = to_rect(e.box);
      return rtr_delete_by_rowid(eng.env(), rtr, e.id, &r);
    });
    if (!err.empty() || !(err = eng.commit()).empty()) return err;
    const double secs = del.seconds();
    report.value("delete_per_s", secs > 0 ? w.deletes.size() / secs : 0);
  }
  if (!(err = eng.begin()).empty() || !(err = eng.handle(1, &batch_handle)).empty()) return err;
  err = run_verify_set(w, report, batch_query);
  rtr_mem_destroy(eng.env(), batch_handle);
  if (err.empty()) err = eng.commit();
  return err;
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using zqbench::Options;
  using zqbench::Report;
  using zqbench::Workload;
  auto variant = [](const char* name, const char* label, bool bulk, bool memory) {
    return zqbench::Variant{name, label,
                            [bulk, memory](const Workload& w, const Options& o, Report& r) {
                              return zqbench::run(w, o, r, bulk, memory);
                            }};
  };
  return zqbench::runner_main(argc, argv,
                              {variant("bulk-file", "zqrtree bulk, file", true, false),
                               variant("incr-file", "zqrtree insert, file", false, false),
                               variant("bulk-memory", "zqrtree bulk, :memory:", true, true),
                               variant("incr-memory", "zqrtree insert, :memory:", false, true)});
}
