// filebay-rehearse: rehearses a firmware update on a simulated appliance.
// Builds a sandbox (simulated flash with its partitions and images, a
// running system, settings, stub services), puts a sample update package
// into its /volume1/upd@te, runs the updater there while showing its
// progress as the caller of a real update would read it, and reports the
// result, the flash partitioning (the FIS directory, or the flash disk's
// partition table) before and after and the update log.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/unique_fd.h"
#include "sim/campaign_command.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "updater/update_status.h"

namespace {

const char kUsage[] =
    "usage: filebay-rehearse [OPTIONS]\n"
    "       filebay-rehearse --campaign faults|power-cut [--points N] [OPTIONS]\n"
    "\n"
    "Rehearses one firmware update on a simulated appliance: builds a sandbox with\n"
    "a simulated flash chip and a running system, a sample update package in\n"
    "/volume1/upd@te (new kernel, root image and library archive, VERSION and\n"
    "hda1.tgz), runs the updater there with a progress bar, and reports the result\n"
    "code, the flash partitioning before and after (the FIS directory, or on the\n"
    "M-Systems board the flash disk's partition table), the update log, and where\n"
    "the full syslog and flash trace are. The sandbox is kept for inspection;\n"
    "remove it with `filebay-sandbox destroy DIR`.\n"
    "\n"
    "  --board NAME     nor8 (default: 8 MiB of NOR flash, eight partitions and a\n"
    "                   FIS directory; the new kernel is one erase block too big,\n"
    "                   so the plan rebalances), junior6 (2 MiB, six partitions),\n"
    "                   msys (an M-Systems flash disk of 967 units of 16384 bytes,\n"
    "                   eight partitions; the new kernel is one unit too big, so\n"
    "                   the disk is re-partitioned and every partition rewritten)\n"
    "  --no-rebalance   on nor8 and msys: a kernel that fits its partition\n"
    "  --group          a group update (-g: no analysis, no service stop, no backup)\n"
    "  --fault LINE     a line of the flash fault plan; repeatable. For example\n"
    "                   \"fault write mtd2 nth=1 errno=EIO\": one failed write (retried\n"
    "                   on NOR flash; on msys the update fails and is rolled back);\n"
    "                   three such lines with nth=1, 2 and 3: a rewrite that fails\n"
    "                   every attempt and its roll-back on NOR flash;\n"
    "                   \"fault corrupt-next-write mtd1\": a failed verify, retried;\n"
    "                   \"fault write mtd2 every errno=EIO\": a partition that takes\n"
    "                   no write at all, so that its roll-back fails too\n"
    "  --build N        the package's build number (default 501; the system has 500)\n"
    "  --package DIR    rehearse a real package instead of the sample: DIR holds the\n"
    "                   unpacked package (\"VERSION\", the images, \"hda1.tgz\"); it is\n"
    "                   copied into /volume1/upd@te (its own updater program, if any,\n"
    "                   replaced by the one to run), never changed. A package the\n"
    "                   updater refuses is rehearsed like any other: its result code\n"
    "                   is the answer. A directory without VERSION is refused.\n"
    "  --flash STATE    the board's flash starts from STATE, a state directory made\n"
    "                   by `filebay-flash import` from a board's flash dump (or\n"
    "                   `import-msys`, `create`); copied, never changed. The board's\n"
    "                   family (nor8, junior6 or msys) follows from it; no --board\n"
    "  --system-version FILE    the board's /etc.defaults/VERSION\n"
    "  --settings FILE          the board's /etc/veltinfo.conf\n"
    "  --factory-settings FILE  the board's /etc.defaults/veltinfo.conf\n"
    "                   (each copied over the sandbox's default, never changed)\n"
    "  --dir DIR        where to build the sandbox (default: a new directory under\n"
    "                   $TMPDIR or /tmp)\n"
    "  --updater PATH   the updater program to run (default: the simulator build)\n"
    "\n"
    "Campaigns rehearse the same update many times, one thing going wrong each\n"
    "time, as many at once as there are cores, and judge each chip against the\n"
    "chip before the update and after a clean run: all new, all old or mixed\n"
    "(with the partitions that hold neither a complete old nor a complete new\n"
    "image, and `filebay-flash check` on the FIS directory), and whether the\n"
    "board would boot. They print a summary and leave DIR/campaign.json and\n"
    "DIR/report.html (flash maps, the clean run's operations as a timeline, the\n"
    "outcomes); --dir DIR is the campaign's directory.\n"
    "  --campaign faults     one trial per fault: every operation kind the\n"
    "                        simulator can fail x every device x once and always,\n"
    "                        a corrupted next write on every device, a worn block\n"
    "                        at the start of every rewritten partition\n"
    "  --campaign power-cut  a power cut after N operations, for N spread evenly\n"
    "                        over the clean run and around its erases, first and\n"
    "                        last writes and FIS entry updates; reports the window\n"
    "                        in which the board would not boot\n"
    "  --points N           power-cut: the evenly spread cuts (default 100)\n"
    "\n"
    "Exit status: 0 when the update succeeded (a campaign: every trial was\n"
    "judged), 1 when it failed or the sandbox could not be built or run, 2 for a\n"
    "bad command line.\n";

struct Options {
  std::string board = "nor8";
  bool rebalance = true;
  bool group = false;
  std::vector<std::string> faults;
  std::string build = "501";
  std::string dir;
  std::string updater = UPDATER_SIM_PROGRAM;
  sandbox::GivenFiles given;
  std::string campaign;  // "faults", "power-cut" or empty
  size_t points = 100;
};

int Usage(const std::string& error) {
  fprintf(stderr, "filebay-rehearse: %s\n\n%s", error.c_str(), kUsage);
  return 2;
}

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  bool board_given = false;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--no-rebalance") {
      options->rebalance = false;
      continue;
    }
    if (option == "--group") {
      options->group = true;
      continue;
    }
    if (i + 1 >= argc) {
      *error = "unknown option or missing value: " + option;
      return false;
    }
    const std::string value = argv[++i];
    if (option == "--board") {
      options->board = value;
      board_given = true;
    } else if (option == "--fault") {
      options->faults.push_back(value);
    } else if (option == "--build") {
      options->build = value;
    } else if (option == "--dir") {
      options->dir = value;
    } else if (option == "--updater") {
      options->updater = value;
    } else if (option == "--package") {
      options->given.package_dir = value;
    } else if (option == "--flash") {
      options->given.flash_state = value;
    } else if (option == "--system-version") {
      options->given.system_version = value;
    } else if (option == "--settings") {
      options->given.settings = value;
    } else if (option == "--factory-settings") {
      options->given.factory_settings = value;
    } else if (option == "--campaign") {
      options->campaign = value;
    } else if (option == "--points") {
      options->points = strtoul(value.c_str(), nullptr, 10);
    } else {
      *error = "unknown option " + option;
      return false;
    }
  }
  if (options->board != "nor8" && options->board != "junior6" && options->board != "msys") {
    *error = "board must be nor8, junior6 or msys";
    return false;
  }
  if (!options->campaign.empty() && options->campaign != "faults" &&
      options->campaign != "power-cut") {
    *error = "campaign must be faults or power-cut";
    return false;
  }
  if (options->points == 0) {
    *error = "--points must be a number above 0";
    return false;
  }
  if (!sandbox::CheckGivenFiles(options->given, error)) return false;
  if (!options->given.flash_state.empty()) {
    if (board_given) {
      *error = "--board and --flash exclude each other";
      return false;
    }
    if (!sandbox::BoardOfFlashState(options->given.flash_state, &options->board, error)) {
      return false;
    }
  }
  // The junior board's sample package always fits its partitions; a given
  // package is what it is.
  if (options->board == "junior6" || !options->given.package_dir.empty()) {
    options->rebalance = false;
  }
  return true;
}

