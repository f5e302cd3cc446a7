// The process-wide library error code.
//
// Every failing library call records why it failed with SLIBCErrSet; a call
// that succeeds leaves the code as it was. Callers print the code as "(%X)"
// or "[%X]". The code is one plain int: the library is meant for
// single-threaded processes.
#ifndef LIB_SLIB_ERROR_H_
#define LIB_SLIB_ERROR_H_

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SLIB_ERR_BUFFER_TOO_SMALL = 0x100,
  SLIB_ERR_OUT_OF_MEMORY = 0x200,
  SLIB_ERR_LOCK = 0x400,      // lock time-out, or a refused shared-to-exclusive upgrade
  SLIB_ERR_UNLOCK = 0x500,    // flock(LOCK_UN) failed
  SLIB_ERR_OPEN = 0x900,      // a file could not be opened or created
  SLIB_ERR_READ = 0xA00,      // reading a file failed
  SLIB_ERR_WRITE = 0xB00,     // writing, flushing, syncing or closing failed
  SLIB_ERR_LOCK_DIR = 0xC00,  // the lock directory could not be made
  SLIB_ERR_BAD_ARGUMENT = 0xD00,
  SLIB_ERR_NOT_FOUND = 0x2000,
  SLIB_ERR_FLASH = 0x2600,  // a flash operation failed
  SLIB_ERR_EXEC = 0x2A00,   // a program could not be run
};

// Records `code` as the reason of the latest failure.
void SLIBCErrSet(int code);

// Returns the code of the latest failure (0 when nothing has failed yet).
int SLIBCErrGet(void);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_ERROR_H_
