// Small chips for the simulator tests, written as state directories.
#ifndef TESTS_SIM_SIM_TEST_CHIPS_H_
#define TESTS_SIM_SIM_TEST_CHIPS_H_

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/flash_chip.h"
#include "sim/flash_state.h"
#include "test_support.h"

namespace sim_test {

constexpr uint32_t kNorBase = 0xFFFF0000;
constexpr uint32_t kNorEraseSize = 0x1000;
constexpr uint32_t kNorChipSize = 0x10000;
constexpr int kFisDevice = 4;

inline flashsim::PartitionLayout Partition(int index, const std::string& name, uint32_t base,
                                           uint32_t size) {
  flashsim::PartitionLayout partition;
  partition.index = index;
  partition.name = name;
  partition.base = base;
  partition.size = size;
  partition.mem_base = base;
  return partition;
}

// 64 KiB of NOR flash at 0xFFFF0000 in 4 KiB blocks:
//   mtd0 RedBoot  +0x0000 8K, mtd1 zImage +0x2000 16K, mtd2 rd.gz +0x6000 16K,
//   mtd3 "RedBoot Config" +0xA000 4K, mtd4 "FIS Directory" +0xF000 4K.
// 0xB000..0xF000 belongs to nobody. Partition bytes are a position pattern;
// the directory holds one record per partition, then erased flash.
inline flashsim::ChipState NorChip(const std::string& dir) {
  flashsim::ChipState state;
  state.dir = dir;
  flashsim::ChipLayout& layout = state.layout;
  layout.kind = flashsim::ChipKind::kNor;
  layout.chip_base = kNorBase;
  layout.chip_size = kNorChipSize;
  layout.erase_size = kNorEraseSize;
  layout.fis_device = kFisDevice;
  const char* const names[] = {"RedBoot", "zImage", "rd.gz", "RedBoot Config", "FIS Directory"};
  const uint32_t offsets[] = {0x0000, 0x2000, 0x6000, 0xA000, 0xF000};
  const uint32_t sizes[] = {0x2000, 0x4000, 0x4000, 0x1000, 0x1000};
  state.image.assign(kNorChipSize, 0xFF);
  for (uint32_t i = 0; i < 0xB000; ++i) state.image[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
  uint32_t directory = 0xF000;
  for (size_t i = 0; i < 5; ++i) {
    layout.partitions.push_back(Partition(i, names[i], kNorBase + offsets[i], sizes[i]));
    const flashsim::PartitionLayout& partition = layout.partitions[i];
    flashsim::FisRecord record;
    record.name = partition.name;
    record.flash_base = partition.base;
    record.mem_base = partition.base;
    record.size = partition.size;
    record.data_length = partition.size / 2;
    record.entry_point = 0x100 + static_cast<uint32_t>(i);
    flashsim::EncodeFisRecord(record, &state.image[directory + i * flashsim::kFisRecordSize]);
  }
  state.locked.assign(kNorChipSize / kNorEraseSize, 0);
  return state;
}

// Deterministic image contents: xorshift32 bytes from `seed`.
inline std::string ImageBytes(uint32_t seed, size_t length) {
  std::string bytes(length, '\0');
  uint32_t x = seed == 0 ? 1 : seed;
  for (char& byte : bytes) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    byte = static_cast<char>(x >> 8);
  }
  return bytes;
}

// The chip a test expects, built from the chip before: partitions moved,
// grown, rewritten and locked as the code under test should have done it.
class ExpectedChip {
 public:
  explicit ExpectedChip(const flashsim::ChipState& before) : chip_(before) {}

  const flashsim::ChipState& chip() const { return chip_; }
  flashsim::PartitionLayout& Part(const std::string& name) {
    for (auto& partition : chip_.layout.partitions) {
      if (partition.name == name) return partition;
    }
    throw std::out_of_range("no partition " + name);
  }

  // The partition lies `shift` blocks further and is `grow` blocks bigger;
  // with `record` its FIS record says so too.
  ExpectedChip& Move(const std::string& name, int shift, int grow = 0, bool record = true) {
    flashsim::PartitionLayout& partition = Part(name);
    partition.base += shift * chip_.layout.erase_size;
    partition.size += grow * chip_.layout.erase_size;
    EditRecord(record ? name : "", [&](flashsim::FisRecord* fis) {
      fis->flash_base = partition.base;
      fis->size = partition.size;
    });
    return *this;
  }

