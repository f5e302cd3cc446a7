// Rehearsal campaigns: the same update rehearsed many times, each time with
// one thing going wrong, and every outcome judged against the chip before
// the update and the chip a clean run leaves (see chip_outcome.h).
//
// - The fault campaign injects one fault per trial: every operation kind the
//   flash simulator can fail, on every device, once (the first such
//   operation fails) and always; a corrupted next write on every device; a
//   worn block at the start of each partition the clean run rewrites.
// - The power-cut campaign cuts the power after N operations, for N spread
//   evenly over the clean run's operations plus the operations just before,
//   at and after every erase, resize, FIS entry update, re-partitioning and
//   each partition's first and last write.
//
// The sandbox (board, root, package) is built once in DIR/template and the
// clean run made once in a copy of it, DIR/clean; every trial runs in its own
// copy DIR/runs/N, removed once judged. A fault that the clean run never
// meets (no such operation on that device) cannot change the run: such a
// trial is not run and counts as the clean run's outcome, marked not reached.
#ifndef SIM_CAMPAIGN_H_
#define SIM_CAMPAIGN_H_

#include <stddef.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/chip_outcome.h"
#include "sim/flash_state.h"
#include "sim/flash_timeline.h"
#include "sim/sandbox.h"

namespace campaign {

enum class Kind { kFaults, kPowerCut };

// One trial of a campaign: one injected fault, or one power cut.
struct Trial {
  std::string label;                     // "write mtd2 once", "power cut after 573"
  std::vector<std::string> fault_lines;  // added to the scenario's fault plan
  std::string fault;                     // fault matrix row: "write once", "worn block", ...
  int device = -1;                       // fault matrix column: N of mtdN
  size_t cut = 0;                        // power cut: operations done before it
  bool reached = true;                   // false: not run, the clean run's outcome
  // What the trial gave.
  std::string error;      // the trial could not be run or judged
  int status = -1;        // the updater's exit status
  size_t operations = 0;  // flash operations the run made, failed ones included
  ChipVerdict verdict;
  std::vector<std::string> check_problems;  // `filebay-flash check`; empty: consistent
};

// The chip before the update, the chip after a clean run and the clean run's
// operations.
struct Baseline {
  flashsim::ChipState old_chip;
  flashsim::ChipState new_chip;
  std::vector<TraceOp> ops;
  std::vector<Stage> stages;
};

std::vector<Trial> FaultTrials(const Baseline& baseline);
// `points` cuts spread evenly over the run, plus those around its events;
// ordered by cut.
std::vector<Trial> PowerCutTrials(const Baseline& baseline, size_t points);

// Operations (cut after `first` .. cut after `last`) over which consecutive
// trials, ordered by cut, left a chip that would not boot.
struct Window {
  size_t first = 0;
  size_t last = 0;
};
std::vector<Window> UnbootableWindows(const std::vector<Trial>& trials);
// Operations inside the windows, in all and per stage (the stage of the last
// operation done before the cut), in stage order.
size_t WindowOperations(const std::vector<Window>& windows);
std::vector<std::pair<std::string, size_t>> WindowByStage(const std::vector<Window>& windows,
                                                          const std::vector<Stage>& stages);

struct Setup {
  Kind kind = Kind::kFaults;
  std::string title;  // what is rehearsed: "board nor8 (the plan must rebalance)"
  sandbox::Scenario scenario;
  sandbox::Tools tools;
  std::vector<std::string> argv;  // the updater's command in the root
  std::string dir;                // the campaign's directory (created)
  size_t points = 100;            // power cut: evenly spread cuts
  int jobs = 0;                   // trials at once; 0: one per core
  int timeout_seconds = 300;      // per run
};

struct Result {
  Baseline baseline;
  int clean_status = -1;
  std::vector<Trial> trials;
  int jobs = 0;
  double seconds = 0;      // the whole campaign, preparation included
  double load_before = 0;  // one-minute load averages
  double load_after = 0;
};

// Builds the sandbox DIR/template, makes the clean run in DIR/clean and
// fills `result->baseline` and `clean_status`; returns the template, or null
// with a message when the sandbox cannot be built or the clean run fails.
std::unique_ptr<sandbox::Sandbox> PrepareCampaign(const Setup& setup, Result* result,
                                                  std::string* error);
// Runs `result->trials` in copies of `templ`, `setup.jobs` at a time, and
// judges them; trials not reached get the clean run's outcome.
void RunTrials(const Setup& setup, const sandbox::Sandbox& templ,
               const std::function<void(size_t, size_t)>& progress, Result* result);

// Prepares the baseline and runs every trial, `setup.jobs` at a time;
// `progress(done, total)` is called as trials finish. False with a message
// when the sandbox cannot be built or the clean run fails.
bool RunCampaign(const Setup& setup, const std::function<void(size_t, size_t)>& progress,
                 Result* result, std::string* error);

// Counts of trials by outcome.
struct Tally {
  size_t all_new = 0, all_old = 0, mixed = 0, unbootable = 0, not_reached = 0, failed = 0;
};
Tally CountOutcomes(const std::vector<Trial>& trials);

}  // namespace campaign

#endif  // SIM_CAMPAIGN_H_
