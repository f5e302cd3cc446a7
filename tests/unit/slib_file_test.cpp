#include "lib/slib_file.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/slib_error.h"
#include "lib/slib_file_line.h"
#include "lib/slib_hash.h"
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

// A small tmpfs of its own (inside a private /tmp) that fills up quickly, to
// make writes fail for root too. Unmounted when the object goes away.
class TinyFs {
 public:
  TinyFs() {
    reason_ = testing_support::EnterPrivateTmp();
    if (!reason_.empty()) return;
    char pattern[] = "/tmp/tinyfs-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      reason_ = "mkdtemp failed";
      return;
    }
    path_ = pattern;
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=64k") != 0) {
      reason_ = std::string("cannot mount a tmpfs: ") + strerror(errno);
      path_.clear();
    }
  }
  ~TinyFs() {
    if (!path_.empty()) umount2(path_.c_str(), MNT_DETACH);
  }
  const std::string& reason() const { return reason_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string reason_;
  std::string path_;
};

struct HashHolder {
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  ~HashHolder() { SLIBSzHashFree(hash); }
};

std::set<std::string> Lines(const std::string& text) {
  std::set<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return lines;
}

// ---------------------------------------------------------------- reading

struct GetCase {
  const char* name;
  const char* content;
  const char* key;
  int flags;
  int result;
  const char* value;  // expected buffer content when result > 0
  int error;          // expected error code when result <= 0
};

const GetCase kGetCases[] = {
    {"plain", "A=1\nKEY=value\nB=2\n", "KEY", 0, 6, "value", 0},
    {"blanks and quotes", "KEY = \"a b\" \n", "KEY", 0, 4, "a b", 0},
    {"tabs and CRLF", "\tKEY\t=\tv\r\n", "KEY", 0, 2, "v", 0},
    {"quoted key", "\"KEY\"=v\n", "KEY", 0, 2, "v", 0},
    {"further equals belong to the value", "KEY=a=b\n", "KEY", 0, 4, "a=b", 0},
    {"empty value", "KEY=\n", "KEY", 0, 1, "", 0},
    {"empty quotes", "KEY=\"\"\n", "KEY", 0, 1, "", 0},
    {"one quote stays", "KEY=\"\n", "KEY", 0, 2, "\"", 0},
    {"last line without newline", "A=1\nKEY=end", "KEY", 0, 4, "end", 0},
    {"first of two wins", "KEY=first\nKEY=second\n", "KEY", 0, 6, "first", 0},
    {"last of two wins with 0x1", "KEY=first\nKEY=second\nX=1\n", "KEY", SLIB_FILE_MATCH_ALL, 7,
     "second", 0},
    {"hash comment", "#KEY=c\nKEY=v\n", "KEY", 0, 2, "v", 0},
    {"hash comment only", "#KEY=c\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"semicolon comment only", ";KEY=c\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"comment with 0x1 is not the last", "KEY=v\n#KEY=c\n", "KEY", SLIB_FILE_MATCH_ALL, 2, "v", 0},
    {"keys compare case-sensitively", "key=v\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"a longer key is another key", "KEYS=v\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"a bare key matches without a value", "KEY\nKEY=v\n", "KEY", 0, 0, nullptr, kNoError},
    {"a bare key keeps the value before it", "KEY=v\nKEY\n", "KEY", SLIB_FILE_MATCH_ALL, 2, "v", 0},
    {"a line without = is all key", "KEY v\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"key found only in the value", "A=KEY=v\n", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
    {"empty file", "", "KEY", 0, 0, nullptr, SLIB_ERR_NOT_FOUND},
};

TEST(SlibFile, GetKeyValueFollowsTheLineRules) {
  TempDir dir;
  for (const GetCase& c : kGetCases) {
    SCOPED_TRACE(c.name);
    WriteFile(dir.File("conf"), c.content);
    char buffer[128];
    memset(buffer, '@', sizeof(buffer));
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.result, SLIBFileGetKeyValue(dir.File("conf").c_str(), c.key, buffer, sizeof(buffer),
                                            c.flags));
    if (c.result > 0) {
      EXPECT_STREQ(c.value, buffer);
      EXPECT_EQ(kNoError, SLIBCErrGet());
    } else {
      EXPECT_EQ(c.error, SLIBCErrGet());
    }
  }
}

