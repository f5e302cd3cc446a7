#include "sim/flash_check.h"

namespace flashsim {

namespace {

const PartitionLayout* FindByName(const ChipLayout& layout, const std::string& name) {
  for (const PartitionLayout& partition : layout.partitions) {
    if (partition.name == name) return &partition;
  }
  return nullptr;
}

std::string Extent(uint32_t base, uint32_t size) { return Hex32(base) + " size " + Hex32(size); }

void CheckFisDirectory(const ChipState& state, std::vector<std::string>* problems) {
  std::string error;
  const PartitionLayout* directory = FisDirectoryPartition(state, &error);
  if (directory == nullptr) {
    problems->push_back(error);
    return;
  }
  bool terminated = false;
  const std::vector<FisRecord> records =
      DecodeFisDirectory(PartitionBytes(state, *directory), &terminated);
  if (!terminated) {
    problems->push_back("the FIS directory in " + DeviceName(*directory) +
                        " has no erased end record");
  }
  for (size_t i = 0; i < records.size(); ++i) {
    const FisRecord& record = records[i];
    const std::string what = "FIS record " + std::to_string(i) + " \"" + record.name + "\"";
    for (size_t j = 0; j < i; ++j) {
      if (records[j].name == record.name) {
        problems->push_back(what + " repeats the name of record " + std::to_string(j));
      }
    }
    const PartitionLayout* partition = FindByName(state.layout, record.name);
    if (partition == nullptr) {
      problems->push_back(what + " names no partition");
    } else if (record.flash_base != partition->base || record.size != partition->size) {
      problems->push_back(what + " says " + Extent(record.flash_base, record.size) + " but " +
                          DeviceName(*partition) + " lies at " +
                          Extent(partition->base, partition->size));
    }
  }
  for (const PartitionLayout& partition : state.layout.partitions) {
    if (!partition.in_fis) continue;
    bool listed = false;
    for (const FisRecord& record : records) listed = listed || record.name == partition.name;
    if (!listed) problems->push_back(DeviceName(partition) + " has no FIS record");
  }
}

void CheckOverlaps(const ChipLayout& layout, std::vector<std::string>* problems) {
  const std::vector<PartitionLayout>& partitions = layout.partitions;
  for (size_t i = 0; i < partitions.size(); ++i) {
    for (size_t j = i + 1; j < partitions.size(); ++j) {
      const PartitionLayout& a = partitions[i];
      const PartitionLayout& b = partitions[j];
      const uint64_t a_end = uint64_t{a.base} + a.size;
      const uint64_t b_end = uint64_t{b.base} + b.size;
      if (a.size != 0 && b.size != 0 && a.base < b_end && b.base < a_end) {
        problems->push_back(DeviceName(a) + " at " + Extent(a.base, a.size) + " overlaps " +
                            DeviceName(b) + " at " + Extent(b.base, b.size));
      }
    }
  }
}

// M-Systems partitions are addressed by position and lie one after another.
void CheckMSysOrder(const ChipLayout& layout, std::vector<std::string>* problems) {
  uint64_t expected = layout.chip_base;
  for (const PartitionLayout& partition : layout.partitions) {
    if (partition.base != expected) {
      problems->push_back(DeviceName(partition) + " begins at " + Hex32(partition.base) +
                          ", not where the partition before it ends (" +
                          Hex32(static_cast<uint32_t>(expected)) + ")");
    }
    expected = uint64_t{partition.base} + partition.size;
  }
}

}  // namespace

std::string DeviceName(const PartitionLayout& partition) {
  return "mtd" + std::to_string(partition.index) + " \"" + partition.name + "\"";
}

std::vector<uint8_t> PartitionBytes(const ChipState& state, const PartitionLayout& partition) {
  const size_t offset = partition.base - state.layout.chip_base;
  return std::vector<uint8_t>(state.image.begin() + offset,
                              state.image.begin() + offset + partition.size);
}

const PartitionLayout* FisDirectoryPartition(const ChipState& state, std::string* error) {
  if (state.layout.kind != ChipKind::kNor) {
    *error = state.dir + ": an msys chip has no FIS directory";
    return nullptr;
  }
  const PartitionLayout* directory = state.layout.Find(state.layout.fis_device);
  if (directory == nullptr) *error = state.dir + ": the layout names no FIS directory partition";
  return directory;
}

std::vector<std::string> ConsistencyProblems(const ChipState& state) {
  std::vector<std::string> problems;
  if (state.layout.kind == ChipKind::kNor) {
    CheckFisDirectory(state, &problems);
  } else {
    CheckMSysOrder(state.layout, &problems);
  }
  CheckOverlaps(state.layout, &problems);
  return problems;
}

}  // namespace flashsim
