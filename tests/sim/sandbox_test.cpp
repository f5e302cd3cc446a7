// Builds appliance sandboxes and runs busybox commands in them: fixed paths,
// syslog, stub services, isolation, flash through /dev/mtdN, and the command
// filebay-sandbox.
#include "sim/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_test_support.h"
#include "sim/flash_state.h"
#include "test_support.h"

namespace {

using sandbox::RunResult;
using sandbox::Sandbox;
using sandbox::Scenario;
using sandbox_test::Describe;
using testing_support::ReadFile;

// When a test runs this program inside a sandbox as its probe, it prints what
// the driver of "eth0" reports and ends before any test starts.
int ProbeEth0() {
  const int sock = socket(AF_INET, SOCK_DGRAM, 0);
  struct ifreq request;
  memset(&request, 0, sizeof request);
  strncpy(request.ifr_name, "eth0", IFNAMSIZ - 1);
  struct ethtool_cmd link;
  memset(&link, 0, sizeof link);
  link.cmd = ETHTOOL_GSET;
  request.ifr_data = reinterpret_cast<char*>(&link);
  if (sock < 0 || ioctl(sock, SIOCETHTOOL, &request) != 0) {
    printf("error %s\n", strerror(errno));
    return 1;
  }
  const unsigned speed = ethtool_cmd_speed(&link);
  const unsigned duplex = link.duplex;
  if (ioctl(sock, SIOCGIFMTU, &request) != 0) return 1;
  printf("speed %u duplex %u mtu %d\n", speed, duplex, request.ifr_mtu);
  return 0;
}

const bool kProbeRequested = [] {
  const char* probe = getenv("SANDBOX_TEST_PROBE");
  if (probe != nullptr && strcmp(probe, "eth0") == 0) {
    const int status = ProbeEth0();
    fflush(stdout);
    _exit(status);
  }
  return false;
}();

sandbox::Tools TestTools() {
  sandbox::Tools tools;
  tools.flash_tool = FLASH_TOOL;
  tools.flashsim = FLASHSIM_DAEMON;
  return tools;
}

std::string Layout(const std::string& name) {
  return std::string(SANDBOX_LAYOUT_DIR) + "/" + name + ".layout";
}

// A fresh directory for a sandbox of the tests that make their own.
std::string NewSandboxDir() { return sandbox_test::NewSandboxDir("filebay-sandbox"); }

std::vector<std::string> HostMountsBelow(const std::string& dir) {
  std::vector<std::string> found;
  std::istringstream lines(ReadFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" " + dir + "/") != std::string::npos ||
        line.find(" " + dir + " ") != std::string::npos) {
      found.push_back(line);
    }
  }
  return found;
}

