// The chip model behind the simulator: NOR programming and erase, lock bits,
// partition extents, the FIS directory rewrite, fault injection and the control
// file, with a randomized comparison against an independent model.
#include "sim/flash_chip.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "sim/flash_state.h"
#include "sim_test_chips.h"
#include "test_support.h"

namespace {

using flashsim::ChipState;
using sim_test::kFisDevice;
using sim_test::kNorBase;
using sim_test::kNorEraseSize;
using testing_support::ReadFile;

class FlashChipTest : public ::testing::Test {
 protected:
  void OpenChip(ChipState state, const std::string& faults = "") {
    initial_ = state;
    std::string error;
    ASSERT_TRUE(flashsim::SaveState(state, &error)) << error;
    if (!faults.empty()) testing_support::WriteFile(dir_.File("faults"), faults);
    ASSERT_TRUE(chip_.Open(dir_.path(), &error)) << error;
  }
  void OpenNor(const std::string& faults = "") { OpenChip(sim_test::NorChip(dir_.path()), faults); }
  // The chip in memory and chip.img on disk both equal `expected`.
  void ExpectImage(const std::vector<uint8_t>& expected) {
    EXPECT_TRUE(chip_.Snapshot().image == expected) << "chip in memory differs";
    EXPECT_TRUE(sim_test::ReadBytes(dir_.File("chip.img")) == expected) << "chip.img differs";
  }
  std::string Answer(const std::string& command) { return chip_.Control(command + "\n"); }
  // One request of kind `op` on `device` that changes nothing when it
  // succeeds: "ok" or the errno's name.
  std::string Do(const std::string& op, int device) {
    uint8_t byte = 0xFF;
    flashsim::DeviceInfo info;
    const flashsim::PartitionLayout extent = *chip_.Snapshot().layout.Find(device);
    long result = op == "open"         ? chip_.OpenDevice(device)
                  : op == "read"       ? chip_.Read(device, 0, &byte, 1)
                  : op == "write"      ? chip_.Write(device, 0x10, &byte, 1)
                  : op == "erase"      ? chip_.Erase(device, 0, 0)
                  : op == "lock"       ? chip_.Lock(device, 0, 0)
                  : op == "unlock"     ? chip_.Unlock(device, 0, 0)
                  : op == "set-extent" ? chip_.SetExtent(device, extent.base, extent.size)
                  : op == "set-fis"    ? chip_.SetFisEntry(device, "zImage", 1, 2, 3)
                                       : chip_.GetInfo(device, &info);
    return result >= 0 ? "ok" : flashsim::ErrnoName(static_cast<int>(-result));
  }

  testing_support::TempDir dir_;
  flashsim::FlashChip chip_;
  ChipState initial_;
};

// Each row: a fault command, then requests "op device result" in order.
TEST_F(FlashChipTest, FaultRulesFireOnTheirOperationDeviceAndCount) {
  const char* const rows[][2] = {
      {"fault erase mtd1 nth=2 errno=EROFS", "erase 1 ok erase 2 ok erase 1 EROFS erase 1 ok"},
      {"fault read all every errno=5", "read 0 EIO read 3 EIO read 0 EIO write 0 ok"},
      {"fault open mtd0 nth=1 errno=ENOENT", "open 1 ok open 0 ENOENT open 0 ok"},
      {"fault write mtd0 nth=1 errno=ENOSPC", "write 0 ENOSPC write 0 ok"},
      {"fault lock mtd0 every errno=EPERM", "lock 0 EPERM unlock 0 ok lock 0 EPERM"},
      {"fault set-extent mtd0 nth=1 errno=ENOSYS", "set-extent 1 ok set-extent 0 ENOSYS"},
      {"fault set-fis all nth=1 errno=EIO", "set-fis 4 EIO set-fis 4 ok"},
      {"fault power-cut after=2", "write 0 ok read 1 ok write 0 EIO erase 2 EIO open 1 EIO"},
      {"fault power-cut after=0", "getinfo 0 EIO"},
  };
  OpenNor();
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    ASSERT_EQ("OK\n", Answer("fault clear"));
    ASSERT_EQ("OK\n", Answer(row[0]));
    std::istringstream steps(row[1]);
    std::string op, expected;
    for (int device; steps >> op >> device >> expected;) {
      EXPECT_EQ(expected, Do(op, device)) << op << " mtd" << device;
    }
  }
  EXPECT_EQ("OK\n", Answer("fault clear"));
  EXPECT_EQ("ok", Do("getinfo", 0));
  EXPECT_EQ("erase mtd1 0x00000000 0x00000000 EROFS",
            sim_test::ReadLines(dir_.File("trace.log")).at(2));
}

