// The update run end to end: the simulator build of the updater runs inside
// appliance sandboxes (simulated flash chip, stub services, a sample package
// in /volume1/upd@te) and each test checks what the appliance would show
// afterwards: the exit status, the progress record, the update log, the
// syslog, the stub service calls, the whole flash chip with its FIS
// directory, and the files left behind.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"

namespace {

using sandbox::RootFile;
using sandbox::RunResult;
using sandbox::Sandbox;
using sandbox::Scenario;

constexpr char kUpdater[] = "/volume1/upd@te/updater";
constexpr char kPackageArchive[] = "/volume1/upd@te/hda1.tgz";
constexpr char kBackupDir[] = "/volume1/upd@te/b@ckup";
constexpr char kNorUnique[] = "veltara_powerpc_1hd";
constexpr char kJuniorUnique[] = "veltara_powerpc_junior";
constexpr char kStartLine[] = "Start of the update...";
constexpr char kUpgradeLine[] = "Upgrade from version 2.0.3.500 to version 2.0.3.501";
constexpr char kDoneLine[] = "Congratulation!! The update has been completed!!";
constexpr char kRebootMessage[] =
    "extramsg=\"To perform upgrade task, you have to REBOOT your Filebay first.\"\n";
constexpr uint8_t kErased = 0xFF;

bool Contains(const std::vector<std::string>& lines, const std::string& wanted) {
  for (const std::string& line : lines) {
    if (line == wanted) return true;
  }
  return false;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += "  " + line + "\n";
  return text;
}

// Every message of `wanted` is among `messages`.
void ExpectMessages(const std::vector<std::string>& messages,
                    std::initializer_list<const char*> wanted) {
  for (const char* message : wanted) {
    EXPECT_TRUE(Contains(messages, message)) << message << "\n" << Joined(messages);
  }
}

// No message of `messages` contains any of `texts`.
void ExpectNoMessageWith(const std::vector<std::string>& messages,
                         std::initializer_list<const char*> texts) {
  for (const std::string& message : messages) {
    for (const char* text : texts) {
      EXPECT_EQ(message.find(text), std::string::npos) << message;
    }
  }
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The updater's own syslog lines as "<facility.priority> <message>", line
// numbers replaced by N and trailing line feeds and blanks dropped.
std::vector<std::string> UpdaterMessages(const RunResult& result) {
  std::vector<std::string> messages = sandbox_test::ProgramMessages(result, "updater");
  for (std::string& message : messages) {
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
      message.pop_back();
    }
  }
  return messages;
}

// True when `line` starts with a time stamp "YYYY/MM/DD HH:MM:SS" and a tab.
bool HasTimeStamp(const std::string& line) {
  static const char kShape[] = "dddd/dd/dd dd:dd:dd\t";
  const size_t length = strlen(kShape);
  if (line.size() < length) return false;
  for (size_t i = 0; i < length; ++i) {
    if (kShape[i] == 'd' ? !IsDigit(line[i]) : line[i] != kShape[i]) return false;
  }
  return true;
}

// "filebay-flash ARGS" on the host: its exit status and what it printed.
int RunFlashTool(const std::string& args, std::string* output) {
  const std::string command = std::string(FLASH_TOOL) + " " + args + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  char buffer[512];
  output->clear();
  while (fgets(buffer, sizeof(buffer), pipe) != nullptr) *output += buffer;
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool SameRecord(const flashsim::FisRecord& a, const flashsim::FisRecord& b) {
  return a.name == b.name && a.flash_base == b.flash_base && a.size == b.size &&
         a.data_length == b.data_length;
}

std::string DescribeRecords(const std::vector<flashsim::FisRecord>& records) {
  std::string text;
  char line[128];
  for (const flashsim::FisRecord& record : records) {
    snprintf(line, sizeof(line), "  %-16s 0x%08X 0x%08X 0x%08X\n", record.name.c_str(),
             record.flash_base, record.size, record.data_length);
    text += line;
  }
  return text;
}

// A package's VERSION file.
std::string VersionFile(const std::string& major, const std::string& minor,
                        const std::string& build, const std::string& unique) {
  std::string text = "majorversion=\"" + major + "\"\nminorversion=\"" + minor +
                     "\"\nbuildphase=\"3\"\nbuildnumber=\"" + build + "\"\n";
  if (!unique.empty()) text += "unique=\"" + unique + "\"\n";
  return text;
}

// Replaces the file at `path` in `files`, or adds it.
void PutFile(std::vector<RootFile>* files, const RootFile& file) {
  for (RootFile& existing : *files) {
    if (existing.path == file.path) {
      existing = file;
      return;
    }
  }
  files->push_back(file);
}

void DropFile(std::vector<RootFile>* files, const std::string& path) {
  for (auto it = files->begin(); it != files->end(); ++it) {
    if (it->path == path) {
      files->erase(it);
      return;
    }
  }
}

sandbox::Tools SimulatorTools() {
  sandbox::Tools tools;
  tools.flash_tool = FLASH_TOOL;
  tools.flashsim = FLASHSIM_DAEMON;
  return tools;
}

class UpdaterRunTest : public sandbox_test::SandboxFixture {
 protected:
  UpdaterRunTest() : SandboxFixture("updater-run-test", SimulatorTools(), /*need_flash=*/true) {}

  // A scenario for `board` ("nor8" or "junior6") with the sample package of
  // `package` and the updater in the package directory.
  Scenario BoardScenario(const std::string& board, const sandbox::PackageOptions& package) {
    Scenario scenario;
    std::string error;
    EXPECT_TRUE(sandbox::ApplyBoard(board, SANDBOX_LAYOUT_DIR, &scenario, &error)) << error;
    EXPECT_TRUE(sandbox::LoadLayoutFile(scenario.layout_file, &layout_, &error)) << error;
    spec_ = package;
    scenario.files = sandbox::SamplePackageFiles(layout_, package,
                                                 board == "junior6" ? kJuniorUnique : kNorUnique);
    scenario.files.push_back({kUpdater, "", UPDATER_SIM, 0755});
    return scenario;
  }

  Scenario Nor8(bool rebalance = false) {
    sandbox::PackageOptions package;
    package.rebalance = rebalance;
    return BoardScenario("nor8", package);
  }

  // Builds the sandbox and keeps the chip as it was before any run; null
  // after a recorded failure.
  Sandbox* Build(const Scenario& scenario) {
    if (SandboxFixture::Build(scenario) == nullptr) return nullptr;
    std::string error;
    EXPECT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &before_, &error)) << error;
    return box_.get();
  }

