#include "updater/update_status.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

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
constexpr auto kAllLockPauses = std::chrono::microseconds(20 * 337);

std::vector<testing_support::SyslogRecord>& g_syslog = testing_support::SyslogRecords();

int OpenDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory stream's own descriptor
}

// Holds an exclusive flock on `path` through an open file description of its
// own, as another writer of the file would.
class OtherWriterLock {
 public:
  explicit OtherWriterLock(const char* path) : fd_(open(path, O_RDWR | O_CREAT, 0644)) {
    locked_ = fd_ >= 0 && syscall(SYS_flock, fd_, LOCK_EX | LOCK_NB) == 0;
  }
  ~OtherWriterLock() {
    if (fd_ >= 0) close(fd_);
  }
  OtherWriterLock(const OtherWriterLock&) = delete;
  OtherWriterLock& operator=(const OtherWriterLock&) = delete;
  bool locked() const { return locked_; }

 private:
  int fd_;
  bool locked_ = false;
};

// True when nobody holds a lock on `path` any more.
bool LockIsFree(const char* path) {
  OtherWriterLock probe(path);
  return probe.locked();
}

// "UPDTExecute(<line>): <rest>" -> "<rest>"; "" when the text has another shape.
std::string WithoutFunctionAndLine(const std::string& text) {
  const std::string prefix = "UPDTExecute(";
  if (text.compare(0, prefix.size(), prefix) != 0) return "";
  size_t end = prefix.size();
  while (end < text.size() && isdigit(static_cast<unsigned char>(text[end]))) ++end;
  if (end == prefix.size() || text.compare(end, 3, "): ") != 0) return "";
  return text.substr(end + 3);
}

class UpdateStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    mkdir("/var/log", 0755);
    for (const char* path : {kLog, kProgress, kMessage}) unlink(path);
    g_syslog.clear();
    g_exclusive_lock_attempts = 0;
  }
};

// ---------------------------------------------------------------- result keys

TEST_F(UpdateStatus, ResultKeyOfEveryCode) {
  const char* const expected[UPDT_RESULT_CODE_COUNT] = {
      "upgrade_success",      "error_dirop",          "error_dirop",
      "error_dirop",          "error_bootmediaop",    "error_bootmediaop",
      "error_read_ver",       "error_read_patch_ver", "error_read_mod",
      "error_read_patch_mod", "error_version",        "error_model",
      "error_company",        "error_patch",          "error_update_unknown",
      "error_update_unknown", "error_update_unknown", "error_update_unknown",
      "error_update_unknown", "error_update_unknown", "error_update_unknown",
      "error_update_unknown", "error_update_unknown", "error_memory",
      "error_reboot"};
  for (int code = 0; code < UPDT_RESULT_CODE_COUNT; ++code) {
    ASSERT_NE(gszResultKey[code], nullptr) << code;
    EXPECT_STREQ(gszResultKey[code], expected[code]) << "code " << code;
  }
}

// ---------------------------------------------------------------- update log

TEST_F(UpdateStatus, LogLineIsLocalTimeTabTextAndLineFeed) {
  const time_t before = time(nullptr);
  UPDTLog("Update started");
  const time_t after = time(nullptr);

  const std::string content = ReadFile(kLog);
  ASSERT_EQ(content.size(), 19u + 1 + strlen("Update started") + 1) << content;
  EXPECT_EQ(content.substr(19), "\tUpdate started\n");
  struct tm stamp = {};
  char rest = 0;
  ASSERT_EQ(sscanf(content.c_str(), "%4d/%2d/%2d %2d:%2d:%2d%c", &stamp.tm_year, &stamp.tm_mon,
                   &stamp.tm_mday, &stamp.tm_hour, &stamp.tm_min, &stamp.tm_sec, &rest),
            7)
      << content;
  EXPECT_EQ(rest, '\t');
  EXPECT_EQ(content[4], '/');
  EXPECT_EQ(content[7], '/');
  EXPECT_EQ(content[10], ' ');
  EXPECT_EQ(content[13], ':');
  EXPECT_EQ(content[16], ':');
  stamp.tm_year -= 1900;
  stamp.tm_mon -= 1;
  stamp.tm_isdst = -1;
  const time_t logged = mktime(&stamp);
  EXPECT_GE(logged, before - 1);
  EXPECT_LE(logged, after + 1);
}

