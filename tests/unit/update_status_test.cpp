#include "updater/update_status.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
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

// Holds an exclusive flock on `path` through an open file description of its
// own, as another writer of the file would.
class OtherWriterLock {
 public:
  explicit OtherWriterLock(const char* path) : fd_(open(path, O_RDWR | O_CREAT, 0644)) {
    locked_ = fd_ >= 0 && syscall(SYS_flock, fd_, LOCK_EX | LOCK_NB) == 0;
  }
  ~OtherWriterLock() { close(fd_); }
  bool locked() const { return locked_; }

 private:
  int fd_;
  bool locked_ = false;
};

bool LockIsFree(const char* path) { return OtherWriterLock(path).locked(); }

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

TEST_F(UpdateStatus, ExecuteJudgesOnlyTheExitStatus) {
  const struct {
    const char* command;
    int status;  // logged; 0 for success
  } kCases[] = {{"echo ran > /tmp/execute.out", 0}, {"exit 1", 1}, {"exit 255", 255},
                {"/nonexistent/program 2>/dev/null", 127}, {"kill -9 $$", 0}};
  for (const auto& row : kCases) {
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(row.status == 0 ? 0 : -1, UPDTExecute(row.command)) << row.command;
    const std::string line = std::string("UPDTExecute(N): failed to execute cmd=[") +
                             row.command + "], ret = " + std::to_string(row.status);
    EXPECT_EQ(row.status == 0 ? Lines() : Lines{line}, testing_support::LoggedMessages(LOG_ERR));
  }
  EXPECT_EQ("ran\n", ReadFile("/tmp/execute.out"));
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
  OtherWriterLock other(kProgress);
  ASSERT_TRUE(other.locked());
  for (int retry : {1, 0}) {
    g_exclusive_lock_attempts = 0;
    EXPECT_EQ(-2, UPDTWriteStatusFile(kProgress, "lost", retry));
    EXPECT_EQ(retry ? 21 : 1, g_exclusive_lock_attempts);
  }
  UPDTSetProgress('P', 100);
  EXPECT_EQ(1 + 21, g_exclusive_lock_attempts);
  EXPECT_EQ("P:60:      ", ReadFile(kProgress));
}

TEST_F(UpdateStatus, StatusFileWithoutRoomGivesMinusThreeAndUnlocks) {
  mkdir("/full", 0755);
  if (mount("tmpfs", "/full", "tmpfs", 0, "size=4k") != 0) {
    GTEST_SKIP() << "cannot mount a small file system: " << strerror(errno);
  }
  WriteFile("/full/status", "");
  WriteFile("/full/filler", std::string(4096, 'f'));
  EXPECT_EQ(-3, UPDTWriteStatusFile("/full/status", LongText(100, 'a').c_str(), 1));
  EXPECT_EQ("", ReadFile("/full/status"));
  EXPECT_TRUE(LockIsFree("/full/status"));
  umount2("/full", MNT_DETACH);
}

TEST_F(UpdateStatus, ProgressAndMessageOverwriteTheStartOfTheOldRecord) {
  const struct {
    const char* before;
    char letter;
    int value;
    const char* after;
  } kProgressCases[] = {{"", 'A', 0, "A:0:      "},
                        {"P:100:      ", 'C', -1, "C:-1:       "},
                        {"XXXXXXXXXXXXXXXXXXXXXXXX", 'R', 0, "R:0:      XXXXXXXXXXXXXX"},
                        {"", 'P', INT_MIN, "P:-2147483648:      "}};
  for (const auto& row : kProgressCases) {
    WriteFile(kProgress, row.before);
    UPDTSetProgress(row.letter, row.value);
    EXPECT_EQ(row.after, ReadFile(kProgress));
  }
  UPDTSetMessage("extramsg", "a rather long message");
  UPDTSetMessage("extramsg", "short");
  EXPECT_EQ("extramsg=\"short\"er long message\"", ReadFile(kMessage));
  const std::string value = LongText(2000, 'a');
  UPDTSetMessage("k", value.c_str());
  EXPECT_EQ("k=\"" + value.substr(0, 1020), ReadFile(kMessage));  // 1023 characters
}

}  // namespace
