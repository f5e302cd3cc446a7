// The rehearsal command as a person runs it: filebay-rehearse builds a
// sandbox in the directory it is given, runs the simulator build of the
// updater there and prints a report. Each test runs the real program and
// checks what its user reads (exit status, result line, progress lines, the
// flash partitioning before and after, the update log) against the chip the
// rehearsal left in DIR/flash and against a fresh chip made from the same
// board layout.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "test_support.h"

namespace {

constexpr char kResultSuccess[] = "result: 0 (upgrade_success)";
constexpr char kResultFlashFailed[] = "result: 20 (error_update_unknown)";
constexpr char kDoneText[] = "Congratulation!! The update has been completed!!";
constexpr char kFailedText[] = "Failed to accomplish the update! (errno = 20)";
constexpr char kUsageLine[] = "usage: filebay-rehearse [OPTIONS]";
constexpr char kPackageDir[] = "/volume1/upd@te";
constexpr uint32_t kMSysUnit = 16384;

// A write on the kernel partition that fails in each of the three attempts
// of the rewrite, while the roll-back's writes (the fourth and later) pass.
const std::vector<std::string> kKernelWriteFailsThreeTimes = {
    "--fault", "fault write mtd1 nth=1 errno=EIO", "--fault", "fault write mtd1 nth=2 errno=EIO",
    "--fault", "fault write mtd1 nth=3 errno=EIO"};

struct Outcome {
  int status = -1;  // exit status; -1 when the program did not exit normally
  std::string out;
  std::string err;
};

using sandbox_test::SplitLines;

bool HasLine(const std::string& text, const std::string& wanted) {
  for (const std::string& line : SplitLines(text)) {
    if (line == wanted) return true;
  }
  return false;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Runs `argv` with stdout and stderr in files of `dir`.
Outcome RunProgram(const std::vector<std::string>& argv, const std::string& dir) {
  const std::string out_path = dir + "/stdout";
  const std::string err_path = dir + "/stderr";
  Outcome outcome;
  const pid_t pid = fork();
  if (pid < 0) return outcome;
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  outcome.out = testing_support::ReadFile(out_path);
  outcome.err = testing_support::ReadFile(err_path);
  return outcome;
}

// The lines of the report that follow the line `heading` and are indented
// by two blanks.
std::vector<std::string> Section(const std::string& report, const std::string& heading) {
  std::vector<std::string> section;
  bool inside = false;
  for (const std::string& line : SplitLines(report)) {
    if (!inside) {
      inside = line == heading;
      continue;
    }
    if (!StartsWith(line, "  ")) break;
    section.push_back(line);
  }
  return section;
}

// The update log as the report shows it: the lines after its heading up to
// the blank line, each without its time stamp.
std::vector<std::string> ShownUpdateLog(const std::string& report) {
  std::vector<std::string> log;
  bool inside = false;
  for (const std::string& line : SplitLines(report)) {
    if (!inside) {
      inside = line == "update log (/var/log/veltupdate.log):";
      continue;
    }
    if (line.empty()) break;
    const size_t tab = line.find('\t');
    log.push_back(tab == std::string::npos ? line : line.substr(tab + 1));
  }
  return log;
}

// The progress records shown, "A:0" .. "R:0", from the bar lines that end
// with one.
std::vector<std::string> ShownProgress(const std::string& report) {
  std::vector<std::string> records;
  for (const std::string& line : SplitLines(report)) {
    if (!StartsWith(line, "[")) continue;
    records.push_back(line.substr(line.rfind(' ') + 1));
  }
  return records;
}

// ---- partitioning as printed and as on the chip ----

struct Extent {
  int index = -1;  // position on the flash disk; -1 for FIS records
  std::string name;
  uint32_t start = 0;
  uint32_t size = 0;
  uint32_t data_length = 0;
};

bool operator==(const Extent& a, const Extent& b) {
  return a.index == b.index && a.name == b.name && a.start == b.start && a.size == b.size &&
         a.data_length == b.data_length;
}

std::ostream& operator<<(std::ostream& out, const Extent& extent) {
  char text[128];
  snprintf(text, sizeof(text), "{%d \"%s\" 0x%08X 0x%08X 0x%08X}", extent.index,
           extent.name.c_str(), extent.start, extent.size, extent.data_length);
  return out << text;
}

std::string TrimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// Rows "  NAME(16)  0xBASE  0xSIZE  0xDATA" under the header row.
std::vector<Extent> ParseFisListing(const std::vector<std::string>& rows) {
  std::vector<Extent> extents;
  for (size_t i = 1; i < rows.size(); ++i) {
    Extent extent;
    if (rows[i].size() < 18 || sscanf(rows[i].c_str() + 18, " 0x%X 0x%X 0x%X", &extent.start,
                                      &extent.size, &extent.data_length) != 3) {
      ADD_FAILURE() << "not a FIS row: [" << rows[i] << "]";
      continue;
    }
    extent.name = TrimRight(rows[i].substr(2, 16));
    extents.push_back(extent);
  }
  return extents;
}

// Rows "  I  NAME(16)  0xSTART  0xSIZE  0xDATA  UNITS" under the header row;
// the units must agree with the size.
std::vector<Extent> ParseDiskTable(const std::vector<std::string>& rows) {
  std::vector<Extent> extents;
  for (size_t i = 1; i < rows.size(); ++i) {
    Extent extent;
    unsigned units = 0;
    if (rows[i].size() < 21 || sscanf(rows[i].c_str(), " %d", &extent.index) != 1 ||
        sscanf(rows[i].c_str() + 21, " 0x%X 0x%X 0x%X %u", &extent.start, &extent.size,
               &extent.data_length, &units) != 4) {
      ADD_FAILURE() << "not a partition table row: [" << rows[i] << "]";
      continue;
    }
    extent.name = TrimRight(rows[i].substr(5, 16));
    EXPECT_EQ(units, extent.size / kMSysUnit) << rows[i];
    extents.push_back(extent);
  }
  return extents;
}

flashsim::ChipState LoadChip(const std::string& dir) {
  flashsim::ChipState state;
  std::string error;
  EXPECT_TRUE(flashsim::LoadState(dir, &state, &error)) << error;
  return state;
}

std::vector<Extent> ChipFisDirectory(const flashsim::ChipState& state) {
  const flashsim::PartitionLayout* directory = state.layout.Find(state.layout.fis_device);
  if (directory == nullptr) {
    ADD_FAILURE() << "the chip has no FIS directory";
    return {};
  }
  const uint32_t offset = directory->base - state.layout.chip_base;
  const std::vector<uint8_t> bytes(state.image.begin() + offset,
                                   state.image.begin() + offset + directory->size);
  bool terminated = false;
  std::vector<Extent> extents;
  for (const flashsim::FisRecord& record : flashsim::DecodeFisDirectory(bytes, &terminated)) {
    extents.push_back({-1, record.name, record.flash_base, record.size, record.data_length});
  }
  EXPECT_TRUE(terminated) << "the FIS directory does not end with an erased record";
  return extents;
}

std::vector<Extent> ChipDiskTable(const flashsim::ChipState& state) {
  std::vector<Extent> extents;
  for (const flashsim::PartitionLayout& partition : state.layout.partitions) {
    extents.push_back(
        {partition.index, partition.name, partition.base, partition.size, partition.data_length});
  }
  return extents;
}

// `length` bytes of the chip from the absolute flash address `start`.
std::string ChipBytes(const flashsim::ChipState& state, uint32_t start, uint32_t length) {
  const uint32_t offset = start - state.layout.chip_base;
  if (static_cast<uint64_t>(offset) + length > state.image.size()) {
    ADD_FAILURE() << "range outside the chip";
    return "";
  }
  return std::string(state.image.begin() + offset, state.image.begin() + offset + length);
}

// Equal byte strings, or where the first difference is (images are too
// large for a printed comparison).
::testing::AssertionResult SameBytes(const std::string& actual, const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << "lengths " << actual.size() << " and " << expected.size()
                                       << ", first difference at offset " << at;
}

bool UnderTmp(const char* path) { return StartsWith(path, "/tmp/"); }

// Where the tests build their sandboxes: a private /tmp of this process when
// it can have one (as root, and the programs do not live under /tmp), which
// keeps the host's /tmp clean and makes the simulator's many small state
// rewrites cheap; otherwise $TMPDIR or /tmp.
std::string WorkBase() {
  static const std::string base = [] {
    if (geteuid() == 0 && !UnderTmp(REHEARSE_PROGRAM) && !UnderTmp(FLASH_TOOL) &&
        !UnderTmp(FLASHSIM_DAEMON) && !UnderTmp(UPDATER_SIM) && !UnderTmp(SANDBOX_LAYOUT_DIR) &&
        testing_support::EnterPrivateTmp().empty()) {
      return std::string("/tmp");
    }
    const char* tmpdir = getenv("TMPDIR");
    return std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp");
  }();
  return base;
}

class RehearseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox::Tools tools;
    tools.flash_tool = FLASH_TOOL;
    tools.flashsim = FLASHSIM_DAEMON;
    std::string pattern = WorkBase() + "/rehearse-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr) << strerror(errno);
    work_ = pattern;
    const std::string reason = sandbox::Unavailable(tools, /*need_flash=*/true);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }

