#include "sdk/platform_identity.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

using testing_support::WriteFile;

namespace {

constexpr char kFactorySettings[] = "/etc.defaults/veltinfo.conf";
constexpr char kHardwareVersion[] = "/proc/sys/kernel/velt_hw_version";

// The hardware version file belongs to the appliance's kernel. In the
// throwaway root a small file system over /proc/sys stands in for it; the
// process entries of /proc stay the host's.
std::string PrepareHardwareVersionDirectory() {
  static const std::string why = [] {
    if (mount("tmpfs", "/proc/sys", "tmpfs", 0, "mode=755") != 0) {
      return std::string("cannot mount over /proc/sys: ") + strerror(errno);
    }
    if (mkdir("/proc/sys/kernel", 0755) != 0) {
      return std::string("cannot create /proc/sys/kernel: ") + strerror(errno);
    }
    return std::string();
  }();
  return why;
}

void SetUnique(const std::string& unique) {
  WriteFile(kFactorySettings, "company=\"Filebay\"\nunique=\"" + unique + "\"\nmodel=\"FB-1\"\n");
}

class PlatformIdentity : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = testing_support::EnterThrowawayRoot();
    if (why.empty()) why = PrepareHardwareVersionDirectory();
    if (!why.empty()) GTEST_SKIP() << why;
    mkdir("/etc.defaults", 0755);
    unlink(kFactorySettings);
    unlink(kHardwareVersion);
  }
};

// ---------------------------------------------------------------- board family

struct JuniorCase {
  const char* unique;    // null: no "unique" key in the settings
  const char* hardware;  // null: no hardware version file
  int expected;
};

const JuniorCase kJuniorCases[] = {
    // the unique value alone decides
    {"sdkdebugx", nullptr, 1},
    {"sdkdebugx", "2.0-J\n", 1},
    {"sdkdebugx", "1.0\n", 1},
    {"sdkdebug", nullptr, 1},
    {"velt_powerpc_junior", nullptr, 1},
    {"velt_powerpc_junior", "2.0\n", 1},
    {"x_junior", nullptr, 1},
    // six characters or fewer are never junior
    {"junior", "2.0-j\n", 0},
    {"_junio", "2.0-j\n", 0},
    {"sdkdeb", "2.0-j\n", 0},
    {"", "2.0-j\n", 0},
    // "sdkdebug" only at the start, "_junior" only at the end
    {"xsdkdebug", nullptr, 0},
    {"velt_junior_x", nullptr, 0},
    {"velt_powerpc_Junior", nullptr, 0},
    // otherwise the hardware version decides
    {"velt_powerpc", "2.0-j\n", 1},
    {"velt_powerpc", "-j\n", 1},
    {"velt_powerpc", "2.0-J\n", 0},
    {"velt_powerpc", "j\n", 0},
    {"velt_powerpc", "2.0-jx\n", 0},
    {"velt_powerpc", "2.0\n", 0},
    {"velt_powerpc", "2.0-j\nsecond line\n", 1},
    {"velt_powerpc", "2.0\n2.0-j\n", 0},
    {"velt_powerpc", "2.0-jx", 1},  // the line's last character goes, line feed or not
    {"velt_powerpc", "", 0},
    {"velt_powerpc", nullptr, 0},
};

TEST_F(PlatformIdentity, JuniorByUniqueValueAndHardwareVersion) {
  for (const JuniorCase& c : kJuniorCases) {
    unlink(kHardwareVersion);
    if (c.unique != nullptr) SetUnique(c.unique);
    if (c.hardware != nullptr) WriteFile(kHardwareVersion, c.hardware);
    EXPECT_EQ(VELTIsJunior(), c.expected) << "unique=" << (c.unique ? c.unique : "<none>")
                                          << " hardware=" << (c.hardware ? c.hardware : "<none>");
  }
}

TEST_F(PlatformIdentity, NotJuniorWithoutUniqueKey) {
  WriteFile(kFactorySettings, "company=\"Filebay\"\nmodel=\"FB-1\"\n");
  WriteFile(kHardwareVersion, "2.0-j\n");
  EXPECT_EQ(VELTIsJunior(), 0);
  unlink(kFactorySettings);
  EXPECT_EQ(VELTIsJunior(), 0);
}

