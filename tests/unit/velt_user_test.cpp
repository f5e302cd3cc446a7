// The local user and group files, on real files of a throwaway root.
#include "sdk/velt_user.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "test_support.h"

namespace {

using testing_support::InOrder;
using testing_support::ReadFile;
using testing_support::WithError;
using testing_support::WriteFile;

const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/sh\nanonymous:x:1030:100:Someone:/home/anonymous:/bin/sh\n"
    "admin:x:1024:100:System default user:/home/admin:/bin/sh\n";
const char kShadow[] = "root::10933:0:99999:7:::\nanonymous:$1$s$h:12000::::::\nadmin::1:::::\n";
const char kGroup[] = "root:x:0:\nftp:x:1025:nobody,bob,carol,nobody\nusers:x:100:admin,guest\n";

// `file` with the line of `name` replaced by `line` (and its newline).
std::string WithLine(const std::string& file, const std::string& name, const std::string& line) {
  const size_t at = file.rfind(name + ":", 0) == 0 ? 0 : file.find("\n" + name + ":") + 1;
  return file.substr(0, at) + line + file.substr(file.find('\n', at));
}

// The record of `name` fetched with the two calls (sizing, then filling).
template <typename Record>
std::vector<char> Fetch(int (*get)(const char*, Record*, int), const char* name) {
  const int size = get(name, nullptr, 0);
  std::vector<char> buffer(size > 0 ? size : sizeof(Record));
  if (size <= 0) return buffer;
  EXPECT_EQ(-1, get(name, reinterpret_cast<Record*>(buffer.data()), size - 1));
  EXPECT_EQ(size, get(name, reinterpret_cast<Record*>(buffer.data()), size));
  return buffer;
}

class VeltUser : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    for (const auto& file :
         {std::make_pair(VELT_PASSWD_FILE, kPasswd), std::make_pair(VELT_SHADOW_FILE, kShadow),
          std::make_pair(VELT_GROUP_FILE, kGroup)}) {
      rmdir((std::string(file.first) + ".tmp").c_str());
      WriteFile(file.first, file.second);
      chmod(file.first, 0640);
    }
  }
};

TEST_F(VeltUser, GetLaysTheRecordOutInTheCallersBuffer) {
  std::vector<char> buffer = Fetch(VELTGroupGet, "ftp");
  EXPECT_EQ(sizeof(VELTGROUP) + 2 * sizeof(char*) + 4 + 6, buffer.size());
  const auto* group = reinterpret_cast<const VELTGROUP*>(buffer.data());
  EXPECT_EQ("ftp 1025 2 bob carol", std::string(group->szName) + " " + std::to_string(group->gid) +
                                        " " + std::to_string(group->memberCount) + " " +
                                        group->members[0] + " " + group->members[1]);
  EXPECT_EQ(buffer.data() + buffer.size() - 6, group->members[1]);
  buffer = Fetch(VELTUserGet, "anonymous");
  EXPECT_EQ(sizeof(VELTUSER) + 8 + 16 + 8, buffer.size());
  const auto* user = reinterpret_cast<const VELTUSER*>(buffer.data());
  EXPECT_EQ("anonymous 1030 100 Someone /home/anonymous /bin/sh",
            std::string(user->szName) + " " + std::to_string(user->uid) + " " +
                std::to_string(user->gid) + " " + user->szGecos + " " + user->szHome + " " +
                user->szShell);
  WriteFile(VELT_PASSWD_FILE,
            "short:x:12:100:no shell\nodd:x:1x:100:::\nbig:x:1234567890:1:::\n"
            "huge:x:12345678901:1:::\n");
  std::string outcomes;
  for (const char* name : {"short", "odd", "huge", "ftp:x", "ft"}) {
    outcomes += testing_support::Outcome(VELTUserGet(name, nullptr, 0)) + " ";
  }
  EXPECT_EQ("-1/A00 -1/A00 -1/A00 -1/D00 -1/2000 ", outcomes);
  EXPECT_EQ(1234567890, reinterpret_cast<VELTUSER*>(Fetch(VELTUserGet, "big").data())->uid);
}

