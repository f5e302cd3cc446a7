#include "sdk/velt_service.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <iterator>
#include <memory>
#include <set>
#include <string>

#include "lib/slib_error.h"
#include "lib/slib_file.h"
#include "lib/slib_lock.h"
#include "lib/unique_fd.h"
#include "sdk/slib_exec.h"
#include "sdk/velt_minimal_modules.h"
#include "sdk/velt_service_events.h"

namespace {

constexpr char kSettings[] = "/etc/veltinfo.conf";
constexpr char kRcDir[] = "/usr/velt/etc/rc.d/";
constexpr int kServiceLockRequest = 0x1846;
constexpr int kServiceLocks = 0x1840;
constexpr int kLockTimeoutSeconds = 5;
constexpr size_t kCommNameLength = 15;
constexpr int kTerminatePasses = 50;
constexpr useconds_t kTerminateWaitMicroseconds = 100000;

constexpr int kKillAllSeconds = 5;

int64_t MonotonicMilliseconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

std::string Script(const char* name) { return std::string(kRcDir) + name; }

int RunScript(const char* name, const char* argument) {
  return SLIBCExec(Script(name).c_str(), argument, nullptr, nullptr, nullptr);
}

// The script argument of the operation: "stop", "start", or "restart" for
// both restart and reload.
const char* ScriptArgument(int op) {
  switch (op) {
    case VELT_SERVICE_STOP:
      return "stop";
    case VELT_SERVICE_START:
      return "start";
    default:
      return "restart";
  }
}

bool SwitchIsOn(const char* key) { return VELTServiceSettingIsYes(kSettings, key) == 1; }

// The name and state of process `pid` from /proc/<pid>/stat
// ("pid (name) S ..."; the name may itself hold ")" and blanks).
bool ReadProcessStat(const char* pid, std::string* name, char* state) {
  const std::string path = std::string("/proc/") + pid + "/stat";
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  char buffer[512];
  const ssize_t n = read(fd.get(), buffer, sizeof buffer - 1);
  if (n <= 0) return false;
  const std::string stat(buffer, static_cast<size_t>(n));
  const size_t open_paren = stat.find('(');
  const size_t close_paren = stat.rfind(')');
  if (open_paren == std::string::npos || close_paren == std::string::npos ||
      close_paren < open_paren || close_paren + 2 >= stat.size()) {
    return false;
  }
  *name = stat.substr(open_paren + 1, close_paren - open_paren - 1);
  *state = stat[close_paren + 2];
  return true;
}

bool IsPidName(const char* text) {
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

// ------------------------------------------------------------ services

int AppleTalk(int op) {
  constexpr char kScript[] = "S81atalk.sh";
  switch (op) {
    case VELT_SERVICE_STOP:
      return RunScript(kScript, "stop") == 0 ? VELT_SVC_DONE_APPLETALK : 0;
    case VELT_SERVICE_START:
      RunScript(kScript, "start");
      return VELT_SVC_DONE_APPLETALK;
    case VELT_SERVICE_RESTART:
      RunScript(kScript, "stop");
      return RunScript(kScript, "start") == 0 ? VELT_SVC_DONE_APPLETALK : 0;
    default:
      if (VELTAppleTalkIsRunning() != 1) return 0;
      if (SLIBCExec("/usr/bin/killall", "-HUP", "afpd", nullptr, nullptr) != 0) return 0;
      return SLIBCExec("/usr/bin/killall", "-HUP", "papd", nullptr, nullptr) == 0
                 ? VELT_SVC_DONE_APPLETALK
                 : 0;
  }
}

int StartSamba() {
  const int smbd = SLIBCExec("/usr/velt/sbin/smbd", "-D", nullptr, nullptr, nullptr);
  const int nmbd = SLIBCExec("/usr/velt/sbin/nmbd", "-D", nullptr, nullptr, nullptr);
  return smbd != -1 && nmbd != -1 ? VELT_SVC_DONE_SMB : 0;
}

int Samba(int op) {
  int done = 0;
  switch (op) {
    case VELT_SERVICE_STOP:
      if (VELTServiceKillAll("smbd") == 0 && VELTServiceTerminate("nmbd", 0) != -1) {
        done = VELT_SVC_DONE_SMB;
      }
      break;
    case VELT_SERVICE_START:
      if (SwitchIsOn("runsamba")) done = StartSamba();
      break;
    case VELT_SERVICE_RESTART: {
      const int smbd = VELTServiceTerminate("smbd", 0);
      const int nmbd = VELTServiceTerminate("nmbd", 0);
      if (smbd != -1 && nmbd != -1 && SwitchIsOn("runsamba")) {
        sleep(1);
        done = StartSamba();
      }
      break;
    }
    default:
      if (SwitchIsOn("runsamba") &&
          system("/bin/kill -HUP `/bin/cat /var/run/smbd.pid` > /dev/null 2>&1") == 0) {
        done = VELT_SVC_DONE_SMB;
      }
      break;
  }
  VELTWebFileManagerRefreshShares();
  return done;
}

int StartFtp() { return RunScript("S99ftpd.sh", "start") != -1 ? VELT_SVC_DONE_FTP : 0; }

int Ftp(int op) {
  switch (op) {
    case VELT_SERVICE_STOP:
      return VELTServiceKillAll("ftpd") == 0 ? VELT_SVC_DONE_FTP : 0;
    case VELT_SERVICE_START:
      return SwitchIsOn("runftpd") ? StartFtp() : 0;
    case VELT_SERVICE_RESTART:
      if (VELTServiceTerminate("ftpd", 0) == -1 || !SwitchIsOn("runftpd")) return 0;
      sleep(1);
      return StartFtp();
    default:
      return SwitchIsOn("runftpd") && system("/usr/bin/killall -HUP ftpd > /dev/null 2>&1") == 0
                 ? VELT_SVC_DONE_FTP
                 : 0;
  }
}

// One script with "stop", "start" or "restart"; the bit when it did not fail.
int SingleScript(const char* script, int op, int bit) {
  return RunScript(script, ScriptArgument(op)) >= 0 ? bit : 0;
}

struct GroupMember {
  const char* script;
  int bit;
};

int RunGroup(const GroupMember* members, size_t count, const char* argument) {
  int done = 0;
  for (size_t i = 0; i < count; ++i) {
    if (RunScript(members[i].script, argument) >= 0) done |= members[i].bit;
  }
  return done;
}

int DatabaseGroup(int op) {
  static const GroupMember kStopOrder[] = {
      {"S99iTunes.sh", VELT_SVC_DONE_MUSIC},       {"S86veltdms.sh", VELT_SVC_DONE_MEDIA},
      {"S66veltindexd.sh", VELT_SVC_DONE_INDEXER}, {"S25download.sh", VELT_SVC_DONE_DOWNLOAD},
      {"S20pgsql.sh", VELT_SVC_DONE_PGSQL},        {"S21mysql.sh", VELT_SVC_DONE_MYSQL},
  };
  static const GroupMember kStartOrder[] = {
      {"S20pgsql.sh", VELT_SVC_DONE_PGSQL},       {"S21mysql.sh", VELT_SVC_DONE_MYSQL},
      {"S25download.sh", VELT_SVC_DONE_DOWNLOAD}, {"S66veltindexd.sh", VELT_SVC_DONE_INDEXER},
      {"S86veltdms.sh", VELT_SVC_DONE_MEDIA},     {"S99iTunes.sh", VELT_SVC_DONE_MUSIC},
  };
  constexpr size_t kDependents = 4;  // the first four of kStopOrder, the last four of kStartOrder
  switch (op) {
    case VELT_SERVICE_STOP:
      return RunGroup(kStopOrder, std::size(kStopOrder), "stop");
    case VELT_SERVICE_START:
      return RunGroup(kStartOrder, std::size(kStartOrder), "start");
    default:
      RunGroup(kStopOrder, kDependents, "stop");
      RunScript("S20pgsql.sh", "restart");
      RunScript("S21mysql.sh", "restart");
      RunGroup(kStartOrder + std::size(kStartOrder) - kDependents, kDependents, "start");
      return 0;
  }
}

int NetworkBackup(int op) {
  if (!SwitchIsOn("runnetbkp")) return 0;
  if (op != VELT_SERVICE_STOP && op != VELT_SERVICE_START) return 0;
  return VELTNetBackupDaemonControl(op) == 0 ? VELT_SVC_DONE_NETBKP : 0;
}

int UserWeb(int op) {
  if (op == VELT_SERVICE_RELOAD) {
    // The whole command line is the program path: there is no such program,
    // so this reload always fails. Kept as the appliance has it.
    return SLIBCExec("/bin/kill -HUP `cat /var/run/httpd-user.pid`", nullptr, nullptr, nullptr,
                     nullptr) >= 0
               ? VELT_SVC_DONE_WEB
               : 0;
  }
  return SingleScript("S97apache-user.sh", op, VELT_SVC_DONE_WEB);
}

int Download(int op) {
  if (op != VELT_SERVICE_STOP && op != VELT_SERVICE_START) return 0;
  return SingleScript("S25download.sh", op, VELT_SVC_DONE_DOWNLOAD);
}

// "stop" or "start"; restart is a stop and, when that did not fail, a start.
int StopStartScript(const char* script, int op, int bit) {
  switch (op) {
    case VELT_SERVICE_STOP:
    case VELT_SERVICE_START:
      return SingleScript(script, op, bit);
    case VELT_SERVICE_RESTART:
      if (RunScript(script, "stop") < 0) return 0;
      return RunScript(script, "start") >= 0 ? bit : 0;
    default:
      return 0;
  }
}

int ActOnServices(int mask, int op) {
  const bool database_group = (mask & VELT_SVC_DATABASE) != 0;
  int done = 0;
  if (mask & VELT_SVC_APPLETALK) done |= AppleTalk(op);
  if (mask & VELT_SVC_SMB) done |= Samba(op);
  if (mask & VELT_SVC_FTP) done |= Ftp(op);
  if ((mask & VELT_SVC_MEDIA) && !database_group) {
    done |= SingleScript("S86veltdms.sh", op, VELT_SVC_DONE_MEDIA);
  }
  if ((mask & VELT_SVC_MUSIC) && !database_group) {
    done |= SingleScript("S99iTunes.sh", op, VELT_SVC_DONE_MUSIC);
  }
  if ((mask & VELT_SVC_INDEXER) && !database_group) {
    done |= SingleScript("S66veltindexd.sh", op, VELT_SVC_DONE_INDEXER);
  }
  if (database_group) done |= DatabaseGroup(op);
  if (mask & VELT_SVC_NETBKP) done |= NetworkBackup(op);
  if (mask & VELT_SVC_WEB) done |= UserWeb(op);
  if ((mask & VELT_SVC_DOWNLOAD) && !database_group) done |= Download(op);
  if (mask & VELT_SVC_PRINTER) done |= StopStartScript("S55lpd.sh", op, VELT_SVC_DONE_PRINTER);
  if (mask & VELT_SVC_SCHEDULER) {
    done |= StopStartScript("S04crond.sh", op, VELT_SVC_DONE_SCHEDULER);
  }
  if (mask & VELT_SVC_THUMBNAIL) {
    done |= StopStartScript("S77veltmkthumbd.sh", op, VELT_SVC_DONE_THUMBNAIL);
  }
  return done;
}

int ReportNetServiceFailure(const char* function, int line) {
  syslog(LOG_ERR, "%s(%d): VELTNetService return -1", function, line);
  return -1;
}

}  // namespace

int VELTServiceSettingIsYes(const char* path, const char* key) {
  const int saved_error = SLIBCErrGet();
  char value[8] = "";
  const bool yes =
      SLIBFileGetKeyValue(path, key, value, sizeof value, 0) > 0 && strcmp(value, "yes") == 0;
  SLIBCErrSet(saved_error);
  return yes ? 1 : 0;
}

int VELTServiceFindPids(const char* name, int* pids, int max) {
  if (name == nullptr || pids == nullptr || max < 0) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
  if (!proc) {
    SLIBCErrSet(SLIB_ERR_OPEN);
    return -1;
  }
  const std::string wanted = std::string(name).substr(0, kCommNameLength);
  const pid_t self = getpid();
  int count = 0;
  while (count < max) {
    const struct dirent* entry = readdir(proc.get());
    if (entry == nullptr) break;
    if (!IsPidName(entry->d_name)) continue;
    std::string process_name;
    char state = 0;
    // A process that ended meanwhile has no stat any more: not a match.
    if (!ReadProcessStat(entry->d_name, &process_name, &state)) continue;
    if (process_name != wanted || state == 'Z' || state == 'X') continue;
    const int pid = atoi(entry->d_name);
    if (pid == self) continue;
    pids[count++] = pid;
  }
  return count;
}

int VELTServiceKillAll(const char* name) {
  int pids[VELT_SERVICE_MAX_PIDS];
  const int64_t give_up = MonotonicMilliseconds() + int64_t{kKillAllSeconds} * 1000;
  for (;;) {
    const int count = VELTServiceFindPids(name, pids, VELT_SERVICE_MAX_PIDS);
    if (count < 0) return -1;
    if (count == 0) return 0;
    // A process that cannot be killed must not keep the stop, and the
    // service locks, forever: the stop fails instead.
    if (MonotonicMilliseconds() >= give_up) {
      syslog(LOG_ERR, "%s(%d): %d [%s] still running after %d seconds, give up", __func__, __LINE__,
             count, name, kKillAllSeconds);
      return -1;
    }
    for (int i = 0; i < count; ++i) {
      char command[64];
      snprintf(command, sizeof command, "/bin/kill -9 %d > /dev/null 2>&1", pids[i]);
      // Whether the kill worked shows in the next lookup.
      const int ignored = system(command);
      (void)ignored;
    }
  }
}

int VELTServiceTerminate(const char* name, int force) {
  if (name == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  const int signal_number = force ? SIGKILL : SIGTERM;
  std::set<int> signalled;
  int pids[VELT_SERVICE_MAX_PIDS];
  for (int pass = 0; pass < kTerminatePasses; ++pass) {
    const int count = VELTServiceFindPids(name, pids, VELT_SERVICE_MAX_PIDS);
    if (count < 0) return -1;
    for (int i = 0; i < count; ++i) {
      if (pids[i] > 0 && kill(pids[i], signal_number) == 0) signalled.insert(pids[i]);
    }
    if (force || count == 0) break;
    usleep(kTerminateWaitMicroseconds);
  }
  return static_cast<int>(signalled.size());
}

int VELTNetService(int mask, int op) {
  if (mask == 0 || op < VELT_SERVICE_STOP || op > VELT_SERVICE_RELOAD) {
    syslog(LOG_ERR, "%s(%d):  bad parameter", __func__, __LINE__);
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return -1;
  }
  if (ErrSLIBFileLock(kServiceLockRequest, kLockTimeoutSeconds) != 0) {
    syslog(LOG_ERR, "%s(%d): lock failed", __func__, __LINE__);
    return -1;
  }
  const int done = ActOnServices(mask, op);
  ErrSLIBFileUnlock(kServiceLocks);
  return done;
}

int ErrNetServiceStop(void) {
  const int done = VELTNetService(-1, VELT_SERVICE_STOP);
  if (done == -1) return ReportNetServiceFailure(__func__, __LINE__);
  VELTServiceRecordEvents(VELT_SERVICE_STOP, done);
  return 0;
}

int ErrNetServiceStart(void) {
  const int done = VELTNetService(-1, VELT_SERVICE_START);
  if (done == -1) return ReportNetServiceFailure(__func__, __LINE__);
  VELTServiceRecordEvents(VELT_SERVICE_START, done);
  return 0;
}

int VELTServiceNetControl(int op) {
  int result = 0;
  if (op == VELT_SERVICE_STOP) {
    result = ErrNetServiceStop();
  } else if (op == VELT_SERVICE_START) {
    result = ErrNetServiceStart();
  }
  if (result == -1) {
    const int saved_errno = errno;
    syslog(LOG_ERR, "%s(%d)Failed to stop net  error=%d ,strerr=%s", "sdk/veltservice", __LINE__,
           SLIBCErrGet(), strerror(saved_errno));
    return -1;
  }
  return 0;
}
