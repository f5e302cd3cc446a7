#include "sim/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "sim/sandbox_host.h"
#include "sim/sandbox_namespaces.h"
#include "sim/sandbox_root.h"
#include "sim/sandbox_run.h"

namespace sandbox {

using internal::BuildRoot;
using internal::CreateFlash;
using internal::Dirname;
using internal::ErrnoText;
using internal::FileLines;
using internal::FileSize;
using internal::FindBusybox;
using internal::FormatConf;
using internal::IsEmptyOrMissingDir;
using internal::IsExecutable;
using internal::kConfName;
using internal::kMessages;
using internal::kStubCallLog;
using internal::LinesSince;
using internal::MakeDirs;
using internal::Probe;
using internal::ReadLayoutPartitions;
using internal::ReadWholeFile;
using internal::RunHostProgram;
using internal::RunInit;
using internal::RunInNamespaces;
using internal::RunPlan;
using internal::SplitLines;
using internal::UniqueFd;
using internal::WriteFileMode;

void SetKeyValue(KeyValues* pairs, const std::string& key, const std::string& value) {
  for (auto& pair : *pairs) {
    if (pair.first == key) {
      pair.second = value;
      return;
    }
  }
  pairs->emplace_back(key, value);
}

Tools ToolsBeside(const std::string& self) {
  char resolved[PATH_MAX];
  const std::string dir =
      Dirname(realpath(self.c_str(), resolved) != nullptr ? std::string(resolved) : self);
  Tools tools;
  if (IsExecutable(dir + "/filebay-flash")) tools.flash_tool = dir + "/filebay-flash";
  if (IsExecutable(dir + "/filebay-flashsim")) tools.flashsim = dir + "/filebay-flashsim";
  return tools;
}

std::string Unavailable(const Tools& tools, bool need_flash) {
  if (FindBusybox(tools.busybox).empty()) {
    return "unavailable: busybox not found (Debian: apt-get install busybox-static)";
  }
  if (need_flash && !IsExecutable(tools.flash_tool)) {
    return "unavailable: filebay-flash not found (\"" + tools.flash_tool + "\")";
  }
  if (need_flash && !IsExecutable(tools.flashsim)) {
    return "unavailable: filebay-flashsim not found (\"" + tools.flashsim + "\")";
  }
  std::vector<std::string> report;
  if (!RunInNamespaces([need_flash](int fd) { return Probe(need_flash, fd); }, &report)) {
    return ErrnoText("unavailable: fork");
  }
  for (const std::string& line : report) {
    if (line.rfind("ok", 0) == 0) return "";
    if (line.rfind("error unavailable: ", 0) == 0) return line.substr(6);
    if (line.rfind("error ", 0) == 0) return "unavailable: " + line.substr(6);
  }
  return "unavailable: the namespace probe reported nothing";
}

std::unique_ptr<Sandbox> Sandbox::Create(const std::string& dir, const Scenario& scenario,
                                         const Tools& tools, std::string* error) {
  if (!IsEmptyOrMissingDir(dir, error) || !MakeDirs(dir, 0755, error)) return nullptr;
  const std::string busybox = FindBusybox(tools.busybox);
  if (busybox.empty()) {
    *error = "busybox not found (Debian: apt-get install busybox-static)";
    return nullptr;
  }
  if (!WriteFileMode(dir + kConfName, FormatConf(scenario), 0644, error)) return nullptr;
  std::vector<int> partitions;
  if (!scenario.layout_file.empty() &&
      !ReadLayoutPartitions(scenario.layout_file, &partitions, error)) {
    return nullptr;
  }
  const bool built = BuildRoot(dir + "/root", scenario, busybox, partitions, error) &&
                     (scenario.layout_file.empty() || CreateFlash(dir, scenario, tools, error));
  if (!built) return nullptr;
  return Open(dir, tools, error);
}

std::unique_ptr<Sandbox> Sandbox::Open(const std::string& dir, const Tools& tools,
                                       std::string* error) {
  // Absolute, because the helpers of a run do not share our working directory.
  char resolved[PATH_MAX];
  if (realpath(dir.c_str(), resolved) == nullptr) {
    *error = ErrnoText("cannot open sandbox " + dir);
    return nullptr;
  }
  std::unique_ptr<Sandbox> box(new Sandbox(resolved, tools));
  if (!box->Load(error)) {
    box->destroyed_ = true;  // not ours to remove
    return nullptr;
  }
  return box;
}

std::unique_ptr<Sandbox> Sandbox::Clone(const std::string& dir, std::string* error) const {
  if (!IsEmptyOrMissingDir(dir, error) || !MakeDirs(dir, 0755, error)) return nullptr;
  std::string output;
  if (RunHostProgram({"/bin/cp", "-a", dir_ + "/.", dir}, &output) != 0) {
    *error = "cannot copy " + dir_ + " to " + dir + ": " + output;
    return nullptr;
  }
  return Open(dir, tools_, error);
}

bool Sandbox::Load(std::string* error) {
  std::string conf;
  if (!ReadWholeFile(dir_ + kConfName, &conf)) {
    *error = dir_ + " is not a sandbox (no sandbox.conf)";
    return false;
  }
  for (const std::string& line : SplitLines(conf)) {
    std::istringstream words(line);
    std::string key, value;
    words >> key;
    std::getline(words >> std::ws, value);
    if (key == "flash") {
      has_flash_ = value == "yes";
    } else if (key == "eth0") {
      eth0_speed_ = atoi(value.c_str());
    } else if (key == "daemon") {
      daemons_.push_back(value);
    }
  }
  return true;
}

Sandbox::~Sandbox() {
  std::string error;
  if (!destroyed_ && !Destroy(false, &error)) fprintf(stderr, "sandbox: %s\n", error.c_str());
}

RunResult Sandbox::Run(const std::vector<std::string>& argv, const RunOptions& options) {
  RunResult result;
  if (argv.empty()) {
    result.error = "no command";
    return result;
  }
  if (has_flash_ && !IsExecutable(tools_.flashsim)) {
    result.error = "filebay-flashsim not found (\"" + tools_.flashsim + "\")";
    return result;
  }
  RunPlan plan;
  plan.dir = dir_;
  plan.root = root();
  plan.flashsim = has_flash_ ? tools_.flashsim : "";
  plan.daemons = daemons_;
  plan.eth0_speed = eth0_speed_;
  plan.argv = argv;
  plan.env = options.env;
  plan.capture = options.capture;
  plan.timeout_seconds = options.timeout_seconds;

  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  UniqueFd null_fd(open("/dev/null", O_RDWR | O_CLOEXEC));
  UniqueFd log_fd(open((dir_ + "/run.log").c_str(), flags | O_APPEND, 0644));
  UniqueFd out_fd, err_fd;
  if (options.capture) {
    out_fd.Reset(open((dir_ + "/run.stdout").c_str(), flags, 0644));
    err_fd.Reset(open((dir_ + "/run.stderr").c_str(), flags, 0644));
  }
  if (null_fd.get() < 0 || log_fd.get() < 0 ||
      (options.capture && (out_fd.get() < 0 || err_fd.get() < 0))) {
    result.error = ErrnoText("cannot open the run's files in " + dir_);
    return result;
  }
  plan.null_fd = null_fd.get();
  plan.stdin_fd = null_fd.get();
  plan.log_fd = log_fd.get();
  plan.stdout_fd = out_fd.get();
  plan.stderr_fd = err_fd.get();

  const std::string messages = RootPath(kMessages);
  const std::string calls = RootPath(kStubCallLog);
  const off_t messages_size = FileSize(messages);
  const off_t calls_size = FileSize(calls);

  std::vector<std::string> report;
  if (!RunInNamespaces([&plan](int fd) { return RunInit(plan, fd); }, &report)) {
    result.error = ErrnoText("fork");
    return result;
  }
  bool failed = false;
  for (const std::string& line : report) {
    if (line.rfind("status ", 0) == 0) {
      result.status = atoi(line.c_str() + 7);
    } else if (line.rfind("timeout ", 0) == 0) {
      result.timed_out = true;
    } else if (line.rfind("error ", 0) == 0) {
      result.error += (failed ? "; " : "") + line.substr(6);
      failed = true;
    }
  }
  result.ok = !failed;
  if (result.ok && result.status < 0) {
    result.ok = false;
    result.error = "the sandbox ended without a result";
  }
  if (options.capture) {
    ReadWholeFile(dir_ + "/run.stdout", &result.out);
    ReadWholeFile(dir_ + "/run.stderr", &result.err);
  }
  result.syslog = LinesSince(messages, messages_size);
  result.stub_calls = LinesSince(calls, calls_size);
  return result;
}

bool Sandbox::ReadRootFile(const std::string& path, std::string* content) const {
  return ReadWholeFile(RootPath(path), content);
}

std::vector<std::string> Sandbox::SyslogLines() const { return FileLines(RootPath(kMessages)); }

std::vector<std::string> Sandbox::StubCalls() const { return FileLines(RootPath(kStubCallLog)); }

std::vector<std::string> Sandbox::FlashTrace() const {
  return FileLines(FlashStateDir() + "/trace.log");
}

bool Sandbox::Destroy(bool failed, std::string* error) {
  const char* keep = getenv("FILEBAY_KEEP_SANDBOX");
  const bool keep_by_env =
      keep != nullptr && (strcmp(keep, "all") == 0 || (failed && strcmp(keep, "1") == 0));
  if (keep_ || keep_by_env) {
    if (!keep_) fprintf(stderr, "sandbox kept: %s\n", dir_.c_str());
    destroyed_ = true;
    return true;
  }
  if (!DestroyDir(dir_, error)) return false;
  destroyed_ = true;
  return true;
}

namespace {

// The mount points of this process's mount namespace below `dir`.
std::vector<std::string> MountsBelow(const std::string& dir) {
  std::vector<std::string> found;
  const std::string prefix = dir + "/";
  for (const std::string& line : FileLines("/proc/self/mountinfo")) {
    std::istringstream fields(line);
    std::string id, parent, device, source, mount_point;
    fields >> id >> parent >> device >> source >> mount_point;
    if (mount_point == dir || mount_point.compare(0, prefix.size(), prefix) == 0) {
      found.push_back(mount_point);
    }
  }
  return found;
}

int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*) {
  const int result = type == FTW_DP ? rmdir(path) : unlink(path);
  return result == 0 ? 0 : errno;
}

}  // namespace

bool DestroyDir(const std::string& dir, std::string* error) {
  char resolved[PATH_MAX];
  if (realpath(dir.c_str(), resolved) == nullptr) {
    *error = ErrnoText("cannot destroy " + dir);
    return false;
  }
  const std::string path = resolved;
  struct stat st;
  if (path == "/" || stat((path + kConfName).c_str(), &st) != 0) {
    *error = "refusing to remove " + path + ": not a sandbox (no sandbox.conf)";
    return false;
  }
  const std::vector<std::string> mounts = MountsBelow(path);
  if (!mounts.empty()) {
    *error = "refusing to remove " + path + ": " + mounts.front() + " is mounted";
    return false;
  }
  // Depth first, without following symlinks or crossing into other file
  // systems.
  const int result = nftw(path.c_str(), RemoveEntry, 32, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
  if (result != 0) {
    errno = result > 0 ? result : errno;
    *error = ErrnoText("cannot remove " + path);
    return false;
  }
  return true;
}

}  // namespace sandbox
