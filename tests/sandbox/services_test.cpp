// Network service stop/start, the process kill helpers, the MTU and the
// settings writer, run by the driver program sdk_probe inside appliance
// sandboxes: stub service scripts and daemons, a private process table and
// an "eth0" whose driver reports a chosen link speed.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_test_support.h"
#include "sim/sandbox.h"
#include "test_support.h"

namespace {

using sandbox::RunResult;
using sandbox::Sandbox;
using sandbox::Scenario;
using Lines = std::vector<std::string>;
using sandbox_test::Describe;
using sandbox_test::SplitLines;

constexpr char kProbe[] = "/sdk_probe";
constexpr char kRc[] = "/usr/velt/etc/rc.d/";
constexpr char kFtpd[] = "/usr/velt/sbin/ftpd";
constexpr char kSmbd[] = "/usr/velt/sbin/smbd";
constexpr char kNmbd[] = "/usr/velt/sbin/nmbd";

// Lists every process as "proc <pid> <name> <state>".
constexpr char kProcessList[] =
    "for p in /proc/[0-9]*; do "
    "read -r c <$p/comm 2>/dev/null && read -r s <$p/stat 2>/dev/null && "
    "{ set -- ${s#*) }; echo \"proc ${p#/proc/} $c $1\"; }; done";

// Waits up to 2 seconds until no live process is called $1: a SIGKILL takes
// effect after the kill call returns.
constexpr char kWaitUntilGone[] =
    "gone() { name=$1; n=0; while [ $n -lt 200 ]; do live=0; "
    "for p in /proc/[0-9]*; do "
    "if read -r c <$p/comm 2>/dev/null && [ \"$c\" = \"$name\" ] && read -r s <$p/stat "
    "2>/dev/null; "
    "then set -- ${s#*) }; [ \"$1\" != Z ] && live=1; fi; done; "
    "[ $live = 0 ] && return 0; usleep 10000; n=$((n + 1)); done; return 1; }; gone";

std::string Rc(const std::string& call) { return kRc + call; }

Lines RcCalls(const Lines& calls) {
  Lines lines;
  for (const std::string& call : calls) lines.push_back(Rc(call));
  return lines;
}

Lines Concat(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// The probe's result lines ("<call>: result <r> error <code>").
Lines ProbeResults(const RunResult& result) {
  Lines lines;
  for (const std::string& line : SplitLines(result.out)) {
    if (line.find(": result ") != std::string::npos) lines.push_back(line);
  }
  return lines;
}

// The probe's syslog messages as "<facility.priority> <message>", the source
// line number of the message replaced by "N".
Lines ProbeMessages(const RunResult& result) {
  return sandbox_test::ProgramMessages(result, "sdk_probe");
}

// True for a time written with "%Y/%m/%d %H:%M:%S".
bool IsExportTime(const std::string& text) {
  const std::string shape = "dddd/dd/dd dd:dd:dd";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == 'd' ? !digit : text[i] != shape[i]) return false;
  }
  return true;
}

// The lines of an exported event log without their time (which must have
// the export's format): "level\tsource\ttext\tuser\tprogram".
Lines ExportedEvents(const std::string& content) {
  Lines events;
  for (const std::string& line : SplitLines(content)) {
    std::vector<std::string> fields;
    std::istringstream stream(line);
    for (std::string field; std::getline(stream, field, '\t');) fields.push_back(field);
    if (fields.size() != 6 || !IsExportTime(fields[2])) {
      ADD_FAILURE() << "not an exported event: " << line;
      continue;
    }
    events.push_back(fields[0] + "\t" + fields[1] + "\t" + fields[3] + "\t" + fields[4] + "\t" +
                     fields[5]);
  }
  return events;
}