TEST_F(UpdateStatus, LogAppendsLinesInOrder) {
  WriteFile(kLog, "old entry\n");
  UPDTLog("first");
  UPDTLog("second");
  const std::string content = ReadFile(kLog);
  ASSERT_EQ(content.size(), 10 + (20 + 5 + 1) + (20 + 6 + 1)) << content;
  EXPECT_EQ(content.substr(0, 10), "old entry\n");
  EXPECT_EQ(content.substr(10 + 19, 7), "\tfirst\n");
  EXPECT_EQ(content.substr(10 + 19 + 7 + 19), "\tsecond\n");
}

TEST_F(UpdateStatus, LogKeepsLongTextWhole) {
  const std::string text = LongText(5000, 'a');
  UPDTLog(text.c_str());
  const std::string content = ReadFile(kLog);
  ASSERT_EQ(content.size(), 19 + 1 + text.size() + 1);
  EXPECT_EQ(content.substr(20), text + "\n");
}

TEST_F(UpdateStatus, LogOfNullTextDoesNothing) {
  UPDTLog(nullptr);
  EXPECT_FALSE(FileExists(kLog));
  WriteFile(kLog, "kept\n");
  UPDTLog(nullptr);
  EXPECT_EQ(ReadFile(kLog), "kept\n");
}

TEST_F(UpdateStatus, LogTrimKeepsExactly10000Bytes) {
  const std::string content = LongText(9999, 'a') + "\n";
  WriteFile(kLog, content);
  UPDTLogTrim();
  EXPECT_EQ(ReadFile(kLog), content);
}

