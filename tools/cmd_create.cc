// zqrtree create: a new, empty index (node table, rowid table and a
// catalog row) in a database file, which is created when missing.
#include "tools/tool.h"

namespace zqtool {

void add_create(CLI::App& app, Context& ctx) {
  struct Args {
    Target t;
    int dims = 2;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd =
      app.add_subcommand("create",
                         "Create an empty index of boxes with 1, 2 or 3 axes (the database file is "
                         "created when missing).");
  set_example(cmd, "  zqrtree create city.db parks --dims 2");
  add_target(cmd, &args->t);
  cmd->add_option("--dims", args->dims, "number of axes (1, 2 or 3)")
      ->capture_default_str()
      ->check(CLI::Range(1, 3));
  cmd->callback([&ctx, args] {
    ctx.action = [&ctx, args] {
      std::unique_ptr<zq::Database> db;
      if (zq::Status s = ctx.open_db(args->t.db, true, &db); !s) return ctx.fail(s);
      ctx.arm_faults(*db);
      zq::Index index;
      if (zq::Status s = zq::Index::create(*db, args->t.index, args->dims, &index); !s)
        return ctx.fail(s);
      ctx.note("created index '{}' ({} axes) in {}", args->t.index, args->dims, args->t.db);
      return kDone;
    };
  });
}

}  // namespace zqtool
