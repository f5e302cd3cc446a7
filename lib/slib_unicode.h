// Unicode-aware upper-casing and case-insensitive comparison of UTF-8 text,
// built on ICU (root locale, full case mappings).
#ifndef LIB_SLIB_UNICODE_H_
#define LIB_SLIB_UNICODE_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Writes the upper-case form of the UTF-8 string `in` into `out` (`size`
// bytes, NUL included). The result may be longer than the input ("ß" becomes
// "SS"). Returns the length of the result; -1 when an argument is null
// (0xD00), when `in` is not well-formed UTF-8 (0xD00), when the result does
// not fit (0x100) or when memory runs out (0x200).
int SLIBCUtf8StrUpper(const char* in, char* out, size_t size);

// Same as SLIBCUtf8StrUpper, but the result is returned in a new malloc'd
// string that the caller frees; null on failure.
char* SzSLIBCUtf8StrUpperDup(const char* in);

// Compares two UTF-8 strings after full Unicode case folding, in code point
// order: < 0, 0 or > 0 like strcmp. Ill-formed sequences compare as U+FFFD;
// two strings that fold alike but differ byte-wise compare equal. A null
// string sorts before every other string.
int SLIBCUtf8StrCaseCmp(const char* a, const char* b);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_UNICODE_H_