std::string NewSandboxDir(const char* kind) {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/filebay-" + kind + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return "";
  return pattern;
}

const char kSampleCrontab[] =
    "0 3 * * * root /usr/velt/pgsql/bin/vacuumdb -a -z\n"
    "0 4 * * * root /bin/rm -f /var/log/*.html\n"
    "*/5 * * * * root /usr/velt/bin/veltcheck\n";

bool BuildScenario(const Options& options, sandbox::Scenario* scenario, std::string* error) {
  if (!sandbox::ApplyBoard(options.board, SANDBOX_LAYOUT_DIR, scenario, error)) return false;
  scenario->faults = options.faults;
  if (!sandbox::ApplyGivenFiles(options.given, scenario, error)) return false;
  if (options.given.package_dir.empty()) {
    flashsim::ChipLayout layout;
    if (!sandbox::LoadLayoutFile(scenario->layout_file, &layout, error)) return false;
    sandbox::PackageOptions package;
    package.build = options.build;
    package.rebalance = options.rebalance;
    const std::string unique =
        options.board == "junior6" ? "veltara_powerpc_junior" : "veltara_powerpc_1hd";
    const std::vector<sandbox::RootFile> sample =
        sandbox::SamplePackageFiles(layout, package, unique);
    scenario->files.insert(scenario->files.end(), sample.begin(), sample.end());
  }
  scenario->files.push_back(
      {std::string(sandbox::kPackageDir) + "/updater", "", options.updater, 0755});
  scenario->files.push_back({"/etc/crontab", kSampleCrontab, "", 0644});
  return true;
}

