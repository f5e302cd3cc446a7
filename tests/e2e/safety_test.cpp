// Where the updater refuses or does more than its steps read plainly, end to
// end on the default board (nor8, the kernel one block too big): a program
// path or volume that does not fit, a roll-back that goes on past failures
// and restores only what the patch touched, and a stored MTU that comes back.
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sandbox_test_support.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "test_support.h"

namespace {

using sandbox::RunResult;
using sandbox::Scenario;
using Lines = std::vector<std::string>;

constexpr char kPackageDir[] = "/volume1/upd@te/";

class SafetyTest : public sandbox_test::SandboxFixture {
 protected:
  SafetyTest() : SandboxFixture("safety-test", Tools(), /*need_flash=*/true) {}

  static sandbox::Tools Tools() {
    sandbox::Tools tools;
    tools.flash_tool = FLASH_TOOL;
    tools.flashsim = FLASHSIM_DAEMON;
    return tools;
  }

  // The sample package in `dir` (ending in '/') and the updater at
  // `updater` (default: in `dir`) on nor8.
  static Scenario Nor8(const std::string& dir = kPackageDir, std::string updater = "") {
    Scenario scenario;
    std::string error;
    EXPECT_TRUE(sandbox::ApplyBoard("nor8", SANDBOX_LAYOUT_DIR, &scenario, &error)) << error;
    flashsim::ChipLayout layout;
    EXPECT_TRUE(sandbox::LoadLayoutFile(scenario.layout_file, &layout, &error)) << error;
    sandbox::PackageOptions package;
    package.rebalance = true;
    for (sandbox::RootFile file :
         sandbox::SamplePackageFiles(layout, package, "veltara_powerpc_1hd")) {
      file.path = dir + file.path.substr(sizeof(kPackageDir) - 1);
      scenario.files.push_back(file);
    }
    scenario.files.push_back({updater.empty() ? dir + "updater" : updater, "", UPDATER_SIM, 0755});
    return scenario;
  }

  // Builds the sandbox, runs argv in it and keeps the chip before and after.
  RunResult BuildAndRun(const Scenario& scenario, const Lines& argv) {
    if (Build(scenario) == nullptr) return RunResult();
    std::string error;
    EXPECT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &before_, &error)) << error;
    const RunResult result = box_->Run(argv);
    EXPECT_TRUE(result.ok && !result.timed_out) << sandbox_test::Describe(result);
    EXPECT_TRUE(flashsim::LoadState(box_->FlashStateDir(), &after_, &error)) << error;
    return result;
  }

  bool Logged(const RunResult& result, const std::string& message) {
    for (std::string line : sandbox_test::ProgramMessages(result, "updater")) {
      while (!line.empty() && line.back() == '\n') line.pop_back();
      if (line == message) return true;
    }
    return false;
  }

  void ExpectChipAsBefore() { EXPECT_TRUE(after_.image == before_.image) << "the chip changed"; }

  flashsim::ChipState before_;
  flashsim::ChipState after_;
};

TEST_F(SafetyTest, ProgramPathTooLongForTheWorkingDirectoryEndsWith3) {
  // Cut to 255 characters at its last '/', the path would name /volume1/pkg,
  // which holds a package too.
  const std::string dir = "/volume1/pkg/" + std::string(250, 'a') + "/";
  const RunResult result = BuildAndRun(Nor8("/volume1/pkg/", dir + "updater"), {dir + "updater"});
  EXPECT_EQ(result.status, 3) << sandbox_test::Describe(result);
  EXPECT_TRUE(Logged(result,
                     "user.err main(N): refuse program path of 271 characters: at most "
                     "255 fit"))
      << sandbox_test::Describe(result);
  EXPECT_EQ(RootFile("/tmp/update.progress").substr(0, 5), "A:-3:");
  ExpectChipAsBefore();
}

TEST_F(SafetyTest, VolumeTooLongIsRefusedLikeAMissingOne) {
  const RunResult result = BuildAndRun(
      Nor8(), {std::string(kPackageDir) + "updater", "-v", "/volume1/" + std::string(31, 'v')});
  EXPECT_EQ(result.status, 255) << sandbox_test::Describe(result);
  EXPECT_TRUE(Logged(result, "user.err updater: invalid option for -v [mount_point]"));
  ExpectChipAsBefore();
}

// One fault that fails the patch; the roll-back must bring back the whole
// chip, erasing nothing the patch did not touch.
struct RollBackRow {
  const char* fault;
  bool rollback_fails;  // a failure the roll-back meets itself and goes past
  bool flash_erased;    // the patch erased anything before it failed
};

class SafetyRollBackTest : public SafetyTest, public ::testing::WithParamInterface<RollBackRow> {};

TEST_P(SafetyRollBackTest, FailedPatchLeavesTheOldChip) {
  Scenario scenario = Nor8();
  scenario.faults = {GetParam().fault};
  const RunResult result = BuildAndRun(scenario, {std::string(kPackageDir) + "updater"});
  EXPECT_EQ(result.status, 20) << sandbox_test::Describe(result);
  EXPECT_EQ(Logged(result, "user.err main: UPDTRollBack() fail"), GetParam().rollback_fails)
      << sandbox_test::Describe(result);
  ExpectChipAsBefore();
  const std::string trace = testing_support::ReadFile(box_->FlashStateDir() + "/trace.log");
  EXPECT_EQ(trace.find("\nerase ") != std::string::npos, GetParam().flash_erased);
}

INSTANTIATE_TEST_SUITE_P(Faults, SafetyRollBackTest,
                         ::testing::Values(
                             // Every directory entry fails: the kernel and the root image block it
                             // grew into are restored all the same.
                             RollBackRow{"fault set-fis mtd7 every errno=EIO", true, true},
                             // The root image cannot be moved, nor moved back: its first block,
                             // erased by the grown kernel, still comes back.
                             RollBackRow{"fault set-extent mtd2 every errno=EIO", true, true},
                             // Nothing was erased before the patch failed: nothing to restore.
                             RollBackRow{"fault unlock mtd3 nth=1 errno=EIO", false, false}),
                         [](const ::testing::TestParamInfo<RollBackRow>& info) {
                           // "fault set-fis mtd7 every errno=EIO" -> "set_fis_mtd7_every"
                           std::string name = std::string(info.param.fault).substr(6);
                           name = name.substr(0, name.find(" errno"));
                           for (char& c : name) {
                             if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

TEST_F(SafetyTest, StoredMtuComesBackWhenTheLinkCouldNotBeSet) {
  // Without "eth0" the MTU call fails but still stores 1500.
  Scenario scenario = Nor8();
  sandbox::SetKeyValue(&scenario.default_settings, "supportMTU", "yes");
  sandbox::SetKeyValue(&scenario.settings, "MTUValue", "9000");
  const RunResult result = BuildAndRun(scenario, {std::string(kPackageDir) + "updater"});
  EXPECT_EQ(result.status, 0) << sandbox_test::Describe(result);
  const std::string settings = RootFile("/etc/veltinfo.conf");
  EXPECT_NE(settings.find("MTUValue=\"9000\"\n"), std::string::npos) << settings;
}

}  // namespace
