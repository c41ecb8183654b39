// zqrtree: the command-line tool. This file only wires the global options
// and the subcommands together and maps outcomes to exit statuses: 0 done,
// 1 failure, 2 usage.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "tools/tool.h"

namespace {

constexpr const char* kFooter = R"(Settings (also read from the environment):
  --buf-total-mb / ZQRTREE_BUF_TOTAL_MB    node buffer of all handles together, MB
  --buf-handle-mb / ZQRTREE_BUF_HANDLE_MB  node buffer of one handle, MB
  --sort-mb / ZQRTREE_SORT_MB              memory of a bulk load's sorters together, MB
  --busy-timeout / ZQRTREE_BUSY_TIMEOUT    seconds to wait for a database another
                                           process has locked (default 5)
Exit status: 0 done, 1 failure (bad input, missing index, engine error), 2 usage.

Example:
  zqrtree create city.db parks --dims 2
  zqrtree load city.db parks parks.geojson
  zqrtree query city.db parks --op intersect 10,20,30,40
)";

void add_global_options(CLI::App& app, zqtool::Context& ctx) {
  app.add_flag("-q,--quiet", ctx.opts.quiet, "no progress bar and no informational messages");
  app.add_option_function<uint32_t>(
      "--buf-total-mb", [&ctx](uint32_t v) { ctx.opts.settings.buf_total_mb = v; },
      "megabytes of node buffer for all handles together");
  app.add_option_function<uint32_t>(
      "--buf-handle-mb", [&ctx](uint32_t v) { ctx.opts.settings.buf_handle_mb = v; },
      "megabytes of node buffer for one handle");
  app.add_option_function<uint64_t>(
      "--sort-mb", [&ctx](uint64_t v) { ctx.opts.settings.sort_mb = v; },
      "megabytes a bulk load's sorters keep in memory together before spilling to disk");
  app.add_option_function<double>(
         "--busy-timeout", [&ctx](double v) { ctx.opts.settings.busy_timeout_s = v; },
         "seconds to wait for a database another process has locked (default 5)")
      ->check(CLI::NonNegativeNumber);
#ifdef ZQ_TEST_HOOKS
  // Diagnostics of test builds, hidden from --help: fail the nth host
  // allocation (ZQRTREE_FAULT_ALLOC_NTH) or the nth engine call inside a
  // node-table mini-transaction (ZQRTREE_FAULT_ENGINE_NTH) of the operation.
  app.add_option("--fault-alloc-nth", ctx.opts.fault_alloc_nth)->group("");
  app.add_option("--fault-engine-nth", ctx.opts.fault_engine_nth)->group("");
#endif
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"zqrtree: R*-tree spatial indexes of boxes (1 to 3 axes) in SQLite database files",
               "zqrtree"};
  app.footer(kFooter);
  app.require_subcommand(1);
  // Global options may come after the subcommand too.
  app.fallthrough();
  zqtool::Context ctx;
  add_global_options(app, ctx);
  zqtool::add_create(app, ctx);
  zqtool::add_load(app, ctx);
  zqtool::add_insert(app, ctx);
  zqtool::add_delete(app, ctx);
  zqtool::add_query(app, ctx);
  zqtool::add_nearest(app, ctx);
  zqtool::add_print(app, ctx);
  zqtool::add_check(app, ctx);
  zqtool::add_stats(app, ctx);
  zqtool::add_render(app, ctx);
  zqtool::add_drop(app, ctx);
  zqtool::add_repack(app, ctx);
  zqtool::add_list(app, ctx);
  zqtool::add_gen(app, ctx);
  zqtool::add_bench(app, ctx);
  zqtool::add_version(app, ctx);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // A mistyped subcommand reads better by name than as an unexpected argument.
    if (const std::string unknown = zqtool::unknown_command(app, argc, argv);
        !unknown.empty() && e.get_exit_code() != 0) {
      std::fprintf(stderr, "zqrtree: %s\n(see zqrtree --help)\n", unknown.c_str());
      return zqtool::kUsage;
    }
    const int rc = app.exit(e);
    return rc == 0 ? zqtool::kDone : zqtool::kUsage;
  }
  try {
    return ctx.action ? ctx.action() : zqtool::kUsage;
  } catch (const zqtool::UsageError& e) {
    std::fprintf(stderr, "zqrtree: usage: %s\n(see zqrtree --help)\n", e.what());
    return zqtool::kUsage;
  }
}
