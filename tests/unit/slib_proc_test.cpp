#include "lib/slib_proc.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "lib/slib_error.h"
#include "test_support.h"

namespace {

using testing_support::TempDir;
using testing_support::WriteFile;

// The name a listing of this process had before listings got unique names.
std::string TempListingPath() { return "/tmp/tempSLIBPs" + std::to_string(getpid()); }

// True when a listing file of this process is left in /tmp.
bool ListingLeft() {
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    if (entry.path().string().rfind(TempListingPath(), 0) == 0) return true;
  }
  return false;
}

// Starts `program` with a long sleep and returns once it has been exec'd, so
// that the process list already shows its own name.
pid_t StartSleeper(const std::string& program) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    execl(program.c_str(), program.c_str(), "300", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipe_fds[1]);
  char ignored;
  // The write end closes on exec (or on _exit when exec failed).
  while (read(pipe_fds[0], &ignored, 1) < 0 && errno == EINTR) {
  }
  close(pipe_fds[0]);
  return pid;
}

TEST(SlibProc, ReadPidParsesLeadingNumber) {
  TempDir dir;
  const struct {
    const char* content;
    int expected;
  } cases[] = {
      {"1234\n", 1234}, {"42", 42}, {"  77\n", 77}, {"99 trailing\n", 99},
      {"0\n", 0},       {"", 0},    {"abc\n", 0},   {"\n", 0},
  };
  for (const auto& c : cases) {
    const std::string path = dir.File("daemon.pid");
    WriteFile(path, c.content);
    EXPECT_EQ(SLIBProcReadPid(path.c_str()), c.expected) << "content [" << c.content << "]";
  }
}

TEST(SlibProc, ReadPidFailsForMissingFileOrNullPath) {
  TempDir dir;
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBProcReadPid(dir.File("missing.pid").c_str()), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OPEN);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBProcReadPid(nullptr), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
}

TEST(SlibProc, IsAliveTrueForOwnPid) {
  TempDir dir;
  const std::string path = dir.File("self.pid");
  WriteFile(path, std::to_string(getpid()) + "\n");
  EXPECT_EQ(SLIBProcIsAlive(path.c_str()), 1);
}

TEST(SlibProc, IsAliveFalseForReapedChild) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  TempDir dir;
  const std::string path = dir.File("gone.pid");
  WriteFile(path, std::to_string(child) + "\n");
  EXPECT_EQ(SLIBProcReadPid(path.c_str()), child);
  EXPECT_EQ(SLIBProcIsAlive(path.c_str()), 0);
}

TEST(SlibProc, IsAliveFalseWithoutUsablePid) {
  TempDir dir;
  WriteFile(dir.File("empty.pid"), "");
  WriteFile(dir.File("zero.pid"), "0\n");
  WriteFile(dir.File("text.pid"), "running\n");
  EXPECT_EQ(SLIBProcIsAlive(dir.File("empty.pid").c_str()), 0);
  EXPECT_EQ(SLIBProcIsAlive(dir.File("zero.pid").c_str()), 0);
  EXPECT_EQ(SLIBProcIsAlive(dir.File("text.pid").c_str()), 0);
  EXPECT_EQ(SLIBProcIsAlive(dir.File("missing.pid").c_str()), 0);
  EXPECT_EQ(SLIBProcIsAlive(nullptr), 0);
}

TEST(SlibProc, FileIsRegularOnlyForRegularFilesThroughLinks) {
  TempDir dir;
  WriteFile(dir.File("file"), "x");
  ASSERT_EQ(mkdir(dir.File("dir").c_str(), 0755), 0);
  ASSERT_EQ(symlink("file", dir.File("link-to-file").c_str()), 0);
  ASSERT_EQ(symlink("dir", dir.File("link-to-dir").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", dir.File("dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(dir.File("fifo").c_str(), 0600), 0);
  const struct {
    const char* name;
    int expected;
  } cases[] = {
      {"file", 1},     {"link-to-file", 1}, {"dir", 0},     {"link-to-dir", 0},
      {"dangling", 0}, {"fifo", 0},         {"missing", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SLIBFileIsRegular(dir.File(c.name).c_str()), c.expected) << c.name;
  }
  EXPECT_EQ(SLIBFileIsRegular(nullptr), 0);
}

TEST(SlibProc, CountByNameRejectsEmptyNullOrQuotedName) {
  const char* bad_names[] = {nullptr, "", "it's"};
  for (const char* name : bad_names) {
    SLIBCErrSet(0);
    EXPECT_EQ(SLIBProcCountByName(name), -1) << (name ? name : "(null)");
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << (name ? name : "(null)");
  }
}

TEST(SlibProc, CountByNameSeesRunningProcessAndNotItsOwnSearch) {
  const std::string why = testing_support::EnterPrivateTmp();
  if (!why.empty()) GTEST_SKIP() << why;
  if (access("/bin/ps", X_OK) != 0) GTEST_SKIP() << "/bin/ps is missing";

  TempDir dir;
  const std::string name = "slibproctest_sleeper_" + std::to_string(getpid());
  const std::string program = dir.File(name);
  std::error_code error;
  std::filesystem::copy_file("/bin/sleep", program, error);
  ASSERT_FALSE(error) << error.message();
  ASSERT_EQ(chmod(program.c_str(), 0755), 0);

  EXPECT_EQ(SLIBProcCountByName(name.c_str()), 0);
  const pid_t sleeper = StartSleeper(program);
  ASSERT_GT(sleeper, 0);
  ASSERT_EQ(waitpid(sleeper, nullptr, WNOHANG), 0) << "the sleeper did not start";
  EXPECT_EQ(SLIBProcCountByName(name.c_str()), 1);
  EXPECT_FALSE(ListingLeft());

  ASSERT_EQ(kill(sleeper, SIGKILL), 0);
  ASSERT_EQ(waitpid(sleeper, nullptr, 0), sleeper);
  EXPECT_EQ(SLIBProcCountByName(name.c_str()), 0);
  EXPECT_FALSE(ListingLeft());
}

TEST(SlibProc, CountByNameIgnoresPlantedLinkAndFailsWithoutWritableTmp) {
  const std::string why = testing_support::EnterPrivateTmp();
  if (!why.empty()) GTEST_SKIP() << why;
  if (access("/bin/ps", X_OK) != 0) GTEST_SKIP() << "/bin/ps is missing";

  // A link at the name a listing of this process would have had is not
  // followed: its target is never written.
  ASSERT_EQ(symlink("/tmp/planted", TempListingPath().c_str()), 0);
  EXPECT_GE(SLIBProcCountByName("init"), 0);
  EXPECT_FALSE(testing_support::FileExists("/tmp/planted"));
  EXPECT_EQ(unlink(TempListingPath().c_str()), 0);

  // No listing can be made: reading fails.
  ASSERT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBProcCountByName("init"), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_READ);
  ASSERT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT, nullptr), 0);
}

}  // namespace
