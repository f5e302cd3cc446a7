#include "lib/slib_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "gtest/gtest.h"
#include "lib/slib_error.h"
#include "test_support.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

constexpr int kExclusiveNb = SLIB_LOCK_EX | SLIB_LOCK_NB;
constexpr int kSharedNb = SLIB_LOCK_SH | SLIB_LOCK_NB;

struct LockFile {
  int mask;
  const char* path;
};

// In acquisition order.
constexpr LockFile kLockFiles[] = {
    {0x800, "/tmp/lock/lock_veltinfo"},   {0x10, "/tmp/lock/lock_pw"},
    {0x20, "/tmp/lock/lock_gr"},          {0x80, "/tmp/lock/lock_rc"},
    {0x100, "/tmp/lock/lock_host"},       {0x40, "/tmp/lock/lock_smb"},
    {0x200, "/tmp/lock/lock_exports"},    {0x400, "/tmp/lock/lock_nw"},
    {0x1000, "/tmp/lock/lock_apple"},     {0x2000, "/tmp/lock/lock_snmp"},
    {0x4000, "/tmp/lock/lock_win"},       {0x8000, "/tmp/lock/lock_tapebkp"},
    {0x10000, "/tmp/lock/lock_connect"},  {0x20000, "/tmp/lock/lock_usbidmap"},
    {0x40000, "/tmp/lock/lock_duseruid"}, {0x80000, "/tmp/lock/lock_dusergid"},
    {0x100000, "/tmp/lock/lock_fstab"},   {0x200000, "/tmp/lock/lock_hotswap"},
};

constexpr int AllMasks() {
  int all = 0;
  for (const LockFile& file : kLockFiles) all |= file.mask;
  return all;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Pipe {
  int read_end = -1;
  int write_end = -1;
  Pipe() {
    int fds[2];
    if (pipe(fds) == 0) {
      read_end = fds[0];
      write_end = fds[1];
    }
  }
  ~Pipe() {
    CloseRead();
    CloseWrite();
  }
  void CloseRead() {
    if (read_end >= 0) close(read_end);
    read_end = -1;
  }
  void CloseWrite() {
    if (write_end >= 0) close(write_end);
    write_end = -1;
  }
};

int WaitForExit(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Runs `body` in a forked child that leaves with _exit(body()); returns its
// exit status, or -1 when it could not run or did not exit normally.
int RunInChild(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) _exit(body());
  return WaitForExit(pid);
}

// The locks that a fresh process cannot take right now with `operation`
// (LOCK_EX or LOCK_SH), probed on descriptors of its own.
int LocksBusyElsewhere(int operation) {
  Pipe report;
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    int busy = 0;
    for (const LockFile& file : kLockFiles) {
      const int fd = open(file.path, O_RDONLY | O_CLOEXEC);
      if (fd < 0 || flock(fd, operation | LOCK_NB) != 0) busy |= file.mask;
      if (fd >= 0) close(fd);
    }
    const bool sent = write(report.write_end, &busy, sizeof busy) == sizeof busy;
    _exit(sent ? 0 : 1);
  }
  report.CloseWrite();
  int busy = -1;
  if (read(report.read_end, &busy, sizeof busy) != sizeof busy) busy = -1;
  if (WaitForExit(pid) != 0) return -1;
  return busy;
}

int BusyForExclusive() { return LocksBusyElsewhere(LOCK_EX); }
int BusyForShared() { return LocksBusyElsewhere(LOCK_SH); }

// Another process that takes `request` through the library and holds it
// until told to let go.
class LockHolder {
 public:
  explicit LockHolder(int request, useconds_t delay_before_release = 0) {
    pid_ = fork();
    if (pid_ < 0) return;
    if (pid_ == 0) RunChild(request, delay_before_release);
    ready_.CloseWrite();
    command_.CloseRead();
    char answer = 0;
    holding_ = read(ready_.read_end, &answer, 1) == 1 && answer == 'y';
  }

  ~LockHolder() {
    if (pid_ > 0) Wait();
  }

  bool holding() const { return holding_; }

