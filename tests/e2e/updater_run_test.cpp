// The update run end to end: the simulator build of the updater runs inside
// an appliance sandbox per case (simulated flash chip, stub services, a
// sample package in /volume1/upd@te), and each case checks what only a whole
// run shows: the result code, the progress record, the update log, the
// service calls, the interface's MTU, where the hard-disk archive went and
// the flash chip as the boot loader finds it. The messages of each step are
// the module tests' business.
#include <sys/stat.h>

#include <algorithm>
#include <functional>
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

using sandbox::RunResult;
using sandbox::Scenario;
using Lines = std::vector<std::string>;

constexpr char kUpdater[] = "/volume1/upd@te/updater";
constexpr char kFastSleep[] = "/usr/local/lib/fast_sleep.so";
constexpr char kStart[] = "Start of the update...";
constexpr char kDone[] = "Congratulation!! The update has been completed!!";
constexpr char kDatabase[] = "/usr/velt/etc/rc.d/S20pgsql.sh";
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
// looks (a flash disk formatted and written back); with the package's images
// there and every other image kept; the FIS directory erased; changed (a
// group update's failed write stays).
enum class Chip { kUntouched, kRestored, kUpdated, kDirectoryErased, kChanged };
enum class Archive { kStays, kMoved, kOnVolumeZ };
using Setup = std::function<void(Scenario*)>;

struct Case {
  const char* name;
  const char* board;
  Setup setup;
  // Run through /bin/sh -c ("@" stands for the updater); empty: the updater.
  std::string shell;
  Lines args;
  int code;
  std::string progress;
  Lines log;
  Services services;
  Archive archive;
  Chip chip;
  Lines messages = {};  // updater syslog lines (line numbers as N) the run shows
  Lines calls = {};     // stub calls the run shows
  std::function<void(const RunResult&, sandbox::Sandbox*)> check = nullptr;
};

void Set(Scenario* s, const std::string& path, const std::string& content, mode_t mode = 0644) {
  s->files.push_back({path, content, "", mode});
}
void Tool(Scenario* s, const std::string& path, const std::string& host) {
  s->files.push_back({path, "", host, 0755});
}
void SystemBuild(Scenario* s, const std::string& build) {
  sandbox::SetKeyValue(&s->version, "buildnumber", build);
}
void PackageUnique(Scenario* s, const std::string& unique) {
  Set(s, kPkg + "/VERSION",
      "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\nbuildnumber=\"501\"\nunique=\"" +
          unique + "\"\n");
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
  Tool(s, "/usr/local/sbin/unshare", "/usr/bin/unshare");
}
// Runs the updater in a time namespace whose clock has been up for just
// over `seconds` - 1: sysinfo rounds that up to `seconds` while the run
// takes less than 0.9 s to reach its reboot rule.
std::string WithUptime(int seconds) {
  return "while :; do read up rest </proc/uptime; case ${up#*.} in 0*) break;; esac; done; "
         "exec /usr/local/sbin/unshare --time --boottime $((" +
         std::to_string(seconds - 1) + " - ${up%.*})) @";
}
// The database script's stop closes the start directory /root/start to
// everyone while the updater runs without the capabilities that let root
// ignore permissions.
void ClosingStartDirectory(Scenario* s) {
  Tool(s, "/usr/local/sbin/run_without_dac_override", RUN_WITHOUT_DAC_OVERRIDE);
  Set(s, "/root/start/keep", "x");
  Set(s, kDatabase,
      "#!/bin/sh\necho \"$0 $*\" >>/var/log/stub-calls.log\n"
      "if [ \"$1\" = stop ]; then chmod 0 /root/start; fi\n",
      0755);
}
constexpr char kFromClosedStart[] =
    "cd /root/start && exec /usr/local/sbin/run_without_dac_override @";

