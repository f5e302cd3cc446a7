// Plans the patch against the FIS directory and the geometry of a mounted
// simulated chip, with package files in a working directory.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log_lines.h"
#include "sdk/velt_mtd.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"

namespace {

using testing_support::LoggedRecords;
using testing_support::SyslogRecord;

constexpr uint32_t kBlock = 0x10000;

// The ordinary board: 8 MiB at 0xFF800000, the directory in the top block.
// %ZIMAGE% and %DIRECTORY% take " fis=no" to leave a record out.
constexpr char kOrdinaryLayout[] = R"(kind nor
chip-base 0xFF800000
chip-size 0x00800000
erase-size 0x00010000
fis-device 7
partition 0 RedBoot          0xFFF00000 0x00040000 data-length=0x0003A448 pattern=label
partition 1 zImage           0xFF800000 0x00180000 data-length=0x0012F3A4 pattern=label%ZIMAGE%
partition 2 rd.gz            0xFF980000 0x00280000 data-length=0x0021C8E0 pattern=label
partition 3 AllLib.tgz       0xFFC00000 0x00300000 data-length=0x002A0113 pattern=label
partition 4 vendor           0xFFF40000 0x00020000 data-length=0x00010000 pattern=label
partition 5 veltcfg          0xFFF60000 0x00080000 data-length=0x00020000 pattern=label
partition 6 "RedBoot Config" 0xFFFE0000 0x00010000 data-length=0x00001000 pattern=label
partition 7 "FIS Directory"  0xFFFF0000 0x00010000%DIRECTORY%
)";

// The junior board: 2 MiB from 0xFFE00000, six partitions.
constexpr char kJuniorLayout[] = R"(kind nor
chip-base 0xFFE00000
chip-size 0x00200000
erase-size 0x00010000
fis-device 5
partition 0 RedBoot          0xFFF00000 0x00040000 data-length=0x0003A448 pattern=label
partition 1 zImage           0xFFE00000 0x000D0000 data-length=0x000C5EDA pattern=label%ZIMAGE%
partition 2 rd.gz            0xFFF40000 0x000B0000 data-length=0x000AEE2C pattern=label
partition 3 vendor           0xFFED0000 0x00010000 data-length=0x00010000 pattern=label
partition 4 "RedBoot Config" 0xFFEE0000 0x00010000 data-length=0x00010000 pattern=label
partition 5 "FIS Directory"  0xFFFF0000 0x00010000 data-length=0x00000600%DIRECTORY%
)";

std::string Replace(std::string text, const std::string& key, const std::string& value) {
  const size_t at = text.find(key);
  if (at != std::string::npos) text.replace(at, key.size(), value);
  return text;
}

SyslogRecord Error(const std::string& text) { return {LOG_ERR, text}; }
SyslogRecord Info(const std::string& text) { return {LOG_INFO, text}; }
SyslogRecord Absent(const std::string& file) {
  return Info("UPDTInitPatchInfo(N): file [" + file + "] not included in the patch package ");
}

struct Row {
  const char* part;
  uint32_t start;
  uint32_t datalen;
  uint32_t size;
  int32_t balance;
  int32_t fneedupdate;
};

