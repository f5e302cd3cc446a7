#include "lib/slib_codepage.h"

#include "test_support.h"

namespace {

std::string Code(unsigned code) {
  return std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
}

// Converts a copy of `input` into a separate buffer; the input stays as it was.
std::string Convert(char* (*convert)(char*, char*), const std::string& input) {
  std::string in = input, out(in.size() + 4, 'X');
  EXPECT_EQ(&out[0], convert(&in[0], &out[0]));
  EXPECT_EQ(input, in);
  return out.c_str();
}

TEST(SlibCodepage, SingleBytesAndOtherCodesAreCopiedInPairAlignment) {
  const std::pair<std::string, std::string> cases[] = {
      // {windows, appliance}
      {"file" + Code(0x8740) + ".txt", "file" + Code(0x8540) + ".txt"},
      {"\xB1\xB2" + Code(0xFA49) + "\xDF", "\xB1\xB2" + Code(0x85BC) + "\xDF"},
      {Code(0xF040) + "a" + Code(0xF15C), Code(0x8640) + "a" + Code(0x885C)},
      {Code(0x82A0) + Code(0x8799) + Code(0xF0FC), Code(0x82A0) + Code(0x8599) + Code(0x86FC)},
      {"\x81\x87@", "\x81\x87@"},  // a trail byte never starts a code
      {"ab\x87", "ab\x87"},        // a lead byte at the end is copied alone
      {Code(0x8740) + "\xFA", Code(0x8540) + "\xFA"},
      {"ab\x85", "ab\x85"},
      {"", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.second, Convert(SLIBStrFromWinCodePage, c.first));
    EXPECT_EQ(c.first, Convert(SLIBStrToWinCodePage, c.second));
  }
  const std::string others = "x" + Code(0x877F) + Code(0xF175) + Code(0xFA4A) + Code(0xEB40);
  EXPECT_EQ(others, Convert(SLIBStrFromWinCodePage, others));
  EXPECT_EQ(others, Convert(SLIBStrToWinCodePage, others));
  char in_place[] = "A\xF0\xFC\xB6";
  EXPECT_EQ(in_place, SLIBStrFromWinCodePage(in_place, nullptr));
  EXPECT_EQ("A" + Code(0x86FC) + "\xB6", in_place);
  EXPECT_EQ(nullptr, SLIBStrToWinCodePage(nullptr, in_place));
}

}  // namespace
