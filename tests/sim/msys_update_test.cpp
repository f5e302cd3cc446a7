// The update of a board with an M-Systems flash disk, on the simulator's
// flash disk (msys.layout) mounted in a throwaway root: the driver's table,
// the plan in units, the patch with and without a re-partition, the
// roll-back and the whole flash part of a run.
#include "updater/msys_update.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "log_lines.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/fis_record.h"
#include "updater/flash_patch.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

using Lines = std::vector<std::string>;
using sim_test::ExpectedChip;
using testing_support::LoggedMessages;
constexpr uint32_t kUnit = 16384;

class MSysUpdateTest : public sim_test::UpdaterChipTest {
 protected:
  void Start() {
    UpdaterChipTest::Start("msys", 0);
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(0, setenv("FILEBAY_FLASH_CONTROL", "/dev/flash/.control", 1));
    unlink(UPDT_LOG_FILE);
    work_ = gszWorkDir;
    ASSERT_EQ(0, system("mkdir -p /volume1 /usr/velt/etc"));
    testing_support::WriteFile("/etc/crontab", "0 1 * * * root ls\n");
  }
  void TearDown() override {
    unsetenv("FILEBAY_FLASH_CONTROL");
    MountedChipTest::TearDown();
  }

  // A package file that holds nothing but its size.
  void Sparse(const std::string& file, off_t length) {
    testing_support::WriteFile(work_ + "/" + file, "");
    ASSERT_EQ(0, truncate((work_ + "/" + file).c_str(), length));
  }

  std::vector<unsigned char> Records() {
    std::vector<unsigned char> records(2048, 0);
    EXPECT_EQ(8, UPDTMSysGetPartitionInfo(records.data()));
    return records;
  }

  std::string Old(const flashsim::PartitionLayout& partition) const {
    return std::string(initial_.image.begin() + partition.base,
                       initial_.image.begin() + partition.base + partition.size);
  }

  // The disk as a failed update's roll-back leaves it: every partition
  // written back whole from its backup.
  ExpectedChip Restored() const {
    ExpectedChip expected(initial_);
    for (const flashsim::PartitionLayout& old : initial_.layout.partitions) {
      expected.Write(old.name, Old(old), true, false);
    }
    return expected;
  }

  // zImage needs 101 units where it has 96; AllLib.tgz, with the most to
  // spare, gives the 5: the disk is re-partitioned.
  void GrowingPackage() {
    kernel_ = Package("zImage", 11, 100 * kUnit + 100);
    library_ = Package("AllLib.tgz", 33, 300 * kUnit + 7);
  }
  ExpectedChip Repartitioned() const {
    ExpectedChip expected(initial_);
    expected.Move("zImage", 0, 5, false).Move("AllLib.tgz", 0, -5, false).Format();
    for (const flashsim::PartitionLayout& old : initial_.layout.partitions) {
      expected.Write(old.name, old.name == "zImage" ? kernel_ : old.name == "AllLib.tgz" ? library_ : Old(old),
                     true, false);
    }
    return expected;
  }

  // The devices written to, in the order of their first write.
  Lines Written() const {
    Lines devices;
    for (const std::string& line : Trace("write ")) {
      const std::string device = line.substr(6, line.find(' ', 6) - 6);
      if (std::find(devices.begin(), devices.end(), device) == devices.end()) devices.push_back(device);
    }
    return devices;
  }

  std::string work_, kernel_, library_;
};


TEST_F(MSysUpdateTest, PartitionInfoIsTheDriversTableNamedByPosition) {
  START_OR_RETURN();
  const std::vector<unsigned char> records = Records();
  for (int i = 0; i < 8; ++i) {
    const flashsim::PartitionLayout& old = initial_.layout.partitions[i];
    const unsigned char* record = &records[i * FIS_RECORD_SIZE];
    FisImageDesc desc;
    UPDTFisDecode(record, &desc);
    EXPECT_EQ(old.name + " " + std::to_string(old.base) + " " + std::to_string(old.size) + " " +
                  std::to_string(old.data_length),
              std::string(desc.name) + " " + std::to_string(desc.flash_base) + " " +
                  std::to_string(desc.size) + " " + std::to_string(desc.data_length));
    // Memory base, entry point and everything after the data length stay 0.
    std::vector<unsigned char> unfilled(record, record + FIS_RECORD_SIZE);
    for (int field : {0, 16, 24, 32}) std::fill_n(unfilled.begin() + field, field ? 4 : 16, 0);
    EXPECT_EQ(std::vector<unsigned char>(FIS_RECORD_SIZE, 0), unfilled);
  }
}

