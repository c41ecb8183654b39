// zqrtree insert: one entry from the command line, or every entry of a file
// inserted one by one into the existing tree — all as one operation that
// either completes or leaves the database as it was.
#include <unordered_set>

#include "tools/input.h"
#include "tools/tool.h"

namespace zqtool {

namespace {

struct InsertArgs {
  Target t;
  std::optional<std::string> id;
  std::string box;
  std::string file;
  InputOptions input;
};

// The file's position is the useful name for a bad entry, so everything the
// insert would refuse about one entry is checked here, where it is known.
zq::Status read_entries(const InsertArgs& a, const zq::Index& index, std::vector<zq::Entry>* out) {
  std::unique_ptr<zq::EntrySource> source;
  if (zq::Status s = open_entries(a.file, a.input, index.dims(), &source); !s) return s;
  std::unordered_set<int64_t> seen;
  zq::Entry e;
  zq::Status bad;
  while (source->next(&e, &bad)) {
    const std::string where = source->where();
    if (std::string p = zq::box_problem(e.box, index.dims()); !p.empty())
      return zq::Status::invalid(where + ": " + p);
    if (!seen.insert(e.id).second)
      return zq::Status::invalid(where + ": duplicate rowid " + std::to_string(e.id) +
                                 " in the input");
    zq::Box stored;
    zq::Status found = index.lookup(e.id, &stored);
    if (found)
      return zq::Status::invalid(where + ": duplicate rowid " + std::to_string(e.id) +
                                 " (already in index '" + index.name() + "')");
    if (found.kind() != zq::Status::Kind::kNotFound) return found;
    out->push_back(e);
  }
  return bad;
}

int run_insert(Context& ctx, const InsertArgs& a) {
  if (a.file.empty() == !a.id.has_value())
    throw UsageError("insert takes either ID and BOX or --file FILE");
  if (a.id.has_value() && a.box.empty()) throw UsageError("insert ID needs a BOX");
  std::unique_ptr<zq::Database> db;
  zq::Index index;
  if (zq::Status s = ctx.open_index(a.t.db, a.t.index, &db, &index); !s) return ctx.fail(s);
  std::vector<zq::Entry> entries;
  if (a.id.has_value()) {
    entries.push_back(zq::Entry{parse_rowid(*a.id), parse_box(a.box, index.dims())});
  } else if (zq::Status s = read_entries(a, index, &entries); !s) {
    return ctx.fail(s);
  }
  ctx.arm_faults(*db);
  zq::Progress progress = ctx.progress();
  zq::Status s = index.insert(entries, progress);
  progress = nullptr;
  if (!s) return ctx.fail(s);
  ctx.note("inserted {} entr{} into '{}'", entries.size(), entries.size() == 1 ? "y" : "ies",
           a.t.index);
  return kDone;
}

}  // namespace

void add_insert(CLI::App& app, Context& ctx) {
  auto args = std::make_shared<InsertArgs>();
  CLI::App* cmd = app.add_subcommand(
      "insert",
      "Insert one entry (ID and BOX) or every entry of a file (--file) into the existing tree. "
      "BOX is min0,min1,...,max0,max1,... — all minima, then all maxima.");
  set_example(cmd,
              "  zqrtree insert city.db parks 42 10,20,15,26\n"
              "  zqrtree insert city.db parks --file more-parks.csv");
  add_target(cmd, &args->t);
  cmd->add_option("ID", args->id, "rowid of the new entry");
  cmd->add_option("BOX", args->box, "its box: min0,min1,...,max0,max1,...");
  cmd->add_option("--file", args->file, "insert every entry of this CSV file or GIS source");
  add_input_options(cmd, ctx, &args->input);
  cmd->callback([&ctx, args] { ctx.action = [&ctx, args] { return run_insert(ctx, *args); }; });
}

}  // namespace zqtool