TEST_F(VeltUser, GroupSetRewritesOnlyThatLine) {
  const std::tuple<const char*, const char*, int, const char*, const char*, int> cases[] = {
      // {old name, new name, gid, first member, new line, error}
      {"ftp", "ftp2", 1025, "bob", "ftp2:x:1025:nobody,bob,carol,nobody", 0},
      {"root", "root", 7, nullptr, "root:x:7:nobody,nobody", 0},
      {"ftp", "root", 1, "bob", nullptr, SLIB_ERR_BAD_ARGUMENT},
      {"nosuch", "ftp9", 1, nullptr, nullptr, SLIB_ERR_NOT_FOUND},
      {"ftp", "ftp", 1, "a,b", nullptr, SLIB_ERR_BAD_ARGUMENT}};
  for (const auto& c : cases) {
    WriteFile(VELT_GROUP_FILE, kGroup);
    std::vector<char> buffer = Fetch(VELTGroupGet, std::get<3>(c) ? "ftp" : std::get<0>(c));
    auto* group = reinterpret_cast<VELTGROUP*>(buffer.data());
    snprintf(group->szName, sizeof group->szName, "%s", std::get<1>(c));
    group->gid = std::get<2>(c);
    if (std::get<3>(c) != nullptr) group->members[0] = const_cast<char*>(std::get<3>(c));
    const bool ok = std::get<4>(c) != nullptr;
    SLIBCErrSet(0);
    EXPECT_EQ(std::make_pair(ok ? 1 : -1, std::get<5>(c)),
              WithError(VELTGroupSet(std::get<0>(c), group)));
    EXPECT_EQ(ok ? WithLine(kGroup, std::get<0>(c), std::get<4>(c)) : kGroup,
              ReadFile(VELT_GROUP_FILE));
  }
}

TEST_F(VeltUser, UserSetRewritesPasswdAndRenamesTheShadowLine) {
  const std::tuple<const char*, const char*, const char*, const char*, const char*, int> cases[] = {
      // {old name, new name, shell, new passwd line, new shadow line, error}
      {"anonymous", "anonymous1", nullptr, "anonymous1:x:1030:100:Someone:/home/anonymous:/bin/sh",
       "anonymous1:$1$s$h:12000::::::", 0},
      {"admin", "admin", "/sbin/nologin",
       "admin:x:1030:100:System default user:/home/admin:/sbin/nologin", nullptr, 0},
      {"anonymous", "root", nullptr, nullptr, nullptr, SLIB_ERR_BAD_ARGUMENT},
      {"anonymous", "anon", "/bin/a:b", nullptr, nullptr, SLIB_ERR_BAD_ARGUMENT},
      {"nosuch", "anon", nullptr, nullptr, nullptr, SLIB_ERR_NOT_FOUND}};
  for (const auto& c : cases) {
    WriteFile(VELT_SHADOW_FILE, kShadow);
    WriteFile(VELT_PASSWD_FILE, kPasswd);
    VELTUSER change = {"", 1030, 100, nullptr, nullptr, const_cast<char*>(std::get<2>(c))};
    snprintf(change.szName, sizeof change.szName, "%s", std::get<1>(c));
    const char* line = std::get<3>(c);
    SLIBCErrSet(0);
    EXPECT_EQ(std::make_pair(line ? 1 : -1, std::get<5>(c)),
              WithError(VELTUserSet(std::get<0>(c), &change)));
    EXPECT_EQ(line ? WithLine(kPasswd, std::get<0>(c), line) : kPasswd, ReadFile(VELT_PASSWD_FILE));
    EXPECT_EQ(std::get<4>(c) ? WithLine(kShadow, std::get<0>(c), std::get<4>(c)) : kShadow,
              ReadFile(VELT_SHADOW_FILE));
    struct stat st;
    EXPECT_EQ(0100640u, stat(VELT_SHADOW_FILE, &st) == 0 ? st.st_mode : 0);
  }
}

TEST_F(VeltUser, FailedOrLockedRewritesLeaveTheFilesAlone) {
  VELTUSER change = {"anon", 1030, 100, nullptr, nullptr, nullptr};
  ASSERT_EQ(0, mkdir(VELT_SHADOW_FILE ".tmp", 0755));
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_OPEN), WithError(VELTUserSet("anonymous", &change)));
  EXPECT_EQ(kPasswd, ReadFile(VELT_PASSWD_FILE));
  EXPECT_FALSE(testing_support::FileExists(VELT_PASSWD_FILE ".tmp"));
  WriteFile(VELT_SHADOW_FILE, "root::1:::::\n");  // no line of the user: left alone
  EXPECT_EQ(1, InOrder({rmdir(VELT_SHADOW_FILE ".tmp"), VELTUserSet("anonymous", &change)}));
  EXPECT_EQ("root::1:::::\n", ReadFile(VELT_SHADOW_FILE));
  EXPECT_EQ(nullptr, getpwnam("anonymous"));  // the system's own look-up agrees
  EXPECT_EQ(1030u, getpwnam("anon") ? getpwnam("anon")->pw_uid : 0);
  mkdir("/tmp/lock", 0755);
  const int other = open("/tmp/lock/lock_gr", O_RDONLY | O_CREAT, 0644);
  ASSERT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  std::vector<char> buffer = Fetch(VELTGroupGet, "ftp");
  testing_support::PauseRecorder recorder;
  EXPECT_EQ(testing_support::Failure(SLIB_ERR_LOCK),
            WithError(VELTGroupSet("ftp", reinterpret_cast<VELTGROUP*>(buffer.data()))));
  EXPECT_EQ(101u, recorder.pauses.size());  // five seconds of 50 ms tries
  close(other);
  EXPECT_EQ(1, VELTGroupSet("ftp", reinterpret_cast<VELTGROUP*>(buffer.data())));
}

}  // namespace
