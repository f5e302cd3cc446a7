// The flash access calls on the eight-partition board's chip, mounted by the
// simulator: what each call leaves on the flash, answers and logs.
#include "sdk/velt_mtd.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
// <mtd/mtd-user.h> needs the _IO* macros of <sys/ioctl.h> first.
#include <mtd/mtd-user.h>

#include <functional>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "log_lines.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;
using testing_support::LoggedErrorLines;
constexpr char kFis[] = "/dev/mtd7";
constexpr size_t kDirectory = 8 * 256;

class VeltMtdTest : public sim_test::MountedChipTest {
 protected:
  Lines Logged() {
    const Lines lines = LoggedErrorLines();
    testing_support::SyslogRecords().clear();
    return lines;
  }
  std::vector<uint8_t> ChipBytes(uint32_t address, size_t length) const {
    const auto at = initial_.image.begin() + (address - initial_.layout.chip_base);
    return std::vector<uint8_t>(at, at + length);
  }
};

TEST_F(VeltMtdTest, DirectoryIsCountedAndCopiedUpToTheFirstErasedRecord) {
  MOUNT_OR_RETURN("nor8");
  int bytes = -1;
  EXPECT_EQ(8, VELTMTDGetPartitionInfo(kFis, nullptr, 0, &bytes));
  EXPECT_EQ(static_cast<int>(kDirectory), bytes);
  const std::vector<uint8_t> directory = ChipBytes(0xFFFF0000, kDirectory);
  std::vector<uint8_t> buffer(kDirectory + 1, 0xA5);
  EXPECT_EQ(8, VELTMTDGetPartitionInfo(kFis, buffer.data(), kDirectory, &bytes));
  EXPECT_EQ(directory, std::vector<uint8_t>(buffer.begin(), buffer.end() - 1));
  EXPECT_EQ(0xA5, buffer.back());
  // One byte short: the seven records that fit are copied, *bytes is kept.
  buffer.assign(kDirectory, 0xA5);
  bytes = 123;
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(kFis, buffer.data(), kDirectory - 1, &bytes));
  EXPECT_EQ(123, bytes);
  EXPECT_TRUE(std::equal(directory.begin(), directory.end() - 256, buffer.begin()));
  EXPECT_EQ(std::vector<uint8_t>(256, 0xA5), std::vector<uint8_t>(buffer.end() - 256, buffer.end()));
  EXPECT_EQ(Lines{"VELTMTDGetPartitionInfo(N): not enough memory"}, Logged());
  ASSERT_EQ(0, VELTMTDErasePartition(kFis));
  EXPECT_EQ(0, VELTMTDGetPartitionInfo(kFis, buffer.data(), 1, &bytes));
  EXPECT_EQ(0, bytes);
}

TEST_F(VeltMtdTest, RequestsChangeOnlyWhatTheyName) {
  // The kernel's record renamed to fifteen characters, as the driver matches them.
  MOUNT_OR_RETURN("nor8", [](flashsim::ChipState* chip) {
    chip->layout.partitions[1].name = "ABCDEFGHIJKLMNO";
    memcpy(&chip->image[0x7F0000 + 256], "ABCDEFGHIJKLMNO", 15);
  });
  mtd_info_user info;
  memset(&info, 0xAA, sizeof(info));
  ASSERT_EQ(0, VELTMTDGetDeviceInfo("/dev/mtd2", &info, sizeof(info)));
  EXPECT_EQ(0x280000u, info.size);
  EXPECT_EQ(0x10000u, info.erasesize);
  EXPECT_EQ(0, VELTMTDErasePartition("/dev/mtd2"));
  EXPECT_EQ(0, VELTMTDModifyPartitionSize("/dev/mtd1", 0xFF810000, 0x170000));
  VELTMTDFisEntry entry = {{}, 0xFF810000, 0x170000, 0x12F3A4};
  memcpy(entry.name, "ABCDEFGHIJKLMNOP", 16);  // no terminating NUL
  EXPECT_EQ(0, VELTMTDModifyFISEntry(kFis, &entry));
  EXPECT_EQ(0, VELTMTDLockPartition("/dev/mtd3"));
  EXPECT_EQ(0, VELTMTDLockPartition("/dev/mtd4"));
  EXPECT_EQ(0, VELTMTDILock("/dev/mtd4", 2));  // anything but 1 unlocks
  EXPECT_EQ(Lines{}, Logged());
  sim_test::ExpectedChip expected(initial_);
  expected.Write("rd.gz", "", false).Move("ABCDEFGHIJKLMNO", 1, -1).Lock("AllLib.tgz", 1);
  EXPECT_TRUE(expected.Matches(Unmounted()));
}

