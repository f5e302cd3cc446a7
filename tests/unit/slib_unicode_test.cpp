#include "lib/slib_unicode.h"

#include "test_support.h"

namespace {

TEST(SlibUnicode, UpperUsesFullCaseMappingsAndNeedsRoomForTheNul) {
  std::string many_in, many_out;
  for (int i = 0; i < 500; ++i) many_in += "ßΐ", many_out += "SS\u0399\u0308\u0301";
  const std::tuple<std::string, size_t, int, std::string> cases[] = {
      // {in, size, result, out}
      {"straße", 8, 7, "STRASSE"},       {"Ωμέγα", 64, 10, "ΩΜΈΓΑ"},
      {"ŉ", 64, 3, "\u02BCN"},           {"\xF0\x90\x90\xA8", 64, 4, "\xF0\x90\x90\x80"},
      {many_in, 8192, 4000, many_out},   {"straße", 7, -1, "error 100"},
      {"a", 0, -1, "error d00"},         {"ab\xC3", 64, -1, "error d00"},
      {"\xC0\xAF", 64, -1, "error d00"}, {"\xED\xA0\x80", 64, -1, "error d00"}};
  for (const auto& c : cases) {
    std::string out(8192, '\0');
    const int result = SLIBCUtf8StrUpper(std::get<0>(c).c_str(), &out[0], std::get<1>(c));
    char error[16];
    snprintf(error, sizeof(error), "error %x", SLIBCErrGet());
    EXPECT_EQ(std::get<2>(c), result) << std::get<0>(c).substr(0, 9);
    EXPECT_EQ(std::get<3>(c), result < 0 ? error : out.c_str());
    if (result < 0) continue;
    char* dup = SzSLIBCUtf8StrUpperDup(std::get<0>(c).c_str());
    EXPECT_EQ(std::get<3>(c), dup);
    free(dup);
  }
  EXPECT_EQ(nullptr, SzSLIBCUtf8StrUpperDup("ab\xC3"));
}

TEST(SlibUnicode, CaseCmpOrdersByFoldedCodePoints) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"Photo", "pHOTO", 0},       {"straße", "Strasse", 0},     {"Ωμέγα", "ωΜΈΓΑ", 0},
      {"ΟΔΥΣΣΕΥΣ", "οδυσσευς", 0}, {"\u212Aelvin", "kELVIN", 0}, {"a\xFF", "A\uFFFD", 0},
      {"apple", "Banana", -1},     {"abc", "ABCD", -1},          {"_x", "Ax", -1},
      {"zoo", "émile", -1},        {"Ωμέγα", "ωμεγα", -1},       {"\U00010000", "\uFFFD", 1},
      {nullptr, "", -1},           {nullptr, nullptr, 0}};
  for (const auto& c : cases) {
    const int ab = SLIBCUtf8StrCaseCmp(std::get<0>(c), std::get<1>(c));
    const int ba = SLIBCUtf8StrCaseCmp(std::get<1>(c), std::get<0>(c));
    EXPECT_EQ(std::make_pair(std::get<2>(c), -std::get<2>(c)),
              std::make_pair((ab > 0) - (ab < 0), (ba > 0) - (ba < 0)))
        << (std::get<0>(c) ? std::get<0>(c) : "-") << " / " << std::get<1>(c);
  }
  const std::string long_name = "ß" + std::string(400, 'x');  // longer than a stack buffer
  EXPECT_EQ(0, SLIBCUtf8StrCaseCmp(long_name.c_str(), ("SS" + std::string(400, 'X')).c_str()));
}

}  // namespace
