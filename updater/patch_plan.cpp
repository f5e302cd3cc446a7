#include "updater/patch_plan.h"

#include <mtd/mtd-user.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include "sdk/velt_mtd.h"
#include "updater/fis_record.h"
#include "updater/update_run.h"

namespace {

constexpr char kFisDirectory[] = "FIS Directory";
constexpr char kKernelImage[] = "zImage";
// The planning helpers log under the name of the call they work for.
constexpr char kInitPatchInfo[] = "UPDTInitPatchInfo";

// The plan templates: partition and package file, everything else zero.
const PartitionRecord kPartitionsOrdinary[] = {
    {"RedBoot", "RedBoot.msys", 0, 0, 0, 0, 0, 0},
    {"zImage", "zImage", 0, 0, 0, 0, 0, 0},
    {"rd.gz", "rd.bin", 0, 0, 0, 0, 0, 0},
    {"AllLib.tgz", "AllLib.tgz", 0, 0, 0, 0, 0, 0},
    {"vendor", "vendor", 0, 0, 0, 0, 0, 0},
    {"veltcfg", "veltcfg", 0, 0, 0, 0, 0, 0},
    {"RedBoot Config", "RedBoot Config", 0, 0, 0, 0, 0, 0},
    {"FIS Directory", "FIS Directory", 0, 0, 0, 0, 0, 0},
};

const PartitionDevice kDevicesOrdinary[] = {
    {"RedBoot", "/dev/mtd0"},        {"zImage", "/dev/mtd1"},        {"rd.gz", "/dev/mtd2"},
    {"AllLib.tgz", "/dev/mtd3"},     {"vendor", "/dev/mtd4"},        {"veltcfg", "/dev/mtd5"},
    {"RedBoot Config", "/dev/mtd6"}, {"FIS Directory", "/dev/mtd7"},
};

const PartitionRecord kPartitionsJunior[] = {
    {"RedBoot", "RedBoot.msys", 0, 0, 0, 0, 0, 0},
    {"zImage", "zImage", 0, 0, 0, 0, 0, 0},
    {"rd.gz", "rd.bin", 0, 0, 0, 0, 0, 0},
    {"vendor", "vendor", 0, 0, 0, 0, 0, 0},
    {"RedBoot Config", "RedBoot Config", 0, 0, 0, 0, 0, 0},
    {"FIS Directory", "FIS Directory", 0, 0, 0, 0, 0, 0},
};

const PartitionDevice kDevicesJunior[] = {
    {"RedBoot", "/dev/mtd0"}, {"zImage", "/dev/mtd1"},         {"rd.gz", "/dev/mtd2"},
    {"vendor", "/dev/mtd3"},  {"RedBoot Config", "/dev/mtd4"}, {"FIS Directory", "/dev/mtd5"},
};

template <typename T, size_t N>
constexpr int CountOf(const T (&)[N]) {
  return static_cast<int>(N);
}

static_assert(CountOf(kPartitionsOrdinary) == CountOf(kDevicesOrdinary), "one device per row");
static_assert(CountOf(kPartitionsJunior) == CountOf(kDevicesJunior), "one device per row");
static_assert(CountOf(kPartitionsOrdinary) <= UPDT_MAX_PARTITIONS, "room for the end row");

void CopyLayout(const PartitionRecord* partitions, const PartitionDevice* devices, int count,
                const char* fisDevice) {
  memset(gPartitionTable, 0, sizeof(gPartitionTable));
  memset(gPartitionDevices, 0, sizeof(gPartitionDevices));
  memcpy(gPartitionTable, partitions, sizeof(PartitionRecord) * count);
  memcpy(gPartitionDevices, devices, sizeof(PartitionDevice) * count);
  gPartitionCount = count;
  snprintf(gszDevMtdPartition, sizeof(gszDevMtdPartition), "%s", fisDevice);
}

uint64_t BlocksFor(uint64_t bytes) { return (bytes + gEraseBlockSize - 1) / gEraseBlockSize; }

// The flash from the kernel image's start to the end of the directory
// partition, or 0 when the directory does not tell. Computed in the board's
// 32 bits: a directory at the top of the address space without a kernel
// record wraps to 0 there, as on the board.
uint32_t FlashSize(const unsigned char* fisRecords, int count) {
  unsigned long ulAddrMtd7 = 0;
  unsigned long ulSizeMtd7 = 0;
  unsigned long ulAddrMtd0 = 0;
  for (int i = 0; i < count; ++i) {
    FisImageDesc desc;
    UPDTFisDecode(fisRecords + i * FIS_RECORD_SIZE, &desc);
    if (strcmp(desc.name, kFisDirectory) == 0) {
      ulAddrMtd7 = desc.flash_base;
      ulSizeMtd7 = desc.size;
    } else if (strcmp(desc.name, kKernelImage) == 0) {
      ulAddrMtd0 = desc.flash_base;
    }
  }
  if (ulAddrMtd0 < ulAddrMtd7 && ulSizeMtd7 > 0) {
    return static_cast<uint32_t>(ulAddrMtd7 - ulAddrMtd0 + ulSizeMtd7);
  }
  syslog(LOG_ERR, "%s(%d): ulAddrMtd7 = %lx, ulAddrMtd0 = %lx, ulSizeMtd7 = %lx", kInitPatchInfo,
         __LINE__, ulAddrMtd7, ulAddrMtd0, ulSizeMtd7);
  return 0;
}

// Plans one partition from its FIS record and the package file, if any;
// returns the erase blocks its contents need.
uint64_t PlanPartition(PartitionRecord* record, const FisImageDesc& fis) {
  struct stat64 st;
  uint64_t nblock;
  if (record->file != nullptr && stat64(record->file, &st) == 0) {
    record->datalen = static_cast<uint32_t>(st.st_size);
    record->fneedupdate = 1;
    nblock = BlocksFor(static_cast<uint64_t>(st.st_size));
  } else {
    syslog(LOG_INFO, "%s(%d): file [%s] not included in the patch package ", kInitPatchInfo,
           __LINE__, record->file != nullptr ? record->file : "");
    record->datalen = fis.data_length;
    record->fneedupdate = 0;
    nblock = BlocksFor(fis.data_length);
  }
  record->start = fis.flash_base;
  record->size = fis.size;
  record->delta = 0;
  record->balance = static_cast<int32_t>(static_cast<int64_t>(fis.size / gEraseBlockSize) -
                                         static_cast<int64_t>(nblock));
  syslog(LOG_INFO,
         "PATCHINFO: part[%s] file[%s] start = [0x%08X] size[0x%d] datalen=[0x%08X] nblock[%d] "
         "balance[%d] fneedupdate[%d]",
         record->part, record->file != nullptr ? record->file : "", record->start,
         static_cast<int>(record->size), record->datalen, static_cast<int>(nblock), record->balance,
         record->fneedupdate);
  return nblock;
}

bool IsEndRow(const PartitionRecord& record) {
  static const PartitionRecord kZero = {};
  return memcmp(&record, &kZero, sizeof(record)) == 0;
}

// The donor of one erase block for record `needy`: the non-fixed record with
// the greatest balance, the earliest on a tie; record 0 unless beaten.
int ChooseDonor(const PartitionRecord* records, int count, int needy) {
  int donor = 0;
  for (int j = 0; j < count; ++j) {
    if (j == needy || UPDTIsFixedPartition(records[j].part)) continue;
    // Compares a partition name with a package file name, so it never
    // excludes anything; kept as the boot loader partition has always been
    // allowed to donate.
    if (records[j].part != nullptr && strcmp(records[j].part, "RedBoot.msys") == 0) continue;
    if (records[j].balance > records[donor].balance) donor = j;
  }
  return donor;
}

}  // namespace

