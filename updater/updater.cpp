// updater [-h][-g][-v vol]: applies one unpacked update package from its
// working directory. The run checks the package, stops the network services,
// backs up, rewrites and verifies the flash (rolling back on failure),
// migrates the old configuration and leaves the hard-disk archive on the
// volume for the next boot. Its exit status is the result code; the caller
// follows it in /tmp/update.progress and /tmp/update.message.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <syslog.h>
#include <unistd.h>

#include "lib/slib_file.h"
#include "lib/source_name.h"
#include "sdk/kernel.h"
#include "sdk/platform_identity.h"
#include "sdk/slib_exec.h"
#include "sdk/velt_mtd.h"
#include "sdk/velt_net.h"
#include "sdk/velt_service.h"
#include "updater/fis_record.h"
#include "updater/flash_patch.h"
#include "updater/msys_update.h"
#include "updater/package_analysis.h"
#include "updater/patch_plan.h"
#include "updater/update_config.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

constexpr const char* kSourceFile = SourceBaseName(__FILE__);

constexpr char kFactorySettings[] = "/etc.defaults/veltinfo.conf";
constexpr char kSettings[] = "/etc/veltinfo.conf";
constexpr char kHardDiskArchive[] = "hda1.tgz";
constexpr char kNextBootArchive[] = "VeltUpgrade.tar.gz";
constexpr char kDatabaseScript[] = "/usr/velt/etc/rc.d/S20pgsql.sh";
constexpr char kRebootMessage[] = "To perform upgrade task, you have to REBOOT your Filebay first.";
constexpr int kUptimeLimitSeconds = 300;

enum ResultCode {
  kSuccess = 0,
  kCurrentDirectoryFailed = 1,
  kReturnDirectoryFailed = 2,
  kWorkDirectoryFailed = 3,
  kBackupFailed = 15,
  kOutOfMemory = 16,
  kConfigFailed = 17,
  kDirectoryReadFailed = 18,
  kPlanFailed = 19,
  kPatchFailed = 20,
  kMigrationStepFailed = 21,
  kDriverBufferRefused = 23,
  kRebootNeeded = 24,
};

enum class Options { kRun, kHelp, kError };

// The run's own state besides the process-wide variables.
struct Run {
  int code = kSuccess;
  int start_directory = -1;
  unsigned char* fis_records = nullptr;
  int fis_count = 0;
  char mtu[16] = {0};
  bool restore_mtu = false;
};

void SetStage(char letter, int value) {
  gcProgressLetter = letter;
  UPDTSetProgress(letter, value);
}

void LogAndRecord(const char* text) {
  syslog(LOG_ERR, "%s", text);
  UPDTLog(text);
}

// Characters that the shell neither splits nor interprets; paths that end up
// in shell commands must consist of these only.
bool IsShellSafe(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         strchr("._@+/-", c) != nullptr;
}

// The first character of `path` the shell would treat specially, or 0.
char FirstUnsafeCharacter(const char* path) {
  for (const char* c = path; *c != '\0'; ++c) {
    if (!IsShellSafe(*c)) return *c;
  }
  return 0;
}

void PrintUsage() {
  // The banner: a stored text, the year, a second stored text.
  printf("%s%d%s\n", "updater, firmware update of the storage appliance, ", 2007,
         ", flash and configuration");
  printf("updater [-h][-g][-v vol]\n");
  printf(" -g: for group update\n");
  printf(" -v: specify an avaible volume for upgrade task.\n");
}

Options ReadOptions(int argc, char** argv) {
  opterr = 0;  // option errors go to syslog, not to standard error
  int option;
  while ((option = getopt(argc, argv, "hgv:")) != -1) {
    switch (option) {
      case 'h':
        PrintUsage();
        return Options::kHelp;
      case 'g':
        gblGroupUpdate = 1;
        break;
      case 'v':
        // A volume cut to fit would name another directory: refused like a
        // missing one.
        if (strlen(optarg) >= sizeof(gszVolume)) {
          syslog(LOG_ERR, "updater: invalid option for -v [mount_point]\n");
          return Options::kError;
        }
        snprintf(gszVolume, sizeof(gszVolume), "%s", optarg);
        break;
      default:
        if (option == '?' && optopt == 'v') {
          syslog(LOG_ERR, "updater: invalid option for -v [mount_point]\n");
        } else {
          syslog(LOG_ERR, "updater: invalid option [%c]\n", option);
        }
        return Options::kError;
    }
  }
  const char unsafe = FirstUnsafeCharacter(gszVolume);
  if (unsafe != 0) {
    syslog(LOG_ERR, "updater: invalid character [%c] in volume [%s]\n", unsafe, gszVolume);
    return Options::kError;
  }
  return Options::kRun;
}