// Pids of the live (not zombie) processes called `name` in a process list.
std::set<int> LiveProcesses(const std::string& out, const std::string& name) {
  std::set<int> pids;
  for (const std::string& line : SplitLines(out)) {
    std::istringstream fields(line);
    std::string tag, comm, state;
    int pid = 0;
    if (fields >> tag >> pid >> comm >> state && tag == "proc" && comm == name && state != "Z") {
      pids.insert(pid);
    }
  }
  return pids;
}

// The stub daemon script, installed under another daemon's name.
sandbox::RootFile StubDaemon(const std::string& program) {
  std::string script = testing_support::ReadFile(std::string(SANDBOX_STUB_DIR) + "/daemon.sh");
  const std::string placeholder = "@PROGRAM@";
  for (size_t at = script.find(placeholder); at != std::string::npos;
       at = script.find(placeholder, at + program.size())) {
    script.replace(at, placeholder.size(), program);
  }
  return {program, script, "", 0755};
}

class ServicesTest : public sandbox_test::SandboxFixture {
 protected:
  ServicesTest() : SandboxFixture("services-test") {}

  // A sandbox with the probe at /sdk_probe; null after a recorded failure.
  Sandbox* Build(Scenario scenario) {
    scenario.files.push_back({kProbe, "", SDK_PROBE, 0});
    return SandboxFixture::Build(scenario);
  }

  RunResult Shell(const std::string& script) {
    sandbox::RunOptions options;
    options.timeout_seconds = 60;
    return box_->Run({"/bin/sh", "-c", script}, options);
  }

  // Shell, and how many whole seconds the run took.
  RunResult TimedShell(const std::string& script, long* seconds) {
    const auto begin = std::chrono::steady_clock::now();
    RunResult result = Shell(script);
    *seconds = static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin)
            .count());
    return result;
  }

  // Replaces the busybox link /sbin/ifconfig by a script that records its
  // call like a stub and then does the work. (A scenario file would be
  // written through the link into busybox itself.)
  bool InstallRecordingIfconfig() {
    const std::string path = box_->RootPath("/sbin/ifconfig");
    if (unlink(path.c_str()) != 0) return false;
    testing_support::WriteFile(path,
                               "#!/bin/sh\necho \"/sbin/ifconfig $*\" >>/var/log/stub-calls.log\n"
                               "exec /bin/busybox ifconfig \"$@\"\n");
    return chmod(path.c_str(), 0755) == 0;
  }
};

// Every switch on, the SMB and FTP daemons running.
Scenario AllServicesScenario() {
  Scenario scenario;
  for (const char* key : {"runnetbkp", "runmysql", "runmediaservice", "runweb", "runphoto"}) {
    sandbox::SetKeyValue(&scenario.settings, key, "yes");
  }
  sandbox::SetKeyValue(&scenario.default_settings, "supportssh", "yes");
  scenario.files.push_back({"/usr/velt/etc/download.conf", "download_enabled=\"yes\"\n", "", 0644});
  scenario.files.push_back(StubDaemon(kFtpd));
  scenario.daemons = {kSmbd, kNmbd, kFtpd};
  return scenario;
}

// ------------------------------------------------------------ stop and start

