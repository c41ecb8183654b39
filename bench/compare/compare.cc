// bench_compare: runs every system's runner as its own process on the same
// workload files, checks that all of them return the same hits as the
// brute-force oracle, and writes one table per workload with the figures and
// their ratios against the first peer, plus an SVG chart of those ratios.
//
//   bench_compare --bin DIR [--dir SCRATCH] [--md FILE] [--svg FILE]
//                 [--systems runner:variant,...] [--timeout SECONDS]
//                 [--clock wall|cpu] [--pass key=value ...] WORKLOAD...
//
// The first system in the list that is not ours is the base of every ratio
// (SQLite's R*Tree on a file by default). A runner that is not built (its
// package is missing) is listed as skipped; a runner that fails, or any
// disagreement on hits, makes the exit status 1 after everything ran.
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bench/common/runner.h"
#include "bench/common/workload.h"

namespace zqbench {
namespace {

const char* const kDefaultSystems =
    "sqlite:file,sqlite:memory,zq:bulk-file,zq:incr-file,zq:incr-memory,sidx:mem-str,"
    "sidx:mem-rstar,sidx:disk-str,sidx:disk-rstar,boost:rstar,boost:pack,brute:scan";

struct Row {
  std::string job;  // runner:variant#n, n counting the runner's rows
  std::string label;
  std::map<std::string, std::vector<std::string>> kv;
  long peak_rss_kb = 0;
  std::string status;  // "" when it ran; else skipped/failed and why

  std::optional<double> num(const std::string& key) const {
    auto it = kv.find(key);
    if (it == kv.end() || it->second.empty()) return std::nullopt;
    return std::strtod(it->second[0].c_str(), nullptr);
  }
  std::optional<Hits> hits(const std::string& key) const {
    auto it = kv.find(key);
    if (it == kv.end() || it->second.size() < 2) return std::nullopt;
    Hits h;
    h.count = std::strtoull(it->second[0].c_str(), nullptr, 10);
    h.digest = std::strtoull(it->second[1].c_str(), nullptr, 16);
    return h;
  }
};

struct Result {
  std::string name;
  int dims = 0;
  uint64_t n = 0, n_deletes = 0;
  std::vector<double> sels;
  std::vector<size_t> n_queries;
  uint32_t verify_set = 0;
  std::vector<Row> rows;
  size_t base = SIZE_MAX;    // index of the base row
  size_t oracle = SIZE_MAX;  // index of the row every other must agree with
  std::vector<std::string> mismatches;
};

struct Config {
  std::string bin = ".";
  std::string dir = "/tmp";
  std::string md, svg;
  std::vector<std::string> systems;
  std::vector<std::pair<std::string, std::string>> pass;  // --key value for every runner
  double timeout = 0;
  std::string clock = "wall";
};

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(s);
  while (std::getline(in, cur, sep))
    if (!cur.empty()) out.push_back(cur);
  return out;
}

bool is_ours(const std::string& job) {
  return job.rfind("zq:", 0) == 0;
}

// Runs one runner; its rows come back with the child's peak RSS from wait4.
std::vector<Row> run_one(const Config& cfg, const std::string& job, const std::string& workload) {
  const auto colon = job.find(':');
  const std::string runner = job.substr(0, colon), variant = job.substr(colon + 1);
  const std::string exe = cfg.bin + "/bench_run_" + runner;
  Row failed;
  failed.job = job + "#0";
  failed.label = job;
  if (access(exe.c_str(), X_OK) != 0) {
    failed.status = "skipped: " + exe + " not built (its package is not installed)";
    return {failed};
  }
  std::vector<std::string> args = {exe,     "--workload", workload,  "--variant", variant,
                                   "--dir", cfg.dir,      "--clock", cfg.clock};
  for (const auto& [k, v] : cfg.pass) {
    args.push_back("--" + k);
    args.push_back(v);
  }
  int fds[2];
  if (pipe(fds) != 0) {
    failed.status = "failed: pipe";
    return {failed};
  }
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  Stopwatch clock;
  bool timed_out = false;
  for (;;) {
    struct pollfd p = {fds[0], POLLIN, 0};
    const int wait_ms = cfg.timeout > 0 ? 1000 : -1;
    if (poll(&p, 1, wait_ms) > 0) {
      const ssize_t got = read(fds[0], buf, sizeof buf);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    if (cfg.timeout > 0 && clock.seconds() > cfg.timeout) {
      kill(pid, SIGKILL);
      timed_out = true;
      break;
    }
  }
  close(fds[0]);
  int wstatus = 0;
  struct rusage ru {};
  wait4(pid, &wstatus, 0, &ru);
  std::fprintf(
      stderr, "bench_compare:   %.1f s wall, %.1f s CPU, peak RSS %ld MB\n", clock.seconds(),
      ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6,
      ru.ru_maxrss / 1024);

  std::vector<Row> rows;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "row") {
      Row r;
      r.job = job + "#" + std::to_string(rows.size());
      std::getline(words >> std::ws, r.label);
      rows.push_back(r);
    } else if (!rows.empty() && !key.empty()) {
      std::vector<std::string> vals;
      if (key == "note" || key == "version") {
        std::string rest;
        std::getline(words >> std::ws, rest);
        vals.push_back(rest);
      } else {
        for (std::string v; words >> v;) vals.push_back(v);
      }
      rows.back().kv[key] = vals;
    }
  }
  if (rows.empty()) rows.push_back(failed);
  for (Row& r : rows) r.peak_rss_kb = ru.ru_maxrss;
  if (timed_out) {
    rows.front().status = "failed: stopped after " + std::to_string(cfg.timeout) + " s";
  } else if (!WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0) {
    rows.front().status = WIFEXITED(wstatus)
                              ? "failed: exit status " + std::to_string(WEXITSTATUS(wstatus))
                              : "failed: signal " + std::to_string(WTERMSIG(wstatus));
  }
  return rows;
}

