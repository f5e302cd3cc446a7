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
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "sdk/kernel.h"
#include "sim/flash_chip.h"
#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "sim_test_programs.h"
#include "test_support.h"

namespace {

using sim_test::RunProgram;
using sim_test::WaitForExit;

using sim_test::kFisDevice;
using sim_test::kNorBase;

struct ExtentRequest {
  uint32_t flash_base;
  uint32_t size;
};
struct FisEntryRequest {
  char name[16];
  uint32_t flash_base;
  uint32_t size;
  uint32_t data_length;
};
constexpr unsigned long kSetExtent = _IOW('M', 0x16, ExtentRequest);
constexpr unsigned long kSetFisEntry = _IOW('M', 0x17, FisEntryRequest);
constexpr unsigned long kGetMSysTable = _IOR('M', 0x1A, uint32_t[16]);

// 0, or the errno of the failing ioctl.
int IoctlError(int fd, unsigned long request, void* argument) {
  return ioctl(fd, request, argument) == 0 ? 0 : errno;
}

// Helpers are public so that the table-driven cases can call them.
class FlashsimMountTest : public ::testing::Test {
 public:
  void SetUp() override {
    const std::string why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    state_ = dir_.File("state");
    mount_ = dir_.File("mnt");
    ASSERT_EQ(0, mkdir(state_.c_str(), 0755));
    ASSERT_EQ(0, mkdir(mount_.c_str(), 0755));
  }

  void TearDown() override {
    if (!mount_.empty()) sim_test::StopDaemon(mount_, &daemon_);
  }

  // Writes the chip into the state directory and mounts it with the daemon
  // in the foreground, as a child of this process.
  void Mount(const flashsim::ChipState& state, const std::string& faults = "") {
    initial_ = state;
    std::string error;
    ASSERT_TRUE(flashsim::SaveState(state, &error)) << error;
    if (!faults.empty()) testing_support::WriteFile(state_ + "/faults", faults);
    sim_test::StartDaemon(state_, mount_, dir_.File("daemon.log"), {"-o", "allow_other"}, &daemon_);
  }

  std::string Path(const std::string& name) const { return mount_ + "/" + name; }
  std::string Device(int index) const { return Path("mtd" + std::to_string(index)); }
  std::vector<uint8_t> ChipImage() const { return sim_test::ReadBytes(state_ + "/chip.img"); }
  std::vector<std::string> Trace() const { return sim_test::ReadLines(state_ + "/trace.log"); }
  bool IsMounted() const { return sim_test::IsMounted(mount_); }
  std::string Control(const std::string& command) { return sim_test::Control(mount_, command); }

  // The errno of an ioctl on a freshly opened device, or 0.
  int DeviceIoctl(int device, unsigned long request, void* argument) {
    UniqueFd fd(open(Device(device).c_str(), O_RDWR));
    if (fd.get() < 0) return -errno;
    return IoctlError(fd.get(), request, argument);
  }
  int Erase(int device, uint32_t start, uint32_t length) {
    erase_info_user range = {start, length};
    return DeviceIoctl(device, MEMERASE, &range);
  }

