// Runs the built filebay-flash command on throwaway state directories and
// checks its files, output and exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using testing_support::FileExists;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

const std::string kLayouts = FLASH_LAYOUT_DIR;

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

Result RunTool(const std::vector<std::string>& args) {
  EXPECT_NE(std::string(FLASH_TOOL), "") << "filebay-flash was not built";
  TempDir scratch;
  const std::string out_path = scratch.File("out");
  const std::string err_path = scratch.File("err");
  std::vector<char*> argv;
  std::vector<std::string> words = {FLASH_TOOL};
  words.insert(words.end(), args.begin(), args.end());
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  Result result;
  int status = 0;
  if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  }
  result.out = ReadFile(out_path);
  result.err = ReadFile(err_path);
  return result;
}

std::string Bytes(const std::string& path, size_t offset, size_t length) {
  return ReadFile(path).substr(offset, length);
}

// Overwrites bytes of a file in place.
void Patch(const std::string& path, size_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  ASSERT_TRUE(file.good()) << path;
}

std::string BigEndian(uint32_t value) {
  return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                     static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string FisRecord(const std::string& name, uint32_t flash_base, uint32_t mem_base,
                      uint32_t size, uint32_t entry, uint32_t data_length) {
  std::string record = name;
  record.resize(16, '\0');
  record += BigEndian(flash_base) + BigEndian(mem_base) + BigEndian(size) + BigEndian(entry) +
            BigEndian(data_length);
  record.resize(256, '\0');
  return record;
}

void ReplaceInFile(const std::string& path, const std::string& from, const std::string& to) {
  std::string text = ReadFile(path);
  const size_t at = text.find(from);
  ASSERT_NE(at, std::string::npos) << from;
  text.replace(at, from.size(), to);
  WriteFile(path, text);
}

// A state made from one of the example layouts.
std::string CreateExample(const TempDir& dir, const std::string& name) {
  const std::string state = dir.File(name);
  const Result created = RunTool({"create", state, kLayouts + "/" + name + ".layout"});
  EXPECT_EQ(created.status, 0) << created.err;
  EXPECT_EQ(created.err, "");
  return state;
}

constexpr size_t kNor8FisOffset = 0x7F0000;  // "FIS Directory" in chip.img

const char kSmallLayout[] =
    "kind nor\n"
    "chip-base 0x20000000\n"
    "chip-size 0x8000\n"
    "erase-size 0x1000\n"
    "partition 0 boot 0x20000000 0x1000 fill=0xA5 data-length=0x20\n"
    "partition 1 kernel 0x20001000 0x2000 pattern=label data-length=0x25 mem-base=0x100000 "
    "entry=0x100040\n"
    "partition 2 root 0x20003000 0x1000 pattern=random data-length=8\n"
    "partition 3 blob 0x20004000 0x2000 image=images/blob.bin\n"
    "partition 4 whole 0x20006000 0x1000 fill=0 fis=no\n"
    "partition 5 \"FIS Directory\" 0x20007000 0x1000\n";

std::string BlobImage() {
  std::string blob(0x1801, '\0');
  for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<char>(i * 7 + 3);
  return blob;
}

std::string CreateSmall(const TempDir& dir) {
  mkdir(dir.File("images").c_str(), 0755);
  WriteFile(dir.File("images/blob.bin"), BlobImage());
  WriteFile(dir.File("small.layout"), kSmallLayout);
  const std::string state = dir.File("state");
  const Result created = RunTool({"create", state, dir.File("small.layout")});
  EXPECT_EQ(created.status, 0) << created.err;
  return state;
}

TEST(FilebayFlash, CreateBuildsTheWholeChipFromTheLayout) {
  TempDir dir;
  const std::string state = CreateSmall(dir);

  std::string expected(0x8000, '\xFF');
  expected.replace(0, 0x20, std::string(0x20, '\xA5'));
  expected.replace(0x1000, 0x25, "mtd1:00000000..\nmtd1:00000010..\nmtd1:");
  expected.replace(0x3000, 8, "\xEA\xC5\x5B\x88\x5E\x40\x46\x2F");
  expected.replace(0x4000, 0x1801, BlobImage());
  expected.replace(0x6000, 0x1000, std::string(0x1000, '\0'));
  const std::string directory =
      FisRecord("boot", 0x20000000, 0x20000000, 0x1000, 0, 0x20) +
      FisRecord("kernel", 0x20001000, 0x100000, 0x2000, 0x100040, 0x25) +
      FisRecord("root", 0x20003000, 0x20003000, 0x1000, 0, 8) +
      FisRecord("blob", 0x20004000, 0x20004000, 0x2000, 0, 0x1801) +
      FisRecord("FIS Directory", 0x20007000, 0x20007000, 0x1000, 0, 0x500);
  expected.replace(0x7000, directory.size(), directory);
  EXPECT_TRUE(ReadFile(state + "/chip.img") == expected) << "chip.img differs";

  EXPECT_EQ(ReadFile(state + "/locks"), "00000000");
  EXPECT_EQ(ReadFile(state + "/trace.log"), "");
  EXPECT_FALSE(FileExists(state + "/faults"));
  EXPECT_EQ(ReadFile(state + "/layout"),
            "kind nor\n"
            "chip-base 0x20000000\n"
            "chip-size 0x00008000\n"
            "erase-size 0x00001000\n"
            "fis-device 5\n"
            "partition 0 boot 0x20000000 0x00001000 data-length=0x00000020\n"
            "partition 1 kernel 0x20001000 0x00002000 data-length=0x00000025 "
            "mem-base=0x00100000 entry=0x00100040\n"
            "partition 2 root 0x20003000 0x00001000 data-length=0x00000008\n"
            "partition 3 blob 0x20004000 0x00002000 data-length=0x00001801\n"
            "partition 4 whole 0x20006000 0x00001000 data-length=0x00001000 fis=no\n"
            "partition 5 \"FIS Directory\" 0x20007000 0x00001000 data-length=0x00000500\n");
}

TEST(FilebayFlash, FisListsTheDirectoryLikeTheBootLoader) {
  TempDir dir;
  const Result listed = RunTool({"fis", CreateSmall(dir)});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.out,
            "Name              FLASH addr  Mem addr    Length      Entry point\n"
            "boot              0x20000000  0x20000000  0x00001000  0x00000000\n"
            "kernel            0x20001000  0x00100000  0x00002000  0x00100040\n"
            "root              0x20003000  0x20003000  0x00001000  0x00000000\n"
            "blob              0x20004000  0x20004000  0x00002000  0x00000000\n"
            "FIS Directory     0x20007000  0x20007000  0x00001000  0x00000000\n");
}