std::string Root(sandbox::Sandbox* box, const std::string& path) {
  std::string content;
  return box->ReadRootFile(path, &content) ? content : "<missing>";
}
std::function<void(const RunResult&, sandbox::Sandbox*)> FileIs(const std::string& path,
                                                                const std::string& content) {
  return [=](const RunResult&, sandbox::Sandbox* box) { EXPECT_EQ(Root(box, path), content); };
}

// clang-format off
std::vector<Case> Cases() {
  const Lines ok = {kStart, Upgrade(), kDone};
  const Lines failed20 = {kStart, Upgrade(), Failed(20)};
  const std::string long_dir = "/volume1/pkg/" + std::string(250, 'a');
  const auto refused = [](const char* name, Lines args, Lines messages) {
    return Case{name, "nor8", nullptr, "", args, 255, "A:0:", {kStart}, Services::kNone,
                Archive::kStays, Chip::kUntouched, messages};
  };
  return {
      {"Nor8Rebalances", "nor8", nullptr, "", {}, 0, "R:0:", ok, Services::kStopped,
       Archive::kMoved, Chip::kUpdated},
      {"Junior6InPlace", "junior6", nullptr, "", {}, 0, "R:0:", ok, Services::kStopped,
       Archive::kMoved, Chip::kUpdated},
      {"MSysRepartitions", "msys", nullptr, "", {}, 0, "R:0:", ok, Services::kStopped,
       Archive::kMoved, Chip::kUpdated},
      // The roll-back formats again and writes every backup back; the archive
      // moves all the same.
      {"MSysFailedWriteRollsBackWith20", "msys", Faults({"fault write mtd5 nth=1 errno=EIO"}), "",
       {}, 20, "P:-20:", failed20, Services::kStoppedThenStarted, Archive::kMoved, Chip::kRestored},
      {"OtherModelIsRefusedWith12", "nor8", [](Scenario* s) { PackageUnique(s, "orvan_powerpc_1hd"); },
       "", {}, 12, "A:-12:", {kStart, Failed(12)}, Services::kNone, Archive::kStays,
       Chip::kUntouched, {"user.err main(N): fail to analyze, error = 12"}},
      refused("UnknownOption", {"-x"}, {"user.err updater: invalid option [?]"}),
      refused("VolumeWithSemicolon", {"-v", "/volume1;touch /tmp/owned"}, {}),
      // A volume cut to fit would name another directory.
      refused("VolumeOver31Characters", {"-v", "/volume1/" + std::string(23, 'v')},
              {"user.err updater: invalid option for -v [mount_point]"}),
      {"HelpExitsWith0", "nor8", nullptr, "", {"-h"}, 0, "A:0:", {kStart}, Services::kNone,
       Archive::kStays, Chip::kUntouched},
      {"OtherVolumeReceivesTheArchive", "nor8", [](Scenario* s) { Set(s, "/volumez/keep", "x"); },
       "", {"-v", "/volumez"}, 0, "R:0:", ok, Services::kStopped, Archive::kOnVolumeZ,
       Chip::kUpdated},
      // Started by its bare name: the volume's package directory is the
      // working directory.
      {"BareNameWorksInTheVolumesPackageDirectory", "nor8",
       [](Scenario* s) { Tool(s, "/usr/local/sbin/updater", UPDATER_SIM); },
       "cd /tmp && PATH=/usr/local/sbin:$PATH exec updater", {}, 0, "R:0:", ok,
       Services::kStopped, Archive::kMoved, Chip::kUpdated},
      // Cut to 255 characters at its last '/', the program path would name
      // /volume1/pkg, which holds a package too.
      {"ProgramPathOver255CharactersEndsWith3", "nor8",
       [=](Scenario* s) {
         for (sandbox::RootFile file : std::vector<sandbox::RootFile>(s->files)) {
           if (file.path.compare(0, kPkg.size(), kPkg) == 0)
             s->files.push_back({"/volume1/pkg" + file.path.substr(kPkg.size()), file.content,
                                 file.source, file.mode});
         }
         Tool(s, long_dir + "/updater", UPDATER_SIM);
       },
       long_dir + "/updater", {}, 3, "A:-3:", {kStart, Failed(3)}, Services::kNone,
       Archive::kStays, Chip::kUntouched,
       {"user.err main(N): refuse program path of 271 characters: at most 255 fit"}},
      {"FailedVerifyRollsBackWith20", "nor8", Faults(kWornKernelBlock), "", {}, 20, "P:-20:",
       failed20, Services::kStoppedThenStarted, Archive::kStays, Chip::kUntouched},
      // Every directory entry fails, or the root image can be neither moved
      // nor moved back: the roll-back goes on and brings back the whole chip.
      {"RollBackGoesOnPastFailingDirectoryEntries", "nor8",
       Faults({"fault set-fis mtd7 every errno=EIO"}), "", {}, 20, "P:-20:", failed20,
       Services::kStoppedThenStarted, Archive::kStays, Chip::kUntouched,
       {"user.err main: UPDTRollBack() fail"}},
      {"RollBackGoesOnPastAnImmovablePartition", "nor8",
       Faults({"fault set-extent mtd2 every errno=EIO"}), "", {}, 20, "P:-20:", failed20,
       Services::kStoppedThenStarted, Archive::kStays, Chip::kUntouched,
       {"user.err main: UPDTRollBack() fail"}},
      // A group update neither analyses, stops services, backs up nor rolls
      // back.
      {"FailedVerifyInGroupUpdateLeavesTheFlash", "nor8", Faults(kWornKernelBlock), "", {"-g"}, 20,
       "P:-20:", {kStart, Failed(20)}, Services::kNone, Archive::kStays, Chip::kChanged},
      // A directory where the configuration migration removes a file.
      {"FailedConfigurationMigrationRollsBackWith17", "nor8",
       [](Scenario* s) { Set(s, "/usr/velt/etc/manutil.conf/keep", "x"); }, "", {}, 17, "C:-17:",
       {kStart, Upgrade(), Failed(17)}, Services::kStoppedThenStarted, Archive::kStays,
       Chip::kUntouched},
      {"KernelWithoutDriverBufferCallStillUpdates", "nor8",
       Faults({"set driver-buffer errno ENOSYS"}), "", {}, 0, "R:0:", ok, Services::kStopped,
       Archive::kMoved, Chip::kUpdated,
       {"user.err main(N): fail to free mtd driver buffer, error = 38"}},
      {"RefusedDriverBufferEndsWith23", "nor8", Faults({"set driver-buffer errno ENOMEM"}), "", {},
       23, "A:-23:", {kStart, Upgrade(), Failed(23)}, Services::kStoppedThenStarted,
       Archive::kStays, Chip::kUntouched},
      {"OldSystemUp300SecondsIsUpdated", "nor8", OldSystemWithInitrd, WithUptime(300), {}, 0,
       "R:0:", {kStart, Upgrade("350"), kDone}, Services::kAny, Archive::kMoved, Chip::kUpdated,
       {}, {}, FileIs("/tmp/update.message", "<missing>")},
      {"OldSystemUp301SecondsMustRebootFirst", "nor8", OldSystemWithInitrd, WithUptime(301), {},
       24, "A:-24:", {kStart, Upgrade("350"), Failed(24)}, Services::kStoppedThenStarted,
       Archive::kStays, Chip::kUntouched, {}, {},
       FileIs("/tmp/update.message",
              "extramsg=\"To perform upgrade task, you have to REBOOT your Filebay first.\"\n")},
      // The photo database step of an old system starts the database.
      {"JuniorNeverAppliesTheRebootRule", "junior6", OldSystemWithInitrd, WithUptime(301), {}, 0,
       "R:0:", {kStart, Upgrade("350"), kDone}, Services::kAny, Archive::kMoved, Chip::kUpdated,
       {}, {std::string(kDatabase) + " start"}},
      // An old build whose FTP passive range is too wide; a directory holds
      // the settings' temporary file name.
      {"FailedFtpPortRangeStepEndsWith21", "nor8",
       [](Scenario* s) {
         SystemBuild(s, "400");
         sandbox::SetKeyValue(&s->settings, "ftphighport", "60000");
         sandbox::SetKeyValue(&s->settings, "ftplowport", "1000");
         Set(s, "/etc/veltinfo.conf.tmp/keep", "x");
       },
       "", {}, 21, "A:-21:", {kStart, Upgrade("400"), Failed(21)}, Services::kStoppedThenStarted,
       Archive::kStays, Chip::kUntouched},
      // The FIS directory of a junior k77g+ at build 284 is rewritten before
      // the flash; its write fails.
      {"FailedFisDirectoryRepairEndsWith20", "junior6",
       Faults({"fault write mtd5 nth=1 errno=EIO"},
              [](Scenario* s) {
                sandbox::SetKeyValue(&s->default_settings, "unique", kK77);
                SystemBuild(s, "284");
                PackageUnique(s, kK77);
              }),
       "mount -t tmpfs tmpfs /proc/sys/kernel && echo 2.0-j >/proc/sys/kernel/velt_hw_version && "
       "exec @",
       {}, 20, "A:-20:", {kStart, Upgrade("284"), Failed(20)}, Services::kStoppedThenStarted,
       Archive::kStays, Chip::kDirectoryErased},
      // Build 483 needs the rsync fix: the secrets are for root and group 25.
      {"RsyncSecretsBecomeGroup25Readable", "nor8",
       [](Scenario* s) {
         SystemBuild(s, "483");
         Set(s, "/etc/rsyncd.secrets", "backup:secret\n", 0666);
       },
       "", {}, 0, "R:0:", {kStart, Upgrade("483"), kDone}, Services::kAny, Archive::kMoved,
       Chip::kUpdated, {}, {},
       [](const RunResult&, sandbox::Sandbox* box) {
         struct stat st;
         ASSERT_EQ(stat(box->RootPath("/etc/rsyncd.secrets").c_str(), &st), 0);
         EXPECT_EQ(std::vector<unsigned>({st.st_mode & 07777u, st.st_uid, st.st_gid}),
                   std::vector<unsigned>({0640, 0, 25}));
       }},
      // Another process holds a service lock for longer than the stop waits:
      // nothing was stopped, so nothing is started after the failure.
      {"ServicesThatCouldNotBeStoppedAreNotStarted", "nor8",
       Faults(kWornKernelBlock, [](Scenario* s) { Tool(s, "/usr/local/sbin/probe", MODULE_PROBE); }),
       "/usr/local/sbin/probe holdlock 0x40 12000 /tmp/lock-held >/dev/null & "
       "while [ ! -e /tmp/lock-held ]; do sleep 0.1; done; exec @",
       {}, 20, "P:-20:", failed20, Services::kNone, Archive::kStays, Chip::kUntouched,
       {"user.err main(N): all services stop error"}},
      // Stopped at 9000, started again at 1500 before the MTU is restored;
      // without "eth0" the setting call fails but stores, and the stored
      // value comes back all the same.
      {"JumboFramesAreOffWhileTheFlashIsWritten", "nor8",
       Faults(kWornKernelBlock,
              [](Scenario* s) {
                s->eth0_speed = 1000;
                sandbox::SetKeyValue(&s->default_settings, "supportMTU", "yes");
                sandbox::SetKeyValue(&s->settings, "MTUValue", "9000");
                Set(s, kDatabase,
                    "#!/bin/sh\nmtu=$(/sbin/ifconfig eth0 | sed -n 's/.*MTU:\\([0-9]*\\).*/\\1/p')\n"
                    "echo \"$0 $* mtu=$mtu\" >>/var/log/stub-calls.log\n", 0755);
              }),
       "ifconfig eth0 mtu 9000 && @; s=$?; ifconfig eth0 | grep -o 'MTU:[0-9]*'; exit $s", {}, 20,
       "P:-20:", failed20, Services::kAny, Archive::kStays, Chip::kUntouched, {},
       {std::string(kDatabase) + " stop mtu=9000", std::string(kDatabase) + " start mtu=1500"},
       [](const RunResult& result, sandbox::Sandbox* box) {
         EXPECT_EQ(result.out, "MTU:9000\n");
         EXPECT_NE(Root(box, "/etc/veltinfo.conf").find("MTUValue=\"9000\"\n"), std::string::npos);
       }},
      {"StoredMtuComesBackWhenTheLinkCouldNotBeSet", "nor8",
       [](Scenario* s) {
         sandbox::SetKeyValue(&s->default_settings, "supportMTU", "yes");
         sandbox::SetKeyValue(&s->settings, "MTUValue", "9000");
       },
       "", {}, 0, "R:0:", ok, Services::kStopped, Archive::kMoved, Chip::kUpdated, {}, {},
       [](const RunResult&, sandbox::Sandbox* box) {
         EXPECT_NE(Root(box, "/etc/veltinfo.conf").find("MTUValue=\"9000\"\n"), std::string::npos);
       }},
      // No clean-up: the driver buffer (whose release would fail) is never
      // released.
      {"UnopenableStartDirectoryEndsWith1WithoutCleanUp", "nor8",
       Faults({"set driver-buffer errno ENOSYS"},
              [](Scenario* s) {
                Tool(s, "/usr/local/sbin/run_without_dac_override", RUN_WITHOUT_DAC_OVERRIDE);
                Set(s, "/root/start/keep", "x");
              }),
       "cd /root/start && chmod 0 . && exec /usr/local/sbin/run_without_dac_override @", {}, 1,
       "A:-1:", {kStart, Failed(1)}, Services::kNone, Archive::kStays, Chip::kUntouched, {}, {},
       [](const RunResult& result, sandbox::Sandbox*) {
         for (const std::string& line : sandbox_test::ProgramMessages(result, "updater")) {
           EXPECT_EQ(line.find("driver buffer"), std::string::npos) << line;
         }
       }},
      {"FailureToReturnToTheStartDirectoryTurnsSuccessInto2", "nor8", ClosingStartDirectory,
       kFromClosedStart, {}, 2, "R:-2:", {kStart, Upgrade(), kDone, Failed(2)},
       Services::kStoppedThenStarted, Archive::kMoved, Chip::kUpdated},
      {"FailureToReturnToTheStartDirectoryReplacesAFailureWith2", "nor8",
       Faults({"set driver-buffer errno ENOMEM"}, ClosingStartDirectory), kFromClosedStart, {}, 2,
       "A:-2:", {kStart, Upgrade(), Failed(2)}, Services::kStoppedThenStarted, Archive::kStays,
       Chip::kUntouched},
  };
}
// clang-format on

