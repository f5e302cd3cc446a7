// The appliance sandbox: a throwaway appliance root in which a program runs
// with the appliance's real, fixed paths (/etc/veltinfo.conf, /dev/mtdN,
// /usr/velt/etc/rc.d/..., /volume1/upd@te, /var/log/messages), isolated from
// the host by mount, pid, network, UTS and IPC namespaces.
//
// A sandbox directory DIR holds:
//   DIR/sandbox.conf   marks DIR as a sandbox; what a run needs besides the root
//   DIR/root/          the appliance root (see below)
//   DIR/flash/         the simulated flash chip's state directory (with a board
//                      layout only): chip.img, layout, locks, faults, trace.log
//   DIR/run.stdout, DIR/run.stderr   what the last captured run printed
//   DIR/run.log        what the sandbox's helpers (flash simulator, syslogd)
//                      printed during the last run
//
// The root:
//   /bin /sbin /usr/bin /usr/sbin   busybox and its applet links
//   /lib /lib64 /usr/lib ...        the host's library directories, bound
//                                   read-only during a run (symlinks where the
//                                   host has symlinks), so dynamically linked
//                                   host programs run unchanged
//   /dev/null /dev/zero /dev/urandom /dev/random /dev/tty   the host's devices,
//                                   bound during a run
//   /dev/flash                      the flash simulator's mount (during a run)
//   /dev/mtdN                       symlinks "flash/mtdN", one per partition
//   /dev/log                        syslogd's socket (during a run)
//   /proc                           a fresh proc of the run's pid namespace
//   /etc                            passwd, group, shadow, shells, crontab,
//                                   veltinfo.conf
//   /etc/stub-status/NAME           exit status chosen for a stub (see below)
//   /etc.defaults                   VERSION, veltinfo.conf
//   /usr/velt/etc/rc.d/S*.sh        stub service scripts
//   /usr/velt/sbin/smbd, nmbd       stub daemons
//   /usr/velt/pgsql/bin/psql, dropdb, /usr/velt/bin/veltindex   stub programs
//   /volume1/upd@te                 the package directory
//   /tmp (no /tmp/lock), /var/log, /var/run, /root, /home/admin
//   /var/log/messages               the syslog of every run (busybox syslogd;
//                                   each run adds syslogd's own start and exit
//                                   lines and "sandbox: end of command,
//                                   status N" around the command's lines)
//   /var/log/stub-calls.log         one line per stub call
//
// A stub appends "<program path> <args...>" to /var/log/stub-calls.log and
// exits with the number in /etc/stub-status/<file name>.<first argument> or
// else /etc/stub-status/<file name> (0 when neither exists). A stub daemon
// called with -D and status 0 also leaves a background process named like
// the program, its pid in /var/run/<name>.pid; that process appends
// "<program path> [SIGHUP]" or "<program path> [SIGTERM]" when it receives
// those signals and ends on SIGTERM.
//
// A run (Sandbox::Run) happens in fresh namespaces: as root directly, as
// another user inside a user namespace in which only the caller's own ids are
// mapped (user 0 in the sandbox is the caller; other ids, for example `su
// admin`, cannot be used then, and the flash needs /dev/fuse to be
// accessible). Inside, the sandbox makes all mounts private, mounts proc, binds
// the devices and library directories, starts the flash simulator with its
// mount point ROOT/dev/flash, starts `syslogd -n -O /var/log/messages`
// chrooted into the root and waits for /dev/log, starts the scenario's
// daemons, then runs the command chrooted into the root with working
// directory "/". Afterwards it stops the flash simulator (which saves the
// chip), flushes and stops syslogd, and kills whatever the command left
// running. Every mount lives in the run's own mount namespace, so nothing is
// left mounted on the host.
//
// Functions do not throw; failures come back as text.
#ifndef SIM_SANDBOX_H_
#define SIM_SANDBOX_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

// Ordered "key" -> "value" pairs, written as key="value" lines.
using KeyValues = std::vector<std::pair<std::string, std::string>>;

// Replaces the value of `key` in `pairs`, or appends the pair.
void SetKeyValue(KeyValues* pairs, const std::string& key, const std::string& value);

// A file or directory placed into the root after everything else (so it can
// replace a default file).
struct RootFile {
  std::string path;     // absolute path inside the root; parents are created
  std::string content;  // the file's bytes, when `source` is empty
  std::string source;   // a host file or directory to copy (recursively, modes kept)
  mode_t mode = 0644;   // mode of a `content` file
};

// What a sandbox is built from.
struct Scenario {
  // The flash board: a layout file for `filebay-flash create` (see
  // sim/flash_state.h); empty for a board without flash (no /dev/flash, no
  // /dev/mtdN, no DIR/flash).
  std::string layout_file;
  // A state directory whose layout, chip bytes and lock bits the board's flash
  // starts from (copied with `filebay-flash copy`, never changed) instead of
  // a chip made from `layout_file`, which must then be this state's layout.
  std::string flash_state;
  // Lines for DIR/flash/faults, the fault plan the simulator loads at mount
  // ("fault write mtd1 nth=1 errno=EIO", "set flash-type 1", ...).
  std::vector<std::string> faults;
  // /etc.defaults/VERSION and the two veltinfo.conf files: each pair replaces
  // the default value of its key or is appended. Defaults: VERSION
  // majorversion 2, minorversion 0, buildphase 3, buildnumber 500;
  // /etc.defaults/veltinfo.conf unique "veltara_powerpc_1hd", supportMTU "no",
  // defaultfs "ext3"; /etc/veltinfo.conf starts from the resulting factory
  // settings plus runsamba "yes", runftpd "yes", runnetbkp "no", MTUValue
  // "1500".
  KeyValues version;
  KeyValues default_settings;  // /etc.defaults/veltinfo.conf
  KeyValues settings;          // /etc/veltinfo.conf
  // Exit statuses of stubs: name ("S20pgsql.sh", "S20pgsql.sh.start", "psql")
  // -> status, written to /etc/stub-status/<name>.
  std::vector<std::pair<std::string, int>> stub_status;
  // Files and directories to place into the root.
  std::vector<RootFile> files;
  // Programs in the root (normally stub daemons such as /usr/velt/sbin/smbd)
  // started with "-D" before each run's command, so that they are running
  // when it starts. Their start is not recorded in the stub call log.
  std::vector<std::string> daemons;
  // Non-zero: the run's network namespace has an interface "eth0" (a tap
  // device, MTU 1500, up) whose driver reports this link speed in Mbit/s and
  // full duplex. Zero: there is no "eth0".
  int eth0_speed = 0;
};

