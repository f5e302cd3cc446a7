#include "updater/update_status.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log_lines.h"
#include "test_support.h"

using testing_support::FileExists;
using testing_support::LongText;
using testing_support::ReadFile;
using testing_support::WriteFile;

namespace {

// Every non-blocking exclusive lock attempt of the test program is counted
// here (the real call is made through the system call).
int g_exclusive_lock_attempts = 0;

}  // namespace

extern "C" int flock(int fd, int operation) __THROW {
  if (operation == (LOCK_EX | LOCK_NB)) ++g_exclusive_lock_attempts;
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

constexpr char kLog[] = "/var/log/veltupdate.log";
constexpr char kProgress[] = "/tmp/update.progress";
constexpr char kMessage[] = "/tmp/update.message";
constexpr char kStatus[] = "/tmp/status";
using Lines = std::vector<std::string>;

// Another writer's exclusive lock on `path` through an open file description
// of its own: the descriptor, or -1 when the lock is held already.
int LockAsAnotherWriter(const char* path) {
  const int fd = open(path, O_RDWR | O_CREAT, 0644);
  if (syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) == 0) return fd;
  close(fd);
  return -1;
}

bool LockIsFree(const char* path) { return close(LockAsAnotherWriter(path)) == 0; }

std::string Stamp(time_t when) {
  char text[32];
  struct tm local;
  strftime(text, sizeof(text), "%Y/%m/%d %H:%M:%S", localtime_r(&when, &local));
  return text;
}

class UpdateStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    mkdir("/var/log", 0755);
    for (const char* path : {kLog, kProgress, kMessage, kStatus}) unlink(path);
    testing_support::SyslogRecords().clear();
    g_exclusive_lock_attempts = 0;
  }
};

TEST_F(UpdateStatus, LogAppendsLocalTimeTabTextLines) {
  WriteFile(kLog, "old entry\n");
  const std::string text = LongText(5000, 'a');
  const time_t before = time(nullptr);
  UPDTLog("first");
  UPDTLog(text.c_str());
  UPDTLog(nullptr);
  const std::string log = ReadFile(kLog);
  ASSERT_EQ(10u + 26 + 20 + text.size() + 1, log.size()) << log;
  const std::string stamp = log.substr(10, 19);
  EXPECT_TRUE(stamp == Stamp(before) || stamp == Stamp(time(nullptr))) << stamp;
  EXPECT_EQ("old entry\n" + stamp + "\tfirst\n", log.substr(0, 36));
  EXPECT_EQ("\t" + text + "\n", log.substr(36 + 19));
}

TEST_F(UpdateStatus, LogTrimEmptiesALogOfMoreThan10000Bytes) {
  UPDTLogTrim();
  EXPECT_FALSE(FileExists(kLog));
  for (size_t size : {10000, 10001}) {
    const std::string log = LongText(size - 1, 'a') + "\n";
    WriteFile(kLog, log);
    UPDTLogTrim();
    EXPECT_EQ(size == 10000 ? log : "", ReadFile(kLog));
  }
}

// The result of the command and the lines it logged.
std::string Execute(const char* command) {
  testing_support::SyslogRecords().clear();
  std::string result = std::to_string(UPDTExecute(command));
  for (const std::string& line : testing_support::LoggedMessages()) result += " " + line;
  return result;
}

TEST_F(UpdateStatus, ExecuteJudgesOnlyTheExitStatus) {
  const std::string kFailed = "-1 UPDTExecute(N): failed to execute cmd=[";
  EXPECT_EQ("0", Execute("echo ran > /tmp/execute.out"));
  EXPECT_EQ("ran\n", ReadFile("/tmp/execute.out"));
  EXPECT_EQ(kFailed + "exit 1], ret = 1", Execute("exit 1"));
  EXPECT_EQ(kFailed + "exit 255], ret = 255", Execute("exit 255"));
  EXPECT_EQ(kFailed + "/none 2>&-], ret = 127", Execute("/none 2>&-"));
  EXPECT_EQ("0", Execute("kill -9 $$"));  // ended by a signal
}

TEST_F(UpdateStatus, FormatCommandRefusesAndLogsACommandThatDoesNotFit) {
  char command[8];
  EXPECT_EQ(1, UPDTFormatCommand(command, sizeof(command), "main", 12, "%s-%d", "abcd", 10));
  EXPECT_STREQ("abcd-10", command);
  EXPECT_EQ(0, UPDTFormatCommand(command, sizeof(command), "main", 12, "%s-%d", "abcd", 100));
  EXPECT_EQ(Lines{"main(N): command too long [abcd-100]"}, testing_support::LoggedMessages());
}

TEST_F(UpdateStatus, StatusFileIsRewrittenFromItsStartUnderALock) {
  EXPECT_EQ(0, UPDTWriteStatusFile(kStatus, "0123456789\nline two\n", 0));  // created
  EXPECT_EQ(0, UPDTWriteStatusFile(kStatus, "abc", 1));
  EXPECT_EQ("abc3456789\nline two\n", ReadFile(kStatus));
  EXPECT_TRUE(LockIsFree(kStatus));
  EXPECT_EQ(2, g_exclusive_lock_attempts);
  EXPECT_EQ(-3, UPDTWriteStatusFile(kStatus, nullptr, 1));
  ASSERT_EQ(0, mkdir("/tmp/status.dir", 0755));
  EXPECT_EQ(-1, UPDTWriteStatusFile("/tmp/status.dir", "abc", 1));
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

TEST_F(UpdateStatus, ProgressAndMessageOverwriteTheStartOfTheOldRecord) {
  const auto progress = [](const char* before, char letter, int value) {
    WriteFile(kProgress, before);
    UPDTSetProgress(letter, value);
    return ReadFile(kProgress);
  };
  EXPECT_EQ("A:0:      ", progress("", 'A', 0));
  EXPECT_EQ("C:-1:       ", progress("P:100:      ", 'C', -1));
  EXPECT_EQ("R:0:      XXXXXXXXXXXXXX", progress("XXXXXXXXXXXXXXXXXXXXXXXX", 'R', 0));
  EXPECT_EQ("P:-2147483648:      ", progress("", 'P', INT_MIN));
  UPDTSetMessage("extramsg", "a rather long message");
  UPDTSetMessage("extramsg", "short");
  EXPECT_EQ("extramsg=\"short\"er long message\"", ReadFile(kMessage));
  const std::string value = LongText(2000, 'a');
  UPDTSetMessage("k", value.c_str());
  EXPECT_EQ("k=\"" + value.substr(0, 1020), ReadFile(kMessage));  // 1023 characters
}

}  // namespace
