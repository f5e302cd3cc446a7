// The local user and group files, on real files of a throwaway root.
#include "sdk/velt_user.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/slib_error.h"
#include "test_support.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/sh\n"
    "anonymous:x:1030:100:Someone:/home/anonymous:/bin/sh\n"
    "admin:x:1024:100:System default user:/home/admin:/bin/sh\n";
const char kShadow[] = "root::10933:0:99999:7:::\nanonymous:$1$s$h:12000::::::\nadmin::1:::::\n";
const char kGroup[] = "root:x:0:\nftp:x:1025:nobody,bob,carol,nobody\nusers:x:100:admin,guest\n";

mode_t ModeOf(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 ? st.st_mode & 07777 : 0;
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
    SLIBCErrSet(0);
  }
};

TEST_F(VeltUser, GetLaysTheRecordOutInTheCallersBuffer) {
  std::vector<char> buffer = Fetch(VELTGroupGet, "ftp");
  EXPECT_EQ(sizeof(VELTGROUP) + 2 * sizeof(char*) + 4 + 6, buffer.size());
  const auto* group = reinterpret_cast<const VELTGROUP*>(buffer.data());
  EXPECT_STREQ("ftp", group->szName);
  EXPECT_EQ(1025, group->gid);
  ASSERT_EQ(2, group->memberCount);
  EXPECT_STREQ("bob", group->members[0]);
  EXPECT_EQ(buffer.data() + buffer.size() - 6, group->members[1]);
  EXPECT_STREQ("carol", group->members[1]);
  EXPECT_EQ(sizeof(VELTGROUP), Fetch(VELTGroupGet, "root").size());
  buffer = Fetch(VELTUserGet, "anonymous");
  EXPECT_EQ(sizeof(VELTUSER) + 8 + 16 + 8, buffer.size());
  const auto* user = reinterpret_cast<const VELTUSER*>(buffer.data());
  EXPECT_EQ("anonymous 1030 100 Someone /home/anonymous /bin/sh",
            std::string(user->szName) + " " + std::to_string(user->uid) + " " +
                std::to_string(user->gid) + " " + user->szGecos + " " + user->szHome + " " +
                user->szShell);
  WriteFile(
      VELT_PASSWD_FILE,
      "short:x:12:100:no shell\nodd:x:1x:100:::\nbig:x:1234567890:1:::\nhuge:x:12345678901:1:::\n");
  const std::pair<const char*, int> failures[] = {{"short", SLIB_ERR_READ},
                                                  {"odd", SLIB_ERR_READ},
                                                  {"huge", SLIB_ERR_READ},
                                                  {"ftp:x", SLIB_ERR_BAD_ARGUMENT},
                                                  {"ft", SLIB_ERR_NOT_FOUND}};
  for (const auto& failure : failures) {
    EXPECT_EQ(-1, VELTUserGet(failure.first, nullptr, 0));
    EXPECT_EQ(failure.second, SLIBCErrGet()) << failure.first;
  }
  EXPECT_EQ(1234567890, reinterpret_cast<VELTUSER*>(Fetch(VELTUserGet, "big").data())->uid);
}

struct GroupCase {
  const char* old_name;
  const char* name;
  int gid;
  const char* member;  // in place of the first member, when given
  const char* after;
  int result;
  int error;
};

TEST_F(VeltUser, GroupSetRewritesOnlyThatLine) {
  const GroupCase cases[] = {
      {"ftp", "ftp2", 1025, nullptr,
       "root:x:0:\nftp2:x:1025:nobody,bob,carol,nobody\nusers:x:100:admin,guest\n", 1, 0},
      {"root", "root", 7, nullptr,
       "root:x:7:nobody,nobody\nftp:x:1025:nobody,bob,carol,nobody\nusers:x:100:admin,guest\n", 1,
       0},
      {"ftp", "users", 1025, nullptr, kGroup, -1, SLIB_ERR_BAD_ARGUMENT},
      {"ftp", "root", 1025, nullptr, kGroup, -1, SLIB_ERR_BAD_ARGUMENT},
      {"nosuch", "ftp9", 1025, nullptr, kGroup, -1, SLIB_ERR_NOT_FOUND},
      {"ftp", "ftp", 1025, "a,b", kGroup, -1, SLIB_ERR_BAD_ARGUMENT},
  };
  for (const GroupCase& c : cases) {
    WriteFile(VELT_GROUP_FILE, kGroup);
    std::vector<char> buffer = Fetch(VELTGroupGet, c.member != nullptr ? "ftp" : c.old_name);
    auto* group = reinterpret_cast<VELTGROUP*>(buffer.data());
    snprintf(group->szName, sizeof group->szName, "%s", c.name);
    group->gid = c.gid;
    if (c.member != nullptr) group->members[0] = const_cast<char*>(c.member);
    SLIBCErrSet(0);
    EXPECT_EQ(c.result, VELTGroupSet(c.old_name, group)) << c.old_name << " -> " << c.name;
    EXPECT_EQ(c.error, SLIBCErrGet());
    EXPECT_EQ(c.after, ReadFile(VELT_GROUP_FILE));
    EXPECT_EQ(0640u, ModeOf(VELT_GROUP_FILE));
  }
}

