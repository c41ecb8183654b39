// bench_compare's side of the runner protocol (bench/common/runner.h): a
// runner started as a child process on one workload, its rows read from its
// standard output, its peak resident set taken from wait4.
#ifndef ZQ_BENCH_COMPARE_CHILD_H
#define ZQ_BENCH_COMPARE_CHILD_H

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/common/workload.h"

namespace zqbench {

// What every child gets besides its workload and variant.
struct Harness {
  std::string bin = ".";     // where the bench_run_<runner> programs are
  std::string dir = "/tmp";  // their scratch files
  double timeout = 0;        // seconds a child may take; 0: no limit
  std::string clock = "wall";
  std::vector<std::pair<std::string, std::string>> pass;  // --key value for every runner
};

struct Row {
  std::string job;  // runner:variant#n, n counting the runner's rows
  std::string label;
  std::map<std::string, std::vector<std::string>> kv;
  long peak_rss_kb = 0;
  std::string status;  // "" when it ran; else skipped/failed and why

  bool ran() const { return status.empty(); }
  std::optional<double> num(const std::string& key) const;
  std::optional<Hits> hits(const std::string& key) const;
};

// Runs `job` ("runner:variant") with `extra` arguments after the usual ones;
// a runner that is not built gives one skipped row, one that fails or runs
// out of time a row whose status says so.
std::vector<Row> run_child(const Harness& h, const std::string& job, const std::string& workload,
                           const std::vector<std::string>& extra = {});

// One line per digest of `row` (hits.<set>, hits_del, nhits_<what>.<set>)
// that is not the oracle's. A row gives only the digests of what it ran and
// of what its system promises; the oracle gives all of them.
std::vector<std::string> hit_mismatches(const Row& oracle, const Row& row);

std::vector<std::string> split(const std::string& s, char sep);

}  // namespace zqbench

#endif
