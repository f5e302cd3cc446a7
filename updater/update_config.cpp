#include "updater/update_config.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "lib/file_mode.h"
#include "lib/slib_file.h"
#include "lib/slib_file_line.h"
#include "sdk/velt_net.h"
#include "updater/ftp_accounts.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

constexpr char kSource[] = "updater";
// Messages of the steps name the entry point they belong to.
constexpr char kUpdateConfig[] = "UPDTUpdateConfig";

constexpr char kRcAtalk[] = "/usr/velt/etc/rc.atalk";
constexpr char kPapdConf[] = "/usr/velt/etc/papd.conf";
constexpr char kProfile[] = "/etc/profile";
constexpr char kJumboFrameScript[] = "/usr/velt/etc/rc.d/S78JumboFrame.sh";
constexpr char kManutilConf[] = "/usr/velt/etc/manutil.conf";
constexpr char kRc[] = "/etc/rc";
constexpr char kFstab[] = "/etc/fstab";
constexpr char kPhpIni[] = "/usr/velt/etc/php.ini";

constexpr size_t kMessageSize = 2048;
constexpr size_t kSaveCommandSize = 1024;
constexpr size_t kPhotoCommandSize = 512;
constexpr int kMtuValueSize = 32;
constexpr int kPortValueSize = 128;
constexpr int kRsyncdLineSize = 64;
constexpr long long kFtpPassivePortMax = 1024;

// Runs a command through the shell and returns what system() returned.
int Shell(const char* command) { return system(command); }

// Unlinks `path`: 0 when it is gone (also when it was never there),
// otherwise the errno of the failure.
int RemoveError(const char* path) {
  if (unlink(path) == 0 || errno == ENOENT) return 0;
  return errno;
}

// Formats a command into `command` (`size` bytes). A command that does not
// fit is never run cut short: false, logged, and the buffer is emptied.
__attribute__((format(printf, 4, 5))) bool FormatCommand(const char* function, char* command,
                                                         size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(command, size, format, args);
  va_end(args);
  if (length >= 0 && static_cast<size_t>(length) < size) return true;
  command[0] = '\0';
  UPDTMigrationLog("%s:%d(%s) Command does not fit in %zu bytes, not run", kSource, __LINE__,
                   function, size);
  return false;
}

// Steps 1, 2 and 6: a removed file whose failure names the path.
bool RemoveCountedFile(const char* path) {
  const int error = RemoveError(path);
  if (error == 0) return true;
  UPDTMigrationLog("%s:%d(%s) Failed to update [%s], errno=(%d)[%s]", kSource, __LINE__,
                   kUpdateConfig, path, error, strerror(error));
  return false;
}

bool AddFtpAccounts() {
  if (UPDTAddFtpUserGroup() >= 0) return true;
  UPDTMigrationLog("%s (%d) Failed to add ftp user/group.", kSource, __LINE__);
  return false;
}

bool RemoveProfile() {
  const int error = RemoveError(kProfile);
  if (error == 0) return true;
  UPDTMigrationLog("%s:%d(%s) Failed to remove /etc/profile, errno=(%d)[%s]", kSource, __LINE__,
                   kUpdateConfig, error, strerror(error));
  return false;
}

bool RemoveJumboFrameScript() {
  const int error = RemoveError(kJumboFrameScript);
  if (error == 0) return true;
  // The message names the directory, not the script.
  UPDTMigrationLog("%s:%d(%s) Failed to remove /usr/velt/etc/rc.d, errno=(%d)[%s]", kSource,
                   __LINE__, kUpdateConfig, error, strerror(error));
  return false;
}

// Runs one command of the configuration copy; any non-zero result fails.
bool RunSaveCommand(const char* command) {
  const int result = Shell(command);
  const int error = errno;
  if (result == 0) return true;
  UPDTMigrationLog("%s:%d(%s) Failed to execute szCmd=[%s], errno=(%d)[%s]", kSource, __LINE__,
                   kUpdateConfig, command, error, strerror(error));
  return false;
}

// Step 7: the old boot files go, and the old configuration and logs are kept
// in "s@vedconfig" on the volume. Every part runs whatever the others did.
bool SaveOldConfiguration() {
  bool ok = true;
  int error = RemoveError(kRc);
  if (error != 0) {
    UPDTMigrationLog("%s:%d(%s) Failed to remove /etc/rc, errno=(%d)[%s]", kSource, __LINE__,
                     kUpdateConfig, error, strerror(error));
    ok = false;
  }
  error = RemoveError(kFstab);
  if (error != 0) {
    UPDTMigrationLog("%s:%d(%s) Failed to remove /etc/fstab, errno=(%d)[%s]", kSource, __LINE__,
                     kUpdateConfig, error, strerror(error));
    ok = false;
  }
  char command[kSaveCommandSize];
  memset(command, 0, sizeof command);
  if (!FormatCommand(kUpdateConfig, command, sizeof command, "/bin/mkdir -p %s/s@vedconfig",
                     gszVolume) ||
      !RunSaveCommand(command)) {
    ok = false;
  }
  if (!FormatCommand(kUpdateConfig, command, sizeof command,
                     "/bin/cp -a /writeable/configs/* /writeable/logs/* %s/s@vedconfig",
                     gszVolume) ||
      !RunSaveCommand(command)) {
    ok = false;
  }
  return ok;
}

