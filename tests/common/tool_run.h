// Running the built zqrtree tool as a separate process, as a user would:
// arguments, standard input and extra environment in; exit status, standard
// output and standard error out.
#ifndef ZQ_TESTS_COMMON_TOOL_RUN_H
#define ZQ_TESTS_COMMON_TOOL_RUN_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

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

inline std::string tool_path() {
  return std::string(ZQ_BUILD_DIR) + "/tools/zqrtree";
}

// Runs the tool with `args`; `input` becomes its standard input and `env`
// ("NAME=value") is added to its environment. Scratch files go to `dir`.
inline Outcome run_tool(const TempDir& dir, const std::vector<std::string>& args,
                        const std::string& input = "", const std::vector<std::string>& env = {}) {
  const std::string tool = tool_path();
  const std::string in = dir.file("stdin"), out = dir.file("stdout"), err = dir.file("stderr");
  std::ofstream(in) << input;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(tool.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return Outcome{code, slurp(out), slurp(err)};
}

}  // namespace zqtest

#endif
