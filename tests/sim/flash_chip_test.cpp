#include "sim/flash_chip.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <mtd/mtd-abi.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "test_support.h"

namespace {

using flashsim::ChipState;
using flashsim::FlashChip;
using sim_test::kNorBase;
using sim_test::kNorEraseSize;

class FlashChipTest : public ::testing::Test {
 protected:
  // Writes `state` into the temporary directory and opens it.
  void OpenChip(ChipState state, const std::string& faults = "") {
    expected_ = state;
    std::string error;
    ASSERT_TRUE(flashsim::SaveState(state, &error)) << error;
    if (!faults.empty()) testing_support::WriteFile(dir_.File("faults"), faults);
    ASSERT_TRUE(chip_.Open(dir_.path(), &error)) << error;
  }
  void OpenNor(const std::string& faults = "") { OpenChip(sim_test::NorChip(dir_.path()), faults); }
  void OpenMSys() { OpenChip(sim_test::MSysChip(dir_.path())); }

  // The chip in memory and chip.img on disk both equal `expected`.
  void ExpectImage(const std::vector<uint8_t>& expected) {
    EXPECT_TRUE(chip_.Snapshot().image == expected) << "chip in memory differs";
    EXPECT_TRUE(sim_test::ReadBytes(dir_.File("chip.img")) == expected) << "chip.img differs";
  }
  std::vector<std::string> Trace() { return sim_test::ReadLines(dir_.File("trace.log")); }
  std::string Answer(const std::string& command) { return chip_.Control(command + "\n"); }

  testing_support::TempDir dir_;
  FlashChip chip_;
  ChipState expected_;
};

std::vector<uint8_t> Bytes(size_t count, uint8_t value) {
  return std::vector<uint8_t>(count, value);
}

TEST_F(FlashChipTest, ReadReturnsPartitionBytesAndStopsAtItsEnd) {
  OpenNor();
  std::vector<uint8_t> buffer(0x100, 0);
  ASSERT_EQ(0x100, chip_.Read(1, 0x10, buffer.data(), buffer.size()));
  EXPECT_EQ(0, memcmp(buffer.data(), &expected_.image[0x2010], 0x100));
  EXPECT_EQ(0x20, chip_.Read(1, 0x4000 - 0x20, buffer.data(), buffer.size()));
  EXPECT_EQ(0, memcmp(buffer.data(), &expected_.image[0x6000 - 0x20], 0x20));
  EXPECT_EQ(0, chip_.Read(1, 0x4000, buffer.data(), buffer.size()));
  EXPECT_EQ(0, chip_.Read(1, 0x123456789ull, buffer.data(), buffer.size()));
  EXPECT_EQ(-ENODEV, chip_.Read(9, 0, buffer.data(), buffer.size()));
}

TEST_F(FlashChipTest, WriteProgramsBitsAsOldAndNew) {
  OpenNor();
  std::vector<uint8_t> data = {0xF0, 0x0F, 0xFF, 0x00, 0x5A};
  ASSERT_EQ(5, chip_.Write(2, 0xFFE, data.data(), data.size()));  // across a block boundary
  std::vector<uint8_t> image = expected_.image;
  for (size_t i = 0; i < data.size(); ++i) image[0x6FFE + i] &= data[i];
  ExpectImage(image);
}

TEST_F(FlashChipTest, WriteIntoErasedFlashGivesTheWrittenBytes) {
  OpenNor();
  ASSERT_EQ(0, chip_.Erase(1, 0x1000, 0x1000));
  std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_EQ(8, chip_.Write(1, 0x1100, data.data(), data.size()));
  std::vector<uint8_t> read(8);
  ASSERT_EQ(8, chip_.Read(1, 0x1100, read.data(), read.size()));
  EXPECT_EQ(data, read);
}

TEST_F(FlashChipTest, WritePastTheEndFailsWithNoSpaceAndAcrossItIsShortened) {
  OpenNor();
  std::vector<uint8_t> zeros = Bytes(0x40, 0);
  EXPECT_EQ(-ENOSPC, chip_.Write(0, 0x2000, zeros.data(), zeros.size()));
  EXPECT_EQ(-ENOSPC, chip_.Write(0, 0x9999999ull, zeros.data(), zeros.size()));
  ExpectImage(expected_.image);
  EXPECT_EQ(0x10, chip_.Write(0, 0x2000 - 0x10, zeros.data(), zeros.size()));
  std::vector<uint8_t> image = expected_.image;
  std::fill(image.begin() + 0x1FF0, image.begin() + 0x2000, 0);
  ExpectImage(image);
}

struct EraseCase {
  uint32_t start;
  uint32_t length;
  int result;
};

TEST_F(FlashChipTest, EraseAcceptsOnlyBlockAlignedRangesInsideThePartition) {
  const EraseCase cases[] = {
      {0x0000, 0x4000, 0},           {0x1000, 0x1000, 0},       {0x3000, 0x1000, 0},
      {0x0000, 0x0000, 0},           {0x0800, 0x1000, -EINVAL}, {0x0000, 0x0800, -EINVAL},
      {0x1000, 0x1001, -EINVAL},     {0x3000, 0x2000, -EINVAL}, {0x4000, 0x1000, -EINVAL},
      {0xFFFFF000, 0x2000, -EINVAL},
  };
  OpenNor();
  for (const EraseCase& test : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << test.start << "+" << test.length);
    std::vector<uint8_t> image = chip_.Snapshot().image;
    ASSERT_EQ(test.result, chip_.Erase(1, test.start, test.length));
    if (test.result == 0) {
      std::fill(image.begin() + 0x2000 + test.start,
                image.begin() + 0x2000 + test.start + test.length, 0xFF);
    }
    ExpectImage(image);
  }
}

