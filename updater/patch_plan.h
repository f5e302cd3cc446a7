// The patch plan: which package file goes into which flash partition, where
// each partition lies, how many erase blocks the new contents need, and the
// rebalancing that moves erase blocks to a partition whose new image no
// longer fits.
#ifndef UPDATER_PATCH_PLAN_H_
#define UPDATER_PATCH_PLAN_H_

#include <stdint.h>

// One row of the plan. The working table (gPartitionTable, update_run.h)
// ends with an all-zero row.
typedef struct {
  const char* part;     // partition name as in the FIS directory (not owned)
  const char* file;     // image file in the working directory (not owned)
  uint32_t start;       // absolute flash address of the partition
  uint32_t datalen;     // bytes to write: the file's size, or the old data_length
  uint32_t size;        // partition size in bytes
  int32_t balance;      // erase blocks not needed by the contents (negative: too big)
  int32_t delta;        // erase blocks added (+) or taken (-) by the rebalancing
  int32_t fneedupdate;  // 1: rewritten; 0: skipped
} PartitionRecord;

// Partition name -> MTD device path; the working table ends with {0, 0}.
typedef struct {
  const char* part;
  const char* device;
} PartitionDevice;

#define UPDT_MAX_PARTITIONS 8

// Copies the built-in tables of the board family into gPartitionTable and
// gPartitionDevices, sets gPartitionCount (8, or 6 on junior boards) and
// gszDevMtdPartition ("/dev/mtd7" or "/dev/mtd5"), and logs "This is not
// junior, gszDevMtdPartition=[%s]" or "This is junior, ...".
void UPDTSelectLayout(int junior);

// Name of partition `index` (0..7) in the layout of boards that are not
// junior, whatever layout is selected; null for any other index.
const char* SzUPDTOrdinaryPartitionName(int index);

// Device of the partition `name` in gPartitionDevices (exact match), or
// null with a log line (null name: parameter error; unknown name).
const char* SzUPDTGetDeviceByName(const char* name);

// Index of the FIS record (FIS_RECORD_SIZE bytes each, `count` of them)
// named exactly `name`, or -1 with a log line.
int GetIdxByName(const char* name, const unsigned char* fisRecords, int count);

// The same without a log line: -1 when no record has that name.
int FisRecordIndex(const char* name, const unsigned char* fisRecords, int count);

// 1 for the partitions that never give blocks away and never move:
// "veltcfg", "vendor", "RedBoot Config", "FIS Directory".
int UPDTIsFixedPartition(const char* part);

// Fills every row of gPartitionTable from the FIS directory and the package
// files in the current (working) directory; sets gEraseBlockSize from the
// FIS directory device. The flash runs from the "zImage" record's base to
// the end of the "FIS Directory" record (worked out in 64 bits, so a
// directory at the top of the address space without a kernel record still
// gives a size). Fails (-1, logged) when the directory lacks a partition of
// the table or the new contents exceed the flash.
int UPDTInitPatchInfo(const unsigned char* fisRecords, int count);

// 1 when any of the first `count` rows has a negative balance, else 0.
int UPDTNeedResize(const PartitionRecord* records, int count);

// Moves erase blocks to the rows with a negative balance, then shifts the
// later partitions and marks every moved or resized row for rewriting.
// 0, or -1 ("negative balance") when no donor has a block to give.
int ErrUPDTAdjustPartitionSize(PartitionRecord* records, int count);

#endif  // UPDATER_PATCH_PLAN_H_