// The simulator's programs. Empty paths: a scenario with a layout cannot be
// created or run.
struct Tools {
  std::string flash_tool;  // filebay-flash
  std::string flashsim;    // filebay-flashsim
  std::string busybox;     // a static busybox; empty: /bin/busybox, /usr/bin/busybox or PATH
};

// The tools found next to the program `self` (for example /proc/self/exe).
Tools ToolsBeside(const std::string& self);

struct RunOptions {
  // "NAME=VALUE" entries added to (or replacing in) the command's base
  // environment PATH=/bin:/sbin:/usr/bin:/usr/sbin HOME=/root USER=root
  // LOGNAME=root SHELL=/bin/sh (and the caller's TERM when `capture` is off).
  std::vector<std::string> env;
  // true: stdin is /dev/null, stdout and stderr go to DIR/run.stdout and
  // DIR/run.stderr and come back in the result. false: the command shares the
  // caller's standard streams (an interactive shell).
  bool capture = true;
  // The command is killed (SIGKILL) after this many seconds; 0: no limit.
  int timeout_seconds = 60;
};

struct RunResult {
  // true when the sandbox did its part: namespaces, mounts, flash simulator
  // start and stop, syslogd. When false, `error` says why and `status` may
  // still hold the command's status if it ran.
  bool ok = false;
  std::string error;
  // The command's exit status; 128 + N when it was killed by signal N
  // (SIGKILL after a time-out: `timed_out` is set too); -1 when it did not run.
  int status = -1;
  bool timed_out = false;
  std::string out;  // captured stdout
  std::string err;  // captured stderr
  // Lines this run added to /var/log/messages and /var/log/stub-calls.log.
  std::vector<std::string> syslog;
  std::vector<std::string> stub_calls;
};

// Empty when a sandbox run is possible here (namespaces can be created, proc
// can be mounted and, with `need_flash`, the tools exist and /dev/fuse can be
// opened inside); otherwise "unavailable: <reason>".
std::string Unavailable(const Tools& tools, bool need_flash);

class Sandbox {
 public:
  // Builds a new sandbox in `dir`, which must not exist or be empty. On
  // failure returns null with the reason in `error` and leaves `dir` behind
  // for inspection.
  static std::unique_ptr<Sandbox> Create(const std::string& dir, const Scenario& scenario,
                                         const Tools& tools, std::string* error);
  // Reopens a sandbox made by Create (possibly by another process).
  static std::unique_ptr<Sandbox> Open(const std::string& dir, const Tools& tools,
                                       std::string* error);
  // Copies this sandbox (root, flash state, sandbox.conf; `cp -a`) into
  // `dir`, which must not exist or be empty, and opens the copy: a second
  // sandbox without building a root again. Not while this one runs.
  std::unique_ptr<Sandbox> Clone(const std::string& dir, std::string* error) const;

  // Removes the directory unless it is to be kept (see Destroy).
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Runs argv (argv[0] an absolute path in the root, or a name looked up in
  // the command's PATH) in fresh namespaces, as described above.
  RunResult Run(const std::vector<std::string>& argv, const RunOptions& options = RunOptions());

  const std::string& dir() const { return dir_; }
  std::string root() const { return dir_ + "/root"; }
  // The host path of a path inside the root.
  std::string RootPath(const std::string& path) const { return root() + path; }
  bool has_flash() const { return has_flash_; }
  std::string FlashStateDir() const { return dir_ + "/flash"; }

  // A file of the root; false when it cannot be read.
  bool ReadRootFile(const std::string& path, std::string* content) const;
  // Every line of /var/log/messages, /var/log/stub-calls.log and the flash
  // state's trace.log (empty when the file does not exist).
  std::vector<std::string> SyslogLines() const;
  std::vector<std::string> StubCalls() const;
  std::vector<std::string> FlashTrace() const;

  // Keeps the directory when the sandbox goes away.
  void Keep() { keep_ = true; }
  // Removes the directory, unless Keep() was called, or FILEBAY_KEEP_SANDBOX
  // is "1" and `failed` is true, or FILEBAY_KEEP_SANDBOX is "all". A kept
  // directory is named on stderr. Refuses a directory without sandbox.conf or
  // with a mount below it. Returns false with the reason on failure.
  bool Destroy(bool failed, std::string* error);

 private:
  Sandbox(std::string dir, Tools tools) : dir_(std::move(dir)), tools_(std::move(tools)) {}
  bool Load(std::string* error);

  std::string dir_;
  Tools tools_;
  bool has_flash_ = false;
  int eth0_speed_ = 0;
  std::vector<std::string> daemons_;
  bool keep_ = false;
  bool destroyed_ = false;
};

// Removes a sandbox directory by path (the CLI's destroy), with the checks of
// Sandbox::Destroy.
bool DestroyDir(const std::string& dir, std::string* error);

}  // namespace sandbox

#endif  // SIM_SANDBOX_H_