class PatchPlanSim : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = sim_test::MountUnavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    UPDTResetRunState();
    state_ = dir_.File("state");
    mount_ = dir_.File("mnt");
    package_ = dir_.File("package");
    ASSERT_EQ(0, mkdir(mount_.c_str(), 0755));
    ASSERT_EQ(0, mkdir(package_.c_str(), 0755));
    char cwd[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    cwd_ = cwd;
  }

  void TearDown() override {
    if (!cwd_.empty()) {
      EXPECT_EQ(0, chdir(cwd_.c_str()));
    }
    if (!mount_.empty()) sim_test::StopDaemon(mount_, &daemon_);
    UPDTResetRunState();
  }

  // Creates the chip from the layout text, mounts it, points the device
  // table of the board family at the mounted files, reads the directory and
  // changes into the package directory.
  void Start(const std::string& layout, int junior) {
    testing_support::WriteFile(dir_.File("layout"), layout);
    ASSERT_EQ("", sim_test::CreateChipState(state_, dir_.File("layout")));
    sim_test::StartDaemon(state_, mount_, dir_.File("daemon.log"), {"-o", "allow_other"}, &daemon_);
    if (IsSkipped() || HasFatalFailure()) return;

    UPDTSelectLayout(junior);
    for (int i = 0; i < gPartitionCount; ++i) {
      devices_[i] = mount_ + "/mtd" + std::to_string(i);
      gPartitionDevices[i].device = devices_[i].c_str();
    }
    int bytes = 0;
    const int count =
        VELTMTDGetPartitionInfo(devices_[gPartitionCount - 1].c_str(), nullptr, 0, &bytes);
    ASSERT_GE(count, 1);
    fis_.assign(static_cast<size_t>(bytes), 0);
    ASSERT_EQ(count, VELTMTDGetPartitionInfo(devices_[gPartitionCount - 1].c_str(), fis_.data(),
                                             bytes, &bytes));
    fis_count_ = count;
    ASSERT_EQ(0, chdir(package_.c_str()));
    gEraseBlockSize = 0x1234;  // must come from the directory device
    testing_support::SyslogRecords().clear();
  }

  void Start(const char* layout, int junior, const char* zimage, const char* directory) {
    Start(Replace(Replace(layout, "%ZIMAGE%", zimage), "%DIRECTORY%", directory), junior);
  }

  // A package file of `size` bytes (sparse: only its size matters here).
  void PackageFile(const std::string& name, off_t size) {
    const std::string path = package_ + "/" + name;
    testing_support::WriteFile(path, "");
    ASSERT_EQ(0, truncate(path.c_str(), size));
  }

  void ExpectPlan(const std::vector<Row>& rows) {
    for (size_t i = 0; i < rows.size(); ++i) {
      SCOPED_TRACE(rows[i].part);
      const PartitionRecord& record = gPartitionTable[i];
      EXPECT_STREQ(rows[i].part, record.part);
      EXPECT_EQ(rows[i].start, record.start);
      EXPECT_EQ(rows[i].datalen, record.datalen);
      EXPECT_EQ(rows[i].size, record.size);
      EXPECT_EQ(rows[i].balance, record.balance);
      EXPECT_EQ(0, record.delta);
      EXPECT_EQ(rows[i].fneedupdate, record.fneedupdate);
    }
    EXPECT_EQ(nullptr, gPartitionTable[rows.size()].part);
  }

  testing_support::TempDir dir_;
  std::string state_, mount_, package_, cwd_;
  pid_t daemon_ = -1;
  std::string devices_[UPDT_MAX_PARTITIONS];
  std::vector<unsigned char> fis_;
  int fis_count_ = 0;
};

#define START_OR_RETURN(...)                      \
  do {                                            \
    Start(__VA_ARGS__);                           \
    if (IsSkipped() || HasFatalFailure()) return; \
  } while (0)