TEST_F(FlashChipTest, LockedBlockRefusesWriteAndEraseAndChangesNothing) {
  OpenNor();
  ASSERT_EQ(0, chip_.Lock(1, 0x1000, 0x1000));
  EXPECT_EQ("0001000000000000", testing_support::ReadFile(dir_.File("locks")));
  std::vector<uint8_t> zeros = Bytes(0x20, 0);
  EXPECT_EQ(-EIO, chip_.Write(1, 0xFF0, zeros.data(), zeros.size()));
  EXPECT_EQ(-EIO, chip_.Erase(1, 0, 0x4000));
  EXPECT_EQ(-EIO, chip_.Erase(1, 0x1000, 0x1000));
  ExpectImage(expected_.image);

  EXPECT_EQ(0, chip_.Erase(1, 0x2000, 0x2000));
  ASSERT_EQ(0, chip_.Unlock(1, 0, 0x4000));
  EXPECT_EQ("0000000000000000", testing_support::ReadFile(dir_.File("locks")));
  EXPECT_EQ(0x20, chip_.Write(1, 0xFF0, zeros.data(), zeros.size()));
}

TEST_F(FlashChipTest, LockCoversEveryBlockTheRangeTouchesAndStaysInsideThePartition) {
  OpenNor();
  ASSERT_EQ(0, chip_.Lock(1, 0xFFF, 2));
  EXPECT_EQ("0011000000000000", testing_support::ReadFile(dir_.File("locks")));
  EXPECT_EQ(-EINVAL, chip_.Lock(1, 0x3000, 0x2000));
  EXPECT_EQ(-EINVAL, chip_.Unlock(0, 0, 0x2001));
  EXPECT_EQ("0011000000000000", testing_support::ReadFile(dir_.File("locks")));
}

TEST_F(FlashChipTest, GetInfoAnswersNorGeometryOfThePartition) {
  OpenNor();
  flashsim::DeviceInfo info;
  ASSERT_EQ(0, chip_.GetInfo(2, &info));
  EXPECT_EQ(MTD_NORFLASH, info.type);
  EXPECT_EQ(0x4000u, info.size);
  EXPECT_EQ(kNorEraseSize, info.erasesize);
  EXPECT_EQ(-ENODEV, chip_.GetInfo(7, &info));
}

TEST_F(FlashChipTest, SetExtentMovesTheViewAndNothingElse) {
  OpenNor();
  ASSERT_EQ(0, chip_.SetExtent(2, kNorBase + 0xB000, 0x3000));
  EXPECT_EQ(0x3000, chip_.DeviceSize(2));
  std::vector<uint8_t> buffer(0x3000);
  ASSERT_EQ(0x3000, chip_.Read(2, 0, buffer.data(), buffer.size()));
  EXPECT_EQ(0, memcmp(buffer.data(), &expected_.image[0xB000], 0x3000));
  ExpectImage(expected_.image);

  ChipState reloaded;
  std::string error;
  ASSERT_TRUE(flashsim::LoadState(dir_.path(), &reloaded, &error)) << error;
  ASSERT_NE(nullptr, reloaded.layout.Find(2));
  EXPECT_EQ(kNorBase + 0xB000, reloaded.layout.Find(2)->base);
  EXPECT_EQ(0x3000u, reloaded.layout.Find(2)->size);
  EXPECT_EQ(kNorBase + 0x2000, reloaded.layout.Find(1)->base);
}

