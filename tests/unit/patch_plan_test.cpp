#include "updater/patch_plan.h"

#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log_lines.h"
#include "test_support.h"
#include "updater/fis_record.h"
#include "updater/update_run.h"

namespace {

using testing_support::LoggedRecords;
using testing_support::SyslogRecord;

constexpr uint32_t kBlock = 0x10000;

SyslogRecord Error(const std::string& text) { return {LOG_ERR, text}; }

class PatchPlan : public ::testing::Test {
 protected:
  void SetUp() override {
    UPDTResetRunState();
    testing_support::SyslogRecords().clear();
    gEraseBlockSize = kBlock;
  }
  void TearDown() override { UPDTResetRunState(); }
};

PartitionRecord Row(const char* part, int32_t balance, uint32_t start = 0, uint32_t size = 0) {
  PartitionRecord record = {};
  record.part = part;
  record.file = part;
  record.balance = balance;
  record.start = start;
  record.size = size;
  return record;
}

std::vector<int32_t> Balances(const std::vector<PartitionRecord>& rows) {
  std::vector<int32_t> balances;
  for (size_t i = 0; i + 1 < rows.size(); ++i) balances.push_back(rows[i].balance);
  return balances;
}

std::vector<int32_t> Deltas(const std::vector<PartitionRecord>& rows) {
  std::vector<int32_t> deltas;
  for (size_t i = 0; i + 1 < rows.size(); ++i) deltas.push_back(rows[i].delta);
  return deltas;
}

// Rebalancing cases: balances before, who gives and who takes.
struct DonorCase {
  const char* what;
  std::vector<PartitionRecord> rows;  // ends with the all-zero row
  std::vector<int32_t> balances;      // after
  std::vector<int32_t> deltas;        // after
};

TEST_F(PatchPlan, DonorIsTheRoomiestMovablePartitionAndTiesKeepTheEarlierOne) {
  const DonorCase cases[] = {
      {"ties keep the earlier record",
       {Row("RedBoot", 2), Row("zImage", -1), Row("rd.gz", 3), Row("AllLib.tgz", 3), {}},
       {2, 0, 2, 3},
       {0, 1, -1, 0}},
      {"the boot loader record may donate",
       {Row("RedBoot", 5), Row("zImage", -2), Row("rd.gz", 1), Row("AllLib.tgz", 4), {}},
       {3, 0, 1, 4},
       {-2, 2, 0, 0}},
      {"fixed partitions never donate",
       {Row("RedBoot", 1),
        Row("zImage", -1),
        Row("vendor", 9),
        Row("veltcfg", 9),
        Row("RedBoot Config", 9),
        Row("FIS Directory", 9),
        {}},
       {0, 0, 9, 9, 9, 9},
       {-1, 1, 0, 0, 0, 0}},
      {"record 0 stays the candidate although fixed",
       {Row("vendor", 4), Row("zImage", -2), Row("rd.gz", 1), Row("veltcfg", 9), {}},
       {2, 0, 1, 9},
       {-2, 2, 0, 0}},
      {"blocks are taken one at a time from whoever is roomiest then",
       {Row("RedBoot", 0), Row("zImage", -3), Row("rd.gz", 2), Row("AllLib.tgz", 3), {}},
       {0, 0, 1, 1},
       {0, 3, -1, -2}},
      {"record 0 in need is fed by the others",
       {Row("RedBoot", -1), Row("zImage", 0), Row("rd.gz", 2), {}},
       {0, 0, 1},
       {1, 0, -1}},
      {"a partition that fits takes nothing",
       {Row("RedBoot", 0), Row("zImage", 0), Row("rd.gz", 2), {}},
       {0, 0, 2},
       {0, 0, 0}},
  };
  for (const DonorCase& test : cases) {
    SCOPED_TRACE(test.what);
    std::vector<PartitionRecord> rows = test.rows;
    const int count = static_cast<int>(rows.size()) - 1;
    ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows.data(), count));
    EXPECT_EQ(test.balances, Balances(rows));
    EXPECT_EQ(test.deltas, Deltas(rows));
  }
  EXPECT_TRUE(LoggedRecords().empty());
}

