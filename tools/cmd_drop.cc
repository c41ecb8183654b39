// zqrtree drop: removes an index — its node table, its rowid table
// and its catalog row — in one transaction.
#include "tools/tool.h"

namespace zqtool {

void add_drop(CLI::App& app, Context& ctx) {
  auto t = std::make_shared<Target>();
  CLI::App* cmd = app.add_subcommand(
      "drop", "Remove an index: its node table, its rowid table and its catalog entry.");
  set_example(cmd, "  zqrtree drop city.db parks");
  add_target(cmd, t.get());
  cmd->callback([&ctx, t] {
    ctx.action = [&ctx, t] {
      std::unique_ptr<zq::Database> db;
      if (zq::Status s = ctx.open_db(t->db, false, &db); !s) return ctx.fail(s);
      ctx.arm_faults(*db);
      if (zq::Status s = zq::Index::drop(*db, t->index); !s) return ctx.fail(s);
      ctx.note("dropped index '{}'", t->index);
      return kDone;
    };
  });
}

}  // namespace zqtool
