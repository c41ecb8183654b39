// zqrtree print: the library's own debug print of the whole tree (node ids,
// levels, and each cell's id with its first two axes).
#include "tools/tool.h"

namespace zqtool {

void add_print(CLI::App& app, Context& ctx) {
  auto t = std::make_shared<Target>();
  CLI::App* cmd = app.add_subcommand(
      "print",
      "Print the tree as the library's debug print shows it: each node's id, level and cell "
      "count, then each cell's id and its first two axes, children indented below.");
  set_example(cmd, "  zqrtree print city.db parks | less");
  add_target(cmd, t.get());
  cmd->callback([&ctx, t] {
    ctx.action = [&ctx, t] {
      std::unique_ptr<zq::Database> db;
      zq::Index index;
      if (zq::Status s = ctx.open_index(t->db, t->index, &db, &index); !s) return ctx.fail(s);
      ctx.arm_faults(*db);
      if (zq::Status s = index.print(); !s) return ctx.fail(s);
      return kDone;
    };
  });
}

}  // namespace zqtool
