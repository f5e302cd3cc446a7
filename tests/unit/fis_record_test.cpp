#include "updater/fis_record.h"

#include <string.h>

#include <vector>

#include "gtest/gtest.h"

namespace {

using Record = std::vector<unsigned char>;

// A directory record as it lies on flash: the name, then big-endian words at
// their offsets; every other byte is `filler`.
Record OnFlash(const char* name, unsigned char filler) {
  Record record(FIS_RECORD_SIZE, filler);
  memset(record.data(), 0, FIS_NAME_SIZE);
  memcpy(record.data(), name, strnlen(name, FIS_NAME_SIZE));
  const unsigned char kWords[][5] = {{16, 0xFF, 0xFE, 0x00, 0x00}, {20, 0x01, 0x02, 0x03, 0x04},
                                     {24, 0x00, 0x01, 0x00, 0x00}, {28, 0xA0, 0xB0, 0xC0, 0xD0},
                                     {32, 0x00, 0x00, 0x12, 0x34}, {248, 0x11, 0x22, 0x33, 0x44},
                                     {252, 0xCA, 0xFE, 0xF0, 0x0D}};
  for (const auto& word : kWords) memcpy(&record[word[0]], word + 1, 4);
  return record;
}

TEST(FisRecord, WordsAreBigEndianAtFixedOffsetsAndReservedBytesZero) {
  FisImageDesc desc;
  UPDTFisDecode(OnFlash("RedBoot Config", 0xA5).data(), &desc);  // reserved bytes ignored
  EXPECT_STREQ("RedBoot Config", desc.name);
  EXPECT_EQ((std::vector<uint32_t>{0xFFFE0000, 0x01020304, 0x10000, 0xA0B0C0D0, 0x1234, 0x11223344,
                                   0xCAFEF00D}),
            (std::vector<uint32_t>{desc.flash_base, desc.mem_base, desc.size, desc.entry_point,
                                   desc.data_length, desc.desc_cksum, desc.file_cksum}));

  Record encoded(FIS_RECORD_SIZE, 0xEE);
  UPDTFisEncode(&desc, encoded.data());
  EXPECT_EQ(OnFlash("RedBoot Config", 0x00), encoded);
}

TEST(FisRecord, NameFillsSixteenBytesAndStopsAtTheFirstNul) {
  // Sixteen characters without a terminator, the next word right behind.
  FisImageDesc desc;
  UPDTFisDecode(OnFlash("ABCDEFGHIJKLMNOP", 0).data(), &desc);
  EXPECT_STREQ("ABCDEFGHIJKLMNOP", desc.name);
  EXPECT_EQ(0xFFFE0000u, desc.flash_base);

  Record record = OnFlash("rd.gz", 0);
  memcpy(&record[6], "junk", 4);
  char name[FIS_NAME_SIZE + 1];
  memset(name, 'x', sizeof(name));
  EXPECT_EQ(name, UPDTFisName(record.data(), name));
  EXPECT_EQ(0, memcmp("rd.gz\0\0\0\0\0\0\0\0\0\0\0\0", name, sizeof(name)));

  memcpy(desc.name, "0123456789abcdefZ", 17);  // one too many, no terminator
  UPDTFisEncode(&desc, record.data());
  EXPECT_EQ(OnFlash("0123456789abcdef", 0), record);
}

}  // namespace
