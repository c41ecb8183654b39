// Starting the built tool and stopping it from outside, for tests that kill
// it mid-operation; running it to the end is tool_run.h's run_tool.
#ifndef ZQ_TESTS_COMMON_PROCESS_H
#define ZQ_TESTS_COMMON_PROCESS_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "common/tool_run.h"

namespace zqtest {

// Starts the tool with `args`, its standard streams on the files `in`, `out`
// and `err`. Returns the child's pid.
inline pid_t spawn_tool(const std::vector<std::string>& args, const std::string& in,
                        const std::string& out, const std::string& err) {
  const std::string tool = tool_path();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(tool.c_str(), argv.data());
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

}  // namespace zqtest

#endif
