// The zqrtree tool's shared wiring: global options, the exit-status
// convention, opening databases and indexes with the user's settings, boxes
// from the command line, and how each subcommand registers itself.
//
// A subcommand file defines add_<name>(CLI::App&, Context&): it declares its
// options and sets ctx.action to the work it does, which main runs after a
// successful parse and whose result is the exit status.
#ifndef ZQ_TOOLS_TOOL_H
#define ZQ_TOOLS_TOOL_H

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "driver/index.h"
#include "tools/input.h"

namespace zqtool {

// Exit statuses: done, failure (bad input, missing index, engine error),
// usage (the command line could not be understood).
inline constexpr int kDone = 0;
inline constexpr int kFailure = 1;
inline constexpr int kUsage = 2;

// Thrown by an action for a command-line mistake found after parsing (an
// operator name, a box that does not parse); main prints it and exits 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  bool quiet = false;
  zq::Settings settings;  // from the command line; the environment fills the rest
#ifdef ZQ_TEST_HOOKS
  uint64_t fault_alloc_nth = 0;   // diagnostic: fail the nth host allocation of the operation
  uint64_t fault_engine_nth = 0;  // diagnostic: fail its nth node-table engine call
#endif
};

class Context {
 public:
  Options opts;
  std::function<int()> action;

  // Opens DB with the settings of the environment and the command line.
  zq::Status open_db(const std::string& path, bool create, std::unique_ptr<zq::Database>* out);
  zq::Status open_index(const std::string& path, const std::string& name,
                        std::unique_ptr<zq::Database>* db, zq::Index* index);
  // Arms the faults asked for, right before the operation (test builds only).
  void arm_faults(zq::Database& db) const;
  // A progress bar on standard error, or nothing when quiet or not a terminal.
  zq::Progress progress() const;
  // "zqrtree: error: ..." on standard error; returns kFailure.
  int fail(const zq::Status& status) const;
  // An informational line on standard error, unless --quiet.
  template <typename... Args>
  void note(fmt::format_string<Args...> f, Args&&... args) const {
    if (opts.quiet) return;
    std::fputs((fmt::format(f, std::forward<Args>(args)...) + "\n").c_str(), stderr);
  }
};

// The DB and INDEX arguments most subcommands start with.
struct Target {
  std::string db;
  std::string index;
};
void add_target(CLI::App* cmd, Target* target);
// --format, --layer, --id-field and --where of a command that reads a file;
// OGR's note on a source of several layers goes to standard error.
void add_input_options(CLI::App* cmd, Context& ctx, InputOptions* input);
// The subcommand's help footer: an example or two.
void set_example(CLI::App* cmd, const std::string& examples);

// Comma-separated numbers; throws UsageError naming `what` ("box") and the
// field that is not a number.
std::vector<double> parse_numbers(std::string_view text, std::string_view what);
// "min0,min1,...,max0,max1,..." (all minima, then all maxima) for `dims`
// axes; throws UsageError naming the problem.
zq::Box parse_box(std::string_view text, int dims);
// A rowid given on the command line: a decimal whole number within int64;
// throws UsageError naming the text otherwise.
int64_t parse_rowid(std::string_view text);
// Writes `out` to standard output and empties it once it has grown past
// 64 KiB, or whatever it holds when `done`: long answers go out in chunks.
void write_out(std::string* out, bool done = false);
// One coordinate, shortest text that reads back to the same double.
std::string number(double v);
// "min0,...,max0,..." as BOX arguments take it.
std::string box_text(const zq::Box& box, int dims);
// "id,min0,...,max0,..." as the CSV loader reads it.
std::string entry_csv(const zq::Entry& e, int dims);

// Every subcommand.
void add_create(CLI::App& app, Context& ctx);
void add_load(CLI::App& app, Context& ctx);
void add_insert(CLI::App& app, Context& ctx);
void add_delete(CLI::App& app, Context& ctx);
void add_query(CLI::App& app, Context& ctx);
void add_nearest(CLI::App& app, Context& ctx);
void add_print(CLI::App& app, Context& ctx);
void add_check(CLI::App& app, Context& ctx);
void add_stats(CLI::App& app, Context& ctx);
void add_render(CLI::App& app, Context& ctx);
void add_drop(CLI::App& app, Context& ctx);
void add_repack(CLI::App& app, Context& ctx);  // repack and repair
void add_list(CLI::App& app, Context& ctx);
void add_gen(CLI::App& app, Context& ctx);
void add_bench(CLI::App& app, Context& ctx);
// `version` and --version.
void add_version(CLI::App& app, Context& ctx);

// For a command line whose first word names no subcommand: "unknown command
// 'qurey'; did you mean 'query'?" (or the list of commands when none is
// near); "" when the first word is a subcommand or there is none.
std::string unknown_command(const CLI::App& app, int argc, char** argv);

}  // namespace zqtool

#endif
