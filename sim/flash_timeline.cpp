#include "sim/flash_timeline.h"

#include <stdlib.h>

#include <map>
#include <sstream>

namespace campaign {

namespace {

struct DeviceHistory {
  bool touched = false;  // erased or written
  bool written = false;  // written since the last erase
};

std::string PartitionName(int device, const flashsim::ChipLayout& layout) {
  if (device < 0) return "chip";
  const flashsim::PartitionLayout* partition = layout.Find(device);
  return partition != nullptr ? partition->name : "mtd" + std::to_string(device);
}

}  // namespace

std::vector<TraceOp> ParseTrace(const std::vector<std::string>& lines) {
  std::vector<TraceOp> ops;
  for (const std::string& line : lines) {
    std::istringstream words(line);
    TraceOp op;
    std::string device, word;
    if (!(words >> op.op >> device) || op.op == "overlap" || op.op == "mark") continue;
    if (device.compare(0, 3, "mtd") == 0) op.device = atoi(device.c_str() + 3);
    while (words >> word) op.result = word;
    ops.push_back(op);
  }
  return ops;
}

std::vector<Stage> Stages(const std::vector<TraceOp>& ops, const flashsim::ChipLayout& layout) {
  // Kind and device of each operation; opens and getinfos take those of the
  // operation after them.
  std::vector<std::string> kinds(ops.size());
  std::vector<int> devices(ops.size(), -1);
  std::map<int, DeviceHistory> history;
  int last_written = -1;
  for (size_t i = 0; i < ops.size(); ++i) {
    const TraceOp& op = ops[i];
    DeviceHistory& device = history[op.device];
    devices[i] = op.device;
    if (op.op == "open" || op.op == "getinfo") continue;
    if (op.op == "read") {
      kinds[i] = device.written ? "verify" : (device.touched ? "read" : "backup");
    } else if (op.op == "write") {
      kinds[i] = "write";
      device.touched = device.written = true;
      last_written = op.device;
    } else if (op.op == "erase") {
      kinds[i] = "erase";
      device.touched = true;
      device.written = false;
    } else if (op.op == "set-extent") {
      kinds[i] = "resize";
    } else if (op.op == "set-fis") {
      kinds[i] = "FIS rewrite";
      devices[i] = last_written >= 0 ? last_written : op.device;
    } else if (op.op == "format" || op.op == "partition") {
      kinds[i] = "re-partition";
      devices[i] = -1;
    } else if (op.op == "get-table") {
      kinds[i] = "table";
    } else {
      kinds[i] = op.op;
    }
  }
  std::string next_kind = "open";
  int next_device = -1;
  for (size_t i = ops.size(); i-- > 0;) {
    if (kinds[i].empty()) {
      kinds[i] = next_kind;
      devices[i] = next_device;
    }
    next_kind = kinds[i];
    next_device = devices[i];
  }
  std::vector<Stage> stages;
  for (size_t i = 0; i < ops.size(); ++i) {
    const std::string partition = PartitionName(devices[i], layout);
    if (!stages.empty() && stages.back().kind == kinds[i] && stages.back().partition == partition) {
      stages.back().last = i + 1;
      continue;
    }
    stages.push_back({partition, kinds[i], i + 1, i + 1});
  }
  return stages;
}

std::string StageName(const Stage& stage) { return stage.partition + " " + stage.kind; }

}  // namespace campaign
