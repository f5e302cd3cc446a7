// The patch plan and the patch on random FIS directories and package files,
// each compared with a short model of the planning rules (blocks each
// partition needs, the flash limit, the donor of every missing block, the
// shift of the partitions after a resized one) and the chip with what the
// model's plan writes; plus the directories the random ones never make.
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "log_lines.h"
#include "sim_test_chips.h"
#include "sim_test_mount.h"
#include "test_support.h"
#include "updater/flash_patch.h"

namespace {

using Lines = std::vector<std::string>;
using testing_support::LoggedMessages;
constexpr uint32_t kBlock = 0x1000;

struct ModelRow {
  std::string name;
  bool fixed = false, has_file = false, rewrite = false;
  uint32_t start = 0, size = 0, datalen = 0;
  int balance = 0, delta = 0;
};

// Each partition's balance: its blocks less those its new or old contents
// need; the blocks needed in all.
uint64_t ModelPlan(std::vector<ModelRow>* rows) {
  uint64_t total = 0;
  for (ModelRow& row : *rows) {
    const uint32_t blocks = (row.datalen + kBlock - 1) / kBlock;
    row.balance = static_cast<int>(row.size / kBlock) - static_cast<int>(blocks);
    row.rewrite = row.has_file;
    total += blocks;
  }
  return total;
}

// Every missing block comes from the movable partition with the greatest
// balance, the earliest of equals; the movable partitions from the first
// resized one on move by what those before them gained, and are rewritten.
// False when the chosen donor has no block to give.
bool ModelResize(std::vector<ModelRow>* rows) {
  for (ModelRow& needy : *rows) {
    while (needy.balance < 0) {
      ModelRow* donor = nullptr;
      for (ModelRow& other : *rows) {
        if (&other != &needy && !other.fixed && (!donor || other.balance > donor->balance))
          donor = &other;
      }
      if (donor == nullptr || donor->balance < 1) return false;
      --donor->balance, --donor->delta, ++needy.balance, ++needy.delta;
    }
  }
  int shift = 0;
  for (ModelRow& row : *rows) {
    if (row.fixed || (shift == 0 && row.delta == 0)) continue;
    row.rewrite = true;
    row.start += shift * kBlock;
    row.size += row.delta * kBlock;
    shift += row.delta;
  }
  return true;
}

std::string PartitionLine(int index, const std::string& name, uint32_t base, uint32_t size,
                          uint32_t length, const char* extra = "") {
  char line[160];
  snprintf(line, sizeof(line), "partition %d \"%s\" 0x%08X 0x%08X data-length=0x%08X%s%s\n", index,
           name.c_str(), base, size, length, name == "FIS Directory" ? "" : " pattern=label",
           extra);
  return line;
}

class PatchPlanSim : public sim_test::UpdaterChipTest {
 protected:
  void StartWith(const std::string& layout, int junior) {
    testing_support::WriteFile(dir_->File("layout"), layout);
    Start(dir_->File("layout"), junior);
  }
};

TEST_F(PatchPlanSim, RandomDirectoriesArePlannedAndPatchedAsTheModelSays) {
  std::mt19937 random(20240611);
  auto Below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  // Rounds that exceeded the flash, found no donor, failed on a moved
  // partition without an image, were resized and patched, patched in place.
  int outcomes[5] = {};
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int junior = round % 2;
    // The table's partitions one after another in table order.
    UPDTSelectLayout(junior);
    std::vector<ModelRow> rows(static_cast<size_t>(gPartitionCount));
    std::string layout = "kind nor\nerase-size 0x1000\nchip-base 0xFFF00000\nfis-device " +
                         std::to_string(gPartitionCount - 1) + "\n";
    uint32_t base = 0xFFF00000;
    for (int i = 0; i < gPartitionCount; ++i) {
      ModelRow& row = rows[i];
      row.name = gPartitionTable[i].part;
      row.fixed = UPDTIsFixedPartition(row.name.c_str());
      row.start = base;
      row.size = (i + 1 == gPartitionCount ? 1 : 1 + Below(6)) * kBlock;
      row.datalen = i + 1 == gPartitionCount ? 256 * gPartitionCount : 1 + Below(row.size);
      layout += PartitionLine(i, row.name, base, row.size, row.datalen);
      base += row.size;
    }
    char chip_size[32];
    snprintf(chip_size, sizeof(chip_size), "chip-size 0x%08X\n", base - 0xFFF00000);
    OR_RETURN(StartWith(layout + chip_size, junior));
    // Package files for about half the partitions but the directory's: the
    // fixed ones within their partition, the others up to four blocks
    // bigger; every fourth round a kernel that fills the flash exactly, or
    // by one byte more.
    for (size_t i = 0; i + 1 < rows.size(); ++i) {
      if (Below(2) == 0) continue;
      rows[i].has_file = true;
      rows[i].datalen = 1 + Below(rows[i].fixed ? rows[i].size : rows[i].size + 4 * kBlock);
    }
    const uint64_t flash_blocks = (base - rows[1].start) / kBlock;
    uint64_t others = 0;
    for (const ModelRow& row : rows) others += (row.datalen + kBlock - 1) / kBlock;
    others -= (rows[1].datalen + kBlock - 1) / kBlock;
    if (round % 4 == 3 && others < flash_blocks) {
      rows[1].has_file = true;
      rows[1].datalen = static_cast<uint32_t>(flash_blocks - others) * kBlock + round % 8 / 7;
    }
    std::vector<std::string> images(rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
      if (rows[i].has_file)
        images[i] = Package(gPartitionTable[i].file, round * 10 + i, rows[i].datalen);
    }
    const uint64_t total = ModelPlan(&rows);
    const std::vector<ModelRow> planned = rows;
    bool short_of_blocks = false;
    for (const ModelRow& row : rows) short_of_blocks |= row.balance < 0;

    ASSERT_EQ(total > flash_blocks ? -1 : 0, UPDTInitPatchInfo(records_.data(), count_));

    EXPECT_EQ(kBlock, gEraseBlockSize);
    if (total > flash_blocks) {
      EXPECT_EQ("UPDTInitPatchInfo(N): the binary size exceeds flash size limit(total = " +
                    std::to_string(total) + ")",
                LoggedMessages(LOG_ERR).back());
      ++outcomes[0];
      continue;
    }
    const bool resizable = ModelResize(&rows);
    bool rewrites_without_image = false;
    for (const ModelRow& row : rows) rewrites_without_image |= row.rewrite && !row.has_file;
    // The roll-back after a failed patch needs the old partitions.
    const bool fails = resizable && rewrites_without_image;
    ASSERT_EQ(0, fails ? UPDTBackupOldPartition(records_.data(), count_) : 0);
    testing_support::SyslogRecords().clear();

    EXPECT_EQ(resizable && !fails ? 0 : -1, UPDTDoPatch(records_.data(), count_));

    const Lines logged = LoggedMessages();
    EXPECT_EQ(short_of_blocks, std::count(logged.begin(), logged.end(),
                                          "UPDTDoPatch(N): NEED RESIZE THE PARTITION") == 1);
    for (size_t i = 0; i < rows.size(); ++i) {
      const ModelRow& row = resizable ? rows[i] : planned[i];
      const PartitionRecord& record = gPartitionTable[i];
      EXPECT_EQ(Lines({row.name, std::to_string(row.start), std::to_string(row.size),
                       std::to_string(row.datalen), std::to_string(row.rewrite),
                       std::to_string(resizable ? row.balance : 0),
                       std::to_string(row.delta * resizable)}),
                Lines({record.part, std::to_string(record.start), std::to_string(record.size),
                       std::to_string(record.datalen), std::to_string(record.fneedupdate),
                       std::to_string(resizable ? record.balance : 0),
                       std::to_string(record.delta * resizable)}));
    }
    sim_test::ExpectedChip expected(initial_);
    if (!resizable) {
      EXPECT_EQ((Lines{"UPDTDoPatch(N): NEED RESIZE THE PARTITION",
                       "ErrUPDTAdjustPartitionSize(N): negative balance",
                       "UPDTDoPatch(N): fail to resize"}),
                LoggedMessages(LOG_ERR));
      EXPECT_TRUE(expected.Matches(Unmounted()));
      ++outcomes[1];
      continue;
    }
    // A moved partition without an image cannot be rewritten: erased at its
    // new place, its record unchanged, the patch ends there.
    for (size_t i = 0; i < rows.size(); ++i) {
      const ModelRow& row = rows[i];
      if (!row.rewrite) continue;
      const flashsim::PartitionLayout& old = expected.Part(row.name);
      expected.Move(row.name, static_cast<int>(row.start - old.base) / static_cast<int>(kBlock),
                    static_cast<int>(row.size - old.size) / static_cast<int>(kBlock), row.has_file);
      expected.Write(row.name, images[i], row.has_file);
      if (!row.has_file) break;
    }
    if (!fails) {
      EXPECT_TRUE(expected.Matches(Unmounted()));
      ++outcomes[short_of_blocks ? 3 : 4];
      continue;
    }
    ++outcomes[2];
    // The roll-back puts the whole chip back.
    EXPECT_EQ(0, UPDTRollBack(records_.data(), count_));
    EXPECT_TRUE(sim_test::ExpectedChip(initial_).Matches(Unmounted()));
  }
  for (int count : outcomes) EXPECT_GT(count, 0) << ::testing::PrintToString(outcomes);
}

// A directory without its own record gives no flash size, nor does one
// without the kernel's that ends at the top of the address space (in the
// board's 32 bits).
TEST_F(PatchPlanSim, FlashSizeComesFromTheKernelAndDirectoryRecords) {
  const char* names[] = {"RedBoot", "zImage", "rd.gz", "vendor", "RedBoot Config", "FIS Directory"};
  for (const char* left_out : {"FIS Directory", "zImage"}) {
    std::string layout =
        "kind nor\nerase-size 0x1000\nfis-device 5\nchip-base 0xFFFFA000\n"
        "chip-size 0x00006000\n";
    for (int i = 0; i < 6; ++i) {
      layout += PartitionLine(i, names[i], 0xFFFFA000 + i * 0x1000, 0x1000, 0x100,
                              left_out == std::string(names[i]) ? " fis=no" : "");
    }
    OR_RETURN(StartWith(layout, 1));
    EXPECT_EQ(-1, UPDTInitPatchInfo(records_.data(), count_));
    EXPECT_EQ("UPDTInitPatchInfo(N): flashsize == 0", LoggedMessages(LOG_ERR).back()) << left_out;
  }
}

}  // namespace