bool Contains(const std::vector<std::string>& lines, const std::string& text) {
  for (const std::string& line : lines) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

class SandboxTest : public sandbox_test::SandboxFixture {
 protected:
  explicit SandboxTest(bool need_flash = false)
      : SandboxFixture("filebay-sandbox", TestTools(), need_flash) {}

  RunResult Shell(const std::string& script, sandbox::RunOptions options = {}) {
    options.timeout_seconds = options.timeout_seconds == 60 ? 20 : options.timeout_seconds;
    return box_->Run({"/bin/sh", "-c", script}, options);
  }
};

class SandboxFlashTest : public SandboxTest {
 protected:
  SandboxFlashTest() : SandboxTest(/*need_flash=*/true) {}
};

// ------------------------------------------------------------ the root

TEST_F(SandboxTest, CommandWritesRootEtcAndHostEtcIsUntouched) {
  const std::string name = "/etc/sandbox-test-" + std::to_string(getpid());
  ASSERT_FALSE(testing_support::FileExists(name));
  Sandbox* box = Build(Scenario());
  ASSERT_NE(box, nullptr);

  const RunResult result =
      Shell("echo written >" + name + " && cat /etc.defaults/VERSION && pwd && id -u");

  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(
      result.out,
      "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\nbuildnumber=\"500\"\n/\n0\n");
  EXPECT_EQ(ReadFile(box->RootPath(name)), "written\n");
  EXPECT_FALSE(testing_support::FileExists(name));
}

TEST_F(SandboxTest, ScenarioSettingsFilesAndStatusesAreInTheRoot) {
  Scenario scenario;
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "284");
  scenario.version.emplace_back("unique", "veltara_powerpc_junior");
  sandbox::SetKeyValue(&scenario.default_settings, "unique", "veltara_powerpc_junior");
  sandbox::SetKeyValue(&scenario.settings, "runftpd", "no");
  scenario.settings.emplace_back("ftplowport", "55536");
  scenario.files.push_back({"/etc/rsyncd.conf", "lock file = /var/run/rsyncd.lock\n", "", 0600});
  scenario.files.push_back({"/etc/passwd", "root:x:0:0::/root:/bin/sh\n", "", 0644});
  scenario.stub_status.emplace_back("S99ftpd.sh", 2);
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);

  EXPECT_EQ(ReadFile(box->RootPath("/etc.defaults/VERSION")),
            "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\nbuildnumber=\"284\"\n"
            "unique=\"veltara_powerpc_junior\"\n");
  EXPECT_EQ(ReadFile(box->RootPath("/etc.defaults/veltinfo.conf")),
            "unique=\"veltara_powerpc_junior\"\nsupportMTU=\"no\"\ndefaultfs=\"ext3\"\n");
  // The settings start from the factory settings.
  EXPECT_EQ(ReadFile(box->RootPath("/etc/veltinfo.conf")),
            "unique=\"veltara_powerpc_junior\"\nsupportMTU=\"no\"\ndefaultfs=\"ext3\"\n"
            "runsamba=\"yes\"\nrunftpd=\"no\"\nrunnetbkp=\"no\"\nMTUValue=\"1500\"\n"
            "ftplowport=\"55536\"\n");
  EXPECT_EQ(ReadFile(box->RootPath("/etc/rsyncd.conf")), "lock file = /var/run/rsyncd.lock\n");
  struct stat st;
  ASSERT_EQ(stat(box->RootPath("/etc/rsyncd.conf").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(ReadFile(box->RootPath("/etc/passwd")), "root:x:0:0::/root:/bin/sh\n");
  EXPECT_EQ(ReadFile(box->RootPath("/etc/stub-status/S99ftpd.sh")), "2\n");
  EXPECT_TRUE(testing_support::FileExists(box->RootPath("/volume1/upd@te")));
  EXPECT_FALSE(testing_support::FileExists(box->RootPath("/tmp/lock")));
  EXPECT_FALSE(testing_support::FileExists(box->RootPath("/dev/mtd0")));
  EXPECT_FALSE(box->has_flash());
}

TEST_F(SandboxTest, PackageDirectoryIsCopiedIntoUpdate) {
  testing_support::TempDir package;
  testing_support::WriteFile(package.File("VERSION"), "majorversion=\"2\"\n");
  ASSERT_EQ(mkdir(package.File("sub").c_str(), 0755), 0);
  testing_support::WriteFile(package.File("sub/zImage"), "kernel");
  Scenario scenario;
  scenario.files.push_back({"/volume1/upd@te", "", package.path(), 0});
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);

  const RunResult result = Shell("cat /volume1/upd@te/VERSION /volume1/upd@te/sub/zImage");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "majorversion=\"2\"\nkernel");
}

TEST_F(SandboxTest, ExitStatusOfCommandComesBack) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const struct {
    const char* script;
    int status;
  } cases[] = {{"exit 0", 0}, {"exit 7", 7}, {"exit 255", 255}, {"kill -9 $$", 128 + 9}};
  for (const auto& c : cases) {
    const RunResult result = Shell(c.script);
    EXPECT_TRUE(result.ok) << c.script << "\n" << Describe(result);
    EXPECT_EQ(result.status, c.status) << c.script;
  }
}

TEST_F(SandboxTest, MissingProgramEndsWith127) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const RunResult result = box_->Run({"/usr/velt/bin/no-such-program"});
  EXPECT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 127);
  EXPECT_NE(result.err.find("/usr/velt/bin/no-such-program"), std::string::npos) << result.err;
}

TEST_F(SandboxTest, EnvironmentIsTheBaseWithAdditions) {
  ASSERT_NE(Build(Scenario()), nullptr);
  setenv("SANDBOX_TEST_HOST_ONLY", "1", 1);
  sandbox::RunOptions options;
  options.env = {"EXTRA=value", "HOME=/volume1"};
  const RunResult result = box_->Run({"env"}, options);
  unsetenv("SANDBOX_TEST_HOST_ONLY");

  ASSERT_EQ(result.status, 0) << Describe(result);
  std::vector<std::string> lines;
  std::istringstream in(result.out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{"EXTRA=value", "HOME=/volume1", "LOGNAME=root",
                                             "PATH=/bin:/sbin:/usr/bin:/usr/sbin", "SHELL=/bin/sh",
                                             "USER=root"}));
}