// Malformed commands answer EINVAL and change nothing; the others answer
// what was set ("command > answer").
TEST_F(FlashChipTest, ControlCommandsAnswerWhatWasSet) {
  const std::string malformed =
      "|bogus|flash-type now|driver-buffer keep|fault write mtd0 nth=0 errno=EIO|"
      "fault write mtd0 nth=1|fault write mtd0 every nth=1 errno=EIO|fault write disk0 every "
      "errno=EIO|fault write mtd0 every errno=EX|fault fly mtd0 every errno=EIO|fault worn-block "
      "mtd1 0x4000|fault power-cut after=-1|set flash-type x|msys-partition 1 2 3";
  const std::string answers =
      "flash-type > OK 0|set flash-type 0x3 > OK|flash-type > OK 3|set driver-buffer errno "
      "EBUSY > OK|driver-buffer give > ERR 16|set driver-buffer ok > OK|driver-buffer take > OK|"
      "msys-format 967 > ERR 25|trace  step two  > OK";
  OpenNor();
  std::istringstream bad(malformed), good(answers);
  for (std::string command; std::getline(bad, command, '|');) {
    EXPECT_EQ("ERR 22\n", Answer(command)) << command;
  }
  EXPECT_EQ("<missing>", ReadFile(dir_.File("faults")));
  for (std::string row; std::getline(good, row, '|');) {
    const size_t split = row.find(" > ");
    EXPECT_EQ(row.substr(split + 3) + "\n", Answer(row.substr(0, split))) << row;
  }
  EXPECT_EQ("mark step two", sim_test::ReadLines(dir_.File("trace.log")).back());
  uint32_t table[16];
  EXPECT_EQ(-ENOTTY, chip_.GetMSysTable(0, table));
  ExpectImage(initial_.image);
}

TEST_F(FlashChipTest, CorruptedWriteAndWornBlockSpoilOnlyTheirTarget) {
  OpenNor();
  ASSERT_EQ(0, chip_.Erase(1, 0, 0x4000));
  ASSERT_EQ(0, chip_.Erase(2, 0, 0x1000));
  EXPECT_EQ("OK\n", Answer("fault corrupt-next-write mtd1"));
  EXPECT_EQ("OK\n", Answer("fault worn-block mtd1 0x3234"));
  const std::vector<uint8_t> data = {0xA5, 0x3C, 0x00, 0xFF};
  std::vector<uint8_t> zeros(0x1000, 0);
  ASSERT_EQ(4, chip_.Write(2, 0, data.data(), data.size()));  // another device: untouched
  ASSERT_EQ(4, chip_.Write(1, 0, data.data(), data.size()));
  ASSERT_EQ(4, chip_.Write(1, 0x100, data.data(), data.size()));  // only the next write
  ASSERT_EQ(0x1000, chip_.Write(1, 0x3000, zeros.data(), zeros.size()));
  std::vector<uint8_t> image = initial_.image;
  std::fill(image.begin() + 0x2000, image.begin() + 0x7000, 0xFF);
  std::copy(data.begin(), data.end(), image.begin() + 0x6000);
  std::copy(data.begin(), data.end(), image.begin() + 0x2000);
  std::copy(data.begin(), data.end(), image.begin() + 0x2100);
  image[0x2000] = 0xA4;  // bit 0 of the first byte did not program as written
  std::fill(image.begin() + 0x5000, image.begin() + 0x6000, 0x01);  // bit 0 never programs
  ExpectImage(image);
}

// The directory's record is rewritten even while the directory is locked
// (the driver unlocks it around the rewrite); the trace shows every request.
TEST_F(FlashChipTest, SetFisEntryRewritesOneRecordAndTheTraceShowsEveryRequest) {
  ChipState state = sim_test::NorChip(dir_.path());
  flashsim::FisRecord hidden;  // after the erased record 5: not part of the directory
  hidden.name = "hidden";
  flashsim::EncodeFisRecord(hidden, &state.image[0xF000 + 6 * 256]);
  OpenChip(state);
  ASSERT_EQ(0, chip_.Lock(kFisDevice, 0, kNorEraseSize));
  ASSERT_EQ(0, chip_.SetFisEntry(kFisDevice, "rd.gz", 0x11223344, 0x55667788, 0x99AABBCC));
  EXPECT_EQ(-ENOENT, chip_.SetFisEntry(kFisDevice, "hidden", 1, 2, 3));
  EXPECT_EQ(-EINVAL, chip_.SetFisEntry(1, "zImage", 1, 2, 3));
  const uint8_t fields[] = {0x11, 0x22, 0x33, 0x44, 0xFF, 0xFF, 0x60, 0x00, 0x55, 0x66,
                            0x77, 0x88, 0,    0,    0x01, 0x02, 0x99, 0xAA, 0xBB, 0xCC};
  std::copy(fields, fields + sizeof(fields), state.image.begin() + 0xF000 + 2 * 256 + 16);
  uint8_t bytes[16];
  EXPECT_EQ(-EIO, chip_.Write(kFisDevice, 0, bytes, 1));  // still locked
  EXPECT_EQ(16, chip_.Read(1, 0x3FF0, bytes, sizeof(bytes)));
  EXPECT_EQ(0, chip_.SetExtent(1, kNorBase + 0x1000, 0x6000));
  ExpectImage(state.image);
  EXPECT_EQ(ReadFile(dir_.File("trace.log")),
            "lock mtd4 0x00000000 0x00001000 ok\nset-fis mtd4 0x11223344 0x55667788 ok\n"
            "set-fis mtd4 0x00000001 0x00000002 ENOENT\nset-fis mtd1 0x00000001 0x00000002 EINVAL\n"
            "write mtd4 0x00000000 1 EIO\nread mtd1 0x00003ff0 16 ok\n"
            "set-extent mtd1 0xffff1000 0x00006000 ok\noverlap mtd1 mtd0\noverlap mtd1 mtd2\n");
  EXPECT_EQ("0000000000000001", ReadFile(dir_.File("locks")));
}