// A program started by path works in its own directory, one started by bare
// name in the volume's "upd@te" directory. A program path that does not fit
// is refused: cut short, it could name a parent directory holding another
// package.
int ChooseWorkDir(const char* program) {
  if (program == nullptr) program = "";
  if (strlen(program) >= sizeof(gszWorkDir)) {
    syslog(LOG_ERR, "%s(%d): refuse program path of %zu characters: at most %zu fit", "main",
           __LINE__, strlen(program), sizeof(gszWorkDir) - 1);
    return kWorkDirectoryFailed;
  }
  snprintf(gszWorkDir, sizeof(gszWorkDir), "%s", program);
  char* last_slash = strrchr(gszWorkDir, '/');
  if (last_slash != nullptr) {
    *last_slash = '\0';
  } else {
    snprintf(gszWorkDir, sizeof(gszWorkDir), "%s/upd@te", gszVolume);
  }
  return kSuccess;
}

int EnterWorkDir() {
  if (chdir(gszWorkDir) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to chdir, errno = %d", "main", __LINE__, errno);
    return kWorkDirectoryFailed;
  }
  if (getcwd(gszWorkDir, sizeof(gszWorkDir)) == nullptr) {
    syslog(LOG_ERR, "%s(%d): fail to chdir, errno = %d", "main", __LINE__, errno);
    return kWorkDirectoryFailed;
  }
  const char unsafe = FirstUnsafeCharacter(gszWorkDir);
  if (unsafe != 0) {
    syslog(LOG_ERR, "%s(%d): refuse working directory [%s]: character [%c] is not allowed", "main",
           __LINE__, gszWorkDir, unsafe);
    return kWorkDirectoryFailed;
  }
  return kSuccess;
}

void StopServices() {
  if (VELTServiceNetControl(1) != 0) {
    syslog(LOG_ERR, "%s(%d): all services stop error", "main", __LINE__);
    return;
  }
  gblServicesStopped = 1;
}

// The setting call may store the value even when it cannot set the link (an
// unknown link speed); the user's value must then come back at the end too.
bool StoredMtuChanged(const Run& run) {
  char stored[sizeof(run.mtu)] = {0};
  return SLIBFileGetKeyValue(kSettings, "MTUValue", stored, sizeof(stored), 0) <= 0 ||
         strcmp(stored, run.mtu) != 0;
}

// The interface runs at the standard frame size while the flash is written.
void LowerMtu(Run* run) {
  char support[8] = {0};
  if (SLIBFileGetKeyValue(kFactorySettings, "supportMTU", support, sizeof(support), 0) <= 0 ||
      strcmp(support, "yes") != 0) {
    return;
  }
  if (SLIBFileGetKeyValue(kSettings, "MTUValue", run->mtu, sizeof(run->mtu), 0) <= 0) {
    run->mtu[0] = '\0';
    return;
  }
  if (strcmp(run->mtu, "1500") == 0) return;
  if (VELTNetSetMTUValue("1500") >= 0 || StoredMtuChanged(*run)) run->restore_mtu = true;
}

int TakeDriverBuffer() {
  if (VELTKernelMtdDriverBuffer(1) == 0) return kSuccess;
  const int error = errno;
  syslog(LOG_ERR, "%s(%d): fail to malloc mtd driver buffer, error = %d", "main", __LINE__, error);
  return error == ENOSYS ? kSuccess : kDriverBufferRefused;
}

// An old system whose flash driver cannot lend its buffer must be freshly
// booted before its flash is rewritten.
int ApplyRebootRule() {
  struct stat st;
  if (gblJunior || stat("/initrd", &st) != 0) return kSuccess;
  struct sysinfo info;
  if (sysinfo(&info) == 0 && info.uptime <= kUptimeLimitSeconds) return kSuccess;
  SLIBFileSetKeyValue(UPDT_MESSAGE_FILE, "extramsg", kRebootMessage, "%s=\"%s\"\n");
  return kRebootNeeded;
}