TEST_F(ServicesTest, StopAllThenStartAllRunEveryServiceInOrder) {
  ASSERT_NE(Build(AllServicesScenario()), nullptr);

  const RunResult result = Shell(std::string(kProbe) + " netservice -1 1; " + kProcessList + "; " +
                                 kProbe + " netservice -1 2");

  ASSERT_EQ(result.status, 0) << Describe(result);
  // AppleTalk 0x1, SMB 0x4, FTP 0x8, MySQL 0x10, PostgreSQL 0x20, download
  // 0x40, network backup 0x80, media 0x100, web 0x200, printing 0x800, music
  // 0x1000, indexer 0x2000, scheduler 0x4000, thumbnails 0x8000.
  EXPECT_EQ(ProbeResults(result), (Lines{"netservice -1 1: result 64509 error 0",
                                         "netservice -1 2: result 64509 error 0"}));
  const Lines stop = Concat(
      {RcCalls({"S81atalk.sh stop"}),
       {std::string(kNmbd) + " [SIGTERM]"},
       RcCalls({"S99iTunes.sh stop", "S86veltdms.sh stop", "S66veltindexd.sh stop",
                "S25download.sh stop", "S20pgsql.sh stop", "S21mysql.sh stop", "S84rsyncd.sh stop",
                "S85veltnetbkpd.sh stop", "S95sshd.sh stop", "S97apache-user.sh stop",
                "S55lpd.sh stop", "S04crond.sh stop", "S77veltmkthumbd.sh stop"})});
  const Lines start =
      Concat({RcCalls({"S81atalk.sh start"}),
              {std::string(kSmbd) + " -D", std::string(kNmbd) + " -D"},
              RcCalls({"S99ftpd.sh start", "S20pgsql.sh start", "S21mysql.sh start",
                       "S25download.sh start", "S66veltindexd.sh start", "S86veltdms.sh start",
                       "S99iTunes.sh start", "S84rsyncd.sh start", "S85veltnetbkpd.sh start",
                       "S95sshd.sh start", "S97apache-user.sh start", "S55lpd.sh start",
                       "S04crond.sh start", "S77veltmkthumbd.sh start"})});
  EXPECT_EQ(result.stub_calls, Concat({stop, start})) << Describe(result);
  // Between the stop and the start no daemon was left.
  for (const char* name : {"smbd", "nmbd", "ftpd"}) {
    EXPECT_EQ(LiveProcesses(result.out, name), std::set<int>()) << name;
  }
  EXPECT_EQ(ProbeMessages(result), Lines());
}

TEST_F(ServicesTest, BadArgumentsFailBeforeAnyLockAndOtherOpsDoNothing) {
  ASSERT_NE(Build(AllServicesScenario()), nullptr);

  const RunResult result = Shell(std::string(kProbe) +
                                 " netservice 0 1 netservice -1 5 control 3 control 4"
                                 " events 3 64509 events 0 64509");

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(ProbeResults(result),
            (Lines{"netservice 0 1: result -1 error D00", "netservice -1 5: result -1 error D00",
                   "control 3: result 0 error 0", "control 4: result 0 error 0",
                   "events 3 64509: result -1 error 0", "events 0 64509: result -1 error 0"}));
  EXPECT_EQ(ProbeMessages(result), (Lines{"user.err VELTNetService(N):  bad parameter",
                                          "user.err VELTNetService(N):  bad parameter"}));
  EXPECT_EQ(result.stub_calls, Lines());
  EXPECT_FALSE(testing_support::FileExists(box_->RootPath("/tmp/lock")));
  EXPECT_FALSE(testing_support::FileExists(box_->RootPath("/var/log/veltsys.log")));
}

TEST_F(ServicesTest, ControlRecordsOneEventPerEnabledService) {
  ASSERT_NE(Build(AllServicesScenario()), nullptr);

  const RunResult result =
      Shell(std::string(kProbe) + " control 1 control 2 export enu /tmp/events.txt");

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(ProbeResults(result),
            (Lines{"control 1: result 0 error 0", "control 2: result 0 error 0",
                   "export enu /tmp/events.txt: result 14 error 0"}));
  const Lines texts = {
      "FTP service was {}.",      "MySQL service was {}.",          "Media service was {}.",
      "Download service was {}.", "Network backup service was {}.", "Web service was {}.",
      "Photo service was {}."};
  Lines expected;
  for (const char* verb : {"stopped", "started"}) {
    for (std::string text : texts) {
      text.replace(text.find("{}"), 2, verb);
      expected.push_back("1\tSystem\t" + text + "\tadmin\tsdk_probe");
    }
  }
  EXPECT_EQ(ExportedEvents(RootFile("/tmp/events.txt")), expected);
}