  // The child releases (after its delay) and exits; does not wait for it.
  // A byte rather than end of file: other children may hold the write end.
  void Release() {
    if (command_.write_end >= 0 && write(command_.write_end, "r", 1) != 1) {
      ADD_FAILURE() << "cannot tell the lock holder to release";
    }
    command_.CloseWrite();
  }

  // Exit status of the child: 0 when it held and released cleanly.
  int Wait() {
    if (pid_ < 0) return -1;
    Release();
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }

 private:
  [[noreturn]] void RunChild(int request, useconds_t delay_before_release) {
    ready_.CloseRead();
    command_.CloseWrite();
    SLIBFileUnlockAll();
    const bool locked = ErrSLIBFileLock(request, 0) == 0;
    const char answer = locked ? 'y' : 'n';
    if (write(ready_.write_end, &answer, 1) != 1 || !locked) _exit(1);
    char ignored;
    if (read(command_.read_end, &ignored, 1) < 0) _exit(3);
    usleep(delay_before_release);
    _exit(ErrSLIBFileUnlock(request & ~SLIB_LOCK_OP_MASK) == 0 ? 0 : 2);
  }

  pid_t pid_ = -1;
  bool holding_ = false;
  Pipe ready_;
  Pipe command_;
};

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

TEST_F(SlibLock, EachMaskBitLocksItsOwnFile) {
  for (const LockFile& file : kLockFiles) {
    SCOPED_TRACE(file.path);
    ASSERT_EQ(ErrSLIBFileLock(file.mask | kExclusiveNb, 0), 0);
    EXPECT_EQ(BusyForExclusive(), file.mask);
    ASSERT_EQ(ErrSLIBFileUnlock(file.mask), 0);
  }
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, WholeTableTakenInOneRequest) {
  ASSERT_EQ(ErrSLIBFileLock(AllMasks() | kExclusiveNb, 0), 0);
  EXPECT_EQ(BusyForExclusive(), AllMasks());
  ASSERT_EQ(ErrSLIBFileUnlock(AllMasks()), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, SettingsLockIsTakenBeforePasswordLock) {
  LockHolder password_holder(SLIB_LOCK_PW | kExclusiveNb);
  ASSERT_TRUE(password_holder.holding());
  // This caller waits in the kernel for the password lock; by then it must
  // already hold the settings lock, which comes first in the table.
  const pid_t caller = fork();
  ASSERT_GE(caller, 0);
  if (caller == 0) {
    SLIBFileUnlockAll();
    _exit(ErrSLIBFileLock(SLIB_LOCK_VELTINFO | SLIB_LOCK_PW | SLIB_LOCK_EX, 1) == 0 ? 0 : 1);
  }
  int busy = 0;
  for (int tries = 0; tries < 50 && (busy & SLIB_LOCK_VELTINFO) == 0; ++tries) {
    usleep(20000);
    busy = BusyForExclusive();
  }
  EXPECT_EQ(busy, SLIB_LOCK_VELTINFO | SLIB_LOCK_PW);
  EXPECT_EQ(password_holder.Wait(), 0);
  EXPECT_EQ(WaitForExit(caller), 0);
}

TEST_F(SlibLock, TimesOutWhileOtherProcessHoldsThenSucceedsAfterRelease) {
  {
    LockHolder holder(SLIB_LOCK_PW | SLIB_LOCK_SMB | kExclusiveNb);
    ASSERT_TRUE(holder.holding());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_GR | SLIB_LOCK_SMB | kExclusiveNb, 1), -1);
    const double elapsed = SecondsSince(start);
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 3.0);
    // The group lock was free but is not kept after the failure.
    EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_SMB);
    EXPECT_EQ(holder.Wait(), 0);
  }
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_GR | SLIB_LOCK_SMB | kExclusiveNb, 1), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_GR | SLIB_LOCK_SMB);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_GR | SLIB_LOCK_SMB), 0);
}

TEST_F(SlibLock, RetriesUntilOtherProcessReleasesWithinTimeOut) {
  LockHolder holder(SLIB_LOCK_SMB | kExclusiveNb, 300000);
  ASSERT_TRUE(holder.holding());
  holder.Release();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_SMB | kSharedNb, 1), 0);
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 0.25);
  EXPECT_LT(elapsed, 1.1);
  EXPECT_EQ(holder.Wait(), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_SMB);
  EXPECT_EQ(BusyForShared(), 0);
}