void UPDTSelectLayout(int junior) {
  if (junior) {
    CopyLayout(kPartitionsJunior, kDevicesJunior, CountOf(kPartitionsJunior), "/dev/mtd5");
    syslog(LOG_ERR, "This is junior, gszDevMtdPartition=[%s]", gszDevMtdPartition);
  } else {
    CopyLayout(kPartitionsOrdinary, kDevicesOrdinary, CountOf(kPartitionsOrdinary), "/dev/mtd7");
    syslog(LOG_ERR, "This is not junior, gszDevMtdPartition=[%s]", gszDevMtdPartition);
  }
}

const char* SzUPDTOrdinaryPartitionName(int index) {
  if (index < 0 || index >= CountOf(kPartitionsOrdinary)) return nullptr;
  return kPartitionsOrdinary[index].part;
}

const char* SzUPDTGetDeviceByName(const char* name) {
  if (name == nullptr) {
    syslog(LOG_ERR, "%s(%d): parameter error", __func__, __LINE__);
    return nullptr;
  }
  for (int i = 0; i <= UPDT_MAX_PARTITIONS && gPartitionDevices[i].part != nullptr; ++i) {
    if (strcmp(gPartitionDevices[i].part, name) == 0) return gPartitionDevices[i].device;
  }
  syslog(LOG_ERR, "%s(%d): unknown partition name [%s]", __func__, __LINE__, name);
  return nullptr;
}

int GetIdxByName(const char* name, const unsigned char* fisRecords, int count) {
  if (name == nullptr || fisRecords == nullptr) {
    syslog(LOG_ERR, "%s(%d): parameter error", __func__, __LINE__);
    return -1;
  }
  const int index = FisRecordIndex(name, fisRecords, count);
  if (index < 0) syslog(LOG_ERR, "%s(%d): unknown partition name [%s]", __func__, __LINE__, name);
  return index;
}

