// The patch plan and the patch on random FIS directories and package files,
// compared with a short model of the planning rules (blocks each partition
// needs, the flash limit, the donor of every missing block, the shift of
// the partitions after a resized one) and the chip with what the model's
// plan writes.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "log_lines.h"
#include "sim_test_mount.h"
#include "updater/flash_patch.h"

namespace {

constexpr uint32_t kBlock = 0x1000;

struct ModelRow {
  std::string name;
  bool fixed, has_file = false, rewrite = false;
  uint32_t start, size, datalen;
  int balance = 0, delta = 0;
};

uint32_t Blocks(uint32_t bytes) { return (bytes + kBlock - 1) / kBlock; }

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

using PatchPlanSim = sim_test::ChipTest;

TEST_F(PatchPlanSim, RandomDirectoriesArePlannedAndPatchedAsTheModelSays) {
  std::mt19937 random(20240611);
  auto Below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  // Rounds that exceeded the flash, found no donor, failed on a moved
  // partition without an image, were resized and patched, patched in place.
  int outcomes[5] = {};
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // The table's partitions one after another from 0xFFF00000, 1 to 6
    // blocks each (the directory's one), half full.
    UPDTSelectLayout(round % 2);
    std::vector<ModelRow> rows;
    char line[160];
    std::string layout = "kind nor\nerase-size 0x1000\nchip-base 0xFFF00000\n";
    uint32_t base = 0xFFF00000;
    for (int i = 0; i < gPartitionCount; ++i, base += rows.back().size) {
      const bool last = i + 1 == gPartitionCount;
      const uint32_t size = (last ? 1 : 1 + Below(6)) * kBlock;
      rows.push_back({gPartitionTable[i].part, UPDTIsFixedPartition(gPartitionTable[i].part) != 0,
                      false, false, base, size, size / 2});
      snprintf(line, sizeof(line), "partition %d \"%s\" 0x%08X 0x%08X data-length=0x%08X%s\n", i,
               gPartitionTable[i].part, base, size, size / 2, last ? "" : " pattern=label");
      layout += line;
    }
    snprintf(line, sizeof(line), "chip-size 0x%08X\nfis-device %d\n", base - 0xFFF00000,
             gPartitionCount - 1);
    testing_support::WriteFile(dir_->File("layout"), layout + line);
    OR_RETURN(Start(dir_->File("layout"), round % 2));
    // Package files for about half the partitions but the directory's: the
    // fixed ones within their partition, the others up to four blocks
    // bigger; every fourth round a kernel that fills the flash exactly, or
    // by one byte more.
    for (size_t i = 0; i + 1 < rows.size(); ++i) {
      if (Below(2) == 0) continue;
      rows[i].has_file = true;
      rows[i].datalen = 1 + Below(rows[i].size + (rows[i].fixed ? 0 : 4 * kBlock));
    }
    const uint32_t flash = (rows.back().start + rows.back().size - rows[1].start) / kBlock;
    uint32_t total = 0;
    for (const ModelRow& row : rows) total += Blocks(row.datalen);
    if (round % 4 == 3 && total - Blocks(rows[1].datalen) < flash) {
      rows[1].has_file = true;
      rows[1].datalen = (flash - total + Blocks(rows[1].datalen)) * kBlock + round % 8 / 7;
      total = flash + round % 8 / 7;
    }
    std::vector<std::string> images(rows.size());
    bool short_of_blocks = false;
    for (size_t i = 0; i < rows.size(); ++i) {
      if (rows[i].has_file)
        images[i] = Package(gPartitionTable[i].file, round * 8 + i, rows[i].datalen);
      rows[i].balance =
          static_cast<int>(rows[i].size / kBlock) - static_cast<int>(Blocks(rows[i].datalen));
      rows[i].rewrite = rows[i].has_file;
      short_of_blocks |= rows[i].balance < 0;
    }

    ASSERT_EQ(total > flash ? -1 : 0, UPDTInitPatchInfo(records_.data(), count_));

    if (total > flash && ++outcomes[0]) continue;
    const bool resizable = ModelResize(&rows);  // on failure before any shift
    bool fails = false;                         // a moved partition without an image
    for (const ModelRow& row : rows) fails |= row.rewrite && !row.has_file;
    // The roll-back after a failed patch needs the old partitions.
    ASSERT_EQ(0, fails ? UPDTBackupOldPartition(records_.data(), count_) : 0);
    testing_support::SyslogRecords().clear();

    EXPECT_EQ(resizable && !fails ? 0 : -1, UPDTDoPatch(records_.data(), count_));

    for (size_t i = 0; i < rows.size(); ++i) {
      const ModelRow& m = rows[i];
      const PartitionRecord& got = gPartitionTable[i];
      EXPECT_EQ(
          std::make_tuple(m.start, m.size, m.datalen, +m.rewrite, m.balance, m.delta),
          std::make_tuple(got.start, got.size, got.datalen, got.fneedupdate,
                          resizable ? got.balance : m.balance, resizable ? got.delta : m.delta))
          << m.name;
    }
    sim_test::ExpectedChip expected(initial_);
    if (!resizable) {
      EXPECT_EQ("ErrUPDTAdjustPartitionSize(N): negative balance",
                testing_support::LoggedMessages(LOG_ERR).at(1));
      ++outcomes[1];
    }
    // A moved partition without an image cannot be rewritten: erased at its
    // new place, its record unchanged, the patch ends there.
    for (size_t i = 0; i < rows.size() && resizable; ++i) {
      const ModelRow& row = rows[i];
      const flashsim::PartitionLayout& old = expected.Part(row.name);
      if (!row.rewrite) continue;
      expected.Move(row.name, static_cast<int>(row.start - old.base) / static_cast<int>(kBlock),
                    static_cast<int>(row.size - old.size) / static_cast<int>(kBlock), row.has_file);
      expected.Write(row.name, images[i], row.has_file);
      if (!row.has_file) break;
    }
    outcomes[2] += fails;
    outcomes[short_of_blocks ? 3 : 4] += resizable && !fails;
    EXPECT_EQ(0, fails ? UPDTRollBack(records_.data(), count_) : 0);
    EXPECT_TRUE((fails ? sim_test::ExpectedChip(initial_) : expected).Matches(Unmounted()));
  }
  for (int count : outcomes) EXPECT_GT(count, 0) << ::testing::PrintToString(outcomes);
}

}  // namespace
