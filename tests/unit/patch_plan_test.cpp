#include "updater/patch_plan.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log_lines.h"
#include "test_support.h"
#include "updater/fis_record.h"
#include "updater/update_run.h"

namespace {

using testing_support::LoggedMessages;
using Lines = std::vector<std::string>;

constexpr uint32_t kBlock = 0x10000;

class PatchPlan : public ::testing::Test {
 protected:
  void SetUp() override {
    UPDTResetRunState();
    testing_support::SyslogRecords().clear();
    gEraseBlockSize = kBlock;
  }
  void TearDown() override { UPDTResetRunState(); }
};

TEST_F(PatchPlan, EachBoardFamilyHasItsPartitionsFilesAndDevices) {
  const Lines kOrdinary = {"RedBoot RedBoot.msys /dev/mtd0", "zImage zImage /dev/mtd1",
                           "rd.gz rd.bin /dev/mtd2",         "AllLib.tgz AllLib.tgz /dev/mtd3",
                           "vendor vendor /dev/mtd4",        "veltcfg veltcfg /dev/mtd5",
                           "RedBoot Config RedBoot Config /dev/mtd6",
                           "FIS Directory FIS Directory /dev/mtd7"};
  const Lines kJunior = {"RedBoot RedBoot.msys /dev/mtd0", "zImage zImage /dev/mtd1",
                         "rd.gz rd.bin /dev/mtd2", "vendor vendor /dev/mtd3",
                         "RedBoot Config RedBoot Config /dev/mtd4",
                         "FIS Directory FIS Directory /dev/mtd5"};
  for (int junior : {0, 1}) {  // the longer table first: none of its rows may stay
    gPartitionTable[1].fneedupdate = 1;
    UPDTSelectLayout(junior);
    Lines layout;
    for (int i = 0; i <= UPDT_MAX_PARTITIONS && gPartitionDevices[i].part != nullptr; ++i) {
      const PartitionRecord& row = gPartitionTable[i];
      EXPECT_EQ(0, row.start | row.datalen | row.size | row.balance | row.delta | row.fneedupdate);
      EXPECT_STREQ(row.part, gPartitionDevices[i].part);
      layout.push_back(std::string(row.part) + " " + row.file + " " + gPartitionDevices[i].device);
    }
    EXPECT_EQ(junior ? kJunior : kOrdinary, layout);
    EXPECT_EQ(junior ? 6 : 8, gPartitionCount);
    EXPECT_EQ(nullptr, gPartitionTable[gPartitionCount].part);
    EXPECT_STREQ(junior ? "/dev/mtd5" : "/dev/mtd7", gszDevMtdPartition);
  }
  EXPECT_EQ((Lines{"This is not junior, gszDevMtdPartition=[/dev/mtd7]",
                   "This is junior, gszDevMtdPartition=[/dev/mtd5]"}),
            LoggedMessages());
}

TEST_F(PatchPlan, NamesMatchExactly) {
  for (const char* part : {"veltcfg", "vendor", "RedBoot Config", "FIS Directory"}) {
    EXPECT_EQ(1, UPDTIsFixedPartition(part)) << part;
  }
  for (const char* part : {"RedBoot", "zImage", "rd.gz", "AllLib.tgz", "Vendor", "vendor ", ""}) {
    EXPECT_EQ(0, UPDTIsFixedPartition(part)) << part;
  }
  UPDTSelectLayout(1);
  EXPECT_STREQ("/dev/mtd3", SzUPDTGetDeviceByName("vendor"));
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName("AllLib.tgz"));  // not on junior boards
  EXPECT_EQ(nullptr, SzUPDTGetDeviceByName("fis directory"));

  std::vector<unsigned char> fis(3 * FIS_RECORD_SIZE, 0);
  const char* const kNames[] = {"RedBoot", "RedBoot Config", "ABCDEFGHIJKLMNOP"};
  for (int i = 0; i < 3; ++i) memcpy(&fis[i * FIS_RECORD_SIZE], kNames[i], strlen(kNames[i]));
  EXPECT_EQ(1, GetIdxByName("RedBoot Config", fis.data(), 3));
  EXPECT_EQ(2, GetIdxByName("ABCDEFGHIJKLMNOP", fis.data(), 3));
  EXPECT_EQ(-1, GetIdxByName("RedBoo", fis.data(), 3));
  EXPECT_EQ(-1, GetIdxByName("ABCDEFGHIJKLMNOP", fis.data(), 2));  // beyond the count
  EXPECT_EQ((Lines{"This is junior, gszDevMtdPartition=[/dev/mtd5]",
                   "SzUPDTGetDeviceByName(N): unknown partition name [AllLib.tgz]",
                   "SzUPDTGetDeviceByName(N): unknown partition name [fis directory]",
                   "GetIdxByName(N): unknown partition name [RedBoo]",
                   "GetIdxByName(N): unknown partition name [ABCDEFGHIJKLMNOP]"}),
            LoggedMessages());
}