TEST_F(FlashChipTest, SetExtentRefusesUnalignedOrOutsideExtents) {
  const uint32_t bad[][2] = {
      {kNorBase + 0x800, 0x1000},  {kNorBase + 0x1000, 0x800},  {kNorBase + 0x1000, 0},
      {kNorBase - 0x1000, 0x2000}, {kNorBase + 0xF000, 0x2000}, {0x1000, 0x1000},
  };
  OpenNor();
  for (const auto& extent : bad) {
    EXPECT_EQ(-EINVAL, chip_.SetExtent(1, extent[0], extent[1])) << std::hex << extent[0];
  }
  EXPECT_EQ(kNorBase + 0x2000, chip_.Snapshot().layout.Find(1)->base);
  EXPECT_EQ(0x4000, chip_.DeviceSize(1));
}

TEST_F(FlashChipTest, SetExtentOverlappingOtherPartitionsIsTraced) {
  OpenNor();
  ASSERT_EQ(0, chip_.SetExtent(1, kNorBase + 0x1000, 0x6000));
  std::vector<std::string> expected = {
      "set-extent mtd1 0xffff1000 0x00006000 ok",
      "overlap mtd1 mtd0",
      "overlap mtd1 mtd2",
  };
  EXPECT_EQ(expected, Trace());
}

TEST_F(FlashChipTest, SetFisEntryRewritesThreeFieldsOfOneRecordBigEndian) {
  OpenNor();
  ASSERT_EQ(0,
            chip_.SetFisEntry(sim_test::kFisDevice, "rd.gz", 0x11223344, 0x55667788, 0x99AABBCC));
  std::vector<uint8_t> image = expected_.image;
  uint8_t* record = &image[0xF000 + 2 * 256];
  const uint8_t flash_base[] = {0x11, 0x22, 0x33, 0x44};
  const uint8_t size[] = {0x55, 0x66, 0x77, 0x88};
  const uint8_t data_length[] = {0x99, 0xAA, 0xBB, 0xCC};
  memcpy(record + 16, flash_base, 4);
  memcpy(record + 24, size, 4);
  memcpy(record + 32, data_length, 4);
  ExpectImage(image);
}

TEST_F(FlashChipTest, SetFisEntryFailsForUnknownNamesAndOtherDevices) {
  OpenNor();
  EXPECT_EQ(-ENOENT, chip_.SetFisEntry(sim_test::kFisDevice, "nothing", 1, 2, 3));
  EXPECT_EQ(-ENOENT, chip_.SetFisEntry(sim_test::kFisDevice, "RedBoo", 1, 2, 3));
  EXPECT_EQ(-EINVAL, chip_.SetFisEntry(1, "zImage", 1, 2, 3));
  ExpectImage(expected_.image);
}

TEST_F(FlashChipTest, SetFisEntryRewritesALockedDirectoryAndKeepsItLocked) {
  OpenNor();
  ASSERT_EQ(0, chip_.Lock(sim_test::kFisDevice, 0, kNorEraseSize));
  ASSERT_EQ(0,
            chip_.SetFisEntry(sim_test::kFisDevice, "zImage", 0x11223344, 0x55667788, 0x99AABBCC));
  uint8_t* record = &expected_.image[0xF000 + 256];
  flashsim::WriteBigEndian32(0x11223344, record + 16);
  flashsim::WriteBigEndian32(0x55667788, record + 24);
  flashsim::WriteBigEndian32(0x99AABBCC, record + 32);
  ExpectImage(expected_.image);
  // Still locked: a write into the directory is refused.
  const uint8_t zero = 0;
  EXPECT_EQ(-EIO, chip_.Write(sim_test::kFisDevice, 0, &zero, 1));
}

TEST_F(FlashChipTest, SetFisEntryLooksNoFurtherThanTheFirstErasedRecord) {
  ChipState state = sim_test::NorChip(dir_.path());
  flashsim::FisRecord hidden;
  hidden.name = "hidden";
  // Record 5 is erased; record 6 is never part of the directory.
  flashsim::EncodeFisRecord(hidden, &state.image[0xF000 + 6 * 256]);
  OpenChip(state);
  EXPECT_EQ(-ENOENT, chip_.SetFisEntry(sim_test::kFisDevice, "hidden", 1, 2, 3));
  ExpectImage(state.image);
}

TEST_F(FlashChipTest, TraceRecordsEveryOperationWithItsResult) {
  OpenNor();
  std::vector<uint8_t> buffer(16384, 0xFF);
  flashsim::DeviceInfo info;
  chip_.OpenDevice(1);
  chip_.Write(1, 0, buffer.data(), 16384);
  chip_.Read(1, 0x3FF0, buffer.data(), 0x100);
  chip_.Erase(1, 0, 0x4000);
  chip_.Lock(1, 0, 0x4000);
  chip_.Erase(1, 0, 0x4000);
  chip_.Unlock(1, 0, 0x4000);
  chip_.GetInfo(1, &info);
  chip_.SetFisEntry(sim_test::kFisDevice, "zImage", 0xFFFF2000, 0x4000, 0x10);
  Answer("trace step two");
  std::vector<std::string> expected = {
      "open mtd1 0x00000000 0 ok",
      "write mtd1 0x00000000 16384 ok",
      "read mtd1 0x00003ff0 16 ok",
      "erase mtd1 0x00000000 0x00004000 ok",
      "lock mtd1 0x00000000 0x00004000 ok",
      "erase mtd1 0x00000000 0x00004000 EIO",
      "unlock mtd1 0x00000000 0x00004000 ok",
      "getinfo mtd1 0x00000000 0 ok",
      "set-fis mtd4 0xffff2000 0x00004000 ok",
      "mark step two",
  };
  EXPECT_EQ(expected, Trace());
}