// ------------------------------------------------------------ syslog

TEST_F(SandboxTest, SyslogKeepsEveryLineFromTheFirst) {
  ASSERT_NE(Build(Scenario()), nullptr);

  const RunResult result = Shell(
      "logger -t first 'line one'; logger -p daemon.err -t second 'line two';"
      "for i in 1 2 3 4 5 6 7 8 9 10; do logger -t loop \"n$i\"; done");

  ASSERT_TRUE(result.ok) << Describe(result);
  std::vector<std::string> messages;
  for (const std::string& line : result.syslog) {
    // "Nov 22 00:28:00 filebay user.notice first: line one"
    const size_t host = line.find(" filebay ");
    ASSERT_NE(host, std::string::npos) << line;
    messages.push_back(line.substr(host + 9));
  }
  std::vector<std::string> expected = {"syslog.info syslogd started: BusyBox v1.35.0",
                                       "user.notice first: line one",
                                       "daemon.err second: line two"};
  for (int i = 1; i <= 10; ++i) expected.push_back("user.notice loop: n" + std::to_string(i));
  expected.push_back("syslog.info sandbox: end of command, status 0");
  expected.push_back("syslog.info syslogd exiting");
  // The busybox version differs between hosts; the first line only has to be
  // syslogd's own.
  ASSERT_EQ(messages.size(), expected.size()) << Describe(result);
  EXPECT_EQ(messages[0].rfind("syslog.info syslogd started", 0), 0u) << messages[0];
  messages[0] = expected[0];
  EXPECT_EQ(messages, expected);
  EXPECT_EQ(box_->SyslogLines(), result.syslog);
}

TEST_F(SandboxTest, SyslogOfEachRunIsReportedSeparately) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const RunResult first = Shell("logger -t run first");
  const RunResult second = Shell("logger -t run second");
  EXPECT_TRUE(Contains(first.syslog, "run: first"));
  EXPECT_FALSE(Contains(second.syslog, "run: first"));
  EXPECT_TRUE(Contains(second.syslog, "run: second"));
  EXPECT_EQ(box_->SyslogLines().size(), first.syslog.size() + second.syslog.size());
}

// ------------------------------------------------------------ stubs

TEST_F(SandboxTest, EveryStubRecordsItsCall) {
  const char* const programs[] = {
      "/usr/velt/etc/rc.d/S81atalk.sh",
      "/usr/velt/etc/rc.d/S99ftpd.sh",
      "/usr/velt/etc/rc.d/S86veltdms.sh",
      "/usr/velt/etc/rc.d/S99iTunes.sh",
      "/usr/velt/etc/rc.d/S66veltindexd.sh",
      "/usr/velt/etc/rc.d/S25download.sh",
      "/usr/velt/etc/rc.d/S20pgsql.sh",
      "/usr/velt/etc/rc.d/S21mysql.sh",
      "/usr/velt/etc/rc.d/S84rsyncd.sh",
      "/usr/velt/etc/rc.d/S85veltnetbkpd.sh",
      "/usr/velt/etc/rc.d/S95sshd.sh",
      "/usr/velt/etc/rc.d/S97apache-user.sh",
      "/usr/velt/etc/rc.d/S55lpd.sh",
      "/usr/velt/etc/rc.d/S04crond.sh",
      "/usr/velt/etc/rc.d/S77veltmkthumbd.sh",
      "/usr/velt/sbin/smbd",
      "/usr/velt/sbin/nmbd",
      "/usr/velt/pgsql/bin/psql",
      "/usr/velt/pgsql/bin/dropdb",
      "/usr/velt/bin/veltindex",
  };
  ASSERT_NE(Build(Scenario()), nullptr);
  std::string script;
  std::vector<std::string> expected;
  for (const char* program : programs) {
    script += std::string(program) + " stop || exit 1\n";
    expected.push_back(std::string(program) + " stop");
  }

  const RunResult result = Shell(script);

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.stub_calls, expected);
  EXPECT_EQ(box_->StubCalls(), expected);
}

