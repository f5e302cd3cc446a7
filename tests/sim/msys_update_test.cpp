// The update of a board with an M-Systems flash disk, on the simulator's
// disk (msys.layout) mounted in a throwaway root: the driver's table, the
// plan in units, the patch with and without a re-partition, the roll-back
// and the whole flash part of a run.
#include "updater/msys_update.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <tuple>

#include "log_lines.h"
#include "sim_test_mount.h"
#include "updater/flash_patch.h"

namespace {

using sim_test::ExpectedChip;
constexpr uint32_t kUnit = 16384;

class MSysUpdateTest : public sim_test::ChipTest {
 protected:
  void Start() {
    ChipTest::Start("msys", 0);
    if (IsSkipped() || HasFatalFailure()) return;
    setenv("FILEBAY_FLASH_CONTROL", "/dev/flash/.control", 1);
    unlink(UPDT_LOG_FILE);
    ASSERT_EQ(0, system("mkdir -p /volume1 /usr/velt/etc; echo '0 1 * * * root ls' >/etc/crontab"));
    records_.assign(2048, 0);
    ASSERT_EQ(8, UPDTMSysGetPartitionInfo(records_.data()));
  }
  // A package file that holds nothing but its size.
  void Sparse(const std::string& file, off_t length) {
    Package(file, 0, 0);
    ASSERT_EQ(0, truncate(file.c_str(), length));
  }
  std::string Old(const flashsim::PartitionLayout& partition) const {
    const auto at = initial_.image.begin() + partition.base;
    return std::string(at, at + partition.size);
  }
  // After a roll-back: every partition written back whole from its backup.
  ExpectedChip Restored() const {
    ExpectedChip expected(initial_);
    for (const auto& old : initial_.layout.partitions) expected.Write(old.name, Old(old), 1, 0);
    return expected;
  }
  // zImage needs 101 units where it has 96; AllLib.tgz, with the most to
  // spare, gives the 5: the disk is re-partitioned and every partition
  // written, from the package or else from its backup.
  void Growing() {
    kernel_ = Package("zImage", 11, 100 * kUnit + 100);
    library_ = Package("AllLib.tgz", 33, 300 * kUnit + 7);
  }
  ExpectedChip Repartitioned() const {
    ExpectedChip expected(initial_);
    expected.Move("zImage", 0, 5, false).Move("AllLib.tgz", 0, -5, false).Format();
    for (const auto& old : initial_.layout.partitions) {
      expected.Write(old.name,
                     old.index == 1   ? kernel_
                     : old.index == 3 ? library_
                                      : Old(old),
                     1, 0);
    }
    return expected;
  }

  std::string kernel_, library_;
};

// The plan takes each partition's place, size and data length from the
// driver's table; AllLib.tgz gets the units left of the 967 (AllLib.tgz's
// old data counted 445), rounded up, and not one more.
TEST_F(MSysUpdateTest, PlanCountsUnitsRoundedUpAndMayFillTheDisk) {
  OR_RETURN(Start());
  uint32_t left = 967 + 445;
  for (const auto& old : initial_.layout.partitions) left -= (old.data_length + kUnit - 1) / kUnit;
  ASSERT_NO_FATAL_FAILURE(Sparse("AllLib.tgz", off_t{left - 1} * kUnit + 1));
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records_.data(), 8));
  const PartitionRecord& kernel = gPartitionTable[1];  // the driver's row 1
  EXPECT_EQ(std::make_tuple(0x40000u, 0x180000u, 0x12F3A4u),
            std::make_tuple(kernel.start, kernel.size, kernel.datalen));
  EXPECT_EQ(static_cast<int>(640 - left), gPartitionTable[3].balance);
  ASSERT_NO_FATAL_FAILURE(Sparse("AllLib.tgz", off_t{left} * kUnit + 1));
  EXPECT_EQ(-1, UPDTMSysInitPatchInfo(records_.data(), 8));
  EXPECT_EQ(
      "UPDTMSysInitPatchInfo(N): the binary size exceeds flash size limit(total = 968 blocks)",
      testing_support::LoggedMessages(LOG_ERR).back());
}

// The whole flash part of a run: its result code, the last progress record
// (and letter), what the disk holds, whether a backup was kept and whether
// the hard-disk archive went to the volume for the next boot.
TEST_F(MSysUpdateTest, UpdateEndsWithTheCodeOfTheFirstFailureAndRollsBack) {
  const std::string kernel = sim_test::ImageBytes(21, 0x80000 + 1);
  const auto fault = [&](const char* what) {
    Fault(std::string("fault ") + what + " nth=1 errno=EIO");
  };
  const auto same = [&] { return ExpectedChip(initial_); };
  const auto new_kernel = [&] { return ExpectedChip(initial_).Write("zImage", kernel, 1, 0); };
  const auto restored = [&] { return Restored(); };
  const struct {
    const char* name;
    std::function<void()> setup;
    int result;
    std::string progress;
    std::function<ExpectedChip()> chip;
    bool backup, archive_moved;
  } rows[] = {
      {"in place", [&] { Package("zImage", 21, kernel.size()); }, 0, "R:0", new_kernel, 1, 1},
      {"re-partitioned", [&] { Growing(); }, 0, "R:0", [&] { return Repartitioned(); }, 1, 1},
      {"patch fails", [&] { Growing(), fault("write mtd5"); }, 20, "P:100", restored, 1, 1},
      // The roll-back after a failed migration reports under its stage.
      {"migration fails",
       [&] {
         Package("zImage", 24, 0x40000);
         gblCfgAtalk = 1;  // a directory the AppleTalk step cannot remove
         ASSERT_EQ(0, system("mkdir -p /usr/velt/etc/rc.atalk/keep"));
       },
       17, "C:100", restored, 1, 1},
      // A refused format: the roll-back writes every partition back in place.
      {"format fails", [&] { Growing(), fault("format all"); }, 20, "P:100", restored, 1, 1},
      {"table unread", [&] { fault("get-table all"); }, 18, "P:0", same, 0, 0},
      {"plan fails", [&] { Sparse("AllLib.tgz", off_t{1000} * kUnit); }, 19, "P:10", same, 0, 0},
      {"backup fails", [&] { fault("read mtd3"); }, 15, "P:40", same, 1, 0},
      // A group update keeps no backup and rolls nothing back.
      {"group patch fails",
       [&] {
         gblGroupUpdate = 1;
         Package("zImage", 21, kernel.size()), Package("veltcfg", 29, 0x1000), fault("write mtd5");
       },
       20, "P:65", new_kernel, 0, 1},
      {"group without every image", [&] { gblGroupUpdate = 1, Growing(); }, 20, "P:60", same, 0, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    OR_RETURN(Start());
    const std::string archive = Package("hda1.tgz", 22, 4000);
    row.setup();
    char letter = 'A';
    EXPECT_EQ(row.result, UPDTMSysUpdate(&letter));
    EXPECT_EQ(row.progress, Progress());
    EXPECT_EQ(row.progress[0], letter);
    EXPECT_EQ(row.archive_moved ? archive : "<missing>",
              testing_support::ReadFile("/volume1/VeltUpgrade.tar.gz"));
    unlink("/volume1/VeltUpgrade.tar.gz");
    EXPECT_EQ(row.result == 0, testing_support::ReadFile(UPDT_LOG_FILE).find("Congratulation!!") !=
                                   std::string::npos);
    EXPECT_EQ(row.backup, testing_support::FileExists(UPDT_BACKUP_DIR));
    EXPECT_TRUE(row.chip().Matches(Unmounted()));
  }
}

}  // namespace
