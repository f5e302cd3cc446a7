// Mounting a simulated chip from tests: whether it is possible here, a state
// directory made from a board layout, the simulator daemon started on it in
// the foreground as a child of the test, its control file, and the unmount
// that ends the daemon again. Needs FLASHSIM_DAEMON, FLASH_TOOL and
// FLASH_LAYOUT_DIR (defined for every test of tests/sim).
#ifndef TESTS_SIM_SIM_TEST_MOUNT_H_
#define TESTS_SIM_SIM_TEST_MOUNT_H_

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "sdk/velt_mtd.h"
#include "sim_test_chips.h"
#include "sim_test_programs.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace sim_test {

// Where the tests that work on fixed device paths mount the chip; the
// partitions appear as /dev/flash/mtdN.
constexpr char kDevFlash[] = "/dev/flash";

// Why no chip can be mounted here (the test skips with it), or "": the
// simulator's programs were not built, or /dev/fuse is not usable. A test in
// a throwaway root asks after entering it, since that brings its own /dev.
inline std::string MountUnavailable() {
  if (std::string(FLASHSIM_DAEMON).empty() || std::string(FLASH_TOOL).empty()) {
    return "the flash simulator was not built (libfuse3 is missing)";
  }
  if (access("/dev/fuse", R_OK | W_OK) == 0) return "";
  return std::string("/dev/fuse is not usable: ") + strerror(errno);
}

// True while something is mounted at `mount_point`.
inline bool IsMounted(const std::string& mount_point) {
  for (const std::string& line : ReadLines("/proc/self/mountinfo")) {
    std::istringstream fields(line);
    std::string id, parent, numbers, root, point;
    if (fields >> id >> parent >> numbers >> root >> point && point == mount_point) return true;
  }
  return false;
}

