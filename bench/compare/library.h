// The library path in bench_compare's report: one row per runner variant
// (each system in its own process, once), the figures, their ratios against
// the first peer that is not ours, the library's own goals, and a chart.
#ifndef ZQ_BENCH_COMPARE_LIBRARY_H
#define ZQ_BENCH_COMPARE_LIBRARY_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "bench/compare/child.h"
#include "bench/compare/report.h"

namespace zqbench {

struct LibraryResult {
  WorkloadInfo info;
  Row oracle;  // the brute-force scan: every row must give its hits
  std::vector<Row> rows;
  size_t base = SIZE_MAX;  // index of the row every ratio is against
  std::vector<std::string> mismatches;

  // Picks the base and checks every row's hits against the oracle's.
  void finish();
};

// The tables and goals of one workload.
void write_library(std::ostream& md, const LibraryResult& r);
// Small multiples of the ratios against each workload's base, as SVG.
std::string library_chart(const std::vector<LibraryResult>& results);

}  // namespace zqbench

#endif
