// The SQL-path section of bench_compare (see sql_path.h).
#include "bench/compare/sql_path.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>

namespace zqbench {
namespace {

// A round's measurements in the order they run: the window queries and the
// deletes open the files the two builds of the same round made, and the
// deletes come last because they change the bulk-built index.
std::vector<std::string> measures(size_t n_sets) {
  std::vector<std::string> out = {"inserts", "bulk"};
  for (const char* built : {"insert", "bulk"})
    for (size_t s = 0; s < n_sets; ++s)
      out.push_back(std::string("query-") + built + "." + std::to_string(s));
  out.push_back("deletes");
  return out;
}

// The hits a measurement must report: its window set's, or the verify set's
// after the deletes; "" for the builds.
std::string hits_key(const std::string& measure) {
  if (measure == "deletes") return "hits_del";
  const size_t dot = measure.rfind('.');
  return measure.rfind("query-", 0) == 0 ? "hits" + measure.substr(dot) : "";
}

enum class Kind {
  kRate,     // ops per second: higher is better
  kSeconds,  // the phase's seconds: lower is better
  kBytes,    // the sum of `keys`: lower is better
  kRss,      // peak RSS over the workload, the largest of a round's processes
};

struct Line {
  std::string label;
  std::string measure;  // whose rows; every measurement's for kRss
  Kind kind;
  std::vector<std::string> keys;  // kBytes
  double target = 0;  // ours best against SQLite best: at least (speed) or at most (size)
};

bool is_speed(Kind k) {
  return k == Kind::kRate || k == Kind::kSeconds;
}

bool near(double sel, double want) {
  return std::fabs(std::log(sel / want)) < std::log(2.0);
}

// The table's lines; the targets are those of issue 13 (wall time, ours in
// its best configuration against SQLite's R*Tree in its best).
std::vector<Line> lines(const WorkloadInfo& info) {
  std::vector<Line> out;
  out.push_back({"inserts, one transaction (rows/s)", "inserts", Kind::kRate, {}, 2});
  out.push_back({"bulk build (s)", "bulk", Kind::kSeconds, {}, 20});
  for (const char* built : {"bulk", "insert"}) {
    const bool bulk = std::string(built) == "bulk";
    for (size_t s = 0; s < info.sels.size(); ++s) {
      const bool aimed = near(info.sels[s], 1e-4) || near(info.sels[s], 1e-2);
      out.push_back({sel_name(info.sels[s]) + " windows, " + built + "-built (q/s)",
                     std::string("query-") + built + "." + std::to_string(s),
                     Kind::kRate,
                     {},
                     aimed ? (bulk ? 3.0 : 1.0) : 0.0});
    }
  }
  out.push_back({"deletes, one transaction (rows/s)", "deletes", Kind::kRate, {}, 2});
  out.push_back({"file MB, bulk-built", "bulk", Kind::kBytes, {"size_bytes"}, 1.5});
  out.push_back(
      {"file MB, bulk-built, with src", "bulk", Kind::kBytes, {"size_bytes", "src_bytes"}, 0});
  out.push_back({"file MB, insert-built", "inserts", Kind::kBytes, {"size_bytes"}, 0});
  out.push_back({"peak RSS MB", "", Kind::kRss, {}, 1.5});
  return out;
}

const Row* round_row(const SqlResult& r, const std::string& config, const std::string& measure,
                     size_t round) {
  auto it = r.runs.find({config, measure});
  if (it == r.runs.end() || round >= it->second.size() || !it->second[round].ran()) return nullptr;
  return &it->second[round];
}

std::optional<double> round_value(const SqlResult& r, const std::string& config, const Line& l,
                                  size_t round, bool cpu) {
  if (l.kind == Kind::kRss) {
    std::optional<double> most;
    for (const std::string& m : measures(r.info.sels.size()))
      if (const Row* row = round_row(r, config, m, round)) {
        const double over = (row->peak_rss_kb - row->num("base_rss_kb").value_or(0)) * 1024.0;
        most = std::max(most.value_or(0), over);
      }
    return most;
  }
  const Row* row = round_row(r, config, l.measure, round);
  if (row == nullptr) return std::nullopt;
  if (l.kind == Kind::kBytes) {
    double sum = 0;
    for (const std::string& k : l.keys) {
      auto v = row->num(k);
      if (!v) return std::nullopt;
      sum += *v;
    }
    return sum;
  }
  auto t = row->num(cpu ? "cpu_s" : "wall_s"), ops = row->num("ops");
  if (!t || !ops || *t <= 0) return std::nullopt;
  return l.kind == Kind::kSeconds ? *t : *ops / *t;
}

std::vector<double> round_values(const SqlResult& r, const std::string& config, const Line& l,
                                 bool cpu) {
  std::vector<double> out;
  for (size_t round = 0; round < static_cast<size_t>(r.rounds); ++round)
    if (auto v = round_value(r, config, l, round, cpu)) out.push_back(*v);
  return out;
}

std::optional<double> median(std::vector<double> v) {
  if (v.empty()) return std::nullopt;
  std::sort(v.begin(), v.end());
  const size_t mid = v.size() / 2;
  return v.size() % 2 == 1 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

std::optional<double> cell(const SqlResult& r, const std::string& config, const Line& l, bool cpu) {
  return median(round_values(r, config, l, cpu));
}

// Speed lines read "× as fast", size lines "× as large".
std::optional<double> versus(const SqlResult& r, const Line& l, const std::string& ours,
                             const std::string& theirs, bool cpu) {
  auto a = cell(r, ours, l, cpu), b = cell(r, theirs, l, cpu);
  if (!a || !b || *a <= 0 || *b <= 0) return std::nullopt;
  return l.kind == Kind::kSeconds ? *b / *a : *a / *b;
}

std::optional<bool> met(const Line& l, std::optional<double> ratio_value) {
  if (l.target <= 0 || !ratio_value) return std::nullopt;
  return is_speed(l.kind) ? *ratio_value >= l.target : *ratio_value <= l.target;
}

std::string show(const Line& l, std::optional<double> v) {
  if (l.kind == Kind::kRate) return rate(v);
  if (l.kind == Kind::kSeconds) return secs(v);
  return mb(v);
}

// The largest spread between rounds of any column: (max - min) / median.
std::optional<double> spread(const SqlResult& r, const Line& l) {
  std::optional<double> widest;
  for (const std::string& c : r.configs) {
    std::vector<double> v = round_values(r, c, l, false);
    auto mid = median(v);
    if (v.size() < 2 || !mid || *mid <= 0) continue;
    const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    widest = std::max(widest.value_or(0), (*hi - *lo) / *mid);
  }
  return widest;
}

bool has(const SqlResult& r, const std::string& config) {
  return std::find(r.configs.begin(), r.configs.end(), config) != r.configs.end();
}

std::string heading(const SqlResult& r, const std::string& config) {
  auto it = r.labels.find(config);
  return it != r.labels.end() ? it->second : config;
}

// The ratio with as many digits as it takes not to read as the target it
// is held to (a missed 1.5003× is not shown as 1.50×).
std::string beside_target(std::optional<double> v, double target) {
  std::string text = ratio(v);
  if (!v || target <= 0 || *v == target) return text;
  for (int digits = 3; digits <= 9 && std::strtod(text.c_str(), nullptr) == target; ++digits)
    text = fmt(("%." + std::to_string(digits) + "g×").c_str(), *v);
  return text;
}

void write_table(std::ostream& md, const SqlResult& r, bool cpu) {
  md << "\n|";
  for (const std::string& c : r.configs) md << " | " << heading(r, c);
  md << " | ours best vs SQLite best |" << (cpu ? "" : " target | |")
     << " ours default vs SQLite default |" << (cpu ? "" : " round spread |") << "\n|---|";
  for (size_t i = 0; i < r.configs.size() + (cpu ? 2 : 5); ++i)
    md << (!cpu && i == r.configs.size() + 2 ? "---|" : "---:|");
  md << "\n";
  for (const Line& l : lines(r.info)) {
    if (cpu && !is_speed(l.kind)) continue;
    md << "| " << l.label;
    for (const std::string& c : r.configs) md << " | " << show(l, cell(r, c, l, cpu));
    const auto best = versus(r, l, "zq-best", "sqlite-best", cpu);
    md << " | " << beside_target(best, l.target);
    if (!cpu) {
      const auto ok = met(l, best);
      md << " | " << (l.target > 0 ? (is_speed(l.kind) ? "≥ " : "≤ ") + fmt("%g×", l.target) : "")
         << " | " << (ok ? (*ok ? "met" : "**missed**") : "");
    }
    md << " | " << ratio(versus(r, l, "zq-default", "sqlite-default", cpu));
    if (!cpu) {
      const auto sp = spread(r, l);
      md << " | " << (sp ? fmt("%.0f%%", *sp * 100) : "—");
    }
    md << " |\n";
  }
  if (cpu) return;
  md << "| answers";
  for (const std::string& c : r.configs) {
    auto bad = r.bad.find(c);
    md << " | " << (bad == r.bad.end() ? "ok" : "**" + bad->second + "**");
  }
  md << " | | | | | |\n";
}

}  // namespace

SqlResult run_sql_path(const Harness& h, const std::string& workload, const WorkloadInfo& info,
                       const std::vector<std::string>& configs, int rounds, const Row& oracle) {
  SqlResult r;
  r.info = info;
  r.rounds = rounds;
  r.configs = configs;
  for (int round = 1; round <= rounds; ++round)
    for (const std::string& m : measures(info.sels.size()))
      for (const std::string& c : configs) {
        std::fprintf(stderr, "bench_compare: %s: SQL path, round %d of %d: %s %s ...\n",
                     info.name.c_str(), round, rounds, c.c_str(), m.c_str());
        Row row = run_child(h, "sql:" + c, workload, {"--measure", m}).front();
        const std::string where = c + " " + m + ", round " + std::to_string(round) + ": ";
        if (!row.ran()) {
          r.failures.push_back(where + row.status);
          r.bad[c] = "failed";
        } else {
          r.labels[c] = row.label;
          std::vector<std::string> wrong = hit_mismatches(oracle, row);
          // A window or delete process that reports no hits has not been checked.
          const std::string key = hits_key(m);
          if (!key.empty() && !row.hits(key)) wrong.push_back(row.label + ": no " + key);
          for (const std::string& x : wrong) {
            r.mismatches.push_back(where + x);
            if (r.bad[c] != "failed") r.bad[c] = "MISMATCH";
          }
        }
        r.runs[{c, m}].push_back(row);
      }
  return r;
}

void write_sql_path(std::ostream& md, const SqlResult& r) {
  md << "\n### " << r.info.name << "\n\n"
     << r.info.n << " entries, " << r.info.dims << "-D; windows:";
  for (size_t s = 0; s < r.info.sels.size(); ++s)
    md << (s ? "," : "") << " " << r.info.n_queries[s] << " × " << sel_name(r.info.sels[s]);
  md << "; " << r.info.n_deletes << " deletes. Medians of " << r.rounds
     << (r.rounds == 1 ? " round" : " interleaved rounds") << ", wall-clock time.";
  int aimed = 0, reached = 0;
  for (const Line& l : lines(r.info))
    if (auto ok = met(l, versus(r, l, "zq-best", "sqlite-best", false))) {
      ++aimed;
      reached += *ok ? 1 : 0;
    }
  if (aimed > 0) md << " Targets met: " << reached << " of " << aimed << ".";
  std::string fills;
  for (const std::string& c : {std::string("zq-default"), std::string("zq-best")})
    if (auto fill = median([&] {
          std::vector<double> v;
          for (size_t i = 0; i < static_cast<size_t>(r.rounds); ++i)
            if (const Row* row = round_row(r, c, "bulk", i))
              if (auto f = row->num("leaf_fill")) v.push_back(*f);
          return v;
        }()))
      fills += (fills.empty() ? "" : ", ") + c + " " + fmt("%.0f%%", *fill * 100);
  if (!fills.empty()) md << " Leaves of our bulk builds: " << fills << " full.";
  md << "\n";
  write_table(md, r, false);
  if (has(r, "zq-best") || has(r, "zq-default")) {
    md << "\nThe same medians in CPU time of the timed phase:\n";
    write_table(md, r, true);
  }
}

std::string sql_chart(const std::vector<SqlResult>& results) {
  const int label_w = 250, plot_w = 330, bar = 6, line_h = 2 * bar + 5;
  const double lo = -2, hi = 2;  // log10 of 0.01× .. 100×
  auto x_of = [&](double v) {
    return label_w + (std::clamp(std::log10(v), lo, hi) - lo) / (hi - lo) * plot_w;
  };
  int height = 60;
  for (const SqlResult& r : results) height += 50 + static_cast<int>(lines(r.info).size()) * line_h;
  const int width = label_w + plot_w + 40;
  std::ostringstream s;
  s << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
    << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
    << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
    << "<text x=\"10\" y=\"20\" font-size=\"14\">Ours against SQLite's R*Tree through SQL "
       "(log scale; right is better)</text>\n"
    << "<rect x=\"10\" y=\"30\" width=\"12\" height=\"8\" fill=\"#4e79a7\"/><text x=\"26\" "
       "y=\"38\">best vs best</text><rect x=\"110\" y=\"30\" width=\"12\" height=\"8\" "
       "fill=\"#a0cbe8\"/><text x=\"126\" y=\"38\">default vs default</text><line x1=\"250\" "
       "y1=\"28\" x2=\"250\" y2=\"40\" stroke=\"#e15759\" stroke-width=\"2\"/><text x=\"256\" "
       "y=\"38\">target</text>\n";
  int y = 60;
  for (const SqlResult& r : results) {
    const std::vector<Line> ls = lines(r.info);
    const int top = y + 20, bottom = top + static_cast<int>(ls.size()) * line_h;
    s << "<text x=\"10\" y=\"" << y + 12 << "\" font-size=\"13\">" << xml(r.info.name)
      << "</text>\n";
    for (int t = static_cast<int>(lo); t <= static_cast<int>(hi); ++t) {
      const double x = x_of(std::pow(10.0, t));
      s << "<line x1=\"" << x << "\" y1=\"" << top << "\" x2=\"" << x << "\" y2=\"" << bottom
        << "\" stroke=\"" << (t == 0 ? "#333" : "#ddd") << "\""
        << (t == 0 ? " stroke-dasharray=\"4,3\"" : "") << "/>\n<text x=\"" << x << "\" y=\""
        << bottom + 12 << "\" text-anchor=\"middle\">" << fmt("%g×", std::pow(10.0, t))
        << "</text>\n";
    }
    for (size_t i = 0; i < ls.size(); ++i) {
      const Line& l = ls[i];
      const int ly = top + static_cast<int>(i) * line_h;
      s << "<text x=\"" << label_w - 6 << "\" y=\"" << ly + bar + 3 << "\" text-anchor=\"end\">"
        << xml(l.label) << "</text>\n";
      const std::pair<const char*, const char*> pairs[] = {{"zq-best", "sqlite-best"},
                                                           {"zq-default", "sqlite-default"}};
      for (int p = 0; p < 2; ++p) {
        auto v = versus(r, l, pairs[p].first, pairs[p].second, false);
        if (!v) continue;
        // Sizes are "× as large": drawn inverted, so right is better on every line.
        const double better = is_speed(l.kind) ? *v : 1 / *v;
        const double x0 = x_of(1), x1 = x_of(better);
        s << "<rect x=\"" << std::min(x0, x1) << "\" y=\"" << ly + p * bar << "\" width=\""
          << std::max(std::fabs(x1 - x0), 1.0) << "\" height=\"" << bar - 1 << "\" fill=\""
          << (p == 0 ? "#4e79a7" : "#a0cbe8") << "\"><title>" << xml(l.label) << ": " << ratio(v)
          << "</title></rect>\n";
      }
      if (l.target > 0) {
        const double x = x_of(is_speed(l.kind) ? l.target : 1 / l.target);
        s << "<line x1=\"" << x << "\" y1=\"" << ly - 1 << "\" x2=\"" << x << "\" y2=\""
          << ly + 2 * bar << "\" stroke=\"#e15759\" stroke-width=\"2\"/>\n";
      }
    }
    y = bottom + 30;
  }
  s << "</svg>\n";
  return s.str();
}

}  // namespace zqbench
