// zqrtree list: the indexes of a database with their axes and entry counts.
#include "tools/tool.h"

namespace zqtool {

void add_list(CLI::App& app, Context& ctx) {
  auto path = std::make_shared<std::string>();
  CLI::App* cmd =
      app.add_subcommand("list", "List the indexes of a database: name, axes, entries.");
  set_example(cmd, "  zqrtree list city.db");
  cmd->add_option("DB", *path, "database file")->required();
  cmd->callback([&ctx, path] {
    ctx.action = [&ctx, path] {
      std::unique_ptr<zq::Database> db;
      if (zq::Status s = ctx.open_db(*path, false, &db); !s) return ctx.fail(s);
      std::vector<std::pair<std::string, int>> all;
      if (zq::Status s = db->list(&all); !s) return ctx.fail(s);
      for (const auto& [name, dims] : all) {
        zq::Index index;
        uint64_t n = 0;
        if (zq::Status s = zq::Index::open(*db, name, &index); !s) return ctx.fail(s);
        if (zq::Status s = index.count(&n); !s) return ctx.fail(s);
        fmt::print("{}\t{}\t{}\n", name, dims, n);
      }
      return kDone;
    };
  });
}

}  // namespace zqtool