TEST_F(ServicesTest, FailingScriptsClearOnlyTheirOwnBits) {
  Scenario scenario;
  for (const char* key : {"runnetbkp", "runmysql", "runweb", "runphoto"}) {
    sandbox::SetKeyValue(&scenario.settings, key, "yes");
  }
  sandbox::SetKeyValue(&scenario.settings, "runftpd", "no");
  // Not executable: the script cannot be run at all.
  scenario.files.push_back({Rc("S21mysql.sh"), "#!/bin/sh\nexit 0\n", "", 0644});
  scenario.stub_status = {
      {"S81atalk.sh.stop", 1}, {"S85veltnetbkpd.sh.start", 3}, {"S04crond.sh", 5}};
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult masks = Shell(std::string(kProbe) + " netservice -1 1 netservice -1 2");
  const RunResult events = Shell(std::string(kProbe) + " stop start export enu /tmp/events.txt");

  ASSERT_EQ(masks.status, 0) << Describe(masks);
  // Stop: AppleTalk needs 0 (0x1 clear), MySQL could not run (0x10 clear);
  // the scheduler's status 5 is not a failure to run. Start: AppleTalk counts
  // whatever it returns, FTP is switched off (0x8 clear), the backup daemons
  // need 0 from every script (0x80 clear).
  // The script that could not be run leaves its error code behind.
  EXPECT_EQ(ProbeResults(masks), (Lines{"netservice -1 1: result 64492 error 2A00",
                                        "netservice -1 2: result 64357 error 2A00"}));
  const Lines stop = RcCalls(
      {"S81atalk.sh stop", "S99iTunes.sh stop", "S86veltdms.sh stop", "S66veltindexd.sh stop",
       "S25download.sh stop", "S20pgsql.sh stop", "S84rsyncd.sh stop", "S85veltnetbkpd.sh stop",
       "S97apache-user.sh stop", "S55lpd.sh stop", "S04crond.sh stop", "S77veltmkthumbd.sh stop"});
  const Lines start =
      Concat({RcCalls({"S81atalk.sh start"}),
              {std::string(kSmbd) + " -D", std::string(kNmbd) + " -D"},
              RcCalls({"S20pgsql.sh start", "S25download.sh start", "S66veltindexd.sh start",
                       "S86veltdms.sh start", "S99iTunes.sh start", "S84rsyncd.sh start",
                       "S85veltnetbkpd.sh start", "S97apache-user.sh start", "S55lpd.sh start",
                       "S04crond.sh start", "S77veltmkthumbd.sh start"})});
  EXPECT_EQ(masks.stub_calls, Concat({stop, start})) << Describe(masks);

  ASSERT_EQ(events.status, 0) << Describe(events);
  EXPECT_EQ(ProbeResults(events), (Lines{"stop: result 0 error 2A00", "start: result 0 error 2A00",
                                         "export enu /tmp/events.txt: result 8 error 0"}));
  // Only the switched-on services, in their order: MySQL, network backup,
  // web, photo; failures at level 2.
  const std::string tail = "\tadmin\tsdk_probe";
  EXPECT_EQ(ExportedEvents(RootFile("/tmp/events.txt")),
            (Lines{"2\tSystem\tMySQL service could not be stopped." + tail,
                   "1\tSystem\tNetwork backup service was stopped." + tail,
                   "1\tSystem\tWeb service was stopped." + tail,
                   "1\tSystem\tPhoto service was stopped." + tail,
                   "2\tSystem\tMySQL service could not be started." + tail,
                   "2\tSystem\tNetwork backup service could not be started." + tail,
                   "1\tSystem\tWeb service was started." + tail,
                   "1\tSystem\tPhoto service was started." + tail}));
}