  testing_support::TempDir dir_;
  std::string state_;
  std::string mount_;
  pid_t daemon_ = -1;
  flashsim::ChipState initial_;
};

#define MOUNT_OR_RETURN(...)                      \
  do {                                            \
    Mount(__VA_ARGS__);                           \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

TEST_F(FlashsimMountTest, ReadsAndWritesAtOffsetsAndAcrossBlockBoundaries) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ASSERT_EQ(0, Erase(1, 0x1000, 0x2000));
  std::vector<uint8_t> data(300);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 13 + 1);
  UniqueFd fd(open(Device(1).c_str(), O_RDWR));
  ASSERT_GE(fd.get(), 0);
  ASSERT_EQ(300, pwrite(fd.get(), data.data(), data.size(), 0x1F80));
  ASSERT_EQ(2, pwrite(fd.get(), data.data(), 2, 0x2FFE));
  std::vector<uint8_t> read_back(300);
  ASSERT_EQ(300, pread(fd.get(), read_back.data(), read_back.size(), 0x1F80));
  EXPECT_EQ(data, read_back);

  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + 0x3000, expected.begin() + 0x5000, 0xFF);
  std::copy(data.begin(), data.end(), expected.begin() + 0x3F80);
  std::copy(data.begin(), data.begin() + 2, expected.begin() + 0x4FFE);
  EXPECT_TRUE(ChipImage() == expected);

  EXPECT_EQ(16, pread(fd.get(), read_back.data(), 100, 0x4000 - 16));
  EXPECT_EQ(0, memcmp(read_back.data(), &expected[0x6000 - 16], 16));
  EXPECT_EQ(0, pread(fd.get(), read_back.data(), 100, 0x4000));
  EXPECT_EQ(-1, pwrite(fd.get(), data.data(), 10, 0x4000));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, WriteOverUnerasedDataGivesTheAndOfOldAndNew) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  std::vector<uint8_t> data(0x1800, 0x0F);
  UniqueFd fd(open(Device(0).c_str(), O_WRONLY));
  ASSERT_EQ(0x1800, pwrite(fd.get(), data.data(), data.size(), 0x100));
  std::vector<uint8_t> expected = initial_.image;
  for (size_t i = 0x100; i < 0x1900; ++i) expected[i] &= 0x0F;
  EXPECT_TRUE(ChipImage() == expected);
  EXPECT_NE(initial_.image, expected);
}

TEST_F(FlashsimMountTest, EraseNeedsBlockAlignedRangesInsideThePartition) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  EXPECT_EQ(EINVAL, Erase(1, 0x800, 0x1000));
  EXPECT_EQ(EINVAL, Erase(1, 0x1000, 0x800));
  EXPECT_EQ(EINVAL, Erase(1, 0, 0x5000));
  EXPECT_TRUE(ChipImage() == initial_.image);
  EXPECT_EQ(0, Erase(1, 0x3000, 0x1000));
  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + 0x5000, expected.begin() + 0x6000, 0xFF);
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, LockedBlocksRefuseEraseAndWriteWithEio) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  erase_info_user range = {0x1000, 0x1000};
  ASSERT_EQ(0, DeviceIoctl(1, MEMLOCK, &range));
  EXPECT_EQ("0001000000000000", testing_support::ReadFile(state_ + "/locks"));
  EXPECT_EQ(EIO, Erase(1, 0, 0x4000));
  UniqueFd fd(open(Device(1).c_str(), O_WRONLY));
  uint8_t zero = 0;
  EXPECT_EQ(-1, pwrite(fd.get(), &zero, 1, 0x1800));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(ChipImage() == initial_.image);
  ASSERT_EQ(0, DeviceIoctl(1, MEMUNLOCK, &range));
  EXPECT_EQ(1, pwrite(fd.get(), &zero, 1, 0x1800));
  EXPECT_EQ(0, Erase(1, 0, 0x4000));
}

TEST_F(FlashsimMountTest, GetInfoAnswersTypeSizeAndEraseSize) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  mtd_info_user info;
  memset(&info, 0xAA, sizeof(info));
  ASSERT_EQ(0, DeviceIoctl(2, MEMGETINFO, &info));
  EXPECT_EQ(MTD_NORFLASH, info.type);
  EXPECT_EQ(0x4000u, info.size);
  EXPECT_EQ(0x1000u, info.erasesize);
  ASSERT_EQ(0, DeviceIoctl(kFisDevice, MEMGETINFO, &info));
  EXPECT_EQ(0x1000u, info.size);
  struct stat st;
  ASSERT_EQ(0, stat(Device(2).c_str(), &st));
  EXPECT_EQ(0x4000, st.st_size);
}

