// Key/value settings files ("/etc/veltinfo.conf", "/etc/rsyncd.conf", ...).
//
// A file is lines ended by "\n", of any length. A key/value line is a key, "="
// and a value: the key is everything before the first "=", the value the rest
// of the line without its newline; both are cleaned with SLIBStrTrimSpace
// when read (so `KEY = "a b"` reads as key KEY, value `a b`). A line whose
// first character is "#" or ";" is a comment and never matches. Keys compare
// exactly (case-sensitive). There is no escaping.
//
// Every change rewrites the whole file to "<path>.tmp", flushes, fsyncs and
// closes it and renames it over the file: a failure at any step before the
// rename leaves the file byte for byte as it was. The file then has the mode
// of a newly created file. The calls take no locks; writers of shared files
// hold the matching lock file (lib/slib_lock.h) around them.
//
// Error codes: 0x100 value larger than the buffer, 0x200 out of memory,
// 0x900 open failed, 0xA00 read failed, 0xB00 write/flush/sync/close failed,
// 0xD00 bad argument, 0x2000 key or line not found.
#ifndef LIB_SLIB_FILE_H_
#define LIB_SLIB_FILE_H_

#include <stdio.h>

#include "lib/slib_hash.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SLIB_FILE_MATCH_ALL = 0x1,      // go on to the end; for reads the last match wins
  SLIB_FILE_MATCH_PREFIX = 0x2,   // the line begins with the text
  SLIB_FILE_MATCH_SUFFIX = 0x4,   // the text stands directly before the line's newline
  OP_FIND_PREFIX = 0x200,         // SLIBFileAddLine only: insert after the match
  SLIB_FILE_MATCH_NOCASE = 0x400  // compare the Unicode upper-case forms
};

// Reads the value of `key` into `buffer` (`size` bytes; null only with size
// 0). Returns the value's length + 1 (> 0); 0 with 0x2000 when no line has the
// key; -1 with 0x100 when the value does not fit, or on another error. The
// first line with the key wins, the last with SLIB_FILE_MATCH_ALL. A line
// without "=" is the key with no value part: it matches but gives no value
// (alone, the result is 0 without an error code).
int SLIBFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags);

// Sets `key` to `value`: the first line with the key (a bare key line too) is
// replaced, later ones are dropped; a key not in the file is appended; a
// missing file is created with the one line. The line is "%s=%s\n" (key, value), or `format`
// applied to two strings: for a replaced line, the old line as read (newline included) and the
// value; for an appended or created line, the key and the value. Key "defaultfs" leaves a trace in
// syslog. Returns 1, or -1.
int SLIBFileSetKeyValue(const char* path, const char* key, const char* value, const char* format);

// Puts every key/value line of section `section` (from its "[section]" line
// to the next line beginning with "[") into `*hash`; a later key overwrites an
// earlier one, lines without "=" or with an empty key are skipped. Returns
// the number of entries in the hash; -1 (0xD00, 0x200, 0x900).
int SLIBFileGetSection(const char* path, const char* section, SLIBSZHASH** hash);

// Gives every key of `hash` its value in the file (first line with the key
// rewritten as "%s=%s\n" or `format` with key and value; keys not in the file
// appended at the end). The keys found in the file are removed from the hash;
// the appended ones stay. Returns 1, or -1.
int SLIBFileSetKeys(const char* path, SLIBSZHASH* hash, const char* format);

// One line of SLIBFileSetKeys: when the cleaned line's key is in `hash`,
// writes the new line to `tmp`, removes the key and returns 1; returns 0 for
// a comment, blank or keyless line or a key not in the hash (the caller
// copies the line); -1 on a failed write (0xB00) or removal.
int SLIBILineKeyMoveHash2File(FILE* tmp, const char* line, SLIBSZHASH* hash, const char* format);

// Sets `key` so that the file holds exactly `key="value"` (the form of the
// system settings file), whether the key is new or already there. The
// settings writers use it instead of SLIBFileSetKeyValue with the format
// "%s=\"%s\"\n", which for an existing key would receive the old line in
// place of the key. Returns 1, or -1 (0xD00, or the codes of
// SLIBFileSetKeyValue).
int SLIBFileSetQuotedKeyValue(const char* path, const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_FILE_H_
