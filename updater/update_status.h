// How a run reports while it goes on: the update log for the administrator,
// the progress and message files for whoever started the run, the one way
// the updater runs shell commands, and the result key of every result code.
#ifndef UPDATER_UPDATE_STATUS_H_
#define UPDATER_UPDATE_STATUS_H_

#define UPDT_LOG_FILE "/var/log/veltupdate.log"
#define UPDT_PROGRESS_FILE "/tmp/update.progress"
#define UPDT_MESSAGE_FILE "/tmp/update.message"

// Number of result codes (0 .. 24) and their keys ("upgrade_success",
// "error_dirop", ..., "error_reboot"), indexed by the code.
#define UPDT_RESULT_CODE_COUNT 25
extern const char* const gszResultKey[UPDT_RESULT_CODE_COUNT];

// Appends "<local time>\t<text>\n" to the update log, the time formatted
// with "%Y/%m/%d %H:%M:%S" (empty when the local time cannot be worked out),
// flushed to disk. A null text does nothing; every failure is ignored.
void UPDTLog(const char* text);

// Empties the update log when it is larger than 10000 bytes; a missing log
// stays missing.
void UPDTLogTrim(void);

// Runs `command` through the shell. Returns 0 when the shell ran it and its
// exit status byte is 0 (so a command ended by a signal counts as success);
// otherwise logs "UPDTExecute(<line>): failed to execute cmd=[...], ret = N"
// at error priority and returns -1. A null command returns -1 silently.
int UPDTExecute(const char* command);

// Formats a shell command into `command` (`size` bytes). A command that does
// not fit is never run cut short: returns 0 after logging
// "<function>(<line>): command too long [<the whole command>]" at error
// priority, and the caller's step fails. Returns 1 when it fits.
int UPDTFormatCommand(char* command, unsigned int size, const char* function, int line,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));

// Writes `text` at the start of `path` (created when missing, never
// truncated) under an exclusive flock. Without `retry` a refused lock gives
// up at once; with it, 21 attempts in all, 337 microseconds apart.
// The text is flushed before the lock is released.
// Returns 0; -1 the file cannot be opened (or a null path); -2 the lock was
// not obtained; -3 the write failed (or a null text); the file is unlocked
// and closed on every path.
int UPDTWriteStatusFile(const char* path, const char* text, int retry);

// Writes the progress record "<letter>:<value>:      " to the progress
// file (with retry). Failures are ignored.
void UPDTSetProgress(char letter, int value);

// Writes `key="value"` (cut to 1023 characters, no line feed) at the start
// of the message file (with retry). Failures are ignored; a null key or
// value writes nothing.
void UPDTSetMessage(const char* key, const char* value);

#endif  // UPDATER_UPDATE_STATUS_H_