struct UserCase {
  const char* old_name;
  const char* name;
  int gid;
  const char* shell;  // null: kept
  std::string passwd;
  std::string shadow;
  int result;
  int error;
};

TEST_F(VeltUser, UserSetRewritesPasswdAndRenamesTheShadowLine) {
  const std::string renamed = std::string(kPasswd).replace(30, 9, "anonymous1");
  const UserCase cases[] = {
      {"anonymous", "anonymous1", 100, nullptr, renamed,
       std::string(kShadow).replace(25, 9, "anonymous1"), 1, 0},
      {"admin", "admin", 101, "/sbin/nologin",
       std::string(kPasswd).replace(std::string(kPasswd).rfind(":100:"), std::string::npos,
                                    ":101:System default user:/home/admin:/sbin/nologin\n"),
       kShadow, 1, 0},
      {"anonymous", "admin", 100, nullptr, kPasswd, kShadow, -1, SLIB_ERR_BAD_ARGUMENT},
      {"anonymous", "root", 100, nullptr, kPasswd, kShadow, -1, SLIB_ERR_BAD_ARGUMENT},
      {"anonymous", "anon", 100, "/bin/a:b", kPasswd, kShadow, -1, SLIB_ERR_BAD_ARGUMENT},
      {"nosuch", "anon", 100, nullptr, kPasswd, kShadow, -1, SLIB_ERR_NOT_FOUND},
  };
  for (const UserCase& c : cases) {
    WriteFile(VELT_PASSWD_FILE, kPasswd);
    WriteFile(VELT_SHADOW_FILE, kShadow);
    VELTUSER change = {};
    snprintf(change.szName, sizeof change.szName, "%s", c.name);
    change.uid = c.old_name[1] == 'd' ? 1024 : 1030;
    change.gid = c.gid;
    change.szShell = const_cast<char*>(c.shell);
    SLIBCErrSet(0);
    EXPECT_EQ(c.result, VELTUserSet(c.old_name, &change)) << c.old_name << " -> " << c.name;
    EXPECT_EQ(c.error, SLIBCErrGet());
    EXPECT_EQ(c.passwd, ReadFile(VELT_PASSWD_FILE));
    EXPECT_EQ(c.shadow, ReadFile(VELT_SHADOW_FILE));
    EXPECT_EQ(0640u, ModeOf(VELT_SHADOW_FILE));
  }
  WriteFile(VELT_PASSWD_FILE, renamed);
  EXPECT_EQ(nullptr, getpwnam("anonymous"));  // the system's own look-up agrees
  ASSERT_NE(nullptr, getpwnam("anonymous1"));
  EXPECT_EQ(1030u, getpwnam("anonymous1")->pw_uid);
}

TEST_F(VeltUser, FailedOrLockedRewritesLeaveTheFilesAlone) {
  VELTUSER change = {"anon", 1030, 100, nullptr, nullptr, nullptr};
  ASSERT_EQ(0, mkdir(VELT_SHADOW_FILE ".tmp", 0755));
  EXPECT_EQ(-1, VELTUserSet("anonymous", &change));
  EXPECT_EQ(SLIB_ERR_OPEN, SLIBCErrGet());
  EXPECT_EQ(kPasswd, ReadFile(VELT_PASSWD_FILE));
  EXPECT_FALSE(testing_support::FileExists(VELT_PASSWD_FILE ".tmp"));
  WriteFile(VELT_SHADOW_FILE, "root::1:::::\n");  // no line of the user: left alone
  rmdir(VELT_SHADOW_FILE ".tmp");
  EXPECT_EQ(1, VELTUserSet("anonymous", &change));
  EXPECT_EQ("root::1:::::\n", ReadFile(VELT_SHADOW_FILE));

  mkdir("/tmp/lock", 0755);
  const int other = open("/tmp/lock/lock_gr", O_RDONLY | O_CREAT, 0644);
  ASSERT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  std::vector<char> buffer = Fetch(VELTGroupGet, "ftp");
  testing_support::PauseRecorder recorder;
  EXPECT_EQ(-1, VELTGroupSet("ftp", reinterpret_cast<VELTGROUP*>(buffer.data())));
  EXPECT_EQ(SLIB_ERR_LOCK, SLIBCErrGet());
  EXPECT_EQ(101u, recorder.pauses.size());  // five seconds of 50 ms tries
  close(other);
  EXPECT_EQ(1, VELTGroupSet("ftp", reinterpret_cast<VELTGROUP*>(buffer.data())));
}

}  // namespace