TEST_F(FlashsimMountTest, SetExtentMovesTheViewAndNothingElse) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ExtentRequest bad = {kNorBase + 0xB800, 0x1000};
  EXPECT_EQ(EINVAL, DeviceIoctl(2, kSetExtent, &bad));
  ExtentRequest extent = {kNorBase + 0xB000, 0x3000};
  ASSERT_EQ(0, DeviceIoctl(2, kSetExtent, &extent));
  EXPECT_TRUE(ChipImage() == initial_.image);
  struct stat st;
  ASSERT_EQ(0, stat(Device(2).c_str(), &st));
  EXPECT_EQ(0x3000, st.st_size);
  std::vector<uint8_t> view(0x3000);
  UniqueFd fd(open(Device(2).c_str(), O_RDONLY));
  ASSERT_EQ(0x3000, pread(fd.get(), view.data(), view.size(), 0));
  EXPECT_EQ(0, memcmp(view.data(), &initial_.image[0xB000], view.size()));

  ExtentRequest overlapping = {kNorBase + 0x1000, 0x2000};
  ASSERT_EQ(0, DeviceIoctl(1, kSetExtent, &overlapping));
  std::vector<std::string> trace = Trace();
  EXPECT_EQ("overlap mtd1 mtd0", trace.back());
  EXPECT_TRUE(ChipImage() == initial_.image);
}

TEST_F(FlashsimMountTest, SetFisEntryChangesOneRecordsThreeFieldsBigEndian) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  FisEntryRequest entry;
  memset(&entry, 0, sizeof(entry));
  strcpy(entry.name, "RedBoot Config");
  entry.flash_base = 0xFFFFB000;
  entry.size = 0x2000;
  entry.data_length = 0x1234;
  ASSERT_EQ(0, DeviceIoctl(kFisDevice, kSetFisEntry, &entry));
  std::vector<uint8_t> expected = initial_.image;
  uint8_t* record = &expected[0xF000 + 3 * 256];
  const uint8_t flash_base[] = {0xFF, 0xFF, 0xB0, 0x00};
  const uint8_t size[] = {0x00, 0x00, 0x20, 0x00};
  const uint8_t data_length[] = {0x00, 0x00, 0x12, 0x34};
  memcpy(record + 16, flash_base, 4);
  memcpy(record + 24, size, 4);
  memcpy(record + 32, data_length, 4);
  EXPECT_TRUE(ChipImage() == expected);

  strcpy(entry.name, "nowhere");
  EXPECT_EQ(ENOENT, DeviceIoctl(kFisDevice, kSetFisEntry, &entry));
  strcpy(entry.name, "zImage");
  EXPECT_EQ(EINVAL, DeviceIoctl(1, kSetFisEntry, &entry));
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, OpeningWithTruncateChangesNothing) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  {
    UniqueFd fd(open(Device(1).c_str(), O_WRONLY | O_TRUNC));
    ASSERT_GE(fd.get(), 0) << strerror(errno);
    EXPECT_EQ(0, ftruncate(fd.get(), 0));
  }
  struct stat st;
  ASSERT_EQ(0, stat(Device(1).c_str(), &st));
  EXPECT_EQ(0x4000, st.st_size);
  EXPECT_TRUE(ChipImage() == initial_.image);

  // dd opens its output with O_TRUNC; the data still lands at offset 0.
  ASSERT_EQ(0, Erase(1, 0, 0x4000));
  std::string image(0x4000, '\0');
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<char>(i % 251);
  testing_support::WriteFile(dir_.File("image.bin"), image);
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir_.File("image.bin"), "of=" + Device(1), "bs=16384"}));
  std::vector<uint8_t> expected = initial_.image;
  std::copy(image.begin(), image.end(), expected.begin() + 0x2000);
  EXPECT_TRUE(ChipImage() == expected);
}

struct FaultCase {
  const char* op;
  int device;                                          // where the fault is set
  int other;                                           // a device where it must not fire, or -1
  std::function<int(FlashsimMountTest*, int)> action;  // errno of one operation
};

