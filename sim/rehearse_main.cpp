// filebay-rehearse: rehearses a firmware update on a simulated appliance.
// Builds a sandbox (simulated flash with its FIS directory and images, a
// running system, settings, stub services), puts a sample update package
// into its /volume1/upd@te, runs the updater there while showing its
// progress as the caller of a real update would read it, and reports the
// result, the FIS directory before and after and the update log.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "updater/update_status.h"

namespace {

const char kUsage[] =
    "usage: filebay-rehearse [OPTIONS]\n"
    "\n"
    "Rehearses one firmware update on a simulated appliance: builds a sandbox with\n"
    "a simulated flash chip and a running system, a sample update package in\n"
    "/volume1/upd@te (new kernel, root image and library archive, VERSION and\n"
    "hda1.tgz), runs the updater there with a progress bar, and reports the result\n"
    "code, the FIS directory before and after, the update log, and where the full\n"
    "syslog and flash trace are. The sandbox is kept for inspection; remove it with\n"
    "`filebay-sandbox destroy DIR`.\n"
    "\n"
    "  --board NAME     nor8 (default: 8 MiB, eight partitions; the new kernel is one\n"
    "                   erase block too big, so the plan rebalances), junior6 (2 MiB,\n"
    "                   six partitions)\n"
    "  --no-rebalance   on nor8: a kernel that fits its partition\n"
    "  --group          a group update (-g: no analysis, no service stop, no backup)\n"
    "  --fault LINE     a line of the flash fault plan, e.g.\n"
    "                   \"fault write mtd2 every errno=EIO\" (a failed rewrite and\n"
    "                   its roll-back) or \"fault corrupt-next-write mtd1\"; repeatable\n"
    "  --build N        the package's build number (default 501; the system has 500)\n"
    "  --dir DIR        where to build the sandbox (default: a new directory under\n"
    "                   $TMPDIR or /tmp)\n"
    "  --updater PATH   the updater program to run (default: the simulator build)\n";

struct Options {
  std::string board = "nor8";
  bool rebalance = true;
  bool group = false;
  std::vector<std::string> faults;
  std::string build = "501";
  std::string dir;
  std::string updater = UPDATER_SIM_PROGRAM;
};

int Usage(const std::string& error) {
  fprintf(stderr, "filebay-rehearse: %s\n\n%s", error.c_str(), kUsage);
  return 2;
}

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
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
    } else if (option == "--fault") {
      options->faults.push_back(value);
    } else if (option == "--build") {
      options->build = value;
    } else if (option == "--dir") {
      options->dir = value;
    } else if (option == "--updater") {
      options->updater = value;
    } else {
      *error = "unknown option " + option;
      return false;
    }
  }
  if (options->board != "nor8" && options->board != "junior6") {
    *error = "board must be nor8 or junior6";
    return false;
  }
  if (options->board != "nor8") options->rebalance = false;
  return true;
}

std::string NewSandboxDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/filebay-rehearsal-XXXXXX";
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
  flashsim::ChipLayout layout;
  if (!sandbox::LoadLayoutFile(scenario->layout_file, &layout, error)) return false;
  sandbox::PackageOptions package;
  package.build = options.build;
  package.rebalance = options.rebalance;
  const std::string unique =
      options.board == "junior6" ? "veltara_powerpc_junior" : "veltara_powerpc_1hd";
  scenario->files = sandbox::SamplePackageFiles(layout, package, unique);
  scenario->files.push_back(
      {std::string(sandbox::kPackageDir) + "/updater", "", options.updater, 0755});
  scenario->files.push_back({"/etc/crontab", kSampleCrontab, "", 0644});
  return true;
}