  // The rehearsal keeps its sandbox on purpose; the test removes it, and its
  // own files only when the sandbox went away cleanly.
  void TearDown() override {
    if (work_.empty()) return;
    struct stat st;
    if (stat(SandboxDir().c_str(), &st) == 0) {
      std::string error;
      if (!sandbox::DestroyDir(SandboxDir(), &error)) {
        ADD_FAILURE() << error;
        return;
      }
    }
    std::error_code ignored;
    std::filesystem::remove_all(work_, ignored);
  }

  std::string SandboxDir() const { return work_ + "/sandbox"; }
  std::string ChipDir() const { return SandboxDir() + "/flash"; }
  std::string RootPath(const std::string& path) const { return SandboxDir() + "/root" + path; }

  Outcome Rehearse(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {REHEARSE_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back("--dir");
    argv.push_back(SandboxDir());
    Outcome outcome = RunProgram(argv, work_);
    // A sanitizer build of the rehearsal or of the updater reports its
    // findings on stderr (the updater's appear in the report).
    for (const std::string* text : {&outcome.out, &outcome.err}) {
      EXPECT_EQ(text->find("Sanitizer"), std::string::npos) << *text;
      EXPECT_EQ(text->find("runtime error:"), std::string::npos) << *text;
    }
    return outcome;
  }

  // The chip that `board` starts with, made from its layout by filebay-flash.
  flashsim::ChipState FreshChip(const std::string& board) {
    const std::string dir = work_ + "/fresh-" + board;
    const Outcome made = RunProgram(
        {FLASH_TOOL, "create", dir, std::string(SANDBOX_LAYOUT_DIR) + "/" + board + ".layout"},
        work_);
    EXPECT_EQ(made.status, 0) << made.out << made.err;
    return LoadChip(dir);
  }

  // The size of a package file as the rehearsal placed it in the sandbox.
  uint32_t PackageFileSize(const std::string& file) {
    struct stat st;
    EXPECT_EQ(stat(RootPath(std::string(kPackageDir) + "/" + file).c_str(), &st), 0) << file;
    return static_cast<uint32_t>(st.st_size);
  }

  std::string PackageFile(const std::string& file) {
    return testing_support::ReadFile(RootPath(std::string(kPackageDir) + "/" + file));
  }

  // The report shows the update log as the run left it, ending with `last`.
  void ExpectUpdateLogEndsWith(const Outcome& outcome, const std::string& last) {
    const std::vector<std::string> shown = ShownUpdateLog(outcome.out);
    ASSERT_FALSE(shown.empty()) << outcome.out;
    EXPECT_EQ(shown.back(), last) << outcome.out;
    const std::vector<std::string> file =
        SplitLines(testing_support::ReadFile(RootPath("/var/log/veltupdate.log")));
    ASSERT_EQ(file.size(), shown.size()) << outcome.out;
    for (size_t i = 0; i < file.size(); ++i) {
      EXPECT_EQ(file[i].substr(file[i].find('\t') + 1), shown[i]);
    }
  }

  bool RootFileExists(const std::string& path) {
    struct stat st;
    return lstat(RootPath(path).c_str(), &st) == 0;
  }

  std::string work_;
};

// The progress lines, one per record seen, go through the stages A, P, C, R
// in that order and never back; each stage of `required` shows up, and the
// last line is `last`. The rehearsal watches a file that the run rewrites,
// so a record that lasts only a moment (the configuration stage usually
// takes a few milliseconds) may pass unseen on a busy machine.
void ExpectProgressThroughStages(const std::string& report, const std::string& required,
                                 const std::string& last) {
  static const std::string kStages = "APCR";
  const std::vector<std::string> records = ShownProgress(report);
  ASSERT_FALSE(records.empty()) << report;
  std::string seen;
  for (const std::string& record : records) {
    ASSERT_GE(record.size(), 3u) << record;
    EXPECT_EQ(record[1], ':') << record;
    const size_t stage = kStages.find(record[0]);
    ASSERT_NE(stage, std::string::npos) << record;
    if (!seen.empty()) {
      EXPECT_GE(stage, kStages.find(seen.back())) << "went back at " << record << "\n" << report;
    }
    if (seen.empty() || seen.back() != record[0]) seen += record[0];
  }
  for (char stage : required) {
    EXPECT_NE(seen.find(stage), std::string::npos) << stage << " not seen\n" << report;
  }
  EXPECT_EQ(records.back(), last) << report;
}

// ---- successful rehearsals ----

TEST_F(RehearseTest, DefaultRehearsalRebalancesNor8AndMovesTheArchive) {
  const Outcome outcome = Rehearse({});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  EXPECT_TRUE(
      HasLine(outcome.out, "rehearsing on board nor8 (the plan must rebalance) in " + SandboxDir()))
      << outcome.out;
  ExpectProgressThroughStages(outcome.out, "APR", "R:0");
  ExpectUpdateLogEndsWith(outcome, kDoneText);

  const std::vector<Extent> before = ParseFisListing(Section(outcome.out, "FIS directory before:"));
  const std::vector<Extent> after = ParseFisListing(Section(outcome.out, "FIS directory after:"));
  EXPECT_EQ(before, ChipFisDirectory(FreshChip("nor8")));
  ASSERT_EQ(before.size(), 8u) << outcome.out;

  // The kernel took one erase block from the library archive; the root
  // image and the archive moved up by it.
  const uint32_t block = 0x10000;
  std::vector<Extent> expected = before;
  expected[1].size += block;
  expected[1].data_length = PackageFileSize("zImage");
  expected[2].start += block;
  expected[2].data_length = PackageFileSize("rd.bin");
  expected[3].start += block;
  expected[3].size -= block;
  expected[3].data_length = PackageFileSize("AllLib.tgz");
  EXPECT_EQ(after, expected) << outcome.out;

  const flashsim::ChipState chip = LoadChip(ChipDir());
  EXPECT_EQ(after, ChipFisDirectory(chip));
  EXPECT_TRUE(SameBytes(ChipBytes(chip, expected[1].start, expected[1].data_length),
                        PackageFile("zImage")));
  EXPECT_TRUE(SameBytes(ChipBytes(chip, expected[3].start, expected[3].data_length),
                        PackageFile("AllLib.tgz")));

  EXPECT_TRUE(HasLine(outcome.out, "hda1.tgz moved to the volume: yes")) << outcome.out;
  EXPECT_EQ(testing_support::ReadFile(RootPath(sandbox::kNextBootArchive)),
            sandbox::SampleImageBytes("hda1.tgz", 4096));
}

TEST_F(RehearseTest, Junior6RehearsalUpdatesInPlace) {
  const Outcome outcome = Rehearse({"--board", "junior6"});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  ExpectUpdateLogEndsWith(outcome, kDoneText);
  const std::vector<Extent> before = ParseFisListing(Section(outcome.out, "FIS directory before:"));
  const std::vector<Extent> after = ParseFisListing(Section(outcome.out, "FIS directory after:"));
  EXPECT_EQ(before, ChipFisDirectory(FreshChip("junior6")));
  EXPECT_EQ(after, ChipFisDirectory(LoadChip(ChipDir())));
  ASSERT_EQ(after.size(), 6u) << outcome.out;
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_EQ(after[i].start, before[i].start) << after[i];
    EXPECT_EQ(after[i].size, before[i].size) << after[i];
  }
  EXPECT_EQ(after[1].data_length, PackageFileSize("zImage"));
  EXPECT_EQ(after[2].data_length, PackageFileSize("rd.bin"));
}

