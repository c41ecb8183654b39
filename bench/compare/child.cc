// Running one runner as a child process and reading its rows (see child.h).
#include "bench/compare/child.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "bench/common/runner.h"

namespace zqbench {

std::optional<double> Row::num(const std::string& key) const {
  auto it = kv.find(key);
  if (it == kv.end() || it->second.empty()) return std::nullopt;
  return std::strtod(it->second[0].c_str(), nullptr);
}

std::optional<Hits> Row::hits(const std::string& key) const {
  auto it = kv.find(key);
  if (it == kv.end() || it->second.size() < 2) return std::nullopt;
  Hits h;
  h.count = std::strtoull(it->second[0].c_str(), nullptr, 10);
  h.digest = std::strtoull(it->second[1].c_str(), nullptr, 16);
  return h;
}

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(s);
  while (std::getline(in, cur, sep))
    if (!cur.empty()) out.push_back(cur);
  return out;
}

namespace {

std::vector<Row> parse_rows(const std::string& job, const std::string& out) {
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
  return rows;
}

}  // namespace

std::vector<Row> run_child(const Harness& h, const std::string& job, const std::string& workload,
                           const std::vector<std::string>& extra) {
  // runner:variant, then any +option=value for that system alone.
  const auto colon = job.find(':');
  const auto plus = job.find('+', colon);
  const std::string runner = job.substr(0, colon);
  const std::string variant =
      job.substr(colon + 1, plus == std::string::npos ? plus : plus - colon - 1);
  std::vector<std::string> own;
  for (size_t at = plus; at != std::string::npos;) {
    const size_t next = job.find('+', at + 1);
    const std::string opt = job.substr(at + 1, next == std::string::npos ? next : next - at - 1);
    const size_t eq = opt.find('=');
    own.push_back("--" + opt.substr(0, eq));
    if (eq != std::string::npos) own.push_back(opt.substr(eq + 1));
    at = next;
  }
  const std::string exe = h.bin + "/bench_run_" + runner;
  Row failed;
  failed.job = job + "#0";
  failed.label = job;
  if (access(exe.c_str(), X_OK) != 0) {
    failed.status = "skipped: " + exe + " not built (its package is not installed)";
    return {failed};
  }
  std::vector<std::string> args = {exe,     "--workload", workload,  "--variant", variant,
                                   "--dir", h.dir,        "--clock", h.clock};
  for (const auto& [k, v] : h.pass) {
    args.push_back("--" + k);
    args.push_back(v);
  }
  args.insert(args.end(), own.begin(), own.end());
  args.insert(args.end(), extra.begin(), extra.end());
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
    const int wait_ms = h.timeout > 0 ? 1000 : -1;
    if (poll(&p, 1, wait_ms) > 0) {
      const ssize_t got = read(fds[0], buf, sizeof buf);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    if (h.timeout > 0 && clock.seconds() > h.timeout) {
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

  std::vector<Row> rows = parse_rows(job, out);
  if (rows.empty()) rows.push_back(failed);
  for (Row& r : rows) r.peak_rss_kb = ru.ru_maxrss;
  if (timed_out) {
    rows.front().status = "failed: stopped after " + std::to_string(h.timeout) + " s";
  } else if (!WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0) {
    rows.front().status = WIFEXITED(wstatus)
                              ? "failed: exit status " + std::to_string(WEXITSTATUS(wstatus))
                              : "failed: signal " + std::to_string(WTERMSIG(wstatus));
  }
  return rows;
}

std::vector<std::string> hit_mismatches(const Row& oracle, const Row& row) {
  std::vector<std::string> out;
  for (const auto& [k, values] : row.kv) {
    if (k.rfind("hits", 0) != 0 && k.rfind("nhits", 0) != 0) continue;
    auto want = oracle.hits(k), got = row.hits(k);
    if (!got) continue;
    if (!want || !(*got == *want))
      out.push_back(row.label + " " + k + ": " + std::to_string(got->count) + " hits, oracle " +
                    (want ? std::to_string(want->count) : "none") +
                    (want && got->count == want->count
                         ? (k[0] == 'n' ? " (different answers)" : " (different rowids)")
                         : ""));
  }
  return out;
}

}  // namespace zqbench
