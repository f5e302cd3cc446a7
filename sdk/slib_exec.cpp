#include "sdk/slib_exec.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "lib/slib_error.h"
#include "lib/unique_fd.h"

namespace {

constexpr int kMaxArguments = 4;
// Descriptors above this are left to the close_range fallback's limit.
constexpr long kMaxFallbackDescriptors = 65536;

// Marks every descriptor from 3 up close-on-exec, so that the program starts
// with only its standard streams while the exec-status pipe stays usable
// until the exec. Runs in the child: system calls only.
void CloseInheritedDescriptorsOnExec() {
  if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  long limit = sysconf(_SC_OPEN_MAX);
  if (limit < 0 || limit > kMaxFallbackDescriptors) limit = kMaxFallbackDescriptors;
  for (int fd = 3; fd < limit; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0) fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
  }
}

// The child's side: standard streams on /dev/null, working directory "/",
// then the program. On any failure the errno goes up the status pipe.
[[noreturn]] void RunChild(const char* path, char* const* argv, int status_fd) {
  int null_fd = open("/dev/null", O_RDWR);
  bool ready = null_fd >= 0;
  for (int fd = 0; ready && fd <= 2; ++fd) {
    if (null_fd != fd && dup2(null_fd, fd) < 0) ready = false;
  }
  if (null_fd > 2) close(null_fd);
  if (ready && chdir("/") != 0) ready = false;
  if (ready) {
    CloseInheritedDescriptorsOnExec();
    execv(path, argv);
  }
  const int error = errno;
  ssize_t ignored = write(status_fd, &error, sizeof error);
  (void)ignored;
  _exit(127);
}

// True when the child reported that it could not execute the program; false
// when the pipe closed at the exec.
bool ChildReportedFailure(int status_fd) {
  int error = 0;
  ssize_t n;
  do {
    n = read(status_fd, &error, sizeof error);
  } while (n < 0 && errno == EINTR);
  return n > 0;
}

int WaitForChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno == EINTR) continue;
    if (errno == ECHILD) return 0;
    SLIBCErrSet(SLIB_ERR_EXEC);
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  SLIBCErrSet(SLIB_ERR_EXEC);
  return -1;
}

}  // namespace

int SLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  if (path == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  // execv takes char* const[]; the strings are not changed.
  std::array<char*, kMaxArguments + 2> argv{};
  argv[0] = const_cast<char*>(path);
  const char* const args[kMaxArguments] = {arg1, arg2, arg3, arg4};
  for (int i = 0; i < kMaxArguments && args[i] != nullptr; ++i) {
    argv[i + 1] = const_cast<char*>(args[i]);
  }

  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    SLIBCErrSet(SLIB_ERR_EXEC);
    return -1;
  }
  UniqueFd status_reader(pipe_fds[0]);
  UniqueFd status_writer(pipe_fds[1]);
  const pid_t pid = fork();
  if (pid == 0) RunChild(path, argv.data(), status_writer.get());
  status_writer.Close();
  if (pid < 0) {
    SLIBCErrSet(SLIB_ERR_EXEC);
    return -1;
  }
  const bool failed = ChildReportedFailure(status_reader.get());
  const int status = WaitForChild(pid);
  if (failed) {
    SLIBCErrSet(SLIB_ERR_EXEC);
    return -1;
  }
  return status;
}
