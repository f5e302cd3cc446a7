// The flash engine (lock, backup, patch, roll-back, directory repair) on the
// eight-partition board's chip, mounted by the simulator in a throwaway
// root; every partition but the two directory ones starts locked. The
// rebalancing is compared with a model in patch_plan_sim_test.
#include "updater/flash_patch.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "log_lines.h"
#include "sdk/velt_mtd.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

using Lines = std::vector<std::string>;
using testing_support::LoggedMessages;
const char* const kLockable[] = {"RedBoot", "zImage", "rd.gz", "AllLib.tgz", "vendor", "veltcfg"};

bool Has(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

size_t CountWith(const std::string& needle) {
  const Lines lines = LoggedMessages();
  return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(needle) != std::string::npos;
  });
}

class FlashPatchTest : public sim_test::UpdaterChipTest {
 protected:
  // The board's chip, every partition but the directory ones locked unless
  // `locked` is false.
  void Start(int junior = 0, bool locked = true,
             const std::function<void(flashsim::ChipState*)>& edit = nullptr) {
    UpdaterChipTest::Start(junior ? "junior6" : "nor8", junior, [&](flashsim::ChipState* chip) {
      if (locked) *chip = Locked(*chip, 1).chip();
      if (edit) edit(chip);
    });
  }
  void SetWorkDir(const std::string& path) {
    ASSERT_EQ(0, system(("mkdir -p '" + path + "'").c_str()));
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", path.c_str());
    ASSERT_EQ(0, chdir(gszWorkDir));
  }
  std::string Backup() const { return std::string(gszWorkDir) + "/" UPDT_BACKUP_DIR; }

  // `chip` with every partition but the directory ones locked (1) or not.
  static sim_test::ExpectedChip Locked(const flashsim::ChipState& chip, uint8_t value) {
    sim_test::ExpectedChip expected(chip);
    for (const char* name : kLockable) expected.Lock(name, value);
    return expected;
  }
  sim_test::ExpectedChip Unlocked() const { return Locked(initial_, 0); }
};

TEST_F(FlashPatchTest, LockAllSparesTheDirectoriesAndStopsAtTheFirstRefusal) {
  START_OR_RETURN(0, false);
  EXPECT_EQ(0, UPDTLockAll(1));
  EXPECT_EQ(0, UPDTUnlockAllPartition());
  Fault("fault lock mtd2 every errno=EIO");
  EXPECT_EQ(-1, UPDTLockAll(1));
  EXPECT_EQ("UPDTLockAll: VELTMTDLockPartition(/dev/mtd2) fail", LoggedMessages(LOG_ERR).back());
  sim_test::ExpectedChip expected(initial_);
  EXPECT_TRUE(expected.Lock("RedBoot", 1).Lock("zImage", 1).Matches(Unmounted()));
}

TEST_F(FlashPatchTest, NullOrEmptyDirectoryIsAParameterError) {
  START_OR_RETURN();
  const size_t from = Trace().size();
  const std::function<int(const unsigned char*, int)> calls[] = {
      UPDTBackupOldPartition, UPDTDoPatch, UPDTRollBack};
  for (const auto& call : calls) {
    EXPECT_EQ(-1, call(nullptr, count_));
    EXPECT_EQ(-1, call(records_.data(), 0));
  }
  const char* const names[] = {"UPDTBackupOldPartition", "UPDTDoPatch", "UPDTRollBack"};
  Lines expected;
  for (const char* name : names) expected.insert(expected.end(), 2, name + std::string("(N): parameter error "));
  EXPECT_EQ(expected, LoggedMessages());
  EXPECT_EQ(Lines{}, Trace("", from));
}

TEST_F(FlashPatchTest, BackupHoldsEveryPartitionInAnEmptiedDirectory) {
  START_OR_RETURN();
  ASSERT_EQ(0, system(("mkdir -p " + Backup() + " && touch " + Backup() + "/stale").c_str()));
  ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
  EXPECT_FALSE(testing_support::FileExists(Backup() + "/stale"));
  for (const flashsim::PartitionLayout& partition : initial_.layout.partitions) {
    const auto at = initial_.image.begin() + (partition.base - initial_.layout.chip_base);
    EXPECT_TRUE(std::vector<uint8_t>(at, at + partition.size) ==
                sim_test::ReadBytes(Backup() + "/mtd_" + partition.name))
        << partition.name;
  }
  EXPECT_EQ("P:65", Progress());
  EXPECT_TRUE(Has(LoggedMessages(LOG_ERR), "UPDTBackupOldPartition(N): command=[/bin/dd "
                                           "if=\"/dev/mtd6\" of=\"" + Backup() +
                                           "/mtd_RedBoot Config\" bs=16384]"));
}

