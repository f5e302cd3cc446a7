#include "lib/slib_codepage.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include "lib/slib_error.h"

namespace {

using Converter = char* (*)(char*, char*);

std::string Code(unsigned code) {
  return std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
}

std::string Hex(const std::string& bytes) {
  std::string text;
  char digits[4];
  for (unsigned char byte : bytes) {
    snprintf(digits, sizeof(digits), "%02X ", byte);
    text += digits;
  }
  return text;
}

// Converts a copy of `input` into a separate buffer and checks the input was
// left alone.
std::string Convert(Converter convert, const std::string& input) {
  std::vector<char> in(input.begin(), input.end());
  in.push_back('\0');
  std::vector<char> out(in.size() + 4, 'X');
  EXPECT_EQ(convert(in.data(), out.data()), out.data());
  EXPECT_EQ(std::string(in.data()), input);
  return std::string(out.data());
}

TEST(SlibCodepage, TableHasDocumentedRowsAtEveryBlockBoundary) {
  ASSERT_EQ(SLIB_CODEPAGE_PAIRS, 316);
  const SLIBCODEPAIR* table = SLIBCodePageTable();
  ASSERT_NE(table, nullptr);
  const struct {
    int row;  // counted from 1
    unsigned windows;
    unsigned appliance;
  } rows[] = {
      {1, 0x8740, 0x8540},   {2, 0x8741, 0x8541},   {3, 0x8742, 0x8542},   {4, 0x8743, 0x8543},
      {63, 0x877E, 0x857E},  {64, 0x8780, 0x8580},  {89, 0x8799, 0x8599},  {90, 0xF040, 0x8640},
      {152, 0xF07E, 0x867E}, {153, 0xF080, 0x8680}, {277, 0xF0FC, 0x86FC}, {278, 0xF140, 0x8840},
      {306, 0xF15C, 0x885C}, {307, 0xFA40, 0x85B3}, {314, 0xFA47, 0x85BA}, {315, 0xFA48, 0x85BB},
      {316, 0xFA49, 0x85BC},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(table[r.row - 1].wWindows, r.windows) << "row " << r.row;
    EXPECT_EQ(table[r.row - 1].wAppliance, r.appliance) << "row " << r.row;
  }
}

TEST(SlibCodepage, TableIsOneToOneWithinTheConvertedRanges) {
  const SLIBCODEPAIR* table = SLIBCodePageTable();
  std::set<unsigned> windows;
  std::set<unsigned> appliance;
  for (int i = 0; i < SLIB_CODEPAGE_PAIRS; ++i) {
    const unsigned w = table[i].wWindows;
    const unsigned a = table[i].wAppliance;
    EXPECT_TRUE(windows.insert(w).second) << "duplicate Windows code " << std::hex << w;
    EXPECT_TRUE(appliance.insert(a).second) << "duplicate appliance code " << std::hex << a;
    EXPECT_NE(w & 0xFF, 0x7Fu) << "row " << i + 1;
    EXPECT_NE(a & 0xFF, 0x7Fu) << "row " << i + 1;
    if (i > 0) {
      EXPECT_GT(w, table[i - 1].wWindows) << "row " << i + 1;
    }
    const bool windows_in_range = (w >= 0x8740 && w <= 0x8799) || (w >= 0xF040 && w <= 0xF174) ||
                                  (w >= 0xFA40 && w <= 0xFA49);
    EXPECT_TRUE(windows_in_range) << "row " << i + 1;
    EXPECT_TRUE((a >> 8) >= 0x85 && (a >> 8) <= 0x88) << "row " << i + 1;
  }
}

TEST(SlibCodepage, EveryTableCodeConvertsBothWays) {
  const SLIBCODEPAIR* table = SLIBCodePageTable();
  for (int i = 0; i < SLIB_CODEPAGE_PAIRS; ++i) {
    const std::string windows = "<" + Code(table[i].wWindows) + ">";
    const std::string appliance = "<" + Code(table[i].wAppliance) + ">";
    EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, windows)), Hex(appliance)) << "row " << i + 1;
    EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, appliance)), Hex(windows)) << "row " << i + 1;
  }
}

