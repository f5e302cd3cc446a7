#include "updater/patch_plan.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log_lines.h"
#include "test_support.h"
#include "updater/update_run.h"

namespace {

constexpr uint32_t kBlock = 0x10000;

class PatchPlan : public ::testing::Test {
 protected:
  void SetUp() override {
    UPDTResetRunState();
    testing_support::SyslogRecords().clear();
    gEraseBlockSize = kBlock;
  }
};

TEST_F(PatchPlan, EachBoardFamilyHasItsPartitionsFilesAndDevices) {
  const char* const kLayouts[] = {
      "RedBoot RedBoot.msys /dev/mtd0, zImage zImage /dev/mtd1, rd.gz rd.bin /dev/mtd2, "
      "AllLib.tgz AllLib.tgz /dev/mtd3, vendor vendor /dev/mtd4, veltcfg veltcfg /dev/mtd5, "
      "RedBoot Config RedBoot Config /dev/mtd6, FIS Directory FIS Directory /dev/mtd7",
      "RedBoot RedBoot.msys /dev/mtd0, zImage zImage /dev/mtd1, rd.gz rd.bin /dev/mtd2, "
      "vendor vendor /dev/mtd3, RedBoot Config RedBoot Config /dev/mtd4, "
      "FIS Directory FIS Directory /dev/mtd5"};
  for (int junior : {0, 1}) {  // the longer table first: none of its rows may stay
    gPartitionTable[1].fneedupdate = 1;
    UPDTSelectLayout(junior);
    std::string layout;
    for (int i = 0; i <= UPDT_MAX_PARTITIONS && gPartitionDevices[i].part != nullptr; ++i) {
      const PartitionRecord& row = gPartitionTable[i];
      EXPECT_STREQ(row.part, gPartitionDevices[i].part);
      layout += std::string(i == 0 ? "" : ", ") + row.part + " " + row.file + " " +
                gPartitionDevices[i].device;
    }
    EXPECT_EQ(kLayouts[junior], layout);
    EXPECT_EQ(junior ? 6 : 8, gPartitionCount);
    EXPECT_EQ(nullptr, gPartitionTable[gPartitionCount].part);
    EXPECT_STREQ(junior ? "/dev/mtd5" : "/dev/mtd7", gszDevMtdPartition);
  }
  EXPECT_EQ((std::vector<std::string>{"This is not junior, gszDevMtdPartition=[/dev/mtd7]",
                                      "This is junior, gszDevMtdPartition=[/dev/mtd5]"}),
            testing_support::LoggedMessages());
}

TEST_F(PatchPlan, LaterMovablePartitionsShiftAndAreRewrittenUpToTheEndRow) {
  // Each partition is 16 erase blocks long and follows the one before; the
  // partition behind the end row is never looked at.
  const char* const kParts[] = {"RedBoot",    "zImage",  "rd.gz",          "vendor",
                                "AllLib.tgz", "veltcfg", "RedBoot Config", "FIS Directory",
                                nullptr,      "rd.gz"};
  const int32_t kBalances[] = {0, -2, 1, 5, 5, 7, 0, 0, 0, 0};
  PartitionRecord rows[10] = {};
  for (uint32_t i = 0; i < 10; ++i) {
    if (kParts[i] == nullptr) continue;
    rows[i].part = rows[i].file = kParts[i];
    rows[i].start = i * 16 * kBlock;
    rows[i].size = 16 * kBlock;
    rows[i].balance = kBalances[i];
  }
  ASSERT_EQ(0, ErrUPDTAdjustPartitionSize(rows, 8));
  const uint32_t kExpected[][3] = {// start and size in blocks, rewritten
                                   {0, 16, 0},  {16, 18, 1}, {34, 16, 1}, {48, 16, 0},
                                   {66, 14, 1}, {80, 16, 0}, {96, 16, 0}, {112, 16, 0},
                                   {0, 0, 0},   {144, 16, 0}};
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(kExpected[i][0] * kBlock, rows[i].start) << i;
    EXPECT_EQ(kExpected[i][1] * kBlock, rows[i].size) << i;
    EXPECT_EQ(kExpected[i][2], static_cast<uint32_t>(rows[i].fneedupdate)) << i;
  }
}

}  // namespace