TEST_F(FlashPatchTest, BackupStopsAtTheFirstPartitionItCannotCopy) {
  START_OR_RETURN();
  // A record the board's tables do not know, after the board's own.
  flashsim::FisRecord spare;
  spare.name = "spare";
  records_.resize(records_.size() + 256);
  flashsim::EncodeFisRecord(spare, &records_[records_.size() - 256]);
  struct Row {
    std::string work, fault, progress, message, last_file;
  } rows[] = {
      {"w", "fault read mtd2 every errno=EIO", "P:35", "", "mtd_zImage"},
      {"w", "fault clear", "P:65", "UPDTBackupOldPartition(N): fail to get device path",
       "mtd_FIS Directory"},
      {std::string(120, 'w'), "fault clear", "<missing>", "UPDTBackupOldPartition(N): command too "
       "long [/bin/rm -rf $B; /bin/mkdir -p $B]", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault + " in " + row.work);
    SetWorkDir(dir_->File(row.work));
    unlink(UPDT_PROGRESS_FILE);
    Fault(row.fault);
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, UPDTBackupOldPartition(records_.data(), count_ + 1));
    EXPECT_EQ(row.progress, Progress());
    std::string message = row.message;
    for (size_t at; (at = message.find("$B")) != std::string::npos;) message.replace(at, 2, Backup());
    EXPECT_TRUE(message.empty() || Has(LoggedMessages(LOG_ERR), message)) << message;
    EXPECT_TRUE(row.last_file.empty() || testing_support::FileExists(Backup() + "/" + row.last_file));
  }
  EXPECT_FALSE(testing_support::FileExists(Backup()));  // the long one made nothing
  EXPECT_TRUE(sim_test::ExpectedChip(initial_).Matches(Unmounted()));
}

TEST_F(FlashPatchTest, PatchRewritesThePackagedPartitionsAndTheirRecordsOnly) {
  START_OR_RETURN();
  const std::string kernel = Package("zImage", 11, 5 * 16384 + 1000);
  const std::string ramdisk = Package("rd.bin", 12, 0x140000 + 77);
  ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
  testing_support::SyslogRecords().clear();
  const size_t from = Trace().size();

  ASSERT_EQ(0, UPDTDoPatch(records_.data(), count_));

  EXPECT_EQ("P:100", Progress());
  Lines log;
  for (int i = 0; i < gPartitionCount; ++i) {
    const std::string part = gPartitionTable[i].part;
    log.push_back("UPDTDoPatch: " + std::string(i == 1 || i == 2 ? "Finish" : "skip") +
                  " updating [" + part + "]");
  }
  Lines logged = LoggedMessages();
  logged.erase(std::remove_if(logged.begin(), logged.end(),
                              [](const std::string& line) {
                                return line.find(" updating [") == std::string::npos;
                              }),
               logged.end());
  EXPECT_EQ(log, logged);
  // The kernel: extent, one erase of all of it, 16 KiB writes, 8 KiB reads, its record.
  Lines kernel_ops = {"set-extent mtd1 0xff800000 0x00180000 ok", "erase mtd1 0x00000000 0x00180000 ok"};
  char line[64];
  for (size_t at = 0; at < kernel.size(); at += 16384) {
    snprintf(line, sizeof(line), "write mtd1 0x%08zx %zu ok", at, std::min<size_t>(16384, kernel.size() - at));
    kernel_ops.push_back(line);
  }
  for (size_t at = 0; at < kernel.size(); at += 8192) {
    snprintf(line, sizeof(line), "read mtd1 0x%08zx %zu ok", at, std::min<size_t>(8192, kernel.size() - at));
    kernel_ops.push_back(line);
  }
  Lines ops;
  for (const std::string& op : Trace("", from)) {
    if (op.find(" mtd1 ") != std::string::npos && op.compare(0, 4, "open") != 0 &&
        op.compare(0, 7, "getinfo") != 0 && op.compare(0, 6, "unlock") != 0) {
      ops.push_back(op);
    }
  }
  EXPECT_EQ(kernel_ops, ops);
  EXPECT_EQ(2u, Trace("set-fis mtd7", from).size());
  EXPECT_TRUE(Unlocked().Write("zImage", kernel).Write("rd.gz", ramdisk).Matches(Unmounted()));
}

