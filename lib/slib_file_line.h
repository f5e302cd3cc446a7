// Line operations on settings files: find, replace, insert and append whole
// lines chosen by a search text and match flags (see lib/slib_file.h for the
// flag values and the rewrite rules shared with the key/value calls).
//
// The line matcher: a null line or text, or negative flags, never match; a
// comment line ("#" or ";" first) never matches; with SLIB_FILE_MATCH_NOCASE
// both are upper-cased first (a line that cannot be converted does not
// match). Then SLIB_FILE_MATCH_PREFIX tests that the line begins with the
// text, else SLIB_FILE_MATCH_SUFFIX that the text ends exactly at the line's
// newline (a last line without newline never matches), else that the text
// occurs anywhere in the line (an empty text matches every non-comment line).
#ifndef LIB_SLIB_FILE_LINE_H_
#define LIB_SLIB_FILE_LINE_H_

#include "lib/slib_file.h"

#ifdef __cplusplus
extern "C" {
#endif

// 1 when `line` (as read, with its newline) matches `text` under `flags`, else 0.
int SLIBILineMatch(const char* line, const char* text, int flags);

// Copies the first (last with SLIB_FILE_MATCH_ALL) matching line, without its
// newline, into `buffer` (`size` >= 1 bytes, cut to fit). Returns the number
// of bytes stored (> 0); 0 with 0x2000 when no line matches; -1 on error.
int SLIBFileGetLine(const char* path, const char* text, char* buffer, int size, int flags);

// Replaces the first (last with SLIB_FILE_MATCH_ALL) matching line by
// "%s\n" of `line`, or deletes it when `line` is null; no other line changes.
// A missing file is created holding just the line. Returns 1; -1 with 0x2000
// when nothing matched (file unchanged), 0xA00 when reading failed.
int SLIBFileSetLine(const char* path, const char* text, const char* line, int flags);

// Inserts "%s\n" of `line` before the first (last with SLIB_FILE_MATCH_ALL)
// line matching `text`, or after it with OP_FIND_PREFIX. A null `text` puts
// it first, or last with OP_FIND_PREFIX. A missing file is created holding
// just the line. Returns 1; -1 with 0x2000 when nothing matched (file
// unchanged), 0xD00 for a null path or line, negative flags or a directory.
int SLIBFileAddLine(const char* path, const char* text, const char* line, int flags);

// Appends "%s\n" of `line` (opening with "a+"), flushes and fsyncs. Returns 0;
// -1 with 0xD00 (null argument), 0x900 (open) or 0xB00 (write).
int SLIBFileAppendLine(const char* path, const char* line);

// Empties or creates `path` and fsyncs it. Returns what close returned, or 0
// for a null path or a file that could not be opened.
int SLIBFileTruncate(const char* path);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_FILE_LINE_H_
