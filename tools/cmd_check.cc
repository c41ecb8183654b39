// zqrtree check: the tree checker over the node table (structure, parents,
// boxes, reachability), an EQUAL search for every entry, then the tree's
// entries against the index's rowid table. Exit 1 with the first violation.
#include "check/check.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

int violation(const std::string& index, const std::string& what) {
  std::fprintf(stderr, "zqrtree: check: index '%s': %s\n", index.c_str(), what.c_str());
  return kFailure;
}

int run_check(Context& ctx, const Target& t) {
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(t.db, t.index, &db, &index); !s) return ctx.fail(s);
  zq::Progress progress = ctx.progress();
  auto step = [&](uint64_t n) {
    if (progress) progress("checking", n, 3);
  };
  ctx.arm_faults(*db);
  step(0);
  zqcheck::TreeStats st;
  zqcheck::CheckResult r;
  zq::Status s = index.with_read_handle([&](rtr_mem* rtr) {
    r = zqcheck::check_tree(db->session(), index.schema().c_str(), index.name().c_str(),
                            static_cast<uint16_t>(index.dims()), &st);
    step(1);
    if (r.ok)
      r = zqcheck::check_search(db->env(), rtr, index.schema().c_str(), index.name().c_str());
    step(2);
    return zq::Status::ok();
  });
  if (!s) return ctx.fail(s);
  if (!r.ok) {
    progress = nullptr;
    return violation(t.index, fmt::format("node {}: {}", r.node_id, r.message));
  }
  std::string problem;
  if (s = index.verify_rowids(&problem); !s) return ctx.fail(s);
  step(3);
  progress = nullptr;
  if (!problem.empty()) return violation(t.index, problem);
  ctx.note("index '{}' is sound: height {}, {} nodes, {} entries", t.index, st.height, st.nodes,
           st.entries);
  return kDone;
}

}  // namespace

void add_check(CLI::App& app, Context& ctx) {
  auto t = std::make_shared<Target>();
  CLI::App* cmd = app.add_subcommand(
      "check",
      "Verify an index: every leaf at the same depth, parent links, branch boxes containing "
      "their children, at most 51 entries per node, no unreachable node rows, every entry "
      "found by an EQUAL search, and the rowid table placing every entry where it is. Exit "
      "status 1 with the first violation.");
  set_example(cmd, "  zqrtree check city.db parks && echo sound");
  add_target(cmd, t.get());
  cmd->callback([&ctx, t] { ctx.action = [&ctx, t] { return run_check(ctx, *t); }; });
}

}  // namespace zqtool