// Steps that adapt the old configuration before the flash is written.
int RunEarlyMigration() {
  if (gblNeedRecoverFIS && RecoverFISDirTable_K77GPlus_V284() < 0) return kPatchFailed;
  if (gblNeedFtpPassivePort && UpdateFTPPassivePortRange() < 0) return kMigrationStepFailed;
  if (gblNeedRsyncdFix) {
    UpdateRsyncdConf();
    chmod("/etc/rsyncd.secrets", 0640);
    if (chown("/etc/rsyncd.secrets", 0, 25) != 0) {
      // The file may be missing on this system; nothing depends on it here.
    }
  }
  return kSuccess;
}

void LogFisDirectory(const Run& run) {
  syslog(LOG_ERR, "number of partitions = [%d]", run.fis_count);
  for (int i = 0; i < run.fis_count; ++i) {
    FisImageDesc desc;
    UPDTFisDecode(run.fis_records + i * FIS_RECORD_SIZE, &desc);
    syslog(LOG_ERR, "[%s]  0x%08lX  0x%08lX  0x%08lX\n", desc.name,
           static_cast<unsigned long>(desc.flash_base), static_cast<unsigned long>(desc.size),
           static_cast<unsigned long>(desc.data_length));
  }
}

int ReadFisDirectory(Run* run) {
  int bytes = 0;
  if (VELTMTDGetPartitionInfo(gszDevMtdPartition, nullptr, 0, &bytes) < 0) {
    syslog(LOG_ERR, "%s(%d): fail to get partition info", "main", __LINE__);
    return kDirectoryReadFailed;
  }
  run->fis_records = static_cast<unsigned char*>(malloc(bytes > 0 ? bytes : 1));
  if (run->fis_records == nullptr) {
    syslog(LOG_ERR, "%s(%d): malloc fail, errno = %d", "main", __LINE__, errno);
    return kOutOfMemory;
  }
  run->fis_count = VELTMTDGetPartitionInfo(gszDevMtdPartition, run->fis_records, bytes, &bytes);
  if (run->fis_count < 0) {
    syslog(LOG_ERR, "%s(%d): fail to get partition info", "main", __LINE__);
    return kDirectoryReadFailed;
  }
  LogFisDirectory(*run);
  return kSuccess;
}

void RollBack(const Run& run) {
  if (!gblGroupUpdate && UPDTRollBack(run.fis_records, run.fis_count) < 0) {
    syslog(LOG_ERR, "%s: UPDTRollBack() fail", "main");
  }
  syslog(LOG_ERR, "%s(%d): Turn on the reinstall library flag...!!", "main", __LINE__);
}

void RemoveBackup() {
  char command[256];
  if (!UPDTFormatCommand(command, sizeof(command), "main", __LINE__, "/bin/rm -rf %s/%s",
                         gszWorkDir, UPDT_BACKUP_DIR)) {
    return;
  }
  syslog(LOG_ERR, "szCmd=[%s]", command);
  UPDTExecute(command);
}

// Photo database and configuration migration after the flash is new. A
// result of kConfigFailed asks for the roll-back.
int MigrateConfiguration() {
  if (gPhotoDbUpgrade > 0 || gblPhotoDbReset == 1) {
    if (gblServicesStopped == 1 &&
        SLIBCExec(kDatabaseScript, "start", nullptr, nullptr, nullptr) < 0) {
      syslog(LOG_ERR, "%s: %d: failed to start postgre database.", kSourceFile, __LINE__);
    }
    if (UpdatePhotoDB() < 0) return kMigrationStepFailed;
  }
  if (UPDTUpdateConfig() == -1) return kConfigFailed;
  return kSuccess;
}

void MoveHardDiskArchive() {
  struct stat st;
  if (stat(kHardDiskArchive, &st) != 0) return;
  char command[256];
  if (!UPDTFormatCommand(command, sizeof(command), "main", __LINE__, "/bin/mv -f %s/%s %s/%s",
                         gszWorkDir, kHardDiskArchive, gszVolume, kNextBootArchive) ||
      UPDTExecute(command) != 0) {
    syslog(LOG_ERR, "%s(%d): mv %s to %s/%s fail.", "main", __LINE__, kHardDiskArchive, gszVolume,
           kNextBootArchive);
  }
}

