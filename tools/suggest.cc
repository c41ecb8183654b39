// Naming a mistyped subcommand: the word the user gave and the subcommand
// nearest to it, by the number of single-letter edits (a swap of two
// neighbours counts as one), when it is near enough to be what was meant.
#include <algorithm>
#include <vector>

#include "tools/tool.h"

namespace zqtool {

namespace {

size_t edit_distance(std::string_view a, std::string_view b) {
  // d[i][j]: edits between the first i letters of a and the first j of b.
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

// The first argument that is not an option or an option's value.
std::string_view first_word(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.empty() || arg[0] != '-') return arg;
    if (arg.find('=') != std::string_view::npos) continue;
    const CLI::Option* opt = app.get_option_no_throw(std::string(arg));
    if (opt != nullptr && opt->get_expected_min() > 0) ++i;
  }
  return {};
}

}  // namespace

std::string unknown_command(const CLI::App& app, int argc, char** argv) {
  const std::string_view word = first_word(app, argc, argv);
  if (word.empty()) return {};
  std::string best;
  size_t best_distance = 0;
  std::string names;
  for (const CLI::App* cmd : app.get_subcommands({})) {
    const std::string& name = cmd->get_name();
    if (name == word) return {};
    const size_t distance = edit_distance(word, name);
    if (best.empty() || distance < best_distance) {
      best = name;
      best_distance = distance;
    }
    if (!names.empty()) names += ", ";
    names += name;
  }
  // Near enough: at most a third of the word's letters wrong, and one at least.
  if (best_distance <= std::max<size_t>(1, word.size() / 3))
    return fmt::format("unknown command '{}'; did you mean '{}'?", word, best);
  return fmt::format("unknown command '{}'; the commands are {}", word, names);
}

}  // namespace zqtool