TEST_F(FlashChipTest, NthFaultFailsOnlyThatOperationOnThatDevice) {
  OpenNor();
  EXPECT_EQ("OK\n", Answer("fault erase mtd1 nth=2 errno=EROFS"));
  EXPECT_EQ(0, chip_.Erase(1, 0, 0x1000));
  EXPECT_EQ(0, chip_.Erase(2, 0, 0x1000));
  EXPECT_EQ(-EROFS, chip_.Erase(1, 0x1000, 0x1000));
  EXPECT_EQ(0, chip_.Erase(1, 0x1000, 0x1000));
  std::vector<uint8_t> image = expected_.image;
  std::fill(image.begin() + 0x2000, image.begin() + 0x4000, 0xFF);
  std::fill(image.begin() + 0x6000, image.begin() + 0x7000, 0xFF);
  ExpectImage(image);
  EXPECT_EQ("erase mtd1 0x00001000 0x00001000 EROFS", Trace().at(2));
}

TEST_F(FlashChipTest, EveryFaultOnAllDevicesFailsEachOperationOfThatKind) {
  OpenNor();
  EXPECT_EQ("OK\n", Answer("fault read all every errno=5"));
  uint8_t byte = 0;
  EXPECT_EQ(-EIO, chip_.Read(0, 0, &byte, 1));
  EXPECT_EQ(-EIO, chip_.Read(3, 0, &byte, 1));
  EXPECT_EQ(-EIO, chip_.Read(0, 0, &byte, 1));
  EXPECT_EQ(1, chip_.Write(0, 0, &byte, 1));
  EXPECT_EQ("OK\n", Answer("fault clear"));
  EXPECT_EQ(1, chip_.Read(0, 0, &byte, 1));
}

TEST_F(FlashChipTest, FaultsCoverEveryRequestKind) {
  OpenNor();
  uint8_t byte = 0;
  flashsim::DeviceInfo info;
  EXPECT_EQ("OK\n", Answer("fault open mtd0 nth=1 errno=ENOENT"));
  EXPECT_EQ("OK\n", Answer("fault write mtd0 nth=1 errno=ENOSPC"));
  EXPECT_EQ("OK\n", Answer("fault lock mtd0 nth=1 errno=EPERM"));
  EXPECT_EQ("OK\n", Answer("fault unlock mtd0 nth=1 errno=EPERM"));
  EXPECT_EQ("OK\n", Answer("fault set-extent mtd0 nth=1 errno=ENOSYS"));
  EXPECT_EQ("OK\n", Answer("fault set-fis all nth=1 errno=EIO"));
  EXPECT_EQ("OK\n", Answer("fault getinfo mtd0 nth=1 errno=EINVAL"));
  EXPECT_EQ(-ENOENT, chip_.OpenDevice(0));
  EXPECT_EQ(-ENOSPC, chip_.Write(0, 0, &byte, 1));
  EXPECT_EQ(-EPERM, chip_.Lock(0, 0, 0x1000));
  EXPECT_EQ(-EPERM, chip_.Unlock(0, 0, 0x1000));
  EXPECT_EQ(-ENOSYS, chip_.SetExtent(0, kNorBase, 0x2000));
  EXPECT_EQ(-EIO, chip_.SetFisEntry(sim_test::kFisDevice, "zImage", 1, 2, 3));
  EXPECT_EQ(-EINVAL, chip_.GetInfo(0, &info));
  ExpectImage(expected_.image);
  EXPECT_EQ(0, chip_.OpenDevice(0));
  EXPECT_EQ(0, chip_.SetFisEntry(sim_test::kFisDevice, "zImage", 1, 2, 3));
}