  RunResult Run(const std::vector<std::string>& argv,
                const std::vector<std::string>& env = std::vector<std::string>()) {
    sandbox::RunOptions options;
    options.timeout_seconds = 60;
    options.env = env;
    RunResult result = box_->Run(argv, options);
    EXPECT_TRUE(result.ok) << sandbox_test::Describe(result);
    EXPECT_FALSE(result.timed_out) << sandbox_test::Describe(result);
    // A sanitizer build of the program reports its findings on stderr.
    EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("runtime error:"), std::string::npos) << result.err;
    return result;
  }

  RunResult RunUpdater(const std::vector<std::string>& args = std::vector<std::string>()) {
    std::vector<std::string> argv = {kUpdater};
    argv.insert(argv.end(), args.begin(), args.end());
    return Run(argv);
  }

  flashsim::ChipState After() {
    flashsim::ChipState state;
    std::string error;
    EXPECT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &state, &error)) << error;
    return state;
  }

  static std::vector<flashsim::FisRecord> FisRecords(const flashsim::ChipState& state) {
    const flashsim::PartitionLayout* directory = state.layout.Find(state.layout.fis_device);
    if (directory == nullptr) return {};
    const uint32_t offset = directory->base - state.layout.chip_base;
    const std::vector<uint8_t> bytes(state.image.begin() + offset,
                                     state.image.begin() + offset + directory->size);
    bool terminated = false;
    std::vector<flashsim::FisRecord> records = flashsim::DecodeFisDirectory(bytes, &terminated);
    EXPECT_TRUE(terminated) << "the FIS directory does not end with an erased record";
    return records;
  }

  // The FIS directory on `after` holds exactly `expected`.
  static void ExpectFisRecords(const flashsim::ChipState& after,
                               const std::vector<flashsim::FisRecord>& expected) {
    const std::vector<flashsim::FisRecord> records = FisRecords(after);
    ASSERT_EQ(records.size(), expected.size()) << DescribeRecords(records);
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_TRUE(SameRecord(records[i], expected[i])) << "record " << i << "\nafter:\n"
                                                       << DescribeRecords(records) << "expected:\n"
                                                       << DescribeRecords(expected);
    }
  }

  void ExpectFlashUntouched() {
    const flashsim::ChipState after = After();
    EXPECT_TRUE(after.image == before_.image) << "the chip changed";
    EXPECT_EQ(flashsim::FormatLayout(after.layout), flashsim::FormatLayout(before_.layout));
  }

  void ExpectFlashCheckPasses() {
    std::string output;
    EXPECT_EQ(RunFlashTool("check " + box_->FlashStateDir(), &output), 0) << output;
  }

  // The progress file holds `record` (as "%c:%d:" writes it) followed by the
  // six blanks of the format and nothing but blanks after them.
  void ExpectProgress(const std::string& record) {
    std::string progress;
    ASSERT_TRUE(box_->ReadRootFile("/tmp/update.progress", &progress));
    const std::string head = record + "      ";
    EXPECT_EQ(progress.substr(0, head.size()), head) << "[" << progress << "]";
    EXPECT_EQ(progress.find_first_not_of(' ', head.size()), std::string::npos)
        << "[" << progress << "]";
  }

  // The update log's lines without their time stamps; each line must carry
  // one ("YYYY/MM/DD HH:MM:SS" and a tab).
  std::vector<std::string> UpdateLog() {
    std::string text;
    EXPECT_TRUE(box_->ReadRootFile("/var/log/veltupdate.log", &text));
    std::vector<std::string> lines;
    for (const std::string& line : sandbox_test::SplitLines(text)) {
      EXPECT_TRUE(HasTimeStamp(line)) << "[" << line << "]";
      lines.push_back(HasTimeStamp(line) ? line.substr(strlen("YYYY/MM/DD HH:MM:SS\t")) : line);
    }
    return lines;
  }

  bool RootFileExists(const std::string& path) {
    struct stat st;
    return lstat(box_->RootPath(path).c_str(), &st) == 0;
  }

  // The package's hard-disk archive is still in the package directory and
  // has not reached any volume.
  void ExpectArchiveNotMoved() {
    EXPECT_TRUE(RootFileExists(kPackageArchive));
    EXPECT_FALSE(RootFileExists(sandbox::kNextBootArchive));
  }

  // The outcome of a run that failed with `code` after the services had been
  // stopped: they were started again, in the stub call log after their stop.
  void ExpectServicesStoppedThenStarted(const RunResult& result) {
    size_t stops = 0;
    size_t starts = 0;
    size_t first_start = result.stub_calls.size();
    for (size_t i = 0; i < result.stub_calls.size(); ++i) {
      const std::string& call = result.stub_calls[i];
      if (call.size() > 5 && call.compare(call.size() - 5, 5, " stop") == 0) {
        ++stops;
        EXPECT_LT(i, first_start) << "a stop after a start:\n" << Joined(result.stub_calls);
      }
      if (call.size() > 6 && call.compare(call.size() - 6, 6, " start") == 0) {
        ++starts;
        if (first_start == result.stub_calls.size()) first_start = i;
      }
    }
    EXPECT_GT(stops, 0u) << Joined(result.stub_calls);
    EXPECT_GT(starts, 0u) << Joined(result.stub_calls);
    EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh stop"))
        << Joined(result.stub_calls);
    EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh start"))
        << Joined(result.stub_calls);
  }

  // After a success the services stay stopped: the run only stopped them.
  void ExpectServicesOnlyStopped(const RunResult& result) {
    EXPECT_FALSE(result.stub_calls.empty());
    for (const std::string& call : result.stub_calls) {
      EXPECT_TRUE(call.size() > 5 && call.compare(call.size() - 5, 5, " stop") == 0)
          << "unexpected call: " << call;
    }
    EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh stop"))
        << Joined(result.stub_calls);
  }

  // A run that failed with `code`: the failure line in syslog and in the
  // update log (its last line), and the progress letter at `letter`.
  void ExpectFailure(const RunResult& result, int code, char letter) {
    EXPECT_EQ(result.status, code) << sandbox_test::Describe(result);
    const std::string failed =
        "Failed to accomplish the update! (errno = " + std::to_string(code) + ")";
    EXPECT_TRUE(Contains(UpdaterMessages(result), "user.err " + failed))
        << sandbox_test::Describe(result);
    const std::vector<std::string> log = UpdateLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), kStartLine);
    EXPECT_EQ(log.back(), failed);
    EXPECT_FALSE(Contains(log, kDoneLine));
    ExpectProgress(std::string(1, letter) + ":-" + std::to_string(code) + ":");
  }

  // The expected chip after the sample images went to `new_extents` (one
  // partition index -> base and size each): the images at their bases,
  // erased bytes after them, every other byte as before (the FIS directory
  // is compared record by record).
  void ExpectImagesOnFlash(const flashsim::ChipState& after,
                           const std::vector<std::pair<std::string, flashsim::FisRecord>>& images) {
    std::vector<uint8_t> expected = before_.image;
    for (const auto& [bytes, record] : images) {
      const uint32_t offset = record.flash_base - before_.layout.chip_base;
      ASSERT_LE(offset + record.size, expected.size());
      std::fill(expected.begin() + offset, expected.begin() + offset + record.size, kErased);
      std::copy(bytes.begin(), bytes.end(), expected.begin() + offset);
    }
    const flashsim::PartitionLayout* directory = before_.layout.Find(before_.layout.fis_device);
    ASSERT_NE(directory, nullptr);
    const uint32_t fis_offset = directory->base - before_.layout.chip_base;
    ASSERT_EQ(after.image.size(), expected.size());
    size_t differing = 0;
    size_t first = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
      if (i >= fis_offset && i < fis_offset + directory->size) continue;
      if (after.image[i] != expected[i] && differing++ == 0) first = i;
    }
    EXPECT_EQ(differing, 0u) << "first differing chip offset 0x" << std::hex << first;
  }

  // The sample image bytes of package file `file`.
  std::string ImageBytes(const std::string& file) {
    for (const sandbox::PackageImage& image : sandbox::SampleImages(layout_, spec_)) {
      if (image.file == file) return image.bytes;
    }
    ADD_FAILURE() << "no sample image " << file;
    return "";
  }

  flashsim::ChipLayout layout_;
  sandbox::PackageOptions spec_;
  flashsim::ChipState before_;
};

