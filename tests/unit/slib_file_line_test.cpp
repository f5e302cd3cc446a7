// The line writers share the writer table of slib_file_test.cpp.
#include "lib/slib_file_line.h"

#include "lib/slib_file.h"
#include "test_support.h"

namespace {

constexpr int kAll = SLIB_FILE_MATCH_ALL, kPrefix = SLIB_FILE_MATCH_PREFIX;
constexpr int kSuffix = SLIB_FILE_MATCH_SUFFIX, kNoCase = SLIB_FILE_MATCH_NOCASE;

TEST(SlibFileLine, LineMatchFollowsTheFlagTable) {
  // {line, text, flags, match}
  const std::tuple<const char*, const char*, int, int> cases[] = {
      {"lock file = /x\n", "lock file =", 0, 1},
      {"pid file = x\n", "lock file =", 0, 0},
      {"\n", "", 0, 1},
      {"#lock file =\n", "lock file =", 0, 0},
      {";lock file\n", "lock", 0, 0},
      {" #no comment\n", "comment", 0, 1},
      {"Use Chroot\n", "use chroot", 0, 0},
      {"xabc\n", "abc", kAll | OP_FIND_PREFIX, 1},
      {"ftp:x:21:\n", "ftp:", kPrefix, 1},
      {"sftp:x:21:\n", "ftp:", kPrefix, 0},
      {"users = ftp\n", "ftp", kSuffix, 1},
      {"users = ftp \n", "ftp", kSuffix, 0},
      {"users = ftp", "ftp", kSuffix, 0},
      {"tp\n", "ftp", kSuffix, 0},
      {"abc-xyz\n", "abc", kPrefix | kSuffix, 1},
      {"xyz-abc\n", "abc", kPrefix | kSuffix, 0},
      {"Use Chroot\n", "use chroot", kNoCase, 1},
      {"x LOCK\n", "lock", kPrefix | kNoCase, 0},
      {"name=ABC\n", "abc", kSuffix | kNoCase, 1},
      {"straße\n", "STRASSE", kNoCase, 1},
      {"#ABC\n", "abc", kNoCase, 0},
      {"\xff abc\n", "abc", kNoCase, 0},
      {"\xff abc\n", "abc", 0, 1},
      {nullptr, "a", 0, 0},
      {"a\n", nullptr, 0, 0},
      {"a\n", "a", -1, 0}};
  for (const auto& c : cases) {
    SLIBCErrSet(0);
    EXPECT_EQ(
        std::make_pair(std::get<3>(c), 0),
        testing_support::WithError(SLIBILineMatch(std::get<0>(c), std::get<1>(c), std::get<2>(c))))
        << (std::get<0>(c) ? std::get<0>(c) : "-") << " / " << std::get<2>(c);
  }
}

TEST(SlibFileLine, GetLineCopiesTheMatchingLineCutToTheBuffer) {
  // {text, flags, size, result, buffer afterwards, error}
  const std::tuple<const char*, int, int, int, const char*, int> cases[] = {
      {"lock file =", 0, 64, 17, "lock file = /one", 0},
      {"lock file =", kAll, 64, 17, "lock file = /two", 0},
      {"log file", kNoCase, 64, 14, "Log File = /l", 0},
      {"root", kSuffix, 64, 11, "uid = root", 0},
      {"", 0, 64, 1, "", 0},
      {"uid", 0, 8, 8, "uid = r", 0},
      {"uid", 0, 1, 1, "", 0},
      {"chroot", 0, 64, 0, "@", SLIB_ERR_NOT_FOUND},
      {"uid", 0, 0, -1, "@", SLIB_ERR_BAD_ARGUMENT}};
  testing_support::TempDir dir;
  const std::string path = dir.File("rsyncd.conf");
  testing_support::WriteFile(
      path, "# chroot\n\nuid = root\nlock file = /one\nLog File = /l\nlock file = /two");
  for (const auto& c : cases) {
    char buffer[64] = "@";
    SLIBCErrSet(0);
    EXPECT_EQ(std::make_pair(std::get<3>(c), std::get<5>(c)),
              testing_support::WithError(SLIBFileGetLine(path.c_str(), std::get<0>(c), buffer,
                                                         std::get<2>(c), std::get<1>(c))))
        << std::get<0>(c) << " / " << std::get<2>(c);
    EXPECT_STREQ(std::get<4>(c), buffer);
  }
  const std::string line = "needle " + testing_support::LongText(20000, 'a');
  testing_support::WriteFile(path, testing_support::LongText(9000, 'A') + "\n" + line + "\n");
  std::vector<char> big(30000);
  EXPECT_EQ(20008, SLIBFileGetLine(path.c_str(), "needle", big.data(), 30000, kPrefix));
  EXPECT_EQ(line, big.data());
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_READ),
            testing_support::WithError(SLIBFileGetLine(dir.path().c_str(), "a", big.data(), 8, 0)));
}

}  // namespace