// Each failure is logged with the step and errno, and changes nothing.
TEST_F(VeltMtdTest, FailuresAreLoggedWithTheirStepAndErrno) {
  MOUNT_OR_RETURN("nor8");
  std::vector<uint8_t> buffer(kDirectory, 0xAA);
  int bytes = 0;
  const VELTMTDFisEntry unknown = {"nowhere", 0xFF800000, 0x10000, 1};
  struct Row {
    const char* fault;
    std::function<int()> call;
    std::string message;
  } rows[] = {
      {"", [&] { return VELTMTDGetDeviceInfo("/dev/mtd1", buffer.data(), 31); },
       "VELTMTDGetDeviceInfo(N): parameter error"},
      {"", [&] { return VELTMTDGetDeviceInfo("/dev/mtd9", buffer.data(), 32); },
       "VELTMTDGetDeviceInfo(N): fail to open mtd device, errno = 2"},
      {"getinfo mtd1", [&] { return VELTMTDGetDeviceInfo("/dev/mtd1", buffer.data(), 32); },
       "VELTMTDGetDeviceInfo(N): fail to get mtd size, errno = 5"},
      {"", [&] { return VELTMTDGetPartitionInfo(kFis, buffer.data(), 0, &bytes); },
       "VELTMTDGetPartitionInfo(N): parameter error"},
      {"read mtd7", [&] { return VELTMTDGetPartitionInfo(kFis, nullptr, 0, &bytes); },
       "VELTMTDGetPartitionInfo(N): failed to read from /dev/mtd7(errno = 5)"},
      {"", [&] { return VELTMTDErasePartition("/dev/mtd9"); },
       "VELTMTDErasePartition(N): fail to open mtd device /dev/mtd9, errno = 2"},
      {"getinfo mtd2", [&] { return VELTMTDErasePartition("/dev/mtd2"); },
       "VELTMTDErasePartition(N): Could not get MTD device info for /dev/mtd2, errno = 5"},
      {"erase mtd2", [&] { return VELTMTDErasePartition("/dev/mtd2"); },
       "Could not erase MTD device: /dev/mtd2, errno = 5\n"},
      {"lock mtd1", [&] { return VELTMTDLockPartition("/dev/mtd1"); },
       "Could not lock/unlock MTD device: /dev/mtd1, errno = 5\n"},
      {"", [&] { return VELTMTDModifyPartitionSize("/dev/mtd2", 0xFF980800, 0x10000); },
       "Failed to set the mtd info of /dev/mtd2 by ioctl, errno = 22\n"},
      {"", [&] { return VELTMTDModifyFISEntry(kFis, &unknown); },
       "VELTMTDModifyFISEntry: Failed to set the mtd info of /dev/mtd7 by ioctl, errno = 2\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    if (row.fault[0] != '\0') Fault(std::string("fault ") + row.fault + " every errno=EIO");
    EXPECT_EQ(-1, row.call());
    EXPECT_EQ(Lines{row.message}, Logged());
    Fault("fault clear");
  }
  EXPECT_TRUE(sim_test::ExpectedChip(initial_).Matches(Unmounted()));
}

TEST_F(VeltMtdTest, FlashDiskIsBitZeroOfTheFlashType) {
  MOUNT_OR_RETURN("nor8");
  ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", "/dev/flash/.control", 1));
  for (const char* type : {"3", "2", "errno ENOSYS", "1"}) {
    ASSERT_EQ("OK\n", sim_test::Control(sim_test::kDevFlash, std::string("set flash-type ") + type));
    EXPECT_EQ(type[0] == '3' || type[0] == '1', VELTMTDIsMSysFlash()) << type;
  }
  unsetenv("FILEBAY_FLASH_CONTROL");
}

// The 652-byte block at offset 544 of mtd5; on junior boards in a file.
TEST_F(VeltMtdTest, StressBlockIsWrittenAndReadBackWhateverTheWriteDid) {
  MOUNT_OR_RETURN("nor8");
  ASSERT_EQ(0, system("mkdir -p /etc.defaults /var/log; rm -f /var/log/stress.data"));
  testing_support::WriteFile("/etc.defaults/veltinfo.conf", "unique=\"velt_4bay\"\n");
  const std::string data = sim_test::ImageBytes(5, VELT_MTD_STRESS_DATA_SIZE);
  ASSERT_EQ(0, VELTMTDErasePartition("/dev/mtd5"));
  std::string buffer = data;
  ASSERT_EQ(0, VELTMTDWriteStressData(&buffer[0]));
  std::string back(VELT_MTD_STRESS_DATA_SIZE, '\0');
  ASSERT_EQ(0, VELTMTDStressData(&back[0], 1));
  EXPECT_EQ(data, back);
  EXPECT_EQ(Lines{"write mtd5 0x00000220 652 ok"}, Trace("write"));
  // A refused write still hands back what the flash holds.
  Fault("fault write mtd5 nth=1 errno=EIO");
  buffer.assign(VELT_MTD_STRESS_DATA_SIZE, 'x');
  EXPECT_EQ(-1, VELTMTDStressData(&buffer[0], 0));
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_EQ(data, buffer);
  Fault("fault read mtd5 nth=1 errno=EIO");
  EXPECT_EQ(-1, VELTMTDReadStressData(&buffer[0]));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  EXPECT_EQ(-1, VELTMTDStressData(&buffer[0], 2));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());

  testing_support::WriteFile("/etc.defaults/veltinfo.conf", "unique=\"velt_junior\"\n");
  buffer.assign(VELT_MTD_STRESS_DATA_SIZE, 'y');
  ASSERT_EQ(0, VELTMTDReadStressData(&buffer[0]));  // a new, empty file: nothing read
  EXPECT_EQ(std::string(VELT_MTD_STRESS_DATA_SIZE, 'y'), buffer);
  ASSERT_EQ(0, VELTMTDWriteStressData(&back[0]));
  EXPECT_EQ(std::string(544, '\0') + data, testing_support::ReadFile("/var/log/stress.data"));
  struct stat st;
  ASSERT_EQ(0, stat("/var/log/stress.data", &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(2u, Trace("write").size());  // the two on mtd5
  sim_test::ExpectedChip expected(initial_);
  expected.Write("veltcfg", std::string(544, '\xFF') + data, false);
  EXPECT_TRUE(expected.Matches(Unmounted()));
}

}  // namespace
