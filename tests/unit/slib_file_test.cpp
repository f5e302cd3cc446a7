// Key/value files, and the line writers of lib/slib_file_line.h with them.
#include "lib/slib_file.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include "lib/slib_file_line.h"
#include "test_support.h"

namespace {

using testing_support::Failure;
using testing_support::FileExists;
using testing_support::InOrder;
using testing_support::LongText;
using testing_support::ReadFile;
using testing_support::SyslogRecords;
using testing_support::WithError;
using testing_support::WriteFile;

constexpr int kOk = 0x7777;  // no call sets it: shows that a success leaves the code alone

// {file (null: none), key, flags, size, result, the buffer afterwards, error}
struct GetCase {
  const char *content, *key;
  int flags, size, result;
  const char* value;
  int error;
};

TEST(SlibFile, GetKeyValueFollowsTheLineRules) {
  const GetCase cases[] = {
      {"A=1\nKEY = \"a b\" \n", "KEY", 0, 64, 4, "a b", kOk},
      {"\t\"KEY\"\t=\tv=w\r\n", "KEY", 0, 64, 4, "v=w", kOk},
      {"KEY=\"\"\n", "KEY", 0, 64, 1, "", kOk},
      {"KEY=\"\n", "KEY", 0, 64, 2, "\"", kOk},
      {"A=1\nKEY=end", "KEY", 0, 64, 4, "end", kOk},
      {"KEY=first\nKEY=second\n", "KEY", 0, 64, 6, "first", kOk},
      {"KEY=first\nKEY=second\n#KEY=c\n", "KEY", SLIB_FILE_MATCH_ALL, 64, 7, "second", kOk},
      {"#KEY=c\n;KEY=d\nkey=e\nKEYS=f\nKEY g\nA=KEY=h\n", "KEY", 0, 64, 0, "@", 0x2000},
      {"KEY\nKEY=v\n", "KEY", 0, 64, 0, "@", kOk},  // a bare key matches without a value
      {"KEY=v\nKEY\n", "KEY", SLIB_FILE_MATCH_ALL, 64, 2, "v", kOk},
      {"KEY=12345678\n", "KEY", 0, 9, 9, "12345678", kOk},
      {"KEY=12345678\n", "KEY", 0, 8, -1, "@", SLIB_ERR_BUFFER_TOO_SMALL},
      {"KEY=ok\nKEY=too long\n", "KEY", SLIB_FILE_MATCH_ALL, 8, -1, "ok", 0x100},
      {"KEY=v\n", "KEY", 0, 0, -1, "@", SLIB_ERR_BUFFER_TOO_SMALL},  // probes with no buffer
      {"KEY=v\n", "OTHER", 0, 0, 0, "@", SLIB_ERR_NOT_FOUND},
      {"KEY=v\n", "KEY", 0, -1, -1, "@", SLIB_ERR_BAD_ARGUMENT},
      {"KEY=v\n", "KEY", -1, 64, -1, "@", SLIB_ERR_BAD_ARGUMENT},
      {nullptr, "KEY", 0, 64, -1, "@", SLIB_ERR_OPEN}};
  testing_support::TempDir dir;
  const std::string path = dir.File("conf");
  for (const GetCase& c : cases) {
    unlink(path.c_str());
    if (c.content != nullptr) WriteFile(path, c.content);
    char buffer[64] = "@";
    SLIBCErrSet(kOk);
    EXPECT_EQ(std::make_pair(c.result, c.error),
              WithError(SLIBFileGetKeyValue(path.c_str(), c.key, c.size ? buffer : nullptr, c.size,
                                            c.flags)))
        << &c - cases;
    EXPECT_STREQ(c.value, buffer);
  }
  const std::string value = LongText(20000, 'a');
  WriteFile(path, "PAD=" + LongText(9000, 'A') + "\nKEY=" + value + "\n");
  std::vector<char> big(value.size() + 1);
  EXPECT_EQ(20001, SLIBFileGetKeyValue(path.c_str(), "KEY", big.data(), 20001, 0));
  EXPECT_EQ(value, big.data());
  EXPECT_EQ(Failure(SLIB_ERR_READ),
            WithError(SLIBFileGetKeyValue(dir.path().c_str(), "KEY", big.data(), 8, 0)));
}

enum Call { kSetKey, kSetQuotedForm, kSetQuoted, kSetKeys, kSetKeysQuoted, kSetLine, kAddLine };

// {file before (null: none), call, key or search text, value or new line, flags, file after,
//  result, error}
struct WriteCase {
  const char* before;
  Call call;
  const char *text, *value;
  int flags;
  const char* after;
  int result, error;
};

int Apply(const WriteCase& c, const char* path) {
  const char* quoted =
      c.call == kSetQuotedForm || c.call == kSetKeysQuoted ? "%s=\"%s\"\n" : nullptr;
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  if ((c.call == kSetKeys || c.call == kSetKeysQuoted) && c.value != nullptr)
    SLIBSzHashSetValue(&hash, c.text, c.value);
  const int result = c.call == kSetKey || c.call == kSetQuotedForm
                         ? SLIBFileSetKeyValue(path, c.text, c.value, quoted)
                     : c.call == kSetQuoted ? SLIBFileSetQuotedKeyValue(path, c.text, c.value)
                     : c.call == kSetLine   ? SLIBFileSetLine(path, c.text, c.value, c.flags)
                     : c.call == kAddLine   ? SLIBFileAddLine(path, c.text, c.value, c.flags)
                                            : SLIBFileSetKeys(path, hash, quoted);
  SLIBSzHashFree(hash);
  return result;
}

constexpr int kAll = SLIB_FILE_MATCH_ALL, kAfter = OP_FIND_PREFIX;
const char kConf[] = "# c\n\nA = \"1\"\r\nK = \"old\"\n;K=c\nB=2";
const char kLines[] = "r:0\nf:1\nu:2\nf:3\n";
const char kShares[] = "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=4";

TEST(SlibFile, WritersChangeExactlyWhatTheySay) {
  const WriteCase cases[] = {
      {kConf, kSetKey, "K", "new", 0, "# c\n\nA = \"1\"\r\nK=new\n;K=c\nB=2", 1, kOk},
      {"A=1\n#N=0\nB=2", kSetKey, "N", "2", 0, "A=1\n#N=0\nB=2\nN=2\n", 1, kOk},
      {"A=1\nB=2", kSetKey, "B", "9", 0, "A=1\nB=9\n", 1, kOk},
      {"K=1\nA=x\n K =2\n#K=3\nK=4\n", kSetKey, "K", "9", 0, "K=9\nA=x\n#K=3\n", 1, kOk},
      {"A=x\nK\nK=4\n", kSetKey, "K", "9", 0, "A=x\nK=9\n", 1, kOk},
      {nullptr, kSetQuotedForm, "K", "v", 0, "K=\"v\"\n", 1, kOk},
      {"K=old\nA=1\n", kSetQuotedForm, "K", "new", 0, "K=old\n=\"new\"\nA=1\n", 1, kOk},
      {"A=1\n", kSetKey, "A", nullptr, 0, "A=1\n", -1, SLIB_ERR_BAD_ARGUMENT},
      {"M=\"9000\"\nB=2\nM=\"4074\"\n", kSetQuoted, "M", "80", 0, "M=\"80\"\nB=2\n", 1, kOk},
      {"A=\"1\"\n", kSetQuoted, "C", "new value", 0, "A=\"1\"\nC=\"new value\"\n", 1, kOk},
      {nullptr, kSetQuoted, "M", "1500", 0, "M=\"1500\"\n", 1, kOk},
      {"# B=c\nA=1\n B = \"2\"\n\nB=dup", kSetKeys, "B", "20", 0, "# B=c\nA=1\nB=20\n\nB=dup", 1,
       kOk},
      {"A=1\nC=3", kSetKeysQuoted, "D", "x y", 0, "A=1\nC=3\nD=\"x y\"\n", 1, kOk},
      {"A=1\n;x\n", kSetKeys, "", nullptr, 0, "A=1\n;x\n", 1, kOk},
      {nullptr, kSetKeys, "D", "4", 0, nullptr, -1, SLIB_ERR_OPEN},
      {kShares, kSetLine, "x=", "x=new", 0, "a=1\n#x=0\nx=new\nb=2\nx=3\nc=4", 1, kOk},
      {kShares, kSetLine, "x=", "x=new", kAll, "a=1\n#x=0\nx=1\r\nb=2\nx=new\nc=4", 1, kOk},
      {kShares, kSetLine, "b=", nullptr, 0, "a=1\n#x=0\nx=1\r\nx=3\nc=4", 1, kOk},
      {kShares, kSetLine, "c", "c=5", 2, "a=1\n#x=0\nx=1\r\nb=2\nx=3\nc=5\n", 1, kOk},
      {kShares, kSetLine, "=3", "x=33", 4, "a=1\n#x=0\nx=1\r\nb=2\nx=33\nc=4", 1, kOk},
      {kShares, kSetLine, "x=0", "x=new", 0, kShares, -1, SLIB_ERR_NOT_FOUND},
      {nullptr, kSetLine, "x=", "x=1", 0, "x=1\n", 1, kOk},
      {kLines, kAddLine, nullptr, "N", 0, "N\nr:0\nf:1\nu:2\nf:3\n", 1, kOk},
      {"A=1\nB=2", kAddLine, nullptr, "N", kAfter, "A=1\nB=2\nN\n", 1, kOk},
      {kLines, kAddLine, "f:", "N", 0, "r:0\nN\nf:1\nu:2\nf:3\n", 1, kOk},
      {kLines, kAddLine, "f:", "N", kAfter, "r:0\nf:1\nN\nu:2\nf:3\n", 1, kOk},
      {kLines, kAddLine, "f:", "N", kAll, "r:0\nf:1\nu:2\nN\nf:3\n", 1, kOk},
      {"A=1\nB=2", kAddLine, "B=", "N", kAll | kAfter, "A=1\nB=2\nN\n", 1, kOk},
      {kLines, kAddLine, "U", "N", kAfter | 2 | 0x400, "r:0\nf:1\nu:2\nN\nf:3\n", 1, kOk},
      {kLines, kAddLine, "x:", "N", 0, kLines, -1, SLIB_ERR_NOT_FOUND},
      {nullptr, kAddLine, "x", "N", 0, "N\n", 1, kOk}};
  testing_support::TempDir dir;
  const std::string path = dir.File("conf");
  for (const WriteCase& c : cases) {
    unlink(path.c_str());
    if (c.before != nullptr) WriteFile(path, c.before);
    SLIBCErrSet(kOk);
    EXPECT_EQ(std::make_pair(c.result, c.error), WithError(Apply(c, path.c_str()))) << &c - cases;
    EXPECT_EQ(c.after != nullptr ? c.after : "<missing>", ReadFile(path));
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
  WriteFile(path, "log line");
  EXPECT_EQ(
      0, InOrder({SLIBFileAppendLine(path.c_str(), "next"), SLIBFileAppendLine(path.c_str(), "")}));
  EXPECT_EQ("log line\nnext\n\n", ReadFile(path));
  EXPECT_EQ(0, SLIBFileTruncate(path.c_str()));
  EXPECT_EQ("", ReadFile(path));
}

TEST(SlibFile, RewritesCopyLongLinesWholeAndKeepModeAndOwner) {
  testing_support::TempDir dir;
  const std::string path = dir.File("conf"), tail = "T=" + LongText(30000, 'A') + "\n";
  WriteFile(path, "P=" + LongText(12000, 'a') + "\nK=" + LongText(9000, 'k') + "\n" + tail);
  ASSERT_EQ(0, chmod(path.c_str(), 0600) + chown(path.c_str(), 1234, 5678));
  const mode_t old_mask = umask(022);
  const std::string value = LongText(17000, 'v');
  EXPECT_EQ(3, SLIBFileSetKeyValue(path.c_str(), "K", value.c_str(), nullptr) +
                   SLIBFileAddLine(path.c_str(), "T=", "X", 0) +
                   SLIBFileSetLine(path.c_str(), "P=", "P", 0));
  umask(old_mask);
  EXPECT_EQ("P\nK=" + value + "\nX\n" + tail, ReadFile(path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(std::make_tuple(0600u, 1234u, 5678u),
            std::make_tuple(st.st_mode & 07777, st.st_uid, st.st_gid));
}

TEST(SlibFile, FailedRewritesLeaveTheFileAlone) {
  const std::string why = testing_support::EnterPrivateTmp();
  if (!why.empty()) GTEST_SKIP() << why;
  mkdir("/tmp/tiny", 0755);
  ASSERT_EQ(0, mount("tmpfs", "/tmp/tiny", "tmpfs", 0, "size=64k"));  // fills up quickly
  const std::string content = "A=1\nKEY=old\nPAD=" + LongText(40000, 'a') + "\n";
  WriteFile("/tmp/tiny/conf", content);
  EXPECT_EQ(Failure(SLIB_ERR_WRITE),
            WithError(SLIBFileSetKeyValue("/tmp/tiny/conf", "KEY", "new", nullptr)));
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBSzHashSetValue(&hash, "KEY", LongText(60000, 'b').c_str());
  SyslogRecords().clear();
  EXPECT_EQ(-1, SLIBFileSetKeys("/tmp/tiny/conf", hash, nullptr));
  SLIBSzHashFree(hash);
  EXPECT_EQ(content, ReadFile("/tmp/tiny/conf"));
  EXPECT_FALSE(FileExists("/tmp/tiny/conf.tmp"));
  EXPECT_EQ(
      "SLIBFileSetKeys(): \t\t\t\t   SLIBILineKeyMoveHash2File(pfTmp, szBuf, pHash, "
      "szFormat) failed! \t\t\t\t   szBuf=KEY=old\n, szFormat=(null)",
      SyslogRecords().at(0).second);
  umount2("/tmp/tiny", MNT_DETACH);
  WriteFile("/tmp/conf", "A=1\n");
  ASSERT_EQ(0, mkdir("/tmp/conf.tmp", 0755));
  EXPECT_EQ(Failure(SLIB_ERR_OPEN),
            WithError(SLIBFileSetKeyValue("/tmp/conf", "KEY", "new", nullptr)));
  EXPECT_EQ(-2, SLIBFileAddLine("/tmp/conf", nullptr, "X", 0) +
                    SLIBFileSetLine("/tmp/conf", "A", "X", 0));
  EXPECT_EQ("A=1\n", ReadFile("/tmp/conf"));
  EXPECT_EQ(Failure(SLIB_ERR_BAD_ARGUMENT),
            WithError(SLIBFileSetKeyValue("/tmp", "KEY", "v", nullptr)));
}

TEST(SlibFile, GetSectionReadsTheKeysOfTheFirstMatchingSection) {
  testing_support::TempDir dir;
  WriteFile(dir.File("smb.conf"),
            "top=0\n[NetBackup]  \r\npath = \"/v/a\"\n# c = no\nno equals\n = empty key\n"
            "read only=no\npath=/v/b\nempty=\n[netbackup]\nlower=1\n  [b]\nb=2\n[NetBackup]\nx=1");
  SLIBSZHASH* hash = PshSLIBSzHashAlloc(512);
  SLIBCErrSet(kOk);
  EXPECT_EQ(std::make_pair(4, kOk),
            WithError(SLIBFileGetSection(dir.File("smb.conf").c_str(), "NetBackup", &hash)));
  EXPECT_EQ(4, SLIBFileGetSection(dir.File("smb.conf").c_str(), "b", &hash));
  std::string entries;
  for (const char* key : {"path", "read only", "empty", "# c", "lower", "b", "x", "top"}) {
    const char* value = SzSLIBSzHashGetValue(hash, key);
    entries += std::string(key) + "=" + (value ? value : "-") + ";";
  }
  EXPECT_EQ("path=/v/b;read only=no;empty=;# c=no;lower=-;b=-;x=-;top=-;", entries);
  EXPECT_EQ(Failure(SLIB_ERR_OPEN),
            WithError(SLIBFileGetSection(dir.File("missing").c_str(), "a", &hash)));
  SLIBSzHashFree(hash);
}

}  // namespace
