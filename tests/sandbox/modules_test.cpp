// The appliance modules and the update's migration steps, run by the module
// probe inside an appliance sandbox per case: network service stop/start,
// the process kill helpers, the MTU and the settings writer (stub service
// scripts and daemons, a private process table, an "eth0" whose driver
// reports a chosen link speed); the configuration migration and the FTP
// system accounts (real files under /etc, /usr/velt and /volume1, stub
// database tools, the syslog and the system event log).
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_test_support.h"
#include "test_support.h"

namespace {

// One row of a table of module runs: a shell command line run in a sandbox
// of its own, with the module probe (tests/sandbox/probe.cpp) as "probe" and
// an /sbin/ifconfig that records its calls with arguments as a stub does.
struct ProbeCase {
  const char* name;
  std::function<void(sandbox::Scenario*)> setup;
  std::string script;
  std::string out;                       // everything the command prints
  std::vector<std::string> calls = {};   // every stub call, in order
  std::vector<std::string> errors = {};  // the probe's error messages, each by its start
  // The pauses as in production: signalled daemons get the time to exit
  // before the next pass looks for them.
  bool real_pauses = false;
};

// Replaces the busybox link (which a scenario file would be written through).
const std::string kIfconfig =
    "rm /sbin/ifconfig && printf '#!/bin/sh\\n[ $# = 1 ] || echo \"/sbin/ifconfig $*\" "
    ">>/var/log/stub-calls.log\\nexec /bin/busybox ifconfig \"$@\"\\n' >/sbin/ifconfig && "
    "chmod 755 /sbin/ifconfig && ";

void PrintTo(const ProbeCase& c, std::ostream* os) { *os << c.name; }

// `kCheckErrors`: the probe's error messages are compared too, each by its start.
template <bool kCheckErrors>
class ProbeTest : public sandbox_test::SandboxFixture,
                  public ::testing::WithParamInterface<ProbeCase> {
 protected:
  ProbeTest() : SandboxFixture("probe-test") {}

  void RunCase() {
    const ProbeCase& c = GetParam();
    sandbox::Scenario scenario;
    if (c.setup) c.setup(&scenario);
    scenario.files.push_back({"/usr/bin/probe", "", MODULE_PROBE, 0});
    // Shortens the programs' pauses; see fast_sleep.cpp.
    scenario.files.push_back({"/usr/local/lib/fast_sleep.so", "", FAST_SLEEP_LIB, 0});
    ASSERT_NE(Build(scenario), nullptr);
    sandbox::RunOptions options;
    options.env = {"ASAN_OPTIONS=verify_asan_link_order=0"};
    if (!c.real_pauses) options.env.push_back("LD_PRELOAD=/usr/local/lib/fast_sleep.so");
    const sandbox::RunResult result = box_->Run({"/bin/sh", "-c", kIfconfig + c.script}, options);
    ASSERT_TRUE(result.ok) << sandbox_test::Describe(result);
    EXPECT_EQ(result.out, c.out) << sandbox_test::Describe(result);
    EXPECT_EQ(result.stub_calls, c.calls) << sandbox_test::Describe(result);
    if (!kCheckErrors) return;
    std::vector<std::string> errors;  // each cut to the length of the one expected
    for (const std::string& m : sandbox_test::ProgramMessages(result, "probe")) {
      const size_t i = errors.size(), n = i < c.errors.size() ? c.errors[i].size() : m.npos;
      if (m.rfind("user.err ", 0) == 0) errors.push_back(m.substr(9, n));
    }
    EXPECT_EQ(errors, c.errors) << sandbox_test::Describe(result);
  }
};

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
  for (std::string& call : calls) call = call[0] == 'S' ? "/usr/velt/etc/rc.d/" + call : call;
  return calls;
}
template <typename T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

using Files = std::vector<sandbox::RootFile>;

// Database tools that record, for each call, the user they ran as and every
// argument in brackets, so that the quoting of the shell commands shows.
constexpr char kRecordingDbTool[] =
    "#!/bin/sh\n{ printf '%s as %s:' \"$0\" \"$(id -un)\"; for arg in \"$@\"; do printf ' [%s]' "
    "\"$arg\"; done; printf '\\n'; } >>/var/log/db-calls.log\n";

