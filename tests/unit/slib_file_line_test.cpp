#include "lib/slib_file_line.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include <string>
#include <utility>
#include <vector>

#include "lib/slib_error.h"
#include "test_support.h"

using testing_support::FileExists;
using testing_support::LongText;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {
std::vector<testing_support::SyslogRecord>& g_syslog = testing_support::SyslogRecords();
}  // namespace

namespace {

constexpr int kNoError = 0x7777;  // a code no call sets: shows that success leaves it alone
constexpr int kAll = SLIB_FILE_MATCH_ALL;
constexpr int kPrefix = SLIB_FILE_MATCH_PREFIX;
constexpr int kSuffix = SLIB_FILE_MATCH_SUFFIX;
constexpr int kNoCase = SLIB_FILE_MATCH_NOCASE;
constexpr int kAfter = OP_FIND_PREFIX;

// ---------------------------------------------------------------- matcher

struct MatchCase {
  const char* line;
  const char* text;
  int flags;
  int expected;
};

const MatchCase kMatchCases[] = {
    // substring
    {"lock file = /var/run/rsyncd.lock\n", "lock file =", 0, 1},
    {"pid file = x\n", "lock file =", 0, 0},
    {"abc\n", "", 0, 1},
    {"\n", "", 0, 1},
    {"#lock file =\n", "lock file =", 0, 0},
    {";lock file =\n", "lock file =", 0, 0},
    {"#\n", "", 0, 0},
    {" #indented is no comment\n", "comment", 0, 1},
    {"Use Chroot = No\n", "use chroot", 0, 0},
    // 0x1 and 0x200 steer the calls, not the matcher
    {"xabc\n", "abc", kAll, 1},
    {"xabc\n", "abc", kAfter, 1},
    {"xabc\n", "abc", kAll | kAfter, 1},
    // prefix
    {"ftp:x:21:\n", "ftp:", kPrefix, 1},
    {"sftp:x:21:\n", "ftp:", kPrefix, 0},
    {"ftp:x:21:\n", "ftp:", kPrefix | kAfter, 1},
    {"xftp:\n", "ftp:", kPrefix | kAfter, 0},
    {"abc", "abc", kPrefix, 1},
    // suffix: the text ends at the line's newline
    {"users = ftp\n", "ftp", kSuffix, 1},
    {"users = ftp \n", "ftp", kSuffix, 0},
    {"users = ftpd\n", "ftp", kSuffix, 0},
    {"users = ftp", "ftp", kSuffix, 0},
    {"ftp\n", "ftp", kSuffix, 1},
    {"tp\n", "ftp", kSuffix, 0},
    {"abc\n", "", kSuffix, 1},
    // prefix is tested before suffix
    {"abc-xyz\n", "abc", kPrefix | kSuffix, 1},
    {"xyz-abc\n", "abc", kPrefix | kSuffix, 0},
    // ignore case, Unicode-aware
    {"Use Chroot = No\n", "use chroot", kNoCase, 1},
    {"LOCK file = x\n", "lock FILE", kPrefix | kNoCase, 1},
    {"x LOCK file\n", "lock FILE", kPrefix | kNoCase, 0},
    {"name=ABC\n", "abc", kSuffix | kNoCase, 1},
    {"straße\n", "STRASSE", kNoCase, 1},
    {"ÄRGER\n", "ärger", kPrefix | kNoCase, 1},
    {"#ABC\n", "abc", kNoCase, 0},
    {"\xff\xfe abc\n", "abc", kNoCase, 0},
    {"\xff\xfe abc\n", "abc", 0, 1},
    {"abc\n", "\xff", kNoCase, 0},
};

TEST(SlibFileLine, LineMatchFollowsTheFlagTable) {
  for (const MatchCase& c : kMatchCases) {
    SCOPED_TRACE(std::string(c.line) + " / " + c.text + " / " + std::to_string(c.flags));
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.expected, SLIBILineMatch(c.line, c.text, c.flags));
    EXPECT_EQ(kNoError, SLIBCErrGet());
  }
}

TEST(SlibFileLine, LineMatchNeverMatchesNullOrNegativeFlags) {
  EXPECT_EQ(0, SLIBILineMatch(nullptr, "a", 0));
  EXPECT_EQ(0, SLIBILineMatch("a\n", nullptr, 0));
  EXPECT_EQ(0, SLIBILineMatch("a\n", "a", -1));
  EXPECT_EQ(0, SLIBILineMatch("a\n", "", -2));
}

