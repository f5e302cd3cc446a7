#include "updater/update_status.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "lib/slib_file_line.h"

const char* const gszResultKey[UPDT_RESULT_CODE_COUNT] = {
    "upgrade_success",                                              // 0
    "error_dirop",          "error_dirop",          "error_dirop",  // 1 - 3
    "error_bootmediaop",    "error_bootmediaop",                    // 4, 5
    "error_read_ver",                                               // 6
    "error_read_patch_ver",                                         // 7
    "error_read_mod",                                               // 8
    "error_read_patch_mod",                                         // 9
    "error_version",                                                // 10
    "error_model",                                                  // 11
    "error_company",                                                // 12
    "error_patch",                                                  // 13
    "error_update_unknown", "error_update_unknown",                 // 14, 15
    "error_update_unknown", "error_update_unknown",                 // 16, 17
    "error_update_unknown", "error_update_unknown",                 // 18, 19
    "error_update_unknown", "error_update_unknown",                 // 20, 21
    "error_update_unknown",                                         // 22
    "error_memory",                                                 // 23
    "error_reboot",                                                 // 24
};

namespace {

constexpr off64_t kLogTrimSize = 10000;
constexpr int kLockRetries = 20;
constexpr useconds_t kLockRetryPauseUs = 337;

struct FreeDeleter {
  void operator()(char* buffer) const { free(buffer); }
};

struct FcloseDeleter {
  void operator()(FILE* file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FcloseDeleter>;

// Releases the flock of a status file when it goes out of scope (before the
// file itself is closed).
class StatusFileLock {
 public:
  explicit StatusFileLock(int fd) : fd_(fd) {}
  ~StatusFileLock() { flock(fd_, LOCK_UN); }
  StatusFileLock(const StatusFileLock&) = delete;
  StatusFileLock& operator=(const StatusFileLock&) = delete;

 private:
  int fd_;
};

// An existing status file is rewritten from its start and never truncated.
UniqueFile OpenStatusFile(const char* path) {
  UniqueFile file(fopen(path, "r+"));
  if (!file) file.reset(fopen(path, "w"));
  return file;
}

bool LockStatusFile(int fd, int retry) {
  const int attempts = 1 + (retry ? kLockRetries : 0);
  for (int attempt = 1;; ++attempt) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (attempt == attempts) return false;
    usleep(kLockRetryPauseUs);
  }
}

// The local time as "%Y/%m/%d %H:%M:%S", or "" when it cannot be worked out.
void FormatLogTime(char* buffer, size_t size) {
  memset(buffer, 0, size);
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return;
  if (strftime(buffer, size, "%Y/%m/%d %H:%M:%S", &local) == 0) buffer[0] = '\0';
}

}  // namespace

void UPDTLog(const char* text) {
  if (text == nullptr) return;
  const size_t size = strlen(text) + 24;
  std::unique_ptr<char, FreeDeleter> line(static_cast<char*>(malloc(size)));
  if (!line) return;
  char stamp[64];
  FormatLogTime(stamp, sizeof(stamp));
  snprintf(line.get(), size, "%s\t%s", stamp, text);
  SLIBFileAppendLine(UPDT_LOG_FILE, line.get());
}

void UPDTLogTrim(void) {
  struct stat64 status;
  if (stat64(UPDT_LOG_FILE, &status) != 0) return;
  if (status.st_size > kLogTrimSize) SLIBFileTruncate(UPDT_LOG_FILE);
}

int UPDTExecute(const char* command) {
  if (command == nullptr) return -1;
  const int result = system(command);
  // Only the exit status byte is judged: a command ended by a signal passes.
  const int status = result == -1 ? -1 : result / 256;
  if (status == 0) return 0;
  syslog(LOG_ERR, "%s(%d): failed to execute cmd=[%s], ret = %d", __func__, __LINE__, command,
         status);
  return -1;
}

int UPDTWriteStatusFile(const char* path, const char* text, int retry) {
  if (path == nullptr) return -1;
  if (text == nullptr) return -3;
  UniqueFile file = OpenStatusFile(path);
  if (!file) return -1;
  if (!LockStatusFile(fileno(file.get()), retry)) return -2;
  StatusFileLock lock(fileno(file.get()));
  // The text must reach the file while the lock is still held.
  if (fputs(text, file.get()) < 0 || fflush(file.get()) != 0) return -3;
  return 0;
}

void UPDTSetProgress(char letter, int value) {
  char record[32];
  snprintf(record, sizeof(record), "%c:%d:      ", letter, value);
  UPDTWriteStatusFile(UPDT_PROGRESS_FILE, record, 1);
}

void UPDTSetMessage(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) return;
  char message[1024];
  snprintf(message, sizeof(message), "%s=\"%s\"", key, value);
  UPDTWriteStatusFile(UPDT_MESSAGE_FILE, message, 1);
}

int UPDTFormatCommand(char* command, unsigned int size, const char* function, int line,
                      const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int needed = vsnprintf(command, size, format, args);
  va_end(args);
  if (needed >= 0 && static_cast<unsigned int>(needed) < size) {
    va_end(again);
    return 1;
  }
  std::string whole(needed > 0 ? static_cast<size_t>(needed) + 1 : 1, '\0');
  vsnprintf(&whole[0], whole.size(), format, again);
  va_end(again);
  syslog(LOG_ERR, "%s(%d): command too long [%s]", function, line, whole.c_str());
  return 0;
}