// A junior board dumped whole and imported, and a package of build 502 in a
// directory of its own: the images land where the directory says, and
// neither the given board nor the package changes.
TEST_F(RehearseTest, PackageByPathOnImportedBoard) {
  const std::string board = work_ + "/board";
  const std::string package_dir = work_ + "/package";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"create", work_ + "/made", SANDBOX_LAYOUT_DIR "/junior6.layout"},
        {"dump", work_ + "/made", work_ + "/dump"},
        {"import", board, work_ + "/dump/chip.img", "--base", "0xFFE00000"}}) {
    std::vector<std::string> argv = {FLASH_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    ASSERT_EQ(RunProgram(argv, work_).status, 0) << args[0];
  }
  const flashsim::ChipState given = LoadChip(board);
  sandbox::PackageOptions package;
  package.build = "502";
  ASSERT_EQ(mkdir(package_dir.c_str(), 0755), 0);
  for (const sandbox::RootFile& file :
       sandbox::SamplePackageFiles(given.layout, package, "veltara_powerpc_junior")) {
    testing_support::WriteFile(package_dir + file.path.substr(strlen(kPackageDir)), file.content);
  }
  const Outcome outcome = Rehearse({"--package", package_dir, "--flash", board});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out, "package: " + package_dir)) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out, "flash: " + board)) << outcome.out;
  const flashsim::ChipState chip = LoadChip(ChipDir());
  const std::vector<Extent> after = ChipFisDirectory(chip);
  ASSERT_EQ(after.size(), 6u);
  for (const auto& [index, file] : {std::pair<int, const char*>{1, "zImage"}, {2, "rd.bin"}}) {
    EXPECT_TRUE(SameBytes(ChipBytes(chip, after[index].start, after[index].data_length),
                          testing_support::ReadFile(package_dir + "/" + file)));
  }
  // The boot loader is the given board's, untouched.
  EXPECT_TRUE(
      SameBytes(ChipBytes(chip, 0xFFF00000, 0x40000), ChipBytes(given, 0xFFF00000, 0x40000)));
  EXPECT_TRUE(LoadChip(board).image == given.image);
  EXPECT_TRUE(testing_support::FileExists(package_dir + "/hda1.tgz"));
}

