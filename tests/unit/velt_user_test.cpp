// The local user and group files, on real files of a throwaway root.
#include "sdk/velt_user.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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
const char kShadow[] =
    "root::10933:0:99999:7:::\n"
    "anonymous:$1$salt$hash:12000:0:99999:7:::\n"
    "admin::10933:0:99999:7:::\n";
const char kGroup[] =
    "root:x:0:\n"
    "ftp:x:1025:nobody,bob,carol,nobody\n"
    "users:x:100:admin,guest\n";

mode_t ModeOf(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

class VeltUserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = testing_support::EnterThrowawayRoot();
    if (!why.empty()) GTEST_SKIP() << why;
    WriteFile(VELT_PASSWD_FILE, kPasswd);
    WriteFile(VELT_SHADOW_FILE, kShadow);
    WriteFile(VELT_GROUP_FILE, kGroup);
    ASSERT_EQ(0, chmod(VELT_PASSWD_FILE, 0644));
    ASSERT_EQ(0, chmod(VELT_SHADOW_FILE, 0600));
    ASSERT_EQ(0, chmod(VELT_GROUP_FILE, 0644));
    SLIBCErrSet(0);
  }

  void TearDown() override {
    unlink(VELT_GROUP_FILE ".tmp");
    rmdir(VELT_GROUP_FILE ".tmp");
    rmdir(VELT_SHADOW_FILE ".tmp");
  }

  // The group record of `name`, fetched with the two calls.
  std::vector<char> FetchGroup(const char* name) {
    const int size = VELTGroupGet(name, nullptr, 0);
    EXPECT_GT(size, 0);
    if (size <= 0) return {};
    std::vector<char> buffer(size);
    EXPECT_EQ(size, VELTGroupGet(name, reinterpret_cast<VELTGROUP*>(buffer.data()), size));
    return buffer;
  }

  std::vector<char> FetchUser(const char* name) {
    const int size = VELTUserGet(name, nullptr, 0);
    EXPECT_GT(size, 0);
    if (size <= 0) return {};
    std::vector<char> buffer(size);
    EXPECT_EQ(size, VELTUserGet(name, reinterpret_cast<VELTUSER*>(buffer.data()), size));
    return buffer;
  }
};

// ------------------------------------------------------------ groups

TEST_F(VeltUserTest, GroupGetSizesThenFillsRecordWithoutPlaceholderMembers) {
  const int size = VELTGroupGet("ftp", nullptr, 0);
  // The record, two member pointers, "bob" and "carol" with their NULs.
  EXPECT_EQ(size, static_cast<int>(sizeof(VELTGROUP) + 2 * sizeof(char*) + 4 + 6));

  std::vector<char> buffer = FetchGroup("ftp");
  ASSERT_FALSE(buffer.empty());
  const VELTGROUP* group = reinterpret_cast<const VELTGROUP*>(buffer.data());
  EXPECT_STREQ(group->szName, "ftp");
  EXPECT_EQ(group->gid, 1025);
  ASSERT_EQ(group->memberCount, 2);
  EXPECT_STREQ(group->members[0], "bob");
  EXPECT_STREQ(group->members[1], "carol");
  // Everything lies inside the caller's buffer.
  EXPECT_GE(group->members[1], buffer.data());
  EXPECT_LE(group->members[1] + 6, buffer.data() + buffer.size());
}

TEST_F(VeltUserTest, GroupGetOfGroupWithoutMembersHasNone) {
  std::vector<char> buffer = FetchGroup("root");
  ASSERT_EQ(buffer.size(), sizeof(VELTGROUP));
  const VELTGROUP* group = reinterpret_cast<const VELTGROUP*>(buffer.data());
  EXPECT_STREQ(group->szName, "root");
  EXPECT_EQ(group->gid, 0);
  EXPECT_EQ(group->memberCount, 0);
  EXPECT_EQ(group->members, nullptr);
}