TEST_F(SandboxTest, StubsExitWithTheChosenStatus) {
  Scenario scenario;
  scenario.stub_status = {{"S20pgsql.sh.start", 3}, {"psql", 4}, {"S99ftpd.sh", 1}};
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result = Shell(
      "/usr/velt/etc/rc.d/S20pgsql.sh start; echo $?;"
      "/usr/velt/etc/rc.d/S20pgsql.sh stop; echo $?;"
      "/usr/velt/etc/rc.d/S99ftpd.sh start; echo $?;"
      "/usr/velt/etc/rc.d/S99ftpd.sh; echo $?;"
      "/usr/velt/pgsql/bin/psql photo -c 'ALTER TABLE photo_image'; echo $?;"
      "/usr/velt/bin/veltindex -R all; echo $?");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "3\n0\n1\n1\n4\n0\n");
  EXPECT_EQ(result.stub_calls,
            (std::vector<std::string>{
                "/usr/velt/etc/rc.d/S20pgsql.sh start", "/usr/velt/etc/rc.d/S20pgsql.sh stop",
                "/usr/velt/etc/rc.d/S99ftpd.sh start", "/usr/velt/etc/rc.d/S99ftpd.sh",
                "/usr/velt/pgsql/bin/psql photo -c ALTER TABLE photo_image",
                "/usr/velt/bin/veltindex -R all"}));
}

TEST_F(SandboxTest, StubRunByAnotherUserIsRecorded) {
  ASSERT_NE(Build(Scenario()), nullptr);
  if (geteuid() != 0) GTEST_SKIP() << "only user 0 is mapped in a user namespace";

  const RunResult result =
      Shell("su -l admin -c \"/usr/velt/pgsql/bin/dropdb mediaserver; id -u\"");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "1024\n");
  EXPECT_EQ(result.stub_calls, std::vector<std::string>{"/usr/velt/pgsql/bin/dropdb mediaserver"});
}

TEST_F(SandboxTest, StubDaemonRunsInBackgroundAndRecordsSignals) {
  ASSERT_NE(Build(Scenario()), nullptr);

  const RunResult result = Shell(
      "/usr/velt/sbin/smbd -D || exit 1\n"
      "pid=$(cat /var/run/smbd.pid)\n"
      "cat /proc/$pid/comm\n"
      "kill -HUP $pid\n"
      "while ! grep -q SIGHUP /var/log/stub-calls.log; do usleep 5000; done\n"
      "kill -TERM $pid\n"
      "while [ -e /var/run/smbd.pid ]; do usleep 5000; done\n");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "smbd\n");
  EXPECT_EQ(result.stub_calls,
            (std::vector<std::string>{"/usr/velt/sbin/smbd -D", "/usr/velt/sbin/smbd [SIGHUP]",
                                      "/usr/velt/sbin/smbd [SIGTERM]"}));
}

TEST_F(SandboxTest, StubDaemonWithFailingStatusDoesNotStay) {
  Scenario scenario;
  scenario.stub_status = {{"nmbd", 1}};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = Shell("/usr/velt/sbin/nmbd -D; echo $?; ls /var/run | grep -c nmbd");
  EXPECT_EQ(result.out, "1\n0\n") << Describe(result);
  EXPECT_EQ(result.stub_calls, std::vector<std::string>{"/usr/velt/sbin/nmbd -D"});
}

TEST_F(SandboxTest, ScenarioDaemonsRunBeforeTheCommandUnrecorded) {
  Scenario scenario;
  scenario.daemons = {"/usr/velt/sbin/smbd", "/usr/velt/sbin/nmbd"};
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result =
      Shell("cat /proc/$(cat /var/run/smbd.pid)/comm /proc/$(cat /var/run/nmbd.pid)/comm");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "smbd\nnmbd\n");
  EXPECT_TRUE(result.stub_calls.empty()) << result.stub_calls.front();
}

// ------------------------------------------------------------ isolation

TEST_F(SandboxTest, NothingStaysMountedOnTheHost) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const RunResult result = Shell("grep -c ' /proc ' /proc/self/mountinfo; ls /usr/lib >/dev/null");
  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "1\n");
  EXPECT_EQ(HostMountsBelow(box_->dir()), std::vector<std::string>());
}

TEST_F(SandboxTest, CommandSeesOnlyTheSandboxProcessesAndNoNetwork) {
  ASSERT_NE(Build(Scenario()), nullptr);
  // Process 1 is the sandbox itself (a fork of this program), then come
  // syslogd and the command; the shell's builtins start no process.
  const RunResult result = Shell(
      "for p in /proc/[0-9]*; do read -r c <$p/comm; echo \"${p#/proc/} $c\"; done;"
      "hostname; while read -r line; do echo \"$line\"; done </proc/net/dev");
  EXPECT_EQ(result.status, 0) << Describe(result);
  std::string self = ReadFile("/proc/self/comm");
  EXPECT_EQ(result.out.substr(0, result.out.find("filebay\n")), "1 " + self + "2 syslogd\n3 sh\n");
  // /proc/net/dev: two heading lines, then the interfaces: only loopback.
  const std::string devices = result.out.substr(result.out.find("filebay\n") + 8);
  EXPECT_EQ(std::count(devices.begin(), devices.end(), '\n'), 3) << devices;
  EXPECT_NE(devices.find("lo:"), std::string::npos) << devices;
}