TEST(SlibFile, GetKeyValueFitsExactlySizeMinusOneCharacters) {
  TempDir dir;
  WriteFile(dir.File("conf"), "KEY=12345678\n");
  char buffer[9];
  EXPECT_EQ(9, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", buffer, 9, 0));
  EXPECT_STREQ("12345678", buffer);

  char small[8];
  SLIBCErrSet(kNoError);
  EXPECT_EQ(-1, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", small, 8, 0));
  EXPECT_EQ(SLIB_ERR_BUFFER_TOO_SMALL, SLIBCErrGet());
}

TEST(SlibFile, GetKeyValueWithoutBufferOnlyTellsWhetherTheKeyExists) {
  TempDir dir;
  WriteFile(dir.File("conf"), "KEY=v\n");
  EXPECT_EQ(-1, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", nullptr, 0, 0));
  EXPECT_EQ(SLIB_ERR_BUFFER_TOO_SMALL, SLIBCErrGet());
  EXPECT_EQ(0, SLIBFileGetKeyValue(dir.File("conf").c_str(), "OTHER", nullptr, 0, 0));
  EXPECT_EQ(SLIB_ERR_NOT_FOUND, SLIBCErrGet());
}

TEST(SlibFile, GetKeyValueLastMatchTooLongFailsEvenAfterAFittingOne) {
  TempDir dir;
  WriteFile(dir.File("conf"), "KEY=ok\nKEY=much too long\n");
  char buffer[8];
  EXPECT_EQ(3, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", buffer, 8, 0));
  EXPECT_EQ(-1,
            SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", buffer, 8, SLIB_FILE_MATCH_ALL));
  EXPECT_EQ(SLIB_ERR_BUFFER_TOO_SMALL, SLIBCErrGet());
}

TEST(SlibFile, GetKeyValueReadsLinesLongerThan8192Whole) {
  TempDir dir;
  const std::string value = LongText(20000, 'a');
  WriteFile(dir.File("conf"), "PAD=" + LongText(9000, 'A') + "\nKEY=" + value + "\nZ=1\n");
  std::vector<char> buffer(value.size() + 1);
  EXPECT_EQ(20001, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", buffer.data(),
                                       static_cast<int>(buffer.size()), 0));
  EXPECT_EQ(value, std::string(buffer.data()));
  char small[4];
  EXPECT_EQ(2, SLIBFileGetKeyValue(dir.File("conf").c_str(), "Z", small, sizeof(small), 0));
}

TEST(SlibFile, GetKeyValueRejectsBadArgumentsAndMissingFiles) {
  TempDir dir;
  WriteFile(dir.File("conf"), "KEY=v\n");
  const std::string path = dir.File("conf");
  char buffer[16];
  EXPECT_EQ(-1, SLIBFileGetKeyValue(nullptr, "KEY", buffer, 16, 0));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileGetKeyValue(path.c_str(), nullptr, buffer, 16, 0));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileGetKeyValue(path.c_str(), "KEY", nullptr, 16, 0));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileGetKeyValue(path.c_str(), "KEY", buffer, 16, -1));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileGetKeyValue(dir.File("missing").c_str(), "KEY", buffer, 16, 0));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileGetKeyValue(dir.path().c_str(), "KEY", buffer, 16, 0));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
}

// ---------------------------------------------------------------- writing

TEST(SlibFile, SetKeyValueReplacesTheLineAndKeepsEveryOtherByte) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "# settings\n\nA = \"1\"\r\nKEY = \"old\"\n;KEY=comment\nB=2");
  SLIBCErrSet(kNoError);
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", "new value", nullptr));
  EXPECT_EQ("# settings\n\nA = \"1\"\r\nKEY=new value\n;KEY=comment\nB=2", ReadFile(path));
  EXPECT_EQ(kNoError, SLIBCErrGet());
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(SlibFile, SetKeyValueAppendsANewKeyLast) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\n#NEW=0\n");
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "NEW", "2", nullptr));
  EXPECT_EQ("A=1\n#NEW=0\nNEW=2\n", ReadFile(path));
}