TEST(FilebayFlash, FisListsTheOrdinaryBoard) {
  TempDir dir;
  const Result listed = RunTool({"fis", CreateExample(dir, "nor8")});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.out,
            "Name              FLASH addr  Mem addr    Length      Entry point\n"
            "RedBoot           0xFFF00000  0xFFF00000  0x00040000  0x00000000\n"
            "zImage            0xFF800000  0xFF800000  0x00180000  0x00000000\n"
            "rd.gz             0xFF980000  0xFF980000  0x00280000  0x00000000\n"
            "AllLib.tgz        0xFFC00000  0xFFC00000  0x00300000  0x00000000\n"
            "vendor            0xFFF40000  0xFFF40000  0x00020000  0x00000000\n"
            "veltcfg           0xFFF60000  0xFFF60000  0x00080000  0x00000000\n"
            "RedBoot Config    0xFFFE0000  0xFFFE0000  0x00010000  0x00000000\n"
            "FIS Directory     0xFFFF0000  0xFFFF0000  0x00010000  0x00000000\n");
}

TEST(FilebayFlash, FisRefusesAnMSysChip) {
  TempDir dir;
  const Result listed = RunTool({"fis", CreateExample(dir, "msys")});
  EXPECT_EQ(listed.status, 3);
  EXPECT_NE(listed.err.find("msys chip has no FIS directory"), std::string::npos) << listed.err;
}