int FisRecordIndex(const char* name, const unsigned char* fisRecords, int count) {
  for (int i = 0; i < count; ++i) {
    char recordName[FIS_NAME_SIZE + 1];
    const unsigned char* record = fisRecords + static_cast<size_t>(i) * FIS_RECORD_SIZE;
    if (strcmp(UPDTFisName(record, recordName), name) == 0) return i;
  }
  return -1;
}

int UPDTIsFixedPartition(const char* part) {
  static const char* const kFixed[] = {"veltcfg", "vendor", "RedBoot Config", "FIS Directory"};
  if (part == nullptr) return 0;
  for (const char* fixed : kFixed) {
    if (strcmp(part, fixed) == 0) return 1;
  }
  return 0;
}

int UPDTInitPatchInfo(const unsigned char* fisRecords, int count) {
  if (fisRecords == nullptr || count < 1) {
    syslog(LOG_ERR, "%s(%d): parameter error ", __func__, __LINE__);
    return -1;
  }
  const char* device = SzUPDTGetDeviceByName(kFisDirectory);
  struct mtd_info_user info;
  static_assert(sizeof(info) == VELT_MTD_INFO_SIZE, "MEMGETINFO answers 32 bytes");
  if (device == nullptr ||
      VELTMTDGetDeviceInfo(device, &info, static_cast<int>(sizeof(info))) != 0) {
    syslog(LOG_ERR, "%s(%d): fail to get device info", __func__, __LINE__);
    return -1;
  }
  gEraseBlockSize = info.erasesize;
  if (gEraseBlockSize == 0) {
    syslog(LOG_ERR, "%s(%d): gEraseBlockSize == 0", __func__, __LINE__);
    return -1;
  }
  const uint32_t flashSize = FlashSize(fisRecords, count);
  if (flashSize == 0) {
    syslog(LOG_ERR, "%s(%d): flashsize == 0", __func__, __LINE__);
    return -1;
  }
  syslog(LOG_INFO, "flashsize = 0x%08X, eraseblock = 0x%08X", flashSize, gEraseBlockSize);

  uint64_t total = 0;
  for (int i = 0; i < gPartitionCount && i < UPDT_MAX_PARTITIONS; ++i) {
    PartitionRecord* record = &gPartitionTable[i];
    if (IsEndRow(*record)) break;
    const int index = GetIdxByName(record->part, fisRecords, count);
    if (index < 0) {
      syslog(LOG_ERR, "%s(%d): get idx of partition %d [%s] fail", __func__, __LINE__, i,
             record->part != nullptr ? record->part : "");
      return -1;
    }
    FisImageDesc fis;
    UPDTFisDecode(fisRecords + index * FIS_RECORD_SIZE, &fis);
    total += PlanPartition(record, fis);
  }
  if (total <= flashSize / gEraseBlockSize) return 0;
  syslog(LOG_ERR, "%s(%d): the binary size exceeds flash size limit(total = %d)", __func__,
         __LINE__, static_cast<int>(total));
  return -1;
}

int UPDTNeedResize(const PartitionRecord* records, int count) {
  if (records == nullptr) return 0;
  for (int i = 0; i < count; ++i) {
    if (records[i].balance < 0) return 1;
  }
  return 0;
}

int ErrUPDTAdjustPartitionSize(PartitionRecord* records, int count) {
  if (records == nullptr) {
    syslog(LOG_ERR, "%s(%d): parameter error", __func__, __LINE__);
    return -1;
  }
  for (int i = 0; i < count; ++i) {
    while (records[i].balance < 0) {
      PartitionRecord& donor = records[ChooseDonor(records, count, i)];
      if (donor.balance < 1) {
        syslog(LOG_ERR, "%s(%d): negative balance", __func__, __LINE__);
        return -1;
      }
      --donor.balance;
      --donor.delta;
      ++records[i].balance;
      ++records[i].delta;
    }
  }
  // Every partition after a resized one moves by the blocks it gained or
  // lost, in table order; fixed partitions stay where they are.
  int64_t shift = 0;
  for (PartitionRecord* record = records; !IsEndRow(*record); ++record) {
    if (UPDTIsFixedPartition(record->part)) continue;
    if (shift == 0 && record->delta == 0) continue;
    record->fneedupdate = 1;
    record->start = static_cast<uint32_t>(record->start + shift * gEraseBlockSize);
    record->size = static_cast<uint32_t>(record->size + int64_t{record->delta} * gEraseBlockSize);
    shift += record->delta;
  }
  return 0;
}