TEST(SlibFile, SetKeyValueCreatesAMissingFileWithOneLine) {
  TempDir dir;
  EXPECT_EQ(1, SLIBFileSetKeyValue(dir.File("new").c_str(), "KEY", "v", nullptr));
  EXPECT_EQ("KEY=v\n", ReadFile(dir.File("new")));
  EXPECT_EQ(1, SLIBFileSetKeyValue(dir.File("quoted").c_str(), "KEY", "v", "%s=\"%s\"\n"));
  EXPECT_EQ("KEY=\"v\"\n", ReadFile(dir.File("quoted")));
}

TEST(SlibFile, SetKeyValueReplacesTheFirstDuplicateAndDropsTheOthers) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "KEY=1\nA=x\n KEY =2\n#KEY=3\nKEY=4\n");
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", "9", nullptr));
  EXPECT_EQ("KEY=9\nA=x\n#KEY=3\n", ReadFile(path));
  WriteFile(path, "A=x\nKEY\nKEY=4\n");  // a bare key is the first line with the key
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", "9", nullptr));
  EXPECT_EQ("A=x\nKEY=9\n", ReadFile(path));
  char buffer[8];
  EXPECT_EQ(2, SLIBFileGetKeyValue(path.c_str(), "KEY", buffer, 8, SLIB_FILE_MATCH_ALL));
  EXPECT_STREQ("9", buffer);
}

TEST(SlibFile, SetKeyValueFormatGetsTheOldLineWhenReplacingButTheKeyWhenAppending) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "KEY=old\nA=1\n");
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", "new", "%s=\"%s\"\n"));
  EXPECT_EQ("KEY=old\n=\"new\"\nA=1\n", ReadFile(path));
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "B", "2", "%s=\"%s\"\n"));
  EXPECT_EQ("KEY=old\n=\"new\"\nA=1\nB=\"2\"\n", ReadFile(path));
}

TEST(SlibFile, SetKeyValueCopiesLongLinesWhole) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string before = "PAD=" + LongText(12000, 'a') + "\n";
  const std::string after = "TAIL=" + LongText(30000, 'A') + "\n";
  WriteFile(path, before + "KEY=" + LongText(9000, 'k') + "\n" + after);
  const std::string value = LongText(17000, 'v');
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", value.c_str(), nullptr));
  EXPECT_EQ(before + "KEY=" + value + "\n" + after, ReadFile(path));
}

// The rewritten copy takes the original's mode and owner before the rename,
// so that a secret file is never open to others.
TEST(SlibFile, RewritesKeepTheFilesModeAndOwner) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "KEY=1\n");
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  const uid_t uid = geteuid() == 0 ? 1234 : geteuid();
  const gid_t gid = geteuid() == 0 ? 5678 : getegid();
  ASSERT_EQ(0, chown(path.c_str(), uid, gid));
  const mode_t old_mask = umask(022);
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", "2", nullptr));
  EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), nullptr, "TOP=0", 0));
  umask(old_mask);
  EXPECT_EQ("TOP=0\nKEY=2\n", ReadFile(path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(uid, st.st_uid);
  EXPECT_EQ(gid, st.st_gid);
}

TEST(SlibFile, SetKeyValueRefusesADirectoryAndBadArguments) {
  TempDir dir;
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(dir.path().c_str(), "KEY", "v", nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.path() + ".tmp"));
  const std::string path = dir.File("conf");
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(nullptr, "KEY", "v", nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(path.c_str(), nullptr, "v", nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(path.c_str(), "KEY", nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_FALSE(FileExists(path));
}

TEST(SlibFile, SetKeyValueTracesOnlyTheDefaultfsKey) {
  TempDir dir;
  const std::string path = dir.File("conf");
  g_syslog.clear();
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "defaultfs", "ext3", nullptr));
  ASSERT_EQ(1u, g_syslog.size());
  EXPECT_EQ(LOG_ERR, g_syslog[0].first);
  EXPECT_EQ("szKey=defaultfs, szValue=ext3", g_syslog[0].second);
  g_syslog.clear();
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "defaultfs2", "x", nullptr));
  EXPECT_TRUE(g_syslog.empty());
  EXPECT_EQ("defaultfs=ext3\ndefaultfs2=x\n", ReadFile(path));
}

