// The configuration migration steps and the FTP system accounts, run by the
// probe program inside appliance sandboxes: real files under the sandbox's
// /etc, /usr/velt and /volume1, stub database tools, the syslog, the update
// log and the system event log.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/sandbox.h"
#include "test_support.h"

namespace {

using sandbox::RunResult;
using sandbox::Sandbox;
using sandbox::Scenario;
using sandbox_test::Describe;
using sandbox_test::SplitLines;

constexpr char kProbe[] = "/usr/local/bin/migration_probe";
constexpr char kDbCallLog[] = "/var/log/db-calls.log";

// Database tools that record, for each call, the user they ran as and every
// argument in brackets, so that the quoting of the shell commands shows.
constexpr char kRecordingDbTool[] =
    "#!/bin/sh\n"
    "{ printf '%s as %s:' \"$0\" \"$(id -un)\"; for arg in \"$@\"; do printf ' [%s]' \"$arg\"; "
    "done; printf '\\n'; } >>/var/log/db-calls.log\n";

const char kPasswdFtp[] = "ftp:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const char kPasswdAnonymous[] = "anonymous:x:21:21:Anonymous FTP User:/nonexist:/sbin/nologin\n";
const char kShadowFtp[] = "ftp:*:10933:0:99999:7:::\n";
const char kShadowAnonymous[] = "anonymous:*:10933:0:99999:7:::\n";
const char kGroupFtp[] = "ftp:x:21:nobody,ftp,nobody\n";

// The probe's error-priority syslog messages of a run.
std::vector<std::string> ErrorMessages(const RunResult& result) {
  static const std::string kError = "user.err ";
  std::vector<std::string> messages;
  for (const std::string& message : sandbox_test::ProgramMessages(result, "migration_probe")) {
    if (message.compare(0, kError.size(), kError) == 0) {
      messages.push_back(message.substr(kError.size()));
    }
  }
  return messages;
}

// `text` with its first occurrence of `from` replaced by `to`.
std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

mode_t ModeOf(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

class MigrationTest : public sandbox_test::SandboxFixture {
 protected:
  MigrationTest() : SandboxFixture("migration-test") {}

  // A sandbox with the probe and the recording database tools added to
  // `scenario` (its roots carry the event texts of sim/texts); null after a
  // recorded failure.
  Sandbox* Build(Scenario scenario) {
    scenario.files.push_back({kProbe, "", MIGRATION_PROBE, 0});
    scenario.files.push_back({"/usr/velt/pgsql/bin/psql", kRecordingDbTool, "", 0755});
    scenario.files.push_back({"/usr/velt/pgsql/bin/dropdb", kRecordingDbTool, "", 0755});
    scenario.files.push_back({kDbCallLog, "", "", 0666});
    return SandboxFixture::Build(scenario);
  }

  // Runs the probe with `words`; the sandbox's own part must succeed.
  RunResult Probe(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {kProbe};
    argv.insert(argv.end(), words.begin(), words.end());
    sandbox::RunOptions options;
    options.timeout_seconds = 30;
    RunResult result = box_->Run(argv, options);
    EXPECT_TRUE(result.ok) << Describe(result);
    EXPECT_EQ(result.status, 0) << Describe(result);
    return result;
  }

  bool RootExists(const std::string& path) const {
    return std::filesystem::exists(std::filesystem::symlink_status(box_->RootPath(path)));
  }

  void PutRoot(const std::string& path, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(box_->RootPath(path)).parent_path());
    testing_support::WriteFile(box_->RootPath(path), content);
  }

  // The texts of the update log's lines (after the time and the tab).
  std::vector<std::string> UpdateLogTexts() const {
    std::vector<std::string> texts;
    for (const std::string& line : SplitLines(RootFile("/var/log/veltupdate.log"))) {
      const size_t tab = line.find('\t');
      texts.push_back(testing_support::WithoutLineNumber(
          tab == std::string::npos ? line : line.substr(tab + 1)));
    }
    return texts;
  }
};

// ------------------------------------------------------------ FTP accounts

TEST_F(MigrationTest, AccountsMissingGetFiveLinesFtpAboveAnonymousAndSecondRunAddsNothing) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const std::string passwd = RootFile("/etc/passwd");
  const std::string shadow = RootFile("/etc/shadow");
  const std::string group = RootFile("/etc/group");

