// zqrtree bench: batches of window queries of every operator (and some AND
// and OR combinations) timed through the driver, each optionally verified
// against a brute-force scan of the index's entries. Exit 1 on a mismatch.
#include <algorithm>
#include <chrono>
#include <random>

#include "tools/model.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

struct BenchArgs {
  Target t;
  uint64_t queries = 100;
  uint64_t seed = 1;
  double window = 0.01;
  bool verify = false;
};

struct Workload {
  const char* label;
  const char* ops;
  bool or_mode;
  int kind;  // 0: window, 1: point inside an entry, 2: big window, 3: an entry's own box
};

constexpr Workload kWorkloads[] = {
    {"intersect", "intersect", false, 0},
    {"contains", "contains", false, 1},
    {"within", "within", false, 2},
    {"equal", "equal", false, 3},
    {"within&intersect", "within|intersect", false, 2},
    {"or(within|equal)", "within|equal", true, 3},
    {"or(intersect|contains)", "intersect|contains", true, 0},
    {"or(any)", "any", true, 0},
};

class QueryMaker {
 public:
  QueryMaker(const std::vector<zq::Entry>& all, int dims, double window, uint64_t seed)
      : all_(all), dims_(dims), rng_(seed) {
    for (int k = 0; k < dims; ++k) {
      lo_[k] = hi_[k] = all.empty() ? 0 : all[0].box.min[k];
      for (const zq::Entry& e : all) {
        lo_[k] = std::min(lo_[k], e.box.min[k]);
        hi_[k] = std::max(hi_[k], e.box.max[k]);
      }
      side_[k] = (hi_[k] - lo_[k]) * window;
    }
  }

  zq::Box make(int kind) {
    std::uniform_real_distribution<double> u(0, 1);
    if ((kind == 1 || kind == 3) && !all_.empty()) {
      const zq::Box& b = all_[static_cast<size_t>(u(rng_) * all_.size()) % all_.size()].box;
      if (kind == 3) return b;
      zq::Box p;
      for (int k = 0; k < dims_; ++k) p.min[k] = p.max[k] = (b.min[k] + b.max[k]) / 2;
      return p;
    }
    const double scale = kind == 2 ? 4 : 1;
    zq::Box q;
    for (int k = 0; k < dims_; ++k) {
      const double c = lo_[k] + u(rng_) * (hi_[k] - lo_[k]);
      q.min[k] = c - scale * side_[k] / 2;
      q.max[k] = c + scale * side_[k] / 2;
    }
    return q;
  }

 private:
  const std::vector<zq::Entry>& all_;
  int dims_;
  std::mt19937_64 rng_;
  double lo_[3] = {0, 0, 0}, hi_[3] = {0, 0, 0}, side_[3] = {0, 0, 0};
};

std::vector<int64_t> brute_force(const std::vector<zq::Entry>& all, uint32_t op, const zq::Box& q,
                                 int dims) {
  std::vector<int64_t> ids;
  for (const zq::Entry& e : all)
    if (model_matches(op, e.box, q, dims)) ids.push_back(e.id);
  return ids;
}

int run_bench(Context& ctx, const BenchArgs& a) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  std::vector<zq::Entry> all;
  if (zq::Status s = index.entries([&](const zq::Entry& e) {
        all.push_back(e);
        return true;
      });
      !s)
    return ctx.fail(s);
  // In rowid order, so that a seed makes the same queries whatever the tree's shape.
  std::sort(all.begin(), all.end(),
            [](const zq::Entry& x, const zq::Entry& y) { return x.id < y.id; });
  QueryMaker maker(all, index.dims(), a.window, a.seed);
  fmt::print("{:<24} {:>8} {:>12} {:>12} {}\n", "operator", "queries", "hits", "queries/s",
             a.verify ? "verified" : "");
  uint64_t mismatches = 0;
  for (const Workload& w : kWorkloads) {
    uint32_t op = 0;
    std::string error;
    zq::parse_op(w.ops, w.or_mode, &op, &error);
    // Each "any" query returns every entry; two make the point.
    const uint64_t n =
        std::string_view(w.ops) == "any" ? std::min<uint64_t>(a.queries, 2) : a.queries;
    uint64_t hits = 0, bad = 0;
    double secs = 0;
    for (uint64_t i = 0; i < n; ++i) {
      const zq::Box q = maker.make(w.kind);
      std::vector<int64_t> got;
      const auto start = std::chrono::steady_clock::now();
      zq::Status s = index.query(op, q, [&](const zq::Entry& e) {
        got.push_back(e.id);
        return true;
      });
      secs += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (!s) return ctx.fail(s);
      hits += got.size();
      if (!a.verify) continue;
      std::sort(got.begin(), got.end());
      if (got != brute_force(all, op, q, index.dims())) {
        if (bad == 0)
          std::fprintf(
              stderr, "zqrtree: bench: %s query %llu (%s) differs from the brute-force scan\n",
              w.label, static_cast<unsigned long long>(i), box_text(q, index.dims()).c_str());
        ++bad;
      }
    }
    mismatches += bad;
    fmt::print("{:<24} {:>8} {:>12} {:>12.0f} {}\n", w.label, n, hits, secs > 0 ? n / secs : 0.0,
               !a.verify  ? ""
               : bad == 0 ? "ok"
                          : fmt::format("{} MISMATCHES", bad));
  }
  std::fflush(stdout);
  if (mismatches != 0) {
    std::fprintf(stderr, "zqrtree: bench: %llu queries differ from the brute-force scan\n",
                 static_cast<unsigned long long>(mismatches));
    return kFailure;
  }
  return kDone;
}

}  // namespace

void add_bench(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<BenchArgs>();
  CLI::App* cmd = app.add_subcommand(
      "bench",
      "Time batches of window queries of every operator and some AND/OR combinations; with "
      "--verify check each answer against a brute-force scan of all entries (exit 1 on any "
      "difference).");
  set_example(cmd, "  zqrtree bench city.db parks --queries 200 --verify");
  add_target(cmd, &args->t);
  cmd->add_option("--queries", args->queries, "queries per operator")->capture_default_str();
  cmd->add_option("--seed", args->seed, "random seed of the query boxes")->capture_default_str();
  cmd->add_option("--window", args->window, "window side as a fraction of the data's extent")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  cmd->add_flag("--verify", args->verify, "compare every answer with a brute-force scan");
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_bench(ctx, *args); }; });
}

}  // namespace zqtool
