// zqrtree query: every entry that satisfies an operator (or an AND / OR
// combination of operators) against a search box; prints rowids, whole
// entries as CSV, or the count.
#include <cstdio>

#include "tools/tool.h"

namespace zqtool {

namespace {

struct QueryArgs {
  Target t;
  std::string op = "intersect";
  bool or_mode = false;
  std::string box;
  bool entries = false;
  bool count = false;
};

int run_query(Context& ctx, const QueryArgs& a) {
  uint32_t op = 0;
  std::string error;
  if (!zq::parse_op(a.op, a.or_mode, &op, &error)) throw UsageError(error);
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  const zq::Box box = parse_box(a.box, index.dims());
  uint64_t hits = 0;
  std::string out;
  ctx.arm_faults(*db);
  zq::Status s = index.query(op, box, [&](const zq::Entry& e) {
    ++hits;
    if (a.count) return true;
    out += a.entries ? entry_csv(e, index.dims()) : std::to_string(e.id);
    out += '\n';
    write_out(&out);
    return true;
  });
  write_out(&out, true);
  if (!s) return ctx.fail(s);
  if (a.count) std::printf("%llu\n", static_cast<unsigned long long>(hits));
  return kDone;
}

}  // namespace

void add_query(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<QueryArgs>();
  CLI::App* cmd = app.add_subcommand(
      "query",
      "Find the entries that satisfy an operator against BOX (min0,min1,...,max0,max1,...). "
      "Operators: intersect (overlaps BOX), contains (contains BOX), within (lies within BOX), "
      "equal (is BOX), any (every entry; with --or). Several joined with '|' must all hold, or "
      "with --or any one of them. Prints one rowid per line.");
  set_example(cmd,
              "  zqrtree query city.db parks --op intersect 0,0,100,100\n"
              "  zqrtree query city.db parks --op 'within|equal' --or --entries 0,0,100,100");
  add_target(cmd, &args->t);
  cmd->add_option("BOX", args->box, "search box: min0,min1,...,max0,max1,...")->required();
  cmd->add_option("--op", args->op, "operator(s): intersect, contains, within, equal, any")
      ->capture_default_str();
  cmd->add_flag("--or", args->or_mode, "any one of the operators suffices");
  cmd->add_flag("--entries", args->entries, "print whole entries as CSV: id,min...,max...");
  cmd->add_flag("--count", args->count, "print only the number of hits");
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_query(ctx, *args); }; });
}

}  // namespace zqtool