TEST_F(PatchPlanSim, OrdinaryBoardPlansPackageFilesAndKeepsTheOthers) {
  START_OR_RETURN(kOrdinaryLayout, 0, "", "");
  ASSERT_EQ(8, fis_count_);
  PackageFile("zImage", 0x150000);  // exactly 21 erase blocks: no extra block
  PackageFile("rd.bin", 0x250001);  // one byte into the 38th block
  PackageFile("veltcfg", 0x7FFFF);
  ASSERT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));
  EXPECT_EQ(kBlock, gEraseBlockSize);
  ExpectPlan({
      {"RedBoot", 0xFFF00000, 0x3A448, 0x40000, 0, 0},
      {"zImage", 0xFF800000, 0x150000, 0x180000, 3, 1},
      {"rd.gz", 0xFF980000, 0x250001, 0x280000, 2, 1},
      {"AllLib.tgz", 0xFFC00000, 0x2A0113, 0x300000, 5, 0},
      {"vendor", 0xFFF40000, 0x10000, 0x20000, 1, 0},
      {"veltcfg", 0xFFF60000, 0x7FFFF, 0x80000, 0, 1},
      {"RedBoot Config", 0xFFFE0000, 0x1000, 0x10000, 0, 0},
      {"FIS Directory", 0xFFFF0000, 0x800, 0x10000, 0, 0},
  });
  EXPECT_EQ(
      (std::vector<SyslogRecord>{
          Info("flashsize = 0x00800000, eraseblock = 0x00010000"),
          Absent("RedBoot.msys"),
          Info("PATCHINFO: part[RedBoot] file[RedBoot.msys] start = [0xFFF00000] size[0x262144] "
               "datalen=[0x0003A448] nblock[4] balance[0] fneedupdate[0]"),
          Info("PATCHINFO: part[zImage] file[zImage] start = [0xFF800000] size[0x1572864] "
               "datalen=[0x00150000] nblock[21] balance[3] fneedupdate[1]"),
          Info("PATCHINFO: part[rd.gz] file[rd.bin] start = [0xFF980000] size[0x2621440] "
               "datalen=[0x00250001] nblock[38] balance[2] fneedupdate[1]"),
          Absent("AllLib.tgz"),
          Info("PATCHINFO: part[AllLib.tgz] file[AllLib.tgz] start = [0xFFC00000] "
               "size[0x3145728] datalen=[0x002A0113] nblock[43] balance[5] fneedupdate[0]"),
          Absent("vendor"),
          Info("PATCHINFO: part[vendor] file[vendor] start = [0xFFF40000] size[0x131072] "
               "datalen=[0x00010000] nblock[1] balance[1] fneedupdate[0]"),
          Info("PATCHINFO: part[veltcfg] file[veltcfg] start = [0xFFF60000] size[0x524288] "
               "datalen=[0x0007FFFF] nblock[8] balance[0] fneedupdate[1]"),
          Absent("RedBoot Config"),
          Info("PATCHINFO: part[RedBoot Config] file[RedBoot Config] start = [0xFFFE0000] "
               "size[0x65536] datalen=[0x00001000] nblock[1] balance[0] fneedupdate[0]"),
          Absent("FIS Directory"),
          Info("PATCHINFO: part[FIS Directory] file[FIS Directory] start = [0xFFFF0000] "
               "size[0x65536] datalen=[0x00000800] nblock[1] balance[0] fneedupdate[0]"),
      }),
      LoggedRecords());
  EXPECT_EQ(0, UPDTNeedResize(gPartitionTable, gPartitionCount));
  // Planning only looks: nothing on the chip was written, erased or moved.
  const std::string trace = testing_support::ReadFile(state_ + "/trace.log");
  EXPECT_NE(std::string::npos, trace.find("getinfo mtd7 "));
  for (const char* change : {"write ", "erase ", "set-extent ", "set-fis ", "lock ", "unlock "}) {
    EXPECT_NE(0u, trace.find(change)) << change;
    EXPECT_EQ(std::string::npos, trace.find(std::string("\n") + change)) << change;
  }
}

TEST_F(PatchPlanSim, OrdinaryBoardWithAnEmptyPackageKeepsEveryPartition) {
  START_OR_RETURN(kOrdinaryLayout, 0, "", "");
  ASSERT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));
  ExpectPlan({
      {"RedBoot", 0xFFF00000, 0x3A448, 0x40000, 0, 0},
      {"zImage", 0xFF800000, 0x12F3A4, 0x180000, 5, 0},
      {"rd.gz", 0xFF980000, 0x21C8E0, 0x280000, 6, 0},
      {"AllLib.tgz", 0xFFC00000, 0x2A0113, 0x300000, 5, 0},
      {"vendor", 0xFFF40000, 0x10000, 0x20000, 1, 0},
      {"veltcfg", 0xFFF60000, 0x20000, 0x80000, 6, 0},
      {"RedBoot Config", 0xFFFE0000, 0x1000, 0x10000, 0, 0},
      {"FIS Directory", 0xFFFF0000, 0x800, 0x10000, 0, 0},
  });
  EXPECT_EQ(17u, LoggedRecords().size());  // flash size, then an absent file and PATCHINFO each
}

