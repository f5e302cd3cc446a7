// The sandbox's namespaces and mounts: entering fresh mount, pid, network,
// UTS and IPC namespaces (inside a user namespace when not root), the
// report pipe from process 1 back to the caller, and the mounts and network
// a run sets up inside. Internal to the sandbox library.
#ifndef SIM_SANDBOX_NAMESPACES_H_
#define SIM_SANDBOX_NAMESPACES_H_

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sim/sandbox_host.h"

namespace sandbox {
namespace internal {

// Moves the calling process into new namespaces (its children into the new
// pid namespace): directly as root, else inside a user namespace where the
// caller's ids are user and group 0.
bool EnterNamespaces(std::string* error);

// Single-line report from the namespaces to the caller.
void Report(int fd, const std::string& kind, const std::string& text);

// Forks, enters the namespaces and forks again; the grandchild, process 1 of
// the new pid namespace, runs `init` and ends with its result. Returns what
// was reported on the pipe, or false when nothing could be started.
template <typename Init>
bool RunInNamespaces(Init init, std::vector<std::string>* report) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    std::string error;
    if (!EnterNamespaces(&error)) {
      Report(pipe_fds[1], "error", "unavailable: " + error);
      _exit(1);
    }
    const pid_t init_pid = fork();
    if (init_pid == 0) _exit(init(pipe_fds[1]));
    if (init_pid < 0) {
      Report(pipe_fds[1], "error", ErrnoText("fork"));
      _exit(1);
    }
    close(pipe_fds[1]);
    int status = 0;
    while (waitpid(init_pid, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  close(pipe_fds[1]);
  UniqueFd reader(pipe_fds[0]);
  if (pid < 0) return false;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(reader.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  *report = SplitLines(text);
  return true;
}

// Inside the run's namespaces: makes every mount private, mounts a fresh
// proc on ROOT/proc and binds the host's devices and library directories.
bool MountRoot(const std::string& root, std::string* error);
// Loopback up; with a speed, "eth0" as a persistent tap device whose driver
// reports that speed, full duplex, no autonegotiation.
bool SetUpNetwork(int eth0_speed, std::string* error);
// The availability probe: what a run does first, without a root.
int Probe(bool need_flash, int report_fd);

}  // namespace internal
}  // namespace sandbox

#endif  // SIM_SANDBOX_NAMESPACES_H_
