// Mounts the simulator with the real daemon and drives it through real system
// calls, the way the updater and the shell commands it runs do.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "sim_test_programs.h"
#include "test_support.h"

namespace {

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

int Ioctl(int fd, unsigned long request, void* argument) {  // 0 or the errno
  return ioctl(fd, request, argument) == 0 ? 0 : errno;
}

// Each kind of request the updater and dd make, through the mount's files,
// ioctls and control file, up to a power cut; the chip model's rules
// themselves are FlashChipTest's.
TEST(FlashsimMount, RequestsFaultsAndAPowerCutThroughTheMount) {
  const std::string why = sim_test::MountUnavailable();
  if (!why.empty()) GTEST_SKIP() << why;
  testing_support::TempDir dir;
  const std::string state = dir.File("state"), mount = dir.File("mnt");
  const auto device = [&](int index) { return mount + "/mtd" + std::to_string(index); };
  const auto size = [&](int index) {
    struct stat st;
    return stat(device(index).c_str(), &st) == 0 ? st.st_size : -1;
  };
  const auto chip = [&] { return sim_test::ReadBytes(state + "/chip.img"); };
  ASSERT_EQ(0, mkdir(mount.c_str(), 0755));
  ASSERT_EQ(0, mkdir(state.c_str(), 0755));
  std::vector<uint8_t> expected = sim_test::NorChip(state).image, data(300), back(300);
  std::string error;
  ASSERT_TRUE(flashsim::SaveState(sim_test::NorChip(state), &error)) << error;
  testing_support::WriteFile(state + "/faults", "fault read mtd0 every errno=EIO\n");
  pid_t daemon = -1;
  struct Unmount {  // also when the test stops early
    std::string mount;
    pid_t* daemon;
    ~Unmount() { sim_test::StopDaemon(mount, daemon); }
  } unmount{mount, &daemon};
  sim_test::StartDaemon(state, mount, dir.File("daemon.log"), {"-o", "allow_other"}, &daemon);
  if (IsSkipped() || HasFatalFailure()) return;

  UniqueFd mtd1(open(device(1).c_str(), O_RDWR | O_TRUNC));  // a device is never truncated
  ASSERT_GE(mtd1.get(), 0) << strerror(errno);
  EXPECT_EQ(0x4000, size(1));
  erase_info_user range = {0x1000, 0x2000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMERASE, &range));
  std::fill(expected.begin() + 0x3000, expected.begin() + 0x5000, 0xFF);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 13 + 1);
  ASSERT_EQ(300, pwrite(mtd1.get(), data.data(), data.size(), 0x1F80));  // across blocks
  ASSERT_EQ(300, pwrite(mtd1.get(), data.data(), data.size(), 0x3E00));  // over old data
  for (size_t i = 0; i < 300; ++i) expected[0x5E00 + i] &= data[i];
  std::copy(data.begin(), data.end(), expected.begin() + 0x3F80);
  ASSERT_EQ(300, pread(mtd1.get(), back.data(), back.size(), 0x1F80));
  EXPECT_EQ(data, back);
  range = {0x1000, 0x1000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMLOCK, &range));
  EXPECT_EQ(-1, pwrite(mtd1.get(), data.data(), 1, 0x1800));
  EXPECT_EQ(EIO, errno);
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMUNLOCK, &range));
  mtd_info_user info;
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMGETINFO, &info));
  EXPECT_EQ(info.size, 0x4000u);
  EXPECT_EQ(info.erasesize, 0x1000u);
  UniqueFd fis(open(device(sim_test::kFisDevice).c_str(), O_RDWR));
  FisEntryRequest entry = {"RedBoot Config", 0xFFFFB000, 0x2000, 0x1234};
  ASSERT_EQ(0, Ioctl(fis.get(), kSetFisEntry, &entry));
  const uint8_t fields[] = {0xFF, 0xFF, 0xB0, 0x00, 0, 0, 0x20, 0x00, 0, 0, 0x12, 0x34};
  for (int i = 0; i < 3; ++i) memcpy(&expected[0xF000 + 3 * 256 + 16 + 8 * i], fields + 4 * i, 4);
  ExtentRequest extent = {sim_test::kNorBase + 0xB000, 0x3000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), kSetExtent, &extent));
  EXPECT_EQ(0x3000, size(1));
  // dd opens its output with O_TRUNC; the data still land at offset 0.
  testing_support::WriteFile(dir.File("image"), std::string(0x3000, '\x5A'));
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir.File("image"), "of=" + device(1), "bs=4096"}));
  std::fill(expected.begin() + 0xB000, expected.begin() + 0xE000, 0x5A);
  EXPECT_TRUE(chip() == expected);

  UniqueFd mtd0(open(device(0).c_str(), O_RDWR));  // the plan prepared before mounting
  EXPECT_EQ(-1, pread(mtd0.get(), back.data(), 1, 0));
  EXPECT_EQ(EIO, errno);
  UniqueFd control(open((mount + "/.control").c_str(), O_RDWR));
  ASSERT_EQ(11, write(control.get(), "flash-type\n", 11));
  char answer[32] = {};
  EXPECT_EQ(5, read(control.get(), answer, sizeof(answer)));  // where the command ended
  EXPECT_STREQ("OK 0\n", answer);
  ASSERT_EQ("OK\n", sim_test::Control(mount, "fault power-cut after=2"));
  ASSERT_EQ(16, pwrite(mtd1.get(), data.data(), 16, 0));
  ASSERT_EQ(16, pwrite(mtd1.get(), data.data(), 16, 0x1000));
  const std::vector<uint8_t> at_cut = chip();
  EXPECT_EQ(-1, pwrite(mtd1.get(), data.data(), 16, 0x2000));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(-1, open(device(2).c_str(), O_RDWR));
  ASSERT_EQ(0, kill(daemon, SIGTERM));
  int status = 0;
  ASSERT_TRUE(sim_test::WaitForExit(daemon, 10000, &status));
  daemon = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(sim_test::IsMounted(mount));
  EXPECT_TRUE(chip() == at_cut);
  EXPECT_NE(at_cut, expected);
}

}  // namespace