// `files`, with the recording database tools, put into the root.
std::function<void(sandbox::Scenario*)> Put(const Files& files) {
  return [=](sandbox::Scenario* s) {
    s->files = Files{{"/usr/velt/pgsql/bin/psql", kRecordingDbTool, "", 0755},
                     {"/usr/velt/pgsql/bin/dropdb", kRecordingDbTool, "", 0755},
                     {"/var/log/db-calls.log", "", "", 0666}} +
               files;
  };
}

// `daemons` running, with the stub daemon script installed as the FTP daemon.
void Daemons(Scenario* s, Lines daemons) {
  std::string script = testing_support::ReadFile(std::string(SANDBOX_STUB_DIR) + "/daemon.sh");
  for (size_t at; (at = script.find("@PROGRAM@")) != script.npos;) script.replace(at, 9, kFtpd);
  s->files.push_back({kFtpd, script, "", 0755});
  s->daemons = daemons;
}
// Every switch on, the SMB and FTP daemons running.
void AllServices(Scenario* s) {
  for (const char* key : {"runnetbkp", "runmysql", "runmediaservice", "runweb", "runphoto"})
    sandbox::SetKeyValue(&s->settings, key, "yes");
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
// Every stop and start of the table's second row.
const Lines kFailingOnce =
    Rc({"S81atalk.sh stop"}) + kDatabaseStop + Rc({"S84rsyncd.sh stop", "S85veltnetbkpd.sh stop"}) +
    kTailStop + Rc({"S81atalk.sh start", std::string(kSmbd) + " -D", "S20pgsql.sh start"}) +
    kDependentsStart + kBackupStart + kTailStart;

// Exported system log lines without their time, for `services`.
std::string Events(const std::string& verb, int level, const Lines& services) {
  std::string lines;
  for (const std::string& s : services)
    lines += std::to_string(level) + "\tSystem\t" + s + " service " + verb + "\tadmin\tprobe\n";
  return lines;
}
const Lines kEnabled = {"FTP", "MySQL", "Media", "Download", "Network backup", "Web", "Photo"};
constexpr char kEventLog[] = "export enu /tmp/e; cut -f1,2,4- /tmp/e";

// clang-format off
const ProbeCase kServiceCases[] = {
    // Unknown masks and operations fail before any lock.
    {"StopAllThenStartAllRunEveryServiceInOrder", AllServices,
     "probe netservice -1 1" + Live("smbd|nmbd|ftpd") + "probe netservice -1 2 control 1 control 2 "
     "netservice 0 1 netservice -1 5 control 3 " + kEventLog,
     "netservice -1 1: 64509\nnetservice -1 2: 64509\ncontrol 1: 0\ncontrol 2: 0\n"
     "netservice 0 1: -1 error D00\nnetservice -1 5: -1 error D00\ncontrol 3: 0\n"
     "export enu /tmp/e: 14\n" + Events("was stopped.", 1, kEnabled) +
         Events("was started.", 1, kEnabled),
     kStopAll + kStartAll + kStopAll + kStartAll, {}, true},
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
       s->stub_status = {{"S81atalk.sh.stop", 1}, {"S85veltnetbkpd.sh.start", 3},
                         {"S04crond.sh", 5}};
     },
     "probe netservice -1 1 netservice -1 2 stop start " + std::string(kEventLog),
     "netservice -1 1: 64492 error 2A00\nnetservice -1 2: 64353 error 2A00\nstop: 0 error 2A00\n"
     "start: 0 error 2A00\nexport enu /tmp/e: 8\n" +
         Events("could not be stopped.", 2, {"MySQL"}) +
         Events("was stopped.", 1, {"Network backup", "Web", "Photo"}) +
         Events("could not be started.", 2, {"MySQL", "Network backup"}) +
         Events("was started.", 1, {"Web", "Photo"}),
     kFailingOnce + kFailingOnce},
    {"HeldLockMakesEveryWriterFailThenNoEthernetFailsButStores", Mtu(0, "9000"),
     "probe holdlock 0x800 6000 /tmp/held >/dev/null & until [ -e /tmp/held ]; do usleep 10000; "
     "done; probe control 1 control 2 setkey runftpd no mtu 1500; grep -e ^runftpd -e ^MTU "
     "/etc/veltinfo.conf; kill $!; wait; probe mtu 1500; grep ^MTU /etc/veltinfo.conf",
     "control 1: -1 error 400\ncontrol 2: -1 error 400\nsetkey runftpd no: -1 error 400\n"
     "mtu 1500: -1 error 400\nrunftpd=\"yes\"\nMTUValue=\"9000\"\n"
     // Without "eth0" the value is stored all the same.
     "mtu 1500: -1 error A00\nMTUValue=\"1500\"\n"},
    // FTP daemons are started until one has a 9 in its pid: all go. Then
    // a kill that does nothing: the stop gives up (after five seconds).
    {"KillAllAndTerminateReachEveryProcessOfTheNameOrGiveUp",
     [](Scenario* s) { Daemons(s, {kSmbd, kNmbd, kNmbd}); },
     "until SANDBOX_STUB_QUIET=1 /usr/velt/sbin/ftpd -D && grep -q 9 /var/run/ftpd.pid; do :; done;"
     " probe terminate nmbd 0 killall ftpd terminate smbd 1 terminate nosuch 0 killall nosuch" +
         Live("nmbd|ftpd") +
         "SANDBOX_STUB_QUIET=1 /usr/velt/sbin/ftpd -D; rm /bin/kill && echo : >/bin/kill && chmod "
         "+x /bin/kill && LD_PRELOAD=/usr/local/lib/fast_sleep.so probe killall ftpd",
     "terminate nmbd 0: 2\nkillall ftpd: 0\nterminate smbd 1: 1\nterminate nosuch 0: 0\n"
     "killall nosuch: 0\nkillall ftpd: -1\n",
     {std::string(kNmbd) + " [SIGTERM]", std::string(kNmbd) + " [SIGTERM]"}, {}, true},
    {"MtuOnFastEthernetIsOnlyStored", Mtu(100, "9000"),
     "probe mtu 1500; grep ^MTU /etc/veltinfo.conf", "mtu 1500: 0\nMTUValue=\"1500\"\n"},
    // Then an ifconfig that cannot run: the value is stored all the same.
    {"MtuOnGigabitRunsIfconfigAndStores", Mtu(1000, "1500"),
     "cd /etc; for v in 9000 1500; do probe mtu $v; grep ^MTU veltinfo.conf; chmod -x "
     "/sbin/ifconfig; done",
     "mtu 9000: 0\nMTUValue=\"9000\"\nmtu 1500: -1 error 2A00\nMTUValue=\"1500\"\n",
     {"/sbin/ifconfig eth0 mtu 9000"}},
    {"MtuAtAnUnknownSpeedFailsButStores", Mtu(2500, "9000"),
     "probe mtu 4000; grep ^MTU /etc/veltinfo.conf", "mtu 4000: -1\nMTUValue=\"4000\"\n"},
    // Existing keys rewritten in place as KEY="value" (comments kept, later
    // duplicates dropped), new keys appended.
    {"SetKeyValueWritesQuotedLines",
     Put({{"/etc/veltinfo.conf",
           "runftpd=\"yes\"\n# runftpd=\"x\"\nMTUValue = 1500\nrunftpd=\"dup\"\n", "", 0644}}),
     "probe setkey runftpd no setkey MTUValue 9000 setkey newkey 'a b' setkey empty ''; "
     "cat /etc/veltinfo.conf",
     "setkey runftpd no: 0\nsetkey MTUValue 9000: 0\nsetkey newkey a b: 0\nsetkey empty : 0\n"
     "runftpd=\"no\"\n# runftpd=\"x\"\nMTUValue=\"9000\"\nnewkey=\"a b\"\nempty=\"\"\n"},
};
// clang-format on

