// zqrtree gen: random boxes as CSV for loading, benchmarks and the demo.
// Reproducible: the same seed gives the same file.
#include <cmath>
#include <cstdio>
#include <random>

#include "tools/tool.h"

namespace zqtool {

namespace {

struct GenArgs {
  std::string out = "-";
  uint64_t count = 1000;
  int dims = 2;
  uint64_t seed = 1;
  double extent = 1000;
  double max_size = 10;
  std::string dist = "uniform";
  int64_t first_id = 1;
};

// Box centres: uniform over the extent, or around 20 Gaussian clusters.
class Generator {
 public:
  explicit Generator(const GenArgs& a) : a_(a), rng_(a.seed) {
    std::uniform_real_distribution<double> u(0, a.extent);
    for (int c = 0; c < 20; ++c)
      for (int k = 0; k < 3; ++k) centres_[c][k] = u(rng_);
  }

  zq::Box next() {
    std::uniform_real_distribution<double> u(0, 1);
    const int cluster = static_cast<int>(u(rng_) * 20) % 20;
    zq::Box b;
    for (int k = 0; k < a_.dims; ++k) {
      double c = u(rng_) * a_.extent;
      if (a_.dist == "clustered") {
        std::normal_distribution<double> n(centres_[cluster][k], a_.extent / 40);
        c = std::clamp(n(rng_), 0.0, a_.extent);
      }
      // Sizes skewed toward small boxes, as real data tends to be.
      const double size = a_.max_size * u(rng_) * u(rng_);
      b.min[k] = c - size / 2;
      b.max[k] = c + size / 2;
    }
    return b;
  }

 private:
  const GenArgs& a_;
  std::mt19937_64 rng_;
  double centres_[20][3];
};

int run_gen(Context& ctx, const GenArgs& a) {
  FILE* f = a.out == "-" ? stdout : std::fopen(a.out.c_str(), "w");
  if (f == nullptr) return ctx.fail(zq::Status::io("cannot write '" + a.out + "'"));
  Generator gen(a);
  std::string buf;
  bool ok = true;
  for (uint64_t i = 0; i < a.count && ok; ++i) {
    buf += entry_csv(zq::Entry{a.first_id + static_cast<int64_t>(i), gen.next()}, a.dims);
    buf += '\n';
    if (buf.size() > (1 << 20) || i + 1 == a.count) {
      ok = std::fwrite(buf.data(), 1, buf.size(), f) == buf.size();
      buf.clear();
    }
  }
  if (f != stdout && std::fclose(f) != 0) ok = false;
  if (!ok) return ctx.fail(zq::Status::io("cannot write '" + a.out + "'"));
  if (a.out != "-") ctx.note("wrote {} boxes to {}", a.count, a.out);
  return kDone;
}

}  // namespace

void add_gen(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<GenArgs>();
  CLI::App* cmd = app.add_subcommand(
      "gen",
      "Generate random boxes as CSV (id,min0,...,max0,...): centres uniform over [0, EXTENT] "
      "or in 20 clusters, sizes up to MAX-SIZE skewed toward small.");
  set_example(cmd,
              "  zqrtree gen boxes.csv --count 1000000 --seed 7\n"
              "  zqrtree gen - --count 100 --dims 3 | zqrtree load city.db cubes -");
  cmd->add_option("OUT", args->out, "file to write, - for standard output")->capture_default_str();
  cmd->add_option("-n,--count", args->count, "number of boxes")->capture_default_str();
  cmd->add_option("--dims", args->dims, "axes per box")
      ->check(CLI::Range(1, 3))
      ->capture_default_str();
  cmd->add_option("--seed", args->seed, "random seed")->capture_default_str();
  cmd->add_option("--extent", args->extent, "coordinates lie in [0, EXTENT]")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  cmd->add_option("--max-size", args->max_size, "largest side of a box")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  cmd->add_option("--dist", args->dist, "uniform or clustered")
      ->check(CLI::IsMember({"uniform", "clustered"}))
      ->capture_default_str();
  cmd->add_option("--first-id", args->first_id, "rowid of the first box")->capture_default_str();
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_gen(ctx, *args); }; });
}

}  // namespace zqtool