int OpenAction(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

TEST_F(FlashsimMountTest, EachFaultKindFiresWhenAndWhereItIsTold) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  // Every action leaves the chip as it was, so only the fault can fail it.
  auto io = [](FlashsimMountTest* test, int device, bool writing) {
    UniqueFd fd(open(test->Device(device).c_str(), O_RDWR));
    if (fd.get() < 0) return errno;
    uint8_t bytes[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    ssize_t done = writing ? pwrite(fd.get(), bytes, 4, 0x10) : pread(fd.get(), bytes, 4, 0x10);
    return done == 4 ? 0 : errno;
  };
  const FaultCase cases[] = {
      {"open", 1, 2, [](FlashsimMountTest* t, int d) { return OpenAction(t->Device(d)); }},
      {"read", 1, 2, [&](FlashsimMountTest* t, int d) { return io(t, d, false); }},
      {"write", 1, 2, [&](FlashsimMountTest* t, int d) { return io(t, d, true); }},
      {"erase", 3, 1, [](FlashsimMountTest* t, int d) { return t->Erase(d, 0, 0); }},
      {"lock", 1, 2,
       [](FlashsimMountTest* t, int d) {
         erase_info_user range = {0, 0};
         return t->DeviceIoctl(d, MEMLOCK, &range);
       }},
      {"unlock", 1, 2,
       [](FlashsimMountTest* t, int d) {
         erase_info_user range = {0, 0x1000};
         return t->DeviceIoctl(d, MEMUNLOCK, &range);
       }},
      {"set-extent", 1, 2,
       [](FlashsimMountTest* t, int d) {
         ExtentRequest extent = {t->initial_.layout.Find(d)->base,
                                 t->initial_.layout.Find(d)->size};
         return t->DeviceIoctl(d, kSetExtent, &extent);
       }},
      {"set-fis", kFisDevice, -1,
       [](FlashsimMountTest* t, int d) {
         FisEntryRequest entry = {"rd.gz", kNorBase + 0x6000, 0x4000, 0x2000};
         return t->DeviceIoctl(d, kSetFisEntry, &entry);
       }},
  };
  for (const FaultCase& test : cases) {
    SCOPED_TRACE(test.op);
    ASSERT_EQ("OK\n", Control("fault clear"));
    std::string command = std::string("fault ") + test.op + " mtd" + std::to_string(test.device) +
                          " nth=2 errno=EROFS";
    ASSERT_EQ("OK\n", Control(command));
    size_t trace_start = Trace().size();
    if (test.other >= 0) {
      EXPECT_EQ(0, test.action(this, test.other));
    }
    EXPECT_EQ(0, test.action(this, test.device));
    EXPECT_EQ(EROFS, test.action(this, test.device));
    EXPECT_EQ(0, test.action(this, test.device));
    std::vector<std::string> trace = Trace();
    int failures = 0;
    for (size_t i = trace_start; i < trace.size(); ++i) {
      if (trace[i].find("EROFS") == std::string::npos) continue;
      ++failures;
      EXPECT_EQ(0u, trace[i].find(std::string(test.op) + " mtd" + std::to_string(test.device)))
          << trace[i];
    }
    EXPECT_EQ(1, failures);
  }
  EXPECT_TRUE(ChipImage() == initial_.image);
}

TEST_F(FlashsimMountTest, CorruptedWriteAndWornBlockSpoilWhatIsProgrammed) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ASSERT_EQ(0, Erase(1, 0, 0x4000));
  ASSERT_EQ("OK\n", Control("fault corrupt-next-write mtd1"));
  ASSERT_EQ("OK\n", Control("fault worn-block mtd1 0x3000"));
  std::vector<uint8_t> data(0x4000, 0x00);
  UniqueFd fd(open(Device(1).c_str(), O_RDWR));
  ASSERT_EQ(0x2000, pwrite(fd.get(), data.data(), 0x2000, 0));
  ASSERT_EQ(0x2000, pwrite(fd.get(), data.data(), 0x2000, 0x2000));
  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + 0x2000, expected.begin() + 0x6000, 0x00);
  expected[0x2000] = 0x01;                                                // the flipped bit
  std::fill(expected.begin() + 0x5000, expected.begin() + 0x6000, 0x01);  // the worn block
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, PowerCutLeavesTheChipAsItWasAtTheCut) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ASSERT_EQ("OK\n", Control("fault power-cut after=4"));
  std::vector<uint8_t> zeros(0x100, 0);
  std::vector<uint8_t> at_cut;
  {
    UniqueFd fd(open(Device(1).c_str(), O_RDWR));  // operation 1
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(0x100, pwrite(fd.get(), zeros.data(), 0x100, 0));       // 2
    ASSERT_EQ(0x100, pwrite(fd.get(), zeros.data(), 0x100, 0x1000));  // 3
    erase_info_user range = {0x3000, 0x1000};
    ASSERT_EQ(0, IoctlError(fd.get(), MEMERASE, &range));  // 4
    at_cut = ChipImage();
    EXPECT_NE(initial_.image, at_cut);

    EXPECT_EQ(-1, pwrite(fd.get(), zeros.data(), 0x100, 0x2000));
    EXPECT_EQ(EIO, errno);
    range = {0, 0x1000};
    EXPECT_EQ(EIO, IoctlError(fd.get(), MEMERASE, &range));
    EXPECT_EQ(EIO, OpenAction(Device(2)));
    EXPECT_EQ(-EIO, Erase(0, 0, 0x1000));  // the open fails
  }
  ASSERT_EQ(0, RunProgram({"fusermount3", "-u", mount_}));
  int status = 0;
  ASSERT_TRUE(WaitForExit(daemon_, 10000, &status));
  daemon_ = -1;
  EXPECT_TRUE(ChipImage() == at_cut);
}