  RunResult result = Probe({"UPDTAddFtpUserGroup"});

  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup 0\n");
  EXPECT_EQ(RootFile("/etc/group"), kGroupFtp + group);
  EXPECT_EQ(RootFile("/etc/passwd"), kPasswdFtp + (kPasswdAnonymous + passwd));
  EXPECT_EQ(RootFile("/etc/shadow"), kShadowFtp + (kShadowAnonymous + shadow));
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
  // The rewritten files keep their modes; the shadow file stays private.
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/shadow")), 0600u);
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/passwd")), 0644u);

  const std::string first_passwd = RootFile("/etc/passwd");
  const std::string first_shadow = RootFile("/etc/shadow");
  const std::string first_group = RootFile("/etc/group");
  result = Probe({"UPDTAddFtpUserGroup"});
  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup 0\n");
  EXPECT_EQ(RootFile("/etc/passwd"), first_passwd);
  EXPECT_EQ(RootFile("/etc/shadow"), first_shadow);
  EXPECT_EQ(RootFile("/etc/group"), first_group);
}

TEST_F(MigrationTest, MissingShadowFileIsCreatedPrivate) {
  ASSERT_NE(Build(Scenario()), nullptr);
  ASSERT_EQ(unlink(box_->RootPath("/etc/shadow").c_str()), 0);

  EXPECT_EQ(Probe({"UPDTAddFtpUserGroup"}).out, "UPDTAddFtpUserGroup 0\n");

  EXPECT_EQ(RootFile("/etc/shadow"), std::string(kShadowFtp) + kShadowAnonymous);
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/shadow")), 0600u);
}

