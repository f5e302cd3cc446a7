#include "lib/slib_str.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_list.h"

namespace {

// Owns a list; `address()` is what the growing calls take.
class List {
 public:
  List() : list_(PslSLIBSzListAlloc(512)) {}
  ~List() { SLIBSzListFree(list_); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  SLIBSZLIST** address() { return &list_; }
  std::vector<std::string> Items() const {
    std::vector<std::string> items;
    for (int i = 0; i < list_->nItem; ++i) items.emplace_back(SzSLIBSzListGet(list_, i));
    return items;
  }

 private:
  SLIBSZLIST* list_;
};

using Strings = std::vector<std::string>;

std::string Trimmed(const std::string& input) {
  std::vector<char> buffer(input.begin(), input.end());
  buffer.push_back('\0');
  const int length = SLIBStrTrimSpace(buffer.data(), nullptr);
  std::string result(buffer.data());
  EXPECT_EQ(length, static_cast<int>(result.size())) << "input [" << input << "]";
  return result;
}

TEST(SlibStr, TrimSpaceRemovesBlanksAndOnePairOfQuotes) {
  const struct {
    const char* input;
    const char* expected;
  } cases[] = {
      {"abc", "abc"},
      {"  abc  ", "abc"},
      {"\t\r\n abc\r\n", "abc"},
      {"a b\tc", "a b\tc"},
      {"", ""},
      {" \t\r\n ", ""},
      {"\"quoted\"", "quoted"},
      {"  \"quoted\"\n", "quoted"},
      {"\" inner blanks \"", " inner blanks "},
      {"\"\"twice\"\"", "\"twice\""},
      {"\"\"", ""},
      {"\"", "\""},
      {" \" ", "\""},
      {"\"open", "\"open"},
      {"close\"", "close\""},
      {"a\"b\"", "a\"b\""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Trimmed(c.input), c.expected) << "input [" << c.input << "]";
  }
}

TEST(SlibStr, TrimSpaceIntoOutputBufferLeavesInputAlone) {
  char input[] = "  \"value\" \n";
  char out[sizeof(input)];
  memset(out, 'X', sizeof(out));
  EXPECT_EQ(SLIBStrTrimSpace(input, out), 5);
  EXPECT_STREQ(out, "value");
  EXPECT_STREQ(input, "  \"value\" \n");
}

TEST(SlibStr, TrimSpaceMovesResultToStartInPlace) {
  char buffer[] = "\t\tkey value  ";
  EXPECT_EQ(SLIBStrTrimSpace(buffer, nullptr), 9);
  EXPECT_EQ(std::string(buffer, 10), std::string("key value\0", 10));
}

TEST(SlibStr, TrimSpaceRejectsNullString) {
  SLIBCErrSet(0);
  char out[4];
  EXPECT_EQ(SLIBStrTrimSpace(nullptr, out), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
}

TEST(SlibStr, DecodeColonFollowsEscapes) {
  const struct {
    const char* input;
    const char* expected;
  } cases[] = {
      {"plain text", "plain text"},
      {"", ""},
      {"a;,b", "a:b"},
      {"a;;b", "a;b"},
      {";,;;;,", ":;:"},
      {";;;;", ";;"},
      {"a;xb", "a"},
      {"abc;", "abc"},
      {";", ""},
      {"ok;;;", "ok;"},
  };
  for (const auto& c : cases) {
    char out[64];
    memset(out, 'X', sizeof(out));
    EXPECT_EQ(SLIBStrDecodeColon(c.input, out, sizeof(out)), static_cast<int>(strlen(c.expected)))
        << "input [" << c.input << "]";
    EXPECT_STREQ(out, c.expected) << "input [" << c.input << "]";
  }
}

TEST(SlibStr, EncodeColonEscapesColonAndSemicolon) {
  const struct {
    const char* input;
    const char* expected;
  } cases[] = {
      {"plain", "plain"}, {"", ""}, {"a:b", "a;,b"}, {"a;b", "a;;b"}, {":;:", ";,;;;,"},
  };
  for (const auto& c : cases) {
    char out[64];
    EXPECT_EQ(SLIBStrEncodeColon(c.input, out, sizeof(out)), static_cast<int>(strlen(c.expected)))
        << "input [" << c.input << "]";
    EXPECT_STREQ(out, c.expected) << "input [" << c.input << "]";
  }
}

TEST(SlibStr, EncodeThenDecodeColonGivesOriginal) {
  const char* fields[] = {"",   "no escapes", "user:group", "a;b",      "::;;::",
                          ";,", "x;y:z;",     "trailing;",  ":leading", "mixed ;: and :; end"};
  for (const char* field : fields) {
    char encoded[128];
    char decoded[128];
    ASSERT_GE(SLIBStrEncodeColon(field, encoded, sizeof(encoded)), 0) << field;
    EXPECT_EQ(strchr(encoded, ':'), nullptr) << field;
    EXPECT_EQ(SLIBStrDecodeColon(encoded, decoded, sizeof(decoded)),
              static_cast<int>(strlen(field)));
    EXPECT_STREQ(decoded, field);
  }
}

TEST(SlibStr, DecodeColonNeedsRoomForWholeInput) {
  char out[8];
  // "a;,b" decodes to 3 characters and its NUL: 4 bytes, not 3.
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrDecodeColon("a;,b", out, 3), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(SLIBStrDecodeColon("a;,b", out, 4), 3);
  EXPECT_STREQ(out, "a:b");
  EXPECT_EQ(SLIBStrDecodeColon("abcd", out, 4), -1);  // no room for the NUL
}

TEST(SlibStr, EncodeColonTooLongFailsAndLeavesOutputAlone) {
  char out[8] = "keep";
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrEncodeColon("a:b", out, 4), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(out, "keep");
  EXPECT_EQ(SLIBStrEncodeColon("a:b", out, 5), 4);
  EXPECT_STREQ(out, "a;,b");
}

TEST(SlibStr, ColonCodecsRejectNullAndIdenticalBuffers) {
  char buffer[16] = "a:b";
  const struct {
    const char* name;
    int (*call)(const char*, char*, size_t);
  } codecs[] = {{"decode", SLIBStrDecodeColon}, {"encode", SLIBStrEncodeColon}};
  for (const auto& codec : codecs) {
    SLIBCErrSet(0);
    EXPECT_EQ(codec.call(nullptr, buffer, sizeof(buffer)), -1) << codec.name;
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << codec.name;
    SLIBCErrSet(0);
    EXPECT_EQ(codec.call("x", nullptr, sizeof(buffer)), -1) << codec.name;
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << codec.name;
    SLIBCErrSet(0);
    EXPECT_EQ(codec.call(buffer, buffer, sizeof(buffer)), -1) << codec.name;
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << codec.name;
  }
  EXPECT_STREQ(buffer, "a:b");
}

TEST(SlibStr, SepPushesEveryTokenIncludingEmptyOnes) {
  const struct {
    const char* input;
    const char* delimiters;
    Strings expected;
  } cases[] = {
      {"a,b,c", ",", {"a", "b", "c"}},
      {"a,,b", ",", {"a", "", "b"}},
      {"", ",", {""}},
      {"a,", ",", {"a", ""}},
      {",a", ",", {"", "a"}},
      {",", ",", {"", ""}},
      {"one two\tthree", " \t", {"one", "two", "three"}},
      {"no delimiter", ",", {"no delimiter"}},
  };
  for (const auto& c : cases) {
    List list;
    EXPECT_EQ(SLIBStrSep(c.input, c.delimiters, list.address()),
              static_cast<int>(c.expected.size()))
        << "input [" << c.input << "]";
    EXPECT_EQ(list.Items(), c.expected) << "input [" << c.input << "]";
  }
}

TEST(SlibStr, SepAppendsAfterExistingItemsAndKeepsInput) {
  List list;
  ASSERT_GE(SLIBSzListPush(list.address(), "first"), 0);
  const char input[] = "x:y";
  EXPECT_EQ(SLIBStrSep(input, ":", list.address()), 2);
  EXPECT_EQ(list.Items(), (Strings{"first", "x", "y"}));
  EXPECT_STREQ(input, "x:y");
}

TEST(SlibStr, SepGrowsListForManyTokens) {
  std::string input;
  Strings expected;
  for (int i = 0; i < 200; ++i) {
    expected.push_back("token" + std::to_string(i));
    input += (i == 0 ? "" : ",") + expected.back();
  }
  List list;
  EXPECT_EQ(SLIBStrSep(input.c_str(), ",", list.address()), 200);
  EXPECT_EQ(list.Items(), expected);
}

TEST(SlibStr, SepRejectsNullArguments) {
  List list;
  SLIBSZLIST* no_list = nullptr;
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrSep(nullptr, ",", list.address()), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrSep("a", nullptr, list.address()), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrSep("a", ",", nullptr), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrSep("a", ",", &no_list), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  EXPECT_TRUE(list.Items().empty());
}

TEST(SlibStr, NextTokenSkipsEmptyTokensAndCutsInPlace) {
  char text[] = ",, alpha,,beta  gamma,";
  char* cursor = text;
  Strings tokens;
  while (char* token = SLIBStrNextToken(&cursor, ", ")) {
    EXPECT_GE(token, text);
    EXPECT_LT(token, text + sizeof(text));
    tokens.emplace_back(token);
  }
  EXPECT_EQ(tokens, (Strings{"alpha", "beta", "gamma"}));
  EXPECT_EQ(cursor, nullptr);
  EXPECT_EQ(SLIBStrNextToken(&cursor, ", "), nullptr);
  // The cuts are NULs written over the delimiters that ended the tokens.
  EXPECT_STREQ(text + 3, "alpha");
}

TEST(SlibStr, NextTokenReturnsNullForEmptyOrAllDelimiters) {
  char empty[] = "";
  char* cursor = empty;
  EXPECT_EQ(SLIBStrNextToken(&cursor, ","), nullptr);
  char delimiters_only[] = ",;,;";
  cursor = delimiters_only;
  EXPECT_EQ(SLIBStrNextToken(&cursor, ",;"), nullptr);
}

TEST(SlibStr, SplitKeyValuePushesTrimmedKeyThenValue) {
  const struct {
    const char* line;
    Strings expected;
  } cases[] = {
      {"key=value", {"key", "value"}},
      {"  key  =  value with blanks \n", {"key", "value with blanks"}},
      {"name=\"quoted value\"", {"name", "quoted value"}},
      {"url=a=b=c", {"url", "a=b=c"}},
      {"empty=", {"empty", ""}},
      {"blank =   ", {"blank", ""}},
  };
  for (const auto& c : cases) {
    List list;
    EXPECT_EQ(SLIBStrSplitKeyValue(c.line, list.address()), 0) << "line [" << c.line << "]";
    EXPECT_EQ(list.Items(), c.expected) << "line [" << c.line << "]";
  }
}

TEST(SlibStr, SplitKeyValueRejectsEmptyKeyOrMissingEquals) {
  const char* bad_lines[] = {"=value", "  = value", "no equals sign", "", nullptr};
  for (const char* line : bad_lines) {
    List list;
    SLIBCErrSet(0);
    EXPECT_EQ(SLIBStrSplitKeyValue(line, list.address()), -1) << (line ? line : "(null)");
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT) << (line ? line : "(null)");
    EXPECT_TRUE(list.Items().empty()) << (line ? line : "(null)");
  }
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrSplitKeyValue("k=v", nullptr), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
}

TEST(SlibStr, ReplaceSubstitutesEveryOccurrence) {
  const struct {
    const char* input;
    const char* from;
    const char* to;
    const char* expected;
  } cases[] = {
      {"a-b-c", "-", "+", "a+b+c"},
      {"a-b-c", "-", "--", "a--b--c"},
      {"a--b--c", "--", "", "abc"},
      {"aaaa", "aa", "a", "aa"},
      {"abab", "ab", "abab", "abababab"},
      {"nothing here", "xyz", "!", "nothing here"},
      {"", "x", "y", ""},
      {"%HOST%:%PORT%", "%HOST%", "localhost", "localhost:%PORT%"},
  };
  for (const auto& c : cases) {
    char buffer[64];
    snprintf(buffer, sizeof(buffer), "%s", c.input);
    EXPECT_EQ(SLIBStrReplace(buffer, sizeof(buffer), c.from, c.to),
              static_cast<int>(strlen(c.expected)))
        << "input [" << c.input << "]";
    EXPECT_STREQ(buffer, c.expected) << "input [" << c.input << "]";
  }
}

TEST(SlibStr, ReplaceThatDoesNotFitLeavesStringUnchanged) {
  char buffer[8] = "a.b.c";  // "a..b..c" needs exactly 8 bytes
  SLIBCErrSet(0);
  EXPECT_EQ(SLIBStrReplace(buffer, 7, ".", ".."), -1);
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_STREQ(buffer, "a.b.c");
  EXPECT_EQ(SLIBStrReplace(buffer, sizeof(buffer), ".", ".."), 7);
  EXPECT_STREQ(buffer, "a..b..c");
}

TEST(SlibStr, ReplaceRejectsNullOrEmptyPattern) {
  char buffer[16] = "abc";
  const struct {
    char* str;
    const char* from;
    const char* to;
  } cases[] = {
      {nullptr, "a", "b"},
      {buffer, nullptr, "b"},
      {buffer, "a", nullptr},
      {buffer, "", "b"},
  };
  for (const auto& c : cases) {
    SLIBCErrSet(0);
    EXPECT_EQ(SLIBStrReplace(c.str, sizeof(buffer), c.from, c.to), -1);
    EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  }
  EXPECT_STREQ(buffer, "abc");
}

}  // namespace