// ---- successful updates ----

TEST_F(UpdaterRunTest, Nor8UpdateRebalancesPartitionsAndLeavesServicesStopped) {
  ASSERT_NE(Build(Nor8(/*rebalance=*/true)), nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");

  // The kernel took one erase block from the library archive; the root
  // image moved up by that block.
  const uint32_t block = layout_.erase_size;
  std::vector<flashsim::FisRecord> expected = FisRecords(before_);
  ASSERT_EQ(expected.size(), 8u);
  const std::string kernel = ImageBytes("zImage");
  const std::string root_image = ImageBytes("rd.bin");
  const std::string library = ImageBytes("AllLib.tgz");
  ASSERT_GT(kernel.size(), expected[1].size);
  expected[1].size += block;
  expected[1].data_length = kernel.size();
  expected[2].flash_base += block;
  expected[2].data_length = root_image.size();
  expected[3].flash_base += block;
  expected[3].size -= block;
  expected[3].data_length = library.size();

  const flashsim::ChipState after = After();
  ExpectFisRecords(after, expected);
  ExpectImagesOnFlash(after,
                      {{kernel, expected[1]}, {root_image, expected[2]}, {library, expected[3]}});
  ExpectFlashCheckPasses();

  std::string archive;
  ASSERT_TRUE(box_->ReadRootFile(sandbox::kNextBootArchive, &archive));
  EXPECT_EQ(archive, sandbox::SampleImageBytes("hda1.tgz", 4096));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  EXPECT_FALSE(RootFileExists(kBackupDir));

  ExpectServicesOnlyStopped(result);
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine}));
  const std::vector<std::string> messages = UpdaterMessages(result);
  ExpectMessages(messages, {"user.err main(N): Start of the updater...",
                            "user.err This is not junior, gszDevMtdPartition=[/dev/mtd7]",
                            "user.err number of partitions = [8]",
                            "user.err [zImage]  0xFF800000  0x00180000  0x0012F3A4",
                            "user.err main(N): Turn on the reinstall library flag...!!",
                            "user.err Congratulation!! The update has been completed!!",
                            "user.err szCmd=[/bin/rm -rf /volume1/upd@te/b@ckup]"});
  ExpectNoMessageWith(messages, {"Failed to accomplish", "mtd driver buffer"});
}

TEST_F(UpdaterRunTest, Junior6UpdateRewritesImagesInPlaceOnSixPartitions) {
  ASSERT_NE(Build(BoardScenario("junior6", sandbox::PackageOptions())), nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");

  std::vector<flashsim::FisRecord> expected = FisRecords(before_);
  ASSERT_EQ(expected.size(), 6u);
  const std::string kernel = ImageBytes("zImage");
  const std::string root_image = ImageBytes("rd.bin");
  expected[1].data_length = kernel.size();
  expected[2].data_length = root_image.size();
  const flashsim::ChipState after = After();
  ExpectFisRecords(after, expected);
  ExpectImagesOnFlash(after, {{kernel, expected[1]}, {root_image, expected[2]}});
  ExpectFlashCheckPasses();

  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  EXPECT_FALSE(RootFileExists(kBackupDir));
  ExpectServicesOnlyStopped(result);
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine}));
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages, "user.err This is junior, gszDevMtdPartition=[/dev/mtd5]"))
      << Joined(messages);
  EXPECT_TRUE(Contains(messages, "user.err number of partitions = [6]")) << Joined(messages);
}

// ---- refusals of the package analysis ----

struct Refusal {
  const char* name;
  int code;
  std::function<void(Scenario*)> change;
  const char* reason;  // the analysis's own syslog line, or null
};

void ReplacePackageVersion(Scenario* scenario, const std::string& text) {
  PutFile(&scenario->files, {std::string(sandbox::kPackageDir) + "/VERSION", text, "", 0644});
}

