// bench_compare: runs every system's runner as its own process on the same
// workload files, checks that all of them return the same hits as the
// brute-force oracle, and writes the report: first the SQL path (our
// extension against SQLite's R*Tree through the same statements, in
// interleaved rounds), then the library path (one row per runner variant,
// ratios against the first peer), each with an SVG chart.
//
//   bench_compare --bin DIR [--dir SCRATCH] [--md FILE] [--svg FILE]
//                 [--sql-svg FILE] [--sql-configs LIST] [--rounds N]
//                 [--systems runner:variant,...|none] [--timeout SECONDS]
//                 [--clock wall|cpu] [--pass key=value ...] WORKLOAD...
//
// The oracle (brute:scan) runs once per workload and serves both sections.
// --sql-configs (bench_run_sql's configurations, e.g. sqlite-default,
// sqlite-best,zq-default,zq-best) turns the SQL path on; --rounds is its
// number of rounds (3 by default). --clock applies to the library path: the
// SQL path reports wall and CPU time both. A library runner that is not
// built is listed as skipped; a failed process, or any disagreement on hits,
// makes the exit status 1 after everything ran.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/compare/child.h"
#include "bench/compare/library.h"
#include "bench/compare/report.h"
#include "bench/compare/sql_path.h"

namespace zqbench {
namespace {

const char* const kDefaultSystems =
    "sqlite:file,sqlite:memory,zq:bulk-file,zq:incr-file,zq:incr-memory,sidx:mem-str,"
    "sidx:mem-rstar,sidx:disk-str,sidx:disk-rstar,boost:rstar,boost:pack,brute:scan";
const char* const kOracle = "brute:scan";

struct Options {
  Harness harness;
  std::string md, svg, sql_svg;
  std::vector<std::string> systems, sql_configs;
  int rounds = 3;
};

struct Results {
  std::vector<SqlResult> sql;
  std::vector<LibraryResult> library;
};

void add_versions(const Row& row, std::vector<std::string>* versions) {
  auto it = row.kv.find("version");
  if (it != row.kv.end() && !it->second.empty() &&
      std::find(versions->begin(), versions->end(), it->second[0]) == versions->end())
    versions->push_back(it->second[0]);
}

void write_sql_intro(std::ostream& md) {
  md << "\n## The SQL path: our extension against SQLite's R*Tree\n\n"
     << "The same SQL statements on both, through Debian's shared SQLite (bench_run_sql): "
        "`CREATE VIRTUAL TABLE t USING rtree(...)` or `zqrtree(...)`; inserts by one prepared "
        "`INSERT INTO t VALUES (?1, ...)` per row, all in one transaction; the bulk build from "
        "a plain table `src` in an attached database, `INSERT INTO t SELECT * FROM src` "
        "against `SELECT zqrtree_load('t', 'SELECT * FROM src')`; window queries as "
        "`SELECT id FROM t WHERE maxx >= ?1 AND minx <= ?2 AND maxy >= ?3 AND miny <= ?4`, "
        "prepared once, one autocommit execution per window, nothing read before the first; "
        "`DELETE FROM t WHERE id = ?1` in one transaction on the bulk-built index. SQLite's "
        "R*Tree builds only by inserts, so its bulk-built index is its `INSERT ... SELECT` "
        "one. Default is SQLite's defaults (rollback journal, 2 MB page cache, 4 KB pages) "
        "for both; best is SQLite with `PRAGMA cache_size=-262144` (256 MB) and ours with "
        "its documented best, `PRAGMA journal_mode=WAL`, the same page cache and, for "
        "data loaded to be read, `zqrtree_load(..., 0.98)` (the lists are `kConfigs` in "
        "bench/runners/run_sql.cc). Every measurement of every configuration is a process of "
        "its own; the rounds interleave them (A B A B ...). Ratios are × as fast (for file "
        "and memory, × as large); the targets are issue 13's, in wall time, against SQLite's "
        "best. File MB is the pages in use after a checkpoint; \"with src\" adds the source "
        "table's own database. Peak RSS is the largest ru_maxrss of a round's processes less "
        "the workload the runner holds. Round spread is the widest (max − min) / median of "
        "any column.\n";
}

void write_library_intro(std::ostream& md, const Options& opt) {
  md << "\n## The library path: libzqrtree and peer spatial indexes\n\n"
     << "Each system is driven through its own API (ours: the exported `rtr_*` functions on "
        "the SQLite host, node buffer at the host's default unless a row says otherwise), "
        "in a process of its own once per round; "
     << opt.rounds
     << " rounds interleave the systems (A B A B ...) and every figure is the median of its "
        "rounds (the brute-force oracle runs once). Ratios are against the first peer in the "
        "list. "
     << (opt.harness.clock == "cpu" ? "Times are each process's CPU time."
                                    : "Times are wall-clock.")
     << " No query runs before the timed sets.\n";
}

// Writes the Markdown and the charts for the workloads done so far (called
// after each one, so a long run that is stopped keeps what it measured) and
// returns the Markdown.
std::string report(const Options& opt, const Results& res) {
  std::ostringstream md;
  const std::time_t now = std::time(nullptr);
  char when[64];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  md << "# libzqrtree against SQLite's R*Tree and peer spatial indexes\n\n"
     << "Run " << when << " on " << machine() << ".";
  std::vector<std::string> versions;
  for (const SqlResult& r : res.sql)
    for (const auto& [key, rows] : r.runs)
      for (const Row& row : rows) add_versions(row, &versions);
  for (const LibraryResult& r : res.library)
    for (const Row& row : r.rows) add_versions(row, &versions);
  for (size_t i = 0; i < versions.size(); ++i) md << (i ? ", " : " Versions: ") << versions[i];
  md << (versions.empty() ? "" : ".") << "\n";
  if (!res.sql.empty()) {
    write_sql_intro(md);
    for (const SqlResult& r : res.sql) write_sql_path(md, r);
  }
  if (!res.library.empty()) {
    write_library_intro(md, opt);
    for (const LibraryResult& r : res.library) write_library(md, r);
    md << "\nEach system reads the workload file before any clock starts. Peak RSS is the "
          "process's ru_maxrss and includes the workload it holds; \"RSS over data\" "
          "subtracts the RSS measured right after reading it. Size is the database or index "
          "files (pages in use for SQLite databases, .idx + .dat for libspatialindex on "
          "disk) or, for Boost, the bytes its allocator holds. Nodes read per query is "
          "counted over the first 1000 queries of each set where a system can tell: "
          "node-table reads of a fresh handle per query for libzqrtree, the library's read "
          "statistics for libspatialindex. Coordinates are float32 values so that SQLite's "
          "R*Tree (which stores float32) indexes the same boxes as the others.\n";
  }
  const std::string text = md.str();
  bool ok = write_file(opt.md, text);
  if (!res.library.empty()) ok &= write_file(opt.svg, library_chart(res.library));
  if (!res.sql.empty()) ok &= write_file(opt.sql_svg, sql_chart(res.sql));
  if (!ok) std::fprintf(stderr, "bench_compare: writing the report files failed\n");
  return text;
}

int usage() {
  std::fprintf(stderr,
               "usage: bench_compare --bin DIR [--dir SCRATCH] [--md FILE] [--svg FILE]\n"
               "                     [--sql-svg FILE] [--sql-configs LIST] [--rounds N]\n"
               "                     [--systems runner:variant,...|none] [--timeout SECONDS]\n"
               "                     [--clock wall|cpu] [--pass key=value ...] WORKLOAD...\n"
               "default systems: %s\nSQL-path configurations: %s\n",
               kDefaultSystems, kSqlConfigs);
  return 2;
}

// One system's rows over its rounds: the first round's, with each one-number
// figure and the peak memory replaced by their medians over the rounds that
// ran. A round that failed, or gave other rows, is the result itself.
std::vector<Row> median_rows(const std::vector<std::vector<Row>>& rounds) {
  std::vector<Row> out = rounds.front();
  for (const std::vector<Row>& other : rounds) {
    if (other.size() != out.size()) return other;
    for (const Row& row : other)
      if (!row.ran()) return other;
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 == 1 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
  };
  for (size_t i = 0; i < out.size(); ++i) {
    std::vector<double> rss;
    for (const std::vector<Row>& other : rounds)
      rss.push_back(static_cast<double>(other[i].peak_rss_kb));
    out[i].peak_rss_kb = static_cast<long>(median(rss));
    for (auto& [key, vals] : out[i].kv) {
      std::vector<double> v;
      for (const std::vector<Row>& other : rounds) {
        auto it = other[i].kv.find(key);
        if (it == other[i].kv.end()) continue;
        // Answers (count and digest) must be the same every round: a round
        // that differs stands, so the oracle check sees it.
        if (vals.size() != 1) {
          if (it->second != vals) vals = it->second;
          continue;
        }
        char* end = nullptr;
        const double x = std::strtod(it->second[0].c_str(), &end);
        if (end != it->second[0].c_str() && *end == '\0') v.push_back(x);
      }
      if (vals.size() == 1 && v.size() == rounds.size()) vals[0] = fmt("%.9g", median(v));
    }
  }
  return out;
}

// Runs everything on one workload; false when a process failed or a hit differed.
bool run_workload(const Options& opt, const std::string& file, const WorkloadInfo& info,
                  Results* res) {
  bool ok = true;
  std::fprintf(stderr, "bench_compare: %s: %s (the oracle) ...\n", info.name.c_str(), kOracle);
  const std::vector<Row> oracle = run_child(opt.harness, kOracle, file);
  if (!oracle.front().ran()) {
    std::fprintf(stderr, "bench_compare: %s: the oracle %s\n", info.name.c_str(),
                 oracle.front().status.c_str());
    ok = false;
  }
  if (!opt.sql_configs.empty()) {
    SqlResult r =
        run_sql_path(opt.harness, file, info, opt.sql_configs, opt.rounds, oracle.front());
    for (const std::string& f : r.failures)
      std::fprintf(stderr, "bench_compare: %s: %s\n", info.name.c_str(), f.c_str());
    for (const std::string& m : r.mismatches)
      std::printf("MISMATCH %s: SQL path, %s\n", info.name.c_str(), m.c_str());
    ok &= r.failures.empty() && r.mismatches.empty();
    res->sql.push_back(std::move(r));
  }
  if (!opt.systems.empty()) {
    LibraryResult r;
    r.info = info;
    r.oracle = oracle.front();
    // Every system once per round, the rounds interleaved like the SQL
    // path's; each figure is then the median of its rounds.
    std::map<std::string, std::vector<std::vector<Row>>> runs;
    for (int round = 1; round <= opt.rounds; ++round) {
      for (const std::string& job : opt.systems) {
        if (job == kOracle && round > 1) continue;
        std::fprintf(stderr, "bench_compare: %s: %s, round %d of %d ...\n", info.name.c_str(),
                     job.c_str(), round, opt.rounds);
        runs[job].push_back(job == kOracle ? oracle : run_child(opt.harness, job, file));
      }
    }
    for (const std::string& job : opt.systems) {
      for (const Row& row : median_rows(runs[job])) {
        if (row.status.rfind("failed", 0) == 0) {
          ok = false;
          std::fprintf(stderr, "bench_compare: %s: %s %s\n", info.name.c_str(), job.c_str(),
                       row.status.c_str());
        }
        r.rows.push_back(row);
      }
    }
    r.finish();
    for (const std::string& m : r.mismatches)
      std::printf("MISMATCH %s: %s\n", info.name.c_str(), m.c_str());
    ok &= r.mismatches.empty();
    res->library.push_back(std::move(r));
  }
  return ok;
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using namespace zqbench;
  Options opt;
  std::string systems = kDefaultSystems, sql_configs;
  std::vector<std::string> workloads;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a.rfind("--", 0) != 0) {
      workloads.push_back(a);
      continue;
    }
    if (i + 1 >= argc) return usage();
    const std::string v = argv[++i];
    if (a == "--bin")
      opt.harness.bin = v;
    else if (a == "--dir")
      opt.harness.dir = v;
    else if (a == "--md")
      opt.md = v;
    else if (a == "--svg")
      opt.svg = v;
    else if (a == "--sql-svg")
      opt.sql_svg = v;
    else if (a == "--systems")
      systems = v == "none" ? "" : v;
    else if (a == "--sql-configs")
      sql_configs = v;
    else if (a == "--rounds" && std::atoi(v.c_str()) > 0)
      opt.rounds = std::atoi(v.c_str());
    else if (a == "--timeout")
      opt.harness.timeout = std::atof(v.c_str());
    else if (a == "--clock" && (v == "wall" || v == "cpu"))
      opt.harness.clock = v;
    else if (a == "--pass" && v.find('=') != std::string::npos)
      opt.harness.pass.emplace_back(v.substr(0, v.find('=')), v.substr(v.find('=') + 1));
    else
      return usage();
  }
  opt.systems = split(systems, ',');
  opt.sql_configs = split(sql_configs, ',');
  if (workloads.empty() || (opt.systems.empty() && opt.sql_configs.empty())) return usage();
  for (const std::string& s : opt.systems)
    if (s.find(':') == std::string::npos) return usage();

  bool ok = true;
  Results res;
  for (const std::string& file : workloads) {
    Workload w;
    const std::string err = read_workload(file, &w);
    if (!err.empty()) {
      std::fprintf(stderr, "bench_compare: %s\n", err.c_str());
      return 1;
    }
    const WorkloadInfo info = WorkloadInfo::of(w);
    w = Workload();  // the runners hold their own copies; ours only costs memory
    ok &= run_workload(opt, file, info, &res);
    report(opt, res);
  }
  const std::string text = report(opt, res);
  std::fputs(text.c_str(), stdout);
  return ok ? 0 : 1;
}