TEST_F(SandboxTest, LibraryDirectoriesAreReadOnly) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const RunResult result = Shell("touch /usr/lib/sandbox-test 2>/dev/null; echo $?");
  EXPECT_EQ(result.out, "1\n") << Describe(result);
  EXPECT_FALSE(testing_support::FileExists("/usr/lib/sandbox-test"));
}

TEST_F(SandboxTest, TimeOutKillsTheCommandAndWhatItLeft) {
  ASSERT_NE(Build(Scenario()), nullptr);
  sandbox::RunOptions options;
  options.timeout_seconds = 1;
  const auto start = std::chrono::steady_clock::now();

  const RunResult timed_out = Shell("sleep 30", options);
  const RunResult left_behind = Shell("sleep 30 </dev/null >/dev/null 2>&1 & echo started");

  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
          .count();
  EXPECT_TRUE(timed_out.ok) << Describe(timed_out);
  EXPECT_TRUE(timed_out.timed_out);
  EXPECT_EQ(timed_out.status, 128 + SIGKILL);
  EXPECT_EQ(left_behind.status, 0);
  EXPECT_FALSE(left_behind.timed_out);
  EXPECT_EQ(left_behind.out, "started\n");
  EXPECT_LT(seconds, 5);
}

TEST_F(SandboxTest, Eth0ExistsOnlyWhenTheScenarioAsks) {
  char self[PATH_MAX];
  ASSERT_NE(realpath("/proc/self/exe", self), nullptr);
  Scenario scenario;
  scenario.eth0_speed = 1000;
  scenario.files.push_back({"/probe", "", self, 0});
  ASSERT_NE(Build(scenario), nullptr);
  sandbox::RunOptions options;
  options.env = {"SANDBOX_TEST_PROBE=eth0"};

  const RunResult result = box_->Run({"/probe"}, options);

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "speed 1000 duplex 1 mtu 1500\n");

  Scenario without;
  without.files = scenario.files;
  std::string error;
  ASSERT_TRUE(box_->Destroy(false, &error)) << error;
  ASSERT_NE(Build(without), nullptr);
  const RunResult missing = box_->Run({"/probe"}, options);
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, std::string("error ") + strerror(ENODEV) + "\n");
}

// ------------------------------------------------------------ keeping

TEST_F(SandboxTest, DestroyRemovesUnlessAskedToKeep) {
  const struct {
    const char* env;
    bool failed;
    bool kept;
  } cases[] = {{nullptr, true, false},
               {"1", false, false},
               {"1", true, true},
               {"all", false, true},
               {"0", true, false}};
  for (const auto& c : cases) {
    if (c.env != nullptr) setenv("FILEBAY_KEEP_SANDBOX", c.env, 1);
    std::string dir = NewSandboxDir(), error;
    std::unique_ptr<Sandbox> box = Sandbox::Create(dir, Scenario(), TestTools(), &error);
    ASSERT_NE(box, nullptr) << error;
    EXPECT_TRUE(box->Destroy(c.failed, &error)) << error;
    unsetenv("FILEBAY_KEEP_SANDBOX");
    EXPECT_EQ(testing_support::FileExists(dir), c.kept)
        << "FILEBAY_KEEP_SANDBOX=" << (c.env ? c.env : "(unset)") << " failed=" << c.failed;
    if (c.kept) {
      EXPECT_TRUE(sandbox::DestroyDir(dir, &error)) << error;
    }
  }
}

TEST(SandboxDestroy, RefusesADirectoryThatIsNoSandbox) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("precious"), "data");
  std::string error;
  EXPECT_FALSE(sandbox::DestroyDir(dir.path(), &error));
  EXPECT_NE(error.find("not a sandbox"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(dir.File("precious")), "data");
}

TEST(SandboxCreate, RefusesADirectoryThatIsNotEmpty) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("precious"), "data");
  std::string error;
  EXPECT_EQ(Sandbox::Create(dir.path(), Scenario(), TestTools(), &error), nullptr);
  EXPECT_NE(error.find("not an empty directory"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(dir.File("precious")), "data");
}

