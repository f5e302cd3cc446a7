#include "updater/flash_patch.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/source_name.h"
#include "lib/unique_fd.h"
#include "sdk/velt_mtd.h"
#include "updater/file_copy.h"
#include "updater/fis_record.h"
#include "updater/patch_plan.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

constexpr size_t kCommandSize = 256;
constexpr int kPatchAttempts = 3;
constexpr unsigned int kCopyBlockSize = 16384;
constexpr unsigned int kVerifyBlockSize = 8192;
constexpr int kRecoveredRecordCount = 6;

using Command = char[kCommandSize];

constexpr const char* kSourceFile = SourceBaseName(__FILE__);

// Function names in the log lines of the helpers that work for them.
constexpr char kDoPatch[] = "UPDTDoPatch";
constexpr char kRollBack[] = "UPDTRollBack";
constexpr char kRecoverFis[] = "RecoverFISDirTable_K77GPlus_V284";

// What this run's patch did to the flash, so that the roll-back rewrites
// only what was touched: the flash ranges it erased (and then wrote), and the
// partitions whose extent it moved.
struct FlashRange {
  uint64_t begin;
  uint64_t end;
};
struct FlashChanges {
  std::vector<FlashRange> erased;
  std::vector<std::string> moved;
};
FlashChanges g_changes;

bool Overlaps(const FlashRange& a, const FlashRange& b) {
  return a.begin < b.end && b.begin < a.end;
}

bool WasMoved(const char* part) {
  for (const std::string& moved : g_changes.moved) {
    if (moved == part) return true;
  }
  return false;
}

// True when the patch erased or wrote a block of `old` (the partition's
// extent before the run) or moved the partition.
bool WasTouched(const FisImageDesc& old) {
  if (WasMoved(old.name)) return true;
  const FlashRange extent = {old.flash_base, uint64_t{old.flash_base} + old.size};
  for (const FlashRange& erased : g_changes.erased) {
    if (Overlaps(erased, extent)) return true;
  }
  return false;
}

