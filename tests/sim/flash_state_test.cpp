// The state directory: the layout format and the files chip.img, layout and
// locks.
#include "sim/flash_state.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace flashsim {
namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

TEST(FlashState, LayoutIsParsedSortedAndWrittenBackCanonically) {
  const char text[] =
      "# a comment line\nkind nor\nchip-base 0xFF800000   # trailing comment\n"
      "chip-size 8388608\nerase-size 0x10000\n\n"
      "partition 7 \"FIS Directory\" 0xFFFF0000 0x10000\n"
      "partition 0 RedBoot 0xFFF00000 0x40000 data-length=0x3A448 mem-base=0x100 entry=0x200\n"
      "partition 6 \"RedBoot Config\" 0xFFFE0000 0x10000 fis=no\n"
      "partition 1 zImage 0xFF800000 0x180000 image=\"my images/zImage\"\n"
      "\tpartition 2 rd.gz 0xFF980000 0x280000 pattern=random\r\n"
      "partition 3 \"All#Lib\" 0xFFC00000 0x300000 fill=0xA5 fis=yes\n";
  ChipLayout layout;
  std::string error;
  ASSERT_TRUE(ParseLayout(text, &layout, &error)) << error;
  EXPECT_EQ(layout.BlockCount(), 128u);
  EXPECT_EQ(layout.Find(1)->image, "my images/zImage");
  EXPECT_EQ(layout.Find(2)->pattern, "random");
  EXPECT_EQ(layout.Find(3)->fill, 0xA5);
  const std::string canonical =
      "kind nor\nchip-base 0xFF800000\nchip-size 0x00800000\nerase-size 0x00010000\n"
      "fis-device 7\n"
      "partition 0 RedBoot 0xFFF00000 0x00040000 data-length=0x0003A448 mem-base=0x00000100 "
      "entry=0x00000200\n"
      "partition 1 zImage 0xFF800000 0x00180000\npartition 2 rd.gz 0xFF980000 0x00280000\n"
      "partition 3 \"All#Lib\" 0xFFC00000 0x00300000\n"
      "partition 6 \"RedBoot Config\" 0xFFFE0000 0x00010000 fis=no\n"
      "partition 7 \"FIS Directory\" 0xFFFF0000 0x00010000\n";
  EXPECT_EQ(FormatLayout(layout), canonical);
}

// Rows "statements > message": appended to a valid geometry unless they start
// with '!'.
TEST(FlashState, MalformedLayoutIsRejectedNamingTheLine) {
  const std::string rows =
      "bogus 1 > line 5: unknown statement \"bogus\"|"
      "!kind nor\nchip-size 0x100000000\n > line 2: bad number|"
      "!chip-size 1 2\n > line 1: chip-size takes one value|"
      "!chip-size 0x48000\nerase-size 0x10000\n > line 1: chip-size is not a whole number|"
      "!chip-base 0xFFFF0000\nchip-size 0x20000\nerase-size 0x10000\n > line 2: the chip runs past|"
      "partition 0 a 0x1000000 0x10000\npartition 0 b 0x1010000 0x10000\n > line 6: duplicate|"
      "partition 0 a 0x1000000 0x10000 fill=1 image=x\n > image=, fill= and pattern= exclude|"
      "partition 3 a 0x1030000 0x20000\n > line 5: partition 3 lies outside the chip|"
      "partition 0 a 0x1000800 0x10000\n > line 5: partition 0 is not aligned to erase blocks|"
      "fis-device 4\npartition 0 a 0x1000000 0x10000\n > line 5: fis-device 4 names no partition|"
      "partition 0 \"open 0x1000000 0x10000\n > line 5: unterminated quote";
  const std::string geometry =
      "kind nor\nchip-base 0x1000000\nchip-size 0x40000\nerase-size 0x10000\n";
  std::istringstream table(rows);
  for (std::string row; std::getline(table, row, '|');) {
    const size_t split = row.find(" > ");
    const std::string text =
        row[0] == '!' ? row.substr(1, split - 1) : geometry + row.substr(0, split);
    ChipLayout layout;
    layout.chip_size = 0x1234;  // must survive a failed parse
    std::string error;
    EXPECT_FALSE(ParseLayout(text, &layout, &error)) << text;
    EXPECT_NE(error.find(row.substr(split + 3)), std::string::npos) << error;
    EXPECT_EQ(layout.chip_size, 0x1234u);
  }
}

TEST(FlashState, StateFilesAreWrittenReadBackAndCheckedForConsistency) {
  testing_support::TempDir dir;
  ChipState saved;
  saved.dir = dir.path();
  std::string error;
  ASSERT_TRUE(
      ParseLayout("kind nor\nchip-base 0x10000\nchip-size 0x4000\nerase-size 0x1000\n"
                  "partition 1 \"FIS Directory\" 0x13000 0x1000\n",
                  &saved.layout, &error));
  for (size_t i = 0; i < 0x4000; ++i) saved.image.push_back(static_cast<uint8_t>(i * 7));
  saved.locked = {0, 1, 0, 1};
  ASSERT_TRUE(SaveState(saved, &error)) << error;
  EXPECT_EQ(ReadFile(dir.File("locks")), "0101");
  WriteFile(dir.File("locks"), "1100\n");
  ChipState loaded;
  ASSERT_TRUE(LoadState(dir.path(), &loaded, &error)) << error;
  EXPECT_EQ(loaded.locked, (std::vector<uint8_t>{1, 1, 0, 0}));
  const char* const damage[][3] = {
      {"chip.img", "\xFF", "holds 1 bytes, the layout says 16384"},
      {"locks", "010", "3 lock bits for 4 erase blocks"},
      {"locks", "01x1", "lock bit 2 is neither"},
      {"layout", "kind nor\nchip-size 0x4000\n", "layout: missing erase-size"},
  };
  for (const auto& row : damage) {
    ASSERT_TRUE(SaveState(saved, &error)) << error;
    WriteFile(dir.File(row[0]), row[1]);
    EXPECT_FALSE(LoadState(dir.path(), &loaded, &error));
    EXPECT_NE(error.find(row[2]), std::string::npos) << error;
  }
  saved.image.pop_back();
  saved.dir = dir.File("new");
  EXPECT_FALSE(SaveState(saved, &error));
}

}  // namespace
}  // namespace flashsim
