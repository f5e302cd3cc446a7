// A simulated chip from what can be read off a real board: the raw dump of a
// board's NOR flash, or the partition images and table of an M-Systems flash
// disk. Both give a state in memory (see sim/flash_state.h) for
// `filebay-flash import` and `import-msys` to save, or the reasons it cannot
// be one.
//
// The partition order is the board family's, found by the names the board
// lists: eight partitions ("RedBoot", "zImage", "rd.gz", "AllLib.tgz",
// "vendor", "veltcfg", "RedBoot Config", "FIS Directory", mtd0 to mtd7) or
// the junior six ("RedBoot", "zImage", "rd.gz", "vendor", "RedBoot Config",
// "FIS Directory").
#ifndef SIM_FLASH_IMPORT_H_
#define SIM_FLASH_IMPORT_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "sim/flash_state.h"

namespace flashsim {

// The driver's partition table of an M-Systems flash disk as a file: 8 pairs
// of big-endian u32 {size, data length} in partition order, as the board's
// get-table request answers.
constexpr size_t kMSysTableSize = 64;

// A NOR chip whose every byte is `dump` and whose first byte is at
// `chip_base`. The layout comes from the FIS directory found in the dump:
// the erase block that holds a "FIS Directory" record giving that block's own
// address. Each record becomes the partition of its name (extent, data
// length, memory address and entry point as recorded); all blocks unlocked.
// False, with one line per problem, when the dump is not a whole number of
// `erase_size` blocks, `chip_base` is not aligned to one, no directory (or
// more than one) is found, its names match neither board family, a record's
// extent is not block-aligned or lies outside the chip, or the state would
// not pass ConsistencyProblems (sim/flash_check.h).
bool ImportNorDump(const std::vector<uint8_t>& dump, uint32_t chip_base, uint32_t erase_size,
                   ChipState* state, std::vector<std::string>* problems);

// An M-Systems flash disk from the files "mtd0" to "mtd7" (each partition's
// whole size) and "table" (kMSysTableSize bytes) in `dir`: the partitions
// named in the eight-partition order, one after another from the disk's
// start, sizes and data lengths from the table, the rest of the disk erased.
// False, with one line per problem, when a file cannot be read, the table
// has the wrong size, an image's size differs from its table size, a size is
// not a whole number of units, a data length exceeds its size, or the
// partitions need more units than the disk has.
bool ImportMSysImages(const std::string& dir, ChipState* state, std::vector<std::string>* problems);

// The driver's partition table of an msys chip, as ImportMSysImages reads it.
std::vector<uint8_t> MSysTable(const ChipLayout& layout);

}  // namespace flashsim

#endif  // SIM_FLASH_IMPORT_H_