  // The flash disk formatted: its partitions one after another, empty.
  ExpectedChip& Format() {
    std::fill(chip_.image.begin(), chip_.image.end(), 0xFF);
    uint32_t base = 0;
    for (flashsim::PartitionLayout& partition : chip_.layout.partitions) {
      partition.base = base;
      partition.data_length = 0;
      base += partition.size;
    }
    return *this;
  }

  // `data` programmed at the partition's start, after an erase of all of it
  // unless `erase` is false (the flash disk); with `record` its data length
  // (FIS record, disk table) follows: the data's, on the flash disk the
  // greater of old and new.
  ExpectedChip& Write(const std::string& name, const std::string& data, bool record = true,
                      bool erase = true) {
    flashsim::PartitionLayout& partition = Part(name);
    const auto at = chip_.image.begin() + (partition.base - chip_.layout.chip_base);
    if (erase) std::fill(at, at + partition.size, 0xFF);
    std::copy(data.begin(), data.end(), at);
    if (record) {
      partition.data_length =
          std::max<uint32_t>(erase ? 0 : partition.data_length, static_cast<uint32_t>(data.size()));
    }
    EditRecord(record ? name : "",
               [&](flashsim::FisRecord* fis) { fis->data_length = partition.data_length; });
    return *this;
  }

  ExpectedChip& Lock(const std::string& name, uint8_t value) {
    const flashsim::PartitionLayout& partition = Part(name);
    const uint32_t first = (partition.base - chip_.layout.chip_base) / chip_.layout.erase_size;
    std::fill_n(chip_.locked.begin() + first, partition.size / chip_.layout.erase_size, value);
    return *this;
  }

  // Extents (and the disk's data lengths), bytes (FIS records with them)
  // and lock bits.
  ::testing::AssertionResult Matches(const flashsim::ChipState& actual) const {
    std::ostringstream why;
    if (Summary(actual) != Summary(chip_)) {
      why << ::testing::PrintToString(Summary(actual)) << "\nexpected "
          << ::testing::PrintToString(Summary(chip_)) << "\n";
    }
    const auto differs = std::mismatch(actual.image.begin(), actual.image.end(),
                                       chip_.image.begin(), chip_.image.end());
    if (differs.first != actual.image.end() || differs.second != chip_.image.end()) {
      why << "bytes differ from 0x" << std::hex
          << chip_.layout.chip_base + (differs.first - actual.image.begin()) << "\n";
    }
    if (actual.locked != chip_.locked) why << "lock bits differ\n";
    if (why.str().empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << why.str();
  }

 private:
  static std::vector<std::string> Summary(const flashsim::ChipState& state) {
    std::vector<std::string> lines;
    const bool disk = state.layout.kind == flashsim::ChipKind::kMSys;
    char text[96];
    for (const flashsim::PartitionLayout& partition : state.layout.partitions) {
      snprintf(text, sizeof(text), "%s 0x%08X 0x%08X 0x%X", partition.name.c_str(), partition.base,
               partition.size, disk ? partition.data_length : 0);
      lines.push_back(text);
    }
    return lines;
  }

  // Edits the FIS record `name`, looking no further than the first erased one.
  template <typename Edit>
  void EditRecord(const std::string& name, Edit edit) {
    const flashsim::PartitionLayout* directory = chip_.layout.Find(chip_.layout.fis_device);
    if (chip_.layout.kind != flashsim::ChipKind::kNor || directory == nullptr) return;
    const size_t start = directory->base - chip_.layout.chip_base;
    for (size_t at = start; at + 256 <= start + directory->size && chip_.image[at] != 0xFF;
         at += 256) {
      flashsim::FisRecord record = flashsim::DecodeFisRecord(&chip_.image[at]);
      if (record.name != name) continue;
      edit(&record);
      flashsim::EncodeFisRecord(record, &chip_.image[at]);
    }
  }

  flashsim::ChipState chip_;
};

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::string text = testing_support::ReadFile(path);
  return std::vector<uint8_t>(text.begin(), text.end());
}

inline std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace sim_test

#endif  // TESTS_SIM_SIM_TEST_CHIPS_H_