TEST_F(ServicesTest, SwitchesOtherThanYesKeepSambaFtpAndBackupDownButStopStillKills) {
  Scenario scenario;
  sandbox::SetKeyValue(&scenario.settings, "runsamba", "Yes");
  sandbox::SetKeyValue(&scenario.settings, "runftpd", "no");
  sandbox::SetKeyValue(&scenario.settings, "runnetbkp", "no");
  scenario.files.push_back(StubDaemon(kFtpd));
  scenario.daemons = {kSmbd, kFtpd};
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result = Shell(std::string(kProbe) + " netservice -1 1; " + kProcessList + "; " +
                                 kProbe + " netservice -1 2");

  ASSERT_EQ(result.status, 0) << Describe(result);
  // Stop: SMB 0x4 and FTP 0x8 set (the daemons were killed), no backup
  // 0x80. Start: none of the three.
  EXPECT_EQ(ProbeResults(result), (Lines{"netservice -1 1: result 64381 error 0",
                                         "netservice -1 2: result 64369 error 0"}));
  EXPECT_EQ(LiveProcesses(result.out, "smbd"), std::set<int>());
  EXPECT_EQ(LiveProcesses(result.out, "ftpd"), std::set<int>());
  const Lines database_stop = {"S99iTunes.sh stop",   "S86veltdms.sh stop", "S66veltindexd.sh stop",
                               "S25download.sh stop", "S20pgsql.sh stop",   "S21mysql.sh stop"};
  const Lines database_start = {"S20pgsql.sh start",    "S21mysql.sh start",
                                "S25download.sh start", "S66veltindexd.sh start",
                                "S86veltdms.sh start",  "S99iTunes.sh start"};
  EXPECT_EQ(result.stub_calls,
            Concat({RcCalls({"S81atalk.sh stop"}), RcCalls(database_stop),
                    RcCalls({"S97apache-user.sh stop", "S55lpd.sh stop", "S04crond.sh stop",
                             "S77veltmkthumbd.sh stop", "S81atalk.sh start"}),
                    RcCalls(database_start),
                    RcCalls({"S97apache-user.sh start", "S55lpd.sh start", "S04crond.sh start",
                             "S77veltmkthumbd.sh start"})}))
      << Describe(result);
}

TEST_F(ServicesTest, SingleServicesRestartAndReloadByTheirOwnRules) {
  Scenario scenario;
  scenario.files.push_back(StubDaemon(kFtpd));
  scenario.daemons = {kSmbd, kNmbd, kFtpd};
  scenario.stub_status = {{"S55lpd.sh.stop", 1}};
  ASSERT_NE(Build(scenario), nullptr);

  // 0x4 SMB, 0x10 FTP, 0x400 printing, 0x8 scheduler, 0x2 media, 0x40 web.
  // smbd records the SIGHUP when it handles it: the next call waits for that.
  const RunResult result = Shell(std::string(kProbe) +
                                 " netservice 0x4 4; n=0; "
                                 "while ! grep -q 'smbd \\[SIGHUP\\]' /var/log/stub-calls.log && "
                                 "[ $n -lt 300 ]; do usleep 10000; n=$((n + 1)); done; " +
                                 kProbe +
                                 " netservice 0x10 3 netservice 0x400 3"
                                 " netservice 0x8 4 netservice 0x2 4 netservice 0x40 4"
                                 " netservice 0x1 4 netservice 0x100 1");

  ASSERT_EQ(result.status, 0) << Describe(result);
  // SMB reload: HUP to the pid in /var/run/smbd.pid. FTP restart: SIGTERM,
  // then the start script. Printing restart: stop returned 1 (not a failure
  // to run), then start. Scheduler reload: nothing. Media reload: "restart".
  // Web reload: a program that does not exist. AppleTalk reload: the server
  // is not running. Network backup: switched off.
  EXPECT_EQ(ProbeResults(result),
            (Lines{"netservice 0x4 4: result 4 error 0", "netservice 0x10 3: result 8 error 0",
                   "netservice 0x400 3: result 2048 error 0", "netservice 0x8 4: result 0 error 0",
                   "netservice 0x2 4: result 256 error 0", "netservice 0x40 4: result 0 error 2A00",
                   "netservice 0x1 4: result 0 error 0", "netservice 0x100 1: result 0 error 0"}));
  EXPECT_EQ(result.stub_calls,
            (Lines{std::string(kSmbd) + " [SIGHUP]", std::string(kFtpd) + " [SIGTERM]",
                   Rc("S99ftpd.sh start"), Rc("S55lpd.sh stop"), Rc("S55lpd.sh start"),
                   Rc("S86veltdms.sh restart")}))
      << Describe(result);
}

