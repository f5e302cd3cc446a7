#include "lib/slib_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/slib_error.h"
#include "test_support.h"

namespace {

constexpr int kExNb = SLIB_LOCK_EX | SLIB_LOCK_NB;
constexpr int kPw = SLIB_LOCK_PW, kGr = SLIB_LOCK_GR, kSmb = SLIB_LOCK_SMB;

// In acquisition order.
const std::vector<std::pair<int, std::string>> kLockFiles = {
    {0x800, "veltinfo"},  {0x10, "pw"},          {0x20, "gr"},          {0x80, "rc"},
    {0x100, "host"},      {0x40, "smb"},         {0x200, "exports"},    {0x400, "nw"},
    {0x1000, "apple"},    {0x2000, "snmp"},      {0x4000, "win"},       {0x8000, "tapebkp"},
    {0x10000, "connect"}, {0x20000, "usbidmap"}, {0x40000, "duseruid"}, {0x80000, "dusergid"},
    {0x100000, "fstab"},  {0x200000, "hotswap"}};

// Another holder of `path` (an open file of its own): -1 when it cannot get it.
int Hold(const std::string& name, int operation = LOCK_EX) {
  const int fd = open(("/tmp/lock/lock_" + name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0 && flock(fd, operation | LOCK_NB) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

// The locks another holder cannot take now with `operation`.
int Busy(int operation = LOCK_EX) {
  int busy = 0;
  for (const auto& file : kLockFiles) {
    const int fd = Hold(file.second, operation);
    if (fd < 0) busy |= file.first;
    if (fd >= 0) close(fd);
  }
  return busy;
}

int InChild(int (*body)()) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SlibLock : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterPrivateTmp();
    if (!why.empty()) GTEST_SKIP() << why;
    std::error_code ignored;
    std::filesystem::remove_all("/tmp/lock", ignored);
    SLIBCErrSet(0);
  }
  void TearDown() override { SLIBFileUnlockAll(); }
};

TEST_F(SlibLock, EachBitLocksItsFileInTheDirectoryMadeFirst) {
  const mode_t saved_umask = umask(0077);
  ASSERT_EQ(0, ErrSLIBFileLock(SLIB_LOCK_HOTSWAP | kExNb, 0));
  umask(saved_umask);
  struct stat st;
  ASSERT_EQ(0, stat("/tmp/lock", &st));
  EXPECT_EQ(040755u, st.st_mode & 0177777);
  EXPECT_EQ(SLIB_LOCK_HOTSWAP, Busy());
  ASSERT_EQ(0, ErrSLIBFileUnlock(SLIB_LOCK_HOTSWAP));
  int all = 0;
  for (const auto& file : kLockFiles) {
    EXPECT_EQ("", testing_support::ReadFile("/tmp/lock/lock_" + file.second));
    ASSERT_EQ(0, ErrSLIBFileLock(file.first | kExNb, 0));
    EXPECT_EQ(file.first, Busy()) << file.second;
    ASSERT_EQ(0, ErrSLIBFileUnlock(file.first));
    all |= file.first;
  }
  ASSERT_EQ(0, ErrSLIBFileLock(all | SLIB_LOCK_SH, 0));
  EXPECT_EQ(all, Busy());
  EXPECT_EQ(0, Busy(LOCK_SH));
  ASSERT_EQ(0, ErrSLIBFileUnlock(all));
  EXPECT_EQ(0, Busy());
  // A lost file is made again, the others keep their content.
  ASSERT_EQ(0, unlink("/tmp/lock/lock_fstab"));
  testing_support::WriteFile("/tmp/lock/lock_pw", "kept");
  ASSERT_EQ(0, ErrSLIBFileLock(kGr | kExNb, 0));
  EXPECT_EQ("", testing_support::ReadFile("/tmp/lock/lock_fstab"));
  EXPECT_EQ("kept", testing_support::ReadFile("/tmp/lock/lock_pw"));
}

TEST_F(SlibLock, BusyLocksAreRetriedEvery50msUntilTheTimeOut) {
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | kExNb, 0));
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  static int holder = Hold("smb");
  {
    testing_support::PauseRecorder recorder;
    EXPECT_EQ(-1, ErrSLIBFileLock(kPw | kSmb | kExNb, 1));
    EXPECT_EQ(SLIB_ERR_LOCK, SLIBCErrGet());
    EXPECT_EQ(std::vector<unsigned int>(21, 50000), recorder.pauses);  // 0 to 100 hundredths
    EXPECT_EQ(kSmb, Busy());
    EXPECT_EQ(-1, ErrSLIBFileLock(kPw | kSmb | kExNb, 0));
    EXPECT_EQ(21u, recorder.pauses.size());
  }
  testing_support::PauseRecorder recorder([](size_t pauses) {
    if (pauses == 3) close(holder);
  });
  EXPECT_EQ(0, ErrSLIBFileLock(kPw | kSmb | kExNb, 1));
  EXPECT_EQ(4u, recorder.pauses.size());
  EXPECT_EQ(kPw | kSmb, Busy());
}