// --- formatting ---

std::string fmt(const char* f, double v) {
  char b[64];
  std::snprintf(b, sizeof b, f, v);
  return b;
}

std::string rate(std::optional<double> v) {
  if (!v) return "—";
  const double x = *v;
  if (x >= 1e6) return fmt("%.2fM", x / 1e6);
  if (x >= 1e3) return fmt("%.1fk", x / 1e3);
  return fmt("%.0f", x);
}

std::string secs(std::optional<double> v) {
  if (!v) return "—";
  return *v >= 10 ? fmt("%.1f", *v) : *v >= 0.1 ? fmt("%.2f", *v) : fmt("%.3f", *v);
}

std::string mb(std::optional<double> bytes) {
  if (!bytes) return "—";
  return fmt("%.1f", *bytes / (1024.0 * 1024.0));
}

std::string ratio(std::optional<double> r) {
  if (!r || !std::isfinite(*r) || *r <= 0) return "—";
  return *r >= 100 ? fmt("%.0f×", *r) : *r >= 10 ? fmt("%.1f×", *r) : fmt("%.2f×", *r);
}

std::string sel_name(double sel) {
  const double pct = sel * 100;
  return pct >= 0.1 ? fmt("%g%%", pct) : fmt("%.3g%%", pct);
}

// Speed ratio of row against base: times and rates both read as "× faster".
std::optional<double> speedup(const Row& row, const Row& base, const std::string& key, bool is_time,
                              const std::string& base_key = "") {
  auto a = row.num(key), b = base.num(base_key.empty() ? key : base_key);
  if (!a || !b || *a <= 0 || *b <= 0) return std::nullopt;
  return is_time ? *b / *a : *a / *b;
}

// The base's build time: SQLite has only the incremental build.
std::optional<double> build_speedup(const Row& row, const Row& base, const std::string& key) {
  const std::string base_key = base.num(key) ? key : "build_incr_s";
  return speedup(row, base, key, true, base_key);
}

size_t set_near(const Result& r, double sel) {
  size_t best = 0;
  for (size_t i = 0; i < r.sels.size(); ++i)
    if (std::fabs(std::log(r.sels[i] / sel)) < std::fabs(std::log(r.sels[best] / sel))) best = i;
  return best;
}

