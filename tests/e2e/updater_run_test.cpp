// The update run end to end: the simulator build of the updater runs inside
// an appliance sandbox per case (simulated flash chip, stub services, a
// sample package in /volume1/upd@te), and each case checks what only a whole
// run shows: the result code, the progress record, the update log, the
// service calls, where the hard-disk archive went and the flash chip as the
// boot loader finds it. The messages of each step are the module tests'.
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/chip_outcome.h"
#include "sim/flash_check.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"

namespace {

using sandbox::Scenario;
using Lines = std::vector<std::string>;

constexpr char kStart[] = "Start of the update...";
constexpr char kDone[] = "Congratulation!! The update has been completed!!";
const std::string kDatabase = "/usr/velt/etc/rc.d/S20pgsql.sh";
constexpr char kK77[] = "veltara_powerpc_k77g+_1hd";
const std::string kPkg = sandbox::kPackageDir;

std::string Upgrade(const std::string& build = "500") {
  return "Upgrade from version 2.0.3." + build + " to version 2.0.3.501";
}
std::string Failed(int code) {
  return "Failed to accomplish the update! (errno = " + std::to_string(code) + ")";
}

enum class Services { kNone, kStopped, kStoppedThenStarted, kAny };
// The chip after the run: as before; every image back where the boot loader
// looks (a flash disk formatted and written back); the package's images
// there and every other image kept; the FIS directory erased; changed (a
// group update's failed write stays).
enum class Chip { kUntouched, kRestored, kUpdated, kDirectoryErased, kChanged };
enum class Archive { kStays, kMoved, kOnVolumeZ };  // in this order
struct After {
  Services services;
  Archive archive;
  Chip chip;
};
const After kUpdated = {Services::kStopped, Archive::kMoved, Chip::kUpdated};
const After kUpdatedAnyServices = {Services::kAny, Archive::kMoved, Chip::kUpdated};
const After kRolledBack = {Services::kStoppedThenStarted, Archive::kStays, Chip::kUntouched};
const After kNothingDone = {Services::kNone, Archive::kStays, Chip::kUntouched};
using Setup = std::function<void(Scenario*)>;

struct Case {
  const char* name;
  const char* board;
  Setup setup;
  std::string command;  // for /bin/sh -c, with the updater as $U; empty: "exec $U"
  int code;
  std::string progress;
  Lines log;
  After after;
  // Stub calls and updater syslog lines (line numbers as N) of the run; "!TEXT": no syslog
  // line of the updater holds TEXT.
  Lines shows = {};
  std::string out = "";  // what the command printed
};

void Set(Scenario* s, const std::string& path, const std::string& content, mode_t mode = 0644) {
  s->files.push_back({path, content, "", mode});
}
void SystemBuild(Scenario* s, const std::string& build) {
  sandbox::SetKeyValue(&s->version, "buildnumber", build);
}
Setup Faults(Lines faults, Setup more = nullptr) {
  return [=](Scenario* s) {
    s->faults = faults;
    if (more) more(s);
  };
}
// The kernel grows into an erase block whose worn bits keep bit 0 of every
// byte set: each verify of the new kernel fails.
const Lines kWornKernelBlock = {"fault worn-block mtd1 0x130000"};
// An old system (build 350) whose flash driver cannot lend its buffer,
// booted from an initial RAM disk.
void OldSystemWithInitrd(Scenario* s) {
  SystemBuild(s, "350");
  Set(s, "/initrd/keep", "x");
}
// Runs the updater in a time namespace whose clock has been up for just
// over `seconds` - 1: sysinfo rounds that up to `seconds` while the run
// takes less than 0.9 s to reach its reboot rule.
std::string WithUptime(int seconds) {
  return "while :; do read up rest </proc/uptime; case ${up#*.} in 0*) break;; esac; done; "
         "/usr/local/bin/unshare --time --boottime $((" +
         std::to_string(seconds - 1) + " - ${up%.*})) $U";
}
// `run`, then `after`; the exit status is the run's.
std::string Then(const std::string& run, const std::string& after) {
  return run + "; s=$?; " + after + "; exit $s";
}
// The updater runs in /root/start without the capabilities that let root
// ignore permissions; the database script's stop closes that directory.
constexpr char kFromStart[] =
    "cd /root/start && exec /usr/local/bin/setpriv --bounding-set -dac_override,-dac_read_search "
    "$U";
void ClosingStartDirectory(Scenario* s) {
  Set(s, "/root/start/keep", "x");
  Set(s, kDatabase,
      "#!/bin/sh\necho \"$0 $*\" >>/var/log/stub-calls.log\n"
      "if [ \"$1\" = stop ]; then chmod 0 /root/start; fi\n",
      0755);
}

// clang-format off
std::vector<Case> Cases() {
  const Lines ok = {kStart, Upgrade(), kDone};
  const Lines failed20 = {kStart, Upgrade(), Failed(20)};
  const std::string long_path = "/volume1/pkg/" + std::string(250, 'a') + "/updater";
  return {
      {"MSysRepartitions", "msys", nullptr, "", 0, "R:0:", ok, kUpdated},
      // The archive moves all the same.
      {"MSysFailedWriteRollsBackWith20", "msys", Faults({"fault write mtd5 nth=1 errno=EIO"}), "",
       20, "P:-20:", failed20, {Services::kStoppedThenStarted, Archive::kMoved, Chip::kRestored}},
      {"VolumeWithSemicolonIsRefused", "nor8", nullptr, "exec $U -v '/volume1;touch /tmp/owned'",
       255, "A:0:", {kStart}, kNothingDone},
      // A volume cut to fit would name another directory.
      {"VolumeOver31CharactersIsRefused", "nor8", nullptr,
       "exec $U -v /volume1/vvvvvvvvvvvvvvvvvvvvvvv", 255, "A:0:", {kStart}, kNothingDone,
       {"user.err updater: invalid option for -v [mount_point]"}},
      {"OtherVolumeReceivesTheArchive", "nor8", [](Scenario* s) { Set(s, "/volumez/keep", "x"); },
       "exec $U -v /volumez", 0, "R:0:", ok,
       {Services::kStopped, Archive::kOnVolumeZ, Chip::kUpdated}},
      // Started by its bare name: the volume's package directory is the
      // working directory.
      {"BareNameWorksInTheVolumesPackageDirectory", "nor8", nullptr,
       "cd /tmp && PATH=/volume1/upd@te:$PATH exec updater", 0, "R:0:", ok, kUpdated},
      // Cut to 255 characters at its last '/', the program path would name
      // another directory.
      {"ProgramPathOver255CharactersEndsWith3", "nor8",
       [=](Scenario* s) { s->files.push_back({long_path, "", UPDATER_SIM, 0755}); }, long_path, 3,
       "A:-3:", {kStart, Failed(3)}, kNothingDone,
       {"user.err main(N): refuse program path of 271 characters: at most 255 fit"}},
      // Every directory entry fails: the roll-back goes on and brings back
      // the whole chip.
      {"RollBackGoesOnPastFailures", "nor8", Faults({"fault set-fis mtd7 every errno=EIO"}), "", 20,
       "P:-20:", failed20, kRolledBack, {"user.err main: UPDTRollBack() fail"}},
      // A group update neither analyses, stops services, backs up nor rolls
      // back.
      {"FailedVerifyInGroupUpdateLeavesTheFlash", "nor8", Faults(kWornKernelBlock), "exec $U -g",
       20, "P:-20:", {kStart, Failed(20)}, {Services::kNone, Archive::kStays, Chip::kChanged}},
      // A directory where the configuration migration removes a file.
      {"FailedConfigurationMigrationRollsBackWith17", "nor8",
       [](Scenario* s) { Set(s, "/usr/velt/etc/manutil.conf/keep", "x"); }, "", 17, "C:-17:",
       {kStart, Upgrade(), Failed(17)}, kRolledBack},
      {"RefusedDriverBufferEndsWith23", "nor8", Faults({"set driver-buffer errno ENOMEM"}), "", 23,
       "A:-23:", {kStart, Upgrade(), Failed(23)}, kRolledBack},
      {"OldSystemUp300SecondsIsUpdated", "nor8", OldSystemWithInitrd, WithUptime(300), 0, "R:0:",
       {kStart, Upgrade("350"), kDone}, kUpdatedAnyServices},
      {"OldSystemUp301SecondsMustRebootFirst", "nor8", OldSystemWithInitrd,
       Then(WithUptime(301), "grep extramsg /tmp/update.message"), 24, "A:-24:",
       {kStart, Upgrade("350"), Failed(24)}, kRolledBack, {},
       "extramsg=\"To perform upgrade task, you have to REBOOT your Filebay first.\"\n"},
      // In place; the photo database step of an old system starts the
      // database.
      {"JuniorNeverAppliesTheRebootRule", "junior6", OldSystemWithInitrd, WithUptime(301), 0,
       "R:0:", {kStart, Upgrade("350"), kDone}, kUpdatedAnyServices,
       {kDatabase + " start"}},
      // An old build whose FTP passive range is too wide; a directory holds
      // the settings' temporary file name.
      {"FailedFtpPortRangeStepEndsWith21", "nor8",
       [](Scenario* s) {
         SystemBuild(s, "400");
         sandbox::SetKeyValue(&s->settings, "ftphighport", "60000");
         Set(s, "/etc/veltinfo.conf.tmp/keep", "x");
       },
       "", 21, "A:-21:", {kStart, Upgrade("400"), Failed(21)}, kRolledBack},
      // The FIS directory of a junior k77g+ at build 284 is rewritten before
      // the flash; its write fails.
      {"FailedFisDirectoryRepairEndsWith20", "junior6",
       Faults({"fault write mtd5 nth=1 errno=EIO"},
              [](Scenario* s) {
                sandbox::SetKeyValue(&s->default_settings, "unique", kK77);
                SystemBuild(s, "284");
                Set(s, kPkg + "/VERSION", "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\""
                    "\nbuildnumber=\"501\"\nunique=\"" + std::string(kK77) + "\"\n");
              }),
       "mount -t tmpfs tmpfs /proc/sys/kernel && echo 2.0-j >/proc/sys/kernel/velt_hw_version && "
       "exec $U", 20, "A:-20:", {kStart, Upgrade("284"), Failed(20)},
       {Services::kStoppedThenStarted, Archive::kStays, Chip::kDirectoryErased}},
      // Build 483 needs the rsync fix: the secrets are for root and group 25.
      {"RsyncSecretsBecomeGroup25Readable", "nor8",
       [](Scenario* s) {
         SystemBuild(s, "483");
         Set(s, "/etc/rsyncd.secrets", "backup:secret\n", 0666);
       },
       Then("$U", "stat -c '%a %u %g' /etc/rsyncd.secrets"), 0, "R:0:",
       {kStart, Upgrade("483"), kDone}, kUpdatedAnyServices, {}, "640 0 25\n"},
      // Another process holds a service lock for longer than the stop waits:
      // nothing was stopped, so nothing is started after the failure.
      {"ServicesThatCouldNotBeStoppedAreNotStarted", "nor8", Faults(kWornKernelBlock),
       "probe holdlock 0x40 12000 /tmp/held >/dev/null & until [ -e /tmp/held ]; do sleep 0.1; "
       "done; exec $U", 20, "P:-20:", failed20, kNothingDone,
       {"user.err main(N): all services stop error"}},
      // Stopped at 9000, started again at 1500 before the MTU is restored.
      {"JumboFramesAreOffWhileTheFlashIsWritten", "nor8",
       Faults(kWornKernelBlock,
              [](Scenario* s) {
                s->eth0_speed = 1000;
                sandbox::SetKeyValue(&s->default_settings, "supportMTU", "yes");
                sandbox::SetKeyValue(&s->settings, "MTUValue", "9000");
                Set(s, kDatabase,
                "#!/bin/sh\necho \"$0 $* $(ifconfig eth0 | grep -o 'MTU:[0-9]*')\" "
                    ">>/var/log/stub-calls.log\n", 0755);
              }),
       Then("ifconfig eth0 mtu 9000 && $U", "ifconfig eth0 | grep -o 'MTU:[0-9]*'; grep ^MTU "
            "/etc/veltinfo.conf"), 20, "P:-20:", failed20,
       {Services::kAny, Archive::kStays, Chip::kUntouched},
       {kDatabase + " stop MTU:9000", kDatabase + " start MTU:1500"},
       "MTU:9000\nMTUValue=\"9000\"\n"},
      // Rebalanced. Without "eth0" the setting call fails but stores 1500;
      // the stored value comes back all the same.
      {"StoredMtuComesBackWhenTheLinkCouldNotBeSet", "nor8",
       [](Scenario* s) {
         sandbox::SetKeyValue(&s->default_settings, "supportMTU", "yes");
         sandbox::SetKeyValue(&s->settings, "MTUValue", "9000");
       },
       Then("$U", "grep ^MTU /etc/veltinfo.conf"), 0, "R:0:", ok, kUpdated, {},
       "MTUValue=\"9000\"\n"},
      // No clean-up: the driver buffer (whose release would fail) is never
      // released.
      {"UnopenableStartDirectoryEndsWith1WithoutCleanUp", "nor8",
       Faults({"set driver-buffer errno ENOSYS"}, [](Scenario* s) { Set(s, "/root/start/keep",
       "x"); }),
       "chmod 0 /root/start && " + std::string(kFromStart), 1, "A:-1:", {kStart, Failed(1)},
       kNothingDone, {"!driver buffer"}},
      {"FailureToReturnToTheStartDirectoryTurnsSuccessInto2", "nor8", ClosingStartDirectory,
       kFromStart, 2, "R:-2:", {kStart, Upgrade(), kDone, Failed(2)},
       {Services::kStoppedThenStarted, Archive::kMoved, Chip::kUpdated}},
      {"FailureToReturnToTheStartDirectoryReplacesAFailureWith2", "nor8",
       Faults({"set driver-buffer errno ENOMEM"}, ClosingStartDirectory), kFromStart, 2, "A:-2:",
       {kStart, Upgrade(), Failed(2)}, kRolledBack},
  };
}
// clang-format on

std::string Bytes(const flashsim::ChipState& chip, const campaign::BootEntry& at, size_t length) {
  const size_t from = at.base - chip.layout.chip_base;
  if (at.size < length || from + length > chip.image.size()) return "<not there>";
  return std::string(chip.image.begin() + from, chip.image.begin() + from + length);
}

// Every image of the old chip where the boot loader now finds it, `images`
// instead of the old ones they replace; nothing overlapping.
void ExpectImages(const flashsim::ChipState& before, const flashsim::ChipState& after,
                  const std::vector<sandbox::PackageImage>& images) {
  bool terminated = false;
  const std::vector<campaign::BootEntry> view = campaign::BootView(after, &terminated);
  EXPECT_TRUE(terminated && flashsim::ConsistencyProblems(after).empty());
  for (const campaign::BootEntry& old : campaign::BootView(before, &terminated)) {
    std::string expected = Bytes(before, old, old.size);
    for (const sandbox::PackageImage& image : images) {
      if (old.name == (image.file == "rd.bin" ? "rd.gz" : image.file)) expected = image.bytes;
    }
    const auto now = std::find_if(view.begin(), view.end(),
                                  [&](const campaign::BootEntry& e) { return e.name == old.name; });
    EXPECT_TRUE(now != view.end() && Bytes(after, *now, expected.size()) == expected) << old.name;
  }
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class UpdaterRunTest : public sandbox_test::SandboxFixture,
                       public ::testing::WithParamInterface<Case> {
 protected:
  UpdaterRunTest() : SandboxFixture("updater-run-test", {FLASH_TOOL, FLASHSIM_DAEMON, ""}, true) {}
  bool Exists(const std::string& path) const { return RootFile(path) != "<missing>"; }
};

TEST_P(UpdaterRunTest, Run) {
  const Case& c = GetParam();
  Scenario scenario;
  std::string error;
  flashsim::ChipLayout layout;
  ASSERT_TRUE(sandbox::ApplyBoard(c.board, SANDBOX_LAYOUT_DIR, &scenario, &error)) << error;
  ASSERT_TRUE(sandbox::LoadLayoutFile(scenario.layout_file, &layout, &error)) << error;
  const bool junior = std::string(c.board) == "junior6";
  sandbox::PackageOptions package;
  package.rebalance = !junior;
  scenario.files = sandbox::SamplePackageFiles(
      layout, package, junior ? "veltara_powerpc_junior" : "veltara_powerpc_1hd");
  scenario.files.insert(scenario.files.end(),
                        {{kPkg + "/updater", "", UPDATER_SIM, 0755},
                         {"/usr/local/bin/probe", "", MODULE_PROBE, 0755},
                         {"/usr/local/lib/fast_sleep.so", "", FAST_SLEEP_LIB, 0755},
                         {"/usr/local/bin/unshare", "", "/usr/bin/unshare", 0755},
                         {"/usr/local/bin/setpriv", "", "/usr/bin/setpriv", 0755}});
  if (c.setup) c.setup(&scenario);
  ASSERT_NE(Build(scenario), nullptr);
  flashsim::ChipState before, after;
  ASSERT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &before, &error)) << error;