// The FIS directory as the boot loader lists it.
std::string FisListing(const flashsim::ChipState& state) {
  const flashsim::PartitionLayout* directory = state.layout.Find(state.layout.fis_device);
  if (directory == nullptr) return "  (no FIS directory)\n";
  const uint32_t offset = directory->base - state.layout.chip_base;
  const std::vector<uint8_t> bytes(state.image.begin() + offset,
                                   state.image.begin() + offset + directory->size);
  bool terminated = false;
  std::string text = "  Name              FLASH addr  Length      Data length\n";
  char line[128];
  for (const flashsim::FisRecord& record : flashsim::DecodeFisDirectory(bytes, &terminated)) {
    snprintf(line, sizeof(line), "  %-16s  0x%08X  0x%08X  0x%08X\n", record.name.c_str(),
             record.flash_base, record.size, record.data_length);
    text += line;
  }
  if (!terminated) text += "  (the directory does not end with an erased record)\n";
  return text;
}

// The flash disk's partition table as its driver keeps it: partitions by
// position, each with its start on the disk, size and data length, and the
// size in erase units.
std::string DiskTableListing(const flashsim::ChipState& state) {
  std::string text = "  #  Name              Start       Size        Data length  Units\n";
  char line[128];
  for (const flashsim::PartitionLayout& partition : state.layout.partitions) {
    const uint32_t units =
        state.layout.erase_size == 0 ? 0 : partition.size / state.layout.erase_size;
    snprintf(line, sizeof(line), "  %d  %-16s  0x%08X  0x%08X  0x%08X   %5u\n", partition.index,
             partition.name.c_str(), partition.base, partition.size, partition.data_length, units);
    text += line;
  }
  return text;
}

// How the chip is partitioned, with the heading that says where that lives.
struct Partitioning {
  std::string heading;
  std::string listing;
};

Partitioning ReadPartitioning(const std::string& state_dir) {
  flashsim::ChipState state;
  std::string error;
  if (!flashsim::LoadState(state_dir, &state, &error))
    return {"flash partitioning", "  (cannot read the chip: " + error + ")\n"};
  if (state.layout.kind == flashsim::ChipKind::kMSys)
    return {"flash disk partition table", DiskTableListing(state)};
  return {"FIS directory", FisListing(state)};
}

// "P:60:      " -> letter 'P', value 60.
bool ParseProgress(const std::string& record, char* letter, int* value) {
  if (record.size() < 4 || record[1] != ':') return false;
  *letter = record[0];
  *value = atoi(record.c_str() + 2);
  return true;
}

// The share of the whole run a record stands for: A, P and C are its first
// three quarters by their percentages; R carries the result code, so R:0
// (success) is the whole run and a failure leaves the bar where it was.
int OverallPercent(char letter, int value, int previous) {
  if (letter == 'R') return value == 0 ? 100 : previous;
  static const char* const kStages = "APC";
  const char* stage = strchr(kStages, letter);
  const int stage_index = stage != nullptr ? static_cast<int>(stage - kStages) : 0;
  const int percent = value < 0 ? 0 : (value > 100 ? 100 : value);
  return (stage_index * 100 + percent) / 4;
}