TEST_F(RehearseTest, GroupRehearsalSucceeds) {
  const Outcome outcome = Rehearse({"--group"});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out,
                      "rehearsing on board nor8 (the plan must rebalance), group "
                      "update in " +
                          SandboxDir()))
      << outcome.out;
  ExpectUpdateLogEndsWith(outcome, kDoneText);
  EXPECT_EQ(ParseFisListing(Section(outcome.out, "FIS directory after:")),
            ChipFisDirectory(LoadChip(ChipDir())));
}

// ---- the M-Systems flash disk ----

TEST_F(RehearseTest, MsysRehearsalRepartitionsTheDiskAndRewritesEveryPartition) {
  const Outcome outcome = Rehearse({"--board", "msys"});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  ExpectProgressThroughStages(outcome.out, "APR", "R:0");
  ExpectUpdateLogEndsWith(outcome, kDoneText);
  EXPECT_EQ(outcome.out.find("FIS directory"), std::string::npos) << outcome.out;

  const std::vector<Extent> before =
      ParseDiskTable(Section(outcome.out, "flash disk partition table before:"));
  const std::vector<Extent> after =
      ParseDiskTable(Section(outcome.out, "flash disk partition table after:"));
  const flashsim::ChipState fresh = FreshChip("msys");
  EXPECT_EQ(before, ChipDiskTable(fresh));
  ASSERT_EQ(before.size(), 8u) << outcome.out;
  ASSERT_EQ(after.size(), 8u) << outcome.out;
  const flashsim::ChipState chip = LoadChip(ChipDir());
  EXPECT_EQ(after, ChipDiskTable(chip));

  // The kernel partition grew by one unit taken from the library archive;
  // the partitions between them moved up by it, the others stayed.
  for (size_t i = 0; i < after.size(); ++i) {
    SCOPED_TRACE(after[i].name);
    EXPECT_EQ(after[i].name, before[i].name);
    EXPECT_EQ(after[i].start, before[i].start + (i == 2 || i == 3 ? kMSysUnit : 0));
    EXPECT_EQ(after[i].size, before[i].size + (i == 1 ? kMSysUnit : 0) - (i == 3 ? kMSysUnit : 0));
  }
  // The new images are on the disk; every other partition was written back
  // from its backup after the format.
  const std::pair<int, const char*> kImages[] = {{1, "zImage"}, {2, "rd.bin"}, {3, "AllLib.tgz"}};
  for (const auto& [index, file] : kImages) {
    EXPECT_EQ(after[index].data_length, PackageFileSize(file)) << file;
    EXPECT_TRUE(
        SameBytes(ChipBytes(chip, after[index].start, PackageFileSize(file)), PackageFile(file)))
        << file;
  }
  for (int index : {0, 4, 5, 6, 7}) {
    EXPECT_TRUE(SameBytes(ChipBytes(chip, after[index].start, after[index].size),
                          ChipBytes(fresh, before[index].start, before[index].size)))
        << after[index].name;
  }
  EXPECT_TRUE(HasLine(outcome.out, "hda1.tgz moved to the volume: yes")) << outcome.out;
}

