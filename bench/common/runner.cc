// The shared part of every runner: argument parsing, the timed query loop,
// and the output lines the comparison driver parses (see runner.h).
#include "bench/common/runner.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace zqbench {

double Stopwatch::now() {
  struct timespec ts;
  clock_gettime(cpu_ ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

double Options::number(const std::string& key, double fallback) const {
  auto it = extra.find(key);
  if (it == extra.end()) return fallback;
  char* end = nullptr;
  double v = std::strtod(it->second.c_str(), &end);
  if (end == it->second.c_str() || *end != '\0') {
    std::fprintf(stderr, "--%s %s: not a number\n", key.c_str(), it->second.c_str());
    std::exit(2);
  }
  return v;
}

size_t Report::row(const std::string& label) {
  rows_.emplace_back(label, std::vector<std::string>());
  cur_ = rows_.size() - 1;
  return cur_;
}

void Report::line(const std::string& text) {
  if (rows_.empty()) row("?");
  rows_[cur_].second.push_back(text);
}

void Report::value(const std::string& key, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, " %.9g", v);
  line(key + buf);
}

void Report::hits(const std::string& key, const Hits& h) {
  char buf[64];
  std::snprintf(buf, sizeof buf, " %" PRIu64 " %016" PRIx64, h.count, h.digest);
  line(key + buf);
}

void Report::note(const std::string& text) {
  line("note " + text);
}

void Report::version(const std::string& text) {
  line("version " + text);
}

void Report::print() const {
  for (const auto& [label, lines] : rows_) {
    std::printf("row %s\n", label.c_str());
    for (const std::string& l : lines) std::printf("%s\n", l.c_str());
  }
  std::fflush(stdout);
}

PhaseTimer::PhaseTimer() {
  struct timespec wall, cpu;
  clock_gettime(CLOCK_MONOTONIC, &wall);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
  wall0_ = static_cast<double>(wall.tv_sec) + wall.tv_nsec * 1e-9;
  cpu0_ = static_cast<double>(cpu.tv_sec) + cpu.tv_nsec * 1e-9;
}

void PhaseTimer::report(Report& report, uint64_t ops) const {
  struct timespec wall, cpu;
  clock_gettime(CLOCK_MONOTONIC, &wall);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
  report.value("wall_s", static_cast<double>(wall.tv_sec) + wall.tv_nsec * 1e-9 - wall0_);
  report.value("cpu_s", static_cast<double>(cpu.tv_sec) + cpu.tv_nsec * 1e-9 - cpu0_);
  report.value("ops", static_cast<double>(ops));
}

std::string run_query_set(const Workload& w, size_t set, Hits* hits, const QueryFn& query) {
  for (const Box& q : w.sets[set].boxes) {
    std::string err = query(q, hits);
    if (!err.empty()) return err;
  }
  return "";
}

std::string run_query_sets(const Workload& w, Report& report, const QueryFn& query) {
  for (size_t s = 0; s < w.sets.size(); ++s) {
    Hits hits;
    Stopwatch clock;
    std::string err = run_query_set(w, s, &hits, query);
    if (!err.empty()) return err;
    const double secs = clock.seconds();
    // Appended, not `"." + std::to_string(s)`: GCC 12 takes that prepend for
    // an overlapping copy at -O3 (-Wrestrict).
    const std::string suffix = std::string(".").append(std::to_string(s));
    report.value("q_per_s" + suffix, secs > 0 ? w.sets[s].boxes.size() / secs : 0);
    report.hits("hits" + suffix, hits);
  }
  return "";
}

std::string run_verify_set(const Workload& w, Report& report, const QueryFn& query) {
  if (w.sets.empty()) return "";
  Hits hits;
  std::string err = run_query_set(w, w.verify_set, &hits, query);
  if (err.empty()) report.hits("hits_del", hits);
  return err;
}

namespace {

uint64_t mix(uint64_t z) {
  z += 0x9e3779b97f4a7c15ull;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

// One item of a digest: what it is (a, b) within which query (q).
int64_t item(uint64_t q, uint64_t a, uint64_t b) {
  return static_cast<int64_t>(mix(mix(mix(q) ^ a) ^ b));
}

struct Measured {
  double d2;
  int64_t id;
  bool operator<(const Measured& o) const { return d2 < o.d2 || (d2 == o.d2 && id < o.id); }
};

struct NearestDigests {
  Hits dist, near, rank, ties;
};

std::string digest_answer(uint64_t q, const Box& point, uint32_t k,
                          const std::vector<Entry>& answer, int dims, Ties ties,
                          NearestDigests* d) {
  std::vector<Measured> m;
  m.reserve(answer.size());
  for (const Entry& e : answer) m.push_back({dist2(e.box, point, dims), e.id});
  if (ties == Ties::kOrdered)
    for (size_t i = 0; i < m.size(); ++i) d->rank.add(item(q, i, static_cast<uint64_t>(m[i].id)));
  std::sort(m.begin(), m.end(), [](const Measured& a, const Measured& b) { return a.id < b.id; });
  for (size_t i = 1; i < m.size(); ++i)
    if (m[i].id == m[i - 1].id)
      return "nearest query " + std::to_string(q) + ": rowid " + std::to_string(m[i].id) + " twice";
  std::sort(m.begin(), m.end());
  const size_t n = std::min<size_t>(k, m.size());
  if (n == 0) return "";
  const double kth = m[n - 1].d2;
  size_t at_kth = 0;
  for (size_t i = 0; i < n; ++i) {
    uint64_t bits = 0;
    std::memcpy(&bits, &m[i].d2, sizeof bits);
    d->dist.add(item(q, i, bits));
    if (m[i].d2 < kth)
      d->near.add(item(q, 1, static_cast<uint64_t>(m[i].id)));
    else
      ++at_kth;
    if (ties == Ties::kAll) d->rank.add(item(q, i, static_cast<uint64_t>(m[i].id)));
  }
  d->near.add(item(q, 2, at_kth));
  if (ties != Ties::kAll) return "";
  size_t tied = 0;
  for (size_t i = n; i < m.size(); ++i) {
    if (std::sqrt(m[i].d2) != std::sqrt(kth))
      return "nearest query " + std::to_string(q) + ": rowid " + std::to_string(m[i].id) +
             " lies beyond the k-th distance";
    tied += m[i].d2 == kth ? 1 : 0;
  }
  d->ties.add(item(q, 3, tied));
  return "";
}

}  // namespace

std::string run_nearest_sets(const Workload& w, Report& report, Ties ties, const NearestFn& query) {
  for (size_t s = 0; s < w.nearest.size(); ++s) {
    const NearestSet& set = w.nearest[s];
    std::vector<std::vector<Entry>> answers(set.points.size());
    for (std::vector<Entry>& a : answers) a.reserve(set.k);
    Stopwatch clock;
    for (size_t q = 0; q < set.points.size(); ++q) {
      std::string err = query(set.points[q], set.k, &answers[q]);
      if (!err.empty()) return err;
    }
    const double secs = clock.seconds();
    const std::string suffix = std::string(".").append(std::to_string(s));  // see above
    report.value("nn_per_s" + suffix, secs > 0 ? set.points.size() / secs : 0);
    NearestDigests d;
    for (size_t q = 0; q < answers.size(); ++q) {
      std::string err = digest_answer(q, set.points[q], set.k, answers[q], w.dims, ties, &d);
      if (!err.empty()) return err;
    }
    report.hits("nhits_dist" + suffix, d.dist);
    report.hits("nhits_near" + suffix, d.near);
    if (ties != Ties::kAny) report.hits("nhits_rank" + suffix, d.rank);
    if (ties == Ties::kAll) report.hits("nhits_ties" + suffix, d.ties);
  }
  return "";
}

long peak_rss_kb() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

uint64_t file_bytes(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

std::string scratch_path(const Options& opt, const std::string& stem) {
  std::string path = opt.dir + "/" + stem;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) unlink((path + suffix).c_str());
  return path;
}

namespace {

void usage(const char* prog, const std::vector<Variant>& variants) {
  std::fprintf(stderr,
               "usage: %s --workload FILE --variant NAME [--dir DIR] [--clock wall|cpu]\n"
               "          [--key value ...]\n"
               "       %s --list\nvariants:\n",
               prog, prog);
  for (const Variant& v : variants)
    std::fprintf(stderr, "  %-12s %s\n", v.name.c_str(), v.label.c_str());
}

}  // namespace

int runner_main(int argc, char** argv, const std::vector<Variant>& variants) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--list") {
      for (const Variant& v : variants) std::printf("%s\t%s\n", v.name.c_str(), v.label.c_str());
      return 0;
    }
    if (arg.rfind("--", 0) != 0 || i + 1 >= argc) {
      usage(argv[0], variants);
      return 2;
    }
    std::string value = argv[++i];
    if (arg == "--workload")
      opt.workload = value;
    else if (arg == "--variant")
      opt.variant = value;
    else if (arg == "--dir")
      opt.dir = value;
    else if (arg == "--clock" && (value == "wall" || value == "cpu"))
      Stopwatch::use_cpu_clock(value == "cpu");
    else
      opt.extra[arg.substr(2)] = value;
  }
  const Variant* chosen = nullptr;
  for (const Variant& v : variants)
    if (v.name == opt.variant) chosen = &v;
  if (opt.workload.empty() || chosen == nullptr) {
    usage(argv[0], variants);
    return 2;
  }

  Workload w;
  std::string err = read_workload(opt.workload, &w);
  if (!err.empty()) {
    std::fprintf(stderr, "%s\n", err.c_str());
    return 1;
  }
  Report report;
  report.row(chosen->label);
  report.value("base_rss_kb", static_cast<double>(peak_rss_kb()));
  err = chosen->run(w, opt, report);
  report.print();
  if (!err.empty()) {
    std::fprintf(stderr, "%s (%s): %s\n", argv[0], chosen->name.c_str(), err.c_str());
    return 1;
  }
  return 0;
}

}  // namespace zqbench
