#include "updater/msys_update.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lib/unique_fd.h"
#include "sdk/flash_driver_requests.h"
#include "sdk/kernel.h"
#include "updater/fis_record.h"
#include "updater/flash_patch.h"
#include "updater/patch_plan.h"
#include "updater/update_config.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

static_assert(UPDT_MSYS_PARTITIONS == kFlashDiskPartitions, "the driver's partition count");
static_assert(sizeof(unsigned int) == sizeof(uint32_t), "block counts are 32-bit words");

constexpr char kTableDevice[] = "/dev/mtd0";
constexpr size_t kCommandSize = 256;
constexpr size_t kInfoBufferSize = 2048;
static_assert(kInfoBufferSize >= UPDT_MSYS_PARTITIONS * FIS_RECORD_SIZE, "room for the records");

constexpr int kFirstWriteProgress = 65;
constexpr int kWriteProgressStep = 5;

constexpr char kHardDiskArchive[] = "hda1.tgz";
constexpr char kNextBootArchive[] = "VeltUpgrade.tar.gz";

// Result codes of the run that this path produces.
enum ResultCode {
  kSuccess = 0,
  kBackupFailed = 15,
  kConfigFailed = 17,
  kTableReadFailed = 18,
  kPlanFailed = 19,
  kPatchFailed = 20,
};

using Command = char[kCommandSize];

uint32_t UnitsFor(uint64_t bytes) {
  return static_cast<uint32_t>((bytes + UPDT_MSYS_UNIT_SIZE - 1) / UPDT_MSYS_UNIT_SIZE);
}

// Rows of the working plan: gPartitionCount of them, or fewer when the
// table's end row comes first.
int PlanRowCount() {
  int rows = 0;
  while (rows < gPartitionCount && rows < UPDT_MAX_PARTITIONS &&
         gPartitionTable[rows].part != nullptr) {
    ++rows;
  }
  return rows;
}

// Rows that have partition information at the same position.
int PlannedRows(int count) { return std::min(PlanRowCount(), count); }

std::string PackagePath(const char* file) {
  return std::string(gszWorkDir) + "/" + (file != nullptr ? file : "");
}

std::string BackupPath(const char* part) {
  return std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR + "/mtd_" + part;
}

bool FileExists(const std::string& path) {
  struct stat64 st;
  return stat64(path.c_str(), &st) == 0;
}

// Plans one partition from its information record and the package file, if
// any; returns the units its contents need.
uint64_t PlanPartition(PartitionRecord* record, const FisImageDesc& old) {
  const char* file = record->file != nullptr ? record->file : "";
  struct stat64 st;
  uint64_t nblock;
  if (record->file != nullptr && stat64(PackagePath(file).c_str(), &st) == 0) {
    record->datalen = static_cast<uint32_t>(st.st_size);
    record->fneedupdate = 1;
    nblock = UnitsFor(static_cast<uint64_t>(st.st_size));
  } else {
    syslog(LOG_INFO, "%s(%d): file [%s] not included in the patch package ",
           "UPDTMSysInitPatchInfo", __LINE__, file);
    record->datalen = old.data_length;
    record->fneedupdate = 0;
    nblock = UnitsFor(old.data_length);
  }
  record->start = old.flash_base;
  record->size = old.size;
  record->delta = 0;
  record->balance = static_cast<int32_t>(static_cast<int64_t>(old.size / UPDT_MSYS_UNIT_SIZE) -
                                         static_cast<int64_t>(nblock));
  syslog(LOG_INFO,
         "PATCHINFO: partition[%s] file[%s] start = [0x%08X] size[0x%d] datalen=[0x%08X] "
         "nblock[%d] balance[%d] fneedupdate[%d]",
         record->part, file, record->start, static_cast<int>(record->size), record->datalen,
         static_cast<int>(nblock), record->balance, record->fneedupdate);
  return nblock;
}

// A package update (-g) keeps no backup, so a re-partition that would have to
// restore a partition from one cannot go ahead.
bool EveryPackageFileExists(int rows) {
  for (int i = 0; i < rows; ++i) {
    const std::string source = PackagePath(gPartitionTable[i].file);
    if (!FileExists(source)) {
      syslog(LOG_ERR, "%s(%d): failed to update. [%s] does not exist", "UPDTMSysDoPatch", __LINE__,
             source.c_str());
      return false;
    }
  }
  return true;
}

