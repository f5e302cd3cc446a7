#include "sim/chip_outcome.h"

#include <string.h>

#include <algorithm>

namespace campaign {

namespace {

using flashsim::ChipKind;
using flashsim::ChipState;
using flashsim::PartitionLayout;

const BootEntry* FindEntry(const std::vector<BootEntry>& view, const std::string& name) {
  for (const BootEntry& entry : view) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

uint32_t ImageLength(const BootEntry& entry) {
  return entry.data_length == 0 || entry.data_length > entry.size ? entry.size : entry.data_length;
}

// The image's bytes on `chip`, or null when they do not lie inside it.
const uint8_t* ImageBytes(const ChipState& chip, const BootEntry& entry) {
  const uint64_t start = uint64_t{entry.base} - chip.layout.chip_base;
  if (entry.base < chip.layout.chip_base || start + ImageLength(entry) > chip.image.size()) {
    return nullptr;
  }
  return chip.image.data() + start;
}

// Whether the boot loader, reading the entry's data length from its base,
// gets the whole `wanted` image, followed by what followed that image on the
// reference chip (a longer data length, as a partition restored whole or a
// record not yet shortened leaves, loads the image and the same padding).
bool HoldsImage(const ChipState& chip, const BootEntry& entry, const ChipState& reference,
                const BootEntry* wanted) {
  if (wanted == nullptr || ImageLength(entry) < ImageLength(*wanted)) return false;
  BootEntry reference_extent = *wanted;
  reference_extent.data_length = ImageLength(entry);
  reference_extent.size = std::max(wanted->size, ImageLength(entry));
  const uint8_t* found = ImageBytes(chip, entry);
  const uint8_t* expected = ImageBytes(reference, reference_extent);
  return found != nullptr && expected != nullptr &&
         memcmp(found, expected, ImageLength(entry)) == 0;
}

// The flash disk's table is part of what the chip holds; a NOR chip's
// partitioning is its FIS directory, which lies in chip.img.
bool SameChip(const ChipState& a, const ChipState& b) {
  if (a.image != b.image) return false;
  if (a.layout.kind == ChipKind::kNor) return true;
  if (a.layout.partitions.size() != b.layout.partitions.size()) return false;
  for (size_t i = 0; i < a.layout.partitions.size(); ++i) {
    const PartitionLayout& pa = a.layout.partitions[i];
    const PartitionLayout& pb = b.layout.partitions[i];
    if (pa.base != pb.base || pa.size != pb.size || pa.data_length != pb.data_length) return false;
  }
  return true;
}

void AddOnce(std::vector<std::string>* names, const std::string& name) {
  for (const std::string& known : *names) {
    if (known == name) return;
  }
  names->push_back(name);
}

}  // namespace

const char* OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kAllNew:
      return "all new";
    case Outcome::kAllOld:
      return "all old";
    case Outcome::kMixed:
      break;
  }
  return "mixed";
}

const char* ImageStateName(ImageState state) {
  switch (state) {
    case ImageState::kOld:
      return "old";
    case ImageState::kNew:
      return "new";
    case ImageState::kSame:
      return "same";
    case ImageState::kTorn:
      break;
  }
  return "torn";
}

std::vector<BootEntry> BootView(const ChipState& chip, bool* terminated) {
  std::vector<BootEntry> view;
  *terminated = true;
  const flashsim::ChipLayout& layout = chip.layout;
  if (layout.kind == ChipKind::kMSys) {
    for (const PartitionLayout& partition : layout.partitions) {
      view.push_back({partition.name, partition.base, partition.size, partition.data_length});
    }
    return view;
  }
  const PartitionLayout* directory = layout.Find(layout.fis_device);
  if (directory == nullptr) return view;
  const size_t offset = directory->base - layout.chip_base;
  const std::vector<uint8_t> bytes(chip.image.begin() + offset,
                                   chip.image.begin() + offset + directory->size);
  for (const flashsim::FisRecord& record : flashsim::DecodeFisDirectory(bytes, terminated)) {
    if (record.name == directory->name) continue;
    view.push_back({record.name, record.flash_base, record.size, record.data_length});
  }
  return view;
}

ChipVerdict ClassifyChip(const ChipState& old_chip, const ChipState& new_chip,
                         const ChipState& chip) {
  ChipVerdict verdict;
  if (SameChip(chip, new_chip)) {
    verdict.outcome = Outcome::kAllNew;
  } else if (SameChip(chip, old_chip)) {
    verdict.outcome = Outcome::kAllOld;
  }
  bool ignored;
  const std::vector<BootEntry> old_view = BootView(old_chip, &ignored);
  const std::vector<BootEntry> new_view = BootView(new_chip, &ignored);
  const std::vector<BootEntry> view = BootView(chip, &verdict.terminated);
  for (const BootEntry& entry : view) {
    const bool old_image = HoldsImage(chip, entry, old_chip, FindEntry(old_view, entry.name));
    const bool new_image = HoldsImage(chip, entry, new_chip, FindEntry(new_view, entry.name));
    ImageState state = ImageState::kTorn;
    if (old_image && new_image) {
      state = ImageState::kSame;
    } else if (old_image) {
      state = ImageState::kOld;
    } else if (new_image) {
      state = ImageState::kNew;
    }
    verdict.images.push_back({entry.name, state});
    if (state == ImageState::kTorn) AddOnce(&verdict.torn, entry.name);
  }
  for (const std::vector<BootEntry>* reference : {&old_view, &new_view}) {
    for (const BootEntry& entry : *reference) {
      if (FindEntry(view, entry.name) == nullptr) AddOnce(&verdict.torn, entry.name);
    }
  }
  for (size_t i = 0; i < view.size(); ++i) {
    for (size_t j = i + 1; j < view.size(); ++j) {
      const uint64_t i_end = uint64_t{view[i].base} + view[i].size;
      const uint64_t j_end = uint64_t{view[j].base} + view[j].size;
      if (view[i].size != 0 && view[j].size != 0 && view[i].base < j_end && view[j].base < i_end) {
        verdict.overlapping.push_back(view[i].name + " / " + view[j].name);
      }
    }
  }
  verdict.bootable = verdict.torn.empty() && verdict.overlapping.empty() && verdict.terminated;
  return verdict;
}

}  // namespace campaign
