// The SQL path in bench_compare: SQLite's R*Tree and our extension driven by
// the same statements (bench_run_sql), every measurement of every
// configuration in a process of its own, in interleaved rounds (A B A B
// ...); each cell is the median over the rounds, in wall and in CPU time,
// with the ratios of ours against SQLite's R*Tree and the targets we hold
// ourselves to.
#ifndef ZQ_BENCH_COMPARE_SQL_PATH_H
#define ZQ_BENCH_COMPARE_SQL_PATH_H

#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "bench/compare/child.h"
#include "bench/compare/report.h"

namespace zqbench {

// bench_run_sql's configurations; a table's columns, in this order.
inline constexpr const char* kSqlConfigs = "sqlite-default,sqlite-best,zq-default,zq-best";

struct SqlResult {
  WorkloadInfo info;
  int rounds = 0;
  std::vector<std::string> configs;           // as given, the tables' column order
  std::map<std::string, std::string> labels;  // configuration -> column heading
  // (configuration, measurement) -> that process's row in each round
  std::map<std::pair<std::string, std::string>, std::vector<Row>> runs;
  std::vector<std::string> mismatches;     // hits that are not the oracle's
  std::vector<std::string> failures;       // processes that failed, and why
  std::map<std::string, std::string> bad;  // configuration -> "failed" or "MISMATCH"
};

// Runs every measurement of every configuration once per round, the
// configurations interleaved within each measurement, and checks every
// process's hits against the oracle's.
SqlResult run_sql_path(const Harness& h, const std::string& workload, const WorkloadInfo& info,
                       const std::vector<std::string>& configs, int rounds, const Row& oracle);

void write_sql_path(std::ostream& md, const SqlResult& r);
// Ours against SQLite's R*Tree per measurement and workload, with the
// targets marked, as SVG.
std::string sql_chart(const std::vector<SqlResult>& results);

}  // namespace zqbench

#endif
