// The configuration migration steps and the FTP system accounts, run by the
// module probe inside an appliance sandbox per case: real files under the
// sandbox's /etc, /usr/velt and /volume1, stub database tools, the syslog and
// the system event log.
#include <string>
#include <vector>

#include "sandbox_test_support.h"

namespace {

using Lines = std::vector<std::string>;
using Files = std::vector<sandbox::RootFile>;

// Database tools that record, for each call, the user they ran as and every
// argument in brackets, so that the quoting of the shell commands shows.
constexpr char kRecordingDbTool[] =
    "#!/bin/sh\n{ printf '%s as %s:' \"$0\" \"$(id -un)\"; for arg in \"$@\"; do printf ' [%s]' "
    "\"$arg\"; done; printf '\\n'; } >>/var/log/db-calls.log\n";

// `files` and `more`, with the recording database tools, put into the root.
std::function<void(sandbox::Scenario*)> Put(const Files& files, const Files& more = {}) {
  return [=](sandbox::Scenario* s) {
    s->files = {{"/usr/velt/pgsql/bin/psql", kRecordingDbTool, "", 0755},
                {"/usr/velt/pgsql/bin/dropdb", kRecordingDbTool, "", 0755},
                {"/var/log/db-calls.log", "", "", 0666}};
    s->files.insert(s->files.end(), files.begin(), files.end());
    s->files.insert(s->files.end(), more.begin(), more.end());
  };
}

const char kFtp[] = "ftp:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const char kAnonymous[] = "anonymous:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const char kFtpShadow[] = "ftp:*:10933:0:99999:7:::\nanonymous:*:10933:0:99999:7:::\n";
const char kFtpGroup[] = "ftp:x:21:nobody,ftp,nobody\n";
const std::string kAccounts = std::string(kFtp) + kAnonymous;
const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/sh\nadmin:x:1024:100:admin:/home/admin:/bin/sh\n";
const char kShadow[] = "root::10933:0:99999:7:::\nadmin::10933:0:99999:7:::\n";
const char kGroup[] = "root:x:0:\nusers:x:100:admin\n";
const Files kSmallAccounts = {{"/etc/passwd", kPasswd, "", 0644},
                              {"/etc/shadow", kShadow, "", 0600},
                              {"/etc/group", kGroup, "", 0644}};
const char kEventText[] = "; cut -f4 /tmp/e";
// The files of two flag sets, the files always removed and a copy source.
const Files kFlagFiles = {{"/usr/velt/etc/rc.atalk", "x", "", 0644},
                          {"/etc/profile", "x", "", 0644},
                          {"/etc/rc", "x", "", 0644},
                          {"/etc/fstab", "x", "", 0644},
                          {"/usr/velt/etc/papd.conf", "x", "", 0644},
                          {"/usr/velt/etc/rc.d/S78JumboFrame.sh", "x", "", 0644},
                          {"/usr/velt/etc/manutil.conf", "x", "", 0644},
                          {"/usr/velt/etc/php.ini", "x", "", 0644},
                          {"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0640},
                          {"/writeable/configs/sub/hosts", "127.0.0.1\n", "", 0644},
                          {"/writeable/logs/messages", "old log\n", "", 0644}};
constexpr char kListFlagFiles[] =
    "; ls /usr/velt/etc/rc.atalk /etc/profile /etc/rc /etc/fstab /usr/velt/etc/papd.conf "
    "/usr/velt/etc/rc.d/S78JumboFrame.sh /usr/velt/etc/manutil.conf /usr/velt/etc/php.ini 2>&1 "
    "| grep -c 'No such'; ";
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
const sandbox_test::ProbeCase kCases[] = {
    // ftp above anonymous, each in passwd and shadow; a second run adds nothing.
    {"AccountsMissingAreAddedOnce", Put(kSmallAccounts),
     "probe UPDTAddFtpUserGroup UPDTAddFtpUserGroup",
     "UPDTAddFtpUserGroup: 0\nUPDTAddFtpUserGroup: 0\n", {}, {},
     {{"/etc/group", kFtpGroup + std::string(kGroup), 0644},
      {"/etc/passwd", kAccounts + kPasswd, 0644},
      {"/etc/shadow", kFtpShadow + std::string(kShadow), 0600}}},
    {"MissingShadowFileIsCreatedPrivate", nullptr, "rm /etc/shadow && probe UPDTAddFtpUserGroup",
     "UPDTAddFtpUserGroup: 0\n", {}, {}, {{"/etc/shadow", kFtpShadow, 0600}}},
    {"UserCreatedFtpGroupBecomesTheFirstFreeName",
     Put({{"/etc/group", "ftp:x:1025:nobody,bob,nobody\nftp1:x:1026:nobody\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup export enu /tmp/e" + std::string(kEventText),
     "UPDTAddFtpUserGroup: 0\nexport enu /tmp/e: 1\nGroup [ftp] was renamed to [ftp2].\n", {}, {},
     {{"/etc/group", kFtpGroup + std::string("ftp2:x:1025:nobody,bob,nobody\nftp1:x:1026:nobody\n")}}},
    // Ids up to 1024 belong to the system.
    {"SystemFtpGroupIsLeftAlone", Put(kSmallAccounts, {{"/etc/group", "ftp:x:1024:x\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup", "UPDTAddFtpUserGroup: 0\n", {}, {},
     {{"/etc/group", "ftp:x:1024:x\n"}, {"/etc/passwd", kAccounts + kPasswd},
      {"/var/log/veltsys.log", "<missing>"}}},
    {"UserCreatedAnonymousIsRenamedFirst",
     Put({{"/etc/passwd", "anonymous:x:1030:100:V:/home/anonymous:/bin/sh\n", "", 0644},
          {"/etc/shadow", "anonymous:$1$ab$cd:12000:0:99999:7:::\n", "", 0600}}),
     "probe UPDTAddFtpUserGroup export enu /tmp/e" + std::string(kEventText),
     "UPDTAddFtpUserGroup: 0\nexport enu /tmp/e: 1\nUser [anonymous] was renamed to [anonymous1].\n", {}, {},
     {{"/etc/passwd", kAccounts + "anonymous1:x:1030:100:V:/home/anonymous:/bin/sh\n"},
      {"/etc/shadow", kFtpShadow + std::string("anonymous1:$1$ab$cd:12000:0:99999:7:::\n")}}},
    // admin (1024) is a system account; guest (1025) is user-created.
    {"OnlyUserCreatedAccountsAreRenamed", nullptr,
     "probe UPDTRenameConflictUser admin UPDTRenameConflictUser nosuch UPDTRenameConflictUser guest"
     "; grep -c guest1 /etc/passwd /etc/shadow; grep -c ^admin: /etc/passwd",
     "UPDTRenameConflictUser admin: 0\nUPDTRenameConflictUser nosuch: 0\n"
     "UPDTRenameConflictUser guest: 0\n/etc/passwd:1\n/etc/shadow:1\n1\n"},
    // "/etc/passwd.tmp" cannot be made: the group line goes in, the failed
    // user's shadow line not.
    {"FailedInsertionSkipsTheShadowFileAndCounts",
     Put(kSmallAccounts, {{"/etc/passwd.tmp/x", "x", "", 0644}}),
     "probe set gblCfgFtpUser 1 UPDTUpdateConfig; cut -f2 /var/log/veltupdate.log | "
     "sed 's/([0-9]*)/(N)/'",
     "UPDTUpdateConfig: -1\nupdater (N) Failed to SLIBFileAddLine in to /etc/shadow.\n"
     "updater (N) Failed to add ftp user/group.\n", {},
     {"updater (N) Failed to SLIBFileAddLine in to /etc/shadow.",
      "updater (N) Failed to add ftp user/group."},
     {{"/etc/group", kFtpGroup + std::string(kGroup)}, {"/etc/passwd", kPasswd},
      {"/etc/shadow", kShadow}}},
    // The system's look-up accepts this line; the group database does not.
    {"UnreadableUserCreatedGroupEndsTheStep",
     Put(kSmallAccounts, {{"/etc/group", "ftp:x:1025:nobody:extra\n", "", 0644}}),
     "probe UPDTAddFtpUserGroup", "UPDTAddFtpUserGroup: -1\n", {},
     {"updater (N) Failed to VELTGroupGet() group [ftp]."},
     {{"/etc/group", "ftp:x:1025:nobody:extra\n"}, {"/etc/passwd", kPasswd}}},
    // Each flag removes its own files only; two files always go; the old
    // configuration and logs are copied to the run's volume.
    {"FlagsRemoveTheirFilesAndSaveTheOldConfiguration", Put(kFlagFiles),
     "probe set gszVolume /volume2 set gblCfgAtalk 1 set gblCfgProfile 1 set gblCfgRcFstab 1 "
     "UPDTUpdateConfig" + std::string(kListFlagFiles) + "ls /usr/velt/etc/papd.conf "
     "/usr/velt/etc/rc.d/S78JumboFrame.sh; cd /volume2/s@vedconfig && cat veltinfo.conf sub/hosts "
     "messages && stat -c %a veltinfo.conf",
     "UPDTUpdateConfig: 0\n6\n/usr/velt/etc/papd.conf\n/usr/velt/etc/rc.d/S78JumboFrame.sh\n"
     "a=\"1\"\n127.0.0.1\nold log\n640\n"},
    {"OtherFlagsRemoveTheirFiles", Put(kFlagFiles),
     "probe set gblCfgPapd 1 set gblCfgJumboFrame 1 UPDTUpdateConfig" + std::string(kListFlagFiles) +
     "ls /etc/fstab /etc/profile /etc/rc /usr/velt/etc/rc.atalk /volume1/s@vedconfig",
     "UPDTUpdateConfig: 0\n4\n/etc/fstab\n/etc/profile\n/etc/rc\n/usr/velt/etc/rc.atalk\n"},
    {"FilesAlreadyMissingAreNoFailure", nullptr,
     "probe set gblCfgAtalk 1 set gblCfgPapd 1 set gblCfgProfile 1 set gblCfgJumboFrame 1 "
     "UPDTUpdateConfig", "UPDTUpdateConfig: 0\n", {}, {}, {{"/var/log/veltupdate.log", "<missing>"}}},
    // What could be copied was copied.
    {"FailedCopyCounts", Put({{"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0644}}),
     "probe set gblCfgRcFstab 1 UPDTUpdateConfig", "UPDTUpdateConfig: -1\n", {},
     {"updater:N(UPDTUpdateConfig) Failed to execute szCmd=[/bin/cp -a /writeable/configs/* "
      "/writeable/logs/* /volume1/s@vedconfig], errno=("},
     {{"/volume1/s@vedconfig/veltinfo.conf", "a=\"1\"\n"}}},
    {"CrontabLosesExactlyTheVacuumAndHtmlLines",
     Put({{"/etc/crontab",
       "#m\th\tdom\tmon\tdow\twho\tcommand\n0\t3\t*\t*\t*\troot\t/usr/velt/pgsql/bin/vacuumdb -a\n"
       "*/5\t*\t*\t*\t*\troot\t/bin/rm -f /var/log/*.html\n10 2 * * * root /bin/backup  --all   \n"
       "0 1 * * * root /bin/rm -f /var/log/x.html\n\n30 4 * * 0 root /bin/vacuumdb-report\n"
       "last line without newline", "", 0644}}),
     "probe UPDTUpdateConfig", "UPDTUpdateConfig: 0\n", {}, {},
     {{"/etc/crontab", "#m\th\tdom\tmon\tdow\twho\tcommand\n10 2 * * * root /bin/backup  --all   \n"
                       "0 1 * * * root /bin/rm -f /var/log/x.html\n\nlast line without newline\n"}}},
    {"CrontabFilterFollowsNoPlantedLink", Put({{"/etc/crontab", "1 1 * * * root ls\n", "", 0644}}),
     "ln -s /etc/planted /tmp/crontab_tmp && probe UPDTUpdateConfig", "UPDTUpdateConfig: 0\n", {}, {},
     {{"/etc/planted", "<missing>"}, {"/etc/crontab", "1 1 * * * root ls\n"}}},
    {"NoCrontabIsNeverInstalledEmpty", nullptr, "rm /etc/crontab && probe UPDTUpdateConfig",
     "UPDTUpdateConfig: 0\n", {},
     {"updater(N) Failed to remove vacuumdb from crontab.",
      "updater(N) Failed to remove \"rm -f /var/log/\\*.html\" from crontab."},
     {{"/etc/crontab", "<missing>"}}},
    {"JumboMtuValuesAreLowered", nullptr,
     "for v in '=\"9000\"' '=\"4074\"' ' = 9000' '=\"8000\"' '=\"1500\"'; do "
     "sed -i \"s/^MTUValue.*/MTUValue$v/\" /etc/veltinfo.conf; probe set gblCfgMTU 1 "
     "UPDTUpdateConfig >/dev/null; grep ^MTU /etc/veltinfo.conf; done; sed -i "
     "'s/^MTUValue.*/MTUValue=\"9000\"/' /etc/veltinfo.conf; probe UPDTUpdateConfig; grep ^MTU "
     "/etc/veltinfo.conf",
     "MTUValue=\"8000\"\nMTUValue=\"4000\"\nMTUValue=\"8000\"\nMTUValue=\"8000\"\n"
     "MTUValue=\"1500\"\nUPDTUpdateConfig: 0\nMTUValue=\"9000\"\n"},
    // A directory where "/etc/profile" was counts; one where php.ini was is
    // only logged; the later steps run all the same.
    {"FailedRemovesCountButLaterStepsRun",
     Put({{"/etc/profile/x", "x\n", "", 0644}, {"/usr/velt/etc/php.ini/x", "x\n", "", 0644},
          {"/usr/velt/etc/rc.d/S78JumboFrame.sh", "#!/bin/sh\n", "", 0755},
          {"/etc/crontab", "0 3 * * * root vacuumdb -a\n1 1 * * * root ls\n", "", 0644}}),
     "probe set gblCfgProfile 1 set gblCfgJumboFrame 1 UPDTUpdateConfig; rm -r /etc/profile; "
     "probe set gblCfgProfile 1 UPDTUpdateConfig",
     "UPDTUpdateConfig: -1\nUPDTUpdateConfig: 0\n", {},
     {std::string(kConfigFailed) + "remove /etc/profile, errno=(21)[Is a directory]",
      std::string(kConfigFailed) + "remove /usr/velt/etc/php.ini, errno=(21)[Is a directory]",
      std::string(kConfigFailed) + "remove /usr/velt/etc/php.ini, errno=(21)[Is a directory]"},
     {{"/usr/velt/etc/rc.d/S78JumboFrame.sh", "<missing>"}, {"/etc/crontab", "1 1 * * * root ls\n"}}},
    {"FailedJumboFrameRemoveNamesTheDirectory",
     Put({{"/usr/velt/etc/rc.d/S78JumboFrame.sh/x", "x\n", "", 0644},
          {"/usr/velt/etc/rc.atalk/x", "x\n", "", 0644}}),
     "probe set gblCfgJumboFrame 1 set gblCfgAtalk 1 UPDTUpdateConfig", "UPDTUpdateConfig: -1\n", {},
     {std::string(kConfigFailed) + "update [/usr/velt/etc/rc.atalk], errno=(21)[Is a directory]",
      std::string(kConfigFailed) + "remove /usr/velt/etc/rc.d, errno=(21)[Is a directory]"}},
    // Cut to 1024 ports only when wider; a missing low port reads as 0.
    {"FtpPassiveRangeIsCutTo1024Ports", nullptr,
     "for r in '55536 65535' '55536 56559' '55536 56560' '60000 50000' '1025 65535' '- 65535' "
     "'- -'; do set -- $r; sed -i /^ftp/d /etc/veltinfo.conf; for k in low:$1 high:$2; do "
     "[ ${k#*:} = - ] || echo ftp${k%:*}port=\\\"${k#*:}\\\" >>/etc/veltinfo.conf; done; "
     "probe UpdateFTPPassivePortRange >/dev/null; grep -h ftphigh /etc/veltinfo.conf || echo none;"
     " done; rm /etc/veltinfo.conf; probe UpdateFTPPassivePortRange",
     "ftphighport=\"56559\"\nftphighport=\"56559\"\nftphighport=\"56559\"\nftphighport=\"50000\"\n"
     "ftphighport=\"2048\"\nftphighport=\"1023\"\nnone\nUpdateFTPPassivePortRange: -1\n", {},
     {"updater:N(UpdateFTPPassivePortRange) SLIBFileGetKeyValue(SZF_VELT_INFO, SZK_FTP_LOW_PORT) "
      "fail"}},
    // "use chroot = no" after the lock file line, once; mode 0644.
    {"RsyncdConfGetsNoChrootOnce",
     Put({{"/etc/rsyncd.conf", "uid = root\nlock file = /var/run/rsyncd.lock\n[NetBackup]\n", "",
           0600}}),
     "probe UpdateRsyncdConf && chmod 600 /etc/rsyncd.conf && probe UpdateRsyncdConf",
     "UpdateRsyncdConf: 0\nUpdateRsyncdConf: 0\n", {}, {},
     {{"/etc/rsyncd.conf", "uid = root\nlock file = /var/run/rsyncd.lock\nuse chroot = no\n"
                           "[NetBackup]\n", 0644}}},
    {"RsyncdConfWithoutLockFileLineOrFileFails",
     Put({{"/etc/rsyncd.conf", "uid = root\n", "", 0600}}),
     "probe UpdateRsyncdConf; ls -l /etc/rsyncd.conf | cut -c1-10; rm /etc/rsyncd.conf; "
     "probe UpdateRsyncdConf; ls /etc/rsyncd.conf",
     "UpdateRsyncdConf: -1\n-rw-------\nUpdateRsyncdConf: -1\n", {},
     {"updater UpdateRsyncdConf(N) : SLIBFileAddLine(szFile=[/etc/rsyncd.conf] szKey=[NetBackup] "
      "szLine=[use chroot = no] flag=OP_FIND_PREFIX) fail"}},
    // Statements as admin with exact arguments, the video message with bit 2.
    {"PhotoDatabaseStatementsFollowTheFlags", Put({}),
     "for a in '1 0' '2 0' '0 1' '3 1' '0 0'; do set -- $a; : >/var/log/db-calls.log; probe set "
     "gPhotoDbUpgrade $1 set gblPhotoDbReset $2 UpdatePhotoDB; cut -c1-96 /var/log/db-calls.log; done",
     "UpdatePhotoDB: 0\n" + kPhotoStatements + "UpdatePhotoDB: 0\n" + kVideoStatements +
         "UpdatePhotoDB: 0\n" + kReset + "UpdatePhotoDB: 0\n" + kPhotoStatements + kVideoStatements +
         kReset + "UpdatePhotoDB: 0\n",
     Lines(5, "/usr/velt/bin/veltindex -R all"),
     {"Update photo db to add video tables", "Update photo db to add video tables"}},
};
// clang-format on

class MigrationTest : public sandbox_test::ProbeTest {
 protected:
  MigrationTest() : ProbeTest(MODULE_PROBE, FAST_SLEEP_LIB, /*check_errors=*/true) {}
};

TEST_P(MigrationTest, Run) { RunCase(); }

INSTANTIATE_TEST_SUITE_P(Cases, MigrationTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<sandbox_test::ProbeCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