// ------------------------------------------------------------ availability

// Runs `probe` in a child that is user 65534 inside a user namespace of its
// own (65534 and 0 mapped to themselves); with `forbid_namespaces` that user
// namespace may hold no further user namespaces, so the child has neither
// root nor user namespaces. Returns what `probe` answered, or "setup: ...".
template <typename Probe>
std::string AnswerOfUnprivilegedChild(bool forbid_namespaces, Probe probe) {
  int ready[2], go[2], answer[2];
  if (pipe(ready) != 0 || pipe(go) != 0 || pipe(answer) != 0) return "setup: pipe";
  const pid_t pid = fork();
  if (pid == 0) {
    auto send = [&](const std::string& text) {
      ssize_t ignored = write(answer[1], text.data(), text.size());
      (void)ignored;
      _exit(0);
    };
    char byte = 0;
    if (unshare(CLONE_NEWUSER) != 0) send("setup: unshare: " + std::string(strerror(errno)));
    if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1 || byte != 'g') {
      send("setup: no maps");
    }
    if (forbid_namespaces) {
      const int fd = open("/proc/sys/user/max_user_namespaces", O_WRONLY);
      if (fd < 0 || write(fd, "0", 1) != 1) send("setup: max_user_namespaces");
      close(fd);
    }
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0) {
      send("setup: cannot become user 65534: " + std::string(strerror(errno)));
    }
    // As for any process started by that user (a change of ids clears it).
    prctl(PR_SET_DUMPABLE, 1);
    send(probe());
  }
  close(ready[1]);
  close(go[0]);
  close(answer[1]);
  char byte = 'x';
  if (pid > 0 && read(ready[0], &byte, 1) == 1) {
    const std::string map = "0 0 1\n65534 65534 1\n";
    const std::string proc = "/proc/" + std::to_string(pid);
    testing_support::WriteFile(proc + "/uid_map", map);
    testing_support::WriteFile(proc + "/gid_map", map);
    byte = 'g';
  }
  ssize_t ignored = write(go[1], &byte, 1);
  (void)ignored;
  std::string text;
  char buffer[1024];
  for (ssize_t n; (n = read(answer[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(ready[0]);
  close(go[1]);
  close(answer[0]);
  if (pid > 0) waitpid(pid, nullptr, 0);
  return text;
}

// These tests need root (to map ids into a child's user namespace) and a
// sandbox that works for root.
class SandboxAvailability : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to prepare an unprivileged child";
    const std::string reason = sandbox::Unavailable(TestTools(), false);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
};

TEST_F(SandboxAvailability, WithoutRootOrUserNamespacesItIsUnavailable) {
  const std::string answer = AnswerOfUnprivilegedChild(
      true, [] { return "[" + sandbox::Unavailable(TestTools(), false) + "]"; });

  ASSERT_EQ(answer.rfind("[", 0), 0u) << answer;
  EXPECT_EQ(answer.rfind("[unavailable: ", 0), 0u) << answer;
  EXPECT_NE(answer.find("user namespace"), std::string::npos) << answer;
}

// The child builds, runs and removes its sandbox as that user.
TEST_F(SandboxAvailability, RunWithoutNamespacesFailsWithTheReason) {
  const std::string dir = NewSandboxDir();
  ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);

  const std::string answer = AnswerOfUnprivilegedChild(true, [&dir] {
    std::string error;
    std::unique_ptr<Sandbox> box = Sandbox::Create(dir, Scenario(), TestTools(), &error);
    if (box == nullptr) return "create: " + error;
    const RunResult result = box->Run({"/bin/true"});
    return "ok=" + std::to_string(result.ok) + " status=" + std::to_string(result.status) +
           " error=" + result.error;
  });

  EXPECT_EQ(answer.rfind("ok=0 status=-1 error=unavailable: ", 0), 0u) << answer;
  EXPECT_NE(answer.find("user namespace"), std::string::npos) << answer;
  EXPECT_FALSE(testing_support::FileExists(dir));
  std::string ignored;
  sandbox::DestroyDir(dir, &ignored);
}

TEST_F(SandboxAvailability, UnprivilegedUserRunsInAUserNamespace) {
  const std::string dir = NewSandboxDir();
  ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);

  const std::string answer = AnswerOfUnprivilegedChild(false, [&dir] {
    const std::string reason = sandbox::Unavailable(TestTools(), false);
    if (!reason.empty()) return "skip: " + reason;
    std::string error;
    std::unique_ptr<Sandbox> box = Sandbox::Create(dir, Scenario(), TestTools(), &error);
    if (box == nullptr) return "create: " + error;
    const RunResult result =
        box->Run({"/bin/sh", "-c", "logger -t userns hello; id -u; echo x >/etc/x"});
    std::string written;
    box->ReadRootFile("/etc/x", &written);
    return "ok=" + std::to_string(result.ok) + " status=" + std::to_string(result.status) +
           " out=" + result.out + " etc/x=" + written +
           " syslog=" + std::to_string(Contains(result.syslog, "userns: hello")) +
           " error=" + result.error;
  });

  EXPECT_FALSE(testing_support::FileExists(dir));
  std::string ignored;
  sandbox::DestroyDir(dir, &ignored);
  if (answer.rfind("skip: ", 0) == 0) GTEST_SKIP() << answer;
  EXPECT_EQ(answer, "ok=1 status=0 out=0\n etc/x=x\n syslog=1 error=");
}