TEST(SlibFile, SetKeyValueThatCannotOpenTheTemporaryFileLeavesTheFileAlone) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string content = "A=1\nKEY=old\n";
  WriteFile(path, content);
  ASSERT_EQ(0, mkdir((path + ".tmp").c_str(), 0755));
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(path.c_str(), "KEY", "new", nullptr));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(content, ReadFile(path));
  struct stat st;
  EXPECT_EQ(0, stat((path + ".tmp").c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST(SlibFile, SetKeyValueOnAFullFileSystemLeavesTheFileAloneAndNoTemporaryFile) {
  TinyFs fs;
  if (!fs.reason().empty()) GTEST_SKIP() << fs.reason();
  const std::string path = fs.File("conf");
  const std::string content = "A=1\nKEY=old\nPAD=" + LongText(40000, 'a') + "\n";
  WriteFile(path, content);
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeyValue(path.c_str(), "KEY", "new", nullptr));
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_EQ(content, ReadFile(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

// ---------------------------------------------------------------- sections

const char kSmbConf[] =
    "top=0\n"
    "[global]\n"
    "workgroup = WORK\n"
    "[NetBackup]\n"
    "path = \"/volume1/NetBackup\"\n"
    "# comment = no\n"
    "; other = no\n"
    "no equals sign here\n"
    " = empty key\n"
    "read only=no\n"
    "path=/volume1/second\n"
    "empty=\n"
    "[netbackup]\n"
    "lower=case\n"
    "[NetBackup]\n"
    "again=yes\n";

TEST(SlibFile, GetSectionReadsTheKeysOfTheFirstMatchingSection) {
  TempDir dir;
  WriteFile(dir.File("smb.conf"), kSmbConf);
  HashHolder h;
  ASSERT_NE(nullptr, h.hash);
  SLIBCErrSet(kNoError);
  EXPECT_EQ(5, SLIBFileGetSection(dir.File("smb.conf").c_str(), "NetBackup", &h.hash));
  EXPECT_STREQ("/volume1/second", SzSLIBSzHashGetValue(h.hash, "path"));
  EXPECT_STREQ("no", SzSLIBSzHashGetValue(h.hash, "read only"));
  EXPECT_STREQ("", SzSLIBSzHashGetValue(h.hash, "empty"));
  EXPECT_STREQ("no", SzSLIBSzHashGetValue(h.hash, "# comment"));  // a key like any other
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(h.hash, "lower"));
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(h.hash, "again"));
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(h.hash, "workgroup"));
  EXPECT_EQ(kNoError, SLIBCErrGet());
}

TEST(SlibFile, GetSectionHeaderMayHaveTrailingBlanksAndRunsToTheEnd) {
  TempDir dir;
  WriteFile(dir.File("conf"), "[a]\nx=1\n[last]  \r\nk = v\nk2=\"w\"");
  HashHolder h;
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "kept", "1"), 0);
  EXPECT_EQ(3, SLIBFileGetSection(dir.File("conf").c_str(), "last", &h.hash));
  EXPECT_STREQ("v", SzSLIBSzHashGetValue(h.hash, "k"));
  EXPECT_STREQ("w", SzSLIBSzHashGetValue(h.hash, "k2"));
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(h.hash, "x"));
}

TEST(SlibFile, GetSectionOfAnAbsentSectionAddsNothing) {
  TempDir dir;
  WriteFile(dir.File("conf"), "[a]\nx=1\n  [b]\ny=2\n");
  HashHolder h;
  EXPECT_EQ(0, SLIBFileGetSection(dir.File("conf").c_str(), "b", &h.hash));
  EXPECT_EQ(0, SLIBFileGetSection(dir.File("conf").c_str(), "A", &h.hash));
}

