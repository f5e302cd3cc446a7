// The offline command filebay-flash on throwaway state directories: create,
// fis, check, diff, dump and import, run as the built program.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "sim_test_programs.h"
#include "test_support.h"

namespace {

using testing_support::FileExists;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

// The command's exit status; its output (stdout and stderr) in *output.
int Tool(const TempDir& dir, std::vector<std::string> args, std::string* output = nullptr) {
  args.insert(args.begin(), FLASH_TOOL);
  unlink(dir.File("log").c_str());
  const int status = sim_test::RunProgram(args, dir.File("log"));
  if (output != nullptr) *output = ReadFile(dir.File("log"));
  return status;
}

void Patch(const std::string& path, size_t offset, const std::string& bytes) {
  std::string content = ReadFile(path);
  content.replace(offset, bytes.size(), bytes);
  WriteFile(path, content);
}

std::string BigEndian(uint32_t value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
          static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string FisRecord(const std::string& name, uint32_t base, uint32_t mem_base, uint32_t size,
                      uint32_t entry, uint32_t data_length) {
  std::string record = name;
  record.resize(16, '\0');
  record += BigEndian(base) + BigEndian(mem_base) + BigEndian(size) + BigEndian(entry) +
            BigEndian(data_length);
  record.resize(256, '\0');
  return record;
}

// DIR/NAME made from the example board NAME, or from `layout` when given.
std::string Create(const TempDir& dir, const std::string& name, const std::string& layout = "") {
  std::string file = std::string(FLASH_LAYOUT_DIR) + "/" + name + ".layout", output;
  if (!layout.empty()) WriteFile(file = dir.File(name + ".layout"), layout);
  EXPECT_EQ(Tool(dir, {"create", dir.File(name), file}, &output), 0) << output;
  return dir.File(name);
}

TEST(FilebayFlash, CreateBuildsTheWholeChipFromTheLayout) {
  TempDir dir;
  std::string blob(0x1801, '\0');
  for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<char>(i * 7 + 3);
  mkdir(dir.File("images").c_str(), 0755);
  WriteFile(dir.File("images/blob.bin"), blob);
  const std::string state = Create(
      dir, "small",
      "kind nor\nchip-base 0x20000000\nchip-size 0x8000\nerase-size 0x1000\n"
      "partition 0 boot 0x20000000 0x1000 fill=0xA5 data-length=0x20\n"
      "partition 1 kernel 0x20001000 0x2000 pattern=label data-length=0x25 mem-base=0x100000 "
      "entry=0x100040\npartition 2 root 0x20003000 0x1000 pattern=random data-length=8\n"
      "partition 3 blob 0x20004000 0x2000 image=images/blob.bin\n"
      "partition 4 whole 0x20006000 0x1000 fill=0 fis=no\n"
      "partition 5 \"FIS Directory\" 0x20007000 0x1000\n");
  std::string expected(0x8000, '\xFF');
  expected.replace(0, 0x20, std::string(0x20, '\xA5'));
  expected.replace(0x1000, 0x25, "mtd1:00000000..\nmtd1:00000010..\nmtd1:");
  expected.replace(0x3000, 8, "\xEA\xC5\x5B\x88\x5E\x40\x46\x2F");
  expected.replace(0x4000, 0x1801, blob);
  expected.replace(0x6000, 0x1000, std::string(0x1000, '\0'));
  const std::string directory =
      FisRecord("boot", 0x20000000, 0x20000000, 0x1000, 0, 0x20) +
      FisRecord("kernel", 0x20001000, 0x100000, 0x2000, 0x100040, 0x25) +
      FisRecord("root", 0x20003000, 0x20003000, 0x1000, 0, 8) +
      FisRecord("blob", 0x20004000, 0x20004000, 0x2000, 0, 0x1801) +
      FisRecord("FIS Directory", 0x20007000, 0x20007000, 0x1000, 0, 0x500);
  expected.replace(0x7000, directory.size(), directory);
  EXPECT_TRUE(ReadFile(state + "/chip.img") == expected) << "chip.img differs";
}

// Each row damages a fresh state (a layout edit, bytes written into chip.img)
// and gives check's exact report.
TEST(FilebayFlash, CheckReportsEachInconsistency) {
  const struct {
    const char *board, *from, *to;
    size_t at;
    std::string bytes, report;
  } rows[] = {
      {"nor8", "", "", 0, "", "ok\n"},
      {"nor8", "rd.gz 0xFF980000 0x00280000", "rd.gz 0xFF980000 0x00290000", 0x7F0218,
       BigEndian(0x290000),
       "mtd2 \"rd.gz\" at 0xFF980000 size 0x00290000 overlaps mtd3 \"AllLib.tgz\" at 0xFFC00000 "
       "size 0x00300000\n"},
      {"junior6", "vendor 0xFFED0000", "vendor 0xFFEF0000", 0, "",
       "FIS record 3 \"vendor\" says 0xFFED0000 size 0x00010000 but mtd3 \"vendor\" lies at "
       "0xFFEF0000 size 0x00010000\n"},
      {"junior6", "", "", 0x1F0300, "vendoR",
       "FIS record 3 \"vendoR\" names no partition\nmtd3 \"vendor\" has no FIS record\n"},
      {"msys", "AllLib.tgz 0x00440000 0x00A00000", "AllLib.tgz 0x00450000 0x009F0000", 0, "",
       "mtd3 \"AllLib.tgz\" begins at 0x00450000, not where the partition before it ends "
       "(0x00440000)\n"},
      {"tight", "", "", 0xF00, FisRecord("FIS Directory", 0x400C00, 0x400C00, 0x400, 0, 0x400),
       "the FIS directory in mtd3 \"FIS Directory\" has no erased end record\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.report);
    TempDir dir;
    // 1 KiB erase blocks: the directory block holds four records.
    const std::string state =
        Create(dir, row.board,
               row.board != std::string("tight")
                   ? ""
                   : "kind nor\nchip-base 0x400000\nchip-size 0x1000\nerase-size 0x400\n"
                     "partition 0 a 0x400000 0x400\npartition 1 b 0x400400 0x400\n"
                     "partition 2 c 0x400800 0x400\n"
                     "partition 3 \"FIS Directory\" 0x400C00 0x400 fis=no\n");
    std::string layout = ReadFile(state + "/layout"), report;
    if (*row.from != '\0')
      WriteFile(state + "/layout", layout.replace(layout.find(row.from), strlen(row.from), row.to));
    if (!row.bytes.empty()) Patch(state + "/chip.img", row.at, row.bytes);
    EXPECT_EQ(Tool(dir, {"check", state}, &report), row.report == "ok\n" ? 0 : 1);
    EXPECT_EQ(report, row.report);
  }
}

TEST(FilebayFlash, DiffReportsLayoutLocksAndChangedBlocksByPartition) {
  TempDir dir;
  const std::string a = Create(dir, "junior6");
  const std::string b = dir.File("b");
  ASSERT_EQ(Tool(dir, {"create", b, std::string(FLASH_LAYOUT_DIR) + "/junior6.layout"}), 0);
  std::string output;
  // From the last block of "RedBoot Config" through the unused block into
  // the first block of RedBoot; vendor moved onto the unused block.
  Patch(b + "/chip.img", 0xE8000, std::string(0x20000, '\0'));
  Patch(b + "/locks", 3, "1");
  std::string layout = ReadFile(b + "/layout");
  layout.replace(layout.find("data-length=0x000AEE2C"), 22, "data-length=0x000A0000");
  WriteFile(b + "/layout", layout.replace(layout.find("vendor 0xFFED"), 13, "vendor 0xFFEF"));
  EXPECT_EQ(Tool(dir, {"diff", a, b}, &output), 1);
  EXPECT_EQ(output,
            "layout: mtd2 data-length 0x000AEE2C -> 0x000A0000\n"
            "layout: mtd3 base 0xFFED0000 -> 0xFFEF0000\n"
            "layout: mtd3 mem-base 0xFFED0000 -> 0xFFEF0000\n"
            "locks: flash 0xFFE30000-0xFFE3FFFF unlocked -> locked\n"
            "data: mtd0 \"RedBoot\" offset 0x00000000 length 0x00010000 "
            "(flash 0xFFF00000-0xFFF0FFFF)\n"
            "data: mtd4 \"RedBoot Config\" offset 0x00000000 length 0x00010000 "
            "(flash 0xFFEE0000-0xFFEEFFFF)\n"
            "data: outside partitions offset 0x000F0000 length 0x00010000 "
            "(flash 0xFFEF0000-0xFFEFFFFF)\n");
}

// Layout rows "statements > message", appended to a valid geometry unless
// they start with '!'; then state files that disagree with the layout.
TEST(FilebayFlash, MalformedLayoutsAndStatesAreRefusedNamingTheProblem) {
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
      "partition 0 \"open 0x1000000 0x10000\n > line 5: unterminated quote|"
      "!kind nor\nchip-base 0\nchip-size 0x2000\nerase-size 0x400\n"
      "partition 0 a 0 0x400\npartition 2 b 0x400 0x400\npartition 3 c 0x800 0x400\npartition 1 "
      "\"FIS Directory\" 0x1C00 0x400\n > the FIS directory does not fit in mtd1";
  TempDir dir;
  std::istringstream table(rows);
  std::string output;
  for (std::string row; std::getline(table, row, '|');) {
    const size_t split = row.find(" > ");
    WriteFile(dir.File("bad.layout"),
              row[0] == '!' ? row.substr(1, split - 1)
                            : "kind nor\nchip-base 0x1000000\nchip-size 0x40000\nerase-size "
                              "0x10000\n" +
                                  row.substr(0, split));
    EXPECT_EQ(Tool(dir, {"create", dir.File("bad"), dir.File("bad.layout")}, &output), 3) << row;
    EXPECT_NE(output.find(row.substr(split + 3)), std::string::npos) << output;
    EXPECT_FALSE(FileExists(dir.File("bad")));
  }
  const char* const damage[][3] = {
      {"locks", "00000000000000000000000000000000\n", "Name"},  // a final newline is fine
      {"chip.img", "\xFF", "holds 1 bytes, the layout says 2097152"},
      {"locks", "010", "3 lock bits for 32 erase blocks"},
      {"locks", "0000000000000000000000000000000x", "lock bit 31 is neither"},
      {"layout", "kind nor\nchip-size 0x4000\n", "layout: missing erase-size"},
  };
  for (const auto& row : damage) {
    WriteFile(Create(dir, "junior6") + "/" + row[0], row[1]);
    EXPECT_EQ(Tool(dir, {"fis", dir.File("junior6")}, &output), &row == &damage[0] ? 0 : 3);
    EXPECT_NE(output.find(row[2]), std::string::npos) << output;
  }
}

TEST(FilebayFlash, RefusesWrongUse) {
  TempDir dir;
  std::string output;
  EXPECT_EQ(Tool(dir, {"fis", Create(dir, "msys")}, &output), 3);
  EXPECT_NE(output.find("msys chip has no FIS directory"), std::string::npos) << output;
  EXPECT_EQ(Tool(dir, {"create", "x"}, &output), 2);
  EXPECT_NE(output.find("usage: filebay-flash"), std::string::npos);
  EXPECT_EQ(Tool(dir, {"--help"}), 0);
}

// A state dumped whole (chip.img, or the flash disk's partitions and table)
// and imported again is the same state.
TEST(FilebayFlash, DumpThenImportGivesBackTheSameState) {
  const std::vector<std::string> imports[] = {
      {"nor8", "import", "out/chip.img", "--base", "0xFF800000"},
      {"junior6", "import", "out/chip.img", "--base", "0xFFE00000", "--erase-size", "65536"},
      {"msys", "import-msys", "out"}};
  for (std::vector<std::string> import : imports) {
    TempDir dir;
    const std::string a = Create(dir, import[0]);
    std::string output;
    ASSERT_EQ(Tool(dir, {"dump", a, dir.File("out")}), 0);
    import[0] = import[1];
    import[1] = dir.File("b");
    import[2] = dir.File(import[2]);
    ASSERT_EQ(Tool(dir, import, &output), 0) << output;
    for (const std::string file : {"layout", "chip.img", "locks", "trace.log"}) {
      EXPECT_TRUE(ReadFile(a + "/" + file) == ReadFile(dir.File("b/" + file))) << file;
    }
  }
}

// Each kind of damage to nor8's dump (its FIS directory at 0x7F0000) or to
// the flash disk's files is refused with its problem, and no state is made.
TEST(FilebayFlash, DamagedDumpIsRefusedWithItsProblemAndLeavesNothing) {
  const struct {
    const char* file;
    size_t at;  // where `bytes` go; with no bytes, the file is cut to `at` bytes
    std::string bytes;
    const char* problem;
  } rows[] = {
      {"chip.img", 0x7FFFFF, "",
       "the dump's 8388607 bytes are not a whole number of erase blocks of 0x00010000"},
      {"chip.img", 0x7E0000, std::string("FIS Directory\0\0\0\xFF\xFE\0\0", 20),
       "more than one FIS directory, at 0xFFFE0000 0xFFFF0000"},
      {"chip.img", 0x7F0500, std::string("config\0", 7), "which matches neither board family"},
      {"table", 63, "", "table holds 63 bytes, not 64"},
      {"mtd3", 0x10000, "",
       "partition 3 (\"AllLib.tgz\"): its image holds 65536 bytes, the table says 0x00A00000"},
  };
  for (const auto& row : rows) {
    TempDir dir;
    const bool nor = row.file == std::string("chip.img");
    ASSERT_EQ(Tool(dir, {"dump", Create(dir, nor ? "nor8" : "msys"), dir.File("out")}), 0);
    const std::string path = dir.File(std::string("out/") + row.file);
    std::string content = ReadFile(path), output;
    if (row.bytes.empty()) content.resize(row.at);
    WriteFile(path, content.replace(row.at, row.bytes.size(), row.bytes));
    EXPECT_EQ(nor ? Tool(dir, {"import", dir.File("b"), path, "--base", "0xFF800000"}, &output)
                  : Tool(dir, {"import-msys", dir.File("b"), dir.File("out")}, &output),
              1);
    EXPECT_NE(output.find(row.problem), std::string::npos) << output;
    EXPECT_FALSE(FileExists(dir.File("b")));
  }
}

}  // namespace
