#include "sim/sandbox_run.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "sim/sandbox_host.h"
#include "sim/sandbox_namespaces.h"
#include "sim/sandbox_root.h"

namespace sandbox {
namespace internal {
namespace {

// Process 1 reaps every process of the namespace; statuses of those it is
// not waiting for yet are kept until asked.
class Children {
 public:
  // True with the status once `pid` has ended; false when the deadline
  // passed first.
  bool WaitFor(pid_t pid, Clock::time_point deadline, int* status) {
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    for (;;) {
      Reap();
      auto found = ended_.find(pid);
      if (found != ended_.end()) {
        *status = found->second;
        ended_.erase(found);
        return true;
      }
      if (Clock::now() >= deadline) return false;
      // Short slices: a SIGCHLD that arrived between Reap and here is not lost.
      struct timespec slice = {0, 20 * 1000 * 1000};
      sigtimedwait(&child_signal, nullptr, &slice);
    }
  }

  bool HasEnded(pid_t pid, int* status) {
    Reap();
    auto found = ended_.find(pid);
    if (found == ended_.end()) return false;
    *status = found->second;
    return true;
  }

  // Waits until no process but this one is left (they have been killed).
  void ReapAll(Clock::time_point deadline) {
    for (;;) {
      int status;
      const pid_t pid = waitpid(-1, &status, WNOHANG);
      if (pid < 0 && errno == ECHILD) return;
      if (pid > 0) continue;
      if (Clock::now() >= deadline) return;
      SleepMilliseconds(5);
    }
  }