void DrawProgress(char letter, int value, int overall, bool terminal) {
  const int width = 40;
  const int filled = overall * width / 100;
  printf("%s[%s%s] %3d%%  %c:%d", terminal ? "\r" : "", std::string(filled, '#').c_str(),
         std::string(width - filled, ' ').c_str(), overall, letter, value);
  printf(terminal ? "   " : "\n");
  fflush(stdout);
}

constexpr char kProgressFile[] = "/tmp/update.progress";

// Shows the progress record when it differs from the last one shown.
class ProgressDisplay {
 public:
  ProgressDisplay(const sandbox::Sandbox& box, bool terminal) : box_(box), terminal_(terminal) {}

  void Refresh() {
    std::string record;
    if (!box_.ReadRootFile(kProgressFile, &record) || record == last_) return;
    char letter;
    int value;
    if (ParseProgress(record, &letter, &value)) {
      overall_ = OverallPercent(letter, value, overall_);
      DrawProgress(letter, value, overall_, terminal_);
    }
    last_ = record;
  }

 private:
  const sandbox::Sandbox& box_;
  const bool terminal_;
  std::string last_;
  int overall_ = 0;
};

// An inotify watch on the root's /tmp, so that each rewrite of the progress
// file is seen as it happens rather than at the next poll; -1 when inotify
// is not available (the caller then polls).
int WatchProgressDirectory(const sandbox::Sandbox& box) {
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return -1;
  if (inotify_add_watch(fd, box.RootPath("/tmp").c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Waits up to `timeout_ms` for a change in the watched directory (any
// file: the display compares the record itself) and consumes the pending
// events. Without a watch, poll() on no descriptor just sleeps.
void WaitForChange(int watch_fd, int timeout_ms) {
  struct pollfd wait = {watch_fd, POLLIN, 0};
  if (poll(&wait, 1, timeout_ms) <= 0 || watch_fd < 0) return;
  alignas(struct inotify_event) char buffer[4096];
  while (read(watch_fd, buffer, sizeof(buffer)) > 0) {
  }
}

sandbox::RunResult RunWithProgress(sandbox::Sandbox* box, const std::vector<std::string>& argv) {
  std::atomic<bool> done(false);
  sandbox::RunResult result;
  sandbox::RunOptions run_options;
  run_options.timeout_seconds = 600;
  const UniqueFd watch(WatchProgressDirectory(*box));
  std::thread runner([&] {
    result = box->Run(argv, run_options);
    done = true;
  });
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  ProgressDisplay display(*box, terminal);
  while (!done) {
    WaitForChange(watch.get(), watch.get() >= 0 ? 100 : 20);
    display.Refresh();
  }
  runner.join();
  display.Refresh();
  if (terminal) printf("\n");
  return result;
}

void Report(const sandbox::Sandbox& box, const sandbox::RunResult& result,
            const Partitioning& before) {
  const int code = result.status;
  printf("\nresult: %d (%s)\n", code,
         code >= 0 && code < UPDT_RESULT_CODE_COUNT ? gszResultKey[code] : "bad option");
  std::string progress;
  box.ReadRootFile(kProgressFile, &progress);
  printf("last progress record: \"%s\"\n", progress.c_str());
  const Partitioning after = ReadPartitioning(box.FlashStateDir());
  printf("\n%s before:\n%s", before.heading.c_str(), before.listing.c_str());
  printf("%s after:\n%s", after.heading.c_str(), after.listing.c_str());
  // The copy commands' record counts fill the standard error of every run;
  // only a sanitizer's findings there are worth showing at once.
  if (result.err.find("Sanitizer") != std::string::npos ||
      result.err.find("runtime error:") != std::string::npos) {
    printf("\nupdater's standard error:\n%s", result.err.c_str());
  }
  std::string update_log;
  box.ReadRootFile("/var/log/veltupdate.log", &update_log);
  printf("\nupdate log (/var/log/veltupdate.log):\n%s", update_log.c_str());
  std::string archive;
  printf("\nhda1.tgz moved to the volume: %s\n",
         box.ReadRootFile(sandbox::kNextBootArchive, &archive) ? "yes" : "no");
  printf("\nsandbox kept in %s\n", box.dir().c_str());
  printf("  syslog:      %s\n", box.RootPath("/var/log/messages").c_str());
  printf("  flash trace: %s/trace.log\n", box.FlashStateDir().c_str());
  printf("  stub calls:  %s\n", box.RootPath("/var/log/stub-calls.log").c_str());
  printf("  updater's output: %s/run.stdout, %s/run.stderr\n", box.dir().c_str(),
         box.dir().c_str());
  printf("  remove it with: filebay-sandbox destroy %s\n", box.dir().c_str());
}

const char* PlanNote(const Options& options) {
  if (!options.rebalance) return "";
  return options.board == "msys" ? " (the flash disk must be re-partitioned)"
                                 : " (the plan must rebalance)";
}

// Which package and which flash were rehearsed.
std::string PackageLine(const Options& options, const sandbox::Scenario& scenario) {
  for (const sandbox::RootFile& file : scenario.files) {
    if (file.path == sandbox::kPackageDir) return file.source;
  }
  return "the sample package, build " + options.build;
}

std::string FlashLine(const sandbox::Scenario& scenario) {
  if (!scenario.flash_state.empty()) return scenario.flash_state;
  return "made from " + scenario.layout_file;
}

// The campaign of --campaign on the scenario a single rehearsal would run.
int RunCampaign(const Options& options, const sandbox::Scenario& scenario,
                const sandbox::Tools& tools, const std::vector<std::string>& argv) {
  campaign::Setup setup;
  setup.kind = options.campaign == "faults" ? campaign::Kind::kFaults : campaign::Kind::kPowerCut;
  setup.title = "board " + options.board + PlanNote(options) +
                (options.group ? ", group update" : "") + "; package: " +
                PackageLine(options, scenario) + "; flash: " + FlashLine(scenario);
  setup.scenario = scenario;
  setup.tools = tools;
  setup.argv = argv;
  setup.points = options.points;
  setup.dir = options.dir.empty() ? NewSandboxDir("campaign") : options.dir;
  if (setup.dir.empty()) {
    fprintf(stderr, "filebay-rehearse: cannot make a campaign directory: %s\n", strerror(errno));
    return 1;
  }
  return campaign::RunCampaignCommand(setup);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
    fputs(kUsage, stdout);
    return 0;
  }
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) return Usage(error);
  const sandbox::Tools tools = sandbox::ToolsBeside("/proc/self/exe");
  const std::string unavailable = sandbox::Unavailable(tools, true);
  if (!unavailable.empty()) {
    fprintf(stderr, "filebay-rehearse: cannot rehearse here: %s\n", unavailable.c_str());
    return 1;
  }
  sandbox::Scenario scenario;
  if (!BuildScenario(options, &scenario, &error)) return Usage(error);
  std::vector<std::string> argv_run = {std::string(sandbox::kPackageDir) + "/updater"};
  if (options.group) argv_run.push_back("-g");
  if (!options.campaign.empty()) return RunCampaign(options, scenario, tools, argv_run);
  if (options.dir.empty()) options.dir = NewSandboxDir("rehearsal");
  if (options.dir.empty()) {
    fprintf(stderr, "filebay-rehearse: cannot make a sandbox directory: %s\n", strerror(errno));
    return 1;
  }
  std::unique_ptr<sandbox::Sandbox> box =
      sandbox::Sandbox::Create(options.dir, scenario, tools, &error);
  if (box == nullptr) {
    fprintf(stderr, "filebay-rehearse: cannot build the sandbox: %s\n", error.c_str());
    return 1;
  }
  box->Keep();
  const Partitioning before = ReadPartitioning(box->FlashStateDir());
  printf("rehearsing on board %s%s%s in %s\n", options.board.c_str(), PlanNote(options),
         options.group ? ", group update" : "", box->dir().c_str());
  printf("package: %s\n", PackageLine(options, scenario).c_str());
  printf("flash: %s\n", FlashLine(scenario).c_str());
  fflush(stdout);
  const sandbox::RunResult result = RunWithProgress(box.get(), argv_run);
  if (!result.ok) {
    fprintf(stderr, "filebay-rehearse: the sandbox failed: %s\n", result.error.c_str());
    return 1;
  }
  Report(*box, result, before);
  return result.status == 0 ? 0 : 1;
}