TEST_F(VeltUserTest, GroupGetRefusesSmallBufferUnknownGroupAndBadName) {
  const int size = VELTGroupGet("ftp", nullptr, 0);
  ASSERT_GT(size, 0);
  std::vector<char> buffer(size);
  EXPECT_EQ(-1, VELTGroupGet("ftp", reinterpret_cast<VELTGROUP*>(buffer.data()), size - 1));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(-1, VELTGroupGet("nosuch", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_NOT_FOUND);
  // "ftp:x" is a name no group can have; a prefix of a line is not its name.
  EXPECT_EQ(-1, VELTGroupGet("ftp:x", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);
  EXPECT_EQ(-1, VELTGroupGet("ft", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_NOT_FOUND);
}

TEST_F(VeltUserTest, GroupSetRenamesOnlyThatLineWithPlaceholderMembers) {
  std::vector<char> buffer = FetchGroup("ftp");
  ASSERT_FALSE(buffer.empty());
  VELTGROUP* group = reinterpret_cast<VELTGROUP*>(buffer.data());
  snprintf(group->szName, sizeof group->szName, "ftp2");

  EXPECT_EQ(1, VELTGroupSet("ftp", group));

  EXPECT_EQ(ReadFile(VELT_GROUP_FILE),
            "root:x:0:\n"
            "ftp2:x:1025:nobody,bob,carol,nobody\n"
            "users:x:100:admin,guest\n");
  EXPECT_EQ(ModeOf(VELT_GROUP_FILE), 0644u);
  EXPECT_FALSE(testing_support::FileExists(VELT_GROUP_FILE ".tmp"));
}

TEST_F(VeltUserTest, GroupSetWithoutMembersWritesTwoPlaceholdersAndKeepsMode) {
  ASSERT_EQ(0, chmod(VELT_GROUP_FILE, 0640));
  std::vector<char> buffer = FetchGroup("root");
  ASSERT_FALSE(buffer.empty());
  VELTGROUP* group = reinterpret_cast<VELTGROUP*>(buffer.data());
  group->gid = 7;

  EXPECT_EQ(1, VELTGroupSet("root", group));

  EXPECT_EQ(ReadFile(VELT_GROUP_FILE),
            "root:x:7:nobody,nobody\n"
            "ftp:x:1025:nobody,bob,carol,nobody\n"
            "users:x:100:admin,guest\n");
  EXPECT_EQ(ModeOf(VELT_GROUP_FILE), 0640u);
}

TEST_F(VeltUserTest, GroupSetRefusesTakenNameMissingGroupAndBadMember) {
  std::vector<char> buffer = FetchGroup("ftp");
  ASSERT_FALSE(buffer.empty());
  VELTGROUP* group = reinterpret_cast<VELTGROUP*>(buffer.data());

  snprintf(group->szName, sizeof group->szName, "users");
  EXPECT_EQ(-1, VELTGroupSet("ftp", group));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);

  snprintf(group->szName, sizeof group->szName, "ftp9");
  EXPECT_EQ(-1, VELTGroupSet("nosuch", group));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_NOT_FOUND);

  char bad_member[] = "a,b";
  group->members[0] = bad_member;
  EXPECT_EQ(-1, VELTGroupSet("ftp", group));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);

  EXPECT_EQ(ReadFile(VELT_GROUP_FILE), kGroup);
}

TEST_F(VeltUserTest, GroupSetFailingTemporaryFileLeavesGroupFileUntouched) {
  ASSERT_EQ(0, mkdir(VELT_GROUP_FILE ".tmp", 0755));
  std::vector<char> buffer = FetchGroup("ftp");
  ASSERT_FALSE(buffer.empty());
  VELTGROUP* group = reinterpret_cast<VELTGROUP*>(buffer.data());
  snprintf(group->szName, sizeof group->szName, "ftp1");

  EXPECT_EQ(-1, VELTGroupSet("ftp", group));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OPEN);
  EXPECT_EQ(ReadFile(VELT_GROUP_FILE), kGroup);
}

