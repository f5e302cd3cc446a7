#include "sim/flash_import.h"

#include <algorithm>

#include "sim/flash_check.h"
#include "sim/flash_chip.h"

namespace flashsim {

namespace {

constexpr char kFisDirectoryName[] = "FIS Directory";

const std::vector<std::string> kEightPartitions = {"RedBoot",        "zImage",         "rd.gz",
                                                   "AllLib.tgz",     "vendor",         "veltcfg",
                                                   "RedBoot Config", kFisDirectoryName};
const std::vector<std::string> kJuniorPartitions = {"RedBoot", "zImage",         "rd.gz",
                                                    "vendor",  "RedBoot Config", kFisDirectoryName};

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string NameList(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + Quoted(name);
  return list;
}

// The family whose partition names are exactly `names` (in any order), or
// null.
const std::vector<std::string>* FamilyOf(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  for (const std::vector<std::string>* family : {&kEightPartitions, &kJuniorPartitions}) {
    std::vector<std::string> sorted = *family;
    std::sort(sorted.begin(), sorted.end());
    if (sorted == names) return family;
  }
  return nullptr;
}

bool CheckGeometry(size_t dump_size, uint32_t chip_base, uint32_t erase_size,
                   std::vector<std::string>* problems) {
  if (erase_size == 0) {
    problems->push_back("the erase size must not be 0");
    return false;
  }
  if (dump_size == 0 || dump_size % erase_size != 0) {
    problems->push_back("the dump's " + std::to_string(dump_size) +
                        " bytes are not a whole number of erase blocks of " + Hex32(erase_size));
  }
  if (chip_base % erase_size != 0) {
    problems->push_back("the base " + Hex32(chip_base) + " is not aligned to an erase block of " +
                        Hex32(erase_size));
  }
  if (uint64_t{chip_base} + dump_size > uint64_t{1} << 32) {
    problems->push_back("the dump runs past the end of the address space");
  }
  return problems->empty();
}

// The records in the block at `offset`, when the block is the FIS directory:
// one of them is "FIS Directory" at the block's own address.
bool DirectoryInBlock(const std::vector<uint8_t>& dump, size_t offset, uint32_t chip_base,
                      uint32_t erase_size, std::vector<FisRecord>* records) {
  if (dump[offset] == 0xFF) return false;
  const std::vector<uint8_t> block(dump.begin() + offset, dump.begin() + offset + erase_size);
  bool terminated = false;
  *records = DecodeFisDirectory(block, &terminated);
  for (const FisRecord& record : *records) {
    if (record.name == kFisDirectoryName && record.flash_base == chip_base + offset) return true;
  }
  return false;
}

// The directory's records; false with a problem when there is not exactly
// one directory.
bool FindDirectory(const std::vector<uint8_t>& dump, uint32_t chip_base, uint32_t erase_size,
                   std::vector<FisRecord>* records, std::vector<std::string>* problems) {
  std::vector<std::string> found_at;
  for (size_t offset = 0; offset < dump.size(); offset += erase_size) {
    std::vector<FisRecord> candidate;
    if (!DirectoryInBlock(dump, offset, chip_base, erase_size, &candidate)) continue;
    found_at.push_back(Hex32(chip_base + static_cast<uint32_t>(offset)));
    *records = std::move(candidate);
  }
  if (found_at.empty()) {
    problems->push_back(
        "no FIS directory: no erase block holds a \"FIS Directory\" record that "
        "gives the block's own address");
  } else if (found_at.size() > 1) {
    std::string where;
    for (const std::string& address : found_at) where += " " + address;
    problems->push_back("more than one FIS directory, at" + where);
  }
  return found_at.size() == 1;
}

// The partition of one record; a problem when its extent does not fit the
// chip's erase blocks.
PartitionLayout PartitionOf(const FisRecord& record, int index, const ChipLayout& layout,
                            std::vector<std::string>* problems) {
  PartitionLayout partition;
  partition.index = index;
  partition.name = record.name;
  partition.base = record.flash_base;
  partition.size = record.size;
  partition.data_length = record.data_length;
  partition.has_data_length = true;
  partition.mem_base = record.mem_base;
  partition.entry_point = record.entry_point;
  const std::string what = "FIS record " + Quoted(record.name) + " at " + Hex32(record.flash_base) +
                           " size " + Hex32(record.size);
  if (record.flash_base < layout.chip_base ||
      uint64_t{record.flash_base} + record.size > uint64_t{layout.chip_base} + layout.chip_size) {
    problems->push_back(what + " lies outside the chip");
  } else if ((record.flash_base - layout.chip_base) % layout.erase_size != 0 ||
             record.size % layout.erase_size != 0) {
    problems->push_back(what + " is not aligned to erase blocks");
  }
  return partition;
}

bool ReadImage(const std::string& path, std::vector<uint8_t>* data,
               std::vector<std::string>* problems) {
  std::string error;
  if (ReadWholeFile(path, data, &error)) return true;
  problems->push_back(error);
  return false;
}

// The table's pairs; false with problems when a partition's numbers or
// image do not fit.
bool CheckMSysPartition(int index, uint32_t size, uint32_t data_length, size_t image_size,
                        std::vector<std::string>* problems) {
  const std::string what =
      "partition " + std::to_string(index) + " (" + Quoted(kEightPartitions[index]) + ")";
  const size_t before = problems->size();
  if (image_size != size) {
    problems->push_back(what + ": its image holds " + std::to_string(image_size) +
                        " bytes, the table says " + Hex32(size));
  }
  if (size % kMSysUnitSize != 0) {
    problems->push_back(what + ": size " + Hex32(size) + " is not a whole number of units");
  }
  if (data_length > size) {
    problems->push_back(what + ": data length " + Hex32(data_length) + " exceeds its size " +
                        Hex32(size));
  }
  return problems->size() == before;
}

}  // namespace

bool ImportNorDump(const std::vector<uint8_t>& dump, uint32_t chip_base, uint32_t erase_size,
                   ChipState* state, std::vector<std::string>* problems) {
  problems->clear();
  std::vector<FisRecord> records;
  if (!CheckGeometry(dump.size(), chip_base, erase_size, problems) ||
      !FindDirectory(dump, chip_base, erase_size, &records, problems)) {
    return false;
  }
  std::vector<std::string> names;
  for (const FisRecord& record : records) names.push_back(record.name);
  const std::vector<std::string>* family = FamilyOf(names);
  if (family == nullptr) {
    problems->push_back("the FIS directory lists " + NameList(names) +
                        ", which matches neither board family (" + NameList(kEightPartitions) +
                        "; or " + NameList(kJuniorPartitions) + ")");
    return false;
  }
  ChipState imported;
  ChipLayout& layout = imported.layout;
  layout.kind = ChipKind::kNor;
  layout.chip_base = chip_base;
  layout.chip_size = static_cast<uint32_t>(dump.size());
  layout.erase_size = erase_size;
  for (const FisRecord& record : records) {
    const int index =
        static_cast<int>(std::find(family->begin(), family->end(), record.name) - family->begin());
    layout.partitions.push_back(PartitionOf(record, index, layout, problems));
    if (record.name == kFisDirectoryName) layout.fis_device = index;
  }
  if (!problems->empty()) return false;
  std::sort(layout.partitions.begin(), layout.partitions.end(),
            [](const PartitionLayout& a, const PartitionLayout& b) { return a.index < b.index; });
  imported.image = dump;
  imported.locked.assign(layout.BlockCount(), 0);
  *problems = ConsistencyProblems(imported);
  if (!problems->empty()) return false;
  imported.dir = state->dir;
  *state = std::move(imported);
  return true;
}

bool ImportMSysImages(const std::string& dir, ChipState* state,
                      std::vector<std::string>* problems) {
  problems->clear();
  std::vector<uint8_t> table;
  if (!ReadImage(dir + "/table", &table, problems)) return false;
  if (table.size() != kMSysTableSize) {
    problems->push_back(dir + "/table holds " + std::to_string(table.size()) + " bytes, not " +
                        std::to_string(kMSysTableSize));
    return false;
  }
  ChipState imported;
  ChipLayout& layout = imported.layout;
  layout.kind = ChipKind::kMSys;
  layout.chip_size = kMSysUnits * kMSysUnitSize;
  layout.erase_size = kMSysUnitSize;
  imported.image.assign(layout.chip_size, 0xFF);
  uint64_t next = 0;
  for (int index = 0; index < kMSysPartitions; ++index) {
    const uint32_t size = ReadBigEndian32(table.data() + 8 * index);
    const uint32_t data_length = ReadBigEndian32(table.data() + 8 * index + 4);
    std::vector<uint8_t> image;
    const bool fits = ReadImage(dir + "/mtd" + std::to_string(index), &image, problems) &&
                      CheckMSysPartition(index, size, data_length, image.size(), problems);
    if (fits && next + size <= layout.chip_size) {
      std::copy(image.begin(), image.end(), imported.image.begin() + next);
    }
    PartitionLayout partition;
    partition.index = index;
    partition.name = kEightPartitions[index];
    partition.base = partition.mem_base =
        static_cast<uint32_t>(std::min<uint64_t>(next, UINT32_MAX));
    partition.size = size;
    partition.data_length = data_length;
    partition.has_data_length = true;
    layout.partitions.push_back(partition);
    next += size;
  }
  if (next > layout.chip_size) {
    problems->push_back("the partitions need " +
                        std::to_string((next + kMSysUnitSize - 1) / kMSysUnitSize) +
                        " units, the disk has " + std::to_string(kMSysUnits));
  }
  if (!problems->empty()) return false;
  imported.locked.assign(layout.BlockCount(), 0);
  *problems = ConsistencyProblems(imported);
  if (!problems->empty()) return false;
  imported.dir = state->dir;
  *state = std::move(imported);
  return true;
}

std::vector<uint8_t> MSysTable(const ChipLayout& layout) {
  std::vector<uint8_t> table(kMSysTableSize, 0);
  for (const PartitionLayout& partition : layout.partitions) {
    if (partition.index < 0 || partition.index >= kMSysPartitions) continue;
    WriteBigEndian32(partition.size, table.data() + 8 * partition.index);
    WriteBigEndian32(partition.data_length, table.data() + 8 * partition.index + 4);
  }
  return table;
}

}  // namespace flashsim