// Without any other file, the partitions need 105 of the 128 blocks; a
// kernel image of N blocks replaces the old 19.
TEST_F(PatchPlanSim, NewContentsMayFillTheFlashButNotExceedIt) {
  START_OR_RETURN(kOrdinaryLayout, 0, "", "");
  PackageFile("zImage", 42 * kBlock);
  EXPECT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));  // 128 blocks: exactly full
  EXPECT_EQ(-18, gPartitionTable[1].balance);

  PackageFile("zImage", 42 * kBlock + 1);
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis_.data(), fis_count_));
  const std::vector<SyslogRecord> logged = LoggedRecords();
  ASSERT_FALSE(logged.empty());
  // The skipped partitions count with their old contents.
  EXPECT_EQ(Error("UPDTInitPatchInfo(N): the binary size exceeds flash size limit(total = 129)"),
            logged.back());
}

TEST_F(PatchPlanSim, PlanThatNoLongerFitsIsRebalancedFromTheRoomiestPartition) {
  START_OR_RETURN(kOrdinaryLayout, 0, "", "");
  PackageFile("zImage", 26 * kBlock);  // two blocks more than the partition has
  ASSERT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));
  ASSERT_EQ(1, UPDTNeedResize(gPartitionTable, gPartitionCount));
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(gPartitionTable, gPartitionCount));
  // rd.gz (6 blocks spare) beats AllLib.tgz (5); the fixed veltcfg (6) never gives.
  EXPECT_EQ(0xFF800000u, gPartitionTable[1].start);
  EXPECT_EQ(26 * kBlock, gPartitionTable[1].size);
  EXPECT_EQ(0xFF980000u + 2 * kBlock, gPartitionTable[2].start);
  EXPECT_EQ(38 * kBlock, gPartitionTable[2].size);
  EXPECT_EQ(1, gPartitionTable[2].fneedupdate);  // moved, although not in the package
  EXPECT_EQ(0x21C8E0u, gPartitionTable[2].datalen);
  EXPECT_EQ(0xFFC00000u, gPartitionTable[3].start);
  EXPECT_EQ(0, gPartitionTable[3].fneedupdate);
  EXPECT_EQ(0xFFF60000u, gPartitionTable[5].start);
  EXPECT_EQ(0, gPartitionTable[5].fneedupdate);
}

TEST_F(PatchPlanSim, DirectoryWithoutItsOwnRecordHasNoFlashSize) {
  START_OR_RETURN(kOrdinaryLayout, 0, "", " fis=no");
  ASSERT_EQ(7, fis_count_);
  PackageFile("zImage", 0x100000);
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis_.data(), fis_count_));
  EXPECT_EQ(
      (std::vector<SyslogRecord>{
          Error("UPDTInitPatchInfo(N): ulAddrMtd7 = 0, ulAddrMtd0 = ff800000, ulSizeMtd7 = 0"),
          Error("UPDTInitPatchInfo(N): flashsize == 0"),
      }),
      LoggedRecords());
  EXPECT_EQ(0u, gPartitionTable[1].datalen);  // nothing planned
}

TEST_F(PatchPlanSim, DirectoryWithoutKernelRecordEndingAtTheTopWrapsToNoFlashSize) {
  START_OR_RETURN(kOrdinaryLayout, 0, " fis=no", "");
  ASSERT_EQ(7, fis_count_);
  PackageFile("zImage", 0x100000);
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis_.data(), fis_count_));
  // From address 0 to the end of the directory at the top of the 4 GiB:
  // 0x100000000 is 0 in the board's 32 bits.
  EXPECT_EQ((std::vector<SyslogRecord>{Error("UPDTInitPatchInfo(N): flashsize == 0")}),
            LoggedRecords());
}

