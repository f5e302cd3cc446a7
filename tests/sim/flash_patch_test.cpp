// The flash engine (lock, backup, patch, roll-back, directory repair) on the
// eight-partition board's chip, mounted by the simulator; every partition
// but the two directory ones starts locked. The rebalancing is compared
// with a model in patch_plan_sim_test.
#include "updater/flash_patch.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "lib/slib_error.h"
#include "log_lines.h"
#include "sim_test_mount.h"

// The next `empty_writes` writes to a file (not the standard streams) take
// nothing and return 0, as a device that programs no byte would.
static int empty_writes = 0;
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  if (empty_writes > 0 && fd > 2) return --empty_writes, 0;
  return syscall(SYS_write, fd, data, size);
}

namespace {

using Lines = std::vector<std::string>;
using sim_test::ExpectedChip;
using testing_support::LoggedMessages;
const char* const kLockable[] = {"RedBoot", "zImage", "rd.gz", "AllLib.tgz", "vendor", "veltcfg"};

// How many logged lines contain `text`.
size_t Logged(const std::string& text) {
  const Lines lines = LoggedMessages();
  return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

// `chip` with every partition but the directory ones locked (1) or not.
ExpectedChip Locked(const flashsim::ChipState& chip, uint8_t value) {
  ExpectedChip expected(chip);
  for (const char* name : kLockable) expected.Lock(name, value);
  return expected;
}

class FlashPatchTest : public sim_test::ChipTest {
 protected:
  void Start() {
    ChipTest::Start("nor8", 0, [](flashsim::ChipState* chip) { *chip = Locked(*chip, 1).chip(); });
  }
};

TEST_F(FlashPatchTest, NullOrEmptyDirectoryIsAParameterError) {
  OR_RETURN(Start());
  const size_t from = Trace().size();
  for (auto call : {UPDTBackupOldPartition, UPDTDoPatch, UPDTRollBack}) {
    EXPECT_EQ(-1, call(nullptr, count_));
    EXPECT_EQ(-1, call(records_.data(), 0));
  }
  EXPECT_EQ(6u, Logged("(N): parameter error "));
  EXPECT_EQ(Lines{}, Trace("", from));
}

// A record the board's tables do not know ends the backup after the
// board's own; progress 30 + 5 per partition copied.
TEST_F(FlashPatchTest, BackupCopiesEveryPartitionIntoAnEmptiedDirectory) {
  OR_RETURN(Start());
  flashsim::FisRecord spare;
  spare.name = "spare";
  records_.resize(records_.size() + 256);
  flashsim::EncodeFisRecord(spare, &records_[records_.size() - 256]);
  ASSERT_EQ(0, system("mkdir -p " UPDT_BACKUP_DIR "; touch " UPDT_BACKUP_DIR "/stale"));
  EXPECT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
  EXPECT_FALSE(testing_support::FileExists(UPDT_BACKUP_DIR "/stale"));
  EXPECT_EQ(-1, UPDTBackupOldPartition(records_.data(), count_ + 1));
  EXPECT_EQ("P:65", Progress());
  EXPECT_EQ(1u, Logged("UPDTBackupOldPartition(N): fail to get device path"));
  for (const flashsim::PartitionLayout& partition : initial_.layout.partitions) {
    const auto at = initial_.image.begin() + (partition.base - initial_.layout.chip_base);
    EXPECT_TRUE(std::string(at, at + partition.size) ==
                testing_support::ReadFile(UPDT_BACKUP_DIR "/mtd_" + partition.name))
        << partition.name;
  }
  EXPECT_TRUE(ExpectedChip(initial_).Matches(Unmounted()));
}

// One row of faults (or a kernel image that grew past its partition after
// the plan): the result, the progress, a log line, the kernel's erases and
// whether its record was rewritten. The last row leaves the new kernel.
TEST_F(FlashPatchTest, PatchFaultsEndOrRetryTheRewrite) {
  OR_RETURN(Start());
  const uint64_t kernel = 0x24000 + 7, ramdisk = 0x31000 + 3;
  const std::string share = "P:" + std::to_string(60 + 40 * kernel / (kernel + ramdisk));
  const struct {
    std::string faults;  // separated by ';'
    int result;
    std::string progress, message;
    size_t erases;
    bool recorded;
  } rows[] = {
      // Verified up to the worn block: 80 + 40 * 0x10000 / (2 * kernel).
      {"worn-block mtd1 0x10000", -1, "P:88", "[/dev/mtd1] 3 counts failed", 3, false},
      {"erase mtd1 every errno=EIO", -1, "P:60", "ErasePartition() fail", 3, false},
      {"set-fis mtd7 nth=1 errno=EIO", -1, "P:100", "ModifyFISEntry() fail", 1, false},
      // The retried bytes count once: the ramdisk starts at the kernel's share.
      {"corrupt-next-write mtd1;erase mtd2 every errno=EIO", -1, share, "Erase", 2, true},
      // The first verify fails at once, the retries at their erase: the
      // progress stays where the first write left it.
      {"corrupt-next-write mtd1;erase mtd1 nth=2 errno=EIO;erase mtd1 nth=3 errno=EIO", -1, "P:80",
       "3 counts failed", 3, false},
      // The device takes nothing past its end: the copy fails there.
      {"", -1, "P:100", "(UPDTCopyFile) write file [/dev/mtd1] error: (28)", 3, false},
      {"corrupt-next-write mtd1", 0, "P:100", "Finish updating [zImage]", 2, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.faults);
    unlink("rd.bin");
    Package("zImage", 31, kernel);
    if (row.faults.find("mtd2") != std::string::npos) Package("rd.bin", 32, ramdisk);
    ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
    if (row.faults.empty()) Package("zImage", 31, 0x180001);
    Fault("fault clear");
    std::istringstream faults(row.faults);
    for (std::string fault; std::getline(faults, fault, ';');) Fault("fault " + fault);
    testing_support::SyslogRecords().clear();
    const size_t from = Trace().size();
    EXPECT_EQ(row.result, UPDTDoPatch(records_.data(), count_));
    EXPECT_EQ(row.progress, Progress());
    EXPECT_LE(1u, Logged(row.message));
    EXPECT_EQ(row.erases, Trace("erase mtd1", from).size());
    EXPECT_EQ(row.recorded, Trace("set-fis mtd7 0xff800000 0x00180000 ok", from).size() == 1);
  }
  EXPECT_TRUE(
      Locked(initial_, 0).Write("zImage", sim_test::ImageBytes(31, kernel)).Matches(Unmounted()));
}

// The patch rewrote RedBoot, failed on the kernel's worn first block and
// never reached the ramdisk: the roll-back rewrites the first two only,
// and goes on past a partition it cannot restore.
TEST_F(FlashPatchTest, RollBackRestoresWhatThePatchTouched) {
  OR_RETURN(Start());
  ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
  Package("RedBoot.msys", 91, 0x20000 + 5);
  Package("zImage", 92, 0x30000);
  Package("rd.bin", 93, 0x18000);
  ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
  for (const char* fault : {"erase mtd0 every errno=EIO", "clear"}) {
    Fault("fault clear");
    Fault("fault worn-block mtd1 0x0");
    ASSERT_EQ(-1, UPDTDoPatch(records_.data(), count_));
    Fault("fault clear");
    Fault(std::string("fault ") + fault);
    testing_support::SyslogRecords().clear();
    const size_t from = Trace().size();
    const bool clear = fault[0] == 'c';
    EXPECT_EQ(clear ? 0 : -1, UPDTRollBack(records_.data(), count_));
    EXPECT_EQ(!clear, Logged("(UPDTRollBack) Try to Recover [/dev/mtd0] 3 counts failed ...") == 1);
    EXPECT_EQ(6u, Logged("UPDTRollBack: skip recoverying"));
    EXPECT_EQ(2u, Trace("set-fis mtd7", from).size());  // both records back in any case
  }
  EXPECT_TRUE(Locked(initial_, 0).Matches(Unmounted()));
}

// The repair writes the built-in directory, the junior board's own; the
// directory partition is locked again whatever fails.
TEST_F(FlashPatchTest, RepairWritesTheJuniorBoardsDirectoryAndLocksIt) {
  flashsim::ChipState undamaged;
  OR_RETURN(ChipTest::Start("junior6", 1, [&](flashsim::ChipState* chip) {
    undamaged = *chip;
    const std::string garbage = sim_test::ImageBytes(77, 0x10000);
    std::copy(garbage.begin(), garbage.end(), chip->image.end() - 0x10000);
  }));
  // A refused write ends the copy loop: -1, the read error code, locked.
  Fault("fault write mtd5 every errno=EIO");
  EXPECT_EQ(-1, RecoverFISDirTable_K77GPlus_V284());
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  EXPECT_EQ(Lines{"lock mtd5 0x00000000 0x00010000 ok"}, Trace("lock mtd5"));
  Fault("fault clear");
  empty_writes = 1;  // a write that programs nothing ends it too, instead of looping
  EXPECT_EQ(-1, RecoverFISDirTable_K77GPlus_V284());
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  EXPECT_EQ(0, RecoverFISDirTable_K77GPlus_V284());
  EXPECT_TRUE(ExpectedChip(undamaged).Lock("FIS Directory", 1).Matches(Unmounted()));
}

}  // namespace
