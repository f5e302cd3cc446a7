#include "sim/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <linux/ethtool.h>
#include <linux/if_tun.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>

#include "sandbox_stubs.h"
#include "sandbox_texts.h"
#include "sim/flash_state.h"

namespace fs = std::filesystem;

namespace sandbox {
namespace {

// ---------------------------------------------------------------- basics

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

std::string ErrnoText(const std::string& what) { return what + ": " + strerror(errno); }

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteFileMode(const std::string& path, const std::string& content, mode_t mode,
                   std::string* error) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (fd.get() < 0 || !WriteAll(fd.get(), content) || fchmod(fd.get(), mode) != 0) {
    *error = ErrnoText("cannot write " + path);
    return false;
  }
  return true;
}

bool ReadWholeFile(const std::string& path, std::string* content, off_t from = 0) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0 || lseek(fd.get(), from, SEEK_SET) < 0) return false;
  content->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    content->append(buffer, static_cast<size_t>(n));
  }
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> FileLines(const std::string& path) {
  std::string content;
  if (!ReadWholeFile(path, &content)) return {};
  return SplitLines(content);
}

off_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// Lines added to a file since it had `size` bytes (all of it if it shrank).
std::vector<std::string> LinesSince(const std::string& path, off_t size) {
  std::string content;
  if (!ReadWholeFile(path, &content, FileSize(path) < size ? 0 : size)) return {};
  return SplitLines(content);
}

bool MakeDirs(const std::string& path, mode_t mode, std::string* error) {
  std::error_code ec;
  fs::create_directories(path, ec);
  if (ec || chmod(path.c_str(), mode) != 0) {
    *error = "cannot create " + path + (ec ? ": " + ec.message() : ErrnoText(""));
    return false;
  }
  return true;
}

bool MakeSymlink(const std::string& target, const std::string& path, std::string* error) {
  if (symlink(target.c_str(), path.c_str()) != 0 && errno != EEXIST) {
    *error = ErrnoText("cannot link " + path);
    return false;
  }
  return true;
}

bool IsExecutable(const std::string& path) {
  return !path.empty() && access(path.c_str(), X_OK) == 0;
}

std::string Dirname(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string FormatKeyValues(const KeyValues& pairs) {
  std::string text;
  for (const auto& [key, value] : pairs) text += key + "=\"" + value + "\"\n";
  return text;
}

KeyValues Merged(KeyValues base, const KeyValues& changes) {
  for (const auto& [key, value] : changes) SetKeyValue(&base, key, value);
  return base;
}

using Clock = std::chrono::steady_clock;

Clock::time_point DeadlineAfter(int seconds) {
  return seconds <= 0 ? Clock::time_point::max() : Clock::now() + std::chrono::seconds(seconds);
}

void SleepMilliseconds(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, nullptr);
}

