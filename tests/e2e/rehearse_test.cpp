// The rehearsal command as a person runs it, one case per kind of use: a
// real package by path on a board imported from a flash dump, a campaign,
// and the command lines it refuses.
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/chip_outcome.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs `argv` (through the shell) with its output in files of `dir`.
Outcome RunProgram(const Lines& argv, const std::string& dir) {
  std::string command;
  for (const std::string& arg : argv) command += "'" + arg + "' ";
  const int status = system((command + "</dev/null >" + dir + "/out 2>" + dir + "/err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testing_support::ReadFile(dir + "/out"),
          testing_support::ReadFile(dir + "/err")};
}

bool HasLine(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

class RehearseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox::Tools tools;
    tools.flash_tool = FLASH_TOOL;
    tools.flashsim = FLASHSIM_DAEMON;
    const std::string reason = sandbox::Unavailable(tools, /*need_flash=*/true);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }

  // The rehearsal keeps its sandbox on purpose; the test removes it.
  void TearDown() override {
    struct stat st;
    std::string error;
    if (stat((work_.path() + "/sandbox/sandbox.conf").c_str(), &st) == 0) {
      EXPECT_TRUE(sandbox::DestroyDir(work_.path() + "/sandbox", &error)) << error;
    }
  }

  Outcome Rehearse(Lines args) {
    args.insert(args.begin(), REHEARSE_PROGRAM);
    args.insert(args.end(), {"--dir", work_.path() + "/sandbox"});
    Outcome outcome = RunProgram(args, work_.path());
    // A sanitizer build reports its findings on stderr.
    EXPECT_EQ(outcome.err.find("Sanitizer"), std::string::npos) << outcome.err;
    return outcome;
  }

  flashsim::ChipState Chip(const std::string& dir) {
    flashsim::ChipState chip;
    std::string error;
    EXPECT_TRUE(flashsim::LoadState(dir, &chip, &error)) << error;
    return chip;
  }

  testing_support::TempDir work_;
};

// A junior board dumped whole and imported, and a package of build 502 in a
// directory of its own: the images land where the FIS directory says, and
// neither the given board nor the package changes.
TEST_F(RehearseTest, PackageByPathOnImportedBoard) {
  const std::string w = work_.path();
  for (const Lines& args :
       {Lines{"create", w + "/made", SANDBOX_LAYOUT_DIR "/junior6.layout"},
        Lines{"dump", w + "/made", w + "/dump"},
        Lines{"import", w + "/board", w + "/dump/chip.img", "--base", "0xFFE00000"}}) {
    Lines argv = {FLASH_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    ASSERT_EQ(RunProgram(argv, w).status, 0) << args[0];
  }
  const flashsim::ChipState given = Chip(w + "/board");
  sandbox::PackageOptions package;
  package.build = "502";
  ASSERT_EQ(mkdir((w + "/package").c_str(), 0755), 0);
  for (const sandbox::RootFile& file :
       sandbox::SamplePackageFiles(given.layout, package, "veltara_powerpc_junior")) {
    testing_support::WriteFile(w + "/package" + file.path.substr(strlen(sandbox::kPackageDir)),
                               file.content);
  }

  const Outcome outcome = Rehearse({"--package", w + "/package", "--flash", w + "/board"});

  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_TRUE(HasLine(outcome.out, "result: 0 (upgrade_success)")) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out, "package: " + w + "/package")) << outcome.out;
  EXPECT_TRUE(HasLine(outcome.out, "flash: " + w + "/board")) << outcome.out;
  const flashsim::ChipState chip = Chip(w + "/sandbox/flash");
  bool terminated = false;
  Lines found;
  for (const campaign::BootEntry& entry : campaign::BootView(chip, &terminated)) {
    const std::string file = entry.name == "rd.gz" ? "rd.bin" : entry.name;
    const std::string bytes = testing_support::ReadFile(w + "/package/" + file);
    const size_t at = entry.base - chip.layout.chip_base;
    if (bytes == "<missing>") continue;
    found.push_back(file);
    EXPECT_EQ(entry.data_length, bytes.size()) << file;
    EXPECT_TRUE(std::string(chip.image.begin() + at, chip.image.begin() + at + bytes.size()) ==
                bytes)
        << file;
  }
  EXPECT_EQ(found, (Lines{"zImage", "rd.bin"}));
  EXPECT_TRUE(Chip(w + "/board").image == given.image);
  EXPECT_TRUE(testing_support::FileExists(w + "/package/hda1.tgz"));
}

// Every trial judged, the summary, the data and the report left in DIR.
TEST_F(RehearseTest, PowerCutCampaignJudgesEveryTrial) {
  const Outcome outcome =
      Rehearse({"--campaign", "power-cut", "--points", "2", "--board", "junior6"});
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_EQ(outcome.out.rfind("power-cut sweep on board junior6;", 0), 0u) << outcome.out;
  EXPECT_NE(outcome.out.find("; not judged 0\n"), std::string::npos) << outcome.out;
  EXPECT_NE(testing_support::ReadFile(work_.path() + "/sandbox/campaign.json")
                .find("\"campaign\": \"power-cut\""),
            std::string::npos);
  EXPECT_TRUE(testing_support::FileExists(work_.path() + "/sandbox/report.html"));
}

TEST(Rehearse, BadUsageExitsWith2AndPrintsTheUsage) {
  testing_support::TempDir work;
  for (const Lines& args : {Lines{"--bogus"}, Lines{"--board", "nand"}, Lines{"--board"},
                            Lines{"--dir"}, Lines{"--package", work.path()},
                            Lines{"--campaign", "storm"}, Lines{"--flash", work.path()}}) {
    Lines argv = {REHEARSE_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    const Outcome outcome = RunProgram(argv, work.path());
    EXPECT_EQ(outcome.status, 2) << args[0] << outcome.err;
    EXPECT_EQ(outcome.err.rfind("filebay-rehearse: ", 0), 0u) << outcome.err;
    EXPECT_TRUE(HasLine(outcome.err, "usage: filebay-rehearse [OPTIONS]")) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(RunProgram({REHEARSE_PROGRAM, "--help"}, work.path()).status, 0);
}

}  // namespace