TEST_F(ServicesTest, HeldLocksMakeEveryWriterFailWithoutTouchingAnything) {
  Scenario scenario;
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  ASSERT_NE(Build(scenario), nullptr);
  const std::string settings = RootFile("/etc/veltinfo.conf");

  // Another process holds the settings lock 0x800, part of the service set.
  const RunResult result =
      Shell(std::string(kProbe) + " holdlock 0x800 60 /tmp/held >/dev/null & " +
            "while [ ! -e /tmp/held ]; do usleep 10000; done; " + kProbe +
            " control 1 control 2 setkey runftpd no mtu 1500");

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(ProbeResults(result),
            (Lines{"control 1: result -1 error 400", "control 2: result -1 error 400",
                   "setkey runftpd no: result -1 error 400", "mtu 1500: result -1 error 400"}));
  const Lines syslog = ProbeMessages(result);
  ASSERT_EQ(syslog.size(), 8u) << Describe(result);
  EXPECT_EQ(syslog[0], "user.err VELTNetService(N): lock failed");
  EXPECT_EQ(syslog[1], "user.err ErrNetServiceStop(N): VELTNetService return -1");
  // Both operations say "stop"; the errno text depends on the last failure.
  EXPECT_EQ(syslog[2].rfind("user.err sdk/veltservice(N)Failed to stop net  "
                            "error=1024 ,strerr=",
                            0),
            0u)
      << syslog[2];
  EXPECT_EQ(syslog[3], "user.err VELTNetService(N): lock failed");
  EXPECT_EQ(syslog[4], "user.err ErrNetServiceStart(N): VELTNetService return -1");
  EXPECT_EQ(syslog[5].rfind("user.err sdk/veltservice(N)Failed to stop net  "
                            "error=1024 ,strerr=",
                            0),
            0u)
      << syslog[5];
  EXPECT_EQ(syslog[6], "user.err VELTNetSetMTUValue(N): Can not get EthInfo(A00).");
  EXPECT_EQ(syslog[7], "user.err sdk/veltnet1 (N) Failed to lock veltinfo(400)");
  EXPECT_EQ(result.stub_calls, Lines());
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), settings);
  EXPECT_FALSE(testing_support::FileExists(box_->RootPath("/var/log/veltsys.log")));
}

// ------------------------------------------------------------ processes

TEST_F(ServicesTest, KillAllAndTerminateReachEveryProcessOfTheName) {
  Scenario scenario;
  scenario.files.push_back(StubDaemon(kFtpd));
  scenario.daemons = {kSmbd, kNmbd, kNmbd, kFtpd, kFtpd};
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result =
      Shell(std::string(kProcessList) + "; " + kProbe +
            " findpids ftpd terminate nmbd 0 killall ftpd terminate smbd 1 terminate nosuch 0"
            " killall nosuch findpids ftpd; " +
            kWaitUntilGone + " smbd; echo after; " + kProcessList);

  ASSERT_EQ(result.status, 0) << Describe(result);
  const std::string before = result.out.substr(0, result.out.find("after\n"));
  const std::string after = result.out.substr(result.out.find("after\n"));
  const std::set<int> ftpd = LiveProcesses(before, "ftpd");
  ASSERT_EQ(ftpd.size(), 2u) << result.out;
  std::string listed = "pids 2";
  for (int pid : ftpd) listed += " " + std::to_string(pid);
  const Lines out = SplitLines(result.out);
  EXPECT_NE(std::find(out.begin(), out.end(), listed), out.end()) << result.out;
  EXPECT_EQ(ProbeResults(result),
            (Lines{"findpids ftpd: result 2 error 0", "terminate nmbd 0: result 2 error 0",
                   "killall ftpd: result 0 error 0", "terminate smbd 1: result 1 error 0",
                   "terminate nosuch 0: result 0 error 0", "killall nosuch: result 0 error 0",
                   "findpids ftpd: result 0 error 0"}));
  // SIGTERM is recorded by each nmbd; SIGKILL cannot be.
  EXPECT_EQ(result.stub_calls,
            (Lines{std::string(kNmbd) + " [SIGTERM]", std::string(kNmbd) + " [SIGTERM]"}));
  for (const char* name : {"smbd", "nmbd", "ftpd"}) {
    EXPECT_EQ(LiveProcesses(after, name), std::set<int>()) << name;
  }
}