TEST_F(MigrationTest, UserCreatedFtpGroupBecomesFirstFreeNameAndSystemGroupIsAdded) {
  Scenario scenario;
  const std::string group =
      "root:x:0:\n"
      "ftp:x:1025:nobody,bob,nobody\n"
      "users:x:100:admin,guest\n"
      "ftp1:x:1026:nobody,nobody\n";
  scenario.files.push_back({"/etc/group", group, "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result =
      Probe({"UPDTAddFtpUserGroup", "VELTLogExport", "1", "enu", "/tmp/events.txt"});

  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup 0\nVELTLogExport 1\n") << Describe(result);
  EXPECT_EQ(RootFile("/etc/group"),
            "ftp:x:21:nobody,ftp,nobody\n"
            "root:x:0:\n"
            "ftp2:x:1025:nobody,bob,nobody\n"
            "users:x:100:admin,guest\n"
            "ftp1:x:1026:nobody,nobody\n");
  // The rename is in the system event log: the raw record holds the event
  // code and the two names, each with its 16-bit length...
  const std::string raw = RootFile("/var/log/veltsys.log");
  EXPECT_NE(raw.find(std::string("\x11\x80\x06\x02", 4)), std::string::npos);
  EXPECT_NE(raw.find(std::string("\0\3ftp\0\4ftp2", 11)), std::string::npos);
  // ...and the export shows the event's text with them.
  const std::vector<std::string> lines = SplitLines(RootFile("/tmp/events.txt"));
  ASSERT_EQ(lines.size(), 1u) << RootFile("/tmp/events.txt");
  EXPECT_NE(lines[0].find("\tGroup [ftp] was renamed to [ftp2].\t"), std::string::npos) << lines[0];
}

TEST_F(MigrationTest, SystemFtpGroupIsLeftAloneAndNoGroupLineIsAdded) {
  Scenario scenario;
  const std::string group =
      "root:x:0:\n"
      "ftp:x:21:nobody,ftp,nobody\n"
      "users:x:100:admin,guest\n";
  scenario.files.push_back({"/etc/group", group, "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const std::string passwd = RootFile("/etc/passwd");

  const RunResult result = Probe({"UPDTAddFtpUserGroup"});

  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup 0\n");
  EXPECT_EQ(RootFile("/etc/group"), group);
  EXPECT_EQ(RootFile("/etc/passwd"), kPasswdFtp + (kPasswdAnonymous + passwd));
  EXPECT_EQ(RootFile("/var/log/veltsys.log"), "<missing>");
}

TEST_F(MigrationTest, UserCreatedAnonymousIsRenamedBeforeSystemUserIsAdded) {
  Scenario scenario;
  const std::string passwd =
      "root:x:0:0:root:/root:/bin/sh\n"
      "admin:x:1024:100:System default user:/home/admin:/bin/sh\n"
      "anonymous:x:1030:100:Visitor:/home/anonymous:/bin/sh\n";
  const std::string shadow =
      "root::10933:0:99999:7:::\n"
      "admin::10933:0:99999:7:::\n"
      "anonymous:$1$ab$cdefgh:12000:0:99999:7:::\n";
  scenario.files.push_back({"/etc/passwd", passwd, "", 0644});
  scenario.files.push_back({"/etc/shadow", shadow, "", 0600});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result =
      Probe({"UPDTAddFtpUserGroup", "VELTLogExport", "1", "enu", "/tmp/events.txt"});

  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup 0\nVELTLogExport 1\n") << Describe(result);
  EXPECT_EQ(RootFile("/etc/passwd"),
            std::string(kPasswdFtp) + kPasswdAnonymous +
                "root:x:0:0:root:/root:/bin/sh\n"
                "admin:x:1024:100:System default user:/home/admin:/bin/sh\n"
                "anonymous1:x:1030:100:Visitor:/home/anonymous:/bin/sh\n");
  EXPECT_EQ(RootFile("/etc/shadow"), std::string(kShadowFtp) + kShadowAnonymous +
                                         "root::10933:0:99999:7:::\n"
                                         "admin::10933:0:99999:7:::\n"
                                         "anonymous1:$1$ab$cdefgh:12000:0:99999:7:::\n");
  const std::string raw = RootFile("/var/log/veltsys.log");
  EXPECT_NE(raw.find(std::string("\x11\x80\x0E\x02", 4)), std::string::npos);
  EXPECT_NE(raw.find(std::string("\0\11anonymous\0\12anonymous1", 23)), std::string::npos);
  const std::vector<std::string> lines = SplitLines(RootFile("/tmp/events.txt"));
  ASSERT_EQ(lines.size(), 1u) << RootFile("/tmp/events.txt");
  EXPECT_NE(lines[0].find("\tUser [anonymous] was renamed to [anonymous1].\t"), std::string::npos)
      << lines[0];
}

TEST_F(MigrationTest, SystemUsersAreNotRenamedAndRenameOfMissingUserDoesNothing) {
  Scenario scenario;
  // admin (1024) is a system account by id; guest (1025) is user-created.
  ASSERT_NE(Build(scenario), nullptr);
  const std::string passwd = RootFile("/etc/passwd");
  const std::string shadow = RootFile("/etc/shadow");

  const RunResult result = Probe({"UPDTRenameConflictUser", "admin", "UPDTRenameConflictUser",
                                  "nosuch", "UPDTRenameConflictUser", "guest"});

  EXPECT_EQ(result.out,
            "UPDTRenameConflictUser 0\nUPDTRenameConflictUser 0\nUPDTRenameConflictUser 0\n");
  EXPECT_EQ(RootFile("/etc/passwd"),
            Replaced(passwd, "\nguest:x:1025:100:", "\nguest1:x:1025:100:"));
  EXPECT_EQ(RootFile("/etc/shadow"), Replaced(shadow, "\nguest:*:", "\nguest1:*:"));
}

TEST_F(MigrationTest, FailedInsertionNamesShadowFileSkipsShadowAndCounts) {
  Scenario scenario;
  // "/etc/passwd.tmp" cannot be created: the passwd insertions fail.
  scenario.files.push_back({"/etc/passwd.tmp/blocker", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const std::string passwd = RootFile("/etc/passwd");
  const std::string shadow = RootFile("/etc/shadow");
  const std::string group = RootFile("/etc/group");

  const RunResult result = Probe({"set", "gblCfgFtpUser", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig -1\n");
  const std::vector<std::string> expected = {
      "updater (N) Failed to SLIBFileAddLine in to /etc/shadow.",
      "updater (N) Failed to add ftp user/group."};
  EXPECT_EQ(ErrorMessages(result), expected) << Describe(result);
  EXPECT_EQ(UpdateLogTexts(), expected);
  // The group line went in before; the shadow line of the failed user not.
  EXPECT_EQ(RootFile("/etc/group"), kGroupFtp + group);
  EXPECT_EQ(RootFile("/etc/passwd"), passwd);
  EXPECT_EQ(RootFile("/etc/shadow"), shadow);
}

TEST_F(MigrationTest, UnreadableUserCreatedGroupEndsStepBeforeAnyInsertion) {
  Scenario scenario;
  // The system's look-up accepts this line; the group database does not.
  const std::string group = "root:x:0:\nftp:x:1025:nobody:extra\n";
  scenario.files.push_back({"/etc/group", group, "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const std::string passwd = RootFile("/etc/passwd");

  const RunResult result = Probe({"UPDTAddFtpUserGroup"});

  EXPECT_EQ(result.out, "UPDTAddFtpUserGroup -1\n");
  EXPECT_EQ(ErrorMessages(result),
            std::vector<std::string>{"updater (N) Failed to VELTGroupGet() group [ftp]."})
      << Describe(result);
  EXPECT_EQ(RootFile("/etc/group"), group);
  EXPECT_EQ(RootFile("/etc/passwd"), passwd);
}

// ------------------------------------------------------------ UPDTUpdateConfig

struct FlagCase {
  const char* flag;                // "" for none
  std::vector<const char*> paths;  // files the flag removes
};

const char* const kAlwaysRemoved[] = {"/usr/velt/etc/manutil.conf", "/usr/velt/etc/php.ini"};

TEST_F(MigrationTest, EachFlagRemovesOnlyItsFilesAndAlwaysRemovedFilesGo) {
  const std::vector<FlagCase> cases = {
      {"", {}},
      {"gblCfgAtalk", {"/usr/velt/etc/rc.atalk"}},
      {"gblCfgPapd", {"/usr/velt/etc/papd.conf"}},
      {"gblCfgFtpUser", {}},
      {"gblCfgProfile", {"/etc/profile"}},
      {"gblCfgJumboFrame", {"/usr/velt/etc/rc.d/S78JumboFrame.sh"}},
      {"gblCfgRcFstab", {"/etc/rc", "/etc/fstab"}},
  };
  Scenario scenario;
  scenario.files.push_back({"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0644});
  scenario.files.push_back({"/writeable/logs/messages", "log\n", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const std::string passwd = RootFile("/etc/passwd");
  const std::string shadow = RootFile("/etc/shadow");
  const std::string group = RootFile("/etc/group");

  for (const FlagCase& c : cases) {
    SCOPED_TRACE(std::string("flag [") + c.flag + "]");
    for (const FlagCase& other : cases) {
      for (const char* path : other.paths) PutRoot(path, "old\n");
    }
    for (const char* path : kAlwaysRemoved) PutRoot(path, "old\n");
    PutRoot("/etc/passwd", passwd);
    PutRoot("/etc/shadow", shadow);
    PutRoot("/etc/group", group);
    std::vector<std::string> words;
    if (*c.flag != '\0') words = {"set", c.flag, "1"};
    words.push_back("UPDTUpdateConfig");

    const RunResult result = Probe(words);

    EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n") << Describe(result);
    EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
    for (const FlagCase& other : cases) {
      for (const char* path : other.paths) {
        EXPECT_EQ(RootExists(path), &other != &c) << path;
      }
    }
    for (const char* path : kAlwaysRemoved) EXPECT_FALSE(RootExists(path)) << path;
    const bool accounts = std::string(c.flag) == "gblCfgFtpUser";
    EXPECT_EQ(RootFile("/etc/passwd"),
              accounts ? kPasswdFtp + (kPasswdAnonymous + passwd) : passwd);
    EXPECT_EQ(RootExists("/volume1/s@vedconfig"), std::string(c.flag) == "gblCfgRcFstab");
  }
}

TEST_F(MigrationTest, FilesAlreadyMissingAreNoFailure) {
  ASSERT_NE(Build(Scenario()), nullptr);

  const RunResult result =
      Probe({"set", "gblCfgAtalk", "1", "set", "gblCfgPapd", "1", "set", "gblCfgProfile", "1",
             "set", "gblCfgJumboFrame", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
  EXPECT_EQ(RootFile("/var/log/veltupdate.log"), "<missing>");
}

TEST_F(MigrationTest, OldConfigurationAndLogsAreCopiedToTheRunVolume) {
  Scenario scenario;
  scenario.files.push_back({"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0640});
  scenario.files.push_back({"/writeable/configs/sub/hosts", "127.0.0.1 filebay\n", "", 0644});
  scenario.files.push_back({"/writeable/logs/messages", "old log\n", "", 0644});
  scenario.files.push_back({"/etc/rc", "#!/bin/sh\n", "", 0755});
  scenario.files.push_back({"/etc/fstab", "/dev/hda1 / ext3\n", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  RunResult result = Probe({"set", "gblCfgRcFstab", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n") << Describe(result);
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
  EXPECT_FALSE(RootExists("/etc/rc"));
  EXPECT_FALSE(RootExists("/etc/fstab"));
  EXPECT_EQ(RootFile("/volume1/s@vedconfig/veltinfo.conf"), "a=\"1\"\n");
  EXPECT_EQ(ModeOf(box_->RootPath("/volume1/s@vedconfig/veltinfo.conf")), 0640u);
  EXPECT_EQ(RootFile("/volume1/s@vedconfig/sub/hosts"), "127.0.0.1 filebay\n");
  EXPECT_EQ(RootFile("/volume1/s@vedconfig/messages"), "old log\n");

  result = Probe({"set", "gszVolume", "/volume2", "set", "gblCfgRcFstab", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n") << Describe(result);
  EXPECT_EQ(RootFile("/volume2/s@vedconfig/veltinfo.conf"), "a=\"1\"\n");
  EXPECT_EQ(RootFile("/volume2/s@vedconfig/messages"), "old log\n");
}

TEST_F(MigrationTest, FailedCopyCountsWithItsCommandInTheMessage) {
  Scenario scenario;
  scenario.files.push_back({"/writeable/configs/veltinfo.conf", "a=\"1\"\n", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result = Probe({"set", "gblCfgRcFstab", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig -1\n");
  const std::vector<std::string> messages = ErrorMessages(result);
  ASSERT_EQ(messages.size(), 1u) << Describe(result);
  EXPECT_EQ(messages[0].rfind("updater:N(UPDTUpdateConfig) Failed to execute szCmd=[/bin/cp -a "
                              "/writeable/configs/* /writeable/logs/* /volume1/s@vedconfig], "
                              "errno=(",
                              0),
            0u)
      << messages[0];
  // What could be copied was copied.
  EXPECT_EQ(RootFile("/volume1/s@vedconfig/veltinfo.conf"), "a=\"1\"\n");
}

TEST_F(MigrationTest, CrontabFiltersDropExactlyTheVacuumAndHtmlLines) {
  Scenario scenario;
  scenario.files.push_back({"/etc/crontab",
                            "#minute\thour\tmday\tmonth\twday\twho\tcommand\n"
                            "0\t3\t*\t*\t*\troot\t/usr/velt/pgsql/bin/vacuumdb -a -z\n"
                            "*/5\t*\t*\t*\t*\troot\t/bin/rm -f /var/log/*.html\n"
                            "10 2 * * * root /usr/velt/bin/backup  --all   \n"
                            "0 1 * * * root /bin/rm -f /var/log/x.html\n"
                            "\n"
                            "30 4 * * 0 root /usr/velt/bin/vacuumdb-report\n"
                            "last line without newline",
                            "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result = Probe({"UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
  EXPECT_EQ(RootFile("/etc/crontab"),
            "#minute\thour\tmday\tmonth\twday\twho\tcommand\n"
            "10 2 * * * root /usr/velt/bin/backup  --all   \n"
            "0 1 * * * root /bin/rm -f /var/log/x.html\n"
            "\n"
            "last line without newline\n");
}

TEST_F(MigrationTest, CrontabFiltersFollowNoPlantedLinkAndNeverInstallAnEmptyCrontab) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const std::string crontab = RootFile("/etc/crontab");
  ASSERT_EQ(symlink("/etc/planted", box_->RootPath("/tmp/crontab_tmp").c_str()), 0);

  RunResult result = Probe({"UPDTUpdateConfig"});
  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
  EXPECT_FALSE(RootExists("/etc/planted"));
  EXPECT_EQ(RootFile("/etc/crontab"), crontab);
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});

  // Without a crontab grep fails: nothing is installed, both steps say so.
  ASSERT_EQ(unlink(box_->RootPath("/etc/crontab").c_str()), 0);
  result = Probe({"UPDTUpdateConfig"});
  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
  EXPECT_FALSE(RootExists("/etc/crontab"));
  EXPECT_EQ(ErrorMessages(result),
            (std::vector<std::string>{
                "updater(N) Failed to remove vacuumdb from crontab.",
                "updater(N) Failed to remove \"rm -f /var/log/\\*.html\" from crontab."}));
}

TEST_F(MigrationTest, JumboMtuValuesAreLoweredAndOthersLeftIdentical) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const std::string settings = RootFile("/etc/veltinfo.conf");
  ASSERT_NE(settings.find("MTUValue=\"1500\"\n"), std::string::npos) << settings;
  const std::string without_mtu = Replaced(settings, "MTUValue=\"1500\"\n", "");
  const struct {
    std::string flag;
    std::string before;
    std::string after;
  } cases[] = {
      {"1", Replaced(settings, "\"1500\"", "\"9000\""), Replaced(settings, "\"1500\"", "\"8000\"")},
      {"1", Replaced(settings, "\"1500\"", "\"4074\""), Replaced(settings, "\"1500\"", "\"4000\"")},
      {"1", Replaced(settings, "MTUValue=\"1500\"", "MTUValue = 9000"),
       Replaced(settings, "\"1500\"", "\"8000\"")},
      {"1", settings, settings},
      {"1", without_mtu, without_mtu},
      {"1", Replaced(settings, "\"1500\"", "\"8000\""), Replaced(settings, "\"1500\"", "\"8000\"")},
      {"0", Replaced(settings, "\"1500\"", "\"9000\""), Replaced(settings, "\"1500\"", "\"9000\"")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("gblCfgMTU " + c.flag + ", before:\n" + c.before);
    PutRoot("/etc/veltinfo.conf", c.before);

    const RunResult result = Probe({"set", "gblCfgMTU", c.flag, "UPDTUpdateConfig"});

    EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
    EXPECT_EQ(RootFile("/etc/veltinfo.conf"), c.after);
  }
}

TEST_F(MigrationTest, CountingFailureGivesMinusOneAndLaterStepsStillRun) {
  Scenario scenario;
  // A non-empty directory where "/etc/profile" was: unlink fails (EISDIR).
  scenario.files.push_back({"/etc/profile/profile.d", "x\n", "", 0644});
  // The same for php.ini, whose failure is only logged.
  scenario.files.push_back({"/usr/velt/etc/php.ini/x", "x\n", "", 0644});
  scenario.files.push_back({"/usr/velt/etc/rc.d/S78JumboFrame.sh", "#!/bin/sh\n", "", 0755});
  scenario.files.push_back({"/usr/velt/etc/manutil.conf", "x\n", "", 0644});
  scenario.files.push_back(
      {"/etc/crontab", "0 3 * * * root vacuumdb -a\n1 1 * * * root ls\n", "", 0644});
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  ASSERT_NE(Build(scenario), nullptr);

  RunResult result = Probe({"set", "gblCfgProfile", "1", "set", "gblCfgJumboFrame", "1", "set",
                            "gblCfgMTU", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig -1\n");
  const std::vector<std::string> expected = {
      "updater:N(UPDTUpdateConfig) Failed to remove /etc/profile, errno=(21)[Is a directory]",
      "updater:N(UPDTUpdateConfig) Failed to remove /usr/velt/etc/php.ini, errno=(21)[Is a "
      "directory]"};
  EXPECT_EQ(ErrorMessages(result), expected) << Describe(result);
  EXPECT_EQ(UpdateLogTexts(), expected);
  EXPECT_TRUE(RootExists("/etc/profile/profile.d"));
  EXPECT_FALSE(RootExists("/usr/velt/etc/rc.d/S78JumboFrame.sh"));
  EXPECT_FALSE(RootExists("/usr/velt/etc/manutil.conf"));
  EXPECT_EQ(RootFile("/etc/crontab"), "1 1 * * * root ls\n");
  EXPECT_NE(RootFile("/etc/veltinfo.conf").find("\nMTUValue=\"8000\"\n"), std::string::npos);

  // Without the profile failure, the php.ini failure alone does not count.
  std::filesystem::remove_all(box_->RootPath("/etc/profile"));
  result = Probe({"set", "gblCfgProfile", "1", "UPDTUpdateConfig"});
  EXPECT_EQ(result.out, "UPDTUpdateConfig 0\n");
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{expected[1]});
}

TEST_F(MigrationTest, FailedJumboFrameRemoveNamesTheDirectory) {
  Scenario scenario;
  scenario.files.push_back({"/usr/velt/etc/rc.d/S78JumboFrame.sh/x", "x\n", "", 0644});
  scenario.files.push_back({"/usr/velt/etc/rc.atalk/x", "x\n", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);

  const RunResult result =
      Probe({"set", "gblCfgJumboFrame", "1", "set", "gblCfgAtalk", "1", "UPDTUpdateConfig"});

  EXPECT_EQ(result.out, "UPDTUpdateConfig -1\n");
  EXPECT_EQ(ErrorMessages(result),
            (std::vector<std::string>{
                "updater:N(UPDTUpdateConfig) Failed to update [/usr/velt/etc/rc.atalk], "
                "errno=(21)[Is a directory]",
                "updater:N(UPDTUpdateConfig) Failed to remove /usr/velt/etc/rc.d, errno=(21)[Is "
                "a directory]"}))
      << Describe(result);
}

// ------------------------------------------------------------ FTP passive ports

TEST_F(MigrationTest, FtpPassiveRangeIsCutTo1024PortsOnlyWhenWider) {
  const struct {
    const char* low;
    const char* high;
    const char* written;  // null: the file stays identical
  } cases[] = {
      {"55536", "65535", "56559"}, {"55536", "56559", nullptr}, {"55536", "56560", "56559"},
      {"60000", "50000", nullptr}, {"1025", "65535", "2048"},
  };
  ASSERT_NE(Build(Scenario()), nullptr);
  const std::string base = RootFile("/etc/veltinfo.conf");
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.low) + "-" + c.high);
    const std::string before = base + "ftplowport=\"" + c.low + "\"\nftphighport=\"" + c.high +
                               "\"\nftpmaxclient=\"10\"\n";
    PutRoot("/etc/veltinfo.conf", before);

    const RunResult result = Probe({"UpdateFTPPassivePortRange"});

    EXPECT_EQ(result.out, "UpdateFTPPassivePortRange 0\n");
    const std::string expected =
        c.written == nullptr ? before
                             : Replaced(before, std::string("ftphighport=\"") + c.high + "\"",
                                        std::string("ftphighport=\"") + c.written + "\"");
    EXPECT_EQ(RootFile("/etc/veltinfo.conf"), expected);
  }
}

TEST_F(MigrationTest, FtpPassiveRangeWithMissingKeysOrUnreadableFile) {
  ASSERT_NE(Build(Scenario()), nullptr);
  const std::string base = RootFile("/etc/veltinfo.conf");
  // A missing low port reads as 0: 0..65535 is cut to 0..1023.
  PutRoot("/etc/veltinfo.conf", base + "ftphighport=\"65535\"\n");
  RunResult result = Probe({"UpdateFTPPassivePortRange"});
  EXPECT_EQ(result.out, "UpdateFTPPassivePortRange 0\n");
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), base + "ftphighport=\"1023\"\n");

  // Neither key: a range of one port, untouched.
  PutRoot("/etc/veltinfo.conf", base);
  result = Probe({"UpdateFTPPassivePortRange"});
  EXPECT_EQ(result.out, "UpdateFTPPassivePortRange 0\n");
  EXPECT_EQ(RootFile("/etc/veltinfo.conf"), base);

  std::filesystem::remove(box_->RootPath("/etc/veltinfo.conf"));
  result = Probe({"UpdateFTPPassivePortRange"});
  EXPECT_EQ(result.out, "UpdateFTPPassivePortRange -1\n");
  EXPECT_EQ(ErrorMessages(result),
            std::vector<std::string>{"updater:N(UpdateFTPPassivePortRange) "
                                     "SLIBFileGetKeyValue(SZF_VELT_INFO, SZK_FTP_LOW_PORT) fail"});
}

// ------------------------------------------------------------ rsync daemon

TEST_F(MigrationTest, RsyncdConfGetsNoChrootAfterLockFileOnceAndMode0644) {
  Scenario scenario;
  scenario.files.push_back({"/etc/rsyncd.conf",
                            "uid = root\n"
                            "lock file = /var/run/rsyncd.lock\n"
                            "log file = /var/log/rsyncd.log\n"
                            "[NetBackup]\n"
                            "path = /volume1/NetBackup\n",
                            "", 0600});
  ASSERT_NE(Build(scenario), nullptr);

  RunResult result = Probe({"UpdateRsyncdConf"});
  EXPECT_EQ(result.out, "UpdateRsyncdConf 0\n");
  const std::string expected =
      "uid = root\n"
      "lock file = /var/run/rsyncd.lock\n"
      "use chroot = no\n"
      "log file = /var/log/rsyncd.log\n"
      "[NetBackup]\n"
      "path = /volume1/NetBackup\n";
  EXPECT_EQ(RootFile("/etc/rsyncd.conf"), expected);
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/rsyncd.conf")), 0644u);

  // A second run only re-modes the file.
  ASSERT_EQ(chmod(box_->RootPath("/etc/rsyncd.conf").c_str(), 0600), 0);
  result = Probe({"UpdateRsyncdConf"});
  EXPECT_EQ(result.out, "UpdateRsyncdConf 0\n");
  EXPECT_EQ(RootFile("/etc/rsyncd.conf"), expected);
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/rsyncd.conf")), 0644u);
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
}

TEST_F(MigrationTest, RsyncdConfWithoutLockFileLineOrFileFails) {
  Scenario scenario;
  scenario.files.push_back({"/etc/rsyncd.conf", "uid = root\n", "", 0600});
  ASSERT_NE(Build(scenario), nullptr);

  RunResult result = Probe({"UpdateRsyncdConf"});
  EXPECT_EQ(result.out, "UpdateRsyncdConf -1\n");
  EXPECT_EQ(ErrorMessages(result),
            std::vector<std::string>{
                "updater UpdateRsyncdConf(N) : SLIBFileAddLine(szFile=[/etc/rsyncd.conf] "
                "szKey=[NetBackup] szLine=[use chroot = no] flag=OP_FIND_PREFIX) fail"});
  EXPECT_EQ(RootFile("/etc/rsyncd.conf"), "uid = root\n");
  EXPECT_EQ(ModeOf(box_->RootPath("/etc/rsyncd.conf")), 0600u);

  std::filesystem::remove(box_->RootPath("/etc/rsyncd.conf"));
  result = Probe({"UpdateRsyncdConf"});
  EXPECT_EQ(result.out, "UpdateRsyncdConf -1\n");
  EXPECT_EQ(ErrorMessages(result), std::vector<std::string>{});
  EXPECT_FALSE(RootExists("/etc/rsyncd.conf"));
}

// ------------------------------------------------------------ photo database

TEST_F(MigrationTest, PhotoDatabaseStatementsRunAsAdminWithExactArguments) {
  const std::string psql = "/usr/velt/pgsql/bin/psql as admin: [photo] [-c] ";
  const std::vector<std::string> bit1 = {
      psql + "[ALTER TABLE photo_image ALTER timetaken TYPE varchar(64)]",
      psql + "[ALTER TABLE photo_user ADD COLUMN admin bool DEFAULT false]"};
  const std::vector<std::string> bit2 = {
      psql +
          "[CREATE TABLE video_comment(id serial NOT NULL,path text NOT NULL,name varchar(100),"
          "email varchar(128),\"comment\" text,date timestamp,updated char(1),CONSTRAINT "
          "video_comment_pkey PRIMARY KEY (id)) WITH OIDS;ALTER TABLE video_comment OWNER TO "
          "admin;]",
      psql +
          "[CREATE TABLE video_desc(id serial NOT NULL,path text NOT NULL, title text, "
          "description text,updated char(1),CONSTRAINT video_pkey PRIMARY KEY (id),CONSTRAINT "
          "video_path_key UNIQUE (path)) WITH OIDS;ALTER TABLE video_desc OWNER TO admin;]"};
  const std::string reset = "/usr/velt/pgsql/bin/dropdb as admin: [mediaserver]";
  auto join = [](std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const struct {
    const char* upgrade;
    const char* reset;
    std::vector<std::string> calls;
    bool video_message;
  } cases[] = {
      {"1", "0", bit1, false},    {"2", "0", bit2, true},
      {"0", "1", {reset}, false}, {"3", "1", join(join(bit1, bit2), {reset}), true},
      {"0", "0", {}, false},
  };
  ASSERT_NE(Build(Scenario()), nullptr);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("gPhotoDbUpgrade ") + c.upgrade + " gblPhotoDbReset " + c.reset);
    PutRoot(kDbCallLog, "");

    const RunResult result = Probe(
        {"set", "gPhotoDbUpgrade", c.upgrade, "set", "gblPhotoDbReset", c.reset, "UpdatePhotoDB"});

    EXPECT_EQ(result.out, "UpdatePhotoDB 0\n");
    EXPECT_EQ(SplitLines(RootFile(kDbCallLog)), c.calls);
    EXPECT_EQ(result.stub_calls, std::vector<std::string>{"/usr/velt/bin/veltindex -R all"});
    EXPECT_EQ(ErrorMessages(result),
              c.video_message ? std::vector<std::string>{"Update photo db to add video tables"}
                              : std::vector<std::string>{});
  }
}

}  // namespace