sandbox::Tools SimulatorTools() {
  sandbox::Tools tools;
  tools.flash_tool = FLASH_TOOL;
  tools.flashsim = FLASHSIM_DAEMON;
  return tools;
}

std::string Joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += "  " + line + "\n";
  return text;
}

bool Has(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string Bytes(const flashsim::ChipState& chip, uint32_t base, uint32_t length) {
  const size_t at = base - chip.layout.chip_base;
  if (at + length > chip.image.size()) return "<outside the chip>";
  return std::string(chip.image.begin() + at, chip.image.begin() + at + length);
}

// The package's images where the boot loader looks for them, every other
// image of the old chip where the boot loader now finds it, and nothing
// overlapping.
void ExpectUpdated(const flashsim::ChipState& before, const flashsim::ChipState& after,
                   const std::vector<sandbox::PackageImage>& images) {
  bool terminated = false;
  std::vector<campaign::BootEntry> view = campaign::BootView(after, &terminated);
  EXPECT_TRUE(terminated);
  EXPECT_EQ(Joined(flashsim::ConsistencyProblems(after)), "");
  const auto entry = [&](const std::string& name) {
    const auto it = std::find_if(view.begin(), view.end(),
                                 [&](const campaign::BootEntry& e) { return e.name == name; });
    return it == view.end() ? campaign::BootEntry() : *it;
  };
  Lines written;
  for (const sandbox::PackageImage& image : images) {
    written.push_back(image.file == "rd.bin" ? "rd.gz" : image.file);
    const campaign::BootEntry at = entry(written.back());
    EXPECT_GE(at.size, image.bytes.size()) << image.file;
    EXPECT_TRUE(Bytes(after, at.base, image.bytes.size()) == image.bytes) << image.file;
  }
  for (const campaign::BootEntry& old : campaign::BootView(before, &terminated)) {
    if (Has(written, old.name)) continue;
    const campaign::BootEntry now = entry(old.name);
    EXPECT_EQ(now.size, old.size) << old.name;
    EXPECT_TRUE(Bytes(after, now.base, old.size) == Bytes(before, old.base, old.size)) << old.name;
  }
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class UpdaterRunTest : public sandbox_test::SandboxFixture,
                       public ::testing::WithParamInterface<Case> {
 protected:
  UpdaterRunTest() : SandboxFixture("updater-run-test", SimulatorTools(), /*need_flash=*/true) {}

  Scenario MakeScenario(const Case& c) {
    Scenario scenario;
    std::string error;
    EXPECT_TRUE(sandbox::ApplyBoard(c.board, SANDBOX_LAYOUT_DIR, &scenario, &error)) << error;
    EXPECT_TRUE(sandbox::LoadLayoutFile(scenario.layout_file, &layout_, &error)) << error;
    const bool junior = std::string(c.board) == "junior6";
    package_.rebalance = !junior;
    scenario.files = sandbox::SamplePackageFiles(
        layout_, package_, junior ? "veltara_powerpc_junior" : "veltara_powerpc_1hd");
    Tool(&scenario, kUpdater, UPDATER_SIM);
    Tool(&scenario, kFastSleep, FAST_SLEEP_LIB);
    if (c.setup) c.setup(&scenario);
    return scenario;
  }

  RunResult RunCase(const Case& c) {
    Lines argv = {kUpdater};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    if (!c.shell.empty()) {
      std::string command = c.shell;
      if (command.find('@') != std::string::npos) command.replace(command.find('@'), 1, kUpdater);
      argv = {"/bin/sh", "-c", command};
    }
    sandbox::RunOptions options;
    // The programs' pauses (MTU settle time, lock and kill retries) are
    // shortened; see tests/sandbox/fast_sleep.cpp.
    options.env = {std::string("LD_PRELOAD=") + kFastSleep,
                   "ASAN_OPTIONS=verify_asan_link_order=0"};
    RunResult result = box_->Run(argv, options);
    EXPECT_TRUE(result.ok && !result.timed_out) << sandbox_test::Describe(result);
    // A sanitizer build of the program reports its findings on stderr.
    EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("runtime error:"), std::string::npos) << result.err;
    return result;
  }

  void ExpectServices(Services services, const Lines& calls) {
    if (services == Services::kAny) return;
    // Stops first; after the first start no more stops.
    bool started = false;
    const auto ends = [](const std::string& call, const std::string& end) {
      return call.size() > end.size() &&
             call.compare(call.size() - end.size(), end.size(), end) == 0;
    };
    for (const std::string& call : calls) {
      started = started || ends(call, " start");
      EXPECT_TRUE(started ? !ends(call, " stop") : ends(call, " stop")) << Joined(calls);
    }
    EXPECT_EQ(started, services == Services::kStoppedThenStarted) << Joined(calls);
    EXPECT_EQ(Has(calls, std::string(kDatabase) + " stop"), services != Services::kNone)
        << Joined(calls);
  }

  // The update log's lines without their time stamps "YYYY/MM/DD HH:MM:SS\t"
  // and without the failing steps' own lines ("updater:LINE(function) ...").
  Lines UpdateLog() const {
    Lines lines;
    for (const std::string& line : sandbox_test::SplitLines(RootFile("/var/log/veltupdate.log"))) {
      EXPECT_TRUE(line.size() > 20 && line[4] == '/' && line[19] == '\t') << line;
      const std::string text = line.substr(std::min<size_t>(20, line.size()));
      if (text.compare(0, 8, "updater:") != 0) lines.push_back(text);
    }
    return lines;
  }

  bool Exists(const std::string& path) const {
    struct stat st;
    return lstat(box_->RootPath(path).c_str(), &st) == 0;
  }

  flashsim::ChipLayout layout_;
  sandbox::PackageOptions package_;
};

TEST_P(UpdaterRunTest, Run) {
  const Case& c = GetParam();
  ASSERT_NE(SandboxFixture::Build(MakeScenario(c)), nullptr);
  std::string error;
  flashsim::ChipState before, after;
  ASSERT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &before, &error)) << error;
  const RunResult result = RunCase(c);

  EXPECT_EQ(result.status, c.code) << sandbox_test::Describe(result);
  const std::string progress = RootFile("/tmp/update.progress");
  EXPECT_EQ(progress.substr(0, progress.find(' ')), c.progress) << "[" << progress << "]";
  EXPECT_EQ(UpdateLog(), c.log);
  ExpectServices(c.services, result.stub_calls);
  for (const std::string& call : c.calls) {
    EXPECT_TRUE(Has(result.stub_calls, call)) << call << "\n" << Joined(result.stub_calls);
  }
  Lines messages = sandbox_test::ProgramMessages(result, "updater");
  for (std::string& message : messages) {
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
      message.pop_back();
  }
  for (const std::string& message : c.messages) {
    EXPECT_TRUE(Has(messages, message)) << message << "\n" << Joined(messages);
  }

  const std::string archive = sandbox::SampleImageBytes("hda1.tgz", 4096);
  EXPECT_TRUE(RootFile(sandbox::kNextBootArchive) ==
              (c.archive == Archive::kMoved ? archive : "<missing>"));
  EXPECT_TRUE(RootFile("/volumez/VeltUpgrade.tar.gz") ==
              (c.archive == Archive::kOnVolumeZ ? archive : "<missing>"));
  EXPECT_EQ(Exists(kPkg + "/hda1.tgz"), c.archive == Archive::kStays);
  // Only the M-Systems path keeps its backup, beside the package.
  EXPECT_EQ(Exists(kPkg + "/b@ckup/mtd_vendor"), std::string(c.board) == "msys");
  EXPECT_FALSE(Exists("/tmp/owned"));

  ASSERT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &after, &error)) << error;
  const bool same = after.image == before.image &&
                    flashsim::FormatLayout(after.layout) == flashsim::FormatLayout(before.layout);
  bool terminated = false;
  switch (c.chip) {
    case Chip::kUntouched:
      EXPECT_TRUE(same) << "the chip changed";
      break;
    case Chip::kChanged:
      EXPECT_FALSE(same) << "the chip was rolled back";
      break;
    case Chip::kDirectoryErased:
      EXPECT_TRUE(campaign::BootView(after, &terminated).empty());
      break;
    case Chip::kRestored:
      ExpectUpdated(before, after, {});
      break;
    case Chip::kUpdated:
      ExpectUpdated(before, after, sandbox::SampleImages(layout_, package_));
      break;
  }
  if (c.check) c.check(result, box_.get());
}

INSTANTIATE_TEST_SUITE_P(Cases, UpdaterRunTest, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
