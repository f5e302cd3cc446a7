// The rehearsal command as a person runs it, one case per kind of use: a
// real package by path on a board imported from a flash dump, a campaign,
// and the command lines it refuses.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sim/flash_state.h"
#include "sim/sandbox.h"
#include "sim/update_scenario.h"
#include "sim_test_programs.h"
#include "test_support.h"

namespace {

using Lines = std::vector<std::string>;

class RehearseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = sandbox::Unavailable({FLASH_TOOL, FLASHSIM_DAEMON, ""}, true);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }

  // The rehearsal keeps its sandbox on purpose; the test removes it.
  void TearDown() override {
    std::string error;
    if (testing_support::FileExists(w_ + "/sandbox/sandbox.conf")) {
      EXPECT_TRUE(sandbox::DestroyDir(w_ + "/sandbox", &error)) << error;
    }
  }

  // The exit status; what the program printed in `output_`.
  int Run(Lines args) {
    remove((w_ + "/output").c_str());
    const int status = sim_test::RunProgram(args, w_ + "/output");
    output_ = testing_support::ReadFile(w_ + "/output");
    // A sanitizer build reports its findings on stderr.
    EXPECT_EQ(output_.find("Sanitizer"), std::string::npos) << output_;
    return status;
  }
  int Rehearse(Lines args) {
    args.insert(args.begin(), REHEARSE_PROGRAM);
    args.insert(args.end(), {"--dir", w_ + "/sandbox"});
    return Run(args);
  }

  testing_support::TempDir work_;
  const std::string w_ = work_.path();
  std::string output_;
};

// A junior board dumped whole and imported, and a package of build 502 in a
// directory of its own: the update succeeds on a copy of the board, and
// neither the given board nor the package changes.
TEST_F(RehearseTest, PackageByPathOnImportedBoard) {
  ASSERT_EQ(Run({FLASH_TOOL, "create", w_ + "/made", SANDBOX_LAYOUT_DIR "/junior6.layout"}), 0);
  ASSERT_EQ(Run({FLASH_TOOL, "dump", w_ + "/made", w_ + "/dump"}), 0);
  ASSERT_EQ(
      Run({FLASH_TOOL, "import", w_ + "/board", w_ + "/dump/chip.img", "--base", "0xFFE00000"}), 0);
  flashsim::ChipState given, chip, board_after;
  std::string error;
  ASSERT_TRUE(flashsim::LoadState(w_ + "/board", &given, &error)) << error;
  sandbox::PackageOptions package;
  package.build = "502";
  ASSERT_EQ(mkdir((w_ + "/package").c_str(), 0755), 0);
  for (const sandbox::RootFile& file :
       sandbox::SamplePackageFiles(given.layout, package, "veltara_powerpc_junior")) {
    testing_support::WriteFile(w_ + "/package" + file.path.substr(strlen(sandbox::kPackageDir)),
                               file.content);
  }

  ASSERT_EQ(Rehearse({"--package", w_ + "/package", "--flash", w_ + "/board"}), 0) << output_;

  for (const std::string& line : Lines{"result: 0 (upgrade_success)", "package: " + w_ + "/package",
                                       "flash: " + w_ + "/board"}) {
    EXPECT_NE(output_.find("\n" + line + "\n"), std::string::npos) << line << "\n" << output_;
  }
  // The images are on the sandbox's chip, not on the given one.
  ASSERT_TRUE(flashsim::LoadState(w_ + "/sandbox/flash", &chip, &error)) << error;
  const std::string kernel = testing_support::ReadFile(w_ + "/package/zImage");
  EXPECT_NE(std::search(chip.image.begin(), chip.image.end(), kernel.begin(), kernel.end()),
            chip.image.end());
  ASSERT_TRUE(flashsim::LoadState(w_ + "/board", &board_after, &error)) << error;
  EXPECT_TRUE(board_after.image == given.image);
  EXPECT_TRUE(testing_support::FileExists(w_ + "/package/hda1.tgz"));
}

// Every trial judged, the summary, the data and the report left in DIR.
TEST_F(RehearseTest, PowerCutCampaignJudgesEveryTrial) {
  ASSERT_EQ(Rehearse({"--campaign", "power-cut", "--points", "2", "--board", "junior6"}), 0)
      << output_;
  EXPECT_EQ(output_.rfind("power-cut sweep on board junior6;", 0), 0u) << output_;
  EXPECT_NE(output_.find("; not judged 0\n"), std::string::npos) << output_;
  EXPECT_NE(
      testing_support::ReadFile(w_ + "/sandbox/campaign.json").find("\"campaign\": \"power-cut\""),
      std::string::npos);
  EXPECT_TRUE(testing_support::FileExists(w_ + "/sandbox/report.html"));
}

TEST_F(RehearseTest, BadUsageExitsWith2AndPrintsTheUsage) {
  for (const Lines& args :
       {Lines{"--bogus"}, Lines{"--board", "nand"}, Lines{"--board"}, Lines{"--dir"},
        Lines{"--package", w_}, Lines{"--campaign", "storm"}, Lines{"--flash", w_}}) {
    Lines argv = {REHEARSE_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    EXPECT_EQ(Run(argv), 2) << args[0] << output_;
    EXPECT_EQ(output_.rfind("filebay-rehearse: ", 0), 0u) << output_;
    EXPECT_NE(output_.find("\nusage: filebay-rehearse [OPTIONS]\n"), std::string::npos) << output_;
  }
  EXPECT_EQ(Run({REHEARSE_PROGRAM, "--help"}), 0);
}

}  // namespace
