// Running the built zqrtree tool as a separate process, as a user would:
// arguments, standard input and extra environment in; exit status, standard
// output and standard error out. spawn_tool and reap are the two halves, for
// tests that stop the tool from outside.
#ifndef ZQ_TESTS_COMMON_TOOL_RUN_H
#define ZQ_TESTS_COMMON_TOOL_RUN_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "driver/db_dump.h"

namespace zqtest {

struct Outcome {
  int status;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// The lines of `text`, sorted: the tool prints hits in tree order.
inline std::string sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
  std::sort(lines.begin(), lines.end());
  std::string joined;
  for (const std::string& l : lines) joined += l;
  return joined;
}

inline std::string tool_path() {
  return std::string(ZQ_BUILD_DIR) + "/tools/zqrtree";
}

// Starts the tool with `args`, its standard streams on the files `in`, `out`
// and `err`, with `env` ("NAME=value") added to its environment; as user and
// group `uid` when one is given (the test then runs as root).
inline pid_t spawn_tool(const std::vector<std::string>& args, const std::string& in,
                        const std::string& out, const std::string& err,
                        const std::vector<std::string>& env = {}, uid_t uid = 0) {
  const std::string tool = tool_path();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    if (uid != 0 && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(126);
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(tool.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

// Waits for the child; its exit status, or 128 + the signal that ended it.
// With a limit in seconds, a child still running then is killed (a hang
// shows as 128 + SIGKILL).
inline int reap(pid_t pid, int limit_s = 0) {
  int status = 0;
  for (int waited_ms = 0;; waited_ms += 10) {
    const pid_t r = waitpid(pid, &status, limit_s > 0 ? WNOHANG : 0);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) return -1;
    if (limit_s > 0 && waited_ms >= limit_s * 1000) kill(pid, SIGKILL);
    if (limit_s > 0) usleep(10000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs the tool to the end (killed after `limit_s` seconds, if given);
// `input` becomes its standard input. Scratch files go to `dir`.
inline Outcome run_tool(const TempDir& dir, const std::vector<std::string>& args,
                        const std::string& input = "", const std::vector<std::string>& env = {},
                        int limit_s = 0, uid_t uid = 0) {
  const std::string in = dir.file("stdin"), out = dir.file("stdout"), err = dir.file("stderr");
  std::ofstream(in) << input;
  const int status = reap(spawn_tool(args, in, out, err, env, uid), limit_s);
  return Outcome{status, slurp(out), slurp(err)};
}

}  // namespace zqtest

#endif
