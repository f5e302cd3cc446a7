// Small string functions shared by the configuration files, the account files
// and the event log: trimming, the colon encoding of colon-separated files,
// splitting and replacing. Failures set the library error code: 0xD00 bad
// argument, 0x200 out of memory, 0x100 result too long.
#ifndef LIB_SLIB_STR_H_
#define LIB_SLIB_STR_H_

#include <stddef.h>

#include "lib/slib_list.h"

#ifdef __cplusplus
extern "C" {
#endif

// Removes leading blanks, tabs, newlines and carriage returns, and trailing
// ones and NUL bytes; then, when what is left is at least two characters long
// and begins and ends with a double quote, drops one double quote from each
// end. Writes the result to `out` (which must hold strlen(str) + 1 bytes), or
// moves it to the start of `str` when `out` is null. Returns its length; -1
// with 0xD00 for a null string.
int SLIBStrTrimSpace(char* str, char* out);

// Decodes a field of a colon-separated file: ";," becomes ":", ";;" becomes
// ";", and a ";" followed by anything else (or at the end) ends the output.
// Returns the length written to `out` (`size` bytes); -1 with 0x100 when the
// input is longer than `size` or its decoded form and NUL do not fit (an
// input of exactly `size` characters fits only when a ";" shortens it),
// -1 with 0xD00 for a null or identical buffer.
int SLIBStrDecodeColon(const char* in, char* out, size_t size);

// The inverse of SLIBStrDecodeColon: ":" becomes ";," and ";" becomes ";;".
// Returns the length written; -1 with 0x100 when the encoded text with its
// NUL does not fit in `size`, -1 with 0xD00 for a null or identical buffer.
int SLIBStrEncodeColon(const char* in, char* out, size_t size);

// Cuts a copy of `str` at every character of `delimiters`, as strsep does
// (empty tokens included: "a,,b" gives "a", "", "b"), and pushes each token.
// Returns the number of tokens pushed; -1 on failure (0xD00, 0x200, or the
// push's own error).
int SLIBStrSep(const char* str, const char* delimiters, SLIBSZLIST** list);

// Returns the next non-empty token of `*cursor`, cutting the string in place
// and advancing the cursor past it; null at the end.
char* SLIBStrNextToken(char** cursor, const char* delimiters);

// Splits a copy of "key=value" at the first "=", trims both parts with
// SLIBStrTrimSpace and pushes the key and then the value. Returns 0; -1 with
// 0xD00 for a null argument, an empty key or a missing value part.
int SLIBStrSplitKeyValue(const char* line, SLIBSZLIST** list);

// Replaces every occurrence of `from` in the NUL-terminated `str` (a buffer
// of `size` bytes) by `to`, in place. Returns the new length; -1 with 0xD00
// for a null argument or an empty `from`, -1 with 0x100 (and `str`
// unchanged) when the result would not fit.
int SLIBStrReplace(char* str, size_t size, const char* from, const char* to);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_STR_H_