TEST_F(RehearseTest, MsysRehearsalWithoutRebalanceKeepsTheTableAndTheOtherPartitions) {
  const Outcome outcome = Rehearse({"--board", "msys", "--no-rebalance"});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultSuccess)) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out, "rehearsing on board msys in " + SandboxDir())) << outcome.out;
  ExpectUpdateLogEndsWith(outcome, kDoneText);
  const std::vector<Extent> before =
      ParseDiskTable(Section(outcome.out, "flash disk partition table before:"));
  const std::vector<Extent> after =
      ParseDiskTable(Section(outcome.out, "flash disk partition table after:"));
  const flashsim::ChipState fresh = FreshChip("msys");
  const flashsim::ChipState chip = LoadChip(ChipDir());
  EXPECT_EQ(after, ChipDiskTable(chip));
  ASSERT_EQ(before.size(), 8u) << outcome.out;
  ASSERT_EQ(after.size(), 8u) << outcome.out;
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_EQ(after[i].name, before[i].name);
    EXPECT_EQ(after[i].start, before[i].start) << after[i].name;
    EXPECT_EQ(after[i].size, before[i].size) << after[i].name;
  }
  EXPECT_TRUE(
      SameBytes(ChipBytes(chip, after[1].start, PackageFileSize("zImage")), PackageFile("zImage")));
  // Partitions without a new image are neither formatted nor written.
  for (int index : {0, 4, 5, 6, 7}) {
    EXPECT_EQ(after[index], before[index]);
    EXPECT_TRUE(SameBytes(ChipBytes(chip, after[index].start, after[index].size),
                          ChipBytes(fresh, before[index].start, before[index].size)))
        << after[index].name;
  }
  for (const std::string& line : SplitLines(testing_support::ReadFile(ChipDir() + "/trace.log"))) {
    EXPECT_FALSE(StartsWith(line, "format ")) << line;
    EXPECT_FALSE(StartsWith(line, "partition ")) << line;
    for (const char* untouched :
         {"write mtd0 ", "write mtd4 ", "write mtd5 ", "write mtd6 ", "write mtd7 "}) {
      EXPECT_FALSE(StartsWith(line, untouched)) << line;
    }
  }
}