// Gives the plan's rebalanced sizes to the flash disk; everything on it is
// erased.
bool Repartition(int rows) {
  syslog(LOG_INFO, "%s(%d): NEED RE-PARTITION!!", "UPDTMSysDoPatch", __LINE__);
  if (gblGroupUpdate && !EveryPackageFileExists(rows)) return false;
  if (ErrUPDTAdjustPartitionSize(gPartitionTable, rows) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to resize", "UPDTMSysDoPatch", __LINE__);
    return false;
  }
  unsigned int counts[UPDT_MSYS_PARTITIONS] = {0};
  for (int i = 0; i < rows && i < UPDT_MSYS_PARTITIONS; ++i) {
    counts[i] = UnitsFor(gPartitionTable[i].size);
  }
  if (UPDTMSysFormat(counts, UPDT_MSYS_PARTITIONS) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to resize", "UPDTMSysDoPatch", __LINE__);
    return false;
  }
  return true;
}

// Copies `source` onto partition `index` with dd; the patch and the
// roll-back log the command differently.
bool WritePartition(const std::string& source, int index, const char* function, bool patching) {
  Command command;
  if (!UPDTFormatCommand(command, sizeof(command), function, __LINE__,
                         "/bin/dd if=\"%s\" of=\"/dev/mtd%d\" bs=16384", source.c_str(), index)) {
    return false;
  }
  if (patching) {
    syslog(LOG_INFO, "szCmd=[%s]", command);
  } else {
    syslog(LOG_INFO, "%s(%d): command=[%s]", function, __LINE__, command);
  }
  return UPDTExecute(command) == 0;
}

// The block counts of the table as it was before the update.
void OldBlockCounts(const unsigned char* records, int count,
                    unsigned int counts[UPDT_MSYS_PARTITIONS]) {
  for (int i = 0; i < UPDT_MSYS_PARTITIONS; ++i) {
    counts[i] = 0;
    if (i >= count) continue;
    FisImageDesc old;
    UPDTFisDecode(records + static_cast<size_t>(i) * FIS_RECORD_SIZE, &old);
    counts[i] = UnitsFor(old.size);
  }
}

// The stage the last progress record named: a roll-back after a failed
// migration reports under 'C', not back under 'P'.
char g_stage = 'P';

void SetStage(char* letter, char stage, int value) {
  *letter = stage;
  g_stage = stage;
  UPDTSetProgress(stage, value);
}

void LogPartitionInfo(const unsigned char* records, int count) {
  syslog(LOG_ERR, "number of partitions = [%d]", count);
  for (int i = 0; i < count; ++i) {
    FisImageDesc desc;
    UPDTFisDecode(records + static_cast<size_t>(i) * FIS_RECORD_SIZE, &desc);
    syslog(LOG_ERR, "[%s]  0x%08lX  0x%08lX  0x%08lX\n", desc.name,
           static_cast<unsigned long>(desc.flash_base), static_cast<unsigned long>(desc.size),
           static_cast<unsigned long>(desc.data_length));
  }
}

// The package's hard-disk archive goes onto the volume for the next boot,
// whatever became of the flash.
void MoveHardDiskArchive() {
  if (!FileExists(PackagePath(kHardDiskArchive))) return;
  Command command;
  if (!UPDTFormatCommand(command, sizeof(command), "UPDTMSysUpdate", __LINE__,
                         "/bin/mv -f %s/%s %s/%s", gszWorkDir, kHardDiskArchive, gszVolume,
                         kNextBootArchive) ||
      UPDTExecute(command) != 0) {
    syslog(LOG_ERR, "%s(%d): mv %s to %s/%s fail.", "UPDTMSysUpdate", __LINE__, kHardDiskArchive,
           gszVolume, kNextBootArchive);
  }
}