void RemovePhpIni() {
  const int error = RemoveError(kPhpIni);
  if (error == 0) return;
  UPDTMigrationLog("%s:%d(%s) Failed to remove /usr/velt/etc/php.ini, errno=(%d)[%s]", kSource,
                   __LINE__, kUpdateConfig, error, strerror(error));
}

enum class CrontabFilter { kDone, kGrepFailed, kMoveFailed };

// Steps 9 and 10: "grep -v '<pattern>' /etc/crontab" into a temporary file,
// moved over the crontab with "mv -f". The temporary file has a unique name
// and is created here exclusively, so a link planted in /tmp cannot redirect
// the write; it gets the crontab's mode and owner. A grep that could not
// run (-1) or failed (status 2: no crontab, an unreadable one) leaves the
// files as they are: moving its output would install an empty crontab. A
// grep that selects no line (status 1) still replaces the crontab.
CrontabFilter FilterCrontab(const char* pattern) {
  char tmp[] = "/tmp/crontab_tmp.XXXXXX";
  const int fd = mkstemp(tmp);
  if (fd < 0) return CrontabFilter::kGrepFailed;
  struct stat crontab;
  if (stat("/etc/crontab", &crontab) == 0) TakeModeAndOwner(fd, crontab);
  close(fd);
  char command[256];
  snprintf(command, sizeof command, "grep -v '%s' /etc/crontab > %s", pattern, tmp);
  const int grep = Shell(command);
  if (grep == -1 || !WIFEXITED(grep) || WEXITSTATUS(grep) > 1) {
    unlink(tmp);
    return CrontabFilter::kGrepFailed;
  }
  snprintf(command, sizeof command, "mv -f %s /etc/crontab", tmp);
  const int move = Shell(command);
  if (move != 0) unlink(tmp);
  return move == -1 ? CrontabFilter::kMoveFailed : CrontabFilter::kDone;
}

void FilterVacuumdbFromCrontab() {
  if (FilterCrontab("vacuumdb") != CrontabFilter::kDone) {
    UPDTMigrationLog("%s(%d) Failed to remove vacuumdb from crontab.", kSource, __LINE__);
  }
}

void FilterHtmlCleanupFromCrontab() {
  // The backslash makes grep match the star itself.
  switch (FilterCrontab("/bin/rm -f /var/log/\\*.html")) {
    case CrontabFilter::kGrepFailed:
      UPDTMigrationLog("%s(%d) Failed to remove \"rm -f /var/log/\\*.html\" from crontab.", kSource,
                       __LINE__);
      break;
    case CrontabFilter::kMoveFailed:
      UPDTMigrationLog("%s(%d) Failed to remove \"rm -f /var/log/*.html\" from crontab.", kSource,
                       __LINE__);
      break;
    case CrontabFilter::kDone:
      break;
  }
}

// Step 11: jumbo frame sizes of the old firmware that the new one does not
// offer become the nearest smaller ones.
void LowerJumboFrameMtu() {
  char value[kMtuValueSize];
  memset(value, 0, sizeof value);
  if (SLIBFileGetKeyValue(UPDT_VELTINFO_FILE, "MTUValue", value, sizeof value, 0) <= 0) return;
  const char* lowered = nullptr;
  if (strcmp(value, "4074") == 0) lowered = "4000";
  if (strcmp(value, "9000") == 0) lowered = "8000";
  if (lowered == nullptr) return;
  // The settings file holds MTUValue="8000"; SLIBFileSetKeyValue with the
  // format "%s=\"%s\"\n" would hand the format the old line instead of the
  // key for a key that is already there, so the quoted writer is used.
  if (SLIBFileSetQuotedKeyValue(UPDT_VELTINFO_FILE, "MTUValue", lowered) < 0) {
    UPDTMigrationLog("%s(%d) Failed to update MTUValue in /etc/veltinfo.conf.", kSource, __LINE__);
  }
}

// A port number as read: base 10, text that does not begin with digits is 0,
// kept within the range of an int.
long long PortNumber(const char* text) {
  long long value = strtoll(text, nullptr, 10);
  if (value > 0x7FFFFFFF) value = 0x7FFFFFFF;
  if (value < -0x7FFFFFFF) value = -0x7FFFFFFF;
  return value;
}

// Runs one statement on the photo database as user admin.
void RunPhotoStatement(const char* statement) {
  char command[kPhotoCommandSize];
  memset(command, 0, sizeof command);
  if (!FormatCommand("UpdatePhotoDB", command, sizeof command,
                     "su -l admin -c \"/usr/velt/pgsql/bin/psql photo -c '%s'\"", statement)) {
    return;
  }
  Shell(command);
}

}  // namespace

void UPDTMigrationLog(const char* format, ...) {
  char message[kMessageSize];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  syslog(LOG_ERR, "%s", message);
  UPDTLog(message);
}