std::vector<Refusal> Refusals() {
  const std::string dir = sandbox::kPackageDir;
  return {
      {"PartialPackageWithDependency", 6,
       [dir](Scenario* s) {
         s->files.push_back({dir + "/UPDATELIST", "zImage\n", "", 0644});
         s->files.push_back({dir + "/DEPENDENCY", "2.0.3.500\n", "", 0644});
       },
       nullptr},
      {"SystemVersionWithoutBuildNumber", 6,
       [](Scenario* s) {
         s->files.push_back({"/etc.defaults/VERSION",
                             "majorversion=\"2\"\nminorversion=\"0\"\nbuildphase=\"3\"\n", "",
                             0644});
       },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): fail to read buildnumber"},
      {"PackageWithoutVersion", 7, [dir](Scenario* s) { DropFile(&s->files, dir + "/VERSION"); },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): the file [/volume1/upd@te/VERSION]"},
      {"PackageBuildNumberZero", 7,
       [](Scenario* s) { ReplacePackageVersion(s, VersionFile("2", "0", "0", kNorUnique)); },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): buildnumber or major version == 0"},
      {"SystemWithoutUnique", 8,
       [](Scenario* s) {
         s->files.push_back(
             {"/etc.defaults/veltinfo.conf", "supportMTU=\"no\"\ndefaultfs=\"ext3\"\n", "", 0644});
       },
       nullptr},
      {"PackageWithoutUnique", 9,
       [](Scenario* s) { ReplacePackageVersion(s, VersionFile("2", "0", "501", "")); }, nullptr},
      {"SameBuild", 10,
       [](Scenario* s) { ReplacePackageVersion(s, VersionFile("2", "0", "500", kNorUnique)); },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): orgBuildNumber = 500, newBuildNumber=500"},
      {"OtherMinorVersion", 10,
       [](Scenario* s) { ReplacePackageVersion(s, VersionFile("2", "1", "501", kNorUnique)); },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): orgMinor=0, newMinor=1"},
      {"OtherModel", 12,
       [](Scenario* s) {
         ReplacePackageVersion(s, VersionFile("2", "0", "501", "orvan_powerpc_1hd"));
       },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): szOrgCompany = [veltara_powerpc_1hd], "
       "szNewCompany=[orvan_powerpc_1hd]"},
      {"PartialPackageWithoutDependency", 13,
       [dir](Scenario* s) {
         s->files.push_back({dir + "/UPDATELIST", "zImage\n", "", 0644});
       },
       "user.err ErrUPDTIAnalyze(N)"},
      {"OtherMajorVersion", 13,
       [](Scenario* s) { ReplacePackageVersion(s, VersionFile("3", "0", "501", kNorUnique)); },
       "user.err ErrUPDTIAnalyze_WholeSystem(N): orgMajorVersion=2, newMajorVersion=3"},
  };
}

TEST_F(UpdaterRunTest, RefusedPackagesEndBeforeServicesAndFlashAreTouched) {
  for (const Refusal& refusal : Refusals()) {
    SCOPED_TRACE(refusal.name);
    Scenario scenario = Nor8();
    refusal.change(&scenario);
    ASSERT_NE(Build(scenario), nullptr);
    const RunResult result = RunUpdater();
    ExpectFailure(result, refusal.code, 'A');
    const std::vector<std::string> messages = UpdaterMessages(result);
    EXPECT_TRUE(Contains(
        messages, "user.err main(N): fail to analyze, error = " + std::to_string(refusal.code)))
        << Joined(messages);
    if (refusal.reason != nullptr) {
      EXPECT_TRUE(Contains(messages, refusal.reason)) << Joined(messages);
    }
    EXPECT_FALSE(Contains(UpdateLog(), kUpgradeLine));
    EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
    ExpectFlashUntouched();
    ExpectArchiveNotMoved();
    EXPECT_FALSE(RootFileExists(kBackupDir));
    std::string error;
    EXPECT_TRUE(box_->Destroy(HasFailure(), &error)) << error;
    box_.reset();
  }
}

// A system of a model whose file-system migration needs room on /writeable,
// at a build old enough for that migration.
Scenario WriteableModel(Scenario scenario) {
  const char* model = "orvan_powerpc_1hd";
  sandbox::SetKeyValue(&scenario.default_settings, "unique", model);
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "250");
  ReplacePackageVersion(&scenario, VersionFile("2", "0", "501", model));
  scenario.files.push_back({"/writeable/keep", "x", "", 0644});
  return scenario;
}

TEST_F(UpdaterRunTest, FullWriteableVolumeIsRefusedWith16) {
  ASSERT_NE(Build(WriteableModel(Nor8())), nullptr);
  // A 1 MiB file system on /writeable, mounted in the run's own namespace.
  const RunResult result =
      Run({"/bin/sh", "-c",
           std::string("mount -t tmpfs -o size=1m tmpfs /writeable && exec ") + kUpdater});
  ExpectFailure(result, 16, 'A');
  EXPECT_TRUE(Contains(UpdaterMessages(result), "user.err main(N): fail to analyze, error = 16"))
      << sandbox_test::Describe(result);
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  ExpectFlashUntouched();
  ExpectArchiveNotMoved();
}

TEST_F(UpdaterRunTest, UnwritableDefaultFileSystemSettingIsRefusedWith22) {
  Scenario scenario = WriteableModel(Nor8());
  // Settings without "defaultfs", and a directory where the rewrite's
  // temporary file would go.
  scenario.files.push_back(
      {"/etc/veltinfo.conf", "runsamba=\"yes\"\nMTUValue=\"1500\"\n", "", 0644});
  scenario.files.push_back({"/etc/veltinfo.conf.tmp/keep", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 22, 'A');
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages, "user.err main(N): fail to analyze, error = 22"))
      << Joined(messages);
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  ExpectFlashUntouched();
  std::string settings;
  ASSERT_TRUE(box_->ReadRootFile("/etc/veltinfo.conf", &settings));
  EXPECT_EQ(settings, "runsamba=\"yes\"\nMTUValue=\"1500\"\n");
}

// ---- options ----

TEST_F(UpdaterRunTest, HelpPrintsUsageAfterTheStartRecords) {
  ASSERT_NE(Build(Nor8()), nullptr);
  const RunResult result = RunUpdater({"-h"});
  EXPECT_EQ(result.status, 0) << sandbox_test::Describe(result);
  const std::vector<std::string> out = sandbox_test::SplitLines(result.out);
  ASSERT_EQ(out.size(), 4u) << result.out;
  EXPECT_NE(out[0].find("2007"), std::string::npos) << out[0];
  EXPECT_EQ(out[1], "updater [-h][-g][-v vol]");
  EXPECT_EQ(out[2], " -g: for group update");
  EXPECT_EQ(out[3], " -v: specify an avaible volume for upgrade task.");
  EXPECT_EQ(result.err, "");
  ExpectProgress("A:0:");
  EXPECT_EQ(UpdateLog(), std::vector<std::string>{kStartLine});
  EXPECT_TRUE(Contains(UpdaterMessages(result), "user.err main(N): Start of the updater..."));
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  ExpectFlashUntouched();
  ExpectArchiveNotMoved();
}