// ---------------------------------------------------------------- GetLine

const char kRsyncd[] =
    "# rsyncd\n"
    "uid = root\n"
    "lock file = /var/run/rsyncd.lock\n"
    "Log File = /var/log/rsyncd.log\n"
    "[NetBackup]\n"
    "path = /volume1/NetBackup\n"
    "lock file = /second.lock";

TEST(SlibFileLine, GetLineCopiesTheMatchingLineWithoutItsNewline) {
  TempDir dir;
  const std::string path = dir.File("rsyncd.conf");
  WriteFile(path, kRsyncd);
  char buffer[64];
  SLIBCErrSet(kNoError);
  // The result counts the bytes stored, the terminating NUL included.
  EXPECT_EQ(33, SLIBFileGetLine(path.c_str(), "lock file =", buffer, sizeof(buffer), 0));
  EXPECT_STREQ("lock file = /var/run/rsyncd.lock", buffer);
  EXPECT_EQ(25, SLIBFileGetLine(path.c_str(), "lock file =", buffer, sizeof(buffer), kAll));
  EXPECT_STREQ("lock file = /second.lock", buffer);
  EXPECT_EQ(31, SLIBFileGetLine(path.c_str(), "log file", buffer, sizeof(buffer), kNoCase));
  EXPECT_STREQ("Log File = /var/log/rsyncd.log", buffer);
  EXPECT_EQ(12, SLIBFileGetLine(path.c_str(), "[", buffer, sizeof(buffer), kPrefix));
  EXPECT_STREQ("[NetBackup]", buffer);
  EXPECT_EQ(11, SLIBFileGetLine(path.c_str(), "root", buffer, sizeof(buffer), kSuffix));
  EXPECT_STREQ("uid = root", buffer);
  EXPECT_EQ(kNoError, SLIBCErrGet());
}

TEST(SlibFileLine, GetLineCutsALongLineToTheBuffer) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "key = 123456789\n");
  char buffer[8];
  memset(buffer, '@', sizeof(buffer));
  EXPECT_EQ(8, SLIBFileGetLine(path.c_str(), "key", buffer, sizeof(buffer), 0));
  EXPECT_STREQ("key = 1", buffer);
  char one[1] = {'@'};
  EXPECT_EQ(1, SLIBFileGetLine(path.c_str(), "key", one, 1, 0));
  EXPECT_EQ('\0', one[0]);
}

TEST(SlibFileLine, GetLineReadsLinesLongerThan8192Whole) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string line = "needle " + LongText(20000, 'a');
  WriteFile(path, LongText(9000, 'A') + "\n" + line + "\nend\n");
  std::vector<char> buffer(30000);
  EXPECT_EQ(static_cast<int>(line.size()) + 1,
            SLIBFileGetLine(path.c_str(), "needle", buffer.data(), 30000, kPrefix));
  EXPECT_EQ(line, std::string(buffer.data()));
}

TEST(SlibFileLine, GetLineOfAnEmptyMatchingLineStoresOnlyTheNul) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "#c\n\nx\n");
  char buffer[8] = "@@@";
  EXPECT_EQ(1, SLIBFileGetLine(path.c_str(), "", buffer, sizeof(buffer), 0));
  EXPECT_STREQ("", buffer);
  EXPECT_EQ(2, SLIBFileGetLine(path.c_str(), "", buffer, sizeof(buffer), kAll));
  EXPECT_STREQ("x", buffer);
}

TEST(SlibFileLine, GetLineWithoutMatchGivesZeroAndNotFound) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "#use chroot = no\nuse chroot = yes\n");
  char buffer[64];
  SLIBCErrSet(0);
  EXPECT_EQ(0, SLIBFileGetLine(path.c_str(), "use chroot = no", buffer, sizeof(buffer), 0));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
}

TEST(SlibFileLine, GetLineRejectsBadArgumentsAndUnreadableFiles) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "a\n");
  char buffer[8];
  const struct {
    const char* path;
    const char* text;
    char* buffer;
    int size;
    int flags;
  } bad[] = {{nullptr, "a", buffer, 8, 0},
             {path.c_str(), nullptr, buffer, 8, 0},
             {path.c_str(), "a", nullptr, 8, 0},
             {path.c_str(), "a", buffer, 0, 0},
             {path.c_str(), "a", buffer, 8, -1}};
  for (const auto& b : bad) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, SLIBFileGetLine(b.path, b.text, b.buffer, b.size, b.flags));
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  }
  EXPECT_EQ(-1, SLIBFileGetLine(dir.File("missing").c_str(), "a", buffer, 8, 0));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileGetLine(dir.path().c_str(), "a", buffer, 8, 0));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
}

