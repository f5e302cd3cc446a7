// Mounts the simulator with the real daemon and drives it through real system
// calls, the way the updater and the shell commands it runs do.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "sdk/kernel.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "sim_test_programs.h"
#include "test_support.h"

namespace {

using sim_test::kNorBase;
using sim_test::RunProgram;

struct ExtentRequest {
  uint32_t flash_base, size;
};
struct FisEntryRequest {
  char name[16];
  uint32_t flash_base, size, data_length;
};
constexpr unsigned long kSetExtent = _IOW('M', 0x16, ExtentRequest);
constexpr unsigned long kSetFisEntry = _IOW('M', 0x17, FisEntryRequest);
constexpr unsigned long kGetMSysTable = _IOR('M', 0x1A, uint32_t[16]);

class FlashsimMountTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(0, mkdir(state_.c_str(), 0755));
    ASSERT_EQ(0, mkdir(mount_.c_str(), 0755));
  }
  void TearDown() override { sim_test::StopDaemon(mount_, &daemon_); }
  void Mount(const flashsim::ChipState& state, const std::string& faults = "") {
    initial_ = state;
    std::string error;
    ASSERT_TRUE(flashsim::SaveState(state, &error)) << error;
    if (!faults.empty()) testing_support::WriteFile(state_ + "/faults", faults);
    sim_test::StartDaemon(state_, mount_, dir_.File("daemon.log"), {"-o", "allow_other"}, &daemon_);
  }
  std::string Device(int index) const { return mount_ + "/mtd" + std::to_string(index); }
  std::vector<uint8_t> ChipImage() const { return sim_test::ReadBytes(state_ + "/chip.img"); }
  std::string Control(const std::string& command) { return sim_test::Control(mount_, command); }
  off_t Size(int device) {
    struct stat st;
    return stat(Device(device).c_str(), &st) == 0 ? st.st_size : -1;
  }
  // The errno of an ioctl on the open device, or 0.
  static int Ioctl(int fd, unsigned long request, void* argument) {
    return ioctl(fd, request, argument) == 0 ? 0 : errno;
  }

  testing_support::TempDir dir_;
  std::string state_ = dir_.File("state"), mount_ = dir_.File("mnt");
  pid_t daemon_ = -1;
  flashsim::ChipState initial_;
};

#define MOUNT_OR_RETURN(...)                      \
  do {                                            \
    Mount(__VA_ARGS__);                           \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

TEST_F(FlashsimMountTest, NorRequestsReachTheChipThroughTheMount) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  std::vector<uint8_t> expected = initial_.image;
  UniqueFd mtd1(open(Device(1).c_str(), O_RDWR | O_TRUNC));  // a device is never truncated
  ASSERT_GE(mtd1.get(), 0) << strerror(errno);
  EXPECT_EQ(0x4000, Size(1));
  erase_info_user range = {0x800, 0x1000};
  EXPECT_EQ(EINVAL, Ioctl(mtd1.get(), MEMERASE, &range));
  range = {0x1000, 0x2000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMERASE, &range));
  std::fill(expected.begin() + 0x3000, expected.begin() + 0x5000, 0xFF);
  std::vector<uint8_t> data(300), back(300);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 13 + 1);
  ASSERT_EQ(300, pwrite(mtd1.get(), data.data(), data.size(), 0x1F80));  // across blocks
  ASSERT_EQ(300, pwrite(mtd1.get(), data.data(), data.size(), 0x3E00));  // over old data
  for (size_t i = 0; i < 300; ++i) expected[0x5E00 + i] &= data[i];
  std::copy(data.begin(), data.end(), expected.begin() + 0x3F80);
  ASSERT_EQ(300, pread(mtd1.get(), back.data(), back.size(), 0x1F80));
  EXPECT_EQ(data, back);
  EXPECT_EQ(16, pread(mtd1.get(), back.data(), 100, 0x4000 - 16));
  EXPECT_EQ(-1, pwrite(mtd1.get(), data.data(), 10, 0x4000));
  EXPECT_EQ(ENOSPC, errno);
  range = {0x1000, 0x1000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMLOCK, &range));
  EXPECT_EQ(-1, pwrite(mtd1.get(), data.data(), 1, 0x1800));
  EXPECT_EQ(EIO, errno);
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMUNLOCK, &range));
  mtd_info_user info;
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMGETINFO, &info));
  EXPECT_EQ(MTD_NORFLASH, info.type);
  EXPECT_EQ(0x4000u, info.size);
  EXPECT_EQ(0x1000u, info.erasesize);
  EXPECT_TRUE(ChipImage() == expected);

  UniqueFd fis(open(Device(sim_test::kFisDevice).c_str(), O_RDWR));
  FisEntryRequest entry = {"RedBoot Config", 0xFFFFB000, 0x2000, 0x1234};
  ASSERT_EQ(0, Ioctl(fis.get(), kSetFisEntry, &entry));
  const uint8_t fields[] = {0xFF, 0xFF, 0xB0, 0x00, 0, 0, 0x20, 0x00, 0, 0, 0x12, 0x34};
  for (int i = 0; i < 3; ++i) memcpy(&expected[0xF000 + 3 * 256 + 16 + 8 * i], fields + 4 * i, 4);
  EXPECT_EQ(EINVAL, Ioctl(mtd1.get(), kSetFisEntry, &entry));
  ExtentRequest extent = {kNorBase + 0xB000, 0x3000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), kSetExtent, &extent));
  EXPECT_EQ(0x3000, Size(1));
  // dd opens its output with O_TRUNC; the data still land at offset 0.
  testing_support::WriteFile(dir_.File("image"), std::string(0x3000, '\x5A'));
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir_.File("image"), "of=" + Device(1), "bs=4096"}));
  std::fill(expected.begin() + 0xB000, expected.begin() + 0xE000, 0x5A);
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, FaultsAndAPowerCutFromTheControlFile) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_), "fault read mtd0 every errno=EIO\n");
  UniqueFd mtd0(open(Device(0).c_str(), O_RDWR)), mtd1(open(Device(1).c_str(), O_RDWR));
  uint8_t bytes[16] = {};
  EXPECT_EQ(-1, pread(mtd0.get(), bytes, 1, 0));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(1, pread(mtd1.get(), bytes, 1, 0));
  UniqueFd control(open((mount_ + "/.control").c_str(), O_RDWR));
  ASSERT_EQ(11, write(control.get(), "flash-type\n", 11));
  char answer[32] = {};
  EXPECT_EQ(5, read(control.get(), answer, sizeof(answer)));  // where the command ended
  EXPECT_STREQ("OK 0\n", answer);
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", (mount_ + "/.control").c_str(), 1));
  ASSERT_EQ("OK\n", Control("set driver-buffer errno EBUSY"));
  EXPECT_EQ(-1, VELTKernelMtdDriverBuffer(1));
  EXPECT_EQ(EBUSY, errno);
  uint32_t type = 7;
  EXPECT_EQ(0, VELTKernelFlashType(&type));
  EXPECT_EQ(0u, type);
  unsetenv("FILEBAY_FLASH_CONTROL");

  ASSERT_EQ("OK\n", Control("fault power-cut after=3"));
  ASSERT_EQ(16, pwrite(mtd1.get(), bytes, 16, 0));
  erase_info_user range = {0x3000, 0x1000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMERASE, &range));
  ASSERT_EQ(16, pwrite(mtd1.get(), bytes, 16, 0x3000));
  const std::vector<uint8_t> at_cut = ChipImage();
  EXPECT_EQ(-1, pwrite(mtd1.get(), bytes, 16, 0x2000));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(EIO, Ioctl(mtd1.get(), MEMERASE, &range));
  EXPECT_EQ(-1, open(Device(2).c_str(), O_RDWR));
  ASSERT_EQ(0, kill(daemon_, SIGTERM));
  int status = 0;
  ASSERT_TRUE(sim_test::WaitForExit(daemon_, 10000, &status));
  daemon_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(sim_test::IsMounted(mount_));
  EXPECT_TRUE(ChipImage() == at_cut);
  const std::vector<std::string> trace = sim_test::ReadLines(state_ + "/trace.log");
  EXPECT_EQ("write mtd1 0x00002000 16 EIO", trace.at(trace.size() - 3));
}

