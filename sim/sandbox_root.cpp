#include "sim/sandbox_root.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "sandbox_stubs.h"
#include "sandbox_texts.h"
#include "sim/flash_state.h"
#include "sim/sandbox_host.h"

namespace fs = std::filesystem;

namespace sandbox {
namespace internal {
namespace {

std::string FormatKeyValues(const KeyValues& pairs) {
  std::string text;
  for (const auto& [key, value] : pairs) text += key + "=\"" + value + "\"\n";
  return text;
}

KeyValues Merged(KeyValues base, const KeyValues& changes) {
  for (const auto& [key, value] : changes) SetKeyValue(&base, key, value);
  return base;
}

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

}  // namespace

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

bool BuildRoot(const std::string& root, const Scenario& scenario, const std::string& busybox,
               const std::vector<int>& partitions, std::string* error) {
  return MakeSkeleton(root, error) && InstallBusybox(root, busybox, error) &&
         InstallLibraryDirs(root, error) && InstallDevices(root, partitions, error) &&
         InstallEtc(root, scenario, error) && InstallStubs(root, scenario, error) &&
         InstallEventTexts(root, error) && PlaceFiles(root, scenario.files, error);
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
}  // namespace internal
}  // namespace sandbox
