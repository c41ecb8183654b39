// zqrtree version (and --version): the library's version, from the project
// version the build was configured with, and the SQLite it runs on.
#include <sqlite3.h>

#include "tools/tool.h"

namespace zqtool {

std::string version_text() {
  return fmt::format("zqrtree {} (libzqrtree {}, SQLite {})", ZQ_VERSION, ZQ_VERSION,
                     sqlite3_libversion());
}

void add_version(CLI::App& app, Context& ctx) {
  app.set_version_flag("--version", version_text(), "print the library and SQLite versions");
  CLI::App* cmd = app.add_subcommand("version", "Print the library and SQLite versions.");
  set_example(cmd, "  zqrtree version");
  cmd->callback([&ctx] {
    ctx.action = [] {
      fmt::print("{}\n", version_text());
      return kDone;
    };
  });
}

}  // namespace zqtool
