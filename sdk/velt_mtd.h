// The appliance's MTD flash partitions (/dev/mtd0 .. /dev/mtd7): geometry,
// the FIS directory as raw 256-byte records, erase, lock and unlock of a
// whole partition, the driver's private requests that move a partition's
// extent and rewrite one FIS directory entry, and the stress-test block.
//
// Every call opens the device, does one or two requests and closes it again;
// nothing is cached. Failures are logged at error priority as
// "<function>(<line>): ..."; only the stress-data calls also set the library
// error code. Parameter errors return -1 before anything is opened.
#ifndef SDK_VELT_MTD_H_
#define SDK_VELT_MTD_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELT_MTD_FIS_RECORD_SIZE 256
#define VELT_MTD_INFO_SIZE 32  // struct mtd_info_user
#define VELT_MTD_STRESS_DATA_SIZE 652

// The set-FIS-entry request's record, in the machine's byte order (as the
// driver takes it): 28 bytes.
typedef struct {
  char name[16];  // NUL-padded; at most 15 characters
  uint32_t flash_base;
  uint32_t size;
  uint32_t data_length;
} VELTMTDFisEntry;

// Fills `buffer` (at least VELT_MTD_INFO_SIZE bytes, a struct mtd_info_user;
// zeroed over `size` first) with the device's MEMGETINFO answer. 0 or -1.
int VELTMTDGetDeviceInfo(const char* path, void* buffer, int size);

// Reads the FIS directory on `path` record by record until a record whose
// first byte is 0xFF. Counting mode (buffer null, size 0; a null buffer
// always counts): only counts.
// Copying mode: copies the records into `buffer` (size bytes, at least 1;
// fails with "not enough memory" when they do not fit, after the records
// that fit were copied). *bytes receives 256 * count on success only.
// Returns the number of records, or -1 (a short read fails; its message
// shows errno = 0 when the read itself did not fail).
int VELTMTDGetPartitionInfo(const char* path, void* buffer, int size, int* bytes);

// Moves the partition's extent to {flash_base, size}; nothing is erased.
int VELTMTDModifyPartitionSize(const char* path, uint32_t flash_base, uint32_t size);

// Replaces flash_base, size and data_length of the directory entry named
// entry->name, through the FIS directory device `path`. The driver is given
// a copy whose name holds at most the first 15 characters, NUL-padded.
int VELTMTDModifyFISEntry(const char* path, const VELTMTDFisEntry* entry);

// Erases the whole partition with one MEMERASE.
int VELTMTDErasePartition(const char* path);

// MEMLOCK (lock == 1) or MEMUNLOCK (anything else) over the whole partition.
int VELTMTDILock(const char* path, int lock);
int VELTMTDLockPartition(const char* path);    // VELTMTDILock(path, 1)
int VELTMTDUnlockPartition(const char* path);  // VELTMTDILock(path, 0)

// 1 when the board's flash is an M-Systems flash disk (flash type word from
// the kernel with bit 0 set), else 0.
int VELTMTDIsMSysFlash(void);

// The 652-byte stress-test block at offset 544 of /dev/mtd5, or of
// /var/log/stress.data on junior boards (created with mode 0600 when
// missing). `read` 1 reads, 0 writes (and then, whatever the write's
// outcome, reads the block back into `buffer`; the result is the write's).
// A read stops early at the end of the file (a fresh stress file is empty)
// and leaves the rest of `buffer` as it was. 0, or -1 with the error code
// set (0xD00 argument, 0x900 open, 0x2600 seek, 0xA00 read, 0xB00 write or
// close).
int VELTMTDStressData(void* buffer, int read);
int VELTMTDReadStressData(void* buffer);
int VELTMTDWriteStressData(void* buffer);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_MTD_H_
