// Checks on processes and their pid files.
#ifndef LIB_SLIB_PROC_H_
#define LIB_SLIB_PROC_H_

#ifdef __cplusplus
extern "C" {
#endif

// The pid read from `pidfile` with "%u\n"; 0 when the file holds no number;
// -1 when it cannot be opened (0x900) or `pidfile` is null (0xD00).
int SLIBProcReadPid(const char* pidfile);

// 1 when the pid in `pidfile` is at least 1 and kill(pid, 0) succeeds; else 0.
int SLIBProcIsAlive(const char* pidfile);

// 1 for an existing regular file (links followed), else 0.
int SLIBFileIsRegular(const char* path);

// Counts the processes whose "/bin/ps -awx" line contains `name`: runs
// "/bin/ps -awx | /bin/grep '%s' > %s 2>&1" into "/tmp/tempSLIBPs<pid>.XXXXXX"
// (a unique name, created exclusively with mkstemp),
// reads it back and counts the lines that contain `name`, leaving out the
// search's own lines (those containing "grep <name>" or "grep '<name>'").
// The temporary file is removed afterwards. Returns the count (positive means
// running); -1 with 0xD00 for a null or empty name or one holding a single
// quote, -1 with 0xA00 when the temporary file cannot be made or read.
int SLIBProcCountByName(const char* name);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_PROC_H_