TEST_F(UpdaterRunTest, BadOptionsEndWith255AndTheirSyslogLine) {
  ASSERT_NE(Build(Nor8()), nullptr);
  const struct {
    std::vector<std::string> args;
    const char* line;
  } kCases[] = {
      {{"-x"}, "user.err updater: invalid option [?]"},
      {{"-v"}, "user.err updater: invalid option for -v [mount_point]"},
      {{"-v", "/volume1;touch /tmp/owned"},
       "user.err updater: invalid character [;] in volume [/volume1;touch /tmp/owned]"},
      {{"-v", "/volume 2"}, "user.err updater: invalid character [ ] in volume [/volume 2]"},
  };
  for (const auto& bad : kCases) {
    SCOPED_TRACE(bad.line);
    const RunResult result = RunUpdater(bad.args);
    EXPECT_EQ(result.status, 255) << sandbox_test::Describe(result);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> messages = UpdaterMessages(result);
    EXPECT_TRUE(Contains(messages, bad.line)) << Joined(messages);
    ExpectProgress("A:0:");
    EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
    EXPECT_EQ(UpdateLog().back(), kStartLine);
  }
  EXPECT_FALSE(RootFileExists("/tmp/owned"));
  ExpectFlashUntouched();
  ExpectArchiveNotMoved();
}

TEST_F(UpdaterRunTest, OtherVolumeReceivesTheHardDiskArchive) {
  Scenario scenario = Nor8();
  scenario.files.push_back({"/volume2/keep", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater({"-v", "/volume2"});
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  std::string archive;
  ASSERT_TRUE(box_->ReadRootFile("/volume2/VeltUpgrade.tar.gz", &archive));
  EXPECT_EQ(archive, sandbox::SampleImageBytes("hda1.tgz", 4096));
  EXPECT_FALSE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  EXPECT_FALSE(RootFileExists(kBackupDir));
  ExpectServicesOnlyStopped(result);
}

TEST_F(UpdaterRunTest, ProgramStartedByBareNameWorksInTheVolumesPackageDirectory) {
  Scenario scenario = Nor8();
  // The program lives outside the package directory, so only the rule for
  // bare names can lead it there.
  DropFile(&scenario.files, kUpdater);
  scenario.files.push_back({"/usr/local/sbin/updater", "", UPDATER_SIM, 0755});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = Run({"/bin/sh", "-c", "cd /tmp && exec updater"},
                               {"PATH=/usr/local/sbin:/bin:/sbin:/usr/bin:/usr/sbin"});
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine}));
}

TEST_F(UpdaterRunTest, ProgramStartedByBareNameWithoutPackageOnTheVolumeFails) {
  Scenario scenario = Nor8();
  DropFile(&scenario.files, kUpdater);
  scenario.files.push_back({"/usr/local/sbin/updater", "", UPDATER_SIM, 0755});
  scenario.files.push_back({"/volume2/keep", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  // /volume2 has no "upd@te" directory: the change of directory fails.
  const RunResult result = Run({"/bin/sh", "-c", "cd /tmp && exec updater -v /volume2"},
                               {"PATH=/usr/local/sbin:/bin:/sbin:/usr/bin:/usr/sbin"});
  ExpectFailure(result, 3, 'A');
  EXPECT_TRUE(Contains(UpdaterMessages(result), "user.err main(N): fail to chdir, errno = 2"))
      << sandbox_test::Describe(result);
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  ExpectFlashUntouched();
  ExpectArchiveNotMoved();
}

// ---- flash failures ----

// The kernel image grows into an erase block that was erased before the run;
// the worn block there keeps bit 0 of every byte set, so every verify of the
// new kernel fails, while the roll-back's erased bytes survive it.
constexpr char kWornKernelBlock[] = "fault worn-block mtd1 0x130000";

TEST_F(UpdaterRunTest, FailedVerifyRollsTheWholeChipBackAndRestartsServices) {
  Scenario scenario = Nor8(/*rebalance=*/true);
  scenario.faults = {kWornKernelBlock};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 20, 'P');
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages, "user.err main(N): fail to patch new binaries!!"))
      << Joined(messages);
  size_t verify_failures = 0;
  for (const std::string& message : messages) {
    if (message.find("compare file [/volume1/upd@te/zImage] vs [/dev/mtd1]") != std::string::npos)
      ++verify_failures;
  }
  EXPECT_EQ(verify_failures, 3u) << Joined(messages);
  EXPECT_FALSE(Contains(messages, "user.err main: UPDTRollBack() fail")) << Joined(messages);
  ExpectFlashUntouched();
  EXPECT_EQ(FisRecords(After()).size(), 8u);
  ExpectFlashCheckPasses();
  ExpectServicesStoppedThenStarted(result);
  ExpectArchiveNotMoved();
  EXPECT_FALSE(RootFileExists(kBackupDir));
  EXPECT_TRUE(Contains(UpdateLog(), kUpgradeLine));
}

TEST_F(UpdaterRunTest, FailedVerifyInGroupUpdateLeavesFlashAsItIs) {
  Scenario scenario = Nor8(/*rebalance=*/true);
  scenario.faults = {kWornKernelBlock};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater({"-g"});
  ExpectFailure(result, 20, 'P');
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages, "user.err main(N): fail to patch new binaries!!"))
      << Joined(messages);
  ExpectNoMessageWith(messages, {"UPDTBackupOldPartition", "UPDTRollBack", "fail to analyze"});
  // No analysis: no version line in the update log.
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{
                             kStartLine, "Failed to accomplish the update! (errno = 20)"}));
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  // The kernel partition holds the failed write: not the old bytes.
  const flashsim::ChipState after = After();
  const uint32_t kernel_offset = FisRecords(before_)[1].flash_base - before_.layout.chip_base;
  const std::string kernel = ImageBytes("zImage");
  EXPECT_NE(0, memcmp(after.image.data() + kernel_offset, before_.image.data() + kernel_offset,
                      kernel.size()));
  EXPECT_FALSE(RootFileExists(kBackupDir));
  ExpectArchiveNotMoved();
}

TEST_F(UpdaterRunTest, FailedConfigurationMigrationRollsBackWith17) {
  Scenario scenario = Nor8(/*rebalance=*/true);
  // A directory where the migration removes a file: the removal fails.
  scenario.files.push_back({"/usr/velt/etc/manutil.conf/keep", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 17, 'C');
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages,
                       "user.err updater:N(UPDTUpdateConfig) Failed to update "
                       "[/usr/velt/etc/manutil.conf], errno=(21)[Is a directory]"))
      << Joined(messages);
  EXPECT_TRUE(Contains(messages, "user.err main(N): Turn on the reinstall library flag...!!"))
      << Joined(messages);
  ExpectFlashUntouched();
  ExpectFlashCheckPasses();
  ExpectServicesStoppedThenStarted(result);
  ExpectArchiveNotMoved();
  EXPECT_FALSE(RootFileExists(kBackupDir));
  EXPECT_TRUE(RootFileExists("/usr/velt/etc/manutil.conf/keep"));
}

// ---- kernel driver buffer and the reboot rule ----