TEST_F(MSysUpdateTest, FailuresAreLoggedWithTheirErrno) {
  START_OR_RETURN();
  std::vector<unsigned char> records = Records();
  const unsigned int counts[8] = {16, 96, 160, 640, 8, 32, 4, 4};
  int repartitioned = 0;
  struct Row {
    const char* fault;
    std::function<int()> call;
    std::string message;
  } rows[] = {
      {"get-table mtd0", [&] { return UPDTMSysGetPartitionInfo(records.data()); },
       "UPDTMSysGetPartitionInfo(N): fail to get partition information, errno = 5"},
      {"", [&] { return UPDTMSysInitPatchInfo(records.data(), 0); },
       "UPDTMSysInitPatchInfo(N): parameter error "},
      {"", [&] { return UPDTMSysDoPatch(records.data(), 8, nullptr); },
       "UPDTMSysDoPatch(N): parameter error "},
      {"", [&] { return UPDTMSysRollBack(records.data(), 0, 1); },
       "UPDTMSysRollBack(N): parameter error "},
      {"", [&] { return UPDTMSysFormat(counts, 7); }, "UPDTMSysFormat(N): parameter error"},
      {"format all", [&] { return UPDTMSysFormat(counts, 8); },
       "UPDTMSysFormat(N): failed to format, errno = 5"},
      // The format erased the disk; the old table stays.
      {"partition all", [&] { return UPDTMSysFormat(counts, 8); },
       "UPDTMSysFormat(N): failed to partition, errno = 5"},
      {"unlink", [&] { return UPDTMSysGetPartitionInfo(records.data()); },
       "UPDTMSysGetPartitionInfo(N): fail to open /dev/mtd0, errno = 2"},
      {"", [&] { return UPDTMSysFormat(counts, 8); },
       "UPDTMSysFormat(N): failed to open /dev/mtd0, errno = 2"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    const std::string fault = row.fault;
    if (fault == "unlink") unlink("/dev/mtd0");
    if (fault != "" && fault != "unlink") Fault("fault " + fault + " nth=1 errno=EIO");
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, row.call());
    EXPECT_EQ(Lines{row.message}, LoggedMessages());
  }
  EXPECT_EQ(0, repartitioned);
  EXPECT_TRUE(ExpectedChip(initial_).Format().Matches(Unmounted()));
}

// The other partitions keep their old data: AllLib.tgz gets the units left
// of the 967, counted rounded up, and not one more.
TEST_F(MSysUpdateTest, PlanCountsUnitsRoundedUpAndMayFillTheDisk) {
  START_OR_RETURN();
  uint32_t others = 0;
  for (const flashsim::PartitionLayout& old : initial_.layout.partitions) {
    if (old.name != "AllLib.tgz") others += (old.data_length + kUnit - 1) / kUnit;
  }
  const uint32_t left = 967 - others;
  ASSERT_NO_FATAL_FAILURE(Sparse("AllLib.tgz", off_t{left - 1} * kUnit + 1));
  std::vector<unsigned char> records = Records();
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), 8));
  EXPECT_EQ(kUnit, gEraseBlockSize);
  EXPECT_EQ(static_cast<int32_t>(0xA00000 / kUnit - left), gPartitionTable[3].balance);
  EXPECT_EQ(static_cast<int32_t>(0x180000 / kUnit - 76), gPartitionTable[1].balance);  // 0x12F3A4 bytes
  EXPECT_EQ(Lines{}, LoggedMessages(LOG_ERR));
  ASSERT_NO_FATAL_FAILURE(Sparse("AllLib.tgz", off_t{left} * kUnit + 1));
  EXPECT_EQ(-1, UPDTMSysInitPatchInfo(records.data(), 8));
  EXPECT_EQ(Lines{"UPDTMSysInitPatchInfo(N): the binary size exceeds flash size limit(total = 968 "
                  "blocks)"},
            LoggedMessages(LOG_ERR));
}

TEST_F(MSysUpdateTest, PatchThatFitsWritesOnlyThePackagedPartitions) {
  START_OR_RETURN();
  const std::string kernel = Package("zImage", 7, 0x100000 + 123);
  const std::string settings = Package("veltcfg", 9, 0x8000 + 5);
  std::vector<unsigned char> records = Records();
  ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), 8));
  int repartitioned = 0;
  ASSERT_EQ(0, UPDTMSysDoPatch(records.data(), 8, &repartitioned));
  EXPECT_EQ(0, repartitioned);
  EXPECT_EQ("P:70", Progress());
  EXPECT_EQ(Lines{}, Trace("format"));
  EXPECT_EQ((Lines{"mtd1", "mtd5"}), Written());
  EXPECT_TRUE(ExpectedChip(initial_)
                  .Write("zImage", kernel, true, false)
                  .Write("veltcfg", settings, true, false)
                  .Matches(Unmounted()));
}

