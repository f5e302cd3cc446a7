#include "lib/slib_unicode.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "lib/slib_error.h"

namespace {

struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};

int Sign(int value) { return (value > 0) - (value < 0); }

}  // namespace

TEST(SlibUnicode, UpperUsesFullCaseMappings) {
  struct Case {
    const char* in;
    const char* out;
  };
  const Case cases[] = {
      {"", ""},
      {"volume1", "VOLUME1"},
      {"straße", "STRASSE"},                     // one letter becomes two
      {"Ωμέγα", "ΩΜΈΓΑ"},                        // Greek keeps its accents
      {"ΐ", "\u0399\u0308\u0301"},               // one code point becomes three
      {"ŉ", "\u02BCN"},                          // two bytes become three
      {"émile-ÿ", "ÉMILE-Ÿ"},                    // Latin-1 and beyond
      {"\xF0\x90\x90\xA8", "\xF0\x90\x90\x80"},  // Deseret: outside the BMP
  };
  for (const Case& c : cases) {
    char out[64];
    SCOPED_TRACE(c.in);
    EXPECT_EQ(SLIBCUtf8StrUpper(c.in, out, sizeof(out)), static_cast<int>(strlen(c.out)));
    EXPECT_STREQ(out, c.out);
    std::unique_ptr<char, FreeDeleter> dup(SzSLIBCUtf8StrUpperDup(c.in));
    ASSERT_NE(dup, nullptr);
    EXPECT_STREQ(dup.get(), c.out);
  }
}

TEST(SlibUnicode, UpperNeedsRoomForTheResultAndItsNul) {
  char out[8];
  EXPECT_EQ(SLIBCUtf8StrUpper("straße", out, 8), 7);
  EXPECT_STREQ(out, "STRASSE");
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBCUtf8StrUpper("straße", out, 7), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
}

TEST(SlibUnicode, UpperRejectsNullArgumentsAndIllFormedText) {
  char out[16];
  struct Case {
    const char* what;
    const char* in;
    char* out;
    size_t size;
  };
  const Case cases[] = {
      {"null input", nullptr, out, sizeof(out)},
      {"null output", "a", nullptr, sizeof(out)},
      {"no room at all", "a", out, 0},
      {"truncated sequence", "ab\xC3", out, sizeof(out)},
      {"overlong slash", "\xC0\xAF", out, sizeof(out)},
      {"lone continuation", "\x80", out, sizeof(out)},
      {"encoded surrogate", "\xED\xA0\x80", out, sizeof(out)},
  };
  for (const Case& c : cases) {
    SLIBCErrSet(0);
    EXPECT_EQ(SLIBCUtf8StrUpper(c.in, c.out, c.size), -1) << c.what;
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << c.what;
  }
  SLIBCErrSet(0);
  EXPECT_EQ(SzSLIBCUtf8StrUpperDup(nullptr), nullptr);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SzSLIBCUtf8StrUpperDup("ab\xC3"), nullptr);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
}

TEST(SlibUnicode, UpperDupHandlesLongExpandingText) {
  std::string in;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    in += "ßΐ";
    expected += "SS\u0399\u0308\u0301";
  }
  std::unique_ptr<char, FreeDeleter> dup(SzSLIBCUtf8StrUpperDup(in.c_str()));
  ASSERT_NE(dup, nullptr);
  EXPECT_EQ(std::string(dup.get()), expected);
}

TEST(SlibUnicode, CaseCmpFoldsGermanAndGreekLetters) {
  struct Case {
    const char* a;
    const char* b;
  };
  const Case equal[] = {
      {"", ""},
      {"Photo", "pHOTO"},
      {"straße", "STRASSE"},
      {"straße", "Strasse"},
      {"Ωμέγα", "ωΜΈΓΑ"},
      {"ΟΔΥΣΣΕΥΣ", "οδυσσευς"},  // final sigma folds like sigma
      {"Émile", "éMILE"},
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"},
      {"file_é.JPG", "FILE_É.jpg"},
      {"\xE2\x84\xAA"
       "elvin",
       "kELVIN"},  // the Kelvin sign folds to an ASCII k
  };
  for (const Case& c : equal) {
    EXPECT_EQ(SLIBCUtf8StrCaseCmp(c.a, c.b), 0) << c.a << " / " << c.b;
    EXPECT_EQ(SLIBCUtf8StrCaseCmp(c.b, c.a), 0) << c.b << " / " << c.a;
  }
  const std::string long_name = "ß" + std::string(400, 'x');  // longer than a stack buffer
  EXPECT_EQ(SLIBCUtf8StrCaseCmp(long_name.c_str(), ("SS" + std::string(400, 'X')).c_str()), 0);
}

TEST(SlibUnicode, CaseCmpOrdersByFoldedCodePoints) {
  struct Case {
    const char* a;
    const char* b;
    int sign;
  };
  const Case cases[] = {
      {"apple", "Banana", -1},
      {"Zebra", "apple", 1},
      {"abc", "ABCD", -1},
      {"_x", "Ax", -1},  // folded to lower case: '_' before 'a'
      {"straße", "strasse2", -1},
      {"zoo", "émile", -1},    // U+00E9 after every ASCII letter
      {"Ωμέγα", "ωμεγα", -1},  // έ is U+03AD, ε is U+03B5
      // Code point order, not UTF-16 unit order: U+10000 sorts after U+FFFD.
      {"\xF0\x90\x80\x80", "\xEF\xBF\xBD", 1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Sign(SLIBCUtf8StrCaseCmp(c.a, c.b)), c.sign) << c.a << " / " << c.b;
    EXPECT_EQ(Sign(SLIBCUtf8StrCaseCmp(c.b, c.a)), -c.sign) << c.b << " / " << c.a;
  }
}

TEST(SlibUnicode, CaseCmpTreatsIllFormedBytesAsReplacementCharacter) {
  EXPECT_EQ(SLIBCUtf8StrCaseCmp("a\xFF", "A\xEF\xBF\xBD"), 0);
  EXPECT_EQ(SLIBCUtf8StrCaseCmp("\xC3", "\xEF\xBF\xBD"), 0);
  EXPECT_LT(SLIBCUtf8StrCaseCmp("a\xFF", "b"), 0);
}

TEST(SlibUnicode, CaseCmpSortsNullFirst) {
  EXPECT_LT(SLIBCUtf8StrCaseCmp(nullptr, ""), 0);
  EXPECT_GT(SLIBCUtf8StrCaseCmp("", nullptr), 0);
  EXPECT_EQ(SLIBCUtf8StrCaseCmp(nullptr, nullptr), 0);
}
