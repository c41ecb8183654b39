// zqrtree render: writes an SVG picture of an index's entries and node boxes.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/render.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

struct RenderArgs {
  Target t;
  std::string out;
  RenderOptions options;
  bool no_entries = false;
};

int run_render(Context& ctx, const RenderArgs& a) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  RenderOptions options = a.options;
  options.entries = !a.no_entries;
  ctx.arm_faults(*db);
  std::string svg;
  if (zq::Status s = render_svg(index, options, &svg); !s) return ctx.fail(s);
  const std::string path = a.out.empty() ? a.t.index + ".svg" : a.out;
  FILE* f = path == "-" ? stdout : std::fopen(path.c_str(), "w");
  if (f == nullptr)
    return ctx.fail(
        zq::Status::io(fmt::format("cannot write '{}': {}", path, std::strerror(errno))));
  const bool ok = std::fwrite(svg.data(), 1, svg.size(), f) == svg.size();
  if (f != stdout && std::fclose(f) != 0) return ctx.fail(zq::Status::io("cannot write " + path));
  if (!ok) return ctx.fail(zq::Status::io("cannot write " + path));
  if (path != "-") ctx.note("wrote {}", path);
  return kDone;
}

}  // namespace

void add_render(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<RenderArgs>();
  CLI::App* cmd = app.add_subcommand(
      "render",
      "Draw the index as SVG: entries in grey, the node boxes of each level in their own "
      "colour (axis 0 across, axis 1 up).");
  set_example(cmd, "  zqrtree render city.db parks -o parks.svg --width 1600");
  add_target(cmd, &args->t);
  cmd->add_option("-o,--output", args->out, "SVG file to write (default INDEX.svg; - for stdout)");
  cmd->add_option("--width", args->options.width, "picture width in pixels")
      ->check(CLI::Range(100, 100000))
      ->capture_default_str();
  cmd->add_option("--max-entries", args->options.max_entries,
                  "draw at most about this many entries (every k-th beyond it)")
      ->capture_default_str();
  cmd->add_flag("--no-entries", args->no_entries, "draw node boxes only");
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_render(ctx, *args); }; });
}

}  // namespace zqtool