// Plan, back up, rewrite; on a failed rewrite or migration, roll back.
int PatchFlash(Run* run) {
  SetStage('P', 0);
  int code = ReadFisDirectory(run);
  if (code != kSuccess) return code;
  SetStage('P', 10);
  if (UPDTInitPatchInfo(run->fis_records, run->fis_count) < 0) {
    syslog(LOG_ERR, "%s(%d): fail to initialize patch info ", "main", __LINE__);
    return kPlanFailed;
  }
  SetStage('P', 20);
  if (!gblGroupUpdate && UPDTBackupOldPartition(run->fis_records, run->fis_count) < 0) {
    syslog(LOG_ERR, "%s(%d): fail to backup old patch info ", "main", __LINE__);
    return kBackupFailed;
  }
  SetStage('P', 60);
  if (UPDTDoPatch(run->fis_records, run->fis_count) < 0) {
    syslog(LOG_ERR, "%s(%d): fail to patch new binaries!!", "main", __LINE__);
    RollBack(*run);
    RemoveBackup();
    return kPatchFailed;
  }
  syslog(LOG_ERR, "%s(%d): Turn on the reinstall library flag...!!", "main", __LINE__);
  SetStage('P', 100);
  SetStage('C', 0);
  if (!gblGroupUpdate) {
    code = MigrateConfiguration();
    if (code == kConfigFailed) {
      RollBack(*run);
      RemoveBackup();
    }
    if (code != kSuccess) return code;
  }
  SetStage('C', 100);
  MoveHardDiskArchive();
  SetStage('R', 0);
  LogAndRecord("Congratulation!! The update has been completed!!");
  RemoveBackup();
  return kSuccess;
}

// From the working directory to the end of the flash and migration stages.
int Update(Run* run) {
  int code = EnterWorkDir();
  if (code != kSuccess) return code;
  SetStage('A', 10);
  if (!gblGroupUpdate) {
    code = ErrUPDTIAnalyze();
    if (code != 0) {
      syslog(LOG_ERR, "%s(%d): fail to analyze, error = %d", "main", __LINE__, code);
      return code;
    }
    SetStage('A', 100);
    StopServices();
  }
  if (gblMtdDriverBuffer) {
    LowerMtu(run);
    code = TakeDriverBuffer();
    if (code != kSuccess) return code;
  } else {
    code = ApplyRebootRule();
    if (code != kSuccess) return code;
  }
  if (VELTMTDIsMSysFlash() == 1) return UPDTMSysUpdate(&gcProgressLetter);
  code = RunEarlyMigration();
  if (code != kSuccess) return code;
  return PatchFlash(run);
}

void CleanUp(Run* run) {
  if (gblMtdDriverBuffer && VELTKernelMtdDriverBuffer(0) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to free mtd driver buffer, error = %d", "main", __LINE__, errno);
  }
  free(run->fis_records);
  run->fis_records = nullptr;
  if (fchdir(run->start_directory) != 0) run->code = kReturnDirectoryFailed;
  close(run->start_directory);
}

void Finish(Run* run) {
  if (run->code != kSuccess) {
    char text[256];
    snprintf(text, sizeof(text), "Failed to accomplish the update! (errno = %d)", run->code);
    LogAndRecord(text);
    if (gblServicesStopped == 1 && VELTServiceNetControl(2) != 0) {
      syslog(LOG_ERR, "%s(%d): all services start error", "main", __LINE__);
    }
  }
  if (run->restore_mtu) VELTNetSetMTUValue(run->mtu);
  SetStage(gcProgressLetter, -run->code);
}

}  // namespace

int main(int argc, char** argv) {
  syslog(LOG_ERR, "%s(%d): Start of the updater...", "main", __LINE__);
  SetStage('A', 0);
  UPDTLogTrim();
  UPDTLog("Start of the update...");
  snprintf(gszVolume, sizeof(gszVolume), "%s", "/volume1");
  switch (ReadOptions(argc, argv)) {
    case Options::kHelp:
      return 0;
    case Options::kError:
      return -1;
    case Options::kRun:
      break;
  }
  gblJunior = VELTIsJunior();
  UPDTSelectLayout(gblJunior);

  Run run;
  run.start_directory = open(".", O_RDONLY);
  if (run.start_directory < 0) {
    syslog(LOG_ERR, "%s(%d): fail to open current directory. errno=%d", "main", __LINE__, errno);
    run.code = kCurrentDirectoryFailed;
  } else {
    run.code = ChooseWorkDir(argv[0]);
    if (run.code == kSuccess) run.code = Update(&run);
    CleanUp(&run);
  }
  Finish(&run);
  return run.code;
}