TEST(FilebayFlash, JuniorLayoutCarriesTheRepairDirectory) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  const std::string chip = state + "/chip.img";
  std::string expected = FisRecord("RedBoot", 0xFFF00000, 0xFFF00000, 0x40000, 0, 0x3A448) +
                         FisRecord("zImage", 0xFFE00000, 0xFFE00000, 0xD0000, 0, 0xC5EDA) +
                         FisRecord("rd.gz", 0xFFF40000, 0xFFF40000, 0xB0000, 0, 0xAEE2C) +
                         FisRecord("vendor", 0xFFED0000, 0xFFED0000, 0x10000, 0, 0x10000) +
                         FisRecord("RedBoot Config", 0xFFEE0000, 0xFFEE0000, 0x10000, 0, 0x10000) +
                         FisRecord("FIS Directory", 0xFFFF0000, 0xFFFF0000, 0x10000, 0, 0x600);
  ASSERT_EQ(expected.size(), 1536u);
  expected.resize(0x10000, '\xFF');  // the rest of the directory block stays erased
  EXPECT_TRUE(Bytes(chip, 0x1F0000, 0x10000) == expected) << "directory block differs";
  EXPECT_TRUE(Bytes(chip, 0xF0000, 0x10000) == std::string(0x10000, '\xFF'))
      << "the block outside every partition must stay erased";
  EXPECT_EQ(Bytes(chip, 0, 32), "mtd1:00000000..\nmtd1:00000010..\n");
  EXPECT_EQ(Bytes(chip, 0x100000 + 0x3A440, 16),
            std::string("mtd0:0003A440..\n").substr(0, 8) + std::string(8, '\xFF'));
}

TEST(FilebayFlash, MSysLayoutLaysPartitionsOneAfterAnother) {
  TempDir dir;
  const std::string state = CreateExample(dir, "msys");
  EXPECT_EQ(ReadFile(state + "/chip.img").size(), 967u * 16384u);
  EXPECT_EQ(ReadFile(state + "/locks"), std::string(967, '0'));
  EXPECT_EQ(Bytes(state + "/chip.img", 0x40000, 16), "mtd1:00000000..\n");
  EXPECT_EQ(Bytes(state + "/chip.img", 0xEF0000, 16), "mtd7:00000000..\n");
  EXPECT_EQ(ReadFile(state + "/layout").find("fis-device"), std::string::npos);
}

TEST(FilebayFlash, CheckPassesOnEveryExampleLayout) {
  for (const char* name : {"nor8", "junior6", "msys"}) {
    SCOPED_TRACE(name);
    TempDir dir;
    const Result checked = RunTool({"check", CreateExample(dir, name)});
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out, "ok\n");
  }
}

TEST(FilebayFlash, CheckReportsOverlappingPartitions) {
  TempDir dir;
  const std::string state = CreateExample(dir, "nor8");
  // rd.gz grows by one block into AllLib.tgz, in the layout and in its record.
  ReplaceInFile(state + "/layout", "rd.gz 0xFF980000 0x00280000", "rd.gz 0xFF980000 0x00290000");
  Patch(state + "/chip.img", kNor8FisOffset + 2 * 256 + 24, BigEndian(0x290000));
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out,
            "mtd2 \"rd.gz\" at 0xFF980000 size 0x00290000 overlaps mtd3 \"AllLib.tgz\" at "
            "0xFFC00000 size 0x00300000\n");
}

TEST(FilebayFlash, CheckReportsFisRecordThatDisagreesWithItsExtent) {
  TempDir dir;
  const std::string state = CreateExample(dir, "nor8");
  Patch(state + "/chip.img", kNor8FisOffset + 3 * 256 + 16, BigEndian(0xFFC10000));
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out,
            "FIS record 3 \"AllLib.tgz\" says 0xFFC10000 size 0x00300000 but mtd3 \"AllLib.tgz\" "
            "lies at 0xFFC00000 size 0x00300000\n");
}

TEST(FilebayFlash, CheckReportsExtentMovedWithoutItsRecord) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  ReplaceInFile(state + "/layout", "vendor 0xFFED0000", "vendor 0xFFEF0000");
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out,
            "FIS record 3 \"vendor\" says 0xFFED0000 size 0x00010000 but mtd3 \"vendor\" lies at "
            "0xFFEF0000 size 0x00010000\n");
}

