#include "lib/slib_str.h"

#include <string.h>

#include "lib/slib_list.h"
#include "test_support.h"

namespace {

using testing_support::InOrder;
using testing_support::WithError;

TEST(SlibStr, TrimSpaceRemovesBlanksAndOnePairOfQuotes) {
  const std::pair<const char*, const char*> cases[] = {{"\t\r\n a b\tc\r\n", "a b\tc"},
                                                       {" \t\r\n ", ""},
                                                       {"  \"q\"\n", "q"},
                                                       {"\"\"twice\"\"", "\"twice\""},
                                                       {"\"\"", ""},
                                                       {" \" ", "\""},
                                                       {"\"open", "\"open"},
                                                       {"a\"b\"", "a\"b\""}};
  for (const auto& c : cases) {
    std::string buffer = c.first, out(buffer.size() + 1, '@');
    EXPECT_EQ(static_cast<int>(strlen(c.second)), SLIBStrTrimSpace(&buffer[0], &out[0]));
    EXPECT_STREQ(c.second, out.c_str()) << "[" << c.first << "]";
    EXPECT_EQ(c.first, buffer);
    SLIBStrTrimSpace(&buffer[0], nullptr);
    EXPECT_STREQ(c.second, buffer.c_str());
  }
}

TEST(SlibStr, ColonCodecsEscapeColonAndSemicolon) {
  // {encode, input, size, result, output, error}
  const std::tuple<bool, const char*, size_t, int, const char*, int> cases[] = {
      {false, ";,;;;,", 64, 3, ":;:", 0}, {false, "a;xb", 64, 1, "a", 0},
      {false, "a;,b", 4, 3, "a:b", 0},    {false, "a;,b", 3, -1, "@", 0x100},
      {false, "abcd", 4, -1, "@", 0x100}, {true, ":;:", 64, 6, ";,;;;,", 0},
      {true, "a:b", 5, 4, "a;,b", 0},     {true, "a:b", 4, -1, "@", 0x100}};
  for (const auto& c : cases) {
    char out[64] = "@";
    SLIBCErrSet(0);
    const auto call = std::get<0>(c) ? SLIBStrEncodeColon : SLIBStrDecodeColon;
    EXPECT_EQ(std::make_pair(std::get<3>(c), std::get<5>(c)),
              WithError(call(std::get<1>(c), out, std::get<2>(c))));
    EXPECT_STREQ(std::get<4>(c), out) << std::get<1>(c);
  }
}

TEST(SlibStr, SplittingPushesTheTokens) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  EXPECT_EQ(4, SLIBStrSep(",a,,b", ",", &list));
  EXPECT_EQ(1, SLIBStrSep("", ",", &list));
  EXPECT_EQ(0, SLIBStrSplitKeyValue(" key = \"a=b\" ", &list));
  EXPECT_EQ(0, SLIBStrSplitKeyValue("k=", &list));
  EXPECT_EQ(-1, InOrder({SLIBStrSplitKeyValue(" =v", &list),
                         SLIBStrSplitKeyValue("no equals", &list), 1}));
  std::string items;
  for (int i = 0; i < list->nItem; ++i) items += std::string(SzSLIBSzListGet(list, i)) + "|";
  EXPECT_EQ("|a||b||key|a=b|k||", items);
  SLIBSzListFree(list);
  char text[] = ",, alpha,,beta  gamma,";
  char* cursor = text;
  std::string tokens;
  while (char* token = SLIBStrNextToken(&cursor, ", ")) tokens += std::string(token) + "|";
  EXPECT_EQ("alpha|beta|gamma|", tokens);
  EXPECT_STREQ("alpha", text + 3);
}

TEST(SlibStr, ReplaceSubstitutesEveryOccurrenceWhenItFits) {
  const std::tuple<const char*, size_t, const char*, const char*, int, const char*> cases[] = {
      {"a--b--c", 64, "--", "", 3, "abc"},       {"aaaa", 64, "aa", "a", 2, "aa"},
      {"abab", 64, "ab", "abab", 8, "abababab"}, {"a.b.c", 8, ".", "..", 7, "a..b..c"},
      {"a.b.c", 7, ".", "..", -1, "a.b.c"},      {"abc", 64, "", "b", -1, "abc"}};
  for (const auto& c : cases) {
    char buffer[64];
    strcpy(buffer, std::get<0>(c));
    EXPECT_EQ(std::get<4>(c),
              SLIBStrReplace(buffer, std::get<1>(c), std::get<2>(c), std::get<3>(c)));
    EXPECT_STREQ(std::get<5>(c), buffer);
  }
}

}  // namespace