  sandbox::RunOptions options;
  // The programs' pauses (MTU settle time, lock and kill retries) are
  // shortened; see tests/sandbox/fast_sleep.cpp.
  options.env = {"LD_PRELOAD=/usr/local/lib/fast_sleep.so", "ASAN_OPTIONS=verify_asan_link_order=0",
                 "PATH=/usr/local/bin:/bin:/sbin:/usr/bin:/usr/sbin", "U=" + kPkg + "/updater"};
  const sandbox::RunResult result =
      box_->Run({"/bin/sh", "-c", c.command.empty() ? "exec $U" : c.command}, options);
  ASSERT_TRUE(result.ok && !result.timed_out) << sandbox_test::Describe(result);
  // A sanitizer build of the program reports its findings on stderr.
  EXPECT_TRUE(result.err.find("Sanitizer") == result.err.find("runtime error:")) << result.err;

  EXPECT_EQ(result.status, c.code) << sandbox_test::Describe(result);
  const std::string progress = RootFile("/tmp/update.progress");
  EXPECT_EQ(progress.substr(0, progress.find(' ')), c.progress) << "[" << progress << "]";
  // The update log without its time stamps and the failing steps' own lines.
  Lines log;
  std::istringstream update_log(RootFile("/var/log/veltupdate.log"));
  for (std::string line; std::getline(update_log, line);) {
    if (line.size() > 20 && line.compare(20, 8, "updater:") != 0) log.push_back(line.substr(20));
  }
  EXPECT_EQ(log, c.log);
  // Stops before starts.
  const Lines& calls = result.stub_calls;
  const auto at = [&](const std::string& call) {
    return std::find(calls.begin(), calls.end(), call);
  };
  if (c.after.services != Services::kAny) {
    const auto stop = at(kDatabase + " stop"), start = at(kDatabase + " start");
    EXPECT_EQ(calls.empty(), c.after.services == Services::kNone) << testing::PrintToString(calls);
    EXPECT_EQ(stop != calls.end(), c.after.services != Services::kNone);
    EXPECT_EQ(start != calls.end() && start > stop,
              c.after.services == Services::kStoppedThenStarted);
  }
  Lines messages = sandbox_test::ProgramMessages(result, "updater");
  for (std::string& message : messages) message.erase(message.find_last_not_of("\n ") + 1);
  for (const std::string& line : c.shows) {
    if (line[0] == '!') {
      for (const std::string& m : messages) EXPECT_EQ(m.find(line.substr(1)), m.npos) << m;
    } else {
      EXPECT_TRUE(at(line) != calls.end() || std::count(messages.begin(), messages.end(), line))
          << line + "\n" + sandbox_test::Describe(result);
    }
  }
  EXPECT_EQ(result.out, c.out);

