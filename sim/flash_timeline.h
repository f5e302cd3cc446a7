// The flash operations of an update run (the simulator's trace.log) as a
// timeline of stages per partition: backup, erase, write, verify, FIS
// rewrite, ... Operations are numbered from 1 in trace order; "overlap" and
// "mark" lines are not operations.
#ifndef SIM_FLASH_TIMELINE_H_
#define SIM_FLASH_TIMELINE_H_

#include <stddef.h>

#include <string>
#include <vector>

#include "sim/flash_state.h"

namespace campaign {

struct TraceOp {
  std::string op;      // "read", "write", "erase", "set-fis", ...
  int device = -1;     // N of mtdN; -1 for "-"
  std::string result;  // "ok" or an errno name
};

// The operations of trace.log lines.
std::vector<TraceOp> ParseTrace(const std::vector<std::string>& lines);

// A run of consecutive operations of one kind on one partition. Kinds:
// "backup" (reads before the partition is first erased or written),
// "erase", "write", "verify" (reads after a write), "read" (other reads),
// "unlock", "lock", "resize" (set extent), "FIS rewrite" (set FIS entry, on
// the partition written last), "re-partition" (flash disk format and
// partition), "table" (flash disk table reads). An open or getinfo belongs
// to the stage of the operation after it.
struct Stage {
  std::string partition;  // the partition's name in `layout`, or "chip"
  std::string kind;
  size_t first = 0;  // operation numbers, from 1
  size_t last = 0;
};

// The stages of `ops`; device numbers are named from `layout` (the chip
// before the run).
std::vector<Stage> Stages(const std::vector<TraceOp>& ops, const flashsim::ChipLayout& layout);

// "zImage write" for a stage.
std::string StageName(const Stage& stage);

}  // namespace campaign

#endif  // SIM_FLASH_TIMELINE_H_
