// The flash access calls on the eight-partition board's chip, mounted by the
// simulator: what each call leaves on the flash, answers and logs.
#include "sdk/velt_mtd.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "lib/slib_error.h"
#include "log_lines.h"
#include "sim_test_mount.h"

namespace {

using Lines = std::vector<std::string>;
using sim_test::ExpectedChip;
using testing_support::LoggedErrorLines;
constexpr char kFis[] = "/dev/mtd7";
constexpr int kDirectory = 8 * 256;

using VeltMtdTest = sim_test::ChipTest;

TEST_F(VeltMtdTest, DirectoryIsCountedAndCopiedUpToTheFirstErasedRecord) {
  OR_RETURN(Mount("nor8"));
  int bytes = -1;
  EXPECT_EQ(8, VELTMTDGetPartitionInfo(kFis, nullptr, 0, &bytes));
  EXPECT_EQ(kDirectory, bytes);
  const std::string directory(initial_.image.end() - 0x10000, initial_.image.end() - 0xF800);
  std::string buffer(kDirectory + 256, 'x');
  EXPECT_EQ(8, VELTMTDGetPartitionInfo(kFis, &buffer[0], kDirectory, &bytes));
  EXPECT_EQ(directory + std::string(256, 'x'), buffer);
  // One byte short: the seven records that fit are copied.
  buffer.assign(kDirectory, 'x');
  EXPECT_EQ(-1, VELTMTDGetPartitionInfo(kFis, &buffer[0], kDirectory - 1, &bytes));
  EXPECT_EQ(directory.substr(0, 7 * 256) + std::string(256, 'x'), buffer);
  EXPECT_EQ(Lines{"VELTMTDGetPartitionInfo(N): not enough memory"}, LoggedErrorLines());
}

// The driver is given no more than the fifteen characters it matches.
TEST_F(VeltMtdTest, FisEntryNameIsCutToFifteenCharacters) {
  OR_RETURN(Mount("nor8", [](flashsim::ChipState* chip) {
    memcpy(&chip->image[0x7F0100], "ABCDEFGHIJKLMNO", 15);  // the kernel's record
  }));
  VELTMTDFisEntry entry = {"ABCDEFGHIJKLMNO", 0xFF800000, 0x170000, 5};
  entry.name[15] = 'P';  // no terminating NUL
  EXPECT_EQ(0, VELTMTDModifyFISEntry(kFis, &entry));
  EXPECT_EQ(Lines{"set-fis mtd7 0xff800000 0x00170000 ok"}, Trace("set-fis"));
}

// Each failure is logged with its step and errno and changes nothing.
TEST_F(VeltMtdTest, FailuresAreLoggedWithTheirStepAndErrno) {
  OR_RETURN(Mount("nor8"));
  int bytes = 0;
  const struct {
    const char* fault;
    std::function<int()> call;
    std::string message;
  } rows[] = {
      {"read mtd7", [&] { return VELTMTDGetPartitionInfo(kFis, nullptr, 0, &bytes); },
       "VELTMTDGetPartitionInfo(N): failed to read from /dev/mtd7(errno = 5)"},
      {"erase mtd2", [&] { return VELTMTDErasePartition("/dev/mtd2"); },
       "Could not erase MTD device: /dev/mtd2, errno = 5\n"},
      {"", [&] { return VELTMTDModifyPartitionSize("/dev/mtd2", 0xFF980800, 0x10000); },
       "Failed to set the mtd info of /dev/mtd2 by ioctl, errno = 22\n"},
  };
  for (const auto& row : rows) {
    if (row.fault[0] != '\0') Fault(std::string("fault ") + row.fault + " every errno=EIO");
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, row.call()) << row.message;
    EXPECT_EQ(Lines{row.message}, LoggedErrorLines());
    Fault("fault clear");
  }
  EXPECT_TRUE(ExpectedChip(initial_).Matches(Unmounted()));
}

// The 652-byte block at offset 544 of mtd5; on junior boards in a file.
TEST_F(VeltMtdTest, StressBlockIsWrittenAndReadBackWhateverTheWriteDid) {
  OR_RETURN(Mount("nor8"));
  ASSERT_EQ(0, system("mkdir -p /etc.defaults /var/log; rm -f /var/log/stress.data"));
  testing_support::WriteFile("/etc.defaults/veltinfo.conf", "unique=\"velt_4bay\"\n");
  const std::string data = sim_test::ImageBytes(5, VELT_MTD_STRESS_DATA_SIZE);
  ASSERT_EQ(0, VELTMTDErasePartition("/dev/mtd5"));
  std::string buffer = data;
  ASSERT_EQ(0, VELTMTDStressData(&buffer[0], 0));
  // A refused write still hands back what the flash holds.
  Fault("fault write mtd5 nth=1 errno=EIO");
  buffer.assign(data.size(), 'x');
  EXPECT_EQ(-1, VELTMTDWriteStressData(&buffer[0]));
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_EQ(data, buffer);
  EXPECT_EQ(Lines{"write mtd5 0x00000220 652 ok"}, Trace("write mtd5 0x00000220 652 ok"));
  testing_support::WriteFile("/etc.defaults/veltinfo.conf", "unique=\"velt_junior\"\n");
  ASSERT_EQ(0, VELTMTDReadStressData(&buffer[0]));  // a new, empty file: nothing read
  ASSERT_EQ(0, VELTMTDWriteStressData(&buffer[0]));
  EXPECT_EQ(std::string(544, '\0') + data, testing_support::ReadFile("/var/log/stress.data"));
  ExpectedChip expected(initial_);
  EXPECT_TRUE(expected.Write("veltcfg", std::string(544, '\xFF') + data, 0).Matches(Unmounted()));
}

}  // namespace
