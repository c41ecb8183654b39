// zqrtree delete: removes the entry of a rowid. With a box, the box must be
// the stored one; without, the box is read from the leaf holding the rowid.
#include "tools/tool.h"

namespace zqtool {

void add_delete(CLI::App& app, Context& ctx) {
  struct Args {
    Target t;
    std::string id;
    std::string box;
  };
  auto args = std::make_shared<Args>();
  CLI::App* cmd = app.add_subcommand(
      "delete",
      "Delete the entry of a rowid. Give its BOX to make sure the right entry goes (it must "
      "equal the stored box), or leave it out to use the stored box.");
  set_example(cmd,
              "  zqrtree delete city.db parks 42\n"
              "  zqrtree delete city.db parks 42 10,20,15,26");
  add_target(cmd, &args->t);
  cmd->add_option("ID", args->id, "rowid of the entry")->required();
  cmd->add_option("BOX", args->box, "its box: min0,min1,...,max0,max1,...");
  cmd->callback([&ctx, args] {
    ctx.action = [&ctx, args] {
      std::unique_ptr<zq::Database> db;
      zq::Index index;
      if (zq::Status s = ctx.open_index(args->t.db, args->t.index, &db, &index); !s)
        return ctx.fail(s);
      ctx.arm_faults(*db);
      const int64_t id = parse_rowid(args->id);
      const zq::Status s = args->box.empty() ? index.remove(id)
                                             : index.remove(id, parse_box(args->box, index.dims()));
      if (!s) return ctx.fail(s);
      ctx.note("deleted rowid {} from '{}'", id, args->t.index);
      return kDone;
    };
  });
}

}  // namespace zqtool
