// The library-path section of bench_compare's report (see library.h).
#include "bench/compare/library.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <sstream>

namespace zqbench {
namespace {

bool is_ours(const std::string& job) {
  return job.rfind("zq:", 0) == 0;
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

const Row* find_row(const LibraryResult& r, const std::string& job) {
  for (const Row& row : r.rows)
    if (row.job == job && row.ran()) return &row;
  return nullptr;
}

void write_tables(std::ostream& md, const LibraryResult& r) {
  md << "\n### " << r.info.name << "\n\n";
  md << r.info.n << " entries, " << r.info.dims << "-D; window queries:";
  for (size_t s = 0; s < r.info.sels.size(); ++s)
    md << (s ? "," : "") << " " << r.info.n_queries[s] << " × " << sel_name(r.info.sels[s]);
  md << "; " << r.info.n_deletes << " deletes.";
  if (r.oracle.ran()) {
    const Row& o = r.oracle;
    md << " Hits (every system must return the same rowids):";
    for (size_t s = 0; s < r.info.sels.size(); ++s) {
      auto h = o.hits("hits." + std::to_string(s));
      md << " " << sel_name(r.info.sels[s]) << " " << (h ? std::to_string(h->count) : "?") << ";";
    }
    auto h = o.hits("hits_del");
    md << " " << sel_name(r.info.sels[r.info.verify_set]) << " after the deletes "
       << (h ? std::to_string(h->count) : "?") << ".";
  }
  md << "\n\n| system | bulk build s | insert build s | inserts/s |";
  for (double sel : r.info.sels) md << " q/s " << sel_name(sel) << " |";
  md << " deletes/s | nodes read/q |";
  md << " peak RSS MB | RSS over data MB | size MB | hits |\n|---|";
  for (size_t i = 0; i < 7 + r.info.sels.size() + 2; ++i) md << "---:|";
  md << "\n";
  for (size_t i = 0; i < r.rows.size(); ++i) {
    const Row& row = r.rows[i];
    md << "| " << row.label << (i == r.base ? " **(base)**" : "");
    if (!row.ran()) {
      md << " | " << row.status << " |";
      for (size_t k = 0; k < 7 + r.info.sels.size() + 1; ++k) md << " |";
      md << "\n";
      continue;
    }
    md << " | " << secs(row.num("build_bulk_s")) << " | " << secs(row.num("build_incr_s")) << " | "
       << rate(row.num("insert_per_s")) << " |";
    for (size_t s = 0; s < r.info.sels.size(); ++s)
      md << " " << rate(row.num("q_per_s." + std::to_string(s))) << " |";
    md << " " << rate(row.num("delete_per_s")) << " |";
    std::string nodes;
    for (size_t s = 0; s < r.info.sels.size(); ++s) {
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
  for (double sel : r.info.sels) md << " q " << sel_name(sel) << " |";
  md << " deletes | RSS over data | size |\n|---|";
  for (size_t i = 0; i < 6 + r.info.sels.size(); ++i) md << "---:|";
  md << "\n";
  for (const Row& row : r.rows) {
    if (!row.ran()) continue;
    md << "| " << row.label << " | " << ratio(build_speedup(row, base, "build_bulk_s")) << " | "
       << ratio(build_speedup(row, base, "build_incr_s")) << " | "
       << ratio(speedup(row, base, "insert_per_s", false)) << " |";
    for (size_t s = 0; s < r.info.sels.size(); ++s)
      md << " " << ratio(speedup(row, base, "q_per_s." + std::to_string(s), false)) << " |";
    md << " " << ratio(speedup(row, base, "delete_per_s", false)) << " |";
    const double rb = row.peak_rss_kb - row.num("base_rss_kb").value_or(0);
    const double bb = base.peak_rss_kb - base.num("base_rss_kb").value_or(0);
    md << " " << (bb > 0 && rb > 0 ? ratio(rb / bb) : "—") << " |";
    auto sz = row.num("size_bytes"), bsz = base.num("size_bytes");
    md << " " << (sz && bsz && *bsz > 0 ? ratio(*sz / *bsz) : "—") << " |\n";
  }
}

// Ours bulk-built with a node buffer that holds a 1M-entry tree (92 MB).
constexpr const char* kWarmNearest = "zq:bulk-file+cache-mb=128";

// The peer a nearest-neighbour ratio is against: libspatialindex bulk-built
// in memory, like ours bulk-built; else whichever of its variants ran.
const Row* sidx_row(const LibraryResult& r) {
  if (const Row* row = find_row(r, "sidx:mem-str#0")) return row;
  for (const Row& row : r.rows)
    if (row.job.rfind("sidx:", 0) == 0 && row.ran()) return &row;
  return nullptr;
}

std::string k_name(uint32_t k) {
  return "k = " + std::to_string(k);
}

// Queries per second of every system that answered the nearest-neighbour
// sets, and each one's ratios against Boost's R* tree and libspatialindex.
void write_nearest(std::ostream& md, const LibraryResult& r) {
  const size_t n = r.info.nn_k.size();
  if (n == 0) return;
  const Row* rstar = find_row(r, "boost:rstar#0");
  const Row* sidx = sidx_row(r);
  md << "\nNearest neighbours: the k entries nearest to a point (the centre of a random entry),";
  for (size_t s = 0; s < n; ++s)
    md << (s ? "," : "") << " " << r.info.nn_queries[s] << " × " << k_name(r.info.nn_k[s]);
  md << "; queries/s, answers held against the oracle's by (distance, rowid) as far as each "
        "system promises (bench/README.md). Ratios are against "
     << (rstar ? rstar->label : "—") << " and " << (sidx ? sidx->label : "—") << ", "
     << "each k in turn.\n\n| system |";
  for (size_t s = 0; s < n; ++s) md << " q/s " << k_name(r.info.nn_k[s]) << " |";
  md << " vs Boost R* | vs libspatialindex | answers |\n|---|";
  for (size_t s = 0; s < n + 3; ++s) md << (s == n + 2 ? "---|" : "---:|");
  md << "\n";
  auto ratios = [&](const Row& row, const Row* base) {
    if (base == nullptr) return std::string("—");
    std::string out;
    for (size_t s = 0; s < n; ++s) {
      const std::string key = "nn_per_s." + std::to_string(s);
      out += (s ? " / " : "") + ratio(speedup(row, *base, key, false));
    }
    return out;
  };
  for (const Row& row : r.rows) {
    // The oracle's nearest neighbours come from a sweep, not an index.
    if (!row.ran() || !row.num("nn_per_s.0") || row.job.rfind("brute:", 0) == 0) continue;
    md << "| " << row.label << " |";
    for (size_t s = 0; s < n; ++s)
      md << " " << rate(row.num("nn_per_s." + std::to_string(s))) << " |";
    bool bad = false;
    for (const std::string& m : r.mismatches) bad |= m.rfind(row.label + " nhits", 0) == 0;
    md << " " << ratios(row, rstar) << " | " << ratios(row, sidx) << " |"
       << (bad ? " **MISMATCH** |" : " ok |") << "\n";
  }
}

// The goals we hold ourselves to, each checked on the figures of this run.
void write_targets(std::ostream& md, const LibraryResult& r) {
  const Row* sq = find_row(r, "sqlite:file#0");
  const Row* pack = find_row(r, "boost:pack#0");
  const Row* rstar = find_row(r, "boost:rstar#0");
  const std::string q = "q_per_s." + std::to_string(r.info.set_near(1e-4));
  struct Goal {
    std::string what;
    std::optional<double> value;
    double want;
    bool at_least;
  };
  std::vector<Goal> goals;
  // Nearest neighbours on a bulk-built tree through one warm handle: one
  // whose node buffer holds the tree, when the run has it, as Boost's and
  // libspatialindex's trees are wholly in memory.
  const Row* ours = find_row(r, std::string(kWarmNearest) + "#0");
  if (ours == nullptr) ours = find_row(r, "zq:bulk-file#0");
  const Row* sidx = sidx_row(r);
  for (size_t s = 0; ours != nullptr && s < r.info.nn_k.size(); ++s) {
    const std::string key = "nn_per_s." + std::to_string(s);
    const std::string what = "nearest, " + k_name(r.info.nn_k[s]) + ", bulk-built, warm handle vs ";
    if (rstar) goals.push_back({what + "Boost rstar", speedup(*ours, *rstar, key, false), 1, true});
    if (sidx)
      goals.push_back({what + "libspatialindex", speedup(*ours, *sidx, key, false), 5, true});
  }
  auto inv = [](std::optional<double> v) -> std::optional<double> {
    if (!v || *v <= 0) return std::nullopt;
    return 1.0 / *v;
  };
  for (const char* tree : {"bulk", "incr"}) {
    if (sq == nullptr) break;
    const Row* batch = find_row(r, std::string("zq:") + tree + "-file#0");
    const Row* cold = find_row(r, std::string("zq:") + tree + "-file#1");
    if (batch == nullptr) continue;
    const std::string t = std::string(tree == std::string("bulk") ? "bulk-built" : "insert-built");
    if (tree == std::string("bulk")) {
      goals.push_back({"bulk build vs SQLite R*Tree insert build",
                       build_speedup(*batch, *sq, "build_bulk_s"), 20, true});
      if (pack)
        goals.push_back({"bulk build time / Boost packing time",
                         inv(speedup(*batch, *pack, "build_bulk_s", true)), 1.5, false});
    } else {
      goals.push_back(
          {"inserts vs SQLite R*Tree", speedup(*batch, *sq, "insert_per_s", false), 3, true});
    }
    goals.push_back({"0.01% queries, handle per batch, " + t + " vs SQLite R*Tree",
                     speedup(*batch, *sq, q, false), 5, true});
    if (rstar)
      goals.push_back({"Boost rstar / ours, 0.01% queries, handle per batch, " + t,
                       inv(speedup(*batch, *rstar, q, false)), 2, false});
    if (cold)
      goals.push_back({"0.01% queries, handle per query, " + t + " vs SQLite R*Tree",
                       speedup(*cold, *sq, q, false), 1, true});
    goals.push_back({"deletes, " + t + " vs SQLite R*Tree",
                     speedup(*batch, *sq, "delete_per_s", false), 2, true});
  }
  if (goals.empty()) return;
  md << "\nTargets (" << r.info.name
     << "):\n\n| goal | wanted | this run | |\n|---|---:|---:|---|\n";
  for (const Goal& g : goals) {
    const bool met = g.value && (g.at_least ? *g.value >= g.want : *g.value <= g.want);
    md << "| " << g.what << " | " << (g.at_least ? "≥ " : "≤ ") << fmt("%g", g.want) << "× | "
       << ratio(g.value) << " | " << (g.value ? (met ? "met" : "**missed**") : "n/a") << " |\n";
  }
}

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
                           {"deletes/s", "delete_per_s", false},
                           {"nearest neighbours/s, middle k", "nn_per_s.1", false}};

std::optional<double> chart_value(const Row& row, const Row& base, const Metric& m) {
  if (std::string(m.key) == "build") {
    auto b = build_speedup(row, base, "build_bulk_s");
    return b ? b : build_speedup(row, base, "build_incr_s");
  }
  return speedup(row, base, m.key, m.is_time);
}

// Small multiples: one panel per metric, one line per system, one bar per
// workload; the scale is logarithmic and 1× (the base) is the dashed line.
std::string chart(const std::vector<LibraryResult>& results) {
  const char* colours[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#b07aa1"};
  std::vector<std::string> labels;
  for (const LibraryResult& r : results)
    for (const Row& row : r.rows)
      if (row.ran() && std::find(labels.begin(), labels.end(), row.label) == labels.end())
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
    if (key.rfind("nn_per_s.", 0) == 0 && !results.empty()) {
      const size_t set = std::stoul(key.substr(9));
      if (set < results[0].info.nn_k.size())
        return "nearest neighbours/s, " + k_name(results[0].info.nn_k[set]);
    }
    if (key.rfind("q_per_s.", 0) != 0 || results.empty()) return std::string(m.title);
    const size_t set = std::stoul(key.substr(8));
    if (set >= results[0].info.sels.size()) return std::string(m.title);
    return "queries/s, " + sel_name(results[0].info.sels[set]) + " windows";
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
      << "\"/><text x=\"28\" y=\"" << y + 9 << "\">" << xml(results[w].info.name)
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
        const LibraryResult& r = results[w];
        if (r.base == SIZE_MAX) continue;
        for (const Row& row : r.rows) {
          if (row.label != labels[l] || !row.ran()) continue;
          auto v = chart_value(row, r.rows[r.base], m);
          if (!v || *v <= 0) continue;
          const double x0 = x_of(1.0), x1 = x_of(*v);
          s << "<rect x=\"" << std::min(x0, x1) << "\" y=\"" << ly + static_cast<int>(w) * bar
            << "\" width=\"" << std::max(std::fabs(x1 - x0), 1.0) << "\" height=\"" << bar - 1
            << "\" fill=\"" << colours[w % 6] << "\"><title>" << xml(row.label) << ", "
            << xml(r.info.name) << ": " << ratio(v) << "</title></rect>\n";
        }
      }
    }
    s << "</g>\n";
  }
  s << "</svg>\n";
  return s.str();
}

}  // namespace

void LibraryResult::finish() {
  for (size_t i = 0; i < rows.size() && base == SIZE_MAX; ++i)
    if (rows[i].ran() && !is_ours(rows[i].job)) base = i;
  for (const Row& row : rows)
    if (row.ran()) {
      auto m = hit_mismatches(oracle, row);
      mismatches.insert(mismatches.end(), m.begin(), m.end());
    }
}

void write_library(std::ostream& md, const LibraryResult& r) {
  write_tables(md, r);
  write_nearest(md, r);
  write_targets(md, r);
}

std::string library_chart(const std::vector<LibraryResult>& results) {
  return chart(results);
}

}  // namespace zqbench
