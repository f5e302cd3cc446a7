#include "sdk/slib_exec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "lib/slib_error.h"
#include "test_support.h"

namespace {

using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

// Writes an executable shell script and returns its path.
std::string Script(const TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir.File(name);
  WriteFile(path, "#!/bin/sh\n" + body);
  EXPECT_EQ(0, chmod(path.c_str(), 0755));
  return path;
}

// Sends this process's stdout and stderr to a file while alive.
class CapturedOutput {
 public:
  explicit CapturedOutput(const std::string& path) {
    fflush(stdout);
    fflush(stderr);
    saved_out_ = dup(STDOUT_FILENO);
    saved_err_ = dup(STDERR_FILENO);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~CapturedOutput() {
    fflush(stdout);
    fflush(stderr);
    dup2(saved_out_, STDOUT_FILENO);
    dup2(saved_err_, STDERR_FILENO);
    close(saved_out_);
    close(saved_err_);
  }

 private:
  int saved_out_;
  int saved_err_;
};

TEST(SlibExec, ReturnsTheChildsExitStatus) {
  TempDir dir;
  for (int status : {0, 1, 3, 42, 255}) {
    const std::string script =
        Script(dir, "exit" + std::to_string(status), "exit " + std::to_string(status) + "\n");
    EXPECT_EQ(status, SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr));
  }
}

TEST(SlibExec, SuccessLeavesTheErrorCodeUnchanged) {
  TempDir dir;
  const std::string script = Script(dir, "fails", "exit 7\n");
  SLIBCErrSet(0x1234);
  EXPECT_EQ(7, SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0x1234, SLIBCErrGet());
}

TEST(SlibExec, MissingOrNonExecutableProgramFailsWithExecError) {
  TempDir dir;
  const std::string plain = dir.File("plain");
  WriteFile(plain, "#!/bin/sh\nexit 0\n");
  ASSERT_EQ(0, chmod(plain.c_str(), 0644));
  for (const std::string& path : {dir.File("missing"), plain, dir.path()}) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, SLIBCExec(path.c_str(), "a", nullptr, nullptr, nullptr)) << path;
    EXPECT_EQ(SLIB_ERR_EXEC, SLIBCErrGet()) << path;
  }
}

TEST(SlibExec, ProgramIsNotSearchedInPath) {
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBCExec("true", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_EXEC, SLIBCErrGet());
}

TEST(SlibExec, NullPathIsABadArgument) {
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBCExec(nullptr, "a", nullptr, nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
}

TEST(SlibExec, ChildEndedBySignalFails) {
  TempDir dir;
  const std::string script = Script(dir, "killed", "kill -9 $$\n");
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_EXEC, SLIBCErrGet());
}

TEST(SlibExec, ChildReapedElsewhereCountsAsSuccess) {
  TempDir dir;
  const std::string script = Script(dir, "exit5", "exit 5\n");
  // With SIGCHLD ignored the kernel reaps the child itself: waitpid says ECHILD.
  struct sigaction ignore = {}, saved = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(0, sigaction(SIGCHLD, &ignore, &saved));
  const int result = SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr);
  sigaction(SIGCHLD, &saved, nullptr);
  EXPECT_EQ(0, result);
}

TEST(SlibExec, PassesUpToFourArgumentsVerbatimWithoutAShell) {
  TempDir dir;
  const std::string out = dir.File("args.out");
  const std::string script = Script(dir, "args",
                                    "for a in \"$@\"; do printf '[%s]' \"$a\"; done >'" + out +
                                        "'\necho \" $#\" >>'" + out + "'\n");
  const struct {
    const char* args[4];
    const char* expected;
  } cases[] = {
      {{nullptr, nullptr, nullptr, nullptr}, " 0\n"},
      {{"stop", nullptr, nullptr, nullptr}, "[stop] 1\n"},
      {{"eth0", "mtu", "1500", nullptr}, "[eth0][mtu][1500] 3\n"},
      {{"a b", "$HOME", "`x`;y", "*"}, "[a b][$HOME][`x`;y][*] 4\n"},
      // The list ends at the first null.
      {{"one", nullptr, "three", "four"}, "[one] 1\n"},
      {{"", "two", nullptr, "four"}, "[][two] 2\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(0, SLIBCExec(script.c_str(), c.args[0], c.args[1], c.args[2], c.args[3]));
    EXPECT_EQ(c.expected, ReadFile(out));
  }
}

TEST(SlibExec, ProgramGetsItsOwnPathAsArgumentZero) {
  TempDir dir;
  const std::string out = dir.File("zero.out");
  const std::string script = Script(dir, "zero", "echo \"$0\" >'" + out + "'\n");
  EXPECT_EQ(0, SLIBCExec(script.c_str(), "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(script + "\n", ReadFile(out));
}

TEST(SlibExec, StandardStreamsAreDevNullAndNothingIsVisible) {
  TempDir dir;
  const std::string out = dir.File("streams.out");
  // The links are read while the shell's own descriptors are untouched.
  const std::string script =
      Script(dir, "streams",
             "echo to-stdout\n"
             "echo to-stderr >&2\n"
             "in=$(readlink /proc/$$/fd/0)\n"
             "out=$(readlink /proc/$$/fd/1)\n"
             "err=$(readlink /proc/$$/fd/2)\n"
             "if read -r line; then input=got-input; else input=end-of-input; fi\n"
             "printf '%s\\n' \"$in\" \"$out\" \"$err\" \"$input\" >'" +
                 out + "'\n");
  const std::string captured = dir.File("captured");
  int result;
  {
    CapturedOutput capture(captured);
    result = SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr);
  }
  EXPECT_EQ(0, result);
  EXPECT_EQ("/dev/null\n/dev/null\n/dev/null\nend-of-input\n", ReadFile(out));
  EXPECT_EQ("", ReadFile(captured));
}

TEST(SlibExec, ChildRunsInTheRootDirectory) {
  TempDir dir;
  const std::string out = dir.File("cwd.out");
  const std::string script = Script(dir, "cwd", "pwd -P >'" + out + "'\n");
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof saved));
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  const int result = SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr);
  ASSERT_EQ(0, chdir(saved));
  EXPECT_EQ(0, result);
  EXPECT_EQ("/\n", ReadFile(out));
}

TEST(SlibExec, ChildKeepsNoOtherDescriptorOfTheCaller) {
  TempDir dir;
  const std::string out = dir.File("fds.out");
  const std::string held = dir.File("held");
  WriteFile(held, "");
  // An inheritable descriptor, as a lock file opened with fopen is.
  const int fd = open(held.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  const int probe = dup2(fd, 57);
  ASSERT_EQ(57, probe);
  const std::string script =
      Script(dir, "fds",
             "if [ -e /proc/$$/fd/57 ]; then echo open; else echo closed; fi >'" + out + "'\n");
  const int result = SLIBCExec(script.c_str(), nullptr, nullptr, nullptr, nullptr);
  // The caller's own descriptor is untouched.
  EXPECT_EQ(0, fcntl(57, F_GETFD) & FD_CLOEXEC);
  close(57);
  close(fd);
  EXPECT_EQ(0, result);
  EXPECT_EQ("closed\n", ReadFile(out));
}

}  // namespace