 private:
  void Reap() {
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) ended_[pid] = status;
  }
  std::map<pid_t, int> ended_;
};

int StatusNumber(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

struct Spawn {
  std::vector<std::string> argv;
  std::vector<std::string> env;     // empty: this process's environment
  std::string chroot_dir;           // empty: stay on the host's root
  int in = -1, out = -1, err = -1;  // -1: keep this process's stream
  bool new_session = false;
};

// Starts a program; in the child, failures before exec end it with 127 and a
// message on its stderr.
pid_t Start(const Spawn& spawn) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  if (spawn.in >= 0) dup2(spawn.in, STDIN_FILENO);
  if (spawn.out >= 0) dup2(spawn.out, STDOUT_FILENO);
  if (spawn.err >= 0) dup2(spawn.err, STDERR_FILENO);
  close_range(3, ~0U, 0);
  if (spawn.new_session) setsid();
  umask(022);
  if (!spawn.chroot_dir.empty() && (chroot(spawn.chroot_dir.c_str()) != 0 || chdir("/") != 0)) {
    dprintf(STDERR_FILENO, "sandbox: chroot %s: %s\n", spawn.chroot_dir.c_str(), strerror(errno));
    _exit(127);
  }
  if (!spawn.env.empty()) {
    clearenv();
    for (const std::string& entry : spawn.env) putenv(const_cast<char*>(entry.c_str()));
  }
  std::vector<char*> args;
  for (const std::string& arg : spawn.argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  dprintf(STDERR_FILENO, "sandbox: cannot run %s: %s\n", args[0], strerror(errno));
  _exit(127);
}

std::string LogTail(const RunPlan& plan) {
  std::string log;
  ReadWholeFile(plan.dir + "/run.log", &log);
  if (log.size() > 2000) log = "..." + log.substr(log.size() - 2000);
  return log.empty() ? "" : " (run.log: " + log + ")";
}

class Init {
 public:
  Init(const RunPlan& plan, int report_fd) : plan_(plan), report_fd_(report_fd) {}

  int Main() {
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child_signal, nullptr);
    std::string error;
    if (!MountRoot(plan_.root, &error) || !SetUpNetwork(plan_.eth0_speed, &error)) {
      Report(report_fd_, "error", error);
      return 1;
    }
    sethostname("filebay", 7);
    messages_size_ = FileSize(plan_.root + kMessages);
    if (StartFlash() && StartSyslog() && StartDaemons()) RunCommand();
    StopFlash();
    StopSyslog();
    // Whatever the command left behind.
    kill(-1, SIGKILL);
    children_.ReapAll(DeadlineAfter(5));
    return 0;
  }

 private:
  void Fail(const std::string& text) { Report(report_fd_, "error", text); }

  std::vector<std::string> BaseEnv() const {
    std::vector<std::string> env = {"PATH=/bin:/sbin:/usr/bin:/usr/sbin", "HOME=/root", "USER=root",
                                    "LOGNAME=root", "SHELL=/bin/sh"};
    const char* term = getenv("TERM");
    if (!plan_.capture && term != nullptr) env.push_back(std::string("TERM=") + term);
    return env;
  }

  Spawn Helper(std::vector<std::string> argv, bool chrooted) const {
    Spawn spawn;
    spawn.argv = std::move(argv);
    if (chrooted) {
      spawn.chroot_dir = plan_.root;
      spawn.env = BaseEnv();
    }
    spawn.in = plan_.null_fd;
    spawn.out = plan_.log_fd;
    spawn.err = plan_.log_fd;
    spawn.new_session = true;
    return spawn;
  }

  // Polls `ready` every few milliseconds until it holds, the helper ends
  // (then *pid becomes -1) or 10 seconds pass.
  template <typename Ready>
  bool WaitReady(pid_t* pid, const std::string& what, Ready ready) {
    const Clock::time_point deadline = DeadlineAfter(10);
    for (;;) {
      if (ready()) return true;
      int status;
      if (children_.HasEnded(*pid, &status)) {
        *pid = -1;
        Fail(what + " ended with status " + std::to_string(StatusNumber(status)) +
             " before it was ready" + LogTail(plan_));
        return false;
      }
      if (Clock::now() >= deadline) {
        Fail(what + " was not ready after 10 seconds" + LogTail(plan_));
        return false;
      }
      SleepMilliseconds(2);
    }
  }

  bool StartFlash() {
    if (plan_.flashsim.empty()) return true;
    const std::string mount_point = plan_.root + "/dev/flash";
    flash_pid_ = Start(Helper(
        {plan_.flashsim, plan_.dir + "/flash", mount_point, "-f", "-o", "allow_other"}, false));
    if (flash_pid_ < 0) {
      Fail(ErrnoText("fork"));
      return false;
    }
    const std::string control = mount_point + "/.control";
    return WaitReady(&flash_pid_, "the flash simulator", [&control] {
      struct stat st;
      return stat(control.c_str(), &st) == 0;
    });
  }

  bool StartSyslog() {
    const std::string socket_path = plan_.root + "/dev/log";
    unlink(socket_path.c_str());
    syslog_pid_ = Start(Helper({"/sbin/syslogd", "-n", "-O", kMessages}, true));
    if (syslog_pid_ < 0) {
      Fail(ErrnoText("fork"));
      return false;
    }
    return WaitReady(&syslog_pid_, "syslogd", [&socket_path] {
      struct stat st;
      return lstat(socket_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    });
  }

  bool StartDaemons() {
    for (const std::string& daemon : plan_.daemons) {
      Spawn spawn = Helper({daemon, "-D"}, true);
      spawn.env.push_back("SANDBOX_STUB_QUIET=1");
      const pid_t pid = Start(spawn);
      int status = 0;
      if (pid < 0 || !children_.WaitFor(pid, DeadlineAfter(10), &status) || status != 0) {
        Fail("daemon " + daemon + " did not start (status " + std::to_string(StatusNumber(status)) +
             ")" + LogTail(plan_));
        return false;
      }
    }
    return true;
  }

  void RunCommand() {
    Spawn spawn;
    spawn.argv = plan_.argv;
    spawn.chroot_dir = plan_.root;
    spawn.env = BaseEnv();
    for (const std::string& entry : plan_.env) {
      const size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      const std::string name = entry.substr(0, equals + 1);
      for (auto it = spawn.env.begin(); it != spawn.env.end();) {
        it = it->compare(0, name.size(), name) == 0 ? spawn.env.erase(it) : it + 1;
      }
      spawn.env.push_back(entry);
    }
    if (plan_.capture) {
      spawn.in = plan_.stdin_fd;
      spawn.out = plan_.stdout_fd;
      spawn.err = plan_.stderr_fd;
      spawn.new_session = true;
    }
    const pid_t pid = Start(spawn);
    if (pid < 0) {
      Fail(ErrnoText("fork"));
      return;
    }
    int status = 0;
    if (!children_.WaitFor(pid, DeadlineAfter(plan_.timeout_seconds), &status)) {
      Report(report_fd_, "timeout", std::to_string(plan_.timeout_seconds));
      kill(pid, SIGKILL);
      children_.WaitFor(pid, Clock::time_point::max(), &status);
    }
    status_ = StatusNumber(status);
    Report(report_fd_, "status", std::to_string(status_));
  }

  // SIGTERM: the simulator unmounts and leaves the state directory current.
  void StopFlash() {
    if (flash_pid_ <= 0) return;
    int status = 0;
    if (!children_.HasEnded(flash_pid_, &status)) {
      kill(flash_pid_, SIGTERM);
      if (!children_.WaitFor(flash_pid_, DeadlineAfter(10), &status)) {
        kill(flash_pid_, SIGKILL);
        Fail("the flash simulator did not stop within 10 seconds");
        return;
      }
    }
    if (status != 0) {
      Fail("the flash simulator ended with status " + std::to_string(StatusNumber(status)) +
           LogTail(plan_));
    }
  }

  // syslogd may still have messages queued in its socket: a last message of
  // our own, once it is in the file, shows that everything before it is too.
  void StopSyslog() {
    if (syslog_pid_ <= 0) return;
    int status;
    if (children_.HasEnded(syslog_pid_, &status)) {
      Fail("syslogd ended early with status " + std::to_string(StatusNumber(status)) +
           LogTail(plan_));
      return;
    }
    const std::string marker = "sandbox: end of command, status " + std::to_string(status_);
    if (SendToSyslog("<46>" + marker)) {
      const std::string messages = plan_.root + kMessages;
      const Clock::time_point deadline = DeadlineAfter(3);
      std::string content;
      while (Clock::now() < deadline && !(ReadWholeFile(messages, &content, messages_size_) &&
                                          content.find(marker) != std::string::npos)) {
        SleepMilliseconds(2);
      }
    }
    kill(syslog_pid_, SIGTERM);
    if (!children_.WaitFor(syslog_pid_, DeadlineAfter(5), &status)) kill(syslog_pid_, SIGKILL);
  }

  // Addressed relative to the root's /dev, as a socket address is too short
  // for some sandbox paths. Only teardown follows, which needs no working
  // directory.
  bool SendToSyslog(const std::string& message) {
    UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, "log", 4);
    if (sock.get() < 0 || chdir((plan_.root + "/dev").c_str()) != 0) return false;
    return sendto(sock.get(), message.data(), message.size(), 0,
                  reinterpret_cast<const struct sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(message.size());
  }

  const RunPlan& plan_;
  const int report_fd_;
  Children children_;
  pid_t flash_pid_ = -1;
  pid_t syslog_pid_ = -1;
  int status_ = -1;
  off_t messages_size_ = 0;
};
}  // namespace

int RunInit(const RunPlan& plan, int report_fd) { return Init(plan, report_fd).Main(); }

}  // namespace internal
}  // namespace sandbox