void check_hits(Result& r) {
  for (size_t i = 0; i < r.rows.size(); ++i)
    if (r.rows[i].status.empty() && r.rows[i].job.rfind("brute:", 0) == 0) r.oracle = i;
  if (r.oracle == SIZE_MAX) r.oracle = r.base;
  if (r.oracle == SIZE_MAX) return;
  const Row& ref = r.rows[r.oracle];
  std::vector<std::string> keys;
  for (size_t s = 0; s < r.sels.size(); ++s) keys.push_back("hits." + std::to_string(s));
  keys.push_back("hits_del");
  for (const Row& row : r.rows) {
    if (!row.status.empty()) continue;
    for (const std::string& k : keys) {
      auto want = ref.hits(k), got = row.hits(k);
      if (!got) continue;  // a row that does not answer this set (none today)
      if (!want || !(*got == *want))
        r.mismatches.push_back(row.label + " " + k + ": " + std::to_string(got->count) +
                               " hits, oracle " + (want ? std::to_string(want->count) : "none") +
                               (want && got->count == want->count ? " (different rowids)" : ""));
    }
  }
}

std::string machine() {
  std::string cpu = "unknown CPU";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);)
    if (line.rfind("model name", 0) == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  long mem_kb = 0;
  std::ifstream meminfo("/proc/meminfo");
  for (std::string line; std::getline(meminfo, line);)
    if (line.rfind("MemTotal:", 0) == 0) mem_kb = std::atol(line.c_str() + 9);
  struct utsname u {};
  uname(&u);
  return cpu + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores, " +
         fmt("%.0f", mem_kb / 1048576.0) + " GiB RAM, " + u.sysname + " " + u.release;
}

// --- report ---

void write_tables(std::ostream& md, const Result& r) {
  md << "\n## " << r.name << "\n\n";
  md << r.n << " entries, " << r.dims << "-D; window queries:";
  for (size_t s = 0; s < r.sels.size(); ++s)
    md << (s ? "," : "") << " " << r.n_queries[s] << " × " << sel_name(r.sels[s]);
  md << "; " << r.n_deletes << " deletes.";
  if (r.oracle != SIZE_MAX) {
    const Row& o = r.rows[r.oracle];
    md << " Hits (every system must return the same rowids):";
    for (size_t s = 0; s < r.sels.size(); ++s) {
      auto h = o.hits("hits." + std::to_string(s));
      md << " " << sel_name(r.sels[s]) << " " << (h ? std::to_string(h->count) : "?") << ";";
    }
    auto h = o.hits("hits_del");
    md << " " << sel_name(r.sels[r.verify_set]) << " after the deletes "
       << (h ? std::to_string(h->count) : "?") << ".";
  }
  md << "\n\n| system | bulk build s | insert build s | inserts/s |";
  for (double sel : r.sels) md << " q/s " << sel_name(sel) << " |";
  md << " deletes/s | nodes read/q |";
  md << " peak RSS MB | RSS over data MB | size MB | hits |\n|---|";
  for (size_t i = 0; i < 7 + r.sels.size() + 2; ++i) md << "---:|";
  md << "\n";
  for (size_t i = 0; i < r.rows.size(); ++i) {
    const Row& row = r.rows[i];
    md << "| " << row.label << (i == r.base ? " **(base)**" : "");
    if (!row.status.empty()) {
      md << " | " << row.status << " |";
      for (size_t k = 0; k < 7 + r.sels.size() + 1; ++k) md << " |";
      md << "\n";
      continue;
    }
    md << " | " << secs(row.num("build_bulk_s")) << " | " << secs(row.num("build_incr_s")) << " | "
       << rate(row.num("insert_per_s")) << " |";
    for (size_t s = 0; s < r.sels.size(); ++s)
      md << " " << rate(row.num("q_per_s." + std::to_string(s))) << " |";
    md << " " << rate(row.num("delete_per_s")) << " |";
    std::string nodes;
    for (size_t s = 0; s < r.sels.size(); ++s) {
      auto v = row.num("nodes_per_q." + std::to_string(s));
      nodes += (s ? " / " : "") + (v ? fmt("%.1f", *v) : std::string("—"));
    }
    md << " " << (row.num("nodes_per_q.0") ? nodes : "—") << " |";
    const double base_kb = row.num("base_rss_kb").value_or(0);
    md << " " << fmt("%.0f", row.peak_rss_kb / 1024.0) << " | "
       << fmt("%.0f", (row.peak_rss_kb - base_kb) / 1024.0) << " | " << mb(row.num("size_bytes"))
       << " |";
    bool bad = false;
    for (const std::string& m : r.mismatches) bad |= m.rfind(row.label + " ", 0) == 0;
    md << (bad ? " **MISMATCH** |" : " ok |") << "\n";
  }

  if (r.base == SIZE_MAX) return;
  const Row& base = r.rows[r.base];
  md << "\nRatios against " << base.label
     << " in the same run (× faster; for RSS and size, × of the base's):\n\n"
     << "| system | bulk build | insert build | inserts |";
  for (double sel : r.sels) md << " q " << sel_name(sel) << " |";
  md << " deletes | RSS over data | size |\n|---|";
  for (size_t i = 0; i < 6 + r.sels.size(); ++i) md << "---:|";
  md << "\n";
  for (const Row& row : r.rows) {
    if (!row.status.empty()) continue;
    md << "| " << row.label << " | " << ratio(build_speedup(row, base, "build_bulk_s")) << " | "
       << ratio(build_speedup(row, base, "build_incr_s")) << " | "
       << ratio(speedup(row, base, "insert_per_s", false)) << " |";
    for (size_t s = 0; s < r.sels.size(); ++s)
      md << " " << ratio(speedup(row, base, "q_per_s." + std::to_string(s), false)) << " |";
    md << " " << ratio(speedup(row, base, "delete_per_s", false)) << " |";
    const double rb = row.peak_rss_kb - row.num("base_rss_kb").value_or(0);
    const double bb = base.peak_rss_kb - base.num("base_rss_kb").value_or(0);
    md << " " << (bb > 0 && rb > 0 ? ratio(rb / bb) : "—") << " |";
    auto sz = row.num("size_bytes"), bsz = base.num("size_bytes");
    md << " " << (sz && bsz && *bsz > 0 ? ratio(*sz / *bsz) : "—") << " |\n";
  }
}

