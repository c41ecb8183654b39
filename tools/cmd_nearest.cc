// zqrtree nearest: the k entries nearest to a point or a box, nearest first,
// with their distances; equal distances come in rowid order.
#include <cmath>

#include "tools/tool.h"

namespace zqtool {

namespace {

struct NearestArgs {
  Target t;
  std::string query;
  uint64_t k = 10;
  double max_distance = INFINITY;
  uint32_t max_queue = 0;
};

// A point gives one coordinate per axis, a box all minima, then all maxima.
zq::Box parse_query(const std::string& text, int dims) {
  const std::vector<double> v = parse_numbers(text, "query");
  const size_t n = static_cast<size_t>(dims);
  if (v.size() != n && v.size() != 2 * n)
    throw UsageError(fmt::format(
        "query '{}' has {} coordinates; a {}-axis index takes a point of {} or a box of {} "
        "(all minima, then all maxima)",
        text, v.size(), dims, n, 2 * n));
  zq::Box box;
  for (size_t k = 0; k < n; ++k) {
    box.min[k] = v[k];
    box.max[k] = v[v.size() == n ? k : n + k];
  }
  return box;
}

int run_nearest(Context& ctx, const NearestArgs& a) {
  if (!(a.max_distance >= 0))
    throw UsageError(
        fmt::format("--max-distance {} is not a number of 0 or more", number(a.max_distance)));
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  const zq::Box query = parse_query(a.query, index.dims());
  const zq::NearestOptions options{a.k, a.max_distance, a.max_queue};
  std::string out;
  ctx.arm_faults(*db);
  zq::Status s = index.nearest(query, options, [&](const zq::Neighbour& n) {
    out += fmt::format("{},{},{}\n", n.entry.id, number(n.distance),
                       box_text(n.entry.box, index.dims()));
    write_out(&out);
    return true;
  });
  write_out(&out, true);
  if (!s) return ctx.fail(s);
  return kDone;
}

}  // namespace

void add_nearest(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<NearestArgs>();
  CLI::App* cmd = app.add_subcommand(
      "nearest",
      "Find the entries nearest to QUERY, a point (x,y[,z]) or a box (min0,min1,...,max0,"
      "max1,...), by Euclidean distance over every axis of the index (0 where an entry "
      "overlaps QUERY). Prints one line per entry, nearest first, equal distances in rowid "
      "order: rowid,distance,min0,...,max0,...");
  set_example(cmd,
              "  zqrtree nearest city.db parks 10.5,20 -k 3\n"
              "  zqrtree nearest city.db parks 0,0,10,10 -k 0 --max-distance 250");
  add_target(cmd, &args->t);
  cmd->add_option("QUERY", args->query, "point x,y[,z] or box min0,...,max0,...")->required();
  cmd->add_option("-k", args->k, "how many entries; 0 for all (within --max-distance)")
      ->capture_default_str();
  cmd->add_option("--max-distance", args->max_distance, "leave out entries farther than this");
  cmd->add_option("--max-queue", args->max_queue,
                  "nodes and entries the search may keep queued at once (0: the library's "
                  "default, about a million); a search that needs more fails")
      ->capture_default_str();
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_nearest(ctx, *args); }; });
}

}  // namespace zqtool