TEST_F(PatchPlan, NegativeBalanceWhenNobodyHasABlockToGive) {
  const std::vector<PartitionRecord> cases[] = {
      // Record 0 is short and stays its own candidate: the others have less
      // room than it, and the roomy one is fixed.
      {Row("RedBoot", -1), Row("vendor", 7), Row("zImage", -2), Row("rd.gz", -3), {}},
      // The best movable donor has no block left.
      {Row("RedBoot", -1), Row("zImage", 0), Row("rd.gz", 0), Row("veltcfg", 7), {}},
      // Record 0 is the candidate but has nothing to spare for record 1.
      {Row("RedBoot", 0), Row("zImage", -1), Row("FIS Directory", 3), {}},
  };
  for (const std::vector<PartitionRecord>& rows : cases) {
    SCOPED_TRACE(rows[0].balance);
    testing_support::SyslogRecords().clear();
    std::vector<PartitionRecord> plan = rows;
    EXPECT_EQ(-1, ErrUPDTAdjustPartitionSize(plan.data(), static_cast<int>(plan.size()) - 1));
    EXPECT_EQ(Balances(rows), Balances(plan));
    EXPECT_EQ(std::vector<SyslogRecord>{Error("ErrUPDTAdjustPartitionSize(N): negative balance")},
              LoggedRecords());
  }
}

TEST_F(PatchPlan, NegativeBalanceAfterPartOfTheBlocksWereMoved) {
  std::vector<PartitionRecord> rows = {Row("RedBoot", 0), Row("zImage", -3), Row("rd.gz", 2), {}};
  EXPECT_EQ(-1, ErrUPDTAdjustPartitionSize(rows.data(), 3));
  EXPECT_EQ((std::vector<int32_t>{0, -1, 0}), Balances(rows));
  EXPECT_EQ((std::vector<int32_t>{0, 2, -2}), Deltas(rows));
}

TEST_F(PatchPlan, ResizedPartitionsShiftTheLaterMovableOnesInTableOrder) {
  std::vector<PartitionRecord> rows = {
      Row("RedBoot", 0, 0xFFF00000, 4 * kBlock),
      Row("zImage", -2, 0xFF800000, 24 * kBlock),
      Row("rd.gz", 1, 0xFF980000, 40 * kBlock),
      Row("vendor", 5, 0xFFF40000, 2 * kBlock),
      Row("AllLib.tgz", 5, 0xFFC00000, 48 * kBlock),
      Row("veltcfg", 7, 0xFFF60000, 8 * kBlock),
      Row("RedBoot Config", 0, 0xFFFE0000, kBlock),
      Row("FIS Directory", 0, 0xFFFF0000, kBlock),
      {},
  };
  rows[1].fneedupdate = 1;  // zImage comes with the package, nothing else does
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows.data(), 8));

  struct Expected {
    uint32_t start;
    uint32_t size;
    int32_t fneedupdate;
  };
  const Expected expected[] = {
      {0xFFF00000, 4 * kBlock, 0},                // before the resize: untouched
      {0xFF800000, 26 * kBlock, 1},               // grew by two blocks
      {0xFF980000 + 2 * kBlock, 40 * kBlock, 1},  // only moves, rewritten without a file
      {0xFFF40000, 2 * kBlock, 0},                // fixed: the shift passes over it
      {0xFFC00000 + 2 * kBlock, 46 * kBlock, 1},  // donor: moves and shrinks
      {0xFFF60000, 8 * kBlock, 0},
      {0xFFFE0000, kBlock, 0},
      {0xFFFF0000, kBlock, 0},
  };
  for (size_t i = 0; i < 8; ++i) {
    SCOPED_TRACE(rows[i].part);
    EXPECT_EQ(expected[i].start, rows[i].start);
    EXPECT_EQ(expected[i].size, rows[i].size);
    EXPECT_EQ(expected[i].fneedupdate, rows[i].fneedupdate);
  }
  EXPECT_EQ((std::vector<int32_t>{0, 2, 0, 0, -2, 0, 0, 0}), Deltas(rows));
  EXPECT_EQ((std::vector<int32_t>{0, 0, 1, 5, 3, 7, 0, 0}), Balances(rows));
}

