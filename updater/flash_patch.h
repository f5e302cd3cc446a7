// Carrying out the patch plan on NOR flash: unlock, back up every partition,
// rewrite (extent, erase, write, verify, three attempts, FIS entry) and roll
// back from the backup; and the repair of one board model's FIS directory.
#ifndef UPDATER_FLASH_PATCH_H_
#define UPDATER_FLASH_PATCH_H_

// The backup directory below the working directory; one raw image per FIS
// record, named "mtd_<record name>".
#define UPDT_BACKUP_DIR "b@ckup"

// Locks (lock == 1) or unlocks every partition of gPartitionDevices except
// "RedBoot Config" and "FIS Directory". Stops at the first failure: -1.
int UPDTLockAll(int lock);
int UPDTUnlockAllPartition(void);  // UPDTLockAll(0)

// Copies every partition named in the FIS records into the backup
// directory (emptied first) with dd; progress 'P' 30 + 5 * i after record i.
// A new backup forgets what an earlier patch changed (see UPDTRollBack).
int UPDTBackupOldPartition(const unsigned char* fisRecords, int count);

// Rewrites the partitions of gPartitionTable marked for update, in table
// order. 0, or -1 at the first partition that cannot be rewritten; the
// partitions already rewritten stay rewritten.
int UPDTDoPatch(const unsigned char* fisRecords, int count);

// Writes back the backups of the partitions that the last UPDTDoPatch
// touched: those whose extent it moved, and those with a block of their old
// extent in a range it erased or wrote (a grown neighbour's erase counts),
// under the geometry of `fisRecords` (the directory as read before the
// update); the others are skipped ("skip recoverying"). Each partition gets
// its old extent, up to three erase, dd and verify attempts, and its old FIS
// entry. A failure is logged and the remaining partitions are still
// restored; a partition that was moved and cannot be moved back keeps its
// contents. 0 when everything was restored, else -1.
int UPDTRollBack(const unsigned char* fisRecords, int count);

// Rewrites the FIS directory device with the built-in six-record directory
// of the 2 MiB board; 0 only when all 1536 bytes were written.
int RecoverFISDirTable_K77GPlus_V284(void);

#endif  // UPDATER_FLASH_PATCH_H_
