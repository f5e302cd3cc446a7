// Lock files under "/tmp/lock/" that serialise the writers of shared system
// files between processes.
//
// A request is the OR of lock mask bits and one flock operation in its low
// four bits (1 shared, 2 exclusive, +4 not blocking). Locks are flock locks on
// open descriptors of the lock files, kept in a process-wide table with a
// reference count per lock: nested calls in one process are cheap and must
// be balanced by as many unlocks. The whole set of a request is taken in one
// attempt or not at all, in the table's order, which prevents deadlock
// between callers that take several locks. The table is not guarded: the
// calls are for single-threaded processes.
#ifndef LIB_SLIB_LOCK_H_
#define LIB_SLIB_LOCK_H_

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SLIB_LOCK_SH = 0x1,
  SLIB_LOCK_EX = 0x2,
  SLIB_LOCK_NB = 0x4,
  SLIB_LOCK_OP_MASK = 0xF,

  SLIB_LOCK_PW = 0x10,           // /tmp/lock/lock_pw: the password files
  SLIB_LOCK_GR = 0x20,           // lock_gr: the group file
  SLIB_LOCK_SMB = 0x40,          // lock_smb: the SMB configuration
  SLIB_LOCK_RC = 0x80,           // lock_rc
  SLIB_LOCK_HOST = 0x100,        // lock_host
  SLIB_LOCK_EXPORTS = 0x200,     // lock_exports
  SLIB_LOCK_NW = 0x400,          // lock_nw
  SLIB_LOCK_VELTINFO = 0x800,    // lock_veltinfo: the system settings file
  SLIB_LOCK_APPLE = 0x1000,      // lock_apple
  SLIB_LOCK_SNMP = 0x2000,       // lock_snmp
  SLIB_LOCK_WIN = 0x4000,        // lock_win
  SLIB_LOCK_TAPEBKP = 0x8000,    // lock_tapebkp
  SLIB_LOCK_CONNECT = 0x10000,   // lock_connect
  SLIB_LOCK_USBIDMAP = 0x20000,  // lock_usbidmap
  SLIB_LOCK_DUSERUID = 0x40000,  // lock_duseruid
  SLIB_LOCK_DUSERGID = 0x80000,  // lock_dusergid
  SLIB_LOCK_FSTAB = 0x100000,    // lock_fstab
  SLIB_LOCK_HOTSWAP = 0x200000   // lock_hotswap
};

// Takes every lock in the request's mask with its flock operation, retrying
// every 50 ms for about `timeout_seconds` (0: one attempt). First makes
// "/tmp/lock/" (mode 0755) and any missing lock file. Returns 0 when all are
// held; -1 with 0x400 (time-out, or an exclusive non-blocking request for a
// lock this process holds shared non-blocking: refused at once, the shared
// lock kept), 0xC00 (lock directory) or 0x900 (lock file). On failure this
// call holds nothing more than before it.
int ErrSLIBFileLock(int request, int timeout_seconds);

// Drops one reference of each held lock in `mask`; the lock is released when
// its count reaches 0. Returns 0; -1 when an unlock (0x500) or close failed.
int ErrSLIBFileUnlock(int mask);

// Releases every lock this process holds and zeroes every count; for a child
// after fork and before exec. Returns 0, or -1 when a close failed.
int SLIBFileUnlockAll(void);

// Keeps only the held locks in `mask`, each with a count of 1, and releases
// the others. Returns 0, or -1 when a close failed.
int SLIBFileLockKeep(int mask);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_LOCK_H_
