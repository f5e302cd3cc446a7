// Conversion of Shift-JIS names between the Windows code page (as SMB clients
// send them) and the code set kept on the appliance.
//
// A byte below 0x80 or in 0xA1..0xDF is a character of its own and is copied.
// Any other byte is a lead byte and forms a 16-bit code with the byte after
// it; a lead byte at the very end is copied alone. Codes found in the
// conversion table are exchanged, all others copied unchanged. The table has
// 316 pairs and is a one-to-one map, so converting to the Windows code page
// and back (or the other way) gives the original bytes for every code in it.
// Both calls keep the length of the string, so they can work in place.
#ifndef LIB_SLIB_CODEPAGE_H_
#define LIB_SLIB_CODEPAGE_H_

#ifdef __cplusplus
extern "C" {
#endif

// Number of pairs in the conversion table.
enum { SLIB_CODEPAGE_PAIRS = 316 };

// One pair of the table: the Windows code and the appliance's code.
typedef struct SLIBCODEPAIR {
  unsigned short wWindows;
  unsigned short wAppliance;
} SLIBCODEPAIR;

// The table, in row order (for tests and tools).
const SLIBCODEPAIR* SLIBCodePageTable(void);

// Appliance codes (lead byte 0x85..0x88, 0xEB..0xED or 0xF0) to Windows
// codes. Writes to `out` (strlen(in) + 1 bytes) or, when `out` is null, in
// place; returns the output, or null with 0xD00 for a null input.
char* SLIBStrToWinCodePage(char* in, char* out);

// Windows codes (0x8740..0x8799, 0xFA40..0xFA49, 0xF040..0xF174) to appliance
// codes; otherwise as SLIBStrToWinCodePage.
char* SLIBStrFromWinCodePage(char* in, char* out);

#ifdef __cplusplus
}
#endif

#endif  // LIB_SLIB_CODEPAGE_H_
