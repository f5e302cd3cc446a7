#include "sim/campaign.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <set>

#include "sim/flash_chip.h"
#include "sim/sandbox_host.h"

namespace campaign {

namespace {

using sandbox::internal::FileLines;
using sandbox::internal::ReadWholeFile;
using sandbox::internal::RunHostProgram;
using sandbox::internal::SplitLines;
using sandbox::internal::WriteFileMode;

constexpr flashsim::Op kAllOps[] = {
    flashsim::Op::kOpen,      flashsim::Op::kRead,      flashsim::Op::kWrite,
    flashsim::Op::kErase,     flashsim::Op::kLock,      flashsim::Op::kUnlock,
    flashsim::Op::kSetExtent, flashsim::Op::kSetFis,    flashsim::Op::kGetTable,
    flashsim::Op::kFormat,    flashsim::Op::kPartition, flashsim::Op::kGetInfo,
};

// Whether the clean run makes request `op` on `device`; format and partition
// concern the whole chip, whatever device they are made on.
bool Reaches(const std::vector<TraceOp>& ops, const std::string& op, int device) {
  const bool whole_chip = op == "format" || op == "partition";
  for (const TraceOp& done : ops) {
    if (done.op == op && (whole_chip || done.device == device)) return true;
  }
  return false;
}

Trial FaultTrial(const std::string& fault, int device, const std::string& line, bool reached) {
  Trial trial;
  trial.label = fault + " mtd" + std::to_string(device);
  trial.fault = fault;
  trial.device = device;
  trial.fault_lines = {line};
  trial.reached = reached;
  return trial;
}

// Operation numbers (from 1) of the run's events: erases, resizes, FIS entry
// updates, re-partitioning, and each device's first and last write.
std::vector<size_t> EventOperations(const std::vector<TraceOp>& ops) {
  std::vector<size_t> events;
  std::map<int, std::pair<size_t, size_t>> writes;  // device -> first, last
  for (size_t i = 0; i < ops.size(); ++i) {
    const std::string& op = ops[i].op;
    if (op == "erase" || op == "set-extent" || op == "set-fis" || op == "format" ||
        op == "partition") {
      events.push_back(i + 1);
    } else if (op == "write") {
      auto found = writes.find(ops[i].device);
      if (found == writes.end()) {
        writes[ops[i].device] = {i + 1, i + 1};
      } else {
        found->second.second = i + 1;
      }
    }
  }
  for (const auto& [device, range] : writes) {
    events.push_back(range.first);
    events.push_back(range.second);
  }
  return events;
}

// ---------------------------------------------------------------- running

int ProcessorCount() {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? static_cast<int>(count) : 1;
}

double LoadAverage() {
  double load = 0;
  return getloadavg(&load, 1) == 1 ? load : 0;
}

// `filebay-flash check`'s problem lines; empty when the chip is consistent.
std::vector<std::string> CheckChip(const sandbox::Tools& tools, const std::string& state_dir) {
  std::string output;
  const int status = RunHostProgram({tools.flash_tool, "check", state_dir}, &output);
  if (status == 0) return {};
  std::vector<std::string> problems = SplitLines(output);
  if (status != 1 || problems.empty()) {
    problems.push_back("filebay-flash check ended with status " + std::to_string(status));
  }
  return problems;
}

// Runs in a child process: the trial in a copy of the template; the status
// goes to `status_file` as "status N" or "error TEXT".
[[noreturn]] void RunTrialChild(const sandbox::Sandbox& templ, const Setup& setup,
                                const Trial& trial, const std::string& run_dir,
                                const std::string& status_file) {
  std::string error;
  std::string report;
  std::unique_ptr<sandbox::Sandbox> box = templ.Clone(run_dir, &error);
  if (box == nullptr) {
    report = "error " + error;
  } else {
    box->Keep();
    std::string plan;
    ReadWholeFile(box->FlashStateDir() + "/faults", &plan);
    for (const std::string& line : trial.fault_lines) plan += line + "\n";
    sandbox::RunOptions options;
    options.timeout_seconds = setup.timeout_seconds;
    if (!WriteFileMode(box->FlashStateDir() + "/faults", plan, 0644, &error)) {
      report = "error " + error;
    } else {
      const sandbox::RunResult result = box->Run(setup.argv, options);
      report = result.ok ? "status " + std::to_string(result.status) : "error " + result.error;
    }
  }
  WriteFileMode(status_file, report + "\n", 0644, &error);
  _exit(0);
}

void JudgeTrial(const Setup& setup, const Baseline& baseline, const std::string& run_dir,
                const std::string& status_file, Trial* trial) {
  std::string report;
  ReadWholeFile(status_file, &report);
  unlink(status_file.c_str());
  if (report.compare(0, 7, "status ") != 0) {
    trial->error = report.empty() ? "the trial reported nothing" : report.substr(6);
    return;
  }
  trial->status = atoi(report.c_str() + 7);
  const std::string state_dir = run_dir + "/flash";
  trial->operations = ParseTrace(FileLines(state_dir + "/trace.log")).size();
  flashsim::ChipState chip;
  if (!flashsim::LoadState(state_dir, &chip, &trial->error)) return;
  trial->verdict = ClassifyChip(baseline.old_chip, baseline.new_chip, chip);
  trial->check_problems = CheckChip(setup.tools, state_dir);
}

}  // namespace

std::vector<Trial> FaultTrials(const Baseline& baseline) {
  std::vector<Trial> trials;
  const std::vector<flashsim::PartitionLayout>& partitions = baseline.old_chip.layout.partitions;
  for (const flashsim::Op op : kAllOps) {
    const std::string name = flashsim::OpName(op);
    for (const char* const how : {"once", "always"}) {
      for (const flashsim::PartitionLayout& partition : partitions) {
        const std::string device = "mtd" + std::to_string(partition.index);
        const std::string when = std::string(how) == "once" ? "nth=1" : "every";
        trials.push_back(FaultTrial(name + " " + how, partition.index,
                                    "fault " + name + " " + device + " " + when + " errno=EIO",
                                    Reaches(baseline.ops, name, partition.index)));
      }
    }
  }
  for (const flashsim::PartitionLayout& partition : partitions) {
    const std::string device = "mtd" + std::to_string(partition.index);
    trials.push_back(FaultTrial("corrupt next write", partition.index,
                                "fault corrupt-next-write " + device,
                                Reaches(baseline.ops, "write", partition.index)));
  }
  for (const flashsim::PartitionLayout& partition : partitions) {
    if (!Reaches(baseline.ops, "erase", partition.index) &&
        !Reaches(baseline.ops, "write", partition.index)) {
      continue;
    }
    trials.push_back(FaultTrial("worn first block", partition.index,
                                "fault worn-block mtd" + std::to_string(partition.index) + " 0",
                                true));
  }
  return trials;
}

std::vector<Trial> PowerCutTrials(const Baseline& baseline, size_t points) {
  const size_t total = baseline.ops.size();
  std::set<size_t> cuts;
  for (size_t i = 0; i < points && total > 0; ++i) cuts.insert(i * total / points);
  for (const size_t event : EventOperations(baseline.ops)) {
    for (const size_t cut : {event - 1, event, event + 1}) {
      if (cut < total) cuts.insert(cut);
    }
  }
  std::vector<Trial> trials;
  for (const size_t cut : cuts) {
    Trial trial;
    trial.label = "power cut after " + std::to_string(cut);
    trial.cut = cut;
    trial.fault_lines = {"fault power-cut after=" + std::to_string(cut)};
    trials.push_back(trial);
  }
  return trials;
}

std::vector<Window> UnbootableWindows(const std::vector<Trial>& trials) {
  std::vector<const Trial*> ordered;
  for (const Trial& trial : trials) ordered.push_back(&trial);
  std::sort(ordered.begin(), ordered.end(),
            [](const Trial* a, const Trial* b) { return a->cut < b->cut; });
  std::vector<Window> windows;
  bool open = false;
  for (const Trial* trial : ordered) {
    const bool unbootable = trial->error.empty() && !trial->verdict.bootable;
    if (unbootable && open) {
      windows.back().last = trial->cut;
    } else if (unbootable) {
      windows.push_back({trial->cut, trial->cut});
    }
    open = unbootable;
  }
  return windows;
}

size_t WindowOperations(const std::vector<Window>& windows) {
  size_t count = 0;
  for (const Window& window : windows) count += window.last - window.first + 1;
  return count;
}

std::vector<std::pair<std::string, size_t>> WindowByStage(const std::vector<Window>& windows,
                                                          const std::vector<Stage>& stages) {
  std::vector<std::pair<std::string, size_t>> counts;
  for (const Stage& stage : stages) {
    size_t inside = 0;
    for (const Window& window : windows) {
      const size_t first = std::max(window.first, stage.first);
      const size_t last = std::min(window.last, stage.last);
      if (first <= last) inside += last - first + 1;
    }
    if (inside > 0) counts.emplace_back(StageName(stage), inside);
  }
  return counts;
}

Tally CountOutcomes(const std::vector<Trial>& trials) {
  Tally tally;
  for (const Trial& trial : trials) {
    if (!trial.error.empty()) {
      ++tally.failed;
      continue;
    }
    if (!trial.reached) ++tally.not_reached;
    if (!trial.verdict.bootable) ++tally.unbootable;
    switch (trial.verdict.outcome) {
      case Outcome::kAllNew:
        ++tally.all_new;
        break;
      case Outcome::kAllOld:
        ++tally.all_old;
        break;
      case Outcome::kMixed:
        ++tally.mixed;
        break;
    }
  }
  return tally;
}

std::unique_ptr<sandbox::Sandbox> PrepareCampaign(const Setup& setup, Result* result,
                                                  std::string* error) {
  if (!sandbox::internal::MakeDirs(setup.dir + "/runs", 0755, error)) return nullptr;
  std::unique_ptr<sandbox::Sandbox> templ =
      sandbox::Sandbox::Create(setup.dir + "/template", setup.scenario, setup.tools, error);
  if (templ == nullptr) return nullptr;
  templ->Keep();
  std::unique_ptr<sandbox::Sandbox> clean = templ->Clone(setup.dir + "/clean", error);
  if (clean == nullptr) return nullptr;
  clean->Keep();
  sandbox::RunOptions options;
  options.timeout_seconds = setup.timeout_seconds;
  const sandbox::RunResult run = clean->Run(setup.argv, options);
  if (!run.ok) {
    *error = "the clean run failed: " + run.error;
    return nullptr;
  }
  result->clean_status = run.status;
  if (run.status != 0) {
    *error = "the clean run ended with result " + std::to_string(run.status) + " (see " +
             clean->dir() + ")";
    return nullptr;
  }
  Baseline& baseline = result->baseline;
  if (!flashsim::LoadState(templ->FlashStateDir(), &baseline.old_chip, error) ||
      !flashsim::LoadState(clean->FlashStateDir(), &baseline.new_chip, error)) {
    return nullptr;
  }
  baseline.ops = ParseTrace(clean->FlashTrace());
  baseline.stages = Stages(baseline.ops, baseline.old_chip.layout);
  return templ;
}

void RunTrials(const Setup& setup, const sandbox::Sandbox& templ,
               const std::function<void(size_t, size_t)>& progress, Result* result) {
  const int jobs = result->jobs = setup.jobs > 0 ? setup.jobs : ProcessorCount();
  // What a trial that cannot change the run gives: the clean run's chip.
  const ChipVerdict clean =
      ClassifyChip(result->baseline.old_chip, result->baseline.new_chip, result->baseline.new_chip);
  const std::vector<std::string> clean_problems =
      CheckChip(setup.tools, setup.dir + "/clean/flash");
  for (Trial& trial : result->trials) {
    if (trial.reached) continue;
    trial.status = result->clean_status;
    trial.operations = result->baseline.ops.size();
    trial.verdict = clean;
    trial.check_problems = clean_problems;
  }
  std::vector<size_t> pending;
  for (size_t i = 0; i < result->trials.size(); ++i) {
    if (result->trials[i].reached) pending.push_back(i);
  }
  const size_t total = result->trials.size();
  size_t done = total - pending.size();
  progress(done, total);
  std::map<pid_t, size_t> running;
  size_t next = 0;
  const auto run_dir = [&setup](size_t i) { return setup.dir + "/runs/" + std::to_string(i); };
  while (next < pending.size() || !running.empty()) {
    while (next < pending.size() && running.size() < static_cast<size_t>(jobs)) {
      const size_t i = pending[next++];
      const pid_t pid = fork();
      if (pid == 0) {
        RunTrialChild(templ, setup, result->trials[i], run_dir(i), run_dir(i) + ".status");
      }
      if (pid < 0) {
        result->trials[i].error = "cannot fork: " + std::string(strerror(errno));
        progress(++done, total);
        continue;
      }
      running[pid] = i;
    }
    if (running.empty()) continue;
    int status = 0;
    const pid_t pid = waitpid(-1, &status, 0);
    if (pid < 0) {
      if (errno == EINTR) continue;
      break;
    }
    const auto found = running.find(pid);
    if (found == running.end()) continue;
    const size_t i = found->second;
    running.erase(found);
    JudgeTrial(setup, result->baseline, run_dir(i), run_dir(i) + ".status", &result->trials[i]);
    std::string ignored;
    sandbox::DestroyDir(run_dir(i), &ignored);
    progress(++done, total);
  }
}

bool RunCampaign(const Setup& setup, const std::function<void(size_t, size_t)>& progress,
                 Result* result, std::string* error) {
  const auto start = std::chrono::steady_clock::now();
  result->load_before = LoadAverage();
  const std::unique_ptr<sandbox::Sandbox> templ = PrepareCampaign(setup, result, error);
  if (templ == nullptr) return false;
  result->trials = setup.kind == Kind::kFaults ? FaultTrials(result->baseline)
                                               : PowerCutTrials(result->baseline, setup.points);
  RunTrials(setup, *templ, progress, result);
  result->load_after = LoadAverage();
  result->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return true;
}

}  // namespace campaign