TEST_F(UpdaterRunTest, KernelWithoutDriverBufferCallStillUpdates) {
  Scenario scenario = Nor8();
  scenario.faults = {"set driver-buffer errno ENOSYS"};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  const std::vector<std::string> messages = UpdaterMessages(result);
  EXPECT_TRUE(Contains(messages, "user.err main(N): fail to malloc mtd driver buffer, error = 38"))
      << Joined(messages);
  EXPECT_TRUE(Contains(messages, "user.err main(N): fail to free mtd driver buffer, error = 38"))
      << Joined(messages);
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine}));
  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  ExpectServicesOnlyStopped(result);
  ExpectFlashCheckPasses();
}

TEST_F(UpdaterRunTest, RefusedDriverBufferEndsWith23BeforeTheFlash) {
  Scenario scenario = Nor8();
  scenario.faults = {"set driver-buffer errno ENOMEM"};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 23, 'A');
  EXPECT_TRUE(Contains(UpdaterMessages(result),
                       "user.err main(N): fail to malloc mtd driver buffer, error = 12"))
      << sandbox_test::Describe(result);
  ExpectFlashUntouched();
  ExpectServicesStoppedThenStarted(result);
  ExpectArchiveNotMoved();
}

double HostUptime() {
  const std::string text = testing_support::ReadFile("/proc/uptime");
  return text.empty() ? -1 : strtod(text.c_str(), nullptr);
}

// An old system (build 350) whose flash driver cannot lend its buffer, booted
// from an initial RAM disk.
Scenario OldSystemWithInitrd(Scenario scenario) {
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "350");
  scenario.files.push_back({"/initrd/keep", "x", "", 0644});
  return scenario;
}

TEST_F(UpdaterRunTest, OldSystemUpLongerThanFiveMinutesMustRebootFirst) {
  if (HostUptime() <= 300) GTEST_SKIP() << "the host has been up for 300 s or less";
  ASSERT_NE(Build(OldSystemWithInitrd(Nor8())), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 24, 'A');
  std::string message;
  ASSERT_TRUE(box_->ReadRootFile("/tmp/update.message", &message));
  EXPECT_EQ(message, kRebootMessage);
  ExpectNoMessageWith(UpdaterMessages(result), {"mtd driver buffer"});
  ExpectFlashUntouched();
  ExpectServicesStoppedThenStarted(result);
  ExpectArchiveNotMoved();
}

TEST_F(UpdaterRunTest, JuniorNeverAppliesTheRebootRule) {
  if (HostUptime() <= 300) GTEST_SKIP() << "the host has been up for 300 s or less";
  ASSERT_NE(Build(OldSystemWithInitrd(BoardScenario("junior6", sandbox::PackageOptions()))),
            nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  EXPECT_FALSE(RootFileExists("/tmp/update.message"));
  EXPECT_EQ(UpdateLog(),
            (std::vector<std::string>{
                kStartLine, "Upgrade from version 2.0.3.350 to version 2.0.3.501", kDoneLine}));
  // The photo database step of an old system starts the database first.
  EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh start"))
      << Joined(result.stub_calls);
  ExpectFlashCheckPasses();
}

TEST_F(UpdaterRunTest, RecentlyBootedOldSystemIsUpdated) {
  const double uptime = HostUptime();
  ASSERT_GT(uptime, 0);
  Scenario scenario = OldSystemWithInitrd(Nor8());
  scenario.files.push_back({"/usr/local/sbin/unshare", "", "/usr/bin/unshare", 0755});
  ASSERT_NE(Build(scenario), nullptr);
  // A time namespace whose boot time lies 60 s back: the system looks
  // freshly booted to the run.
  const long offset = static_cast<long>(uptime) - 60;
  const RunResult result =
      Run({"/usr/local/sbin/unshare", "--time", "--boottime", std::to_string(-offset), kUpdater});
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  EXPECT_FALSE(RootFileExists("/tmp/update.message"));
  EXPECT_EQ(UpdateLog(),
            (std::vector<std::string>{
                kStartLine, "Upgrade from version 2.0.3.350 to version 2.0.3.501", kDoneLine}));
  ExpectNoMessageWith(UpdaterMessages(result), {"mtd driver buffer"});
  ExpectFlashCheckPasses();
}

// ---- migration steps before the flash ----

TEST_F(UpdaterRunTest, FailedFtpPortRangeStepEndsWith21BeforeTheFlash) {
  Scenario scenario = Nor8();
  // An old build whose FTP passive range is too wide; the settings cannot be
  // rewritten because a directory holds the temporary file's name.
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "400");
  sandbox::SetKeyValue(&scenario.settings, "ftplowport", "1000");
  sandbox::SetKeyValue(&scenario.settings, "ftphighport", "60000");
  scenario.files.push_back({"/etc/veltinfo.conf.tmp/keep", "x", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 21, 'A');
  EXPECT_TRUE(Contains(UpdateLog(), "Upgrade from version 2.0.3.400 to version 2.0.3.501"));
  ExpectFlashUntouched();
  ExpectServicesStoppedThenStarted(result);
  ExpectArchiveNotMoved();
  EXPECT_FALSE(RootFileExists(kBackupDir));
  std::string settings;
  ASSERT_TRUE(box_->ReadRootFile("/etc/veltinfo.conf", &settings));
  EXPECT_NE(settings.find("ftphighport=\"60000\""), std::string::npos) << settings;
}

// ---- the photo database after the flash ----

TEST_F(UpdaterRunTest, PhotoDatabaseStatementsRunEvenWhenTheDatabaseCannotBeStarted) {
  Scenario scenario = Nor8();
  // A system old enough for every photo database change; its database
  // script has lost its execute permission.
  sandbox::SetKeyValue(&scenario.version, "buildnumber", "401");
  scenario.files.push_back({"/usr/velt/etc/rc.d/S20pgsql.sh", "#!/bin/sh\nexit 0\n", "", 0644});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");
  size_t database_failures = 0;
  for (const std::string& message : UpdaterMessages(result)) {
    const std::string prefix = "user.err updater.cpp: ";
    const std::string suffix = ": failed to start postgre database.";
    if (message.compare(0, prefix.size(), prefix) == 0 && message.size() > suffix.size() &&
        message.compare(message.size() - suffix.size(), suffix.size(), suffix) == 0) {
      ++database_failures;
    }
  }
  EXPECT_EQ(database_failures, 1u) << sandbox_test::Describe(result);
  const std::string psql = "/usr/velt/pgsql/bin/psql photo -c ";
  const std::vector<std::string> database_calls = {
      psql + "ALTER TABLE photo_image ALTER timetaken TYPE varchar(64)",
      psql + "ALTER TABLE photo_user ADD COLUMN admin bool DEFAULT false",
      "/usr/velt/pgsql/bin/dropdb mediaserver"};
  for (const std::string& call : database_calls) {
    EXPECT_TRUE(Contains(result.stub_calls, call)) << call << "\n" << Joined(result.stub_calls);
  }
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{
                             kStartLine, "Upgrade from version 2.0.3.401 to version 2.0.3.501",
                             "Update photo db to add video tables", kDoneLine}));
  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kBackupDir));
  ExpectFlashCheckPasses();
}

