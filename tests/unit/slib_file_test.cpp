#include "lib/slib_file.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

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

constexpr int kNoError = 0x7777;  // no call sets it: shows that a success leaves the code alone
constexpr int kAll = SLIB_FILE_MATCH_ALL;
constexpr int kAfter = OP_FIND_PREFIX;

struct GetCase {
  const char* content;
  const char* key;
  int flags;
  int size;
  int result;
  const char* value;  // the buffer afterwards
  int error;
};

TEST(SlibFile, GetKeyValueFollowsTheLineRules) {
  const GetCase cases[] = {
      {"A=1\nKEY=value\nB=2\n", "KEY", 0, 64, 6, "value", kNoError},
      {"KEY = \"a b\" \n", "KEY", 0, 64, 4, "a b", kNoError},
      {"\tKEY\t=\tv\r\n", "KEY", 0, 64, 2, "v", kNoError},
      {"\"KEY\"=v\n", "KEY", 0, 64, 2, "v", kNoError},
      {"KEY=a=b\n", "KEY", 0, 64, 4, "a=b", kNoError},
      {"KEY=\"\"\n", "KEY", 0, 64, 1, "", kNoError},
      {"KEY=\"\n", "KEY", 0, 64, 2, "\"", kNoError},
      {"A=1\nKEY=end", "KEY", 0, 64, 4, "end", kNoError},
      {"KEY=first\nKEY=second\n", "KEY", 0, 64, 6, "first", kNoError},
      {"KEY=first\nKEY=second\nX=1\n#KEY=c\n", "KEY", kAll, 64, 7, "second", kNoError},
      {"#KEY=c\n;KEY=d\nkey=e\nKEYS=f\nKEY g\nA=KEY=h\n", "KEY", 0, 64, 0, "@", 0x2000},
      {"KEY\nKEY=v\n", "KEY", 0, 64, 0, "@", kNoError},
      {"KEY=v\nKEY\n", "KEY", kAll, 64, 2, "v", kNoError},
      {"KEY=12345678\n", "KEY", 0, 9, 9, "12345678", kNoError},
      {"KEY=12345678\n", "KEY", 0, 8, -1, "@", SLIB_ERR_BUFFER_TOO_SMALL},
      {"KEY=ok\nKEY=much too long\n", "KEY", kAll, 8, -1, "ok", SLIB_ERR_BUFFER_TOO_SMALL},
      {"KEY=v\n", "KEY", 0, 0, -1, "@", SLIB_ERR_BUFFER_TOO_SMALL},
      {"KEY=v\n", "OTHER", 0, 0, 0, "@", SLIB_ERR_NOT_FOUND},
      {"KEY=v\n", "KEY", 0, -1, -1, "@", SLIB_ERR_BAD_ARGUMENT},
      {"KEY=v\n", "KEY", -1, 64, -1, "@", SLIB_ERR_BAD_ARGUMENT},
      {nullptr, "KEY", 0, 64, -1, "@", SLIB_ERR_OPEN}};
  TempDir dir;
  for (const GetCase& c : cases) {
    SCOPED_TRACE(std::string(c.content ? c.content : "(missing)") + " size " +
                 std::to_string(c.size));
    unlink(dir.File("conf").c_str());
    if (c.content != nullptr) WriteFile(dir.File("conf"), c.content);
    char buffer[64] = "@";
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.result, SLIBFileGetKeyValue(dir.File("conf").c_str(), c.key,
                                            c.size == 0 ? nullptr : buffer, c.size, c.flags));
    EXPECT_STREQ(c.value, buffer);
    EXPECT_EQ(c.error, SLIBCErrGet());
  }
  const std::string value = LongText(20000, 'a');
  WriteFile(dir.File("conf"), "PAD=" + LongText(9000, 'A') + "\nKEY=" + value + "\n");
  std::vector<char> big(value.size() + 1);
  EXPECT_EQ(20001, SLIBFileGetKeyValue(dir.File("conf").c_str(), "KEY", big.data(), 20001, 0));
  EXPECT_EQ(value, big.data());
  EXPECT_EQ(-1, SLIBFileGetKeyValue(dir.path().c_str(), "KEY", big.data(), 8, 0));
  EXPECT_EQ(SLIB_ERR_READ, SLIBCErrGet());
}