// ---- failures and roll-back ----

TEST_F(RehearseTest, FailedRewriteOnNor8RollsTheChipBackByteForByte) {
  const Outcome outcome = Rehearse(kKernelWriteFailsThreeTimes);
  EXPECT_NE(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultFlashFailed)) << outcome.out;
  ExpectProgressThroughStages(outcome.out, "AP", "P:-20");
  ExpectUpdateLogEndsWith(outcome, kFailedText);

  const flashsim::ChipState fresh = FreshChip("nor8");
  const flashsim::ChipState chip = LoadChip(ChipDir());
  EXPECT_TRUE(chip.image == fresh.image) << "the chip was not rolled back";
  EXPECT_EQ(flashsim::FormatLayout(chip.layout), flashsim::FormatLayout(fresh.layout));
  const std::vector<Extent> before = ParseFisListing(Section(outcome.out, "FIS directory before:"));
  EXPECT_EQ(before.size(), 8u) << outcome.out;
  EXPECT_EQ(ParseFisListing(Section(outcome.out, "FIS directory after:")), before);

  EXPECT_TRUE(HasLine(outcome.out, "hda1.tgz moved to the volume: no")) << outcome.out;
  EXPECT_FALSE(RootFileExists(sandbox::kNextBootArchive));
  EXPECT_TRUE(RootFileExists(std::string(kPackageDir) + "/hda1.tgz"));
}