// ---- services and the network interface ----

TEST_F(UpdaterRunTest, ServicesThatCouldNotBeStoppedAreNotStartedAfterAFailure) {
  Scenario scenario = Nor8(/*rebalance=*/true);
  scenario.faults = {kWornKernelBlock};
  scenario.files.push_back({"/usr/local/sbin/sdk_probe", "", SDK_PROBE, 0755});
  ASSERT_NE(Build(scenario), nullptr);
  // Another process holds the SMB configuration lock, one of the service
  // locks, for longer than the stop waits for it.
  const RunResult result =
      Run({"/bin/sh", "-c",
           "/usr/local/sbin/sdk_probe holdlock 0x40 120 /tmp/lock-held >/dev/null & "
           "while [ ! -e /tmp/lock-held ]; do sleep 0.1; done; exec /volume1/upd@te/updater"});
  ExpectFailure(result, 20, 'P');
  const std::vector<std::string> messages = UpdaterMessages(result);
  ExpectMessages(messages, {"user.err VELTNetService(N): lock failed",
                            "user.err ErrNetServiceStop(N): VELTNetService return -1",
                            "user.err main(N): all services stop error",
                            "user.err main(N): fail to patch new binaries!!"});
  // The run went on to the flash and rolled it back, but never touched a
  // service: nothing was stopped, so nothing is started.
  EXPECT_TRUE(result.stub_calls.empty()) << Joined(result.stub_calls);
  ExpectNoMessageWith(messages, {"all services start error"});
  ExpectFlashUntouched();
  ExpectArchiveNotMoved();
  EXPECT_FALSE(RootFileExists(kBackupDir));
}

// A stand-in for the database script that also records the interface's MTU
// at the time of each call.
constexpr char kMtuRecordingScript[] =
    "#!/bin/sh\n"
    "mtu=$(/sbin/ifconfig eth0 | sed -n 's/.*MTU:\\([0-9]*\\).*/\\1/p')\n"
    "echo \"$0 $* mtu=$mtu\" >>/var/log/stub-calls.log\n"
    "exit 0\n";

TEST_F(UpdaterRunTest, JumboFramesAreOffWhileTheFlashIsWrittenAndBackAfterAFailure) {
  Scenario scenario = Nor8(/*rebalance=*/true);
  scenario.faults = {kWornKernelBlock};
  scenario.eth0_speed = 1000;
  sandbox::SetKeyValue(&scenario.default_settings, "supportMTU", "yes");
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  scenario.files.push_back({"/usr/velt/etc/rc.d/S20pgsql.sh", kMtuRecordingScript, "", 0755});
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result =
      Run({"/bin/sh", "-c",
           "ifconfig eth0 mtu 9000 && /volume1/upd@te/updater; status=$?; "
           "echo \"mtu after the run: $(ifconfig eth0 | sed -n 's/.*MTU:\\([0-9]*\\).*/\\1/p')\"; "
           "exit $status"});
  ExpectFailure(result, 20, 'P');
  // Stopped at 9000 before the MTU was lowered; started again at 1500,
  // before it is restored; 9000 again when the run has ended.
  EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh stop mtu=9000"))
      << Joined(result.stub_calls);
  EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh start mtu=1500"))
      << Joined(result.stub_calls);
  EXPECT_NE(result.out.find("mtu after the run: 9000\n"), std::string::npos) << result.out;
  std::string settings;
  ASSERT_TRUE(box_->ReadRootFile("/etc/veltinfo.conf", &settings));
  EXPECT_NE(settings.find("MTUValue=\"9000\"\n"), std::string::npos) << settings;
  ExpectFlashUntouched();
}

// ---- the start directory ----

// A stand-in for the database script whose stop closes the directory the
// updater was started from to everyone, its owner included.
constexpr char kClosingStartDirectoryScript[] =
    "#!/bin/sh\n"
    "echo \"$0 $*\" >>/var/log/stub-calls.log\n"
    "if [ \"$1\" = stop ]; then chmod 0 /root/start; fi\n"
    "exit 0\n";

TEST_F(UpdaterRunTest, FailureToReturnToTheStartDirectoryTurnsSuccessInto2) {
  Scenario scenario = Nor8();
  scenario.files.push_back(
      {"/usr/local/sbin/run_without_dac_override", "", RUN_WITHOUT_DAC_OVERRIDE, 0755});
  scenario.files.push_back({"/root/start/keep", "x", "", 0644});
  scenario.files.push_back(
      {"/usr/velt/etc/rc.d/S20pgsql.sh", kClosingStartDirectoryScript, "", 0755});
  ASSERT_NE(Build(scenario), nullptr);
  // Without the capabilities that let root ignore permissions, the closed
  // directory cannot be entered again at the end of the run.
  const RunResult result = Run(
      {"/bin/sh", "-c",
       "cd /root/start && exec /usr/local/sbin/run_without_dac_override /volume1/upd@te/updater"});
  EXPECT_EQ(result.status, 2) << sandbox_test::Describe(result);
  ExpectProgress("R:-2:");
  EXPECT_EQ(UpdateLog(),
            (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine,
                                      "Failed to accomplish the update! (errno = 2)"}));
  EXPECT_TRUE(
      Contains(UpdaterMessages(result), "user.err Failed to accomplish the update! (errno = 2)"))
      << sandbox_test::Describe(result);
  // The update itself is complete: new images, archive moved, no backup.
  const flashsim::ChipState after = After();
  const std::vector<flashsim::FisRecord> records = FisRecords(after);
  ASSERT_EQ(records.size(), 8u);
  EXPECT_EQ(records[1].data_length, ImageBytes("zImage").size());
  ExpectFlashCheckPasses();
  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kBackupDir));
  // A failed run starts the services it stopped.
  EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh stop"))
      << Joined(result.stub_calls);
  EXPECT_TRUE(Contains(result.stub_calls, "/usr/velt/etc/rc.d/S20pgsql.sh start"))
      << Joined(result.stub_calls);
}

// ---- boards with an M-Systems flash disk ----