// Runs a host program, waits for it and returns its status (-1 when it did not
// run); stdout and stderr together go to `output`.
int RunHostProgram(const std::vector<std::string>& argv, std::string* output) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[1], STDOUT_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", args[0], strerror(errno));
    _exit(127);
  }
  close(pipe_fds[1]);
  UniqueFd reader(pipe_fds[0]);
  if (pid < 0) return -1;
  output->clear();
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(reader.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    output->append(buffer, static_cast<size_t>(n));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// ---------------------------------------------------------------- the root

const char* const kStubPrograms[] = {
    "/usr/velt/etc/rc.d/S04crond.sh",
    "/usr/velt/etc/rc.d/S20pgsql.sh",
    "/usr/velt/etc/rc.d/S21mysql.sh",
    "/usr/velt/etc/rc.d/S25download.sh",
    "/usr/velt/etc/rc.d/S55lpd.sh",
    "/usr/velt/etc/rc.d/S66veltindexd.sh",
    "/usr/velt/etc/rc.d/S77veltmkthumbd.sh",
    "/usr/velt/etc/rc.d/S81atalk.sh",
    "/usr/velt/etc/rc.d/S84rsyncd.sh",
    "/usr/velt/etc/rc.d/S85veltnetbkpd.sh",
    "/usr/velt/etc/rc.d/S86veltdms.sh",
    "/usr/velt/etc/rc.d/S95sshd.sh",
    "/usr/velt/etc/rc.d/S97apache-user.sh",
    "/usr/velt/etc/rc.d/S99ftpd.sh",
    "/usr/velt/etc/rc.d/S99iTunes.sh",
    "/usr/velt/pgsql/bin/psql",
    "/usr/velt/pgsql/bin/dropdb",
    "/usr/velt/bin/veltindex",
};
const char* const kStubDaemons[] = {"/usr/velt/sbin/smbd", "/usr/velt/sbin/nmbd"};

// Host library directories, bound read-only into the root during a run.
const char* const kLibraryDirs[] = {"/lib",     "/lib32",     "/lib64",     "/libx32",
                                    "/usr/lib", "/usr/lib32", "/usr/lib64", "/usr/libx32"};
// Host devices bound into the root's /dev during a run.
const char* const kDevices[] = {"null", "zero", "urandom", "random", "tty"};

constexpr char kStubCallLog[] = "/var/log/stub-calls.log";
constexpr char kMessages[] = "/var/log/messages";
constexpr char kConfName[] = "/sandbox.conf";

const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/sh\n"
    "admin:x:1024:100:System default user:/home/admin:/bin/sh\n"
    "guest:x:1025:100:Guest:/nonexist:/sbin/nologin\n"
    "nobody:x:65534:65534:nobody:/nonexist:/sbin/nologin\n";
const char kGroup[] =
    "root:x:0:\n"
    "users:x:100:admin,guest\n"
    "administrators:x:101:admin\n"
    "nobody:x:65534:\n";
const char kShadow[] =
    "root::10933:0:99999:7:::\n"
    "admin::10933:0:99999:7:::\n"
    "guest:*:10933:0:99999:7:::\n"
    "nobody:*:10933:0:99999:7:::\n";

// The scheduler's table; the migration filters it.
const char kCrontab[] = "*/5 * * * * root /usr/velt/bin/veltcheck\n";

KeyValues DefaultVersion() {
  return {
      {"majorversion", "2"}, {"minorversion", "0"}, {"buildphase", "3"}, {"buildnumber", "500"}};
}

KeyValues DefaultFactorySettings() {
  return {{"unique", "veltara_powerpc_1hd"}, {"supportMTU", "no"}, {"defaultfs", "ext3"}};
}

// Switches and values of the running settings that the factory file lacks.
const KeyValues kRunSwitches = {
    {"runsamba", "yes"}, {"runftpd", "yes"}, {"runnetbkp", "no"}, {"MTUValue", "1500"}};

std::string FindBusybox(const std::string& configured) {
  if (!configured.empty()) return IsExecutable(configured) ? configured : "";
  for (const char* candidate : {"/bin/busybox", "/usr/bin/busybox"}) {
    if (IsExecutable(candidate)) return candidate;
  }
  const char* path = getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && IsExecutable(dir + "/busybox")) return dir + "/busybox";
  }
  return "";
}

bool MakeSkeleton(const std::string& root, std::string* error) {
  const std::pair<const char*, mode_t> dirs[] = {
      {"", 0755},
      {"/bin", 0755},
      {"/sbin", 0755},
      {"/usr/bin", 0755},
      {"/usr/sbin", 0755},
      {"/dev", 0755},
      {"/dev/flash", 0755},
      {"/proc", 0555},
      {"/tmp", 01777},
      {"/var/log", 0755},
      {"/var/run", 0755},
      {"/etc/stub-status", 0755},
      {"/etc.defaults", 0755},
      {"/root", 0700},
      {"/home/admin", 0755},
      {"/usr/velt/etc/rc.d", 0755},
      {"/usr/velt/sbin", 0755},
      {"/usr/velt/bin", 0755},
      {"/usr/velt/pgsql/bin", 0755},
      {"/volume1/upd@te", 0755},
  };
  for (const auto& [dir, mode] : dirs) {
    if (!MakeDirs(root + dir, mode, error)) return false;
  }
  // Best effort: only root can give the account its home; a user-namespace
  // run cannot switch to it anyway.
  const int ignored = chown((root + "/home/admin").c_str(), 1024, 100);
  (void)ignored;
  return true;
}

// Copies busybox to /bin/busybox and links every applet at the place busybox
// itself names (bin/sh, usr/bin/killall, sbin/syslogd, ...).
bool InstallBusybox(const std::string& root, const std::string& busybox, std::string* error) {
  std::error_code ec;
  fs::copy_file(busybox, root + "/bin/busybox", fs::copy_options::overwrite_existing, ec);
  if (ec || chmod((root + "/bin/busybox").c_str(), 0755) != 0) {
    *error = "cannot copy " + busybox + ": " + (ec ? ec.message() : strerror(errno));
    return false;
  }
  std::string list;
  if (RunHostProgram({busybox, "--list-full"}, &list) != 0) {
    *error = busybox + " --list-full failed: " + list;
    return false;
  }
  for (const std::string& applet : SplitLines(list)) {
    if (applet.empty() || applet == "bin/busybox" || applet == "linuxrc") continue;
    const std::string link = root + "/" + applet;
    if (!MakeDirs(Dirname(link), 0755, error)) return false;
    // Relative ("../bin/busybox", "../../bin/busybox"), so that the links
    // also resolve when the root is looked at from the host.
    std::string target = "bin/busybox";
    for (char c : applet) {
      if (c == '/') target = "../" + target;
    }
    if (!MakeSymlink(target, link, error)) return false;
  }
  return true;
}