const Row* find_row(const Result& r, const std::string& job) {
  for (const Row& row : r.rows)
    if (row.job == job && row.status.empty()) return &row;
  return nullptr;
}

// The goals we hold ourselves to, each checked on the figures of this run.
void write_targets(std::ostream& md, const Result& r) {
  const Row* sq = find_row(r, "sqlite:file#0");
  const Row* pack = find_row(r, "boost:pack#0");
  const Row* rstar = find_row(r, "boost:rstar#0");
  if (sq == nullptr) return;
  const std::string q = "q_per_s." + std::to_string(set_near(r, 1e-4));
  struct Goal {
    std::string what;
    std::optional<double> value;
    double want;
    bool at_least;
  };
  std::vector<Goal> goals;
  auto inv = [](std::optional<double> v) -> std::optional<double> {
    if (!v || *v <= 0) return std::nullopt;
    return 1.0 / *v;
  };
  for (const char* tree : {"bulk", "incr"}) {
    const Row* warm = find_row(r, std::string("zq:") + tree + "-file#0");
    const Row* cold = find_row(r, std::string("zq:") + tree + "-file#1");
    if (warm == nullptr) continue;
    const std::string t = std::string(tree == std::string("bulk") ? "bulk-built" : "insert-built");
    if (tree == std::string("bulk")) {
      goals.push_back({"bulk build vs SQLite R*Tree insert build",
                       build_speedup(*warm, *sq, "build_bulk_s"), 20, true});
      if (pack)
        goals.push_back({"bulk build time / Boost packing time",
                         inv(speedup(*warm, *pack, "build_bulk_s", true)), 1.5, false});
    } else {
      goals.push_back(
          {"inserts vs SQLite R*Tree", speedup(*warm, *sq, "insert_per_s", false), 3, true});
    }
    goals.push_back({"0.01% queries, warm handle, " + t + " vs SQLite R*Tree",
                     speedup(*warm, *sq, q, false), 5, true});
    if (rstar)
      goals.push_back({"Boost rstar / ours, 0.01% queries, warm handle, " + t,
                       inv(speedup(*warm, *rstar, q, false)), 2, false});
    if (cold)
      goals.push_back({"0.01% queries, handle per query, " + t + " vs SQLite R*Tree",
                       speedup(*cold, *sq, q, false), 1, true});
    goals.push_back({"deletes, " + t + " vs SQLite R*Tree",
                     speedup(*warm, *sq, "delete_per_s", false), 2, true});
  }
  if (goals.empty()) return;
  md << "\nTargets (" << r.name << "):\n\n| goal | wanted | this run | |\n|---|---:|---:|---|\n";
  for (const Goal& g : goals) {
    const bool met = g.value && (g.at_least ? *g.value >= g.want : *g.value <= g.want);
    md << "| " << g.what << " | " << (g.at_least ? "≥ " : "≤ ") << fmt("%g", g.want) << "× | "
       << ratio(g.value) << " | " << (g.value ? (met ? "met" : "**missed**") : "n/a") << " |\n";
  }
}

