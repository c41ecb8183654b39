// Whole builds of N 2-D boxes into a database file: the bulk load (sort stage
// + rtr_blkload, at the driver's default fill and full) beside rtr_insert of
// the same entries in one transaction. Each build runs in a child process so
// its peak RSS (ru_maxrss from wait4) is its own; the child reports its time,
// the RSS it had before building (the entries it holds) and the file size.
// Files go to $ZQ_MICRO_DIR (default /tmp) and are removed afterwards.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "bench/common/runner.h"
#include "bench/micro/micro.h"

namespace {

struct ChildResult {
  double seconds;
  double data_rss_kb;  // RSS before the build: the entries themselves
  double db_bytes;
};

// fill 0: rtr_insert one by one; otherwise a bulk load at that fill.
bool build_in_child(size_t n, double fill, ChildResult* out, long* peak_rss_kb) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  const std::string path = zqmicro::scratch_db(fill > 0 ? "bulk" : "insert");
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::vector<rtr_cell> cells = zqmicro::random_cells(n, 2, 42);
    ChildResult r{};
    {
      zqmicro::Session s(path);
      r.data_rss_kb = static_cast<double>(zqbench::peak_rss_kb());
      zqbench::Stopwatch clock;
      if (fill > 0)
        s.bulk_load(cells, fill);
      else
        s.insert_all(cells);
      r.seconds = clock.seconds();
      r.db_bytes = static_cast<double>(s.database_bytes());
    }
    const bool sent = write(fds[1], &r, sizeof r) == static_cast<ssize_t>(sizeof r);
    _exit(sent ? 0 : 1);
  }
  close(fds[1]);
  const bool got = pid > 0 && read(fds[0], out, sizeof *out) == static_cast<ssize_t>(sizeof *out);
  close(fds[0]);
  int status = 0;
  struct rusage ru {};
  if (pid > 0) wait4(pid, &status, 0, &ru);
  *peak_rss_kb = ru.ru_maxrss;
  zqmicro::remove_db(path);
  return got && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_Build(benchmark::State& state, double fill) {
  const auto n = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    ChildResult r{};
    long peak_kb = 0;
    if (!build_in_child(n, fill, &r, &peak_kb)) {
      state.SkipWithError("the build failed (see its message above)");
      break;
    }
    state.SetIterationTime(r.seconds);
    state.counters["entries_per_s"] = static_cast<double>(n) / r.seconds;
    state.counters["peak_RSS_MB"] = peak_kb / 1024.0;
    state.counters["RSS_over_data_MB"] = (peak_kb - r.data_rss_kb) / 1024.0;
    state.counters["db_MB"] = r.db_bytes / (1024.0 * 1024.0);
  }
}

void register_builds(int64_t n) {
  const std::string size = n >= 10000000 ? "10M" : "1M";
  benchmark::RegisterBenchmark(("build_" + size + "/bulk_fill_0.7").c_str(), BM_Build, 0.7)
      ->Arg(n)
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("build_" + size + "/bulk_fill_1.0").c_str(), BM_Build, 1.0)
      ->Arg(n)
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("build_" + size + "/insert").c_str(), BM_Build, 0.0)
      ->Arg(n)
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
}

const bool registered_1m = (register_builds(1000000), true);

}  // namespace

namespace zqmicro {
void register_10m_builds() {
  register_builds(10000000);
}
}  // namespace zqmicro