// ------------------------------------------------------------ flash

// A small NOR chip whose partition 1 is erased, so that bytes written through
// /dev/mtd1 are programmed as they are.
const char kErasedLayout[] =
    "kind nor\n"
    "chip-base 0xFF800000\n"
    "chip-size 0x00040000\n"
    "erase-size 0x00010000\n"
    "partition 0 RedBoot 0xFF800000 0x00010000 pattern=label\n"
    "partition 1 data 0xFF810000 0x00020000 fill=255\n"
    "partition 2 \"FIS Directory\" 0xFF830000 0x00010000\n";

std::string PseudoRandomBytes(size_t size, uint32_t seed) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed ^= seed << 13;
    seed ^= seed >> 17;
    seed ^= seed << 5;
    byte = static_cast<char>(seed & 0xFF);
  }
  return bytes;
}

TEST_F(SandboxFlashTest, DdReadsAPartitionOfTheChip) {
  Scenario scenario;
  scenario.layout_file = Layout("nor8");
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);
  const std::string chip = ReadFile(box->FlashStateDir() + "/chip.img");
  // mtd2 ("rd.gz") starts 0x180000 bytes into the chip.
  const std::string expected = chip.substr(0x180000, 3 * 16384);

  const RunResult result = Shell("dd if=/dev/mtd2 bs=16384 count=3 2>/dev/null");

  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 0);
  ASSERT_EQ(result.out.size(), expected.size());
  EXPECT_TRUE(result.out == expected);
  EXPECT_EQ(result.out.substr(0, 16), "mtd2:00000000..\n");
  EXPECT_TRUE(Contains(box->FlashTrace(), "read mtd2 0x00000000 16384 ok"));
  EXPECT_EQ(ReadFile(box->FlashStateDir() + "/chip.img"), chip);
  EXPECT_EQ(HostMountsBelow(box->dir()), std::vector<std::string>());
}

TEST_F(SandboxFlashTest, DdWritesAPartitionWithAndWithoutNotrunc) {
  testing_support::TempDir layout_dir;
  testing_support::WriteFile(layout_dir.File("erased.layout"), kErasedLayout);
  const std::string first = PseudoRandomBytes(5000, 1);
  const std::string second = PseudoRandomBytes(1024, 2);
  Scenario scenario;
  scenario.layout_file = layout_dir.File("erased.layout");
  scenario.files.push_back({"/volume1/first.bin", first, "", 0644});
  scenario.files.push_back({"/volume1/second.bin", second, "", 0644});
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);
  std::string expected = ReadFile(box->FlashStateDir() + "/chip.img");
  ASSERT_EQ(expected.size(), 0x40000u);
  ASSERT_EQ(expected.substr(0x10000, 0x20000), std::string(0x20000, '\xff'));
  expected.replace(0x10000, first.size(), first);
  expected.replace(0x10000 + 20 * 512, second.size(), second);

  // The second dd opens with O_TRUNC, which a device ignores.
  const RunResult result = Shell(
      "dd if=/volume1/first.bin of=/dev/mtd1 bs=4096 conv=notrunc 2>/dev/null || exit 1\n"
      "dd if=/volume1/second.bin of=/dev/mtd1 bs=512 seek=20 2>/dev/null || exit 2\n"
      "ls -l /dev/flash/mtd1 | awk '{print $5}'\n"
      "dd if=/dev/mtd1 bs=5000 count=1 2>/dev/null | cmp - /volume1/first.bin || exit 3\n");

  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "131072\n");
  const std::string chip = ReadFile(box->FlashStateDir() + "/chip.img");
  EXPECT_TRUE(chip == expected) << "chip.img differs from the expected image";
  const std::vector<std::string> trace = box->FlashTrace();
  EXPECT_TRUE(Contains(trace, "write mtd1 0x00000000 4096 ok"));
  EXPECT_TRUE(Contains(trace, "write mtd1 0x00001000 904 ok"));
  EXPECT_TRUE(Contains(trace, "write mtd1 0x00002800 512 ok"));
  EXPECT_EQ(HostMountsBelow(box->dir()), std::vector<std::string>());
}

