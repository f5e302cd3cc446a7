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
  std::vector<uint8_t> data(300, 0xA5), back(300);
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

  // Each request reaches the chip with its arguments (the trace shows them);
  // opening with O_TRUNC, as dd does, truncates nothing.
  UniqueFd mtd1(open(device(1).c_str(), O_RDWR | O_TRUNC)), fis(open(device(4).c_str(), O_RDWR));
  ASSERT_GE(mtd1.get(), 0) << strerror(errno);
  erase_info_user range = {0x1000, 0x2000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMERASE, &range));
  ASSERT_EQ(300, pwrite(mtd1.get(), data.data(), data.size(), 0x1F80));
  ASSERT_EQ(300, pread(mtd1.get(), back.data(), back.size(), 0x1F80));
  range = {0x1000, 0x1000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMLOCK, &range));
  EXPECT_EQ(-1, pwrite(mtd1.get(), data.data(), 1, 0x1800));
  EXPECT_EQ(EIO, errno);
  ASSERT_EQ(0, Ioctl(mtd1.get(), MEMUNLOCK, &range));
  FisEntryRequest entry = {"RedBoot Config", 0xFFFFB000, 0x2000, 0x1234};
  ASSERT_EQ(0, Ioctl(fis.get(), kSetFisEntry, &entry));
  ExtentRequest extent = {sim_test::kNorBase + 0xB000, 0x3000};
  ASSERT_EQ(0, Ioctl(mtd1.get(), kSetExtent, &extent));
  EXPECT_EQ(0x3000, size(1));
  testing_support::WriteFile(dir.File("image"), std::string(0x1000, '\x5A'));
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir.File("image"), "of=" + device(1), "bs=4096"}));
  EXPECT_EQ(testing_support::ReadFile(state + "/trace.log"),
            "open mtd1 0x00000000 0 ok\nopen mtd4 0x00000000 0 ok\n"
            "erase mtd1 0x00001000 0x00002000 ok\nwrite mtd1 0x00001f80 300 ok\n"
            "read mtd1 0x00001f80 300 ok\nlock mtd1 0x00001000 0x00001000 ok\n"
            "write mtd1 0x00001800 1 EIO\nunlock mtd1 0x00001000 0x00001000 ok\n"
            "set-fis mtd4 0xffffb000 0x00002000 ok\n"
            "set-extent mtd1 0xffffb000 0x00003000 ok\nopen mtd1 0x00000000 0 ok\n"
            "write mtd1 0x00000000 4096 ok\n");
  EXPECT_EQ(data, back);
  EXPECT_EQ(chip()[0xB000], 0x5A);

  UniqueFd mtd0(open(device(0).c_str(), O_RDWR));  // the plan prepared before mounting
  EXPECT_EQ(-1, pread(mtd0.get(), back.data(), 1, 0));
  EXPECT_EQ(EIO, errno);
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
  EXPECT_NE(at_cut, sim_test::NorChip(state).image);
}

}  // namespace