TEST_F(PatchPlan, ShiftPassesOverFixedPartitionsAndEndsAtTheZeroRow) {
  std::vector<PartitionRecord> rows = {
      Row("RedBoot", 0, 0x1000000, 2 * kBlock),    Row("zImage", -1, 0x1020000, 2 * kBlock),
      Row("vendor", 4, 0x1040000, 2 * kBlock),     Row("rd.gz", 2, 0x1060000, 4 * kBlock),
      Row("RedBoot Config", 0, 0x10A0000, kBlock), {},
      Row("AllLib.tgz", 0, 0x2000000, kBlock),  // behind the end row: never looked at
  };
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows.data(), 5));
  EXPECT_EQ(0x1020000u, rows[1].start);
  EXPECT_EQ(3 * kBlock, rows[1].size);
  EXPECT_EQ(0x1040000u, rows[2].start);
  EXPECT_EQ(0, rows[2].fneedupdate);
  EXPECT_EQ(0x1060000u + kBlock, rows[3].start);
  EXPECT_EQ(3 * kBlock, rows[3].size);
  EXPECT_EQ(1, rows[3].fneedupdate);
  EXPECT_EQ(0x10A0000u, rows[4].start);
  EXPECT_EQ(0, rows[4].fneedupdate);
  EXPECT_EQ(0x2000000u, rows[6].start);
  EXPECT_EQ(0, rows[6].fneedupdate);
}

TEST_F(PatchPlan, BalancedPlanIsLeftAsItIs) {
  std::vector<PartitionRecord> rows = {
      Row("RedBoot", 1, 0x1000, kBlock), Row("zImage", 0, 0x2000, kBlock), {}};
  const std::vector<PartitionRecord> before = rows;
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows.data(), 2));
  EXPECT_EQ(0, memcmp(before.data(), rows.data(), sizeof(PartitionRecord) * rows.size()));
}

TEST_F(PatchPlan, NeedResizeLooksOnlyAtTheFirstCountRows) {
  const PartitionRecord rows[] = {Row("RedBoot", 0), Row("zImage", 3), Row("rd.gz", -1), {}};
  EXPECT_EQ(1, UPDTNeedResize(rows, 3));
  EXPECT_EQ(0, UPDTNeedResize(rows, 2));
  EXPECT_EQ(0, UPDTNeedResize(rows, 0));
  const PartitionRecord first_short[] = {Row("RedBoot", -5), {}};
  EXPECT_EQ(1, UPDTNeedResize(first_short, 1));
}

TEST_F(PatchPlan, FixedPartitionsAreTheFourNamedExactly) {
  const struct {
    const char* part;
    int fixed;
  } cases[] = {
      {"veltcfg", 1}, {"vendor", 1},        {"RedBoot Config", 1}, {"FIS Directory", 1},
      {"RedBoot", 0}, {"zImage", 0},        {"rd.gz", 0},          {"AllLib.tgz", 0},
      {"Vendor", 0},  {"FIS directory", 0}, {"vendor ", 0},        {"", 0},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(test.fixed, UPDTIsFixedPartition(test.part)) << "[" << test.part << "]";
  }
  EXPECT_EQ(0, UPDTIsFixedPartition(nullptr));
}

struct LayoutRow {
  const char* part;
  const char* file;
  const char* device;
};

