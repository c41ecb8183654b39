// zqrtree load: bulk build of an index from a box CSV file, any vector
// source GDAL/OGR reads, or standard input. The tree is rebuilt bottom-up from the entries already
// indexed plus the file's, or from the file's alone with --replace; a bad
// line leaves the database untouched.
#include <chrono>

#include "tools/input.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

struct LoadArgs {
  Target t;
  std::string file;
  InputOptions input;
  double fill = zq::kDefaultFill;
  bool replace = false;
};

int run_load(Context& ctx, const LoadArgs& a) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  std::unique_ptr<zq::EntrySource> source;
  if (zq::Status s = open_entries(a.file, a.input, index.dims(), &source); !s) return ctx.fail(s);
  zq::LoadOptions options;
  options.fill = a.fill;
  options.replace = a.replace;
  options.progress = ctx.progress();
  const auto start = std::chrono::steady_clock::now();
  ctx.arm_faults(*db);
  zq::Status s = index.load(*source, options);
  options.progress = nullptr;  // ends the progress line before any message
  if (!s) return ctx.fail(s);
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  uint64_t n = 0;
  if (zq::Status c = index.count(&n); !c) return ctx.fail(c);
  ctx.note("loaded '{}': index '{}' now holds {} entries ({:.2f} s)", a.file, a.t.index, n, secs);
  return kDone;
}

}  // namespace

void add_load(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<LoadArgs>();
  CLI::App* cmd = app.add_subcommand(
      "load",
      "Bulk-load boxes from a CSV file (id,min0,min1,...,max0,max1,...; gzip or not) or the "
      "envelopes of a GIS source's features (Shapefile, GeoPackage, FlatGeobuf, GeoJSON, GML, "
      "KML, PG:..., /vsizip/...; '-' reads CSV or GeoJSON from standard input). The tree is "
      "packed bottom-up from the index's current entries plus the file's; nothing is written if "
      "any line or feature is bad.");
  set_example(cmd,
              "  zqrtree load city.db parks parks.csv\n"
              "  zqrtree load city.db parks parks.geojson --fill 1.0 --replace\n"
              "  zqrtree load city.db parks city.gpkg --layer parks --id-field osm_id\n"
              "  generate | zqrtree load city.db parks - --format csv");
  add_target(cmd, &args->t);
  cmd->add_option("FILE", args->file, "input file, or - for standard input")->required();
  add_input_options(cmd, ctx, &args->input);
  cmd->add_option("--fill", args->fill,
                  "fraction of the 51 entries each node gets; the default leaves room for later "
                  "inserts and fills the file's pages, 1.0 packs read-only data tightest")
      ->capture_default_str();
  cmd->add_flag("--replace", args->replace, "drop the index's current entries first");
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_load(ctx, *args); }; });
}

}  // namespace zqtool