// Mirrors the host's library directories: a symlink where the host has one
// (merged /usr: /lib -> usr/lib), else an empty directory to bind onto.
bool InstallLibraryDirs(const std::string& root, std::string* error) {
  for (const char* dir : kLibraryDirs) {
    struct stat st;
    if (lstat(dir, &st) != 0) continue;
    const std::string inside = root + dir;
    if (S_ISLNK(st.st_mode)) {
      char target[PATH_MAX];
      const ssize_t n = readlink(dir, target, sizeof target - 1);
      if (n <= 0) continue;
      if (!MakeDirs(Dirname(inside), 0755, error) ||
          !MakeSymlink(std::string(target, static_cast<size_t>(n)), inside, error)) {
        return false;
      }
    } else if (S_ISDIR(st.st_mode)) {
      if (!MakeDirs(inside, 0755, error)) return false;
    }
  }
  return true;
}

bool InstallDevices(const std::string& root, const std::vector<int>& partitions,
                    std::string* error) {
  for (const char* device : kDevices) {
    if (!WriteFileMode(root + "/dev/" + device, "", 0666, error)) return false;
  }
  for (int index : partitions) {
    const std::string name = "mtd" + std::to_string(index);
    if (!MakeSymlink("flash/" + name, root + "/dev/" + name, error)) return false;
  }
  return true;
}

bool InstallEtc(const std::string& root, const Scenario& scenario, std::string* error) {
  const std::string etc = root + "/etc";
  // The running settings start as a copy of the factory settings.
  const KeyValues factory = Merged(DefaultFactorySettings(), scenario.default_settings);
  const KeyValues settings = Merged(Merged(factory, kRunSwitches), scenario.settings);
  return WriteFileMode(etc + "/passwd", kPasswd, 0644, error) &&
         WriteFileMode(etc + "/group", kGroup, 0644, error) &&
         WriteFileMode(etc + "/shadow", kShadow, 0600, error) &&
         WriteFileMode(etc + "/shells", "/bin/sh\n/bin/ash\n", 0644, error) &&
         WriteFileMode(etc + "/crontab", kCrontab, 0644, error) &&
         WriteFileMode(etc + "/hosts", "127.0.0.1\tlocalhost\n", 0644, error) &&
         WriteFileMode(etc + "/veltinfo.conf", FormatKeyValues(settings), 0644, error) &&
         WriteFileMode(root + "/etc.defaults/veltinfo.conf", FormatKeyValues(factory), 0644,
                       error) &&
         WriteFileMode(root + "/etc.defaults/VERSION",
                       FormatKeyValues(Merged(DefaultVersion(), scenario.version)), 0644, error);
}

std::string StubScript(const char* templ, const std::string& program) {
  std::string script = templ;
  const std::string placeholder = "@PROGRAM@";
  for (size_t at = script.find(placeholder); at != std::string::npos;
       at = script.find(placeholder, at + program.size())) {
    script.replace(at, placeholder.size(), program);
  }
  return script;
}

bool InstallStubs(const std::string& root, const Scenario& scenario, std::string* error) {
  for (const char* program : kStubPrograms) {
    if (!WriteFileMode(root + program, StubScript(kStubProgramScript, program), 0755, error)) {
      return false;
    }
  }
  for (const char* daemon : kStubDaemons) {
    if (!WriteFileMode(root + daemon, StubScript(kStubDaemonScript, daemon), 0755, error)) {
      return false;
    }
  }
  // Writable by everyone: stubs also run as other users (su -l admin -c ...).
  if (!WriteFileMode(root + kStubCallLog, "", 0666, error)) return false;
  for (const auto& [name, status] : scenario.stub_status) {
    if (name.empty() || name.find('/') != std::string::npos) {
      *error = "bad stub name \"" + name + "\"";
      return false;
    }
    if (!WriteFileMode(root + "/etc/stub-status/" + name, std::to_string(status) + "\n", 0644,
                       error)) {
      return false;
    }
  }
  return true;
}