TEST(FilebayFlash, CheckReportsDirectoryWithoutErasedEndRecord) {
  TempDir dir;
  // 1 KiB erase blocks: the directory block holds four records.
  WriteFile(dir.File("tight.layout"),
            "kind nor\nchip-base 0x400000\nchip-size 0x1000\nerase-size 0x400\n"
            "partition 0 a 0x400000 0x400\npartition 1 b 0x400400 0x400\n"
            "partition 2 c 0x400800 0x400\n"
            "partition 3 \"FIS Directory\" 0x400C00 0x400 fis=no\n");
  const std::string state = dir.File("state");
  ASSERT_EQ(RunTool({"create", state, dir.File("tight.layout")}).status, 0);
  ASSERT_EQ(RunTool({"check", state}).out, "ok\n");
  // The fourth slot, the end record so far, gets a record that agrees with
  // its partition: the only fault left is the missing end.
  Patch(state + "/chip.img", 0xC00 + 3 * 256,
        FisRecord("FIS Directory", 0x400C00, 0x400C00, 0x400, 0, 0x400));
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out, "the FIS directory in mtd3 \"FIS Directory\" has no erased end record\n");
  const Result listed = RunTool({"fis", state});
  EXPECT_EQ(listed.status, 0);
  EXPECT_NE(listed.err.find("no erased end record"), std::string::npos);
}

TEST(FilebayFlash, CheckReportsRecordsWithoutPartitionAndPartitionsWithoutRecord) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  Patch(state + "/chip.img", 0x1F0000 + 3 * 256, std::string("vendoR", 6));
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out,
            "FIS record 3 \"vendoR\" names no partition\n"
            "mtd3 \"vendor\" has no FIS record\n");
}

TEST(FilebayFlash, CheckReportsPartitionOutsideTheChip) {
  TempDir dir;
  const std::string state = CreateExample(dir, "nor8");
  ReplaceInFile(state + "/layout", "zImage 0xFF800000", "zImage 0xFF700000");
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_NE(checked.out.find("partition 1 lies outside the chip"), std::string::npos)
      << checked.out;
}

TEST(FilebayFlash, CheckReportsMSysPartitionsOutOfSequence) {
  TempDir dir;
  const std::string state = CreateExample(dir, "msys");
  ReplaceInFile(state + "/layout", "AllLib.tgz 0x00440000 0x00A00000",
                "AllLib.tgz 0x00450000 0x009F0000");
  const Result checked = RunTool({"check", state});
  EXPECT_EQ(checked.status, 1);
  EXPECT_EQ(checked.out,
            "mtd3 \"AllLib.tgz\" begins at 0x00450000, not where the partition before it ends "
            "(0x00440000)\n");
}

TEST(FilebayFlash, DumpWritesEachPartitionsCurrentBytes) {
  TempDir dir;
  const std::string state = CreateExample(dir, "nor8");
  const std::string chip = ReadFile(state + "/chip.img");
  const Result dumped = RunTool({"dump", state, dir.File("out/all")});
  ASSERT_EQ(dumped.status, 0) << dumped.err;
  const struct {
    int index;
    size_t offset;
    size_t size;
  } partitions[] = {{0, 0x700000, 0x40000},  {1, 0, 0x180000},       {2, 0x180000, 0x280000},
                    {3, 0x400000, 0x300000}, {4, 0x740000, 0x20000}, {5, 0x760000, 0x80000},
                    {6, 0x7E0000, 0x10000},  {7, 0x7F0000, 0x10000}};
  for (const auto& partition : partitions) {
    SCOPED_TRACE(partition.index);
    const std::string file = ReadFile(dir.File("out/all/mtd" + std::to_string(partition.index)));
    EXPECT_EQ(file.size(), partition.size);
    EXPECT_TRUE(file == chip.substr(partition.offset, partition.size));
  }
  EXPECT_EQ(ReadFile(dir.File("out/all/mtd3")).substr(0, 16), "mtd3:00000000..\n");
}

TEST(FilebayFlash, DumpFollowsAMovedExtentAndWritesOnlyTheChosenPartitions) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  ReplaceInFile(state + "/layout", "vendor 0xFFED0000", "vendor 0xFFEF0000");
  ASSERT_EQ(RunTool({"dump", state, dir.File("out"), "3", "mtd5"}).status, 0);
  EXPECT_EQ(ReadFile(dir.File("out/mtd3")), std::string(0x10000, '\xFF'));
  EXPECT_EQ(ReadFile(dir.File("out/mtd5")), Bytes(state + "/chip.img", 0x1F0000, 0x10000));
  EXPECT_FALSE(FileExists(dir.File("out/mtd0")));
  EXPECT_FALSE(FileExists(dir.File("out/mtd4")));
}

