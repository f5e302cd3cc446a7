// The appliance's event logs: fixed-size ring files of event records, their
// configuration "/etc/veltlog.conf", and the per-language event texts that
// turn records into readable lines.
//
// Log classes: 1 and 2 system ("syslogfile", "/var/log/veltsys.log", size key
// "syslogfilesize_MAX", 131072 when the key is missing), 3 connection
// ("connlogfile"), 5 backup ("bkplogfile"), 6 copy ("copylogfile"), 7 network
// backup ("netbkplogfile"); the others fall back to 65536. Class 4 is refused;
// any other class logs "logclass error!". A missing "/etc/veltlog.conf" is
// created with the six classes' files and a size of 65536 each (that write
// still uses the fallback limit); when the file exists, classes 3, 5, 6 and 7
// log "VELT : log file /etc/veltlog.conf opened" at informational priority
// before reading it. A size value is read with an 11-byte buffer and a file
// name with a 32-byte one; sizes above INT_MAX count as INT_MAX.
//
// Ring file (integers big-endian): "VELT" | 4 unused bytes | start (offset of
// the oldest record) | end (offset where the next record goes) | records from
// offset 16. A record length of 0 marks where the used part stops before the
// writer wrapped back to 16; the writer always leaves room for it below the
// limit. A file whose magic is wrong is initialised by the next write (start =
// end = 16); one whose start or end lies beyond the file or outside
// 16..limit - 2, or whose oldest record has an impossible length when the
// writer must drop it, is emptied by the next write (cut to 16 bytes). The
// reader refuses such a file, and any record that does not decode exactly.
//
// Record (big-endian, no padding, all offsets from the record's start):
//   0  u16 length of the whole record, this field included
//   2  u32 time of the event (seconds since 1970, UTC)
//   6  u16 level/type
//   8  u8  source: the log class (1, 2 or 3 name their own source text,
//          every other class the general one, "11000000")
//   9  u32 event code
//   13 six strings, each a u16 length and its bytes without a NUL:
//      user, program name, arg1, arg2, arg3, arg4
// A record must end exactly where its length says; a reader rejects one whose
// strings run past it or whose length runs past the file. Each string is cut
// to VELT_LOG_MAX_STRING bytes so that a record always fits its u16 length.
// User: $USERNAME (at most 255 characters), else the effective user's name
// in "/etc/passwd"; "root" is recorded as "admin". Program name:
// program_invocation_short_name.
//
// Event texts: "/usr/velt/veltsdk/texts/<lang>/events" (lang as "enu"), a
// key/value file with [sections]. An event's key is "%lX" of its code, its
// section "%08lX" of the code with the low 16 bits cleared (0x11800E02 ->
// section "11800000", key "11800E02"). Source texts are the keys "11000001",
// "11000002", "11000003" and "11000000" of section "11000000". Texts once
// read stay in a process-wide cache (one hash per language, never re-read;
// an event that is not in its file is cached as an empty text).
//
// Diagnostics go to syslog; failures also set the library error code (0x200
// out of memory, 0x900 open failed, 0xA00 read failed, 0xB00 write failed,
// 0xD00 bad argument, 0x2000 not found).
#ifndef LIB_VELT_LOG_H_
#define LIB_VELT_LOG_H_

#ifdef __cplusplus
extern "C" {
#endif

enum {
  VELT_LOG_HEADER_SIZE = 16,
  VELT_LOG_MAX_STRING = 4096,
  VELT_LOG_SYSTEM_FALLBACK_SIZE = 131072,
  VELT_LOG_FALLBACK_SIZE = 65536,
};

// Appends one record to the ring file of `logClass` (see above), within the
// size limit of "/etc/veltlog.conf" (created when missing; VELTLogChangeSize
// is applied with the limit first), dropping the oldest records to make
// room. Null or empty strings are stored as empty. The file is opened (and
// created) with up to ten tries a second apart ("logfile %s open error while
// writing!"); its exclusive flock is tried ten times a second apart, and the
// write goes on without it after that. The file is left with mode 0600.
// Returns 0; -1 for a refused class (0xD00), a configuration file that can't
// be created, an unopenable file (0x900), a failed write (0xB00, logged with
// the step), or a limit too small for the header, the record and the 2-byte
// wrap mark (0xD00; a new file is still initialised).
int VELTLogWrite(int logClass, int level, unsigned long event, const char* arg1, const char* arg2,
                 const char* arg3, const char* arg4);

// When the class's log file exists and is larger than `size`, drops its
// oldest records until the rest and the 2-byte wrap mark fit in `size` bytes,
// moves the rest to offset 16 (start 16, end after the last record) and cuts
// the file after it; a malformed file is emptied. A file not larger than
// `size` is left alone. A missing file logs "VELTLogChangeSize : logfile %s
// not existed" and returns 0. Returns 0; -1 for a bad class ("logclass
// error!"), a size below 16 (0xD00), or an I/O failure.
int VELTLogChangeSize(int size, int logClass);

// Writes `key` (one of the "...size_MAX" keys) = `value` into
// "/etc/veltlog.conf" as the line "%s=\t\"%s\"\n" (key and value, in place
// of the key's first line, or appended), creating the file first when it is
// missing ("logconf file not exist! created one!"; on failure "logconf file
// created error while set size coz the logconf not exist!"). A failed write
// logs "error occured in setkeyvalue in %s.". Returns 0 or -1 (0xD00 for a
// null or empty key or null value).
int VELTLogSetSize(const char* key, const char* value);

// The text of `event` in language `lang` with "@1", "@2", "@3", "@4" replaced,
// in that order and everywhere, by the arguments that are not null or empty;
// null when there is no text or it is empty (0x2000, after "section %s not
// found in %s" / "event %s not found in %s" on the first miss), or on failure.
// The caller frees the result with free().
char* VELTLogGetEventText(const char* lang, unsigned long event, const char* arg1, const char* arg2,
                          const char* arg3, const char* arg4);

// The text of log source `source` in `lang` (see above), or "Unknown" when the
// language has none. The caller frees the result with free(); null only when
// out of memory.
char* VELTLogGetSourceText(int source, const char* lang);

// Writes every record of the class's log, oldest first, to `outPath` as lines
// "%d\t%s\t%s\t%s\t%s\t%s\n": level, source text, time ("%Y/%m/%d
// %H:%M:%S", local time), event text, user, program name. Records without an
// event text are left out (logged as "Can not get the log szEvent ...").
// Returns the number of lines written; -1 when the log is missing ("Veltara
// log file %s not exist", 0x900), the output can't be opened (0x900) or
// written (0xB00), the log can't be locked (0x400) or read (0xA00), or when a
// record is malformed ("Log format error line%d" with the record's number,
// 1 for the oldest and 0 for the header; 0xA00): the output then holds the
// lines of the records before it.
int VELTLogExport(int logClass, const char* lang, const char* outPath);

#ifdef __cplusplus
}
#endif

#endif  // LIB_VELT_LOG_H_