// ---------------------------------------------------------------- SetLine

struct SetLineCase {
  const char* name;
  const char* text;
  const char* line;
  int flags;
  const char* expected;
};

const char kShares[] = "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=4";

const SetLineCase kSetLineCases[] = {
    {"first match", "x=", "x=new", 0, "a=1\n#x=0\nx=new\nb=2\nx=3\nc=4"},
    {"last match", "x=", "x=new", kAll, "a=1\n#x=0\nx=1\r\nb=2\nx=new\nc=4"},
    {"delete", "b=", nullptr, 0, "a=1\n#x=0\nx=1\r\nx=3\nc=4"},
    {"prefix", "c", "c=5", kPrefix, "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=5\n"},
    {"suffix", "=3", "x=33", kSuffix, "a=1\n#x=0\nx=1\r\nb=2\nx=33\nc=4"},
    {"ignore case", "B=2", "B=20", kNoCase, "a=1\n#x=0\nx=1\r\nB=20\nx=3\nc=4"},
    {"prefix ignoring case", "X=", "x=9", kPrefix | kNoCase, "a=1\n#x=0\nx=9\nb=2\nx=3\nc=4"},
    {"delete the last line", "c=4", nullptr, 0, "a=1\n#x=0\nx=1\r\nb=2\nx=3\n"},
};

TEST(SlibFileLine, SetLineChangesExactlyOneLine) {
  TempDir dir;
  const std::string path = dir.File("conf");
  for (const SetLineCase& c : kSetLineCases) {
    SCOPED_TRACE(c.name);
    WriteFile(path, kShares);
    SLIBCErrSet(kNoError);
    EXPECT_EQ(1, SLIBFileSetLine(path.c_str(), c.text, c.line, c.flags));
    EXPECT_EQ(c.expected, ReadFile(path));
    EXPECT_EQ(kNoError, SLIBCErrGet());
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

TEST(SlibFileLine, SetLineWithoutMatchFailsAndLeavesTheFile) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, kShares);
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(path.c_str(), "x=0", "x=new", 0));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
  EXPECT_EQ(kShares, ReadFile(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(SlibFileLine, SetLineCreatesAMissingFileHoldingTheLine) {
  TempDir dir;
  EXPECT_EQ(1, SLIBFileSetLine(dir.File("new").c_str(), "x=", "x=1", 0));
  EXPECT_EQ("x=1\n", ReadFile(dir.File("new")));
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(dir.File("gone").c_str(), "x=", nullptr, 0));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.File("gone")));
}

TEST(SlibFileLine, SetLineCopiesLongLinesWhole) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string first = LongText(10000, 'a') + "\n";
  const std::string last = LongText(25000, 'A') + "\n";
  WriteFile(path, first + "target=" + LongText(9000, 'k') + "\n" + last);
  const std::string line = "target=" + LongText(16500, 'n');
  EXPECT_EQ(1, SLIBFileSetLine(path.c_str(), "target=", line.c_str(), kPrefix));
  EXPECT_EQ(first + line + "\n" + last, ReadFile(path));
}

TEST(SlibFileLine, SetLineOfADirectoryFailsToRead) {
  TempDir dir;
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(dir.path().c_str(), "x", "y", 0));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.path() + ".tmp"));
}

TEST(SlibFileLine, SetLineRejectsBadArguments) {
  TempDir dir;
  EXPECT_EQ(-1, SLIBFileSetLine(nullptr, "x", "y", 0));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(dir.File("c").c_str(), nullptr, "y", 0));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(dir.File("c").c_str(), "x", "y", -1));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.File("c")));
}