// An independent model of the NOR chip for the randomized comparison.
struct ReferenceChip {
  std::vector<uint8_t> image;
  std::vector<bool> locked;
  std::map<int, std::pair<uint32_t, uint32_t>> extents;  // chip offset, size

  bool AnyLocked(uint64_t from, uint64_t to) const {  // chip offsets [from, to)
    for (uint64_t block = from / kNorEraseSize; block * kNorEraseSize < to; ++block) {
      if (locked[block]) return true;
    }
    return false;
  }
  long Write(int device, uint64_t offset, const std::vector<uint8_t>& data) {
    const auto [start, size] = extents.at(device);
    if (offset >= size) return -ENOSPC;
    const uint64_t count = std::min<uint64_t>(data.size(), size - offset);
    if (AnyLocked(start + offset, start + offset + count)) return -EIO;
    for (uint64_t i = 0; i < count; ++i) image[start + offset + i] &= data[i];
    return static_cast<long>(count);
  }
  int Erase(int device, uint32_t from, uint32_t length) {
    const auto [start, size] = extents.at(device);
    if (from % kNorEraseSize != 0 || length % kNorEraseSize != 0 || uint64_t{from} + length > size)
      return -EINVAL;
    if (AnyLocked(start + from, uint64_t{start} + from + length)) return -EIO;
    std::fill_n(image.begin() + start + from, length, 0xFF);
    return 0;
  }
  int SetLock(int device, uint32_t from, uint32_t length, bool lock) {
    const auto [start, size] = extents.at(device);
    if (uint64_t{from} + length > size) return -EINVAL;
    for (uint64_t at = from; at < uint64_t{from} + length; ++at) {
      locked[(start + at) / kNorEraseSize] = lock;
    }
    return 0;
  }
  int SetExtent(int device, uint32_t base, uint32_t size) {
    if (base < kNorBase || (base - kNorBase) % kNorEraseSize != 0 || size == 0 ||
        size % kNorEraseSize != 0 || uint64_t{base - kNorBase} + size > image.size()) {
      return -EINVAL;
    }
    extents[device] = {base - kNorBase, size};
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
  ReferenceChip model{initial_.image, std::vector<bool>(initial_.locked.size()), {}};
  for (const flashsim::PartitionLayout& partition : initial_.layout.partitions) {
    model.extents[partition.index] = {partition.base - kNorBase, partition.size};
  }
  std::mt19937 random(20240611);
  for (int step = 0; step < 4000; ++step) {
    const int device = static_cast<int>(RandomBelow(random, 5));
    const uint32_t size = model.extents.at(device).second;
    const uint32_t kind = RandomBelow(random, 100);
    SCOPED_TRACE(testing::Message() << "step " << step << " kind " << kind << " mtd" << device);
    if (kind < 40) {
      const uint64_t offset = RandomBelow(random, size + 0x200);
      std::vector<uint8_t> data(RandomBelow(random, 0x1800) + 1);
      for (uint8_t& byte : data) byte = static_cast<uint8_t>(random() | random());
      ASSERT_EQ(model.Write(device, offset, data),
                chip_.Write(device, offset, data.data(), data.size()));
    } else if (kind < 70) {
      const uint32_t start = RandomRangeValue(random, size);
      const uint32_t length = RandomRangeValue(random, size);
      ASSERT_EQ(model.Erase(device, start, length), chip_.Erase(device, start, length));
    } else if (kind < 90) {
      const bool lock = RandomBelow(random, 3) == 0;  // unlocked blocks stay the majority
      const uint32_t start = RandomRangeValue(random, size);
      const uint32_t length = RandomRangeValue(random, size / 2);
      ASSERT_EQ(model.SetLock(device, start, length, lock),
                lock ? chip_.Lock(device, start, length) : chip_.Unlock(device, start, length));
    } else {
      const uint32_t base = kNorBase + RandomRangeValue(random, sim_test::kNorChipSize);
      const uint32_t new_size = RandomRangeValue(random, 0x6000);
      ASSERT_EQ(model.SetExtent(device, base, new_size), chip_.SetExtent(device, base, new_size));
    }
    if (step % 500 == 499) ExpectImage(model.image);
  }
  const std::string trace = ReadFile(dir_.File("trace.log"));  // every kind of refusal met
  for (const char* refused : {" EIO\n", " EINVAL\n", " ENOSPC\n"}) {
    EXPECT_NE(trace.find(refused), std::string::npos) << refused;
  }
  std::string locks;
  for (bool locked : model.locked) locks += locked ? '1' : '0';
  EXPECT_EQ(locks, ReadFile(dir_.File("locks")));
}

}  // namespace