TEST_F(VeltUserTest, GroupSetWaitsForGroupLockThenGivesUp) {
  ASSERT_TRUE(mkdir("/tmp/lock", 0755) == 0 || errno == EEXIST);
  const int other = open("/tmp/lock/lock_gr", O_RDONLY | O_CREAT, 0644);
  ASSERT_GE(other, 0);
  // A separate open file description: its flock conflicts with the library's.
  ASSERT_EQ(0, flock(other, LOCK_EX | LOCK_NB));
  std::vector<char> buffer = FetchGroup("ftp");
  ASSERT_FALSE(buffer.empty());
  VELTGROUP* group = reinterpret_cast<VELTGROUP*>(buffer.data());
  snprintf(group->szName, sizeof group->szName, "ftp1");

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, VELTGroupSet("ftp", group));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_LOCK);
  EXPECT_GE(seconds, 4.5);
  EXPECT_EQ(ReadFile(VELT_GROUP_FILE), kGroup);

  close(other);
  EXPECT_EQ(1, VELTGroupSet("ftp", group));
}

// ------------------------------------------------------------ users

TEST_F(VeltUserTest, UserGetSizesThenFillsRecord) {
  const int size = VELTUserGet("anonymous", nullptr, 0);
  EXPECT_EQ(size, static_cast<int>(sizeof(VELTUSER) + 8 + 16 + 8));
  std::vector<char> buffer = FetchUser("anonymous");
  ASSERT_FALSE(buffer.empty());
  const VELTUSER* user = reinterpret_cast<const VELTUSER*>(buffer.data());
  EXPECT_STREQ(user->szName, "anonymous");
  EXPECT_EQ(user->uid, 1030);
  EXPECT_EQ(user->gid, 100);
  EXPECT_STREQ(user->szGecos, "Someone");
  EXPECT_STREQ(user->szHome, "/home/anonymous");
  EXPECT_STREQ(user->szShell, "/bin/sh");

  EXPECT_EQ(-1, VELTUserGet("anonymous", reinterpret_cast<VELTUSER*>(buffer.data()), size - 1));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(-1, VELTUserGet("ftp", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_NOT_FOUND);
}

TEST_F(VeltUserTest, UserGetRefusesMalformedLine) {
  WriteFile(VELT_PASSWD_FILE, "broken:x:12:100:no shell field\nodd:x:1x:100:::/bin/sh\n");
  EXPECT_EQ(-1, VELTUserGet("broken", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_READ);
  SLIBCErrSet(0);
  EXPECT_EQ(-1, VELTUserGet("odd", nullptr, 0));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_READ);
}

TEST_F(VeltUserTest, UserSetRenamesPasswdAndShadowKeepingOtherFields) {
  VELTUSER change;
  memset(&change, 0, sizeof change);
  snprintf(change.szName, sizeof change.szName, "anonymous1");
  change.uid = 1030;
  change.gid = 100;

  EXPECT_EQ(1, VELTUserSet("anonymous", &change));

  EXPECT_EQ(ReadFile(VELT_PASSWD_FILE),
            "root:x:0:0:root:/root:/bin/sh\n"
            "anonymous1:x:1030:100:Someone:/home/anonymous:/bin/sh\n"
            "admin:x:1024:100:System default user:/home/admin:/bin/sh\n");
  EXPECT_EQ(ReadFile(VELT_SHADOW_FILE),
            "root::10933:0:99999:7:::\n"
            "anonymous1:$1$salt$hash:12000:0:99999:7:::\n"
            "admin::10933:0:99999:7:::\n");
  EXPECT_EQ(ModeOf(VELT_SHADOW_FILE), 0600u);
  EXPECT_EQ(ModeOf(VELT_PASSWD_FILE), 0644u);
  // The system's own look-up sees the new name.
  EXPECT_EQ(getpwnam("anonymous"), nullptr);
  const struct passwd* renamed = getpwnam("anonymous1");
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(renamed->pw_uid, 1030u);
}

TEST_F(VeltUserTest, UserSetWritesGivenFieldsAndLeavesShadowWhenNameStays) {
  std::vector<char> buffer = FetchUser("admin");
  ASSERT_FALSE(buffer.empty());
  VELTUSER* user = reinterpret_cast<VELTUSER*>(buffer.data());
  char shell[] = "/sbin/nologin";
  user->szShell = shell;
  user->gid = 101;
  ASSERT_EQ(0, chmod(VELT_SHADOW_FILE, 0400));

  EXPECT_EQ(1, VELTUserSet("admin", user));

  EXPECT_EQ(ReadFile(VELT_PASSWD_FILE),
            "root:x:0:0:root:/root:/bin/sh\n"
            "anonymous:x:1030:100:Someone:/home/anonymous:/bin/sh\n"
            "admin:x:1024:101:System default user:/home/admin:/sbin/nologin\n");
  EXPECT_EQ(ReadFile(VELT_SHADOW_FILE), kShadow);
  EXPECT_EQ(ModeOf(VELT_SHADOW_FILE), 0400u);
}

TEST_F(VeltUserTest, UserSetOfUserWithoutShadowLineLeavesShadowAlone) {
  WriteFile(VELT_SHADOW_FILE, "root::10933:0:99999:7:::\n");
  VELTUSER change;
  memset(&change, 0, sizeof change);
  snprintf(change.szName, sizeof change.szName, "anon");
  change.uid = 1030;
  change.gid = 100;

  EXPECT_EQ(1, VELTUserSet("anonymous", &change));

  EXPECT_EQ(ReadFile(VELT_SHADOW_FILE), "root::10933:0:99999:7:::\n");
  EXPECT_NE(ReadFile(VELT_PASSWD_FILE).find("\nanon:x:1030:100:Someone:"), std::string::npos);
}

TEST_F(VeltUserTest, UserSetRefusesTakenNameBadFieldsAndMissingUser) {
  VELTUSER change;
  memset(&change, 0, sizeof change);
  snprintf(change.szName, sizeof change.szName, "admin");
  change.uid = 1030;
  EXPECT_EQ(-1, VELTUserSet("anonymous", &change));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);

  snprintf(change.szName, sizeof change.szName, "anonymous1");
  char gecos[] = "a:b";
  change.szGecos = gecos;
  EXPECT_EQ(-1, VELTUserSet("anonymous", &change));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);

  change.szGecos = nullptr;
  EXPECT_EQ(-1, VELTUserSet("nosuch", &change));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_NOT_FOUND);
  EXPECT_EQ(-1, VELTUserSet(nullptr, &change));
  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_BAD_ARGUMENT);

  EXPECT_EQ(ReadFile(VELT_PASSWD_FILE), kPasswd);
  EXPECT_EQ(ReadFile(VELT_SHADOW_FILE), kShadow);
}

TEST_F(VeltUserTest, UserSetFailingShadowRewriteLeavesBothFilesUntouched) {
  ASSERT_EQ(0, mkdir(VELT_SHADOW_FILE ".tmp", 0755));
  VELTUSER change;
  memset(&change, 0, sizeof change);
  snprintf(change.szName, sizeof change.szName, "anonymous1");
  change.uid = 1030;
  change.gid = 100;

  EXPECT_EQ(-1, VELTUserSet("anonymous", &change));

  EXPECT_EQ(SLIBCErrGet(), SLIB_ERR_OPEN);
  EXPECT_EQ(ReadFile(VELT_PASSWD_FILE), kPasswd);
  EXPECT_EQ(ReadFile(VELT_SHADOW_FILE), kShadow);
  EXPECT_FALSE(testing_support::FileExists(VELT_PASSWD_FILE ".tmp"));
}

}  // namespace
