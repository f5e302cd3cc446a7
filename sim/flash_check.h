// The consistency of a simulated chip's state: what `filebay-flash check`
// reports, and what `filebay-flash import` refuses to make a state of.
#ifndef SIM_FLASH_CHECK_H_
#define SIM_FLASH_CHECK_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "sim/flash_state.h"

namespace flashsim {

// "mtdINDEX \"NAME\"", as problems and differences name a partition.
std::string DeviceName(const PartitionLayout& partition);

// The chip bytes of a partition's current extent (which must lie inside the
// chip, as a loaded layout's do).
std::vector<uint8_t> PartitionBytes(const ChipState& state, const PartitionLayout& partition);

// The FIS directory partition of a nor chip; null with a message for an msys
// chip or a layout that names none.
const PartitionLayout* FisDirectoryPartition(const ChipState& state, std::string* error);

// One line per problem, empty when the state is consistent. nor: the FIS
// directory ends at an erased record, its records have distinct names, each
// names a partition and agrees with its extent, and every partition that
// belongs in the directory has a record. msys: the partitions lie one after
// another from the chip's start. Both: no two partitions overlap.
std::vector<std::string> ConsistencyProblems(const ChipState& state);

}  // namespace flashsim

#endif  // SIM_FLASH_CHECK_H_