TEST_F(FlashsimMountTest, KernelSimFunctionsAnswerThroughTheControlFile) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", Path(".control").c_str(), 1));
  uint32_t type = 0xFFFFFFFF;
  EXPECT_EQ(0, VELTKernelFlashType(&type));
  EXPECT_EQ(0u, type);
  EXPECT_EQ(0, VELTKernelMtdDriverBuffer(1));
  EXPECT_EQ(0, VELTKernelMtdDriverBuffer(0));
  ASSERT_EQ("OK\n", Control("set flash-type errno ENOSYS"));
  ASSERT_EQ("OK\n", Control("set driver-buffer errno EBUSY"));
  errno = 0;
  EXPECT_EQ(-1, VELTKernelFlashType(&type));
  EXPECT_EQ(ENOSYS, errno);
  EXPECT_EQ(-1, VELTKernelMtdDriverBuffer(1));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-1, VELTKernelMSysFormat(-1, 967));  // not a flash disk
  EXPECT_EQ(ENOTTY, errno);
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", Path("nothing").c_str(), 1));
  EXPECT_EQ(-1, VELTKernelFlashType(&type));
  EXPECT_EQ(ENOENT, errno);
  unsetenv("FILEBAY_FLASH_CONTROL");
}

TEST_F(FlashsimMountTest, FlashDiskIsFormattedPartitionedAndReportsItsTable) {
  MOUNT_OR_RETURN(sim_test::MSysChip(state_));
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", Path(".control").c_str(), 1));
  uint32_t type = 0;
  EXPECT_EQ(0, VELTKernelFlashType(&type));
  EXPECT_EQ(1u, type);
  UniqueFd mtd0(open(Device(0).c_str(), O_RDWR));
  uint32_t table[16];
  ASSERT_EQ(0, IoctlError(mtd0.get(), kGetMSysTable, table));
  const uint32_t before[16] = {0x10000, 1000, 0x20000, 2000, 0x8000, 3000};
  EXPECT_EQ(0, memcmp(before, table, sizeof(table)));

  EXPECT_EQ(-1, VELTKernelMSysFormat(mtd0.get(), 966));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0, VELTKernelMSysFormat(mtd0.get(), 967));
  EXPECT_TRUE(ChipImage() == std::vector<uint8_t>(initial_.image.size(), 0xFF));
  const uint32_t counts[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(0, VELTKernelMSysPartition(mtd0.get(), counts));
  struct stat st;
  ASSERT_EQ(0, stat(Device(7).c_str(), &st));
  EXPECT_EQ(8 * 16384, st.st_size);

  std::string data(20000, 'x');
  testing_support::WriteFile(dir_.File("data.bin"), data);
  ASSERT_EQ(0, RunProgram({"dd", "if=" + dir_.File("data.bin"), "of=" + Device(3), "bs=16384"}));
  ASSERT_EQ(0, IoctlError(mtd0.get(), kGetMSysTable, table));
  const uint32_t after[16] = {16384,     0, 2 * 16384, 0, 3 * 16384, 0, 4 * 16384, 20000,
                              5 * 16384, 0, 6 * 16384, 0, 7 * 16384, 0, 8 * 16384, 0};
  EXPECT_EQ(0, memcmp(after, table, sizeof(table)));
  std::vector<uint8_t> expected(initial_.image.size(), 0xFF);
  std::fill(expected.begin() + 6 * 16384, expected.begin() + 6 * 16384 + 20000, 'x');
  EXPECT_TRUE(ChipImage() == expected);

  ASSERT_EQ("OK\n", Control("fault get-table mtd0 nth=1 errno=EIO"));
  ASSERT_EQ("OK\n", Control("fault partition all every errno=EPERM"));
  EXPECT_EQ(EIO, IoctlError(mtd0.get(), kGetMSysTable, table));
  EXPECT_EQ(-1, VELTKernelMSysPartition(mtd0.get(), counts));
  EXPECT_EQ(EPERM, errno);
  ASSERT_EQ("OK\n", Control("fault format mtd0 nth=1 errno=EIO"));
  EXPECT_EQ(-1, VELTKernelMSysFormat(mtd0.get(), 967));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(ChipImage() == expected);
  EXPECT_EQ(0, IoctlError(mtd0.get(), kGetMSysTable, table));  // only the first get-table failed
  unsetenv("FILEBAY_FLASH_CONTROL");
}