void ExpectLayout(const std::vector<LayoutRow>& expected) {
  for (size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(expected[i].part);
    const PartitionRecord& row = gPartitionTable[i];
    EXPECT_STREQ(expected[i].part, row.part);
    EXPECT_STREQ(expected[i].file, row.file);
    EXPECT_EQ(0u, row.start);
    EXPECT_EQ(0u, row.datalen);
    EXPECT_EQ(0u, row.size);
    EXPECT_EQ(0, row.balance);
    EXPECT_EQ(0, row.delta);
    EXPECT_EQ(0, row.fneedupdate);
    EXPECT_STREQ(expected[i].part, gPartitionDevices[i].part);
    EXPECT_STREQ(expected[i].device, gPartitionDevices[i].device);
  }
  static const PartitionRecord kZeroRow = {};
  for (size_t i = expected.size(); i <= UPDT_MAX_PARTITIONS; ++i) {
    EXPECT_EQ(0, memcmp(&kZeroRow, &gPartitionTable[i], sizeof(kZeroRow))) << i;
    EXPECT_EQ(nullptr, gPartitionDevices[i].part) << i;
    EXPECT_EQ(nullptr, gPartitionDevices[i].device) << i;
  }
}

TEST_F(PatchPlan, OrdinaryBoardsGetEightPartitionsAndTheDirectoryOnMtd7) {
  UPDTSelectLayout(0);
  EXPECT_EQ(8, gPartitionCount);
  EXPECT_STREQ("/dev/mtd7", gszDevMtdPartition);
  ExpectLayout({
      {"RedBoot", "RedBoot.msys", "/dev/mtd0"},
      {"zImage", "zImage", "/dev/mtd1"},
      {"rd.gz", "rd.bin", "/dev/mtd2"},
      {"AllLib.tgz", "AllLib.tgz", "/dev/mtd3"},
      {"vendor", "vendor", "/dev/mtd4"},
      {"veltcfg", "veltcfg", "/dev/mtd5"},
      {"RedBoot Config", "RedBoot Config", "/dev/mtd6"},
      {"FIS Directory", "FIS Directory", "/dev/mtd7"},
  });
  EXPECT_EQ(std::vector<SyslogRecord>{Error("This is not junior, gszDevMtdPartition=[/dev/mtd7]")},
            LoggedRecords());
}

TEST_F(PatchPlan, JuniorBoardsGetSixPartitionsAndTheDirectoryOnMtd5) {
  UPDTSelectLayout(0);  // a larger table first: its rows must not survive
  gPartitionTable[1].fneedupdate = 1;
  testing_support::SyslogRecords().clear();
  UPDTSelectLayout(1);
  EXPECT_EQ(6, gPartitionCount);
  EXPECT_STREQ("/dev/mtd5", gszDevMtdPartition);
  ExpectLayout({
      {"RedBoot", "RedBoot.msys", "/dev/mtd0"},
      {"zImage", "zImage", "/dev/mtd1"},
      {"rd.gz", "rd.bin", "/dev/mtd2"},
      {"vendor", "vendor", "/dev/mtd3"},
      {"RedBoot Config", "RedBoot Config", "/dev/mtd4"},
      {"FIS Directory", "FIS Directory", "/dev/mtd5"},
  });
  EXPECT_EQ(std::vector<SyslogRecord>{Error("This is junior, gszDevMtdPartition=[/dev/mtd5]")},
            LoggedRecords());
}

TEST_F(PatchPlan, DeviceByNameMatchesExactlyAndLogsUnknownNames) {
  UPDTSelectLayout(1);
  testing_support::SyslogRecords().clear();
  EXPECT_STREQ("/dev/mtd3", SzUPDTGetDeviceByName("vendor"));
  EXPECT_STREQ("/dev/mtd5", SzUPDTGetDeviceByName("FIS Directory"));
  EXPECT_TRUE(LoggedRecords().empty());
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName("AllLib.tgz"));  // not on junior boards
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName("fis directory"));
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName("RedBoot.msys"));
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName(nullptr));
  EXPECT_EQ((std::vector<SyslogRecord>{
                Error("SzUPDTGetDeviceByName(N): unknown partition name [AllLib.tgz]"),
                Error("SzUPDTGetDeviceByName(N): unknown partition name [fis directory]"),
                Error("SzUPDTGetDeviceByName(N): unknown partition name [RedBoot.msys]"),
                Error("SzUPDTGetDeviceByName(N): parameter error"),
            }),
            LoggedRecords());
}

