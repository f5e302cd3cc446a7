#include "lib/slib_unicode.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "lib/slib_error.h"

namespace {

struct UpperCase {
  std::string in;
  size_t size;
  int result;
  std::string out;  // the buffer afterwards
  int error;
};

TEST(SlibUnicode, UpperUsesFullCaseMappingsAndNeedsRoomForTheNul) {
  std::string many_in, many_out;
  for (int i = 0; i < 500; ++i) many_in += "ßΐ", many_out += "SS\u0399\u0308\u0301";
  const UpperCase cases[] = {{"volume1", 64, 7, "VOLUME1", 0},
                             {"straße", 8, 7, "STRASSE", 0},
                             {"straße", 7, -1, "@", SLIB_ERR_BUFFER_TOO_SMALL},
                             {"Ωμέγα", 64, 10, "ΩΜΈΓΑ", 0},
                             {"ŉ", 64, 3, "\u02BCN", 0},
                             {"\xF0\x90\x90\xA8", 64, 4, "\xF0\x90\x90\x80", 0},
                             {many_in, 8192, static_cast<int>(many_out.size()), many_out, 0},
                             {"a", 0, -1, "@", SLIB_ERR_BAD_ARGUMENT},
                             {"ab\xC3", 64, -1, "@", SLIB_ERR_BAD_ARGUMENT},
                             {"\xC0\xAF", 64, -1, "@", SLIB_ERR_BAD_ARGUMENT},
                             {"\xED\xA0\x80", 64, -1, "@", SLIB_ERR_BAD_ARGUMENT}};
  for (const UpperCase& c : cases) {
    SCOPED_TRACE(c.in.substr(0, 20));
    std::string out(8192, '\0');
    out[0] = '@';
    SLIBCErrSet(0);
    EXPECT_EQ(c.result, SLIBCUtf8StrUpper(c.in.c_str(), &out[0], c.size));
    EXPECT_EQ(c.error, SLIBCErrGet());
    if (c.result < 0) continue;
    EXPECT_EQ(c.out, out.c_str());
    char* dup = SzSLIBCUtf8StrUpperDup(c.in.c_str());
    EXPECT_STREQ(c.out.c_str(), dup);
    free(dup);
  }
  EXPECT_EQ(-1, SLIBCUtf8StrUpper(nullptr, &many_in[0], 8));
  EXPECT_EQ(nullptr, SzSLIBCUtf8StrUpperDup(nullptr));
  EXPECT_EQ(nullptr, SzSLIBCUtf8StrUpperDup("ab\xC3"));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
}

TEST(SlibUnicode, CaseCmpOrdersByFoldedCodePoints) {
  const struct {
    const char* a;
    const char* b;
    int sign;
  } cases[] = {{"Photo", "pHOTO", 0},
               {"straße", "Strasse", 0},
               {"Ωμέγα", "ωΜΈΓΑ", 0},
               {"ΟΔΥΣΣΕΥΣ", "οδυσσευς", 0},
               {"\xE2\x84\xAA"
                "elvin",
                "kELVIN", 0},
               {"a\xFF", "A\xEF\xBF\xBD", 0},
               {"apple", "Banana", -1},
               {"abc", "ABCD", -1},
               {"_x", "Ax", -1},
               {"zoo", "émile", -1},
               {"Ωμέγα", "ωμεγα", -1},
               {"\xF0\x90\x80\x80", "\xEF\xBF\xBD", 1},
               {nullptr, "", -1},
               {nullptr, nullptr, 0}};
  for (const auto& c : cases) {
    const int ab = SLIBCUtf8StrCaseCmp(c.a, c.b), ba = SLIBCUtf8StrCaseCmp(c.b, c.a);
    EXPECT_EQ(c.sign, (ab > 0) - (ab < 0)) << (c.a ? c.a : "-") << " / " << c.b;
    EXPECT_EQ(-c.sign, (ba > 0) - (ba < 0)) << (c.a ? c.a : "-") << " / " << c.b;
  }
  const std::string long_name = "ß" + std::string(400, 'x');  // longer than a stack buffer
  EXPECT_EQ(0, SLIBCUtf8StrCaseCmp(long_name.c_str(), ("SS" + std::string(400, 'X')).c_str()));
}

}  // namespace