TEST_F(FlashsimMountTest, FlashDiskIsFormattedAndPartitionedThroughTheKernelInterface) {
  MOUNT_OR_RETURN(sim_test::MSysChip(state_));
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", (mount_ + "/.control").c_str(), 1));
  uint32_t type = 0, table[16];
  EXPECT_EQ(0, VELTKernelFlashType(&type));
  EXPECT_EQ(1u, type);
  UniqueFd mtd0(open(Device(0).c_str(), O_RDWR));
  EXPECT_EQ(-1, VELTKernelMSysFormat(mtd0.get(), 966));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0, VELTKernelMSysFormat(mtd0.get(), 967));
  const uint32_t counts[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(0, VELTKernelMSysPartition(mtd0.get(), counts));
  EXPECT_EQ(8 * 16384, Size(7));
  testing_support::WriteFile(dir_.File("data"), std::string(20000, 'x'));
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir_.File("data"), "of=" + Device(3), "bs=16384"}));
  ASSERT_EQ(0, Ioctl(mtd0.get(), kGetMSysTable, table));
  const uint32_t after[16] = {16384,     0, 2 * 16384, 0, 3 * 16384, 0, 4 * 16384, 20000,
                              5 * 16384, 0, 6 * 16384, 0, 7 * 16384, 0, 8 * 16384, 0};
  EXPECT_EQ(0, memcmp(after, table, sizeof(table)));
  std::vector<uint8_t> expected(initial_.image.size(), 0xFF);
  std::fill_n(expected.begin() + 6 * 16384, 20000, 'x');
  EXPECT_TRUE(ChipImage() == expected);
  ASSERT_EQ("OK\n", Control("fault get-table mtd0 nth=1 errno=EIO"));
  ASSERT_EQ("OK\n", Control("fault partition all every errno=EPERM"));
  EXPECT_EQ(EIO, Ioctl(mtd0.get(), kGetMSysTable, table));
  EXPECT_EQ(-1, VELTKernelMSysPartition(mtd0.get(), counts));
  EXPECT_EQ(EPERM, errno);
  EXPECT_EQ(0, Ioctl(mtd0.get(), kGetMSysTable, table));
  unsetenv("FILEBAY_FLASH_CONTROL");
}

TEST_F(FlashsimMountTest, DaemonReturnsOnlyOnceTheMountIsReady) {
  std::string error;
  ASSERT_TRUE(flashsim::SaveState(sim_test::NorChip(state_), &error)) << error;
  ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));  // the daemon stays our child
  const int launched = RunProgram({FLASHSIM_DAEMON, state_, mount_});
  if (launched != 0) GTEST_SKIP() << "the daemon could not mount here (status " << launched << ")";
  EXPECT_EQ(0x1000, Size(4));
  ASSERT_EQ(0, RunProgram({"fusermount3", "-u", mount_}));
  int status = 0;
  pid_t stopped = 0;
  for (int waited = 0; waited < 10000 && stopped == 0; waited += 5) {
    stopped = waitpid(-1, &status, WNOHANG);
    if (stopped == 0) usleep(5000);
  }
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  ASSERT_GT(stopped, 0) << "the daemon did not stop";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