TEST_F(SlibLock, TimeOutZeroTriesExactlyOnce) {
  LockHolder holder(SLIB_LOCK_USBIDMAP | kExclusiveNb);
  ASSERT_TRUE(holder.holding());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_USBIDMAP | kExclusiveNb, 0), -1);
  // A second attempt would come only after a 50 ms pause.
  EXPECT_LT(SecondsSince(start), 0.045);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
}

TEST_F(SlibLock, NestedLocksNeedAsManyUnlocks) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 5), 0);
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 5), 0);
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 5), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_GR);

  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_GR);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW | SLIB_LOCK_GR), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
  // Unlocking what is not held changes nothing and succeeds.
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
}

TEST_F(SlibLock, ExclusiveRequestOnOwnSharedLockFailsAtOnceAndKeepsIt) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_SMB | kSharedNb, 5), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_SMB | kExclusiveNb, 1), -1);
  EXPECT_LT(SecondsSince(start), 0.045);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);

  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_SMB);
  EXPECT_EQ(BusyForShared(), 0);
  // The refused request gave its reference back: one unlock releases.
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_SMB), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, RefusedUpgradeGivesBackLocksTakenEarlierInSameCall) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_GR | kSharedNb, 5), 0);
  // The password lock comes before the group lock and is taken first.
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 1), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_GR);
  EXPECT_EQ(BusyForShared(), 0);
}

TEST_F(SlibLock, SharedLocksAreSharedBetweenProcesses) {
  LockHolder holder(SLIB_LOCK_HOST | kSharedNb);
  ASSERT_TRUE(holder.holding());
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_HOST | kSharedNb, 0), 0);
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_VELTINFO | kExclusiveNb, 0), 0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_HOST | SLIB_LOCK_VELTINFO);
  EXPECT_EQ(BusyForShared(), SLIB_LOCK_VELTINFO);
}

TEST_F(SlibLock, PartlyObtainableSetHoldsNothingOnFailure) {
  LockHolder holder(SLIB_LOCK_SMB | kExclusiveNb);
  ASSERT_TRUE(holder.holding());
  const int wanted = SLIB_LOCK_VELTINFO | SLIB_LOCK_PW | SLIB_LOCK_SMB | SLIB_LOCK_FSTAB;
  EXPECT_EQ(ErrSLIBFileLock(wanted | kExclusiveNb, 0), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_SMB);
}

TEST_F(SlibLock, FailedRequestKeepsLocksHeldBeforeWithTheirCounts) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);
  LockHolder holder(SLIB_LOCK_GR | kExclusiveNb);
  ASSERT_TRUE(holder.holding());
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 0), -1);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_GR);
  EXPECT_EQ(holder.Wait(), 0);
  // Still one reference only.
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, MaskBitOutsideTheTableIsNeverHeld) {
  EXPECT_EQ(ErrSLIBFileLock(0x1000000 | SLIB_LOCK_PW | kExclusiveNb, 0), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, LockFileThatCannotBeOpenedIsNotHeldAndLeavesNothingOpen) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);  // makes the lock files
  ASSERT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  const int status = RunInChild([] {
    // Allow exactly one more descriptor: the password lock file opens, the
    // group lock file does not.
    const int first_free = open("/dev/null", O_RDONLY);
    if (first_free < 0 || close(first_free) != 0) return 10;
    struct rlimit saved;
    if (getrlimit(RLIMIT_NOFILE, &saved) != 0) return 11;
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(first_free) + 1;
    if (setrlimit(RLIMIT_NOFILE, &tight) != 0) return 12;
    SLIBCErrSet(0);
    const int result = ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 0);
    const int error = SLIBCErrGet();
    if (setrlimit(RLIMIT_NOFILE, &saved) != 0) return 13;
    if (result != -1 || error != SLIB_ERR_LOCK) return 1;
    if (fcntl(first_free, F_GETFD) != -1) return 2;  // the password stream was closed
    if (ErrSLIBFileLock(SLIB_LOCK_GR | kExclusiveNb, 0) != 0) return 3;
    if (ErrSLIBFileUnlock(SLIB_LOCK_GR) != 0) return 4;
    // One unlock was enough: no reference was left over for the group lock.
    const int fd = open("/tmp/lock/lock_gr", O_RDONLY);
    const bool free = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
    if (fd >= 0) close(fd);
    return free ? 0 : 5;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, MissingLockDirectoryIsCreatedWithMode0755AndAllLockFiles) {
  const mode_t saved_umask = umask(0077);
  const int result = ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0);
  umask(saved_umask);
  ASSERT_EQ(result, 0);
  struct stat st;
  ASSERT_EQ(stat("/tmp/lock", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  for (const LockFile& file : kLockFiles) {
    SCOPED_TRACE(file.path);
    ASSERT_EQ(stat(file.path, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 0);
  }
}

TEST_F(SlibLock, DeletedLockDirectoryIsRecreatedByNextCall) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);
  ASSERT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  std::filesystem::remove_all("/tmp/lock");
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_HOTSWAP | kExclusiveNb, 0), 0);
  struct stat st;
  ASSERT_EQ(stat("/tmp/lock", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  for (const LockFile& file : kLockFiles) EXPECT_TRUE(testing_support::FileExists(file.path));
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_HOTSWAP);
}