// The event texts of every language, at /usr/velt/veltsdk/texts/<lang>/events.
bool InstallEventTexts(const std::string& root, std::string* error) {
  for (const EventTexts* texts = kEventTexts; texts->lang != nullptr; ++texts) {
    const std::string dir = root + "/usr/velt/veltsdk/texts/" + texts->lang;
    if (!MakeDirs(dir, 0755, error) ||
        !WriteFileMode(dir + "/events", texts->content, 0644, error)) {
      return false;
    }
  }
  return true;
}

bool PlaceFiles(const std::string& root, const std::vector<RootFile>& files, std::string* error) {
  for (const RootFile& file : files) {
    if (file.path.empty() || file.path[0] != '/') {
      *error = "not an absolute path: \"" + file.path + "\"";
      return false;
    }
    const std::string target = root + file.path;
    if (!MakeDirs(Dirname(target), 0755, error)) return false;
    // A file placed over one of busybox's applet links replaces the link; it
    // must not be written through it into busybox.
    struct stat st;
    if (lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) unlink(target.c_str());
    if (file.source.empty()) {
      if (!WriteFileMode(target, file.content, file.mode, error)) return false;
      continue;
    }
    std::error_code ec;
    fs::copy(file.source, target,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                 fs::copy_options::overwrite_existing,
             ec);
    if (ec) {
      *error = "cannot copy " + file.source + " to " + target + ": " + ec.message();
      return false;
    }
  }
  return true;
}

bool ReadLayoutPartitions(const std::string& layout_file, std::vector<int>* partitions,
                          std::string* error) {
  std::string text;
  if (!ReadWholeFile(layout_file, &text)) {
    *error = ErrnoText("cannot read " + layout_file);
    return false;
  }
  flashsim::ChipLayout layout;
  if (!flashsim::ParseLayout(text, &layout, error)) {
    *error = layout_file + ": " + *error;
    return false;
  }
  for (const flashsim::PartitionLayout& partition : layout.partitions) {
    partitions->push_back(partition.index);
  }
  return true;
}

bool CreateFlash(const std::string& dir, const Scenario& scenario, const Tools& tools,
                 std::string* error) {
  if (!IsExecutable(tools.flash_tool)) {
    *error = "filebay-flash not found (\"" + tools.flash_tool + "\")";
    return false;
  }
  const std::string state = dir + "/flash";
  std::string output;
  const std::vector<std::string> command =
      scenario.flash_state.empty()
          ? std::vector<std::string>{tools.flash_tool, "create", state, scenario.layout_file}
          : std::vector<std::string>{tools.flash_tool, "copy", scenario.flash_state, state};
  const int status = RunHostProgram(command, &output);
  if (status != 0) {
    *error = "filebay-flash " + command[1] + " failed (" + std::to_string(status) + "): " + output;
    return false;
  }
  if (scenario.faults.empty()) return true;
  std::string plan;
  for (const std::string& line : scenario.faults) plan += line + "\n";
  return WriteFileMode(state + "/faults", plan, 0644, error);
}

std::string FormatConf(const Scenario& scenario) {
  std::string conf = "# appliance sandbox: what a run needs besides the root\n";
  conf += std::string("flash ") + (scenario.layout_file.empty() ? "no" : "yes") + "\n";
  conf += "eth0 " + std::to_string(scenario.eth0_speed) + "\n";
  for (const std::string& daemon : scenario.daemons) conf += "daemon " + daemon + "\n";
  return conf;
}

bool IsEmptyOrMissingDir(const std::string& dir, std::string* error) {
  std::error_code ec;
  if (!fs::exists(dir, ec)) return true;
  if (!fs::is_directory(dir, ec) || !fs::is_empty(dir, ec)) {
    *error = dir + " exists and is not an empty directory";
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- namespaces

constexpr int kNamespaceFlags =
    CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC;

bool WriteProcFile(const std::string& path, const std::string& text, std::string* error) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (fd.get() < 0 || !WriteAll(fd.get(), text)) {
    *error = ErrnoText("cannot write " + path);
    return false;
  }
  return true;
}

// Moves the calling process into new namespaces (its children into the new
// pid namespace): directly as root, else inside a user namespace where the
// caller's ids are user and group 0.
bool EnterNamespaces(std::string* error) {
  std::string direct;
  if (geteuid() == 0) {
    if (unshare(kNamespaceFlags) == 0) return true;
    direct = ErrnoText("unshare") + "; ";
  }
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER | kNamespaceFlags) != 0) {
    *error = direct + ErrnoText("user namespace");
    return false;
  }
  return WriteProcFile("/proc/self/setgroups", "deny", error) &&
         WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1", error) &&
         WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1", error);
}