enum class Call { kSetKey, kSetQuoted, kSetKeys, kSetLine, kAddLine, kAppend, kTruncate };

struct WriteCase {
  const char* before;  // null: no file
  Call call;
  const char* text;    // the key, or the search text
  const char* value;   // the value, or the new line
  const char* format;  // a format, or the flags as a number
  const char* after;   // null: no file
  int result;
  int error;
};

int Apply(const WriteCase& c, const char* path) {
  const int flags = c.format != nullptr ? atoi(c.format) : 0;
  switch (c.call) {
    case Call::kSetKey:
      return SLIBFileSetKeyValue(path, c.text, c.value, c.format);
    case Call::kSetQuoted:
      return SLIBFileSetQuotedKeyValue(path, c.text, c.value);
    case Call::kSetKeys: {
      SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
      if (c.text != nullptr) SLIBSzHashSetValue(&hash, c.text, c.value);
      const int result = SLIBFileSetKeys(path, hash, c.format);
      SLIBSzHashFree(hash);
      return result;
    }
    case Call::kSetLine:
      return SLIBFileSetLine(path, c.text, c.value, flags);
    case Call::kAddLine:
      return SLIBFileAddLine(path, c.text, c.value, flags);
    case Call::kAppend:
      return SLIBFileAppendLine(path, c.value);
    case Call::kTruncate:
      return SLIBFileTruncate(path);
  }
  return -2;
}

const char kConf[] = "# settings\n\nA = \"1\"\r\nKEY = \"old\"\n;KEY=comment\nB=2";
const char kGroup[] = "root:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\n";
const char kShares[] = "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=4";

