// zqrtree repack and repair: an index rebuilt by bulk load from its own
// entries, atomically — from the tree (repack: a tree inserts left sparse
// reads fewer nodes packed) or from every leaf row that still decodes
// (repair: after `zqrtree check` found damage).
#include "tools/tool.h"

namespace zqtool {

namespace {

struct RepackArgs {
  Target t;
  double fill = zq::kDefaultFill;
};

int run_rebuild(Context& ctx, const RepackArgs& a, bool repair) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  ctx.arm_faults(*db);
  zq::RebuildReport r;
  zq::Status s = repair ? index.repair(&r) : index.repack(a.fill, &r);
  if (!s) return ctx.fail(s);
  if (!repair) {
    ctx.note("repacked index '{}': {} entries", a.t.index, r.kept);
    return kDone;
  }
  ctx.note("repaired index '{}': {} entries from {} leaf rows", a.t.index, r.kept, r.leaf_rows);
  const std::pair<uint64_t, const char*> left_out[] = {
      {r.damaged_rows, "leaf rows that do not decode"},
      {r.duplicates, "second places of a rowid"},
      {r.unlisted, "entries the rowid table does not list"},
      {r.bad_boxes, "entries whose box has NaN or a minimum above its maximum"},
      {r.lost, "rowids the rowid table lists but no leaf row holds (lost)"}};
  for (const auto& [n, what] : left_out)
    if (n != 0) ctx.note("  left out: {} {}", n, what);
  return kDone;
}

}  // namespace

void add_repack(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<RepackArgs>();
  CLI::App* cmd = app.add_subcommand(
      "repack",
      "Rebuild an index's tree by bulk load from its own entries, in one transaction: a tree "
      "built by inserts is sparse (its split rule leaves many part-empty nodes) and reads more "
      "nodes per query than a packed one; `zqrtree stats` says when a repack pays.");
  set_example(cmd, "  zqrtree repack city.db parks");
  add_target(cmd, &args->t);
  cmd->add_option("--fill", args->fill, "fraction of the 51 entries each node gets")
      ->check(CLI::Range(zq::kMinFill, 1.0))
      ->capture_default_str();
  cmd->callback(
      [&ctx, args] { ctx.action = [&ctx, args] { return run_rebuild(ctx, *args, false); }; });

  auto rargs = std::make_shared<RepackArgs>();
  CLI::App* rep = app.add_subcommand(
      "repair",
      "Rebuild a damaged index from every leaf row of its node table that still decodes, "
      "reachable from the root or not, in one transaction; the rowid table says which rowids "
      "are indexed. Says what it had to leave out. Run `zqrtree check` first.");
  set_example(rep, "  zqrtree check city.db parks || zqrtree repair city.db parks");
  add_target(rep, &rargs->t);
  rep->callback(
      [&ctx, rargs] { ctx.action = [&ctx, rargs] { return run_rebuild(ctx, *rargs, true); }; });
}

}  // namespace zqtool
