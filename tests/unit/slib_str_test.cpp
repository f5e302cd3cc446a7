#include "lib/slib_str.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_list.h"

namespace {

using Strings = std::vector<std::string>;

// The items the call pushes onto a list holding "first", and its result.
template <typename Call>
std::pair<int, Strings> Pushed(Call call) {
  SLIBSZLIST* list = PslSLIBSzListAlloc(512);
  SLIBSzListPush(&list, "first");
  const int result = call(&list);
  Strings items;
  for (int i = 1; i < list->nItem; ++i) items.emplace_back(SzSLIBSzListGet(list, i));
  SLIBSzListFree(list);
  return {result, items};
}

TEST(SlibStr, TrimSpaceRemovesBlanksAndOnePairOfQuotes) {
  const std::pair<const char*, const char*> cases[] = {{"  abc  ", "abc"},
                                                       {"\t\r\n a b\tc\r\n", "a b\tc"},
                                                       {" \t\r\n ", ""},
                                                       {"  \"q\"\n", "q"},
                                                       {"\"\"twice\"\"", "\"twice\""},
                                                       {"\"\"", ""},
                                                       {"\"", "\""},
                                                       {" \" ", "\""},
                                                       {"\"open", "\"open"},
                                                       {"a\"b\"", "a\"b\""}};
  for (const auto& c : cases) {
    std::string buffer = c.first;
    EXPECT_EQ(static_cast<int>(strlen(c.second)), SLIBStrTrimSpace(&buffer[0], nullptr));
    EXPECT_STREQ(c.second, buffer.c_str()) << "[" << c.first << "]";
  }
  char input[] = "  \"value\" \n";
  char out[sizeof(input)];
  EXPECT_EQ(5, SLIBStrTrimSpace(input, out));
  EXPECT_STREQ("value", out);
  EXPECT_STREQ("  \"value\" \n", input);
  EXPECT_EQ(-1, SLIBStrTrimSpace(nullptr, out));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
}

struct ColonCase {
  bool encode;
  const char* in;
  size_t size;
  int result;
  const char* out;  // the buffer afterwards
  int error;
};

TEST(SlibStr, ColonCodecsEscapeColonAndSemicolon) {
  const ColonCase cases[] = {
      {false, ";,;;;,", 64, 3, ":;:", 0},  {false, "a;xb", 64, 1, "a", 0},
      {false, "ok;;;", 64, 3, "ok;", 0},   {false, "a;,b", 4, 3, "a:b", 0},
      {false, "a;,b", 3, -1, "@", 0x100},  {false, "abcd", 4, -1, "@", 0x100},
      {true, ":;:", 64, 6, ";,;;;,", 0},   {true, "a:b", 5, 4, "a;,b", 0},
      {true, "a:b", 4, -1, "@", 0x100},    {true, nullptr, 64, -1, "@", 0xD00},
      {false, nullptr, 64, -1, "@", 0xD00}};
  for (const ColonCase& c : cases) {
    char out[64] = "@";
    SLIBCErrSet(0);
    EXPECT_EQ(c.result, (c.encode ? SLIBStrEncodeColon : SLIBStrDecodeColon)(c.in, out, c.size));
    EXPECT_STREQ(c.out, out) << (c.in ? c.in : "-");
    EXPECT_EQ(c.error, SLIBCErrGet());
  }
  char same[8] = "a:b";
  EXPECT_EQ(-1, SLIBStrEncodeColon(same, same, sizeof(same)));
  EXPECT_EQ(-1, SLIBStrDecodeColon(same, same, sizeof(same)));
}

TEST(SlibStr, SplittingPushesTheTokens) {
  const std::pair<const char*, Strings> seps[] = {{"a,,b", {"a", "", "b"}},
                                                  {"", {""}},
                                                  {",", {"", ""}},
                                                  {"one two\tthree", {"one", "two", "three"}}};
  for (const auto& c : seps) {
    const auto pushed =
        Pushed([&](SLIBSZLIST** list) { return SLIBStrSep(c.first, ", \t", list); });
    EXPECT_EQ(std::make_pair(static_cast<int>(c.second.size()), c.second), pushed) << c.first;
  }
  std::string many;
  for (int i = 0; i < 200; ++i) many += "token" + std::to_string(i) + ",";
  EXPECT_EQ(201,
            Pushed([&](SLIBSZLIST** list) { return SLIBStrSep(many.c_str(), ",", list); }).first);
  const std::pair<const char*, Strings> pairs[] = {
      {" key = \"a=b\" ", {"key", "a=b"}}, {"k=", {"k", ""}}, {"=v", {}}, {"no equals", {}}};
  for (const auto& c : pairs) {
    const auto pushed =
        Pushed([&](SLIBSZLIST** list) { return SLIBStrSplitKeyValue(c.first, list); });
    EXPECT_EQ(std::make_pair(c.second.empty() ? -1 : 0, c.second), pushed) << c.first;
  }
  char text[] = ",, alpha,,beta  gamma,";
  char* cursor = text;
  Strings tokens;
  while (char* token = SLIBStrNextToken(&cursor, ", ")) tokens.emplace_back(token);
  EXPECT_EQ((Strings{"alpha", "beta", "gamma"}), tokens);
  EXPECT_STREQ("alpha", text + 3);
  EXPECT_EQ(nullptr, SLIBStrNextToken(&cursor, ", "));
}

struct ReplaceCase {
  const char* input;
  size_t size;
  const char* from;
  const char* to;
  int result;
  const char* output;
};

TEST(SlibStr, ReplaceSubstitutesEveryOccurrenceWhenItFits) {
  const ReplaceCase cases[] = {
      {"a--b--c", 64, "--", "", 3, "abc"},       {"aaaa", 64, "aa", "a", 2, "aa"},
      {"abab", 64, "ab", "abab", 8, "abababab"}, {"", 64, "x", "y", 0, ""},
      {"a.b.c", 8, ".", "..", 7, "a..b..c"},     {"a.b.c", 7, ".", "..", -1, "a.b.c"},
      {"abc", 64, "", "b", -1, "abc"},           {"abc", 64, "a", nullptr, -1, "abc"}};
  for (const ReplaceCase& c : cases) {
    char buffer[64];
    strcpy(buffer, c.input);
    EXPECT_EQ(c.result, SLIBStrReplace(buffer, c.size, c.from, c.to)) << c.input << c.size;
    EXPECT_STREQ(c.output, buffer);
  }
}

}  // namespace