TEST(SlibFileLine, SetLineTracesSearchTextsHoldingDefaultfs) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "defaultfs=ext2\n");
  g_syslog.clear();
  EXPECT_EQ(1, SLIBFileSetLine(path.c_str(), "defaultfs=", "defaultfs=ext3", kPrefix));
  EXPECT_EQ(-1, SLIBFileSetLine(path.c_str(), "my_defaultfs", nullptr, 0));
  EXPECT_EQ(1, SLIBFileSetLine(path.c_str(), "ext3", "other", 0));
  ASSERT_EQ(2u, g_syslog.size());
  EXPECT_EQ(LOG_ERR, g_syslog[0].first);
  EXPECT_EQ("szKey=defaultfs=, szLine=defaultfs=ext3", g_syslog[0].second);
  EXPECT_EQ("szKey=my_defaultfs, szLine=(null)", g_syslog[1].second);
  EXPECT_EQ("other\n", ReadFile(path));
}

TEST(SlibFileLine, SetLineThatCannotOpenTheTemporaryFileLeavesTheFileAlone) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, kShares);
  ASSERT_EQ(0, mkdir((path + ".tmp").c_str(), 0755));
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetLine(path.c_str(), "x=", "x=new", 0));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(kShares, ReadFile(path));
}

// ---------------------------------------------------------------- AddLine

struct AddLineCase {
  const char* name;
  const char* text;
  int flags;
  const char* expected;
};

const char kGroup[] = "root:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\n";

const AddLineCase kAddLineCases[] = {
    {"no text: first line", nullptr, 0, "new\nroot:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\n"},
    {"no text, 0x200: last line", nullptr, kAfter,
     "root:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\nnew\n"},
    {"before the first match", "ftp:", 0, "root:x:0:\nnew\nftp:x:21:\nusers:x:100:\nftp:x:22:\n"},
    {"after the first match", "ftp:", kAfter,
     "root:x:0:\nftp:x:21:\nnew\nusers:x:100:\nftp:x:22:\n"},
    {"before the last match", "ftp:", kAll, "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n"},
    {"after the last match is the end", "ftp:", kAll | kAfter,
     "root:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\nnew\n"},
    {"0x200 is still a substring search", "x:10", kAfter,
     "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n"},
    {"0x200 with prefix", "users", kAfter | kPrefix,
     "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n"},
    {"before the first line", "root", kPrefix,
     "new\nroot:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\n"},
    {"suffix", ":21:", kSuffix, "root:x:0:\nnew\nftp:x:21:\nusers:x:100:\nftp:x:22:\n"},
    {"ignore case", "USERS", kNoCase | kAfter,
     "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n"},
};

TEST(SlibFileLine, AddLinePutsTheLineWhereTheFlagsSay) {
  TempDir dir;
  const std::string path = dir.File("group");
  for (const AddLineCase& c : kAddLineCases) {
    SCOPED_TRACE(c.name);
    WriteFile(path, kGroup);
    SLIBCErrSet(kNoError);
    EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), c.text, "new", c.flags));
    EXPECT_EQ(c.expected, ReadFile(path));
    EXPECT_EQ(kNoError, SLIBCErrGet());
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

TEST(SlibFileLine, AddLineInsertsUseChrootAfterTheLockFileLine) {
  TempDir dir;
  const std::string path = dir.File("rsyncd.conf");
  WriteFile(path, "#lock file = old\nuid = root\nlock file = /var/run/rsyncd.lock\n[NetBackup]\n");
  EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), "lock file =", "use chroot = no", OP_FIND_PREFIX));
  EXPECT_EQ(
      "#lock file = old\nuid = root\nlock file = /var/run/rsyncd.lock\nuse chroot = no\n"
      "[NetBackup]\n",
      ReadFile(path));
}

TEST(SlibFileLine, AddLineWithoutMatchFailsAndLeavesTheFile) {
  TempDir dir;
  const std::string path = dir.File("group");
  WriteFile(path, kGroup);
  for (int flags : {0, kAfter, kAll | kAfter, kPrefix}) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, SLIBFileAddLine(path.c_str(), "admin:", "new", flags));
    EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
    EXPECT_EQ(kGroup, ReadFile(path));
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

TEST(SlibFileLine, AddLineCreatesAMissingFileHoldingTheLine) {
  TempDir dir;
  EXPECT_EQ(1, SLIBFileAddLine(dir.File("a").c_str(), nullptr, "ftp:x:21:nobody,ftp,nobody", 0));
  EXPECT_EQ("ftp:x:21:nobody,ftp,nobody\n", ReadFile(dir.File("a")));
  EXPECT_EQ(1, SLIBFileAddLine(dir.File("b").c_str(), "anything", "line", kAfter));
  EXPECT_EQ("line\n", ReadFile(dir.File("b")));
}