TEST_F(FlashsimMountTest, FaultPlanPreparedBeforeMountingIsApplied) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_), "fault read mtd0 every errno=EIO\n");
  UniqueFd fd(open(Device(0).c_str(), O_RDONLY));
  uint8_t byte = 0;
  EXPECT_EQ(-1, pread(fd.get(), &byte, 1, 0));
  EXPECT_EQ(EIO, errno);
  UniqueFd other(open(Device(1).c_str(), O_RDONLY));
  EXPECT_EQ(1, pread(other.get(), &byte, 1, 0));
}

TEST_F(FlashsimMountTest, ControlAnswerIsReadableWhereTheCommandEnded) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  UniqueFd control(open(Path(".control").c_str(), O_RDWR));
  ASSERT_EQ(11, write(control.get(), "flash-type\n", 11));
  char answer[32] = {};
  EXPECT_EQ(5, read(control.get(), answer, sizeof(answer)));
  EXPECT_STREQ("OK 0\n", answer);
  EXPECT_EQ("ERR 22\n", Control("no-such-command"));
}

TEST_F(FlashsimMountTest, DaemonStopsCleanlyOnUnmount) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  ASSERT_EQ(0, RunProgram({"fusermount3", "-u", mount_}));
  int status = 0;
  ASSERT_TRUE(WaitForExit(daemon_, 10000, &status));
  daemon_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(IsMounted());
}

TEST_F(FlashsimMountTest, DaemonStopsCleanlyOnSigterm) {
  MOUNT_OR_RETURN(sim_test::NorChip(state_));
  std::vector<uint8_t> zeros(16, 0);
  {
    UniqueFd fd(open(Device(1).c_str(), O_WRONLY));
    ASSERT_EQ(16, pwrite(fd.get(), zeros.data(), zeros.size(), 0));
  }
  ASSERT_EQ(0, kill(daemon_, SIGTERM));
  int status = 0;
  ASSERT_TRUE(WaitForExit(daemon_, 10000, &status));
  daemon_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(IsMounted());
  std::vector<uint8_t> expected = initial_.image;
  std::fill(expected.begin() + 0x2000, expected.begin() + 0x2010, 0);
  EXPECT_TRUE(ChipImage() == expected);
}

TEST_F(FlashsimMountTest, DaemonReturnsOnlyOnceTheMountIsReady) {
  std::string error;
  ASSERT_TRUE(flashsim::SaveState(sim_test::NorChip(state_), &error)) << error;
  // The daemon is left to this process when its launcher exits.
  ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
  int launched = RunProgram({FLASHSIM_DAEMON, state_, mount_});
  if (launched != 0) GTEST_SKIP() << "the daemon could not mount here (status " << launched << ")";
  struct stat st;
  EXPECT_EQ(0, stat(Path(".control").c_str(), &st));
  EXPECT_EQ(0, stat(Device(4).c_str(), &st));
  ASSERT_EQ(0, RunProgram({"fusermount3", "-u", mount_}));
  int status = 0;
  pid_t stopped = -1;
  for (int waited = 0; waited < 10000 && stopped <= 0; waited += 5) {
    stopped = waitpid(-1, &status, WNOHANG);
    if (stopped == 0) usleep(5000);
  }
  ASSERT_GT(stopped, 0) << "the daemon did not stop";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