  const char* const moved_to[] = {"", sandbox::kNextBootArchive, "/volumez/VeltUpgrade.tar.gz"};
  const std::string archive = moved_to[static_cast<int>(c.after.archive)];
  EXPECT_TRUE(archive.empty() || RootFile(archive) == sandbox::SampleImageBytes("hda1.tgz", 4096));
  EXPECT_EQ(Exists(kPkg + "/hda1.tgz"), archive.empty());
  // Only the M-Systems path keeps its backup, beside the package.
  EXPECT_EQ(Exists(kPkg + "/b@ckup/mtd_vendor"), std::string(c.board) == "msys");
  EXPECT_FALSE(Exists("/tmp/owned"));

  ASSERT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &after, &error)) << error;
  const bool same = after.image == before.image &&
                    flashsim::FormatLayout(after.layout) == flashsim::FormatLayout(before.layout);
  bool terminated = false;
  if (c.after.chip == Chip::kUntouched || c.after.chip == Chip::kChanged) {
    EXPECT_EQ(same, c.after.chip == Chip::kUntouched);
  } else if (c.after.chip == Chip::kDirectoryErased) {
    EXPECT_TRUE(campaign::BootView(after, &terminated).empty());
  } else {
    ExpectImages(before, after,
                 c.after.chip == Chip::kUpdated ? sandbox::SampleImages(layout, package)
                                                : std::vector<sandbox::PackageImage>());
  }
}

std::string Name(const ::testing::TestParamInfo<Case>& info) { return info.param.name; }
INSTANTIATE_TEST_SUITE_P(Cases, UpdaterRunTest, ::testing::ValuesIn(Cases()), Name);

}  // namespace