// Plans, backs up, patches and migrates. Returns kSuccess or the code of the
// first failure; *needs_roll_back tells whether that failure came after the
// flash was written to (patch or migration), *repartitioned whether the disk
// was reformatted.
int PatchAndMigrate(char* letter, const unsigned char* records, int* repartitioned,
                    bool* needs_roll_back) {
  *needs_roll_back = false;
  SetStage(letter, 'P', 10);
  if (UPDTMSysInitPatchInfo(records, UPDT_MSYS_PARTITIONS) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to initialize patch info ", "UPDTMSysUpdate", __LINE__);
    return kPlanFailed;
  }
  SetStage(letter, 'P', 20);
  if (!gblGroupUpdate && UPDTBackupOldPartition(records, UPDT_MSYS_PARTITIONS) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to backup old patch info ", "UPDTMSysUpdate", __LINE__);
    return kBackupFailed;
  }
  SetStage(letter, 'P', 60);
  if (UPDTMSysDoPatch(records, UPDT_MSYS_PARTITIONS, repartitioned) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to patch new binaries!!", "UPDTMSysUpdate", __LINE__);
    *needs_roll_back = true;
    return kPatchFailed;
  }
  syslog(LOG_ERR, "%s(%d): Turn on the reinstall library flag...!!", "UPDTMSysUpdate", __LINE__);
  SetStage(letter, 'P', 100);
  SetStage(letter, 'C', 0);
  if (!gblGroupUpdate && UPDTUpdateConfig() < 0) {
    *needs_roll_back = true;
    return kConfigFailed;
  }
  SetStage(letter, 'C', 100);
  SetStage(letter, 'R', 0);
  syslog(LOG_ERR, "Congratulation!! The update has been completed!!");
  UPDTLog("Congratulation!! The update has been completed!!");
  return kSuccess;
}

}  // namespace

int UPDTMSysGetPartitionInfo(unsigned char* records) {
  if (records == nullptr) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  UniqueFd fd(open(kTableDevice, O_RDWR));
  if (fd.get() < 0) {
    syslog(LOG_ERR, "%s(%d): fail to open /dev/mtd0, errno = %d", __func__, __LINE__, errno);
    return -1;
  }
  FlashDiskTable table;
  memset(&table, 0, sizeof(table));
  if (ioctl(fd.get(), kFlashDiskGetTableRequest, &table) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to get partition information, errno = %d", __func__, __LINE__,
           errno);
    return -1;
  }
  uint32_t flash_base = 0;
  for (int i = 0; i < UPDT_MSYS_PARTITIONS; ++i) {
    FisImageDesc desc;
    memset(&desc, 0, sizeof(desc));
    snprintf(desc.name, sizeof(desc.name), "%s", SzUPDTOrdinaryPartitionName(i));
    desc.flash_base = flash_base;
    desc.size = table.pairs[2 * i];
    desc.data_length = table.pairs[2 * i + 1];
    UPDTFisEncode(&desc, records + static_cast<size_t>(i) * FIS_RECORD_SIZE);
    flash_base += desc.size;
  }
  return UPDT_MSYS_PARTITIONS;
}

