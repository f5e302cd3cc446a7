#include "updater/file_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "lib/source_name.h"
#include "lib/unique_fd.h"
#include "updater/update_run.h"
#include "updater/update_status.h"

namespace {

constexpr const char* kSourceFile = SourceBaseName(__FILE__);

struct FreeDeleter {
  void operator()(void* block) const { free(block); }
};
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;

// Opens `path`, logging a descriptor not greater than 0 as failure; the
// caller still closes a descriptor 0.
int OpenOrLog(const char* path, int flags, const char* function, int line) {
  const int fd = open(path, flags);
  if (fd <= 0) {
    const int error = errno;
    syslog(LOG_ERR, "%s:%d(%s) open [%s] error: (%d) %s.", kSourceFile, line, function, path, error,
           strerror(error));
  }
  return fd;
}

Buffer AllocateOrLog(unsigned int size, const char* function, int line) {
  Buffer buffer(static_cast<unsigned char*>(malloc(size)));
  if (!buffer) {
    const int error = errno;
    syslog(LOG_ERR, "%s:%d(%s) malloc [%d] fail: (%d) %s.", kSourceFile, line, function,
           static_cast<int>(size), error, strerror(error));
  }
  return buffer;
}

void LogIoError(const char* what, const char* path, const char* function, int line) {
  const int error = errno;
  syslog(LOG_ERR, "%s:%d(%s) %s file [%s] error: (%d) %s.", kSourceFile, line, function, what, path,
         error, strerror(error));
}

// A short source is not a failure: the verify of the written partition is
// what catches a truncated image.
void WarnIfShort(const char* source, uint64_t total, uint64_t count, const char* function,
                 int line) {
  if (total == count) return;
  const int error = errno;
  syslog(LOG_ERR, "%s:%d(%s) read file [%s] only %llu bytes, %llu bytes needed: (%d) %s.",
         kSourceFile, line, function, source, static_cast<unsigned long long>(total),
         static_cast<unsigned long long>(count), error, strerror(error));
}

void AdvanceProgress(size_t bytes) {
  const uint64_t recounted = std::min<uint64_t>(bytes, gullUpdateRecount);
  gullUpdateRecount -= recounted;
  gullUpdateDone += bytes - recounted;
  // The flash engine sets the total before a pass; without it there is no
  // meaningful percentage to write.
  if (gullUpdateTotal == 0) return;
  const uint64_t done = std::min(gullUpdateDone, gullUpdateTotal);
  UPDTSetProgress('P', static_cast<int>(60 + done * 40 / gullUpdateTotal));
}

}  // namespace

int UPDTCopyFile(const char* source, const char* destination, uint64_t count,
                 unsigned int blockSize) {
  if (source == nullptr || destination == nullptr || count == 0 || blockSize == 0) return -1;
  UniqueFd in(OpenOrLog(source, O_RDONLY, __func__, __LINE__));
  if (in.get() <= 0) return -1;
  // A device or an existing file: never created, never truncated.
  UniqueFd out(OpenOrLog(destination, O_WRONLY, __func__, __LINE__));
  if (out.get() <= 0) return -1;
  Buffer buffer = AllocateOrLog(blockSize, __func__, __LINE__);
  if (!buffer) return -1;

  uint64_t total = 0;
  for (;;) {
    errno = 0;
    const ssize_t got = read(in.get(), buffer.get(), blockSize);
    if (got == 0) break;
    if (got < 0 || errno > 0) {
      LogIoError("read", source, __func__, __LINE__);
      return -1;
    }
    if (write(out.get(), buffer.get(), static_cast<size_t>(got)) != got) {
      LogIoError("write", destination, __func__, __LINE__);
      return -1;
    }
    total += static_cast<uint64_t>(got);
    AdvanceProgress(static_cast<size_t>(got));
  }
  WarnIfShort(source, total, count, __func__, __LINE__);
  return 0;
}

int UPDTVerifyFile(const char* source, const char* destination, uint64_t count,
                   unsigned int blockSize) {
  if (source == nullptr || destination == nullptr || count == 0 || blockSize == 0) return -1;
  UniqueFd in(OpenOrLog(source, O_RDONLY, __func__, __LINE__));
  if (in.get() <= 0) return -1;
  UniqueFd device(OpenOrLog(destination, O_RDONLY, __func__, __LINE__));
  if (device.get() <= 0) return -1;
  Buffer expected = AllocateOrLog(blockSize, __func__, __LINE__);
  if (!expected) return -1;
  Buffer actual = AllocateOrLog(blockSize, __func__, __LINE__);
  if (!actual) return -1;

  uint64_t total = 0;
  for (;;) {
    errno = 0;
    const ssize_t got = read(in.get(), expected.get(), blockSize);
    if (got == 0) break;
    if (got < 0 || errno > 0) {
      LogIoError("read", source, __func__, __LINE__);
      return -1;
    }
    if (read(device.get(), actual.get(), static_cast<size_t>(got)) != got) {
      LogIoError("read", destination, __func__, __LINE__);
      return -1;
    }
    if (memcmp(expected.get(), actual.get(), static_cast<size_t>(got)) != 0) {
      syslog(LOG_ERR, "%s:%d(%s) compare file [%s] vs [%s] error at offset 0x%llX", kSourceFile,
             __LINE__, __func__, source, destination, static_cast<unsigned long long>(total));
      return -1;
    }
    total += static_cast<uint64_t>(got);
    AdvanceProgress(static_cast<size_t>(got));
  }
  WarnIfShort(source, total, count, __func__, __LINE__);
  return 0;
}