TEST(SlibFile, WritersChangeExactlyWhatTheySay) {
  const std::string after_all = std::to_string(kAll | kAfter), all = std::to_string(kAll);
  const std::string after = std::to_string(kAfter), prefix = std::to_string(kAfter | 2);
  const std::string suffix = std::to_string(SLIB_FILE_MATCH_SUFFIX);
  const std::string nocase = std::to_string(SLIB_FILE_MATCH_NOCASE | kAfter);
  const WriteCase cases[] = {
      {kConf, Call::kSetKey, "KEY", "new value", nullptr,
       "# settings\n\nA = \"1\"\r\nKEY=new value\n;KEY=comment\nB=2", 1, kNoError},
      {"A=1\n#NEW=0\nB=2", Call::kSetKey, "NEW", "2", nullptr, "A=1\n#NEW=0\nB=2\nNEW=2\n", 1,
       kNoError},
      {"A=1\nB=2", Call::kSetKey, "B", "9", nullptr, "A=1\nB=9\n", 1, kNoError},
      {nullptr, Call::kSetKey, "KEY", "v", "%s=\"%s\"\n", "KEY=\"v\"\n", 1, kNoError},
      {"KEY=1\nA=x\n KEY =2\n#KEY=3\nKEY=4\n", Call::kSetKey, "KEY", "9", nullptr,
       "KEY=9\nA=x\n#KEY=3\n", 1, kNoError},
      {"A=x\nKEY\nKEY=4\n", Call::kSetKey, "KEY", "9", nullptr, "A=x\nKEY=9\n", 1, kNoError},
      {"KEY=old\nA=1\n", Call::kSetKey, "KEY", "new", "%s=\"%s\"\n", "KEY=old\n=\"new\"\nA=1\n", 1,
       kNoError},
      {"A=1\n", Call::kSetKey, nullptr, "v", nullptr, "A=1\n", -1, SLIB_ERR_BAD_ARGUMENT},
      {"A=1\n", Call::kSetKey, "A", nullptr, nullptr, "A=1\n", -1, SLIB_ERR_BAD_ARGUMENT},
      {"A=\"1\"\nMTU=\"9000\"\nB=2\nMTU=\"4074\"\n", Call::kSetQuoted, "MTU", "8000", nullptr,
       "A=\"1\"\nMTU=\"8000\"\nB=2\n", 1, kNoError},
      {"A=\"1\"\n", Call::kSetQuoted, "C", "new value", nullptr, "A=\"1\"\nC=\"new value\"\n", 1,
       kNoError},
      {nullptr, Call::kSetQuoted, "MTU", "1500", nullptr, "MTU=\"1500\"\n", 1, kNoError},
      {"A=1\n", Call::kSetQuoted, nullptr, "1", nullptr, "A=1\n", -1, SLIB_ERR_BAD_ARGUMENT},
      {"# B=c\nA=1\n B = \"2\"\n\nC=3\nB=dup", Call::kSetKeys, "B", "20", nullptr,
       "# B=c\nA=1\nB=20\n\nC=3\nB=dup", 1, kNoError},
      {"A=1\nC=3", Call::kSetKeys, "D", "x y", "%s=\"%s\"\n", "A=1\nC=3\nD=\"x y\"\n", 1, kNoError},
      {"A=1\n;x\n", Call::kSetKeys, nullptr, nullptr, nullptr, "A=1\n;x\n", 1, kNoError},
      {nullptr, Call::kSetKeys, "D", "4", nullptr, nullptr, -1, SLIB_ERR_OPEN},
      {kShares, Call::kSetLine, "x=", "x=new", nullptr, "a=1\n#x=0\nx=new\nb=2\nx=3\nc=4", 1,
       kNoError},
      {kShares, Call::kSetLine, "x=", "x=new", all.c_str(), "a=1\n#x=0\nx=1\r\nb=2\nx=new\nc=4", 1,
       kNoError},
      {kShares, Call::kSetLine, "b=", nullptr, nullptr, "a=1\n#x=0\nx=1\r\nx=3\nc=4", 1, kNoError},
      {kShares, Call::kSetLine, "c", "c=5", "2", "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=5\n", 1, kNoError},
      {kShares, Call::kSetLine, "=3", "x=33", suffix.c_str(), "a=1\n#x=0\nx=1\r\nb=2\nx=33\nc=4", 1,
       kNoError},
      {kShares, Call::kSetLine, "x=0", "x=new", nullptr, kShares, -1, SLIB_ERR_NOT_FOUND},
      {nullptr, Call::kSetLine, "x=", "x=1", nullptr, "x=1\n", 1, kNoError},
      {kGroup, Call::kAddLine, nullptr, "new", nullptr,
       "new\nroot:x:0:\nftp:x:21:\nusers:x:100:\nftp:x:22:\n", 1, kNoError},
      {"A=1\nB=2", Call::kAddLine, nullptr, "new", after.c_str(), "A=1\nB=2\nnew\n", 1, kNoError},
      {kGroup, Call::kAddLine, "ftp:", "new", nullptr,
       "root:x:0:\nnew\nftp:x:21:\nusers:x:100:\nftp:x:22:\n", 1, kNoError},
      {kGroup, Call::kAddLine, "ftp:", "new", after.c_str(),
       "root:x:0:\nftp:x:21:\nnew\nusers:x:100:\nftp:x:22:\n", 1, kNoError},
      {kGroup, Call::kAddLine, "ftp:", "new", all.c_str(),
       "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n", 1, kNoError},
      {"A=1\nB=2", Call::kAddLine, "B=", "new", after_all.c_str(), "A=1\nB=2\nnew\n", 1, kNoError},
      {kGroup, Call::kAddLine, "users", "new", prefix.c_str(),
       "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n", 1, kNoError},
      {kGroup, Call::kAddLine, "USERS", "new", nocase.c_str(),
       "root:x:0:\nftp:x:21:\nusers:x:100:\nnew\nftp:x:22:\n", 1, kNoError},
      {kGroup, Call::kAddLine, "nobody", "new", nullptr, kGroup, -1, SLIB_ERR_NOT_FOUND},
      {"", Call::kAddLine, "x", "new", nullptr, "", -1, SLIB_ERR_NOT_FOUND},
      {nullptr, Call::kAddLine, "x", "new", nullptr, "new\n", 1, kNoError},
      {"log line", Call::kAppend, nullptr, "next", nullptr, "log line\nnext\n", 0, kNoError},
      {nullptr, Call::kAppend, nullptr, "", nullptr, "\n", 0, kNoError},
      {nullptr, Call::kAppend, nullptr, nullptr, nullptr, nullptr, -1, SLIB_ERR_BAD_ARGUMENT},
      {"long\nlines\n", Call::kTruncate, nullptr, nullptr, nullptr, "", 0, kNoError},
      {nullptr, Call::kTruncate, nullptr, nullptr, nullptr, "", 0, kNoError}};
  TempDir dir;
  const std::string path = dir.File("conf");
  for (const WriteCase& c : cases) {
    SCOPED_TRACE(std::string(c.before ? c.before : "(missing)") + " / " + (c.text ? c.text : "-") +
                 " / " + (c.value ? c.value : "-") + " / " + (c.format ? c.format : "-"));
    unlink(path.c_str());
    if (c.before != nullptr) WriteFile(path, c.before);
    SLIBCErrSet(kNoError);
    EXPECT_EQ(c.result, Apply(c, path.c_str()));
    EXPECT_EQ(c.after != nullptr ? c.after : "<missing>", ReadFile(path));
    EXPECT_EQ(c.error, SLIBCErrGet());
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

TEST(SlibFile, RewritesCopyLongLinesWholeAndKeepModeAndOwner) {
  TempDir dir;
  const std::string path = dir.File("conf");
  const std::string head = "PAD=" + LongText(12000, 'a') + "\n";
  const std::string tail = "TAIL=" + LongText(30000, 'A') + "\n";
  WriteFile(path, head + "KEY=" + LongText(9000, 'k') + "\n" + tail);
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  ASSERT_EQ(0, chown(path.c_str(), 1234, 5678));
  const mode_t old_mask = umask(022);
  const std::string value = LongText(17000, 'v');
  EXPECT_EQ(1, SLIBFileSetKeyValue(path.c_str(), "KEY", value.c_str(), nullptr));
  EXPECT_EQ(1, SLIBFileAddLine(path.c_str(), "TAIL=", "X", 0));
  EXPECT_EQ(1, SLIBFileSetLine(path.c_str(), "PAD=", "P", 0));
  umask(old_mask);
  EXPECT_EQ("P\nKEY=" + value + "\nX\n" + tail, ReadFile(path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(1234u, st.st_uid);
  EXPECT_EQ(5678u, st.st_gid);
}

TEST(SlibFile, FailedRewritesLeaveTheFileAlone) {
  {  // A full file system: a tiny tmpfs inside a private /tmp.
    const std::string why = testing_support::EnterPrivateTmp();
    if (!why.empty()) GTEST_SKIP() << why;
    mkdir("/tmp/tiny", 0755);
    ASSERT_EQ(0, mount("tmpfs", "/tmp/tiny", "tmpfs", 0, "size=64k"));
    const std::string content = "A=1\nKEY=old\nPAD=" + LongText(40000, 'a') + "\n";
    WriteFile("/tmp/tiny/conf", content);
    EXPECT_EQ(-1, SLIBFileSetKeyValue("/tmp/tiny/conf", "KEY", "new", nullptr));
    EXPECT_EQ(SLIB_ERR_WRITE, SLIBCErrGet());
    SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
    SLIBSzHashSetValue(&hash, "KEY", LongText(60000, 'b').c_str());
    testing_support::SyslogRecords().clear();
    EXPECT_EQ(-1, SLIBFileSetKeys("/tmp/tiny/conf", hash, nullptr));
    SLIBSzHashFree(hash);
    EXPECT_EQ(content, ReadFile("/tmp/tiny/conf"));
    EXPECT_FALSE(FileExists("/tmp/tiny/conf.tmp"));
    EXPECT_EQ((std::vector<testing_support::SyslogRecord>{
                  {LOG_ERR,
                   "SLIBFileSetKeys(): \t\t\t\t   SLIBILineKeyMoveHash2File(pfTmp, szBuf, pHash, "
                   "szFormat) failed! \t\t\t\t   szBuf=KEY=old\n, szFormat=(null)"}}),
              testing_support::SyslogRecords());
    umount2("/tmp/tiny", MNT_DETACH);
  }
  TempDir dir;
  const std::string path = dir.File("conf");
  WriteFile(path, "A=1\nKEY=old\n");
  ASSERT_EQ(0, mkdir((path + ".tmp").c_str(), 0755));
  EXPECT_EQ(-1, SLIBFileSetKeyValue(path.c_str(), "KEY", "new", nullptr));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileAddLine(path.c_str(), nullptr, "X", 0));
  EXPECT_EQ(-1, SLIBFileSetLine(path.c_str(), "KEY", "X", 0));
  EXPECT_EQ("A=1\nKEY=old\n", ReadFile(path));
  EXPECT_EQ(-1, SLIBFileSetKeyValue(dir.path().c_str(), "KEY", "v", nullptr));
  EXPECT_EQ(SLIB_ERR_BAD_ARGUMENT, SLIBCErrGet());
  EXPECT_EQ(-1, SLIBFileAppendLine(dir.path().c_str(), "x"));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
}

TEST(SlibFile, WritersTraceTheDefaultfsKey) {
  TempDir dir;
  testing_support::SyslogRecords().clear();
  EXPECT_EQ(1, SLIBFileSetKeyValue(dir.File("c").c_str(), "defaultfs", "ext3", nullptr));
  EXPECT_EQ(1, SLIBFileSetKeyValue(dir.File("c").c_str(), "defaultfs2", "x", nullptr));
  EXPECT_EQ(1, SLIBFileSetLine(dir.File("c").c_str(), "ext3", "other", 0));
  EXPECT_EQ(-1, SLIBFileSetLine(dir.File("c").c_str(), "my_defaultfs", nullptr, 0));
  EXPECT_EQ(
      (std::vector<testing_support::SyslogRecord>{{LOG_ERR, "szKey=defaultfs, szValue=ext3"},
                                                  {LOG_ERR, "szKey=my_defaultfs, szLine=(null)"}}),
      testing_support::SyslogRecords());
}

TEST(SlibFile, GetSectionReadsTheKeysOfTheFirstMatchingSection) {
  TempDir dir;
  WriteFile(dir.File("smb.conf"),
            "top=0\n[global]\nworkgroup = WORK\n[NetBackup]  \r\npath = \"/volume1/NetBackup\"\n"
            "# comment = no\nno equals sign\n = empty key\nread only=no\npath=/volume1/second\n"
            "empty=\n[netbackup]\nlower=case\n[NetBackup]\nagain=yes\n");
  WriteFile(dir.File("last"), "[a]\nx=1\n  [b]\ny=2\n[last]\nk = v");
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBCErrSet(kNoError);
  EXPECT_EQ(4, SLIBFileGetSection(dir.File("smb.conf").c_str(), "NetBackup", &hash));
  EXPECT_EQ(kNoError, SLIBCErrGet());
  const std::pair<const char*, const char*> expected[] = {
      {"path", "/volume1/second"}, {"read only", "no"}, {"empty", ""},   {"# comment", "no"},
      {"lower", nullptr},          {"again", nullptr},  {"top", nullptr}};
  for (const auto& entry : expected) {
    EXPECT_STREQ(entry.second, SzSLIBSzHashGetValue(hash, entry.first)) << entry.first;
  }
  EXPECT_EQ(5, SLIBFileGetSection(dir.File("last").c_str(), "last", &hash));
  EXPECT_EQ(5, SLIBFileGetSection(dir.File("last").c_str(), "b", &hash));
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(hash, "x"));
  EXPECT_EQ(nullptr, SzSLIBSzHashGetValue(hash, "y"));
  EXPECT_EQ(-1, SLIBFileGetSection(dir.File("missing").c_str(), "a", &hash));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  SLIBSzHashFree(hash);
}

TEST(SlibFile, LineKeyMoveHash2FileWritesOnlyLinesWhoseKeyIsInTheHash) {
  const std::pair<const char*, const char*> cases[] = {{"K=old\n", "K=new\n"},
                                                       {"  K = old  \n", "K=new\n"},
                                                       {"#K=old\n", ""},
                                                       {"  ;K=old\n", ""},
                                                       {"\n", ""},
                                                       {"K old\n", ""},
                                                       {" =old\n", ""},
                                                       {"OTHER=1\n", ""}};
  TempDir dir;
  for (const auto& c : cases) {
    SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
    SLIBSzHashSetValue(&hash, "K", "new");
    FILE* tmp = fopen(dir.File("tmp").c_str(), "w");
    const int moved = *c.second != '\0' ? 1 : 0;
    EXPECT_EQ(moved, SLIBILineKeyMoveHash2File(tmp, c.first, hash, nullptr)) << c.first;
    fclose(tmp);
    EXPECT_EQ(c.second, ReadFile(dir.File("tmp")));
    EXPECT_STREQ(moved ? nullptr : "new", SzSLIBSzHashGetValue(hash, "K"));
    SLIBSzHashFree(hash);
  }
}

}  // namespace