TEST_F(FlashChipTest, CorruptNextWriteFlipsOneVisibleBitOfOneWrite) {
  OpenNor();
  ASSERT_EQ(0, chip_.Erase(1, 0, 0x4000));
  EXPECT_EQ("OK\n", Answer("fault corrupt-next-write mtd1"));
  std::vector<uint8_t> data = {0xA5, 0x3C, 0x00, 0xFF};
  ASSERT_EQ(0, chip_.Erase(2, 0, 0x1000));
  ASSERT_EQ(4, chip_.Write(2, 0, data.data(), data.size()));  // another device: untouched
  ASSERT_EQ(4, chip_.Write(1, 0, data.data(), data.size()));
  ASSERT_EQ(4, chip_.Write(1, 0x100, data.data(), data.size()));  // only the next write
  std::vector<uint8_t> image = expected_.image;
  std::fill(image.begin() + 0x2000, image.begin() + 0x7000, 0xFF);
  std::copy(data.begin(), data.end(), image.begin() + 0x6000);
  std::copy(data.begin(), data.end(), image.begin() + 0x2000);
  std::copy(data.begin(), data.end(), image.begin() + 0x2100);
  image[0x2000] = 0xA4;  // bit 0 of the first byte did not program as written
  ExpectImage(image);
}

TEST_F(FlashChipTest, WornBlockKeepsBitZeroOfEveryByteSet) {
  OpenNor();
  EXPECT_EQ("OK\n", Answer("fault worn-block mtd1 0x1234"));
  ASSERT_EQ(0, chip_.Erase(1, 0, 0x4000));
  std::vector<uint8_t> zeros = Bytes(0x2000, 0);
  ASSERT_EQ(0x2000, chip_.Write(1, 0x800, zeros.data(), zeros.size()));
  std::vector<uint8_t> image = expected_.image;
  std::fill(image.begin() + 0x2000, image.begin() + 0x6000, 0xFF);
  std::fill(image.begin() + 0x2800, image.begin() + 0x3000, 0x00);
  std::fill(image.begin() + 0x3000, image.begin() + 0x4000, 0x01);
  std::fill(image.begin() + 0x4000, image.begin() + 0x4800, 0x00);
  ExpectImage(image);
  // The worn block belongs to the chip: a device moved over it meets it too.
  ASSERT_EQ(0, chip_.SetExtent(2, kNorBase + 0x3000, 0x1000));
  ASSERT_EQ(0, chip_.Erase(2, 0, 0x1000));
  ASSERT_EQ(0x1000, chip_.Write(2, 0, zeros.data(), 0x1000));
  std::vector<uint8_t> read(0x1000);
  ASSERT_EQ(0x1000, chip_.Read(2, 0, read.data(), read.size()));
  EXPECT_EQ(std::vector<uint8_t>(0x1000, 0x01), read);
}

TEST_F(FlashChipTest, PowerCutFailsEveryLaterOperationAndFreezesTheChip) {
  OpenNor();
  EXPECT_EQ("OK\n", Answer("fault power-cut after=2"));
  std::vector<uint8_t> zeros = Bytes(16, 0);
  ASSERT_EQ(16, chip_.Write(0, 0, zeros.data(), zeros.size()));
  ASSERT_EQ(16, chip_.Read(0, 0, zeros.data(), zeros.size()));
  std::vector<uint8_t> at_cut = chip_.Snapshot().image;
  flashsim::DeviceInfo info;
  EXPECT_EQ(-EIO, chip_.Write(0, 0x100, zeros.data(), zeros.size()));
  EXPECT_EQ(-EIO, chip_.Erase(0, 0, 0x1000));
  EXPECT_EQ(-EIO, chip_.GetInfo(0, &info));
  EXPECT_EQ(-EIO, chip_.OpenDevice(1));
  EXPECT_EQ("OK 0\n", Answer("flash-type"));
  ExpectImage(at_cut);
  EXPECT_EQ("OK\n", Answer("fault clear"));
  EXPECT_EQ(0, chip_.GetInfo(0, &info));
}

TEST_F(FlashChipTest, FaultPlanFileIsAppliedAtOpenAndKeptCurrent) {
  OpenNor("# prepared before mounting\nfault write mtd0 every errno=EROFS\nset flash-type 7\n");
  uint8_t byte = 0;
  EXPECT_EQ(-EROFS, chip_.Write(0, 0, &byte, 1));
  EXPECT_EQ("OK 7\n", Answer("flash-type"));
  EXPECT_EQ("OK\n", Answer("fault erase  all  nth=3 errno=EIO"));
  EXPECT_EQ(
      "fault write mtd0 every errno=EROFS\nset flash-type 7\nfault erase all nth=3 errno=EIO\n",
      testing_support::ReadFile(dir_.File("faults")));
  EXPECT_EQ("OK\n", Answer("fault clear"));
  EXPECT_EQ("set flash-type 7\n", testing_support::ReadFile(dir_.File("faults")));
  EXPECT_EQ(1, chip_.Write(0, 0, &byte, 1));
}