bool IsDirectoryPartition(const char* part) {
  return strcmp(part, "RedBoot Config") == 0 || strcmp(part, "FIS Directory") == 0;
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

VELTMTDFisEntry MakeFisEntry(const char* name, uint32_t flash_base, uint32_t size,
                             uint32_t data_length) {
  VELTMTDFisEntry entry;
  memset(&entry, 0, sizeof(entry));
  // At most 15 characters: the name stays terminated.
  memcpy(entry.name, name, strnlen(name, sizeof(entry.name) - 1));
  entry.flash_base = flash_base;
  entry.size = size;
  entry.data_length = data_length;
  return entry;
}

// 60 to 100 over the patch's work. An empty total only happens when every
// updated image is empty; the copy refuses those anyway.
int PatchProgress(uint64_t done, uint64_t total) {
  return total == 0 ? 60 : static_cast<int>(60 + 40 * std::min(done, total) / total);
}

// One erase-write-verify attempt on `device`, which lies at `record`'s
// extent; false when any step fails.
bool RewriteAttempt(const char* device, const PartitionRecord& record, const std::string& source,
                    int attempt) {
  const uint32_t datalen = record.datalen;
  syslog(LOG_ERR, "%s:%d(%s) Try to Erase MTD Partition(%s), [%d/%d]...", kSourceFile, __LINE__,
         kDoPatch, device, attempt, kPatchAttempts);
  // Even a failed erase may have cleared part of the range.
  g_changes.erased.push_back({record.start, uint64_t{record.start} + record.size});
  if (VELTMTDErasePartition(device) != 0) {
    syslog(LOG_ERR, "%s: VELTMTDErasePartition() fail", kDoPatch);
    return false;
  }
  syslog(LOG_ERR, "%s:%d(%s) Try to Write MTD Partition(%s), [%d/%d]...", kSourceFile, __LINE__,
         kDoPatch, device, attempt, kPatchAttempts);
  if (UPDTCopyFile(source.c_str(), device, datalen, kCopyBlockSize) != 0) return false;
  syslog(LOG_ERR, "%s:%d(%s) Try to Verify MTD Partition(%s), [%d/%d]...", kSourceFile, __LINE__,
         kDoPatch, device, attempt, kPatchAttempts);
  return UPDTVerifyFile(source.c_str(), device, datalen, kVerifyBlockSize) == 0;
}

// Moves, rewrites and verifies one planned partition and records its new
// geometry in the FIS directory. `old` is its record before the run; `done`
// is the work of the partitions rewritten before it.
bool PatchPartition(const PartitionRecord& record, const FisImageDesc& old, uint64_t done,
                    uint64_t total) {
  const char* device = SzUPDTGetDeviceByName(record.part);
  if (device == nullptr) {
    syslog(LOG_ERR, "%s(%d): fail to get device path", kDoPatch, __LINE__);
    return false;
  }
  if (VELTMTDModifyPartitionSize(device, record.start, record.size) != 0) {
    syslog(LOG_ERR, "%s: VELTMTDModifyPartitionSize() fail", kDoPatch);
    return false;
  }
  if (record.start != old.flash_base || record.size != old.size) {
    g_changes.moved.push_back(record.part);
  }
  const std::string source = std::string(gszWorkDir) + "/" + record.file;
  bool rewritten = false;
  const uint64_t counted_before = gullUpdateDone;
  for (int attempt = 0; attempt < kPatchAttempts && !rewritten; ++attempt) {
    // A retry moves again what the failed attempt counted: the progress
    // neither counts those bytes twice nor goes back to the partition's start.
    gullUpdateRecount = gullUpdateDone - counted_before;
    UPDTSetProgress('P', PatchProgress(std::max(done, gullUpdateDone), total));
    rewritten = RewriteAttempt(device, record, source, attempt);
  }
  if (!rewritten) {
    syslog(LOG_ERR, "%s:%d(%s) Try to Update [%s] %d counts failed ...", kSourceFile, __LINE__,
           kDoPatch, device, kPatchAttempts);
    return false;
  }
  const VELTMTDFisEntry entry =
      MakeFisEntry(record.part, record.start, record.size, record.datalen);
  if (VELTMTDModifyFISEntry(gszDevMtdPartition, &entry) != 0) {
    syslog(LOG_ERR, "%s: VELTMTDModifyFISEntry() fail", kDoPatch);
    return false;
  }
  syslog(LOG_ERR, "%s: Finish updating [%s]", kDoPatch, record.part);
  return true;
}

// The record named `part` among `count` FIS records, without a log line;
// false when there is none.
bool FindOldRecord(const char* part, const unsigned char* fisRecords, int count,
                   FisImageDesc* old) {
  const int index = FisRecordIndex(part, fisRecords, count);
  if (index < 0) {
    memset(old, 0, sizeof(*old));
    return false;
  }
  UPDTFisDecode(fisRecords + static_cast<size_t>(index) * FIS_RECORD_SIZE, old);
  return true;
}

// Erase, copy the backup with dd and verify it, up to three times, like the
// patch; false when every attempt failed.
bool RestoreContents(const char* device, const char* command, const std::string& backup,
                     uint32_t size) {
  for (int attempt = 0; attempt < kPatchAttempts; ++attempt) {
    syslog(LOG_ERR, "%s:%d(%s) VELTMTDErasePartition(%s)...", kSourceFile, __LINE__, kRollBack,
           device);
    if (VELTMTDErasePartition(device) != 0) {
      syslog(LOG_ERR, "%s: VELTMTDErasePartition() fail", kRollBack);
      continue;
    }
    syslog(LOG_ERR, "%s(%d): command=[%s]", kRollBack, __LINE__, command);
    if (UPDTExecute(command) < 0) continue;
    if (UPDTVerifyFile(backup.c_str(), device, size, kVerifyBlockSize) == 0) return true;
  }
  syslog(LOG_ERR, "%s:%d(%s) Try to Recover [%s] %d counts failed ...", kSourceFile, __LINE__,
         kRollBack, device, kPatchAttempts);
  return false;
}

// Puts the backup of one partition back under its old geometry, `old`.
// Whatever fails is logged and the rest still done where it is safe: the
// contents go back unless the partition may still lie elsewhere, and the
// directory entry is written back in any case. False when anything failed.
bool RestorePartition(const FisImageDesc& old) {
  const char* device = SzUPDTGetDeviceByName(old.name);
  if (device == nullptr) {
    syslog(LOG_ERR, "%s(%d): fail to get device path", kRollBack, __LINE__);
    return false;
  }
  bool restored = true;
  if (VELTMTDModifyPartitionSize(device, old.flash_base, old.size) != 0) {
    syslog(LOG_ERR, "%s: VELTMTDModifyPartitionSize() fail", kRollBack);
    restored = false;
  }
  Command command;
  if (!UPDTFormatCommand(command, sizeof(command), kRollBack, __LINE__,
                         "/bin/dd if=\"%s/%s/mtd_%s\" of=\"%s\" bs=131072", gszWorkDir,
                         UPDT_BACKUP_DIR, old.name, device)) {
    return false;
  }
  // A partition this run moved and could not move back must not get its old
  // contents at its new place.
  if (restored || !WasMoved(old.name)) {
    const std::string backup = std::string(gszWorkDir) + "/" + UPDT_BACKUP_DIR + "/mtd_" + old.name;
    restored = RestoreContents(device, command, backup, old.size) && restored;
  }
  const VELTMTDFisEntry entry = MakeFisEntry(old.name, old.flash_base, old.size, old.data_length);
  if (VELTMTDModifyFISEntry(gszDevMtdPartition, &entry) != 0) {
    syslog(LOG_ERR, "%s: VELTMTDModifyFISEntry() fail", kRollBack);
    restored = false;
  }
  return restored;
}

struct RecoveredRecord {
  const char* name;
  uint32_t flash_base;
  uint32_t size;
  uint32_t data_length;
};

// The directory of the 2 MiB board (0xFFE00000 to the top of the address
// space); memory base = flash base, everything else zero.
constexpr RecoveredRecord kRecoveredDirectory[kRecoveredRecordCount] = {
    {"RedBoot", 0xFFF00000, 0x40000, 0x3A448},        {"zImage", 0xFFE00000, 0xD0000, 0xC5EDA},
    {"rd.gz", 0xFFF40000, 0xB0000, 0xAEE2C},          {"vendor", 0xFFED0000, 0x10000, 0x10000},
    {"RedBoot Config", 0xFFEE0000, 0x10000, 0x10000}, {"FIS Directory", 0xFFFF0000, 0x10000, 0x600},
};

void EncodeRecoveredDirectory(unsigned char* directory) {
  for (int i = 0; i < kRecoveredRecordCount; ++i) {
    const RecoveredRecord& record = kRecoveredDirectory[i];
    FisImageDesc desc;
    memset(&desc, 0, sizeof(desc));
    snprintf(desc.name, sizeof(desc.name), "%s", record.name);
    desc.flash_base = record.flash_base;
    desc.mem_base = record.flash_base;
    desc.size = record.size;
    desc.data_length = record.data_length;
    UPDTFisEncode(&desc, directory + static_cast<size_t>(i) * FIS_RECORD_SIZE);
  }
}

// Erases the directory device and writes the built-in directory onto it;
// the caller locks the device again whatever happens here.
bool WriteRecoveredDirectory(const char* device) {
  if (VELTMTDUnlockPartition(device) != 0) {
    syslog(LOG_ERR, "%s:%d(%s) VELTMTDUnlockPartition(%s) fail", kSourceFile, __LINE__, kRecoverFis,
           device);
    return false;
  }
  if (VELTMTDErasePartition(device) != 0) {
    syslog(LOG_ERR, "%s:%d(%s) VELTMTDErasePartition(%s) fail", kSourceFile, __LINE__, kRecoverFis,
           device);
    return false;
  }
  UniqueFd fd(open(device, O_WRONLY));
  if (fd.get() < 0) {
    syslog(LOG_ERR, "%s:%d(%s) open(%s) fail", kSourceFile, __LINE__, kRecoverFis, device);
    SLIBCErrSet(SLIB_ERR_OPEN);
    return false;
  }
  unsigned char directory[kRecoveredRecordCount * FIS_RECORD_SIZE];
  EncodeRecoveredDirectory(directory);
  size_t written = 0;
  while (written < sizeof(directory)) {
    const ssize_t result = write(fd.get(), directory + written, sizeof(directory) - written);
    // A write that takes nothing would never finish the directory either.
    if (result <= 0) {
      syslog(LOG_ERR, "%s:%d(%s) write(%s) fail", kSourceFile, __LINE__, kRecoverFis, device);
      SLIBCErrSet(SLIB_ERR_READ);
      return false;
    }
    written += static_cast<size_t>(result);
  }
  return true;
}

}  // namespace