TEST_F(RehearseTest, FailedWriteOnMsysRestoresTheOldTableAndContents) {
  const Outcome outcome =
      Rehearse({"--board", "msys", "--fault", "fault write mtd2 nth=1 errno=EIO"});
  EXPECT_NE(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, kResultFlashFailed)) << outcome.out;
  ExpectProgressThroughStages(outcome.out, "AP", "P:-20");
  ExpectUpdateLogEndsWith(outcome, kFailedText);

  // The disk was formatted again with the old sizes and every partition
  // written back from its backup.
  const flashsim::ChipState fresh = FreshChip("msys");
  const flashsim::ChipState chip = LoadChip(ChipDir());
  EXPECT_TRUE(chip.image == fresh.image) << "the disk was not rolled back";
  const std::vector<Extent> after =
      ParseDiskTable(Section(outcome.out, "flash disk partition table after:"));
  EXPECT_EQ(after, ChipDiskTable(chip));
  const std::vector<Extent> old = ChipDiskTable(fresh);
  ASSERT_EQ(after.size(), old.size()) << outcome.out;
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_EQ(after[i].name, old[i].name);
    EXPECT_EQ(after[i].start, old[i].start) << after[i].name;
    EXPECT_EQ(after[i].size, old[i].size) << after[i].name;
  }
  // The flash disk path hands the archive to the next boot whatever became
  // of the flash.
  EXPECT_TRUE(HasLine(outcome.out, "hda1.tgz moved to the volume: yes")) << outcome.out;
}

// ---- the command line ----

TEST(Rehearse, BadUsageExitsWith2AndPrintsTheUsage) {
  testing_support::TempDir work;
  const std::vector<std::vector<std::string>> kBadLines = {
      {"--bogus"}, {"--board", "nand"}, {"--board"}, {"--dir"}, {"--package", work.path()}};
  for (const std::vector<std::string>& args : kBadLines) {
    SCOPED_TRACE(args.front() + (args.size() > 1 ? " " + args[1] : ""));
    std::vector<std::string> argv = {REHEARSE_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    const Outcome outcome = RunProgram(argv, work.path());
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    EXPECT_TRUE(StartsWith(outcome.err, "filebay-rehearse: ")) << outcome.err;
    EXPECT_TRUE(HasLine(outcome.err, kUsageLine)) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

TEST(Rehearse, HelpPrintsTheUsageAndExitsWith0) {
  testing_support::TempDir work;
  const Outcome outcome = RunProgram({REHEARSE_PROGRAM, "--help"}, work.path());
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(StartsWith(outcome.out, kUsageLine)) << outcome.out;
  EXPECT_NE(outcome.out.find("--board NAME"), std::string::npos) << outcome.out;
  EXPECT_EQ(outcome.err, "");
}

}  // namespace