TEST(FilebayFlash, DumpOfUnknownPartitionFails) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  const Result dumped = RunTool({"dump", state, dir.File("out"), "6"});
  EXPECT_EQ(dumped.status, 3);
  EXPECT_NE(dumped.err.find("no partition 6"), std::string::npos) << dumped.err;
}

TEST(FilebayFlash, DiffOfEqualStatesIsSilent) {
  TempDir dir;
  const std::string a = CreateExample(dir, "nor8");
  const std::string b = dir.File("copy");
  ASSERT_EQ(RunTool({"create", b, kLayouts + "/nor8.layout"}).status, 0);
  const Result compared = RunTool({"diff", a, b});
  EXPECT_EQ(compared.status, 0);
  EXPECT_EQ(compared.out, "");
}

TEST(FilebayFlash, DiffReportsExactlyTheChangedBlock) {
  TempDir dir;
  const std::string a = CreateExample(dir, "nor8");
  const std::string b = dir.File("copy");
  ASSERT_EQ(RunTool({"create", b, kLayouts + "/nor8.layout"}).status, 0);
  Patch(b + "/chip.img", 0x400000 + 0x12345, "\x01");
  const Result compared = RunTool({"diff", a, b});
  EXPECT_EQ(compared.status, 1);
  EXPECT_EQ(compared.out,
            "data: mtd3 \"AllLib.tgz\" offset 0x00010000 length 0x00010000 "
            "(flash 0xFFC10000-0xFFC1FFFF)\n");
}

TEST(FilebayFlash, DiffMergesAdjacentBlocksAndSplitsThemByPartition) {
  TempDir dir;
  const std::string a = CreateExample(dir, "junior6");
  const std::string b = dir.File("copy");
  ASSERT_EQ(RunTool({"create", b, kLayouts + "/junior6.layout"}).status, 0);
  // From the last block of "RedBoot Config" through the unused block into
  // the first block of RedBoot.
  Patch(b + "/chip.img", 0xE8000, std::string(0x20000, '\0'));
  Patch(b + "/locks", 3, "1");
  ReplaceInFile(b + "/layout", "rd.gz 0xFFF40000 0x000B0000 data-length=0x000AEE2C",
                "rd.gz 0xFFF40000 0x000B0000 data-length=0x000A0000");
  const Result compared = RunTool({"diff", a, b});
  EXPECT_EQ(compared.status, 1);
  EXPECT_EQ(compared.out,
            "layout: mtd2 data-length 0x000AEE2C -> 0x000A0000\n"
            "locks: flash 0xFFE30000-0xFFE3FFFF unlocked -> locked\n"
            "data: mtd0 \"RedBoot\" offset 0x00000000 length 0x00010000 "
            "(flash 0xFFF00000-0xFFF0FFFF)\n"
            "data: mtd4 \"RedBoot Config\" offset 0x00000000 length 0x00010000 "
            "(flash 0xFFEE0000-0xFFEEFFFF)\n"
            "data: outside partitions offset 0x000F0000 length 0x00010000 "
            "(flash 0xFFEF0000-0xFFEFFFFF)\n");
}

TEST(FilebayFlash, DiffOfDifferentChipsComparesOnlyLayouts) {
  TempDir dir;
  const Result compared =
      RunTool({"diff", CreateExample(dir, "junior6"), CreateExample(dir, "nor8")});
  EXPECT_EQ(compared.status, 1);
  EXPECT_NE(compared.out.find("layout: chip-base 0xFFE00000 -> 0xFF800000\n"), std::string::npos);
  EXPECT_NE(compared.out.find("layout: mtd6 only in the second state\n"), std::string::npos);
  EXPECT_NE(compared.out.find("chip: geometries differ"), std::string::npos);
}

struct CreateErrorCase {
  const char* layout;
  const char* expected;
};

