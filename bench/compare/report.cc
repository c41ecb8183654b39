// Formatting and workload facts for bench_compare's report (see report.h).
#include "bench/compare/report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace zqbench {

WorkloadInfo WorkloadInfo::of(const Workload& w) {
  WorkloadInfo info;
  info.name = w.name;
  info.dims = w.dims;
  info.n = w.entries.size();
  info.n_deletes = w.deletes.size();
  info.verify_set = w.verify_set;
  for (const QuerySet& s : w.sets) {
    info.sels.push_back(s.selectivity);
    info.n_queries.push_back(s.boxes.size());
  }
  for (const NearestSet& s : w.nearest) {
    info.nn_k.push_back(s.k);
    info.nn_queries.push_back(s.points.size());
  }
  return info;
}

size_t WorkloadInfo::set_near(double sel) const {
  size_t best = 0;
  for (size_t i = 0; i < sels.size(); ++i)
    if (std::fabs(std::log(sels[i] / sel)) < std::fabs(std::log(sels[best] / sel))) best = i;
  return best;
}

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

bool write_file(const std::string& path, const std::string& text) {
  if (path.empty()) return true;
  std::ofstream out(path);
  out << text;
  return static_cast<bool>(out);
}

}  // namespace zqbench