TEST_F(FlashChipTest, BadFaultPlanFileFailsTheOpen) {
  std::string error;
  ASSERT_TRUE(flashsim::SaveState(sim_test::NorChip(dir_.path()), &error)) << error;
  testing_support::WriteFile(dir_.File("faults"), "fault write mtd0 sometimes errno=EIO\n");
  EXPECT_FALSE(chip_.Open(dir_.path(), &error));
  EXPECT_NE(std::string::npos, error.find("faults:1")) << error;
}

TEST_F(FlashChipTest, MalformedControlCommandsAnswerInvalid) {
  const char* commands[] = {
      "",
      "bogus",
      "flash-type now",
      "driver-buffer keep",
      "fault write mtd0 nth=0 errno=EIO",
      "fault write mtd0 nth=1",
      "fault write mtd0 every nth=1 errno=EIO",
      "fault write disk0 every errno=EIO",
      "fault write mtd0 every errno=EWHAT",
      "fault fly mtd0 every errno=EIO",
      "fault worn-block mtd1 0x4000",
      "fault worn-block all 0",
      "fault power-cut after=-1",
      "set flash-type x",
      "set driver-buffer maybe",
      "msys-format many",
      "msys-partition 1 2 3",
  };
  OpenNor();
  for (const char* command : commands) EXPECT_EQ("ERR 22\n", Answer(command)) << command;
  EXPECT_EQ("<missing>", testing_support::ReadFile(dir_.File("faults")));
}

TEST_F(FlashChipTest, FlashTypeAndDriverBufferAnswerWhatWasSet) {
  OpenNor();
  EXPECT_EQ("OK 0\n", Answer("flash-type"));
  EXPECT_EQ("OK\n", Answer("driver-buffer take"));
  EXPECT_EQ("OK\n", Answer("driver-buffer give"));
  EXPECT_EQ("OK\n", Answer("set flash-type 0x3"));
  EXPECT_EQ("OK 3\n", Answer("flash-type"));
  EXPECT_EQ("OK\n", Answer("set flash-type errno ENOSYS"));
  EXPECT_EQ("ERR 38\n", Answer("flash-type"));
  EXPECT_EQ("OK\n", Answer("set driver-buffer errno EBUSY"));
  EXPECT_EQ("ERR 16\n", Answer("driver-buffer take"));
  EXPECT_EQ("OK\n", Answer("set driver-buffer ok"));
  EXPECT_EQ("OK\n", Answer("driver-buffer give"));
}