TEST_F(PatchPlanSim, JuniorBoardPlansItsSixPartitions) {
  START_OR_RETURN(kJuniorLayout, 1, "", "");
  ASSERT_EQ(6, fis_count_);
  PackageFile("RedBoot.msys", 0x3B000);
  PackageFile("vendor", 0x10000);
  ASSERT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));
  EXPECT_EQ(kBlock, gEraseBlockSize);
  ExpectPlan({
      {"RedBoot", 0xFFF00000, 0x3B000, 0x40000, 0, 1},
      {"zImage", 0xFFE00000, 0xC5EDA, 0xD0000, 0, 0},
      {"rd.gz", 0xFFF40000, 0xAEE2C, 0xB0000, 0, 0},
      {"vendor", 0xFFED0000, 0x10000, 0x10000, 0, 1},
      {"RedBoot Config", 0xFFEE0000, 0x10000, 0x10000, 0, 0},
      {"FIS Directory", 0xFFFF0000, 0x600, 0x10000, 0, 0},
  });
  EXPECT_EQ(
      (std::vector<SyslogRecord>{
          Info("flashsize = 0x00200000, eraseblock = 0x00010000"),
          Info("PATCHINFO: part[RedBoot] file[RedBoot.msys] start = [0xFFF00000] size[0x262144] "
               "datalen=[0x0003B000] nblock[4] balance[0] fneedupdate[1]"),
          Absent("zImage"),
          Info("PATCHINFO: part[zImage] file[zImage] start = [0xFFE00000] size[0x851968] "
               "datalen=[0x000C5EDA] nblock[13] balance[0] fneedupdate[0]"),
          Absent("rd.bin"),
          Info("PATCHINFO: part[rd.gz] file[rd.bin] start = [0xFFF40000] size[0x720896] "
               "datalen=[0x000AEE2C] nblock[11] balance[0] fneedupdate[0]"),
          Info("PATCHINFO: part[vendor] file[vendor] start = [0xFFED0000] size[0x65536] "
               "datalen=[0x00010000] nblock[1] balance[0] fneedupdate[1]"),
          Absent("RedBoot Config"),
          Info("PATCHINFO: part[RedBoot Config] file[RedBoot Config] start = [0xFFEE0000] "
               "size[0x65536] datalen=[0x00010000] nblock[1] balance[0] fneedupdate[0]"),
          Absent("FIS Directory"),
          Info("PATCHINFO: part[FIS Directory] file[FIS Directory] start = [0xFFFF0000] "
               "size[0x65536] datalen=[0x00000600] nblock[1] balance[0] fneedupdate[0]"),
      }),
      LoggedRecords());
}

// The junior chip has 32 blocks, 31 in use, none to spare in any partition.
TEST_F(PatchPlanSim, JuniorKernelOneBlockLargerFitsTheFlashButFindsNoDonor) {
  START_OR_RETURN(kJuniorLayout, 1, "", "");
  PackageFile("zImage", 13 * kBlock + 1);
  ASSERT_EQ(0, UPDTInitPatchInfo(fis_.data(), fis_count_));
  EXPECT_EQ(-1, gPartitionTable[1].balance);
  EXPECT_EQ(1, UPDTNeedResize(gPartitionTable, gPartitionCount));
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(-1, ErrUPDTAdjustPartitionSize(gPartitionTable, gPartitionCount));
  EXPECT_EQ(std::vector<SyslogRecord>{Error("ErrUPDTAdjustPartitionSize(N): negative balance")},
            LoggedRecords());

  PackageFile("zImage", 14 * kBlock + 1);
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis_.data(), fis_count_));
  ASSERT_FALSE(LoggedRecords().empty());
  EXPECT_EQ(Error("UPDTInitPatchInfo(N): the binary size exceeds flash size limit(total = 33)"),
            LoggedRecords().back());
}

TEST_F(PatchPlanSim, JuniorDirectoryWithoutItsOwnRecordHasNoFlashSize) {
  START_OR_RETURN(kJuniorLayout, 1, "", " fis=no");
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis_.data(), fis_count_));
  EXPECT_EQ(
      (std::vector<SyslogRecord>{
          Error("UPDTInitPatchInfo(N): ulAddrMtd7 = 0, ulAddrMtd0 = ffe00000, ulSizeMtd7 = 0"),
          Error("UPDTInitPatchInfo(N): flashsize == 0"),
      }),
      LoggedRecords());
}

}  // namespace
