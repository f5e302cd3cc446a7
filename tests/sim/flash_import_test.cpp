// filebay-flash import and import-msys: a state directory from what a real
// board gives (a whole-chip dump, or a flash disk's partition images and
// table), run as the built command on throwaway directories.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim_test_programs.h"
#include "test_support.h"

namespace {

using testing_support::FileExists;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

int RunTool(std::vector<std::string> args, const std::string& log = "") {
  args.insert(args.begin(), FLASH_TOOL);
  return sim_test::RunProgram(args, log);
}

// A state made from `board`'s layout in DIR/a, dumped whole into DIR/out.
void CreateAndDump(const TempDir& dir, const std::string& board) {
  ASSERT_EQ(RunTool({"create", dir.File("a"), FLASH_LAYOUT_DIR "/" + board + ".layout"}), 0);
  ASSERT_EQ(RunTool({"dump", dir.File("a"), dir.File("out")}), 0);
}

TEST(FlashImport, DumpThenImportGivesBackTheSameState) {
  const std::vector<std::string> kImports[] = {
      {"nor8", "import", "out/chip.img", "--base", "0xFF800000"},
      {"junior6", "import", "out/chip.img", "--base", "0xFFE00000", "--erase-size", "65536"},
      {"msys", "import-msys", "out"}};
  for (std::vector<std::string> import : kImports) {
    SCOPED_TRACE(import[0]);
    TempDir dir;
    CreateAndDump(dir, import[0]);
    import[0] = import[1];
    import[1] = dir.File("b");
    import[2] = dir.File(import[2]);
    ASSERT_EQ(RunTool(import, dir.File("log")), 0) << ReadFile(dir.File("log"));
    for (const std::string file : {"layout", "chip.img", "locks", "trace.log"}) {
      EXPECT_TRUE(ReadFile(dir.File("a/" + file)) == ReadFile(dir.File("b/" + file))) << file;
    }
    EXPECT_EQ(RunTool({"check", dir.File("b")}), 0);
  }
}

// Each kind of damage is refused with its problem listed, and no state
// directory is made. The dump is nor8's (FIS directory at chip offset
// 0x7F0000, one 256-byte record per partition in index order); "table" and
// "mtd3" damage the flash disk's files instead.
TEST(FlashImport, DamagedDumpIsRefusedWithItsProblemAndLeavesNothing) {
  constexpr size_t kDirectory = 0x7F0000;
  const struct {
    const char* file;
    size_t at;  // where `bytes` go; with no bytes, the file is cut to `at` bytes
    std::string bytes;
    const char* base;  // null: import-msys
    const char* problem;
  } kDamage[] = {
      {"chip.img", 0x7FFFFF, "", "0xFF800000",
       "the dump's 8388607 bytes are not a whole number of erase blocks of 0x00010000"},
      {"chip.img", kDirectory + 7 * 256 + 16, std::string(2, '\0'), "0xFF800000",
       "no FIS directory: no erase block holds a \"FIS Directory\" record that gives the "
       "block's own address"},
      {"chip.img", 0x7E0000, std::string("FIS Directory\0\0\0\xFF\xFE\0\0", 20), "0xFF800000",
       "more than one FIS directory, at 0xFFFE0000 0xFFFF0000"},
      {"chip.img", kDirectory + 5 * 256, std::string("config\0", 7), "0xFF800000",
       "which matches neither board family"},
      {"chip.img", kDirectory + 256 + 24 + 2, "\x01", "0xFF800000",
       "FIS record \"zImage\" at 0xFF800000 size 0x00180100 is not aligned to erase blocks"},
      {"table", 63, "", nullptr, "table holds 63 bytes, not 64"},
      {"mtd3", 0x10000, "", nullptr,
       "partition 3 (\"AllLib.tgz\"): its image holds 65536 bytes, the table says 0x00A00000"},
  };
  for (const auto& damage : kDamage) {
    SCOPED_TRACE(damage.problem);
    TempDir dir;
    CreateAndDump(dir, damage.base != nullptr ? "nor8" : "msys");
    const std::string path = dir.File(std::string("out/") + damage.file);
    std::string content = ReadFile(path);
    if (damage.bytes.empty()) content.resize(damage.at);
    content.replace(damage.at, damage.bytes.size(), damage.bytes);
    WriteFile(path, content);
    const int status =
        damage.base != nullptr
            ? RunTool({"import", dir.File("b"), path, "--base", damage.base}, dir.File("log"))
            : RunTool({"import-msys", dir.File("b"), dir.File("out")}, dir.File("log"));
    EXPECT_EQ(status, 1);
    EXPECT_NE(ReadFile(dir.File("log")).find(damage.problem), std::string::npos)
        << ReadFile(dir.File("log"));
    EXPECT_FALSE(FileExists(dir.File("b")));
  }
}

}  // namespace
