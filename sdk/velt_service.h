// Stopping and starting the appliance's network services as one set, and
// the process lookups behind the daemons that have no script.
//
// The services, in the order VELTNetService acts on them (request bit ->
// result bit):
//   VELT_SVC_APPLETALK   0x1    "/usr/velt/etc/rc.d/S81atalk.sh"        -> 0x1
//   VELT_SVC_SMB         0x4    smbd and nmbd (/usr/velt/sbin)          -> 0x4
//   VELT_SVC_FTP         0x10   ftpd, "/usr/velt/etc/rc.d/S99ftpd.sh"   -> 0x8
//   VELT_SVC_MEDIA       0x2    "S86veltdms.sh"     (only without 0x20) -> 0x100
//   VELT_SVC_MUSIC       0x800  "S99iTunes.sh"      (only without 0x20) -> 0x1000
//   VELT_SVC_INDEXER     0x1000 "S66veltindexd.sh"  (only without 0x20) -> 0x2000
//   VELT_SVC_DATABASE    0x20   the database group: iTunes, veltdms,
//                               veltindexd, download, pgsql (0x20), mysql (0x10)
//   VELT_SVC_NETBKP      0x100  network backup daemons (runnetbkp "yes") -> 0x80
//   VELT_SVC_WEB         0x40   "S97apache-user.sh"                    -> 0x200
//   VELT_SVC_DOWNLOAD    0x200  "S25download.sh"    (only without 0x20) -> 0x40
//   VELT_SVC_PRINTER     0x400  "S55lpd.sh"                             -> 0x800
//   VELT_SVC_SCHEDULER   0x8    "S04crond.sh"                           -> 0x4000
//   VELT_SVC_THUMBNAIL   0x80   "S77veltmkthumbd.sh"                    -> 0x8000
// Scripts live in "/usr/velt/etc/rc.d/" and run through SLIBCExec with one
// argument. The switches `runsamba`, `runftpd` and `runnetbkp` of
// "/etc/veltinfo.conf" must be "yes" for the SMB and FTP start, restart and
// reload and for any network backup operation.
#ifndef SDK_VELT_SERVICE_H_
#define SDK_VELT_SERVICE_H_

#ifdef __cplusplus
extern "C" {
#endif

enum {
  VELT_SERVICE_STOP = 1,
  VELT_SERVICE_START = 2,
  VELT_SERVICE_RESTART = 3,
  VELT_SERVICE_RELOAD = 4,

  // Request mask bits.
  VELT_SVC_APPLETALK = 0x1,
  VELT_SVC_MEDIA = 0x2,
  VELT_SVC_SMB = 0x4,
  VELT_SVC_SCHEDULER = 0x8,
  VELT_SVC_FTP = 0x10,
  VELT_SVC_DATABASE = 0x20,
  VELT_SVC_WEB = 0x40,
  VELT_SVC_THUMBNAIL = 0x80,
  VELT_SVC_NETBKP = 0x100,
  VELT_SVC_DOWNLOAD = 0x200,
  VELT_SVC_PRINTER = 0x400,
  VELT_SVC_MUSIC = 0x800,
  VELT_SVC_INDEXER = 0x1000,

  // Result mask bits.
  VELT_SVC_DONE_APPLETALK = 0x1,
  VELT_SVC_DONE_SMB = 0x4,
  VELT_SVC_DONE_FTP = 0x8,
  VELT_SVC_DONE_MYSQL = 0x10,
  VELT_SVC_DONE_PGSQL = 0x20,
  VELT_SVC_DONE_DOWNLOAD = 0x40,
  VELT_SVC_DONE_NETBKP = 0x80,
  VELT_SVC_DONE_MEDIA = 0x100,
  VELT_SVC_DONE_WEB = 0x200,
  VELT_SVC_DONE_PRINTER = 0x800,
  VELT_SVC_DONE_MUSIC = 0x1000,
  VELT_SVC_DONE_INDEXER = 0x2000,
  VELT_SVC_DONE_SCHEDULER = 0x4000,
  VELT_SVC_DONE_THUMBNAIL = 0x8000,

  // Most process ids one lookup pass takes.
  VELT_SERVICE_MAX_PIDS = 256,
};

// Stops (1), starts (2), restarts (3) or reloads (4) the services named by
// the request mask (-1: all), in the order above, holding the lock set 0x1840
// (ErrSLIBFileLock(0x1846, 5)) throughout. A service that fails does not stop
// the others; its result bit stays clear. Returns the result mask. Returns -1
// with 0xD00 and the message "VELTNetService(<line>):  bad parameter" for a
// mask of 0 or an unknown op, before any lock is taken; -1 with the lock's
// error and "VELTNetService(<line>): lock failed" when the locks cannot be
// taken. With the mask -1 the database group handles the media, music,
// indexer and download services.
int VELTNetService(int mask, int op);

// VELTNetService(-1, 1) / VELTNetService(-1, 2) followed by the service events
// of the result mask (sdk/velt_service_events.h). Return 0, or -1 (logged as
// "<function>(<line>): VELTNetService return -1", no events).
int ErrNetServiceStop(void);
int ErrNetServiceStart(void);

// op 1 ErrNetServiceStop, op 2 ErrNetServiceStart, any other op does nothing
// and returns 0. Returns -1 when the call fails, logged as
// "sdk/veltservice(<line>)Failed to stop net  error=<code> ,strerr=<errno text>"
// for both operations.
int VELTServiceNetControl(int op);

// 1 when the value of `key` in the settings file `path` is exactly "yes";
// else 0 (also for a missing file or key). Leaves the error code unchanged:
// a switch that is not set is simply off.
int VELTServiceSettingIsYes(const char* path, const char* key);

// Stores in `pids` (`max` entries) the ids of the processes whose name
// (/proc/<pid>/stat, at most 15 characters: `name` is compared by its first
// 15) is `name`, up to `max` of them; leaves out zombies and the calling
// process. Returns the number stored; -1 with 0xD00 for a null name, pids or
// a negative max, -1 with 0x900 when /proc cannot be read.
int VELTServiceFindPids(const char* name, int* pids, int max);

// Forced kill loop: looks up the processes named `name` (at most 256 a pass),
// runs "/bin/kill -9 <pid> > /dev/null 2>&1" through the shell for each and
// looks again until none is left. Returns 0; -1 when a lookup fails, or
// (logged) when some are still there after 5 seconds.
int VELTServiceKillAll(const char* name);

// Sends the processes named `name` signal 15, or 9 when `force` is set. With
// force: one pass of at most 256 processes. Without: after each pass waits
// 100 ms and looks again, signalling whatever is left, until none is left or
// 50 passes (5 seconds) are done. Returns the number of processes signalled
// (each counted once); -1 when a lookup fails, or with 0xD00 for a null name.
int VELTServiceTerminate(const char* name, int force);

#ifdef __cplusplus
}
#endif

#endif  // SDK_VELT_SERVICE_H_
