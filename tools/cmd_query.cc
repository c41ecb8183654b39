// zqrtree query: every entry that satisfies an operator (or an AND / OR
// combination of operators) against a search box — given, or the extent of
// a file's data; prints rowids, whole entries as CSV or GeoJSON, or the
// count.
#include <cstdio>

#include "tools/geojson_out.h"
#include "tools/input.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

struct QueryArgs {
  Target t;
  std::string op = "intersect";
  bool or_mode = false;
  std::string box;
  std::string extent_of;
  InputOptions extent_input;
  std::string format = "ids";
  bool entries = false;
  bool count = false;
};

zq::Box search_box(const QueryArgs& a, int dims, zq::Status* status) {
  if (a.box.empty() == a.extent_of.empty())
    throw UsageError("query takes either BOX or --extent-of FILE");
  if (!a.box.empty()) return parse_box(a.box, dims);
  zq::Box box;
  *status = input_extent(a.extent_of, a.extent_input, dims, &box);
  return box;
}

int run_query(Context& ctx, const QueryArgs& a) {
  uint32_t op = 0;
  std::string error;
  if (!zq::parse_op(a.op, a.or_mode, &op, &error)) throw UsageError(error);
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  zq::Status extent;
  const zq::Box box = search_box(a, index.dims(), &extent);
  if (!extent) return ctx.fail(extent);
  const std::string format = a.entries ? "csv" : a.format;
  GeoJsonWriter geojson(index.dims());
  uint64_t hits = 0;
  std::string out;
  if (format == "geojson" && !a.count) geojson.begin(&out);
  ctx.arm_faults(*db);
  zq::Status s = index.query(op, box, [&](const zq::Entry& e) {
    ++hits;
    if (a.count) return true;
    if (format == "geojson") {
      geojson.feature(e, &out);
    } else {
      out += format == "csv" ? entry_csv(e, index.dims()) : std::to_string(e.id);
      out += '\n';
    }
    write_out(&out);
    return true;
  });
  if (s && format == "geojson" && !a.count) geojson.end(&out);
  write_out(&out, true);
  if (!s) return ctx.fail(s);
  if (a.count) std::printf("%llu\n", static_cast<unsigned long long>(hits));
  return kDone;
}

}  // namespace

void add_query(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<QueryArgs>();
  CLI::App* cmd = app.add_subcommand(
      "query",
      "Find the entries that satisfy an operator against BOX (min0,min1,...,max0,max1,...) or "
      "the extent of a file's data. Operators: intersect (overlaps BOX), contains (contains "
      "BOX), within (lies within BOX), equal (is BOX), any (every entry; with --or). Several "
      "joined with '|' must all hold, or with --or any one of them. Prints one rowid per line, "
      "or the entries as CSV or GeoJSON.");
  set_example(
      cmd,
      "  zqrtree query city.db parks --op intersect 0,0,100,100\n"
      "  zqrtree query city.db parks --op 'within|equal' --or --format csv 0,0,100,100\n"
      "  zqrtree query city.db parks --extent-of district.gpkg --format geojson > hits.json");
  add_target(cmd, &args->t);
  cmd->add_option("BOX", args->box, "search box: min0,min1,...,max0,max1,...");
  cmd->add_option("--extent-of", args->extent_of,
                  "search the extent of this file's data (box CSV or any GIS source) instead");
  cmd->add_option("--extent-layer", args->extent_input.ogr.layer,
                  "layer of the --extent-of source (default: the only or first one)");
  cmd->add_option("--op", args->op, "operator(s): intersect, contains, within, equal, any")
      ->capture_default_str();
  cmd->add_flag("--or", args->or_mode, "any one of the operators suffices");
  cmd->add_option("--format", args->format,
                  "ids (one rowid a line), csv (id,min...,max...) or geojson (a FeatureCollection "
                  "that loads back as the same entries)")
      ->check(CLI::IsMember({"ids", "csv", "geojson"}))
      ->capture_default_str();
  cmd->add_flag("--entries", args->entries, "the same as --format csv");
  cmd->add_flag("--count", args->count, "print only the number of hits");
  args->extent_input.ogr.any_id = true;
  args->extent_input.ogr.note = [&ctx](const std::string& text) { ctx.note("{}", text); };
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_query(ctx, *args); }; });
}

}  // namespace zqtool