TEST(FilebayFlash, CreateRefusesLayoutsItCannotBuild) {
  const std::string geometry = "kind nor\nchip-base 0\nchip-size 0x2000\nerase-size 0x400\n";
  const CreateErrorCase cases[] = {
      {"partition 0 a 0 0x400 image=big.bin\npartition 1 \"FIS Directory\" 0x1C00 0x400\n",
       "does not fit"},
      {"partition 0 a 0 0x400 fill=1 data-length=0x401\n"
       "partition 1 \"FIS Directory\" 0x1C00 0x400\n",
       "data-length 0x00000401 exceeds its size 0x00000400"},
      {"partition 0 a 0 0x400 image=absent.bin\npartition 1 \"FIS Directory\" 0x1C00 0x400\n",
       "absent.bin"},
      {"partition 0 a 0 0x400\npartition 1 b 0x400 0x400\npartition 2 c 0x800 0x400\n"
       "partition 3 \"FIS Directory\" 0x1C00 0x400\n",
       "the FIS directory does not fit in mtd3"},
      {"partition 0 a 0 0x400\npartition 1 \"FIS Directory\" 0x1C00 0x400 pattern=label\n",
       "the FIS directory partition takes no image="},
      {"partition 0 a 0 0x400\n", "no FIS directory partition"},
      {"partition 0 a 0 0x400 colour=red\n", "line 5: unknown partition option"},
  };
  for (const CreateErrorCase& test : cases) {
    SCOPED_TRACE(test.layout);
    TempDir dir;
    WriteFile(dir.File("big.bin"), std::string(0x401, 'x'));
    WriteFile(dir.File("bad.layout"), geometry + test.layout);
    const Result created = RunTool({"create", dir.File("state"), dir.File("bad.layout")});
    EXPECT_EQ(created.status, 3);
    EXPECT_NE(created.err.find(test.expected), std::string::npos) << created.err;
    EXPECT_FALSE(FileExists(dir.File("state")));
  }
}

TEST(FilebayFlash, CreateReplacesAnExistingState) {
  TempDir dir;
  const std::string state = CreateExample(dir, "junior6");
  WriteFile(state + "/faults", "fault erase all every errno=EIO\n");
  WriteFile(state + "/trace.log", "erase mtd3 0x00000000 0x00010000 ok\n");
  WriteFile(state + "/locks", std::string(32, '1'));
  Patch(state + "/chip.img", 0, "x");
  const Result created = RunTool({"create", state, kLayouts + "/junior6.layout"});
  ASSERT_EQ(created.status, 0) << created.err;
  EXPECT_FALSE(FileExists(state + "/faults"));
  EXPECT_EQ(ReadFile(state + "/trace.log"), "");
  EXPECT_EQ(ReadFile(state + "/locks"), std::string(32, '0'));
  EXPECT_EQ(Bytes(state + "/chip.img", 0, 1), "m");
}

TEST(FilebayFlash, HelpCarriesTheLayoutFormatOfTheStateHeader) {
  const Result help = RunTool({"--help"});
  EXPECT_EQ(help.status, 0);
  std::istringstream header(ReadFile(FLASH_STATE_HEADER));
  std::string line;
  bool in_format = false;
  int lines = 0;
  while (std::getline(header, line)) {
    if (line.rfind("// Layout format", 0) == 0) in_format = true;
    if (line.rfind("#ifndef", 0) == 0) break;
    if (!in_format) continue;
    const std::string text = line.size() > 3 ? line.substr(3) : "";
    EXPECT_NE(help.out.find(text + "\n"), std::string::npos) << "missing: " << text;
    ++lines;
  }
  EXPECT_GT(lines, 20);
}

TEST(FilebayFlash, WrongUseShowsUsage) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"fis"}, {"create", "x"}, {"format", "x"}, {"dump", "x"}}) {
    const Result used = RunTool(args);
    EXPECT_EQ(used.status, 2);
    EXPECT_NE(used.err.find("usage: filebay-flash"), std::string::npos);
  }
}

TEST(FilebayFlash, CommandsOnMissingStateFail) {
  TempDir dir;
  EXPECT_EQ(RunTool({"fis", dir.File("none")}).status, 3);
  EXPECT_EQ(RunTool({"dump", dir.File("none"), dir.File("out")}).status, 3);
  EXPECT_EQ(RunTool({"diff", dir.File("none"), dir.File("none")}).status, 3);
  const Result checked = RunTool({"check", dir.File("none")});
  EXPECT_EQ(checked.status, 1);
  EXPECT_NE(checked.out.find("none/layout"), std::string::npos);
}

}  // namespace
