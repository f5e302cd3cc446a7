// The line writers share the writer table of slib_file_test.cpp.
#include "lib/slib_file_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_file.h"
#include "test_support.h"

namespace {

constexpr int kNoError = 0x7777;  // no call sets it: shows that a success leaves the code alone
constexpr int kAll = SLIB_FILE_MATCH_ALL;
constexpr int kPrefix = SLIB_FILE_MATCH_PREFIX;
constexpr int kSuffix = SLIB_FILE_MATCH_SUFFIX;
constexpr int kNoCase = SLIB_FILE_MATCH_NOCASE;

struct MatchCase {
  const char* line;
  const char* text;
  int flags;
  int expected;
};

TEST(SlibFileLine, LineMatchFollowsTheFlagTable) {
  const MatchCase cases[] = {{"lock file = /var/run/rsyncd.lock\n", "lock file =", 0, 1},
                             {"pid file = x\n", "lock file =", 0, 0},
                             {"\n", "", 0, 1},
                             {"#lock file =\n", "lock file =", 0, 0},
                             {";lock file =\n", "lock file =", 0, 0},
                             {" #indented is no comment\n", "comment", 0, 1},
                             {"Use Chroot = No\n", "use chroot", 0, 0},
                             {"xabc\n", "abc", kAll | OP_FIND_PREFIX, 1},
                             {"ftp:x:21:\n", "ftp:", kPrefix, 1},
                             {"sftp:x:21:\n", "ftp:", kPrefix, 0},
                             {"abc", "abc", kPrefix, 1},
                             {"users = ftp\n", "ftp", kSuffix, 1},
                             {"users = ftp \n", "ftp", kSuffix, 0},
                             {"users = ftp", "ftp", kSuffix, 0},
                             {"tp\n", "ftp", kSuffix, 0},
                             {"abc-xyz\n", "abc", kPrefix | kSuffix, 1},
                             {"xyz-abc\n", "abc", kPrefix | kSuffix, 0},
                             {"Use Chroot = No\n", "use chroot", kNoCase, 1},
                             {"x LOCK file\n", "lock FILE", kPrefix | kNoCase, 0},
                             {"name=ABC\n", "abc", kSuffix | kNoCase, 1},
                             {"straße\n", "STRASSE", kNoCase, 1},
                             {"#ABC\n", "abc", kNoCase, 0},
                             {"\xff\xfe abc\n", "abc", kNoCase, 0},
                             {"\xff\xfe abc\n", "abc", 0, 1},
                             {nullptr, "a", 0, 0},
                             {"a\n", nullptr, 0, 0},
                             {"a\n", "a", -1, 0}};
  for (const MatchCase& c : cases) {
    SCOPED_TRACE(std::string(c.line ? c.line : "-") + " / " + (c.text ? c.text : "-") + " / " +
                 std::to_string(c.flags));
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.expected, SLIBILineMatch(c.line, c.text, c.flags));
    EXPECT_EQ(kNoError, SLIBCErrGet());
  }
}

struct GetLineCase {
  const char* text;
  int flags;
  int size;
  int result;
  const char* line;  // the buffer afterwards
  int error;
};

TEST(SlibFileLine, GetLineCopiesTheMatchingLineCutToTheBuffer) {
  const GetLineCase cases[] = {
      {"lock file =", 0, 64, 33, "lock file = /var/run/rsyncd.lock", kNoError},
      {"lock file =", kAll, 64, 25, "lock file = /second.lock", kNoError},
      {"log file", kNoCase, 64, 31, "Log File = /var/log/rsyncd.log", kNoError},
      {"root", kSuffix, 64, 11, "uid = root", kNoError},
      {"", 0, 64, 1, "", kNoError},
      {"uid", 0, 8, 8, "uid = r", kNoError},
      {"uid", 0, 1, 1, "", kNoError},
      {"chroot", 0, 64, 0, "@", SLIB_ERR_NOT_FOUND},
      {"uid", 0, 0, -1, "@", SLIB_ERR_BAD_ARGUMENT},
      {"uid", -1, 8, -1, "@", SLIB_ERR_BAD_ARGUMENT}};
  testing_support::TempDir dir;
  const std::string path = dir.File("rsyncd.conf");
  testing_support::WriteFile(path,
                             "# chroot\n\nuid = root\nlock file = /var/run/rsyncd.lock\n"
                             "Log File = /var/log/rsyncd.log\nlock file = /second.lock");
  for (const GetLineCase& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " / " + std::to_string(c.size));
    char buffer[64] = "@";
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.result, SLIBFileGetLine(path.c_str(), c.text, buffer, c.size, c.flags));
    EXPECT_STREQ(c.line, buffer);
    EXPECT_EQ(c.error, SLIBCErrGet());
  }
  const std::string line = "needle " + testing_support::LongText(20000, 'a');
  testing_support::WriteFile(path, testing_support::LongText(9000, 'A') + "\n" + line + "\n");
  std::vector<char> big(30000);
  EXPECT_EQ(20008, SLIBFileGetLine(path.c_str(), "needle", big.data(), 30000, kPrefix));
  EXPECT_EQ(line, big.data());
  EXPECT_EQ(-1, SLIBFileGetLine(dir.File("missing").c_str(), "a", big.data(), 8, 0));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileGetLine(dir.path().c_str(), "a", big.data(), 8, 0));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
}

}  // namespace