// Single-line report from the namespaces to the caller.
void Report(int fd, const std::string& kind, const std::string& text) {
  std::string line = kind + " " + text;
  for (char& c : line) {
    if (c == '\n') c = ' ';
  }
  WriteAll(fd, line + "\n");
}

// Forks, enters the namespaces and forks again; the grandchild, process 1 of
// the new pid namespace, runs `init` and ends with its result. Returns what
// was reported on the pipe, or false when nothing could be started.
template <typename Init>
bool RunInNamespaces(Init init, std::vector<std::string>* report) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    std::string error;
    if (!EnterNamespaces(&error)) {
      Report(pipe_fds[1], "error", "unavailable: " + error);
      _exit(1);
    }
    const pid_t init_pid = fork();
    if (init_pid == 0) _exit(init(pipe_fds[1]));
    if (init_pid < 0) {
      Report(pipe_fds[1], "error", ErrnoText("fork"));
      _exit(1);
    }
    close(pipe_fds[1]);
    int status = 0;
    while (waitpid(init_pid, &status, 0) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  close(pipe_fds[1]);
  UniqueFd reader(pipe_fds[0]);
  if (pid < 0) return false;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(reader.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  *report = SplitLines(text);
  return true;
}

// ---------------------------------------------------------------- inside

// What process 1 of a run needs; everything is prepared before the fork.
struct RunPlan {
  std::string dir;
  std::string root;
  std::string flashsim;  // empty: no flash
  std::vector<std::string> daemons;
  int eth0_speed = 0;
  std::vector<std::string> argv;
  std::vector<std::string> env;
  bool capture = true;
  int timeout_seconds = 0;
  int stdin_fd = -1;  // capture only
  int stdout_fd = -1;
  int stderr_fd = -1;
  int log_fd = -1;  // DIR/run.log, for the helpers' output
  int null_fd = -1;
};

// Process 1 reaps every process of the namespace; statuses of those it is
// not waiting for yet are kept until asked.
class Children {
 public:
  // True with the status once `pid` has ended; false when the deadline
  // passed first.
  bool WaitFor(pid_t pid, Clock::time_point deadline, int* status) {
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    for (;;) {
      Reap();
      auto found = ended_.find(pid);
      if (found != ended_.end()) {
        *status = found->second;
        ended_.erase(found);
        return true;
      }
      if (Clock::now() >= deadline) return false;
      // Short slices: a SIGCHLD that arrived between Reap and here is not lost.
      struct timespec slice = {0, 20 * 1000 * 1000};
      sigtimedwait(&child_signal, nullptr, &slice);
    }
  }

  bool HasEnded(pid_t pid, int* status) {
    Reap();
    auto found = ended_.find(pid);
    if (found == ended_.end()) return false;
    *status = found->second;
    return true;
  }

  // Waits until no process but this one is left (they have been killed).
  void ReapAll(Clock::time_point deadline) {
    for (;;) {
      int status;
      const pid_t pid = waitpid(-1, &status, WNOHANG);
      if (pid < 0 && errno == ECHILD) return;
      if (pid > 0) continue;
      if (Clock::now() >= deadline) return;
      SleepMilliseconds(5);
    }
  }

 private:
  void Reap() {
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) ended_[pid] = status;
  }
  std::map<pid_t, int> ended_;
};