TEST_F(SlibLock, NestedLocksNeedAsManyUnlocksAndFailuresGiveBackWhatTheyTook) {
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | kExNb, 0));
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | kExNb, 0));
  const int holder = Hold("gr");
  EXPECT_EQ(-1, ErrSLIBFileLock(SLIB_LOCK_VELTINFO | kPw | kGr | kSmb | kExNb, 0));
  EXPECT_EQ(SLIB_ERR_LOCK, SLIBCErrGet());
  EXPECT_EQ(kPw | kGr, Busy());
  close(holder);
  EXPECT_EQ(-1, ErrSLIBFileLock(0x1000000 | kGr | kExNb, 0));  // a bit outside the table
  EXPECT_EQ(kPw, Busy());
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(kPw, Busy());
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(0, Busy());
}

TEST_F(SlibLock, ExclusiveRequestOnOwnSharedLockIsRefusedAtOnce) {
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | SLIB_LOCK_SH | SLIB_LOCK_NB, 0));
  testing_support::PauseRecorder recorder;
  EXPECT_EQ(-1, ErrSLIBFileLock(SLIB_LOCK_VELTINFO | kPw | kExNb, 5));
  EXPECT_EQ(SLIB_ERR_LOCK, SLIBCErrGet());
  EXPECT_TRUE(recorder.pauses.empty());
  EXPECT_EQ(kPw, Busy());
  EXPECT_EQ(0, Busy(LOCK_SH));
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(0, Busy());
}

TEST_F(SlibLock, UnlockAllAndKeepAreForChildrenAfterFork) {
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | kGr | kSmb | kExNb, 0));
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | kGr | kExNb, 0));
  // Without it the child inherits the table and believes it holds the locks.
  EXPECT_EQ(0, InChild([] { return ErrSLIBFileLock(kPw | kExNb, 0); }));
  EXPECT_EQ(0, InChild([] {
              return SLIBFileUnlockAll() == 0 && ErrSLIBFileLock(kPw | kExNb, 0) == -1 &&
                             SLIBCErrGet() == SLIB_ERR_LOCK
                         ? 0
                         : 1;
            }));
  EXPECT_EQ(kPw | kGr | kSmb, Busy());
  EXPECT_EQ(0, SLIBFileLockKeep(kPw | kSmb | SLIB_LOCK_HOST));
  EXPECT_EQ(kPw | kSmb, Busy());
  EXPECT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(kSmb, Busy());
  EXPECT_EQ(0, SLIBFileUnlockAll());
  EXPECT_EQ(0, Busy());
}

TEST_F(SlibLock, UnusableLockDirectoryOrFileFails) {
  testing_support::WriteFile("/tmp/lock", "not a directory");
  EXPECT_EQ(-1, ErrSLIBFileLock(kPw | kExNb, 0));
  EXPECT_EQ(SLIB_ERR_LOCK_DIR, SLIBCErrGet());
  EXPECT_EQ("not a directory", testing_support::ReadFile("/tmp/lock"));
  ASSERT_EQ(0, unlink("/tmp/lock"));
  ASSERT_EQ(0, mkdir("/tmp/lock", 0755));
  ASSERT_EQ(0, mkdir("/tmp/lock/lock_smb", 0755));
  EXPECT_EQ(-1, ErrSLIBFileLock(kPw | kExNb, 0));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
}

}  // namespace