TEST(SlibFile, GetSectionRejectsBadArgumentsAndMissingFiles) {
  TempDir dir;
  HashHolder h;
  EXPECT_EQ(-1, SLIBFileGetSection(dir.File("conf").c_str(), nullptr, &h.hash));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileGetSection(dir.File("conf").c_str(), "a", nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileGetSection(dir.File("missing").c_str(), "a", &h.hash));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
}

// ---------------------------------------------------------------- SetKeys

TEST(SlibFile, SetKeysRewritesKeysInTheFileAndAppendsTheRest) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "# B=comment\nA=1\n B = \"2\"\n\nC=3\nB=dup\n");
  HashHolder h;
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "B", "20"), 0);
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "D", "4"), 0);
  SLIBCErrSet(kNoError);
  EXPECT_EQ(1, SLIBFileSetKeys(path.c_str(), h.hash, nullptr));
  // Only the first B is rewritten: the key leaves the hash once written.
  EXPECT_EQ("# B=comment\nA=1\nB=20\n\nC=3\nB=dup\nD=4\n", ReadFile(path));
  EXPECT_EQ(1, h.hash->nEntry);  // the appended key stays
  EXPECT_STREQ("4", SzSLIBSzHashGetValue(h.hash, "D"));
  EXPECT_EQ(kNoError, SLIBCErrGet());
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(SlibFile, SetKeysUsesTheFormatWithKeyAndValueForEveryLine) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nB=2\nC=3\n");
  HashHolder h;
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "B", "x y"), 0);
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "D", "d"), 0);
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "E", "e"), 0);
  EXPECT_EQ(1, SLIBFileSetKeys(path.c_str(), h.hash, "%s=\"%s\"\n"));
  const std::string result = ReadFile(path);
  const std::string head = "A=1\nB=\"x y\"\nC=3\n";
  ASSERT_EQ(head, result.substr(0, head.size()));
  // The keys left over come in the hash's own order.
  EXPECT_EQ((std::set<std::string>{"D=\"d\"", "E=\"e\""}), Lines(result.substr(head.size())));
  EXPECT_EQ(head.size() + 12, result.size());
}

TEST(SlibFile, SetKeysWithAnEmptyHashCopiesTheFile) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string content = "A=1\n" + LongText(10000, 'a') + "\n;x\n";
  WriteFile(path, content);
  HashHolder h;
  EXPECT_EQ(1, SLIBFileSetKeys(path.c_str(), h.hash, nullptr));
  EXPECT_EQ(content, ReadFile(path));
}

TEST(SlibFile, SetKeysRejectsBadArgumentsAndMissingFiles) {
  TempDir dir;
  HashHolder h;
  EXPECT_EQ(-1, SLIBFileSetKeys(nullptr, h.hash, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeys(dir.File("conf").c_str(), nullptr, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileSetKeys(dir.File("missing").c_str(), h.hash, nullptr));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_FALSE(FileExists(dir.File("missing")));
}

struct MoveCase {
  const char* line;
  int result;
  const char* written;
};

TEST(SlibFile, LineKeyMoveHash2FileWritesOnlyLinesWhoseKeyIsInTheHash) {
  const MoveCase cases[] = {
      {"K=old\n", 1, "K=new\n"},
      {"  K = old  \n", 1, "K=new\n"},
      {"#K=old\n", 0, ""},
      {"  ;K=old\n", 0, ""},
      {"\n", 0, ""},
      {"K old\n", 0, ""},
      {" =old\n", 0, ""},
      {"OTHER=1\n", 0, ""},
  };
  TempDir dir;
  for (const MoveCase& c : cases) {
    SCOPED_TRACE(c.line);
    HashHolder h;
    ASSERT_GE(SLIBSzHashSetValue(&h.hash, "K", "new"), 0);
    FILE* tmp = fopen(dir.File("tmp").c_str(), "w");
    ASSERT_NE(nullptr, tmp);
    EXPECT_EQ(c.result, SLIBILineKeyMoveHash2File(tmp, c.line, h.hash, nullptr));
    fclose(tmp);
    EXPECT_EQ(c.written, ReadFile(dir.File("tmp")));
    EXPECT_STREQ(c.result == 1 ? nullptr : "new", SzSLIBSzHashGetValue(h.hash, "K"));
  }
  HashHolder h;
  EXPECT_EQ(-1, SLIBILineKeyMoveHash2File(nullptr, "K=1\n", h.hash, nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
}

TEST(SlibFile, SetKeysOnAFullFileSystemLogsAndLeavesTheFileAlone) {
  TinyFs fs;
  if (!fs.reason().empty()) GTEST_SKIP() << fs.reason();
  const std::string path = fs.File("conf");
  const std::string content = "A=1\nKEY=old\nPAD=" + LongText(30000, 'a') + "\n";
  WriteFile(path, content);
  HashHolder h;
  const std::string big = LongText(60000, 'b');
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "KEY", big.c_str()), 0);
  g_syslog.clear();
  SLIBCErrSet(0);
  EXPECT_EQ(-1, SLIBFileSetKeys(path.c_str(), h.hash, nullptr));
  EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
  EXPECT_EQ(content, ReadFile(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
  ASSERT_EQ(1u, g_syslog.size());
  EXPECT_EQ(LOG_ERR, g_syslog[0].first);
  EXPECT_EQ(
      "SLIBFileSetKeys(): \t\t\t\t   SLIBILineKeyMoveHash2File(pfTmp, szBuf, pHash, szFormat) "
      "failed! \t\t\t\t   szBuf=KEY=old\n, szFormat=(null)",
      g_syslog[0].second);
}

}  // namespace

// ------------------------------------------------- a last line without newline

TEST(SlibFile, SetKeyValueAppendsANewKeyOnALineOfItsOwnAfterAnOpenLastLine) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nB=2");
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "C", "3", nullptr));
  EXPECT_EQ("A=1\nB=2\nC=3\n", ReadFile(path));
}