TEST_F(UpdateStatus, LogTrimEmptiesLogOf10001Bytes) {
  WriteFile(kLog, LongText(10000, 'a') + "\n");
  UPDTLogTrim();
  struct stat status;
  ASSERT_EQ(stat(kLog, &status), 0) << "the emptied log must still exist";
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(UpdateStatus, LogTrimLeavesMissingLogMissing) {
  UPDTLogTrim();
  EXPECT_FALSE(FileExists(kLog));
}

// ---------------------------------------------------------------- commands

TEST_F(UpdateStatus, ExecuteRunsCommandThroughShell) {
  EXPECT_EQ(UPDTExecute("echo ran > /tmp/execute.out && exit 0"), 0);
  EXPECT_EQ(ReadFile("/tmp/execute.out"), "ran\n");
  EXPECT_TRUE(g_syslog.empty());
}

TEST_F(UpdateStatus, ExecuteReportsNonZeroExitStatus) {
  struct Case {
    const char* command;
    int status;
  };
  const Case cases[] = {
      {"exit 1", 1}, {"exit 255", 255}, {"/nonexistent/program 2>/dev/null", 127}, {"false", 1}};
  for (const Case& c : cases) {
    g_syslog.clear();
    EXPECT_EQ(UPDTExecute(c.command), -1) << c.command;
    ASSERT_EQ(g_syslog.size(), 1u) << c.command;
    EXPECT_EQ(g_syslog[0].first, LOG_ERR);
    EXPECT_EQ(
        WithoutFunctionAndLine(g_syslog[0].second),
        std::string("failed to execute cmd=[") + c.command + "], ret = " + std::to_string(c.status))
        << g_syslog[0].second;
  }
}

TEST_F(UpdateStatus, ExecuteCountsCommandEndedBySignalAsSuccess) {
  EXPECT_EQ(UPDTExecute("kill -9 $$"), 0);
  EXPECT_EQ(UPDTExecute("kill -TERM $$"), 0);
  EXPECT_TRUE(g_syslog.empty());
}

TEST_F(UpdateStatus, ExecuteOfNullCommandFailsWithoutLogLine) {
  EXPECT_EQ(UPDTExecute(nullptr), -1);
  EXPECT_TRUE(g_syslog.empty());
}

// ---------------------------------------------------------------- status files

TEST_F(UpdateStatus, StatusFileIsCreatedWhenMissing) {
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status", "abc", 0), 0);
  EXPECT_EQ(ReadFile("/tmp/status"), "abc");
}

TEST_F(UpdateStatus, StatusFileIsOverwrittenFromStartNotTruncated) {
  WriteFile("/tmp/status", "0123456789\nline two\n");
  const int descriptors = OpenDescriptorCount();
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status", "abc", 1), 0);
  EXPECT_EQ(ReadFile("/tmp/status"), "abc3456789\nline two\n");
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_TRUE(LockIsFree("/tmp/status"));
  EXPECT_EQ(g_exclusive_lock_attempts, 1);
}

TEST_F(UpdateStatus, StatusFileThatCannotBeOpenedGivesMinusOne) {
  ASSERT_EQ(mkdir("/tmp/status.dir", 0755), 0);
  const int descriptors = OpenDescriptorCount();
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status.dir", "abc", 1), -1);
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/no/such/dir/status", "abc", 1), -1);
  EXPECT_EQ(UPDTWriteStatusFile(nullptr, "abc", 1), -1);
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  EXPECT_FALSE(FileExists("/tmp/no"));
}

TEST_F(UpdateStatus, StatusFileLockedByOtherWriterGivesUpAfter21Attempts) {
  WriteFile("/tmp/status", "held by another writer");
  OtherWriterLock other("/tmp/status");
  ASSERT_TRUE(other.locked());
  const int descriptors = OpenDescriptorCount();
  g_exclusive_lock_attempts = 0;

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status", "lost", 1), -2);
  const auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(g_exclusive_lock_attempts, 21);
  EXPECT_GE(elapsed, kAllLockPauses);
  EXPECT_LT(elapsed, std::chrono::seconds(1));
  EXPECT_EQ(ReadFile("/tmp/status"), "held by another writer");
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST_F(UpdateStatus, StatusFileLockedWithoutRetryGivesUpAtFirstAttempt) {
  WriteFile("/tmp/status", "held by another writer");
  OtherWriterLock other("/tmp/status");
  ASSERT_TRUE(other.locked());
  const int descriptors = OpenDescriptorCount();
  g_exclusive_lock_attempts = 0;

  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status", "lost", 0), -2);

  EXPECT_EQ(g_exclusive_lock_attempts, 1);
  EXPECT_EQ(ReadFile("/tmp/status"), "held by another writer");
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
}

TEST_F(UpdateStatus, StatusFileWriteFailureGivesMinusThreeAndUnlocks) {
  // A file system of one page, filled up: the status text finds no room.
  mkdir("/full", 0755);
  if (mount("tmpfs", "/full", "tmpfs", 0, "size=4k") != 0) {
    GTEST_SKIP() << "cannot mount a small file system: " << strerror(errno);
  }
  WriteFile("/full/status", "");
  {
    FILE* filler = fopen("/full/filler", "w");
    ASSERT_NE(filler, nullptr);
    const std::string page(4096, 'f');
    fwrite(page.data(), 1, page.size(), filler);
    fclose(filler);
  }
  const int descriptors = OpenDescriptorCount();

  EXPECT_EQ(UPDTWriteStatusFile("/full/status", LongText(100, 'a').c_str(), 1), -3);

  EXPECT_EQ(ReadFile("/full/status"), "");
  EXPECT_TRUE(LockIsFree("/full/status"));
  EXPECT_EQ(OpenDescriptorCount(), descriptors);
  umount2("/full", MNT_DETACH);
}

TEST_F(UpdateStatus, StatusFileOfNullTextGivesMinusThree) {
  EXPECT_EQ(UPDTWriteStatusFile("/tmp/status", nullptr, 1), -3);
}

// ---------------------------------------------------------------- progress

TEST_F(UpdateStatus, ProgressRecordIsLetterValueAndSixBlanks) {
  UPDTSetProgress('A', 0);
  EXPECT_EQ(ReadFile(kProgress), "A:0:      ");
}

TEST_F(UpdateStatus, ProgressRecordOverwritesLongerOneInPlace) {
  UPDTSetProgress('P', 100);
  EXPECT_EQ(ReadFile(kProgress), "P:100:      ");
  UPDTSetProgress('C', 0);
  // Ten new bytes over twelve old ones: the old record's last two blanks stay.
  EXPECT_EQ(ReadFile(kProgress), "C:0:        ");
}

TEST_F(UpdateStatus, ProgressRecordKeepsSignOfNegativeValue) {
  UPDTSetProgress('A', -1);
  EXPECT_EQ(ReadFile(kProgress), "A:-1:      ");
  UPDTSetProgress('P', -20);
  EXPECT_EQ(ReadFile(kProgress), "P:-20:      ");
  UPDTSetProgress('R', 0);
  EXPECT_EQ(ReadFile(kProgress), "R:0:        ");
}

TEST_F(UpdateStatus, ProgressRecordOfLargestValuesIsWhole) {
  UPDTSetProgress('P', INT_MIN);
  EXPECT_EQ(ReadFile(kProgress), "P:-2147483648:      ");
}

TEST_F(UpdateStatus, ProgressRecordLeavesTailOfOlderContent) {
  WriteFile(kProgress, "XXXXXXXXXXXXXXXXXXXXXXXX");
  UPDTSetProgress('R', 0);
  EXPECT_EQ(ReadFile(kProgress), "R:0:      XXXXXXXXXXXXXX");
}

TEST_F(UpdateStatus, ProgressRecordIsLostWhileOtherWriterHoldsLock) {
  UPDTSetProgress('P', 60);
  OtherWriterLock other(kProgress);
  ASSERT_TRUE(other.locked());
  g_exclusive_lock_attempts = 0;
  UPDTSetProgress('P', 100);
  EXPECT_EQ(g_exclusive_lock_attempts, 21);
  EXPECT_EQ(ReadFile(kProgress), "P:60:      ");
}

// ---------------------------------------------------------------- message

TEST_F(UpdateStatus, MessageIsKeyEqualsQuotedValueWithoutLineFeed) {
  UPDTSetMessage("extramsg", "Congratulation!! The update has been completed!!");
  EXPECT_EQ(ReadFile(kMessage), "extramsg=\"Congratulation!! The update has been completed!!\"");
}

TEST_F(UpdateStatus, ShorterMessageLeavesTailOfLongerOne) {
  UPDTSetMessage("extramsg", "a rather long message");
  UPDTSetMessage("extramsg", "short");
  EXPECT_EQ(ReadFile(kMessage), "extramsg=\"short\"er long message\"");
}

TEST_F(UpdateStatus, MessageIsCutTo1023Characters) {
  const std::string value = LongText(2000, 'a');
  UPDTSetMessage("k", value.c_str());
  const std::string content = ReadFile(kMessage);
  ASSERT_EQ(content.size(), 1023u);
  EXPECT_EQ(content, "k=\"" + value.substr(0, 1020));
}

TEST_F(UpdateStatus, MessageWithNullKeyOrValueWritesNothing) {
  UPDTSetMessage(nullptr, "value");
  UPDTSetMessage("key", nullptr);
  EXPECT_FALSE(FileExists(kMessage));
}

}  // namespace
