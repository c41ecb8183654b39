// Running a program as a child process for end-to-end tests: run to the end
// with files for its standard streams, or start it and stop it from outside
// (the crash test kills the tool mid-operation).
#ifndef ZQ_TESTS_COMMON_PROCESS_H
#define ZQ_TESTS_COMMON_PROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

// Starts `program` with `args`; its standard input reads `in` and its output
// streams go to `out` and `err` (paths). Returns the child's pid.
inline pid_t spawn(const std::string& program, const std::vector<std::string>& args,
                   const std::string& in, const std::string& out, const std::string& err) {
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

// Waits for the child; its exit status, or 128 + the signal that ended it.
inline int reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `program` to the end with empty standard input; `scratch` is a path
// prefix for the stream files.
inline Outcome run_program(const std::string& program, const std::vector<std::string>& args,
                           const std::string& scratch) {
  const std::string in = scratch + ".in", out = scratch + ".out", err = scratch + ".err";
  std::ofstream{in};
  const int status = reap(spawn(program, args, in, out, err));
  return Outcome{status, slurp(out), slurp(err)};
}

}  // namespace zqtest

#endif