// --- chart ---

struct Metric {
  const char* title;
  const char* key;
  bool is_time;
};

const Metric kMetrics[] = {{"build (bulk, else by inserts)", "build", true},
                           {"inserts/s", "insert_per_s", false},
                           {"queries/s, smallest windows", "q_per_s.0", false},
                           {"queries/s, middle windows", "q_per_s.1", false},
                           {"queries/s, largest windows", "q_per_s.2", false},
                           {"deletes/s", "delete_per_s", false}};

std::string xml(const std::string& s) {
  std::string o;
  for (char c : s) {
    if (c == '&')
      o += "&amp;";
    else if (c == '<')
      o += "&lt;";
    else if (c == '>')
      o += "&gt;";
    else
      o += c;
  }
  return o;
}

std::optional<double> chart_value(const Row& row, const Row& base, const Metric& m) {
  if (std::string(m.key) == "build") {
    auto b = build_speedup(row, base, "build_bulk_s");
    return b ? b : build_speedup(row, base, "build_incr_s");
  }
  return speedup(row, base, m.key, m.is_time);
}

// Small multiples: one panel per metric, one line per system, one bar per
// workload; the scale is logarithmic and 1× (the base) is the dashed line.
std::string chart(const std::vector<Result>& results) {
  const char* colours[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#b07aa1"};
  std::vector<std::string> labels;
  for (const Result& r : results)
    for (const Row& row : r.rows)
      if (row.status.empty() && std::find(labels.begin(), labels.end(), row.label) == labels.end())
        labels.push_back(row.label);
  const int bar = 5, gap = 6, label_w = 260, plot_w = 300, panel_w = label_w + plot_w + 30;
  const int line_h = static_cast<int>(results.size()) * bar + gap;
  const int panel_h = 40 + static_cast<int>(labels.size()) * line_h + 24;
  const int cols = 2, n_panels = sizeof kMetrics / sizeof kMetrics[0];
  const int rows = (n_panels + cols - 1) / cols;
  const int legend_h = 20 + 16 * static_cast<int>(results.size());
  const int width = cols * panel_w + 20, height = 40 + legend_h + rows * panel_h;
  const double lo = -2, hi = 3;  // log10 of 0.01× .. 1000×
  // Query panels are named by the first workload's selectivities.
  auto title = [&](const Metric& m) {
    const std::string key = m.key;
    if (key.rfind("q_per_s.", 0) != 0 || results.empty()) return std::string(m.title);
    const size_t set = std::stoul(key.substr(8));
    if (set >= results[0].sels.size()) return std::string(m.title);
    return "queries/s, " + sel_name(results[0].sels[set]) + " windows";
  };
  auto x_of = [&](double v) {
    const double l = std::clamp(std::log10(v), lo, hi);
    return label_w + (l - lo) / (hi - lo) * plot_w;
  };

  std::ostringstream s;
  s << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
    << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
    << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
    << "<text x=\"10\" y=\"22\" font-size=\"15\">Speed against the base system of each "
       "workload (log scale, higher is faster)</text>\n";
  for (size_t w = 0; w < results.size(); ++w) {
    const int y = 40 + static_cast<int>(w) * 16;
    std::string base = results[w].base == SIZE_MAX ? "?" : results[w].rows[results[w].base].label;
    s << "<rect x=\"10\" y=\"" << y << "\" width=\"12\" height=\"10\" fill=\"" << colours[w % 6]
      << "\"/><text x=\"28\" y=\"" << y + 9 << "\">" << xml(results[w].name)
      << " (base: " << xml(base) << ")</text>\n";
  }
  for (int p = 0; p < n_panels; ++p) {
    const Metric& m = kMetrics[p];
    const int ox = 10 + (p % cols) * panel_w, oy = 40 + legend_h + (p / cols) * panel_h;
    s << "<g transform=\"translate(" << ox << "," << oy << ")\">\n"
      << "<text x=\"" << label_w << "\" y=\"14\" font-size=\"13\">" << xml(title(m)) << "</text>\n";
    const int top = 24, bottom = top + static_cast<int>(labels.size()) * line_h;
    for (int t = static_cast<int>(lo); t <= static_cast<int>(hi); ++t) {
      const double x = x_of(std::pow(10.0, t));
      s << "<line x1=\"" << x << "\" y1=\"" << top << "\" x2=\"" << x << "\" y2=\"" << bottom
        << "\" stroke=\"" << (t == 0 ? "#333" : "#ddd") << "\""
        << (t == 0 ? " stroke-dasharray=\"4,3\"" : "") << "/>\n"
        << "<text x=\"" << x << "\" y=\"" << bottom + 14 << "\" text-anchor=\"middle\">"
        << fmt("%g×", std::pow(10.0, t)) << "</text>\n";
    }
    for (size_t l = 0; l < labels.size(); ++l) {
      const int ly = top + static_cast<int>(l) * line_h;
      s << "<text x=\"" << label_w - 6 << "\" y=\"" << ly + line_h / 2 + 3
        << "\" text-anchor=\"end\""
        << (labels[l].rfind("zqrtree", 0) == 0 ? " font-weight=\"bold\"" : "") << ">"
        << xml(labels[l]) << "</text>\n";
      for (size_t w = 0; w < results.size(); ++w) {
        const Result& r = results[w];
        if (r.base == SIZE_MAX) continue;
        for (const Row& row : r.rows) {
          if (row.label != labels[l] || !row.status.empty()) continue;
          auto v = chart_value(row, r.rows[r.base], m);
          if (!v || *v <= 0) continue;
          const double x0 = x_of(1.0), x1 = x_of(*v);
          s << "<rect x=\"" << std::min(x0, x1) << "\" y=\"" << ly + static_cast<int>(w) * bar
            << "\" width=\"" << std::max(std::fabs(x1 - x0), 1.0) << "\" height=\"" << bar - 1
            << "\" fill=\"" << colours[w % 6] << "\"><title>" << xml(row.label) << ", "
            << xml(r.name) << ": " << ratio(v) << "</title></rect>\n";
        }
      }
    }
    s << "</g>\n";
  }
  s << "</svg>\n";
  return s.str();
}

// Writes the Markdown and the chart for the workloads done so far (called
// after each one, so a long run that is stopped keeps what it measured) and
// returns the Markdown.
std::string report(const Config& cfg, const std::vector<Result>& results) {
  std::ostringstream md;
  const std::time_t now = std::time(nullptr);
  char when[64];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  md << "# libzqrtree against peer spatial indexes\n\n"
     << "Run " << when << " on " << machine() << ".";
  std::vector<std::string> versions;
  for (const Result& r : results)
    for (const Row& row : r.rows)
      if (auto it = row.kv.find("version");
          it != row.kv.end() && !it->second.empty() &&
          std::find(versions.begin(), versions.end(), it->second[0]) == versions.end())
        versions.push_back(it->second[0]);
  for (size_t i = 0; i < versions.size(); ++i) md << (i ? ", " : " Versions: ") << versions[i];
  md << (versions.empty() ? "" : ".")
     << (cfg.clock == "cpu" ? " Times are each process's CPU time (the machine was shared)."
                            : " Times are wall-clock.")
     << "\n";
  for (const Result& r : results) {
    write_tables(md, r);
    write_targets(md, r);
  }
  md << "\nEach system runs as its own process on the same workload file and reads it before "
        "any clock starts. Peak RSS is the process's ru_maxrss and includes the workload it "
        "holds; \"RSS over data\" subtracts the RSS measured right after reading it. Size is "
        "the database or index files (page count × page size for SQLite databases, .idx + "
        ".dat for libspatialindex on disk) or, for Boost, the bytes its allocator holds. "
        "Nodes read per query is counted over the first 1000 queries of each set where a "
        "system can tell: node-table reads of a fresh handle per query for libzqrtree, the "
        "library's read statistics for libspatialindex. Coordinates are float32 values so "
        "that SQLite's R*Tree (which stores float32) indexes the same boxes as the others.\n";
  const std::string text = md.str();
  if (!cfg.md.empty()) std::ofstream(cfg.md) << text;
  if (!cfg.svg.empty()) std::ofstream(cfg.svg) << chart(results);
  return text;
}

int usage() {
  std::fprintf(stderr,
               "usage: bench_compare --bin DIR [--dir SCRATCH] [--md FILE] [--svg FILE]\n"
               "                     [--systems runner:variant,...] [--timeout SECONDS]\n"
               "                     [--clock wall|cpu] [--pass key=value ...] WORKLOAD...\n"
               "default systems: %s\n",
               kDefaultSystems);
  return 2;
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using namespace zqbench;
  Config cfg;
  std::string systems = kDefaultSystems;
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
      cfg.bin = v;
    else if (a == "--dir")
      cfg.dir = v;
    else if (a == "--md")
      cfg.md = v;
    else if (a == "--svg")
      cfg.svg = v;
    else if (a == "--systems")
      systems = v;
    else if (a == "--timeout")
      cfg.timeout = std::atof(v.c_str());
    else if (a == "--clock" && (v == "wall" || v == "cpu"))
      cfg.clock = v;
    else if (a == "--pass" && v.find('=') != std::string::npos)
      cfg.pass.emplace_back(v.substr(0, v.find('=')), v.substr(v.find('=') + 1));
    else
      return usage();
  }
  cfg.systems = split(systems, ',');
  if (workloads.empty() || cfg.systems.empty()) return usage();
  for (const std::string& s : cfg.systems)
    if (s.find(':') == std::string::npos) return usage();

  bool failed = false;
  std::vector<Result> results;
  for (const std::string& file : workloads) {
    Workload w;
    std::string err = read_workload(file, &w);
    if (!err.empty()) {
      std::fprintf(stderr, "bench_compare: %s\n", err.c_str());
      return 1;
    }
    Result r;
    r.name = w.name;
    r.dims = w.dims;
    r.n = w.entries.size();
    r.n_deletes = w.deletes.size();
    r.verify_set = w.verify_set;
    for (const QuerySet& s : w.sets) {
      r.sels.push_back(s.selectivity);
      r.n_queries.push_back(s.boxes.size());
    }
    w = Workload();  // the runners hold their own copies; ours only costs memory
    for (const std::string& job : cfg.systems) {
      std::fprintf(stderr, "bench_compare: %s: %s ...\n", r.name.c_str(), job.c_str());
      for (Row& row : run_one(cfg, job, file)) {
        if (row.status.rfind("failed", 0) == 0) {
          failed = true;
          std::fprintf(stderr, "bench_compare: %s: %s %s\n", r.name.c_str(), job.c_str(),
                       row.status.c_str());
        }
        r.rows.push_back(row);
      }
    }
    for (size_t i = 0; i < r.rows.size() && r.base == SIZE_MAX; ++i)
      if (r.rows[i].status.empty() && !is_ours(r.rows[i].job)) r.base = i;
    check_hits(r);
    for (const std::string& m : r.mismatches)
      std::printf("MISMATCH %s: %s\n", r.name.c_str(), m.c_str());
    failed |= !r.mismatches.empty();
    results.push_back(std::move(r));
    report(cfg, results);
  }

  const std::string text = report(cfg, results);
  std::fputs(text.c_str(), stdout);
  return failed ? 1 : 0;
}