int StatusNumber(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

struct Spawn {
  std::vector<std::string> argv;
  std::vector<std::string> env;     // empty: this process's environment
  std::string chroot_dir;           // empty: stay on the host's root
  int in = -1, out = -1, err = -1;  // -1: keep this process's stream
  bool new_session = false;
};

// Starts a program; in the child, failures before exec end it with 127 and a
// message on its stderr.
pid_t Start(const Spawn& spawn) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  if (spawn.in >= 0) dup2(spawn.in, STDIN_FILENO);
  if (spawn.out >= 0) dup2(spawn.out, STDOUT_FILENO);
  if (spawn.err >= 0) dup2(spawn.err, STDERR_FILENO);
  close_range(3, ~0U, 0);
  if (spawn.new_session) setsid();
  umask(022);
  if (!spawn.chroot_dir.empty() && (chroot(spawn.chroot_dir.c_str()) != 0 || chdir("/") != 0)) {
    dprintf(STDERR_FILENO, "sandbox: chroot %s: %s\n", spawn.chroot_dir.c_str(), strerror(errno));
    _exit(127);
  }
  if (!spawn.env.empty()) {
    clearenv();
    for (const std::string& entry : spawn.env) putenv(const_cast<char*>(entry.c_str()));
  }
  std::vector<char*> args;
  for (const std::string& arg : spawn.argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  dprintf(STDERR_FILENO, "sandbox: cannot run %s: %s\n", args[0], strerror(errno));
  _exit(127);
}

bool BindMount(const std::string& source, const std::string& target, bool read_only,
               std::string* error) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    *error = ErrnoText("cannot bind " + source + " on " + target);
    return false;
  }
  if (!read_only) return true;
  // A remount must keep the flags the source mount is locked with (in a user
  // namespace a remount that drops them fails).
  struct statvfs info;
  unsigned long flags = MS_BIND | MS_REMOUNT | MS_RDONLY;
  if (statvfs(source.c_str(), &info) == 0) {
    const std::pair<unsigned long, unsigned long> locked[] = {
        {ST_NOSUID, MS_NOSUID},   {ST_NODEV, MS_NODEV},           {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME}, {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto& [statvfs_flag, mount_flag] : locked) {
      if (info.f_flag & statvfs_flag) flags |= mount_flag;
    }
  }
  if (mount(nullptr, target.c_str(), nullptr, flags, nullptr) != 0) {
    *error = ErrnoText("cannot make " + target + " read-only");
    return false;
  }
  return true;
}

