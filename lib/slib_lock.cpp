#include "lib/slib_lock.h"

#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lib/slib_error.h"
#include "lib/slib_pause.h"

namespace {

struct LockEntry {
  FILE* stream;  // open while this process holds the lock
  const char* path;
  int mask;       // 0 ends the table
  int ref_count;  // unreleased lock calls of this process that include the lock
  int operation;  // the flock operation the lock was taken with
};

constexpr char kLockDirectory[] = "/tmp/lock/";

// The order is the order of acquisition. The settings lock comes first
// although its bit is higher; every caller relies on this order.
LockEntry g_locks[] = {
    {nullptr, "/tmp/lock/lock_veltinfo", SLIB_LOCK_VELTINFO, 0, 0},
    {nullptr, "/tmp/lock/lock_pw", SLIB_LOCK_PW, 0, 0},
    {nullptr, "/tmp/lock/lock_gr", SLIB_LOCK_GR, 0, 0},
    {nullptr, "/tmp/lock/lock_rc", SLIB_LOCK_RC, 0, 0},
    {nullptr, "/tmp/lock/lock_host", SLIB_LOCK_HOST, 0, 0},
    {nullptr, "/tmp/lock/lock_smb", SLIB_LOCK_SMB, 0, 0},
    {nullptr, "/tmp/lock/lock_exports", SLIB_LOCK_EXPORTS, 0, 0},
    {nullptr, "/tmp/lock/lock_nw", SLIB_LOCK_NW, 0, 0},
    {nullptr, "/tmp/lock/lock_apple", SLIB_LOCK_APPLE, 0, 0},
    {nullptr, "/tmp/lock/lock_snmp", SLIB_LOCK_SNMP, 0, 0},
    {nullptr, "/tmp/lock/lock_win", SLIB_LOCK_WIN, 0, 0},
    {nullptr, "/tmp/lock/lock_tapebkp", SLIB_LOCK_TAPEBKP, 0, 0},
    {nullptr, "/tmp/lock/lock_connect", SLIB_LOCK_CONNECT, 0, 0},
    {nullptr, "/tmp/lock/lock_usbidmap", SLIB_LOCK_USBIDMAP, 0, 0},
    {nullptr, "/tmp/lock/lock_duseruid", SLIB_LOCK_DUSERUID, 0, 0},
    {nullptr, "/tmp/lock/lock_dusergid", SLIB_LOCK_DUSERGID, 0, 0},
    {nullptr, "/tmp/lock/lock_fstab", SLIB_LOCK_FSTAB, 0, 0},
    {nullptr, "/tmp/lock/lock_hotswap", SLIB_LOCK_HOTSWAP, 0, 0},
    {nullptr, nullptr, 0, 0, 0},
};

// Ten milliseconds per unit, the unit of the time-out arithmetic.
constexpr long long kUnitsPerSecond = 100;
constexpr long long kUnitsPerAttempt = 5;
constexpr unsigned int kMicrosecondsPerAttempt = 50000;

bool IsDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

int PrepareLockDirectory() {
  if (IsDirectory(kLockDirectory)) return 0;
  // Made private first, then opened up with chmod so that the umask has no say.
  if (mkdir(kLockDirectory, 0700) != 0 || chmod(kLockDirectory, 0755) != 0) {
    SLIBCErrSet(SLIB_ERR_LOCK_DIR);
    return -1;
  }
  return 0;
}

int PrepareLockFiles() {
  if (PrepareLockDirectory() != 0) return -1;
  for (const LockEntry* entry = g_locks; entry->mask != 0; ++entry) {
    if (IsRegularFile(entry->path)) continue;
    FILE* created = fopen(entry->path, "w");
    if (created == nullptr || fclose(created) != 0) {
      SLIBCErrSet(SLIB_ERR_OPEN);
      return -1;
    }
  }
  return 0;
}

// Closes the entry's stream without unlocking: after a fork the descriptor
// shares its lock with the parent, which must keep it.
int CloseEntry(LockEntry* entry) {
  const int result = fclose(entry->stream) == 0 ? 0 : -1;
  entry->stream = nullptr;
  entry->ref_count = 0;
  entry->operation = 0;
  return result;
}

enum class Attempt { kAllHeld, kIncomplete, kRefused };

// One pass over the table: takes every lock of the request or, on failure,
// gives back exactly what this pass took.
Attempt TryLockOnce(int request) {
  const int wanted = request & ~SLIB_LOCK_OP_MASK;
  const int operation = request & SLIB_LOCK_OP_MASK;
  int taken = 0;
  int held = 0;
  for (LockEntry* entry = g_locks; entry->mask != 0; ++entry) {
    if ((entry->mask & wanted) == 0) continue;
    if (entry->stream != nullptr) {
      taken |= entry->mask;
      ++entry->ref_count;
      // A shared lock cannot be turned into an exclusive one without first
      // letting it go, and another process could take it in between.
      if (entry->operation == (SLIB_LOCK_SH | SLIB_LOCK_NB) &&
          operation == (SLIB_LOCK_EX | SLIB_LOCK_NB)) {
        ErrSLIBFileUnlock(taken);
        SLIBCErrSet(SLIB_ERR_LOCK);
        return Attempt::kRefused;
      }
      held |= entry->mask;
      continue;
    }
    FILE* stream = fopen(entry->path, "r");
    if (stream == nullptr) continue;  // not held; nothing to give back
    entry->stream = stream;
    entry->ref_count = 1;
    taken |= entry->mask;
    if (flock(fileno(stream), operation) != 0) break;
    entry->operation = operation;
    held |= entry->mask;
  }
  if (held == wanted) return Attempt::kAllHeld;
  ErrSLIBFileUnlock(taken);
  return Attempt::kIncomplete;
}

}  // namespace

int ErrSLIBFileLock(int request, int timeout_seconds) {
  if (PrepareLockFiles() != 0) return -1;
  const long long limit = timeout_seconds * kUnitsPerSecond;
  for (long long elapsed = 0;; elapsed += kUnitsPerAttempt) {
    if (elapsed > limit) break;
    const Attempt attempt = TryLockOnce(request);
    if (attempt == Attempt::kAllHeld) return 0;
    if (attempt == Attempt::kRefused) return -1;
    if (limit == 0) break;
    SLIBPause(kMicrosecondsPerAttempt);
  }
  SLIBCErrSet(SLIB_ERR_LOCK);
  return -1;
}

int ErrSLIBFileUnlock(int mask) {
  int result = 0;
  for (LockEntry* entry = g_locks; entry->mask != 0; ++entry) {
    if (entry->stream == nullptr || (entry->mask & mask) == 0) continue;
    if (entry->ref_count >= 2) {
      --entry->ref_count;
      continue;
    }
    if (flock(fileno(entry->stream), LOCK_UN) != 0) {
      SLIBCErrSet(SLIB_ERR_UNLOCK);
      result = -1;
    }
    if (CloseEntry(entry) != 0) result = -1;
  }
  return result;
}

int SLIBFileUnlockAll(void) {
  int result = 0;
  for (LockEntry* entry = g_locks; entry->mask != 0; ++entry) {
    if (entry->stream != nullptr && CloseEntry(entry) != 0) result = -1;
    entry->ref_count = 0;
  }
  return result;
}

int SLIBFileLockKeep(int mask) {
  int result = 0;
  for (LockEntry* entry = g_locks; entry->mask != 0; ++entry) {
    if (entry->stream == nullptr) continue;
    if ((entry->mask & mask) != 0) {
      entry->ref_count = 1;
    } else if (CloseEntry(entry) != 0) {
      result = -1;
    }
  }
  return result;
}