std::vector<unsigned char> Directory(const std::vector<const char*>& names) {
  std::vector<unsigned char> records(names.size() * FIS_RECORD_SIZE);
  for (size_t i = 0; i < names.size(); ++i) {
    FisImageDesc desc = {};
    snprintf(desc.name, sizeof(desc.name), "%s", names[i]);
    desc.flash_base = 0x1000u * static_cast<uint32_t>(i);
    UPDTFisEncode(&desc, &records[i * FIS_RECORD_SIZE]);
  }
  return records;
}

TEST_F(PatchPlan, IndexByNameFindsTheExactRecordName) {
  const std::vector<unsigned char> fis =
      Directory({"RedBoot", "zImage", "RedBoot Config", "FIS Directory", "ABCDEFGHIJKLMNOP"});
  EXPECT_EQ(0, GetIdxByName("RedBoot", fis.data(), 5));
  EXPECT_EQ(2, GetIdxByName("RedBoot Config", fis.data(), 5));
  EXPECT_EQ(3, GetIdxByName("FIS Directory", fis.data(), 5));
  EXPECT_EQ(4, GetIdxByName("ABCDEFGHIJKLMNOP", fis.data(), 5));
  EXPECT_TRUE(LoggedRecords().empty());

  EXPECT_EQ(-1, GetIdxByName("FIS Directory", fis.data(), 3));  // beyond the count
  EXPECT_EQ(-1, GetIdxByName("redboot", fis.data(), 5));
  EXPECT_EQ(-1, GetIdxByName("RedBoo", fis.data(), 5));
  EXPECT_EQ(-1, GetIdxByName("zImage", fis.data(), 0));
  EXPECT_EQ(-1, GetIdxByName(nullptr, fis.data(), 5));
  EXPECT_EQ(-1, GetIdxByName("zImage", nullptr, 5));
  EXPECT_EQ((std::vector<SyslogRecord>{
                Error("GetIdxByName(N): unknown partition name [FIS Directory]"),
                Error("GetIdxByName(N): unknown partition name [redboot]"),
                Error("GetIdxByName(N): unknown partition name [RedBoo]"),
                Error("GetIdxByName(N): unknown partition name [zImage]"),
                Error("GetIdxByName(N): parameter error"),
                Error("GetIdxByName(N): parameter error"),
            }),
            LoggedRecords());
}

TEST_F(PatchPlan, InitPatchInfoRefusesMissingRecordsWithTheTrailingBlank) {
  UPDTSelectLayout(0);
  testing_support::SyslogRecords().clear();
  const std::vector<unsigned char> fis = Directory({"FIS Directory"});
  EXPECT_EQ(-1, UPDTInitPatchInfo(nullptr, 8));
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis.data(), 0));
  EXPECT_EQ((std::vector<SyslogRecord>{Error("UPDTInitPatchInfo(N): parameter error "),
                                       Error("UPDTInitPatchInfo(N): parameter error ")}),
            LoggedRecords());
}

TEST_F(PatchPlan, InitPatchInfoNeedsTheGeometryOfTheDirectoryDevice) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("not-a-device"), std::string(4096, '\xFF'));
  const std::vector<unsigned char> fis = Directory({"zImage", "FIS Directory"});
  const std::string missing = dir.File("missing");
  const std::string plain = dir.File("not-a-device");
  for (const std::string& device : {missing, plain}) {
    SCOPED_TRACE(device);
    UPDTSelectLayout(0);
    gPartitionDevices[7].device = device.c_str();
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, UPDTInitPatchInfo(fis.data(), 2));
    const std::vector<SyslogRecord> logged = LoggedRecords();
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ(Error("UPDTInitPatchInfo(N): fail to get device info"), logged.back());
  }

  // A table without the directory device at all.
  UPDTSelectLayout(0);
  gPartitionDevices[7] = {nullptr, nullptr};
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis.data(), 2));
  EXPECT_EQ((std::vector<SyslogRecord>{
                Error("SzUPDTGetDeviceByName(N): unknown partition name [FIS Directory]"),
                Error("UPDTInitPatchInfo(N): fail to get device info")}),
            LoggedRecords());
}

}  // namespace
