#include "lib/slib_codepage.h"

#include <string.h>

#include <array>

#include "lib/slib_error.h"

namespace {

using CodeTable = std::array<SLIBCODEPAIR, SLIB_CODEPAGE_PAIRS>;

// One block of the table: Windows codes under one lead byte, trail bytes
// first_trail..last_trail, mapped to appliance codes at the same distance from
// first_appliance. 0x7F is never a trail byte, so a block crossing it skips it
// on both sides.
struct CodeBlock {
  unsigned lead_windows;
  unsigned first_trail;
  unsigned last_trail;
  unsigned first_appliance;
};

// The Windows code page 932 extension area set against the appliance's code
// set, in row order:
//   rows   1..89   0x8740..0x8799 -> 0x8540..0x8599 (same trail byte)
//   rows  90..277  0xF040..0xF0FC -> 0x8640..0x86FC (same trail byte)
//   rows 278..306  0xF140..0xF15C -> 0x8840..0x885C (same trail byte)
//   rows 307..316  0xFA40..0xFA49 -> 0x85B3..0x85BC (continuing the 0x85 row)
constexpr CodeBlock kBlocks[] = {
    {0x87, 0x40, 0x99, 0x8540},
    {0xF0, 0x40, 0xFC, 0x8640},
    {0xF1, 0x40, 0x5C, 0x8840},
    {0xFA, 0x40, 0x49, 0x85B3},
};

constexpr CodeTable BuildTable() {
  CodeTable table{};
  size_t row = 0;
  for (const CodeBlock& block : kBlocks) {
    for (unsigned trail = block.first_trail; trail <= block.last_trail; ++trail) {
      if (trail == 0x7F) continue;
      const unsigned windows = block.lead_windows << 8 | trail;
      const unsigned appliance = block.first_appliance + (trail - block.first_trail);
      table[row++] = {static_cast<unsigned short>(windows), static_cast<unsigned short>(appliance)};
    }
  }
  return table;
}

constexpr CodeTable kTable = BuildTable();
static_assert(kTable[0].wWindows == 0x8740 && kTable[0].wAppliance == 0x8540);
static_assert(kTable[88].wWindows == 0x8799 && kTable[89].wWindows == 0xF040);
static_assert(kTable[277].wWindows == 0xF140 && kTable[277].wAppliance == 0x8840);
static_assert(kTable[SLIB_CODEPAGE_PAIRS - 1].wWindows == 0xFA49 &&
              kTable[SLIB_CODEPAGE_PAIRS - 1].wAppliance == 0x85BC);

bool IsSingleByte(unsigned char c) { return c < 0x80 || (c >= 0xA1 && c <= 0xDF); }

bool IsWindowsLead(unsigned lead) {
  return lead == 0x87 || lead == 0xFA || lead == 0xF0 || lead == 0xF1;
}

bool IsInWindowsRanges(unsigned code) {
  return (code >= 0x8740 && code <= 0x8799) || (code >= 0xFA40 && code <= 0xFA49) ||
         (code >= 0xF040 && code <= 0xF174);
}

bool IsApplianceLead(unsigned lead) {
  return (lead >= 0x85 && lead <= 0x88) || (lead >= 0xEB && lead <= 0xED) || lead == 0xF0;
}

unsigned FromWindows(unsigned code) {
  if (!IsWindowsLead(code >> 8) || !IsInWindowsRanges(code)) return code;
  for (const SLIBCODEPAIR& pair : kTable) {
    if (pair.wWindows == code) return pair.wAppliance;
  }
  return code;
}

unsigned ToWindows(unsigned code) {
  if (!IsApplianceLead(code >> 8)) return code;
  for (const SLIBCODEPAIR& pair : kTable) {
    if (pair.wAppliance == code) return pair.wWindows;
  }
  return code;
}

// Copies `in` to `out` (in place when null), passing every double-byte code
// through `convert`. Both strings have the same length.
char* ConvertCodes(char* in, char* out, unsigned (*convert)(unsigned)) {
  if (in == nullptr) {
    SLIBCErrSet(SLIB_ERR_BAD_ARGUMENT);
    return nullptr;
  }
  if (out == nullptr) out = in;
  const size_t length = strlen(in);
  const auto* src = reinterpret_cast<const unsigned char*>(in);
  auto* dst = reinterpret_cast<unsigned char*>(out);
  size_t i = 0;
  while (i < length) {
    if (IsSingleByte(src[i]) || i + 1 == length) {
      dst[i] = src[i];
      ++i;
      continue;
    }
    const unsigned code = convert(static_cast<unsigned>(src[i]) << 8 | src[i + 1]);
    dst[i] = static_cast<unsigned char>(code >> 8);
    dst[i + 1] = static_cast<unsigned char>(code & 0xFF);
    i += 2;
  }
  dst[length] = '\0';
  return out;
}

}  // namespace

const SLIBCODEPAIR* SLIBCodePageTable(void) { return kTable.data(); }

char* SLIBStrToWinCodePage(char* in, char* out) { return ConvertCodes(in, out, ToWindows); }

char* SLIBStrFromWinCodePage(char* in, char* out) { return ConvertCodes(in, out, FromWindows); }
