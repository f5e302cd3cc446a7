// Helpers of the sandbox for host files and host programs: reading and
// writing whole files, directories and links, time-outs, and running a
// program on the host to completion. Internal to the sandbox library and the
// campaigns built on it.
#ifndef SIM_SANDBOX_HOST_H_
#define SIM_SANDBOX_HOST_H_

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace sandbox {
namespace internal {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

std::string ErrnoText(const std::string& what);
bool WriteAll(int fd, const std::string& data);
bool WriteFileMode(const std::string& path, const std::string& content, mode_t mode,
                   std::string* error);
// The file's bytes from offset `from` on.
bool ReadWholeFile(const std::string& path, std::string* content, off_t from = 0);
std::vector<std::string> SplitLines(const std::string& text);
std::vector<std::string> FileLines(const std::string& path);
off_t FileSize(const std::string& path);
// Lines added to a file since it had `size` bytes (all of it if it shrank).
std::vector<std::string> LinesSince(const std::string& path, off_t size);
bool MakeDirs(const std::string& path, mode_t mode, std::string* error);
bool MakeSymlink(const std::string& target, const std::string& path, std::string* error);
bool IsExecutable(const std::string& path);
std::string Dirname(const std::string& path);

using Clock = std::chrono::steady_clock;

Clock::time_point DeadlineAfter(int seconds);
void SleepMilliseconds(long ms);

// Runs a host program, waits for it and returns its status (-1 when it did not
// run); stdout and stderr together go to `output`.
int RunHostProgram(const std::vector<std::string>& argv, std::string* output);

}  // namespace internal
}  // namespace sandbox

#endif  // SIM_SANDBOX_HOST_H_