// A re-partition writes every partition: from the package, else from the
// backup; after a failure the roll-back gives back the old table and
// every partition. A group update (no backup) needs every image first.
TEST_F(MSysUpdateTest, RepartitionWritesEveryPartitionAndRollsBackWhole) {
  for (const char* fault : {"", "fault write mtd5 nth=1 errno=EIO", "group"}) {
    SCOPED_TRACE(fault);
    START_OR_RETURN();
    GrowingPackage();
    gblGroupUpdate = std::string(fault) == "group";
    std::vector<unsigned char> records = Records();
    ASSERT_EQ(0, UPDTMSysInitPatchInfo(records.data(), 8));
    ASSERT_EQ(0, gblGroupUpdate ? 0 : UPDTBackupOldPartition(records.data(), 8));
    if (fault[0] == 'f') Fault(fault);
    testing_support::SyslogRecords().clear();
    int repartitioned = 0;
    const int result = UPDTMSysDoPatch(records.data(), 8, &repartitioned);
    if (fault[0] == '\0') {
      EXPECT_EQ(0, result);
      EXPECT_EQ("P:100", Progress());
      EXPECT_EQ(Lines{"partition - 0x00000000 0x00f00000 ok"}, Trace("partition"));
      EXPECT_TRUE(Repartitioned().Matches(Unmounted()));
    } else if (fault[0] == 'f') {
      EXPECT_EQ(-1, result);
      EXPECT_EQ(1, repartitioned);
      EXPECT_EQ(0, UPDTMSysRollBack(records.data(), 8, repartitioned));
      EXPECT_EQ(2u, Trace("format").size());
      EXPECT_TRUE(Restored().Matches(Unmounted()));
    } else {
      EXPECT_EQ(-1, result);
      EXPECT_EQ(Lines{"UPDTMSysDoPatch(N): failed to update. [" + work_ +
                      "/RedBoot.msys] does not exist"},
                LoggedMessages(LOG_ERR));
      EXPECT_TRUE(ExpectedChip(initial_).Matches(Unmounted()));
    }
  }
}

// The whole flash part of a run: its result code, where the progress
// letter and record end, what the disk holds and whether the hard-disk
// archive went to the volume for the next boot.
TEST_F(MSysUpdateTest, UpdateEndsWithTheCodeOfTheFirstFailureAndRollsBack) {
  const std::string kernel = sim_test::ImageBytes(21, 0x80000 + 1);
  struct Row {
    const char* name;
    std::function<void()> setup;
    int result;
    std::string progress;  // the last progress record
    std::function<ExpectedChip()> chip;
    bool archive_moved;
  } rows[] = {
      {"success", [&] { Package("zImage", 21, kernel.size()); }, 0, "R:0",
       [&] { return ExpectedChip(initial_).Write("zImage", kernel, true, false); }, true},
      {"patch fails", [&] { GrowingPackage(), Fault("fault write mtd5 nth=1 errno=EIO"); }, 20,
       "P:100", [&] { return Restored(); }, true},
      // The roll-back of a failed migration reports under its stage.
      {"migration fails",
       [&] {
         Package("zImage", 24, 0x40000);
         gblCfgAtalk = 1;  // a directory the AppleTalk step cannot remove
         ASSERT_EQ(0, system("mkdir -p /usr/velt/etc/rc.atalk/keep"));
       },
       17, "C:100", [&] { return Restored(); }, true},
      {"table unread", [&] { Fault("fault get-table all nth=1 errno=EIO"); }, 18, "P:0",
       [&] { return ExpectedChip(initial_); }, false},
      {"plan fails", [&] { Sparse("AllLib.tgz", off_t{1000} * kUnit); }, 19, "P:10",
       [&] { return ExpectedChip(initial_); }, false},
      {"backup fails", [&] { Fault("fault read mtd3 nth=1 errno=EIO"); }, 15, "P:40",
       [&] { return ExpectedChip(initial_); }, false},
      // No backup and no roll-back: the kernel stays new.
      {"group patch fails",
       [&] {
         gblGroupUpdate = 1;
         Package("zImage", 21, kernel.size());
         Package("veltcfg", 29, 0x1000);
         Fault("fault write mtd5 nth=1 errno=EIO");
       },
       20, "P:65", [&] { return ExpectedChip(initial_).Write("zImage", kernel, true, false); },
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    START_OR_RETURN();
    const std::string archive = Package("hda1.tgz", 22, 4000);
    row.setup();
    char letter = 'A';
    EXPECT_EQ(row.result, UPDTMSysUpdate(&letter));
    EXPECT_EQ(row.progress, Progress());
    EXPECT_EQ(row.progress[0], letter);
    EXPECT_EQ(row.archive_moved, !testing_support::FileExists(work_ + "/hda1.tgz"));
    EXPECT_EQ(row.archive_moved ? archive : "<missing>",
              testing_support::ReadFile("/volume1/VeltUpgrade.tar.gz"));
    unlink("/volume1/VeltUpgrade.tar.gz");
    EXPECT_EQ(row.result == 0 && !gblGroupUpdate,
              testing_support::ReadFile(UPDT_LOG_FILE).find("Congratulation!!") != std::string::npos);
    EXPECT_EQ(gblGroupUpdate == 0 && row.result != 18 && row.result != 19,
              testing_support::FileExists(work_ + "/" UPDT_BACKUP_DIR));
    EXPECT_TRUE(row.chip().Matches(Unmounted()));
  }
}

}  // namespace
