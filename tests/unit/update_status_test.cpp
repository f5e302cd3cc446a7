#include "updater/update_status.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "log_lines.h"
#include "test_support.h"

using testing_support::ReadFile;
using testing_support::WriteFile;

// Every non-blocking exclusive lock attempt of the test program is counted
// here (the real call is made through the system call).
static int g_exclusive_lock_attempts = 0;

extern "C" int flock(int fd, int operation) __THROW {
  if (operation == (LOCK_EX | LOCK_NB)) ++g_exclusive_lock_attempts;
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

constexpr char kLog[] = "/var/log/veltupdate.log";
constexpr char kProgress[] = "/tmp/update.progress";
constexpr char kMessage[] = "/tmp/update.message";

// Another writer's exclusive lock on `path` through an open file description
// of its own: the descriptor, or -1 when the lock is held already.
int LockAsAnotherWriter(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT, 0644);
  if (syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) == 0) return fd;
  close(fd);
  return -1;
}

class UpdateStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    mkdir("/var/log", 0755);
    for (const char* path : {kLog, kProgress, kMessage}) unlink(path);
    testing_support::SyslogRecords().clear();
    g_exclusive_lock_attempts = 0;
  }
};

TEST_F(UpdateStatus, LogAppendsLocalTimeTabTextLinesAndTrimEmptiesItBeyond10000Bytes) {
  WriteFile(kLog, "old entry\n");
  const std::string text = testing_support::LongText(300, 'a');
  UPDTLog("first");
  UPDTLog(text.c_str());
  UPDTLog(nullptr);
  const std::string kStamp = "\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\t";  // local time
  EXPECT_TRUE(std::regex_match(
      ReadFile(kLog), std::regex("old entry\n" + kStamp + "first\n" + kStamp + text + "\n")));
  // Trimming empties a log of more than 10000 bytes.
  unlink(kLog);
  UPDTLogTrim();
  EXPECT_FALSE(testing_support::FileExists(kLog));
  WriteFile(kLog, testing_support::LongText(10000, 'a'));
  UPDTLogTrim();
  EXPECT_EQ(10000u, ReadFile(kLog).size());
  WriteFile(kLog, testing_support::LongText(10001, 'a'));
  UPDTLogTrim();
  EXPECT_EQ("", ReadFile(kLog));
}

// The result of the command and the lines it logged.
std::string Execute(const char* command) {
  testing_support::SyslogRecords().clear();
  std::string result = std::to_string(UPDTExecute(command));
  for (const std::string& line : testing_support::LoggedMessages()) result += " " + line;
  return result;
}

TEST_F(UpdateStatus, CommandsAreJudgedByExitStatusAndMustFitTheirBuffer) {
  const std::string kFailed = "-1 UPDTExecute(N): failed to execute cmd=[";
  EXPECT_EQ("0", Execute("echo ran > /tmp/execute.out"));
  EXPECT_EQ("ran\n", ReadFile("/tmp/execute.out"));
  EXPECT_EQ(kFailed + "exit 1], ret = 1", Execute("exit 1"));
  EXPECT_EQ(kFailed + "/none 2>&-], ret = 127", Execute("/none 2>&-"));
  EXPECT_EQ("0", Execute("kill -9 $$"));  // ended by a signal
  char command[8];
  EXPECT_EQ(1, UPDTFormatCommand(command, sizeof(command), "main", 12, "%s-%d", "abcd", 10));
  EXPECT_STREQ("abcd-10", command);
  EXPECT_EQ(0, UPDTFormatCommand(command, sizeof(command), "main", 12, "%s-%d", "abcd", 100));
  EXPECT_EQ(std::vector<std::string>{"main(N): command too long [abcd-100]"},
            testing_support::LoggedMessages());
}

TEST_F(UpdateStatus, StatusFileIsRewrittenFromItsStartUnderALock) {
  EXPECT_EQ(0, UPDTWriteStatusFile(kProgress, "0123456789\nline two\n", 0));  // created
  EXPECT_EQ(0, UPDTWriteStatusFile(kProgress, "abc", 1));
  EXPECT_EQ("abc3456789\nline two\n", ReadFile(kProgress));
  EXPECT_EQ(0, close(LockAsAnotherWriter(kProgress)));  // unlocked
  EXPECT_EQ(2, g_exclusive_lock_attempts);
  EXPECT_EQ(-3, UPDTWriteStatusFile(kProgress, nullptr, 1));
  EXPECT_EQ(-1, UPDTWriteStatusFile("/tmp", "abc", 1));
  EXPECT_EQ(-1, UPDTWriteStatusFile("/tmp/no/such/dir/status", "abc", 1));
}

TEST_F(UpdateStatus, StatusFileLockedByAnotherWriterIsLeftAfter21Or1Attempts) {
  WriteFile(kProgress, "P:60:      ");
  const int other = LockAsAnotherWriter(kProgress);
  ASSERT_GE(other, 0);
  for (int retry : {1, 0}) {
    g_exclusive_lock_attempts = 0;
    EXPECT_EQ(-2, UPDTWriteStatusFile(kProgress, "lost", retry));
    EXPECT_EQ(retry ? 21 : 1, g_exclusive_lock_attempts);
  }
  UPDTSetProgress('P', 100);
  EXPECT_EQ(1 + 21, g_exclusive_lock_attempts);
  EXPECT_EQ("P:60:      ", ReadFile(kProgress));
  close(other);
}

TEST_F(UpdateStatus, MessageOverwritesTheStartOfTheOldOne) {
  UPDTSetMessage("extramsg", "a rather long message");
  UPDTSetMessage("extramsg", "short");
  EXPECT_EQ("extramsg=\"short\"er long message\"", ReadFile(kMessage));
}

}  // namespace