std::string Name(const ::testing::TestParamInfo<ProbeCase>& info) { return info.param.name; }

using ServicesTest = ProbeTest<false>;
TEST_P(ServicesTest, Run) { RunCase(); }

INSTANTIATE_TEST_SUITE_P(Cases, ServicesTest, ::testing::ValuesIn(kServiceCases), Name);

// ------------------------------------------------------------ migration

const std::string kFtp = "ftp:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const std::string kAnonymous = "anonymous:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const std::string kFtpShadow = "ftp:*:10933:0:99999:7:::\nanonymous:*:10933:0:99999:7:::\n";
const std::string kFtpGroup = "ftp:x:21:nobody,ftp,nobody\n";
const std::string kAccounts = kFtp + kAnonymous;
const std::string kPasswd =
    "root:x:0:0:root:/root:/bin/sh\nadmin:x:1024:100:admin:/home/admin:/bin/sh\n";
const std::string kShadow = "root::10933:0:99999:7:::\nadmin::10933:0:99999:7:::\n";
const std::string kGroup = "root:x:0:\nusers:x:100:admin\n";
const Files kSmallAccounts = {{"/etc/passwd", kPasswd, "", 0644},
                              {"/etc/shadow", kShadow, "", 0600},
                              {"/etc/group", kGroup, "", 0644}};