TEST_F(ServicesTest, KillAllGivesUpAfterFiveSecondsOnAProcessThatSurvives) {
  Scenario scenario;
  scenario.files.push_back(StubDaemon(kFtpd));
  scenario.daemons = {kFtpd};
  ASSERT_NE(Build(scenario), nullptr);
  // A kill that does nothing: the daemon outlives every pass.
  const std::string kill = box_->RootPath("/bin/kill");
  ASSERT_EQ(unlink(kill.c_str()), 0);
  testing_support::WriteFile(kill, "#!/bin/sh\nexit 0\n");
  ASSERT_EQ(chmod(kill.c_str(), 0755), 0);

  long seconds = 0;
  const RunResult result = TimedShell(std::string(kProbe) + " killall ftpd", &seconds);

  EXPECT_EQ(ProbeResults(result), Lines{"killall ftpd: result -1 error 0"}) << Describe(result);
  EXPECT_GE(seconds, 5);
  EXPECT_LT(seconds, 20);
}

// ------------------------------------------------------------ MTU and settings

TEST_F(ServicesTest, MtuOnFastEthernetIsOnlyStored) {
  Scenario scenario;
  scenario.eth0_speed = 100;
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  ASSERT_NE(Build(scenario), nullptr);
  ASSERT_TRUE(InstallRecordingIfconfig());
  std::string expected = RootFile("/etc/veltinfo.conf");
  ASSERT_NE(expected.find("\nMTUValue=\"9000\"\n"), std::string::npos) << expected;
  expected.replace(expected.find("MTUValue=\"9000\""), 15, "MTUValue=\"1500\"");

  long seconds = 0;
  const RunResult result = TimedShell(
      std::string(kProbe) + " mtu 1500; /bin/busybox ifconfig eth0 | grep -o 'MTU:[0-9]*'",
      &seconds);

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "mtu 1500: result 0 error 0\nMTU:1500\n");
  EXPECT_EQ(result.stub_calls, Lines());
  EXPECT_EQ(ProbeMessages(result), Lines());
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);
  EXPECT_LT(seconds, 4);
}

TEST_F(ServicesTest, MtuOnGigabitRunsIfconfigAndStores) {
  Scenario scenario;
  scenario.eth0_speed = 1000;
  ASSERT_NE(Build(scenario), nullptr);
  ASSERT_TRUE(InstallRecordingIfconfig());
  std::string expected = RootFile("/etc/veltinfo.conf");
  expected.replace(expected.find("MTUValue=\"1500\""), 15, "MTUValue=\"9000\"");

  long seconds = 0;
  const RunResult result = TimedShell(
      std::string(kProbe) + " mtu 9000; /bin/busybox ifconfig eth0 | grep -o 'MTU:[0-9]*'",
      &seconds);

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(result.out, "mtu 9000: result 0 error 0\nMTU:9000\n");
  EXPECT_EQ(result.stub_calls, Lines{"/sbin/ifconfig eth0 mtu 9000"});
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);
  EXPECT_GE(seconds, 5);

  // An ifconfig that cannot be run: logged, -1, the value still stored.
  ASSERT_EQ(0, chmod(box_->RootPath("/sbin/ifconfig").c_str(), 0644));
  const RunResult failed = Shell(std::string(kProbe) + " mtu 1500");
  EXPECT_EQ(failed.out, "mtu 1500: result -1 error 2A00\n") << Describe(failed);
  EXPECT_EQ(ProbeMessages(failed),
            (Lines{"user.err sdk/veltnet1 (N) Failed to ifconfig MTU Value",
                   "user.err sdk/veltnet1 (N) Failed to ifconfig MTU Value(2A00)"}));
  expected.replace(expected.find("MTUValue=\"9000\""), 15, "MTUValue=\"1500\"");
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);
}