TEST_F(PatchPlan, PlanNeedsTheGeometryOfTheDirectoryDevice) {
  UPDTSelectLayout(0);
  gPartitionDevices[7].device = "/nonexistent/mtd7";
  testing_support::SyslogRecords().clear();
  std::vector<unsigned char> fis(FIS_RECORD_SIZE, 0);
  memcpy(fis.data(), "FIS Directory", 13);
  EXPECT_EQ(-1, UPDTInitPatchInfo(fis.data(), 1));
  const Lines logged = LoggedMessages();
  ASSERT_FALSE(logged.empty());
  EXPECT_EQ("UPDTInitPatchInfo(N): fail to get device info", logged.back());
}

// Rebalancing rows: the partition and its balance in erase blocks; each
// partition is 16 blocks long and follows the one before.
using Plan = std::vector<std::pair<const char*, int32_t>>;

std::vector<PartitionRecord> Rows(const Plan& plan) {
  std::vector<PartitionRecord> rows(plan.size() + 1, PartitionRecord{});  // and the end row
  for (size_t i = 0; i < plan.size(); ++i) {
    rows[i] = {plan[i].first, plan[i].first, static_cast<uint32_t>(i) * 16 * kBlock, 0,
               16 * kBlock,   plan[i].second, 0, 0};
  }
  return rows;
}

TEST_F(PatchPlan, BlocksComeOneByOneFromTheRoomiestMovablePartition) {
  const struct {
    Plan plan;
    int result;
    std::vector<int32_t> deltas;
  } kCases[] = {
      // A tie keeps the earlier partition; fixed ones never give.
      {{{"RedBoot", 2}, {"zImage", -1}, {"rd.gz", 3}, {"AllLib.tgz", 3}, {"vendor", 9}},
       0,
       {0, 1, -1, 0, 0}},
      {{{"RedBoot", 0}, {"zImage", -3}, {"rd.gz", 2}, {"AllLib.tgz", 3}}, 0, {0, 3, -1, -2}},
      // Partition 0 is the donor unless another beats it, fixed or not.
      {{{"vendor", 4}, {"zImage", -2}, {"rd.gz", 1}, {"veltcfg", 9}}, 0, {-2, 2, 0, 0}},
      {{{"RedBoot", 0}, {"zImage", -3}, {"rd.gz", 2}}, -1, {0, 2, -2}},
  };
  for (const auto& row : kCases) {
    std::vector<PartitionRecord> rows = Rows(row.plan);
    EXPECT_EQ(row.result, ErrUPDTAdjustPartitionSize(rows.data(), row.plan.size()));
    for (size_t i = 0; i < row.plan.size(); ++i) {
      SCOPED_TRACE(row.plan[i].first);
      EXPECT_EQ(row.deltas[i], rows[i].delta);
      EXPECT_EQ(row.plan[i].second + row.deltas[i], rows[i].balance);
    }
  }
}

TEST_F(PatchPlan, LaterMovablePartitionsShiftAndAreRewrittenUpToTheEndRow) {
  std::vector<PartitionRecord> rows =
      Rows({{"RedBoot", 0}, {"zImage", -2}, {"rd.gz", 1}, {"vendor", 5}, {"AllLib.tgz", 5},
            {"veltcfg", 7}, {"FIS Directory", 0}});
  rows.push_back(Rows({{"rd.gz", 0}})[0]);  // behind the end row: never looked at
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows.data(), 7));
  const struct {
    uint32_t start, size;  // in blocks
    int32_t rewritten;
  } kExpected[] = {{0, 16, 0},  {16, 18, 1}, {34, 16, 1}, {48, 16, 0},
                   {66, 14, 1}, {80, 16, 0}, {96, 16, 0}, {0, 0, 0},  {0, 16, 0}};
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(kExpected[i].start * kBlock, rows[i].start);
    EXPECT_EQ(kExpected[i].size * kBlock, rows[i].size);
    EXPECT_EQ(kExpected[i].rewritten, rows[i].fneedupdate);
  }
}

}  // namespace
