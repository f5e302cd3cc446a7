// Helpers shared by the unit tests: throwaway directories, whole-file reads
// and writes, and a private /tmp for code with fixed paths under it. Brings
// GoogleTest, the standard containers and the library's error codes along.
#ifndef TESTS_UNIT_TEST_SUPPORT_H_
#define TESTS_UNIT_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <functional>
#include <numeric>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_pause.h"

namespace testing_support {

// `result` with the library's error code after it, to compare a call's return
// value and error code in one expectation.
inline std::pair<int, int> WithError(int result) { return {result, SLIBCErrGet()}; }
inline std::pair<int, int> Failure(int code) { return {-1, code}; }
// The sum of calls made left to right (a braced list is evaluated in order; `a() + b()` is not).
inline int InOrder(std::initializer_list<int> results) {
  return std::accumulate(results.begin(), results.end(), 0);
}
// The same as text, "result/code" with the code in hex ("-1/D00"), for lists of outcomes.
inline std::string Outcome(int result) {
  return std::to_string(result) + "/" +
         (std::stringstream() << std::hex << std::uppercase << SLIBCErrGet()).str();
}

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string File(const std::string& name) const;

 private:
  std::string path_;
};

// The whole content of a file; "<missing>" when it cannot be opened.
std::string ReadFile(const std::string& path);

// Replaces the file's content; aborts the test program on failure.
void WriteFile(const std::string& path, const std::string& content);

bool FileExists(const std::string& path);

// `length` letters cycling through the alphabet from `first`: a long line
// whose every part differs from its neighbours.
std::string LongText(size_t length, char first);

// Gives this process (and its children) a private, empty tmpfs on /tmp, in a
// mount namespace of its own (user namespace too when not root), so that code
// with fixed paths under /tmp never touches the host's. Done once per
// process. Returns an empty string on success, or why it was not possible
// (the caller skips the test with that reason).
std::string EnterPrivateTmp();

// Gives this process a throwaway root: in a mount namespace of its own, a
// copy-on-write view (overlay) of the host's root file system and of its
// /tmp (so build trees under /tmp stay reachable), a private /dev holding
// only null, zero, urandom and fuse,
// and the host's /proc; then chroots into it. Code with fixed paths
// (/etc.defaults/VERSION, /etc/veltinfo.conf, /var/log/..., /writeable,
// /dev/mtdN) reads and writes there and the host never sees a change.
// Programs run through the shell still work (the host's /bin and libraries
// are visible). Done once per process; call it before any other file is
// opened by the test. Returns "" on success or why it was not possible.
std::string EnterThrowawayRoot();

// Every syslog call of the test program lands here instead of in the host's
// log, as (priority, formatted text), in order.
using SyslogRecord = std::pair<int, std::string>;
std::vector<SyslogRecord>& SyslogRecords();

// Stands in for the library's retry pauses (SLIBPause) while it lives: a
// pause returns at once and is recorded, after `on_pause` has run with the
// number of pauses before it. Tests count the waits instead of sleeping.
class PauseRecorder {
 public:
  explicit PauseRecorder(std::function<void(size_t)> on_pause = nullptr)
      : on_pause_(std::move(on_pause)) {
    Current() = this;
    SLIBSetPauseFunction([](unsigned int microseconds) {
      if (Current()->on_pause_) Current()->on_pause_(Current()->pauses.size());
      Current()->pauses.push_back(microseconds);
    });
  }
  ~PauseRecorder() { SLIBSetPauseFunction(nullptr); }
  PauseRecorder(const PauseRecorder&) = delete;
  PauseRecorder& operator=(const PauseRecorder&) = delete;

  // The pauses asked for, in microseconds, in order.
  std::vector<unsigned int> pauses;

 private:
  static PauseRecorder*& Current() {
    static PauseRecorder* current = nullptr;
    return current;
  }
  std::function<void(size_t)> on_pause_;
};

}  // namespace testing_support

#endif  // TESTS_UNIT_TEST_SUPPORT_H_
