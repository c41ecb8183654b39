// What both sections of bench_compare's report share: the facts of a
// workload, number formatting, and the machine a run was made on.
#ifndef ZQ_BENCH_COMPARE_REPORT_H
#define ZQ_BENCH_COMPARE_REPORT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bench/common/workload.h"

namespace zqbench {

struct WorkloadInfo {
  std::string name;
  int dims = 0;
  uint64_t n = 0, n_deletes = 0;
  std::vector<double> sels;  // selectivity of each query set
  std::vector<size_t> n_queries;
  uint32_t verify_set = 0;
  std::vector<uint32_t> nn_k;  // k of each nearest-neighbour set
  std::vector<size_t> nn_queries;

  static WorkloadInfo of(const Workload& w);
  // The query set whose selectivity is nearest to `sel` (by ratio).
  size_t set_near(double sel) const;
};

std::string fmt(const char* f, double v);
std::string rate(std::optional<double> v);  // 12.3k, 1.20M
std::string secs(std::optional<double> v);
std::string mb(std::optional<double> bytes);
std::string ratio(std::optional<double> r);  // 2.41×
std::string sel_name(double sel);            // 0.01%
std::string xml(const std::string& s);       // escaped for SVG text
std::string machine();                       // CPU, cores, memory, kernel
// Markdown or SVG text written to `path` ("" writes nothing); false on failure.
bool write_file(const std::string& path, const std::string& text);

}  // namespace zqbench

#endif