TEST_F(FlashChipTest, NorChipRefusesFlashDiskRequests) {
  OpenNor();
  uint32_t table[16];
  const uint32_t counts[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(-ENOTTY, chip_.GetMSysTable(0, table));
  EXPECT_EQ(-ENOTTY, chip_.MSysFormat(flashsim::kMSysUnits));
  EXPECT_EQ(-ENOTTY, chip_.MSysPartition(counts));
  EXPECT_EQ("ERR 25\n", Answer("msys-format 967"));
  ExpectImage(expected_.image);
}

TEST_F(FlashChipTest, MSysChipAnswersTypeTableAndGeometry) {
  OpenMSys();
  EXPECT_EQ("OK 1\n", Answer("flash-type"));
  uint32_t table[16];
  ASSERT_EQ(0, chip_.GetMSysTable(0, table));
  const uint32_t expected[16] = {0x10000, 1000, 0x20000, 2000, 0x8000, 3000};
  EXPECT_EQ(0, memcmp(expected, table, sizeof(table)));
  flashsim::DeviceInfo info;
  ASSERT_EQ(0, chip_.GetInfo(1, &info));
  EXPECT_EQ(MTD_NANDFLASH, info.type);
  EXPECT_EQ(0x20000u, info.size);
  EXPECT_EQ(16384u, info.erasesize);
  EXPECT_EQ(-ENOTTY, chip_.SetExtent(1, 0, 0x4000));
  EXPECT_EQ(-ENOTTY, chip_.SetFisEntry(1, "part1", 0, 0x4000, 0));
}

TEST_F(FlashChipTest, MSysWriteReplacesBytesAndRaisesTheDataLength) {
  OpenMSys();
  std::vector<uint8_t> data = {0x01, 0x02, 0x80, 0xFF};
  ASSERT_EQ(4, chip_.Write(1, 3000, data.data(), data.size()));
  std::vector<uint8_t> image = expected_.image;
  std::copy(data.begin(), data.end(), image.begin() + 0x10000 + 3000);
  ExpectImage(image);
  uint32_t table[16];
  ASSERT_EQ(0, chip_.GetMSysTable(1, table));
  EXPECT_EQ(3004u, table[3]);
  ASSERT_EQ(4, chip_.Write(1, 10, data.data(), data.size()));
  ASSERT_EQ(0, chip_.GetMSysTable(1, table));
  EXPECT_EQ(3004u, table[3]);
  ChipState reloaded;
  std::string error;
  ASSERT_TRUE(flashsim::LoadState(dir_.path(), &reloaded, &error)) << error;
  EXPECT_EQ(3004u, reloaded.layout.Find(1)->data_length);
}

TEST_F(FlashChipTest, MSysFormatNeeds967UnitsAndErasesTheWholeDisk) {
  OpenMSys();
  EXPECT_EQ("ERR 22\n", Answer("msys-format 966"));
  ExpectImage(expected_.image);
  EXPECT_EQ("OK\n", Answer("msys-format 967"));
  ExpectImage(std::vector<uint8_t>(expected_.image.size(), 0xFF));
  uint32_t table[16];
  ASSERT_EQ(0, chip_.GetMSysTable(0, table));
  const uint32_t expected[16] = {0x10000, 0, 0x20000, 0, 0x8000, 0};
  EXPECT_EQ(0, memcmp(expected, table, sizeof(table)));
  EXPECT_EQ("format - 0x00000000 966 EINVAL", Trace().at(0));
  EXPECT_EQ("format - 0x00000000 967 ok", Trace().at(1));
}

TEST_F(FlashChipTest, MSysPartitionLaysPartitionsOneAfterAnother) {
  OpenMSys();
  EXPECT_EQ("OK\n", Answer("msys-partition 2 0 3 1 1 1 1 958"));
  std::vector<int> devices = {0, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(devices, chip_.Devices());
  uint32_t table[16];
  ASSERT_EQ(0, chip_.GetMSysTable(0, table));
  const uint32_t expected[16] = {0x8000, 0, 0,      0, 0xC000, 0, 0x4000,      0,
                                 0x4000, 0, 0x4000, 0, 0x4000, 0, 958 * 16384, 0};
  EXPECT_EQ(0, memcmp(expected, table, sizeof(table)));
  ChipState state = chip_.Snapshot();
  EXPECT_EQ(0x8000u, state.layout.Find(2)->base);
  EXPECT_EQ("part2", state.layout.Find(2)->name);
  EXPECT_EQ(0x14000u, state.layout.Find(3)->base);
  ExpectImage(expected_.image);  // nothing is erased
  EXPECT_EQ("partition - 0x00000000 0x00f1c000 ok", Trace().at(0));
  EXPECT_EQ("ERR 22\n", Answer("msys-partition 2 0 3 1 1 1 1 959"));
}

// An independent model of the NOR chip for the randomized comparison.
struct ReferenceChip {
  struct Extent {
    uint32_t offset;  // from the chip's start
    uint32_t size;
  };
  std::vector<uint8_t> image;
  std::vector<bool> locked;
  std::map<int, Extent> extents;

  bool AnyLocked(uint64_t from, uint64_t to) const {  // chip offsets [from, to)
    for (uint64_t block = from / kNorEraseSize; block * kNorEraseSize < to; ++block) {
      if (locked[block]) return true;
    }
    return false;
  }
  long Read(int device, uint64_t offset, size_t length, std::vector<uint8_t>* out) const {
    const Extent& extent = extents.at(device);
    out->clear();
    for (uint64_t at = offset; at < extent.size && out->size() < length; ++at) {
      out->push_back(image[extent.offset + at]);
    }
    return static_cast<long>(out->size());
  }
  long Write(int device, uint64_t offset, const std::vector<uint8_t>& data) {
    const Extent& extent = extents.at(device);
    if (offset >= extent.size) return -ENOSPC;
    uint64_t count = std::min<uint64_t>(data.size(), extent.size - offset);
    if (AnyLocked(extent.offset + offset, extent.offset + offset + count)) return -EIO;
    for (uint64_t i = 0; i < count; ++i) image[extent.offset + offset + i] &= data[i];
    return static_cast<long>(count);
  }
  int Erase(int device, uint32_t start, uint32_t length) {
    const Extent& extent = extents.at(device);
    if (start % kNorEraseSize != 0 || length % kNorEraseSize != 0 ||
        uint64_t{start} + length > extent.size) {
      return -EINVAL;
    }
    if (AnyLocked(extent.offset + start, uint64_t{extent.offset} + start + length)) return -EIO;
    for (uint32_t i = 0; i < length; ++i) image[extent.offset + start + i] = 0xFF;
    return 0;
  }
  int SetLock(int device, uint32_t start, uint32_t length, bool lock) {
    const Extent& extent = extents.at(device);
    if (uint64_t{start} + length > extent.size) return -EINVAL;
    for (uint64_t at = start; at < uint64_t{start} + length; ++at) {
      locked[(extent.offset + at) / kNorEraseSize] = lock;
    }
    return 0;
  }
  int SetExtent(int device, uint32_t base, uint32_t size) {
    if (base < kNorBase || (base - kNorBase) % kNorEraseSize != 0 || size == 0 ||
        size % kNorEraseSize != 0 || uint64_t{base - kNorBase} + size > image.size()) {
      return -EINVAL;
    }
    extents[device] = Extent{base - kNorBase, size};
    return 0;
  }
};

uint32_t RandomBelow(std::mt19937& random, uint32_t bound) {
  return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random);
}

// A block-aligned value most of the time, an arbitrary one sometimes.
uint32_t RandomRangeValue(std::mt19937& random, uint32_t limit) {
  if (RandomBelow(random, 8) == 0) return RandomBelow(random, limit + 0x1000);
  return RandomBelow(random, limit / kNorEraseSize + 2) * kNorEraseSize;
}

TEST_F(FlashChipTest, RandomOperationsMatchAnIndependentModel) {
  OpenNor();
  ReferenceChip reference;
  reference.image = expected_.image;
  reference.locked.assign(expected_.locked.size(), false);
  for (const flashsim::PartitionLayout& partition : expected_.layout.partitions) {
    reference.extents[partition.index] = {partition.base - kNorBase, partition.size};
  }
  std::mt19937 random(20240611);
  for (int step = 0; step < 4000; ++step) {
    int device = static_cast<int>(RandomBelow(random, 5));
    uint32_t size = reference.extents.at(device).size;
    uint32_t kind = RandomBelow(random, 100);
    SCOPED_TRACE(testing::Message() << "step " << step << " kind " << kind << " mtd" << device);
    if (kind < 25) {
      uint64_t offset = RandomBelow(random, size + 0x200);
      size_t length = RandomBelow(random, 0x2400);
      std::vector<uint8_t> got(length), want;
      long result = reference.Read(device, offset, length, &want);
      ASSERT_EQ(result, chip_.Read(device, offset, got.data(), length));
      got.resize(static_cast<size_t>(result));
      ASSERT_TRUE(got == want);
    } else if (kind < 55) {
      uint64_t offset = RandomBelow(random, size + 0x200);
      std::vector<uint8_t> data(RandomBelow(random, 0x1800) + 1);
      for (uint8_t& byte : data) byte = static_cast<uint8_t>(random() | random());
      ASSERT_EQ(reference.Write(device, offset, data),
                chip_.Write(device, offset, data.data(), data.size()));
    } else if (kind < 75) {
      uint32_t start = RandomRangeValue(random, size);
      uint32_t length = RandomRangeValue(random, size);
      ASSERT_EQ(reference.Erase(device, start, length), chip_.Erase(device, start, length));
    } else if (kind < 90) {
      bool lock = RandomBelow(random, 3) == 0;  // unlocked blocks stay the majority
      uint32_t start = RandomRangeValue(random, size);
      uint32_t length = RandomRangeValue(random, size / 2);
      ASSERT_EQ(reference.SetLock(device, start, length, lock),
                lock ? chip_.Lock(device, start, length) : chip_.Unlock(device, start, length));
    } else {
      uint32_t base = kNorBase + RandomRangeValue(random, sim_test::kNorChipSize);
      uint32_t new_size = RandomRangeValue(random, 0x6000);
      ASSERT_EQ(reference.SetExtent(device, base, new_size),
                chip_.SetExtent(device, base, new_size));
    }
    if (step % 500 == 499) {
      ASSERT_TRUE(chip_.Snapshot().image == reference.image);
      ASSERT_TRUE(sim_test::ReadBytes(dir_.File("chip.img")) == reference.image);
    }
  }
  // The run met both outcomes of every request that can fail.
  std::map<std::string, std::set<bool>> outcomes;
  for (const std::string& line : Trace()) {
    std::istringstream words(line);
    std::string op, device, offset, length, result;
    words >> op >> device >> offset >> length >> result;
    if (op != "overlap") outcomes[op].insert(result == "ok");
  }
  for (const char* op : {"write", "erase", "lock", "unlock", "set-extent"}) {
    EXPECT_EQ(2u, outcomes[op].size()) << op;
  }
  std::string error;
  ASSERT_TRUE(chip_.Close(&error)) << error;
  ChipState reloaded;
  ASSERT_TRUE(flashsim::LoadState(dir_.path(), &reloaded, &error)) << error;
  EXPECT_TRUE(reloaded.image == reference.image);
  for (size_t block = 0; block < reference.locked.size(); ++block) {
    EXPECT_EQ(reference.locked[block] ? 1 : 0, reloaded.locked[block]) << "block " << block;
  }
  for (const auto& [device, extent] : reference.extents) {
    ASSERT_NE(nullptr, reloaded.layout.Find(device));
    EXPECT_EQ(kNorBase + extent.offset, reloaded.layout.Find(device)->base);
    EXPECT_EQ(extent.size, reloaded.layout.Find(device)->size);
  }
}

}  // namespace