// One fault per row, against a kernel image (and a ramdisk image where the
// row needs a second partition); the result, the progress, the kernel's
// erases and a line of the log.
TEST_F(FlashPatchTest, PatchFaultsEndOrRetryTheRewrite) {
  START_OR_RETURN();
  const std::string failed = "flash_patch.cpp:N(UPDTDoPatch) Try to Update [/dev/mtd1] 3 counts failed ...";
  const uint64_t kernel = 0x24000 + 7, ramdisk = 0x31000 + 3;
  struct Row {
    Lines faults;
    bool with_ramdisk;
    int result;
    std::string progress;
    size_t erases;
    std::string message;
    bool kernel_recorded = false;
  } rows[] = {
      {{"worn-block mtd1 0x10000"}, false, -1, "", 3, failed},
      {{"corrupt-next-write mtd1"}, false, 0, "P:100", 2, "UPDTDoPatch: Finish updating [zImage]", true},
      {{"erase mtd1 every errno=EIO"}, false, -1, "P:60", 3, "UPDTDoPatch: VELTMTDErasePartition() fail"},
      {{"set-extent mtd1 every errno=EINVAL"}, false, -1, "P:60", 0,
       "UPDTDoPatch: VELTMTDModifyPartitionSize() fail"},
      {{"set-fis mtd7 nth=1 errno=EIO"}, true, -1, "", 1, "UPDTDoPatch: VELTMTDModifyFISEntry() fail"},
      // The retried bytes count once: the ramdisk starts at the kernel's share.
      {{"corrupt-next-write mtd1", "erase mtd2 every errno=EIO"}, true, -1,
       "P:" + std::to_string(60 + 40 * 2 * kernel / (2 * (kernel + ramdisk))), 2,
       "UPDTDoPatch: VELTMTDErasePartition() fail", true},
      // The first attempt fails its verify at once, the retries their erase:
      // the progress stays where the first left it.
      {{"corrupt-next-write mtd1", "erase mtd1 nth=2 errno=EIO", "erase mtd1 nth=3 errno=EIO"},
       false, -1, "P:80", 3, failed},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.faults[0]);
    unlink("rd.bin");
    Package("zImage", 31, kernel);
    if (row.with_ramdisk) Package("rd.bin", 32, ramdisk);
    ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
    Fault("fault clear");
    for (const std::string& fault : row.faults) Fault("fault " + fault);
    testing_support::SyslogRecords().clear();
    const size_t from = Trace().size();
    EXPECT_EQ(row.result, UPDTDoPatch(records_.data(), count_));
    EXPECT_TRUE(row.progress.empty() || row.progress == Progress()) << Progress();
    EXPECT_EQ(row.erases, Trace("erase mtd1", from).size());
    EXPECT_TRUE(Has(LoggedMessages(LOG_ERR), row.message)) << ::testing::PrintToString(LoggedMessages());
    EXPECT_EQ(row.kernel_recorded, Trace("set-fis mtd7 0xff800000 0x00180000 ok", from).size() == 1);
  }
}

// The copy stops when the device takes nothing more: an image that grew
// after the plan past its partition's end.
TEST_F(FlashPatchTest, ImageLargerThanItsPartitionFailsAtTheWritePastTheEnd) {
  START_OR_RETURN();
  Package("zImage", 41, 0x100000);
  ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
  const std::string kernel = Package("zImage", 41, 0x180000 + 1);
  const size_t from = Trace().size();
  EXPECT_EQ(-1, UPDTDoPatch(records_.data(), count_));
  EXPECT_EQ(3u, Trace("write mtd1 0x00180000 1 ENOSPC", from).size());
  EXPECT_EQ(3u, CountWith("(UPDTCopyFile) write file [/dev/mtd1] error: (28)"));
  EXPECT_TRUE(Unlocked().Write("zImage", kernel.substr(0, 0x180000), false).Matches(Unmounted()));
}

