// Network service stop/start, the process kill helpers, the MTU and the
// settings writer, run by the module probe inside an appliance sandbox per
// case: stub service scripts and daemons, a private process table and an
// "eth0" whose driver reports a chosen link speed.
#include <string>
#include <vector>

#include "sandbox_test_support.h"

namespace {

using sandbox::Scenario;
using Lines = std::vector<std::string>;

constexpr char kFtpd[] = "/usr/velt/sbin/ftpd";
constexpr char kSmbd[] = "/usr/velt/sbin/smbd";
constexpr char kNmbd[] = "/usr/velt/sbin/nmbd";

// Prints "live NAME" for every process called NAME (a shell pattern) that
// is not a zombie.
std::string Live(const std::string& names) {
  return "; for p in /proc/[0-9]*; do read -r c <$p/comm && read -r s <$p/stat && "
         "set -- ${s#*) } && [ \"$1\" != Z ] && case $c in " +
         names + ") echo \"live $c\";; esac; done 2>/dev/null; ";
}

// Each "S..." of `calls` as a call of that service script.
Lines Rc(Lines calls) {
  for (std::string& call : calls) {
    if (call[0] == 'S') call = "/usr/velt/etc/rc.d/" + call;
  }
  return calls;
}
Lines operator+(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The stub daemon script, installed under another daemon's name.
sandbox::RootFile StubDaemon(const std::string& program) {
  std::string script = testing_support::ReadFile(std::string(SANDBOX_STUB_DIR) + "/daemon.sh");
  for (size_t at; (at = script.find("@PROGRAM@")) != std::string::npos;) {
    script.replace(at, 9, program);
  }
  return {program, script, "", 0755};
}
void Daemons(Scenario* s, Lines daemons) {
  s->files.push_back(StubDaemon(kFtpd));
  s->daemons = daemons;
}
// Every switch on, the SMB and FTP daemons running.
void AllServices(Scenario* s) {
  for (const char* key : {"runnetbkp", "runmysql", "runmediaservice", "runweb", "runphoto"}) {
    sandbox::SetKeyValue(&s->settings, key, "yes");
  }
  sandbox::SetKeyValue(&s->default_settings, "supportssh", "yes");
  s->files.push_back({"/usr/velt/etc/download.conf", "download_enabled=\"yes\"\n", "", 0644});
  Daemons(s, {kSmbd, kNmbd, kFtpd});
}
std::function<void(Scenario*)> Mtu(int speed, const char* stored) {
  return [=](Scenario* s) {
    s->eth0_speed = speed;
    sandbox::SetKeyValue(&s->settings, "MTUValue", stored);
  };
}

// The stop and start of every service, in order. AppleTalk 0x1, SMB 0x4,
// FTP 0x8, MySQL 0x10, PostgreSQL 0x20, download 0x40, network backup 0x80,
// media 0x100, web 0x200, printing 0x800, music 0x1000, indexer 0x2000,
// scheduler 0x4000, thumbnails 0x8000.
const Lines kDatabaseStop = Rc({"S99iTunes.sh stop", "S86veltdms.sh stop", "S66veltindexd.sh stop",
                                "S25download.sh stop", "S20pgsql.sh stop"});
const Lines kDependentsStart = Rc({"S25download.sh start", "S66veltindexd.sh start",
                                   "S86veltdms.sh start", "S99iTunes.sh start"});
const Lines kTailStop =
    Rc({"S97apache-user.sh stop", "S55lpd.sh stop", "S04crond.sh stop", "S77veltmkthumbd.sh stop"});
const Lines kTailStart = Rc({"S97apache-user.sh start", "S55lpd.sh start", "S04crond.sh start",
                             "S77veltmkthumbd.sh start"});
const Lines kBackupStart = Rc({"S84rsyncd.sh start", "S85veltnetbkpd.sh start"});
const Lines kStopAll =
    Rc({"S81atalk.sh stop", std::string(kNmbd) + " [SIGTERM]"}) + kDatabaseStop +
    Rc({"S21mysql.sh stop", "S84rsyncd.sh stop", "S85veltnetbkpd.sh stop", "S95sshd.sh stop"}) +
    kTailStop;
const Lines kStartAll =
    Rc({"S81atalk.sh start", std::string(kSmbd) + " -D", std::string(kNmbd) + " -D",
        "S99ftpd.sh start", "S20pgsql.sh start", "S21mysql.sh start"}) +
    kDependentsStart + kBackupStart + Rc({"S95sshd.sh start"}) + kTailStart;

// Exported system log lines without their time, for `services`.
std::string Events(const std::string& verb, int level, const Lines& services) {
  std::string lines;
  for (const std::string& service : services) {
    lines +=
        std::to_string(level) + "\tSystem\t" + service + " service " + verb + "\tadmin\tprobe\n";
  }
  return lines;
}
const Lines kEnabled = {"FTP", "MySQL", "Media", "Download", "Network backup", "Web", "Photo"};
constexpr char kEventLog[] = "export enu /tmp/e; cut -f1,2,4- /tmp/e";

// clang-format off
const sandbox_test::ProbeCase kCases[] = {
    // Unknown masks and operations fail before any lock.
    {"StopAllThenStartAllRunEveryServiceInOrder", AllServices,
     "probe netservice -1 1" + Live("smbd|nmbd|ftpd") + "probe netservice -1 2 control 1 control 2 "
     "netservice 0 1 netservice -1 5 control 3 events 3 1 " + kEventLog,
     "netservice -1 1: 64509\nnetservice -1 2: 64509\ncontrol 1: 0\ncontrol 2: 0\n"
     "netservice 0 1: -1 error D00\nnetservice -1 5: -1 error D00\ncontrol 3: 0\n"
     "events 3 1: -1\nexport enu /tmp/e: 14\n" +
         Events("was stopped.", 1, kEnabled) + Events("was started.", 1, kEnabled),
     kStopAll + kStartAll + kStopAll + kStartAll},
    // Stop: AppleTalk needs 0 (0x1 clear), MySQL cannot run (0x10 clear),
    // the scheduler's status 5 is no failure to run. Start: AppleTalk counts
    // whatever it returns, SMB needs both daemons (0x4 clear), FTP is off
    // (0x8 clear), the backup daemons need 0 from every script (0x80 clear).
    {"FailingScriptsClearOnlyTheirOwnBits",
     [](Scenario* s) {
       for (const char* key : {"runnetbkp", "runmysql", "runweb", "runphoto"})
         sandbox::SetKeyValue(&s->settings, key, "yes");
       sandbox::SetKeyValue(&s->settings, "runftpd", "no");
       s->files.push_back({"/usr/velt/etc/rc.d/S21mysql.sh", "#!/bin/sh\n", "", 0644});
       s->files.push_back({kNmbd, "#!/bin/sh\n", "", 0644});
       s->stub_status = {{"S81atalk.sh.stop", 1}, {"S85veltnetbkpd.sh.start", 3}, {"S04crond.sh", 5}};
     },
     "probe netservice -1 1 netservice -1 2 stop start " + std::string(kEventLog),
     "netservice -1 1: 64492 error 2A00\nnetservice -1 2: 64353 error 2A00\nstop: 0 error 2A00\n"
     "start: 0 error 2A00\nexport enu /tmp/e: 8\n" +
         Events("could not be stopped.", 2, {"MySQL"}) +
         Events("was stopped.", 1, {"Network backup", "Web", "Photo"}) +
         Events("could not be started.", 2, {"MySQL", "Network backup"}) +
         Events("was started.", 1, {"Web", "Photo"}),
     []() {
       const Lines once = Rc({"S81atalk.sh stop"}) + kDatabaseStop +
                          Rc({"S84rsyncd.sh stop", "S85veltnetbkpd.sh stop"}) + kTailStop +
                          Rc({"S81atalk.sh start", std::string(kSmbd) + " -D", "S20pgsql.sh start"}) +
                          kDependentsStart + kBackupStart + kTailStart;
       return once + once;
     }()},
    // Only "yes" switches on; the stop kills the daemons all the same.
    {"SwitchesOtherThanYesKeepSambaFtpAndBackupDown",
     [](Scenario* s) {
       sandbox::SetKeyValue(&s->settings, "runsamba", "Yes");
       sandbox::SetKeyValue(&s->settings, "runftpd", "no");
       Daemons(s, {kSmbd, kFtpd});
     },
     "probe netservice 0x114 1" + Live("smbd|ftpd") + "probe netservice 0x114 2",
     "netservice 0x114 1: 12\nnetservice 0x114 2: 0\n"},
    // SMB reload: HUP to the pid in /var/run/smbd.pid (recorded when handled,
    // so the next call waits for it). FTP restart: SIGTERM, then the start
    // script. Printing restart: stop's 1 is no failure to run. Scheduler
    // reload: nothing. Media reload: "restart". Web reload: a program that
    // does not exist. AppleTalk reload: not running. Network backup: off.
    {"SingleServicesRestartAndReloadByTheirOwnRules",
     [](Scenario* s) {
       Daemons(s, {kSmbd, kNmbd, kFtpd});
       s->stub_status = {{"S55lpd.sh.stop", 1}};
     },
     "probe netservice 0x4 4; until grep -q SIGHUP /var/log/stub-calls.log; do usleep 10000; done; "
     "probe netservice 0x10 3 netservice 0x400 3 netservice 0x8 4 netservice 0x2 4 "
     "netservice 0x40 4 netservice 0x1 4 netservice 0x100 1",
     "netservice 0x4 4: 4\nnetservice 0x10 3: 8\nnetservice 0x400 3: 2048\nnetservice 0x8 4: 0\n"
     "netservice 0x2 4: 256\nnetservice 0x40 4: 0 error 2A00\nnetservice 0x1 4: 0\n"
     "netservice 0x100 1: 0\n",
     Rc({std::string(kSmbd) + " [SIGHUP]", std::string(kFtpd) + " [SIGTERM]", "S99ftpd.sh start",
         "S55lpd.sh stop", "S55lpd.sh start", "S86veltdms.sh restart"})},
    // Another process holds the settings lock 0x800, part of the service set.
    {"HeldLockMakesEveryWriterFail", Mtu(0, "9000"),
     "probe holdlock 0x800 6000 /tmp/held >/dev/null & until [ -e /tmp/held ]; do usleep 10000; "
     "done; probe control 1 control 2 setkey runftpd no mtu 1500; grep -e ^runftpd -e ^MTU "
     "/etc/veltinfo.conf",
     "control 1: -1 error 400\ncontrol 2: -1 error 400\nsetkey runftpd no: -1 error 400\n"
     "mtu 1500: -1 error 400\nrunftpd=\"yes\"\nMTUValue=\"9000\"\n"},
    // FTP daemons are started until one has a 9 in its pid: all go.
    {"KillAllAndTerminateReachEveryProcessOfTheName",
     [](Scenario* s) { Daemons(s, {kSmbd, kNmbd, kNmbd}); },
     "until SANDBOX_STUB_QUIET=1 /usr/velt/sbin/ftpd -D && grep -q 9 /var/run/ftpd.pid; do :; done;"
     " probe terminate nmbd 0 killall ftpd terminate smbd 1 terminate nosuch 0 killall nosuch "
     "findpids ftpd" + Live("nmbd|ftpd"),
     "terminate nmbd 0: 2\nkillall ftpd: 0\nterminate smbd 1: 1\nterminate nosuch 0: 0\n"
     "killall nosuch: 0\nfindpids ftpd: 0\n",
     {std::string(kNmbd) + " [SIGTERM]", std::string(kNmbd) + " [SIGTERM]"}},
    // A kill that does nothing: the stop gives up (after five seconds).
    {"KillAllGivesUpOnAProcessThatSurvives", [](Scenario* s) { Daemons(s, {kFtpd}); },
     "rm /bin/kill && echo '#!/bin/sh' >/bin/kill && chmod 755 /bin/kill && probe killall ftpd",
     "killall ftpd: -1\n"},
    {"MtuOnFastEthernetIsOnlyStored", Mtu(100, "9000"), "probe mtu 1500; grep ^MTU /etc/veltinfo.conf",
     "mtu 1500: 0\nMTUValue=\"1500\"\n"},
    {"MtuOnGigabitRunsIfconfigAndStores", Mtu(1000, "1500"),
     "probe mtu 9000; grep ^MTU /etc/veltinfo.conf", "mtu 9000: 0\nMTUValue=\"9000\"\n",
     {"/sbin/ifconfig eth0 mtu 9000"}},
    {"MtuWhoseIfconfigCannotRunFailsButStores", Mtu(1000, "9000"),
     "chmod 644 /sbin/ifconfig; probe mtu 1500; grep ^MTU /etc/veltinfo.conf",
     "mtu 1500: -1 error 2A00\nMTUValue=\"1500\"\n"},
    {"MtuAtAnUnknownSpeedFailsButStores", Mtu(2500, "9000"),
     "probe mtu 4000; grep ^MTU /etc/veltinfo.conf", "mtu 4000: -1\nMTUValue=\"4000\"\n"},
    {"MtuWithoutEthernetFailsButStores", Mtu(0, "9000"),
     "probe mtu 1500; grep ^MTU /etc/veltinfo.conf", "mtu 1500: -1 error A00\nMTUValue=\"1500\"\n"},
    // Existing keys rewritten in place as KEY="value" (comments kept, later
    // duplicates dropped), new keys appended.
    {"SetKeyValueWritesQuotedLines",
     [](Scenario* s) {
       s->files.push_back({"/etc/veltinfo.conf",
                           "runftpd=\"yes\"\n# runftpd=\"x\"\nMTUValue = 1500\nrunftpd=\"dup\"\n",
                           "", 0644});
     },
     "probe setkey runftpd no setkey MTUValue 9000 setkey newkey 'a b' setkey empty ''; "
     "cat /etc/veltinfo.conf",
     "setkey runftpd no: 0\nsetkey MTUValue 9000: 0\nsetkey newkey a b: 0\nsetkey empty : 0\n"
     "runftpd=\"no\"\n# runftpd=\"x\"\nMTUValue=\"9000\"\nnewkey=\"a b\"\nempty=\"\"\n"},
};
// clang-format on

class ServicesTest : public sandbox_test::ProbeTest {
 protected:
  ServicesTest() : ProbeTest(MODULE_PROBE, FAST_SLEEP_LIB, /*check_errors=*/false) {}
};

TEST_P(ServicesTest, Run) { RunCase(); }

INSTANTIATE_TEST_SUITE_P(Cases, ServicesTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<sandbox_test::ProbeCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