TEST(SlibCodepage, RoundTripsGiveOriginalForWholeTable) {
  const SLIBCODEPAIR* table = SLIBCodePageTable();
  std::string windows;
  std::string appliance;
  for (int i = 0; i < SLIB_CODEPAGE_PAIRS; ++i) {
    windows += Code(table[i].wWindows);
    appliance += Code(table[i].wAppliance);
  }
  const std::string from_windows = Convert(SLIBStrFromWinCodePage, windows);
  EXPECT_EQ(Hex(from_windows), Hex(appliance));
  EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, from_windows)), Hex(windows));
  const std::string to_windows = Convert(SLIBStrToWinCodePage, appliance);
  EXPECT_EQ(Hex(to_windows), Hex(windows));
  EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, to_windows)), Hex(appliance));
}

TEST(SlibCodepage, MixedTextKeepsSingleBytesAndPairAlignment) {
  const struct {
    std::string windows;
    std::string appliance;
  } cases[] = {
      {"file" + Code(0x8740) + ".txt", "file" + Code(0x8540) + ".txt"},
      // Half-width katakana are single bytes: the code after them stays aligned.
      {"\xB1\xB2" + Code(0xFA49) + "\xDF", "\xB1\xB2" + Code(0x85BC) + "\xDF"},
      {Code(0xF040) + "a" + Code(0xF15C) + "\xA1", Code(0x8640) + "a" + Code(0x885C) + "\xA1"},
      {Code(0x82A0) + Code(0x8799), Code(0x82A0) + Code(0x8599)},
      // An ordinary double-byte code is copied and takes its trail byte along,
      // even when that byte could start a code of the table.
      {"\x81\x87@", "\x81\x87@"},
      {"\x81\x85@", "\x81\x85@"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, c.windows)), Hex(c.appliance));
    EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, c.appliance)), Hex(c.windows));
  }
}

TEST(SlibCodepage, LeadByteAtEndIsCopiedAlone) {
  EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, "ab\x87")), Hex("ab\x87"));
  EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, "ab\x85")), Hex("ab\x85"));
  EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, Code(0x8740) + "\xFA")),
            Hex(Code(0x8540) + "\xFA"));
  EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, Code(0x8540) + "\x88")), Hex(Code(0x8740) + "\x88"));
}

TEST(SlibCodepage, CodesOutsideTableAreCopiedUnchanged) {
  const unsigned not_from_windows[] = {0x877F, 0x879A, 0x879F, 0x87FC, 0xF03F, 0xF15D,
                                       0xF174, 0xF175, 0xF240, 0xFA3F, 0xFA4A, 0xFA55,
                                       0x8140, 0x8540, 0x8640, 0xED40, 0xFB40};
  for (unsigned code : not_from_windows) {
    const std::string text = "x" + Code(code) + "y";
    EXPECT_EQ(Hex(Convert(SLIBStrFromWinCodePage, text)), Hex(text)) << std::hex << code;
  }
  const unsigned not_to_windows[] = {0x853F, 0x857F, 0x859A, 0x85B2, 0x85BD, 0x863F,
                                     0x867F, 0x8740, 0x8799, 0x885D, 0x88FC, 0xEB40,
                                     0xED40, 0xF040, 0x8140, 0x8940, 0xFA40};
  for (unsigned code : not_to_windows) {
    const std::string text = "x" + Code(code) + "y";
    EXPECT_EQ(Hex(Convert(SLIBStrToWinCodePage, text)), Hex(text)) << std::hex << code;
  }
}

TEST(SlibCodepage, ConvertsInPlaceWithoutOutputBuffer) {
  std::string text = "A" + Code(0xF0FC) + "\xB6" + Code(0x8780) + "Z";
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  EXPECT_EQ(SLIBStrFromWinCodePage(buffer.data(), nullptr), buffer.data());
  EXPECT_EQ(Hex(buffer.data()), Hex("A" + Code(0x86FC) + "\xB6" + Code(0x8580) + "Z"));
  EXPECT_EQ(SLIBStrToWinCodePage(buffer.data(), nullptr), buffer.data());
  EXPECT_EQ(Hex(buffer.data()), Hex(text));
}

TEST(SlibCodepage, EmptyStringStaysEmpty) {
  EXPECT_EQ(Convert(SLIBStrFromWinCodePage, ""), "");
  EXPECT_EQ(Convert(SLIBStrToWinCodePage, ""), "");
}

TEST(SlibCodepage, NullInputFailsWithBadArgument) {
  char out[8];
  for (Converter convert : {SLIBStrToWinCodePage, SLIBStrFromWinCodePage}) {
    SLIBCErrSet(0);
    EXPECT_EQ(convert(nullptr, out), nullptr);
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  }
}

}  // namespace