int UPDTMSysInitPatchInfo(const unsigned char* records, int count) {
  if (records == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  gEraseBlockSize = UPDT_MSYS_UNIT_SIZE;
  syslog(LOG_INFO, "Available flash units = %d blocks, eraseblock = %d bytes", UPDT_MSYS_UNITS,
         UPDT_MSYS_UNIT_SIZE);
  uint64_t total = 0;
  const int rows = PlannedRows(count);
  for (int i = 0; i < rows; ++i) {
    FisImageDesc old;
    UPDTFisDecode(records + static_cast<size_t>(i) * FIS_RECORD_SIZE, &old);
    total += PlanPartition(&gPartitionTable[i], old);
  }
  if (total <= UPDT_MSYS_UNITS) return 0;
  syslog(LOG_ERR, "%s(%d): the binary size exceeds flash size limit(total = %d blocks)", __func__,
         __LINE__, static_cast<int>(total));
  return -1;
}

int UPDTMSysFormat(const unsigned int* counts, int count) {
  if (counts == nullptr || count != UPDT_MSYS_PARTITIONS) {
    syslog(LOG_ERR, "%s(%d): parameter error", __func__, __LINE__);
    return -1;
  }
  UniqueFd fd(open(kTableDevice, O_RDWR));
  if (fd.get() < 0) {
    syslog(LOG_ERR, "%s(%d): failed to open /dev/mtd0, errno = %d", __func__, __LINE__, errno);
    return -1;
  }
  if (VELTKernelMSysFormat(fd.get(), UPDT_MSYS_UNITS) != 0) {
    syslog(LOG_ERR, "%s(%d): failed to format, errno = %d", __func__, __LINE__, errno);
    return -1;
  }
  uint32_t table[UPDT_MSYS_PARTITIONS];
  std::copy(counts, counts + UPDT_MSYS_PARTITIONS, table);
  if (VELTKernelMSysPartition(fd.get(), table) != 0) {
    syslog(LOG_ERR, "%s(%d): failed to partition, errno = %d", __func__, __LINE__, errno);
    return -1;
  }
  return 0;
}

int UPDTMSysDoPatch(const unsigned char* records, int count, int* repartitioned) {
  if (records == nullptr || count < 1 || repartitioned == nullptr) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  const int rows = PlannedRows(count);
  if (UPDTNeedResize(gPartitionTable, rows)) {
    if (!Repartition(rows)) return -1;
    *repartitioned = 1;
  }
  // The flash disk erases by itself: one plain copy per partition.
  int written = 0;
  for (int i = 0; i < rows; ++i) {
    const PartitionRecord& record = gPartitionTable[i];
    if (*repartitioned != 1 && record.fneedupdate != 1) {
      syslog(LOG_INFO, "%s: skip updating [%s]", __func__, record.part);
      continue;
    }
    std::string source = PackagePath(record.file);
    if (!FileExists(source)) source = BackupPath(record.part);
    if (!WritePartition(source, i, __func__, true)) return -1;
    UPDTSetProgress('P', kFirstWriteProgress + kWriteProgressStep * written++);
    syslog(LOG_INFO, "%s: Finish updating [%s]", __func__, record.part);
  }
  return 0;
}

int UPDTMSysRollBack(const unsigned char* records, int count, int repartitioned) {
  if (records == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  if (repartitioned == 1) {
    unsigned int counts[UPDT_MSYS_PARTITIONS];
    OldBlockCounts(records, count, counts);
    if (UPDTMSysFormat(counts, UPDT_MSYS_PARTITIONS) != 0) {
      syslog(LOG_ERR, "%s(%d): fail to resize", __func__, __LINE__);
      return -1;
    }
  }
  const int partitions = std::min(count, UPDT_MSYS_PARTITIONS);
  for (int i = 0; i < partitions; ++i) {
    char name[FIS_NAME_SIZE + 1];
    UPDTFisName(records + static_cast<size_t>(i) * FIS_RECORD_SIZE, name);
    if (!WritePartition(BackupPath(name), i, __func__, false)) return -1;
    UPDTSetProgress(g_stage, kFirstWriteProgress + kWriteProgressStep * i);
    syslog(LOG_INFO, "%s: Finish updating [%s]", __func__, name);
  }
  return 0;
}

int UPDTMSysUpdate(char* progressLetter) {
  char unused = 'A';
  char* letter = progressLetter != nullptr ? progressLetter : &unused;
  SetStage(letter, 'P', 0);
  std::vector<unsigned char> records(kInfoBufferSize, 0);
  if (UPDTMSysGetPartitionInfo(records.data()) != UPDT_MSYS_PARTITIONS) return kTableReadFailed;
  LogPartitionInfo(records.data(), UPDT_MSYS_PARTITIONS);

  int repartitioned = 0;
  bool needs_roll_back = false;
  const int result = PatchAndMigrate(letter, records.data(), &repartitioned, &needs_roll_back);
  if (result == kPlanFailed || result == kBackupFailed) return result;
  if (needs_roll_back) {
    if (!gblGroupUpdate) {
      // The stage letter stays where the failure happened, also when the
      // migration failed after the flash was new.
      if (UPDTMSysRollBack(records.data(), UPDT_MSYS_PARTITIONS, repartitioned) != 0) {
        syslog(LOG_ERR, "%s: UPDTRollBack() fail", __func__);
      }
    }
    syslog(LOG_ERR, "%s(%d): Turn on the reinstall library flag...!!", __func__, __LINE__);
  }
  MoveHardDiskArchive();
  return result;
}
