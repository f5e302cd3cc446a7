// Appliance sandboxes: the root a scenario builds, commands run in it with
// stubs and syslog, isolation from the host, flash through /dev/mtdN, keeping
// and removing, and the command filebay-sandbox.
#include "sim/sandbox.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
  SandboxTest() : SandboxFixture("filebay-sandbox", TestTools(), /*need_flash=*/true) {}
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
  scenario.stub_status = {{"S20pgsql.sh.start", 3}, {"psql", 4}};
  scenario.daemons = {"/usr/velt/sbin/smbd"};
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
            "/usr/velt/pgsql/bin/psql photo -c 'ALTER TABLE'; echo $?; logger -t first 'line one';"
            "logger -p daemon.err -t second two; set -- /proc/[0-9]*; echo $#;"
            "kill -TERM $(cat /var/run/smbd.pid);"
            "while [ -e /var/run/smbd.pid ]; do usleep 5000; done;"
            "grep -c : /proc/net/dev; [ -c /dev/null ] && echo null; touch /usr/lib/" +
            name + " 2>/dev/null; exit 7");
  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out,
            "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\nbuildnumber=\"284\"\n"
            "kernel\n0\nfilebay\n3\n4\n4\n1\nnull\n");
  EXPECT_EQ(result.stub_calls,
            (std::vector<std::string>{
                "/usr/velt/etc/rc.d/S20pgsql.sh start", "/usr/velt/etc/rc.d/S20pgsql.sh stop",
                "/usr/velt/pgsql/bin/psql photo -c ALTER TABLE", "/usr/velt/sbin/smbd [SIGTERM]"}));
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

  sandbox::RunOptions options;
  options.env = {"EXTRA=value"};
  const RunResult env = box_->Run({"env"}, options);  // the base and the additions only
  EXPECT_EQ(sandbox_test::SplitLines(env.out).size(), 6u) << env.out;
  EXPECT_NE(env.out.find("PATH=/bin:/sbin:/usr/bin:/usr/sbin\n"), std::string::npos);
  EXPECT_NE(env.out.find("EXTRA=value\n"), std::string::npos);
  EXPECT_TRUE(env.stub_calls.empty());
  EXPECT_TRUE(sandbox_test::ProgramMessages(env, "first").empty());  // each run its own lines
  options.timeout_seconds = 1;
  const RunResult timed_out = Shell("sleep 30", options);
  EXPECT_TRUE(timed_out.timed_out);
  EXPECT_EQ(timed_out.status, 128 + SIGKILL);
}

TEST_F(SandboxTest, FlashThroughDevMtdWithTheScenariosFaultsAndEth0) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("erased.layout"),
                             "kind nor\nchip-base 0xFF800000\nchip-size 0x40000\n"
                             "erase-size 0x10000\npartition 0 RedBoot 0xFF800000 0x10000\n"
                             "partition 1 data 0xFF810000 0x20000 fill=255\n"
                             "partition 2 \"FIS Directory\" 0xFF830000 0x10000\n");
  const std::string first = testing_support::LongText(5000, 'a');
  Scenario scenario;
  scenario.layout_file = dir.File("erased.layout");
  scenario.faults = {"fault read mtd0 every errno=EIO"};
  scenario.files = {{"/volume1/first", first, "", 0644}, {"/volume1/second", "0123", "", 0644}};
  scenario.eth0_speed = 1000;
  ASSERT_NE(Build(scenario), nullptr);
  std::string expected = ReadFile(box_->FlashStateDir() + "/chip.img");
  expected.replace(0x10000, first.size(), first).replace(0x10000 + 20 * 512, 4, "0123");

  // The second dd opens with O_TRUNC, which a device ignores.
  const RunResult result = Shell(
      "dd if=/volume1/first of=/dev/mtd1 bs=4096 conv=notrunc 2>/dev/null || exit 1;"
      "dd if=/volume1/second of=/dev/mtd1 bs=512 seek=20 2>/dev/null || exit 2;"
      "ls -l /dev/flash/mtd1 | awk '{print $5}';"
      "su -l admin -c 'dd if=/dev/mtd1 bs=5000 count=1 2>/dev/null' | cmp - /volume1/first;"
      "dd if=/dev/mtd0 of=/dev/null bs=16 count=1 2>/dev/null; echo $?; grep -c eth0 "
      "/proc/net/dev");
  ASSERT_TRUE(result.ok) << Describe(result);
  EXPECT_EQ(result.out, "131072\n1\n1\n") << Describe(result);
  EXPECT_TRUE(ReadFile(box_->FlashStateDir() + "/chip.img") == expected);
  const std::vector<std::string> trace = box_->FlashTrace();
  for (const char* line : {"write mtd1 0x00001000 904 ok", "write mtd1 0x00002800 4 ok",
                           "read mtd0 0x00000000 16 EIO"}) {
    EXPECT_NE(std::find(trace.begin(), trace.end(), line), trace.end()) << line;
  }
  EXPECT_FALSE(MountedOnHost());
}

int RunCli(const std::string& arguments, std::string* output) {
  FILE* pipe = popen((std::string(SANDBOX_CLI) + " " + arguments + " 2>&1").c_str(), "r");
  output->clear();
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SandboxTest, KeepsOnlyWhatItIsAskedToAndRemovesOnlySandboxes) {
  const struct {
    const char* env;
    bool failed, kept;
  } rows[] = {{nullptr, true, false}, {"1", false, false}, {"1", true, true}, {"all", false, true}};
  for (const auto& row : rows) {
    if (row.env != nullptr) setenv("FILEBAY_KEEP_SANDBOX", row.env, 1);
    const std::string dir = sandbox_test::NewSandboxDir("filebay-sandbox");
    std::string error;
    auto box = sandbox::Sandbox::Create(dir, Scenario(), TestTools(), &error);
    ASSERT_NE(box, nullptr) << error;
    EXPECT_TRUE(box->Destroy(row.failed, &error)) << error;
    unsetenv("FILEBAY_KEEP_SANDBOX");
    EXPECT_EQ(FileExists(dir), row.kept) << (row.env ? row.env : "-") << " " << row.failed;
    EXPECT_TRUE(!row.kept || sandbox::DestroyDir(dir, &error)) << error;
  }
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.File("precious"), "data");
  std::string error, output;
  EXPECT_FALSE(sandbox::DestroyDir(dir.path(), &error));
  EXPECT_NE(error.find("not a sandbox"), std::string::npos) << error;
  EXPECT_EQ(sandbox::Sandbox::Create(dir.path(), Scenario(), TestTools(), &error), nullptr);
  EXPECT_NE(error.find("not an empty directory"), std::string::npos) << error;
  EXPECT_EQ(RunCli("destroy " + dir.path(), &output), 125);
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
  EXPECT_EQ(RunCli("create " + box + " --board nor9", &output), 125);
  EXPECT_NE(output.find("unknown board \"nor9\""), std::string::npos) << output;
  EXPECT_EQ(RunCli("--help", &output), 0);
}

}  // namespace
