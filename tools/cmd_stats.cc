// zqrtree stats: the shape of an index's tree and the database's size.
#include "driver/tree_stats.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

int run_stats(Context& ctx, const Target& t) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(t.db, t.index, &db, &index); !s) return ctx.fail(s);
  ctx.arm_faults(*db);
  zq::TreeStats st;
  if (zq::Status s = zq::collect_stats(index, &st); !s) return ctx.fail(s);
  uint64_t bytes = 0;
  if (zq::Status s = db->file_size(&bytes); !s) return ctx.fail(s);
  const char* measure_name = index.dims() == 1 ? "length" : index.dims() == 2 ? "area" : "volume";
  fmt::print("index '{}': {} axes, {} entries\n", index.name(), index.dims(), st.entries);
  fmt::print("height {}, {} nodes, database {} bytes ({:.1f} MB)\n", st.height, st.nodes, bytes,
             bytes / 1048576.0);
  fmt::print("{:>5} {:>9} {:>10} {:>6} {:>14} {:>14}\n", "level", "nodes", "entries", "fill",
             fmt::format("total {}", measure_name), fmt::format("overlap {}", measure_name));
  for (const zq::LevelStats& l : st.levels)
    fmt::print("{:>5} {:>9} {:>10} {:>5.1f}% {:>14.6g} {:>14.6g}\n", l.level, l.nodes, l.cells,
               100 * l.fill(), l.total, l.overlap);
  if (st.entries == 0) return kDone;
  const zq::Quality& q = st.quality;
  fmt::print("a window of {:g}% of the extent reads ~{:.1f} nodes; freshly packed, ~{:.1f}\n",
             100 * zq::Quality::kWindowShare, q.nodes_per_query, q.packed);
  if (q.repack_pays()) fmt::print("a repack would pay: zqrtree repack {} {}\n", t.db, t.index);
  return kDone;
}

}  // namespace

void add_stats(CLI::App& app, Context& ctx) {
  auto t = std::make_shared<Target>();
  CLI::App* cmd = app.add_subcommand(
      "stats",
      "Show the tree's height and, per level, its nodes, entries, mean fill (of 51 entries), "
      "and the total and pairwise-overlap area of its node boxes; the database size; and the "
      "nodes a small window query reads, estimated, against a freshly packed tree, with advice "
      "to repack when that pays.");
  set_example(cmd, "  zqrtree stats city.db parks");
  add_target(cmd, t.get());
  cmd->callback([&ctx, t] { ctx.action = [&ctx, t] { return run_stats(ctx, *t); }; });
}

}  // namespace zqtool