const std::string kModes = "echo $(stat -c %a group passwd shadow)";
// The files of two flag sets and the files always removed; the command
// counts those gone.
const std::string kFlagPaths =
    "/usr/velt/etc/rc.atalk /etc/profile /etc/rc /etc/fstab /usr/velt/etc/papd.conf "
    "/usr/velt/etc/rc.d/S78JumboFrame.sh /usr/velt/etc/manutil.conf /usr/velt/etc/php.ini";
const std::string kListFlagFiles = "; ls " + kFlagPaths + " 2>&1 | grep -c 'No such'; ";
// Those files and the old configuration to copy.
Files FlagFiles() {
  Files files = {{"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0640},
                 {"/writeable/configs/sub/hosts", "127.0.0.1\n", "", 0644},
                 {"/writeable/logs/messages", "old log\n", "", 0644}};
  std::istringstream paths(kFlagPaths);
  for (std::string path; paths >> path;) files.push_back({path, "x", "", 0644});
  return files;
}
// Each database call cut to 96 characters: its user and how its arguments
// were split.
const std::string kPsql = "/usr/velt/pgsql/bin/psql as admin: [photo] [-c] ";
const std::string kPhotoStatements = kPsql + "[ALTER TABLE photo_image ALTER timetaken TYPE va\n" +
                                     kPsql + "[ALTER TABLE photo_user ADD COLUMN admin bool DE\n";
const std::string kVideoStatements = kPsql + "[CREATE TABLE video_comment(id serial NOT NULL,p\n" +
                                     kPsql + "[CREATE TABLE video_desc(id serial NOT NULL,path\n";
const std::string kReset = "/usr/velt/pgsql/bin/dropdb as admin: [mediaserver]\n";
const char kConfigFailed[] = "updater:N(UPDTUpdateConfig) Failed to ";

// clang-format off
const ProbeCase kMigrationCases[] = {
    // ftp above anonymous, each in passwd and shadow; a second run adds nothing.
    {"AccountsMissingAreAddedOnce", Put(kSmallAccounts),
     "probe UPDTAddFtpUserGroup UPDTAddFtpUserGroup; cd /etc; cat group passwd shadow; " + kModes,
     "UPDTAddFtpUserGroup: 0\nUPDTAddFtpUserGroup: 0\n" + kFtpGroup + kGroup + kAccounts + kPasswd +
         kFtpShadow + kShadow + "644 644 600\n"},
    {"MissingShadowFileIsCreatedPrivate", nullptr,
     "rm /etc/shadow && probe UPDTAddFtpUserGroup; cd /etc; cat shadow; " + kModes,
     "UPDTAddFtpUserGroup: 0\n" + kFtpShadow + "644 644 600\n"},
    {"UserCreatedFtpGroupBecomesTheFirstFreeName",
     Put({{"/etc/group", "ftp:x:1025:nobody,bob,nobody\nftp1:x:1026:nobody\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup export enu /tmp/e; cut -f4 /tmp/e; cat /etc/group",
     "UPDTAddFtpUserGroup: 0\nexport enu /tmp/e: 1\nGroup [ftp] was renamed to [ftp2].\n" +
         kFtpGroup + "ftp2:x:1025:nobody,bob,nobody\nftp1:x:1026:nobody\n"},
    // Ids up to 1024 belong to the system.
    {"SystemFtpGroupIsLeftAlone",
     Put(kSmallAccounts + Files{{"/etc/group", "ftp:x:1024:x\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup; cat /etc/group /etc/passwd /var/log/veltsys.log",
     "UPDTAddFtpUserGroup: 0\nftp:x:1024:x\n" + kAccounts + kPasswd},
    {"UserCreatedAnonymousIsRenamedFirst",
     Put({{"/etc/passwd", "anonymous:x:1030:100:V:/home/anonymous:/bin/sh\n", "", 0644},
          {"/etc/shadow", "anonymous:$1$ab$cd:12000:0:99999:7:::\n", "", 0600}}),
     "probe UPDTAddFtpUserGroup export enu /tmp/e; cut -f4 /tmp/e; cat /etc/passwd /etc/shadow",
     "UPDTAddFtpUserGroup: 0\nexport enu /tmp/e: 1\n"
     "User [anonymous] was renamed to [anonymous1].\n" +
         kAccounts + "anonymous1:x:1030:100:V:/home/anonymous:/bin/sh\n" + kFtpShadow +
         "anonymous1:$1$ab$cd:12000:0:99999:7:::\n"},
    // admin (1024) is a system account; guest (1025) is user-created.
    {"OnlyUserCreatedAccountsAreRenamed", nullptr,
     "probe UPDTRenameConflictUser admin UPDTRenameConflictUser nosuch UPDTRenameConflictUser guest"
     "; grep -c guest1 /etc/passwd /etc/shadow; grep -c ^admin: /etc/passwd",
     "UPDTRenameConflictUser admin: 0\nUPDTRenameConflictUser nosuch: 0\n"
     "UPDTRenameConflictUser guest: 0\n/etc/passwd:1\n/etc/shadow:1\n1\n"},
    // "/etc/passwd.tmp" cannot be made: the group line goes in, the failed
    // user's shadow line not.
    {"FailedInsertionSkipsTheShadowFileAndCounts",
     Put(kSmallAccounts + Files{{"/etc/passwd.tmp/x", "x", "", 0644}}),
     "probe set gblCfgFtpUser 1 UPDTUpdateConfig; cut -f2 /var/log/veltupdate.log | "
     "sed 's/([0-9]*)/(N)/'; cat /etc/group /etc/passwd /etc/shadow",
     "UPDTUpdateConfig: -1\nupdater (N) Failed to SLIBFileAddLine in to /etc/shadow.\n"
     "updater (N) Failed to add ftp user/group.\n" + kFtpGroup + kGroup + kPasswd + kShadow,
     {}, {"updater (N) Failed to SLIBFileAddLine in to /etc/shadow.",
          "updater (N) Failed to add ftp user/group."}},
    // The system's look-up accepts this line; the group database does not.
    {"UnreadableUserCreatedGroupEndsTheStep",
     Put(kSmallAccounts + Files{{"/etc/group", "ftp:x:1025:nobody:extra\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup; cat /etc/group /etc/passwd",
     "UPDTAddFtpUserGroup: -1\nftp:x:1025:nobody:extra\n" + std::string(kPasswd), {},
     {"updater (N) Failed to VELTGroupGet() group [ftp]."}},
    // Each flag removes its own files only; two files always go; the old
    // configuration and logs are copied to the run's volume.
    {"FlagsRemoveTheirFilesAndSaveTheOldConfiguration", Put(FlagFiles()),
     "probe set gblCfgPapd 1 set gblCfgJumboFrame 1 UPDTUpdateConfig" + kListFlagFiles + "ls "
     "/etc/fstab /etc/profile /etc/rc /usr/velt/etc/rc.atalk /volume1/s@vedconfig; probe set "
     "gszVolume /volume2 set gblCfgAtalk 1 set gblCfgProfile 1 set gblCfgRcFstab 1 UPDTUpdateConfig"
     + kListFlagFiles + "cd /volume2/s@vedconfig && cat veltinfo.conf sub/hosts messages && "
     "stat -c %a veltinfo.conf",
     "UPDTUpdateConfig: 0\n4\n/etc/fstab\n/etc/profile\n/etc/rc\n/usr/velt/etc/rc.atalk\n"
     "UPDTUpdateConfig: 0\n8\na=\"1\"\n127.0.0.1\nold log\n640\n"},
    // What could be copied was copied.
    {"FailedCopyCounts", Put({{"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0644}}),
     "probe set gblCfgRcFstab 1 UPDTUpdateConfig; cat /volume1/s@vedconfig/veltinfo.conf",
     "UPDTUpdateConfig: -1\na=\"1\"\n", {},
     {"updater:N(UPDTUpdateConfig) Failed to execute szCmd=[/bin/cp -a /writeable/configs/* "
      "/writeable/logs/* /volume1/s@vedconfig], errno=("}},
    {"CrontabLosesExactlyTheVacuumAndHtmlLines",
     Put({{"/etc/crontab",
           "#m\th\tdom\tmon\tdow\twho\tcommand\n"
           "0\t3\t*\t*\t*\troot\t/usr/velt/pgsql/bin/vacuumdb -a\n"
           "*/5\t*\t*\t*\t*\troot\t/bin/rm -f /var/log/*.html\n"
           "10 2 * * * root /bin/backup  --all   \n"
           "0 1 * * * root /bin/rm -f /var/log/x.html\n\n30 4 * * 0 root /bin/vacuumdb-report\n"
           "last line without newline", "", 0644}}),
     "probe UPDTUpdateConfig; cat /etc/crontab",
     "UPDTUpdateConfig: 0\n#m\th\tdom\tmon\tdow\twho\tcommand\n"
     "10 2 * * * root /bin/backup  --all   \n"
     "0 1 * * * root /bin/rm -f /var/log/x.html\n\nlast line without newline\n"},
    // The filter follows no planted link; no crontab is never installed empty.
    {"CrontabFilterFollowsNoLinkAndMakesNoCrontab",
     Put({{"/etc/crontab", "1 1 * * * root ls\n", "", 0644}}),
     "ln -s /etc/planted /tmp/crontab_tmp && probe UPDTUpdateConfig; cat /etc/planted /etc/crontab;"
     " rm -f /etc/crontab /tmp/crontab_tmp && probe UPDTUpdateConfig; cat /etc/crontab",
     "UPDTUpdateConfig: 0\n1 1 * * * root ls\nUPDTUpdateConfig: 0\n", {},
     {"updater(N) Failed to remove vacuumdb from crontab.",
      "updater(N) Failed to remove \"rm -f /var/log/\\*.html\" from crontab."}},
    {"JumboMtuValuesAreLowered", nullptr,
     "cd /etc; for v in '=\"9000\"' '=\"4074\"' ' = 9000' '=\"8000\"' '=\"1500\"'; do sed -i "
     "\"s/^MTUValue.*/MTUValue$v/\" veltinfo.conf; probe set gblCfgMTU 1 UPDTUpdateConfig "
     ">/dev/null; grep ^MTU veltinfo.conf; done; sed -i 's/^MTUValue.*/MTUValue=\"9000\"/' "
     "veltinfo.conf; probe UPDTUpdateConfig; grep ^MTU veltinfo.conf",
     "MTUValue=\"8000\"\nMTUValue=\"4000\"\nMTUValue=\"8000\"\nMTUValue=\"8000\"\n"
     "MTUValue=\"1500\"\nUPDTUpdateConfig: 0\nMTUValue=\"9000\"\n"},
    // A directory where "/etc/profile" was counts; one where php.ini was is
    // only logged; the later steps run all the same.
    {"FailedRemovesCountButLaterStepsRun",
     Put({{"/etc/profile/x", "x\n", "", 0644}, {"/usr/velt/etc/php.ini/x", "x\n", "", 0644},
          {"/usr/velt/etc/rc.d/S78JumboFrame.sh", "#!/bin/sh\n", "", 0755},
          {"/etc/crontab", "0 3 * * * root vacuumdb -a\n1 1 * * * root ls\n", "", 0644}}),
     "probe set gblCfgProfile 1 set gblCfgJumboFrame 1 UPDTUpdateConfig; rm -r /etc/profile; "
     "probe set gblCfgProfile 1 UPDTUpdateConfig; cat /usr/velt/etc/rc.d/S78* /etc/crontab",
     "UPDTUpdateConfig: -1\nUPDTUpdateConfig: 0\n1 1 * * * root ls\n", {},
     {std::string(kConfigFailed) + "remove /etc/profile, errno=(21)[Is a directory]",
      std::string(kConfigFailed) + "remove /usr/velt/etc/php.ini, errno=(21)[Is a directory]",
      std::string(kConfigFailed) + "remove /usr/velt/etc/php.ini, errno=(21)[Is a directory]"}},
    {"FtpPassiveRangeIsCutTo1024Ports", nullptr,
     "for r in '55536 65535' '55536 56559' '55536 56560' '60000 50000' '1025 65535' '- 65535' "
     "'- -'; do set -- $r; sed -i /^ftp/d /etc/veltinfo.conf; for k in low:$1 high:$2; do "
     "[ ${k#*:} = - ] || echo ftp${k%:*}port=\\\"${k#*:}\\\" >>/etc/veltinfo.conf; done; "
     "probe UpdateFTPPassivePortRange >/dev/null; grep -h ftphigh /etc/veltinfo.conf || echo none;"
     " done; rm /etc/veltinfo.conf; probe UpdateFTPPassivePortRange",
     "ftphighport=\"56559\"\nftphighport=\"56559\"\nftphighport=\"56559\"\nftphighport=\"50000\"\n"
     "ftphighport=\"2048\"\nftphighport=\"1023\"\nnone\nUpdateFTPPassivePortRange: -1\n", {},
     {"updater:N(UpdateFTPPassivePortRange) SLIBFileGetKeyValue(SZF_VELT_INFO, SZK_FTP_LOW_PORT)"}},
    // "use chroot = no" after the lock file line, once; mode 0644.
    {"RsyncdConfGetsNoChrootOnce",
     Put({{"/etc/rsyncd.conf", "uid = root\nlock file = /var/run/rsyncd.lock\n[NetBackup]\n", "",
           0600}}),
     "probe UpdateRsyncdConf && chmod 600 /etc/rsyncd.conf && probe UpdateRsyncdConf && "
     "cat /etc/rsyncd.conf && stat -c %a /etc/rsyncd.conf",
     "UpdateRsyncdConf: 0\nUpdateRsyncdConf: 0\nuid = root\nlock file = /var/run/rsyncd.lock\n"
     "use chroot = no\n[NetBackup]\n644\n"},
    {"RsyncdConfWithoutLockFileLineOrFileFails", Put({{"/etc/rsyncd.conf", "uid = root\n", "",
     0600}}), "probe UpdateRsyncdConf; ls -l /etc/rsyncd.conf | cut -c1-10; rm /etc/rsyncd.conf; "
     "probe UpdateRsyncdConf; ls /etc/rsyncd.conf",
     "UpdateRsyncdConf: -1\n-rw-------\nUpdateRsyncdConf: -1\n", {},
     {"updater UpdateRsyncdConf(N) : SLIBFileAddLine(szFile=[/etc/rsyncd.conf] szKey=[NetBackup] "
     "szLine=[use chroot = no] flag=OP_FIND_PREFIX) fail"}},
    // Statements as admin with exact arguments, the video message with bit 2.
    {"PhotoDatabaseStatementsFollowTheFlags", Put({}),
     "for a in '1 0' '2 0' '0 1' '3 1' '0 0'; do set -- $a; : >/var/log/db-calls.log; probe set "
     "gPhotoDbUpgrade $1 set gblPhotoDbReset $2 UpdatePhotoDB; cut -c1-96 /var/log/db-calls.log; "
     "done",
     "UpdatePhotoDB: 0\n" + kPhotoStatements + "UpdatePhotoDB: 0\n" + kVideoStatements +
         "UpdatePhotoDB: 0\n" + kReset + "UpdatePhotoDB: 0\n" + kPhotoStatements +
         kVideoStatements + kReset + "UpdatePhotoDB: 0\n",
     Lines(5, "/usr/velt/bin/veltindex -R all"),
     {"Update photo db to add video tables", "Update photo db to add video tables"}},
};
// clang-format on

using MigrationTest = ProbeTest<true>;
TEST_P(MigrationTest, Run) { RunCase(); }

INSTANTIATE_TEST_SUITE_P(Cases, MigrationTest, ::testing::ValuesIn(kMigrationCases), Name);

}  // namespace