TEST(SlibFile, SetKeyValueReplacingAnOpenLastLineEndsIt) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nB=2");
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "B", "9", nullptr));
  EXPECT_EQ("A=1\nB=9\n", ReadFile(path));
}

TEST(SlibFile, SetKeysAppendsAfterAnOpenLastLineOnLinesOfTheirOwn) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nC=3");
  HashHolder h;
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "D", "4"), 0);
  EXPECT_EQ(1, SLIBFileSetKeys(path.c_str(), h.hash, nullptr));
  EXPECT_EQ("A=1\nC=3\nD=4\n", ReadFile(path));
}

TEST(SlibFile, SetKeysWithNothingToAppendLeavesAnOpenLastLineOpen) {
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nC=3");
  HashHolder h;
  ASSERT_GE(SLIBSzHashSetValue(&h.hash, "A", "2"), 0);
  EXPECT_EQ(1, SLIBFileSetKeys(path.c_str(), h.hash, nullptr));
  EXPECT_EQ("A=2\nC=3", ReadFile(path));
}

TEST(SlibFile, SetQuotedKeyValueWritesTheSettingsFormForNewAndExistingKeys) {
  TempDir dir;
  const std::string path = dir.File("veltinfo.conf");
  WriteFile(path, "A=\"1\"\nMTUValue=\"9000\"\nB=2\nMTUValue=\"4074\"\n");
  SLIBCErrSet(0x1234);
  ASSERT_EQ(1, SLIBFileSetQuotedKeyValue(path.c_str(), "MTUValue", "8000"));
  ASSERT_EQ(1, SLIBFileSetQuotedKeyValue(path.c_str(), "C", "new value"));
  EXPECT_EQ("A=\"1\"\nMTUValue=\"8000\"\nB=2\nC=\"new value\"\n", ReadFile(path));
  EXPECT_EQ(0x1234, SLIBCErrGet()) << "a success leaves the error code alone";
}

TEST(SlibFile, SetQuotedKeyValueCreatesAMissingFileWithTheOneLine) {
  TempDir dir;
  const std::string path = dir.File("veltinfo.conf");
  ASSERT_EQ(1, SLIBFileSetQuotedKeyValue(path.c_str(), "MTUValue", "1500"));
  EXPECT_EQ("MTUValue=\"1500\"\n", ReadFile(path));
  EXPECT_EQ(-1, SLIBFileSetQuotedKeyValue(path.c_str(), nullptr, "1500"));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
}