// Mounts the state directory `state` at the existing directory
// `mount_point` with the simulator daemon in the foreground, a child of this
// process (its pid in *daemon), its messages appended to `log` and `options`
// added to its arguments; returns once the mount answers. Skips the test
// when this system does not allow the mount; fails it when the daemon stops
// first or the mount is not ready within ten seconds. The caller checks
// IsSkipped() and HasFatalFailure().
inline void StartDaemon(const std::string& state, const std::string& mount_point,
                        const std::string& log, const std::vector<std::string>& options,
                        pid_t* daemon) {
  std::vector<std::string> args = {FLASHSIM_DAEMON, state, mount_point, "-f"};
  args.insert(args.end(), options.begin(), options.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  *daemon = fork();
  ASSERT_GE(*daemon, 0);
  if (*daemon == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  const std::string control = mount_point + "/.control";
  struct stat st;
  for (int waited = 0; waited < 10000; waited += 5) {
    if (stat(control.c_str(), &st) == 0) return;
    if (waitpid(*daemon, nullptr, WNOHANG) == *daemon) {
      *daemon = -1;
      const std::string why = testing_support::ReadFile(log);
      if (why.find("not permitted") != std::string::npos ||
          why.find("ermission denied") != std::string::npos) {
        GTEST_SKIP() << "mounting is not possible here: " << why;
      }
      FAIL() << "the simulator daemon stopped before the mount was ready: " << why;
    }
    usleep(5000);
  }
  FAIL() << "the mount did not become ready";
}

// Unmounts `mount_point` by whatever this process may use: the system call,
// else lazily, else fusermount3 lazily.
inline void Unmount(const std::string& mount_point) {
  if (umount2(mount_point.c_str(), 0) == 0 || umount2(mount_point.c_str(), MNT_DETACH) == 0) return;
  RunProgram({"fusermount3", "-u", "-z", mount_point});
}

// Unmounts the chip when a daemon runs or something is still mounted, then
// waits for the daemon (which saves the chip on its way out) and sets
// *daemon to -1. Fails the test when the mount stays, or when the daemon is
// still there after ten seconds (it is killed).
inline void StopDaemon(const std::string& mount_point, pid_t* daemon) {
  if (*daemon > 0 || IsMounted(mount_point)) Unmount(mount_point);
  EXPECT_FALSE(IsMounted(mount_point)) << mount_point << " is still mounted";
  if (*daemon <= 0) return;
  if (!WaitForExit(*daemon, 10000)) {
    kill(*daemon, SIGKILL);
    waitpid(*daemon, nullptr, 0);
    ADD_FAILURE() << "the simulator daemon did not stop after the unmount";
  }
  *daemon = -1;
}

// Sends one command to the daemon through the control file of the mount at
// `mount_point`; the answer line, or what failed.
inline std::string Control(const std::string& mount_point, const std::string& command) {
  UniqueFd control(open((mount_point + "/.control").c_str(), O_RDWR));
  if (control.get() < 0) return std::string("open: ") + strerror(errno);
  const std::string line = command + "\n";
  if (write(control.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    return std::string("write: ") + strerror(errno);
  char answer[256] = {};
  const ssize_t length = pread(control.get(), answer, sizeof(answer) - 1, 0);
  return length < 0 ? std::string("read: ") + strerror(errno) : std::string(answer);
}

// A board's chip mounted at kDevFlash inside the throwaway root, with the
// /dev/mtdN links of its partitions.
class ChipTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = testing_support::EnterThrowawayRoot();
    if (why.empty()) why = MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    dir_ = std::make_unique<testing_support::TempDir>();
    mkdir(kDevFlash, 0755);
    testing_support::SyslogRecords().clear();
  }

  void TearDown() override {
    if (dir_ == nullptr) return;  // skipped before the throwaway root was entered
    EXPECT_EQ(0, chdir("/"));
    StopDaemon(kDevFlash, &daemon_);
    for (int i = 0; i < 8; ++i) unlink(("/dev/mtd" + std::to_string(i)).c_str());
    dir_.reset();
  }

  // Makes the chip of `layout` (a board of FLASH_LAYOUT_DIR, or a layout
  // file's path) with filebay-flash, lets `edit` change it and mounts it in
  // place of any earlier one; initial_ is the chip before the test.
  void Mount(const std::string& layout,
             const std::function<void(flashsim::ChipState*)>& edit = nullptr) {
    StopDaemon(kDevFlash, &daemon_);
    state_ = dir_->File("state" + std::to_string(++mounts_));
    const std::string path = layout[0] == '/' ? layout : FLASH_LAYOUT_DIR "/" + layout + ".layout";
    ASSERT_EQ(0, RunProgram({FLASH_TOOL, "create", state_, path}, state_ + ".log"))
        << testing_support::ReadFile(state_ + ".log");
    std::string error;
    ASSERT_TRUE(flashsim::LoadState(state_, &initial_, &error)) << error;
    if (edit) edit(&initial_);
    ASSERT_TRUE(flashsim::SaveState(initial_, &error)) << error;
    StartDaemon(state_, kDevFlash, dir_->File("daemon.log"), {}, &daemon_);
    for (const flashsim::PartitionLayout& partition : initial_.layout.partitions) {
      const std::string link = "/dev/mtd" + std::to_string(partition.index);
      unlink(link.c_str());
      ASSERT_EQ(0, symlink(("flash/mtd" + std::to_string(partition.index)).c_str(), link.c_str()));
    }
  }

  // Unmounts the chip (the simulator saves it) and loads what it saved.
  flashsim::ChipState Unmounted() {
    StopDaemon(kDevFlash, &daemon_);
    flashsim::ChipState state;
    std::string error;
    EXPECT_TRUE(flashsim::LoadState(state_, &state, &error)) << error;
    return state;
  }

  void Fault(const std::string& command) {
    ASSERT_EQ("OK\n", Control(kDevFlash, command)) << command;
  }

  // The simulator's trace lines from line `from` on that start with `prefix`.
  std::vector<std::string> Trace(const std::string& prefix = "", size_t from = 0) const {
    const std::vector<std::string> all = ReadLines(state_ + "/trace.log");
    std::vector<std::string> lines;
    for (size_t i = from; i < all.size(); ++i) {
      if (all[i].rfind(prefix, 0) == 0) lines.push_back(all[i]);
    }
    return lines;
  }

  // For the updater's flash code: the chip mounted, the run state reset,
  // the board family's tables chosen, an empty working directory as the
  // current one and the FIS directory, when one can be read, in records_.
  void Start(const std::string& layout, int junior,
             const std::function<void(flashsim::ChipState*)>& edit = nullptr) {
    Mount(layout, edit);
    if (IsSkipped() || HasFatalFailure()) return;
    UPDTResetRunState();
    UPDTSelectLayout(junior);
    unlink(UPDT_PROGRESS_FILE);
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s",
             dir_->File("w" + std::to_string(mounts_)).c_str());
    ASSERT_EQ(0, mkdir(gszWorkDir, 0755));
    ASSERT_EQ(0, chdir(gszWorkDir));
    int bytes = 0;
    count_ = VELTMTDGetPartitionInfo(gszDevMtdPartition, nullptr, 0, &bytes);
    records_.assign(count_ > 0 ? bytes : 0, 0);
    if (count_ > 0) VELTMTDGetPartitionInfo(gszDevMtdPartition, records_.data(), bytes, &bytes);
    testing_support::SyslogRecords().clear();
  }

  // A package file of `length` bytes in the working directory: its bytes.
  static std::string Package(const std::string& file, uint32_t seed, size_t length) {
    const std::string bytes = ImageBytes(seed, length);
    testing_support::WriteFile(std::string(gszWorkDir) + "/" + file, bytes);
    return bytes;
  }

  // The progress record without its padding: "P:60:      " -> "P:60".
  static std::string Progress() {
    const std::string text = testing_support::ReadFile(UPDT_PROGRESS_FILE);
    return text.substr(0, text.find(':', 2));
  }

  std::unique_ptr<testing_support::TempDir> dir_;
  std::string state_;
  pid_t daemon_ = -1;
  int mounts_ = 0;
  flashsim::ChipState initial_;
  std::vector<unsigned char> records_;
  int count_ = 0;
};

// Mount(...) or Start(...), returning from the test when it was skipped or
// failed.
#define OR_RETURN(call)                           \
  do {                                            \
    call;                                         \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

}  // namespace sim_test

#endif  // TESTS_SIM_SIM_TEST_MOUNT_H_