TEST_F(PlatformIdentity, NotJuniorWhenUniqueValueDoesNotFit) {
  SetUnique(std::string(120, 'a') + "_junior");
  EXPECT_EQ(VELTIsJunior(), 0);
}

TEST_F(PlatformIdentity, AnswerFollowsChangedFiles) {
  SetUnique("velt_powerpc");
  EXPECT_EQ(VELTIsJunior(), 0);
  WriteFile(kHardwareVersion, "2.0-j\n");
  EXPECT_EQ(VELTIsJunior(), 1);
  SetUnique("velt_powerpc_junior");
  unlink(kHardwareVersion);
  EXPECT_EQ(VELTIsJunior(), 1);
}

// ---------------------------------------------------------------- process list

// A child process whose name in the process list is `name`; killed and
// reaped when the object goes away.
class NamedProcess {
 public:
  explicit NamedProcess(const char* name) : pid_(fork()) {
    if (pid_ == 0) {
      prctl(PR_SET_NAME, name);
      for (;;) pause();
    }
  }
  ~NamedProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  NamedProcess(const NamedProcess&) = delete;
  NamedProcess& operator=(const NamedProcess&) = delete;
  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_;
};

// Lets "/bin/ps" print `output` instead of the process list until the object
// goes away (a bind mount inside the throwaway root).
class FakeProcessList {
 public:
  explicit FakeProcessList(const std::string& output) {
    WriteFile(kScript, "#!/bin/sh\nprintf '%s' '" + output + "'\n");
    chmod(kScript, 0755);
    active_ = mount(kScript, "/bin/ps", nullptr, MS_BIND, nullptr) == 0;
    if (!active_) why_ = strerror(errno);
  }
  ~FakeProcessList() {
    if (active_) umount2("/bin/ps", MNT_DETACH);
    unlink(kScript);
  }
  FakeProcessList(const FakeProcessList&) = delete;
  FakeProcessList& operator=(const FakeProcessList&) = delete;
  bool active() const { return active_; }
  const std::string& why() const { return why_; }

 private:
  static constexpr char kScript[] = "/tmp/fake-ps";
  bool active_ = false;
  std::string why_;
};

TEST_F(PlatformIdentity, ProcessRunningWhenListShowsIt) {
  NamedProcess probe("updtprobe4711");
  ASSERT_TRUE(probe.started());
  // The child names itself right after the fork; give it a moment.
  int running = 0;
  for (int i = 0; i < 100 && running == 0; ++i) {
    running = SLIBIsProcessRunning("updtprobe4711");
    if (running == 0) usleep(10000);
  }
  EXPECT_EQ(running, 1);
  EXPECT_EQ(SLIBIsProcessRunning("probe47"), 1) << "a part of a name counts";
}

TEST_F(PlatformIdentity, ProcessNotRunningWhenNobodyHasName) {
  EXPECT_EQ(SLIBIsProcessRunning("updtnobody9183"), 0);
}

TEST_F(PlatformIdentity, ProcessNotRunningWhenListIsEmpty) {
  NamedProcess probe("updtprobe4712");
  ASSERT_TRUE(probe.started());
  FakeProcessList empty("");
  if (!empty.active()) GTEST_SKIP() << "cannot replace /bin/ps: " << empty.why();
  EXPECT_EQ(SLIBIsProcessRunning("updtprobe4712"), 0);
}

TEST_F(PlatformIdentity, ProcessListIsJudgedByFirstLineOnly) {
  // grep takes "a.c" as a pattern and passes both lines; only the second
  // holds the name itself.
  FakeProcessList list("  101 root      00:00:00 abc\n  102 root      00:00:00 a.c\n");
  if (!list.active()) GTEST_SKIP() << "cannot replace /bin/ps: " << list.why();
  EXPECT_EQ(SLIBIsProcessRunning("a.c"), 0);
  EXPECT_EQ(SLIBIsProcessRunning("abc"), 1);
}

TEST_F(PlatformIdentity, ProcessNotRunningForNullName) {
  EXPECT_EQ(SLIBIsProcessRunning(nullptr), 0);
}

}  // namespace
