// Running the simulator's programs from tests: one child at a time, its exit
// status, and waiting for a daemon to end.
#ifndef TESTS_SIM_SIM_TEST_PROGRAMS_H_
#define TESTS_SIM_SIM_TEST_PROGRAMS_H_

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace sim_test {

// Runs a program (looked up in PATH when it has no '/') with its output
// appended to `log`, or thrown away when `log` is empty. Its exit status;
// -1 when it did not exit normally, 127 when it could not be started.
inline int RunProgram(const std::vector<std::string>& args, const std::string& log = "") {
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const int fd = log.empty() ? open("/dev/null", O_WRONLY)
                               : open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Waits up to `timeout_ms` for the child `pid` to end; true when it ended
// (its wait status in *status when given).
inline bool WaitForExit(pid_t pid, int timeout_ms, int* status = nullptr) {
  int ignored = 0;
  for (int waited = 0; waited < timeout_ms; waited += 5) {
    const pid_t done = waitpid(pid, status != nullptr ? status : &ignored, WNOHANG);
    if (done == pid || (done < 0 && errno == ECHILD)) return done == pid;
    usleep(5000);
  }
  return false;
}

}  // namespace sim_test

#endif  // TESTS_SIM_SIM_TEST_PROGRAMS_H_