int UPDTUpdateConfig(void) {
  bool ok = true;
  if (gblCfgAtalk && !RemoveCountedFile(kRcAtalk)) ok = false;
  if (gblCfgPapd && !RemoveCountedFile(kPapdConf)) ok = false;
  if (gblCfgFtpUser && !AddFtpAccounts()) ok = false;
  if (gblCfgProfile && !RemoveProfile()) ok = false;
  if (gblCfgJumboFrame && !RemoveJumboFrameScript()) ok = false;
  if (!RemoveCountedFile(kManutilConf)) ok = false;
  if (gblCfgRcFstab && !SaveOldConfiguration()) ok = false;
  RemovePhpIni();
  FilterVacuumdbFromCrontab();
  FilterHtmlCleanupFromCrontab();
  if (gblCfgMTU) LowerJumboFrameMtu();
  return ok ? 0 : -1;
}

int UpdateFTPPassivePortRange(void) {
  char value[kPortValueSize];
  memset(value, 0, sizeof value);
  if (SLIBFileGetKeyValue(UPDT_VELTINFO_FILE, "ftplowport", value, sizeof value, 0) < 0) {
    UPDTMigrationLog("%s:%d(%s) SLIBFileGetKeyValue(SZF_VELT_INFO, SZK_FTP_LOW_PORT) fail", kSource,
                     __LINE__, __func__);
    return -1;
  }
  const long long low = PortNumber(value);
  memset(value, 0, sizeof value);
  if (SLIBFileGetKeyValue(UPDT_VELTINFO_FILE, "ftphighport", value, sizeof value, 0) < 0) {
    UPDTMigrationLog("%s:%d(%s) SLIBFileGetKeyValue(SZF_VELT_INFO, SZK_FTP_HIGH_PORT) fail",
                     kSource, __LINE__, __func__);
    return -1;
  }
  const long long high = PortNumber(value);
  if (high - low + 1 <= kFtpPassivePortMax) return 0;

  char high_port[kPortValueSize];
  snprintf(high_port, sizeof high_port, "%lld", low + kFtpPassivePortMax - 1);
  if (VELTINFOSetKeyValue("ftphighport", high_port) < 0) {
    UPDTMigrationLog("%s:%d(%s) VELTINFOSetKeyValue(SZK_FTP_HIGH_PORT, szBuf=[%s]) fail", kSource,
                     __LINE__, __func__, high_port);
    return -1;
  }
  return 0;
}

int UpdateRsyncdConf(void) {
  static const char kNoChroot[] = "use chroot = no";
  char line[kRsyncdLineSize];
  memset(line, 0, sizeof line);
  const int found = SLIBFileGetLine(UPDT_RSYNCD_CONF, kNoChroot, line, sizeof line, 0);
  if (found < 0) return -1;
  if (found == 0 &&
      SLIBFileAddLine(UPDT_RSYNCD_CONF, "lock file =", kNoChroot, OP_FIND_PREFIX) < 0) {
    // The message names the section "NetBackup" as the key.
    UPDTMigrationLog(
        "%s %s(%d) : SLIBFileAddLine(szFile=[%s] szKey=[%s] szLine=[%s] flag=OP_FIND_PREFIX) fail",
        kSource, "UpdateRsyncdConf", __LINE__, UPDT_RSYNCD_CONF, "NetBackup", kNoChroot);
    return -1;
  }
  chmod(UPDT_RSYNCD_CONF, 0644);
  return 0;
}

int UpdatePhotoDB(void) {
  if (gPhotoDbUpgrade & 0x1) {
    RunPhotoStatement("ALTER TABLE photo_image ALTER timetaken TYPE varchar(64)");
    RunPhotoStatement("ALTER TABLE photo_user ADD COLUMN admin bool DEFAULT false");
  }
  if (gPhotoDbUpgrade & 0x2) {
    UPDTMigrationLog("Update photo db to add video tables");
    // The column name comment stands in escaped double quotes inside the
    // shell's double-quoted argument.
    RunPhotoStatement(
        "CREATE TABLE video_comment(id serial NOT NULL,path text NOT NULL,name varchar(100),"
        "email varchar(128),\\\"comment\\\" text,date timestamp,updated char(1),"
        "CONSTRAINT video_comment_pkey PRIMARY KEY (id)) WITH OIDS;"
        "ALTER TABLE video_comment OWNER TO admin;");
    RunPhotoStatement(
        "CREATE TABLE video_desc(id serial NOT NULL,path text NOT NULL, title text, "
        "description text,updated char(1),CONSTRAINT video_pkey PRIMARY KEY (id),"
        "CONSTRAINT video_path_key UNIQUE (path)) WITH OIDS;"
        "ALTER TABLE video_desc OWNER TO admin;");
  }
  if (gblPhotoDbReset == 1) Shell("su -l admin -c \"/usr/velt/pgsql/bin/dropdb mediaserver\"");
  Shell("/usr/velt/bin/veltindex -R all");
  return 0;
}