// The patch rewrote RedBoot, failed on the kernel's worn first block and
// never reached the ramdisk: the roll-back rewrites the first two only.
TEST_F(FlashPatchTest, RollBackRestoresWhatThePatchTouchedAndGoesOnPastFailures) {
  START_OR_RETURN();
  ASSERT_EQ(0, UPDTBackupOldPartition(records_.data(), count_));
  Package("RedBoot.msys", 91, 0x20000 + 5);
  Package("zImage", 92, 0x30000);
  Package("rd.bin", 93, 0x18000);
  ASSERT_EQ(0, UPDTInitPatchInfo(records_.data(), count_));
  const std::string recover = "flash_patch.cpp:N(UPDTRollBack) Try to Recover [/dev/mtd0] 3 counts failed ...";
  struct Row {
    std::string fault;
    int result;
    size_t boot_loader_erases;
    std::string message;
  } rows[] = {
      {"erase mtd0 every errno=EIO", -1, 3, recover},
      {"clear", 0, 1, "UPDTRollBack: skip recoverying [rd.gz]"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault);
    Fault("fault clear");
    Fault("fault worn-block mtd1 0x0");
    ASSERT_EQ(-1, UPDTDoPatch(records_.data(), count_));
    Fault("fault clear");
    Fault("fault " + row.fault);
    testing_support::SyslogRecords().clear();
    const size_t from = Trace().size();
    EXPECT_EQ(row.result, UPDTRollBack(records_.data(), count_));
    EXPECT_EQ(row.boot_loader_erases, Trace("erase mtd0", from).size());
    EXPECT_EQ(1u, Trace("erase mtd1", from).size());
    EXPECT_EQ(Lines{}, Trace("erase mtd2", from));
    EXPECT_TRUE(Has(LoggedMessages(LOG_ERR), row.message));
    EXPECT_EQ(6u, CountWith("UPDTRollBack: skip recoverying"));
    EXPECT_EQ(1u, CountWith("UPDTRollBack(N): command=[/bin/dd if=\"" + Backup() +
                            "/mtd_zImage\" of=\"/dev/mtd1\" bs=131072]"));
    if (row.result != 0) {
      // RedBoot keeps what the patch wrote; its record is the old one again.
      int bytes = 0;
      std::vector<unsigned char> now(records_.size());
      VELTMTDGetPartitionInfo(gszDevMtdPartition, now.data(), static_cast<int>(now.size()), &bytes);
      EXPECT_TRUE(now == records_);
    }
  }
  EXPECT_TRUE(Unlocked().Matches(Unmounted()));
}

// The repair writes the built-in directory, which is the junior board's
// own; whatever fails, the directory partition is locked again.
TEST_F(FlashPatchTest, RepairWritesTheJuniorBoardsDirectoryAndLocksIt) {
  flashsim::ChipState undamaged;
  START_OR_RETURN(1, false, [&](flashsim::ChipState* chip) {
    undamaged = *chip;
    const std::string garbage = sim_test::ImageBytes(77, 0x10000);
    std::copy(garbage.begin(), garbage.end(), chip->image.end() - 0x10000);
  });
  const std::string head = "flash_patch.cpp:N(RecoverFISDirTable_K77GPlus_V284) ";
  struct Row {
    std::string fault;
    int result, code;
    std::string message;
  } rows[] = {
      {"write mtd5 every errno=EIO", -1, SLIB_ERR_READ, head + "write(/dev/mtd5) fail"},
      {"open mtd5 nth=3 errno=EIO", -1, SLIB_ERR_OPEN, head + "open(/dev/mtd5) fail"},
      {"erase mtd5 every errno=EIO", -1, 0, head + "VELTMTDErasePartition(/dev/mtd5) fail"},
      {"clear", 0, 0, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault);
    Fault("fault clear");
    Fault("fault " + row.fault);
    SLIBCErrSet(0);
    testing_support::SyslogRecords().clear();
    const size_t from = Trace().size();
    EXPECT_EQ(row.result, RecoverFISDirTable_K77GPlus_V284());
    EXPECT_EQ(row.code, SLIBCErrGet());
    const Lines errors = LoggedMessages(LOG_ERR);
    EXPECT_EQ(row.message, errors.empty() ? "" : errors.back());
    EXPECT_EQ(1u, Trace("lock mtd5 0x00000000 0x00010000 ok", from).size());
  }
  EXPECT_TRUE(sim_test::ExpectedChip(undamaged).Lock("FIS Directory", 1).Matches(Unmounted()));
}

}  // namespace