TEST(SlibFileLine, AddLineToAnEmptyFile) {
  TempDir dir;
  const std::string path = dir.File("empty");
  WriteFile(path, "");
  EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), nullptr, "first", 0));
  EXPECT_EQ("first\n", ReadFile(path));
  WriteFile(path, "");
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileAddLine(path.c_str(), "", "x", 0));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
  EXPECT_EQ("", ReadFile(path));
}

TEST(SlibFileLine, AddLineCopiesLongLinesWhole) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string first = "anchor " + LongText(12000, 'a') + "\n";
  const std::string last = LongText(20000, 'A');  // no newline: copied as is
  WriteFile(path, first + last);
  const std::string line = LongText(9000, 'n');
  EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), "anchor", line.c_str(), kPrefix | kAfter));
  EXPECT_EQ(first + line + "\n" + last, ReadFile(path));
}

TEST(SlibFileLine, AddLineRejectsDirectoriesAndBadArguments) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const struct {
    const char* path;
    const char* line;
    int flags;
  } bad[] = {{nullptr, "x", 0},
             {path.c_str(), nullptr, 0},
             {path.c_str(), "x", -1},
             {dir.path().c_str(), "x", 0},
             {dir.path().c_str(), "x", kAfter}};
  for (const auto& b : bad) {
    SLIBCErrSet(0);
    EXPECT_EQ(-1, SLIBFileAddLine(b.path, nullptr, b.line, b.flags));
    EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  }
  EXPECT_FALSE(FileExists(path));
}

TEST(SlibFileLine, AddLineThatCannotOpenTheTemporaryFileLeavesTheFileAlone) {
  TempDir dir;
  const std::string path = dir.File("group");
  WriteFile(path, kGroup);
  ASSERT_EQ(0, mkdir((path + ".tmp").c_str(), 0755));
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileAddLine(path.c_str(), "ftp:", "new", kAfter));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(kGroup, ReadFile(path));
}

// ---------------------------------------------------------------- append, truncate

TEST(SlibFileLine, AppendLineAddsTheLineAndANewline) {
  TempDir dir;
  const std::string path = dir.File("log");
  EXPECT_EQ(0, SLIBFileAppendLine(path.c_str(), "first\tline"));
  EXPECT_EQ(0, SLIBFileAppendLine(path.c_str(), ""));
  EXPECT_EQ(0, SLIBFileAppendLine(path.c_str(), "third"));
  EXPECT_EQ("first\tline\n\nthird\n", ReadFile(path));
}

TEST(SlibFileLine, AppendLineFailures) {
  TempDir dir;
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileAppendLine(nullptr, "x"));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileAppendLine(dir.File("log").c_str(), nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.File("log")));
  EXPECT_EQ(-1, SLIBFileAppendLine(dir.path().c_str(), "x"));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
}

TEST(SlibFileLine, TruncateEmptiesOrCreatesTheFile) {
  TempDir dir;
  const std::string path = dir.File("log");
  WriteFile(path, LongText(12000, 'a'));
  EXPECT_EQ(0, SLIBFileTruncate(path.c_str()));
  EXPECT_EQ("", ReadFile(path));
  EXPECT_EQ(0, SLIBFileTruncate(dir.File("new").c_str()));
  EXPECT_EQ("", ReadFile(dir.File("new")));
  EXPECT_EQ(0, SLIBFileTruncate(nullptr));
  EXPECT_EQ(0, SLIBFileTruncate(dir.path().c_str()));
  EXPECT_EQ(0, SLIBFileTruncate(dir.File("no/such/dir").c_str()));
}

}  // namespace

TEST(SlibFileLine, LinesAddedAfterAnOpenLastLineStandOnTheirOwn) {
  TempDir dir;
  const std::string path = dir.File("conf");
  struct Case {
    const char* text;
    int flags;
  };
  // Appended at the end (no search text), and inserted after the last line.
  for (const Case& c : {Case{nullptr, OP_FIND_PREFIX}, Case{"B=", OP_FIND_PREFIX}}) {
    WriteFile(path, "A=1\nB=2");
    EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), c.text, "X=9", c.flags));
    EXPECT_EQ("A=1\nB=2\nX=9\n", ReadFile(path)) << (c.text ? c.text : "(null)");
  }
  WriteFile(path, "log line");
  EXPECT_EQ(0, SLIBFileAppendLine(path.c_str(), "next"));
  EXPECT_EQ("log line\nnext\n", ReadFile(path));
}
