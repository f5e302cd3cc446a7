// The requests the appliance's flash drivers take besides the standard MTD
// ones, and the records they carry: one definition for the programs that
// make the requests and for the flash simulator that answers them. Request
// numbers are built with the kernel's macros so that they are right on every
// architecture; for the appliance (32-bit PowerPC) they are checked against
// the drivers' numbers, in the appliance build that scripts/test runs.
#ifndef SDK_FLASH_DRIVER_REQUESTS_H_
#define SDK_FLASH_DRIVER_REQUESTS_H_

#include <stdint.h>
#include <sys/ioctl.h>
// After sys/ioctl.h, which the kernel header relies on.
#include <mtd/mtd-user.h>

// Set extent: where the partition is to begin on the flash and how long it
// is to be.
struct FlashExtentRequest {
  uint32_t flash_base;
  uint32_t size;
};

// Set FIS entry: the partition's directory record, in the machine's byte
// order (the driver converts it).
struct FlashFisEntryRequest {
  char name[16];  // NUL-padded; at most 15 characters
  uint32_t flash_base;
  uint32_t size;
  uint32_t data_length;
};

// The M-Systems flash disk's partition table: {size, data length} in bytes
// per partition, in partition order.
constexpr int kFlashDiskPartitions = 8;
struct FlashDiskTable {
  uint32_t pairs[2 * kFlashDiskPartitions];
};

static_assert(sizeof(FlashExtentRequest) == 8, "extent record");
static_assert(sizeof(FlashFisEntryRequest) == 28, "FIS entry record");
static_assert(sizeof(FlashDiskTable) == 64, "flash disk table");
static_assert(sizeof(struct mtd_info_user) == 32, "mtd_info_user");
static_assert(sizeof(struct erase_info_user) == 8, "erase_info_user");

constexpr unsigned int kFlashGetInfoRequest = MEMGETINFO;
constexpr unsigned int kFlashEraseRequest = MEMERASE;
constexpr unsigned int kFlashLockRequest = MEMLOCK;
constexpr unsigned int kFlashUnlockRequest = MEMUNLOCK;
constexpr unsigned int kFlashSetExtentRequest = _IOW('M', 0x16, FlashExtentRequest);
constexpr unsigned int kFlashSetFisEntryRequest = _IOW('M', 0x17, FlashFisEntryRequest);
// Format takes the unit count as the argument value itself; partition takes
// a pointer to eight 32-bit block counts although its number encodes 4 bytes.
constexpr unsigned int kFlashDiskFormatRequest = _IOW('M', 0x18, uint32_t);
constexpr unsigned int kFlashDiskPartitionRequest = _IOW('M', 0x19, uint32_t);
constexpr unsigned int kFlashDiskGetTableRequest = _IOR('M', 0x1A, FlashDiskTable);

#if defined(__powerpc__) && !defined(__powerpc64__)
static_assert(kFlashGetInfoRequest == 0x40204D01, "MEMGETINFO");
static_assert(kFlashEraseRequest == 0x80084D02, "MEMERASE");
static_assert(kFlashLockRequest == 0x80084D05, "MEMLOCK");
static_assert(kFlashUnlockRequest == 0x80084D06, "MEMUNLOCK");
static_assert(kFlashSetExtentRequest == 0x80084D16, "set extent");
static_assert(kFlashSetFisEntryRequest == 0x801C4D17, "set FIS entry");
static_assert(kFlashDiskFormatRequest == 0x80044D18, "format");
static_assert(kFlashDiskPartitionRequest == 0x80044D19, "partition");
static_assert(kFlashDiskGetTableRequest == 0x40404D1A, "get partition table");
#endif

#endif  // SDK_FLASH_DRIVER_REQUESTS_H_
