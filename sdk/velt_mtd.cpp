#include "sdk/velt_mtd.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "lib/slib_error.h"
#include "lib/unique_fd.h"
#include "sdk/flash_driver_requests.h"
#include "sdk/kernel.h"
#include "sdk/platform_identity.h"

namespace {

static_assert(sizeof(struct mtd_info_user) == VELT_MTD_INFO_SIZE, "mtd_info_user");

constexpr char kStressDevice[] = "/dev/mtd5";
constexpr char kJuniorStressFile[] = "/var/log/stress.data";
constexpr off_t kStressOffset = 544;
constexpr mode_t kStressFileMode = 0600;

constexpr unsigned char kErasedByte = 0xFF;

// "<function>(<line>): <message>" at error priority.
__attribute__((format(printf, 3, 4))) void LogError(const char* function, int line,
                                                    const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, format, args);
  std::string message(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  vsnprintf(&message[0], message.size() + 1, format, again);
  va_end(again);
  va_end(args);
  syslog(LOG_ERR, "%s(%d): %s", function, line, message.c_str());
}

// The messages of these helpers carry `function` and `line`: the public
// caller's name and the line of the call.
int OpenReadWrite(const char* function, int line, const char* path) {
  const int fd = open(path, O_RDWR);
  if (fd < 0) LogError(function, line, "fail to open mtd device %s, errno = %d", path, errno);
  return fd;
}

// The geometry of an open partition, for the calls that work on all of it.
bool GetGeometry(const char* function, int line, int fd, const char* path, mtd_info_user* info) {
  if (ioctl(fd, kFlashGetInfoRequest, info) == 0) return true;
  LogError(function, line, "Could not get MTD device info for %s, errno = %d", path, errno);
  return false;
}

// The stress block lives in a file of its own on junior boards (whose mtd5
// is the FIS directory); the file is made on first use.
int OpenStressLocation(int access) {
  if (VELTIsJunior()) return open(kJuniorStressFile, access | O_CREAT, kStressFileMode);
  return open(kStressDevice, access);
}

int Fail(int code) {
  SLIBCErrSet(code);
  return -1;
}

int WriteStressBlock(const unsigned char* data) {
  UniqueFd fd(OpenStressLocation(O_WRONLY));
  if (fd.get() < 0) return Fail(SLIB_ERR_OPEN);
  if (lseek(fd.get(), kStressOffset, SEEK_SET) != kStressOffset) return Fail(SLIB_ERR_FLASH);
  size_t done = 0;
  while (done < VELT_MTD_STRESS_DATA_SIZE) {
    const ssize_t written = write(fd.get(), data + done, VELT_MTD_STRESS_DATA_SIZE - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return Fail(SLIB_ERR_WRITE);
    done += static_cast<size_t>(written);
  }
  if (fd.Close() != 0) return Fail(SLIB_ERR_WRITE);
  return 0;
}

}  // namespace

int VELTMTDGetDeviceInfo(const char* path, void* buffer, int size) {
  if (path == nullptr || buffer == nullptr || size < VELT_MTD_INFO_SIZE) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  memset(buffer, 0, static_cast<size_t>(size));
  UniqueFd fd(open(path, O_RDONLY));
  if (fd.get() < 0) {
    LogError(__FUNCTION__, __LINE__, "fail to open mtd device, errno = %d", errno);
    return -1;
  }
  if (ioctl(fd.get(), kFlashGetInfoRequest, buffer) != 0) {
    LogError(__FUNCTION__, __LINE__, "fail to get mtd size, errno = %d", errno);
    return -1;
  }
  return 0;
}

int VELTMTDGetPartitionInfo(const char* path, void* buffer, int size, int* bytes) {
  if (path == nullptr || bytes == nullptr || (buffer != nullptr && size < 1)) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  UniqueFd fd(open(path, O_RDONLY));
  if (fd.get() < 0) {
    LogError(__FUNCTION__, __LINE__, "fail to open mtd device, errno = %d", errno);
    return -1;
  }
  unsigned char* out = static_cast<unsigned char*>(buffer);
  unsigned char record[VELT_MTD_FIS_RECORD_SIZE];
  int count = 0;
  int total = 0;
  for (;;) {
    memset(record, 0, sizeof(record));
    // A short read leaves errno as it was; start from 0 so the message does
    // not report a stale value.
    errno = 0;
    if (read(fd.get(), record, sizeof(record)) != static_cast<ssize_t>(sizeof(record))) {
      LogError(__FUNCTION__, __LINE__, "failed to read from %s(errno = %d)", path, errno);
      return -1;
    }
    // The directory ends at the first erased record.
    if (record[0] == kErasedByte) break;
    total += VELT_MTD_FIS_RECORD_SIZE;
    ++count;
    if (out == nullptr) continue;
    if (total > size) {
      LogError(__FUNCTION__, __LINE__, "not enough memory");
      return -1;
    }
    memcpy(out + total - VELT_MTD_FIS_RECORD_SIZE, record, sizeof(record));
  }
  *bytes = total;
  return count;
}

int VELTMTDModifyPartitionSize(const char* path, uint32_t flash_base, uint32_t size) {
  if (path == nullptr) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  UniqueFd fd(OpenReadWrite(__FUNCTION__, __LINE__, path));
  if (fd.get() < 0) return -1;
  FlashExtentRequest extent = {flash_base, size};
  if (ioctl(fd.get(), kFlashSetExtentRequest, &extent) != 0) {
    syslog(LOG_ERR, "Failed to set the mtd info of %s by ioctl, errno = %d\n", path, errno);
    return -1;
  }
  return 0;
}

int VELTMTDModifyFISEntry(const char* path, const VELTMTDFisEntry* entry) {
  if (path == nullptr || entry == nullptr) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  UniqueFd fd(OpenReadWrite(__FUNCTION__, __LINE__, path));
  if (fd.get() < 0) return -1;
  // The driver takes the name as a terminated string in 16 bytes.
  FlashFisEntryRequest request = {};
  memcpy(request.name, entry->name, strnlen(entry->name, sizeof(request.name) - 1));
  request.flash_base = entry->flash_base;
  request.size = entry->size;
  request.data_length = entry->data_length;
  if (ioctl(fd.get(), kFlashSetFisEntryRequest, &request) != 0) {
    syslog(LOG_ERR, "%s: Failed to set the mtd info of %s by ioctl, errno = %d\n", __FUNCTION__,
           path, errno);
    return -1;
  }
  return 0;
}

int VELTMTDErasePartition(const char* path) {
  if (path == nullptr) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  UniqueFd fd(OpenReadWrite(__FUNCTION__, __LINE__, path));
  if (fd.get() < 0) return -1;
  mtd_info_user info;
  if (!GetGeometry(__FUNCTION__, __LINE__, fd.get(), path, &info)) return -1;
  // One request for the whole range: the driver walks the erase blocks.
  erase_info_user range = {0, info.size};
  if (ioctl(fd.get(), kFlashEraseRequest, &range) != 0) {
    syslog(LOG_ERR, "Could not erase MTD device: %s, errno = %d\n", path, errno);
    return -1;
  }
  return 0;
}

int VELTMTDILock(const char* path, int lock) {
  if (path == nullptr) {
    LogError(__FUNCTION__, __LINE__, "parameter error");
    return -1;
  }
  UniqueFd fd(OpenReadWrite(__FUNCTION__, __LINE__, path));
  if (fd.get() < 0) return -1;
  mtd_info_user info;
  if (!GetGeometry(__FUNCTION__, __LINE__, fd.get(), path, &info)) return -1;
  erase_info_user range = {0, info.size};
  if (ioctl(fd.get(), lock == 1 ? kFlashLockRequest : kFlashUnlockRequest, &range) != 0) {
    syslog(LOG_ERR, "Could not lock/unlock MTD device: %s, errno = %d\n", path, errno);
    return -1;
  }
  return 0;
}

int VELTMTDLockPartition(const char* path) { return VELTMTDILock(path, 1); }

int VELTMTDUnlockPartition(const char* path) { return VELTMTDILock(path, 0); }

int VELTMTDIsMSysFlash(void) {
  uint32_t type = 0;
  return VELTKernelFlashType(&type) == 0 && (type & 1u) != 0 ? 1 : 0;
}

int VELTMTDStressData(void* buffer, int operation) {
  if (buffer == nullptr || (operation != 0 && operation != 1)) return Fail(SLIB_ERR_BAD_ARGUMENT);
  return operation == 1 ? VELTMTDReadStressData(buffer) : VELTMTDWriteStressData(buffer);
}

int VELTMTDReadStressData(void* buffer) {
  if (buffer == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  UniqueFd fd(OpenStressLocation(O_RDONLY));
  if (fd.get() < 0) return Fail(SLIB_ERR_OPEN);
  if (lseek(fd.get(), kStressOffset, SEEK_SET) != kStressOffset) return Fail(SLIB_ERR_FLASH);
  unsigned char* out = static_cast<unsigned char*>(buffer);
  size_t done = 0;
  while (done < VELT_MTD_STRESS_DATA_SIZE) {
    const ssize_t got = read(fd.get(), out + done, VELT_MTD_STRESS_DATA_SIZE - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Fail(SLIB_ERR_READ);
    if (got == 0) break;  // a fresh stress file is empty
    done += static_cast<size_t>(got);
  }
  return 0;
}

int VELTMTDWriteStressData(void* buffer) {
  if (buffer == nullptr) return Fail(SLIB_ERR_BAD_ARGUMENT);
  const int result = WriteStressBlock(static_cast<const unsigned char*>(buffer));
  // The caller gets what the flash holds now, whether the write worked or not.
  VELTMTDReadStressData(buffer);
  return result;
}