int UPDTLockAll(int lock) {
  for (int i = 0; i <= UPDT_MAX_PARTITIONS && gPartitionDevices[i].part != nullptr; ++i) {
    const PartitionDevice& pair = gPartitionDevices[i];
    if (IsDirectoryPartition(pair.part)) continue;
    if (lock == 1) {
      if (VELTMTDLockPartition(pair.device) != 0) {
        syslog(LOG_ERR, "%s: VELTMTDLockPartition(%s) fail", __func__, pair.device);
        return -1;
      }
    } else if (VELTMTDUnlockPartition(pair.device) != 0) {
      syslog(LOG_ERR, "%s: VELTMTDUnlockPartition(%s) fail", __func__, pair.device);
      return -1;
    }
  }
  return 0;
}

int UPDTUnlockAllPartition(void) { return UPDTLockAll(0); }

int UPDTBackupOldPartition(const unsigned char* fisRecords, int count) {
  if (fisRecords == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  Command command;
  if (!UPDTFormatCommand(command, sizeof(command), __func__, __LINE__,
                         "/bin/rm -rf %s/%s; /bin/mkdir -p %s/%s", gszWorkDir, UPDT_BACKUP_DIR,
                         gszWorkDir, UPDT_BACKUP_DIR)) {
    return -1;
  }
  syslog(LOG_ERR, "szCmd=[%s]", command);
  if (UPDTExecute(command) < 0) return -1;
  g_changes = FlashChanges();  // a new backup: nothing of it changed yet
  for (int i = 0; i < count; ++i) {
    char name[FIS_NAME_SIZE + 1];
    UPDTFisName(fisRecords + static_cast<size_t>(i) * FIS_RECORD_SIZE, name);
    const char* device = SzUPDTGetDeviceByName(name);
    if (device == nullptr) {
      syslog(LOG_ERR, "%s(%d): fail to get device path", __func__, __LINE__);
      return -1;
    }
    if (!UPDTFormatCommand(command, sizeof(command), __func__, __LINE__,
                           "/bin/dd if=\"%s\" of=\"%s/%s/mtd_%s\" bs=16384", device, gszWorkDir,
                           UPDT_BACKUP_DIR, name)) {
      return -1;
    }
    syslog(LOG_ERR, "%s(%d): command=[%s]", __func__, __LINE__, command);
    if (UPDTExecute(command) < 0) return -1;
    UPDTSetProgress('P', 30 + 5 * i);
  }
  return 0;
}

int UPDTDoPatch(const unsigned char* fisRecords, int count) {
  if (fisRecords == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  g_changes = FlashChanges();
  const int rows = PlanRowCount();
  if (UPDTNeedResize(gPartitionTable, rows)) {
    syslog(LOG_ERR, "%s(%d): NEED RESIZE THE PARTITION", __func__, __LINE__);
    if (ErrUPDTAdjustPartitionSize(gPartitionTable, rows) != 0) {
      syslog(LOG_ERR, "%s(%d): fail to resize", __func__, __LINE__);
      return -1;
    }
  }
  if (UPDTUnlockAllPartition() != 0) {
    syslog(LOG_ERR, "%s: UPDTUnlockAllPartition() fail", __func__);
    return -1;
  }
  // One pass writes each image and one reads it back.
  uint64_t total = 0;
  for (int i = 0; i < rows; ++i) {
    if (gPartitionTable[i].fneedupdate != 0) total += 2 * uint64_t{gPartitionTable[i].datalen};
  }
  gullUpdateTotal = total;
  gullUpdateDone = 0;
  gullUpdateRecount = 0;
  uint64_t done = 0;
  for (int i = 0; i < rows; ++i) {
    const PartitionRecord& record = gPartitionTable[i];
    if (record.fneedupdate == 0) {
      syslog(LOG_ERR, "%s: skip updating [%s]", __func__, record.part);
      continue;
    }
    FisImageDesc old;
    FindOldRecord(record.part, fisRecords, count, &old);
    if (!PatchPartition(record, old, done, total)) return -1;
    done += 2 * uint64_t{record.datalen};
  }
  return 0;
}

int UPDTRollBack(const unsigned char* fisRecords, int count) {
  if (fisRecords == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  // The patch unlocked the partitions already; a refusal here does not stop
  // the restore of the others.
  bool restored = true;
  if (UPDTUnlockAllPartition() != 0) {
    syslog(LOG_ERR, "%s: UPDTUnlockAllPartition() fail", __func__);
    restored = false;
  }
  // The verify passes of the restore are no part of the patch's progress.
  gullUpdateTotal = 0;
  const int rows = PlanRowCount();
  for (int i = 0; i < rows; ++i) {
    const PartitionRecord& record = gPartitionTable[i];
    FisImageDesc old;
    if (!FindOldRecord(record.part, fisRecords, count, &old)) {
      if (record.fneedupdate == 0 && !WasMoved(record.part)) {
        syslog(LOG_ERR, "%s: skip recoverying [%s]", __func__, record.part);
        continue;
      }
      syslog(LOG_ERR, "%s(%d): get idx of partition %d [%s] fail", __func__, __LINE__, i,
             record.part);
      restored = false;
      continue;
    }
    if (!WasTouched(old)) {
      syslog(LOG_ERR, "%s: skip recoverying [%s]", __func__, record.part);
      continue;
    }
    restored = RestorePartition(old) && restored;
  }
  return restored ? 0 : -1;
}

int RecoverFISDirTable_K77GPlus_V284(void) {
  const bool written = WriteRecoveredDirectory(gszDevMtdPartition);
  VELTMTDLockPartition(gszDevMtdPartition);
  return written ? 0 : -1;
}
