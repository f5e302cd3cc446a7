// Rehearsal campaigns: how a chip is judged against the chip before the
// update and the chip after a clean run, and one short campaign of real
// rehearsals on the junior board.
#include "sim/campaign.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "sandbox_test_support.h"
#include "sim/campaign_report.h"
#include "sim/update_scenario.h"

namespace {

using flashsim::ChipState;

constexpr uint32_t kBlock = 0x1000;

struct Image {
  const char* name;
  uint32_t base, size, data_length;
  char fill;
};

// A NOR chip of eight 4 KiB blocks from address 0 with a kernel partition
// mtd1, its FIS directory in the last block with one record per image (in
// the order given); each image's data are written in that order too.
ChipState MakeChip(const std::vector<Image>& images) {
  ChipState chip;
  std::string error;
  EXPECT_TRUE(
      flashsim::ParseLayout("kind nor\nchip-base 0\nchip-size 0x8000\nerase-size 0x1000\n"
                            "partition 1 kernel 0 0x2000\n"
                            "partition 7 \"FIS Directory\" 0x7000 0x1000\n",
                            &chip.layout, &error))
      << error;
  chip.image.assign(chip.layout.chip_size, 0xFF);
  uint8_t* record = chip.image.data() + 7 * kBlock;
  for (const Image& image : images) {
    std::fill_n(chip.image.begin() + image.base, image.data_length, image.fill);
    flashsim::EncodeFisRecord({image.name, image.base, 0, image.size, 0, image.data_length},
                              record);
    record += flashsim::kFisRecordSize;
  }
  return chip;
}

// The update grows the kernel by a block and moves the root up by one.
const Image kOldKernel = {"kernel", 0, 2 * kBlock, 0x1800, 'k'};
const Image kOldRoot = {"root", 2 * kBlock, 2 * kBlock, 0x1800, 'r'};
const Image kNewKernel = {"kernel", 0, 3 * kBlock, 0x2800, 'K'};
const Image kNewRoot = {"root", 3 * kBlock, 2 * kBlock, 0x1800, 'R'};

// "mixed, torn [kernel, root], overlapping [], no boot".
std::string Described(const campaign::ChipVerdict& verdict) {
  std::string text = std::string(campaign::OutcomeName(verdict.outcome)) + ", torn [";
  for (const std::string& name : verdict.torn)
    text += name + (&name == &verdict.torn.back() ? "" : ", ");
  text += "], overlapping [";
  for (const std::string& pair : verdict.overlapping) text += pair;
  return text + "], " + (verdict.bootable ? "boots" : "no boot");
}

TEST(ClassifyChip, JudgesImagesWhereTheFisRecordsPoint) {
  const ChipState old_chip = MakeChip({kOldKernel, kOldRoot});
  const ChipState new_chip = MakeChip({kNewKernel, kNewRoot});
  // The kernel erased and rewritten with its records still old: its old
  // record holds the new bytes, and the root's first block is gone.
  ChipState rewritten = old_chip;
  std::fill_n(rewritten.image.begin(), kNewKernel.data_length, 'K');
  // The new chip, its kernel record still giving a longer data length: the
  // boot loader reads the new kernel and the erased bytes after it.
  ChipState long_record = MakeChip({{"kernel", 0, 3 * kBlock, 0x2C00, 'K'}, kNewRoot});
  std::fill_n(long_record.image.begin() + kNewKernel.data_length, 0x400, 0xFF);
  const std::pair<ChipState, const char*> cases[] = {
      {old_chip, "all old, torn [], overlapping [], boots"},
      {new_chip, "all new, torn [], overlapping [], boots"},
      {rewritten, "mixed, torn [kernel, root], overlapping [], no boot"},
      {MakeChip({kOldRoot, kNewKernel}),
       "mixed, torn [root], overlapping [root / kernel], no boot"},
      {MakeChip({kOldKernel, kNewRoot}), "mixed, torn [], overlapping [], boots"},
      {MakeChip({kOldKernel}), "mixed, torn [root], overlapping [], no boot"},
      {long_record, "mixed, torn [], overlapping [], boots"},
  };
  for (const auto& [chip, expected] : cases) {
    EXPECT_EQ(Described(campaign::ClassifyChip(old_chip, new_chip, chip)), expected);
  }
}

TEST(Campaign, ShortCampaignOnTheJuniorBoardJudgesEveryTrial) {
  campaign::Setup setup;
  setup.kind = campaign::Kind::kPowerCut;
  setup.tools.flash_tool = FLASH_TOOL;
  setup.tools.flashsim = FLASHSIM_DAEMON;
  const std::string reason = sandbox::Unavailable(setup.tools, true);
  if (!reason.empty()) GTEST_SKIP() << reason;
  std::string error;
  ASSERT_TRUE(sandbox::ApplyBoard("junior6", SANDBOX_LAYOUT_DIR, &setup.scenario, &error));
  flashsim::ChipLayout layout;
  ASSERT_TRUE(sandbox::LoadLayoutFile(setup.scenario.layout_file, &layout, &error)) << error;
  setup.scenario.files =
      sandbox::SamplePackageFiles(layout, sandbox::PackageOptions(), "veltara_powerpc_junior");
  const std::string updater = std::string(sandbox::kPackageDir) + "/updater";
  setup.scenario.files.push_back({updater, "", UPDATER_SIM, 0755});
  setup.argv = {updater};
  setup.dir = sandbox_test::NewSandboxDir("campaign");
  campaign::Result result;
  const std::unique_ptr<sandbox::Sandbox> templ = PrepareCampaign(setup, &result, &error);
  ASSERT_NE(templ, nullptr) << error;
  // No cut, a cut right after the kernel's erase, a fault the run never
  // meets, and a verify that fails once (retried).
  size_t erase = 0;
  while (result.baseline.ops[erase].op != "erase") ++erase;
  for (const campaign::Trial& trial : campaign::PowerCutTrials(result.baseline, 1)) {
    if (trial.cut == 0 || trial.cut == erase + 1) result.trials.push_back(trial);
  }
  for (const campaign::Trial& trial : campaign::FaultTrials(result.baseline)) {
    if (trial.label == "corrupt next write mtd1" || trial.label == "lock once mtd1") {
      result.trials.push_back(trial);
    }
  }
  ASSERT_EQ(result.trials.size(), 4u);
  campaign::RunTrials(
      setup, *templ, [](size_t, size_t) {}, &result);
  const char* expected[] = {
      "all old, torn [], overlapping [], boots", "mixed, torn [zImage], overlapping [], no boot",
      "all new, torn [], overlapping [], boots", "all new, torn [], overlapping [], boots"};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(result.trials[i].error, "") << result.trials[i].label;
    EXPECT_EQ(Described(result.trials[i].verdict), expected[i]) << result.trials[i].label;
  }
  EXPECT_FALSE(result.trials[2].reached);
  EXPECT_TRUE(result.trials[3].reached);
  EXPECT_EQ(result.trials[1].status, 20);
  EXPECT_NE(campaign::CampaignHtml(setup, result).find("<svg"), std::string::npos);
  EXPECT_NE(campaign::CampaignJson(setup, result)
                .find("\"unbootable_windows\": [{\"first\": " + std::to_string(erase + 1)),
            std::string::npos);
  std::filesystem::remove_all(setup.dir);
}

}  // namespace