TEST_F(SandboxFlashTest, FaultPlanOfTheScenarioIsInForce) {
  Scenario scenario;
  scenario.layout_file = Layout("nor8");
  scenario.faults = {"fault read mtd3 every errno=EIO"};
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);

  const RunResult result = Shell(
      "dd if=/dev/mtd3 of=/dev/null bs=16384 count=1 2>/dev/null; echo $?;"
      "dd if=/dev/mtd4 of=/dev/null bs=16384 count=1 2>/dev/null; echo $?");

  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.out, "1\n0\n");
  EXPECT_TRUE(Contains(box->FlashTrace(), "read mtd3 0x00000000 16384 EIO"));
}

TEST_F(SandboxFlashTest, FlashIsReachableForAnotherUser) {
  Scenario scenario;
  scenario.layout_file = Layout("junior6");
  Sandbox* box = Build(scenario);
  ASSERT_NE(box, nullptr);
  if (geteuid() != 0) GTEST_SKIP() << "only user 0 is mapped in a user namespace";

  const RunResult result =
      Shell("ls /dev/flash; su -l admin -c 'dd if=/dev/mtd0 bs=16 count=1 2>/dev/null'");

  EXPECT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "mtd0\nmtd1\nmtd2\nmtd3\nmtd4\nmtd5\nmtd0:00000000..\n");
}

// ------------------------------------------------------------ the command

int RunCli(const std::string& arguments, std::string* output) {
  const std::string command = std::string(SANDBOX_CLI) + " " + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  output->clear();
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SandboxTest, CliCreatesRunsAndDestroys) {
  const std::string dir = NewSandboxDir() + "/box";
  std::string output;

  ASSERT_EQ(RunCli("create " + dir +
                       " --board none --setting runftpd=no --version buildnumber=301"
                       " --stub-status S99ftpd.sh=2",
                   &output),
            0)
      << output;
  EXPECT_EQ(RunCli("run " + dir +
                       " --env WHO=cli -- /bin/sh -c 'grep runftpd /etc/veltinfo.conf;"
                       " grep buildnumber /etc.defaults/VERSION; echo $WHO;"
                       " /usr/velt/etc/rc.d/S99ftpd.sh start'",
                   &output),
            2);
  EXPECT_EQ(output, "runftpd=\"no\"\nbuildnumber=\"301\"\ncli\n");
  EXPECT_EQ(ReadFile(dir + "/root/var/log/stub-calls.log"),
            "/usr/velt/etc/rc.d/S99ftpd.sh start\n");
  EXPECT_EQ(RunCli("destroy " + dir, &output), 0) << output;
  EXPECT_FALSE(testing_support::FileExists(dir));
  rmdir(dir.substr(0, dir.size() - 4).c_str());
}

TEST_F(SandboxTest, CliReportsItsOwnFailuresWith125) {
  testing_support::TempDir dir;
  std::string output;
  EXPECT_EQ(RunCli("run " + dir.path() + " -- /bin/true", &output), 125);
  EXPECT_NE(output.find("not a sandbox"), std::string::npos) << output;
  EXPECT_EQ(RunCli("destroy " + dir.path(), &output), 125);
  EXPECT_TRUE(testing_support::FileExists(dir.path()));
  EXPECT_EQ(RunCli("create " + dir.path() + "/box --board nor9", &output), 125);
  EXPECT_NE(output.find("unknown board \"nor9\""), std::string::npos) << output;
}

TEST(SandboxCli, HelpDescribesEveryCommand) {
  std::string output;
  ASSERT_EQ(RunCli("--help", &output), 0);
  for (const char* text : {"create DIR", "run DIR", "shell DIR", "destroy DIR", "--board",
                           "--stub-status", "--fault", "--package", "--eth0"}) {
    EXPECT_NE(output.find(text), std::string::npos) << text;
  }
}

}  // namespace