// The FIS directory as the boot loader lists it.
std::string FisListing(const std::string& state_dir) {
  flashsim::ChipState state;
  std::string error;
  if (!flashsim::LoadState(state_dir, &state, &error))
    return "  (cannot read the chip: " + error + ")\n";
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

// "P:60:      " -> letter 'P', value 60.
bool ParseProgress(const std::string& record, char* letter, int* value) {
  if (record.size() < 4 || record[1] != ':') return false;
  *letter = record[0];
  *value = atoi(record.c_str() + 2);
  return true;
}

void DrawProgress(char letter, int value, bool terminal) {
  static const char* const kStages = "APCR";
  const char* stage = strchr(kStages, letter);
  const int stage_index = stage != nullptr ? static_cast<int>(stage - kStages) : 0;
  const int percent = value < 0 ? 0 : (value > 100 ? 100 : value);
  const int overall = (stage_index * 100 + percent) / 4;
  const int width = 40;
  const int filled = overall * width / 100;
  printf("%s[%s%s] %3d%%  %c:%d", terminal ? "\r" : "", std::string(filled, '#').c_str(),
         std::string(width - filled, ' ').c_str(), overall, letter, value);
  printf(terminal ? "   " : "\n");
  fflush(stdout);
}

sandbox::RunResult RunWithProgress(sandbox::Sandbox* box, const std::vector<std::string>& argv) {
  std::atomic<bool> done(false);
  sandbox::RunResult result;
  sandbox::RunOptions run_options;
  run_options.timeout_seconds = 600;
  std::thread runner([&] {
    result = box->Run(argv, run_options);
    done = true;
  });
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  std::string last;
  while (!done) {
    std::string record;
    if (box->ReadRootFile("/tmp/update.progress", &record) && record != last) {
      char letter;
      int value;
      if (ParseProgress(record, &letter, &value)) DrawProgress(letter, value, terminal);
      last = record;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  runner.join();
  std::string record;
  char letter;
  int value;
  if (box->ReadRootFile("/tmp/update.progress", &record) && record != last &&
      ParseProgress(record, &letter, &value)) {
    DrawProgress(letter, value, terminal);
  }
  if (terminal) printf("\n");
  return result;
}

void Report(const sandbox::Sandbox& box, const sandbox::RunResult& result,
            const std::string& fis_before) {
  const int code = result.status;
  printf("\nresult: %d (%s)\n", code,
         code >= 0 && code < UPDT_RESULT_CODE_COUNT ? gszResultKey[code] : "bad option");
  std::string progress;
  box.ReadRootFile("/tmp/update.progress", &progress);
  printf("last progress record: \"%s\"\n", progress.c_str());
  printf("\nFIS directory before:\n%s", fis_before.c_str());
  printf("FIS directory after:\n%s", FisListing(box.FlashStateDir()).c_str());
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
  printf("  remove it with: filebay-sandbox destroy %s\n", box.dir().c_str());
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
  if (options.dir.empty()) options.dir = NewSandboxDir();
  const sandbox::Tools tools = sandbox::ToolsBeside("/proc/self/exe");
  const std::string unavailable = sandbox::Unavailable(tools, true);
  if (!unavailable.empty()) return Usage("cannot rehearse here: " + unavailable);

  sandbox::Scenario scenario;
  if (!BuildScenario(options, &scenario, &error)) return Usage(error);
  std::unique_ptr<sandbox::Sandbox> box =
      sandbox::Sandbox::Create(options.dir, scenario, tools, &error);
  if (box == nullptr) {
    fprintf(stderr, "filebay-rehearse: cannot build the sandbox: %s\n", error.c_str());
    return 1;
  }
  box->Keep();
  const std::string fis_before = FisListing(box->FlashStateDir());
  printf("rehearsing on board %s%s%s in %s\n", options.board.c_str(),
         options.rebalance ? " (the plan must rebalance)" : "",
         options.group ? ", group update" : "", box->dir().c_str());
  std::vector<std::string> argv_run = {std::string(sandbox::kPackageDir) + "/updater"};
  if (options.group) argv_run.push_back("-g");
  const sandbox::RunResult result = RunWithProgress(box.get(), argv_run);
  if (!result.ok) {
    fprintf(stderr, "filebay-rehearse: the sandbox failed: %s\n", result.error.c_str());
    return 1;
  }
  Report(*box, result, fis_before);
  return result.status == 0 ? 0 : 1;
}
