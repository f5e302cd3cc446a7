// The update of a board whose system images live on an M-Systems flash disk:
// eight partitions addressed by position (/dev/mtd0 .. /dev/mtd7), sizes held
// by the disk's driver in units of 16384 bytes (967 units in all); a change
// of any size reformats the whole disk and every partition is written again.
#ifndef UPDATER_MSYS_UPDATE_H_
#define UPDATER_MSYS_UPDATE_H_

#define UPDT_MSYS_UNIT_SIZE 16384
#define UPDT_MSYS_UNITS 967
#define UPDT_MSYS_PARTITIONS 8

// Fills `records` (8 FIS records of 256 bytes, zeroed by the caller) from the
// driver's partition table (read from /dev/mtd0): name from the plan row at
// the same position (gPartitionTable must hold the eight-row table), size
// and data length from the driver, flash_base the sum of the sizes before;
// nothing else is filled. 8, or -1.
int UPDTMSysGetPartitionInfo(unsigned char* records);

// The patch plan by position: row i of gPartitionTable from record i and the
// row's file in gszWorkDir; sets gEraseBlockSize to 16384. Refuses more
// than 967 units in all. 0 or -1.
int UPDTMSysInitPatchInfo(const unsigned char* records, int count);

// Formats the disk into 967 units and partitions it with `counts` (exactly 8
// block counts). 0 or -1.
int UPDTMSysFormat(const unsigned int* counts, int count);

// Writes the planned partitions with dd, no erase and no verify. When a row
// no longer fits, rebalances the plan, reformats and re-partitions the disk
// (then *repartitioned is 1) and writes every partition, those without a
// package file from their backup. 0 or -1 at the first failure.
int UPDTMSysDoPatch(const unsigned char* records, int count, int* repartitioned);

// Restores the old table (when repartitioned) and every partition from the
// backup. 0 or -1.
int UPDTMSysRollBack(const unsigned char* records, int count, int repartitioned);

// The whole flash and migration part of the run on such a board; moves the
// progress letter in *progressLetter along with every progress record it
// writes itself (after a roll-back the letter is 'P' again). Returns the
// run's result code: 0, 15 backup, 17 migration, 18 table not read, 19 plan,
// 20 patch.
int UPDTMSysUpdate(char* progressLetter);

#endif  // UPDATER_MSYS_UPDATE_H_
