#include "lib/slib_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "test_support.h"

namespace {

using testing_support::Failure;
using testing_support::InOrder;
using testing_support::ReadFile;
using testing_support::WithError;

constexpr int kExNb = SLIB_LOCK_EX | SLIB_LOCK_NB;
constexpr int kPw = SLIB_LOCK_PW, kGr = SLIB_LOCK_GR, kSmb = SLIB_LOCK_SMB;
const std::pair<int, int> kLocked = {-1, SLIB_ERR_LOCK};

// In acquisition order.
const std::pair<int, std::string> kLockFiles[] = {
    {0x800, "veltinfo"},  {0x10, "pw"},          {0x20, "gr"},          {0x80, "rc"},
    {0x100, "host"},      {0x40, "smb"},         {0x200, "exports"},    {0x400, "nw"},
    {0x1000, "apple"},    {0x2000, "snmp"},      {0x4000, "win"},       {0x8000, "tapebkp"},
    {0x10000, "connect"}, {0x20000, "usbidmap"}, {0x40000, "duseruid"}, {0x80000, "dusergid"},
    {0x100000, "fstab"},  {0x200000, "hotswap"}};

// The lock file `name` taken by another holder (an open file of its own); -1 when busy.
int Hold(const std::string& name, int operation = LOCK_EX) {
  const int fd = open(("/tmp/lock/lock_" + name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || flock(fd, operation | LOCK_NB) == 0) return fd;
  close(fd);
  return -1;
}

// The locks another holder cannot take now with `operation`.
int Busy(int operation = LOCK_EX) {
  int busy = 0;
  for (const auto& file : kLockFiles) {
    const int fd = Hold(file.second, operation);
    busy |= fd < 0 ? file.first : 0;
    close(fd);
  }
  return busy;
}

class SlibLock : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterPrivateTmp();
    if (!why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(0, system("rm -rf /tmp/lock"));
  }
  void TearDown() override { SLIBFileUnlockAll(); }
};

TEST_F(SlibLock, EachBitLocksItsFileInTheDirectoryMadeFirst) {
  const mode_t saved_umask = umask(0077);
  ASSERT_EQ(0, ErrSLIBFileLock(SLIB_LOCK_HOTSWAP | kExNb, 0));
  umask(saved_umask);
  struct stat st;
  EXPECT_EQ(040755u, stat("/tmp/lock", &st) == 0 ? st.st_mode : 0);
  int all = 0;
  for (const auto& file : kLockFiles) {
    EXPECT_EQ("", ReadFile("/tmp/lock/lock_" + file.second));
    ASSERT_EQ(0, ErrSLIBFileLock(file.first | kExNb, 0));
    EXPECT_EQ(file.first | SLIB_LOCK_HOTSWAP, Busy()) << file.second;
    EXPECT_EQ(0, file.first != SLIB_LOCK_HOTSWAP ? ErrSLIBFileUnlock(file.first) : 0);
    all |= file.first;
  }
  ASSERT_EQ(0,
            InOrder({ErrSLIBFileUnlock(all), ErrSLIBFileUnlock(all), ErrSLIBFileLock(all | 1, 0)}));
  EXPECT_EQ(std::make_pair(all, 0), std::make_pair(Busy(), Busy(LOCK_SH)));  // shared
  ASSERT_EQ(0, InOrder({ErrSLIBFileUnlock(all), unlink("/tmp/lock/lock_fstab")}));
  testing_support::WriteFile("/tmp/lock/lock_pw", "kept");
  ASSERT_EQ(0, ErrSLIBFileLock(kGr | kExNb, 0));
  EXPECT_EQ("+kept", ReadFile("/tmp/lock/lock_fstab") + "+" + ReadFile("/tmp/lock/lock_pw"));
}

TEST_F(SlibLock, BusyLocksAreRetriedEvery50msUntilTheTimeOut) {
  ASSERT_EQ(0, InOrder({ErrSLIBFileLock(kPw | kExNb, 0), ErrSLIBFileUnlock(kPw)}));
  static int holder = Hold("smb");
  {
    testing_support::PauseRecorder recorder;
    EXPECT_EQ(kLocked, WithError(ErrSLIBFileLock(kPw | kSmb | kExNb, 1)));
    EXPECT_EQ(std::vector<unsigned int>(21, 50000), recorder.pauses);  // 0 to 100 hundredths
    EXPECT_EQ(kLocked, WithError(ErrSLIBFileLock(kPw | kSmb | kExNb, 0)));
    EXPECT_EQ(std::make_pair(size_t{21}, kSmb), std::make_pair(recorder.pauses.size(), Busy()));
  }
  testing_support::PauseRecorder recorder([](size_t pauses) {
    if (pauses == 3) close(holder);
  });
  EXPECT_EQ(0, ErrSLIBFileLock(kPw | kSmb | kExNb, 1));
  EXPECT_EQ(std::make_pair(size_t{4}, kPw | kSmb), std::make_pair(recorder.pauses.size(), Busy()));
}

TEST_F(SlibLock, NestedLocksNeedAsManyUnlocksAndFailuresGiveBackWhatTheyTook) {
  ASSERT_EQ(0, InOrder({ErrSLIBFileLock(kPw | kExNb, 0), ErrSLIBFileLock(kPw | kExNb, 0)}));
  const int holder = Hold("gr");
  EXPECT_EQ(kLocked, WithError(ErrSLIBFileLock(SLIB_LOCK_VELTINFO | kPw | kGr | kSmb | kExNb, 0)));
  EXPECT_EQ(kPw | kGr, Busy());
  close(holder);
  EXPECT_EQ(kLocked, WithError(ErrSLIBFileLock(0x1000000 | kGr | kExNb, 0)));  // not in the table
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(kPw, Busy());  // gr given back, pw still held once
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(0, Busy());
  // An exclusive request on a lock this process holds shared is refused at once.
  ASSERT_EQ(0, ErrSLIBFileLock(kPw | SLIB_LOCK_SH | SLIB_LOCK_NB, 0));
  testing_support::PauseRecorder recorder;
  EXPECT_EQ(kLocked, WithError(ErrSLIBFileLock(SLIB_LOCK_VELTINFO | kPw | kExNb, 5)));
  EXPECT_EQ(std::make_pair(size_t{0}, kPw), std::make_pair(recorder.pauses.size(), Busy()));
  EXPECT_EQ(0, InOrder({Busy(LOCK_SH), ErrSLIBFileUnlock(kPw), Busy()}));
}

TEST_F(SlibLock, UnlockAllAndKeepAreForChildrenAfterFork) {
  ASSERT_EQ(0, InOrder({ErrSLIBFileLock(kPw | kGr | kSmb | kExNb, 0),
                        ErrSLIBFileLock(kPw | kGr | kExNb, 0)}));
  // The child inherits the table and believes it holds the locks until it lets them go.
  const pid_t child = fork();
  if (child == 0) {
    _exit(ErrSLIBFileLock(kPw | kExNb, 0) == 0 && SLIBFileUnlockAll() == 0 &&
                  WithError(ErrSLIBFileLock(kPw | kExNb, 0)) == kLocked
              ? 0
              : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
  EXPECT_EQ(kPw | kGr | kSmb, Busy());
  EXPECT_EQ(0, SLIBFileLockKeep(kPw | kSmb | SLIB_LOCK_HOST));
  EXPECT_EQ(kPw | kSmb, Busy());
  ASSERT_EQ(0, ErrSLIBFileUnlock(kPw));
  EXPECT_EQ(kSmb, Busy());
  EXPECT_EQ(0, InOrder({SLIBFileUnlockAll(), Busy()}));
}

TEST_F(SlibLock, UnusableLockDirectoryOrFileFails) {
  testing_support::WriteFile("/tmp/lock", "not a directory");
  EXPECT_EQ(Failure(SLIB_ERR_LOCK_DIR), WithError(ErrSLIBFileLock(kPw | kExNb, 0)));
  EXPECT_EQ("not a directory", ReadFile("/tmp/lock"));
  ASSERT_EQ(0, InOrder({unlink("/tmp/lock"), mkdir("/tmp/lock", 0755),
                        mkdir("/tmp/lock/lock_smb", 0755)}));
  EXPECT_EQ(Failure(SLIB_ERR_OPEN), WithError(ErrSLIBFileLock(kPw | kExNb, 0)));
}

}  // namespace
