// What a chip left by an update (or by a power cut in the middle of one)
// holds, judged against the chip before the update ("old") and the chip a
// clean run of the same update leaves ("new"): all new, all old, or mixed,
// and, image by image, whether the boot loader would find a complete old or
// new image where it looks for it.
//
// The boot loader looks where the FIS directory's records point (NOR chips;
// the directory's own record is left out), or on an M-Systems flash disk at
// the partitions of the driver's table. An image is complete when the data
// length there (the whole extent when the data length is 0 or larger than the
// extent) covers the reference chip's image of the same name, and the bytes
// read equal that image followed by what followed it on the reference chip:
// a record whose data length is still the longer old one, or a partition
// restored whole, still gives the whole image.
#ifndef SIM_CHIP_OUTCOME_H_
#define SIM_CHIP_OUTCOME_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "sim/flash_state.h"

namespace campaign {

enum class Outcome { kAllNew, kAllOld, kMixed };

// "all new", "all old", "mixed".
const char* OutcomeName(Outcome outcome);

// kSame: the image is unchanged by the update and complete.
enum class ImageState { kOld, kNew, kSame, kTorn };

// "old", "new", "same", "torn".
const char* ImageStateName(ImageState state);

// One image as the boot loader finds it.
struct BootEntry {
  std::string name;
  uint32_t base = 0;  // absolute flash address
  uint32_t size = 0;
  uint32_t data_length = 0;
};

// The images of `chip` where the boot loader looks for them, in directory
// (or table) order. `terminated`: false when a FIS directory has no erased
// record after its last record.
std::vector<BootEntry> BootView(const flashsim::ChipState& chip, bool* terminated);

struct ImageVerdict {
  std::string name;
  ImageState state = ImageState::kTorn;
};

struct ChipVerdict {
  Outcome outcome = Outcome::kMixed;
  std::vector<ImageVerdict> images;  // the boot view of the chip, in order
  // Images that hold neither a complete old nor a complete new image, and
  // images of the old or new chip that the boot view no longer lists.
  std::vector<std::string> torn;
  // Pairs "A / B" of boot view entries whose extents overlap.
  std::vector<std::string> overlapping;
  bool terminated = true;
  // No torn image, no overlapping entries, a terminated directory.
  bool bootable = false;
};

// Judges `chip` against the chip before the update (`old_chip`) and after a
// clean run (`new_chip`). All three must have the same geometry.
ChipVerdict ClassifyChip(const flashsim::ChipState& old_chip, const flashsim::ChipState& new_chip,
                         const flashsim::ChipState& chip);

}  // namespace campaign

#endif  // SIM_CHIP_OUTCOME_H_
