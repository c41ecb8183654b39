// What every benchmark runner shares: its command line, the timed phases
// that are the same for every system, and the line protocol the comparison
// driver reads from its standard output.
//
// A runner is started as
//   bench_run_<system> --workload FILE --variant NAME [--dir DIR] [--clock wall|cpu]
//                      [--key value ...]
// (or with --list to print its variants), reads the workload before any
// clock starts, and prints one block per result row:
//   row <label>
//   <key> <value> [<value>]
// Keys: build_bulk_s, build_incr_s, insert_per_s, q_per_s.<set>,
// hits.<set> <count> <digest>, nodes_per_q.<set>, delete_per_s,
// hits_del <count> <digest>, nn_per_s.<set>, nhits_<what>.<set> <count>
// <digest> (see run_nearest_sets), size_bytes, base_rss_kb, note <text>,
// version <text>; a runner that times one phase per process (the SQL path)
// gives it as wall_s, cpu_s and ops (rows or queries).
// Anything on standard error is for people. A failure exits non-zero.
#ifndef ZQ_BENCH_COMMON_RUNNER_H
#define ZQ_BENCH_COMMON_RUNNER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/common/workload.h"

namespace zqbench {

class Options {
 public:
  std::string workload;
  std::string variant;
  std::string dir = "/tmp";  // where database and index files go
  std::map<std::string, std::string> extra;

  double number(const std::string& key, double fallback) const;
};

// Collects the rows and prints them when the runner ends, so a runner can
// measure for one row while another is still open (ours times the
// handle-per-query searches before its deletes change the tree).
class Report {
 public:
  size_t row(const std::string& label);  // adds a row and makes it current
  void use(size_t row) { cur_ = row; }
  void rename(const std::string& label) { rows_.at(cur_).first = label; }
  void value(const std::string& key, double v);
  void hits(const std::string& key, const Hits& h);
  void note(const std::string& text);
  void version(const std::string& text);  // "SQLite 3.40.1": what was measured
  void print() const;

 private:
  void line(const std::string& text);
  std::vector<std::pair<std::string, std::vector<std::string>>> rows_;
  size_t cur_ = 0;
};

// Wall-clock time by default. With --clock cpu a runner times its own CPU
// time instead: on a machine shared with other work that is the steadier
// measure, though it leaves out time spent waiting for the disk.
class Stopwatch {
 public:
  Stopwatch() : t0_(now()) {}
  double seconds() const { return now() - t0_; }
  static void use_cpu_clock(bool cpu) { cpu_ = cpu; }

 private:
  static double now();
  static inline bool cpu_ = false;
  double t0_;
};

// Wall-clock and CPU time of one phase together, whatever --clock says: the
// SQL-path tables show both.
class PhaseTimer {
 public:
  PhaseTimer();
  // Reports wall_s, cpu_s and ops: the phase's seconds and its operations.
  void report(Report& report, uint64_t ops) const;

 private:
  double wall0_, cpu0_;
};

// One window query: adds every hit's id to `hits`; returns "" or why it failed.
using QueryFn = std::function<std::string(const Box& q, Hits* hits)>;

// Times every query set in order and reports q_per_s.<set> and hits.<set>.
// Nothing is read beforehand: the first set meets the caches the build
// left, as a user's first queries do.
std::string run_query_sets(const Workload& w, Report& report, const QueryFn& query);
// Runs query set `set` once, adding its hits; "" or why a query failed.
std::string run_query_set(const Workload& w, size_t set, Hits* hits, const QueryFn& query);
// Runs the workload's verify set once, untimed, and reports hits_del.
std::string run_verify_set(const Workload& w, Report& report, const QueryFn& query);

// One nearest-neighbour query: the entries (rowid and box) a system answers
// with for the k entries nearest to `point`, in the order it gives them.
using NearestFn = std::function<std::string(const Box& point, uint32_t k, std::vector<Entry>* out)>;

// What a system's nearest-neighbour answer promises besides holding k
// entries with none left out that is nearer than the farthest of them.
enum class Ties {
  kOrdered,  // exactly the first k by (distance, rowid), in that order: ours
  kAll,      // also every further entry at the k-th distance, in any order:
             // libspatialindex (which compares roots of squared distances), the oracle
  kAny,      // any k of the entries tied at the k-th distance, in any order: Boost
};

// Times each nearest-neighbour set (nn_per_s.<set>), keeping the answers;
// then, with the clock stopped, measures every answer's entries alike
// (dist2) and reports digests that the comparison holds against the
// oracle's, as much of each as the system promises:
//   nhits_dist.<set>  the k smallest distances, by rank (every system)
//   nhits_near.<set>  the rowids nearer than the k-th distance, and how many
//                     of the k lie at it (every system)
//   nhits_rank.<set>  the first k rowids by (distance, rowid), by rank; for
//                     kOrdered in the order given, for kAll once sorted
//   nhits_ties.<set>  how many entries past the k lie at the k-th distance (kAll)
// An answer holding a rowid twice, or (kAll) an entry past the k beyond the
// k-th distance, is an error.
std::string run_nearest_sets(const Workload& w, Report& report, Ties ties, const NearestFn& query);

// Peak resident set of this process so far, in kilobytes.
long peak_rss_kb();
// Size of a file in bytes, 0 when it does not exist.
uint64_t file_bytes(const std::string& path);
// A fresh path under the runner's directory (any old file of that name is
// removed, with the SQLite journal files beside it).
std::string scratch_path(const Options& opt, const std::string& stem);

struct Variant {
  std::string name;   // as given to --variant
  std::string label;  // the table's row label
  std::function<std::string(const Workload&, const Options&, Report&)> run;
};

int runner_main(int argc, char** argv, const std::vector<Variant>& variants);

}  // namespace zqbench

#endif