constexpr uint32_t kDiskUnit = 16384;

// One row of the flash disk's partition table, as its driver keeps it.
struct DiskPartition {
  std::string name;
  uint32_t base;
  uint32_t size;
  uint32_t data_length;
  bool operator==(const DiskPartition& other) const {
    return name == other.name && base == other.base && size == other.size &&
           data_length == other.data_length;
  }
};

std::vector<DiskPartition> DiskTable(const flashsim::ChipState& state) {
  std::vector<DiskPartition> table;
  for (const flashsim::PartitionLayout& partition : state.layout.partitions) {
    table.push_back({partition.name, partition.base, partition.size, partition.data_length});
  }
  return table;
}

std::string DescribeTable(const std::vector<DiskPartition>& table) {
  std::string text;
  char line[128];
  for (const DiskPartition& row : table) {
    snprintf(line, sizeof(line), "  %-16s 0x%08X 0x%08X 0x%08X\n", row.name.c_str(), row.base,
             row.size, row.data_length);
    text += line;
  }
  return text;
}

// The flash disk's partition table on `after` is `expected`.
void ExpectDiskTable(const flashsim::ChipState& after, const std::vector<DiskPartition>& expected) {
  EXPECT_EQ(DiskTable(after), expected) << "after:\n"
                                        << DescribeTable(DiskTable(after)) << "expected:\n"
                                        << DescribeTable(expected);
}

// A disk holding `contents[i]` at the start of partition i of `table`, every
// other byte erased: what a format followed by one write per partition
// leaves.
std::vector<uint8_t> FormattedDisk(size_t disk_size, const std::vector<DiskPartition>& table,
                                   const std::vector<std::string>& contents) {
  std::vector<uint8_t> disk(disk_size, kErased);
  for (size_t i = 0; i < table.size() && i < contents.size(); ++i) {
    std::copy(contents[i].begin(), contents[i].end(), disk.begin() + table[i].base);
  }
  return disk;
}

std::string OldDiskPartition(const flashsim::ChipState& state, const DiskPartition& row) {
  return std::string(state.image.begin() + row.base, state.image.begin() + row.base + row.size);
}

TEST_F(UpdaterRunTest, MSysUpdateRepartitionsTheDiskAndRewritesEveryPartition) {
  sandbox::PackageOptions package;
  package.rebalance = true;
  ASSERT_NE(Build(BoardScenario("msys", package)), nullptr);
  const RunResult result = RunUpdater();
  ASSERT_EQ(result.status, 0) << sandbox_test::Describe(result);
  ExpectProgress("R:0:");

  // The kernel needs one unit more; the library archive gives it, and the
  // partitions lie one after another again. Every partition is written: the
  // images from the package, the others from their backups.
  const std::vector<DiskPartition> old_table = DiskTable(before_);
  ASSERT_EQ(old_table.size(), 8u);
  std::vector<std::string> contents;
  for (const DiskPartition& row : old_table) contents.push_back(OldDiskPartition(before_, row));
  contents[1] = ImageBytes("zImage");
  contents[2] = ImageBytes("rd.bin");
  contents[3] = ImageBytes("AllLib.tgz");
  std::vector<DiskPartition> expected = old_table;
  expected[1].size += kDiskUnit;
  expected[3].size -= kDiskUnit;
  uint32_t base = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    expected[i].base = base;
    expected[i].data_length = contents[i].size();
    base += expected[i].size;
  }
  const flashsim::ChipState after = After();
  ExpectDiskTable(after, expected);
  EXPECT_TRUE(after.image == FormattedDisk(before_.image.size(), expected, contents))
      << "the disk does not hold the new partitions";

  std::string archive;
  ASSERT_TRUE(box_->ReadRootFile(sandbox::kNextBootArchive, &archive));
  EXPECT_EQ(archive, sandbox::SampleImageBytes("hda1.tgz", 4096));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  // This path never removes the backup: it stays beside the package.
  std::string backup;
  EXPECT_TRUE(box_->ReadRootFile(std::string(kBackupDir) + "/mtd_vendor", &backup));
  EXPECT_EQ(backup, contents[4]);
  ExpectServicesOnlyStopped(result);
  EXPECT_EQ(UpdateLog(), (std::vector<std::string>{kStartLine, kUpgradeLine, kDoneLine}));
  const std::vector<std::string> messages = UpdaterMessages(result);
  ExpectMessages(messages, {"user.err number of partitions = [8]",
                            "user.info UPDTMSysDoPatch(N): NEED RE-PARTITION!!",
                            "user.err UPDTMSysUpdate(N): Turn on the reinstall library flag...!!",
                            "user.err Congratulation!! The update has been completed!!"});
  ExpectNoMessageWith(messages, {"Failed to accomplish"});
}

TEST_F(UpdaterRunTest, MSysFailedWriteAfterRepartitionRollsBackWith20AndStillMovesTheArchive) {
  sandbox::PackageOptions package;
  package.rebalance = true;
  Scenario scenario = BoardScenario("msys", package);
  // The write of the settings partition, from its backup after the format,
  // fails once; the roll-back's own write of it succeeds.
  scenario.faults = {"fault write mtd5 nth=1 errno=EIO"};
  ASSERT_NE(Build(scenario), nullptr);
  const RunResult result = RunUpdater();
  ExpectFailure(result, 20, 'P');

  // The old table again, every partition written back whole from its backup
  // after a second format.
  const std::vector<DiskPartition> old_table = DiskTable(before_);
  std::vector<std::string> contents;
  std::vector<DiskPartition> expected = old_table;
  for (DiskPartition& row : expected) {
    contents.push_back(OldDiskPartition(before_, row));
    row.data_length = row.size;
  }
  const flashsim::ChipState after = After();
  ExpectDiskTable(after, expected);
  EXPECT_TRUE(after.image == FormattedDisk(before_.image.size(), old_table, contents))
      << "the old partitions are not back";

  // The archive moves even after a failed flash write.
  EXPECT_TRUE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_FALSE(RootFileExists(kPackageArchive));
  ExpectServicesStoppedThenStarted(result);
  const std::vector<std::string> messages = UpdaterMessages(result);
  ExpectMessages(messages, {"user.err UPDTMSysUpdate(N): fail to patch new binaries!!",
                            "user.err UPDTMSysUpdate(N): Turn on the reinstall library flag...!!"});
  EXPECT_FALSE(Contains(messages, "user.err UPDTMSysUpdate: UPDTRollBack() fail"))
      << Joined(messages);
  EXPECT_TRUE(Contains(UpdateLog(), kUpgradeLine));
}

}  // namespace
