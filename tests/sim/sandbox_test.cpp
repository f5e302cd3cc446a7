// Appliance sandboxes: the root a scenario builds, commands run in it with
// stubs and syslog, isolation from the host, removal, and the command
// filebay-sandbox. Flash through /dev/mtdN is what every end-to-end run uses.
#include "sim/sandbox.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox_test_support.h"
#include "test_support.h"

namespace {

using sandbox::RunResult;
using sandbox::Scenario;
using sandbox_test::Describe;
using testing_support::FileExists;
using testing_support::ReadFile;

sandbox::Tools TestTools() {
  sandbox::Tools tools;
  tools.flash_tool = FLASH_TOOL;
  tools.flashsim = FLASHSIM_DAEMON;
  return tools;
}

class SandboxTest : public sandbox_test::SandboxFixture {
 protected:
  SandboxTest() : SandboxFixture("filebay-sandbox", TestTools()) {}
  RunResult Shell(const std::string& script, sandbox::RunOptions options = {}) {
    return box_->Run({"/bin/sh", "-c", script}, options);
  }
  bool MountedOnHost() const {
    return ReadFile("/proc/self/mountinfo").find(" " + box_->dir()) != std::string::npos;
  }
};

TEST_F(SandboxTest, ScenarioRootStubsSyslogAndIsolationFromTheHost) {
  testing_support::TempDir package;
  testing_support::WriteFile(package.File("zImage"), "kernel");
  Scenario scenario;
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "284");
  sandbox::SetKeyValue(&scenario.default_settings, "unique", "veltara_powerpc_junior");
  sandbox::SetKeyValue(&scenario.settings, "runftpd", "no");
  scenario.files = {{"/volume1/upd@te", "", package.path(), 0}};
  scenario.stub_status = {{"S20pgsql.sh.start", 3}};
  ASSERT_NE(Build(scenario), nullptr);
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"),
            "unique=\"veltara_powerpc_junior\"\nsupportMTU=\"no\"\ndefaultfs=\"ext3\"\n"
            "runsamba=\"yes\"\nrunftpd=\"no\"\nrunnetbkp=\"no\"\nMTUValue=\"1500\"\n");
  EXPECT_FALSE(box_->has_flash());

  // What the command leaves in fixed paths stays in the root.
  const std::string name = "sandbox-test-" + std::to_string(getpid());
  const RunResult result =
      Shell("for d in /etc /tmp/lock /var/log /dev; do mkdir -p $d; echo $d >$d/" + name +
            "; done;"
            "cat /etc.defaults/VERSION /volume1/upd@te/zImage; echo; id -u; hostname;"
            "/usr/velt/etc/rc.d/S20pgsql.sh start; echo $?; /usr/velt/etc/rc.d/S20pgsql.sh stop;"
            "logger -t first 'line one'; logger -p daemon.err -t second two;"
            "set -- /proc/[0-9]*; echo $#;"
            "grep -c : /proc/net/dev; [ -c /dev/null ] && echo null; touch /usr/lib/" +
            name + " 2>/dev/null; exit 7");
  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out,
            "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\nbuildnumber=\"284\"\n"
            "kernel\n0\nfilebay\n3\n3\n1\nnull\n");
  EXPECT_EQ(result.stub_calls, (std::vector<std::string>{"/usr/velt/etc/rc.d/S20pgsql.sh start",
                                                         "/usr/velt/etc/rc.d/S20pgsql.sh stop"}));
  EXPECT_EQ(sandbox_test::ProgramMessages(result, "first"),
            std::vector<std::string>{"user.notice line one"});
  EXPECT_EQ(sandbox_test::ProgramMessages(result, "second"),
            std::vector<std::string>{"daemon.err two"});
  for (const std::string dir : {"/etc", "/tmp/lock", "/var/log", "/dev"}) {
    EXPECT_EQ(RootFile(dir + "/" + name), dir + "\n");
    EXPECT_FALSE(FileExists(dir + "/" + name)) << dir;
  }
  EXPECT_NE(unlink(("/usr/lib/" + name).c_str()), 0);  // the library directories are read-only
  EXPECT_FALSE(MountedOnHost());

  EXPECT_TRUE(sandbox_test::ProgramMessages(Shell("exit 0"), "first").empty());  // per run
  sandbox::RunOptions options;
  options.timeout_seconds = 1;
  const RunResult timed_out = Shell("sleep 30", options);
  EXPECT_TRUE(timed_out.timed_out);
  EXPECT_EQ(timed_out.status, 128 + SIGKILL);
}

int RunCli(const std::string& arguments, std::string* output) {
  FILE* pipe = popen((std::string(SANDBOX_CLI) + " " + arguments + " 2>&1").c_str(), "r");
  output->clear();
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SandboxTest, RemovesOnlySandboxesAndTheCommandDrivesThem) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("precious"), "data");
  std::string error, output;
  EXPECT_FALSE(sandbox::DestroyDir(dir.path(), &error));
  EXPECT_NE(error.find("not a sandbox"), std::string::npos) << error;
  EXPECT_EQ(sandbox::Sandbox::Create(dir.path(), Scenario(), TestTools(), &error), nullptr);
  EXPECT_NE(error.find("not an empty directory"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(dir.File("precious")), "data");

  const std::string box = dir.File("box");
  ASSERT_EQ(
      RunCli("create " + box + " --board none --setting runftpd=no --stub-status S99ftpd.sh=2",
             &output),
      0)
      << output;
  EXPECT_EQ(RunCli("run " + box +
                       " --env WHO=cli -- /bin/sh -c 'grep runftpd /etc/veltinfo.conf;"
                       " echo $WHO; /usr/velt/etc/rc.d/S99ftpd.sh start'",
                   &output),
            2);
  EXPECT_EQ(output, "runftpd=\"no\"\ncli\n");
  EXPECT_EQ(RunCli("destroy " + box, &output), 0) << output;
  EXPECT_FALSE(FileExists(box));
  EXPECT_EQ(RunCli("--help", &output), 0);
}

}  // namespace