TEST_F(SlibLock, DeletedLockFileIsRecreatedAndOthersKeepTheirContent) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);
  ASSERT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  ASSERT_EQ(unlink("/tmp/lock/lock_fstab"), 0);
  WriteFile("/tmp/lock/lock_pw", "kept");
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_GR | kExclusiveNb, 0), 0);
  EXPECT_EQ(ReadFile("/tmp/lock/lock_fstab"), "");
  EXPECT_EQ(ReadFile("/tmp/lock/lock_pw"), "kept");
}

TEST_F(SlibLock, LockDirectoryThatCannotBeMadeFailsWithC00) {
  WriteFile("/tmp/lock", "not a directory");
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK_DIR);
  EXPECT_EQ(ReadFile("/tmp/lock"), "not a directory");
}

TEST_F(SlibLock, LockFileThatCannotBeCreatedFailsWith900) {
  ASSERT_EQ(mkdir("/tmp/lock", 0755), 0);
  ASSERT_EQ(mkdir("/tmp/lock/lock_smb", 0755), 0);
  EXPECT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OPEN);
}

TEST_F(SlibLock, UnlockAllInForkedChildLeavesParentLocksAlone) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 0), 0);
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);

  // Without it the child inherits the table and believes it holds the lock.
  EXPECT_EQ(RunInChild([] { return ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0) == 0 ? 0 : 1; }),
            0);
  EXPECT_EQ(RunInChild([] {
              if (SLIBFileUnlockAll() != 0) return 1;
              if (ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0) != -1) return 2;
              return SLIBCErrGet() == SLIB_ERR_LOCK ? 0 : 3;
            }),
            0);
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_GR);

  EXPECT_EQ(SLIBFileUnlockAll(), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW | SLIB_LOCK_GR), 0);
  // Counts were zeroed: a new lock needs a single unlock.
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | kExclusiveNb, 0), 0);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

TEST_F(SlibLock, LockKeepKeepsMaskedLocksWithOneReferenceAndReleasesOthers) {
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | SLIB_LOCK_SMB | kExclusiveNb, 0), 0);
  ASSERT_EQ(ErrSLIBFileLock(SLIB_LOCK_PW | SLIB_LOCK_GR | kExclusiveNb, 0), 0);

  EXPECT_EQ(SLIBFileLockKeep(SLIB_LOCK_PW | SLIB_LOCK_SMB | SLIB_LOCK_HOST), 0);
  // Keeping does not take a lock that was not held.
  EXPECT_EQ(BusyForExclusive(), SLIB_LOCK_PW | SLIB_LOCK_SMB);
  EXPECT_EQ(ErrSLIBFileUnlock(SLIB_LOCK_PW | SLIB_LOCK_SMB), 0);
  EXPECT_EQ(BusyForExclusive(), 0);
}

}  // namespace
