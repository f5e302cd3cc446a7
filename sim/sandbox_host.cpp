#include "sim/sandbox_host.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace sandbox {
namespace internal {

std::string ErrnoText(const std::string& what) { return what + ": " + strerror(errno); }

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteFileMode(const std::string& path, const std::string& content, mode_t mode,
                   std::string* error) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (fd.get() < 0 || !WriteAll(fd.get(), content) || fchmod(fd.get(), mode) != 0) {
    *error = ErrnoText("cannot write " + path);
    return false;
  }
  return true;
}

bool ReadWholeFile(const std::string& path, std::string* content, off_t from) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0 || lseek(fd.get(), from, SEEK_SET) < 0) return false;
  content->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    content->append(buffer, static_cast<size_t>(n));
  }
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> FileLines(const std::string& path) {
  std::string content;
  if (!ReadWholeFile(path, &content)) return {};
  return SplitLines(content);
}

off_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

std::vector<std::string> LinesSince(const std::string& path, off_t size) {
  std::string content;
  if (!ReadWholeFile(path, &content, FileSize(path) < size ? 0 : size)) return {};
  return SplitLines(content);
}

bool MakeDirs(const std::string& path, mode_t mode, std::string* error) {
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec || chmod(path.c_str(), mode) != 0) {
    *error = "cannot create " + path + (ec ? ": " + ec.message() : ErrnoText(""));
    return false;
  }
  return true;
}

bool MakeSymlink(const std::string& target, const std::string& path, std::string* error) {
  if (symlink(target.c_str(), path.c_str()) != 0 && errno != EEXIST) {
    *error = ErrnoText("cannot link " + path);
    return false;
  }
  return true;
}

bool IsExecutable(const std::string& path) {
  return !path.empty() && access(path.c_str(), X_OK) == 0;
}

std::string Dirname(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

Clock::time_point DeadlineAfter(int seconds) {
  return seconds <= 0 ? Clock::time_point::max() : Clock::now() + std::chrono::seconds(seconds);
}

void SleepMilliseconds(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, nullptr);
}

int RunHostProgram(const std::vector<std::string>& argv, std::string* output) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[1], STDOUT_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", args[0], strerror(errno));
    _exit(127);
  }
  close(pipe_fds[1]);
  UniqueFd reader(pipe_fds[0]);
  if (pid < 0) return -1;
  output->clear();
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(reader.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    output->append(buffer, static_cast<size_t>(n));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}  // namespace internal
}  // namespace sandbox
