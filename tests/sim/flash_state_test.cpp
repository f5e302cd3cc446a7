#include "sim/flash_state.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace flashsim {
namespace {

using testing_support::FileExists;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

const char kFullLayout[] =
    "# a comment line\n"
    "kind nor\n"
    "chip-base 0xFF800000   # trailing comment\n"
    "chip-size 8388608\n"
    "erase-size 0x10000\n"
    "\n"
    "partition 7 \"FIS Directory\" 0xFFFF0000 0x10000\n"
    "partition 0 RedBoot 0xFFF00000 0x40000 data-length=0x3A448 mem-base=0x100 entry=0x200\n"
    "partition 6 \"RedBoot Config\" 0xFFFE0000 0x10000 fis=no\n"
    "partition 1 zImage 0xFF800000 0x180000 image=\"my images/zImage\"\n"
    "\tpartition 2 rd.gz 0xFF980000 0x280000 pattern=random\r\n"
    "partition 3 \"All#Lib\" 0xFFC00000 0x300000 fill=0xA5 fis=yes\n";

void ExpectSameLayout(const ChipLayout& a, const ChipLayout& b) {
  EXPECT_EQ(a.kind, b.kind);
  EXPECT_EQ(a.chip_base, b.chip_base);
  EXPECT_EQ(a.chip_size, b.chip_size);
  EXPECT_EQ(a.erase_size, b.erase_size);
  EXPECT_EQ(a.fis_device, b.fis_device);
  ASSERT_EQ(a.partitions.size(), b.partitions.size());
  for (size_t i = 0; i < a.partitions.size(); ++i) {
    const PartitionLayout& pa = a.partitions[i];
    const PartitionLayout& pb = b.partitions[i];
    SCOPED_TRACE("partition " + std::to_string(pa.index));
    EXPECT_EQ(pa.index, pb.index);
    EXPECT_EQ(pa.name, pb.name);
    EXPECT_EQ(pa.base, pb.base);
    EXPECT_EQ(pa.size, pb.size);
    EXPECT_EQ(pa.data_length, pb.data_length);
    EXPECT_EQ(pa.mem_base, pb.mem_base);
    EXPECT_EQ(pa.entry_point, pb.entry_point);
    EXPECT_EQ(pa.in_fis, pb.in_fis);
    EXPECT_EQ(pa.has_data_length, pb.has_data_length);
    EXPECT_EQ(pa.has_mem_base, pb.has_mem_base);
  }
}

TEST(FlashState, ParseLayoutReadsEveryStatementAndSortsPartitions) {
  ChipLayout layout;
  std::string error;
  ASSERT_TRUE(ParseLayout(kFullLayout, &layout, &error)) << error;
  EXPECT_EQ(layout.kind, ChipKind::kNor);
  EXPECT_EQ(layout.chip_base, 0xFF800000u);
  EXPECT_EQ(layout.chip_size, 0x800000u);
  EXPECT_EQ(layout.erase_size, 0x10000u);
  EXPECT_EQ(layout.BlockCount(), 128u);
  EXPECT_EQ(layout.fis_device, 7);  // found by name
  ASSERT_EQ(layout.partitions.size(), 6u);
  const int expected_order[] = {0, 1, 2, 3, 6, 7};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(layout.partitions[i].index, expected_order[i]);

  const PartitionLayout* redboot = layout.Find(0);
  ASSERT_NE(redboot, nullptr);
  EXPECT_EQ(redboot->name, "RedBoot");
  EXPECT_EQ(redboot->base, 0xFFF00000u);
  EXPECT_EQ(redboot->size, 0x40000u);
  EXPECT_EQ(redboot->data_length, 0x3A448u);
  EXPECT_TRUE(redboot->has_data_length);
  EXPECT_EQ(redboot->mem_base, 0x100u);
  EXPECT_TRUE(redboot->has_mem_base);
  EXPECT_EQ(redboot->entry_point, 0x200u);
  EXPECT_TRUE(redboot->in_fis);

  const PartitionLayout* kernel = layout.Find(1);
  EXPECT_EQ(kernel->image, "my images/zImage");
  EXPECT_EQ(kernel->mem_base, 0xFF800000u);  // defaults to the base
  EXPECT_FALSE(kernel->has_mem_base);
  EXPECT_EQ(kernel->data_length, 0u);
  EXPECT_FALSE(kernel->has_data_length);
  EXPECT_EQ(layout.Find(2)->pattern, "random");
  EXPECT_EQ(layout.Find(3)->name, "All#Lib");
  EXPECT_EQ(layout.Find(3)->fill, 0xA5);
  EXPECT_EQ(layout.Find(1)->fill, -1);
  EXPECT_FALSE(layout.Find(6)->in_fis);
  EXPECT_EQ(layout.Find(6)->name, "RedBoot Config");
  EXPECT_EQ(layout.Find(4), nullptr);
}

TEST(FlashState, FormatLayoutRoundTripsThroughParse) {
  ChipLayout layout;
  std::string error;
  ASSERT_TRUE(ParseLayout(kFullLayout, &layout, &error)) << error;
  const std::string text = FormatLayout(layout);
  ChipLayout again;
  ASSERT_TRUE(ParseLayout(text, &again, &error)) << error << "\n" << text;
  ExpectSameLayout(layout, again);
  EXPECT_EQ(FormatLayout(again), text);
  // Create-only data sources are left out.
  EXPECT_EQ(text.find("image="), std::string::npos);
  EXPECT_EQ(text.find("fill="), std::string::npos);
  EXPECT_EQ(text.find("pattern="), std::string::npos);
}

TEST(FlashState, FormatLayoutWritesCanonicalText) {
  ChipLayout layout;
  layout.kind = ChipKind::kMSys;
  layout.chip_size = 0x8000;
  layout.erase_size = 0x4000;
  PartitionLayout first;
  first.index = 0;
  first.name = "RedBoot";
  first.size = 0x4000;
  first.data_length = 0x123;
  first.has_data_length = true;
  PartitionLayout second;
  second.index = 1;
  second.name = "RedBoot Config";
  second.base = 0x4000;
  second.size = 0x4000;
  second.mem_base = 0x4000;
  second.entry_point = 0x10;
  second.in_fis = false;
  layout.partitions = {first, second};
  EXPECT_EQ(FormatLayout(layout),
            "kind msys\n"
            "chip-base 0x00000000\n"
            "chip-size 0x00008000\n"
            "erase-size 0x00004000\n"
            "partition 0 RedBoot 0x00000000 0x00004000 data-length=0x00000123\n"
            "partition 1 \"RedBoot Config\" 0x00004000 0x00004000 entry=0x00000010 fis=no\n");
}

TEST(FlashState, MSysLayoutKeepsFisDeviceUnset) {
  ChipLayout layout;
  std::string error;
  ASSERT_TRUE(
      ParseLayout("kind msys\nchip-size 0x8000\nerase-size 16384\n"
                  "partition 0 \"FIS Directory\" 0 0x4000\n",
                  &layout, &error))
      << error;
  EXPECT_EQ(layout.kind, ChipKind::kMSys);
  EXPECT_EQ(layout.chip_base, 0u);
  EXPECT_EQ(layout.fis_device, -1);
}

struct ParseErrorCase {
  const char* body;      // appended to a valid geometry unless it starts with '!'
  const char* expected;  // substring of the message
};

const char kGeometry[] = "kind nor\nchip-base 0x1000000\nchip-size 0x40000\nerase-size 0x10000\n";

const ParseErrorCase kParseErrors[] = {
    {"bogus 1\n", "line 5: unknown statement \"bogus\""},
    {"!kind nor\nchip-size 0x4G\nerase-size 0x10000\n", "line 2: bad number \"0x4G\""},
    {"!kind nor\nchip-size 0x100000000\nerase-size 0x10000\n", "line 2: bad number"},
    {"!kind nor\nchip-size -1\nerase-size 0x10000\n", "line 2: bad number"},
    {"!kind nand\nchip-size 0x40000\nerase-size 0x10000\n", "line 1: unknown kind \"nand\""},
    {"!kind nor\nchip-size 0x40000 0x1\nerase-size 0x10000\n", "line 2: chip-size takes one value"},
    {"!kind nor\nerase-size 0x10000\n", "missing chip-size"},
    {"!kind nor\nchip-size 0x40000\n", "missing erase-size"},
    {"!chip-size 0x40000\nerase-size 0\n", "line 2: erase-size must not be 0"},
    {"!chip-size 0x48000\nerase-size 0x10000\n", "line 1: chip-size is not a whole number"},
    {"!chip-base 0xFFFF0000\nchip-size 0x20000\nerase-size 0x10000\n",
     "line 2: the chip runs past the end of the address space"},
    {"chip-size 0x40000\n", "line 5: duplicate chip-size"},
    {"partition 0 a 0x1000000\n", "line 5: partition needs INDEX NAME BASE SIZE"},
    {"partition x a 0x1000000 0x10000\n", "line 5: bad partition index \"x\""},
    {"partition 0 a 0x1000000 0x10000\npartition 0 b 0x1010000 0x10000\n",
     "line 6: duplicate partition 0"},
    {"partition 0 \"0123456789abcdef\" 0x1000000 0x10000\n",
     "line 5: partition name must have 1 to 15 characters"},
    {"partition 0 \"\" 0x1000000 0x10000\n", "line 5: partition name must have 1 to 15"},
    {"partition 0 a 0x10000zz 0x10000\n", "line 5: bad number \"0x10000zz\""},
    {"partition 0 a 0x1000000 0x10000 data-length=12x\n", "line 5: bad number \"12x\""},
    {"partition 0 a 0x1000000 0x10000 colour=red\n",
     "line 5: unknown partition option \"colour=red\""},
    {"partition 0 a 0x1000000 0x10000 verbose\n", "line 5: unknown partition option \"verbose\""},
    {"partition 0 a 0x1000000 0x10000 fis=maybe\n", "line 5: fis= takes no or yes"},
    {"partition 0 a 0x1000000 0x10000 pattern=zebra\n", "line 5: unknown pattern \"zebra\""},
    {"partition 0 a 0x1000000 0x10000 fill=256\n", "line 5: fill= takes a byte"},
    {"partition 0 a 0x1000000 0x10000 fill=1 image=x\n",
     "line 5: image=, fill= and pattern= exclude each other"},
    {"partition 0 a 0x1000000 0x10000 pattern=label fill=2\n", "exclude each other"},
    {"partition 0 a 0xFF0000 0x10000\n", "line 5: partition 0 lies outside the chip"},
    {"partition 3 a 0x1030000 0x20000\n", "line 5: partition 3 lies outside the chip"},
    {"partition 0 a 0x1000800 0x10000\n", "line 5: partition 0 is not aligned to erase blocks"},
    {"partition 0 a 0x1000000 0x18000\n", "line 5: partition 0 is not aligned to erase blocks"},
    {"fis-device 4\npartition 0 a 0x1000000 0x10000\n", "line 5: fis-device 4 names no partition"},
    {"fis-device x\n", "line 5: bad number \"x\""},
    {"partition 0 \"open 0x1000000 0x10000\n", "line 5: unterminated quote"},
};

TEST(FlashState, ParseLayoutRejectsEveryMalformedStatementNamingTheLine) {
  for (const ParseErrorCase& test : kParseErrors) {
    const std::string text =
        test.body[0] == '!' ? std::string(test.body + 1) : std::string(kGeometry) + test.body;
    SCOPED_TRACE(text);
    ChipLayout layout;
    layout.chip_size = 0x1234;  // must survive a failed parse
    std::string error;
    EXPECT_FALSE(ParseLayout(text, &layout, &error));
    EXPECT_NE(error.find(test.expected), std::string::npos) << error;
    EXPECT_EQ(layout.chip_size, 0x1234u);
  }
}

TEST(FlashState, ParseLayoutAcceptsTheValidGeometryUsedByTheErrorCases) {
  ChipLayout layout;
  std::string error;
  EXPECT_TRUE(
      ParseLayout(std::string(kGeometry) + "partition 0 a 0x1030000 0x10000\n", &layout, &error))
      << error;
  EXPECT_EQ(layout.fis_device, -1);  // no partition named "FIS Directory"
}

TEST(FlashState, BigEndianHelpersUseNetworkByteOrder) {
  uint8_t bytes[4] = {0, 0, 0, 0};
  WriteBigEndian32(0x12345678, bytes);
  EXPECT_EQ(bytes[0], 0x12);
  EXPECT_EQ(bytes[1], 0x34);
  EXPECT_EQ(bytes[2], 0x56);
  EXPECT_EQ(bytes[3], 0x78);
  const uint8_t high[4] = {0xFF, 0xE0, 0x00, 0x01};
  EXPECT_EQ(ReadBigEndian32(high), 0xFFE00001u);
}

// A record as laid out on flash, built byte by byte.
std::vector<uint8_t> RecordBytes(const char* name, const uint32_t words[5], uint32_t desc_cksum,
                                 uint32_t file_cksum) {
  std::vector<uint8_t> bytes(kFisRecordSize, 0);
  memcpy(bytes.data(), name, strlen(name));
  auto put = [&](size_t offset, uint32_t value) {
    bytes[offset] = value >> 24;
    bytes[offset + 1] = (value >> 16) & 0xFF;
    bytes[offset + 2] = (value >> 8) & 0xFF;
    bytes[offset + 3] = value & 0xFF;
  };
  for (size_t i = 0; i < 5; ++i) put(16 + 4 * i, words[i]);
  put(248, desc_cksum);
  put(252, file_cksum);
  return bytes;
}

TEST(FlashState, EncodeFisRecordWritesBigEndianFieldsAtTheirOffsets) {
  FisRecord record;
  record.name = "RedBoot Config";
  record.flash_base = 0xFFEE0000;
  record.mem_base = 0x01020304;
  record.size = 0x00010000;
  record.entry_point = 0xA1B2C3D4;
  record.data_length = 0x0000FFFE;
  record.desc_cksum = 0x11223344;
  record.file_cksum = 0x55667788;
  uint8_t out[kFisRecordSize];
  memset(out, 0xEE, sizeof(out));  // every byte must be written
  EncodeFisRecord(record, out);

  const uint8_t head[40] = {'R',  'e',  'd',  'B',  'o',  'o',  't',  ' ',  'C',  'o',
                            'n',  'f',  'i',  'g',  0,    0,    0xFF, 0xEE, 0x00, 0x00,
                            0x01, 0x02, 0x03, 0x04, 0x00, 0x01, 0x00, 0x00, 0xA1, 0xB2,
                            0xC3, 0xD4, 0x00, 0x00, 0xFF, 0xFE, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(0, memcmp(out, head, sizeof(head)));
  for (size_t i = 36; i < 248; ++i) ASSERT_EQ(out[i], 0) << "reserved byte " << i;
  const uint8_t tail[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  EXPECT_EQ(0, memcmp(out + 248, tail, sizeof(tail)));
}

TEST(FlashState, EncodeFisRecordKeepsFifteenNameCharactersAndATerminator) {
  FisRecord record;
  record.name = "ABCDEFGHIJKLMNOPQRS";
  uint8_t out[kFisRecordSize];
  EncodeFisRecord(record, out);
  EXPECT_EQ(0, memcmp(out, "ABCDEFGHIJKLMNO", 15));
  EXPECT_EQ(out[15], 0);
  EXPECT_EQ(DecodeFisRecord(out).name, "ABCDEFGHIJKLMNO");
}

TEST(FlashState, DecodeFisRecordReadsEveryField) {
  const uint32_t words[5] = {0xFFF40000, 0xFFF40001, 0x000B0000, 0x00000010, 0x000AEE2C};
  const std::vector<uint8_t> bytes = RecordBytes("rd.gz", words, 0xCAFEBABE, 0xDEADBEEF);
  const FisRecord record = DecodeFisRecord(bytes.data());
  EXPECT_EQ(record.name, "rd.gz");
  EXPECT_EQ(record.flash_base, 0xFFF40000u);
  EXPECT_EQ(record.mem_base, 0xFFF40001u);
  EXPECT_EQ(record.size, 0x000B0000u);
  EXPECT_EQ(record.entry_point, 0x10u);
  EXPECT_EQ(record.data_length, 0x000AEE2Cu);
  EXPECT_EQ(record.desc_cksum, 0xCAFEBABEu);
  EXPECT_EQ(record.file_cksum, 0xDEADBEEFu);

  uint8_t encoded[kFisRecordSize];
  EncodeFisRecord(record, encoded);
  EXPECT_EQ(std::vector<uint8_t>(encoded, encoded + kFisRecordSize), bytes);
}

TEST(FlashState, DecodeFisRecordTakesAllSixteenNameBytesWithoutTerminator) {
  const uint32_t words[5] = {0, 0, 0, 0, 0};
  const std::vector<uint8_t> bytes = RecordBytes("0123456789abcdef", words, 0, 0);
  EXPECT_EQ(DecodeFisRecord(bytes.data()).name, "0123456789abcdef");
}

std::vector<uint8_t> Directory(const std::vector<std::string>& names, size_t erased_records) {
  std::vector<uint8_t> bytes;
  const uint32_t words[5] = {1, 2, 3, 4, 5};
  for (const std::string& name : names) {
    const std::vector<uint8_t> record = RecordBytes(name.c_str(), words, 0, 0);
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  bytes.insert(bytes.end(), erased_records * kFisRecordSize, 0xFF);
  return bytes;
}

TEST(FlashState, DecodeFisDirectoryStopsAtFirstErasedRecord) {
  std::vector<uint8_t> bytes = Directory({"a", "b"}, 2);
  // A record after the end record is not part of the directory.
  const std::vector<uint8_t> later = Directory({"c"}, 0);
  bytes.insert(bytes.end(), later.begin(), later.end());
  bool terminated = false;
  const std::vector<FisRecord> records = DecodeFisDirectory(bytes, &terminated);
  EXPECT_TRUE(terminated);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].name, "a");
  EXPECT_EQ(records[1].name, "b");
  EXPECT_EQ(records[1].data_length, 5u);
}

TEST(FlashState, DecodeFisDirectoryOnlyLooksAtTheFirstByteForTheEnd) {
  std::vector<uint8_t> bytes = Directory({"a"}, 1);
  bytes[kFisRecordSize + 1] = 0x00;  // an erased first byte ends it whatever follows
  bool terminated = false;
  EXPECT_EQ(DecodeFisDirectory(bytes, &terminated).size(), 1u);
  EXPECT_TRUE(terminated);
}

TEST(FlashState, DecodeFisDirectoryReportsMissingEnd) {
  bool terminated = true;
  std::vector<uint8_t> bytes = Directory({"a", "b"}, 0);
  bytes.insert(bytes.end(), 100, 0xFF);  // a partial record is no end record
  const std::vector<FisRecord> records = DecodeFisDirectory(bytes, &terminated);
  EXPECT_FALSE(terminated);
  EXPECT_EQ(records.size(), 2u);
}

TEST(FlashState, DecodeFisDirectoryOfErasedBlockIsEmpty) {
  bool terminated = false;
  EXPECT_TRUE(DecodeFisDirectory(Directory({}, 4), &terminated).empty());
  EXPECT_TRUE(terminated);
}

ChipState SmallState(const std::string& dir) {
  ChipState state;
  state.dir = dir;
  std::string error;
  EXPECT_TRUE(
      ParseLayout("kind nor\nchip-base 0x10000\nchip-size 0x4000\nerase-size 0x1000\n"
                  "partition 0 boot 0x10000 0x2000 data-length=0x10\n"
                  "partition 1 \"FIS Directory\" 0x13000 0x1000\n",
                  &state.layout, &error))
      << error;
  state.image.assign(0x4000, 0xFF);
  for (size_t i = 0; i < state.image.size(); i += 7) state.image[i] = static_cast<uint8_t>(i / 7);
  state.locked = {0, 1, 0, 1};
  return state;
}

TEST(FlashState, SaveStateWritesLayoutImageAndLockFiles) {
  TempDir dir;
  const ChipState state = SmallState(dir.path());
  std::string error;
  ASSERT_TRUE(SaveState(state, &error)) << error;
  EXPECT_EQ(ReadFile(dir.File("locks")), "0101");
  EXPECT_EQ(ReadFile(dir.File("layout")), FormatLayout(state.layout));
  EXPECT_EQ(ReadFile(dir.File("chip.img")), std::string(state.image.begin(), state.image.end()));
  EXPECT_FALSE(FileExists(dir.File("layout.tmp")));
  EXPECT_FALSE(FileExists(dir.File("chip.img.tmp")));
  EXPECT_FALSE(FileExists(dir.File("locks.tmp")));
}

TEST(FlashState, LoadStateReadsBackWhatSaveStateWrote) {
  TempDir dir;
  const ChipState saved = SmallState(dir.path());
  std::string error;
  ASSERT_TRUE(SaveState(saved, &error)) << error;
  ChipState loaded;
  ASSERT_TRUE(LoadState(dir.path(), &loaded, &error)) << error;
  EXPECT_EQ(loaded.dir, dir.path());
  ExpectSameLayout(saved.layout, loaded.layout);
  EXPECT_EQ(loaded.image, saved.image);
  EXPECT_EQ(loaded.locked, saved.locked);
}

TEST(FlashState, LoadStateAcceptsLockFileEndingInNewline) {
  TempDir dir;
  std::string error;
  ASSERT_TRUE(SaveState(SmallState(dir.path()), &error)) << error;
  WriteFile(dir.File("locks"), "1100\n");
  ChipState loaded;
  ASSERT_TRUE(LoadState(dir.path(), &loaded, &error)) << error;
  EXPECT_EQ(loaded.locked, (std::vector<uint8_t>{1, 1, 0, 0}));
}

TEST(FlashState, LoadStateRejectsInconsistentFiles) {
  struct Case {
    const char* file;
    std::string content;
    const char* expected;
  };
  const Case cases[] = {
      {"chip.img", std::string(0x3FFF, '\xFF'), "holds 16383 bytes, the layout says 16384"},
      {"locks", "010", "3 lock bits for 4 erase blocks"},
      {"locks", "01x1", "lock bit 2 is neither"},
      {"layout", "kind nor\nchip-size 0x4000\n", "layout: missing erase-size"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.file);
    TempDir dir;
    std::string error;
    ASSERT_TRUE(SaveState(SmallState(dir.path()), &error)) << error;
    WriteFile(dir.File(test.file), test.content);
    ChipState loaded;
    EXPECT_FALSE(LoadState(dir.path(), &loaded, &error));
    EXPECT_NE(error.find(test.expected), std::string::npos) << error;
  }
}

TEST(FlashState, LoadStateOfMissingDirectoryFails) {
  TempDir dir;
  ChipState loaded;
  std::string error;
  EXPECT_FALSE(LoadState(dir.File("absent"), &loaded, &error));
  EXPECT_NE(error.find("absent/layout"), std::string::npos) << error;
}

TEST(FlashState, SaveStateRefusesImageOfWrongSize) {
  TempDir dir;
  ChipState state = SmallState(dir.path());
  state.image.resize(0x3000);
  std::string error;
  EXPECT_FALSE(SaveState(state, &error));
  EXPECT_FALSE(FileExists(dir.File("chip.img")));
  state = SmallState(dir.path());
  state.locked.pop_back();
  EXPECT_FALSE(SaveState(state, &error));
  EXPECT_FALSE(FileExists(dir.File("locks")));
}

TEST(FlashState, SaveLayoutReplacesOnlyTheLayout) {
  TempDir dir;
  ChipState state = SmallState(dir.path());
  std::string error;
  ASSERT_TRUE(SaveState(state, &error)) << error;
  state.layout.Find(0)->base = 0x11000;
  state.layout.Find(0)->size = 0x1000;
  ASSERT_TRUE(SaveLayout(dir.path(), state.layout, &error)) << error;
  ChipState loaded;
  ASSERT_TRUE(LoadState(dir.path(), &loaded, &error)) << error;
  EXPECT_EQ(loaded.layout.Find(0)->base, 0x11000u);
  EXPECT_EQ(loaded.locked, state.locked);
}

TEST(FlashState, SaveStateIntoMissingDirectoryFails) {
  TempDir dir;
  ChipState state = SmallState(dir.File("absent"));
  std::string error;
  EXPECT_FALSE(SaveState(state, &error));
  EXPECT_NE(error.find("absent"), std::string::npos) << error;
}

}  // namespace
}  // namespace flashsim