bool MountRoot(const std::string& root, std::string* error) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *error = ErrnoText("cannot make the mounts private");
    return false;
  }
  const std::string proc = root + "/proc";
  if (mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    *error = ErrnoText("cannot mount proc on " + proc);
    return false;
  }
  struct stat st;
  for (const char* device : kDevices) {
    const std::string host = std::string("/dev/") + device;
    const std::string inside = root + "/dev/" + device;
    if (stat(host.c_str(), &st) != 0 || lstat(inside.c_str(), &st) != 0) continue;
    if (!BindMount(host, inside, false, error)) return false;
  }
  for (const char* dir : kLibraryDirs) {
    const std::string inside = root + dir;
    struct stat host_st;
    if (lstat(dir, &host_st) != 0 || !S_ISDIR(host_st.st_mode)) continue;
    if (lstat(inside.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    if (!BindMount(dir, inside, true, error)) return false;
  }
  return true;
}

void SetInterfaceFlags(int sock, const char* name, short flags) {
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  if (ioctl(sock, SIOCGIFFLAGS, &request) == 0) {
    request.ifr_flags |= flags;
    ioctl(sock, SIOCSIFFLAGS, &request);
  }
}

// Loopback up; with a speed, "eth0" as a persistent tap device whose driver
// reports that speed, full duplex, no autonegotiation.
bool SetUpNetwork(int eth0_speed, std::string* error) {
  UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) {
    *error = ErrnoText("socket");
    return false;
  }
  SetInterfaceFlags(sock.get(), "lo", IFF_UP);
  if (eth0_speed == 0) return true;
  UniqueFd tun(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, "eth0", IFNAMSIZ - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (tun.get() < 0 || ioctl(tun.get(), TUNSETIFF, &request) != 0 ||
      ioctl(tun.get(), TUNSETPERSIST, 1) != 0) {
    *error = ErrnoText("cannot create eth0 (/dev/net/tun)");
    return false;
  }
  struct ethtool_cmd link;
  memset(&link, 0, sizeof link);
  link.cmd = ETHTOOL_SSET;
  ethtool_cmd_speed_set(&link, static_cast<uint32_t>(eth0_speed));
  link.duplex = DUPLEX_FULL;
  link.autoneg = AUTONEG_DISABLE;
  link.port = PORT_TP;
  request.ifr_data = reinterpret_cast<char*>(&link);
  if (ioctl(sock.get(), SIOCETHTOOL, &request) != 0) {
    *error = ErrnoText("cannot set the speed of eth0");
    return false;
  }
  request.ifr_mtu = 1500;
  if (ioctl(sock.get(), SIOCSIFMTU, &request) != 0) {
    *error = ErrnoText("cannot set the MTU of eth0");
    return false;
  }
  SetInterfaceFlags(sock.get(), "eth0", IFF_UP);
  return true;
}

std::string LogTail(const RunPlan& plan) {
  std::string log;
  ReadWholeFile(plan.dir + "/run.log", &log);
  if (log.size() > 2000) log = "..." + log.substr(log.size() - 2000);
  return log.empty() ? "" : " (run.log: " + log + ")";
}

class Init {
 public:
  Init(const RunPlan& plan, int report_fd) : plan_(plan), report_fd_(report_fd) {}

  int Main() {
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child_signal, nullptr);
    std::string error;
    if (!MountRoot(plan_.root, &error) || !SetUpNetwork(plan_.eth0_speed, &error)) {
      Report(report_fd_, "error", error);
      return 1;
    }
    sethostname("filebay", 7);
    messages_size_ = FileSize(plan_.root + kMessages);
    if (StartFlash() && StartSyslog() && StartDaemons()) RunCommand();
    StopFlash();
    StopSyslog();
    // Whatever the command left behind.
    kill(-1, SIGKILL);
    children_.ReapAll(DeadlineAfter(5));
    return 0;
  }

 private:
  void Fail(const std::string& text) { Report(report_fd_, "error", text); }

  std::vector<std::string> BaseEnv() const {
    std::vector<std::string> env = {"PATH=/bin:/sbin:/usr/bin:/usr/sbin", "HOME=/root", "USER=root",
                                    "LOGNAME=root", "SHELL=/bin/sh"};
    const char* term = getenv("TERM");
    if (!plan_.capture && term != nullptr) env.push_back(std::string("TERM=") + term);
    return env;
  }

  Spawn Helper(std::vector<std::string> argv, bool chrooted) const {
    Spawn spawn;
    spawn.argv = std::move(argv);
    if (chrooted) {
      spawn.chroot_dir = plan_.root;
      spawn.env = BaseEnv();
    }
    spawn.in = plan_.null_fd;
    spawn.out = plan_.log_fd;
    spawn.err = plan_.log_fd;
    spawn.new_session = true;
    return spawn;
  }

  // Polls `ready` every few milliseconds until it holds, the helper ends
  // (then *pid becomes -1) or 10 seconds pass.
  template <typename Ready>
  bool WaitReady(pid_t* pid, const std::string& what, Ready ready) {
    const Clock::time_point deadline = DeadlineAfter(10);
    for (;;) {
      if (ready()) return true;
      int status;
      if (children_.HasEnded(*pid, &status)) {
        *pid = -1;
        Fail(what + " ended with status " + std::to_string(StatusNumber(status)) +
             " before it was ready" + LogTail(plan_));
        return false;
      }
      if (Clock::now() >= deadline) {
        Fail(what + " was not ready after 10 seconds" + LogTail(plan_));
        return false;
      }
      SleepMilliseconds(2);
    }
  }

  bool StartFlash() {
    if (plan_.flashsim.empty()) return true;
    const std::string mount_point = plan_.root + "/dev/flash";
    flash_pid_ = Start(Helper(
        {plan_.flashsim, plan_.dir + "/flash", mount_point, "-f", "-o", "allow_other"}, false));
    if (flash_pid_ < 0) {
      Fail(ErrnoText("fork"));
      return false;
    }
    const std::string control = mount_point + "/.control";
    return WaitReady(&flash_pid_, "the flash simulator", [&control] {
      struct stat st;
      return stat(control.c_str(), &st) == 0;
    });
  }

  bool StartSyslog() {
    const std::string socket_path = plan_.root + "/dev/log";
    unlink(socket_path.c_str());
    syslog_pid_ = Start(Helper({"/sbin/syslogd", "-n", "-O", kMessages}, true));
    if (syslog_pid_ < 0) {
      Fail(ErrnoText("fork"));
      return false;
    }
    return WaitReady(&syslog_pid_, "syslogd", [&socket_path] {
      struct stat st;
      return lstat(socket_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    });
  }

  bool StartDaemons() {
    for (const std::string& daemon : plan_.daemons) {
      Spawn spawn = Helper({daemon, "-D"}, true);
      spawn.env.push_back("SANDBOX_STUB_QUIET=1");
      const pid_t pid = Start(spawn);
      int status = 0;
      if (pid < 0 || !children_.WaitFor(pid, DeadlineAfter(10), &status) || status != 0) {
        Fail("daemon " + daemon + " did not start (status " + std::to_string(StatusNumber(status)) +
             ")" + LogTail(plan_));
        return false;
      }
    }
    return true;
  }

  void RunCommand() {
    Spawn spawn;
    spawn.argv = plan_.argv;
    spawn.chroot_dir = plan_.root;
    spawn.env = BaseEnv();
    for (const std::string& entry : plan_.env) {
      const size_t equals = entry.find('=');
      if (equals == std::string::npos) continue;
      const std::string name = entry.substr(0, equals + 1);
      for (auto it = spawn.env.begin(); it != spawn.env.end();) {
        it = it->compare(0, name.size(), name) == 0 ? spawn.env.erase(it) : it + 1;
      }
      spawn.env.push_back(entry);
    }
    if (plan_.capture) {
      spawn.in = plan_.stdin_fd;
      spawn.out = plan_.stdout_fd;
      spawn.err = plan_.stderr_fd;
      spawn.new_session = true;
    }
    const pid_t pid = Start(spawn);
    if (pid < 0) {
      Fail(ErrnoText("fork"));
      return;
    }
    int status = 0;
    if (!children_.WaitFor(pid, DeadlineAfter(plan_.timeout_seconds), &status)) {
      Report(report_fd_, "timeout", std::to_string(plan_.timeout_seconds));
      kill(pid, SIGKILL);
      children_.WaitFor(pid, Clock::time_point::max(), &status);
    }
    status_ = StatusNumber(status);
    Report(report_fd_, "status", std::to_string(status_));
  }

  // SIGTERM: the simulator unmounts and leaves the state directory current.
  void StopFlash() {
    if (flash_pid_ <= 0) return;
    int status = 0;
    if (!children_.HasEnded(flash_pid_, &status)) {
      kill(flash_pid_, SIGTERM);
      if (!children_.WaitFor(flash_pid_, DeadlineAfter(10), &status)) {
        kill(flash_pid_, SIGKILL);
        Fail("the flash simulator did not stop within 10 seconds");
        return;
      }
    }
    if (status != 0) {
      Fail("the flash simulator ended with status " + std::to_string(StatusNumber(status)) +
           LogTail(plan_));
    }
  }

  // syslogd may still have messages queued in its socket: a last message of
  // our own, once it is in the file, shows that everything before it is too.
  void StopSyslog() {
    if (syslog_pid_ <= 0) return;
    int status;
    if (children_.HasEnded(syslog_pid_, &status)) {
      Fail("syslogd ended early with status " + std::to_string(StatusNumber(status)) +
           LogTail(plan_));
      return;
    }
    const std::string marker = "sandbox: end of command, status " + std::to_string(status_);
    if (SendToSyslog("<46>" + marker)) {
      const std::string messages = plan_.root + kMessages;
      const Clock::time_point deadline = DeadlineAfter(3);
      std::string content;
      while (Clock::now() < deadline && !(ReadWholeFile(messages, &content, messages_size_) &&
                                          content.find(marker) != std::string::npos)) {
        SleepMilliseconds(2);
      }
    }
    kill(syslog_pid_, SIGTERM);
    if (!children_.WaitFor(syslog_pid_, DeadlineAfter(5), &status)) kill(syslog_pid_, SIGKILL);
  }

  // Addressed relative to the root's /dev, as a socket address is too short
  // for some sandbox paths. Only teardown follows, which needs no working
  // directory.
  bool SendToSyslog(const std::string& message) {
    UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, "log", 4);
    if (sock.get() < 0 || chdir((plan_.root + "/dev").c_str()) != 0) return false;
    return sendto(sock.get(), message.data(), message.size(), 0,
                  reinterpret_cast<const struct sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(message.size());
  }

  const RunPlan& plan_;
  const int report_fd_;
  Children children_;
  pid_t flash_pid_ = -1;
  pid_t syslog_pid_ = -1;
  int status_ = -1;
  off_t messages_size_ = 0;
};

// The availability probe: what a run does first, without a root.
int Probe(bool need_flash, int report_fd) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Report(report_fd, "error", ErrnoText("cannot make the mounts private"));
    return 1;
  }
  if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    Report(report_fd, "error", ErrnoText("cannot mount proc"));
    return 1;
  }
  if (need_flash) {
    UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (fuse.get() < 0) {
      Report(report_fd, "error", ErrnoText("/dev/fuse"));
      return 1;
    }
  }
  Report(report_fd, "ok", "");
  return 0;
}

}  // namespace

// ---------------------------------------------------------------- public

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
  const std::string root = dir + "/root";
  const bool built = MakeSkeleton(root, error) && InstallBusybox(root, busybox, error) &&
                     InstallLibraryDirs(root, error) && InstallDevices(root, partitions, error) &&
                     InstallEtc(root, scenario, error) && InstallStubs(root, scenario, error) &&
                     InstallEventTexts(root, error) && PlaceFiles(root, scenario.files, error) &&
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
  if (!RunInNamespaces([&plan](int fd) { return Init(plan, fd).Main(); }, &report)) {
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