TEST_F(ServicesTest, MtuWithoutEthernetFactsFailsButStores) {
  Scenario scenario;
  scenario.eth0_speed = 2500;  // a speed the call does not know
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  ASSERT_NE(Build(scenario), nullptr);
  ASSERT_TRUE(InstallRecordingIfconfig());
  std::string expected = RootFile("/etc/veltinfo.conf");
  expected.replace(expected.find("MTUValue=\"9000\""), 15, "MTUValue=\"4000\"");

  const RunResult unknown = Shell(std::string(kProbe) + " mtu 4000");

  EXPECT_EQ(unknown.out, "mtu 4000: result -1 error 0\n") << Describe(unknown);
  EXPECT_EQ(ProbeMessages(unknown), Lines{"user.err VELTNetSetMTUValue(N): Speed is Unknown(0)."});
  EXPECT_EQ(unknown.stub_calls, Lines());
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);

  // Without eth0 at all.
  Scenario without = scenario;
  without.eth0_speed = 0;
  std::string error;
  ASSERT_TRUE(box_->Destroy(false, &error)) << error;
  box_.reset();
  ASSERT_NE(Build(without), nullptr);
  ASSERT_TRUE(InstallRecordingIfconfig());
  expected = RootFile("/etc/veltinfo.conf");
  expected.replace(expected.find("MTUValue=\"9000\""), 15, "MTUValue=\"1500\"");

  const RunResult missing = Shell(std::string(kProbe) + " mtu 1500");

  EXPECT_EQ(missing.out, "mtu 1500: result -1 error A00\n") << Describe(missing);
  EXPECT_EQ(ProbeMessages(missing),
            Lines{"user.err VELTNetSetMTUValue(N): Can not get EthInfo(A00)."});
  EXPECT_EQ(missing.stub_calls, Lines());
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);
}

TEST_F(ServicesTest, SetKeyValueWritesQuotedLinesForNewAndExistingKeys) {
  Scenario scenario;
  scenario.files.push_back({"/etc/veltinfo.conf",
                            "unique=\"veltara_powerpc_1hd\"\n"
                            "runftpd=\"yes\"\n"
                            "# runftpd=\"comment\"\n"
                            "MTUValue = 1500\n"
                            "runftpd=\"duplicate\"\n",
                            "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result = Shell(std::string(kProbe) +
                                 " setkey runftpd no setkey MTUValue 9000 setkey newkey 'a b'"
                                 " setkey empty ''");

  ASSERT_EQ(result.status, 0) << Describe(result);
  EXPECT_EQ(ProbeResults(result),
            (Lines{"setkey runftpd no: result 0 error 0", "setkey MTUValue 9000: result 0 error 0",
                   "setkey newkey a b: result 0 error 0", "setkey empty : result 0 error 0"}));
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"),
            "unique=\"veltara_powerpc_1hd\"\n"
            "runftpd=\"no\"\n"
            "# runftpd=\"comment\"\n"
            "MTUValue=\"9000\"\n"
            "newkey=\"a b\"\n"
            "empty=\"\"\n");
  EXPECT_TRUE(testing_support::FileExists(box_->RootPath("/tmp/lock/lock_veltinfo")));
  EXPECT_EQ(ProbeMessages(result), Lines());
}

}  // namespace
